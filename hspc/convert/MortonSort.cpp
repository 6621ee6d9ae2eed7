#include "hspc/convert/MortonSort.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "hspc/convert/MortonRecords.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{
namespace
{

constexpr uint32_t kSmallestFixedSize = 12;
constexpr uint32_t kLargestFixedSize = 50;

template <std::size_t Size>
struct FixedRecord
{
    uint8_t bytes[Size];
};

// A most-significant-digit radix sort on the code's bytes. Each pass scatters one byte's buckets from one
// buffer to the other, and each bucket is then sorted on the next byte down, so that after the first pass or
// two a bucket fits in the cache and the rest of its work stays there. Bytes in which a range does not vary
// cost one counting pass and no move. Ranges of a few records finish with an insertion sort.
template <typename W, std::size_t Size>
class FixedSizeRadixSort
{
public:
    using Record = FixedRecord<Size>;
    static constexpr int kKeyBytes = 3 * sizeof(W);
    static_assert(Size >= kKeyBytes, "a record holds its whole code");

    static void sort(uint8_t* bytes, std::size_t count)
    {
        Record* records = reinterpret_cast<Record*>(bytes);
        if (std::is_sorted(records, records + count, keyLess))
        {
            return;
        }
        if (count <= kInsertionLimit)
        {
            insertionSort(records, count);
            return;
        }
        HSPCBuffer<uint8_t> scratch(count * Size);
        sortRange(records, reinterpret_cast<Record*>(scratch.data()), count,
                  highestVaryingByte(records, count), true);
    }

private:
    static constexpr std::size_t kInsertionLimit = 32;

    static bool keyLess(const Record& a, const Record& b)
    {
        return loadMortonKey<W>(a.bytes) < loadMortonKey<W>(b.bytes);
    }

    static void insertionSort(Record* records, std::size_t count)
    {
        for (std::size_t i = 1; i < count; ++i)
        {
            const Record moving = records[i];
            const MortonIndex3D<W> key = loadMortonKey<W>(moving.bytes);
            std::size_t j = i;
            for (; j > 0 && key < loadMortonKey<W>(records[j - 1].bytes); --j)
            {
                records[j] = records[j - 1];
            }
            records[j] = moving;
        }
    }

    // The most significant key byte in which any record differs from the first; -1 when all codes are equal.
    // One pass of word operations spares the counting passes over the constant top bytes of a batch.
    static int highestVaryingByte(const Record* records, std::size_t count)
    {
        const MortonIndex3D<W> first = loadMortonKey<W>(records[0].bytes);
        std::array<W, 3> differing{};
        for (std::size_t i = 1; i < count; ++i)
        {
            const MortonIndex3D<W> key = loadMortonKey<W>(records[i].bytes);
            for (unsigned word = 0; word < 3; ++word)
            {
                differing[word] |= key.words[word] ^ first.words[word];
            }
        }
        for (int word = 2; word >= 0; --word)
        {
            if (differing[word] != 0)
            {
                const int highestBit = int(std::bit_width(differing[word])) - 1;
                return word * int(sizeof(W)) + highestBit / 8;
            }
        }
        return -1;
    }

    // Sorts the records at `from` on key bytes `digit` and below; the result lands in `from` when
    // `resultInFrom`, else in `other`, a range of the same length.
    static void sortRange(Record* from, Record* other, std::size_t count, int digit, bool resultInFrom)
    {
        if (count <= kInsertionLimit)
        {
            insertionSort(from, count);
            moveIfWanted(from, other, count, resultInFrom);
            return;
        }
        std::array<std::size_t, 256> bucketStart{};
        for (; digit >= 0; --digit)
        {
            bucketStart.fill(0);
            for (std::size_t i = 0; i < count; ++i)
            {
                ++bucketStart[from[i].bytes[digit]];
            }
            if (bucketStart[from[0].bytes[digit]] != count)
            {
                break;
            }
        }
        if (digit < 0)
        {
            moveIfWanted(from, other, count, resultInFrom);
            return;
        }
        std::size_t start = 0;
        for (std::size_t& bucket : bucketStart)
        {
            start += std::exchange(bucket, start);
        }
        std::array<std::size_t, 256> cursor = bucketStart;
        for (std::size_t i = 0; i < count; ++i)
        {
            other[cursor[from[i].bytes[digit]]++] = from[i];
        }
        for (std::size_t bucket = 0; bucket < 256; ++bucket)
        {
            const std::size_t first = bucketStart[bucket];
            const std::size_t size = cursor[bucket] - first;
            if (size > 0)
            {
                sortRange(other + first, from + first, size, digit - 1, !resultInFrom);
            }
        }
    }

    static void moveIfWanted(const Record* from, Record* other, std::size_t count, bool resultInFrom)
    {
        if (!resultInFrom)
        {
            std::memcpy(other, from, count * Size);
        }
    }
};

template <typename W>
int compareRecordKeys(const void* a, const void* b)
{
    const MortonIndex3D<W> keyA = loadMortonKey<W>(static_cast<const uint8_t*>(a));
    const MortonIndex3D<W> keyB = loadMortonKey<W>(static_cast<const uint8_t*>(b));
    return keyA < keyB ? -1 : (keyB < keyA ? 1 : 0);
}

// The first fixed size is the larger of 12 and the code's own size.
template <typename W>
constexpr uint32_t kFirstFixedSize = std::max<uint32_t>(kSmallestFixedSize, 3 * sizeof(W));

template <typename W, std::size_t... Offsets>
bool sortFixedSize(uint8_t* records, std::size_t count, uint32_t recordSize, std::index_sequence<Offsets...>)
{
    return ((recordSize == kFirstFixedSize<W> + Offsets &&
             (FixedSizeRadixSort<W, kFirstFixedSize<W> + Offsets>::sort(records, count), true)) ||
            ...);
}

}  // namespace

template <typename W>
void sortRecordsByMorton(uint8_t* records, std::size_t count, uint32_t recordSize)
{
    if (count < 2 || recordSize < 3 * sizeof(W))
    {
        return;
    }
    constexpr std::size_t fixedSizes = kLargestFixedSize - kFirstFixedSize<W> + 1;
    if (!sortFixedSize<W>(records, count, recordSize, std::make_index_sequence<fixedSizes>{}))
    {
        std::qsort(records, count, recordSize, compareRecordKeys<W>);
    }
}

template void sortRecordsByMorton<uint32_t>(uint8_t*, std::size_t, uint32_t);
template void sortRecordsByMorton<uint64_t>(uint8_t*, std::size_t, uint32_t);

}  // namespace HSPC
