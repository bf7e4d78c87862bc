#include "EncryptionBoxes.h"

#include <algorithm>
#include <cinttypes>

#include "io/Dump.h"
#include "storage/BoundedStorage.h"

namespace quil {

MP4Err CSampleAuxInfoOffsetsBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    if (flags & 1) {
        if (remaining < 8) return MP4_ERR_BAD_BOX_SIZE;
        if ((err = storage->readUInt32(&auxInfoType)) != MP4_OK) return err;
        if ((err = storage->readUInt32(&auxInfoTypeParameter)) != MP4_OK) return err;
        remaining -= 8;
    }
    if (remaining < 4) return MP4_ERR_BAD_BOX_SIZE;
    uint32_t count = 0;
    if ((err = storage->readUInt32(&count)) != MP4_OK) return err;
    remaining -= 4;
    const uint64_t width = version == 0 ? 4 : 8;
    // Only as many offsets as the box holds.
    if (count > remaining / width) return MP4_ERR_BAD_BOX_SIZE;
    offsets.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        uint64_t offset = 0;
        if (version == 0) {
            uint32_t narrow = 0;
            err = storage->readUInt32(&narrow);
            offset = narrow;
        } else {
            err = storage->readUInt64(&offset);
        }
        if (err != MP4_OK) return err;
        offsets.push_back(offset);
        remaining -= width;
    }
    return MP4_OK;
}

MP4Err CSampleAuxInfoOffsetsBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK && (flags & 1)) {
        err = storage->writeUInt32(auxInfoType);
        if (err == MP4_OK) err = storage->writeUInt32(auxInfoTypeParameter);
    }
    if (err == MP4_OK) err = storage->writeUInt32(static_cast<uint32_t>(offsets.size()));
    for (size_t i = 0; err == MP4_OK && i < offsets.size(); ++i) {
        err = version == 0 ? storage->writeUInt32(static_cast<uint32_t>(offsets[i]))
                           : storage->writeUInt64(offsets[i]);
    }
    return err;
}

MP4Err CSampleAuxInfoOffsetsBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    if (flags & 1) {
        dumpLine(depth, "Aux info type = 0x%08x, parameter = %u\n", auxInfoType,
                 auxInfoTypeParameter);
    }
    dumpLine(depth, "Entry count = %u\n", static_cast<uint32_t>(offsets.size()));
    for (uint64_t offset : offsets) dumpLine(depth, "  Offset = %" PRIu64 "\n", offset);
    return MP4_OK;
}

MP4Err CSampleAuxInfoOffsetsBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + ((flags & 1) ? 8 : 0) + 4 + offsets.size() * (version == 0 ? 4 : 8);
    return MP4_OK;
}

bool CSampleAuxInfoOffsetsBox::moveTo(uint64_t offset) {
    if (offsets.size() != 1 || (version == 0 && offset > 0xFFFFFFFFu)) return false;
    offsets[0] = offset;
    return true;
}

MP4Err CBuiltBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    // In pieces: the storage takes a 32-bit count.
    constexpr size_t kPiece = 1u << 20;
    for (size_t at = 0; err == MP4_OK && at < payload.size(); at += kPiece) {
        const size_t piece = std::min(kPiece, payload.size() - at);
        err = storage->writeBytes(payload.data() + at, static_cast<int32_t>(piece));
    }
    return err;
}

MP4Err CBuiltBox::calculateSize() {
    CBox::calculateSize();
    size += payload.size();
    return MP4_OK;
}

}  // namespace quil
