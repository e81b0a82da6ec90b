"""Ray queries from Python against a float64 brute force over all triangles, on small random
meshes placed far from the origin (the scene is traced translated, results come back in the
caller's coordinates)."""
import numpy as np
import pytest

import vekr
from vekr import _vekr
from conftest import bad_argument_test

OFFSET = np.array([1000.0, -500.0, 250.0])
EDGE = 1e-3  # rays this close (in barycentric weight) to a triangle's edge are not compared


def soup(rng, count=40):
    """Random triangles in the cube [-1, 1]^3 moved by OFFSET, as float32 vertices."""
    centres = rng.uniform(-1, 1, (count, 1, 3))
    vertices = (centres + rng.uniform(-0.4, 0.4, (count, 3, 3))).reshape(-1, 3) + OFFSET
    return vertices.astype(np.float32), np.arange(3 * count, dtype=np.int32).reshape(count, 3)


def brute_force(vertices, triangles, origins, directions):
    """Every ray against every triangle in float64 (Moller and Trumbore 1997): t, the weights of
    the first two vertices, and whether the ray meets the triangle's inside at t > 0. Also
    whether some triangle passes within EDGE of the ray, where float32 may decide either way."""
    v = vertices.astype(np.float64)[triangles]
    v0, e1, e2 = v[:, 0], v[:, 1] - v[:, 0], v[:, 2] - v[:, 0]
    o = np.broadcast_to(origins, directions.shape).reshape(-1, 1, 3).astype(np.float64)
    d = directions.reshape(-1, 1, 3).astype(np.float64)
    p = np.cross(d, e2)
    det = np.einsum("rtk,tk->rt", p, e1)
    s = o - v0
    u = np.einsum("rtk,rtk->rt", s, p) / det
    q = np.cross(s, e1)
    w = np.einsum("rtk,rtk->rt", d, q) / det
    t = np.einsum("tk,rtk->rt", e2, q) / det
    margin = np.minimum(np.minimum(u, w), 1 - u - w)
    hit = (margin > 0) & (t > 0)
    close = np.any((np.abs(margin) < EDGE) & (t > 0), axis=1)
    return t, np.stack([1 - u - w, u], -1), hit, close


def check_nearest(hits, vertices, triangles, origins, directions):
    t, uv, hit, close = brute_force(vertices, triangles, origins, directions)
    t = np.where(hit, t, np.inf)
    nearest = np.argmin(t, axis=1)
    rows = np.arange(len(t))
    best = t[rows, nearest]
    second = np.partition(t, 1, axis=1)[:, 1] if t.shape[1] > 1 else np.full(len(t), np.inf)
    with np.errstate(invalid="ignore"):  # inf - inf for misses
        clear = ~close & (((second - best) > 1e-4 * best) | np.isinf(best))
    got_tri, got_t, got_uv = (a.reshape(len(t), *a.shape[directions.ndim - 1:]) for a in hits)
    assert clear.mean() > 0.8
    expected = np.where(np.isfinite(best), nearest, -1)
    np.testing.assert_array_equal(got_tri[clear], expected[clear])
    hit_rows = clear & np.isfinite(best)
    assert hit_rows.sum() > 20
    np.testing.assert_allclose(got_t[hit_rows], best[hit_rows], rtol=2e-4)
    np.testing.assert_allclose(got_uv[hit_rows], uv[rows, nearest][hit_rows], atol=2e-3)
    assert np.all(np.isinf(got_t[clear & ~np.isfinite(best)]))


def eye_rays(rng, shape):
    origin = (OFFSET + (0.3, -0.2, 6.0)).astype(np.float32)
    targets = OFFSET + rng.uniform(-1.3, 1.3, shape + (3,))
    return origin, (targets - origin).astype(np.float32)


