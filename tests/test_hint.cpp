// RTP hinting: hint sample and constructor layout, the "rtp " entry, each
// packetizer's cutting rules checked by reassembling the packets quil
// produces, SDP sections, the session description and the ISMA functions.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "HintFileBuilder.h"
#include "boxes/HintBoxes.h"
#include "hint/HintSample.h"
#include "hint/Packetizers.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;

// Owns a file object; closes and destroys it at the end.
struct File {
    CMp4File* file = nullptr;
    File() { EXPECT_EQ(MP4_OK, CMp4File::createInstance(&file)); }
    ~File() {
        uint32_t open = 0;
        if (file->isOpen(&open) == MP4_OK && open) (void)file->close();
        CMp4File::destroyInstance(&file);
    }
    CMp4File* operator->() { return file; }
};

// ---- hint samples -------------------------------------------------------------

Bytes writeHintSample(CRtpHintSample& sample) {
    uint64_t size = 0;
    EXPECT_EQ(MP4_OK, sample.calculateSize(&size));
    Bytes bytes(size);
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(size), true);
    EXPECT_EQ(MP4_OK, storage.open(1));
    EXPECT_EQ(MP4_OK, sample.write(&storage));
    EXPECT_EQ(size, storage.position());
    return bytes;
}

MP4Err readHintSample(Bytes bytes, CRtpHintSample* sample) {
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
    storage.open(0);
    return sample->read(&storage, static_cast<uint32_t>(bytes.size()));
}

TEST(HintSample, PacketLayoutAndTheAsymmetricFlags) {
    CRtpHintSample sample;
    CRtpPacket* packet = nullptr;
    ASSERT_EQ(MP4_OK, sample.startPacket(96, 7, 5, 3, &packet));
    packet->pBit = 1;
    packet->mBit = 1;
    const uint8_t immediate[3] = {0xAA, 0xBB, 0xCC};
    ASSERT_EQ(MP4_OK, packet->addImmediateData(immediate, 3));
    ASSERT_EQ(MP4_OK, packet->addSampleReference(0, 100, 2, 4));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, packet->addImmediateData(immediate, 15));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, packet->addImmediateData(nullptr, 1));

    const Bytes expected = ByteWriter()
        .u16(1).u16(0)                                     // packet count, reserved
        .u32(5).u8(0x20).u8(0x80 | 96).u16(7).u8(0).u8(4)  // P at 0x20, M, extra flag
        .u16(2)                                            // constructors
        .u32(16).raw(box("rtpo", ByteWriter().u32(3)))     // TLV list
        .u8(1).u8(3).u8(0xAA).u8(0xBB).u8(0xCC).zeros(11)  // immediate, 16 bytes
        .u8(2).u8(0).u16(100).u32(2).u32(4).u16(1).u16(1); // sample reference
    EXPECT_EQ(expected, writeHintSample(sample));

    CRtpHintSample back;
    ASSERT_EQ(MP4_OK, readHintSample(expected, &back));
    ASSERT_EQ(1u, back.packets.size());
    const CRtpPacket& read = *back.packets[0];
    EXPECT_EQ(0u, read.pBit);  // read from 0x40
    EXPECT_EQ(1u, read.xBit);  // read from 0x20
    EXPECT_EQ(1u, read.mBit);
    EXPECT_EQ(96, read.payloadType);
    EXPECT_EQ(103u, read.payloadLength());
    EXPECT_EQ(0u, back.extraDataLength);
}

TEST(HintSample, NoTimeOffsetNoTlvAndExtraDataKept) {
    CRtpHintSample sample;
    CRtpPacket* packet = nullptr;
    ASSERT_EQ(MP4_OK, sample.startPacket(96, 0, 0, -4, &packet));
    EXPECT_EQ(0u, packet->extraFlag);
    EXPECT_EQ(nullptr, packet->tlvBoxes);
    Bytes bytes = writeHintSample(sample);
    EXPECT_EQ(16u, bytes.size());
    bytes.insert(bytes.end(), {1, 2, 3});
    CRtpHintSample back;
    ASSERT_EQ(MP4_OK, readHintSample(bytes, &back));
    EXPECT_EQ(3u, back.extraDataLength);
    EXPECT_EQ(16u, back.extraDataOffset);
}

struct DamagedHintSample {
    const char* name;
    Bytes bytes;
    MP4Err expected;
};

class DamagedHintSamples : public ::testing::TestWithParam<DamagedHintSample> {};

TEST_P(DamagedHintSamples, AreRefused) {
    CRtpHintSample sample;
    EXPECT_EQ(GetParam().expected, readHintSample(GetParam().bytes, &sample));
}

Bytes packetHeader(uint16_t constructors, uint8_t flags2 = 0) {
    return ByteWriter().u32(0).u8(0x80).u8(96).u16(1).u8(0).u8(flags2).u16(constructors);
}

