#include "SampleTables.h"

#include <cinttypes>
#include <utility>

#include "boxes/Dump.h"
#include "boxes/EncryptionBoxes.h"

namespace quil {
namespace {

// Field readers that count what they consumed against the box's remaining
// bytes. Only successful reads are counted.
MP4Err readField(CStorage* storage, uint32_t* value, uint64_t* remaining) {
    MP4Err err = storage->readUInt32(value);
    if (err == MP4_OK) *remaining -= 4;
    return err;
}

MP4Err readField(CStorage* storage, uint64_t* value, uint64_t* remaining) {
    MP4Err err = storage->readUInt64(value);
    if (err == MP4_OK) *remaining -= 8;
    return err;
}

MP4Err readField(CStorage* storage, int64_t* value, uint64_t* remaining) {
    MP4Err err = storage->readInt64(value);
    if (err == MP4_OK) *remaining -= 8;
    return err;
}

MP4Err readField(CStorage* storage, int32_t* value, uint64_t* remaining) {
    MP4Err err = storage->readInt32(value);
    if (err == MP4_OK) *remaining -= 4;
    return err;
}

MP4Err readField(CStorage* storage, int16_t* value, uint64_t* remaining) {
    MP4Err err = storage->readInt16(value);
    if (err == MP4_OK) *remaining -= 2;
    return err;
}

// Whole entries the payload holds after its fixed fields (version and
// flags included).
uint64_t entriesThatFit(uint64_t payload, uint64_t fixedBytes, uint64_t entryBytes) {
    return payload >= fixedBytes ? (payload - fixedBytes) / entryBytes : 0;
}

// Reads `count` entries, keeping each one as soon as it is read, and stops
// at the first error.
//
// A damaged count may claim more entries than the box holds (`fit`). Reading
// the whole count would run on through the boxes that follow; the factory
// then skips back to this box's end (the remaining count has wrapped), so
// the box survives unless the storage ended first. We read just the first
// entry past the box, which decides that outcome the same way (the storage's
// error, or success), and keep nothing beyond the box: a damaged count can
// never make the table larger than its box.
template <class Entry, class ReadOne, class Keep>
MP4Err readEntries(uint32_t count, uint64_t fit, ReadOne readOne, Keep keep) {
    for (uint32_t i = 0; i < count; ++i) {
        Entry entry;
        MP4Err err = readOne(&entry);
        if (err != MP4_OK) return err;
        if (i >= fit) return MP4_OK;
        err = keep(entry);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

// The same for entries of a fixed size. The entries inside the box are read
// in batches of whole entries: the box
// holds all their bytes, so one block read per batch gives the same entries
// as reading field by field, at a fraction of the cost.
template <class Entry, class ReadOne>
MP4Err readEntriesInBatches(CStorage* storage, uint64_t* remaining, uint32_t count, uint64_t fit,
                            ReadOne readOne, CDataList<Entry>* list) {
    constexpr uint32_t kBatch = 1024;
    uint8_t batch[kBatch * Entry::kBytes];
    const uint64_t inside = count < fit ? count : fit;
    for (uint64_t done = 0; done < inside;) {
        const uint32_t n = static_cast<uint32_t>(inside - done < kBatch ? inside - done : kBatch);
        MP4Err err = storage->readBytes(batch, n * Entry::kBytes);
        if (err != MP4_OK) return err;
        *remaining -= n * Entry::kBytes;
        // Decoded straight into the list's nodes.
        for (uint32_t i = 0; i < n;) {
            Entry* slots = nullptr;
            uint32_t available = 0;
            err = list->reserveRun(&slots, &available);
            if (err != MP4_OK) return err;
            const uint32_t k = n - i < available ? n - i : available;
            for (uint32_t j = 0; j < k; ++j) slots[j].decode(batch + (i + j) * Entry::kBytes);
            list->commit(k);
            i += k;
        }
        done += n;
    }
    if (count <= fit) return MP4_OK;
    Entry past;
    return readOne(&past);
}

}  // namespace

// ---------------------------------------------------------------------------
// Entries

MP4Err CTimeToSampleTableEntry::read(CStorage* storage, uint64_t* remaining) {
    MP4Err err = readField(storage, &sampleCount, remaining);
    return err != MP4_OK ? err : readField(storage, &sampleDelta, remaining);
}

MP4Err CTimeToSampleTableEntry::write(CStorage* storage) const {
    MP4Err err = storage->writeUInt32(sampleCount);
    return err != MP4_OK ? err : storage->writeUInt32(sampleDelta);
}

MP4Err CCompositionOffsetTableEntry::read(CStorage* storage, uint64_t* remaining) {
    MP4Err err = readField(storage, &sampleCount, remaining);
    return err != MP4_OK ? err : readField(storage, &sampleOffset, remaining);
}

MP4Err CCompositionOffsetTableEntry::write(CStorage* storage) const {
    MP4Err err = storage->writeUInt32(sampleCount);
    return err != MP4_OK ? err : storage->writeUInt32(sampleOffset);
}

MP4Err CSampleToChunkTableEntry::read(CStorage* storage, uint64_t* remaining) {
    MP4Err err = readField(storage, &firstChunk, remaining);
    if (err == MP4_OK) err = readField(storage, &samplesPerChunk, remaining);
    if (err == MP4_OK) err = readField(storage, &sampleDescriptionIndex, remaining);
    return err;
}

MP4Err CSampleToChunkTableEntry::write(CStorage* storage) const {
    MP4Err err = storage->writeUInt32(firstChunk);
    if (err == MP4_OK) err = storage->writeUInt32(samplesPerChunk);
    if (err == MP4_OK) err = storage->writeUInt32(sampleDescriptionIndex);
    return err;
}

MP4Err CSampleSizeTableEntry::read(CStorage* storage, uint64_t* remaining) {
    return readField(storage, &entrySize, remaining);
}

MP4Err CSampleSizeTableEntry::write(CStorage* storage) const { return storage->writeUInt32(entrySize); }

MP4Err CChunkOffsetTableEntry::read(CStorage* storage, uint64_t* remaining) {
    return readField(storage, &chunkOffset, remaining);
}

MP4Err CChunkOffsetTableEntry::write(CStorage* storage) const { return storage->writeUInt32(chunkOffset); }

MP4Err CChunkLargeOffsetTableEntry::read(CStorage* storage, uint64_t* remaining) {
    return readField(storage, &chunkOffset, remaining);
}

MP4Err CChunkLargeOffsetTableEntry::write(CStorage* storage) const { return storage->writeUInt64(chunkOffset); }

MP4Err CSyncSampleTableEntry::read(CStorage* storage, uint64_t* remaining) {
    return readField(storage, &sampleNumber, remaining);
}

MP4Err CSyncSampleTableEntry::write(CStorage* storage) const { return storage->writeUInt32(sampleNumber); }

MP4Err CEditListTableEntry::read(CStorage* storage, uint8_t version, uint64_t* remaining) {
    MP4Err err;
    if (version == 1) {
        err = readField(storage, &segmentDuration, remaining);
        if (err == MP4_OK) err = readField(storage, &mediaTime, remaining);
    } else {
        uint32_t duration = 0;
        int32_t time = 0;
        err = readField(storage, &duration, remaining);
        if (err == MP4_OK) err = readField(storage, &time, remaining);
        segmentDuration = duration;
        mediaTime = time;  // sign-extended: 0xFFFFFFFF stays the empty edit
    }
    if (err == MP4_OK) err = readField(storage, &mediaRateInteger, remaining);
    if (err == MP4_OK) err = readField(storage, &mediaRateFraction, remaining);
    return err;
}

MP4Err CEditListTableEntry::write(CStorage* storage, uint8_t version) const {
    MP4Err err;
    if (version == 1) {
        err = storage->writeUInt64(segmentDuration);
        if (err == MP4_OK) err = storage->writeInt64(mediaTime);
    } else {
        err = storage->writeUInt32(static_cast<uint32_t>(segmentDuration));
        if (err == MP4_OK) err = storage->writeInt32(static_cast<int32_t>(mediaTime));
    }
    if (err == MP4_OK) err = storage->writeInt16(mediaRateInteger);
    if (err == MP4_OK) err = storage->writeInt16(mediaRateFraction);
    return err;
}

// ---------------------------------------------------------------------------
// Counted tables

template <class Entry>
MP4Err CCountedTableBox<Entry>::read(CStorage* storage) {
    const uint64_t payload = remaining;
    MP4Err err = readVersionAndFlags(storage);
    if (err == MP4_OK) err = readField(storage, &entryCount, &remaining);
    if (err != MP4_OK) return err;
    err = readEntriesInBatches<Entry>(
        storage, &remaining, entryCount, entriesThatFit(payload, 8, Entry::kBytes),
        [&](Entry* entry) { return entry->read(storage, &remaining); }, &entries);
    entriesRead();
    return err;
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(entryCount);
    for (uint32_t i = 1; err == MP4_OK && i <= entryCount; ++i) {
        Entry* entry = nullptr;
        err = entries.getEntry(i, &entry);
        if (err == MP4_OK) err = entry->write(storage);
    }
    return err;
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::calculateSize() {
    MP4Err err = CBox::calculateSize();
    if (err != MP4_OK) return err;
    size += 8 + static_cast<uint64_t>(entryCount) * Entry::kBytes;
    return MP4_OK;
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Entry count = %u\n", entryCount);
    return MP4_OK;
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::keepEntry(const Entry& entry) {
    willAppend(entry);
    return entries.append(entry);
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::addEntry(const Entry& entry) {
    MP4Err err = keepEntry(entry);
    if (err == MP4_OK) ++entryCount;
    return err;
}

template class CCountedTableBox<CTimeToSampleTableEntry>;
template class CCountedTableBox<CCompositionOffsetTableEntry>;
template class CCountedTableBox<CSampleToChunkTableEntry>;
template class CCountedTableBox<CChunkOffsetTableEntry>;
template class CCountedTableBox<CChunkLargeOffsetTableEntry>;
template class CCountedTableBox<CSyncSampleTableEntry>;

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

MP4Err CTimeToSampleBox::addSampleTime(uint32_t sample, uint64_t decodeTime) {
    // While building, cursorFirstSample_ is the next sample's number and
    // cursorStartTime_ the last sample's decode time.
    if (sample != cursorFirstSample_) return MP4_ERR_INVALID_ARGUMENT;
    if (sample == 1) {
        cursorStartTime_ = decodeTime;
        cursorFirstSample_ = 2;
        return MP4_OK;
    }
    const uint64_t difference = decodeTime - cursorStartTime_;
    uint32_t delta = static_cast<uint32_t>(difference);
    if (static_cast<int32_t>(delta) < 1) {
        // Deliberate: a repeated (or, seen as 32 bits, backwards) time is
        // moved two ticks after the last one rather than refused.
        delta = 2;
        decodeTime = cursorStartTime_ + 2;
    } else if (difference > 0xFFFFFFFFu) {
        return MP4_ERR_BAD_TIME;
    }
    CTimeToSampleTableEntry* last = entries.last();
    if (last && last->sampleDelta == delta) {
        ++last->sampleCount;
    } else {
        MP4Err err = addEntry(CTimeToSampleTableEntry{1, delta});
        if (err != MP4_OK) return err;
    }
    ++cursorFirstSample_;
    cursorStartTime_ = decodeTime;
    return MP4_OK;
}

MP4Err CTimeToSampleBox::appendDelta(uint32_t delta) {
    CTimeToSampleTableEntry* last = entries.last();
    if (last && last->sampleDelta == delta && last->sampleCount < 0xFFFFFFFFu) {
        ++last->sampleCount;
        return MP4_OK;
    }
    return addEntry(CTimeToSampleTableEntry{1, delta});
}

MP4Err CTimeToSampleBox::finishSampleTimes() {
    // The last sample has no successor to measure against: it repeats the
    // delta of the one before it.
    if (CTimeToSampleTableEntry* last = entries.last()) {
        ++last->sampleCount;
        return MP4_OK;
    }
    if (cursorFirstSample_ > 1) return addEntry(CTimeToSampleTableEntry{1, 1});
    return MP4_ERR_BAD_INDEX;
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

MP4Err CCompositionOffsetBox::addCompositionOffset(uint32_t sample, uint32_t offset) {
    // While building, cursorFirstSample_ is the next sample's number.
    if (sample != cursorFirstSample_) return MP4_ERR_INVALID_ARGUMENT;
    CCompositionOffsetTableEntry* last = entries.last();
    if (last && last->sampleOffset == offset) {
        ++last->sampleCount;
    } else {
        MP4Err err = addEntry(CCompositionOffsetTableEntry{1, offset});
        if (err != MP4_OK) return err;
    }
    ++cursorFirstSample_;
    return MP4_OK;
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

MP4Err CSampleToChunkBox::addChunk(uint32_t chunk, uint32_t samplesPerChunk,
                                   uint32_t descriptionIndex) {
    // While building, cursorFirstChunk_ is the number the next chunk must carry.
    if (chunk != cursorFirstChunk_) return MP4_ERR_INVALID_ARGUMENT;
    CSampleToChunkTableEntry* last = entries.last();
    if (!last || last->sampleDescriptionIndex != descriptionIndex ||
        last->samplesPerChunk != samplesPerChunk) {
        MP4Err err = addEntry(CSampleToChunkTableEntry{chunk, samplesPerChunk, descriptionIndex});
        if (err != MP4_OK) return err;
    }
    ++cursorFirstChunk_;
    return MP4_OK;
}

void CSampleToChunkBox::entriesRead() {
    firstChunksAscend_ = true;
    uint32_t previous = 0;
    for (uint32_t i = 1; i <= entries.count() && firstChunksAscend_; ++i) {
        CSampleToChunkTableEntry* entry = nullptr;
        if (entries.getEntry(i, &entry) != MP4_OK || entry->firstChunk < previous) firstChunksAscend_ = false;
        else previous = entry->firstChunk;
    }
}

void CSampleToChunkBox::willAppend(const CSampleToChunkTableEntry& entry) {
    const CSampleToChunkTableEntry* last = entries.last();
    if (last && entry.firstChunk < last->firstChunk) firstChunksAscend_ = false;
}

// ---------------------------------------------------------------------------
// "stsz"

MP4Err CSampleSizeBox::read(CStorage* storage) {
    const uint64_t payload = remaining;
    MP4Err err = readVersionAndFlags(storage);
    if (err == MP4_OK) err = readField(storage, &sampleSize, &remaining);
    if (err == MP4_OK) err = readField(storage, &sampleCount, &remaining);
    if (err != MP4_OK || sampleSize != 0) return err;
    return readEntriesInBatches<CSampleSizeTableEntry>(
        storage, &remaining, sampleCount, entriesThatFit(payload, 12, CSampleSizeTableEntry::kBytes),
        [&](CSampleSizeTableEntry* entry) { return entry->read(storage, &remaining); }, &entries);
}

MP4Err CSampleSizeBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(sampleSize);
    if (err == MP4_OK) err = storage->writeUInt32(sampleCount);
    if (sampleSize != 0) return err;
    for (uint32_t i = 1; err == MP4_OK && i <= sampleCount; ++i) {
        CSampleSizeTableEntry* entry = nullptr;
        err = entries.getEntry(i, &entry);
        if (err == MP4_OK) err = entry->write(storage);
    }
    return err;
}

MP4Err CSampleSizeBox::calculateSize() {
    MP4Err err = CBox::calculateSize();
    if (err != MP4_OK) return err;
    size += 12;
    if (sampleSize == 0) size += static_cast<uint64_t>(sampleCount) * CSampleSizeTableEntry::kBytes;
    return MP4_OK;
}

MP4Err CSampleSizeBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Sample Size = %u\n", sampleSize);
    dumpLine(depth, "Entry Count = %u\n", sampleCount);
    return MP4_OK;
}

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

MP4Err CSampleSizeBox::addSampleSize(uint32_t sample, uint32_t size) {
    if (size == 0) return MP4_ERR_INVALID_ARGUMENT;
    if (sample != sampleCount + 1) return MP4_ERR_INVALID_ARGUMENT;
    return appendSampleSize(size);
}

MP4Err CSampleSizeBox::appendSampleSize(uint32_t size) {
    if (sampleCount == 0xFFFFFFFFu) return MP4_ERR_VALUE_TOO_LARGE;
    // Equal non-zero sizes keep the constant form (a size of 0 cannot be
    // a constant: it means a size per sample).
    const bool constant = size != 0 && (sampleCount == 0 || size == sampleSize);
    if (constant) {
        sampleSize = size;
        ++sampleCount;
        return MP4_OK;
    }
    // The constant form ends here: write out the constant for every
    // sample so far, then this sample's own size.
    if (sampleSize != 0) {
        for (uint32_t i = 0; i < sampleCount; ++i) {
            MP4Err err = entries.append(CSampleSizeTableEntry{sampleSize});
            if (err != MP4_OK) return err;
        }
        sampleSize = 0;
    }
    MP4Err err = entries.append(CSampleSizeTableEntry{size});
    if (err != MP4_OK) return err;
    ++sampleCount;
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// "stco", "co64"

MP4Err CChunkOffsetBox::addChunkOffset(uint32_t chunk, uint32_t offset) {
    if (chunk != entryCount + 1 || entries.count() != entryCount) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = addEntry(CChunkOffsetTableEntry{offset});
    if (err == MP4_OK) size += CChunkOffsetTableEntry::kBytes;
    return err;
}

MP4Err CChunkOffsetBox::shiftOffsets(int32_t delta) {
    for (uint32_t i = 1; i <= entries.count(); ++i) {
        CChunkOffsetTableEntry* entry = nullptr;
        MP4Err err = entries.getEntry(i, &entry);
        if (err != MP4_OK) return err;
        entry->chunkOffset += static_cast<uint32_t>(delta);  // wraps in 32 bits
    }
    return MP4_OK;
}

MP4Err CChunkLargeOffsetBox::addChunkOffset(uint32_t chunk, uint64_t offset) {
    if (chunk != entryCount + 1 || entries.count() != entryCount) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = addEntry(CChunkLargeOffsetTableEntry{offset});
    if (err == MP4_OK) size += CChunkLargeOffsetTableEntry::kBytes;
    return err;
}

MP4Err CChunkLargeOffsetBox::copyFromChunkOffsets(CChunkOffsetBox* source) {
    if (!source) return MP4_ERR_INVALID_ARGUMENT;
    for (uint32_t i = 1; i <= source->entryCount; ++i) {
        CChunkOffsetTableEntry* entry = nullptr;
        MP4Err err = source->getEntry(i, &entry);
        if (err == MP4_OK) err = addChunkOffset(entryCount + 1, entry->chunkOffset);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CChunkLargeOffsetBox::shiftOffsets(int32_t delta) {
    const uint64_t widened = static_cast<uint64_t>(static_cast<int64_t>(delta));
    for (uint32_t i = 1; i <= entries.count(); ++i) {
        CChunkLargeOffsetTableEntry* entry = nullptr;
        MP4Err err = entries.getEntry(i, &entry);
        if (err != MP4_OK) return err;
        entry->chunkOffset += widened;
    }
    return MP4_OK;
}

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

MP4Err CSyncSampleBox::addSyncSample(uint32_t sample) { return addEntry(CSyncSampleTableEntry{sample}); }

void CSyncSampleBox::entriesRead() {
    numbersAscend_ = true;
    uint32_t previous = 0;
    for (uint32_t i = 1; i <= entries.count() && numbersAscend_; ++i) {
        CSyncSampleTableEntry* entry = nullptr;
        if (entries.getEntry(i, &entry) != MP4_OK || entry->sampleNumber < previous) numbersAscend_ = false;
        else previous = entry->sampleNumber;
    }
}

void CSyncSampleBox::willAppend(const CSyncSampleTableEntry& entry) {
    const CSyncSampleTableEntry* last = entries.last();
    if (last && entry.sampleNumber < last->sampleNumber) numbersAscend_ = false;
}

// ---------------------------------------------------------------------------
// "elst", "edts"

MP4Err CEditListBox::read(CStorage* storage) {
    const uint64_t payload = remaining;
    MP4Err err = readVersionAndFlags(storage);
    if (err == MP4_OK) err = readField(storage, &entryCount, &remaining);
    if (err != MP4_OK) return err;
    const uint8_t layout = version;
    return readEntries<CEditListTableEntry>(
        entryCount, entriesThatFit(payload, 8, CEditListTableEntry::bytesFor(layout)),
        [&](CEditListTableEntry* entry) { return entry->read(storage, layout, &remaining); },
        [&](const CEditListTableEntry& entry) { return entries.append(entry); });
}

MP4Err CEditListBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(entryCount);
    for (uint32_t i = 1; err == MP4_OK && i <= entryCount; ++i) {
        CEditListTableEntry* entry = nullptr;
        err = entries.getEntry(i, &entry);
        if (err == MP4_OK) err = entry->write(storage, version);
    }
    return err;
}

MP4Err CEditListBox::calculateSize() {
    MP4Err err = CBox::calculateSize();
    if (err != MP4_OK) return err;
    size += 8 + static_cast<uint64_t>(entryCount) * CEditListTableEntry::bytesFor(version);
    return MP4_OK;
}

MP4Err CEditListBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Entry count = %u\n", entryCount);
    // The entries held: fewer than the count when a damaged count ran past
    // the box.
    for (uint32_t i = 1; i <= entries.count(); ++i) {
        CEditListTableEntry* entry = nullptr;
        err = entries.getEntry(i, &entry);
        if (err != MP4_OK) return err;
        dumpLine(depth,
                 "  Seg. duration = %8" PRIu64 ", Media time = %5" PRId64
                 ", Media rate = %4hd, Media rate frac = %5hd\n",
                 entry->segmentDuration, entry->mediaTime, entry->mediaRateInteger, entry->mediaRateFraction);
    }
    return MP4_OK;
}

MP4Err CEditListBox::addEntry(const CEditListTableEntry& entry) {
    MP4Err err = entries.append(entry);
    if (err == MP4_OK) ++entryCount;
    return err;
}

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

// ---------------------------------------------------------------------------
// "stbl"

MP4Err CSampleTableBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    if (!children) return MP4_ERR_INVALID_DATA;
    bool haveInformation = false;
    uint64_t information = 0;  // where the "senc" written holds its first sample's
    for (CBoxList::Node* node = children->head(); node; node = node->next) {
        CBox* child = node->box;
        if (child->type == fourcc("senc")) {
            uint64_t start = 0, total = 0;
            if ((err = storage->getPosition(&start)) != MP4_OK) return err;
            if ((err = child->getSize(&total)) != MP4_OK) return err;
            const uint64_t header = child->baseHeaderSize() + (total > 0xFFFFFFFFu ? 8 : 0);
            information = sampleEncryptionDataStart(start, header);
            haveInformation = true;
        }
        auto* saio = dynamic_cast<CSampleAuxInfoOffsetsBox*>(child);
        if (saio && haveInformation && !saio->writesAsRead()) saio->moveTo(information);
        if ((err = writeBox(child, storage)) != MP4_OK) return err;
    }
    return children->trailing().write(storage);
}

}  // namespace quil
