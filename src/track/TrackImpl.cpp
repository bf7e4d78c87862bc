// Binding a track to its boxes, its sample time table, and sample access:
// sizes, offsets, bytes, times and the searches by time.
#include "TrackImpl.h"

#include <algorithm>

#include <new>

#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "quil/Mp4SampleTable.h"

namespace quil {
namespace {

// The child of that type, as its class: 3 when absent, 5 when the box of
// that type is not of the expected class.
template <class T>
MP4Err findTyped(CBox* parent, uint32_t type, T** out, uint32_t instance = 1) {
    *out = nullptr;
    CBox* box = nullptr;
    MP4Err err = parent->findChild(type, &box, instance);
    if (err != MP4_OK) return err;
    *out = dynamic_cast<T*>(box);
    return *out ? MP4_OK : MP4_ERR_INVALID_DATA;
}

// As findTyped, for optional boxes: absence is not an error.
template <class T>
MP4Err findOptional(CBox* parent, uint32_t type, T** out) {
    MP4Err err = findTyped(parent, type, out);
    return err == MP4_ERR_NOT_AVAILABLE ? MP4_OK : err;
}

bool hasChild(CBox* parent, uint32_t type) {
    CBox* box = nullptr;
    return parent->findChild(type, &box) == MP4_OK;
}

}  // namespace

CTrackImpl::CTrackImpl(CTrackHost* host, uint32_t mode) : host_(host), mode_(mode) {
    index_.setSources(&movieSamples_, 0, nullptr);
}

CTrackImpl::~CTrackImpl() = default;

// ---- binding --------------------------------------------------------------

MP4Err CTrackImpl::bind(uint32_t trackIndex) {
    if (!host_) return MP4_ERR_INVALID_DATA;
    open_ = 0;
    markTablesFixed(false);
    trackIndex_ = trackIndex;
    MP4Err err = findBoxes(trackIndex);
    if (err != MP4_OK) return err;
    trackId_ = tkhd_->trackId;
    if (trackId_ == 0) return MP4_ERR_UNSUPPORTED;
    err = findMediaType();
    if (err != MP4_OK) return err;
    err = findSampleTables();
    if (err != MP4_OK) return err;
    err = computeInitialDelay();
    if (err != MP4_OK) return err;
    chooseChunkAsSampleMode();
    err = buildSampleTimeTable();
    if (err != MP4_OK) return err;
    err = gatherFragments();
    if (err != MP4_OK) return err;
    offsetCursor_ = OffsetCursor();
    stscRun_ = StscRun();
    stscAscending_ = stsc_->firstChunksAscend();
    syncCursor_ = 1;
    syncWindow_ = SyncWindow();
    stssAscending_ = !stss_ || stss_->numbersAscend();
    markTablesFixed(true);
    open_ = 1;
    return MP4_OK;
}

// A bound track's tables stay as they are read (a writing track's grow
// and change kind): from here on the queries below may answer samples in
// order from spans of the tables' blocks and from the counts set here.
void CTrackImpl::markTablesFixed(bool fixed) {
    sizeSpan_ = {};
    offsetSpan_ = {};
    largeOffsetSpan_ = {};
    stscSpan_ = {};
    tablesFixed_ = fixed;
    inOrderCount_ = timedCount_ = movieTimedCount_ = 0;
    if (!fixed) return;
    timedCount_ = timeTable_->sampleCount;
    const uint32_t movie = index_.hasFragments() ? index_.movieCount() : UINT32_MAX;
    movieTimedCount_ = std::min(timedCount_, movie);
    if (chunkAsSample_ == 0) inOrderCount_ = std::min(stsz_->sampleCount, movie);
}

MP4Err CTrackImpl::findBoxes(uint32_t trackIndex) {
    CBox* moov = nullptr;
    MP4Err err = host_->findMovie(&moov);
    if (err != MP4_OK) return err;
    err = findTyped(moov, fourcc("trak"), &trak_, trackIndex);
    if (err != MP4_OK) return err;
    err = findTyped(trak_, fourcc("tkhd"), &tkhd_);
    if (err != MP4_OK) return err;
    err = findTyped(trak_, fourcc("mdia"), &mdia_);
    if (err != MP4_OK) return err;
    err = findTyped(mdia_, fourcc("minf"), &minf_);
    if (err != MP4_OK) return err;
    return findTyped(mdia_, fourcc("mdhd"), &mdhd_);
}

MP4Err CTrackImpl::findMediaType() {
    if (hasChild(minf_, fourcc("vmhd"))) {
        mediaType_ = MP4_TRACK_VIDEO;
    } else if (hasChild(minf_, fourcc("smhd"))) {
        mediaType_ = MP4_TRACK_AUDIO;
    } else if (hasChild(minf_, fourcc("hmhd"))) {
        mediaType_ = MP4_TRACK_HINT;
    } else {
        CHandlerReferenceBox* hdlr = nullptr;
        MP4Err err = findTyped(mdia_, fourcc("hdlr"), &hdlr);
        if (err == MP4_OK) {
            switch (hdlr->handlerType) {
                // A handler without type cannot be bound.
                case 0: return MP4_ERR_NOT_AVAILABLE;
                case fourcc("hint"): mediaType_ = MP4_TRACK_HINT; break;
                case fourcc("odsm"): mediaType_ = MP4_TRACK_OBJECT_DESCRIPTOR; break;
                case fourcc("sdsm"): mediaType_ = MP4_TRACK_SCENE_DESCRIPTION; break;
                case fourcc("tmcd"): mediaType_ = MP4_TRACK_TIMECODE; break;
                default: mediaType_ = MP4_TRACK_OTHER; break;
            }
        } else if (err == MP4_ERR_NOT_AVAILABLE) {
            mediaType_ = hasChild(minf_, fourcc("tcmi")) ? MP4_TRACK_TIMECODE : MP4_TRACK_OTHER;
        } else {
            return err;
        }
    }
    return MP4_OK;
}

MP4Err CTrackImpl::findSampleTables() {
    CSampleTableBox* stbl = nullptr;
    MP4Err err = findTyped(minf_, fourcc("stbl"), &stbl);
    if (err != MP4_OK) return err;
    if ((err = findTyped(stbl, fourcc("stts"), &stts_)) != MP4_OK) return err;
    if ((err = findOptional(stbl, fourcc("ctts"), &ctts_)) != MP4_OK) return err;
    if ((err = findTyped(stbl, fourcc("stsz"), &stsz_)) != MP4_OK) return err;
    if ((err = findTyped(stbl, fourcc("stsc"), &stsc_)) != MP4_OK) return err;
    co64_ = nullptr;
    if ((err = findOptional(stbl, fourcc("stco"), &stco_)) != MP4_OK) return err;
    if (!stco_) {
        if ((err = findTyped(stbl, fourcc("co64"), &co64_)) != MP4_OK) return err;
    }
    if ((err = findOptional(stbl, fourcc("stss"), &stss_)) != MP4_OK) return err;
    if ((err = findOptional(stbl, fourcc("stsd"), &stsd_)) != MP4_OK) return err;
    return stsd_ ? MP4_OK : describeNoSamples(&stsd_);
}

// A sample table without a sample description (a damaged file) still
// lists its samples: the track reads them, as a track with no sample
// entry, through a description of its own that the file does not hold.
MP4Err CTrackImpl::describeNoSamples(CSampleDescriptionBox** stsd) {
    if (!missingStsd_) missingStsd_.reset(new (std::nothrow) CSampleDescriptionBox());
    if (!missingStsd_) return MP4_ERR_OUT_OF_MEMORY;
    *stsd = missingStsd_.get();
    return MP4_OK;
}

MP4Err CTrackImpl::computeInitialDelay() {
    initialDelay_ = 0;
    firstMediaTime_ = 0;
    presentedDuration_ = 0;
    CEditBox* edts = nullptr;
    MP4Err err = findOptional(trak_, fourcc("edts"), &edts);
    if (err != MP4_OK || !edts) return err;
    uint64_t presented = 0;
    if ((err = edts->getPresentedMediaTime(&firstMediaTime_, &presented)) != MP4_OK) return err;
    CMovieHeaderBox* header = nullptr;
    if (presented != 0 && movieHeader(&header) == MP4_OK) {
        presentedDuration_ = rescaleTime(presented, mdhd_->timeScale, header->timeScale);
    }
    uint64_t movieDelay = 0;
    err = edts->getInitialDelay(&movieDelay);
    if (err != MP4_OK || movieDelay == 0) return err;
    CBox* moov = nullptr;
    CMovieHeaderBox* mvhd = nullptr;
    if ((err = host_->findMovie(&moov)) != MP4_OK) return err;
    if ((err = findTyped(moov, fourcc("mvhd"), &mvhd)) != MP4_OK) return err;
    if (mvhd->timeScale == 0) return MP4_ERR_INVALID_DATA;
    initialDelay_ = static_cast<uint64_t>(mdhd_->timeScale) * movieDelay / mvhd->timeScale;
    return MP4_OK;
}

void CTrackImpl::chooseChunkAsSampleMode() {
    chunkAsSample_ = 0;
    if (mediaType_ != MP4_TRACK_AUDIO || stts_->entryCount != 1) return;
    CTimeToSampleTableEntry* only = nullptr;
    if (stts_->getEntry(1, &only) != MP4_OK || only->sampleDelta != 1) return;
    // Uncompressed audio stores one time unit per audio sample: each chunk
    // is presented as one sample instead.
    CBox* entry = nullptr;
    stsd_->getEntry(1, &entry);
    auto* sound = dynamic_cast<CSoundSampleEntry*>(entry);
    bool mode1 = !sound || sound->sampleRateInteger < 65535 || sound->type == fourcc("sowt") ||
                 sound->type == fourcc("twos");
    chunkAsSample_ = mode1 ? 1 : 2;
}

// The most samples the file can hold: the chunk offsets read in chunk
// mode; in sample mode the sizes read, or with one size for all samples as
// many as fit in the file. Damaged counts in "stts" or "stsz" then cannot
// make the time table grow beyond what the input justifies.
uint32_t CTrackImpl::sampleTimeLimit() const {
    if (chunkAsSample_ != 0) return stco_ ? stco_->entries.count() : co64_->entries.count();
    if (stsz_->sampleSize == 0) return stsz_->entries.count();
    uint64_t length = 0;
    if (host_->storageLength(&length)) {
        uint64_t fit = length / stsz_->sampleSize;
        if (fit < stsz_->sampleCount) return static_cast<uint32_t>(fit);
    }
    return stsz_->sampleCount;
}

namespace {

// Composition time of a sample from its decode time and "ctts" offset. A
// negative offset never takes a time below zero: the previous sample's
// composition time is kept instead (the decode time for the first sample).
uint64_t compositionTime(uint64_t decode, uint32_t offset, bool first, uint64_t previous) {
    if (offset < 0x80000000u) return decode + offset;
    uint64_t magnitude = 0x100000000ull - offset;
    if (magnitude <= decode) return decode - magnitude;
    return first ? decode : previous;
}

// Whether a negative offset (as stored) takes a run of count samples
// from decode on below zero (the clamp), or the run's last decode time
// passes 64 bits: then its samples are worked out one by one.
bool clampsAny(uint64_t decode, uint32_t delta, uint32_t count, uint32_t offset) {
    const uint64_t magnitude = 0x100000000ull - offset;
    const unsigned __int128 lastDecode = decode + static_cast<unsigned __int128>(count - 1) * delta;
    return magnitude > decode || lastDecode > UINT64_MAX;
}

}  // namespace

// Sample mode: the decode times are the running sums of the "stts" runs,
// which is what asking "stts" for each sample in turn gives; the "ctts"
// runs are walked alongside (an entry covering no sample is stepped over;
// where the entries end, composition is decode time). Where an "stts" run
// and a "ctts" run overlap, the samples share a step and an offset and are
// added as one run; only offsets that would take a time below zero (the
// clamp) are worked out sample by sample.
MP4Err CTrackImpl::appendSampleTimes(CSampleTimeTable* table, uint32_t limit) {
    CSampleTimes& times = table->times;
    MP4Err err = times.reserve(stts_->entries.count() + 1u,
                               ctts_ ? ctts_->entries.count() + 1u : 1u, limit);
    if (err != MP4_OK) return err;
    uint32_t offsetIndex = 0;
    uint64_t offsetsLeft = 0;  // samples left in the current "ctts" entry
    uint32_t offset = 0;
    bool offsetsEnded = ctts_ == nullptr;
    CDataListSpan<CCompositionOffsetTableEntry> offsetSpan;  // the entries at hand
    uint64_t time = 0;
    uint64_t previousComposition = 0;
    uint32_t sample = 0;
    for (uint32_t i = 1; i <= stts_->entryCount && sample < limit; ++i) {
        CTimeToSampleTableEntry* run = nullptr;
        err = stts_->getEntry(i, &run);
        if (err == MP4_ERR_NOT_AVAILABLE) break;  // fewer entries than counted
        if (err != MP4_OK) return err;
        const uint32_t delta = run->sampleDelta;
        uint32_t left = run->sampleCount;
        if (left > limit - sample) left = limit - sample;
        while (left > 0) {
            if (!offsetsEnded && offsetsLeft == 0 && takeDenseEntries(&times, &offsetSpan, delta,
                                                                      &offsetIndex, &offset, &time,
                                                                      &left, &previousComposition)) {
                sample = times.count();  // the table holds every sample walked
                continue;
            }
            while (!offsetsEnded && offsetsLeft == 0) {
                const CCompositionOffsetTableEntry* entry =
                    ctts_->entries.spannedEntry(++offsetIndex, UINT32_MAX, &offsetSpan);
                if (!entry) {
                    offsetsEnded = true;
                    break;
                }
                offsetsLeft = entry->sampleCount;
                offset = entry->sampleOffset;
            }
            const uint64_t decode = time + initialDelay_;
            const uint32_t count = offsetsEnded || offsetsLeft >= left
                                       ? left : static_cast<uint32_t>(offsetsLeft);
            if (offsetsEnded || offset < 0x80000000u || !clampsAny(decode, delta, count, offset)) {
                const int32_t stored = offsetsEnded ? 0 : static_cast<int32_t>(offset);
                if (!times.appendToDenseRun(decode, delta, count, stored) &&
                    (err = times.appendRun(decode, delta, count, stored)) != MP4_OK) {
                    return err;
                }
                // The last sample's composition time (wrapping as the sums do).
                previousComposition = decode + static_cast<uint64_t>(count - 1) * delta +
                                      static_cast<uint64_t>(static_cast<int64_t>(stored));
            } else {
                for (uint32_t k = 0; k < count; ++k) {
                    const uint64_t at = decode + static_cast<uint64_t>(k) * delta;
                    const uint64_t composition =
                        compositionTime(at, offset, sample + k == 0, previousComposition);
                    if ((err = times.append(at, composition)) != MP4_OK) return err;
                    previousComposition = composition;
                }
            }
            if (!offsetsEnded) offsetsLeft -= count;
            sample += count;
            left -= count;
            time += static_cast<uint64_t>(count) * delta;
        }
    }
    table->sampleCount = sample;
    return MP4_OK;
}

// B-frames: the "ctts" entries after *index that lie in the "stts" run
// (left samples from *time on, delta apart), taken at once from their
// block where the time table takes them as it would one by one (see
// CSampleTimes::appendDenseEntries); the walk's state then moves past
// them. false when none is taken.
bool CTrackImpl::takeDenseEntries(CSampleTimes* times, CDataListSpan<CCompositionOffsetTableEntry>* span,
                                  uint32_t delta, uint32_t* index, uint32_t* offset, uint64_t* time,
                                  uint32_t* left, uint64_t* previousComposition) {
    const CCompositionOffsetTableEntry* next = ctts_->entries.spannedEntry(*index + 1, UINT32_MAX, span);
    if (!next) return false;
    const uint32_t inBlock = span->count - (*index + 1 - span->first);
    const uint64_t decode = *time + initialDelay_;
    uint32_t samples = 0;
    const uint32_t taken = times->appendDenseEntries(decode, delta, next, inBlock, *left, &samples);
    if (taken == 0) return false;
    *index += taken;
    *offset = next[taken - 1].sampleOffset;
    // The last sample's composition time (wrapping as the sums do).
    *previousComposition = decode + static_cast<uint64_t>(samples - 1) * delta +
                           static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(*offset)));
    *left -= samples;
    *time += static_cast<uint64_t>(samples) * delta;
    return true;
}

