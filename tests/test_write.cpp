// Writing files through the public interface: a file written for each
// codec family reads back sample-exactly; chunk layout, the switch to
// 64-bit chunk offsets, finalisation values, error codes and write errors.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "Rewrite.h"
#include "boxes/MovieBoxes.h"
#include "quil/quil.h"
#include "storage/DiscStorage.h"
#include "track/SampleTables.h"

namespace quil {
namespace {

using test::Bytes;

std::string tempPath(const std::string& name) { return ::testing::TempDir() + "quil_write_" + std::to_string(getpid()) + "_" + name; }
std::wstring wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }
Bytes loadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes sampleBytes(uint32_t sample, uint32_t size) {
    Bytes bytes(size);
    for (uint32_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(sample * 31 + i);
    return bytes;
}

struct Sample {
    Bytes bytes;
    uint64_t decodeTime, compositionTime;
    bool sync;
};

// Owns a file object; closes and destroys it at the end.
struct File {
    CMp4File* file = nullptr;
    File() { EXPECT_EQ(MP4_OK, CMp4File::createInstance(&file)); }
    ~File() {
        uint32_t open = 0;
        if (file->isOpen(&open) == MP4_OK && open) (void)file->close();
        CMp4File::destroyInstance(&file);
    }
    CMp4File* operator->() { return file; }
};

// A new track of that kind with a sample entry of that format built
// without configuration bytes.
CMp4Track* newTrack(CMp4File* file, uint32_t kind, uint32_t format, uint32_t timeScale = 1000) {
    CMp4Track* track = nullptr;
    MP4SampleEntryInfo info{};
    info.format = format;
    info.sampleRate = timeScale;
    info.channels = 1;
    EXPECT_EQ(MP4_OK, file->addTrack(&track));
    EXPECT_EQ(MP4_OK, track->setTrackType(kind));
    EXPECT_EQ(MP4_OK, track->setTimeScale(timeScale));
    EXPECT_EQ(MP4_OK, track->addSampleEntry(&info));
    return track;
}

// The top-level "moov" of written bytes, read back as a box tree.
std::unique_ptr<CBox> movieOf(const Bytes& file) {
    for (size_t at = 0; at + 8 <= file.size();) {
        uint64_t size = uint64_t{file[at]} << 24 | file[at + 1] << 16 | file[at + 2] << 8 | file[at + 3];
        if (size == 1) {
            size = 0;
            for (int i = 0; i < 8; ++i) size = size << 8 | file[at + 8 + i];
        }
        if (size < 8) break;
        if (file[at + 4] == 'm' && file[at + 5] == 'o' && file[at + 6] == 'o' && file[at + 7] == 'v') {
            return test::readTree(Bytes(file.begin() + at, file.begin() + at + size));
        }
        at += size;
    }
    return nullptr;
}

// The box at a path of types below the movie (first track).
template <class T>
T* boxAt(CBox* movie, std::initializer_list<const char*> path) {
    CBox* box = movie;
    for (const char* type : path) {
        CBox* child = nullptr;
        const char code[5] = {type[0], type[1], type[2], type[3], 0};
        if (!box || box->findChild(fourcc(code), &child) != MP4_OK) return nullptr;
        box = child;
    }
    return dynamic_cast<T*>(box);
}

void expectReadsBack(CMp4Track* track, const std::vector<Sample>& samples) {
    uint32_t count = 0;
    ASSERT_EQ(MP4_OK, track->getSampleCount(&count));
    ASSERT_EQ(samples.size(), count);
    for (uint32_t n = 1; n <= count; ++n) {
        const Sample& want = samples[n - 1];
        Bytes got(want.bytes.size() + 1);
        uint32_t size = 0, sync = 0;
        uint64_t decode = 0, composition = 0;
        ASSERT_EQ(MP4_OK, track->readSample(n, static_cast<uint32_t>(got.size()), &size, got.data()));
        got.resize(size);
        EXPECT_EQ(want.bytes, got) << "sample " << n;
        EXPECT_EQ(MP4_OK, track->getSampleDecodeTime(n, &decode));
        EXPECT_EQ(MP4_OK, track->getSampleCompositionTime(n, &composition));
        EXPECT_EQ(MP4_OK, track->isSyncSample(n, &sync));
        EXPECT_EQ(want.decodeTime, decode) << "sample " << n;
        EXPECT_EQ(want.compositionTime, composition) << "sample " << n;
        EXPECT_EQ(want.sync, sync != 0) << "sample " << n;
    }
}

// ---------------------------------------------------------------------------
// One file per codec family, written from codec parameters

const Bytes kAvcC = {1, 66, 0xC0, 30, 0xFF, 0xE1, 0, 4, 0x67, 0x42, 0xC0, 0x1E, 1, 0, 2, 0x68, 0xCE};
const Bytes kHvcC = {1, 1, 0x60, 0, 0, 0, 0x90, 0, 0, 0, 0, 0, 93, 0xF0, 0, 0xFC, 0xFD, 0xF8, 0xF8, 0, 0, 0x0F, 0};
const Bytes kAudioSpecificConfig = {0x12, 0x10};
const Bytes kVisualObjectSequence = {0, 0, 1, 0xB0, 1};

struct CodecCase {
    const char* name;
    uint32_t format;
    uint32_t kind;
    uint32_t trackMode;  // 1: raw audio chunk-as-sample
    uint32_t timeScale;
    Bytes config;
};

class CodecWrite : public ::testing::TestWithParam<CodecCase> {};

TEST_P(CodecWrite, ReadsBackSampleExactly) {
    const CodecCase& c = GetParam();
    const std::string path = tempPath(std::string(c.name) + ".mp4");
    const bool raw = c.trackMode != 0;
    std::vector<Sample> samples;
    // Starts 40 ms in, so the writer adds an empty edit; video has
    // reordered frames and a second sync sample.
    uint64_t time = c.timeScale / 25;
    for (uint32_t n = 1; n <= 7; ++n) {
        const uint32_t units = raw ? 40 + n : c.timeScale / 25;
        const uint32_t size = raw ? 2 * units : 100 + 37 * n;
        const uint64_t shift = c.kind == MP4_TRACK_VIDEO && n % 3 == 2 ? 2 * units : 0;
        samples.push_back({sampleBytes(n, size), time, time + shift, raw || n % 4 == 1});
        time += units;
    }
    {
        File file;
        ASSERT_EQ(MP4_OK, file->setTrackMode(c.trackMode));
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
        CMp4Track* track = nullptr;
        ASSERT_EQ(MP4_OK, file->addTrack(&track));
        ASSERT_EQ(MP4_OK, track->setTrackType(c.kind));
        ASSERT_EQ(MP4_OK, track->setTimeScale(c.timeScale));
        MP4SampleEntryInfo info{};
        info.format = c.format;
        info.width = 176;
        info.height = 144;
        info.sampleRate = c.timeScale;
        info.channels = 1;
        info.config = c.config.data();
        info.configLength = static_cast<uint32_t>(c.config.size());
        ASSERT_EQ(MP4_OK, track->addSampleEntry(&info));
        for (const Sample& s : samples) {
            ASSERT_EQ(MP4_OK, track->addSample(s.bytes.data(), static_cast<uint32_t>(s.bytes.size()),
                                               s.decodeTime, s.compositionTime, s.sync));
        }
        ASSERT_EQ(MP4_OK, file->releaseTrack(track));
        ASSERT_EQ(MP4_OK, file->close());
    }
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
    uint32_t value = 0;
    EXPECT_EQ(MP4_OK, track->getSampleEntryType(&value));
    EXPECT_EQ(c.format, value);
    EXPECT_EQ(MP4_OK, track->getTrackType(&value));
    EXPECT_EQ(c.kind, value);
    if (c.kind == MP4_TRACK_VIDEO) {
        EXPECT_EQ(MP4_OK, track->getWidth(&value));
        EXPECT_EQ(176u, value);
    } else {
        EXPECT_EQ(MP4_OK, track->getChannelCount(&value));
        EXPECT_EQ(c.format == fourcc("samr") ? 2u : 1u, value);  // AMR entries always say 2
    }
    if (!c.config.empty()) {
        Bytes config(64);
        uint32_t length = 0;
        const bool record = c.format == fourcc("avc1") || c.format == fourcc("hvc1");
        EXPECT_EQ(MP4_OK, record ? track->getCodecConfiguration(config.data(), 64, &length)
                                 : track->getDecoderSpecificInfo(config.data(), 64, &length));
        config.resize(length);
        EXPECT_EQ(c.config, config);
    }
    expectReadsBack(track, samples);
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    std::remove(path.c_str());

    File full;  // /dev/full takes nothing: open already fails
    EXPECT_EQ(MP4_ERR_IO, full->open(L"/dev/full", 1, MP4_FILE_MPEG4));
}

INSTANTIATE_TEST_SUITE_P(
    Families, CodecWrite,
    ::testing::Values(
        CodecCase{"avc1", fourcc("avc1"), MP4_TRACK_VIDEO, 0, 12800, kAvcC},
        CodecCase{"hvc1", fourcc("hvc1"), MP4_TRACK_VIDEO, 0, 25000, kHvcC},
        CodecCase{"mp4v", fourcc("mp4v"), MP4_TRACK_VIDEO, 0, 30000, kVisualObjectSequence},
        CodecCase{"s263", fourcc("s263"), MP4_TRACK_VIDEO, 0, 1000, {}},
        CodecCase{"jpeg", fourcc("jpeg"), MP4_TRACK_VIDEO, 0, 1000, {}},
        CodecCase{"mp4a", fourcc("mp4a"), MP4_TRACK_AUDIO, 0, 44000, kAudioSpecificConfig},
        CodecCase{"samr", fourcc("samr"), MP4_TRACK_AUDIO, 0, 8000, {}},
        CodecCase{"twos", fourcc("twos"), MP4_TRACK_AUDIO, 1, 8000, {}}),
    [](const ::testing::TestParamInfo<CodecCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Copying tracks of a read file: entries, samples, times and edits survive

TEST(WriteRemux, CopiedTracksReadBackLikeTheSource) {
    const std::string source = std::string(QUIL_TEST_DATA_DIR) + "/h264-bframes.mp4";
    const std::string path = tempPath("remux.mp4");
    File in, out;
    ASSERT_EQ(MP4_OK, in->open(wide(source).c_str(), 0, 0));
    ASSERT_EQ(MP4_OK, out->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
    uint32_t count = 0;
    ASSERT_EQ(MP4_OK, in->getTrackCount(&count));
    std::vector<std::vector<Sample>> expected(count + 1);
    std::vector<int64_t> mediaTimes(count + 1);
    for (uint32_t t = 1; t <= count; ++t) {
        CMp4Track *from = nullptr, *to = nullptr;
        ASSERT_EQ(MP4_OK, in->getTrack(t, &from));
        ASSERT_EQ(MP4_OK, out->addTrack(&to));
        uint32_t kind = 0, scale = 0, samples = 0;
        uint64_t delay = 0, shown = 0;
        ASSERT_EQ(MP4_OK, from->getTrackType(&kind));
        ASSERT_EQ(MP4_OK, from->getTimeScale(&scale));
        ASSERT_EQ(MP4_OK, from->getInitialDelay(&delay, &mediaTimes[t], &shown));
        ASSERT_EQ(MP4_OK, to->setTrackType(kind));
        ASSERT_EQ(MP4_OK, to->setTimeScale(scale));
        ASSERT_EQ(MP4_OK, to->addSampleEntryFrom(from, 1));
        ASSERT_EQ(MP4_OK, to->setEditList(delay, mediaTimes[t], shown));
        ASSERT_EQ(MP4_OK, from->getSampleCount(&samples));
        for (uint32_t n = 1; n <= samples; ++n) {
            Sample s;
            uint32_t size = 0, sync = 0;
            ASSERT_EQ(MP4_OK, from->getSampleSize(n, &size));
            s.bytes.resize(size);
            ASSERT_EQ(MP4_OK, from->readSample(n, size, &size, s.bytes.data()));
            ASSERT_EQ(MP4_OK, from->getSampleDecodeTime(n, &s.decodeTime));
            ASSERT_EQ(MP4_OK, from->getSampleCompositionTime(n, &s.compositionTime));
            ASSERT_EQ(MP4_OK, from->isSyncSample(n, &sync));
            s.sync = sync != 0;
            ASSERT_EQ(MP4_OK, to->addSample(s.bytes.data(), size, s.decodeTime, s.compositionTime, s.sync));
            expected[t].push_back(std::move(s));
        }
        ASSERT_EQ(MP4_OK, out->releaseTrack(to));
        ASSERT_EQ(MP4_OK, in->releaseTrack(from));
    }
    ASSERT_EQ(MP4_OK, out->close());

    File back;
    ASSERT_EQ(MP4_OK, back->open(wide(path).c_str(), 0, 0));
    for (uint32_t t = 1; t <= count; ++t) {
        CMp4Track* track = nullptr;
        ASSERT_EQ(MP4_OK, back->getTrack(t, &track));
        uint64_t delay = 0;
        int64_t mediaTime = 0;
        EXPECT_EQ(MP4_OK, track->getInitialDelay(&delay, &mediaTime));
        EXPECT_EQ(mediaTimes[t], mediaTime);
        expectReadsBack(track, expected[t]);
        EXPECT_EQ(MP4_OK, back->releaseTrack(track));
    }
    std::remove(path.c_str());
}

// ---------------------------------------------------------------------------
// Chunking and finalisation, read from the written boxes

struct Written {
    Bytes bytes;
    std::unique_ptr<CBox> movie;
};

// One video track of `count` samples of `size` bytes, 40 ms apart (time
// scale 1000), written with the given limits; the XAVC file type adds an
// audio track written in step.
Written writeVideo(uint32_t fileType, uint32_t count, uint32_t size, uint64_t durationLimit,
                   uint32_t byteLimit) {
    const std::string path = tempPath("chunks.mp4");
    {
        File file;
        EXPECT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, fileType));
        CMp4Track* video = newTrack(file.file, MP4_TRACK_VIDEO, fourcc("jpeg"));
        EXPECT_EQ(MP4_OK, video->setChunkLimits(durationLimit, byteLimit));
        CMp4Track* audio = nullptr;
        if (fileType == MP4_FILE_XAVC) audio = newTrack(file.file, MP4_TRACK_AUDIO, fourcc("samr"));
        const Bytes bytes = sampleBytes(1, size);
        for (uint32_t n = 0; n < count; ++n) {
            EXPECT_EQ(MP4_OK, video->addSample(bytes.data(), size, n * 40, n * 40, n % 5 == 0));
            if (audio) {
                const Bytes frame = sampleBytes(n, 32);
                EXPECT_EQ(MP4_OK, audio->addSample(frame.data(), 32, n * 40, n * 40, true));
            }
        }
        EXPECT_EQ(MP4_OK, file->releaseTrack(video));
        if (audio) {
            EXPECT_EQ(MP4_OK, file->releaseTrack(audio));
        }
        EXPECT_EQ(MP4_OK, file->close());
    }
    Written written{loadFile(path), nullptr};
    written.movie = movieOf(written.bytes);
    std::remove(path.c_str());
    return written;
}

std::vector<uint32_t> chunkSizes(CBox* trak) {
    auto* stsc = boxAt<CSampleToChunkBox>(trak, {"mdia", "minf", "stbl", "stsc"});
    auto* stco = boxAt<CChunkOffsetBox>(trak, {"mdia", "minf", "stbl", "stco"});
    std::vector<uint32_t> sizes;
    if (!stsc || !stco) return sizes;
    for (uint32_t chunk = 1; chunk <= stco->entryCount; ++chunk) {
        uint32_t perChunk = 0;
        stsc->getSamplesPerChunk(chunk, &perChunk);
        sizes.push_back(perChunk);
    }
    return sizes;
}

struct ChunkCase {
    const char* name;
    uint32_t count, size;
    uint64_t durationLimit;
    uint32_t byteLimit;
    std::vector<uint32_t> chunks;
};

class Chunking : public ::testing::TestWithParam<ChunkCase> {};

TEST_P(Chunking, ChunksCloseAtTheLimits) {
    const ChunkCase& c = GetParam();
    Written w = writeVideo(MP4_FILE_MPEG4, c.count, c.size, c.durationLimit, c.byteLimit);
    ASSERT_TRUE(w.movie);
    EXPECT_EQ(c.chunks, chunkSizes(boxAt<CBox>(w.movie.get(), {"trak"})));
}

INSTANTIATE_TEST_SUITE_P(
    Limits, Chunking,
    ::testing::Values(ChunkCase{"SampleLimit", 250, 10000, 0, 1000000, {100, 100, 50}},
                      ChunkCase{"ByteLimit", 10, 300000, 0, 1000000, {4, 4, 2}},
                      // The sample that reaches 200 ms after the chunk's start ends it.
                      ChunkCase{"DurationLimit", 12, 10, 200, 0, {6, 5, 1}}),
    [](const ::testing::TestParamInfo<ChunkCase>& info) { return std::string(info.param.name); });

TEST(WriteInterleaved, XavcVideoCutsAtSyncSamplesAndAudioFollows) {
    Written w = writeVideo(MP4_FILE_XAVC, 12, 10, 120, 0);
    ASSERT_TRUE(w.movie);
    CBox* video = nullptr;
    CBox* audio = nullptr;
    ASSERT_EQ(MP4_OK, w.movie->findChild(fourcc("trak"), &video, 1));
    ASSERT_EQ(MP4_OK, w.movie->findChild(fourcc("trak"), &audio, 2));
    // Sync samples every fifth: video cuts before samples 6 and 11.
    EXPECT_EQ((std::vector<uint32_t>{5, 5, 2}), chunkSizes(video));
    EXPECT_EQ((std::vector<uint32_t>{5, 5, 2}), chunkSizes(audio));
}

TEST(WriteFinalisation, DurationsEditListAndBitRates) {
    const std::string path = tempPath("final.mp4");
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
        CMp4Track* track = newTrack(file.file, MP4_TRACK_AUDIO, fourcc("mp4a"), 48000);
        ASSERT_EQ(MP4_OK, track->setEditList(0, 1024));
        // 94 frames of 1024 units: two seconds; 500 bytes each, one of 900.
        for (uint32_t n = 0; n < 94; ++n) {
            const Bytes bytes = sampleBytes(n, n == 50 ? 900 : 500);
            ASSERT_EQ(MP4_OK, track->addSample(bytes.data(), static_cast<uint32_t>(bytes.size()),
                                               n * 1024, n * 1024, true));
        }
        ASSERT_EQ(MP4_OK, file->releaseTrack(track));
        ASSERT_EQ(MP4_OK, file->close());
    }
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
    uint64_t media = 0, movie = 0, delay = 0, shown = 0;
    int64_t mediaTime = 0;
    EXPECT_EQ(MP4_OK, track->getMediaDuration(&media));
    EXPECT_EQ(94u * 1024, media);  // the last frame repeats the delta before it
    EXPECT_EQ(MP4_OK, track->getDuration(&movie));
    EXPECT_EQ((94u * 1024 - 1024) * 1000 / 48000, movie);  // the edit shows media after 1024
    EXPECT_EQ(MP4_OK, track->getInitialDelay(&delay, &mediaTime, &shown));
    EXPECT_EQ(0u, delay);
    EXPECT_EQ(1024, mediaTime);
    uint32_t buffer = 0, peak = 0, average = 0;
    EXPECT_EQ(MP4_OK, track->getBitrates(&buffer, &peak, &average));
    EXPECT_EQ(900u, buffer);
    // Frames within one second (47 frames span 47 x 1024 > 48000 units):
    // 47 of them, the 900-byte one included, at most.
    EXPECT_EQ((46u * 500 + 900) * 8, peak);
    EXPECT_EQ((93ull * 500 + 900) * 8 * 48000 / (94 * 1024), average);
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    std::remove(path.c_str());
}

// ---------------------------------------------------------------------------
// File types and brands

class FileTypes : public ::testing::TestWithParam<uint32_t> {};

TEST_P(FileTypes, BrandAndLayout) {
    const uint32_t type = GetParam();
    const std::string path = tempPath("type.mp4");
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, type));
        CMp4Track* track = newTrack(file.file, MP4_TRACK_AUDIO, fourcc("samr"));
        const Bytes bytes = sampleBytes(1, 32);
        ASSERT_EQ(MP4_OK, track->addSample(bytes.data(), 32, 0, 0, true));
        ASSERT_EQ(MP4_OK, file->releaseTrack(track));
        ASSERT_EQ(MP4_OK, file->close());
    }
    const Bytes bytes = loadFile(path);
    static const char* const kMajor[] = {"mp42", "3gp4", "M4A ", "avc1", "MSNV", "mp42", "3gp5",
                                         "3g2a", "3gp6", "mdat", "XAVC", "iso4", "qt  "};
    const size_t at = type == MP4_FILE_NO_FTYP ? 4 : 8;  // no ftyp: mdat comes first
    ASSERT_GT(bytes.size(), at + 4);
    EXPECT_EQ(std::string(kMajor[type]), std::string(bytes.begin() + at, bytes.begin() + at + 4));
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    uint32_t count = 0;
    EXPECT_EQ(MP4_OK, file->getTrackCount(&count));
    EXPECT_EQ(1u, count);
    std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(AllTypes, FileTypes, ::testing::Range(0u, 13u));

