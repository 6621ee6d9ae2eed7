// The read position of an HSPCImporter: which node comes next, and the records of a node that did not fit
// whole into the last batch. Every node is read, inner ones too: a data set's inner nodes hold points of
// their own, which a read of the leaves alone would lose. Nodes that fit are decoded straight into the batch; a larger one is decoded
// once into a buffer of its own and handed out over as many batches as it needs.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "hspc/convert/Importer.h"
#include "hspc/query/HSPCImporterImpl.h"
#include "hspc/format/TrackedMemory.h"

namespace HSPC
{

class PointReader
{
public:
    explicit PointReader(const HSPCImporterImpl& importer) : m_importer(importer) {}

    // Fills `buffer` with whole raw records of at most `maxBytes` bytes, replacing what it held.
    ReadResult next(HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes);

private:
    void skipEmptyNodes();
    bool readNextNode(HSPCBuffer<uint8_t>& buffer, uint64_t roomLeft);
    ReadResult fail(HSPCBuffer<uint8_t>& buffer);

    const HSPCImporterImpl& m_importer;
    uint32_t m_nextNode = 0;
    // Records of the node being handed out and how many of its bytes went out already.
    HSPCBuffer<uint8_t> m_pending;
    uint64_t m_pendingSent = 0;
    NodeReading m_reading;
    uint64_t m_pointsRead = 0;
    bool m_failed = false;
};

}  // namespace HSPC
