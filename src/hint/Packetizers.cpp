#include "Packetizers.h"

#include <algorithm>
#include <new>

#include "file/Mp4FileImpl.h"

namespace quil {
namespace {

constexpr uint32_t kVideoClock = 90000;

// H.264 NAL unit types and payload structures (RFC 6184 §5.2, §5.4).
constexpr uint8_t kStapA = 24;
constexpr uint8_t kFuA = 28;
constexpr uint32_t kStapHeaderBytes = 1;
constexpr uint32_t kStapSizeBytes = 2;
constexpr uint32_t kFuHeaderBytes = 2;

// RFC 3640 AAC-hbr: sizelength 13, indexlength 3.
constexpr uint32_t kAuHeaderBits = 16;
constexpr uint32_t kMaxAuSize = (1u << 13) - 1;
// AU-headers-length plus six AU headers fit one immediate constructor.
constexpr uint32_t kMaxAusPerPacket = 6;

// RFC 4867 octet-aligned: CMR 15 asks for no particular mode.
constexpr uint8_t kNoModeRequest = 0xF0;
// The CMR and the ToC bytes must fit one immediate constructor.
constexpr uint32_t kMaxAmrFramesPerPacket = kImmediateCapacity - 1;

uint32_t readLength(const uint8_t* p, uint32_t size) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < size; ++i) value = (value << 8) | p[i];
    return value;
}

MP4Err audioClock(CMp4Track* media, uint32_t* clockRate) {
    uint32_t rate = 0;
    if (media->getSampleRate(&rate) != MP4_OK || rate == 0) {
        MP4Err err = media->getTimeScale(&rate);
        if (err != MP4_OK) return err;
    }
    *clockRate = rate;
    return MP4_OK;
}

// Writes bits most significant first.
class BitWriter {
public:
    void put(uint32_t value, uint32_t bits) {
        for (uint32_t i = bits; i > 0; --i) {
            if (used_ % 8 == 0) bytes_.push_back(0);
            if ((value >> (i - 1)) & 1) bytes_.back() |= static_cast<uint8_t>(0x80 >> (used_ % 8));
            ++used_;
        }
    }
    std::vector<uint8_t>& bytes() { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
    uint32_t used_ = 0;
};

}  // namespace

CMp4RtpHintTrackImpl* createPacketizer(int32_t kind, CMp4FileImpl* file, uint32_t trackMode) {
    switch (kind) {
        case kHintMpeg4Video: return new (std::nothrow) CRfc3016VideoHintTrackImpl(file, trackMode);
        case kHintAacLatm: return new (std::nothrow) CRfc3016LatmHintTrackImpl(file, trackMode);
        case kHintAac: return new (std::nothrow) CRfc3640AudioHintTrackImpl(file, trackMode);
        case kHintH263: return new (std::nothrow) CRfc2429H263HintTrackImpl(file, trackMode);
        case kHintAmr: return new (std::nothrow) CRfc3267AmrHintTrackImpl(file, trackMode);
        case kHintH264: return new (std::nothrow) CRfc3984H264HintTrackImpl(file, trackMode);
        default: return nullptr;
    }
}

// ---- H.264 ------------------------------------------------------------------

MP4Err CRfc3984H264HintTrackImpl::prepare(CMp4Track* media, uint32_t* clockRate) {
    uint32_t length = 0;
    MP4Err err = media->getCodecConfiguration(nullptr, 0, &length);
    if (err != MP4_OK && err != MP4_ERR_BUFFER_TOO_SMALL) return err;
    if (length < 5) return MP4_ERR_INVALID_DATA;
    std::vector<uint8_t> record(length);
    err = media->getCodecConfiguration(record.data(), length, &length);
    if (err != MP4_OK) return err;
    // lengthSizeMinusOne; 3 (a 3-byte length) is not allowed by ISO/IEC
    // 14496-15 but costs nothing to honour.
    lengthSize_ = (record[4] & 0x03) + 1u;
    *clockRate = kVideoClock;
    return MP4_OK;
}

