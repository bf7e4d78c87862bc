// Copying a read track into a file being written (remux): the "trak" as it
// is, with new sample tables grown as the samples are copied with the
// source's own timing.
#include <initializer_list>
#include <vector>
#include <memory>
#include <new>

#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "track/SampleEntryBuilder.h"
#include "track/TrackHost.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;

// The child of that type as class T; 3 when absent, 5 for another class.
template <class T>
MP4Err childAs(CBox* parent, uint32_t type, T** out) {
    *out = nullptr;
    CBox* box = nullptr;
    MP4Err err = parent->findChild(type, &box);
    if (err != MP4_OK) return err;
    *out = dynamic_cast<T*>(box);
    return *out ? MP4_OK : MP4_ERR_INVALID_DATA;
}

// Puts a new, empty table of class T in the place of the first child of
// one of the types (an old table of the copy); none found: nothing.
template <class T>
MP4Err renewTable(CBox* stbl, uint32_t newType, std::initializer_list<uint32_t> oldTypes,
                  T** table) {
    *table = nullptr;
    CBoxList* list = stbl->childList();
    if (!list) return MP4_ERR_INVALID_DATA;
    for (uint32_t oldType : oldTypes) {
        CBox* old = nullptr;
        if (stbl->findChild(oldType, &old) != MP4_OK) continue;
        std::unique_ptr<T> made(new (std::nothrow) T());
        if (!made) return MP4_ERR_OUT_OF_MEMORY;
        made->type = newType;
        MP4Err err = list->replace(old, made.get());
        if (err != MP4_OK) return err;
        delete old;
        *table = made.release();
        return MP4_OK;
    }
    return MP4_OK;
}

// As renewTable, appending a new table when the copy has none.
template <class T>
MP4Err renewRequiredTable(CBox* stbl, uint32_t newType, std::initializer_list<uint32_t> oldTypes,
                          T** table) {
    MP4Err err = renewTable(stbl, newType, oldTypes, table);
    if (err != MP4_OK || *table) return err;
    std::unique_ptr<T> made(new (std::nothrow) T());
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    made->type = newType;
    if ((err = stbl->addChild(made.get())) != MP4_OK) return err;
    *table = made.release();
    return MP4_OK;
}

// The highest track ID among the movie's tracks.
uint32_t highestTrackId(CBox* moov) {
    uint32_t highest = 0;
    CBoxList* list = moov->childList();
    for (CBoxList::Node* node = list ? list->head() : nullptr; node; node = node->next) {
        CTrackHeaderBox* tkhd = nullptr;
        if (node->box->type == fourcc("trak") &&
            childAs(node->box, fourcc("tkhd"), &tkhd) == MP4_OK && tkhd->trackId > highest) {
            highest = tkhd->trackId;
        }
    }
    return highest;
}

}  // namespace

MP4Err CTrackImpl::copyTrackFrom(CMp4Track* source) {
    auto* from = dynamic_cast<CTrackImpl*>(source);
    if (!from || from == this) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_ || stbl_ || copySource_) return MP4_ERR_NOT_AVAILABLE;
    if (!from->open_ || from->writing_ || !from->trak_) return MP4_ERR_INVALID_DATA;
    CBox* copied = nullptr;
    MP4Err err = copyBox(from->trak_, fourcc("moov"), &copied);
    if (err != MP4_OK) return err;
    std::unique_ptr<CBox> owned(copied);
    auto* trak = dynamic_cast<CTrackBox*>(copied);
    if (!trak) return MP4_ERR_INVALID_DATA;
    if ((err = adoptCopiedTrack(trak)) != MP4_OK) return err;
    owned.release();
    if ((err = gatherAuxInfo(from)) != MP4_OK) return err;
    // Edit lists and track durations count in the movie's time scale: the
    // copy's movie takes the source's.
    CMovieHeaderBox *mvhd = nullptr, *sourceMvhd = nullptr;
    if (movieHeader(&mvhd) == MP4_OK && from->movieHeader(&sourceMvhd) == MP4_OK) {
        mvhd->timeScale = sourceMvhd->timeScale;
    }
    mediaType_ = from->mediaType_;
    copySource_ = from;
    // The copy keeps the source's edit list (or its lack of one) and its
    // header's size; bit rates stay those of the copied entries.
    editSet_ = true;
    dimensionsSet_ = true;
    fillsBitrates_ = false;
    return MP4_OK;
}

