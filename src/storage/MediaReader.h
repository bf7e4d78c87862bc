// The one reader of media bytes: every sample read (a track's readSample,
// a hint track reading its media, a copy of the media data) goes through
// it. Over a file on disc it keeps a read-only handle of its own, so that
// sample reads never move the box reader's storage, and fetches ahead only
// as far as the caller says it may read next (the end of the chunk); over
// a supplied or network storage it seeks and reads there.
#ifndef QUIL_STORAGE_MEDIAREADER_H
#define QUIL_STORAGE_MEDIAREADER_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "quil/MP4Err.h"

namespace quil {

class CStorage;

class CMediaReader {
public:
    CMediaReader() = default;
    ~CMediaReader();
    CMediaReader(const CMediaReader&) = delete;
    CMediaReader& operator=(const CMediaReader&) = delete;

    // Reads the file at that path through a read-only handle; 4 when it
    // cannot be opened.
    MP4Err open(const std::string& utf8Path);
    // Reads through the storage (not owned), its errors passed on.
    void useStorage(CStorage* storage);
    // Whether open or useStorage gave it something to read.
    bool ready() const { return storage_ != nullptr || fd_ >= 0; }
    // Lets go of the handle or storage and of the read-ahead window.
    void close();

    // Copies size bytes at offset into buffer. Over a file: 4 when they
    // cannot all be read (the buffer then holds nothing of them).
    // readAheadEnd is the file offset up to which the caller may ask next
    // (the end of the chunk holding the sample): bytes beyond it are never
    // fetched ahead. 0, or a value not past the sample, fetches the sample
    // alone (unless the reads run on contiguously through the file).
    MP4Err read(uint64_t offset, uint32_t size, uint8_t* buffer, uint64_t readAheadEnd = 0) {
        if (readFromWindow(offset, size, buffer)) return MP4_OK;
        return readOutsideWindow(offset, size, buffer, readAheadEnd);
    }
    // What read does when the bytes lie in the window fetched for an
    // earlier read (most small samples do): they are copied out, before
    // any other test (no storage is used while a window is held, and no
    // window passes the end of the file). false, nothing done, otherwise.
    bool readFromWindow(uint64_t offset, uint32_t size, uint8_t* buffer) {
        if (offset >= windowStart_ && offset - windowStart_ <= windowLength_ &&
            size <= windowLength_ - (offset - windowStart_) && size != 0 && fd_ >= 0) {
            lastEnd_ = offset + size;  // first: nothing is left to do after the copy
            std::memcpy(buffer, window_.get() + (offset - windowStart_), size);
            return true;
        }
        return false;
    }

private:
    MP4Err readOutsideWindow(uint64_t offset, uint32_t size, uint8_t* buffer,
                             uint64_t readAheadEnd);
    static uint8_t* newWindow();
    MP4Err fill(uint64_t offset, uint32_t length, uint32_t wanted);
    MP4Err readDirect(uint64_t offset, uint32_t size, uint8_t* buffer);
    MP4Err readFromStorage(uint64_t offset, uint32_t size, uint8_t* buffer, uint64_t readAheadEnd);

    CStorage* storage_ = nullptr;
    int fd_ = -1;
    struct FreeWindow {
        void operator()(uint8_t* window) const;
    };
    std::unique_ptr<uint8_t, FreeWindow> window_;
    uint64_t windowStart_ = 0;
    uint32_t windowLength_ = 0;
    uint64_t lastEnd_ = UINT64_MAX;  // end of the last read
    uint32_t streak_ = 0;            // windows in a row that began at lastEnd_
};

}  // namespace quil

#endif