// setBrands before the first sample: the "ftyp" written again (longer,
// as long, or shorter with a "free" box after it), the samples where the
// tables say; refused where the file has no "ftyp" of its own. Remux's
// keepInputBrands gives a copy its source's brands, without those that
// only fragmented files may claim unless the copy is fragmented.
struct BrandCase {
    const char* name;
    uint32_t fileType;
    std::vector<const char*> brands;  // major, then the compatible ones
    MP4Err set;                       // setBrands' answer
    bool fragmented;                  // copied through keepInputBrands into fragments
    std::vector<const char*> copied;  // the copy's brands (empty: not copied)
    uint32_t copiedMinor;
};

class Brands : public ::testing::TestWithParam<BrandCase> {};

std::vector<uint32_t> codes(const std::vector<const char*>& brands) {
    std::vector<uint32_t> out;
    for (const char* b : brands) out.push_back(uint32_t(uint8_t(b[0])) << 24 | uint8_t(b[1]) << 16 | uint8_t(b[2]) << 8 | uint8_t(b[3]));
    return out;
}

// Major brand, minor version and compatible brands of a written file.
std::vector<uint32_t> brandsOf(const std::string& path) {
    File file;
    EXPECT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    uint32_t major = 0, minor = 0, count = 0;
    std::vector<uint32_t> brands(16);
    EXPECT_EQ(MP4_OK, Mp4GetBrands(file.file, &major, &minor, brands.data(), 16, &count));
    brands.resize(count);
    brands.insert(brands.begin(), {major, minor});
    return brands;
}

