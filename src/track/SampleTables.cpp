// The lookups a reading track drives over the sample tables, with the
// cursors that make walking samples in order cost one step each.
#include "SampleTables.h"

namespace quil {

// ---------------------------------------------------------------------------
// "stts"

MP4Err CTimeToSampleBox::getSampleTime(uint32_t sample, uint64_t* time) {
    *time = 0;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    uint32_t first = 1;
    uint64_t start = 0;
    uint32_t index = 1;
    // Asking again for the cursor's own first sample restarts from entry 1;
    // only strictly later samples resume.
    if (cursorFirstSample_ < sample) {
        first = cursorFirstSample_;
        start = cursorStartTime_;
        index = cursorEntryIndex_;
    }
    CTimeToSampleTableEntry* entry = nullptr;
    for (;;) {
        MP4Err err = entries.getEntry(index, &entry);
        if (err != MP4_OK) return err;  // 3: past the last entry
        // The first sample of the next run still belongs to this walk's
        // stop: its time is this run's end.
        const uint64_t nextFirst = static_cast<uint64_t>(first) + entry->sampleCount;
        if (sample <= nextFirst) break;
        start += static_cast<uint64_t>(entry->sampleCount) * entry->sampleDelta;
        first = static_cast<uint32_t>(nextFirst);  // below sample, so it fits
        ++index;
    }
    *time = start + static_cast<uint64_t>(sample - first) * entry->sampleDelta;
    cursorFirstSample_ = first;
    cursorStartTime_ = start;
    cursorEntryIndex_ = index;
    // One past the last sample: the time is the total duration, but there
    // is no such sample.
    if (index == entries.count() && sample - first == entry->sampleCount) return MP4_ERR_NOT_AVAILABLE;
    return MP4_OK;
}

MP4Err CTimeToSampleBox::getTotalDuration(uint64_t* duration) {
    *duration = 0;
    uint64_t total = 0;
    for (uint32_t i = 1; i <= entries.count(); ++i) {
        CTimeToSampleTableEntry* entry = nullptr;
        MP4Err err = entries.getEntry(i, &entry);
        if (err != MP4_OK) return err;
        total += static_cast<uint64_t>(entry->sampleCount) * entry->sampleDelta;
    }
    *duration = total;
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// "ctts"

MP4Err CCompositionOffsetBox::getCompositionOffset(uint32_t sample, uint32_t* offset) {
    *offset = 0;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    uint32_t first = cursorFirstSample_;
    uint32_t index = cursorEntryIndex_;
    if (first > sample) {
        first = 1;
        index = 1;
    }
    for (;;) {
        CCompositionOffsetTableEntry* entry = nullptr;
        MP4Err err = entries.getEntry(index, &entry);
        if (err != MP4_OK) return err;  // 3: no entry covers the sample
        const uint64_t nextFirst = static_cast<uint64_t>(first) + entry->sampleCount;
        if (sample < nextFirst) {
            cursorFirstSample_ = first;
            cursorEntryIndex_ = index;
            *offset = entry->sampleOffset;
            return MP4_OK;
        }
        first = static_cast<uint32_t>(nextFirst);  // <= sample, so it fits
        ++index;
    }
}

// ---------------------------------------------------------------------------
// "stsc"

MP4Err CSampleToChunkBox::getChunkForSample(uint32_t sample, uint32_t* chunk) {
    *chunk = 1;
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    if (cursorFirstSample_ > sample) {
        cursorEntryIndex_ = 1;
        cursorFirstSample_ = 1;
    }
    uint32_t index = cursorEntryIndex_;
    uint32_t first = cursorFirstSample_;
    CSampleToChunkTableEntry* entry = nullptr;
    MP4Err err = entries.getEntry(index, &entry);
    if (err != MP4_OK) return err;
    uint32_t firstChunk = entry->firstChunk;
    uint32_t samplesPerChunk = entry->samplesPerChunk;
    for (;;) {
        CSampleToChunkTableEntry* next = nullptr;
        err = entries.getEntry(index + 1, &next);
        if (err == MP4_ERR_NOT_AVAILABLE) break;  // the last run goes on for ever
        if (err != MP4_OK) return err;
        const uint64_t run = static_cast<uint64_t>(next->firstChunk - firstChunk) * samplesPerChunk;
        // Also stops at the first sample of the next run; the division below
        // still gives its chunk.
        if (sample <= first + run) break;
        first = static_cast<uint32_t>(first + run);  // below sample, so it fits
        firstChunk = next->firstChunk;
        samplesPerChunk = next->samplesPerChunk;
        ++index;
    }
    cursorEntryIndex_ = index;
    cursorFirstChunk_ = firstChunk;
    cursorFirstSample_ = first;
    if (samplesPerChunk == 0) return MP4_ERR_INVALID_DATA;
    *chunk = (sample - first) / samplesPerChunk + firstChunk;
    return MP4_OK;
}

MP4Err CSampleToChunkBox::walkToChunk(uint32_t chunk, CSampleToChunkTableEntry** entry,
                                      uint32_t* firstSample) {
    *entry = nullptr;
    RunPosition start{1, 0, 1};
    if (cursorFirstChunk_ <= chunk) start = {cursorEntryIndex_, cursorFirstChunk_, cursorFirstSample_};
    // While first chunks never decrease, any earlier position leads to the
    // same entry and sum, so the later of the two starts is taken.
    if (firstChunksAscend_ && chunkPosition_.entryIndex > start.entryIndex &&
        chunkPosition_.firstChunk <= chunk) {
        start = chunkPosition_;
    }
    uint32_t index = start.entryIndex;
    uint32_t first = start.firstSample;
    CSampleToChunkTableEntry* current = nullptr;
    MP4Err err = entries.getEntry(index, &current);
    if (err != MP4_OK) return err;
    if (current->firstChunk <= chunk) {
        for (;;) {
            CSampleToChunkTableEntry* next = nullptr;
            err = entries.getEntry(index + 1, &next);
            if (err == MP4_ERR_NOT_AVAILABLE) break;  // the last run goes on for ever
            if (err != MP4_OK) return err;
            if (next->firstChunk > chunk) break;
            first += (next->firstChunk - current->firstChunk) * current->samplesPerChunk;
            current = next;
            ++index;
        }
        if (firstChunksAscend_) chunkPosition_ = {index, current->firstChunk, first};
    }
    *entry = current;
    *firstSample = first;
    return MP4_OK;
}

MP4Err CSampleToChunkBox::getFirstSampleOfChunk(uint32_t chunk, uint32_t* sample) {
    *sample = 1;
    if (chunk == 0) return MP4_ERR_BAD_INDEX;
    CSampleToChunkTableEntry* entry = nullptr;
    uint32_t first = 1;
    MP4Err err = walkToChunk(chunk, &entry, &first);
    if (err != MP4_OK) return err;
    // Sample numbers are 32-bit: a chunk far past the table wraps.
    *sample = (chunk - entry->firstChunk) * entry->samplesPerChunk + first;
    return MP4_OK;
}

MP4Err CSampleToChunkBox::getSamplesPerChunk(uint32_t chunk, uint32_t* samplesPerChunk) {
    *samplesPerChunk = 0;
    CSampleToChunkTableEntry* entry = nullptr;
    uint32_t first = 1;
    MP4Err err = walkToChunk(chunk, &entry, &first);
    if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;  // no run: 0
    if (err != MP4_OK) return err;
    if (entry->firstChunk <= chunk) *samplesPerChunk = entry->samplesPerChunk;
    return MP4_OK;
}

MP4Err CSampleToChunkBox::getSampleDescriptionIndex(uint32_t chunk, uint32_t* index) {
    *index = 0;
    CSampleToChunkTableEntry* entry = nullptr;
    uint32_t first = 1;
    MP4Err err = walkToChunk(chunk, &entry, &first);
    if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;  // no run: 0
    if (err != MP4_OK) return err;
    if (entry->firstChunk <= chunk) *index = entry->sampleDescriptionIndex;
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// "stsz"

MP4Err CSampleSizeBox::getSampleSize(uint32_t sample, uint32_t* size) {
    *size = 0;
    if (sample > sampleCount) return MP4_ERR_NOT_AVAILABLE;
    if (sampleSize != 0) {
        *size = sampleSize;
        return MP4_OK;
    }
    if (sample == 0) return MP4_ERR_BAD_INDEX;
    CSampleSizeTableEntry* entry = nullptr;
    MP4Err err = entries.getEntry(sample, &entry);
    if (err == MP4_OK) *size = entry->entrySize;
    return err;
}

// ---------------------------------------------------------------------------
// "stco", "co64"

// ---------------------------------------------------------------------------
// "stss"

MP4Err CSyncSampleBox::getPreviousSyncSample(uint32_t sample, uint32_t* syncSample) {
    *syncSample = 1;
    CSyncSampleTableEntry* entry = nullptr;
    uint32_t index = 1;
    // Ascending lookups resume at the last answer instead of entry 1; with
    // numbers that never decrease, nothing before it can be a better answer.
    if (numbersAscend_ && lastFoundIndex_ != 0 && entries.getEntry(lastFoundIndex_, &entry) == MP4_OK &&
        entry->sampleNumber <= sample) {
        index = lastFoundIndex_;
    } else {
        MP4Err err = entries.getEntry(1, &entry);
        if (err != MP4_OK) return err;  // 3: empty
        if (entry->sampleNumber > sample) return MP4_ERR_NOT_AVAILABLE;
    }
    uint32_t best = entry->sampleNumber;
    uint32_t bestIndex = index;
    for (;;) {
        MP4Err err = entries.getEntry(index + 1, &entry);
        if (err == MP4_ERR_NOT_AVAILABLE) break;
        if (err != MP4_OK) return err;
        if (entry->sampleNumber > sample) break;
        ++index;
        if (entry->sampleNumber >= best) {
            best = entry->sampleNumber;
            bestIndex = index;
        }
    }
    lastFoundIndex_ = bestIndex;
    *syncSample = best;
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// "elst", "edts"

MP4Err CEditBox::firstTimedEdit(CEditListTableEntry** edit) {
    *edit = nullptr;
    CBox* child = nullptr;
    MP4Err err = findChild(fourcc("elst"), &child);
    if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
    if (err != MP4_OK) return err;
    auto* list = dynamic_cast<CEditListBox*>(child);
    if (!list) return MP4_OK;
    for (uint32_t i = 1; i <= list->entries.count(); ++i) {
        CEditListTableEntry* entry = nullptr;
        err = list->entries.getEntry(i, &entry);
        if (err != MP4_OK) return err;
        // Edits of zero duration before it are skipped: they show nothing.
        if (entry->segmentDuration != 0) {
            *edit = entry;
            break;
        }
    }
    return MP4_OK;
}

MP4Err CEditBox::getInitialDelay(uint64_t* delay) {
    *delay = 0;
    CEditListTableEntry* edit = nullptr;
    MP4Err err = firstTimedEdit(&edit);
    if (err == MP4_OK && edit && edit->mediaTime == -1) *delay = edit->segmentDuration;
    return err;
}

MP4Err CEditBox::getFirstMediaTime(uint64_t* mediaTime) {
    *mediaTime = 0;
    CEditListTableEntry* edit = nullptr;
    MP4Err err = firstTimedEdit(&edit);
    if (err == MP4_OK && edit) *mediaTime = static_cast<uint64_t>(edit->mediaTime);
    return err;
}

MP4Err CEditBox::getPresentedMediaTime(int64_t* mediaTime, uint64_t* duration) {
    *mediaTime = 0;
    *duration = 0;
    CBox* child = nullptr;
    MP4Err err = findChild(fourcc("elst"), &child);
    if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
    if (err != MP4_OK) return err;
    auto* list = dynamic_cast<CEditListBox*>(child);
    if (!list) return MP4_OK;
    bool found = false;
    for (uint32_t i = 1; i <= list->entries.count(); ++i) {
        CEditListTableEntry* entry = nullptr;
        if ((err = list->entries.getEntry(i, &entry)) != MP4_OK) return err;
        if (entry->mediaTime < 0) continue;
        // A zero-duration edit shows nothing unless no timed one follows
        // (fragmented files write their only edit that way).
        if (!found || entry->segmentDuration != 0) {
            *mediaTime = entry->mediaTime;
            *duration = entry->segmentDuration;
        }
        found = true;
        if (entry->segmentDuration != 0) break;
    }
    return MP4_OK;
}

}  // namespace quil
