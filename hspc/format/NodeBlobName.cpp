#include "hspc/format/NodeBlobName.h"

#include <cstdio>

namespace HSPC
{

std::string nodeBlobName(unsigned lod, uint64_t x, uint64_t y, uint64_t z)
{
    // The whole space at lod 64 has a single column; shifting by the word's width is undefined.
    const uint64_t column = lod < 64 ? (x >> lod) & 255 : 0;
    char name[96];
    std::snprintf(name, sizeof(name), "/%d/%d/L%dX%llxY%llxZ%llx.apr", int(lod), int(column), int(lod),
                  static_cast<unsigned long long>(x), static_cast<unsigned long long>(y),
                  static_cast<unsigned long long>(z));
    return name;
}

}  // namespace HSPC
