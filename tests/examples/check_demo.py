#!/usr/bin/python3
"""Runs vlkr-demo: a small default run must write three sane PNGs; bad input must fail cleanly."""
import os
import struct
import subprocess
import sys
import tempfile
import zlib


def read_png(path):
    """Returns (width, height, rows of RGB bytes) of an 8-bit RGB PNG without interlacing."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError(f"{path}: not a PNG")
    pos, idat, header = 8, b"", None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    width, height, depth, colour, _, _, interlace = header
    if (depth, colour, interlace) != (8, 2, 0):
        raise ValueError(f"{path}: expected 8-bit RGB without interlacing")
    raw, stride, rows, prev = zlib.decompress(idat), 3 * width, [], bytearray(3 * width)
    for y in range(height):
        kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - 3] if i >= 3 else 0
            b, c = prev[i], prev[i - 3] if i >= 3 else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(line))
        prev = line
    return width, height, rows


def check_run(demo):
    with tempfile.TemporaryDirectory() as out:
        done = subprocess.run([demo, "--size", "96x64", "--threads", "2", "--out", out],
                              capture_output=True, text=True, timeout=600)
        if done.returncode != 0:
            sys.exit(f"demo failed ({done.returncode}): {done.stderr.strip()}")
        expected = {"render.png": (96, 64), "layers.png": (96, 64), "volume.png": (480, 800)}
        for name, size in expected.items():
            path = os.path.join(out, name)
            if not os.path.isfile(path) or os.path.getsize(path) == 0:
                sys.exit(f"{name} missing or empty")
            width, height, rows = read_png(path)
            if (width, height) != size:
                sys.exit(f"{name} is {width}x{height}, expected {size[0]}x{size[1]}")
            pixels = {row[i:i + 3] for row in rows for i in range(0, len(row), 3)}
            if len(pixels) < (50 if name == "render.png" else 2):
                sys.exit(f"{name} has only {len(pixels)} distinct colours")
    print("three pictures written and checked")


def check_reject(demo, args):
    with tempfile.TemporaryDirectory() as tmp:
        plain = os.path.join(tmp, "plain")
        with open(plain, "w") as f:
            f.write("not a folder\n")
        broken = os.path.join(tmp, "broken.obj")
        with open(broken, "w") as f:
            f.write("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n")
        args = [a.replace("@FILE@", plain).replace("@BROKEN@", broken).replace("@TMP@", tmp)
                for a in args]
        done = subprocess.run([demo, "--size", "32x32", "--out", tmp] + args,
                              capture_output=True, text=True, timeout=600)
    lines = done.stderr.strip().splitlines()
    if done.returncode <= 0:
        sys.exit(f"expected a failure exit for {args}, got {done.returncode}: {done.stderr.strip()}")
    if len(lines) != 1:
        sys.exit(f"expected one error line for {args}, got: {done.stderr!r}")
    print(f"rejected {args}: {lines[0]}")


if __name__ == "__main__":
    if sys.argv[1] == "run":
        check_run(sys.argv[2])
    else:
        check_reject(sys.argv[2], sys.argv[3:])
