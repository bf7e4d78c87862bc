#include "SampleReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace quil {
namespace {

// Samples are small and mostly read in file order: one system call per
// window serves many of them. A read that jumps away fetches a smaller
// window, so random access does not pay for a megabyte each time.
constexpr uint32_t kWindowSize = 1u << 20;
constexpr uint32_t kJumpWindowSize = 64u << 10;
// Samples at least this large go straight into the caller's buffer.
constexpr uint32_t kDirectReadSize = kWindowSize / 4;

}  // namespace

CSampleReader::~CSampleReader() {
    if (fd_ >= 0) ::close(fd_);
}

MP4Err CSampleReader::open(const std::string& utf8Path) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = ::open(utf8Path.c_str(), O_RDONLY | O_CLOEXEC);
    windowLength_ = 0;
    return fd_ < 0 ? MP4_ERR_IO : MP4_OK;
}

MP4Err CSampleReader::readDirect(uint64_t offset, uint32_t size, uint8_t* buffer) {
    uint32_t done = 0;
    while (done < size) {
        ssize_t n = ::pread(fd_, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return MP4_ERR_IO;
        done += static_cast<uint32_t>(n);
    }
    return MP4_OK;
}

MP4Err CSampleReader::fill(uint64_t offset, uint32_t wanted) {
    if (!window_) {
        window_.reset(new (std::nothrow) uint8_t[kWindowSize]);
        if (!window_) return MP4_ERR_IO;
    }
    bool sequential = offset >= windowStart_ && offset - windowStart_ <= windowLength_ + kWindowSize;
    uint32_t length = sequential ? kWindowSize : kJumpWindowSize;
    if (length < wanted) length = wanted;
    windowLength_ = 0;
    uint32_t done = 0;
    while (done < length) {
        ssize_t n = ::pread(fd_, window_.get() + done, length - done,
                            static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // end of file: keep what was read
        done += static_cast<uint32_t>(n);
    }
    windowStart_ = offset;
    windowLength_ = done;
    return done >= wanted ? MP4_OK : MP4_ERR_IO;
}

MP4Err CSampleReader::read(uint64_t offset, uint32_t size, uint8_t* buffer) {
    if (fd_ < 0) return MP4_ERR_IO;
    if (size == 0) return MP4_OK;
    if (offset > static_cast<uint64_t>(INT64_MAX) - size) return MP4_ERR_IO;
    if (size >= kDirectReadSize) return readDirect(offset, size, buffer);
    bool inWindow = offset >= windowStart_ && offset - windowStart_ + size <= windowLength_;
    if (!inWindow) {
        MP4Err err = fill(offset, size);
        if (err != MP4_OK) return err;
    }
    std::memcpy(buffer, window_.get() + (offset - windowStart_), size);
    return MP4_OK;
}

}  // namespace quil
