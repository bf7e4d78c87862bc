// The sample description box "stsd" and its sample entries: the visual
// entries (ISO/IEC 14496-12 §12.1.3 and the QuickTime video codes), the
// QuickTime sound description in its versions 0 to 2, the ISO audio entry
// used by AMR (3GPP TS 26.244), the QuickTime time-code entry and the
// MPEG-4 systems entry.
#ifndef QUIL_BOXES_SAMPLEENTRIES_H
#define QUIL_BOXES_SAMPLEENTRIES_H

#include <cstdint>
#include <memory>

#include "Box.h"
#include "CodecBoxes.h"
#include "io/FieldIO.h"

namespace quil {

// "stsd": the entry count, then one sample entry per coding format as
// child boxes. Reading always leaves the storage at the end of the box,
// whatever happened to the entries.
class CSampleDescriptionBox : public CFieldBox<CSampleDescriptionBox, CFullBox> {
public:
    CSampleDescriptionBox() { type = fourcc("stsd"); }
    MP4Err read(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;
    // 5 without a child list (the size then counts no entries).
    MP4Err calculateSize() override;
    MP4Err findChild(uint32_t childType, CBox** box, uint32_t instance = 1) override;
    // Appends an entry and counts it in entryCount.
    MP4Err addChild(CBox* box) override;
    CBoxList* childList() override { return children.get(); }

    // The index-th entry (1-based) whatever its type; entries of unknown
    // formats are plain boxes. 17 for index 0, 3 when there is no such
    // entry.
    MP4Err getEntry(uint32_t index, CBox** entry);

    // As read from the file; reading does not check it against the
    // entries actually present, and writing writes it as it stands.
    uint32_t entryCount = 0;
    std::unique_ptr<CBoxList> children;
};

// Base of every sample entry: 6 reserved bytes (zero when written, ignored
// when read) and the data reference index, then the format's own fields
// and its child boxes.
class CSampleEntry : public CBox {
public:
    MP4Err findChild(uint32_t childType, CBox** box, uint32_t instance = 1) override;
    MP4Err addChild(CBox* box) override;
    CBoxList* childList() override { return children.get(); }

    // The first child of that type if it is of class T; 3 otherwise.
    template <class T>
    MP4Err findChildAs(uint32_t childType, T** box) {
        *box = nullptr;
        CBox* found = nullptr;
        MP4Err err = findChild(childType, &found);
        if (err != MP4_OK) return err;
        *box = dynamic_cast<T*>(found);
        return *box ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
    }

    uint16_t dataReferenceIndex = 1;
    // Codec boxes of the entry; none until a child is read or added.
    std::unique_ptr<CBoxList> children;

protected:
    explicit CSampleEntry(uint32_t format) { type = format; }

    // The 6 reserved bytes (zero when written) and the data reference
    // index; a reader refuses them together (6) when fewer than 8 payload
    // bytes remain.
    template <class IO>
    IO& startFields(IO& io);
    // Ends an entry's fields: a reader goes on with the child boxes over
    // what remains of the payload (writing and sizing take the children
    // from CFieldBox).
    template <class IO>
    MP4Err childrenAfterFields(IO& io);
    // "m_ui16DataReferenceIndex: %d\n" (after the "Box type" line).
    void dumpDataReferenceIndex(int32_t depth);
    // Creates the child list (5 if there is one already) and reads the
    // children over what remains of the payload.
    MP4Err readEntryChildren(CStorage* storage);
};

template <class IO>
IO& CSampleEntry::startFields(IO& io) {
    if (IO::kReads && remaining < 8) return io.fail(MP4_ERR_BAD_BOX_SIZE);
    uint8_t reserved[6] = {};
    return io.bytes(reserved, sizeof(reserved)).u16(dataReferenceIndex);
}

// ISO/IEC 14496-12 VisualSampleEntry, also the plain entry of the
// QuickTime video codes ("raw ", "cvid", "dvc ", ...).
class CVisualSampleEntry : public CFieldBox<CVisualSampleEntry, CSampleEntry> {
public:
    // format is the coding name (the box type).
    explicit CVisualSampleEntry(uint32_t format = 0);
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // Width and height as the unsigned pixel counts they denote.
    uint32_t frameWidth() const { return static_cast<uint16_t>(width); }
    uint32_t frameHeight() const { return static_cast<uint16_t>(height); }
    // Stores a name of at most 31 characters as the counted string of the
    // compressor name field (longer names are cut; null clears it).
    void setCompressorName(const char* name);

    MP4Err getBitRateBox(CMPEG4BitRateBox** box) { return findChildAs(fourcc("btrt"), box); }
    MP4Err getPixelAspectRatioBox(CPixelAspectRatioBox** box) {
        return findChildAs(fourcc("pasp"), box);
    }

