// The track object through the public interface: sample sizes, offsets,
// bytes, times and searches; binding errors; codec, sample-entry and
// time-code properties. Checked against the generated fixtures (known
// values taken from ffprobe) and against small files built here whose
// layout the test knows independently of the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <zlib.h>
#include <unistd.h>

#include "BoxBuilder.h"
#include "OpenedFile.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"
#include "boxes/MovieBoxes.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;
using test::concat;
using test::fullBox;
using test::loadFixture;
using test::OpenedFile;
using test::fixturePath;
using test::widePath;

// Answers are compared as one number: the value, or failed(code) when the
// call returns an error.
constexpr uint64_t failed(MP4Err err) { return (uint64_t{1} << 40) + err; }

template <class T>
uint64_t get(MP4Err (CMp4Track::*getter)(T*), CMp4Track* t) {
    T value{};
    MP4Err err = (t->*getter)(&value);
    return err == MP4_OK ? static_cast<uint64_t>(value) : failed(err);
}

uint64_t initialDelay(CMp4Track* t) {
    uint64_t delay = 0;
    EXPECT_EQ(MP4_OK, t->getInitialDelay(&delay));
    return delay;
}

uint64_t found(MP4Err (CMp4Track::*search)(uint64_t, uint32_t*), CMp4Track* t, uint64_t time) {
    uint32_t sample = 0;
    MP4Err err = (t->*search)(time, &sample);
    return err == MP4_OK ? sample : failed(err);
}

// Offset and size of a sample (the offset is failed(code) on error).
std::pair<uint64_t, uint32_t> place(CMp4Track* t, uint32_t sample) {
    uint64_t offset = 0;
    uint32_t size = 0;
    MP4Err err = t->getSampleOffset(sample, &offset, &size);
    return {err == MP4_OK ? offset : failed(err), size};
}

// The times of all samples (or the error of the sample count).
std::vector<uint64_t> times(CMp4Track* t, MP4Err (CMp4Track::*getter)(uint32_t, uint64_t*)) {
    uint32_t count = 0;
    MP4Err countErr = t->getSampleCount(&count);
    if (countErr != MP4_OK) return {failed(countErr)};
    std::vector<uint64_t> result;
    for (uint32_t s = 1; s <= count; ++s) {
        uint64_t time = 0;
        MP4Err err = (t->*getter)(s, &time);
        result.push_back(err == MP4_OK ? time : failed(err));
    }
    return result;
}
constexpr auto kDecode = &CMp4Track::getSampleDecodeTime;
constexpr auto kComposition = &CMp4Track::getSampleCompositionTime;

// Hours, minutes, seconds and frames, or {-code}.
std::vector<int> timecodeError(MP4Err err) { return {-static_cast<int>(err)}; }
std::vector<int> timecode(CMp4Track* t, uint64_t time) {
    uint8_t h = 0, m = 0, s = 0, f = 0;
    MP4Err err = t->getTimecode(time, &h, &m, &s, &f);
    if (err != MP4_OK) return timecodeError(err);
    return {h, m, s, f};
}

// ---------------------------------------------------------------------------
// Building one-track files. The media data comes first, so chunk offsets
// are known before the movie box is written.

struct Run { uint32_t count; uint32_t value; };
struct StscRow { uint32_t firstChunk, samplesPerChunk, descriptionIndex; };
struct Edit { uint32_t duration; int32_t mediaTime; };

constexpr uint64_t kMediaStart = 24 + 8;  // after "ftyp" and the "mdat" header

struct TrackPlan {
    uint32_t trackId = 1;
    uint32_t handler = fourcc("vide");
    const char* mediaHeader = "vmhd";  // null: none
    uint32_t movieScale = 600;
    uint32_t mediaScale = 600;
    Bytes sampleEntry;
    std::vector<Run> stts;
    std::vector<Run> ctts;  // empty: no "ctts"
    std::vector<StscRow> stsc;
    uint32_t constantSize = 0;
    uint32_t sampleCount = 0;
    std::vector<uint32_t> sizes;
    std::vector<uint64_t> chunkOffsets;  // from the start of the file
    bool co64 = false;
    bool hasStss = false;
    std::vector<uint32_t> syncSamples;
    std::vector<Edit> edits;
    std::string omit;  // a "stbl" child left out
    Bytes media;
};

Bytes visualEntry(const char* format) {
    ByteWriter w;
    w.zeros(6).u16(1).u16(0).u16(0).zeros(12).u16(320).u16(240);
    w.u32(0x00480000).u32(0x00480000).u32(0).u16(1).zeros(32).u16(24).u16(0xFFFF);
    return box(format, w);
}

// A sound description of version 0, 1 (with `field` as bytes per sample)
// or 2 (48 kHz, with `field` as bytes per audio packet).
Bytes soundEntry(const char* format, uint16_t channels, uint16_t rate, uint16_t version = 0, uint32_t field = 0) {
    ByteWriter w;
    w.zeros(6).u16(1).u16(version).u16(0).u32(0);
    if (version < 2) w.u16(channels).u16(16).u16(0).u16(0).u16(rate).u16(0);
    if (version == 1) w.u32(1).u32(field * channels).u32(field * channels).u32(field);
    if (version == 2) {
        w.u16(3).u16(16).u16(0xFFFE).u16(0).u32(0x10000).u32(72).u64(0x40E7700000000000ull);  // 48000.0
        w.u32(channels).u32(0x7F000000).u32(16).u32(0).u32(field).u32(1);
    }
    return box(format, w);
}

Bytes timecodeEntry(uint32_t flags, uint32_t timeScale, uint32_t frameDuration, uint8_t frames) {
    ByteWriter w;
    w.zeros(6).u16(1).u32(0).u32(flags).u32(timeScale).u32(frameDuration).u8(frames).u8(0);
    return box("tmcd", w);
}

template <class T, class F>
Bytes table(const char* type, const std::vector<T>& entries, F writeEntry) {
    ByteWriter w;
    w.u32(static_cast<uint32_t>(entries.size()));
    for (const T& e : entries) writeEntry(w, e);
    return fullBox(type, 0, 0, w);
}

Bytes runs(const char* type, const std::vector<Run>& entries) {
    return table(type, entries, [](ByteWriter& w, const Run& r) { w.u32(r.count).u32(r.value); });
}

Bytes sampleTable(const TrackPlan& t) {
    Bytes children;
    auto add = [&](const char* type, const Bytes& b) {
        if (t.omit != type) children = concat({children, b});
    };
    add("stsd", fullBox("stsd", 0, 0, concat({ByteWriter().u32(1), t.sampleEntry})));
    add("stts", runs("stts", t.stts));
    if (!t.ctts.empty()) add("ctts", runs("ctts", t.ctts));
    add("stsc", table("stsc", t.stsc, [](ByteWriter& w, const StscRow& r) {
        w.u32(r.firstChunk).u32(r.samplesPerChunk).u32(r.descriptionIndex);
    }));
    ByteWriter stsz;
    stsz.u32(t.constantSize).u32(t.sampleCount);
    if (t.constantSize == 0) for (uint32_t s : t.sizes) stsz.u32(s);
    add("stsz", fullBox("stsz", 0, 0, stsz));
    const char* offsets = t.co64 ? "co64" : "stco";
    add(offsets, table(offsets, t.chunkOffsets, [&](ByteWriter& w, uint64_t o) {
        t.co64 ? w.u64(o) : w.u32(static_cast<uint32_t>(o));
    }));
    if (t.hasStss) add("stss", table("stss", t.syncSamples, [](ByteWriter& w, uint32_t s) { w.u32(s); }));
    return box("stbl", children);
}

ByteWriter& identityMatrix(ByteWriter& w) {
    for (uint32_t m : {0x10000u, 0u, 0u, 0u, 0x10000u, 0u, 0u, 0u, 0x40000000u}) w.u32(m);
    return w;
}

Bytes buildFile(const TrackPlan& t) {
    ByteWriter mvhd, tkhd;
    mvhd.u32(0).u32(0).u32(t.movieScale).u32(0).u32(0x00010000).u16(0x0100).zeros(10);
    identityMatrix(mvhd).zeros(24).u32(t.trackId + 1);
    tkhd.u32(0).u32(0).u32(t.trackId).u32(0).u32(0).zeros(8).u16(0).u16(0).u16(0x0100).u16(0);
    identityMatrix(tkhd).u32(0).u32(0);
    Bytes trak = fullBox("tkhd", 0, 7, tkhd);
    if (!t.edits.empty()) {
        trak = concat({trak, box("edts", table("elst", t.edits, [](ByteWriter& w, const Edit& e) {
                                 w.u32(e.duration).u32(static_cast<uint32_t>(e.mediaTime)).u16(1).u16(0);
                             }))});
    }
    Bytes minf;
    if (t.mediaHeader) minf = fullBox(t.mediaHeader, 0, 0, Bytes(std::string(t.mediaHeader) == "vmhd" ? 8 : 4, 0));
    Bytes mdia = concat({fullBox("mdhd", 0, 0, ByteWriter().u32(0).u32(0).u32(t.mediaScale).u32(0).u16(0x55C4).u16(0)),
                         fullBox("hdlr", 0, 0, ByteWriter().u32(0).u32(t.handler).zeros(12).u8(0)),
                         box("minf", concat({minf, sampleTable(t)}))});
    trak = box("trak", concat({trak, box("mdia", mdia)}));
    return concat({box("ftyp", ByteWriter().code("isom").u32(0x200).code("isom").code("mp41")),
                   box("mdat", t.media), box("moov", concat({fullBox("mvhd", 0, 0, mvhd), trak}))});
}

// Byte j of sample s, so that every sample's bytes are distinct.
uint8_t sampleByte(uint32_t sample, uint32_t j) { return static_cast<uint8_t>(sample * 31 + j); }

// Lays out chunks (the sample sizes of each) with a gap before every
// chunk; fills stsc, stsz, stts, chunk offsets and media; returns where
// each sample lies as the test computes it.
std::vector<std::pair<uint64_t, uint32_t>> layOut(TrackPlan* t, const std::vector<std::vector<uint32_t>>& chunks,
                                                  bool constant, uint64_t offsetBias = 0) {
    std::vector<std::pair<uint64_t, uint32_t>> places;
    uint32_t sample = 0;
    for (uint32_t c = 0; c < chunks.size(); ++c) {
        t->media.insert(t->media.end(), 3 + c % 5, 0xEE);
        t->chunkOffsets.push_back(kMediaStart + t->media.size() + offsetBias);
        uint32_t n = static_cast<uint32_t>(chunks[c].size());
        if (t->stsc.empty() || t->stsc.back().samplesPerChunk != n) t->stsc.push_back({c + 1, n, 1});
        for (uint32_t size : chunks[c]) {
            ++sample;
            places.push_back({kMediaStart + t->media.size() + offsetBias, size});
            for (uint32_t j = 0; j < size; ++j) t->media.push_back(sampleByte(sample, j));
            t->sizes.push_back(size);
        }
    }
    t->sampleCount = sample;
    if (constant) t->constantSize = t->sizes.front();
    t->stts = {{sample, 10}};
    return places;
}

