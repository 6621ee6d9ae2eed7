#include "importers/HspcImporter.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "core/StringConversion.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "importers/hspc/HspcNodeOrder.h"
#include "scanview/NormalCodes.h"

namespace pc_preprocess
{

namespace
{

namespace Type = HSPC::AttributeType;

// The most points one node may hold; a block or tree claiming more is refused before anything is sized by it.
constexpr uint64_t kLargestNode = 0x800000;
// x, y and z are asked for as doubles: real offsets from the node's corner, exact for both Morton widths.
constexpr uint8_t kPositionType = Type::F64;
constexpr uint8_t kOffsetsAsF64 = 16;

bool endsWith(const std::wstring& text, const std::wstring& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isPackPath(const std::wstring& path)
{
    return toPath(path).extension() == ".pack";
}

std::unique_ptr<HSPC::RootReader> openReader(const std::wstring& path, const HSPC::LogFunction& logError)
{
    const std::filesystem::path file = toPath(path);
    if (isPackPath(path))
        return std::make_unique<HSPC::DiskReadArchive>(file.string(), logError);
    return std::make_unique<HSPC::FolderReader>(file.parent_path().string(), logError);
}

// The decoding of a layout: x, y and z from the position, every other attribute as it is stored.
std::vector<HSPC::OutputAction> actionsFor(const HspcRoleLayout& layout, const std::vector<HSPC::Attribute>& stored)
{
    std::vector<HSPC::OutputAction> actions{{0, 0, kOffsetsAsF64}};
    for (size_t i = 3; i < layout.attributes.size(); ++i)
    {
        const auto source = std::find(stored.begin(), stored.end(), layout.attributes[i]);
        uint32_t offset = 0;
        for (size_t k = 0; k < i; ++k)
            offset += HSPC::typeSize(layout.attributes[k].type);
        actions.push_back({static_cast<uint32_t>(source - stored.begin()), offset, layout.attributes[i].type});
    }
    return actions;
}

// The layout that the attributes a node stores give, by the role table.
HspcRoleLayout layoutOf(const std::vector<HSPC::Attribute>& stored)
{
    std::vector<HSPC::Attribute> requested;
    uint32_t size = 0;
    // Stored attributes that don't start with a Morton position give no coordinates at all.
    if (!HSPC::generateAttributeFormat(kPositionType, stored, requested, size))
        requested.clear();
    return mapHspcRoles(requested, kPositionType);
}

bool sameAttributes(const std::vector<HSPC::Attribute>& a, const std::vector<HSPC::Attribute>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const HSPC::Attribute& x, const HSPC::Attribute& y)
                      { return x == y && x.type == y.type; });
}

// The signed cell of an unsigned decoded Morton coordinate: data sets store cells with the sign bit flipped.
double signedCell(uint64_t coordinate, bool wide)
{
    if (wide)
        return static_cast<double>(static_cast<int64_t>(coordinate ^ (uint64_t(1) << 63)));
    return static_cast<double>(static_cast<int32_t>(static_cast<uint32_t>(coordinate) ^ 0x80000000u));
}

float floatAt(const uint8_t* record, const std::optional<HspcField>& field)
{
    return static_cast<float>(readHspcValue(field->type, record + field->offset));
}

}  // namespace

HspcImporter::HspcImporter(const std::wstring& path, double scale, const ColorMode& colorMode)
    : Convertor(path, scale, colorMode)
{
    if (!endsWith(path, L"queryTree.hspc") && !isPackPath(path))
        throw std::runtime_error("HspcImporter ERROR: inFile needs to be /path/to/queryTree.hspc");
}

HspcImporter::~HspcImporter() = default;

