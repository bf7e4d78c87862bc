// Rewriting files: optimizeFile (movie box first), the PSP profile and
// user-metadata boxes, and copying user data into a file being written.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "BoxBuilder.h"
#include "boxes/EncryptionBoxes.h"
#include "boxes/FragmentBoxes.h"
#include "boxes/MovieBoxes.h"
#include "boxes/PspBoxes.h"
#include "file/Rewrite.h"
#include "track/SampleTables.h"
#include "quil/quil.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;
using test::concat;
using test::fullBox;

Bytes loadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string fixture(const char* name) { return std::string(QUIL_TEST_DATA_DIR) + "/" + name; }

std::wstring wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/quil-rewrite-XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir() { (void)std::system(("rm -rf " + path_).c_str()); }
    std::string file(const char* name) const { return path_ + "/" + name; }
    std::string write(const char* name, const Bytes& bytes) const {
        std::ofstream(file(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return file(name);
    }

private:
    std::string path_;
};

MP4Err optimize(const std::string& source, const std::string& target) {
    CMp4File* file = nullptr;
    EXPECT_EQ(MP4_OK, CMp4File::createInstance(&file));
    MP4Err err = file->optimizeFile(1, wide(source).c_str(), wide(target).c_str());
    CMp4File::destroyInstance(&file);
    return err;
}

// Per sample of every track: size, times, sync flag and the bytes.
struct Sample {
    uint32_t track, size, sync;
    uint64_t decode, composition;
    Bytes bytes;
    bool operator==(const Sample& o) const {
        return track == o.track && size == o.size && sync == o.sync && decode == o.decode &&
               composition == o.composition && bytes == o.bytes;
    }
};

std::vector<Sample> readSamples(const std::string& path, uint64_t* firstOffset = nullptr) {
    std::vector<Sample> samples;
    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    EXPECT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    uint32_t tracks = 0;
    file->getTrackCount(&tracks);
    for (uint32_t t = 1; t <= tracks; ++t) {
        CMp4Track* track = nullptr;
        EXPECT_EQ(MP4_OK, file->getTrack(t, &track));
        uint32_t count = 0;
        track->getSampleCount(&count);
        for (uint32_t n = 1; n <= count; ++n) {
            Sample s{t, 0, 0, 0, 0, {}};
            uint64_t offset = 0;
            EXPECT_EQ(MP4_OK, track->getSampleOffset(n, &offset, &s.size));
            if (firstOffset && t == 1 && n == 1) *firstOffset = offset;
            s.bytes.resize(s.size);
            EXPECT_EQ(MP4_OK, track->readSample(n, s.size, &s.size, s.bytes.data()));
            track->getSampleDecodeTime(n, &s.decode);
            track->getSampleCompositionTime(n, &s.composition);
            track->isSyncSample(n, &s.sync);
            samples.push_back(std::move(s));
        }
        file->releaseTrack(track);
    }
    file->close();
    CMp4File::destroyInstance(&file);
    return samples;
}

uint64_t bigEndian(const Bytes& bytes, size_t at) {
    return uint64_t(bytes[at]) << 24 | uint64_t(bytes[at + 1]) << 16 | uint64_t(bytes[at + 2]) << 8 |
           bytes[at + 3];
}

std::vector<std::string> topLevelTypes(const Bytes& bytes) {
    std::vector<std::string> types;
    for (size_t at = 0; at + 8 <= bytes.size();) {
        uint64_t size = bigEndian(bytes, at);
        if (size == 1) size = bigEndian(bytes, at + 8) << 32 | bigEndian(bytes, at + 12);
        types.emplace_back(bytes.begin() + at + 4, bytes.begin() + at + 8);
        if (size < 8) break;
        at += size;
    }
    return types;
}

// ---------------------------------------------------------------------------
// optimizeFile

TEST(OptimizeFileTest, MovesTheMovieFirstAndKeepsEverySample) {
    TempDir dir;
    const std::string target = dir.file("out.mp4");
    ASSERT_EQ(MP4_OK, optimize(fixture("h264-aac.mp4"), target));

    const Bytes written = loadFile(target);
    const std::vector<std::string> types = topLevelTypes(written);
    ASSERT_GE(types.size(), 3u);
    EXPECT_EQ("ftyp", types[0]);
    EXPECT_LT(std::find(types.begin(), types.end(), "moov"),
              std::find(types.begin(), types.end(), "mdat"));

    uint64_t sourceOffset = 0, targetOffset = 0;
    const std::vector<Sample> before = readSamples(fixture("h264-aac.mp4"), &sourceOffset);
    const std::vector<Sample> after = readSamples(target, &targetOffset);
    EXPECT_EQ(before, after);
    EXPECT_GT(targetOffset, sourceOffset);
    // An optimized file has nothing left to move.
    EXPECT_EQ(MP4_ERR_WRONG_LAYOUT, optimize(target, dir.file("again.mp4")));
}

// Offsets pushed past 4 GiB by the move cannot stay 32-bit: the table
// becomes "co64" and keeps the exact values.
TEST(OptimizeFileTest, WidensChunkOffsetsThatWouldPassFourGiB) {
    const Bytes stbl = box("stbl", concat({
        fullBox("stsd", 0, 0, ByteWriter().u32(1).raw(box("mp4s", ByteWriter().zeros(6).u16(1)))),
        fullBox("stts", 0, 0, ByteWriter().u32(1).u32(2).u32(10)),
        fullBox("stsc", 0, 0, ByteWriter().u32(1).u32(1).u32(1).u32(1)),
        fullBox("stsz", 0, 0, ByteWriter().u32(4).u32(2)),
        fullBox("stco", 0, 0, ByteWriter().u32(2).u32(16).u32(0xFFFFFFF0u)),
    }));
    const Bytes trak = box("trak", concat({
        fullBox("tkhd", 0, 7, ByteWriter().zeros(8).u32(1).zeros(72)),
        box("mdia", concat({fullBox("mdhd", 0, 0, ByteWriter().zeros(8).u32(1000).u32(20).u32(0)),
                            fullBox("hdlr", 0, 0, ByteWriter().u32(0).code("sdsm").zeros(13)),
                            box("minf", concat({fullBox("nmhd", 0, 0, {}), stbl}))})),
    }));
    const Bytes moov = box("moov", concat({fullBox("mvhd", 0, 0, ByteWriter().zeros(96)), trak}));
    const Bytes file = concat({box("ftyp", ByteWriter().code("isom").u32(0)), box("mdat", Bytes(8, 7)),
                               moov});
    TempDir dir;
    ASSERT_EQ(MP4_OK, optimize(dir.write("in.mp4", file), dir.file("out.mp4")));

    CMp4File* out = nullptr;
    CMp4File::createInstance(&out);
    ASSERT_EQ(MP4_OK, out->open(wide(dir.file("out.mp4")).c_str(), 0, 0));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, out->getTrack(1, &track));
    uint64_t first = 0, second = 0;
    uint32_t size = 0;
    track->getSampleOffset(1, &first, &size);
    track->getSampleOffset(2, &second, &size);
    const uint64_t shift = first - 16;
    EXPECT_GE(shift, moov.size());  // the movie moved in front
    EXPECT_EQ(0xFFFFFFF0ull + shift, second);
    out->releaseTrack(track);
    out->close();
    CMp4File::destroyInstance(&out);
    const Bytes written = loadFile(dir.file("out.mp4"));
    EXPECT_NE(written.end(), std::search(written.begin(), written.end(), std::begin("co64"),
                                         std::begin("co64") + 4));
}

