#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core/Export.h"
#include "core/IoTransfo.h"
#include "exporters/Exporter.h"
#include "geom/UnitsValue.h"

namespace pc_preprocess
{

class Logger;

// Writes points as an HSPC data set: the HSPC converter pulls them through a TandToHspcImporter, sorts them
// out of core in a folder "temp" inside the output folder (removed again however the export ends) and
// writes the data set into the output folder, as a tree of node files or as one pack archive. Which
// attributes the data set carries follows supportedAttributes(): radius, scan id, class, colour, intensity
// and normal, each when set.
class PCP_API HspcExporter : public Exporter
{
public:
    // `path` is the output folder; `ioTransfo` the integer grid of the data set (origin and scale). Throws
    // "HspcExporter: <path> is not an existing empty folder." unless `folderMayHoldFiles` (then it must only
    // exist), and "HspcExporter: scale{X,Y,Z} not all positive.". With a logger, the converter's messages
    // and progress go to it; without one they go to the standard streams.
    HspcExporter(const std::wstring& path, const geom::Matrix3d& transform, const IoTransfo& ioTransfo,
                 bool folderMayHoldFiles, std::shared_ptr<Logger> logger);

    // The georeference, kept in the data set's info as "projection-wkt" when not empty.
    void setWkt(const std::string& wkt) { m_wkt = wkt; }
    // The unit of the coordinates, kept in the data set's info as "coordinates-unit".
    void setSourceUnits(geom::UnitsValue units) { m_units = units; }
    // Threads of the converter's worker pools (default 1); 0 lets the converter choose from the hardware.
    void setThreads(uint32_t threads) { m_threads = threads; }
    // Writes the data set as one pack archive "<name>.hspc.pack" in the output folder instead of a tree of
    // files. An empty name goes back to the tree of files.
    void setPackArchiveName(const std::string& name) { m_packName = name; }
    // How many points the source will hand out, when known: the converter sizes its batches by it, so that a
    // small export does not claim memory for a large one.
    void setExpectedPointCount(uint64_t points) { m_expectedPoints = points; }
    // Polled during the conversion: once it answers true the conversion stops and run throws.
    void setCancelPredicate(std::function<bool()> cancelled) { m_cancelled = std::move(cancelled); }

    // Converts every point the source hands out and returns how many it handed out; throws with a complete
    // message when the data set cannot be written.
    uint64_t run(const BatchSource& nextBatch) override;

    const IoTransfo& ioTransfo() const { return m_ioTransfo; }

private:
    IoTransfo m_ioTransfo;
    std::shared_ptr<Logger> m_logger;
    std::string m_wkt;
    geom::UnitsValue m_units = geom::kUnitsUndefined;
    uint32_t m_threads = 1;
    std::string m_packName;
    uint64_t m_expectedPoints = 0;
    std::function<bool()> m_cancelled;
};

}  // namespace pc_preprocess