MP4Err CRfc3984H264HintTrackImpl::packetize(CMediaSampleSource* source, uint32_t first, uint32_t,
                                            CRtpHintSample* hint, uint32_t* consumed) {
    *consumed = 1;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    MP4Err err = source->read(first, &data, &size);
    if (err != MP4_OK) return err;

    nals_.clear();
    bool disposable = true;
    for (uint32_t pos = 0; pos + lengthSize_ <= size;) {
        uint32_t length = readLength(data + pos, lengthSize_);
        pos += lengthSize_;
        if (length > size - pos) return MP4_ERR_INVALID_DATA;
        if (length > 0) {
            nals_.push_back({pos, length, data[pos]});
            if (data[pos] & 0x60) disposable = false;  // nal_ref_idc
        }
        pos += length;
    }

    const uint32_t maxPayload = state_.maxPayload;
    for (size_t i = 0; i < nals_.size();) {
        const bool lastNal = i + 1 == nals_.size();
        if (nals_[i].length > maxPayload) {
            err = addFragmented(hint, first, nals_[i], lastNal);
            ++i;
        } else {
            // As many following NAL units as fit one STAP-A.
            size_t j = i;
            uint32_t stapBytes = kStapHeaderBytes;
            while (j < nals_.size() && stapBytes + kStapSizeBytes + nals_[j].length <= maxPayload) {
                stapBytes += kStapSizeBytes + nals_[j].length;
                ++j;
            }
            const uint32_t count = static_cast<uint32_t>(std::max<size_t>(j - i, 1));
            err = addAggregate(hint, first, &nals_[i], count, i + count == nals_.size());
            i += count;
        }
        if (err != MP4_OK) return err;
    }
    // Packets of a frame no other frame refers to may be dropped first.
    if (disposable && !nals_.empty()) {
        for (const auto& packet : hint->packets) packet->bFrameFlag = 1;
    }
    return MP4_OK;
}

