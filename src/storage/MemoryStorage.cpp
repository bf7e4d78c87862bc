#include "MemoryStorage.h"

#include <cstring>

namespace quil {
namespace {

// Bounds are tested in 32 bits before any byte moves, so a failing access
// leaves buffer and position untouched. A sum that wraps would pass the
// size test while pointing past the buffer: it is out of range as well.
bool fits(uint32_t position, uint32_t count, uint32_t size) {
    const uint32_t end = position + count;
    return end >= position && end <= size;
}

}  // namespace

void CMemoryStorage::attach(uint8_t* buffer, uint32_t size, bool forWrite) {
    buffer_ = buffer;
    size_ = size;
    position_ = 0;
    readEnabled_ = forWrite ? 0 : 1;
    writeEnabled_ = forWrite ? 1 : 0;
}

void CMemoryStorage::detach() {
    buffer_ = nullptr;
    size_ = 0;
    position_ = 0;
    readEnabled_ = 0;
    writeEnabled_ = 0;
}

MP4Err CMemoryStorage::open(uint32_t mode) {
    if (openForRead_ || openForWrite_) return MP4_ERR_NOT_AVAILABLE;
    if (mode > 1) return MP4_ERR_INVALID_ARGUMENT;
    openForRead_ = mode == 0;
    openForWrite_ = mode == 1;
    return MP4_OK;
}

MP4Err CMemoryStorage::close() {
    if (!openForRead_ && !openForWrite_) return MP4_ERR_NOT_AVAILABLE;
    openForRead_ = 0;
    openForWrite_ = 0;
    return MP4_OK;
}

MP4Err CMemoryStorage::seek(uint64_t position) {
    if (!readEnabled_ && !writeEnabled_) return MP4_ERR_NOT_AVAILABLE;
    if (position > size_) return MP4_ERR_OUT_OF_RANGE;
    position_ = static_cast<uint32_t>(position);
    return MP4_OK;
}

MP4Err CMemoryStorage::isEof(uint32_t* eof) {
    if (eof == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *eof = position_ >= size_ ? 1 : 0;
    return MP4_OK;
}

MP4Err CMemoryStorage::flush() { return MP4_ERR_NOT_AVAILABLE; }

MP4Err CMemoryStorage::getLength(uint64_t* length) {
    if (length == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *length = size_;
    return MP4_OK;
}

MP4Err CMemoryStorage::getPosition(uint64_t* position) {
    if (position == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *position = position_;
    return MP4_OK;
}

namespace {

template <class T>
MP4Err readBigEndian(const uint8_t* buffer, uint32_t* position, uint32_t size, int width,
                     T* value) {
    if (value == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *value = 0;
    if (!fits(*position, static_cast<uint32_t>(width), size)) return MP4_ERR_OUT_OF_RANGE;
    uint64_t v = 0;
    for (int i = 0; i < width; ++i) v = (v << 8) | buffer[*position + i];
    *value = static_cast<T>(v);
    *position += static_cast<uint32_t>(width);
    return MP4_OK;
}

MP4Err writeBigEndian(uint8_t* buffer, uint32_t* position, uint32_t size, int width,
                      uint64_t value) {
    if (!fits(*position, static_cast<uint32_t>(width), size)) return MP4_ERR_OUT_OF_RANGE;
    for (int i = width - 1; i >= 0; --i) {
        buffer[*position + i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
    *position += static_cast<uint32_t>(width);
    return MP4_OK;
}

}  // namespace

MP4Err CMemoryStorage::readUInt64(uint64_t* v) { return readBigEndian(buffer_, &position_, size_, 8, v); }
MP4Err CMemoryStorage::readUInt32(uint32_t* v) { return readBigEndian(buffer_, &position_, size_, 4, v); }
MP4Err CMemoryStorage::readUInt24(uint32_t* v) { return readBigEndian(buffer_, &position_, size_, 3, v); }
MP4Err CMemoryStorage::readUInt16(uint16_t* v) { return readBigEndian(buffer_, &position_, size_, 2, v); }
MP4Err CMemoryStorage::readUInt8(uint8_t* v) { return readBigEndian(buffer_, &position_, size_, 1, v); }
MP4Err CMemoryStorage::readInt64(int64_t* v) { return readBigEndian(buffer_, &position_, size_, 8, v); }
MP4Err CMemoryStorage::readInt32(int32_t* v) { return readBigEndian(buffer_, &position_, size_, 4, v); }
MP4Err CMemoryStorage::readInt24(int32_t* v) { return readBigEndian(buffer_, &position_, size_, 3, v); }
MP4Err CMemoryStorage::readInt16(int16_t* v) { return readBigEndian(buffer_, &position_, size_, 2, v); }
MP4Err CMemoryStorage::readInt8(int8_t* v) { return readBigEndian(buffer_, &position_, size_, 1, v); }

MP4Err CMemoryStorage::readBytes(uint8_t* buffer, uint64_t count) {
    return readBlock(buffer, static_cast<uint32_t>(count));
}

MP4Err CMemoryStorage::readBlock(void* buffer, uint32_t count) {
    if (!fits(position_, count, size_)) return MP4_ERR_OUT_OF_RANGE;
    if (count > 0 && buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    if (count > 0) std::memcpy(buffer, buffer_ + position_, count);
    position_ += count;
    return MP4_OK;
}

MP4Err CMemoryStorage::skip(uint64_t count) {
    // The sum wraps in 32 bits like every bound here; a wrapped target
    // still lands inside the buffer.
    uint32_t target = static_cast<uint32_t>(position_ + static_cast<uint32_t>(count));
    if (target > size_) return MP4_ERR_OUT_OF_RANGE;
    position_ = target;
    return MP4_OK;
}

MP4Err CMemoryStorage::writeUInt64(uint64_t v) { return writeBigEndian(buffer_, &position_, size_, 8, v); }
MP4Err CMemoryStorage::writeUInt32(uint32_t v) { return writeBigEndian(buffer_, &position_, size_, 4, v); }
MP4Err CMemoryStorage::writeUInt24(uint32_t v) { return writeBigEndian(buffer_, &position_, size_, 3, v); }
MP4Err CMemoryStorage::writeUInt16(uint16_t v) { return writeBigEndian(buffer_, &position_, size_, 2, v); }
MP4Err CMemoryStorage::writeUInt8(uint8_t v) { return writeBigEndian(buffer_, &position_, size_, 1, v); }
MP4Err CMemoryStorage::writeInt64(int64_t v) { return writeBigEndian(buffer_, &position_, size_, 8, static_cast<uint64_t>(v)); }
MP4Err CMemoryStorage::writeInt32(int32_t v) { return writeBigEndian(buffer_, &position_, size_, 4, static_cast<uint32_t>(v)); }
MP4Err CMemoryStorage::writeInt24(int32_t v) { return writeBigEndian(buffer_, &position_, size_, 3, static_cast<uint32_t>(v)); }
MP4Err CMemoryStorage::writeInt16(int16_t v) { return writeBigEndian(buffer_, &position_, size_, 2, static_cast<uint16_t>(v)); }
MP4Err CMemoryStorage::writeInt8(int8_t v) { return writeBigEndian(buffer_, &position_, size_, 1, static_cast<uint8_t>(v)); }

MP4Err CMemoryStorage::writeBlock(const void* buffer, int32_t count) {
    return writeBytes(buffer, count);
}

MP4Err CMemoryStorage::writeBytes(const void* buffer, int32_t count) {
    // A negative count or a 32-bit sum that wraps would write outside the
    // buffer: both are out of range.
    if (count < 0) return MP4_ERR_OUT_OF_RANGE;
    uint32_t n = static_cast<uint32_t>(count);
    if (!fits(position_, n, size_)) return MP4_ERR_OUT_OF_RANGE;
    if (n > 0 && buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    if (n > 0) std::memcpy(buffer_ + position_, buffer, n);
    position_ += n;
    return MP4_OK;
}

}  // namespace quil
