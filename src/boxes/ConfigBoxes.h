// Boxes that wrap a decoder configuration record ("avcC", "hvcC") or an
// MPEG-4 systems descriptor ("esds", "iods").
#ifndef QUIL_BOXES_CONFIGBOXES_H
#define QUIL_BOXES_CONFIGBOXES_H

#include <cstdint>
#include <memory>

#include "Box.h"
#include "descriptors/ConfigRecords.h"
#include "descriptors/EsDescriptors.h"
#include "descriptors/ObjectDescriptors.h"

namespace quil {

// "avcC" (ISO/IEC 14496-15 §5.4.2.1): owns one AVC decoder configuration
// record.
class CAVCConfigurationBox : public CBox {
public:
    CAVCConfigurationBox() { type = fourcc("avcC"); }

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;

    // The record, or 3 when the box holds none.
    MP4Err getRecord(CAVCDecoderConfigRecord** out) const;

    std::unique_ptr<CAVCDecoderConfigRecord> record;
    // The payload exactly as the file holds it (the record rewrites a few
    // fields in its own form), kept for callers that hand it to a decoder.
    // Empty for a box made in memory.
    std::unique_ptr<uint8_t[]> fileBytes;
    uint32_t fileByteCount = 0;
};

// "hvcC" (ISO/IEC 14496-15 §8.4.1.1): owns one HEVC decoder configuration
// record.
class CHEVCConfigurationBox : public CBox {
public:
    CHEVCConfigurationBox() { type = fourcc("hvcC"); }

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;

    MP4Err getRecord(CHEVCDecoderConfigRecord** out) const;

    std::unique_ptr<CHEVCDecoderConfigRecord> record;
    // The payload exactly as the file holds it (the record rewrites a few
    // fields in its own form), kept for callers that hand it to a decoder.
    // Empty for a box made in memory.
    std::unique_ptr<uint8_t[]> fileBytes;
    uint32_t fileByteCount = 0;
};

// "esds" (ISO/IEC 14496-14 §5.6): owns one ES descriptor.
class CESDBox : public CFullBox {
public:
    CESDBox() { type = fourcc("esds"); }

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;

    // What the track code asks of the stream; 3 without a descriptor or
    // decoder configuration.
    MP4Err getESDescriptor(CESDescriptor** out) const;
    MP4Err getObjectTypeIndication(uint8_t* out) const;
    MP4Err getStreamType(uint8_t* out) const;
    MP4Err getBitRates(uint32_t* bufferSizeDB, uint32_t* maxBitrate, uint32_t* avgBitrate) const;
    // The decoder-specific bytes: *length is always set, the bytes are
    // copied only when they fit in capacity.
    MP4Err getDecoderSpecificInfo(uint8_t* buffer, uint32_t capacity, uint32_t* length) const;
    MP4Err getDecoderSpecificInfoLength(uint32_t* length) const;

    std::unique_ptr<CESDescriptor> esDescriptor;

private:
    MP4Err getDecoderConfig(CDecoderConfigDescriptor** out) const;
};

// "iods" (ISO/IEC 14496-14 §5.5): owns the initial object descriptor.
class CObjectDescriptorBox : public CFullBox {
public:
    CObjectDescriptorBox() { type = fourcc("iods"); }

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;

    // The descriptor, or 3 when there is none.
    MP4Err getDescriptor(CInitialObjectDescriptor** out) const;
    // Makes an empty MP4_IOD (tag 0x10) when the box holds none; 1 on
    // allocation failure.
    MP4Err createDescriptor(CInitialObjectDescriptor** out);

    std::unique_ptr<CInitialObjectDescriptor> descriptor;
};

}  // namespace quil

#endif
