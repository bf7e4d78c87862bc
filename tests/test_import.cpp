// Importing raw streams: the bit reader and the stream parsers (parameter
// sets, slice picture order, ADTS, AMR, MPEG audio and WAV headers) on
// tables of good and damaged cases, and Mp4ImportStreams end to end on the
// raw fixtures, on damaged copies of them and with bad arguments.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "import/AudioParsers.h"
#include "import/BitReader.h"
#include "import/VideoParsers.h"
#include "quil/quil.h"

namespace quil {
namespace {

using Bytes = std::vector<uint8_t>;

std::string fixture(const char* name) { return std::string(QUIL_TEST_DATA_DIR) + "/" + name; }
std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "quil_import_" + std::to_string(getpid()) + "_" + name;
}
std::wstring wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }
Bytes load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
void save(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

// The first NAL unit of a type in an Annex B stream.
Bytes firstNal(const Bytes& stream, bool hevc, uint8_t type) {
    size_t cursor = 0;
    NalUnit nal;
    while (nextNalUnit(stream.data(), stream.size(), &cursor, &nal)) {
        const uint8_t found = hevc ? hevcNalType(nal.data) : (nal.data[0] & 0x1F);
        if (found == type) return Bytes(nal.data, nal.data + nal.size);
    }
    return Bytes();
}

// ---------------------------------------------------------------------------
// Bit reader

TEST(ImportBits, ExpGolombAndUnescaping) {
    // ue: 1 -> 0, 010 -> 1, 011 -> 2, 00100 -> 3; se of 00101 (4) -> -2.
    const Bytes bits = {0xA6, 0x42, 0x80};  // 1 010 011 00100 00101 0000000
    CBitReader reader(bits);
    EXPECT_EQ(0u, reader.ue());
    EXPECT_EQ(1u, reader.ue());
    EXPECT_EQ(2u, reader.ue());
    EXPECT_EQ(3u, reader.ue());
    EXPECT_EQ(-2, reader.se());
    EXPECT_FALSE(reader.failed());
    EXPECT_EQ(0u, reader.ue());  // only zeros left: runs off the end
    EXPECT_TRUE(reader.failed());

    const Bytes escaped = {0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x03, 0x03, 0x03};
    EXPECT_EQ((Bytes{0x00, 0x00, 0x01, 0x00, 0x00, 0x03, 0x03}),
              unescapeNalPayload(escaped.data(), escaped.size()));
    const Bytes longZeros(40, 0);  // a code of more than 32 bits fails
    CBitReader zeros(longZeros);
    zeros.ue();
    EXPECT_TRUE(zeros.failed());
}

TEST(ImportBits, NalUnitsSplitOnStartCodesWithoutTrailingZeros) {
    const Bytes stream = {0, 0, 0, 1, 0x67, 1, 2, 0, 0, 0, 1, 0x68, 3, 0, 0, 1, 0, 0, 1, 0x65};
    std::vector<Bytes> units;
    size_t cursor = 0;
    NalUnit nal;
    while (nextNalUnit(stream.data(), stream.size(), &cursor, &nal)) {
        units.emplace_back(nal.data, nal.data + nal.size);
    }
    EXPECT_EQ((std::vector<Bytes>{{0x67, 1, 2}, {0x68, 3}, {0x65}}), units);
}

// ---------------------------------------------------------------------------
// Parameter sets of the fixtures, and damaged copies of them

TEST(ImportVideoParsers, ParameterSetsOfTheFixtures) {
    const Bytes h264 = load(fixture("raw-h264-bframes.h264"));
    AvcSps avc;
    const Bytes avcSps = firstNal(h264, false, AVC_NAL_SPS);
    ASSERT_EQ(MP4_OK, parseAvcSps(avcSps.data(), avcSps.size(), &avc));
    EXPECT_EQ(77, avc.profile);  // main
    EXPECT_EQ(160u, avc.width);
    EXPECT_EQ(120u, avc.height);  // 8 macroblock rows cropped by 8 lines
    EXPECT_EQ(0u, avc.pocType);
    EXPECT_EQ(50u, avc.timing.timeScale);  // 25 fps, two ticks a frame
    EXPECT_EQ(2u, avc.timing.frameDuration);

    const Bytes hevc = load(fixture("raw-hevc-bframes.hevc"));
    HevcSps sps;
    HevcVps vps;
    const Bytes hevcSps = firstNal(hevc, true, HEVC_NAL_SPS);
    const Bytes hevcVps = firstNal(hevc, true, HEVC_NAL_VPS);
    ASSERT_EQ(MP4_OK, parseHevcSps(hevcSps.data(), hevcSps.size(), &sps));
    ASSERT_EQ(MP4_OK, parseHevcVps(hevcVps.data(), hevcVps.size(), &vps));
    EXPECT_EQ(160u, sps.width);
    EXPECT_EQ(120u, sps.height);
    EXPECT_EQ(1u, sps.chromaFormat);
    EXPECT_EQ(1u, sps.profileTierLevel[0] & 0x1F);  // Main
    const VideoTiming timing = sps.timing.timeScale ? sps.timing : vps.timing;
    EXPECT_EQ(25u * timing.frameDuration, timing.timeScale);
}

// Every prefix of a parameter set is refused (or, where the prefix is a
// complete set, read), never read beyond; a flipped bit never crashes.
TEST(ImportVideoParsers, DamagedParameterSetsAreRefusedSafely) {
    const Bytes h264 = load(fixture("raw-h264-bframes.h264"));
    const Bytes hevc = load(fixture("raw-hevc-bframes.hevc"));
    const std::vector<std::pair<Bytes, int>> sets = {
        {firstNal(h264, false, AVC_NAL_SPS), 0}, {firstNal(h264, false, AVC_NAL_PPS), 1},
        {firstNal(hevc, true, HEVC_NAL_VPS), 2}, {firstNal(hevc, true, HEVC_NAL_SPS), 3},
        {firstNal(hevc, true, HEVC_NAL_PPS), 4}};
    auto parse = [](const Bytes& nal, int kind) {
        AvcSps a; AvcPps b; HevcVps c; HevcSps d; HevcPps e;
        switch (kind) {
            case 0: return parseAvcSps(nal.data(), nal.size(), &a);
            case 1: return parseAvcPps(nal.data(), nal.size(), &b);
            case 2: return parseHevcVps(nal.data(), nal.size(), &c);
            case 3: return parseHevcSps(nal.data(), nal.size(), &d);
            default: return parseHevcPps(nal.data(), nal.size(), &e);
        }
    };
    for (const auto& set : sets) {
        ASSERT_FALSE(set.first.empty());
        EXPECT_EQ(MP4_OK, parse(set.first, set.second)) << set.second;
        // Cut before the fields end (a picture parameter set's first two
        // bytes hold all that is read of it).
        const size_t needed = set.second == 1 || set.second == 4 ? 2 : 12;
        for (size_t length = 0; length < needed; ++length) {
            const Bytes cut(set.first.begin(), set.first.begin() + static_cast<long>(length));
            EXPECT_NE(MP4_OK, parse(cut, set.second)) << set.second << " cut to " << length;
        }
        for (size_t bit = 8; bit < set.first.size() * 8; ++bit) {
            Bytes flipped = set.first;
            flipped[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
            (void)parse(flipped, set.second);
        }
    }
}

// Picture order count type 0 across the LSB wrap, and type 2.
TEST(ImportVideoParsers, PictureOrderCount) {
    AvcSps sps;
    sps.log2MaxPocLsb = 4;  // lsb counts 0..15
    CAvcPictureOrder order;
    struct Step { uint32_t lsb; bool idr, reference; int64_t poc; };
    const Step steps[] = {{0, true, true, 0},    {8, false, true, 8},  {4, false, false, 4},
                          {14, false, true, 14}, {2, false, true, 18}, {0, false, false, 16},
                          {6, false, true, 22},  {0, true, true, 0},   {4, false, true, 4}};
    for (const Step& step : steps) {
        AvcSliceHeader slice;
        slice.pocLsb = step.lsb;
        EXPECT_EQ(step.poc, order.next(sps, slice, step.idr, step.reference)) << step.lsb;
    }
    sps.pocType = 2;
    CAvcPictureOrder byFrame;
    AvcSliceHeader slice;
    EXPECT_EQ(0, byFrame.next(sps, slice, true, true));
    slice.frameNum = 1;
    EXPECT_EQ(2, byFrame.next(sps, slice, false, true));
    slice.frameNum = 2;
    EXPECT_EQ(3, byFrame.next(sps, slice, false, false));  // non-reference: one less
}

// ---------------------------------------------------------------------------
// Audio headers

struct AdtsCase {
    const char* what;
    Bytes header;
    MP4Err err;
    uint32_t headerSize, frameSize, rate, channels;
};

TEST(ImportAudioParsers, AdtsHeaders) {
    // 0xFFF1: MPEG-4, layer 0, no CRC; LC, 44.1 kHz (4), mono; 371 bytes.
    const AdtsCase cases[] = {
        {"LC 44.1 kHz mono", {0xFF, 0xF1, 0x50, 0x40, 0x2E, 0x7F, 0xFC}, MP4_OK, 7, 371, 44100, 1},
        {"with CRC", {0xFF, 0xF0, 0x50, 0x80, 0x2E, 0x7F, 0xFC}, MP4_OK, 9, 371, 44100, 2},
        {"no sync", {0xFF, 0x01, 0x50, 0x40, 0x2E, 0x7F, 0xFC}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0},
        {"layer not 0", {0xFF, 0xF3, 0x50, 0x40, 0x2E, 0x7F, 0xFC}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0},
        {"rate index 13", {0xFF, 0xF1, 0x74, 0x40, 0x2E, 0x7F, 0xFC}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0},
        {"frame shorter than header", {0xFF, 0xF1, 0x50, 0x40, 0x00, 0xBF, 0xFC}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0},
        {"two raw blocks", {0xFF, 0xF1, 0x50, 0x40, 0x2E, 0x7F, 0xFD}, MP4_ERR_UNSUPPORTED, 0, 0, 0, 0},
        {"in-band channel layout", {0xFF, 0xF1, 0x50, 0x00, 0x2E, 0x7F, 0xFC}, MP4_ERR_UNSUPPORTED, 0, 0, 0, 0},
        {"cut short", {0xFF, 0xF1, 0x50, 0x40, 0x2E, 0x7F}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0},
    };
    for (const AdtsCase& c : cases) {
        AdtsHeader header;
        EXPECT_EQ(c.err, parseAdtsHeader(c.header.data(), c.header.size(), &header)) << c.what;
        if (c.err != MP4_OK) continue;
        EXPECT_EQ(c.headerSize, header.headerSize) << c.what;
        EXPECT_EQ(c.frameSize, header.frameSize) << c.what;
        EXPECT_EQ(c.rate, header.sampleRate) << c.what;
        EXPECT_EQ(c.channels, header.channelConfig) << c.what;
    }
    AdtsHeader lc;
    ASSERT_EQ(MP4_OK, parseAdtsHeader(cases[0].header.data(), 7, &lc));
    uint8_t config[2];
    adtsAudioSpecificConfig(lc, config);
    EXPECT_EQ((Bytes{0x12, 0x08}), Bytes(config, config + 2));  // LC, index 4, 1 channel
}

TEST(ImportAudioParsers, AmrFramesAndMagic) {
    size_t header = 0;
    EXPECT_EQ(1, amrStorageKind(reinterpret_cast<const uint8_t*>("#!AMR\n\x3c"), 7, &header));
    EXPECT_EQ(6u, header);
    EXPECT_EQ(2, amrStorageKind(reinterpret_cast<const uint8_t*>("#!AMR-WB\n"), 9, &header));
    EXPECT_EQ(9u, header);
    EXPECT_EQ(0, amrStorageKind(reinterpret_cast<const uint8_t*>("#!AMR_MC1.0\n"), 12, &header));
    EXPECT_EQ(0, amrStorageKind(reinterpret_cast<const uint8_t*>("#!AM"), 4, &header));
    struct { uint8_t header; bool wide; uint32_t size; } cases[] = {
        {0x3C, false, 32},  // 12.2 kbit/s
        {0x04, false, 13},  // 4.75 kbit/s
        {0x44, false, 6},   // SID
        {0x7C, false, 1},   // no data
        {0x4C, false, 0},   // type 9: not defined for AMR
        {0xBC, false, 0},   // padding bit set
        {0x3D, false, 0},   // low padding bit set
        {0x44, true, 61},   // 23.85 kbit/s
        {0x4C, true, 6},    // SID
        {0x54, true, 0},    // type 10: not defined
        {0x74, true, 1},    // speech lost
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.size, amrFrameSize(c.header, c.wide)) << std::hex << int(c.header) << c.wide;
    }
}

struct MpegCase {
    const char* what;
    Bytes header;
    MP4Err err;
    uint32_t version, layer, rate, channels, frameSize, samples;
};

TEST(ImportAudioParsers, MpegAudioHeaders) {
    const MpegCase cases[] = {
        {"MPEG-1 layer III 128k 44.1", {0xFF, 0xFB, 0x90, 0x00}, MP4_OK, 1, 3, 44100, 2, 417, 1152},
        {"padded", {0xFF, 0xFB, 0x92, 0xC0}, MP4_OK, 1, 3, 44100, 1, 418, 1152},
        {"MPEG-2 layer III 32k 22.05", {0xFF, 0xF3, 0x40, 0xC0}, MP4_OK, 2, 3, 22050, 1, 104, 576},
        {"MPEG-2.5 layer III 8k 11.025", {0xFF, 0xE3, 0x10, 0xC0}, MP4_OK, 25, 3, 11025, 1, 52, 576},
        {"MPEG-1 layer II 192k 48", {0xFF, 0xFD, 0xA4, 0x00}, MP4_OK, 1, 2, 48000, 2, 576, 1152},
        {"MPEG-1 layer I 32k 32", {0xFF, 0xFF, 0x18, 0x00}, MP4_OK, 1, 1, 32000, 2, 48, 384},
        {"reserved version", {0xFF, 0xEB, 0x90, 0x00}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0, 0, 0},
        {"reserved layer", {0xFF, 0xF9, 0x90, 0x00}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0, 0, 0},
        {"bad bit rate", {0xFF, 0xFB, 0xF0, 0x00}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0, 0, 0},
        {"reserved rate", {0xFF, 0xFB, 0x9C, 0x00}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0, 0, 0},
        {"free format", {0xFF, 0xFB, 0x00, 0x00}, MP4_ERR_UNSUPPORTED, 0, 0, 0, 0, 0, 0},
        {"no sync", {0xFF, 0x1B, 0x90, 0x00}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0, 0, 0},
        {"cut short", {0xFF, 0xFB, 0x90}, MP4_ERR_INVALID_DATA, 0, 0, 0, 0, 0, 0},
    };
    for (const MpegCase& c : cases) {
        MpegAudioHeader h;
        EXPECT_EQ(c.err, parseMpegAudioHeader(c.header.data(), c.header.size(), &h)) << c.what;
        if (c.err != MP4_OK) continue;
        EXPECT_EQ((std::vector<uint32_t>{c.version, c.layer, c.rate, c.channels, c.frameSize, c.samples}),
                  (std::vector<uint32_t>{h.version, h.layer, h.sampleRate, h.channels, h.frameSize,
                                         h.samplesPerFrame}))
            << c.what;
    }
    const Bytes id3 = {'I', 'D', '3', 4, 0, 0x10, 0, 0, 2, 1};  // 257-byte body, footer
    EXPECT_EQ(10u + 257 + 10, id3v2TagSize(id3.data(), id3.size()));
    const Bytes notSyncSafe = {'I', 'D', '3', 4, 0, 0, 0x80, 0, 0, 0};
    EXPECT_EQ(0u, id3v2TagSize(notSyncSafe.data(), notSyncSafe.size()));
}

TEST(ImportAudioParsers, LameDelaysOfTheFixture) {
    const Bytes mp3 = load(fixture("raw-mp3.mp3"));
    const size_t tag = id3v2TagSize(mp3.data(), mp3.size());
    MpegAudioHeader header;
    ASSERT_EQ(MP4_OK, parseMpegAudioHeader(mp3.data() + tag, mp3.size() - tag, &header));
    const MpegInfoFrame info = parseMpegInfoFrame(mp3.data() + tag, mp3.size() - tag, header);
    EXPECT_TRUE(info.present);
    EXPECT_TRUE(info.hasDelays);
    EXPECT_GT(info.encoderDelay, 0u);
    EXPECT_LT(info.padding, header.samplesPerFrame + 529);
}

// A WAVE file: RIFF header, a format chunk of `formatLength` bytes, a
// data chunk declaring `declared` bytes followed by `actual` bytes.
Bytes wave(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, uint32_t formatLength,
           uint32_t declared, uint32_t actual, uint16_t blockAlign = 0) {
    auto le16 = [](Bytes* b, uint32_t v) { b->push_back(v & 0xFF); b->push_back((v >> 8) & 0xFF); };
    auto le32 = [&](Bytes* b, uint32_t v) { le16(b, v & 0xFFFF); le16(b, v >> 16); };
    Bytes out = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'L', 'I', 'S', 'T'};
    le32(&out, 3);
    out.insert(out.end(), {'a', 'b', 'c', 0});  // odd chunk, padded
    out.insert(out.end(), {'f', 'm', 't', ' '});
    le32(&out, formatLength);
    const uint16_t align = blockAlign ? blockAlign : static_cast<uint16_t>(channels * bits / 8);
    le16(&out, tag);
    le16(&out, channels);
    le32(&out, rate);
    le32(&out, rate * align);
    le16(&out, align);
    le16(&out, bits);
    out.resize(out.size() + formatLength - 16, 0);
    if (formatLength >= 40) out[out.size() - 16] = static_cast<uint8_t>(tag == 0xFFFE ? 1 : 0);
    out.insert(out.end(), {'d', 'a', 't', 'a'});
    le32(&out, declared);
    out.resize(out.size() + actual, 0x55);
    return out;
}

