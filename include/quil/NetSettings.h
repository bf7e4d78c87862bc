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
    // TLS: 0 (the default) uses TLS exactly when the port is 443, whatever
    // the scheme; 1 follows the scheme: "https" URLs use TLS on any port,
    // "http" URLs never.
    uint32_t tlsByScheme;
    // A PEM file of the certificate authorities to trust for TLS; null (the
    // default) trusts the system's store. Certificates are always verified.
    const char* caFile;
    // A server that ignores Range and answers 200 with the whole body: 0
    // (the default) refuses the reply, so reads fail with MP4_ERR_IO; 1
    // reads it, skipping the body up to the requested offset, and prints
    // "server ignores ranges: reading from the start" once per file to
    // progress.
    uint32_t acceptWholeBody;
};

// Stores the settings in force. 2 when the pointer is null.
QUIL_API MP4Err Mp4GetNetSettings(Mp4NetSettings* settings);
// 2 when the pointer is null, a timeout is 0 or a switch is above 1. The
// CA file name is copied.
QUIL_API MP4Err Mp4SetNetSettings(const Mp4NetSettings* settings);

// Why the last request of the process that failed did so, as one line:
// "HTTP status 404", "server did not send the requested range" or the
// connection error ("Couldn't connect to server: ..."); "" when none has
// failed. Truncated to size - 1 bytes. 2 for a null buffer or size 0.
QUIL_API MP4Err Mp4GetLastNetError(char* buffer, uint32_t size);

}  // namespace quil

#endif
