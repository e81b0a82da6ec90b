"""Volume resampling and filtering on numpy arrays of shape (z, y, x).

A C-contiguous array of shape (depth, height, width) is handed to the library as it stands:
voxel (x, y, z) is ``volume[z, y, x]``. Views whose rows are contiguous (``v[:, 10:50, 3:]``)
are passed without a copy too.
"""

import math
import warnings

import numpy as np

from . import _args, _vekr

__all__ = ["resize", "resize_shape", "warp_affine", "remap", "filter"]

def _fill(shape, dtype, out, cval_keep, cval):
    """The destination: `out` (filled with `cval` unless `cval_keep`) or a new array."""
    if out is None:
        if cval_keep or cval == 0:
            return np.zeros(shape, dtype)
        return np.full(shape, cval, dtype)
    if not cval_keep:
        out[...] = cval
    return out


def resize_shape(shape, factors, shift=(0.0, 0.0, 0.0)):
    """The shape (z, y, x) that :func:`resize` returns for a volume of `shape`.

    Returns ``None`` when the resized volume holds no voxel.
    """
    fz, fy, fx = _args.triple(factors, "factors", positive=True)
    sz, sy, sx = _args.triple(shift, "shift")
    d, h, w = (_args.integer(n, "shape", 1) for n in shape)
    box = []
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", _vekr.VekrWarning)
        _vekr.get_resize_cuboid(box, (0, 0, 0, w, h, d), (fx, fy, fz), (sx, sy, sz), 2)
    if not box:
        return None
    x, y, z, bw, bh, bd = box
    return (z + bd, y + bh, x + bw)


# Destination boxes of recent resizes by geometry: the box query costs as much as the rest of
# the Python layer of a small call.
_resize_boxes = {}


_NO_SHIFT = (0.0, 0.0, 0.0)


def resize(volume, factors, shift=_NO_SHIFT, interpolation="linear", out=None, *,
           copy=False):
    """Resize a volume by independent factors along z, y and x, with a shift.

    Along each axis, a source coordinate s maps to the destination coordinate
    ``d = s * factor + shift``, coordinates counting voxel widths from the volume's first
    edge (voxel i covers [i, i + 1), its centre at i + 0.5). The destination voxels that the
    image of the source covers are written; taps outside the source repeat its edge voxels.

    Parameters
    ----------
    volume : ndarray, uint8, uint16 or float32, shape (z, y, x)
        The source. Rows must be contiguous (x fastest).
    factors : float or sequence of 3 floats
        Destination size over source size, (z, y, x) or one factor for all axes.
    shift : sequence of 3 floats, optional
        Added after scaling, in destination voxels, (z, y, x).
    interpolation : str, optional
        'nearest', 'linear' (default), 'cubic' (four-point Lagrange), 'bspline',
        'catmull-rom' or 'mitchell' (B = 1/2, C = 3/10; also the long names of vekr.h such as
        'cubic-catmull-rom').
    out : ndarray, optional
        The destination, of the shape :func:`resize_shape` reports and the volume's dtype.
        Voxels before the shifted image are left as they are.
    copy : bool, optional
        Convert a volume of another dtype (to float32) or layout instead of raising.

    Returns
    -------
    ndarray
        The resized volume, of shape ``resize_shape(volume.shape, factors, shift)`` (from the
        origin to the far end of the image, so a positive shift leaves zeros before it).

    Raises
    ------
    TypeError, ValueError
        For a volume, factor, shift, interpolation or `out` the call cannot take.
    VekrWarning
        When no destination voxel is covered; an empty array is returned.

    Examples
    --------
    >>> v = np.arange(8, dtype=np.float32).reshape(2, 2, 2)
    >>> vekr.resize(v, 2).shape
    (4, 4, 4)
    """
    src = _args.volume(volume, "volume", _args.RESAMPLE_DTYPES, copy)
    kind = _args.interpolation_code(interpolation)
    fz, fy, fx = _args.triple(factors, "factors", positive=True)
    sz, sy, sx = shift if shift is _NO_SHIFT else _args.triple(shift, "shift")
    d, h, w = src.shape
    key = (w, h, d, fx, fy, fz, sx, sy, sz, kind)
    box = _resize_boxes.get(key)
    if box is None:
        box = []
        if _vekr.get_resize_cuboid(box, (0, 0, 0, w, h, d), (fx, fy, fz), (sx, sy, sz), kind):
            return np.zeros((0, 0, 0), src.dtype)  # nothing covered: the warning was issued
        if len(_resize_boxes) > 256:
            _resize_boxes.clear()
        _resize_boxes[key] = box
    x0, y0, z0, bw, bh, bd = box
    shape = (z0 + bd, y0 + bh, x0 + bw)
    if out is None:
        out = (np.empty if x0 == y0 == z0 == 0 else np.zeros)(shape, src.dtype)
    else:
        _args.output(out, "out", shape, src.dtype)
    _vekr.resize_c1v(src, (0, 0, 0, w, h, d), out, (0, 0, 0, shape[2], shape[1], shape[0]),
                     (fx, fy, fz), (sx, sy, sz), kind)
    return out