INSTANTIATE_TEST_SUITE_P(
    HintSample, DamagedHintSamples,
    ::testing::Values(
        DamagedHintSample{"UnknownConstructor",
                          ByteWriter().u16(1).u16(0).raw(packetHeader(1)).u8(9).zeros(15),
                          MP4_ERR_UNSUPPORTED},
        DamagedHintSample{"ConstructorPastTheEnd",
                          ByteWriter().u16(1).u16(0).raw(packetHeader(2)).u8(0).zeros(15),
                          MP4_ERR_BAD_BOX_SIZE},
        DamagedHintSample{"ExtraInformationPastTheEnd",
                          ByteWriter().u16(1).u16(0).raw(packetHeader(0, 4)).u32(64),
                          MP4_ERR_BAD_BOX_SIZE},
        DamagedHintSample{"PacketCountBeyondTheBytes",
                          ByteWriter().u16(0xFFFF).u16(0).raw(packetHeader(0)),
                          MP4_ERR_BAD_BOX_SIZE}),
    [](const auto& info) { return info.param.name; });

// ---- packets produced from a hint sample ----------------------------------------

Bytes sampleConstructor(int8_t trackRef, uint16_t length, uint32_t sample, uint32_t offset) {
    return ByteWriter().u8(2).u8(static_cast<uint8_t>(trackRef)).u16(length).u32(sample).u32(offset).u16(1).u16(1);
}
Bytes descriptionConstructor(uint16_t length, uint32_t index, uint32_t offset) {
    return ByteWriter().u8(3).u8(0).u16(length).u32(index).u32(offset).u32(0);
}
// A hint sample of one packet with these constructors and 4 bytes of extra data.
Bytes onePacket(const std::vector<Bytes>& constructors) {
    ByteWriter out;
    out.u16(1).u16(0).u32(0).u8(0x80).u8(0x80 | 97).u16(5).u8(0).u8(0).u16(static_cast<uint16_t>(constructors.size()));
    for (const Bytes& c : constructors) out.raw(c);
    return out.u32(0xDDCCBBAA);
}

MP4Err producePacket(const Bytes& hintSample, Bytes* packet) {
    Bytes file = test::fileWithHintSample(hintSample.data(), hintSample.size());
    CMemoryStorage memory;
    memory.attach(file.data(), static_cast<uint32_t>(file.size()), false);
    File mp4;
    EXPECT_EQ(MP4_OK, mp4->setStorage(&memory));
    EXPECT_EQ(MP4_OK, mp4->open(L"memory", 0, 0));
    CMp4RtpHintTrack* raw = nullptr;
    EXPECT_EQ(MP4_OK, mp4->getHintTrack(2, &raw));
    std::unique_ptr<CMp4RtpHintTrack> hint(raw);
    if (!hint) return MP4_ERR_NOT_AVAILABLE;
    packet->assign(256, 0);
    uint32_t length = 0;
    MP4Err err = hint->getPacket(1, 1, packet->data(), static_cast<uint32_t>(packet->size()), &length);
    packet->resize(err == MP4_OK ? length : 0);
    return err;
}

TEST(HintTrackPackets, ConstructorsCopyTheirBytes) {
    const Bytes immediate = ByteWriter().u8(1).u8(3).u8(0xAA).u8(0xBB).u8(0xCC).zeros(11);
    const Bytes hintSample = onePacket({immediate, sampleConstructor(0, 10, 2, 5),
                                        sampleConstructor(-1, 4, 1, 4 + 12 + 4 * 16),
                                        descriptionConstructor(4, 1, 4)});
    Bytes packet;
    ASSERT_EQ(MP4_OK, producePacket(hintSample, &packet));
    Bytes media(10);
    for (uint8_t i = 0; i < 10; ++i) media[i] = static_cast<uint8_t>(20 + 5 + i);  // sample 2 from byte 5
    const Bytes expected = ByteWriter()
        .u8(0x80).u8(0x80 | 97).u16(5).u32(0).u32(0)  // RTP header: time 0, no SSRC yet
        .u8(0xAA).u8(0xBB).u8(0xCC).raw(media)
        .u32(0xDDCCBBAA)                               // the hint sample's own extra data
        .code("mp4v");                                 // bytes 4..7 of the sample entry
    EXPECT_EQ(expected, packet);
}

class ConstructorsOutsideTheirSource : public ::testing::TestWithParam<Bytes> {};

TEST_P(ConstructorsOutsideTheirSource, GiveAnErrorAndNoPacket) {
    Bytes packet;
    EXPECT_EQ(MP4_ERR_INVALID_DATA, producePacket(onePacket({GetParam()}), &packet));
    EXPECT_TRUE(packet.empty());
}

INSTANTIATE_TEST_SUITE_P(
    HintTrackPackets, ConstructorsOutsideTheirSource,
    ::testing::Values(sampleConstructor(0, 10, 1, 1),          // past the end of sample 1
                      sampleConstructor(0, 1, 4, 0),           // no sample 4
                      sampleConstructor(0, 1, 0, 0),           // no sample 0
                      sampleConstructor(1, 1, 1, 0),           // no second track reference
                      sampleConstructor(-1, 40, 1, 0),         // past the hint sample (36 bytes)
                      sampleConstructor(0, 1, 1, 0xFFFFFFFF),  // offset wrapping around
                      descriptionConstructor(200, 1, 0),       // past the sample entry
                      descriptionConstructor(1, 2, 0)));       // no second sample entry

