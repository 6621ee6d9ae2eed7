#pragma once

#include <cstdint>

#include "core/Export.h"
#include "geom/Vector3d.h"

namespace pc_preprocess
{

// Unit normals packed into 16 bits: the code is the index of the nearest of 65144 fixed directions, laid out
// in 227 rings of equal polar angle from the north pole (code 0) to the south pole (code 65143). Ring i has
// the polar angle i * pi / 226 and ceil(452 * sin(angle)) directions, at least one, spread evenly in azimuth
// from -pi. Packing costs a few trigonometric calls, unpacking one table read.

// The number of directions; codes from here on decode to the zero vector.
inline constexpr uint32_t kNormalCodeCount = 65144;

// The code of the direction nearest to v. A vector that is clearly not of unit length (its squared length
// more than 0.2 away from 1, the zero vector among them) or not finite gives 0, the code of the north pole.
// The vector is not normalised first, so a slightly long one lands on a slightly wrong ring.
PCP_API uint16_t encodeNormal(const geom::Vector3d& v);

// The direction of the little-endian code in the two bytes at `code`; the zero vector for a null pointer or a
// code of kNormalCodeCount or more.
PCP_API geom::Vector3d decodeNormal(const uint8_t* code);

}  // namespace pc_preprocess
