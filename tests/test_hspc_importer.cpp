// A data set read back through HSPCImporter: the same points as went into the conversion, from a folder, a
// tree file or a pack archive, in batches of any size; as the input of a second conversion on another grid;
// and broken data sets ending the import with their message.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "hspc/format/CellMapping.h"
#include "hspc/format/NodeHeader.h"
#include "hspc/query/HSPCImporter.h"
#include "hspc/store/DiskArchive.h"
#include "support/HspcConversionSetup.h"

using namespace HSPC;
using pcp_test::ConversionSetup;

namespace
{

namespace fs = std::filesystem;

constexpr uint64_t kPoints = 6000;

// A point as the tests compare them: its cell on the data set's grid and its values.
using Point = pcp_test::StoredPoint;

std::vector<Point> generatedPoints(uint64_t count)
{
    return pcp_test::storedPointsFrom(count);
}

// Converts the generated points into a data set of many nodes; the pack form writes "tree.hspc.pack".
void convertTo(ConversionSetup& setup, bool pack, const std::string& clientJson = "{}")
{
    pcp_test::convertRecords(setup);
    setup.encoding.nodeSize = 500;
    setup.encoding.maxNodeSize = 800;
    setup.advanced.useArchive = pack;
    setup.encoding.requestJsonConfig = [clientJson] { return JsonInfo(clientJson); };
    Converter converter(setup.basic, setup.advanced, setup.encoding);
    ASSERT_TRUE(converter.addImporter(pcp_test::recordImporterOf(setup, pcp_test::recordsFrom(0, kPoints),
                                                                 setup.errors.logger())));
    ASSERT_EQ(converter.run(), 0) << (setup.errors.lines.empty() ? "" : setup.errors.lines[0]);
}

struct Imported
{
    std::vector<Point> points;
    ReadResult last = ReadResult::kData;
    uint64_t batches = 0;
    uint64_t largestBatch = 0;
};

// Raw records of a data set converted by convertTo: the M96 code, R, G, B, intensity.
Imported readAll(HSPCImporter& importer, uint64_t maxBytes)
{
    Imported imported;
    HSPCBuffer<uint8_t> batch;
    const uint32_t size = importer.rawRecordSize();
    while ((imported.last = importer.readBatch(batch, maxBytes)) == ReadResult::kData)
    {
        ++imported.batches;
        imported.largestBatch = std::max<uint64_t>(imported.largestBatch, batch.size());
        for (size_t offset = 0; offset + size <= batch.size(); offset += size)
        {
            Point point;
            MortonIndex3D<uint32_t> code;
            std::memcpy(code.words.data(), batch.data() + offset, 12);
            const auto cell = decodeMortonSigned(code);
            point.cell = {cell[0], cell[1], cell[2]};
            std::memcpy(point.color.data(), batch.data() + offset + 12, 3);
            std::memcpy(&point.intensity, batch.data() + offset + 15, 2);
            imported.points.push_back(point);
        }
    }
    std::sort(imported.points.begin(), imported.points.end());
    return imported;
}

ImporterConfig configFor(const fs::path& path, pcp_test::MessageLog& errors)
{
    ImporterConfig config;
    config.path = path.string();
    config.errorLogger = errors.logger();
    return config;
}

fs::path firstNodeFile(const fs::path& folder)
{
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.path().extension() == ".apr")
            return entry.path();
    return {};
}

