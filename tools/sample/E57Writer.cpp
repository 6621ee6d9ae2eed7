#include "sample/E57Writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <numeric>
#include <stdexcept>

#include "e57/Bitpack.h"
#include "e57/PagedFile.h"

namespace pcp_sample
{

namespace
{

using e57::kPagePayload;
using e57::kPageSize;
using e57::logicalToPhysical;

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error("E57 writer: " + what);
}

template <typename T>
void put(std::vector<uint8_t>& out, T value)
{
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

// The logical bytes of a file, cut into pages as they come, each sealed with its checksum when full. Bytes
// already written can be replaced (section headers, the file header) at any time.
class PageSink
{
public:
    explicit PageSink(const std::filesystem::path& path)
        : m_path(path), m_file(path, std::ios::in | std::ios::out | std::ios::binary | std::ios::trunc)
    {
        if (!m_file)
            fail("cannot create " + path.string());
    }

    uint64_t position() const { return m_pages * kPagePayload + m_fill; }

    void write(const void* data, size_t size)
    {
        const auto* in = static_cast<const uint8_t*>(data);
        while (size > 0)
        {
            const size_t take = std::min(size, static_cast<size_t>(kPagePayload) - m_fill);
            std::memcpy(m_page.data() + m_fill, in, take);
            m_fill += take;
            in += take;
            size -= take;
            if (m_fill == kPagePayload)
                flushPage();
        }
    }
    void write(const std::vector<uint8_t>& bytes) { write(bytes.data(), bytes.size()); }

    void align(size_t multiple)
    {
        static const uint8_t zeros[16] = {};
        write(zeros, (multiple - position() % multiple) % multiple);
    }

    void patch(uint64_t logical, const void* data, size_t size)
    {
        const auto* in = static_cast<const uint8_t*>(data);
        while (size > 0)
        {
            const uint64_t page = logical / kPagePayload;
            const size_t within = static_cast<size_t>(logical % kPagePayload);
            const size_t take = std::min(size, static_cast<size_t>(kPagePayload) - within);
            if (page == m_pages)
                std::memcpy(m_page.data() + within, in, take);
            else
            {
                std::array<uint8_t, kPageSize> stored;
                m_file.seekg(static_cast<std::streamoff>(page * kPageSize));
                m_file.read(reinterpret_cast<char*>(stored.data()), kPageSize);
                std::memcpy(stored.data() + within, in, take);
                e57::sealPage(stored.data());
                m_file.seekp(static_cast<std::streamoff>(page * kPageSize));
                m_file.write(reinterpret_cast<const char*>(stored.data()), kPageSize);
            }
            if (!m_file)
                fail("cannot rewrite page " + std::to_string(page) + " of " + m_path.string());
            logical += take;
            in += take;
            size -= take;
        }
    }

    // Writes the last, partial page; returns the file's physical length.
    uint64_t finish()
    {
        if (m_fill > 0)
        {
            std::fill(m_page.begin() + static_cast<std::ptrdiff_t>(m_fill), m_page.end(), 0);
            flushPage();
        }
        m_file.flush();
        if (!m_file)
            fail("cannot write " + m_path.string());
        return m_pages * kPageSize;
    }

private:
    void flushPage()
    {
        e57::sealPage(m_page.data());
        m_file.seekp(static_cast<std::streamoff>(m_pages * kPageSize));
        m_file.write(reinterpret_cast<const char*>(m_page.data()), kPageSize);
        if (!m_file)
            fail("cannot write " + m_path.string());
        ++m_pages;
        m_fill = 0;
    }

    std::filesystem::path m_path;
    std::fstream m_file;
    std::array<uint8_t, kPageSize> m_page{};
    size_t m_fill = 0;
    uint64_t m_pages = 0;
};

// The pending bytes of one field's bytestream: values appended bit by bit, least significant first, and
// taken from the front by packets.
class BitStream
{
public:
    void putBits(uint64_t value, unsigned width)
    {
        while (width > 0)
        {
            const unsigned take = std::min(width, 32u);
            m_accumulator |= (value & ((uint64_t{1} << take) - 1)) << m_bits;
            m_bits += take;
            value >>= take;
            width -= take;
            for (; m_bits >= 8; m_bits -= 8, m_accumulator >>= 8)
                m_bytes.push_back(static_cast<uint8_t>(m_accumulator));
        }
    }
    void putBytes(const void* data, size_t size)
    {
        const auto* in = static_cast<const uint8_t*>(data);
        m_bytes.insert(m_bytes.end(), in, in + size);
    }
    // Pads the last value's byte with zero bits.
    void finish()
    {
        if (m_bits > 0)
            m_bytes.push_back(static_cast<uint8_t>(m_accumulator));
        m_bits = 0;
        m_accumulator = 0;
    }

    size_t pending() const { return m_bytes.size() - m_front; }
    const uint8_t* front() const { return m_bytes.data() + m_front; }
    void take(size_t count)
    {
        m_front += count;
        if (m_front == m_bytes.size())
        {
            m_bytes.clear();
            m_front = 0;
        }
        else if (m_front > (size_t{1} << 20))
        {
            m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_front));
            m_front = 0;
        }
    }

private:
    std::vector<uint8_t> m_bytes;
    size_t m_front = 0;
    uint64_t m_accumulator = 0;
    unsigned m_bits = 0;
};

