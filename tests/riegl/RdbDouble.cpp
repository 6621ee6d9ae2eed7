// A stand-in for the RIEGL library, built only for the tests: the C functions that the importer binds, over
// the small file format of RdbDoubleFormat.h. It behaves as the library does where the importer can tell:
// handles, attribute and metadata lists, a statistics query with a root node, select queries filling bound
// buffers with a stride, errors read through the context or through context-free results. Two variants are
// built from this file: one without rdb_pointcloud_query_select_bind (PCP_RDB_DOUBLE_LACKS_BIND), and one
// whose open settings refuse every cache size (PCP_RDB_DOUBLE_FAILING).
//
// Objects belong to one context and one thread at a time, as in the library; nothing is shared, so that two
// workers may read two files at once.
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "importers/riegl/RdbApi.h"
#include "riegl/RdbDoubleFormat.h"

using pc_preprocess::riegl::kRdbDouble;
using pc_preprocess::riegl::kRdbSingle;
using pc_preprocess::riegl::kRdbSuccess;
using pc_preprocess::riegl::kRdbUint8;
namespace format = pcp_test::rdb_double;

struct RDBContext
{
    int32_t code = 0;
    std::string text;
    std::string details;
};

struct RDBResultCF
{
    int32_t code = 0;
    std::string text;
    std::string details;
};

struct RDBPointcloudOpenSettings
{
    uint64_t cacheSize = 64ull << 20;
};

struct DoublePoint
{
    double xyz[3] = {};
    float amplitude = 0.0f;
    uint8_t rgba[4] = {};
    float normal[3] = {};
};

struct RDBPointcloud
{
    bool open = false;
    uint32_t failure = 0;
    uint32_t attributeCount = 0;
    std::string attributeList;
    uint32_t metaCount = 0;
    std::string metaList;
    std::vector<std::pair<std::string, std::string>> metadata;
    std::vector<DoublePoint> points;
};

struct RDBPointcloudQueryStat
{
    RDBPointcloud* cloud = nullptr;
};

struct Binding
{
    std::string attribute;
    uint32_t type = 0;
    char* buffer = nullptr;
    int32_t stride = 0;
};

struct RDBPointcloudQuerySelect
{
    RDBPointcloud* cloud = nullptr;
    size_t nextPoint = 0;
    uint32_t calls = 0;
    std::vector<Binding> bindings;
};

