#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/Convertor.h"
#include "core/Export.h"
#include "importers/pts/ColumnLayout.h"
#include "importers/pts/LineSplitter.h"
#include "importers/text/FileSource.h"
#include "importers/text/NumberLine.h"

namespace pc_preprocess
{

// Reads PTS files: text with one point a line, whose columns are named by a format string ("XYZIRGB", with
// "." for a column to skip) or detected from the first line of three or more tokens. Lines that are not
// points, such as the usual point count at the top or comments, are passed over without a message.
class PCP_API PtsImporter : public Convertor
{
public:
    // A delimiter is a regular expression fragment matching one delimiter; this one is white space. Callers
    // that were given no delimiter use it.
    static constexpr std::string_view kDefaultDelimiter = "\\s";

    struct Settings
    {
        // Empty: detect from the data.
        std::string columnFormat;
        // Detection and previews split at runs of it; data lines are separated by its first character, or by
        // white space when it starts with a backslash. Empty means kDefaultDelimiter.
        std::string delimiter{kDefaultDelimiter};
        // Where a line ends for detection and previews; empty for none.
        std::string commentMarker;
        // Settle the columns in the constructor; an object that only answers preview questions skips it.
        bool determineFormat = true;
    };

    // Throws for a bad format string, for a file whose format cannot be detected, and for what the base
    // class refuses.
    PtsImporter(const std::wstring& path, double scale, const ColorMode& colorMode, const Settings& settings);

    // The format string; after detection the detected one.
    const std::string& getColumnFormat() const { return m_settings.columnFormat; }
    // Whether a line among the first 20 splits into at least 3 tokens at this delimiter. An invalid
    // expression or an unreadable file gives false.
    bool checkIfPossibleDelimiter(const std::string& delimiter);
    // The tokens of up to 50 lines of at least 3 tokens each, split with the importer's settings; false when
    // there are none or the file cannot be read.
    bool getPreviewData(std::vector<std::vector<std::string>>& rows);

    // The probe looks at this many points, and the intensity errors name it.
    static constexpr uint64_t kProbeSize = 131072;

    uint64_t probeSize() const override { return kProbeSize; }
    bool isLazs() const override { return false; }
    bool validTandSize() const override { return false; }
    int64_t workDone() const override { return static_cast<int64_t>(m_workDone); }
    bool hasScanViews() const override { return false; }
    ColorMode getColorModeData() const override { return m_colorRange.colorMode(); }
    SupportedAttributes getSupportedAttributes() override;
    void openGroup() override;
    // A PTS file is one scan.
    bool canOpenScan(size_t scan) override { return scan == 0; }
    bool remainScanData() override;
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeScan() override {}
    void closeGroup() override;

private:
    // Settles the columns from the format string, or from the data when there is none.
    void determineFormat();
    void detectFormat();
    void useLayout(const ColumnLayout& layout);
    // A splitter for detection; an invalid delimiter is reported as a PTS error.
    LineSplitter makeSplitter(const std::string& delimiter, const std::string& commentMarker) const;
    void openSource();
    // Appends the point of one line, or nothing for a line that holds no point.
    void addLine(const char* begin, const char* end, std::vector<IoLightPoint>& batch,
                 const Discretization& transfo, bool probing);
    // Colour and intensity on the 16-bit scale by the caller's colour mode; throws for values outside it.
    void scaleValues(double intensity, const double (&rgb)[3], IoLightPoint& point) const;
    // Notes once per file that points beyond the cache's integer range were left out.
    void warnOutsideGrid();
    // The exception for a failure, in the one form all PTS errors share; withLine adds the current line.
    std::runtime_error error(const std::string& text, bool withLine) const;

    Settings m_settings;
    FileSource m_source;
    uint64_t m_workDone = 0;
    ColumnLayout m_layout;
    NumberLine m_numberLine;
    // The numbers of the current line, one per column that matters.
    std::vector<double> m_values;
    bool m_warnedOutsideGrid = false;
};

}  // namespace pc_preprocess
