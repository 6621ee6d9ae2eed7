#include "core/Units.h"

#include <array>

#include "core/StringConversion.h"
#include "services/Translate.h"

namespace pc_preprocess
{

namespace
{

// Row i holds the English name of the unit whose value is i.
constexpr std::array<const char*, geom::kUnitsMax + 1> kUnitNames = {
    "Undefined",   "Inches",         "Feet",           "Miles",          "Millimeters",
    "Centimeters", "Meters",         "Kilometers",     "Microinches",    "Mils",
    "Yards",       "Angstroms",      "Nanometers",     "Microns",        "Decimeters",
    "Dekameters",  "Hectometers",    "Gigameters",     "Astronomical",   "Light years",
    "Parsecs",     "US Survey Feet", "US Survey Inch", "US Survey Yard", "US Survey Mile"};

std::string unitName(size_t row, bool translated)
{
    return translated ? translate(kUnitNames[row]) : std::string(kUnitNames[row]);
}

size_t rowOf(geom::UnitsValue units)
{
    const auto value = static_cast<int>(units);
    return value >= 0 && value <= geom::kUnitsMax ? size_t(value) : 0;
}

}  // namespace

std::string convertUnitsEnumToStdString(geom::UnitsValue units, bool translated)
{
    return unitName(rowOf(units), translated);
}

std::wstring convertUnitsEnumToOdString(geom::UnitsValue units, bool translated)
{
    return s2ws(convertUnitsEnumToStdString(units, translated));
}

geom::UnitsValue convertUnitsStringToEnum(const std::string& name)
{
    for (size_t row = 0; row < kUnitNames.size(); ++row)
        if (name == unitName(row, true) || name == kUnitNames[row])
            return static_cast<geom::UnitsValue>(row);
    return geom::kUnitsUndefined;
}

std::vector<std::wstring> getUnitNames(bool translated)
{
    std::vector<std::wstring> names;
    names.reserve(kUnitNames.size());
    for (size_t row = 0; row < kUnitNames.size(); ++row)
        names.push_back(s2ws(unitName(row, translated)));
    return names;
}

}  // namespace pc_preprocess
