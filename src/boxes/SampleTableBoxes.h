// The sample table boxes (ISO/IEC 14496-12 §8.5-8.7, §8.6.5-8.6.6): time to
// sample, composition offsets, sample to chunk, sample sizes, chunk offsets,
// sync samples and the edit list: their layouts, dumps and the building
// operations a track being written calls. The lookups a reading track
// drives (and the cursors they keep) are defined with the track, in
// track/SampleTables.cpp.
#ifndef QUIL_BOXES_SAMPLETABLEBOXES_H
#define QUIL_BOXES_SAMPLETABLEBOXES_H

#include <cstdint>
#include <memory>

#include "boxes/Box.h"
#include "boxes/DataList.h"
#include "io/FieldIO.h"

namespace quil {

// ---------------------------------------------------------------------------
// Entries. Plain values; each states its layout once in fields(), which
// kBytes (the bytes it takes) must match.

struct CTimeToSampleTableEntry {
    uint32_t sampleCount = 0;
    uint32_t sampleDelta = 0;

    static constexpr uint64_t kBytes = 8;
    template <class IO>
    MP4Err fields(IO& io) {
        return io.named("sampleCount").u32(sampleCount).named("sampleDelta").u32(sampleDelta).error();
    }
};

struct CCompositionOffsetTableEntry {
    uint32_t sampleCount = 0;
    uint32_t sampleOffset = 0;  // as stored; signed 32-bit where times are computed

    static constexpr uint64_t kBytes = 8;
    template <class IO>
    MP4Err fields(IO& io) {
        // Signed in version 1 boxes (the entry does not know its box's
        // version: the report takes it from the box).
        return io.named("sampleCount")
            .u32(sampleCount)
            .named("sampleOffset", FieldForm::kSignedInVersion1)
            .u32(sampleOffset)
            .error();
    }
};

struct CSampleToChunkTableEntry {
    uint32_t firstChunk = 0;
    uint32_t samplesPerChunk = 0;
    uint32_t sampleDescriptionIndex = 0;

    static constexpr uint64_t kBytes = 12;
    template <class IO>
    MP4Err fields(IO& io) {
        return io.named("firstChunk")
            .u32(firstChunk)
            .named("samplesPerChunk")
            .u32(samplesPerChunk)
            .named("sampleDescriptionIndex")
            .u32(sampleDescriptionIndex)
            .error();
    }
};

struct CSampleSizeTableEntry {
    uint32_t entrySize = 0;

    static constexpr uint64_t kBytes = 4;
    template <class IO>
    MP4Err fields(IO& io) {
        return io.named("entrySize").u32(entrySize).error();
    }
};

struct CChunkOffsetTableEntry {
    uint32_t chunkOffset = 0;

    static constexpr uint64_t kBytes = 4;
    template <class IO>
    MP4Err fields(IO& io) {
        return io.named("chunkOffset").u32(chunkOffset).error();
    }
};

struct CChunkLargeOffsetTableEntry {
    uint64_t chunkOffset = 0;

    static constexpr uint64_t kBytes = 8;
    template <class IO>
    MP4Err fields(IO& io) {
        return io.named("chunkOffset").u64(chunkOffset).error();
    }
};

struct CSyncSampleTableEntry {
    uint32_t sampleNumber = 0;

    static constexpr uint64_t kBytes = 4;
    template <class IO>
    MP4Err fields(IO& io) {
        return io.named("sampleNumber").u32(sampleNumber).error();
    }
};

// Version 0 entries are widened when read: the duration zero-extended, the
// media time sign-extended (a stored 0xFFFFFFFF is -1, an empty edit).
struct CEditListTableEntry {
    uint64_t segmentDuration = 0;
    int64_t mediaTime = 0;  // -1: empty edit
    int16_t mediaRateInteger = 0;
    int16_t mediaRateFraction = 0;

    static uint64_t bytesFor(uint8_t version) { return version == 1 ? 20 : 12; }
    // 64-bit duration and time in version 1, 32-bit otherwise.
    template <class IO>
    MP4Err fields(IO& io, uint8_t version) {
        const bool wide = version == 1;
        return io.named("segmentDuration")
            .u32or64(wide, segmentDuration)
            .named("mediaTime")
            .i32or64(wide, mediaTime)
            .named("mediaRateInteger")
            .i16(mediaRateInteger)
            .named("mediaRateFraction", FieldForm::kUnsigned)
            .i16(mediaRateFraction)
            .error();
    }
};

// ---------------------------------------------------------------------------
// Base of the tables that are an entry count followed by that many entries
// of one layout ("stts", "ctts", "stsc", "stco", "co64", "stss").
//
// `entryCount` is the count as read from the file (or grown by building);
// `entries` holds the entries actually read, which is fewer when a damaged
// count runs past the box.
template <class Entry>
class CCountedTableBox : public CFieldBox<CCountedTableBox<Entry>, CFullBox> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    // The 1-based i-th entry, changeable in place (errors of CDataList).
    MP4Err getEntry(uint32_t index, Entry** entry) { return entries.getEntry(index, entry); }