MP4Err CRfc3984H264HintTrackImpl::addAggregate(CRtpHintSample* hint, uint32_t sample,
                                               const Nal* nals, uint32_t count, bool marker) {
    CRtpPacket* packet = nullptr;
    MP4Err err = startPacket(hint, marker, &packet);
    if (err != MP4_OK) return err;
    if (count == 1) return addMediaBytes(packet, sample, nals[0].offset, nals[0].length);

    // STAP-A header: F if any NAL has it, the highest NRI, type 24.
    uint8_t forbidden = 0, nri = 0;
    for (uint32_t i = 0; i < count; ++i) {
        forbidden |= nals[i].header & 0x80;
        nri = std::max<uint8_t>(nri, nals[i].header & 0x60);
    }
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t prefix[3];
        uint32_t prefixBytes = 0;
        if (i == 0) prefix[prefixBytes++] = static_cast<uint8_t>(forbidden | nri | kStapA);
        prefix[prefixBytes++] = static_cast<uint8_t>(nals[i].length >> 8);
        prefix[prefixBytes++] = static_cast<uint8_t>(nals[i].length);
        err = addImmediate(packet, prefix, prefixBytes);
        if (err == MP4_OK) err = addMediaBytes(packet, sample, nals[i].offset, nals[i].length);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CRfc3984H264HintTrackImpl::addFragmented(CRtpHintSample* hint, uint32_t sample,
                                                const Nal& nal, bool marker) {
    const uint8_t indicator = static_cast<uint8_t>((nal.header & 0xE0) | kFuA);
    const uint8_t nalType = nal.header & 0x1F;
    // The NAL header byte itself is not sent: the FU indicator and header
    // carry its fields.
    return fragment(hint, sample, nal.offset + 1, nal.length - 1, kFuHeaderBytes, marker,
                    [&](bool first, bool last, uint8_t* header) {
                        header[0] = indicator;
                        header[1] = static_cast<uint8_t>((first ? 0x80 : 0) | (last ? 0x40 : 0) |
                                                         nalType);
                    });
}

// ---- AAC, RFC 3640 ----------------------------------------------------------

MP4Err CRfc3640AudioHintTrackImpl::prepare(CMp4Track* media, uint32_t* clockRate) {
    return audioClock(media, clockRate);
}

MP4Err CRfc3640AudioHintTrackImpl::packetize(CMediaSampleSource* source, uint32_t first,
                                             uint32_t sampleCount, CRtpHintSample* hint,
                                             uint32_t* consumed) {
    *consumed = 1;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    MP4Err err = source->read(first, &data, &size);
    if (err != MP4_OK) return err;
    if (size > kMaxAuSize) return MP4_ERR_VALUE_TOO_LARGE;
    const uint32_t headerBytes = 2 + kAuHeaderBits / 8;

    if (headerBytes + size > state_.maxPayload) {
        // One AU in fragments, each behind the same AU header.
        const uint8_t header[4] = {0x00, 0x10, static_cast<uint8_t>(size >> 5),
                                   static_cast<uint8_t>((size << 3) & 0xF8)};
        return fragment(hint, first, 0, size, headerBytes, true,
                        [&](bool, bool, uint8_t* out) { std::copy(header, header + 4, out); });
    }

    // Following AUs join while they fit the payload and the frame limit.
    const uint32_t limit = std::min(framesPerPacket_ ? framesPerPacket_ : kMaxAusPerPacket,
                                    kMaxAusPerPacket);
    std::vector<uint32_t> sizes{size};
    uint32_t payload = headerBytes + size;
    while (sizes.size() < limit && first + sizes.size() <= sampleCount) {
        uint32_t next = 0;
        err = source->read(first + static_cast<uint32_t>(sizes.size()), &data, &next);
        if (err != MP4_OK) return err;
        if (next > kMaxAuSize || payload + 2 + next > state_.maxPayload) break;
        payload += 2 + next;
        sizes.push_back(next);
    }
    CRtpPacket* packet = nullptr;
    err = startPacket(hint, true, &packet);
    if (err != MP4_OK) return err;
    uint8_t headers[2 + 2 * kMaxAusPerPacket];
    const uint32_t bits = kAuHeaderBits * static_cast<uint32_t>(sizes.size());
    headers[0] = static_cast<uint8_t>(bits >> 8);
    headers[1] = static_cast<uint8_t>(bits);
    for (size_t i = 0; i < sizes.size(); ++i) {
        // AU-size, then AU-index (first) or AU-index-delta 0: consecutive.
        headers[2 + 2 * i] = static_cast<uint8_t>(sizes[i] >> 5);
        headers[3 + 2 * i] = static_cast<uint8_t>((sizes[i] << 3) & 0xF8);
    }
    err = addImmediate(packet, headers, 2 + 2 * static_cast<uint32_t>(sizes.size()));
    for (size_t i = 0; i < sizes.size() && err == MP4_OK; ++i) {
        err = addMediaBytes(packet, first + static_cast<uint32_t>(i), 0, sizes[i]);
    }
    *consumed = static_cast<uint32_t>(sizes.size());
    return err;
}

// ---- AAC in LATM, RFC 3016 --------------------------------------------------

MP4Err CRfc3016LatmHintTrackImpl::streamMuxConfig(const uint8_t* audioSpecificConfig,
                                                  uint32_t length, std::vector<uint8_t>* config) {
    BitWriter bits;
    bits.put(0, 1);  // audioMuxVersion
    bits.put(1, 1);  // allStreamsSameTimeFraming
    bits.put(0, 6);  // numSubFrames
    bits.put(0, 4);  // numProgram
    bits.put(0, 3);  // numLayer
    for (uint32_t i = 0; i < length; ++i) bits.put(audioSpecificConfig[i], 8);
    bits.put(0, 3);     // frameLengthType 0: payload lengths in the stream
    bits.put(0xFF, 8);  // latmBufferFullness
    bits.put(0, 1);     // otherDataPresent
    bits.put(0, 1);     // crcCheckPresent
    *config = std::move(bits.bytes());
    return MP4_OK;
}

MP4Err CRfc3016LatmHintTrackImpl::prepare(CMp4Track* media, uint32_t* clockRate) {
    return audioClock(media, clockRate);
}

MP4Err CRfc3016LatmHintTrackImpl::packetize(CMediaSampleSource* source, uint32_t first, uint32_t,
                                            CRtpHintSample* hint, uint32_t* consumed) {
    *consumed = 1;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    MP4Err err = source->read(first, &data, &size);
    if (err != MP4_OK) return err;
    // PayloadLengthInfo: 255 for every full 255 bytes, then the rest.
    std::vector<uint8_t> lengthInfo(size / 255, 0xFF);
    lengthInfo.push_back(static_cast<uint8_t>(size % 255));
    if (lengthInfo.size() >= state_.maxPayload) return MP4_ERR_VALUE_TOO_LARGE;

    // The first packet carries the length bytes; the frame continues in
    // as many packets as it needs, the last with the marker bit.
    uint32_t done = 0;
    bool firstPacket = true;
    do {
        const uint32_t room = state_.maxPayload -
                              (firstPacket ? static_cast<uint32_t>(lengthInfo.size()) : 0);
        const uint32_t piece = std::min(room, size - done);
        CRtpPacket* packet = nullptr;
        err = startPacket(hint, done + piece == size, &packet);
        if (err == MP4_OK && firstPacket) {
            err = addImmediate(packet, lengthInfo.data(), static_cast<uint32_t>(lengthInfo.size()));
        }
        if (err == MP4_OK && piece > 0) err = addMediaBytes(packet, first, done, piece);
        if (err != MP4_OK) return err;
        done += piece;
        firstPacket = false;
    } while (done < size);
    return MP4_OK;
}

// ---- MPEG-4 visual, RFC 3016 ------------------------------------------------

MP4Err CRfc3016VideoHintTrackImpl::prepare(CMp4Track*, uint32_t* clockRate) {
    *clockRate = kVideoClock;
    return MP4_OK;
}

MP4Err CRfc3016VideoHintTrackImpl::packetize(CMediaSampleSource* source, uint32_t first, uint32_t,
                                             CRtpHintSample* hint, uint32_t* consumed) {
    *consumed = 1;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    MP4Err err = source->read(first, &data, &size);
    if (err != MP4_OK) return err;
    return fragment(hint, first, 0, size, 0, true, [](bool, bool, uint8_t*) {});
}

// ---- H.263, RFC 4629 ----------------------------------------------------------

MP4Err CRfc2429H263HintTrackImpl::prepare(CMp4Track*, uint32_t* clockRate) {
    *clockRate = kVideoClock;
    return MP4_OK;
}

MP4Err CRfc2429H263HintTrackImpl::packetize(CMediaSampleSource* source, uint32_t first, uint32_t,
                                            CRtpHintSample* hint, uint32_t* consumed) {
    *consumed = 1;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    MP4Err err = source->read(first, &data, &size);
    if (err != MP4_OK) return err;
    // A picture starts with the start code's two zero bytes: P set, and
    // the receiver puts the zeros back (RFC 4629 §6.1.1).
    const bool startCode = size >= 2 && data[0] == 0 && data[1] == 0;
    const uint32_t skip = startCode ? 2 : 0;
    return fragment(hint, first, skip, size - skip, 2, true,
                    [&](bool firstPacket, bool, uint8_t* header) {
                        header[0] = firstPacket && startCode ? 0x04 : 0x00;
                        header[1] = 0x00;
                    });
}

// ---- AMR, RFC 4867 ----------------------------------------------------------

uint32_t CRfc3267AmrHintTrackImpl::frameBytes(uint8_t frameType, bool wideBand) {
    // Speech bits of each mode rounded up to bytes (3GPP TS 26.101, 26.201);
    // SID frames are 5 bytes; the other types carry no speech.
    static const uint8_t kNarrow[16] = {12, 13, 15, 17, 19, 20, 26, 31, 5, 0, 0, 0, 0, 0, 0, 0};
    static const uint8_t kWide[16] = {17, 23, 32, 36, 40, 46, 50, 58, 60, 5, 0, 0, 0, 0, 0, 0};
    return (wideBand ? kWide : kNarrow)[frameType & 0x0F];
}

uint32_t CRfc3267AmrHintTrackImpl::framesPerPacket() const {
    return std::min(framesPerPacket_ ? framesPerPacket_ : 1u, kMaxAmrFramesPerPacket);
}

MP4Err CRfc3267AmrHintTrackImpl::prepare(CMp4Track* media, uint32_t* clockRate) {
    uint32_t format = 0;
    MP4Err err = media->getSampleEntryType(&format);
    if (err != MP4_OK) return err;
    if (format != fourcc("samr") && format != fourcc("sawb")) return MP4_ERR_INVALID_DATA;
    wideBand_ = format == fourcc("sawb");
    firstPacket_ = true;
    *clockRate = wideBand_ ? 16000 : 8000;
    return MP4_OK;
}

MP4Err CRfc3267AmrHintTrackImpl::packetize(CMediaSampleSource* source, uint32_t first,
                                           uint32_t sampleCount, CRtpHintSample* hint,
                                           uint32_t* consumed) {
    // Frames of as many whole samples as the packet takes; a sample with
    // more frames than that goes into one packet of its own.
    frames_.clear();
    uint32_t used = 0;
    const uint32_t limit = framesPerPacket();
    while (first + used <= sampleCount && frames_.size() < limit) {
        const uint8_t* data = nullptr;
        uint32_t size = 0;
        MP4Err err = source->read(first + used, &data, &size);
        if (err != MP4_OK) return err;
        std::vector<Frame> sampleFrames;
        for (uint32_t pos = 0; pos < size;) {
            const uint8_t header = data[pos];
            const uint32_t bytes = frameBytes((header >> 3) & 0x0F, wideBand_);
            if (bytes > size - pos - 1) break;  // damaged tail: not sent
            sampleFrames.push_back({first + used, pos + 1, bytes, header});
            pos += 1 + bytes;
        }
        if (!frames_.empty() && frames_.size() + sampleFrames.size() > limit) break;
        frames_.insert(frames_.end(), sampleFrames.begin(), sampleFrames.end());
        ++used;
    }
    *consumed = used ? used : 1;
    if (frames_.empty()) return MP4_OK;

    for (size_t start = 0; start < frames_.size(); start += kMaxAmrFramesPerPacket) {
        const size_t end = std::min(frames_.size(), start + kMaxAmrFramesPerPacket);
        CRtpPacket* packet = nullptr;
        // The marker starts a talk spurt (RFC 4867 §4.1): the stream's first packet.
        MP4Err err = startPacket(hint, firstPacket_, &packet);
        if (err != MP4_OK) return err;
        firstPacket_ = false;
        uint8_t toc[kImmediateCapacity];
        uint32_t tocBytes = 0;
        toc[tocBytes++] = kNoModeRequest;
        for (size_t i = start; i < end; ++i) {
            // F (another frame follows), FT and Q from the storage header.
            toc[tocBytes++] = static_cast<uint8_t>((frames_[i].header & 0x7C) | (i + 1 < end ? 0x80 : 0));
        }
        err = addImmediate(packet, toc, tocBytes);
        for (size_t i = start; i < end && err == MP4_OK; ++i) {
            if (frames_[i].length > 0) {
                err = addMediaBytes(packet, frames_[i].sample, frames_[i].offset, frames_[i].length);
            }
        }
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

}  // namespace quil
