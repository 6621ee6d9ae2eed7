// File handling of the HSPC engine: positioned reads and writes, the per-request size limit and the fixed
// failure texts, non-ASCII paths, and the adapters for a host's blob callbacks.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <numeric>
#include <stdexcept>

#include "hspc/format/FileHandler.h"
#include "hspc/format/Utf8Text.h"
#include "support/LittleEndianBytes.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

TEST(HspcFileHandler, WritesAndReadsAtOffsetsUnderNonAsciiNames)
{
    pcp_test::TempFolder folder;
    const std::wstring path = folder.file(L"blöb-点群.bin");
    const std::vector<uint8_t> head = pcp_test::countingBytes(100, 0);
    const std::vector<uint8_t> tail = pcp_test::countingBytes(50, 200);
    {
        FileHandler writer(path, FileHandler::Mode::kWrite);
        ASSERT_TRUE(writer.isValid()) << writer.lastErrorDetail();
        ASSERT_TRUE(writer.write(1000, tail.data(), tail.size()));  // the hole before it reads as zeros
        ASSERT_TRUE(writer.write(0, head.data(), head.size()));
        EXPECT_EQ(writer.size(), std::optional<uint64_t>(1050));
        EXPECT_EQ(writer.lastError(), "");
    }
    // The name on disk is the UTF-8 form of the wide name.
    EXPECT_TRUE(std::filesystem::exists(folder.path() / std::filesystem::path(u8"blöb-点群.bin")));

    FileHandler reader(path, FileHandler::Mode::kRead);
    ASSERT_TRUE(reader.isValid()) << reader.lastErrorDetail();
    std::vector<uint8_t> bytes(60, 0xee);
    ASSERT_TRUE(reader.read(990, bytes.size(), bytes.data()));
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 10), std::vector<uint8_t>(10, 0));
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 10, bytes.end()), tail);
    ASSERT_TRUE(reader.read(10, 5, bytes.data()));
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 5), pcp_test::countingBytes(5, 10));
    EXPECT_TRUE(reader.read(1050, 0, bytes.data()));
    // A handler opened for reading cannot write.
    EXPECT_FALSE(reader.write(0, head.data(), 1));
    EXPECT_EQ(reader.lastError(), " FileHandler : writing did not succeed.");

    // Read-write keeps what is there and updates in place; write starts the file anew.
    {
        FileHandler updater(toUtf8(path), FileHandler::Mode::kReadWrite);
        const uint8_t patch[2] = {0xaa, 0xbb};
        ASSERT_TRUE(updater.write(1, patch, 2));
        EXPECT_EQ(updater.size(), std::optional<uint64_t>(1050));
        ASSERT_TRUE(updater.read(0, 4, bytes.data()));
        EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4),
                  (std::vector<uint8_t>{0, 0xaa, 0xbb, 3}));
    }
    FileHandler rewriter(path, FileHandler::Mode::kWrite);
    EXPECT_EQ(rewriter.size(), std::optional<uint64_t>(0));
}

TEST(HspcFileHandler, RefusesRequestsAbove4GBBeforeTouchingTheBuffer)
{
    pcp_test::TempFolder folder;
    const std::wstring path = folder.file(L"small.bin");
    const std::vector<uint8_t> content = pcp_test::countingBytes(16, 1);
    FileHandler file(path, FileHandler::Mode::kReadWrite);
    ASSERT_TRUE(file.write(0, content.data(), content.size()));

    // A buffer of 16 bytes: the refused requests must not read or write any of it.
    std::vector<uint8_t> buffer(16, 0);
    EXPECT_FALSE(file.read(0, FileHandler::kMaxRequestBytes + 1, buffer.data()));
    EXPECT_EQ(file.lastError(), " FileHandler : read : requested buffer size larger than 4GB.");
    EXPECT_EQ(buffer, std::vector<uint8_t>(16, 0));
    EXPECT_FALSE(file.write(0, buffer.data(), FileHandler::kMaxRequestBytes + 1));
    EXPECT_EQ(file.lastError(), " FileHandler : write : requested buffer size larger than 4GB.");
    EXPECT_EQ(file.size(), std::optional<uint64_t>(16));

    // Exactly 0xFFFFFFFF bytes pass the limit: the request reaches the file, which ends after 16 bytes.
    EXPECT_FALSE(file.read(0, FileHandler::kMaxRequestBytes, buffer.data()));
    EXPECT_EQ(file.lastError(), " FileHandler : reading did not succeed.");
    EXPECT_EQ(buffer, content);
}

