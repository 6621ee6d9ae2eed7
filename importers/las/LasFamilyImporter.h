#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "core/Convertor.h"

namespace pc_preprocess
{

// What the LAS and LAZ importers share: a file is one scan of integer coordinates on the file's own grid,
// which the cache keeps when such a file decides the run; colour and intensity are 16-bit by the format;
// every point has a class; progress counts point records.
class LasFamilyImporter : public Convertor
{
public:
    using Convertor::Convertor;

    static constexpr uint64_t kProbeSize = 131072;

    uint64_t probeSize() const override { return kProbeSize; }
    bool isLazs() const override { return true; }
    bool hasScanViews() const override { return false; }
    bool hasNormals() const override { return false; }
    bool hasClasses() const override { return true; }
    // Point records used up, of those the file holds.
    int64_t workDone() const override { return static_cast<int64_t>(m_pointsDone); }
    int64_t workTotal() const override { return static_cast<int64_t>(m_nrPoints); }
    ColorMode getColorModeData() const override { return ColorMode(kRgb16Bit, kIntensity16Bit); }
    bool canOpenScan(size_t scan) override { return scan == 0; }
    bool remainScanData() override { return m_pointsRemaining != 0; }
    void closeScan() override {}

protected:
    // Takes the file's grid and carries it into the run's units, one input unit being m_scale cache units:
    // with it the probe proposes the file's own integers.
    void useFileGrid(const std::array<double, 3>& lasScale, const std::array<double, 3>& lasOffset)
    {
        m_lasScale = lasScale;
        m_lasOffset = lasOffset;
        m_matrix = {};
        for (int axis = 0; axis < 3; ++axis)
        {
            m_matrix[4 * axis] = m_scale * m_lasScale[axis];
            m_translation[axis] = m_scale * m_lasOffset[axis];
        }
    }

    uint64_t m_nrPoints = 0;
    uint64_t m_pointsRemaining = 0;
    uint64_t m_pointsDone = 0;
    std::array<double, 3> m_lasOffset{0.0, 0.0, 0.0};
    std::array<double, 3> m_lasScale{1.0, 1.0, 1.0};
};

}  // namespace pc_preprocess
