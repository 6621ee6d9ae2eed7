#include "hspc/convert/ConversionFailure.h"

#include <chrono>
#include <utility>

namespace HSPC
{

int64_t conversionClockSeconds()
{
    const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
}

ConversionFailure makeFailure(uint8_t code, std::string message)
{
    return ConversionFailure{code, std::move(message), conversionClockSeconds()};
}

}  // namespace HSPC
