#!/usr/bin/env python3
"""Draws the Velmora logo (a cross between two broadcast arcs on a rounded tile) as a PNG.

Run by hand when the logo changes: python3 tools/make_logo.py resources/logo.png
"""
import math
import struct
import sys
import zlib

SIZE = 256
SAMPLES = 4  # supersampling per axis, for smooth edges


def inside_rounded_square(x, y, margin=8, radius=52):
    lo, hi = margin, SIZE - margin
    if not (lo <= x <= hi and lo <= y <= hi):
        return False
    cx = min(max(x, lo + radius), hi - radius)
    cy = min(max(y, lo + radius), hi - radius)
    return (x - cx) ** 2 + (y - cy) ** 2 <= radius ** 2


def on_cross(x, y):
    c = SIZE / 2
    vertical = abs(x - c) <= 11 and 62 <= y <= 196
    horizontal = abs(y - 104) <= 11 and c - 42 <= x <= c + 42
    return vertical or horizontal


def on_arcs(x, y):
    c = SIZE / 2
    dx, dy = x - c, y - 128
    r = math.hypot(dx, dy)
    angle = abs(math.degrees(math.atan2(dy, abs(dx))))
    if angle > 38:
        return False
    return any(abs(r - ring) <= 6 for ring in (78, 104))


def pixel(x, y):
    if not inside_rounded_square(x, y):
        return (0, 0, 0, 0)
    if on_cross(x, y):
        return (255, 255, 255, 255)
    if on_arcs(x, y):
        return (101, 176, 237, 255)
    t = y / SIZE
    return (int(20 + 16 * t), int(52 + 30 * t), int(92 + 40 * t), 255)


def main(path):
    rows = []
    n = SAMPLES * SAMPLES
    for y in range(SIZE):
        row = bytearray([0])
        for x in range(SIZE):
            acc = [0, 0, 0, 0]
            for sy in range(SAMPLES):
                for sx in range(SAMPLES):
                    r, g, b, a = pixel(x + (sx + 0.5) / SAMPLES, y + (sy + 0.5) / SAMPLES)
                    acc[0] += r * a
                    acc[1] += g * a
                    acc[2] += b * a
                    acc[3] += a
            alpha = acc[3] / n
            if acc[3]:
                row += bytes([int(acc[0] / acc[3]), int(acc[1] / acc[3]), int(acc[2] / acc[3]), int(alpha)])
            else:
                row += bytes(4)
        rows.append(bytes(row))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    png = b"\x89PNG\r\n\x1a\n"
    png += chunk(b"IHDR", struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0))
    png += chunk(b"IDAT", zlib.compress(b"".join(rows), 9))
    png += chunk(b"IEND", b"")
    with open(path, "wb") as out:
        out.write(png)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "resources/logo.png")
