// Pack archives: the exact bytes of the header, directory and entries, the directory's overflow, replaced
// copies and purge, many writer threads on one handler, and archives from other writers, broken ones among
// them.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hspc/format/LittleEndian.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/format/Utf8Text.h"
#include "hspc/store/ArchiveHandler.h"
#include "hspc/store/DiskArchive.h"
#include "hspc/store/PackCodec.h"
#include "support/FileText.h"
#include "support/FuzzCorpus.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"

using namespace HSPC;
namespace le = HSPC::little_endian;

namespace
{

using Bytes = std::vector<uint8_t>;

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

// What compressBlock makes, by zlib alone: the size as u32, then a level 9 stream.
Bytes zlibBlock(const Bytes& block)
{
    uLongf length = compressBound(uLong(block.size()));
    Bytes out(4 + length);
    le::store(out.data(), uint32_t(block.size()));
    EXPECT_EQ(compress2(out.data() + 4, &length, block.data(), uLong(block.size()), 9), Z_OK);
    out.resize(4 + length);
    return out;
}

// An archive put together from its parts as the format lays them out: header, directory at 56, zeros up to
// the data start, the entries' stored bytes as given (trailers included).
struct PackParts
{
    uint32_t flags = 0;
    uint32_t dataStart = 0x1000038;
    uint32_t trailerSize = 0;
    Bytes tree;
    Bytes labels;
    std::vector<uint32_t> storedSizes;
    Bytes entries;
};

Bytes assemble(const PackParts& parts)
{
    Bytes streams = parts.tree;
    streams.insert(streams.end(), parts.labels.begin(), parts.labels.end());
    Bytes sizes;
    for (const uint32_t size : parts.storedSizes)
        le::append(sizes, size);
    const Bytes nameBlock = zlibBlock(streams);
    const Bytes sizeBlock = zlibBlock(sizes);
    Bytes file(56);
    std::memcpy(file.data(), "mMPK", 4);
    le::store(file.data() + 4, uint32_t(1));
    le::store(file.data() + 8, parts.flags);
    le::store(file.data() + 12, uint32_t(parts.storedSizes.size()));
    le::store(file.data() + 16, uint32_t(parts.tree.size()));
    le::store(file.data() + 20, uint32_t(parts.labels.size()));
    le::store(file.data() + 24, uint32_t(nameBlock.size()));
    le::store(file.data() + 28, uint32_t(sizeBlock.size()));
    le::store(file.data() + 32, parts.dataStart);
    le::store(file.data() + 36, parts.trailerSize);
    file.insert(file.end(), nameBlock.begin(), nameBlock.end());
    file.insert(file.end(), sizeBlock.begin(), sizeBlock.end());
    EXPECT_LE(file.size(), parts.dataStart) << "the directory must fit the area in these tests";
    file.resize(parts.dataStart, 0);
    file.insert(file.end(), parts.entries.begin(), parts.entries.end());
    return file;
}

// Three names, written in this order: "/tree.hspc" (entry 0), "/hspcInfo.json" (1), "/tree.json" (2). The
// tree, with each name ending in a 0 character:
//   root ""  -> "/"  -> "hspcInfo.json\0" (entry 1)
//                    -> "tree."  -> "hspc\0" (entry 0)
//                                -> "json\0" (entry 2)
// Labels in breadth-first order: "/" at 0, "hspcInfo.json\0" at 1, "tree." at 15, "hspc\0" at 20, "json\0"
// at 25.
PackParts threeNames()
{
    PackParts parts;
    parts.tree = {0x00, 0x00, 0x01, 0x00, '/',             // root: no label, one child at 0 with '/'
                  0x00, 0x01, 0x02, 0x00, 'h', 0x04, 't',  // "/": children 'h' at 0 and 't' at 4
                  0x01, 0x0E, 0x00, 0x01,                  // "hspcInfo.json\0": leaf of entry 1
                  0x0F, 0x05, 0x02, 0x00, 'h', 0x04, 'j',  // "tree.": children 'h' at 0 and 'j' at 4
                  0x14, 0x05, 0x00, 0x00,                  // "hspc\0": leaf of entry 0
                  0x19, 0x05, 0x00, 0x02};                 // "json\0": leaf of entry 2
    const std::string labels("/hspcInfo.json\0tree.hspc\0json\0", 30);
    parts.labels = text(labels);
    return parts;
}

Bytes readBlob(ArchiveHandler& handler, const std::string& name)
{
    Bytes bytes;
    const bool read = handler.read(name,
                                   [&](uint64_t size)
                                   {
                                       bytes.resize(size_t(size));
                                       return bytes.data();
                                   });
    return read ? bytes : Bytes{};
}

Bytes fileBytes(const std::filesystem::path& path)
{
    const std::string content = pcp_test::readText(path);
    return Bytes(content.begin(), content.end());
}

TEST(HspcPackArchive, WritesTheBytesOfTheFormat)
{
    pcp_test::TempFolder temp;
    const std::string path = (temp.path() / "tree.hspc.pack").string();
    {
        DiskWriteArchive writer(path);
        EXPECT_EQ(writer.location(), path);
        ASSERT_TRUE(writer.write("/tree.hspc", text("abc")));
        ASSERT_TRUE(writer.write("hspcInfo.json", text("{}")));
        ASSERT_TRUE(writer.write("/tree.json", text("wxyz")));
    }
    PackParts expected = threeNames();
    expected.storedSizes = {3, 2, 4};
    expected.entries = text("abc{}wxyz");
    const Bytes written = fileBytes(path);
    ASSERT_EQ(written.size(), 0x1000038u + 9);
    EXPECT_TRUE(written == assemble(expected));

    // Reading these bytes back is for the tests of other writers' archives below; here only the name order.
    EXPECT_EQ(DiskReadArchive(path).handler()->names(),
              (std::vector<std::string>{"/hspcInfo.json", "/tree.hspc", "/tree.json"}));
}

TEST(HspcPackArchive, VariableLengthNumbersPutTheHighGroupFirst)
{
    Bytes stream;
    for (const uint32_t value : {0u, 127u, 128u, 300u, 0xFFFFFFFFu})
        pack::appendVarUint(stream, value);
    EXPECT_EQ(stream, (Bytes{0x00, 0x7F, 0x81, 0x00, 0x82, 0x2C, 0x8F, 0xFF, 0xFF, 0xFF, 0x7F}));
    size_t position = 0;
    uint32_t value = 0;
    for (const uint32_t expected : {0u, 127u, 128u, 300u, 0xFFFFFFFFu})
    {
        ASSERT_TRUE(pack::readVarUint(stream, position, value));
        EXPECT_EQ(value, expected);
    }
    EXPECT_FALSE(pack::readVarUint(stream, position, value));  // the stream has ended
    const Bytes tooLong{0x90, 0x80, 0x80, 0x80, 0x00};         // 2^32
    position = 0;
    EXPECT_FALSE(pack::readVarUint(tooLong, position, value));
}

TEST(HspcPackArchive, ReadsCompressedEntriesAndCheckedTrailers)
{
    // flags 7: zlib entries, trailers, CRC-32 in the trailer.
    PackParts parts = threeNames();
    parts.flags = 7;
    parts.trailerSize = 128;
    parts.dataStart = 4096;
    const std::vector<std::pair<std::string, Bytes>> contents{
        {"/tree.hspc", Bytes(5000, 'a')}, {"/hspcInfo.json", text("{\"x\":1}")}, {"/tree.json", text("[]")}};
    for (const auto& [name, content] : contents)
    {
        const Bytes stored = zlibBlock(content);
        Bytes trailer(128, 0);
        le::store(trailer.data(), uint32_t(stored.size()));
        le::store(trailer.data() + 4, uint32_t(crc32(0, stored.data(), uInt(stored.size()))));
        std::memcpy(trailer.data() + 12, name.data(), name.size());
        parts.storedSizes.push_back(uint32_t(stored.size()));
        parts.entries.insert(parts.entries.end(), stored.begin(), stored.end());
        parts.entries.insert(parts.entries.end(), trailer.begin(), trailer.end());
    }
    const Bytes file = assemble(parts);
    {
        ArchiveHandler handler(std::make_shared<MemoryArchive>(file));
        ASSERT_TRUE(handler.isOpen());
        for (const auto& [name, content] : contents)
            EXPECT_EQ(readBlob(handler, name), content) << name;
    }
    // Appending to such an archive keeps its flags, so what it holds stays readable by one rule.
    auto updated = std::make_shared<MemoryArchive>(file, pack::FileMode::kUpdate);
    {
        ArchiveHandler handler(updated);
        ASSERT_TRUE(handler.write("/new", Bytes(3000, 'n')));
        EXPECT_EQ(readBlob(handler, "/new"), Bytes(3000, 'n'));
    }
    {
        ArchiveHandler handler(std::make_shared<MemoryArchive>(updated->bytes()));
        EXPECT_EQ(readBlob(handler, "/new"), Bytes(3000, 'n'));
        EXPECT_EQ(readBlob(handler, "/tree.hspc"), Bytes(5000, 'a'));
    }

    // A flipped bit in the first entry fails its CRC; the others still read.
    Bytes damaged = file;
    damaged[parts.dataStart + 10] ^= 0x01;
    pcp_test::MessageLog errors;
    ArchiveHandler handler(std::make_shared<MemoryArchive>(damaged), errors.logger());
    EXPECT_TRUE(readBlob(handler, "/tree.hspc").empty());
    EXPECT_EQ(readBlob(handler, "/tree.json"), text("[]"));
    ASSERT_EQ(errors.lines.size(), 1u);
    EXPECT_EQ(errors.lines[0],
              "ArchiveHandler: memory-archive: cannot read /tree.hspc: entry fails its CRC-32 check");
}

TEST(HspcPackArchive, ReplacedCopiesReadTheLastAndPurgeClosesTheHoles)
{
    pcp_test::TempFolder temp;
    const std::string path = (temp.path() / "set.hspca").string();
    auto handler = openArchive(path, pack::FileMode::kCreate);
    DiskWriteArchive writer(handler);
    DiskReadArchive reader(handler);  // shares the handler: what is written reads back before closing
    ASSERT_TRUE(writer.write("/a", Bytes(1000, 1)));
    ASSERT_TRUE(writer.write("/ab", Bytes(10, 2)));  // a name that begins with another
    ASSERT_TRUE(writer.write("/a", Bytes(500, 3)));
    ASSERT_TRUE(writer.write("/c/点云.apr", Bytes(20, 4)));
    ASSERT_TRUE(writer.write("/gone", Bytes(30, 5)));
    EXPECT_TRUE(writer.remove("/gone"));
    EXPECT_FALSE(writer.remove("/gone"));
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(reader.read("/a", bytes));
    EXPECT_EQ(bytes, Bytes(500, 3));
    EXPECT_FALSE(reader.read("/gone", bytes));
    EXPECT_EQ(handler->entryCount(), 5u);
    EXPECT_EQ(std::filesystem::file_size(path), 0x1000038u + 1560);

    ASSERT_TRUE(handler->purge());
    EXPECT_EQ(handler->entryCount(), 3u);
    EXPECT_EQ(std::filesystem::file_size(path), 0x1000038u + 530);
    const std::vector<std::pair<std::string, Bytes>> expected{
        {"/a", Bytes(500, 3)}, {"/ab", Bytes(10, 2)}, {"/c/点云.apr", Bytes(20, 4)}};
    for (const auto& [name, content] : expected)
        EXPECT_EQ(readBlob(*handler, name), content) << name;
    ASSERT_TRUE(handler->close());
    EXPECT_FALSE(writer.write("/late", Bytes(1, 1)));

    // Opened again for update: new entries go behind the old ones, the old ones stay.
    {
        ArchiveHandler update(std::make_shared<FileInterface>(path, pack::FileMode::kUpdate));
        ASSERT_TRUE(update.isOpen());
        ASSERT_TRUE(update.write("/d", Bytes(7, 6)));
    }
    ArchiveHandler reopened(std::make_shared<FileInterface>(path, pack::FileMode::kRead));
    EXPECT_EQ(reopened.names(), (std::vector<std::string>{"/a", "/ab", "/c/点云.apr", "/d"}));
    for (const auto& [name, content] : expected)
        EXPECT_EQ(readBlob(reopened, name), content) << name;
    EXPECT_EQ(readBlob(reopened, "/d"), Bytes(7, 6));
    pcp_test::MessageLog errors;
    EXPECT_FALSE(ArchiveHandler(std::make_shared<FileInterface>(path, pack::FileMode::kRead), errors.logger())
                     .write("/x", Bytes(1, 0)));
    EXPECT_EQ(errors.lines,
              std::vector<std::string>{"ArchiveHandler: " + path +
                                       ": cannot write /x: the archive is not open for writing"});

    // "rb+" does not create a missing archive.
    errors.lines.clear();
    ArchiveHandler missing(
        std::make_shared<FileInterface>((temp.path() / "none.hspca").string(), pack::FileMode::kUpdate),
        errors.logger());
    EXPECT_FALSE(missing.isOpen());
    EXPECT_FALSE(std::filesystem::exists(temp.path() / "none.hspca"));
    ASSERT_EQ(errors.lines.size(), 1u);
    EXPECT_NE(errors.lines[0].find("File handler invalid. Windows system error code = 2"), std::string::npos);
}

// Random characters that take two bytes each in the label stream do not compress, so that a few thousand
// long names outgrow the directory area.
std::vector<std::string> incompressibleNames(size_t count)
{
    std::mt19937 random(16);
    std::uniform_int_distribution<uint32_t> character(0x100, 0x3FFF);
    std::vector<std::string> names;
    names.reserve(count);
    for (size_t i = 0; i < count; ++i)
    {
        std::u16string name = u"/";
        for (int c = 0; c < 1500; ++c)
            name.push_back(char16_t(character(random)));
        names.push_back(fromUtf16(name));
    }
    return names;
}

TEST(HspcPackArchive, ADirectoryBeyondItsAreaGoesBehindTheDataAndReadsBackWhole)
{
    const std::vector<std::string> names = incompressibleNames(6000);
    auto store = std::make_shared<MemoryArchive>(Bytes{}, pack::FileMode::kCreate);
    {
        ArchiveHandler handler(store);
        for (size_t i = 0; i < names.size(); ++i)
            ASSERT_TRUE(handler.write(names[i], Bytes{uint8_t(i)}));
    }
    pack::Header header;
    ASSERT_TRUE(pack::loadHeader(store->bytes().data(), header));
    const uint64_t directory = uint64_t(header.nameDirectorySize) + header.sizeTableSize;
    ASSERT_GT(directory, 0x1000000u) << "too few names to outgrow the area";
    EXPECT_EQ(header.overflowOffset, 0x1000038u + names.size());
    EXPECT_EQ(header.overflowSize, directory - 0x1000000u);
    EXPECT_EQ(store->bytes().size(), header.overflowOffset + header.overflowSize);

    // Opened for update, the first new entry replaces the overflow, which closing writes anew behind it.
    auto updated = std::make_shared<MemoryArchive>(store->bytes(), pack::FileMode::kUpdate);
    {
        ArchiveHandler handler(updated);
        ASSERT_TRUE(handler.isOpen());
        ASSERT_TRUE(handler.write("/last", text("end")));
    }
    ArchiveHandler reader(std::make_shared<MemoryArchive>(updated->bytes()));
    ASSERT_TRUE(reader.isOpen());
    EXPECT_EQ(reader.names().size(), names.size() + 1);
    for (size_t i = 0; i < names.size(); i += 7)
        ASSERT_EQ(readBlob(reader, names[i]), Bytes{uint8_t(i)}) << i;
    EXPECT_EQ(readBlob(reader, names.back()), Bytes{uint8_t(names.size() - 1)});
    EXPECT_EQ(readBlob(reader, "/last"), text("end"));
}

std::string threadedName(int thread, int i)
{
    return "/" + std::to_string(i % 16) + "/" + std::to_string(i % 7) + "/L" + std::to_string(thread) + "X" +
           std::to_string(i) + ".apr";
}

Bytes threadedContent(int thread, int i, int round)
{
    Bytes bytes(size_t(8 + (i % 50)));
    std::iota(bytes.begin(), bytes.end(), uint8_t(thread * 31 + i + round * 7));
    return bytes;
}

TEST(HspcPackArchive, WriterThreadsShareOneHandler)
{
    pcp_test::TempFolder temp;
    const std::string path = (temp.path() / "tree.hspc.pack").string();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 25000;
    auto handler = openArchive(path, pack::FileMode::kCreate);
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                DiskWriteArchive writer(handler);
                for (int i = 0; i < kPerThread; ++i)
                    failures[size_t(t)] += writer.write(threadedName(t, i), threadedContent(t, i, 0)) ? 0 : 1;
                // Every tenth name again: the hole its first copy leaves is for purge.
                for (int i = 0; i < kPerThread; i += 10)
                    failures[size_t(t)] += writer.write(threadedName(t, i), threadedContent(t, i, 1)) ? 0 : 1;
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));

    const auto checkAll = [&](ArchiveHandler& archive)
    {
        size_t wrong = 0;
        for (int t = 0; t < kThreads; ++t)
            for (int i = 0; i < kPerThread; ++i)
                wrong += readBlob(archive, threadedName(t, i)) != threadedContent(t, i, i % 10 == 0 ? 1 : 0);
        return wrong;
    };
    EXPECT_EQ(checkAll(*handler), 0u);
    EXPECT_EQ(handler->entryCount(), size_t(kThreads) * (kPerThread + kPerThread / 10));
    ASSERT_TRUE(handler->purge());
    EXPECT_EQ(handler->entryCount(), size_t(kThreads) * kPerThread);
    EXPECT_EQ(checkAll(*handler), 0u);
    handler.reset();  // the last owner closes the archive

    ArchiveHandler reopened(std::make_shared<FileInterface>(path, pack::FileMode::kRead));
    EXPECT_EQ(reopened.names().size(), size_t(kThreads) * kPerThread);
    EXPECT_EQ(checkAll(reopened), 0u);
}

