// quil: file names. The interface takes paths as wide characters (one
// UTF-32 unit each on POSIX systems) and opens them as their UTF-8 form.
#ifndef QUIL_MP4PATH_H
#define QUIL_MP4PATH_H

#include <string>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

// The wide path that opens the file named by UTF-8 bytes (a command-line
// argument, for example). 2 for a null pointer or invalid UTF-8.
QUIL_API MP4Err Mp4WidePathFromUtf8(const char* utf8, std::wstring* path);

}  // namespace quil

#endif
