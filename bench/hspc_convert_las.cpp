// A whole HSPC static conversion of a LAS or LAZ file, for timing by bench/hspc_run.sh: the points stream
// from LASzip into the binary record importer (never held whole), the converter writes a data set into a
// folder, and one line of figures goes to standard output: points, seconds, points per second, bytes of the
// data set and bytes per point. With --laz the points are written as LAZ instead, the size a user of LAZ would
// compare against.
//
// Usage: hspc_convert_las IN.las|IN.laz OUT_FOLDER TEMP_FOLDER [--memory-mb N] [--threads N]
//        hspc_convert_las IN.las --laz OUT.laz
#include <laszip/laszip_api.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hspc/convert/BinaryRecordImporter.h"
#include "hspc/convert/Converter.h"
#include "hspc/convert/RecordSource.h"

using namespace HSPC;

namespace
{

// X, Y, Z as the LAS file's integers with its scale and offset, then intensity, R, G, B and the class: 21
// bytes a record.
constexpr uint32_t kRecordSize = 21;

std::string descriptionOf(const laszip_header& header)
{
    char text[1024];
    std::snprintf(text, sizeof text, R"({"attribute-description": [
        {"attribute": {"name": "X", "role": "X", "type": "I32"}, "scale": %.17g, "offset": %.17g},
        {"attribute": {"name": "Y", "role": "Y", "type": "I32"}, "scale": %.17g, "offset": %.17g},
        {"attribute": {"name": "Z", "role": "Z", "type": "I32"}, "scale": %.17g, "offset": %.17g},
        {"attribute": {"name": "Intensity", "role": "INTENSITY", "type": "U16"}},
        {"attribute": {"name": "Red", "role": "R", "type": "U16"}},
        {"attribute": {"name": "Green", "role": "G", "type": "U16"}},
        {"attribute": {"name": "Blue", "role": "B", "type": "U16"}},
        {"attribute": {"name": "Classification", "role": "CLASSIFICATION", "type": "U8"}}]})",
                  header.x_scale_factor, header.x_offset, header.y_scale_factor, header.y_offset,
                  header.z_scale_factor, header.z_offset);
    return text;
}

// The LAS points as records, read in order as the importer asks for them; a request that does not continue
// the last one seeks.
class LasRecordSource : public RecordSource
{
public:
    explicit LasRecordSource(const std::string& path)
    {
        laszip_BOOL compressed = 0;
        if (laszip_create(&m_reader) != 0 || laszip_open_reader(m_reader, path.c_str(), &compressed) != 0 ||
            laszip_get_header_pointer(m_reader, &m_header) != 0 || laszip_get_point_pointer(m_reader, &m_point) != 0)
        {
            std::fprintf(stderr, "cannot open %s with LASzip\n", path.c_str());
            std::exit(2);
        }
        m_count = m_header->number_of_point_records != 0 ? m_header->number_of_point_records
                                                          : m_header->extended_number_of_point_records;
    }
    ~LasRecordSource() override
    {
        laszip_close_reader(m_reader);
        laszip_destroy(m_reader);
    }

    const laszip_header& header() const { return *m_header; }
    uint64_t pointCount() const { return m_count; }
    uint64_t byteCount() const override { return m_count * kRecordSize; }

    bool read(uint64_t offset, uint64_t size, uint8_t* buffer, const LogFunction& errorLogger) override
    {
        if (offset % kRecordSize != 0 || size % kRecordSize != 0 || offset + size > byteCount())
        {
            errorLogger("LAS source: a request that is not whole records");
            return false;
        }
        const uint64_t first = offset / kRecordSize;
        if (first != m_next && laszip_seek_point(m_reader, int64_t(first)) != 0)
        {
            errorLogger("LAS source: cannot seek");
            return false;
        }
        for (uint64_t i = 0; i < size / kRecordSize; ++i)
        {
            if (laszip_read_point(m_reader) != 0)
            {
                errorLogger("LAS source: cannot read a point");
                return false;
            }
            recordOf(*m_point, buffer + i * kRecordSize);
        }
        m_next = first + size / kRecordSize;
        return true;
    }

    // Reads every point once more into `writer`, a LASzip writer opened on a copy of the header.
    void copyTo(laszip_POINTER writer)
    {
        laszip_seek_point(m_reader, 0);
        m_next = m_count;
        laszip_point* out = nullptr;
        laszip_get_point_pointer(writer, &out);
        for (uint64_t i = 0; i < m_count && laszip_read_point(m_reader) == 0; ++i)
        {
            laszip_set_point(writer, m_point);
            laszip_write_point(writer);
        }
    }

private:
    static void recordOf(const laszip_point& point, uint8_t* record)
    {
        const int32_t xyz[3] = {point.X, point.Y, point.Z};
        std::memcpy(record, xyz, 12);
        std::memcpy(record + 12, &point.intensity, 2);
        std::memcpy(record + 14, point.rgb, 6);
        record[20] = point.classification;
    }

