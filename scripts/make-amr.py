#!/usr/bin/env python3
"""Writes a synthetic AMR-NB storage file (RFC 4867 section 5, "#!AMR\\n").

No AMR encoder ships with Debian's ffmpeg, so the fixture scripts build the
audio frame by frame: 20 ms frames that cycle through the eight speech modes,
a comfort-noise (SID) frame and a NO_DATA frame, so frame sizes vary. The
payload bits are a fixed pseudo-random sequence: structurally valid frames,
not meant to sound like anything.

Usage: make-amr.py OUT SECONDS
"""

import hashlib
import sys

# Payload bytes per frame type (header byte not included).
PAYLOAD = {0: 12, 1: 13, 2: 15, 3: 17, 4: 19, 5: 20, 6: 26, 7: 31, 8: 5, 15: 0}
CYCLE = [7, 7, 6, 5, 4, 3, 2, 1, 0, 8, 15, 7]


def frames(count):
    for n in range(count):
        frame_type = CYCLE[n % len(CYCLE)]
        header = (frame_type << 3) | 0x04  # quality bit set
        payload = hashlib.sha256(b"quil-amr-%d" % n).digest()[:PAYLOAD[frame_type]]
        yield bytes([header]) + payload


def main(argv):
    if len(argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    count = int(float(argv[2]) * 50)
    with open(argv[1], "wb") as out:
        out.write(b"#!AMR\n")
        for frame in frames(count):
            out.write(frame)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
