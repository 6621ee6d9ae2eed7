// What the threads of one point distribution share, and the three kinds of thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "hspc/convert/DistributionLayout.h"
#include "hspc/convert/FinalTree.h"
#include "hspc/convert/PointDistributionInputHandler.h"
#include "hspc/convert/StaticPointDistributionProcessHandler.h"
#include "hspc/convert/UpperNodeStore.h"
#include "hspc/format/AttributeStatistics.h"
#include "hspc/format/NodeCompressor.h"
#include "hspc/store/RootStore.h"

namespace HSPC
{

// What one distribution worker keeps for itself: the histograms of the nodes it compressed and its
// compressor, merged and dropped when the stage ends.
struct DistributionWorkerTools
{
    AttributeStatistics statistics;
    std::unique_ptr<NodeCompressor> compressor;
    std::vector<uint8_t> scratch;
    // Picks the job to try first when the loads leave the choice open.
    std::minstd_rand random;
};

template <typename W>
struct DistributionStage
{
    DistributionStage(const RuntimeConfig& config, PointDistributionInputHandler<W>& input,
                      const DistributionLayout<W>& layout, StaticPointDistributionProcessHandler<W>& manager,
                      RootWriter& writer);

    const RuntimeConfig& config;
    PointDistributionInputHandler<W>& input;
    const DistributionLayout<W>& layout;
    StaticPointDistributionProcessHandler<W>& manager;
    RootWriter& writer;
    UpperNodeStore<W> upperNodes;
    // Slices of each run not read yet: its temp file goes when the last one has been read.
    std::unique_ptr<std::atomic<uint32_t>[]> slicesLeft;

    std::mutex writtenMutex;
    std::vector<WrittenNode<W>> written;
};

// Reads leaves readerIndex, readerIndex + readerCount, ... of the layout and reports when it is through.
template <typename W>
void runLeafReader(DistributionStage<W>& stage, uint32_t readerIndex, uint32_t readerCount);

// Compresses, distributes and hands on leaves until the stage is through or fails, then reports.
template <typename W>
void runDistributionWorker(DistributionStage<W>& stage, DistributionWorkerTools& tools);

// Writes compressed nodes until the workers are done and the writer queue is empty, or the stage fails.
template <typename W>
void runNodeWriter(DistributionStage<W>& stage);

}  // namespace HSPC
