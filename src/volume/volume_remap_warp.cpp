#include "volume_remap_warp.h"

#include <algorithm>

#include "sample_lanes.h"
#include "slice_split.h"
#include "vekcore.h"

namespace vekr::volume {

// --- Warp row kernels ----------------------------------------------------------------------
namespace {

// Voxels stepped per stretch: three rows of positions in double stay within 6 KiB of stack.
constexpr int kWarpStretch = 256;

template <class T, void (*kSample)(const SourceWindow<T>&, const InterpolationKernel&, double,
                                   double, double, T*)>
void warpRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                   const double start[3], const double step[3], T* out, int n)
{
    double x = start[0], y = start[1], z = start[2];
    for (int i = 0; i < n; ++i) {
        kSample(src, kernel, x, y, z, out + i);
        x += step[0];
        y += step[1];
        z += step[2];
    }
}

// Stretches of the row: positions stepped sequentially into the buffer, the full groups of 8
// through the lanes, the rest of each stretch through the per-voxel sampler.
template <class T, LaneKind kKind,
          void (*kSample)(const SourceWindow<T>&, const InterpolationKernel&, double, double,
                          double, T*)>
void warpRowLanes(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                  const double start[3], const double step[3], T* out, int n)
{
    if (!LaneSampler<T, kKind>::takes(src)) {
        warpRowScalar<T, kSample>(src, kernel, start, step, out, n);
        return;
    }
    const DoubleLaneBounds bounds = doubleLaneBounds(src.lo, src.hi, src.rowStep);
    LaneSampler<T, kKind> sampler(src, kernel);
    alignas(32) double pos[3][kWarpStretch];
    double x = start[0], y = start[1], z = start[2];
    LanePoints pt;
    for (int done = 0; done < n; done += kWarpStretch) {
        const int m = std::min(kWarpStretch, n - done);
        for (int i = 0; i < m; ++i) {
            pos[0][i] = x;
            pos[1][i] = y;
            pos[2][i] = z;
            x += step[0];
            y += step[1];
            z += step[2];
        }
        T* stretch = out + done;
        int i = 0;
        for (; i + 8 <= m; i += 8) {
            resolveLanes<kKind>(bounds, pos[0] + i, pos[1] + i, pos[2] + i, pt);
            sampler.write(pt, stretch + i);
        }
        for (; i < m; ++i)
            kSample(src, kernel, pos[0][i], pos[1][i], pos[2][i], stretch + i);
    }
}

}  // namespace

template <class T>
WarpRowKernel<T> warpRowKernel(const InterpolationKernel& kernel, RowPath path)
{
    const bool avx = path == RowPath::Avx;
    if (kernel.taps == 1)
        return avx ? warpRowLanes<T, LaneKind::Nearest, sampleNearest<T, double>>
                   : warpRowScalar<T, sampleNearest<T, double>>;
    if (kernel.taps == 2)
        return avx ? warpRowLanes<T, LaneKind::Linear, sampleLinear<T, double>>
                   : warpRowScalar<T, sampleLinear<T, double>>;
    return avx ? warpRowLanes<T, LaneKind::Cubic, sampleCubic<T, double>>
               : warpRowScalar<T, sampleCubic<T, double>>;
}

template WarpRowKernel<uint8_t> warpRowKernel<uint8_t>(const InterpolationKernel&, RowPath);
template WarpRowKernel<uint16_t> warpRowKernel<uint16_t>(const InterpolationKernel&, RowPath);
template WarpRowKernel<float> warpRowKernel<float>(const InterpolationKernel&, RowPath);

// --- Slices, threads, remap and warp --------------------------------------------------------

namespace {

// The slice routine both share: row j of slice k of the box goes to writeRow(k, j, first voxel).
// Rows and slices are counted in ptrdiff_t: a box may end at the last int (rows of step 0 let
// a caller place it there), and its first row plus j must not overflow.
template <class T, class RowWriter>
void writeSlices(const VolumeView<T>& dst, Cuboid box, int sliceBegin, int sliceEnd,
                 RowWriter&& writeRow)
{
    for (int k = sliceBegin; k < sliceEnd; ++k) {
        T* plane = dst.plane(std::ptrdiff_t(box.z) + k) + box.x;
        for (int j = 0; j < box.height; ++j)
            writeRow(k, j, plane + (std::ptrdiff_t(box.y) + j) * dst.rowStep);
    }
}

const InterpolationKernel& kernelOf(int code)
{
    return *findInterpolationKernel(code);
}

}  // namespace

template <class T>
SourceWindow<T> clippedWindow(const VolumeView<const T>& src, VolumeSize srcVolume, Cuboid srcVOI)
{
    SourceWindow<T> w;
    w.planes = src.planes;
    w.rowStep = src.rowStep;
    const int32_t first[3] = {srcVOI.x, srcVOI.y, srcVOI.z};
    const int32_t extent[3] = {srcVOI.width, srcVOI.height, srcVOI.depth};
    const int32_t volume[3] = {srcVolume.width, srcVolume.height, srcVolume.depth};
    for (int a = 0; a < 3; ++a) {
        w.lo[a] = first[a];
        w.hi[a] = first[a] + std::min(volume[a] - first[a], extent[a]) - 1;
    }
    return w;
}

const InterpolationKernel& remapKernelFor(const InterpolationKernel& kernel, VolumeSize srcVolume)
{
    const int32_t smallest = std::min({srcVolume.width, srcVolume.height, srcVolume.depth});
    if (smallest < 2) return kernelOf(InterpolationNearest);
    if (smallest < 4 && kernel.taps == 4) return kernelOf(InterpolationLinear);
    return kernel;
}

