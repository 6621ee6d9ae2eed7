#include "hspc/query/HSPCImporterImpl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "hspc/convert/SourceDescription.h"
#include "hspc/format/LittleEndian.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/MortonNodeBox.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/format/TrackedMemory.h"
#include "hspc/query/ConcurrentArchive.h"
#include "hspc/store/FolderStore.h"
#include "hspc/tree/TreeGeometry.h"

namespace HSPC
{
namespace
{

constexpr const char* kWho = "HSPCImporterImpl::HSPCImporterImpl: ";
// Cell records, the encoder's input: x, y, z as I64 cells, then the stored values.
constexpr uint32_t kCellPositionSize = 24;

// The cells of a record's code: signed from format version 12 on, unsigned before.
template <typename W>
void putCells(const uint8_t* record, bool signedCells, uint8_t* cells)
{
    MortonIndex3D<W> code;
    std::memcpy(code.words.data(), record, sizeof(code.words));
    std::array<int64_t, 3> cell{};
    if (signedCells)
    {
        const auto decoded = decodeMortonSigned(code);
        cell = {int64_t(decoded[0]), int64_t(decoded[1]), int64_t(decoded[2])};
    }
    else
    {
        const auto decoded = decodeMorton(code);
        cell = {int64_t(decoded[0]), int64_t(decoded[1]), int64_t(decoded[2])};
    }
    std::memcpy(cells, cell.data(), sizeof(cell));
}

// The "attribute-description" entry of an attribute: matched by role, and by name for CUSTOM.
const AttributeDescription* entryOf(const Attribute& attribute, const std::vector<AttributeDescription>& entries)
{
    for (const AttributeDescription& entry : entries)
    {
        const HistogramSpec& named = entry.histogram;
        if (Attribute{named.type, named.role, named.name} == attribute)
        {
            return &entry;
        }
    }
    return nullptr;
}

EncodingAttribute withDescription(const Attribute& attribute, const std::vector<AttributeDescription>& entries)
{
    EncodingAttribute described;
    described.attribute = attribute;
    if (const AttributeDescription* entry = entryOf(attribute, entries))
    {
        described.offset = entry->offset.value_or(0.0);
        described.scale = entry->scale.value_or(1.0);
    }
    return described;
}

// The data set's largest stored value of an attribute, as its statistics say: a colour's depth follows from
// it when the records are encoded again.
std::optional<double> storedMax(const Attribute& attribute, const std::vector<AttributeDescription>& entries)
{
    const AttributeDescription* entry = entryOf(attribute, entries);
    if (entry == nullptr || !entry->histogram.hasMax)
    {
        return std::nullopt;
    }
    return entry->histogram.max;
}

}  // namespace

HSPCImporterImpl::HSPCImporterImpl(const ImporterConfig& config) : m_config(config)
{
    if (!m_config.errorLogger)
    {
        std::fputs("HSPCImporterImpl::HSPCImporterImpl: error logger is not set.\n", stderr);
        return;
    }
    m_valid = open();
    if (!m_valid)
    {
        // What was parsed before the failure is no tree to read.
        m_tree = Tree{};
        m_lods.clear();
        m_corners.clear();
    }
}

bool HSPCImporterImpl::readTreeBytes(std::vector<uint8_t>& bytes)
{
    m_location = locateTree(m_config.path);
    if (m_location.archive)
    {
        auto archive = std::make_unique<ConcurrentArchive>(m_location.container, m_config.errorLogger);
        if (!archive->handler()->isOpen() || !archive->read(m_location.treeName, bytes))
        {
            m_config.errorLogger(std::string(kWho) + "Failed to read from archive: filename=" + m_config.path);
            return false;
        }
        m_reader = std::move(archive);
        return true;
    }
    m_reader = std::make_unique<FolderReader>(m_location.container, m_config.errorLogger);
    if (!m_reader->read(m_location.treeName, bytes))
    {
        m_config.errorLogger(std::string(kWho) + "Failed to read input file: filename=" + m_config.path);
        return false;
    }
    return true;
}

bool HSPCImporterImpl::open()
{
    std::vector<uint8_t> bytes;
    if (!readTreeBytes(bytes))
    {
        return false;
    }
    const std::string fileName = m_reader->location() + m_location.treeName;
    const auto fail = [&](const std::string& reason, const char* what)
    {
        m_config.errorLogger(reason);
        m_config.errorLogger(std::string(kWho) + what + fileName);
        return false;
    };
    // The chunks one by one first, so that the message says which of them is broken.
    FieldReader reader(bytes);
    std::string reason;
    if (!readTreeHeader(reader, m_tree.header, reason))
    {
        return fail(reason, "Failed to extract header info from file: filename=");
    }
    if (!readTreeAttributes(reader, m_tree.attributes, reason))
    {
        return fail(reason, "Failed to extract attributes from file: filename=");
    }
    if (!loadTree(bytes, m_tree, [&](const std::string& text) { reason = text; }) ||
        m_tree.attributes.attributes.empty() || !isMortonType(m_tree.attributes.attributes.front().type))
    {
        return fail(reason.empty() ? "loadTree: the first attribute is not a Morton position" : reason,
                    "Failed to extract tree from file: filename=");
    }
    m_lods = HSPC::nodeLods(m_tree);
    m_corners = HSPC::nodeCorners(m_tree);
    std::vector<AttributeDescription> entries;
    return describeAttributes(fileName, entries) && setUpEncoding(entries);
}

bool HSPCImporterImpl::describeAttributes(const std::string& fileName, std::vector<AttributeDescription>& entries)
{
    std::string reason;
    if (!parseAttributeDescription(m_tree.header.comment, [&](const std::string& text) { reason = text; }, entries))
    {
        if (!reason.empty())
        {
            m_config.errorLogger(reason);
        }
        m_config.errorLogger(std::string(kWho) +
                             "Failed to parse meta information for setting up attributes for file: filename=" +
                             fileName);
        return false;
    }
    for (const Attribute& attribute : m_tree.attributes.attributes)
    {
        m_description.push_back(withDescription(attribute, entries));
    }
    m_scans = parseScanInfos(m_tree.header.comment, m_config.errorLogger);
    m_inputs = parseInputInfos(m_tree.header.comment, m_config.errorLogger);

    const std::vector<Attribute>& stored = attributes();
    const std::vector<uint32_t> offsets = attributeOffsets(stored);
    for (uint32_t i = 0; i < stored.size(); ++i)
    {
        m_rawActions.push_back({i, offsets[i], stored[i].type});
    }
    m_rawRecordSize = recordSize(stored);
    return true;
}

bool HSPCImporterImpl::setUpEncoding(const std::vector<AttributeDescription>& entries)
{
    const TreeHeader& header = m_tree.header;

    // Cell records as the encoder reads them: the cells on the data set's grid, then the stored values.
    SourceDescription source;
    const char* axisNames[] = {"X", "Y", "Z"};
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        source.push_back(makeSourceAttribute(AttributeType::I64, uint8_t(AttributeRole::X + axis),
                                             axisNames[axis], header.scale[axis], header.origin[axis]));
    }
    for (size_t i = 1; i < m_description.size(); ++i)
    {
        const EncodingAttribute& described = m_description[i];
        SourceAttribute value = makeSourceAttribute(described.attribute.type, described.attribute.role,
                                                    described.attribute.name, described.scale, described.offset);
        value.max = storedMax(described.attribute, entries);
        source.push_back(std::move(value));
    }

