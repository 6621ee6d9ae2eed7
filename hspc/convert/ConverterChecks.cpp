#include "hspc/convert/ConverterChecks.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include "hspc/format/FileHandler.h"

namespace HSPC
{
namespace
{

// The text of the first failed check; nothing when the check passed.
using Problem = std::optional<std::string>;

Problem checkLoggers(const AdvancedConfig& advanced)
{
    if (!advanced.infoLogger)
    {
        return "Converter::run: info logger needs to point to a valid function.";
    }
    if (!advanced.warningLogger)
    {
        return "Converter::run: warning logger needs to point to a valid function.";
    }
    if (!advanced.progressLogger)
    {
        return "Converter::run: progress logger needs to point to a valid function.";
    }
    return {};
}

// Input that does not bring the Morton code itself brings X, Y, Z as its first three attributes, of one type,
// which the converter replaces by the code.
Problem checkSeparateCoordinates(const std::vector<Attribute>& attributes)
{
    if (attributes.size() < 3)
    {
        return "Converter::run: encoding attributes needs at least to specify position.";
    }
    if (attributes[0].role != AttributeRole::X || attributes[1].role != AttributeRole::Y ||
        attributes[2].role != AttributeRole::Z)
    {
        return "Converter::run: point coordinates should be the first 3 elements of the encoding attributes array.";
    }
    if (attributes[1].type != attributes[0].type || attributes[2].type != attributes[0].type)
    {
        return "Converter::run: point coordinates should be of equal type.";
    }
    return {};
}

// A role may appear once (custom attributes are told apart by their names and may repeat), and every
// attribute needs a type with a size. Whether a type suits its role is left to the caller: an intensity
// stored as a float is unusual but not wrong.
bool attributesAreValid(const std::vector<Attribute>& attributes)
{
    std::set<uint8_t> roles;
    for (const Attribute& attribute : attributes)
    {
        // Every code from UNDEFINED on has no size; refusing them all, not only UNDEFINED itself, keeps a
        // zero-sized attribute out of the record layout.
        if (attribute.type >= AttributeType::UNDEFINED)
        {
            return false;
        }
        if (attribute.role != AttributeRole::CUSTOM && !roles.insert(attribute.role).second)
        {
            return false;
        }
    }
    return true;
}

Problem checkAttributes(const BasicConfig& basic, const AdvancedConfig& advanced)
{
    const std::vector<Attribute>& attributes = basic.attributes;
    if (attributes.empty())
    {
        return "Converter::run: no encoding attributes specified.";
    }
    if (attributes.front().type != advanced.positionType)
    {
        if (Problem problem = checkSeparateCoordinates(attributes))
        {
            return problem;
        }
    }
    if (!attributesAreValid(attributes))
    {
        return "Converter::run: encodingAttributes not valid.";
    }
    if (advanced.positionType != AttributeType::M96)
    {
        return "Converter::run: mortonEncoding not M96.";
    }
    return {};
}

bool isDirectory(const std::string& path)
{
    std::error_code error;
    return std::filesystem::is_directory(std::filesystem::path(path), error);
}

bool removeFile(const std::string& path)
{
    std::error_code error;
    return std::filesystem::remove(std::filesystem::path(path), error) && !error;
}

// Creates and deletes a file of a name no user file has: a folder that takes a file takes the data set.
bool canCreateFileIn(const std::string& folder)
{
    const std::string probe = folder + "/hspc-write-test-" + std::to_string(::getpid()) + ".data";
    std::FILE* file = std::fopen(probe.c_str(), "wx");
    if (file == nullptr)
    {
        return false;
    }
    std::fclose(file);
    return removeFile(probe);
}

Problem checkOutput(const BasicConfig& basic, const AdvancedConfig& advanced)
{
    const bool hasCallback = advanced.useArchive
                                 ? bool(advanced.archiveWriterFactory)
                                 : bool(advanced.outputWriterFactory) || bool(advanced.outputWriterByPath);
    if (hasCallback)
    {
        return {};
    }
    if (basic.outputPath.empty())
    {
        return "Converter::run: outputPath or alternatively output callback not set.";
    }
    if (!isDirectory(basic.outputPath))
    {
        return "Converter::run: output path '" + basic.outputPath + "' is not a valid directory.";
    }
    if (!canCreateFileIn(basic.outputPath))
    {
        return "Converter::run: no write access to output path.";
    }
    return {};
}

// Temp files are written and read back many times over, so a folder that takes writes but gives back
// something else (a full or broken mount, a name bound to a device) fails here rather than mid-run.
bool canWriteAndReadBack(const std::string& folder)
{
    static constexpr std::array<char, 7> kProbe = {'b', 'l', 'a', 'b', 'l', 'a', '\n'};
    const std::string path = folder + "/test.data";
    bool readBack = false;
    {
        FileHandler file(path, FileHandler::Mode::kReadWriteNew);
        if (!file.isValid())
        {
            return false;
        }
        std::array<char, kProbe.size()> back{};
        readBack = file.write(0, kProbe.data(), kProbe.size()) && file.read(0, back.size(), back.data()) &&
                   back == kProbe;
    }
    const bool removed = removeFile(path);
    return readBack && removed;
}

Problem checkTempPath(const BasicConfig& basic)
{
    if (basic.tempPath.empty())
    {
        return "Converter::run: tempPath not set.";
    }
    if (!isDirectory(basic.tempPath))
    {
        return "Converter::run: temp path is not a valid directory.";
    }
    if (!canWriteAndReadBack(basic.tempPath))
    {
        return "Converter::run: no read and write access to temp path.";
    }
    return {};
}

Problem checkNodeSizes(const PointCloudEncodingConfig& encoding)
{
    if (encoding.nodeSize == 0)
    {
        return "Converter::run: nodeSize must be larger than zero.";
    }
    if (encoding.nodeSize > kLargestNodeSize)
    {
        return "Converter::run: nodeSize=" + std::to_string(encoding.nodeSize) + " is larger than " +
               std::to_string(kLargestNodeSize) + " which is not allowed.";
    }
    if (encoding.maxNodeSize > kLargestNodeSize)
    {
        return "Converter::run: maxNodeSize=" + std::to_string(encoding.maxNodeSize) + " is larger than " +
               std::to_string(kLargestNodeSize) + " which is not allowed.";
    }
    return {};
}

Problem firstProblem(const BasicConfig& basic, const AdvancedConfig& advanced,
                     const PointCloudEncodingConfig& encoding)
{
    if (Problem problem = checkLoggers(advanced))
    {
        return problem;
    }
    if (Problem problem = checkAttributes(basic, advanced))
    {
        return problem;
    }
    if (Problem problem = checkOutput(basic, advanced))
    {
        return problem;
    }
    if (Problem problem = checkTempPath(basic))
    {
        return problem;
    }
    if (Problem problem = checkNodeSizes(encoding))
    {
        return problem;
    }
    if (!encoding.requestJsonConfig)
    {
        return "Converter::run: requestJsonConfig not set.";
    }
    return {};
}

// The box filter keeps points inside a closed box, which must have some extent on every axis.
bool filterBoxIsValid(const PointCloudEncodingConfig& encoding)
{
    if (!encoding.filterEnabled)
    {
        return true;
    }
    for (size_t axis = 0; axis < 3; ++axis)
    {
        if (!(encoding.filterMin[axis] < encoding.filterMax[axis]))
        {
            return false;
        }
    }
    return true;
}

}  // namespace

bool checkConverterConfiguration(const BasicConfig& basic, const AdvancedConfig& advanced,
                                 const PointCloudEncodingConfig& encoding)
{
    if (!advanced.errorLogger)
    {
        std::fprintf(stderr, "HSPC: error: Converter::run: logger needs to point to a valid function.\n");
        return false;
    }
    if (const Problem problem = firstProblem(basic, advanced, encoding))
    {
        advanced.errorLogger(*problem);
        return false;
    }
    if (!filterBoxIsValid(encoding))
    {
        advanced.errorLogger("Converter::run: filtering bounding box invalid.");
        advanced.errorLogger("Converter::run: filtering config is invalid.");
        return false;
    }
    return true;
}

}  // namespace HSPC
