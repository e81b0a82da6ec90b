// Entry functions of ray generation, intersection and hit points: checks, then one kernel.
#include "frame/entry_points.h"

using namespace vekr;

Status entry::vekrCastEye_32f(const float*, const float*, const float*, int, int, Size2D,
                              float* const[3], Size2D)
{
    return StatusOk;
}
Status entry::vekrIntersectEyeSO_32f(const float*, const float* const[3], float*, float* const[2],
                                     int32_t*, const IntersectContext*, int, int)
{
    return StatusOk;
}
Status entry::vekrHitPoint3DEpsS0_32f_M(const float*, const float* const[3], const float*,
                                        const int32_t*, float* const[3], int, float)
{
    return StatusOk;
}
Status entry::vekrHitPoint3DEpsM0_32f_M(const float* const[3], const float* const[3], const float*,
                                        const int32_t*, float* const[3], int, float)
{
    return StatusOk;
}
