#include "exporters/PtsExporter.h"

#include <charconv>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

// The first line is kept blank for the count, which is only known at the end: 20 digits hold any count.
constexpr size_t kCountWidth = 20;
// Significant digits of a coordinate.
constexpr int kPrecision = 9;
// The longest line: three coordinates of at most 16 characters at this precision, four numbers of at most 5
// digits, six separators and the line end.
constexpr size_t kMaxLineLength = 3 * 16 + 4 * 5 + 7;

// As a stream with precision 9 and the default float format writes it (printf's "%.9g").
char* appendCoordinate(char* out, double value)
{
    return std::to_chars(out, out + 24, value, std::chars_format::general, kPrecision).ptr;
}

char* appendNumber(char* out, unsigned value)
{
    return std::to_chars(out, out + 8, value).ptr;
}

}  // namespace

PtsExporter::PtsExporter(const std::wstring& path, const geom::Matrix3d& transform)
    : Exporter(path, transform)
{
    requireNewFile("PtsExporter", ".pts");
}

uint64_t PtsExporter::run(const BatchSource& nextBatch)
{
    std::ofstream out(toPath(m_path), std::ios::binary | std::ios::out | std::ios::trunc);
    const auto requireHealthy = [&]
    {
        if (out.fail())
            throw std::runtime_error("PtsExporter::run : Could not (fully) write " + ws2s(m_path) +
                                     "\nDisk full?");
        if (!out.is_open())
            throw std::runtime_error("PtsExporter::run : " + ws2s(m_path) + " closed prematurely.");
    };
    out << std::string(kCountWidth, ' ') << '\n';
    requireHealthy();

    std::vector<ExportPoint> points;
    points.reserve(kBatchSize);
    std::vector<char> text;
    uint64_t count = 0;
    for (;;)
    {
        points.clear();
        if (!nextBatch(points) || points.empty())
            break;
        text.resize(points.size() * kMaxLineLength);
        char* end = text.data();
        for (const ExportPoint& point : points)
        {
            const geom::Point3d p = m_transform.transform(point.position);
            end = appendCoordinate(end, p.x);
            *end++ = ' ';
            end = appendCoordinate(end, p.y);
            *end++ = ' ';
            end = appendCoordinate(end, p.z);
            *end++ = ' ';
            end = appendNumber(end, point.intensity);
            // Colour on the 8-bit scale: the 16-bit value divided by 256, truncated.
            for (const uint16_t channel : {point.r, point.g, point.b})
            {
                *end++ = ' ';
                end = appendNumber(end, channel >> 8);
            }
            *end++ = '\n';
        }
        out.write(text.data(), end - text.data());
        out.flush();
        requireHealthy();
        count += points.size();
    }

    // The count overwrites the start of the first line; the blanks behind it stay.
    out.seekp(0);
    out << count;
    requireHealthy();
    out.close();
    if (out.fail())
        throw std::runtime_error("PtsExporter::run : Could not (fully) write " + ws2s(m_path) +
                                 "\nDisk full?");
    return count;
}

}  // namespace pc_preprocess
