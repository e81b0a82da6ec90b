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

// Groups of eight through the lanes, the tail (or a window the lanes cannot take) voxel by voxel.
template <class T, LaneKind kKind,
          void (*kSample)(const SourceWindow<T>&, const InterpolationKernel&, float, float, float,
                          T*)>
void remapRowLanes(const SourceWindow<T>& src, const InterpolationKernel& kernel, const float* mx,
                   const float* my, const float* mz, T* out, int n)
{
    int i = 0;
    if (LaneSampler<T, kKind>::takes(src)) {
        const FloatLaneBounds bounds = floatLaneBounds(src.lo, src.hi, src.rowStep);
        LaneSampler<T, kKind> sampler(src, kernel);
        LanePoints pt;
        for (; i + 8 <= n; i += 8) {
            resolveLanes<kKind>(bounds, mx + i, my + i, mz + i, pt);
            sampler.write(pt, out + i);
        }
    }
    remapRowScalar<T, kSample>(src, kernel, mx + i, my + i, mz + i, out + i, n - i);
}

}  // namespace

template <class T>
RemapRowKernel<T> remapRowKernel(const InterpolationKernel& kernel, RowPath path)
{
    const bool avx = path == RowPath::Avx;
    if (kernel.taps == 1)
        return avx ? remapRowLanes<T, LaneKind::Nearest, sampleNearest<T, float>>
                   : remapRowScalar<T, sampleNearest<T, float>>;
    if (kernel.taps == 2)
        return avx ? remapRowLanes<T, LaneKind::Linear, sampleLinear<T, float>>
                   : remapRowScalar<T, sampleLinear<T, float>>;
    return avx ? remapRowLanes<T, LaneKind::Cubic, sampleCubic<T, float>>
               : remapRowScalar<T, sampleCubic<T, float>>;
}

template RemapRowKernel<uint8_t> remapRowKernel<uint8_t>(const InterpolationKernel&, RowPath);
template RemapRowKernel<uint16_t> remapRowKernel<uint16_t>(const InterpolationKernel&, RowPath);
template RemapRowKernel<float> remapRowKernel<float>(const InterpolationKernel&, RowPath);

}  // namespace vekr::volume
