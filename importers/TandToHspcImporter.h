#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <vector>

#include "core/ExportPoint.h"
#include "core/SupportedAttributes.h"
#include "exporters/Exporter.h"
#include "geom/Matrix3d.h"
#include "hspc/convert/Importer.h"
#include "hspc/format/Attribute.h"

namespace pc_preprocess
{

// The input through which the HSPC converter pulls the points of an export: it asks the exporter's batch
// source for points, moves each through the export's transform onto the data set's integer grid, and writes
// records that are already in the data set's layout, so that the converter's workers take them as they are.
//
// One record, little-endian and packed, the optional fields present by their flag, in this order:
//
//   size  type  field
//   12    M96   position: encodeMortonSigned of round((p - origin) / scale) per axis
//    4    F32   radius ("TandorelPointSize")
//    6    3xU16 red, green, blue
//    2    U16   intensity
//    1    U8    class (0 for a point without one)
//    2    U16   scan id (0 for a point without one)
//    2    U16   normal code of encodeNormal
class TandToHspcImporter : public HSPC::Importer
{
public:
    // The most bytes one batch ever takes, whatever the converter offers.
    static constexpr uint64_t kMaxBatchBytes = 0x7800000;

    // `flags` says which optional fields the records carry: radius, scanId, classification, color, intensity
    // and normals.
    TandToHspcImporter(Exporter::BatchSource source, const SupportedAttributes& flags,
                       const std::array<double, 3>& origin, const std::array<double, 3>& scale,
                       const geom::Matrix3d& transform);

    // The attributes of a record by the flags, as the converter is told them.
    static std::vector<HSPC::Attribute> attributes(const SupportedAttributes& flags);
    static uint32_t recordSize(const SupportedAttributes& flags);

    // A batch of as many records as `maxBytes` (at most kMaxBatchBytes) holds, fewer when the source runs
    // out; kEnd once the source has nothing more, kRequestFailed when not one record fits or the source
    // threw.
    HSPC::ReadResult readBatch(HSPC::HSPCBuffer<uint8_t>& buffer, uint64_t maxBytes) override;
    // The records are in the data set's layout already: they pass unchanged.
    bool convertBatch(HSPC::HSPCBuffer<uint8_t>& input, HSPC::HSPCBuffer<uint8_t>& output) const override;

    std::array<double, 3> origin() const override { return m_origin; }
    std::array<double, 3> scale() const override { return m_scale; }

    // Points the source handed out so far.
    uint64_t totalPoints() const { return m_total; }
    // What the source threw, if it did: the converter's threads must not see it, so the batch that met it
    // ends the input as failed, and the exporter raises it once the converter has returned.
    std::exception_ptr sourceError() const { return m_sourceError; }
    // Points left out because their grid position does not fit 32 bits per axis (or is not a number).
    uint64_t pointsOffGrid() const { return m_offGrid; }

private:
    bool refill();
    // Writes the record of `point` at `out`; false when its position is off the grid.
    bool writeRecord(const ExportPoint& point, uint8_t* out) const;

    Exporter::BatchSource m_source;
    SupportedAttributes m_flags;
    uint32_t m_recordSize;
    std::array<double, 3> m_origin;
    std::array<double, 3> m_scale;
    std::array<double, 3> m_inverseScale;
    geom::Matrix3d m_transform;
    std::vector<ExportPoint> m_buffer;
    size_t m_position = 0;
    bool m_sourceEnded = false;
    uint64_t m_total = 0;
    uint64_t m_offGrid = 0;
    std::exception_ptr m_sourceError;
};

}  // namespace pc_preprocess
