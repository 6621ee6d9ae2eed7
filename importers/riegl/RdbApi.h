#pragma once

// The part of the RIEGL library's C interface (rdblib 2) that the RIEGL importer calls, declared here because
// the library is bound at run time and its headers are not needed to build. Handles are opaque; every call of
// the context family returns RDB_SUCCESS or another value, after which rdb_context_get_last_error tells what
// went wrong. The "_cf" calls need no context: they return null on success, else a result object whose code,
// text and details the "_cf" accessors read; the library keeps that object.

#include <cstdint>

extern "C" {

typedef uint32_t RDBResult;
typedef const char* RDBString;

typedef struct RDBContext RDBContext;
typedef struct RDBResultCF RDBResultCF;
typedef struct RDBPointcloud RDBPointcloud;
typedef struct RDBPointcloudOpenSettings RDBPointcloudOpenSettings;
typedef struct RDBPointcloudQueryStat RDBPointcloudQueryStat;
typedef struct RDBPointcloudQuerySelect RDBPointcloudQuerySelect;

// An index graph node as the statistics query fills it: the leading members, which are all the importer
// reads (the library allocates the node and may keep more behind them).
typedef struct RDBPointcloudGraphNode
{
    uint32_t id;
    uint32_t revision;
    uint64_t pointCountTotal;
    uint64_t pointCountNode;
} RDBPointcloudGraphNode;

}  // extern "C"

namespace pc_preprocess::riegl
{

constexpr RDBResult kRdbSuccess = 1;

// Data types of a bound buffer.
enum RdbDataType : uint32_t
{
    kRdbUint8 = 1,
    kRdbInt8 = 2,
    kRdbUint16 = 3,
    kRdbInt16 = 4,
    kRdbUint32 = 5,
    kRdbInt32 = 6,
    kRdbUint64 = 7,
    kRdbInt64 = 8,
    kRdbSingle = 9,
    kRdbDouble = 10,
};

// Every function the importer resolves, with its C signature: X(name, return type, parameter list). The
// binding, and the test library that stands in for rdblib, are both written from this one list.
#define PCP_RDB_FUNCTIONS(X)                                                                                   \
    X(rdb_context_new, RDBResult, (RDBContext * *context, RDBString logLevel, RDBString logPath))              \
    X(rdb_context_delete, RDBResult, (RDBContext * *context))                                                  \
    X(rdb_context_get_last_error, RDBResult,                                                                   \
      (RDBContext * context, int32_t * code, RDBString * text, RDBString * details))                           \
    X(rdb_result_get_error_code_cf, int32_t, (const RDBResultCF* result))                                      \
    X(rdb_result_get_error_text_cf, RDBString, (const RDBResultCF* result))                                    \
    X(rdb_result_get_error_details_cf, RDBString, (const RDBResultCF* result))                                 \
    X(rdb_pointcloud_open_settings_new_cf, RDBResultCF*, (RDBPointcloudOpenSettings * *settings))              \
    X(rdb_pointcloud_open_settings_set_cache_size_64_cf, RDBResultCF*,                                         \
      (RDBPointcloudOpenSettings * settings, uint64_t value))                                                  \
    X(rdb_pointcloud_open_settings_get_cache_size_64_cf, RDBResultCF*,                                         \
      (const RDBPointcloudOpenSettings* settings, uint64_t* value))                                            \
    X(rdb_pointcloud_open_settings_delete_cf, RDBResultCF*, (RDBPointcloudOpenSettings * *settings))           \
    X(rdb_pointcloud_new, RDBResult, (RDBContext * context, RDBPointcloud * *pointcloud))                      \
    X(rdb_pointcloud_open, RDBResult,                                                                          \
      (RDBContext * context, RDBPointcloud * pointcloud, RDBString location,                                   \
       const RDBPointcloudOpenSettings* settings))                                                             \
    X(rdb_pointcloud_is_open, RDBResult, (RDBContext * context, RDBPointcloud * pointcloud, uint32_t * isOpen)) \
    X(rdb_pointcloud_close, RDBResult, (RDBContext * context, RDBPointcloud * pointcloud))                     \
    X(rdb_pointcloud_delete, RDBResult, (RDBContext * context, RDBPointcloud * *pointcloud))                   \
    X(rdb_pointcloud_point_attributes_list, RDBResult,                                                         \
      (RDBContext * context, RDBPointcloud * pointcloud, uint32_t * count, RDBString * list))                  \
    X(rdb_pointcloud_meta_data_list, RDBResult,                                                                \
      (RDBContext * context, RDBPointcloud * pointcloud, uint32_t * count, RDBString * list))                  \
    X(rdb_pointcloud_meta_data_get, RDBResult,                                                                 \
      (RDBContext * context, RDBPointcloud * pointcloud, RDBString name, RDBString * value))                   \
    X(rdb_pointcloud_query_stat_new, RDBResult,                                                                \
      (RDBContext * context, RDBPointcloud * pointcloud, RDBPointcloudQueryStat * *query))                     \
    X(rdb_pointcloud_query_stat_index_filter, RDBResult,                                                       \
      (RDBContext * context, RDBPointcloudQueryStat * query, RDBPointcloudGraphNode * root, RDBString filter))  \
    X(rdb_pointcloud_query_stat_delete, RDBResult, (RDBContext * context, RDBPointcloudQueryStat * *query))    \
    X(rdb_pointcloud_graph_node_new, RDBResult, (RDBContext * context, RDBPointcloudGraphNode * *node))        \
    X(rdb_pointcloud_graph_node_delete, RDBResult, (RDBContext * context, RDBPointcloudGraphNode * *node))     \
    X(rdb_pointcloud_query_select_new, RDBResult,                                                              \
      (RDBContext * context, RDBPointcloud * pointcloud, uint32_t node, RDBString filter,                      \
       RDBPointcloudQuerySelect * *query))                                                                     \
    X(rdb_pointcloud_query_select_nodes_new, RDBResult,                                                        \
      (RDBContext * context, RDBPointcloud * pointcloud, const uint32_t* nodes, uint32_t count,                \
       RDBString filter, RDBPointcloudQuerySelect** query))                                                    \
    X(rdb_pointcloud_query_select_bind, RDBResult,                                                             \
      (RDBContext * context, RDBPointcloudQuerySelect * query, RDBString attribute, uint32_t dataType,          \
       void* buffer, int32_t stride))                                                                          \
    X(rdb_pointcloud_query_select_next, RDBResult,                                                             \
      (RDBContext * context, RDBPointcloudQuerySelect * query, uint32_t count, uint32_t * processed))          \
    X(rdb_pointcloud_query_select_delete, RDBResult, (RDBContext * context, RDBPointcloudQuerySelect * *query))

}  // namespace pc_preprocess::riegl
