// pcprep compress / decompress: one node file into its other form.
#include <cstdio>
#include <filesystem>

#include "cachefiles/PnzFiles.h"
#include "core/FileSizeString.h"
#include "core/StringConversion.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/Command.h"

namespace pcprep
{

namespace
{

int convertNode(const Arguments& arguments, const char* from, const char* to, bool compress)
{
    const ParsedArguments parsed(arguments, {{"--replace", false}});
    parsed.expectPositional(1, "one node file");
    const std::filesystem::path source(parsed.positional()[0]);
    if (source.extension() != from)
        throw UsageError("expected a " + std::string(from) + " file, not " + source.string());
    std::filesystem::path target = source;
    target.replace_extension(to);

    const std::wstring sourceWide = pc_preprocess::toWide(source);
    const std::wstring targetWide = pc_preprocess::toWide(target);
    const uint64_t written = compress ? pc_preprocess::directPntToPnz(sourceWide, targetWide)
                                      : pc_preprocess::directPnzToPnt(sourceWide, targetWide);
    const uint64_t sourceSize = std::filesystem::file_size(source);
    std::printf("%s (%s) -> %s (%s, %.1f%% of the source)\n", source.string().c_str(),
                pc_preprocess::getFileSizePrettyString(sourceSize).c_str(), target.string().c_str(),
                pc_preprocess::getFileSizePrettyString(written).c_str(),
                sourceSize ? 100.0 * double(written) / double(sourceSize) : 0.0);
    if (parsed.has("--replace"))
    {
        std::filesystem::remove(source);
        std::printf("removed %s\n", source.string().c_str());
    }
    return 0;
}

}  // namespace

int runCompress(const Arguments& arguments)
{
    return convertNode(arguments, ".pnt", ".pnz", true);
}
int runDecompress(const Arguments& arguments)
{
    return convertNode(arguments, ".pnz", ".pnt", false);
}

}  // namespace pcprep
