#!/usr/bin/env python3
"""Compares `quil samples` and `quil info --json` with the ground-truth
files (*.truth.json) of a test-media corpus.

usage: check-corpus.py QUIL_BINARY CORPUS_DIR [--verbose]

Per sample: offset, size and sync must be equal; decode time must equal the
raw sample-table time plus the track's initial delay; composition time the
raw composition time plus that delay (negative composition offsets that
would go below zero keep the previous composition time, as quil does).
Fragmented files are compared with ffprobe's packets instead: offset, size
and key flag equal, decode times up to one constant per track.
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


# quil codec numbers and the ffprobe codec names they stand for.
CODEC_NAMES = {
    1: {'mpeg4'}, 2: {'aac'}, 3: {'mpeg4systems', None}, 4: {'h263'}, 5: {'amr_wb'},
    6: {'amr_nb'}, 7: {'h264'}, 8: {'mp3', 'mp2'}, 9: {'mp3', 'mp2'}, 10: {'mjpeg'},
    11: {'pcm_mulaw'}, 12: {'pcm_alaw'}, 13: {'pcm_u8'}, 14: {'pcm_s16le'},
    15: {'pcm_s16be'}, 16: {'pcm_f32le'}, 17: {'pcm_f32be'}, 19: {'dvvideo'},
    20: {'cinepak'}, 21: {'rawvideo'}, 22: {'png'}, 23: {'adpcm_ms'},
    24: {'adpcm_ima_qt', 'adpcm_ima_wav'}, 25: {'rawvideo'}, 26: {'mpeg2video'},
    27: {'mp3'}, 28: {'ac3'}, 29: {'dvvideo'}, 30: {'dvvideo'}, 32: {'pcm_s16le', 'pcm_s16be', 'pcm_s24le',
    'pcm_s24be', 'pcm_f32le', 'pcm_f32be'}, 33: {'hevc'}, 34: {'pcm_s24be', 'pcm_s24le'},
}

AAC_CHANNELS = {1: 1, 2: 2, 3: 3, 4: 4, 5: 5, 6: 6, 7: 8}


def aac_channels(dsi_hex):
    """Channel configuration of an AudioSpecificConfig, or None."""
    try:
        b = bytes.fromhex(dsi_hex)
        bits = int.from_bytes(b, 'big')
        n = len(b) * 8
        aot = bits >> (n - 5)
        pos = 5
        if aot == 31:
            pos += 6
        freq_index = (bits >> (n - pos - 4)) & 15
        pos += 4
        if freq_index == 15:
            pos += 24
        return AAC_CHANNELS.get((bits >> (n - pos - 4)) & 15)
    except Exception:
        return None


def check_info(quil, path, truth):
    problems = []
    rc, out, err = run([quil, 'info', path, '--json'])
    if rc != 0:
        return ['quil info failed: ' + err.strip()]
    info = json.loads(out)
    streams = truth.get('streams', [])
    for index, (track, mine) in enumerate(zip(truth.get('tracks', []), info.get('tracks', [])), 1):
        entry = track.get('sample_entry') or {}
        if entry.get('type') and str(mine.get('sampleEntry')).lower() != entry['type'].lower():
            problems.append('track %d: sample entry %s, expected %s' % (index, mine.get('sampleEntry'), entry['type']))
        stream = streams[index - 1] if index - 1 < len(streams) else {}
        if stream.get('codec_tag_string') and stream['codec_tag_string'] != mine.get('sampleEntry'):
            if '[' not in stream['codec_tag_string']:
                problems.append('track %d: tag %s, ffprobe %s' % (index, mine.get('sampleEntry'), stream['codec_tag_string']))
        name = stream.get('codec_name')
        if 'codec' in mine and name and name not in CODEC_NAMES.get(mine['codec'], set()):
            problems.append('track %d: codec %s, ffprobe %s' % (index, mine['codec'], name))
        for key, theirs in (('width', 'width'), ('height', 'height'), ('sampleRate', 'sample_rate')):
            if theirs in stream and key in mine and int(stream[theirs]) != int(mine[key]):
                problems.append('track %d: %s %s, ffprobe %s' % (index, key, mine[key], stream[theirs]))
        if 'channels' in stream and 'channels' in mine:
            expected = stream['channels']
            got = mine['channels']
            dsi = mine.get('decoderSpecificInfo')
            if got != expected and not (dsi and aac_channels(dsi) == expected):
                problems.append('track %d: channels %s, ffprobe %s' % (index, got, expected))
        esds = (entry.get('children') or {}).get('esds') or {}
        if esds.get('dsi') and esds['dsi'] != mine.get('decoderSpecificInfo'):
            problems.append('track %d: dsi %s, expected %s' % (index, mine.get('decoderSpecificInfo'), esds['dsi']))
        tc = (stream.get('tags') or {}).get('timecode')
        if tc and track.get('handler') == 'tmcd' and mine.get('timecode') != tc:
            problems.append('track %d: timecode %s, ffprobe %s' % (index, mine.get('timecode'), tc))
    return problems


# Streams whose packets ffmpeg rebuilds from the samples (608 captions are
# unwrapped from their "cdat" boxes), so sizes never match the file's.
REPACKED_CODECS = {'eia_608'}


def stream_packets(truth, track_id):
    """ffprobe's packets of the stream of a track ID, or None."""
    for stream in truth.get('streams') or []:
        if stream.get('codec_name') in REPACKED_CODECS:
            continue
        try:
            sid = int(str(stream.get('id')), 0)
        except ValueError:
            continue
        if sid == track_id:
            return (truth.get('packets') or {}).get(str(stream.get('index')), {}).get('rows')
    return None


