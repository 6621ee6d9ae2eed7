#include "importers/Ptx.h"

#include <cmath>

#include "core/StringConversion.h"
#include "importers/ptx/PointLine.h"
#include "importers/ptx/ScanHeader.h"
#include "importers/text/NumberLine.h"

namespace pc_preprocess
{

namespace
{

const char* const kLessLines = "Less lines in file than indicated in header.";

// Detection needs no count above this: a line of 8 tokens or more is refused like one of 5.
constexpr size_t kTokensToCount = ptx::kColumnsWithColour + 1;

bool isBlankLine(const char* begin, const char* end)
{
    for (const char* p = begin; p != end; ++p)
        if (!isLineWhiteSpace(*p))
            return false;
    return true;
}

uint16_t channel16(double value, ERgbMode mode)
{
    const auto channel = static_cast<uint32_t>(value);
    return static_cast<uint16_t>(mode == kRgb16Bit ? channel : channel << 8);
}

}  // namespace

Ptx::Ptx(const std::wstring& path, double scale, const ColorMode& colorMode)
    : Convertor(path, scale, colorMode), m_source(toPath(path), m_fileSize)
{
}

std::runtime_error Ptx::error(const std::string& text, uint64_t line) const
{
    std::string message = "PTX error: Could not parse " + ws2s(m_path);
    if (line != kNoLine)
        message += "\n\tLine number " + std::to_string(line);
    return std::runtime_error(message + "\n\t" + text + "\n");
}

uint64_t Ptx::position() const
{
    const uint64_t position = m_source.filePosition();
    return position == FileSource::kNone ? m_source.fileSize() : position;
}

void Ptx::openGroup()
{
    if (!m_source.open())
        throw error("Could not open file.", kNoLine);
    m_workDone = 0;
    m_nrColumnsInLine = 0;
    m_nrPointsScan = 0;
    m_pointsRemaining = 0;
    m_scanIndex = 0;
    m_warnedIntensity = false;
    m_warnedOutsideGrid = false;
}

void Ptx::closeGroup()
{
    m_source.close();
    m_pointsRemaining = 0;
}

SupportedAttributes Ptx::getSupportedAttributes()
{
    SupportedAttributes attributes;
    attributes.color = m_nrColumnsInLine == ptx::kColumnsWithColour;
    attributes.intensity = true;
    return attributes;
}

bool Ptx::canOpenScan(size_t scan)
{
    if (!m_source.isOpen())
        return false;
    try
    {
        skipRestOfScan();
        // Blank lines between scans or after the last one are no header.
        const char* begin = nullptr;
        const char* end = nullptr;
        do
        {
            if (!m_source.getLine(begin, end))
            {
                m_workDone = m_source.fileSize();
                return false;
            }
        } while (isBlankLine(begin, end));

        ptx::ScanHeader header;
        for (size_t index = 0; index < ptx::kHeaderLines; ++index)
        {
            // A header cut short fails like the line that is missing.
            if (index > 0 && !m_source.getLine(begin, end))
                throw error(std::string(ptx::headerLineExpectation(index)), nextLineNumber());
            if (!ptx::parseHeaderLine(index, begin, end, header))
                throw error(std::string(ptx::headerLineExpectation(index)), m_source.linesRead());
        }

        // Lines 7 to 10 hold the pose for the scanner's units; the run's scale carries them into its own.
        // Both the header and the base class keep the rotation column by column.
        for (size_t i = 0; i < header.rotation.size(); ++i)
            m_matrix[i] = header.rotation[i] * m_scale;
        for (size_t axis = 0; axis < 3; ++axis)
            m_translation[axis] = header.translation[axis] * m_scale;
        m_nrPointsScan = header.gridPoints;
        m_pointsRemaining = header.gridPoints;
        m_scanIndex = scan;
        m_workDone = position();
        return true;
    }
    catch (...)
    {
        m_workDone = m_source.fileSize();
        m_source.close();
        throw;
    }
}

void Ptx::skipRestOfScan()
{
    const char* begin = nullptr;
    const char* end = nullptr;
    for (; m_pointsRemaining > 0; --m_pointsRemaining)
        if (!m_source.getLine(begin, end))
        {
            m_pointsRemaining = 0;
            return;
        }
}

void Ptx::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing)
{
    batch.clear();
    if (!remainScanData())
        return;
    try
    {
        // Lines of missing returns give no point: counting lines as well keeps every round short, so that
        // progress and cancel come through even in a scan that is mostly empty.
        const char* begin = nullptr;
        const char* end = nullptr;
        for (size_t lines = 0; lines < kBatchSize && batch.size() < kBatchSize && m_pointsRemaining > 0;
             ++lines)
        {
            if (!m_source.getLine(begin, end))
                throw error(kLessLines, m_source.linesRead());
            addLine(begin, end, batch, transfo, probing);
            --m_pointsRemaining;
        }
        m_workDone = position();
    }
    catch (...)
    {
        m_workDone = m_source.fileSize();
        m_source.close();
        m_pointsRemaining = 0;
        throw;
    }
}