struct RefusedCase {
    const char* name;
    Bytes file;
    MP4Err expected;
};

class OptimizeRefusesTest : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(OptimizeRefusesTest, LeavesNoOutput) {
    TempDir dir;
    const std::string source = dir.write("in.mp4", GetParam().file);
    EXPECT_EQ(GetParam().expected, optimize(source, dir.file("out.mp4")));
}

const Bytes kMoov = box("moov", fullBox("mvhd", 0, 0, ByteWriter().zeros(96)));
const Bytes kMdat = box("mdat", Bytes(4, 1));

INSTANTIATE_TEST_SUITE_P(
    Layouts, OptimizeRefusesTest,
    ::testing::Values(RefusedCase{"empty", {}, MP4_ERR_WRONG_LAYOUT},
                      RefusedCase{"movie_first", concat({kMoov, kMdat}), MP4_ERR_WRONG_LAYOUT},
                      RefusedCase{"two_mdat", concat({kMdat, kMdat, kMoov}), MP4_ERR_WRONG_LAYOUT},
                      RefusedCase{"no_movie", concat({kMdat}), MP4_ERR_WRONG_LAYOUT},
                      RefusedCase{"no_mdat", concat({kMoov}), MP4_ERR_WRONG_LAYOUT}),
    [](const ::testing::TestParamInfo<RefusedCase>& info) { return info.param.name; });

