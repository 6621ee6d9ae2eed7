#include "importers/PtsImporter.h"

#include <cmath>
#include <utility>

#include "core/StringConversion.h"
#include "importers/pts/LineSplitter.h"
#include "importers/pts/ValueScaling.h"

namespace pc_preprocess
{

namespace
{

// Detection needs no count above this: every line of 8 tokens or more is refused alike.
constexpr size_t kDetectionTokens = 8;
// A point line needs at least this many tokens.
constexpr size_t kPointTokens = 3;
constexpr size_t kDelimiterCheckLines = 20;
constexpr size_t kPreviewRows = 50;
// A preview shows columns to a person; more than this in one row helps no one and would let a line of a
// million tokens take gigabytes.
constexpr size_t kPreviewColumns = 1024;

const char* const kUndetectableAtEnd = "Cannot determine line format automatically before end of file.";

bool isChannel(double value)
{
    return value >= 0.0 && value < 65536.0;
}

}  // namespace

PtsImporter::PtsImporter(const std::wstring& path, double scale, const ColorMode& colorMode,
                         const Settings& settings)
    : Convertor(path, scale, colorMode), m_settings(settings), m_source(toPath(path), m_fileSize)
{
    if (m_settings.delimiter.empty())
        m_settings.delimiter = kDefaultDelimiter;
    // Data lines are parsed without the regular expression: an escape such as "\s" or "\t" stands for white
    // space, anything else for its first character.
    m_numberLine.separator = m_settings.delimiter.front() == '\\' ? NumberLine::kWhiteSpaceSeparated
                                                                  : m_settings.delimiter.front();
    if (m_settings.determineFormat)
        determineFormat();
}

std::runtime_error PtsImporter::error(const std::string& text, bool withLine) const
{
    std::string message = "PTS error: Could not parse " + ws2s(m_path);
    if (withLine)
    {
        const uint64_t line = m_source.linesRead();
        message += "\n\tLine number " + std::to_string(line == FileSource::kNone ? 0 : line);
    }
    return std::runtime_error(message + "\n\t" + text + "\n");
}

void PtsImporter::useLayout(const ColumnLayout& layout)
{
    m_layout = layout;
    m_values.assign(layout.nrColumns, 0.0);
}

void PtsImporter::determineFormat()
{
    if (m_settings.columnFormat.empty())
    {
        detectFormat();
        return;
    }
    try
    {
        useLayout(ColumnLayout::fromFormat(m_settings.columnFormat));
    }
    catch (const ColumnFormatError& e)
    {
        throw error(e.what(), false);
    }
}

void PtsImporter::detectFormat()
{
    const LineSplitter splitter = makeSplitter(m_settings.delimiter, m_settings.commentMarker);
    if (!m_source.open())
    {
        // An empty file ends before any line.
        if (m_source.fileSize() == 0)
            throw error(kUndetectableAtEnd, true);
        throw error("Could not open file.", false);
    }
    try
    {
        std::vector<std::string> tokens;
        const char* begin = nullptr;
        const char* end = nullptr;
        for (;;)
        {
            if (!m_source.getLine(begin, end))
                throw error(kUndetectableAtEnd, true);
            splitter.split(begin, end, tokens, kDetectionTokens);
            // Shorter lines are the point count at the top, comments, blank lines.
            if (tokens.size() < kPointTokens)
                continue;
            const std::string format = ColumnLayout::formatForTokenCount(tokens.size());
            if (format.empty())
                throw error("Cannot determine line format automatically from:\n\t" + std::string(begin, end),
                            true);
            useLayout(ColumnLayout::fromFormat(format));
            m_settings.columnFormat = format;
            break;
        }
    }
    catch (...)
    {
        m_source.close();
        throw;
    }
    m_source.close();
}

LineSplitter PtsImporter::makeSplitter(const std::string& delimiter, const std::string& commentMarker) const
{
    try
    {
        return LineSplitter(delimiter, commentMarker);
    }
    catch (const InvalidDelimiter& e)
    {
        throw error(e.what(), false);
    }
}

void PtsImporter::openSource()
{
    if (!m_source.open())
        throw error("Could not open file.", false);
    m_workDone = 0;
}

void PtsImporter::openGroup()
{
    // An object made for previews only may still be asked to convert: it settles its columns first.
    if (!m_layout.isKnown())
        determineFormat();
    openSource();
}

void PtsImporter::closeGroup()
{
    m_source.close();
}

bool PtsImporter::remainScanData()
{
    return m_source.isOpen() && m_workDone < m_source.fileSize();
}

SupportedAttributes PtsImporter::getSupportedAttributes()
{
    SupportedAttributes attributes;
    attributes.color = m_layout.hasRgb;
    attributes.intensity = m_layout.hasIntensity;
    return attributes;
}

bool PtsImporter::checkIfPossibleDelimiter(const std::string& delimiter)
{
    bool possible = false;
    try
    {
        const LineSplitter splitter(delimiter, std::string());
        openSource();
        std::vector<std::string> tokens;
        const char* begin = nullptr;
        const char* end = nullptr;
        for (size_t line = 0; line < kDelimiterCheckLines && !possible && m_source.getLine(begin, end);
             ++line)
        {
            splitter.split(begin, end, tokens, kPointTokens);
            possible = tokens.size() >= kPointTokens;
        }
    }
    catch (const std::exception&)
    {
        // A delimiter that is no expression, or a file that cannot be read, is simply no possibility.
    }
    closeGroup();
    return possible;
}

bool PtsImporter::getPreviewData(std::vector<std::vector<std::string>>& rows)
{
    rows.clear();
    try
    {
        const LineSplitter splitter(m_settings.delimiter, m_settings.commentMarker);
        openSource();
        std::vector<std::string> tokens;
        const char* begin = nullptr;
        const char* end = nullptr;
        while (rows.size() < kPreviewRows && m_source.getLine(begin, end))
        {
            splitter.split(begin, end, tokens, kPreviewColumns);
            if (tokens.size() >= kPointTokens)
                rows.push_back(std::move(tokens));
        }
    }
    catch (const std::exception&)
    {
        closeGroup();
        return false;
    }
    closeGroup();
    return !rows.empty();
}

void PtsImporter::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing)
{
    batch.clear();
    if (!m_source.isOpen())
        return;
    // Each axis is computed from its own column alone.
    if (!transfo.isDiagonal)
        throw error("Discretization should be diagonal.", false);
    try
    {
        const char* begin = nullptr;
        const char* end = nullptr;
        while (batch.size() < kBatchSize)
        {
            if (!m_source.getLine(begin, end))
            {
                m_workDone = m_source.fileSize();
                m_source.close();
                return;
            }
            addLine(begin, end, batch, transfo, probing);
        }
        m_workDone = m_source.filePosition();
    }
    catch (const std::runtime_error&)
    {
        // A failure of the data: progress stands where it was found.
        if (m_source.filePosition() != FileSource::kNone)
            m_workDone = m_source.filePosition();
        throw;
    }
    catch (...)
    {
        m_workDone = m_source.fileSize();
        m_source.close();
        throw;
    }
}

