// Metadata: the 3GPP asset boxes, the metadata object over a "udta", the
// file and track copyright notices, iTunes-style tags, writing a changed
// copy, and sample reads that fetch only their own chunk.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "TagText.h"
#include "boxes/MetaDataBoxes.h"
#include "boxes/MovieBoxes.h"
#include "file/Mp4FileImpl.h"
#include "meta/MetaDataImpl.h"
#include "quil/quil.h"

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

const uint8_t kEng[3] = {'e', 'n', 'g'};
const uint8_t kFra[3] = {'f', 'r', 'a'};
constexpr uint16_t kEngCode = 0x15C7;  // e, n, g = 5, 14, 7

std::wstring fixturePath(const char* name) {
    std::string path = std::string(QUIL_TEST_DATA_DIR) + "/" + name;
    return std::wstring(path.begin(), path.end());
}

// ---- boxes --------------------------------------------------------------------

struct RoundTrip {
    const char* name;
    Bytes bytes;
};

class MetaDataBoxRoundTrip : public testing::TestWithParam<RoundTrip> {};

// Bytes read, size computed and bytes written agree for every box class.
TEST_P(MetaDataBoxRoundTrip, WritesWhatItReadAtTheSizeItComputes) {
    MP4Err err = MP4_ERR_IO;
    auto read = readTree(GetParam().bytes, &err);
    ASSERT_EQ(err, MP4_OK);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(writeTree(read.get(), &err), GetParam().bytes);
    EXPECT_EQ(err, MP4_OK);
}

const Bytes kTitle = fullBox("titl", 0, 0, ByteWriter().u16(kEngCode).str("hello"));

INSTANTIATE_TEST_SUITE_P(
    Boxes, MetaDataBoxRoundTrip,
    testing::Values(
        RoundTrip{"titl", kTitle},
        RoundTrip{"dscp_utf16", fullBox("dscp", 0, 0,
                                         ByteWriter().u16(kEngCode).u16(0xFEFF).u16('A').u16(0x4E2D).u16(0))},
        RoundTrip{"rtng", fullBox("rtng", 0, 0,
                                  ByteWriter().code("NONE").code("ALL ").u16(kEngCode).str("Not rated"))},
        RoundTrip{"clsf", fullBox("clsf", 0, 0, ByteWriter().code("CORP").u16(7).u16(kEngCode).str("x"))},
        RoundTrip{"kywd", fullBox("kywd", 0, 0,
                                  ByteWriter().u16(kEngCode).u8(2).u8(1).str("a", false).u8(2).str("bc", false))},
        RoundTrip{"pdin", fullBox("pdin", 0, 0, ByteWriter().u32(1000).u32(5).u32(2000).u32(1))},
        RoundTrip{"tsel", fullBox("tsel", 0, 0, ByteWriter().u32(3).code("bitr").code("lang"))},
        RoundTrip{"udta", box("udta", concat({kTitle, box("pinf", {})}))}),
    [](const testing::TestParamInfo<RoundTrip>& info) { return std::string(info.param.name); });