// A video track of n samples of 1 to 4 bytes, one per chunk, decode times
// 0, 10, 20...
TrackPlan simpleVideo(uint32_t n) {
    TrackPlan t;
    t.sampleEntry = visualEntry("avc1");
    std::vector<std::vector<uint32_t>> chunks;
    for (uint32_t s = 1; s <= n; ++s) chunks.push_back({1 + s % 4});
    layOut(&t, chunks, false);
    return t;
}

// Opens a built one-track file and hands its track to check.
template <class Check>
void withTrack(const TrackPlan& plan, Check check) {
    OpenedFile f(buildFile(plan));
    CMp4Track* t = f.track(1);
    ASSERT_TRUE(t);
    check(t);
}

// Each search: (time, sample found or failed(code)), asked in this order.
using Searches = std::vector<std::pair<uint64_t, uint64_t>>;
void expectFound(CMp4Track* t, MP4Err (CMp4Track::*search)(uint64_t, uint32_t*), const Searches& searches) {
    for (const auto& [time, sample] : searches) EXPECT_EQ(sample, found(search, t, time)) << "time " << time;
}

// ---------------------------------------------------------------------------
// The fixtures

struct MuxedFixture { const char* name; uint64_t shift; };
void PrintTo(const MuxedFixture& c, std::ostream* os) { *os << c.name; }
class TrackMuxed : public ::testing::TestWithParam<MuxedFixture> {};

// The same H.264 + AAC samples with the movie box after and before the
// media data; offsets and sizes from ffprobe.
TEST_P(TrackMuxed, TwoTracksWithKnownSamples) {
    OpenedFile f(GetParam().name);
    const uint64_t shift = GetParam().shift;
    uint32_t count = 0;
    ASSERT_EQ(MP4_OK, f.file()->getTrackCount(&count));
    ASSERT_EQ(2u, count);
    CMp4Track* video = f.track(1);
    CMp4Track* audio = f.track(2);
    ASSERT_TRUE(video && audio);
    EXPECT_EQ(MP4_TRACK_VIDEO, get(&CMp4Track::getTrackType, video));
    EXPECT_EQ(MP4_TRACK_AUDIO, get(&CMp4Track::getTrackType, audio));
    EXPECT_EQ(2u, get(&CMp4Track::getTrackId, audio));
    EXPECT_EQ(25u, get(&CMp4Track::getSampleCount, video));
    EXPECT_EQ(45u, get(&CMp4Track::getSampleCount, audio));

    const struct { CMp4Track* track; uint32_t sample; uint64_t offset; uint32_t size; uint64_t decode; } known[] = {
        {video, 1, 181, 2427, 0}, {video, 2, 2830, 394, 512}, {video, 25, 14929, 273, 12288},
        {audio, 1, 48, 133, 0},   {audio, 2, 2608, 161, 1024}, {audio, 3, 2769, 61, 2048},
        {audio, 45, 15333, 5, 45056},
    };
    for (const auto& k : known) {
        EXPECT_EQ(std::make_pair(k.offset + shift, k.size), place(k.track, k.sample)) << "sample " << k.sample;
        EXPECT_EQ(k.decode, times(k.track, kDecode)[k.sample - 1]);
    }
    // Only the first video frame is a key frame; audio has no "stss".
    for (uint32_t s : {1u, 2u, 25u}) {
        uint32_t videoSync = 7, audioSync = 7;
        EXPECT_EQ(MP4_OK, video->isSyncSample(s, &videoSync));
        EXPECT_EQ(MP4_OK, audio->isSyncSample(s, &audioSync));
        EXPECT_EQ(s == 1 ? 1u : 0u, videoSync) << "sample " << s;
        EXPECT_EQ(1u, audioSync);
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, TrackMuxed,
                         ::testing::Values(MuxedFixture{"h264-aac.mp4", 0},
                                           MuxedFixture{"h264-aac-faststart.mp4", 1968}));

// Every sample reads the same from both layouts, and equals the bytes of
// the file at the sample's offset.
TEST(TrackFixtures, SampleBytesMatchTheFileInBothLayouts) {
    OpenedFile tail("h264-aac.mp4"), front("h264-aac-faststart.mp4");
    const Bytes tailBytes = loadFixture("h264-aac.mp4");
    for (uint32_t number : {1u, 2u}) {
        CMp4Track* a = tail.track(number);
        CMp4Track* b = front.track(number);
        ASSERT_TRUE(a && b);
        for (uint32_t s = 1; s <= get(&CMp4Track::getSampleCount, a); ++s) {
            Bytes x(4096), y(4096);
            uint32_t xSize = 0, ySize = 0;
            ASSERT_EQ(MP4_OK, a->readSample(s, 4096, &xSize, x.data()));
            ASSERT_EQ(MP4_OK, b->readSample(s, 4096, &ySize, y.data()));
            const uint64_t offset = place(a, s).first;
            ASSERT_EQ(xSize, ySize);
            ASSERT_LE(offset + xSize, tailBytes.size());
            EXPECT_EQ(x, y) << "track " << number << " sample " << s;
            EXPECT_TRUE(std::equal(x.begin(), x.begin() + xSize, tailBytes.begin() + static_cast<long>(offset)));
        }
    }
}

TEST(TrackFixtures, CompositionTimesAndSearchesWithBFrames) {
    OpenedFile f("h264-bframes.mp4");
    CMp4Track* t = f.track(1);
    ASSERT_TRUE(t);
    std::vector<uint64_t> cts = times(t, kComposition);
    ASSERT_EQ(25u, cts.size());
    EXPECT_EQ((std::vector<uint64_t>{1024, 2560, 1536, 2048, 4096, 3072}), std::vector<uint64_t>(cts.begin(), cts.begin() + 6));
    EXPECT_EQ(12800u, cts[24]);
    EXPECT_EQ(12288u, times(t, kDecode)[24]);
    EXPECT_EQ(0u, initialDelay(t));  // the edit skips media, it does not delay it
    EXPECT_EQ(std::make_pair(uint64_t{9925}, 180u), place(t, 25));

    // Sample 3 is shown from 1536 to 2048.
    expectFound(t, &CMp4Track::findSampleByCompositionTime, {{0, 1}, {2000, 3}, {2560, 2}, {3100, 6}});
    // Before the key frame is shown there is nothing to seek to.
    expectFound(t, &CMp4Track::findSyncSampleBefore, {{5000, 1}, {500, failed(MP4_ERR_NOT_AVAILABLE)}});
}

TEST(TrackFixtures, EmptyFirstEditDelaysEveryTime) {
    OpenedFile f("audio-delay.mp4");
    CMp4Track* t = f.track(1);
    ASSERT_TRUE(t);
    EXPECT_EQ(20991u, initialDelay(t));  // 476 ms at 44100 Hz, truncated
    std::vector<uint64_t> dts = times(t, kDecode);
    ASSERT_EQ(45u, dts.size());
    EXPECT_EQ(20991u, dts[0]);
    EXPECT_EQ(22015u, dts[1]);
    EXPECT_EQ(dts, times(t, kComposition));
    expectFound(t, &CMp4Track::findSampleByDecodeTime, {{0, 1}, {22015, 2}});
}

// Raw PCM keeps one time unit per audio sample; each chunk is presented
// as one sample instead.
TEST(TrackFixtures, PcmChunksAreSamples) {
    const struct { const char* name; uint32_t channels, chunkBytes, codec; } cases[] = {
        {"pcm-sowt.mov", 2, 32000, 14}, {"pcm-twos.mov", 1, 16000, 15}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        OpenedFile f(c.name);
        CMp4Track* t = f.track(1);
        ASSERT_TRUE(t);
        EXPECT_EQ(1u, get(&CMp4Track::getSampleCount, t));
        EXPECT_EQ(c.codec, get(&CMp4Track::getCodecType, t));
        EXPECT_EQ(c.channels, get(&CMp4Track::getChannelCount, t));
        EXPECT_EQ(16000u, get(&CMp4Track::getSampleRate, t));
        EXPECT_EQ(16u, get(&CMp4Track::getSampleBits, t));
        EXPECT_EQ(std::make_pair(uint64_t{36}, c.chunkBytes), place(t, 1));
        Bytes bytes(c.chunkBytes);
        uint32_t size = 0;
        EXPECT_EQ(MP4_OK, t->readSample(1, c.chunkBytes, &size, bytes.data()));
        const Bytes file = loadFixture(c.name);
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), file.begin() + 36));
        // One chunk: there is no second one to place or read.
        EXPECT_EQ(failed(MP4_ERR_NOT_AVAILABLE), place(t, 2).first);
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, t->readSample(2, c.chunkBytes, &size, bytes.data()));
    }
}

TEST(TrackFixtures, TimecodeTrackOfQuickTimeFile) {
    OpenedFile f("timecode.mov");
    CMp4Track* video = f.track(1);
    CMp4Track* tmcd = f.track(2);
    ASSERT_TRUE(video && tmcd);
    EXPECT_EQ(MP4_TRACK_TIMECODE, get(&CMp4Track::getTrackType, tmcd));
    EXPECT_EQ(fourcc("tmcd"), get(&CMp4Track::getSampleEntryType, tmcd));
    EXPECT_EQ(failed(MP4_ERR_NOT_AVAILABLE), get(&CMp4Track::getCodecType, tmcd));
    EXPECT_EQ((std::vector<int>{1, 0, 0, 0}), timecode(tmcd, 0));
    // 2 s and 3 frames later (12800 units a second, 512 a frame), past the
    // track's only sample.
    EXPECT_EQ((std::vector<int>{1, 0, 2, 3}), timecode(tmcd, 2 * 12800 + 3 * 512));
    uint8_t flag = 9;
    EXPECT_EQ(timecodeError(MP4_ERR_NOT_AVAILABLE), timecode(video, 0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, video->getTimecodeFlag(0, &flag));
}

TEST(TrackFixtures, CodecsAndSampleEntryFields) {
    const struct { const char* name; uint32_t track, entry, codec, width, height; double angle; } cases[] = {
        {"h264-aac.mp4", 1, fourcc("avc1"), 7, 160, 120, 0},   {"h264-aac.mp4", 2, fourcc("mp4a"), 2, 0, 0, 0},
        {"hevc-hvc1.mp4", 1, fourcc("hvc1"), 33, 160, 120, 0}, {"mpeg4-aac.mp4", 1, fourcc("mp4v"), 1, 160, 120, 0},
        {"h263-amrnb.3gp", 1, fourcc("s263"), 4, 176, 144, 0}, {"h263-amrnb.3gp", 2, fourcc("samr"), 6, 0, 0, 0},
        {"rotate-90.mp4", 1, fourcc("avc1"), 7, 160, 120, 90},  // matrix {0, 1, -1, 0}
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " track " + std::to_string(c.track));
        OpenedFile f(c.name);
        CMp4Track* t = f.track(c.track);
        ASSERT_TRUE(t);
        EXPECT_EQ(c.entry, get(&CMp4Track::getSampleEntryType, t));
        EXPECT_EQ(c.codec, get(&CMp4Track::getCodecType, t));
        EXPECT_DOUBLE_EQ(c.angle, t->getRotateAngle());
        if (c.width) {
            EXPECT_EQ(c.width, get(&CMp4Track::getWidth, t));
            EXPECT_EQ(c.height, get(&CMp4Track::getHeight, t));
        } else {
            EXPECT_EQ(failed(MP4_ERR_NOT_AVAILABLE), get(&CMp4Track::getWidth, t));
            // The entry's own field: ffmpeg writes 2 for mono AAC and AMR.
            EXPECT_EQ(2u, get(&CMp4Track::getChannelCount, t));
        }
    }
}

