// The file object: lifetime, open and close states, the read path over
// memory and disc storages, movie-level properties, and the tool's JSON
// writer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "../tools/Info.h"
#include "boxes/MovieBoxes.h"
#include "file/Mp4FileImpl.h"
#include "hint/Packetizers.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;
using test::concat;
using test::fullBox;

// 2020-01-01 00:00:00 in seconds since 1904-01-01.
constexpr uint64_t k2020 = 3660681600ull;

Bytes fileTypeBox(const char* majorBrand) {
    return box("ftyp", ByteWriter().code(majorBrand).u32(0x200).code("isom").code("mp41"));
}

Bytes movieHeader(uint32_t timeScale, uint64_t creation = 0, uint64_t modification = 0) {
    ByteWriter payload;
    payload.u32(static_cast<uint32_t>(creation)).u32(static_cast<uint32_t>(modification));
    payload.u32(timeScale).u32(0);                       // duration
    payload.u32(0x00010000).u16(0x0100).u16(0).u32(0).u32(0);
    for (uint32_t m : {0x00010000u, 0u, 0u, 0u, 0x00010000u, 0u, 0u, 0u, 0x40000000u}) {
        payload.u32(m);
    }
    payload.zeros(24).u32(2);                            // pre-defined, next track ID
    return fullBox("mvhd", 0, 0, payload);
}

Bytes emptyTrack() { return box("trak", {}); }

Bytes movie(uint32_t timeScale, int tracks, uint64_t creation = 0, uint64_t modification = 0) {
    Bytes children = movieHeader(timeScale, creation, modification);
    for (int i = 0; i < tracks; ++i) children = concat({children, emptyTrack()});
    return box("moov", children);
}

Bytes mediaData(size_t bytes) { return box("mdat", Bytes(bytes, 0xAB)); }

// A caller-owned memory storage over a copy of the bytes, attached for
// reading but not opened: the file object opens it.
class SuppliedStorage {
public:
    explicit SuppliedStorage(Bytes bytes) : bytes_(std::move(bytes)) { rewind(); }
    ~SuppliedStorage() { storage_.detach(); }
    void rewind() {
        storage_.attach(bytes_.data(), static_cast<uint32_t>(bytes_.size()), false);
    }
    CMemoryStorage* get() { return &storage_; }

private:
    Bytes bytes_;
    CMemoryStorage storage_;
};

class FileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file_)); }
    void TearDown() override {
        uint32_t open = 0;
        if (file_->isOpen(&open) == MP4_OK && open) (void)file_->close();
        EXPECT_EQ(MP4_OK, CMp4File::destroyInstance(&file_));
    }

    // Storages outlive TearDown, which may still close the file.
    SuppliedStorage* supply(Bytes bytes) {
        storages_.push_back(std::make_unique<SuppliedStorage>(std::move(bytes)));
        return storages_.back().get();
    }
    MP4Err openBytes(SuppliedStorage* storage, uint32_t fileType = 0) {
        EXPECT_EQ(MP4_OK, file_->setStorage(storage->get()));
        return file_->open(nullptr, 0, fileType);
    }
    CMp4FileImpl* impl() { return static_cast<CMp4FileImpl*>(file_); }
    uint32_t openFlag() {
        uint32_t open = 99;
        EXPECT_EQ(MP4_OK, file_->isOpen(&open));
        return open;
    }
    CMovieHeaderBox* movieHeaderBox() {
        CBox* moov = nullptr;
        CBox* mvhd = nullptr;
        if (impl()->findTopLevelBox(fourcc("moov"), &moov) != MP4_OK) return nullptr;
        if (moov->findChild(fourcc("mvhd"), &mvhd, 1) != MP4_OK) return nullptr;
        return dynamic_cast<CMovieHeaderBox*>(mvhd);
    }

    CMp4File* file_ = nullptr;
    std::vector<std::unique_ptr<SuppliedStorage>> storages_;
};

