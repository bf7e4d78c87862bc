#!/usr/bin/python3
"""copy_tracks.py IN OUT [TITLE]: writes a new file with every audio and
video track of IN, sample by sample, through the write interface: the
sample entries (codec configuration included) and edit lists are copied,
and the movie gets a 3GPP title. (quil.remux does all this, and copies
user data too, in one call.)"""
import sys

import quil


def copy(source: str, target: str, title: str) -> None:
    with quil.open(source) as f, quil.create(target, f.file_type) as w:
        w.set_meta("title", title, language="eng")
        copies = []
        for track in f.tracks:
            if track.kind not in ("video", "audio"):
                continue
            out = w.add_track_from(track)
            out.set_edit_list(*track.edit_list)
            copies.append((track, out, track.sample_table()))
        buffer = bytearray(1 << 20)
        for track, out, table in copies:
            # Times as read include the initial delay; the edit list adds it back.
            delay = track.initial_delay
            for i in range(len(track)):
                if table.size[i] > len(buffer):
                    buffer = bytearray(int(table.size[i]))
                size = track.read_into(i, buffer)
                out.add_sample(memoryview(buffer)[:size], int(table.decode_time[i]) - delay,
                               int(table.composition_time[i]) - delay, bool(table.sync[i]))


if __name__ == "__main__":
    copy(sys.argv[1], sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else "copied with quil")
