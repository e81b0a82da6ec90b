"""Argument checks shared by the public functions.

Each check returns the array the library will read, or raises TypeError (wrong type or
dtype) or ValueError (wrong shape, layout or value) naming the argument and what it must be.
Arrays are converted only when the caller passed ``copy=True``.
"""

import math
import operator

import numpy as np

#: Interpolation names and their codes in vekr.h. The short names are those of the volume tool.
INTERPOLATIONS = {
    "nearest": 1,
    "linear": 2,
    "cubic-lagrange": 4,
    "cubic": 4,
    "cubic-bspline": 5,
    "bspline": 5,
    "cubic-catmull-rom": 6,
    "catmull-rom": 6,
    "cubic-b05c03": 7,
    "mitchell": 7,
}

RESAMPLE_DTYPES = (np.dtype(np.uint8), np.dtype(np.uint16), np.dtype(np.float32))
FILTER_DTYPES = (np.dtype(np.int16),)

_NAMES = ", ".join(repr(n) for n in INTERPOLATIONS)


def interpolation_code(name):
    try:
        return INTERPOLATIONS[name]
    except (KeyError, TypeError):
        raise ValueError(f"interpolation must be one of {_NAMES}, not {name!r}") from None


def _dtype_names(dtypes):
    return " or ".join(str(d) for d in dtypes)


def volume(a, name, dtypes, copy):
    """A 3-D array of one of dtypes whose rows are contiguous, with positive strides."""
    if (type(a) is np.ndarray and a.dtype in dtypes and a.ndim == 3 and a.flags.c_contiguous
            and a.size):
        return a  # the common case, checked in one line
    if not isinstance(a, np.ndarray):
        if not copy:
            raise TypeError(f"{name} must be a numpy array, not {type(a).__name__} "
                            "(or pass copy=True)")
        a = np.asarray(a)
    if a.ndim != 3:
        raise ValueError(f"{name} must be 3-D (z, y, x), not of shape {a.shape}")
    if 0 in a.shape:
        raise ValueError(f"{name} must not be empty, its shape is {a.shape}")
    if a.dtype not in dtypes:
        if not copy:
            raise TypeError(f"{name} must have dtype {_dtype_names(dtypes)}, not {a.dtype} "
                            "(or pass copy=True to convert it)")
        a = a.astype(dtypes[-1])  # float32 for the resampling functions
    s = a.strides
    if not (s[2] == a.itemsize and s[1] > 0 and s[0] > 0):
        if not copy:
            raise ValueError(f"{name} must have contiguous rows (x fastest) and positive "
                             "strides; pass a C-contiguous array or copy=True")
        a = np.ascontiguousarray(a)
    return a


def output(out, name, shape, dtype):
    """The caller's output array, checked against the shape and dtype the call writes."""
    if (type(out) is np.ndarray and out.shape == shape and out.dtype == dtype
            and out.flags.c_contiguous and out.flags.writeable):
        return out  # the common case, checked in one line
    if not isinstance(out, np.ndarray):
        raise TypeError(f"{name} must be a numpy array or None, not {type(out).__name__}")
    if out.shape != tuple(shape):
        raise ValueError(f"{name} must have shape {tuple(shape)}, not {out.shape}")
    if out.dtype != dtype:
        raise TypeError(f"{name} must have dtype {dtype}, not {out.dtype}")
    if not out.flags.writeable:
        raise ValueError(f"{name} must be writeable")
    if out.ndim == 3 and not (out.strides[2] == out.itemsize and out.strides[1] > 0
                              and out.strides[0] > 0):
        raise ValueError(f"{name} must have contiguous rows (x fastest) and positive strides")
    return out


def triple(value, name, positive=False):
    """Three floats in (z, y, x) order from a scalar or a sequence of three."""
    try:
        if type(value) is float or type(value) is int:
            t = (float(value),) * 3
        elif isinstance(value, (str, bytes)):
            raise TypeError
        elif np.ndim(value) == 0:
            t = (float(value),) * 3
        else:
            z, y, x = value
            t = (float(z), float(y), float(x))
    except (TypeError, ValueError):
        raise TypeError(f"{name} must be a number or three numbers (z, y, x), "
                        f"not {value!r}") from None
    z, y, x = t
    if not (math.isfinite(z) and math.isfinite(y) and math.isfinite(x)):
        raise ValueError(f"{name} must be finite, not {value!r}")
    if positive and not (z > 0 and y > 0 and x > 0):
        raise ValueError(f"{name} must be positive, not {value!r}")
    return t


def integer(value, name, low=None, high=None):
    try:
        v = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer, not {type(value).__name__}") from None
    if (low is not None and v < low) or (high is not None and v > high):
        bounds = (f"from {low} to {high}" if high is not None else f"at least {low}")
        raise ValueError(f"{name} must be {bounds}, not {v}")
    return v


def float_rows(a, name, width=3):
    """An array of shape (..., width) of real numbers, as a float64 or float32 array."""
    if not isinstance(a, np.ndarray):
        raise TypeError(f"{name} must be a numpy array, not {type(a).__name__}")
    if a.dtype not in (np.float32, np.float64):
        raise TypeError(f"{name} must have dtype float32 or float64, not {a.dtype}")
    if a.ndim < 1 or a.shape[-1] != width:
        raise ValueError(f"{name} must have shape (..., {width}), not {a.shape}")
    return a


def float32_array(a, name, copy):
    """A C-contiguous float32 array, converted only with copy=True."""
    if type(a) is np.ndarray and a.dtype == np.float32 and a.flags.c_contiguous:
        return a
    if not isinstance(a, np.ndarray) and not copy:
        raise TypeError(f"{name} must be a numpy array, not {type(a).__name__} "
                        "(or pass copy=True)")
    if copy:
        return np.ascontiguousarray(a, dtype=np.float32)
    if a.dtype != np.float32:
        raise TypeError(f"{name} must have dtype float32, not {a.dtype} (or pass copy=True)")
    raise ValueError(f"{name} must be C-contiguous (or pass copy=True)")
