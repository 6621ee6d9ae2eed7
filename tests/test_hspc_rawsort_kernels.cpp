// The per-batch kernels of the raw sort: sorting records by Morton code, putting positions on the grid,
// the duplicate and box filters, and the per-cell counts that decide where a batch is cut. Each is checked
// against a plain reference computation on random records.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <vector>

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

TEST(RawSortKernels, SortHandlesPresortedReversedAndAllEqualBatches)
{
    constexpr uint32_t size = 24;
    std::mt19937_64 random(5);
    std::vector<uint8_t> records = randomRecords<uint32_t>(40000, size, random);
    sortRecordsByMorton<uint32_t>(records.data(), 40000, size);
    const std::vector<uint8_t> sorted = records;

    // Already sorted: nothing moves.
    sortRecordsByMorton<uint32_t>(records.data(), 40000, size);
    EXPECT_EQ(records, sorted);

    // Reversed whole records sort back to the same key order.
    std::vector<uint8_t> reversed(records.size());
    for (std::size_t i = 0; i < 40000; ++i)
    {
        std::memcpy(reversed.data() + i * size, records.data() + (40000 - 1 - i) * size, size);
    }
    sortRecordsByMorton<uint32_t>(reversed.data(), 40000, size);
    EXPECT_TRUE(keysAscend<uint32_t>(reversed, size));
    EXPECT_EQ(canonical<uint32_t>(reversed, size), canonical<uint32_t>(sorted, size));

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

}  // namespace
