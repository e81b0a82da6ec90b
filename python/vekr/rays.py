"""Ray queries on triangle meshes: nearest hits, successive hits and occlusion."""

import math
import time
from typing import NamedTuple

import numpy as np

from . import _args, _vekr

__all__ = ["Scene", "Hits", "TREE_METHODS"]

#: The KD-tree build methods of vekr.h by name.
TREE_METHODS = {
    "simple": _vekr.KD_TREE_BUILD_SIMPLE,
    "sah": _vekr.KD_TREE_BUILD_SAH,
    "sah-full": _vekr.KD_TREE_BUILD_SAH_FULL_DEPTH,
}

_FLOAT_MAX = float(np.finfo(np.float32).max)
_MAX_SPLITS = 50  # the most splits a build allows (in all, or on each path)


class Hits(NamedTuple):
    """The result of a ray query, one entry per ray.

    distance : float32 array
        The distance to the hit in units of the ray's direction length (the hit point is
        ``origin + distance * direction``), ``inf`` for a miss.
    uv : float32 array, last axis 2
        The barycentric weights of the hit triangle's first and second vertices (the third
        vertex weighs ``1 - u - v``); 0 for a miss.
    triangle : int32 array
        The index of the hit triangle, -1 for a miss.
    """

    distance: np.ndarray
    uv: np.ndarray
    triangle: np.ndarray


def _budget_mb(vertex_count, triangle_count):
    # The build refuses a budget below 12 bytes per vertex + 84 per triangle + 32 MiB; its
    # pools then grow in 16 MiB steps, up to about 300 bytes per triangle for a full-depth
    # tree. The budget is an unsigned 32-bit number of bytes, so 4095 MB at most.
    needed = math.ceil((12.0 * vertex_count + 84.0 * triangle_count + 33554676.0) / 2**20)
    if needed > 4095:
        raise ValueError("the mesh is too large for the surface-area-heuristic build; "
                         "use method='simple'")
    return min(4095, needed + 64 + math.ceil(384.0 * triangle_count / 2**20))


def _planes(rows, name):
    """(3, n) float32 planes of an array of shape (..., 3), in one copy."""
    n = rows.size // 3
    planes = np.empty((3, n), np.float32)
    planes.T[...] = rows.reshape(n, 3)
    return planes


