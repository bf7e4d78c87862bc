// Descriptors, decoder configuration records and the boxes that hold them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "boxes/BoxFactory.h"
#include "boxes/ConfigBoxes.h"
#include "descriptors/ConfigRecords.h"
#include "descriptors/EsDescriptors.h"
#include "descriptors/ObjectDescriptors.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;
using test::concat;
using test::fullBox;
using test::MemoryFile;
using test::readTree;
using test::writeTree;

// ---- fixtures -----------------------------------------------------------------

// A descriptor with its size in the shortest expandable form.
Bytes desc(uint8_t tag, const Bytes& payload) {
    ByteWriter w;
    w.u8(tag);
    uint32_t size = static_cast<uint32_t>(payload.size());
    int groups = size < (1u << 7) ? 1 : size < (1u << 14) ? 2 : size < (1u << 21) ? 3 : 4;
    for (int i = groups - 1; i >= 0; --i) w.u8(((size >> (7 * i)) & 0x7F) | (i > 0 ? 0x80 : 0));
    return w.raw(payload);
}

// The same with a four-byte size field, as some muxers write it.
Bytes descLong(uint8_t tag, const Bytes& payload) {
    uint32_t size = static_cast<uint32_t>(payload.size());
    return ByteWriter().u8(tag).u8(0x80 | ((size >> 21) & 0x7F)).u8(0x80 | ((size >> 14) & 0x7F))
        .u8(0x80 | ((size >> 7) & 0x7F)).u8(size & 0x7F).raw(payload);
}

const Bytes kAudioSpecificConfig = {0x12, 0x10};

Bytes decoderConfigPayload(const Bytes& children) {
    // AAC; stream type 5, upstream 0, reserved 1; buffer size DB; max. and avg. bitrates.
    return ByteWriter().u8(0x40).u8(0x15).u24(0x000300).u32(128000).u32(64000).raw(children);
}

// An AAC ES descriptor: ES_ID 2, no flags, decoder config with the audio
// specific config, SL config predefined 2.
Bytes aacESPayload(uint8_t flags = 0x00) {
    return ByteWriter().u16(2).u8(flags).raw(desc(0x04, decoderConfigPayload(desc(0x05, kAudioSpecificConfig))))
        .raw(desc(0x06, {0x02}));
}

struct ReadResult {
    MP4Err err = MP4_OK;
    std::unique_ptr<CBaseDescriptor> descriptor;
    uint32_t tag = 0xFFFFFFFF;
    uint32_t position = 0;
};

ReadResult readOne(const Bytes& bytes, int64_t allowance = -1) {
    MemoryFile file(bytes);
    ReadResult result;
    CBaseDescriptor* read = nullptr;
    uint32_t limit = allowance < 0 ? static_cast<uint32_t>(bytes.size()) : static_cast<uint32_t>(allowance);
    result.err = readDescriptor(file.storage(), limit, &read, &result.tag);
    result.descriptor.reset(read);
    result.position = file.position();
    return result;
}

template <class T>
T* as(const ReadResult& result) {
    return dynamic_cast<T*>(result.descriptor.get());
}

// Writes a descriptor or a record through a memory storage; on failure
// the error is reported.
template <class T>
Bytes writeToStorage(T* object, MP4Err* err = nullptr) {
    MemoryFile file(Bytes(8192, 0xEE), true);
    MP4Err result = object->write(file.storage());
    if (err) *err = result;
    return Bytes(file.bytes().begin(), file.bytes().begin() + file.position());
}

Bytes writeToMemory(CBaseDescriptor* descriptor, MP4Err* err = nullptr, uint32_t room = 4096) {
    Bytes buffer(room + 1, 0xEE);  // never empty: a zero room still has a cursor
    uint8_t* cursor = buffer.data();
    uint32_t left = room;
    MP4Err result = descriptor->writeToBuffer(&cursor, &left);
    if (err) *err = result;
    EXPECT_EQ(left, room - static_cast<uint32_t>(cursor - buffer.data()));
    return Bytes(buffer.data(), cursor);
}

template <class Dumpable>
std::string dumpOf(Dumpable* object, int32_t depth = 0, MP4Err* err = nullptr) {
    testing::internal::CaptureStdout();
    MP4Err result = object->dump(depth);
    if (err) *err = result;
    return testing::internal::GetCapturedStdout();
}

uint32_t headerOf(CBaseDescriptor* descriptor) {
    uint32_t size = 0, header = 0;
    descriptor->getSize(&size, &header);
    return header;
}

// predefined 0, then the custom fields.
Bytes customSL(uint8_t flags, uint8_t timeStampLength, const Bytes& tail = {}) {
    // Time stamp resolution 1000, OCR resolution 0, lengths, then 0011 11111 1111 1 01.
    return desc(0x06, ByteWriter().u8(0x00).u8(flags).u32(1000).u32(0).u8(timeStampLength).u8(0).u8(0).u8(0)
                          .u16(0x3F7D).raw(tail));
}

// ---- descriptor header ------------------------------------------------------------

