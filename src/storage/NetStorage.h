// A resource read over HTTP(S): ranged GET requests on background threads
// fill a cache of 128 KiB blocks that the reads are served from.
#ifndef QUIL_STORAGE_NETSTORAGE_H
#define QUIL_STORAGE_NETSTORAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "BaseStorage.h"

namespace quil {

namespace net {
struct Download;
struct Resource;
}  // namespace net

class CNetStorage : public CBaseStorage {
public:
    CNetStorage();
    ~CNetStorage() override;

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
    MP4Err readBlock(void* buffer, uint32_t count) override;
    MP4Err skip(uint64_t count) override;
    MP4Err writeUInt8(uint8_t value) override;
    MP4Err readAt(uint64_t offset, uint8_t* buffer, uint32_t count,
                  uint64_t readAheadEnd) override;

    // Names the URL (at most 2047 wide characters are kept).
    virtual MP4Err setPath(const wchar_t* url);

    bool isNetworkStorage() const override { return true; }

    // True when the last read failed because the transfer failed (refused
    // reply, lost connection, stall), not because the bytes do not exist.
    bool transferFailed() const { return transferFailed_; }

private:
    // Copies count bytes at the position, waiting for them to arrive.
    MP4Err waitAndCopy(uint8_t* buffer, uint32_t count);
    // The same without waiting or locking, when the bytes lie inside the
    // block the previous read came from; false when they do not.
    bool copyFromCurrentBlock(uint8_t* buffer, uint32_t count);
    // Keeps that block for copyFromCurrentBlock.
    void rememberBlock(const net::Download& download, size_t index);
    template <class T>
    MP4Err readWide(T* value, int width);
    // A new download of [offset, limit) (limit UINT64_MAX: to the end).
    void startDownload(uint64_t offset, uint64_t limit);
    void stopDownload();
    // The same after an explicit move, with the "reseek" progress line.
    void restartAt(uint64_t position, uint64_t limit);
    bool reaches(uint64_t offset, uint32_t count, bool runsOn) const;
    uint64_t nextLimit(const net::Download& download, uint32_t count) const;

    uint32_t openForRead_ = 0;
    uint32_t openForWrite_ = 0;
    std::shared_ptr<net::Download> download_;
    uint64_t position_ = 0;
    uint64_t rangeStart_ = 0;  // where the last explicit (re)seek started a download
    uint32_t endOfFile_ = 0;   // never set
    bool transferFailed_ = false;
    // End of the last readAt, whether the next one runs on from it.
    static constexpr uint64_t kUnknownEnd = UINT64_MAX;
    uint64_t previousEnd_ = kUnknownEnd;
    uint32_t streak_ = 0;  // readAt requests in a row that ran on from the last read
    std::unique_ptr<wchar_t[]> url_;
    std::shared_ptr<net::Resource> resource_;  // what the first answer said about the file

    // The block the last waiting read ended in, and the absolute byte range
    // [currentBase_, currentEnd_) that may be copied from it directly.
    std::shared_ptr<const uint8_t[]> currentBlock_;
    uint64_t currentBase_ = 0;
    uint64_t currentEnd_ = 0;
};

}  // namespace quil

#endif
