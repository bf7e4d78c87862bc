#include "SampleIndex.h"

#include <algorithm>
#include <new>

#include "boxes/Box.h"
#include "boxes/FragmentBoxes.h"

namespace quil {

MP4Err CSampleIndex::previousSync(uint32_t sample, uint32_t* sync) const {
    uint32_t local = 0;
    if (sourceOf(sample, &local) == fragments_ && fragments_) {
        MP4Err err = fragments_->previousSync(local, sync);
        if (err == MP4_OK) *sync += movieCount_;
        if (err != MP4_ERR_NOT_AVAILABLE || movieCount_ == 0) return err;
        sample = movieCount_;  // none in the fragments: go on in the movie's samples
    }
    return movie_ ? movie_->previousSync(sample, sync) : MP4_ERR_NOT_AVAILABLE;
}

// ---- gathering the runs -------------------------------------------------------

struct CFragmentSamples::Defaults {
    uint32_t descriptionIndex = 1;
    uint32_t duration = 0;
    uint32_t size = 0;
    uint32_t flags = 0;
};

namespace {

// The first child of that type as its class, or null (also for a child
// whose reader failed: its fields cannot be trusted).
template <class T>
T* childOf(CBox* parent, uint32_t type) {
    CBox* box = nullptr;
    if (parent->findChild(type, &box) != MP4_OK || box->writesAsRead()) return nullptr;
    return dynamic_cast<T*>(box);
}

uint64_t runBytes(const CTrackRunBox& trun, uint32_t defaultSize) {
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < trun.sampleCount; ++i) bytes += trun.sampleSize(i, defaultSize);
    return bytes;
}

// Where a run's data starts: its own offset from the fragment's base, or
// right after the previous run's data. False when that is not known or the
// offset points before the file.
bool runStart(const CTrackRunBox& trun, uint64_t base, uint64_t previousEnd, bool endKnown,
              uint64_t* start) {
    if (!(trun.flags & CTrackRunBox::kDataOffset)) {
        *start = previousEnd;
        return endKnown;
    }
    if (trun.dataOffset < 0 && static_cast<uint64_t>(-static_cast<int64_t>(trun.dataOffset)) > base) {
        return false;
    }
    *start = base + static_cast<uint64_t>(static_cast<int64_t>(trun.dataOffset));
    return true;
}

// The end of a track fragment's data, for a following fragment that
// starts where it ends. False when a damaged run leaves it unknown.
bool trafDataEnd(CBox* traf, uint64_t base, uint32_t defaultSize, uint64_t* end) {
    CBoxList* list = traf->childList();
    *end = base;
    for (CBoxList::Node* n = list ? list->head() : nullptr; n; n = n->next) {
        if (n->box->type != fourcc("trun")) continue;
        auto* trun = dynamic_cast<CTrackRunBox*>(n->box);
        uint64_t start = 0;
        if (!trun || trun->writesAsRead() || !runStart(*trun, base, *end, true, &start)) return false;
        *end = start + runBytes(*trun, defaultSize);
    }
    return true;
}

}  // namespace

