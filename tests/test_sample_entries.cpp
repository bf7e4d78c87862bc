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

struct Read {
    MP4Err err = MP4_OK;
    std::unique_ptr<CBox> box;
    uint32_t type = 0;
    uint32_t position = 0;
};

// One box through the factory, as a parent of type parentType would read it.
Read readOne(const Bytes& bytes, uint32_t parentType = fourcc("stsd")) {
    MemoryFile file(bytes);
    Read r;
    uint64_t parentRemaining = bytes.size();
    CBox* out = nullptr;
    r.err = readBox(file.storage(), parentType, &out, &r.type, &parentRemaining);
    r.box.reset(out);
    r.position = file.position();
    return r;
}

template <class T>
T* as(const Read& r) {
    return dynamic_cast<T*>(r.box.get());
}

// calculateSize, then write into a buffer of exactly the computed size.
struct Written {
    MP4Err err = MP4_OK;
    Bytes bytes;
    uint32_t position = 0;
};

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

// Reading and writing again must give the same bytes.
void expectRoundTrip(const Bytes& bytes, uint32_t parentType = fourcc("stsd")) {
    Read r = readOne(bytes, parentType);
    ASSERT_EQ(r.err, MP4_OK);
    ASSERT_EQ(r.position, bytes.size());
    Written w = writeBox(r.box.get());
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes, bytes);
}

std::string dumpOf(CBox* b, int32_t depth = 0, MP4Err* result = nullptr) {
    testing::internal::CaptureStdout();
    MP4Err err = b->dump(depth);
    if (result) *result = err;
    return testing::internal::GetCapturedStdout();
}

Bytes entryStart(uint16_t dataReferenceIndex = 1) {
    return ByteWriter().zeros(6).u16(dataReferenceIndex);
}

// The 70 bytes of visual fields.
Bytes visualFields(uint16_t width, uint16_t height, const char* compressor = "") {
    ByteWriter w;
    w.u16(0).u16(0).u32(0).u32(0).u32(0).u16(width).u16(height);
    w.u32(0x00480000).u32(0x00480000).u32(0).u16(1);
    size_t n = std::strlen(compressor);
    w.u8(static_cast<uint32_t>(n)).str(compressor, false).zeros(31 - n);
    return w.u16(0x18).u16(0xFFFF);
}

Bytes visualEntry(const char* type, const Bytes& children = {}, uint16_t width = 320,
                  uint16_t height = 240) {
    return box(type, concat({entryStart(), visualFields(width, height), children}));
}

// Sound description versions 0 and 1 (v1Fields non-empty for version 1).
Bytes soundEntry(const char* type, uint16_t version, const Bytes& v1Fields,
                 const Bytes& children = {}, uint16_t rate = 44100) {
    ByteWriter w;
    w.raw(entryStart()).u16(version).u16(0).u32(0);
    w.u16(2).u16(16).u16(0xFFFE).u16(0).u16(rate).u16(0);
    return box(type, concat({w, v1Fields, children}));
}

Bytes soundV1Fields() { return ByteWriter().u32(1024).u32(2).u32(4).u32(2); }

uint64_t bitsOf(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
}

// Version-2 description with the given rate, struct size and trailer.
Bytes soundV2Entry(double rate, uint32_t sizeOfStruct, const Bytes& rest = {},
                   uint32_t channels = 2) {
    ByteWriter w;
    w.raw(entryStart()).u16(2).u16(0).u32(0);
    w.u16(3).u16(16).u16(0xFFFE).u16(0).u32(65536);
    w.u32(sizeOfStruct).u64(bitsOf(rate)).u32(channels).u32(0x7F000000);
    w.u32(16).u32(0xC).u32(4).u32(1);
    return box("lpcm", concat({w, rest}));
}