TEST(HspcImporter, ReadsBackEveryPointFromFolderTreeFilesAndArchive)
{
    ConversionSetup folder;
    convertTo(folder, false);
    ConversionSetup pack;
    convertTo(pack, true);
    // An archive written under a tree name of its own holds that name's tree.
    ConversionSetup named;
    named.advanced.treeName = "survey";
    convertTo(named, true);
    const std::vector<Point> expected = generatedPoints(kPoints);
    const fs::path out = folder.basic.outputPath;
    const fs::path archive = fs::path(pack.basic.outputPath) / "tree.hspc.pack";
    const fs::path namedArchive = fs::path(named.basic.outputPath) / "survey.hspc.pack";

    for (const fs::path& path : {out, out / "tree.hspc", out / "queryTree.hspc", archive, namedArchive})
    {
        pcp_test::MessageLog errors;
        ImporterConfig config = configFor(path, errors);
        std::vector<uint64_t> progress;
        config.progress = [&](uint64_t count) { progress.push_back(count); };
        HSPCImporter importer(config);
        ASSERT_TRUE(importer.isValid()) << path << ": " << (errors.lines.empty() ? "" : errors.lines[0]);
        EXPECT_EQ(importer.pointCount(), kPoints);
        EXPECT_GT(importer.tree().nodes.size(), 8u) << "the data set should have inner nodes and leaves";
        EXPECT_EQ(importer.rawRecordSize(), 17u);

        // Batches far smaller than a node: nodes go out over several, never beyond the bound.
        const uint64_t maxBytes = 17 * 97 + 5;
        const Imported imported = readAll(importer, maxBytes);
        EXPECT_EQ(imported.last, ReadResult::kEnd) << path;
        EXPECT_LE(imported.largestBatch, maxBytes);
        EXPECT_TRUE(imported.points == expected) << path << ": " << imported.points.size() << " points";
        ASSERT_FALSE(progress.empty());
        EXPECT_EQ(progress.back(), kPoints);
        EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
        EXPECT_TRUE(errors.lines.empty()) << errors.lines[0];
        // Read to the end, it stays at the end.
        HSPCBuffer<uint8_t> batch;
        EXPECT_EQ(importer.readBatch(batch, maxBytes), ReadResult::kEnd);
    }

    // Large batches through the base's readPoints, whole nodes decoded straight into the batch.
    pcp_test::MessageLog errors;
    HSPCImporter importer(configFor(out, errors));
    std::vector<uint8_t> points;
    uint64_t total = 0;
    while (importer.readPoints(points, 1 << 20) == ReadResult::kData)
        total += points.size() / importer.rawRecordSize();
    EXPECT_EQ(total, kPoints);
    // A batch that cannot take one record is refused, not an endless series of empty batches.
    HSPCImporter small(configFor(out, errors));
    HSPCBuffer<uint8_t> batch;
    EXPECT_EQ(small.readBatch(batch, 16), ReadResult::kRequestFailed);
}

TEST(HspcImporter, ConvertsIntoTheDataSetsOwnLayoutAndIntoAnotherGrid)
{
    ConversionSetup first;
    convertTo(first, false);
    const fs::path out = first.basic.outputPath;

    // Its own grid: the encoded records are the data set's records again.
    pcp_test::MessageLog errors;
    HSPCImporter same(configFor(out, errors));
    ASSERT_TRUE(same.isValid());
    EXPECT_EQ(same.encodedRecordSize(), 17u);
    std::vector<uint8_t> raw;
    ASSERT_EQ(same.readPoints(raw, 1 << 20), ReadResult::kData);
    std::vector<uint8_t> encoded;
    ASSERT_TRUE(same.convertPoints(raw, encoded));
    const uint64_t count = raw.size() / 17;
    EXPECT_TRUE(encoded == raw);

    // The same grid with the intensity widened goes the general way over real coordinates: the same codes.
    ImporterConfig widened = configFor(out, errors);
    widened.origin = first.basic.origin;
    widened.scale = first.basic.scale;
    for (const Attribute& attribute : first.basic.attributes)
        widened.encodingAttributes.push_back(pcp_test::encoded(
            attribute.type == AttributeType::U16 ? uint8_t(AttributeType::U32) : attribute.type, attribute.role,
            attribute.name));
    HSPCImporter general(widened);
    ASSERT_TRUE(general.isValid());
    std::vector<uint8_t> wide;
    ASSERT_TRUE(general.convertPoints(raw, wide));
    ASSERT_EQ(wide.size(), count * 19);
    for (uint64_t i = 0; i < count; ++i)
    {
        ASSERT_EQ(0, std::memcmp(wide.data() + i * 19, encoded.data() + i * 17, 15)) << "point " << i;
        uint32_t intensity = 0;
        std::memcpy(&intensity, wide.data() + i * 19 + 15, 4);
        ASSERT_EQ(intensity, pcp_test::get<uint16_t>(encoded, i * 17 + 15)) << "point " << i;
    }
    // A transformation moves the points even on their own grid, here by three cells along x, and such a data
    // set is never taken over unsorted.
    ImporterConfig shifted = configFor(out, errors);
    shifted.transformation = [step = first.basic.scale[0]](double* xyz) { xyz[0] += 3 * step; };
    HSPCImporter moved(shifted);
    ASSERT_TRUE(moved.isValid());
    EXPECT_TRUE(moved.hasTransform());
    EXPECT_FALSE(same.hasTransform());
    std::vector<uint8_t> movedRecords;
    ASSERT_TRUE(moved.convertPoints(raw, movedRecords));
    ASSERT_EQ(movedRecords.size(), raw.size());
    for (uint64_t i = 0; i < count; ++i)
    {
        MortonIndex3D<uint32_t> before;
        MortonIndex3D<uint32_t> after;
        std::memcpy(before.words.data(), raw.data() + i * 17, 12);
        std::memcpy(after.words.data(), movedRecords.data() + i * 17, 12);
        const auto from = decodeMortonSigned(before);
        const auto to = decodeMortonSigned(after);
        ASSERT_EQ(to[0], from[0] + 3) << "point " << i;
        ASSERT_EQ(to[1], from[1]) << "point " << i;
        ASSERT_EQ(0, std::memcmp(movedRecords.data() + i * 17 + 12, raw.data() + i * 17 + 12, 5)) << "point " << i;
    }

    // A batch that is not whole records is refused.
    HSPCBuffer<uint8_t> torn(raw.begin(), raw.begin() + 30);
    HSPCBuffer<uint8_t> output;
    EXPECT_FALSE(same.convertBatch(torn, output));

    // The data set as the input of a second conversion on a coarser grid with another origin.
    ConversionSetup second;
    pcp_test::convertRecords(second);
    second.basic.origin = {1.0, -2.0, 0.5};
    second.basic.scale = {0.003, 0.003, 0.003};
    ImporterConfig config = configFor(out, second.errors);
    config.origin = second.basic.origin;
    config.scale = second.basic.scale;
    for (const Attribute& attribute : second.basic.attributes)
        config.encodingAttributes.push_back(pcp_test::encoded(attribute.type, attribute.role, attribute.name));
    auto input = std::make_shared<HSPCImporter>(config);
    ASSERT_TRUE(input->isValid()) << second.errors.lines[0];
    EXPECT_EQ(input->origin(), second.basic.origin);
    Converter converter(second.basic, second.advanced, second.encoding);
    ASSERT_TRUE(converter.addImporter(input));
    ASSERT_EQ(converter.run(), 0) << (second.errors.lines.empty() ? "" : second.errors.lines[0]);

    HSPCImporter result(configFor(second.basic.outputPath, errors));
    ASSERT_TRUE(result.isValid());
    EXPECT_EQ(result.tree().header.scale, second.basic.scale);
    const Imported imported = readAll(result, 1 << 20);
    // Every point on the cell of the new grid nearest its old position.
    const CellMapping from({0, 0, 0}, first.basic.scale);
    const CellMapping to(second.basic.origin, second.basic.scale);
    std::vector<Point> expected = generatedPoints(kPoints);
    for (Point& point : expected)
        point.cell = to.toCell(from.toReal(point.cell));
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(imported.points == expected) << imported.points.size() << " points of " << expected.size();
}

