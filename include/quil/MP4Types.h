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

// The mode argument of CMp4File::open.
enum MP4OpenMode : uint32_t {
    MP4_OPEN_READ = 0,
    MP4_OPEN_WRITE = 1
};

// CMp4File::setTrackMode: how writing audio tracks made afterwards store
// raw PCM (see there).
enum MP4TrackMode : uint32_t {
    MP4_TRACK_MODE_NORMAL = 0,          // one addSample call = one sample
    MP4_TRACK_MODE_CHUNK_AS_SAMPLE = 1  // raw PCM: one addSample call = one chunk
    // (2 is accepted too and writes as 1)
};

// CMp4File::createHintTrack: the RTP payload format of a hint track.
enum MP4HintKind : int32_t {
    MP4_HINT_MPEG4_VISUAL = 1,  // RFC 3016
    MP4_HINT_AAC_LATM = 2,      // RFC 3016
    MP4_HINT_AAC = 3,           // RFC 3640 (AAC-hbr)
    MP4_HINT_H263 = 4,          // RFC 4629
    MP4_HINT_AMR = 5,           // RFC 4867, AMR and AMR-WB
    MP4_HINT_H264 = 6           // RFC 6184
};

// CMp4File::setMovieDurationRule: which duration close writes into the
// movie header ("mvhd").
enum MP4MovieDurationRule : uint32_t {
    MP4_MOVIE_DURATION_FIRST_TRACK = 0,   // the default: the first track's
    MP4_MOVIE_DURATION_LONGEST_TRACK = 1  // the longest track's, as players show it
};

// Codec numbers answered by CMp4Track::getCodecType, from the first
// sample entry's format (and, for "mp4v"/"mp4a", the ES object type).
enum MP4CodecType : uint32_t {
    MP4_CODEC_MPEG4_VISUAL = 1,     // "mp4v", every object type but MPEG-1/2 video
    MP4_CODEC_AAC = 2,              // "mp4a", object type 0x40 or 0x67
    MP4_CODEC_MPEG4_SYSTEMS = 3,    // "mp4s"
    MP4_CODEC_H263 = 4,             // "h263", "s263"
    MP4_CODEC_AMR_WB = 5,           // "sawb"
    MP4_CODEC_AMR_NB = 6,           // "samr"
    MP4_CODEC_AVC = 7,              // "avc1"
    MP4_CODEC_MPEG1_AUDIO = 8,      // "mp4a", object type 0x6B (MP3)
    MP4_CODEC_MPEG2_AUDIO = 9,      // "mp4a", object type 0x69
    MP4_CODEC_JPEG = 10,            // "jpeg", "mjpa", "mjpb"
    MP4_CODEC_ULAW = 11,            // "ulaw"
    MP4_CODEC_ALAW = 12,            // "alaw"
    MP4_CODEC_RAW_AUDIO = 13,       // "raw " in a track that is not video
    MP4_CODEC_PCM_LITTLE_ENDIAN = 14,  // "sowt"
    MP4_CODEC_PCM_BIG_ENDIAN = 15,  // "twos"
    MP4_CODEC_FLOAT_LITTLE_ENDIAN = 16,  // "fl32" with a little-endian "enda"
    MP4_CODEC_FLOAT_BIG_ENDIAN = 17,     // "fl32" otherwise
    MP4_CODEC_DV = 19,              // "dvc ", "dvcp", "dvpp", "dv25", "dc25"
    MP4_CODEC_CINEPAK = 20,         // "cvid"
    MP4_CODEC_RAW_VIDEO = 21,       // "raw " in a video track
    MP4_CODEC_PNG = 22,             // "png "
    MP4_CODEC_ADPCM_MS = 23,        // 0x6D730002
    MP4_CODEC_ADPCM_IMA = 24,       // 0x6D730011
    MP4_CODEC_UYVY = 25,            // "2vuy"
    MP4_CODEC_MPEG2_VIDEO = 26,     // "mp4v" with object type 0x60, 0x61 or 0x64; "mx5p", "xdvc"
    MP4_CODEC_MP3_QUICKTIME = 27,   // 0x6D730055
    MP4_CODEC_AC3 = 28,             // "ac-3"
    MP4_CODEC_DV50 = 29,            // "dv5n", "dv5p", "dv50"
    MP4_CODEC_DVCPRO_HD = 30,       // "dvh1", "dvh3", "dvh5", "dvh6", "dvhd", "dvhp", "dvhq"
    MP4_CODEC_LPCM = 32,            // "lpcm"
    MP4_CODEC_HEVC = 33,            // "hvc1", "hev1"
    MP4_CODEC_PCM24 = 34            // "in24"
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
