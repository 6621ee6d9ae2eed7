// The per-batch kernels of the raw sort: sorting records by Morton code, putting positions on the grid,
// the duplicate and box filters, and the per-cell counts that decide where a batch is cut. Each is checked
// against a plain reference computation on random records.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "hspc/convert/MortonRecords.h"
#include "hspc/convert/MortonSort.h"

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
            ASSERT_TRUE(keysAscend<W>(records, recordSize)) << count << " records, " << lowBits << " low bits";
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

}  // namespace
