// Where the scans of a data set stood, as the conversion that made it wrote into the tree's comment: the
// "scan-info" array (one member per scan) and the "input-info" array (one member per input file, with the
// scan an E57 file held when there was one).
//
//   "scan-info": [{"index": 0, "matrix": [16 numbers],
//                  "pose": {"rotation": {"x": 0, "y": 0, "z": 0, "w": 1},
//                           "translation": {"x": 0, "y": 0, "z": 0}}}]
//   "input-info": [{"input-file-id": 3, "e57-scan-info": {<a scan info>}}]
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hspc/format/Loggers.h"

namespace HSPC
{

struct ScanInfo
{
    int64_t index = 0;
    // As written, usually 16 numbers of a row-major 4 x 4 matrix; empty when the member had none.
    std::vector<double> matrix;
    // Quaternion x, y, z, w; the identity when the member has no pose.
    std::array<double, 4> rotation{0.0, 0.0, 0.0, 1.0};
    std::array<double, 3> translation{};
};

struct InputInfo
{
    int64_t inputFileId = 0;
    std::optional<ScanInfo> e57ScanInfo;
};

// The members of the "scan-info" and "input-info" arrays of a tree's comment (JSON text). A comment without
// them, or one that is not JSON, has no scans and is no error. A member without "index" (for an input, its
// "e57-scan-info" without one) is reported as "Malformed scan info missing index" on `logError` and left
// out; the others are still read, and the data set stays readable: a broken pose says nothing about the
// points.
std::vector<ScanInfo> parseScanInfos(const std::string& comment, const LogFunction& logError);
std::vector<InputInfo> parseInputInfos(const std::string& comment, const LogFunction& logError);

}  // namespace HSPC