def check_fragmented(got, truth):
    """Fragmented files: the samples against ffprobe's packets. Offset,
    size and key flag must be equal; decode times may differ by one constant
    per track (ffprobe applies the edit list)."""
    problems = []
    for index, track in enumerate(truth.get('tracks', []), start=1):
        rows = stream_packets(truth, track.get('track_id'))
        if rows is None:
            continue
        have = got.get(index, [])
        if len(rows) != len(have):
            problems.append('track %d: %d samples, expected %d' % (index, len(have), len(rows)))
        shift = None
        for i, (e, h) in enumerate(zip(rows, have), start=1):
            pos, size, dts, _pts, key = e[:5]
            if pos != h[0] or size != h[1] or key != h[4]:
                problems.append('track %d sample %d: offset/size/sync %s, expected %s' %
                                (index, i, (h[0], h[1], h[4]), (pos, size, key)))
                break
            if shift is None:
                shift = h[2] - dts
            if h[2] - dts != shift:
                problems.append('track %d sample %d: decode time %d, expected %d' %
                                (index, i, h[2], dts + shift))
                break
    return problems


def packed_size(packets, offset, size):
    """True when size is the bytes of ffprobe's packets that start at offset
    and follow one another: a chunk of compressed audio (ADPCM) read as one
    sample, whose table size (one byte per audio sample) is no byte count."""
    total = 0
    for row in packets:
        if row[0] == offset + total:
            total += row[1]
    return total > 0 and total == size


def check_file(quil, path, verbose):
    truth = json.load(open(path + '.truth.json'))
    problems = []
    rc, out, err = run([quil, 'samples', path])
    if rc != 0:
        return ['quil samples failed: ' + err.strip()]
    got = {}
    for line in out.splitlines():
        parts = line.split('\t')
        if len(parts) != 7 or parts[0] == 'track':  # the header row
            continue
        t, n, off, size, d, c, s = (int(x) for x in parts)
        got.setdefault(t, []).append((off, size, d, c, s))
    if truth.get('fragmented'):
        return check_fragmented(got, truth) + check_info(quil, path, truth)
    for index, track in enumerate(truth.get('tracks', []), start=1):
        exp = expected_rows(track)
        have = got.get(index, [])
        if len(exp) != len(have):
            problems.append('track %d: %d samples, expected %d' % (index, len(have), len(exp)))
        packets = ((truth.get('packets') or {}).get(str(index - 1)) or {}).get('rows') or []
        for i, (e, h) in enumerate(zip(exp, have), start=1):
            if e[1] != h[1] and packed_size(packets, h[0], h[1]):
                e = (e[0], h[1]) + e[2:]
            if e[0] != h[0] or e[1] != h[1] or e[4] != h[4]:
                problems.append('track %d sample %d: offset/size/sync %s, expected %s' % (index, i, h, e))
                break
            if e[2] != h[2] or e[3] != h[3]:
                problems.append('track %d sample %d: times %s, expected %s' % (index, i, h[2:4], e[2:4]))
                break
    return problems + check_info(quil, path, truth)


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
