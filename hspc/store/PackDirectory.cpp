#include "hspc/store/PackDirectory.h"

#include <algorithm>

#include "hspc/format/LittleEndian.h"
#include "hspc/format/Utf8Text.h"
#include "hspc/store/PackCodec.h"
#include "hspc/store/RadixNames.h"
#include "hspc/store/RootStore.h"

namespace HSPC::pack
{

namespace
{

// Names rebuilt from a tree may be far longer than the streams they come from (labels are shared by all the
// names below them); a real archive's names hold a few times the streams' bytes. This bounds what a crafted
// tree can make us build.
constexpr uint64_t kNameCharactersPerStreamByte = 64;
constexpr uint64_t kNameCharactersAlways = uint64_t(1) << 20;

uint64_t directoryArea(const Header& header)
{
    return header.dataStart > kHeaderSize ? header.dataStart - kHeaderSize : 0;
}

bool readHeader(ArchiveInterface& file, uint64_t fileSize, Header& header, std::string& error)
{
    uint8_t bytes[kHeaderSize] = {};
    if (fileSize < kHeaderSize || file.Read(bytes, 0, kHeaderSize) == 0)
    {
        error = "file of " + std::to_string(fileSize) + " bytes holds no pack archive header";
        return false;
    }
    if (!loadHeader(bytes, header) || header.version != kVersion)
    {
        error = "not a pack archive of version 1";
        return false;
    }
    if (header.entryCount == 0)
    {
        error = "the archive holds no entries";
        return false;
    }
    // Archives of old had a 40-byte header; with the overflow fields it has 56, and entries below that would
    // lie under the header that closing the archive writes, so such a data start is refused too.
    if (header.dataStart < kHeaderSize)
    {
        error = "data start " + std::to_string(header.dataStart) + " lies inside the header";
        return false;
    }
    const bool trailers = (header.flags & kFlagTrailer) != 0;
    if (header.trailerSize != (trailers ? kTrailerSize : 0))
    {
        error = "trailer size " + std::to_string(header.trailerSize) + " does not match the flags " +
                std::to_string(header.flags);
        return false;
    }
    return true;
}

// The directory's bytes: in the area, and behind the data when they did not fit.
bool readDirectoryBytes(ArchiveInterface& file, uint64_t fileSize, const Header& header,
                        std::vector<uint8_t>& bytes, uint64_t& areaUsed, std::string& error)
{
    const uint64_t total = uint64_t(header.nameDirectorySize) + header.sizeTableSize;
    const uint64_t area = directoryArea(header);
    areaUsed = std::min(total, area);
    const uint64_t overflow = total - areaUsed;
    const bool overflowFits = header.overflowOffset >= header.dataStart && header.overflowOffset <= fileSize &&
                              header.overflowSize <= fileSize - header.overflowOffset;
    if (kHeaderSize + areaUsed > fileSize || header.overflowSize != overflow || (overflow != 0 && !overflowFits))
    {
        error = "directory sizes do not fit the file (" + std::to_string(total) + " bytes, overflow of " +
                std::to_string(header.overflowSize) + " at " + std::to_string(header.overflowOffset) +
                ", file of " + std::to_string(fileSize) + ")";
        return false;
    }
    bytes.resize(size_t(total));
    if ((areaUsed != 0 && file.Read(bytes.data(), kHeaderSize, areaUsed) == 0) ||
        (overflow != 0 && file.Read(bytes.data() + areaUsed, header.overflowOffset, overflow) == 0))
    {
        error = "directory could not be read: " + file.lastError();
        return false;
    }
    return true;
}

bool placeEntries(const Header& header, uint64_t fileSize, Directory& directory, std::string& error)
{
    // Entries must end before the directory's overflow, which is written behind them.
    const uint64_t limit = header.overflowSize != 0 ? header.overflowOffset : fileSize;
    uint64_t offset = header.dataStart;
    directory.offsets.reserve(directory.storedSizes.size());
    for (const uint32_t size : directory.storedSizes)
    {
        directory.offsets.push_back(offset);
        offset += uint64_t(size) + header.trailerSize;
        if (offset > limit)
        {
            error = "entry " + std::to_string(directory.offsets.size() - 1) + " ends at " + std::to_string(offset) +
                    ", past the data's end at " + std::to_string(limit);
            return false;
        }
    }
    directory.dataEnd = offset;
    return true;
}

bool readNames(std::span<const uint8_t> streams, const Header& header, Directory& directory, std::string& error)
{
    const auto tree = streams.first(header.treeStreamSize);
    const auto labels = streams.subspan(header.treeStreamSize);
    const uint64_t budget = kNameCharactersAlways + kNameCharactersPerStreamByte * streams.size();
    std::vector<bool> named(header.entryCount, false);
    const NameVisitor visit = [&](std::u16string_view name, std::span<const uint32_t> entries)
    {
        for (const uint32_t entry : entries)
        {
            if (entry >= header.entryCount || named[entry])
            {
                error = "name tree: entry " + std::to_string(entry) +
                        (entry >= header.entryCount ? " does not exist" : " is given to two names");
                return false;
            }
            named[entry] = true;
        }
        if (name.size() + (name.starts_with(u'/') ? 0 : 1) > kLongestName)
        {
            error = "name tree: a name longer than " + std::to_string(kLongestName) + " characters";
            return false;
        }
        // A name written more than once lists its copies; the last one is what it reads.
        directory.names.emplace_back(normalizedBlobName(fromUtf16(name)), entries.back());
        return true;
    };
    return unpackNames(tree, labels, budget, visit, error) && error.empty();
}

// One name each: a name that became equal to another by its leading slash reads the later entry.
void dropRepeatedNames(std::vector<std::pair<std::string, uint32_t>>& names)
{
    std::sort(names.begin(), names.end());
    std::vector<std::pair<std::string, uint32_t>> unique;
    unique.reserve(names.size());
    for (auto& named : names)
    {
        if (!unique.empty() && unique.back().first == named.first)
        {
            unique.back().second = named.second;
        }
        else
        {
            unique.push_back(std::move(named));
        }
    }
    names = std::move(unique);
}

}  // namespace

bool readDirectory(ArchiveInterface& file, Directory& directory, std::string& error)
{
    const uint64_t fileSize = file.GetArchiveSize();
    Header& header = directory.header;
    std::vector<uint8_t> bytes;
    if (!readHeader(file, fileSize, header, error) ||
        !readDirectoryBytes(file, fileSize, header, bytes, directory.areaUsed, error))
    {
        return false;
    }
    const std::span<const uint8_t> all(bytes);
    std::vector<uint8_t> streams;
    std::vector<uint8_t> sizeTable;
    if (!decompressBlock(all.first(header.nameDirectorySize),
                         uint64_t(header.treeStreamSize) + header.labelStreamSize, streams, error) ||
        !decompressBlock(all.subspan(header.nameDirectorySize), uint64_t(header.entryCount) * 4, sizeTable, error))
    {
        error = "directory: " + error;
        return false;
    }
    directory.storedSizes.resize(header.entryCount);
    for (size_t i = 0; i < directory.storedSizes.size(); ++i)
    {
        directory.storedSizes[i] = little_endian::load<uint32_t>(sizeTable.data() + 4 * i);
    }
    if (!placeEntries(header, fileSize, directory, error) || !readNames(streams, header, directory, error))
    {
        return false;
    }
    dropRepeatedNames(directory.names);
    return true;
}

bool writeDirectory(ArchiveInterface& file, Directory& directory, std::string& error)
{
    Header& header = directory.header;
    std::vector<NamedEntry> named;
    named.reserve(directory.names.size());
    for (const auto& [name, entry] : directory.names)
    {
        named.push_back({toUtf16(name), entry});
    }
    NameStreams streams = packNames(std::move(named));
    std::vector<uint8_t> sizeTable;
    sizeTable.reserve(directory.storedSizes.size() * 4);
    for (const uint32_t size : directory.storedSizes)
    {
        little_endian::append(sizeTable, size);
    }
    const uint64_t streamBytes = streams.tree.size() + streams.labels.size();
    std::vector<uint8_t> nameBlock;
    std::vector<uint8_t> sizeBlock;
    streams.tree.insert(streams.tree.end(), streams.labels.begin(), streams.labels.end());
    if (streamBytes > UINT32_MAX || directory.storedSizes.size() > UINT32_MAX ||
        !compressBlock(streams.tree, nameBlock) || !compressBlock(sizeTable, sizeBlock))
    {
        error = "directory of " + std::to_string(directory.storedSizes.size()) + " entries could not be compressed";
        return false;
    }
    header.entryCount = uint32_t(directory.storedSizes.size());
    header.treeStreamSize = uint32_t(streams.tree.size() - streams.labels.size());
    header.labelStreamSize = uint32_t(streams.labels.size());
    header.nameDirectorySize = uint32_t(nameBlock.size());
    header.sizeTableSize = uint32_t(sizeBlock.size());
    nameBlock.insert(nameBlock.end(), sizeBlock.begin(), sizeBlock.end());

    const uint64_t area = directoryArea(header);
    const uint64_t inArea = std::min<uint64_t>(nameBlock.size(), area);
    const uint64_t overflow = nameBlock.size() - inArea;
    header.overflowOffset = overflow != 0 ? directory.dataEnd : 0;
    header.overflowSize = overflow;
    uint8_t headerBytes[kHeaderSize];
    storeHeader(header, headerBytes);
    // What an earlier, longer directory left in the area is zeroed, so the area reads as the format says.
    const std::vector<uint8_t> zeros(size_t(directory.areaUsed > inArea ? directory.areaUsed - inArea : 0), 0);
    const bool written =
        file.Truncate(directory.dataEnd + overflow) && file.Write(headerBytes, 0, kHeaderSize) == kHeaderSize &&
        (inArea == 0 || file.Write(nameBlock.data(), kHeaderSize, inArea) == inArea) &&
        (zeros.empty() || file.Write(zeros.data(), kHeaderSize + inArea, zeros.size()) == zeros.size()) &&
        (overflow == 0 || file.Write(nameBlock.data() + inArea, directory.dataEnd, overflow) == overflow);
    if (!written)
    {
        error = "directory could not be written: " + file.lastError();
        return false;
    }
    directory.areaUsed = inArea;
    return true;
}

}  // namespace HSPC::pack
