// Writing a track: the "trak" of a new track, its kind and sample entries,
// samples collected into chunks that go into "mdat", the tables grown as
// they arrive, and the finalisation that fills durations, the edit list and
// the bit rates.
#include <cstring>
#include <new>

#include "boxes/ConfigBoxes.h"
#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "track/SampleEntryBuilder.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
constexpr uint32_t kTrackEnabledInMovieAndPreview = 7;
constexpr int16_t kFullVolume = 0x0100;

// Media time to movie time for edits, rounded up: a duration read back
// (which truncates to media units) then converts to the one it came from.
uint64_t movieUnitsRoundedUp(uint64_t value, uint32_t movieScale, uint32_t mediaScale) {
    if (mediaScale == 0) return 0;
    const unsigned __int128 product = static_cast<unsigned __int128>(value) * movieScale;
    return static_cast<uint64_t>((product + mediaScale - 1) / mediaScale);
}

template <class T>
T* newBox(uint32_t type) {
    T* box = new (std::nothrow) T();
    if (box) box->type = type;
    return box;
}

// Appends a new child to a parent, which takes ownership. 1 when the box
// could not be made.
template <class T>
MP4Err appendNew(CBox* parent, uint32_t type, T** out) {
    *out = newBox<T>(type);
    if (!*out) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = parent->addChild(*out);
    if (err != MP4_OK) {
        delete *out;
        *out = nullptr;
    }
    return err;
}


}  // namespace

// ---- the new track --------------------------------------------------------

MP4Err CTrackImpl::initWriting(uint32_t trackIndex) {
    if (!host_) return MP4_ERR_INVALID_DATA;
    CBox* moov = nullptr;
    MP4Err err = host_->findMovie(&moov);
    if (err != MP4_OK) return err;
    CTrackBox* trak = nullptr;
    if ((err = appendNew(moov, fourcc("trak"), &trak)) != MP4_OK) return err;
    trak_ = trak;
    if ((err = appendNew(trak_, fourcc("tkhd"), &tkhd_)) != MP4_OK) return err;
    tkhd_->flags = kTrackEnabledInMovieAndPreview;
    tkhd_->trackId = trackIndex;
    if ((err = appendNew(trak_, fourcc("mdia"), &mdia_)) != MP4_OK) return err;
    if ((err = appendNew(mdia_, fourcc("mdhd"), &mdhd_)) != MP4_OK) return err;
    mdhd_->timeScale = 1000;
    const uint8_t undetermined[3] = {'u', 'n', 'd'};
    if ((err = mdhd_->setLanguage(undetermined)) != MP4_OK) return err;
    if ((err = appendNew(mdia_, fourcc("hdlr"), &hdlr_)) != MP4_OK) return err;
    if ((err = appendNew(mdia_, fourcc("minf"), &minf_)) != MP4_OK) return err;

    timeTable_.reset(new (std::nothrow) CSampleTimeTable());
    if (!timeTable_) return MP4_ERR_OUT_OF_MEMORY;
    timeTable_->writing = 1;
    trackIndex_ = trackIndex;
    trackId_ = trackIndex;
    writing_ = true;
    open_ = 1;
    return MP4_OK;
}

MP4Err CTrackImpl::setTrackType(uint32_t type) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_ || stbl_) return MP4_ERR_NOT_AVAILABLE;
    uint32_t handlerType = 0;
    const char* name = nullptr;
    MP4Err err = handlerForMediaKind(type, host_->fileType(), &handlerType, &name);
    if (err != MP4_OK) return err;
    if ((err = buildMediaInformation(type)) != MP4_OK) return err;
    hdlr_->handlerType = handlerType;
    if (!hdlr_->name && (err = hdlr_->setName(name)) != MP4_OK) return err;
    if (type == MP4_TRACK_AUDIO) tkhd_->volume = kFullVolume;
    mediaType_ = type;
    return MP4_OK;
}

