// What the HSPC conversion stages share between threads: the tracked byte count of HSPCBuffer and the
// ConcurrentQueue that hands work from producers to consumers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <latch>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <vector>

#include "hspc/format/ConcurrentQueue.h"
#include "hspc/format/TrackedMemory.h"

using namespace HSPC;

namespace
{

// Bytes a buffer holds in the count: its capacity, not its size.
template <typename T>
uint64_t heldBytes(const HSPCBuffer<T>& buffer)
{
    return buffer.capacity() * sizeof(T);
}

}  // namespace

TEST(TrackedMemory, CountFollowsGrowthMovesAndRelease)
{
    const uint64_t before = trackedByteCount();
    {
        HSPCBuffer<uint32_t> buffer;
        EXPECT_EQ(trackedByteCount(), before);
        buffer.reserve(1000);
        EXPECT_EQ(trackedByteCount(), before + 4000);
        buffer.resize(1000, 7);
        EXPECT_EQ(trackedByteCount(), before + 4000);
        // Growth allocates anew and frees the old block.
        buffer.push_back(8);
        EXPECT_GT(buffer.capacity(), 1000u);
        EXPECT_EQ(trackedByteCount(), before + heldBytes(buffer));

        // A move hands the block on; the count stays.
        const uint32_t* data = buffer.data();
        HSPCBuffer<uint32_t> moved = std::move(buffer);
        EXPECT_EQ(moved.data(), data);
        EXPECT_EQ(trackedByteCount(), before + heldBytes(moved));
        HSPCBuffer<uint32_t> assigned(10);
        assigned = std::move(moved);
        EXPECT_EQ(trackedByteCount(), before + heldBytes(assigned));

        // A copy is a second block.
        const HSPCBuffer<uint32_t> copy = assigned;
        EXPECT_EQ(trackedByteCount(), before + heldBytes(assigned) + heldBytes(copy));

        assigned.resize(3);
        assigned.shrink_to_fit();
        EXPECT_EQ(trackedByteCount(), before + heldBytes(assigned) + heldBytes(copy));
    }
    EXPECT_EQ(trackedByteCount(), before);

    // Memory of untracked vectors is not counted.
    const std::vector<uint64_t> plain(100000);
    EXPECT_EQ(trackedByteCount(), before);
}

