#!/usr/bin/env python3
"""Developer check of `quil meta` over a directory of media files.

For every file: `quil meta` must list each texted tag ffprobe shows (the
ffprobe tags of its *.truth.json beside the file, or of a live ffprobe run);
`quil meta --set title:eng=... -o OUT` must write a copy whose "titl" reads
back, whose samples (sizes, times, sync flags and bytes, via framemd5) are
those of the source, and which ffprobe still opens.

Usage: scripts/check-meta.py QUIL DIR [DIR...]
Prints one line per file and a summary; exits 1 when a check fails.
"""
import json
import os
import subprocess
import sys
import tempfile

# ffprobe format tags that are not metadata items of the file.
NOT_ITEMS = {"major_brand", "minor_version", "compatible_brands", "creation_time"}


def run(args):
    return subprocess.run(args, capture_output=True, text=True)


def ffprobe_tags(path):
    truth = path + ".truth.json"
    if os.path.exists(truth):
        with open(truth) as f:
            data = json.load(f)
    else:
        out = run(["ffprobe", "-v", "error", "-of", "json", "-show_format", path])
        data = json.loads(out.stdout or "{}")
    tags = (data.get("format") or {}).get("tags") or {}
    return {k: v for k, v in tags.items() if k not in NOT_ITEMS and str(v).strip()}


def samples(quil, path):
    # Offsets move in a copy; everything else about each sample stays.
    out = run([quil, "samples", path]).stdout.splitlines()
    return [line.split("\t")[:2] + line.split("\t")[3:] for line in out]


def framemd5(path):
    out = run(["ffmpeg", "-v", "error", "-i", path, "-map", "0", "-c", "copy", "-f", "framemd5", "-"])
    return [l for l in out.stdout.splitlines() if not l.startswith("#")] if out.returncode == 0 else None


def check(quil, path, workdir):
    problems = []
    listing = run([quil, "meta", path])
    if listing.returncode != 0:
        return ["quil meta failed: " + listing.stderr.strip()]
    values = [line.split("=", 1)[1] for line in listing.stdout.splitlines() if "=" in line]
    for key, value in ffprobe_tags(path).items():
        if not any(str(value).strip() in v for v in values):
            problems.append(f"tag {key}={value!r} not listed")
    copy = os.path.join(workdir, "copy" + os.path.splitext(path)[1])
    title = "Checked title \u2713"
    written = run([quil, "meta", path, "--set", "title:eng=" + title, "-o", copy])
    if written.returncode != 0:
        return problems + ["--set failed: " + written.stderr.strip()]
    if f"title:eng={title}" not in run([quil, "meta", copy]).stdout.splitlines():
        problems.append("title not read back")
    if samples(quil, path) != samples(quil, copy):
        problems.append("samples differ")
    before, after = framemd5(path), framemd5(copy)
    if before is not None and before != after:
        problems.append("framemd5 differs (or ffmpeg cannot read the copy)")
    return problems


def main():
    if len(sys.argv) < 3:
        print(__doc__)
        return 2
    quil = sys.argv[1]
    files = []
    for directory in sys.argv[2:]:
        for name in sorted(os.listdir(directory)):
            if name.endswith((".mp4", ".m4a", ".3gp", ".3g2", ".mov")) and not name.startswith("bad-"):
                files.append(os.path.join(directory, name))
    failed = 0
    with tempfile.TemporaryDirectory() as workdir:
        for path in files:
            if run([quil, "info", path]).returncode != 0:
                print(f"skip {path} (quil cannot read it)")
                continue
            problems = check(quil, path, workdir)
            failed += bool(problems)
            print(("FAIL " if problems else "ok   ") + path + ("".join("\n     " + p for p in problems)))
    print(f"{len(files) - failed} ok, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
