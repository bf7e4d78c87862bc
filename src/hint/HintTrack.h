// The RTP hint-track object: reads an existing hint track and produces its
// packets, or builds a new hint track for a media track of a file being
// written (the packetizer subclasses cut the samples per RTP payload
// format), and describes the stream in SDP.
#ifndef QUIL_HINT_HINTTRACK_H
#define QUIL_HINT_HINTTRACK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hint/HintSample.h"
#include "quil/Mp4File.h"
#include "quil/Mp4HintTrack.h"
#include "quil/Mp4Track.h"

namespace quil {

class CMp4FileImpl;
class CRtpHintSampleEntry;

constexpr uint32_t kDefaultMaxPayloadSize = 1450;
constexpr uint32_t kRtpHeaderSize = 12;

// Bytes and times of the media samples a packetizer reads, one sample
// buffered at a time.
class CMediaSampleSource {
public:
    CMediaSampleSource(CMp4FileImpl* file, CMp4Track* track);
    ~CMediaSampleSource();
    // The sample's bytes (valid until the next call).
    MP4Err read(uint32_t sample, const uint8_t** data, uint32_t* size);

private:
    CMp4FileImpl* file_;
    CMp4Track* track_;
    uint32_t current_ = 0;
    std::unique_ptr<uint8_t[]> bytes_;
    uint32_t size_ = 0;
    uint32_t capacity_ = 0;
};

// What the packetizers share while building: the packets get consecutive
// sequence numbers and the track's payload type.
struct PacketizerState {
    uint8_t payloadType = 96;
    uint16_t nextSequence = 0;
    uint32_t maxPayload = kDefaultMaxPayloadSize;
    uint32_t largestPacket = 0;  // RTP header included
    uint64_t payloadBytes = 0;   // RTP headers included, for the bit rate
    uint64_t packetCount = 0;
};

class CMp4RtpHintTrackImpl : public CMp4RtpHintTrack {
public:
    CMp4RtpHintTrackImpl(CMp4FileImpl* file, uint32_t trackMode);
    ~CMp4RtpHintTrackImpl() override;

    // Reading: binds to the trackNumber-th track of a read file; 3 when it
    // is not an RTP hint track.
    MP4Err bind(uint32_t trackNumber);
    // Writing: builds the hint track (CMp4File::addHintTrack).
    MP4Err build(uint8_t payloadType, CMp4HintTrackContext* context);

    MP4Err setMediaTrack(uint32_t mediaTrackNumber) override;
    MP4Err setMaxPayloadSize(uint32_t bytes) override;
    MP4Err setFramesPerPacket(uint32_t frames) override;
    MP4Err getHintTrackNumber(uint32_t* trackNumber) override;
    MP4Err getMediaTrackNumber(uint32_t* trackNumber) override;
    MP4Err getHintSampleCount(uint32_t* count) override;
    MP4Err getTimeScale(uint32_t* timeScale) override;
    MP4Err getPayloadType(uint8_t* payloadType) override;
    MP4Err getMaxPacketSize(uint32_t* bytes) override;
    MP4Err getHintSampleTime(uint32_t sample, uint64_t* time) override;
    MP4Err getPacketCount(uint32_t sample, uint32_t* count) override;
    MP4Err dumpHintSample(uint32_t sample) override;
    MP4Err setRtpSession(uint32_t ssrc, uint32_t timestampOffset,
                         uint16_t sequenceOffset) override;
    MP4Err getPacket(uint32_t sample, uint32_t packet, uint8_t* buffer, uint32_t bufferSize,
                     uint32_t* length) override;
    MP4Err getPacketTimestamp(uint32_t sample, uint32_t packet, uint32_t* timestamp) override;
    MP4Err getTrackSdp(char** text) override;
    MP4Err getBitrate(uint32_t* bitrate) override;
    MP4Err getTrackId(uint32_t* trackId) override;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;

protected:
    // ---- packetizer hooks --------------------------------------------------
    // Media kind the payload format needs (1 video, 2 audio).
    virtual uint32_t mediaKind() const { return 0; }
    // Reads what the format needs from the media track (configuration,
    // sample rate) and returns the RTP clock rate.
    virtual MP4Err prepare(CMp4Track* media, uint32_t* clockRate);
    // Builds the packets starting at media sample `first` into the hint
    // sample; *consumed is how many media samples they cover (at least 1).
    virtual MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                             CRtpHintSample* hint, uint32_t* consumed);