// Chunk mode: one entry per chunk, at the time of the chunk's first sample.
MP4Err CTrackImpl::appendChunkTimes(CSampleTimeTable* table, uint32_t limit) {
    uint64_t previousComposition = 0;
    for (uint32_t chunk = 1; chunk <= limit; ++chunk) {
        uint32_t sample = 0;
        MP4Err err = stsc_->getFirstSampleOfChunk(chunk, &sample);
        if (err == MP4_ERR_NOT_AVAILABLE) break;
        if (err != MP4_OK) return err;
        uint64_t decode = 0;
        err = stts_->getSampleTime(sample, &decode);
        if (err == MP4_ERR_NOT_AVAILABLE) break;
        if (err != MP4_OK) return err;
        decode += initialDelay_;
        uint32_t offset = 0;
        uint64_t composition = decode;
        if (ctts_ && ctts_->getCompositionOffset(sample, &offset) == MP4_OK) {
            composition = compositionTime(decode, offset, chunk == 1, previousComposition);
        }
        previousComposition = composition;
        err = table->times.append(decode, composition);
        if (err != MP4_OK) return err;
        table->sampleCount = table->times.count();
    }
    return MP4_OK;
}

MP4Err CTrackImpl::buildSampleTimeTable() {
    std::unique_ptr<CSampleTimeTable> table(new (std::nothrow) CSampleTimeTable());
    if (!table) return MP4_ERR_OUT_OF_MEMORY;
    table->timeOffset = initialDelay_;
    uint32_t limit = sampleTimeLimit();
    MP4Err err = chunkAsSample_ ? appendChunkTimes(table.get(), limit)
                                : appendSampleTimes(table.get(), limit);
    if (err != MP4_OK) return err;
    timeTable_ = std::move(table);
    return MP4_OK;
}

