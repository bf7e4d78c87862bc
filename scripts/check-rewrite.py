#!/usr/bin/env python3
"""Developer check of `quil faststart` and `quil remux` over a directory of
media files (not run in CI; needs ffmpeg and ffprobe on PATH).

    scripts/check-rewrite.py build/quil DIR [DIR...] [--keep OUTDIR]
                             [--only faststart|remux] [-v]

For every file that `quil info` reads:

faststart  "moov" before "mdat"; ffprobe streams and codec parameters and
           `ffmpeg -f framemd5` identical to the source; every box other than
           "stco"/"co64"/"mdat" byte-identical to the source's (a source whose
           "moov" already comes first must be refused, exit status 1).
remux      ffprobe streams, codec parameters and framemd5 identical; reading
           the output back through `quil samples` gives the same sizes,
           decode/composition times and sync flags, and the same sample
           bytes (compared by hashing each sample through ffmpeg's packet
           hashes of the stream copy, `-c copy -f framemd5`).

Prints one line per file and check, and a summary; exit status 1 when any
check failed.
"""
import hashlib
import json
import os
import struct
import subprocess
import sys
import tempfile

CONTAINERS = {b'moov', b'trak', b'mdia', b'minf', b'stbl', b'dinf', b'edts', b'udta',
              b'mvex', b'tref', b'hnti', b'gmhd', b'ilst', b'wave'}
CHANGED_BY_FASTSTART = {b'stco', b'co64', b'mdat'}


def run(args):
    p = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return p.returncode, p.stdout, p.stderr.decode('utf-8', 'replace')


def boxes(data, start, end, path=''):
    """(path, type, bytes) for every box, depth first; containers also yield
    their children. 'meta' is a full box container (4 bytes first)."""
    off = start
    while off + 8 <= end:
        size, kind = struct.unpack('>I4s', data[off:off + 8])
        header = 8
        if size == 1:
            size = struct.unpack('>Q', data[off + 8:off + 16])[0]
            header = 16
        elif size == 0:
            size = end - off
        if size < header or off + size > end:
            return
        here = path + '/' + kind.decode('latin-1')
        yield here, kind, off, size, header
        if kind in CONTAINERS:
            yield from boxes(data, off + header, off + size, here)
        elif kind == b'meta':
            yield from boxes(data, off + header + 4, off + size, here)
        off += size


def top_level(data):
    return [(k, o, s) for p, k, o, s, h in boxes(data, 0, len(data)) if p.count('/') == 1]


def compare_boxes(src, out):
    """Leaf-by-leaf comparison; containers holding a changed box are skipped
    (their size may differ), everything else must match byte for byte."""
    def leaves(data):
        result = {}
        items = list(boxes(data, 0, len(data)))
        for path, kind, off, size, header in items:
            if kind in CONTAINERS or kind == b'meta' or kind in CHANGED_BY_FASTSTART:
                continue
            result.setdefault(path, []).append(data[off:off + size])
        return result
    a, b = leaves(src), leaves(out)
    problems = []
    for path in sorted(set(a) | set(b)):
        if a.get(path) != b.get(path):
            problems.append('box %s differs (%d vs %d instances)' %
                            (path, len(a.get(path, [])), len(b.get(path, []))))
    return problems


def ffprobe_streams(path):
    rc, out, _ = run(['ffprobe', '-v', 'error', '-show_streams', '-of', 'json', path])
    if rc != 0:
        return None
    keep = ('codec_type', 'codec_name', 'codec_tag_string', 'profile', 'width', 'height',
            'pix_fmt', 'sample_rate', 'channels', 'channel_layout', 'bits_per_sample',
            'extradata_size', 'time_base', 'start_pts', 'nb_frames',
            'sample_aspect_ratio', 'color_space', 'color_primaries', 'field_order')
    # Video and audio: the streams a remux copies (hint, time-code and data
    # tracks are left out by design). The stream duration is not compared:
    # the last sample's duration is not carried by the write interface.
    streams = [s for s in json.loads(out).get('streams', [])
               if s.get('codec_type') in ('video', 'audio')]
    return [{k: s.get(k) for k in keep if k in s} for s in streams]


def framemd5(path, copy=False):
    args = ['ffmpeg', '-nostdin', '-v', 'error', '-i', path, '-map', '0:v?', '-map', '0:a?']
    if copy:
        args += ['-c', 'copy']
    rc, out, _ = run(args + ['-f', 'framemd5', '-'])
    if rc != 0:
        return None
    # stream, dts, pts, duration, size, hash: the duration is left out (see
    # ffprobe_streams).
    lines = []
    for l in out.decode().splitlines():
        if l and not l.startswith('#'):
            f = [x.strip() for x in l.split(',')]
            lines.append(','.join(f[:3] + f[4:]))
    return hashlib.md5('\n'.join(lines).encode()).hexdigest()


