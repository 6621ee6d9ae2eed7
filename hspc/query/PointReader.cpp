#include "hspc/query/PointReader.h"

#include <algorithm>
#include <string>


namespace HSPC
{

void PointReader::skipEmptyNodes()
{
    // A node without points has no block: there is nothing a writer could compress.
    const std::vector<TreeNode>& nodes = m_importer.tree().nodes;
    while (m_nextNode < nodes.size() && nodes[m_nextNode].pointCount == 0)
    {
        ++m_nextNode;
    }
}

ReadResult PointReader::fail(HSPCBuffer<uint8_t>& buffer)
{
    m_failed = true;
    buffer.clear();
    return ReadResult::kRequestFailed;
}

// Reads the next node, which holds points: into the buffer's tail when it fits in `roomLeft` bytes, otherwise
// into m_pending. False after reporting a failure.
bool PointReader::readNextNode(HSPCBuffer<uint8_t>& buffer, uint64_t roomLeft)
{
    const uint32_t recordSize = m_importer.rawRecordSize();
    const RecordRoom room = [&](uint64_t count) -> uint8_t*
    {
        const uint64_t bytes = count * recordSize;
        if (bytes <= roomLeft)
        {
            const size_t before = buffer.size();
            buffer.resize(before + size_t(bytes));
            return buffer.data() + before;
        }
        m_pending.resize(size_t(bytes));
        m_pendingSent = 0;
        return m_pending.data();
    };
    uint64_t count = 0;
    std::string error;
    if (!m_importer.readNodeRecords(m_nextNode, m_reading, room, count, error))
    {
        m_importer.config().errorLogger(error);
        return false;
    }
    ++m_nextNode;
    skipEmptyNodes();
    return true;
}

ReadResult PointReader::next(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes)
{
    buffer.clear();
    if (m_failed)
    {
        return ReadResult::kRequestFailed;
    }
    const uint64_t recordSize = m_importer.rawRecordSize();
    const uint64_t capacity = maxBytes / recordSize * recordSize;
    skipEmptyNodes();
    const size_t nodeCount = m_importer.tree().nodes.size();
    while (buffer.size() < capacity)
    {
        if (m_pendingSent < m_pending.size())
        {
            const uint64_t take = std::min<uint64_t>(m_pending.size() - m_pendingSent, capacity - buffer.size());
            buffer.insert(buffer.end(), m_pending.begin() + ptrdiff_t(m_pendingSent),
                          m_pending.begin() + ptrdiff_t(m_pendingSent + take));
            m_pendingSent += take;
            continue;
        }
        if (m_nextNode >= nodeCount)
        {
            break;
        }
        if (!readNextNode(buffer, capacity - buffer.size()))
        {
            return fail(buffer);
        }
    }
    if (buffer.empty())
    {
        const bool nothingLeft = m_nextNode >= nodeCount && m_pendingSent == m_pending.size();
        if (nothingLeft)
        {
            return ReadResult::kEnd;
        }
        m_importer.config().errorLogger("HSPCImporter: a batch of " + std::to_string(maxBytes) +
                                        " bytes cannot take one record of " + std::to_string(recordSize) +
                                        " bytes.");
        return ReadResult::kRequestFailed;
    }
    m_pointsRead += buffer.size() / recordSize;
    if (m_importer.config().progress)
    {
        m_importer.config().progress(m_pointsRead);
    }
    return ReadResult::kData;
}

}  // namespace HSPC