// Puts the copy in the place of this track's own "trak" and points the
// track at its boxes, with new sample tables.
MP4Err CTrackImpl::adoptCopiedTrack(CTrackBox* trak) {
    CTrackHeaderBox* tkhd = nullptr;
    CMediaBox* mdia = nullptr;
    CMediaHeaderBox* mdhd = nullptr;
    CHandlerReferenceBox* hdlr = nullptr;
    CMediaInformationBox* minf = nullptr;
    CSampleTableBox* stbl = nullptr;
    CSampleDescriptionBox* stsd = nullptr;
    MP4Err err = childAs(trak, fourcc("tkhd"), &tkhd);
    if (err == MP4_OK) err = childAs(trak, fourcc("mdia"), &mdia);
    if (err == MP4_OK) err = childAs(mdia, fourcc("mdhd"), &mdhd);
    if (err == MP4_OK) err = childAs(mdia, fourcc("hdlr"), &hdlr);
    if (err == MP4_OK) err = childAs(mdia, fourcc("minf"), &minf);
    if (err == MP4_OK) err = childAs(minf, fourcc("stbl"), &stbl);
    // A source without "stsd" is copied without one.
    if (err == MP4_OK && (err = childAs(stbl, fourcc("stsd"), &stsd)) == MP4_ERR_NOT_AVAILABLE) {
        err = describeNoSamples(&stsd);
    }
    if (err != MP4_OK) return err;
    if ((err = renewRequiredTable(stbl, fourcc("stts"), {fourcc("stts")}, &stts_)) != MP4_OK ||
        (err = renewTable(stbl, fourcc("ctts"), {fourcc("ctts")}, &ctts_)) != MP4_OK ||
        (err = renewRequiredTable(stbl, fourcc("stsc"), {fourcc("stsc")}, &stsc_)) != MP4_OK ||
        (err = renewRequiredTable(stbl, fourcc("stsz"), {fourcc("stsz"), fourcc("stz2")}, &stsz_)) !=
            MP4_OK ||
        (err = renewRequiredTable(stbl, fourcc("stco"), {fourcc("stco"), fourcc("co64")}, &stco_)) !=
            MP4_OK ||
        (err = renewTable(stbl, fourcc("stss"), {fourcc("stss")}, &stss_)) != MP4_OK) {
        return err;
    }
    CBox* moov = nullptr;
    if ((err = host_->findMovie(&moov)) != MP4_OK) return err;
    CBoxList* tracks = moov->childList();
    if (!tracks) return MP4_ERR_INVALID_DATA;
    if ((err = tracks->replace(trak_, trak)) != MP4_OK) return err;
    delete trak_;
    trak_ = trak;
    tkhd_ = tkhd;
    mdia_ = mdia;
    mdhd_ = mdhd;
    hdlr_ = hdlr;
    minf_ = minf;
    stbl_ = stbl;
    stsd_ = stsd;
    co64_ = nullptr;
    trackId_ = tkhd->trackId;
    // Track references name the source's IDs, so the copy keeps its own;
    // the next new track gets one above all of them.
    CMovieHeaderBox* mvhd = nullptr;
    if ((err = movieHeader(&mvhd)) != MP4_OK) return err;
    const uint64_t next = static_cast<uint64_t>(highestTrackId(moov)) + 1;
    if (next <= kMax32 && next > mvhd->nextTrackId) mvhd->nextTrackId = static_cast<uint32_t>(next);
    return MP4_OK;
}

