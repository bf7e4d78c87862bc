#!/usr/bin/env python3
"""Writes a synthetic AMR-NB (or, with --wb, AMR-WB) storage file (RFC 4867
section 5, "#!AMR\\n" or "#!AMR-WB\\n").

No AMR encoder ships with Debian's ffmpeg, so the fixture scripts build the
audio frame by frame: 20 ms frames that cycle through the eight speech modes,
a comfort-noise (SID) frame and a NO_DATA frame, so frame sizes vary. The
payload bits are a fixed pseudo-random sequence: structurally valid frames,
not meant to sound like anything.

Usage: make-amr.py [--wb] OUT SECONDS
"""

import hashlib
import sys

# Payload bytes per frame type (header byte not included).
PAYLOAD = {0: 12, 1: 13, 2: 15, 3: 17, 4: 19, 5: 20, 6: 26, 7: 31, 8: 5, 15: 0}
CYCLE = [7, 7, 6, 5, 4, 3, 2, 1, 0, 8, 15, 7]
# AMR-WB: nine speech modes, SID (9) and NO_DATA (15).
PAYLOAD_WB = {0: 17, 1: 23, 2: 32, 3: 36, 4: 40, 5: 46, 6: 50, 7: 58, 8: 60, 9: 5, 15: 0}
CYCLE_WB = [8, 8, 7, 6, 5, 4, 3, 2, 1, 0, 9, 15, 8]


def frames(count, payload, cycle):
    for n in range(count):
        frame_type = cycle[n % len(cycle)]
        header = (frame_type << 3) | 0x04  # quality bit set
        data = (hashlib.sha256(b"quil-amr-%d" % n).digest() * 2)[:payload[frame_type]]
        yield bytes([header]) + data


def main(argv):
    wide = len(argv) > 1 and argv[1] == "--wb"
    if wide:
        argv = argv[:1] + argv[2:]
    if len(argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    count = int(float(argv[2]) * 50)
    with open(argv[1], "wb") as out:
        out.write(b"#!AMR-WB\n" if wide else b"#!AMR\n")
        for frame in frames(count, PAYLOAD_WB if wide else PAYLOAD, CYCLE_WB if wide else CYCLE):
            out.write(frame)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