namespace
{

constexpr uint32_t kRootNode = 1;
constexpr RDBResult kFailure = 0;

RDBResult fail(RDBContext* context, int32_t code, std::string text, std::string details)
{
    context->code = code;
    context->text = std::move(text);
    context->details = std::move(details);
    return kFailure;
}

RDBResult succeed(RDBContext* context)
{
    context->code = 0;
    context->text.clear();
    context->details.clear();
    return kRdbSuccess;
}

// Reads the file of RdbDoubleFormat.h; false for anything that does not fit.
class FileReader
{
public:
    explicit FileReader(const char* path)
    {
        std::ifstream in(path, std::ios::binary);
        m_bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    bool take(void* out, size_t size)
    {
        if (m_bytes.size() - m_offset < size)
            return false;
        std::memcpy(out, m_bytes.data() + m_offset, size);
        m_offset += size;
        return true;
    }
    bool text(std::string& out)
    {
        uint32_t length = 0;
        if (!take(&length, sizeof length) || m_bytes.size() - m_offset < length)
            return false;
        out.assign(m_bytes.data() + m_offset, length);
        m_offset += length;
        return true;
    }
    size_t remaining() const { return m_bytes.size() - m_offset; }

private:
    std::vector<char> m_bytes;
    size_t m_offset = 0;
};

bool readCloud(const char* path, RDBPointcloud& cloud)
{
    FileReader file(path);
    char magic[8];
    uint32_t flags = 0;
    uint32_t metaCount = 0;
    if (!file.take(magic, sizeof magic) || std::memcmp(magic, format::kMagic, sizeof magic) != 0 ||
        !file.take(&flags, sizeof flags) || !file.take(&cloud.failure, sizeof cloud.failure) ||
        !file.take(&metaCount, sizeof metaCount))
        return false;
    for (uint32_t i = 0; i < metaCount; ++i)
    {
        std::pair<std::string, std::string> entry;
        if (!file.text(entry.first) || !file.text(entry.second))
            return false;
        cloud.metadata.push_back(std::move(entry));
        cloud.metaList += cloud.metadata.back().first + '\0';
    }
    cloud.metaCount = metaCount;
    const auto addAttribute = [&](const char* name) {
        cloud.attributeList += std::string(name) + '\0';
        ++cloud.attributeCount;
    };
    addAttribute("riegl.id");
    addAttribute("riegl.xyz");
    if (flags & format::kAmplitude)
        addAttribute("riegl.amplitude");
    if (flags & format::kRgba)
        addAttribute("riegl.rgba");
    if (flags & format::kSurfaceNormal)
        addAttribute("riegl.surface_normal");

    uint64_t count = 0;
    if (!file.take(&count, sizeof count))
        return false;
    const size_t pointBytes = 24 + (flags & format::kAmplitude ? 4 : 0) + (flags & format::kRgba ? 4 : 0) +
                              (flags & format::kSurfaceNormal ? 12 : 0);
    if (count > file.remaining() / pointBytes)
        return false;
    cloud.points.resize(count);
    for (DoublePoint& point : cloud.points)
        if (!file.take(point.xyz, sizeof point.xyz) ||
            ((flags & format::kAmplitude) && !file.take(&point.amplitude, sizeof point.amplitude)) ||
            ((flags & format::kRgba) && !file.take(point.rgba, sizeof point.rgba)) ||
            ((flags & format::kSurfaceNormal) && !file.take(point.normal, sizeof point.normal)))
            return false;
    return true;
}

// Used by the bind call, which one build leaves out.
[[maybe_unused]] bool hasAttribute(const RDBPointcloud& cloud, const std::string& name)
{
    const char* list = cloud.attributeList.c_str();
    for (uint32_t i = 0; i < cloud.attributeCount; ++i, list += std::strlen(list) + 1)
        if (name == list)
            return true;
    return false;
}

template <typename T>
void storeVector(const Binding& binding, size_t row, const T* values, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        char* out = binding.buffer + row * static_cast<size_t>(binding.stride);
        if (binding.type == kRdbDouble)
        {
            const double value = static_cast<double>(values[i]);
            std::memcpy(out + i * sizeof value, &value, sizeof value);
        }
        else
        {
            const float value = static_cast<float>(values[i]);
            std::memcpy(out + i * sizeof(float), &value, sizeof value);
        }
    }
}

void fill(const Binding& binding, size_t row, const DoublePoint& point)
{
    if (binding.attribute == "riegl.xyz")
        storeVector(binding, row, point.xyz, 3);
    else if (binding.attribute == "riegl.amplitude")
        storeVector(binding, row, &point.amplitude, 1);
    else if (binding.attribute == "riegl.surface_normal")
        storeVector(binding, row, point.normal, 3);
    else if (binding.attribute == "riegl.rgba")
        std::memcpy(binding.buffer + row * static_cast<size_t>(binding.stride), point.rgba, sizeof point.rgba);
}

thread_local RDBResultCF t_lastResult;

}  // namespace