namespace {

// Appends one fragment sample's times to the time table, composition
// times following the same rule as the movie's samples.
struct FragmentTimes {
    CSampleTimeTable* table;
    uint64_t previousComposition;
};

MP4Err appendFragmentTimes(void* context, uint64_t decode, int64_t compositionOffset) {
    auto* times = static_cast<FragmentTimes*>(context);
    CSampleTimeTable& table = *times->table;
    uint64_t composition = compositionTime(decode, static_cast<uint32_t>(compositionOffset),
                                           table.sampleCount == 0, times->previousComposition);
    MP4Err err = table.times.append(decode, composition);
    if (err != MP4_OK) return err;
    times->previousComposition = composition;
    table.sampleCount = table.times.count();
    return MP4_OK;
}

}  // namespace

// A file whose movie has "mvex" continues its tracks in fragments: their
// samples follow the movie's, decode times continuing where the movie's
// samples end (or from each fragment's "tfdt").
MP4Err CTrackImpl::gatherFragments() {
    fragments_.reset();
    index_.setSources(&movieSamples_, 0, nullptr);
    CBox* moov = nullptr;
    CBox* mvex = nullptr;
    if (host_->findMovie(&moov) != MP4_OK ||
        moov->findChild(fourcc("mvex"), &mvex) != MP4_OK) {
        return MP4_OK;
    }
    std::unique_ptr<CFragmentSamples> fragments(new (std::nothrow) CFragmentSamples());
    if (!fragments) return MP4_ERR_OUT_OF_MEMORY;
    FragmentTrackInfo info;
    info.trackId = trackId_;
    info.timeOffset = initialDelay_;
    // No more samples than the file has bytes.
    uint64_t length = 0;
    if (host_->storageLength(&length) && length < info.sampleLimit) {
        info.sampleLimit = static_cast<uint32_t>(length);
    }
    for (uint32_t i = 1; i <= stts_->entries.count(); ++i) {
        CTimeToSampleTableEntry* run = nullptr;
        if (stts_->getEntry(i, &run) != MP4_OK) break;
        info.firstDecodeTime += static_cast<uint64_t>(run->sampleCount) * run->sampleDelta;
    }
    const uint32_t movieCount = timeTable_->sampleCount;
    FragmentTimes times{timeTable_.get(), 0};
    if (movieCount > 0) times.previousComposition = timeTable_->times.compositionTime(movieCount);
    MP4Err err = fragments->build(host_->fileBoxes(), mvex, info, appendFragmentTimes, &times);
    if (err != MP4_OK) return err;
    if (fragments->sampleCount() == 0) return MP4_OK;
    fragments_ = std::move(fragments);
    index_.setSources(&movieSamples_, movieCount, fragments_.get());
    // An edit of duration 0 in a fragmented movie lasts to the end of the
    // media, which only the fragments know.
    if (presentedDuration_ == 0 && (firstMediaTime_ > 0 || initialDelay_ > 0) &&
        fragments_->endTime() > static_cast<uint64_t>(firstMediaTime_)) {
        presentedDuration_ = fragments_->endTime() - static_cast<uint64_t>(firstMediaTime_);
    }
    // A track that starts in a fragment at a later decode time (a stream
    // joined mid-way) starts presenting that much later: the time before
    // its first sample counts as delay, as an empty edit would.
    if (movieCount == 0) initialDelay_ = timeTable_->times.decodeTime(1);
    return MP4_OK;
}

// ---- sample sizes and offsets ---------------------------------------------

MP4Err CTrackImpl::sizeOfStszSample(uint32_t sample, uint32_t* size) {
    if (sample > stsz_->sampleCount) return MP4_ERR_NOT_AVAILABLE;
    if (stsz_->sampleSize != 0) {
        *size = stsz_->sampleSize;
        return MP4_OK;
    }
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    if (tablesFixed_ && spannedSize(sample, size)) return MP4_OK;
    CSampleSizeTableEntry* entry = nullptr;
    MP4Err err = stsz_->getEntry(sample, &entry);
    if (err != MP4_OK) return err;
    *size = entry->entrySize;
    return MP4_OK;
}

// The size sizeOfStszSample gives for a sample in 1..stsz sampleCount of
// fixed tables, from the block of the entries around it; false where only
// the lookup knows (its error then).
inline bool CTrackImpl::spannedSize(uint32_t sample, uint32_t* size) {
    if (stsz_->sampleSize != 0) {
        *size = stsz_->sampleSize;
        return true;
    }
    const CSampleSizeTableEntry* entry =
        stsz_->entries.spannedEntry(sample, stsz_->sampleCount, &sizeSpan_);
    if (!entry) return false;
    *size = entry->entrySize;
    return true;
}

// What MovieSamples::sampleSize gives for a sample in 1..inOrderCount_,
// where it is at hand: the cursor's sample, or a size from a block.
inline bool CTrackImpl::sizeInOrder(uint32_t sample, uint32_t* size) {
    const OffsetCursor& c = offsetCursor_;
    if (sample == c.sample && c.chunk != 0 && c.chunkEnd != 0) {
        *size = c.sampleSize;
        return true;
    }
    return spannedSize(sample, size);
}

