// A caller's memory buffer used as a storage. The buffer is never
// allocated, grown or freed by the storage.
#ifndef QUIL_STORAGE_MEMORYSTORAGE_H
#define QUIL_STORAGE_MEMORYSTORAGE_H

#include "BaseStorage.h"

namespace quil {

class CMemoryStorage : public CBaseStorage {
public:
    CMemoryStorage() = default;
    ~CMemoryStorage() override = default;

    MP4Err open(uint32_t mode) override;
    MP4Err close() override;
    MP4Err seek(uint64_t position) override;
    MP4Err isEof(uint32_t* eof) override;
    MP4Err flush() override;
    MP4Err getLength(uint64_t* length) override;
    MP4Err getPosition(uint64_t* position) override;
    MP4Err readUInt64(uint64_t* value) override;
    MP4Err readUInt32(uint32_t* value) override;
    MP4Err readUInt24(uint32_t* value) override;
    MP4Err readUInt16(uint16_t* value) override;
    MP4Err readUInt8(uint8_t* value) override;
    MP4Err readInt64(int64_t* value) override;
    MP4Err readInt32(int32_t* value) override;
    MP4Err readInt24(int32_t* value) override;
    MP4Err readInt16(int16_t* value) override;
    MP4Err readInt8(int8_t* value) override;
    MP4Err readBytes(uint8_t* buffer, uint64_t count) override;
    MP4Err readBlock(void* buffer, uint32_t count) override;
    MP4Err skip(uint64_t count) override;
    MP4Err writeUInt64(uint64_t value) override;
    MP4Err writeUInt32(uint32_t value) override;
    MP4Err writeUInt24(uint32_t value) override;
    MP4Err writeUInt16(uint16_t value) override;
    MP4Err writeUInt8(uint8_t value) override;
    MP4Err writeInt64(int64_t value) override;
    MP4Err writeInt32(int32_t value) override;
    MP4Err writeInt24(int32_t value) override;
    MP4Err writeInt16(int16_t value) override;
    MP4Err writeInt8(int8_t value) override;
    MP4Err writeBlock(const void* buffer, int32_t count) override;
    MP4Err writeBytes(const void* buffer, int32_t count) override;

    // Attaches a buffer: size bytes, position 0, enabled for reading
    // (forWrite false) or writing. Does not open the storage.
    void attach(uint8_t* buffer, uint32_t size, bool forWrite);
    // Forgets the buffer so that nothing points at it any more.
    void detach();

    uint8_t* buffer() const { return buffer_; }
    uint32_t position() const { return position_; }

private:
    uint32_t openForRead_ = 0;
    uint32_t openForWrite_ = 0;
    uint8_t* buffer_ = nullptr;
    uint32_t readEnabled_ = 0;
    uint32_t writeEnabled_ = 0;
    uint32_t size_ = 0;
    uint32_t position_ = 0;
};

}  // namespace quil

#endif
