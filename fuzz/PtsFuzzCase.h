#pragma once

// One input of the PTS fuzz target, shared with the test that replays the kept inputs. The first byte chooses
// a delimiter (and, with its top bit, the comment marker "#"), the second a column format (or detection) and
// the colour mode of the conversion; the rest is the file. Each check returns what went wrong, or an empty
// text: the fuzzer stops on a non-empty one, the test reports it.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/StringConversion.h"
#include "importers/PtsImporter.h"
#include "importers/pts/ColumnLayout.h"
#include "importers/pts/LineSplitter.h"
#include "importers/text/NumberLine.h"

namespace pcp_fuzz
{

struct PtsFuzzCase
{
    pc_preprocess::PtsImporter::Settings settings;
    pc_preprocess::ColorMode mode;
    std::string text;

    static std::optional<PtsFuzzCase> decode(const uint8_t* data, size_t size)
    {
        static const char* const delimiters[] = {"\\s", ",", ";", "[,;]", "\\t", " ", "|", "\\s*,"};
        static const char* const formats[] = {"",        "XYZ",      "XYZI",  "XYZRGB",
                                              "XYZIRGB", "XYZ..RGB", "Z.Y.X", "IBGRXYZ"};
        using namespace pc_preprocess;
        static const ColorMode modes[] = {
            ColorMode(kRgbNone, kIntensityNone),
            ColorMode(kRgb16Bit, kIntensityUnit),
            ColorMode(kRgb8Bit, kIntensity8Bit),
            ColorMode(kRgbBlack, kIntensity16Bit),
            ColorMode(kRgbFromIntensity, kIntensitySigned),
        };
        if (size < 2)
            return std::nullopt;
        PtsFuzzCase input;
        input.settings.delimiter = delimiters[data[0] % 8];
        input.settings.commentMarker = (data[0] & 0x80) != 0 ? "#" : "";
        input.settings.columnFormat = formats[data[1] % 8];
        input.mode = modes[(data[1] >> 3) % 5];
        input.text.assign(reinterpret_cast<const char*>(data) + 2, size - 2);
        return input;
    }

    // The separator the data lines of this case are parsed with.
    char separator() const
    {
        const char first = settings.delimiter.front();
        return first == '\\' ? pc_preprocess::NumberLine::kWhiteSpaceSeparated : first;
    }
};

// Every line through both number grammars and the splitting of detection and previews.
inline std::string checkLines(const PtsFuzzCase& input)
{
    using namespace pc_preprocess;
    constexpr size_t maxCount = 8;
    const NumberLine grammars[] = {NumberLine{NumberLine::kWhiteSpaceSeparated},
                                   NumberLine{input.separator()}};
    std::optional<LineSplitter> splitter;
    try
    {
        splitter.emplace(input.settings.delimiter, input.settings.commentMarker);
    }
    catch (const InvalidDelimiter&)
    {
        // "|" is one: the importer refuses it with its own error, which checkImport sees.
    }
    std::vector<std::string> tokens;
    const std::string& text = input.text;
    for (size_t start = 0; start <= text.size();)
    {
        const size_t stop = std::min(text.find('\n', start), text.size());
        const char* begin = text.data() + start;
        const char* end = text.data() + stop;
        for (const NumberLine& grammar : grammars)
        {
            double values[maxCount];
            const size_t count = grammar.parse(begin, end, values, maxCount);
            if (count > maxCount)
                return "more numbers than asked for";
            for (size_t i = 0; i < count; ++i)
                if (!std::isfinite(values[i]))
                    return "a number that is not finite";
        }
        if (splitter)
            splitter->split(begin, end, tokens, maxCount);
        if (tokens.size() > maxCount)
            return "more tokens than asked for";
        const std::string format = ColumnLayout::formatForTokenCount(tokens.size());
        if (!format.empty() && ColumnLayout::fromFormat(format).nrColumns != tokens.size())
            return "a detected format that does not fit its line";
        start = stop + 1;
    }
    return {};
}

// The first line as a format string: it fails with its reason or names columns that a line can hold.
inline std::string checkFormatString(const PtsFuzzCase& input)
{
    using namespace pc_preprocess;
    try
    {
        const ColumnLayout layout = ColumnLayout::fromFormat(input.text.substr(0, input.text.find('\n')));
        const uint16_t n = layout.nrColumns;
        if (layout.X >= n || layout.Y >= n || layout.Z >= n || (layout.hasIntensity && layout.I >= n) ||
            (layout.hasRgb && (layout.R >= n || layout.G >= n || layout.B >= n)))
            return "a column beyond the count of columns";
    }
    catch (const ColumnFormatError&)
    {
    }
    return {};
}

// The text as a file through the importer: preview, probe and conversion fail only with its own errors.
inline std::string checkImport(const PtsFuzzCase& input, const std::wstring& file, const std::wstring& cache)
{
    using namespace pc_preprocess;
    std::ofstream(toPath(file), std::ios::binary | std::ios::trunc) << input.text;
    try
    {
        PtsImporter prober(file, 0.001, ColorMode(), input.settings);
        std::vector<std::vector<std::string>> rows;
        prober.getPreviewData(rows);
        const ProbeResult probe = prober.probe(0.001, {});
        if (probe.transfo.isValid())
            PtsImporter(file, 0.001, input.mode, input.settings).run(cache, probe.transfo, false, {}, {});
    }
    catch (const std::runtime_error& e)
    {
        const std::string text = e.what();
        if (text.rfind("PTS error: Could not parse ", 0) != 0)
            return "a foreign error: " + text;
    }
    return {};
}

}  // namespace pcp_fuzz