TEST(AssetBox, TitleWritesPackedLanguageAndTerminatedText) {
    CTitleBox title;
    ASSERT_EQ(title.setData(kEng, reinterpret_cast<const uint8_t*>("hello"), 6), MP4_OK);
    MP4Err err = MP4_ERR_IO;
    Bytes written = writeTree(&title, &err);
    ASSERT_EQ(err, MP4_OK);
    EXPECT_EQ(title.size, 20u);
    EXPECT_EQ(written, kTitle);
    uint32_t length = 0;
    EXPECT_EQ(title.getTextLength(&length), MP4_OK);
    EXPECT_EQ(length, 6u);
    const uint8_t bad[3] = {'e', 'N', 'g'};
    EXPECT_EQ(title.setData(bad, nullptr, 0), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(title.getData(nullptr, nullptr), MP4_ERR_INVALID_ARGUMENT);
}

// The box's own reader over a whole box (the factory would keep what it
// read and go on).
MP4Err readOwnPayload(CBox* target, const Bytes& bytes) {
    MemoryFile file(bytes);
    CBox header;
    MP4Err err = header.read(file.storage());
    if (err == MP4_OK) err = target->copyHeaderFrom(header);
    return err == MP4_OK ? target->read(file.storage()) : err;
}

TEST(KeywordBox, DamagedListsAndShortListsAreRefused) {
    CKeywordBox damaged;
    // Three keywords announced, two present.
    EXPECT_EQ(readOwnPayload(&damaged, fullBox("kywd", 0, 0, ByteWriter().u16(kEngCode).u8(3).u8(1).str("a", false).u8(1).str("b", false))),
              MP4_ERR_BAD_BOX_SIZE);
    // A keyword longer than the rest of the box.
    EXPECT_EQ(readOwnPayload(&damaged, fullBox("kywd", 0, 0, ByteWriter().u16(kEngCode).u8(1).u8(9).str("abc", false))),
              MP4_ERR_BAD_BOX_SIZE);

    CKeywordBox keywords;
    keywords.keywordCount = 2;
    ASSERT_EQ(keywords.appendKeyword(reinterpret_cast<const uint8_t*>("a"), 1), MP4_OK);
    EXPECT_EQ(keywords.calculateSize(), MP4_ERR_INVALID_DATA);
    ASSERT_EQ(keywords.appendKeyword(reinterpret_cast<const uint8_t*>("bc"), 2), MP4_OK);
    EXPECT_EQ(keywords.calculateSize(), MP4_OK);
    EXPECT_EQ(keywords.size, 20u);
    testing::internal::CaptureStdout();
    keywords.dump(0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Keywords:a (1 char), bc (2 char)\n"),
              std::string::npos);
}

// ---- the metadata object ------------------------------------------------------

TEST(MetaDataObject, ItemsPerLanguageWithTheirCodes) {
    CUserDataBox udta;
    CMp4MetaDataImpl meta(&udta);
    uint32_t length = 99;
    uint8_t language[3] = {0, 0, 0};
    EXPECT_EQ(meta.getTitle(nullptr, nullptr, nullptr, 1), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(meta.getTitle(nullptr, &length, nullptr, 1), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(length, 0u);

    const uint8_t bad[3] = {'E', 'N', 'G'};
    EXPECT_EQ(meta.setTitle(reinterpret_cast<const uint8_t*>("x"), 2, bad), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(udta.childList(), nullptr);  // a refused call adds no box
    ASSERT_EQ(meta.setTitle(reinterpret_cast<const uint8_t*>("Hello"), 6, kEng), MP4_OK);
    ASSERT_EQ(meta.setTitle(reinterpret_cast<const uint8_t*>("Salut"), 6, kFra), MP4_OK);
    ASSERT_EQ(meta.setTitle(reinterpret_cast<const uint8_t*>("Hi"), 3, kEng), MP4_OK);  // replaces
    EXPECT_EQ(udta.childList()->count(), 2u);

    // A null buffer asks for the length only; by index the language found
    // is reported.
    EXPECT_EQ(meta.getTitle(nullptr, &length, language, 2), MP4_OK);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(std::memcmp(language, kFra, 3), 0);
    char text[8] = {};
    std::memcpy(language, kEng, 3);
    EXPECT_EQ(meta.getTitle(reinterpret_cast<uint8_t*>(text), &length, language, 0), MP4_OK);
    EXPECT_STREQ(text, "Hi");
    const uint8_t deu[3] = {'d', 'e', 'u'};
    std::memcpy(language, deu, 3);
    EXPECT_EQ(meta.getTitle(nullptr, &length, language, 1), MP4_ERR_NOT_AVAILABLE);

    ASSERT_EQ(meta.setRating("NONE", "ALL ", reinterpret_cast<const uint8_t*>("r"), 2, kEng), MP4_OK);
    uint8_t entity[4], criteria[4];
    EXPECT_EQ(meta.getRating(entity, criteria, nullptr, &length, nullptr, 1), MP4_OK);
    EXPECT_EQ(std::memcmp(entity, "NONE", 4), 0);
    EXPECT_EQ(std::memcmp(criteria, "ALL ", 4), 0);

    const uint8_t list[] = {1, 'a', 2, 'b', 'c'};
    ASSERT_EQ(meta.setKeywords(list, 2, kEng), MP4_OK);
    uint8_t back[8] = {};
    uint32_t count = 0;
    EXPECT_EQ(meta.getKeywords(back, &count, &length, nullptr, 1), MP4_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(std::memcmp(back, list, 5), 0);

    CMp4MetaDataImpl unbound(nullptr);
    EXPECT_EQ(unbound.getGenre(nullptr, &length, nullptr, 1), MP4_ERR_INVALID_DATA);
    EXPECT_EQ(unbound.setGenre(nullptr, 0, kEng), MP4_ERR_INVALID_DATA);
}

TEST(CopyrightNotice, IndexedGetAndSetOnAUserDataBox) {
    CUserDataBox udta;
    uint32_t length = 0;
    EXPECT_EQ(getCopyrightNotice(&udta, nullptr, 0, &length, 0), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(setCopyrightNotice(&udta, nullptr, 0, -1), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(setCopyrightNotice(&udta, reinterpret_cast<const uint8_t*>("(c) me"), 7, 0), MP4_OK);
    uint8_t small[4];
    EXPECT_EQ(getCopyrightNotice(&udta, small, sizeof small, &length, 0), MP4_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 7u);
    uint8_t text[16] = {};
    EXPECT_EQ(getCopyrightNotice(&udta, text, sizeof text, &length, 1), MP4_OK);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "(c) me");
    uint8_t language[3] = {0, 0, 0};  // none given: found by index, reported
    EXPECT_EQ(CMp4MetaDataImpl(&udta).getCopyright(nullptr, &length, language, 1), MP4_OK);
    EXPECT_EQ(std::memcmp(language, "und", 3), 0);
}

// ---- files: metadata object, tags, writing a copy ------------------------------

class OpenFixture : public testing::Test {
protected:
    void open(const std::wstring& path) {
        ASSERT_EQ(CMp4File::createInstance(&file_), MP4_OK);
        ASSERT_EQ(file_->open(path.c_str(), 0, 0), MP4_OK);
    }
    // Opens bytes held in memory through a supplied storage.
    void openBytes(const Bytes& bytes) {
        memory_.reset(new MemoryFile(bytes));
        memory_->storage()->close();
        ASSERT_EQ(CMp4File::createInstance(&file_), MP4_OK);
        ASSERT_EQ(file_->setStorage(memory_->storage()), MP4_OK);
        ASSERT_EQ(file_->open(L"", 0, 0), MP4_OK);
    }
    void TearDown() override {
        if (file_) {
            file_->close();
            CMp4File::destroyInstance(&file_);
        }
    }
    CMp4File* file_ = nullptr;
    std::unique_ptr<MemoryFile> memory_;
};

TEST_F(OpenFixture, ChangedMetadataIsWrittenToACopyAndNothingElseChanges) {
    open(fixturePath("h264-aac-faststart.mp4"));
    CMp4MetaData* meta = nullptr;
    ASSERT_EQ(Mp4GetEditableMetaData(file_, nullptr, &meta), MP4_OK);
    ASSERT_EQ(meta->setTitle(reinterpret_cast<const uint8_t*>("A longer title"), 15, kEng), MP4_OK);
    CMp4Track* track = nullptr;
    ASSERT_EQ(file_->getTrack(2, &track), MP4_OK);
    ASSERT_EQ(track->setCprtNotice(reinterpret_cast<const uint8_t*>("(c)"), 4, 0), MP4_OK);
    EXPECT_EQ(Mp4WriteCopy(file_, fixturePath("h264-aac-faststart.mp4").c_str()),
              MP4_ERR_INVALID_ARGUMENT);

    std::string copy = testing::TempDir() + "quil-meta-copy-" + std::to_string(getpid()) + ".mp4";
    ASSERT_EQ(Mp4WriteCopy(file_, std::wstring(copy.begin(), copy.end()).c_str()), MP4_OK);

    CMp4File* reread = nullptr;
    ASSERT_EQ(CMp4File::createInstance(&reread), MP4_OK);
    ASSERT_EQ(reread->open(std::wstring(copy.begin(), copy.end()).c_str(), 0, 0), MP4_OK);
    ASSERT_EQ(reread->getMetaData(&meta), MP4_OK);
    char title[32] = {};
    uint32_t length = 0;
    EXPECT_EQ(meta->getTitle(reinterpret_cast<uint8_t*>(title), &length, nullptr, 1), MP4_OK);
    EXPECT_STREQ(title, "A longer title");
    // Every sample has the same bytes in both files, though moved.
    for (uint32_t number = 1; number <= 2; ++number) {
        CMp4Track* before = nullptr;
        CMp4Track* after = nullptr;
        ASSERT_EQ(file_->getTrack(number, &before), MP4_OK);
        ASSERT_EQ(reread->getTrack(number, &after), MP4_OK);
        uint32_t count = 0, countAfter = 0;
        before->getSampleCount(&count);
        after->getSampleCount(&countAfter);
        EXPECT_EQ(count, countAfter);
        for (uint32_t s = 1; s <= count; ++s) {
            uint8_t a[65536], b[65536];
            uint32_t sizeA = 0, sizeB = 0;
            ASSERT_EQ(before->readSample(s, sizeof a, &sizeA, a), MP4_OK);
            ASSERT_EQ(after->readSample(s, sizeof b, &sizeB, b), MP4_OK);
            ASSERT_TRUE(sizeA == sizeB && std::memcmp(a, b, sizeA) == 0) << number << "/" << s;
        }
        if (number == 2) {
            uint8_t notice[8] = {};
            EXPECT_EQ(after->getCprtNotice(notice, sizeof notice, &length, 0), MP4_OK);
            EXPECT_STREQ(reinterpret_cast<char*>(notice), "(c)");
        }
        file_->releaseTrack(before);
        reread->releaseTrack(after);
    }
    file_->releaseTrack(track);
    reread->close();
    CMp4File::destroyInstance(&reread);
    std::remove(copy.c_str());
}

TEST_F(OpenFixture, AReadFileWithoutUserDataHasNoMetadataUntilEdited) {
    openBytes(concat({box("ftyp", ByteWriter().code("isom").u32(0)), box("moov", {})}));
    CMp4MetaData* meta = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(file_->getMetaData(nullptr), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(file_->getMetaData(&meta), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(file_->getCopyright(nullptr, 0, &length, 0), MP4_ERR_NOT_AVAILABLE);
    ASSERT_EQ(Mp4GetEditableMetaData(file_, nullptr, &meta), MP4_OK);
    EXPECT_EQ(meta->getTitle(nullptr, &length, nullptr, 1), MP4_ERR_NOT_AVAILABLE);
    ASSERT_EQ(file_->setCopyright(reinterpret_cast<const uint8_t*>("c"), 2, 0), MP4_OK);
    EXPECT_EQ(file_->getCopyright(nullptr, 0, &length, 0), MP4_OK);
    EXPECT_EQ(length, 2u);
    // Written out through a supplied storage: there is no path to copy from.
    EXPECT_EQ(Mp4WriteCopy(file_, L"/nonexistent/x.mp4"), MP4_ERR_NOT_AVAILABLE);
}

TEST(WrittenFile, MetadataSetWhileWritingIsInTheClosedFile) {
    const std::string path = testing::TempDir() + "quil-meta-written-" + std::to_string(getpid()) + ".mp4";
    const std::wstring widePath(path.begin(), path.end());
    CMp4File* file = nullptr;
    ASSERT_EQ(CMp4File::createInstance(&file), MP4_OK);
    ASSERT_EQ(file->open(widePath.c_str(), 1, MP4_FILE_3GPP6), MP4_OK);
    CMp4MetaData* meta = nullptr;
    ASSERT_EQ(file->getMetaData(&meta), MP4_OK);  // write mode: "udta" made
    ASSERT_EQ(meta->setTitle(reinterpret_cast<const uint8_t*>("Written"), 8, kEng), MP4_OK);
    ASSERT_EQ(file->setCopyright(reinterpret_cast<const uint8_t*>("(c)"), 4, 0), MP4_OK);
    CMp4Track* track = nullptr;
    ASSERT_EQ(file->addTrack(&track), MP4_OK);
    ASSERT_EQ(track->setTrackType(MP4_TRACK_AUDIO), MP4_OK);
    MP4SampleEntryInfo info;
    info.format = fourcc("sowt");
    info.sampleRate = 8000;
    info.channels = 1;
    ASSERT_EQ(track->addSampleEntry(&info), MP4_OK);
    ASSERT_EQ(track->getMetaData(&meta), MP4_OK);
    ASSERT_EQ(meta->setAuthor(reinterpret_cast<const uint8_t*>("Me"), 3, kFra), MP4_OK);
    const uint8_t pcm[64] = {};
    ASSERT_EQ(track->addSample(pcm, sizeof pcm, 0, 0, true), MP4_OK);
    ASSERT_EQ(file->releaseTrack(track), MP4_OK);
    ASSERT_EQ(file->close(), MP4_OK);

    ASSERT_EQ(file->open(widePath.c_str(), 0, 0), MP4_OK);
    ASSERT_EQ(file->getMetaData(&meta), MP4_OK);
    char text[16] = {};
    uint32_t length = 0;
    EXPECT_EQ(meta->getTitle(reinterpret_cast<uint8_t*>(text), &length, nullptr, 1), MP4_OK);
    EXPECT_STREQ(text, "Written");
    EXPECT_EQ(file->getCopyright(reinterpret_cast<uint8_t*>(text), sizeof text, &length, 0), MP4_OK);
    EXPECT_STREQ(text, "(c)");
    ASSERT_EQ(file->getTrack(1, &track), MP4_OK);
    ASSERT_EQ(track->getMetaData(&meta), MP4_OK);
    uint8_t language[3] = {0, 0, 0};
    EXPECT_EQ(meta->getAuthor(reinterpret_cast<uint8_t*>(text), &length, language, 1), MP4_OK);
    EXPECT_STREQ(text, "Me");
    EXPECT_EQ(std::memcmp(language, kFra, 3), 0);
    file->releaseTrack(track);
    file->close();
    CMp4File::destroyInstance(&file);
    std::remove(path.c_str());
}

// A file whose movie carries an iTunes "meta" box with the given items.
Bytes fileWithItems(const Bytes& items) {
    Bytes hdlr = fullBox("hdlr", 0, 0, ByteWriter().u32(0).code("mdir").zeros(12).u8(0));
    Bytes meta = fullBox("meta", 0, 0, concat({hdlr, box("ilst", items)}));
    return concat({box("ftyp", ByteWriter().code("M4A ").u32(0)), box("moov", box("udta", meta))});
}

Bytes textItem(const char* code, const std::string& text) {
    return box(code, box("data", ByteWriter().u32(1).u32(0).str(text, false)));
}

struct TagCase {
    const char* name;
    Bytes items;
    uint32_t count;  // tags found
};

class ItunesTags : public OpenFixture, public testing::WithParamInterface<TagCase> {};

TEST_P(ItunesTags, ItemsAreReadUpToTheFirstDamage) {
    openBytes(fileWithItems(GetParam().items));
    uint32_t count = 0;
    ASSERT_EQ(Mp4GetTagCount(file_, &count), MP4_OK);
    EXPECT_EQ(count, GetParam().count);
    MP4Tag tag;
    uint8_t value[32] = {};
    if (count > 0) {
        ASSERT_EQ(Mp4GetTag(file_, 1, &tag, value, sizeof value), MP4_OK);
        EXPECT_EQ(tag.code, 0xA96E616Du);  // "©nam"
        EXPECT_EQ(tag.dataType, MP4_TAG_UTF8);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(value), tag.valueLength), "Song");
        EXPECT_EQ(Mp4GetTag(file_, 1, &tag, value, 2), MP4_ERR_BUFFER_TOO_SMALL);
    }
    EXPECT_EQ(Mp4GetTag(file_, 0, &tag, nullptr, 0), MP4_ERR_BAD_INDEX);
    EXPECT_EQ(Mp4GetTag(file_, count + 1, &tag, nullptr, 0), MP4_ERR_NOT_AVAILABLE);
}

const Bytes kName = textItem("\xA9nam", "Song");
const Bytes kTrack = box("trkn", box("data", ByteWriter().u32(0).u32(0).u16(0).u16(3).u16(12).u16(0)));

INSTANTIATE_TEST_SUITE_P(
    Items, ItunesTags,
    testing::Values(
        TagCase{"intact", concat({kName, kTrack, textItem("\xA9" "ART", "Artist")}), 3},
        // An item claiming more than the list holds ends the walk there.
        TagCase{"item_too_large", concat({kName, box("\xA9" "alb", box("data", ByteWriter().u32(1).u32(0)), 4000)}), 1},
        // A size below its own header ends the walk too.
        TagCase{"size_below_header", concat({kName, box("trkn", {}, 4), kTrack}), 1},
        // A "data" box too short for its type and locale is skipped.
        TagCase{"data_too_short", concat({kName, box("covr", box("data", {0, 0})), kTrack}), 2},
        TagCase{"size_zero_runs_to_the_end", concat({kName, box("\xA9" "day", box("data", ByteWriter().u32(1).u32(0).str("2020", false)), 0)}), 2}),
    [](const testing::TestParamInfo<TagCase>& info) { return std::string(info.param.name); });

TEST_F(OpenFixture, QuickTimeTextItemsOfTheUserDataAreTags) {
    Bytes item = box("\xA9xyz", ByteWriter().u16(5).u16(kEngCode).str("+1+2/", false));
    openBytes(concat({box("ftyp", ByteWriter().code("qt  ").u32(0)), box("moov", box("udta", item))}));
    MP4Tag tag;
    uint8_t value[8] = {};
    ASSERT_EQ(Mp4GetTag(file_, 1, &tag, value, sizeof value), MP4_OK);
    EXPECT_EQ(tag.code, 0xA978797Au);
    EXPECT_EQ(tag.parent, fourcc("udta"));
    EXPECT_EQ(std::memcmp(tag.language, kEng, 3), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(value), tag.valueLength), "+1+2/");
}

// ---- reading one track reads about its own bytes ------------------------------

uint64_t bytesReadSoFar() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value) {
        if (key == "rchar:") return value;
    }
    return 0;
}

TEST_F(OpenFixture, OneTrackOfAnInterleavedFileCostsAboutItsOwnBytes) {
    open(fixturePath("h264-aac.mp4"));
    for (uint32_t number = 1; number <= 2; ++number) {
        CMp4Track* track = nullptr;
        ASSERT_EQ(file_->getTrack(number, &track), MP4_OK);
        uint32_t count = 0;
        track->getSampleCount(&count);
        uint64_t own = 0;
        const uint64_t before = bytesReadSoFar();
        for (uint32_t s = 1; s <= count; ++s) {
            uint8_t buffer[65536];
            uint32_t size = 0;
            ASSERT_EQ(track->readSample(s, sizeof buffer, &size, buffer), MP4_OK);
            own += size;
        }
        const uint64_t fetched = bytesReadSoFar() - before;
        EXPECT_GE(fetched, own);
        EXPECT_LE(fetched, own + own / 5) << "track " << number;
        file_->releaseTrack(track);
    }
}


// ---- editing iTunes items ---------------------------------------------------

// The item codes of the file in order, as Mp4GetTag lists them.
std::vector<uint32_t> tagCodes(CMp4File* file) {
    std::vector<uint32_t> codes;
    uint32_t count = 0;
    Mp4GetTagCount(file, &count);
    for (uint32_t index = 1; index <= count; ++index) {
        MP4Tag tag;
        if (Mp4GetTag(file, index, &tag, nullptr, 0) == MP4_OK) codes.push_back(tag.code);
    }
    return codes;
}

constexpr uint32_t kNam = 0xA96E616D, kArt = 0xA9415254, kDay = 0xA9646179;

struct TagEdit {
    const char* name;
    Bytes file;
    uint32_t code;
    const char* value;  // null: remove the item
    MP4Err result;
    std::vector<uint32_t> codes;  // afterwards, in order
};

class ItunesTagEdits : public OpenFixture, public testing::WithParamInterface<TagEdit> {};

TEST_P(ItunesTagEdits, OneItemChangesAndTheOthersKeepTheirPlace) {
    const TagEdit& edit = GetParam();
    openBytes(edit.file);
    const MP4Err err =
        edit.value ? Mp4SetTag(file_, edit.code, MP4_TAG_UTF8,
                               reinterpret_cast<const uint8_t*>(edit.value),
                               static_cast<uint32_t>(std::strlen(edit.value)))
                   : Mp4RemoveTag(file_, edit.code);
    EXPECT_EQ(err, edit.result);
    EXPECT_EQ(tagCodes(file_), edit.codes);
    if (!edit.value || err != MP4_OK) return;
    for (uint32_t index = 1; index <= edit.codes.size(); ++index) {
        MP4Tag tag;
        uint8_t value[64] = {};
        ASSERT_EQ(Mp4GetTag(file_, index, &tag, value, sizeof value), MP4_OK);
        if (tag.code != edit.code) continue;
        EXPECT_EQ(tag.dataType, MP4_TAG_UTF8);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(value), tag.valueLength), edit.value);
    }
}

const Bytes kThree = fileWithItems(concat({kName, kTrack, textItem("\xA9" "ART", "Artist")}));

INSTANTIATE_TEST_SUITE_P(
    Edits, ItunesTagEdits,
    testing::Values(
        TagEdit{"replace_in_place", kThree, kNam, "New", MP4_OK, {kNam, fourcc("trkn"), kArt}},
        TagEdit{"append_new", kThree, kDay, "2024", MP4_OK, {kNam, fourcc("trkn"), kArt, kDay}},
        TagEdit{"remove", kThree, fourcc("trkn"), nullptr, MP4_OK, {kNam, kArt}},
        TagEdit{"remove_absent", kThree, kDay, nullptr, MP4_ERR_NOT_AVAILABLE,
                {kNam, fourcc("trkn"), kArt}},
        // Two values of one item become the one value set.
        TagEdit{"duplicates_collapse", fileWithItems(concat({kName, kTrack, kName})), kNam, "One",
                MP4_OK, {kNam, fourcc("trkn")}},
        // No "udta" at all: "udta", "meta" (with its "hdlr") and "ilst" are made.
        TagEdit{"made_from_nothing",
                concat({box("ftyp", ByteWriter().code("isom").u32(0)), box("moov", {})}), kArt,
                "Me", MP4_OK, {kArt}},
        TagEdit{"refused_code", kThree, fourcc("----"), "x", MP4_ERR_INVALID_ARGUMENT,
                {kNam, fourcc("trkn"), kArt}}),
    [](const testing::TestParamInfo<TagEdit>& info) { return std::string(info.param.name); });

// The payload size of the movie's "meta" box as the tree holds it.
uint64_t metaPayloadSize(CMp4File* file) {
    CMp4MetaData* unused = nullptr;
    CBox* moov = nullptr;
    CBox* udta = nullptr;
    CBox* meta = nullptr;
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!impl || Mp4GetEditableMetaData(file, nullptr, &unused) != MP4_OK ||
        impl->findTopLevelBox(fourcc("moov"), &moov) != MP4_OK ||
        moov->findChild(fourcc("udta"), &udta) != MP4_OK ||
        udta->findChild(fourcc("meta"), &meta) != MP4_OK) {
        return 0;
    }
    return meta->keptPayload().length();
}