// A path in the test's temporary directory; the file is removed at the end.
class TempFile {
public:
    TempFile(const std::string& name, const Bytes& bytes)
        : path_(::testing::TempDir() + "quil_file_test_" + std::to_string(getpid()) + "_" + name) {
        std::ofstream out(path_, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }
    std::wstring widePath() const { return std::wstring(path_.begin(), path_.end()); }

private:
    std::string path_;
};

// ---------------------------------------------------------------------------

TEST(FileLifetime, CreateAndDestroyCodes) {
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, CMp4File::createInstance(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, CMp4File::destroyInstance(nullptr));
    CMp4File* file = nullptr;
    EXPECT_EQ(MP4_OK, CMp4File::destroyInstance(&file));  // holding null is fine

    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(MP4_OK, CMp4File::destroyInstance(&file));
    EXPECT_EQ(nullptr, file);
}

TEST_F(FileTest, FreshObjectIsClosedAndEmpty) {
    EXPECT_EQ(0u, openFlag());
    uint32_t value = 77;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getFileType(&value));
    EXPECT_EQ(0u, value);  // stored before the state is reported
    EXPECT_EQ(MP4_OK, file_->getTrackCount(&value));
    EXPECT_EQ(0u, value);
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getTimeScale(&value));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->dumpBoxes());
    EXPECT_EQ(nullptr, impl()->readPath());
    CMp4Track* track = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getTrack(1, &track));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->setCreationTime(2020, 1, 1, 0, 0, 0));
}

TEST_F(FileTest, NullOutPointersAreRejected) {
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->isOpen(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getFileType(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getTrackCount(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getTimeScale(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getTrack(1, nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->releaseTrack(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getMetaData(nullptr));
    uint32_t y, mo, d, h, mi;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getCreationTime(&y, &mo, &d, &h, &mi, nullptr));
}

// ---------------------------------------------------------------------------
// Reading from a supplied storage

// The file type comes from the major brand (the type given to open is not
// kept), the rest from the first movie; damage after it is skipped.
TEST(FileOpen, PropertiesOfTheFirstMovie) {
    struct Case {
        std::string what;
        Bytes bytes;
        uint32_t fileType, tracks, timeScale;
    };
    std::vector<Case> cases = {
        {"three tracks", concat({fileTypeBox("isom"), mediaData(100), movie(600, 3)}), MP4_FILE_MPEG4, 3, 600},
        {"no ftyp", movie(1000, 1), MP4_FILE_NO_FTYP, 1, 1000},
        {"two movies", concat({fileTypeBox("isom"), movie(90000, 1), movie(600, 4)}), MP4_FILE_MPEG4, 1, 90000},
        // Five trailing bytes (less than a header) and an unknown box.
        {"lenient", concat({fileTypeBox("isom"), box("zzzz", Bytes(20, 1)), movie(1000, 2), Bytes{1, 2, 3, 4, 5}}),
         MP4_FILE_MPEG4, 2, 1000},
    };
    const std::pair<const char*, uint32_t> brands[] = {
        {"isom", 0}, {"mp42", 0}, {"3gp4", 1}, {"M4A ", 2}, {"avc1", 3}, {"MSNV", 4}, {"3gp5", 6},
        {"3g2a", 7}, {"3gp6", 8}, {"XAVC", 10}, {"iso4", 0}, {"qt  ", 0}, {"3GP4", 0}};
    for (const auto& [brand, type] : brands) {
        cases.push_back({std::string("brand ") + brand, concat({fileTypeBox(brand), movie(1000, 0)}), type, 0, 1000});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CMp4File* file = nullptr;
        ASSERT_EQ(MP4_OK, CMp4File::createInstance(&file));
        SuppliedStorage storage(c.bytes);
        EXPECT_EQ(MP4_OK, file->setStorage(storage.get()));
        EXPECT_EQ(MP4_OK, file->open(nullptr, 0, MP4_FILE_QUICKTIME));
        uint32_t type = 99, tracks = 99, timeScale = 99;
        EXPECT_EQ(MP4_OK, file->getFileType(&type));
        EXPECT_EQ(MP4_OK, file->getTrackCount(&tracks));
        EXPECT_EQ(MP4_OK, file->getTimeScale(&timeScale));
        EXPECT_EQ((std::vector<uint32_t>{c.fileType, c.tracks, c.timeScale}),
                  (std::vector<uint32_t>{type, tracks, timeScale}));
        EXPECT_EQ(nullptr, static_cast<CMp4FileImpl*>(file)->readPath());  // no path to reopen
        EXPECT_EQ(MP4_OK, file->close());
        CMp4File::destroyInstance(&file);
    }
}

TEST_F(FileTest, SecondOpenOrStorageSwapIsRefusedAndChangesNothing) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("3gp4"), movie(1000, 2)}));
    SuppliedStorage* other = supply(concat({movie(1000, 1)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->open(L"/nonexistent.mp4", 0, 0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->setStorage(other->get()));
    EXPECT_EQ(1u, openFlag());
    uint32_t value = 0;
    EXPECT_EQ(MP4_OK, file_->getTrackCount(&value));
    EXPECT_EQ(2u, value);
}

TEST_F(FileTest, CloseReleasesTreeButKeepsSuppliedStorage) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), movie(1000, 1)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    EXPECT_EQ(MP4_OK, file_->close());
    EXPECT_EQ(0u, openFlag());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->dumpBoxes());
    uint32_t value = 0;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getTimeScale(&value));

    // The storage was closed, not deleted, and stays installed: a new open
    // without a path reads it again.
    storage->rewind();
    EXPECT_EQ(MP4_OK, file_->open(nullptr, 0, 0));
    EXPECT_EQ(1u, openFlag());
}