// An "esds" with a complete ES descriptor (AAC LC, 44.1 kHz stereo).
Bytes esdsBox() {
    ByteWriter d;
    d.u8(0x03).u8(0x19).u16(2).u8(0);                       // ES descriptor, ES_ID 2
    d.u8(0x04).u8(0x11).u8(0x40).u8(0x15).u24(0).u32(64795).u32(64795);
    d.u8(0x05).u8(0x02).u8(0x12).u8(0x10);                  // AudioSpecificConfig
    d.u8(0x06).u8(0x01).u8(0x02);                           // SL config, predefined 2
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

// ---- sample description -----------------------------------------------

TEST(SampleDescription, ReadsEntriesOfEveryKindAndWritesThemBack) {
    Bytes avc = visualEntry("avc1", concat({box("btrt", ByteWriter().u32(1).u32(2).u32(3)),
                                            box("pasp", ByteWriter().u32(4).u32(3))}));
    Bytes sound = soundEntry("twos", 0, {});
    Bytes unknown = box("ac-3", Bytes(28, 0));
    Bytes bytes = stsd({avc, sound, unknown}, 3);

    Read r = readOne(bytes, fourcc("stbl"));
    ASSERT_EQ(r.err, MP4_OK);
    auto* description = as<CSampleDescriptionBox>(r);
    ASSERT_NE(description, nullptr);
    EXPECT_EQ(description->entryCount, 3u);

    CBox* entry = nullptr;
    ASSERT_EQ(description->getEntry(1, &entry), MP4_OK);
    auto* video = dynamic_cast<CAVCSampleEntry*>(entry);
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(video->frameWidth(), 320u);
    CPixelAspectRatioBox* pasp = nullptr;
    ASSERT_EQ(video->getPixelAspectRatioBox(&pasp), MP4_OK);
    EXPECT_EQ(pasp->hSpacing, 4u);

    ASSERT_EQ(description->getEntry(2, &entry), MP4_OK);
    EXPECT_NE(dynamic_cast<CSoundSampleEntry*>(entry), nullptr);
    // Unknown formats stay in the list as plain boxes with their type.
    ASSERT_EQ(description->getEntry(3, &entry), MP4_OK);
    EXPECT_EQ(entry->type, fourcc("ac-3"));
    EXPECT_EQ(dynamic_cast<CSampleEntry*>(entry), nullptr);

    EXPECT_EQ(description->getEntry(0, &entry), MP4_ERR_BAD_INDEX);
    EXPECT_EQ(description->getEntry(4, &entry), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(entry, nullptr);

    // The unknown entry is written back as a bare header.
    Written w = writeBox(description);
    ASSERT_EQ(w.err, MP4_OK);
    Bytes expected = stsd({avc, sound, box("ac-3", {})}, 3);
    EXPECT_EQ(w.bytes, expected);
}

TEST(SampleDescription, DamagedEntriesLeaveTheStorageAtTheEndOfTheBox) {
    // A child of the entry with size 4 stops the entry's reading right
    // after that header: without the final seek, "stsd" would go on
    // reading from the middle of the entry.
    Bytes broken = visualEntry("avc1", concat({ByteWriter().u32(4).code("avcC"),
                                               Bytes(24, 0x41)}));
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

    // An entry that claims more than "stsd" holds ends the list quietly.
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
    // Writing without entries writes the 16 bytes and succeeds.
    MemoryFile empty(Bytes(16, 0), true);
    EXPECT_EQ(description.write(empty.storage()), MP4_OK);
    EXPECT_EQ(empty.bytes(), stsd({}, 0));

    ASSERT_EQ(description.addChild(new CMP4AudioSampleEntry()), MP4_OK);
    EXPECT_EQ(description.entryCount, 1u);
    Written w = writeBox(&description);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes.size(), 16u + 36u);

    Read r = readOne(w.bytes, 0);
    ASSERT_EQ(r.err, MP4_OK);
    MemoryFile again(w.bytes);
    again.storage()->skip(8);
    EXPECT_EQ(r.box->read(again.storage()), MP4_ERR_INVALID_DATA);
}

TEST(SampleDescription, DumpsEntriesBetweenBraces) {
    Read r = readOne(stsd({soundEntry("sowt", 0, {})}, 1), 0);
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(dumpOf(r.box.get()),
              "\nBox type = stsd  Size = 52\n"
              "Version = 0, Flags = 0x000000\n"
              "Entry count = 1\n"
              "{\n"
              "  Box type = sowt  Size = 36\n"
              "  m_ui16DataReferenceIndex: 1\n"
              "  Version = 0\n"
              "  Revision level = 0, Vendor = 0\n"
              "  Channel count = 2\n"
              "  Sample size = 16\n"
              "  Compression id = -2, Packet size = 0\n"
              "  Sample rate 44100:0Hz\n"
              "  {  }\n"
              "}\n");
}

// ---- visual entries -----------------------------------------------------

TEST(VisualSampleEntry, SeventyEightBytePayloadHasNoChildList) {
    Bytes bytes = visualEntry("cvid", {}, 64, 48);
    ASSERT_EQ(bytes.size(), 86u);
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CVisualSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->childList(), nullptr);
    EXPECT_EQ(entry->frameWidth(), 64u);
    EXPECT_EQ(entry->frameHeight(), 48u);
    CBox* child = nullptr;
    EXPECT_EQ(entry->findChild(fourcc("btrt"), &child), MP4_ERR_NOT_AVAILABLE);
    expectRoundTrip(bytes);
}