MP4Err CTrackImpl::chunkAsSampleSize(uint32_t chunk, uint32_t* size) {
    uint32_t perChunk = 0, descriptionIndex = 0;
    MP4Err err = stsc_->getSamplesPerChunk(chunk, &perChunk);
    if (err != MP4_OK) return err;
    err = stsc_->getSampleDescriptionIndex(chunk, &descriptionIndex);
    if (err != MP4_OK) return err;
    CBox* entry = nullptr;
    err = stsd_->getEntry(descriptionIndex, &entry);
    if (err != MP4_OK) return err;

    uint32_t bytes = 1;  // a format the sound descriptions do not know
    bool wholeChunk = false;  // the count times samples per chunk in either mode
    if (auto* sound = dynamic_cast<CSoundSampleEntry*>(entry)) {
        uint32_t format = sound->type;
        uint32_t field = sound->perSampleByteCount();
        if (format == 0x6D730011 || format == 0x6D730002) {
            *size = sound->perChunkByteCount(perChunk);
            return MP4_OK;
        }
        if (format == fourcc("lpcm")) {
            bytes = field ? field : 1;
            wholeChunk = true;
        } else if (format == fourcc("in24")) {
            // A 24-bit sample is 3 bytes whatever a smaller field says
            // (some writers store 2 there).
            bytes = (field > 3 ? field : 3) * sound->channelCount;
            wholeChunk = true;
        } else if (format == fourcc("fl32")) {
            bytes = sound->channelCount * 4u;
        } else {
            bool pcm16 = format == fourcc("twos") || format == fourcc("sowt");
            bytes = (field ? field : (pcm16 ? 2u : 1u)) * sound->channelCount;
        }
    }
    // The rule above was made for sizes of 1 (or sizes that agree). A
    // constant size above 1 that disagrees (ISO PCM, "fl64", "in32", 8-bit
    // stereo "raw ", AMR at one tick per frame) is one audio sample's bytes.
    if (stsz_->sampleSize > 1 && stsz_->sampleSize != bytes) bytes = stsz_->sampleSize;
    if (wholeChunk) *size = bytes * perChunk;
    else *size = chunkAsSample_ == 1 ? (bytes & 0xFFFF) * perChunk : bytes;
    return MP4_OK;
}

MP4Err CTrackImpl::getSampleSize(uint32_t sample, uint32_t* size) {
    if (!size) return MP4_ERR_INVALID_ARGUMENT;
    *size = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    return withSourceOf(sample, [size](auto& source, uint32_t local) {
        return source.sampleSize(local, size);
    });
}

MP4Err CTrackImpl::MovieSamples::sampleSize(uint32_t sample, uint32_t* size) {
    if (track_.chunkAsSample_ != 0) return track_.chunkAsSampleSize(sample, size);
    // The sample located last (a reader locates a sample, then reads it):
    // the cursor holds its size already.
    const OffsetCursor& c = track_.offsetCursor_;
    if (sample == c.sample && c.chunk != 0 && c.chunkEnd != 0) {
        *size = c.sampleSize;
        return MP4_OK;
    }
    return track_.sizeOfStszSample(sample, size);
}

// A chunk's offset from the block of the entries around it, for fixed
// tables; false where only the lookup knows (its error then).
inline bool CTrackImpl::spannedChunkOffset(uint32_t chunk, uint64_t* offset) {
    if (stco_) {
        const CChunkOffsetTableEntry* entry = stco_->entries.spannedEntry(chunk, UINT32_MAX, &offsetSpan_);
        if (entry) *offset = entry->chunkOffset;
        return entry != nullptr;
    }
    if (co64_) {
        const CChunkLargeOffsetTableEntry* entry =
            co64_->entries.spannedEntry(chunk, UINT32_MAX, &largeOffsetSpan_);
        if (entry) *offset = entry->chunkOffset;
        return entry != nullptr;
    }
    return false;
}

MP4Err CTrackImpl::chunkOffset(uint32_t chunk, uint64_t* offset) {
    if (tablesFixed_ && spannedChunkOffset(chunk, offset)) return MP4_OK;
    if (chunk == 0) return MP4_ERR_BAD_INDEX;
    if (stco_) {
        CChunkOffsetTableEntry* entry = nullptr;
        MP4Err err = stco_->getEntry(chunk, &entry);
        if (err != MP4_OK) return err;
        *offset = entry->chunkOffset;
        return MP4_OK;
    }
    if (co64_) {
        CChunkLargeOffsetTableEntry* entry = nullptr;
        MP4Err err = co64_->getEntry(chunk, &entry);
        if (err != MP4_OK) return err;
        *offset = entry->chunkOffset;
        return MP4_OK;
    }
    return MP4_ERR_INVALID_DATA;
}

// The chunk holding a sample, the chunk's first sample and its sample
// count. While the "stsc" runs ascend (as in every well-formed file) the
// runs are walked here from where the last call ended, which gives what the
// table's own lookups give at a fraction of the cost; other tables are
// asked through those lookups.
MP4Err CTrackImpl::chunkOfSample(uint32_t sample, uint32_t* chunk, uint32_t* first,
                                 uint32_t* perChunk) {
    if (!stscAscending_) {
        MP4Err err = stsc_->getChunkForSample(sample, chunk);
        if (err == MP4_OK) err = stsc_->getFirstSampleOfChunk(*chunk, first);
        if (err == MP4_OK) err = stsc_->getSamplesPerChunk(*chunk, perChunk);
        return err;
    }
    StscRun& r = stscRun_;
    if (r.entry == nullptr || sample < r.firstSample) {
        r = StscRun();
        CSampleToChunkTableEntry* head = nullptr;
        MP4Err err = stsc_->getEntry(1, &head);
        if (err != MP4_OK) return err;
        r.entry = head;
        r.index = 1;
        r.endSample = runEnd(r);
    }
    while (sample >= r.endSample) {
        const CSampleToChunkTableEntry* next = stscEntry(r.index + 1);
        if (!next) break;
        r.firstSample = r.endSample;
        r.entry = next;
        ++r.index;
        r.endSample = runEnd(r);
    }
    uint32_t samplesPerChunk = r.entry->samplesPerChunk;
    if (samplesPerChunk == 0) return MP4_ERR_INVALID_DATA;
    uint64_t chunkInRun = samplesPerChunk == 1 ? sample - r.firstSample
                                               : (sample - r.firstSample) / samplesPerChunk;
    *chunk = static_cast<uint32_t>(chunkInRun + r.entry->firstChunk);
    *first = static_cast<uint32_t>(r.firstSample + chunkInRun * samplesPerChunk);
    *perChunk = samplesPerChunk;
    return MP4_OK;
}

// The number of the first sample after a run: where the next run starts,
// or never for the last run.
inline uint64_t CTrackImpl::runEnd(const StscRun& run) {
    return endOfRun(run.index, run.firstSample, *run.entry);
}

// The same for the run of the entry at index, starting at firstSample.
inline uint64_t CTrackImpl::endOfRun(uint32_t index, uint64_t firstSample,
                                     const CSampleToChunkTableEntry& entry) {
    const CSampleToChunkTableEntry* next = nullptr;
    if (index >= stsc_->entries.count() || !(next = stscEntry(index + 1))) return UINT64_MAX;
    return firstSample + static_cast<uint64_t>(next->firstChunk - entry.firstChunk) * entry.samplesPerChunk;
}

// A "stsc" entry, null where the lookup fails; fixed tables give it from
// the block of the entries around it.
inline const CSampleToChunkTableEntry* CTrackImpl::stscEntry(uint32_t index) {
    if (tablesFixed_) return stsc_->entries.spannedEntry(index, UINT32_MAX, &stscSpan_);
    CSampleToChunkTableEntry* entry = nullptr;
    return stsc_->getEntry(index, &entry) == MP4_OK ? entry : nullptr;
}

