// quil: one track of a file, with its samples and properties.
#ifndef QUIL_MP4TRACK_H
#define QUIL_MP4TRACK_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"
#include "MP4Types.h"

namespace quil {

class CMp4MetaData;

// Codec parameters of a sample entry made by CMp4Track::addSampleEntry.
// Value-initialise it (MP4SampleEntryInfo info{};) and fill what the
// format needs:
//
// | format                      | needs                                        |
// |-----------------------------|----------------------------------------------|
// | "avc1", "avc3"              | width, height; config = AVC decoder          |
// |                             | configuration record ("avcC" payload)        |
// | "hvc1", "hev1"              | width, height; config = HEVC decoder         |
// |                             | configuration record ("hvcC" payload)        |
// | "mp4v"                      | width, height; config = decoder-specific     |
// |                             | info (VOS/VOL headers), may be empty         |
// | "s263"                      | width, height; config = the 7-byte "d263"    |
// |                             | payload, or empty for vendor "quil",         |
// |                             | level 10, profile 0                          |
// | "jpeg"                      | width, height                                |
// | "mp4a"                      | sampleRate, channels; config = decoder-      |
// |                             | specific info (AudioSpecificConfig for AAC), |
// |                             | empty for MP3 (objectTypeIndication 0x6B)    |
// | "samr", "sawb"              | config = the 9-byte "damr" payload, or empty |
// |                             | for vendor "quil", all modes, 1 frame/sample |
// | "twos", "sowt", "raw ",     | sampleRate, channels, sampleBits (8/16 or    |
// | "ulaw", "alaw"              | the coded size)                              |
// | "in24", "fl32"              | sampleRate, channels; littleEndian           |
// | "lpcm"                      | not built (12): its QuickTime version-2      |
// |                             | description is never written; use "sowt",    |
// |                             | "twos", "in24" or "fl32"                     |
//
// Bit rates and buffer size of "esds"/"btrt" are filled in when the track
// is finalised. The ES ID of "esds" is the track ID.
struct MP4SampleEntryInfo {
    uint32_t format = 0;  // four-character code, e.g. fourcc("avc1")
    // Visual entries: coded size in pixels.
    uint16_t width = 0;
    uint16_t height = 0;
    // Sound entries.
    uint32_t sampleRate = 0;  // Hz
    uint16_t channels = 0;
    uint16_t sampleBits = 0;  // bits per channel sample; 0 means 16
    bool littleEndian = false;  // "in24", "fl32"
    // "mp4v"/"mp4a": ES object type indication; 0 picks 0x20 (MPEG-4
    // visual) or 0x40 (MPEG-4 audio).
    uint8_t objectTypeIndication = 0;
    // Codec configuration bytes (copied), as the table above says.
    const uint8_t* config = nullptr;
    uint32_t configLength = 0;
};

// Sample numbers are 1-based. Times are 64-bit values in the track's media
// time scale; decode and composition times include the edit list's initial
// delay. Out-parameters are set to 0 before anything is checked.
class QUIL_API CMp4Track {
public:
    virtual MP4Err getSampleCount(uint32_t* count) = 0;
    virtual MP4Err getTrackType(uint32_t* type) = 0;          // MP4TrackType
    virtual MP4Err getSampleEntryType(uint32_t* format) = 0;  // fourcc of the first sample entry
    virtual MP4Err getCodecType(uint32_t* codec) = 0;         // MP4CodecType
    virtual MP4Err getTrackId(uint32_t* trackId) = 0;

