// libFuzzer target for RTP hint samples and their constructors. The input
// is one hint sample: it is parsed, dumped, sized and written back, and it
// is also placed as the only sample of a hint track in a small file held in
// memory, next to a media track of three samples, so that every packet it
// describes is produced. Constructors pointing outside their sample, their
// track or the sample description must give an error, never a read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "../tests/BoxBuilder.h"
#include "hint/HintSample.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"

namespace {

using namespace quil;
using test::box;
using test::Bytes;
using test::ByteWriter;
using test::fullBox;

constexpr size_t kMaxInput = 1 << 16;
constexpr uint32_t kMaxPacketsWalked = 4096;
const uint32_t kMediaSizes[3] = {10, 20, 30};

Bytes trackBox(uint32_t trackId, const char* handler, const Bytes& mediaHeader,
               const Bytes& entry, const Bytes& sizes, uint32_t sampleCount, uint32_t chunkOffset,
               const Bytes& extra) {
    const Bytes stbl = box("stbl", ByteWriter()
        .raw(fullBox("stsd", 0, 0, ByteWriter().u32(1).raw(entry)))
        .raw(fullBox("stts", 0, 0, ByteWriter().u32(1).u32(sampleCount).u32(1000)))
        .raw(fullBox("stsc", 0, 0, ByteWriter().u32(1).u32(1).u32(sampleCount).u32(1)))
        .raw(fullBox("stsz", 0, 0, ByteWriter().u32(0).u32(sampleCount).raw(sizes)))
        .raw(fullBox("stco", 0, 0, ByteWriter().u32(1).u32(chunkOffset))));
    const Bytes dinf = box("dinf", fullBox("dref", 0, 0, ByteWriter().u32(1).raw(fullBox("url ", 0, 1, {}))));
    const Bytes mdia = box("mdia", ByteWriter()
        .raw(fullBox("mdhd", 0, 0, ByteWriter().u32(0).u32(0).u32(90000).u32(1000 * sampleCount).u16(0x55C4).u16(0)))
        .raw(fullBox("hdlr", 0, 0, ByteWriter().u32(0).code(handler).zeros(12).u8(0)))
        .raw(box("minf", ByteWriter().raw(mediaHeader).raw(dinf).raw(stbl))));
    const Bytes tkhd = fullBox("tkhd", 0, 7, ByteWriter().u32(0).u32(0).u32(trackId).u32(0).u32(1000)
        .zeros(8).u16(0).u16(0).u16(0).u16(0).u32(0x10000).zeros(12).u32(0x10000).zeros(12)
        .u32(0x40000000).u32(0).u32(0));
    return box("trak", ByteWriter().raw(tkhd).raw(extra).raw(mdia));
}

// ftyp, mdat (media samples, then the hint sample), moov.
Bytes fileWithHintSample(const uint8_t* data, size_t size) {
    const Bytes ftyp = box("ftyp", ByteWriter().code("isom").u32(0).code("isom"));
    const uint32_t mediaOffset = static_cast<uint32_t>(ftyp.size() + 8);
    Bytes media;
    for (uint32_t sampleSize : kMediaSizes) {
        for (uint32_t i = 0; i < sampleSize; ++i) media.push_back(static_cast<uint8_t>(sampleSize + i));
    }
    const uint32_t hintOffset = mediaOffset + static_cast<uint32_t>(media.size());
    const Bytes mdat = box("mdat", ByteWriter().raw(media).raw(Bytes(data, data + size)));

    const Bytes visualEntry = box("mp4v", ByteWriter().zeros(6).u16(1).zeros(16).u16(176).u16(144)
        .u32(0x480000).u32(0x480000).u32(0).u16(1).zeros(32).u16(24).u16(0xFFFF));
    ByteWriter mediaSizes;
    for (uint32_t sampleSize : kMediaSizes) mediaSizes.u32(sampleSize);
    const Bytes mediaTrak = trackBox(1, "vide", fullBox("vmhd", 0, 1, Bytes(8, 0)), visualEntry,
                                     mediaSizes, 3, mediaOffset, {});
    const Bytes rtpEntry = box("rtp ", ByteWriter().zeros(6).u16(1).u16(1).u16(1).u32(1500)
        .raw(box("tims", ByteWriter().u32(90000))));
    const Bytes tref = box("tref", box("hint", ByteWriter().u32(1)));
    const Bytes hintTrak = trackBox(2, "hint", fullBox("hmhd", 0, 0, Bytes(16, 0)), rtpEntry,
                                    ByteWriter().u32(static_cast<uint32_t>(size)), 1, hintOffset, tref);
    const Bytes mvhd = fullBox("mvhd", 0, 0, ByteWriter().u32(0).u32(0).u32(1000).u32(3000)
        .u32(0x10000).u16(0x100).zeros(10).u32(0x10000).zeros(12).u32(0x10000).zeros(12)
        .u32(0x40000000).zeros(24).u32(3));
    return test::concat({ftyp, mdat, box("moov", ByteWriter().raw(mvhd).raw(mediaTrak).raw(hintTrak))});
}

void parseAlone(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
    storage.open(0);
    CRtpHintSample sample;
    if (sample.read(&storage, static_cast<uint32_t>(bytes.size())) != MP4_OK) return;
    sample.dump(1);
    uint64_t expected = 0;
    if (sample.calculateSize(&expected) != MP4_OK || expected > kMaxInput * 4) return;
    std::vector<uint8_t> out(expected + 1);
    CMemoryStorage writer;
    writer.attach(out.data(), static_cast<uint32_t>(expected), true);
    writer.open(1);
    // What was read writes back in exactly the size announced.
    if (sample.write(&writer) == MP4_OK && writer.position() != expected) abort();
}

void producePackets(const uint8_t* data, size_t size) {
    Bytes file = fileWithHintSample(data, size);
    CMemoryStorage storage;
    storage.attach(file.data(), static_cast<uint32_t>(file.size()), false);
    CMp4File* mp4 = nullptr;
    if (CMp4File::createInstance(&mp4) != MP4_OK) return;
    if (mp4->setStorage(&storage) == MP4_OK && mp4->open(L"memory", 0, 0) == MP4_OK) {
        CMp4RtpHintTrack* hint = nullptr;
        if (mp4->getHintTrack(2, &hint) == MP4_OK) {
            std::unique_ptr<CMp4RtpHintTrack> owned(hint);
            uint32_t packets = 0;
            (void)hint->dumpHintSample(1);
            if (hint->getPacketCount(1, &packets) == MP4_OK) {
                std::vector<uint8_t> buffer(1 << 17);
                for (uint32_t p = 1; p <= packets && p <= kMaxPacketsWalked; ++p) {
                    uint32_t length = 0;
                    MP4Err err = hint->getPacket(1, p, buffer.data(), static_cast<uint32_t>(buffer.size()), &length);
                    if (err == MP4_OK && (length < 12 || length > buffer.size())) abort();
                    // One byte short must be refused without writing past it.
                    if (err == MP4_OK && length > 12) {
                        (void)hint->getPacket(1, p, buffer.data(), length - 1, &length);
                    }
                }
            }
        }
        (void)mp4->close();
    }
    CMp4File::destroyInstance(&mp4);
    storage.detach();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Dumps are exercised, not read.
    if (!freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    parseAlone(data, size);
    producePackets(data, size);
    return 0;
}
