#include "CodecBoxes.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "io/Dump.h"
#include "storage/BoundedStorage.h"

namespace quil {

// ---- "d263" and "damr" ----------------------------------------------------

MP4Err CCodecSpecificDataBox::read(CStorage* storage) {
    // The payload is bounded by the parent, so the copy is no larger than
    // the input; a payload beyond 32 bits cannot be held at all.
    if (remaining > UINT32_MAX || remaining > readableBytes(storage)) return MP4_ERR_BAD_BOX_SIZE;
    data.reset();
    length = static_cast<uint32_t>(remaining);
    if (length == 0) return MP4_OK;
    data.reset(new (std::nothrow) uint8_t[length]);
    if (!data) {
        length = 0;
        return MP4_ERR_OUT_OF_MEMORY;
    }
    MP4Err err = storage->readBlock(data.get(), length);
    if (err != MP4_OK) {
        data.reset();
        length = 0;
        return err;
    }
    remaining -= length;
    return MP4_OK;
}

MP4Err CCodecSpecificDataBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    if (length == 0 || !data) return MP4_OK;
    return storage->writeBlock(data.get(), static_cast<int32_t>(length));
}

MP4Err CCodecSpecificDataBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    printIndent(depth);
    printf("{");
    for (uint32_t i = 0; data && i < length; ++i) {
        if (i % 16 == 0) {
            printf("\n");
            printIndent(depth + 1);
        }
        printf("%02x ", data[i]);
    }
    printf("\n");
    printIndent(depth);
    printf("}\n");
    return MP4_OK;
}

MP4Err CCodecSpecificDataBox::calculateSize() {
    CBox::calculateSize();
    size += data ? length : 0;
    return MP4_OK;
}

MP4Err CCodecSpecificDataBox::setData(const uint8_t* bytes, uint32_t byteCount) {
    if (!bytes && byteCount != 0) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<uint8_t[]> copy;
    if (byteCount != 0) {
        copy.reset(new (std::nothrow) uint8_t[byteCount]);
        if (!copy) return MP4_ERR_OUT_OF_MEMORY;
        std::memcpy(copy.get(), bytes, byteCount);
    }
    data = std::move(copy);
    length = byteCount;
    return MP4_OK;
}

MP4Err CCodecSpecificDataBox::byteAt(uint32_t offset, uint8_t* value) const {
    if (!value) return MP4_ERR_INVALID_ARGUMENT;
    *value = 0;
    if (!data || offset >= length) return MP4_ERR_NOT_AVAILABLE;
    *value = data[offset];
    return MP4_OK;
}

MP4Err CAMRSpecificBox::getModeSet(uint16_t* modeSet) const {
    if (!modeSet) return MP4_ERR_INVALID_ARGUMENT;
    *modeSet = 0;
    uint8_t high = 0, low = 0;
    MP4Err err = byteAt(5, &high);
    if (err == MP4_OK) err = byteAt(6, &low);
    if (err != MP4_OK) return err;
    *modeSet = static_cast<uint16_t>((high << 8) | low);
    return MP4_OK;
}

// ---- "btrt" ---------------------------------------------------------------

MP4Err CMPEG4BitRateBox::read(CStorage* storage) {
    uint32_t* fields[] = {&bufferSizeDB, &maxBitrate, &avgBitrate};
    for (uint32_t* field : fields) {
        MP4Err err = storage->readUInt32(field);
        if (err != MP4_OK) return err;
        remaining -= 4;
    }
    return MP4_OK;
}

MP4Err CMPEG4BitRateBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = storage->writeUInt32(bufferSizeDB);
    if (err == MP4_OK) err = storage->writeUInt32(maxBitrate);
    if (err == MP4_OK) err = storage->writeUInt32(avgBitrate);
    return err;
}

MP4Err CMPEG4BitRateBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "BufferSizeDB = %u\n", bufferSizeDB);
    dumpLine(depth, "MaxBitrate = %u\n", maxBitrate);
    dumpLine(depth, "AvgBitrate = %u\n", avgBitrate);
    return MP4_OK;
}

MP4Err CMPEG4BitRateBox::calculateSize() {
    CBox::calculateSize();
    size += 12;
    return MP4_OK;
}

// ---- "pasp" ---------------------------------------------------------------

MP4Err CPixelAspectRatioBox::read(CStorage* storage) {
    if (remaining < 8) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = storage->readUInt32(&hSpacing);
    if (err != MP4_OK) return err;
    err = storage->readUInt32(&vSpacing);
    if (err != MP4_OK) return err;
    remaining -= 8;
    return MP4_OK;
}

