// quil: RTP hint tracks.
#ifndef QUIL_MP4HINTTRACK_H
#define QUIL_MP4HINTTRACK_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

// Hint tracks packetize a media track for RTP streaming. Their operations
// arrive with RTP hinting; until then CMp4File::getHintTrack and
// createHintTrack answer MP4_ERR_UNSUPPORTED.
class QUIL_API CMp4HintTrack {
public:
    virtual ~CMp4HintTrack() = default;
};

class QUIL_API CMp4RtpHintTrack : public CMp4HintTrack {
public:
    ~CMp4RtpHintTrack() override = default;
};

}  // namespace quil

#endif
