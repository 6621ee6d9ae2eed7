// An HSPC data set as the input of a conversion: the converter reads it node by node through the Importer
// operations and has its workers put every point on the grid of the new data set.
//
// A raw batch, as readBatch gives it, is whole records of rawRecordSize() bytes: the data set's records as
// stored, its attributes packed in order, the first the position as a Morton code (M96 or M192) of the cell
// on the data set's grid (real = cell * scale + origin). convertBatch puts them on the target's grid; when
// the target is the data set's own M96 layout, the raw records are already the encoded ones.
//
// Nodes come in tree order, inner nodes with their share of the points as well as the leaves; a node larger
// than a batch goes out over several.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hspc/convert/Importer.h"
#include "hspc/format/Config.h"
#include "hspc/query/NodeReading.h"
#include "hspc/query/ScanInfo.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

class HSPCImporterImpl;
class PointReader;

class HSPCImporter : public ImporterBase
{
public:
    // Opens the data set that config.path names (TreeLocation.h). A failure is reported on the config's error
    // logger and leaves an importer that is not valid and reads nothing.
    explicit HSPCImporter(const ImporterConfig& config);
    ~HSPCImporter() override;

    // A tree was loaded and the records can be made into the encoding attributes.
    bool isValid() const;
    const Tree& tree() const;
    // The stored attributes with the offset and scale that the tree's "attribute-description" gives them.
    const std::vector<EncodingAttribute>& attributeDescription() const;
    const std::vector<ScanInfo>& scanInfos() const;
    const std::vector<InputInfo>& inputInfos() const;
    // Whether the configuration moves the points on their way in (ImporterConfig::transformation).
    bool hasTransform() const;

    // The lod and the corner (in the Morton code's unsigned axes) of every node of tree().
    const std::vector<uint8_t>& nodeLods() const;
    const std::vector<std::array<uint64_t, 3>>& nodeCorners() const;

    // The stored, compressed block of a node of tree(). Safe from any number of threads at once. False with
    // "Node file reading failed for tree=<path> code = <code>" and the reason in `error`.
    bool readNodeBlock(uint32_t nodeIndex, std::vector<uint8_t>& block, std::string& error) const;

    // The raw records of one node, as readBatch gives them, for readers that take the nodes apart over
    // threads of their own. Safe from any number of threads at once, each with its own `reading`. False with
    // the failure message in `error`, as for readNodeBlock.
    bool readNodeRecords(uint32_t nodeIndex, NodeReading& reading, HSPCBuffer<uint8_t>& records,
                         std::string& error) const;

    ReadResult readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) override;
    bool convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const override;

    uint32_t rawRecordSize() const;
    uint32_t encodedRecordSize() const;

private:
    explicit HSPCImporter(std::shared_ptr<HSPCImporterImpl> impl);

    std::shared_ptr<HSPCImporterImpl> m_impl;
    std::unique_ptr<PointReader> m_reader;
};

}  // namespace HSPC
