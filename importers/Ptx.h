#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/Convertor.h"
#include "core/Export.h"
#include "importers/text/FileSource.h"

namespace pc_preprocess
{

// Reads PTX files: text holding one or more structured scans one after the other, each a ten-line header
// with the grid's size and the scan's pose (see ptx/ScanHeader.h), then one line per cell of the grid. Each
// scan lands in the world through its own pose. Lines hold "x y z I" or "x y z I r g b", the first point
// line of the file deciding which; cells without a return ("0 0 0 ...") are counted but give no point.
//
// Intensities are on [0, 1]; larger ones are clamped to 1 with one warning per file. Colour is 8-bit unless
// the run reads the file in 16-bit mode. The file is read through a moving mapped window, so memory stays
// flat whatever its size, and nothing is sized by the header's numbers.
class PCP_API Ptx : public Convertor
{
public:
    Ptx(const std::wstring& path, double scale, const ColorMode& colorMode);

    // The probe looks at this many points, and the 8-bit colour failure names it.
    static constexpr uint64_t kProbeSize = 131072;

    uint64_t probeSize() const override { return kProbeSize; }
    bool isLazs() const override { return false; }
    bool validTandSize() const override { return false; }
    // The cells of the current scan's grid, missing returns included.
    uint64_t nrPointsThisScan() const override { return m_nrPointsScan; }
    // Bytes of the file used up.
    int64_t workDone() const override { return static_cast<int64_t>(m_workDone); }
    // A PTX scan is a structured scan from one position.
    bool hasScanViews() const override { return true; }
    ColorMode getColorModeData() const override { return m_colorRange.colorMode(); }
    // Intensity always; colour when the file's point lines have seven columns.
    SupportedAttributes getSupportedAttributes() override;
    // Fails with "Could not open file." for a file that cannot be opened or is empty.
    void openGroup() override;
    // Reads the next scan's header and takes its pose; false at the end of the file. Lines the previous scan
    // did not hand out are passed over first.
    bool canOpenScan(size_t scan) override;
    bool remainScanData() override { return m_pointsRemaining > 0 && m_source.isOpen(); }
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeScan() override {}
    void closeGroup() override;

private:
    static constexpr uint64_t kNoLine = ~uint64_t{0};

    // Appends the point of one line, or nothing for a missing return.
    void addLine(const char* begin, const char* end, std::vector<IoLightPoint>& batch,
                 const Discretization& transfo, bool probing);
    void skipRestOfScan();
    // The largest colour channel a line may hold in this pass.
    double channelLimit(bool probing) const;
    // Why a point line cannot be read, with the line.
    std::string formatText(const char* begin, const char* end) const;
    // Intensities above 1 are clamped; the first one of the file is noted.
    void warnBrightIntensity(const char* begin, const char* end);
    void warnOutsideGrid();
    // The file position, or its size once the file is read to the end.
    uint64_t position() const;
    // The number of the line that the next read hands out, which is the one at fault when there is none.
    uint64_t nextLineNumber() const { return m_source.linesRead() + 1; }
    // The exception for a failure, in the one form all PTX errors share; `line` is left out when kNoLine.
    std::runtime_error error(const std::string& text, uint64_t line) const;

    FileSource m_source;
    uint64_t m_workDone = 0;
    // 4 or 7 once the first point line of the file is read; 0 before.
    size_t m_nrColumnsInLine = 0;
    uint64_t m_nrPointsScan = 0;
    uint64_t m_pointsRemaining = 0;
    size_t m_scanIndex = 0;
    bool m_warnedIntensity = false;
    bool m_warnedOutsideGrid = false;
};

}  // namespace pc_preprocess