@pytest.mark.parametrize("method", ["sah-full", "sah", "simple"])
@pytest.mark.parametrize("shape", [(300,), (16, 20)], ids=["list", "image"])
def test_nearest_hit_matches_brute_force(rng, method, shape):
    vertices, triangles = soup(rng)
    scene = vekr.Scene(vertices, triangles, method)
    origin, directions = eye_rays(rng, shape)
    hits = scene.intersect(origin, directions)
    assert hits.distance.shape == shape and hits.uv.shape == shape + (2,)
    check_nearest((hits.triangle, hits.distance, hits.uv), vertices, triangles, origin, directions)
    origins = (OFFSET + rng.uniform(-3, 3, shape + (3,))).astype(np.float32)
    directions = (OFFSET + rng.uniform(-1, 1, shape + (3,)) - origins).astype(np.float32)
    many = scene.intersect(origins, directions)
    check_nearest((many.triangle, many.distance, many.uv), vertices, triangles, origins, directions)


def test_max_distance_limits_the_search(rng):
    vertices, triangles = soup(rng)
    scene = vekr.Scene(vertices, triangles)
    origin, directions = eye_rays(rng, (200,))
    full = scene.intersect(origin, directions)
    limit = np.where(np.isfinite(full.distance), full.distance * 0.5, 1.0)
    assert (scene.intersect(origin, directions, limit).triangle == -1).all()


def test_layers_match_the_sorted_brute_force_hits(rng, threads):
    vertices, triangles = soup(rng)
    scene = vekr.Scene(vertices, triangles)
    origin, directions = eye_rays(rng, (64, 68))  # 4352 rays: two bands of 4 x 4 tiles
    layers = scene.intersect_layers(origin, directions, 4)
    assert layers.triangle.shape == (4, 64, 68) and layers.uv.shape == (4, 64, 68, 2)
    t, _, hit, close = brute_force(vertices, triangles, origin, directions)
    t = np.where(hit, t, np.inf)
    ranked = np.argsort(t, axis=1)[:, :4]
    t = np.sort(t, axis=1)[:, :5]
    with np.errstate(invalid="ignore"):
        gaps = np.diff(t, axis=1)
    clear = ~close & np.all((gaps > 1e-4 * t[:, :4]) | np.isinf(t[:, 1:]), axis=1)
    got = layers.triangle.reshape(4, -1).T
    expected = np.where(np.isfinite(t[:, :4]), ranked, -1)
    np.testing.assert_array_equal(got[clear], expected[clear])
    finite = np.isfinite(t[:, :4]) & clear[:, None]
    np.testing.assert_allclose(layers.distance.reshape(4, -1).T[finite], t[:, :4][finite],
                               rtol=1e-3)


def test_occlusion_matches_brute_force(rng, threads):
    vertices, triangles = soup(rng)
    scene = vekr.Scene(vertices, triangles)
    light = OFFSET + (0.5, 4.0, 0.5)
    targets = OFFSET + rng.uniform(-1.5, 1.5, (5000, 3))
    occluded = scene.occluded(light, targets)
    t, _, hit, close = brute_force(vertices, triangles, light, targets - light)
    between = hit & (t > 1e-4) & (t < 1 - 1e-4)
    ends = np.any(hit & ((np.abs(t) < 1e-3) | (np.abs(t - 1) < 1e-3)), axis=1)
    clear = ~close & ~ends
    np.testing.assert_array_equal(occluded[clear], np.any(between, axis=1)[clear])
    assert 0.1 < occluded.mean() < 0.9


def test_results_equal_the_direct_call_on_one_thread(rng, threads):
    vertices, triangles = soup(rng)
    scene = vekr.Scene(vertices, triangles)
    origin, directions = eye_rays(rng, (64, 72))
    local = (origin - scene._centre).astype(np.float32)
    planes = np.ascontiguousarray(directions.reshape(-1, 3).T)
    # Layers: threads trace bands into scratch layers, the direct call the whole block.
    for layers in (None, 3):
        size = planes.shape[1] * (layers or 1)
        dist = np.full(size, np.finfo(np.float32).max, np.float32)
        uv = np.zeros((2, size), np.float32)
        tri = np.empty(size, np.int32)
        if layers is None:
            hits = scene.intersect(origin, directions)
            _vekr.intersect_eye_so(local, planes, dist, uv, tri, scene._context, 72, 64)
        else:
            hits = scene.intersect_layers(origin, directions, layers)
            _vekr.intersect_multiple_so(local, planes, dist, uv, tri, 72, 64, layers,
                                        scene._context)
        dist[tri < 0] = np.inf
        np.testing.assert_array_equal(hits.triangle.ravel(), tri)
        np.testing.assert_array_equal(hits.distance.ravel(), dist)
        np.testing.assert_array_equal(hits.uv.reshape(-1, 2), uv.T)