TEST(DescriptorHeader, LongSizeFieldIsKeptForSizingAndShortenedOnRewrite) {
    ReadResult r = readOne(descLong(0x05, {1, 2, 3, 4, 5}));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(headerOf(r.descriptor.get()), 5u);
    EXPECT_EQ(r.position, 10u);
    ASSERT_EQ(r.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(headerOf(r.descriptor.get()), 2u);
    EXPECT_EQ(writeToStorage(r.descriptor.get()), (Bytes{0x05, 0x05, 1, 2, 3, 4, 5}));

    // Five size bytes are still accepted (a sixth is refused, see below).
    ReadResult five = readOne({0x05, 0x80, 0x80, 0x80, 0x80, 0x03, 0xAA, 0xBB, 0xCC});
    ASSERT_EQ(five.err, MP4_OK);
    EXPECT_EQ(headerOf(five.descriptor.get()), 6u);
    EXPECT_EQ(five.descriptor->size, 3u);
}

TEST(DescriptorHeader, SizeIsWrittenInItsShortestForm) {
    struct Case {
        uint32_t size;
        Bytes field;
    } cases[] = {
        {0, {0x00}},
        {127, {0x7F}},
        {128, {0x81, 0x00}},
        {16383, {0xFF, 0x7F}},
        {16384, {0x81, 0x80, 0x00}},
        {(1u << 28) - 1, {0xFF, 0xFF, 0xFF, 0x7F}},
    };
    for (const Case& c : cases) {
        CBaseDescriptor header(0x42);
        header.size = c.size;
        Bytes expected = concat({{0x42}, c.field});
        EXPECT_EQ(writeToStorage(&header), expected) << c.size;
        EXPECT_EQ(headerOf(&header), expected.size()) << c.size;
    }
    CBaseDescriptor tooLarge(0x42);
    tooLarge.size = 1u << 28;
    MP4Err err = MP4_OK;
    writeToStorage(&tooLarge, &err);
    EXPECT_EQ(err, MP4_ERR_VALUE_TOO_LARGE);
}

TEST(DescriptorHeader, WriteToBufferChecksRoomAndMatchesStorageBytes) {
    ReadResult r = readOne(desc(0x03, aacESPayload()));
    ASSERT_EQ(r.err, MP4_OK);
    ASSERT_EQ(r.descriptor->calcSize(), MP4_OK);
    Bytes viaStorage = writeToStorage(r.descriptor.get());
    MP4Err err = MP4_ERR_IO;
    EXPECT_EQ(writeToMemory(r.descriptor.get(), &err), viaStorage);
    EXPECT_EQ(err, MP4_OK);

    // Exactly enough room succeeds; one byte less is refused with 7.
    writeToMemory(r.descriptor.get(), &err, static_cast<uint32_t>(viaStorage.size()));
    EXPECT_EQ(err, MP4_OK);
    for (uint32_t room : {static_cast<uint32_t>(viaStorage.size() - 1), 0u, 1u}) {
        writeToMemory(r.descriptor.get(), &err, room);
        EXPECT_EQ(err, MP4_ERR_BUFFER_TOO_SMALL) << room;
    }
    uint8_t* nullCursor = nullptr;
    uint32_t left = 10;
    EXPECT_EQ(r.descriptor->writeToBuffer(&nullCursor, &left), MP4_ERR_INVALID_ARGUMENT);
}

// ---- factory rules --------------------------------------------------------------------

TEST(DescriptorFactory, ZeroSizeSpansTheRestOfTheContainerAsUnknown) {
    // 30 bytes allowed: a zero-size ES descriptor header and 28 more bytes.
    Bytes bytes = concat({{0x03, 0x00}, Bytes(28, 0x55), {0x99}});
    ReadResult r = readOne(bytes, 30);
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.tag, 0u);
    EXPECT_EQ(r.descriptor->tag, 0u);
    EXPECT_EQ(r.descriptor->size, 28u);
    EXPECT_EQ(r.position, 30u);  // skipped, the byte after the container untouched

    // With nothing beyond its own header the size stays zero and the tag is kept.
    ReadResult bare = readOne({0x05, 0x00}, 2);
    ASSERT_EQ(bare.err, MP4_OK);
    EXPECT_EQ(bare.tag, 5u);
    auto* info = as<CDecoderSpecificInfo>(bare);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->dataLength, 0u);
}

TEST(DescriptorFactory, UnknownTagsAreKeptAsBareHeaders) {
    ReadResult ipl = readOne(concat({desc(0x12, {1, 2, 3}), {0x77}}));
    ASSERT_EQ(ipl.err, MP4_OK);
    EXPECT_EQ(ipl.tag, 0u);
    EXPECT_EQ(ipl.position, 5u);
    CBaseDescriptor* bare = ipl.descriptor.get();
    EXPECT_EQ(typeid(*bare), typeid(CBaseDescriptor));
    EXPECT_EQ(dumpOf(bare, 1),
              "  --- Start descriptor\n"
              "  IPL descriptor pointer ref\n"
              "  Tag: 0x12  Size: 3\n");

    // Once sizes are recalculated the payload is gone: tag and a zero size.
    ASSERT_EQ(bare->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(bare), (Bytes{0x12, 0x00}));

    ReadResult other = readOne(desc(0x40, {9}));
    ASSERT_EQ(other.err, MP4_OK);
    EXPECT_NE(dumpOf(other.descriptor.get()).find("Unknown\n"), std::string::npos);
}

// The other tags are checked by the tests of their classes.
TEST(DescriptorFactory, ObjectDescriptorTagsOfTheFileFormat) {
    EXPECT_NE(as<CObjectDescriptor>(readOne(desc(0x11, {0x00, 0x5F}))), nullptr);
    EXPECT_NE(as<CInitialObjectDescriptor>(readOne(desc(0x02, {0x00, 0x4F, 1, 2, 3, 4, 5}))), nullptr);
}

Bytes nestedConfigs(int depth) {
    Bytes nested = desc(0x05, {1});
    for (int i = 0; i < depth; ++i) nested = desc(0x04, decoderConfigPayload(nested));
    return nested;
}