// ---- the "rtp " entry -------------------------------------------------------------

Bytes rtpEntry(const Bytes& children) {
    return box("rtp ", ByteWriter().zeros(6).u16(1).u16(1).u16(1).u32(1450).raw(children));
}

TEST(RtpHintSampleEntry, KeepsItsTimingChildrenAndRefusesDuplicates) {
    const Bytes tims = box("tims", ByteWriter().u32(90000));
    const Bytes tsro = box("tsro", ByteWriter().u32(17));
    const Bytes other = box("free", Bytes(4, 0));
    const Bytes entry = rtpEntry(ByteWriter().raw(tims).raw(other).raw(tsro));
    auto read = test::readTree(box("stsd", ByteWriter().u32(0).u32(1).raw(entry)));
    ASSERT_NE(nullptr, read);
    CBox* found = nullptr;
    ASSERT_EQ(MP4_OK, read->findChild(fourcc("rtp "), &found));
    auto* rtp = dynamic_cast<CRtpHintSampleEntry*>(found);
    ASSERT_NE(nullptr, rtp);
    EXPECT_EQ(90000u, rtp->tims->value);
    EXPECT_EQ(17u, rtp->tsro->value);
    EXPECT_EQ(1450u, rtp->maxPacketSize);
    // Written back without the dropped child, tims first.
    EXPECT_EQ(rtpEntry(ByteWriter().raw(tims).raw(tsro)), test::writeTree(rtp));

    for (const Bytes& children : {Bytes(), ByteWriter().raw(tims).raw(tims).bytes()}) {
        CRtpHintSampleEntry entryBox;
        Bytes bytes = rtpEntry(children);
        CMemoryStorage storage;
        storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
        storage.open(0);
        uint64_t remaining = bytes.size();
        CBox* made = nullptr;
        uint32_t type = 0;
        EXPECT_EQ(MP4_ERR_WRONG_LAYOUT, readBox(&storage, fourcc("stsd"), &made, &type, &remaining));
        delete made;
    }
}

// ---- packetizers, through files written and hinted --------------------------------

std::string tempPath(const std::string& name) { return ::testing::TempDir() + "quil_hint_" + std::to_string(getpid()) + "_" + name; }
std::wstring wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }

struct HintRequest {
    MP4SampleEntryInfo entry{};
    uint32_t trackKind = MP4_TRACK_VIDEO;
    uint32_t timeScale = 90000;
    uint32_t sampleDuration = 3000;
    int32_t hintKind = kHintH264;
    uint32_t maxPayload = 0;
    uint32_t framesPerPacket = 0;
    uint32_t fileType = MP4_FILE_MPEG4;
    CMp4HintTrackContext* context = nullptr;
};

// Writes one media track of these samples, hints it and closes the file.
std::string writeHinted(const std::string& name, const HintRequest& request,
                        const std::vector<Bytes>& samples) {
    const std::string path = tempPath(name);
    File file;
    EXPECT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, request.fileType));
    CMp4Track* track = nullptr;
    EXPECT_EQ(MP4_OK, file->addTrack(&track));
    EXPECT_EQ(MP4_OK, track->setTrackType(request.trackKind));
    EXPECT_EQ(MP4_OK, track->setTimeScale(request.timeScale));
    EXPECT_EQ(MP4_OK, track->addSampleEntry(&request.entry));
    for (size_t i = 0; i < samples.size(); ++i) {
        const uint64_t time = i * request.sampleDuration;
        EXPECT_EQ(MP4_OK, track->addSample(samples[i].data(), static_cast<uint32_t>(samples[i].size()),
                                           time, time, true));
    }
    EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    if (request.context) {
        EXPECT_EQ(MP4_OK, file->setHintTrackContext(request.context));
    }
    CMp4RtpHintTrack* raw = nullptr;
    EXPECT_EQ(MP4_OK, file->createHintTrack(&raw, request.hintKind));
    std::unique_ptr<CMp4RtpHintTrack> hint(raw);
    EXPECT_EQ(MP4_OK, hint->setMediaTrack(1));
    if (request.maxPayload) {
        EXPECT_EQ(MP4_OK, hint->setMaxPayloadSize(request.maxPayload));
    }
    if (request.framesPerPacket) {
        EXPECT_EQ(MP4_OK, hint->setFramesPerPacket(request.framesPerPacket));
    }
    EXPECT_EQ(MP4_OK, file->addHintTrack(hint.get()));
    EXPECT_EQ(MP4_OK, file->close());
    return path;
}

struct Packet {
    bool marker;
    uint8_t payloadType;
    uint16_t sequence;
    uint32_t timestamp;
    Bytes payload;
};