// The payload of the first box of that type found in the bytes.
Bytes boxPayload(const Bytes& file, const char* type) {
    for (size_t i = 4; i + 4 <= file.size(); ++i) {
        if (std::equal(type, type + 4, file.begin() + static_cast<long>(i))) {
            const size_t size = static_cast<size_t>(file[i - 4]) << 24 | file[i - 3] << 16 | file[i - 2] << 8 | file[i - 1];
            return Bytes(file.begin() + static_cast<long>(i + 4), file.begin() + static_cast<long>(i - 4 + size));
        }
    }
    return {};
}

// Variable-length bytes: a null buffer asks for the length only, a buffer
// one byte short is refused with the length needed. Returns the bytes.
using BytesGetter = MP4Err (CMp4Track::*)(uint8_t*, uint32_t, uint32_t*);
Bytes bytesOf(CMp4Track* t, BytesGetter getter) {
    uint32_t length = 0;
    EXPECT_EQ(MP4_OK, (t->*getter)(nullptr, 0, &length));
    Bytes bytes(length);
    if (length == 0) return bytes;
    EXPECT_EQ(MP4_ERR_BUFFER_TOO_SMALL, (t->*getter)(bytes.data(), length - 1, &length));
    EXPECT_EQ(bytes.size(), length);
    EXPECT_EQ(MP4_OK, (t->*getter)(bytes.data(), length, &length));
    return bytes;
}

TEST(TrackFixtures, DecoderSpecificInfoAndCodecConfiguration) {
    OpenedFile f("mpeg4-aac.mp4");
    CMp4Track* video = f.track(1);
    CMp4Track* audio = f.track(2);
    ASSERT_TRUE(video && audio);
    EXPECT_EQ((Bytes{0x12, 0x08, 0x56, 0xE5, 0x00}), bytesOf(audio, &CMp4Track::getDecoderSpecificInfo));
    const Bytes visual = bytesOf(video, &CMp4Track::getDecoderSpecificInfo);
    ASSERT_EQ(30u, visual.size());
    EXPECT_EQ((Bytes{0x00, 0x00, 0x01, 0xB0, 0x01, 0x00, 0x00, 0x01, 0xB5}), Bytes(visual.begin(), visual.begin() + 9));
    EXPECT_EQ(0x20u, get(&CMp4Track::getObjectTypeIndication, video));

    for (const auto& c : {std::make_pair("h264-aac.mp4", "avcC"), std::make_pair("hevc-hvc1.mp4", "hvcC")}) {
        SCOPED_TRACE(c.first);
        const Bytes expected = boxPayload(loadFixture(c.first), c.second);
        ASSERT_FALSE(expected.empty());
        OpenedFile g(c.first);
        CMp4Track* t = g.track(1);
        ASSERT_TRUE(t);
        EXPECT_EQ(expected, bytesOf(t, &CMp4Track::getCodecConfiguration));
    }

    // Neither in an AMR entry (no "esds"), nor for AAC (no record box).
    OpenedFile amr("h263-amrnb.3gp");
    CMp4Track* samr = amr.track(2);
    ASSERT_TRUE(samr);
    uint8_t buffer[64];
    uint32_t length = 7;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, samr->getDecoderSpecificInfo(buffer, sizeof buffer, &length));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, audio->getCodecConfiguration(nullptr, 0, &length));
    EXPECT_EQ(0u, length);
}

TEST(TrackFixtures, VideoCodecIdOfTheFirstVideoTrack) {
    EXPECT_EQ(fourcc("avc1"), Mp4VideoCodecId(widePath("h264-aac.mp4").c_str()));
    EXPECT_EQ(fourcc("hvc1"), Mp4VideoCodecId(widePath("hevc-hvc1.mp4").c_str()));
    EXPECT_EQ(fourcc("s263"), Mp4VideoCodecId(widePath("h263-amrnb.3gp").c_str()));
    EXPECT_EQ(0u, Mp4VideoCodecId(widePath("audio-delay.mp4").c_str()));
    EXPECT_EQ(0u, Mp4VideoCodecId(widePath("no-such-file.mp4").c_str()));
}

// ---------------------------------------------------------------------------
// Built files: reading samples

TEST(TrackSamples, ReadSampleIndexAndBufferChecks) {
    withTrack(simpleVideo(6), [](CMp4Track* t) {
        uint8_t buffer[8] = {};
        uint32_t size = 99;
        EXPECT_EQ(MP4_ERR_BAD_INDEX, t->readSample(0, sizeof buffer, &size, buffer));
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, t->readSample(7, sizeof buffer, &size, buffer));
        EXPECT_EQ(failed(MP4_ERR_BAD_INDEX), place(t, 0).first);
        EXPECT_EQ(failed(MP4_ERR_NOT_AVAILABLE), place(t, 7).first);
        // Sample 3 holds 4 bytes: a buffer one byte short reports the size needed.
        EXPECT_EQ(MP4_ERR_BUFFER_TOO_SMALL, t->readSample(3, 3, &size, buffer));
        EXPECT_EQ(4u, size);
        EXPECT_EQ(MP4_OK, t->readSample(3, 4, &size, buffer));
        EXPECT_EQ((Bytes{sampleByte(3, 0), sampleByte(3, 1), sampleByte(3, 2), sampleByte(3, 3)}),
                  Bytes(buffer, buffer + size));
        uint64_t time = 7;
        EXPECT_EQ(MP4_ERR_BAD_INDEX, t->getSampleDecodeTime(0, &time));
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, t->getSampleCompositionTime(7, &time));
        EXPECT_EQ(0u, time);
        EXPECT_EQ(MP4_OK, t->getSampleDecodeTime(6, nullptr));  // the time may be left out
    });
}

// Chunk layouts (samples per chunk) covering one and several stsc runs,
// one and many samples per chunk, constant and variable sizes, 32- and
// 64-bit chunk offsets.
struct OffsetCase {
    const char* name;
    std::vector<uint32_t> samplesPerChunk;
    bool constant;
    bool co64;
};
void PrintTo(const OffsetCase& c, std::ostream* os) { *os << c.name; }

class TrackOffsets : public ::testing::TestWithParam<OffsetCase> {
protected:
    void SetUp() override {
        plan_.sampleEntry = visualEntry("avc1");
        plan_.co64 = GetParam().co64;
        std::vector<std::vector<uint32_t>> chunks;
        uint32_t sample = 0;
        for (uint32_t n : GetParam().samplesPerChunk) {
            std::vector<uint32_t> sizes;
            for (uint32_t i = 0; i < n; ++i, ++sample) sizes.push_back(GetParam().constant ? 6 : 1 + (sample * 7) % 13);
            chunks.push_back(sizes);
        }
        places_ = layOut(&plan_, chunks, GetParam().constant);
    }
    // Asks for the samples in that order and compares with the layout.
    void expectPlaces(CMp4Track* t, const std::vector<uint32_t>& order, const char* what) {
        for (uint32_t s : order) EXPECT_EQ(places_[s - 1], place(t, s)) << what << " sample " << s;
    }
    uint32_t count() const { return static_cast<uint32_t>(places_.size()); }

    TrackPlan plan_;
    std::vector<std::pair<uint64_t, uint32_t>> places_;
};

TEST_P(TrackOffsets, AnyQueryOrderGivesTheSameAnswers) {
    OpenedFile f(buildFile(plan_));
    CMp4Track* t = f.track(1);
    ASSERT_TRUE(t);
    const uint32_t n = count();
    std::vector<uint32_t> up, down, scattered;
    for (uint32_t k = 0; k < n; ++k) {
        up.push_back(k + 1);
        down.push_back(n - k);
        scattered.push_back((k * 7 + 3) % n + 1);
    }
    expectPlaces(t, up, "forward");
    expectPlaces(t, down, "backward");
    expectPlaces(t, scattered, "scattered");
    expectPlaces(t, {3, 3, 2, 2, 4, 1, 1, n, n, n - 1, 2}, "repeated");
    expectPlaces(t, up, "forward again");
    // The bytes read are the sample's own, in an order that jumps about.
    for (uint32_t s : scattered) {
        uint8_t buffer[16] = {};
        uint32_t size = 0;
        ASSERT_EQ(MP4_OK, t->readSample(s, sizeof buffer, &size, buffer));
        for (uint32_t j = 0; j < size; ++j) ASSERT_EQ(sampleByte(s, j), buffer[j]) << "sample " << s;
    }
    expectPlaces(t, down, "after reading");
}

// Two objects over one track share its boxes; neither may disturb the
// other's answers.
TEST_P(TrackOffsets, TwoObjectsOfOneTrackInterleaved) {
    OpenedFile f(buildFile(plan_));
    CMp4Track* a = f.track(1);
    CMp4Track* b = f.track(1);
    ASSERT_TRUE(a && b);
    for (uint32_t k = 1; k <= count(); ++k) {
        expectPlaces(a, {k}, "a");
        expectPlaces(b, {count() + 1 - k}, "b");
    }
}

// A reader's walk: size, place and bytes of each sample in turn, mixed
// with a buffer too small, a step back across the chunk boundary and the
// sample after the last, across table blocks in the longer layouts.
TEST_P(TrackOffsets, InOrderWalkMixedWithOtherQuestions) {
    OpenedFile f(buildFile(plan_));
    CMp4Track* t = f.track(1);
    ASSERT_TRUE(t);
    const uint32_t n = count();
    for (uint32_t s = 1; s <= n; ++s) {
        uint32_t size = 0;
        ASSERT_EQ(MP4_OK, t->getSampleSize(s, &size));
        EXPECT_EQ(places_[s - 1].second, size);
        EXPECT_EQ(places_[s - 1], place(t, s)) << "sample " << s;
        uint8_t buffer[16] = {};
        EXPECT_EQ(MP4_ERR_BUFFER_TOO_SMALL, t->readSample(s, size - 1, &size, buffer));
        ASSERT_EQ(MP4_OK, t->readSample(s, sizeof buffer, &size, buffer));
        EXPECT_EQ(sampleByte(s, size - 1), buffer[size - 1]) << "sample " << s;
        if (s > 1) {
            EXPECT_EQ(places_[s - 2], place(t, s - 1)) << "back from " << s;
        }
    }
    EXPECT_EQ(failed(MP4_ERR_NOT_AVAILABLE), place(t, n + 1).first);
    EXPECT_EQ(places_[n - 1], place(t, n));
}

