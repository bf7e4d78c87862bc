// RTP hinting as the file object offers it. The file keeps its own part
// (argument checks, the payload types it hands out, whether a hint track
// was added, the caller's hint context); the work on hint tracks, the
// session description and the ISMA object-descriptor tracks belongs to the
// hint layer, which implements this interface over the file's public and
// track-host operations. The file never names a hint class.
#ifndef QUIL_FILE_FILEHINTING_H
#define QUIL_FILE_FILEHINTING_H

#include <cstdint>

#include "quil/MP4Err.h"

namespace quil {

class CMp4FileImpl;
class CMp4HintTrackContext;
class CMp4RtpHintTrack;

class CFileHinting {
public:
    // A reading hint track over track trackNumber of the file.
    virtual MP4Err openHintTrack(CMp4FileImpl* file, uint32_t trackNumber,
                                 CMp4RtpHintTrack** hintTrack) = 0;
    // A hint track of that packetizer kind for a file being written; 2 for
    // an unknown kind.
    virtual MP4Err createHintTrack(CMp4FileImpl* file, int32_t kind,
                                   CMp4RtpHintTrack** hintTrack) = 0;
    // Packetizes the hint track's media track into it; 2 for a hint track
    // the library did not make.
    virtual MP4Err buildHintTrack(CMp4FileImpl* file, CMp4RtpHintTrack* hintTrack,
                                  uint8_t payloadType, CMp4HintTrackContext* context) = 0;
    // The session SDP stored in moov/udta/hnti/"rtp ", with its zero.
    virtual MP4Err getSessionSdp(CMp4FileImpl* file, uint8_t* buffer, uint32_t bufferSize) = 0;
    // Close of a hinted file: stores the session SDP.
    virtual MP4Err writeSessionSdp(CMp4FileImpl* file, CMp4HintTrackContext* context) = 0;
    virtual MP4Err addIsmaObjectDescriptorTrack(CMp4FileImpl* file, uint32_t firstTrackNumber,
                                                uint32_t secondTrackNumber) = 0;

protected:
    ~CFileHinting() = default;
};

// The hint layer's implementation (hint/FileHinting.cpp), found at link
// time: this layer declares what it needs and includes nothing above it.
CFileHinting& fileHinting();

}  // namespace quil

#endif