// Every packet of every hint sample of track 2, as the read side produces them.
std::vector<std::vector<Packet>> packetsOf(const std::string& path, std::string* sdp = nullptr) {
    File file;
    EXPECT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    CMp4RtpHintTrack* raw = nullptr;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, file->getHintTrack(1, &raw));  // the media track
    EXPECT_EQ(MP4_OK, file->getHintTrack(2, &raw));
    std::unique_ptr<CMp4RtpHintTrack> hint(raw);
    std::vector<std::vector<Packet>> result;
    if (!hint) return result;
    if (sdp) {
        char* text = nullptr;
        EXPECT_EQ(MP4_OK, hint->getTrackSdp(&text));
        *sdp = text ? text : "";
        delete[] text;
    }
    uint32_t samples = 0;
    EXPECT_EQ(MP4_OK, hint->getHintSampleCount(&samples));
    Bytes buffer(70000);
    for (uint32_t s = 1; s <= samples; ++s) {
        uint32_t count = 0;
        EXPECT_EQ(MP4_OK, hint->getPacketCount(s, &count));
        std::vector<Packet> packets;
        for (uint32_t p = 1; p <= count; ++p) {
            uint32_t length = 0;
            EXPECT_EQ(MP4_OK, hint->getPacket(s, p, buffer.data(), static_cast<uint32_t>(buffer.size()), &length));
            EXPECT_EQ(0x80, buffer[0]);
            packets.push_back({(buffer[1] & 0x80) != 0, static_cast<uint8_t>(buffer[1] & 0x7F),
                               static_cast<uint16_t>(buffer[2] << 8 | buffer[3]),
                               static_cast<uint32_t>(buffer[4] << 24 | buffer[5] << 16 | buffer[6] << 8 | buffer[7]),
                               Bytes(buffer.begin() + 12, buffer.begin() + length)});
        }
        result.push_back(std::move(packets));
    }
    return result;
}

Bytes pattern(size_t size, uint8_t seed, uint8_t first) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    bytes[0] = first;
    return bytes;
}

Bytes lengthPrefixed(const std::vector<Bytes>& nals) {
    ByteWriter out;
    for (const Bytes& nal : nals) out.u32(static_cast<uint32_t>(nal.size())).raw(nal);
    return out;
}

const Bytes kAvcC = {1, 0x42, 0xC0, 0x0D, 0xFF, 0xE1, 0, 4, 0x67, 0x42, 0xC0, 0x0D, 1, 0, 2, 0x68, 0xCE};

TEST(Packetizers, H264AggregatesSmallNalsAndFragmentsLargeOnes) {
    const std::vector<Bytes> frame1 = {pattern(10, 1, 0x06), pattern(20, 2, 0x61), pattern(3000, 3, 0x65)};
    const std::vector<Bytes> frame2 = {pattern(100, 4, 0x41)};
    HintRequest request;
    request.entry.format = fourcc("avc1");
    request.entry.width = 320;
    request.entry.height = 240;
    request.entry.config = kAvcC.data();
    request.entry.configLength = static_cast<uint32_t>(kAvcC.size());
    std::string sdp;
    auto samples = packetsOf(writeHinted("h264.mp4", request,
                                         {lengthPrefixed(frame1), lengthPrefixed(frame2)}), &sdp);
    ASSERT_EQ(2u, samples.size());

    // Frame 1: one STAP-A, then FU-A fragments of at most 1450 bytes.
    const auto& packets = samples[0];
    ASSERT_EQ(4u, packets.size());
    const Bytes& stap = packets[0].payload;
    EXPECT_EQ(0x60 | 24, stap[0]);  // highest NRI of the two
    EXPECT_EQ(Bytes(ByteWriter().u8(stap[0]).u16(10).raw(frame1[0]).u16(20).raw(frame1[1])), stap);
    Bytes nal = {static_cast<uint8_t>((packets[1].payload[0] & 0xE0) | (packets[1].payload[1] & 0x1F))};
    for (size_t i = 1; i < packets.size(); ++i) {
        const Bytes& fu = packets[i].payload;
        EXPECT_LE(fu.size(), 1450u);
        EXPECT_EQ(0x60 | 28, fu[0]);
        EXPECT_EQ((i == 1 ? 0x80 : 0) | (i == 3 ? 0x40 : 0) | 5, fu[1]);
        EXPECT_EQ(i == 3, packets[i].marker);
        nal.insert(nal.end(), fu.begin() + 2, fu.end());
    }
    EXPECT_EQ(frame1[2], nal);
    EXPECT_FALSE(packets[0].marker);
    // Sequence numbers run on; the timestamp is the frame's time.
    EXPECT_EQ(packets[0].sequence + 3, packets[3].sequence);
    EXPECT_EQ(packets[0].timestamp, packets[3].timestamp);

    // Frame 2: one NAL unit alone.
    ASSERT_EQ(1u, samples[1].size());
    EXPECT_EQ(frame2[0], samples[1][0].payload);
    EXPECT_TRUE(samples[1][0].marker);
    EXPECT_EQ(3000u, samples[1][0].timestamp - packets[0].timestamp);

    EXPECT_EQ(0u, sdp.find("m=video 0 RTP/AVP 96\r\nb=AS:"));
    EXPECT_NE(std::string::npos, sdp.find("\r\na=rtpmap:96 H264/90000\r\na=range:npt=0-"));
    EXPECT_NE(std::string::npos, sdp.find("\r\na=cliprect:0, 0, 240, 320\r\na=framesize:96 320-240\r\n"
                                          "a=control:trackID=2\r\na=fmtp:96 packetization-mode=1;"
                                          "profile-level-id=42c00d;sprop-parameter-sets=Z0LADQ==,aM4=\r\n"));
}

