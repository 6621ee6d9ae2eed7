#pragma once

// A small E57 writer for the sample, the tests and the benchmarks: valid files (pages with their CRC-32C, the
// XML section, compressed vectors with the bitpack codec, blobs) holding any number of scans and camera
// images.
//
//   pcp_sample::E57Scan scan;
//   scan.points.coordinates = {{0.0, 1.0}, {0.0, 2.0}, {0.0, 3.0}};   // two points
//   scan.points.color = {{0, 255}, {0, 128}, {0, 64}};
//   pcp_sample::writeE57File(path, {scan});
//
// A field is in a scan when its vector is not empty; every non-empty vector holds one value per point.
// Large scans are streamed: set `produce` and `streamedPoints` instead of `points`, and the writer asks
// for the points chunk by chunk, never holding more than one chunk and one packet per field.
// Failures (a field with the wrong number of values, a value outside its declared range, an I/O error)
// throw std::runtime_error.
#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pcp_sample
{

// A rigid motion from the scan's (or image's) own frame to the file's: a unit quaternion and a translation.
struct E57Pose
{
    std::array<double, 4> rotation{1.0, 0.0, 0.0, 0.0};  // w, x, y, z
    std::array<double, 3> translation{0.0, 0.0, 0.0};
};

// How a numeric field is stored in the compressed vector.
enum class E57Storage
{
    Float,          // IEEE single precision
    Double,         // IEEE double precision
    ScaledInteger,  // raw integers, value = raw * scale + offset
    Integer,        // integers with a minimum and maximum
    String,         // text, each value its length and its bytes (the labels only)
};

// The values of a batch of points.
struct E57Points
{
    // cartesianX/Y/Z, or sphericalRange/Azimuth/Elevation for a spherical scan.
    std::array<std::vector<double>, 3> coordinates;
    // cartesianInvalidState or sphericalInvalidState: 0 valid, 1 direction only, 2 invalid.
    std::vector<int64_t> invalidState;
    // A String field "label" after the coordinates, as writers keep identifiers and comments in a record.
    std::vector<std::string> labels;
    std::vector<double> intensity;
    std::vector<int64_t> intensityInvalid;       // isIntensityInvalid, 0 or 1
    std::array<std::vector<int64_t>, 3> color;   // colorRed, colorGreen, colorBlue
    std::vector<int64_t> colorInvalid;           // isColorInvalid, 0 or 1
    std::array<std::vector<double>, 3> normals;  // nor:normalX/Y/Z, single precision
    std::vector<int64_t> classification;         // class:classification
    std::vector<int64_t> rowIndex;
    std::vector<int64_t> columnIndex;

    size_t size() const { return coordinates[0].size(); }
};

struct E57Scan
{
    std::string guid;  // empty: "scan-<index>"
    std::string name;
    std::optional<E57Pose> pose;
    bool spherical = false;

    // Coordinates: Float, Double or ScaledInteger. Float and Double declare [-coordinateLimit,
    // coordinateLimit] as their range; ScaledInteger stores round((value - coordinateOffset) /
    // coordinateScale) in the raw range that this gives.
    E57Storage coordinateStorage = E57Storage::Float;
    double coordinateScale = 0.001;
    double coordinateOffset = 0.0;
    double coordinateLimit = 1000.0;

    // Intensity: Float, Double or Integer (rounded) in [intensityMinimum, intensityMaximum], which
    // "intensityLimits" also states when writeLimits is on.
    E57Storage intensityStorage = E57Storage::Float;
    double intensityMinimum = 0.0;
    double intensityMaximum = 1.0;
    // Colour: integers in [colorMinimum, colorMaximum], stated in "colorLimits" when writeLimits is on.
    int64_t colorMinimum = 0;
    int64_t colorMaximum = 255;
    bool writeLimits = true;
    // The declared maxima of classification, row and column indices (all from 0).
    int64_t classificationMaximum = 255;
    int64_t rowMaximum = 1023;
    int64_t columnMaximum = 1023;

    // The points, held in memory...
    E57Points points;
    // ...or streamed: when `produce` is set, it is called with (first point, count, chunk) and fills every
    // field of the chunk with `count` values, until `streamedPoints` points are written. The fields of the
    // first chunk are the scan's fields.
    uint64_t streamedPoints = 0;
    std::function<void(uint64_t first, size_t count, E57Points& chunk)> produce;
};

enum class E57ImageProjection
{
    VisualReference,  // visualReferenceRepresentation
    Pinhole,          // pinholeRepresentation
    Spherical,        // sphericalRepresentation
    Cylindrical,      // cylindricalRepresentation
};

struct E57Image
{
    std::string guid;  // empty: "image-<index>"
    std::string name;
    std::string associatedData3DGuid;
    std::optional<E57Pose> pose;
    E57ImageProjection projection = E57ImageProjection::Pinhole;
    bool png = false;              // the picture as "pngImage" rather than "jpegImage"
    std::vector<uint8_t> picture;  // the image file's bytes, written as a blob
    int64_t width = 1;
    int64_t height = 1;
    double pixelWidth = 1e-5;
    double pixelHeight = 1e-5;
    double focalLength = 0.01;     // pinhole
    double principalPointX = 0.5;  // pinhole
    double principalPointY = 0.5;  // pinhole and cylindrical
    double radius = 1.0;           // cylindrical
};

struct E57WriteOptions
{
    // The largest data packet in bytes, header included (at most 65536). Small packets make every field's
    // values run over many packets at different record boundaries.
    size_t packetBytes = 65536;
    // An empty packet before every data packet but the first, and an index packet at the end of each
    // section, which a reader must pass over.
    bool extraPackets = false;
    // Points asked for per call of a scan's `produce`.
    size_t chunkPoints = 65536;
    std::string guid = "pcp-test-file";
    // The format version in the file header and the root element.
    uint32_t versionMajor = 1;
    uint32_t versionMinor = 0;
    // Changes the XML section's text before it is written, for files that other writers make differently
    // (another prefix for an extension, numbers in a writer's own locale).
    std::function<void(std::string& xml)> editXml;
};

// Writes the scans (under "data3D") and images (under "images2D") to `path`.
void writeE57File(const std::filesystem::path& path, const std::vector<E57Scan>& scans,
                  const std::vector<E57Image>& images = {}, const E57WriteOptions& options = {});

// Replaces bytes of an E57 file at a logical offset (checksums left out) and seals the pages they touch
// again: for tests that break one thing and keep the checksums right.
void patchE57File(const std::filesystem::path& path, uint64_t logicalOffset,
                  const std::vector<uint8_t>& bytes);

// The whole logical content of a file (every page's first 1020 bytes), for tests that look for a section.
std::vector<uint8_t> readE57Logical(const std::filesystem::path& path);

// Writes `logical` as a paged E57 file, the checksums computed: bytes 0..47 must hold the file header, whose
// length field this function fills in.
void writeE57Pages(const std::filesystem::path& path, std::vector<uint8_t> logical);

}  // namespace pcp_sample
