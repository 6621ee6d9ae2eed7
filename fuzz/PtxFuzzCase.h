#pragma once

// One input of the PTX fuzz target, shared with the test that replays the kept inputs. The first byte chooses
// the colour mode of the conversion; the rest is the file. Its lines go through the header and point line
// parsers in memory, then the whole text as a file through the importer, probed and converted like a host
// does. Each check returns what went wrong, or an empty text: the fuzzer stops on a non-empty one, the test
// reports it.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cachefiles/MetaFile.h"
#include "cachefiles/PntFiles.h"
#include "core/StringConversion.h"
#include "importers/Ptx.h"
#include "importers/ptx/PointLine.h"
#include "importers/ptx/ScanHeader.h"

namespace pcp_fuzz
{

struct PtxFuzzCase
{
    pc_preprocess::ColorMode mode;
    std::string text;

    static std::optional<PtxFuzzCase> decode(const uint8_t* data, size_t size)
    {
        using namespace pc_preprocess;
        static const ColorMode modes[] = {
            ColorMode(kRgbNone, kIntensityNone),          ColorMode(kRgb16Bit, kIntensityUnit),
            ColorMode(kRgb8Bit, kIntensityUnit),          ColorMode(kRgbBlack, kIntensityUnit),
            ColorMode(kRgbFromIntensity, kIntensityUnit),
        };
        if (size < 1)
            return std::nullopt;
        PtxFuzzCase input;
        input.mode = modes[data[0] % 5];
        input.text.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
        return input;
    }
};

// Every line in every place of a header and in both point layouts.
inline std::string checkLines(const PtxFuzzCase& input)
{
    using namespace pc_preprocess::ptx;
    const std::string& text = input.text;
    for (size_t start = 0; start <= text.size();)
    {
        const size_t stop = std::min(text.find('\n', start), text.size());
        const char* begin = text.data() + start;
        const char* end = text.data() + stop;
        for (size_t index = 0; index < kHeaderLines; ++index)
        {
            ScanHeader header;
            // Columns as a large header would have them, so that the rows line reaches the overflow guard.
            header.columns = uint64_t{1} << 33;
            if (!parseHeaderLine(index, begin, end, header))
                continue;
            // A product that wrapped would not divide back.
            const bool exact = header.rows == 0 ? header.gridPoints == 0
                                                : header.gridPoints % header.rows == 0 &&
                                                      header.gridPoints / header.rows == header.columns;
            if (index == 1 && !exact)
                return "a grid count that is not rows times columns";
            for (double value : header.rotation)
                if (!std::isfinite(value))
                    return "a rotation value that is not finite";
            for (double value : header.translation)
                if (!std::isfinite(value))
                    return "a translation value that is not finite";
        }
        const size_t tokens = countTokens(begin, end, kColumnsWithColour + 1);
        if (tokens > kColumnsWithColour + 1)
            return "more tokens than asked for";
        for (size_t columns : {kColumnsWithoutColour, kColumnsWithColour})
        {
            PointValues point;
            if (!readPointLine(begin, end, columns, point))
                continue;
            if (tokens < columns)
                return "a point line read with fewer tokens than its columns";
            for (double value :
                 {point.x, point.y, point.z, point.intensity, point.rgb[0], point.rgb[1], point.rgb[2]})
                if (!std::isfinite(value))
                    return "a point value that is not finite";
            if (hasValidValues(point, columns, 255.0) &&
                (point.intensity < 0.0 || *std::max_element(point.rgb, point.rgb + 3) > 255.0 ||
                 *std::min_element(point.rgb, point.rgb + 3) < 0.0))
                return "values accepted outside their range";
        }
        start = stop + 1;
    }
    return {};
}

// The text as a file through the importer: probe and conversion fail only with its own errors, and what they
// write fits the scans' grids.
inline std::string checkImport(const PtxFuzzCase& input, const std::wstring& file, const std::wstring& cache)
{
    using namespace pc_preprocess;
    std::ofstream(toPath(file), std::ios::binary | std::ios::trunc) << input.text;
    try
    {
        Ptx prober(file, 0.001, ColorMode());
        const ProbeResult probe = prober.probe(0.001, {});
        if (!probe.transfo.isValid())
            return {};
        Ptx converter(file, 0.001, input.mode);
        converter.run(cache, probe.transfo, false, {}, {});
        const auto& scans = converter.getScanFiles();
        for (size_t scan = 0; scan < scans.size(); ++scan)
        {
            IoTransfo transfo;
            std::vector<IoLightPoint> points;
            readPNT(scans[scan].pntFile, transfo, points);
            if (points.size() > readMetaFile(scans[scan].metaFile).numPoints)
                return "more points than cells in the grid";
            const bool grey = !converter.getSupportedAttributes().color;
            for (const IoLightPoint& p : points)
                if (grey && (p.r != p.intensity || p.g != p.intensity || p.b != p.intensity))
                    return "a point without colour that is not grey";
        }
    }
    catch (const std::runtime_error& e)
    {
        const std::string text = e.what();
        if (text.rfind("PTX error: Could not parse ", 0) != 0)
            return "a foreign error: " + text;
    }
    return {};
}

}  // namespace pcp_fuzz