TEST(Packetizers, AacAccessUnitsShareAPacketBehindTheirHeaders) {
    const uint8_t asc[2] = {0x14, 0x08};
    HintRequest request;
    request.entry.format = fourcc("mp4a");
    request.entry.sampleRate = 16000;
    request.entry.channels = 1;
    request.entry.config = asc;
    request.entry.configLength = 2;
    request.trackKind = MP4_TRACK_AUDIO;
    request.timeScale = 16000;
    request.sampleDuration = 1024;
    request.hintKind = kHintAac;
    const std::vector<Bytes> units = {pattern(100, 1, 0x21), pattern(200, 2, 0x21), pattern(2000, 3, 0x21)};
    std::string sdp;
    auto samples = packetsOf(writeHinted("aac.mp4", request, units), &sdp);
    ASSERT_EQ(2u, samples.size());  // the first two together, the large one alone
    ASSERT_EQ(1u, samples[0].size());
    EXPECT_EQ(Bytes(ByteWriter().u16(32).u16(100 << 3).u16(200 << 3).raw(units[0]).raw(units[1])),
              samples[0][0].payload);
    EXPECT_TRUE(samples[0][0].marker);
    // 2000 bytes do not fit 1450: fragments, each with the whole AU's header.
    ASSERT_EQ(2u, samples[1].size());
    Bytes joined;
    for (const Packet& packet : samples[1]) {
        EXPECT_EQ(Bytes(ByteWriter().u16(16).u16(2000 << 3)), Bytes(packet.payload.begin(), packet.payload.begin() + 4));
        joined.insert(joined.end(), packet.payload.begin() + 4, packet.payload.end());
    }
    EXPECT_EQ(units[2], joined);
    EXPECT_FALSE(samples[1][0].marker);
    EXPECT_TRUE(samples[1][1].marker);
    EXPECT_EQ(2048u, samples[1][0].timestamp - samples[0][0].timestamp);
    EXPECT_NE(std::string::npos, sdp.find("a=rtpmap:96 mpeg4-generic/16000/1\r\na=control:trackID=2\r\n"
                                          "a=mpeg4-esid:1\r\na=fmtp:96 profile-level-id=15;mode=AAC-hbr;"
                                          "sizelength=13;indexlength=3;indexdeltalength=3;config=1408\r\n"));
}

TEST(Packetizers, LatmCarriesLengthInfoAndConfigGoesToTheSdp) {
    std::vector<uint8_t> config;
    const uint8_t asc[2] = {0x14, 0x08};
    ASSERT_EQ(MP4_OK, CRfc3016LatmHintTrackImpl::streamMuxConfig(asc, 2, &config));
    EXPECT_EQ((std::vector<uint8_t>{0x40, 0x00, 0x28, 0x10, 0x3F, 0xC0}), config);

    HintRequest request;
    request.entry.format = fourcc("mp4a");
    request.entry.sampleRate = 16000;
    request.entry.channels = 1;
    request.entry.config = asc;
    request.entry.configLength = 2;
    request.trackKind = MP4_TRACK_AUDIO;
    request.timeScale = 16000;
    request.sampleDuration = 1024;
    request.hintKind = kHintAacLatm;
    const Bytes unit = pattern(300, 5, 0x21);
    std::string sdp;
    auto samples = packetsOf(writeHinted("latm.mp4", request, {unit, unit}), &sdp);
    ASSERT_EQ(2u, samples.size());
    EXPECT_EQ(Bytes(ByteWriter().u8(0xFF).u8(45).raw(unit)), samples[0][0].payload);
    EXPECT_NE(std::string::npos, sdp.find("object=2;cpresent=0;config=400028103FC0\r\n"));
}

