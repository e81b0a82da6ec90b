"""vekr from Python: volume resampling, ray queries on triangle meshes and spherical
harmonics on numpy arrays, through the vekr C library.

The functions release the GIL while the library works and use the library's thread count
(:func:`set_num_threads`). Errors the library reports raise :class:`VekrError` (with the
status name, e.g. ``StatusBadCoefficients``); warnings it reports are issued as
:class:`VekrWarning`. Arguments the library could not take raise TypeError or ValueError
naming the argument before anything is called.

Examples
--------
>>> import numpy as np, vekr
>>> volume = np.random.default_rng(1).random((64, 64, 64), dtype=np.float32)
>>> vekr.resize(volume, (2, 2, 2), interpolation="catmull-rom").shape
(128, 128, 128)
"""

from . import _vekr
from ._vekr import VekrError, VekrWarning
from .rays import TREE_METHODS, Hits, Scene
from .sh import MAX_ORDER, SH_METHODS, sh_basis, sh_project, sh_reconstruct
from .volume import filter, remap, resize, resize_shape, warp_affine
from ._args import INTERPOLATIONS

__all__ = [
    "VekrError", "VekrWarning", "get_num_threads", "set_num_threads", "library_version",
    "resize", "resize_shape", "warp_affine", "remap", "filter", "INTERPOLATIONS",
    "Scene", "Hits", "TREE_METHODS",
    "sh_basis", "sh_project", "sh_reconstruct", "SH_METHODS", "MAX_ORDER",
]

__version__ = "{major}.{minor}.{update}".format(**_vekr.get_lib_version())


def get_num_threads():
    """The number of threads the library's parallel functions use."""
    return _vekr.get_num_threads()


def set_num_threads(threads):
    """Set the number of threads the library's parallel functions use (at least 1).

    Resize (float32), remap, warp, the filter, the KD-tree build and the ray queries of
    :class:`Scene` follow it; results do not depend on it.
    """
    import operator

    try:
        threads = operator.index(threads)
    except TypeError:
        raise TypeError(f"threads must be an integer, not {type(threads).__name__}") from None
    if threads < 1:
        raise ValueError(f"threads must be at least 1, not {threads}")
    _vekr.set_num_threads(threads)


def library_version():
    """The library's version record as a dict (major, minor, update, revision, name, ...)."""
    return _vekr.get_lib_version()
