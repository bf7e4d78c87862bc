// Base64 (RFC 4648 standard alphabet, "=" padding, no line breaks) for the
// binary configuration data that SDP lines carry.
#ifndef QUIL_STORAGE_BASE64_H
#define QUIL_STORAGE_BASE64_H

#include <cstdint>

#include "quil/MP4Err.h"

namespace quil {
namespace base64 {

// Output allocated with new[]; the caller frees it with delete[].
MP4Err encode(const uint8_t* data, uint32_t length, char** text, uint32_t* textLength);
MP4Err decode(const char* text, int32_t length, uint8_t** data, uint32_t* dataLength);

}  // namespace base64
}  // namespace quil

#endif