TEST(VisualSampleEntry, NewEntryHasTheStandardDefaults) {
    CVisualSampleEntry entry(fourcc("raw "));
    ASSERT_EQ(entry.calculateSize(), MP4_OK);
    EXPECT_EQ(entry.size, 86u);
    EXPECT_EQ(entry.dataReferenceIndex, 1);
    EXPECT_EQ(entry.horizResolution, 0x00480000);
    EXPECT_EQ(entry.vertResolution, 0x00480000);
    EXPECT_EQ(entry.frameCount, 1);
    EXPECT_EQ(entry.depth, 0x0018);
    EXPECT_EQ(entry.preDefined3, -1);

    entry.width = 640;
    entry.height = 480;
    entry.setCompressorName("quil encoder with a name longer than 31");
    Written w = writeBox(&entry);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.position, 86u);
    Bytes name = Bytes(w.bytes.begin() + 50, w.bytes.begin() + 82);
    EXPECT_EQ(name[0], 31);
    EXPECT_EQ(std::string(name.begin() + 1, name.end()), "quil encoder with a name longer");
    expectRoundTrip(w.bytes);

    // A user-type entry counts its 16 extra header bytes.
    CVisualSampleEntry custom(fourcc("uuid"));
    custom.calculateSize();
    EXPECT_EQ(custom.size, 102u);
    // Large dimensions are unsigned pixel counts.
    entry.width = static_cast<int16_t>(0xF000);
    EXPECT_EQ(entry.frameWidth(), 0xF000u);
}

TEST(VisualSampleEntry, CodecChildrenAreFoundByTypeAndWrittenBack) {
    const Bytes d263 = box("d263", ByteWriter().code("FFMP").u8(0).u8(10).u8(0));
    Read r = readOne(visualEntry("s263", d263, 176, 144));
    ASSERT_EQ(r.err, MP4_OK);
    auto* h263 = as<CH263SampleEntry>(r);
    ASSERT_NE(h263, nullptr);
    CH263SpecificBox* specific = nullptr;
    ASSERT_EQ(h263->getH263SpecificBox(&specific), MP4_OK);
    uint8_t level = 0, profile = 99;
    EXPECT_EQ(specific->getLevel(&level), MP4_OK);
    EXPECT_EQ(specific->getProfile(&profile), MP4_OK);
    EXPECT_EQ(level, 10);
    EXPECT_EQ(profile, 0);

    // Apple's private box is found behind another "uuid".
    ByteWriter other;
    other.u32(24).code("uuid").zeros(16);
    Bytes avc = visualEntry("avc1", concat({other, appleUuid(ByteWriter().u32(0x01020304)),
                                            box("btrt", ByteWriter().u32(9).u32(8).u32(7))}));
    r = readOne(avc);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CAVCSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    CAppleAvcBox* apple = nullptr;
    ASSERT_EQ(entry->getAppleAvcBox(&apple), MP4_OK);
    EXPECT_EQ(apple->value, 0x01020304u);
    CMPEG4BitRateBox* btrt = nullptr;
    ASSERT_EQ(entry->getBitRateBox(&btrt), MP4_OK);
    EXPECT_EQ(btrt->avgBitrate, 7u);
    CBox* avcC = nullptr;
    EXPECT_EQ(entry->getAVCConfigurationBox(&avcC), MP4_ERR_NOT_AVAILABLE);

    // The unknown "uuid" is written back as a bare 24-byte header.
    Written w = writeBox(entry);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes, avc);

    Read hevc = readOne(visualEntry("hev1"));
    ASSERT_NE(as<CHEVCSampleEntry>(hevc), nullptr);
    EXPECT_EQ(hevc.box->type, fourcc("hev1"));
}

TEST(VisualSampleEntry, ShortPayloadReadsNoChildrenAndEndsAtItsBox) {
    // 20 bytes of payload but 78 expected: the reader runs into the next
    // box, and the factory's skip lands back at the end of the entry.
    Bytes shortEntry = box("mp4v", concat({entryStart(), Bytes(12, 0)}));
    Bytes bytes = concat({shortEntry, visualEntry("jpeg")});
    MemoryFile file(bytes);
    uint64_t remaining = bytes.size();
    CBox* out = nullptr;
    uint32_t type = 0;
    ASSERT_EQ(readBox(file.storage(), fourcc("stsd"), &out, &type, &remaining), MP4_OK);
    std::unique_ptr<CBox> first(out);
    EXPECT_EQ(first->childList(), nullptr);
    EXPECT_EQ(file.position(), shortEntry.size());
    ASSERT_EQ(readBox(file.storage(), fourcc("stsd"), &out, &type, &remaining), MP4_OK);
    std::unique_ptr<CBox> second(out);
    EXPECT_NE(dynamic_cast<CMjpegSampleEntry*>(second.get()), nullptr);
}

TEST(VisualSampleEntry, ReadingTwiceFails) {
    Bytes bytes = visualEntry("mp4v", box("btrt", Bytes(12, 0)));
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    MemoryFile file(bytes);
    file.storage()->skip(8);
    r.box->remaining = bytes.size() - 8;
    EXPECT_EQ(r.box->read(file.storage()), MP4_ERR_INVALID_DATA);
}

