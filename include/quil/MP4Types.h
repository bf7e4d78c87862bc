// quil: file types, track kinds and four-character codes.
#ifndef QUIL_MP4TYPES_H
#define QUIL_MP4TYPES_H

#include <cstdint>

namespace quil {

// Brand family of a file: selects the "ftyp" written in write mode and is
// detected from the major brand in read mode.
enum MP4FileType : uint32_t {
    MP4_FILE_MPEG4 = 0,       // "mp42"; also any unrecognised major brand
    MP4_FILE_3GPP4 = 1,       // "3gp4"
    MP4_FILE_M4A = 2,         // "M4A "
    MP4_FILE_AVC = 3,         // "avc1"
    MP4_FILE_PSP = 4,         // "MSNV" (adds the PSP profile box when writing)
    MP4_FILE_MPEG4_ALT = 5,   // written like 0, never detected
    MP4_FILE_3GPP5 = 6,       // "3gp5"
    MP4_FILE_3GPP2 = 7,       // "3g2a"
    MP4_FILE_3GPP6 = 8,       // "3gp6"
    MP4_FILE_NO_FTYP = 9,     // no "ftyp" box at all
    MP4_FILE_XAVC = 10,       // "XAVC"
    MP4_FILE_HEVC = 11,       // "iso4", never detected
    MP4_FILE_QUICKTIME = 12   // "qt  ", never detected
};

// Kind of a track, from its media header box or handler.
enum MP4TrackType : uint32_t {
    MP4_TRACK_OTHER = 0,
    MP4_TRACK_VIDEO = 1,
    MP4_TRACK_AUDIO = 2,
    MP4_TRACK_HINT = 3,
    MP4_TRACK_OBJECT_DESCRIPTOR = 4,
    MP4_TRACK_SCENE_DESCRIPTION = 5,
    MP4_TRACK_TIMECODE = 6
};

// Four-character code as a 32-bit value, first character most significant:
// fourcc("moov") == 0x6D6F6F76.
constexpr uint32_t fourcc(const char (&code)[5]) {
    return (static_cast<uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
           (static_cast<uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
           (static_cast<uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
           static_cast<uint32_t>(static_cast<unsigned char>(code[3]));
}

}  // namespace quil

#endif
