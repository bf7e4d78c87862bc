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
#include "descriptors/Descriptors.h"
#include "descriptors/ObjectDescriptors.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;
using test::concat;
using test::fullBox;
using test::MemoryFile;

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
    return ByteWriter()
        .u8(tag)
        .u8(0x80 | ((size >> 21) & 0x7F))
        .u8(0x80 | ((size >> 14) & 0x7F))
        .u8(0x80 | ((size >> 7) & 0x7F))
        .u8(size & 0x7F)
        .raw(payload);
}

const Bytes kAudioSpecificConfig = {0x12, 0x10};

Bytes decoderConfigPayload(const Bytes& children) {
    return ByteWriter()
        .u8(0x40)                   // AAC
        .u8(0x15)                   // stream type 5, upstream 0, reserved 1
        .u24(0x000300)              // buffer size DB
        .u32(128000)
        .u32(64000)
        .raw(children);
}

// An AAC ES descriptor: ES_ID 2, no flags, decoder config with the audio
// specific config, SL config predefined 2.
Bytes aacESPayload(uint8_t flags = 0x00) {
    return ByteWriter()
        .u16(2)
        .u8(flags)
        .raw(desc(0x04, decoderConfigPayload(desc(0x05, kAudioSpecificConfig))))
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

// Writes through a memory storage; on failure the error is reported.
Bytes writeToStorage(CBaseDescriptor* descriptor, MP4Err* err = nullptr, size_t room = 4096) {
    MemoryFile file(Bytes(room, 0xEE), true);
    MP4Err result = descriptor->write(file.storage());
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

std::string dumpOf(CBaseDescriptor* descriptor, int32_t depth = 0, MP4Err* err = nullptr) {
    testing::internal::CaptureStdout();
    MP4Err result = descriptor->dump(depth);
    if (err) *err = result;
    return testing::internal::GetCapturedStdout();
}

template <class Dumpable>
std::string dumpText(Dumpable* object, int32_t depth = 0) {
    testing::internal::CaptureStdout();
    object->dump(depth);
    return testing::internal::GetCapturedStdout();
}

uint32_t headerOf(CBaseDescriptor* descriptor) {
    uint32_t size = 0, header = 0;
    descriptor->getSize(&size, &header);
    return header;
}

// ---- descriptor header ------------------------------------------------------------

TEST(DescriptorHeader, LongSizeFieldIsKeptForSizingAndShortenedOnRewrite) {
    ReadResult r = readOne(descLong(0x05, {1, 2, 3, 4, 5}));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.descriptor->size, 5u);
    EXPECT_EQ(r.descriptor->headerLength, 5u);
    EXPECT_EQ(headerOf(r.descriptor.get()), 5u);
    EXPECT_EQ(r.position, 10u);

    ASSERT_EQ(r.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(r.descriptor->headerLength, 0u);
    EXPECT_EQ(headerOf(r.descriptor.get()), 2u);
    EXPECT_EQ(writeToStorage(r.descriptor.get()), (Bytes{0x05, 0x05, 1, 2, 3, 4, 5}));
}

TEST(DescriptorHeader, FiveSizeBytesAcceptedSixthRefused) {
    ReadResult five = readOne({0x05, 0x80, 0x80, 0x80, 0x80, 0x03, 0xAA, 0xBB, 0xCC});
    ASSERT_EQ(five.err, MP4_OK);
    EXPECT_EQ(five.descriptor->headerLength, 6u);
    EXPECT_EQ(five.descriptor->size, 3u);

    ReadResult six = readOne({0x05, 0x80, 0x80, 0x80, 0x80, 0x80, 0x03, 0xAA});
    EXPECT_EQ(six.err, MP4_ERR_BAD_SIZE_FIELD);
    EXPECT_EQ(six.descriptor, nullptr);
}

TEST(DescriptorHeader, TruncatedHeaderReportsTheStorageError) {
    EXPECT_EQ(readOne({0x05}).err, MP4_ERR_OUT_OF_RANGE);
    EXPECT_EQ(readOne({0x05, 0x81}).err, MP4_ERR_OUT_OF_RANGE);
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
    writeToMemory(r.descriptor.get(), &err, static_cast<uint32_t>(viaStorage.size() - 1));
    EXPECT_EQ(err, MP4_ERR_BUFFER_TOO_SMALL);
    for (uint32_t room : {0u, 1u}) {
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
    EXPECT_EQ(ipl.descriptor->tag, 0x12u);
    EXPECT_EQ(ipl.position, 5u);
    CBaseDescriptor* bare = ipl.descriptor.get();
    EXPECT_EQ(typeid(*bare), typeid(CBaseDescriptor));
    EXPECT_EQ(dumpOf(ipl.descriptor.get(), 1),
              "  --- Start descriptor\n"
              "  IPL descriptor pointer ref\n"
              "  Tag: 0x12  Size: 3\n");

    // Once sizes are recalculated the payload is gone: tag and a zero size.
    ASSERT_EQ(ipl.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(ipl.descriptor.get()), (Bytes{0x12, 0x00}));

    ReadResult other = readOne(desc(0x40, {9}));
    ASSERT_EQ(other.err, MP4_OK);
    EXPECT_NE(dumpOf(other.descriptor.get()).find("Unknown\n"), std::string::npos);
    // A payload running past the storage cannot be skipped, not even by a
    // size that would wrap a memory storage's position back to the start.
    EXPECT_EQ(readOne({0x40, 0x05, 1}).err, MP4_ERR_OUT_OF_RANGE);
    ReadResult wrapping = readOne({0x40, 0x8F, 0xFF, 0xFF, 0xFF, 0x7E, 1});
    EXPECT_EQ(wrapping.err, MP4_ERR_OUT_OF_RANGE);
    EXPECT_EQ(wrapping.position, 6u);
}

// The other tags are checked by the tests of their classes.
TEST(DescriptorFactory, ObjectDescriptorTagsOfTheFileFormat) {
    EXPECT_NE(as<CObjectDescriptor>(readOne(desc(0x11, {0x00, 0x5F}))), nullptr);
    EXPECT_NE(as<CInitialObjectDescriptor>(readOne(desc(0x02, {0x00, 0x4F, 1, 2, 3, 4, 5}))), nullptr);
}

TEST(DescriptorFactory, DeepNestingIsRefusedWithoutExhaustingTheStack) {
    Bytes nested = desc(0x05, {1});
    for (int i = 0; i < 200; ++i) nested = desc(0x04, decoderConfigPayload(nested));
    ReadResult r = readOne(nested);
    EXPECT_EQ(r.err, MP4_ERR_INVALID_DATA);
    EXPECT_EQ(r.descriptor, nullptr);

    Bytes shallow = desc(0x05, {1});
    for (int i = 0; i < 10; ++i) shallow = desc(0x04, decoderConfigPayload(shallow));
    EXPECT_EQ(readOne(shallow).err, MP4_OK);
}

TEST(DescriptorFactory, OversizedPayloadFailsWithoutTrustingTheSize) {
    // Claims 2^28 - 1 bytes of decoder-specific info in a tiny buffer, and
    // 200000 bytes where only 100000 follow.
    EXPECT_EQ(readOne({0x05, 0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3}).err, MP4_ERR_OUT_OF_RANGE);
    Bytes partial = concat({{0x05, 0x8C, 0x9A, 0x40}, Bytes(100000, 0x11)});
    EXPECT_EQ(readOne(partial).err, MP4_ERR_OUT_OF_RANGE);
}

TEST(DescriptorList, AppendWalkAndFind) {
    CDescriptorList list;
    EXPECT_EQ(list.append(nullptr), MP4_ERR_INVALID_ARGUMENT);
    auto* ref = new CESIDRef();
    ASSERT_EQ(list.append(new CESIDInc()), MP4_OK);
    ASSERT_EQ(list.append(ref), MP4_OK);
    CBaseDescriptor* found = nullptr;
    EXPECT_EQ(list.findFirst(kESDescrTag, &found), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(found, nullptr);
    list.rewind();
    EXPECT_EQ(list.next(&found), MP4_OK);
    EXPECT_EQ(list.next(&found), MP4_OK);
    EXPECT_EQ(found, ref);
    EXPECT_EQ(list.next(&found), MP4_ERR_NOT_AVAILABLE);
}

// ---- ES descriptor family ----------------------------------------------------------

// The fields read are checked by the dump of the same bytes below.
TEST(ESDescriptor, DecoderSpecificInfoIsCopiedOnlyWhenItFits) {
    ReadResult r = readOne(desc(0x03, aacESPayload()));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.tag, 3u);
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

TEST(ESDescriptor, DependenceAndUrlRoundTrip) {
    std::string url = "rtsp://example.com/a";
    Bytes payload = ByteWriter()
                        .u16(7)
                        .u8(0xC0)
                        .u16(3)
                        .u8(static_cast<uint32_t>(url.size()))
                        .str(url, false)
                        .raw(desc(0x04, decoderConfigPayload({})))
                        .raw(desc(0x06, {0x02}));
    ReadResult r = readOne(desc(0x03, payload));
    ASSERT_EQ(r.err, MP4_OK);
    auto* es = as<CESDescriptor>(r);
    EXPECT_EQ(es->dependsOn_ES_ID, 3);
    ASSERT_EQ(es->URLlength, url.size());
    EXPECT_STREQ(reinterpret_cast<const char*>(es->URLstring.get()), url.c_str());
    ASSERT_EQ(es->calcSize(), MP4_OK);
    EXPECT_EQ(es->size, payload.size());
    EXPECT_EQ(writeToStorage(es), desc(0x03, payload));
}

TEST(ESDescriptor, MandatoryChildrenAreChecked) {
    Bytes configOnly = ByteWriter().u16(1).u8(0).raw(desc(0x04, decoderConfigPayload({})));
    EXPECT_EQ(readOne(desc(0x03, configOnly)).err, MP4_ERR_NOT_AVAILABLE);
    Bytes slOnly = ByteWriter().u16(1).u8(0).raw(desc(0x06, {0x02}));
    EXPECT_EQ(readOne(desc(0x03, slOnly)).err, MP4_ERR_NOT_AVAILABLE);

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
    const uint8_t url[] = {'a', 'b'};
    ASSERT_EQ(es.setURL(url, 2), MP4_OK);
    EXPECT_EQ(es.URL_Flag, 1u);
    EXPECT_EQ(es.URLlength, 2);

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
    EXPECT_EQ(config->children->count(), 1u);
    ASSERT_EQ(config->calcSize(), MP4_OK);
    EXPECT_EQ(config->size, 13u + 5u);

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

TEST(SLConfigDescriptor, PredefinedValuesRoundTrip) {
    ReadResult two = readOne({0x06, 0x01, 0x02});
    ASSERT_EQ(two.err, MP4_OK);
    ASSERT_EQ(two.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(two.descriptor.get()), (Bytes{0x06, 0x01, 0x02}));

    ReadResult one = readOne({0x06, 0x01, 0x01});
    ASSERT_EQ(one.err, MP4_OK);
    EXPECT_EQ(writeToStorage(one.descriptor.get()), (Bytes{0x06, 0x01, 0x01}));

    // Extra payload bytes are consumed and dropped.
    ReadResult padded = readOne({0x06, 0x03, 0x02, 0xAA, 0xBB, 0x77});
    ASSERT_EQ(padded.err, MP4_OK);
    EXPECT_EQ(padded.position, 5u);
    EXPECT_EQ(padded.descriptor->remaining, 0u);
    ASSERT_EQ(padded.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(padded.descriptor.get()), (Bytes{0x06, 0x01, 0x02}));
}

TEST(SLConfigDescriptor, ShortOrUnsupportedPayloads) {
    EXPECT_EQ(readOne({0x06, 0x00}, 2).err, MP4_ERR_VALUE_TOO_LARGE);
    EXPECT_EQ(readOne({0x06, 0x01, 0x03}).err, MP4_ERR_INVALID_DATA);
    Bytes custom14 = concat({{0x06, 0x0F, 0x00}, Bytes(14, 0)});
    EXPECT_EQ(readOne(custom14).err, MP4_ERR_VALUE_TOO_LARGE);
}

// predefined 0, then the custom fields.
Bytes customSL(uint8_t flags, uint8_t timeStampLength, const Bytes& tail = {}) {
    return desc(0x06, ByteWriter()
                          .u8(0x00)
                          .u8(flags)
                          .u32(1000)  // time stamp resolution
                          .u32(0)     // OCR resolution
                          .u8(timeStampLength)
                          .u8(0)
                          .u8(0)
                          .u8(0)
                          .u16(0x3F7D)  // 0011 11111 1111 1 01
                          .raw(tail));
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

TEST(SLConfigDescriptor, DurationAndStartTimeStamps) {
    ReadResult withDuration = readOne(customSL(0x05, 0, ByteWriter().u32(90000).u16(3000).u16(3600)));
    ASSERT_EQ(withDuration.err, MP4_OK);
    auto* sl = as<CSLConfigDescriptor>(withDuration);
    EXPECT_EQ(sl->timeScale, 90000u);
    EXPECT_EQ(sl->accessUnitDuration, 3600);  // the second value overwrites the first
    EXPECT_EQ(sl->compositionUnitDuration, 0);
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

    EXPECT_EQ(readOne(customSL(0x05, 0, {0, 0, 0})).err, MP4_ERR_VALUE_TOO_LARGE);
    // Without useTimeStampsFlag the start stamps would follow: never supported.
    EXPECT_EQ(readOne(customSL(0x00, 65, Bytes(20, 0))).err, MP4_ERR_UNSUPPORTED);
    EXPECT_EQ(readOne(customSL(0x00, 32, Bytes(7, 0))).err, MP4_ERR_VALUE_TOO_LARGE);
    EXPECT_EQ(readOne(customSL(0x00, 32, Bytes(8, 0))).err, MP4_ERR_INVALID_DATA);
}

TEST(ESIDDescriptors, RoundTripAndDump) {
    ReadResult inc = readOne(desc(0x0E, {0x00, 0x00, 0x01, 0x02}));
    ASSERT_EQ(inc.err, MP4_OK);
    EXPECT_EQ(as<CESIDInc>(inc)->Track_ID, 0x102u);
    ASSERT_EQ(inc.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(inc.descriptor.get()), desc(0x0E, {0x00, 0x00, 0x01, 0x02}));
    EXPECT_EQ(dumpOf(inc.descriptor.get()),
              "--- Start descriptor\nES ID inc\nTag: 0x0e  Size: 4\nTrackID: 258\n");

    ReadResult ref = readOne(desc(0x0F, {0x00, 0x03}));
    ASSERT_EQ(ref.err, MP4_OK);
    EXPECT_EQ(as<CESIDRef>(ref)->ref_index, 3);
    ASSERT_EQ(ref.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(writeToMemory(ref.descriptor.get()), desc(0x0F, {0x00, 0x03}));
    EXPECT_NE(dumpOf(ref.descriptor.get()).find("Track ref: 3\n"), std::string::npos);
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
    Bytes bytes = descLong(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF});
    ReadResult r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
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

TEST(ObjectDescriptors, InitialObjectDescriptorWithTrackReferencesRoundTrips) {
    Bytes bytes = desc(0x10, concat({{0x00, 0x5F, 0x01, 0x01, 0x29, 0xFE, 0x01},
                                     desc(0x0E, {0, 0, 0, 1}),
                                     desc(0x0E, {0, 0, 0, 2})}));
    ReadResult r = readOne(bytes);
    ASSERT_EQ(r.err, MP4_OK);
    auto* iod = as<CInitialObjectDescriptor>(r);
    EXPECT_EQ(iod->includeInlineProfileLevelFlag, 1u);
    ASSERT_EQ(iod->children->count(), 2u);
    ASSERT_EQ(iod->calcSize(), MP4_OK);
    EXPECT_EQ(writeToMemory(iod), bytes);
}

TEST(ObjectDescriptors, UrlFormsHaveNoProfileLevels) {
    Bytes iodBytes = desc(0x02, {0x00, 0x7F, 0x03, 'a', 'b', 'c'});
    ReadResult iod = readOne(iodBytes);
    ASSERT_EQ(iod.err, MP4_OK);
    auto* initial = as<CInitialObjectDescriptor>(iod);
    EXPECT_EQ(initial->URL_Flag, 1u);
    EXPECT_EQ(initial->URLlength, 3);
    ASSERT_EQ(initial->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(initial), iodBytes);

    Bytes odBytes = desc(0x01, {0x02, 0xBF, 0x01, 'x'});  // ID 10
    ReadResult od = readOne(odBytes);
    ASSERT_EQ(od.err, MP4_OK);
    EXPECT_EQ(as<CObjectDescriptor>(od)->ObjectDescriptorID, 10);
    ASSERT_EQ(od.descriptor->calcSize(), MP4_OK);
    EXPECT_EQ(writeToStorage(od.descriptor.get()), odBytes);

    EXPECT_EQ(readOne(desc(0x01, {0x02, 0xBF, 0x05, 'x'})).err, MP4_ERR_VALUE_TOO_LARGE);
    EXPECT_EQ(readOne(desc(0x10, {0x00, 0x4F, 0xFF})).err, MP4_ERR_VALUE_TOO_LARGE);
    EXPECT_EQ(readOne(desc(0x11, {0x00})).err, MP4_ERR_VALUE_TOO_LARGE);
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
    Bytes written = writeToStorage(&od);
    ReadResult back = readOne(written);
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
    return ByteWriter()
        .u8(1)
        .u8(profile)
        .u8(0xC0)
        .u8(0x1E)
        .u8(0xFF)
        .u8(0xE1)
        .u16(static_cast<uint32_t>(kSps.size()))
        .raw(kSps)
        .u8(1)
        .u16(static_cast<uint32_t>(kPps.size()))
        .raw(kPps)
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

template <class Record>
Bytes writeRecord(Record* record, MP4Err* err = nullptr) {
    MemoryFile file(Bytes(8192, 0xEE), true);
    MP4Err result = record->write(file.storage());
    if (err) *err = result;
    return Bytes(file.bytes().begin(), file.bytes().begin() + file.position());
}

TEST(AVCDecoderConfigRecord, BaselineRoundTripsByteExact) {
    CAVCDecoderConfigRecord record;
    Bytes bytes = avcRecord(66);
    ASSERT_EQ(readRecord(&record, bytes), MP4_OK);
    EXPECT_EQ(Bytes(record.sps[0].get(), record.sps[0].get() + record.spsLength[0]), kSps);
    EXPECT_EQ(Bytes(record.pps[0].get(), record.pps[0].get() + record.ppsLength[0]), kPps);
    uint64_t size = 0;
    record.getSize(&size);
    EXPECT_EQ(size, bytes.size());
    record.calcSize();
    record.getSize(&size);
    EXPECT_EQ(size, bytes.size());
    EXPECT_EQ(writeRecord(&record), bytes);
}

TEST(AVCDecoderConfigRecord, AnyExtensionIsRewrittenAsTheFixedTrailer) {
    const Bytes trailer = {0xFF, 0xFF, 0xFF, 0x00};
    for (const Bytes& extension : {Bytes{0xFD, 0xF8, 0xF8, 0x00}, Bytes{0x01, 0x02, 0x03}}) {
        CAVCDecoderConfigRecord record;
        uint32_t position = 0;
        Bytes bytes = avcRecord(100, extension);
        ASSERT_EQ(readRecord(&record, bytes, -1, &position), MP4_OK);
        EXPECT_EQ(position, bytes.size());
        EXPECT_EQ(record.hasExtension, 1u);
        record.calcSize();
        EXPECT_EQ(record.size, avcRecord(100).size() + 4);
        EXPECT_EQ(writeRecord(&record), avcRecord(100, trailer));
    }
    // An owner may ask for the trailer before reading a record without one.
    CAVCDecoderConfigRecord preset;
    preset.hasExtension = 1;
    ASSERT_EQ(readRecord(&preset, avcRecord(100)), MP4_OK);
    EXPECT_EQ(writeRecord(&preset), avcRecord(100, trailer));
}

TEST(AVCDecoderConfigRecord, ReservedBitsAreMaskedAndRewrittenAsOnes) {
    CAVCDecoderConfigRecord record;
    ASSERT_EQ(readRecord(&record, {1, 77, 0, 30, 0x01, 0x00, 0x00}), MP4_OK);
    EXPECT_EQ(record.lengthSizeMinusOne, 1);
    EXPECT_EQ(writeRecord(&record), (Bytes{1, 77, 0, 30, 0xFD, 0xE0, 0x00}));
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
    EXPECT_TRUE(writeRecord(&record, &err).empty());
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);

    record.spsLength[0] = 0;
    record.numOfSequenceParameterSets = 32;
    writeRecord(&record, &err);
    EXPECT_EQ(err, MP4_ERR_VALUE_TOO_LARGE);
    record.calcSize();  // stays inside the table
}

TEST(AVCDecoderConfigRecord, Dump) {
    CAVCDecoderConfigRecord record;
    ASSERT_EQ(readRecord(&record, avcRecord(66)), MP4_OK);
    EXPECT_EQ(dumpText(&record, 1),
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
    return ByteWriter()
        .u8(1)
        .u8(0x01)  // profile space 0, tier 0, Main
        .u32(0x60000000)
        .u16(0x9000)
        .u32(0)
        .u8(93)
        .u16((r & 0xF0) << 8)
        .u8(r & 0xFC)
        .u8((r & 0xFC) | 1)
        .u8(r & 0xF8)
        .u8(r & 0xF8)
        .u16(0)
        .u8(0x0F)  // one temporal layer, nested, four-byte lengths
        .u8(arrays);
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
    EXPECT_EQ(record.general_constraint_indicator_flags, 0x900000000000ull);
    EXPECT_EQ(record.chromaFormat, 1);
    ASSERT_EQ(record.arrays.size(), 3u);
    EXPECT_EQ(record.arrays[0]->NAL_unit_type, 32);
    EXPECT_EQ(record.arrays[2]->nalLengths[1], 0);
    record.calcSize();
    EXPECT_EQ(record.size, bytes.size());
    EXPECT_EQ(writeRecord(&record), bytes);
}

TEST(HEVCDecoderConfigRecord, ReservedBitsAreRewritten) {
    CHEVCDecoderConfigRecord record;
    Bytes read = concat({hevcFixedPart(1, 0x00), ByteWriter().u8(0x61).u16(1).u16(1).u8(0x4E)});
    ASSERT_EQ(readRecord(&record, read), MP4_OK);
    EXPECT_EQ(record.arrays[0]->array_completeness, 0);
    EXPECT_EQ(record.arrays[0]->NAL_unit_type, 0x21);
    Bytes expected = concat({hevcFixedPart(1, 0xFF), ByteWriter().u8(0x21).u16(1).u16(1).u8(0x4E)});
    EXPECT_EQ(writeRecord(&record), expected);
}

TEST(HEVCDecoderConfigRecord, NoArraysAndTrailingSurplus) {
    CHEVCDecoderConfigRecord record;
    uint32_t position = 0;
    Bytes bytes = concat({hevcFixedPart(0), {0xDE, 0xAD}});
    ASSERT_EQ(readRecord(&record, bytes, -1, &position), MP4_OK);
    EXPECT_EQ(position, bytes.size());
    record.calcSize();
    EXPECT_EQ(record.size, 23u);
    EXPECT_EQ(writeRecord(&record), hevcFixedPart(0));
}

TEST(HEVCDecoderConfigRecord, DamagedPayloads) {
    CHEVCDecoderConfigRecord record;
    EXPECT_EQ(readRecord(&record, {1, 2, 3, 4, 5}), MP4_ERR_BAD_BOX_SIZE);
    // Two arrays announced, room for one.
    Bytes oneArray = concat({hevcFixedPart(2), ByteWriter().u8(0xA0).u16(1).u16(1).u8(0x40)});
    EXPECT_EQ(readRecord(&record, concat({oneArray, {0, 0}})), MP4_ERR_BAD_BOX_SIZE);
    // A NAL length beyond the record, whatever follows in the storage.
    Bytes longNal = concat({hevcFixedPart(1), ByteWriter().u8(0xA0).u16(1).u16(40).u8(0x40)});
    EXPECT_EQ(readRecord(&record, concat({longNal, Bytes(100, 0)}), static_cast<int64_t>(longNal.size())),
              MP4_ERR_BAD_BOX_SIZE);
    // No room left for a NAL length.
    Bytes noLength = concat({hevcFixedPart(1), ByteWriter().u8(0xA0).u16(2).u16(1).u8(0x40)});
    EXPECT_EQ(readRecord(&record, noLength), MP4_ERR_BAD_BOX_SIZE);
}

TEST(HEVCDecoderConfigRecord, PayloadShorterThanTheFixedPart) {
    // The fixed part is never read past the payload.
    CHEVCDecoderConfigRecord record;
    EXPECT_EQ(readRecord(&record, hevcFixedPart(0), 10), MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(readRecord(&record, concat({hevcFixedPart(1), Bytes(8, 0)}), 10), MP4_ERR_BAD_BOX_SIZE);
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
    Bytes written = writeRecord(&record);
    EXPECT_EQ(written.size(), 32u);
    EXPECT_EQ(Bytes(written.begin() + 22, written.begin() + 26), (Bytes{0x01, 0xA0, 0x00, 0x01}));

    record.numOfArrays = 2;  // disagrees with the list
    MP4Err err = MP4_OK;
    writeRecord(&record, &err);
    EXPECT_EQ(err, MP4_ERR_INVALID_DATA);

    CHEVCDecoderConfigRecord parsed;
    ASSERT_EQ(readRecord(&parsed, concat({hevcFixedPart(3), hevcArrays()})), MP4_OK);
    EXPECT_EQ(dumpText(&parsed),
              "Version = 1\n"
              "Profile indication = 1 Profile compatibility = 0x60000000\n"
              "Tier flag = 0\n"
              "Level indication = 93\n"
              "Length Size = 4\n");
}

// ---- boxes ---------------------------------------------------------------------------

struct BoxResult {
    MP4Err err = MP4_OK;
    std::unique_ptr<CBox> box;
    uint32_t position = 0;
};

BoxResult readOneBox(const Bytes& bytes) {
    MemoryFile file(bytes);
    BoxResult result;
    CBox* read = nullptr;
    uint32_t type = 0;
    uint64_t remaining = bytes.size();
    result.err = readBox(file.storage(), fourcc("stsd"), &read, &type, &remaining);
    result.box.reset(read);
    result.position = file.position();
    return result;
}

Bytes writeBox(CBox* box, MP4Err* err = nullptr) {
    MemoryFile file(Bytes(8192, 0xEE), true);
    MP4Err result = box->calculateSize();
    if (result == MP4_OK) result = box->write(file.storage());
    if (err) *err = result;
    return Bytes(file.bytes().begin(), file.bytes().begin() + file.position());
}

TEST(ConfigBoxes, AvcAndHevcBoxesRoundTrip) {
    Bytes avcC = box("avcC", avcRecord(66));
    BoxResult avc = readOneBox(avcC);
    ASSERT_EQ(avc.err, MP4_OK);
    auto* avcBox = dynamic_cast<CAVCConfigurationBox*>(avc.box.get());
    ASSERT_NE(avcBox, nullptr);
    EXPECT_EQ(writeBox(avcBox), avcC);

    Bytes hvcC = box("hvcC", concat({hevcFixedPart(3), hevcArrays()}));
    BoxResult hevc = readOneBox(hvcC);
    ASSERT_EQ(hevc.err, MP4_OK);
    ASSERT_NE(dynamic_cast<CHEVCConfigurationBox*>(hevc.box.get()), nullptr);
    EXPECT_EQ(writeBox(hevc.box.get()), hvcC);

    // A surplus after the record is skipped and not written back.
    Bytes padded = box("avcC", concat({avcRecord(66), {0, 0}}));
    BoxResult paddedRead = readOneBox(padded);
    ASSERT_EQ(paddedRead.err, MP4_OK);
    EXPECT_EQ(paddedRead.position, padded.size());
    EXPECT_EQ(writeBox(paddedRead.box.get()).size(), padded.size() + 2);  // gains the trailer
}

TEST(ConfigBoxes, RecordBoxFailures) {
    CAVCConfigurationBox empty;
    MP4Err err = MP4_OK;
    writeBox(&empty, &err);
    EXPECT_EQ(err, MP4_ERR_WRONG_LAYOUT);
    CAVCDecoderConfigRecord* record = nullptr;
    EXPECT_EQ(empty.getRecord(&record), MP4_ERR_NOT_AVAILABLE);

    CHEVCConfigurationBox hevcBox;
    MemoryFile file({1, 2, 3, 4});
    hevcBox.remaining = 4;
    EXPECT_EQ(hevcBox.read(file.storage()), MP4_ERR_BAD_BOX_SIZE);
}

TEST(ConfigBoxes, EsdsIsResizedFromItsDescriptor) {
    // Four-byte size fields, as ffmpeg writes them, shrink on rewriting.
    Bytes longForm = descLong(0x03, ByteWriter()
                                        .u16(2)
                                        .u8(0)
                                        .raw(descLong(0x04, decoderConfigPayload(descLong(0x05, kAudioSpecificConfig))))
                                        .raw(descLong(0x06, {0x02})));
    Bytes esds = fullBox("esds", 0, 0, longForm);
    BoxResult r = readOneBox(esds);
    ASSERT_EQ(r.err, MP4_OK);
    auto* esdsBox = dynamic_cast<CESDBox*>(r.box.get());
    ASSERT_NE(esdsBox, nullptr);
    EXPECT_EQ(esdsBox->remaining, 0u);

    Bytes shortForm = fullBox("esds", 0, 0, desc(0x03, aacESPayload()));
    EXPECT_EQ(writeBox(esdsBox), shortForm);
    EXPECT_EQ(esdsBox->size, shortForm.size());

    uint32_t buffer = 0, maxRate = 0, avgRate = 0;
    EXPECT_EQ(esdsBox->getBitRates(&buffer, &maxRate, &avgRate), MP4_OK);
    EXPECT_EQ((std::vector<uint32_t>{0x300, 128000, 64000}), (std::vector<uint32_t>{buffer, maxRate, avgRate}));
}


TEST(ConfigBoxes, EsdsRefusesOtherDescriptors) {
    // Another tag, and a zero-size ES descriptor taken as unknown.
    Bytes wrongTag = fullBox("esds", 0, 0, desc(0x04, decoderConfigPayload({})));
    CESDBox first;
    MemoryFile file1(Bytes(wrongTag.begin() + 8, wrongTag.end()));
    first.remaining = wrongTag.size() - 8;
    EXPECT_EQ(first.read(file1.storage()), MP4_ERR_WRONG_LAYOUT);
    EXPECT_EQ(first.esDescriptor, nullptr);

    Bytes zeroSize = concat({{0, 0, 0, 0, 0x03, 0x00}, Bytes(28, 0)});
    CESDBox second;
    MemoryFile file2(zeroSize);
    second.remaining = zeroSize.size();
    EXPECT_EQ(second.read(file2.storage()), MP4_ERR_WRONG_LAYOUT);

    // A descriptor longer than the box.
    Bytes es = desc(0x03, aacESPayload());
    CESDBox third;
    MemoryFile file3(concat({{0, 0, 0, 0}, es}));
    third.remaining = 4 + es.size() - 1;
    EXPECT_EQ(third.read(file3.storage()), MP4_ERR_VALUE_TOO_LARGE);

    MP4Err err = MP4_OK;
    writeBox(&third, &err);
    EXPECT_EQ(err, MP4_ERR_BAD_SIZE_FIELD);
    uint8_t objectType = 1;
    EXPECT_EQ(third.getObjectTypeIndication(&objectType), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(objectType, 0);
}

TEST(ConfigBoxes, EsdsDump) {
    BoxResult r = readOneBox(fullBox("esds", 0, 0, desc(0x03, aacESPayload())));
    ASSERT_EQ(r.err, MP4_OK);
    std::string text = dumpText(r.box.get(), 1);
    EXPECT_EQ(text.substr(0, 91),
              "\n  Box type = esds  Size = 39\n"
              "  Version = 0, Flags = 0x000000\n"
              "  {\n"
              "    --- Start descriptor\n");
    EXPECT_EQ(text.substr(text.size() - 10), "    }\n  }\n");
}

TEST(ConfigBoxes, IodsRoundTripAndMissingDescriptor) {
    Bytes iods = fullBox("iods", 0, 0, descLong(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF}));
    BoxResult r = readOneBox(iods);
    ASSERT_EQ(r.err, MP4_OK);
    auto* iodsBox = dynamic_cast<CObjectDescriptorBox*>(r.box.get());
    ASSERT_NE(iodsBox, nullptr);
    CInitialObjectDescriptor* iod = nullptr;
    ASSERT_EQ(iodsBox->getDescriptor(&iod), MP4_OK);
    EXPECT_EQ(iod->audioProfileLevelIndication, 0x29);
    EXPECT_EQ(writeBox(iodsBox), fullBox("iods", 0, 0, desc(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF})));

    // An ES descriptor is not an initial object descriptor.
    Bytes wrong = fullBox("iods", 0, 0, desc(0x03, aacESPayload()));
    CObjectDescriptorBox wrongBox;
    MemoryFile file(Bytes(wrong.begin() + 8, wrong.end()));
    wrongBox.remaining = wrong.size() - 8;
    EXPECT_EQ(wrongBox.read(file.storage()), MP4_ERR_WRONG_LAYOUT);

    CObjectDescriptorBox empty;
    MP4Err err = MP4_OK;
    writeBox(&empty, &err);
    EXPECT_EQ(err, MP4_ERR_BAD_SIZE_FIELD);
    testing::internal::CaptureStdout();
    EXPECT_EQ(empty.dump(0), MP4_ERR_BAD_SIZE_FIELD);
    testing::internal::GetCapturedStdout();

    // The writer's default descriptor.
    ASSERT_EQ(empty.createDescriptor(&iod), MP4_OK);
    ASSERT_EQ(iod->setObjectDescriptorID(1), MP4_OK);
    iod->setProfileLevels(0xFF, 0xFF, 0x0F, 0x03, 0xFF);
    EXPECT_EQ(writeBox(&empty), fullBox("iods", 0, 0, desc(0x10, {0x00, 0x4F, 0xFF, 0xFF, 0x0F, 0x03, 0xFF})));
}

}  // namespace
}  // namespace quil
