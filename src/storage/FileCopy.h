// Byte copies between files on disc, by path: the media copier of every
// rewrite, and the check that two paths do not name one file.
#ifndef QUIL_STORAGE_FILECOPY_H
#define QUIL_STORAGE_FILECOPY_H

#include <cstdint>
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

}  // namespace quil

#endif
