// Fragmented writing: files written in fragments read back sample-exactly
// through the library (and through ffprobe when it is installed), their
// box layout, the indexes close adds, refusals, and a writer killed while
// it writes leaving every finished fragment readable.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "quil/quil.h"

namespace quil {
namespace {

using Bytes = std::vector<uint8_t>;

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "quil_frag_" + std::to_string(getpid()) + "_" + name;
}
std::wstring wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }
Bytes loadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const Bytes kAvcC = {1, 66, 0xC0, 30, 0xFF, 0xE1, 0, 4, 0x67, 0x42, 0xC0, 0x1E, 1, 0, 2, 0x68, 0xCE};
const Bytes kAudioConfig = {0x12, 0x10};

// The samples the tests write: 25 fps video (a sync sample every 12
// frames, B-frame-like composition offsets, negative ones included) and
// 1024-sample AAC frames at 44.1 kHz, each sample's bytes derived from its
// track and number.
struct Sample {
    uint32_t track;  // 0 video, 1 audio
    uint32_t number;  // 1-based within its track
    uint64_t decodeTime;
    uint64_t compositionTime;
    bool sync;
    uint32_t size;
};

constexpr uint32_t kVideoScale = 12800, kVideoDelta = 512, kAudioScale = 44100, kAudioDelta = 1024;

Sample videoSample(uint32_t number) {
    const uint64_t decode = uint64_t{number - 1} * kVideoDelta;
    static const int64_t kShift[4] = {0, 2, -1, 1};
    const int64_t offset = kShift[(number - 1) % 4] * int64_t{kVideoDelta};
    return {0, number, decode, static_cast<uint64_t>(static_cast<int64_t>(decode) + offset),
            (number - 1) % 12 == 0, 300 + (number * 37) % 900};
}
Sample audioSample(uint32_t number) {
    const uint64_t decode = uint64_t{number - 1} * kAudioDelta;
    return {1, number, decode, decode, true, 100 + (number * 13) % 200};
}
Bytes bytesOf(const Sample& sample) {
    Bytes bytes(sample.size);
    for (uint32_t i = 0; i < sample.size; ++i) {
        bytes[i] = static_cast<uint8_t>(sample.number * 7 + sample.track * 101 + i);
    }
    return bytes;
}

struct Writer {
    CMp4File* file = nullptr;
    CMp4Track* tracks[2] = {};
    uint32_t written[2] = {};

    MP4Err open(const std::string& path, const MP4FragmentSettings& settings, bool audio = true) {
        MP4Err err = CMp4File::createInstance(&file);
        if (err == MP4_OK) err = file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4);
        if (err == MP4_OK) err = file->setFragmentation(&settings);
        if (err == MP4_OK) err = addTrack(0, MP4_TRACK_VIDEO, kVideoScale);
        if (err == MP4_OK && audio) err = addTrack(1, MP4_TRACK_AUDIO, kAudioScale);
        return err;
    }
    MP4Err addTrack(int index, uint32_t kind, uint32_t scale) {
        MP4SampleEntryInfo info{};
        info.format = kind == MP4_TRACK_VIDEO ? fourcc("avc1") : fourcc("mp4a");
        info.width = 320;
        info.height = 240;
        info.sampleRate = scale;
        info.channels = 2;
        const Bytes& config = kind == MP4_TRACK_VIDEO ? kAvcC : kAudioConfig;
        info.config = config.data();
        info.configLength = static_cast<uint32_t>(config.size());
        MP4Err err = file->addTrack(&tracks[index]);
        if (err == MP4_OK) err = tracks[index]->setTrackType(kind);
        if (err == MP4_OK) err = tracks[index]->setTimeScale(scale);
        if (err == MP4_OK) err = tracks[index]->addSampleEntry(&info);
        return err;
    }
    // The next sample of whichever track comes first in time.
    MP4Err addNext() {
        const bool audio = tracks[1] && uint64_t{written[1]} * kAudioDelta * kVideoScale <
                                            uint64_t{written[0]} * kVideoDelta * kAudioScale;
        const Sample sample = audio ? audioSample(written[1] + 1) : videoSample(written[0] + 1);
        const Bytes bytes = bytesOf(sample);
        MP4Err err = tracks[sample.track]->addSample(bytes.data(), sample.size, sample.decodeTime,
                                                     sample.compositionTime, sample.sync);
        if (err == MP4_OK) ++written[sample.track];
        return err;
    }
    MP4Err close() {
        MP4Err err = MP4_OK;
        for (CMp4Track*& track : tracks) {
            if (track && err == MP4_OK) err = file->releaseTrack(track);
            track = nullptr;
        }
        return err == MP4_OK ? file->close() : err;
    }
    ~Writer() {
        for (CMp4Track* track : tracks) {
            if (track) (void)file->releaseTrack(track);
        }
        CMp4File::destroyInstance(&file);
    }
};

