"""The module as a whole: thread count, statuses turned into exceptions and warnings, the GIL
released inside every library call, and no reference or memory leaked over repeated calls."""
import gc
import sys
import threading
import time
import tracemalloc
import warnings

import numpy as np
import pytest

import vekr
from vekr import _vekr


def test_thread_count_round_trips_and_bad_counts_raise_the_status():
    saved = vekr.get_num_threads()
    try:
        vekr.set_num_threads(3)
        assert vekr.get_num_threads() == _vekr.get_num_threads() == 3
        with pytest.raises(vekr.VekrError) as caught:
            _vekr.set_num_threads(0)
        assert (caught.value.status, caught.value.status_name) == (-6, "StatusBadSize")
        assert vekr.get_num_threads() == 3
    finally:
        vekr.set_num_threads(saved)


def test_warning_status_follows_the_warning_filters():
    volume = np.zeros((2, 2, 2), np.float32)
    with pytest.warns(vekr.VekrWarning, match="vekrGetResizeCuboid: StatusWarnNoOperation"):
        assert vekr.resize(volume, 1e-6).size == 0  # resized to nothing
    with warnings.catch_warnings():
        warnings.simplefilter("error", vekr.VekrWarning)
        with pytest.raises(vekr.VekrWarning, match="vekrGetResizeCuboid: StatusWarnNoOperation"):
            vekr.resize(volume, 1e-6)
    assert _vekr.status_name(40) == "StatusWarnVoiOutsideSource"
    assert _vekr.status_name(-1234) == "Status-1234"


def test_version_matches_the_library():
    version = vekr.library_version()
    assert vekr.__version__ == f"{version['major']}.{version['minor']}.{version['update']}"


# Each low-level call below runs for some milliseconds. While a worker thread is inside it,
# the main thread, which gives up the GIL at every step (sleep(0)), must get to run: with an
# interval of 100 s between forced switches, a call that kept the GIL would let no step of the
# main thread fall between the worker's timestamps around the call.
rng = np.random.default_rng(3)
VOLUME = rng.random((96, 96, 96), dtype=np.float32)
VOLUME16 = (VOLUME * 1000).astype(np.int16)
KERNEL = np.ones((5, 5, 5), np.int32)
COORDS = np.ascontiguousarray(np.indices((64, 96, 96), dtype=np.float32) * 0.9)
_vertices = rng.random((3000, 3), dtype=np.float32)
SCENE = vekr.Scene(_vertices, np.arange(3000, dtype=np.int32).reshape(1000, 3))
DIRS = np.ascontiguousarray((rng.random((3, 200000), dtype=np.float32) - 0.5))
SH_DIRS = np.ascontiguousarray(rng.random((3, 100000), dtype=np.float32))
BOX = (0, 0, 0, 96, 96, 96)
LONG_CALLS = {
    "resize": lambda: _vekr.resize_c1v(VOLUME, BOX, np.empty((192, 192, 192), np.float32),
                                       (0, 0, 0, 192, 192, 192), (2, 2, 2), (0, 0, 0), 6),
    "remap": lambda: _vekr.remap_c1pv(VOLUME, BOX, COORDS[2], COORDS[1], COORDS[0],
                                      np.empty((64, 96, 96), np.float32), 6),
    "warp": lambda: _vekr.warp_affine_c1pv(VOLUME, BOX, np.empty_like(VOLUME), BOX,
                                           np.array([0.9, 0.1, 0, 1, -0.1, 0.9, 0, 2, 0, 0, 1, 0.]),
                                           6),
    "filter": lambda: _vekr.filter_16s_c1pv(VOLUME16, (2, 2, 2), np.empty_like(VOLUME16),
                                            (92, 92, 92), KERNEL, (2, 2, 2), 125),
    "intersect": lambda: _vekr.intersect_eye_so(np.array([0.5, 0.5, -2], np.float32), DIRS,
                                                np.full(200000, 1e30, np.float32),
                                                np.empty((2, 200000), np.float32),
                                                np.empty(200000, np.int32), SCENE._context,
                                                200000, 1),
    "sh": lambda: _vekr.sh_32f(*SH_DIRS, np.empty(100000 * 256, np.float32), 15,
                               vekr.sh._state(15, "recurrence")),
}


@pytest.mark.parametrize("name", LONG_CALLS)
def test_library_calls_release_the_gil(name):
    call, stamps, span = LONG_CALLS[name], [], []
    done = threading.Event()

    def worker():
        span.append(time.perf_counter())
        call()
        span.append(time.perf_counter())
        done.set()

    interval = sys.getswitchinterval()
    sys.setswitchinterval(100.0)
    try:
        thread = threading.Thread(target=worker)
        thread.start()
        while not done.is_set():
            stamps.append(time.perf_counter())
            time.sleep(0)
        thread.join()
    finally:
        sys.setswitchinterval(interval)
    assert any(span[0] < s < span[1] for s in stamps), f"{span[1] - span[0]:.4f} s"


SMALL = rng.random((6, 7, 8), dtype=np.float32)
SMALL16 = (SMALL * 100).astype(np.int16)
REPEATED = {
    "resize": lambda: vekr.resize(SMALL, 1.5, interpolation="cubic"),
    "warp": lambda: vekr.warp_affine(SMALL, np.eye(4)),
    "remap": lambda: vekr.remap(SMALL, COORDS[:, :4, :5, :6] * 0.1),
    "filter": lambda: vekr.filter(SMALL16, KERNEL[:3, :3, :3], divisor=27),
    "scene": lambda: vekr.Scene(_vertices[:30], np.arange(30, dtype=np.int32).reshape(10, 3)),
    "intersect": lambda: SCENE.intersect(np.zeros(3), DIRS.T[:100].copy()),
    "layers": lambda: SCENE.intersect_layers(np.zeros(3), DIRS.T[:100].copy(), 3),
    "occluded": lambda: SCENE.occluded(np.zeros(3), DIRS.T[:100].copy()),
    "sh": lambda: vekr.sh_reconstruct(vekr.sh_project(SH_DIRS.T[:50].copy(),
                                                      SH_DIRS[0, :50].copy(), 3), SH_DIRS.T[:9]),
    "error": lambda: pytest.raises(vekr.VekrError, vekr.warp_affine, SMALL, np.zeros((3, 4))),
}


@pytest.mark.parametrize("name", REPEATED)
def test_repeated_calls_leak_no_reference_or_memory(name):
    call = REPEATED[name]
    watched = [SMALL, SMALL16, COORDS, SCENE, DIRS, SH_DIRS, KERNEL]
    call()  # first-call caches (states, imports) before the baseline
    gc.collect()
    refs = [sys.getrefcount(a) for a in watched]
    blocks = _vekr.get_live_allocation_count()
    tracemalloc.start()
    before = tracemalloc.get_traced_memory()[0]
    for _ in range(300):
        call()
    gc.collect()
    grown = tracemalloc.get_traced_memory()[0] - before
    tracemalloc.stop()
    assert [sys.getrefcount(a) for a in watched] == refs
    assert _vekr.get_live_allocation_count() == blocks  # work buffers and trees released
    assert grown < 64 * 1024, grown
