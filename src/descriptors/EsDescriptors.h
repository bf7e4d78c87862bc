// The elementary stream descriptor family (ISO/IEC 14496-1 §7.2.6):
// the ES descriptor with its decoder configuration, decoder-specific info,
// SL configuration and the ES ID references of MP4 files.
#ifndef QUIL_DESCRIPTORS_ESDESCRIPTORS_H
#define QUIL_DESCRIPTORS_ESDESCRIPTORS_H

#include <cstdint>
#include <memory>

#include "descriptors/Descriptor.h"

namespace quil {

// DecoderSpecificInfo (tag 0x05): opaque codec set-up bytes, e.g. an
// AudioSpecificConfig.
class CDecoderSpecificInfo : public CBaseDescriptor {
public:
    CDecoderSpecificInfo() : CBaseDescriptor(kDecSpecificInfoTag) {}

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calcSize() override;
    template <class IO>
    MP4Err fields(IO& io);

    // Replaces the bytes; with null data the length is reserved as zeros.
    MP4Err setData(const uint8_t* bytes, uint32_t length);

    std::unique_ptr<uint8_t[]> data;
    uint32_t dataLength = 0;
};

// DecoderConfigDescriptor (tag 0x04).
class CDecoderConfigDescriptor : public CFieldDescriptor<CDecoderConfigDescriptor, true> {
public:
    CDecoderConfigDescriptor() : CFieldDescriptor(kDecoderConfigDescrTag) {}

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // Stores the bytes in the first DecoderSpecificInfo child, appending one
    // when there is none. 3 for a zero length; null bytes reserve zeros.
    MP4Err setDecoderSpecificInfo(const uint8_t* bytes, uint32_t length);
    // The first DecoderSpecificInfo child, or 3.
    MP4Err findDecoderSpecificInfo(CDecoderSpecificInfo** info) const;

    uint8_t objectTypeIndication = 0;
    uint8_t streamType = 0;  // 6 bits
    uint32_t upStream = 0;
    uint32_t bufferSizeDB = 0;  // 24 bits
    uint32_t maxBitrate = 0;
    uint32_t avgBitrate = 0;
    std::unique_ptr<CDescriptorList> children;
};

// SLConfigDescriptor (tag 0x06). Only the predefined forms are written.
class CSLConfigDescriptor : public CBaseDescriptor {
public:
    CSLConfigDescriptor() : CBaseDescriptor(kSLConfigDescrTag) {}

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calcSize() override;
    // Reading keeps this library's long-standing quirks (see the source);
    // only the predefined forms without durations or start time stamps
    // are written.
    template <class IO>
    MP4Err fields(IO& io);

    // Clears the fields a predefined value (1 or 2) fixes.
    void applyPredefined();

    uint8_t predefined = 0;
    // Each flag holds its masked bit value: non-zero means set.
    uint32_t useAccessUnitStartFlag = 0;
    uint32_t useAccessUnitEndFlag = 0;
    uint32_t useRandomAccessPointFlag = 0;
    uint32_t hasRandomAccessUnitsOnlyFlag = 0;
    uint32_t usePaddingFlag = 0;
    uint32_t useTimeStampsFlag = 0;
    uint32_t useIdleFlag = 0;
    uint32_t durationFlag = 0;
    uint32_t timeStampResolution = 0;
    uint32_t OCRResolution = 0;
    uint8_t timeStampLength = 0;
    uint8_t OCRLength = 0;
    uint8_t AU_Length = 0;
    uint8_t instantBitrateLength = 0;
    uint8_t degradationPriorityLength = 0;
    uint8_t AU_seqNumLength = 0;
    uint8_t packetSeqNumLength = 0;
    uint8_t extension = 0;
    uint32_t timeScale = 0;
    uint16_t accessUnitDuration = 0;
    uint16_t compositionUnitDuration = 0;
    uint64_t startDecodingTimeStamp = 0;
    uint64_t startCompositionTimeStamp = 0;

private:
    template <class IO>
    void customFields(IO& io);
    template <class IO>
    MP4Err startTimeStamps(IO& io);
    MP4Err checkWritable() const;
};

// ES_ID_Inc (tag 0x0E, ISO/IEC 14496-14 §3.1.2): names a track in an
// initial object descriptor.
class CESIDInc : public CFieldDescriptor<CESIDInc> {
public:
    CESIDInc() : CFieldDescriptor(kESIDIncTag) {}

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t Track_ID = 0;
};

// ES_ID_Ref (tag 0x0F, ISO/IEC 14496-14 §3.1.3): a 1-based index into the
// "mpod" track references.
class CESIDRef : public CFieldDescriptor<CESIDRef> {
public:
    CESIDRef() : CFieldDescriptor(kESIDRefTag) {}

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint16_t ref_index = 0;
};

// ES_Descriptor (tag 0x03).
class CESDescriptor : public CBaseDescriptor {
public:
    CESDescriptor() : CBaseDescriptor(kESDescrTag) {}

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calcSize() override;
    template <class IO>
    MP4Err fields(IO& io);

    // Appends a new decoder configuration (other fields 0) with the
    // decoder-specific bytes when length is non-zero. 5 if one exists.
    MP4Err setDecoderConfig(uint8_t objectType, uint8_t stream, const uint8_t* bytes,
                            uint32_t length);
    // Makes the SL configuration if absent and sets its predefined value;
    // 5 for values other than 0, 1 and 2.
    MP4Err setSLConfig(uint8_t predefinedValue);
    // Copies the URL and sets URL_Flag. 2 for null bytes or more than 255.
    MP4Err setURL(const uint8_t* bytes, uint32_t length);
    // Copies the decoder-specific bytes when *length (always set) fits in
    // capacity. 3 without a decoder configuration or specific info.
    MP4Err getDecoderSpecificInfo(uint8_t* buffer, uint32_t capacity, uint32_t* length) const;
    MP4Err getDecoderSpecificInfoLength(uint32_t* length) const;
    // Takes ownership of a child descriptor.
    MP4Err addDescriptor(CBaseDescriptor* child);

    uint16_t ES_ID = 0;
    uint32_t streamDependenceFlag = 0;
    uint32_t URL_Flag = 0;
    uint32_t OCRstreamFlag = 0;
    uint8_t streamPriority = 0;
    uint16_t dependsOn_ES_ID = 0;
    uint8_t URLlength = 0;
    std::unique_ptr<uint8_t[]> URLstring;  // URLlength bytes and a zero
    // Not owned: the first children with tags 4 and 6.
    CDecoderConfigDescriptor* decoderConfig = nullptr;
    CSLConfigDescriptor* slConfig = nullptr;
    std::unique_ptr<CDescriptorList> children;

private:
    MP4Err ensureChildren();
    void findMandatoryChildren();
};

}  // namespace quil

#endif
