// Building a hint track for a media track of a file being written: the
// packetization loop shared by every payload format.
#include <algorithm>
#include <cstring>
#include <new>

#include "HintTrack.h"
#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "file/Mp4FileImpl.h"
#include "hint/BoxPaths.h"
#include "boxes/HintBoxes.h"
#include "storage/MemoryStorage.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

uint64_t rescale(uint64_t time, uint32_t to, uint32_t from) {
    if (to == from || from == 0) return time;
    return static_cast<uint64_t>(static_cast<unsigned __int128>(time) * to / from);
}

}  // namespace

MP4Err CMp4RtpHintTrackImpl::prepare(CMp4Track*, uint32_t*) { return MP4_ERR_UNSUPPORTED; }

MP4Err CMp4RtpHintTrackImpl::packetize(CMediaSampleSource*, uint32_t, uint32_t, CRtpHintSample*,
                                       uint32_t*) {
    return MP4_ERR_UNSUPPORTED;
}

MP4Err CMp4RtpHintTrackImpl::build(uint8_t payloadType, CMp4HintTrackContext*) {
    if (built_ || hintTrack_) return MP4_ERR_NOT_AVAILABLE;
    if (mediaTrackNumber_ == 0) return MP4_ERR_INVALID_ARGUMENT;
    state_.payloadType = payloadType;

    CMp4Track* media = nullptr;
    MP4Err err = file_->getFinishedTrack(mediaTrackNumber_, &media);
    if (err != MP4_OK) return err;
    uint32_t kind = 0, mediaId = 0, clock = 0;
    err = media->getTrackType(&kind);
    if (err == MP4_OK && mediaKind() != 0 && kind != mediaKind()) err = MP4_ERR_INVALID_DATA;
    if (err == MP4_OK) err = media->getTrackId(&mediaId);
    if (err == MP4_OK) err = prepare(media, &clock);
    if (err == MP4_OK && clock == 0) err = MP4_ERR_INVALID_DATA;
    if (err != MP4_OK) {
        (void)file_->releaseTrack(media);
        return err;
    }
    timeScale_ = clock;

    CMp4Track* hint = nullptr;
    err = file_->addTrack(&hint);
    if (err != MP4_OK) {
        (void)file_->releaseTrack(media);
        return err;
    }
    err = hint->setTrackType(MP4_TRACK_HINT);
    if (err == MP4_OK) err = hint->setTimeScale(clock);
    if (err == MP4_OK) err = file_->getTrackCount(&hintTrackNumber_);
    if (err == MP4_OK) err = hint->getTrackId(&trackId_);
    if (err == MP4_OK) err = addHintTrackBoxes(hint, mediaId);
    if (err == MP4_OK) err = packetizeAll(media, hint);
    MP4Err released = file_->releaseTrack(hint);
    if (err == MP4_OK) err = released;
    if (err == MP4_OK) {
        uint64_t duration = 0;
        uint32_t mediaScale = 0;
        if (media->getMediaDuration(&duration) == MP4_OK && media->getTimeScale(&mediaScale) == MP4_OK &&
            duration > 0) {
            uint64_t bits = state_.payloadBytes * 8;
            uint64_t rate = static_cast<uint64_t>(static_cast<unsigned __int128>(bits) * mediaScale / duration);
            bitrate_ = rate > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(rate);
        }
    }
    (void)file_->releaseTrack(media);
    if (err != MP4_OK) return err;
    built_ = true;
    return finishHintTrack(mediaId);
}

