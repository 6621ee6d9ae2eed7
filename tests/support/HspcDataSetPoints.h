// Every point of a data set that a conversion wrote, read back the way a reader of the format does: the full
// tree file through loadTree, then each node's block through decompressNodeBlock, every attribute of the
// tree's list decoded.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"
#include "core/SupportedAttributes.h"
#include "hspc/format/Attribute.h"
#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace pcp_test
{

// The grid the HSPC export tests write on: millimetres around (100, 200, 10).
inline pc_preprocess::IoTransfo millimetreGrid()
{
    pc_preprocess::IoTransfo grid;
    grid.offset = {100.0, 200.0, 10.0};
    grid.scale = {0.001, 0.001, 0.001};
    return grid;
}

// Every optional field an exported point may carry.
inline pc_preprocess::SupportedAttributes allAttributes()
{
    pc_preprocess::SupportedAttributes all;
    all.radius = all.scanId = all.classification = all.color = all.intensity = all.normals = true;
    return all;
}

// A point with the attributes the library's HSPC exporter writes; those the data set lacks stay 0.
struct DataSetPoint
{
    std::array<int32_t, 3> cell{};
    float radius = 0.0f;
    uint16_t r = 0;
    uint16_t g = 0;
    uint16_t b = 0;
    uint16_t intensity = 0;
    uint8_t classification = 0;
    uint16_t scanId = 0;
    uint16_t normal = 0;
    friend auto operator<=>(const DataSetPoint&, const DataSetPoint&) = default;
};

struct DataSetContent
{
    HSPC::Tree tree;
    std::vector<DataSetPoint> points;  // sorted
};

// Reads the data set of `reader`; a failure to read or decode is a test failure with the node named.
DataSetContent readDataSetPoints(HSPC::RootReader& reader);
// The same for a folder that holds the tree files, or a pack archive.
DataSetContent readDataSetPoints(const std::filesystem::path& folderOrPack);

// The point of a node or scan file as a data set of the library's HSPC exporter on the file's grid holds it,
// with the fields that `attributes` (the data set's list) lacks left 0.
DataSetPoint dataSetPointOf(const pc_preprocess::IoLightPoint& point, const std::vector<HSPC::Attribute>& attributes);

// The data set holds one point of each cell of `expected`, and each point it holds is one of `expected`: the
// points that came in less the duplicates that the converter drops.
void expectSamePointsLessDuplicates(const std::vector<DataSetPoint>& expected, const std::vector<DataSetPoint>& got);

}  // namespace pcp_test