// One sample written after the brands; it reads back.
void writeOneSample(CMp4File* file, const Bytes& sample) {
    CMp4Track* track = newTrack(file, MP4_TRACK_AUDIO, fourcc("samr"));
    ASSERT_EQ(MP4_OK, track->addSample(sample.data(), static_cast<uint32_t>(sample.size()), 0, 0, true));
    ASSERT_EQ(MP4_OK, file->releaseTrack(track));
}

TEST_P(Brands, FileTypeBoxWrittenAgainBeforeTheMedia) {
    const BrandCase& c = GetParam();
    const std::string path = tempPath("brands.mp4");
    const std::vector<uint32_t> brands = codes(c.brands);
    const Bytes sample = sampleBytes(3, 32);
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, c.fileType));
        EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file->setBrands(brands[0], 7, nullptr, 1));
        ASSERT_EQ(c.set, file->setBrands(brands[0], 7, brands.data() + 1, brands.size() - 1));
        writeOneSample(file.file, sample);
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->setBrands(brands[0], 7, nullptr, 0));  // media written
        ASSERT_EQ(MP4_OK, file->close());
    }
    if (c.set == MP4_OK) {
        std::vector<uint32_t> expected = brands;
        expected.insert(expected.begin() + 1, 7);
        EXPECT_EQ(expected, brandsOf(path));
    }
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
        CMp4Track* track = nullptr;
        ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
        Bytes got(64);
        uint32_t size = 0;
        EXPECT_EQ(MP4_OK, track->readSample(1, 64, &size, got.data()));
        EXPECT_EQ(sample, Bytes(got.begin(), got.begin() + size));
        EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    }
    if (!c.copied.empty()) {
        const std::string copy = tempPath("brands-copy.mp4");
        {
            File source, target;
            MP4FragmentSettings settings{};
            settings.fragmentMilliseconds = 1000;
            settings.cmafBrands = true;
            ASSERT_EQ(MP4_OK, source->open(wide(path).c_str(), 0, 0));
            ASSERT_EQ(MP4_OK, target->open(wide(copy).c_str(), 1, MP4_FILE_MPEG4));
            ASSERT_EQ(MP4_OK, tool::keepInputBrands(source.file, target.file, c.fragmented));
            if (c.fragmented) {
                ASSERT_EQ(MP4_OK, target->setFragmentation(&settings));
            }
            writeOneSample(target.file, sample);
            ASSERT_EQ(MP4_OK, target->close());
        }
        std::vector<uint32_t> expected = codes(c.copied);
        expected.insert(expected.begin() + 1, c.copiedMinor);
        EXPECT_EQ(expected, brandsOf(copy));
        std::remove(copy.c_str());
    }
    std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Brands,
    ::testing::Values(
        BrandCase{"M4A_longer", MP4_FILE_MPEG4, {"M4A ", "M4A ", "isom", "iso2", "mp42"}, MP4_OK,
                  false, {"M4A ", "M4A ", "isom", "iso2", "mp42"}, 7},
        BrandCase{"3gp5_as_long", MP4_FILE_3GPP5, {"3gp5", "3gp5", "3gp4", "isom"}, MP4_OK, false, {}, 0},
        BrandCase{"shorter_by_4", MP4_FILE_3GPP4, {"isom", "isom", "avc1"}, MP4_OK, false, {}, 0},
        BrandCase{"shorter_by_8_qt", MP4_FILE_3GPP4, {"qt  ", "qt  "}, MP4_OK, false, {}, 0},
        BrandCase{"cmaf_into_classic", MP4_FILE_MPEG4, {"isom", "isom", "cmfc", "dash"}, MP4_OK, false,
                  {"isom", "isom"}, 7},
        BrandCase{"cmaf_major_keeps_defaults", MP4_FILE_MPEG4, {"dash", "iso6"}, MP4_OK, false,
                  {"mp42", "mp42", "isom"}, 1},
        BrandCase{"into_fragments", MP4_FILE_MPEG4, {"iso6", "iso6", "cmfc"}, MP4_OK, true,
                  {"iso6", "iso6", "cmfc"}, 7},
        BrandCase{"no_ftyp", MP4_FILE_NO_FTYP, {"isom"}, MP4_ERR_NOT_AVAILABLE, false, {}, 0},
        BrandCase{"psp", MP4_FILE_PSP, {"isom"}, MP4_ERR_NOT_AVAILABLE, false, {}, 0}),
    [](const ::testing::TestParamInfo<BrandCase>& info) { return std::string(info.param.name); });

