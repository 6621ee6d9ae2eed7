#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "hspc/format/MortonIndex3D.h"

namespace HSPC
{

// Maps real positions to the integer cells of a data set and back, per axis: cell = round((p - origin) /
// scale) with halves rounded away from zero, p = cell * scale + origin. The reciprocal of the scale is taken
// once, so that the hot path multiplies. The scale must be finite and non-zero; positions beyond the 64-bit
// cell range give an unspecified cell, never undefined behaviour.
class CellMapping
{
public:
    CellMapping(const std::array<double, 3>& origin, const std::array<double, 3>& scale)
        : m_origin(origin), m_scale(scale), m_inverseScale{1.0 / scale[0], 1.0 / scale[1], 1.0 / scale[2]}
    {
    }

    std::array<int64_t, 3> toCell(const std::array<double, 3>& position) const
    {
        std::array<int64_t, 3> cell{};
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            cell[axis] = std::llround((position[axis] - m_origin[axis]) * m_inverseScale[axis]);
        }
        return cell;
    }

    std::array<double, 3> toReal(const std::array<int64_t, 3>& cell) const
    {
        std::array<double, 3> position{};
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            position[axis] = double(cell[axis]) * m_scale[axis] + m_origin[axis];
        }
        return position;
    }

    // The signed Morton code of a position. For 32-bit words only the low 32 bits of each cell are kept: a
    // position outside that range lands on another cell, which the choice of origin and scale must prevent.
    template <typename W>
    MortonIndex3D<W> encode(const std::array<double, 3>& position) const
    {
        using S = std::make_signed_t<W>;
        const std::array<int64_t, 3> cell = toCell(position);
        return encodeMortonSigned<W>(S(cell[0]), S(cell[1]), S(cell[2]));
    }

    // The real position of the cell of a signed Morton code.
    template <typename W>
    std::array<double, 3> decode(const MortonIndex3D<W>& code) const
    {
        const auto cell = decodeMortonSigned(code);
        return toReal({int64_t(cell[0]), int64_t(cell[1]), int64_t(cell[2])});
    }

private:
    std::array<double, 3> m_origin;
    std::array<double, 3> m_scale;
    std::array<double, 3> m_inverseScale;
};

}  // namespace HSPC
