#include "hspc/format/MortonIndex3D.h"

#include <cstdio>

namespace HSPC
{

namespace
{

template <typename W>
void printCodeWords(const MortonIndex3D<W>& code)
{
    std::printf("%llx,%llx,%llx\n", static_cast<unsigned long long>(code.words[0]),
                static_cast<unsigned long long>(code.words[1]),
                static_cast<unsigned long long>(code.words[2]));
}

}  // namespace

template <typename W>
std::optional<MortonPivot<W>> computeSmallerPivot(const MortonIndex3D<W>& p0, const MortonIndex3D<W>& p)
{
    const MortonIndex3D<W> difference = morton_detail::exclusiveOr(p0, p);
    if (difference == MortonIndex3D<W>{})
    {
        // The labels go to the error stream, the codes themselves to the output stream.
        std::fputs("computeSmallerPivot:  too many duplicate points!\n", stderr);
        std::fputs("p0: ", stderr);
        printCodeWords(p0);
        std::fputs(" p: ", stderr);
        printCodeWords(p);
        std::fflush(stderr);
        return std::nullopt;
    }
    const unsigned lod = morton_detail::highestSetBit(difference) / 3;
    return MortonPivot<W>{nextIndexAtLod(p0, lod), lod};
}

template std::optional<MortonPivot<uint32_t>> computeSmallerPivot(const MortonIndex3D<uint32_t>&,
                                                                  const MortonIndex3D<uint32_t>&);
template std::optional<MortonPivot<uint64_t>> computeSmallerPivot(const MortonIndex3D<uint64_t>&,
                                                                  const MortonIndex3D<uint64_t>&);

}  // namespace HSPC