TEST_F(OpenFixture, PaddingAfterTheListTakesUpWhatItGrows) {
    Bytes hdlr = fullBox("hdlr", 0, 0, ByteWriter().u32(0).code("mdir").zeros(12).u8(0));
    Bytes meta = fullBox("meta", 0, 0, concat({hdlr, box("ilst", kName), box("free", Bytes(100))}));
    openBytes(concat({box("ftyp", ByteWriter().code("M4A ").u32(0)), box("moov", box("udta", meta))}));
    const uint64_t before = metaPayloadSize(file_);
    ASSERT_EQ(Mp4SetTag(file_, kArt, MP4_TAG_UTF8, reinterpret_cast<const uint8_t*>("Artist"), 6),
              MP4_OK);
    EXPECT_EQ(metaPayloadSize(file_), before);
    EXPECT_EQ(tagCodes(file_), (std::vector<uint32_t>{kNam, kArt}));
}

// Samples of two files opened by path are the same bytes.
void expectSameSamples(CMp4File* a, CMp4File* b) {
    uint32_t tracks = 0;
    a->getTrackCount(&tracks);
    for (uint32_t number = 1; number <= tracks; ++number) {
        CMp4Track* x = nullptr;
        CMp4Track* y = nullptr;
        ASSERT_EQ(a->getTrack(number, &x), MP4_OK);
        ASSERT_EQ(b->getTrack(number, &y), MP4_OK);
        uint32_t count = 0;
        x->getSampleCount(&count);
        for (uint32_t s = 1; s <= count; ++s) {
            uint8_t p[65536], q[65536];
            uint32_t sizeP = 0, sizeQ = 0;
            ASSERT_EQ(x->readSample(s, sizeof p, &sizeP, p), MP4_OK);
            ASSERT_EQ(y->readSample(s, sizeof q, &sizeQ, q), MP4_OK);
            ASSERT_TRUE(sizeP == sizeQ && std::memcmp(p, q, sizeP) == 0) << number << "/" << s;
        }
        a->releaseTrack(x);
        b->releaseTrack(y);
    }
}

