#pragma once

#include <cstdint>
#include <string>

#include "core/Export.h"
#include "exporters/Exporter.h"

namespace pc_preprocess
{

// Writes points as PTS text: the point count on the first line, then one line per point,
// "x y z intensity r g b", the coordinates with 9 significant digits, the intensity as its 16-bit number
// and the colour on the 8-bit scale.
class PCP_API PtsExporter : public Exporter
{
public:
    // Throws when something is at the path already or its extension is not exactly ".pts".
    PtsExporter(const std::wstring& path, const geom::Matrix3d& transform);

    uint64_t run(const BatchSource& nextBatch) override;
};

}  // namespace pc_preprocess