// Finds the chunk of a sample, its first sample and where the sample lies
// in it. Samples are usually asked for in order: while they stay in the
// chunk of the last query, the walk resumes there instead of looking the
// chunk up and summing the sizes before the sample again.
inline MP4Err CTrackImpl::locateInChunk(uint32_t sample, uint32_t sampleSize) {
    OffsetCursor& c = offsetCursor_;
    if (c.chunk != 0 && c.chunkEnd != 0) {
        // The sample asked last, again (a reader locates a sample, then
        // reads it).
        if (sample == c.sample && sample >= c.chunkFirst) return MP4_OK;
        // The sample after the last one asked, in the same chunk.
        if (sample == c.sample + 1 && sample < c.chunkEnd) {
            stepInChunk(sample, sampleSize);
            return MP4_OK;
        }
    }
    return locateBeyondCursor(sample, sampleSize);
}

// The cursor moves to the next sample of its chunk, or to the first of the
// next chunk (in the "stsc" run reached), at that file offset.
inline void CTrackImpl::stepInChunk(uint32_t sample, uint32_t sampleSize) {
    OffsetCursor& c = offsetCursor_;
    c.offsetInChunk += c.sampleSize;
    c.sample = sample;
    c.sampleSize = sampleSize;
}

inline void CTrackImpl::enterNextChunk(uint32_t sample, uint32_t sampleSize, uint64_t position) {
    OffsetCursor& c = offsetCursor_;
    c.chunk += 1;
    c.chunkFirst = sample;
    c.chunkEnd = sample + stscRun_.entry->samplesPerChunk;
    c.sample = sample;
    c.sampleSize = sampleSize;
    c.chunkOffset = position;
    c.offsetInChunk = 0;
    c.chunkBytes = 0;
}

// Whether the cursor holds the sample (locateInChunk's first case).
inline bool CTrackImpl::atCursor(uint32_t sample) const {
    const OffsetCursor& c = offsetCursor_;
    return c.chunk != 0 && c.chunkEnd != 0 && sample == c.sample && sample >= c.chunkFirst;
}

// What spannedSize and spannedChunkOffset give where the spans hold the
// entry already: false, nothing looked up, elsewhere.
inline bool CTrackImpl::sizeAtHand(uint32_t sample, uint32_t* size) const {
    if (stsz_->sampleSize != 0) {
        *size = stsz_->sampleSize;
        return true;
    }
    const CSampleSizeTableEntry* entry = sizeSpan_.at(sample);
    if (entry) *size = entry->entrySize;
    return entry != nullptr;
}

inline bool CTrackImpl::chunkOffsetAtHand(uint32_t chunk, uint64_t* offset) const {
    if (stco_) {
        const CChunkOffsetTableEntry* entry = offsetSpan_.at(chunk);
        if (entry) *offset = entry->chunkOffset;
        return entry != nullptr;
    }
    const CChunkLargeOffsetTableEntry* entry = co64_ ? largeOffsetSpan_.at(chunk) : nullptr;
    if (entry) *offset = entry->chunkOffset;
    return entry != nullptr;
}

// getSampleOffset for a sample in 1..inOrderCount_ that a reader walking
// the samples asks next: the cursor's, the next in its chunk, or the first
// of the next chunk (in the same "stsc" run or the next one, as
// nextChunkOf steps), with its size, chunk offset and run from the spans
// as they are (the general way fills them). Size, place, cursor and run
// are what the lookups give; false, nothing changed, for any other sample
// or an entry outside the spans.
inline bool CTrackImpl::stepInOrder(uint32_t sample, uint32_t* size, uint64_t* position) {
    OffsetCursor& c = offsetCursor_;
    if (c.chunk == 0 || c.chunkEnd == 0) return false;
    uint32_t found = 0;
    if (sample == c.sample && sample >= c.chunkFirst) {
        found = c.sampleSize;
    } else if (sample == c.sample + 1 && sample < c.chunkEnd) {
        if (!sizeAtHand(sample, &found)) return false;
        stepInChunk(sample, found);
    } else if (sample == c.chunkEnd && stscAscending_) {
        StscRun& r = stscRun_;
        const CSampleToChunkTableEntry* next = nullptr;
        uint64_t nextEnd = 0;
        if (sample >= r.endSample) {
            // nextChunkOf's step to the run starting at this sample, and its
            // answer, looked at before anything moves; the run after it
            // gives where it ends (as endOfRun).
            if (r.entry == nullptr || sample != r.endSample) return false;
            next = stscSpan_.at(r.index + 1);
            const CSampleToChunkTableEntry* after = stscSpan_.at(r.index + 2);
            if (!next || !after || next->samplesPerChunk == 0 || next->firstChunk != c.chunk + 1) {
                return false;
            }
            nextEnd = r.endSample +
                      static_cast<uint64_t>(after->firstChunk - next->firstChunk) * next->samplesPerChunk;
            if (sample >= nextEnd) return false;
        }
        uint64_t start = 0;
        if (!sizeAtHand(sample, &found) || !chunkOffsetAtHand(c.chunk + 1, &start)) return false;
        if (next) {
            r.firstSample = r.endSample;
            r.entry = next;
            ++r.index;
            r.endSample = nextEnd;
        }
        enterNextChunk(sample, found, start);
    } else {
        return false;
    }
    *position = c.chunkOffset + c.offsetInChunk;  // before *size, which could alias the cursor
    *size = found;
    return true;
}

// locateInChunk for a sample that is neither the cursor's nor the next in
// its chunk.
MP4Err CTrackImpl::locateBeyondCursor(uint32_t sample, uint32_t sampleSize) {
    OffsetCursor& c = offsetCursor_;
    // The first sample of the next chunk: the "stsc" run is stepped on
    // from where it is (often the next run: chunks of one or two samples
    // in runs of one chunk are common).
    if (c.chunk != 0 && c.chunkEnd != 0 && sample == c.chunkEnd && stscAscending_ &&
        nextChunkOf(sample)) {
        uint64_t position = 0;
        MP4Err err = tablesFixed_ && spannedChunkOffset(c.chunk + 1, &position)
                         ? MP4_OK : chunkOffset(c.chunk + 1, &position);
        if (err != MP4_OK) {
            c = OffsetCursor();
            return err;
        }
        enterNextChunk(sample, sampleSize, position);
        return MP4_OK;
    }
    MP4Err err = walkToSample(sample);
    c.sampleSize = sampleSize;
    return err;
}

// Whether the "stsc" run now reached holds the sample as the first of the
// chunk after the cursor's: in the same run, or in a run the walk steps on
// to.
bool CTrackImpl::nextChunkOf(uint32_t sample) {
    StscRun& r = stscRun_;
    if (sample < r.endSample) return true;
    // Chunks taken in order cross into the next run at its first sample:
    // the walk's step to it, and its answer for that sample, are taken
    // here while the entry is at hand.
    const CSampleToChunkTableEntry* next =
        tablesFixed_ && r.entry != nullptr && sample == r.endSample ? stscSpan_.at(r.index + 1) : nullptr;
    if (next) {
        r.firstSample = r.endSample;
        r.entry = next;
        ++r.index;
        r.endSample = runEnd(r);
        if (sample < r.endSample) {
            return next->samplesPerChunk != 0 && next->firstChunk == offsetCursor_.chunk + 1;
        }
    }
    uint32_t chunk = 0, first = 0, perChunk = 0;
    return chunkOfSample(sample, &chunk, &first, &perChunk) == MP4_OK &&
           chunk == offsetCursor_.chunk + 1 && first == sample;
}

