// quil: settings of reading over HTTP (paths beginning with "http").
#ifndef QUIL_NETSETTINGS_H
#define QUIL_NETSETTINGS_H

#include <cstdint>
#include <cstdio>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

// Process-wide; a download takes the values in force when it starts.
struct Mp4NetSettings {
    // Resolving the host and connecting, per request. Default 10000.
    uint32_t connectTimeoutMs;
    // A request that receives no byte for this long ends, and reads that
    // wait for its data fail with MP4_ERR_IO. Default 20000.
    uint32_t stallTimeoutMs;
    // Where the download progress text goes ("content length is ...",
    // one "#" per 128 KiB block, "cache reading complete", "reseek ...").
    // Default stdout; null prints nothing.
    std::FILE* progress;
};

// Stores the settings in force. 2 when the pointer is null.
QUIL_API MP4Err Mp4GetNetSettings(Mp4NetSettings* settings);
// 2 when the pointer is null or a timeout is 0.
QUIL_API MP4Err Mp4SetNetSettings(const Mp4NetSettings* settings);

}  // namespace quil

#endif