// minf: the media header, dinf{dref{"url " (flags 1: data in this file)}},
// stbl{stsd, stts, stsc, stsz, stco}.
MP4Err CTrackImpl::buildMediaInformation(uint32_t kind) {
    CBox* header = nullptr;
    MP4Err err = createMediaHeaderBox(kind, &header);
    if (err != MP4_OK) return err;
    std::unique_ptr<CBox> owned(header);
    if ((err = minf_->addChild(header)) != MP4_OK) return err;
    owned.release();

    CDataInformationBox* dinf = nullptr;
    CDataReferenceBox* dref = nullptr;
    CDataEntryURLBox* url = nullptr;
    if ((err = appendNew(minf_, fourcc("dinf"), &dinf)) != MP4_OK) return err;
    if ((err = appendNew(dinf, fourcc("dref"), &dref)) != MP4_OK) return err;
    if ((err = appendNew(dref, fourcc("url "), &url)) != MP4_OK) return err;
    url->flags = 1;

    CSampleTableBox* stbl = nullptr;
    if ((err = appendNew(minf_, fourcc("stbl"), &stbl)) != MP4_OK) return err;
    if ((err = appendNew(stbl, fourcc("stsd"), &stsd_)) != MP4_OK) return err;
    if ((err = appendNew(stbl, fourcc("stts"), &stts_)) != MP4_OK) return err;
    if ((err = appendNew(stbl, fourcc("stsc"), &stsc_)) != MP4_OK) return err;
    if ((err = appendNew(stbl, fourcc("stsz"), &stsz_)) != MP4_OK) return err;
    if ((err = appendNew(stbl, fourcc("stco"), &stco_)) != MP4_OK) return err;
    stbl_ = stbl;
    return MP4_OK;
}

void CTrackImpl::detachFromFile() {
    open_ = 0;
    markTablesFixed(false);
    metaData_.reset();  // its "udta" goes with the tree
    writing_ = false;
    trak_ = nullptr;
    tkhd_ = nullptr;
    mdia_ = nullptr;
    minf_ = nullptr;
    mdhd_ = nullptr;
    hdlr_ = nullptr;
    stbl_ = nullptr;
    stts_ = nullptr;
    ctts_ = nullptr;
    stsz_ = nullptr;
    stsc_ = nullptr;
    stco_ = nullptr;
    co64_ = nullptr;
    stss_ = nullptr;
    stsd_ = nullptr;
}

// ---- header setters -------------------------------------------------------

MP4Err CTrackImpl::setDimensions(uint32_t width, uint32_t height, uint32_t rotation) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    if (width > 0xFFFF || height > 0xFFFF) return MP4_ERR_INVALID_ARGUMENT;
    // ISO/IEC 14496-12 §6.2.2: {a b u, c d v, x y w}; a quarter turn moves
    // the picture back into view by the translation x, y.
    const int32_t one = 0x10000;
    const int32_t w = static_cast<int32_t>(width << 16), h = static_cast<int32_t>(height << 16);
    int32_t a = one, b = 0, c = 0, d = one, x = 0, y = 0;
    switch (rotation) {
        case 0: break;
        case 90: a = 0; b = one; c = -one; d = 0; x = h; break;
        case 180: a = -one; d = -one; x = w; y = h; break;
        case 270: a = 0; b = -one; c = one; d = 0; y = w; break;
        default: return MP4_ERR_INVALID_ARGUMENT;
    }
    const int32_t matrix[9] = {a, b, 0, c, d, 0, x, y, 0x40000000};
    for (int i = 0; i < 9; ++i) tkhd_->matrix[i] = matrix[i];
    tkhd_->rotationAngle = CTrackHeaderBox::rotationFromMatrix(matrix);
    tkhd_->width = w;
    tkhd_->height = h;
    dimensionsSet_ = true;
    return MP4_OK;
}

MP4Err CTrackImpl::setVolume(int16_t volume) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    tkhd_->volume = volume;
    return MP4_OK;
}

MP4Err CTrackImpl::setHandlerName(const char* name) {
    if (!name) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    return hdlr_->setName(name);
}

MP4Err CTrackImpl::setEditList(uint64_t initialDelay, int64_t firstMediaTime,
                               uint64_t presentedDuration) {
    if (firstMediaTime < 0) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_ || finalized_) return MP4_ERR_NOT_AVAILABLE;
    editSet_ = true;
    editDelay_ = initialDelay;
    editMediaTime_ = firstMediaTime;
    editDuration_ = presentedDuration;
    return MP4_OK;
}