// n chunks of 1 and 2 samples in turn: a "stsc" run per chunk.
std::vector<uint32_t> alternatingChunks(uint32_t n) {
    std::vector<uint32_t> chunks;
    for (uint32_t c = 0; c < n; ++c) chunks.push_back(1 + c % 2);
    return chunks;
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, TrackOffsets,
    ::testing::Values(OffsetCase{"OnePerChunk", {1, 1, 1, 1, 1, 1, 1, 1}, false, false},
                      OffsetCase{"OneChunk", {12}, false, false},
                      OffsetCase{"SeveralRuns", {3, 3, 3, 1, 1, 4, 4, 2, 2, 2, 5}, false, false},
                      OffsetCase{"SeveralRunsConstant", {3, 3, 1, 4, 4, 2}, true, false},
                      OffsetCase{"SeveralRunsCo64", {2, 2, 1, 3, 3, 3, 1}, false, true},
                      OffsetCase{"ConstantOnePerChunkCo64", {1, 1, 1, 1, 1}, true, true},
                      OffsetCase{"RunPerChunkPastABlock", alternatingChunks(150), false, false},
                      OffsetCase{"OnePerChunkPastABlockCo64", std::vector<uint32_t>(230, 1), false, true}),
    [](const ::testing::TestParamInfo<OffsetCase>& info) { return std::string(info.param.name); });

TEST(TrackSamples, LargeChunkOffsetsKeepAll64Bits) {
    TrackPlan plan;
    plan.sampleEntry = visualEntry("avc1");
    plan.co64 = true;
    auto places = layOut(&plan, {{4, 5}, {6}}, false, uint64_t{1} << 32);
    withTrack(plan, [&](CMp4Track* t) {
        for (uint32_t s : {3u, 1u, 2u}) EXPECT_EQ(places[s - 1], place(t, s));
        uint8_t buffer[8];
        uint32_t size = 0;
        EXPECT_NE(MP4_OK, t->readSample(1, sizeof buffer, &size, buffer));  // beyond the data
    });
}

TEST(TrackSamples, ZeroSamplesPerChunkIsAnErrorNotACrash) {
    TrackPlan plan = simpleVideo(4);
    plan.stsc = {{1, 0, 1}};
    withTrack(plan, [](CMp4Track* t) { EXPECT_EQ(failed(MP4_ERR_INVALID_DATA), place(t, 2).first); });
}

TEST(TrackSamples, SyncFlagsInAnyOrder) {
    TrackPlan withStss = simpleVideo(12);
    withStss.hasStss = true;
    withStss.syncSamples = {1, 5, 9};
    TrackPlan withoutStss = simpleVideo(12);
    for (TrackPlan* plan : {&withStss, &withoutStss}) {
        SCOPED_TRACE(plan->hasStss ? "stss 1 5 9" : "no stss");
        std::vector<uint32_t> order;
        for (uint32_t s = 1; s <= 12; ++s) order.push_back(s);
        for (uint32_t s = 12; s >= 1; --s) order.push_back(s);
        for (uint32_t s : {9u, 9u, 5u, 6u, 1u, 10u, 4u, 5u, 12u, 8u}) order.push_back(s);
        withTrack(*plan, [&](CMp4Track* t) {
            uint32_t sync = 7;
            for (uint32_t s : order) {
                ASSERT_EQ(MP4_OK, t->isSyncSample(s, &sync));
                EXPECT_EQ(!plan->hasStss || s == 1 || s == 5 || s == 9 ? 1u : 0u, sync) << "sample " << s;
            }
            EXPECT_EQ(MP4_ERR_BAD_INDEX, t->isSyncSample(0, &sync));
            EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, t->isSyncSample(13, &sync));
        });
    }
}

// Audio with one "stts" run of delta 1: each chunk is a sample, sized from
// the sound description.
TEST(TrackSamples, ChunksOfRawAudioAsSamples) {
    const struct { const char* format; uint16_t channels, rate, version; uint32_t field, bytesPer100; } cases[] = {
        {"twos", 2, 8000, 0, 0, 400},  // 2 bytes x 2 channels
        {"sowt", 1, 8000, 0, 0, 200},
        {"fl32", 2, 8000, 0, 0, 800},  // 4 bytes x 2 channels
        {"ulaw", 1, 8000, 0, 0, 100},
        {"alaw", 2, 65535, 0, 0, 2},   // a rate field of 65535: one frame's bytes alone
        {"twos", 2, 8000, 1, 3, 600},  // bytes per sample, per channel
        {"sowt", 2, 0, 2, 4, 800},     // bytes per packet, times channels
        {"lpcm", 2, 0, 2, 6, 600},     // bytes per packet, whole frames
        {"lpcm", 2, 8000, 0, 0, 100},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.format) + " version " + std::to_string(c.version));
        TrackPlan plan;
        plan.handler = fourcc("soun");
        plan.mediaHeader = "smhd";
        plan.sampleEntry = soundEntry(c.format, c.channels, c.rate, c.version, c.field);
        plan.stsc = {{1, 100, 1}, {3, 50, 1}};
        plan.constantSize = 1;
        plan.sampleCount = 250;
        plan.stts = {{250, 1}};
        plan.media = Bytes(2000, 0x11);
        plan.chunkOffsets = {kMediaStart + 10, kMediaStart + 900, kMediaStart + 1500};
        withTrack(plan, [&](CMp4Track* t) {
            EXPECT_EQ((std::vector<uint64_t>{0, 100, 200}), times(t, kDecode));
            const uint32_t last = c.rate != 65535 ? c.bytesPer100 / 2 : c.bytesPer100;
            EXPECT_EQ(std::make_pair(plan.chunkOffsets[2], last), place(t, 3));
            EXPECT_EQ(std::make_pair(plan.chunkOffsets[0], c.bytesPer100), place(t, 1));
            EXPECT_EQ(std::make_pair(plan.chunkOffsets[1], c.bytesPer100), place(t, 2));
            EXPECT_EQ(failed(MP4_ERR_NOT_AVAILABLE), place(t, 4).first);
        });
    }
}

// A constant "stsz" size above 1 that the description's count disagrees
// with is one audio sample's bytes (ISO PCM, "fl64", 8-bit stereo "raw ",
// AMR at one tick per frame); a size that agrees, or 1, changes nothing.
TEST(TrackSamples, ConstantSizeOfChunkAsSampleAudio) {
    const struct { const char* format; uint16_t channels; uint32_t constant, bytesPer100; } cases[] = {
        {"ipcm", 2, 6, 600},    // 24-bit stereo: the description says 1 x 2
        {"fl64", 1, 8, 800},    // unknown to the descriptions: 1
        {"samr", 1, 32, 3200},  // AMR frames of 32 bytes
        {"twos", 2, 4, 400},    // agrees: 2 x 2
        {"twos", 2, 1, 400},    // 1: the description's count stands
        {"in24", 1, 3, 300},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.format) + " " + std::to_string(c.constant));
        TrackPlan plan;
        plan.handler = fourcc("soun");
        plan.mediaHeader = "smhd";
        plan.sampleEntry = soundEntry(c.format, c.channels, 8000);
        plan.stsc = {{1, 100, 1}};
        plan.constantSize = c.constant;
        plan.sampleCount = 200;
        plan.stts = {{200, 1}};
        plan.media = Bytes(8000, 0x22);
        plan.chunkOffsets = {kMediaStart, kMediaStart + 4000};
        withTrack(plan, [&](CMp4Track* t) {
            EXPECT_EQ(std::make_pair(plan.chunkOffsets[1], c.bytesPer100), place(t, 2));
        });
    }
}

// ---------------------------------------------------------------------------
// Built files: times and searches

TEST(TrackTimes, EmptyFirstEditOfOneSecond) {
    TrackPlan plan = simpleVideo(3);
    plan.handler = fourcc("soun");
    plan.mediaHeader = "smhd";
    plan.sampleEntry = soundEntry("mp4a", 1, 44100);
    plan.mediaScale = 44100;
    plan.stts = {{3, 1024}};
    plan.edits = {{0, 5}, {600, -1}, {1800, 0}};  // an edit of no duration shows nothing
    withTrack(plan, [](CMp4Track* t) {
        EXPECT_EQ(44100u, initialDelay(t));
        EXPECT_EQ((std::vector<uint64_t>{44100, 45124, 46148}), times(t, kDecode));
        EXPECT_EQ(times(t, kDecode), times(t, kComposition));
    });
}

// A video track of n samples with these decode deltas and composition offsets.
TrackPlan videoWithOffsets(uint32_t n, std::vector<Run> ctts, std::vector<Run> stts = {}) {
    TrackPlan plan = simpleVideo(n);
    plan.ctts = std::move(ctts);
    if (!stts.empty()) plan.stts = std::move(stts);
    return plan;
}

