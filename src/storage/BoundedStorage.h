// A read window onto another storage that ends where the box being read
// ends. The box factory reads every box through one, so no box reader can
// consume its neighbours' bytes, whatever its own bookkeeping says.
#ifndef QUIL_STORAGE_BOUNDEDSTORAGE_H
#define QUIL_STORAGE_BOUNDEDSTORAGE_H

#include <cstdint>

#include "BaseStorage.h"

namespace quil {

class CBoundedStorage final : public CBaseStorage {
public:
    // Starts at the inner storage's current position with no limit.
    // ok() is false when that position cannot be had.
    explicit CBoundedStorage(CStorage* inner);

    bool ok() const { return ok_; }
    CStorage* inner() const { return inner_; }
    uint64_t position() const { return position_; }
    uint64_t limit() const { return limit_; }
    void setLimit(uint64_t limit) { limit_ = limit; }
    // Bytes between the position and the limit (0 once past it).
    uint64_t left() const { return position_ < limit_ ? limit_ - position_ : 0; }

    MP4Err open(uint32_t mode) override { return inner_->open(mode); }
    MP4Err close() override { return inner_->close(); }
    MP4Err seek(uint64_t position) override;
    MP4Err isEof(uint32_t* eof) override { return inner_->isEof(eof); }
    MP4Err flush() override { return inner_->flush(); }
    MP4Err getLength(uint64_t* length) override { return inner_->getLength(length); }
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

    // Boxes are read, never written, through a window.
    MP4Err writeUInt8(uint8_t) override { return MP4_ERR_IO; }
    MP4Err writeInt8(int8_t) override { return MP4_ERR_IO; }
    MP4Err writeBlock(const void*, int32_t) override { return MP4_ERR_IO; }
    MP4Err writeBytes(const void*, int32_t) override { return MP4_ERR_IO; }

    bool isNetworkStorage() const override;

private:
    // 6 when count bytes do not fit before the limit.
    MP4Err reserve(uint64_t count);
    // Moves the position after an inner read: by count on success, else to
    // wherever the inner storage stopped.
    MP4Err settle(MP4Err result, uint64_t count);

    CStorage* inner_;
    uint64_t position_ = 0;
    uint64_t limit_ = UINT64_MAX;
    bool ok_ = false;
};

// Installs the read window of one box or descriptor for its lifetime: a
// nested one narrows the window its parent already reads through; one read
// straight from a storage gets a window of its own.
class CReadWindow {
public:
    CReadWindow(CStorage* storage, uint64_t end);
    ~CReadWindow() { window_->setLimit(savedLimit_); }
    CReadWindow(const CReadWindow&) = delete;
    CReadWindow& operator=(const CReadWindow&) = delete;

    bool ok() const { return window_->ok(); }
    CBoundedStorage* storage() { return window_; }

private:
    CBoundedStorage own_;
    CBoundedStorage* window_;
    uint64_t savedLimit_ = 0;
};

// The bytes a reader may still take from this storage: up to the window's
// limit, and never more than the storage holds after its position. Used to
// size buffers from what is really there, not from counts in the file.
uint64_t readableBytes(CStorage* storage);

}  // namespace quil

#endif
