// Checked views of numpy arrays for the bindings: every pointer handed to the library comes
// from here, after the dtype, layout, extent and writability that the call needs were
// checked. A failed check raises TypeError or ValueError naming the argument; nothing is
// converted or copied.
#ifndef VEKR_PYTHON_ARRAY_ARGS_H
#define VEKR_PYTHON_ARRAY_ARGS_H

#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <pybind11/pybind11.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "vekr.h"

namespace vekr::python {

namespace py = pybind11;

template <class T>
const char* dtypeName();
template <>
inline const char* dtypeName<uint8_t>() { return "uint8"; }
template <>
inline const char* dtypeName<uint16_t>() { return "uint16"; }
template <>
inline const char* dtypeName<int16_t>() { return "int16"; }
template <>
inline const char* dtypeName<int32_t>() { return "int32"; }
template <>
inline const char* dtypeName<float>() { return "float32"; }
template <>
inline const char* dtypeName<double>() { return "float64"; }

// True when the array's dtype is T in native byte order.
template <class T>
bool hasDtype(const py::array& a)
{
    return py::array_t<T>::check_(a);
}

inline std::string shapeText(const py::array& a)
{
    std::string text = "(";
    for (py::ssize_t d = 0; d < a.ndim(); ++d)
        text += (d ? ", " : "") + std::to_string(a.shape(d));
    return text + (a.ndim() == 1 ? ",)" : ")");
}

inline void requireWritable(const py::array& a, const char* name)
{
    if (!a.writeable()) throw py::value_error(std::string(name) + " must be writeable");
}

// Elements of a C-contiguous array of T with at least minCount elements.
template <class T>
T* contiguousData(const py::array& a, const char* name, py::ssize_t minCount, bool writable)
{
    if (!hasDtype<T>(a))
        throw py::type_error(std::string(name) + " must have dtype " + dtypeName<T>() +
                             ", not " + std::string(py::str(a.dtype())));
    if (!(a.flags() & py::array::c_style))
        throw py::value_error(std::string(name) + " must be C-contiguous");
    if (a.size() < minCount)
        throw py::value_error(std::string(name) + " holds " + std::to_string(a.size()) +
                              " elements, the call needs " + std::to_string(minCount));
    if (writable) requireWritable(a, name);
    return static_cast<T*>(const_cast<void*>(a.data()));
}

// A 3-D array of shape (depth, height, width) whose rows are contiguous (x fastest), with
// positive row and plane strides: a C-contiguous volume or a view of one such as v[2:, :, 5:9].
struct VolumeArg {
    char* origin;  // voxel (0, 0, 0)
    VolumeSize size;
    int rowBytes;
    int64_t planeBytes;

    template <class T>
    std::vector<T*> planes() const
    {
        std::vector<T*> p(size_t(size.depth));
        for (int z = 0; z < size.depth; ++z)
            p[size_t(z)] = reinterpret_cast<T*>(origin + planeBytes * z);
        return p;
    }
    Cuboid box() const { return {0, 0, 0, size.width, size.height, size.depth}; }
};

template <class T>
VolumeArg volumeArg(const py::array& a, const char* name, bool writable)
{
    if (!hasDtype<T>(a))
        throw py::type_error(std::string(name) + " must have dtype " + dtypeName<T>() +
                             ", not " + std::string(py::str(a.dtype())));
    if (a.ndim() != 3)
        throw py::value_error(std::string(name) + " must be 3-D (z, y, x), not of shape " +
                              shapeText(a));
    const py::ssize_t item = py::ssize_t(sizeof(T));
    if (a.shape(0) < 1 || a.shape(1) < 1 || a.shape(2) < 1)
        throw py::value_error(std::string(name) + " must not be empty, its shape is " +
                              shapeText(a));
    if (a.shape(0) > INT32_MAX || a.shape(1) > INT32_MAX || a.shape(2) > INT32_MAX)
        throw py::value_error(std::string(name) + " has an extent beyond 2^31 - 1");
    const bool rowsContiguous = a.strides(2) == item || a.shape(2) == 1;
    if (!rowsContiguous || a.strides(1) <= 0 || a.strides(0) <= 0 || a.strides(1) % item != 0 ||
        a.strides(0) % item != 0 || reinterpret_cast<uintptr_t>(a.data()) % sizeof(T) != 0)
        throw py::value_error(std::string(name) +
                              " must have contiguous rows (x fastest) and positive strides; "
                              "pass a C-contiguous array or copy=True");
    if (a.strides(1) > INT32_MAX)
        throw py::value_error(std::string(name) + " has rows longer than 2^31 - 1 bytes");
    if (writable) requireWritable(a, name);
    VolumeArg v;
    v.origin = static_cast<char*>(const_cast<void*>(a.data()));
    v.size = {int(a.shape(2)), int(a.shape(1)), int(a.shape(0))};
    v.rowBytes = int(a.strides(1));
    v.planeBytes = a.strides(0);
    return v;
}

// A Cuboid from (x, y, z, width, height, depth).
inline Cuboid cuboidArg(const std::array<int, 6>& c)
{
    return {c[0], c[1], c[2], c[3], c[4], c[5]};
}

// Raises ValueError unless a valid box lies inside the volume (writes must stay inside the
// caller's array). An invalid box is left to the library, which rejects it before writing.
inline void requireBoxInside(const Cuboid& box, const VolumeSize& size, const char* name)
{
    const bool valid = box.x >= 0 && box.y >= 0 && box.z >= 0 && box.width >= 1 &&
                       box.height >= 1 && box.depth >= 1;
    if (valid && (int64_t(box.x) + box.width > size.width ||
                  int64_t(box.y) + box.height > size.height ||
                  int64_t(box.z) + box.depth > size.depth))
        throw py::value_error(std::string(name) + " reaches beyond the destination volume");
}

// The planes of a C-contiguous (rows, n) float32 array, n >= count (rows 3, or 2 for hit
// weights).
struct Planes {
    float* p[3];
    int64_t n;
};

inline Planes planesArg(const py::array& a, const char* name, int64_t count, bool writable,
                 int rows = 3)
{
    if (a.ndim() != 2 || a.shape(0) != rows)
        throw py::value_error(std::string(name) + " must have shape (" + std::to_string(rows) +
                              ", n), not " + shapeText(a));
    float* base = contiguousData<float>(a, name, 0, writable);
    if (a.shape(1) < count)
        throw py::value_error(std::string(name) + " holds " + std::to_string(a.shape(1)) +
                              " rays per plane, the block needs " + std::to_string(count));
    Planes planes{{nullptr, nullptr, nullptr}, a.shape(1)};
    for (int k = 0; k < rows; ++k)
        planes.p[k] = base + planes.n * k;
    return planes;
}

}  // namespace vekr::python

#endif  // VEKR_PYTHON_ARRAY_ARGS_H
