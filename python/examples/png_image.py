"""A PNG writer for the examples, so that they need nothing beyond numpy."""
import struct
import zlib

import numpy as np


def write_png(path, image):
    """Writes a uint8 image of shape (H, W) (grey) or (H, W, 3) (RGB) as an 8-bit PNG."""
    image = np.ascontiguousarray(image, dtype=np.uint8)
    height, width = image.shape[:2]
    colour = 2 if image.ndim == 3 else 0
    rows = np.hstack([np.zeros((height, 1), np.uint8), image.reshape(height, -1)])  # filter 0

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", width, height, 8, colour, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
                chunk(b"IDAT", zlib.compress(rows.tobytes(), 6)) + chunk(b"IEND", b""))
