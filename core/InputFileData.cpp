#include "core/InputFileData.h"

#include <filesystem>
#include <stdexcept>

#include "core/StringConversion.h"

namespace pc_preprocess
{

InputFileData::InputFileData(const std::wstring& path_, double scale_, const std::string& columnFormat_,
                             const ColorMode& colorMode_, const std::string& delimiters_,
                             const std::string& skipPrefix_)
    : path(path_),
      scale(scale_),
      columnFormat(columnFormat_),
      colorMode(colorMode_),
      delimiters(delimiters_),
      skipPrefix(skipPrefix_)
{
    // status() reports a missing path as not_found and throws only for other failures of the query.
    if (!std::filesystem::is_regular_file(std::filesystem::status(toPath(path))))
        throw std::runtime_error("InputFileData: " + ws2s(path) + " is not an existing regular file!");
    if (!(scale > 0.0))
        throw std::runtime_error("InputFileData: scale = " + std::to_string(scale) + " <= 0.0.");
}

}  // namespace pc_preprocess
