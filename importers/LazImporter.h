#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "core/Export.h"
#include "importers/las/LasFamilyImporter.h"

namespace pc_preprocess
{

namespace laz
{
class LazReader;
}

// Reads LAZ files, and plain LAS files too, point by point through LASzip; a file is one scan. As with LAS,
// the file's integers and its own scale and offset are the grid the probe proposes. Georeferenced files can
// be carried through PROJ into a run's local frame. The program's own exchange variant, LAZS (see
// LazExporter), is recognised by its header, and its points bring their packed normals along.
//
// Colour and intensity are taken as the 16-bit numbers they are; a format without colour gets its intensity
// as grey. A header that counts more points than the file holds, and a file cut short, end in a "LAZ error"
// at the first point that cannot be read.
class PCP_API LazImporter : public LasFamilyImporter
{
public:
    // Any colour mode: openGroup replaces it by what the file's point format says.
    LazImporter(const std::wstring& path, double scale, const ColorMode& colorMode);
    ~LazImporter() override;

    // The file is compressed, as LASzip reported when it opened it; valid after openGroup.
    bool isZip() const { return m_compressed != 0; }
    // The file is LAZS: a LAS 1.4 file of point format 7 with the normal code in 4 extra bytes, as
    // LazExporter writes it. Valid after openGroup.
    bool lazsFile() const { return m_lazsFile; }

    // A LAZS file brings the normals that LazExporter packed into it: that variant exists so that a round
    // trip through LAZ keeps them. Other files have none. Valid after openGroup, and still after closeGroup.
    bool hasNormals() const override { return m_hasNormals; }
    // True until a batch was read from a file that is not LAZS.
    bool validTandSize() const override { return m_validSize; }
    SupportedAttributes getSupportedAttributes() override;
    void openGroup() override;
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeGroup() override;

private:
    // The real position of the current point, through PROJ into earth-centred coordinates and then through
    // transfo; false when it falls outside the 32-bit grid. index is the point's number, for the message.
    bool reproject(const Discretization& transfo, uint64_t index, IoLightPoint& point);
    void warnOutsideGrid();
    [[noreturn]] void readFailed(size_t pointsOfBatch);

    std::unique_ptr<laz::LazReader> m_reader;
    int m_compressed = 0;
    bool m_hasColor = false;
    bool m_lazsFile = false;
    bool m_validSize = true;
    bool m_warnedOutsideGrid = false;
};

// Writes a report of the header of a LAS or LAZ file, with its VLRs and the coordinate system they give, to
// `out`, one field a line: what `pcprep info FILE.laz` prints. Throws "LAZ error: ..." for a file that LASzip
// cannot open.
PCP_API void laszHeader(const std::wstring& path, std::ostream& out);

}  // namespace pc_preprocess
