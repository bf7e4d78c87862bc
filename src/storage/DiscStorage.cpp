#include "DiscStorage.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "WidePath.h"

namespace quil {
namespace {

// Longest path kept by setPath, terminator included.
constexpr size_t kPathCapacity = 2048;

// Buffering. Box parsing issues millions of 1- to 8-byte reads; one stdio
// call per byte would dominate the time spent on a large movie box. So:
// - Reading: the stream is unbuffered and we keep our own window of up to
//   kWindowSize bytes that were read ahead from the file. Fixed-width reads
//   are served from the window; block reads take what the window holds and
//   read the rest straight into the caller's buffer. Seeks that land inside
//   the window only move the cursor. Everything the caller can see is kept
//   as if each byte were read on its own: the position counts exactly the
//   bytes consumed (also those before a failed multi-byte read), and the
//   end-of-file flag is ours, set only when a read cannot be satisfied.
// - Writing: stdio with a large buffer (kWriteBufferSize), one fwrite per
//   value; positions come from ftello, which counts buffered bytes.
// The stream is never locked by stdio: one thread at a time uses a storage.
constexpr size_t kWindowSize = 64 * 1024;
// After a seek out of the window the first refill is small and each one
// after it doubles up to the window size: reading a fragment header after
// skipping its media data then costs about the header, not 64 KiB, while a
// sequential read reaches full windows after a few refills. The bytes and
// positions the caller sees are the same either way.
constexpr size_t kFirstRefillAfterSeek = 4 * 1024;
constexpr size_t kWriteBufferSize = 256 * 1024;

// Largest offset fseeko accepts (off_t is signed).
constexpr uint64_t kMaxOffset = static_cast<uint64_t>(INT64_MAX);

// Stream, flags and read window of an open storage.
struct DiscState {
    FILE* file = nullptr;
    uint32_t openForRead = 0;
    uint32_t openForWrite = 0;
    // Set when a read could not be satisfied because the file ended; cleared
    // by seek, a non-zero skip and open.
    bool atEnd = false;
    // Whether the stream reports positions (false for pipes and the like).
    bool positioned = false;

    // Read window: window[0..fill) holds the file bytes starting at
    // windowStart, the next byte to hand out is window[cursor]. Invariant in
    // read mode: the stream stands at windowStart + fill.
    std::unique_ptr<uint8_t[]> window;
    uint64_t windowStart = 0;
    size_t fill = 0;
    size_t cursor = 0;
    size_t refillSize = kWindowSize;

    // stdio buffer of a stream opened for writing; freed only after fclose.
    std::unique_ptr<char[]> writeBuffer;

    DiscState() = default;
    DiscState(const DiscState&) = delete;
    DiscState& operator=(const DiscState&) = delete;
    // Releases a stream that the owner left open.
    ~DiscState() { closeStream(); }

    bool isOpen() const { return openForRead || openForWrite; }

    MP4Err closeStream() {
        MP4Err result = MP4_OK;
        if (file != nullptr && std::fclose(file) != 0) result = MP4_ERR_IO;
        file = nullptr;
        writeBuffer.reset();
        resetWindow(0);
        atEnd = false;
        return result;
    }

    void resetWindow(uint64_t start) {
        windowStart = start;
        fill = 0;
        cursor = 0;
    }

    size_t buffered() const { return fill - cursor; }

    // 3 without a stream; 4 when the stream was opened for writing.
    MP4Err checkReadable() const {
        if (file == nullptr) return MP4_ERR_NOT_AVAILABLE;
        return openForRead ? MP4_OK : MP4_ERR_IO;
    }
    MP4Err checkWritable() const {
        if (file == nullptr) return MP4_ERR_NOT_AVAILABLE;
        return openForWrite ? MP4_OK : MP4_ERR_IO;
    }

    // A read came back short: the end-of-file flag follows the stream's own
    // indicator (a read error is 4 too, but not the end). The stream's
    // indicators are then cleared so that the next read tries again.
    MP4Err shortRead() {
        if (std::feof(file)) atEnd = true;
        std::clearerr(file);
        return MP4_ERR_IO;
    }

