#include "SampleTableBoxes.h"

#include <cinttypes>

#include "boxes/EncryptionBoxes.h"
#include "boxes/FieldBox.h"
#include "io/Dump.h"

namespace quil {
namespace {

// Whole entries the payload holds after its fixed fields (version and
// flags included).
uint64_t entriesThatFit(uint64_t payload, uint64_t fixedBytes, uint64_t entryBytes) {
    return payload >= fixedBytes ? (payload - fixedBytes) / entryBytes : 0;
}

// Reads `count` entries of a fixed size into the list.
//
// A damaged count may claim more entries than the box holds (`fit`). Reading
// the whole count would run on through the boxes that follow; we read just
// the first entry past the box, which the budget refuses (6, as the box's
// window would), and keep nothing beyond the box: a damaged count can never
// make the table larger than its box.
//
// The entries inside the box are read in batches of whole entries and
// decoded from memory by the same fields(): the box holds all their bytes,
// so one block read per batch gives the same entries as reading field by
// field, at a fraction of the cost.
template <class Entry>
MP4Err readEntriesInBatches(FieldReader<uint64_t>& io, uint32_t count, uint64_t fit,
                            CDataList<Entry>* list) {
    constexpr uint32_t kBatch = 1024;
    uint8_t batch[kBatch * Entry::kBytes];
    const uint64_t inside = count < fit ? count : fit;
    for (uint64_t done = 0; done < inside;) {
        const uint32_t n = static_cast<uint32_t>(inside - done < kBatch ? inside - done : kBatch);
        if (!io.bytes(batch, n * Entry::kBytes).ok()) return io.error();
        // Decoded straight into the list's nodes.
        FieldDecoder decoder(batch, n * Entry::kBytes);
        for (uint32_t i = 0; i < n;) {
            Entry* slots = nullptr;
            uint32_t available = 0;
            MP4Err err = list->reserveRun(&slots, &available);
            if (err != MP4_OK) return err;
            const uint32_t k = n - i < available ? n - i : available;
            for (uint32_t j = 0; j < k; ++j) slots[j].fields(decoder);
            list->commit(k);
            i += k;
        }
        done += n;
    }
    if (count <= fit) return MP4_OK;
    Entry past;
    return past.fields(io);
}

// Writes the first count entries of a list (its error when it holds fewer),
// or counts count entries of width bytes without walking them.
template <class IO, class Entry, class... Layout>
MP4Err entryFields(IO& io, CDataList<Entry>& entries, uint32_t count, uint64_t width,
                   Layout... layout) {
    if constexpr (IO::kCounts) {
        return io.repeated(count, width).error();
    } else {
        for (uint32_t i = 1; io.ok() && i <= count; ++i) {
            Entry* entry = nullptr;
            MP4Err err = entries.getEntry(i, &entry);
            if (err != MP4_OK) return err;
            entry->fields(io, layout...);
        }
        return io.error();
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Counted tables

template <class Entry>
template <class IO>
MP4Err CCountedTableBox<Entry>::fields(IO& io) {
    const uint64_t payload = this->remaining;
    if (!io.versionAndFlags(this->version, this->flags).named("entryCount").u32(entryCount).ok()) {
        return io.error();
    }
    if constexpr (IO::kLists) {
        return io.table(entryCount, [](FieldLister& entryIO) { return Entry().fields(entryIO); }).error();
    } else if constexpr (IO::kReads) {
        MP4Err err = readEntriesInBatches(io, entryCount, entriesThatFit(payload, 8, Entry::kBytes), &entries);
        entriesRead();
        return err;
    } else {
        return entryFields(io, entries, entryCount, Entry::kBytes);
    }
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::listFields(FieldLister& io) {
    return fields(io);
}

template <class Entry>
MP4Err CCountedTableBox<Entry>::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    this->dumpVersionAndFlags(depth);
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
template class CFieldBox<CCountedTableBox<CTimeToSampleTableEntry>, CFullBox>;
template class CCountedTableBox<CCompositionOffsetTableEntry>;
template class CFieldBox<CCountedTableBox<CCompositionOffsetTableEntry>, CFullBox>;
template class CCountedTableBox<CSampleToChunkTableEntry>;
template class CFieldBox<CCountedTableBox<CSampleToChunkTableEntry>, CFullBox>;
template class CCountedTableBox<CChunkOffsetTableEntry>;
template class CFieldBox<CCountedTableBox<CChunkOffsetTableEntry>, CFullBox>;
template class CCountedTableBox<CChunkLargeOffsetTableEntry>;
template class CFieldBox<CCountedTableBox<CChunkLargeOffsetTableEntry>, CFullBox>;
template class CCountedTableBox<CSyncSampleTableEntry>;
template class CFieldBox<CCountedTableBox<CSyncSampleTableEntry>, CFullBox>;

// ---------------------------------------------------------------------------
// "stts" building

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
// "ctts" building

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
// "stsc" building

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

template <class IO>
MP4Err CSampleSizeBox::fields(IO& io) {
    const uint64_t payload = remaining;
    if (!io.versionAndFlags(version, flags).named("sampleSize").u32(sampleSize).ok()) return io.error();
    // One size for every sample, or a table of sizes.
    if (!io.named(sampleSize != 0 ? "sampleCount" : "entryCount").u32(sampleCount).ok() || sampleSize != 0) {
        return io.error();
    }
    if constexpr (IO::kLists) {
        return io.table(sampleCount, [](FieldLister& entryIO) { return CSampleSizeTableEntry().fields(entryIO); })
            .error();
    } else if constexpr (IO::kReads) {
        return readEntriesInBatches(io, sampleCount,
                                    entriesThatFit(payload, 12, CSampleSizeTableEntry::kBytes), &entries);
    } else {
        return entryFields(io, entries, sampleCount, CSampleSizeTableEntry::kBytes);
    }
}
template class CFieldBox<CSampleSizeBox, CFullBox>;
MP4Err CSampleSizeBox::listFields(FieldLister& io) { return fields(io); }

MP4Err CSampleSizeBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Sample Size = %u\n", sampleSize);
    dumpLine(depth, "Entry Count = %u\n", sampleCount);
    return MP4_OK;
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
// "stco", "co64" building

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
// "stss" building

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
// "elst"

template <class IO>
MP4Err CEditListBox::fields(IO& io) {
    const uint64_t payload = remaining;
    if (!io.versionAndFlags(version, flags).named("entryCount").u32(entryCount).ok()) return io.error();
    const uint8_t layout = version;
    const uint64_t width = CEditListTableEntry::bytesFor(layout);
    if constexpr (IO::kLists) {
        return io.table(entryCount, [layout](FieldLister& entryIO) {
            return CEditListTableEntry().fields(entryIO, layout);
        }).error();
    } else if constexpr (IO::kReads) {
        // Entry by entry (their width depends on the version); a damaged
        // count stops at the first entry past the box, as in
        // readEntriesInBatches.
        const uint64_t fit = entriesThatFit(payload, 8, width);
        for (uint32_t i = 0; i < entryCount; ++i) {
            CEditListTableEntry entry;
            MP4Err err = entry.fields(io, layout);
            if (err != MP4_OK) return err;
            if (i >= fit) return MP4_OK;
            err = entries.append(entry);
            if (err != MP4_OK) return err;
        }
        return MP4_OK;
    } else {
        return entryFields(io, entries, entryCount, width, layout);
    }
}
template class CFieldBox<CEditListBox, CFullBox>;
MP4Err CEditListBox::listFields(FieldLister& io) { return fields(io); }

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
