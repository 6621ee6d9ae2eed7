#include "core/ImporterFactory.h"

#include <stdexcept>

#include "core/FileFormat.h"
#include "core/StringConversion.h"
#include "importers/PtsImporter.h"

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

}  // namespace

std::shared_ptr<Convertor> createImporter(const InputFileData& input)
{
    const EFileFormat format = fileFormat(input.path);
    switch (format)
    {
        case kFormatPts:
            return ptsImporter(input, true);
        case kFormatLas:
        case kFormatLaz:
        case kFormatPtx:
        case kFormatE57:
        case kFormatRcp:
        case kFormatHspc:
        case kFormatRdbx:
        case kFormatRsp:
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

}  // namespace pc_preprocess
