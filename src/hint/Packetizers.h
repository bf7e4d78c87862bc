// The packetizers: one hint-track class per RTP payload format. Each cuts
// the samples of its codec into packets and writes the SDP media section
// of its format.
#ifndef QUIL_HINT_PACKETIZERS_H
#define QUIL_HINT_PACKETIZERS_H

#include <cstdint>
#include <vector>

#include "hint/HintTrack.h"

namespace quil {

// Kinds of CMp4File::createHintTrack.
enum HintKind : int32_t {
    kHintMpeg4Video = 1,
    kHintAacLatm = 2,
    kHintAac = 3,
    kHintH263 = 4,
    kHintAmr = 5,
    kHintH264 = 6
};

// The packetizer of a kind (1..6), or null (bad kind or no memory).
CMp4RtpHintTrackImpl* createPacketizer(int32_t kind, CMp4FileImpl* file, uint32_t trackMode);

// H.264, RFC 6184 packetization mode 1: NAL units that fit go alone or
// aggregated in STAP-A packets, larger ones are cut into FU-A fragments.
class CRfc3984H264HintTrackImpl : public CMp4RtpHintTrackImpl {
public:
    using CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;

protected:
    uint32_t mediaKind() const override { return 1; }
    MP4Err prepare(CMp4Track* media, uint32_t* clockRate) override;
    MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                     CRtpHintSample* hint, uint32_t* consumed) override;

private:
    struct Nal {
        uint32_t offset;  // of the NAL header byte in the sample
        uint32_t length;
        uint8_t header;
    };
    MP4Err addAggregate(CRtpHintSample* hint, uint32_t sample, const Nal* nals, uint32_t count,
                        bool marker);
    MP4Err addFragmented(CRtpHintSample* hint, uint32_t sample, const Nal& nal, bool marker);

    uint32_t lengthSize_ = 4;
    std::vector<Nal> nals_;
};

// AAC, RFC 3640 mpeg4-generic AAC-hbr: consecutive access units share a
// packet behind their AU headers (13-bit size, 3-bit index); one too large
// for a packet is fragmented.
class CRfc3640AudioHintTrackImpl : public CMp4RtpHintTrackImpl {
public:
    using CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;

protected:
    uint32_t mediaKind() const override { return 2; }
    MP4Err prepare(CMp4Track* media, uint32_t* clockRate) override;
    MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                     CRtpHintSample* hint, uint32_t* consumed) override;
};

// AAC in LATM, RFC 3016 MP4A-LATM with cpresent=0: each access unit is
// sent as its PayloadLengthInfo and PayloadMux; the StreamMuxConfig goes
// to the SDP.
class CRfc3016LatmHintTrackImpl : public CMp4RtpHintTrackImpl {
public:
    using CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;
    // StreamMuxConfig (ISO/IEC 14496-3 §1.7.3) for one AudioSpecificConfig,
    // with audioMuxVersion 0, one program, one layer, frameLengthType 0.
    static MP4Err streamMuxConfig(const uint8_t* audioSpecificConfig, uint32_t length,
                                  std::vector<uint8_t>* config);

protected:
    uint32_t mediaKind() const override { return 2; }
    MP4Err prepare(CMp4Track* media, uint32_t* clockRate) override;
    MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                     CRtpHintSample* hint, uint32_t* consumed) override;
};

// MPEG-4 visual, RFC 3016 MP4V-ES: each frame's bytes cut into packets,
// the marker bit on the last.
class CRfc3016VideoHintTrackImpl : public CMp4RtpHintTrackImpl {
public:
    using CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;

protected:
    uint32_t mediaKind() const override { return 1; }
    MP4Err prepare(CMp4Track* media, uint32_t* clockRate) override;
    MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                     CRtpHintSample* hint, uint32_t* consumed) override;
};

// H.263, RFC 4629 (formerly 2429): a 2-byte payload header; a packet that
// starts a picture sets P and leaves out the start code's two zero bytes.
class CRfc2429H263HintTrackImpl : public CMp4RtpHintTrackImpl {
public:
    using CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;

protected:
    uint32_t mediaKind() const override { return 1; }
    MP4Err prepare(CMp4Track* media, uint32_t* clockRate) override;
    MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                     CRtpHintSample* hint, uint32_t* consumed) override;
};

// AMR and AMR-WB, RFC 4867 (formerly 3267) octet-aligned mode: a CMR
// byte, one table-of-contents byte per frame, then the frames' speech bits
// (the 3GPP storage header byte of each frame left out).
class CRfc3267AmrHintTrackImpl : public CMp4RtpHintTrackImpl {
public:
    using CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl;
    MP4Err getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) override;
    // Speech bytes of a frame type (after the header byte); wideBand picks
    // the AMR-WB table.
    static uint32_t frameBytes(uint8_t frameType, bool wideBand);

protected:
    uint32_t mediaKind() const override { return 2; }
    MP4Err prepare(CMp4Track* media, uint32_t* clockRate) override;
    MP4Err packetize(CMediaSampleSource* source, uint32_t first, uint32_t sampleCount,
                     CRtpHintSample* hint, uint32_t* consumed) override;

private:
    struct Frame {
        uint32_t sample;
        uint32_t offset;  // of the speech bytes
        uint32_t length;
        uint8_t header;   // storage header: FT and Q
    };
    uint32_t framesPerPacket() const;
    bool wideBand_ = false;
    bool firstPacket_ = true;
    std::vector<Frame> frames_;
};

}  // namespace quil

#endif