class Scene:
    """A triangle mesh with a KD-tree, ready for ray queries.

    The mesh is stored translated so that its bounding box is centred on the origin, and rays
    are translated the same way before they are traced: single-precision ray-triangle tests
    lose bits with the magnitude of the coordinates, so a mesh far from the origin is traced
    as precisely as one around it. Results come back in the caller's coordinates (distances,
    weights and triangle indices do not depend on the translation).

    Parameters
    ----------
    vertices : ndarray, float32 or float64, shape (N, 3)
    triangles : ndarray of integers, shape (M, 3) or (M, 4)
        Vertex indices of each triangle (a fourth column is ignored). Every index must be
        below N.
    method : {'sah-full', 'sah', 'simple'}, optional
        The KD-tree build: the surface-area heuristic with up to 50 splits on each path
        (default), with at most 50 splits in all, or one leaf holding every triangle.
    ratio : float, optional
        The surface-area-heuristic builds' ratio, 0 to 1: higher values split where smaller
        gains are expected, giving larger trees. 0 (the default) built and traced fastest on
        the meshes measured.

    Examples
    --------
    >>> v = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], np.float32)
    >>> scene = vekr.Scene(v, np.array([[0, 1, 2]], np.int32))
    >>> hits = scene.intersect(np.array([0.2, 0.2, 1], np.float32),
    ...                        np.array([[0, 0, -1]], np.float32))
    >>> hits.triangle, hits.distance
    (array([0], dtype=int32), array([1.], dtype=float32))
    """

    def __init__(self, vertices, triangles, method="sah-full", ratio=0.0):
        vertices = _args.float_rows(vertices, "vertices")
        if vertices.ndim != 2 or len(vertices) == 0:
            raise ValueError(f"vertices must have shape (N, 3) with N >= 1, not {vertices.shape}")
        if not isinstance(triangles, np.ndarray):
            raise TypeError(f"triangles must be a numpy array, not {type(triangles).__name__}")
        if triangles.dtype.kind not in "iu":
            raise TypeError(f"triangles must hold integers, not {triangles.dtype}")
        if triangles.ndim != 2 or triangles.shape[1] not in (3, 4) or len(triangles) == 0:
            raise ValueError(f"triangles must have shape (M, 3) or (M, 4) with M >= 1, not "
                             f"{triangles.shape}")
        if len(vertices) >= 2**31 or len(triangles) >= 2**31:
            raise ValueError("more than 2^31 - 1 vertices or triangles")
        corners = triangles[:, :3]
        if corners.min() < 0 or corners.max() >= len(vertices):
            raise ValueError(f"triangles must index vertices 0 to {len(vertices) - 1}, found "
                             f"{corners.min()} to {corners.max()}")
        if method not in TREE_METHODS:
            raise ValueError(f"method must be one of {tuple(TREE_METHODS)}, not {method!r}")
        if not 0.0 <= ratio <= 1.0:
            raise ValueError(f"ratio must lie in 0 to 1, not {ratio!r}")
        if not np.all(np.isfinite(vertices)):
            raise ValueError("vertices must be finite")
        low = vertices.min(axis=0).astype(np.float64)
        high = vertices.max(axis=0).astype(np.float64)
        self._centre = 0.5 * (low + high)
        local = (vertices - self._centre).astype(np.float32)
        tris = np.zeros((len(triangles), 4), np.int32)
        tris[:, :3] = corners
        self._vertices, self._triangles = local, tris
        self._records = _vekr.triangle_accel_init(
            np.empty(len(tris) * _vekr.triangle_accel_get_size(), np.uint8), local, tris)
        self._box = np.empty(6, np.float32)
        _vekr.set_bound_box(local, self._box)
        self.method = method
        simple = method == "simple"
        started = time.perf_counter()
        tree = _vekr.kd_tree_build_alloc(
            local, tris, TREE_METHODS[method], 0 if simple else _MAX_SPLITS, float(ratio),
            0 if simple else _budget_mb(len(local), len(tris)), None if simple else self._box)
        self._build_time = time.perf_counter() - started
        self._tree = tree
        self._context = _vekr.IntersectContext(self._box, self._records, tree)

    @property
    def tree_size(self):
        """The KD-tree block's size in bytes."""
        return self._tree.size

    @property
    def build_time(self):
        """The seconds the KD-tree build took."""
        return self._build_time

    @property
    def triangle_count(self):
        return len(self._triangles)

    @property
    def bounds(self):
        """The scene box ((min x, y, z), (max x, y, z)) in the caller's coordinates, widened
        by 1e-4 of its largest coordinate about the centre."""
        box = self._box.astype(np.float64).reshape(2, 3) + self._centre
        return tuple(map(tuple, box))

    def _local_point(self, point, name):
        if not isinstance(point, np.ndarray):
            point = np.asarray(point, dtype=np.float64)
        if point.shape != (3,) or point.dtype.kind not in "fiu":
            raise ValueError(f"{name} must be three numbers (x, y, z), not of shape {point.shape}")
        return (point - self._centre).astype(np.float32)

    def _rays(self, directions):
        """The directions as planes, the block's width and height and the result shape."""
        directions = _args.float_rows(directions, "directions")
        shape = directions.shape[:-1]
        n = directions.size // 3
        if directions.ndim == 3:  # an image: rows of rays, traced in 4 x 4 tiles if they fit
            width, height = shape[1], shape[0]
        else:
            width, height = n, 1
        if n >= 2**31:
            raise ValueError("more than 2^31 - 1 rays")
        return _planes(directions, "directions"), width, height, shape

    @staticmethod
    def _max_distances(max_distance, shape, layers=1):
        dist = np.empty(layers * math.prod(shape), np.float32)
        limit = np.minimum(np.asarray(max_distance, np.float64), _FLOAT_MAX)
        if np.any(np.isnan(limit)) or np.any(limit < 0):
            raise ValueError("max_distance must not be negative or NaN")
        dist[:dist.size // layers] = np.broadcast_to(limit, shape).ravel()
        return dist

    def intersect(self, origins, directions, max_distance=np.inf):
        """The nearest hit along each ray.

        Parameters
        ----------
        origins : array_like, shape (3,) or the shape of directions
            One origin shared by all rays, or one per ray.
        directions : ndarray, float32 or float64, shape (N, 3) or (H, W, 3)
            The ray directions (need not be unit length). An (H, W, 3) image of rays sharing
            an origin is traced in 4 x 4 tiles when H and W are multiples of 4.
        max_distance : float or array, optional
            The farthest distance searched, in units of each direction's length.

        Returns
        -------
        Hits
            ``(distance, uv, triangle)`` of shapes directions.shape[:-1], with uv's last axis 2.
        """
        planes, width, height, shape = self._rays(directions)
        dist = self._max_distances(max_distance, shape)
        n = planes.shape[1]
        uv = np.zeros((2, n), np.float32)  # a miss keeps weights 0
        tri = np.empty(n, np.int32)
        threads = _vekr.get_num_threads()
        if isinstance(origins, np.ndarray) and origins.shape != (3,):
            if origins.shape != directions.shape:
                raise ValueError(f"origins must have shape (3,) or {directions.shape}, not "
                                 f"{origins.shape}")
            local = _args.float_rows(origins, "origins") - self._centre
            _vekr.intersect_mo(_planes(local, "origins"), planes, dist, uv, tri, self._context,
                               width, height, threads)
        else:
            _vekr.intersect_eye_so(self._local_point(origins, "origins"), planes, dist, uv, tri,
                                   self._context, width, height, threads)
        dist[tri < 0] = np.inf
        return Hits(dist.reshape(shape), uv.T.reshape(shape + (2,)), tri.reshape(shape))

    def intersect_layers(self, origin, directions, layers, max_distance=np.inf):
        """The first `layers` surfaces along each ray from a shared origin.

        Parameters
        ----------
        origin : array_like, shape (3,)
        directions : ndarray, float32 or float64, shape (N, 3) or (H, W, 3)
        layers : int
            Surfaces per ray, at least 1.
        max_distance : float or array, optional
            The farthest distance searched for the first surface.

        Returns
        -------
        Hits
            Arrays of shape (layers, *directions.shape[:-1]) (uv with a last axis 2): layer k
            holds each ray's k-th surface, triangle -1 and distance inf past its last.
        """
        layers = _args.integer(layers, "layers", 1)
        planes, width, height, shape = self._rays(directions)
        n = planes.shape[1]
        dist = self._max_distances(max_distance, shape, layers)
        uv = np.zeros((2, n * layers), np.float32)
        tri = np.empty(n * layers, np.int32)
        _vekr.intersect_multiple_so(self._local_point(origin, "origin"), planes, dist, uv, tri,
                                    width, height, layers, self._context,
                                    _vekr.get_num_threads())
        dist[tri < 0] = np.inf
        full = (layers,) + shape
        return Hits(dist.reshape(full), uv.T.reshape(full + (2,)), tri.reshape(full))

    def occluded(self, origin, targets):
        """Whether any triangle lies strictly between the origin and each target.

        Parameters
        ----------
        origin : array_like, shape (3,)
            The shared end, typically a light.
        targets : ndarray, float32 or float64, shape (N, 3) or (H, W, 3)
            The other ends; a triangle through either end does not count.

        Returns
        -------
        ndarray of bool, shape targets.shape[:-1]
        """
        targets = _args.float_rows(targets, "targets")
        o = self._local_point(origin, "origin")
        if not isinstance(origin, np.ndarray):
            origin = np.asarray(origin, np.float64)
        planes, width, height, shape = self._rays(targets - origin)
        n = planes.shape[1]
        mask = np.zeros(n, np.int32)
        tri = np.empty(n, np.int32)
        _vekr.intersect_any_so(o, planes, tri, mask, width, height, self._context,
                               _vekr.get_num_threads())
        return (mask < 0).reshape(shape)

    def __repr__(self):
        return (f"<vekr.Scene {self.triangle_count} triangles, {self.method} tree of "
                f"{self.tree_size} bytes>")
