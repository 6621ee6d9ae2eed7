#include "core/FileFormat.h"

#include <iterator>

#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

struct ExtensionRow
{
    const wchar_t* extension;
    EFileFormat format;
};

constexpr ExtensionRow kExtensions[] = {
    {L".las", kFormatLas},   {L".laz", kFormatLaz},   {L".ptx", kFormatPtx}, {L".pts", kFormatPts},
    {L".e57", kFormatE57},   {L".rcp", kFormatRcp},   {L".rcs", kFormatRcp}, {L".hspc", kFormatHspc},
    {L".pack", kFormatHspc}, {L".rdbx", kFormatRdbx}, {L".rsp", kFormatRsp}, {L".zfs", kFormatZfs},
    {L".lgsx", kFormatLgsx}, {L".vrm", kFormatVrm},   {L".vrp", kFormatVrp},
};

}  // namespace

EFileFormat fileFormat(const std::wstring& path)
{
    std::wstring extension = toWide(toPath(path).extension());
    // Extensions are ASCII: lowering only A-Z keeps the comparison independent of the process locale.
    for (wchar_t& c : extension)
        if (c >= L'A' && c <= L'Z')
            c = static_cast<wchar_t>(c - L'A' + L'a');
    for (const ExtensionRow& row : kExtensions)
        if (extension == row.extension)
            return row.format;
    return kFormatUnknown;
}

const char* formatName(EFileFormat format)
{
    static const char* const kNames[] = {"unknown", "LAS",  "LAZ", "PTX", "PTS",  "E57", "RCP",
                                         "HSPC",    "RDBX", "RSP", "ZFS", "LGSX", "VRM", "VRP"};
    return format < std::size(kNames) ? kNames[format] : "unknown";
}

geom::UnitsValue getFileUnits(const std::wstring& path)
{
    switch (fileFormat(path))
    {
        case kFormatE57:
        case kFormatRcp:
        case kFormatRdbx:
        case kFormatRsp:
        case kFormatZfs:
        case kFormatLgsx:
            return geom::kUnitsMeters;
        default:
            return geom::kUnitsUndefined;
    }
}

}  // namespace pc_preprocess