TEST(HspcPackArchive, TheArchiveOptionWritesTreeHspcPackIntoTheOutputFolder)
{
    pcp_test::TempFolder temp;
    BasicConfig basic;
    basic.outputPath = temp.path().string();
    AdvancedConfig advanced;
    advanced.useArchive = true;
    advanced.infoLogger = nullptr;
    RuntimeConfig runtime;
    initializeRuntimeConfig(basic, advanced, runtime, MachineFigures{8});
    ASSERT_TRUE(runtime.rootWriter);
    EXPECT_EQ(runtime.rootWriter->location(), basic.outputPath + "/tree.hspc.pack");
    ASSERT_TRUE(runtime.rootWriter->write("/tree.hspc", text("tree")));
    runtime.rootWriter.reset();
    DiskReadArchive reader(basic.outputPath + "/tree.hspc.pack");
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(reader.read("/tree.hspc", bytes));
    EXPECT_EQ(bytes, text("tree"));
}

// Archives from other writers: every one of these is refused when it is opened, with its reason.
struct BrokenArchive
{
    std::string what;
    Bytes file;
    std::string reason;  // a part of the logged text
};

PackParts smallArchive()
{
    PackParts parts = threeNames();
    parts.dataStart = 512;
    parts.storedSizes = {3, 2, 4};
    parts.entries = text("abc{}wxyz");
    return parts;
}