TEST(WriteLayout, NoTracksNoMovieAndA16ByteMediaHeader) {
    const std::string path = tempPath("empty.mp4");
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, MP4_FILE_3GPP4));
        ASSERT_EQ(MP4_OK, file->close());
    }
    const Bytes bytes = loadFile(path);
    const Bytes mdat = {0, 0, 0, 1, 'm', 'd', 'a', 't', 0, 0, 0, 1, 0, 0, 0, 8};
    ASSERT_EQ(28u + 16, bytes.size());  // ftyp of three brands, then the header
    EXPECT_EQ(mdat, Bytes(bytes.begin() + 28, bytes.end()));
    std::remove(path.c_str());
}

// ---------------------------------------------------------------------------
// 64-bit chunk offsets: a storage that reports every position 4 GiB - 64 KiB
// further on stands in for a large file.

class FarStorage : public CDiscStorage {
public:
    static constexpr uint64_t kShift = 0xFFFFFFFFull - 0xFFFF;
    MP4Err seek(uint64_t position) override { return CDiscStorage::seek(position - kShift); }
    MP4Err getPosition(uint64_t* position) override {
        MP4Err err = CDiscStorage::getPosition(position);
        *position += kShift;
        return err;
    }
};

TEST(WriteLargeOffsets, ChunkOffsetsSwitchTo64BitKeepingEarlierOnes) {
    const std::string path = tempPath("far.mp4");
    const std::wstring widePath = wide(path);
    FarStorage storage;
    ASSERT_EQ(MP4_OK, storage.setPath(widePath.c_str()));
    File file;
    ASSERT_EQ(MP4_OK, file->setStorage(&storage));
    ASSERT_EQ(MP4_OK, file->open(nullptr, 1, MP4_FILE_NO_FTYP));
    CMp4Track* track = newTrack(file.file, MP4_TRACK_VIDEO, fourcc("jpeg"));
    ASSERT_EQ(MP4_OK, track->setChunkLimits(0, 20000));
    const Bytes bytes = sampleBytes(1, 20000);  // one chunk each
    for (uint32_t n = 0; n < 6; ++n) ASSERT_EQ(MP4_OK, track->addSample(bytes.data(), 20000, n, n, true));
    ASSERT_EQ(MP4_OK, file->releaseTrack(track));
    ASSERT_EQ(MP4_OK, file->close());

    std::unique_ptr<CBox> movie = movieOf(loadFile(path));
    auto* stbl = boxAt<CBox>(movie.get(), {"trak", "mdia", "minf", "stbl"});
    ASSERT_TRUE(stbl);
    EXPECT_EQ(nullptr, boxAt<CBox>(stbl, {"stco"}));
    auto* co64 = boxAt<CChunkLargeOffsetBox>(stbl, {"co64"});
    ASSERT_TRUE(co64);
    ASSERT_EQ(6u, co64->entryCount);
    for (uint32_t chunk = 1; chunk <= 6; ++chunk) {
        CChunkLargeOffsetTableEntry* entry = nullptr;
        ASSERT_EQ(MP4_OK, co64->getEntry(chunk, &entry));
        EXPECT_EQ(FarStorage::kShift + 16 + 20000ull * (chunk - 1), entry->chunkOffset);
    }
    std::remove(path.c_str());
}