    uint16_t preDefined1 = 0;
    int16_t reserved1 = 0;
    uint32_t preDefined2[3] = {0, 0, 0};
    int16_t width = 0;
    int16_t height = 0;
    int32_t horizResolution = 0x00480000;  // 72 dpi, 16.16
    int32_t vertResolution = 0x00480000;
    int32_t reserved2 = 0;
    int16_t frameCount = 1;
    uint8_t compressorName[32] = {};  // first byte: length of the name
    int16_t depth = 0x0018;
    int16_t preDefined3 = -1;
};

// Companion base of the MPEG-4 entries ("mp4v", "mp4a", "mp4s"): access
// to the elementary stream descriptor box.
class CMP4SampleEntry {
public:
    virtual ~CMP4SampleEntry() = default;
    // The entry's "esds" box (a CESDBox): a direct child or, in QuickTime
    // sound descriptions, the one inside the "wave" child. 3 when absent.
    MP4Err getESDBox(CBox** esds);

protected:
    CMP4SampleEntry() = default;
    // The sample entry this companion belongs to.
    virtual CSampleEntry* sampleEntry() = 0;
};

// "avc1": children "avcC" (a CAVCConfigurationBox), "btrt", "pasp" and
// Apple's private "uuid".
class CAVCSampleEntry : public CVisualSampleEntry {
public:
    CAVCSampleEntry() : CVisualSampleEntry(fourcc("avc1")) {}
    MP4Err getAVCConfigurationBox(CBox** avcC) { return findChild(fourcc("avcC"), avcC); }
    MP4Err getAppleAvcBox(CAppleAvcBox** box);
};

// "hvc1" or "hev1": child "hvcC" (a CHEVCConfigurationBox).
class CHEVCSampleEntry : public CVisualSampleEntry {
public:
    explicit CHEVCSampleEntry(uint32_t format = fourcc("hvc1")) : CVisualSampleEntry(format) {}
    MP4Err getHEVCConfigurationBox(CBox** hvcC) { return findChild(fourcc("hvcC"), hvcC); }
};

// "s263" (3GPP H.263): child "d263".
class CH263SampleEntry : public CVisualSampleEntry {
public:
    CH263SampleEntry() : CVisualSampleEntry(fourcc("s263")) {}
    MP4Err getH263SpecificBox(CH263SpecificBox** box) { return findChildAs(fourcc("d263"), box); }
};

// "jpeg" (Motion JPEG, QuickTime).
class CMjpegSampleEntry : public CVisualSampleEntry {
public:
    CMjpegSampleEntry() : CVisualSampleEntry(fourcc("jpeg")) {}
};

// "mp4v" (ISO/IEC 14496-14 MP4VisualSampleEntry): child "esds".
class CMP4VisualSampleEntry : public CVisualSampleEntry, public CMP4SampleEntry {
public:
    CMP4VisualSampleEntry() : CVisualSampleEntry(fourcc("mp4v")) {}

protected:
    CSampleEntry* sampleEntry() override { return this; }
};

// The QuickTime sound description, versions 0, 1 and 2, also the plain
// entry of the PCM and QuickTime audio codes. Version 2 descriptions are
// kept as read: written back unchanged by tree writers (writeBox), while
// their own fields refuse them.
class CSoundSampleEntry : public CFieldBox<CSoundSampleEntry, CSampleEntry> {
public:
    explicit CSoundSampleEntry(uint32_t format = 0) : CFieldBox(format) {}
    // Reads the fields; a description of version 2 or later also keeps its
    // bytes, which write and calculateSize then use.
    MP4Err read(CStorage* storage) override;
    // Writing: 5 for a version other than 0 and 1 not read from a file,
    // after the common 20 bytes (version 2 is sized like version 0).
    MP4Err write(CStorage* storage) override;
    MP4Err calculateSize() override;
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // Bytes of one audio sample as the description states it: "bytes per
    // sample" of version 1, "const bytes per audio packet" of version 2,
    // 0 for version 0 (the caller then derives it from the format).
    uint32_t perSampleByteCount() const;
    // Bytes of a compressed chunk of the ADPCM formats 0x6D730011 and
    // 0x6D730002 holding that many audio samples: version 1's "bytes per
    // frame" for each packet ("samples per packet" audio samples) begun,
    // or "bytes per frame" alone without a packet length; 0 otherwise.
    uint32_t perChunkByteCount(uint32_t samplesInChunk) const;

    // A box of that type inside the "wave" child; 3 when there is no
    // "wave" or nothing of that type in it.
    MP4Err findInWave(uint32_t childType, CBox** box);
    // The "enda" box inside "wave" (QuickTime keeps it there).
    MP4Err getEndianFormatBox(CEndianFormatBox** box);
    MP4Err getChannelCompositionBox(CChannelCompositionBox** box) {
        return findChildAs(fourcc("chan"), box);
    }