TEST(OptimizeFileTest, RefusesMisuse) {
    TempDir dir;
    const std::string source = fixture("h264-aac.mp4");
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, optimize(source, source));
    // Another name of the same file would be truncated while read.
    ASSERT_EQ(0, symlink(source.c_str(), dir.file("link.mp4").c_str()));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, optimize(source, dir.file("link.mp4")));

    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    ASSERT_EQ(MP4_OK, file->open(wide(source).c_str(), 0, 0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE,
              file->optimizeFile(1, wide(source).c_str(), wide(dir.file("o.mp4")).c_str()));
    file->close();
    CMp4File::destroyInstance(&file);
}

TEST(OptimizeFileTest, FullDiscGivesIoError) {
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
    EXPECT_EQ(MP4_ERR_IO, optimize(fixture("h264-aac.mp4"), "/dev/full"));
}

// ---------------------------------------------------------------------------
// PSP boxes

const uint8_t kProf[16] = {0x50, 0x52, 0x4F, 0x46, 0x21, 0xD2, 0x4F, 0xCE,
                           0xBB, 0x88, 0x69, 0x5C, 0xFA, 0xC9, 0xC7, 0x40};
const uint8_t kUsmt[16] = {0x55, 0x53, 0x4D, 0x54, 0x21, 0xD2, 0x4F, 0xCE,
                           0xBB, 0x88, 0x69, 0x5C, 0xFA, 0xC9, 0xC7, 0x40};

Bytes uuidBox(const uint8_t (&usertype)[16], const Bytes& payload) {
    return box("uuid", concat({Bytes(usertype, usertype + 16), payload}));
}

// Boxes as PSP players accept them; each must read and write back
// unchanged, including an MTDT announcing more entries than it holds.
TEST(PspBoxesTest, ReadAndWriteBackUnchanged) {
    const Bytes prof = uuidBox(kProf, concat({
        ByteWriter().u32(0).u32(3),
        fullBox("FPRF", 0, 0, ByteWriter().u32(0).u32(0)),
        fullBox("APRF", 0, 0, ByteWriter().u32(2).code("mp4a").u32(0x20F).u32(0).u32(127)
                                  .u32(127).u32(48000).u32(2)),
        fullBox("VPRF", 0, 0, ByteWriter().u32(1).code("avc1").u32(0x014D0015).u32(0).u32(301)
                                  .u32(301).u32(0x1E0000).u32(0x1E0000).u16(320).u16(240)
                                  .u16(1).u16(1)),
    }));
    const Bytes mtdt = box("MTDT", ByteWriter().u16(3)
                                       .u16(12).u32(11).u16(0x55C4).u16(0).u16(0x021C)
                                       .u16(14).u32(1).u16(0x15C7).u16(1).u16('A').u16(0));
    const Bytes usmt = uuidBox(kUsmt, mtdt);
    for (const Bytes& bytes : {prof, usmt}) {
        MP4Err err = MP4_OK;
        std::unique_ptr<CBox> read = test::readTree(bytes, &err);
        ASSERT_EQ(MP4_OK, err);
        EXPECT_EQ(bytes, test::writeTree(read.get()));
    }
    std::unique_ptr<CBox> read = test::readTree(prof);
    CBox* vprf = nullptr;
    ASSERT_EQ(MP4_OK, read->findChild(fourcc("VPRF"), &vprf));
    EXPECT_EQ((320u << 16) | 240u, static_cast<CPspVprfBox*>(vprf)->field(CPspVprfBox::kSize));
}

