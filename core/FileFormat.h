#pragma once

#include <cstdint>
#include <string>

#include "core/Export.h"
#include "geom/UnitsValue.h"

namespace pc_preprocess
{

// Input and cache file formats, told apart by the extension alone.
enum EFileFormat : uint8_t
{
    kFormatUnknown = 0,
    kFormatLas = 1,
    kFormatLaz = 2,
    kFormatPtx = 3,
    kFormatPts = 4,
    kFormatE57 = 5,
    kFormatRcp = 6,
    kFormatHspc = 7,
    kFormatRdbx = 8,
    kFormatRsp = 9,
    kFormatZfs = 10,
    kFormatLgsx = 11,
    kFormatVrm = 12,
    kFormatVrp = 13,
};

// Compares the extension with the known ones, ignoring case.
PCP_API EFileFormat fileFormat(const std::wstring& path);

// The short name of a format for messages: "LAS", "E57", "unknown".
PCP_API const char* formatName(EFileFormat format);

// Metres for the formats whose coordinates are metres by definition, undefined for all others.
PCP_API geom::UnitsValue getFileUnits(const std::wstring& path);

}  // namespace pc_preprocess
