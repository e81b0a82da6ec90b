// Bindings of the volume functions: resize, remap, affine warp, the 16-bit filter and their
// size queries, one Python function per C function (the 8u, 16u and 32f forms chosen by the
// source's dtype). Boxes are (x, y, z, width, height, depth) and extents (width, height, depth),
// as in vekr.h; volumes are numpy arrays of shape (depth, height, width).
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "array_args.h"
#include "call_status.h"
#include "vekcore.h"

namespace vekr::python {
namespace {

using Triple = std::array<double, 3>;

// The C functions of one voxel type.
template <class T>
struct VolumeFunctions;
template <>
struct VolumeFunctions<uint8_t> {
    static constexpr auto resizeV = vekrResize_8u_C1V;
    static constexpr auto resizePV = vekrResize_8u_C1PV;
    static constexpr auto remap = vekrRemap_8u_C1PV;
    static constexpr auto warp = vekrWarpAffine_8u_C1PV;
    static constexpr const char* names[4] = {"vekrResize_8u_C1V", "vekrResize_8u_C1PV",
                                             "vekrRemap_8u_C1PV", "vekrWarpAffine_8u_C1PV"};
};
template <>
struct VolumeFunctions<uint16_t> {
    static constexpr auto resizeV = vekrResize_16u_C1V;
    static constexpr auto resizePV = vekrResize_16u_C1PV;
    static constexpr auto remap = vekrRemap_16u_C1PV;
    static constexpr auto warp = vekrWarpAffine_16u_C1PV;
    static constexpr const char* names[4] = {"vekrResize_16u_C1V", "vekrResize_16u_C1PV",
                                             "vekrRemap_16u_C1PV", "vekrWarpAffine_16u_C1PV"};
};
template <>
struct VolumeFunctions<float> {
    static constexpr auto resizeV = vekrResize_32f_C1V;
    static constexpr auto resizePV = vekrResize_32f_C1PV;
    static constexpr auto remap = vekrRemap_32f_C1PV;
    static constexpr auto warp = vekrWarpAffine_32f_C1PV;
    static constexpr const char* names[4] = {"vekrResize_32f_C1V", "vekrResize_32f_C1PV",
                                             "vekrRemap_32f_C1PV", "vekrWarpAffine_32f_C1PV"};
};

// Calls f with a value of the source's voxel type.
template <class F>
auto onVoxelType(const py::array& src, F&& f)
{
    if (hasDtype<uint8_t>(src)) return f(uint8_t{});
    if (hasDtype<uint16_t>(src)) return f(uint16_t{});
    if (hasDtype<float>(src)) return f(float{});
    throw py::type_error("src must have dtype uint8, uint16 or float32, not " +
                         std::string(py::str(src.dtype())));
}

struct VekFree {
    void operator()(uint8_t* p) const
    {
        if (PyGILState_Check()) {
            py::gil_scoped_release unlocked;
            vekFree(p);
        } else {
            vekFree(p);
        }
    }
};
using WorkBuffer = std::unique_ptr<uint8_t, VekFree>;

// The caller's work buffer after a size check, or one of the needed size from vekMalloc.
// needed <= 0 means the size query failed: the call then fails its own checks before it
// touches the buffer, which only has to be non-null.
uint8_t* workBuffer(const std::optional<py::array>& given, int needed, WorkBuffer& owned)
{
    if (given) return contiguousData<uint8_t>(*given, "buffer", needed > 0 ? needed : 0, true);
    {
        py::gil_scoped_release unlocked;
        owned.reset(static_cast<uint8_t*>(vekMalloc(size_t(needed > 0 ? needed : 64))));
    }
    if (!owned) throw std::bad_alloc();
    return owned.get();
}

int getResizeCuboid(py::list dstVoiOut, const std::array<int, 6>& srcVoi, const Triple& factor,
                    const Triple& shift, int interpolation)
{
    Cuboid dst{};
    int status;
    {
        py::gil_scoped_release unlocked;
        status = vekrGetResizeCuboid(cuboidArg(srcVoi), &dst, factor[0], factor[1], factor[2],
                                     shift[0], shift[1], shift[2], interpolation);
    }
    checkStatus(status, "vekrGetResizeCuboid");
    if (status == StatusOk) {
        dstVoiOut.attr("clear")();
        for (int v : {dst.x, dst.y, dst.z, dst.width, dst.height, dst.depth})
            dstVoiOut.append(v);
    }
    return status;
}

int querySize(Status (*query)(Cuboid, Cuboid, int, int, int*), const char* name,
              const std::array<int, 6>& srcVoi, const std::array<int, 6>& dstVoi, int channels,
              int interpolation)
{
    int bytes = 0, status;
    {
        py::gil_scoped_release unlocked;
        status = query(cuboidArg(srcVoi), cuboidArg(dstVoi), channels, interpolation, &bytes);
    }
    checkStatus(status, name);
    return bytes;
}

int resizeBufferBytes(const Cuboid& srcVoi, const Cuboid& dstVoi, int interpolation)
{
    int bytes = 0;
    py::gil_scoped_release unlocked;
    return vekrResizeGetBufSize(srcVoi, dstVoi, 1, interpolation, &bytes) == StatusOk ? bytes : 0;
}

int resize(bool planar, const py::array& src, const std::array<int, 6>& srcVoi,
           const py::array& dst, const std::array<int, 6>& dstVoi, const Triple& factor,
           const Triple& shift, int interpolation, const std::optional<py::array>& buffer)
{
    return onVoxelType(src, [&](auto voxel) {
        using T = decltype(voxel);
        using Fn = VolumeFunctions<T>;
        const VolumeArg s = volumeArg<T>(src, "src", false);
        const VolumeArg d = volumeArg<T>(dst, "dst", true);
        const Cuboid sBox = cuboidArg(srcVoi), dBox = cuboidArg(dstVoi);
        requireBoxInside(dBox, d.size, "dst_voi");
        if (!planar && (s.planeBytes > INT32_MAX || d.planeBytes > INT32_MAX))
            throw py::value_error("planes longer than 2^31 - 1 bytes need the planar form");
        std::vector<const T*> sp;
        std::vector<T*> dp;
        if (planar) sp = s.planes<const T>(), dp = d.planes<T>();
        const auto call = [&](uint8_t* work) {
            if (planar)
                return Fn::resizePV(sp.data(), s.size, s.rowBytes, sBox, dp.data(), d.rowBytes,
                                    dBox, factor[0], factor[1], factor[2], shift[0], shift[1],
                                    shift[2], interpolation, work);
            return Fn::resizeV(reinterpret_cast<const T*>(s.origin), s.size, s.rowBytes,
                               int(s.planeBytes), sBox, reinterpret_cast<T*>(d.origin),
                               d.rowBytes, int(d.planeBytes), dBox, factor[0], factor[1],
                               factor[2], shift[0], shift[1], shift[2], interpolation, work);
        };
        int status = StatusNoMemory;
        if (buffer) {
            uint8_t* work = contiguousData<uint8_t>(
                *buffer, "buffer", resizeBufferBytes(sBox, dBox, interpolation), true);
            py::gil_scoped_release unlocked;
            status = call(work);
        } else {
            // Query, allocation, call and release in one stretch without the GIL: a small
            // call costs little more than the library's own work.
            py::gil_scoped_release unlocked;
            int bytes = 0;
            if (vekrResizeGetBufSize(sBox, dBox, 1, interpolation, &bytes) != StatusOk)
                bytes = 64;  // the call then fails its own checks before it uses the buffer
            WorkBuffer work(static_cast<uint8_t*>(vekMalloc(size_t(bytes))));
            if (work) status = call(work.get());
        }
        return checkStatus(status, Fn::names[planar ? 1 : 0]);
    });
}

int remap(const py::array& src, const std::array<int, 6>& srcVoi, const py::array& xMap,
          const py::array& yMap, const py::array& zMap, const py::array& dst, int interpolation)
{
    return onVoxelType(src, [&](auto voxel) {
        using T = decltype(voxel);
        using Fn = VolumeFunctions<T>;
        const VolumeArg s = volumeArg<T>(src, "src", false);
        const VolumeArg d = volumeArg<T>(dst, "dst", true);
        const VolumeArg mx = volumeArg<float>(xMap, "x_map", false);
        const VolumeArg my = volumeArg<float>(yMap, "y_map", false);
        const VolumeArg mz = volumeArg<float>(zMap, "z_map", false);
        for (const VolumeArg* m : {&my, &mz})
            if (m->size.width != mx.size.width || m->size.height != mx.size.height ||
                m->size.depth != mx.size.depth || m->rowBytes != mx.rowBytes)
                throw py::value_error("x_map, y_map and z_map must have one shape and row stride");
        requireBoxInside({0, 0, 0, mx.size.width, mx.size.height, mx.size.depth}, d.size,
                         "the maps' extent");
        const std::vector<const T*> sp = s.planes<const T>();
        const std::vector<const float*> xp = mx.planes<const float>(),
                                        yp = my.planes<const float>(),
                                        zp = mz.planes<const float>();
        const std::vector<T*> dp = d.planes<T>();
        int status;
        {
            py::gil_scoped_release unlocked;
            status = Fn::remap(sp.data(), s.size, s.rowBytes, cuboidArg(srcVoi), xp.data(),
                               yp.data(), zp.data(), mx.rowBytes, dp.data(), d.rowBytes, mx.size,
                               interpolation);
        }
        return checkStatus(status, Fn::names[2]);
    });
}

int warpAffine(const py::array& src, const std::array<int, 6>& srcVoi, const py::array& dst,
               const std::array<int, 6>& dstVoi, const std::array<double, 12>& coeffs,
               int interpolation)
{
    return onVoxelType(src, [&](auto voxel) {
        using T = decltype(voxel);
        using Fn = VolumeFunctions<T>;
        const VolumeArg s = volumeArg<T>(src, "src", false);
        const VolumeArg d = volumeArg<T>(dst, "dst", true);
        const double* c = coeffs.data();
        const Cuboid sBox = cuboidArg(srcVoi), dBox = cuboidArg(dstVoi);
        requireBoxInside(dBox, d.size, "dst_voi");
        if (sBox.x >= s.size.width || sBox.y >= s.size.height || sBox.z >= s.size.depth)
            throw py::value_error("src_voi starts outside the source volume");
        const std::vector<const T*> sp = s.planes<const T>();
        const std::vector<T*> dp = d.planes<T>();
        int status;
        {
            py::gil_scoped_release unlocked;
            status = Fn::warp(sp.data(), s.size, s.rowBytes, sBox, dp.data(), d.rowBytes, dBox, c,
                              interpolation, nullptr);
        }
        return checkStatus(status, Fn::names[3]);
    });
}

// src_offset is the voxel (x, y, z) of src that the filter's plane 0, row 0, column 0 is; every
// voxel the filter reads around the region must lie inside src.
int filter16s(const py::array& src, const std::array<int, 3>& srcOffset, const py::array& dst,
              const std::array<int, 3>& roi, const py::array& kernel,
              const std::array<int, 3>& anchor, int divisor,
              const std::optional<py::array>& buffer)
{
    const VolumeArg s = volumeArg<int16_t>(src, "src", false);
    const VolumeArg d = volumeArg<int16_t>(dst, "dst", true);
    if (kernel.ndim() != 3)
        throw py::value_error("kernel must be 3-D (z, y, x), not of shape " + shapeText(kernel));
    const int32_t* k = contiguousData<int32_t>(kernel, "kernel", 0, false);
    const VolumeSize kSize = {int(kernel.shape(2)), int(kernel.shape(1)), int(kernel.shape(0))};
    const VolumeSize roiSize = {roi[0], roi[1], roi[2]};
    const bool sized = roi[0] >= 1 && roi[1] >= 1 && roi[2] >= 1 && kSize.width >= 1 &&
                       kSize.height >= 1 && kSize.depth >= 1;
    if (sized) {
        if (srcOffset[0] < 0 || srcOffset[1] < 0 || srcOffset[2] < 0 ||
            srcOffset[0] >= s.size.width || srcOffset[1] >= s.size.height ||
            srcOffset[2] >= s.size.depth)
            throw py::value_error("src_offset must lie inside src");
        requireBoxInside({0, 0, 0, roi[0], roi[1], roi[2]}, d.size, "roi");
        const int extent[3] = {s.size.width, s.size.height, s.size.depth};
        const int taps[3] = {kSize.width, kSize.height, kSize.depth};
        for (int a = 0; a < 3; ++a) {
            const int64_t first = int64_t(srcOffset[size_t(a)]) + anchor[size_t(a)] - (taps[a] - 1);
            const int64_t last = int64_t(srcOffset[size_t(a)]) + roi[size_t(a)] - 1 + anchor[size_t(a)];
            if (first < 0 || last >= extent[a])
                throw py::value_error(std::string("the filter reads ") + "xyz"[a] + " from " +
                                      std::to_string(first) + " to " + std::to_string(last) +
                                      ", outside src (0 to " + std::to_string(extent[a] - 1) + ")");
        }
    }
    int needed = 0;
    if (sized) {
        py::gil_scoped_release unlocked;
        if (vekrFilterGetBufSize(roiSize, kSize, 1, &needed) != StatusOk) needed = 0;
    }
    WorkBuffer owned;
    uint8_t* work = workBuffer(buffer, needed, owned);
    // Plane pointers for every source plane, addressed from plane srcOffset z (negative plane
    // indices of the filter reach the planes before it), each at voxel (x, y) of the offset.
    std::vector<const int16_t*> sp(size_t(s.size.depth));
    for (int z = 0; z < s.size.depth && sized; ++z)
        sp[size_t(z)] = reinterpret_cast<const int16_t*>(
            s.origin + s.planeBytes * z + int64_t(s.rowBytes) * srcOffset[1] +
            int64_t(sizeof(int16_t)) * srcOffset[0]);
    const std::vector<int16_t*> dp = d.planes<int16_t>();
    int status;
    {
        py::gil_scoped_release unlocked;
        status = vekrFilter_16s_C1PV(sp.data() + (sized ? srcOffset[2] : 0), s.rowBytes,
                                     dp.data(), d.rowBytes, roiSize, k, kSize, anchor[0],
                                     anchor[1], anchor[2], divisor, work);
    }
    return checkStatus(status, "vekrFilter_16s_C1PV");
}

}  // namespace

void bindVolume(py::module_& m)
{
    using py::arg;
    m.def("get_resize_cuboid", &getResizeCuboid, arg("dst_voi_out"), arg("src_voi"),
          arg("factor"), arg("shift"), arg("interpolation"),
          "vekrGetResizeCuboid: on success replaces the contents of the list dst_voi_out with "
          "the destination box (x, y, z, width, height, depth). Returns the status.");
    m.def(
        "resize_get_buf_size",
        [](const std::array<int, 6>& s, const std::array<int, 6>& d, int channels, int kind) {
            return querySize(vekrResizeGetBufSize, "vekrResizeGetBufSize", s, d, channels, kind);
        },
        arg("src_voi"), arg("dst_voi"), arg("n_channel"), arg("interpolation"),
        "vekrResizeGetBufSize: the work-buffer bytes (all threads' shares).");
    m.def(
        "warp_affine_get_buf_size",
        [](const std::array<int, 6>& s, const std::array<int, 6>& d, int channels, int kind) {
            return querySize(vekrWarpAffineGetBufSize, "vekrWarpAffineGetBufSize", s, d,
                             channels, kind);
        },
        arg("src_voi"), arg("dst_voi"), arg("n_channel"), arg("interpolation"),
        "vekrWarpAffineGetBufSize: the work-buffer bytes (0).");
    m.def(
        "filter_get_buf_size",
        [](const std::array<int, 3>& roi, const std::array<int, 3>& k, int channels) {
            int bytes = 0, status;
            {
                py::gil_scoped_release unlocked;
                status = vekrFilterGetBufSize({roi[0], roi[1], roi[2]}, {k[0], k[1], k[2]},
                                              channels, &bytes);
            }
            checkStatus(status, "vekrFilterGetBufSize");
            return bytes;
        },
        arg("roi"), arg("kernel_size"), arg("n_channel"),
        "vekrFilterGetBufSize: the work-buffer bytes (all threads' shares).");
    m.def(
        "resize_c1v",
        [](const py::array& src, const std::array<int, 6>& sv, const py::array& dst,
           const std::array<int, 6>& dv, const Triple& f, const Triple& sh, int kind,
           const std::optional<py::array>& buffer) {
            return resize(false, src, sv, dst, dv, f, sh, kind, buffer);
        },
        arg("src"), arg("src_voi"), arg("dst"), arg("dst_voi"), arg("factor"), arg("shift"),
        arg("interpolation"), arg("buffer") = py::none(),
        "vekrResize_{8u,16u,32f}_C1V on volumes in one block. factor and shift are (x, y, z); "
        "buffer None takes one of the queried size. Returns the status.");
    m.def(
        "resize_c1pv",
        [](const py::array& src, const std::array<int, 6>& sv, const py::array& dst,
           const std::array<int, 6>& dv, const Triple& f, const Triple& sh, int kind,
           const std::optional<py::array>& buffer) {
            return resize(true, src, sv, dst, dv, f, sh, kind, buffer);
        },
        arg("src"), arg("src_voi"), arg("dst"), arg("dst_voi"), arg("factor"), arg("shift"),
        arg("interpolation"), arg("buffer") = py::none(),
        "vekrResize_{8u,16u,32f}_C1PV: as resize_c1v through plane pointers.");
    m.def("remap_c1pv", &remap, arg("src"), arg("src_voi"), arg("x_map"), arg("y_map"),
          arg("z_map"), arg("dst"), arg("interpolation"),
          "vekrRemap_{8u,16u,32f}_C1PV: the maps' shape (depth, height, width) is the region "
          "written from voxel (0, 0, 0) of dst. Returns the status.");
    m.def("warp_affine_c1pv", &warpAffine, arg("src"), arg("src_voi"), arg("dst"),
          arg("dst_voi"), arg("coeffs"), arg("interpolation"),
          "vekrWarpAffine_{8u,16u,32f}_C1PV with a sequence of 12 coefficients (three rows of four, "
          "x' = c0 x + c1 y + c2 z + c3, ...). Returns the status.");
    m.def("filter_16s_c1pv", &filter16s, arg("src"), arg("src_offset"), arg("dst"), arg("roi"),
          arg("kernel"), arg("anchor"), arg("divisor"), arg("buffer") = py::none(),
          "vekrFilter_16s_C1PV. kernel is int32 of shape (kd, kh, kw); roi and anchor are "
          "(x, y, z); src_offset is the voxel (x, y, z) of src where the filter's plane 0, row 0 "
          "starts. Every voxel it reads must lie in src. Returns the status.");
}

}  // namespace vekr::python
