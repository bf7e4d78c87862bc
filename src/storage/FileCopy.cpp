#include "FileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace quil {
namespace {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now, so that a failing close (a delayed write error) is seen.
    bool closeChecked() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

private:
    int fd_;
};

// Copies with read and write in large pieces; used where the kernel cannot
// copy between the two files itself.
MP4Err copyThroughBuffer(int in, uint64_t inOffset, int out, uint64_t outOffset,
                         uint64_t count) {
    constexpr size_t kPiece = 1 << 20;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kPiece]);
    if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
    while (count > 0) {
        const size_t wanted = count < kPiece ? static_cast<size_t>(count) : kPiece;
        const ssize_t got = ::pread(in, buffer.get(), wanted, static_cast<off_t>(inOffset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return MP4_ERR_IO;  // the source ended early
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::pwrite(out, buffer.get() + done, static_cast<size_t>(got - done),
                                         static_cast<off_t>(outOffset + done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) return MP4_ERR_IO;
            done += put;
        }
        inOffset += static_cast<uint64_t>(got);
        outOffset += static_cast<uint64_t>(got);
        count -= static_cast<uint64_t>(got);
    }
    return MP4_OK;
}

// count bytes from one descriptor to the other at the given offsets: by
// the kernel where it can, else through a buffer.
MP4Err copyBetween(int in, uint64_t sourceOffset, int out, uint64_t targetOffset,
                   uint64_t count) {
    loff_t inOffset = static_cast<loff_t>(sourceOffset);
    loff_t outOffset = static_cast<loff_t>(targetOffset);
    while (count > 0) {
        const size_t piece = count < (1u << 30) ? static_cast<size_t>(count) : (1u << 30);
        const ssize_t copied = ::copy_file_range(in, &inOffset, out, &outOffset, piece, 0);
        if (copied > 0) {
            count -= static_cast<uint64_t>(copied);
            continue;
        }
        if (copied < 0 && errno == EINTR) continue;
        if (copied == 0) return MP4_ERR_IO;  // the source ended before its media data
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP ||
            errno == EBADF) {
            return copyThroughBuffer(in, static_cast<uint64_t>(inOffset), out,
                                     static_cast<uint64_t>(outOffset), count);
        }
        return MP4_ERR_IO;  // a full disc, a failing device
    }
    return MP4_OK;
}

}  // namespace

bool sameFileOnDisc(const std::string& a, const std::string& b) {
    struct stat first {}, second {};
    return a == b || (::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
                      first.st_dev == second.st_dev && first.st_ino == second.st_ino);
}

// The bytes written are exactly those of piecewise reads and writes;
// letting the kernel copy between the two files (copy_file_range) spares
// moving gigabytes through user space, and large pieces spare the system
// calls.
MP4Err copyFileBytes(const std::string& source, uint64_t sourceOffset, const std::string& target,
                     uint64_t targetOffset, uint64_t count) {
    FileDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) return MP4_ERR_IO;
    FileDescriptor out(::open(target.c_str(), O_WRONLY | O_CLOEXEC));
    if (out.get() < 0) return MP4_ERR_IO;
    MP4Err err = copyBetween(in.get(), sourceOffset, out.get(), targetOffset, count);
    if (!out.closeChecked() && err == MP4_OK) err = MP4_ERR_IO;
    return err;
}

// ---- CRangeCopier ---------------------------------------------------------

CRangeCopier::CRangeCopier() = default;

CRangeCopier::~CRangeCopier() {
    if (in_ >= 0) ::close(in_);
    if (out_ >= 0) ::close(out_);
}

MP4Err CRangeCopier::open(const std::string& source, const std::string& target,
                          uint64_t targetOffset) {
    if (in_ >= 0 || out_ >= 0) return MP4_ERR_NOT_AVAILABLE;
    for (Window& window : windows_) {
        window.bytes.reset(new (std::nothrow) uint8_t[kWindowBytes]);
        if (!window.bytes) return MP4_ERR_OUT_OF_MEMORY;
    }
    gathered_.reset(new (std::nothrow) uint8_t[kGatherBytes]);
    if (!gathered_) return MP4_ERR_OUT_OF_MEMORY;
    in_ = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in_ < 0) return MP4_ERR_IO;
    out_ = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    if (out_ < 0) return MP4_ERR_IO;
    targetEnd_ = targetOffset;
    return MP4_OK;
}

