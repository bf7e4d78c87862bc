#include "HintSample.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "boxes/HintBoxes.h"
#include "io/Dump.h"
#include "io/FieldIO.h"

namespace quil {
namespace {

// Depth at which a packet prints its constructors and TLV boxes, whatever
// its own depth: the packet lines are a fixed two-level block.
constexpr int32_t kPacketChildDepth = 4;

template <class T>
std::unique_ptr<CRTPBaseConstructor> makeConstructor() {
    return std::unique_ptr<CRTPBaseConstructor>(new (std::nothrow) T());
}

MP4Err skipBytes(CStorage* storage, uint32_t count) {
    uint8_t ignored[kConstructorSize];
    return storage->readBytes(ignored, count);
}

}  // namespace

const char* constructorName(uint8_t type) {
    switch (type) {
        case kConstructorNoOp: return "NoOp";
        case kConstructorImmediate: return "Immediate";
        case kConstructorSample: return "Sample";
        case kConstructorSampleDescription: return "SampleDescription";
        default: return "Unknown";
    }
}

// ---- constructors -----------------------------------------------------------

MP4Err CRTPBaseConstructor::dump(int32_t depth) {
    dumpLine(depth, "Constructor type = %s (%d)\n", constructorName(type_),
             static_cast<int32_t>(type_));
    return MP4_OK;
}

MP4Err CRTPBaseConstructor::getType(uint8_t* type) {
    if (!type) return MP4_ERR_INVALID_ARGUMENT;
    *type = type_;
    return MP4_OK;
}

template <class Self>
MP4Err CRTPFieldConstructor<Self>::read(CStorage* storage) {
    uint32_t budget = kConstructorSize - 1;
    return readFields(static_cast<Self*>(this), storage, &budget);
}

template <class Self>
template <class IO>
MP4Err CRTPFieldConstructor<Self>::typedFields(IO& io) {
    return io.u8(type_).ok() ? static_cast<Self*>(this)->fields(io) : io.error();
}

template <class Self>
MP4Err CRTPFieldConstructor<Self>::write(CStorage* storage) {
    FieldWriter io(storage);
    return typedFields(io);
}

template <class Self>
uint64_t CRTPFieldConstructor<Self>::byteCount() {
    FieldCounter io;
    typedFields(io);
    return io.total();
}

template <class IO>
MP4Err CRTPNoOpConstructor::fields(IO& io) {
    uint8_t zeros[kConstructorSize - 1] = {};  // read and dropped, written as zero
    return io.bytes(zeros, sizeof(zeros)).error();
}
template class CRTPFieldConstructor<CRTPNoOpConstructor>;

template <class IO>
MP4Err CRTPImmediateConstructor::fields(IO& io) {
    // All 14 bytes, whatever the count.
    if (!io.u8(count).bytes(data, kImmediateCapacity).ok()) return io.error();
    return !IO::kReads || count <= kImmediateCapacity ? MP4_OK : MP4_ERR_INVALID_DATA;
}
template class CRTPFieldConstructor<CRTPImmediateConstructor>;

MP4Err CRTPImmediateConstructor::dump(int32_t depth) {
    CRTPBaseConstructor::dump(depth);
    printIndent(depth);
    printf("Data count = %d Data:", static_cast<int32_t>(count));
    const uint32_t shown = count <= kImmediateCapacity ? count : kImmediateCapacity;
    for (uint32_t i = 0; i < shown; ++i) printf(" %02x", static_cast<uint32_t>(data[i]));
    printf("\n");
    return MP4_OK;
}

MP4Err CRTPImmediateConstructor::getData(const uint8_t** bytes, uint32_t* byteCount) {
    if (!bytes || !byteCount) return MP4_ERR_INVALID_ARGUMENT;
    *bytes = data;
    *byteCount = count;
    return MP4_OK;
}

template <class IO>
MP4Err CRTPSampleConstructor::fields(IO& io) {
    return io.i8(trackRefIndex)
        .u16(length)
        .u32(sampleNumber)
        .u32(sampleOffset)
        .u16(bytesPerBlock)
        .u16(samplesPerBlock)
        .error();
}
template class CRTPFieldConstructor<CRTPSampleConstructor>;

MP4Err CRTPSampleConstructor::dump(int32_t depth) {
    CRTPBaseConstructor::dump(depth);
    dumpLine(depth, "Track ref index = %d Length = %d Sample number %d\n",
             static_cast<int32_t>(trackRefIndex), static_cast<int32_t>(length),
             static_cast<int32_t>(sampleNumber));
    dumpLine(depth, "Sample offset = %d Bytes per block = %d Sample per block %d\n",
             static_cast<int32_t>(sampleOffset), static_cast<int32_t>(bytesPerBlock),
             static_cast<int32_t>(samplesPerBlock));
    return MP4_OK;
}

template <class IO>
MP4Err CRTPSampleDescriptionConstructor::fields(IO& io) {
    return io.i8(trackRefIndex)
        .u16(length)
        .u32(sampleDescriptionIndex)
        .u32(sampleDescriptionOffset)
        .u32(reserved)
        .error();
}
template class CRTPFieldConstructor<CRTPSampleDescriptionConstructor>;

MP4Err CRTPSampleDescriptionConstructor::dump(int32_t depth) {
    CRTPBaseConstructor::dump(depth);
    dumpLine(depth, "Track ref index = %d Length = %d\n", static_cast<int32_t>(trackRefIndex),
             static_cast<int32_t>(length));
    dumpLine(depth, "Sample description index %d Sample decription offset = %d\n",
             static_cast<int32_t>(sampleDescriptionIndex),
             static_cast<int32_t>(sampleDescriptionOffset));
    return MP4_OK;
}

// ---- packets ----------------------------------------------------------------

template <class IO>
MP4Err CRtpPacket::fields(IO& io) {
    uint8_t flags1 = static_cast<uint8_t>((pBit << 5) | (xBit << 4));
    uint8_t markerAndType = static_cast<uint8_t>((mBit << 7) | payloadType);
    uint8_t reserved = 0;
    uint8_t flags2 = static_cast<uint8_t>((extraFlag << 2) | (bFrameFlag << 1) | repeatFlag);
    io.i32(relativeTime).u8(flags1).u8(markerAndType).u16(sequenceNumber).u8(reserved).u8(flags2).u16(entryCount);
    if (!io.ok()) return io.error();
    if constexpr (IO::kReads) {
        // Deliberately not the bits write() uses: P is taken from 0x40 and X
        // from 0x20, as files of this library have always been read.
        pBit = (flags1 >> 6) & 1;
        xBit = (flags1 >> 5) & 1;
        mBit = (markerAndType >> 7) & 1;
        payloadType = markerAndType & 0x7F;
        extraFlag = (flags2 >> 2) & 1;
        bFrameFlag = (flags2 >> 1) & 1;
        repeatFlag = flags2 & 1;
    }
    if (extraFlag) io.u32(extraInformationLength);
    return io.error();
}

MP4Err CRtpPacket::read(CStorage* storage, uint64_t* bytesLeft) {
    if (*bytesLeft < kPacketHeaderSize) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = readFields(this, storage, bytesLeft);
    if (err != MP4_OK) return err;

    if (extraFlag) {
        err = readExtraInformation(storage, bytesLeft);
        if (err != MP4_OK) return err;
    }
    for (uint32_t i = 0; i < entryCount; ++i) {
        err = readConstructor(storage, bytesLeft);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

// The boxes of the extra information, whose length (read with the fields)
// counts its own four bytes.
MP4Err CRtpPacket::readExtraInformation(CStorage* storage, uint64_t* bytesLeft) {
    constexpr uint32_t kLengthField = sizeof(extraInformationLength);
    if (tlvBoxes) return MP4_ERR_INVALID_DATA;  // a packet is read once
    if (extraInformationLength < kLengthField || extraInformationLength - kLengthField > *bytesLeft) {
        return MP4_ERR_BAD_BOX_SIZE;
    }
    uint64_t start = 0;
    MP4Err err = storage->getPosition(&start);
    if (err != MP4_OK) return err;
    tlvBoxes.reset(new (std::nothrow) CBoxList(nullptr));
    if (!tlvBoxes) return MP4_ERR_OUT_OF_MEMORY;
    uint64_t boxBytes = extraInformationLength - kLengthField;
    err = readChildren(tlvBoxes.get(), storage, &boxBytes);
    if (err != MP4_OK) return err;
    *bytesLeft -= extraInformationLength - kLengthField;
    // A damaged TLV box may stop anywhere inside the list: continue after it.
    return storage->seek(start + extraInformationLength - kLengthField);
}

MP4Err CRtpPacket::readConstructor(CStorage* storage, uint64_t* bytesLeft) {
    if (*bytesLeft < kConstructorSize) return MP4_ERR_BAD_BOX_SIZE;
    uint8_t constructorType = 0;
    MP4Err err = storage->readUInt8(&constructorType);
    if (err != MP4_OK) return err;
    std::unique_ptr<CRTPBaseConstructor> constructor;
    switch (constructorType) {
        case kConstructorNoOp: constructor = makeConstructor<CRTPNoOpConstructor>(); break;
        case kConstructorImmediate: constructor = makeConstructor<CRTPImmediateConstructor>(); break;
        case kConstructorSample: constructor = makeConstructor<CRTPSampleConstructor>(); break;
        case kConstructorSampleDescription:
            constructor = makeConstructor<CRTPSampleDescriptionConstructor>();
            break;
        default:
            err = skipBytes(storage, kConstructorSize - 1);
            return err != MP4_OK ? err : MP4_ERR_UNSUPPORTED;
    }
    if (!constructor) return MP4_ERR_OUT_OF_MEMORY;
    err = constructor->read(storage);
    if (err != MP4_OK) return err;
    *bytesLeft -= kConstructorSize;
    constructors.push_back(std::move(constructor));
    return MP4_OK;
}

MP4Err CRtpPacket::calculateSize(uint64_t* size) {
    uint64_t boxes = 0;
    if (extraFlag) {
        constexpr uint32_t kLengthField = sizeof(extraInformationLength);
        MP4Err err = addChildrenSizes(tlvBoxes.get(), &boxes);
        if (err != MP4_OK) return err;
        if (boxes > UINT32_MAX - kLengthField) return MP4_ERR_VALUE_TOO_LARGE;
        extraInformationLength = static_cast<uint32_t>(kLengthField + boxes);
    }
    uint64_t total = countFields(this) + boxes;
    for (const auto& constructor : constructors) total += constructor->byteCount();
    *size = total;
    return MP4_OK;
}

MP4Err CRtpPacket::write(CStorage* storage) {
    uint64_t ignored = 0;
    MP4Err err = calculateSize(&ignored);  // recomputes the TLV sizes
    if (err != MP4_OK) return err;
    err = writeFields(this, storage);
    if (err == MP4_OK && extraFlag) err = writeChildren(tlvBoxes.get(), storage);
    for (const auto& constructor : constructors) {
        if (err != MP4_OK) break;
        err = constructor->write(storage);
    }
    return err;
}

MP4Err CRtpPacket::dump(int32_t depth) {
    dumpLine(depth, "Relative time: %d RTP header flags P:%d X:%d M:%d\n", relativeTime,
             static_cast<int32_t>(pBit), static_cast<int32_t>(xBit), static_cast<int32_t>(mBit));
    dumpLine(depth, "Payload type: %d RTP sequence seed: %d Extra flag: %d b-frame: %d repeat: %d\n",
             static_cast<int32_t>(payloadType), static_cast<int32_t>(sequenceNumber),
             static_cast<int32_t>(extraFlag), static_cast<int32_t>(bFrameFlag),
             static_cast<int32_t>(repeatFlag));
    dumpLine(depth, "Entry count: %d \n", static_cast<int32_t>(entryCount));
    if (!constructors.empty()) {
        dumpLine(depth, "{\n");
        for (const auto& constructor : constructors) {
            MP4Err err = constructor->dump(kPacketChildDepth);
            if (err != MP4_OK) return err;
        }
        dumpLine(depth, "}\n");
    }
    if (extraFlag) {
        dumpLine(depth, "ExtraInformationLength %d\n", static_cast<int32_t>(extraInformationLength));
        dumpLine(depth, "{\n");
        for (CBoxList::Node* node = tlvBoxes ? tlvBoxes->head() : nullptr; node; node = node->next) {
            MP4Err err = node->box->dump(kPacketChildDepth);
            if (err != MP4_OK) return err;
        }
        dumpLine(depth, "}\n");
    }
    return MP4_OK;
}

MP4Err CRtpPacket::addImmediateData(const uint8_t* bytes, uint32_t byteCount) {
    if (!bytes || byteCount < 1 || byteCount > kImmediateCapacity) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<CRTPImmediateConstructor> immediate(new (std::nothrow) CRTPImmediateConstructor());
    if (!immediate) return MP4_ERR_OUT_OF_MEMORY;
    immediate->count = static_cast<uint8_t>(byteCount);
    std::memcpy(immediate->data, bytes, byteCount);
    constructors.push_back(std::move(immediate));
    ++entryCount;
    return MP4_OK;
}

MP4Err CRtpPacket::addSampleReference(int8_t trackRefIndex, uint16_t byteCount,
                                      uint32_t sampleNumber, uint32_t offset) {
    std::unique_ptr<CRTPSampleConstructor> sample(new (std::nothrow) CRTPSampleConstructor());
    if (!sample) return MP4_ERR_OUT_OF_MEMORY;
    sample->trackRefIndex = trackRefIndex;
    sample->length = byteCount;
    sample->sampleNumber = sampleNumber;
    sample->sampleOffset = offset;
    constructors.push_back(std::move(sample));
    ++entryCount;
    return MP4_OK;
}

uint32_t CRtpPacket::payloadLength() const {
    uint32_t total = 0;
    for (const auto& constructor : constructors) {
        uint8_t kind = 0;
        constructor->getType(&kind);
        if (kind == kConstructorImmediate) {
            total += static_cast<const CRTPImmediateConstructor&>(*constructor).count;
        } else if (kind == kConstructorSample) {
            total += static_cast<const CRTPSampleConstructor&>(*constructor).length;
        } else if (kind == kConstructorSampleDescription) {
            total += static_cast<const CRTPSampleDescriptionConstructor&>(*constructor).length;
        }
    }
    return total;
}

// ---- hint samples -----------------------------------------------------------

template <class IO>
MP4Err CRtpHintSample::fields(IO& io) {
    uint16_t reserved = 0;
    return io.u16(packetCount).u16(reserved).error();
}

MP4Err CRtpHintSample::read(CStorage* storage, uint32_t size) {
    uint64_t bytesLeft = size;
    MP4Err err = readFields(this, storage, &bytesLeft);
    if (err != MP4_OK) return err;
    for (uint32_t i = 0; i < packetCount; ++i) {
        // Checked before the packet is made, so that a damaged count
        // allocates nothing beyond what the sample's bytes can describe.
        if (bytesLeft < kPacketHeaderSize) return MP4_ERR_BAD_BOX_SIZE;
        std::unique_ptr<CRtpPacket> packet(new (std::nothrow) CRtpPacket());
        if (!packet) return MP4_ERR_OUT_OF_MEMORY;
        err = packet->read(storage, &bytesLeft);
        if (err != MP4_OK) return err;
        packets.push_back(std::move(packet));
    }
    extraDataOffset = size - static_cast<uint32_t>(bytesLeft);
    extraDataLength = static_cast<uint32_t>(bytesLeft);
    extraData.reset();
    if (extraDataLength == 0) return MP4_OK;
    extraData.reset(new (std::nothrow) uint8_t[extraDataLength]);
    if (!extraData) return MP4_ERR_OUT_OF_MEMORY;
    return storage->readBytes(extraData.get(), extraDataLength);
}

MP4Err CRtpHintSample::calculateSize(uint64_t* size) {
    uint64_t total = countFields(this);
    for (const auto& packet : packets) {
        uint64_t packetSize = 0;
        MP4Err err = packet->calculateSize(&packetSize);
        if (err != MP4_OK) return err;
        total += packetSize;
    }
    extraDataOffset = total > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(total);
    *size = total + extraDataLength;
    return MP4_OK;
}

MP4Err CRtpHintSample::write(CStorage* storage) {
    MP4Err err = writeFields(this, storage);
    for (const auto& packet : packets) {
        if (err != MP4_OK) break;
        err = packet->write(storage);
    }
    if (err == MP4_OK && extraDataLength > 0) {
        err = storage->writeBlock(extraData.get(), static_cast<int32_t>(extraDataLength));
    }
    return err;
}

MP4Err CRtpHintSample::dump(int32_t depth) {
    dumpLine(depth, "Packet count: %d Extra data: %u bytes\n", static_cast<int32_t>(packetCount),
             extraDataLength);
    for (const auto& packet : packets) {
        MP4Err err = packet->dump(depth + 1);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CRtpHintSample::startPacket(uint8_t payloadType, uint16_t sequenceNumber,
                                   uint32_t relativeTime, int32_t rtpoOffset,
                                   CRtpPacket** packet) {
    *packet = nullptr;
    if (packetCount == UINT16_MAX) return MP4_ERR_VALUE_TOO_LARGE;
    std::unique_ptr<CRtpPacket> made(new (std::nothrow) CRtpPacket());
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    made->payloadType = payloadType;
    made->sequenceNumber = sequenceNumber;
    made->relativeTime = static_cast<int32_t>(relativeTime);
    if (rtpoOffset >= 1) {
        made->tlvBoxes.reset(new (std::nothrow) CBoxList(nullptr));
        std::unique_ptr<CRTPOffsetTLVBox> rtpo(new (std::nothrow) CRTPOffsetTLVBox());
        if (!made->tlvBoxes || !rtpo) return MP4_ERR_OUT_OF_MEMORY;
        rtpo->value = static_cast<uint32_t>(rtpoOffset);
        MP4Err err = made->tlvBoxes->append(rtpo.get());
        if (err != MP4_OK) return err;
        rtpo.release();
        made->extraFlag = 1;
    }
    *packet = made.get();
    packets.push_back(std::move(made));
    ++packetCount;
    return MP4_OK;
}

}  // namespace quil
