// The sample index's times: decode and composition time of every sample of
// a track, held as the runs they are, so that a track costs about what its
// tables cost. Decode times are runs of equal steps (as "stts" stores
// them); composition times are runs of equal offsets from the decode time
// (as "ctts" stores them), or a byte per sample naming one of a few offsets
// where they change at nearly every sample (B-frames). Composition times
// no 32-bit offset reaches (the clamp of negative offsets can give those)
// are kept one by one. Times are expanded on demand; the searches answer in
// logarithmic time over the runs and over per-block maxima of the
// composition times (3 bytes a sample), built on the first search.
#ifndef QUIL_TRACK_SAMPLETIMES_H
#define QUIL_TRACK_SAMPLETIMES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "quil/MP4Err.h"

namespace quil {

class CSampleTimes {
public:
    // Room for that many runs and samples ahead of appending (the tables'
    // entry counts), before the first append: the runs then never move
    // while they grow.
    MP4Err reserve(size_t decodeRuns, size_t offsetRuns, size_t samples);
    // Adds sample count() + 1. 1 when memory runs out.
    MP4Err append(uint64_t decode, uint64_t composition);
    // Adds count samples decoded step apart from decode, each presented
    // offset after its decode time: what count appends would give, at the
    // cost of one ("stts" and "ctts" entries are such runs already).
    MP4Err appendRun(uint64_t decode, uint32_t step, uint32_t count, int32_t offset);
    // appendRun for the common case of B-frames, inline: samples that
    // continue the last decode run at its step, at an offset named lately.
    // false, nothing added, where appendRun must take them.
    bool appendToDenseRun(uint64_t decode, uint32_t step, uint32_t count, int32_t offset) {
        const uint16_t recent = recentCodes_[recentSlot(offset)];
        if (recent == 0 || palette_[recent - 1u] != offset || !hasRoomFor(count) ||
            !continuesDenseAppend(decode, step)) {
            return false;
        }
        addCodes(decode, step, count, static_cast<uint8_t>(recent - 1u));
        return true;
    }
    // appendToDenseRun for consecutive groups given as entries with
    // sampleCount and sampleOffset fields (as "ctts" stores them), the
    // first decoded at decode: the entries are taken in turn while each
    // would be taken so (1 or more samples, an offset not negative and
    // named lately), up to limit samples in all. Returns the entries
    // taken; *samples: their samples. The bookkeeping is done once.
    template <class Entry>
    uint32_t appendDenseEntries(uint64_t decode, uint32_t step, const Entry* entries, uint32_t n,
                                uint32_t limit, uint32_t* samples) {
        *samples = 0;
        if (!continuesDenseAppend(decode, step)) return 0;
        const uint64_t room = std::min<uint64_t>(codes_.capacity() - codes_.size(), UINT32_MAX - count_);
        if (room < limit) limit = static_cast<uint32_t>(room);
        uint32_t taken = 0, total = 0;
        for (; taken < n; ++taken) {
            const uint32_t count = entries[taken].sampleCount;
            const uint32_t stored = entries[taken].sampleOffset;
            if (count == 0 || count > limit - total || stored >= 0x80000000u) break;
            const auto offset = static_cast<int32_t>(stored);
            const uint16_t recent = recentCodes_[recentSlot(offset)];
            if (recent == 0 || palette_[recent - 1u] != offset) break;
            for (uint32_t i = 0; i < count; ++i) codes_.push_back(static_cast<uint8_t>(recent - 1u));
            total += count;
        }
        if (total != 0) settleCodes(decode, step, total);
        *samples = total;
        return taken;
    }
    uint32_t count() const { return count_; }
    // Times of a sample in 1..count(). Samples are mostly asked for in
    // order: a sample in the run of the last answer is answered here from
    // a copy of that run, without a search.
    uint64_t decodeTime(uint32_t sample) const {
        uint64_t time = 0;
        return decodeAtHand(sample, &time) ? time : searchDecodeTime(sample);
    }
    uint64_t compositionTime(uint32_t sample) const {
        uint64_t time = 0;
        return compositionAtHand(sample, &time) ? time : searchCompositionTime(sample);
    }
    // The times above where the copies of the last runs answer them (and
    // the composition offsets need no search): false, *time unchanged,
    // where a search is needed.
    bool decodeAtHand(uint32_t sample, uint64_t* time) const {
        const uint32_t inRun = sample - hotDecode_.first;
        if (inRun >= hotDecode_.count) return false;
        *time = hotDecode_.start + static_cast<uint64_t>(inRun) * hotDecode_.step;
        return true;
    }
    bool compositionAtHand(uint32_t sample, uint64_t* time) const {
        if (!outliers_.empty()) return false;
        int32_t offset = 0;
        if (dense_) {
            offset = palette_[codes_[sample - 1]];
        } else if (sample - hotOffset_.first < hotOffset_.count) {
            offset = hotOffset_.offset;
        } else {
            return false;
        }
        uint64_t decode = 0;
        if (!decodeAtHand(sample, &decode)) return false;
        *time = decode + static_cast<uint64_t>(static_cast<int64_t>(offset));
        return true;
    }

