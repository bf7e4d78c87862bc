// The entry list and the sample table boxes: reading, writing, sizes,
// dumps, lookups and the building operations used while writing.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "boxes/BoxFactory.h"
#include "boxes/DataList.h"
#include "track/SampleTables.h"
#include "track/SampleTimes.h"

namespace quil {
namespace {

using test::box;
using test::ByteWriter;
using test::Bytes;
using test::concat;
using test::fullBox;
using test::MemoryFile;
using test::readTree;
using test::writeTree;
using test::as;

std::string dumpOf(CBox* b, int32_t depth) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(b->dump(depth), MP4_OK);
    return testing::internal::GetCapturedStdout();
}

Bytes counted(const char* type, std::initializer_list<uint32_t> words, uint32_t count, uint8_t version = 0) {
    ByteWriter w;
    w.u32(count);
    for (uint32_t v : words) w.u32(v);
    return fullBox(type, version, 0, w);
}

Bytes editList(uint8_t version, std::initializer_list<std::vector<uint64_t>> edits) {
    ByteWriter w;
    w.u32(static_cast<uint32_t>(edits.size()));
    for (const auto& e : edits) {
        if (version == 1) w.u64(e[0]).u64(e[1]);
        else w.u32(static_cast<uint32_t>(e[0])).u32(static_cast<uint32_t>(e[1]));
        w.u16(static_cast<uint32_t>(e[2])).u16(static_cast<uint32_t>(e[3]));
    }
    return fullBox("elst", version, 0, w);
}

// ---------------------------------------------------------------------------

TEST(DataList, GrowsByWholeNodesAndFindsEntriesInAnyOrder) {
    CDataList<CSyncSampleTableEntry> list;
    CSyncSampleTableEntry* entry = nullptr;
    EXPECT_EQ(list.getEntry(1, &entry), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(list.last(), nullptr);
    for (uint32_t i = 1; i <= 250; ++i) ASSERT_EQ(list.append(CSyncSampleTableEntry{i * 7}), MP4_OK);
    EXPECT_EQ(list.count(), 250u);
    for (uint32_t index : {101u, 150u, 120u, 30u, 250u, 1u, 100u, 201u, 200u}) {
        ASSERT_EQ(list.getEntry(index, &entry), MP4_OK) << index;
        EXPECT_EQ(entry->sampleNumber, index * 7) << index;
    }
    EXPECT_EQ(list.getEntry(251, &entry), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(list.getEntry(0, &entry), MP4_ERR_BAD_INDEX);

    EXPECT_EQ(list.last()->sampleNumber, 250u * 7);
}

TEST(DataList, ClearFreesOwnedEntriesAndStartsAgainAtOne) {
    CDataList<CChunkSampleEntry> list(0);  // falls back to blocks of 100
    for (uint32_t i = 0; i < 150; ++i) {
        CChunkSampleEntry sample;
        sample.size = i;
        sample.data.reset(new uint8_t[16]);
        ASSERT_EQ(list.append(std::move(sample)), MP4_OK);
    }
    CChunkSampleEntry* entry = nullptr;
    ASSERT_EQ(list.getEntry(120, &entry), MP4_OK);
    EXPECT_EQ(entry->size, 119u);
    EXPECT_NE(entry->data, nullptr);

    list.clear();
    EXPECT_EQ(list.count(), 0u);
    EXPECT_EQ(list.getEntry(1, &entry), MP4_ERR_NOT_AVAILABLE);
    CChunkSampleEntry again;
    again.size = 42;
    ASSERT_EQ(list.append(std::move(again)), MP4_OK);
    ASSERT_EQ(list.getEntry(1, &entry), MP4_OK);
    EXPECT_EQ(entry->size, 42u);

    // 20,000 one-entry nodes: a recursive free would go as deep.
    CDataList<CSyncSampleTableEntry> chain(1);
    for (uint32_t i = 1; i <= 20000; ++i) ASSERT_EQ(chain.append(CSyncSampleTableEntry{i}), MP4_OK);
}

// ---------------------------------------------------------------------------

struct Fixture {
    const char* name;
    Bytes bytes;
};

TEST(SampleTableBoxes, EveryTableWritesBackTheBytesItRead) {
    const std::vector<Fixture> fixtures = {
        {"stts", counted("stts", {3, 10, 2, 20}, 2)},
        {"ctts", counted("ctts", {1, 0, 2, 0xFFFFFFFB}, 2)},
        {"stsc", counted("stsc", {1, 3, 1, 3, 2, 2}, 2)},
        {"stsz table", fullBox("stsz", 0, 0, ByteWriter().u32(0).u32(3).u32(10).u32(11).u32(12))},
        {"stsz constant", fullBox("stsz", 0, 0, ByteWriter().u32(512).u32(1000))},
        {"stco", counted("stco", {48, 1000, 0xFFFFFFF0}, 3)},
        {"co64", fullBox("co64", 0, 0, ByteWriter().u32(2).u64(48).u64(0x123456789ull))},
        {"stss", counted("stss", {1, 31, 61}, 3)},
        {"stss empty", counted("stss", {}, 0)},
        {"elst v0", editList(0, {{600, 0xFFFFFFFF, 1, 0}, {1000, 1024, 1, 0}})},
        {"elst v1", editList(1, {{0x100000000ull, 0xFFFFFFFFFFFFFFFFull, 1, 0}, {5, 7, 0xFFFF, 2}})},
        {"edts", box("edts", editList(0, {{600, 0, 1, 0}}))},
        {"stbl", box("stbl", concat({counted("stts", {1, 1}, 1), counted("stss", {1}, 1)}))},
        {"flags kept", fullBox("stco", 0, 0xABCDEF, ByteWriter().u32(1).u32(9))},
    };
    for (const Fixture& f : fixtures) {
        MP4Err err = MP4_ERR_IO;
        uint32_t position = 0;
        auto b = readTree(f.bytes, &err, &position);
        ASSERT_EQ(err, MP4_OK) << f.name;
        ASSERT_NE(b, nullptr) << f.name;
        EXPECT_EQ(position, f.bytes.size()) << f.name;
        EXPECT_EQ(b->remaining, 0u) << f.name;
        Bytes written = writeTree(b.get(), &err);
        EXPECT_EQ(err, MP4_OK) << f.name;
        EXPECT_EQ(b->size, f.bytes.size()) << f.name;
        EXPECT_EQ(written, f.bytes) << f.name;
    }
    // The other classes are checked by their lookup tests.
    EXPECT_NE(as<CChunkLargeOffsetBox>(readTree(fixtures[6].bytes)), nullptr);
    EXPECT_NE(as<CSampleTableBox>(readTree(fixtures[12].bytes)), nullptr);
}

TEST(SampleTableBoxes, WritingFailsWhenEntriesAreMissing) {
    CChunkOffsetBox stco;
    stco.type = fourcc("stco");
    stco.entryCount = 2;  // no entries behind the count
    MP4Err err = MP4_OK;
    writeTree(&stco, &err);
    EXPECT_EQ(err, MP4_ERR_NOT_AVAILABLE);

    CSampleSizeBox stsz;
    stsz.type = fourcc("stsz");
    stsz.sampleCount = 1;
    writeTree(&stsz, &err);
    EXPECT_EQ(err, MP4_ERR_NOT_AVAILABLE);
    stsz.sampleSize = 4;  // constant form: no entries needed
    EXPECT_EQ(writeTree(&stsz, &err).size(), 20u);
    EXPECT_EQ(err, MP4_OK);
}

// A count larger than the box: the box keeps only what it holds, and the
// outcome is the one reading the whole count would give.
TEST(SampleTableBoxes, DamagedCountKeepsWhatTheBoxHolds) {
    const Bytes badStsz = fullBox("stsz", 0, 0, ByteWriter().u32(0).u32(75).u32(1).u32(2).u32(3));
    const Bytes stco = counted("stco", {100}, 1);

    // Followed by a sibling: the box survives and the sibling is still read.
    auto stbl = readTree(box("stbl", concat({badStsz, stco})));
    ASSERT_NE(stbl, nullptr);
    CBox* child = nullptr;
    ASSERT_EQ(stbl->findChild(fourcc("stsz"), &child), MP4_OK);
    auto* stsz = dynamic_cast<CSampleSizeBox*>(child);
    ASSERT_NE(stsz, nullptr);
    EXPECT_EQ(stsz->sampleCount, 75u);
    EXPECT_EQ(stsz->entries.count(), 3u);
    uint32_t size = 0;
    EXPECT_EQ(stsz->getSampleSize(3, &size), MP4_OK);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(stsz->getSampleSize(4, &size), MP4_ERR_NOT_AVAILABLE);
    ASSERT_EQ(stbl->findChild(fourcc("stco"), &child), MP4_OK);
    EXPECT_EQ(dynamic_cast<CChunkOffsetBox*>(child)->entryCount, 1u);

    // At the end of the storage: the box ends where it ends, with what it holds.
    MP4Err err = MP4_OK;
    auto alone = readTree(badStsz, &err);
    ASSERT_NE(alone, nullptr);
    EXPECT_EQ(err, MP4_OK);
    EXPECT_EQ(as<CSampleSizeBox>(alone)->entries.count(), 3u);

    // A count of 4 billion in a small box allocates nothing beyond the box.
    auto huge = readTree(concat({counted("stts", {1, 1}, 0xFFFFFFFF), Bytes(64)}));
    ASSERT_NE(huge, nullptr);
    EXPECT_EQ(as<CTimeToSampleBox>(huge)->entries.count(), 1u);
}

TEST(SampleTableBoxes, DumpsCountsAndEditLines) {
    auto stts = readTree(counted("stts", {3, 10}, 1));
    EXPECT_EQ(dumpOf(stts.get(), 0),
              "\nBox type = stts  Size = 24\nVersion = 0, Flags = 0x000000\nEntry count = 1\n");

    auto stsz = readTree(fullBox("stsz", 0, 1, ByteWriter().u32(0).u32(2).u32(5).u32(6)));
    EXPECT_EQ(dumpOf(stsz.get(), 1),
              "\n  Box type = stsz  Size = 28\n  Version = 0, Flags = 0x000001\n"
              "  Sample Size = 0\n  Entry Count = 2\n");

    // Version 0 fields are widened: the duration unsigned, the time signed.
    auto elst = readTree(editList(0, {{478, 0xFFFFFFFF, 1, 0}, {0xFFFFFFFF, 1024, 0xFFFF, 0x8000}}));
    EXPECT_EQ(dumpOf(elst.get(), 1),
              "\n  Box type = elst  Size = 40\n  Version = 0, Flags = 0x000000\n  Entry count = 2\n"
              "    Seg. duration =      478, Media time =    -1, Media rate =    1, Media rate frac =     0\n"
              "    Seg. duration = 4294967295, Media time =  1024, Media rate =   -1, Media rate frac = -32768\n");

    auto edts = readTree(box("edts", counted("stco", {}, 0)));
    EXPECT_EQ(dumpOf(edts.get(), 0),
              "\nBox type = edts  Size = 24\n{\n"
              "  Box type = stco  Size = 16\n  Version = 0, Flags = 0x000000\n  Entry count = 0\n}\n");
}

// ---------------------------------------------------------------------------

TEST(TimeToSample, GivesDecodeTimesAndTheTotalOnePastTheEnd) {
    auto b = readTree(counted("stts", {3, 10, 2, 20}, 2));
    auto* stts = as<CTimeToSampleBox>(b);
    ASSERT_NE(stts, nullptr);
    uint64_t time = 0;
    const uint64_t expected[] = {0, 0, 10, 20, 30, 50};
    for (uint32_t sample = 1; sample <= 5; ++sample) {
        ASSERT_EQ(stts->getSampleTime(sample, &time), MP4_OK) << sample;
        EXPECT_EQ(time, expected[sample]) << sample;
    }
    EXPECT_EQ(stts->getSampleTime(6, &time), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(time, 70u);  // the total duration
    EXPECT_EQ(stts->getSampleTime(7, &time), MP4_ERR_NOT_AVAILABLE);
    // Backwards restarts from the first entry.
    ASSERT_EQ(stts->getSampleTime(2, &time), MP4_OK);
    EXPECT_EQ(time, 10u);
    ASSERT_EQ(stts->getSampleTime(4, &time), MP4_OK);
    EXPECT_EQ(time, 30u);
    EXPECT_EQ(stts->getSampleTime(0, &time), MP4_ERR_BAD_INDEX);
    EXPECT_EQ(stts->getTotalDuration(&time), MP4_OK);
    EXPECT_EQ(time, 70u);

    // A fresh table is walked from sample 1 only.
    auto fresh = readTree(counted("stts", {3, 10}, 1));
    EXPECT_EQ(as<CTimeToSampleBox>(fresh)->getSampleTime(2, &time), MP4_ERR_BAD_INDEX);
}

TEST(TimeToSample, TimesPass32Bits) {
    uint64_t time = 0;
    // 13.3 hours at 90 kHz with one-second samples.
    auto b = readTree(counted("stts", {100000, 90000}, 1));
    auto* stts = as<CTimeToSampleBox>(b);
    ASSERT_EQ(stts->getSampleTime(1, &time), MP4_OK);
    ASSERT_EQ(stts->getSampleTime(60000, &time), MP4_OK);
    EXPECT_EQ(time, 59999ull * 90000);
}

TEST(CompositionOffsets, FindsTheCoveringEntryInEitherDirection) {
    auto b = readTree(counted("ctts", {1, 0, 2, 0xFFFFFFFB, 0, 9, 1, 7}, 4));
    auto* ctts = as<CCompositionOffsetBox>(b);
    ASSERT_NE(ctts, nullptr);
    uint32_t offset = 1;
    const uint32_t expected[] = {0, 0, 0xFFFFFFFB, 0xFFFFFFFB, 7};
    for (uint32_t sample : {1u, 2u, 3u, 4u, 2u, 1u, 4u}) {
        ASSERT_EQ(ctts->getCompositionOffset(sample, &offset), MP4_OK) << sample;
        EXPECT_EQ(offset, expected[sample]) << sample;
    }
    EXPECT_EQ(ctts->getCompositionOffset(5, &offset), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(ctts->getCompositionOffset(0, &offset), MP4_ERR_BAD_INDEX);
}

// Chunks 1-2 hold 3 samples (1-6), chunks 3-5 hold 2 (7-12), chunk 6 on
// holds 1 (13...), with sample descriptions 1, 2, 1.
Bytes threeRuns() { return counted("stsc", {1, 3, 1, 3, 2, 2, 6, 1, 1}, 3); }

uint32_t expectedChunk(uint32_t sample) {
    if (sample <= 6) return (sample - 1) / 3 + 1;
    if (sample <= 12) return (sample - 7) / 2 + 3;
    return sample - 13 + 6;
}

uint32_t expectedFirstSample(uint32_t chunk) {
    if (chunk <= 2) return (chunk - 1) * 3 + 1;
    if (chunk <= 5) return (chunk - 3) * 2 + 7;
    return chunk - 6 + 13;
}

TEST(SampleToChunk, MapsSamplesToChunksAcrossRunsAndPastTheLastEntry) {
    auto b = readTree(threeRuns());
    auto* stsc = as<CSampleToChunkBox>(b);
    ASSERT_NE(stsc, nullptr);
    uint32_t chunk = 0;
    std::vector<uint32_t> order;
    for (uint32_t s = 1; s <= 30; ++s) order.push_back(s);
    for (uint32_t s : {12u, 7u, 6u, 1u, 13u, 5u, 25u, 4u}) order.push_back(s);
    for (uint32_t sample : order) {
        ASSERT_EQ(stsc->getChunkForSample(sample, &chunk), MP4_OK) << sample;
        EXPECT_EQ(chunk, expectedChunk(sample)) << sample;
    }
    EXPECT_EQ(stsc->getChunkForSample(0, &chunk), MP4_ERR_BAD_INDEX);
}

TEST(SampleToChunk, ChunkLookupsAgreeInAnyOrderAndWithTheSampleCursor) {
    auto b = readTree(threeRuns());
    auto* stsc = as<CSampleToChunkBox>(b);
    std::vector<uint32_t> order;
    for (uint32_t c = 1; c <= 12; ++c) order.push_back(c);
    for (uint32_t c : {5u, 2u, 9u, 1u, 6u, 3u}) order.push_back(c);
    uint32_t sample = 0, perChunk = 0, description = 0, chunk = 0;
    for (uint32_t c : order) {
        ASSERT_EQ(stsc->getFirstSampleOfChunk(c, &sample), MP4_OK) << c;
        EXPECT_EQ(sample, expectedFirstSample(c)) << c;
        ASSERT_EQ(stsc->getSamplesPerChunk(c, &perChunk), MP4_OK);
        EXPECT_EQ(perChunk, c <= 2 ? 3u : c <= 5 ? 2u : 1u) << c;
        ASSERT_EQ(stsc->getSampleDescriptionIndex(c, &description), MP4_OK);
        EXPECT_EQ(description, (c >= 3 && c <= 5) ? 2u : 1u) << c;
        // Moving the shared cursor between lookups changes nothing.
        ASSERT_EQ(stsc->getChunkForSample(expectedFirstSample(c) + (c % 2), &chunk), MP4_OK);
    }
    EXPECT_EQ(stsc->getFirstSampleOfChunk(0, &sample), MP4_ERR_BAD_INDEX);
}

TEST(SampleToChunk, ZeroSamplesPerChunkAndEmptyTables) {
    auto zero = readTree(counted("stsc", {1, 0, 1}, 1));
    uint32_t chunk = 0;
    EXPECT_EQ(as<CSampleToChunkBox>(zero)->getChunkForSample(1, &chunk), MP4_ERR_INVALID_DATA);

    auto empty = readTree(counted("stsc", {}, 0));
    auto* stsc = as<CSampleToChunkBox>(empty);
    uint32_t value = 9;
    EXPECT_EQ(stsc->getChunkForSample(1, &value), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(stsc->getFirstSampleOfChunk(1, &value), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(stsc->getSamplesPerChunk(1, &value), MP4_OK);
    EXPECT_EQ(value, 0u);

    // A table whose first run starts after the chunk asked about.
    auto late = readTree(counted("stsc", {4, 2, 1}, 1));
    EXPECT_EQ(as<CSampleToChunkBox>(late)->getSamplesPerChunk(2, &value), MP4_OK);
    EXPECT_EQ(value, 0u);
}

// Damaged tables whose first chunks go backwards are walked from the shared
// cursor every time, never from a remembered later position.
TEST(SampleToChunk, FirstChunksGoingBackwardsAreWalkedFromTheStart) {
    auto b = readTree(counted("stsc", {1, 2, 1, 5, 3, 1, 2, 4, 1}, 3));
    auto* stsc = as<CSampleToChunkBox>(b);
    uint32_t sample = 0;
    // Chunk 6 walks all three entries: 1 + 4 x 2 + (2 - 5) x 3 wraps to 0.
    ASSERT_EQ(stsc->getFirstSampleOfChunk(6, &sample), MP4_OK);
    EXPECT_EQ(sample, 16u);
    // Chunk 4 stops at the second entry (5 > 4) from entry 1.
    ASSERT_EQ(stsc->getFirstSampleOfChunk(4, &sample), MP4_OK);
    EXPECT_EQ(sample, 7u);
}

TEST(SyncSamples, FindThePreviousSyncSample) {
    auto b = readTree(counted("stss", {1, 31, 61}, 3));
    auto* stss = as<CSyncSampleBox>(b);
    ASSERT_NE(stss, nullptr);
    uint32_t sync = 0;
    const std::pair<uint32_t, uint32_t> cases[] = {{1, 1}, {30, 1}, {31, 31}, {40, 31}, {100, 61},
                                                   {30, 1}, {61, 61}, {60, 31}};
    for (const auto& c : cases) {
        ASSERT_EQ(stss->getPreviousSyncSample(c.first, &sync), MP4_OK) << c.first;
        EXPECT_EQ(sync, c.second) << c.first;
    }

    auto late = readTree(counted("stss", {5, 9}, 2));
    EXPECT_EQ(as<CSyncSampleBox>(late)->getPreviousSyncSample(3, &sync), MP4_ERR_NOT_AVAILABLE);
    auto empty = readTree(counted("stss", {}, 0));
    EXPECT_EQ(as<CSyncSampleBox>(empty)->getPreviousSyncSample(3, &sync), MP4_ERR_NOT_AVAILABLE);

    // Out of order: the greatest number before the first one past the sample.
    auto unordered = readTree(counted("stss", {10, 5, 20, 11}, 4));
    ASSERT_EQ(as<CSyncSampleBox>(unordered)->getPreviousSyncSample(12, &sync), MP4_OK);
    EXPECT_EQ(sync, 10u);
}

TEST(EditBox, InitialDelayAndFirstMediaTime) {
    struct Case {
        Bytes edts;
        uint64_t delay;
        uint64_t mediaTime;
    };
    const Case cases[] = {
        // A leading empty edit read from version 0's 0xFFFFFFFF.
        {box("edts", editList(0, {{600, 0xFFFFFFFF, 1, 0}, {1000, 0, 1, 0}})), 600, UINT64_MAX},
        // Zero-length edits before the first real one are passed over.
        {box("edts", editList(1, {{0, 0xFFFFFFFFFFFFFFFFull, 1, 0}, {500, 1024, 1, 0}})), 0, 1024},
        {box("edts", editList(0, {{0, 5, 1, 0}})), 0, 0},
        {box("edts", {}), 0, 0},
    };
    for (const Case& c : cases) {
        auto b = readTree(c.edts);
        auto* edts = as<CEditBox>(b);
        ASSERT_NE(edts, nullptr);
        uint64_t value = 7;
        ASSERT_EQ(edts->getInitialDelay(&value), MP4_OK);
        EXPECT_EQ(value, c.delay);
        ASSERT_EQ(edts->getFirstMediaTime(&value), MP4_OK);
        EXPECT_EQ(value, c.mediaTime);
    }
}

TEST(EditBox, GrowsByEachAddedChild) {
    CEditBox edts;
    edts.type = fourcc("edts");
    ASSERT_EQ(edts.calculateSize(), MP4_OK);
    auto* elst = new CEditListBox;
    elst->type = fourcc("elst");
    elst->addEntry(CEditListTableEntry{300, -1, 1, 0});
    elst->calculateSize();
    ASSERT_EQ(edts.addChild(elst), MP4_OK);
    EXPECT_EQ(edts.size, 8u + 28);
    uint64_t delay = 0;
    ASSERT_EQ(edts.getInitialDelay(&delay), MP4_OK);
    EXPECT_EQ(delay, 300u);
}

// ---------------------------------------------------------------------------

TEST(TableBuilding, SampleSizesStayConstantUntilOneDiffers) {
    CSampleSizeBox same;
    same.type = fourcc("stsz");
    for (uint32_t i = 1; i <= 3; ++i) ASSERT_EQ(same.addSampleSize(i, 10), MP4_OK);
    EXPECT_EQ(same.entries.count(), 0u);
    EXPECT_EQ(writeTree(&same), fullBox("stsz", 0, 0, ByteWriter().u32(10).u32(3)));

    CSampleSizeBox mixed;
    mixed.type = fourcc("stsz");
    for (uint32_t size : {10u, 10u, 12u}) ASSERT_EQ(mixed.addSampleSize(mixed.sampleCount + 1, size), MP4_OK);
    EXPECT_EQ(writeTree(&mixed), fullBox("stsz", 0, 0, ByteWriter().u32(0).u32(3).u32(10).u32(10).u32(12)));
    uint32_t size = 0;
    ASSERT_EQ(mixed.getSampleSize(3, &size), MP4_OK);
    EXPECT_EQ(size, 12u);

    EXPECT_EQ(mixed.addSampleSize(5, 10), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(mixed.addSampleSize(4, 0), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(mixed.sampleCount, 3u);
}

TEST(TableBuilding, DecodeTimesBecomeRunsOfDeltas) {
    CTimeToSampleBox stts;
    stts.type = fourcc("stts");
    EXPECT_EQ(stts.finishSampleTimes(), MP4_ERR_BAD_INDEX);  // no sample yet
    uint32_t n = 1;
    for (uint64_t t : {0u, 10u, 20u, 40u}) ASSERT_EQ(stts.addSampleTime(n++, t), MP4_OK);
    EXPECT_EQ(stts.addSampleTime(6, 50), MP4_ERR_INVALID_ARGUMENT);
    // A repeated time becomes a delta of 2, and the next delta counts from there.
    ASSERT_EQ(stts.addSampleTime(n++, 40), MP4_OK);
    ASSERT_EQ(stts.addSampleTime(n++, 45), MP4_OK);
    EXPECT_EQ(stts.addSampleTime(n, 45 + 0x100000000ull + 5), MP4_ERR_BAD_TIME);
    ASSERT_EQ(stts.finishSampleTimes(), MP4_OK);
    EXPECT_EQ(writeTree(&stts), counted("stts", {2, 10, 1, 20, 1, 2, 2, 3}, 4));

    CTimeToSampleBox single;
    single.type = fourcc("stts");
    ASSERT_EQ(single.addSampleTime(1, 1000), MP4_OK);
    ASSERT_EQ(single.finishSampleTimes(), MP4_OK);
    EXPECT_EQ(writeTree(&single), counted("stts", {1, 1}, 1));
}

TEST(TableBuilding, CompositionOffsetsMergeEqualNeighbours) {
    CCompositionOffsetBox ctts;
    ctts.type = fourcc("ctts");
    uint32_t n = 1;
    for (uint32_t offset : {0u, 0u, 5u, 5u, 0u}) ASSERT_EQ(ctts.addCompositionOffset(n++, offset), MP4_OK);
    EXPECT_EQ(ctts.addCompositionOffset(7, 0), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(writeTree(&ctts), counted("ctts", {2, 0, 2, 5, 1, 0}, 3));
}

TEST(TableBuilding, ChunksAndSyncSamplesAppendInOrder) {
    CSampleToChunkBox stsc;
    stsc.type = fourcc("stsc");
    ASSERT_EQ(stsc.addChunk(1, 100), MP4_OK);
    ASSERT_EQ(stsc.addChunk(2, 100), MP4_OK);
    EXPECT_EQ(stsc.addChunk(4, 50), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(stsc.addChunk(3, 50), MP4_OK);
    EXPECT_EQ(writeTree(&stsc), counted("stsc", {1, 100, 1, 3, 50, 1}, 2));

    CSyncSampleBox stss;
    stss.type = fourcc("stss");
    ASSERT_EQ(stss.addSyncSample(1), MP4_OK);
    ASSERT_EQ(stss.addSyncSample(31), MP4_OK);
    EXPECT_EQ(writeTree(&stss), counted("stss", {1, 31}, 2));
}

TEST(TableBuilding, ChunkOffsetsWidenAndShift) {
    CChunkOffsetBox stco;
    stco.type = fourcc("stco");
    ASSERT_EQ(stco.calculateSize(), MP4_OK);
    ASSERT_EQ(stco.addChunkOffset(1, 48), MP4_OK);
    EXPECT_EQ(stco.addChunkOffset(3, 96), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(stco.addChunkOffset(2, 0xFFFFFFF0u), MP4_OK);
    EXPECT_EQ(stco.size, 16u + 8);

    CChunkLargeOffsetBox co64;
    co64.type = fourcc("co64");
    ASSERT_EQ(co64.calculateSize(), MP4_OK);
    ASSERT_EQ(co64.copyFromChunkOffsets(&stco), MP4_OK);
    ASSERT_EQ(co64.addChunkOffset(3, 0x100000000ull), MP4_OK);
    EXPECT_EQ(co64.size, 16u + 24);
    EXPECT_EQ(co64.copyFromChunkOffsets(nullptr), MP4_ERR_INVALID_ARGUMENT);

    ASSERT_EQ(stco.shiftOffsets(0x20), MP4_OK);  // the second offset wraps
    EXPECT_EQ(writeTree(&stco), counted("stco", {0x50, 0x10}, 2));
    ASSERT_EQ(co64.shiftOffsets(-0x10), MP4_OK);
    EXPECT_EQ(writeTree(&co64),
              fullBox("co64", 0, 0, ByteWriter().u32(3).u64(0x20).u64(0xFFFFFFE0u).u64(0xFFFFFFF0u)));
}

// ---------------------------------------------------------------------------

TEST(SampleTablePerformance, LargeTablesReadAndWalkInLinearTime) {
    const uint32_t count = 500000;
    ByteWriter sizes, deltas;
    sizes.u32(0).u32(count);
    deltas.u32(count);
    for (uint32_t i = 0; i < count; ++i) {
        sizes.u32(i);
        deltas.u32(1).u32(i % 7 + 1);  // one entry per sample: the worst case
    }
    auto stszBox = readTree(fullBox("stsz", 0, 0, sizes));
    auto sttsBox = readTree(fullBox("stts", 0, 0, deltas));
    auto* stsz = as<CSampleSizeBox>(stszBox);
    auto* stts = as<CTimeToSampleBox>(sttsBox);
    ASSERT_NE(stsz, nullptr);
    ASSERT_NE(stts, nullptr);
    ASSERT_EQ(stsz->entries.count(), count);
    uint64_t expectedTime = 0;
    for (uint32_t sample = 1; sample <= count; ++sample) {
        uint32_t size = 0;
        uint64_t time = 0;
        ASSERT_EQ(stsz->getSampleSize(sample, &size), MP4_OK);
        ASSERT_EQ(size, sample - 1);
        ASSERT_EQ(stts->getSampleTime(sample, &time), MP4_OK);
        ASSERT_EQ(time, expectedTime);
        expectedTime += (sample - 1) % 7 + 1;
    }
}

// ---------------------------------------------------------------------------
// Time runs: samples added a run at a time answer as the same samples added
// one by one.

struct TimeRun {
    uint64_t decode;
    uint32_t step;
    uint32_t count;
    int32_t offset;
};

struct TimeRunCase {
    const char* name;
    std::vector<TimeRun> runs;
};

class TimeRuns : public testing::TestWithParam<TimeRunCase> {};

TEST_P(TimeRuns, AnswerAsSamplesAddedOneByOne) {
    const auto& runs = GetParam().runs;
    size_t samples = 0;
    for (const TimeRun& run : runs) samples += run.count;
    CSampleTimes byRun, bySample;
    // Few offset runs keep runs; as many as samples make a byte per sample.
    for (CSampleTimes* times : {&byRun, &bySample}) {
        ASSERT_EQ(times->reserve(runs.size(), runs.size(), samples), MP4_OK);
    }
    for (const TimeRun& run : runs) {
        ASSERT_EQ(byRun.appendRun(run.decode, run.step, run.count, run.offset), MP4_OK);
        for (uint32_t k = 0; k < run.count; ++k) {
            const uint64_t decode = run.decode + uint64_t{k} * run.step;
            ASSERT_EQ(bySample.append(decode, decode + static_cast<uint64_t>(int64_t{run.offset})), MP4_OK);
        }
    }
    ASSERT_EQ(byRun.count(), bySample.count());
    const uint32_t count = byRun.count();
    // Forwards, then backwards: the cursors must not leak between answers.
    for (uint32_t pass = 0; pass < 2; ++pass) {
        for (uint32_t i = 1; i <= count; ++i) {
            const uint32_t s = pass == 0 ? i : count + 1 - i;
            ASSERT_EQ(byRun.decodeTime(s), bySample.decodeTime(s)) << "sample " << s;
            ASSERT_EQ(byRun.compositionTime(s), bySample.compositionTime(s)) << "sample " << s;
        }
    }
    for (uint32_t s = 1; s <= count; s += 1 + count / 64) {
        for (int64_t nudge : {-1, 0, 1}) {
            const uint64_t time = bySample.compositionTime(s) + static_cast<uint64_t>(nudge);
            EXPECT_EQ(byRun.latestPresentedBy(time), bySample.latestPresentedBy(time)) << time;
            EXPECT_EQ(byRun.firstDecodedAtOrAfter(s, time), bySample.firstDecodedAtOrAfter(s, time));
            EXPECT_EQ(byRun.firstDecodedAtOrAfter(1, time), bySample.firstDecodedAtOrAfter(1, time));
        }
    }
}

std::vector<TimeRun> bFramePattern(uint32_t groups, uint32_t distinct) {
    std::vector<TimeRun> runs;
    for (uint32_t g = 0; g < groups; ++g) {
        const uint64_t at = uint64_t{g} * 3 * 512;
        runs.push_back({at, 512, 1, static_cast<int32_t>(1024 + 512 * (g % distinct))});
        runs.push_back({at + 512, 512, 2, g % 2 ? -512 : 0});
    }
    return runs;
}

INSTANTIATE_TEST_SUITE_P(
    SampleTimes, TimeRuns,
    testing::Values(
        TimeRunCase{"one_run", {{0, 1024, 500, 0}}},
        TimeRunCase{"runs_that_continue_each_other", {{0, 10, 3, 5}, {30, 10, 4, 5}, {70, 10, 1, 7}, {80, 10, 2, 7}}},
        TimeRunCase{"steps_change_and_repeat_times", {{100, 0, 4, 0}, {100, 3, 3, 2}, {106, 9, 1, 0}, {110, 1, 5, -4}}},
        TimeRunCase{"b_frame_offsets_a_byte_per_sample", bFramePattern(300, 3)},
        TimeRunCase{"more_distinct_offsets_than_a_byte_names", bFramePattern(300, 290)},
        TimeRunCase{"extreme_offsets", {{UINT32_MAX, 1, 3, INT32_MIN}, {UINT32_MAX + 3ull, 1, 2, INT32_MAX}}},
        TimeRunCase{"times_wrap_past_64_bits", {{UINT64_MAX - 20, 7, 6, 3}, {9, 7, 2, 0}}}),
    [](const testing::TestParamInfo<TimeRunCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quil
