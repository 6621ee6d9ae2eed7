#pragma once

#include <string>
#include <vector>

#include "core/Export.h"
#include "geom/UnitsValue.h"

namespace pc_preprocess
{

// Names of the host's drawing units, English or translated through the message catalogue. An unknown value
// gives the name of kUnitsUndefined.
PCP_API std::wstring convertUnitsEnumToOdString(geom::UnitsValue units, bool translated);
PCP_API std::string convertUnitsEnumToStdString(geom::UnitsValue units, bool translated);

// Matches a UTF-8 name against the translated and the English name of each unit, in the order of the values;
// no match gives kUnitsUndefined.
PCP_API geom::UnitsValue convertUnitsStringToEnum(const std::string& name);

PCP_API std::vector<std::wstring> getUnitNames(bool translated);

}  // namespace pc_preprocess