// ---------------------------------------------------------------------------
// Errors

TEST(WriteErrors, RefusedCallsLeaveTheTrackUsable) {
    const std::string path = tempPath("errors.mp4");
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->addTrack(&track));
    const Bytes bytes = sampleBytes(1, 10);
    MP4SampleEntryInfo info{};
    info.format = fourcc("avc1");
    EXPECT_EQ(MP4_ERR_INVALID_DATA, track->addSampleEntry(&info));  // no kind yet
    EXPECT_EQ(MP4_ERR_INVALID_DATA, track->addSample(bytes.data(), 10, 0, 0, true));
    ASSERT_EQ(MP4_OK, track->setTrackType(MP4_TRACK_VIDEO));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, track->setTrackType(MP4_TRACK_VIDEO));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSampleEntry(&info));  // avc1 needs its record
    const Bytes notARecord = {7, 7, 7};
    info.config = notARecord.data();
    info.configLength = 3;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSampleEntry(&info));
    info.format = fourcc("mp4a");
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSampleEntry(&info));  // audio on a video track
    info.format = fourcc("lpcm");
    EXPECT_EQ(MP4_ERR_UNSUPPORTED, track->addSampleEntry(&info));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSampleEntryFrom(nullptr, 1));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSampleEntryFrom(track, 1));
    info = MP4SampleEntryInfo{};
    info.format = fourcc("jpeg");
    ASSERT_EQ(MP4_OK, track->addSampleEntry(&info));

    ASSERT_EQ(MP4_OK, track->addSample(bytes.data(), 10, 100, 100, true));
    EXPECT_EQ(MP4_ERR_BAD_TIME, track->addSample(bytes.data(), 10, 100, 100, true));  // not later
    EXPECT_EQ(MP4_ERR_BAD_TIME, track->addSample(bytes.data(), 10, 50, 50, true));
    EXPECT_EQ(MP4_ERR_BAD_TIME, track->addSample(bytes.data(), 10, 200, 199, true));  // shown before decoded
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSample(bytes.data(), 0, 200, 200, true));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->addSample(nullptr, 10, 200, 200, true));
    ASSERT_EQ(MP4_OK, track->addSample(bytes.data(), 10, 200, 200, true));
    uint32_t count = 0;
    EXPECT_EQ(MP4_OK, track->getSampleCount(&count));
    EXPECT_EQ(2u, count);
    CMp4Track* bound = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->getTrack(1, &bound));
    ASSERT_EQ(MP4_OK, file->close());  // finishes the track the caller still holds
    EXPECT_EQ(MP4_ERR_INVALID_DATA, track->addSample(bytes.data(), 10, 300, 300, true));
    // Gone with the file's storage; the track object is still freed.
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->releaseTrack(track));

    File reader;
    ASSERT_EQ(MP4_OK, reader->open(wide(path).c_str(), 0, 0));
    CMp4Track* added = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, reader->addTrack(&added));
    std::remove(path.c_str());
}

