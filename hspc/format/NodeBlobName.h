// The name under which a node block is stored in a data set, by writers and readers alike:
// "/<lod>/<column>/L<lod>X<x>Y<y>Z<z>.apr" with x, y, z the node's corner as its header states it, in
// hexadecimal, and column = (x >> lod) & 255, so that a folder per lod splits into at most 256 sub-folders.
#pragma once

#include <cstdint>
#include <string>

namespace HSPC
{

std::string nodeBlobName(unsigned lod, uint64_t x, uint64_t y, uint64_t z);

}  // namespace HSPC
