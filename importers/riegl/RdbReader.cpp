#include "importers/riegl/RdbReader.h"

#include <algorithm>
#include <cstring>

#include "importers/riegl/RdbError.h"
#include "importers/riegl/RdbLibrary.h"

namespace pc_preprocess::riegl
{

namespace
{

constexpr const char* kXyz = "riegl.xyz";
constexpr const char* kAmplitude = "riegl.amplitude";
constexpr const char* kRgba = "riegl.rgba";
constexpr const char* kSurfaceNormal = "riegl.surface_normal";
// Its value is a large table of the scanner's calibration that says nothing to a reader of the log.
constexpr const char* kReflectanceCalculation = "riegl.reflectance_calculation";

// The names of a list that the library hands out as `count` texts one after the other, each ended by a zero.
std::vector<std::string> splitList(RDBString list, uint32_t count)
{
    std::vector<std::string> names;
    for (uint32_t i = 0; list && i < count; ++i)
    {
        names.emplace_back(list);
        list += names.back().size() + 1;
    }
    return names;
}

// Owns one object of the library through its delete call, for the handles that live only inside one call.
template <typename Handle>
class Scoped
{
public:
    using Deleter = RDBResult (*)(RDBContext*, Handle**);
    Scoped(RDBContext* context, Deleter deleter) : m_context(context), m_deleter(deleter) {}
    ~Scoped()
    {
        if (m_handle)
            m_deleter(m_context, &m_handle);
    }
    Scoped(const Scoped&) = delete;
    Scoped& operator=(const Scoped&) = delete;
    Handle** out() { return &m_handle; }
    Handle* get() const { return m_handle; }

private:
    RDBContext* m_context;
    Deleter m_deleter;
    Handle* m_handle = nullptr;
};

}  // namespace

RdbReader::RdbReader(std::shared_ptr<const RdbLibrary> library, uint32_t batchSize)
    : m_library(std::move(library)), m_batchSize(batchSize)
{
    // An empty log level and path: the library writes no log of its own.
    check(m_library->rdb_context_new(&m_context, "", ""), "rdb_context_new");
}

RdbReader::~RdbReader()
{
    close();
    if (m_context)
        m_library->rdb_context_delete(&m_context);
}

void RdbReader::check(RDBResult result, const char* call) const
{
    checkRdb(*m_library, m_context, result, call);
}

void RdbReader::close()
{
    if (m_query)
        m_library->rdb_pointcloud_query_select_delete(m_context, &m_query);
    if (m_cloud)
    {
        uint32_t isOpen = 0;
        if (m_library->rdb_pointcloud_is_open(m_context, m_cloud, &isOpen) == kRdbSuccess && isOpen)
            m_library->rdb_pointcloud_close(m_context, m_cloud);
        m_library->rdb_pointcloud_delete(m_context, &m_cloud);
    }
    m_query = nullptr;
    m_cloud = nullptr;
}

void RdbReader::open(const std::string& file)
{
    close();
    m_attributes = {};
    m_pointCount = 0;
    openCloud(file);
    readAttributes();
    writeReport(file);
    countPoints();
}

void RdbReader::openCloud(const std::string& file)
{
    const RdbLibrary& lib = *m_library;
    RDBPointcloudOpenSettings* settings = nullptr;
    checkRdbCf(lib, lib.rdb_pointcloud_open_settings_new_cf(&settings), "rdb_pointcloud_open_settings_new_cf");
    try
    {
        uint64_t cacheSize = 0;
        checkRdbCf(lib, lib.rdb_pointcloud_open_settings_get_cache_size_64_cf(settings, &cacheSize),
                   "rdb_pointcloud_open_settings_get_cache_size_64_cf");
        checkRdbCf(lib,
                   lib.rdb_pointcloud_open_settings_set_cache_size_64_cf(settings, std::max(cacheSize, kCacheSize)),
                   "rdb_pointcloud_open_settings_set_cache_size_64_cf");
        check(lib.rdb_pointcloud_new(m_context, &m_cloud), "rdb_pointcloud_new");
        check(lib.rdb_pointcloud_open(m_context, m_cloud, file.c_str(), settings), "rdb_pointcloud_open");
    }
    catch (...)
    {
        lib.rdb_pointcloud_open_settings_delete_cf(&settings);
        throw;
    }
    lib.rdb_pointcloud_open_settings_delete_cf(&settings);
}

void RdbReader::readAttributes()
{
    uint32_t count = 0;
    RDBString list = nullptr;
    check(m_library->rdb_pointcloud_point_attributes_list(m_context, m_cloud, &count, &list),
          "rdb_pointcloud_point_attributes_list");
    const std::vector<std::string> names = splitList(list, count);
    const auto has = [&](const char* name) { return std::find(names.begin(), names.end(), name) != names.end(); };
    if (!has(kXyz))
        throw RdbError("The point cloud has no point attribute riegl.xyz", "no coordinates to read");
    m_attributes.amplitude = has(kAmplitude);
    m_attributes.rgba = has(kRgba);
    m_attributes.surfaceNormal = has(kSurfaceNormal);
}

void RdbReader::writeReport(const std::string& file)
{
    m_report = "Header Info For File = " + file + "\n";
    uint32_t count = 0;
    RDBString list = nullptr;
    check(m_library->rdb_pointcloud_meta_data_list(m_context, m_cloud, &count, &list),
          "rdb_pointcloud_meta_data_list");
    for (const std::string& name : splitList(list, count))
    {
        if (name == kReflectanceCalculation)
        {
            m_report += name + "\n";
            continue;
        }
        RDBString value = nullptr;
        check(m_library->rdb_pointcloud_meta_data_get(m_context, m_cloud, name.c_str(), &value),
              "rdb_pointcloud_meta_data_get");
        m_report += name + " = " + (value ? value : "") + "\n";
    }
}

void RdbReader::countPoints()
{
    const RdbLibrary& lib = *m_library;
    Scoped<RDBPointcloudQueryStat> stat(m_context, lib.rdb_pointcloud_query_stat_delete);
    Scoped<RDBPointcloudGraphNode> root(m_context, lib.rdb_pointcloud_graph_node_delete);
    check(lib.rdb_pointcloud_query_stat_new(m_context, m_cloud, stat.out()), "rdb_pointcloud_query_stat_new");
    check(lib.rdb_pointcloud_graph_node_new(m_context, root.out()), "rdb_pointcloud_graph_node_new");
    check(lib.rdb_pointcloud_query_stat_index_filter(m_context, stat.get(), root.get(), ""),
          "rdb_pointcloud_query_stat_index_filter");
    // The count serves the progress and the meta file only: nothing is sized by it.
    m_pointCount = root.get()->pointCountTotal;
    startQuery(root.get()->id);
}

void RdbReader::startQuery(uint32_t rootNode)
{
    const RdbLibrary& lib = *m_library;
    // Node 0 is no node: the query then selects the whole cloud.
    if (rootNode != 0)
        check(lib.rdb_pointcloud_query_select_nodes_new(m_context, m_cloud, &rootNode, 1, "", &m_query),
              "rdb_pointcloud_query_select_nodes_new");
    else
        check(lib.rdb_pointcloud_query_select_new(m_context, m_cloud, 0, "", &m_query),
              "rdb_pointcloud_query_select_new");
    // Coordinates are bound as doubles: the library converts them from its own fixed point without loss,
    // where floats would round a scan far from the project's origin to centimetres.
    bind(kXyz, kRdbDouble, m_xyz, 3);
    if (m_attributes.amplitude)
        bind(kAmplitude, kRdbSingle, m_amplitude, 1);
    else
        m_amplitude.clear();
    if (m_attributes.rgba)
        bind(kRgba, kRdbUint8, m_rgba, 4);
    else
        m_rgba.clear();
    if (m_attributes.surfaceNormal)
        bind(kSurfaceNormal, kRdbSingle, m_normal, 3);
    else
        m_normal.clear();
}

template <typename T>
void RdbReader::bind(const char* attribute, RdbDataType type, std::vector<T>& buffer, size_t valuesPerPoint)
{
    buffer.resize(size_t{m_batchSize} * valuesPerPoint);
    check(m_library->rdb_pointcloud_query_select_bind(m_context, m_query, attribute, type, buffer.data(),
                                                      static_cast<int32_t>(sizeof(T) * valuesPerPoint)),
          "rdb_pointcloud_query_select_bind");
}

uint32_t RdbReader::next()
{
    if (!m_query)
        return 0;
    uint32_t processed = 0;
    const RDBResult result =
        m_library->rdb_pointcloud_query_select_next(m_context, m_query, m_batchSize, &processed);
    if (result != kRdbSuccess)
    {
        // Some versions end a query with a result other than success and no error set: that is the end.
        int32_t code = 0;
        RDBString text = nullptr;
        RDBString details = nullptr;
        if (m_library->rdb_context_get_last_error(m_context, &code, &text, &details) != kRdbSuccess || code != 0)
            check(result, "rdb_pointcloud_query_select_next");
        return 0;
    }
    if (processed > m_batchSize)
        throw RdbError("rdb_pointcloud_query_select_next returned " + std::to_string(processed) +
                           " points for buffers of " + std::to_string(m_batchSize),
                       "the library wrote past the bound buffers");
    return processed;
}

}  // namespace pc_preprocess::riegl
