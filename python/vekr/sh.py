"""Real spherical harmonics: basis values, projection and reconstruction.

Coefficients are ordered (l, m) = (0, 0), (1, -1), (1, 0), (1, 1), (2, -2), ...: order L has
(L + 1)^2 of them. The basis is the orthonormal real one with the Condon-Shortley phase.
"""

import math
import threading

import numpy as np

from . import _args, _vekr

__all__ = ["sh_basis", "sh_project", "sh_reconstruct", "SH_METHODS", "MAX_ORDER"]

#: Evaluation methods: the single-precision recurrence, or closed forms in double precision.
SH_METHODS = {"recurrence": _vekr.SH_METHOD_RECURRENCE, "direct": _vekr.SH_METHOD_DIRECT}
MAX_ORDER = 15

_states = {}
_states_lock = threading.Lock()


def _state(order, method):
    """The initialised state of an order and method, made once (it is read-only afterwards)."""
    key = (order, method)
    state = _states.get(key)
    if state is None:
        code = SH_METHODS[method]
        state = np.zeros(_vekr.sh_get_size(order, code), np.uint8)
        _vekr.sh_init(state, order, code)
        with _states_lock:
            state = _states.setdefault(key, state)
    return state


def _directions(directions):
    d = _args.float_rows(directions, "directions")
    if d.ndim != 2:
        raise ValueError(f"directions must have shape (N, 3), not {d.shape}")
    if len(d) >= 2**31:
        raise ValueError("more than 2^31 - 1 directions")
    planes = np.empty((3, len(d)), np.float32)
    planes.T[...] = d
    return planes


def _order(order):
    return _args.integer(order, "order", 0, MAX_ORDER)


def sh_basis(directions, order, method="recurrence"):
    """The basis functions up to `order` at each direction.

    Parameters
    ----------
    directions : ndarray, float32 or float64, shape (N, 3)
        Unit vectors (x, y, z); they are not normalised (a longer vector scales the values).
    order : int
        The largest band L, 0 to 15.
    method : {'recurrence', 'direct'}, optional
        The single-precision recurrence, or closed-form polynomials evaluated in double
        precision (a few units in the last place closer).

    Returns
    -------
    ndarray, float32, shape (N, (order + 1)**2)

    Examples
    --------
    >>> vekr.sh_basis(np.array([[0, 0, 1]], np.float32), 1)   # Y00, Y1-1, Y10, Y11
    array([[ 0.2820948 , -0.        ,  0.48860252, -0.        ]], dtype=float32)
    """
    order = _order(order)
    if method not in SH_METHODS:
        raise ValueError(f"method must be one of {tuple(SH_METHODS)}, not {method!r}")
    x, y, z = _directions(directions)
    out = np.empty((len(x), (order + 1) ** 2), np.float32)
    if len(x):
        _vekr.sh_32f(x, y, z, out, order, _state(order, method))
    return out


def sh_project(directions, values, order):
    """The sum of each sample's value times the basis at its direction.

    This is the unweighted sum ``sum_i values[i] * Y(directions[i])``: multiply by the solid
    angle each sample stands for (``4 * pi / N`` for directions uniform over the sphere) to
    estimate the coefficients of the function.

    Parameters
    ----------
    directions : ndarray, float32 or float64, shape (N, 3)
        Unit vectors.
    values : ndarray, float32, shape (N,) or (N, 3)
        One or three channels per sample (C-contiguous).
    order : int
        The largest band, 0 to 15.

    Returns
    -------
    ndarray, float32, shape ((order + 1)**2,) or ((order + 1)**2, 3)
    """
    order = _order(order)
    x, y, z = _directions(directions)
    values = _args.float32_array(values, "values", False)
    if values.shape not in ((len(x),), (len(x), 3)):
        raise ValueError(f"values must have shape ({len(x)},) or ({len(x)}, 3), not "
                         f"{values.shape}")
    count = (order + 1) ** 2
    state = _state(order, "recurrence")
    if values.ndim == 1:
        coeffs = np.zeros(count, np.float32)
        if len(x):
            _vekr.sht_fwd_32f_c1i(x, y, z, values, coeffs, order, state)
        return coeffs
    coeffs = np.zeros((3, count), np.float32)
    if len(x):
        _vekr.sht_fwd_32f_c3p3i(x, y, z, values, coeffs, order, state)
    return coeffs.T


def sh_reconstruct(coefficients, directions):
    """The expansion with the given coefficients at each direction.

    Parameters
    ----------
    coefficients : ndarray, float32, shape (K,) or (K, 3)
        K = (L + 1)**2 coefficients of order L <= 15, one or three channels.
    directions : ndarray, float32 or float64, shape (N, 3)

    Returns
    -------
    ndarray, float32, shape (N,) or (N, 3)
    """
    if not isinstance(coefficients, np.ndarray):
        raise TypeError(f"coefficients must be a numpy array, not {type(coefficients).__name__}")
    if coefficients.dtype != np.float32:
        raise TypeError(f"coefficients must have dtype float32, not {coefficients.dtype}")
    if coefficients.ndim not in (1, 2) or (coefficients.ndim == 2
                                           and coefficients.shape[1] != 3):
        raise ValueError(f"coefficients must have shape (K,) or (K, 3), not {coefficients.shape}")
    count = coefficients.shape[0]
    order = math.isqrt(count) - 1
    if (order + 1) ** 2 != count or not 0 <= order <= MAX_ORDER:
        raise ValueError(f"coefficients must number (L + 1)**2 for an order L of 0 to 15, "
                         f"not {count}")
    x, y, z = _directions(directions)
    state = _state(order, "recurrence")
    if coefficients.ndim == 1:
        out = np.empty(len(x), np.float32)
        if len(x):
            _vekr.sht_inv_32f_c1(np.ascontiguousarray(coefficients), order, x, y, z, out, state)
        return out
    out = np.empty((len(x), 3), np.float32)
    if len(x):
        _vekr.sht_inv_32f_p3c3(np.ascontiguousarray(coefficients.T), order, x, y, z, out, state)
    return out
