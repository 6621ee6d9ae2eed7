#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "importers/las/LasHeader.h"

namespace pc_preprocess::las
{

// Fills `bytes` from the file at `offset`, or throws.
using ReadAt = std::function<void(uint64_t offset, std::span<uint8_t> bytes)>;

// Walks the VLRs that follow the header, hands the records that carry the coordinate system to a LaszVlr and
// returns its WKT (empty when the file gives none). The others are passed over unread. Throws when a record's
// header or payload would run past the end of the file, and for records that LaszVlr refuses.
std::string readCoordinateSystem(const LasHeader& header, uint64_t fileSize, const ReadAt& read);

}  // namespace pc_preprocess::las
