// pcprep compress / decompress: one node file, or all node files of a cache, into the other form.
#include <cstdio>
#include <filesystem>

#include "cachefiles/CacheCompression.h"
#include "cachefiles/PnzFiles.h"
#include "core/FileSizeString.h"
#include "core/StringConversion.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/CacheTree.h"
#include "pcprep/Command.h"

namespace pcprep
{

namespace
{

using pc_preprocess::getFileSizePrettyString;

double percentOf(uint64_t part, uint64_t whole)
{
    return whole ? 100.0 * double(part) / double(whole) : 0.0;
}

int convertNode(const ParsedArguments& parsed, const char* from, const char* to, bool compress)
{
    if (parsed.has("--threads"))
        throw UsageError("--threads is for a cache; a node file is converted by one thread");
    const std::filesystem::path source(parsed.positional()[0]);
    if (source.extension() != from)
        throw UsageError("expected a cache folder, its .vrm file or a " + std::string(from) + " file, not " +
                         source.string());
    std::filesystem::path target = source;
    target.replace_extension(to);

    const std::wstring sourceWide = pc_preprocess::toWide(source);
    const std::wstring targetWide = pc_preprocess::toWide(target);
    const uint64_t written = compress ? pc_preprocess::directPntToPnz(sourceWide, targetWide)
                                      : pc_preprocess::directPnzToPnt(sourceWide, targetWide);
    const uint64_t sourceSize = std::filesystem::file_size(source);
    std::printf("%s (%s) -> %s (%s, %.1f%% of the source)\n", source.string().c_str(),
                getFileSizePrettyString(sourceSize).c_str(), target.string().c_str(),
                getFileSizePrettyString(written).c_str(), percentOf(written, sourceSize));
    if (parsed.has("--replace"))
    {
        std::filesystem::remove(source);
        std::printf("removed %s\n", source.string().c_str());
    }
    return 0;
}

// "3 PNZ files (1.20MB)"
std::string files(uint64_t count, const char* form, uint64_t bytes)
{
    return std::to_string(count) + " " + form + (count == 1 ? " file (" : " files (") +
           getFileSizePrettyString(bytes) + ")";
}

int convertCache(const ParsedArguments& parsed, bool compress)
{
    if (parsed.has("--replace"))
        throw UsageError("--replace is for a node file; in a cache the converted files are always replaced");
    const unsigned threads = parsed.threadCount();
    const CacheTree tree = findCacheTree(parsed.positional()[0]);
    const std::wstring vrm = pc_preprocess::toWide(tree.vrmFile);
    const pc_preprocess::CompressInfo info =
        compress ? pc_preprocess::compressor(vrm, threads) : pc_preprocess::decompressor(vrm, threads);

    std::printf("%-13s %s\n", "Cache", tree.vrmFile.string().c_str());
    std::printf("%-13s %s, %s\n", "Node files", files(info.numPnt, "PNT", info.sizePnt).c_str(),
                files(info.numPnz, "PNZ", info.sizePnz).c_str());
    const uint64_t sources = compress ? info.numPnt : info.numPnz;
    const uint64_t sourceBytes = compress ? info.sizePnt : info.sizePnz;
    const uint64_t madeBytes = compress ? info.newSizePnz : info.newSizePnt;
    if (sources == 0)
        std::printf("Nothing to %s: every node file is %s already\n", compress ? "compress" : "decompress",
                    compress ? "compressed (PNZ)" : "plain (PNT)");
    else
        std::printf(
            "%-13s %s into %s, %.1f%% of the size, with %s\n", compress ? "Compressed" : "Decompressed",
            files(sources, compress ? "PNT" : "PNZ", sourceBytes).c_str(),
            files(compress ? info.newNumPnz : info.newNumPnt, compress ? "PNZ" : "PNT", madeBytes).c_str(),
            percentOf(madeBytes, sourceBytes), counted(threads, "thread", "threads").c_str());
    return 0;
}

int convert(const Arguments& arguments, const char* from, const char* to, bool compress)
{
    const ParsedArguments parsed(arguments, {{"--replace", false}, {"--threads", true}});
    parsed.expectPositional(1, "one cache folder, .vrm file or node file");
    return namesCache(parsed.positional()[0]) ? convertCache(parsed, compress)
                                              : convertNode(parsed, from, to, compress);
}

}  // namespace

int runCompress(const Arguments& arguments)
{
    return convert(arguments, ".pnt", ".pnz", true);
}
int runDecompress(const Arguments& arguments)
{
    return convert(arguments, ".pnz", ".pnt", false);
}

}  // namespace pcprep
