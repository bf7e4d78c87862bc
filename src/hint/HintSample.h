// RTP hint samples (ISO/IEC 14496-12 §9.1.3): a hint sample lists the RTP
// packets of one media sample; each packet carries its RTP header fields
// and a list of 16-byte constructors that say where the payload bytes come
// from (immediate data, a media sample, a sample description).
#ifndef QUIL_HINT_HINTSAMPLE_H
#define QUIL_HINT_HINTSAMPLE_H

#include <cstdint>
#include <memory>
#include <vector>

#include "boxes/Box.h"

namespace quil {

// Every constructor is 16 bytes on the wire: the type byte, then 15 bytes.
constexpr uint32_t kConstructorSize = 16;
constexpr uint32_t kImmediateCapacity = 14;
// relativeTime .. entryCount of a packet record: the least a packet takes.
constexpr uint32_t kPacketHeaderSize = 12;

enum RtpConstructorType : uint8_t {
    kConstructorNoOp = 0,
    kConstructorImmediate = 1,
    kConstructorSample = 2,
    kConstructorSampleDescription = 3
};

class CRTPBaseConstructor {
public:
    virtual ~CRTPBaseConstructor() = default;
    // The type byte has already been consumed by the packet reader.
    virtual MP4Err read(CStorage* storage) = 0;
    // Writes the type byte, then the 15 bytes of the constructor.
    virtual MP4Err write(CStorage* storage) = 0;
    // The bytes write() produces.
    virtual uint64_t byteCount() = 0;
    virtual MP4Err dump(int32_t depth);
    virtual MP4Err getType(uint8_t* type);

protected:
    explicit CRTPBaseConstructor(uint8_t constructorType) : type_(constructorType) {}
    uint8_t type_;
};

// A constructor whose 15 bytes after the type are one field layout: Self
// defines  template <class IO> MP4Err fields(IO& io);  (HintSample.cpp).
template <class Self>
class CRTPFieldConstructor : public CRTPBaseConstructor {
public:
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    uint64_t byteCount() override;

protected:
    using CRTPBaseConstructor::CRTPBaseConstructor;
    // The type byte, then the constructor's own fields.
    template <class IO>
    MP4Err typedFields(IO& io);
};

class CRTPNoOpConstructor : public CRTPFieldConstructor<CRTPNoOpConstructor> {
public:
    CRTPNoOpConstructor() : CRTPFieldConstructor(kConstructorNoOp) {}
    template <class IO>
    MP4Err fields(IO& io);
};

class CRTPImmediateConstructor : public CRTPFieldConstructor<CRTPImmediateConstructor> {
public:
    CRTPImmediateConstructor() : CRTPFieldConstructor(kConstructorImmediate) {}
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err dump(int32_t depth) override;
    virtual MP4Err getData(const uint8_t** bytes, uint32_t* count);

    uint8_t count = 0;
    // All 14 bytes are written, whatever the count.
    uint8_t data[kImmediateCapacity] = {};
};

class CRTPSampleConstructor : public CRTPFieldConstructor<CRTPSampleConstructor> {
public:
    CRTPSampleConstructor() : CRTPFieldConstructor(kConstructorSample) {}
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err dump(int32_t depth) override;

    // -1: the hint track itself; 0..n-1: the n-th track of the "hint"
    // track reference.
    int8_t trackRefIndex = 0;
    uint16_t length = 0;
    uint32_t sampleNumber = 0;  // 1-based
    uint32_t sampleOffset = 0;
    uint16_t bytesPerBlock = 1;
    uint16_t samplesPerBlock = 1;
};

class CRTPSampleDescriptionConstructor : public CRTPFieldConstructor<CRTPSampleDescriptionConstructor> {
public:
    CRTPSampleDescriptionConstructor()
        : CRTPFieldConstructor(kConstructorSampleDescription) {}
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err dump(int32_t depth) override;

    int8_t trackRefIndex = 0;
    uint16_t length = 0;
    uint32_t sampleDescriptionIndex = 0;  // 1-based
    uint32_t sampleDescriptionOffset = 0;
    uint32_t reserved = 0;
};

// The dump name of a constructor type ("NoOp" ... "Unknown").
const char* constructorName(uint8_t type);

// One packet record of a hint sample.
class CRtpPacket {
public:
    // Reads a packet record, lowering *bytesLeft by what it consumes.
    MP4Err read(CStorage* storage, uint64_t* bytesLeft);
    // The 12 header bytes and, when the extra flag is set, the length of
    // the extra information (its boxes follow).
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err write(CStorage* storage);
    // Bytes write() produces (recomputes the TLV boxes' sizes).
    MP4Err calculateSize(uint64_t* size);
    MP4Err dump(int32_t depth);

    // Building: a null pointer or a count outside 1..14 gives 2.
    MP4Err addImmediateData(const uint8_t* bytes, uint32_t byteCount);
    MP4Err addSampleReference(int8_t trackRefIndex, uint16_t byteCount, uint32_t sampleNumber,
                              uint32_t offset);
    // Payload bytes the constructors describe.
    uint32_t payloadLength() const;

    int32_t relativeTime = 0;
    uint32_t pBit = 0;
    uint32_t xBit = 0;
    uint32_t mBit = 0;
    uint8_t payloadType = 0;
    uint16_t sequenceNumber = 0;
    uint32_t extraFlag = 0;
    uint32_t bFrameFlag = 0;
    uint32_t repeatFlag = 0;
    uint16_t entryCount = 0;
    uint32_t extraInformationLength = 0;
    std::unique_ptr<CBoxList> tlvBoxes;
    std::vector<std::unique_ptr<CRTPBaseConstructor>> constructors;

private:
    MP4Err readExtraInformation(CStorage* storage, uint64_t* bytesLeft);
    MP4Err readConstructor(CStorage* storage, uint64_t* bytesLeft);
};

// A whole hint sample: the packets, then whatever data follows them (media
// bytes copied into the hint track live there).
class CRtpHintSample {
public:
    // Reads a hint sample of `size` bytes.
    MP4Err read(CStorage* storage, uint32_t size);
    // packetCount and a reserved field (read and dropped, written as
    // zero); the packets and the extra data follow.
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err write(CStorage* storage);
    MP4Err calculateSize(uint64_t* size);
    MP4Err dump(int32_t depth);

    // Appends a new packet. A time offset of 1 or more adds an "rtpo" TLV
    // box and sets the extra-information flag.
    MP4Err startPacket(uint8_t payloadType, uint16_t sequenceNumber, uint32_t relativeTime,
                       int32_t rtpoOffset, CRtpPacket** packet);

    uint16_t packetCount = 0;
    std::vector<std::unique_ptr<CRtpPacket>> packets;
    std::unique_ptr<uint8_t[]> extraData;
    uint32_t extraDataLength = 0;
    // Where the extra data starts in the sample (bytes before it).
    uint32_t extraDataOffset = 0;
};

}  // namespace quil

#endif
