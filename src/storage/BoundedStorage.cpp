#include "BoundedStorage.h"

namespace quil {

CBoundedStorage::CBoundedStorage(CStorage* inner) : inner_(inner) {
    ok_ = inner_ != nullptr && inner_->getPosition(&position_) == MP4_OK;
}

MP4Err CBoundedStorage::reserve(uint64_t count) {
    return count <= left() ? MP4_OK : MP4_ERR_BAD_BOX_SIZE;
}

MP4Err CBoundedStorage::settle(MP4Err result, uint64_t count) {
    if (result == MP4_OK) {
        position_ += count;
    } else {
        // A failed multi-byte read may have consumed part of its bytes.
        inner_->getPosition(&position_);
    }
    return result;
}

MP4Err CBoundedStorage::seek(uint64_t position) {
    MP4Err err = inner_->seek(position);
    if (err == MP4_OK) position_ = position;
    return err;
}

MP4Err CBoundedStorage::getPosition(uint64_t* position) {
    *position = position_;
    return MP4_OK;
}

#define QUIL_BOUNDED_READ(Name, Type, Width)                  \
    MP4Err CBoundedStorage::Name(Type* value) {               \
        MP4Err err = reserve(Width);                          \
        if (err != MP4_OK) return err;                        \
        return settle(inner_->Name(value), Width);            \
    }

QUIL_BOUNDED_READ(readUInt64, uint64_t, 8)
QUIL_BOUNDED_READ(readUInt32, uint32_t, 4)
QUIL_BOUNDED_READ(readUInt24, uint32_t, 3)
QUIL_BOUNDED_READ(readUInt16, uint16_t, 2)
QUIL_BOUNDED_READ(readUInt8, uint8_t, 1)
QUIL_BOUNDED_READ(readInt64, int64_t, 8)
QUIL_BOUNDED_READ(readInt32, int32_t, 4)
QUIL_BOUNDED_READ(readInt24, int32_t, 3)
QUIL_BOUNDED_READ(readInt16, int16_t, 2)
QUIL_BOUNDED_READ(readInt8, int8_t, 1)

#undef QUIL_BOUNDED_READ

MP4Err CBoundedStorage::readBytes(uint8_t* buffer, uint64_t count) {
    if (count == 0) return inner_->readBytes(buffer, 0);
    MP4Err err = reserve(count);
    if (err != MP4_OK) return err;
    return settle(inner_->readBytes(buffer, count), count);
}

MP4Err CBoundedStorage::readBlock(void* buffer, uint32_t count) {
    MP4Err err = reserve(count);
    if (err != MP4_OK) return err;
    return settle(inner_->readBlock(buffer, count), count);
}

MP4Err CBoundedStorage::skip(uint64_t count) {
    if (count == 0) return MP4_OK;
    MP4Err err = reserve(count);
    if (err != MP4_OK) return err;
    err = inner_->skip(count);
    if (err == MP4_OK) {
        position_ += count;
    } else {
        inner_->getPosition(&position_);
    }
    return err;
}

bool CBoundedStorage::isNetworkStorage() const { return quil::isNetworkStorage(inner_); }

namespace {

CStorage* innerOf(CStorage* storage) {
    auto* window = dynamic_cast<CBoundedStorage*>(storage);
    return window ? nullptr : storage;
}

}  // namespace

CReadWindow::CReadWindow(CStorage* storage, uint64_t end) : own_(innerOf(storage)) {
    auto* outer = dynamic_cast<CBoundedStorage*>(storage);
    window_ = outer ? outer : &own_;
    savedLimit_ = window_->limit();
    if (end < savedLimit_) window_->setLimit(end);
}

uint64_t readableBytes(CStorage* storage) {
    uint64_t position = 0, length = 0;
    if (storage->getPosition(&position) != MP4_OK || storage->getLength(&length) != MP4_OK ||
        position >= length) {
        return 0;
    }
    uint64_t held = length - position;
    if (auto* window = dynamic_cast<CBoundedStorage*>(storage)) {
        return window->left() < held ? window->left() : held;
    }
    return held;
}

}  // namespace quil
