#include "support/HspcDataSetPoints.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "hspc/format/Attribute.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "scanview/NormalCodes.h"

namespace pcp_test
{

namespace
{

using namespace HSPC;

template <typename T>
void take(const uint8_t* record, uint32_t offset, T& value)
{
    std::memcpy(&value, record + offset, sizeof value);
}

// Copies one decoded attribute into its field of the point, by role (and name for the custom ones).
void assign(const Attribute& attribute, const uint8_t* record, uint32_t offset, DataSetPoint& point)
{
    switch (attribute.role)
    {
    case AttributeRole::POSITION:
    {
        MortonIndex3D<uint32_t> code;
        std::memcpy(code.words.data(), record + offset, 12);
        const auto cell = decodeMortonSigned(code);
        point.cell = {cell[0], cell[1], cell[2]};
        break;
    }
    case AttributeRole::R: take(record, offset, point.r); break;
    case AttributeRole::G: take(record, offset, point.g); break;
    case AttributeRole::B: take(record, offset, point.b); break;
    case AttributeRole::INTENSITY: take(record, offset, point.intensity); break;
    case AttributeRole::CLASSIFICATION: take(record, offset, point.classification); break;
    case AttributeRole::SCAN_INDEX: take(record, offset, point.scanId); break;
    case AttributeRole::CUSTOM:
        if (attribute.name == "TandorelPointSize")
            take(record, offset, point.radius);
        else if (attribute.name == "Normal")
            take(record, offset, point.normal);
        else
            ADD_FAILURE() << "unexpected attribute " << attribute.name;
        break;
    default: ADD_FAILURE() << "unexpected attribute " << attribute.name;
    }
}

}  // namespace

DataSetContent readDataSetPoints(RootReader& reader)
{
    DataSetContent content;
    std::vector<uint8_t> bytes;
    std::string error;
    const LogFunction keep = [&](const std::string& text) { error = text; };
    EXPECT_TRUE(reader.read(kQueryTreeName, bytes)) << "no full tree file in " << reader.location();
    if (!loadTree(bytes, content.tree, keep))
    {
        ADD_FAILURE() << error;
        return content;
    }
    const std::vector<Attribute>& attributes = content.tree.attributes.attributes;
    const std::vector<uint32_t> offsets = attributeOffsets(attributes);
    const uint32_t stride = recordSize(attributes);
    std::vector<OutputAction> actions;
    for (uint32_t i = 0; i < attributes.size(); ++i)
        actions.push_back({i, offsets[i], attributes[i].type});

    const std::vector<std::array<uint64_t, 3>> corners = nodeCorners(content.tree);
    const std::vector<uint8_t> lods = nodeLods(content.tree);
    for (size_t i = 0; i < content.tree.nodes.size(); ++i)
    {
        const TreeNode& node = content.tree.nodes[i];
        std::vector<uint8_t> block;
        if (!reader.read(nodeBlobName(lods[i], corners[i][0], corners[i][1], corners[i][2]), block))
        {
            ADD_FAILURE() << "node " << i << " has no block";
            continue;
        }
        const auto decompressor = NodeDecompressor::create(std::max<uint32_t>(node.pointCount, 1));
        std::vector<uint8_t> records(size_t(node.pointCount) * stride);
        NodeHeader header;
        if (!decompressNodeBlock(block, *decompressor, NodeOutput{records, stride, actions}, header, keep))
        {
            ADD_FAILURE() << "node " << i << ": " << error << decompressor->lastError();
            continue;
        }
        for (uint32_t k = 0; k < node.pointCount; ++k)
        {
            DataSetPoint point;
            for (size_t a = 0; a < attributes.size(); ++a)
                assign(attributes[a], records.data() + size_t(k) * stride, offsets[a], point);
            content.points.push_back(point);
        }
    }
    std::sort(content.points.begin(), content.points.end());
    return content;
}

DataSetContent readDataSetPoints(const std::filesystem::path& folderOrPack)
{
    if (std::filesystem::is_directory(folderOrPack))
    {
        FolderReader reader(folderOrPack.string());
        return readDataSetPoints(reader);
    }
    DiskReadArchive reader(folderOrPack.string());
    return readDataSetPoints(reader);
}

DataSetPoint dataSetPointOf(const pc_preprocess::IoLightPoint& p, const std::vector<Attribute>& attributes)
{
    DataSetPoint d;
    d.cell = {p.x, p.y, p.z};
    for (const Attribute& attribute : attributes)
    {
        switch (attribute.role)
        {
        case AttributeRole::R: d.r = p.r; break;
        case AttributeRole::G: d.g = p.g; break;
        case AttributeRole::B: d.b = p.b; break;
        case AttributeRole::INTENSITY: d.intensity = p.intensity; break;
        case AttributeRole::CLASSIFICATION: d.classification = p.classification; break;
        case AttributeRole::SCAN_INDEX: d.scanId = p.scanId; break;
        case AttributeRole::CUSTOM:
            if (attribute.name == "TandorelPointSize")
                d.radius = p.radius;
            else
                d.normal = pc_preprocess::encodeNormal({p.nx, p.ny, p.nz});
            break;
        default: break;
        }
    }
    return d;
}

void expectSamePointsLessDuplicates(const std::vector<DataSetPoint>& expected, const std::vector<DataSetPoint>& got)
{
    std::multiset<DataSetPoint> pool(expected.begin(), expected.end());
    std::set<std::array<int32_t, 3>> expectedCells;
    for (const DataSetPoint& p : expected)
        expectedCells.insert(p.cell);
    std::set<std::array<int32_t, 3>> gotCells;
    size_t foreign = 0;
    for (const DataSetPoint& p : got)
    {
        gotCells.insert(p.cell);
        const auto found = pool.find(p);
        if (found == pool.end())
            ++foreign;
        else
            pool.erase(found);
    }
    EXPECT_EQ(foreign, 0u) << "points that did not come in";
    EXPECT_EQ(got.size(), gotCells.size()) << "a cell holds two points";
    EXPECT_TRUE(gotCells == expectedCells) << got.size() << " points in " << gotCells.size() << " cells, "
                                           << expectedCells.size() << " cells came in";
}

}  // namespace pcp_test
