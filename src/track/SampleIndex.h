// The sample index: every sample question of a track goes through one
// interface, whatever holds the sample. A track's samples are those of its
// movie sample tables followed by those of its track fragments in file
// order; each range is answered by its own source. Times are kept apart in
// the track's time table (a compact form can replace it behind the index
// without touching the sources).
#ifndef QUIL_TRACK_SAMPLEINDEX_H
#define QUIL_TRACK_SAMPLEINDEX_H

#include <cstdint>
#include <vector>

#include "quil/MP4Err.h"
#include "boxes/DataList.h"
#include "track/SampleTables.h"

namespace quil {

class CBox;
class CBoxList;
class CTrackRunBox;

// One range of a track's samples. Sample numbers are 1-based within the
// source.
class CSampleSource {
public:
    virtual ~CSampleSource() = default;
    virtual MP4Err sampleSize(uint32_t sample, uint32_t* size) = 0;
    // File offset of a sample whose size is known, and where the bytes a
    // read may fetch ahead end (its chunk or run; 0 when unknown).
    virtual MP4Err sampleOffset(uint32_t sample, uint32_t size, uint64_t* offset,
                                uint64_t* readAheadEnd) = 0;
    virtual MP4Err isSync(uint32_t sample, uint32_t* sync) = 0;
    virtual MP4Err descriptionIndex(uint32_t sample, uint32_t* index) = 0;
    // The last sync sample at or before sample: 3 when there is none.
    virtual MP4Err previousSync(uint32_t sample, uint32_t* sync) = 0;
};

// Which source answers for a track-wide sample number: the movie's tables
// for the first movieCount samples, the fragments after them.
class CSampleIndex {
public:
    void setSources(CSampleSource* movie, uint32_t movieCount, CSampleSource* fragments) {
        movie_ = movie;
        movieCount_ = movieCount;
        fragments_ = fragments;
    }
    bool hasFragments() const { return fragments_ != nullptr; }
    uint32_t movieCount() const { return movieCount_; }
    // The source of a sample (1-based, track-wide) and its number there.
    CSampleSource* sourceOf(uint32_t sample, uint32_t* local) const {
        if (fragments_ && sample > movieCount_) {
            *local = sample - movieCount_;
            return fragments_;
        }
        *local = sample;
        return movie_;
    }
    // The last sync sample at or before sample across both sources.
    MP4Err previousSync(uint32_t sample, uint32_t* sync) const;

private:
    CSampleSource* movie_ = nullptr;
    CSampleSource* fragments_ = nullptr;
    uint32_t movieCount_ = 0;
};

// What the track knows when its fragments are gathered.
struct FragmentTrackInfo {
    uint32_t trackId = 0;
    uint64_t firstDecodeTime = 0;  // where the movie's samples end
    uint64_t timeOffset = 0;       // added to every decode time (edit-list delay)
};

// Decode and composition time of one sample, as the time table holds them.
using FragmentTimeSink = MP4Err (*)(void* context, uint64_t decode, int64_t compositionOffset);

// The samples of one track's fragments: every run ("trun") of every track
// fragment of that track ID, in file order. Runs point into the file's box
// tree (which outlives the track), so a sample costs only what its run
// stores plus its times.
class CFragmentSamples final : public CSampleSource {
public:
    // Gathers the runs of the track from the file-level boxes. mvex holds
    // the track's defaults ("trex"). Each sample's times go to the sink in
    // sample order. A damaged track fragment ends that fragment's samples
    // for the track; later fragments are read as usual.
    MP4Err build(CBoxList* topLevel, CBox* mvex, const FragmentTrackInfo& info,
                 FragmentTimeSink sink, void* context);
    uint32_t sampleCount() const { return count_; }
    // Movie fragments holding at least one sample of the track.
    uint32_t fragmentCount() const { return fragments_; }
    // Where the last presented sample ends: the latest composition time
    // plus duration (without the time offset).
    uint64_t endTime() const { return endTime_; }

    MP4Err sampleSize(uint32_t sample, uint32_t* size) override;
    MP4Err sampleOffset(uint32_t sample, uint32_t size, uint64_t* offset,
                        uint64_t* readAheadEnd) override;
    MP4Err isSync(uint32_t sample, uint32_t* sync) override;
    MP4Err descriptionIndex(uint32_t sample, uint32_t* index) override;
    MP4Err previousSync(uint32_t sample, uint32_t* sync) override;

    // Sample flags bit: not a sync sample (ISO/IEC 14496-12 §8.8.3.1).
    static constexpr uint32_t kNonSync = 0x00010000;

private:
    struct Run {
        const CTrackRunBox* trun;
        uint64_t dataOffset;  // file offset of the run's first sample
        uint64_t bytes;       // of all its samples
        uint32_t firstSample;  // 1-based, in this source
        uint32_t defaultSize;
        uint32_t defaultFlags;
        uint32_t descriptionIndex;
    };
    struct Defaults;
    MP4Err addFragment(CBox* moof, const Defaults& trex, const FragmentTrackInfo& info,
                       FragmentTimeSink sink, void* context, uint64_t* nextDecode);
    MP4Err find(uint32_t sample, const Run** run, uint32_t* inRun);
    uint32_t flagsOf(const Run& run, uint32_t inRun) const;

    std::vector<Run> runs_;
    uint32_t count_ = 0;
    uint32_t fragments_ = 0;
    uint64_t endTime_ = 0;
    // Samples are usually asked for in order: the run of the last answer,
    // and the sample reached in it with its offset from the run's start.
    uint32_t cursorRun_ = 0;
    uint32_t cursorSample_ = 0;
    uint64_t cursorOffset_ = 0;
};

}  // namespace quil

#endif
