// The per-batch kernels of the raw sort: sorting records by Morton code, putting positions on the grid,
// the duplicate and box filters, and the per-cell counts that decide where a batch is cut. Each is checked
// against a plain reference computation on random records.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "hspc/convert/BatchFilters.h"
#include "hspc/convert/LeafStepKernels.h"
#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/MortonSort.h"
#include "hspc/convert/PositionEncoding.h"
#include "hspc/format/Attribute.h"
#include "hspc/format/LittleEndian.h"

using namespace HSPC;

namespace
{

template <typename W>
constexpr uint32_t kKeyBytes = 3 * sizeof(W);

// Records of `recordSize` bytes: a code, then a payload that numbers the record, so that a test can see that
// whole records moved. Codes are drawn from a few values only in `keySpread`'s low bits, which makes equal
// keys common, on top of a random high part shared by groups of records.
template <typename W>
std::vector<uint8_t> randomRecords(std::size_t count, uint32_t recordSize, std::mt19937_64& random,
                                   unsigned lowBits = 8 * sizeof(W))
{
    std::vector<uint8_t> records(count * recordSize);
    const W lowMask = lowBits >= 8 * sizeof(W) ? ~W(0) : W((W(1) << lowBits) - 1);
    for (std::size_t i = 0; i < count; ++i)
    {
        uint8_t* record = records.data() + i * recordSize;
        MortonIndex3D<W> code{{W(random()) & lowMask, W(random() % 3), W(random() % 5)}};
        storeMortonKey(record, code);
        for (uint32_t byte = kKeyBytes<W>; byte < recordSize; ++byte)
        {
            record[byte] = uint8_t((i >> (8 * ((byte - kKeyBytes<W>) % 8))) + byte);
        }
    }
    return records;
}

// The records as (code, bytes) values, ordered by code and then by bytes: two buffers hold the same records
// in a valid order exactly when these agree.
template <typename W>
std::vector<std::vector<uint8_t>> canonical(const std::vector<uint8_t>& records, uint32_t recordSize)
{
    std::vector<std::vector<uint8_t>> list;
    for (std::size_t at = 0; at < records.size(); at += recordSize)
    {
        list.emplace_back(records.begin() + long(at), records.begin() + long(at + recordSize));
    }
    std::sort(list.begin(), list.end(),
              [](const auto& a, const auto& b)
              {
                  const auto keyA = loadMortonKey<W>(a.data());
                  const auto keyB = loadMortonKey<W>(b.data());
                  return keyA != keyB ? keyA < keyB : a < b;
              });
    return list;
}

template <typename W>
bool keysAscend(const std::vector<uint8_t>& records, uint32_t recordSize)
{
    for (std::size_t at = recordSize; at < records.size(); at += recordSize)
    {
        if (loadMortonKey<W>(records.data() + at) < loadMortonKey<W>(records.data() + at - recordSize))
        {
            return false;
        }
    }
    return true;
}

template <typename W>
void checkSortOfSize(uint32_t recordSize)
{
    SCOPED_TRACE("record size " + std::to_string(recordSize) + ", word bytes " + std::to_string(sizeof(W)));
    std::mt19937_64 random(recordSize * 31 + sizeof(W));
    // Counts below and above the insertion sort's reach; keys over the whole code and keys with many equals.
    for (const std::size_t count : {std::size_t(0), std::size_t(1), std::size_t(7), std::size_t(33),
                                    std::size_t(5000), std::size_t(70000)})
    {
        for (const unsigned lowBits : {unsigned(8 * sizeof(W)), 4u})
        {
            std::vector<uint8_t> records = randomRecords<W>(count, recordSize, random, lowBits);
            const auto expected = canonical<W>(records, recordSize);
            sortRecordsByMorton<W>(records.data(), count, recordSize);
            ASSERT_TRUE(keysAscend<W>(records, recordSize))
                << count << " records, " << lowBits << " low bits";
            ASSERT_EQ(canonical<W>(records, recordSize), expected) << count << " records";
        }
    }
}

TEST(RawSortKernels, SortOrdersWholeRecordsByCodeForEverySizeAndBothWidths)
{
    for (const uint32_t size : {12u, 17u, 24u, 33u, 50u, 60u})
    {
        checkSortOfSize<uint32_t>(size);
    }
    for (const uint32_t size : {24u, 33u, 50u, 60u})
    {
        checkSortOfSize<uint64_t>(size);
    }
}

TEST(RawSortKernels, SortLeavesPresortedBatchesAloneAndKeepsEveryRecordOfOneCode)
{
    constexpr uint32_t size = 24;
    std::mt19937_64 random(5);
    std::vector<uint8_t> records = randomRecords<uint32_t>(40000, size, random);
    sortRecordsByMorton<uint32_t>(records.data(), 40000, size);
    const std::vector<uint8_t> sorted = records;

    // Already sorted: nothing moves.
    sortRecordsByMorton<uint32_t>(records.data(), 40000, size);
    EXPECT_EQ(records, sorted);

    // One code for all: the payloads all survive.
    std::vector<uint8_t> equal = randomRecords<uint32_t>(3000, size, random);
    for (std::size_t i = 0; i < 3000; ++i)
    {
        storeMortonKey(equal.data() + i * size, MortonIndex3D<uint32_t>{{7, 8, 9}});
    }
    const auto expected = canonical<uint32_t>(equal, size);
    sortRecordsByMorton<uint32_t>(equal.data(), 3000, size);
    EXPECT_EQ(canonical<uint32_t>(equal, size), expected);
}

// A point as the importer delivered it and the cell that the grid below puts it in, worked out by hand.
struct GridCase
{
    std::array<double, 3> position;
    std::array<int64_t, 3> cell;
};

// origin (-10, 20, 0), scale (0.5, 0.25, 2): cell = round((v - origin) / scale), halves away from zero.
const std::array<double, 3> kOrigin{-10.0, 20.0, 0.0};
const std::array<double, 3> kScale{0.5, 0.25, 2.0};
const std::vector<GridCase> kUnsignedCases{{{4, 21, 3}, {28, 4, 2}}, {{1000, 20, 5}, {2020, 0, 3}}};
const std::vector<GridCase> kSignedCases{{{-3, 19, -3}, {14, -4, -2}}};
const std::vector<GridCase> kFractionCases{{{4.1, 21.1, 3}, {28, 4, 2}}, {{4.2, 20.9, 2.9}, {28, 4, 1}}};
constexpr uint32_t kPayload = 5;

template <typename T>
HSPCBuffer<uint8_t> sourceRecords(const std::vector<GridCase>& cases)
{
    HSPCBuffer<uint8_t> records(cases.size() * (3 * sizeof(T) + kPayload));
    uint8_t* cursor = records.data();
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        for (const double value : cases[i].position)
        {
            little_endian::store(cursor, T(value));
            cursor += sizeof(T);
        }
        for (uint32_t byte = 0; byte < kPayload; ++byte)
        {
            *cursor++ = uint8_t(16 * i + byte);
        }
    }
    return records;
}