TEST(VisualSampleEntry, DumpsItsFieldsAndChildren) {
    Read r = readOne(visualEntry("avc1", box("pasp", ByteWriter().u32(1).u32(1)), 320, 240),
                     fourcc("stsd"));
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CVisualSampleEntry>(r);
    entry->setCompressorName("Lavc");
    EXPECT_EQ(dumpOf(entry),
              "\nBox type = avc1  Size = 102\n"
              "m_ui16DataReferenceIndex: 1\n"
              "Width = 320, Height = 240\n"
              "Horizontal resolution = 0x00480000, Vertical resolution = 0x00480000\n"
              "Frame count = 1\n"
              "Compressor name = Lavc\n"
              "Depth = 0x0018, Pre-defined = -1\n"
              "{\n"
              "  Box type = pasp  Size = 16\n"
              "  Horizontal spacing=1\n"
              "  Vertical spacing=1\n"
              "}\n");
}

// ---- QuickTime sound descriptions -----------------------------------------

TEST(SoundSampleEntry, VersionZeroAndOneSizesAndFields) {
    CSoundSampleEntry fresh(fourcc("twos"));
    fresh.calculateSize();
    EXPECT_EQ(fresh.size, 36u);
    fresh.version = 1;
    fresh.calculateSize();
    EXPECT_EQ(fresh.size, 52u);

    Bytes v0 = soundEntry("ulaw", 0, {}, {}, 8000);
    Read r = readOne(v0);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CSoundSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->sampleRateInteger, 8000);
    EXPECT_EQ(entry->compressionId, -2);
    EXPECT_EQ(entry->perSampleByteCount(), 0u);
    EXPECT_EQ(entry->childList(), nullptr);
    expectRoundTrip(v0);

    Bytes v1 = soundEntry("in24", 1, soundV1Fields(), box("enda", ByteWriter().u16(1)));
    r = readOne(v1);
    ASSERT_EQ(r.err, MP4_OK);
    entry = as<CSoundSampleEntry>(r);
    EXPECT_EQ(entry->samplesPerPacket, 1024u);
    EXPECT_EQ(entry->perSampleByteCount(), 2u);  // bytes per sample
    EXPECT_EQ(entry->perChunkByteCount(), 4u);   // bytes per frame
    expectRoundTrip(v1);
}

TEST(SoundSampleEntry, VersionOneWithoutRoomKeepsItsFieldsAtZero) {
    // Only 4 bytes follow the common fields: too few for the version-1
    // block; they are skipped as trailing bytes of the child list.
    Read r = readOne(soundEntry("twos", 1, Bytes(4, 0xAB)));
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CSoundSampleEntry>(r);
    EXPECT_EQ(entry->bytesPerFrame, 0u);
    ASSERT_NE(entry->childList(), nullptr);
    EXPECT_EQ(entry->childList()->count(), 0u);
    EXPECT_EQ(entry->remaining, 0u);
}

TEST(SoundSampleEntry, VersionTwoDerivesTheRateFieldsAndCannotBeWritten) {
    Bytes bytes = soundV2Entry(44100.0, 72, {}, 0x00010006);
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CSoundSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->audioSampleRate, 44100.0);
    EXPECT_EQ(entry->sampleRateInteger, 44100);
    EXPECT_EQ(entry->sampleRateFraction, 0);  // 44100 x 65536 does not fit 31 bits
    EXPECT_EQ(entry->channelCount, 6);         // low 16 bits of the 32-bit count
    EXPECT_EQ(entry->sizeOfStruct, 72u);
    EXPECT_EQ(entry->constBytesPerAudioPacket, 4u);
    EXPECT_EQ(entry->perSampleByteCount(), 4u);
    EXPECT_EQ(r.position, bytes.size());

    ASSERT_EQ(entry->calculateSize(), MP4_OK);
    EXPECT_EQ(entry->size, 36u);
    MemoryFile out(Bytes(36, 0), true);
    EXPECT_EQ(entry->write(out.storage()), MP4_ERR_INVALID_DATA);
    EXPECT_EQ(out.position(), 36u);  // the common 20 bytes went out first
}

TEST(SoundSampleEntry, VersionTwoRateConversionKeepsTheLow16Bits) {
    struct Case {
        double rate;
        uint16_t integer;
        uint16_t fraction;
    };
    const Case cases[] = {
        {96000.0, static_cast<uint16_t>(96000), 0},
        {8000.5, 8000, static_cast<uint16_t>(static_cast<uint32_t>(8000.5 * 65536))},
        {-1.5, 0xFFFF, static_cast<uint16_t>(static_cast<int32_t>(-1.5 * 65536))},
        {std::nan(""), 0, 0},
        {1e300, 0, 0},
    };
    for (const Case& c : cases) {
        Read r = readOne(soundV2Entry(c.rate, 72));
        ASSERT_EQ(r.err, MP4_OK);
        auto* entry = as<CSoundSampleEntry>(r);
        EXPECT_EQ(entry->sampleRateInteger, c.integer) << c.rate;
        EXPECT_EQ(entry->sampleRateFraction, c.fraction) << c.rate;
    }
}