    uint32_t entryCount = 0;
    CDataList<Entry> entries;

protected:
    // Building: appends an entry and counts it.
    MP4Err addEntry(const Entry& entry);
    // Appends without counting (reading, where the count comes first).
    MP4Err keepEntry(const Entry& entry);
    // Lets a table note each entry before it is appended (after the
    // current last one).
    virtual void willAppend(const Entry&) {}
    // Lets a table look at the entries a read appended, once, after them.
    virtual void entriesRead() {}
};

// "stts": decode time deltas, run-length coded.
class CTimeToSampleBox : public CCountedTableBox<CTimeToSampleTableEntry> {
public:
    // Lookup (track/SampleTables.cpp). Decode time of a 1-based sample (the first sample starts at 0).
    // Resumes from the entry of the previous lookup when asked for a later
    // sample. The sample one past the end yields the total duration, still
    // with 3; further beyond gives 3 without a time. On a freshly read box
    // the first lookup must be for sample 1 (the cursor entry starts at 0
    // and resuming from it gives 17).
    MP4Err getSampleTime(uint32_t sample, uint64_t* time);

    // Sum of all sample counts x deltas of the entries held.
    MP4Err getTotalDuration(uint64_t* duration);

    // Building, one sample at a time in order starting at 1 (else 2). A
    // delta below 1 as a signed 32-bit number is replaced by 2 (and the
    // time moved accordingly); a delta above 0xFFFFFFFF gives 13.
    MP4Err addSampleTime(uint32_t sample, uint64_t decodeTime);
    // The last sample gets the delta of the one before it ({1, 1} for a
    // single sample); 17 when no sample was added.
    MP4Err finishSampleTimes();
    // Copying: appends one sample of that delta (0 included), merged with
    // the last run when equal. Tables built this way need no
    // finishSampleTimes: the last sample's own delta is appended too.
    MP4Err appendDelta(uint32_t delta);

private:
    // Reading: the first sample, its decode time and the entry index of
    // the last lookup. Building: the next sample's number and the last
    // added decode time.
    uint32_t cursorFirstSample_ = 1;
    uint64_t cursorStartTime_ = 0;
    uint32_t cursorEntryIndex_ = 0;
};

// "ctts": composition offsets, run-length coded.
class CCompositionOffsetBox : public CCountedTableBox<CCompositionOffsetTableEntry> {
public:
    // The stored (unsigned) offset of the entry covering a 1-based sample,
    // resuming from the entry of the previous lookup; 3 when no entry
    // covers it.
    MP4Err getCompositionOffset(uint32_t sample, uint32_t* offset);

    // Building, in order starting at 1 (else 2); equal offsets merge.
    MP4Err addCompositionOffset(uint32_t sample, uint32_t offset);

private:
    // Reading: first sample and index of the entry of the last lookup.
    // Building: the next sample's number.
    uint32_t cursorFirstSample_ = 1;
    uint32_t cursorEntryIndex_ = 1;
};

// "stsc": runs of chunks with the same number of samples.
class CSampleToChunkBox : public CCountedTableBox<CSampleToChunkTableEntry> {
public:
    // The chunk holding a 1-based sample. 5 when the run it falls in has
    // zero samples per chunk.
    MP4Err getChunkForSample(uint32_t sample, uint32_t* chunk);
    // The 1-based number of the first sample of a chunk.
    MP4Err getFirstSampleOfChunk(uint32_t chunk, uint32_t* sample);
    // Fields of the run a chunk belongs to; 0 when no run starts at or
    // before it.
    MP4Err getSamplesPerChunk(uint32_t chunk, uint32_t* samplesPerChunk);
    MP4Err getSampleDescriptionIndex(uint32_t chunk, uint32_t* index);
    // Whether the first chunks of the entries never decrease (every
    // well-formed table).
    bool firstChunksAscend() const { return firstChunksAscend_; }

    // Building: records chunk k (which must be the next chunk, else 2)
    // holding samplesPerChunk samples of a sample description (1 unless
    // given). A new entry is added only when the run changes.
    MP4Err addChunk(uint32_t chunk, uint32_t samplesPerChunk, uint32_t descriptionIndex = 1);

private:
    // A position in the table: an entry and the first chunk and first
    // sample of its run.
    struct RunPosition {
        uint32_t entryIndex;
        uint32_t firstChunk;
        uint32_t firstSample;
    };

    // The chunk-keyed walk: from its start entry, forwards while the next
    // entry's first chunk is <= chunk. Gives the entry reached (the start
    // entry itself when even that one begins after the chunk) and the first
    // sample of its run; 3 for an empty table.
    MP4Err walkToChunk(uint32_t chunk, CSampleToChunkTableEntry** entry, uint32_t* firstSample);
    void willAppend(const CSampleToChunkTableEntry& entry) override;
    void entriesRead() override;