TEST_F(FileTest, MovieWithoutHeaderOpensButHasNoTimeScale) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), box("moov", emptyTrack())}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    uint32_t value = 5;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getTimeScale(&value));
    EXPECT_EQ(0u, value);
    uint32_t y, mo, d, h, mi, s;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getCreationTime(&y, &mo, &d, &h, &mi, &s));
}

// No movie, or an mdat claiming 2^40 bytes that swallows the movie after it.
TEST_F(FileTest, FailedOpenLeavesObjectClosedAndStorageClosed) {
    Bytes hugeMdat = ByteWriter().u32(1).code("mdat").u64(uint64_t{1} << 40).zeros(8);
    for (const Bytes& bytes : {concat({fileTypeBox("isom"), mediaData(32)}),
                               concat({fileTypeBox("isom"), hugeMdat, movie(1000, 1)})}) {
        SuppliedStorage* storage = supply(bytes);
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, openBytes(storage));
        EXPECT_EQ(0u, openFlag());
        EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->dumpBoxes());  // no tree left behind
        // The failure exit closed the supplied storage: it can be opened again.
        EXPECT_EQ(MP4_OK, storage->get()->open(0));
        EXPECT_EQ(MP4_OK, storage->get()->close());
    }
}

TEST_F(FileTest, ModeAndFileTypeOutOfRange) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), movie(1000, 1)}));
    ASSERT_EQ(MP4_OK, file_->setStorage(storage->get()));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->open(nullptr, 2, 0));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->open(nullptr, 0, 13));
    EXPECT_EQ(0u, openFlag());
    EXPECT_EQ(MP4_OK, file_->open(nullptr, 0, 12));
}

// ---------------------------------------------------------------------------
// Paths and disc storage

TEST_F(FileTest, PathIsReportedInUtf8UntilClosed) {
    TempFile file("\xC3\xA9t\xC3\xA9.mp4", concat({fileTypeBox("isom"), movie(1000, 1)}));  // "été"
    const std::string dir = ::testing::TempDir();
    std::wstring wide(dir.begin(), dir.end());
    const std::string pid = std::to_string(getpid());
    wide += L"quil_file_test_" + std::wstring(pid.begin(), pid.end()) + L"_\u00E9t\u00E9.mp4";
    EXPECT_EQ(MP4_OK, file_->open(wide.c_str(), 0, 0));
    ASSERT_NE(nullptr, impl()->readPath());
    EXPECT_EQ(file.path(), impl()->readPath());
    EXPECT_EQ(MP4_OK, file_->close());
    EXPECT_EQ(nullptr, impl()->readPath());
}

TEST_F(FileTest, FailedPathOpenLeavesNoStorageBehind) {
    TempFile good("after_failure.mp4", concat({fileTypeBox("3gp6"), movie(1000, 1)}));
    // Mode 2 fails after the disc storage was made for the missing path; if
    // that storage survived, the next open would read the wrong file.
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->open(L"/nonexistent/a.mp4", 2, 0));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->open(L"/nonexistent/a.mp4", 0, 13));
    EXPECT_EQ(MP4_ERR_IO, file_->open(L"/nonexistent/a.mp4", 0, 0));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->open(nullptr, 0, 0));
    ASSERT_EQ(MP4_OK, file_->open(good.widePath().c_str(), 0, 0));
    uint32_t fileType = 0;
    EXPECT_EQ(MP4_OK, file_->getFileType(&fileType));
    EXPECT_EQ(uint32_t{MP4_FILE_3GPP6}, fileType);
}

