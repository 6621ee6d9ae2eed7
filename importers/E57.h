#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/Convertor.h"
#include "core/Export.h"
#include "core/InputFileData.h"
#include "importers/e57/Extensions.h"
#include "importers/e57/ImageRecords.h"

namespace e57
{
class CompressedVectorReader;
class E57Exception;
class ImageFile;
class Node;
}  // namespace e57

namespace pc_preprocess
{

// Reads E57 files: many scans per file, each with its own pose, coordinates cartesian or spherical, colour
// and intensity brought to 16 bits through the limits the file declares, normals and classes where the scan
// has them, and camera images that are written beside the panoramas and painted into them. Points are read
// through fixed buffers of 65536 records per scan.
//
// A camera image that cannot be used (a picture too large or broken, a folder that cannot be made, a
// malformed number in its description) is left out with a warning naming the file, the scan and the image;
// the scan's points and its other images go on.
class PCP_API E57 : public Convertor
{
public:
    // The colour mode must be 16-bit colour and 16-bit intensity: E57 limits map every file onto that scale.
    E57(const std::wstring& path, double scale, const ColorMode& colorMode);
    ~E57() override;

    // Colour ranges come from the file's header, so a probe needs no points.
    uint64_t probeSize() const override { return 1; }
    bool isLazs() const override { return false; }
    bool validTandSize() const override { return false; }
    uint64_t nrPointsThisScan() const override { return m_nrPointsScan; }
    // An estimate of the file position, from the scans and the points read.
    int64_t workDone() const override { return static_cast<int64_t>(m_workDone); }
    // More than one scan, or a single one with a row or column index, is a structured scan.
    bool hasScanViews() const override;
    ColorMode getColorModeData() const override { return ColorMode(kRgb16Bit, kIntensity16Bit); }
    SupportedAttributes getSupportedAttributes() override;
    void openGroup() override;
    bool canOpenScan(size_t scan) override;
    bool remainScanData() override { return m_pointsRemaining > 0; }
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeScan() override;
    void closeGroup() override;
    uint64_t numImagesForScan(size_t scan) const override;
    std::array<double, 3> imageScanPosition(size_t scan, size_t image) override;
    void updateScanView2DImages(std::shared_ptr<ScanView> view, const std::array<double, 3>& position,
                                const IoTransfo& transfo, size_t scan, size_t image) override;

    // Camera pictures whose header declares more pixels than this are left out with a warning, before
    // anything is decoded; InputFileData::maxImagePixels sets it for a run.
    void setMaxImagePixels(uint64_t pixels) { m_maxImagePixels = pixels; }
    uint64_t maxImagePixels() const { return m_maxImagePixels; }

    // The number of scans of the open file, a device trajectory left out.
    uint64_t nrScans() const { return m_nrScans; }
    const std::string& formatName() const { return m_formatName; }
    const std::string& guid() const { return m_guid; }
    uint64_t pointsDelivered() const { return m_pointsDelivered; }
    uint64_t pointsSkipped() const { return m_pointsSkipped; }

private:
    static constexpr uint64_t kNoScan = ~uint64_t{0};

    // The buffers the reader fills, 65536 records each; those of absent fields stay empty.
    struct Buffers
    {
        std::array<std::vector<double>, 3> coordinates;
        std::array<std::vector<double>, 3> normals;
        std::vector<uint8_t> invalidState;
        std::vector<uint8_t> intensityInvalid;
        std::vector<uint8_t> colorInvalid;
        std::vector<uint8_t> classification;
        std::vector<double> intensity;
        std::array<std::vector<double>, 3> color;
    };

    void parseHeader(const e57::Node& scan, const e57::Node& prototype);
    void prepareBuffers(const e57::Node& points, const e57::Node& prototype);
    void extract2DImages(const e57::Node& scan);
    ImageRecord imageRecord(const e57::Node& image, size_t index) const;
    // Paints the picture in slices of at most a batch of points, in pixel order, so that a later image still
    // paints over an earlier one. Throws ImageRefused, or OpenCV's and the allocator's exceptions.
    void updateScanViewWithImage(ScanView& view, const ImageRecord& image,
                                 const std::array<double, 3>& position, const IoTransfo& transfo) const;
    // The warning for an image that is left out.
    void warnImageLeftOut(size_t scan, size_t image, const std::string& name, const std::string& reason);
    // Whether the record's colour and intensity are usable, and their 16-bit values; out-of-range values
    // raise the warning flags.
    void fillColour(size_t record, IoLightPoint& point);
    double filePos() const;
    // The exception for a failure, in the one form all E57 errors share.
    std::runtime_error error(const std::string& text) const;
    std::runtime_error error(const e57::E57Exception& e) const;

    std::string m_formatName;
    std::string m_guid;
    std::string m_e57LibraryVersion;
    std::string m_coordinateMetadata;
    int32_t m_versionMajor = 0;
    int32_t m_versionMinor = 0;
    uint64_t m_nrScans = 0;
    uint64_t m_pointsDelivered = 0;
    uint64_t m_pointsSkipped = 0;
    uint64_t m_workDone = 0;
    std::unique_ptr<e57::ImageFile> m_file;
    ExtensionFields m_extensions;
    uint64_t m_scanIndex = kNoScan;
    uint64_t m_maxImagePixels = InputFileData::kDefaultMaxImagePixels;

    bool m_cartesian = false;
    bool m_hasCartesianInvalid = false;
    bool m_spherical = false;
    bool m_hasSphericalInvalid = false;
    bool m_useInvalidState = false;
    bool m_hasIntensity = false;
    bool m_hasIntensityInvalid = false;
    bool m_hasColor = false;
    bool m_hasColorInvalid = false;
    bool m_hasRowIndex = false;
    bool m_hasColumnIndex = false;
    std::array<double, 3> m_colorOffset{};
    std::array<double, 3> m_colorFactor{};
    double m_intensityOffset = 0.0;
    double m_intensityFactor = 0.0;
    uint64_t m_nrPointsScan = 1;
    uint64_t m_pointsRemaining = 0;
    bool m_intensityOutOfRange = false;
    bool m_colorOutOfRange = false;

    Buffers m_buffers;
    std::unique_ptr<e57::CompressedVectorReader> m_reader;
    std::map<uint64_t, std::vector<ImageRecord>> m_images;
};

// Writes the report of an E57 file: its size, then every element of its XML tree with its type and value.
// Throws "Could not convert path <path>" or "Could not open file <path>" with the reason.
PCP_API void e57Header(const std::wstring& path, std::ostream& out);
// The same report for a file that is open already.
void e57Header(const e57::ImageFile& file, const std::wstring& path, std::ostream& out);

}  // namespace pc_preprocess
