#include "importers/HspcImporter.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "core/StringConversion.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"
#include "importers/hspc/HspcNodeOrder.h"

namespace pc_preprocess
{

namespace
{

namespace Type = HSPC::AttributeType;

// x, y and z are asked for as real coordinates, whatever the Morton width of the data set.
constexpr uint8_t kPositionType = Type::F64;

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
                      [](const HSPC::Attribute& x, const HSPC::Attribute& y) { return x == y && x.type == y.type; });
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
    // The reader and the executor keep their loggers for later reads: they report into the object.
    m_libraryMessage.clear();
    const HSPC::LogFunction keep = [this](const std::string& text)
    {
        if (m_libraryMessage.empty())
            m_libraryMessage = text;
    };
    const std::string& reason = m_libraryMessage;
    m_reader = openReader(m_path, keep);
    HSPC::QueryConfig config;
    config.path = toPath(m_path).string();
    config.readBlob = [this](const std::string& name, std::vector<uint8_t>& bytes) { return readBlob(name, bytes); };
    config.infoLogger = [](const std::string&) {};
    config.warningLogger = keep;
    config.errorLogger = keep;
    HSPC::DataSetInfo info;
    if (!HSPC::openQueryExecutor(m_executor, config, true) || !m_executor.getInfo(kPositionType, info))
        throw std::runtime_error(parseError + (reason.empty() ? "" : "\n\t" + reason));
    m_layout = mapHspcRoles(info.attributes, kPositionType);
    if (!m_executor.updateAttributeLayout(m_layout.attributes))
        throw std::runtime_error(parseError + "\n\t" + reason);
    // What the executor delivers must be what the role table asked for.
    m_layout = mapHspcRoles(m_executor.attributeLayout(), kPositionType);
    m_scaling = HspcColorScaling(m_layout);
    m_pointCount = info.pointCount;

    m_supported = SupportedAttributes{};
    m_supported.radius = m_validTandSize = m_layout.pointSize.has_value();
    m_supported.scanId = m_layout.scanId.has_value();
    m_supported.classification = m_layout.classification.has_value();
    m_supported.color = m_layout.hasColor();
    m_supported.intensity = m_layout.intensity.has_value();
    m_supported.normals = m_layout.hasNormals();

    const HSPC::Tree& tree = m_executor.tree();
    m_nodeIndices = hspcNodeOrder(tree);
    const std::vector<uint8_t> lods = HSPC::nodeLods(tree);
    const std::vector<std::array<uint64_t, 3>> corners = HSPC::nodeCorners(tree);
    m_nodeNames.clear();
    for (const uint32_t index : m_nodeIndices)
        m_nodeNames.push_back(HSPC::nodeBlobName(lods[index], corners[index][0], corners[index][1], corners[index][2]));
    m_headerStr = "HSPC data set of " + std::to_string(info.pointCount) + " points in " +
                  std::to_string(tree.nodes.size()) + " nodes, format version " + std::to_string(info.formatVersion);
    m_nextNode = 0;
    m_nodePoints = m_nodePosition = 0;
}

bool HspcImporter::readBlob(const std::string& name, std::vector<uint8_t>& bytes)
{
    bytes.clear();
    const bool read = m_reader->read(name, bytes);
    if (name == HSPC::kQueryTreeName)
        return read;
    // A block that is missing or cut short has no header to read.
    HSPC::NodeHeader header;
    if (!read || HSPC::readNodeHeader(bytes, header) == 0 || header.attributes.empty())
    {
        m_blobFailure = "HspcImporter ERRROR: Failed to read header from " + m_reader->location() + name;
        return false;
    }
    if (sameAttributes(header.attributes, m_executor.tree().attributes.attributes))
        return true;
    // The role table speaks first: a node lacking coordinates or with a mistyped custom role says so.
    try
    {
        layoutOf(header.attributes);
        m_blobFailure = "HspcImporter ERROR: Could not decompress " + m_reader->location() + name +
                        "\n\tits attributes differ from those of the tree";
    }
    catch (const std::exception& e)
    {
        m_blobFailure = e.what();
    }
    return false;
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

void HspcImporter::openNode(size_t nodeID)
{
    if (nodeID != m_nextNode)
        throw std::runtime_error("HspcImporter ERROR: nodeID != m_nextNode");
    if (m_nodePosition < m_nodePoints)
        throw std::runtime_error("HspcImporter ERROR: Cannot open node while still nodes remaining.");
    m_blobFailure.clear();
    std::string reason;
    uint64_t count = 0;
    if (!m_executor.readNode(m_nodeIndices[nodeID], m_records, count, reason))
    {
        if (!m_blobFailure.empty())
            throw std::runtime_error(m_blobFailure);
        throw std::runtime_error("HspcImporter ERROR: Could not decompress " + nodePath(nodeID) + "\n\t" + reason);
    }
    if (!m_scaling.isFixed())
        m_scaling.fix(m_records.data(), std::min(count, kRangeSampleSize));
    m_nodePoints = count;
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
    for (; m_nodePosition < end; ++m_nodePosition)
    {
        const uint8_t* record = m_records.data() + m_nodePosition * m_layout.recordSize;
        const HspcPointValues values = readHspcPoint(record, m_layout, m_scaling);
        IoLightPoint point;
        // A point that doesn't fit the cache's 32-bit grid is left out.
        if (!transfo.apply(values.position[0], values.position[1], values.position[2], point.x, point.y, point.z))
            continue;
        point.radius = values.radius;
        point.r = values.r;
        point.g = values.g;
        point.b = values.b;
        point.intensity = values.intensity;
        point.classification = values.classification;
        point.scanId = values.scanId;
        point.nx = values.normal[0];
        point.ny = values.normal[1];
        point.nz = values.normal[2];
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
