// Movie and track structure boxes and the compressed movie: reading,
// writing, sizes and dumps.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "BoxBuilder.h"
#include "boxes/BoxFactory.h"
#include "boxes/CompressedMovie.h"
#include "io/Dump.h"
#include "boxes/MovieBoxes.h"

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

constexpr uint32_t k2020 = 3660681600u;  // 2020-01-01 00:00:00
const int32_t kUnity[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

// Reads the header, then lets T read its payload, and returns T's own
// result (the factory would hide it behind its skip).
template <class T>
MP4Err readDirect(const Bytes& bytes, T* target, uint32_t* position = nullptr) {
    MemoryFile file(bytes);
    CBox header;
    MP4Err err = header.read(file.storage());
    if (err != MP4_OK) return err;
    target->copyHeaderFrom(header);
    err = target->read(file.storage());
    if (position) *position = file.position();
    return err;
}

// calculateSize, then write into a buffer with room to spare; returns the
// bytes written.
std::string dumpOf(CBox* b, int32_t depth = 0, MP4Err* err = nullptr) {
    testing::internal::CaptureStdout();
    MP4Err result = b->dump(depth);
    if (err) *err = result;
    return testing::internal::GetCapturedStdout();
}

Bytes matrixBytes(const int32_t (&m)[9]) {
    ByteWriter w;
    for (int32_t v : m) w.u32(static_cast<uint32_t>(v));
    return w;
}

Bytes mvhdPayload(bool wide, uint64_t duration) {
    ByteWriter w;
    if (wide) w.u64(k2020).u64(k2020).u32(1000).u64(duration);
    else w.u32(k2020).u32(k2020).u32(1000).u32(static_cast<uint32_t>(duration));
    return w.u32(0x00010000).u16(0x0100).zeros(10).raw(matrixBytes(kUnity)).zeros(24).u32(3);
}

Bytes tkhdPayload(bool wide, const int32_t (&matrix)[9], uint32_t width = 0x01400000,
                  int16_t volume = 0x0100) {
    ByteWriter w;
    if (wide) w.u64(k2020).u64(k2020 + 1).u32(7).u32(0).u64(0x100000000ull);
    else w.u32(k2020).u32(k2020 + 1).u32(7).u32(0).u32(4000);
    return w.zeros(8).u16(0xFFFF).u16(2).u16(static_cast<uint16_t>(volume)).u16(0)
        .raw(matrixBytes(matrix)).u32(width).u32(0x00F00000);
}

Bytes mdhdPayload(bool wide, uint16_t language) {
    ByteWriter w;
    if (wide) w.u64(k2020).u64(k2020).u32(44100).u64(0x123456789ull);
    else w.u32(k2020).u32(k2020).u32(44100).u32(88200);
    return w.u16(language).u16(0);
}

Bytes hdlrBox(const Bytes& name) {
    return fullBox("hdlr", 0, 0, ByteWriter().u32(0).code("vide").zeros(12).raw(name));
}

Bytes tcmiPayload(const std::string& font) {
    ByteWriter w;
    w.u16(0).u16(1).u16(12).u16(0).u16(0).u16(0x1234).u16(0).u16(0xFFFF).u16(0xFFFF).u16(0xFFFF);
    return w.u8(static_cast<uint32_t>(font.size())).str(font, false);
}

// ---- every class reads and writes back the same bytes ----------------------

TEST(MovieBoxes, EveryBoxWritesBackWhatWasRead) {
    const Bytes url = fullBox("url ", 0, 1, {});
    const Bytes fixtures[] = {
        box("ftyp", ByteWriter().code("mp42").u32(1).code("mp42").code("isom")),
        box("ftyp", ByteWriter().code("qt  ").u32(512)),
        fullBox("mvhd", 0, 0, mvhdPayload(false, 5000)),
        fullBox("mvhd", 1, 0, mvhdPayload(true, 0x100000000ull)),
        fullBox("tkhd", 0, 7, tkhdPayload(false, kUnity)),
        fullBox("tkhd", 1, 7, tkhdPayload(true, kUnity)),
        fullBox("mdhd", 0, 0, mdhdPayload(false, 0x55C4)),
        fullBox("mdhd", 1, 0, mdhdPayload(true, 0x15C7)),
        hdlrBox(ByteWriter().str("SoundHandler")),
        hdlrBox({}),
        fullBox("vmhd", 0, 1, ByteWriter().u16(0x40).u16(1).u16(2).u16(0x8000)),
        fullBox("smhd", 0, 0, ByteWriter().u16(0xFF00).u16(0)),
        fullBox("hmhd", 0, 0, ByteWriter().u16(1450).u16(1200).u32(900000).u32(64000).u32(0)),
        fullBox("nmhd", 0, 0, {}),
        fullBox("tcmi", 0, 0, tcmiPayload("Lucida Grande")),
        url,
        fullBox("urn ", 0, 0, {}),
        box("udta", {}),
        box("moov", concat({fullBox("mvhd", 0, 0, mvhdPayload(false, 1)),
                            box("trak", concat({fullBox("tkhd", 0, 1, tkhdPayload(false, kUnity)),
                                                box("tref", box("hint", ByteWriter().u32(1).u32(2))),
                                                box("udta", box("free", {}))}))})),
        box("mdia", concat({fullBox("mdhd", 0, 0, mdhdPayload(false, 0)),
                            box("minf", concat({fullBox("nmhd", 0, 0, {}),
                                                box("dinf", fullBox("dref", 0, 0,
                                                                    concat({ByteWriter().u32(2), url, url})))}))})),
        box("gmhd", box("tmcd", fullBox("tcmi", 0, 0, tcmiPayload("")))),
        box("tref", concat({box("mpod", ByteWriter().u32(3)), box("tmcd", ByteWriter().u32(9))})),
        fullBox("pcmC", 0, 0, ByteWriter().u8(1).u8(24)),
        fullBox("saio", 0, 0, ByteWriter().u32(2).u32(100).u32(200)),
        fullBox("saio", 1, 1, ByteWriter().code("cenc").u32(0).u32(1).u64(0x100000000ull)),
    };
    for (const Bytes& bytes : fixtures) {
        std::string type(bytes.begin() + 4, bytes.begin() + 8);
        SCOPED_TRACE(type + " of " + std::to_string(bytes.size()) + " bytes");
        MP4Err err = MP4_ERR_IO;
        auto b = readTree(bytes, &err);
        ASSERT_EQ(err, MP4_OK);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(writeTree(b.get(), &err), bytes);
        EXPECT_EQ(err, MP4_OK);
        uint64_t size = 0;
        b->getSize(&size);
        EXPECT_EQ(size, bytes.size());
    }
}

// Exact dump lines of the headers, at depths 0 to 2.
TEST(MovieBoxes, DumpLines) {
    const int32_t m[9] = {0, 0x00010000, 0, -0x00010000, 0, 0, 0x00F00000, 0, 0x40000000};
    const struct { Bytes bytes; int32_t depth; std::string expected; } cases[] = {
        {box("ftyp", ByteWriter().code("isom").u32(512).code("isom").code("avc1")), 1,
         "\n  Box type = ftyp  Size = 24\n"
         "  Major Brand=isom Minor Version=512, #Compatible Brands=2:\n"
         "  Compatible Brand 0: isom\n"
         "  Compatible Brand 1: avc1\n"},
        {fullBox("mvhd", 0, 0, mvhdPayload(false, 5000)), 0,
         "\nBox type = mvhd  Size = 108\n"
         "Version = 0, Flags = 0x000000\n"
         "Creation Time = 2020/01/01 00:00:00 (3660681600)\n"
         "Modification Time = 2020/01/01 00:00:00 (3660681600)\n"
         "TimeScale = 1000 Duration = 5000\n"
         "Duration=5000, Rate=65536, Volume=256, NextTrackId=3\n"},
        {fullBox("tkhd", 0, 3, tkhdPayload(false, m, 0x014000AB, -256)), 1,
         "\n  Box type = tkhd  Size = 92\n"
         "  Version = 0, Flags = 0x000003\n"
         "  Creation Time = 2020/01/01 00:00:00 (3660681600)\n"
         "  Modification Time = 2020/01/01 00:00:01 (3660681601)\n"
         "  Track ID=7, Duration=4000\n"
         "  Layer = -1, Volume = 0xffffff00\n"
         "  Matrix: { { 0,65536, 0}, {-65536, 0, 0}, {15728640, 0,1073741824} }\n"
         "  Width = 0x0140.0x00ab( 320), Height = 0x00f0.0x0000( 240)\n"
         "  Alternate group = 2\n"},
        // Whole track IDs; the two bytes after them are not an ID.
        {box("hint", ByteWriter().u32(2).u32(5).u16(0xABCD)), 0,
         "\nBox type = hint  Size = 18\n"
         "Number of referenced tracks=2\n"
         "Index:  0 Track Id: 2\n"
         "Index:  1 Track Id: 5\n"},
        {fullBox("mdhd", 1, 0, mdhdPayload(true, 0x55C4)), 0,
         "\nBox type = mdhd  Size = 44\n"
         "Version = 1, Flags = 0x000000\n"
         "Creation Time = 2020/01/01 00:00:00 (3660681600)\n"
         "Modification Time = 2020/01/01 00:00:00 (3660681600)\n"
         "Time Scale = 44100, Duration = 4886718345\n"
         "Language Code: und\n"},
        {hdlrBox(ByteWriter().str("VideoHandler")), 2,
         "\n    Box type = hdlr  Size = 45\n"
         "    Version = 0, Flags = 0x000000\n"
         "    Handler type=vide\n"
         "    Name=VideoHandler\n"},
        {fullBox("vmhd", 0, 1, ByteWriter().u16(0x40).u16(0xFFFF).u16(2).u16(3)), 0,
         "\nBox type = vmhd  Size = 20\nVersion = 0, Flags = 0x000001\n"
         "Graphics mode=64, OP color=-1 2 3\n"},
        {fullBox("smhd", 0, 0, ByteWriter().u16(0xFF80).u16(0)), 1,
         "\n  Box type = smhd  Size = 16\n  Version = 0, Flags = 0x000000\n  Balance=-128\n"},
        {fullBox("hmhd", 0, 0, ByteWriter().u16(1450).u16(1200).u32(900000).u32(64000).u32(0)), 0,
         "\nBox type = hmhd  Size = 28\nVersion = 0, Flags = 0x000000\n"
         "Max PDUs=1450, Avg. PDUs=1200, Max. Bitrate=900000, Avg. Bitrate=64000\n"},
        {fullBox("tcmi", 0, 0, tcmiPayload("Lucida Grande")), 0,
         "\nBox type = tcmi  Size = 46\nVersion = 0, Flags = 0x000000\n"
         "Text font=0, face = 1, size = 12\n"
         "Text color (RGB) (0x0000,0x1234,0x0000)\n"
         "Background color(RGB) (0xffff,0xffff,0xffff)\n"
         "Font name=Lucida Grande\n"},
    };
    for (const auto& c : cases) {
        auto b = readTree(c.bytes);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(dumpOf(b.get(), c.depth), c.expected);
    }
}

TEST(MovieBoxes, FactoryMakesTheMovieClasses) {
    auto moov = readTree(box("moov", concat({box("cmov", {}), box("udta", {})})));
    ASSERT_NE(as<CMovieBox>(moov), nullptr);
    CBox* child = moov->childList()->head()->box;
    EXPECT_NE(dynamic_cast<CCompressedMovieBox*>(child), nullptr);
    EXPECT_NE(dynamic_cast<CUserDataBox*>(moov->childList()->head()->next->box), nullptr);
    auto gmhd = readTree(box("gmhd", box("tmcd", {})));
    EXPECT_NE(dynamic_cast<CTimeCodeInformationListBox*>(gmhd->childList()->head()->box), nullptr);
    auto tref = readTree(box("tref", box("tmcd", {})));
    EXPECT_NE(dynamic_cast<CTrackReferenceTypeBox*>(tref->childList()->head()->box), nullptr);
}

TEST(MovieBoxes, NewHeadersAreWrittenAsNewFilesNeedThem) {
    // Versions other than 1 are written like version 0.
    CMovieHeaderBox mvhd;
    mvhd.version = 2;
    EXPECT_EQ(writeTree(&mvhd).size(), 108u);
    mvhd.version = 1;
    EXPECT_EQ(writeTree(&mvhd).size(), 120u);

    CVideoMediaHeaderBox vmhd;
    EXPECT_EQ(writeTree(&vmhd), fullBox("vmhd", 0, 1, Bytes(8, 0)));
}

TEST(MovieBoxes, OnlyMdiaAndDinfGrowWhenAChildIsAdded) {
    CMediaBox mdia;
    CDataInformationBox dinf;
    CTrackBox trak;
    CMovieBox moov;
    for (CBox* parent : std::initializer_list<CBox*>{&mdia, &dinf, &trak, &moov}) {
        parent->calculateSize();
        auto* child = new CNullMediaHeaderBox();
        child->calculateSize();
        ASSERT_EQ(parent->addChild(child), MP4_OK);
    }
    EXPECT_EQ(mdia.size, 20u);
    EXPECT_EQ(dinf.size, 20u);
    EXPECT_EQ(trak.size, 8u);
    EXPECT_EQ(moov.size, 8u);
}

// ---- ftyp -------------------------------------------------------------------

TEST(FileTypeBox, ReadsBrandsAndRefusesAPartialBrand) {
    // The brands read are checked by the dump.
    CFileTypeBox partial;
    EXPECT_EQ(readDirect(box("ftyp", ByteWriter().code("isom").u32(0).u16(0x6973)), &partial),
              MP4_ERR_BAD_BOX_SIZE);
    CFileTypeBox tooShort;
    EXPECT_EQ(readDirect(box("ftyp", ByteWriter().code("isom").u32(0)), &tooShort), MP4_OK);
    EXPECT_EQ(readDirect(concat({box("ftyp", ByteWriter().code("isom")), Bytes(8, 0)}), &tooShort),
              MP4_ERR_BAD_BOX_SIZE);

    CFileTypeBox made;
    const uint32_t brands[] = {fourcc("3gp4"), fourcc("isom")};
    made.majorBrand = fourcc("3gp4");
    made.minorVersion = 512;
    EXPECT_EQ(made.setCompatibleBrands(brands, -1), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(made.setCompatibleBrands(nullptr, 2), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(made.setCompatibleBrands(brands, 2), MP4_OK);
    EXPECT_EQ(writeTree(&made), box("ftyp", ByteWriter().code("3gp4").u32(512).code("3gp4").code("isom")));
}

// ---- mvhd, tkhd -------------------------------------------------------------

TEST(TrackHeaderBox, RotationAngleComesFromTheMatrix) {
    struct Case {
        int32_t a, b, c, d;
        double angle;
    };
    const Case cases[] = {
        {0x00010000, 0, 0, 0x00010000, 0.0},
        {0, 0x00010000, -0x00010000, 0, 90.0},
        {-0x00010000, 0, 0, -0x00010000, 180.0},
        {0, -0x00010000, 0x00010000, 0, 270.0},
        // The integer part floors: 0xFFFF8000 (-0.5) counts as -1.
        {static_cast<int32_t>(0xFFFF8000), 0, 0, static_cast<int32_t>(0xFFFF8000), 180.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.angle);
        const int32_t m[9] = {c.a, c.b, 0, c.c, c.d, 0, 0, 0, 0x40000000};
        auto b = readTree(fullBox("tkhd", 0, 1, tkhdPayload(false, m)));
        ASSERT_NE(b, nullptr);
        EXPECT_NEAR(b->getRotationAngle(), c.angle, 1e-9);
    }
    // A scale of 2 is no rotation at all: acos answers NaN, passed on.
    const int32_t scaled[9] = {0x00020000, 0, 0, 0, 0x00020000, 0, 0, 0, 0x40000000};
    EXPECT_TRUE(std::isnan(CTrackHeaderBox::rotationFromMatrix(scaled)));
    // Only reading computes the angle; other boxes have none.
    CTrackHeaderBox made;
    EXPECT_EQ(made.getRotationAngle(), 0.0);
    CMovieHeaderBox mvhd;
    EXPECT_EQ(mvhd.getRotationAngle(), 0.0);
}

// ---- mdhd -------------------------------------------------------------------

TEST(MediaHeaderBox, LanguageCodesPackIntoFifteenBits) {
    auto b = readTree(fullBox("mdhd", 0, 0, mdhdPayload(false, 0x55C4)));
    auto* mdhd = as<CMediaHeaderBox>(b);
    ASSERT_NE(mdhd, nullptr);
    EXPECT_EQ(mdhd->getLanguage(nullptr), MP4_ERR_INVALID_ARGUMENT);

    const uint8_t jpn[] = {'j', 'p', 'n'};
    ASSERT_EQ(mdhd->setLanguage(jpn), MP4_OK);
    Bytes written = writeTree(mdhd);
    // j=10, p=16, n=14: (10 * 32 + 16) * 32 + 14
    EXPECT_EQ(written[28], 0x2A);
    EXPECT_EQ(written[29], 0x0E);

    const uint8_t upper[] = {'E', 'N', 'G'};
    EXPECT_EQ(mdhd->setLanguage(upper), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(mdhd->setLanguage(nullptr), MP4_ERR_INVALID_ARGUMENT);
    uint8_t text[3] = {};
    ASSERT_EQ(mdhd->getLanguage(text), MP4_OK);
    EXPECT_EQ(std::string(text, text + 3), "jpn");

    CMediaHeaderBox made;
    made.setLanguage(reinterpret_cast<const uint8_t*>("und"));
    EXPECT_EQ(writeTree(&made), fullBox("mdhd", 0, 0, ByteWriter().zeros(16).u16(0x55C4).u16(0)));
}

TEST(MediaHeaderBox, BlankLanguageDumpsAsDashes) {
    CMediaHeaderBox blank;
    blank.calculateSize();
    std::string text = dumpOf(&blank);
    EXPECT_EQ(text.substr(text.rfind("Language")), "Language Code: ---\n");
}

TEST(MediaHeaderBox, CreationDateRaisesAnEarlierModificationTimeOnly) {
    CMediaHeaderBox mdhd;
    EXPECT_EQ(mdhd.getTimeScale(nullptr), MP4_ERR_INVALID_ARGUMENT);
    mdhd.modificationTime = 5;
    ASSERT_EQ(mdhd.setCreationDate(2020, 1, 1, 0, 0, 0), MP4_OK);
    EXPECT_EQ(mdhd.creationTime, k2020);
    EXPECT_EQ(mdhd.modificationTime, k2020);
    mdhd.modificationTime = k2020 + 100;
    ASSERT_EQ(mdhd.setCreationDate(2020, 1, 1, 0, 0, 30), MP4_OK);
    EXPECT_EQ(mdhd.modificationTime, k2020 + 100);
    EXPECT_EQ(mdhd.setCreationDate(2020, 13, 1, 0, 0, 0), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(mdhd.creationTime, k2020 + 30);

    uint32_t mo, d, h, mi, s;
    EXPECT_EQ(mdhd.getCreationDate(nullptr, &mo, &d, &h, &mi, &s), MP4_ERR_INVALID_ARGUMENT);
}

TEST(DateConversion, EncodingIgnoresTheCenturyRuleAndDecodingStopsAt2200) {
    uint64_t seconds = 1;
    ASSERT_EQ(dateToSeconds(1904, 1, 1, 0, 0, 0, &seconds), MP4_OK);
    EXPECT_EQ(seconds, 0u);
    ASSERT_EQ(dateToSeconds(2020, 1, 1, 0, 0, 0, &seconds), MP4_OK);
    EXPECT_EQ(seconds, k2020);
    ASSERT_EQ(dateToSeconds(2000, 3, 1, 12, 30, 15, &seconds), MP4_OK);
    uint32_t y, mo, d, h, mi, s;
    ASSERT_TRUE(secondsToDate(seconds, &y, &mo, &d, &h, &mi, &s));
    EXPECT_EQ((std::vector<uint32_t>{y, mo, d, h, mi, s}),
              (std::vector<uint32_t>{2000, 3, 1, 12, 30, 15}));

    // 2100 is a leap year when encoding but not when decoding: a day more.
    ASSERT_EQ(dateToSeconds(2100, 3, 1, 0, 0, 0, &seconds), MP4_OK);
    ASSERT_TRUE(secondsToDate(seconds, &y, &mo, &d, &h, &mi, &s));
    EXPECT_EQ((std::vector<uint32_t>{y, mo, d}), (std::vector<uint32_t>{2100, 3, 2}));

    ASSERT_EQ(dateToSeconds(2199, 12, 31, 23, 59, 59, &seconds), MP4_OK);
    EXPECT_TRUE(secondsToDate(seconds - 86400 * 2, &y, &mo, &d, &h, &mi, &s));
    EXPECT_EQ(y, 2199u);
    ASSERT_EQ(dateToSeconds(2200, 6, 1, 0, 0, 0, &seconds), MP4_OK);
    EXPECT_FALSE(secondsToDate(seconds, &y, &mo, &d, &h, &mi, &s));
    EXPECT_EQ(dateToSeconds(2201, 1, 1, 0, 0, 0, &seconds), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(dateToSeconds(2020, 1, 32, 0, 0, 0, &seconds), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(dateToSeconds(2020, 1, 1, 24, 0, 0, &seconds), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(dateToSeconds(2020, 1, 1, 0, 60, 0, &seconds), MP4_ERR_INVALID_ARGUMENT);

    // A box whose time lies at or after 2200 dumps the raw value.
    CMovieHeaderBox mvhd;
    mvhd.creationTime = seconds;
    mvhd.calculateSize();
    std::string text = dumpOf(&mvhd);
    EXPECT_NE(text.find("Creation Time = " + std::to_string(seconds) + " (invalid data)\n"),
              std::string::npos);
    EXPECT_EQ(mvhd.getCreationDate(&y, &mo, &d, &h, &mi, &s), MP4_ERR_INVALID_DATA);
}

// ---- hdlr -------------------------------------------------------------------

TEST(HandlerReferenceBox, NameIsPlainOrCounted) {
    // Zero-terminated names, as ISO files have them, are checked by the dump.
    // Counted, as QuickTime writes it: the count byte is dropped from the
    // name, and the bytes are written back as they were read.
    const Bytes countedBytes = hdlrBox(ByteWriter().u8(5).str("Apple", false));
    auto counted = readTree(countedBytes);
    auto* hdlr = as<CHandlerReferenceBox>(counted);
    ASSERT_NE(hdlr, nullptr);
    EXPECT_STREQ(hdlr->name.get(), "Apple");
    EXPECT_EQ(writeTree(hdlr), countedBytes);
    // A name set anew is written zero-terminated.
    ASSERT_EQ(hdlr->setName("Apple"), MP4_OK);
    EXPECT_EQ(writeTree(hdlr), hdlrBox(ByteWriter().str("Apple")));

    // Neither terminated nor counted, or with a zero inside: the name ends
    // at the end or the zero, and the bytes come back unchanged.
    for (const Bytes& raw : {hdlrBox(ByteWriter().str("Bare", false)), hdlrBox(ByteWriter().str("ab").str("cd"))}) {
        auto odd = readTree(raw);
        EXPECT_LE(as<CHandlerReferenceBox>(odd)->nameLength(), 4u);
        EXPECT_EQ(writeTree(odd.get()), raw);
    }

    auto none = readTree(hdlrBox({}));
    EXPECT_EQ(as<CHandlerReferenceBox>(none)->name, nullptr);
    EXPECT_NE(dumpOf(none.get()).find("Name=(null)\n"), std::string::npos);
}

TEST(HandlerReferenceBox, NamesForNewTracks) {
    struct Case {
        uint32_t kind, fileType, handler;
        const char* name;
        uint32_t header;
    };
    const Case cases[] = {
        {MP4_TRACK_VIDEO, MP4_FILE_MPEG4, fourcc("vide"), "QUIL Video Handler", fourcc("vmhd")},
        {MP4_TRACK_VIDEO, MP4_FILE_XAVC, fourcc("vide"), "Video Media Handler", fourcc("vmhd")},
        {MP4_TRACK_AUDIO, MP4_FILE_3GPP4, fourcc("soun"), "QUIL Audio Handler", fourcc("smhd")},
        {MP4_TRACK_AUDIO, MP4_FILE_XAVC, fourcc("soun"), "Sound Media Handler", fourcc("smhd")},
        {MP4_TRACK_HINT, MP4_FILE_MPEG4, fourcc("hint"), "QUIL Hint Handler", fourcc("hmhd")},
        {MP4_TRACK_OBJECT_DESCRIPTOR, MP4_FILE_MPEG4, fourcc("odsm"),
         "QUIL Object Descriptor Handler", fourcc("nmhd")},
        {MP4_TRACK_SCENE_DESCRIPTION, MP4_FILE_XAVC, fourcc("sdsm"), "QUIL BIFS Handler",
         fourcc("nmhd")},
        {MP4_TRACK_TIMECODE, MP4_FILE_QUICKTIME, fourcc("tmcd"), "QUIL Time Code Handler",
         fourcc("gmhd")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        uint32_t handler = 0;
        const char* name = nullptr;
        ASSERT_EQ(handlerForMediaKind(c.kind, c.fileType, &handler, &name), MP4_OK);
        EXPECT_EQ(handler, c.handler);
        EXPECT_STREQ(name, c.name);
        CBox* header = nullptr;
        ASSERT_EQ(createMediaHeaderBox(c.kind, &header), MP4_OK);
        EXPECT_EQ(header->type, c.header);
        delete header;
    }
    uint32_t handler = 0;
    const char* name = nullptr;
    EXPECT_EQ(handlerForMediaKind(MP4_TRACK_OTHER, 0, &handler, &name), MP4_ERR_INVALID_ARGUMENT);
    CBox* header = nullptr;
    EXPECT_EQ(createMediaHeaderBox(MP4_TRACK_OTHER, &header), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(header, nullptr);

    CHandlerReferenceBox hdlr;
    std::string longName(300, 'x');
    ASSERT_EQ(hdlr.setName(longName.c_str()), MP4_OK);
    EXPECT_EQ(hdlr.nameLength(), 255u);
    hdlr.calculateSize();
    EXPECT_EQ(hdlr.size, 32u + 256);
    ASSERT_EQ(hdlr.setName(nullptr), MP4_OK);
    hdlr.calculateSize();
    EXPECT_EQ(hdlr.size, 32u);
}

// ---- media-type headers -----------------------------------------------------

TEST(MediaTypeHeaders, TimeCodeHeaderNeedsItsFixedFields) {
    CTimeCodeMediaHeaderBox shortBox;
    EXPECT_EQ(readDirect(fullBox("tcmi", 0, 0, Bytes(12, 0)), &shortBox), MP4_ERR_BAD_BOX_SIZE);
    // A font name longer than the box is refused rather than read past it.
    Bytes lying = tcmiPayload("abc");
    lying[20] = 40;
    CTimeCodeMediaHeaderBox longName;
    EXPECT_EQ(readDirect(fullBox("tcmi", 0, 0, lying), &longName), MP4_ERR_BAD_BOX_SIZE);
}

// ---- data references --------------------------------------------------------

TEST(DataReferenceBox, ReadsEntriesAsChildrenAndDumpsThemInBraces) {
    Bytes url = fullBox("url ", 0, 1, {});
    auto b = readTree(fullBox("dref", 0, 0, concat({ByteWriter().u32(1), url})));
    auto* dref = as<CDataReferenceBox>(b);
    ASSERT_NE(dref, nullptr);
    EXPECT_EQ(dref->entryCount, 1u);
    CBox* entry = nullptr;
    ASSERT_EQ(dref->findChild(fourcc("url "), &entry), MP4_OK);
    EXPECT_NE(dynamic_cast<CDataEntryURLBox*>(entry), nullptr);
    EXPECT_EQ(dumpOf(dref, 1),
              "\n  Box type = dref  Size = 28\n  Version = 0, Flags = 0x000000\n  {\n"
              "    Box type = url   Size = 12\n    Version = 0, Flags = 0x000001\n  }\n");
    // Read twice: refused.
    MemoryFile again(Bytes(8, 0));
    dref->remaining = 8;
    EXPECT_EQ(dref->read(again.storage()), MP4_ERR_INVALID_DATA);

    CDataReferenceBox made;
    auto* entryBox = new CDataEntryURLBox();
    entryBox->flags = 1;
    ASSERT_EQ(made.addChild(entryBox), MP4_OK);
    EXPECT_EQ(made.entryCount, 1u);
    EXPECT_EQ(writeTree(&made), fullBox("dref", 0, 0, concat({ByteWriter().u32(1), url})));
    CDataReferenceBox empty;
    MP4Err err = MP4_OK;
    dumpOf(&empty, 0, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);
}

TEST(DataEntryBoxes, UrlSizeLeavesOutTheTerminator) {
    auto local = readTree(fullBox("url ", 0, 1, {}));
    EXPECT_EQ(as<CDataEntryURLBox>(local)->location, nullptr);

    Bytes remote = fullBox("url ", 0, 0, ByteWriter().str("http://a/b"));
    uint32_t position = 0;
    CDataEntryURLBox url;
    ASSERT_EQ(readDirect(remote, &url, &position), MP4_OK);
    EXPECT_EQ(position, remote.size());
    EXPECT_EQ(url.remaining, 0u);
    EXPECT_STREQ(url.location.get(), "http://a/b");
    url.calculateSize();
    EXPECT_EQ(url.size, 12u + 10);
    // The written box is one byte longer than its size field says.
    Bytes written = writeTree(&url);
    EXPECT_EQ(written.size(), 12u + 11);
    EXPECT_EQ(written[3], 22);

    ASSERT_EQ(url.setLocation(""), MP4_OK);
    EXPECT_EQ(writeTree(&url).size(), 12u);
    ASSERT_EQ(url.setLocation(nullptr), MP4_OK);
    EXPECT_EQ(writeTree(&url).size(), 12u);

    // "urn " keeps empty strings and writes its 12-byte header only.
    auto urn = readTree(fullBox("urn ", 0, 0, ByteWriter().str("urn:x").str("loc")));
    ASSERT_NE(urn, nullptr);
    EXPECT_EQ(writeTree(urn.get()), fullBox("urn ", 0, 0, {}));
}

TEST(UserDataBox, DumpsBracesEvenWithoutChildList) {
    CUserDataBox udta;
    udta.calculateSize();
    MP4Err err = MP4_ERR_IO;
    EXPECT_EQ(dumpOf(&udta, 1, &err), "\n  Box type = udta  Size = 8\n  {  }\n");
    EXPECT_EQ(err, MP4_OK);
    CTrackBox trak;
    dumpOf(&trak, 0, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);

    const Bytes asset = {0, 0, 0, 0, 0x15, 0xC7, 0};  // version, flags, "eng", empty text
    auto b = readTree(box("udta", concat({box("cprt", asset), box("titl", asset), box("cprt", asset)})));
    CBox* second = nullptr;
    ASSERT_EQ(b->findChild(fourcc("cprt"), &second, 2), MP4_OK);
    EXPECT_EQ(second, b->childList()->head()->next->next->box);
    EXPECT_EQ(b->findChild(fourcc("cprt"), &second, 3), MP4_ERR_NOT_AVAILABLE);
}

// ---- mdat -------------------------------------------------------------------

TEST(MediaDataBox, ReadsOffsetAndSizeAndAlwaysReservesALargeHeader) {
    Bytes file = concat({box("free", {}), box("mdat", Bytes(1000, 7)), box("free", {})});
    MemoryFile memory(file);
    uint64_t parentRemaining = file.size();
    CBox* first = nullptr;
    CBox* second = nullptr;
    uint32_t type = 0;
    ASSERT_EQ(readBox(memory.storage(), 0, &first, &type, &parentRemaining), MP4_OK);
    ASSERT_EQ(readBox(memory.storage(), 0, &second, &type, &parentRemaining), MP4_OK);
    std::unique_ptr<CBox> keepFirst(first);
    std::unique_ptr<CBox> mdatBox(second);
    auto* mdat = dynamic_cast<CMediaDataBox*>(second);
    ASSERT_NE(mdat, nullptr);
    EXPECT_EQ(mdat->boxOffset, 8u);
    EXPECT_EQ(mdat->dataSize, 1000u);
    EXPECT_EQ(memory.position(), 1016u);
    EXPECT_EQ(dumpOf(mdat), "\nBox type = mdat  Size = 1008\n");

    // Sized with a 16-byte header; writing emits nothing.
    EXPECT_EQ(writeTree(mdat).size(), 0u);
    EXPECT_EQ(mdat->size, 1016u);
    // Beyond 32 bits the large header's extra 8 bytes come from getSize.
    mdat->dataSize = 0x200000000ull;
    mdat->calculateSize();
    uint64_t size = 0;
    mdat->getSize(&size);
    EXPECT_EQ(mdat->size, 0x200000008ull);
    EXPECT_EQ(size, 0x200000010ull);

    // A storage position before the end of the header cannot be right.
    CMediaDataBox odd;
    odd.size = 24;
    odd.remaining = 8;
    MemoryFile empty(Bytes(24, 0));
    EXPECT_EQ(odd.read(empty.storage()), MP4_ERR_BAD_BOX_SIZE);
}

// ---- compressed movie -------------------------------------------------------

Bytes innerMovie() {
    return box("moov", concat({fullBox("mvhd", 0, 0, mvhdPayload(false, 2000)),
                               box("trak", fullBox("tkhd", 0, 1, tkhdPayload(false, kUnity))),
                               box("trak", fullBox("tkhd", 0, 1, tkhdPayload(false, kUnity)))}));
}

Bytes deflated(const Bytes& data) {
    uLongf length = compressBound(data.size());
    Bytes out(length);
    EXPECT_EQ(compress(out.data(), &length, data.data(), data.size()), Z_OK);
    out.resize(length);
    return out;
}

Bytes compressedMovie(const Bytes& inner, uint32_t declaredSize) {
    Bytes cmvd = box("cmvd", concat({ByteWriter().u32(declaredSize), deflated(inner)}));
    return box("moov", box("cmov", concat({box("dcom", ByteWriter().code("zlib")), cmvd})));
}

TEST(CompressedMovie, LookupsAreAnsweredFromTheInflatedMovie) {
    Bytes inner = innerMovie();
    auto moov = readTree(compressedMovie(inner, static_cast<uint32_t>(inner.size())));
    ASSERT_NE(as<CMovieBox>(moov), nullptr);
    CBox* found = nullptr;
    ASSERT_EQ(moov->findChild(fourcc("mvhd"), &found), MP4_OK);
    EXPECT_EQ(dynamic_cast<CMovieHeaderBox*>(found)->duration, 2000u);
    ASSERT_EQ(moov->findChild(fourcc("trak"), &found, 2), MP4_OK);
    EXPECT_NE(dynamic_cast<CTrackBox*>(found), nullptr);
    EXPECT_EQ(moov->findChild(fourcc("trak"), &found, 3), MP4_ERR_NOT_AVAILABLE);

    std::string text = dumpOf(moov.get());
    EXPECT_EQ(text.substr(0, text.find("Box type = moov", 30)),
              "\nBox type = moov  Size = " + std::to_string(moov->size) + "\n{\n"
              "  Box type = cmov  Size = " + std::to_string(moov->size - 8) + "\n\n"
              "    Box type = dcom  Size = 12\n"
              "    Compression method: zlib (7a 6c 69 62)\n\n"
              "    Box type = cmvd  Size = " + std::to_string(moov->size - 28) + "\n"
              "    Uncompressed size: " + std::to_string(inner.size()) + "\n\n      ");

    // Written back, "cmvd" keeps only its uncompressed size.
    CBox* cmov = moov->childList()->head()->box;
    Bytes written = writeTree(cmov);
    EXPECT_EQ(written, box("cmov", concat({box("dcom", ByteWriter().code("zlib")),
                                           box("cmvd", ByteWriter().u32(static_cast<uint32_t>(inner.size())))})));
}

TEST(CompressedMovie, DamagedCompressedMoviesFailLookups) {
    Bytes inner = innerMovie();
    // Declared size too small: zlib fails and says so.
    testing::internal::CaptureStdout();
    auto small = readTree(compressedMovie(inner, static_cast<uint32_t>(inner.size() / 2)));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error in zLib\n");
    ASSERT_NE(small, nullptr);
    CBox* found = nullptr;
    EXPECT_EQ(small->findChild(fourcc("trak"), &found), MP4_ERR_WRONG_LAYOUT);

    CCompressedMovieDataBox cmvd;
    Bytes cmvdBytes = box("cmvd", concat({ByteWriter().u32(static_cast<uint32_t>(inner.size() / 2)),
                                          deflated(inner)}));
    testing::internal::CaptureStdout();
    uint32_t position = 0;
    EXPECT_EQ(readDirect(cmvdBytes, &cmvd, &position), MP4_ERR_INVALID_DATA);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(position, cmvdBytes.size());
    EXPECT_EQ(cmvd.remaining, 0u);

    // No "cmvd", or no movie inside it.
    auto noData = readTree(box("moov", box("cmov", box("dcom", ByteWriter().code("zlib")))));
    EXPECT_EQ(noData->findChild(fourcc("mvhd"), &found), MP4_ERR_WRONG_LAYOUT);
    Bytes freeOnly = box("free", {});
    auto noMovie = readTree(compressedMovie(freeOnly, static_cast<uint32_t>(freeOnly.size())));
    EXPECT_EQ(noMovie->findChild(fourcc("mvhd"), &found), MP4_ERR_WRONG_LAYOUT);

    CMovieBox bare;
    EXPECT_EQ(bare.findChild(fourcc("mvhd"), &found), MP4_ERR_INVALID_DATA);
}

TEST(CompressedMovie, RefusesSizesTheCompressedBytesCannotJustify) {
    Bytes inner = innerMovie();
    Bytes payload = deflated(inner);
    // Far beyond what deflate can reach: refused before allocating.
    uint32_t huge = static_cast<uint32_t>(payload.size() * CCompressedMovieDataBox::kMaxInflateRatio + 1);
    CCompressedMovieDataBox bomb;
    uint32_t position = 0;
    Bytes bytes = box("cmvd", concat({ByteWriter().u32(huge), payload}));
    EXPECT_EQ(readDirect(bytes, &bomb, &position), MP4_ERR_INVALID_DATA);
    EXPECT_EQ(position, bytes.size());
    EXPECT_EQ(bomb.childList(), nullptr);

    // Inflating to nothing.
    Bytes nothing = box("cmvd", concat({ByteWriter().u32(0), deflated({})}));
    CCompressedMovieDataBox empty;
    EXPECT_EQ(readDirect(nothing, &empty), MP4_ERR_INVALID_ARGUMENT);

    // A compressed movie inside a compressed movie is not inflated.
    Bytes nested = compressedMovie(inner, static_cast<uint32_t>(inner.size()));
    auto outer = readTree(compressedMovie(nested, static_cast<uint32_t>(nested.size())));
    CBox* innerMoov = nullptr;
    ASSERT_EQ(outer->findChild(fourcc("cmov"), &innerMoov), MP4_OK);
    CBox* innerData = nullptr;
    EXPECT_EQ(innerMoov->findChild(fourcc("cmvd"), &innerData), MP4_ERR_NOT_AVAILABLE);

    CDataCompressionBox dcom;
    dcom.compressionMethod = fourcc("zlib");
    EXPECT_EQ(writeTree(&dcom), box("dcom", ByteWriter().code("zlib")));
}

// ---- common encryption ------------------------------------------------------

// A "saio" after a "senc" points at the information where the "senc" is
// written now; one before it, or with several offsets, keeps its offsets.
TEST(EncryptionBoxes, AuxInfoOffsetFollowsTheSampleEncryptionBox) {
    const Bytes senc = fullBox("senc", 0, 0, ByteWriter().u32(1).u64(0x1122334455667788ull));
    const Bytes saio = fullBox("saio", 0, 0, ByteWriter().u32(1).u32(999));
    const Bytes two = fullBox("saio", 0, 0, ByteWriter().u32(2).u32(1).u32(2));
    const struct { const char* what; Bytes children; uint32_t expected; } cases[] = {
        // stbl header 8, stsd 16: senc at 24, its information at 24 + 8 + 8.
        {"after senc", concat({fullBox("stsd", 0, 0, ByteWriter().u32(0)), senc, saio}), 40},
        {"before senc", concat({saio, senc}), 999},
        {"no senc", concat({fullBox("stsd", 0, 0, ByteWriter().u32(0)), saio}), 999},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        MP4Err err = MP4_ERR_IO;
        auto stbl = readTree(box("stbl", c.children), &err);
        ASSERT_EQ(err, MP4_OK);
        const Bytes written = writeTree(stbl.get(), &err);
        ASSERT_EQ(err, MP4_OK);
        ASSERT_EQ(written.size(), c.children.size() + 8);
        const size_t at = std::search(written.begin(), written.end(), saio.begin() + 4,
                                      saio.begin() + 8) - written.begin();
        const size_t value = at + 12;  // type, version and flags, count
        EXPECT_EQ(c.expected, (uint32_t{written[value]} << 24) | (written[value + 1] << 16) |
                                  (written[value + 2] << 8) | written[value + 3]);
    }
    // Two offsets stay as they are.
    auto several = readTree(box("stbl", concat({senc, two})));
    EXPECT_EQ(writeTree(several.get()), box("stbl", concat({senc, two})));
}

}  // namespace
}  // namespace quil
