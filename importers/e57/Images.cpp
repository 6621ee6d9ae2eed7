// The camera images of an E57 scan: found, written beside the panoramas, and painted into them.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <new>
#include <numbers>
#include <optional>
#include <stdexcept>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "core/StringConversion.h"
#include "e57/E57Exception.h"
#include "e57/ImageFile.h"
#include "importers/E57.h"
#include "importers/e57/PictureSize.h"
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

// Why a picture cannot be painted, in words for the warning.
class ImageRefused : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// The picture of a stored image file, decoded to three 8-bit channels once its header has shown a size
// within `maxPixels`: a small file can declare a picture of gigabytes, and OpenCV's own limit lies far above
// what a host can spare.
cv::Mat decodePicture(const std::filesystem::path& path, uint64_t maxPixels)
{
    std::ifstream in(path, std::ios::binary);
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (!in || error)
        throw ImageRefused("cannot be read back");
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
        throw ImageRefused("cannot be read back");
    const std::optional<PictureSize> declared = declaredPictureSize(bytes);
    if (!declared)
        throw ImageRefused("is no PNG or JPEG picture, or its header is cut short");
    if (declared->width == 0 || declared->height == 0)
        throw ImageRefused("its header declares no size");
    if (declared->width > maxPixels / declared->height)
        throw ImageRefused("its header declares " + std::to_string(declared->width) + " x " +
                           std::to_string(declared->height) + " pixels, more than the limit of " +
                           std::to_string(maxPixels));
    const cv::Mat picture = cv::imdecode(bytes, cv::IMREAD_COLOR);
    if (picture.empty() || picture.type() != CV_8UC3)
        throw ImageRefused("cannot be decoded");
    if (static_cast<uint64_t>(picture.cols) != declared->width ||
        static_cast<uint64_t>(picture.rows) != declared->height)
        throw ImageRefused("decodes to another size than its header declares");
    return picture;
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
        const e57::Node* name = image.find("name");
        // One image that cannot be used costs only itself. A full disk, though, ends the run as it would for
        // any other file.
        try
        {
            ImageRecord record = imageRecord(image, index);
            if (record.representation)
                records.push_back(std::move(record));
        }
        catch (const e57::E57Exception& e)
        {
            warnImageLeftOut(m_scanIndex, index, name ? name->stringValue : std::string(), e.context());
        }
        catch (const std::filesystem::filesystem_error& e)
        {
            warnImageLeftOut(m_scanIndex, index, name ? name->stringValue : std::string(), e.what());
        }
        catch (const std::bad_alloc&)
        {
            warnImageLeftOut(m_scanIndex, index, name ? name->stringValue : std::string(),
                             "not enough memory for its picture");
        }
    }
}

ImageRecord E57::imageRecord(const e57::Node& image, size_t index) const
{
    ImageRecord record;
    if (const e57::Node* name = image.find("name"))
        record.name = name->stringValue;
    extractFileTransform(image, m_scale, record.rotation, record.translation);
    const e57::Node* representation = nullptr;
    size_t kind = 0;
    for (; kind < std::size(kRepresentations) && !representation; ++kind)
        representation = image.find(kRepresentations[kind]);
    if (!representation)
        return record;
    record.representation = representationOf(*representation, kind - 1);

    const bool jpeg = representation->has("jpegImage");
    const e57::Node* blob = representation->find(jpeg ? "jpegImage" : "pngImage");
    if (!blob || m_cacheFolder.empty())
        return record;
    const std::filesystem::path folder =
        toPath(getBubblesFolder(m_cacheFolder)) / "2DImages" / toPath(baseNameForScanId(m_path, m_scanIndex));
    std::filesystem::create_directories(folder);
    const std::filesystem::path file = folder / ("image_" + std::to_string(index) + (jpeg ? ".jpg" : ".png"));
    const std::vector<uint8_t> bytes = m_file->readBlob(*blob, m_fileSize);
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out)
        throw std::runtime_error("E57 : Could not (fully) write " + file.string() + "\nDisk full?");
    record.file = toWide(file);
    return record;
}

void E57::warnImageLeftOut(size_t scan, size_t image, const std::string& name, const std::string& reason)
{
    m_warnings.push_back(s2ws("\t Image " + std::to_string(image) + " \"" + name + "\" of scan " +
                              std::to_string(scan) + " in " + ws2s(m_path) + " is left out: " + reason));
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
        ImageRecord& record = found->second[index];
        if (!record.representation || record.representation->kind() == ImageRepresentation::kVisualReference)
            continue;
        // A picture that fails is warned about once and not tried again for the image's own panorama.
        std::string failure;
        try
        {
            updateScanViewWithImage(*view, record, position, transfo);
        }
        catch (const ImageRefused& e)
        {
            failure = e.what();
        }
        catch (const cv::Exception& e)
        {
            failure = std::string("OpenCV: ") + e.what();
        }
        catch (const std::bad_alloc&)
        {
            failure = "not enough memory to decode its picture";
        }
        if (!failure.empty())
        {
            warnImageLeftOut(scan, index, record.name, ws2s(record.file) + ": " + failure);
            record.file.clear();
        }
    }
}

void E57::updateScanViewWithImage(ScanView& view, const ImageRecord& image,
                                  const std::array<double, 3>& position, const IoTransfo& transfo) const
{
    if (image.file.empty())
        return;
    const cv::Mat picture = decodePicture(toPath(image.file), m_maxImagePixels);
    // The camera's pose first, then the cache's grid: one 3 x 4 map from pixel directions to cache integers.
    const Discretization toCache(transfo, image.rotation.data(), image.translation.data());
    std::vector<IoLightPoint> slice;
    slice.reserve(kBatchSize);
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
            slice.push_back(point);
            if (slice.size() == kBatchSize)
            {
                view.insert(slice, transfo, position, true);
                slice.clear();
            }
        }
    }
    view.insert(slice, transfo, position, true);
}

}  // namespace pc_preprocess