def copied_tracks(quil, path):
    rc, out, _ = run([quil, 'info', '--json', path])
    if rc != 0:
        return []
    return [t['number'] for t in json.loads(out).get('tracks', []) if t.get('kind') in (1, 2, 4, 5)]


def quil_samples(quil, path, only_copied=False):
    rc, out, _ = run([quil, 'samples', path])
    if rc != 0:
        return None
    rows = [l.split('\t') for l in out.decode().splitlines()[1:]]
    # Offsets change in a rewrite: keep size, times, sync; tracks renumbered
    # in order when only the copied ones count.
    keep = [str(n) for n in copied_tracks(quil, path)] if only_copied else None
    result = []
    for r in rows:
        if len(r) != 7 or (keep is not None and r[0] not in keep):
            continue
        track = str(keep.index(r[0]) + 1) if keep is not None else r[0]
        result.append((track, r[3], r[4], r[5], r[6]))
    return result


def is_fragmented(path):
    return b'moof' in [k for k, o, s in top_level(open(path, 'rb').read())]


def check_media(src, out):
    problems = []
    a, b = ffprobe_streams(src), ffprobe_streams(out)
    if a and b and is_fragmented(src):
        # A fragmented source's movie tables count no frames.
        for x in a + b:
            x.pop('nb_frames', None)
    if a != b:
        keys = set()
        for x, y in zip(a or [], b or []):
            keys |= {k for k in set(x) | set(y) if x.get(k) != y.get(k)}
        problems.append('ffprobe streams differ (%s)' % (', '.join(sorted(keys)) or
                                                        '%d vs %d streams' % (len(a or []), len(b or []))))
    a, b = framemd5(src), framemd5(out)
    if a is not None and a != b:
        problems.append('decoded frames differ')
    a, b = framemd5(src, True), framemd5(out, True)
    if a is not None and a != b:
        problems.append('packets differ')
    return problems


def check_faststart(quil, src, workdir):
    out = os.path.join(workdir, 'faststart-' + os.path.basename(src))
    data = open(src, 'rb').read()
    kinds = [k for k, o, s in top_level(data)]
    rc, _, err = run([quil, 'faststart', src, out])
    moov_first = b'moov' in kinds and b'mdat' in kinds and kinds.index(b'moov') < kinds.index(b'mdat')
    if moov_first or kinds.count(b'mdat') != 1:
        return [] if rc == 1 and not os.path.exists(out) else ['not refused: %s' % err.strip()]
    if rc != 0:
        return ['failed: ' + err.strip()]
    written = open(out, 'rb').read()
    kinds = [k for k, o, s in top_level(written)]
    problems = []
    if b'moov' not in kinds or kinds.index(b'moov') > kinds.index(b'mdat'):
        problems.append('moov not before mdat')
    problems += compare_boxes(data, written)
    problems += check_media(src, out)
    if quil_samples(quil, src) != quil_samples(quil, out):
        problems.append('quil reads other samples back')
    return problems


def check_remux(quil, src, workdir):
    out = os.path.join(workdir, 'remux-' + os.path.basename(src))
    rc, _, err = run([quil, 'remux', src, out])
    if rc != 0:
        return ['failed: ' + err.strip()]
    problems = check_media(src, out)
    if quil_samples(quil, src, True) != quil_samples(quil, out, True):
        problems.append('quil reads other samples back')
    return problems


def main():
    args = [a for a in sys.argv[1:] if not a.startswith('-')]
    verbose = '-v' in sys.argv
    keep = None
    if '--keep' in sys.argv:
        keep = sys.argv[sys.argv.index('--keep') + 1]
        args.remove(keep)
    only = None
    if '--only' in sys.argv:
        only = sys.argv[sys.argv.index('--only') + 1]
        args.remove(only)
    if len(args) < 2:
        print(__doc__)
        return 2
    quil, dirs = args[0], args[1:]
    failures = 0
    counts = {}
    with tempfile.TemporaryDirectory() as tmp:
        workdir = keep or tmp
        os.makedirs(workdir, exist_ok=True)
        for d in dirs:
            for name in sorted(os.listdir(d)):
                src = os.path.join(d, name)
                if not os.path.isfile(src) or name.endswith(('.json', '.md', '.txt')):
                    continue
                if run([quil, 'info', src])[0] != 0:
                    continue
                for what, check in (('faststart', check_faststart), ('remux', check_remux)):
                    if only and what != only:
                        continue
                    problems = check(quil, src, workdir)
                    counts[what] = counts.get(what, [0, 0])
                    counts[what][0] += 1
                    if problems:
                        failures += 1
                        counts[what][1] += 1
                        print('FAIL %-9s %s: %s' % (what, name, '; '.join(problems[:4])))
                    elif verbose:
                        print('ok   %-9s %s' % (what, name))
    for what, (n, bad) in sorted(counts.items()):
        print('%s: %d files, %d failed' % (what, n, bad))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
