#include <stdexcept>
#include <string>

#include "core/IoTransfo.h"

namespace pc_preprocess
{

Discretization::Discretization(const IoTransfo& transfo, const double* linear, const double* translation)
{
    if (!transfo.hasPositiveScale())
        throw std::runtime_error("IoTransfo scale X, Y and/or Z non-positive.");
    for (double offset : transfo.offset)
        if (offset == IoTransfo::kUnsetOffset)
            throw std::runtime_error("IoTransfo offset X, Y and/or Z equal to " + std::to_string(offset) +
                                     ".");

    isDiagonal = linear[1] == 0.0 && linear[2] == 0.0 && linear[3] == 0.0 && linear[5] == 0.0 &&
                 linear[6] == 0.0 && linear[7] == 0.0;
    isIdentity = isDiagonal;
    for (int r = 0; r < 3; ++r)
        isIdentity = isIdentity && linear[4 * r] == transfo.scale[r] && translation[r] == transfo.offset[r];

    // Row r takes the scan's map and then the cache's grid: (world - offset) / scale.
    for (int r = 0; r < 3; ++r)
    {
        for (int c = 0; c < 3; ++c)
            matrix[4 * r + c] = linear[r + 3 * c] / transfo.scale[r];
        matrix[4 * r + 3] = (translation[r] - transfo.offset[r]) / transfo.scale[r];
    }
}

}  // namespace pc_preprocess