    // ---- helpers for the packetizers -------------------------------------
    // Starts a packet with the next sequence number.
    MP4Err startPacket(CRtpHintSample* hint, bool marker, CRtpPacket** packet);
    // Adds immediate bytes, split over as many constructors as needed.
    MP4Err addImmediate(CRtpPacket* packet, const uint8_t* bytes, uint32_t count);
    // Adds a reference to media bytes, split into pieces of at most 65535.
    MP4Err addMediaBytes(CRtpPacket* packet, uint32_t sample, uint32_t offset, uint32_t count);
    // Cuts [offset, offset + count) of a sample into packets of at most
    // maxPayload - headerBytes media bytes; each packet gets the header
    // bytes made by makeHeader(index, isFirst, isLast) first. The last
    // packet gets the marker bit when markLast is set.
    using HeaderMaker = std::function<void(bool first, bool last, uint8_t* header)>;
    MP4Err fragment(CRtpHintSample* hint, uint32_t sample, uint32_t offset, uint32_t count,
                    uint32_t headerBytes, bool markLast, const HeaderMaker& makeHeader);

    // ---- SDP ---------------------------------------------------------------
    // The values every template uses, from the media track.
    struct SdpValues {
        double range = 0.0;
        int32_t width = 352;
        int32_t height = 288;
        uint16_t channels = 2;
        std::vector<uint8_t> decoderSpecific;  // empty when the track has none
        std::string configHex;                 // the same, upper-case hex
        std::vector<uint8_t> codecConfig;      // video: "avcC"/"hvcC" payload
    };
    // Opens the media track and, when its kind is requiredKind, collects
    // the values; *kindMatches tells which. The track is given back.
    // The start every SDP section shares: 2 without an output, the output
    // cleared, then the track's values as collectSdpValues gives them.
    MP4Err startSdpSection(char** text, uint32_t mediaTrackNumber, uint32_t requiredKind,
                           SdpValues* values, bool* matches);
    MP4Err collectSdpValues(uint32_t mediaTrackNumber, uint32_t requiredKind, SdpValues* values,
                            bool* kindMatches);
    // Formats a template into a new text (1024 bytes plus extra).
    static MP4Err formatSdp(char** text, size_t extra, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    uint32_t bandwidth() const { return bitrate_ >> 10; }

    CMp4FileImpl* file_;
    uint32_t trackMode_;
    PacketizerState state_;
    uint32_t framesPerPacket_ = 0;  // 0: the packetizer's default
    uint32_t mediaTrackNumber_ = 0;
    uint32_t hintTrackNumber_ = 0;
    uint32_t trackId_ = 0;
    uint32_t timeScale_ = 0;  // RTP clock
    uint32_t bitrate_ = 0;
    uint32_t maxPacketSize_ = 0;
    bool built_ = false;

private:
    // Writing steps.
    MP4Err addHintTrackBoxes(CMp4Track* hintTrack, uint32_t mediaTrackId);
    MP4Err packetizeAll(CMp4Track* media, CMp4Track* hintTrack);
    MP4Err finishHintTrack(uint32_t mediaTrackId);
    // Reading helpers.
    MP4Err loadHintSample(uint32_t sample);
    MP4Err packetAt(uint32_t sample, uint32_t packet, CRtpPacket** found);
    MP4Err copyConstructor(CRTPBaseConstructor* constructor, uint8_t* out, uint32_t* written,
                           uint32_t capacity);
    MP4Err sourceForTrack(uint32_t trackNumber, CMediaSampleSource** source);
    MP4Err sampleDescriptionBytes(int8_t trackRefIndex, uint32_t index, std::vector<uint8_t>* bytes);
    MP4Err referencedTrackNumber(int8_t trackRefIndex, uint32_t* trackNumber);
    MP4Err rtpTime(uint32_t sample, uint64_t* time, bool composition);

    CMp4Track* hintTrack_ = nullptr;  // reading: bound to the hint track (owned)
    CBox* trak_ = nullptr;  // the hint track's "trak"
    CRtpHintSampleEntry* entry_ = nullptr;
    std::vector<uint32_t> referencedTrackIds_;
    uint32_t mediaTimeScale_ = 0;  // the hint track's "mdhd" time scale
    uint64_t initialDelay_ = 0;
    // Session values added to produced packets.
    uint32_t ssrc_ = 0;
    uint32_t timestampOffset_ = 0;
    uint16_t sequenceOffset_ = 0;
    // The last hint sample read, its bytes and parsed form.
    uint32_t loadedSample_ = 0;
    std::unique_ptr<CRtpHintSample> hintSample_;
    // The last media sample read for a constructor, per referenced track.
    struct MediaCache {
        uint32_t trackNumber = 0;
        CMp4Track* track = nullptr;
        std::unique_ptr<CMediaSampleSource> source;
    };
    std::vector<MediaCache> mediaCaches_;
};

}  // namespace quil

#endif