TEST(PspBoxesTest, WriterProfileBoxAndMetadata) {
    std::unique_ptr<CBox> prof;
    ASSERT_EQ(MP4_OK, makePspProfileBox(false, &prof));
    const Bytes bytes = test::writeTree(prof.get());
    ASSERT_EQ(24u + 8 + 20 + 52 + 44, bytes.size());
    EXPECT_EQ(Bytes(kProf, kProf + 16), Bytes(bytes.begin() + 8, bytes.begin() + 24));
    EXPECT_EQ((Bytes{0, 0, 0, 0, 0, 0, 0, 3}), Bytes(bytes.begin() + 24, bytes.begin() + 32));
    // The file entry first, with its profile; then video, then audio.
    EXPECT_EQ(box("FPRF", ByteWriter().u32(0).u32(0x014D0015).u32(0)),
              Bytes(bytes.begin() + 32, bytes.begin() + 52));
    EXPECT_EQ('V', bytes[56]);
    EXPECT_EQ('A', bytes[108]);

    CContainerBox moov;
    moov.type = fourcc("moov");
    // 2006-04-01 11:11:11 in seconds since 1904.
    ASSERT_EQ(MP4_OK, addPspMovieMetadata(&moov, 3226734671ull));
    CBox* usmt = nullptr;
    ASSERT_EQ(MP4_OK, moov.findChild(fourcc("uuid"), &usmt));
    const Bytes written = test::writeTree(usmt);
    const Bytes date = ByteWriter().u16(10 + 40).u32(3).u16(0x55C4).u16(1);
    const auto at = std::search(written.begin(), written.end(), date.begin(), date.end());
    ASSERT_NE(written.end(), at);
    std::string text;
    for (auto p = at + date.size(); p + 1 < written.end() && p[1]; p += 2) text += char(p[1]);
    EXPECT_EQ("2006/04/01 11:11:11", text);
    // The title entry is tagged Japanese ("jpn" = 0x2A0E).
    const Bytes title = ByteWriter().u16(12).u32(1).u16(0x2A0E).u16(1).u16(0);
    EXPECT_NE(written.end(), std::search(written.begin(), written.end(), title.begin(), title.end()));
}

TEST(PspBoxesTest, DamagedMetadataTableIsBounded) {
    // An entry claiming more bytes than the box holds is kept as bytes,
    // never allocated from its size.
    const Bytes usmt = uuidBox(kUsmt, box("MTDT", ByteWriter().u16(1).u16(0xFFFF).u32(1)));
    MP4Err err = MP4_OK;
    std::unique_ptr<CBox> read = test::readTree(usmt, &err);
    ASSERT_EQ(MP4_OK, err);
    EXPECT_EQ(usmt, test::writeTree(read.get()));
}

// ---------------------------------------------------------------------------
// Writing: PSP files and user data copied from a read file

// Bytes of the first box of that type found anywhere (a depth-first walk
// of the usual containers), empty when there is none.
Bytes findBox(const Bytes& file, const char* type, size_t from = 0, size_t to = SIZE_MAX) {
    static const std::string containers = "moov trak mdia minf stbl udta";
    for (size_t at = from; at + 8 <= std::min(to, file.size());) {
        const uint64_t size = bigEndian(file, at);
        if (size < 8 || at + size > file.size()) break;
        const std::string kind(file.begin() + at + 4, file.begin() + at + 8);
        if (kind == type) return Bytes(file.begin() + at, file.begin() + at + size);
        if (containers.find(kind) != std::string::npos) {
            Bytes inner = findBox(file, type, at + 8, at + size);
            if (!inner.empty()) return inner;
        }
        at += size;
    }
    return {};
}

// A track of one JPEG-typed video sample per frame, written through the
// public interface; the source's user data copied when given.
void writeSmallFile(const std::string& path, uint32_t fileType, CMp4File* source = nullptr) {
    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, fileType));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->addTrack(&track));
    ASSERT_EQ(MP4_OK, track->setTrackType(MP4_TRACK_VIDEO));
    MP4SampleEntryInfo info{};
    info.format = fourcc("jpeg");
    info.width = 16;
    info.height = 16;
    ASSERT_EQ(MP4_OK, track->addSampleEntry(&info));
    const uint8_t frame[4] = {0xFF, 0xD8, 0xFF, 0xD9};
    for (uint64_t n = 0; n < 3; ++n) ASSERT_EQ(MP4_OK, track->addSample(frame, 4, n * 40, n * 40, true));
    ASSERT_EQ(MP4_OK, file->releaseTrack(track));
    if (source) {
        EXPECT_EQ(MP4_OK, file->copyUserData(source, 0, 0));
        EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file->copyUserData(source, 0, 1));
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->copyUserData(source, 9, 1));
    }
    ASSERT_EQ(MP4_OK, file->close());
    CMp4File::destroyInstance(&file);
}