TEST(TrackTimes, NegativeCompositionOffsets) {
    const struct { const char* what; TrackPlan plan; std::vector<uint64_t> expected; } cases[] = {
        // Decode times 0, 3, 6, 9, 12; offsets -1 (more than sample 1's decode
        // time), +10, -5, -10 (more than sample 4's) and -12 (exactly sample 5's).
        {"clamped at zero",
         videoWithOffsets(5, {{1, 0xFFFFFFFFu}, {1, 10}, {1, 0xFFFFFFFBu}, {1, 0xFFFFFFF6u}, {1, 0xFFFFFFF4u}},
                          {{1, 3}, {4, 3}}),
         {0, 13, 1, 1, 0}},
        // Sample 2 at decode time 3 with an offset of -5 keeps sample 1's time.
        {"kept from the sample before", videoWithOffsets(3, {{1, 4}, {1, 0xFFFFFFFBu}, {1, 0}}, {{3, 3}}), {4, 4, 6}},
        // Samples no entry covers are shown at their decode time.
        {"short table", videoWithOffsets(4, {{2, 20}}), {20, 30, 20, 30}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        withTrack(c.plan, [&](CMp4Track* t) { EXPECT_EQ(c.expected, times(t, kComposition)); });
    }
    withTrack(cases[0].plan, [](CMp4Track* t) { EXPECT_EQ((std::vector<uint64_t>{0, 3, 6, 9, 12}), times(t, kDecode)); });
}

void expectFound(const TrackPlan& plan, MP4Err (CMp4Track::*search)(uint64_t, uint32_t*), const Searches& searches) {
    withTrack(plan, [&](CMp4Track* t) { expectFound(t, search, searches); });
}

// Composition times of random tables against the tables expanded sample
// by sample: B-frame offsets in entries of 0 to 3 samples (a few values
// named over and over, some negative), "stts" runs cutting through them,
// tables past one block, a "ctts" that ends early.
TEST(TrackTimes, RandomOffsetTablesExpandSampleBySample) {
    std::mt19937 random(11);
    const uint32_t offsets[] = {0, 1024, 512, 1536, 0u - 512};
    for (uint32_t round = 0; round < 8; ++round) {
        const auto n = static_cast<uint32_t>(50 + random() % 400);
        std::vector<struct Run> stts, ctts;
        std::vector<uint64_t> decode;
        for (uint64_t time = 0; decode.size() < n;) {
            const auto run = static_cast<uint32_t>(std::min<size_t>(1 + random() % 150, n - decode.size()));
            const auto delta = static_cast<uint32_t>(256 + 256 * (random() % 3));
            stts.push_back({run, delta});
            for (uint32_t k = 0; k < run; ++k, time += delta) decode.push_back(time);
        }
        std::vector<uint32_t> stored;  // offset of each sample that "ctts" covers
        const uint32_t covered = round % 2 ? n : n - n / 5;
        while (stored.size() < covered) {
            const auto count = static_cast<uint32_t>(std::min<size_t>(random() % 4, covered - stored.size()));
            const uint32_t offset = offsets[random() % 5];
            ctts.push_back({count, offset});
            stored.insert(stored.end(), count, offset);
        }
        std::vector<uint64_t> expected;
        for (uint32_t s = 0; s < n; ++s) {
            const uint32_t offset = s < stored.size() ? stored[s] : 0;
            const uint64_t magnitude = 0x100000000ull - offset;
            expected.push_back(offset < 0x80000000u ? decode[s] + offset
                               : magnitude <= decode[s] ? decode[s] - magnitude
                               : s == 0 ? decode[s] : expected.back());
        }
        SCOPED_TRACE("round " + std::to_string(round));
        withTrack(videoWithOffsets(n, ctts, stts),
                  [&](CMp4Track* t) { EXPECT_EQ(expected, times(t, &CMp4Track::getSampleCompositionTime)); });
    }
}

TEST(TrackTimes, FindSampleByDecodeTime) {
    // Decode times 0, 10, 20, 30, 40; going back in time after a failure and after a hit.
    expectFound(simpleVideo(5), &CMp4Track::findSampleByDecodeTime,
                {{25, 3}, {30, 4}, {40, 5}, {41, failed(MP4_ERR_NOT_AVAILABLE)}, {19, 2}, {0, 1}, {40, 5}, {9, 1}});
}

TEST(TrackTimes, FindSampleByCompositionTimeToleratesOneOutOfOrderSample) {
    // Composition 10, 40, 20, 30, 40: sample 2 is stepped over at 25, and a
    // tie keeps the earlier sample.
    auto byCts = &CMp4Track::findSampleByCompositionTime;
    expectFound(videoWithOffsets(5, {{1, 10}, {1, 30}, {3, 0}}), byCts,
                {{5, 1}, {15, 1}, {25, 3}, {35, 4}, {40, 2}, {1000, 2}});
    // A second sample shown later (composition 10, 50, 60, 30, 40) ends the walk.
    expectFound(videoWithOffsets(5, {{1, 10}, {2, 40}, {2, 0}}), byCts, {{35, 1}});
}

TEST(TrackTimes, FindSyncSampleBefore) {
    auto sync = &CMp4Track::findSyncSampleBefore;
    TrackPlan plan = simpleVideo(50);  // decode times 10 apart
    plan.hasStss = true;
    plan.syncSamples = {1, 31};
    expectFound(plan, sync, {{395, 31}, {5, 1}, {300, 31}, {299, 1}, {100000, 31}, {0, 1}});
    expectFound(simpleVideo(50), sync, {{395, 40}});  // no "stss": the sample itself

    // The search starts one past the sample found: a sync sample shown at
    // the same time as the one before it is taken.
    TrackPlan tie = videoWithOffsets(3, {{2, 10}, {1, 0}});  // composition 10, 20, 20
    tie.hasStss = true;
    tie.syncSamples = {1, 3};
    expectFound(tie, &CMp4Track::findSampleByCompositionTime, {{25, 2}});
    expectFound(tie, sync, {{25, 3}});
}

// ---------------------------------------------------------------------------
// The searches against a model: each one written out here as the plain walk
// over every sample's times, the cursor of the decode-time search included,
// and asked the same queries in a shuffled order.

class SearchModel {
public:
    // Reads the track's times and sync samples. noSyncTable: the track
    // has neither "stss" nor fragments, so a sync search answers the sample
    // found itself.
    SearchModel(CMp4Track* t, bool noSyncTable) : noSyncTable_(noSyncTable) {
        uint32_t count = 0;
        EXPECT_EQ(MP4_OK, t->getSampleCount(&count));
        for (uint32_t s = 1; s <= count; ++s) {
            uint64_t d = 0, c = 0;
            uint32_t sync = 0;
            EXPECT_EQ(MP4_OK, t->getSampleDecodeTime(s, &d));
            EXPECT_EQ(MP4_OK, t->getSampleCompositionTime(s, &c));
            EXPECT_EQ(MP4_OK, t->isSyncSample(s, &sync));
            decode_.push_back(d);
            composition_.push_back(c);
            if (sync) syncs_.push_back(s);
        }
    }
    uint32_t count() const { return static_cast<uint32_t>(decode_.size()); }
    uint64_t decode(uint32_t s) const { return decode_[s - 1]; }
    uint64_t composition(uint32_t s) const { return composition_[s - 1]; }

    uint64_t byDecode(uint64_t time) {
        if (cursor_ > count()) return failed(MP4_ERR_NOT_AVAILABLE);
        uint32_t s = decode(cursor_) > time ? 1 : cursor_;
        while (s <= count() && decode(s) < time) ++s;
        if (s > count()) return failed(MP4_ERR_NOT_AVAILABLE);
        cursor_ = (s == 1 || decode(s) == time) ? s : s - 1;
        return cursor_;
    }
    uint64_t byComposition(uint64_t time) {
        if (count() == 0) return failed(MP4_ERR_NOT_AVAILABLE);
        uint32_t best = 1;
        int later = 0;
        for (uint32_t s = 1; s <= count(); ++s) {
            if (composition(s) > time) {
                if (++later == 2) break;
            } else if (composition(s) > composition(best)) {
                best = s;
            }
        }
        cursor_ = best;
        return best;
    }
    uint64_t syncBefore(uint64_t time) {
        uint64_t found = byComposition(time);
        if (found > count() || noSyncTable_) return found;
        uint64_t candidate = found + 1;
        for (;;) {
            uint32_t sync = 0;
            for (uint32_t s : syncs_)
                if (s <= candidate) sync = s;
            if (sync == 0) return failed(MP4_ERR_NOT_AVAILABLE);
            if (composition(sync) <= time) return sync;
            if (sync == 1) return failed(MP4_ERR_NOT_AVAILABLE);
            candidate = sync - 1;
        }
    }

private:
    std::vector<uint64_t> decode_, composition_;
    std::vector<uint32_t> syncs_;
    bool noSyncTable_;
    uint32_t cursor_ = 1;
};

// Every sample's times and their neighbours, the ends, and random times;
// each asked of a random search, in random order.
void expectSearchesMatchModel(CMp4Track* t, bool noSyncTable, uint32_t seed) {
    SearchModel model(t, noSyncTable);
    std::vector<uint64_t> times = {0, 1, UINT64_MAX, UINT64_MAX - 1};
    std::mt19937_64 random(seed);
    uint64_t last = 0;
    for (uint32_t s = 1; s <= model.count(); ++s) {
        for (uint64_t base : {model.decode(s), model.composition(s)}) {
            times.insert(times.end(), {base, base + 1, base - 1});
            last = std::max(last, base);
        }
    }
    for (int i = 0; i < 200; ++i) times.push_back(random() % (last + 2));
    times.insert(times.end(), times.begin(), times.end());  // each time twice
    std::shuffle(times.begin(), times.end(), random);
    using Search = MP4Err (CMp4Track::*)(uint64_t, uint32_t*);
    const Search searches[] = {&CMp4Track::findSampleByDecodeTime, &CMp4Track::findSampleByCompositionTime,
                               &CMp4Track::findSyncSampleBefore};
    for (uint64_t time : times) {
        const auto which = random() % 3;
        const uint64_t expected = which == 0   ? model.byDecode(time)
                                  : which == 1 ? model.byComposition(time)
                                               : model.syncBefore(time);
        ASSERT_EQ(expected, found(searches[which], t, time)) << "search " << which << " time " << time;
    }
}

bool hasSyncTable(CMp4Track* t) {
    auto* track = dynamic_cast<CTrackImpl*>(t);
    if (!track || track->fragmentCount() > 0) return true;
    CBox* box = track->trackBox();
    for (uint32_t type : {fourcc("mdia"), fourcc("minf"), fourcc("stbl"), fourcc("stss")}) {
        if (box->findChild(type, &box) != MP4_OK) return false;
    }
    return true;
}

class TrackSearchModel : public ::testing::TestWithParam<const char*> {};

TEST_P(TrackSearchModel, FixturesAnswerAsTheWalk) {
    OpenedFile f(GetParam());
    uint32_t count = 0;
    ASSERT_EQ(MP4_OK, f.file()->getTrackCount(&count));
    for (uint32_t n = 1; n <= count; ++n) {
        CMp4Track* t = nullptr;
        if (f.getTrack(n, &t) != MP4_OK) continue;
        SCOPED_TRACE("track " + std::to_string(n));
        expectSearchesMatchModel(t, !hasSyncTable(t), n);
    }
}

// Mp4GetSampleTable in blocks of 7 (across chunks and past the last
// sample) against the four queries per sample on another opening: the
// same entries, and each refusal at the sample where a query refuses.
TEST_P(TrackSearchModel, SampleTableAnswersAsTheQueries) {
    OpenedFile f(GetParam()), g(GetParam());
    uint32_t count = 0;
    ASSERT_EQ(MP4_OK, f.file()->getTrackCount(&count));
    for (uint32_t n = 1; n <= count; ++n) {
        CMp4Track *byCalls = nullptr, *byTable = nullptr;
        if (f.getTrack(n, &byCalls) != MP4_OK || g.getTrack(n, &byTable) != MP4_OK) continue;
        uint32_t samples = 0;
        ASSERT_EQ(MP4_OK, byCalls->getSampleCount(&samples));
        auto query = [byCalls](uint32_t s, MP4SampleTableEntry* e) {
            MP4Err err = byCalls->getSampleOffset(s, &e->offset, &e->size);
            if (err == MP4_OK) err = byCalls->getSampleDecodeTime(s, &e->decodeTime);
            if (err == MP4_OK) err = byCalls->getSampleCompositionTime(s, &e->compositionTime);
            if (err == MP4_OK) err = byCalls->isSyncSample(s, &e->sync);
            return err;
        };
        for (uint32_t first = 1; first <= samples + 2;) {
            MP4SampleTableEntry table[7];
            uint32_t filled = 99;
            const MP4Err err = Mp4GetSampleTable(byTable, first, 7, table, &filled);
            ASSERT_LE(filled, 7u);
            for (uint32_t i = 0; i < filled; ++i) {
                MP4SampleTableEntry e;
                ASSERT_EQ(MP4_OK, query(first + i, &e)) << "sample " << first + i;
                EXPECT_EQ(std::make_tuple(e.offset, e.size, e.decodeTime, e.compositionTime, e.sync),
                          std::make_tuple(table[i].offset, table[i].size, table[i].decodeTime,
                                          table[i].compositionTime, table[i].sync))
                    << "track " << n << " sample " << first + i;
            }
            if (err != MP4_OK) {
                MP4SampleTableEntry e;
                EXPECT_EQ(query(first + filled, &e), err) << "sample " << first + filled;
                ++filled;  // on past the refused sample
            } else {
                EXPECT_EQ(7u, filled);
            }
            first += filled;
        }
    }
}

TEST(TrackSamples, SampleTableRefusals) {
    OpenedFile f("h264-aac.mp4");
    CMp4Track* t = f.track(1);
    ASSERT_TRUE(t);
    MP4SampleTableEntry e[2];
    uint32_t filled = 9;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4GetSampleTable(nullptr, 1, 1, e, &filled));
    EXPECT_EQ(0u, filled);
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4GetSampleTable(t, 1, 1, nullptr, nullptr));
    EXPECT_EQ(MP4_OK, Mp4GetSampleTable(t, 1, 0, nullptr, &filled));
    EXPECT_EQ(MP4_ERR_BAD_INDEX, Mp4GetSampleTable(t, 0, 2, e, &filled));
    EXPECT_EQ(0u, filled);
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, Mp4GetSampleTable(t, 0xFFFFFFFFu, 2, e, &filled));
    EXPECT_EQ(0u, filled);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, TrackSearchModel,
                         ::testing::Values("h264-aac.mp4", "h264-bframes.mp4", "hevc-hvc1.mp4", "mpeg4-aac.mp4",
                                           "h263-amrnb.3gp", "audio-delay.mp4", "pcm-sowt.mov", "timecode.mov",
                                           "frag-bframes-moof.mp4", "frag-h264-aac.mp4", "bad-stsz-count.mp4"));

