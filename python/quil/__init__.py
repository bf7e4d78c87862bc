"""quil: read and write MP4-family files (MP4, MOV, 3GP) from Python.

Reading::

    import quil
    with quil.open("movie.mp4") as f:          # or an http(s):// URL
        for track in f.tracks:
            print(track.number, track.kind, track.codec, track.fourcc)
            table = track.sample_table()        # NumPy arrays, one row per sample
            first = track.read(0)               # bytes of the first sample

Writing::

    with quil.create("out.mp4") as w:
        video = w.add_track("video", "avc1", time_scale=12800,
                            width=1280, height=720, config=avcc)
        video.add_sample(frame, decode_time=0, sync=True)

Every failure raises quil.Error, whose `code` is the library's MP4Err value
and `name` its name. Reading and writing release the GIL; a file and its
tracks may be shared between threads (calls on one file take turns).
"""

from __future__ import annotations

import contextlib
import os
import tempfile
from typing import Iterator, Optional

from . import _quil
from ._quil import (  # noqa: F401  (re-exported)
    Error,
    File,
    Sample,
    SampleIterator,
    SampleTable,
    Track,
    Writer,
    WriterTrack,
)

__all__ = [
    "Error", "File", "Sample", "SampleTable", "Track", "Writer", "WriterTrack",
    "open", "create", "remux", "faststart", "error_name",
]

# The MP4Err codes by name: quil.MP4_ERR_IO == 4, ...
for _name in dir(_quil):
    if _name.startswith("MP4_"):
        globals()[_name] = getattr(_quil, _name)
        __all__.append(_name)
del _name


def open(path: str | os.PathLike) -> File:  # noqa: A001  (the package's entry point)
    """Opens a file (or an http:// / https:// URL) for reading.

    The whole box tree is read and every track bound at once; use the result
    as a context manager or call close(). Raises quil.Error: code 3
    (MP4_ERR_NOT_AVAILABLE) when there is no movie box, 4 when the file
    cannot be read.
    """
    return File(os.fspath(path))


def create(path: str | os.PathLike, file_type: int = 0) -> Writer:
    """Creates a file for writing.

    file_type selects the "ftyp" written: 0 MPEG-4, 1 3GPP4, 2 M4A, 3 AVC,
    4 PSP, 6 3GPP5, 7 3GPP2, 8 3GPP6, 9 none, 10 XAVC, 11 HEVC, 12 QuickTime.
    """
    return Writer(os.fspath(path), file_type)


def error_name(code: int) -> str:
    """The name of an MP4Err code ("MP4_ERR_IO" for 4)."""
    return _quil.make_error(code).name


@contextlib.contextmanager
def _temporary_beside(path: str) -> Iterator[str]:
    """A temporary file name in path's directory, removed afterwards unless
    it was renamed: outputs are written under it and renamed when complete,
    so a failure never leaves a half-written file."""
    handle, temporary = tempfile.mkstemp(
        prefix=".quil-", suffix=".mp4", dir=os.path.dirname(os.path.abspath(path)))
    os.close(handle)
    try:
        yield temporary
    finally:
        if os.path.exists(temporary):
            os.remove(temporary)


def remux(source: str | os.PathLike, target: str | os.PathLike,
          file_type: Optional[int] = None, faststart: bool = False) -> None:
    """Copies every video, audio and systems track of source into a new file,
    exactly as `quil remux` does: sample entries unchanged, samples with
    their times and sync flags, edit lists, languages and user data.

    file_type: as quil.create (None: the source's). faststart: put the movie
    box in front of the media data. Tracks that cannot be copied (hint,
    time code) are left out with a note on stderr.
    """
    source, target = os.fspath(source), os.fspath(target)
    kind = -1 if file_type is None else file_type
    with _temporary_beside(target) as temporary:
        if faststart:
            with _temporary_beside(target) as plain:
                _quil.remux(source, plain, kind)
                _quil.faststart(plain, temporary)
        else:
            _quil.remux(source, temporary, kind)
        os.replace(temporary, target)


def faststart(source: str | os.PathLike, target: str | os.PathLike) -> None:
    """Writes source to target with the movie box in front of the media data,
    every other box kept (as `quil faststart`). Raises quil.Error 8
    (MP4_ERR_WRONG_LAYOUT) when the movie box already comes first."""
    source, target = os.fspath(source), os.fspath(target)
    with _temporary_beside(target) as temporary:
        _quil.faststart(source, temporary)
        os.replace(temporary, target)