    EncodingTarget target;
    target.attributes = m_config.encodingAttributes;
    target.origin = m_config.origin;
    target.scale = m_config.scale;
    target.transformation = m_config.transformation;
    target.transformAll = m_config.transformAll;
    if (target.attributes.empty())
    {
        // The data set's own layout and grid, its position as an M96 code whatever width it was stored in.
        target.attributes = m_description;
        target.attributes.front().attribute.type = AttributeType::M96;
        target.origin = header.origin;
        target.scale = header.scale;
    }
    m_targetOrigin = target.origin;
    m_targetScale = target.scale;
    m_keepsCells = !hasTransform() && target.origin == header.origin && target.scale == header.scale &&
                   target.attributes.size() == m_description.size() &&
                   std::equal(m_description.begin() + 1, m_description.end(), target.attributes.begin() + 1,
                              [](const EncodingAttribute& stored, const EncodingAttribute& wanted)
                              {
                                  return stored.attribute == wanted.attribute &&
                                         stored.attribute.type == wanted.attribute.type &&
                                         stored.offset == wanted.offset && stored.scale == wanted.scale;
                              });
    m_encoder.emplace(m_config.errorLogger, std::move(source));
    return m_encoder->setEncodingParameters(target, EncodingFlags{});
}

// The code alone rarely tells a user which node and why, so the reason follows it on the same line.
std::string HSPCImporterImpl::failure(NodeReadCode code, const std::string& reason) const
{
    return "Node file reading failed for tree=" + m_config.path + " code = " + std::to_string(unsigned(code)) +
           ": " + reason;
}

bool HSPCImporterImpl::readNodeBlock(uint32_t nodeIndex, std::vector<uint8_t>& block, std::string& error) const
{
    block.clear();
    if (!m_valid || nodeIndex >= m_tree.nodes.size())
    {
        error = failure(NodeReadCode::kNoSuchNode, "the tree has no node " + std::to_string(nodeIndex));
        return false;
    }
    const std::array<uint64_t, 3>& corner = m_corners[nodeIndex];
    const std::string name = nodeBlobName(m_lods[nodeIndex], corner[0], corner[1], corner[2]);
    if (!m_reader->read(name, block))
    {
        error = failure(NodeReadCode::kMissing, "node " + std::to_string(nodeIndex) + " (" + name +
                                                    ") is missing or cannot be read");
        return false;
    }
    return true;
}

bool HSPCImporterImpl::decodeBlock(const std::vector<uint8_t>& block, NodeHeader& header,
                                   NodeDecompressor& decompressor, uint8_t* records, std::string& error) const
{
    const size_t count = size_t(header.pointCount);
    const NodeOutput output{std::span(records, count * m_rawRecordSize), m_rawRecordSize, m_rawActions};
    std::string reason;
    if (!decompressNodeBlock(block, decompressor, output, header, [&](const std::string& text) { reason = text; }))
    {
        error = reason.empty() ? decompressor.lastError() : reason;
        return false;
    }
    return true;
}