template <typename W, typename T>
void checkEncoding(uint8_t type, const std::vector<GridCase>& cases)
{
    SCOPED_TRACE(getTypeName(type) + " coordinates into " + std::to_string(3 * sizeof(W)) + "-byte codes");
    using S = std::make_signed_t<W>;
    HSPCBuffer<uint8_t> records = sourceRecords<T>(cases);
    const PositionLayout layout{type, uint32_t(3 * sizeof(T) + kPayload), kKeyBytes<W> + kPayload, kOrigin,
                                kScale};
    ASSERT_EQ(encodePosition<W>(records, layout), std::nullopt);
    ASSERT_EQ(records.size(), cases.size() * layout.encodedRecordSize);
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        const uint8_t* record = records.data() + i * layout.encodedRecordSize;
        const auto& cell = cases[i].cell;
        EXPECT_EQ(loadMortonKey<W>(record), encodeMortonSigned<W>(S(cell[0]), S(cell[1]), S(cell[2])))
            << "point " << i;
        for (uint32_t byte = 0; byte < kPayload; ++byte)
        {
            EXPECT_EQ(record[kKeyBytes<W> + byte], uint8_t(16 * i + byte)) << "point " << i;
        }
    }
}

template <typename W>
void checkEveryCoordinateType()
{
    std::vector<GridCase> signedCases = kUnsignedCases;
    signedCases.insert(signedCases.end(), kSignedCases.begin(), kSignedCases.end());
    std::vector<GridCase> floatCases = signedCases;
    floatCases.insert(floatCases.end(), kFractionCases.begin(), kFractionCases.end());
    checkEncoding<W, uint32_t>(AttributeType::U32, kUnsignedCases);
    checkEncoding<W, uint64_t>(AttributeType::U64, kUnsignedCases);
    checkEncoding<W, int32_t>(AttributeType::I32, signedCases);
    checkEncoding<W, int64_t>(AttributeType::I64, signedCases);
    checkEncoding<W, float>(AttributeType::F32, floatCases);
    checkEncoding<W, double>(AttributeType::F64, floatCases);
}

