// Where the blobs of an HSPC data set live: folders, a host's callbacks, pack archives, and the path rules
// that tell them apart.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "hspc/store/CustomStore.h"
#include "hspc/store/DataSetPaths.h"
#include "hspc/store/FolderStore.h"
#include "support/LittleEndianBytes.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

TEST(HspcFolderStore, WritesBlobsIntoFoldersMadeOnDemandAndReadsThemBack)
{
    pcp_test::TempFolder temp;
    const std::string root = (temp.path() / "data-sät").string();
    pcp_test::MessageLog errors;
    FolderWriter writer(root, errors.logger());

    const std::vector<uint8_t> node = pcp_test::countingBytes(1000, 7);
    ASSERT_TRUE(writer.write("/3/12/L3X1Y2Z3.apr", node));
    ASSERT_TRUE(writer.write("tree.hspc", pcp_test::countingBytes(10, 1)));   // the leading slash is implied
    ASSERT_TRUE(writer.write("/tree.hspc", pcp_test::countingBytes(5, 50)));  // replaces the blob whole
    ASSERT_TRUE(writer.write("/empty", {}));
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(root) / "3" / "12" / "L3X1Y2Z3.apr"));

    FolderReader reader(root);
    std::vector<uint8_t> bytes{0xAA};
    ASSERT_TRUE(reader.read("/3/12/L3X1Y2Z3.apr", bytes));
    ASSERT_EQ(bytes.size(), 1001u);  // appended behind what the vector held
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 1, bytes.end()), node);
    std::vector<uint8_t> tree;
    ASSERT_TRUE(reader.read("tree.hspc", tree));
    EXPECT_EQ(tree, pcp_test::countingBytes(5, 50));

    // Missing and empty blobs read as false and leave the vector as it was.
    EXPECT_FALSE(reader.read("/empty", tree));
    EXPECT_FALSE(reader.read("/3/12/missing.apr", tree));
    EXPECT_EQ(tree, pcp_test::countingBytes(5, 50));

    EXPECT_TRUE(writer.remove("/tree.hspc"));
    EXPECT_FALSE(writer.remove("/tree.hspc"));
    EXPECT_FALSE(reader.read("/tree.hspc", tree));
    EXPECT_TRUE(errors.lines.empty());

    // A file standing where a folder is needed.
    ASSERT_TRUE(writer.write("/blocker", pcp_test::countingBytes(3, 0)));
    EXPECT_FALSE(writer.write("/blocker/node.apr", node));
    ASSERT_EQ(errors.lines.size(), 1u);
    EXPECT_EQ(errors.lines[0], "Failed to create directory for " + root + "/blocker/node.apr!\n");
}

