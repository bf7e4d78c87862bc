// The quil tool's streaming commands: hint, sdp, rtp-send, and the hint
// samples that dump prints.
#ifndef QUIL_TOOLS_HINT_H
#define QUIL_TOOLS_HINT_H

#include <cstdint>

#include "quil/quil.h"

namespace quil {
namespace tool {

// quil hint IN OUT [--mtu N] [--latm]
int runHint(const char* input, const char* output, uint32_t mtu, bool latm);
// quil sdp FILE [--to HOST:PORT]
int runSdp(const char* path, const char* destination);
// quil rtp-send FILE --to HOST:PORT [--speed X]
int runRtpSend(const char* path, const char* destination, double speed);
// Prints every hint sample of every RTP hint track of an opened file.
int dumpHintSamples(CMp4File* file);

}  // namespace tool
}  // namespace quil

#endif