MP4Err CTrackImpl::setLastSampleDuration(uint32_t duration) {
    if (duration > 0x7FFFFFFFu) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_ || finalized_) return MP4_ERR_NOT_AVAILABLE;
    lastSampleDuration_ = duration;
    return MP4_OK;
}

MP4Err CTrackImpl::setChunkLimits(uint64_t durationLimit, uint32_t byteLimit) {
    chunkDurationLimit_ = durationLimit;
    chunkByteLimit_ = byteLimit;
    return MP4_OK;
}

MP4Err CTrackImpl::setAudioSampleFactor(uint32_t factor) {
    if (factor == 0) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    if (bytesPerAudioSample_ == 0) return MP4_ERR_INVALID_DATA;
    const uint64_t product = static_cast<uint64_t>(bytesPerAudioSample_) * factor;
    if (product > kMax32) return MP4_ERR_VALUE_TOO_LARGE;
    bytesPerAudioSample_ = static_cast<uint32_t>(product);
    return MP4_OK;
}

// ---- sample entries -------------------------------------------------------

MP4Err CTrackImpl::addSampleEntry(const MP4SampleEntryInfo* info) {
    if (!info) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    if (!stbl_) return MP4_ERR_INVALID_DATA;
    CSampleEntry* entry = nullptr;
    // The ES ID of an MPEG-4 stream is its track's ID (ISO/IEC 14496-14 §3.1.2).
    MP4Err err = buildSampleEntry(*info, mediaType_, static_cast<uint16_t>(trackId_), &entry);
    if (err != MP4_OK) return err;
    return appendSampleEntry(entry, true);
}

MP4Err CTrackImpl::addSampleEntryFrom(CMp4Track* source, uint32_t index) {
    auto* from = dynamic_cast<CTrackImpl*>(source);
    if (!from || from == this) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    if (!stbl_) return MP4_ERR_INVALID_DATA;
    if (!from->open_ || !from->stsd_) return MP4_ERR_INVALID_DATA;
    CBox* original = nullptr;
    MP4Err err = from->stsd_->getEntry(index, &original);
    if (err != MP4_OK) return err;
    CBox* copy = nullptr;
    if ((err = copyBox(original, fourcc("stsd"), &copy)) != MP4_OK) return err;
    return appendSampleEntry(copy, false);
}

MP4Err CTrackImpl::addSampleEntryBox(CBox* entry) {
    std::unique_ptr<CBox> owned(entry);
    if (!entry) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_ || !stbl_) return MP4_ERR_INVALID_DATA;
    if (!writing_) return MP4_ERR_NOT_AVAILABLE;
    return appendSampleEntry(owned.release(), false);
}

MP4Err CTrackImpl::appendSampleEntry(CBox* entry, bool builtHere) {
    std::unique_ptr<CBox> owned(entry);
    const bool first = stsd_->entryCount == 0;
    MP4Err err = stsd_->addChild(entry);
    if (err != MP4_OK) return err;
    owned.release();
    if (first) {
        fillsBitrates_ = builtHere;
        auto* sampleEntry = dynamic_cast<CSampleEntry*>(entry);
        bytesPerAudioSample_ = sampleEntry ? rawAudioSampleBytes(sampleEntry) : 1;
        // Compressed audio has no fixed bytes per time unit: the track mode
        // applies to raw audio only.
        chunkAsSampleWriting_ =
            mode_ != 0 && mediaType_ == MP4_TRACK_AUDIO && isRawAudioEntry(entry);
    }
    return MP4_OK;
}

// ---- samples --------------------------------------------------------------

