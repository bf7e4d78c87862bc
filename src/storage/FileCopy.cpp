#include "FileCopy.h"

#include <fcntl.h>
#include <sys/mman.h>
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
    for (Mapping& mapping : mappings_) {
        if (mapping.base) ::munmap(mapping.base, mapping.length);
    }
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
    gatherStore_.reset(new (std::nothrow) uint8_t[kGatherBytes + 2 * kPage]);
    if (!gatherStore_) return MP4_ERR_OUT_OF_MEMORY;
    const uintptr_t store = reinterpret_cast<uintptr_t>(gatherStore_.get());
    gathered_ = gatherStore_.get() + ((kPage - store % kPage) % kPage);
    in_ = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in_ < 0) return MP4_ERR_IO;
    struct stat status {};
    if (::fstat(in_, &status) != 0) return MP4_ERR_IO;
    sourceSize_ = static_cast<uint64_t>(status.st_size);
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

MP4Err CRangeCopier::issueRun() {
    const uint64_t start = runStart_, count = runLength_;
    runLength_ = 0;
    if (count == 0) return MP4_OK;
    // Bytes the source does not have: the source ended early.
    if (start > sourceSize_ || count > sourceSize_ - start) return MP4_ERR_IO;
    if (count >= kKernelCopyBytes && start % kPage == (targetEnd_ + gatheredLength_) % kPage) {
        return copyAligned(start, count);
    }
    return count < kMappedBytes ? gather(start, count) : gatherLong(start, count);
}

// A long range that lands at the same place within a page as it lies in
// the source (a copy keeping the source's layout): the kernel copies it
// page for page without passing it through this process, as fast as a
// copy of the whole file; shifted, that copy is slower than gathering.
MP4Err CRangeCopier::copyAligned(uint64_t sourceOffset, uint64_t count) {
    MP4Err err = writeGathered();
    if (err != MP4_OK) return err;
    if ((err = copyBetween(in_, sourceOffset, out_, targetEnd_, count)) != MP4_OK) return err;
    targetEnd_ += count;
    return MP4_OK;
}

MP4Err CRangeCopier::gather(uint64_t sourceOffset, uint64_t count) {
    MP4Err err = MP4_OK;
    if (gatheredLength_ + count > kGatherBytes && (err = writeGathered()) != MP4_OK) return err;
    const uint8_t* bytes = nullptr;
    if ((err = sourceBytes(sourceOffset, count, &bytes)) != MP4_OK) return err;
    std::memcpy(gatherEnd(), bytes, static_cast<size_t>(count));
    gatheredLength_ += static_cast<size_t>(count);
    return MP4_OK;
}

// A long range in pieces as large as the gather buffer takes, each from
// the mapping of the source (read instead where it cannot be mapped).
MP4Err CRangeCopier::gatherLong(uint64_t sourceOffset, uint64_t count) {
    while (count > 0) {
        MP4Err err = MP4_OK;
        if (gatheredLength_ == kGatherBytes && (err = writeGathered()) != MP4_OK) return err;
        uint64_t piece = kGatherBytes - gatheredLength_;
        if (piece > count) piece = count;
        const uint8_t* bytes = nullptr;
        uint64_t available = 0;
        if (mappedBytes(sourceOffset, &bytes, &available)) {
            if (piece > available) piece = available;
            std::memcpy(gatherEnd(), bytes, static_cast<size_t>(piece));
        } else {
            uint64_t got = 0;
            if ((err = readSource(sourceOffset, gatherEnd(), piece, piece, &got)) != MP4_OK) return err;
        }
        gatheredLength_ += static_cast<size_t>(piece);
        sourceOffset += piece;
        count -= piece;
    }
    return MP4_OK;
}

// The source at sourceOffset (within the size it had when opened) through
// one of two mappings of kMappingBytes; false when it cannot be mapped. The
// source is a file being read, which does not shrink while it is copied.
bool CRangeCopier::mappedBytes(uint64_t sourceOffset, const uint8_t** bytes,
                               uint64_t* available) {
    ++useClock_;
    Mapping* found = nullptr;
    for (Mapping& mapping : mappings_) {
        if (mapping.base && sourceOffset >= mapping.start &&
            sourceOffset - mapping.start < mapping.length) {
            found = &mapping;
        }
    }
    if (!found) {
        found = mappings_[0].lastUse <= mappings_[1].lastUse ? &mappings_[0] : &mappings_[1];
        if (found->base) ::munmap(found->base, found->length);
        found->base = nullptr;
        found->start = sourceOffset - sourceOffset % kPage;
        found->length = sourceSize_ - found->start < kMappingBytes ? sourceSize_ - found->start
                                                                   : kMappingBytes;
        void* base = ::mmap(nullptr, static_cast<size_t>(found->length), PROT_READ, MAP_SHARED, in_,
                            static_cast<off_t>(found->start));
        if (base == MAP_FAILED) return false;
        found->base = static_cast<uint8_t*>(base);
    }
    found->lastUse = useClock_;
    *bytes = found->base + (sourceOffset - found->start);
    *available = found->start + found->length - sourceOffset;
    return true;
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

// The gathered bytes lie in the buffer at their target's place within a
// page: the kernel then copies whole pages.
MP4Err CRangeCopier::writeGathered() {
    const uint8_t* bytes = gathered_ + targetEnd_ % kPage;
    for (size_t done = 0; done < gatheredLength_;) {
        const ssize_t put = ::pwrite(out_, bytes + done, gatheredLength_ - done,
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