bool HSPCImporterImpl::passesRecordsThrough() const
{
    return m_keepsCells && attributes().front().type == AttributeType::M96;
}

bool HSPCImporterImpl::encodeRecords(const uint8_t* raw, uint64_t pointCount, uint8_t* encoded) const
{
    const uint32_t valueBytes = m_rawRecordSize - typeSize(attributes().front().type);
    if (passesRecordsThrough())
    {
        std::memcpy(encoded, raw, size_t(pointCount * m_rawRecordSize));
        return true;
    }
    // The codes become cells, which the encoder puts on the target grid.
    const uint32_t cellRecordSize = kCellPositionSize + valueBytes;
    HSPCBuffer<uint8_t> cells(size_t(pointCount * cellRecordSize));
    const bool signedCells = m_tree.header.formatVersion >= kFirstSignedCellFormatVersion;
    const bool wide = attributes().front().type == AttributeType::M192;
    const uint32_t codeSize = m_rawRecordSize - valueBytes;
    uint8_t* cell = cells.data();
    for (uint64_t point = 0; point < pointCount; ++point, cell += cellRecordSize)
    {
        const uint8_t* record = raw + point * m_rawRecordSize;
        wide ? putCells<uint64_t>(record, signedCells, cell) : putCells<uint32_t>(record, signedCells, cell);
        std::memcpy(cell + kCellPositionSize, record + codeSize, valueBytes);
    }
    if (!m_keepsCells)
    {
        return m_encoder->encodePoints(cells.data(), pointCount, encoded);
    }
    // Wide codes on the data set's own grid: cells beyond 32 bits keep their low 32 bits, as M96 keeps them.
    const uint32_t encodedSize = m_encoder->targetRecordSize();
    cell = cells.data();
    for (uint64_t point = 0; point < pointCount; ++point, cell += cellRecordSize, encoded += encodedSize)
    {
        const MortonIndex3D<uint32_t> code = encodeMortonSigned<uint32_t>(
            int32_t(little_endian::load<int64_t>(cell)), int32_t(little_endian::load<int64_t>(cell + 8)),
            int32_t(little_endian::load<int64_t>(cell + 16)));
        std::memcpy(encoded, code.words.data(), sizeof(code.words));
        std::memcpy(encoded + sizeof(code.words), cell + kCellPositionSize, valueBytes);
    }
    return true;
}

bool HSPCImporterImpl::readNodeRecords(uint32_t nodeIndex, NodeReading& reading, const RecordRoom& room,
                                       uint64_t& pointCount, std::string& error) const
{
    std::vector<uint8_t>& block = reading.block;
    std::unique_ptr<NodeDecompressor>& decompressor = reading.decompressor;
    pointCount = 0;
    if (!readNodeBlock(nodeIndex, block, error))
    {
        return false;
    }
    NodeHeader header;
    if (readNodeHeader(block, header) == 0)
    {
        error = failure(NodeReadCode::kNotANode, "node " + std::to_string(nodeIndex) + " has no node header");
        return false;
    }
    const std::vector<Attribute>& stored = attributes();
    const bool sameAttributes =
        header.attributes.size() == stored.size() &&
        std::equal(stored.begin(), stored.end(), header.attributes.begin(),
                   [](const Attribute& a, const Attribute& b) { return a == b && a.type == b.type; });
    if (header.lod != m_lods[nodeIndex] || header.node != m_corners[nodeIndex] || !sameAttributes)
    {
        error = failure(NodeReadCode::kDisagrees,
                        "node " + std::to_string(nodeIndex) + " has another lod, place or attributes than the tree");
        return false;
    }
    if (header.pointCount > kLargestNodePoints)
    {
        error = failure(NodeReadCode::kTooLarge, "node " + std::to_string(nodeIndex) + " claims " +
                                                     std::to_string(header.pointCount) + " points, more than " +
                                                     std::to_string(kLargestNodePoints));
        return false;
    }
    if (!decompressor || decompressor->pointLimit() < header.pointCount)
    {
        const uint64_t usual = std::min<uint64_t>(m_tree.header.maxNodeSize, kLargestNodePoints);
        decompressor = NodeDecompressor::create(size_t(std::max<uint64_t>({header.pointCount, usual, 1})));
        if (!decompressor)
        {
            error = failure(NodeReadCode::kCorrupt, "no zstd decompression context");
            return false;
        }
    }
    uint8_t* records = room(header.pointCount);
    std::string reason;
    if (records == nullptr || !decodeBlock(block, header, *decompressor, records, reason))
    {
        error = failure(NodeReadCode::kCorrupt, "node " + std::to_string(nodeIndex) + " does not decode: " +
                                                    (records == nullptr ? "no room for its points" : reason));
        return false;
    }
    pointCount = header.pointCount;
    return true;
}

}  // namespace HSPC
