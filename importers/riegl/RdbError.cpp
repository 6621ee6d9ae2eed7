#include "importers/riegl/RdbError.h"

#include "importers/riegl/RdbLibrary.h"

namespace pc_preprocess::riegl
{

namespace
{

std::string textOr(RDBString text, const std::string& fallback)
{
    return text && *text ? std::string(text) : fallback;
}

std::string withCode(const char* call, int32_t code)
{
    return std::string(call) + " failed with error code " + std::to_string(code);
}

}  // namespace

void checkRdb(const RdbLibrary& library, RDBContext* context, RDBResult result, const char* call)
{
    if (result == kRdbSuccess)
        return;
    int32_t code = 0;
    RDBString text = nullptr;
    RDBString details = nullptr;
    if (!context || library.rdb_context_get_last_error(context, &code, &text, &details) != kRdbSuccess)
        throw RdbError(std::string(call) + " failed", "no details: the library's error could not be read");
    throw RdbError(textOr(text, withCode(call, code)), textOr(details, ""));
}

void checkRdbCf(const RdbLibrary& library, const RDBResultCF* result, const char* call)
{
    if (!result)
        return;
    const int32_t code = library.rdb_result_get_error_code_cf(result);
    throw RdbError(textOr(library.rdb_result_get_error_text_cf(result), withCode(call, code)),
                   textOr(library.rdb_result_get_error_details_cf(result), ""));
}

}  // namespace pc_preprocess::riegl