TEST(ImportAudioParsers, WaveHeaders) {
    struct Case { const char* what; Bytes file; MP4Err err; uint64_t dataSize; };
    const Case cases[] = {
        {"16-bit stereo", wave(1, 2, 16000, 16, 16, 400, 400), MP4_OK, 400},
        {"extensible PCM", wave(0xFFFE, 2, 48000, 24, 40, 600, 600), MP4_OK, 600},
        {"float", wave(3, 1, 8000, 32, 18, 40, 40), MP4_OK, 40},
        {"data longer than the file", wave(1, 2, 16000, 16, 16, 0xFFFFFFFF, 402), MP4_OK, 400},
        {"half a frame at the end", wave(1, 2, 16000, 16, 16, 403, 403), MP4_OK, 400},
        {"32-bit integer", wave(1, 2, 16000, 32, 16, 400, 400), MP4_ERR_UNSUPPORTED, 0},
        {"ADPCM", wave(2, 1, 8000, 4, 16, 400, 400, 256), MP4_ERR_UNSUPPORTED, 0},
        {"format chunk too short", wave(1, 2, 16000, 16, 14, 400, 400), MP4_ERR_INVALID_DATA, 0},
        {"block align wrong", wave(1, 2, 16000, 16, 16, 400, 400, 3), MP4_ERR_INVALID_DATA, 0},
        {"no channels", wave(1, 0, 16000, 16, 16, 400, 400), MP4_ERR_INVALID_DATA, 0},
        {"no data", wave(1, 2, 16000, 16, 16, 0, 0), MP4_ERR_INVALID_DATA, 0},
    };
    for (const Case& c : cases) {
        WaveFormat format;
        EXPECT_EQ(c.err, parseWave(c.file.data(), c.file.size(), &format)) << c.what;
        if (c.err == MP4_OK) {
            EXPECT_EQ(c.dataSize, format.dataSize) << c.what;
        }
    }
    Bytes rf64 = wave(1, 2, 16000, 16, 16, 400, 400);
    rf64[0] = 'R', rf64[1] = 'F', rf64[2] = '6', rf64[3] = '4';
    WaveFormat format;
    EXPECT_EQ(MP4_ERR_UNSUPPORTED, parseWave(rf64.data(), rf64.size(), &format));
    for (size_t length = 0; length < 60; ++length) {  // every cut of the headers
        EXPECT_NE(MP4_OK, parseWave(cases[0].file.data(), length, &format)) << length;
    }
}