void HspcImporter::openGroup()
{
    const std::string parseError = "HspcImporter ERROR: Could not parse " + ws2s(m_path);
    std::string reason;
    const HSPC::LogFunction keep = [&reason](const std::string& text)
    {
        if (reason.empty())
            reason = text;
    };
    m_reader = openReader(m_path, keep);
    std::vector<uint8_t> bytes;
    if (!m_reader->read(HSPC::kQueryTreeName, bytes))
        throw std::runtime_error(parseError + (reason.empty() ? "" : "\n\t" + reason));
    if (!HSPC::loadTree(bytes, m_tree, keep))
        throw std::runtime_error(parseError + "\n\t" + reason);
    m_layout = layoutOf(m_tree.attributes.attributes);
    m_actions = actionsFor(m_layout, m_tree.attributes.attributes);
    m_scaling = HspcColorScaling(m_layout);

    m_supported = SupportedAttributes{};
    m_supported.radius = m_validTandSize = m_layout.pointSize.has_value();
    m_supported.scanId = m_layout.scanId.has_value();
    m_supported.classification = m_layout.classification.has_value();
    m_supported.color = m_layout.hasColor();
    m_supported.intensity = m_layout.intensity.has_value();
    m_supported.normals = m_layout.hasNormals();

    m_nodeIndices = hspcNodeOrder(m_tree);
    const std::vector<uint8_t> lods = HSPC::nodeLods(m_tree);
    const std::vector<std::array<uint64_t, 3>> corners = HSPC::nodeCorners(m_tree);
    m_nodeNames.clear();
    uint64_t largest = 1;
    for (const uint32_t index : m_nodeIndices)
    {
        m_nodeNames.push_back(HSPC::nodeBlobName(lods[index], corners[index][0], corners[index][1], corners[index][2]));
        largest = std::max<uint64_t>(largest, m_tree.nodes[index].pointCount);
    }
    if (largest > kLargestNode)
        throw std::runtime_error(parseError + "\n\ta node counts " + std::to_string(largest) +
                                 " points, more than the " + std::to_string(kLargestNode) + " a node may hold");
    m_decompressor = HSPC::NodeDecompressor::create(largest);
    if (!m_decompressor)
        throw std::runtime_error(parseError + "\n\tno zstd decompression context");
    m_headerStr = "HSPC data set of " + std::to_string(m_tree.header.pointCount) + " points in " +
                  std::to_string(m_tree.nodes.size()) + " nodes, format version " +
                  std::to_string(m_tree.header.formatVersion);
    m_nextNode = 0;
    m_nodePoints = m_nodePosition = 0;
}

bool HspcImporter::canOpenScan(size_t scan)
{
    if (scan != 0)
        return false;
    m_hasClasses = m_supported.classification;
    m_hasNormals = m_supported.normals;
    m_scanOpen = true;
    return true;
}

bool HspcImporter::remainScanData()
{
    return m_scanOpen && (m_nodePosition < m_nodePoints || m_nextNode < m_nodeNames.size());
}

std::string HspcImporter::nodePath(size_t nodeID) const
{
    return m_reader->location() + m_nodeNames[nodeID];
}

std::array<double, 3> HspcImporter::anchorOf(const HSPC::NodeHeader& header) const
{
    const bool wide = header.attributes.front().type == Type::M192;
    std::array<double, 3> anchor{};
    for (int axis = 0; axis < 3; ++axis)
        anchor[axis] = header.origin[axis] + signedCell(header.node[axis], wide) * header.scale[axis];
    return anchor;
}