TEST(Packetizers, H263LeavesOutThePictureStartZeros) {
    HintRequest request;
    request.entry.format = fourcc("s263");
    request.entry.width = 176;
    request.entry.height = 144;
    request.hintKind = kHintH263;
    const Bytes picture = ByteWriter().u16(0).raw(pattern(2000, 9, 0x80));
    std::string sdp;
    auto samples = packetsOf(writeHinted("h263.3gp", request, {picture}), &sdp);
    ASSERT_EQ(1u, samples.size());
    ASSERT_EQ(2u, samples[0].size());
    EXPECT_EQ(0x04, samples[0][0].payload[0]);  // P
    EXPECT_EQ(0x00, samples[0][1].payload[0]);
    Bytes joined = {0, 0};
    for (const Packet& packet : samples[0]) joined.insert(joined.end(), packet.payload.begin() + 2, packet.payload.end());
    EXPECT_EQ(picture, joined);
    EXPECT_NE(std::string::npos, sdp.find("a=rtpmap:96 H263-2000/90000\r\n"));
    EXPECT_NE(std::string::npos, sdp.find("a=fmtp:96 profile=0;level=10;\r\n"));
}

TEST(Packetizers, AmrTableOfContentsAndFramesPerPacket) {
    HintRequest request;
    request.entry.format = fourcc("samr");
    request.trackKind = MP4_TRACK_AUDIO;
    request.timeScale = 8000;
    request.sampleDuration = 160;
    request.hintKind = kHintAmr;
    request.framesPerPacket = 10;
    // 12.2 kbit/s frames (type 7, 31 bytes), one a sample, then a NO_DATA frame.
    std::vector<Bytes> frames;
    for (uint8_t i = 0; i < 11; ++i) frames.push_back(ByteWriter().u8(0x3C).raw(pattern(31, i, i)));
    frames.push_back({0x7C});
    std::string sdp;
    auto samples = packetsOf(writeHinted("amr.3gp", request, frames), &sdp);
    ASSERT_EQ(2u, samples.size());  // ten frames, then the last two
    const Bytes& first = samples[0][0].payload;
    EXPECT_EQ(0xF0, first[0]);  // no mode request
    for (int i = 1; i <= 10; ++i) EXPECT_EQ(i < 10 ? 0xBC : 0x3C, first[i]);
    EXPECT_EQ(11u + 10 * 31, first.size());
    EXPECT_EQ(Bytes(frames[0].begin() + 1, frames[0].end()), Bytes(first.begin() + 11, first.begin() + 42));
    EXPECT_TRUE(samples[0][0].marker);
    EXPECT_EQ(Bytes(ByteWriter().u8(0xF0).u8(0xBC).u8(0x7C).raw(Bytes(frames[10].begin() + 1, frames[10].end()))),
              samples[1][0].payload);
    EXPECT_NE(std::string::npos, sdp.find("a=rtpmap:96 AMR/8000/1\r\n"));
    EXPECT_NE(std::string::npos, sdp.find("a=maxptime:200\r\na=fmtp:96 channels=1;octet-align=1\r\n"));
}

TEST(Packetizers, Mpeg4VisualCutsAtThePayloadSize) {
    HintRequest request;
    request.entry.format = fourcc("mp4v");
    request.entry.width = 176;
    request.entry.height = 144;
    const Bytes vol = {0x00, 0x00, 0x01, 0xB0, 0x08, 0x00, 0x00, 0x01, 0xB5};
    request.entry.config = vol.data();
    request.entry.configLength = static_cast<uint32_t>(vol.size());
    request.hintKind = kHintMpeg4Video;
    request.maxPayload = 500;
    const Bytes frame = pattern(1200, 3, 0);
    std::string sdp;
    auto samples = packetsOf(writeHinted("mp4v.mp4", request, {frame}), &sdp);
    ASSERT_EQ(3u, samples[0].size());
    EXPECT_EQ(500u, samples[0][0].payload.size());
    EXPECT_EQ(200u, samples[0][2].payload.size());
    EXPECT_TRUE(samples[0][2].marker);
    EXPECT_NE(std::string::npos, sdp.find("a=cliprect:0,0,144,176\r\n"
                                          "a=fmtp:96 profile-level-id=8;config=000001B008000001B5\r\n"
                                          "a=mpeg4-esid:1\r\n"));
}

// ---- session description ------------------------------------------------------------

class ReplacingContext : public CMp4HintTrackContext {
public:
    const char* replaceSessionSdp(const char* sdp) override {
        offered = sdp;
        return "a=x-replaced\r\n";
    }
    std::string offered;
};

std::string sessionSdp(const std::string& path) {
    File file;
    EXPECT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    char buffer[2048] = {};
    EXPECT_EQ(MP4_ERR_BUFFER_TOO_SMALL, file->getSessionSdp(reinterpret_cast<uint8_t*>(buffer), 4));
    EXPECT_EQ(MP4_OK, file->getSessionSdp(reinterpret_cast<uint8_t*>(buffer), sizeof(buffer)));
    return buffer;
}

