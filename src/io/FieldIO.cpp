#include "FieldIO.h"

#include <cstring>
#include <new>

#include "storage/BoundedStorage.h"

namespace quil {

FieldWriter& FieldWriter::bytes(const uint8_t* buffer, uint64_t count) {
    // writeBlock takes a signed count: larger runs go in pieces.
    constexpr uint64_t kPiece = 1u << 30;
    while (ok() && count > 0) {
        uint64_t piece = count < kPiece ? count : kPiece;
        err_ = storage_->writeBlock(buffer, static_cast<int32_t>(piece));
        buffer += piece;
        count -= piece;
    }
    return *this;
}

FieldDecoder& FieldDecoder::bytes(uint8_t* buffer, uint64_t count) {
    if (!ok()) return *this;
    if (left_ < count) return fail(MP4_ERR_BAD_BOX_SIZE);
    if (count > 0) std::memcpy(buffer, p_, count);
    p_ += count;
    left_ -= count;
    return *this;
}

MP4Err readOwnedBytes(CStorage* storage, uint64_t count, std::unique_ptr<uint8_t[]>* out) {
    out->reset();
    if (count == 0) return MP4_OK;
    if (count <= readableBytes(storage)) {
        std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[count]);
        if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
        MP4Err err = storage->readBytes(buffer.get(), count);
        if (err != MP4_OK) return err;
        *out = std::move(buffer);
        return MP4_OK;
    }
    // More than the storage says it holds: read in pieces, doubling the
    // buffer, until the storage itself reports the shortfall.
    constexpr uint64_t kPiece = 1u << 16;
    std::unique_ptr<uint8_t[]> buffer;
    uint64_t capacity = 0, done = 0;
    while (done < count) {
        uint64_t piece = count - done < kPiece ? count - done : kPiece;
        if (done + piece > capacity) {
            uint64_t wanted = capacity * 2;
            if (wanted < done + piece) wanted = done + piece;
            if (wanted > count) wanted = count;
            std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[wanted]);
            if (!grown) return MP4_ERR_OUT_OF_MEMORY;
            if (done > 0) std::memcpy(grown.get(), buffer.get(), done);
            buffer = std::move(grown);
            capacity = wanted;
        }
        MP4Err err = storage->readBytes(buffer.get() + done, piece);
        if (err != MP4_OK) return err;
        done += piece;
    }
    *out = std::move(buffer);
    return MP4_OK;
}

MP4Err skipPayload(CStorage* storage, uint64_t count) {
    if (count == 0) return MP4_OK;
    uint64_t position = 0, length = 0;
    if (storage->getPosition(&position) == MP4_OK && storage->getLength(&length) == MP4_OK &&
        (position > length || count > length - position)) {
        return MP4_ERR_OUT_OF_RANGE;
    }
    return storage->skip(count);
}

}  // namespace quil
