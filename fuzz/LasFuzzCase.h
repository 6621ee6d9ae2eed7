#pragma once

// One input of the LAS fuzz target, shared with the test that replays the kept inputs. The bytes are read
// three ways: as the start of a LAS file whose header and VLRs are parsed in memory; as a chain of bare VLRs
// (a 54-byte header, then its payload, and so on) handed to LaszVlr in both encodings, which reaches the
// GeoTIFF conversion without a LAS header in front; and as a file on disk that the importer probes and
// converts like a host. Each check returns what went wrong, or an empty text: the fuzzer stops on a non-empty
// one, the test reports it.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"
#include "importers/Las.h"
#include "importers/las/LasHeader.h"
#include "importers/las/LasVlrs.h"
#include "importers/las/LaszVlr.h"

namespace pcp_fuzz
{

// Larger files are parsed but not converted, to keep each input quick.
constexpr uint64_t kMaxLasPoints = 100000;

// Errors the library means to give for bad LAS input.
inline bool isLasError(const std::string& text)
{
    for (const char* prefix : {"LAS error: ", "\nLAS error: ", "LaszVlr::", "convertGEOTIFFtoWKT: ",
                               "LAZ error: Expected r, g & b", "IoTransfo "})
        if (text.rfind(prefix, 0) == 0)
            return true;
    return false;
}

inline std::string foreign(const std::exception& e)
{
    return std::string("a foreign error: ") + e.what();
}

// Header and VLRs from memory; a header that parses must describe records that fit in the file.
inline std::string checkHeader(std::span<const uint8_t> bytes)
{
    using namespace pc_preprocess::las;
    try
    {
        const LasHeader header =
            parseLasHeader(bytes.first(std::min<size_t>(bytes.size(), LasHeader::kBlockSize)), "fuzz.las");
        const PointFormatLayout& layout = header.layout;
        if (header.pointFormat > kLastPointFormat || header.pointRecordLength < layout.smallestRecordLength ||
            layout.classificationOffset >= header.pointRecordLength ||
            (layout.colourOffset != 0 && layout.colourOffset + 6u > header.pointRecordLength))
            return "a record layout that does not fit its record";
        const uint64_t records = header.plausiblePointCount(bytes.size());
        if (records > header.numberOfPoints ||
            (records > 0 && header.offsetToPointData + records * header.pointRecordLength > bytes.size()))
            return "a plausible count beyond the file";
        bool pastTheEnd = false;
        readCoordinateSystem(header, bytes.size(),
                             [&](uint64_t offset, std::span<uint8_t> out)
                             {
                                 if (offset > bytes.size() || out.size() > bytes.size() - offset)
                                 {
                                     pastTheEnd = true;
                                     throw std::runtime_error("LAS error: fuzz read past the end");
                                 }
                                 if (!out.empty())
                                     std::memcpy(out.data(), bytes.data() + offset, out.size());
                             });
        if (pastTheEnd)
            return "a VLR read past the end of the file";
    }
    catch (const std::runtime_error& e)
    {
        if (!isLasError(e.what()))
            return foreign(e);
    }
    return {};
}

// The bytes as VLR after VLR, in the GeoTIFF and in the WKT encoding.
inline std::string checkVlrChain(std::span<const uint8_t> bytes)
{
    using pc_preprocess::LaszVlr;
    for (const uint16_t encoding : {uint16_t(0), LaszVlr::kWktEncodingBit})
    {
        try
        {
            LaszVlr vlrs(encoding);
            size_t position = 0;
            while (bytes.size() - position >= LaszVlr::kHeaderSize)
            {
                const std::vector<uint8_t> header(bytes.begin() + position,
                                                  bytes.begin() + position + LaszVlr::kHeaderSize);
                const auto [interpretable, length] = vlrs.parseHeader(header);
                position += LaszVlr::kHeaderSize;
                const size_t size = std::min<size_t>(length, bytes.size() - position);
                // A short payload must be refused, an interpretable one of the right size taken.
                if (interpretable || size != length)
                    vlrs.parseRecord(bytes.data() + position, size);
                position += size;
            }
            vlrs.getWKT();
        }
        catch (const std::runtime_error& e)
        {
            if (!isLasError(e.what()))
                return foreign(e);
        }
    }
    return {};
}

// The bytes as a file, probed and converted like a host does; byte 4 (the low byte of the file source id)
// chooses the 8-bit colour mode when odd.
inline std::string checkImport(std::span<const uint8_t> bytes, const std::wstring& file,
                               const std::wstring& cache)
{
    using namespace pc_preprocess;
    {
        std::ofstream out(toPath(file), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    const ColorMode mode(bytes.size() > 4 && (bytes[4] & 1) != 0 ? kRgb8Bit : kRgb16Bit, kIntensity16Bit);
    try
    {
        const las::LasHeader header =
            las::parseLasHeader(bytes.first(std::min<size_t>(bytes.size(), las::LasHeader::kBlockSize)), "");
        if (header.plausiblePointCount(bytes.size()) > kMaxLasPoints)
            return {};
    }
    catch (const std::runtime_error&)
    {
        // The importer must refuse it the same way; the probe below sees to that.
    }
    try
    {
        Las prober(file, 1.0, mode);
        const ProbeResult probe = prober.probe(1.0, {});
        if (!probe.transfo.isValid())
            return {};
        Las converter(file, 1.0, mode);
        converter.run(cache, probe.transfo, false, {}, {});
        if (converter.workDone() != converter.workTotal())
            return "a conversion that ended before its work was done";
        if (converter.getScanFiles().size() != 1)
            return {};
        IoTransfo transfo;
        std::vector<IoLightPoint> points;
        readPNT(converter.getScanFiles()[0].pntFile, transfo, points);
        if (points.size() > static_cast<uint64_t>(converter.workTotal()))
            return "more points than records";
        const ExtentsI32 box = readMetaFile(converter.getScanFiles()[0].metaFile).extents;
        for (const IoLightPoint& p : points)
            if (!box.contains(p))
                return "a point outside the scan's box";
    }
    catch (const std::runtime_error& e)
    {
        if (!isLasError(e.what()))
            return foreign(e);
    }
    return {};
}

}  // namespace pcp_fuzz