MP4Err CTrackImpl::walkToSample(uint32_t sample) {
    OffsetCursor& c = offsetCursor_;
    bool sameChunk = c.chunk != 0 && sample >= c.chunkFirst && sample < c.chunkEnd;
    if (!sameChunk) {
        uint32_t chunk = 0, first = 0, perChunk = 0;
        MP4Err err = chunkOfSample(sample, &chunk, &first, &perChunk);
        uint64_t position = 0;
        if (err == MP4_OK) err = chunkOffset(chunk, &position);
        if (err != MP4_OK) {
            c = OffsetCursor();
            return err;
        }
        c = OffsetCursor();
        c.chunk = chunk;
        c.chunkFirst = first;
        c.sample = first;
        c.chunkOffset = position;
        // Only a chunk whose samples the sample lies among is kept for the
        // next query; a damaged table is then looked up afresh each time.
        c.chunkEnd = (first <= sample && sample - first < perChunk) ? first + perChunk : 0;
    }
    if (sample < c.sample) {
        c.sample = c.chunkFirst;
        c.offsetInChunk = 0;
    }
    if (stsz_->sampleSize != 0 && sample <= stsz_->sampleCount) {
        c.offsetInChunk += static_cast<uint64_t>(sample - c.sample) * stsz_->sampleSize;
        c.sample = sample;
        return MP4_OK;
    }
    for (; c.sample < sample; ++c.sample) {
        uint32_t size = 0;
        MP4Err err = sizeOfStszSample(c.sample, &size);
        if (err != MP4_OK) {
            c = OffsetCursor();
            return err;
        }
        c.offsetInChunk += size;
    }
    return MP4_OK;
}

MP4Err CTrackImpl::getSampleOffset(uint32_t sample, uint64_t* offset, uint32_t* size) {
    // A bound track's movie sample asked in order (inOrderCount_ is 0
    // unless the track is open): no other state to check.
    uint64_t position = 0;
    if (size && sample - 1 < inOrderCount_ && stepInOrder(sample, size, &position)) {
        if (offset) *offset = position;
        return MP4_OK;
    }
    if (offset) *offset = 0;
    if (!size) return MP4_ERR_INVALID_ARGUMENT;
    *size = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    return offsetThroughIndex(sample, offset, size);
}

// getSampleOffset of any sample: a sample of the movie's tables with its
// size at hand is located without going through the sample index (what
// the lookups of MovieSamples give).
MP4Err CTrackImpl::offsetThroughIndex(uint32_t sample, uint64_t* offset, uint32_t* size) {
    uint32_t found = 0;
    if (sample - 1 < inOrderCount_ && sizeInOrder(sample, &found)) {
        *size = found;
        MP4Err err = locateInChunk(sample, found);
        if (err == MP4_OK && offset) *offset = offsetCursor_.chunkOffset + offsetCursor_.offsetInChunk;
        return err;
    }
    return withSourceOf(sample, [offset, size](auto& source, uint32_t local) {
        MP4Err err = source.sampleSize(local, size);
        if (err != MP4_OK) return err;
        uint64_t position = 0;
        err = source.sampleOffset(local, *size, &position, nullptr);
        if (err != MP4_OK) return err;
        if (offset) *offset = position;
        return MP4_OK;
    });
}

MP4Err CTrackImpl::MovieSamples::sampleOffset(uint32_t sample, uint32_t size, uint64_t* offset,
                                              uint64_t* readAheadEnd) {
    if (track_.chunkAsSample_ != 0) {
        // In chunk-as-sample mode the sample is its whole chunk.
        if (readAheadEnd) *readAheadEnd = 0;
        return track_.chunkOffset(sample, offset);
    }
    MP4Err err = track_.locateInChunk(sample, size);
    if (err != MP4_OK) return err;
    *offset = track_.offsetCursor_.chunkOffset + track_.offsetCursor_.offsetInChunk;
    if (readAheadEnd) *readAheadEnd = track_.chunkEndOffset();
    return MP4_OK;
}

MP4Err CTrackImpl::readSample(uint32_t sample, uint32_t bufferSize, uint32_t* size,
                              uint8_t* buffer) {
    // As getSampleOffset: the movie's answers without the sample index,
    // the buffer checked before the cursor moves, as below. A reader reads
    // the sample it has just located: the cursor's own.
    if (size && sample - 1 < inOrderCount_ && atCursor(sample)) {
        *size = offsetCursor_.sampleSize;
        if (*size > bufferSize) return MP4_ERR_BUFFER_TOO_SMALL;
        if (!buffer && *size > 0) return MP4_ERR_INVALID_ARGUMENT;
        return readAtCursor(*size, buffer);
    }
    if (!size) return MP4_ERR_INVALID_ARGUMENT;
    *size = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    return readThroughIndex(sample, bufferSize, size, buffer);
}

// readSample of any sample, through the sample index (a movie sample with
// its size at hand without it, as in offsetThroughIndex).
MP4Err CTrackImpl::readThroughIndex(uint32_t sample, uint32_t bufferSize, uint32_t* size,
                                    uint8_t* buffer) {
    if (sample - 1 < inOrderCount_ && sizeInOrder(sample, size)) {
        if (*size > bufferSize) return MP4_ERR_BUFFER_TOO_SMALL;
        if (!buffer && *size > 0) return MP4_ERR_INVALID_ARGUMENT;
        MP4Err err = locateInChunk(sample, *size);
        return err != MP4_OK ? err : readAtCursor(*size, buffer);
    }
    uint64_t offset = 0, readAheadEnd = 0;
    MP4Err err = withSourceOf(sample, [&](auto& source, uint32_t local) {
        MP4Err found = source.sampleSize(local, size);
        if (found != MP4_OK) return found;
        if (*size > bufferSize) return MP4_ERR_BUFFER_TOO_SMALL;
        if (!buffer && *size > 0) return MP4_ERR_INVALID_ARGUMENT;
        return source.sampleOffset(local, *size, &offset, &readAheadEnd);
    });
    if (err != MP4_OK) return err;
    return host_->readMediaBytes(offset, *size, buffer, readAheadEnd);
}

// Reads size bytes at the cursor's sample, fetching ahead as far as its
// chunk ends (as MovieSamples::sampleOffset tells a read).
inline MP4Err CTrackImpl::readAtCursor(uint32_t size, uint8_t* buffer) {
    const OffsetCursor& c = offsetCursor_;
    const uint64_t offset = c.chunkOffset + c.offsetInChunk;
    // Bytes fetched ahead already need no chunk end.
    if (host_->readFetchedBytes(offset, size, buffer)) return MP4_OK;
    const uint64_t readAheadEnd = c.chunkBytes != 0 ? c.chunkOffset + c.chunkBytes : chunkEndOffset();
    return host_->readMediaBytes(offset, size, buffer, readAheadEnd);
}

// File offset of the end of the cursor's chunk, 0 when it is not known
// (a damaged table). Summed once per chunk, so reading a chunk's samples in
// order costs one step per sample.
uint64_t CTrackImpl::chunkEndOffset() {
    OffsetCursor& c = offsetCursor_;
    if (c.chunk == 0 || c.chunkEnd == 0) return 0;
    if (c.chunkBytes == 0) {
        uint64_t bytes = 0;
        if (stsz_->sampleSize != 0) {
            bytes = static_cast<uint64_t>(c.chunkEnd - c.chunkFirst) * stsz_->sampleSize;
        } else if (c.chunkEnd - c.chunkFirst == 1 && c.sample == c.chunkFirst) {
            bytes = c.sampleSize;  // a chunk of one sample, located already
        } else {
            for (uint32_t s = c.chunkFirst; s < c.chunkEnd; ++s) {
                uint32_t size = 0;
                if (sizeOfStszSample(s, &size) != MP4_OK) break;  // table ends early
                bytes += size;
            }
        }
        c.chunkBytes = bytes;
    }
    return c.chunkOffset + c.chunkBytes;
}

MP4Err CTrackImpl::getSampleDescriptionIndex(uint32_t sample, uint32_t* index) {
    if (!index) return MP4_ERR_INVALID_ARGUMENT;
    *index = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    uint32_t local = 0;
    return index_.sourceOf(sample, &local)->descriptionIndex(local, index);
}

MP4Err CTrackImpl::MovieSamples::descriptionIndex(uint32_t sample, uint32_t* index) {
    uint32_t chunk = sample;
    if (track_.chunkAsSample_ == 0) {
        if (sample > track_.stsz_->sampleCount) return MP4_ERR_NOT_AVAILABLE;
        MP4Err err = track_.stsc_->getChunkForSample(sample, &chunk);
        if (err != MP4_OK) return err;
    }
    return track_.stsc_->getSampleDescriptionIndex(chunk, index);
}

