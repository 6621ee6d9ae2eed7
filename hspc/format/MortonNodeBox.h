#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "hspc/format/MortonIndex3D.h"

namespace HSPC
{

// Data sets from format version 12 on store signed cells (encodeMortonSigned); older ones store the cells
// unsigned. Node geometry depends on which.
inline constexpr uint32_t kFirstSignedCellFormatVersion = 12;

// The integer anchor of the node with decoded coordinates (x, y, z) at `lod`: for signed data sets the corner
// of the node's cube on the side of zero (the whole space anchors at 0), for older data sets the coordinates
// unchanged. `positionType` is the attribute type code of the positions
// (MortonIndex3D<W>::kAttributeTypeCode) and selects the width; 32-bit results are sign-extended. Nothing for
// a signed data set whose positions are not Morton codes, or for a lod above the width's.
std::optional<std::array<int64_t, 3>> nodeAnchor(uint8_t positionType, uint32_t formatVersion, unsigned lod,
                                                 uint64_t x, uint64_t y, uint64_t z);

// The real-space box (min x, y, z, max x, y, z) of the points of a node: the node's corner (x, y, z) plus the
// local bounds stored with the node, mapped by value * scale + origin. The whole space at lod B covers the
// full signed range whatever the local bounds say.
template <typename W>
std::array<double, 6> nodeRealBox(uint32_t formatVersion, unsigned lod, const std::array<double, 3>& origin,
                                  const std::array<double, 3>& scale, const std::array<W, 3>& node,
                                  const std::array<W, 3>& localMin, const std::array<W, 3>& localMax);

extern template std::array<double, 6> nodeRealBox(uint32_t, unsigned, const std::array<double, 3>&,
                                                  const std::array<double, 3>&,
                                                  const std::array<uint32_t, 3>&,
                                                  const std::array<uint32_t, 3>&,
                                                  const std::array<uint32_t, 3>&);
extern template std::array<double, 6> nodeRealBox(uint32_t, unsigned, const std::array<double, 3>&,
                                                  const std::array<double, 3>&,
                                                  const std::array<uint64_t, 3>&,
                                                  const std::array<uint64_t, 3>&,
                                                  const std::array<uint64_t, 3>&);

}  // namespace HSPC