// ---------------------------------------------------------------------------
// Mp4ImportStreams

// Imports the given fixtures into a new file; returns the import's result.
MP4Err importInto(const std::string& output, const std::vector<std::string>& inputs,
                  MP4ImportReport* report, const char* language = nullptr) {
    std::vector<std::wstring> paths;
    for (const std::string& input : inputs) paths.push_back(wide(input));
    std::vector<MP4ImportStream> streams(inputs.size());
    for (size_t i = 0; i < inputs.size(); ++i) {
        streams[i].path = paths[i].c_str();
        streams[i].language = language;
    }
    CMp4File* file = nullptr;
    MP4Err err = CMp4File::createInstance(&file);
    if (err == MP4_OK) err = file->open(wide(output).c_str(), MP4_OPEN_WRITE, MP4_FILE_MPEG4);
    if (err == MP4_OK) {
        err = Mp4ImportStreams(file, streams.data(), static_cast<uint32_t>(streams.size()), report);
    }
    MP4Err closed = file ? file->close() : MP4_OK;
    CMp4File::destroyInstance(&file);
    return err != MP4_OK ? err : closed;
}

struct ImportCase {
    const char* name;
    uint32_t format;
    uint32_t timeScale;
    uint32_t samples;
    bool reordered;  // composition times differ from decode times
};

