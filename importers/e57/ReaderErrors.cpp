#include "importers/e57/ReaderErrors.h"

#include "e57/E57Exception.h"

namespace pc_preprocess
{

namespace
{

const char* prefixOf(e57::ErrorCode code)
{
    switch (static_cast<int>(code))
    {
        case 11:
            return "E57_ERROR_INTERNAL: \n";
        case 12:
            return "E57_ERROR_BAD_XML_FORMAT: \n";
        case 13:
            return "E57_ERROR_XML_PARSER: \n";
        case 14:
            return "E57_ERROR_BAD_API_ARGUMENT: \n";
        case 16:
            return "E57_ERROR_BAD_CHECKSUM: \n";
        case 17:
            return "E57_ERROR_OPEN_FAILED: \n";
        case 19:
            return "E57_ERROR_READ_FAILED: \n";
        case 20:
            return "E57_ERROR_WRITE_FAILED: \n";
        case 21:
            return "E57_ERROR_LSEEK_FAILED: \n";
        case 27:
            return "E57_ERROR_BAD_FILE_SIGNATURE: \n";
        case 28:
            return "E57_ERROR_UNKNOWN_FILE_VERSION: \n";
        case 29:
            return "E57_ERROR_BAD_FILE_LENGTH: \n";
        case 30:
            return "E57_ERROR_XML_PARSER_INIT: \n";
        case 49:
            return "E57_ERROR_BAD_CONFIGURATION: \n";
        default:
            return "Unknown E57 error: \n";
    }
}

}  // namespace

std::string describeE57Exception(const e57::E57Exception& e)
{
    return std::string(prefixOf(e.code())) + e.context() + "\noccured in " + e.sourceFile() + ", line " +
           std::to_string(e.sourceLine()) + ", function " + e.sourceFunction();
}

}  // namespace pc_preprocess