TEST(PspWritingTest, ProfileBoxAfterFileTypeAndUserMetadataInTheMovie) {
    TempDir dir;
    for (uint32_t fileType : {MP4_FILE_PSP, MP4_FILE_XAVC}) {
        const std::string path = dir.file("psp.mp4");
        writeSmallFile(path, fileType);
        const Bytes written = loadFile(path);
        EXPECT_EQ((std::vector<std::string>{"ftyp", "uuid", "mdat", "moov"}), topLevelTypes(written));
        const Bytes moov = findBox(written, "moov");
        const Bytes usmt(CPspUsmtBox::kUserType, CPspUsmtBox::kUserType + 16);
        // One in the movie, one in the track.
        auto first = std::search(moov.begin(), moov.end(), usmt.begin(), usmt.end());
        ASSERT_NE(moov.end(), first);
        EXPECT_NE(moov.end(), std::search(first + 1, moov.end(), usmt.begin(), usmt.end()));
        EXPECT_EQ(3u, readSamples(path).size());
    }
}

TEST(CopyUserDataTest, MovieUserDataArrivesUnchanged) {
    CMp4File* source = nullptr;
    CMp4File::createInstance(&source);
    ASSERT_EQ(MP4_OK, source->open(wide(fixture("h264-aac.mp4")).c_str(), 0, 0));
    TempDir dir;
    writeSmallFile(dir.file("copy.mp4"), MP4_FILE_MPEG4, source);
    source->close();
    CMp4File::destroyInstance(&source);
    const Bytes original = findBox(findBox(loadFile(fixture("h264-aac.mp4")), "moov"), "udta");
    ASSERT_FALSE(original.empty());
    EXPECT_EQ(original, findBox(findBox(loadFile(dir.file("copy.mp4")), "moov"), "udta"));
}

// A copy with nothing edited is the source again, the movie after the
// media data included.
TEST(WriteCopyTest, UneditedCopyIsTheSameBytes) {
    TempDir dir;
    const std::string source = dir.file("source.mp4");
    writeSmallFile(source, MP4_FILE_MPEG4);
    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    ASSERT_EQ(MP4_OK, file->open(wide(source).c_str(), 0, 0));
    EXPECT_EQ(MP4_OK, Mp4WriteCopy(file, wide(dir.file("copy.mp4")).c_str()));
    CMp4Track* track = nullptr;
    ASSERT_EQ(MP4_OK, file->getTrack(1, &track));
    uint8_t frame[4] = {};
    uint32_t size = 0;
    EXPECT_EQ(MP4_OK, track->readSample(3, sizeof(frame), &size, frame));
    EXPECT_EQ((Bytes{0xFF, 0xD8, 0xFF, 0xD9}), Bytes(frame, frame + size));  // reads go on
    file->releaseTrack(track);
    file->close();
    CMp4File::destroyInstance(&file);
    EXPECT_EQ(loadFile(source), loadFile(dir.file("copy.mp4")));
}

// ---- the rewrite engine's offset mover ------------------------------------

// A movie with one track whose sample table holds both offset tables.
std::unique_ptr<CBox> movieWithOffsets(std::initializer_list<uint32_t> stco,
                                       std::initializer_list<uint64_t> co64) {
    ByteWriter small, large;
    small.u32(static_cast<uint32_t>(stco.size()));
    for (uint32_t offset : stco) small.u32(offset);
    large.u32(static_cast<uint32_t>(co64.size()));
    for (uint64_t offset : co64) large.u64(offset);
    const Bytes stbl = box("stbl", concat({fullBox("stco", 0, 0, small), fullBox("co64", 0, 0, large)}));
    return test::readTree(box("moov", box("trak", box("mdia", box("minf", stbl)))));
}

CBox* stblOf(CBox* movie) {
    CBox* box = movie;
    for (uint32_t type : {fourcc("trak"), fourcc("mdia"), fourcc("minf"), fourcc("stbl")}) {
        if (box && box->findChild(type, &box) != MP4_OK) box = nullptr;
    }
    return box;
}

std::vector<uint64_t> offsets(CBox* movie, uint32_t type) {
    std::vector<uint64_t> out;
    CBox* table = nullptr;
    if (stblOf(movie)->findChild(type, &table) != MP4_OK) return out;
    if (auto* stco = dynamic_cast<CChunkOffsetBox*>(table)) {
        for (uint32_t i = 1; i <= stco->entries.count(); ++i) {
            CChunkOffsetTableEntry* entry = nullptr;
            if (stco->getEntry(i, &entry) == MP4_OK) out.push_back(entry->chunkOffset);
        }
    } else if (auto* co64 = dynamic_cast<CChunkLargeOffsetBox*>(table)) {
        for (uint32_t i = 1; i <= co64->entries.count(); ++i) {
            CChunkLargeOffsetTableEntry* entry = nullptr;
            if (co64->getEntry(i, &entry) == MP4_OK) out.push_back(entry->chunkOffset);
        }
    }
    return out;
}

