// Test helper shared by the hint tests and the hint fuzzer: a small file
// in memory with a video track of three samples (10, 20 and 30 bytes, byte
// i of a sample of size n holding n + i) and a hint track whose only
// sample is the given hint sample.
#ifndef QUIL_TESTS_HINTFILEBUILDER_H
#define QUIL_TESTS_HINTFILEBUILDER_H

#include "BoxBuilder.h"

namespace quil {
namespace test {

constexpr uint32_t kHintMediaSizes[3] = {10, 20, 30};

inline Bytes trackBox(uint32_t trackId, const char* handler, const Bytes& mediaHeader,
                      const Bytes& entry, const Bytes& sizes, uint32_t sampleCount,
                      uint32_t chunkOffset, const Bytes& extra) {
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
inline Bytes fileWithHintSample(const uint8_t* data, size_t size) {
    const Bytes ftyp = box("ftyp", ByteWriter().code("isom").u32(0).code("isom"));
    const uint32_t mediaOffset = static_cast<uint32_t>(ftyp.size() + 8);
    Bytes media;
    for (uint32_t sampleSize : kHintMediaSizes) {
        for (uint32_t i = 0; i < sampleSize; ++i) media.push_back(static_cast<uint8_t>(sampleSize + i));
    }
    const uint32_t hintOffset = mediaOffset + static_cast<uint32_t>(media.size());
    const Bytes mdat = box("mdat", ByteWriter().raw(media).raw(Bytes(data, data + size)));

    const Bytes visualEntry = box("mp4v", ByteWriter().zeros(6).u16(1).zeros(16).u16(176).u16(144)
        .u32(0x480000).u32(0x480000).u32(0).u16(1).zeros(32).u16(24).u16(0xFFFF));
    ByteWriter mediaSizes;
    for (uint32_t sampleSize : kHintMediaSizes) mediaSizes.u32(sampleSize);
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

}  // namespace test
}  // namespace quil

#endif