MP4Err CTrackImpl::checkSample(const uint8_t* data, uint32_t size, uint64_t decodeTime,
                               uint64_t compositionTime, uint32_t* audioSamples) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_ || finalized_) return MP4_ERR_NOT_AVAILABLE;
    if (!stbl_ || stsd_->entryCount == 0) return MP4_ERR_INVALID_DATA;
    if (size == 0 || !data) return MP4_ERR_INVALID_ARGUMENT;
    if (mdhd_->timeScale == 0) return MP4_ERR_INVALID_DATA;
    *audioSamples = 1;
    if (chunkAsSampleWriting_) {
        // Raw audio, one chunk per call: whole audio samples only.
        if (size % bytesPerAudioSample_ != 0) return MP4_ERR_INVALID_ARGUMENT;
        *audioSamples = size / bytesPerAudioSample_;
    }
    // Checked before anything changes, so that a refused sample leaves the
    // track as it was.
    const uint64_t lastTime = decodeTime + (*audioSamples - 1);
    if (lastTime < decodeTime) return MP4_ERR_BAD_TIME;
    if (timeTable_->sampleCount > 0) {
        if (decodeTime <= lastDecodeTime_) return MP4_ERR_BAD_TIME;
        if (decodeTime - lastDecodeTime_ > kMax32) return MP4_ERR_BAD_TIME;
    }
    if (compositionTime < decodeTime) return MP4_ERR_BAD_TIME;
    // Offsets are read back as signed 32-bit values.
    if (compositionTime - decodeTime > 0x7FFFFFFFull) return MP4_ERR_BAD_TIME;
    if (static_cast<uint64_t>(nextSample_) + *audioSamples > kMax32) return MP4_ERR_VALUE_TOO_LARGE;
    return MP4_OK;
}

MP4Err CTrackImpl::addSample(const uint8_t* data, uint32_t size, uint64_t decodeTime,
                             uint64_t compositionTime, bool sync) {
    CFragmentSampleSink* fragments = open_ && writing_ ? host_->fragmentSamples() : nullptr;
    if (fragments) {
        if (!stbl_ || stsd_->entryCount == 0) return MP4_ERR_INVALID_DATA;
        return fragments->addFragmentSample(trackId_, data, size, decodeTime, compositionTime,
                                            sync);
    }
    uint32_t audioSamples = 1;
    MP4Err err = checkSample(data, size, decodeTime, compositionTime, &audioSamples);
    if (err != MP4_OK) return err;
    if (!chunkAsSampleWriting_) {
        CChunkInterleaving* interleaving = host_->chunkInterleaving();
        MP4Err cut = MP4_OK;
        // A failed cut keeps its chunk pending; the sample still joins it.
        if (interleaving) cut = chunkBeforeAppend(interleaving, decodeTime, sync);
        if ((err = addToTables(size, decodeTime, compositionTime, sync)) != MP4_OK) return err;
        if ((err = queueBytes(data, size, 1)) != MP4_OK) return err;
        if (!interleaving) cut = chunkAfterAppend(decodeTime);
        err = addToStatistics(decodeTime, size);
        return cut != MP4_OK ? cut : err;
    }
    // Chunk-as-sample: every audio sample is one table entry of one time
    // unit; the call's bytes become one chunk, which answers any cut the
    // video of an interleaved file asked for.
    if (CChunkInterleaving* interleaving = host_->chunkInterleaving()) {
        (void)interleaving->takeAudioCut();
    }
    for (uint32_t i = 0; i < audioSamples; ++i) {
        err = addToTables(bytesPerAudioSample_, decodeTime + i, compositionTime + i, sync);
        if (err != MP4_OK) return err;
    }
    if ((err = queueBytes(data, size, audioSamples)) != MP4_OK) return err;
    MP4Err flushed = flushChunk();
    pendingStart_ = decodeTime;
    err = addToStatistics(decodeTime, size);
    return flushed != MP4_OK ? flushed : err;
}

MP4Err CTrackImpl::addToTables(uint32_t size, uint64_t decodeTime, uint64_t compositionTime,
                               bool sync) {
    const uint32_t sample = nextSample_;
    MP4Err err = stsz_->addSampleSize(sample, size);
    if (err != MP4_OK) return err;
    if (sample == 1) timeTable_->timeOffset = decodeTime;
    // The previous sample lasts until this one's decode time.
    if (sample > 1) {
        const uint64_t end = lastComposition_ + (decodeTime - lastDecodeTime_);
        if (end > compositionEnd_) compositionEnd_ = end;
    }
    if ((err = stts_->addSampleTime(sample, decodeTime)) != MP4_OK) return err;
    if ((err = addCompositionOffset(sample, decodeTime, compositionTime)) != MP4_OK) return err;
    if ((err = addSyncFlag(sample, sync)) != MP4_OK) return err;
    lastDecodeTime_ = decodeTime;
    lastComposition_ = compositionTime;
    ++nextSample_;
    ++timeTable_->sampleCount;
    if (size > largestSample_) largestSample_ = size;
    return MP4_OK;
}

