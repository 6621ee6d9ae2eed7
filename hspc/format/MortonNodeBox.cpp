#include "hspc/format/MortonNodeBox.h"

#include <limits>
#include <type_traits>

namespace HSPC
{

namespace
{

// Signed data sets: flipping the sign bit turns the node's stored corner into its signed minimum corner. On
// the negative side the corner nearest zero is the opposite one, one node edge (2^lod) further up.
template <typename W>
std::array<int64_t, 3> signedAnchor(unsigned lod, const std::array<uint64_t, 3>& node)
{
    using S = std::make_signed_t<W>;
    std::array<int64_t, 3> anchor{};
    if (lod == MortonIndex3D<W>::kBitsPerAxis)
    {
        return anchor;
    }
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        W corner = W(node[axis]) ^ MortonIndex3D<W>::kSignBit;
        if (S(corner) < 0)
        {
            corner += W(1) << lod;  // wraps to 0 for the lowest node of the coarsest lod, as it should
        }
        anchor[axis] = int64_t(S(corner));
    }
    return anchor;
}

template <typename W>
std::optional<std::array<int64_t, 3>> signedAnchorChecked(unsigned lod, const std::array<uint64_t, 3>& node)
{
    if (lod > MortonIndex3D<W>::kBitsPerAxis)
    {
        return std::nullopt;
    }
    return signedAnchor<W>(lod, node);
}

}  // namespace

std::optional<std::array<int64_t, 3>> nodeAnchor(uint8_t positionType, uint32_t formatVersion, unsigned lod,
                                                 uint64_t x, uint64_t y, uint64_t z)
{
    const std::array<uint64_t, 3> node{x, y, z};
    if (formatVersion < kFirstSignedCellFormatVersion)
    {
        return std::array<int64_t, 3>{int64_t(x), int64_t(y), int64_t(z)};
    }
    switch (positionType)
    {
        case MortonIndex3D<uint32_t>::kAttributeTypeCode:
            return signedAnchorChecked<uint32_t>(lod, node);
        case MortonIndex3D<uint64_t>::kAttributeTypeCode:
            return signedAnchorChecked<uint64_t>(lod, node);
        default:
            return std::nullopt;
    }
}

template <typename W>
std::array<double, 6> nodeRealBox(uint32_t formatVersion, unsigned lod, const std::array<double, 3>& origin,
                                  const std::array<double, 3>& scale, const std::array<W, 3>& node,
                                  const std::array<W, 3>& localMin, const std::array<W, 3>& localMax)
{
    using S = std::make_signed_t<W>;
    std::array<double, 6> box{};
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        double low = 0.0;
        double high = 0.0;
        if (formatVersion < kFirstSignedCellFormatVersion)
        {
            low = double(W(localMin[axis] + node[axis]));
            high = double(W(localMax[axis] + node[axis]));
        }
        else if (lod >= MortonIndex3D<W>::kBitsPerAxis)
        {
            low = double(std::numeric_limits<S>::min());
            high = double(std::numeric_limits<S>::max());
        }
        else
        {
            // Unsigned sums wrap where the signed ones would overflow. A local maximum one past the node's
            // last cell wraps at the top of the space; stepping back one cell brings it to the largest value
            // again.
            const W corner = node[axis] ^ MortonIndex3D<W>::kSignBit;
            const W lowCell = corner + localMin[axis];
            W highCell = corner + localMax[axis];
            if (S(highCell) < S(corner))
            {
                highCell -= 1;
            }
            low = double(S(lowCell));
            high = double(S(highCell));
        }
        box[axis] = low * scale[axis] + origin[axis];
        box[axis + 3] = high * scale[axis] + origin[axis];
    }
    return box;
}

template std::array<double, 6> nodeRealBox(uint32_t, unsigned, const std::array<double, 3>&,
                                           const std::array<double, 3>&, const std::array<uint32_t, 3>&,
                                           const std::array<uint32_t, 3>&, const std::array<uint32_t, 3>&);
template std::array<double, 6> nodeRealBox(uint32_t, unsigned, const std::array<double, 3>&,
                                           const std::array<double, 3>&, const std::array<uint64_t, 3>&,
                                           const std::array<uint64_t, 3>&, const std::array<uint64_t, 3>&);

}  // namespace HSPC