// Two media data boxes: 100 bytes at 100 move to 1000, 200 bytes at 5000
// move to 300 (their order swapped).
struct TwoMoves {
    CMediaDataBox first, second;
    std::vector<MediaMove> moves;
    TwoMoves(uint64_t firstTarget = 1000) {
        first.dataSize = 100;
        second.dataSize = 200;
        moves = {{&first, 100, firstTarget, 8}, {&second, 5000, 300, 8}};
    }
};

TEST(OffsetMoverTest, OffsetsFollowTheirMediaDataAndComeBack) {
    auto movie = movieWithOffsets({100, 150, 200, 5000}, {5199});
    TwoMoves data;
    COffsetMover mover(data.moves, COffsetMover::Tables::Every);
    ASSERT_EQ(MP4_OK, mover.move(movie.get(), false));
    EXPECT_EQ((std::vector<uint64_t>{1000, 1050, 1100, 300}), offsets(movie.get(), fourcc("stco")));
    EXPECT_EQ((std::vector<uint64_t>{499}), offsets(movie.get(), fourcc("co64")));
    ASSERT_EQ(MP4_OK, mover.move(movie.get(), true));
    EXPECT_EQ((std::vector<uint64_t>{100, 150, 200, 5000}), offsets(movie.get(), fourcc("stco")));
    EXPECT_EQ((std::vector<uint64_t>{5199}), offsets(movie.get(), fourcc("co64")));

    // The table a track reads is "stco" when there is one.
    COffsetMover trackTables(data.moves, COffsetMover::Tables::TrackReads);
    ASSERT_EQ(MP4_OK, trackTables.move(movie.get(), false));
    EXPECT_EQ((std::vector<uint64_t>{5199}), offsets(movie.get(), fourcc("co64")));
}

struct RefusedMove {
    const char* name;
    uint32_t strayOrLarge;  // the last "stco" entry
    uint64_t firstTarget;
    MP4Err expected;
};

class OffsetMoverRefusesTest : public ::testing::TestWithParam<RefusedMove> {};