// A fragmented source copied into sample tables: each sample's auxiliary
// information and sample groups go with it (the movie's own samples of
// such a track have their tables' boxes, copied with the "trak").
MP4Err CTrackImpl::gatherAuxInfo(CTrackImpl* from) {
    uint32_t count = 0;
    if (host_->fragmentSamples() || !from->index_.hasFragments() ||
        from->index_.movieCount() != 0 || from->chunkAsSample_ != 0 ||
        from->getSampleCount(&count) != MP4_OK) {
        return MP4_OK;
    }
    std::unique_ptr<CFragmentAuxInfo> aux(new (std::nothrow) CFragmentAuxInfo());
    if (!aux) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = aux->gather(from->host_, from->trackId_, count, stbl_);
    if (err == MP4_OK && !aux->empty()) auxInfo_ = std::move(aux);
    return err;
}

// Timing of a read sample as stored: its decode time without the edit
// list's delay, its composition offset (signed) and its description. The
// answers of the sample access are used, except for the offset of a
// sample "ctts" covers, which is taken as stored (the access keeps
// composition times from going below zero).
MP4Err CTrackImpl::storedTiming(uint32_t sample, StoredTiming* timing) {
    uint64_t decode = 0, composition = 0;
    MP4Err err = getSampleDecodeTime(sample, &decode);
    if (err == MP4_OK) err = getSampleCompositionTime(sample, &composition);
    if (err != MP4_OK) return err;
    timing->decode = decode - initialDelay_;
    timing->firstStored = sample;
    timing->storedCount = 1;
    timing->sync = 1;  // a chunk of raw audio always is a sync sample
    if (chunkAsSample_ != 0) {
        if ((err = stsc_->getFirstSampleOfChunk(sample, &timing->firstStored)) != MP4_OK ||
            (err = stsc_->getSamplesPerChunk(sample, &timing->storedCount)) != MP4_OK) {
            return err;
        }
    } else if ((err = isSyncSample(sample, &timing->sync)) != MP4_OK) {
        return err;
    }
    uint32_t offset = 0;
    if (ctts_ && ctts_->getCompositionOffset(timing->firstStored, &offset) == MP4_OK) {
        timing->offset = static_cast<int32_t>(offset);
    } else {
        timing->offset = static_cast<int32_t>(static_cast<int64_t>(composition - decode));
    }
    // Samples the description table does not place use the first.
    if (getSampleDescriptionIndex(sample, &timing->description) != MP4_OK) timing->description = 1;
    return MP4_OK;
}

// How long a read sample lasts: to the next sample's decode time, the last
// one its own "stts" delta (one tick per stored sample in chunk mode).
uint32_t CTrackImpl::storedDuration(uint32_t sample) {
    if (chunkAsSample_ != 0) return 1;
    uint64_t decode = 0, next = 0;
    if (getSampleDecodeTime(sample, &decode) == MP4_OK &&
        getSampleDecodeTime(sample + 1, &next) == MP4_OK && next >= decode) {
        return next - decode > kMax32 ? 0xFFFFFFFFu : static_cast<uint32_t>(next - decode);
    }
    const CTimeToSampleTableEntry* last = stts_->entries.last();
    return last ? last->sampleDelta : 0;
}