TEST_F(FileTest, OnlyLowerCaseHttpAtTheStartIsNetwork) {
    // "http..." goes to the network (nothing listens on the loopback
    // discard port, so the transfer fails); every other path goes to the
    // disc (and is missing).
    EXPECT_EQ(MP4_ERR_IO, file_->open(L"http://127.0.0.1:9/a.mp4", 0, 0));
    EXPECT_EQ(MP4_ERR_IO, file_->open(L"https://127.0.0.1:9/a.mp4", 0, 0));
    EXPECT_EQ(MP4_ERR_IO, file_->open(L"HTTP://127.0.0.1:9/a.mp4", 0, 0));
    EXPECT_EQ(MP4_ERR_IO, file_->open(L"/nonexistent/http.mp4", 0, 0));
    EXPECT_EQ(MP4_ERR_IO, file_->open(L"htt", 0, 0));
    EXPECT_EQ(0u, openFlag());
}

// ---------------------------------------------------------------------------
// Tracks

TEST_F(FileTest, TrackNumbersOutsideTheMovie) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), movie(1000, 2)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    CMp4Track* track = reinterpret_cast<CMp4Track*>(storage);  // must be reset
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getTrack(0, &track));
    EXPECT_EQ(nullptr, track);
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getTrack(3, &track));
    CMp4RtpHintTrack* hint = nullptr;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getHintTrack(0, &hint));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getHintTrack(3, &hint));
}

TEST_F(FileTest, ReleaseTrackDeletesAndReportsFlush) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), movie(1000, 1)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    // A memory storage cannot flush: the track is deleted all the same.
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->releaseTrack(new CTrackImpl(impl(), 0)));
}

TEST_F(FileTest, TrackModeRange) {
    EXPECT_EQ(MP4_OK, file_->setTrackMode(2));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->setTrackMode(3));
}

// ---------------------------------------------------------------------------
// Creation time

TEST_F(FileTest, SetCreationTimeRaisesModificationTime) {
    SuppliedStorage* storage =
        supply(concat({fileTypeBox("isom"), movie(1000, 0, k2020, k2020 + 100)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    CMovieHeaderBox* mvhd = movieHeaderBox();
    ASSERT_NE(nullptr, mvhd);

    // Earlier than the modification time: only the creation time moves.
    ASSERT_EQ(MP4_OK, file_->setCreationTime(2019, 12, 31, 0, 0, 0));
    EXPECT_EQ(k2020 - 86400, mvhd->creationTime);
    EXPECT_EQ(k2020 + 100, mvhd->modificationTime);

    ASSERT_EQ(MP4_OK, file_->setCreationTime(2021, 6, 15, 12, 30, 45));
    EXPECT_EQ(mvhd->creationTime, mvhd->modificationTime);
    uint32_t y, mo, d, h, mi, s;
    ASSERT_EQ(MP4_OK, file_->getCreationTime(&y, &mo, &d, &h, &mi, &s));
    EXPECT_EQ((std::vector<uint32_t>{2021, 6, 15, 12, 30, 45}),
              (std::vector<uint32_t>{y, mo, d, h, mi, s}));
    EXPECT_EQ(0, mvhd->version);
}

TEST_F(FileTest, CreationTimeRangeAndWidth) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), movie(1000, 0)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->setCreationTime(2201, 1, 1, 0, 0, 0));
    // Beyond 32 bits of seconds the header needs version 1.
    ASSERT_EQ(MP4_OK, file_->setCreationTime(2050, 1, 1, 0, 0, 0));
    EXPECT_GT(movieHeaderBox()->creationTime, uint64_t{UINT32_MAX});
    EXPECT_EQ(1, movieHeaderBox()->version);

    // A stored time in 2200 or later is not a date: reported as invalid.
    movieHeaderBox()->creationTime = uint64_t{300} * 366 * 86400;
    uint32_t y = 1, mo = 1, d = 1, h = 1, mi = 1, s = 1;
    EXPECT_EQ(MP4_ERR_INVALID_DATA, file_->getCreationTime(&y, &mo, &d, &h, &mi, &s));
    EXPECT_EQ(0u, y);
}

