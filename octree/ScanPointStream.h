#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/IoLightPoint.h"

namespace pc_preprocess
{

// The points of the scans' files, read and decoded on a thread of its own, file after file and in file order,
// in blocks of 65536 points, while the caller distributes the blocks that are ready: the root split keeps
// two cores busy. At most a few blocks wait, so memory stays bounded whatever the scans.
class ScanPointStream
{
public:
    struct Scan
    {
        std::wstring pntFile;
        uint64_t numPoints = 0;
    };
    struct Block
    {
        size_t scan = 0;
        std::vector<IoLightPoint> points;
        bool lastOfScan = false;  // a scan without points gives one empty block with this set
    };

    // A consuming stream gives each file's space back as it reads it (see PntPointStream): for the pass that
    // distributes the points, after which the files are deleted.
    ScanPointStream(std::vector<Scan> scans, bool consume);
    ~ScanPointStream();
    ScanPointStream(const ScanPointStream&) = delete;
    ScanPointStream& operator=(const ScanPointStream&) = delete;

    // The next block, in order; false after the last one. A reading error is thrown here, in the caller's
    // thread. The block's vector may be one that an earlier call gave: its memory is used again.
    bool next(Block& block);

private:
    void read();
    bool push(Block block);
    std::vector<IoLightPoint> spareVector();

    static constexpr size_t kWaitingBlocks = 4;
    const std::vector<Scan> m_scans;
    const bool m_consume;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Block> m_ready;
    std::vector<std::vector<IoLightPoint>> m_spare;  // vectors handed back, for the reader to fill again
    bool m_finished = false;
    bool m_stopped = false;
    std::exception_ptr m_error;
    std::thread m_reader;  // last: it starts once everything else is ready
};

}  // namespace pc_preprocess
