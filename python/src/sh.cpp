// Bindings of the spherical-harmonic functions. Directions are three float32 planes x, y, z of
// one length; three-channel coefficients and planar samples are C-contiguous (3, n) arrays,
// interleaved samples (n, 3) ones; a state is a uint8 array set up by sh_init.
#include <cstdint>
#include <string>

#include "array_args.h"
#include "call_status.h"

namespace vekr::python {
namespace {

struct Directions {
    const float *x, *y, *z;
    int length;
};

Directions directionsArg(const py::array& x, const py::array& y, const py::array& z)
{
    if (x.ndim() != 1 || y.ndim() != 1 || z.ndim() != 1)
        throw py::value_error("x, y and z must be 1-D");
    if (x.size() > INT32_MAX) throw py::value_error("more than 2^31 - 1 directions");
    const py::ssize_t n = x.size();
    return {contiguousData<float>(x, "x", n, false), contiguousData<float>(y, "y", n, false),
            contiguousData<float>(z, "z", n, false), int(n)};
}

// The state after a check that its buffer is as large as its own header says it must be, so
// that the library reads no table past the end; 16-byte aligned as the library expects.
const SHState* stateArg(const py::array& state)
{
    const uint8_t* bytes = contiguousData<uint8_t>(state, "state", sizeof(SHState), false);
    if (reinterpret_cast<uintptr_t>(bytes) % 16 != 0)
        throw py::value_error("state must be 16-byte aligned");
    const auto* s = reinterpret_cast<const SHState*>(bytes);
    int size = 0, status;
    {
        py::gil_scoped_release unlocked;
        status = vekrSHGetSize_32f(s->order, s->method, &size);
    }
    if (status != StatusOk || state.size() < size)
        throw py::value_error("state was not set up by sh_init");
    return s;
}

// Elements an output for the directions needs. With an order the state cannot serve, the call
// fails its own checks before it writes, so nothing is required then.
int64_t needed(int64_t perDirection, const Directions& d, unsigned order, const SHState* state)
{
    return order <= state->order && d.length > 0 ? perDirection * d.length : 0;
}

int64_t coefficientCount(unsigned order, const SHState* state)
{
    return order <= state->order ? int64_t(order + 1) * (order + 1) : 0;
}

template <class Call>
int callReleased(const char* name, Call call)
{
    int status;
    {
        py::gil_scoped_release unlocked;
        status = call();
    }
    return checkStatus(status, name);
}

void bindBasis(py::module_& m)
{
    using py::arg;
    m.attr("SH_METHOD_DIRECT") = int(SHMethodDirect);
    m.attr("SH_METHOD_RECURRENCE") = int(SHMethodRecurrence);
    m.def(
        "sh_get_size",
        [](unsigned order, int method) {
            int size = 0;
            callReleased("vekrSHGetSize_32f",
                         [&] { return vekrSHGetSize_32f(order, method, &size); });
            return size;
        },
        arg("order"), arg("method"), "vekrSHGetSize_32f: the bytes of a state.");
    m.def(
        "sh_init",
        [](const py::array& state, unsigned order, int method) {
            uint8_t* bytes = contiguousData<uint8_t>(state, "state", 0, true);
            if (reinterpret_cast<uintptr_t>(bytes) % 16 != 0)
                throw py::value_error("state must be 16-byte aligned");
            int size = 0, status;
            {
                py::gil_scoped_release unlocked;
                status = vekrSHGetSize_32f(order, method, &size);
            }
            if (status == StatusOk && state.size() < size)
                throw py::value_error("state holds " + std::to_string(state.size()) +
                                      " bytes, sh_get_size asks for " + std::to_string(size));
            return callReleased("vekrSHInit_32f",
                                [&] { return vekrSHInit_32f(bytes, order, method); });
        },
        arg("state"), arg("order"), arg("method"), "vekrSHInit_32f. Returns the status.");
    m.def(
        "sh_32f",
        [](const py::array& x, const py::array& y, const py::array& z, const py::array& dst,
           unsigned order, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            float* out = contiguousData<float>(
                dst, "dst", needed(coefficientCount(order, s), d, order, s), true);
            return callReleased("vekrSH_32f", [&] {
                return vekrSH_32f(d.x, d.y, d.z, d.length, out, order, s);
            });
        },
        arg("x"), arg("y"), arg("z"), arg("dst"), arg("order"), arg("state"),
        "vekrSH_32f: (order + 1)^2 values per direction into dst.");
    m.def(
        "sh_band_32f",
        [](const py::array& x, const py::array& y, const py::array& z, const py::array& dst,
           unsigned band) {
            const Directions d = directionsArg(x, y, z);
            const int64_t perDirection = band <= 15 ? 2 * int64_t(band) + 1 : 0;
            float* out = contiguousData<float>(dst, "dst", perDirection * d.length, true);
            return callReleased("vekrSHBand_32f", [&] {
                return vekrSHBand_32f(d.x, d.y, d.z, d.length, out, band);
            });
        },
        arg("x"), arg("y"), arg("z"), arg("dst"), arg("band"),
        "vekrSHBand_32f: 2 band + 1 values per direction into dst.");
}

void bindTransforms(py::module_& m)
{
    using py::arg;
    m.def(
        "sht_fwd_32f_c1i",
        [](const py::array& x, const py::array& y, const py::array& z, const py::array& samples,
           const py::array& coeffs, unsigned order, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            const float* in = contiguousData<float>(samples, "samples", d.length, false);
            float* c = contiguousData<float>(coeffs, "coeffs", coefficientCount(order, s), true);
            return callReleased("vekrSHTFwd_32f_C1I", [&] {
                return vekrSHTFwd_32f_C1I(d.x, d.y, d.z, in, d.length, c, order, s);
            });
        },
        arg("x"), arg("y"), arg("z"), arg("samples"), arg("coeffs"), arg("order"), arg("state"),
        "vekrSHTFwd_32f_C1I: coeffs += samples[i] * basis(direction i).");
    m.def(
        "sht_fwd_32f_p3i",
        [](const py::array& x, const py::array& y, const py::array& z, const py::array& samples,
           const py::array& coeffs, unsigned order, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            const Planes in = planesArg(samples, "samples", d.length, false);
            const Planes c = planesArg(coeffs, "coeffs", coefficientCount(order, s), true);
            const float* inp[3] = {in.p[0], in.p[1], in.p[2]};
            return callReleased("vekrSHTFwd_32f_P3I", [&] {
                return vekrSHTFwd_32f_P3I(d.x, d.y, d.z, inp, d.length, c.p, order, s);
            });
        },
        arg("x"), arg("y"), arg("z"), arg("samples"), arg("coeffs"), arg("order"), arg("state"),
        "vekrSHTFwd_32f_P3I: samples and coeffs are (3, n) planes.");
    m.def(
        "sht_fwd_32f_c3p3i",
        [](const py::array& x, const py::array& y, const py::array& z, const py::array& samples,
           const py::array& coeffs, unsigned order, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            const float* in = contiguousData<float>(samples, "samples", 3 * int64_t(d.length), false);
            const Planes c = planesArg(coeffs, "coeffs", coefficientCount(order, s), true);
            return callReleased("vekrSHTFwd_32f_C3P3I", [&] {
                return vekrSHTFwd_32f_C3P3I(d.x, d.y, d.z, in, d.length, c.p, order, s);
            });
        },
        arg("x"), arg("y"), arg("z"), arg("samples"), arg("coeffs"), arg("order"), arg("state"),
        "vekrSHTFwd_32f_C3P3I: samples interleaved (n, 3), coeffs (3, n) planes.");
    m.def(
        "sht_inv_32f_c1",
        [](const py::array& coeffs, unsigned order, const py::array& x, const py::array& y,
           const py::array& z, const py::array& dst, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            const float* c = contiguousData<float>(coeffs, "coeffs", coefficientCount(order, s), false);
            float* out = contiguousData<float>(dst, "dst", d.length, true);
            return callReleased("vekrSHTInv_32f_C1", [&] {
                return vekrSHTInv_32f_C1(c, order, d.x, d.y, d.z, out, d.length, s);
            });
        },
        arg("coeffs"), arg("order"), arg("x"), arg("y"), arg("z"), arg("dst"), arg("state"),
        "vekrSHTInv_32f_C1: the expansion at each direction into dst.");
    m.def(
        "sht_inv_32f_p3",
        [](const py::array& coeffs, unsigned order, const py::array& x, const py::array& y,
           const py::array& z, const py::array& dst, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            const Planes c = planesArg(coeffs, "coeffs", coefficientCount(order, s), false);
            const Planes out = planesArg(dst, "dst", d.length, true);
            const float* cp[3] = {c.p[0], c.p[1], c.p[2]};
            return callReleased("vekrSHTInv_32f_P3", [&] {
                return vekrSHTInv_32f_P3(cp, order, d.x, d.y, d.z, out.p, d.length, s);
            });
        },
        arg("coeffs"), arg("order"), arg("x"), arg("y"), arg("z"), arg("dst"), arg("state"),
        "vekrSHTInv_32f_P3: coeffs and dst are (3, n) planes.");
    m.def(
        "sht_inv_32f_p3c3",
        [](const py::array& coeffs, unsigned order, const py::array& x, const py::array& y,
           const py::array& z, const py::array& dst, const py::array& state) {
            const Directions d = directionsArg(x, y, z);
            const SHState* s = stateArg(state);
            const Planes c = planesArg(coeffs, "coeffs", coefficientCount(order, s), false);
            float* out = contiguousData<float>(dst, "dst", 3 * int64_t(d.length), true);
            const float* cp[3] = {c.p[0], c.p[1], c.p[2]};
            return callReleased("vekrSHTInv_32f_P3C3", [&] {
                return vekrSHTInv_32f_P3C3(cp, order, d.x, d.y, d.z, out, d.length, s);
            });
        },
        arg("coeffs"), arg("order"), arg("x"), arg("y"), arg("z"), arg("dst"), arg("state"),
        "vekrSHTInv_32f_P3C3: coeffs (3, n) planes, dst interleaved (n, 3).");
}

}  // namespace

void bindSh(py::module_& m)
{
    bindBasis(m);
    bindTransforms(m);
}

}  // namespace vekr::python