    laszip_POINTER m_reader = nullptr;
    laszip_header* m_header = nullptr;
    laszip_point* m_point = nullptr;
    uint64_t m_count = 0;
    uint64_t m_next = 0;
};

EncodingAttribute encoded(uint8_t type, uint8_t role, const char* name)
{
    EncodingAttribute attribute;
    attribute.attribute = Attribute{type, role, name};
    return attribute;
}

uint64_t bytesBelow(const std::filesystem::path& folder)
{
    uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
    {
        if (entry.is_regular_file())
            bytes += entry.file_size();
    }
    return bytes;
}

void writeLaz(LasRecordSource& source, const std::string& path)
{
    laszip_POINTER writer = nullptr;
    laszip_create(&writer);
    laszip_set_header(writer, &source.header());
    if (laszip_open_writer(writer, path.c_str(), 1) != 0)
    {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(2);
    }
    source.copyTo(writer);
    laszip_close_writer(writer);
    laszip_destroy(writer);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[2]) == "--laz")
    {
        LasRecordSource source(argv[1]);
        writeLaz(source, argv[3]);
        std::printf("laz: %llu bytes, %.2f bytes/point\n",
                    static_cast<unsigned long long>(std::filesystem::file_size(argv[3])),
                    double(std::filesystem::file_size(argv[3])) / double(source.pointCount()));
        return 0;
    }
    if (argc < 4)
    {
        std::fprintf(stderr,
                     "usage: %s IN.las OUT_FOLDER TEMP_FOLDER [--memory-mb N] [--threads N]\n"
                     "       %s IN.las --laz OUT.laz\n",
                     argv[0], argv[0]);
        return 2;
    }
    uint64_t memoryMb = 1024;
    uint32_t threads = 0;
    for (int i = 4; i + 1 < argc; i += 2)
    {
        const std::string option = argv[i];
        if (option == "--memory-mb")
            memoryMb = std::strtoull(argv[i + 1], nullptr, 10);
        else if (option == "--threads")
            threads = uint32_t(std::strtoul(argv[i + 1], nullptr, 10));
    }
    auto source = std::make_shared<LasRecordSource>(argv[1]);

    const laszip_header& header = source->header();
    BasicConfig basic;
    basic.attributes = {{AttributeType::M96, AttributeRole::POSITION, "POSITION"},
                        {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"},
                        {AttributeType::U8, AttributeRole::R, "Red"},
                        {AttributeType::U8, AttributeRole::G, "Green"},
                        {AttributeType::U8, AttributeRole::B, "Blue"},
                        {AttributeType::U8, AttributeRole::CLASSIFICATION, "Classification"}};
    basic.origin = {header.min_x, header.min_y, header.min_z};
    basic.scale = {header.x_scale_factor, header.y_scale_factor, header.z_scale_factor};
    basic.outputPath = argv[2];
    basic.tempPath = argv[3];
    AdvancedConfig advanced;
    advanced.targetMemory = memoryMb << 20;
    advanced.workerCount = threads;
    advanced.infoLogger = [](const std::string&) {};
    advanced.progressLogger = [](int, const std::string&) {};
    PointCloudEncodingConfig encoding;
    encoding.expectedInputSize = source->byteCount();

    EncodingTarget target;
    target.attributes = {encoded(AttributeType::M96, AttributeRole::POSITION, "POSITION"),
                         encoded(AttributeType::U16, AttributeRole::INTENSITY, "Intensity"),
                         encoded(AttributeType::U8, AttributeRole::R, "Red"),
                         encoded(AttributeType::U8, AttributeRole::G, "Green"),
                         encoded(AttributeType::U8, AttributeRole::B, "Blue"),
                         encoded(AttributeType::U8, AttributeRole::CLASSIFICATION, "Classification")};
    target.origin = basic.origin;
    target.scale = basic.scale;

    const auto start = std::chrono::steady_clock::now();
    Converter converter(basic, advanced, encoding);
    std::shared_ptr<Importer> importer =
        BinaryRecordImporter::create(descriptionOf(header), source, target, EncodingFlags{}, printError);
    if (!converter.isConfigured() || !importer || !converter.addImporter(importer) || converter.run() != 0)
    {
        std::fprintf(stderr, "the conversion failed\n");
        return 1;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const uint64_t bytes = bytesBelow(basic.outputPath);
    std::printf("hspc: %llu points in %.2f s, %.2f M points/s, %llu bytes, %.2f bytes/point\n",
                static_cast<unsigned long long>(source->pointCount()), seconds,
                double(source->pointCount()) / seconds / 1e6, static_cast<unsigned long long>(bytes),
                double(bytes) / double(source->pointCount()));
    return 0;
}