def test_scene_reports_its_tree_and_bounds(rng):
    vertices, triangles = soup(rng)
    for method in vekr.TREE_METHODS:
        scene = vekr.Scene(vertices.astype(np.float64), np.c_[triangles, triangles[:, :1]], method)
        assert scene.tree_size > 0 and scene.build_time >= 0 and scene.triangle_count == 40
    low, high = np.array(scene.bounds)
    assert np.all(low <= vertices.min(0)) and np.all(high >= vertices.max(0))
    assert np.all(high - low < vertices.max(0) - vertices.min(0) + 1e-3)


VERTS = np.zeros((3, 3), np.float32)
VERTS[1, 0] = VERTS[2, 1] = 1
TRIS = np.array([[0, 1, 2]], np.int32)
SCENE = vekr.Scene(VERTS, TRIS)
DIRS = np.zeros((4, 3), np.float32)
O = np.zeros(3, np.float32)

BAD_CALLS = {
    "vertices int": (lambda: vekr.Scene(VERTS.astype(int), TRIS), TypeError,
                     "vertices must have dtype float32 or float64"),
    "vertices shape": (lambda: vekr.Scene(VERTS[:, :2], TRIS), ValueError,
                       "vertices must have shape (..., 3)"),
    "vertices nan": (lambda: vekr.Scene(VERTS * np.nan, TRIS), ValueError, "finite"),
    "triangles float": (lambda: vekr.Scene(VERTS, TRIS.astype(float)), TypeError,
                        "triangles must hold integers"),
    "triangles shape": (lambda: vekr.Scene(VERTS, TRIS[:, :2]), ValueError,
                        "triangles must have shape (M, 3) or (M, 4)"),
    "triangles index": (lambda: vekr.Scene(VERTS, TRIS + 1), ValueError,
                        "triangles must index vertices 0 to 2"),
    "method": (lambda: vekr.Scene(VERTS, TRIS, "bvh"), ValueError, "method must be one of"),
    "origin shape": (lambda: SCENE.intersect(np.zeros(2), DIRS), ValueError,
                     "origins must have shape (3,) or (4, 3)"),
    "directions list": (lambda: SCENE.intersect(O, DIRS.tolist()), TypeError,
                        "directions must be a numpy array"),
    "max_distance": (lambda: SCENE.intersect(O, DIRS, -1), ValueError, "max_distance"),
    "layers": (lambda: SCENE.intersect_layers(O, DIRS, 0), ValueError, "layers must be at least 1"),
    "targets shape": (lambda: SCENE.occluded(O, DIRS[:, :2]), ValueError, "targets must have shape"),
    "low-level indices": (lambda: _vekr.triangle_accel_init(np.empty(40, np.uint8), VERTS,
                                                            np.array([0, 1, 5, 0], np.int32)),
                          ValueError, "triangle 0 refers to vertex 5 of 3"),
    "low-level planes": (lambda: _vekr.intersect_eye_so(O, np.zeros((3, 3), np.float32),
                                                        np.zeros(4, np.float32),
                                                        np.zeros((2, 4), np.float32),
                                                        np.zeros(4, np.int32), SCENE._context, 4, 1),
                         ValueError, "direction holds 3 rays per plane, the block needs 4"),
}

test_bad_arguments_raise_naming_them = bad_argument_test(BAD_CALLS)
