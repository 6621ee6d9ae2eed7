#include "octree/ScanPointStream.h"

#include "cachefiles/PntFiles.h"

namespace pc_preprocess
{

ScanPointStream::ScanPointStream(std::vector<Scan> scans, bool consume)
    : m_scans(std::move(scans)), m_consume(consume), m_reader([this] { read(); })
{
}

ScanPointStream::~ScanPointStream()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
    m_reader.join();
}

bool ScanPointStream::next(Block& block)
{
    std::unique_lock lock(m_mutex);
    if (block.points.capacity() > 0)
        m_spare.push_back(std::move(block.points));
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return !m_ready.empty() || m_finished; });
    if (m_ready.empty())
    {
        if (m_error)
            std::rethrow_exception(m_error);
        return false;
    }
    block = std::move(m_ready.front());
    m_ready.pop_front();
    m_changed.notify_all();
    return true;
}

std::vector<IoLightPoint> ScanPointStream::spareVector()
{
    const std::lock_guard lock(m_mutex);
    if (m_spare.empty())
        return {};
    std::vector<IoLightPoint> spare = std::move(m_spare.back());
    m_spare.pop_back();
    return spare;
}

bool ScanPointStream::push(Block block)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_ready.size() < kWaitingBlocks || m_stopped; });
    if (m_stopped)
        return false;
    m_ready.push_back(std::move(block));
    m_changed.notify_all();
    return true;
}

void ScanPointStream::read()
{
    try
    {
        for (size_t scan = 0; scan < m_scans.size(); ++scan)
        {
            if (m_scans[scan].numPoints == 0)
            {
                if (!push(Block{scan, {}, true}))
                    return;
                continue;
            }
            PntPointStream stream(m_scans[scan].pntFile, m_consume);
            const uint64_t total = stream.info().numPoints;
            uint64_t done = 0;
            do
            {
                Block block{scan, spareVector(), false};
                stream.next(block.points);
                done += block.points.size();
                block.lastOfScan = done == total;
                if (!push(std::move(block)))
                    return;
            } while (done < total);
        }
    }
    catch (...)
    {
        const std::lock_guard lock(m_mutex);
        m_error = std::current_exception();
    }
    {
        const std::lock_guard lock(m_mutex);
        m_finished = true;
    }
    m_changed.notify_all();
}

}  // namespace pc_preprocess