uint64_t discSize(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    return static_cast<uint64_t>(in.tellg());
}

CMp4File* openPath(const std::string& path) {
    CMp4File* file = nullptr;
    if (CMp4File::createInstance(&file) != MP4_OK) return nullptr;
    if (file->open(std::wstring(path.begin(), path.end()).c_str(), 0, 0) != MP4_OK) {
        CMp4File::destroyInstance(&file);
    }
    return file;
}

void closeFile(CMp4File* file) {
    file->close();
    CMp4File::destroyInstance(&file);
}

// A cover goes into a copy (no room in the ffmpeg file), is removed in
// place (the file keeps its size, the rest becomes "free") and set again
// in that room: every sample stays where and what it was, the cover
// returns byte for byte.
TEST_F(OpenFixture, TagsAreWrittenInPlaceWhenTheyFit) {
    open(fixturePath("h264-aac.mp4"));
    Bytes cover(3000);
    for (size_t i = 0; i < cover.size(); ++i) cover[i] = static_cast<uint8_t>(i * 31 + 7);
    ASSERT_EQ(Mp4SetTag(file_, fourcc("covr"), MP4_TAG_JPEG, cover.data(),
                        static_cast<uint32_t>(cover.size())), MP4_OK);
    EXPECT_EQ(Mp4WriteUserDataInPlace(file_), MP4_ERR_VALUE_TOO_LARGE);
    const std::string copy =
        testing::TempDir() + "quil-tags-" + std::to_string(getpid()) + ".mp4";
    ASSERT_EQ(Mp4WriteCopy(file_, std::wstring(copy.begin(), copy.end()).c_str()), MP4_OK);
    const uint64_t size = discSize(copy);

    CMp4File* edited = openPath(copy);
    ASSERT_NE(edited, nullptr);
    ASSERT_EQ(Mp4RemoveTag(edited, fourcc("covr")), MP4_OK);
    ASSERT_EQ(Mp4WriteUserDataInPlace(edited), MP4_OK);
    closeFile(edited);
    EXPECT_EQ(discSize(copy), size);
    edited = openPath(copy);
    ASSERT_NE(edited, nullptr);
    EXPECT_TRUE(tagCodes(edited).empty());
    expectSameSamples(file_, edited);
    ASSERT_EQ(Mp4SetTag(edited, fourcc("covr"), MP4_TAG_JPEG, cover.data(),
                        static_cast<uint32_t>(cover.size())), MP4_OK);
    ASSERT_EQ(Mp4WriteUserDataInPlace(edited), MP4_OK);
    closeFile(edited);

    edited = openPath(copy);
    ASSERT_NE(edited, nullptr);
    MP4Tag tag;
    Bytes value(cover.size());
    ASSERT_EQ(Mp4GetTag(edited, 1, &tag, value.data(), static_cast<uint32_t>(value.size())), MP4_OK);
    EXPECT_EQ(tag.dataType, MP4_TAG_JPEG);
    EXPECT_EQ(value, cover);
    expectSameSamples(file_, edited);
    closeFile(edited);
    std::remove(copy.c_str());
}


