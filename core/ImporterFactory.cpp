#include "core/ImporterFactory.h"

#include <stdexcept>

#include "core/FileFormat.h"
#include "core/StringConversion.h"
#include "importers/E57.h"
#include "importers/HspcImporter.h"
#include "importers/Las.h"
#include "importers/LazImporter.h"
#include "importers/PtsImporter.h"
#include "importers/Ptx.h"
#include "importers/Riegl.h"

namespace pc_preprocess
{

namespace
{

std::shared_ptr<Convertor> ptsImporter(const InputFileData& input, bool knownExtension)
{
    // An empty delimiter stands for the importer's default. Only files of unknown extension have comments.
    PtsImporter::Settings settings;
    settings.columnFormat = input.columnFormat;
    settings.delimiter = input.delimiters;
    settings.commentMarker = knownExtension ? std::string() : input.skipPrefix;
    settings.determineFormat = true;
    return std::make_shared<PtsImporter>(input.path, input.scale, input.colorMode, settings);
}

[[noreturn]] void notAvailable(EFileFormat format, const InputFileData& input)
{
    throw std::runtime_error(std::string("No importer for ") + formatName(format) +
                             " files is available in this version of the library: " + ws2s(input.path));
}

// One row per format.
std::shared_ptr<Convertor> importerFor(const InputFileData& input, bool reprojected)
{
    const EFileFormat format = fileFormat(input.path);
    switch (format)
    {
        case kFormatPts:
            return ptsImporter(input, true);
        case kFormatLas:
            // Only the LAZ importer carries points through PROJ; it reads plain LAS files as well.
            if (reprojected)
                return std::make_shared<LazImporter>(input.path, input.scale,
                                                     ColorMode(kRgb16Bit, kIntensity16Bit));
            return std::make_shared<Las>(input.path, input.scale, ColorMode(kRgb16Bit, kIntensity16Bit));
        case kFormatLaz:
            return std::make_shared<LazImporter>(input.path, input.scale,
                                                 ColorMode(kRgb16Bit, kIntensity16Bit));
        case kFormatPtx:
            return std::make_shared<Ptx>(input.path, input.scale, input.colorMode);
        case kFormatE57:
        {
            // E57 coordinates are metres, and its limits put every file on the 16-bit scale.
            auto e57 = std::make_shared<E57>(input.path, 1.0, ColorMode(kRgb16Bit, kIntensity16Bit));
            e57->setMaxImagePixels(input.maxImagePixels);
            return e57;
        }
        case kFormatRdbx:
        case kFormatRsp:
            // RIEGL coordinates are metres, and the importer maps amplitudes and colours onto 16 bits.
            return std::make_shared<Riegl>(input.path, input.scale, ColorMode(kRgb16Bit, kIntensity16Bit),
                                           input.rieglLibrary);
        case kFormatHspc:
            // The importer brings colour and intensity to 16 bits by the ranges it finds in the data set.
            return std::make_shared<HspcImporter>(input.path, input.scale, ColorMode(kRgb16Bit, kIntensity16Bit));
        case kFormatRcp:
        case kFormatZfs:
        case kFormatLgsx:
            notAvailable(format, input);
        case kFormatUnknown:
        case kFormatVrm:
        case kFormatVrp:
            break;
    }
    return ptsImporter(input, false);
}

}  // namespace

std::shared_ptr<Convertor> createImporter(const InputFileData& input,
                                          const std::optional<TopoDef>& localFrame)
{
    std::shared_ptr<Convertor> importer = importerFor(input, localFrame.has_value());
    if (localFrame)
        importer->requestLocalFrame(*localFrame);
    return importer;
}

}  // namespace pc_preprocess