std::string number(double value)
{
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

// One field of the prototype: its element, how it is stored, and where its values come from.
struct FieldLayout
{
    std::string name;
    E57Storage storage = E57Storage::Float;
    int64_t minimum = 0;
    int64_t maximum = 0;
    double scale = 1.0;
    double offset = 0.0;
    double declaredMinimum = 0.0;  // Float and Double
    double declaredMaximum = 0.0;
    const std::vector<double>* (*doubles)(const E57Points&, size_t) = nullptr;
    const std::vector<int64_t>* (*integers)(const E57Points&, size_t) = nullptr;
    const std::vector<std::string>* (*strings)(const E57Points&) = nullptr;
    size_t index = 0;  // which of an array of vectors

    unsigned bits() const
    {
        switch (storage)
        {
            case E57Storage::Float:
                return 32;
            case E57Storage::Double:
            case E57Storage::String:
                return 64;
            default:
                return e57::bitWidth(minimum, maximum);
        }
    }

    std::string prototypeElement() const
    {
        switch (storage)
        {
            case E57Storage::Float:
            case E57Storage::Double:
                return "<" + name + " type=\"Float\" precision=\"" +
                       (storage == E57Storage::Float ? "single" : "double") + "\" minimum=\"" +
                       number(declaredMinimum) + "\" maximum=\"" + number(declaredMaximum) + "\"/>";
            case E57Storage::ScaledInteger:
                return "<" + name + " type=\"ScaledInteger\" minimum=\"" + std::to_string(minimum) +
                       "\" maximum=\"" + std::to_string(maximum) + "\" scale=\"" + number(scale) +
                       "\" offset=\"" + number(offset) + "\"/>";
            case E57Storage::Integer:
                return "<" + name + " type=\"Integer\" minimum=\"" + std::to_string(minimum) +
                       "\" maximum=\"" + std::to_string(maximum) + "\"/>";
            case E57Storage::String:
                return "<" + name + " type=\"String\"/>";
        }
        return {};
    }
};

// The fields a batch of points has, in the order of their bytestreams.
std::vector<FieldLayout> fieldsOf(const E57Scan& scan, const E57Points& points)
{
    std::vector<FieldLayout> fields;
    const auto add = [&](FieldLayout field, bool present)
    {
        if (present)
            fields.push_back(std::move(field));
    };
    static const char* const kCartesian[] = {"cartesianX", "cartesianY", "cartesianZ"};
    static const char* const kSpherical[] = {"sphericalRange", "sphericalAzimuth", "sphericalElevation"};
    for (size_t axis = 0; axis < 3; ++axis)
    {
        FieldLayout field;
        field.name = scan.spherical ? kSpherical[axis] : kCartesian[axis];
        field.storage = scan.coordinateStorage;
        if (field.storage == E57Storage::Integer)
            fail("coordinates are stored as Float, Double or ScaledInteger");
        field.scale = scan.coordinateScale;
        field.offset = scan.coordinateOffset;
        field.maximum = std::llround(scan.coordinateLimit / scan.coordinateScale);
        field.minimum = -field.maximum;
        field.declaredMinimum = -scan.coordinateLimit;
        field.declaredMaximum = scan.coordinateLimit;
        field.doubles = [](const E57Points& p, size_t i) { return &p.coordinates[i]; };
        field.index = axis;
        add(field, true);
    }
    const auto integer = [&](std::string name, int64_t minimum, int64_t maximum,
                             const std::vector<int64_t>* (*values)(const E57Points&, size_t),
                             size_t index = 0)
    {
        FieldLayout field;
        field.name = std::move(name);
        field.storage = E57Storage::Integer;
        field.minimum = minimum;
        field.maximum = maximum;
        field.integers = values;
        field.index = index;
        add(field, !values(points, index)->empty());
    };
    {
        FieldLayout field;
        field.name = "label";
        field.storage = E57Storage::String;
        field.strings = [](const E57Points& p) { return &p.labels; };
        add(field, !points.labels.empty());
    }
    integer(scan.spherical ? "sphericalInvalidState" : "cartesianInvalidState", 0, 2,
            [](const E57Points& p, size_t) { return &p.invalidState; });
    {
        FieldLayout field;
        field.name = "intensity";
        field.storage = scan.intensityStorage;
        if (field.storage == E57Storage::ScaledInteger)
            fail("intensity is stored as Float, Double or Integer");
        field.minimum = std::llround(scan.intensityMinimum);
        field.maximum = std::llround(scan.intensityMaximum);
        field.declaredMinimum = scan.intensityMinimum;
        field.declaredMaximum = scan.intensityMaximum;
        field.doubles = [](const E57Points& p, size_t) { return &p.intensity; };
        add(field, !points.intensity.empty());
    }
    integer("isIntensityInvalid", 0, 1, [](const E57Points& p, size_t) { return &p.intensityInvalid; });
    static const char* const kColors[] = {"colorRed", "colorGreen", "colorBlue"};
    for (size_t c = 0; c < 3; ++c)
        integer(
            kColors[c], scan.colorMinimum, scan.colorMaximum,
            [](const E57Points& p, size_t i) { return &p.color[i]; }, c);
    integer("isColorInvalid", 0, 1, [](const E57Points& p, size_t) { return &p.colorInvalid; });
    static const char* const kNormals[] = {"nor:normalX", "nor:normalY", "nor:normalZ"};
    for (size_t axis = 0; axis < 3; ++axis)
    {
        FieldLayout field;
        field.name = kNormals[axis];
        field.declaredMinimum = -1.0;
        field.declaredMaximum = 1.0;
        field.doubles = [](const E57Points& p, size_t i) { return &p.normals[i]; };
        field.index = axis;
        add(field, !points.normals[axis].empty());
    }
    integer("class:classification", 0, scan.classificationMaximum,
            [](const E57Points& p, size_t) { return &p.classification; });
    integer("rowIndex", 0, scan.rowMaximum, [](const E57Points& p, size_t) { return &p.rowIndex; });
    integer("columnIndex", 0, scan.columnMaximum, [](const E57Points& p, size_t) { return &p.columnIndex; });
    return fields;
}

// What the XML says of a written scan.
struct ScanRecord
{
    std::vector<FieldLayout> fields;
    uint64_t sectionOffset = 0;  // physical
    uint64_t records = 0;
    std::array<double, 6> bounds{};        // minimum and maximum of each coordinate
    std::array<int64_t, 4> indexBounds{};  // row min/max, column min/max
};

// Writes one compressed vector: its section header, then data packets as the fields' bytestreams fill up.
class ScanSection
{
public:
    ScanSection(PageSink& sink, const E57WriteOptions& options, ScanRecord& record)
        : m_sink(sink), m_options(options), m_record(record)
    {
        m_start = sink.position();
        sink.write(std::vector<uint8_t>(32, 0));
        m_record.sectionOffset = logicalToPhysical(m_start);
        m_record.bounds = {std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
                           std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
                           std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest()};
        m_record.indexBounds = {std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min(),
                                std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
    }

    void add(const E57Points& points)
    {
        if (m_streams.empty())
            start();
        const size_t count = points.size();
        for (size_t f = 0; f < m_record.fields.size(); ++f)
            encode(m_record.fields[f], points, count, m_streams[f]);
        for (size_t axis = 0; axis < 3; ++axis)
            for (double value : points.coordinates[axis])
            {
                m_record.bounds[2 * axis] = std::min(m_record.bounds[2 * axis], value);
                m_record.bounds[2 * axis + 1] = std::max(m_record.bounds[2 * axis + 1], value);
            }
        for (size_t k = 0; k < 2; ++k)
            for (int64_t index : k == 0 ? points.rowIndex : points.columnIndex)
            {
                m_record.indexBounds[2 * k] = std::min(m_record.indexBounds[2 * k], index);
                m_record.indexBounds[2 * k + 1] = std::max(m_record.indexBounds[2 * k + 1], index);
            }
        m_record.records += count;
        while (ready())
            writePacket();
    }

    void finish()
    {
        for (BitStream& stream : m_streams)
            stream.finish();
        while (std::any_of(m_streams.begin(), m_streams.end(),
                           [](const BitStream& s) { return s.pending() > 0; }))
            writePacket();
        uint64_t indexOffset = 0;
        if (m_options.extraPackets)
        {
            indexOffset = logicalToPhysical(m_sink.position());
            // Index packet: type 0, reserved, length - 1, entry count 0, index level 0, 9 reserved bytes.
            std::vector<uint8_t> index = {0, 0, 15, 0};
            index.resize(16, 0);
            m_sink.write(index);
        }
        std::vector<uint8_t> header = {1, 0, 0, 0, 0, 0, 0, 0};
        put<uint64_t>(header, m_sink.position() - m_start);
        put<uint64_t>(header, logicalToPhysical(m_start + 32));
        put<uint64_t>(header, indexOffset);
        m_sink.patch(m_start, header.data(), header.size());
    }

private:
    void start()
    {
        m_streams.resize(m_record.fields.size());
        const size_t header = 6 + 2 * m_record.fields.size();
        if (m_options.packetBytes > 65536 || m_options.packetBytes < header + 4 * m_record.fields.size())
            fail("packets of " + std::to_string(m_options.packetBytes) + " bytes cannot hold " +
                 std::to_string(m_record.fields.size()) + " fields");
        const size_t budget = (m_options.packetBytes - header) & ~size_t{3};
        unsigned total = 0;
        for (const FieldLayout& field : m_record.fields)
            total += field.bits();
        // Each field's share of a packet follows its share of a record, so that all fields run through the
        // packets side by side; the shares seldom end on a record boundary.
        for (const FieldLayout& field : m_record.fields)
            m_quota.push_back(
                field.bits() == 0 ? 0 : std::max<size_t>(1, budget * field.bits() / std::max(total, 1u)));
        while (std::accumulate(m_quota.begin(), m_quota.end(), size_t{0}) > budget)
            --*std::max_element(m_quota.begin(), m_quota.end());
    }

    // A string is its length, doubled, in one byte when below 128, else in 8 bytes with the lowest bit set;
    // then its bytes.
    static void encodeStrings(const FieldLayout& field, const std::vector<std::string>& values, size_t count,
                              BitStream& stream)
    {
        if (values.size() != count)
            fail("field " + field.name + " has " + std::to_string(values.size()) + " values for " +
                 std::to_string(count) + " points");
        for (const std::string& value : values)
        {
            if (value.size() < 128)
                stream.putBits(value.size() << 1, 8);
            else
                stream.putBits((uint64_t{value.size()} << 1) | 1, 64);
            stream.putBytes(value.data(), value.size());
        }
    }

    static void encode(const FieldLayout& field, const E57Points& points, size_t count, BitStream& stream)
    {
        if (field.strings)
            return encodeStrings(field, *field.strings(points), count, stream);
        const std::vector<double>* doubles = field.doubles ? field.doubles(points, field.index) : nullptr;
        const std::vector<int64_t>* integers = field.integers ? field.integers(points, field.index) : nullptr;
        if ((doubles ? doubles->size() : integers->size()) != count)
            fail("field " + field.name + " has " +
                 std::to_string(doubles ? doubles->size() : integers->size()) + " values for " +
                 std::to_string(count) + " points");
        const unsigned width = field.bits();
        for (size_t i = 0; i < count; ++i)
        {
            int64_t raw = 0;
            switch (field.storage)
            {
                case E57Storage::Float:
                {
                    const auto value = static_cast<float>((*doubles)[i]);
                    stream.putBytes(&value, sizeof value);
                    continue;
                }
                case E57Storage::Double:
                    stream.putBytes(&(*doubles)[i], sizeof(double));
                    continue;
                case E57Storage::ScaledInteger:
                    raw = std::llround(((*doubles)[i] - field.offset) / field.scale);
                    break;
                case E57Storage::Integer:
                    raw = integers ? (*integers)[i] : std::llround((*doubles)[i]);
                    break;
                case E57Storage::String:
                    fail("field " + field.name + " holds numbers");
            }
            if (raw < field.minimum || raw > field.maximum)
                fail("value " + std::to_string(raw) + " of " + field.name + " outside [" +
                     std::to_string(field.minimum) + ", " + std::to_string(field.maximum) + "]");
            stream.putBits(static_cast<uint64_t>(raw) - static_cast<uint64_t>(field.minimum), width);
        }
    }

    bool ready() const
    {
        for (size_t f = 0; f < m_streams.size(); ++f)
            if (m_streams[f].pending() < m_quota[f])
                return false;
        return true;
    }

    void writePacket()
    {
        if (m_options.extraPackets && m_packets > 0)
            m_sink.write(std::vector<uint8_t>{2, 0, 7, 0, 0, 0, 0, 0});
        const size_t count = m_streams.size();
        std::vector<uint8_t> header = {1, 0, 0, 0};
        put<uint16_t>(header, static_cast<uint16_t>(count));
        std::vector<size_t> takes(count);
        size_t length = 6 + 2 * count;
        for (size_t f = 0; f < count; ++f)
        {
            takes[f] = std::min(m_quota[f], m_streams[f].pending());
            put<uint16_t>(header, static_cast<uint16_t>(takes[f]));
            length += takes[f];
        }
        const size_t padding = (4 - length % 4) % 4;
        length += padding;
        const auto lengthMinus1 = static_cast<uint16_t>(length - 1);
        std::memcpy(header.data() + 2, &lengthMinus1, 2);
        m_sink.write(header);
        for (size_t f = 0; f < count; ++f)
        {
            m_sink.write(m_streams[f].front(), takes[f]);
            m_streams[f].take(takes[f]);
        }
        m_sink.write(std::vector<uint8_t>(padding, 0));
        ++m_packets;
    }

    PageSink& m_sink;
    const E57WriteOptions& m_options;
    ScanRecord& m_record;
    uint64_t m_start = 0;
    std::vector<BitStream> m_streams;
    std::vector<size_t> m_quota;
    size_t m_packets = 0;
};

ScanRecord writeScan(PageSink& sink, const E57Scan& scan, const E57WriteOptions& options)
{
    ScanRecord record;
    sink.align(8);
    ScanSection section(sink, options, record);
    if (scan.produce)
    {
        E57Points chunk;
        for (uint64_t first = 0; first < scan.streamedPoints;)
        {
            const auto count =
                static_cast<size_t>(std::min<uint64_t>(options.chunkPoints, scan.streamedPoints - first));
            scan.produce(first, count, chunk);
            if (first == 0)
                record.fields = fieldsOf(scan, chunk);
            section.add(chunk);
            first += count;
        }
    }
    else
    {
        record.fields = fieldsOf(scan, scan.points);
        section.add(scan.points);
    }
    if (record.fields.empty())
        record.fields = fieldsOf(scan, E57Points{});
    section.finish();
    return record;
}

uint64_t writeBlob(PageSink& sink, const std::vector<uint8_t>& bytes)
{
    sink.align(8);
    const uint64_t start = sink.position();
    std::vector<uint8_t> header = {0, 0, 0, 0, 0, 0, 0, 0};
    put<uint64_t>(header, 16 + bytes.size());
    sink.write(header);
    sink.write(bytes);
    return logicalToPhysical(start);
}

// The XML section, element by element.
class XmlText
{
public:
    void open(const std::string& name, const std::string& type, const std::string& attributes = {})
    {
        line("<" + name + " type=\"" + type + "\"" + attributes + ">");
        ++m_depth;
    }
    void close(const std::string& name)
    {
        --m_depth;
        line("</" + name + ">");
    }
    void element(const std::string& text) { line(text); }
    void floating(const std::string& name, double value)
    {
        line("<" + name + " type=\"Float\">" + number(value) + "</" + name + ">");
    }
    void integer(const std::string& name, int64_t value)
    {
        line("<" + name + " type=\"Integer\">" + std::to_string(value) + "</" + name + ">");
    }
    void string(const std::string& name, const std::string& value)
    {
        std::string escaped;
        for (char c : value)
            escaped += c == '<' ? "&lt;" : c == '&' ? "&amp;" : std::string(1, c);
        line("<" + name + " type=\"String\">" + escaped + "</" + name + ">");
    }
    void pose(const std::optional<E57Pose>& pose)
    {
        if (!pose)
            return;
        open("pose", "Structure");
        open("rotation", "Structure");
        static const char* const kQuaternion[] = {"w", "x", "y", "z"};
        for (size_t i = 0; i < 4; ++i)
            floating(kQuaternion[i], pose->rotation[i]);
        close("rotation");
        open("translation", "Structure");
        static const char* const kAxes[] = {"x", "y", "z"};
        for (size_t i = 0; i < 3; ++i)
            floating(kAxes[i], pose->translation[i]);
        close("translation");
        close("pose");
    }
    const std::string& text() const { return m_text; }

private:
    void line(const std::string& text)
    {
        m_text.append(2 * m_depth, ' ');
        m_text += text;
        m_text += '\n';
    }

    std::string m_text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    size_t m_depth = 0;
};

bool hasField(const ScanRecord& record, const std::string& name)
{
    return std::any_of(record.fields.begin(), record.fields.end(),
                       [&](const FieldLayout& f) { return f.name == name; });
}

void scanElement(XmlText& xml, const E57Scan& scan, const ScanRecord& record, size_t index)
{
    xml.open("vectorChild", "Structure");
    xml.string("guid", scan.guid.empty() ? "scan-" + std::to_string(index) : scan.guid);
    if (!scan.name.empty())
        xml.string("name", scan.name);
    xml.pose(scan.pose);
    if (record.records > 0)
    {
        static const char* const kCartesian[] = {"xMinimum", "xMaximum", "yMinimum",
                                                 "yMaximum", "zMinimum", "zMaximum"};
        static const char* const kSpherical[] = {"rangeMinimum", "rangeMaximum",     "azimuthStart",
                                                 "azimuthEnd",   "elevationMinimum", "elevationMaximum"};
        xml.open(scan.spherical ? "sphericalBounds" : "cartesianBounds", "Structure");
        for (size_t i = 0; i < 6; ++i)
            xml.floating(scan.spherical ? kSpherical[i] : kCartesian[i], record.bounds[i]);
        xml.close(scan.spherical ? "sphericalBounds" : "cartesianBounds");
        if (hasField(record, "rowIndex") || hasField(record, "columnIndex"))
        {
            xml.open("indexBounds", "Structure");
            static const char* const kIndex[] = {"rowMinimum", "rowMaximum", "columnMinimum",
                                                 "columnMaximum"};
            for (size_t i = 0; i < 4; ++i)
                if (hasField(record, i < 2 ? "rowIndex" : "columnIndex"))
                    xml.integer(kIndex[i], record.indexBounds[i]);
            xml.close("indexBounds");
        }
    }
    if (scan.writeLimits && hasField(record, "intensity"))
    {
        xml.open("intensityLimits", "Structure");
        if (scan.intensityStorage == E57Storage::Integer)
        {
            xml.integer("intensityMinimum", std::llround(scan.intensityMinimum));
            xml.integer("intensityMaximum", std::llround(scan.intensityMaximum));
        }
        else
        {
            xml.floating("intensityMinimum", scan.intensityMinimum);
            xml.floating("intensityMaximum", scan.intensityMaximum);
        }
        xml.close("intensityLimits");
    }
    if (scan.writeLimits && hasField(record, "colorRed"))
    {
        xml.open("colorLimits", "Structure");
        for (const char* color : {"colorRed", "colorGreen", "colorBlue"})
        {
            xml.integer(std::string(color) + "Minimum", scan.colorMinimum);
            xml.integer(std::string(color) + "Maximum", scan.colorMaximum);
        }
        xml.close("colorLimits");
    }
    xml.open("points", "CompressedVector",
             " fileOffset=\"" + std::to_string(record.sectionOffset) + "\" recordCount=\"" +
                 std::to_string(record.records) + "\"");
    xml.open("prototype", "Structure");
    for (const FieldLayout& field : record.fields)
        xml.element(field.prototypeElement());
    xml.close("prototype");
    xml.open("codecs", "Vector", " allowHeterogeneousChildren=\"1\"");
    xml.close("codecs");
    xml.close("points");
    xml.close("vectorChild");
}

void imageElement(XmlText& xml, const E57Image& image, uint64_t blobOffset, size_t index)
{
    xml.open("vectorChild", "Structure");
    xml.string("guid", image.guid.empty() ? "image-" + std::to_string(index) : image.guid);
    if (!image.name.empty())
        xml.string("name", image.name);
    if (!image.associatedData3DGuid.empty())
        xml.string("associatedData3DGuid", image.associatedData3DGuid);
    xml.pose(image.pose);
    static const char* const kRepresentations[] = {"visualReferenceRepresentation", "pinholeRepresentation",
                                                   "sphericalRepresentation", "cylindricalRepresentation"};
    const std::string representation = kRepresentations[static_cast<size_t>(image.projection)];
    xml.open(representation, "Structure");
    xml.element(std::string("<") + (image.png ? "pngImage" : "jpegImage") + " type=\"Blob\" fileOffset=\"" +
                std::to_string(blobOffset) + "\" length=\"" + std::to_string(image.picture.size()) + "\"/>");
    xml.integer("imageWidth", image.width);
    xml.integer("imageHeight", image.height);
    if (image.projection != E57ImageProjection::VisualReference)
    {
        xml.floating("pixelWidth", image.pixelWidth);
        xml.floating("pixelHeight", image.pixelHeight);
    }
    if (image.projection == E57ImageProjection::Pinhole)
    {
        xml.floating("focalLength", image.focalLength);
        xml.floating("principalPointX", image.principalPointX);
    }
    if (image.projection == E57ImageProjection::Pinhole ||
        image.projection == E57ImageProjection::Cylindrical)
        xml.floating("principalPointY", image.principalPointY);
    if (image.projection == E57ImageProjection::Cylindrical)
        xml.floating("radius", image.radius);
    xml.close(representation);
    xml.close("vectorChild");
}

std::vector<uint8_t> fileHeader(const E57WriteOptions& options, uint64_t physicalLength, uint64_t xmlOffset,
                                uint64_t xmlLength)
{
    std::vector<uint8_t> header = {'A', 'S', 'T', 'M', '-', 'E', '5', '7'};
    put<uint32_t>(header, options.versionMajor);
    put<uint32_t>(header, options.versionMinor);
    put<uint64_t>(header, physicalLength);
    put<uint64_t>(header, xmlOffset);
    put<uint64_t>(header, xmlLength);
    put<uint64_t>(header, kPageSize);
    return header;
}

}  // namespace

void writeE57File(const std::filesystem::path& path, const std::vector<E57Scan>& scans,
                  const std::vector<E57Image>& images, const E57WriteOptions& options)
{
    PageSink sink(path);
    sink.write(std::vector<uint8_t>(48, 0));
    std::vector<ScanRecord> records;
    for (const E57Scan& scan : scans)
        records.push_back(writeScan(sink, scan, options));
    std::vector<uint64_t> blobs;
    for (const E57Image& image : images)
        blobs.push_back(writeBlob(sink, image.picture));

    XmlText xml;
    xml.open("e57Root", "Structure",
             " xmlns=\"http://www.astm.org/COMMIT/E57/2010-e57-v1.0\""
             " xmlns:nor=\"http://www.libe57.org/E57_NOR_surface_normals.txt\""
             " xmlns:class=\"http://www.libe57.org/E57_EXT_classification.txt\"");
    xml.string("formatName", "ASTM E57 3D Imaging Data File");
    xml.string("guid", options.guid);
    xml.integer("versionMajor", options.versionMajor);
    xml.integer("versionMinor", options.versionMinor);
    xml.string("e57LibraryVersion", "pointcloud_preprocess test writer");
    xml.open("data3D", "Vector", " allowHeterogeneousChildren=\"1\"");
    for (size_t i = 0; i < scans.size(); ++i)
        scanElement(xml, scans[i], records[i], i);
    xml.close("data3D");
    xml.open("images2D", "Vector", " allowHeterogeneousChildren=\"1\"");
    for (size_t i = 0; i < images.size(); ++i)
        imageElement(xml, images[i], blobs[i], i);
    xml.close("images2D");
    xml.close("e57Root");

    std::string text = xml.text();
    if (options.editXml)
        options.editXml(text);
    sink.align(8);
    const uint64_t xmlOffset = logicalToPhysical(sink.position());
    sink.write(text.data(), text.size());
    const uint64_t length = sink.finish();
    const std::vector<uint8_t> header = fileHeader(options, length, xmlOffset, text.size());
    sink.patch(0, header.data(), header.size());
    sink.finish();
}

std::vector<uint8_t> readE57Logical(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        fail("cannot open " + path.string());
    std::vector<uint8_t> logical;
    std::array<char, kPageSize> page;
    while (in.read(page.data(), kPageSize))
        logical.insert(logical.end(), page.begin(), page.begin() + kPagePayload);
    return logical;
}

void patchE57File(const std::filesystem::path& path, uint64_t logicalOffset,
                  const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> logical = readE57Logical(path);
    if (logicalOffset > logical.size() || bytes.size() > logical.size() - logicalOffset)
        fail("a patch past the end of " + path.string());
    std::copy(bytes.begin(), bytes.end(), logical.begin() + static_cast<std::ptrdiff_t>(logicalOffset));
    writeE57Pages(path, std::move(logical));
}

void writeE57Pages(const std::filesystem::path& path, std::vector<uint8_t> logical)
{
    if (logical.size() < 48)
        fail("a file needs its 48-byte header");
    const uint64_t pages = (logical.size() + kPagePayload - 1) / kPagePayload;
    const uint64_t length = pages * kPageSize;
    std::memcpy(logical.data() + 16, &length, 8);
    logical.resize(pages * kPagePayload, 0);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::array<uint8_t, kPageSize> page{};
    for (uint64_t p = 0; p < pages; ++p)
    {
        std::copy_n(logical.begin() + static_cast<std::ptrdiff_t>(p * kPagePayload), kPagePayload,
                    page.begin());
        e57::sealPage(page.data());
        out.write(reinterpret_cast<const char*>(page.data()), kPageSize);
    }
    if (!out.flush())
        fail("cannot write " + path.string());
}

}  // namespace pcp_sample
