#!/usr/bin/env python3
"""Minimal box walker for the project's fixture scripts.

Reads the box tree of an MP4/3GP/MOV file (sizes, types, offsets) without
any media library, so the fixture scripts can locate the boxes they damage
and describe what a fixture contains independently of quil itself.

Usage: mp4boxes.py FILE          print the box tree
       mp4boxes.py --summary FILE print one line per track (for READMEs)
"""

import struct
import sys

# Boxes whose payload is a plain list of child boxes.
CONTAINERS = {
    b"moov", b"trak", b"mdia", b"minf", b"stbl", b"dinf", b"edts", b"udta",
    b"mvex", b"moof", b"traf", b"mfra", b"tref", b"gmhd", b"wave", b"hnti",
}
# Full boxes (4 bytes of version/flags) followed by child boxes.
FULL_CONTAINERS = {b"meta": 4, b"stsd": 8, b"dref": 8}


class Box:
    def __init__(self, kind, offset, size, header, children=None):
        self.kind = kind          # four bytes
        self.offset = offset      # file offset of the size field
        self.size = size          # whole box, header included
        self.header = header      # 8, or 16 with a 64-bit size
        self.children = children or []

    @property
    def payload(self):
        return self.offset + self.header

    @property
    def end(self):
        return self.offset + self.size

    def find(self, *path):
        """First descendant along a path of types, or None."""
        node = self
        for kind in path:
            node = next((c for c in node.children if c.kind == kind), None)
            if node is None:
                return None
        return node

    def find_all(self, kind):
        return [c for c in self.children if c.kind == kind]


def _read_header(data, offset, limit):
    if limit - offset < 8:
        return None
    size, kind = struct.unpack_from(">I4s", data, offset)
    header = 8
    if size == 1:
        if limit - offset < 16:
            return None
        size = struct.unpack_from(">Q", data, offset + 8)[0]
        header = 16
    elif size == 0:
        size = limit - offset
    if size < header or offset + size > limit:
        return None
    return kind, size, header


def parse(data, offset=0, limit=None):
    """Boxes between offset and limit; stops quietly at the first bad one."""
    limit = len(data) if limit is None else limit
    boxes = []
    while offset < limit:
        found = _read_header(data, offset, limit)
        if found is None:
            break
        kind, size, header = found
        box = Box(kind, offset, size, header)
        skip = None
        if kind in CONTAINERS:
            skip = 0
        elif kind in FULL_CONTAINERS:
            skip = FULL_CONTAINERS[kind]
        if skip is not None:
            box.children = parse(data, offset + header + skip, offset + size)
        boxes.append(box)
        offset += size
    return boxes


class File:
    def __init__(self, path):
        with open(path, "rb") as f:
            self.data = f.read()
        self.root = Box(b"", 0, len(self.data), 0, parse(self.data))

    def u32(self, offset):
        return struct.unpack_from(">I", self.data, offset)[0]

    def full(self, box):
        """(version, offset of the first field after version/flags)."""
        return self.data[box.payload], box.payload + 4

    def tracks(self):
        moov = self.root.find(b"moov")
        return moov.find_all(b"trak") if moov else []

    def track_summary(self, trak):
        stbl = trak.find(b"mdia", b"minf", b"stbl")
        hdlr = trak.find(b"mdia", b"hdlr")
        handler = self.data[hdlr.payload + 8:hdlr.payload + 12].decode("latin-1")
        mdhd = trak.find(b"mdia", b"mdhd")
        version, at = self.full(mdhd)
        timescale = self.u32(at + (16 if version == 1 else 8))
        _, at = self.full(stbl.find(b"stsd"))
        entry = self.data[at + 8:at + 12].decode("latin-1")
        _, at = self.full(stbl.find(b"stsz"))
        samples = self.u32(at + 4)
        tables = [c.kind.decode("latin-1") for c in stbl.children]
        edits = []
        elst = trak.find(b"edts", b"elst")
        if elst:
            version, at = self.full(elst)
            for i in range(self.u32(at)):
                if version == 1:
                    duration, media_time = struct.unpack_from(">Qq", self.data, at + 4 + 20 * i)
                else:
                    duration, media_time = struct.unpack_from(">Ii", self.data, at + 4 + 12 * i)
                edits.append((duration, media_time))
        tkhd = trak.find(b"tkhd")
        version, at = self.full(tkhd)
        matrix_at = at + (32 if version == 1 else 20) + 16
        matrix = struct.unpack_from(">9i", self.data, matrix_at)
        return {
            "handler": handler, "entry": entry, "timescale": timescale,
            "samples": samples, "tables": tables, "edits": edits,
            "matrix": matrix,
        }


def print_tree(boxes, depth=0):
    for box in boxes:
        print("%s%s offset=%d size=%d" % ("  " * depth, box.kind.decode("latin-1"),
                                          box.offset, box.size))
        print_tree(box.children, depth + 1)


def main(argv):
    if len(argv) == 3 and argv[1] == "--summary":
        f = File(argv[2])
        print("top level: " + " ".join(b.kind.decode("latin-1") for b in f.root.children))
        for n, trak in enumerate(f.tracks(), 1):
            s = f.track_summary(trak)
            line = "track %d: %s '%s' timescale %d, %d samples, %s" % (
                n, s["handler"], s["entry"], s["timescale"], s["samples"],
                " ".join(s["tables"]))
            if s["edits"]:
                line += ", edits " + " ".join("(%d,%d)" % e for e in s["edits"])
            if s["matrix"] != (0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000):
                line += ", matrix %s" % (s["matrix"],)
            print(line)
        return 0
    if len(argv) == 2:
        print_tree(File(argv[1]).root.children)
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