    // Track properties.
    virtual MP4Err getDuration(uint64_t* duration) = 0;  // "tkhd", movie time units
    virtual MP4Err getTimeScale(uint32_t* timeScale) = 0;  // "mdhd" media time scale
    virtual MP4Err getMediaDuration(uint64_t* duration) = 0;  // "mdhd", media time units
    virtual MP4Err getWidth(uint32_t* width) = 0;    // first visual sample entry
    virtual MP4Err getHeight(uint32_t* height) = 0;  // first visual sample entry
    virtual MP4Err getChannelCount(uint32_t* channels) = 0;  // first sound sample entry
    virtual MP4Err getSampleRate(uint32_t* sampleRate) = 0;  // first sound entry, Hz (integer part)
    virtual MP4Err getSampleBits(uint32_t* bits) = 0;        // first sound entry, bits per sample
    // "esds" decoder-specific bytes of sample description 1. A null buffer
    // asks for the length only; a buffer too small gives 7 with the length set.
    virtual MP4Err getDecoderSpecificInfo(uint8_t* buffer, uint32_t bufferSize,
                                          uint32_t* length) = 0;
    virtual MP4Err getLanguage(uint8_t language[3]) = 0;  // "mdhd", three lower-case letters
    virtual MP4Err getVolume(int16_t* volume) = 0;        // "tkhd", 8.8 fixed point
    virtual MP4Err isSyncSample(uint32_t sample, uint32_t* sync) = 0;
    // As CMp4File::getCopyright / setCopyright, over the track's "udta".
    virtual MP4Err getCprtNotice(uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                                 uint32_t index) = 0;
    virtual MP4Err setCprtNotice(const uint8_t* text, uint64_t length, int32_t index) = 0;
    // The track's metadata object, kept by the track: 3 when a read track
    // has no "udta"; a track being written gains one.
    virtual MP4Err getMetaData(CMp4MetaData** metaData) = 0;
    virtual MP4Err getCreationTime(uint32_t* year, uint32_t* month, uint32_t* day,
                                   uint32_t* hour, uint32_t* minute, uint32_t* second) = 0;
    virtual MP4Err setCreationTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                                   uint32_t minute, uint32_t second) = 0;
    virtual MP4Err setLanguage(const uint8_t language[3]) = 0;
    virtual MP4Err setTimeScale(uint32_t timeScale) = 0;
    virtual MP4Err getObjectTypeIndication(uint8_t* objectType) = 0;  // "esds"
    virtual MP4Err getBitrates(uint32_t* bufferSizeDB, uint32_t* maxBitrate,
                               uint32_t* avgBitrate) = 0;  // "esds", else "btrt"
    // "avcC"/"hvcC" record bytes of sample description 1 (same buffer rules
    // as getDecoderSpecificInfo).
    virtual MP4Err getCodecConfiguration(uint8_t* buffer, uint32_t bufferSize,
                                         uint32_t* length) = 0;
    virtual MP4Err getPixelAspectRatio(uint32_t* hSpacing, uint32_t* vSpacing) = 0;

    // Sample access.
    virtual MP4Err readSample(uint32_t sample, uint32_t bufferSize, uint32_t* size,
                              uint8_t* buffer) = 0;
    virtual MP4Err getSampleOffset(uint32_t sample, uint64_t* offset, uint32_t* size) = 0;
    virtual MP4Err getSampleSize(uint32_t sample, uint32_t* size) = 0;
    virtual MP4Err getSampleDecodeTime(uint32_t sample, uint64_t* time) = 0;
    virtual MP4Err getSampleCompositionTime(uint32_t sample, uint64_t* time) = 0;
    virtual MP4Err getTimecode(uint64_t time, uint8_t* hours, uint8_t* minutes,
                               uint8_t* seconds, uint8_t* frames) = 0;
    virtual MP4Err getTimecodeFlag(uint32_t which, uint8_t* flag) = 0;
    virtual MP4Err findSampleByCompositionTime(uint64_t time, uint32_t* sample) = 0;
    virtual MP4Err findSyncSampleBefore(uint64_t time, uint32_t* sample) = 0;
    virtual MP4Err findSampleByDecodeTime(uint64_t time, uint32_t* sample) = 0;

    // ---- Writing -----------------------------------------------------------
    // A track made by CMp4File::addTrack on a file opened for writing. The
    // usual order: setTrackType, then setTimeScale / setLanguage /
    // setHandlerName / setDimensions as wanted, then addSampleEntry (or
    // addSampleEntryFrom), then addSample for every sample in decode order,
    // then CMp4File::releaseTrack, which finalises the track. Calls on a
    // track of a file opened for reading give 3 (5 when it is not bound).

