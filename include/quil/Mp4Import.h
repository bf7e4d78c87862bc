// quil: importing raw elementary streams into a file being written.
#ifndef QUIL_MP4IMPORT_H
#define QUIL_MP4IMPORT_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

class CMp4File;

// One raw stream to import as a track. The format is recognised from the
// content (and, for H.264 and HEVC, the file name's extension where the
// content leaves a doubt):
//
// | stream                               | track                                  |
// |--------------------------------------|----------------------------------------|
// | H.264 Annex B (.264, .h264, .avc)    | "avc1" + avcC; time scale from the     |
// |                                      | VUI timing (or frameRate*, else 25 fps)|
// | HEVC Annex B (.265, .h265, .hevc)    | "hvc1" + hvcC; timing from VPS/SPS VUI |
// | AAC in ADTS                          | "mp4a", AudioSpecificConfig, 1024/frame|
// | AMR "#!AMR\n", AMR-WB "#!AMR-WB\n"   | "samr" / "sawb", one frame per sample  |
// | MP3 (MPEG-1/2/2.5 audio, layers 1-3) | "mp4a", object type 0x6B / 0x69        |
// | WAV, PCM 8/16/24-bit or 32-bit float | "raw ", "sowt", "in24", "fl32"         |
//
// Video: parameter sets go into the configuration record and are left out
// of the samples (as are access unit delimiters); NAL units become
// 4-byte-length-prefixed samples, one access unit each; IDR (H.264) and
// IRAP (HEVC) pictures are sync samples; with reordered pictures
// (B-frames) composition times follow the picture order count and an edit
// list starts the presentation at the first picture shown. Pictures before
// the first sync picture cannot be decoded and are left out. A stream
// whose parameter sets change their contents midway is not imported.
// MP3: an encoder information frame (Xing/Info/VBRI) is left out; its
// encoder delay and padding become an edit list.
struct MP4ImportStream {
    const wchar_t* path = nullptr;     // the raw stream (UTF-32 wide path, as CMp4File::open)
    const char* language = nullptr;    // ISO 639-2/T code, three lower-case letters; null: "und"
    const char* name = nullptr;        // the track's handler name; null: the default
    // Video frame rate as frameRateNumerator / frameRateDenominator frames
    // per second (30000/1001 for NTSC); used instead of the stream's own
    // timing. 0/0: the stream's, or 25 fps when it gives none.
    uint32_t frameRateNumerator = 0;
    uint32_t frameRateDenominator = 0;
};

// What went wrong: the 1-based number of the stream concerned (0 when it
// is none in particular) and one English line saying why ("AAC (ADTS):
// frame at byte 5120 is cut short"); an empty message on success.
struct MP4ImportReport {
    uint32_t stream = 0;
    char message[256] = {};
};

// Adds one track per stream, in the order given, to a file opened for
// writing (CMp4File::open with MP4_OPEN_WRITE), writes every sample,
// interleaved by time in chunks of about a second, and releases the
// tracks; the caller then closes the file (and may first set the movie
// duration rule, or add metadata). Each input file is mapped read-only and
// read twice (a scan, then the samples), so memory stays proportional to
// the sample count, not the stream's size.
//
// Errors: 2 for a null file or streams, a count of 0, a language that is
// not three lower-case letters, or half a frame rate; 3 when the file is
// not open for writing; 4 when an input cannot be read; 5 for a stream
// whose content is damaged or not recognised; 12 for a recognised form
// that is not imported (e.g. AAC with several raw blocks per ADTS frame,
// WAV in another coding than PCM or float); errors of the write interface
// pass through. report (may be null) says which stream and why. Tracks
// added before a failure stay in the file.
QUIL_API MP4Err Mp4ImportStreams(CMp4File* file, const MP4ImportStream* streams, uint32_t count,
                                 MP4ImportReport* report = nullptr);

// The MP4FileType that suits an output file's name: ".m4a" M4A (2),
// ".3gp" 3GPP (1), ".mov" QuickTime (12), anything else MPEG-4 (0).
QUIL_API uint32_t Mp4FileTypeForName(const wchar_t* path);

}  // namespace quil

#endif