std::vector<BrokenArchive> brokenArchives()
{
    std::vector<BrokenArchive> broken;
    const Bytes good = assemble(smallArchive());
    const auto patched = [&](size_t offset, uint32_t value)
    {
        Bytes file = good;
        le::store(file.data() + offset, value);
        return file;
    };
    const auto withParts = [](const std::function<void(PackParts&)>& change)
    {
        PackParts parts = smallArchive();
        change(parts);
        return assemble(parts);
    };
    broken.push_back({"short", Bytes(good.begin(), good.begin() + 39), "holds no pack archive header"});
    broken.push_back({"magic", patched(0, 0x4B504D4E), "not a pack archive of version 1"});
    broken.push_back({"version", patched(4, 2), "not a pack archive of version 1"});
    broken.push_back({"no entries", patched(12, 0), "the archive holds no entries"});
    broken.push_back({"data start", patched(32, 39), "lies inside the header"});
    // Entries there would lie under the overflow fields of the header.
    broken.push_back({"data start under the overflow fields", patched(32, 50), "lies inside the header"});
    broken.push_back({"trailer", patched(36, 128), "trailer size 128 does not match"});
    broken.push_back({"directory past the end", patched(24, 100000), "directory sizes do not fit the file"});
    broken.push_back({"overflow that lies", patched(48, 12), "directory sizes do not fit the file"});
    broken.push_back(
        {"stream sizes that lie", patched(16, 32), "announces 61 bytes where the header says 62"});
    broken.push_back(
        {"entry count that lies", patched(12, 4), "announces 12 bytes where the header says 16"});
    broken.push_back({"truncated entries", Bytes(good.begin(), good.end() - 1), "past the data's end"});
    broken.push_back({"entry past the end", withParts([](PackParts& p) { p.storedSizes[1] = 0xFFFFFFF0; }),
                      "past the data's end"});
    broken.push_back({"loop back to a record",
                      withParts([](PackParts& p) { p.tree[10] = 0x00; }),  // "/" gives 't' the offset of 'h'
                      "does not begin where the record before it ended"});
    broken.push_back({"child out of its stream", withParts([](PackParts& p) { p.tree[10] = 0x7F; }),
                      "does not begin where"});
    broken.push_back({"label past the stream", withParts([](PackParts& p) { p.tree[27] = 0x40; }),
                      "label offset 64 lies past the label stream"});
    broken.push_back({"label running out", withParts([](PackParts& p) { p.tree[28] = 0x09; }),
                      "a label runs past the label stream"});
    broken.push_back({"wrong first character", withParts([](PackParts& p) { p.tree[11] = 'u'; }),
                      "does not begin with the character its parent gives"});
    broken.push_back({"record cut short",
                      withParts([](PackParts& p) { p.tree.erase(p.tree.end() - 2, p.tree.end()); }),
                      "runs past the end of the tree stream"});
    broken.push_back({"entries that overlap", withParts([](PackParts& p) { p.tree[30] = 0x00; }),
                      "entry 0 is given to two names"});
    broken.push_back({"entry that does not exist", withParts([](PackParts& p) { p.tree[30] = 0x03; }),
                      "entry 3 does not exist"});
    broken.push_back({"leaf that lists too much",
                      withParts(
                          [](PackParts& p)
                          {
                              // 1 - 100 as a five-byte number: a leaf of 100 entries in a stream of one byte.
                              p.tree.erase(p.tree.begin() + 29, p.tree.end());
                              p.tree.insert(p.tree.end(), {0x8F, 0xFF, 0xFF, 0xFF, 0x1D, 0x02});
                          }),
                      "a leaf lists more entries than its stream holds"});
    return broken;
}

