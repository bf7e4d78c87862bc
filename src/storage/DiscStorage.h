// A file on disc, read or written through C stdio with 64-bit offsets.
#ifndef QUIL_STORAGE_DISCSTORAGE_H
#define QUIL_STORAGE_DISCSTORAGE_H

#include <cstdio>
#include <memory>
#include <string>

#include "BaseStorage.h"

namespace quil {

class CDiscStorage : public CBaseStorage {
public:
    CDiscStorage();
    ~CDiscStorage() override;

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

    // Names the file; at most 2047 wide characters are kept.
    virtual MP4Err setPath(const wchar_t* path);

    // The kept path (null before setPath) and its UTF-8 form for the OS.
    const wchar_t* path() const { return path_.get(); }

private:
    // Implementation state is private to the storage; see DiscStorage.cpp.
    struct State;
    std::unique_ptr<wchar_t[]> path_;
    std::unique_ptr<State> state_;
};

}  // namespace quil

#endif