    // Copies count bytes to dst; whatever was available is consumed even
    // when the read comes back short (4).
    MP4Err readRaw(uint8_t* dst, uint64_t count) {
        uint64_t done = 0;
        while (done < count) {
            if (buffered() > 0) {
                const size_t n = static_cast<size_t>(std::min<uint64_t>(buffered(), count - done));
                std::memcpy(dst + done, window.get() + cursor, n);
                cursor += n;
                done += n;
                continue;
            }
            resetWindow(windowStart + fill);
            const uint64_t want = count - done;
            if (want >= kWindowSize) {
                // Large blocks go straight into the caller's buffer.
                const size_t got = std::fread(dst + done, 1, static_cast<size_t>(want), file);
                windowStart += got;
                done += got;
                if (got < want) return shortRead();
            } else {
                fill = std::fread(window.get(), 1, refillSize, file);
                refillSize = std::min(refillSize * 2, kWindowSize);
                if (fill == 0) return shortRead();
            }
        }
        return MP4_OK;
    }

    // Reads width bytes most significant first. On a short read the value
    // keeps the bytes read so far, as a byte-by-byte reader would leave it.
    template <class T>
    MP4Err readBigEndian(T* value, size_t width) {
        if (value == nullptr) return MP4_ERR_INVALID_ARGUMENT;
        *value = 0;
        MP4Err err = checkReadable();
        if (err != MP4_OK) return err;
        uint64_t v = 0;
        if (buffered() >= width) {
            const uint8_t* p = window.get() + cursor;
            for (size_t i = 0; i < width; ++i) v = v << 8 | p[i];
            cursor += width;
        } else {
            for (size_t i = 0; i < width; ++i) {
                uint8_t byte = 0;
                err = readRaw(&byte, 1);
                if (err != MP4_OK) break;
                v = v << 8 | byte;
            }
        }
        *value = static_cast<T>(v);
        return err;
    }

    MP4Err writeRaw(const void* bytes, size_t count) {
        MP4Err err = checkWritable();
        if (err != MP4_OK) return err;
        return std::fwrite(bytes, 1, count, file) == count ? MP4_OK : MP4_ERR_IO;
    }

    MP4Err writeBigEndian(uint64_t value, size_t width) {
        uint8_t bytes[8];
        for (size_t i = width; i-- > 0;) {
            bytes[i] = static_cast<uint8_t>(value);
            value >>= 8;
        }
        return writeRaw(bytes, width);
    }

    MP4Err tell(uint64_t* position) {
        if (openForRead) {
            // ftello on the unbuffered read stream costs a system call, and
            // would only tell windowStart + fill; we know the consumed
            // position without asking. A stream that cannot report
            // positions (checked at open) still answers 4.
            if (!positioned) return MP4_ERR_IO;
            *position = windowStart + cursor;
            return MP4_OK;
        }
        const off_t streamPosition = ftello(file);
        if (streamPosition < 0) return MP4_ERR_IO;
        *position = static_cast<uint64_t>(streamPosition);
        return MP4_OK;
    }

    MP4Err seekTo(uint64_t target) {
        if (openForRead && target >= windowStart && target - windowStart <= fill) {
            cursor = static_cast<size_t>(target - windowStart);
            atEnd = false;
            return MP4_OK;
        }
        if (target > kMaxOffset) return MP4_ERR_IO;
        if (fseeko(file, static_cast<off_t>(target), SEEK_SET) != 0) return MP4_ERR_IO;
        resetWindow(target);
        refillSize = kFirstRefillAfterSeek;
        atEnd = false;
        return MP4_OK;
    }
};

// Operations on a storage that was never opened see a closed state. It has
// no stream, so every operation returns before touching it.
DiscState& stateOrClosed(DiscState* state) {
    static DiscState closed;
    return state != nullptr ? *state : closed;
}

// Opens a file for writing from its start, as "wb" does. An empty
// regular file that exists already (a temporary file made for the output)
// is opened without truncating it: there is nothing to cut, and ext4 takes
// a truncation to zero for a file being replaced and writes everything
// written after it back to the disc when the file is closed, half a second
// per 2 GB that the caller waits for.
FILE* openForWriting(const std::string& utf8) {
    const int fd = ::open(utf8.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        struct stat info;
        if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size == 0) {
            if (FILE* file = fdopen(fd, "wb")) return file;
        }
        ::close(fd);
    }
    return std::fopen(utf8.c_str(), "wbe");
}

}  // namespace