TEST(HspcPackArchiveBadInput, RefusesArchivesThatDoNotHoldTogether)
{
    {
        ArchiveHandler good(std::make_shared<MemoryArchive>(assemble(smallArchive())));
        ASSERT_TRUE(good.isOpen());
        EXPECT_EQ(readBlob(good, "/tree.json"), text("wxyz"));
    }
    for (const BrokenArchive& archive : brokenArchives())
    {
        pcp_test::MessageLog errors;
        ArchiveHandler handler(std::make_shared<MemoryArchive>(archive.file), errors.logger());
        EXPECT_FALSE(handler.isOpen()) << archive.what;
        ASSERT_EQ(errors.lines.size(), 1u) << archive.what;
        EXPECT_NE(errors.lines[0].find(archive.reason), std::string::npos)
            << archive.what << ": " << errors.lines[0];
        EXPECT_TRUE(readBlob(handler, "/tree.json").empty()) << archive.what;
    }
    // Every shorter piece of a good archive is refused.
    const Bytes good = assemble(smallArchive());
    for (size_t length = 0; length < good.size(); ++length)
    {
        ArchiveHandler handler(
            std::make_shared<MemoryArchive>(Bytes(good.begin(), good.begin() + ptrdiff_t(length))), nullptr);
        EXPECT_FALSE(handler.isOpen()) << length;
    }
}

TEST(HspcPackArchiveBadInput, ReplaysTheFuzzCorpus)
{
    size_t opened = 0;
    const size_t replayed = pcp_test::replayFuzzCorpus(
        "pack_directory",
        [&](const std::string& content, const std::filesystem::path&)
        {
            ArchiveHandler handler(std::make_shared<MemoryArchive>(Bytes(content.begin(), content.end())),
                                   nullptr);
            if (!handler.isOpen())
                return;
            ++opened;
            for (const std::string& name : handler.names())
                readBlob(handler, name);
        });
    EXPECT_GT(replayed, 0u);
    EXPECT_GT(opened, 0u);  // the seeds are valid archives
}

}  // namespace