TEST(SoundSampleEntry, VersionTwoSkipsExtensionsBeforeItsChildren) {
    Bytes chan = fullBox("chan", 0, 0, ByteWriter().u32(100).u32(3).u32(0));
    Bytes bytes = soundV2Entry(48000.0, 80, concat({Bytes(8, 0x55), chan}));
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CSoundSampleEntry>(r);
    CChannelCompositionBox* layout = nullptr;
    ASSERT_EQ(entry->getChannelCompositionBox(&layout), MP4_OK);
    EXPECT_EQ(layout->channelLayoutTag, 100u);
    EXPECT_EQ(entry->childList()->count(), 1u);

    // A declared length beyond the box skips only what is there.
    r = readOne(soundV2Entry(48000.0, 5000, Bytes(8, 0x55)));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(as<CSoundSampleEntry>(r)->childList(), nullptr);
}

TEST(SoundSampleEntry, UnknownVersionsAndTruncatedVersionTwoReadNoMore) {
    // Version 2 needs at least 20 more bytes; version 3 is not understood.
    Bytes truncated = box("lpcm", concat({entryStart(), ByteWriter().u16(2).u16(0).u32(0),
                                          Bytes(19, 0x11)}));
    Bytes version3 = box("lpcm", concat({entryStart(), ByteWriter().u16(3).u16(0).u32(0),
                                         box("enda", ByteWriter().u16(1))}));
    for (const Bytes& bytes : {truncated, version3}) {
        Read r = readOne(bytes);
        ASSERT_EQ(r.err, MP4_OK);
        auto* entry = as<CSoundSampleEntry>(r);
        EXPECT_EQ(entry->childList(), nullptr);
        EXPECT_EQ(entry->sampleRateInteger, 0);
        EXPECT_EQ(r.position, bytes.size());
    }
}

TEST(SoundSampleEntry, QuickTimeWaveHoldsTheExtensionBoxes) {
    // wave{frma, mp4a, esds, terminator} as QuickTime writes it, then chan.
    Bytes wave = box("wave", concat({box("frma", ByteWriter().code("mp4a")),
                                     box("mp4a", Bytes(4, 0)), esdsBox(),
                                     ByteWriter().u32(8).u32(0), box("enda", ByteWriter().u16(1))}));
    Bytes chan = fullBox("chan", 0, 0, ByteWriter().u32(0x640001).u32(0).u32(0));
    Bytes bytes = soundEntry("mp4a", 1, soundV1Fields(), concat({wave, chan}));
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CMP4AudioSampleEntry>(r);
    ASSERT_NE(entry, nullptr);

    CBox* found = nullptr;
    ASSERT_EQ(entry->findChild(fourcc("wave"), &found), MP4_OK);
    auto* waveBox = dynamic_cast<CWaveBox*>(found);
    ASSERT_NE(waveBox, nullptr);
    // The terminator ended "wave": the "enda" after it was not read.
    EXPECT_EQ(waveBox->childList()->count(), 3u);
    CEndianFormatBox* enda = nullptr;
    EXPECT_EQ(entry->getEndianFormatBox(&enda), MP4_ERR_NOT_AVAILABLE);

    // "mp4a" inside "wave" is an unknown box, not a sample entry.
    ASSERT_EQ(waveBox->findChild(fourcc("mp4a"), &found), MP4_OK);
    EXPECT_EQ(dynamic_cast<CSampleEntry*>(found), nullptr);
    EXPECT_EQ(entry->getESDBox(&found), MP4_OK);
    EXPECT_EQ(found->type, fourcc("esds"));

    CChannelCompositionBox* layout = nullptr;
    ASSERT_EQ(entry->getChannelCompositionBox(&layout), MP4_OK);
    EXPECT_EQ(layout->channelLayoutTag, 0x640001u);

    // fl32 style: the endianness sits in "wave".
    Bytes fl32 = soundEntry("fl32", 1, soundV1Fields(), box("wave", box("enda", ByteWriter().u16(1))));
    r = readOne(fl32);
    ASSERT_EQ(r.err, MP4_OK);
    ASSERT_EQ(as<CSoundSampleEntry>(r)->getEndianFormatBox(&enda), MP4_OK);
    EXPECT_EQ(enda->data, 1);
    expectRoundTrip(fl32);
}

TEST(SoundSampleEntry, AudioCodesInsideWaveAreUnknownBoxes) {
    Bytes twos = soundEntry("twos", 0, {});
    for (const char* code : {"mp4a", "twos", "sowt", "lpcm"}) {
        Bytes bytes = twos;
        std::memcpy(bytes.data() + 4, code, 4);
        Read inWave = readOne(bytes, fourcc("wave"));
        ASSERT_EQ(inWave.err, MP4_OK);
        EXPECT_EQ(inWave.type, 0u) << code;
        EXPECT_EQ(dynamic_cast<CSampleEntry*>(inWave.box.get()), nullptr) << code;
        Read inStsd = readOne(bytes);
        EXPECT_NE(as<CSoundSampleEntry>(inStsd), nullptr) << code;
    }
    Read mp4a = readOne(soundEntry("mp4a", 0, {}));
    EXPECT_NE(as<CMP4AudioSampleEntry>(mp4a), nullptr);
}