// 4-byte coordinates into 24-byte codes grow the record and go through a second buffer; every other pairing
// is encoded in place.
TEST(RawSortKernels, EncodePositionPutsEveryCoordinateTypeOnTheGridInPlaceAndThroughASecondBuffer)
{
    checkEveryCoordinateType<uint32_t>();
    checkEveryCoordinateType<uint64_t>();
}

TEST(RawSortKernels, EncodePositionRefusesUnknownTypesAndBrokenBuffersAndLeavesThemAlone)
{
    const HSPCBuffer<uint8_t> original = sourceRecords<int32_t>(kUnsignedCases);
    const auto refusal =
        [&](auto word, uint8_t type, uint32_t sourceSize, uint32_t encodedSize, std::size_t bytes)
    {
        HSPCBuffer<uint8_t> records(original.begin(), original.begin() + long(bytes));
        const PositionLayout layout{type, sourceSize, encodedSize, kOrigin, kScale};
        const std::optional<std::string> error = encodePosition<decltype(word)>(records, layout);
        EXPECT_TRUE(std::equal(records.begin(), records.end(), original.begin()) && records.size() == bytes);
        return error.value_or("(accepted)");
    };
    const std::size_t whole = original.size();
    // U8 and M96 are no coordinate types, whichever way the record would go.
    EXPECT_EQ(refusal(uint32_t{}, AttributeType::U8, 17, 17, whole),
              "encodePositionInPlace: unknown type for coordinates");
    EXPECT_EQ(refusal(uint64_t{}, AttributeType::M96, 17, 29, whole),
              "encodePosition: unknown type for coordinates");
    EXPECT_EQ(refusal(uint32_t{}, 200, 17, 17, whole), "encodePositionInPlace: unknown type for coordinates");
    EXPECT_EQ(refusal(uint32_t{}, AttributeType::I32, 17, 17, whole - 1),
              "encodePosition: buffer of 33 bytes is not a whole number of records of 17 bytes.");
    EXPECT_EQ(refusal(uint32_t{}, AttributeType::I32, 0, 17, whole),
              "encodePosition: buffer of 34 bytes is not a whole number of records of 0 bytes.");
    EXPECT_EQ(refusal(uint32_t{}, AttributeType::I32, 17, 18, whole),
              "encodePosition: encoded record of 18 bytes does not follow from a source record of 17 bytes "
              "with I32 coordinates.");
    EXPECT_EQ(refusal(uint32_t{}, AttributeType::F64, 17, 5, whole),
              "encodePosition: encoded record of 5 bytes does not follow from a source record of 17 bytes "
              "with F64 coordinates.");
    // An empty batch is a whole number of records.
    EXPECT_EQ(refusal(uint32_t{}, AttributeType::I32, 17, 17, 0), "(accepted)");
}

