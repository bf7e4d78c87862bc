// ISMA 1.0 descriptors shared by the static functions of CMp4File, the
// session SDP written at close and the object-descriptor track.
#ifndef QUIL_HINT_ISMA_H
#define QUIL_HINT_ISMA_H

#include <cstdint>
#include <vector>

#include "quil/Mp4File.h"

namespace quil {

// ES IDs createIsmaIod gives the streams when it is not told the tracks.
constexpr uint32_t kDefaultIsmaVideoEsId = 201;
constexpr uint32_t kDefaultIsmaAudioEsId = 101;

// One media stream of an ISMA presentation.
struct IsmaStream {
    uint32_t esId;              // the track ID
    const char* config;         // decoder-specific bytes, may be null
    uint32_t configLength;
    const uint32_t* bitrate;    // average and maximum bit rate, may be null
    uint16_t referenceIndex;    // 1-based "mpod" reference, file form only
};

// An object-descriptor update command (ISO/IEC 14496-1 §7.2.6.2) with the
// object descriptors 20 (video) and 10 (audio). Inline form: each holds the
// stream's full ES descriptor; file form: an ES_ID_Ref to the OD track's
// "mpod" reference.
MP4Err buildIsmaOdUpdate(const IsmaStream* video, const IsmaStream* audio, bool fileForm,
                         std::vector<uint8_t>* command);
// The initial object descriptor of the session SDP: the OD stream (ES 1) and
// the scene stream (ES 2), each with its access unit inline as a data URL.
// 19 when neither stream is given.
MP4Err buildIsmaIod(const IsmaStream* video, const IsmaStream* audio, std::vector<uint8_t>* iod);
// The BIFS command that sets up the scene of the given streams.
void ismaBifsScene(bool hasVideo, bool hasAudio, const uint8_t** bytes, uint32_t* length);

}  // namespace quil

#endif