MP4Err CRangeCopier::append(uint64_t sourceOffset, uint64_t count) {
    if (out_ < 0) return MP4_ERR_NOT_AVAILABLE;
    if (runLength_ > 0 && sourceOffset == runStart_ + runLength_) {
        runLength_ += count;
        return MP4_OK;
    }
    MP4Err err = issueRun();
    runStart_ = sourceOffset;
    runLength_ = count;
    return err;
}

MP4Err CRangeCopier::finish() {
    if (out_ < 0) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = issueRun();
    if (err == MP4_OK) err = writeGathered();
    const int out = out_;
    out_ = -1;
    if (::close(out) != 0 && err == MP4_OK) err = MP4_ERR_IO;
    return err;
}

// A long run goes file to file in the kernel; a short one is gathered
// with its neighbours into one large write.
MP4Err CRangeCopier::issueRun() {
    const uint64_t start = runStart_, count = runLength_;
    runLength_ = 0;
    if (count == 0) return MP4_OK;
    if (count < kKernelCopyBytes) return gather(start, count);
    MP4Err err = writeGathered();
    if (err == MP4_OK) err = copyBetween(in_, start, out_, targetEnd_, count);
    if (err == MP4_OK) targetEnd_ += count;
    return err;
}

MP4Err CRangeCopier::gather(uint64_t sourceOffset, uint64_t count) {
    MP4Err err = MP4_OK;
    if (gatheredLength_ + count > kGatherBytes && (err = writeGathered()) != MP4_OK) return err;
    uint8_t* into = gathered_.get() + gatheredLength_;
    if (count >= kDirectReadBytes) {
        // Worth a read of its own: no window read for a few bytes of it.
        uint64_t got = 0;
        err = readSource(sourceOffset, into, count, count, &got);
    } else {
        const uint8_t* bytes = nullptr;
        err = sourceBytes(sourceOffset, count, &bytes);
        if (err == MP4_OK) std::memcpy(into, bytes, static_cast<size_t>(count));
    }
    if (err == MP4_OK) gatheredLength_ += static_cast<size_t>(count);
    return err;
}

// Reads at least count and at most room bytes at sourceOffset; 4 when the
// source ends first.
MP4Err CRangeCopier::readSource(uint64_t sourceOffset, uint8_t* into, uint64_t count,
                                uint64_t room, uint64_t* got) {
    *got = 0;
    while (*got < count) {
        const ssize_t read = ::pread(in_, into + *got, static_cast<size_t>(room - *got),
                                     static_cast<off_t>(sourceOffset + *got));
        if (read < 0 && errno == EINTR) continue;
        if (read <= 0) return MP4_ERR_IO;
        *got += static_cast<uint64_t>(read);
    }
    return MP4_OK;
}

// The source bytes from one of the read windows; the window used least
// recently is read again from sourceOffset on when neither holds them. Two
// windows follow two tracks whose samples lie apart in the source. A
// window that served few ranges read too far: the next read fetches less;
// one that served many, more.
MP4Err CRangeCopier::sourceBytes(uint64_t sourceOffset, uint64_t count, const uint8_t** bytes) {
    ++useClock_;
    for (Window& window : windows_) {
        if (sourceOffset >= window.start && sourceOffset - window.start <= window.length &&
            count <= window.length - (sourceOffset - window.start)) {
            window.lastUse = useClock_;
            ++window.uses;
            *bytes = window.bytes.get() + (sourceOffset - window.start);
            return MP4_OK;
        }
    }
    Window& reused = windows_[0].lastUse <= windows_[1].lastUse ? windows_[0] : windows_[1];
    if (reused.length > 0 && reused.uses <= 2 && readAhead_ > kLeastReadAhead) readAhead_ /= 2;
    if (reused.uses >= 32 && readAhead_ < kWindowBytes) readAhead_ *= 2;
    const uint64_t room = count > readAhead_ ? count : readAhead_;
    reused.length = 0;
    reused.uses = 1;
    MP4Err err = readSource(sourceOffset, reused.bytes.get(), count, room, &reused.length);
    if (err != MP4_OK) {
        reused.length = 0;
        return err;
    }
    reused.start = sourceOffset;
    reused.lastUse = useClock_;
    *bytes = reused.bytes.get();
    return MP4_OK;
}

MP4Err CRangeCopier::writeGathered() {
    for (size_t done = 0; done < gatheredLength_;) {
        const ssize_t put = ::pwrite(out_, gathered_.get() + done, gatheredLength_ - done,
                                     static_cast<off_t>(targetEnd_ + done));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return MP4_ERR_IO;
        done += static_cast<size_t>(put);
    }
    targetEnd_ += gatheredLength_;
    gatheredLength_ = 0;
    return MP4_OK;
}

}  // namespace quil
