// quil: RTP hint tracks.
#ifndef QUIL_MP4HINTTRACK_H
#define QUIL_MP4HINTTRACK_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

// A hint track tells a streaming server how to cut the samples of a media
// track into network packets, without the server knowing the codec.
//
// Writing: CMp4File::createHintTrack(&hint, kind) makes the packetizer of a
// codec; name the media track to hint with setMediaTrack (a track of the
// same file that has been released, so that its samples are in the file),
// optionally setMaxPayloadSize / setFramesPerPacket, then
// CMp4File::addHintTrack(hint) builds the hint track and its SDP section.
// The object stays the caller's: delete it afterwards.
//
// Reading: CMp4File::getHintTrack(n, &hint) on a file opened for reading
// gives an object over the existing hint track n (3 when track n is not an
// RTP hint track). It describes each hint sample's packets and produces
// them (getPacket). It reads through the file: delete it before closing
// the file.
//
// Sample and packet numbers are 1-based; out-parameters are set to 0 (or
// null) first.
class QUIL_API CMp4HintTrack {
public:
    // ---- building (before CMp4File::addHintTrack; 3 afterwards) ----------
    // The 1-based number of the media track to packetize.
    virtual MP4Err setMediaTrack(uint32_t mediaTrackNumber) = 0;
    // Largest RTP payload in bytes (default 1450; 2 below 64 or above 65000).
    virtual MP4Err setMaxPayloadSize(uint32_t bytes) = 0;
    // Most media frames one packet may carry for audio packetizers that
    // aggregate (AAC, AMR; default 1 for AMR, as many as fit for AAC); 2 for 0.
    virtual MP4Err setFramesPerPacket(uint32_t frames) = 0;

    // ---- both ------------------------------------------------------------
    virtual MP4Err getHintTrackNumber(uint32_t* trackNumber) = 0;
    // The track the hint samples refer to (first "hint" reference).
    virtual MP4Err getMediaTrackNumber(uint32_t* trackNumber) = 0;
    virtual MP4Err getHintSampleCount(uint32_t* count) = 0;
    // RTP clock rate ("tims").
    virtual MP4Err getTimeScale(uint32_t* timeScale) = 0;
    virtual MP4Err getPayloadType(uint8_t* payloadType) = 0;
    // Largest packet (RTP header included) the track declares.
    virtual MP4Err getMaxPacketSize(uint32_t* bytes) = 0;
    // Decode time of a hint sample in the RTP clock (edit lists ignored).
    virtual MP4Err getHintSampleTime(uint32_t sample, uint64_t* time) = 0;
    virtual MP4Err getPacketCount(uint32_t sample, uint32_t* count) = 0;
    // Prints the hint sample's packets and constructors to standard output.
    virtual MP4Err dumpHintSample(uint32_t sample) = 0;

    virtual ~CMp4HintTrack() = default;
};

class QUIL_API CMp4RtpHintTrack : public CMp4HintTrack {
public:
    // Values added to every packet produced by getPacket: the RTP SSRC,
    // an offset added to the timestamps and one added to the sequence
    // numbers (RFC 3550 §5.1 asks for random initial values). All 0 until set.
    virtual MP4Err setRtpSession(uint32_t ssrc, uint32_t timestampOffset,
                                 uint16_t sequenceOffset) = 0;
    // The RTP packet (12-byte header, then the payload) that packet `packet`
    // of hint sample `sample` describes. *length is set to its size; 7 when
    // the buffer is smaller (nothing copied), 5 when a constructor points
    // outside its sample or sample description, 3 for a packet number
    // beyond the sample's packets.
    virtual MP4Err getPacket(uint32_t sample, uint32_t packet, uint8_t* buffer,
                             uint32_t bufferSize, uint32_t* length) = 0;
    // The RTP timestamp of that packet (session offset included).
    virtual MP4Err getPacketTimestamp(uint32_t sample, uint32_t packet,
                                      uint32_t* timestamp) = 0;
    // The media SDP section stored in the hint track ("sdp " box), as a new
    // zero-terminated text freed by the caller with delete[]; 3 when absent.
    virtual MP4Err getTrackSdp(char** text) = 0;
    // Average bit rate of the packet stream in bits per second.
    virtual MP4Err getBitrate(uint32_t* bitrate) = 0;
    // The hint track's ID ("tkhd"), as "a=control:trackID=" names it.
    virtual MP4Err getTrackId(uint32_t* trackId) = 0;
    // The SDP media section of this payload format for the given media
    // track (1-based number), as a new zero-terminated text freed by the
    // caller with delete[]. For a hint track read from a file, the stored
    // section.
    virtual MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) = 0;

    ~CMp4RtpHintTrack() override = default;
};

}  // namespace quil

#endif