// ---------------------------------------------------------------------------
// Dump and operations of later work

TEST_F(FileTest, DumpPrintsEveryTopLevelBoxAtDepthZero) {
    SuppliedStorage* storage = supply(concat({fileTypeBox("isom"), mediaData(8), movie(1000, 1)}));
    ASSERT_EQ(MP4_OK, openBytes(storage));
    testing::internal::CaptureStdout();
    EXPECT_EQ(MP4_OK, file_->dumpBoxes());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("\nBox type = ftyp  Size = 24\n"));
    EXPECT_NE(std::string::npos, out.find("\nBox type = mdat  Size = 16\n"));
    EXPECT_NE(std::string::npos, out.find("\nBox type = moov  Size = "));
    EXPECT_NE(std::string::npos, out.find("\n  Box type = trak  Size = 8\n"));
}

TEST_F(FileTest, LaterOperationsValidateThenReportUnsupported) {
    CMp4MetaData* metaData = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->getMetaData(&metaData));  // not open
    EXPECT_EQ(nullptr, metaData);
    CMp4Track* track = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->addTrack(&track));  // not writing
    CMp4RtpHintTrack* hint = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->createHintTrack(&hint, 1));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->addHintTrack(nullptr));
    EXPECT_EQ(MP4_OK, file_->setHintTrackContext(nullptr));
    EXPECT_EQ(MP4_OK, file_->optimizeFile(0, nullptr, nullptr));  // only operation 1 acts
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->optimizeFile(1, L"/a.mp4", L"/a.mp4"));
    EXPECT_EQ(MP4_ERR_IO, file_->optimizeFile(1, L"/nonexistent/a.mp4", L"/b.mp4"));
    uint32_t length = 9;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->getCopyright(nullptr, 4, &length, 0));
    EXPECT_EQ(0u, length);
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, CMp4File::createIsmaBifsCommand(1, 1, nullptr, nullptr));
}

TEST_F(FileTest, PayloadTypesRunOutAfter33HintTracks) {
    // A hint track whose build fails (no such media track) still takes a
    // payload type.
    std::unique_ptr<CMp4RtpHintTrackImpl> hint(
        createPacketizer(kHintH264, static_cast<CMp4FileImpl*>(file_), 0));
    ASSERT_EQ(MP4_OK, hint->setMediaTrack(1));
    for (int i = 0; i < 33; ++i) EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file_->addHintTrack(hint.get()));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, file_->addHintTrack(hint.get()));
}

// ---------------------------------------------------------------------------
// Error names

TEST(ErrorStrings, EveryCodeIsNamed) {
#define QUIL_NAMED(code) {code, #code}
    const std::pair<MP4Err, const char*> codes[] = {
        QUIL_NAMED(MP4_OK), QUIL_NAMED(MP4_ERR_OUT_OF_MEMORY), QUIL_NAMED(MP4_ERR_INVALID_ARGUMENT),
        QUIL_NAMED(MP4_ERR_NOT_AVAILABLE), QUIL_NAMED(MP4_ERR_IO), QUIL_NAMED(MP4_ERR_INVALID_DATA),
        QUIL_NAMED(MP4_ERR_BAD_BOX_SIZE), QUIL_NAMED(MP4_ERR_BUFFER_TOO_SMALL), QUIL_NAMED(MP4_ERR_WRONG_LAYOUT),
        QUIL_NAMED(MP4_ERR_BAD_SIZE_FIELD), QUIL_NAMED(MP4_ERR_VALUE_TOO_LARGE), QUIL_NAMED(MP4_ERR_END_OF_FILE),
        QUIL_NAMED(MP4_ERR_UNSUPPORTED), QUIL_NAMED(MP4_ERR_BAD_TIME), QUIL_NAMED(MP4_ERR_BAD_INDEX),
        QUIL_NAMED(MP4_ERR_OUT_OF_RANGE), QUIL_NAMED(MP4_ERR_NO_TRACKS),
    };
#undef QUIL_NAMED
    for (const auto& [code, name] : codes) {
        const std::string text = toString(code);
        EXPECT_EQ(0u, text.find(std::string(name) + ": ")) << text;
        EXPECT_GT(text.size(), std::strlen(name) + 2) << text;
    }
    EXPECT_STREQ("MP4_ERR_IO: input/output error", toString(MP4_ERR_IO));
    EXPECT_STREQ("unknown error", toString(static_cast<MP4Err>(14)));
}

