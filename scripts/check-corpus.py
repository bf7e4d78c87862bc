#!/usr/bin/env python3
"""Compares `quil samples` and `quil info --json` with the ground-truth
files (*.truth.json) of a test-media corpus.

usage: check-corpus.py QUIL_BINARY CORPUS_DIR [--verbose]

Per sample: offset, size and sync must be equal; decode time must equal the
raw sample-table time plus the track's initial delay; composition time the
raw composition time plus that delay (negative composition offsets that
would go below zero keep the previous composition time, as quil does).
"""
import json
import os
import subprocess
import sys


def run(cmd):
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120)
    return p.returncode, p.stdout.decode('utf-8', 'replace'), p.stderr.decode('utf-8', 'replace')


def expected_rows(track):
    samples = track.get('samples') or {}
    rows = samples.get('rows') or []
    delay = track.get('initial_delay_media') or 0
    out = []
    prev_cts = None
    for row in rows:
        offset, size, dts, cts, sync = row[:5]
        d = dts + delay
        if cts < dts and (dts - cts) > d:
            c = prev_cts if prev_cts is not None else d
        else:
            c = cts + delay
        prev_cts = c
        out.append((offset, size, d, c, sync))
    return out


def check_file(quil, path, verbose):
    truth = json.load(open(path + '.truth.json'))
    problems = []
    rc, out, err = run([quil, 'samples', path])
    if rc != 0:
        return ['quil samples failed: ' + err.strip()]
    got = {}
    for line in out.splitlines():
        parts = line.split('\t')
        if len(parts) != 7:
            continue
        t, n, off, size, d, c, s = (int(x) for x in parts)
        got.setdefault(t, []).append((off, size, d, c, s))
    for index, track in enumerate(truth.get('tracks', []), start=1):
        exp = expected_rows(track)
        have = got.get(index, [])
        if len(exp) != len(have):
            problems.append('track %d: %d samples, expected %d' % (index, len(have), len(exp)))
        for i, (e, h) in enumerate(zip(exp, have), start=1):
            if e[0] != h[0] or e[1] != h[1] or e[4] != h[4]:
                problems.append('track %d sample %d: offset/size/sync %s, expected %s' % (index, i, h, e))
                break
            if e[2] != h[2] or e[3] != h[3]:
                problems.append('track %d sample %d: times %s, expected %s' % (index, i, h[2:4], e[2:4]))
                break
    return problems


def main():
    if len(sys.argv) < 3:
        print(__doc__)
        return 2
    quil, corpus = sys.argv[1], sys.argv[2]
    verbose = '--verbose' in sys.argv
    failed = 0
    names = sorted(f[:-len('.truth.json')] for f in os.listdir(corpus) if f.endswith('.truth.json'))
    for name in names:
        path = os.path.join(corpus, name)
        problems = check_file(quil, path, verbose)
        if problems:
            failed += 1
            print('FAIL %s' % name)
            for p in problems[:5]:
                print('   ' + p)
        elif verbose:
            print('ok   %s' % name)
    print('%d passed, %d failed' % (len(names) - failed, failed))
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