template <class T>
void remapVolume(const VolumeView<const T>& src, VolumeSize srcVolume, Cuboid srcVOI,
                 const RemapMaps& maps, const VolumeView<T>& dst, VolumeSize roi,
                 const InterpolationKernel& kernel)
{
    const SourceWindow<T> window = clippedWindow(src, srcVolume, srcVOI);
    const InterpolationKernel& used = remapKernelFor(kernel, srcVolume);
    const RemapRowKernel<T> row = remapRowKernel<T>(used);
    const Cuboid box = {0, 0, 0, roi.width, roi.height, roi.depth};
    splitSlices(roi.width, roi.height, roi.depth, [&](int, int begin, int end) {
        writeSlices(dst, box, begin, end, [&](int k, int j, T* out) {
            const std::ptrdiff_t at = std::ptrdiff_t(j) * maps.rowStep;
            row(window, used, maps.x[k] + at, maps.y[k] + at, maps.z[k] + at, out, roi.width);
        });
    });
}

bool invertAffine(const double coeffs[12], AffineInverse& inverse)
{
    const double a00 = coeffs[0], a01 = coeffs[1], a02 = coeffs[2];
    const double a10 = coeffs[4], a11 = coeffs[5], a12 = coeffs[6];
    const double a20 = coeffs[8], a21 = coeffs[9], a22 = coeffs[10];
    const double c00 = a11 * a22 - a21 * a12;
    const double c01 = a22 * a10 - a12 * a20;
    const double c02 = a21 * a10 - a11 * a20;
    const double det = a00 * c00 - a01 * c01 + a02 * c02;
    if (det > -kMinAffineDeterminant && det < kMinAffineDeterminant) return false;
    AffineInverse r;
    // The adjugate (transposed cofactors) over the determinant.
    const double adj[3][3] = {{c00, a02 * a21 - a01 * a22, a01 * a12 - a02 * a11},
                              {-c01, a00 * a22 - a02 * a20, a02 * a10 - a00 * a12},
                              {c02, a01 * a20 - a00 * a21, a00 * a11 - a01 * a10}};
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 3; ++col)
            r.b[row][col] = adj[row][col] / det;
    // Translation: -(A^-1)(a03, a13, a23).
    for (int row = 0; row < 3; ++row)
        r.b[row][3] =
            -(r.b[row][0] * coeffs[3] + r.b[row][1] * coeffs[7] + r.b[row][2] * coeffs[11]);
    inverse = r;
    return true;
}

template <class T>
void warpAffineVolume(const VolumeView<const T>& src, VolumeSize srcVolume, Cuboid srcVOI,
                      const VolumeView<T>& dst, Cuboid dstVOI, const AffineInverse& inverse,
                      const InterpolationKernel& kernel)
{
    const SourceWindow<T> window = clippedWindow(src, srcVolume, srcVOI);
    const WarpRowKernel<T> row = warpRowKernel<T>(kernel);
    const double(&b)[3][4] = inverse.b;
    const double step[3] = {b[0][0], b[1][0], b[2][0]};
    const double x0 = dstVOI.x;
    splitSlices(dstVOI.width, dstVOI.height, dstVOI.depth, [&](int, int begin, int end) {
        writeSlices(dst, dstVOI, begin, end, [&](int k, int j, T* out) {
            const double y = double(dstVOI.y) + j, z = double(dstVOI.z) + k;
            double start[3];
            for (int a = 0; a < 3; ++a)
                start[a] = b[a][0] * x0 + b[a][1] * y + b[a][2] * z + b[a][3];
            row(window, kernel, start, step, out, dstVOI.width);
        });
    });
}

template SourceWindow<uint8_t> clippedWindow<uint8_t>(const VolumeView<const uint8_t>&, VolumeSize,
                                                      Cuboid);
template void remapVolume<uint8_t>(const VolumeView<const uint8_t>&, VolumeSize, Cuboid,
                                   const RemapMaps&, const VolumeView<uint8_t>&, VolumeSize,
                                   const InterpolationKernel&);
template void warpAffineVolume<uint8_t>(const VolumeView<const uint8_t>&, VolumeSize, Cuboid,
                                        const VolumeView<uint8_t>&, Cuboid, const AffineInverse&,
                                        const InterpolationKernel&);
template SourceWindow<uint16_t> clippedWindow<uint16_t>(const VolumeView<const uint16_t>&,
                                                        VolumeSize, Cuboid);
template void remapVolume<uint16_t>(const VolumeView<const uint16_t>&, VolumeSize, Cuboid,
                                    const RemapMaps&, const VolumeView<uint16_t>&, VolumeSize,
                                    const InterpolationKernel&);
template void warpAffineVolume<uint16_t>(const VolumeView<const uint16_t>&, VolumeSize, Cuboid,
                                         const VolumeView<uint16_t>&, Cuboid, const AffineInverse&,
                                         const InterpolationKernel&);
template SourceWindow<float> clippedWindow<float>(const VolumeView<const float>&, VolumeSize,
                                                  Cuboid);
template void remapVolume<float>(const VolumeView<const float>&, VolumeSize, Cuboid,
                                 const RemapMaps&, const VolumeView<float>&, VolumeSize,
                                 const InterpolationKernel&);
template void warpAffineVolume<float>(const VolumeView<const float>&, VolumeSize, Cuboid,
                                      const VolumeView<float>&, Cuboid, const AffineInverse&,
                                      const InterpolationKernel&);

}  // namespace vekr::volume
