// Codec-specific child boxes of the sample entries: H.263 and AMR set-up
// bytes, bit rates, pixel aspect ratio, and the QuickTime sound extensions
// ("wave", "enda", "chan") plus Apple's private AVC "uuid".
#ifndef QUIL_BOXES_CODECBOXES_H
#define QUIL_BOXES_CODECBOXES_H

#include <cstdint>
#include <memory>

#include "Box.h"

namespace quil {

// A box whose whole payload is kept as raw bytes. "d263" and "damr" share
// this behaviour and differ only in their type.
class CCodecSpecificDataBox : public CFieldBox<CCodecSpecificDataBox, CBox> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // Replaces the payload with a copy of the bytes (null with length 0
    // empties it). 2 for a null buffer with a non-zero length, 1 when the
    // copy cannot be allocated.
    MP4Err setData(const uint8_t* bytes, uint32_t byteCount);

    uint32_t length = 0;
    std::unique_ptr<uint8_t[]> data;  // length bytes, or none

protected:
    explicit CCodecSpecificDataBox(uint32_t boxType) { type = boxType; }
    // The payload byte at offset, 3 when the payload is too short.
    MP4Err byteAt(uint32_t offset, uint8_t* value) const;
};

// "d263", 3GPP H263SpecificBox: vendor (4), decoder version (1), level
// (1), profile (1), optionally followed by a bit-rate box.
class CH263SpecificBox : public CCodecSpecificDataBox {
public:
    CH263SpecificBox() : CCodecSpecificDataBox(fourcc("d263")) {}
    MP4Err getLevel(uint8_t* level) const { return byteAt(5, level); }
    MP4Err getProfile(uint8_t* profile) const { return byteAt(6, profile); }
};

// "damr", 3GPP AMRSpecificBox: vendor (4), decoder version (1), mode set
// (2), mode change period (1), frames per sample (1).
class CAMRSpecificBox : public CCodecSpecificDataBox {
public:
    CAMRSpecificBox() : CCodecSpecificDataBox(fourcc("damr")) {}
    MP4Err getModeSet(uint16_t* modeSet) const;
    MP4Err getModeChangePeriod(uint8_t* period) const { return byteAt(7, period); }
    MP4Err getFramesPerSample(uint8_t* frames) const { return byteAt(8, frames); }
};

// "btrt", ISO/IEC 14496-12 §8.5.2 BitRateBox.
class CMPEG4BitRateBox : public CFieldBox<CMPEG4BitRateBox, CBox> {
public:
    CMPEG4BitRateBox() { type = fourcc("btrt"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t bufferSizeDB = 0;
    uint32_t maxBitrate = 0;
    uint32_t avgBitrate = 0;
};

// "pasp", ISO/IEC 14496-12 §12.1.4 PixelAspectRatioBox.
class CPixelAspectRatioBox : public CFieldBox<CPixelAspectRatioBox, CBox> {
public:
    CPixelAspectRatioBox() { type = fourcc("pasp"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t hSpacing = 1;
    uint32_t vSpacing = 1;
};

// "wave", the QuickTime sound extension container. The factory treats the
// audio sample-entry codes inside it as unknown boxes, and a zero type ends
// it (QuickTime writes an 8-byte terminator).
class CWaveBox : public CContainerBox {
public:
    CWaveBox() { type = fourcc("wave"); }
};

// "enda": 0 big-endian, non-zero little-endian samples. The value is not
// interpreted here; the sound entry that holds the box decides.
class CEndianFormatBox : public CFieldBox<CEndianFormatBox, CBox> {
public:
    CEndianFormatBox() { type = fourcc("enda"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint16_t data = 0;
};

// "pcmC" (ISO/IEC 23003-5): format flags (bit 0: little-endian samples)
// and the bits of one PCM sample, of an "ipcm" or "fpcm" entry.
class CPcmConfigBox : public CFieldBox<CPcmConfigBox, CFullBox> {
public:
    CPcmConfigBox() { type = fourcc("pcmC"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    bool isLittleEndian() const { return (formatFlags & 1) != 0; }

    uint8_t formatFlags = 0;
    uint8_t sampleSize = 0;  // bits
};

// "chan", the QuickTime audio channel layout. Only its three fixed values
// are kept; channel descriptions after them are skipped when read and not
// written back.
class CChannelCompositionBox : public CFieldBox<CChannelCompositionBox, CFullBox> {
public:
    CChannelCompositionBox() { type = fourcc("chan"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t channelLayoutTag = 0;
    uint32_t channelBitmap = 0;
    uint32_t numberChannelDescriptions = 0;
};

// "uuid" 6B6840F2-5F24-4FC5-BA39-A51BCF0323F3: a 32-bit value Apple
// encoders put into AVC sample entries. Anything after the value is
// ignored.
class CAppleAvcBox : public CFieldBox<CAppleAvcBox, CBox> {
public:
    static const uint8_t kUserType[16];

    // A new box carries its user type, so it can be written at once.
    CAppleAvcBox();
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t value = 0;
};

}  // namespace quil

#endif