// A disc that fills up on demand.
class FillingDisc : public CDiscStorage {
public:
    bool full = false;
    MP4Err writeBytes(const void* buffer, int32_t count) override {
        return full ? MP4_ERR_IO : CDiscStorage::writeBytes(buffer, count);
    }
    MP4Err writeUInt32(uint32_t value) override {
        return full ? MP4_ERR_IO : CDiscStorage::writeUInt32(value);
    }
};

TEST(WriteErrors, AFullDiscLosesNothingAndCloseCanBeRetried) {
    const std::string path = tempPath("full.mp4");
    const std::wstring widePath = wide(path);
    FillingDisc disc;
    ASSERT_EQ(MP4_OK, disc.setPath(widePath.c_str()));
    std::vector<Sample> samples;
    {
        File file;
        ASSERT_EQ(MP4_OK, file->setStorage(&disc));
        ASSERT_EQ(MP4_OK, file->open(nullptr, 1, MP4_FILE_MPEG4));
        CMp4Track* track = newTrack(file.file, MP4_TRACK_VIDEO, fourcc("jpeg"));
        for (uint32_t n = 0; n < 250; ++n) {
            samples.push_back({sampleBytes(n, 1000 + n), n * 10, n * 10, true});
            // The first chunk cannot be written until the disc has room
            // again; every sample in between is kept and retries it.
            disc.full = n >= 99 && n < 150;
            const MP4Err expected = disc.full ? MP4_ERR_IO : MP4_OK;
            ASSERT_EQ(expected, track->addSample(samples.back().bytes.data(), 1000 + n, n * 10,
                                                 n * 10, true)) << n;
        }
        disc.full = true;
        EXPECT_EQ(MP4_ERR_IO, file->close());
        uint32_t open = 0;
        EXPECT_EQ(MP4_OK, file->isOpen(&open));
        EXPECT_EQ(1u, open);
        disc.full = false;
        ASSERT_EQ(MP4_OK, file->close());
        (void)file->releaseTrack(track);
    }
    File file;
    ASSERT_EQ(MP4_OK, file->open(widePath.c_str(), 0, 0));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
    expectReadsBack(track, samples);
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    std::remove(path.c_str());

    File full;  // /dev/full takes nothing: open already fails
    EXPECT_EQ(MP4_ERR_IO, full->open(L"/dev/full", 1, MP4_FILE_MPEG4));
}

