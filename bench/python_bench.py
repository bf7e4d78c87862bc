#!/usr/bin/python3
"""python_bench.py table|pyav|read FILE

Times one Python workload over FILE and prints one result line in the form
the C++ benchmarks use (workload=... seconds=... samples=... layout=...):
  table  quil.open, then track.sample_table() of every track;
  pyav   PyAV (ffmpeg) demuxing every packet: position, size, pts, dts and
         key flag of each, kept in lists as a user of it would;
  read   quil.open, the sample tables, then every sample's bytes in file
         order through track.read_into with one reused NumPy buffer.
The clock runs from opening the file to closing it, as in quil_bench.
"""
import resource
import sys
import time

import numpy as np


def quil_table(path):
    import quil
    start = time.perf_counter()
    with quil.open(path) as f:
        tables = [t.sample_table() for t in f.tracks]
    seconds = time.perf_counter() - start
    return seconds, sum(len(t.offset) for t in tables), layout(
        np.concatenate([t.offset for t in tables]), np.concatenate([t.size for t in tables]))


def pyav_table(path):
    import av
    start = time.perf_counter()
    positions, sizes, pts, dts, keys = [], [], [], [], []
    with av.open(path) as container:
        for packet in container.demux():
            if packet.size == 0:  # the demuxer's end-of-stream marker
                continue
            positions.append(packet.pos)
            sizes.append(packet.size)
            pts.append(packet.pts)
            dts.append(packet.dts)
            keys.append(packet.is_keyframe)
    seconds = time.perf_counter() - start
    return seconds, len(sizes), layout(np.array(positions), np.array(sizes))


def quil_read(path):
    import quil
    start = time.perf_counter()
    total = 0
    with quil.open(path) as f:
        tables = [(t, t.sample_table()) for t in f.tracks]
        # Every sample of every track, in file order.
        offsets = np.concatenate([table.offset for _, table in tables])
        which = np.concatenate([np.full(len(table.offset), n) for n, (_, table) in enumerate(tables)])
        index = np.concatenate([np.arange(len(table.offset)) for _, table in tables])
        order = np.argsort(offsets, kind="stable")
        buffer = np.empty(max(int(table.size.max(initial=0)) for _, table in tables), np.uint8)
        tracks = [t for t, _ in tables]
        for n, i in zip(which[order].tolist(), index[order].tolist()):
            total += tracks[n].read_into(i, buffer)
    seconds = time.perf_counter() - start
    return seconds, len(offsets), total


def layout(offsets, sizes):
    """Sum over samples of offset and size: equal when two readers see the
    same samples."""
    return int(offsets.astype(np.int64).sum()) ^ (int(sizes.astype(np.int64).sum()) << 40)


def main():
    workload, path = sys.argv[1], sys.argv[2]
    run = {"table": quil_table, "pyav": pyav_table, "read": quil_read}[workload]
    seconds, samples, check = run(path)
    rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    print(f"workload={workload} seconds={seconds:.6f} samples={samples} maxrss_kb={rss} "
          f"layout={check} file={path}")


if __name__ == "__main__":
    main()