def _library_matrix(matrix):
    """The 12 coefficients of vekr.h (x, y, z order) from a (z, y, x) matrix."""
    m = matrix if isinstance(matrix, np.ndarray) else np.asarray(matrix)
    if m.dtype.kind not in "fiu":
        raise TypeError(f"matrix must hold real numbers, not {m.dtype}")
    if m.shape != (3, 4) and m.shape != (4, 4):
        raise ValueError(f"matrix must have shape (3, 4) or (4, 4), not {m.shape}")
    flat = m.ravel().tolist()  # a dozen numbers: plain Python is faster than numpy here
    if len(flat) == 16 and flat[12:] != [0, 0, 0, 1]:
        raise ValueError("the last row of a (4, 4) matrix must be (0, 0, 0, 1)")
    a, b, c, d, e, f, g, h, i, j, k, l = flat[:12]
    coeffs = [k, j, i, l, g, f, e, h, c, b, a, d]  # rows and columns (z, y, x) -> (x, y, z)
    if not all(map(math.isfinite, coeffs)):
        raise ValueError("matrix must be finite")
    return coeffs


def warp_affine(volume, matrix, output_shape=None, interpolation="linear", out=None,
                cval_keep=True, cval=0, *, copy=False):
    """Warp a volume by an affine transform.

    Parameters
    ----------
    volume : ndarray, uint8, uint16 or float32, shape (z, y, x)
        The source. Rows must be contiguous (x fastest).
    matrix : array_like, shape (3, 4) or (4, 4)
        The forward transform, from source to destination, on voxel indices in (z, y, x)
        order (voxel centres at integers): ``dst = matrix[:3, :3] @ src + matrix[:3, 3]``.
        The library inverts it and samples the source at the inverse image of each destination
        voxel. This is the inverse of the matrix ``scipy.ndimage.affine_transform`` takes.
    output_shape : tuple of 3 ints, optional
        The destination's shape; the volume's by default.
    interpolation : str, optional
        As for :func:`resize`.
    out : ndarray, optional
        The destination (its shape then gives output_shape).
    cval_keep : bool, optional
        True (the default): destination voxels whose inverse image lies outside the source are
        not written, so they keep their value in `out` (0 in an allocated output), as the
        library leaves them. False: they are set to `cval`.
    cval : number, optional
        The value of those voxels when `cval_keep` is False (0).
    copy : bool, optional
        Convert a volume of another dtype (to float32) or layout instead of raising.

    Returns
    -------
    ndarray
        The warped volume.

    Raises
    ------
    VekrError
        ``StatusBadCoefficients`` for a matrix whose determinant is below 1e-10 in magnitude.

    Examples
    --------
    >>> m = np.eye(4); m[:3, 3] = (0, 0, 1.5)         # move by 1.5 voxels along x
    >>> moved = vekr.warp_affine(v, m)
    """
    src = _args.volume(volume, "volume", _args.RESAMPLE_DTYPES, copy)
    kind = _args.interpolation_code(interpolation)
    coeffs = _library_matrix(matrix)
    if out is not None:
        shape = out.shape if isinstance(out, np.ndarray) else None
        if output_shape is not None and shape != tuple(output_shape):
            raise ValueError(f"output_shape {tuple(output_shape)} differs from out's shape {shape}")
        out = _args.output(out, "out", shape, src.dtype)
    else:
        shape = src.shape if output_shape is None else tuple(
            _args.integer(n, "output_shape", 1) for n in output_shape)
        if len(shape) != 3:
            raise ValueError(f"output_shape must have three extents (z, y, x), not {shape}")
    out = _fill(shape, src.dtype, out, cval_keep, cval)
    d, h, w = src.shape
    _vekr.warp_affine_c1pv(src, (0, 0, 0, w, h, d), out, (0, 0, 0, shape[2], shape[1], shape[0]),
                           coeffs, kind)
    return out


