#pragma once

#include <cstdint>

// The file format of the test library that stands in for the RIEGL library: a tiny point file of our own,
// written by the tests and read by the test library's rdb_pointcloud_open. Little-endian throughout.
//
//   offset  size  field
//   0       8     magic "PCPRDBD1"
//   8       4     attribute flags: 1 riegl.amplitude, 2 riegl.rgba, 4 riegl.surface_normal
//   12      4     failure to simulate: 0 none, 1 the open fails, 2 the second rdb_pointcloud_query_select_next
//                 fails
//   16      4     metadata entries m
//   20      ...   m entries: u32 name length, name, u32 value length, value
//   ...     8     point count n
//   ...     ...   n points: 3 f64 riegl.xyz, then as flagged f32 amplitude, 4 u8 rgba, 3 f32 surface normal
namespace pcp_test::rdb_double
{

constexpr char kMagic[8] = {'P', 'C', 'P', 'R', 'D', 'B', 'D', '1'};
constexpr uint32_t kAmplitude = 1;
constexpr uint32_t kRgba = 2;
constexpr uint32_t kSurfaceNormal = 4;
constexpr uint32_t kFailOpen = 1;
constexpr uint32_t kFailSecondNext = 2;

}  // namespace pcp_test::rdb_double
