// Byte copies between files on disc, by path: the media copier of every
// rewrite, and the check that two paths do not name one file.
#ifndef QUIL_STORAGE_FILECOPY_H
#define QUIL_STORAGE_FILECOPY_H

#include <cstdint>
#include <memory>
#include <string>

#include "quil/MP4Err.h"

namespace quil {

// Whether two UTF-8 paths name the same file: equal, or one existing file
// under two names (links, "./a" and "a"). A rewrite onto its own source
// would destroy the source while reading it.
bool sameFileOnDisc(const std::string& a, const std::string& b);

// Copies count bytes at sourceOffset of one file to targetOffset of an
// existing other file, which grows as needed. 4 when the source ends early
// or a write fails (a full disc), the target's close included.
MP4Err copyFileBytes(const std::string& source, uint64_t sourceOffset, const std::string& target,
                     uint64_t targetOffset, uint64_t count);

// Byte ranges of one file appended one after the other to another file
// from a given offset on: the media copier of a copy that regroups chunks
// (remux). Writing is deferred, so an error may belong to a range appended
// earlier; finish writes the rest. Every range is gathered into large
// writes whose buffer lies at the same place within a page as the bytes in
// the target, so that the kernel copies whole pages into the page cache:
// the bytes of long ranges come from a mapping of the source (copied once,
// in user space), those of short ones through two read windows whose size
// follows how many ranges a window serves, so that a file of tiny samples
// costs few system calls and small ranges far apart no more than their
// bytes. (A kernel copy file to file, copy_file_range, is slower here: the
// regrouped bytes start at other places within a page in the target than
// in the source, and the kernel copies such pages piecewise.)
class CRangeCopier {
public:
    CRangeCopier();
    ~CRangeCopier();
    CRangeCopier(const CRangeCopier&) = delete;
    CRangeCopier& operator=(const CRangeCopier&) = delete;

    // Opens both files (the target must exist); 4 when one cannot be opened.
    MP4Err open(const std::string& source, const std::string& target, uint64_t targetOffset);
    // Appends count bytes at sourceOffset of the source. 4 when the source
    // ends early or a write fails.
    MP4Err append(uint64_t sourceOffset, uint64_t count);
    // Writes what is still pending and closes the target (a failing close
    // is 4).
    MP4Err finish();

private:
    static constexpr uint64_t kPage = 4096;
    static constexpr uint64_t kMappedBytes = 16 * 1024;  // ranges taken from a mapping
    static constexpr uint64_t kMappingBytes = 2 << 20;
    static constexpr uint64_t kKernelCopyBytes = 256 * 1024;  // aligned ranges the kernel copies
    static constexpr uint64_t kWindowBytes = 256 * 1024;
    static constexpr uint64_t kLeastReadAhead = 4 * 1024;
    static constexpr size_t kGatherBytes = 256 * 1024;
    struct Window {
        std::unique_ptr<uint8_t[]> bytes;
        uint64_t start = 0;
        uint64_t length = 0;
        uint64_t lastUse = 0;
        uint32_t uses = 0;  // ranges served since it was read
    };
    struct Mapping {
        uint8_t* base = nullptr;
        uint64_t start = 0;
        uint64_t length = 0;
        uint64_t lastUse = 0;
    };
    MP4Err issueRun();
    MP4Err gather(uint64_t sourceOffset, uint64_t count);
    MP4Err gatherLong(uint64_t sourceOffset, uint64_t count);
    MP4Err copyAligned(uint64_t sourceOffset, uint64_t count);
    MP4Err readSource(uint64_t sourceOffset, uint8_t* into, uint64_t count, uint64_t room,
                      uint64_t* got);
    MP4Err sourceBytes(uint64_t sourceOffset, uint64_t count, const uint8_t** bytes);
    bool mappedBytes(uint64_t sourceOffset, const uint8_t** bytes, uint64_t* available);
    uint8_t* gatherEnd() { return gathered_ + targetEnd_ % kPage + gatheredLength_; }
    MP4Err writeGathered();

    int in_ = -1;
    int out_ = -1;
    uint64_t sourceSize_ = 0;
    uint64_t targetEnd_ = 0;  // where the gathered bytes go
    uint64_t runStart_ = 0;   // the contiguous source bytes not yet gathered
    uint64_t runLength_ = 0;
    Window windows_[2];
    Mapping mappings_[2];
    uint64_t useClock_ = 0;
    uint64_t readAhead_ = 64 * 1024;  // bytes a window read fetches
    std::unique_ptr<uint8_t[]> gatherStore_;
    uint8_t* gathered_ = nullptr;  // page-aligned within gatherStore_
    size_t gatheredLength_ = 0;
};

}  // namespace quil

#endif
