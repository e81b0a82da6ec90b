"""Resize and rotate a volume with vekr and show the three mid-slices of each.

Makes a phantom (a shell around a textured inside with two dark holes and a bright core),
resizes it by (0.75, 1, 1.5) along (z, y, x), rotates it by 30 degrees about the z axis and
shows the xy, xz and yz mid-slices of the three volumes, with matplotlib when it is there,
else as one grey PNG montage.

    python3 volume_slices.py --size 96 --output slices.png
"""
import argparse
import time

import numpy as np

import vekr
from png_image import write_png


def phantom(n):
    z, y, x = np.indices((n, n, n), dtype=np.float32) / (n - 1) * 2 - 1
    r = np.sqrt(x**2 + (y * 1.2) ** 2 + (z * 1.1) ** 2)
    v = np.where(r < 0.9, 0.4 + 0.1 * np.sin(12 * x) * np.cos(9 * y), 0.0)
    v = np.where((r > 0.8) & (r < 0.9), 1.0, v)
    for cx in (-0.3, 0.3):
        v = np.where((x - cx) ** 2 + y**2 + z**2 < 0.04, 0.1, v)
    v = np.where(x**2 + (y + 0.4) ** 2 + z**2 < 0.02, 0.9, v)
    return v.astype(np.float32)


def rotation_z(shape, degrees):
    """Forward (z, y, x) matrix of a rotation in the y-x plane about the volume's centre."""
    a = np.radians(degrees)
    m = np.eye(4)
    m[1:3, 1:3] = [[np.cos(a), -np.sin(a)], [np.sin(a), np.cos(a)]]
    centre = (np.array(shape) - 1) / 2
    m[:3, 3] = centre - m[:3, :3] @ centre
    return m


def mid_slices(v):
    d, h, w = v.shape
    return v[d // 2], v[::-1, h // 2, :], v[::-1, :, w // 2]  # xy, then xz and yz with z up


def montage(volumes, gap=4):
    rows = []
    for v in volumes:
        slices = mid_slices(v)
        height = max(s.shape[0] for s in slices)
        padded = [np.pad(s, ((0, height - s.shape[0]), (0, gap))) for s in slices]
        rows.append(np.hstack(padded))
    width = max(r.shape[1] for r in rows)
    return np.vstack([np.pad(r, ((0, gap), (0, width - r.shape[1]))) for r in rows])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=int, default=96, help="phantom extent (default 96)")
    parser.add_argument("--output", default="volume_slices.png", help="the PNG to write")
    args = parser.parse_args()

    volume = phantom(args.size)
    start = time.perf_counter()
    resized = vekr.resize(volume, (0.75, 1.0, 1.5), interpolation="catmull-rom")
    resize_s = time.perf_counter() - start
    start = time.perf_counter()
    rotated = vekr.warp_affine(volume, rotation_z(volume.shape, 30), interpolation="linear")
    warp_s = time.perf_counter() - start
    print(f"phantom {volume.shape}; resized to {resized.shape} in {resize_s * 1e3:.1f} ms; "
          f"rotated in {warp_s * 1e3:.1f} ms on {vekr.get_num_threads()} threads")
    try:
        import matplotlib.pyplot as plt
    except ImportError:
        plt = None
    if plt is not None:
        fig, axes = plt.subplots(3, 3, figsize=(9, 9))
        for row, (name, v) in zip(axes, [("source", volume), ("resized", resized),
                                         ("rotated", rotated)]):
            for ax, s, plane in zip(row, mid_slices(v), ("xy", "xz", "yz")):
                ax.imshow(s, cmap="gray", vmin=0, vmax=1)
                ax.set_title(f"{name}, {plane}")
                ax.axis("off")
        fig.tight_layout()
        fig.savefig(args.output)
    else:
        image = montage([volume, resized, rotated])
        write_png(args.output, (np.clip(image, 0, 1) * 255).astype(np.uint8))
    print(f"wrote {args.output}")


if __name__ == "__main__":
    main()