// ---------------------------------------------------------------------------
// Last sample duration, edits over reordered frames, movie duration rule,
// destroying a file still being written

struct TimingCase {
    const char* what;
    uint32_t lastDuration;                // 0: not set
    std::vector<uint64_t> compositions;   // decode times 0, 10, 20, ...
    int64_t editMediaTime;                // -1: no setEditList
    uint64_t mediaDuration;               // mdhd
    uint64_t presented;                   // of the media edit
};

class WriteTiming : public ::testing::TestWithParam<TimingCase> {};

TEST_P(WriteTiming, DurationsAndEdits) {
    const TimingCase& c = GetParam();
    const std::string path = tempPath("timing.mp4");
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), MP4_OPEN_WRITE, MP4_FILE_MPEG4));
        CMp4Track* track = newTrack(file.file, MP4_TRACK_VIDEO, fourcc("jpeg"));
        if (c.lastDuration) {
            ASSERT_EQ(MP4_OK, track->setLastSampleDuration(c.lastDuration));
        }
        if (c.editMediaTime >= 0) {
            ASSERT_EQ(MP4_OK, track->setEditList(0, c.editMediaTime));
        }
        for (size_t n = 0; n < c.compositions.size(); ++n) {
            const Bytes bytes = sampleBytes(static_cast<uint32_t>(n), 10);
            ASSERT_EQ(MP4_OK, track->addSample(bytes.data(), 10, n * 10, c.compositions[n], n == 0));
        }
        ASSERT_EQ(MP4_OK, file->releaseTrack(track));
    }
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), MP4_OPEN_READ, 0));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
    uint64_t media = 0, delay = 0, presented = 0;
    int64_t mediaTime = 0;
    EXPECT_EQ(MP4_OK, track->getMediaDuration(&media));
    EXPECT_EQ(c.mediaDuration, media);
    EXPECT_EQ(MP4_OK, track->getInitialDelay(&delay, &mediaTime, &presented));
    EXPECT_EQ(c.presented, presented);
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WriteTiming,
    ::testing::Values(
        TimingCase{"last repeats the one before", 0, {0, 10, 20}, -1, 30, 0},
        TimingCase{"last set", 35, {0, 10, 20}, -1, 55, 0},
        TimingCase{"one sample, set", 7, {0}, -1, 7, 0},
        // I P B B: shown I B B P from 20; the edit runs to the end of P
        // (50 + 10), not to the end of the decode times (40).
        TimingCase{"reordered, default edit", 0, {20, 50, 30, 40}, 20, 40, 40},
        TimingCase{"reordered, last set", 15, {20, 50, 30, 40}, 20, 45, 40},
        TimingCase{"in order, edit", 0, {0, 10, 20, 30}, 10, 40, 30}),
    [](const ::testing::TestParamInfo<TimingCase>& info) {
        std::string name = info.param.what;
        for (char& ch : name) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
        return name;
    });