// "ctts" appears with the first sample whose composition time differs from
// its decode time; earlier samples then get offset 0.
MP4Err CTrackImpl::addCompositionOffset(uint32_t sample, uint64_t decodeTime,
                                        uint64_t compositionTime) {
    const uint32_t offset = static_cast<uint32_t>(compositionTime - decodeTime);
    if (!ctts_) {
        if (offset == 0) return MP4_OK;
        MP4Err err = appendNew(stbl_, fourcc("ctts"), &ctts_);
        if (err != MP4_OK) return err;
        for (uint32_t earlier = 1; earlier < sample; ++earlier) {
            if ((err = ctts_->addCompositionOffset(earlier, 0)) != MP4_OK) return err;
        }
    }
    return ctts_->addCompositionOffset(sample, offset);
}

// "stss" appears with the first sample that is not a sync sample; every
// earlier sample was one.
MP4Err CTrackImpl::addSyncFlag(uint32_t sample, bool sync) {
    if (!stss_) {
        if (sync) return MP4_OK;
        MP4Err err = appendNew(stbl_, fourcc("stss"), &stss_);
        if (err != MP4_OK) return err;
        for (uint32_t earlier = 1; earlier < sample; ++earlier) {
            if ((err = stss_->addSyncSample(earlier)) != MP4_OK) return err;
        }
        return MP4_OK;
    }
    return sync ? stss_->addSyncSample(sample) : MP4_OK;
}

// The pending chunk grows by the bytes of `samples` table samples.
MP4Err CTrackImpl::queueBytes(const uint8_t* data, uint32_t size, uint32_t samples) {
    const uint64_t needed = pendingBytes_ + size;
    MP4Err err = reserveChunkBytes(needed);
    if (err != MP4_OK) return err;
    std::memcpy(chunkBuffer_.get() + pendingBytes_, data, size);
    pendingBytes_ = needed;
    pendingCount_ += samples;
    return MP4_OK;
}

// Room for `needed` bytes in the pending chunk's buffer, its bytes kept.
MP4Err CTrackImpl::reserveChunkBytes(uint64_t needed) {
    if (needed > chunkCapacity_) {
        uint64_t capacity = chunkCapacity_ ? chunkCapacity_ * 2 : 64 * 1024;
        if (capacity < needed) capacity = needed;
        std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[capacity]);
        if (!grown) return MP4_ERR_OUT_OF_MEMORY;
        if (pendingBytes_ > 0) std::memcpy(grown.get(), chunkBuffer_.get(), pendingBytes_);
        chunkBuffer_ = std::move(grown);
        chunkCapacity_ = capacity;
    }
    return MP4_OK;
}

bool CTrackImpl::chunkLimitReached(uint64_t decodeTime, bool sync, bool interleaving) const {
    if (chunkByteLimit_ != 0 && pendingBytes_ >= chunkByteLimit_) return true;
    if (pendingCount_ >= chunkSampleLimit_) return true;
    if (chunkDurationLimit_ == 0 || decodeTime - pendingStart_ < chunkDurationLimit_) return false;
    // Interleaved video cuts only where playback can start.
    return !interleaving || sync;
}

// Ordinary files: the sample that reaches a limit is the last of its chunk,
// and the next chunk starts at its decode time.
MP4Err CTrackImpl::chunkAfterAppend(uint64_t decodeTime) {
    if (!chunkLimitReached(decodeTime, true, false)) return MP4_OK;
    MP4Err err = flushChunk();
    if (err == MP4_OK) pendingStart_ = decodeTime;
    return err;
}

// Interleaved files (XAVC): video cuts before the sample that would pass a
// limit and tells the audio tracks to cut as well; audio cuts when told.
MP4Err CTrackImpl::chunkBeforeAppend(CChunkInterleaving* interleaving, uint64_t decodeTime,
                                     bool sync) {
    bool cut = false;
    if (mediaType_ == MP4_TRACK_AUDIO) {
        cut = interleaving->takeAudioCut();
        // Without video cuts (an audio-only file) the chunk would grow with
        // the media; the byte limit bounds it. Real video cuts come long
        // before: a second of compressed audio is far below the limit.
        if (chunkByteLimit_ != 0 && pendingBytes_ >= chunkByteLimit_) cut = true;
    } else if (chunkLimitReached(decodeTime, sync, true)) {
        cut = true;
        interleaving->videoClosedChunk();
    }
    // An empty chunk has nothing to cut.
    if (!cut || pendingCount_ == 0) return MP4_OK;
    MP4Err err = flushChunk();
    if (err == MP4_OK) pendingStart_ = decodeTime;
    return err;
}

