// Names and short descriptions of the MP4Err codes, for messages.
#include "quil/MP4Err.h"

namespace quil {

const char* toString(MP4Err err) {
    switch (err) {
        case MP4_OK: return "MP4_OK: success";
        case MP4_ERR_OUT_OF_MEMORY: return "MP4_ERR_OUT_OF_MEMORY: out of memory";
        case MP4_ERR_INVALID_ARGUMENT: return "MP4_ERR_INVALID_ARGUMENT: invalid argument";
        case MP4_ERR_NOT_AVAILABLE:
            return "MP4_ERR_NOT_AVAILABLE: not available (wrong state or missing item)";
        case MP4_ERR_IO: return "MP4_ERR_IO: input/output error";
        case MP4_ERR_INVALID_DATA: return "MP4_ERR_INVALID_DATA: invalid or unusable data";
        case MP4_ERR_BAD_BOX_SIZE:
            return "MP4_ERR_BAD_BOX_SIZE: data shorter than its declared size";
        case MP4_ERR_BUFFER_TOO_SMALL: return "MP4_ERR_BUFFER_TOO_SMALL: buffer too small";
        case MP4_ERR_WRONG_LAYOUT: return "MP4_ERR_WRONG_LAYOUT: wrong file or box layout";
        case MP4_ERR_BAD_SIZE_FIELD: return "MP4_ERR_BAD_SIZE_FIELD: malformed size field";
        case MP4_ERR_VALUE_TOO_LARGE:
            return "MP4_ERR_VALUE_TOO_LARGE: value too large for its field";
        case MP4_ERR_END_OF_FILE: return "MP4_ERR_END_OF_FILE: end of file";
        case MP4_ERR_UNSUPPORTED: return "MP4_ERR_UNSUPPORTED: unsupported operation or form";
        case MP4_ERR_BAD_TIME: return "MP4_ERR_BAD_TIME: times out of order or too large";
        case MP4_ERR_BAD_INDEX: return "MP4_ERR_BAD_INDEX: index 0 where numbering starts at 1";
        case MP4_ERR_OUT_OF_RANGE: return "MP4_ERR_OUT_OF_RANGE: beyond the end of a memory buffer";
        case MP4_ERR_NO_TRACKS: return "MP4_ERR_NO_TRACKS: no usable tracks";
    }
    // Values outside the enumeration can arrive through casts from callers.
    return "unknown error";
}

}  // namespace quil