// Damaged, truncated or unsupported descriptors: a clear code and nothing
// handed out, whatever the sizes claim.
TEST(DescriptorFactory, DamagedDescriptorsAreRefused) {
    const Bytes noSL = ByteWriter().u16(1).u8(0).raw(desc(0x04, decoderConfigPayload({})));
    const Bytes noConfig = ByteWriter().u16(1).u8(0).raw(desc(0x06, {0x02}));
    const struct {
        const char* what;
        Bytes bytes;
        int64_t allowance;
        MP4Err err;
    } cases[] = {
        {"sixth size byte", {0x05, 0x80, 0x80, 0x80, 0x80, 0x80, 0x03, 0xAA}, -1, MP4_ERR_BAD_SIZE_FIELD},
        {"no size", {0x05}, -1, MP4_ERR_OUT_OF_RANGE},
        {"size cut", {0x05, 0x81}, -1, MP4_ERR_OUT_OF_RANGE},
        {"2^28 - 1 bytes claimed", {0x05, 0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3}, -1, MP4_ERR_OUT_OF_RANGE},
        {"200000 claimed, 100000 there", concat({{0x05, 0x8C, 0x9A, 0x40}, Bytes(100000, 0x11)}), -1,
         MP4_ERR_OUT_OF_RANGE},
        // An unknown payload past the storage cannot be skipped, not even by
        // a size that would wrap a memory storage's position back to the start.
        {"unknown cut", {0x40, 0x05, 1}, -1, MP4_ERR_OUT_OF_RANGE},
        {"unknown wrapping", {0x40, 0x8F, 0xFF, 0xFF, 0xFF, 0x7E, 1}, -1, MP4_ERR_OUT_OF_RANGE},
        {"nested 200 deep", nestedConfigs(200), -1, MP4_ERR_INVALID_DATA},
        {"nested 10 deep", nestedConfigs(10), -1, MP4_OK},
        {"ES without SL config", desc(0x03, noSL), -1, MP4_ERR_NOT_AVAILABLE},
        {"ES without decoder config", desc(0x03, noConfig), -1, MP4_ERR_NOT_AVAILABLE},
        {"SL empty", {0x06, 0x00}, 2, MP4_ERR_VALUE_TOO_LARGE},
        {"SL predefined 3", {0x06, 0x01, 0x03}, -1, MP4_ERR_INVALID_DATA},
        {"SL custom cut", concat({{0x06, 0x0F, 0x00}, Bytes(14, 0)}), -1, MP4_ERR_VALUE_TOO_LARGE},
        {"SL duration cut", customSL(0x05, 0, {0, 0, 0}), -1, MP4_ERR_VALUE_TOO_LARGE},
        // Without useTimeStampsFlag the start stamps would follow: never supported.
        {"SL 65-bit start stamps", customSL(0x00, 65, Bytes(20, 0)), -1, MP4_ERR_UNSUPPORTED},
        {"SL start stamps cut", customSL(0x00, 32, Bytes(7, 0)), -1, MP4_ERR_VALUE_TOO_LARGE},
        {"SL start stamps", customSL(0x00, 32, Bytes(8, 0)), -1, MP4_ERR_INVALID_DATA},
        {"OD URL past its end", desc(0x01, {0x02, 0xBF, 0x05, 'x'}), -1, MP4_ERR_VALUE_TOO_LARGE},
        {"IOD profiles cut", desc(0x10, {0x00, 0x4F, 0xFF}), -1, MP4_ERR_VALUE_TOO_LARGE},
        {"OD ID cut", desc(0x11, {0x00}), -1, MP4_ERR_VALUE_TOO_LARGE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ReadResult r = readOne(c.bytes, c.allowance);
        EXPECT_EQ(r.err, c.err);
        if (c.err != MP4_OK) {
            EXPECT_EQ(r.descriptor, nullptr);
        }
    }
}

TEST(DescriptorList, AppendWalkAndFind) {
    CDescriptorList list;
    EXPECT_EQ(list.append(nullptr), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(list.append(new CESIDInc()), MP4_OK);
    CBaseDescriptor* found = nullptr;
    EXPECT_EQ(list.findFirst(kESDescrTag, &found), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(found, nullptr);
    list.rewind();
    EXPECT_EQ(list.next(&found), MP4_OK);
    EXPECT_EQ(list.next(&found), MP4_ERR_NOT_AVAILABLE);
}

// ---- ES descriptor family ----------------------------------------------------------

// The fields read are checked by the dump of the same bytes below.
TEST(ESDescriptor, DecoderSpecificInfoIsCopiedOnlyWhenItFits) {
    ReadResult r = readOne(desc(0x03, aacESPayload()));
    auto* es = as<CESDescriptor>(r);
    ASSERT_NE(es, nullptr);
    uint32_t length = 0;
    uint8_t bytes[4] = {};
    EXPECT_EQ(es->getDecoderSpecificInfoLength(&length), MP4_OK);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(es->getDecoderSpecificInfo(bytes, 1, &length), MP4_OK);  // too small: not copied
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(es->getDecoderSpecificInfo(bytes, sizeof(bytes), &length), MP4_OK);
    EXPECT_EQ(Bytes(bytes, bytes + 2), kAudioSpecificConfig);
}

TEST(ESDescriptor, FlagsByteKeepsOnlyPriorityBitsZeroAndTwo) {
    ReadResult r = readOne(desc(0x03, aacESPayload(0x1F)));
    ASSERT_EQ(r.err, MP4_OK);
    auto* es = as<CESDescriptor>(r);
    EXPECT_EQ(es->streamPriority, 5);
    EXPECT_EQ(es->streamDependenceFlag, 0u);
    EXPECT_EQ(es->URL_Flag, 0u);
    EXPECT_EQ(es->OCRstreamFlag, 0u);

    // The OCR flag reads no OCR ID and is not written back.
    Bytes payload = aacESPayload(0x20);
    r = readOne(desc(0x03, payload));
    ASSERT_EQ(r.err, MP4_OK);
    es = as<CESDescriptor>(r);
    EXPECT_EQ(es->OCRstreamFlag, 1u);
    ASSERT_EQ(es->calcSize(), MP4_OK);
    payload[2] = 0x00;
    EXPECT_EQ(writeToStorage(es), desc(0x03, payload));
}

TEST(ESDescriptor, MissingChildrenFailSizingWritingAndDumping) {
    CESDescriptor noList;
    MP4Err err = MP4_OK;
    EXPECT_EQ(noList.calcSize(), MP4_ERR_BAD_SIZE_FIELD);
    writeToStorage(&noList, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);
    dumpOf(&noList, 0, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);

    CESDescriptor noSL;
    ASSERT_EQ(noSL.setDecoderConfig(0x20, 4, nullptr, 0), MP4_OK);
    EXPECT_EQ(noSL.calcSize(), MP4_ERR_BAD_SIZE_FIELD);
    // The fixed fields are written before the missing child is noticed.
    Bytes written = writeToStorage(&noSL, &err);
    EXPECT_EQ(err, MP4_ERR_BAD_SIZE_FIELD);
    EXPECT_EQ(written, (Bytes{0x03, 0x00, 0x00, 0x00, 0x00}));
}

TEST(ESDescriptor, BuiltWithHelpersWritesTheExpectedBytes) {
    CESDescriptor es;
    es.ES_ID = 2;
    ASSERT_EQ(es.setDecoderConfig(0x40, 5, kAudioSpecificConfig.data(), 2), MP4_OK);
    EXPECT_EQ(es.setDecoderConfig(0x40, 5, nullptr, 0), MP4_ERR_INVALID_DATA);
    ASSERT_EQ(es.setSLConfig(2), MP4_OK);
    es.decoderConfig->bufferSizeDB = 0x300;
    es.decoderConfig->maxBitrate = 128000;
    es.decoderConfig->avgBitrate = 64000;
    ASSERT_EQ(es.calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(&es), desc(0x03, aacESPayload()));
    EXPECT_EQ(writeToMemory(&es), desc(0x03, aacESPayload()));
}

TEST(ESDescriptor, SetterEdgeCases) {
    CESDescriptor es;
    uint32_t length = 99;
    EXPECT_EQ(es.getDecoderSpecificInfoLength(&length), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(length, 0u);
    ASSERT_EQ(es.setDecoderConfig(0x20, 4, nullptr, 0), MP4_OK);
    EXPECT_EQ(es.getDecoderSpecificInfoLength(&length), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(es.setURL(nullptr, 3), MP4_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(es.URL_Flag, 0u);

    // An unsupported SL value is stored and reported; the descriptor exists.
    EXPECT_EQ(es.setSLConfig(3), MP4_ERR_INVALID_DATA);
    ASSERT_NE(es.slConfig, nullptr);
    EXPECT_EQ(es.setSLConfig(1), MP4_OK);
    EXPECT_EQ(es.children->count(), 2u);  // the SL config is made once
    EXPECT_EQ(es.slConfig->predefined, 1);
}

TEST(DecoderConfigDescriptor, PackedByteAndSpecificInfoReplacement) {
    Bytes payload = decoderConfigPayload({});
    payload[1] = 0x12;  // stream type 4, upstream 1, reserved bit clear
    ReadResult r = readOne(desc(0x04, payload));
    ASSERT_EQ(r.err, MP4_OK);
    auto* config = as<CDecoderConfigDescriptor>(r);
    EXPECT_EQ(config->streamType, 4);
    EXPECT_EQ(config->upStream, 1u);

    EXPECT_EQ(config->setDecoderSpecificInfo(kAudioSpecificConfig.data(), 0), MP4_ERR_NOT_AVAILABLE);
    ASSERT_EQ(config->setDecoderSpecificInfo(kAudioSpecificConfig.data(), 2), MP4_OK);
    const uint8_t replacement[] = {0xAB, 0xCD, 0xEF};
    ASSERT_EQ(config->setDecoderSpecificInfo(replacement, 3), MP4_OK);
    ASSERT_EQ(config->calcSize(), MP4_OK);
    payload[1] = 0x13;  // the reserved bit is written as 1
    EXPECT_EQ(writeToStorage(config), desc(0x04, concat({payload, desc(0x05, {0xAB, 0xCD, 0xEF})})));
}

TEST(DecoderSpecificInfo, ReservedLengthIsWrittenAsZeros) {
    CDecoderSpecificInfo info;
    ASSERT_EQ(info.setData(nullptr, 3), MP4_OK);
    ASSERT_EQ(info.calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(&info), (Bytes{0x05, 0x03, 0, 0, 0}));
}

// ---- SL configuration ----------------------------------------------------------

TEST(SLConfigDescriptor, PredefinedValuesRoundTripAndPaddingIsDropped) {
    const struct { Bytes read; uint32_t position; Bytes written; } cases[] = {
        {{0x06, 0x01, 0x02}, 3, {0x06, 0x01, 0x02}},
        {{0x06, 0x01, 0x01}, 3, {0x06, 0x01, 0x01}},
        {{0x06, 0x03, 0x02, 0xAA, 0xBB, 0x77}, 5, {0x06, 0x01, 0x02}},  // 0x77 is not its own
    };
    for (const auto& c : cases) {
        ReadResult r = readOne(c.read);
        ASSERT_EQ(r.err, MP4_OK);
        EXPECT_EQ(r.position, c.position);
        ASSERT_EQ(r.descriptor->calcSize(), MP4_OK);
        EXPECT_EQ(writeToStorage(r.descriptor.get()), c.written);
    }
}

TEST(SLConfigDescriptor, CustomFieldsKeepTheirMasks) {
    ReadResult r = readOne(customSL(0xD4, 32));  // time stamps in use
    ASSERT_EQ(r.err, MP4_OK);
    auto* sl = as<CSLConfigDescriptor>(r);
    EXPECT_EQ(sl->useAccessUnitStartFlag, 0x80u);
    EXPECT_EQ(sl->useAccessUnitEndFlag, 0x40u);
    EXPECT_EQ(sl->useRandomAccessPointFlag, 0u);
    EXPECT_EQ(sl->hasRandomAccessUnitsOnlyFlag, 0x10u);
    EXPECT_EQ(sl->useTimeStampsFlag, 0x04u);
    EXPECT_EQ(sl->timeStampResolution, 1000u);
    EXPECT_EQ(sl->timeStampLength, 32);
    EXPECT_EQ(sl->degradationPriorityLength, 3);
    EXPECT_EQ(sl->AU_seqNumLength, 0x1E);
    EXPECT_EQ(sl->packetSeqNumLength, (0x7D >> 2) & 0x1E);
    EXPECT_EQ(sl->extension, 3);
    EXPECT_EQ(sl->calcSize(), MP4_OK);
    EXPECT_EQ(sl->size, 1u);
    MP4Err err = MP4_OK;
    writeToStorage(sl, &err);
    EXPECT_EQ(err, MP4_ERR_UNSUPPORTED);
}

TEST(SLConfigDescriptor, DurationFieldsAreReadButNotWritten) {
    ReadResult withDuration = readOne(customSL(0x05, 0, ByteWriter().u32(90000).u16(3000).u16(3600)));
    ASSERT_EQ(withDuration.err, MP4_OK);
    auto* sl = as<CSLConfigDescriptor>(withDuration);
    EXPECT_EQ(sl->accessUnitDuration, 3600);  // the second value overwrites the first
    ASSERT_EQ(sl->calcSize(), MP4_OK);
    EXPECT_EQ(sl->size, 9u);
    sl->predefined = 2;
    MP4Err err = MP4_OK;
    writeToStorage(sl, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);
    EXPECT_EQ(dumpOf(sl),
              "--- Start descriptor\nSL config descriptor\nTag: 0x06  Size: 9\n"
              "Predefined SL header: 2\nTime Scale: 90000\nAccess unit duration: 3600\n"
              "Composition unit duration: 0\n");
}

// ---- dumps ---------------------------------------------------------------------------

TEST(DescriptorDump, ESDescriptorTree) {
    ReadResult r = readOne(desc(0x03, aacESPayload()));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(dumpOf(r.descriptor.get(), 1),
              "  --- Start descriptor\n"
              "  ES descriptor\n"
              "  Tag: 0x03  Size: 25\n"
              "  ES_ID: 2\n"
              "  Stream dependence flag: 0 URL flag 0 OCR stream flag 0\n"
              "  Stream priority: 0\n"
              "  {\n"
              "    --- Start descriptor\n"
              "    Decoder config descriptor\n"
              "    Tag: 0x04  Size: 17\n"
              "    Object indication: 0x40  Stream type: 0x05\n"
              "    UpStream flag: FALSE\n"
              "    Buffer size DB: 768\n"
              "    Max. bitrate: 128000 Avg. bitrate: 64000\n"
              "    {\n"
              "      --- Start descriptor\n"
              "      Decoder specific info\n"
              "      Tag: 0x05  Size: 2\n"
              "      {\n"
              "\n"
              "        12 10 \n"
              "      }\n"
              "    }\n"
              "    --- Start descriptor\n"
              "    SL config descriptor\n"
              "    Tag: 0x06  Size: 1\n"
              "    Predefined SL header: 2\n"
              "  }\n");
}

TEST(DescriptorDump, LongBytesAndUrlsWrap) {
    Bytes data(17);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i);
    ReadResult info = readOne(desc(0x05, data));
    ASSERT_EQ(info.err, MP4_OK);
    EXPECT_EQ(dumpOf(info.descriptor.get()),
              "--- Start descriptor\nDecoder specific info\nTag: 0x05  Size: 17\n{\n"
              "\n  00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "
              "\n  10 \n}\n");

    CESDescriptor es;
    std::string url(61, 'u');
    url[60] = 'v';
    ASSERT_EQ(es.setURL(reinterpret_cast<const uint8_t*>(url.data()), 61), MP4_OK);
    ASSERT_EQ(es.setDecoderConfig(0x20, 4, nullptr, 0), MP4_OK);
    ASSERT_EQ(es.setSLConfig(2), MP4_OK);
    std::string text = dumpOf(&es, 1);
    EXPECT_NE(text.find("  URL length 61 URL string:" + url.substr(0, 60) + "\n  v\n  {\n"),
              std::string::npos)
        << text;
}

// ---- object descriptors ------------------------------------------------------------

TEST(ObjectDescriptors, InitialObjectDescriptorWithProfilesOnly) {
    // As written by common muxers: MP4_IOD with a four-byte size field.
    ReadResult r = readOne(descLong(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF}));
    auto* iod = as<CInitialObjectDescriptor>(r);
    ASSERT_NE(iod, nullptr);
    EXPECT_EQ(iod->children->count(), 0u);
    ASSERT_EQ(iod->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(iod), desc(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF}));
    EXPECT_EQ(dumpOf(iod),
              "--- Start descriptor\nMP4 IOD\nTag: 0x10  Size: 7\n"
              "Object descriptor ID: 1\n"
              "URL flag: 0 Include inline profile level flag: 0\n"
              "OD profile level: 0xff  Scene profile level: 0xff\n"
              "Audio profile level: 0x29  Visual profile level: 0x15\n"
              "Graphics profile level: 0xff\n");
}

// Read, resized and written (to a storage and to memory): the same bytes.
TEST(DescriptorRoundTrip, ByteExact) {
    std::string url = "rtsp://example.com/a";
    const Bytes cases[] = {
        // ES with a dependence and a URL.
        desc(0x03, ByteWriter().u16(7).u8(0xC0).u16(3).u8(static_cast<uint32_t>(url.size())).str(url, false)
                       .raw(desc(0x04, decoderConfigPayload({}))).raw(desc(0x06, {0x02}))),
        // IOD with track references, and the URL forms, which have no profile levels.
        desc(0x10, concat({{0x00, 0x5F, 0x01, 0x01, 0x29, 0xFE, 0x01}, desc(0x0E, {0, 0, 0, 1}),
                           desc(0x0E, {0, 0, 0, 2})})),
        desc(0x02, {0x00, 0x7F, 0x03, 'a', 'b', 'c'}),
        desc(0x01, {0x02, 0xBF, 0x01, 'x'}),  // ID 10
        desc(0x0E, {0x00, 0x00, 0x01, 0x02}),
        desc(0x0F, {0x00, 0x03}),
    };
    for (const Bytes& bytes : cases) {
        ReadResult r = readOne(bytes);
        ASSERT_EQ(r.err, MP4_OK);
        ASSERT_EQ(r.descriptor->calcSize(), MP4_OK);
        EXPECT_EQ(writeToStorage(r.descriptor.get()), bytes);
        EXPECT_EQ(writeToMemory(r.descriptor.get()), bytes);
    }
    EXPECT_EQ(as<CESDescriptor>(readOne(cases[0]))->dependsOn_ES_ID, 3);
    EXPECT_EQ(as<CObjectDescriptor>(readOne(cases[3]))->ObjectDescriptorID, 10);
    EXPECT_EQ(dumpOf(readOne(cases[4]).descriptor.get()),
              "--- Start descriptor\nES ID inc\nTag: 0x0e  Size: 4\nTrackID: 258\n");
    EXPECT_NE(dumpOf(readOne(cases[5]).descriptor.get()).find("Track ref: 3\n"), std::string::npos);
}

TEST(ObjectDescriptors, BuiltForAFileAndAnObjectDescriptorStream) {
    CInitialObjectDescriptor iod(kMP4IODTag);
    ASSERT_EQ(iod.setObjectDescriptorID(1), MP4_OK);
    EXPECT_EQ(iod.setObjectDescriptorID(1024), MP4_ERR_INVALID_ARGUMENT);
    iod.setProfileLevels(0xFF, 0xFF, 0x0F, 0x03, 0xFF);
    ASSERT_EQ(iod.addESIDInc(1), MP4_OK);
    ASSERT_EQ(iod.calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(&iod),
              desc(0x10, concat({{0x00, 0x4F, 0xFF, 0xFF, 0x0F, 0x03, 0xFF}, desc(0x0E, {0, 0, 0, 1})})));

    CObjectDescriptor od(kMP4ODTag);
    ASSERT_EQ(od.setObjectDescriptorID(20), MP4_OK);
    ASSERT_EQ(od.addESIDRef(1), MP4_OK);
    auto* es = new CESDescriptor();
    es->ES_ID = 3;
    ASSERT_EQ(es->setDecoderConfig(0x20, 4, nullptr, 0), MP4_OK);
    ASSERT_EQ(es->setSLConfig(2), MP4_OK);
    ASSERT_EQ(od.addESDescriptor(es), MP4_OK);
    ASSERT_EQ(od.calcSize(), MP4_OK);
    ReadResult back = readOne(writeToStorage(&od));
    ASSERT_EQ(back.err, MP4_OK);
    auto* read = as<CObjectDescriptor>(back);
    EXPECT_EQ(read->ObjectDescriptorID, 20);
    ASSERT_EQ(read->children->count(), 2u);
    CBaseDescriptor* found = nullptr;
    ASSERT_EQ(read->children->findFirst(kESDescrTag, &found), MP4_OK);
    EXPECT_EQ(static_cast<CESDescriptor*>(found)->ES_ID, 3);
}

// ---- AVC record ---------------------------------------------------------------------------

const Bytes kSps = {0x67, 0x42, 0xC0, 0x1E, 0xD9, 0x00, 0xA0, 0x47, 0xFE, 0xC8};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80};

Bytes avcRecord(uint8_t profile, const Bytes& tail = {}) {
    return ByteWriter().u8(1).u8(profile).u8(0xC0).u8(0x1E).u8(0xFF).u8(0xE1)
        .u16(static_cast<uint32_t>(kSps.size())).raw(kSps)
        .u8(1).u16(static_cast<uint32_t>(kPps.size())).raw(kPps)
        .raw(tail);
}

template <class Record>
MP4Err readRecord(Record* record, const Bytes& bytes, int64_t count = -1, uint32_t* position = nullptr) {
    MemoryFile file(bytes);
    MP4Err err = record->read(file.storage(), count < 0 ? static_cast<uint32_t>(bytes.size())
                                                        : static_cast<uint32_t>(count));
    if (position) *position = file.position();
    return err;
}

TEST(AVCDecoderConfigRecord, BaselineRoundTripsByteExact) {
    CAVCDecoderConfigRecord record;
    Bytes bytes = avcRecord(66);
    ASSERT_EQ(readRecord(&record, bytes), MP4_OK);
    uint64_t size = 0;
    record.getSize(&size);
    EXPECT_EQ(size, bytes.size());
    EXPECT_EQ(writeToStorage(&record), bytes);
}

TEST(AVCDecoderConfigRecord, AnyExtensionIsRewrittenAsTheFixedTrailer) {
    const Bytes trailer = {0xFF, 0xFF, 0xFF, 0x00};
    for (const Bytes& extension : {Bytes{0xFD, 0xF8, 0xF8, 0x00}, Bytes{0x01, 0x02, 0x03}}) {
        CAVCDecoderConfigRecord record;
        uint32_t position = 0;
        Bytes bytes = avcRecord(100, extension);
        ASSERT_EQ(readRecord(&record, bytes, -1, &position), MP4_OK);
        EXPECT_EQ(position, bytes.size());
        record.calcSize();
        EXPECT_EQ(record.size, avcRecord(100).size() + 4);
        EXPECT_EQ(writeToStorage(&record), avcRecord(100, trailer));
    }
    // An owner may ask for the trailer before reading a record without one.
    CAVCDecoderConfigRecord preset;
    preset.hasExtension = 1;
    ASSERT_EQ(readRecord(&preset, avcRecord(100)), MP4_OK);
    EXPECT_EQ(writeToStorage(&preset), avcRecord(100, trailer));
}

TEST(AVCDecoderConfigRecord, ReservedBitsAreMaskedAndRewrittenAsOnes) {
    CAVCDecoderConfigRecord record;
    ASSERT_EQ(readRecord(&record, {1, 77, 0, 30, 0x01, 0x00, 0x00}), MP4_OK);
    EXPECT_EQ(record.lengthSizeMinusOne, 1);
    EXPECT_EQ(writeToStorage(&record), (Bytes{1, 77, 0, 30, 0xFD, 0xE0, 0x00}));
}

TEST(AVCDecoderConfigRecord, TruncatedPayloadsFailWithBadSize) {
    CAVCDecoderConfigRecord record;
    EXPECT_EQ(readRecord(&record, {1, 66, 0, 30, 0xFF, 0xE0, 0x00}), MP4_OK);  // 7 bytes, nothing in it
    EXPECT_EQ(readRecord(&record, {1, 66, 0, 30, 0xFF, 0xE0}), MP4_ERR_BAD_BOX_SIZE);  // no PPS count
    EXPECT_EQ(readRecord(&record, {1, 66, 0, 30, 0xFF}), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(record.size, 5u);

    Bytes full = avcRecord(66);
    // Cut inside the SPS length, the SPS bytes, the PPS length and the PPS bytes.
    for (size_t cut : {size_t{7}, size_t{12}, size_t{19}, size_t{22}}) {
        CAVCDecoderConfigRecord damaged;
        Bytes bytes(full.begin(), full.begin() + static_cast<long>(cut));
        EXPECT_EQ(readRecord(&damaged, concat({bytes, Bytes(50, 0)}), static_cast<int64_t>(cut)),
                  MP4_ERR_BAD_BOX_SIZE)
            << cut;
    }
    // The storage's own error when the record claims more than exists.
    EXPECT_EQ(readRecord(&record, {1, 66, 0, 30, 0xFF, 0xE0}, 7), MP4_ERR_OUT_OF_RANGE);
}

TEST(AVCDecoderConfigRecord, WritingChecksItsFields) {
    CAVCDecoderConfigRecord record;
    record.numOfSequenceParameterSets = 1;
    record.spsLength[0] = 4;
    MP4Err err = MP4_OK;
    EXPECT_TRUE(writeToStorage(&record, &err).empty());
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);

    record.spsLength[0] = 0;
    record.numOfSequenceParameterSets = 32;
    writeToStorage(&record, &err);
    EXPECT_EQ(err, MP4_ERR_VALUE_TOO_LARGE);
    record.calcSize();  // stays inside the table
}

TEST(AVCDecoderConfigRecord, Dump) {
    CAVCDecoderConfigRecord record;
    ASSERT_EQ(readRecord(&record, avcRecord(66)), MP4_OK);
    EXPECT_EQ(dumpOf(&record, 1),
              "  Version = 1\n"
              "  Profile indication = 66 Profile compatibility = 192\n"
              "  Level indication = 30\n"
              "  Length Size = 4\n"
              "  SPS Count = 1\n"
              "  Length SPS [00] = 10\n"
              "  PPS Count = 1\n"
              "  Length PPS [00] = 4\n");
}

// ---- HEVC record --------------------------------------------------------------------

Bytes hevcFixedPart(uint8_t arrays, uint8_t reservedOnes = 0xFF) {
    uint8_t r = reservedOnes;
    // Profile space 0, tier 0, Main; ...; one temporal layer, nested, four-byte lengths.
    return ByteWriter().u8(1).u8(0x01).u32(0x60000000).u16(0x9000).u32(0).u8(93)
        .u16((r & 0xF0) << 8).u8(r & 0xFC).u8((r & 0xFC) | 1).u8(r & 0xF8).u8(r & 0xF8).u16(0)
        .u8(0x0F).u8(arrays);
}

Bytes hevcArrays() {
    return ByteWriter()
        .u8(0xA0).u16(1).u16(4).raw({0x40, 0x01, 0x0C, 0x01})
        .u8(0xA1).u16(1).u16(5).raw({0x42, 0x01, 0x01, 0x01, 0x60})
        .u8(0xA2).u16(2).u16(3).raw({0x44, 0x01, 0xC1}).u16(0);
}

TEST(HEVCDecoderConfigRecord, RoundTripsByteExact) {
    CHEVCDecoderConfigRecord record;
    Bytes bytes = concat({hevcFixedPart(3), hevcArrays()});
    ASSERT_EQ(readRecord(&record, bytes), MP4_OK);
    ASSERT_EQ(record.arrays.size(), 3u);
    EXPECT_EQ(record.arrays[0]->NAL_unit_type, 32);
    record.calcSize();
    EXPECT_EQ(record.size, bytes.size());
    EXPECT_EQ(writeToStorage(&record), bytes);
}

TEST(HEVCDecoderConfigRecord, ReservedBitsAreRewritten) {
    CHEVCDecoderConfigRecord record;
    Bytes read = concat({hevcFixedPart(1, 0x00), ByteWriter().u8(0x61).u16(1).u16(1).u8(0x4E)});
    ASSERT_EQ(readRecord(&record, read), MP4_OK);
    EXPECT_EQ(record.arrays[0]->array_completeness, 0);
    EXPECT_EQ(record.arrays[0]->NAL_unit_type, 0x21);
    Bytes expected = concat({hevcFixedPart(1, 0xFF), ByteWriter().u8(0x21).u16(1).u16(1).u8(0x4E)});
    EXPECT_EQ(writeToStorage(&record), expected);
}

TEST(HEVCDecoderConfigRecord, NoArraysAndTrailingSurplus) {
    CHEVCDecoderConfigRecord record;
    uint32_t position = 0;
    Bytes bytes = concat({hevcFixedPart(0), {0xDE, 0xAD}});
    ASSERT_EQ(readRecord(&record, bytes, -1, &position), MP4_OK);
    EXPECT_EQ(position, bytes.size());
    record.calcSize();
    EXPECT_EQ(record.size, 23u);
    EXPECT_EQ(writeToStorage(&record), hevcFixedPart(0));
}

// Never read past the record, whatever follows in the storage.
TEST(HEVCDecoderConfigRecord, DamagedPayloads) {
    const Bytes oneArray = concat({hevcFixedPart(2), ByteWriter().u8(0xA0).u16(1).u16(1).u8(0x40)});
    const Bytes longNal = concat({hevcFixedPart(1), ByteWriter().u8(0xA0).u16(1).u16(40).u8(0x40)});
    const Bytes noLength = concat({hevcFixedPart(1), ByteWriter().u8(0xA0).u16(2).u16(1).u8(0x40)});
    const struct { const char* what; Bytes bytes; size_t count; } cases[] = {
        {"five bytes", {1, 2, 3, 4, 5}, 5},
        {"fixed part cut", hevcFixedPart(0), 10},
        {"fixed part cut, more behind", concat({hevcFixedPart(1), Bytes(8, 0)}), 10},
        {"two arrays, room for one", concat({oneArray, {0, 0}}), oneArray.size() + 2},
        {"NAL length beyond the record", concat({longNal, Bytes(100, 0)}), longNal.size()},
        {"no room for a NAL length", noLength, noLength.size()},
    };
    for (const auto& c : cases) {
        CHEVCDecoderConfigRecord record;
        EXPECT_EQ(readRecord(&record, c.bytes, static_cast<int64_t>(c.count)), MP4_ERR_BAD_BOX_SIZE) << c.what;
    }
}

TEST(HEVCDecoderConfigRecord, BuiltByHandAndDumped) {
    CHEVCDecoderConfigRecord record;
    auto array = std::make_unique<CHEVCNalArray>();
    array->array_completeness = 1;
    array->NAL_unit_type = 32;
    const uint8_t vps[] = {0x40, 0x01, 0x0C, 0x01};
    ASSERT_EQ(array->addNalUnit(vps, 4), MP4_OK);
    EXPECT_EQ(array->addNalUnit(nullptr, 4), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(record.addArray(std::move(array)), MP4_OK);
    record.calcSize();
    EXPECT_EQ(record.size, 23u + 3 + 6);
    Bytes written = writeToStorage(&record);
    EXPECT_EQ(written.size(), 32u);
    EXPECT_EQ(Bytes(written.begin() + 22, written.begin() + 26), (Bytes{0x01, 0xA0, 0x00, 0x01}));

    record.numOfArrays = 2;  // disagrees with the list
    MP4Err err = MP4_OK;
    writeToStorage(&record, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);

    CHEVCDecoderConfigRecord parsed;
    ASSERT_EQ(readRecord(&parsed, concat({hevcFixedPart(3), hevcArrays()})), MP4_OK);
    EXPECT_EQ(dumpOf(&parsed),
              "Version = 1\n"
              "Profile indication = 1 Profile compatibility = 0x60000000\n"
              "Tier flag = 0\n"
              "Level indication = 93\n"
              "Length Size = 4\n");
}

// ---- boxes ---------------------------------------------------------------------------

// Lets a box of class T read the payload of `boxBytes` by itself, with
// `cut` bytes fewer allowed than there are.
template <class T>
MP4Err readPayload(T* target, const Bytes& boxBytes, uint32_t cut = 0) {
    MemoryFile file(Bytes(boxBytes.begin() + 8, boxBytes.end()));
    target->remaining = boxBytes.size() - 8 - cut;
    return target->read(file.storage());
}

TEST(ConfigBoxes, AvcAndHevcBoxesRoundTrip) {
    for (const Bytes& bytes : {box("avcC", avcRecord(66)), box("hvcC", concat({hevcFixedPart(3), hevcArrays()}))}) {
        MP4Err err = MP4_ERR_IO;
        auto b = readTree(bytes, &err);
        ASSERT_EQ(err, MP4_OK);
        EXPECT_TRUE(test::as<CAVCConfigurationBox>(b) || test::as<CHEVCConfigurationBox>(b));
        EXPECT_EQ(writeTree(b.get()), bytes);
    }
    // A surplus after the record is skipped and not written back.
    Bytes padded = box("avcC", concat({avcRecord(66), {0, 0}}));
    uint32_t position = 0;
    auto paddedRead = readTree(padded, nullptr, &position);
    EXPECT_EQ(position, padded.size());
    EXPECT_EQ(writeTree(paddedRead.get()).size(), padded.size() + 2);  // gains the trailer
}

TEST(ConfigBoxes, RecordBoxFailures) {
    CAVCConfigurationBox empty;
    MP4Err err = MP4_OK;
    writeTree(&empty, &err);
    EXPECT_EQ(err, MP4_ERR_WRONG_LAYOUT);
    CAVCDecoderConfigRecord* record = nullptr;
    EXPECT_EQ(empty.getRecord(&record), MP4_ERR_NOT_AVAILABLE);

    CHEVCConfigurationBox hevcBox;
    EXPECT_EQ(readPayload(&hevcBox, box("hvcC", {1, 2, 3, 4})), MP4_ERR_BAD_BOX_SIZE);
}

TEST(ConfigBoxes, EsdsIsResizedFromItsDescriptor) {
    // Four-byte size fields, as ffmpeg writes them, shrink on rewriting.
    Bytes longForm = descLong(0x03, ByteWriter().u16(2).u8(0)
                                        .raw(descLong(0x04, decoderConfigPayload(descLong(0x05, kAudioSpecificConfig))))
                                        .raw(descLong(0x06, {0x02})));
    MP4Err err = MP4_ERR_IO;
    auto b = readTree(fullBox("esds", 0, 0, longForm), &err);
    ASSERT_EQ(err, MP4_OK);
    auto* esdsBox = test::as<CESDBox>(b);
    ASSERT_NE(esdsBox, nullptr);
    EXPECT_EQ(esdsBox->remaining, 0u);

    Bytes shortForm = fullBox("esds", 0, 0, desc(0x03, aacESPayload()));
    EXPECT_EQ(writeTree(esdsBox), shortForm);

    uint32_t buffer = 0, maxRate = 0, avgRate = 0;
    EXPECT_EQ(esdsBox->getBitRates(&buffer, &maxRate, &avgRate), MP4_OK);
    EXPECT_EQ((std::vector<uint32_t>{0x300, 128000, 64000}), (std::vector<uint32_t>{buffer, maxRate, avgRate}));
}

TEST(ConfigBoxes, EsdsRefusesOtherDescriptors) {
    // Another tag, and a zero-size ES descriptor taken as unknown.
    CESDBox first;
    EXPECT_EQ(readPayload(&first, fullBox("esds", 0, 0, desc(0x04, decoderConfigPayload({})))),
              MP4_ERR_WRONG_LAYOUT);
    EXPECT_EQ(first.esDescriptor, nullptr);
    CESDBox second;
    EXPECT_EQ(readPayload(&second, fullBox("esds", 0, 0, concat({{0x03, 0x00}, Bytes(28, 0)}))),
              MP4_ERR_WRONG_LAYOUT);

    // A descriptor longer than the box.
    CESDBox third;
    EXPECT_EQ(readPayload(&third, fullBox("esds", 0, 0, desc(0x03, aacESPayload())), 1), MP4_ERR_VALUE_TOO_LARGE);
    MP4Err err = MP4_OK;
    writeTree(&third, &err);
    EXPECT_EQ(err, MP4_ERR_BAD_SIZE_FIELD);
    uint8_t objectType = 1;
    EXPECT_EQ(third.getObjectTypeIndication(&objectType), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(objectType, 0);
}

TEST(ConfigBoxes, EsdsDump) {
    auto b = readTree(fullBox("esds", 0, 0, desc(0x03, aacESPayload())));
    std::string text = dumpOf(b.get(), 1);
    EXPECT_EQ(text.substr(0, 91),
              "\n  Box type = esds  Size = 39\n"
              "  Version = 0, Flags = 0x000000\n"
              "  {\n"
              "    --- Start descriptor\n");
    EXPECT_EQ(text.substr(text.size() - 10), "    }\n  }\n");
}

TEST(ConfigBoxes, IodsRoundTripAndMissingDescriptor) {
    auto b = readTree(fullBox("iods", 0, 0, descLong(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF})));
    auto* iodsBox = test::as<CObjectDescriptorBox>(b);
    ASSERT_NE(iodsBox, nullptr);
    CInitialObjectDescriptor* iod = nullptr;
    ASSERT_EQ(iodsBox->getDescriptor(&iod), MP4_OK);
    EXPECT_EQ(writeTree(iodsBox), fullBox("iods", 0, 0, desc(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF})));

    // An ES descriptor is not an initial object descriptor.
    CObjectDescriptorBox wrongBox;
    EXPECT_EQ(readPayload(&wrongBox, fullBox("iods", 0, 0, desc(0x03, aacESPayload()))), MP4_ERR_WRONG_LAYOUT);

    CObjectDescriptorBox empty;
    MP4Err err = MP4_OK;
    writeTree(&empty, &err);
    EXPECT_EQ(err, MP4_ERR_BAD_SIZE_FIELD);
    dumpOf(&empty, 0, &err);
    EXPECT_EQ(err, MP4_ERR_BAD_SIZE_FIELD);

    // The writer's default descriptor.
    ASSERT_EQ(empty.createDescriptor(&iod), MP4_OK);
    ASSERT_EQ(iod->setObjectDescriptorID(1), MP4_OK);
    iod->setProfileLevels(0xFF, 0xFF, 0x0F, 0x03, 0xFF);
    EXPECT_EQ(writeTree(&empty), fullBox("iods", 0, 0, desc(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x0F, 0x03, 0xFF})));
}

}  // namespace
}  // namespace quil