MP4Err CTrackImpl::copySampleFrom(uint32_t sample, uint32_t* size) {
    if (!size) return MP4_ERR_INVALID_ARGUMENT;
    *size = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (!writing_ || finalized_ || !copySource_) return MP4_ERR_NOT_AVAILABLE;
    CTrackImpl* from = copySource_;
    if (sample <= lastCopied_) return MP4_ERR_INVALID_ARGUMENT;  // in order, once each
    StoredTiming timing;
    MP4Err err = from->storedTiming(sample, &timing);
    if (err != MP4_OK) return err;
    uint64_t offset = 0;
    uint32_t bytes = 0;
    if ((err = from->getSampleOffset(sample, &offset, &bytes)) != MP4_OK) return err;
    // A table pointing past the end of the file (cut off, damaged) is not
    // worth a buffer of that size.
    uint64_t length = 0;
    if (from->host_->storageLength(&length) && (offset > length || bytes > length - offset)) {
        return MP4_ERR_END_OF_FILE;
    }
    if (CFragmentSampleSink* fragments = host_->fragmentSamples()) {
        return copyFragmentSample(fragments, sample, timing, bytes, size);
    }
    if (timing.decode < lastDecodeTime_ && timeTable_->sampleCount > 0) return MP4_ERR_BAD_TIME;
    if (static_cast<uint64_t>(nextSample_) + timing.storedCount > kMax32) {
        return MP4_ERR_VALUE_TOO_LARGE;
    }
    // Another sample description starts another chunk.
    if (pendingCount_ > 0 && timing.description != pendingDescription_ &&
        (err = flushChunk()) != MP4_OK) {
        return err;
    }
    // Read straight into the pending chunk; nothing changes when it fails.
    if ((err = reserveChunkBytes(pendingBytes_ + bytes)) != MP4_OK) return err;
    uint32_t got = 0;
    err = from->readSample(sample, bytes, &got, chunkBuffer_.get() + pendingBytes_);
    if (err != MP4_OK) return err;
    if ((err = addCopiedTimes(timing, from, got)) != MP4_OK) return err;
    if (auxInfo_ && (err = auxInfo_->addSample(sample)) != MP4_OK) return err;
    pendingDescription_ = timing.description;
    pendingBytes_ += got;
    pendingCount_ += timing.storedCount;
    lastCopied_ = sample;
    lastDuration_ = from->storedDuration(sample);
    totalBytes_ += got;
    *size = got;
    // A chunk of raw audio read as one sample is written as one chunk.
    if (from->chunkAsSample_ != 0) return flushChunk();
    return chunkAfterAppend(timing.decode);
}

// A fragmented file takes each copied sample as it comes, as addSample
// hands it on, with its stored composition offset (negative ones kept).
MP4Err CTrackImpl::copyFragmentSample(CFragmentSampleSink* fragments, uint32_t sample,
                                      const StoredTiming& timing, uint32_t bytes, uint32_t* size) {
    if (!stbl_ || stsd_->entryCount == 0) return MP4_ERR_INVALID_DATA;
    MP4Err err = reserveChunkBytes(bytes);
    if (err != MP4_OK) return err;
    uint32_t got = 0;
    err = copySource_->readSample(sample, bytes, &got, chunkBuffer_.get());
    if (err != MP4_OK) return err;
    const uint64_t composition = timing.decode + static_cast<uint64_t>(static_cast<int64_t>(timing.offset));
    err = fragments->addFragmentSample(trackId_, chunkBuffer_.get(), got, timing.decode,
                                       composition, timing.sync != 0);
    if (err != MP4_OK) return err;
    lastCopied_ = sample;
    totalBytes_ += got;
    *size = got;
    return MP4_OK;
}

// The table entries of one copied sample (of each stored sample of a
// chunk read as one): its size (in a chunk, each as the source states it),
// the decode delta of the previous entry, the composition offset as stored
// (a negative one makes "ctts" version 1) and the sync flag.
MP4Err CTrackImpl::addCopiedTimes(const StoredTiming& timing, CTrackImpl* from, uint32_t bytes) {
    MP4Err err = MP4_OK;
    for (uint32_t i = 0; i < timing.storedCount; ++i) {
        // A chunk read as one sample keeps the sizes of the samples in it.
        uint32_t size = bytes;
        if (from->chunkAsSample_ != 0 &&
            (err = from->sizeOfStszSample(timing.firstStored + i, &size)) != MP4_OK) {
            return err;
        }
        const uint64_t decode = timing.decode + i;
        if (timeTable_->sampleCount > 0) {
            const uint64_t delta = decode - lastDecodeTime_;
            if (delta > kMax32) return MP4_ERR_BAD_TIME;
            if ((err = stts_->appendDelta(static_cast<uint32_t>(delta))) != MP4_OK) return err;
        }
        const uint32_t sample = nextSample_;
        if ((err = stsz_->appendSampleSize(size)) != MP4_OK) return err;
        if ((err = addCopiedOffset(sample, timing.offset)) != MP4_OK) return err;
        if ((err = addSyncFlag(sample, timing.sync != 0)) != MP4_OK) return err;
        lastDecodeTime_ = decode;
        ++nextSample_;
        ++timeTable_->sampleCount;
    }
    return MP4_OK;
}

