// Sample description, sample entries and the codec boxes they carry:
// reading, byte-exact writing, sizes, dumps and damaged input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "BoxBuilder.h"
#include "boxes/BoxFactory.h"
#include "boxes/CodecBoxes.h"
#include "boxes/SampleEntries.h"

namespace quil {
namespace {

using test::box;
using test::ByteWriter;
using test::Bytes;
using test::concat;
using test::fullBox;
using test::MemoryFile;

constexpr uint32_t kStsd = fourcc("stsd");

struct Read {
    MP4Err err = MP4_OK;
    std::unique_ptr<CBox> box;
    uint32_t type = 0;
    uint32_t position = 0;
    template <class T>
    T* as() const { return dynamic_cast<T*>(box.get()); }
};

// One box through the factory, as a parent of type parentType reads it.
Read readOne(const Bytes& bytes, uint32_t parentType = kStsd) {
    MemoryFile file(bytes);
    Read r;
    uint64_t parentRemaining = bytes.size();
    CBox* out = nullptr;
    r.err = readBox(file.storage(), parentType, &out, &r.type, &parentRemaining);
    r.box.reset(out);
    r.position = file.position();
    return r;
}

// Reads the header into a new box of class T, then lets it read its payload.
template <class T>
MP4Err readPayloadAs(const Bytes& bytes) {
    T target;
    MemoryFile file(bytes);
    CBox header;
    MP4Err err = header.read(file.storage());
    if (err == MP4_OK) err = target.copyHeaderFrom(header);
    return err == MP4_OK ? target.read(file.storage()) : err;
}

struct Written {
    MP4Err err = MP4_OK;
    Bytes bytes;
    uint32_t position = 0;
};

// calculateSize, then write into a buffer of exactly the computed size.
Written writeBox(CBox* b) {
    Written w;
    w.err = b->calculateSize();
    if (w.err != MP4_OK) return w;
    uint64_t size = 0;
    b->getSize(&size);
    MemoryFile file(Bytes(size, 0xEE), true);
    w.err = b->write(file.storage());
    w.bytes = file.bytes();
    w.position = file.position();
    return w;
}

std::string dumpOf(CBox* b, int32_t depth = 0) {
    testing::internal::CaptureStdout();
    b->dump(depth);
    return testing::internal::GetCapturedStdout();
}

Bytes entryStart(uint16_t dataReferenceIndex = 1) {
    return ByteWriter().zeros(6).u16(dataReferenceIndex);
}

Bytes visualEntry(const char* type, const Bytes& children = {}, uint16_t width = 320,
                  uint16_t height = 240) {
    ByteWriter w;
    w.raw(entryStart()).u16(0).u16(0).u32(0).u32(0).u32(0).u16(width).u16(height);
    w.u32(0x00480000).u32(0x00480000).u32(0).u16(1);
    w.u8(4).str("Lavc", false).zeros(27).u16(0x18).u16(0xFFFF);
    return box(type, concat({w, children}));
}

// Sound description versions 0 and 1 (v1Fields non-empty for version 1).
Bytes soundEntry(const char* type, uint16_t version, const Bytes& v1Fields,
                 const Bytes& children = {}) {
    ByteWriter w;
    w.raw(entryStart()).u16(version).u16(0).u32(0);
    w.u16(2).u16(16).u16(0xFFFE).u16(0).u16(44100).u16(0);
    return box(type, concat({w, v1Fields, children}));
}

Bytes soundV1Fields() { return ByteWriter().u32(1024).u32(2).u32(4).u32(2); }

Bytes soundV2Entry(double rate, uint32_t sizeOfStruct, const Bytes& rest = {},
                   uint32_t channels = 2) {
    uint64_t bits = 0;
    std::memcpy(&bits, &rate, sizeof(bits));
    ByteWriter w;
    w.raw(entryStart()).u16(2).u16(0).u32(0);
    w.u16(3).u16(16).u16(0xFFFE).u16(0).u32(65536);
    w.u32(sizeOfStruct).u64(bits).u32(channels).u32(0x7F000000);
    w.u32(16).u32(0xC).u32(4).u32(1);
    return box("lpcm", concat({w, rest}));
}

Bytes amrEntry(const char* type, uint32_t rate, const Bytes& children = {}) {
    ByteWriter w;
    w.raw(entryStart()).zeros(8).u16(2).u16(16).u16(0).u16(0).u32(rate << 16);
    return box(type, concat({w, children}));
}

Bytes timeCodeFields() {
    ByteWriter w;
    w.u32(0).u32(CTimeCodeSampleEntry::kDropFrame).u32(30000).u32(1001).u8(30).u8(0);
    return w;
}

// An "esds" with a complete ES descriptor (AAC LC).
Bytes esdsBox() {
    ByteWriter d;
    d.u8(0x03).u8(0x19).u16(2).u8(0);
    d.u8(0x04).u8(0x11).u8(0x40).u8(0x15).u24(0).u32(64795).u32(64795);
    d.u8(0x05).u8(0x02).u8(0x12).u8(0x10);
    d.u8(0x06).u8(0x01).u8(0x02);
    return fullBox("esds", 0, 0, d);
}

Bytes stsd(std::initializer_list<Bytes> entries, uint32_t count) {
    return fullBox("stsd", 0, 0, concat({ByteWriter().u32(count), concat(entries)}));
}

Bytes appleUuid(const Bytes& payload) {
    ByteWriter w;
    w.u32(static_cast<uint32_t>(24 + payload.size())).code("uuid");
    for (uint8_t b : CAppleAvcBox::kUserType) w.u8(b);
    return w.raw(payload);
}

Bytes btrt() { return box("btrt", ByteWriter().u32(0x1000).u32(128000).u32(96000)); }
Bytes pasp() { return box("pasp", ByteWriter().u32(16).u32(11)); }
Bytes enda(uint16_t value) { return box("enda", ByteWriter().u16(value)); }
Bytes chan() { return fullBox("chan", 0, 0, ByteWriter().u32(0x640001).u32(3).u32(0)); }
Bytes damr() { return box("damr", ByteWriter().code("FFMP").u8(0).u16(0x81FF).u8(0).u8(1)); }

// ---- sample description -------------------------------------------------

TEST(SampleDescription, ReadsEntriesOfEveryKindAndWritesThemBack) {
    Bytes avc = visualEntry("avc1", concat({btrt(), pasp()}));
    Bytes sound = soundEntry("twos", 0, {});
    Bytes bytes = stsd({avc, sound, box("ac-3", Bytes(28, 0))}, 3);
    Read r = readOne(bytes, fourcc("stbl"));
    ASSERT_EQ(r.err, MP4_OK);
    auto* description = r.as<CSampleDescriptionBox>();
    ASSERT_NE(description, nullptr);
    EXPECT_EQ(description->entryCount, 3u);

    CBox* entry = nullptr;
    ASSERT_EQ(description->getEntry(1, &entry), MP4_OK);
    EXPECT_NE(dynamic_cast<CAVCSampleEntry*>(entry), nullptr);
    ASSERT_EQ(description->getEntry(2, &entry), MP4_OK);
    EXPECT_NE(dynamic_cast<CSoundSampleEntry*>(entry), nullptr);
    // Unknown formats stay in the list as plain boxes with their type.
    ASSERT_EQ(description->getEntry(3, &entry), MP4_OK);
    EXPECT_EQ(entry->type, fourcc("ac-3"));
    EXPECT_EQ(dynamic_cast<CSampleEntry*>(entry), nullptr);
    EXPECT_EQ(description->getEntry(0, &entry), MP4_ERR_BAD_INDEX);
    EXPECT_EQ(description->getEntry(4, &entry), MP4_ERR_NOT_AVAILABLE);

    // The unknown entry comes back whole.
    Written w = writeBox(description);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes, bytes);
}

TEST(SampleDescription, DamagedEntriesLeaveTheStorageAtTheEndOfTheBox) {
    // A child of size 4 stops the entry right after that header, 24 bytes
    // before the end of "stsd".
    Bytes badChild = concat({ByteWriter().u32(4).code("avcC"), Bytes(24, 0x41)});
    Bytes broken = visualEntry("avc1", badChild);
    Bytes description = stsd({broken}, 1);
    Bytes bytes = concat({description, box("free", Bytes(4, 0))});
    MemoryFile file(bytes);
    uint64_t remaining = bytes.size();
    CBox* out = nullptr;
    uint32_t type = 0;
    ASSERT_EQ(readBox(file.storage(), 0, &out, &type, &remaining), MP4_OK);
    std::unique_ptr<CBox> holder(out);
    EXPECT_EQ(file.position(), description.size());
    ASSERT_EQ(readBox(file.storage(), 0, &out, &type, &remaining), MP4_OK);
    holder.reset(out);
    EXPECT_EQ(holder->type, fourcc("free"));

    // An entry claiming more than "stsd" holds ends the list quietly.
    Bytes tooLong = stsd({box("twos", Bytes(28, 0), 500)}, 1);
    Read r = readOne(concat({tooLong, Bytes(3, 0)}), 0);
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.position, tooLong.size());
    EXPECT_EQ(r.box->childList()->count(), 0u);