// ---------------------------------------------------------------------------
// The tool's JSON writer

TEST(ToolJson, NestingCommasAndEscapes) {
    tool::JsonWriter json;
    json.beginObject();
    json.key("name");
    json.value("a\"b\\c\n\x01\xC3\xA9");
    json.key("list");
    json.beginArray();
    json.value(uint64_t{18446744073709551615ull});
    json.value(int64_t{-5});
    json.value(90.0);
    json.value(true);
    json.endArray();
    json.key("empty");
    json.beginObject();
    json.endObject();
    json.key("nan");
    json.value(std::nan(""));
    json.endObject();
    EXPECT_EQ(
        "{\n"
        "  \"name\": \"a\\\"b\\\\c\\n\\u0001\xC3\xA9\",\n"
        "  \"list\": [\n"
        "    18446744073709551615,\n"
        "    -5,\n"
        "    90,\n"
        "    true\n"
        "  ],\n"
        "  \"empty\": {},\n"
        "  \"nan\": null\n"
        "}",
        json.text());
}

// Text from files always leaves as valid UTF-8: valid UTF-8 as it is,
// anything else read as Mac Roman.
TEST(ToolJson, TextIsAlwaysValidUtf8) {
    const struct { const char* in; const char* out; } cases[] = {
        {"plain", "plain"},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xB5", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xB5"},
        {"caf\x8E", "caf\xC3\xA9"},                    // Mac Roman e acute
        {"\xA9 2020 \xD2x\xD3", "\xC2\xA9 2020 \xE2\x80\x9Cx\xE2\x80\x9D"},
        {"cut \xC3", "cut \xE2\x88\x9A"},             // a damaged sequence
        {"\xED\xA0\x80", "\xC3\x8C\xE2\x80\xA0\xC3\x84"},  // a surrogate is no UTF-8
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, tool::validUtf8(c.in)) << c.in;
    tool::JsonWriter json;
    json.value("\x8E");
    EXPECT_EQ("\"\xC3\xA9\"", json.text());
}

TEST(ToolJson, FourccTextFallsBackToHex) {
    EXPECT_EQ("avc1", tool::fourccText(fourcc("avc1")));
    EXPECT_EQ("raw ", tool::fourccText(fourcc("raw ")));
    EXPECT_EQ("0x6D730011", tool::fourccText(0x6D730011));
}


// ---- what reports show: brands, edits, configuration, the box walk -------------

struct ReportCase {
    const char* fixture;
    uint32_t majorBrand;
    uint32_t edits;          // of track 1
    int64_t firstMediaTime;  // of track 1's first edit
    uint32_t record;         // of track 1, 0 when none
    uint8_t profile;
};

class FileReport : public ::testing::TestWithParam<ReportCase> {};

// Counts boxes and checks that each lies inside the one before it at a
// smaller depth (its parent) and ends within the file.
struct WalkCheck {
    uint64_t fileLength = 0;
    uint32_t boxes = 0;
    std::vector<std::pair<uint64_t, uint64_t>> open;  // [start, end) per depth
    bool nested = true;
    bool sawIlstItem = false;
};

MP4Err checkBox(const MP4BoxVisit* box, void* user) {
    auto* check = static_cast<WalkCheck*>(user);
    ++check->boxes;
    check->open.resize(box->depth);
    if (box->depth > 0) {
        const auto& parent = check->open.back();
        check->nested = check->nested && box->offset >= parent.first &&
                        box->offset + box->size <= parent.second;
    }
    check->nested = check->nested && box->offset + box->size <= check->fileLength;
    if (std::string(box->path).find("ilst/") != std::string::npos) check->sawIlstItem = true;
    check->open.push_back({box->offset, box->offset + box->size});
    return MP4_OK;
}

