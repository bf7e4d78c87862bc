#include "SampleTimes.h"

#include <algorithm>
#include <new>

namespace quil {

MP4Err CSampleTimes::reserve(size_t decodeRuns, size_t offsetRuns, size_t samples) {
    // Offsets that change nearly every sample (B-frames) cost less as a
    // byte per sample naming one of the few distinct offsets.
    dense_ = offsetRuns > samples / 4;
    try {
        decodeRuns_.reserve(decodeRuns);
        if (dense_) {
            codes_.reserve(samples);
        } else {
            offsetRuns_.reserve(offsetRuns);
        }
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

// The byte naming an offset, a new one while there is room; false when
// 256 distinct offsets are named already.
bool CSampleTimes::codeOf(int32_t offset, uint8_t* code) {
    uint16_t& recent = recentCodes_[recentSlot(offset)];
    if (recent != 0 && palette_[recent - 1u] == offset) {
        *code = static_cast<uint8_t>(recent - 1u);
        return true;
    }
    size_t i = 0;
    while (i < palette_.size() && palette_[i] != offset) ++i;
    if (i == palette_.size()) {
        if (palette_.size() > UINT8_MAX) return false;
        palette_.push_back(offset);
    }
    *code = static_cast<uint8_t>(i);
    recent = static_cast<uint16_t>(i + 1);
    return true;
}

// Too many distinct offsets for a byte: back to runs.
void CSampleTimes::leaveDense() {
    for (uint32_t s = 1; s <= codes_.size(); ++s) {
        const int32_t offset = palette_[codes_[s - 1]];
        if (offsetRuns_.empty() || offsetRuns_.back().offset != offset) {
            offsetRuns_.push_back(OffsetRun{s, offset});
        }
    }
    std::vector<uint8_t>().swap(codes_);
    dense_ = false;
}

MP4Err CSampleTimes::append(uint64_t decode, uint64_t composition) {
    forgetHotRuns();
    denseCount_ = 0;
    const uint32_t sample = count_ + 1;
    if (sample == 0) return MP4_ERR_INVALID_DATA;  // more samples than can be numbered
    try {
        bool continues = false;
        if (!decodeRuns_.empty()) {
            DecodeRun& run = decodeRuns_.back();
            const uint64_t inRun = sample - run.first;
            if (inRun == 1 && decode >= run.start && decode - run.start <= UINT32_MAX) {
                run.step = static_cast<uint32_t>(decode - run.start);
                continues = true;
            } else {
                continues = inRun > 1 && decode == run.start + inRun * run.step;
            }
        }
        if (!continues) decodeRuns_.push_back(DecodeRun{sample, 0, decode});
        const int64_t offset = static_cast<int64_t>(composition - decode);
        const bool outlier = offset < INT32_MIN || offset > INT32_MAX;
        uint8_t code = 0;
        if (dense_ && !codeOf(outlier ? 0 : static_cast<int32_t>(offset), &code)) leaveDense();
        if (dense_) {
            codes_.push_back(code);
            if (outlier) outliers_.push_back(Outlier{sample, composition});
        } else if (outlier) {
            outliers_.push_back(Outlier{sample, composition});
            if (offsetRuns_.empty()) offsetRuns_.push_back(OffsetRun{sample, 0});
        } else if (offsetRuns_.empty() || offsetRuns_.back().offset != offset) {
            offsetRuns_.push_back(OffsetRun{sample, static_cast<int32_t>(offset)});
        }
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    if (count_ > 0 && decode < lastDecode_) decodeAscends_ = false;
    lastDecode_ = decode;
    count_ = sample;
    dropBlocks();
    return MP4_OK;
}

MP4Err CSampleTimes::appendRun(uint64_t decode, uint32_t step, uint32_t count, int32_t offset) {
    if (count == 0) return MP4_OK;
    if (count > UINT32_MAX - count_) return MP4_ERR_INVALID_DATA;  // more than can be numbered
    uint8_t code = 0;
    if (hasRoomFor(count) && continuesDenseRun(decode, step) && codeOf(offset, &code)) {
        addCodes(decode, step, count, code);
        return MP4_OK;
    }
    MP4Err err = append(decode, decode + static_cast<uint64_t>(static_cast<int64_t>(offset)));
    if (err != MP4_OK || count == 1) return err;
    const uint32_t rest = count - 1;
    const uint32_t second = count_ + 1;
    const uint64_t next = decode + step;
    try {
        // The second sample joins the last run as append would take it;
        // every later one then follows at the same step.
        DecodeRun& run = decodeRuns_.back();
        const uint64_t inRun = second - run.first;
        if (inRun == 1) {
            run.step = step;
        } else if (next != run.start + inRun * run.step) {
            decodeRuns_.push_back(DecodeRun{second, step, next});
        }
        if (dense_) codes_.insert(codes_.end(), rest, codes_.back());
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    // Times past 64 bits wrap, as summing them one by one does; they then
    // no longer ascend.
    const unsigned __int128 last = decode + static_cast<unsigned __int128>(count - 1) * step;
    if (last > UINT64_MAX) decodeAscends_ = false;
    lastDecode_ = static_cast<uint64_t>(last);
    count_ += rest;
    return MP4_OK;
}

// The run holding a sample. Samples are mostly asked for in order or near
// the last one: the search gallops out from the cursor's run, then halves
// what it has bracketed.
template <class Run>
size_t CSampleTimes::runOf(const std::vector<Run>& runs, uint32_t sample, size_t* cursor) {
    // The run is the last one starting at or before sample: in [low, high).
    // Run 0 starts at sample 1, so a cursor past sample is never run 0.
    const size_t c = *cursor < runs.size() ? *cursor : 0;
    size_t low = c, high = c;
    if (runs[c].first <= sample) {
        size_t probe = c + 1;
        for (size_t step = 1; probe < runs.size() && runs[probe].first <= sample; step *= 2) {
            low = probe;
            // A far jump is halved over the rest at once.
            probe = step < kGallopLimit && low + step < runs.size() ? low + step : runs.size();
        }
        high = probe;
    } else {
        size_t probe = c - 1;
        for (size_t step = 1; probe > 0 && runs[probe].first > sample; step *= 2) {
            high = probe;
            probe = step < kGallopLimit && high > step ? high - step : 0;
        }
        low = probe;
    }
    auto after = std::upper_bound(runs.begin() + static_cast<long>(low), runs.begin() + static_cast<long>(high),
                                  sample, [](uint32_t s, const Run& run) { return s < run.first; });
    *cursor = static_cast<size_t>(after - runs.begin()) - 1;
    return *cursor;
}

// Samples of a run up to the last sample (none beyond: those are
// searched, which gives the last run's times continued).
template <class Run>
uint32_t CSampleTimes::samplesOfRun(const std::vector<Run>& runs, size_t run) const {
    const uint64_t end = run + 1 < runs.size() ? runs[run + 1].first : uint64_t{count_} + 1;
    const uint64_t count = end > runs[run].first ? end - runs[run].first : 0;
    return count < UINT32_MAX ? static_cast<uint32_t>(count) : UINT32_MAX;
}

uint64_t CSampleTimes::searchDecodeTime(uint32_t sample) const {
    const size_t index = runOf(decodeRuns_, sample, &decodeCursor_);
    const DecodeRun& run = decodeRuns_[index];
    hotDecode_ = HotDecodeRun{run.start, run.first, samplesOfRun(decodeRuns_, index), run.step};
    return run.start + static_cast<uint64_t>(sample - run.first) * run.step;
}

uint64_t CSampleTimes::searchCompositionTime(uint32_t sample) const {
    if (!outliers_.empty()) {
        auto it = std::lower_bound(outliers_.begin(), outliers_.end(), sample,
                                   [](const Outlier& o, uint32_t s) { return o.sample < s; });
        if (it != outliers_.end() && it->sample == sample) return it->composition;
    }
    if (dense_) return decodeTime(sample) + static_cast<uint64_t>(static_cast<int64_t>(palette_[codes_[sample - 1]]));
    if (!blockRuns_.empty()) {
        // After a jump the sample's block says where its runs are.
        const size_t c = offsetCursor_;
        const bool inRun = offsetRuns_[c].first <= sample &&
                           (c + 1 == offsetRuns_.size() || offsetRuns_[c + 1].first > sample);
        if (!inRun) enterBlock((sample - 1) >> kBlockShift);
    }
    const size_t index = runOf(offsetRuns_, sample, &offsetCursor_);
    const OffsetRun& run = offsetRuns_[index];
    hotOffset_ = HotOffsetRun{run.first, samplesOfRun(offsetRuns_, index), run.offset};
    return decodeTime(sample) + static_cast<uint64_t>(static_cast<int64_t>(run.offset));
}

// ---- decode-time search ---------------------------------------------------

uint64_t CSampleTimes::runLastDecode(size_t run) const {
    const uint32_t end = run + 1 < decodeRuns_.size() ? decodeRuns_[run + 1].first : count_ + 1;
    const DecodeRun& r = decodeRuns_[run];
    return r.start + static_cast<uint64_t>(end - 1 - r.first) * r.step;
}

// With decode times that never go back, the first sample reaching a time
// lies in the first run whose last sample reaches it.
uint32_t CSampleTimes::firstDecodedAtLeast(uint64_t time) const {
    size_t low = 0, high = decodeRuns_.size();
    while (low < high) {
        size_t middle = low + (high - low) / 2;
        if (runLastDecode(middle) >= time) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    if (low == decodeRuns_.size()) return 0;
    const DecodeRun& run = decodeRuns_[low];
    if (run.start >= time) return run.first;
    const uint64_t steps = (time - run.start + run.step - 1) / run.step;  // step > 0 here
    return run.first + static_cast<uint32_t>(steps);
}

uint32_t CSampleTimes::linearDecodedAtOrAfter(uint32_t from, uint64_t time) const {
    for (uint32_t sample = from; sample <= count_ && sample != 0; ++sample) {
        if (decodeTime(sample) >= time) return sample;
    }
    return 0;
}

uint32_t CSampleTimes::firstDecodedAtOrAfter(uint32_t from, uint64_t time) const {
    if (from == 0 || from > count_) return 0;
    // Decode times that go back (fragments restarting their clock) leave
    // only the walk.
    if (!decodeAscends_) return linearDecodedAtOrAfter(from, time);
    const uint32_t first = firstDecodedAtLeast(time);
    if (first == 0) return 0;
    return first > from ? first : from;
}

// ---- composition-time search ------------------------------------------------

uint32_t CSampleTimes::linearLatestPresentedBy(uint64_t time) const {
    uint32_t best = 1;
    uint64_t bestTime = compositionTime(1);
    bool skipped = false;
    for (uint32_t sample = 1; sample <= count_ && sample != 0; ++sample) {
        const uint64_t composition = compositionTime(sample);
        if (composition > time) {
            if (skipped) break;
            skipped = true;
            continue;
        }
        if (composition > bestTime) {
            best = sample;
            bestTime = composition;
        }
    }
    return best;
}

// The search blocks no longer describe the samples (or could not all be
// made).
void CSampleTimes::dropBlocks() const {
    blockMax_.clear();
    prefixMax_.clear();
    blockRuns_.clear();
    groupMax_.clear();
}

bool CSampleTimes::buildBlocks() const {
    if (!blockMax_.empty()) return true;
    if (count_ == 0) return false;
    const size_t blocks = ((static_cast<size_t>(count_) - 1) >> kBlockShift) + 1;
    try {
        blockMax_.assign(blocks, 0);
        prefixMax_.assign(blocks, 0);
        blockRuns_.assign(blocks, BlockRuns{});
        groupMax_.assign(((blocks - 1) >> kGroupShift) + 1, 0);
    } catch (const std::bad_alloc&) {
        dropBlocks();
        return false;
    }
    uint64_t running = 0;
    for (size_t block = 0; block < blocks; ++block) {
        uint64_t largest = 0;
        const auto start = static_cast<uint32_t>(block << kBlockShift) + 1;
        blockRuns_[block] = BlockRuns{
            static_cast<uint32_t>(runOf(decodeRuns_, start, &decodeCursor_)),
            dense_ ? 0u : static_cast<uint32_t>(runOf(offsetRuns_, start, &offsetCursor_))};
        for (uint32_t s = start;
             s <= blockEnd(static_cast<uint32_t>(block)); ++s) {
            largest = std::max(largest, compositionTime(s));
        }
        blockMax_[block] = largest;
        running = std::max(running, largest);
        prefixMax_[block] = running;
        groupMax_[block >> kGroupShift] = running;
    }
    return true;
}

// Last sample of a block (0-based).
uint32_t CSampleTimes::blockEnd(uint32_t block) const {
    const uint64_t end = (static_cast<uint64_t>(block) + 1) << kBlockShift;
    return end < count_ ? static_cast<uint32_t>(end) : count_;
}

// Scans of a block start from its runs: no search for them.
void CSampleTimes::enterBlock(uint32_t block) const {
    decodeCursor_ = blockRuns_[block].decode;
    offsetCursor_ = blockRuns_[block].offset;
}

// The first block from fromBlock on whose running maximum passes time:
// first among the groups' last running maxima (few, so they stay in the
// cache), then within the group.
size_t CSampleTimes::firstBlockAbove(size_t fromBlock, uint64_t time) const {
    size_t group = static_cast<size_t>(
        std::upper_bound(groupMax_.begin(), groupMax_.end(), time) - groupMax_.begin());
    size_t begin = std::max(fromBlock, group << kGroupShift);
    if (begin >= prefixMax_.size()) return prefixMax_.size();
    size_t end = std::min(prefixMax_.size(), (group + 1) << kGroupShift);
    return static_cast<size_t>(
        std::upper_bound(prefixMax_.begin() + static_cast<long>(begin),
                         prefixMax_.begin() + static_cast<long>(end), time) - prefixMax_.begin());
}

// The first sample at or after from presented after time; 0 when none.
uint32_t CSampleTimes::firstAbove(uint32_t from, uint64_t time) const {
    if (from == 0 || from > count_) return 0;
    uint32_t block = (from - 1) >> kBlockShift;
    if (blockMax_[block] > time) enterBlock(block);
    for (uint32_t s = from; blockMax_[block] > time && s <= blockEnd(block); ++s) {
        if (compositionTime(s) > time) return s;
    }
    size_t next = block + 1;
    if (prefixMax_[block] <= time) {
        // Nothing up to here is after time: the first block that has such
        // a sample is where the running maximum first passes it.
        next = firstBlockAbove(next, time);
    } else {
        while (next < blockMax_.size() && blockMax_[next] <= time) ++next;
    }
    if (next >= blockMax_.size()) return 0;
    block = static_cast<uint32_t>(next);
    enterBlock(block);
    for (uint32_t s = (block << kBlockShift) + 1; s <= blockEnd(block); ++s) {
        if (compositionTime(s) > time) return s;
    }
    return 0;  // not reached: the block's maximum is after time
}

// The first sample at or after from presented at value or later.
uint32_t CSampleTimes::firstReaching(uint32_t from, uint64_t value) const {
    return value == 0 ? from : firstAbove(from, value - 1);
}

// The latest composition time of the samples from..to (from <= to).
uint64_t CSampleTimes::largestIn(uint32_t from, uint32_t to) const {
    uint64_t largest = 0;
    uint32_t s = from;
    if (from == 1) {
        const uint32_t block = (to - 1) >> kBlockShift;
        if (block > 0) largest = prefixMax_[block - 1];
        s = (block << kBlockShift) + 1;
    }
    while (s <= to) {
        const uint32_t block = (s - 1) >> kBlockShift;
        const uint32_t end = blockEnd(block);
        if (s == (block << kBlockShift) + 1 && end <= to) {
            largest = std::max(largest, blockMax_[block]);
            s = end + 1;
            continue;
        }
        if (s == from || s == (block << kBlockShift) + 1) enterBlock(block);
        largest = std::max(largest, compositionTime(s));
        ++s;
    }
    return largest;
}

// The walk sees the samples before the second one presented after time,
// less the first such: the answer is where the latest composition time
// among them first occurs.
uint32_t CSampleTimes::latestPresentedBy(uint64_t time) const {
    if (!buildBlocks()) return linearLatestPresentedBy(time);
    if (blockMax_[0] > time && compositionTime(1) > time) return 1;
    const uint32_t skipped = firstAbove(1, time);
    if (skipped == 0) return firstReaching(1, prefixMax_.back());
    const uint32_t stop = firstAbove(skipped + 1, time);
    const uint32_t last = stop != 0 ? stop - 1 : count_;
    const uint64_t before = largestIn(1, skipped - 1);
    if (skipped + 1 <= last) {
        const uint64_t after = largestIn(skipped + 1, last);
        if (after > before) return firstReaching(skipped + 1, after);
    }
    return firstReaching(1, before);
}

}  // namespace quil
