#pragma once

#include <cstdint>
#include <string>

#include "core/Export.h"
#include "core/IoTransfo.h"
#include "exporters/Exporter.h"

namespace pc_preprocess
{

// Writes points as the program's own exchange variant of LAZ, which LazImporter recognises: LAS 1.4, point
// format 7 with 4 extra bytes that carry the 16-bit normal code, no variable length records, generating
// software "TANDOREL-XYZIRGBS". So a round trip through a LAZ file keeps the normals.
class PCP_API LazExporter : public Exporter
{
public:
    // `ioTransfo` is the integer grid of the file: X = round((x - offset) / scale) per axis. Throws when
    // something is at the path already, its extension is not exactly ".laz", or a scale is not positive.
    LazExporter(const std::wstring& path, const geom::Matrix3d& transform, const IoTransfo& ioTransfo);

    const IoTransfo& ioTransfo() const { return m_ioTransfo; }

    uint64_t run(const BatchSource& nextBatch) override;

private:
    IoTransfo m_ioTransfo;
};

}  // namespace pc_preprocess