// Built tracks with what real files rarely hold: steps of 0, composition
// offsets jumping back and forth (negative ones clamped), samples shown
// long after their neighbours, sparse sync samples; long enough to span
// many blocks of the composition search.
TEST(TrackSearchModel, RandomTablesAnswerAsTheWalk) {
    std::mt19937 random(7);
    for (uint32_t round = 0; round < 12; ++round) {
        const auto n = static_cast<uint32_t>(1 + random() % 300);
        std::vector<struct Run> stts, ctts;
        for (uint32_t s = 0; s < n;) {
            auto run = static_cast<uint32_t>(1 + random() % 20);
            if (run > n - s) run = n - s;
            stts.push_back({run, random() % 4 == 0 ? 0u : static_cast<uint32_t>(1 + random() % 40)});
            s += run;
        }
        for (uint32_t s = 0; s < n; ++s) {
            const uint32_t kind = random() % 10;
            const auto offset = static_cast<uint32_t>(kind < 5 ? random() % 60 : kind < 8 ? 0u - random() % 50 : 1000 + random() % 5000);
            ctts.push_back({1, offset});
        }
        TrackPlan plan = videoWithOffsets(n, ctts, stts);
        plan.hasStss = round % 3 != 0;
        for (uint32_t s = 1; s <= n && plan.hasStss; ++s)
            if (s == 1 + round % 2 || random() % 15 == 0) plan.syncSamples.push_back(s);
        SCOPED_TRACE("round " + std::to_string(round));
        withTrack(plan, [&](CMp4Track* t) { expectSearchesMatchModel(t, !plan.hasStss, round); });
    }
    // More distinct offsets than a byte can name.
    std::vector<struct Run> distinct;
    for (uint32_t s = 0; s < 600; ++s) distinct.push_back({1, (s * 7919) % 1000});
    withTrack(videoWithOffsets(600, distinct), [](CMp4Track* t) { expectSearchesMatchModel(t, true, 99); });
}

#if defined(__SANITIZE_ADDRESS__)
#define QUIL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUIL_ADDRESS_SANITIZER 1
#endif
#endif

// Lets this process map only `extra` more bytes, so that a table grown
// from a damaged count fails at once instead of exhausting the machine.
void limitAddressSpace(uint64_t extra) {
    uint64_t pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%" SCNu64, &pages) != 1) pages = 0;
        std::fclose(statm);
    }
    const rlim_t limit = static_cast<rlim_t>(pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) + extra);
    struct rlimit r = {limit, limit};
    setrlimit(RLIMIT_AS, &r);
}

// A damaged "stts" claiming billions of samples gives no more samples
// than "stsz" describes, and no time table of that size. Run in a child
// process with little memory to spare.
TEST(TrackTimesDeathTest, HugeSampleCountInSttsIsCappedBySizes) {
#ifdef QUIL_ADDRESS_SANITIZER
    GTEST_SKIP() << "the address-space limit does not work with AddressSanitizer";
#endif
    TrackPlan plan = simpleVideo(3);
    plan.stts = {{0xFFFFFFF0u, 1}};
    const Bytes file = buildFile(plan);
    const std::vector<uint64_t> expected = {0, 1, 2};
    auto capped = [&] {
        limitAddressSpace(256u << 20);
        OpenedFile f(file);
        CMp4Track* t = nullptr;
        return f.getTrack(1, &t) == MP4_OK && times(t, kDecode) == expected;
    };
    EXPECT_EXIT(std::_Exit(capped() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------------------
// Built files: binding

// A track ID of 0, or a required table missing (its lookup error). A
// missing "stsd" leaves a track without sample entries (see TrackCopy).
TEST(TrackBinding, FailuresLeaveNoTrack) {
    for (const char* type : {"", "stts", "stsz", "stsc", "stco"}) {
        SCOPED_TRACE(type);
        TrackPlan plan = simpleVideo(2);
        plan.omit = type;
        plan.trackId = *type ? 1 : 0;
        OpenedFile f(buildFile(plan));
        CMp4Track* t = reinterpret_cast<CMp4Track*>(&plan);
        EXPECT_EQ(*type ? MP4_ERR_NOT_AVAILABLE : MP4_ERR_UNSUPPORTED, f.getTrack(1, &t));
        EXPECT_EQ(nullptr, t);
    }
}

TEST(TrackBinding, KindFromMediaHeaderThenHandler) {
    const struct { uint32_t handler; const char* mediaHeader; uint64_t kind; } cases[] = {
        {fourcc("vide"), "vmhd", MP4_TRACK_VIDEO},
        {fourcc("soun"), "smhd", MP4_TRACK_AUDIO},
        {fourcc("hint"), "hmhd", MP4_TRACK_HINT},
        {0, "vmhd", MP4_TRACK_VIDEO},
        {0, nullptr, failed(MP4_ERR_NOT_AVAILABLE)},  // a handler without type cannot bind
        {fourcc("hint"), nullptr, MP4_TRACK_HINT},
        {fourcc("odsm"), nullptr, MP4_TRACK_OBJECT_DESCRIPTOR},
        {fourcc("sdsm"), nullptr, MP4_TRACK_SCENE_DESCRIPTION},
        {fourcc("tmcd"), nullptr, MP4_TRACK_TIMECODE},
        {fourcc("vide"), nullptr, MP4_TRACK_OTHER},
        {fourcc("text"), nullptr, MP4_TRACK_OTHER},
    };
    for (const auto& c : cases) {
        TrackPlan plan = simpleVideo(2);
        plan.handler = c.handler;
        plan.mediaHeader = c.mediaHeader;
        OpenedFile f(buildFile(plan));
        CMp4Track* t = nullptr;
        MP4Err err = f.getTrack(1, &t);
        EXPECT_EQ(c.kind, err == MP4_OK ? get(&CMp4Track::getTrackType, t) : failed(err))
            << std::hex << c.handler << " " << (c.mediaHeader ? c.mediaHeader : "-");
    }
}

// ---------------------------------------------------------------------------
// Built files: time codes

struct TimecodeCase {
    uint32_t flags, timeScale, frameDuration;
    uint8_t frames;
    uint32_t mediaScale, counter;
    int32_t editMediaTime;  // -2: no edit list
    uint64_t time;
    std::vector<int> expected;
};

TrackPlan timecodeTrack(const TimecodeCase& c, uint32_t sampleBytes = 4) {
    TrackPlan t;
    t.handler = fourcc("tmcd");
    t.mediaHeader = nullptr;
    t.mediaScale = c.mediaScale;
    t.sampleEntry = timecodeEntry(c.flags, c.timeScale, c.frameDuration, c.frames);
    t.media = ByteWriter().u32(c.counter);
    t.media.resize(sampleBytes);
    t.stsc = {{1, 1, 1}};
    t.sampleCount = 1;
    t.sizes = {sampleBytes};
    t.chunkOffsets = {kMediaStart};
    t.stts = {{1, c.frameDuration}};
    if (c.editMediaTime != -2) t.edits = {{1000, c.editMediaTime}};
    return t;
}

TEST(TrackTimecode, CountersToHoursMinutesSecondsFrames) {
    const TimecodeCase cases[] = {
        // Drop frame at 30 fps: ten minutes are 17982 frames.
        {1, 30000, 1001, 30, 30000, 17982, -2, 0, {0, 10, 0, 0}},
        {1, 30000, 1001, 30, 30000, 18000, -2, 0, {0, 10, 0, 18}},
        {0, 25, 1, 25, 25, 90000, -2, 0, {1, 0, 0, 0}},
        // Time-code and media scales differ: 61 s and 24/600 s later.
        {0, 2500, 100, 25, 600, 90000, -2, 600 * 61 + 24, {1, 1, 1, 1}},
        // The edit starts 2 s into the media.
        {0, 25, 1, 25, 600, 90000, 1200, 0, {1, 0, 2, 0}},
        // An empty first edit delays the track but shifts no frames.
        {0, 25, 1, 25, 600, 90000, -1, 0, {1, 0, 0, 0}},
        // Hours are kept in 8 bits.
        {0, 25, 1, 25, 25, 25 * 3600 * 300, -2, 0, {300 % 256, 0, 0, 0}},
        // A counter is 4 bytes; a zero frame count or duration cannot divide.
        {0, 25, 1, 0, 25, 0, -2, 0, timecodeError(MP4_ERR_INVALID_DATA)},
        {0, 25, 0, 25, 25, 0, -2, 0, timecodeError(MP4_ERR_INVALID_DATA)},
    };
    for (const TimecodeCase& c : cases) {
        SCOPED_TRACE("counter " + std::to_string(c.counter) + " time " + std::to_string(c.time));
        withTrack(timecodeTrack(c), [&](CMp4Track* t) { EXPECT_EQ(c.expected, timecode(t, c.time)); });
    }
    withTrack(timecodeTrack(cases[2], 2),
              [](CMp4Track* t) { EXPECT_EQ(timecodeError(MP4_ERR_UNSUPPORTED), timecode(t, 0)); });
}

TEST(TrackTimecode, FlagBitsOfTheDescription) {
    withTrack(timecodeTrack({0xA, 25, 1, 25, 25, 0, -2, 0, {}}), [](CMp4Track* t) {
        std::vector<int> flags;
        for (uint32_t which = 0; which < 5; ++which) {
            uint8_t flag = 9;
            MP4Err err = t->getTimecodeFlag(which, &flag);
            flags.push_back(err == MP4_OK ? flag : -static_cast<int>(err));
        }
        EXPECT_EQ((std::vector<int>{0, 1, 0, 1, -static_cast<int>(MP4_ERR_NOT_AVAILABLE)}), flags);
    });
}

}  // namespace
// ---------------------------------------------------------------------------
// Copying a read track (remux)

// The track of a built file copied into a new file with copyTrackFrom and
// copySampleFrom (samples in `skip` left out), with the movie's other boxes
// (copyMovieBoxes), then read back. With fragment settings the copy is
// written in fragments.
void copyAndReadBack(const Bytes& file, const std::vector<uint32_t>& skip,
                     std::function<void(CMp4Track* in, CMp4Track* out)> check,
                     const MP4FragmentSettings* fragments = nullptr) {
    OpenedFile source(file);
    CMp4Track* in = source.track(1);
    ASSERT_TRUE(in);
    const std::string path = ::testing::TempDir() + "quil_copy_" + std::to_string(getpid()) + ".mp4";
    CMp4File* target = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&target));
    const std::wstring wide(path.begin(), path.end());
    ASSERT_EQ(MP4_OK, target->open(wide.c_str(), 1, 0));
    if (fragments) {
        ASSERT_EQ(MP4_OK, target->setFragmentation(fragments));
    }
    CMp4Track* out = nullptr;
    ASSERT_EQ(MP4_OK, target->addTrack(&out));
    ASSERT_EQ(MP4_OK, out->copyTrackFrom(in));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, out->copyTrackFrom(in));  // once
    uint32_t count = 0, size = 0;
    ASSERT_EQ(MP4_OK, in->getSampleCount(&count));
    for (uint32_t s = 1; s <= count; ++s) {
        const bool skipped = std::find(skip.begin(), skip.end(), s) != skip.end();
        if (!skipped) {
            EXPECT_EQ(MP4_OK, out->copySampleFrom(s, &size)) << "sample " << s;
        }
    }
    if (count > 0) {
        EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, out->copySampleFrom(1, &size));  // in order
    }
    ASSERT_EQ(MP4_OK, target->copyMovieBoxes(source.file()));
    ASSERT_EQ(MP4_OK, target->releaseTrack(out));
    ASSERT_EQ(MP4_OK, target->close());
    CMp4File::destroyInstance(&target);
    std::ifstream written(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(written), std::istreambuf_iterator<char>()};
    OpenedFile copy(bytes);
    CMp4Track* back = copy.track(1);
    ASSERT_TRUE(back);
    check(in, back);
    std::remove(path.c_str());
}

