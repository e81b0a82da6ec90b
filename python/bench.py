"""Time vekr's volume functions from Python beside scipy.ndimage on the same arrays.

    PYTHONPATH=build/release/python python3 python/bench.py --size 128
    PYTHONPATH=build/release/python python3 python/bench.py --size 256 \
        --c-bench build/release/bench/volume_bench

For 1 and 2 library threads it times, on a float32 cube of --size voxels a side with linear
interpolation: a resize by 2 (scipy.ndimage.zoom, order 1, grid_mode=True), a rotation by 30
degrees about the centre (affine_transform, order 1) and a swirl sampling a cube of half the
size (map_coordinates, order 1), and prints each time and scipy's time over vekr's. With
--c-bench it also runs the C benchmark's resize (128^3 to 256^3) and warp (30 degrees on 256^3)
and compares its voxels/s with the same calls from Python into a preallocated output, as the C
benchmark writes. Last, the time the Python layer adds to a call on a tiny volume.
"""
import argparse
import json
import os
import subprocess
import sys
import time

# This file sits beside the package's sources, which lack the compiled module: import the
# built package (PYTHONPATH, or an installed one) rather than the directory of this script.
sys.path = [p for p in sys.path if os.path.abspath(p or ".") != os.path.dirname(os.path.abspath(__file__))]

import numpy as np
import scipy.ndimage as ndi

import vekr
from vekr import _vekr


def best_time(call, repeat):
    """The fastest of `repeat` runs after one warm-up, in seconds."""
    call()
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        call()
        times.append(time.perf_counter() - start)
    return min(times)


def rotation(shape, degrees):
    a = np.radians(degrees)
    m = np.eye(4)
    m[1:3, 1:3] = [[np.cos(a), -np.sin(a)], [np.sin(a), np.cos(a)]]
    centre = (np.array(shape) - 1) / 2
    m[:3, 3] = centre - m[:3, :3] @ centre
    return m


def swirl(n):
    """(z, y, x) positions of an n/2 cube sampling the n cube, swirled about the z axis."""
    m = n // 2
    k, j, i = np.indices((m, m, m), dtype=np.float64)
    scale, centre = n / m, (n - 1) / 2
    u, v = (i + 0.5) * scale - 0.5 - centre, (j + 0.5) * scale - 0.5 - centre
    angle = 0.3 * np.exp(-(u * u + v * v) / (2 * (0.25 * n) ** 2))
    x = centre + u * np.cos(angle) - v * np.sin(angle)
    y = centre + u * np.sin(angle) + v * np.cos(angle)
    z = (k + 0.5) * scale - 0.5
    return np.stack([z, y, x]).astype(np.float32)