    // Set by getChunkForSample; while building, cursorFirstChunk_ is the
    // number the next chunk must carry.
    uint32_t cursorEntryIndex_ = 1;
    uint32_t cursorFirstChunk_ = 1;
    uint32_t cursorFirstSample_ = 1;
    // The chunk-keyed lookups leave the cursor alone; they keep their own
    // position so that visiting chunks in order stays cheap. It is used only
    // while first chunks never decrease, where every start gives the same
    // answer.
    RunPosition chunkPosition_{0, 0, 0};
    bool firstChunksAscend_ = true;
};

// "stsz": one constant size, or a size per sample.
class CSampleSizeBox : public CFieldBox<CSampleSizeBox, CFullBox> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    // Size of a 1-based sample: 3 beyond the sample count, the constant
    // size when there is one, 17 for sample 0, else its entry.
    MP4Err getSampleSize(uint32_t sample, uint32_t* size);
    MP4Err getEntry(uint32_t index, CSampleSizeTableEntry** entry) { return entries.getEntry(index, entry); }

    // Building: sample must be sampleCount + 1 and size non-zero (else 2).
    // Equal sizes keep the constant form; the first different size writes
    // out an entry per earlier sample.
    MP4Err addSampleSize(uint32_t sample, uint32_t size);
    // Copying: as addSampleSize, but a size of 0 (a read sample without
    // bytes) is taken as it is.
    MP4Err appendSampleSize(uint32_t size);

    uint32_t sampleSize = 0;  // non-zero: every sample has this size
    uint32_t sampleCount = 0;
    CDataList<CSampleSizeTableEntry> entries;
};

// "stco": 32-bit chunk offsets.
class CChunkOffsetBox : public CCountedTableBox<CChunkOffsetTableEntry> {
public:
    // Building: chunk must be entryCount + 1 (else 2); the size grows by 4.
    MP4Err addChunkOffset(uint32_t chunk, uint32_t offset);
    // Adds delta to every offset, wrapping in 32 bits.
    MP4Err shiftOffsets(int32_t delta);
};

// "co64": 64-bit chunk offsets.
class CChunkLargeOffsetBox : public CCountedTableBox<CChunkLargeOffsetTableEntry> {
public:
    // Building: chunk must be entryCount + 1 (else 2); the size grows by 8.
    MP4Err addChunkOffset(uint32_t chunk, uint64_t offset);
    // Appends every offset of a 32-bit table, in order, widened.
    MP4Err copyFromChunkOffsets(CChunkOffsetBox* source);
    // Adds the sign-extended delta to every offset.
    MP4Err shiftOffsets(int32_t delta);
};

// "stss": the sync samples, ascending. Without this box every sample is a
// sync sample.
class CSyncSampleBox : public CCountedTableBox<CSyncSampleTableEntry> {
public:
    // The greatest listed sample number <= sample; 3 when the list is empty
    // or starts after it.
    MP4Err getPreviousSyncSample(uint32_t sample, uint32_t* syncSample);
    // Whether the sample numbers never decrease (every well-formed table).
    bool numbersAscend() const { return numbersAscend_; }

    // Building: appends a sample number.
    MP4Err addSyncSample(uint32_t sample);

private:
    void willAppend(const CSyncSampleTableEntry& entry) override;
    void entriesRead() override;

    // Index of the entry the last lookup answered, to resume ascending
    // lookups there. Used only while the numbers never decrease.
    uint32_t lastFoundIndex_ = 0;
    bool numbersAscend_ = true;
};

// "elst": the edit list; 64-bit fields in version 1, 32-bit otherwise.
class CEditListBox : public CFieldBox<CEditListBox, CFullBox> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    MP4Err getEntry(uint32_t index, CEditListTableEntry** entry) { return entries.getEntry(index, entry); }
    // Building: appends and counts an entry.
    MP4Err addEntry(const CEditListTableEntry& entry);

    uint32_t entryCount = 0;
    CDataList<CEditListTableEntry> entries;
};

// "edts": container of the edit list. Grows by each added child's size.
class CEditBox : public CContainerBox {
public:
    // Movie-timescale duration of a leading empty edit: the first edit with
    // a non-zero duration, when it is empty. 0 otherwise or without "elst".
    MP4Err getInitialDelay(uint64_t* delay);
    // Media time of the first edit with a non-zero duration (0 when there
    // is none, or without "elst"); an empty edit gives (uint64_t)-1.
    MP4Err getFirstMediaTime(uint64_t* mediaTime);
    // Media time at which presentation starts: that of the first non-empty
    // edit with a non-zero duration, else of the first non-empty edit; 0
    // when there is none or without "elst". *duration: that edit's segment
    // duration (movie time scale).
    MP4Err getPresentedMediaTime(int64_t* mediaTime, uint64_t* duration);

protected:
    bool growsOnAddChild() const override { return true; }

private:
    // The first edit with a non-zero duration, or null.
    MP4Err firstTimedEdit(CEditListTableEntry** edit);
};

// "stbl": container of the sample description and the tables. Written
// child by child so that a "saio" after a "senc" points at the
// information where "senc" is written now (a copied or moved track).
class CSampleTableBox : public CContainerBox {
public:
    MP4Err write(CStorage* storage) override;
};

}  // namespace quil

#endif