// A sorted batch of signed cells, each record the cell's code and a 4-byte number: the cell's place in
// `cells` before sorting. Sorting is stable here so that a test knows which of equal points comes first.
template <typename W>
HSPCBuffer<uint8_t> sortedBatch(const std::vector<std::array<int64_t, 3>>& cells, uint32_t recordSize)
{
    using S = std::make_signed_t<W>;
    std::vector<std::pair<MortonIndex3D<W>, uint32_t>> points;
    for (std::size_t i = 0; i < cells.size(); ++i)
    {
        points.emplace_back(encodeMortonSigned<W>(S(cells[i][0]), S(cells[i][1]), S(cells[i][2])),
                            uint32_t(i));
    }
    std::stable_sort(points.begin(), points.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    HSPCBuffer<uint8_t> records(points.size() * recordSize);
    for (std::size_t i = 0; i < points.size(); ++i)
    {
        storeMortonKey(records.data() + i * recordSize, points[i].first);
        little_endian::store(records.data() + i * recordSize + kKeyBytes<W>, points[i].second);
    }
    return records;
}

template <typename W>
std::vector<uint32_t> pointNumbers(const HSPCBuffer<uint8_t>& records, uint32_t recordSize)
{
    std::vector<uint32_t> numbers;
    for (std::size_t at = 0; at < records.size(); at += recordSize)
    {
        numbers.push_back(little_endian::load<uint32_t>(records.data() + at + kKeyBytes<W>));
    }
    return numbers;
}

template <typename W>
void checkFiltersOnHandPickedPoints()
{
    SCOPED_TRACE(std::to_string(8 * sizeof(W)) + "-bit words");
    constexpr uint32_t size = kKeyBytes<W> + 6;
    // Grid: origin 10, scale 0.5 on every axis. The box [8.6, 11.95] truncates to cells [-2, 3]: -2.8 and 3.9
    // go towards zero. Cells -2 and 3 lie on the bounds and stay; -3 and 4 lie outside on one axis each.
    BatchFilter filter;
    filter.box = true;
    filter.origin = {10.0, 10.0, 10.0};
    filter.scale = {0.5, 0.5, 0.5};
    filter.min = {8.6, 8.6, 8.6};
    filter.max = {11.95, 11.95, 11.95};
    const std::vector<std::array<int64_t, 3>> cells{{-2, 0, 0}, {3, 3, 3},  {-3, 0, 0},   {0, 4, 0},
                                                    {0, 0, -3}, {-2, 0, 0}, {-2, -2, -2}, {-2, 0, 0}};
    HSPCBuffer<uint8_t> records = sortedBatch<W>(cells, size);
    const FilterCounts counts = filterSortedBatch<W>(records, size, filter);
    EXPECT_EQ(counts.seen, 8u);
    EXPECT_EQ(counts.filtered, 5u);
    std::vector<uint32_t> kept = pointNumbers<W>(records, size);
    std::sort(kept.begin(), kept.end());
    // Of the three equal points (-2, 0, 0) the first, number 0, stays.
    EXPECT_EQ(kept, (std::vector<uint32_t>{0, 1, 6}));

    // A box that reaches past the grid's range on every side keeps everything but the repeats, and an empty
    // batch stays empty.
    records = sortedBatch<W>(cells, size);
    filter.min = {-1e300, -1e300, -1e300};
    filter.max = {1e300, 1e300, 1e300};
    EXPECT_EQ(filterSortedBatch<W>(records, size, filter).filtered, 2u);
    HSPCBuffer<uint8_t> empty;
    const FilterCounts none = filterSortedBatch<W>(empty, size, filter);
    EXPECT_EQ(none.seen + none.filtered, 0u);
}

template <typename W>
void checkFiltersAgainstReference(std::mt19937_64& random)
{
    constexpr uint32_t size = kKeyBytes<W> + 4;
    std::uniform_int_distribution<int64_t> coordinate(-6, 6);
    std::uniform_real_distribution<double> corner(-4.0, 4.0);
    for (int round = 0; round < 20; ++round)
    {
        std::vector<std::array<int64_t, 3>> cells(500);
        for (auto& cell : cells)
        {
            cell = {coordinate(random), coordinate(random), coordinate(random)};
        }
        BatchFilter filter;
        filter.box = round % 2 == 0;
        filter.duplicates = round % 4 != 1;
        filter.origin = {1.0, -2.0, 0.5};
        filter.scale = {0.5, 1.0, 2.0};
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            filter.min[axis] = filter.origin[axis] + corner(random) * filter.scale[axis];
            filter.max[axis] = filter.min[axis] + std::abs(corner(random)) * filter.scale[axis];
        }
        HSPCBuffer<uint8_t> records = sortedBatch<W>(cells, size);

        // The reference walks the stably sorted points and decides each one from its signed cell.
        std::vector<uint32_t> expected;
        const std::vector<uint32_t> order = pointNumbers<W>(records, size);
        for (std::size_t i = 0; i < order.size(); ++i)
        {
            const auto& cell = cells[order[i]];
            bool inside = true;
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                const double low = std::trunc((filter.min[axis] - filter.origin[axis]) / filter.scale[axis]);
                const double high = std::trunc((filter.max[axis] - filter.origin[axis]) / filter.scale[axis]);
                inside = inside && double(cell[axis]) >= low && double(cell[axis]) <= high;
            }
            const bool repeat = i > 0 && cells[order[i - 1]] == cell;
            if ((!filter.box || inside) && !(filter.duplicates && repeat))
            {
                expected.push_back(order[i]);
            }
        }
        const FilterCounts counts = filterSortedBatch<W>(records, size, filter);
        ASSERT_EQ(pointNumbers<W>(records, size), expected) << "round " << round;
        ASSERT_EQ(counts.seen, cells.size());
        ASSERT_EQ(counts.filtered, cells.size() - expected.size());
    }
}