MP4Err CPixelAspectRatioBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = storage->writeUInt32(hSpacing);
    if (err == MP4_OK) err = storage->writeUInt32(vSpacing);
    return err;
}

MP4Err CPixelAspectRatioBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Horizontal spacing=%d\n", static_cast<int32_t>(hSpacing));
    dumpLine(depth, "Vertical spacing=%d\n", static_cast<int32_t>(vSpacing));
    return MP4_OK;
}

MP4Err CPixelAspectRatioBox::calculateSize() {
    CBox::calculateSize();
    size += 8;
    return MP4_OK;
}

// ---- "enda" ---------------------------------------------------------------

MP4Err CEndianFormatBox::read(CStorage* storage) {
    if (remaining < 2) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = storage->readUInt16(&data);
    if (err != MP4_OK) return err;
    remaining -= 2;
    return MP4_OK;
}

MP4Err CEndianFormatBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    return storage->writeUInt16(data);
}

MP4Err CEndianFormatBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Data: %u\n", static_cast<uint32_t>(data));
    return MP4_OK;
}

MP4Err CEndianFormatBox::calculateSize() {
    CBox::calculateSize();
    size += 2;
    return MP4_OK;
}

// ---- "pcmC" ---------------------------------------------------------------

MP4Err CPcmConfigBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    if (remaining < 2) return MP4_ERR_BAD_BOX_SIZE;
    if ((err = storage->readUInt8(&formatFlags)) != MP4_OK) return err;
    if ((err = storage->readUInt8(&sampleSize)) != MP4_OK) return err;
    remaining -= 2;
    return MP4_OK;
}

MP4Err CPcmConfigBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt8(formatFlags);
    if (err == MP4_OK) err = storage->writeUInt8(sampleSize);
    return err;
}

MP4Err CPcmConfigBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Format flags = 0x%02x (%s endian)\n", static_cast<uint32_t>(formatFlags),
             isLittleEndian() ? "little" : "big");
    dumpLine(depth, "PCM sample size = %u\n", static_cast<uint32_t>(sampleSize));
    return MP4_OK;
}

MP4Err CPcmConfigBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + 2;
    return MP4_OK;
}

// ---- "chan" ---------------------------------------------------------------

MP4Err CChannelCompositionBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    if (remaining < 12) return MP4_ERR_BAD_BOX_SIZE;
    uint32_t* fields[] = {&channelLayoutTag, &channelBitmap, &numberChannelDescriptions};
    for (uint32_t* field : fields) {
        err = storage->readUInt32(field);
        if (err != MP4_OK) return err;
        remaining -= 4;
    }
    return MP4_OK;
}

MP4Err CChannelCompositionBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(channelLayoutTag);
    if (err == MP4_OK) err = storage->writeUInt32(channelBitmap);
    if (err == MP4_OK) err = storage->writeUInt32(numberChannelDescriptions);
    return err;
}

MP4Err CChannelCompositionBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Data: %u\n", channelLayoutTag);
    dumpLine(depth, "Data: 0x%08x\n", channelBitmap);
    dumpLine(depth, "Data: %u\n", numberChannelDescriptions);
    return MP4_OK;
}

MP4Err CChannelCompositionBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + 12;
    return MP4_OK;
}

// ---- Apple AVC "uuid" -----------------------------------------------------

const uint8_t CAppleAvcBox::kUserType[16] = {0x6B, 0x68, 0x40, 0xF2, 0x5F, 0x24, 0x4F, 0xC5,
                                             0xBA, 0x39, 0xA5, 0x1B, 0xCF, 0x03, 0x23, 0xF3};

CAppleAvcBox::CAppleAvcBox() {
    type = fourcc("uuid");
    // Without the user type (out of memory) writing fails with 5.
    usertype.reset(new (std::nothrow) uint8_t[16]);
    if (usertype) std::memcpy(usertype.get(), kUserType, 16);
}

MP4Err CAppleAvcBox::read(CStorage* storage) {
    if (remaining >= 4) {
        MP4Err err = storage->readUInt32(&value);
        if (err != MP4_OK) return err;
        remaining -= 4;
    }
    MP4Err err = storage->skip(remaining);
    if (err != MP4_OK) return err;
    remaining = 0;
    return MP4_OK;
}

MP4Err CAppleAvcBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    return storage->writeUInt32(value);
}

MP4Err CAppleAvcBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Value: 0x%08x (Apple's private data)\n", value);
    return MP4_OK;
}

MP4Err CAppleAvcBox::calculateSize() {
    CBox::calculateSize();
    size += 4;
    return MP4_OK;
}

}  // namespace quil
