#pragma once

#include <string>

namespace e57
{
class E57Exception;
}

namespace pc_preprocess
{

// The reader's exception in words: a prefix naming its code ("E57_ERROR_BAD_CHECKSUM: \n"), what went wrong,
// and where in the reader it was found.
std::string describeE57Exception(const e57::E57Exception& e);

}  // namespace pc_preprocess