TEST(HspcFileHandler, FailuresLeaveTheirFixedTexts)
{
    pcp_test::TempFolder folder;
    const std::wstring missing = folder.file(L"fehlt-ä.bin");
    FileHandler absent(missing, FileHandler::Mode::kRead);
    EXPECT_FALSE(absent.isValid());
    EXPECT_EQ(absent.lastError(), "File handler invalid. Windows system error code = 2");
    EXPECT_NE(absent.lastErrorDetail().find(toUtf8(missing)), std::string::npos) << absent.lastErrorDetail();
    uint8_t byte = 0;
    EXPECT_FALSE(absent.read(0, 1, &byte));
    EXPECT_EQ(absent.lastError(), " FileHandler : reading did not succeed.");
    EXPECT_FALSE(absent.size().has_value());
    EXPECT_EQ(absent.lastError(), " FileHandler : could not determine file size.");
    EXPECT_FALSE(std::filesystem::exists(folder.path() / std::filesystem::path(toUtf8(L"fehlt-ä.bin"))));

    FileHandler append(folder.file(L"append.bin"), FileHandler::Mode::kAppend);
    EXPECT_FALSE(append.isValid());
    EXPECT_EQ(append.lastError(), " FileHandler : append mode in windows not yet implemented.");

    // A short read fails even though some bytes arrived.
    const std::wstring shortPath = folder.file(L"short.bin");
    {
        FileHandler writer(shortPath, FileHandler::Mode::kWrite);
        const std::vector<uint8_t> ten = pcp_test::countingBytes(10, 0);
        ASSERT_TRUE(writer.write(0, ten.data(), ten.size()));
    }
    FileHandler reader(shortPath, FileHandler::Mode::kRead);
    std::vector<uint8_t> buffer(20);
    EXPECT_FALSE(reader.read(0, 20, buffer.data()));
    EXPECT_EQ(reader.lastError(), " FileHandler : reading did not succeed.");
    EXPECT_FALSE(reader.read(11, 1, buffer.data()));
    EXPECT_TRUE(reader.read(2, 8, buffer.data()));
    // Offsets beyond what the system can address fail instead of wrapping.
    EXPECT_FALSE(reader.read(UINT64_MAX - 2, 4, buffer.data()));
    EXPECT_EQ(reader.lastError(), " FileHandler : reading did not succeed.");

    // A full disk.
    FileHandler full(std::string("/dev/full"), FileHandler::Mode::kReadWrite);
    if (full.isValid())
    {
        EXPECT_FALSE(full.write(0, buffer.data(), buffer.size()));
        EXPECT_EQ(full.lastError(), " FileHandler : writing did not succeed.");
        EXPECT_NE(full.lastErrorDetail().find("No space left"), std::string::npos) << full.lastErrorDetail();
    }
}

TEST(HspcBlobCallbacks, AdaptHostCallbacksAndContainTheirFailures)
{
    std::wstring seenName;
    const BlobReadFn read = wrapReadFn(
        [&](const std::wstring& name, std::vector<uint8_t>& bytes)
        {
            seenName = name;
            if (name == L"/missing")
            {
                return false;
            }
            if (name == L"/throws")
            {
                throw std::runtime_error("host failure");
            }
            bytes = {4, 5};
            return true;
        });
    std::vector<uint8_t> bytes{1, 2, 3};
    EXPECT_TRUE(read(toUtf8(L"/0/1/Lä点"), bytes));
    EXPECT_EQ(seenName, L"/0/1/Lä点");
    EXPECT_EQ(bytes, (std::vector<uint8_t>{1, 2, 3, 4, 5}));  // appended
    EXPECT_FALSE(read("/missing", bytes));
    EXPECT_FALSE(read("/throws", bytes));
    EXPECT_EQ(bytes.size(), 5u);

    std::vector<uint8_t> written;
    const BlobWriteFn write = wrapWriteFn(
        [&](const std::wstring& name, const uint8_t* data, uint64_t size)
        {
            if (name != L"/tree.hspc")
            {
                throw std::logic_error("unexpected name");
            }
            written.assign(data, data + size);
            return true;
        });
    EXPECT_TRUE(write("/tree.hspc", {9, 8, 7}));
    EXPECT_EQ(written, (std::vector<uint8_t>{9, 8, 7}));
    EXPECT_FALSE(write("/other", {1}));

    EXPECT_FALSE(wrapReadFn(nullptr)("/a", bytes));
    EXPECT_FALSE(wrapWriteFn(nullptr)("/a", {1}));
}

TEST(HspcUtf8Text, ConvertsBothWaysAndReplacesWhatCannotBeConverted)
{
    const std::wstring wide = L"a-ä-点群-\U0001F600";
    const std::string utf8 = toUtf8(wide);
    EXPECT_EQ(utf8, std::string(reinterpret_cast<const char*>(u8"a-ä-点群-\U0001F600")));
    EXPECT_EQ(fromUtf8(utf8), wide);
    // Truncated, overlong, surrogate and stray continuation sequences.
    EXPECT_EQ(fromUtf8("x\xe7\x82"), L"x\xFFFD");
    EXPECT_EQ(fromUtf8("\xc0\xaf"), L"\xFFFD");
    EXPECT_EQ(fromUtf8("\xed\xa0\x80z"), L"\xFFFDz");
    EXPECT_EQ(fromUtf8("\x80q"), L"\xFFFDq");
    EXPECT_EQ(toUtf8(std::wstring(1, wchar_t(0xD800))), "\xef\xbf\xbd");
    EXPECT_EQ(toUtf8(std::wstring(1, wchar_t(0x110000))), "\xef\xbf\xbd");
}

}  // namespace