void Ptx::addLine(const char* begin, const char* end, std::vector<IoLightPoint>& batch,
                  const Discretization& transfo, bool probing)
{
    if (m_nrColumnsInLine == 0)
    {
        const size_t tokens = ptx::countTokens(begin, end, kTokensToCount);
        if (tokens != ptx::kColumnsWithoutColour && tokens != ptx::kColumnsWithColour)
            throw error(formatText(begin, end), m_source.linesRead());
        m_nrColumnsInLine = tokens;
    }
    ptx::PointValues values;
    if (!ptx::readPointLine(begin, end, m_nrColumnsInLine, values))
        throw error(kLessLines, m_source.linesRead());
    if (!ptx::hasValidValues(values, m_nrColumnsInLine, channelLimit(probing)))
        throw error(formatText(begin, end), m_source.linesRead());
    if (values.intensity > 1.0)
    {
        warnBrightIntensity(begin, end);
        values.intensity = 1.0;
    }
    if (values.isMissing())
        return;

    const auto intensity = static_cast<uint16_t>(values.intensity * 65535.99999999999);
    const bool withColour = m_nrColumnsInLine == ptx::kColumnsWithColour;
    // Without colour columns the colour range takes the intensity, as the point's channels do: the mode that
    // such a file hands on to a run then still reads the colours of the inputs that follow.
    if (withColour)
        m_colorRange.updateAll(values.rgb[0], values.rgb[1], values.rgb[2], values.intensity);
    else
        m_colorRange.updateAll(values.intensity, values.intensity, values.intensity, values.intensity);

    IoLightPoint point;
    if (!transfo.apply(values.x, values.y, values.z, point.x, point.y, point.z))
    {
        warnOutsideGrid();
        return;
    }
    m_extents.extend(point);
    point.radius = 0.0f;
    point.intensity = intensity;
    point.scanId = static_cast<uint16_t>(m_scanIndex);
    if (!withColour)
        point.r = point.g = point.b = intensity;
    else if (probing)
        // The probe only measures: the colour mode that scales the channels is what it finds out.
        point.r = point.g = point.b = 0;
    else
    {
        const ERgbMode mode = getColorModeInit().rgb;
        point.r = channel16(values.rgb[0], mode);
        point.g = channel16(values.rgb[1], mode);
        point.b = channel16(values.rgb[2], mode);
    }
    batch.push_back(point);
}

double Ptx::channelLimit(bool probing) const
{
    const ERgbMode mode = getColorModeInit().rgb;
    // A probe that is to find the colour mode must let 16-bit channels through, or it could never choose
    // that mode.
    return mode == kRgb16Bit || (probing && mode == kRgbNone) ? 65535.0 : 255.0;
}

std::string Ptx::formatText(const char* begin, const char* end) const
{
    // Unless the channels are read as 16-bit, the text names the 8-bit range and the probe that chose it.
    return ptx::formatText(getColorModeInit().rgb != kRgb16Bit, kProbeSize, begin, end);
}

void Ptx::warnBrightIntensity(const char* begin, const char* end)
{
    if (m_warnedIntensity)
        return;
    m_warnedIntensity = true;
    m_warnings.push_back(s2ws("PTX warning: " + ws2s(m_path) + "\n\tLine number " +
                              std::to_string(m_source.linesRead()) + "\n\t" + formatText(begin, end) + "\n"));
}

void Ptx::warnOutsideGrid()
{
    if (m_warnedOutsideGrid)
        return;
    m_warnedOutsideGrid = true;
    m_warnings.push_back(
        s2ws("PTX warning: " + ws2s(m_path) + "\n\tLine number " + std::to_string(m_source.linesRead()) +
             "\n\tThe point lies outside the 32-bit integer grid of the cache; such points are skipped.\n"));
}

}  // namespace pc_preprocess
