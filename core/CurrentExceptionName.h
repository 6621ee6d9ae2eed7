#pragma once

#include <string>

namespace pc_preprocess
{

// Inside a catch (...): the readable name of the type of the exception being handled, or empty when the
// runtime cannot tell. Lets a failure of unknown kind still say what it was.
std::string currentExceptionTypeName();

}  // namespace pc_preprocess