TEST(TrackedMemory, BuffersMadeOnOneThreadAndFreedOnAnother)
{
    const uint64_t before = trackedByteCount();
    constexpr int kThreads = 4;
    constexpr int kBuffersPerThread = 200;
    ConcurrentQueue<HSPCBuffer<uint8_t>> handedOver;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
    {
        threads.emplace_back(
            [&handedOver, t]
            {
                for (int i = 0; i < kBuffersPerThread; ++i)
                {
                    // Some grow and die here, every fourth lives on in the queue.
                    HSPCBuffer<uint8_t> buffer;
                    for (int k = 0; k < 50 + t * 10 + i; ++k)
                        buffer.push_back(uint8_t(k));
                    if (i % 4 == 0)
                        handedOver.push(std::move(buffer));
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    handedOver.close();

    std::vector<HSPCBuffer<uint8_t>> survivors;
    while (std::optional<HSPCBuffer<uint8_t>> buffer = handedOver.pop())
        survivors.push_back(std::move(*buffer));
    ASSERT_EQ(survivors.size(), size_t(kThreads * kBuffersPerThread / 4));
    const uint64_t held = std::accumulate(survivors.begin(), survivors.end(), uint64_t{0},
                                          [](uint64_t sum, const auto& b) { return sum + heldBytes(b); });
    // The vector of survivors is untracked itself: only their blocks count.
    EXPECT_EQ(trackedByteCount(), before + held);

    // Freed on threads other than the ones that made them.
    std::thread first([part = std::vector(std::make_move_iterator(survivors.begin()),
                                          std::make_move_iterator(survivors.begin() + 50))]() mutable
                      { part.clear(); });
    std::thread second([part = std::vector(std::make_move_iterator(survivors.begin() + 50),
                                           std::make_move_iterator(survivors.end()))]() mutable
                       { part.clear(); });
    first.join();
    second.join();
    survivors.clear();
    EXPECT_EQ(trackedByteCount(), before);
}

TEST(ConcurrentQueue, FirstInFirstOutOrOrderedByTheComparingFunction)
{
    ConcurrentQueue<int> fifo;
    EXPECT_FALSE(fifo.tryPop());
    for (int value : {5, 3, 9, 1})
        fifo.push(int(value));
    EXPECT_EQ(fifo.size(), 4u);
    std::vector<int> popped;
    while (std::optional<int> value = fifo.tryPop())
        popped.push_back(*value);
    EXPECT_EQ(popped, (std::vector<int>{5, 3, 9, 1}));
    EXPECT_TRUE(fifo.empty());

    // Move-only items, ordered by what they point to; pushes between pops keep the order.
    using Item = std::unique_ptr<int>;
    ConcurrentQueue<Item> ordered([](const Item& a, const Item& b) { return *a < *b; });
    for (int value : {50, 30, 90, 10, 30})
        ordered.push(std::make_unique<int>(value));
    popped.clear();
    popped.push_back(**ordered.tryPop());
    popped.push_back(**ordered.pop());
    ordered.push(std::make_unique<int>(20));
    ordered.push(std::make_unique<int>(95));
    ordered.close();
    while (std::optional<Item> item = ordered.pop())
        popped.push_back(**item);
    EXPECT_EQ(popped, (std::vector<int>{10, 30, 20, 30, 50, 90, 95}));

    // A buffer passes through without being copied: same block, same count.
    const uint64_t before = trackedByteCount();
    ConcurrentQueue<HSPCBuffer<double>> buffers;
    HSPCBuffer<double> buffer(1000, 1.5);
    const double* data = buffer.data();
    buffers.push(std::move(buffer));
    EXPECT_EQ(trackedByteCount(), before + 8000);
    const std::optional<HSPCBuffer<double>> out = buffers.tryPop();
    ASSERT_TRUE(out);
    EXPECT_EQ(out->data(), data);
    EXPECT_EQ(trackedByteCount(), before + 8000);
}

TEST(ConcurrentQueue, SeveralProducersAndConsumersSeeEveryItemOnceInEachProducersOrder)
{
    constexpr uint32_t kProducers = 4;
    constexpr uint32_t kConsumers = 3;
    constexpr uint32_t kItemsEach = 20000;
    using Item = std::unique_ptr<uint32_t>;  // producer * kItemsEach + sequence number
    ConcurrentQueue<Item> queue;
    std::vector<std::vector<uint32_t>> received(kConsumers);
    std::vector<std::thread> consumers;
    for (uint32_t c = 0; c < kConsumers; ++c)
    {
        consumers.emplace_back(
            [&queue, &mine = received[c]]
            {
                while (std::optional<Item> item = queue.pop())
                    mine.push_back(**item);
            });
    }
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p)
    {
        producers.emplace_back(
            [&queue, p]
            {
                for (uint32_t i = 0; i < kItemsEach; ++i)
                    queue.push(std::make_unique<uint32_t>(p * kItemsEach + i));
            });
    }
    for (std::thread& producer : producers)
        producer.join();
    queue.close();
    for (std::thread& consumer : consumers)
        consumer.join();

    std::vector<uint32_t> all;
    for (const std::vector<uint32_t>& mine : received)
    {
        // Within one consumer, each producer's items arrive in the order they were pushed.
        std::vector<int64_t> lastOf(kProducers, -1);
        for (uint32_t value : mine)
        {
            const uint32_t producer = value / kItemsEach;
            EXPECT_GT(int64_t(value), lastOf[producer]);
            lastOf[producer] = value;
        }
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    std::vector<uint32_t> expected(kProducers * kItemsEach);
    std::iota(expected.begin(), expected.end(), 0u);
    EXPECT_EQ(all, expected);
    EXPECT_TRUE(queue.empty());
}

TEST(ConcurrentQueue, ClosingEndsTheWaitOfEveryConsumer)
{
    ConcurrentQueue<std::unique_ptr<int>> queue;
    std::latch started(3);
    std::atomic<int> ended{0};
    std::vector<std::thread> consumers;
    for (int c = 0; c < 3; ++c)
    {
        consumers.emplace_back(
            [&]
            {
                started.count_down();
                EXPECT_FALSE(queue.pop());
                ++ended;
            });
    }
    started.wait();
    queue.close();
    for (std::thread& consumer : consumers)
        consumer.join();
    EXPECT_EQ(ended, 3);
    EXPECT_TRUE(queue.closed());
    // Once closed, pop no longer waits, but still hands out what is queued.
    queue.push(std::make_unique<int>(4));
    EXPECT_EQ(**queue.pop(), 4);
    EXPECT_FALSE(queue.pop());
}

TEST(ConcurrentQueue, AStopPredicateEndsTheWaitOnceTheQueueIsEmpty)
{
    // The stage's own state, under its own lock, which producers also hold while they push: the predicate
    // runs without the queue's lock, so the two locks are never taken in opposite orders.
    std::mutex stateMutex;
    bool failed = false;
    const auto stop = [&]
    {
        std::lock_guard lock(stateMutex);
        return failed;
    };

    ConcurrentQueue<std::unique_ptr<int>> queue;
    std::latch started(2);
    std::vector<std::vector<int>> received(2);
    std::vector<std::thread> consumers;
    for (int c = 0; c < 2; ++c)
    {
        consumers.emplace_back(
            [&, &mine = received[c]]
            {
                started.count_down();
                while (std::optional<std::unique_ptr<int>> item = queue.pop(stop))
                    mine.push_back(**item);
            });
    }
    started.wait();
    {
        std::lock_guard lock(stateMutex);
        for (int value = 0; value < 1000; ++value)
            queue.push(std::make_unique<int>(value));
        failed = true;
    }
    queue.wakeWaiters();
    for (std::thread& consumer : consumers)
        consumer.join();
    // Items queued before the stop are still handed out: the predicate only ends waiting on an empty queue.
    EXPECT_EQ(received[0].size() + received[1].size(), 1000u);
    EXPECT_TRUE(queue.empty());
    EXPECT_FALSE(queue.closed());
    EXPECT_FALSE(queue.pop(stop));
}
