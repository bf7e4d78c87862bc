#include "BaseStorage.h"

namespace quil {
namespace {

// Accumulates `width` bytes through readUInt8, most significant first,
// stopping at the first error (the partial value is kept).
template <class T>
MP4Err readWide(CStorage* storage, T* value, int width) {
    if (value == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *value = 0;
    for (int i = 0; i < width; ++i) {
        uint8_t byte = 0;
        MP4Err err = storage->readUInt8(&byte);
        if (err != MP4_OK) return err;
        *value = static_cast<T>((*value << 8) | byte);
    }
    return MP4_OK;
}

// Writes the value shifted right by width-1 .. 0 *bits* through writeUInt8.
// This default is only used by a storage that discards what it writes;
// storages that really write override every wide write.
MP4Err writeShiftedBits(CStorage* storage, uint64_t value, int width) {
    for (int shift = width - 1; shift >= 0; --shift) {
        MP4Err err = storage->writeUInt8(static_cast<uint8_t>(value >> shift));
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

}  // namespace

MP4Err CBaseStorage::readUInt64(uint64_t* value) { return readWide(this, value, 8); }
MP4Err CBaseStorage::readUInt32(uint32_t* value) { return readWide(this, value, 4); }
MP4Err CBaseStorage::readUInt24(uint32_t* value) { return readWide(this, value, 3); }
MP4Err CBaseStorage::readUInt16(uint16_t* value) { return readWide(this, value, 2); }

MP4Err CBaseStorage::readInt64(int64_t* value) {
    return readUInt64(reinterpret_cast<uint64_t*>(value));
}
MP4Err CBaseStorage::readInt32(int32_t* value) {
    return readUInt32(reinterpret_cast<uint32_t*>(value));
}
MP4Err CBaseStorage::readInt24(int32_t* value) {
    return readUInt24(reinterpret_cast<uint32_t*>(value));
}
MP4Err CBaseStorage::readInt16(int16_t* value) {
    return readUInt16(reinterpret_cast<uint16_t*>(value));
}
MP4Err CBaseStorage::readInt8(int8_t* value) {
    return readUInt8(reinterpret_cast<uint8_t*>(value));
}

MP4Err CBaseStorage::readBytes(uint8_t* buffer, uint64_t count) {
    // The block read takes a 32-bit count; wider counts wrap, as the
    // interface defines.
    return readBlock(buffer, static_cast<uint32_t>(count));
}

MP4Err CBaseStorage::readString(char*) { return MP4_OK; }

MP4Err CBaseStorage::writeUInt64(uint64_t value) { return writeShiftedBits(this, value, 8); }
MP4Err CBaseStorage::writeUInt32(uint32_t value) { return writeShiftedBits(this, value, 4); }
MP4Err CBaseStorage::writeUInt24(uint32_t value) { return writeShiftedBits(this, value, 3); }
MP4Err CBaseStorage::writeUInt16(uint16_t value) { return writeShiftedBits(this, value, 2); }

MP4Err CBaseStorage::writeInt64(int64_t value) { return writeUInt64(static_cast<uint64_t>(value)); }
MP4Err CBaseStorage::writeInt32(int32_t value) { return writeUInt32(static_cast<uint32_t>(value)); }
MP4Err CBaseStorage::writeInt24(int32_t value) { return writeUInt24(static_cast<uint32_t>(value)); }
MP4Err CBaseStorage::writeInt16(int16_t value) { return writeUInt16(static_cast<uint16_t>(value)); }
MP4Err CBaseStorage::writeInt8(int8_t value) { return writeUInt8(static_cast<uint8_t>(value)); }

MP4Err CBaseStorage::writeBlock(const void* buffer, int32_t count) {
    return writeBytes(buffer, count);
}

MP4Err CBaseStorage::writeBytes(const void* buffer, int32_t count) {
    if (count < 1) return MP4_OK;
    if (buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    const int8_t* bytes = static_cast<const int8_t*>(buffer);
    for (int32_t i = 0; i < count; ++i) {
        MP4Err err = writeInt8(bytes[i]);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CBaseStorage::writeString(const char* text) {
    if (text == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    for (const char* p = text; *p != '\0'; ++p) {
        MP4Err err = writeInt8(static_cast<int8_t>(*p));
        if (err != MP4_OK) return err;
    }
    return writeInt8(0);
}

MP4Err CBaseStorage::readAt(uint64_t offset, uint8_t* buffer, uint32_t count, uint64_t) {
    MP4Err err = seek(offset);
    return err != MP4_OK ? err : readBytes(buffer, count);
}

MP4Err readAt(CStorage* storage, uint64_t offset, uint8_t* buffer, uint32_t count,
              uint64_t readAheadEnd) {
    if (auto* base = dynamic_cast<CBaseStorage*>(storage)) {
        return base->readAt(offset, buffer, count, readAheadEnd);
    }
    MP4Err err = storage->seek(offset);
    return err != MP4_OK ? err : storage->readBytes(buffer, count);
}

bool isNetworkStorage(CStorage* storage) {
    auto* base = dynamic_cast<CBaseStorage*>(storage);
    return base != nullptr && base->isNetworkStorage();
}

}  // namespace quil
