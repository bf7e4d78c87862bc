// quil: the byte storage every box, descriptor and record reads and writes
// through. All multi-byte values are big-endian on the wire.
#ifndef QUIL_STORAGE_H
#define QUIL_STORAGE_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

// Abstract storage. A caller may implement it and install it with
// CMp4File::setStorage; the library's own storages are a file on disc,
// a memory buffer and an HTTP resource.
class QUIL_API CStorage {
public:
    virtual MP4Err open(uint32_t mode) = 0;  // 0 read, 1 write
    virtual MP4Err close() = 0;
    virtual MP4Err seek(uint64_t position) = 0;
    virtual MP4Err isEof(uint32_t* eof) = 0;
    virtual MP4Err flush() = 0;
    virtual MP4Err getLength(uint64_t* length) = 0;
    virtual MP4Err getPosition(uint64_t* position) = 0;

    virtual MP4Err readUInt64(uint64_t* value) = 0;
    virtual MP4Err readUInt32(uint32_t* value) = 0;
    virtual MP4Err readUInt24(uint32_t* value) = 0;  // into the low 24 bits
    virtual MP4Err readUInt16(uint16_t* value) = 0;
    virtual MP4Err readUInt8(uint8_t* value) = 0;
    virtual MP4Err readInt64(int64_t* value) = 0;
    virtual MP4Err readInt32(int32_t* value) = 0;
    virtual MP4Err readInt24(int32_t* value) = 0;
    virtual MP4Err readInt16(int16_t* value) = 0;
    virtual MP4Err readInt8(int8_t* value) = 0;
    virtual MP4Err readBytes(uint8_t* buffer, uint64_t count) = 0;
    virtual MP4Err readBlock(void* buffer, uint32_t count) = 0;
    virtual MP4Err readString(char* buffer) = 0;  // does nothing in every storage
    virtual MP4Err skip(uint64_t count) = 0;

    virtual MP4Err writeUInt64(uint64_t value) = 0;
    virtual MP4Err writeUInt32(uint32_t value) = 0;
    virtual MP4Err writeUInt24(uint32_t value) = 0;  // low 24 bits
    virtual MP4Err writeUInt16(uint16_t value) = 0;
    virtual MP4Err writeUInt8(uint8_t value) = 0;
    virtual MP4Err writeInt64(int64_t value) = 0;
    virtual MP4Err writeInt32(int32_t value) = 0;
    virtual MP4Err writeInt24(int32_t value) = 0;
    virtual MP4Err writeInt16(int16_t value) = 0;
    virtual MP4Err writeInt8(int8_t value) = 0;
    virtual MP4Err writeBlock(const void* buffer, int32_t count) = 0;
    virtual MP4Err writeBytes(const void* buffer, int32_t count) = 0;
    virtual MP4Err writeString(const char* text) = 0;  // characters, then one zero byte

    // Not a storage operation: lets the owner delete any storage through
    // this interface. Closing is the owner's job; destructors do not.
    virtual ~CStorage() = default;
};

}  // namespace quil

#endif