TEST(SessionSdp, IsmaDescriptorForMpeg4FilesPlainTextOtherwiseAndTheContextsReplacement) {
    HintRequest request;
    request.entry.format = fourcc("mp4v");
    request.entry.width = 176;
    request.entry.height = 144;
    request.hintKind = kHintMpeg4Video;
    const Bytes frame = pattern(100, 3, 0);
    const std::string isma = sessionSdp(writeHinted("session0.mp4", request, {frame}));
    const std::string prefix = "a=control:*\r\na=isma-compliance:1,1.0,1\r\na=mpeg4-iod: \"data:application/mpeg4-iod;base64,";
    ASSERT_EQ(0u, isma.find(prefix));
    const std::string encoded = isma.substr(prefix.size(), isma.find('"', prefix.size()) - prefix.size());

    request.fileType = MP4_FILE_3GPP4;
    EXPECT_EQ("a=control:*\r\na=isma-compliance:2,2.0,2.0\r\n",
              sessionSdp(writeHinted("session1.3gp", request, {frame})));

    ReplacingContext context;
    request.context = &context;
    EXPECT_EQ("a=x-replaced\r\n", sessionSdp(writeHinted("session2.3gp", request, {frame})));
    EXPECT_EQ("a=control:*\r\na=isma-compliance:2,2.0,2.0\r\n", context.offered);
    EXPECT_FALSE(encoded.empty());
}

TEST(Isma, ObjectDescriptorAndSceneTracksForTwoMediaTracks) {
    const std::string path = tempPath("isma-od.mp4");
    {
        File file;
        ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 1, MP4_FILE_MPEG4));
        const uint8_t asc[2] = {0x14, 0x08};
        for (uint32_t kind : {MP4_TRACK_VIDEO, MP4_TRACK_AUDIO}) {
            CMp4Track* track = nullptr;
            ASSERT_EQ(MP4_OK, file->addTrack(&track));
            ASSERT_EQ(MP4_OK, track->setTrackType(kind));
            MP4SampleEntryInfo entry{};
            entry.format = kind == MP4_TRACK_VIDEO ? fourcc("mp4v") : fourcc("mp4a");
            entry.width = 176;
            entry.height = 144;
            entry.sampleRate = 16000;
            entry.channels = 1;
            entry.config = kind == MP4_TRACK_AUDIO ? asc : nullptr;
            entry.configLength = kind == MP4_TRACK_AUDIO ? 2 : 0;
            ASSERT_EQ(MP4_OK, track->addSampleEntry(&entry));
            const Bytes sample = pattern(50, 1, 0);
            ASSERT_EQ(MP4_OK, track->addSample(sample.data(), 50, 0, 0, true));
            ASSERT_EQ(MP4_OK, file->releaseTrack(track));
        }
        ASSERT_EQ(MP4_OK, file->addIsmaObjectDescriptorTrack(1, 2));
    }
    File file;
    ASSERT_EQ(MP4_OK, file->open(wide(path).c_str(), 0, 0));
    const uint32_t expectedKinds[2] = {MP4_TRACK_SCENE_DESCRIPTION, MP4_TRACK_OBJECT_DESCRIPTOR};
    const uint8_t firstBytes[2] = {0xC0, 0x01};  // scene replacement, OD update
    for (uint32_t i = 0; i < 2; ++i) {
        CMp4Track* track = nullptr;
        ASSERT_EQ(MP4_OK, file->getTrack(3 + i, &track));
        uint32_t kind = 0;
        EXPECT_EQ(MP4_OK, track->getTrackType(&kind));
        EXPECT_EQ(expectedKinds[i], kind);
        uint8_t bytes[64];
        uint32_t size = 0;
        EXPECT_EQ(MP4_OK, track->readSample(1, sizeof(bytes), &size, bytes));
        EXPECT_EQ(firstBytes[i], bytes[0]);
        EXPECT_EQ(MP4_OK, file->releaseTrack(track));
    }
}

// ---- ISMA functions ----------------------------------------------------------------------

TEST(Isma, DescriptorRoundTripsThroughDecode) {
    char video[3] = {1, 2, 3}, audio[2] = {0x14, 0x08};
    char iod[1024];
    uint32_t length = 10;
    EXPECT_EQ(MP4_ERR_BUFFER_TOO_SMALL, CMp4File::createIsmaIod(true, true, video, 3, audio, 2, iod, &length));
    length = sizeof(iod);
    ASSERT_EQ(MP4_OK, CMp4File::createIsmaIod(true, true, video, 3, audio, 2, iod, &length));
    EXPECT_EQ(0x02, iod[0]);  // InitialObjectDescriptor

    uint32_t count = 0;
    MP4TrackType* types = nullptr;
    uint32_t* lengths = nullptr;
    char** configs = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::decodeIsmaIod(iod, length, &count, &types, &lengths, &configs));
    ASSERT_EQ(2u, count);
    EXPECT_EQ(MP4_TRACK_VIDEO, types[0]);
    EXPECT_EQ(MP4_TRACK_AUDIO, types[1]);
    EXPECT_EQ(Bytes(video, video + 3), Bytes(configs[0], configs[0] + lengths[0]));
    EXPECT_EQ(Bytes(audio, audio + 2), Bytes(configs[1], configs[1] + lengths[1]));
    for (uint32_t i = 0; i < count; ++i) delete[] configs[i];
    delete[] configs;
    delete[] lengths;
    delete[] types;

    EXPECT_EQ(MP4_ERR_INVALID_DATA, CMp4File::decodeIsmaIod(iod, length / 2, &count, &types, &lengths, &configs));
    EXPECT_EQ(nullptr, types);
}

