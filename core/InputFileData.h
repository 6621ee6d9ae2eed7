#pragma once

#include <cstdint>
#include <string>

#include "core/ColorMode.h"
#include "core/Export.h"

namespace pc_preprocess
{

// One input of a run with the caller's settings for it. The last three strings are the settings of the PTS
// reader: column format, delimiters and the prefix of lines to skip; maxImagePixels bounds its camera images.
class PCP_API InputFileData
{
public:
    std::wstring path;
    double scale;
    std::string columnFormat;
    ColorMode colorMode;  // 0, 0 lets the run detect the colours
    std::string delimiters;
    std::string skipPrefix;
    // Camera images of the input (E57) whose pictures declare more pixels than this are left out with a
    // warning, before they are decoded: a picture costs some 3 bytes a pixel in memory while it is painted.
    static constexpr uint64_t kDefaultMaxImagePixels = 100'000'000;
    uint64_t maxImagePixels = kDefaultMaxImagePixels;
    // The RIEGL library (librdb.so) for RDBX and RSP inputs; empty: its usual names on the library search path.
    std::wstring rieglLibrary;

    // Throws when the path is no existing regular file, then when the scale is not positive.
    InputFileData(const std::wstring& path, double scale, const std::string& columnFormat = {},
                  const ColorMode& colorMode = {}, const std::string& delimiters = {},
                  const std::string& skipPrefix = {});
};

}  // namespace pc_preprocess
