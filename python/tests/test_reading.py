"""Reading: every fixture read through Python agrees with the quil tool and
with the file's bytes."""
import threading

import numpy as np
import pytest

import quil
from conftest import GOOD, MEDIA, run_tool, tool_json


def tool_samples(path):
    """{track number: rows of `quil samples`}; the tool stops at a track it
    cannot read, whose number is then missing."""
    lines = run_tool("samples", path, check=False).stdout.splitlines()
    header = lines[0].split()
    tables = {}
    for line in lines[1:]:
        row = dict(zip(header, line.split()))
        tables.setdefault(int(row["track"]), []).append(row)
    return tables


@pytest.mark.parametrize("path", MEDIA, ids=lambda p: p.name)
def test_agrees_with_the_tool(path):
    done = run_tool("info", "--json", path, check=False)
    if done.returncode != 0:
        with pytest.raises(quil.Error) as caught:
            quil.open(path)
        assert caught.value.name in done.stderr
        return
    expected_samples = tool_samples(path)
    data = path.read_bytes()
    with quil.open(str(path)) as f:
        assert f.info() == tool_json("info", "--json", path)
        for track in f.tracks:
            rows = expected_samples.get(track.number, [])
            try:
                table = track.sample_table()
            except quil.Error:  # the tool cannot list it either
                assert len(rows) < len(track)
                continue
            if track.number not in expected_samples and len(track) > 0:
                continue  # the tool stopped at an earlier track
            assert len(table.offset) == len(rows) == len(track)
            columns = list(zip(*[[int(r[k]) for k in ("offset", "size", "decode_time", "composition_time", "sync")]
                                 for r in rows])) or [[]] * 5
            for got, want in zip(table, columns):
                assert got.tolist() == list(want)
            buffer = np.empty(max(table.size, default=0), np.uint8)
            for i, (offset, size) in enumerate(zip(table.offset, table.size)):
                expected = data[offset:offset + size]
                if len(expected) < size:  # a truncated file: the read fails
                    with pytest.raises(quil.Error):
                        track.read(i)
                    continue
                assert track.read(i) == expected
                assert track.read_into(i, buffer) == size
                assert buffer[:size].tobytes() == expected


def test_meta_lists_what_the_tool_lists(tmp_path):
    source = str(GOOD[0])
    target = tmp_path / "tagged.mp4"
    run_tool("meta", source, "--set", "title:eng=Hello", "--set", "track1.author=Me", "-o", target)
    with quil.open(target) as f:
        items = tool_json("meta", "--json", target)["items"]
        assert len(items) == 2
        assert f.meta == {"title:eng": "Hello", "track1.author:und": "Me"}


def test_track_properties():
    with quil.open(next(p for p in GOOD if p.name == "rotate-90.mp4")) as f:
        video = f.tracks[0]
        assert (video.kind, video.fourcc, video.rotation) == ("video", "avc1", 90.0)
        assert video.sample_rate is None and video.width > 0
        assert video.config[0] == 1  # avcC version
    with quil.open(next(p for p in GOOD if p.name == "audio-delay.mp4")) as f:
        audio = [t for t in f.tracks if t.kind == "audio"][0]
        assert audio.initial_delay > 0 and audio.initial_delay == audio.edit_list[0]
        assert audio.sample_table().decode_time[0] == audio.initial_delay


def test_iteration_and_seeking():
    with quil.open(next(p for p in GOOD if p.name == "h264-bframes.mp4")) as f:
        video = f.tracks[0]
        table = video.sample_table()
        samples = list(video)
        assert [s.index for s in samples] == list(range(len(video)))
        assert [s.composition_time for s in samples] == table.composition_time.tolist()
        assert all(s.data == video.read(s.index) for s in samples[:5])
        last = int(table.decode_time[-1])
        sync = f.find_sync_before(video, last)
        assert table.sync[sync] and not table.sync[sync + 1:].any()


@pytest.mark.parametrize("call, code", [
    (lambda t: t.read(len(t)), None),
    (lambda t: t.read(-1), None),
    (lambda t: t.read_into(0, bytearray(1)), quil.MP4_ERR_BUFFER_TOO_SMALL),
    (lambda t: t.read_into(0, b"read only"), None),
])
def test_bad_calls_raise(call, code):
    with quil.open(GOOD[0]) as f:
        expected = quil.Error if code else (IndexError, BufferError)
        with pytest.raises(expected) as caught:
            call(f.tracks[0])
        if code:
            assert caught.value.code == code and caught.value.name == "MP4_ERR_BUFFER_TOO_SMALL"


def test_closed_files_raise():
    f = quil.open(GOOD[0])
    track = f.tracks[0]
    f.close()
    with pytest.raises(quil.Error) as caught:
        track.read(0)
    assert caught.value.code == quil.MP4_ERR_NOT_AVAILABLE
    with pytest.raises(quil.Error) as caught:
        quil.open(DATA_MISSING := str(GOOD[0]) + ".missing")
    assert caught.value.code == quil.MP4_ERR_IO and DATA_MISSING in str(caught.value)


def test_threads_share_a_file():
    with quil.open(GOOD[0]) as f:
        track = f.tracks[0]
        expected = [track.read(i) for i in range(len(track))]
        results = []

        def work():
            results.append([track.read(i) for i in range(len(track))] == expected)

        threads = [threading.Thread(target=work) for _ in range(4)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        assert results == [True] * 4