void HspcImporter::openNode(size_t nodeID)
{
    if (nodeID != m_nextNode)
        throw std::runtime_error("HspcImporter ERROR: nodeID != m_nextNode");
    if (m_nodePosition < m_nodePoints)
        throw std::runtime_error("HspcImporter ERROR: Cannot open node while still nodes remaining.");
    const std::string path = nodePath(nodeID);
    m_block.clear();
    HSPC::NodeHeader header;
    if (!m_reader->read(m_nodeNames[nodeID], m_block) || HSPC::readNodeHeader(m_block, header) == 0 ||
        header.attributes.empty())
        throw std::runtime_error("HspcImporter ERRROR: Failed to read header from " + path);

    const std::string decompressError = "HspcImporter ERROR: Could not decompress " + path;
    if (!sameAttributes(header.attributes, m_tree.attributes.attributes))
    {
        // The role table speaks first: a node lacking coordinates or with a mistyped custom role says so.
        layoutOf(header.attributes);
        throw std::runtime_error(decompressError + "\n\tits attributes differ from those of the tree");
    }
    const uint64_t expected = m_tree.nodes[m_nodeIndices[nodeID]].pointCount;
    if (header.pointCount != expected)
        throw std::runtime_error(decompressError + "\n\tit holds " + std::to_string(header.pointCount) +
                                 " points, but the tree says " + std::to_string(expected));
    m_records.resize(expected * m_layout.recordSize);
    std::string reason;
    const HSPC::NodeOutput output{m_records, m_layout.recordSize, m_actions};
    if (!HSPC::decompressNodeBlock(m_block, *m_decompressor, output, header,
                                   [&reason](const std::string& text) { reason = text; }))
        throw std::runtime_error(decompressError + "\n\t" + (reason.empty() ? m_decompressor->lastError() : reason));
    if (!m_scaling.isFixed())
        m_scaling.fix(m_records.data(), std::min(expected, kRangeSampleSize));
    m_anchor = anchorOf(header);
    m_nodePoints = expected;
    m_nodePosition = 0;
    ++m_nextNode;
}

void HspcImporter::processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool /*probing*/)
{
    batch.clear();
    // Positions go through the grid axis by axis.
    if (!transfo.isDiagonal)
        throw std::runtime_error("HspcImporter ERROR: Discretization should be diagonal.");
    if (m_nodePosition == m_nodePoints)
    {
        if (m_nextNode == m_nodeNames.size())
            return;
        openNode(m_nextNode);
    }
    const uint64_t end = std::min<uint64_t>(m_nodePoints, m_nodePosition + kBatchSize);
    const HspcRoleLayout& layout = m_layout;
    for (; m_nodePosition < end; ++m_nodePosition)
    {
        const uint8_t* record = m_records.data() + m_nodePosition * layout.recordSize;
        double offsets[3];
        std::memcpy(offsets, record, sizeof offsets);
        IoLightPoint point;
        // Applying the grid to the real position, which transfo maps onto the cache's integers.
        if (!transfo.apply(m_anchor[0] + offsets[0], m_anchor[1] + offsets[1], m_anchor[2] + offsets[2], point.x,
                           point.y, point.z))
            continue;
        point.radius = layout.pointSize ? floatAt(record, layout.pointSize) : 0.0f;
        point.r = point.g = point.b = 0;
        if (layout.hasColor())
            m_scaling.color(record, point.r, point.g, point.b);
        if (layout.intensity)
            point.intensity = m_scaling.intensity(record);
        if (layout.classification)
            point.classification = static_cast<uint8_t>(readHspcValue(layout.classification->type,
                                                                      record + layout.classification->offset));
        if (layout.scanId)
            point.scanId = static_cast<uint16_t>(readHspcValue(layout.scanId->type, record + layout.scanId->offset));
        if (layout.normal)
        {
            const geom::Vector3d normal = decodeNormal(record + layout.normal->offset);
            point.nx = static_cast<float>(normal.x);
            point.ny = static_cast<float>(normal.y);
            point.nz = static_cast<float>(normal.z);
        }
        else if (layout.hasNormals())
        {
            point.nx = floatAt(record, layout.normalX);
            point.ny = floatAt(record, layout.normalY);
            point.nz = floatAt(record, layout.normalZ);
        }
        m_extents.extend(point);
        m_colorRange.updateAll(point.r, point.g, point.b, point.intensity);
        batch.push_back(point);
    }
}

void HspcImporter::closeGroup()
{
    m_nodeNames.clear();
    m_nodeIndices.clear();
    m_nextNode = 0;
    m_nodePoints = m_nodePosition = 0;
    m_scanOpen = false;
}

}  // namespace pc_preprocess
