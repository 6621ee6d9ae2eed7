#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// A failure whose message is the fixed text that hosts and tests compare, with the reason that a library
// below gave (LASzip's error text, the damage a check found) kept apart: the log shows it on a line of its
// own under the message, and the message stays exactly what it is.
class PCP_API ErrorWithReason : public std::runtime_error
{
public:
    ErrorWithReason(const std::string& message, const std::string& reason)
        : std::runtime_error(message), m_reason(reason)
    {
    }

    // Empty when the library below gave none.
    const char* reason() const noexcept { return m_reason.what(); }

private:
    // A runtime_error holds its text without a copy that could throw when the exception is copied.
    std::runtime_error m_reason;
};

// What the log says of a failure: its message and, for an ErrorWithReason with a reason, that reason after
// `separator` (a line end and an indent).
PCP_API std::string logText(const std::exception& e, const std::string& separator = "\n\t");

}  // namespace pc_preprocess