    // A box too short for its own fields is still left at its end.
    Bytes stub = box("stsd", Bytes(2, 0));
    r = readOne(concat({stub, box("free", {})}), 0);
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.position, stub.size());
}

TEST(SampleDescription, NewBoxCountsAddedEntriesAndNeedsAListToBeSized) {
    CSampleDescriptionBox description;
    EXPECT_EQ(description.calculateSize(), MP4_ERR_INVALID_DATA);
    MemoryFile empty(Bytes(16, 0), true);
    EXPECT_EQ(description.write(empty.storage()), MP4_OK);
    EXPECT_EQ(empty.bytes(), stsd({}, 0));

    ASSERT_EQ(description.addChild(new CMP4AudioSampleEntry()), MP4_OK);
    EXPECT_EQ(description.entryCount, 1u);
    Written w = writeBox(&description);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes.size(), 16u + 36u);
}

// ---- every entry and codec box ----------------------------------------

TEST(SampleEntries, ReadWriteRoundTripsAreByteExact) {
    const std::pair<const char*, Bytes> cases[] = {
        {"visual", visualEntry("cvid")},
        {"avc1", visualEntry("avc1", concat({btrt(), pasp(), appleUuid(ByteWriter().u32(7))}))},
        {"s263", visualEntry("s263", box("d263", ByteWriter().code("FFMP").u8(0).u8(10).u8(0)))},
        {"hvc1", visualEntry("hvc1")},
        {"jpeg", visualEntry("jpeg")},
        {"mp4v", visualEntry("mp4v", btrt())},
        {"sound v0", soundEntry("sowt", 0, {}, chan())},
        {"sound v1",
         soundEntry("fl32", 1, soundV1Fields(), box("wave", concat({enda(1), chan()})))},
        {"mp4a", soundEntry("mp4a", 0, {}, btrt())},
        {"samr", amrEntry("samr", 8000, damr())},
        {"sawb", amrEntry("sawb", 16000)},
        {"tmcd", box("tmcd", concat({entryStart(), timeCodeFields()}))},
        {"mp4s", box("mp4s", concat({entryStart(3), btrt()}))},
        {"d263 empty", box("d263", {})},
        {"damr", damr()},
        {"btrt", btrt()},
        {"pasp", pasp()},
        {"enda", enda(1)},
        {"chan", chan()},
        {"apple", appleUuid(ByteWriter().u32(0xDEADBEEF))},
    };
    for (const auto& [name, bytes] : cases) {
        Read r = readOne(bytes);
        ASSERT_EQ(r.err, MP4_OK) << name;
        ASSERT_NE(r.type, 0u) << name;  // known to the factory
        EXPECT_EQ(r.position, bytes.size()) << name;
        Written w = writeBox(r.box.get());
        ASSERT_EQ(w.err, MP4_OK) << name;
        EXPECT_EQ(w.bytes, bytes) << name;
    }
}

