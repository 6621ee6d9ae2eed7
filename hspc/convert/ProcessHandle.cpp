#include "hspc/convert/ProcessHandle.h"

namespace HSPC
{

void ProcessHandle::cancel()
{
    std::lock_guard lock(m_mutex);
    m_cancelRequested = true;
    if (m_current != nullptr)
    {
        m_current->cancel();
    }
}

bool ProcessHandle::cancelRequested() const
{
    std::lock_guard lock(m_mutex);
    return m_cancelRequested;
}

void ProcessHandle::setCurrent(ConverterProcessManager* manager)
{
    std::lock_guard lock(m_mutex);
    m_current = manager;
    if (m_current != nullptr && m_cancelRequested)
    {
        m_current->cancel();
    }
}

void ProcessHandle::markFinished()
{
    std::lock_guard lock(m_mutex);
    m_finished = true;
}

bool ProcessHandle::finished() const
{
    std::lock_guard lock(m_mutex);
    return m_finished;
}

}  // namespace HSPC
