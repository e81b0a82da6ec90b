// Entry functions of the shading helpers: argument checks, then one kernel.
#include "frame/entry_points.h"

using namespace vekr;

Status entry::vekrTriangleNormal_32f(const float*, const int*, float*, int)
{
    return StatusOk;
}
Status entry::vekrSurfFlatNormal_32f(const float*, const int*, float* const[3], int)
{
    return StatusOk;
}
Status entry::vekrSurfSmoothNormal_32f(const float*, const int*, const int*, const float* const[2],
                                       float* const[3], int, int)
{
    return StatusOk;
}