// A bound track's movie sample (movieTimedCount_ is 0 unless the track is
// open) between the last two sync samples looked at, or a track without
// "stss": isMovieSyncSample's answer, without the index.
inline bool CTrackImpl::syncInOrder(uint32_t sample, uint32_t* sync) const {
    if (sample - 1 >= movieTimedCount_) return false;
    if (!stss_) {
        *sync = 1;
        return true;
    }
    if (stssAscending_ && sample > syncWindow_.low && sample <= syncWindow_.high) {
        *sync = sample == syncWindow_.high ? 1 : 0;
        return true;
    }
    return false;
}

MP4Err CTrackImpl::isSyncSample(uint32_t sample, uint32_t* sync) {
    if (sync && syncInOrder(sample, sync)) return MP4_OK;
    if (!sync) return MP4_ERR_INVALID_ARGUMENT;
    *sync = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    if (sample > timeTable_->sampleCount) return MP4_ERR_NOT_AVAILABLE;
    return withSourceOf(sample, [sync](auto& source, uint32_t local) {
        return source.isSync(local, sync);
    });
}

MP4Err CTrackImpl::MovieSamples::isSync(uint32_t sample, uint32_t* sync) {
    return track_.isMovieSyncSample(sample, sync);
}

MP4Err CTrackImpl::MovieSamples::previousSync(uint32_t sample, uint32_t* sync) {
    if (!track_.stss_) {
        *sync = sample;  // without "stss" every sample is a sync sample
        return sample != 0 ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
    }
    return track_.previousMovieSync(sample, sync);
}

MP4Err CTrackImpl::isMovieSyncSample(uint32_t sample, uint32_t* sync) {
    if (!stss_) {
        *sync = 1;  // without "stss" every sample is a sync sample
        return MP4_OK;
    }
    if (!stssAscending_) return isListedSyncSample(sample, sync);
    // Samples between the last two sync samples looked at are answered
    // without the table.
    if (sample > syncWindow_.low && sample <= syncWindow_.high) {
        *sync = sample == syncWindow_.high ? 1 : 0;
        return MP4_OK;
    }
    // Sync sample numbers ascend: resume from where the last test ended.
    // The cursor is the first entry not below the last sample tested; it
    // restarts when a test goes back before the entry preceding it.
    CSyncSampleTableEntry* entry = nullptr;
    if (syncCursor_ > stss_->entryCount + 1 ||
        (syncCursor_ > 1 && stss_->getEntry(syncCursor_ - 1, &entry) == MP4_OK &&
         entry->sampleNumber >= sample)) {
        syncCursor_ = 1;
    }
    uint64_t previous = 0;
    if (syncCursor_ > 1 && stss_->getEntry(syncCursor_ - 1, &entry) == MP4_OK) {
        previous = entry->sampleNumber;
    }
    for (uint32_t i = syncCursor_; i <= stss_->entryCount; ++i) {
        MP4Err err = stss_->getEntry(i, &entry);
        if (err != MP4_OK) return err;
        if (entry->sampleNumber >= sample) {
            syncCursor_ = i;
            syncWindow_ = {previous, entry->sampleNumber};
            *sync = entry->sampleNumber == sample ? 1 : 0;
            return MP4_OK;
        }
        previous = entry->sampleNumber;
    }
    syncCursor_ = stss_->entryCount + 1;
    syncWindow_ = {previous, UINT64_MAX};
    return MP4_OK;
}

// Whether the sample is listed at all, for a table whose numbers do not
// ascend (damaged): every entry is looked at.
MP4Err CTrackImpl::isListedSyncSample(uint32_t sample, uint32_t* sync) {
    for (uint32_t i = 1; i <= stss_->entries.count(); ++i) {
        CSyncSampleTableEntry* entry = nullptr;
        MP4Err err = stss_->getEntry(i, &entry);
        if (err != MP4_OK) return err;
        if (entry->sampleNumber == sample) {
            *sync = 1;
            return MP4_OK;
        }
    }
    return MP4_OK;
}


// ---- times and searches ---------------------------------------------------

MP4Err CTrackImpl::readyForTimes() const {
    if (!open_ || !timeTable_ || timeTable_->writing) return MP4_ERR_INVALID_DATA;
    return MP4_OK;
}

MP4Err CTrackImpl::checkTimedSample(uint32_t sample) {
    MP4Err err = readyForTimes();
    if (err != MP4_OK) return err;
    if (sample > timeTable_->sampleCount) return MP4_ERR_NOT_AVAILABLE;
    return sample == 0 ? MP4_ERR_BAD_INDEX : MP4_OK;
}

// A sample of a bound track's time table (timedCount_ is 0 unless the
// track is open) in the runs of the last answer: no state left to check,
// no search.
inline bool CTrackImpl::decodeInOrder(uint32_t sample, uint64_t* time) const {
    return sample - 1 < timedCount_ && timeTable_->times.decodeAtHand(sample, time);
}

inline bool CTrackImpl::compositionInOrder(uint32_t sample, uint64_t* time) const {
    return sample - 1 < timedCount_ && timeTable_->times.compositionAtHand(sample, time);
}

MP4Err CTrackImpl::getSampleDecodeTime(uint32_t sample, uint64_t* time) {
    if (time && decodeInOrder(sample, time)) return MP4_OK;
    return searchedDecodeTime(sample, time);
}

MP4Err CTrackImpl::searchedDecodeTime(uint32_t sample, uint64_t* time) {
    if (time) *time = 0;
    MP4Err err = checkTimedSample(sample);
    if (err == MP4_OK && time) *time = timeTable_->times.decodeTime(sample);
    return err;
}

MP4Err CTrackImpl::getSampleCompositionTime(uint32_t sample, uint64_t* time) {
    if (time && compositionInOrder(sample, time)) return MP4_OK;
    return searchedCompositionTime(sample, time);
}

MP4Err CTrackImpl::searchedCompositionTime(uint32_t sample, uint64_t* time) {
    if (time) *time = 0;
    MP4Err err = checkTimedSample(sample);
    if (err == MP4_OK && time) *time = timeTable_->times.compositionTime(sample);
    return err;
}

MP4Err CTrackImpl::getSampleCount(uint32_t* count) {
    if (!count) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    *count = timeTable_->sampleCount;
    return MP4_OK;
}

// From the last sample found when it is not after time, else from sample
// 1: the first sample decoded at or after time, or the one before it when
// it is decoded later (sample 1 stays). The time runs answer by halves
// what walking the samples gives.
MP4Err CTrackImpl::findSampleByDecodeTime(uint64_t time, uint32_t* sample) {
    if (!sample) return MP4_ERR_INVALID_ARGUMENT;
    *sample = 0;
    MP4Err err = readyForTimes();
    if (err != MP4_OK) return err;
    CSampleTimeTable& table = *timeTable_;
    if (table.cursorIndex == 0) return MP4_ERR_BAD_INDEX;
    if (table.cursorIndex > table.sampleCount) return MP4_ERR_NOT_AVAILABLE;
    const CSampleTimes& times = table.times;
    const uint32_t from = times.decodeTime(table.cursorIndex) > time ? 1 : table.cursorIndex;
    const uint32_t index = times.firstDecodedAtOrAfter(from, time);
    if (index == 0) return MP4_ERR_NOT_AVAILABLE;
    const uint32_t answer = (index == 1 || times.decodeTime(index) == time) ? index : index - 1;
    table.cursorIndex = answer;
    *sample = answer;
    return MP4_OK;
}

MP4Err CTrackImpl::findSampleByCompositionTime(uint64_t time, uint32_t* sample) {
    if (!sample) return MP4_ERR_INVALID_ARGUMENT;
    *sample = 0;
    MP4Err err = readyForTimes();
    if (err != MP4_OK) return err;
    CSampleTimeTable& table = *timeTable_;
    if (table.sampleCount == 0) return MP4_ERR_NOT_AVAILABLE;
    // One sample out of order (a B-frame after its reference) is stepped
    // over; the second one ends the walk (see latestPresentedBy).
    const uint32_t best = table.times.latestPresentedBy(time);
    table.cursorIndex = best;
    *sample = best;
    return MP4_OK;
}