TEST_P(FileReport, AnswersThroughThePublicInterface) {
    const ReportCase& c = GetParam();
    const std::string path = std::string(QUIL_TEST_DATA_DIR) + "/" + c.fixture;
    std::wstring wide;
    ASSERT_EQ(Mp4WidePathFromUtf8(path.c_str(), &wide), MP4_OK);
    CMp4File* file = nullptr;
    ASSERT_EQ(CMp4File::createInstance(&file), MP4_OK);
    ASSERT_EQ(file->open(wide.c_str(), 0, 0), MP4_OK);
    uint32_t major = 0, brands[2] = {0, 0}, count = 0;
    EXPECT_EQ(Mp4GetBrands(file, &major, nullptr, brands, 2, &count), MP4_OK);
    EXPECT_EQ(major, c.majorBrand);
    EXPECT_GE(count, 1u);
    uint64_t duration = 0;
    EXPECT_EQ(Mp4GetMovieDuration(file, &duration), MP4_OK);
    EXPECT_GT(duration, 0u);

    CMp4Track* track = nullptr;
    ASSERT_EQ(file->getTrack(1, &track), MP4_OK);
    uint32_t edits = 0;
    EXPECT_EQ(Mp4GetEditCount(track, &edits), MP4_OK);
    EXPECT_EQ(edits, c.edits);
    MP4Edit edit;
    EXPECT_EQ(Mp4GetEdit(track, 0, &edit), MP4_ERR_BAD_INDEX);
    EXPECT_EQ(Mp4GetEdit(track, edits + 1, &edit), MP4_ERR_NOT_AVAILABLE);
    if (edits > 0) {
        ASSERT_EQ(Mp4GetEdit(track, 1, &edit), MP4_OK);
        EXPECT_EQ(edit.mediaTime, c.firstMediaTime);
        EXPECT_EQ(edit.rateInteger, 1);
    }
    MP4CodecConfigSummary summary;
    const MP4Err summarised = Mp4GetCodecConfigSummary(track, &summary);
    EXPECT_EQ(summarised, c.record ? MP4_OK : MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(summary.record, c.record);
    EXPECT_EQ(summary.profile, c.profile);
    if (c.record) {
        EXPECT_EQ(summary.sequenceParameterSets, 1u);
    }
    file->releaseTrack(track);

    WalkCheck check;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    check.fileLength = static_cast<uint64_t>(in.tellg());
    EXPECT_EQ(Mp4VisitBoxes(file, checkBox, &check), MP4_OK);
    EXPECT_TRUE(check.nested);
    EXPECT_GT(check.boxes, 20u);
    uint8_t head[8];
    ASSERT_EQ(Mp4ReadFileBytes(file, 0, head, sizeof head), MP4_OK);
    EXPECT_EQ(std::memcmp(head + 4, "ftyp", 4), 0);
    file->close();
    CMp4File::destroyInstance(&file);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, FileReport,
    ::testing::Values(ReportCase{"h264-bframes.mp4", fourcc("isom"), 1, 1024, fourcc("avcC"), 77},
                      ReportCase{"hevc-hvc1.mp4", fourcc("isom"), 1, 1024, fourcc("hvcC"), 1},
                      ReportCase{"pcm-sowt.mov", fourcc("qt  "), 1, 0, 0, 0},
                      ReportCase{"h263-amrnb.3gp", fourcc("3gp4"), 1, 0, 0, 0}),
    [](const ::testing::TestParamInfo<ReportCase>& info) {
        std::string name = info.param.fixture;
        for (char& ch : name) {
            if (ch == '.' || ch == '-') ch = '_';
        }
        return name;
    });

TEST(FileReport, RefusesWhatIsNotOpenForReading) {
    CMp4File* file = nullptr;
    ASSERT_EQ(CMp4File::createInstance(&file), MP4_OK);
    uint32_t major = 0;
    uint64_t duration = 0;
    uint8_t byte = 0;
    EXPECT_EQ(Mp4GetBrands(file, &major, nullptr, nullptr, 0, nullptr), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(Mp4GetMovieDuration(file, &duration), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(Mp4VisitBoxes(file, checkBox, nullptr), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(Mp4ReadFileBytes(file, 0, &byte, 1), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(Mp4VisitBoxes(nullptr, checkBox, nullptr), MP4_ERR_INVALID_ARGUMENT);
    std::wstring wide;
    EXPECT_EQ(Mp4WidePathFromUtf8("\xC3", &wide), MP4_ERR_INVALID_ARGUMENT);
    CMp4File::destroyInstance(&file);
}

}  // namespace
}  // namespace quil
