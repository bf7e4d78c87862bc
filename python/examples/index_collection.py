#!/usr/bin/python3
"""Indexes every file of a collection with quil, spread over a Dask cluster.

    index_collection.py DIR_OR_URL_LIST --out summary.jsonl [--scheduler ADDRESS]
                        [--workers N] [--batch N]

DIR_OR_URL_LIST is a folder (every file under it is indexed) or a text file
listing one path or http(s) URL per line. Without --scheduler a local
cluster of N worker processes (default 2) is started on 127.0.0.1 only;
with it, the work goes to that existing Dask scheduler. --workers 0 runs
everything in this process, without Dask.

Writes one JSON line per file, in the order the files finish:
    {"path": ..., "size": bytes or null, "major_brand": "isom", "file_type": 0,
     "tracks": [{"number": 1, "kind": "video", "codec": "H.264/AVC",
                 "fourcc": "avc1", "time_scale": 12800, "duration": 128000,
                 "sample_count": 250, "sample_bytes": 123456}, ...],
     "track_errors": {"3": 5}}
A file quil cannot read gets {"path": ..., "size": ..., "error": {"code": 4,
"name": "MP4_ERR_IO"}} instead; nothing stops the run. The exit status is 0
when every file got its line.
"""

from __future__ import annotations

import argparse
import json
import os
import sys
import time
from typing import Iterable, Iterator

import quil


def index_file(path: str) -> dict:
    """The summary of one file; quil errors become {"error": {...}}."""
    is_url = path.startswith("http")
    record: dict = {"path": path, "size": None if is_url else _size(path)}
    try:
        with quil.open(path) as f:
            info = f.info()
            record["major_brand"] = info.get("majorBrand")
            record["file_type"] = f.file_type
            record["tracks"] = [_track(t) for t in f.tracks]
            if f.track_errors:
                record["track_errors"] = {str(n): code for n, code in f.track_errors.items()}
    except quil.Error as e:
        record["error"] = {"code": e.code, "name": e.name}
    except Exception as e:  # never let one file stop the run
        record["error"] = {"code": None, "name": type(e).__name__, "message": str(e)}
    return record


def _size(path: str):
    try:
        return os.stat(path).st_size
    except OSError:
        return None


def _track(track: quil.Track) -> dict:
    summary = {"number": track.number, "kind": track.kind, "codec": track.codec,
               "fourcc": track.fourcc, "time_scale": track.time_scale,
               "duration": track.duration, "sample_count": len(track)}
    try:
        summary["sample_bytes"] = int(track.sample_table().size.sum())
    except quil.Error as e:
        summary["error"] = {"code": e.code, "name": e.name}
    return summary


def _import_quil() -> None:
    import quil  # noqa: F401


def index_batch(paths: list[str]) -> list[dict]:
    return [index_file(p) for p in paths]


def list_inputs(source: str) -> list[str]:
    if os.path.isdir(source):
        found = []
        for directory, _, names in os.walk(source):
            found += [os.path.join(directory, n) for n in names]
        return sorted(found)
    with open(source, encoding="utf-8") as listing:
        return [line.strip() for line in listing if line.strip() and not line.startswith("#")]


def batches(items: list[str], count: int) -> Iterator[list[str]]:
    size = max(1, -(-len(items) // count))
    for start in range(0, len(items), size):
        yield items[start:start + size]


def run_with_dask(paths: list[str], scheduler: str | None, workers: int,
                  batch_count: int, clock: dict) -> Iterable[dict]:
    from dask.distributed import Client, LocalCluster, as_completed

    if scheduler:
        cluster, client = None, Client(scheduler)
    else:
        # Loopback only, no dashboard: nothing listens beyond this machine.
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                               host="127.0.0.1", dashboard_address=None)
        client = Client(cluster)
    # Workers import quil (and NumPy) before the clock starts: that is part
    # of bringing the cluster up, not of indexing.
    client.run(_import_quil)
    clock["start"] = time.perf_counter()
    try:
        # Files are handed out in batches: one task per file would cost
        # Dask more than quil spends on a small file.
        count = batch_count or max(1, 8 * len(client.scheduler_info()["workers"]))
        futures = client.map(index_batch, list(batches(paths, count)), pure=False)
        for future in as_completed(futures):
            yield from future.result()
    finally:
        client.close()
        if cluster is not None:
            cluster.close()


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("source", metavar="DIR_OR_URL_LIST")
    parser.add_argument("--out", required=True, help="the JSON lines file to write")
    parser.add_argument("--scheduler", help="address of an existing Dask scheduler")
    parser.add_argument("--workers", type=int, default=2,
                        help="local cluster size (0: no Dask, this process only)")
    parser.add_argument("--batch", type=int, default=0,
                        help="number of tasks to split the files into (default 8 per worker)")
    args = parser.parse_args(argv)

    paths = list_inputs(args.source)
    clock = {"start": time.perf_counter()}
    if args.workers == 0 and not args.scheduler:
        records: Iterable[dict] = map(index_file, paths)
    else:
        records = run_with_dask(paths, args.scheduler, args.workers, args.batch, clock)
    written = 0
    with open(args.out, "w", encoding="utf-8") as out:
        for record in records:
            out.write(json.dumps(record) + "\n")
            written += 1
    seconds = time.perf_counter() - clock["start"]
    print(f"{written} files indexed into {args.out} in {seconds:.3f} s", file=sys.stderr)
    return 0 if written == len(paths) else 1


if __name__ == "__main__":
    sys.exit(main())
