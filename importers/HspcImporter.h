#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/Convertor.h"
#include "core/Export.h"
#include "hspc/query/QueryExecutor.h"
#include "hspc/store/RootStore.h"
#include "importers/hspc/HspcRoleLayout.h"
#include "importers/hspc/HspcValues.h"

namespace pc_preprocess
{

// Reads an HSPC data set, named by its "queryTree.hspc" (in the data set's folder) or by its pack archive,
// as one scan. The full tree says which nodes hold points; they are read one after the other, depth first,
// each node's points in one batch or, for a node above the batch size, in several. Positions come back as
// real coordinates and go through the run's grid; colours and intensities are brought to 16 bits by the
// ranges that the first points fix (see HspcColorScaling). The data set's radius ("TandorelPointSize"),
// scan index, class and normals (three components or a packed "Normal" code) are taken where present.
class PCP_API HspcImporter : public Convertor
{
public:
    // Throws "HspcImporter ERROR: inFile needs to be /path/to/queryTree.hspc" for any other path.
    HspcImporter(const std::wstring& path, double scale, const ColorMode& colorMode);
    ~HspcImporter() override;

    // The probe looks at this many points.
    static constexpr uint64_t kProbeSize = 131072;
    // How many valid points of the first node with points fix the colour and intensity ranges. The first
    // node read is the root, whose points are a sample spread over the whole data set, so its points speak for
    // the rest; no node needs to be read twice.
    static constexpr uint64_t kRangeSampleSize = 65536;

    uint64_t probeSize() const override { return kProbeSize; }
    bool isLazs() const override { return false; }
    // The data set holds a usable scanner distance where it stores "TandorelPointSize".
    bool validTandSize() const override { return m_validTandSize; }
    uint64_t nrPointsThisScan() const override { return m_pointCount; }
    // Nodes read and their number.
    int64_t workDone() const override { return static_cast<int64_t>(m_nextNode); }
    int64_t workTotal() const override { return static_cast<int64_t>(m_nodeNames.size()); }
    // A data set keeps no scan positions.
    bool hasScanViews() const override { return false; }
    // Colour and intensity leave the importer on the 16-bit scale.
    ColorMode getColorModeData() const override { return ColorMode(kRgb16Bit, kIntensity16Bit); }
    SupportedAttributes getSupportedAttributes() override { return m_supported; }
    // Loads the full tree ("HspcImporter ERROR: Could not parse " and the path) and lists the nodes.
    void openGroup() override;
    // Scan 0 is the whole data set.
    bool canOpenScan(size_t scan) override;
    bool remainScanData() override;
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeScan() override {}
    void closeGroup() override;

private:
    // Reads and decodes node `nodeID` of the reading order, which must be the next one.
    void openNode(size_t nodeID);
    // Where a node's block lies, for messages.
    std::string nodePath(size_t nodeID) const;
    // The query executor reads blobs through here: a node block whose header can't be read, or whose
    // attributes the role table refuses, is refused with the importer's own message, kept for openNode.
    bool readBlob(const std::string& name, std::vector<uint8_t>& bytes);

    std::unique_ptr<HSPC::RootReader> m_reader;
    HSPC::QueryExecutor m_executor;
    // The tree of node files: blob names in reading order, and the nodes they belong to.
    std::vector<std::string> m_nodeNames;
    std::vector<uint32_t> m_nodeIndices;
    size_t m_nextNode = 0;
    // The records come with x, y and z as real coordinates (F64), then the attributes the importer keeps.
    HspcRoleLayout m_layout;
    std::vector<uint8_t> m_records;
    uint64_t m_nodePoints = 0;
    uint64_t m_nodePosition = 0;
    uint64_t m_pointCount = 0;
    std::string m_blobFailure;
    // The first message of the data set's reader and executor since the group was opened.
    std::string m_libraryMessage;
    HspcColorScaling m_scaling;
    SupportedAttributes m_supported;
    bool m_validTandSize = false;
    bool m_scanOpen = false;
};

}  // namespace pc_preprocess