    // The first sample at or after from whose decode time is at least
    // time; 0 when there is none.
    uint32_t firstDecodedAtOrAfter(uint32_t from, uint64_t time) const;
    // The track's composition-time search: the samples are walked from the
    // first, the first one presented after time is stepped over and the
    // second ends the walk; the answer is the first sample with the latest
    // composition time met that is not after time (sample 1 when the first
    // sample is presented after time). count() must be at least 1.
    uint32_t latestPresentedBy(uint64_t time) const;

private:
    struct DecodeRun {
        uint32_t first;  // sample
        uint32_t step;
        uint64_t start;  // decode time of the first sample
    };
    struct OffsetRun {
        uint32_t first;  // sample
        int32_t offset;  // composition minus decode time
    };
    struct Outlier {
        uint32_t sample;
        uint64_t composition;
    };
    static constexpr uint32_t kBlockShift = 3;  // 8 samples per block
    static constexpr uint32_t kGroupShift = 6;  // 64 blocks per group
    static constexpr size_t kGallopLimit = 16;  // runs stepped before halving

    uint64_t searchDecodeTime(uint32_t sample) const;
    uint64_t searchCompositionTime(uint32_t sample) const;
    template <class Run>
    static size_t runOf(const std::vector<Run>& runs, uint32_t sample, size_t* cursor);
    uint64_t runLastDecode(size_t run) const;
    uint32_t firstDecodedAtLeast(uint64_t time) const;
    bool codeOf(int32_t offset, uint8_t* code);
    static uint32_t recentSlot(int32_t offset) {
        return (static_cast<uint32_t>(offset) * 0x9E3779B1u) >> 28;
    }
    // Whether count more samples can be numbered and their codes fit in
    // the room reserved (none outside the dense form).
    bool hasRoomFor(uint32_t count) const {
        return count != 0 && count <= UINT32_MAX - count_ && count <= codes_.capacity() - codes_.size();
    }
    // Whether samples from decode on continue the last decode run at its
    // step, in the dense form.
    bool continuesDenseRun(uint64_t decode, uint32_t step) const {
        if (!dense_ || decodeRuns_.empty()) return false;
        const DecodeRun& run = decodeRuns_.back();
        const uint64_t inRun = uint64_t{count_} + 1 - run.first;
        return inRun > 1 && run.step == step && decode == run.start + inRun * run.step;
    }
    // The same, known at once right after a dense append (the run then
    // continues at the next decode time).
    bool continuesDenseAppend(uint64_t decode, uint32_t step) const {
        if (denseCount_ != 0 && denseCount_ == count_) return decode == denseNext_ && step == denseStep_;
        return continuesDenseRun(decode, step);
    }
    // What appending those samples one by one would leave: the runs as
    // they are, a code per sample (within the room reserved, so nothing
    // can fail), the count and the last decode time.
    void addCodes(uint64_t decode, uint32_t step, uint32_t count, uint8_t code) {
        for (uint32_t i = 0; i < count; ++i) codes_.push_back(code);
        settleCodes(decode, step, count);
    }
    // The rest of appending count samples by their codes alone.
    void settleCodes(uint64_t decode, uint32_t step, uint32_t count) {
        forgetHotRuns();
        // The last time passes 64 bits where the sum wraps.
        const uint64_t last = decode + static_cast<uint64_t>(count - 1) * step;
        if ((count_ > 0 && decode < lastDecode_) || last < decode) decodeAscends_ = false;
        lastDecode_ = last;
        count_ += count;
        denseNext_ = last + step;
        denseStep_ = step;
        denseCount_ = count_;
        if (!blockMax_.empty()) dropBlocks();
    }
    void leaveDense();
    uint32_t linearDecodedAtOrAfter(uint32_t from, uint64_t time) const;
    uint32_t linearLatestPresentedBy(uint64_t time) const;
    bool buildBlocks() const;
    void dropBlocks() const;
    uint32_t blockEnd(uint32_t block) const;
    void enterBlock(uint32_t block) const;
    size_t firstBlockAbove(size_t fromBlock, uint64_t time) const;
    uint32_t firstAbove(uint32_t from, uint64_t time) const;
    uint64_t largestIn(uint32_t from, uint32_t to) const;
    uint32_t firstReaching(uint32_t from, uint64_t value) const;

