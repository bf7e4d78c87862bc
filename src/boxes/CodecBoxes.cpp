#include "CodecBoxes.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "boxes/FieldBox.h"
#include "io/Dump.h"
#include "storage/BoundedStorage.h"

namespace quil {

// ---- "d263" and "damr" ----------------------------------------------------

template <class IO>
MP4Err CCodecSpecificDataBox::fields(IO& io) {
    if constexpr (IO::kReads) {
        // The payload is bounded by the parent, so the copy is no larger
        // than the input; a payload beyond 32 bits cannot be held at all.
        if (remaining > UINT32_MAX || remaining > readableBytes(io.storage())) {
            return MP4_ERR_BAD_BOX_SIZE;
        }
        data.reset();
        length = static_cast<uint32_t>(remaining);
        if (length == 0) return MP4_OK;
        data.reset(new (std::nothrow) uint8_t[length]);
        if (!data) {
            length = 0;
            return MP4_ERR_OUT_OF_MEMORY;
        }
        if (!io.bytes(data.get(), length).ok()) {
            data.reset();
            length = 0;
        }
        return io.error();
    } else {
        return io.bytes(data.get(), data ? length : 0).error();
    }
}
template class CFieldBox<CCodecSpecificDataBox, CBox>;

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

template <class IO>
MP4Err CMPEG4BitRateBox::fields(IO& io) {
    return io.u32(bufferSizeDB).u32(maxBitrate).u32(avgBitrate).error();
}
template class CFieldBox<CMPEG4BitRateBox, CBox>;

MP4Err CMPEG4BitRateBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "BufferSizeDB = %u\n", bufferSizeDB);
    dumpLine(depth, "MaxBitrate = %u\n", maxBitrate);
    dumpLine(depth, "AvgBitrate = %u\n", avgBitrate);
    return MP4_OK;
}

// ---- "pasp" ---------------------------------------------------------------

template <class IO>
MP4Err CPixelAspectRatioBox::fields(IO& io) {
    return io.require(8).u32(hSpacing).u32(vSpacing).error();
}
template class CFieldBox<CPixelAspectRatioBox, CBox>;

MP4Err CPixelAspectRatioBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Horizontal spacing=%d\n", static_cast<int32_t>(hSpacing));
    dumpLine(depth, "Vertical spacing=%d\n", static_cast<int32_t>(vSpacing));
    return MP4_OK;
}

// ---- "enda" ---------------------------------------------------------------

template <class IO>
MP4Err CEndianFormatBox::fields(IO& io) {
    return io.u16(data).error();
}
template class CFieldBox<CEndianFormatBox, CBox>;

MP4Err CEndianFormatBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Data: %u\n", static_cast<uint32_t>(data));
    return MP4_OK;
}

// ---- "pcmC" ---------------------------------------------------------------

template <class IO>
MP4Err CPcmConfigBox::fields(IO& io) {
    return io.versionAndFlags(version, flags).require(2).u8(formatFlags).u8(sampleSize).error();
}
template class CFieldBox<CPcmConfigBox, CFullBox>;

MP4Err CPcmConfigBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Format flags = 0x%02x (%s endian)\n", static_cast<uint32_t>(formatFlags),
             isLittleEndian() ? "little" : "big");
    dumpLine(depth, "PCM sample size = %u\n", static_cast<uint32_t>(sampleSize));
    return MP4_OK;
}

// ---- "chan" ---------------------------------------------------------------

template <class IO>
MP4Err CChannelCompositionBox::fields(IO& io) {
    return io.versionAndFlags(version, flags)
        .require(12)
        .u32(channelLayoutTag)
        .u32(channelBitmap)
        .u32(numberChannelDescriptions)
        .error();
}
template class CFieldBox<CChannelCompositionBox, CFullBox>;

MP4Err CChannelCompositionBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Data: %u\n", channelLayoutTag);
    dumpLine(depth, "Data: 0x%08x\n", channelBitmap);
    dumpLine(depth, "Data: %u\n", numberChannelDescriptions);
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

template <class IO>
MP4Err CAppleAvcBox::fields(IO& io) {
    if constexpr (IO::kReads) {
        // The value when there is one; the rest of the payload is passed.
        if (remaining >= 4 && !io.u32(value).ok()) return io.error();
        MP4Err err = io.storage()->skip(remaining);
        if (err != MP4_OK) return err;
        remaining = 0;
        return MP4_OK;
    } else {
        return io.u32(value).error();
    }
}
template class CFieldBox<CAppleAvcBox, CBox>;

MP4Err CAppleAvcBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Value: 0x%08x (Apple's private data)\n", value);
    return MP4_OK;
}

}  // namespace quil