def remap(volume, coordinates, interpolation="linear", out=None, cval_keep=True, cval=0, *,
          copy=False):
    """Sample a volume at the coordinates given for each output voxel.

    Parameters
    ----------
    volume : ndarray, uint8, uint16 or float32, shape (z, y, x)
        The source. Rows must be contiguous (x fastest).
    coordinates : ndarray, float32, shape (3, *output_shape)
        The source position of each output voxel in (z, y, x) order, voxel centres at
        integers: ``coordinates[:, k, j, i]`` for output voxel ``[k, j, i]``, as
        ``scipy.ndimage.map_coordinates`` takes them.
    interpolation : str, optional
        As for :func:`resize`. Sources thinner than 4 voxels on some axis sample cubic kinds
        linearly, thinner than 2 by the nearest voxel.
    out : ndarray, optional
        The destination, of shape output_shape.
    cval_keep : bool, optional
        True (the default): output voxels whose position lies outside the source keep their
        value in `out` (0 in an allocated output). False: they are set to `cval`.
    cval : number, optional
        The value of those voxels when `cval_keep` is False (0).
    copy : bool, optional
        Convert a volume or coordinates of another dtype or layout instead of raising.

    Returns
    -------
    ndarray
        The sampled volume, of shape output_shape and the volume's dtype.

    Examples
    --------
    >>> zyx = np.indices((4, 4, 4), dtype=np.float32) * 0.5     # the first octant, doubled
    >>> vekr.remap(v, zyx).shape
    (4, 4, 4)
    """
    src = _args.volume(volume, "volume", _args.RESAMPLE_DTYPES, copy)
    kind = _args.interpolation_code(interpolation)
    if not isinstance(coordinates, np.ndarray) and not copy:
        raise TypeError(f"coordinates must be a numpy array, not {type(coordinates).__name__}")
    if np.ndim(coordinates) != 4 or np.shape(coordinates)[0] != 3:
        raise ValueError("coordinates must have shape (3, depth, height, width), not "
                         f"{np.shape(coordinates)}")
    maps = _args.float32_array(coordinates, "coordinates", copy)
    shape = maps.shape[1:]
    if 0 in shape:
        raise ValueError(f"coordinates must not be empty, their shape is {maps.shape}")
    if out is not None:
        _args.output(out, "out", shape, src.dtype)
    out = _fill(shape, src.dtype, out, cval_keep, cval)
    d, h, w = src.shape
    _vekr.remap_c1pv(src, (0, 0, 0, w, h, d), maps[2], maps[1], maps[0], out, kind)
    return out


_FILTER_MODES = ("nearest", "constant", "valid")


