// The raw sort of the HSPC converter: runs on disk decoded and checked against the generated points, the counts
// of points per cell against the runs, the memory bound, and failures and cancels that leave nothing behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hspc/convert/RawSort.h"
#include "hspc/convert/RunSliceReader.h"
#include "hspc/format/NodeDecompressor.h"
#include "hspc/format/TrackedMemory.h"
#include "support/LittleEndianBytes.h"
#include "support/MessageLog.h"
#include "support/TempFolder.h"

using namespace HSPC;

namespace
{

using pcp_test::Bytes;

// A well-mixed 64-bit value of `value`.
uint64_t mixed(uint64_t value)
{
    uint64_t h = value * 0x9E3779B97F4A7C15ull;
    h ^= h >> 31;
    h *= 0x94D049BB133111EBull;
    h ^= h >> 29;
    return h;
}

// Integer position of generated point `id`. Like a scanner's stream, points come in blocks of 4096 ids that lie
// close together (within 2^13 cells per axis), the blocks spread over 2^21 cells per axis: each batch then adds
// cells of its own to a worker's counts, as real scans do. Every point whose id is 500 modulo 997 repeats the
// position of the point before it: a duplicate within its batch unless it is the first point of one.
int32_t coordinate(uint64_t id, unsigned axis)
{
    if (id % 997 == 500)
    {
        --id;
    }
    const uint64_t block = mixed((id / 4096 + 1) * 3 + axis);
    const uint64_t inBlock = mixed((id + 1) * 3 + axis);
    return int32_t(block % (1u << 21)) - (1 << 20) + int32_t(inBlock % (1u << 13));
}

// `place` is the point's place in its importer, which cuts batches of `batchPoints` from its first point.
bool isDuplicate(uint64_t id, uint64_t place, uint64_t batchPoints)
{
    return id % 997 == 500 && place % batchPoints != 0;
}

// Record layouts: the importer's records, and what the stage stores.
//   32-bit codes: importer and stage alike  M96 position (12) | U32 id | U16 intensity        = 18 bytes
//   64-bit codes: importer  I32 x, y, z (12) | U32 id | U16 intensity                           = 18 bytes
//                 stage     M192 position (24) | U32 id | U16 intensity                         = 30 bytes
template <typename W>
constexpr uint32_t kEncodedSize = MortonIndex3D<W>::kBytes + 6;
constexpr uint32_t kImportedSize = 18;

template <typename W>
std::vector<Attribute> encodingAttributes()
{
    return {{MortonIndex3D<W>::kAttributeTypeCode, AttributeRole::POSITION, "POSITION"},
            {AttributeType::U32, AttributeRole::CUSTOM, "id"},
            {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
}

template <typename W>
std::vector<Attribute> importedAttributes()
{
    if constexpr (sizeof(W) == 4)
    {
        return encodingAttributes<W>();
    }
    else
    {
        return {{AttributeType::I32, AttributeRole::X, "X"},
                {AttributeType::I32, AttributeRole::Y, "Y"},
                {AttributeType::I32, AttributeRole::Z, "Z"},
                {AttributeType::U32, AttributeRole::CUSTOM, "id"},
                {AttributeType::U16, AttributeRole::INTENSITY, "Intensity"}};
    }
}

// Hands out generated points with ids [first, first + count) in batches as large as asked, in the stage's
// layout for 32-bit codes and as x, y, z for 64-bit codes. `onRequest` sees every request by its number,
// from 1; a request numbered `failAt` fails.
template <typename W>
class GeneratedImporter : public Importer
{
public:
    GeneratedImporter(uint64_t first, uint64_t count) : m_next(first), m_end(first + count) {}

    std::function<void(uint64_t request)> onRequest;
    uint64_t failAt = 0;

    ReadResult readBatch(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) override
    {
        ++m_requests;
        if (onRequest)
        {
            onRequest(m_requests);
        }
        if (m_requests == failAt)
        {
            return ReadResult::kRequestFailed;
        }
        const uint64_t count = std::min(m_end - m_next, maxBytes / kImportedSize);
        if (count == 0)
        {
            return ReadResult::kEnd;
        }
        buffer = HSPCBuffer<uint8_t>(count * kImportedSize);
        for (uint64_t i = 0; i < count; ++i, ++m_next)
        {
            write(buffer.data() + i * kImportedSize, m_next);
        }
        return ReadResult::kData;
    }

    bool convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const override
    {
        output = std::move(input);
        return true;
    }
    std::array<double, 3> origin() const override { return {0.0, 0.0, 0.0}; }
    std::array<double, 3> scale() const override { return {1.0, 1.0, 1.0}; }

private:
    static void write(uint8_t* out, uint64_t id)
    {
        const int32_t x = coordinate(id, 0), y = coordinate(id, 1), z = coordinate(id, 2);
        if constexpr (sizeof(W) == 4)
        {
            const MortonIndex3D<W> code = encodeMortonSigned<W>(x, y, z);
            std::memcpy(out, code.words.data(), 12);
        }
        else
        {
            std::memcpy(out, &x, 4);
            std::memcpy(out + 4, &y, 4);
            std::memcpy(out + 8, &z, 4);
        }
        const uint32_t id32 = uint32_t(id);
        const uint16_t intensity = uint16_t(id * 7);
        std::memcpy(out + 12, &id32, 4);
        std::memcpy(out + 16, &intensity, 2);
    }

    uint64_t m_next;
    uint64_t m_end;
    uint64_t m_requests = 0;
};

struct StageShape
{
    uint64_t batchSize = 64 * 1024;
    uint64_t targetMemory = 3 * 1024 * 1024;
    uint32_t workers = 2;
    int32_t inputThreads = 2;
    bool compress = false;
};

template <typename W>
RuntimeConfig stageConfig(const std::filesystem::path& temp, const StageShape& shape,
                          pcp_test::LockedMessageLog& info, pcp_test::LockedMessageLog& errors)
{
    RuntimeConfig config;
    config.batchSize = shape.batchSize;
    config.targetMemory = shape.targetMemory;
    config.workerCount = shape.workers;
    config.reservedThreads = shape.inputThreads;
    config.tempWriterCount = 2;
    config.inputAttributes = importedAttributes<W>();
    config.encodingAttributes = encodingAttributes<W>();
    config.inputRecordSize = kImportedSize;
    config.encodedRecordSize = kEncodedSize<W>;
    config.scale = {1.0, 1.0, 1.0};
    config.compressBatches = shape.compress;
    config.tempPath = temp.string();
    setTempPrefixes(config, 7);
    config.infoLogger = info.logger();
    config.warningLogger = errors.logger();
    config.errorLogger = errors.logger();
    return config;
}

Bytes readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t filesIn(const std::filesystem::path& folder)
{
    return size_t(std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

template <typename W>
MortonIndex3D<W> codeAt(const Bytes& records, size_t i)
{
    MortonIndex3D<W> code;
    std::memcpy(code.words.data(), records.data() + i * kEncodedSize<W>, MortonIndex3D<W>::kBytes);
    return code;
}

// The records of a run's temp file, decompressed when the run says it is compressed.
template <typename W>
Bytes runRecords(const PointDistributionInputHandler<W>& input, const ReadBuffer<W>& run)
{
    const Bytes file = readFile(input.tempPointFile(run.fileNumber));
    EXPECT_EQ(file.size(), run.fileBytes);
    if (!run.compressed)
    {
        return file;
    }
    Bytes records(size_t(run.pointCount) * kEncodedSize<W>);
    const std::vector<OutputAction> actions = {{0, 0, MortonIndex3D<W>::kAttributeTypeCode},
                                               {1, MortonIndex3D<W>::kBytes, AttributeType::U32},
                                               {2, MortonIndex3D<W>::kBytes + 4, AttributeType::U16}};
    const std::unique_ptr<NodeDecompressor> decompressor = NodeDecompressor::create(run.pointCount);
    NodeHeader header;
    std::string error;
    EXPECT_TRUE(decompressNodeBlock(file, *decompressor, NodeOutput{records, kEncodedSize<W>, actions}, header,
                                    [&](const std::string& text) { error = text; }))
        << error << decompressor->lastError();
    return records;
}

template <typename W>
MortonIndex3D<W> cellOf(MortonIndex3D<W> code, unsigned lod)
{
    for (unsigned bit = 0; bit < 3 * lod; ++bit)
    {
        code.words[bit / MortonIndex3D<W>::kBitsPerAxis] &= ~(W(1) << (bit % MortonIndex3D<W>::kBitsPerAxis));
    }
    return code;
}

template <typename W>
std::vector<std::pair<MortonIndex3D<W>, uint32_t>> cellsOf(const Bytes& packed)
{
    std::vector<std::pair<MortonIndex3D<W>, uint32_t>> cells;
    for (size_t at = 0; at + kCellEntrySize<W> <= packed.size(); at += kCellEntrySize<W>)
    {
        cells.emplace_back(loadMortonKey<W>(packed.data() + at),
                           pcp_test::get<uint32_t>(packed, at + MortonIndex3D<W>::kBytes));
    }
    return cells;
}

// Slices of every run read back through the run reader equal the run's records, split anywhere, and its codes
// alone; a slice past a run's end is refused with the file named.
template <typename W>
void checkSliceReads(const PointDistributionInputHandler<W>& input, pcp_test::LockedMessageLog& errors)
{
    RunSliceReader<W> reader(input);
    for (uint32_t i = 0; i < input.readList().size(); ++i)
    {
        const ReadBuffer<W>& run = input.readList()[i];
        const Bytes records = runRecords(input, run);
        const uint32_t third = run.pointCount / 3;
        // Codes first, so that a compressed run is decoded for its positions alone, then again whole.
        std::vector<MortonIndex3D<W>> codes;
        ASSERT_TRUE(reader.readCodes(RunSlice{i, third, third}, codes));
        ASSERT_EQ(codes.size(), third);
        for (uint32_t k = 0; k < third; ++k)
        {
            ASSERT_EQ(codes[k], codeAt<W>(records, third + k)) << "run " << i << " code " << k;
        }
        HSPCBuffer<uint8_t> read;
        ASSERT_TRUE(reader.readRecords(RunSlice{i, 0, third}, read));
        ASSERT_TRUE(reader.readRecords(RunSlice{i, third, run.pointCount - third}, read));
        ASSERT_TRUE(std::equal(read.begin(), read.end(), records.begin(), records.end())) << "run " << i;
        reader.release(i);
    }
    HSPCBuffer<uint8_t> read;
    const ReadBuffer<W>& last = input.readList().back();
    EXPECT_FALSE(reader.readRecords(RunSlice{uint32_t(input.readList().size() - 1), 1, last.pointCount}, read));
    EXPECT_TRUE(read.empty());
    EXPECT_TRUE(errors.contains("Failed to read file=" + input.tempPointFile(last.fileNumber) +
                                "; You might want to check your disk."));
}

// What the checks of a finished stage found.
struct StageOutcome
{
    uint64_t survivors = 0;
    uint64_t cellPoints = 0;
    uint64_t leafPoints = 0;
};

// Every run decoded: sorted, its range, octants, cell list and points as generated; every id at most once.
template <typename W>
StageOutcome checkRuns(const PointDistributionInputHandler<W>& input, std::vector<uint8_t>& idSeen)
{
    StageOutcome outcome;
    for (const ReadBuffer<W>& run : input.readList())
    {
        const Bytes records = runRecords(input, run);
        const size_t count = records.size() / kEncodedSize<W>;
        EXPECT_EQ(count, run.pointCount);
        if (count == 0)
        {
            continue;
        }
        EXPECT_EQ(codeAt<W>(records, 0), run.first);
        EXPECT_EQ(codeAt<W>(records, count - 1), run.last);
        std::map<MortonIndex3D<W>, uint32_t> cells;
        std::array<uint32_t, 8> octantCounts{};
        for (size_t i = 0; i < count; ++i)
        {
            const MortonIndex3D<W> code = codeAt<W>(records, i);
            if (i > 0 && code < codeAt<W>(records, i - 1))
            {
                ADD_FAILURE() << "run " << run.fileNumber << " not sorted at " << i;
                break;
            }
            const uint32_t id = pcp_test::get<uint32_t>(records, i * kEncodedSize<W> + MortonIndex3D<W>::kBytes);
            const auto cell = decodeMortonSigned(code);
            const bool asGenerated = id < idSeen.size() && cell[0] == coordinate(id, 0) &&
                                     cell[1] == coordinate(id, 1) && cell[2] == coordinate(id, 2) &&
                                     pcp_test::get<uint16_t>(records, i * kEncodedSize<W> + MortonIndex3D<W>::kBytes +
                                                                          4) == uint16_t(id * 7);
            EXPECT_TRUE(asGenerated) << "id " << id;
            if (!asGenerated)
            {
                break;
            }
            EXPECT_EQ(idSeen[id]++, 0) << "id " << id << " twice";
            ++cells[cellOf(code, run.cutLod)];
            ++octantCounts[code.words[2] >> (MortonIndex3D<W>::kBitsPerAxis - 3)];
        }
        for (unsigned octant = 0; octant < 8; ++octant)
        {
            EXPECT_EQ(run.octants[octant] ? run.octants[octant]->count : 0, octantCounts[octant]);
        }
        const Bytes packed = run.cellFile ? readFile(input.leafBufferFile(*run.cellFile))
                                          : Bytes(run.cells.begin(), run.cells.end());
        EXPECT_EQ(cellsOf<W>(packed), (std::vector<std::pair<MortonIndex3D<W>, uint32_t>>(cells.begin(), cells.end())))
            << "cells of run " << run.fileNumber;
        for (const auto& [cell, n] : cells)
        {
            outcome.cellPoints += n;
        }
        outcome.survivors += count;
    }
    for (const LeafEntry<W>& entry : input.mergedLeaves())
    {
        outcome.leafPoints += entry.count;
    }
    for (uint32_t number : input.rasterLeafFiles())
    {
        const Bytes packed = readFile(input.rasterLeafFile(number));
        EXPECT_EQ(packed.size() % LeafEntry<W>::kPackedSize, 0u);
        for (size_t at = 0; at + LeafEntry<W>::kPackedSize <= packed.size(); at += LeafEntry<W>::kPackedSize)
        {
            outcome.leafPoints += loadLeafEntry<W>(packed.data() + at).count;
        }
    }
    return outcome;
}

template <typename W>
struct Stage
{
    explicit Stage(const StageShape& shape) : config(stageConfig<W>(folder.path(), shape, info, errors)) {}

    ConversionFailures run(const std::vector<Importer*>& importers)
    {
        return rawSort<W>(config, importers, input, handle);
    }

    pcp_test::TempFolder folder;
    pcp_test::LockedMessageLog info;
    pcp_test::LockedMessageLog errors;
    RuntimeConfig config;
    PointDistributionInputHandler<W> input{config};
    ProcessHandle handle;
};

template <typename W>
void sortsFiltersAndCountsMillionsOfPoints(bool compress)
{
    StageShape shape;
    shape.compress = compress;
    // Small enough that each worker's leaf array outgrows its share however the batches fall to the workers.
    shape.targetMemory = 1536 * 1024;
    Stage<W> stage(shape);
    constexpr uint64_t kPerImporter = 600000;
    std::vector<std::unique_ptr<GeneratedImporter<W>>> importers;
    std::vector<Importer*> list;
    for (uint64_t i = 0; i < 3; ++i)
    {
        importers.push_back(std::make_unique<GeneratedImporter<W>>(i * kPerImporter, kPerImporter));
        list.push_back(importers.back().get());
    }
    const ConversionFailures failures = stage.run(list);
    ASSERT_TRUE(failures.empty()) << failures.front().message;

    const uint64_t total = 3 * kPerImporter;
    uint64_t duplicates = 0;
    const uint64_t batchPoints = shape.batchSize / kImportedSize;
    for (uint64_t id = 0; id < total; ++id)
    {
        duplicates += isDuplicate(id, id % kPerImporter, batchPoints) ? 1 : 0;
    }
    std::vector<uint8_t> idSeen(total, 0);
    const StageOutcome outcome = checkRuns(stage.input, idSeen);
    EXPECT_EQ(outcome.survivors, total - duplicates);
    EXPECT_EQ(outcome.cellPoints, outcome.survivors);
    EXPECT_EQ(outcome.leafPoints, outcome.survivors);
    // Of two equal positions in one batch exactly one is kept.
    for (uint64_t id = 0; id < total; ++id)
    {
        if (isDuplicate(id, id % kPerImporter, batchPoints))
        {
            EXPECT_EQ(idSeen[id] + idSeen[id - 1], 1) << "duplicate pair " << id;
        }
    }
    EXPECT_TRUE(stage.info.contains("Total  point count after raw sort = " + std::to_string(total)));
    EXPECT_TRUE(stage.info.contains("Filter point count after raw sort = " + std::to_string(duplicates)));
    // Both spills happened: cell lists of old runs, and leaf entries away from the current batches.
    EXPECT_FALSE(stage.input.leafBufferFiles().empty());
    EXPECT_FALSE(stage.input.rasterLeafFiles().empty());
    if (compress)
    {
        EXPECT_TRUE(std::any_of(stage.input.readList().begin(), stage.input.readList().end(),
                                [](const ReadBuffer<W>& run) { return run.compressed; }));
    }
    EXPECT_TRUE(stage.input.queuesEmpty());
    EXPECT_TRUE(stage.errors.lines.empty());
    checkSliceReads(stage.input, stage.errors);
}

}  // namespace

TEST(RawSort, SortsFiltersAndCountsEveryPointOfSeveralImporters)
{
    sortsFiltersAndCountsMillionsOfPoints<uint32_t>(false);
}

TEST(RawSort, SixtyFourBitCodesFromCoordinatesAndCompressedRuns)
{
    sortsFiltersAndCountsMillionsOfPoints<uint64_t>(true);
}

TEST(RawSort, TrackedMemoryStaysWithinTheLimitAndOneBatchPerWorker)
{
    StageShape shape;
    shape.inputThreads = 1;
    Stage<uint32_t> stage(shape);
    std::vector<std::unique_ptr<GeneratedImporter<uint32_t>>> importers;
    std::vector<Importer*> list;
    const uint64_t baseline = trackedByteCount();
    std::atomic<uint64_t> highest{0};
    for (uint64_t i = 0; i < 3; ++i)
    {
        importers.push_back(std::make_unique<GeneratedImporter<uint32_t>>(i * 400000, 400000));
        importers.back()->onRequest = [&](uint64_t) {
            const uint64_t now = trackedByteCount() - baseline;
            uint64_t seen = highest.load();
            while (now > seen && !highest.compare_exchange_weak(seen, now))
            {
            }
        };
        list.push_back(importers.back().get());
    }
    ASSERT_TRUE(stage.run(list).empty());
    const uint64_t limit = shape.targetMemory / 3 * 2;
    EXPECT_LE(highest.load(), limit + shape.workers * shape.batchSize);
    // The reader was held back: without the bound the queue would have taken all 1.2 million points at once.
    EXPECT_GT(highest.load(), limit / 2);
}

TEST(RawSort, SmallBatchesEmptyImportersDuplicatesAndImporterOrder)
{
    StageShape shape;
    shape.workers = 1;
    shape.inputThreads = 1;
    Stage<uint32_t> stage(shape);
    // Ids 499 and 500 share a position; without the duplicate filter all 999 points stay, and the box alone
    // filters.
    stage.config.filterDuplicates = false;
    stage.config.filterBox = true;
    stage.config.filterMin = {-2e6, -2e6, -2e6};
    stage.config.filterMax = {2e6, 2e6, 2e6};

    // 999 points: the batch takes the worker's starting lod. An importer that ends at once adds nothing, and
    // one whose points all lie outside the box leaves neither a file nor a run.
    GeneratedImporter<uint32_t> small(0, 999);
    GeneratedImporter<uint32_t> empty(0, 0);
    struct Outside : GeneratedImporter<uint32_t>
    {
        Outside() : GeneratedImporter<uint32_t>(0, 500) {}
        bool convertBatch(HSPCBuffer<uint8_t>& input, HSPCBuffer<uint8_t>& output) const override
        {
            for (size_t at = 0; at < input.size(); at += kImportedSize)
            {
                const MortonIndex3D<uint32_t> far = encodeMortonSigned<uint32_t>(3000000, 0, int32_t(at));
                std::memcpy(input.data() + at, far.words.data(), 12);
            }
            output = std::move(input);
            return true;
        }
    } outside;
    std::vector<char> order;
    small.onRequest = [&](uint64_t) { order.push_back('s'); };
    empty.onRequest = [&](uint64_t) { order.push_back('e'); };
    outside.onRequest = [&](uint64_t) { order.push_back('o'); };

    ASSERT_TRUE(stage.run({&small, &empty, &outside}).empty());
    // One input thread reads its importers one after the other, each to its end.
    EXPECT_EQ(std::string(order.begin(), order.end()), "sseoo");
    ASSERT_EQ(stage.input.readList().size(), 1u);
    const ReadBuffer<uint32_t>& run = stage.input.readList().front();
    // A worker starts at lod 10.
    EXPECT_EQ(run.cutLod, 10);
    EXPECT_EQ(run.pointCount, 999u);
    EXPECT_EQ(filesIn(stage.folder.path()), 1u);
    EXPECT_TRUE(stage.info.contains("Filter point count after raw sort = 500"));

    // Two equal positions in one batch: the duplicate filter keeps one, and without it both stay.
    for (const bool filterDuplicates : {true, false})
    {
        Stage<uint32_t> again(shape);
        again.config.filterDuplicates = filterDuplicates;
        GeneratedImporter<uint32_t> pair(499, 2);
        ASSERT_TRUE(again.run({&pair}).empty());
        ASSERT_EQ(again.input.readList().size(), 1u);
        EXPECT_EQ(again.input.readList().front().pointCount, filterDuplicates ? 1u : 2u);
    }
}

TEST(RawSort, FailedReadsAndWritesEndTheStageWithoutTempFiles)
{
    StageShape shape;
    // An importer that fails: the stage stops reading, reports it, and what was written goes again.
    {
        Stage<uint32_t> stage(shape);
        GeneratedImporter<uint32_t> good(0, 200000);
        GeneratedImporter<uint32_t> failing(200000, 200000);
        failing.failAt = 4;
        const ConversionFailures failures = stage.run({&good, &failing});
        ASSERT_EQ(failures.size(), 1u);
        EXPECT_EQ(failures[0].code, FailureCode::kInputRead);
        EXPECT_EQ(failures[0].message, "inputReadingFromDisk: file reading failed.");
        EXPECT_TRUE(stage.errors.contains("inputBuffer: request failed."));
        EXPECT_TRUE(stage.input.readList().empty());
        EXPECT_EQ(filesIn(stage.folder.path()), 0u);
    }
    // A temp folder that fills: the k-th write of a kind fails as on a full disk.
    struct FullAfter : TempFileStore
    {
        FullAfter(std::string kind, int writes) : kind(std::move(kind)), left(writes) {}
        WriteResult write(const std::string& path, const uint8_t* data, uint64_t size) override
        {
            if (path.find(kind) != std::string::npos && left.fetch_sub(1) <= 0)
            {
                return WriteResult::kWriteFailed;
            }
            return TempFileStore::write(path, data, size);
        }
        std::string kind;
        std::atomic<int> left;
    };
    for (const std::string kind : {"temp", "orse"})
    {
        SCOPED_TRACE(kind);
        Stage<uint32_t> stage(shape);
        stage.input.setTempFileStore(std::make_shared<FullAfter>(kind, 3));
        GeneratedImporter<uint32_t> points(0, 800000);
        const ConversionFailures failures = stage.run({&points});
        ASSERT_FALSE(failures.empty());
        EXPECT_EQ(failures[0].code, FailureCode::kTempFile);
        if (kind == "temp")
        {
            EXPECT_EQ(failures[0].message.rfind("Failed to write to file=" + stage.config.tempPointPrefix, 0), 0u)
                << failures[0].message;
            EXPECT_TRUE(failures[0].message.ends_with(".dat; You might want to check your disk."));
        }
        else
        {
            EXPECT_EQ(failures[0].message, "Failed to write to disk.");
            EXPECT_TRUE(std::any_of(stage.errors.lines.begin(), stage.errors.lines.end(), [](const std::string& line) {
                return line.starts_with("Failed to write leaf buffer=");
            }));
        }
        EXPECT_EQ(filesIn(stage.folder.path()), 0u);
    }
}

TEST(RawSort, CancelAtAnyMomentJoinsEveryThreadAndLeavesNoTempFile)
{
    std::mt19937 random(17);
    StageShape shape;
    int cancelled = 0;
    for (int round = 0; round < 6; ++round)
    {
        SCOPED_TRACE(round);
        Stage<uint32_t> stage(shape);
        // The cancel comes from a thread of its own once a random number of batches has been asked for; in
        // round 0 it comes before the stage starts.
        const uint64_t cancelAt = round == 0 ? 0 : std::uniform_int_distribution<uint64_t>(1, 60)(random);
        std::mutex mutex;
        std::condition_variable reached;
        uint64_t requests = 0;
        bool stageOver = false;
        GeneratedImporter<uint32_t> a(0, 500000);
        GeneratedImporter<uint32_t> b(500000, 500000);
        for (GeneratedImporter<uint32_t>* importer : {&a, &b})
        {
            importer->onRequest = [&](uint64_t) {
                std::lock_guard lock(mutex);
                ++requests;
                reached.notify_all();
            };
        }
        std::thread canceller([&] {
            std::unique_lock lock(mutex);
            reached.wait(lock, [&] { return requests >= cancelAt || stageOver; });
            lock.unlock();
            stage.handle.cancel();
        });
        if (round == 0)
        {
            canceller.join();
        }
        const ConversionFailures failures = stage.run({&a, &b});
        uint64_t requestsMade = 0;
        {
            std::lock_guard lock(mutex);
            requestsMade = requests;
            stageOver = true;
            reached.notify_all();
        }
        if (canceller.joinable())
        {
            canceller.join();
        }
        if (round == 0)
        {
            EXPECT_EQ(requestsMade, 0u);
        }
        if (failures.empty())
        {
            // The stage ended before the canceller got its turn: a loaded machine may do that.
            continue;
        }
        ++cancelled;
        // All threads of the stage are joined when it returns, and nothing of it is left on disk.
        EXPECT_EQ(filesIn(stage.folder.path()), 0u);
        EXPECT_EQ(failures[0].code, FailureCode::kCancelled);
        EXPECT_EQ(failures[0].message, "Recording main thread: process got cancelled!");
        EXPECT_TRUE(stage.input.readList().empty());
    }
    EXPECT_GE(cancelled, 1);
}