MP4Err CFragmentSamples::build(CBoxList* topLevel, CBox* mvex, const FragmentTrackInfo& info,
                               FragmentTimeSink sink, void* context) {
    runs_.clear();
    count_ = fragments_ = 0;
    endTime_ = 0;
    cursorRun_ = cursorSample_ = 0;
    cursorOffset_ = 0;
    Defaults trex;
    CBoxList* extends = mvex ? mvex->childList() : nullptr;
    for (CBoxList::Node* n = extends ? extends->head() : nullptr; n; n = n->next) {
        auto* box = dynamic_cast<CTrackExtendsBox*>(n->box);
        if (!box || box->writesAsRead() || box->trackId != info.trackId) continue;
        trex = Defaults{box->defaultSampleDescriptionIndex, box->defaultSampleDuration,
                        box->defaultSampleSize, box->defaultSampleFlags};
        break;
    }
    uint64_t nextDecode = info.firstDecodeTime;
    try {
        for (CBoxList::Node* n = topLevel ? topLevel->head() : nullptr; n; n = n->next) {
            if (n->box->type != fourcc("moof")) continue;
            MP4Err err = addFragment(n->box, trex, info, sink, context, &nextDecode);
            if (err != MP4_OK) return err;
        }
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    endTime_ = std::max(endTime_, nextDecode);
    return MP4_OK;
}

// One movie fragment: the data of its track fragments follows from the
// fragment's own offsets (ISO/IEC 14496-12 §8.8.7): an explicit base, the
// start of "moof" (default-base-is-moof, and for the first track fragment),
// or the end of the preceding track fragment's data.
MP4Err CFragmentSamples::addFragment(CBox* moof, const Defaults& trex, const FragmentTrackInfo& info,
                                     FragmentTimeSink sink, void* context, uint64_t* nextDecode) {
    auto* fragment = dynamic_cast<CMovieFragmentBox*>(moof);
    CBoxList* list = moof->childList();
    if (!fragment || !list) return MP4_OK;
    const uint32_t countBefore = count_;
    uint64_t previousEnd = fragment->boxOffset;
    bool previousKnown = true;
    CBox* pending = nullptr;  // a track fragment of another track whose end is not summed yet
    uint64_t pendingBase = 0;
    uint32_t pendingSize = 0;
    for (CBoxList::Node* n = list->head(); n; n = n->next) {
        CBox* traf = n->box;
        if (traf->type != fourcc("traf")) continue;
        auto* tfhd = childOf<CTrackFragmentHeaderBox>(traf, fourcc("tfhd"));
        if (!tfhd) {
            pending = nullptr;
            previousKnown = false;
            continue;
        }
        const uint32_t flags = tfhd->flags;
        const bool ownBase = (flags & (CTrackFragmentHeaderBox::kBaseDataOffset |
                                       CTrackFragmentHeaderBox::kDefaultBaseIsMoof)) != 0;
        if (pending && !ownBase) {
            previousKnown = trafDataEnd(pending, pendingBase, pendingSize, &previousEnd);
        }
        pending = nullptr;
        const uint32_t defaultSize = (flags & CTrackFragmentHeaderBox::kDefaultSize) ? tfhd->defaultSampleSize : trex.size;
        uint64_t base = previousEnd;
        bool baseKnown = previousKnown;
        if (flags & CTrackFragmentHeaderBox::kBaseDataOffset) {
            base = tfhd->baseDataOffset;
            baseKnown = true;
        } else if (flags & CTrackFragmentHeaderBox::kDefaultBaseIsMoof) {
            base = fragment->boxOffset;
            baseKnown = true;
        }
        if (tfhd->trackId != info.trackId) {
            // Another track (or one the movie does not have): only its end
            // may matter, and only to a following track fragment.
            pending = baseKnown ? traf : nullptr;
            pendingBase = base;
            pendingSize = defaultSize;
            previousKnown = baseKnown;
            continue;
        }
        Run run{nullptr, 0, 0, 0, defaultSize,
                (flags & CTrackFragmentHeaderBox::kDefaultFlags) ? tfhd->defaultSampleFlags : trex.flags,
                (flags & CTrackFragmentHeaderBox::kDescriptionIndex) ? tfhd->sampleDescriptionIndex
                                                                     : trex.descriptionIndex};
        const uint32_t duration = (flags & CTrackFragmentHeaderBox::kDefaultDuration) ? tfhd->defaultSampleDuration : trex.duration;
        if (auto* tfdt = childOf<CTrackFragmentDecodeTimeBox>(traf, fourcc("tfdt"))) {
            *nextDecode = tfdt->baseMediaDecodeTime;
        }
        uint64_t end = base;
        bool endKnown = baseKnown;
        for (CBoxList::Node* r = traf->childList()->head(); r; r = r->next) {
            if (r->box->type != fourcc("trun")) continue;
            auto* trun = dynamic_cast<CTrackRunBox*>(r->box);
            // A damaged run ends the samples of this track fragment.
            if (!trun || trun->writesAsRead() || !runStart(*trun, base, end, endKnown, &run.dataOffset)) {
                endKnown = false;
                break;
            }
            // Track-wide numbers stay 32-bit: runs beyond that are not listed.
            if (trun->sampleCount > UINT32_MAX - 1 - count_) break;
            run.trun = trun;
            run.bytes = runBytes(*trun, defaultSize);
            run.firstSample = count_ + 1;
            for (uint32_t i = 0; i < trun->sampleCount; ++i) {
                const int64_t offset = trun->compositionOffset(i);
                MP4Err err = sink(context, *nextDecode + info.timeOffset, offset);
                if (err != MP4_OK) return err;
                const uint64_t sampleDuration = trun->duration(i, duration);
                const int64_t presentedEnd = static_cast<int64_t>(*nextDecode + sampleDuration) + offset;
                if (presentedEnd > 0) endTime_ = std::max(endTime_, static_cast<uint64_t>(presentedEnd));
                *nextDecode += sampleDuration;
            }
            if (trun->sampleCount > 0) runs_.push_back(run);
            count_ += trun->sampleCount;
            end = run.dataOffset + run.bytes;
        }
        previousEnd = end;
        previousKnown = endKnown;
    }
    if (count_ > countBefore) ++fragments_;
    return MP4_OK;
}

// ---- answers --------------------------------------------------------------

MP4Err CFragmentSamples::find(uint32_t sample, const Run** run, uint32_t* inRun) {
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    if (sample > count_) return MP4_ERR_NOT_AVAILABLE;
    // The cursor's run, or a binary search over the runs' first samples.
    if (cursorRun_ >= runs_.size() || sample < runs_[cursorRun_].firstSample ||
        sample - runs_[cursorRun_].firstSample >= runs_[cursorRun_].trun->sampleCount) {
        auto after = std::upper_bound(runs_.begin(), runs_.end(), sample,
                                      [](uint32_t s, const Run& r) { return s < r.firstSample; });
        cursorRun_ = static_cast<uint32_t>(after - runs_.begin()) - 1;
        cursorSample_ = 0;
        cursorOffset_ = 0;
    }
    *run = &runs_[cursorRun_];
    *inRun = sample - (*run)->firstSample;
    return MP4_OK;
}

uint32_t CFragmentSamples::flagsOf(const Run& run, uint32_t inRun) const {
    if (inRun == 0 && (run.trun->flags & CTrackRunBox::kFirstSampleFlags)) {
        return run.trun->firstSampleFlags;
    }
    return run.trun->sampleFlags(inRun, run.defaultFlags);
}

MP4Err CFragmentSamples::sampleSize(uint32_t sample, uint32_t* size) {
    const Run* run = nullptr;
    uint32_t i = 0;
    MP4Err err = find(sample, &run, &i);
    if (err == MP4_OK) *size = run->trun->sampleSize(i, run->defaultSize);
    return err;
}

// Offsets are sums of the sizes before the sample in its run; walking in
// sample order resumes from the last answer, so each costs one step.
MP4Err CFragmentSamples::sampleOffset(uint32_t sample, uint32_t, uint64_t* offset,
                                      uint64_t* readAheadEnd) {
    const Run* run = nullptr;
    uint32_t i = 0;
    MP4Err err = find(sample, &run, &i);
    if (err != MP4_OK) return err;
    if (i < cursorSample_) {
        cursorSample_ = 0;
        cursorOffset_ = 0;
    }
    for (; cursorSample_ < i; ++cursorSample_) {
        cursorOffset_ += run->trun->sampleSize(cursorSample_, run->defaultSize);
    }
    *offset = run->dataOffset + cursorOffset_;
    if (readAheadEnd) *readAheadEnd = run->dataOffset + run->bytes;
    return MP4_OK;
}

MP4Err CFragmentSamples::isSync(uint32_t sample, uint32_t* sync) {
    const Run* run = nullptr;
    uint32_t i = 0;
    MP4Err err = find(sample, &run, &i);
    if (err == MP4_OK) *sync = (flagsOf(*run, i) & kNonSync) ? 0 : 1;
    return err;
}

MP4Err CFragmentSamples::descriptionIndex(uint32_t sample, uint32_t* index) {
    const Run* run = nullptr;
    uint32_t i = 0;
    MP4Err err = find(sample, &run, &i);
    if (err == MP4_OK) *index = run->descriptionIndex;
    return err;
}

MP4Err CFragmentSamples::previousSync(uint32_t sample, uint32_t* sync) {
    if (sample == 0) return MP4_ERR_NOT_AVAILABLE;
    if (sample > count_) sample = count_;
    for (; sample >= 1; --sample) {
        uint32_t isSyncSample = 0;
        MP4Err err = isSync(sample, &isSyncSample);
        if (err != MP4_OK) return err;
        if (isSyncSample) {
            *sync = sample;
            return MP4_OK;
        }
    }
    return MP4_ERR_NOT_AVAILABLE;
}

}  // namespace quil
