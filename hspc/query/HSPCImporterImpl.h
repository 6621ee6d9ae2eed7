// The work behind HSPCImporter: opening a data set from a folder or an archive, its tree and what the tree's
// comment says about attributes and scans, and the reading of one node into raw records. Everything here is
// fixed at construction; the reading functions only read the importer, so any number of threads may call
// them at once.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hspc/convert/EncodingImporterHelper.h"
#include "hspc/format/AttributeDescription.h"
#include "hspc/format/Config.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/query/NodeReading.h"
#include "hspc/query/ScanInfo.h"
#include "hspc/query/TreeLocation.h"
#include "hspc/store/RootStore.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

// Why a node could not be read; the number is the code of the failure message.
enum class NodeReadCode : uint8_t
{
    kNoSuchNode = 1,  // the index names no node of the tree
    kMissing = 2,     // the node's blob is missing, empty or could not be read
    kNotANode = 3,    // the blob does not start with a node header
    kDisagrees = 4,   // the node's header disagrees with the tree (lod, place, attributes)
    kTooLarge = 5,    // the node claims more points than any node may hold
    kCorrupt = 6,     // the payload does not decode
};

// The most points a node may hold; no node is decoded into more room than this.
inline constexpr uint64_t kLargestNodePoints = 0x800000;

// Gives room for `pointCount` raw records of a node about to be decoded.
using RecordRoom = std::function<uint8_t*(uint64_t pointCount)>;

class HSPCImporterImpl
{
public:
    explicit HSPCImporterImpl(const ImporterConfig& config);

    bool isValid() const { return m_valid; }
    const ImporterConfig& config() const { return m_config; }
    bool hasTransform() const { return bool(m_config.transformation) || bool(m_config.transformAll); }
    const Tree& tree() const { return m_tree; }
    const std::vector<Attribute>& attributes() const { return m_tree.attributes.attributes; }
    const std::vector<EncodingAttribute>& attributeDescription() const { return m_description; }
    const std::vector<ScanInfo>& scanInfos() const { return m_scans; }
    const std::vector<InputInfo>& inputInfos() const { return m_inputs; }
    const std::vector<uint8_t>& nodeLods() const { return m_lods; }
    const std::vector<std::array<uint64_t, 3>>& nodeCorners() const { return m_corners; }
    // The grid of the converted records.
    const std::array<double, 3>& targetOrigin() const { return m_targetOrigin; }
    const std::array<double, 3>& targetScale() const { return m_targetScale; }
    uint32_t rawRecordSize() const { return m_rawRecordSize; }
    uint32_t encodedRecordSize() const { return m_encoder->targetRecordSize(); }

    // The node's stored block into `block`. On failure `error` holds the failure message with the reason.
    bool readNodeBlock(uint32_t nodeIndex, std::vector<uint8_t>& block, std::string& error) const;
    // Reads the node's block and decodes it into raw records in the room `room` gives, `pointCount` of
    // them. The decompressor of `reading` is made or grown here as the node needs.
    bool readNodeRecords(uint32_t nodeIndex, NodeReading& reading, const RecordRoom& room, uint64_t& pointCount,
                         std::string& error) const;
    // Whether encoded records are the raw records unchanged: the target is the data set's own M96 layout.
    bool passesRecordsThrough() const;
    // Encodes `pointCount` raw records into `encoded`, which holds room for them.
    bool encodeRecords(const uint8_t* raw, uint64_t pointCount, uint8_t* encoded) const;

private:
    bool open();
    bool readTreeBytes(std::vector<uint8_t>& bytes);
    bool describeAttributes(const std::string& fileName, std::vector<AttributeDescription>& entries);
    bool setUpEncoding(const std::vector<AttributeDescription>& entries);
    std::string failure(NodeReadCode code, const std::string& reason) const;
    bool decodeBlock(const std::vector<uint8_t>& block, NodeHeader& header, NodeDecompressor& decompressor,
                     uint8_t* records, std::string& error) const;

    ImporterConfig m_config;
    TreeLocation m_location;
    std::unique_ptr<RootReader> m_reader;
    Tree m_tree;
    std::vector<uint8_t> m_lods;
    std::vector<std::array<uint64_t, 3>> m_corners;
    std::vector<EncodingAttribute> m_description;
    std::vector<ScanInfo> m_scans;
    std::vector<InputInfo> m_inputs;
    // How a node is decoded into raw records: every attribute as stored, the position as its Morton code.
    std::vector<OutputAction> m_rawActions;
    uint32_t m_rawRecordSize = 0;
    std::array<double, 3> m_targetOrigin{};
    std::array<double, 3> m_targetScale{1.0, 1.0, 1.0};
    std::optional<EncodingImporterHelper> m_encoder;
    // The target is the data set's own grid and attributes: a record keeps its cell and its values, with no
    // detour over real coordinates.
    bool m_keepsCells = false;
    bool m_valid = false;
};

}  // namespace HSPC
