"""Render a mesh into a numpy image with vekr's ray queries.

Builds a torus over a ground plane with numpy, traces one eye ray per pixel from a shared
origin (an (H, W, 3) image of directions, traced in 4 x 4 tiles), lights the hits with one
point light, Lambert shading and hard shadows (an occlusion query from the light to each hit
point) and writes the image as a PNG.

    python3 render_mesh.py --width 320 --height 240 --output torus.png
"""
import argparse
import time

import numpy as np

import vekr
from png_image import write_png


def torus(major=1.0, minor=0.35, nu=48, nv=24):
    u, v = np.meshgrid(np.linspace(0, 2 * np.pi, nu, endpoint=False),
                       np.linspace(0, 2 * np.pi, nv, endpoint=False), indexing="ij")
    ring = major + minor * np.cos(v)
    points = np.stack([ring * np.cos(u), minor * np.sin(v) + minor + 0.05, ring * np.sin(u)], -1)
    i, j = np.meshgrid(np.arange(nu), np.arange(nv), indexing="ij")
    a, b = i * nv + j, ((i + 1) % nu) * nv + j
    c, d = ((i + 1) % nu) * nv + (j + 1) % nv, i * nv + (j + 1) % nv
    quads = np.stack([a, b, c, d], -1).reshape(-1, 4)
    return points.reshape(-1, 3), np.vstack([quads[:, [0, 2, 1]], quads[:, [0, 3, 2]]])


def scene_mesh():
    vertices, triangles = torus()
    ground = np.array([[-4, 0, -4], [4, 0, -4], [4, 0, 4], [-4, 0, 4]], float)
    quad = np.array([[0, 2, 1], [0, 3, 2]]) + len(vertices)
    return np.vstack([vertices, ground]).astype(np.float32), np.vstack([triangles, quad])


def camera_rays(eye, target, width, height, fov_degrees=40):
    forward = (target - eye) / np.linalg.norm(target - eye)
    right = np.cross(forward, (0, 1, 0))
    right /= np.linalg.norm(right)
    up = np.cross(right, forward)
    half = np.tan(np.radians(fov_degrees) / 2)
    sx = (np.arange(width) + 0.5) / height * 2 - width / height
    sy = 1 - (np.arange(height) + 0.5) / height * 2
    return (forward + half * (sx[None, :, None] * right + sy[:, None, None] * up)).astype(np.float32)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--width", type=int, default=320)
    parser.add_argument("--height", type=int, default=240)
    parser.add_argument("--output", default="render_mesh.png")
    args = parser.parse_args()

    vertices, triangles = scene_mesh()
    scene = vekr.Scene(vertices, triangles)
    eye, light = np.array([0.0, 2.2, 4.5]), np.array([-2.0, 5.0, 3.0])
    directions = camera_rays(eye, np.array([0.0, 0.3, 0.0]), args.width, args.height)
    start = time.perf_counter()
    hits = scene.intersect(eye, directions)
    hit = hits.triangle >= 0
    distance = np.where(hit, hits.distance, 0)[..., None]  # misses are inf
    points = eye + distance * directions
    # Points a hair towards the eye, so that the shadow ray does not end inside its surface.
    lift = eye + 0.999 * distance * directions
    shadowed = np.zeros(hit.shape, bool)
    shadowed[hit] = scene.occluded(light, lift[hit])
    seconds = time.perf_counter() - start

    v = vertices.astype(np.float64)[triangles]
    normals = np.cross(v[:, 1] - v[:, 0], v[:, 2] - v[:, 0])
    normals /= np.linalg.norm(normals, axis=1, keepdims=True)
    n = normals[np.where(hit, hits.triangle, 0)]
    n *= -np.sign(np.sum(n * directions, -1))[..., None]  # face the eye
    to_light = light - points
    to_light /= np.linalg.norm(to_light, axis=-1, keepdims=True)
    lambert = np.clip(np.sum(n * to_light, -1), 0, 1) * ~shadowed
    albedo = np.where((hits.triangle >= len(triangles) - 2)[..., None], (0.6, 0.6, 0.55),
                      (0.85, 0.35, 0.2))
    sky = np.linspace((0.55, 0.7, 0.9), (0.85, 0.9, 1.0), args.height)[:, None, :]
    colour = np.where(hit[..., None], albedo * (0.15 + 0.85 * lambert[..., None]), sky)
    write_png(args.output, (np.clip(colour, 0, 1) * 255).astype(np.uint8))
    print(f"{len(triangles)} triangles, tree of {scene.tree_size} bytes built in "
          f"{scene.build_time * 1e3:.1f} ms; {hit.sum()} of {hit.size} eye rays hit, "
          f"{shadowed.sum()} in shadow; traced in {seconds * 1e3:.1f} ms")
    print(f"wrote {args.output}")


if __name__ == "__main__":
    main()
