"""Pictures for tests, built byte by byte: good ones, and ones that are none or too much."""

import base64
import random
import struct
import zlib


def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def png(width=40, height=30, pixels=None, color=2, depth=8, more=b""):
    """An opaque picture of one grey, or of the scanlines given."""
    channels = {0: 1, 2: 3, 6: 4}[color]
    if pixels is None:
        pixels = (b"\0" + b"\x80" * (width * channels * depth // 8)) * height
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, depth, color, 0, 0, 0)) + more
            + chunk(b"IDAT", zlib.compress(pixels, 1)) + chunk(b"IEND", b""))


def noise_png(width, height, color=2):
    """What no compression makes smaller."""
    rng, row = random.Random(1), width * {2: 3, 6: 4}[color]
    return png(width, height, b"".join(b"\0" + rng.randbytes(row) for _ in range(height)), color)


def bmp(width=40, height=30, pixels=None):
    row = (width * 3 + 3) // 4 * 4
    data = pixels if pixels is not None else b"\x80" * row * height
    return (b"BM" + struct.pack("<IHHI", 54 + len(data), 0, 0, 54)
            + struct.pack("<IiiHHIIiiII", 40, width, height, 1, 24, 0, len(data), 2835, 2835, 0, 0) + data)


def gif(width=10, height=10, frames=1, frame=None):
    """Black frames, each with a delay."""
    w, h = frame or (width, height)
    head = b"GIF89a" + struct.pack("<HHBBB", width, height, 0x80, 0, 0) + b"\0\0\0\xff\xff\xff"
    one = (b"!\xf9\x04\x04\x0a\0\0\0" + b"," + struct.pack("<HHHHB", 0, 0, w, h, 0) + b"\x02\x02\x4c\x01\0")
    return head + one * frames + b";"


def encoded(data):
    return base64.b64encode(data).decode()