// Checked before anything moves: the tables stay as they were.
TEST_P(OffsetMoverRefusesTest, ChangesNothing) {
    const RefusedMove& c = GetParam();
    auto movie = movieWithOffsets({100, c.strayOrLarge}, {150});
    TwoMoves data(c.firstTarget);
    COffsetMover mover(data.moves, COffsetMover::Tables::Every);
    EXPECT_EQ(c.expected, mover.move(movie.get(), false)) << c.name;
    EXPECT_EQ((std::vector<uint64_t>{100, c.strayOrLarge}), offsets(movie.get(), fourcc("stco")));
    EXPECT_EQ((std::vector<uint64_t>{150}), offsets(movie.get(), fourcc("co64")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OffsetMoverRefusesTest,
    ::testing::Values(RefusedMove{"outside every mdat", 250, 1000, MP4_ERR_WRONG_LAYOUT},
                      RefusedMove{"past 4 GiB in stco", 200, 0xFFFFFFC0ull, MP4_ERR_VALUE_TOO_LARGE}));

// faststart: one media data box, every offset moves with it, and a 32-bit
// table that would overflow becomes "co64" first.
TEST(OffsetMoverTest, OnlyMediaDataTakesStrayOffsetsAndWidens) {
    auto movie = movieWithOffsets({16, 90, 0xFFFFFF00u}, {});
    CMediaDataBox mdat;
    mdat.dataSize = 50;
    std::vector<MediaMove> moves = {{&mdat, 40, 1040, 8}};
    COffsetMover mover(moves, COffsetMover::Tables::TrackReads);
    mover.moveStrayOffsetsWithOnlyData();
    bool widened = false;
    ASSERT_EQ(MP4_OK, mover.widenOverflowing(movie.get(), &widened));
    EXPECT_TRUE(widened);
    EXPECT_TRUE(offsets(movie.get(), fourcc("stco")).empty());
    ASSERT_EQ(MP4_OK, mover.move(movie.get(), false));
    EXPECT_EQ((std::vector<uint64_t>{1016, 1090, 0xFFFFFF00ull + 1000}), offsets(movie.get(), fourcc("co64")));
}

// Offsets outside the chunk tables: a fragment's explicit base, a "tfra"
// entry, a sample table's "saio". The media data box at 92 (data 100 bytes
// at 100) moves to 992 (data at 1000); a "moof" at 40 before it moves with it.
struct OtherOffsetCase {
    const char* name;
    Bytes tree;
    uint64_t expected;
    MP4Err err;
};

Bytes fragmentWithBase(uint64_t base, bool runOffset) {
    ByteWriter tfhd, trun;
    tfhd.u32(1).u64(base);
    trun.u32(0);
    if (runOffset) trun.u32(60);
    return box("moof", box("traf", concat({fullBox("tfhd", 0, 0x000001, tfhd),
                                           fullBox("trun", 0, runOffset ? 1 : 0, trun)})));
}

Bytes randomAccessTo(uint64_t moof) {
    ByteWriter tfra;
    tfra.u32(1).u32(0).u32(1).u64(0).u64(moof).u8(1).u8(1).u8(1);
    return box("mfra", fullBox("tfra", 1, 0, tfra));
}

Bytes movieWithAuxInfoAt(uint32_t offset, bool besideSenc) {
    ByteWriter saio, senc;
    saio.u32(1).u32(offset);
    senc.u32(0);
    Bytes stbl = fullBox("saio", 0, 0, saio);
    if (besideSenc) stbl = concat({fullBox("senc", 0, 0, senc), stbl});
    return box("moov", box("trak", box("mdia", box("minf", box("stbl", stbl)))));
}

uint64_t otherOffset(CBox* top) {
    CBox* found = nullptr;
    if (top->findChild(fourcc("traf"), &found) == MP4_OK && found->findChild(fourcc("tfhd"), &found) == MP4_OK) {
        return dynamic_cast<CTrackFragmentHeaderBox*>(found)->baseDataOffset;
    }
    if (top->findChild(fourcc("tfra"), &found) == MP4_OK) {
        return dynamic_cast<CTrackFragmentRandomAccessBox*>(found)->entries[0].moofOffset;
    }
    if (stblOf(top) && stblOf(top)->findChild(fourcc("saio"), &found) == MP4_OK) {
        return dynamic_cast<CSampleAuxInfoOffsetsBox*>(found)->offsets.at(0);
    }
    return 0;
}

class OtherOffsetsTest : public ::testing::TestWithParam<OtherOffsetCase> {};

TEST_P(OtherOffsetsTest, MoveWithTheirDataAndComeBack) {
    const OtherOffsetCase& c = GetParam();
    std::unique_ptr<CBox> top = test::readTree(c.tree);
    ASSERT_TRUE(top) << c.name;
    const uint64_t original = otherOffset(top.get());
    std::unique_ptr<CBox> emptyMovie = test::readTree(box("moov", {}));
    CBox* movie = top->type == fourcc("moov") ? top.get() : emptyMovie.get();
    CMediaDataBox mdat;
    mdat.dataSize = 100;
    mdat.boxOffset = 92;
    const std::vector<MediaMove> moves = {{&mdat, 100, 1000, 8}};
    const std::vector<CBox*> topLevel = {top.get()};
    COffsetMover mover(moves, COffsetMover::Tables::Every);
    mover.moveFragmentsIn(topLevel);
    EXPECT_EQ(c.err, mover.move(movie, false)) << c.name;
    EXPECT_EQ(c.expected, otherOffset(top.get())) << c.name;
    ASSERT_EQ(c.err, mover.move(movie, true)) << c.name;
    EXPECT_EQ(original, otherOffset(top.get())) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OtherOffsetsTest,
    ::testing::Values(OtherOffsetCase{"base at its moof", fragmentWithBase(40, true), 940, MP4_OK},
                      OtherOffsetCase{"base in the data", fragmentWithBase(150, false), 1050, MP4_OK},
                      OtherOffsetCase{"base past every mdat", fragmentWithBase(4000, false), 4000,
                                      MP4_ERR_WRONG_LAYOUT},
                      OtherOffsetCase{"tfra", randomAccessTo(40), 940, MP4_OK},
                      OtherOffsetCase{"saio in stbl", movieWithAuxInfoAt(120, false), 1020, MP4_OK},
                      OtherOffsetCase{"saio beside senc", movieWithAuxInfoAt(120, true), 120, MP4_OK}));

}  // namespace
}  // namespace quil