TEST(HspcImporter, DescribesAttributesScansAndInputsFromTheComment)
{
    ConversionSetup plain;
    convertTo(plain, false);
    pcp_test::MessageLog errors;
    HSPCImporter bare(configFor(plain.basic.outputPath, errors));
    ASSERT_TRUE(bare.isValid());
    EXPECT_TRUE(bare.scanInfos().empty());
    EXPECT_TRUE(bare.inputInfos().empty());
    EXPECT_TRUE(errors.lines.empty());

    ConversionSetup described;
    convertTo(described, false, R"({
        "attribute-description": [
            {"attribute": {"name": "Intensity", "role": "INTENSITY", "type": "U16"}, "offset": 2.5, "scale": 0.25}],
        "scan-info": [
            {"index": 4, "matrix": [1, 0, 0, 10, 0, 1, 0, 20, 0, 0, 1, 30, 0, 0, 0, 1],
             "pose": {"rotation": {"x": 0.5, "y": -0.5, "z": 0.5, "w": 0.5},
                      "translation": {"x": 10, "y": 20, "z": 30}}},
            {"matrix": []},
            {"index": 7}],
        "input-info": [
            {"input-file-id": 3, "e57-scan-info": {"index": 1, "pose": {"translation": {"x": -1, "y": 2, "z": 3}}}},
            {"input-file-id": 5},
            {"input-file-id": 6, "e57-scan-info": {"matrix": [1]}}]})");
    HSPCImporter importer(configFor(described.basic.outputPath, errors));
    ASSERT_TRUE(importer.isValid());

    const std::vector<EncodingAttribute>& attributes = importer.attributeDescription();
    ASSERT_EQ(attributes.size(), 5u);
    EXPECT_EQ(attributes[4].attribute.role, AttributeRole::INTENSITY);
    EXPECT_EQ(attributes[4].offset, 2.5);
    EXPECT_EQ(attributes[4].scale, 0.25);
    EXPECT_EQ(attributes[1].offset, 0.0);
    EXPECT_EQ(attributes[1].scale, 1.0);

    ASSERT_EQ(importer.scanInfos().size(), 2u);
    const ScanInfo& scan = importer.scanInfos()[0];
    EXPECT_EQ(scan.index, 4);
    ASSERT_EQ(scan.matrix.size(), 16u);
    EXPECT_EQ(scan.matrix[3], 10.0);
    EXPECT_EQ(scan.rotation, (std::array<double, 4>{0.5, -0.5, 0.5, 0.5}));
    EXPECT_EQ(scan.translation, (std::array<double, 3>{10, 20, 30}));
    EXPECT_EQ(importer.scanInfos()[1].index, 7);
    EXPECT_EQ(importer.scanInfos()[1].rotation, (std::array<double, 4>{0, 0, 0, 1}));

    ASSERT_EQ(importer.inputInfos().size(), 2u);
    EXPECT_EQ(importer.inputInfos()[0].inputFileId, 3);
    ASSERT_TRUE(importer.inputInfos()[0].e57ScanInfo);
    EXPECT_EQ(importer.inputInfos()[0].e57ScanInfo->translation, (std::array<double, 3>{-1, 2, 3}));
    EXPECT_EQ(importer.inputInfos()[1].inputFileId, 5);
    EXPECT_FALSE(importer.inputInfos()[1].e57ScanInfo);
    EXPECT_EQ(errors.lines, (std::vector<std::string>{"Malformed scan info missing index",
                                                      "Malformed scan info missing index"}));
}