TEST(RawSortKernels, FiltersDropRepeatsAndPointsOutsideTheClosedBox)
{
    checkFiltersOnHandPickedPoints<uint32_t>();
    checkFiltersOnHandPickedPoints<uint64_t>();
    std::mt19937_64 random(11);
    checkFiltersAgainstReference<uint32_t>(random);
    checkFiltersAgainstReference<uint64_t>(random);
}

// Random cells in clusters of several sizes, with repeats: what a scan's batch looks like at every scale.
template <typename W>
std::vector<std::array<int64_t, 3>> clusteredCells(std::mt19937_64& random, std::size_t count)
{
    std::vector<std::array<int64_t, 3>> cells;
    while (cells.size() < count)
    {
        const unsigned spread = unsigned(random() % (sizeof(W) == 4 ? 31 : 40));
        const int64_t range = int64_t(1) << spread;
        std::array<int64_t, 3> centre{};
        for (auto& axis : centre)
        {
            axis = int64_t(random() % (uint64_t(1) << 30)) - (int64_t(1) << 29);
        }
        for (std::size_t i = 0, n = 1 + random() % 60; i < n && cells.size() < count; ++i)
        {
            std::array<int64_t, 3> cell{};
            for (unsigned axis = 0; axis < 3; ++axis)
            {
                cell[axis] = centre[axis] + int64_t(random() % uint64_t(range));
            }
            cells.push_back(cell);
            if (random() % 8 == 0)
            {
                cells.push_back(cell);
            }
        }
    }
    cells.resize(count);
    return cells;
}

