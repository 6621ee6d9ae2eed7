// Bytes held in a stage's memory in use for as long as the reservation lives: a reader reserves a batch
// before it asks for points, a worker holds the batch's bytes while it processes it. However a thread leaves
// its work, by success, failure or cancel, the bytes are taken back.
#pragma once

#include <cstdint>
#include <utility>

#include "hspc/convert/ConverterProcessManager.h"

namespace HSPC
{

class MemoryReservation
{
public:
    MemoryReservation(ConverterProcessManager& manager, uint64_t bytes) : m_manager(&manager), m_bytes(bytes)
    {
        m_manager->addMemoryInUse(bytes);
    }

    // Takes over `bytes` that someone else reserved.
    static MemoryReservation adopt(ConverterProcessManager& manager, uint64_t bytes)
    {
        MemoryReservation reservation(manager, 0);
        reservation.m_bytes = bytes;
        return reservation;
    }

    MemoryReservation(MemoryReservation&& other) noexcept
        : m_manager(other.m_manager), m_bytes(std::exchange(other.m_bytes, 0))
    {
    }
    MemoryReservation& operator=(MemoryReservation&&) = delete;
    MemoryReservation(const MemoryReservation&) = delete;
    MemoryReservation& operator=(const MemoryReservation&) = delete;

    ~MemoryReservation() { m_manager->releaseMemory(m_bytes); }

    void resize(uint64_t bytes)
    {
        if (bytes > m_bytes)
        {
            m_manager->addMemoryInUse(bytes - m_bytes);
        }
        else
        {
            m_manager->releaseMemory(m_bytes - bytes);
        }
        m_bytes = bytes;
    }

    // Hands the bytes on, still reserved, to whoever adopts them.
    uint64_t handOver() { return std::exchange(m_bytes, 0); }

    uint64_t bytes() const { return m_bytes; }

private:
    ConverterProcessManager* m_manager;
    uint64_t m_bytes;
};

}  // namespace HSPC