    // Sets the kind (MP4TrackType): video, audio, hint, object descriptor,
    // scene description or time code. Builds the media header, the handler
    // ("vide", "soun", "hint", "odsm", "sdsm", "tmcd", with a default name
    // unless setHandlerName came first), the data reference and the empty
    // sample tables; audio tracks get volume 1.0. Once per track: 3 when
    // already set, 2 for another kind. The sample entry and sample calls
    // need the kind first (5 before it); the header setters (time scale,
    // language, creation time, dimensions, volume, handler name, edit list,
    // chunk limits) do not.
    virtual MP4Err setTrackType(uint32_t type) = 0;
    // Adds a sample entry built from the codec parameters in *info (see
    // MP4SampleEntryInfo for what each format takes). Samples refer to
    // the first entry, so a track normally gets exactly one. 2 for a null
    // info, a format this call cannot build, missing or malformed
    // configuration bytes (an "avcC"/"hvcC" record that does not parse),
    // or a format that does not suit the track kind; 5 before
    // setTrackType.
    virtual MP4Err addSampleEntry(const MP4SampleEntryInfo* info) = 0;
    // Chunking: a chunk closes when its byte count reaches byteLimit
    // (default 1000000, 0 = none), its sample count reaches 100, or its
    // duration reaches durationLimit (media time units, default 0 = none).
    // Always 0.
    virtual MP4Err setChunkLimits(uint64_t durationLimit, uint32_t byteLimit) = 0;
    // Adds a copy of the index-th (1-based) sample entry of another track,
    // typically one being read, unchanged with all its child boxes (codec
    // configuration, colour, aspect ratio, unknown boxes, bit rates): the
    // remux path.
    // 2 for a null source or the track itself, 17 for index 0, 3 when the
    // source has no such entry, 5 before setTrackType.
    virtual MP4Err addSampleEntryFrom(CMp4Track* source, uint32_t index) = 0;
    // Presentation size in pixels, kept by the track header ("tkhd") as
    // 16.16 values, and the clockwise rotation a player applies (0, 90,
    // 180 or 270 degrees, as getRotateAngle reports it; written as the
    // header's transformation matrix). Video tracks default to the first
    // sample entry's size and no rotation when this is never called.
    // 2 for a size above 65535 or another angle.
    virtual MP4Err setDimensions(uint32_t width, uint32_t height, uint32_t rotation = 0) = 0;
    // Track volume, 8.8 fixed point (0x0100 = full).
    virtual MP4Err setVolume(int16_t volume) = 0;
    // Human-readable handler name ("hdlr"), e.g. "SoundHandler"; at most
    // 255 bytes are kept; may come before setTrackType. 2 for a null name.
    virtual MP4Err setHandlerName(const char* name) = 0;
    // Raw audio written chunk-as-sample (file track mode 1 or 2): each
    // addSample call holds size / (bytes per audio sample) audio samples.
    // The bytes per audio sample come from the sample entry (channels x
    // bytes per channel sample); this multiplies them (e.g. by the frames
    // per packet of a packed format). 2 for 0, 5 before the sample entry.
    virtual MP4Err setAudioSampleFactor(uint32_t factor) = 0;
    // Appends a sample: its bytes (copied), size (non-zero), decode and
    // composition time in the media time scale, and whether it is a sync
    // (random access) sample. Decode times must increase strictly, by at
    // most 2^32 - 1, and the composition time may neither precede the
    // decode time nor follow it by 2^31 or more (13); sizes of 0 and null
    // data give 2; before a sample entry 5. A chunk is written to the file
    // when one of the chunk limits is reached; when that write fails (4,
    // e.g. a full disc) the sample is still accepted and its chunk stays
    // queued: the next sample, releaseTrack or close writes it again, so
    // nothing accepted is lost once there is room. Tracks of raw audio
    // written chunk-as-sample (see setAudioSampleFactor) take whole audio
    // samples only (2 otherwise), with times counting one per audio sample.
    virtual MP4Err addSample(const uint8_t* data, uint32_t size, uint64_t decodeTime,
                             uint64_t compositionTime, bool sync) = 0;
    // A protected (encrypted) track: the format its first sample entry
    // wraps ("avc1" in an "encv") and the protection scheme with its
    // version ("cenc", "cbcs", ...; 0 when the entry names none). 3 when
    // the entry is not protected.
    virtual MP4Err getProtectionScheme(uint32_t* originalFormat, uint32_t* scheme,
                                       uint32_t* schemeVersion) = 0;
    // Copying a read track (the remux path). copyTrackFrom, in place of
    // setTrackType and the other setters, makes this new track a copy of
    // source (a track of a file open for reading, which must stay open
    // until this track is released): its whole "trak" as it is (header
    // with ID, matrix and flags, references, edit list, media header,
    // handler, every sample entry, user data, boxes the library does not
    // know) with empty sample tables; the movie takes the source movie's
    // time scale, in which edit lists count. 2 for a null source or the track
    // itself, 3 once the kind is set or a copy was made, 5 when source is
    // not a bound read track.
    // copySampleFrom then appends source's sample n with its bytes and its
    // timing as stored: decode delta (0 included), composition offset
    // (negative ones kept, in a version-1 "ctts"), sync flag and sample
    // description; the last copied sample keeps its own duration. Samples
    // go in increasing order (2 otherwise) and may be left out: the one
    // before a gap then lasts until the next copied one. A sample that
    // cannot be read (past the end of a cut-off file: 11; read errors as
    // they come) leaves the track as it was. *size: the bytes copied.
    virtual MP4Err copyTrackFrom(CMp4Track* source) = 0;
    virtual MP4Err copySampleFrom(uint32_t sample, uint32_t* size) = 0;
    // Adds delta to every chunk offset (used when "mdat" moves).
    virtual MP4Err shiftChunkOffsets(int32_t delta) = 0;
    // Edit list written when the track is finalised: an empty edit of
    // initialDelay (media time units, converted to the movie time scale)
    // when non-zero, then one edit presenting the media from
    // firstMediaTime (media time units, >= 0) for presentedDuration media
    // time units (0: to the end of the presentation, that is up to the end
    // of the sample shown last, composition offsets included, so that a
    // track with reordered frames keeps its last frames). (0, 0, 0) writes no edit
    // list. Without this call, a track whose first decode time is D > 0
    // gets an empty edit of D, so that the times read back equal the times
    // written. A remux passes what getInitialDelay reports for the source
    // track. Edits are stored in the movie time scale (1/1000 s), rounded
    // up, so a read-back delay is exact when it is a whole number of
    // milliseconds. 2 for a negative firstMediaTime.
    virtual MP4Err setEditList(uint64_t initialDelay, int64_t firstMediaTime,
                               uint64_t presentedDuration = 0) = 0;

    // Edit list of a read track: the initial delay (an empty first edit, in
    // media time units; decode times already include it) and, when asked
    // for, the media time at which presentation starts (the first non-empty
    // edit's media time; 0 without an edit list) and how long that edit
    // presents the media (media time units; 0 without an edit list).
    virtual MP4Err getInitialDelay(uint64_t* delay, int64_t* firstMediaTime = nullptr,
                                   uint64_t* presentedDuration = nullptr) = 0;

    // Writing: the duration of the track's last sample (media time units),
    // which no later decode time measures. Every other sample lasts until
    // the next one's decode time. Without this call (or with 0) the last
    // sample lasts as long as the one before it (one time unit for a track
    // of one sample). May be called at any time before the track is
    // finalised (3 afterwards); 2 above 2^31 - 1.
    virtual MP4Err setLastSampleDuration(uint32_t duration) = 0;

    // Rotation in degrees computed from the "tkhd" matrix (0, 90, 180, 270).
    virtual double getRotateAngle() { return 0.0; }
    virtual ~CMp4Track() = default;
};

}  // namespace quil

#endif