// The cell of a point at a lod by plain arithmetic on its unsigned axes: the axes shifted right by the lod.
template <typename W>
std::array<W, 3> referenceCell(const MortonIndex3D<W>& code, unsigned lod)
{
    std::array<W, 3> axes = decodeMorton(code);
    for (W& axis : axes)
    {
        axis = lod >= 8 * sizeof(W) ? W(0) : W(axis >> lod);
    }
    return axes;
}

template <typename W>
std::vector<MortonIndex3D<W>> codesOf(const HSPCBuffer<uint8_t>& records, uint32_t recordSize)
{
    std::vector<MortonIndex3D<W>> codes;
    for (std::size_t at = 0; at < records.size(); at += recordSize)
    {
        codes.push_back(loadMortonKey<W>(records.data() + at));
    }
    return codes;
}

template <typename W>
void checkLeafKernelsAgainstReference(std::mt19937_64& random)
{
    SCOPED_TRACE(std::to_string(8 * sizeof(W)) + "-bit words");
    constexpr uint32_t size = kKeyBytes<W> + 4;
    for (const std::size_t count : {std::size_t(1), std::size_t(2), std::size_t(300), std::size_t(3000)})
    {
        const HSPCBuffer<uint8_t> records = sortedBatch<W>(clusteredCells<W>(random, count), size);
        const std::vector<MortonIndex3D<W>> codes = codesOf<W>(records, size);
        const Occupancy occupancy = occupancyTable<W>(records.data(), count, size);
        for (unsigned lod = 0; lod < 32; ++lod)
        {
            // Cells in the order of the points, with their counts: the reference for the table and the list.
            std::vector<std::pair<std::array<W, 3>, uint32_t>> cells;
            for (const MortonIndex3D<W>& code : codes)
            {
                const std::array<W, 3> cell = referenceCell(code, lod);
                if (cells.empty() || cells.back().first != cell)
                {
                    cells.emplace_back(cell, 0);
                }
                ++cells.back().second;
            }
            uint32_t largest = 0;
            for (const auto& cell : cells)
            {
                largest = std::max(largest, cell.second);
            }
            ASSERT_EQ(occupancy.cells[lod], cells.size()) << count << " points, lod " << lod;
            ASSERT_EQ(occupancy.largestRun[lod], largest) << count << " points, lod " << lod;

            const std::vector<CellEntry<W>> list = cellList<W>(records.data(), count, size, lod);
            ASSERT_EQ(list.size(), cells.size()) << count << " points, lod " << lod;
            for (std::size_t i = 0; i < list.size(); ++i)
            {
                const auto& [axes, points] = cells[i];
                const MortonIndex3D<W> start =
                    encodeMorton<W>(W(axes[0] << lod), W(axes[1] << lod), W(axes[2] << lod));
                ASSERT_EQ(list[i].index, start) << "cell " << i << " at lod " << lod;
                ASSERT_EQ(list[i].count, points) << "cell " << i << " at lod " << lod;
            }
        }

        // The octant cap: the lowest lod at which each octant's points share one cell, at least 1.
        std::map<unsigned, std::pair<MortonIndex3D<W>, MortonIndex3D<W>>> octants;
        for (const MortonIndex3D<W>& code : codes)
        {
            const unsigned octant = unsigned(decodeMorton(code)[0] >> (8 * sizeof(W) - 1)) |
                                    unsigned(decodeMorton(code)[1] >> (8 * sizeof(W) - 1)) << 1 |
                                    unsigned(decodeMorton(code)[2] >> (8 * sizeof(W) - 1)) << 2;
            octants.try_emplace(octant, code, code).first->second.second = code;
        }
        unsigned expectedCap = 0;
        for (const auto& [octant, ends] : octants)
        {
            unsigned shared = 1;
            while (referenceCell(ends.first, shared) != referenceCell(ends.second, shared))
            {
                ++shared;
            }
            expectedCap = std::max(expectedCap, shared);
        }
        EXPECT_EQ(octantCommonLodCap<W>(records.data(), count, size), expectedCap) << count << " points";
    }
}