// Reads the file through the library and checks every sample against
// what was written; returns the sample counts per track.
void expectSamplesAsWritten(const std::string& path, uint32_t counts[2]) {
    CMp4File* file = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    uint32_t trackCount = 0;
    ASSERT_EQ(MP4_OK, file->getTrackCount(&trackCount));
    Bytes buffer(4096);
    for (uint32_t t = 0; t < trackCount; ++t) {
        CMp4Track* track = nullptr;
        ASSERT_EQ(MP4_OK, file->getTrack(t + 1, &track));
        ASSERT_EQ(MP4_OK, track->getSampleCount(&counts[t]));
        for (uint32_t n = 1; n <= counts[t]; ++n) {
            const Sample expected = t == 0 ? videoSample(n) : audioSample(n);
            uint32_t size = 0, sync = 0;
            uint64_t decode = 0, composition = 0;
            ASSERT_EQ(MP4_OK, track->readSample(n, 4096, &size, buffer.data())) << t << ":" << n;
            ASSERT_EQ(expected.size, size);
            ASSERT_EQ(bytesOf(expected), Bytes(buffer.begin(), buffer.begin() + size));
            ASSERT_EQ(MP4_OK, track->getSampleDecodeTime(n, &decode));
            ASSERT_EQ(MP4_OK, track->getSampleCompositionTime(n, &composition));
            ASSERT_EQ(MP4_OK, track->isSyncSample(n, &sync));
            ASSERT_EQ(expected.decodeTime, decode) << t << ":" << n;
            ASSERT_EQ(expected.compositionTime, composition) << t << ":" << n;
            ASSERT_EQ(expected.sync, sync != 0) << t << ":" << n;
        }
        (void)file->releaseTrack(track);
    }
    (void)file->close();
    CMp4File::destroyInstance(&file);
}

// Top-level box types in file order.
std::vector<std::string> topLevelTypes(const Bytes& file) {
    std::vector<std::string> types;
    for (size_t at = 0; at + 8 <= file.size();) {
        uint64_t size = uint64_t{file[at]} << 24 | file[at + 1] << 16 | file[at + 2] << 8 | file[at + 3];
        types.emplace_back(file.begin() + at + 4, file.begin() + at + 8);
        if (size < 8) break;
        at += size;
    }
    return types;
}

uint64_t wordAt(const Bytes& file, size_t at, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | file[at + i];
    return value;
}

// The "sidx" (version 1) points at the first "moof", and its references
// cover each "moof" + "mdat" pair.
void expectSegmentIndexMatches(const Bytes& file) {
    std::vector<std::pair<std::string, uint64_t>> boxes;  // type, offset
    for (size_t at = 0; at + 8 <= file.size() && wordAt(file, at, 4) >= 8; at += wordAt(file, at, 4)) {
        boxes.emplace_back(std::string(file.begin() + at + 4, file.begin() + at + 8), at);
    }
    boxes.emplace_back("end", file.size());
    size_t sidx = 0;
    while (sidx < boxes.size() && boxes[sidx].first != "sidx") ++sidx;
    ASSERT_LT(sidx, boxes.size());
    const uint64_t at = boxes[sidx].second;
    const uint64_t firstMoof = at + wordAt(file, at, 4) + wordAt(file, at + 28, 8);
    const uint64_t count = wordAt(file, at + 38, 2);
    std::vector<uint64_t> moofs;
    for (const auto& box : boxes) {
        if (box.first == "moof") moofs.push_back(box.second);
    }
    ASSERT_EQ(count, moofs.size());
    ASSERT_EQ(moofs[0], firstMoof);
    uint64_t position = firstMoof;
    for (uint64_t i = 0; i < count; ++i) {
        EXPECT_EQ(moofs[i], position);
        position += wordAt(file, at + 40 + 12 * i, 4) & 0x7FFFFFFF;
    }
}

