#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace pc_preprocess
{

// How a camera image of an E57 file maps its pixels to directions. Every kind holds the image's size.
class ImageRepresentation
{
public:
    enum Kind : int
    {
        kVisualReference = 1,
        kPinhole = 2,
        kSpherical = 3,
        kCylindrical = 4,
    };

    virtual ~ImageRepresentation() = default;
    virtual Kind kind() const = 0;

    uint32_t imageWidth = 0;
    uint32_t imageHeight = 0;
};

// A picture for the eye only: it has no geometry and paints nothing.
class VisualReferenceRepresentation : public ImageRepresentation
{
public:
    Kind kind() const override { return kVisualReference; }

    std::string fileFormat;  // "jpg" or "png"
    uint64_t blobSize = 0;
};

class PinholeRepresentation : public ImageRepresentation
{
public:
    Kind kind() const override { return kPinhole; }

    double pixelWidth = 0.0;
    double pixelHeight = 0.0;
    double focalLength = 0.0;
    double principalPointX = 0.0;
    double principalPointY = 0.0;
};

class SphericalRepresentation : public ImageRepresentation
{
public:
    Kind kind() const override { return kSpherical; }

    double pixelWidth = 0.0;
    double pixelHeight = 0.0;
};

class CylindricalRepresentation : public ImageRepresentation
{
public:
    Kind kind() const override { return kCylindrical; }

    double pixelWidth = 0.0;
    double pixelHeight = 0.0;
    double radius = 0.0;
    double principalPointY = 0.0;
};

// One camera image of a scan: its name in the file, where its picture was written (empty when the run
// writes no files), how it maps pixels, and its pose as a linear part (column-major, row r is rotation[r],
// rotation[r + 3], rotation[r + 6]) and a translation, which is also the camera's position.
struct ImageRecord
{
    std::string name;
    std::wstring file;
    std::shared_ptr<const ImageRepresentation> representation;
    std::array<double, 9> rotation{};
    std::array<double, 3> translation{};
};

}  // namespace pc_preprocess
