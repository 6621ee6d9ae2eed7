// "/hspcInfo.json": the tree's header as JSON, for clients that read no binary. One object,
//
//   {"tree-header-info": {<the members of the tree comment>,
//                         "format-version": 22, "max-lod": .., "min-lod": .., "lod-number-of-nodes": [..],
//                         "node-size": .., "max-node-size": .., "root-offset": [x, y, z],
//                         "origin": [x, y, z], "scale": [x, y, z],
//                         "bounding-box": {"min": [x, y, z], "max": [x, y, z]}, "attribute-id": ..,
//                         "time-stamp": <seconds>, "point-count": .., "point-count-low-bits": ..,
//                         "point-count-high-bits": .., "filtered-point-count": .., "revision": ..,
//                         "attributes": [{"role": "POSITION", "type": "M96", "name": "POSITION"}, ..]}}
#pragma once

#include <string>
#include <string_view>

#include "hspc/tree/Tree.h"

namespace HSPC
{

// The JSON text for `tree`. False with the reason in `error` when the tree's comment is not a JSON object
// (an empty comment counts as an empty one).
bool makeHspcInfo(const Tree& tree, std::string& json, std::string& error);

// Keys the library writes itself into the info file, which client JSON may not use.
bool isReservedInfoKey(std::string_view key);

}  // namespace HSPC