uint32_t ffprobePackets(const std::string& path) {
    const std::string command = "ffprobe -v error -count_packets -show_entries stream=nb_read_packets "
                                "-of csv=p=0 '" + path + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return 0;
    uint32_t total = 0, count = 0;
    while (std::fscanf(pipe, "%u", &count) == 1) total += count;
    pclose(pipe);
    return total;
}

bool haveFfprobe() { return std::system("ffprobe -version >/dev/null 2>&1") == 0; }

struct LayoutCase {
    const char* name;
    uint32_t milliseconds;
    uint32_t indexEntries;
    bool randomAccess;
    bool audio;
    std::vector<std::string> leading;  // the first top-level boxes
    const char* last;                  // the last top-level box
};

class FragmentLayout : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(FragmentLayout, ReadsBackAsWrittenWithItsBoxes) {
    const LayoutCase& c = GetParam();
    const std::string path = tempPath(std::string(c.name) + ".mp4");
    constexpr uint32_t kVideoSamples = 250;  // 10 s
    MP4FragmentSettings settings{};
    settings.fragmentMilliseconds = c.milliseconds;
    settings.segmentIndexEntries = c.indexEntries;
    settings.randomAccessIndex = c.randomAccess;
    {
        Writer writer;
        ASSERT_EQ(MP4_OK, writer.open(path, settings, c.audio));
        while (writer.written[0] < kVideoSamples) ASSERT_EQ(MP4_OK, writer.addNext());
        ASSERT_EQ(MP4_OK, writer.close());
        uint32_t fragments = 0;
        ASSERT_EQ(MP4_OK, writer.file->getFragmentCount(&fragments));
        // A fragment starts at each sync sample (every 12 frames, 0.48 s)
        // once the duration has passed.
        const uint32_t syncEvery = (c.milliseconds * kVideoScale / 1000 + 12 * kVideoDelta - 1) /
                                   (12 * kVideoDelta);
        EXPECT_EQ((kVideoSamples + 12 * syncEvery - 1) / (12 * syncEvery), fragments);
        uint64_t total = 0;
        for (uint32_t i = 0; i < fragments; ++i) {
            MP4FragmentInfo info;
            ASSERT_EQ(MP4_OK, writer.file->getFragmentInfo(i, &info));
            EXPECT_EQ(total, info.startTime);
            EXPECT_TRUE(info.startsWithSync);
            total += info.duration;
        }
        EXPECT_EQ(uint64_t{kVideoSamples} * kVideoDelta, total);
        MP4FragmentInfo beyond;
        EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, writer.file->getFragmentInfo(fragments, &beyond));
    }
    uint32_t counts[2] = {};
    expectSamplesAsWritten(path, counts);
    EXPECT_EQ(kVideoSamples, counts[0]);
    const std::vector<std::string> types = topLevelTypes(loadFile(path));
    ASSERT_GE(types.size(), c.leading.size());
    EXPECT_EQ(c.leading, std::vector<std::string>(types.begin(), types.begin() + c.leading.size()));
    EXPECT_EQ(c.last, types.back());
    if (types[2] == "sidx") expectSegmentIndexMatches(loadFile(path));
    if (haveFfprobe()) {
        EXPECT_EQ(counts[0] + counts[1], ffprobePackets(path));
    }
    std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Settings, FragmentLayout,
    ::testing::Values(
        LayoutCase{"plain", 1000, 0, true, true, {"ftyp", "moov", "moof", "free", "mdat", "moof"}, "mfra"},
        LayoutCase{"indexed", 2000, 64, true, true, {"ftyp", "moov", "sidx", "free", "moof"}, "mfra"},
        LayoutCase{"bare", 500, 0, false, true, {"ftyp", "moov", "moof", "free", "mdat"}, "mdat"},
        // More fragments than the room for the index: the room stays free.
        LayoutCase{"small-index", 500, 2, false, false, {"ftyp", "moov", "free", "moof"}, "mdat"}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) {
        std::string name = info.param.name;
        for (char& c : name) c = c == '-' ? '_' : c;
        return name;
    });

