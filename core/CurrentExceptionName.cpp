#include "core/CurrentExceptionName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace pc_preprocess
{

std::string currentExceptionTypeName()
{
    const std::type_info* type = abi::__cxa_current_exception_type();
    if (type == nullptr)
        return {};
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(type->name());
}

}  // namespace pc_preprocess
