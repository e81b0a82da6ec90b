"""Volume functions from Python: against scipy.ndimage where the conventions can be matched,
against direct calls of the C functions through vekr._vekr, and every argument check."""
import numpy as np
import pytest
import scipy.ndimage as ndi

import vekr
from vekr import _vekr
from conftest import bad_argument_test

DTYPES = [np.uint8, np.uint16, np.float32]


def random_volume(rng, shape, dtype):
    if dtype == np.float32:
        return rng.random(shape, dtype=np.float32)
    return rng.integers(0, np.iinfo(dtype).max, shape, dtype=dtype, endpoint=True)


def assert_matches_float_reference(result, reference):
    """Float32 results within rounding of a float64 reference; integer results within 1 of its
    rounding to the voxel type (the library rounds its own float sums)."""
    if result.dtype == np.float32:
        np.testing.assert_allclose(result, reference, rtol=0, atol=2e-6 * max(1, abs(reference).max()))
    else:
        assert np.abs(result.astype(np.float64) - reference).max() <= 1


# --- Resize ---------------------------------------------------------------------------------

# Factors chosen so that every extent times its factor is a whole number: scipy's zoom then
# uses exactly that factor. With grid_mode=True scipy maps output voxel centre i + 0.5 to
# (i + 0.5) / factor in input edge coordinates, as the library does with no shift, and
# mode='nearest' repeats the edge voxels, as the library's taps outside the source do.
# prefilter=False makes scipy's order 3 the plain cubic B-spline kernel, the library's
# 'bspline'.
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("factors", [(1.5, 0.5, 2.0), (0.25, 1.0, 1.25)])
@pytest.mark.parametrize("interpolation, order", [("linear", 1), ("bspline", 3)])
def test_resize_matches_scipy_zoom(rng, threads, dtype, factors, interpolation, order):
    volume = random_volume(rng, (12, 16, 20), dtype)
    result = vekr.resize(volume, factors, interpolation=interpolation)
    reference = ndi.zoom(volume.astype(np.float64), factors, order=order, mode="nearest",
                         grid_mode=True, prefilter=False)
    assert result.shape == reference.shape and result.dtype == dtype
    assert_matches_float_reference(result, reference)


# A shift S moves the image: output voxel i samples input position (i + 0.5 - S) / F - 0.5 in
# voxel-centre coordinates, which map_coordinates (order 1, mode 'nearest' for the repeated
# edges) takes directly. Voxels before the shifted image stay 0.
@pytest.mark.parametrize("shift", [(0.0, 2.5, -1.25), (3.0, 0.0, 0.75)])
def test_shifted_resize_matches_map_coordinates(rng, shift):
    volume = random_volume(rng, (10, 12, 14), np.float32)
    factors = (1.5, 2.0, 0.5)
    result = vekr.resize(volume, factors, shift)
    assert result.shape == vekr.resize_shape(volume.shape, factors, shift)
    start = [max(int(np.trunc(0.4999999999 + s)), 0) for s in shift]
    axes = [(np.arange(b, n) + 0.5 - s) / f - 0.5
            for b, n, s, f in zip(start, result.shape, shift, factors)]
    positions = np.stack(np.meshgrid(*axes, indexing="ij"))
    reference = ndi.map_coordinates(volume.astype(np.float64), positions, order=1, mode="nearest")
    np.testing.assert_allclose(result[start[0]:, start[1]:, start[2]:], reference, atol=2e-6)
    assert not result[:start[0]].any() and not result[:, :start[1]].any()


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interpolation", ["nearest", "linear", "cubic", "mitchell"])
def test_resize_equals_direct_calls_in_both_layouts(rng, dtype, interpolation):
    volume = random_volume(rng, (9, 11, 13), dtype)
    result = vekr.resize(volume, (1.3, 0.7, 2.0), (0.5, 0.0, 1.0), interpolation)
    code = vekr.INTERPOLATIONS[interpolation]
    box = []
    _vekr.get_resize_cuboid(box, (0, 0, 0, 13, 11, 9), (2.0, 0.7, 1.3), (1.0, 0.0, 0.5), code)
    for call in (_vekr.resize_c1v, _vekr.resize_c1pv):
        direct = np.zeros_like(result)
        d, h, w = direct.shape
        buffer = np.empty(_vekr.resize_get_buf_size((0, 0, 0, 13, 11, 9), (0, 0, 0, w, h, d), 1,
                                                    code), np.uint8)
        call(volume, (0, 0, 0, 13, 11, 9), direct, (0, 0, 0, w, h, d), (2.0, 0.7, 1.3),
             (1.0, 0.0, 0.5), code, buffer)
        np.testing.assert_array_equal(result, direct)
    assert (box[2] + box[5], box[1] + box[4], box[0] + box[3]) == result.shape