// "ctts" appears with the first offset that is not 0 (earlier samples
// then get 0), or was renewed from the source's.
MP4Err CTrackImpl::addCopiedOffset(uint32_t sample, int32_t offset) {
    if (!ctts_) {
        if (offset == 0) return MP4_OK;
        std::unique_ptr<CCompositionOffsetBox> made(new (std::nothrow) CCompositionOffsetBox());
        if (!made) return MP4_ERR_OUT_OF_MEMORY;
        made->type = fourcc("ctts");
        MP4Err err = stbl_->addChild(made.get());
        if (err != MP4_OK) return err;
        ctts_ = made.release();
        for (uint32_t earlier = 1; earlier < sample; ++earlier) {
            if ((err = ctts_->addCompositionOffset(earlier, 0)) != MP4_OK) return err;
        }
    }
    if (offset < 0) ctts_->version = 1;
    return ctts_->addCompositionOffset(sample, static_cast<uint32_t>(offset));
}

// ---- copying by runs --------------------------------------------------------

namespace {

// One sample as the source's tables give it.
struct WalkedSample {
    uint64_t offset = 0;
    uint32_t size = 0;
    uint64_t decode = 0;       // without the initial delay
    int32_t composition = 0;   // offset as stored
    uint32_t sync = 1;
    uint32_t description = 0;  // sample description index
    bool opensChunk = false;   // the first sample of its chunk
};

// A cursor over a run-length table ("stts", "ctts"): the field of each
// sample's run in turn, runs of no samples stepped over.
template <class Entry>
struct RunCursor {
    uint32_t index = 0, left = 0, value = 0;
    MP4Err take(CCountedTableBox<Entry>& table, uint32_t Entry::*field, uint32_t* out) {
        while (left == 0) {
            Entry* run = nullptr;
            MP4Err err = table.getEntry(++index, &run);
            if (err != MP4_OK) return err;
            left = run->sampleCount;
            value = run->*field;
        }
        --left;
        *out = value;
        return MP4_OK;
    }
};

// A pending chunk's bytes: ranges of the source, neighbours merged.
struct SourceRange {
    uint64_t offset;
    uint64_t size;
};

}  // namespace

// The samples of a read track in order, straight from its tables, each
// table followed by a cursor of its own. For tables that pass
// checkTables, every answer is what the sample access gives the same
// sample (its size, offset, stored timing, sync flag and description):
// they agree with each other as in every well-formed file, so the
// lookups' rules for damaged tables never come into play.
class CTrackImpl::TableWalk {
public:
    explicit TableWalk(CTrackImpl& track) : t_(track) {}
    // 12 when the tables are not of that kind (or the track is not a
    // bound read track of sample tables alone); *count: its samples.
    MP4Err checkTables(uint32_t* count);
    MP4Err next(WalkedSample* sample);

private:
    MP4Err checkChunkRuns(uint32_t count);
    MP4Err nextChunk();

    CTrackImpl& t_;
    uint32_t sample_ = 0;
    uint64_t decode_ = 0;
    RunCursor<CTimeToSampleTableEntry> deltas_;
    RunCursor<CCompositionOffsetTableEntry> offsets_;
    uint32_t stscIndex_ = 0, perChunk_ = 0, description_ = 0;
    uint64_t nextRunChunk_ = 0;  // first chunk of the next "stsc" run
    uint32_t chunk_ = 0, leftInChunk_ = 0;
    uint64_t position_ = 0;
    uint32_t stssIndex_ = 0;
    uint64_t nextSync_ = 0;
};