// Top-level boxes: type and offset.
std::vector<std::pair<std::string, uint64_t>> topLevelBoxes(const Bytes& file) {
    std::vector<std::pair<std::string, uint64_t>> boxes;
    for (size_t at = 0; at + 8 <= file.size() && wordAt(file, at, 4) >= 8; at += wordAt(file, at, 4)) {
        boxes.emplace_back(std::string(file.begin() + at + 4, file.begin() + at + 8), at);
    }
    return boxes;
}

// The fragment offsets every "tfra" of the "mfra" names.
std::vector<uint64_t> randomAccessMoofs(const Bytes& file) {
    std::vector<uint64_t> moofs;
    for (const auto& box : topLevelBoxes(file)) {
        if (box.first != "mfra") continue;
        const uint64_t end = box.second + wordAt(file, box.second, 4);
        for (uint64_t at = box.second + 8; at + 8 <= end; at += wordAt(file, at, 4)) {
            if (std::string(file.begin() + at + 4, file.begin() + at + 8) != "tfra") continue;
            const bool wide = file[at + 8] == 1;
            const uint32_t sizes = static_cast<uint32_t>(wordAt(file, at + 16, 4));
            const uint64_t entry = (wide ? 16 : 8) + ((sizes >> 4) & 3) + ((sizes >> 2) & 3) + (sizes & 3) + 3;
            for (uint64_t i = 0, count = wordAt(file, at + 20, 4); i < count; ++i) {
                moofs.push_back(wordAt(file, at + 24 + i * entry + (wide ? 8 : 4), wide ? 8 : 4));
            }
        }
    }
    return moofs;
}

// A metadata edit grows the movie box in front of the fragments: the copy
// reads every sample as written, and its fragment index names the moved
// fragments.
TEST(FragmentWrite, MetadataEditKeepsTheFragmentsReadable) {
    const std::string path = tempPath("edited-source.mp4"), copy = tempPath("edited-copy.mp4");
    MP4FragmentSettings settings{};
    settings.fragmentMilliseconds = 1000;
    settings.randomAccessIndex = 1;
    {
        Writer writer;
        ASSERT_EQ(MP4_OK, writer.open(path, settings));
        while (writer.written[0] < 100) ASSERT_EQ(MP4_OK, writer.addNext());
        ASSERT_EQ(MP4_OK, writer.close());
    }
    CMp4File* file = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    const std::string title(300, 't');
    ASSERT_EQ(MP4_OK, Mp4SetTag(file, 0xA96E616Du /* "©nam" */, 1, reinterpret_cast<const uint8_t*>(title.data()),
                                static_cast<uint32_t>(title.size())));
    ASSERT_EQ(MP4_OK, Mp4WriteCopy(file, wide(copy).c_str()));
    (void)file->close();
    CMp4File::destroyInstance(&file);

    uint32_t counts[2] = {};
    expectSamplesAsWritten(copy, counts);
    EXPECT_EQ(100u, counts[0]);
    const Bytes source = loadFile(path), edited = loadFile(copy);
    ASSERT_GT(edited.size(), source.size() + title.size());
    std::vector<uint64_t> moofs;
    for (const auto& box : topLevelBoxes(edited)) {
        if (box.first == "moof") moofs.push_back(box.second);
    }
    const std::vector<uint64_t> named = randomAccessMoofs(edited);
    EXPECT_EQ(randomAccessMoofs(source).size(), named.size());
    ASSERT_FALSE(named.empty());
    for (uint64_t offset : named) EXPECT_NE(moofs.end(), std::find(moofs.begin(), moofs.end(), offset)) << offset;
    if (haveFfprobe()) {
        EXPECT_EQ(counts[0] + counts[1], ffprobePackets(copy));
    }
    std::remove(path.c_str());
    std::remove(copy.c_str());
}