TEST(Isma, DecodesAnIodWhoseSceneStreamSetsTheOcrFlag) {
    char* command = nullptr;
    uint32_t commandLength = 0;
    char audio[2] = {0x14, 0x08};
    ASSERT_EQ(MP4_OK, CMp4File::createIsmaODUpdateCommand(0, 101, 0, nullptr, 0, audio, 2, nullptr,
                                                          nullptr, &command, &commandLength));
    std::string base64;
    {
        // The OD access unit as a data URL, as in an SDP description.
        static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (uint32_t i = 0; i < commandLength; i += 3) {
            uint32_t n = static_cast<uint8_t>(command[i]) << 16;
            if (i + 1 < commandLength) n |= static_cast<uint8_t>(command[i + 1]) << 8;
            if (i + 2 < commandLength) n |= static_cast<uint8_t>(command[i + 2]);
            base64 += kAlphabet[n >> 18];
            base64 += kAlphabet[(n >> 12) & 63];
            base64 += i + 1 < commandLength ? kAlphabet[(n >> 6) & 63] : '=';
            base64 += i + 2 < commandLength ? kAlphabet[n & 63] : '=';
        }
    }
    delete[] command;
    const std::string odUrl = "data:application/mpeg4-od-au;base64," + base64;
    auto descriptor = [](uint8_t tag, const Bytes& payload) {  // 2-byte size field
        const uint32_t size = static_cast<uint32_t>(payload.size());
        return Bytes(ByteWriter().u8(tag).u8(0x80 | (size >> 7)).u8(size & 0x7F).raw(payload));
    };
    const Bytes sl = descriptor(0x06, {0x02});
    const Bytes sceneEs = descriptor(0x03, ByteWriter().u16(1).u8(0x20).u16(2)  // OCR flag, OCR ES 2
                                               .raw(descriptor(0x04, ByteWriter().u8(2).u8(0x0D).zeros(11)))
                                               .raw(sl));
    const Bytes odEs = descriptor(0x03, ByteWriter().u16(2).u8(0x40).u8(static_cast<uint8_t>(odUrl.size()))
                                            .str(odUrl, false)
                                            .raw(descriptor(0x04, ByteWriter().u8(1).u8(0x05).zeros(11)))
                                            .raw(sl));
    const Bytes iod = descriptor(0x02, ByteWriter().u16(0x004F).u8(1).u8(1).u8(0x28).u8(1).u8(0xFF)
                                           .raw(sceneEs).raw(odEs));
    uint32_t count = 0;
    MP4TrackType* types = nullptr;
    uint32_t* lengths = nullptr;
    char** configs = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::decodeIsmaIod(reinterpret_cast<const char*>(iod.data()),
                                              static_cast<uint32_t>(iod.size()), &count, &types,
                                              &lengths, &configs));
    ASSERT_EQ(1u, count);
    EXPECT_EQ(MP4_TRACK_AUDIO, types[0]);
    EXPECT_EQ(2u, lengths[0]);
    delete[] configs[0];
    delete[] configs;
    delete[] lengths;
    delete[] types;
}

TEST(Isma, BifsCommandsAndObjectDescriptorUpdates) {
    const uint32_t lengths[3][3] = {{1, 0, 11}, {0, 1, 8}, {1, 1, 16}};
    for (const auto& row : lengths) {
        char* command = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(MP4_OK, CMp4File::createIsmaBifsCommand(row[0], row[1], &command, &length));
        EXPECT_EQ(row[2], length);
        EXPECT_EQ(static_cast<char>(0xC0), command[0]);  // scene replacement
        delete[] command;
    }
    char* command = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(MP4_ERR_NO_TRACKS, CMp4File::createIsmaBifsCommand(0, 0, &command, &length));

    uint32_t bitrate = 64000;
    ASSERT_EQ(MP4_OK, CMp4File::createIsmaODUpdateCommand(1, 2, 0, nullptr, 0, nullptr, 0, &bitrate,
                                                          &bitrate, &command, &length));
    // ObjectDescriptorUpdate, then the video OD (ID 20) first.
    EXPECT_EQ(0x01, command[0]);
    EXPECT_EQ(0x01, command[2]);
    EXPECT_EQ(20, ((static_cast<uint8_t>(command[4]) << 8 | static_cast<uint8_t>(command[5])) >> 6));
    delete[] command;
    // In an OD track the streams are named by reference.
    ASSERT_EQ(MP4_OK, CMp4File::createIsmaODUpdateCommand(1, 2, 3, nullptr, 0, nullptr, 0, nullptr,
                                                          nullptr, &command, &length));
    EXPECT_EQ(0x11, command[2]);  // MP4_OD
    delete[] command;
}

}  // namespace
}  // namespace quil
