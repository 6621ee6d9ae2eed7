// The "APRT" chunk that opens both tree files of a data set: what the data set is (lods, node sizes, space,
// attribute id) and what a client said about it (name, comment, projections). Written as format version 22,
// read from version 4 on; a field that a file's version lacks takes the value in the last column.
//
//   offset  size   field                                            from version  default
//   0       4      "APRT"
//   4       8      chunk size: exactly the bytes of the fields below
//   12      4      format-version
//   16      1      min-lod
//   17      1      max-lod
//   18      4      node-size
//   22      4      max-node-size
//   26      24     root-offset x, y, z, int64: the root's corner cell, as a node block stores it
//   50      48     bounding box min x, y, z, max x, y, z, doubles
//   98      24     scale x, y, z, doubles
//   122     4      attribute-id
//   126     8      time-stamp, milliseconds
//   134     2+n    name (uint16 length, bytes)
//           2+n    base path
//           ...    comment, JSON text: from 22 "CJSO", byte 100, uint64 compressed size, uint64 size and
//                  one zstd frame; below 22 uint16 length and bytes
//           2+n    author                                           5             "unknown"
//           2+n    projection WKT                                   5             empty
//           2+n    source projection WKT                            5             empty
//           4      projection EPSG                                  5             0
//           4      source projection EPSG                           5             0
//           24     centre in projected units, 3 doubles             5             -666.0 each
//           1      flag                                             5             0
//           8      point-count                                      5             0
//           2+n    meta URL                                         6             empty
//           8      filtered-point-count                             9             0
//           4      revision                                         9             0
//           1      progressive: still being encoded                 10            0
//           24     origin x, y, z, doubles                          12            bounding box min
//           4      density base: node size densities count against  13            max-node-size
//
// Below version 19 the comment is not the client's JSON yet: a reader rebuilds it from the text fields.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/FieldReader.h"

namespace HSPC
{

inline constexpr uint32_t kTreeFormatVersion = 22;
inline constexpr uint32_t kOldestTreeFormatVersion = 4;

struct TreeHeader
{
    uint32_t formatVersion = kTreeFormatVersion;
    uint8_t minLod = 0;
    uint8_t maxLod = 0;
    uint32_t nodeSize = 0;
    uint32_t maxNodeSize = 0;
    std::array<int64_t, 3> rootOffset{};
    std::array<double, 3> boxMin{};
    std::array<double, 3> boxMax{};
    std::array<double, 3> scale{1.0, 1.0, 1.0};
    uint32_t attributeId = 0;
    uint64_t timeStamp = 0;  // milliseconds
    std::string name;
    std::string basePath;
    // JSON text: the client's meta data with the statistics of the conversion.
    std::string comment;
    std::string author = "unknown";
    std::string projectionWkt;
    std::string sourceProjectionWkt;
    uint32_t projectionEpsg = 0;
    uint32_t sourceProjectionEpsg = 0;
    std::array<double, 3> centerProjected{-666.0, -666.0, -666.0};
    uint8_t flag = 0;
    uint64_t pointCount = 0;
    std::string metaUrl;
    uint64_t filteredPointCount = 0;
    uint32_t revision = 0;
    uint8_t progressive = 0;
    std::array<double, 3> origin{};
    uint32_t densityBase = 0;
};

// Appends the chunk as version 22. Text fields longer than their 16-bit length are cut to 65535 bytes; the
// comment, stored in a zstd frame, is kept whole. False with the reason in `error` when zstd fails.
bool appendTreeHeader(const TreeHeader& header, std::vector<uint8_t>& bytes, std::string& error);

// Parses the chunk at the reader's position. False with the reason in `error` for another tag, a version
// outside 4..22, fields running past the end, a comment that does not inflate, or a chunk size that differs
// from the bytes parsed.
bool readTreeHeader(FieldReader& reader, TreeHeader& header, std::string& error);

}  // namespace HSPC