def test_views_with_contiguous_rows_are_read_in_place(rng):
    volume = random_volume(rng, (10, 12, 14), np.float32)
    view = volume[1:8, 2:11, 3:12]
    out = np.zeros((7, 9, 9), np.float32)
    np.testing.assert_array_equal(vekr.warp_affine(view, np.eye(4), out=out[:, :, :]),
                                  np.ascontiguousarray(view))
    np.testing.assert_array_equal(vekr.resize(view, 2), vekr.resize(view.copy(), 2))


# --- Remap ----------------------------------------------------------------------------------

# map_coordinates takes the same (z, y, x) positions with voxel centres at integers. Positions
# stay inside [0, n - 1], where neither side needs an edge rule; nearest positions avoid
# halves, where the library rounds to even and scipy does not.
@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interpolation, order", [("nearest", 0), ("linear", 1)])
def test_remap_matches_map_coordinates(rng, threads, dtype, interpolation, order):
    volume = random_volume(rng, (18, 17, 20), dtype)
    limits = np.array(volume.shape, np.float32).reshape(3, 1, 1, 1) - 1
    coordinates = (rng.random((3, 16, 17, 18), dtype=np.float32) * limits).astype(np.float32)
    if order == 0:
        frac = coordinates - np.floor(coordinates)
        coordinates[np.abs(frac - 0.5) < 1e-3] += 0.01
    result = vekr.remap(volume, coordinates, interpolation)
    reference = ndi.map_coordinates(volume.astype(np.float64), coordinates.astype(np.float64),
                                    order=order)
    assert_matches_float_reference(result, reference)


def test_outside_the_source_keeps_out_or_takes_cval(rng):
    volume = random_volume(rng, (4, 5, 6), np.float32)
    coordinates = np.full((3, 2, 2, 2), -1.0, np.float32)
    coordinates[:, 0, 0, 0] = (1, 2, 3)
    out = np.full((2, 2, 2), 7.0, np.float32)
    assert vekr.remap(volume, coordinates, "nearest", out=out) is out
    assert out[0, 0, 0] == volume[1, 2, 3] and (out.ravel()[1:] == 7).all()
    assert (vekr.remap(volume, coordinates).ravel()[1:] == 0).all()
    assert (vekr.remap(volume, coordinates, cval_keep=False, cval=-2).ravel()[1:] == -2).all()
    moved = np.eye(4)
    moved[:3, 3] = (0, 0, 100)                  # every destination voxel maps outside
    out = np.full(volume.shape, 7.0, np.float32)
    assert vekr.warp_affine(volume, moved, out=out) is out and (out == 7).all()
    vekr.warp_affine(volume, moved, out=out, cval_keep=False, cval=-3)
    assert (out == -3).all()


# --- Affine warp ----------------------------------------------------------------------------

