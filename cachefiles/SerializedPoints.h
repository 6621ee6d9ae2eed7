#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "cachefiles/PnzCodec.h"
#include "core/Export.h"
#include "core/IoLightPoint.h"
#include "core/IoTransfo.h"

namespace pc_preprocess
{

// The buffering writer of one PNT or PNZ file: records of 26 bytes, class bytes and normals of 12 bytes wait
// here until they are flushed to open streams or written as one PNZ. A tree node and the per-scan writer of
// an import each own one. The members are open to them: a node appends to the buffers point by point.
class PCP_API SerializedPoints
{
public:
    SerializedPoints() = default;
    SerializedPoints(bool hasClasses, bool hasNormals) : m_hasClasses(hasClasses), m_hasNormals(hasNormals) {}

    // Serialises the points behind the buffered records, with their class and normal where the file has them.
    void add(const std::vector<IoLightPoint>& points);
    void add(const IoLightPoint& point);

    // Writes all three buffers to the streams and empties them; does nothing while no record waits. The
    // caller checks the streams, whose names it knows.
    void flush(std::ostream& pnt, std::ostream& classes, std::ostream& normals);

    // Writes the buffered records as one new PNZ file (header and planes) and the side buffers as plain side
    // files next to it, then empties the buffers. Returns the PNZ size. No records give a valid empty node.
    uint64_t writeDirectPnz(const std::wstring& pnz, const IoTransfo& transfo);
    // The same with a coder that is kept from node to node.
    uint64_t writeDirectPnz(const std::wstring& pnz, const IoTransfo& transfo, PnzCoder& coder);

    // Writes the 50-byte header; the stream must stand at its start.
    static void writeHeader(std::ostream& pnt, const IoTransfo& transfo);

    // Frees the memory of all three buffers; refuses while records wait to be written.
    void clear();

    std::vector<uint8_t> m_buffer;
    std::vector<uint8_t> m_classes;
    std::vector<uint8_t> m_normals;
    uint64_t m_numBuffered = 0;
    bool m_hasClasses = false;
    bool m_hasNormals = false;

private:
    void empty();
};

}  // namespace pc_preprocess