    std::vector<DecodeRun> decodeRuns_;
    std::vector<OffsetRun> offsetRuns_;
    std::vector<Outlier> outliers_;
    // Dense offsets: a byte per sample naming one of palette_.
    bool dense_ = false;
    std::vector<uint8_t> codes_;
    std::vector<int32_t> palette_;
    // Where each of a few recent offsets sits in palette_ (plus one; 0:
    // none), by a hash of the offset: B-frame offsets cycle through a few
    // values, each entry of "ctts" differing from the one before.
    uint16_t recentCodes_[16] = {};
    uint32_t count_ = 0;
    uint64_t lastDecode_ = 0;
    bool decodeAscends_ = true;
    // Runs of the last lookups: samples are mostly asked for in order.
    mutable size_t decodeCursor_ = 0;
    mutable size_t offsetCursor_ = 0;
    // Copies of the runs of the last answers, with their sample counts
    // (0: none); emptied whenever samples are added.
    struct HotDecodeRun {
        uint64_t start = 0;
        uint32_t first = 0;
        uint32_t count = 0;
        uint32_t step = 0;
    };
    struct HotOffsetRun {
        uint32_t first = 0;
        uint32_t count = 0;
        int32_t offset = 0;
    };
    mutable HotDecodeRun hotDecode_;
    mutable HotOffsetRun hotOffset_;
    // Where a dense append continuing the last one starts: its decode time
    // and step, while the count is still denseCount_ (0: no such append).
    uint64_t denseNext_ = 0;
    uint32_t denseStep_ = 0;
    uint32_t denseCount_ = 0;
    void forgetHotRuns() {
        hotDecode_.count = 0;
        hotOffset_.count = 0;
    }
    template <class Run>
    uint32_t samplesOfRun(const std::vector<Run>& runs, size_t run) const;
    // Largest composition time of each block of samples and of all blocks
    // up to it; empty until the first composition search.
    mutable std::vector<uint64_t> blockMax_;
    mutable std::vector<uint64_t> prefixMax_;
    // The runs holding each block's first sample.
    struct BlockRuns {
        uint32_t decode = 0;
        uint32_t offset = 0;
    };
    mutable std::vector<BlockRuns> blockRuns_;
    // The running maximum at the end of each group of blocks.
    mutable std::vector<uint64_t> groupMax_;
};

}  // namespace quil

#endif