MP4Err CMp4RtpHintTrackImpl::addHintTrackBoxes(CMp4Track* hint, uint32_t mediaTrackId) {
    CBox* trak = nullptr;
    MP4Err err = findTrackBox(file_, hintTrackNumber_, &trak);
    if (err != MP4_OK) return err;
    CTrackImpl* track = dynamic_cast<CTrackImpl*>(hint);
    if (!track) return MP4_ERR_INVALID_ARGUMENT;

    std::unique_ptr<CRtpHintSampleEntry> entry(new (std::nothrow) CRtpHintSampleEntry());
    std::unique_ptr<CTimeScaleEntryBox> tims(new (std::nothrow) CTimeScaleEntryBox());
    if (!entry || !tims) return MP4_ERR_OUT_OF_MEMORY;
    tims->value = timeScale_;
    entry->tims = std::move(tims);
    entry_ = entry.get();
    err = track->addSampleEntryBox(entry.release());
    if (err != MP4_OK) {
        entry_ = nullptr;
        return err;
    }

    // The hint samples' constructors name the media track as reference 0.
    CTrackReferenceBox* tref = nullptr;
    err = findOrAddChild(trak, fourcc("tref"), &tref);
    if (err != MP4_OK) return err;
    CTrackReferenceTypeBox* reference = nullptr;
    err = findOrAddChild(tref, fourcc("hint"), &reference);
    if (err != MP4_OK) return err;
    err = reference->addTrackId(mediaTrackId);
    if (err != MP4_OK) return err;
    referencedTrackIds_.assign(1, mediaTrackId);
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::packetizeAll(CMp4Track* media, CMp4Track* hintTrack) {
    uint32_t count = 0, mediaScale = 0;
    MP4Err err = media->getSampleCount(&count);
    if (err == MP4_OK) err = media->getTimeScale(&mediaScale);
    if (err != MP4_OK) return err;
    CMediaSampleSource source(file_, media);
    std::vector<uint8_t> bytes;
    uint64_t previousDecode = 0;
    bool first = true;
    for (uint32_t sample = 1; sample <= count;) {
        CRtpHintSample hint;
        uint32_t consumed = 0;
        err = packetize(&source, sample, count, &hint, &consumed);
        if (err != MP4_OK) return err;
        if (consumed == 0) consumed = 1;

        for (const auto& packet : hint.packets) {
            uint32_t packetSize = kRtpHeaderSize + packet->payloadLength();
            state_.largestPacket = std::max(state_.largestPacket, packetSize);
            state_.payloadBytes += packetSize;
            ++state_.packetCount;
        }
        uint64_t size = 0;
        err = hint.calculateSize(&size);
        if (err != MP4_OK) return err;
        if (size > UINT32_MAX) return MP4_ERR_VALUE_TOO_LARGE;
        bytes.assign(size, 0);
        CMemoryStorage storage;
        storage.attach(bytes.data(), static_cast<uint32_t>(size), true);
        err = storage.open(1);
        if (err == MP4_OK) err = hint.write(&storage);
        storage.detach();
        if (err != MP4_OK) return err;

        uint64_t decode = 0, composition = 0;
        uint32_t sync = 0;
        err = media->getSampleDecodeTime(sample, &decode);
        if (err == MP4_OK) err = media->getSampleCompositionTime(sample, &composition);
        if (err == MP4_OK) err = media->isSyncSample(sample, &sync);
        if (err != MP4_OK) return err;
        decode = rescale(decode, timeScale_, mediaScale);
        composition = rescale(composition, timeScale_, mediaScale);
        // A coarser clock may map two samples to one tick: keep decode
        // times strictly increasing, as the sample tables need.
        if (!first && decode <= previousDecode) decode = previousDecode + 1;
        if (composition < decode) composition = decode;
        err = hintTrack->addSample(bytes.data(), static_cast<uint32_t>(size), decode, composition,
                                   sync != 0);
        if (err != MP4_OK) return err;
        previousDecode = decode;
        first = false;
        sample += consumed;
    }
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::finishHintTrack(uint32_t) {
    maxPacketSize_ = state_.largestPacket;
    if (entry_) entry_->maxPacketSize = maxPacketSize_;
    CBox* trak = nullptr;
    MP4Err err = findTrackBox(file_, hintTrackNumber_, &trak);
    if (err != MP4_OK) return err;
    CBox* box = nullptr;
    // Enabled, but not part of the presentation itself: players skip it,
    // servers use it (ISO/IEC 14496-12 §8.3.2 track_in_movie).
    if (findChildPath(trak, {fourcc("tkhd")}, &box) == MP4_OK) {
        if (CTrackHeaderBox* tkhd = dynamic_cast<CTrackHeaderBox*>(box)) tkhd->flags = 1;
    }
    if (findChildPath(trak, {fourcc("mdia"), fourcc("minf"), fourcc("hmhd")}, &box) == MP4_OK) {
        if (CHintMediaHeaderBox* hmhd = dynamic_cast<CHintMediaHeaderBox*>(box)) {
            hmhd->maxPduSize = static_cast<uint16_t>(std::min<uint32_t>(maxPacketSize_, 0xFFFF));
            hmhd->avgPduSize = static_cast<uint16_t>(
                state_.packetCount ? std::min<uint64_t>(state_.payloadBytes / state_.packetCount, 0xFFFF) : 0);
            hmhd->maxBitrate = bitrate_;
            hmhd->avgBitrate = bitrate_;
        }
    }
    char* sdp = nullptr;
    err = getSdpMediaDescription(&sdp, mediaTrackNumber_);
    if (err != MP4_OK) return err;
    std::unique_ptr<char[]> owned(sdp);
    if (!sdp) return MP4_OK;  // the format describes nothing for this track

    CUserDataBox* udta = nullptr;
    CTrackHintInformationBox* hnti = nullptr;
    CRtpTrackSdpHintInformationBox* sdpBox = nullptr;
    err = findOrAddChild(trak, fourcc("udta"), &udta);
    if (err == MP4_OK) err = findOrAddChild(udta, fourcc("hnti"), &hnti);
    if (err == MP4_OK) err = findOrAddChild(hnti, fourcc("sdp "), &sdpBox);
    if (err == MP4_OK) err = sdpBox->setText(sdp);
    return err;
}

// ---- helpers for the packetizers --------------------------------------------

MP4Err CMp4RtpHintTrackImpl::startPacket(CRtpHintSample* hint, bool marker, CRtpPacket** packet) {
    MP4Err err = hint->startPacket(state_.payloadType, state_.nextSequence, 0, 0, packet);
    if (err != MP4_OK) return err;
    ++state_.nextSequence;
    (*packet)->mBit = marker ? 1 : 0;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::addImmediate(CRtpPacket* packet, const uint8_t* bytes, uint32_t count) {
    while (count > 0) {
        uint32_t piece = std::min(count, kImmediateCapacity);
        MP4Err err = packet->addImmediateData(bytes, piece);
        if (err != MP4_OK) return err;
        bytes += piece;
        count -= piece;
    }
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::addMediaBytes(CRtpPacket* packet, uint32_t sample, uint32_t offset,
                                           uint32_t count) {
    while (count > 0) {
        uint32_t piece = std::min<uint32_t>(count, 0xFFFF);
        MP4Err err = packet->addSampleReference(0, static_cast<uint16_t>(piece), sample, offset);
        if (err != MP4_OK) return err;
        offset += piece;
        count -= piece;
    }
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::fragment(CRtpHintSample* hint, uint32_t sample, uint32_t offset,
                                      uint32_t count, uint32_t headerBytes, bool markLast,
                                      const HeaderMaker& makeHeader) {
    const uint32_t room = state_.maxPayload - headerBytes;
    uint32_t done = 0;
    bool first = true;
    do {
        const uint32_t piece = std::min(room, count - done);
        const bool last = done + piece == count;
        CRtpPacket* packet = nullptr;
        MP4Err err = startPacket(hint, markLast && last, &packet);
        if (err != MP4_OK) return err;
        if (headerBytes > 0) {
            uint8_t header[kImmediateCapacity] = {};
            makeHeader(first, last, header);
            err = addImmediate(packet, header, headerBytes);
            if (err != MP4_OK) return err;
        }
        if (piece > 0) err = addMediaBytes(packet, sample, offset + done, piece);
        if (err != MP4_OK) return err;
        done += piece;
        first = false;
    } while (done < count);
    return MP4_OK;
}

}  // namespace quil
