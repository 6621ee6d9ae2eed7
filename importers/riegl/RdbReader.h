#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "importers/riegl/RdbApi.h"

namespace pc_preprocess::riegl
{

class RdbLibrary;

// Which of the optional point attributes an RDB file holds.
struct RdbAttributes
{
    bool amplitude = false;
    bool rgba = false;
    bool surfaceNormal = false;
};

// One RDB point file read through the RIEGL library: the context, the open point cloud, a select query over
// the index's root node, and the buffers the query fills, `batchSize` points at a time. Each object owns its
// handles and releases them in reverse order; failures of the library throw RdbError.
class RdbReader
{
public:
    // The cache of an open point cloud. The library keeps decoded index nodes in it while a select query
    // runs; 128 MiB holds the nodes that a batch of points touches many times over and keeps a few workers,
    // each with a file open, well below a gigabyte. A larger default of the library is kept.
    static constexpr uint64_t kCacheSize = 128ull << 20;

    RdbReader(std::shared_ptr<const RdbLibrary> library, uint32_t batchSize);
    ~RdbReader();
    RdbReader(const RdbReader&) = delete;
    RdbReader& operator=(const RdbReader&) = delete;

    // Opens the file (a UTF-8 path), notes its attributes, writes its report and starts the query.
    void open(const std::string& file);
    // Releases the query and the point cloud; the context stays for the next file.
    void close();

    // Fills the buffers with the next points and returns how many; 0 at the end.
    uint32_t next();

    const RdbAttributes& attributes() const { return m_attributes; }
    // "Header Info For File = " and the file, then one line per metadata entry, "name = value".
    const std::string& report() const { return m_report; }
    // The points of the file, as its index counts them.
    uint64_t pointCount() const { return m_pointCount; }

    // The buffers of the last batch: three coordinates, one amplitude, four colour bytes and three normal
    // components a point. Those of attributes that the file lacks are empty.
    const std::vector<double>& xyz() const { return m_xyz; }
    const std::vector<float>& amplitude() const { return m_amplitude; }
    const std::vector<uint8_t>& rgba() const { return m_rgba; }
    const std::vector<float>& surfaceNormal() const { return m_normal; }

private:
    void openCloud(const std::string& file);
    void readAttributes();
    void writeReport(const std::string& file);
    void countPoints();
    void startQuery(uint32_t rootNode);
    template <typename T>
    void bind(const char* attribute, RdbDataType type, std::vector<T>& buffer, size_t valuesPerPoint);
    void check(RDBResult result, const char* call) const;

    std::shared_ptr<const RdbLibrary> m_library;
    uint32_t m_batchSize;
    RDBContext* m_context = nullptr;
    RDBPointcloud* m_cloud = nullptr;
    RDBPointcloudQuerySelect* m_query = nullptr;
    RdbAttributes m_attributes;
    std::string m_report;
    uint64_t m_pointCount = 0;
    std::vector<double> m_xyz;
    std::vector<float> m_amplitude;
    std::vector<uint8_t> m_rgba;
    std::vector<float> m_normal;
};

}  // namespace pc_preprocess::riegl
