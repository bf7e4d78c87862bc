"""Writing: files made from Python read back exactly, decode in ffmpeg like
their source, and remux/faststart give the tool's bytes."""
import shutil
import subprocess

import pytest

import quil
from conftest import DATA, run_tool, tool_json

SOURCE = DATA / "h264-bframes.mp4"
AV = DATA / "h264-aac.mp4"


def copy_tracks(source, target):
    """Copies every track sample by sample, edit lists included."""
    with quil.open(source) as f, quil.create(target) as w:
        w.set_meta("title", "copied", language="eng")
        for track in f.tracks:
            out = w.add_track_from(track)
            delay, first, presented = track.edit_list
            out.set_edit_list(delay, first, presented)
            for s in track:
                out.add_sample(s.data, s.decode_time - delay, s.composition_time - delay, s.sync)


def framemd5(path):
    done = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", str(path), "-f", "framemd5", "-"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return [line for line in done.stdout.splitlines() if not line.startswith("#")]


@pytest.mark.parametrize("source", [AV, SOURCE], ids=lambda p: p.name)
def test_a_copy_decodes_like_its_source(source, tmp_path):
    if shutil.which("ffmpeg") is None:
        pytest.skip("ffmpeg is not installed")
    target = tmp_path / "copy.mp4"
    copy_tracks(source, target)
    assert framemd5(target) == framemd5(source)
    with quil.open(source) as f, quil.open(target) as g:
        assert g.meta == {"title:eng": "copied"}
        for a, b in zip(f.tracks, g.tracks):
            assert (a.fourcc, a.time_scale, a.language, a.config) == (b.fourcc, b.time_scale, b.language, b.config)
            for column in ("size", "decode_time", "composition_time", "sync"):
                assert (getattr(a.sample_table(), column) == getattr(b.sample_table(), column)).all()


def test_a_track_from_codec_parameters_reads_back(tmp_path):
    target = tmp_path / "params.mp4"
    with quil.open(SOURCE) as f:
        video = f.tracks[0]
        with quil.create(target) as w:
            out = w.add_track("video", "avc1", time_scale=video.time_scale, width=video.width,
                              height=video.height, config=video.config, language="fra")
            out.set_meta("author", "quil", language="eng")
            for i in range(len(video)):
                out.add_sample(memoryview(video.read(i)), 1000 * i, 1000 * i, i == 0)
        with quil.open(target) as g:
            copy = g.tracks[0]
            assert (copy.kind, copy.fourcc, copy.language, copy.width, copy.config) == \
                ("video", "avc1", "fra", video.width, video.config)
            assert copy.sample_table().decode_time.tolist() == [1000 * i for i in range(len(video))]
            assert [copy.read(i) for i in range(len(copy))] == [video.read(i) for i in range(len(video))]
            assert g.meta == {"track1.author:eng": "quil"}


@pytest.mark.parametrize("call, code", [
    (lambda w: w.add_track("video", "avc1", config=b"not a record"), quil.MP4_ERR_INVALID_ARGUMENT),
    (lambda w: w.add_track("subtitles", "tx3g"), quil.MP4_ERR_INVALID_ARGUMENT),
    (lambda w: w.add_track("video", "avc"), quil.MP4_ERR_INVALID_ARGUMENT),
    (lambda w: w.set_meta("colour", "blue"), quil.MP4_ERR_INVALID_ARGUMENT),
])
def test_bad_parameters_raise(call, code, tmp_path):
    with pytest.raises(quil.Error) as caught:
        with quil.create(tmp_path / "bad.mp4") as w:
            call(w)
    assert caught.value.code == code


def test_samples_out_of_order_raise(tmp_path):
    with quil.open(AV) as f, quil.create(tmp_path / "order.mp4") as w:
        out = w.add_track_from(f.tracks[1])
        out.add_sample(f.tracks[1].read(0), 100)
        with pytest.raises(quil.Error) as caught:
            out.add_sample(f.tracks[1].read(1), 100)
        assert caught.value.code == quil.MP4_ERR_BAD_TIME


def test_remux_and_faststart_write_what_the_tool_writes(tmp_path):
    for args in ([], ["--faststart"], ["--type", "1"]):
        ours, theirs = tmp_path / "ours.mp4", tmp_path / "theirs.mp4"
        quil.remux(AV, ours, faststart="--faststart" in args, file_type=1 if "--type" in args else None)
        run_tool("remux", AV, theirs, *args)
        assert ours.read_bytes() == theirs.read_bytes()
    quil.faststart(AV, tmp_path / "fast.mp4")
    run_tool("faststart", AV, tmp_path / "fast-tool.mp4")
    assert (tmp_path / "fast.mp4").read_bytes() == (tmp_path / "fast-tool.mp4").read_bytes()
    with pytest.raises(quil.Error) as caught:
        quil.faststart(tmp_path / "fast.mp4", tmp_path / "again.mp4")
    assert caught.value.code == quil.MP4_ERR_WRONG_LAYOUT
    assert sorted(p.name for p in tmp_path.iterdir()) == ["fast-tool.mp4", "fast.mp4", "ours.mp4", "theirs.mp4"]


@pytest.mark.parametrize("command", [["remux"], ["fragment"], ["fragment", "--segments"]],
                         ids=" ".join)
def test_cut_off_input_is_salvaged_with_exit_status_3(command, tmp_path):
    cut = DATA / "bad-truncated-mdat-faststart.mp4"
    out = tmp_path / "out"
    args = [command[0], cut, *(["--segments", out] if len(command) > 1 else [out])]
    done = run_tool(*args, check=False)
    assert done.returncode == 3, done.stderr
    assert "track 1: 15 of 25 samples could not be read and are left out" in done.stderr
    assert out.exists()
    done = run_tool(command[0], AV, *(["--segments", tmp_path / "good"] if len(command) > 1
                                      else [tmp_path / "good.mp4"]))
    assert done.returncode == 0


@pytest.mark.parametrize("source, args, brand", [
    ("h263-amrnb.3gp", [], "3gp4"), ("pcm-twos.mov", [], "qt  "), ("h264-aac.mp4", [], "isom"),
    ("h264-aac.mp4", ["--type", "2"], "M4A "), ("h264-aac.mp4", ["--type", "0"], "mp42"),
], ids=lambda v: v if isinstance(v, str) else " ".join(v))
def test_remux_keeps_the_input_brands_unless_a_type_is_given(source, args, brand, tmp_path):
    out = tmp_path / "out.mp4"
    run_tool("remux", DATA / source, out, *args)
    assert tool_json("info", "--json", out)["majorBrand"] == brand