// The last "stss" entry not above sample, as the box's own lookup gives
// it; an ascending table is searched by halves in a copy of its numbers.
MP4Err CTrackImpl::previousMovieSync(uint32_t sample, uint32_t* sync) {
    if (!stssAscending_) return stss_->getPreviousSyncSample(sample, sync);
    if (syncNumbers_.size() != stss_->entries.count()) {
        try {
            syncNumbers_.clear();
            syncNumbers_.reserve(stss_->entries.count());
            for (uint32_t i = 1; i <= stss_->entries.count(); ++i) {
                CSyncSampleTableEntry* entry = nullptr;
                if (stss_->getEntry(i, &entry) != MP4_OK) break;
                syncNumbers_.push_back(entry->sampleNumber);
            }
        } catch (const std::bad_alloc&) {
            syncNumbers_.clear();
        }
        if (syncNumbers_.size() != stss_->entries.count()) {
            syncNumbers_.clear();
            return stss_->getPreviousSyncSample(sample, sync);
        }
    }
    *sync = 1;
    auto after = std::upper_bound(syncNumbers_.begin(), syncNumbers_.end(), sample);
    if (after == syncNumbers_.begin()) return MP4_ERR_NOT_AVAILABLE;  // also when empty
    *sync = *(after - 1);
    return MP4_OK;
}

MP4Err CTrackImpl::findSyncSampleBefore(uint64_t time, uint32_t* sample) {
    if (!sample) return MP4_ERR_INVALID_ARGUMENT;
    *sample = 0;
    uint32_t found = 0;
    MP4Err err = findSampleByCompositionTime(time, &found);
    if (err != MP4_OK) return err;
    const bool acrossSources = index_.hasFragments();
    if (!acrossSources && !stss_) {
        *sample = found;
        return MP4_OK;
    }
    return walkBackToPresentedSync(found, time, acrossSources, sample);
}

// From one past the sample found (deliberately), back through the sync
// samples until one is presented by `time`; over movie samples and
// fragments when the track has fragments, else over the movie's table.
MP4Err CTrackImpl::walkBackToPresentedSync(uint32_t found, uint64_t time, bool acrossSources,
                                           uint32_t* sample) {
    uint32_t candidate = found + 1;
    for (;;) {
        uint32_t sync = 0;
        MP4Err err = acrossSources ? index_.previousSync(candidate, &sync)
                                   : previousMovieSync(candidate, &sync);
        if (err != MP4_OK) return err;
        uint64_t composition = 0;
        if ((err = getSampleCompositionTime(sync, &composition)) != MP4_OK) return err;
        if (composition <= time) {
            *sample = sync;
            return MP4_OK;
        }
        if (sync <= 1) return MP4_ERR_NOT_AVAILABLE;
        candidate = sync - 1;
    }
}

MP4Err CTrackImpl::getInitialDelay(uint64_t* delay, int64_t* firstMediaTime,
                                   uint64_t* presentedDuration) {
    if (!delay) return MP4_ERR_INVALID_ARGUMENT;
    *delay = 0;
    if (firstMediaTime) *firstMediaTime = 0;
    if (presentedDuration) *presentedDuration = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    *delay = initialDelay_;
    if (firstMediaTime) *firstMediaTime = firstMediaTime_;
    if (presentedDuration) *presentedDuration = presentedDuration_;
    return MP4_OK;
}

MP4Err CTrackImpl::movieHeader(CMovieHeaderBox** header) {
    *header = nullptr;
    CBox* moov = nullptr;
    MP4Err err = host_->findMovie(&moov);
    if (err != MP4_OK) return err;
    if ((err = findTyped(moov, fourcc("mvhd"), header)) != MP4_OK) return err;
    return (*header)->timeScale != 0 ? MP4_OK : MP4_ERR_INVALID_DATA;
}

uint64_t rescaleTime(uint64_t value, uint32_t to, uint32_t from) {
    if (from == 0) return 0;
    return static_cast<uint64_t>(static_cast<unsigned __int128>(value) * to / from);
}

double CTrackImpl::getRotateAngle() { return tkhd_ ? tkhd_->getRotationAngle() : 0.0; }

// ---- chunk offsets --------------------------------------------------------

MP4Err CTrackImpl::shiftChunkOffsets(int32_t delta) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    offsetCursor_ = OffsetCursor();
    if (stco_) return stco_->shiftOffsets(delta);
    if (co64_) return co64_->shiftOffsets(delta);
    return MP4_ERR_WRONG_LAYOUT;
}

// ---- many samples at once -----------------------------------------------

namespace {

// How many of count samples from first on have a number: none lies past
// 0xFFFFFFFF, where the queries answer as beyond the last sample.
uint32_t numberedSamples(uint32_t first, uint32_t count) {
    const uint64_t numbers = uint64_t{UINT32_MAX} - first + 1;
    return count < numbers ? count : static_cast<uint32_t>(numbers);
}

}  // namespace

// Each of the four queries is its in-order answer or, where that has none,
// the query itself (what each query does first): taken here in one loop
// without the virtual interface, the answers and the state they leave are
// those of the calls.
MP4Err CTrackImpl::fillSampleTable(uint32_t first, uint32_t count, MP4SampleTableEntry* entries,
                                   uint32_t* filled) {
    for (uint32_t i = 0, numbered = numberedSamples(first, count); i < count; ++i) {
        if (i == numbered) return MP4_ERR_NOT_AVAILABLE;
        const uint32_t sample = first + i;
        MP4SampleTableEntry& e = entries[i];
        MP4Err err = MP4_OK;
        if (!(sample - 1 < inOrderCount_ && stepInOrder(sample, &e.size, &e.offset))) {
            err = CTrackImpl::getSampleOffset(sample, &e.offset, &e.size);
        }
        if (err == MP4_OK && !decodeInOrder(sample, &e.decodeTime)) {
            err = searchedDecodeTime(sample, &e.decodeTime);
        }
        if (err == MP4_OK && !compositionInOrder(sample, &e.compositionTime)) {
            err = searchedCompositionTime(sample, &e.compositionTime);
        }
        if (err == MP4_OK && !syncInOrder(sample, &e.sync)) err = CTrackImpl::isSyncSample(sample, &e.sync);
        if (err != MP4_OK) return err;
        *filled = i + 1;
    }
    return MP4_OK;
}

MP4Err Mp4GetSampleTable(CMp4Track* track, uint32_t firstSample, uint32_t count,
                         MP4SampleTableEntry* entries, uint32_t* filled) {
    uint32_t ignored = 0;
    if (!filled) filled = &ignored;
    *filled = 0;
    if (!track || (!entries && count > 0)) return MP4_ERR_INVALID_ARGUMENT;
    if (auto* impl = dynamic_cast<CTrackImpl*>(track)) {
        return impl->fillSampleTable(firstSample, count, entries, filled);
    }
    // Another implementation of the track interface: the calls themselves.
    for (uint32_t i = 0, numbered = numberedSamples(firstSample, count); i < count; ++i) {
        if (i == numbered) return MP4_ERR_NOT_AVAILABLE;
        const uint32_t sample = firstSample + i;
        MP4SampleTableEntry& e = entries[i];
        MP4Err err = track->getSampleOffset(sample, &e.offset, &e.size);
        if (err == MP4_OK) err = track->getSampleDecodeTime(sample, &e.decodeTime);
        if (err == MP4_OK) err = track->getSampleCompositionTime(sample, &e.compositionTime);
        if (err == MP4_OK) err = track->isSyncSample(sample, &e.sync);
        if (err != MP4_OK) return err;
        *filled = i + 1;
    }
    return MP4_OK;
}

}  // namespace quil
