// The camera images of an E57 scan: found, written beside the panoramas, and painted into them.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "core/StringConversion.h"
#include "e57/E57Exception.h"
#include "e57/ImageFile.h"
#include "importers/E57.h"
#include "importers/e57/PoseAndLimits.h"
#include "scanview/ScanView.h"

namespace pc_preprocess
{

namespace
{

// How close to the vertical through the position a point may come before a panorama stops at it.
constexpr double kPole = 1e-10;

const char* const kRepresentations[] = {"visualReferenceRepresentation", "pinholeRepresentation",
                                        "sphericalRepresentation", "cylindricalRepresentation"};

double floatField(const e57::Node& node, const char* name)
{
    const e57::Node* field = node.find(name);
    return field ? field->numericValue() : 0.0;
}

uint32_t sizeField(const e57::Node& node, const char* name)
{
    const e57::Node* field = node.find(name);
    return field ? static_cast<uint32_t>(std::clamp<double>(field->numericValue(), 0.0, 4294967295.0)) : 0u;
}

std::shared_ptr<ImageRepresentation> representationOf(const e57::Node& node, size_t kind)
{
    std::shared_ptr<ImageRepresentation> result;
    switch (kind)
    {
        case 0:
        {
            auto visual = std::make_shared<VisualReferenceRepresentation>();
            visual->fileFormat = node.has("jpegImage") ? "jpg" : "png";
            if (const e57::Node* blob = node.find(node.has("jpegImage") ? "jpegImage" : "pngImage"))
                visual->blobSize = blob->length;
            result = visual;
            break;
        }
        case 1:
        {
            auto pinhole = std::make_shared<PinholeRepresentation>();
            pinhole->pixelWidth = floatField(node, "pixelWidth");
            pinhole->pixelHeight = floatField(node, "pixelHeight");
            pinhole->focalLength = floatField(node, "focalLength");
            pinhole->principalPointX = floatField(node, "principalPointX");
            pinhole->principalPointY = floatField(node, "principalPointY");
            result = pinhole;
            break;
        }
        case 2:
        {
            auto spherical = std::make_shared<SphericalRepresentation>();
            spherical->pixelWidth = floatField(node, "pixelWidth");
            spherical->pixelHeight = floatField(node, "pixelHeight");
            result = spherical;
            break;
        }
        default:
        {
            auto cylindrical = std::make_shared<CylindricalRepresentation>();
            cylindrical->pixelWidth = floatField(node, "pixelWidth");
            cylindrical->pixelHeight = floatField(node, "pixelHeight");
            cylindrical->radius = floatField(node, "radius");
            cylindrical->principalPointY = floatField(node, "principalPointY");
            result = cylindrical;
            break;
        }
    }
    result->imageWidth = sizeField(node, "imageWidth");
    result->imageHeight = sizeField(node, "imageHeight");
    return result;
}

// The direction of a pixel in the image's own frame, for the kinds that have a geometry.
std::array<double, 3> pixelDirection(const ImageRepresentation& representation, double row, double column)
{
    const double pi = std::numbers::pi;
    switch (representation.kind())
    {
        case ImageRepresentation::kPinhole:
        {
            const auto& p = static_cast<const PinholeRepresentation&>(representation);
            return {(column - p.principalPointX) / (p.focalLength / p.pixelWidth),
                    (p.principalPointY - row) / (p.focalLength / p.pixelHeight), -1.0};
        }
        case ImageRepresentation::kSpherical:
        {
            const auto& s = static_cast<const SphericalRepresentation&>(representation);
            const double a = std::clamp((s.imageWidth / 2.0 - column) * s.pixelWidth, -pi, pi);
            const double e = std::clamp((s.imageHeight / 2.0 - row) * s.pixelHeight, -pi / 2, pi / 2);
            return {std::cos(e) * std::cos(a), std::cos(e) * std::sin(a), std::sin(e)};
        }
        default:
        {
            const auto& c = static_cast<const CylindricalRepresentation&>(representation);
            const double a = std::clamp((c.imageWidth / 2.0 - column) * c.pixelWidth, -pi, pi);
            return {std::cos(a), std::sin(a), (c.principalPointY - row) / (c.radius / c.pixelHeight)};
        }
    }
}

}  // namespace

void E57::extract2DImages(const e57::Node& scan)
{
    const e57::Node* images = m_file->root().find("images2D");
    if (!images || !images->isVector() || images->children.empty())
        return;
    const std::filesystem::path target = m_cacheFolder.empty()
                                             ? std::filesystem::path()
                                             : toPath(getBubblesFolder(m_cacheFolder)) / "2DImages";
    const e57::Node* scanGuid = scan.find("guid");
    std::vector<ImageRecord>& records = m_images[m_scanIndex];
    records.clear();
    for (size_t index = 0; index < images->children.size(); ++index)
    {
        const e57::Node& image = *images->children[index];
        if (!image.isStructure())
            throw error("Image nodes should be E57_STRUCTURE.");
        const e57::Node* owner = image.find("associatedData3DGuid");
        const bool belongs = owner ? scanGuid && owner->stringValue == scanGuid->stringValue : m_nrScans < 2;
        if (!belongs)
            continue;

        ImageRecord record;
        if (const e57::Node* name = image.find("name"))
            record.name = name->stringValue;
        extractFileTransform(image, m_scale, record.rotation, record.translation);
        const e57::Node* representation = nullptr;
        size_t kind = 0;
        for (; kind < std::size(kRepresentations) && !representation; ++kind)
            representation = image.find(kRepresentations[kind]);
        if (!representation)
            continue;
        record.representation = representationOf(*representation, kind - 1);

        const bool jpeg = representation->has("jpegImage");
        const e57::Node* blob = representation->find(jpeg ? "jpegImage" : "pngImage");
        if (blob && !target.empty())
        {
            const std::filesystem::path folder = target / toPath(baseNameForScanId(m_path, m_scanIndex));
            std::filesystem::create_directories(folder);
            const std::filesystem::path file =
                folder / ("image_" + std::to_string(index) + (jpeg ? ".jpg" : ".png"));
            const std::vector<uint8_t> bytes = m_file->readBlob(*blob, m_fileSize);
            std::ofstream out(file, std::ios::binary | std::ios::trunc);
            out.write(reinterpret_cast<const char*>(bytes.data()),
                      static_cast<std::streamsize>(bytes.size()));
            out.close();
            if (!out)
                throw std::runtime_error("E57 : Could not (fully) write " + file.string() + "\nDisk full?");
            record.file = toWide(file);
        }
        records.push_back(std::move(record));
    }
}

void E57::updateScanView2DImages(std::shared_ptr<ScanView> view, const std::array<double, 3>& position,
                                 const IoTransfo& transfo, size_t scan, size_t image)
{
    const auto found = m_images.find(scan);
    if (!view || found == m_images.end())
        return;
    for (size_t index = 0; index < found->second.size(); ++index)
    {
        if (image != kAllImages && index != image)
            continue;
        const ImageRecord& record = found->second[index];
        if (record.representation && record.representation->kind() != ImageRepresentation::kVisualReference)
            updateScanViewWithImage(*view, record, position, transfo);
    }
}

void E57::updateScanViewWithImage(ScanView& view, const ImageRecord& image,
                                  const std::array<double, 3>& position, const IoTransfo& transfo) const
{
    if (image.file.empty())
        return;
    const cv::Mat picture = cv::imread(toPath(image.file).string(), cv::IMREAD_COLOR);
    if (picture.empty())
        return;
    // The camera's pose first, then the cache's grid: one 3 x 4 map from pixel directions to cache integers.
    const Discretization toCache(transfo, image.rotation.data(), image.translation.data());
    std::vector<IoLightPoint> points;
    points.reserve(static_cast<size_t>(picture.rows) * static_cast<size_t>(picture.cols));
    for (int row = 0; row < picture.rows; ++row)
    {
        const cv::Vec3b* pixels = picture.ptr<cv::Vec3b>(row);
        for (int column = 0; column < picture.cols; ++column)
        {
            const std::array<double, 3> d = pixelDirection(*image.representation, row, column);
            IoLightPoint point;
            if (!toCache.apply(d[0], d[1], d[2], point.x, point.y, point.z))
                continue;
            // A pixel straight above or below the position would end the panorama's batch: it is left out.
            const double dx = transfo.offset[0] + point.x * transfo.scale[0] - position[0];
            const double dy = transfo.offset[1] + point.y * transfo.scale[1] - position[1];
            if (std::abs(dx) < kPole && std::abs(dy) < kPole)
                continue;
            point.radius = 0.0f;
            point.r = static_cast<uint16_t>(pixels[column][2] * 255);
            point.g = static_cast<uint16_t>(pixels[column][1] * 255);
            point.b = static_cast<uint16_t>(pixels[column][0] * 255);
            points.push_back(point);
        }
    }
    view.insert(points, transfo, position, true);
}

}  // namespace pc_preprocess
