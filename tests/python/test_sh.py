"""Spherical harmonics from Python: the basis against scipy's associated Legendre functions,
the transforms against the basis and a quadrature round trip, and every argument check."""
import math

import numpy as np
import pytest
from scipy.special import lpmv

import vekr
from vekr import _vekr
from conftest import bad_argument_test


def unit_directions(rng, n):
    d = rng.normal(size=(n, 3))
    return (d / np.linalg.norm(d, axis=1, keepdims=True)).astype(np.float32)


def real_basis(directions, order):
    """The orthonormal real basis in float64 from scipy's lpmv (which includes the
    Condon-Shortley phase): K P(l, |m|) (cos theta) times sqrt(2) cos(m phi) for m > 0,
    sqrt(2) sin(|m| phi) for m < 0, columns ordered (0, 0), (1, -1), (1, 0), (1, 1), ..."""
    d = directions.astype(np.float64)
    cos_theta, phi = d[:, 2], np.arctan2(d[:, 1], d[:, 0])
    columns = []
    for l in range(order + 1):
        for m in range(-l, l + 1):
            a = abs(m)
            k = math.sqrt((2 * l + 1) / (4 * math.pi) * math.factorial(l - a) / math.factorial(l + a))
            p = k * lpmv(a, l, cos_theta)
            columns.append(p if m == 0 else math.sqrt(2) * p * (np.cos(a * phi) if m > 0
                                                                 else np.sin(a * phi)))
    return np.stack(columns, axis=1)


@pytest.mark.parametrize("method", ["recurrence", "direct"])
@pytest.mark.parametrize("order", [0, 1, 4, 15])
def test_basis_matches_scipy_legendre(rng, method, order):
    directions = unit_directions(rng, 257)
    basis = vekr.sh_basis(directions, order, method)
    assert basis.shape == (257, (order + 1) ** 2) and basis.dtype == np.float32
    np.testing.assert_allclose(basis, real_basis(directions, order), rtol=0, atol=2e-5)
    state = np.zeros(_vekr.sh_get_size(order, vekr.SH_METHODS[method]), np.uint8)
    _vekr.sh_init(state, order, vekr.SH_METHODS[method])
    direct = np.empty_like(basis)
    _vekr.sh_32f(*np.ascontiguousarray(directions.T), direct, order, state)
    np.testing.assert_array_equal(basis, direct)


# Gauss-Legendre nodes in cos(theta) times 2L + 2 equally spaced phi integrate products of
# two functions of order L exactly: weighted samples of an expansion project back onto its
# coefficients.
def test_projection_of_weighted_samples_inverts_reconstruction(rng):
    order = 5
    nodes, weights = np.polynomial.legendre.leggauss(order + 1)
    phi = np.arange(2 * order + 2) * (2 * math.pi / (2 * order + 2))
    ct, ph = np.meshgrid(nodes, phi, indexing="ij")
    st = np.sqrt(1 - ct ** 2)
    directions = np.stack([st * np.cos(ph), st * np.sin(ph), ct], -1).reshape(-1, 3)
    w = (np.repeat(weights, len(phi)) * (2 * math.pi / len(phi))).astype(np.float32)
    coefficients = rng.normal(size=((order + 1) ** 2, 3)).astype(np.float32)
    values = vekr.sh_reconstruct(coefficients, directions)
    assert values.shape == (len(directions), 3)
    projected = vekr.sh_project(directions, np.ascontiguousarray(values * w[:, None]), order)
    np.testing.assert_allclose(projected, coefficients, atol=2e-5)


def test_transforms_agree_with_the_basis_one_and_three_channels(rng):
    directions = unit_directions(rng, 300)
    basis = vekr.sh_basis(directions, 3).astype(np.float64)
    values = rng.normal(size=(300, 3)).astype(np.float32)
    three = vekr.sh_project(directions, values, 3)
    np.testing.assert_allclose(three, basis.T @ values, rtol=1e-4, atol=1e-4)
    for c in range(3):
        one = vekr.sh_project(directions, np.ascontiguousarray(values[:, c]), 3)
        np.testing.assert_allclose(one, three[:, c], rtol=1e-6, atol=1e-6)
        back = vekr.sh_reconstruct(np.ascontiguousarray(three[:, c]), directions)
        np.testing.assert_allclose(back, basis @ three[:, c], rtol=1e-4, atol=1e-4)


D = np.array([[0, 0, 1.0]], np.float32)
BAD_CALLS = {
    "order high": (lambda: vekr.sh_basis(D, 16), ValueError, "order must be from 0 to 15"),
    "order float": (lambda: vekr.sh_basis(D, 1.5), TypeError, "order must be an integer"),
    "method": (lambda: vekr.sh_basis(D, 2, "fast"), ValueError, "method must be one of"),
    "directions shape": (lambda: vekr.sh_basis(D[:, :2], 2), ValueError, "directions must have shape"),
    "directions dtype": (lambda: vekr.sh_basis(D.astype(int), 2), TypeError,
                         "directions must have dtype float32 or float64"),
    "values dtype": (lambda: vekr.sh_project(D, np.ones(1), 2), TypeError,
                     "values must have dtype float32"),
    "values shape": (lambda: vekr.sh_project(D, np.ones(2, np.float32), 2), ValueError,
                     "values must have shape (1,) or (1, 3)"),
    "coefficients count": (lambda: vekr.sh_reconstruct(np.ones(5, np.float32), D), ValueError,
                           "coefficients must number (L + 1)**2"),
    "coefficients dtype": (lambda: vekr.sh_reconstruct(np.ones(4), D), TypeError,
                           "coefficients must have dtype float32"),
    "low-level state": (lambda: _vekr.sh_32f(*np.ones((3, 1), np.float32), np.empty(4, np.float32),
                                             1, np.full(64, 255, np.uint8)), ValueError,
                        "state was not set up by sh_init"),
    "low-level short state": (lambda: _vekr.sh_32f(*np.ones((3, 1), np.float32),
                                                   np.empty(4, np.float32), 1,
                                                   vekr.sh._state(15, "recurrence")[:256].copy()),
                              ValueError, "state was not set up by sh_init"),
    "low-level order": (lambda: _vekr.sh_32f(*np.ones((3, 1), np.float32), np.empty(4, np.float32),
                                             1, vekr.sh._state(0, "direct")), vekr.VekrError,
                        "vekrSH_32f: StatusOutOfRange"),
    "low-level size": (lambda: _vekr.sh_get_size(16, 0), vekr.VekrError, "StatusBadSize"),
}

test_bad_arguments_raise_naming_them = bad_argument_test(BAD_CALLS)