def rotation_about_centre(shape, degrees):
    """Forward (z, y, x) matrix of a rotation in the y-x plane about the volume's centre."""
    a = np.radians(degrees)
    m = np.eye(4)
    m[1:3, 1:3] = [[np.cos(a), -np.sin(a)], [np.sin(a), np.cos(a)]]
    centre = (np.array(shape) - 1) / 2
    m[:3, 3] = centre - m[:3, :3] @ centre
    return m


# scipy's affine_transform takes the inverse matrix (output to input) in the same (z, y, x)
# index coordinates. Compared where the source position lies at least one voxel inside the
# source, away from both libraries' edge rules.
@pytest.mark.parametrize("dtype", DTYPES)
def test_warp_matches_affine_transform_inside(rng, threads, dtype):
    volume = random_volume(rng, (16, 20, 24), dtype)
    forward = rotation_about_centre(volume.shape, 25)
    forward[0, 3] += 0.3
    result = vekr.warp_affine(volume, forward, output_shape=(16, 18, 22))
    inverse = np.linalg.inv(forward)
    reference = ndi.affine_transform(volume.astype(np.float64), inverse, output_shape=(16, 18, 22),
                                     order=1)
    source = np.tensordot(inverse[:3, :3], np.indices(result.shape), 1) + inverse[:3, 3, None, None, None]
    inside = np.all((source >= 1) & (source <= np.array(volume.shape)[:, None, None, None] - 2), 0)
    assert inside.sum() > result.size // 3
    assert_matches_float_reference(result[inside], reference[inside])


@pytest.mark.parametrize("dtype", DTYPES)
def test_warp_equals_the_direct_call_with_the_matrix_in_x_y_z_order(rng, dtype):
    volume = random_volume(rng, (7, 8, 9), dtype)
    forward = rotation_about_centre(volume.shape, 40)
    forward[:3, :3] *= (1.2, 0.9, 1.1)
    result = vekr.warp_affine(volume, forward[:3], interpolation="catmull-rom",
                              out=np.zeros_like(volume))
    coeffs = np.empty((3, 4))
    coeffs[:, :3] = np.flip(forward[:3, :3])  # row and column (z, y, x) -> (x, y, z)
    coeffs[:, 3] = forward[2::-1, 3]
    direct = np.zeros_like(volume)
    _vekr.warp_affine_c1pv(volume, (0, 0, 0, 9, 8, 7), direct, (0, 0, 0, 9, 8, 7), coeffs.ravel(),
                           6)
    np.testing.assert_array_equal(result, direct)


# --- Filter ---------------------------------------------------------------------------------

