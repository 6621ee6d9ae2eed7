// The "APRR" and "APRF" chunks: the nodes of a tree, section by section.
//
//   offset  size  field
//   0       4     "APRR" or "APRF"
//   4       8     chunk size
//   12      4     format version (22 when written; a body below version 4 is skipped)
//   16      8     body size                       (absent up to version 8)
//   24      8     stored body size                (absent up to version 8)
//   32      ...   body: one zstd frame from version 11 on, plain below
//
// Body, N the sum of the node counts, nodes breadth-first with lods descending from max-lod:
//
//   section                          "APRR"                    "APRF"
//   node count per lod, max to min   8 bytes each              8 bytes each
//   child masks                      N x 1                     N x 1
//   points                           N x 1 density             N x 4 point count      (from version 9)
//   reserved, zero                   N x 2                     N x 2                  (from version 9)
//   boxes                            N x 6: min x, y, z,       N x 48: min x, y, z,
//                                    max x, y, z in 1/256      max x, y, z, uint64
//                                    of the node's edge
//   leaf values                      N x 4, zero               N x 4                  (from version 9)
//
// Up to version 8 a box takes 8 bytes, the six 1/256 values at its bytes 2 to 7, and every node counts
// 99/255 of the density base. In versions 9 and 10 every density reads as 99. An "APRR" box maximum reads
// as the top of its 1/256 step from version 18 on, one step higher before; "APRF" maxima below version 12
// were exclusive and read one higher.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hspc/format/FieldReader.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

// Appends the chunk of `form` for the tree's lods and nodes, the body compressed at level 1.
bool appendTreeBody(const Tree& tree, TreeForm form, std::vector<uint8_t>& bytes, std::string& error);

// Parses the chunk at the reader's position into the tree's lodNodeCounts and nodes (links as stored),
// using the header for lods and density base. `form` receives which chunk it was.
bool readTreeBody(FieldReader& reader, Tree& tree, TreeForm& form, std::string& error);

// The density byte of a node of `count` points against `densityBase`, and the count a reader makes of it.
uint8_t densityOf(uint32_t count, uint32_t densityBase);
uint32_t countOfDensity(uint8_t density, uint32_t densityBase);

// A box bound in 1/256 of the edge of a node at `lod`, and back.
uint8_t boxStepOf(uint64_t value, unsigned lod);
uint64_t boxValueOf(unsigned step, unsigned lod);

}  // namespace HSPC
