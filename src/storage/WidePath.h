// Wide-character paths of the interface, converted to UTF-8 for the OS.
#ifndef QUIL_STORAGE_WIDEPATH_H
#define QUIL_STORAGE_WIDEPATH_H

#include <string>

#include "quil/MP4Err.h"

namespace quil {

// Converts each wchar_t (a UTF-32 code unit) to UTF-8 without consulting
// the locale. A unit that is not a Unicode scalar value gives MP4_ERR_IO.
MP4Err widePathToUtf8(const wchar_t* path, std::string* utf8);

// The reverse, for the tool: UTF-8 from the command line to wide
// characters. Invalid sequences give MP4_ERR_INVALID_ARGUMENT.
MP4Err utf8ToWidePath(const char* utf8, std::wstring* path);

}  // namespace quil

#endif