TEST(RawSortKernels, OccupancyCellListsAndOctantCapMatchAPlainCount)
{
    std::mt19937_64 random(3);
    checkLeafKernelsAgainstReference<uint32_t>(random);
    checkLeafKernelsAgainstReference<uint64_t>(random);
}

TEST(RawSortKernels, LeafKernelsOnEdgeBatches)
{
    constexpr uint32_t size = 16;
    // Points in two opposite octants, each pair apart at lod 4 only: the cap is 5 whatever lies between.
    const HSPCBuffer<uint8_t> records =
        sortedBatch<uint32_t>({{-20, -20, -20}, {-20, -20, -4}, {3, 3, 3}, {19, 3, 3}}, size);
    EXPECT_EQ(octantCommonLodCap<uint32_t>(records.data(), 4, size), 5u);
    const auto ranges = octantRanges<uint32_t>(records.data(), 4, size);
    EXPECT_TRUE(ranges[0].has_value() && ranges[7].has_value());
    EXPECT_EQ(
        std::count_if(ranges.begin(), ranges.end(), [](const auto& range) { return range.has_value(); }), 2);
    EXPECT_EQ(ranges[7]->lowest, (encodeMortonSigned<uint32_t>(3, 3, 3)));
    EXPECT_EQ(ranges[7]->highest, (encodeMortonSigned<uint32_t>(19, 3, 3)));

    // At the lod of the whole space every point is in the one cell that starts at code 0.
    const std::vector<CellEntry<uint32_t>> whole = cellList<uint32_t>(records.data(), 4, size, 32);
    ASSERT_EQ(whole.size(), 1u);
    EXPECT_EQ(whole[0].index, MortonIndex3D<uint32_t>{});
    EXPECT_EQ(whole[0].count, 4u);

    // An empty batch occupies nothing.
    EXPECT_EQ(occupancyTable<uint32_t>(nullptr, 0, size).cells, OccupancyTable{});
    EXPECT_TRUE(cellList<uint32_t>(nullptr, 0, size, 3).empty());
    EXPECT_EQ(octantCommonLodCap<uint32_t>(nullptr, 0, size), 0u);
}

TEST(RawSortKernels, FirstLodReachingIsWhereTheCellCountComesDownToTheTarget)
{
    OccupancyTable cells{};
    cells.fill(1);
    const std::array<uint64_t, 6> finest{1000, 400, 120, 20, 3, 2};
    std::copy(finest.begin(), finest.end(), cells.begin());
    EXPECT_EQ(firstLodReaching(cells, 1000), 0u);
    EXPECT_EQ(firstLodReaching(cells, 999), 1u);
    EXPECT_EQ(firstLodReaching(cells, 120), 2u);
    EXPECT_EQ(firstLodReaching(cells, 119), 3u);
    EXPECT_EQ(firstLodReaching(cells, 1), 6u);
    // No lod up to 30 comes down that far.
    EXPECT_EQ(firstLodReaching(cells, 0), 31u);
}

TEST(RawSortKernels, RunningLodMeanCapsCutsAboveTheMeanOfAllCuts)
{
    RunningLodMean mean;
    // Means after each cut: 14, 17, 13, 13, 16.4.
    EXPECT_EQ(mean.cut(14), 14u);
    EXPECT_EQ(mean.cut(20), 17u);
    EXPECT_EQ(mean.cut(5), 5u);
    EXPECT_EQ(mean.cut(13), 13u);
    EXPECT_EQ(mean.cut(30), 16u);
    EXPECT_EQ(mean.count, 5u);
    EXPECT_DOUBLE_EQ(mean.mean, 16.4);
}

}  // namespace
