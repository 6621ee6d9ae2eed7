#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "geom/Point3d.h"

// One surface over both forms of a node for the tree code and the exporters. Every function takes the node's
// name with the extension ".pnt", whatever form is on disk: readers take the PNT when it exists and the PNZ
// of the same stem otherwise; writers write the chosen form and remove the other one.
namespace pc_disk
{

PCP_API std::pair<pc_preprocess::IoTransfo, std::vector<pc_preprocess::IoLightPoint>> readNode(
    const std::wstring& pnt);

// Separate arrays in real coordinates, sized by the caller; radii hold the raw radius values.
PCP_API void readNode(const std::wstring& pnt, pc_preprocess::IoTransfo& transfo,
                      std::vector<geom::Point3d>& points, std::vector<float>& colours,
                      std::vector<float>& intensities, std::vector<float>& radii);

// Calls the function for every point in file order; a PNZ is read whole first, a PNT streams.
PCP_API void runNode(const std::wstring& pnt,
                     const std::function<void(const pc_preprocess::IoLightPoint&)>& function);

// Write the node as PNZ when compressed, else as PNT, remove a file of the other form, and return the size of
// the written file.
PCP_API uint64_t overwriteNode(const std::wstring& pnt, const pc_preprocess::IoTransfo& transfo,
                               const std::vector<pc_preprocess::IoLightPoint>& points, bool compressed);
PCP_API uint64_t overwriteNode(const std::wstring& pnt, const pc_preprocess::IoTransfo& transfo,
                               const std::vector<geom::Point3d>& points, const std::vector<float>& colours,
                               const std::vector<float>& intensities, const std::vector<float>& radii,
                               bool compressed);

// Appends to an existing PNT; a compressed node cannot grow.
PCP_API void appendNode(const std::wstring& pnt, const std::vector<pc_preprocess::IoLightPoint>& points);

}  // namespace pc_disk