void copyAndReadBack(const TrackPlan& plan, const std::vector<uint32_t>& skip,
                     std::function<void(CMp4Track* in, CMp4Track* out)> check,
                     const MP4FragmentSettings* fragments = nullptr) {
    copyAndReadBack(buildFile(plan), skip, std::move(check), fragments);
}

std::vector<Bytes> sampleBytes(CMp4Track* t) {
    std::vector<Bytes> all;
    uint32_t count = 0, size = 0;
    (void)t->getSampleCount(&count);
    for (uint32_t s = 1; s <= count; ++s) {
        Bytes b(1 << 16);
        EXPECT_EQ(MP4_OK, t->readSample(s, static_cast<uint32_t>(b.size()), &size, b.data()));
        b.resize(size);
        all.push_back(b);
    }
    return all;
}

// The copy reads back with the source's bytes and times, also where the
// write interface refuses them for new samples: negative composition
// offsets, zero durations, shared decode times, a last sample of its own
// duration, an edit list, and no samples at all.
TEST(TrackCopy, KeepsBytesAndStoredTiming) {
    TrackPlan negative = videoWithOffsets(4, {{1, 2}, {1, 0xFFFFFFFEu}, {2, 1}}, {{1, 0}, {2, 5}, {1, 7}});
    negative.edits = {{300, -1}, {600, 0}};
    TrackPlan empty = simpleVideo(0);
    TrackPlan undescribed = simpleVideo(3);
    undescribed.omit = "stsd";
    const struct { const char* what; TrackPlan plan; uint64_t duration; } cases[] = {
        {"negative offsets, zero and odd durations, edits", negative, 17},
        {"no samples", empty, 0},
        {"no sample description (copied without)", undescribed, 30},
        {"chunks of raw audio", [] {
             TrackPlan p;
             p.handler = fourcc("soun");
             p.mediaHeader = "smhd";
             p.sampleEntry = soundEntry("ipcm", 2, 8000);
             p.stsc = {{1, 100, 1}};
             p.constantSize = 6;
             p.sampleCount = 200;
             p.stts = {{200, 1}};
             p.media = Bytes(1200, 0x33);
             for (size_t i = 0; i < p.media.size(); ++i) p.media[i] = static_cast<uint8_t>(i * 7);
             p.chunkOffsets = {kMediaStart, kMediaStart + 600};
             return p;
         }(), 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        copyAndReadBack(c.plan, {}, [&c](CMp4Track* in, CMp4Track* out) {
            EXPECT_EQ(sampleBytes(in), sampleBytes(out));
            EXPECT_EQ(times(in, kDecode), times(out, kDecode));
            EXPECT_EQ(times(in, kComposition), times(out, kComposition));
            EXPECT_EQ(c.duration, get(&CMp4Track::getMediaDuration, out));  // the stored deltas'
            EXPECT_EQ(initialDelay(in), initialDelay(out));
            EXPECT_EQ(get(&CMp4Track::getTrackId, in), get(&CMp4Track::getTrackId, out));
        });
    }
}

// Written in fragments, copied samples go to the fragments with their
// bytes, decode times and composition offsets as stored.
TEST(TrackCopy, FragmentedCopyKeepsBytesAndTimes) {
    MP4FragmentSettings settings;
    settings.fragmentMilliseconds = 1;
    copyAndReadBack(videoWithOffsets(4, {{1, 20}, {1, 0xFFFFFFF6u}, {2, 10}}, {{4, 10}}), {},
                    [](CMp4Track* in, CMp4Track* out) {
                        EXPECT_EQ(sampleBytes(in), sampleBytes(out));
                        EXPECT_EQ(times(in, kDecode), times(out, kDecode));
                        EXPECT_EQ(times(in, kComposition), times(out, kComposition));
                    },
                    &settings);
}

// Movie boxes of unusual shape copy as the movie they hold: a compressed
// movie from the movie inside it (not the compressed box), a movie box of
// size 0 that runs to the end over the media data without that as a child.
Bytes compressedMovieFile() {
    TrackPlan plan = simpleVideo(3);
    Bytes file = buildFile(plan);
    const size_t moovAt = 24 + 8 + plan.media.size();  // after "ftyp" and "mdat"
    const Bytes moov(file.begin() + moovAt, file.end());
    uLongf length = compressBound(moov.size());
    Bytes deflated(length);
    EXPECT_EQ(Z_OK, compress(deflated.data(), &length, moov.data(), moov.size()));
    deflated.resize(length);
    file.resize(moovAt);
    const Bytes cmvd = box("cmvd", concat({ByteWriter().u32(moov.size()), deflated}));
    return concat({file, box("moov", box("cmov", concat({box("dcom", ByteWriter().code("zlib")), cmvd})))});
}

Bytes movieOverTheMediaFile() {
    TrackPlan plan = simpleVideo(3);
    const size_t children = buildFile(plan).size() - 24 - 8 - plan.media.size() - 8;
    plan = TrackPlan();
    plan.sampleEntry = visualEntry("avc1");
    layOut(&plan, {{2}, {3}, {4}}, false, 8 + children);
    const Bytes file = buildFile(plan);
    const Bytes moov(file.begin() + 24 + 8 + plan.media.size() + 8, file.end());
    return concat({Bytes(file.begin(), file.begin() + 24), ByteWriter().u32(0).code("moov"), moov,
                   box("mdat", plan.media)});
}

class UnusualMovie : public ::testing::TestWithParam<Bytes (*)()> {};

TEST_P(UnusualMovie, CopiesTheMovieItHolds) {
    copyAndReadBack(GetParam()(), {}, [](CMp4Track* in, CMp4Track* out) {
        EXPECT_EQ(sampleBytes(in), sampleBytes(out));
    });
}

INSTANTIATE_TEST_SUITE_P(Shapes, UnusualMovie, ::testing::Values(compressedMovieFile, movieOverTheMediaFile));

// A sample left out (unreadable): the others keep their times; the one
// before the gap lasts until the next.
TEST(TrackCopy, LeftOutSamplesKeepTheOthersInPlace) {
    copyAndReadBack(simpleVideo(5), {3}, [](CMp4Track* in, CMp4Track* out) {
        std::vector<uint64_t> expected = times(in, kDecode);
        expected.erase(expected.begin() + 2);
        EXPECT_EQ(expected, times(out, kDecode));
        EXPECT_EQ(50u, get(&CMp4Track::getMediaDuration, out));  // 5 samples of 10
    });
    // Past the end of a cut-off file: 11, and the track is unchanged.
    TrackPlan cut = simpleVideo(3);
    cut.chunkOffsets.back() = 1u << 20;
    OpenedFile source(buildFile(cut));
    CMp4File* target = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&target));
    const std::string path = ::testing::TempDir() + "quil_cut_" + std::to_string(getpid()) + ".mp4";
    const std::wstring wide(path.begin(), path.end());
    ASSERT_EQ(MP4_OK, target->open(wide.c_str(), 1, 0));
    CMp4Track* out = nullptr;
    uint32_t size = 0, count = 0;
    ASSERT_EQ(MP4_OK, target->addTrack(&out));
    ASSERT_EQ(MP4_OK, out->copyTrackFrom(source.track(1)));
    EXPECT_EQ(MP4_ERR_END_OF_FILE, out->copySampleFrom(3, &size));
    EXPECT_EQ(MP4_OK, out->getSampleCount(&count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(MP4_OK, target->releaseTrack(out));
    EXPECT_EQ(MP4_OK, target->close());
    CMp4File::destroyInstance(&target);
    std::remove(path.c_str());
}

// ---------------------------------------------------------------------------
// Every sample at once (Mp4CopyTrackSamples) against copySampleFrom

enum class CopyMode { kBySample, kAllAtOnce, kSourceChunks };

// Copies every track of the file at path as `quil remux` does: all samples
// at once (in decode-time order or keeping the source's chunks, the
// source's brands kept then too), or sample by sample in decode-time
// order; the copy's bytes. The call's result goes to *err (12 falls back
// to the loop, which leaves unreadable samples out).
Bytes remuxed(const std::string& path, uint32_t byteLimit, CopyMode mode, MP4Err* err) {
    const std::string copyPath = ::testing::TempDir() + "quil_at_once_" + std::to_string(getpid()) + ".mp4";
    CMp4File *in = nullptr, *out = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(MP4_OK, CMp4File::createInstance(&in));
    EXPECT_EQ(MP4_OK, CMp4File::createInstance(&out));
    EXPECT_EQ(MP4_OK, in->open(std::wstring(path.begin(), path.end()).c_str(), 0, 0));
    EXPECT_EQ(MP4_OK, in->getTrackCount(&count));
    EXPECT_EQ(MP4_OK, out->open(std::wstring(copyPath.begin(), copyPath.end()).c_str(), 1, MP4_FILE_MPEG4));
    uint32_t major = 0, minor = 0, brandCount = 0;
    if (mode == CopyMode::kSourceChunks && Mp4GetBrands(in, &major, &minor, nullptr, 0, &brandCount) == MP4_OK) {
        std::vector<uint32_t> brands(brandCount);
        EXPECT_EQ(MP4_OK, Mp4GetBrands(in, &major, &minor, brands.data(), brandCount, &brandCount));
        EXPECT_EQ(MP4_OK, out->setBrands(major, minor, brands.data(), brandCount));
    }
    struct Copy {
        CMp4Track *from = nullptr, *to = nullptr;
        uint32_t next = 1, samples = 0, scale = 1;
        uint64_t decode = 0;
    };
    std::vector<Copy> copies(count);
    std::vector<CMp4Track*> targets;
    for (uint32_t t = 0; t < count; ++t) {
        Copy& c = copies[t];
        EXPECT_EQ(MP4_OK, in->getTrack(t + 1, &c.from));
        EXPECT_EQ(MP4_OK, out->addTrack(&c.to));
        EXPECT_EQ(MP4_OK, c.to->copyTrackFrom(c.from));
        (void)c.from->getTimeScale(&c.scale);
        (void)c.to->setChunkLimits(c.scale, byteLimit);
        (void)c.from->getSampleCount(&c.samples);
        (void)c.from->getSampleDecodeTime(1, &c.decode);
        targets.push_back(c.to);
    }
    const auto copy = mode == CopyMode::kSourceChunks ? Mp4CopyTrackChunks : Mp4CopyTrackSamples;
    *err = mode == CopyMode::kBySample ? MP4_ERR_UNSUPPORTED : copy(out, targets.data(), count, nullptr, nullptr);
    while (*err == MP4_ERR_UNSUPPORTED) {
        Copy* best = nullptr;
        for (Copy& c : copies) {
            if (c.next <= c.samples && (!best || static_cast<unsigned __int128>(c.decode) * best->scale <
                                                     static_cast<unsigned __int128>(best->decode) * c.scale)) {
                best = &c;
            }
        }
        if (!best) break;
        uint32_t size = 0;
        (void)best->to->copySampleFrom(best->next, &size);
        if (++best->next <= best->samples) (void)best->from->getSampleDecodeTime(best->next, &best->decode);
    }
    for (Copy& c : copies) {
        EXPECT_EQ(MP4_OK, out->releaseTrack(c.to));
        EXPECT_EQ(MP4_OK, in->releaseTrack(c.from));
    }
    EXPECT_EQ(MP4_OK, out->close());
    CMp4File::destroyInstance(&out);
    CMp4File::destroyInstance(&in);
    std::ifstream written(copyPath, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(written), std::istreambuf_iterator<char>()};
    std::remove(copyPath.c_str());
    return bytes;
}

// Chunks of 256 KiB or a second, and chunks cut by a small byte limit: the
// same file byte for byte as the sample-by-sample copy; where the call
// refuses (12), it wrote nothing and the loop after it writes what it
// writes alone.
void expectSameCopy(const std::string& path, MP4Err expected) {
    for (uint32_t byteLimit : {256u * 1024, 3000u, 5u}) {
        SCOPED_TRACE(byteLimit);
        MP4Err ignored = MP4_OK, err = MP4_OK;
        const Bytes bySample = remuxed(path, byteLimit, CopyMode::kBySample, &ignored);
        const Bytes atOnce = remuxed(path, byteLimit, CopyMode::kAllAtOnce, &err);
        EXPECT_EQ(expected, err);
        ASSERT_GT(bySample.size(), 100u);
        EXPECT_TRUE(bySample == atOnce);
    }
}

struct AllAtOnceCase {
    const char* file;
    MP4Err expected;
};

class AllAtOnce : public ::testing::TestWithParam<AllAtOnceCase> {};

TEST_P(AllAtOnce, WritesTheFileOfTheSampleBySampleCopy) {
    expectSameCopy(fixturePath(GetParam().file), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, AllAtOnce,
    ::testing::Values(AllAtOnceCase{"h264-aac.mp4", MP4_OK}, AllAtOnceCase{"h264-bframes.mp4", MP4_OK},
                      AllAtOnceCase{"audio-delay.mp4", MP4_OK}, AllAtOnceCase{"h263-amrnb.3gp", MP4_OK},
                      AllAtOnceCase{"hevc-hvc1.mp4", MP4_OK}, AllAtOnceCase{"timecode.mov", MP4_OK},
                      // fragments; raw audio read a chunk as a sample; cut off; damaged sizes
                      AllAtOnceCase{"frag-h264-aac.mp4", MP4_ERR_UNSUPPORTED},
                      AllAtOnceCase{"pcm-sowt.mov", MP4_ERR_UNSUPPORTED},
                      AllAtOnceCase{"bad-truncated-mdat-faststart.mp4", MP4_ERR_UNSUPPORTED},
                      AllAtOnceCase{"bad-stsz-count.mp4", MP4_ERR_UNSUPPORTED}),
    [](const ::testing::TestParamInfo<AllAtOnceCase>& info) {
        std::string name;
        for (const char* c = info.param.file; *c && *c != '.'; ++c) name += std::isalnum(*c) ? *c : '_';
        return name;
    });

// Keeping the source's chunks: every sample as in the source (bytes,
// times, sync flag), all of them moved by one distance in the file, since
// the chunks follow each other as in the source (these sources' chunks lie
// back to back). Sources whose media data start where the copy's do come
// out with the same media data at the same offsets.
TEST_P(AllAtOnce, KeepsTheSourceChunksInTheirOrder) {
    MP4Err err = MP4_OK;
    const Bytes copy = remuxed(fixturePath(GetParam().file), 5, CopyMode::kSourceChunks, &err);
    EXPECT_EQ(GetParam().expected, err);
    if (err != MP4_OK) return;
    OpenedFile in(GetParam().file), out(copy);
    uint32_t tracks = 0, copiedTracks = 0;
    ASSERT_EQ(MP4_OK, in.file()->getTrackCount(&tracks));
    ASSERT_EQ(MP4_OK, out.file()->getTrackCount(&copiedTracks));
    ASSERT_EQ(tracks, copiedTracks);
    std::set<int64_t> shifts;
    Bytes a(1 << 20), b(1 << 20);
    for (uint32_t t = 1; t <= tracks; ++t) {
        CMp4Track *from = in.track(t), *to = out.track(t);
        ASSERT_TRUE(from && to);
        uint32_t count = 0;
        ASSERT_EQ(MP4_OK, from->getSampleCount(&count));
        for (uint32_t s = 1; s <= count; ++s) {
            uint64_t at = 0, copiedAt = 0, decode[2] = {}, present[2] = {};
            uint32_t size[2] = {}, sync[2] = {};
            ASSERT_EQ(MP4_OK, from->getSampleOffset(s, &at, &size[0]));
            ASSERT_EQ(MP4_OK, to->getSampleOffset(s, &copiedAt, &size[1]));
            ASSERT_EQ(MP4_OK, from->readSample(s, static_cast<uint32_t>(a.size()), &size[0], a.data()));
            ASSERT_EQ(MP4_OK, to->readSample(s, static_cast<uint32_t>(b.size()), &size[1], b.data()));
            CMp4Track* both[2] = {from, to};
            for (int i = 0; i < 2; ++i) {
                (void)both[i]->getSampleDecodeTime(s, &decode[i]);
                (void)both[i]->getSampleCompositionTime(s, &present[i]);
                (void)both[i]->isSyncSample(s, &sync[i]);
            }
            EXPECT_EQ(std::make_tuple(size[0], decode[0], present[0], sync[0]),
                      std::make_tuple(size[1], decode[1], present[1], sync[1])) << "track " << t << " sample " << s;
            EXPECT_EQ(0, std::memcmp(a.data(), b.data(), size[0])) << "track " << t << " sample " << s;
            shifts.insert(static_cast<int64_t>(copiedAt) - static_cast<int64_t>(at));
        }
    }
    EXPECT_EQ(1u, shifts.size());
}

// Tables at their edges: what the sample access answers for them is what
// the tables give at once, or the call refuses them.
TEST(AllAtOnceTables, EdgesOfTheTables) {
    TrackPlan negative = videoWithOffsets(6, {{1, 2}, {1, 0xFFFFFFFEu}, {4, 1}}, {{1, 0}, {3, 5}, {2, 7}});
    negative.edits = {{300, -1}, {600, 0}};
    TrackPlan emptyLastRun = videoWithOffsets(6, {}, {{6, 10}, {0, 7}});
    TrackPlan secondEntry = simpleVideo(6);
    secondEntry.stsc = {{1, 1, 1}, {4, 1, 2}};
    TrackPlan syncAndWide = simpleVideo(9);
    syncAndWide.hasStss = true;
    syncAndWide.syncSamples = {1, 4, 4, 8};
    syncAndWide.co64 = true;
    TrackPlan shortOffsets = videoWithOffsets(4, {{2, 20}});
    TrackPlan shortTimes = videoWithOffsets(4, {}, {{3, 10}});
    TrackPlan sameSizes = simpleVideo(8);
    sameSizes.constantSize = 3;
    sameSizes.sizes.clear();
    const struct { const char* what; const TrackPlan& plan; MP4Err expected; } cases[] = {
        {"negative offsets, zero and odd durations, edits", negative, MP4_OK},
        {"last duration from an empty last run", emptyLastRun, MP4_OK},
        {"a second description cuts the chunk", secondEntry, MP4_OK},
        {"sync samples listed twice, 64-bit offsets", syncAndWide, MP4_OK},
        {"one size for all", sameSizes, MP4_OK},
        {"offsets for fewer samples", shortOffsets, MP4_ERR_UNSUPPORTED},
        {"times for fewer samples", shortTimes, MP4_ERR_UNSUPPORTED},
    };
    const std::string path = ::testing::TempDir() + "quil_tables_" + std::to_string(getpid()) + ".mp4";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes file = buildFile(c.plan);
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), file.size());
        expectSameCopy(path, c.expected);
    }
    std::remove(path.c_str());
}

