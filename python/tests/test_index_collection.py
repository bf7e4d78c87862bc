"""index_collection.py on the project's fixtures with a two-worker local
Dask cluster: one valid JSON line per file, damaged files as error codes."""
import json
import subprocess
import sys

import pytest

import quil
from conftest import DATA, EXAMPLES


def test_two_workers_write_one_line_per_file(tmp_path):
    out = tmp_path / "summary.jsonl"
    done = subprocess.run([sys.executable, str(EXAMPLES / "index_collection.py"), str(DATA),
                           "--out", str(out), "--workers", "2"],
                          capture_output=True, text=True, timeout=180)
    assert done.returncode == 0, done.stderr[-3000:]
    records = [json.loads(line) for line in out.read_text().splitlines()]
    files = sorted(str(p) for p in DATA.iterdir())
    assert sorted(r["path"] for r in records) == files
    by_name = {r["path"].rsplit("/", 1)[1]: r for r in records}
    assert by_name["README.md"]["error"] == {"code": 3, "name": "MP4_ERR_NOT_AVAILABLE"}
    good = by_name["h264-aac.mp4"]
    assert [(t["kind"], t["fourcc"], t["sample_count"]) for t in good["tracks"]] == \
        [("video", "avc1", 25), ("audio", "mp4a", 45)]
    assert good["size"] == (DATA / "h264-aac.mp4").stat().st_size


@pytest.mark.filterwarnings("ignore::DeprecationWarning")  # tornado, inside distributed
def test_an_existing_scheduler_indexes_a_list(tmp_path):
    from dask.distributed import LocalCluster

    listing = tmp_path / "list.txt"
    missing = str(tmp_path / "missing.mp4")
    listing.write_text(f"# a comment\n{DATA / 'hevc-hvc1.mp4'}\n{missing}\n")
    out = tmp_path / "summary.jsonl"
    # A scheduler and a worker in this process, on loopback.
    with LocalCluster(n_workers=1, threads_per_worker=1, processes=False, protocol="tcp://",
                      host="127.0.0.1", dashboard_address=None) as cluster:
        done = subprocess.run([sys.executable, str(EXAMPLES / "index_collection.py"), str(listing),
                               "--out", str(out), "--scheduler", cluster.scheduler_address],
                              capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr[-3000:]
    records = {r["path"]: r for r in map(json.loads, out.read_text().splitlines())}
    assert records[missing] == {"path": missing, "size": None,
                                "error": {"code": quil.MP4_ERR_IO, "name": "MP4_ERR_IO"}}
    assert records[str(DATA / "hevc-hvc1.mp4")]["tracks"][0]["fourcc"] == "hvc1"
