#include "FileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
    loff_t inOffset = static_cast<loff_t>(sourceOffset);
    loff_t outOffset = static_cast<loff_t>(targetOffset);
    MP4Err err = MP4_OK;
    while (count > 0) {
        const size_t piece = count < (1u << 30) ? static_cast<size_t>(count) : (1u << 30);
        const ssize_t copied = ::copy_file_range(in.get(), &inOffset, out.get(), &outOffset,
                                                 piece, 0);
        if (copied > 0) {
            count -= static_cast<uint64_t>(copied);
            continue;
        }
        if (copied < 0 && errno == EINTR) continue;
        if (copied == 0) {
            err = MP4_ERR_IO;  // the source ended before its media data
        } else if (errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                   errno == EOPNOTSUPP || errno == EBADF) {
            err = copyThroughBuffer(in.get(), static_cast<uint64_t>(inOffset), out.get(),
                                    static_cast<uint64_t>(outOffset), count);
        } else {
            err = MP4_ERR_IO;  // a full disc, a failing device
        }
        break;
    }
    if (!out.closeChecked() && err == MP4_OK) err = MP4_ERR_IO;
    return err;
}

}  // namespace quil