// Refused: a track not being written to the target (2), a track without
// a source or given a sample already (12, nothing written).
TEST(AllAtOnceRefusals, StateAndArguments) {
    OpenedFile source("h264-aac.mp4");
    CMp4Track* from = source.track(1);
    ASSERT_TRUE(from);
    CMp4File* out = nullptr;
    CMp4Track* to = nullptr;
    uint32_t size = 0, count = 0;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&out));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4CopyTrackSamples(out, &from, 1, nullptr, nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4CopyTrackSamples(nullptr, &from, 1, nullptr, nullptr));
    const std::string path = ::testing::TempDir() + "quil_refused_" + std::to_string(getpid()) + ".mp4";
    ASSERT_EQ(MP4_OK, out->open(std::wstring(path.begin(), path.end()).c_str(), 1, MP4_FILE_MPEG4));
    ASSERT_EQ(MP4_OK, out->addTrack(&to));
    EXPECT_EQ(MP4_ERR_UNSUPPORTED, Mp4CopyTrackSamples(out, &to, 1, nullptr, nullptr));
    ASSERT_EQ(MP4_OK, to->copyTrackFrom(from));
    ASSERT_EQ(MP4_OK, to->copySampleFrom(1, &size));
    EXPECT_EQ(MP4_ERR_UNSUPPORTED, Mp4CopyTrackSamples(out, &to, 1, nullptr, nullptr));
    EXPECT_EQ(MP4_OK, to->getSampleCount(&count));
    EXPECT_EQ(1u, count);
    EXPECT_EQ(MP4_OK, out->releaseTrack(to));
    EXPECT_EQ(MP4_OK, out->close());
    CMp4File::destroyInstance(&out);
    std::remove(path.c_str());
}

}  // namespace quil
