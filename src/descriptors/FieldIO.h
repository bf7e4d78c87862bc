// Sequential big-endian field access for descriptors and configuration
// records: each call is skipped once an earlier one failed, so a run of
// fields reads (or writes) as one statement with one error check.
#ifndef QUIL_DESCRIPTORS_FIELDIO_H
#define QUIL_DESCRIPTORS_FIELDIO_H

#include <cstdint>
#include <memory>

#include "quil/MP4Err.h"
#include "quil/Storage.h"

namespace quil {

// Reads fields and lowers *remaining by each field that was read; a field
// the count cannot hold is refused with 6, so the count never wraps.
class FieldReader {
public:
    FieldReader(CStorage* storage, uint32_t* remaining) : storage_(storage), remaining_(remaining) {}

    FieldReader& u8(uint8_t* value) {
        if (err_ == MP4_OK && fits(1)) consumed(storage_->readUInt8(value), 1);
        return *this;
    }
    FieldReader& u16(uint16_t* value) {
        if (err_ == MP4_OK && fits(2)) consumed(storage_->readUInt16(value), 2);
        return *this;
    }
    FieldReader& u24(uint32_t* value) {
        if (err_ == MP4_OK && fits(3)) consumed(storage_->readUInt24(value), 3);
        return *this;
    }
    FieldReader& u32(uint32_t* value) {
        if (err_ == MP4_OK && fits(4)) consumed(storage_->readUInt32(value), 4);
        return *this;
    }
    FieldReader& bytes(uint8_t* buffer, uint32_t count) {
        if (err_ == MP4_OK && count > 0 && fits(count)) consumed(storage_->readBytes(buffer, count), count);
        return *this;
    }
    MP4Err error() const { return err_; }

private:
    void consumed(MP4Err result, uint32_t width) {
        err_ = result;
        if (result == MP4_OK) *remaining_ -= width;
    }
    bool fits(uint32_t width) {
        if (*remaining_ >= width) return true;
        err_ = MP4_ERR_BAD_BOX_SIZE;
        return false;
    }

    CStorage* storage_;
    uint32_t* remaining_;
    MP4Err err_ = MP4_OK;
};

class FieldWriter {
public:
    explicit FieldWriter(CStorage* storage) : storage_(storage) {}

    FieldWriter& u8(uint32_t value) {
        if (err_ == MP4_OK) err_ = storage_->writeUInt8(static_cast<uint8_t>(value));
        return *this;
    }
    FieldWriter& u16(uint32_t value) {
        if (err_ == MP4_OK) err_ = storage_->writeUInt16(static_cast<uint16_t>(value));
        return *this;
    }
    FieldWriter& u24(uint32_t value) {
        if (err_ == MP4_OK) err_ = storage_->writeUInt24(value & 0xFFFFFF);
        return *this;
    }
    FieldWriter& u32(uint32_t value) {
        if (err_ == MP4_OK) err_ = storage_->writeUInt32(value);
        return *this;
    }
    FieldWriter& bytes(const uint8_t* buffer, uint32_t count);
    MP4Err error() const { return err_; }

private:
    CStorage* storage_;
    MP4Err err_ = MP4_OK;
};

// Reads count bytes into a new buffer. The buffer is allocated at once only
// when the storage reports that many bytes left; otherwise it grows with the
// bytes actually delivered, so a damaged length cannot make us allocate more
// than the input can fill. The storage's own error is returned unchanged.
MP4Err readOwnedBytes(CStorage* storage, uint32_t count, std::unique_ptr<uint8_t[]>* out);

// Skips count bytes of payload. A count beyond the end of the storage is
// refused with 18 before the storage moves: a memory storage's position
// wraps in 32 bits, and a wrapped skip would move backwards and let a few
// bytes be parsed again and again.
MP4Err skipPayload(CStorage* storage, uint64_t count);

}  // namespace quil

#endif