namespace {

constexpr MP4Err kNotByRuns = MP4_ERR_UNSUPPORTED;

// Every entry the count announces was read.
template <class Table>
bool complete(const Table& table) {
    return table.entries.count() == table.entryCount;
}

// Sum of the entries' sample counts; 12 for an incomplete table or, with
// noEmptyRuns, an entry of no samples.
template <class Entry>
MP4Err runSamples(CCountedTableBox<Entry>& table, bool noEmptyRuns, uint64_t* sum) {
    *sum = 0;
    if (!complete(table)) return kNotByRuns;
    for (uint32_t i = 1; i <= table.entries.count(); ++i) {
        Entry* entry = nullptr;
        if (table.getEntry(i, &entry) != MP4_OK) return kNotByRuns;
        if (noEmptyRuns && entry->sampleCount == 0) return kNotByRuns;
        *sum += entry->sampleCount;
    }
    return MP4_OK;
}

// Sample auxiliary information points into the source file; its copy
// stays with the sample-by-sample path.
bool holdsAuxiliaryInformation(CBox* stbl) {
    CBox* found = nullptr;
    for (uint32_t type : {fourcc("saio"), fourcc("saiz"), fourcc("senc")}) {
        if (stbl->findChild(type, &found) == MP4_OK) return true;
    }
    return false;
}

}  // namespace

MP4Err CTrackImpl::TableWalk::checkTables(uint32_t* count) {
    const CTrackImpl& t = t_;
    *count = 0;
    if (!t.open_ || t.writing_ || !t.timeTable_ || t.fragments_ || t.chunkAsSample_ != 0 ||
        !t.stts_ || !t.stsz_ || !t.stsc_ || (!t.stco_ && !t.co64_)) {
        return kNotByRuns;
    }
    const uint32_t samples = t.timeTable_->sampleCount;
    if (samples != t.stsz_->sampleCount || samples == 0xFFFFFFFFu ||
        (t.stsz_->sampleSize == 0 && t.stsz_->entries.count() != samples)) {
        return kNotByRuns;
    }
    uint64_t timed = 0, offsets = 0;
    MP4Err err = runSamples(*t.stts_, false, &timed);
    if (err == MP4_OK && timed != samples) err = kNotByRuns;
    if (err == MP4_OK && t.ctts_) err = runSamples(*t.ctts_, true, &offsets);
    if (err == MP4_OK && t.ctts_ && offsets < samples) err = kNotByRuns;
    if (err == MP4_OK && t.stss_ && (!complete(*t.stss_) || !t.stss_->numbersAscend())) {
        err = kNotByRuns;
    }
    if (err == MP4_OK) err = checkChunkRuns(samples);
    if (err == MP4_OK) *count = samples;
    return err;
}

// "stsc" runs from chunk 1 on, first chunks strictly ascending, none empty,
// the last within the chunk offsets, holding exactly the track's samples.
MP4Err CTrackImpl::TableWalk::checkChunkRuns(uint32_t count) {
    CSampleToChunkBox& stsc = *t_.stsc_;
    const bool offsetsComplete = t_.stco_ ? complete(*t_.stco_) : complete(*t_.co64_);
    const uint64_t chunks = t_.stco_ ? t_.stco_->entries.count() : t_.co64_->entries.count();
    if (count == 0) return MP4_OK;
    if (!offsetsComplete || !complete(stsc) || stsc.entries.count() == 0) return kNotByRuns;
    uint64_t samples = 0;
    CSampleToChunkTableEntry* run = nullptr;
    for (uint32_t i = 1; i <= stsc.entries.count(); ++i) {
        if (stsc.getEntry(i, &run) != MP4_OK || run->samplesPerChunk == 0) return kNotByRuns;
        CSampleToChunkTableEntry* next = nullptr;
        const uint64_t end = i < stsc.entries.count() && stsc.getEntry(i + 1, &next) == MP4_OK
                                 ? next->firstChunk
                                 : chunks + 1;
        if ((i == 1 && run->firstChunk != 1) || end <= run->firstChunk) return kNotByRuns;
        samples += (end - run->firstChunk) * run->samplesPerChunk;
    }
    return samples == count ? MP4_OK : kNotByRuns;
}

