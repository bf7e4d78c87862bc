// Boxes of common encryption (ISO/IEC 23001-7) that a copy must adjust.
#ifndef QUIL_BOXES_ENCRYPTIONBOXES_H
#define QUIL_BOXES_ENCRYPTIONBOXES_H

#include <cstdint>
#include <vector>

#include "boxes/Box.h"

namespace quil {

// "saio" (ISO/IEC 14496-12 §8.7.9): where the samples' auxiliary
// information (the encryption IVs and subsample maps) lies, as file
// offsets (in a track fragment: from its base). Flag 1 adds the
// information's type and parameter.
class CSampleAuxInfoOffsetsBox : public CFullBox {
public:
    CSampleAuxInfoOffsetsBox() { type = fourcc("saio"); }
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;

    // With one offset (the information of all samples back to back), moves
    // it to `offset`; false when it cannot be (several offsets, or one too
    // large for a version-0 box, whose size is already fixed).
    bool moveTo(uint64_t offset);

    uint32_t auxInfoType = 0;
    uint32_t auxInfoTypeParameter = 0;
    std::vector<uint64_t> offsets;
};

// A box whose payload a copy builds in memory: the sample encryption,
// auxiliary information sizes and sample groups gathered from a track's
// fragments into its sample table (read back, such boxes are kept as
// unknown boxes are, so the dump shows their header only).
class CBuiltBox : public CBox {
public:
    explicit CBuiltBox(uint32_t boxType) { type = boxType; }
    MP4Err write(CStorage* storage) override;
    MP4Err calculateSize() override;

    std::vector<uint8_t> payload;
};

// Where the first sample's information starts inside a "senc" box written
// at `boxStart` with that header length: after its version, flags and
// sample count.
inline uint64_t sampleEncryptionDataStart(uint64_t boxStart, uint64_t headerLength) {
    return boxStart + headerLength + 8;
}

}  // namespace quil

#endif