def filter(volume, kernel, anchor=None, divisor=1, out=None, mode="nearest", cval=0, *,
           copy=False):
    """Convolve a signed 16-bit volume with an integer kernel.

    ``out[z, y, x] = sat16(round(S / divisor))`` with
    ``S = sum kernel[k, j, i] * volume[z + az - k, y + ay - j, x + ax - i]`` summed exactly,
    halves rounded away from zero, saturated to -32768 .. 32767. For odd kernels and the
    default anchor this is ``scipy.ndimage.convolve`` followed by the division.

    Parameters
    ----------
    volume : ndarray, int16, shape (z, y, x)
        The source. Rows must be contiguous (x fastest).
    kernel : ndarray of integers, shape (kd, kh, kw)
        The kernel in (z, y, x) order; its values must fit 32 bits. Pass it reversed
        (``kernel[::-1, ::-1, ::-1]``) for a correlation.
    anchor : tuple of 3 ints, optional
        The kernel element (az, ay, ax) that meets the voxel at the output voxel's place;
        the centre ``(kd // 2, kh // 2, kw // 2)`` by default.
    divisor : int, optional
        The sum is divided by it (not 0; a negative divisor negates).
    out : ndarray, int16, optional
        The destination, of the volume's shape (or the smaller one of mode 'valid').
    mode : {'nearest', 'constant', 'valid'}, optional
        Beyond the edges the volume repeats its edge voxels ('nearest', the default) or holds
        `cval` ('constant'), both through a padded copy; 'valid' writes only the voxels whose
        whole neighbourhood lies inside, with no copy, so the output is smaller by the
        kernel's extent less one on each axis.
    cval : int, optional
        The value outside the volume for mode 'constant'.
    copy : bool, optional
        Convert a volume of another dtype (to int16) or layout instead of raising.

    Returns
    -------
    ndarray, int16

    Examples
    --------
    >>> box = np.ones((3, 3, 3), np.int32)
    >>> smooth = vekr.filter(np.zeros((8, 8, 8), np.int16), box, divisor=27)
    """
    src = _args.volume(volume, "volume", _args.FILTER_DTYPES, copy)
    if not isinstance(kernel, np.ndarray):
        raise TypeError(f"kernel must be a numpy array, not {type(kernel).__name__}")
    if kernel.dtype.kind not in "iu":
        raise TypeError(f"kernel must hold integers, not {kernel.dtype}")
    if kernel.ndim != 3 or 0 in kernel.shape:
        raise ValueError(f"kernel must be 3-D (z, y, x) and not empty, not of shape "
                         f"{kernel.shape}")
    if kernel.size and (kernel.min() < -2**31 or kernel.max() >= 2**31):
        raise ValueError("kernel values must fit 32 bits")
    k = np.ascontiguousarray(kernel, dtype=np.int32)  # a few elements
    if anchor is None:
        anchor = tuple(n // 2 for n in k.shape)
    elif len(anchor) != 3:
        raise ValueError(f"anchor must be three ints (z, y, x), not {anchor!r}")
    az, ay, ax = (_args.integer(a, "anchor") for a in anchor)
    divisor = _args.integer(divisor, "divisor")
    if divisor == 0 or not -2**31 <= divisor < 2**31:
        raise ValueError(f"divisor must be a nonzero 32-bit integer, not {divisor}")
    if mode not in _FILTER_MODES:
        raise ValueError(f"mode must be one of {_FILTER_MODES}, not {mode!r}")
    kd, kh, kw = k.shape
    if mode == "valid":
        if not (0 <= az < kd and 0 <= ay < kh and 0 <= ax < kw):
            raise ValueError("mode 'valid' needs the anchor inside the kernel")
        shape = tuple(n - m + 1 for n, m in zip(src.shape, k.shape))
        if min(shape) < 1:
            raise ValueError(f"the kernel {k.shape} is larger than the volume {src.shape}")
        padded, offset = src, (kw - 1 - ax, kh - 1 - ay, kd - 1 - az)
    else:
        shape = src.shape
        before = [max(m - 1 - a, 0) for m, a in zip(k.shape, (az, ay, ax))]
        after = [max(a, 0) for a in (az, ay, ax)]
        pad = [(b, a) for b, a in zip(before, after)]
        padded = (np.pad(src, pad, mode="edge") if mode == "nearest"
                  else np.pad(src, pad, mode="constant", constant_values=cval))
        offset = (before[2], before[1], before[0])
    if out is None:
        out = np.empty(shape, np.int16)
    else:
        _args.output(out, "out", shape, np.dtype(np.int16))
    _vekr.filter_16s_c1pv(padded, offset, out, (shape[2], shape[1], shape[0]), k,
                          (ax, ay, az), divisor)
    return out
