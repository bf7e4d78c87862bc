"""Damaged input: thousands of randomly damaged copies of fixtures are read
through every call in a child interpreter, which must neither crash nor
raise anything but quil.Error."""
import subprocess
import sys
import textwrap

from conftest import DATA

CHILD = textwrap.dedent("""
    import os, random, sys, time
    import numpy as np
    import quil
    sources, copies, seconds, scratch = sys.argv[1:-3], int(sys.argv[-3]), float(sys.argv[-2]), sys.argv[-1]
    rng = random.Random(18)
    originals = [open(p, "rb").read() for p in sources]
    start, done, errors = time.monotonic(), 0, 0
    buffer = np.empty(1 << 20, np.uint8)
    while done < copies and time.monotonic() - start < seconds:
        data = bytearray(rng.choice(originals))
        for _ in range(rng.randint(1, 8)):          # overwrite, zero or cut
            at = rng.randrange(len(data))
            choice = rng.random()
            if choice < 0.6:
                data[at] = rng.randrange(256)
            elif choice < 0.9:
                data[at:at + 4] = b"\\xff\\xff\\xff\\xff"
            else:
                del data[at:]
                if not data:
                    data = bytearray(b"\\0")
        with open(scratch, "wb") as out:
            out.write(data)
        try:
            with quil.open(scratch) as f:
                f.info()
                f.meta
                for track in f.tracks:
                    table = track.sample_table()
                    for i in range(min(len(track), 50)):
                        try:
                            track.read_into(i, buffer)
                        except quil.Error:
                            errors += 1
        except quil.Error as e:
            assert isinstance(e.code, int) and e.name.startswith("MP4_")
            errors += 1
        done += 1
    print(done, errors)
""")


def test_damaged_copies_raise_quil_errors_only(tmp_path):
    sources = [DATA / name for name in ("h264-aac.mp4", "h264-bframes.mp4", "pcm-twos.mov",
                                        "hevc-hvc1.mp4", "h263-amrnb.3gp")]
    done = subprocess.run([sys.executable, "-c", CHILD, *map(str, sources), "3000", "120",
                           str(tmp_path / "damaged.mp4")],
                          capture_output=True, text=True, timeout=200)
    assert done.returncode == 0, done.stderr[-3000:]
    copies, errors = map(int, done.stdout.split())
    assert copies >= 1000 and errors > 0
