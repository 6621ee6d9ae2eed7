// Values of a decoded HSPC record as the octree side reads them, and the colour and intensity scales that the
// first points of a data set fix.
#pragma once

#include <cstdint>
#include <optional>

#include "core/ColorMode.h"
#include "core/Export.h"
#include "importers/hspc/HspcRoleLayout.h"

namespace pc_preprocess
{

// The value of type `type` at `bytes` (little-endian, unaligned). Throws "HspcImporter ERROR: <type>
// unsupported for read(type, uint8_t *)." for a type that is no plain number (a Morton code).
PCP_API double readHspcValue(uint8_t type, const uint8_t* bytes);

// Brings colour and intensity numbers to the 16-bit scale. The stored type decides where it can: U8 values
// are 8-bit, U16 values already 16-bit. (Ranges alone would read a dark U16 data set, such as one exported from
// a cache, as 8-bit and brighten it 256-fold.) Values of any other type are read as the narrowest range that holds
// the first points the importer sees; a later value outside that range stops the file, with a message naming
// how many points fixed it.
class PCP_API HspcColorScaling
{
public:
    HspcColorScaling() = default;
    HspcColorScaling(const HspcRoleLayout& layout) : m_layout(&layout) {}

    bool isFixed() const { return m_fixed; }
    // Fixes the ranges from the first `count` records at `records`; points whose numbers are not finite are
    // not valid and don't count. Throws when the values fit no range.
    void fix(const uint8_t* records, uint64_t count);

    // The 16-bit channels of a record; the layout must have colour.
    void color(const uint8_t* record, uint16_t& r, uint16_t& g, uint16_t& b) const;
    // The 16-bit intensity of a record; the layout must have intensity.
    uint16_t intensity(const uint8_t* record) const;

    ERgbMode rgbMode() const { return m_rgb; }
    EIntensityMode intensityMode() const { return m_intensity; }

private:
    uint16_t channel(double value) const;

    const HspcRoleLayout* m_layout = nullptr;
    bool m_fixed = false;
    ERgbMode m_rgb = kRgbNone;
    EIntensityMode m_intensity = kIntensityNone;
    // The valid points that fixed the ranges, for the messages.
    uint64_t m_sampleCount = 0;
};

// One decoded record in the octree side's terms: the real position, colour and intensity on 16 bits, and the
// other attributes where the layout has them (radius 0, class and scan 0 and a zero normal where it hasn't).
struct HspcPointValues
{
    double position[3] = {};
    float radius = 0.0f;
    uint16_t r = 0, g = 0, b = 0;
    uint16_t intensity = 0;
    uint8_t classification = 0;
    uint16_t scanId = 0;
    float normal[3] = {};
};

// Reads the record at `record`, whose layout has x, y and z as F64 real coordinates; the colour ranges must be
// fixed. Throws as HspcColorScaling does for values outside them.
PCP_API HspcPointValues readHspcPoint(const uint8_t* record, const HspcRoleLayout& layout,
                                      const HspcColorScaling& scaling);

}  // namespace pc_preprocess