// Writes the pending chunk at the end of "mdat" and records it. When the
// write fails the chunk stays pending, nothing is recorded, and the next
// flush writes it again at the same place.
MP4Err CTrackImpl::flushChunk() {
    if (pendingCount_ == 0) return MP4_ERR_INVALID_ARGUMENT;
    uint64_t offset = 0;
    // A chunk copied by runs is still in the source file (TrackCopy.cpp).
    MP4Err err = runCopy_ ? writeCopiedChunk(&offset)
                          : host_->appendMediaData(chunkBuffer_.get(), pendingBytes_, &offset);
    if (err != MP4_OK) return err;
    if ((err = recordChunkOffset(nextChunk_, offset)) != MP4_OK) return err;
    if ((err = stsc_->addChunk(nextChunk_, pendingCount_, pendingDescription_)) != MP4_OK) return err;
    ++nextChunk_;
    pendingBytes_ = 0;
    pendingCount_ = 0;
    return MP4_OK;
}

// 32-bit offsets until a chunk starts beyond 4 GiB; then "co64" takes the
// place of "stco" with every offset so far.
MP4Err CTrackImpl::recordChunkOffset(uint32_t chunk, uint64_t offset) {
    if (co64_) return co64_->addChunkOffset(chunk, offset);
    if (!stco_) return MP4_ERR_INVALID_DATA;
    if (offset <= kMax32) return stco_->addChunkOffset(chunk, static_cast<uint32_t>(offset));
    std::unique_ptr<CChunkLargeOffsetBox> large(newBox<CChunkLargeOffsetBox>(fourcc("co64")));
    if (!large) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = large->copyFromChunkOffsets(stco_);
    if (err == MP4_OK) err = large->addChunkOffset(chunk, offset);
    if (err != MP4_OK) return err;
    CBox* replaced = nullptr;
    CBoxList* list = stbl_->childList();
    if (!list) return MP4_ERR_INVALID_DATA;
    if ((err = list->replace(stco_, large.get())) != MP4_OK) return err;
    replaced = stco_;
    delete replaced;
    stco_ = nullptr;
    co64_ = large.release();
    return MP4_OK;
}

