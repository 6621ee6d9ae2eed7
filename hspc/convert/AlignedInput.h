// The aligned test: whether a data set that an importer reads already lies on the grid of the conversion it
// is an input of, with the same attributes stored the same way. Then its nodes can be taken over as sorted
// runs (InputLeafProcessHandler.h) instead of going through the raw sort. A refusal comes with its reason in
// words, so that a merge can say which input did not fit and why.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hspc/convert/Importer.h"
#include "hspc/format/Attribute.h"
#include "hspc/format/RuntimeConfig.h"
#include "hspc/tree/Tree.h"

namespace HSPC
{

// What the aligned test compares of a data set.
struct DataSetLayout
{
    std::array<double, 3> origin{};
    std::array<double, 3> scale{};
    // The stored attributes, position first.
    std::vector<Attribute> attributes;
    // Whether its points are moved on their way into the conversion.
    bool hasTransform = false;
};

// Grids closer than this are one grid: the differences are rounding of the same values through text or
// arithmetic, far below a cell.
inline constexpr double kAlignedScaleTolerance = 1e-13;
inline constexpr double kAlignedOriginTolerance = 1e-10;

// Why a data set of `layout` cannot be taken over unsorted by a conversion with `target`; nothing when it
// can. The reason is a sentence fragment in the data set's terms ("its scale differs ...").
std::optional<std::string> alignmentRefusal(const DataSetLayout& layout, const RuntimeConfig& target);

// One data set of the aligned input: its full tree (linked, as loadTree leaves it) and how to read the
// compressed block of one of its nodes. The reader may be called from several threads at once.
struct AlignedDataSet
{
    const Tree* tree = nullptr;
    std::function<bool(uint32_t node, std::vector<uint8_t>& block, std::string& error)> readNodeBlock;
};

// The aligned view of `importer`: nothing, with the reason in `reason`, when it does not read a data set or
// the data set is not aligned with `target`. The view lives as long as the importer.
std::optional<AlignedDataSet> alignedDataSetOf(Importer& importer, const RuntimeConfig& target,
                                               std::string& reason);

}  // namespace HSPC
