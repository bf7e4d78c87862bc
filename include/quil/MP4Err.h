// quil: error codes returned by every operation of the library.
#ifndef QUIL_MP4ERR_H
#define QUIL_MP4ERR_H

#include <cstdint>

#include "Export.h"

namespace quil {

// 32-bit result of every operation; 0 is success. Values are stable and
// part of the interface: callers compare against them (for example,
// box searches loop until MP4_ERR_NOT_AVAILABLE).
enum MP4Err : uint32_t {
    MP4_OK = 0,
    MP4_ERR_OUT_OF_MEMORY = 1,
    MP4_ERR_INVALID_ARGUMENT = 2,   // null pointer, value out of range, number out of sequence
    MP4_ERR_NOT_AVAILABLE = 3,      // wrong state, or a box/track/entry that is absent
    MP4_ERR_IO = 4,
    MP4_ERR_INVALID_DATA = 5,
    MP4_ERR_BAD_BOX_SIZE = 6,       // data shorter than declared
    MP4_ERR_BUFFER_TOO_SMALL = 7,
    MP4_ERR_WRONG_LAYOUT = 8,       // required child missing or duplicated, wrong file layout
    MP4_ERR_BAD_SIZE_FIELD = 9,     // malformed size field, mandatory child descriptor missing
    MP4_ERR_VALUE_TOO_LARGE = 10,
    MP4_ERR_END_OF_FILE = 11,
    MP4_ERR_UNSUPPORTED = 12,
    MP4_ERR_BAD_TIME = 13,
    MP4_ERR_BAD_INDEX = 17,         // a 1-based index of 0
    MP4_ERR_OUT_OF_RANGE = 18,      // beyond a memory buffer
    MP4_ERR_NO_TRACKS = 19
};

// Short English name of a code ("MP4_ERR_IO: input/output error"), for
// messages. Never returns null; unknown values give "unknown error".
QUIL_API const char* toString(MP4Err err);

}  // namespace quil

#endif