TEST(WriteTiming, LastSampleDurationRefusals) {
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(tempPath("refuse.mp4")).c_str(), MP4_OPEN_WRITE, MP4_FILE_MPEG4));
    CMp4Track* track = newTrack(file.file, MP4_TRACK_AUDIO, fourcc("sowt"));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, track->setLastSampleDuration(0x80000000u));
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file->setMovieDurationRule(2));
    EXPECT_EQ(MP4_OK, file->close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->setMovieDurationRule(MP4_MOVIE_DURATION_LONGEST_TRACK));
    std::remove(tempPath("refuse.mp4").c_str());
}

// A 1 s video track before a 5 s audio track: the movie lasts 1 s by
// default, 5 s when asked.
TEST(WriteMovieDuration, FirstTrackByDefaultLongestWhenAsked) {
    for (uint32_t rule : {MP4_MOVIE_DURATION_FIRST_TRACK, MP4_MOVIE_DURATION_LONGEST_TRACK}) {
        const std::string path = tempPath("rule.mp4");
        {
            File file;
            ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), MP4_OPEN_WRITE, MP4_FILE_MPEG4));
            if (rule != MP4_MOVIE_DURATION_FIRST_TRACK) {
                ASSERT_EQ(MP4_OK, file->setMovieDurationRule(rule));
            }
            CMp4Track* video = newTrack(file.file, MP4_TRACK_VIDEO, fourcc("jpeg"));
            CMp4Track* audio = newTrack(file.file, MP4_TRACK_AUDIO, fourcc("mp4a"));
            const Bytes bytes = sampleBytes(1, 8);
            ASSERT_EQ(MP4_OK, video->setLastSampleDuration(1000));
            ASSERT_EQ(MP4_OK, video->addSample(bytes.data(), 8, 0, 0, true));
            for (uint64_t n = 0; n < 5; ++n) {
                ASSERT_EQ(MP4_OK, audio->addSample(bytes.data(), 8, n * 1000, n * 1000, true));
            }
            ASSERT_EQ(MP4_OK, file->close());  // finishes the tracks still held
            delete video;
            delete audio;
        }
        const std::unique_ptr<CBox> movie = movieOf(loadFile(path));
        auto* mvhd = boxAt<CMovieHeaderBox>(movie.get(), {"mvhd"});
        ASSERT_NE(nullptr, mvhd);
        EXPECT_EQ(rule == MP4_MOVIE_DURATION_FIRST_TRACK ? 1000u : 5000u, mvhd->duration);
        std::remove(path.c_str());
    }
}

// A file destroyed while still open for writing is closed first: it gets
// its movie and every sample, and the object frees everything.
TEST(WriteDestroy, DestroyingAnOpenWritingFileClosesIt) {
    const std::string path = tempPath("destroy.mp4");
    CMp4File* file = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), MP4_OPEN_WRITE, MP4_FILE_MPEG4));
    CMp4Track* track = newTrack(file, MP4_TRACK_VIDEO, fourcc("jpeg"));
    std::vector<Sample> samples;
    for (uint32_t n = 0; n < 3; ++n) {
        samples.push_back({sampleBytes(n, 100), n * 40ull, n * 40ull, true});
        ASSERT_EQ(MP4_OK, track->addSample(samples.back().bytes.data(), 100, n * 40, n * 40, true));
    }
    EXPECT_EQ(MP4_OK, CMp4File::destroyInstance(&file));
    EXPECT_EQ(nullptr, file);
    delete track;  // finished by the close; the caller's object to delete

    File reread;
    ASSERT_EQ(MP4_OK, reread->open(wide(path).c_str(), MP4_OPEN_READ, 0));
    CMp4Track* back = nullptr;
    ASSERT_EQ(MP4_OK, reread->getTrack(1, &back));
    expectReadsBack(back, samples);
    EXPECT_EQ(MP4_OK, reread->releaseTrack(back));
    std::remove(path.c_str());
}

}  // namespace
}  // namespace quil