MP4Err CTrackImpl::TableWalk::next(WalkedSample* s) {
    ++sample_;
    MP4Err err = MP4_OK;
    uint32_t delta = 0;
    if ((err = deltas_.take(*t_.stts_, &CTimeToSampleTableEntry::sampleDelta, &delta)) != MP4_OK) {
        return err;
    }
    s->decode = decode_;
    decode_ += delta;
    if ((err = t_.sizeOfStszSample(sample_, &s->size)) != MP4_OK) return err;
    s->opensChunk = leftInChunk_ == 0;
    if (s->opensChunk && (err = nextChunk()) != MP4_OK) return err;
    --leftInChunk_;
    s->offset = position_;
    position_ += s->size;
    s->description = description_;
    s->composition = 0;
    uint32_t offset = 0;
    if (t_.ctts_) {
        err = offsets_.take(*t_.ctts_, &CCompositionOffsetTableEntry::sampleOffset, &offset);
        if (err != MP4_OK) return err;
        s->composition = static_cast<int32_t>(offset);
    }
    s->sync = 1;
    if (t_.stss_) {
        while (nextSync_ < sample_ && stssIndex_ < t_.stss_->entries.count()) {
            CSyncSampleTableEntry* entry = nullptr;
            if ((err = t_.stss_->getEntry(++stssIndex_, &entry)) != MP4_OK) return err;
            nextSync_ = entry->sampleNumber;
        }
        s->sync = nextSync_ == sample_ ? 1 : 0;
    }
    return MP4_OK;
}

MP4Err CTrackImpl::TableWalk::nextChunk() {
    ++chunk_;
    if (chunk_ >= nextRunChunk_) {
        CSampleToChunkTableEntry* run = nullptr;
        MP4Err err = t_.stsc_->getEntry(++stscIndex_, &run);
        if (err != MP4_OK) return err;
        perChunk_ = run->samplesPerChunk;
        description_ = run->sampleDescriptionIndex;
        CSampleToChunkTableEntry* next = nullptr;
        nextRunChunk_ = stscIndex_ < t_.stsc_->entries.count() &&
                                t_.stsc_->getEntry(stscIndex_ + 1, &next) == MP4_OK
                            ? next->firstChunk
                            : UINT64_MAX;
    }
    leftInChunk_ = perChunk_;
    return t_.chunkOffset(chunk_, &position_);
}

struct CTrackImpl::RunCopy {
    explicit RunCopy(CTrackImpl& source) : walk(source) {}
    TableWalk walk;
    CCopiedMediaSink* sink = nullptr;
    uint32_t count = 0;
    uint32_t timeScale = 1;
    uint64_t delay = 0;
    bool sourceChunks = false;  // cut chunks where the source's end
    WalkedSample next;
    std::vector<SourceRange> pending;
};

void CTrackImpl::RunCopyDeleter::operator()(RunCopy* run) const { delete run; }

CTrackHost* CTrackImpl::copySourceHost() const { return copySource_ ? copySource_->host_ : nullptr; }

MP4Err CTrackImpl::startRunCopy(CCopiedMediaSink* sink, bool sourceChunks) {
    if (!sink) return MP4_ERR_INVALID_ARGUMENT;
    if (!open_ || !writing_ || finalized_ || !copySource_ || !stbl_ || runCopy_ ||
        lastCopied_ != 0 || timeTable_->sampleCount != 0 || pendingCount_ != 0 || auxInfo_ ||
        host_->fragmentSamples() || holdsAuxiliaryInformation(stbl_)) {
        return kNotByRuns;
    }
    uint64_t length = 0;
    if (!copySource_->host_->storageLength(&length)) return kNotByRuns;
    std::unique_ptr<RunCopy, RunCopyDeleter> run(new (std::nothrow) RunCopy(*copySource_));
    if (!run) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = run->walk.checkTables(&run->count);
    if (err == MP4_OK) err = checkRunCopySamples(run->count, length);
    if (err != MP4_OK) return err;
    (void)copySource_->getTimeScale(&run->timeScale);
    run->delay = copySource_->initialDelay_;
    run->sink = sink;
    run->sourceChunks = sourceChunks;
    if (run->count > 0 && (err = run->walk.next(&run->next)) != MP4_OK) return err;
    runCopy_ = std::move(run);
    return MP4_OK;
}