TEST(SoundSampleEntry, ReadingTwiceFails) {
    Bytes bytes = soundEntry("twos", 0, {}, box("enda", ByteWriter().u16(0)));
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    MemoryFile file(bytes);
    file.storage()->skip(8);
    r.box->remaining = bytes.size() - 8;
    EXPECT_EQ(r.box->read(file.storage()), MP4_ERR_INVALID_DATA);
}

TEST(SoundSampleEntry, DumpsVersionSpecificLines) {
    Read v1 = readOne(soundEntry("in24", 1, soundV1Fields()));
    ASSERT_EQ(v1.err, MP4_OK);
    EXPECT_EQ(dumpOf(v1.box.get(), 1),
              "\n  Box type = in24  Size = 52\n"
              "  m_ui16DataReferenceIndex: 1\n"
              "  Version = 1\n"
              "  Revision level = 0, Vendor = 0\n"
              "  Channel count = 2\n"
              "  Sample size = 16\n"
              "  Compression id = -2, Packet size = 0\n"
              "  Sample rate 44100:0Hz\n"
              "  Samples per packet = 1024, Bytes per packet = 2\n"
              "  Bytes per frame = 4, Bytes per sample = 2\n"
              "  {  }\n");

    Read v2 = readOne(soundV2Entry(96000.0, 72, box("enda", ByteWriter().u16(1))));
    ASSERT_EQ(v2.err, MP4_OK);
    EXPECT_EQ(dumpOf(v2.box.get()),
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
              "{\n"
              "  Box type = enda  Size = 10\n"
              "  Data: 1\n"
              "}\n");
}

// ---- ISO audio, AMR, time code, MPEG-4 systems ------------------------------

Bytes amrEntry(const char* type, uint32_t rate, const Bytes& children) {
    ByteWriter w;
    w.raw(entryStart()).zeros(8).u16(2).u16(16).u16(0).u16(0).u32(rate << 16);
    return box(type, concat({w, children}));
}

TEST(AMRSampleEntry, ReadsTheIsoAudioLayoutWithItsSpecificBox) {
    Bytes damr = box("damr", ByteWriter().code("FFMP").u8(0).u16(0x81FF).u8(0).u8(1));
    Bytes bytes = amrEntry("samr", 8000, damr);
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CAMRNBSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->sampleRateHz(), 8000u);
    EXPECT_EQ(entry->channelCount, 2);
    CAMRSpecificBox* specific = nullptr;
    ASSERT_EQ(entry->getAMRSpecificBox(&specific), MP4_OK);
    uint16_t modeSet = 0;
    ASSERT_EQ(specific->getModeSet(&modeSet), MP4_OK);
    EXPECT_EQ(modeSet, 0x81FF);
    uint8_t frames = 0;
    ASSERT_EQ(specific->getFramesPerSample(&frames), MP4_OK);
    EXPECT_EQ(frames, 1);
    expectRoundTrip(bytes);

    // A new wide-band entry is ready to be written.
    CAMRWBSampleEntry wideBand;
    Written w = writeBox(&wideBand);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes, amrEntry("sawb", 16000, {}));
}

TEST(AMRSampleEntry, PayloadShorterThanItsFieldsFails) {
    Bytes bytes = box("sawb", concat({entryStart(), Bytes(10, 0)}));
    MemoryFile file(bytes);
    CBox header;
    ASSERT_EQ(header.read(file.storage()), MP4_OK);
    CAMRWBSampleEntry entry;
    entry.copyHeaderFrom(header);
    EXPECT_EQ(entry.read(file.storage()), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(entry.sampleRateHz(), 16000u);  // defaults kept
}

TEST(TimeCodeSampleEntry, ReadsTheQuickTimeLayout) {
    // 2 trailing bytes after the fields are skipped and not written back.
    ByteWriter fields;
    fields.u32(0).u32(CTimeCodeSampleEntry::kDropFrame).u32(30000).u32(1001).u8(30).u8(0);
    Bytes bytes = box("tmcd", concat({entryStart(), fields, Bytes(2, 0)}));
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CTimeCodeSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    EXPECT_TRUE(entry->isDropFrame());
    EXPECT_EQ(entry->timeScale, 30000u);
    EXPECT_EQ(entry->frameDuration, 1001);
    EXPECT_EQ(entry->numberOfFrames, 30);
    EXPECT_EQ(r.position, bytes.size());

    Written w = writeBox(entry);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes, box("tmcd", concat({entryStart(), fields})));
    EXPECT_EQ(dumpOf(entry),
              "\nBox type = tmcd  Size = 34\n"
              "m_ui16DataReferenceIndex: 1\n"
              "Flags = 0x00000001\n"
              "Time scale = 30000, Frame duration = 1001\n"
              "Number of frames = 30\n"
              "{}\n");

    // Outside "stsd" the code is not a sample entry.
    Read elsewhere = readOne(bytes, fourcc("minf"));
    EXPECT_EQ(as<CTimeCodeSampleEntry>(elsewhere), nullptr);
}

