// What a conversion stage reports instead of throwing: a list of failures, each with a code that says what
// kind of step failed, the text that went to the error logger, and when it happened. A stage that returns an
// empty list succeeded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace HSPC
{

namespace FailureCode
{
inline constexpr uint8_t kNone = 0;
// An input could not be read; the stage goes on with what it has.
inline constexpr uint8_t kInputRead = 1;
// A batch of the first stage could not be processed.
inline constexpr uint8_t kBatchProcessing = 2;
inline constexpr uint8_t kCancelled = 7;
// A temporary file could not be written, a structure stayed non-empty, or a deprecated input was given.
inline constexpr uint8_t kTempFile = 10;
// A whole stage could not be carried out.
inline constexpr uint8_t kStage = 11;
}  // namespace FailureCode

struct ConversionFailure
{
    uint8_t code = FailureCode::kNone;
    std::string message;
    // Seconds on conversionClockSeconds when the failure was recorded.
    int64_t time = 0;
};

using ConversionFailures = std::vector<ConversionFailure>;

// Whole seconds of a clock that only moves forward; failures are reported relative to a conversion's start
// on this clock, so its epoch does not matter.
int64_t conversionClockSeconds();

// A failure stamped with the current time.
ConversionFailure makeFailure(uint8_t code, std::string message);

}  // namespace HSPC
