#include "hspc/store/RootStore.h"

namespace HSPC
{

std::string normalizedBlobName(const std::string& name)
{
    return !name.empty() && name.front() == '/' ? name : "/" + name;
}

}  // namespace HSPC
