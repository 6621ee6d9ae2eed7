#include "hspc/format/MortonLimbs.h"

namespace HSPC::morton_limbs
{

bool parallelExtractIsFast()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("bmi2") && !__builtin_cpu_is("amdfam15h") && !__builtin_cpu_is("amdfam17h");
}

}  // namespace HSPC::morton_limbs
