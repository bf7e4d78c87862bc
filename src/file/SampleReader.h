// Reads media bytes of a file on disc through a read-only handle of its
// own, so that sample reads never move the box reader's storage.
#ifndef QUIL_FILE_SAMPLEREADER_H
#define QUIL_FILE_SAMPLEREADER_H

#include <cstdint>
#include <memory>
#include <string>

#include "quil/MP4Err.h"

namespace quil {

class CSampleReader {
public:
    CSampleReader() = default;
    ~CSampleReader();
    CSampleReader(const CSampleReader&) = delete;
    CSampleReader& operator=(const CSampleReader&) = delete;

    // Opens the file read-only; 4 on failure.
    MP4Err open(const std::string& utf8Path);
    // Copies size bytes at offset into buffer; 4 when they cannot all be
    // read. readAheadEnd is the file offset up to which the caller may ask
    // next (the end of the chunk holding the sample): bytes beyond it are
    // never fetched ahead. 0, or a value not past the sample, fetches the
    // sample alone (unless the reads run on contiguously through the file).
    MP4Err read(uint64_t offset, uint32_t size, uint8_t* buffer, uint64_t readAheadEnd = 0);

private:
    MP4Err fill(uint64_t offset, uint32_t length, uint32_t wanted);
    MP4Err readDirect(uint64_t offset, uint32_t size, uint8_t* buffer);

    int fd_ = -1;
    std::unique_ptr<uint8_t[]> window_;
    uint64_t windowStart_ = 0;
    uint32_t windowLength_ = 0;
    uint64_t lastEnd_ = UINT64_MAX;  // end of the last read
    uint32_t streak_ = 0;            // windows in a row that began at lastEnd_
};

}  // namespace quil

#endif
