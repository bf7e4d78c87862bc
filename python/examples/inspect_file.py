#!/usr/bin/python3
"""inspect_file.py FILE_OR_URL: the tracks of a file, a summary of each
sample table, the first sync sample before the middle of each track, and
the file's metadata."""
import sys

import quil


def main(path: str) -> int:
    try:
        with quil.open(path) as f:
            print(f"{path}: file type {f.file_type}, {len(f.tracks)} tracks")
            for track in f.tracks:
                table = track.sample_table()
                seconds = (track.duration or 0) / (track.time_scale or 1)
                shape = (f"{track.width}x{track.height}" if track.kind == "video"
                         else f"{track.sample_rate} Hz x {track.channels}" if track.kind == "audio" else "")
                print(f"  track {track.number}: {track.kind} {track.fourcc} ({track.codec}) {shape}, "
                      f"{len(track)} samples, {seconds:.3f} s, {int(table.size.sum())} bytes, "
                      f"{int(table.sync.sum())} sync")
                if len(track):
                    middle = int(table.decode_time[len(track) // 2])
                    print(f"    seek to {middle}: start decoding at sample {track.find_sync_before(middle)}")
            for key, value in f.meta.items():
                print(f"  {key} = {value}")
    except quil.Error as e:
        print(f"{path}: {e} (code {e.code})", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
