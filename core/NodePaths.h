#pragma once

#include <string>

#include "core/Export.h"

namespace pc_preprocess
{

// Side files of a node or scan file: beside it, with the stem and "-class.pnt" or "-normal.pnt". They keep
// the
// ".pnt" ending also for a compressed node, so "12.pnz" has "12-class.pnt".
PCP_API std::wstring getClassPathFromPnt(const std::wstring& pnt);
PCP_API std::wstring getNormalPathFromPnt(const std::wstring& pnt);

}  // namespace pc_preprocess