    uint16_t version = 0;
    uint16_t revisionLevel = 0;
    uint32_t vendor = 0;
    uint16_t channelCount = 0;  // version 2: low 16 bits of the 32-bit count
    uint16_t sampleSize = 0;    // bits per sample
    int16_t compressionId = 0;
    uint16_t packetSize = 0;
    uint16_t sampleRateInteger = 0;   // version 2: derived from audioSampleRate
    uint16_t sampleRateFraction = 0;  // version 2: derived from audioSampleRate
    // Version 1.
    uint32_t samplesPerPacket = 0;
    uint32_t bytesPerPacket = 0;
    uint32_t bytesPerFrame = 0;
    uint32_t bytesPerSample = 0;
    // Version 2.
    uint32_t sizeOfStruct = 0;  // length of the description from the box start
    double audioSampleRate = 0.0;
    uint32_t constBitsPerChannel = 0;
    uint32_t formatSpecificFlags = 0;
    uint32_t constBytesPerAudioPacket = 0;
    uint32_t constLPCMFramesPerAudioPacket = 0;

private:
    MP4Err readVersion2Fields(FieldReader<uint64_t>& io);
    void dumpVersionFields(int32_t depth);
};

// "twos" (16-bit big-endian PCM); behaves exactly like its base.
class CTwosSoundSampleEntry : public CSoundSampleEntry {
public:
    CTwosSoundSampleEntry() : CSoundSampleEntry(fourcc("twos")) {}
};

// "raw " (8-bit offset-binary PCM); behaves exactly like its base.
class CRawSoundSampleEntry : public CSoundSampleEntry {
public:
    CRawSoundSampleEntry() : CSoundSampleEntry(fourcc("raw ")) {}
};

// "mp4a": an MPEG-4 audio entry in the sound description layout (version 0
// is the ISO/IEC 14496-14 MP4AudioSampleEntry); its "esds" is a child or,
// in QuickTime files, inside "wave".
class CMP4AudioSampleEntry : public CSoundSampleEntry, public CMP4SampleEntry {
public:
    CMP4AudioSampleEntry() : CSoundSampleEntry(fourcc("mp4a")) {}

protected:
    CSampleEntry* sampleEntry() override { return this; }
};

// ISO/IEC 14496-12 AudioSampleEntry: 8 reserved bytes, channel count,
// sample size, pre-defined, reserved (zero when written), sample rate as
// 16.16, then child boxes.
class CAudioSampleEntry : public CFieldBox<CAudioSampleEntry, CSampleEntry> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // The integer part of the sample rate, in Hz.
    uint32_t sampleRateHz() const { return sampleRate >> 16; }

    uint16_t channelCount = 2;
    uint16_t sampleSize = 16;
    uint32_t sampleRate = 0;  // 16.16

protected:
    explicit CAudioSampleEntry(uint32_t format) : CFieldBox(format) {}
};

// 3GPP AMR entries (TS 26.244): child "damr". Channel count and sample
// size are fixed at 2 and 16 by the standard.
class CAMRSampleEntry : public CAudioSampleEntry {
public:
    MP4Err getAMRSpecificBox(CAMRSpecificBox** box) { return findChildAs(fourcc("damr"), box); }

protected:
    CAMRSampleEntry(uint32_t format, uint32_t rateHz) : CAudioSampleEntry(format) {
        sampleRate = rateHz << 16;
    }
};

// "samr": AMR narrow-band, 8000 Hz.
class CAMRNBSampleEntry : public CAMRSampleEntry {
public:
    CAMRNBSampleEntry() : CAMRSampleEntry(fourcc("samr"), 8000) {}
};

// "sawb": AMR wide-band, 16000 Hz.
class CAMRWBSampleEntry : public CAMRSampleEntry {
public:
    CAMRWBSampleEntry() : CAMRSampleEntry(fourcc("sawb"), 16000) {}
};

// "tmcd" in "stsd": the QuickTime time-code description. After the
// sample-entry start: reserved (u32), flags, time scale, frame duration,
// number of frames (u8), reserved (u8), then child boxes. Reserved fields
// are written as zero.
class CTimeCodeSampleEntry : public CFieldBox<CTimeCodeSampleEntry, CSampleEntry> {
public:
    // Time-code flag bits.
    static constexpr uint32_t kDropFrame = 0x1;
    static constexpr uint32_t k24HourMax = 0x2;
    static constexpr uint32_t kNegativeTimesOk = 0x4;
    static constexpr uint32_t kCounter = 0x8;

    CTimeCodeSampleEntry() : CFieldBox(fourcc("tmcd")) {}
    // Reading: 6 when the payload is shorter than the fixed fields.
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    bool isDropFrame() const { return (flags & kDropFrame) != 0; }

    uint32_t flags = 0;
    uint32_t timeScale = 0;
    int32_t frameDuration = 0;
    uint8_t numberOfFrames = 0;
};

// "mp4s" (ISO/IEC 14496-14 MpegSampleEntry): the sample-entry start, then
// child boxes ("esds").
class CMP4MpegSampleEntry : public CFieldBox<CMP4MpegSampleEntry, CSampleEntry>, public CMP4SampleEntry {
public:
    CMP4MpegSampleEntry() : CFieldBox(fourcc("mp4s")) {}
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

protected:
    CSampleEntry* sampleEntry() override { return this; }
};

}  // namespace quil

#endif