// Refusals: the mode is chosen before samples, and the movie is fixed once
// the first fragment exists; samples of the mode are checked for timing.
TEST(FragmentWrite, RefusesWhatTheModeCannotTake) {
    const std::string path = tempPath("refusals.mp4");
    MP4FragmentSettings settings{};
    CMp4File* file = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->setFragmentation(&settings));  // not open
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, MP4_FILE_PSP));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->setFragmentation(&settings));
    ASSERT_EQ(MP4_OK, file->close());
    CMp4File::destroyInstance(&file);

    Writer writer;
    settings.fragmentMilliseconds = 0;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&writer.file));
    ASSERT_EQ(MP4_OK, writer.file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, writer.file->setFragmentation(&settings));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, writer.file->setFragmentation(nullptr));
    settings.fragmentMilliseconds = 1000;
    ASSERT_EQ(MP4_OK, writer.file->setFragmentation(&settings));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, writer.file->setFragmentation(&settings));  // twice
    ASSERT_EQ(MP4_OK, writer.addTrack(0, MP4_TRACK_VIDEO, kVideoScale));
    const Bytes bytes(10, 1);
    CMp4Track* video = writer.tracks[0];
    ASSERT_EQ(MP4_OK, video->addSample(bytes.data(), 10, 1000, 1000, true));
    EXPECT_EQ(MP4_ERR_BAD_TIME, video->addSample(bytes.data(), 10, 999, 999, false));  // goes back
    EXPECT_EQ(MP4_ERR_BAD_TIME, video->addSample(bytes.data(), 10, 2000, 2000 + (1ull << 31), false));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, video->addSample(bytes.data(), 0, 2000, 2000, false));
    // Equal decode times and composition before decode are a copy's timing.
    EXPECT_EQ(MP4_OK, video->addSample(bytes.data(), 10, 1000, 500, false));
    CMp4Track* late = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, writer.file->addTrack(&late));
    EXPECT_EQ(MP4_OK, writer.close());
    std::remove(path.c_str());
}

// Without samples (or tracks) close still writes the movie, and no index
// over fragments that do not exist.
TEST(FragmentWrite, FileWithoutSamplesGetsItsMovie) {
    for (bool withTrack : {false, true}) {
        const std::string path = tempPath("empty.mp4");
        MP4FragmentSettings settings{};
        settings.segmentIndexEntries = 4;
        {
            Writer writer;
            ASSERT_EQ(MP4_OK, CMp4File::createInstance(&writer.file));
            ASSERT_EQ(MP4_OK, writer.file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
            ASSERT_EQ(MP4_OK, writer.file->setFragmentation(&settings));
            if (withTrack) {
                ASSERT_EQ(MP4_OK, writer.addTrack(0, MP4_TRACK_VIDEO, kVideoScale));
            }
            ASSERT_EQ(MP4_OK, writer.close());
        }
        EXPECT_EQ((std::vector<std::string>{"ftyp", "moov", "free", "mfra"}),
                  topLevelTypes(loadFile(path)));
        uint32_t counts[2] = {};
        if (withTrack) expectSamplesAsWritten(path, counts);
        EXPECT_EQ(0u, counts[0]);
        std::remove(path.c_str());
    }
}

// A recording killed with SIGKILL at random moments: the file it leaves
// opens, and every sample the library (and ffprobe) reads is one that was
// written, with its bytes and times, ending on a fragment boundary.
TEST(FragmentWrite, KilledWriterLeavesEveryFinishedFragment) {
    std::mt19937 random(12345);
    for (int round = 0; round < 4; ++round) {
        const std::string path = tempPath("killed" + std::to_string(round) + ".mp4");
        int ready[2];
        ASSERT_EQ(0, pipe(ready));
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(ready[0]);
            MP4FragmentSettings settings{};
            settings.fragmentMilliseconds = 100;
            Writer writer;
            if (writer.open(path, settings) != MP4_OK) _exit(2);
            // Past the first fragment, so that the movie box is on disc.
            while (writer.written[0] < 40) {
                if (writer.addNext() != MP4_OK) _exit(3);
            }
            if (write(ready[1], "r", 1) != 1) _exit(4);
            // Bounded: a few hundred megabytes at most if never killed.
            for (uint32_t i = 0; i < 2000000; ++i) {
                if (writer.addNext() != MP4_OK) _exit(5);
            }
            _exit(0);
        }
        close(ready[1]);
        char byte = 0;
        ASSERT_EQ(1, read(ready[0], &byte, 1));
        close(ready[0]);
        usleep(std::uniform_int_distribution<int>(1000, 80000)(random));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";

        uint32_t counts[2] = {};
        expectSamplesAsWritten(path, counts);
        EXPECT_GE(counts[0], 36u);  // the fragments before the signal
        if (haveFfprobe()) {
        EXPECT_EQ(counts[0] + counts[1], ffprobePackets(path));
    }
        std::remove(path.c_str());
    }
}

}  // namespace
}  // namespace quil
