#!/usr/bin/python3
"""Checks `quil fragment` against ffmpeg on a folder of unfragmented files.

Usage: scripts/check-fragment.py BUILD/quil DIR [--segments]

For every readable file: the fragmented copy decodes to the same frames
(framemd5 of every stream) and ffprobe lists the same packets (size, pts,
dts, key flag per stream); with --segments, the segments also play from
playlist.m3u8 and manifest.mpd with the same frames. Prints one line per
file and a summary; exits non-zero when a file differs.
"""
import json
import os
import subprocess
import sys
import tempfile


def run(args):
    return subprocess.run(args, capture_output=True, text=True, timeout=600)


def frames(path, extra=()):
    """Per stream (video streams, then audio streams, each decoded on its
    own), the decoded frames' checksums in order. Audio is cut into frames
    of 1024 samples, so that how packets cut it does not matter; times are
    compared through the packets (a player shifts all streams by a constant
    when one of them starts before 0)."""
    streams = {}
    for kind in ('v', 'a'):
        for number in range(16):
            result = run(['ffmpeg', '-v', 'error', *extra, '-i', path, '-map', f'0:{kind}:{number}',
                          '-af', 'asetnsamples=n=1024:p=0', '-f', 'framemd5', '-'])
            if result.returncode != 0:
                break
            rows = [line for line in result.stdout.splitlines() if line and not line.startswith('#')]
            streams[f'{kind}{number}'] = [row.split(',')[5].strip() for row in rows]
    return streams or None


def leading_negative(path):
    """Per audio stream, how many packets come before presentation time 0."""
    result = run(['ffprobe', '-v', 'error', '-select_streams', 'a', '-show_entries',
                  'packet=stream_index,pts', '-of', 'csv=p=0', path])
    order, out = [], {}
    for line in result.stdout.splitlines():
        index, pts = line.split(',')[:2]
        if index not in order:
            order.append(index)
        key = f'a{order.index(index)}'
        out[key] = out.get(key, 0) + (1 if pts not in ('', 'N/A') and int(pts) < 0 else 0)
    return out


def same_frames(copy, source, copy_path):
    """ffmpeg drops the frames an edit list skips (encoder priming) in
    classic files only; in fragmented files, its own included, it decodes
    them. Those leading frames aside, the frames must be the same."""
    if copy == source:
        return True
    if copy is None or source is None or copy.keys() != source.keys():
        return False
    skipped = leading_negative(copy_path)
    return all(copy[k] == source[k] or copy[k][skipped.get(k, 0):] == source[k] for k in copy)


def packets(path):
    result = run(['ffprobe', '-v', 'error', '-show_packets', '-of', 'json', path])
    if result.returncode != 0:
        return None
    out = {}
    for p in json.loads(result.stdout).get('packets', []):
        out.setdefault(p['stream_index'], []).append(
            (p['size'], p.get('pts'), p.get('dts'), 'K' in p.get('flags', '')))
    return out


def same_packets(copy, source):
    """Equal up to one time shift per stream (readers shift decode times
    differently for negative composition offsets)."""
    if copy is None or source is None or copy.keys() != source.keys():
        return False
    for k in copy:
        if len(copy[k]) != len(source[k]):
            return False
        shift = (copy[k][0][2] or 0) - (source[k][0][2] or 0) if copy[k] else 0
        for a, b in zip(copy[k], source[k]):
            if a[0] != b[0] or a[3] != b[3]:
                return False
            if any(x is not None and y is not None and x - y != shift for x, y in zip(a[1:3], b[1:3])):
                return False
    return True


def main():
    quil, folder = sys.argv[1], sys.argv[2]
    segments = '--segments' in sys.argv
    failures = checked = 0
    with tempfile.TemporaryDirectory() as work:
        work = os.path.abspath(work)  # ffmpeg 5.1's DASH reader resolves relative paths twice
        for name in sorted(os.listdir(folder)):
            path = os.path.join(folder, name)
            if name.startswith('bad-') or name.endswith('.json') or not os.path.isfile(path):
                continue
            if name.startswith('frag') or not name.endswith(('.mp4', '.mov', '.m4a', '.3gp', '.3g2')):
                continue
            source = frames(path)
            if not source:
                continue
            out = os.path.join(work, 'out.mp4')
            made = run([quil, 'fragment', path, out])
            if made.returncode != 0:
                print(f'{name}: not fragmented: {made.stderr.strip()}')
                continue
            checked += 1
            problems = []
            if not same_frames(frames(out), source, out):
                problems.append('frames differ')
            if not same_packets(packets(out), packets(path)):
                problems.append('packets differ')
            if segments:
                directory = os.path.join(work, 'seg-' + name)
                made = run([quil, 'fragment', path, '--segments', directory])
                if made.returncode != 0:
                    problems.append('segments: ' + made.stderr.strip())
                else:
                    for manifest in ('playlist.m3u8', 'manifest.mpd'):
                        played = frames(os.path.join(directory, manifest),
                                        ['-allowed_extensions', 'ALL'] if manifest.endswith('m3u8') else [])
                        if not same_frames(played, source, out):
                            problems.append(manifest + ' frames differ')
            print(f'{name}: {"ok" if not problems else ", ".join(problems)}')
            failures += 1 if problems else 0
    print(f'{checked} checked, {failures} differ')
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