def filter_reference(volume, kernel, anchor, divisor, mode, cval=0):
    """The filter's definition in int64: a sum over kernel elements of shifted volumes."""
    kd, kh, kw = kernel.shape
    az, ay, az_x = anchor
    anchor = np.array(anchor)
    before = np.maximum(np.array(kernel.shape) - 1 - anchor, 0)
    after = np.maximum(anchor, 0)
    pad = list(zip(before, after))
    src = (np.pad(volume, pad, mode="edge") if mode == "nearest"
           else np.pad(volume, pad, constant_values=cval)).astype(np.int64)
    total = np.zeros(volume.shape, np.int64)
    for k, j, i in np.ndindex(kernel.shape):
        z, y, x = before + anchor - (k, j, i)
        total += kernel[k, j, i] * src[z:z + volume.shape[0], y:y + volume.shape[1],
                                       x:x + volume.shape[2]]
    quotient = np.abs(total) * 2 + abs(divisor)  # round half away from zero: (2|S| + |d|) // 2|d|
    rounded = np.sign(total) * np.sign(divisor) * (quotient // (2 * abs(divisor)))
    return np.clip(rounded, -32768, 32767).astype(np.int16)


@pytest.mark.parametrize("shape, anchor, divisor, mode", [
    ((3, 3, 3), None, 27, "nearest"),
    ((1, 3, 5), None, -7, "constant"),
    ((2, 4, 3), (0, 3, 1), 5, "nearest"),
    ((3, 2, 2), (4, -1, 1), 1, "constant"),
])
def test_filter_matches_its_definition(rng, threads, shape, anchor, divisor, mode):
    volume = rng.integers(-32768, 32767, (17, 18, 19), dtype=np.int16, endpoint=True)
    kernel = rng.integers(-40, 40, shape, dtype=np.int32)
    result = vekr.filter(volume, kernel, anchor, divisor, mode=mode, cval=-5)
    default = tuple(n // 2 for n in shape)
    expected = filter_reference(volume, kernel, anchor or default, divisor, mode, cval=-5)
    np.testing.assert_array_equal(result, expected)


# For odd kernels with the centre as anchor, the definition is scipy's convolve (same origin
# convention, same edge modes) before the division.
def test_filter_matches_scipy_convolve_and_valid_crops_it(rng):
    volume = rng.integers(-3000, 3000, (12, 13, 14), dtype=np.int16)
    kernel = rng.integers(-9, 9, (3, 5, 3), dtype=np.int64)
    sums = ndi.convolve(volume.astype(np.int64), kernel, mode="nearest")
    expected = np.clip(np.sign(sums) * ((np.abs(sums) * 2 + 3) // 6), -32768, 32767)
    np.testing.assert_array_equal(vekr.filter(volume, kernel, divisor=3), expected)
    np.testing.assert_array_equal(vekr.filter(volume, kernel, divisor=3, mode="valid"),
                                  expected[1:-1, 2:-2, 1:-1])


# --- Argument checks ------------------------------------------------------------------------

V = np.zeros((4, 5, 6), np.float32)
V16 = np.zeros((4, 5, 6), np.int16)
K = np.ones((3, 3, 3), np.int32)
COORDS = np.zeros((3, 2, 2, 2), np.float32)
READ_ONLY = np.zeros((8, 10, 12), np.float32)
READ_ONLY.flags.writeable = False

BAD_CALLS = {
    "volume list": (lambda: vekr.resize(V.tolist(), 2), TypeError, "volume must be a numpy array"),
    "volume dtype": (lambda: vekr.resize(V.astype(np.float64), 2), TypeError,
                     "volume must have dtype uint8 or uint16 or float32, not float64"),
    "volume 2-D": (lambda: vekr.resize(V[0], 2), ValueError, "volume must be 3-D"),
    "volume empty": (lambda: vekr.resize(V[:0], 2), ValueError, "volume must not be empty"),
    "volume strided": (lambda: vekr.resize(V[:, :, ::2], 2), ValueError, "contiguous rows"),
    "factors zero": (lambda: vekr.resize(V, (1, 0, 1)), ValueError, "factors must be positive"),
    "factors text": (lambda: vekr.resize(V, "2"), TypeError, "factors must be a number"),
    "factors two": (lambda: vekr.resize(V, (1, 2)), TypeError, "three numbers (z, y, x)"),
    "shift nan": (lambda: vekr.resize(V, 2, (0, np.nan, 0)), ValueError, "shift must be finite"),
    "interpolation": (lambda: vekr.resize(V, 2, interpolation="quadratic"), ValueError,
                      "interpolation must be one of"),
    "out shape": (lambda: vekr.resize(V, 2, out=np.zeros((8, 10, 11), np.float32)), ValueError,
                  "out must have shape (8, 10, 12)"),
    "out dtype": (lambda: vekr.resize(V, 2, out=np.zeros((8, 10, 12), np.uint8)), TypeError,
                  "out must have dtype float32"),
    "out read-only": (lambda: vekr.resize(V, 2, out=READ_ONLY), ValueError,
                      "out must be writeable"),
    "matrix shape": (lambda: vekr.warp_affine(V, np.eye(3)), ValueError,
                     "matrix must have shape (3, 4) or (4, 4)"),
    "matrix last row": (lambda: vekr.warp_affine(V, 2 * np.eye(4)), ValueError,
                        "last row of a (4, 4) matrix"),
    "matrix singular": (lambda: vekr.warp_affine(V, np.zeros((3, 4))), vekr.VekrError,
                        "StatusBadCoefficients"),
    "output_shape": (lambda: vekr.warp_affine(V, np.eye(4), (4, 5)), ValueError,
                     "output_shape must have three extents"),
    "coordinates dtype": (lambda: vekr.remap(V, COORDS.astype(np.float64)), TypeError,
                          "coordinates must have dtype float32"),
    "coordinates shape": (lambda: vekr.remap(V, COORDS[:2]), ValueError,
                          "coordinates must have shape (3, depth, height, width)"),
    "filter volume dtype": (lambda: vekr.filter(V, K), TypeError, "volume must have dtype int16"),
    "kernel float": (lambda: vekr.filter(V16, K.astype(float)), TypeError,
                     "kernel must hold integers"),
    "kernel 2-D": (lambda: vekr.filter(V16, K[0]), ValueError, "kernel must be 3-D"),
    "kernel too wide": (lambda: vekr.filter(V16, K * 2**31), ValueError, "fit 32 bits"),
    "divisor zero": (lambda: vekr.filter(V16, K, divisor=0), ValueError, "divisor must be a nonzero"),
    "filter mode": (lambda: vekr.filter(V16, K, mode="reflect"), ValueError, "mode must be one of"),
    "valid anchor": (lambda: vekr.filter(V16, K, (3, 1, 1), mode="valid"), ValueError,
                     "anchor inside the kernel"),
    "threads zero": (lambda: vekr.set_num_threads(0), ValueError, "threads must be at least 1"),
    "threads float": (lambda: vekr.set_num_threads(1.5), TypeError, "threads must be an integer"),
    # The lowest layer checks what the library would otherwise read or write out of bounds.
    "dst_voi outside": (lambda: _vekr.resize_c1v(V, (0, 0, 0, 6, 5, 4), V.copy(),
                                                 (1, 0, 0, 6, 5, 4), (1, 1, 1), (0, 0, 0), 2),
                        ValueError, "dst_voi reaches beyond"),
    "buffer small": (lambda: _vekr.resize_c1v(V, (0, 0, 0, 6, 5, 4), V.copy(), (0, 0, 0, 6, 5, 4),
                                              (1, 1, 1), (0, 0, 0), 2, np.zeros(8, np.uint8)),
                     ValueError, "buffer holds 8 elements"),
    "dst dtype": (lambda: _vekr.remap_c1pv(V, (0, 0, 0, 6, 5, 4), *COORDS, V16, 1), TypeError,
                  "dst must have dtype float32"),
    "maps row step": (lambda: _vekr.remap_c1pv(V, (0, 0, 0, 6, 5, 4), V, V[:, :, :3], V, V, 1),
                      ValueError, "one shape and row stride"),
    "filter reads outside": (lambda: _vekr.filter_16s_c1pv(V16, (0, 0, 0), V16.copy(), (6, 5, 4),
                                                           K, (1, 1, 1), 1),
                             ValueError, "outside src"),
    "bad status": (lambda: _vekr.resize_c1v(V, (0, 0, 0, 6, 5, 4), V.copy(), (0, 0, 0, 6, 5, 4),
                                            (-1, 1, 1), (0, 0, 0), 2), vekr.VekrError,
                   "vekrResize_32f_C1V: StatusBadScale (-23)"),
}

test_bad_arguments_raise_naming_them = bad_argument_test(BAD_CALLS)


def test_copy_converts_what_is_otherwise_rejected(rng):
    volume = rng.random((5, 6, 7))
    result = vekr.resize(volume[:, :, ::-1], 2, copy=True)
    np.testing.assert_array_equal(result, vekr.resize(volume[:, :, ::-1].astype(np.float32), 2))
    assert vekr.remap(volume, np.zeros((3, 1, 1, 1)), copy=True).dtype == np.float32