extern "C" {

#define PCP_RDB_EXPORT __attribute__((visibility("default")))

PCP_RDB_EXPORT RDBResult rdb_context_new(RDBContext** context, RDBString, RDBString)
{
    *context = new RDBContext;
    return kRdbSuccess;
}

PCP_RDB_EXPORT RDBResult rdb_context_delete(RDBContext** context)
{
    delete *context;
    *context = nullptr;
    return kRdbSuccess;
}

PCP_RDB_EXPORT RDBResult rdb_context_get_last_error(RDBContext* context, int32_t* code, RDBString* text,
                                                    RDBString* details)
{
    *code = context->code;
    *text = context->text.c_str();
    *details = context->details.c_str();
    return kRdbSuccess;
}

PCP_RDB_EXPORT int32_t rdb_result_get_error_code_cf(const RDBResultCF* result)
{
    return result->code;
}

PCP_RDB_EXPORT RDBString rdb_result_get_error_text_cf(const RDBResultCF* result)
{
    return result->text.c_str();
}

PCP_RDB_EXPORT RDBString rdb_result_get_error_details_cf(const RDBResultCF* result)
{
    return result->details.c_str();
}

PCP_RDB_EXPORT RDBResultCF* rdb_pointcloud_open_settings_new_cf(RDBPointcloudOpenSettings** settings)
{
    *settings = new RDBPointcloudOpenSettings;
    return nullptr;
}

PCP_RDB_EXPORT RDBResultCF* rdb_pointcloud_open_settings_set_cache_size_64_cf(RDBPointcloudOpenSettings* settings,
                                                                              uint64_t value)
{
#ifdef PCP_RDB_DOUBLE_FAILING
    t_lastResult = {7, "Invalid cache size " + std::to_string(value),
                    "the failing test library refuses every open setting"};
    (void)settings;
    return &t_lastResult;
#else
    settings->cacheSize = value;
    return nullptr;
#endif
}

PCP_RDB_EXPORT RDBResultCF* rdb_pointcloud_open_settings_get_cache_size_64_cf(
    const RDBPointcloudOpenSettings* settings, uint64_t* value)
{
    *value = settings->cacheSize;
    return nullptr;
}

PCP_RDB_EXPORT RDBResultCF* rdb_pointcloud_open_settings_delete_cf(RDBPointcloudOpenSettings** settings)
{
    delete *settings;
    *settings = nullptr;
    return nullptr;
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_new(RDBContext* context, RDBPointcloud** pointcloud)
{
    *pointcloud = new RDBPointcloud;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_open(RDBContext* context, RDBPointcloud* pointcloud, RDBString location,
                                             const RDBPointcloudOpenSettings* settings)
{
    if (!settings || settings->cacheSize == 0)
        return fail(context, 2, "Invalid open settings", "no cache");
    RDBPointcloud cloud;
    if (!readCloud(location, cloud))
        return fail(context, 11, "Failed to open database", std::string(location) + " is no RDB file");
    if (cloud.failure == format::kFailOpen)
        return fail(context, 12, "Database is corrupt", std::string(location) + ": simulated damage");
    *pointcloud = std::move(cloud);
    pointcloud->open = true;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_is_open(RDBContext* context, RDBPointcloud* pointcloud, uint32_t* isOpen)
{
    *isOpen = pointcloud->open ? 1 : 0;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_close(RDBContext* context, RDBPointcloud* pointcloud)
{
    *pointcloud = RDBPointcloud();
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_delete(RDBContext* context, RDBPointcloud** pointcloud)
{
    delete *pointcloud;
    *pointcloud = nullptr;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_point_attributes_list(RDBContext* context, RDBPointcloud* pointcloud,
                                                              uint32_t* count, RDBString* list)
{
    if (!pointcloud->open)
        return fail(context, 3, "Database not open", "rdb_pointcloud_point_attributes_list");
    *count = pointcloud->attributeCount;
    *list = pointcloud->attributeList.c_str();
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_meta_data_list(RDBContext* context, RDBPointcloud* pointcloud,
                                                       uint32_t* count, RDBString* list)
{
    if (!pointcloud->open)
        return fail(context, 3, "Database not open", "rdb_pointcloud_meta_data_list");
    *count = pointcloud->metaCount;
    *list = pointcloud->metaList.c_str();
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_meta_data_get(RDBContext* context, RDBPointcloud* pointcloud,
                                                      RDBString name, RDBString* value)
{
    for (const auto& [key, text] : pointcloud->metadata)
        if (key == name)
        {
            *value = text.c_str();
            return succeed(context);
        }
    return fail(context, 4, "Meta data not found", name);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_stat_new(RDBContext* context, RDBPointcloud* pointcloud,
                                                       RDBPointcloudQueryStat** query)
{
    *query = new RDBPointcloudQueryStat{pointcloud};
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_stat_index_filter(RDBContext* context, RDBPointcloudQueryStat* query,
                                                                RDBPointcloudGraphNode* root, RDBString filter)
{
    if (filter && *filter)
        return fail(context, 5, "Filters are not supported by the test library", filter);
    // An empty database has no index node: the importer then selects without one.
    root->id = query->cloud->points.empty() ? 0 : kRootNode;
    root->revision = 1;
    root->pointCountTotal = query->cloud->points.size();
    root->pointCountNode = 0;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_stat_delete(RDBContext* context, RDBPointcloudQueryStat** query)
{
    delete *query;
    *query = nullptr;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_graph_node_new(RDBContext* context, RDBPointcloudGraphNode** node)
{
    *node = new RDBPointcloudGraphNode{};
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_graph_node_delete(RDBContext* context, RDBPointcloudGraphNode** node)
{
    delete *node;
    *node = nullptr;
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_select_new(RDBContext* context, RDBPointcloud* pointcloud,
                                                         uint32_t node, RDBString filter,
                                                         RDBPointcloudQuerySelect** query)
{
    if (node != 0 && node != kRootNode)
        return fail(context, 6, "Unknown graph node", std::to_string(node));
    if (filter && *filter)
        return fail(context, 5, "Filters are not supported by the test library", filter);
    *query = new RDBPointcloudQuerySelect{pointcloud, 0, 0, {}};
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_select_nodes_new(RDBContext* context, RDBPointcloud* pointcloud,
                                                               const uint32_t* nodes, uint32_t count,
                                                               RDBString filter, RDBPointcloudQuerySelect** query)
{
    if (count != 1)
        return fail(context, 6, "The test library has one graph node", std::to_string(count) + " nodes asked");
    return rdb_pointcloud_query_select_new(context, pointcloud, nodes[0], filter, query);
}

#ifndef PCP_RDB_DOUBLE_LACKS_BIND
PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_select_bind(RDBContext* context, RDBPointcloudQuerySelect* query,
                                                          RDBString attribute, uint32_t dataType, void* buffer,
                                                          int32_t stride)
{
    const std::string name = attribute;
    if (!hasAttribute(*query->cloud, name))
        return fail(context, 8, "Unknown point attribute", name);
    const bool isColour = name == "riegl.rgba";
    if (isColour ? dataType != kRdbUint8 : dataType != kRdbSingle && dataType != kRdbDouble)
        return fail(context, 9, "Unsupported data type " + std::to_string(dataType), name);
    if (!buffer || stride <= 0)
        return fail(context, 10, "Invalid buffer", name);
    query->bindings.push_back({name, dataType, static_cast<char*>(buffer), stride});
    return succeed(context);
}
#endif

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_select_next(RDBContext* context, RDBPointcloudQuerySelect* query,
                                                          uint32_t count, uint32_t* processed)
{
    *processed = 0;
    ++query->calls;
    if (query->cloud->failure == format::kFailSecondNext && query->calls == 2)
        return fail(context, 21, "Failed to read points", "simulated damage in graph node 1");
    const std::vector<DoublePoint>& points = query->cloud->points;
    size_t row = 0;
    for (; row < count && query->nextPoint < points.size(); ++row, ++query->nextPoint)
        for (const Binding& binding : query->bindings)
            fill(binding, row, points[query->nextPoint]);
    *processed = static_cast<uint32_t>(row);
    return succeed(context);
}

PCP_RDB_EXPORT RDBResult rdb_pointcloud_query_select_delete(RDBContext* context, RDBPointcloudQuerySelect** query)
{
    delete *query;
    *query = nullptr;
    return succeed(context);
}

}  // extern "C"

// Every function has the signature that the importer binds.
#define PCP_RDB_CHECK_SIGNATURE(name, result, parameters) \
    static_assert(std::is_same_v<decltype(&name), result(*) parameters>, #name " differs from the binding");
namespace
{
// rdb_pointcloud_query_select_bind is checked in the builds that have it.
#ifndef PCP_RDB_DOUBLE_LACKS_BIND
PCP_RDB_FUNCTIONS(PCP_RDB_CHECK_SIGNATURE)
#endif
}  // namespace