void PtsImporter::addLine(const char* begin, const char* end, std::vector<IoLightPoint>& batch,
                          const Discretization& transfo, bool probing)
{
    const ColumnLayout& columns = m_layout;
    const double* values = m_values.data();
    // A line with too few numbers is no point: a count, a comment, a broken line. None is an error.
    if (m_numberLine.parse(begin, end, m_values.data(), columns.nrColumns) < columns.nrColumns)
        return;

    const double intensity = columns.hasIntensity ? values[columns.I] : 0.0;
    if (columns.hasIntensity)
        m_colorRange.updateIntensity(intensity);

    double rgb[3] = {0.0, 0.0, 0.0};
    if (columns.hasRgb)
    {
        rgb[0] = values[columns.R];
        rgb[1] = values[columns.G];
        rgb[2] = values[columns.B];
        if (!isChannel(rgb[0]) || !isChannel(rgb[1]) || !isChannel(rgb[2]))
            throw error("RGB colors out of range [0.0, 65536.0[:\n\t(R, G, B) = (" + std::to_string(rgb[0]) +
                            ", " + std::to_string(rgb[1]) + ", " + std::to_string(rgb[2]) + ")",
                        true);
        for (double& channel : rgb)
            channel = std::trunc(channel);
        m_colorRange.updateRgb(rgb[0], rgb[1], rgb[2]);
    }

    IoLightPoint point;
    if (!transfo.apply(values[columns.X], values[columns.Y], values[columns.Z], point.x, point.y, point.z))
    {
        warnOutsideGrid();
        return;
    }
    m_extents.extend(point);
    point.radius = 0.0f;
    point.r = point.g = point.b = 0;
    if (!probing)
        scaleValues(intensity, rgb, point);
    batch.push_back(point);
}

void PtsImporter::scaleValues(double intensity, const double (&rgb)[3], IoLightPoint& point) const
{
    const ColorMode& mode = getColorModeInit();
    if (m_layout.hasIntensity && !scaleIntensity(intensity, mode.intensity, point.intensity))
        throw error(intensityRangeText(mode.intensity, kProbeSize), true);

    uint16_t channels[3];
    for (int c = 0; c < 3; ++c)
        channels[c] = static_cast<uint16_t>(rgb[c]);
    switch (mode.rgb)
    {
        case kRgb8Bit:
            if (channels[0] > 255 || channels[1] > 255 || channels[2] > 255)
                throw error("Expected R, G & B in range [0, 255] based on first " +
                                std::to_string(kProbeSize) + " valid points.",
                            true);
            point.r = static_cast<uint16_t>(channels[0] << 8);
            point.g = static_cast<uint16_t>(channels[1] << 8);
            point.b = static_cast<uint16_t>(channels[2] << 8);
            break;
        case kRgb16Bit:
            point.r = channels[0];
            point.g = channels[1];
            point.b = channels[2];
            break;
        case kRgbFromIntensity:
            point.r = point.g = point.b = point.intensity;
            break;
        default:
            break;
    }
}

void PtsImporter::warnOutsideGrid()
{
    if (m_warnedOutsideGrid)
        return;
    m_warnedOutsideGrid = true;
    m_warnings.push_back(
        s2ws("PTS warning: " + ws2s(m_path) + "\n\tLine number " + std::to_string(m_source.linesRead()) +
             "\n\tThe point lies outside the 32-bit integer grid of the cache; such points are "
             "skipped.\n"));
}

}  // namespace pc_preprocess
