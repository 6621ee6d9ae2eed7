#pragma once

#include <stdexcept>
#include <string>

#include "importers/riegl/RdbApi.h"

namespace pc_preprocess::riegl
{

class RdbLibrary;

// A call of the RIEGL library that failed: the library's text, and its details apart, as the importer's
// message puts them after " : ".
class RdbError : public std::runtime_error
{
public:
    RdbError(const std::string& text, const std::string& details) : std::runtime_error(text), m_details(details)
    {
    }
    const std::string& details() const { return m_details; }

private:
    std::string m_details;
};

// Throws RdbError with the context's last error unless `result` is success; `call` names the call when the
// library has no text of its own.
void checkRdb(const RdbLibrary& library, RDBContext* context, RDBResult result, const char* call);
// The same for a context-free call, whose result is null on success.
void checkRdbCf(const RdbLibrary& library, const RDBResultCF* result, const char* call);

}  // namespace pc_preprocess::riegl
