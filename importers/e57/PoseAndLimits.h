#pragma once

#include <array>
#include <stdexcept>

namespace e57
{
class Node;
}

namespace pc_preprocess
{

// The map from a node's own coordinates to the world, for scans and images alike: the run's scale on the
// diagonal, turned by the quaternion of "pose/rotation" and moved by "pose/translation" (times the scale)
// where the node has them. The linear part is column-major: row r is matrix[r], matrix[r + 3], matrix[r + 6].
void extractFileTransform(const e57::Node& node, double scale, std::array<double, 9>& matrix,
                          std::array<double, 3>& translation);

// A limit of a type other than integer, scaled integer and float.
class LimitTypeError : public std::runtime_error
{
public:
    LimitTypeError()
        : std::runtime_error("E57: Can only parse E57_SCALED_INTEGER, E57_FLOAT and E57_INTEGER.\n")
    {
    }
};

// How a colour channel or the intensity reaches the 16-bit scale: value' = (value - offset) * factor.
struct ValueRange
{
    double offset = 0.0;
    double factor = 65535.0;
};

// The range of a field from the scan's limits structure (`limits`, with the elements `minimum` and
// `maximum`); when the maximum is not above 0 (missing or void) and the prototype has `field`, from the range
// that the field's type declares. Throws LimitTypeError for a limit of another type.
ValueRange valueRange(const e57::Node& scan, const e57::Node& prototype, const char* limits,
                      const char* minimum, const char* maximum, const char* field);

}  // namespace pc_preprocess
