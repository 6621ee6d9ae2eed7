// The frames of the render voxel files, "/Voxel/voxelTreeList.hsvl" and "/Voxel/voxelTree<n>.hsvt". What
// their values mean belongs to the voxel stage of the converter; these only move the bytes.
//
// "HSVL", the voxel tree list:
//
//   offset  size  field
//   0       4     "HSVL"
//   4       8     chunk size without these 12 bytes
//   12      4     voxel description version, 23
//   16      24    origin x, y, z, doubles
//   40      24    scale x, y, z, doubles
//   64      48    box: min x, y, z, max x, y, z, doubles
//   112     8     value, uint64
//   120     8     inner size: the bytes that follow this field up to the chunk's end
//   128     4     attribute count
//   132     ...   attribute records (AttributeRecord.h)
//           2     two flag bytes
//           4     entry count
//           ...   entries in reverse order, 64 bytes each: uint32, uint32, uint64, six doubles
//
// "HSVB", one voxel file: "HSVB", the size of the whole chunk as uint64, then the voxel header and the
// compressed columns as the voxel stage writes them.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"

namespace HSPC
{

inline constexpr uint32_t kVoxelDescriptionVersion = 23;

struct VoxelListEntry
{
    uint32_t first = 0;
    uint32_t second = 0;
    uint64_t value = 0;
    std::array<double, 6> box{};
};

struct VoxelTreeList
{
    uint32_t version = kVoxelDescriptionVersion;
    std::array<double, 3> origin{};
    std::array<double, 3> scale{};
    std::array<double, 6> box{};
    uint64_t value = 0;
    std::vector<Attribute> attributes;
    std::array<uint8_t, 2> flags{};
    // In list order; the file keeps them reversed.
    std::vector<VoxelListEntry> entries;
};

void appendVoxelTreeList(const VoxelTreeList& list, std::vector<uint8_t>& bytes);
// False with the reason in `error` for another tag, sizes that disagree with the fields, or counts that the
// bytes cannot hold.
bool readVoxelTreeList(std::span<const uint8_t> bytes, VoxelTreeList& list, std::string& error);

void appendVoxelBlock(std::span<const uint8_t> content, std::vector<uint8_t>& bytes);
// The content of an "HSVB" chunk that fills `bytes` exactly; empty with the reason in `error` otherwise.
bool readVoxelBlock(std::span<const uint8_t> bytes, std::span<const uint8_t>& content, std::string& error);

}  // namespace HSPC