def against_scipy(n, repeat):
    rng = np.random.default_rng(1)
    volume = rng.random((n, n, n), dtype=np.float32)
    forward = rotation(volume.shape, 30)
    coordinates = swirl(n)
    cases = [
        ("resize x2 / zoom", lambda: vekr.resize(volume, 2.0),
         lambda: ndi.zoom(volume, 2.0, order=1, grid_mode=True, mode="nearest")),
        ("warp 30 deg / affine_transform", lambda: vekr.warp_affine(volume, forward),
         lambda: ndi.affine_transform(volume, np.linalg.inv(forward), order=1)),
        ("remap swirl / map_coordinates", lambda: vekr.remap(volume, coordinates),
         lambda: ndi.map_coordinates(volume, coordinates, order=1)),
    ]
    print(f"float32 {n}^3, linear, best of {repeat}:")
    print(f"  {'case':34} {'scipy ms':>9} {'vekr 1t ms':>11} {'ratio':>7} "
          f"{'vekr 2t ms':>11} {'ratio':>7}")
    saved = vekr.get_num_threads()
    for name, ours, theirs in cases:
        scipy_s = best_time(theirs, max(1, repeat // 3))
        row = f"  {name:34} {scipy_s * 1e3:9.1f}"
        for threads in (1, 2):
            vekr.set_num_threads(threads)
            ours_s = best_time(ours, repeat)
            row += f" {ours_s * 1e3:11.1f} {scipy_s / ours_s:7.1f}"
        print(row)
    vekr.set_num_threads(saved)


def c_benchmark(path, name_filter):
    """voxels/s of the C benchmark cases matching the filter, by name."""
    out = subprocess.run([path, f"--benchmark_filter={name_filter}", "--benchmark_format=json",
                          "--benchmark_repetitions=3", "--benchmark_report_aggregates_only=true"],
                         check=True, capture_output=True, text=True).stdout
    return {b["run_name"]: b["voxels/s"] for b in json.loads(out)["benchmarks"]
            if b.get("aggregate_name") == "median"}


def against_c(path, repeat):
    """The C benchmark's resize and warp cases, and the same calls from Python."""
    measured = c_benchmark(path, r"BM_(Resize32fV/(2|6)/[12]/16777216|WarpAffine32f/(2|6)/[12]/"
                                 r"16777216)/real_time")
    rng = np.random.default_rng(1)
    small = rng.integers(0, 256, (128, 128, 128)).astype(np.float32)
    large = rng.integers(0, 256, (256, 256, 256)).astype(np.float32)
    out = np.zeros((256, 256, 256), np.float32)  # touched once, as the C benchmark's
    forward = rotation(large.shape, 30)
    names = {2: "linear", 6: "catmull-rom"}
    print("\nfrom Python into a preallocated 256^3 output against the C benchmark (voxels/s):")
    saved = vekr.get_num_threads()
    for label, c_name, call in [
        ("resize 128^3 -> 256^3", "BM_Resize32fV/{k}/{t}/16777216/real_time",
         lambda k: vekr.resize(small, 2.0, interpolation=names[k], out=out)),
        ("warp 30 deg 256^3", "BM_WarpAffine32f/{k}/{t}/16777216/real_time",
         lambda k: vekr.warp_affine(large, forward, interpolation=names[k], out=out)),
    ]:
        for kind in (2, 6):
            for threads in (1, 2):
                c_rate = measured.get(c_name.format(k=kind, t=threads))
                if c_rate is None:
                    continue
                vekr.set_num_threads(threads)
                python_rate = out.size / best_time(lambda: call(kind), repeat)
                print(f"  {label:22} {names[kind]:12} {threads}t  C {c_rate / 1e6:8.1f} M  "
                      f"Python {python_rate / 1e6:8.1f} M  ratio {python_rate / c_rate:5.3f}")
    vekr.set_num_threads(saved)


def overhead(repeat=20000):
    """Microseconds the Python layer adds to a call on a 2^3 volume, over the direct binding,
    and the direct binding's own time (binding plus the library's work)."""
    volume = np.ones((2, 2, 2), np.float32)
    out = np.empty((2, 2, 2), np.float32)
    buffer = np.empty(_vekr.resize_get_buf_size((0, 0, 0, 2, 2, 2), (0, 0, 0, 2, 2, 2), 1, 2),
                      np.uint8)
    identity = np.eye(4)
    coeffs = np.eye(3, 4).ravel().tolist()

    def per_call(call):
        start = time.perf_counter()
        for _ in range(repeat):
            call()
        return (time.perf_counter() - start) / repeat * 1e6

    box = (0, 0, 0, 2, 2, 2)
    public = per_call(lambda: vekr.resize(volume, 1.0, out=out))
    direct = per_call(lambda: _vekr.resize_c1v(volume, box, out, box, (1.0, 1.0, 1.0),
                                               (0.0, 0.0, 0.0), 2, buffer))
    warp_public = per_call(lambda: vekr.warp_affine(volume, identity, out=out))
    warp_direct = per_call(lambda: _vekr.warp_affine_c1pv(volume, box, out, box, coeffs, 2))
    noop = per_call(_vekr.get_num_threads)
    print(f"\nper call on 2^3 voxels (us): resize {public:.2f} public, {direct:.2f} direct "
          f"binding (Python layer adds {public - direct:.2f}); warp {warp_public:.2f} public, "
          f"{warp_direct:.2f} direct (adds {warp_public - warp_direct:.2f}); an empty binding "
          f"call {noop:.2f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=int, default=128, help="cube extent (default 128)")
    parser.add_argument("--repeat", type=int, default=5, help="runs per case, best taken")
    parser.add_argument("--c-bench", help="the volume_bench program, to compare with")
    args = parser.parse_args()
    against_scipy(args.size, args.repeat)
    if args.c_bench:
        against_c(args.c_bench, args.repeat)
    overhead()


if __name__ == "__main__":
    main()
