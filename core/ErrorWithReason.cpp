#include "core/ErrorWithReason.h"

namespace pc_preprocess
{

std::string logText(const std::exception& e, const std::string& separator)
{
    const auto* withReason = dynamic_cast<const ErrorWithReason*>(&e);
    if (withReason == nullptr || *withReason->reason() == '\0')
        return e.what();
    return e.what() + separator + withReason->reason();
}

}  // namespace pc_preprocess