// Numeric items as `quil meta` prints them: genres by ffprobe's names
// (its spelling, up to its last), track and disc numbers with a total
// only when there is one.
struct NumericTag {
    uint64_t genre;
    const char* genreText;
    std::vector<uint8_t> pair;
    const char* pairText;
};

class NumericTagText : public ::testing::TestWithParam<NumericTag> {};

TEST_P(NumericTagText, NamesAsFfprobeDoes) {
    EXPECT_EQ(tool::genreName(GetParam().genre), GetParam().genreText);
    EXPECT_EQ(tool::numberAndTotal(GetParam().pair), GetParam().pairText);
}

INSTANTIATE_TEST_SUITE_P(
    Values, NumericTagText,
    ::testing::Values(NumericTag{1, "Blues", {0, 0, 0, 3, 0, 12, 0, 0}, "3/12"},
                      NumericTag{68, "Psychedelic", {0, 0, 0, 7, 0, 0, 0, 0}, "7"},
                      NumericTag{124, "A Cappella", {0, 0, 1, 2, 0, 0}, "258"},
                      NumericTag{191, "Garage Rock", {0, 0, 0, 1, 0}, ""},
                      NumericTag{192, "ID3 genre 191", {0, 0, 0, 0, 0, 1}, "0/1"}));

}  // namespace
}  // namespace quil