class ImportFixture : public ::testing::TestWithParam<ImportCase> {};

// Each raw fixture imports into a track that reads back: the codec, the
// sample count, decode times one frame apart, composition times that are a
// permutation of them shifted by the reorder delay, sync first sample.
TEST_P(ImportFixture, ReadsBack) {
    const ImportCase& c = GetParam();
    const std::string output = tempPath(std::string(c.name) + ".mp4");
    MP4ImportReport report;
    ASSERT_EQ(MP4_OK, importInto(output, {fixture(c.name)}, &report, "eng")) << report.message;
    CMp4File* file = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    ASSERT_EQ(MP4_OK, file->open(wide(output).c_str(), MP4_OPEN_READ, 0));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
    uint32_t format = 0, scale = 0, count = 0, sync = 0;
    uint8_t language[3] = {};
    EXPECT_EQ(MP4_OK, track->getSampleEntryType(&format));
    EXPECT_EQ(c.format, format);
    EXPECT_EQ(MP4_OK, track->getTimeScale(&scale));
    EXPECT_EQ(c.timeScale, scale);
    EXPECT_EQ(MP4_OK, track->getSampleCount(&count));
    EXPECT_EQ(c.samples, count);
    EXPECT_EQ(MP4_OK, track->getLanguage(language));
    EXPECT_EQ("eng", std::string(language, language + 3));
    EXPECT_EQ(MP4_OK, track->isSyncSample(1, &sync));
    EXPECT_EQ(1u, sync);
    std::vector<uint64_t> decode(count), composition(count);
    for (uint32_t n = 1; n <= count; ++n) {
        EXPECT_EQ(MP4_OK, track->getSampleDecodeTime(n, &decode[n - 1]));
        EXPECT_EQ(MP4_OK, track->getSampleCompositionTime(n, &composition[n - 1]));
    }
    std::vector<uint64_t> sorted = composition;
    std::sort(sorted.begin(), sorted.end());
    const uint64_t shift = sorted.empty() ? 0 : sorted[0];
    for (uint64_t& time : sorted) time -= shift;
    EXPECT_EQ(decode, sorted);
    EXPECT_EQ(c.reordered, composition != decode);
    int64_t mediaTime = 0;
    uint64_t delay = 0;
    EXPECT_EQ(MP4_OK, track->getInitialDelay(&delay, &mediaTime));
    if (c.reordered) {
        EXPECT_EQ(static_cast<int64_t>(shift), mediaTime);
    }
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    EXPECT_EQ(MP4_OK, file->close());
    CMp4File::destroyInstance(&file);
    std::remove(output.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, ImportFixture,
    ::testing::Values(ImportCase{"raw-h264-bframes.h264", fourcc("avc1"), 12800, 12, true},
                      ImportCase{"raw-h264-baseline.h264", fourcc("avc1"), 12800, 12, false},
                      ImportCase{"raw-hevc-bframes.hevc", fourcc("hvc1"), 12800, 12, true},
                      ImportCase{"raw-aac.aac", fourcc("mp4a"), 44100, 23, false},
                      ImportCase{"raw-mp3.mp3", fourcc("mp4a"), 22050, 22, false},
                      // Raw audio reads back a chunk per sample.
                      ImportCase{"raw-pcm16.wav", fourcc("sowt"), 16000, 1, false},
                      ImportCase{"raw-amrnb.amr", fourcc("samr"), 8000, 10, false},
                      ImportCase{"raw-amrwb.amr", fourcc("sawb"), 16000, 10, false}),
    [](const ::testing::TestParamInfo<ImportCase>& info) {
        std::string name = info.param.name;
        for (char& ch : name) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
        return name;
    });

// Damaged copies of every fixture (cut anywhere, bytes overwritten) import
// or fail with a reason; none crashes, hangs or leaks.
TEST(ImportDamage, DamagedStreamsFailWithAReasonOrImport) {
    const char* names[] = {"raw-h264-bframes.h264", "raw-hevc-bframes.hevc", "raw-aac.aac",
                           "raw-mp3.mp3", "raw-pcm16.wav", "raw-amrnb.amr", "raw-amrwb.amr"};
    const std::string input = tempPath("damaged.bin");
    const std::string output = tempPath("damaged.mp4");
    uint32_t failures = 0;
    for (const char* name : names) {
        const Bytes original = load(fixture(name));
        std::vector<Bytes> copies;
        for (size_t cut : {size_t{1}, size_t{5}, original.size() / 3, original.size() - 1}) {
            copies.emplace_back(original.begin(), original.begin() + static_cast<long>(cut));
        }
        for (size_t at = 0; at < original.size(); at += original.size() / 7 + 1) {
            Bytes copy = original;
            for (size_t i = at; i < at + 6 && i < copy.size(); ++i) copy[i] = static_cast<uint8_t>(0xFF - i);
            copies.push_back(copy);
        }
        for (const Bytes& copy : copies) {
            save(input, copy);
            MP4ImportReport report;
            const MP4Err err = importInto(output, {input}, &report);
            if (err != MP4_OK) {
                ++failures;
                EXPECT_EQ(1u, report.stream) << name;
                EXPECT_NE('\0', report.message[0]) << name;
            }
        }
    }
    EXPECT_GT(failures, 10u);  // the damage is seen, not waved through
    std::remove(input.c_str());
    std::remove(output.c_str());
}

TEST(ImportErrors, ArgumentsAndOutputState) {
    MP4ImportReport report;
    const std::string output = tempPath("errors.mp4");
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, importInto(output, {fixture("raw-aac.aac")}, &report, "EN"));
    EXPECT_EQ(1u, report.stream);
    EXPECT_EQ(MP4_ERR_IO, importInto(output, {fixture("raw-aac.aac"), fixture("missing.aac")}, &report));
    EXPECT_EQ(2u, report.stream);
    const std::string junk = tempPath("junk.bin");
    save(junk, Bytes(100, 0x42));
    EXPECT_EQ(MP4_ERR_INVALID_DATA, importInto(output, {junk}, &report));
    EXPECT_NE(std::string::npos, std::string(report.message).find("not a stream"));

    MP4ImportStream stream;
    const std::wstring path = wide(fixture("raw-aac.aac"));
    stream.path = path.c_str();
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4ImportStreams(nullptr, &stream, 1));
    CMp4File* file = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4ImportStreams(file, &stream, 0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, Mp4ImportStreams(file, &stream, 1));  // not open
    stream.frameRateNumerator = 25;  // without a denominator
    ASSERT_EQ(MP4_OK, file->open(wide(output).c_str(), MP4_OPEN_WRITE, MP4_FILE_MPEG4));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, Mp4ImportStreams(file, &stream, 1, &report));
    EXPECT_EQ(MP4_OK, file->close());
    CMp4File::destroyInstance(&file);

    EXPECT_EQ(uint32_t{MP4_FILE_M4A}, Mp4FileTypeForName(L"song.M4A"));
    EXPECT_EQ(uint32_t{MP4_FILE_3GPP4}, Mp4FileTypeForName(L"clip.3gp"));
    EXPECT_EQ(uint32_t{MP4_FILE_QUICKTIME}, Mp4FileTypeForName(L"a.mov"));
    EXPECT_EQ(uint32_t{MP4_FILE_MPEG4}, Mp4FileTypeForName(L"a.mp4"));
    std::remove(junk.c_str());
    std::remove(output.c_str());
}

}  // namespace
}  // namespace quil
