#!/usr/bin/env python3
"""Small seed inputs for the fuzz targets.

Each media file given becomes a seed of at most 16 KiB that still holds its
whole movie box: every top-level box is kept as it is, except that "mdat"
payloads are cut so the file fits (the sample tables then point past the end,
which is itself worth fuzzing). Files whose movie box alone is too large are
left out. Small seeds keep each execution cheap, so a long run reaches
millions of inputs.

Usage: make-fuzz-seeds.py OUT_DIR FILE...
"""

import os
import struct
import sys

LIMIT = 16 * 1024


def top_level(data):
    offset = 0
    while offset + 8 <= len(data):
        size, kind = struct.unpack_from(">I4s", data, offset)
        header = 8
        if size == 1 and offset + 16 <= len(data):
            size = struct.unpack_from(">Q", data, offset + 8)[0]
            header = 16
        elif size == 0:
            size = len(data) - offset
        if size < header or offset + size > len(data):
            return
        yield kind, data[offset:offset + size], header
        offset += size


def shrink(data):
    boxes = list(top_level(data))
    fixed = sum(len(b) for k, b, _ in boxes if k != b"mdat")
    budget = LIMIT - fixed
    if budget < 0:
        return None
    out = bytearray()
    for kind, box, header in boxes:
        if kind == b"mdat":
            keep = max(0, min(len(box) - header, budget - header))
            budget -= header + keep
            out += struct.pack(">I4s", 8 + keep, b"mdat") + box[header:header + keep]
        else:
            out += box
    return bytes(out) if len(out) <= LIMIT else None


def main(argv):
    if len(argv) < 3:
        print(__doc__)
        return 2
    out_dir = argv[1]
    os.makedirs(out_dir, exist_ok=True)
    made = 0
    for path in argv[2:]:
        with open(path, "rb") as f:
            seed = shrink(f.read())
        if seed:
            with open(os.path.join(out_dir, os.path.basename(path)), "wb") as f:
                f.write(seed)
            made += 1
    print(f"{made} seeds of at most {LIMIT} bytes in {out_dir}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
