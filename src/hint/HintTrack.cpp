#include "HintTrack.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "file/Mp4FileImpl.h"
#include "hint/BoxPaths.h"
#include "boxes/HintBoxes.h"
#include "storage/MemoryStorage.h"
#include "track/SampleTables.h"

namespace quil {
namespace {

constexpr uint32_t kMinPayloadSize = 64;
constexpr uint32_t kMaxPayloadSize = 65000;

// The 1-based number of the track with that ID, or 3.
MP4Err trackNumberOfId(CMp4FileImpl* file, uint32_t trackId, uint32_t* number) {
    *number = 0;
    for (uint32_t n = 1;; ++n) {
        CBox* trak = nullptr;
        MP4Err err = findTrackBox(file, n, &trak);
        if (err != MP4_OK) return err;
        CBox* box = nullptr;
        if (trak->findChild(fourcc("tkhd"), &box, 1) != MP4_OK) continue;
        CTrackHeaderBox* tkhd = dynamic_cast<CTrackHeaderBox*>(box);
        if (tkhd && tkhd->trackId == trackId) {
            *number = n;
            return MP4_OK;
        }
    }
}

uint64_t scaleTime(uint64_t time, uint32_t to, uint32_t from) {
    if (to == from || from == 0) return time;
    // 128-bit intermediate: a long 90 kHz track times a large scale would
    // overflow 64 bits.
    return static_cast<uint64_t>(static_cast<unsigned __int128>(time) * to / from);
}

}  // namespace

// ---- media samples ----------------------------------------------------------

CMediaSampleSource::CMediaSampleSource(CMp4FileImpl* file, CMp4Track* track)
    : file_(file), track_(track) {}

CMediaSampleSource::~CMediaSampleSource() = default;

MP4Err CMediaSampleSource::read(uint32_t sample, const uint8_t** data, uint32_t* size) {
    *data = nullptr;
    *size = 0;
    if (sample == current_ && bytes_) {
        *data = bytes_.get();
        *size = size_;
        return MP4_OK;
    }
    current_ = 0;
    uint64_t offset = 0;
    uint32_t length = 0;
    MP4Err err = track_->getSampleOffset(sample, &offset, &length);
    if (err != MP4_OK) return err;
    // A damaged size must not make us allocate more than the file holds.
    uint64_t fileLength = 0;
    CStorage* storage = file_->storage();
    if (storage && storage->getLength(&fileLength) == MP4_OK && file_->mode() == 0 &&
        (offset > fileLength || length > fileLength - offset)) {
        return MP4_ERR_INVALID_DATA;
    }
    if (length > capacity_) {
        bytes_.reset(new (std::nothrow) uint8_t[length]);
        if (!bytes_) {
            capacity_ = 0;
            return MP4_ERR_OUT_OF_MEMORY;
        }
        capacity_ = length;
    }
    if (!bytes_) {
        bytes_.reset(new (std::nothrow) uint8_t[1]);
        if (!bytes_) return MP4_ERR_OUT_OF_MEMORY;
        capacity_ = 1;
    }
    if (file_->mode() == 0) {
        uint32_t got = 0;
        err = track_->readSample(sample, capacity_, &got, bytes_.get());
        length = got;
    } else {
        // A file being written is read back from the disc: the samples
        // hinted were flushed when their track was released.
        err = file_->readBackMediaBytes(offset, length, bytes_.get());
    }
    if (err != MP4_OK) return err;
    current_ = sample;
    size_ = length;
    *data = bytes_.get();
    *size = size_;
    return MP4_OK;
}

// ---- construction -----------------------------------------------------------

CMp4RtpHintTrackImpl::CMp4RtpHintTrackImpl(CMp4FileImpl* file, uint32_t trackMode)
    : file_(file), trackMode_(trackMode) {}

CMp4RtpHintTrackImpl::~CMp4RtpHintTrackImpl() {
    for (MediaCache& cache : mediaCaches_) {
        cache.source.reset();
        if (cache.track && file_) (void)file_->releaseTrack(cache.track);
    }
    if (hintTrack_ && file_) (void)file_->releaseTrack(hintTrack_);
}

MP4Err CMp4RtpHintTrackImpl::setMediaTrack(uint32_t mediaTrackNumber) {
    if (built_ || hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    if (mediaTrackNumber == 0) return MP4_ERR_INVALID_ARGUMENT;
    mediaTrackNumber_ = mediaTrackNumber;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::setMaxPayloadSize(uint32_t bytes) {
    if (built_ || hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    if (bytes < kMinPayloadSize || bytes > kMaxPayloadSize) return MP4_ERR_INVALID_ARGUMENT;
    state_.maxPayload = bytes;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::setFramesPerPacket(uint32_t frames) {
    if (built_ || hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    if (frames == 0) return MP4_ERR_INVALID_ARGUMENT;
    framesPerPacket_ = frames;
    return MP4_OK;
}

// ---- reading ----------------------------------------------------------------

MP4Err CMp4RtpHintTrackImpl::bind(uint32_t trackNumber) {
    MP4Err err = file_->getFinishedTrack(trackNumber, &hintTrack_);
    if (err != MP4_OK) return err;
    hintTrackNumber_ = trackNumber;
    uint32_t kind = 0;
    err = hintTrack_->getTrackType(&kind);
    if (err != MP4_OK) return err;
    if (kind != MP4_TRACK_HINT) return MP4_ERR_NOT_AVAILABLE;

    err = findTrackBox(file_, trackNumber, &trak_);
    if (err != MP4_OK) return err;
    CBox* box = nullptr;
    err = findChildPath(trak_, {fourcc("mdia"), fourcc("minf"), fourcc("stbl"), fourcc("stsd")}, &box);
    if (err != MP4_OK) return err;
    CSampleDescriptionBox* stsd = dynamic_cast<CSampleDescriptionBox*>(box);
    CBox* entry = nullptr;
    if (!stsd || stsd->getEntry(1, &entry) != MP4_OK) return MP4_ERR_NOT_AVAILABLE;
    entry_ = dynamic_cast<CRtpHintSampleEntry*>(entry);
    if (!entry_) return MP4_ERR_NOT_AVAILABLE;
    timeScale_ = entry_->tims ? entry_->tims->value : 0;
    maxPacketSize_ = entry_->maxPacketSize;

    if (findChildPath(trak_, {fourcc("tref"), fourcc("hint")}, &box) == MP4_OK) {
        CTrackReferenceTypeBox* hint = dynamic_cast<CTrackReferenceTypeBox*>(box);
        for (uint32_t i = 0; hint && i < hint->count; ++i) {
            referencedTrackIds_.push_back(hint->trackIds[i]);
        }
    }
    if (!referencedTrackIds_.empty()) {
        (void)trackNumberOfId(file_, referencedTrackIds_[0], &mediaTrackNumber_);
    }
    (void)hintTrack_->getTimeScale(&mediaTimeScale_);
    (void)hintTrack_->getInitialDelay(&initialDelay_);
    (void)hintTrack_->getTrackId(&trackId_);
    if (timeScale_ == 0) timeScale_ = mediaTimeScale_;

    // The payload type and bandwidth as the stored SDP announces them;
    // without one, the first packet's payload type.
    char* sdp = nullptr;
    if (getTrackSdp(&sdp) == MP4_OK) {
        unsigned int payloadType = 0, bandwidth = 0;
        const char* media = std::strstr(sdp, "m=");
        const char* avp = media ? std::strstr(media, "RTP/AVP ") : nullptr;
        if (avp && std::sscanf(avp + 8, "%u", &payloadType) == 1) {
            state_.payloadType = static_cast<uint8_t>(payloadType & 0x7F);
        }
        const char* as = std::strstr(sdp, "b=AS:");
        if (as && std::sscanf(as + 5, "%u", &bandwidth) == 1) bitrate_ = bandwidth << 10;
        delete[] sdp;
    } else {
        CRtpPacket* first = nullptr;
        if (packetAt(1, 1, &first) == MP4_OK) state_.payloadType = first->payloadType;
    }
    if (findChildPath(trak_, {fourcc("mdia"), fourcc("minf"), fourcc("hmhd")}, &box) == MP4_OK) {
        CHintMediaHeaderBox* hmhd = dynamic_cast<CHintMediaHeaderBox*>(box);
        if (hmhd && hmhd->avgBitrate != 0) bitrate_ = hmhd->avgBitrate;
    }
    built_ = true;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::loadHintSample(uint32_t sample) {
    if (!hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    if (sample == loadedSample_ && hintSample_) return MP4_OK;
    loadedSample_ = 0;
    hintSample_.reset();
    const uint8_t* data = nullptr;
    uint32_t size = 0;
    CMediaSampleSource* source = nullptr;
    MP4Err err = sourceForTrack(hintTrackNumber_, &source);
    if (err != MP4_OK) return err;
    err = source->read(sample, &data, &size);
    if (err != MP4_OK) return err;
    std::unique_ptr<CRtpHintSample> parsed(new (std::nothrow) CRtpHintSample());
    if (!parsed) return MP4_ERR_OUT_OF_MEMORY;
    // The memory storage reads a mutable buffer; it is only read here.
    CMemoryStorage storage;
    storage.attach(const_cast<uint8_t*>(data), size, false);
    err = storage.open(0);
    if (err == MP4_OK) err = parsed->read(&storage, size);
    storage.detach();
    if (err != MP4_OK) return err;
    hintSample_ = std::move(parsed);
    loadedSample_ = sample;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::packetAt(uint32_t sample, uint32_t packet, CRtpPacket** found) {
    *found = nullptr;
    if (packet == 0) return MP4_ERR_BAD_INDEX;
    MP4Err err = loadHintSample(sample);
    if (err != MP4_OK) return err;
    if (packet > hintSample_->packets.size()) return MP4_ERR_NOT_AVAILABLE;
    *found = hintSample_->packets[packet - 1].get();
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::sourceForTrack(uint32_t trackNumber, CMediaSampleSource** source) {
    *source = nullptr;
    for (MediaCache& cache : mediaCaches_) {
        if (cache.trackNumber == trackNumber) {
            *source = cache.source.get();
            return MP4_OK;
        }
    }
    MediaCache cache;
    cache.trackNumber = trackNumber;
    if (trackNumber == hintTrackNumber_ && hintTrack_) {
        cache.track = nullptr;  // the hint track itself, released by the destructor
    } else {
        MP4Err err = file_->getFinishedTrack(trackNumber, &cache.track);
        if (err != MP4_OK) return err;
    }
    CMp4Track* track = cache.track ? cache.track : hintTrack_;
    cache.source.reset(new (std::nothrow) CMediaSampleSource(file_, track));
    if (!cache.source) {
        if (cache.track) (void)file_->releaseTrack(cache.track);
        return MP4_ERR_OUT_OF_MEMORY;
    }
    *source = cache.source.get();
    mediaCaches_.push_back(std::move(cache));
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::referencedTrackNumber(int8_t trackRefIndex, uint32_t* trackNumber) {
    *trackNumber = 0;
    if (trackRefIndex == -1) {
        *trackNumber = hintTrackNumber_;
        return MP4_OK;
    }
    if (trackRefIndex < 0 || static_cast<size_t>(trackRefIndex) >= referencedTrackIds_.size()) {
        return MP4_ERR_INVALID_DATA;
    }
    MP4Err err = trackNumberOfId(file_, referencedTrackIds_[trackRefIndex], trackNumber);
    return err == MP4_ERR_NOT_AVAILABLE ? MP4_ERR_INVALID_DATA : err;
}

MP4Err CMp4RtpHintTrackImpl::sampleDescriptionBytes(int8_t trackRefIndex, uint32_t index,
                                                    std::vector<uint8_t>* bytes) {
    uint32_t trackNumber = 0;
    MP4Err err = referencedTrackNumber(trackRefIndex, &trackNumber);
    if (err != MP4_OK) return err;
    CBox* trak = nullptr;
    err = findTrackBox(file_, trackNumber, &trak);
    CBox* box = nullptr;
    if (err == MP4_OK) err = findChildPath(trak, {fourcc("mdia"), fourcc("minf"), fourcc("stbl"), fourcc("stsd")}, &box);
    CSampleDescriptionBox* stsd = dynamic_cast<CSampleDescriptionBox*>(box);
    if (err != MP4_OK || !stsd) return MP4_ERR_INVALID_DATA;
    CBox* entry = nullptr;
    if (stsd->getEntry(index, &entry) != MP4_OK) return MP4_ERR_INVALID_DATA;
    uint64_t size = 0;
    err = entry->calculateSize();
    if (err == MP4_OK) err = entry->getSize(&size);
    if (err != MP4_OK) return err;
    if (size > UINT32_MAX) return MP4_ERR_INVALID_DATA;
    bytes->assign(size, 0);
    CMemoryStorage storage;
    storage.attach(bytes->data(), static_cast<uint32_t>(size), true);
    err = storage.open(1);
    if (err == MP4_OK) err = entry->write(&storage);
    storage.detach();
    return err;
}

MP4Err CMp4RtpHintTrackImpl::copyConstructor(CRTPBaseConstructor* constructor, uint8_t* out,
                                             uint32_t* written, uint32_t capacity) {
    uint8_t kind = 0;
    constructor->getType(&kind);
    const uint8_t* source = nullptr;
    uint32_t sourceSize = 0, offset = 0, length = 0;
    std::vector<uint8_t> description;
    if (kind == kConstructorImmediate) {
        MP4Err err = static_cast<CRTPImmediateConstructor*>(constructor)->getData(&source, &length);
        if (err != MP4_OK) return err;
        sourceSize = length;
    } else if (kind == kConstructorSample) {
        auto* sample = static_cast<CRTPSampleConstructor*>(constructor);
        uint32_t trackNumber = 0;
        MP4Err err = referencedTrackNumber(sample->trackRefIndex, &trackNumber);
        CMediaSampleSource* media = nullptr;
        if (err == MP4_OK) err = sourceForTrack(trackNumber, &media);
        // A sample that cannot be read is a constructor pointing outside
        // its track.
        if (err == MP4_OK && media->read(sample->sampleNumber, &source, &sourceSize) != MP4_OK) {
            err = MP4_ERR_INVALID_DATA;
        }
        if (err != MP4_OK) return err;
        offset = sample->sampleOffset;
        length = sample->length;
    } else if (kind == kConstructorSampleDescription) {
        auto* entry = static_cast<CRTPSampleDescriptionConstructor*>(constructor);
        MP4Err err = sampleDescriptionBytes(entry->trackRefIndex, entry->sampleDescriptionIndex,
                                            &description);
        if (err != MP4_OK) return err;
        source = description.data();
        sourceSize = static_cast<uint32_t>(description.size());
        offset = entry->sampleDescriptionOffset;
        length = entry->length;
    } else {
        return MP4_OK;  // no-op
    }
    if (offset > sourceSize || length > sourceSize - offset) return MP4_ERR_INVALID_DATA;
    if (length > capacity - *written) return MP4_ERR_INVALID_DATA;
    if (length > 0) std::memcpy(out + *written, source + offset, length);
    *written += length;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::rtpTime(uint32_t sample, uint64_t* time, bool composition) {
    *time = 0;
    uint64_t mediaTime = 0;
    MP4Err err = composition ? hintTrack_->getSampleCompositionTime(sample, &mediaTime)
                             : hintTrack_->getSampleDecodeTime(sample, &mediaTime);
    if (err != MP4_OK) return err;
    // Times read include the edit list's delay; RTP time starts at the media.
    mediaTime = mediaTime >= initialDelay_ ? mediaTime - initialDelay_ : 0;
    *time = scaleTime(mediaTime, timeScale_, mediaTimeScale_);
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getPacket(uint32_t sample, uint32_t packet, uint8_t* buffer,
                                       uint32_t bufferSize, uint32_t* length) {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    if (!buffer && bufferSize != 0) return MP4_ERR_INVALID_ARGUMENT;
    CRtpPacket* record = nullptr;
    MP4Err err = packetAt(sample, packet, &record);
    if (err != MP4_OK) return err;
    uint64_t total = kRtpHeaderSize + static_cast<uint64_t>(record->payloadLength());
    if (total > UINT32_MAX) return MP4_ERR_INVALID_DATA;
    *length = static_cast<uint32_t>(total);
    if (total > bufferSize) return MP4_ERR_BUFFER_TOO_SMALL;

    uint32_t timestamp = 0;
    err = getPacketTimestamp(sample, packet, &timestamp);
    if (err != MP4_OK) return err;
    const uint16_t sequence = static_cast<uint16_t>(
        record->sequenceNumber + sequenceOffset_ +
        (entry_ && entry_->snro ? entry_->snro->value : 0));
    // RTP version 2; padding and header extensions are never produced.
    buffer[0] = 0x80;
    buffer[1] = static_cast<uint8_t>((record->mBit << 7) | (record->payloadType & 0x7F));
    buffer[2] = static_cast<uint8_t>(sequence >> 8);
    buffer[3] = static_cast<uint8_t>(sequence);
    for (int i = 0; i < 4; ++i) {
        buffer[4 + i] = static_cast<uint8_t>(timestamp >> (24 - 8 * i));
        buffer[8 + i] = static_cast<uint8_t>(ssrc_ >> (24 - 8 * i));
    }
    uint32_t written = kRtpHeaderSize;
    // The constructors are checked against the packet's own bytes as well
    // as their sources: the packet record was read before its sources.
    for (const auto& constructor : record->constructors) {
        err = copyConstructor(constructor.get(), buffer, &written, *length);
        if (err != MP4_OK) {
            *length = 0;
            return err;
        }
    }
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getPacketTimestamp(uint32_t sample, uint32_t packet,
                                                uint32_t* timestamp) {
    if (!timestamp) return MP4_ERR_INVALID_ARGUMENT;
    *timestamp = 0;
    CRtpPacket* record = nullptr;
    MP4Err err = packetAt(sample, packet, &record);
    if (err != MP4_OK) return err;
    uint64_t time = 0;
    err = rtpTime(sample, &time, true);
    if (err != MP4_OK) return err;
    // The timestamp is the sample's composition time; relativeTime only
    // shifts when the packet is sent (ISO/IEC 14496-12 §9.1.3.1).
    uint32_t offset = entry_ && entry_->tsro ? entry_->tsro->value : 0;
    *timestamp = static_cast<uint32_t>(time) + offset + timestampOffset_;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getPacketCount(uint32_t sample, uint32_t* count) {
    if (!count) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    MP4Err err = loadHintSample(sample);
    if (err != MP4_OK) return err;
    *count = static_cast<uint32_t>(hintSample_->packets.size());
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::dumpHintSample(uint32_t sample) {
    MP4Err err = loadHintSample(sample);
    if (err != MP4_OK) return err;
    return hintSample_->dump(0);
}

MP4Err CMp4RtpHintTrackImpl::getHintSampleTime(uint32_t sample, uint64_t* time) {
    if (!time) return MP4_ERR_INVALID_ARGUMENT;
    *time = 0;
    if (!hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    return rtpTime(sample, time, false);
}

MP4Err CMp4RtpHintTrackImpl::setRtpSession(uint32_t ssrc, uint32_t timestampOffset,
                                           uint16_t sequenceOffset) {
    ssrc_ = ssrc;
    timestampOffset_ = timestampOffset;
    sequenceOffset_ = sequenceOffset;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getTrackSdp(char** text) {
    if (!text) return MP4_ERR_INVALID_ARGUMENT;
    *text = nullptr;
    CBox* trak = trak_;
    if (!trak && hintTrackNumber_ != 0) (void)findTrackBox(file_, hintTrackNumber_, &trak);
    if (!trak) return MP4_ERR_NOT_AVAILABLE;
    CBox* box = nullptr;
    MP4Err err = findChildPath(trak, {fourcc("udta"), fourcc("hnti"), fourcc("sdp ")}, &box);
    if (err != MP4_OK) return err;
    CRtpTrackSdpHintInformationBox* sdp = dynamic_cast<CRtpTrackSdpHintInformationBox*>(box);
    if (!sdp) return MP4_ERR_NOT_AVAILABLE;
    char* copy = new (std::nothrow) char[sdp->textLength() + 1];
    if (!copy) return MP4_ERR_OUT_OF_MEMORY;
    std::memcpy(copy, sdp->text(), sdp->textLength() + 1);
    *text = copy;
    return MP4_OK;
}

// ---- simple properties ------------------------------------------------------

MP4Err CMp4RtpHintTrackImpl::getHintTrackNumber(uint32_t* trackNumber) {
    if (!trackNumber) return MP4_ERR_INVALID_ARGUMENT;
    *trackNumber = hintTrackNumber_;
    return hintTrackNumber_ ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4RtpHintTrackImpl::getMediaTrackNumber(uint32_t* trackNumber) {
    if (!trackNumber) return MP4_ERR_INVALID_ARGUMENT;
    *trackNumber = mediaTrackNumber_;
    return mediaTrackNumber_ ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4RtpHintTrackImpl::getHintSampleCount(uint32_t* count) {
    if (!count) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    if (!hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    return hintTrack_->getSampleCount(count);
}

MP4Err CMp4RtpHintTrackImpl::getTimeScale(uint32_t* timeScale) {
    if (!timeScale) return MP4_ERR_INVALID_ARGUMENT;
    *timeScale = timeScale_;
    return timeScale_ ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4RtpHintTrackImpl::getPayloadType(uint8_t* payloadType) {
    if (!payloadType) return MP4_ERR_INVALID_ARGUMENT;
    *payloadType = state_.payloadType;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getMaxPacketSize(uint32_t* bytes) {
    if (!bytes) return MP4_ERR_INVALID_ARGUMENT;
    *bytes = maxPacketSize_;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getBitrate(uint32_t* bitrate) {
    if (!bitrate) return MP4_ERR_INVALID_ARGUMENT;
    *bitrate = bitrate_;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::getTrackId(uint32_t* trackId) {
    if (!trackId) return MP4_ERR_INVALID_ARGUMENT;
    *trackId = trackId_;
    return trackId_ ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4RtpHintTrackImpl::getSdpMediaDescription(char** text, uint32_t) {
    // A hint track read from a file describes itself with what it stores.
    return getTrackSdp(text);
}

}  // namespace quil
