// Default bodies shared by the storages: wide reads built from readUInt8,
// signed reads forwarded to the unsigned ones, writes composed through
// writeUInt8/writeInt8.
#ifndef QUIL_STORAGE_BASESTORAGE_H
#define QUIL_STORAGE_BASESTORAGE_H

#include "quil/Storage.h"

namespace quil {

class CBaseStorage : public CStorage {
public:
    MP4Err readUInt64(uint64_t* value) override;
    MP4Err readUInt32(uint32_t* value) override;
    MP4Err readUInt24(uint32_t* value) override;
    MP4Err readUInt16(uint16_t* value) override;
    MP4Err readInt64(int64_t* value) override;
    MP4Err readInt32(int32_t* value) override;
    MP4Err readInt24(int32_t* value) override;
    MP4Err readInt16(int16_t* value) override;
    MP4Err readInt8(int8_t* value) override;
    MP4Err readBytes(uint8_t* buffer, uint64_t count) override;
    MP4Err readString(char* buffer) override;

    MP4Err writeUInt64(uint64_t value) override;
    MP4Err writeUInt32(uint32_t value) override;
    MP4Err writeUInt24(uint32_t value) override;
    MP4Err writeUInt16(uint16_t value) override;
    MP4Err writeInt64(int64_t value) override;
    MP4Err writeInt32(int32_t value) override;
    MP4Err writeInt24(int32_t value) override;
    MP4Err writeInt16(int16_t value) override;
    MP4Err writeInt8(int8_t value) override;
    MP4Err writeBlock(const void* buffer, int32_t count) override;
    MP4Err writeBytes(const void* buffer, int32_t count) override;
    MP4Err writeString(const char* text) override;

    // True only for the HTTP storage: the box reader stops after "mdat"
    // there and does not skip media data it would have to download.
    virtual bool isNetworkStorage() const { return false; }

    // Reads count bytes at offset, the caller saying it may read on up to
    // readAheadEnd next (the end of the sample's chunk; 0 or a value not past
    // the bytes when it cannot say). Here a seek and a read; the network
    // storage fetches no further than that end when the reads jump about.
    virtual MP4Err readAt(uint64_t offset, uint8_t* buffer, uint32_t count,
                          uint64_t readAheadEnd);
};

// isNetworkStorage() of a storage that derives from CBaseStorage; false for
// caller-implemented storages.
bool isNetworkStorage(CStorage* storage);

// readAt of a storage that derives from CBaseStorage; a seek and a read on
// caller-implemented storages.
MP4Err readAt(CStorage* storage, uint64_t offset, uint8_t* buffer, uint32_t count,
              uint64_t readAheadEnd);

}  // namespace quil

#endif