TEST(HspcImporter, RefusesDataSetsItCannotOpen)
{
    pcp_test::TempFolder folder;
    const std::string prefix = "HSPCImporterImpl::HSPCImporterImpl: ";
    {
        // An archive that holds other entries but no tree.
        const fs::path archive = folder.path() / "tree.hspc.pack";
        {
            DiskWriteArchive writer(archive.string());
            const std::vector<uint8_t> bytes{1, 2, 3};
            ASSERT_TRUE(writer.write("/queryTree.hspc", bytes));
        }
        pcp_test::MessageLog errors;
        HSPCImporter importer(configFor(archive, errors));
        EXPECT_FALSE(importer.isValid());
        ASSERT_FALSE(errors.lines.empty());
        EXPECT_EQ(errors.lines.back(), prefix + "Failed to read from archive: filename=" + archive.string());
        HSPCBuffer<uint8_t> batch;
        EXPECT_EQ(importer.readBatch(batch, 1 << 20), ReadResult::kRequestFailed);
    }
    {
        pcp_test::MessageLog errors;
        HSPCImporter importer(configFor(folder.path() / "nothing", errors));
        EXPECT_FALSE(importer.isValid());
        ASSERT_FALSE(errors.lines.empty());
        EXPECT_EQ(errors.lines.back(), prefix + "Failed to read input file: filename=" +
                                           (folder.path() / "nothing").string());
    }
    {
        // Bytes that are no tree file, and a tree whose attribute chunk is cut off.
        ConversionSetup setup;
        convertTo(setup, false);
        const fs::path out = setup.basic.outputPath;
        std::ifstream in(out / "queryTree.hspc", std::ios::binary);
        const std::string tree((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        uint64_t headerSize = 0;
        std::memcpy(&headerSize, tree.data() + 4, sizeof headerSize);
        const std::pair<std::string, std::string> cases[] = {
            {std::string("XXXX") + tree.substr(4), "Failed to extract header info from file: filename="},
            {tree.substr(0, headerSize + 14), "Failed to extract attributes from file: filename="},
            {tree.substr(0, tree.size() - 3), "Failed to extract tree from file: filename="}};
        for (const auto& [bytes, message] : cases)
        {
            std::ofstream(out / "tree.hspc", std::ios::binary | std::ios::trunc) << bytes;
            pcp_test::MessageLog errors;
            HSPCImporter importer(configFor(out, errors));
            EXPECT_FALSE(importer.isValid());
            ASSERT_EQ(errors.lines.size(), 2u) << message;
            EXPECT_EQ(errors.lines[1], prefix + message + (out / "tree.hspc").string());
        }
    }
    // Without an error logger nothing is opened.
    ImporterConfig config;
    config.path = folder.path().string();
    config.errorLogger = nullptr;
    EXPECT_FALSE(HSPCImporter(config).isValid());
}

// Reads until the import ends; the error logger must say why, with the node reading failure message.
void expectImportFails(const fs::path& out, const std::string& code)
{
    pcp_test::MessageLog errors;
    HSPCImporter importer(configFor(out, errors));
    ASSERT_TRUE(importer.isValid());
    const Imported imported = readAll(importer, 1 << 16);
    EXPECT_EQ(imported.last, ReadResult::kRequestFailed);
    ASSERT_EQ(errors.lines.size(), 1u);
    const std::string expected = "Node file reading failed for tree=" + out.string() + " code = " + code;
    EXPECT_EQ(errors.lines[0].substr(0, expected.size()), expected) << errors.lines[0];
    // It stays failed rather than skipping the node.
    HSPCBuffer<uint8_t> batch;
    EXPECT_EQ(importer.readBatch(batch, 1 << 16), ReadResult::kRequestFailed);
    EXPECT_TRUE(batch.empty());
}

TEST(HspcImporter, BrokenNodesEndTheImportWithTheirMessage)
{
    ConversionSetup setup;
    convertTo(setup, false);
    const fs::path out = setup.basic.outputPath;
    const fs::path node = firstNodeFile(out);
    ASSERT_FALSE(node.empty());
    std::ifstream in(node, std::ios::binary);
    const std::string block((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto rewrite = [&](const fs::path& file, const std::string& bytes)
    { std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes; };

    fs::remove(node);
    expectImportFails(out, "2");
    rewrite(node, block.substr(0, 20));
    expectImportFails(out, "3");
    // Another node's block in its place.
    fs::path other;
    for (const auto& entry : fs::recursive_directory_iterator(out))
        if (entry.path().extension() == ".apr" && entry.path() != node)
            other = entry.path();
    fs::copy_file(other, node, fs::copy_options::overwrite_existing);
    expectImportFails(out, "4");
    // A payload of nonsense behind an intact header, and a block cut short.
    NodeHeader header;
    const size_t payload = readNodeHeader(std::span(reinterpret_cast<const uint8_t*>(block.data()), block.size()),
                                          header);
    ASSERT_GT(payload, 0u);
    rewrite(node, block.substr(0, payload) + std::string(block.size() - payload, '\xff'));
    expectImportFails(out, "6");
    rewrite(node, block.substr(0, block.size() - 7));
    expectImportFails(out, "6");
    // A header claiming more points than a node may hold.
    std::string huge = block;
    const uint64_t count = 1ull << 40;
    std::memcpy(huge.data() + 20, &count, 8);
    rewrite(node, huge);
    expectImportFails(out, "5");
}

TEST(HspcImporter, NodesReadAndDecodedFromManyThreadsOfOneArchive)
{
    ConversionSetup setup;
    convertTo(setup, true);
    pcp_test::MessageLog errors;
    const HSPCImporter importer(configFor(fs::path(setup.basic.outputPath) / "tree.hspc.pack", errors));
    ASSERT_TRUE(importer.isValid());
    const uint32_t nodeCount = uint32_t(importer.tree().nodes.size());
    std::vector<std::vector<uint8_t>> expected(nodeCount);
    std::vector<HSPCBuffer<uint8_t>> expectedRecords(nodeCount);
    std::string error;
    NodeReading reading;
    uint64_t points = 0;
    for (uint32_t i = 0; i < nodeCount; ++i)
    {
        if (importer.tree().nodes[i].pointCount == 0)
            continue;
        ASSERT_TRUE(importer.readNodeBlock(i, expected[i], error)) << error;
        ASSERT_TRUE(importer.readNodeRecords(i, reading, expectedRecords[i], error)) << error;
        points += expectedRecords[i].size() / importer.rawRecordSize();
    }
    EXPECT_EQ(points, kPoints);

    constexpr unsigned kThreads = 4;
    std::vector<unsigned> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                std::vector<uint8_t> block;
                NodeReading own;
                HSPCBuffer<uint8_t> records;
                std::string failure;
                for (unsigned round = 0; round < 5; ++round)
                    for (uint32_t i = t; i < nodeCount + t; ++i)
                    {
                        const uint32_t node = i % nodeCount;
                        if (expected[node].empty())
                            continue;
                        if (!importer.readNodeBlock(node, block, failure) || block != expected[node])
                            ++mismatches[t];
                        if (!importer.readNodeRecords(node, own, records, failure) ||
                            records != expectedRecords[node])
                            ++mismatches[t];
                    }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, std::vector<unsigned>(kThreads, 0));
    std::vector<uint8_t> block;
    EXPECT_FALSE(importer.readNodeBlock(nodeCount, block, error));
    EXPECT_NE(error.find(" code = 1"), std::string::npos) << error;
}

}  // namespace