// A new entry's size and bytes agree (writeBox fails on any surplus byte).
TEST(SampleEntries, NewBoxesWriteWhatTheySize) {
    CVisualSampleEntry userType(fourcc("uuid"));
    ASSERT_EQ(userType.calculateSize(), MP4_OK);
    EXPECT_EQ(userType.size, 102u);
    CSoundSampleEntry v1(fourcc("twos"));
    v1.version = 1;
    CAMRWBSampleEntry amr;
    EXPECT_EQ(writeBox(&v1).position, 52u);
    EXPECT_EQ(writeBox(&amr).bytes, amrEntry("sawb", 16000));
}

TEST(SampleEntries, PayloadsShorterThanTheirFixedFieldsFail) {
    EXPECT_EQ(readPayloadAs<CAVCSampleEntry>(box("avc1", Bytes(7, 0))), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(readPayloadAs<CAMRWBSampleEntry>(box("sawb", concat({entryStart(), Bytes(10, 0)}))), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(readPayloadAs<CTimeCodeSampleEntry>(box("tmcd", concat({entryStart(), Bytes(17, 0)}))),
              MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(readPayloadAs<CPixelAspectRatioBox>(box("pasp", Bytes(7, 1))), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(readPayloadAs<CEndianFormatBox>(box("enda", Bytes(1, 1))), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(readPayloadAs<CChannelCompositionBox>(fullBox("chan", 0, 0, Bytes(11, 1))), MP4_ERR_BAD_BOX_SIZE);

    // Through the factory the short box is skipped and kept with defaults.
    Read r = readOne(box("pasp", Bytes(7, 1)));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.as<CPixelAspectRatioBox>()->hSpacing, 1u);
}

TEST(SampleEntries, ReadingTwiceFails) {
    const std::pair<uint32_t, Bytes> cases[] = {
        {0, stsd({soundEntry("twos", 0, {})}, 1)},
        {kStsd, visualEntry("mp4v", btrt())},
        {kStsd, soundEntry("twos", 0, {}, enda(0))},
    };
    for (const auto& [parent, bytes] : cases) {
        Read r = readOne(bytes, parent);
        ASSERT_EQ(r.err, MP4_OK);
        MemoryFile file(bytes);
        file.storage()->skip(8);
        r.box->remaining = bytes.size() - 8;
        EXPECT_EQ(r.box->read(file.storage()), MP4_ERR_INVALID_DATA);
    }
}

// ---- visual entries -----------------------------------------------------

TEST(VisualSampleEntry, SeventyEightBytePayloadHasNoChildList) {
    Read r = readOne(visualEntry("cvid", {}, 64, 48));
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = r.as<CVisualSampleEntry>();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->childList(), nullptr);
    CBox* child = nullptr;
    EXPECT_EQ(entry->findChild(fourcc("btrt"), &child), MP4_ERR_NOT_AVAILABLE);
}

TEST(VisualSampleEntry, CodecChildrenAreFoundByType) {
    Bytes d263 = box("d263", ByteWriter().code("FFMP").u8(0).u8(10).u8(0));
    Read r = readOne(visualEntry("s263", d263));
    CH263SpecificBox* specific = nullptr;
    ASSERT_EQ(r.as<CH263SampleEntry>()->getH263SpecificBox(&specific), MP4_OK);
    uint8_t level = 0;
    EXPECT_EQ(specific->getLevel(&level), MP4_OK);
    EXPECT_EQ(level, 10);

    // Apple's private box is found behind another "uuid".
    ByteWriter other;
    other.u32(24).code("uuid").zeros(16);
    Bytes apple = appleUuid(ByteWriter().u32(0x01020304));
    r = readOne(visualEntry("avc1", concat({other, apple, btrt()})));
    auto* avc = r.as<CAVCSampleEntry>();
    ASSERT_NE(avc, nullptr);
    CAppleAvcBox* appleBox = nullptr;
    ASSERT_EQ(avc->getAppleAvcBox(&appleBox), MP4_OK);
    EXPECT_EQ(appleBox->value, 0x01020304u);
    CMPEG4BitRateBox* bitRate = nullptr;
    ASSERT_EQ(avc->getBitRateBox(&bitRate), MP4_OK);
    EXPECT_EQ(bitRate->avgBitrate, 96000u);
    CBox* avcC = nullptr;
    EXPECT_EQ(avc->getAVCConfigurationBox(&avcC), MP4_ERR_NOT_AVAILABLE);
}

TEST(VisualSampleEntry, ShortPayloadReadsNoChildrenAndEndsAtItsBox) {
    // 20 bytes of payload where 78 are expected: the reader runs into the
    // next entry, and the factory's skip lands back at the end of the box.
    Bytes shortEntry = box("mp4v", concat({entryStart(), Bytes(12, 0)}));
    Bytes bytes = concat({shortEntry, visualEntry("jpeg")});
    MemoryFile file(bytes);
    uint64_t remaining = bytes.size();
    CBox* out = nullptr;
    uint32_t type = 0;
    ASSERT_EQ(readBox(file.storage(), kStsd, &out, &type, &remaining), MP4_OK);
    std::unique_ptr<CBox> first(out);
    EXPECT_EQ(first->childList(), nullptr);
    EXPECT_EQ(file.position(), shortEntry.size());
    ASSERT_EQ(readBox(file.storage(), kStsd, &out, &type, &remaining), MP4_OK);
    std::unique_ptr<CBox> second(out);
    EXPECT_NE(dynamic_cast<CMjpegSampleEntry*>(second.get()), nullptr);
}

// ---- QuickTime sound descriptions -------------------------------------------

TEST(SoundSampleEntry, VersionOneByteCountsAndMissingBlock) {
    Read r = readOne(soundEntry("in24", 1, soundV1Fields()));
    auto* entry = r.as<CSoundSampleEntry>();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->perSampleByteCount(), 2u);  // bytes per sample
    // Bytes per frame (4) for each packet of 1024 audio samples begun.
    EXPECT_EQ(entry->perChunkByteCount(1), 4u);
    EXPECT_EQ(entry->perChunkByteCount(2048), 8u);
    EXPECT_EQ(entry->perChunkByteCount(2049), 12u);

    // 4 bytes are too few for the version-1 block: its fields stay zero
    // and the bytes are skipped as the tail of an empty child list.
    r = readOne(soundEntry("twos", 1, Bytes(4, 0xAB)));
    entry = r.as<CSoundSampleEntry>();
    EXPECT_EQ(entry->bytesPerFrame, 0u);
    ASSERT_NE(entry->childList(), nullptr);
    EXPECT_EQ(entry->childList()->count(), 0u);
    EXPECT_EQ(entry->remaining, 0u);
}

TEST(SoundSampleEntry, VersionTwoDerivesTheRateFieldsAndIsWrittenAsRead) {
    const Bytes read = soundV2Entry(44100.0, 80, Bytes(8, 0x5A), 0x00010006);
    Read r = readOne(read);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = r.as<CSoundSampleEntry>();
    EXPECT_EQ(entry->audioSampleRate, 44100.0);
    EXPECT_EQ(entry->sampleRateInteger, 44100);
    EXPECT_EQ(entry->sampleRateFraction, 0);  // 44100 x 65536 overflows 31 bits
    EXPECT_EQ(entry->channelCount, 6);         // low 16 bits of the 32-bit count
    EXPECT_EQ(entry->perSampleByteCount(), 4u);
    // Written back byte for byte, extension included (faststart, remux).
    ASSERT_EQ(sizeBox(entry), MP4_OK);
    EXPECT_EQ(entry->size, read.size());
    MemoryFile out(Bytes(read.size(), 0), true);
    ASSERT_EQ(writeBox(entry, out.storage()), MP4_OK);
    EXPECT_EQ(out.bytes(), read);
    // One made here has nothing to write back: refused after 20 bytes.
    CSoundSampleEntry made(fourcc("lpcm"));
    made.version = 2;
    ASSERT_EQ(made.calculateSize(), MP4_OK);
    EXPECT_EQ(made.size, 36u);
    MemoryFile refused(Bytes(36, 0), true);
    EXPECT_EQ(made.write(refused.storage()), MP4_ERR_INVALID_DATA);
    EXPECT_EQ(refused.position(), 36u);  // the common 20 bytes went out first

    struct Case {
        double rate;
        uint16_t integer, fraction;
    };
    const Case cases[] = {
        {96000.0, static_cast<uint16_t>(96000), 0},
        {8000.5, 8000, static_cast<uint16_t>(static_cast<uint32_t>(8000.5 * 65536))},
        {-1.5, 0xFFFF, 0x8000},
        {std::nan(""), 0, 0},
    };
    for (const Case& c : cases) {
        Read converted = readOne(soundV2Entry(c.rate, 72));
        entry = converted.as<CSoundSampleEntry>();
        EXPECT_EQ(entry->sampleRateInteger, c.integer) << c.rate;
        EXPECT_EQ(entry->sampleRateFraction, c.fraction) << c.rate;
    }
}

TEST(SoundSampleEntry, VersionTwoExtensionsAndUnreadableVersions) {
    // Size of struct 80: 8 extension bytes come before the children.
    Read r = readOne(soundV2Entry(48000.0, 80, concat({Bytes(8, 0x55), chan()})));
    CChannelCompositionBox* layout = nullptr;
    ASSERT_EQ(r.as<CSoundSampleEntry>()->getChannelCompositionBox(&layout), MP4_OK);
    EXPECT_EQ(layout->channelLayoutTag, 0x640001u);
    // A declared length beyond the box skips only what is there.
    r = readOne(soundV2Entry(48000.0, 5000, Bytes(8, 0x55)));
    EXPECT_EQ(r.as<CSoundSampleEntry>()->childList(), nullptr);

    // Version 2 with fewer than 20 bytes left, and version 3, read nothing
    // more; the factory skips the rest.
    Bytes truncated = box("lpcm", concat({entryStart(), ByteWriter().u16(2).u16(0).u32(0),
                                          Bytes(19, 0x11)}));
    Bytes version3 =
        box("lpcm", concat({entryStart(), ByteWriter().u16(3).u16(0).u32(0), enda(1)}));
    for (const Bytes& bytes : {truncated, version3}) {
        r = readOne(bytes);
        ASSERT_EQ(r.err, MP4_OK);
        EXPECT_EQ(r.as<CSoundSampleEntry>()->childList(), nullptr);
        EXPECT_EQ(r.position, bytes.size());
    }
}

TEST(SoundSampleEntry, QuickTimeWaveHoldsTheExtensionBoxes) {
    // wave{frma, mp4a, esds, terminator, enda} as QuickTime writes it.
    Bytes wave = box("wave", concat({box("frma", ByteWriter().code("mp4a")),
                                     box("mp4a", Bytes(4, 0)), esdsBox(),
                                     ByteWriter().u32(8).u32(0), enda(1)}));
    Read r = readOne(soundEntry("mp4a", 1, soundV1Fields(), concat({wave, chan()})));
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = r.as<CMP4AudioSampleEntry>();
    ASSERT_NE(entry, nullptr);
    CBox* found = nullptr;
    ASSERT_EQ(entry->findChild(fourcc("wave"), &found), MP4_OK);
    // The terminator ended "wave": the "enda" after it was not read.
    EXPECT_EQ(found->childList()->count(), 3u);
    CEndianFormatBox* endian = nullptr;
    EXPECT_EQ(entry->getEndianFormatBox(&endian), MP4_ERR_NOT_AVAILABLE);
    // "mp4a" inside "wave" is an unknown box, and "esds" is found in "wave".
    ASSERT_EQ(found->findChild(fourcc("mp4a"), &found), MP4_OK);
    EXPECT_EQ(dynamic_cast<CSampleEntry*>(found), nullptr);
    ASSERT_EQ(entry->getESDBox(&found), MP4_OK);
    EXPECT_EQ(found->type, fourcc("esds"));

    r = readOne(soundEntry("fl32", 1, soundV1Fields(), box("wave", enda(1))));
    ASSERT_EQ(r.as<CSoundSampleEntry>()->getEndianFormatBox(&endian), MP4_OK);
    EXPECT_EQ(endian->data, 1);
}

TEST(SoundSampleEntry, AudioCodesInsideWaveAreUnknownBoxes) {
    for (const char* code : {"mp4a", "twos", "sowt", "lpcm", "ms\0U"}) {
        Bytes bytes = soundEntry("xxxx", 0, {});
        std::memcpy(bytes.data() + 4, code, 4);
        Read inWave = readOne(bytes, fourcc("wave"));
        ASSERT_EQ(inWave.err, MP4_OK);
        EXPECT_EQ(inWave.type, 0u) << code;
        EXPECT_EQ(inWave.as<CSampleEntry>(), nullptr) << code;
        EXPECT_NE(readOne(bytes).as<CSoundSampleEntry>(), nullptr) << code;
    }
}

// ---- other entries ------------------------------------------------------------

TEST(OtherSampleEntries, AmrTimeCodeAndMpegFields) {
    Read r = readOne(amrEntry("samr", 8000, damr()));
    auto* amr = r.as<CAMRNBSampleEntry>();
    ASSERT_NE(amr, nullptr);
    EXPECT_EQ(amr->sampleRateHz(), 8000u);
    CAMRSpecificBox* specific = nullptr;
    ASSERT_EQ(amr->getAMRSpecificBox(&specific), MP4_OK);
    uint16_t modeSet = 0;
    ASSERT_EQ(specific->getModeSet(&modeSet), MP4_OK);
    EXPECT_EQ(modeSet, 0x81FF);

    // 2 trailing bytes after the time-code fields are skipped.
    Bytes timeCode = box("tmcd", concat({entryStart(), timeCodeFields(), Bytes(2, 0)}));
    r = readOne(timeCode);
    auto* tmcd = r.as<CTimeCodeSampleEntry>();
    ASSERT_NE(tmcd, nullptr);
    EXPECT_TRUE(tmcd->isDropFrame());
    EXPECT_EQ(r.position, timeCode.size());

    // Outside "stsd" the code is not a sample entry.
    EXPECT_EQ(readOne(timeCode, fourcc("minf")).as<CTimeCodeSampleEntry>(), nullptr);

    r = readOne(box("mp4s", concat({entryStart(3), esdsBox()})));
    auto* mpeg = r.as<CMP4MpegSampleEntry>();
    ASSERT_NE(mpeg, nullptr);
    EXPECT_EQ(mpeg->dataReferenceIndex, 3);
    CBox* esds = nullptr;
    EXPECT_EQ(mpeg->getESDBox(&esds), MP4_OK);
}

TEST(CodecBoxes, AppleBoxWithoutRoomForItsValueSkipsThePayload) {
    Read r = readOne(concat({appleUuid(Bytes(2, 0x77)), box("free", {})}), fourcc("avc1"));
    auto* apple = r.as<CAppleAvcBox>();
    ASSERT_NE(apple, nullptr);
    EXPECT_EQ(apple->value, 0u);
    EXPECT_EQ(apple->remaining, 0u);
    EXPECT_EQ(r.position, 26u);
    // Bytes after the value are ignored and not written back.
    r = readOne(appleUuid(ByteWriter().u32(5).u32(6)), fourcc("avc1"));
    EXPECT_EQ(writeBox(r.box.get()).bytes, appleUuid(ByteWriter().u32(5)));
}

// ---- dumps ----------------------------------------------------------------------

// Each box read as a child of `parent` dumps exactly these lines.
TEST(SampleEntryDumps, DescriptionEntriesAndCodecBoxes) {
    std::string sixteen;
    for (int i = 0; i < 16; ++i) sixteen += "ab ";
    const uint32_t kCodec = fourcc("avc1");
    const struct { Bytes bytes; uint32_t parent; std::string expected; } cases[] = {
        {stsd({soundEntry("sowt", 0, {})}, 1), 0,
         "\nBox type = stsd  Size = 52\nVersion = 0, Flags = 0x000000\nEntry count = 1\n{\n"
              "  Box type = sowt  Size = 36\n"
              "  m_ui16DataReferenceIndex: 1\n"
              "  Version = 0\n"
              "  Revision level = 0, Vendor = 0\n"
              "  Channel count = 2\n"
              "  Sample size = 16\n"
              "  Compression id = -2, Packet size = 0\n"
              "  Sample rate 44100:0Hz\n"
              "  {  }\n"
              "}\n"},
        {visualEntry("avc1", pasp()), kStsd,
         "\nBox type = avc1  Size = 102\n"
              "m_ui16DataReferenceIndex: 1\n"
              "Width = 320, Height = 240\n"
              "Horizontal resolution = 0x00480000, Vertical resolution = 0x00480000\n"
              "Frame count = 1\n"
              "Compressor name = Lavc\n"
              "Depth = 0x0018, Pre-defined = -1\n"
              "{\n  Box type = pasp  Size = 16\n  Horizontal spacing=16\n"
              "  Vertical spacing=11\n}\n"},
        {soundV2Entry(96000.0, 72, enda(1)), kStsd,
         "\nBox type = lpcm  Size = 82\n"
              "m_ui16DataReferenceIndex: 1\n"
              "Version = 2\n"
              "Revision level = 0, Vendor = 0\n"
              "Size of struct (SoundSampleDesc v2) = 72\n"
              "Audio sample rate = 96000.000Hz\n"
              "Channel count = 2\n"
              "Const. bits per sample = 16\n"
              "Format specific flags = 0x0000000c\n"
              "Const. bytes per audio packet = 4\n"
              "Const. LPCM frames per audio packet = 1\n"
              "{\n  Box type = enda  Size = 10\n  Data: 1\n}\n"},
        {box("damr", {1, 2, 3, 4, 5, 6, 7, 8, 9}), kCodec,
         "\nBox type = damr  Size = 17\n{\n  01 02 03 04 05 06 07 08 09 \n}\n"},
        {box("d263", {}), kCodec, "\nBox type = d263  Size = 8\n{\n}\n"},
        // A new line, one level deeper, before every 16th byte.
        {box("damr", Bytes(20, 0xAB)), kCodec,
         "\nBox type = damr  Size = 28\n{\n  " + sixteen + "\n  ab ab ab ab \n}\n"},
        {box("btrt", ByteWriter().u32(1).u32(2).u32(3)), kCodec,
         "\nBox type = btrt  Size = 20\nBufferSizeDB = 1\nMaxBitrate = 2\nAvgBitrate = 3\n"},
        {box("pasp", ByteWriter().u32(0xFFFFFFFF).u32(9)), kCodec,
         "\nBox type = pasp  Size = 16\nHorizontal spacing=-1\nVertical spacing=9\n"},
        {enda(1), kCodec, "\nBox type = enda  Size = 10\nData: 1\n"},
        {fullBox("chan", 0, 0, ByteWriter().u32(7).u32(0x1F).u32(2)), kCodec,
         "\nBox type = chan  Size = 24\nVersion = 0, Flags = 0x000000\n"
         "Data: 7\nData: 0x0000001f\nData: 2\n"},
        {appleUuid(ByteWriter().u32(0x00000201)), kCodec,
         "\nBox type = uuid  Size = 28\n"
         "User type = 6b 68 40 f2 5f 24 4f c5 ba 39 a5 1b cf 03 23 f3  (kh@\xf2)\n"
         "Value: 0x00000201 (Apple's private data)\n"},
    };
    for (const auto& c : cases) {
        Read r = readOne(c.bytes, c.parent);
        ASSERT_EQ(r.err, MP4_OK);
        EXPECT_EQ(dumpOf(r.box.get()), c.expected);
    }
}

}  // namespace
}  // namespace quil
