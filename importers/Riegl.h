#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/Convertor.h"
#include "core/Export.h"
#include "importers/riegl/RieglProject.h"

namespace pc_preprocess
{

namespace riegl
{
class RdbReader;
}

// Reads RIEGL scan projects: a project file (".rsp", XML) naming the scan positions with their poses and
// scans, each scan an RDB point file (".rdbx") read through the RIEGL library; or one ".rdbx" file alone, as
// a single scan without a pose. The library (rdblib) is loaded on first use from the path given to the
// constructor, or under its usual names; without it every input of this kind fails with a message that says
// how to install it, and nothing else of the run is touched.
//
// Amplitudes become 16-bit intensities, the colours of "riegl.rgba" 16-bit colours; a scan without colour
// shows its intensity as grey. Surface normals are turned with the scan's pose into the project's frame.
class PCP_API Riegl : public Convertor
{
public:
    // `library`: the RIEGL library's file; empty for its usual names on the library search path.
    Riegl(const std::wstring& path, double scale, const ColorMode& colorMode, const std::wstring& library = {});
    ~Riegl() override;

    // The colour mode is fixed, so one batch settles the transform.
    uint64_t probeSize() const override { return kBatchSize; }
    bool isLazs() const override { return false; }
    bool validTandSize() const override { return false; }
    uint64_t nrPointsThisScan() const override;
    // Progress counts the scans, each by the share of its points read.
    int64_t workDone() const override;
    int64_t workTotal() const override;
    bool hasScanViews() const override { return true; }
    ColorMode getColorModeData() const override { return ColorMode(kRgb16Bit, kIntensity16Bit); }
    // What the scans opened so far hold.
    SupportedAttributes getSupportedAttributes() override;
    // Loads the library, reads the project file and finds every scan's RDB file.
    void openGroup() override;
    bool canOpenScan(size_t scan) override;
    bool remainScanData() override { return m_pending > 0; }
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeScan() override;
    void closeGroup() override;

    // The residual pose files the project names; they hold no points and are not read.
    const std::vector<std::string>& residualFiles() const { return m_project.residualFiles; }

private:
    static constexpr int64_t kWorkPerScan = 1 << 20;

    void addPoint(size_t index, std::vector<IoLightPoint>& batch, const Discretization& transfo);
    void warnOutsideGrid();
    // Runs `step`, turning every failure into the importer's one error form.
    template <typename Step>
    auto guarded(Step&& step) -> decltype(step());

    std::wstring m_library;
    riegl::RieglProject m_project;
    std::unique_ptr<riegl::RdbReader> m_reader;
    SupportedAttributes m_seen;
    size_t m_scanIndex = 0;
    bool m_scanOpen = false;
    uint32_t m_pending = 0;
    uint64_t m_pointsRead = 0;
    bool m_warnedOutsideGrid = false;
};

// Writes the report of a RIEGL input: for a project, that of each scan's RDB file, read through the library
// at `library` (empty: its usual names). Throws the importer's errors, the library's absence among them.
PCP_API void rieglHeader(const std::wstring& path, const std::wstring& library, std::ostream& out);

}  // namespace pc_preprocess
