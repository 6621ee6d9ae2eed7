#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/ScanFiles.h"

namespace pc_preprocess
{

// The VRP file: where each scan stood, how it was turned, and its panorama pictures, for the host's bubble
// view. One compact JSON object:
//
//   {"staticscans":[bubble, ...],   one per scan that has a meta file
//    "waypoints":[bubble, ...]}     one per 2D image that has a picture, scan by scan
//
//   bubble   {"name":        a scan: the UTF-8 path of its point file; an image: the stem of its picture
//             "scannerposition": [x, y, z]
//             "rotationmatrix":  [9 doubles, column-major]
//             "data":        [picture]   only with a panorama picture and a width in the meta file
//             "normals":     [picture]   the same for the normal picture}
//   picture  {"file": path relative to the VRP's folder, "w": width, "h": width / 2, "maxdist": double}
//
// Position, matrix, width and distance come from the meta file of the scan or image; without a panorama they
// hold the meta file's marks (the largest double), which is how the host tells such a scan.

struct BubblePicture
{
    std::wstring file;  // relative to the VRP's folder
    uint64_t width = 0;
    uint64_t height = 0;
    double maxDistance = 0.0;
};

struct Bubble
{
    std::wstring name;
    std::array<double, 3> scannerPosition{};
    std::array<double, 9> rotationMatrix{};
    std::optional<BubblePicture> data;
    std::optional<BubblePicture> normals;
};

struct BubbleFile
{
    std::vector<Bubble> staticScans;
    std::vector<Bubble> waypoints;
};

// Writes the VRP for the scans of a run; reads each scan's and image's meta file. Throws
// "Expected *.vrp filename; received <path>\n", "Cannot convert path <folder>", the errors of readMetaFile
// and "bubbleJson : Could not (fully) write <path>\nDisk full?".
PCP_API void bubbleJson(const std::vector<ScanFiles>& scans, const std::wstring& vrpPath);

// Reads a VRP back. Throws "readBubbleJson : Could not read <path> (<reason>)", and
// "readBubbleJson : <path> is not a JSON file: <reason>" or "... is not a VRP file: <reason>".
PCP_API BubbleFile readBubbleJson(const std::wstring& vrpPath);

}  // namespace pc_preprocess
