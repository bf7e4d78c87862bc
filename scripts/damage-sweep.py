#!/usr/bin/env python3
"""Damage sweep: how far does one damaged box reach?

For every box inside "moov" of each given file, one copy of the file is made
with that box's size field set to 12 (the box now ends right after its
version and flags, and its old payload is read as whatever follows). For each
copy, quil must not crash or hang, every track that does not hold the damaged
box must read exactly as in the original (same `quil samples` lines), and
quil should keep at least as many usable tracks (bound, with samples) as
ffprobe reads packets from.

Usage: damage-sweep.py QUIL FILE... [--no-ffprobe]
Prints one line per file and a summary; exits 1 on a crash, a hang or a
track damaged by a box outside it.
"""

import json
import os
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import mp4boxes  # noqa: E402

TIMEOUT = 20


def run(args):
    try:
        done = subprocess.run(args, capture_output=True, timeout=TIMEOUT)
    except subprocess.TimeoutExpired:
        return None, b""
    return done.returncode, done.stdout


def usable_tracks(quil, path):
    """Track number -> samples listing, for tracks quil binds with samples."""
    code, out = run([quil, "info", path, "--json"])
    if code is None or code < 0:
        return None
    try:
        info = json.loads(out.decode("utf-8", "replace")) if code == 0 else {"tracks": []}
    except ValueError:
        info = {"tracks": []}
    tracks = {}
    for track in info.get("tracks", []):
        if track.get("sampleCount", 0) > 0 and "error" not in track:
            code, listing = run([quil, "samples", path, "--track", str(track["number"])])
            if code is None or code < 0:
                return None
            tracks[track["number"]] = listing
    return tracks


def ffprobe_streams(path):
    """Streams from which ffprobe actually reads packets."""
    code, out = run(["ffprobe", "-v", "quiet", "-count_packets", "-show_entries",
                     "stream=nb_read_packets:stream_disposition=attached_pic", "-of", "json", path])
    if code != 0:
        return 0
    try:
        streams = json.loads(out).get("streams", [])
    except ValueError:
        return 0
    # Cover art from iTunes metadata shows as a stream but is no track.
    return sum(1 for s in streams if str(s.get("nb_read_packets", "0")).isdigit()
               and int(s.get("nb_read_packets", "0")) > 0
               and not s.get("disposition", {}).get("attached_pic"))


def boxes_inside(box, track=None, out=None):
    """(box, track number it belongs to or None) for every descendant."""
    out = [] if out is None else out
    number = 0
    for child in box.children:
        owner = track
        if child.kind == b"trak" and track is None:
            number += 1
            owner = number
            # A "trak" cut short spills its own contents into the movie box:
            # that is damage to the movie, not to one track.
            out.append((child, None))
        else:
            out.append((child, owner))
        boxes_inside(child, owner, out)
    return out


def sweep(quil, path, use_ffprobe):
    original = mp4boxes.File(path)
    moov = next((b for b in original.root.children if b.kind == b"moov"), None)
    if moov is None:
        return None
    baseline = usable_tracks(quil, path)
    if baseline is None:
        return {"copies": 0, "failures": [f"{path}: original crashes or hangs"], "kept": 0}
    failures, kept, copies = [], 0, 0
    with tempfile.TemporaryDirectory() as tmp:
        for box, owner in boxes_inside(moov):
            if box.header != 8 or box.size <= 12:
                continue
            data = bytearray(original.data)
            data[box.offset:box.offset + 4] = (12).to_bytes(4, "big")
            copy = os.path.join(tmp, "damaged" + os.path.splitext(path)[1])
            with open(copy, "wb") as f:
                f.write(data)
            copies += 1
            where = f"{os.path.basename(path)} {box.kind.decode('latin-1')}@{box.offset}"
            tracks = usable_tracks(quil, copy)
            if tracks is None:
                failures.append(f"{where}: crash or hang")
                continue
            for number, listing in baseline.items():
                if owner is not None and number != owner:
                    if tracks.get(number) != listing:
                        failures.append(f"{where}: track {number} changed (damage in track {owner})")
            wanted = ffprobe_streams(copy) if use_ffprobe else 0
            if len(tracks) >= wanted:
                kept += 1
    return {"copies": copies, "failures": failures, "kept": kept}


def main(argv):
    use_ffprobe = "--no-ffprobe" not in argv
    args = [a for a in argv[1:] if a != "--no-ffprobe"]
    if len(args) < 2:
        print(__doc__)
        return 2
    quil, files = args[0], args[1:]
    total_copies = total_kept = 0
    all_failures = []
    for path in files:
        result = sweep(quil, path, use_ffprobe)
        if result is None:
            continue
        total_copies += result["copies"]
        total_kept += result["kept"]
        all_failures += result["failures"]
        print(f"{os.path.basename(path)}: {result['copies']} copies, "
              f"{result['kept']} keep as many tracks as ffprobe, "
              f"{len(result['failures'])} failures", flush=True)
    for failure in all_failures:
        print("FAIL", failure)
    share = 100.0 * total_kept / total_copies if total_copies else 100.0
    print(f"{total_copies} damaged copies: {share:.1f}% keep as many usable tracks as ffprobe; "
          f"{len(all_failures)} failures")
    return 1 if all_failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