TEST(MP4MpegSampleEntry, KeepsItsChildren) {
    Bytes bytes = box("mp4s", concat({entryStart(3), box("btrt", ByteWriter().u32(1).u32(2).u32(3))}));
    Read r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* entry = as<CMP4MpegSampleEntry>(r);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->dataReferenceIndex, 3);
    CBox* esds = nullptr;
    EXPECT_EQ(entry->getESDBox(&esds), MP4_ERR_NOT_AVAILABLE);
    expectRoundTrip(bytes);

    CMP4MpegSampleEntry fresh;
    fresh.calculateSize();
    EXPECT_EQ(fresh.size, 16u);
}

TEST(SampleEntry, EntriesShorterThanTheirStartFail) {
    Bytes bytes = box("avc1", Bytes(7, 0));
    MemoryFile file(bytes);
    CBox header;
    ASSERT_EQ(header.read(file.storage()), MP4_OK);
    CAVCSampleEntry entry;
    entry.copyHeaderFrom(header);
    EXPECT_EQ(entry.read(file.storage()), MP4_ERR_BAD_BOX_SIZE);
}

// ---- codec boxes --------------------------------------------------------

TEST(CodecBoxes, RawPayloadBoxesKeepTheirBytes) {
    Bytes nine = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    Read damr = readOne(box("damr", nine), fourcc("samr"));
    ASSERT_EQ(damr.err, MP4_OK);
    auto* amr = as<CAMRSpecificBox>(damr);
    ASSERT_NE(amr, nullptr);
    EXPECT_EQ(amr->length, 9u);
    amr->calculateSize();
    EXPECT_EQ(amr->size, 17u);
    EXPECT_EQ(dumpOf(amr), "\nBox type = damr  Size = 17\n{\n  01 02 03 04 05 06 07 08 09 \n}\n");

    Read d263 = readOne(box("d263", {}), fourcc("s263"));
    ASSERT_EQ(d263.err, MP4_OK);
    auto* h263 = as<CH263SpecificBox>(d263);
    EXPECT_EQ(h263->length, 0u);
    EXPECT_EQ(h263->data, nullptr);
    h263->calculateSize();
    EXPECT_EQ(h263->size, 8u);
    EXPECT_EQ(dumpOf(h263, 1), "\n  Box type = d263  Size = 8\n  {\n  }\n");
    uint8_t level = 0;
    EXPECT_EQ(h263->getLevel(&level), MP4_ERR_NOT_AVAILABLE);
    expectRoundTrip(box("d263", {}));

    // A new line, indented one level deeper, every 16 bytes.
    Bytes twenty(20, 0xAB);
    Read longer = readOne(box("damr", twenty));
    std::string lines = dumpOf(longer.box.get());
    std::string sixteen;
    for (int i = 0; i < 16; ++i) sixteen += "ab ";
    EXPECT_EQ(lines, "\nBox type = damr  Size = 28\n{\n  " + sixteen + "\n  ab ab ab ab \n}\n");

    CAMRSpecificBox fresh;
    EXPECT_EQ(fresh.setData(nullptr, 3), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(fresh.setData(nine.data(), 9), MP4_OK);
    Written w = writeBox(&fresh);
    ASSERT_EQ(w.err, MP4_OK);
    EXPECT_EQ(w.bytes, box("damr", nine));
}

TEST(CodecBoxes, FixedFieldBoxesRoundTrip) {
    const Bytes boxes[] = {
        box("btrt", ByteWriter().u32(0x1000).u32(128000).u32(96000)),
        box("pasp", ByteWriter().u32(16).u32(11)),
        box("enda", ByteWriter().u16(1)),
        fullBox("chan", 0, 0, ByteWriter().u32(0x00650002).u32(3).u32(0)),
        appleUuid(ByteWriter().u32(0xDEADBEEF)),
        box("wave", concat({box("enda", ByteWriter().u16(0)),
                            fullBox("chan", 0, 0, ByteWriter().u32(1).u32(2).u32(3))})),
    };
    for (const Bytes& bytes : boxes) expectRoundTrip(bytes, fourcc("avc1"));

    // New boxes have the sizes of their fields.
    CMPEG4BitRateBox btrt;
    CPixelAspectRatioBox pasp;
    CEndianFormatBox enda;
    CChannelCompositionBox chan;
    CAppleAvcBox apple;
    const std::pair<CBox*, uint64_t> sizes[] = {
        {&btrt, 20}, {&pasp, 16}, {&enda, 10}, {&chan, 24}, {&apple, 28}};
    for (const auto& [b, expected] : sizes) {
        Written w = writeBox(b);
        ASSERT_EQ(w.err, MP4_OK);
        EXPECT_EQ(w.bytes.size(), expected);
        EXPECT_EQ(w.position, expected);
    }
}

TEST(CodecBoxes, PayloadsShorterThanTheirFieldsFail) {
    struct Case {
        Bytes bytes;
        CBox* target;
    };
    CPixelAspectRatioBox pasp;
    CEndianFormatBox enda;
    CChannelCompositionBox chan;
    Case cases[] = {
        {box("pasp", Bytes(7, 1)), &pasp},
        {box("enda", Bytes(1, 1)), &enda},
        {fullBox("chan", 0, 0, Bytes(11, 1)), &chan},
    };
    for (Case& c : cases) {
        MemoryFile file(c.bytes);
        CBox header;
        ASSERT_EQ(header.read(file.storage()), MP4_OK);
        c.target->copyHeaderFrom(header);
        EXPECT_EQ(c.target->read(file.storage()), MP4_ERR_BAD_BOX_SIZE);
    }
    // Through the factory the short "pasp" is skipped and kept with its
    // defaults (the factory's skip decides).
    Read r = readOne(concat({box("pasp", Bytes(7, 1))}), fourcc("avc1"));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(as<CPixelAspectRatioBox>(r)->hSpacing, 1u);
}

TEST(CodecBoxes, AppleBoxWithoutRoomForItsValueSkipsThePayload) {
    Bytes bytes = concat({appleUuid(Bytes(2, 0x77)), box("free", {})});
    Read r = readOne(bytes, fourcc("avc1"));
    ASSERT_EQ(r.err, MP4_OK);
    auto* apple = as<CAppleAvcBox>(r);
    ASSERT_NE(apple, nullptr);
    EXPECT_EQ(apple->value, 0u);
    EXPECT_EQ(apple->remaining, 0u);
    EXPECT_EQ(r.position, 26u);

    // Bytes after the value are ignored and not written back.
    r = readOne(appleUuid(ByteWriter().u32(5).u32(6)), fourcc("avc1"));
    ASSERT_EQ(r.err, MP4_OK);
    Written w = writeBox(r.box.get());
    EXPECT_EQ(w.bytes, appleUuid(ByteWriter().u32(5)));
}

TEST(CodecBoxes, DumpLines) {
    struct Case {
        Bytes bytes;
        const char* expected;
    };
    const Case cases[] = {
        {box("btrt", ByteWriter().u32(1).u32(2).u32(3)),
         "\nBox type = btrt  Size = 20\nBufferSizeDB = 1\nMaxBitrate = 2\nAvgBitrate = 3\n"},
        {box("pasp", ByteWriter().u32(0xFFFFFFFF).u32(9)),
         "\nBox type = pasp  Size = 16\nHorizontal spacing=-1\nVertical spacing=9\n"},
        {box("enda", ByteWriter().u16(1)), "\nBox type = enda  Size = 10\nData: 1\n"},
        {fullBox("chan", 0, 0, ByteWriter().u32(7).u32(0x1F).u32(2)),
         "\nBox type = chan  Size = 24\nVersion = 0, Flags = 0x000000\n"
         "Data: 7\nData: 0x0000001f\nData: 2\n"},
        {appleUuid(ByteWriter().u32(0x00000201)),
         "\nBox type = uuid  Size = 28\n"
         "User type = 6b 68 40 f2 5f 24 4f c5 ba 39 a5 1b cf 03 23 f3  (kh@\xf2)\n"
         "Value: 0x00000201 (Apple's private data)\n"},
    };
    for (const Case& c : cases) {
        Read r = readOne(c.bytes, fourcc("avc1"));
        ASSERT_EQ(r.err, MP4_OK);
        EXPECT_EQ(dumpOf(r.box.get()), c.expected);
    }
}

TEST(BoxFactoryRows, SampleEntryCodesMakeTheirClasses) {
    for (const char* code : {"2vuy", "cvid", "dvc ", "dvh1", "h263", "mjpa", "png ", "raw "}) {
        Bytes bytes = visualEntry("xxxx");
        std::memcpy(bytes.data() + 4, code, 4);
        Read r = readOne(bytes);
        ASSERT_EQ(r.err, MP4_OK);
        EXPECT_NE(as<CVisualSampleEntry>(r), nullptr) << code;
    }
    for (const char* code : {"NONE", "in24", "fl32", "alaw", "Qclp", "ms\0U"}) {
        Bytes bytes = soundEntry("xxxx", 0, {});
        std::memcpy(bytes.data() + 4, code, 4);
        Read r = readOne(bytes);
        ASSERT_EQ(r.err, MP4_OK);
        EXPECT_NE(as<CSoundSampleEntry>(r), nullptr) << code;
    }
}

}  // namespace
}  // namespace quil
