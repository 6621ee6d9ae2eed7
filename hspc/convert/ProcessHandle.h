// The caller's hold on a running conversion: a cancel from any thread reaches whichever stage runs at that
// moment. Each stage makes itself current while its threads run; a cancel that comes between two stages,
// or before the first, is kept and delivered to the next stage the moment it becomes current.
#pragma once

#include <mutex>

#include "hspc/convert/ConverterProcessManager.h"

namespace HSPC
{

class ProcessHandle
{
public:
    ProcessHandle() = default;
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    // Cancels the current stage, and every stage that becomes current afterwards.
    void cancel();
    bool cancelRequested() const;

    // `manager` may be null: no stage is running. A pending cancel reaches a new manager at once.
    void setCurrent(ConverterProcessManager* manager);

    // Set when the conversion has returned, whatever its outcome.
    void markFinished();
    bool finished() const;

private:
    mutable std::mutex m_mutex;
    ConverterProcessManager* m_current = nullptr;
    bool m_cancelRequested = false;
    bool m_finished = false;
};

// Makes a stage's manager current for the life of the guard: from before the stage's threads start to after
// they have been joined, also when the stage leaves by an exception.
class CurrentStage
{
public:
    CurrentStage(ProcessHandle& handle, ConverterProcessManager& manager) : m_handle(handle)
    {
        m_handle.setCurrent(&manager);
    }
    ~CurrentStage() { m_handle.setCurrent(nullptr); }

    CurrentStage(const CurrentStage&) = delete;
    CurrentStage& operator=(const CurrentStage&) = delete;

private:
    ProcessHandle& m_handle;
};

}  // namespace HSPC
