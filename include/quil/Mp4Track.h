// quil: one track of a file, with its samples and properties.
#ifndef QUIL_MP4TRACK_H
#define QUIL_MP4TRACK_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"
#include "MP4Types.h"

namespace quil {

class CMp4MetaData;

// Sample numbers are 1-based. Times are 64-bit values in the track's media
// time scale; decode and composition times include the edit list's initial
// delay. Out-parameters are set to 0 before anything is checked.
class QUIL_API CMp4Track {
public:
    virtual MP4Err getSampleCount(uint32_t* count) = 0;
    virtual MP4Err getTrackType(uint32_t* type) = 0;          // MP4TrackType
    virtual MP4Err getSampleEntryType(uint32_t* format) = 0;  // fourcc of the first sample entry
    virtual MP4Err getCodecType(uint32_t* codec) = 0;         // codec number
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

    // Writing.
    virtual MP4Err setTrackType(uint32_t type) = 0;  // MP4TrackType
    virtual MP4Err addVisualSampleEntry(uint32_t format, uint16_t width, uint16_t height,
                                        const uint8_t* config, uint32_t configLength) = 0;
    virtual MP4Err setChunkLimits(uint64_t durationLimit, uint32_t byteLimit) = 0;
    virtual MP4Err addSoundSampleEntry(uint32_t format, uint32_t sampleRate, uint16_t channels,
                                       uint16_t sampleBits, const uint8_t* config,
                                       uint32_t configLength) = 0;
    virtual MP4Err setDimensions(uint32_t width, uint32_t height) = 0;  // "tkhd"
    virtual MP4Err setVolume(int16_t volume) = 0;
    virtual MP4Err setHandlerName(const char* name) = 0;
    virtual MP4Err setAudioSampleFactor(uint32_t factor) = 0;
    virtual MP4Err addSample(const uint8_t* data, uint32_t size, uint64_t decodeTime,
                             uint64_t compositionTime, bool sync) = 0;
    virtual MP4Err shiftChunkOffsets(int32_t delta) = 0;

    virtual MP4Err getSampleDescriptionIndex(uint32_t sample, uint32_t* index) = 0;
    virtual MP4Err getInitialDelay(uint64_t* delay) = 0;  // edit-list delay, media time units

    // Rotation in degrees computed from the "tkhd" matrix (0, 90, 180, 270).
    virtual double getRotateAngle() { return 0.0; }
    virtual ~CMp4Track() = default;
};

}  // namespace quil

#endif
