#include "importers/e57/PoseAndLimits.h"

#include "e57/Node.h"

namespace pc_preprocess
{

namespace
{

double limitValue(const e57::Node& node)
{
    switch (node.type)
    {
        case e57::NodeType::Integer:
        case e57::NodeType::ScaledInteger:
        case e57::NodeType::Float:
            return node.numericValue();
        default:
            throw LimitTypeError();
    }
}

// The smallest and largest value a field's type allows.
std::array<double, 2> declaredRange(const e57::Node& field)
{
    if (field.type == e57::NodeType::Integer || field.type == e57::NodeType::ScaledInteger ||
        field.type == e57::NodeType::Float)
        field.requireNumbers();
    switch (field.type)
    {
        case e57::NodeType::Integer:
            return {double(field.integerMinimum), double(field.integerMaximum)};
        case e57::NodeType::ScaledInteger:
            return {field.offset + field.scale * double(field.integerMinimum),
                    field.offset + field.scale * double(field.integerMaximum)};
        case e57::NodeType::Float:
            return {field.floatMinimum, field.floatMaximum};
        default:
            throw LimitTypeError();
    }
}

}  // namespace

void extractFileTransform(const e57::Node& node, double scale, std::array<double, 9>& matrix,
                          std::array<double, 3>& translation)
{
    matrix = {scale, 0.0, 0.0, 0.0, scale, 0.0, 0.0, 0.0, scale};
    translation = {0.0, 0.0, 0.0};
    const e57::Node* pose = node.find("pose");
    if (!pose)
        return;
    if (const e57::Node* rotation = pose->find("rotation"))
    {
        const double w = rotation->at("w").numericValue();
        const double x = rotation->at("x").numericValue();
        const double y = rotation->at("y").numericValue();
        const double z = rotation->at("z").numericValue();
        // The rotation of a unit quaternion, stored column by column.
        const double rows[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
                                   {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
                                   {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}};
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                matrix[r + 3 * c] = rows[r][c] * scale;
    }
    if (const e57::Node* t = pose->find("translation"))
        translation = {t->at("x").numericValue() * scale, t->at("y").numericValue() * scale,
                       t->at("z").numericValue() * scale};
}

ValueRange valueRange(const e57::Node& scan, const e57::Node& prototype, const char* limits,
                      const char* minimum, const char* maximum, const char* field)
{
    double low = 0.0;
    double high = 0.0;
    if (const e57::Node* declared = scan.find(limits))
    {
        if (const e57::Node* node = declared->find(minimum))
            low = limitValue(*node);
        if (const e57::Node* node = declared->find(maximum))
            high = limitValue(*node);
    }
    if (high <= 0.0)
        if (const e57::Node* node = prototype.find(field))
        {
            const std::array<double, 2> range = declaredRange(*node);
            low = range[0];
            high = range[1];
        }
    ValueRange result;
    result.offset = low;
    result.factor = high > low ? 65535.0 / (high - low) : 65535.0;
    return result;
}

}  // namespace pc_preprocess