// Every sample of tables checkTables passed has bytes, all within the
// source file: a sample that could not be read would be left out.
MP4Err CTrackImpl::checkRunCopySamples(uint32_t count, uint64_t fileLength) {
    TableWalk walk(*copySource_);
    WalkedSample s;
    for (uint32_t i = 0; i < count; ++i) {
        if (walk.next(&s) != MP4_OK || s.size == 0 || s.offset > fileLength ||
            s.size > fileLength - s.offset) {
            return kNotByRuns;
        }
    }
    return MP4_OK;
}

bool CTrackImpl::runCopyDone() const { return !runCopy_ || lastCopied_ >= runCopy_->count; }

uint64_t CTrackImpl::runCopyNextDecode() const {
    return runCopy_ ? runCopy_->next.decode + runCopy_->delay : 0;
}

uint32_t CTrackImpl::runCopyTimeScale() const { return runCopy_ ? runCopy_->timeScale : 1; }

uint64_t CTrackImpl::runCopyNextOffset() const { return runCopy_ ? runCopy_->next.offset : 0; }

// copySampleFrom without reading: the same table entries and chunk
// boundaries, the bytes named as a range of the source.
MP4Err CTrackImpl::copyNextRunSample(uint32_t* size) {
    *size = 0;
    if (runCopyDone()) return MP4_ERR_NOT_AVAILABLE;
    RunCopy& run = *runCopy_;
    const WalkedSample s = run.next;
    StoredTiming timing;
    timing.decode = s.decode;
    timing.offset = s.composition;
    timing.sync = s.sync;
    timing.description = s.description;
    timing.firstStored = lastCopied_ + 1;
    MP4Err err = MP4_OK;
    if (pendingCount_ > 0 && timing.description != pendingDescription_ &&
        (err = flushChunk()) != MP4_OK) {
        return err;
    }
    if ((err = addCopiedTimes(timing, copySource_, s.size)) != MP4_OK) return err;
    if (!run.pending.empty() && run.pending.back().offset + run.pending.back().size == s.offset) {
        run.pending.back().size += s.size;
    } else {
        try {
            run.pending.push_back(SourceRange{s.offset, s.size});
        } catch (const std::bad_alloc&) {
            return MP4_ERR_OUT_OF_MEMORY;
        }
    }
    pendingDescription_ = timing.description;
    pendingBytes_ += s.size;
    pendingCount_ += 1;
    lastCopied_ += 1;
    totalBytes_ += s.size;
    *size = s.size;
    if (lastCopied_ < run.count && (err = run.walk.next(&run.next)) != MP4_OK) return err;
    if (!run.sourceChunks) return chunkAfterAppend(timing.decode);
    // The source's chunk ends here: so does this one, whatever the limits.
    return lastCopied_ == run.count || run.next.opensChunk ? flushChunk() : MP4_OK;
}

MP4Err CTrackImpl::writeCopiedChunk(uint64_t* offset) {
    RunCopy& run = *runCopy_;
    for (size_t i = 0; i < run.pending.size(); ++i) {
        uint64_t at = 0;
        MP4Err err = run.sink->appendCopiedBytes(run.pending[i].offset, run.pending[i].size, &at);
        if (err != MP4_OK) return err;
        if (i == 0) *offset = at;
    }
    run.pending.clear();
    return MP4_OK;
}

MP4Err CTrackImpl::endRunCopy() {
    if (!runCopy_) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = pendingCount_ > 0 ? flushChunk() : MP4_OK;
    if (err != MP4_OK) return err;
    // The last sample keeps its duration, as copySampleFrom records it.
    if (lastCopied_ > 0) lastDuration_ = copySource_->storedDuration(lastCopied_);
    runCopy_.reset();
    return MP4_OK;
}

void CTrackImpl::abandonRunCopy() {
    if (!runCopy_) return;
    runCopy_.reset();
    pendingBytes_ = 0;
    pendingCount_ = 0;
}

}  // namespace quil