// Bits of the samples whose decode times lie within one second (the media
// time scale) of the newest; the peak is the largest such sum.
MP4Err CTrackImpl::addToStatistics(uint64_t decodeTime, uint32_t size) {
    totalBytes_ += size;
    spanBits_ += 8ull * size;
    try {
        span_.push_back(SpanNode{decodeTime, size});
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    const uint64_t second = mdhd_->timeScale;
    while (!span_.empty() && decodeTime > span_.front().decodeTime + second) {
        spanBits_ -= 8ull * span_.front().size;
        span_.pop_front();
    }
    if (spanBits_ > peakBits_) peakBits_ = spanBits_;
    return MP4_OK;
}

// ---- finalisation ---------------------------------------------------------

MP4Err CTrackImpl::finalizeWriting() {
    if (!writing_ || finalized_) return MP4_OK;
    if (host_->fragmentSamples()) {
        // Fragmented: the movie box has no samples, only the edit list
        // asked for and the presentation size.
        fillDefaultDimensions();
        return editSet_ ? writeEditList(0) : MP4_OK;
    }
    if (timeTable_->sampleCount == 0) return MP4_OK;
    MP4Err err = MP4_OK;
    if (pendingCount_ > 0 && (err = flushChunk()) != MP4_OK) return err;
    if (!sttsFinished_) {
        // A copy's last sample keeps the duration it had.
        err = copySource_ ? stts_->appendDelta(lastDuration_) : finishSampleTimes();
        if (err != MP4_OK) return err;
        sttsFinished_ = true;
    }
    if ((err = finishDurations()) != MP4_OK) return err;
    if (auxInfo_) {
        if ((err = auxInfo_->finish(stbl_)) != MP4_OK) return err;
        auxInfo_.reset();
    }
    fillDefaultDimensions();
    finalized_ = true;
    span_.clear();
    chunkBuffer_.reset();
    chunkCapacity_ = 0;
    return MP4_OK;
}

// The last sample's duration: the one asked for, measured like every
// other from a decode time after it; else the previous sample's.
MP4Err CTrackImpl::finishSampleTimes() {
    if (lastSampleDuration_ == 0) return stts_->finishSampleTimes();
    return stts_->addSampleTime(nextSample_, lastDecodeTime_ + lastSampleDuration_);
}

MP4Err CTrackImpl::movieTimeScale(uint32_t* timeScale) {
    CMovieHeaderBox* mvhd = nullptr;
    MP4Err err = movieHeader(&mvhd);
    if (err == MP4_OK) *timeScale = mvhd->timeScale;
    return err;
}

// mdhd: the sum of the decode deltas; tkhd: that in movie units, or the
// edit list's length when one is written. Version 1 where a value needs
// more than 32 bits.
MP4Err CTrackImpl::finishDurations() {
    uint64_t mediaDuration = 0;
    MP4Err err = stts_->getTotalDuration(&mediaDuration);
    if (err != MP4_OK) return err;
    uint32_t movieScale = 0;
    if ((err = movieTimeScale(&movieScale)) != MP4_OK) return err;
    mdhd_->duration = mediaDuration;
    if (mediaDuration > kMax32) mdhd_->version = 1;
    tkhd_->duration = rescaleTime(mediaDuration, movieScale, mdhd_->timeScale);
    if ((err = writeEditList(mediaDuration)) != MP4_OK) return err;
    if (tkhd_->duration > kMax32) tkhd_->version = 1;
    return fillBitrates(mediaDuration);
}

// An empty edit for the initial delay, then the media from the first media
// time on. Without setEditList the delay is the first decode time, so that
// the times read back are those written.
MP4Err CTrackImpl::writeEditList(uint64_t mediaDuration) {
    const uint64_t delay = editSet_ ? editDelay_ : timeTable_->timeOffset;
    const int64_t mediaTime = editSet_ ? editMediaTime_ : 0;
    CBox* existing = nullptr;
    // A retried finalisation finds the edit list of the first attempt; the
    // track lasts as long as its edits.
    if (trak_->findChild(fourcc("edts"), &existing) == MP4_OK) {
        CBox* found = nullptr;
        auto* list = existing->findChild(fourcc("elst"), &found) == MP4_OK
                         ? dynamic_cast<CEditListBox*>(found)
                         : nullptr;
        if (!list) return MP4_ERR_INVALID_DATA;
        uint64_t total = 0;
        for (uint32_t i = 1; i <= list->entryCount; ++i) {
            CEditListTableEntry* entry = nullptr;
            MP4Err err = list->getEntry(i, &entry);
            if (err != MP4_OK) return err;
            total += entry->segmentDuration;
        }
        tkhd_->duration = total;
        return MP4_OK;
    }
    if (delay == 0 && mediaTime == 0 && (!editSet_ || editDuration_ == 0)) return MP4_OK;
    uint32_t movieScale = 0;
    MP4Err err = movieTimeScale(&movieScale);
    if (err != MP4_OK) return err;
    const uint32_t mediaScale = mdhd_->timeScale;

    std::unique_ptr<CEditBox> edts(newBox<CEditBox>(fourcc("edts")));
    std::unique_ptr<CEditListBox> elst(newBox<CEditListBox>(fourcc("elst")));
    if (!edts || !elst) return MP4_ERR_OUT_OF_MEMORY;
    uint64_t total = 0;
    bool wide = mediaTime > 0x7FFFFFFF;
    if (delay > 0) {
        CEditListTableEntry empty;
        empty.segmentDuration = movieUnitsRoundedUp(delay, movieScale, mediaScale);
        empty.mediaTime = -1;
        empty.mediaRateInteger = 1;
        if ((err = elst->addEntry(empty)) != MP4_OK) return err;
        total += empty.segmentDuration;
    }
    CEditListTableEntry media;
    uint64_t shown = mediaDuration > static_cast<uint64_t>(mediaTime)
                         ? mediaDuration - static_cast<uint64_t>(mediaTime)
                         : 0;
    if (editSet_) {
        const uint64_t end = presentationEnd(mediaDuration);
        shown = end > static_cast<uint64_t>(mediaTime) ? end - static_cast<uint64_t>(mediaTime) : 0;
        if (editDuration_ != 0) shown = editDuration_;
    }
    media.segmentDuration = movieUnitsRoundedUp(shown, movieScale, mediaScale);
    media.mediaTime = mediaTime;
    media.mediaRateInteger = 1;
    if ((err = elst->addEntry(media)) != MP4_OK) return err;
    total += media.segmentDuration;
    if (total > kMax32 || wide) elst->version = 1;

    // edts goes before mdia, where ISO/IEC 14496-12 §8.6.5 places it.
    CEditListBox* list = elst.get();
    if ((err = edts->addChild(list)) != MP4_OK) return err;
    elst.release();
    CBoxList* children = trak_->childList();
    if (!children) return MP4_ERR_INVALID_DATA;
    if ((err = children->replace(mdia_, edts.get())) != MP4_OK) return err;
    edts.release();
    if ((err = children->append(mdia_)) != MP4_OK) return err;
    tkhd_->duration = total;
    return MP4_OK;
}

// Media time at which the last presented sample ends: the largest
// composition time + duration, counted from the first decode time. Equals
// the media duration when no sample is reordered.
uint64_t CTrackImpl::presentationEnd(uint64_t mediaDuration) const {
    const uint64_t first = timeTable_->timeOffset;
    const uint64_t span = lastDecodeTime_ - first;
    const uint64_t lastDuration = mediaDuration > span ? mediaDuration - span : 0;
    uint64_t end = lastComposition_ + lastDuration;
    if (compositionEnd_ > end) end = compositionEnd_;
    return end - first;
}

// Bit rates of a sample entry built here: the average over the track, the
// peak over one second, and the largest sample as the decoding buffer.
// Entries copied from another file keep theirs.
MP4Err CTrackImpl::fillBitrates(uint64_t mediaDuration) {
    if (!fillsBitrates_) return MP4_OK;
    CBox* entry = nullptr;
    MP4Err err = stsd_->getEntry(1, &entry);
    if (err != MP4_OK) return err;
    const uint64_t average =
        mediaDuration ? static_cast<uint64_t>(static_cast<unsigned __int128>(totalBytes_) * 8 *
                                              mdhd_->timeScale / mediaDuration)
                      : 0;
    const uint32_t avgBitrate = static_cast<uint32_t>(average > kMax32 ? kMax32 : average);
    const uint32_t maxBitrate = static_cast<uint32_t>(peakBits_ > kMax32 ? kMax32 : peakBits_);
    CBox* found = nullptr;
    if (entry->findChild(fourcc("esds"), &found) == MP4_OK) {
        CESDescriptor* es = nullptr;
        auto* esds = dynamic_cast<CESDBox*>(found);
        if (esds && esds->getESDescriptor(&es) == MP4_OK && es->decoderConfig) {
            es->decoderConfig->bufferSizeDB = largestSample_ > 0xFFFFFF ? 0xFFFFFF : largestSample_;
            es->decoderConfig->maxBitrate = maxBitrate;
            es->decoderConfig->avgBitrate = avgBitrate;
        }
    }
    if (entry->findChild(fourcc("btrt"), &found) == MP4_OK) {
        if (auto* btrt = dynamic_cast<CMPEG4BitRateBox*>(found)) {
            btrt->bufferSizeDB = largestSample_;
            btrt->maxBitrate = maxBitrate;
            btrt->avgBitrate = avgBitrate;
        }
    }
    return MP4_OK;
}

// A video track without setDimensions shows at its coded size.
void CTrackImpl::fillDefaultDimensions() {
    if (dimensionsSet_ || mediaType_ != MP4_TRACK_VIDEO) return;
    CBox* entry = nullptr;
    if (stsd_->getEntry(1, &entry) != MP4_OK) return;
    if (auto* visual = dynamic_cast<CVisualSampleEntry*>(entry)) {
        tkhd_->width = static_cast<int32_t>(visual->frameWidth() << 16);
        tkhd_->height = static_cast<int32_t>(visual->frameHeight() << 16);
    }
}

}  // namespace quil
