#include "remap_rows.h"

#include <cstdint>

#include "sample_lanes.h"

namespace vekr::volume {
namespace {

template <class T, void (*kSample)(const SourceWindow<T>&, const InterpolationKernel&, float, float,
                                   float, T*)>
void remapRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel, const float* mx,
                    const float* my, const float* mz, T* out, int n)
{
    for (int i = 0; i < n; ++i)
        kSample(src, kernel, mx[i], my[i], mz[i], out + i);
}

}  // namespace

template <class T>
void remapNearestRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                           const float* mx, const float* my, const float* mz, T* out, int n)
{
    remapRowScalar<T, sampleNearest<T, float>>(src, kernel, mx, my, mz, out, n);
}

template <class T>
void remapLinearRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                          const float* mx, const float* my, const float* mz, T* out, int n)
{
    remapRowScalar<T, sampleLinear<T, float>>(src, kernel, mx, my, mz, out, n);
}

template <class T>
void remapNearestRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                        const float* mx, const float* my, const float* mz, T* out, int n)
{
    int i = 0;
    if (lanesFit(src)) {
        const FloatLaneBounds bounds = floatLaneBounds(src.lo, src.hi, src.rowStep);
        LanePoints pt;
        for (; i + 8 <= n; i += 8) {
            resolveLanes<LaneKind::Nearest>(bounds, mx + i, my + i, mz + i, pt);
            copyNearestLanes(src, pt, out + i);
        }
    }
    remapNearestRowScalar(src, kernel, mx + i, my + i, mz + i, out + i, n - i);
}

template <class T>
void remapLinearRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                       const float* mx, const float* my, const float* mz, T* out, int n)
{
    int i = 0;
    if (lanesFit(src)) {
        const FloatLaneBounds bounds = floatLaneBounds(src.lo, src.hi, src.rowStep);
        const std::ptrdiff_t yStep = src.hi[1] > src.lo[1] ? src.rowStep : 0;
        const int zStep = src.hi[2] > src.lo[2] ? 1 : 0;
        LanePoints pt;
        for (; i + 8 <= n; i += 8) {
            resolveLanes<LaneKind::Linear>(bounds, mx + i, my + i, mz + i, pt);
            if (pt.laneMask == 0) continue;
            storeLanes(blendLinearLanes(src, yStep, zStep, pt), pt, out + i);
        }
    }
    remapLinearRowScalar(src, kernel, mx + i, my + i, mz + i, out + i, n - i);
}

template <class T>
void remapCubicRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                         const float* mx, const float* my, const float* mz, T* out, int n)
{
    remapRowScalar<T, sampleCubic<T, float>>(src, kernel, mx, my, mz, out, n);
}

template <class T>
void remapCubicRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                      const float* mx, const float* my, const float* mz, T* out, int n)
{
    int i = 0;
    if (cubicLanesFit(src)) {
        const FloatLaneBounds bounds = floatLaneBounds(src.lo, src.hi, src.rowStep);
        CubicWeightLanes weights(kernel);
        LanePoints pt;
        for (; i + 8 <= n; i += 8) {
            resolveLanes<LaneKind::Cubic>(bounds, mx + i, my + i, mz + i, pt);
            if (pt.laneMask == 0) continue;
            storeLanes(blendCubicLanes(src, weights, pt), pt, out + i);
        }
    }
    remapCubicRowScalar(src, kernel, mx + i, my + i, mz + i, out + i, n - i);
}

void remapLinearRow32fScalar(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                             const float* mx, const float* my, const float* mz, float* out, int n)
{
    remapLinearRowScalar<float>(src, kernel, mx, my, mz, out, n);
}

void remapLinearRow32fAvx(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                          const float* mx, const float* my, const float* mz, float* out, int n)
{
    remapLinearRowAvx<float>(src, kernel, mx, my, mz, out, n);
}

template <class T>
RemapRowKernel<T> remapRowKernel(const InterpolationKernel& kernel)
{
    if (kernel.taps == 1) return remapNearestRowAvx<T>;
    if (kernel.taps == 2) return remapLinearRowAvx<T>;
    return remapCubicRowAvx<T>;
}

#define VEKR_REMAP_ROWS(T)                                                                     \
    template RemapRowKernel<T> remapRowKernel<T>(const InterpolationKernel&);                  \
    template void remapNearestRowScalar<T>(const SourceWindow<T>&, const InterpolationKernel&, \
                                           const float*, const float*, const float*, T*, int); \
    template void remapNearestRowAvx<T>(const SourceWindow<T>&, const InterpolationKernel&,    \
                                        const float*, const float*, const float*, T*, int);    \
    template void remapLinearRowScalar<T>(const SourceWindow<T>&, const InterpolationKernel&,  \
                                          const float*, const float*, const float*, T*, int);  \
    template void remapLinearRowAvx<T>(const SourceWindow<T>&, const InterpolationKernel&,     \
                                       const float*, const float*, const float*, T*, int);     \
    template void remapCubicRowScalar<T>(const SourceWindow<T>&, const InterpolationKernel&,   \
                                         const float*, const float*, const float*, T*, int);   \
    template void remapCubicRowAvx<T>(const SourceWindow<T>&, const InterpolationKernel&,      \
                                      const float*, const float*, const float*, T*, int);
VEKR_REMAP_ROWS(uint8_t)
VEKR_REMAP_ROWS(uint16_t)
VEKR_REMAP_ROWS(float)
#undef VEKR_REMAP_ROWS

}  // namespace vekr::volume