TEST(HspcFolderStore, WriterThreadsShareOneWriter)
{
    pcp_test::TempFolder temp;
    const std::string root = temp.path().string();
    FolderWriter writer(root);
    constexpr int kThreads = 4;
    constexpr int kBlobsPerThread = 50;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                // Every thread creates the same folders at about the same time.
                for (int i = 0; i < kBlobsPerThread; ++i)
                {
                    const std::string name = "/" + std::to_string(i % 5) + "/" + std::to_string(i) + "/t" +
                                             std::to_string(t) + ".apr";
                    failures[size_t(t)] +=
                        writer.write(name, pcp_test::countingBytes(64, uint8_t(t + i))) ? 0 : 1;
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
    FolderReader reader(root);
    for (int t = 0; t < kThreads; ++t)
    {
        for (int i = 0; i < kBlobsPerThread; ++i)
        {
            std::vector<uint8_t> bytes;
            const std::string name =
                "/" + std::to_string(i % 5) + "/" + std::to_string(i) + "/t" + std::to_string(t) + ".apr";
            ASSERT_TRUE(reader.read(name, bytes)) << name;
            EXPECT_EQ(bytes, pcp_test::countingBytes(64, uint8_t(t + i))) << name;
        }
    }
}

TEST(HspcCustomStore, ForwardsToTheHostAndSaysWhatIsNotImplemented)
{
    std::map<std::string, std::vector<uint8_t>> hostStore;
    const BlobWriteFn hostWrite = [&](const std::string& name, const std::vector<uint8_t>& bytes)
    {
        if (name == "/throws")
            throw std::runtime_error("host failure");
        hostStore[name] = bytes;
        return true;
    };
    const BlobReadFn hostRead = [&](const std::string& name, std::vector<uint8_t>& bytes)
    {
        if (name == "/throws")
            throw std::runtime_error("host failure");
        const auto found = hostStore.find(name);
        if (found == hostStore.end())
            return false;
        bytes.insert(bytes.end(), found->second.begin(), found->second.end());
        return true;
    };
    pcp_test::MessageLog errors;
    CustomWriter writer(hostWrite, {}, errors.logger());
    ASSERT_TRUE(writer.write("hspcInfo.json", pcp_test::countingBytes(20, 3)));
    EXPECT_EQ(hostStore.count("/hspcInfo.json"), 1u);
    EXPECT_FALSE(writer.write("/throws", pcp_test::countingBytes(2, 0)));
    EXPECT_FALSE(writer.remove("/hspcInfo.json"));
    const std::string notImplemented =
        "Error: this function is not implemented as it is only in use in the query framework.";
    EXPECT_EQ(errors.lines, std::vector<std::string>{notImplemented});

    std::vector<std::string> removed;
    CustomWriter removing(hostWrite,
                          [&](const std::string& name)
                          {
                              removed.push_back(name);
                              return true;
                          });
    EXPECT_TRUE(removing.remove("node.apr"));
    EXPECT_EQ(removed, std::vector<std::string>{"/node.apr"});

    CustomArchiveWriter archiveWriter(hostWrite, errors.logger());
    ASSERT_TRUE(archiveWriter.write("/tree.hspc", pcp_test::countingBytes(4, 9)));
    EXPECT_FALSE(archiveWriter.remove("/tree.hspc"));
    EXPECT_EQ(errors.lines.size(), 2u);
    EXPECT_EQ(errors.lines.back(), notImplemented);

    CustomReader reader(hostRead);
    std::vector<uint8_t> bytes;
    ASSERT_TRUE(reader.read("/tree.hspc", bytes));
    EXPECT_EQ(bytes, pcp_test::countingBytes(4, 9));
    EXPECT_FALSE(reader.read("/missing", bytes));
    EXPECT_FALSE(reader.read("/throws", bytes));
    EXPECT_EQ(bytes, pcp_test::countingBytes(4, 9));
    hostStore["/empty"] = {};
    EXPECT_FALSE(reader.read("/empty", bytes));
    EXPECT_FALSE(CustomReader(nullptr).read("/tree.hspc", bytes));
    EXPECT_FALSE(CustomWriter(nullptr).write("/tree.hspc", bytes));
}

TEST(HspcDataSetPaths, TellArchivesAndTreeFilesApart)
{
    EXPECT_TRUE(isArchivePath("/out/tree.hspc.pack"));
    EXPECT_TRUE(isArchivePath("scan.hspca"));
    EXPECT_TRUE(isArchivePath("abcde"));  // any five characters
    EXPECT_FALSE(isArchivePath("abcdef"));
    EXPECT_FALSE(isArchivePath("/out/tree.hspc"));
    EXPECT_FALSE(isArchivePath("/out/tree.pack"));

    EXPECT_EQ(dataSetRoot("/out/set/tree.hspc"), std::optional<std::string>("/out/set"));
    EXPECT_EQ(dataSetRoot("C:\\out\\queryTree.hspc"), std::optional<std::string>("C:\\out"));
    EXPECT_EQ(dataSetRoot("/out/Voxel/voxelTreeList.hsvl"), std::optional<std::string>("/out/Voxel"));
    EXPECT_EQ(dataSetRoot("/tree.hspc"), std::optional<std::string>(""));
    // The bare names, and any path of their lengths, are taken whole.
    EXPECT_EQ(dataSetRoot("tree.hspc"), std::optional<std::string>("tree.hspc"));
    EXPECT_EQ(dataSetRoot("12345678901234"), std::optional<std::string>("12345678901234"));
    EXPECT_EQ(dataSetRoot("voxelTreeList.hsvl"), std::optional<std::string>("voxelTreeList.hsvl"));
    EXPECT_EQ(dataSetRoot("/out/mytree.hspc"), std::nullopt);
    EXPECT_EQ(dataSetRoot("/out/tree.hspc/"), std::nullopt);
    EXPECT_EQ(dataSetRoot(""), std::nullopt);
}

}  // namespace
