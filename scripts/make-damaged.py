#!/usr/bin/env python3
"""Derives damaged fixtures from two intact files, one fault per file.

Usage: make-damaged.py MOOV_AT_END.mp4 FASTSTART.mp4 OUTDIR

Each output is named after its fault (bad-*.mp4). Every change is located by
walking the box tree (mp4boxes.py), so the same inputs always give the same
bytes. Prints one line per file: name, what was changed and where.
"""

import hashlib
import os
import struct
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import mp4boxes  # noqa: E402


def put_u32(data, offset, value):
    data[offset:offset + 4] = struct.pack(">I", value)


def first_stbl(f):
    return f.tracks()[0].find(b"mdia", b"minf", b"stbl")


def truncated_moov(f):
    stbl = first_stbl(f)
    cut = stbl.offset + stbl.size // 2
    return f.data[:cut], "cut at byte %d, inside the first track's stbl" % cut


def truncated_mdat(f):
    mdat = f.root.find(b"mdat")
    cut = mdat.payload + (mdat.size - mdat.header) // 2
    return f.data[:cut], "cut at byte %d, in the middle of mdat (moov intact)" % cut


def stsz_count(f):
    data = bytearray(f.data)
    stsz = first_stbl(f).find(b"stsz")
    at = stsz.payload + 8  # version/flags, sample_size, then sample_count
    old = f.u32(at)
    put_u32(data, at, old + 50)
    return data, "first stsz sample_count at byte %d: %d -> %d" % (at, old, old + 50)


def size4_in_moov(f):
    data = bytearray(f.data)
    last = f.root.find(b"moov").children[-1]
    put_u32(data, last.offset, 4)
    return data, "size of moov's last child '%s' at byte %d: %d -> 4" % (
        last.kind.decode("latin-1"), last.offset, last.size)


def size4_toplevel(f):
    data = bytearray(f.data)
    box = f.root.find(b"free")
    put_u32(data, box.offset, 4)
    return data, "size of the top-level free box at byte %d: %d -> 4" % (box.offset, box.size)


def child_larger_than_parent(f):
    data = bytearray(f.data)
    mdia = f.tracks()[0].find(b"mdia")
    put_u32(data, mdia.offset, mdia.size + 1000)
    return data, "first trak's mdia size at byte %d: %d -> %d (past its trak)" % (
        mdia.offset, mdia.size, mdia.size + 1000)


def garbage_appended(f):
    garbage = b""
    block = 0
    while len(garbage) < 1000:
        garbage += hashlib.sha256(b"quil-garbage-%d" % block).digest()
        block += 1
    return f.data + garbage[:1000], "1000 pseudo-random bytes appended after moov"


# (output name, source: 0 = moov at end, 1 = faststart, damage)
FAULTS = [
    ("bad-truncated-moov.mp4", 0, truncated_moov),
    ("bad-truncated-mdat-faststart.mp4", 1, truncated_mdat),
    ("bad-stsz-count.mp4", 0, stsz_count),
    ("bad-size4-in-moov.mp4", 0, size4_in_moov),
    ("bad-size4-toplevel.mp4", 0, size4_toplevel),
    ("bad-child-larger-than-parent.mp4", 0, child_larger_than_parent),
    ("bad-garbage-appended.mp4", 0, garbage_appended),
]


def main(argv):
    if len(argv) != 4:
        print(__doc__, file=sys.stderr)
        return 2
    sources = [mp4boxes.File(argv[1]), mp4boxes.File(argv[2])]
    for name, source, damage in FAULTS:
        data, what = damage(sources[source])
        with open(os.path.join(argv[3], name), "wb") as out:
            out.write(bytes(data))
        print("%s: %s" % (name, what))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