struct CDiscStorage::State : DiscState {};

// Out of line: both need the complete State.
CDiscStorage::CDiscStorage() = default;
CDiscStorage::~CDiscStorage() = default;

MP4Err CDiscStorage::setPath(const wchar_t* path) {
    if (path == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<wchar_t[]> copy(new (std::nothrow) wchar_t[kPathCapacity]);
    if (!copy) return MP4_ERR_OUT_OF_MEMORY;
    // Longer paths are cut silently, as the interface has always done.
    std::wcsncpy(copy.get(), path, kPathCapacity - 1);
    copy[kPathCapacity - 1] = L'\0';
    path_ = std::move(copy);
    return MP4_OK;
}

MP4Err CDiscStorage::open(uint32_t mode) {
    if (!path_) return MP4_ERR_IO;
    if (state_ && state_->isOpen()) return MP4_ERR_NOT_AVAILABLE;
    if (mode > 1) return MP4_ERR_INVALID_ARGUMENT;
    if (!state_) {
        state_.reset(new (std::nothrow) State);
        if (!state_) return MP4_ERR_OUT_OF_MEMORY;
    }
    State& s = *state_;

    const bool forRead = mode == 0;
    if (forRead && !s.window) {
        s.window.reset(new (std::nothrow) uint8_t[kWindowSize]);
        if (!s.window) return MP4_ERR_OUT_OF_MEMORY;
    }
    std::unique_ptr<char[]> writeBuffer;
    if (!forRead) {
        writeBuffer.reset(new (std::nothrow) char[kWriteBufferSize]);
        if (!writeBuffer) return MP4_ERR_OUT_OF_MEMORY;
    }

    // From here on a failure leaves the storage marked open without a
    // stream: a further open answers 3 until close is called.
    s.openForRead = forRead ? 1 : 0;
    s.openForWrite = forRead ? 0 : 1;
    s.resetWindow(0);
    s.atEnd = false;

    std::string utf8;
    if (widePathToUtf8(path_.get(), &utf8) != MP4_OK) return MP4_ERR_IO;
    // "e": the descriptor is not inherited by child processes of the host.
    FILE* file = forRead ? std::fopen(utf8.c_str(), "rbe") : openForWriting(utf8);
    if (file == nullptr) return MP4_ERR_IO;
    struct stat info;
    if (fstat(fileno(file), &info) != 0 || S_ISDIR(info.st_mode)) {
        std::fclose(file);
        return MP4_ERR_IO;
    }
    if (forRead) {
        std::setvbuf(file, nullptr, _IONBF, 0);
    } else {
        std::setvbuf(file, writeBuffer.get(), _IOFBF, kWriteBufferSize);
        s.writeBuffer = std::move(writeBuffer);
    }
    // One thread at a time uses a storage, so stdio need not lock the
    // stream on every small write.
    __fsetlocking(file, FSETLOCKING_BYCALLER);
    s.file = file;
    s.positioned = ftello(file) >= 0;

    uint64_t length = 0;
    return getLength(&length);
}

MP4Err CDiscStorage::close() {
    if (!state_ || !state_->isOpen()) return MP4_ERR_NOT_AVAILABLE;
    state_->openForRead = 0;
    state_->openForWrite = 0;
    return state_->closeStream();
}

MP4Err CDiscStorage::seek(uint64_t position) {
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    return s.seekTo(position);
}

MP4Err CDiscStorage::isEof(uint32_t* eof) {
    if (eof == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *eof = 0;
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    *eof = s.atEnd ? 1 : 0;
    return MP4_OK;
}

MP4Err CDiscStorage::flush() {
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    // A read stream holds nothing to push out.
    if (s.openForWrite && std::fflush(s.file) != 0) return MP4_ERR_IO;
    return MP4_OK;
}

MP4Err CDiscStorage::getLength(uint64_t* length) {
    if (length == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    // Bytes still in the write buffer belong to the file as well.
    if (s.openForWrite && std::fflush(s.file) != 0) return MP4_ERR_IO;
    struct stat info;
    if (fstat(fileno(s.file), &info) != 0 || info.st_size < 0) return MP4_ERR_IO;
    *length = static_cast<uint64_t>(info.st_size);
    return MP4_OK;
}

MP4Err CDiscStorage::getPosition(uint64_t* position) {
    if (position == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *position = 0;
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    return s.tell(position);
}

MP4Err CDiscStorage::readUInt64(uint64_t* v) { return stateOrClosed(state_.get()).readBigEndian(v, 8); }
MP4Err CDiscStorage::readUInt32(uint32_t* v) { return stateOrClosed(state_.get()).readBigEndian(v, 4); }
MP4Err CDiscStorage::readUInt24(uint32_t* v) { return stateOrClosed(state_.get()).readBigEndian(v, 3); }
MP4Err CDiscStorage::readUInt16(uint16_t* v) { return stateOrClosed(state_.get()).readBigEndian(v, 2); }
MP4Err CDiscStorage::readUInt8(uint8_t* v) { return stateOrClosed(state_.get()).readBigEndian(v, 1); }
MP4Err CDiscStorage::readInt8(int8_t* v) { return stateOrClosed(state_.get()).readBigEndian(v, 1); }

MP4Err CDiscStorage::readBytes(uint8_t* buffer, uint64_t count) {
    if (count == 0) return MP4_OK;
    if (buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    DiscState& s = stateOrClosed(state_.get());
    MP4Err err = s.checkReadable();
    if (err != MP4_OK) return err;
    return s.readRaw(buffer, count);
}

MP4Err CDiscStorage::readBlock(void* buffer, uint32_t count) {
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    // Unlike readBytes, a block read after the end was hit says so.
    if (s.atEnd) return MP4_ERR_END_OF_FILE;
    if (count == 0) return MP4_OK;
    if (buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = s.checkReadable();
    if (err != MP4_OK) return err;
    return s.readRaw(static_cast<uint8_t*>(buffer), count);
}

MP4Err CDiscStorage::skip(uint64_t count) {
    if (count == 0) return MP4_OK;
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    uint64_t position = 0;
    MP4Err err = s.tell(&position);
    if (err != MP4_OK) return err;
    // Modular on purpose: a box reader that consumed more than its box
    // passes a wrapped count, and the sum still lands on the box end.
    return s.seekTo(position + count);
}

MP4Err CDiscStorage::writeUInt64(uint64_t v) { return stateOrClosed(state_.get()).writeBigEndian(v, 8); }
MP4Err CDiscStorage::writeUInt32(uint32_t v) { return stateOrClosed(state_.get()).writeBigEndian(v, 4); }
MP4Err CDiscStorage::writeUInt24(uint32_t v) { return stateOrClosed(state_.get()).writeBigEndian(v, 3); }
MP4Err CDiscStorage::writeUInt16(uint16_t v) { return stateOrClosed(state_.get()).writeBigEndian(v, 2); }
MP4Err CDiscStorage::writeUInt8(uint8_t v) { return stateOrClosed(state_.get()).writeBigEndian(v, 1); }
MP4Err CDiscStorage::writeInt64(int64_t v) { return writeUInt64(static_cast<uint64_t>(v)); }
MP4Err CDiscStorage::writeInt32(int32_t v) { return writeUInt32(static_cast<uint32_t>(v)); }
MP4Err CDiscStorage::writeInt24(int32_t v) { return writeUInt24(static_cast<uint32_t>(v)); }
MP4Err CDiscStorage::writeInt16(int16_t v) { return writeUInt16(static_cast<uint16_t>(v)); }
MP4Err CDiscStorage::writeInt8(int8_t v) { return writeUInt8(static_cast<uint8_t>(v)); }

MP4Err CDiscStorage::writeBlock(const void* buffer, int32_t count) {
    return writeBytes(buffer, count);
}

MP4Err CDiscStorage::writeBytes(const void* buffer, int32_t count) {
    DiscState& s = stateOrClosed(state_.get());
    if (s.file == nullptr) return MP4_ERR_NOT_AVAILABLE;
    // Deliberate: an empty block is a failed write (4), as it has always
    // been; callers never write empty blocks. Negative counts fail too.
    if (count <= 0) return MP4_ERR_IO;
    if (buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    return s.writeRaw(buffer, static_cast<size_t>(count));
}

}  // namespace quil
