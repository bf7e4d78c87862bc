#include "MediaReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "BaseStorage.h"

namespace quil {
namespace {

// Small samples of one chunk are mostly read in order: one system call per
// window serves many of them. The window ends with the chunk, so reading
// one track of an interleaved file fetches that track's bytes only. A read
// that jumps away fetches a smaller window, so random access into a long
// chunk does not pay for a megabyte each time.
constexpr uint32_t kWindowSize = 1u << 20;
constexpr uint32_t kJumpWindowSize = 64u << 10;
// A caller that reads the file in order, chunk after chunk of whichever
// track comes next, starts each window where the last read ended. After two
// such windows in a row the window may reach past the chunk, by a step that
// doubles with every further one: streaming playback gets large windows
// again, while one track whose chunks happen to touch wastes at most a
// step.
constexpr uint32_t kFirstStreamStep = 16u << 10;
// Samples at least this large go straight into the caller's buffer: the
// system call is cheap next to copying them a second time.
constexpr uint32_t kDirectReadSize = 32u << 10;
// The window lies in one huge page where the system grants them: the
// kernel then copies file bytes into it about a third faster (one
// translation for the whole window instead of one per 4 KiB page), which
// is most of the time of reading small samples.
constexpr size_t kHugePage = size_t{2} << 20;
static_assert(kWindowSize <= kHugePage, "the window fits in one huge page");

}  // namespace

CMediaReader::~CMediaReader() { close(); }

MP4Err CMediaReader::open(const std::string& utf8Path) {
    close();
    fd_ = ::open(utf8Path.c_str(), O_RDONLY | O_CLOEXEC);
    return fd_ < 0 ? MP4_ERR_IO : MP4_OK;
}

void CMediaReader::useStorage(CStorage* storage) {
    close();
    storage_ = storage;
}

void CMediaReader::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    storage_ = nullptr;
    window_.reset();
    windowStart_ = 0;
    windowLength_ = 0;
    lastEnd_ = UINT64_MAX;
    streak_ = 0;
}

MP4Err CMediaReader::readFromStorage(uint64_t offset, uint32_t size, uint8_t* buffer,
                                     uint64_t readAheadEnd) {
    return readAt(storage_, offset, buffer, size, readAheadEnd);
}

MP4Err CMediaReader::readDirect(uint64_t offset, uint32_t size, uint8_t* buffer) {
    uint32_t done = 0;
    while (done < size) {
        ssize_t n = ::pread(fd_, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // A failed read hands back nothing: no part of a sample is
            // left in the buffer to be taken for data.
            std::memset(buffer, 0, done);
            return MP4_ERR_IO;
        }
        done += static_cast<uint32_t>(n);
    }
    return MP4_OK;
}

void CMediaReader::FreeWindow::operator()(uint8_t* window) const { std::free(window); }

uint8_t* CMediaReader::newWindow() {
    void* window = std::aligned_alloc(kHugePage, kHugePage);
#ifdef MADV_HUGEPAGE
    // Only advice: without huge pages the window works as any memory.
    if (window) (void)::madvise(window, kHugePage, MADV_HUGEPAGE);
#endif
    return static_cast<uint8_t*>(window);
}

MP4Err CMediaReader::fill(uint64_t offset, uint32_t length, uint32_t wanted) {
    if (!window_) {
        window_.reset(newWindow());
        if (!window_) return MP4_ERR_IO;
    }
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

MP4Err CMediaReader::readOutsideWindow(uint64_t offset, uint32_t size, uint8_t* buffer,
                                       uint64_t readAheadEnd) {
    if (storage_) return readFromStorage(offset, size, buffer, readAheadEnd);
    if (fd_ < 0) return MP4_ERR_IO;
    if (size == 0) return MP4_OK;
    if (offset > static_cast<uint64_t>(INT64_MAX) - size) return MP4_ERR_IO;
    const bool continues = offset == lastEnd_;
    lastEnd_ = offset + size;
    uint64_t ahead = readAheadEnd > offset ? readAheadEnd - offset : 0;
    if (size >= kDirectReadSize) {
        streak_ = 0;
        return readDirect(offset, size, buffer);
    }
    streak_ = continues ? streak_ + 1 : 0;
    if (streak_ >= 2) {
        uint64_t step = uint64_t{kFirstStreamStep} << (streak_ > 8 ? 6 : streak_ - 2);
        if (ahead < step) ahead = step;
    }
    if (ahead <= size) return readDirect(offset, size, buffer);
    bool sequential = offset >= windowStart_ &&
                      offset - windowStart_ <= uint64_t{windowLength_} + kWindowSize;
    uint64_t length = sequential ? kWindowSize : kJumpWindowSize;
    if (length > ahead) length = ahead;
    if (length < size) length = size;
    MP4Err err = fill(offset, static_cast<uint32_t>(length), size);
    if (err != MP4_OK) return err;
    std::memcpy(buffer, window_.get() + (offset - windowStart_), size);
    return MP4_OK;
}

}  // namespace quil
