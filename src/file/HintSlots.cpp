// The file object's part of RTP hinting: argument checks, the payload types
// it hands out, whether the file holds hint tracks, and the tracks a hint
// track reads. The hinting itself is the hint layer's (FileHinting.h).
#include <memory>
#include <new>
#include <string>

#include "file/FileHinting.h"
#include "file/Mp4FileImpl.h"
#include "track/TrackImpl.h"

namespace quil {

MP4Err CMp4FileImpl::getHintTrack(uint32_t trackNumber, CMp4RtpHintTrack** hintTrack) {
    if (hintTrack == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *hintTrack = nullptr;
    if (trackNumber == 0 || trackNumber > trackCount_) return MP4_ERR_INVALID_ARGUMENT;
    return fileHinting().openHintTrack(this, trackNumber, hintTrack);
}

MP4Err CMp4FileImpl::createHintTrack(CMp4RtpHintTrack** hintTrack, int32_t kind) {
    if (hintTrack == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *hintTrack = nullptr;
    if (isOpen_ == 0 || mode_ != 1) return MP4_ERR_NOT_AVAILABLE;
    return fileHinting().createHintTrack(this, kind, hintTrack);
}

MP4Err CMp4FileImpl::addHintTrack(CMp4RtpHintTrack* hintTrack) {
    if (hintTrack == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    // Every call takes a payload type, counting from 96. 128 is still
    // handed out although it lies outside the 7-bit RTP range, a limit kept
    // deliberately; the byte then runs on to 129 and beyond, which fail.
    const uint8_t payloadType = nextPayloadType_++;
    if (static_cast<uint8_t>(payloadType - 1) > 127) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = fileHinting().buildHintTrack(this, hintTrack, payloadType, hintTrackContext_);
    if (err != MP4_OK) return err;
    hasHintTracks_ = 1;
    return MP4_OK;
}

MP4Err CMp4FileImpl::getSessionSdp(uint8_t* buffer, uint32_t bufferSize) {
    if (buffer == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    return fileHinting().getSessionSdp(this, buffer, bufferSize);
}

MP4Err CMp4FileImpl::writeSessionSdp() {
    if (hasHintTracks_ == 0) return MP4_OK;
    return fileHinting().writeSessionSdp(this, hintTrackContext_);
}

MP4Err CMp4FileImpl::addIsmaObjectDescriptorTrack(uint32_t firstTrackNumber,
                                                  uint32_t secondTrackNumber) {
    if (isOpen_ == 0 || mode_ != 1) return MP4_ERR_NOT_AVAILABLE;
    return fileHinting().addIsmaObjectDescriptorTrack(this, firstTrackNumber, secondTrackNumber);
}

MP4Err CMp4FileImpl::getFinishedTrack(uint32_t trackNumber, CMp4Track** track,
                                      bool evenWhileWriting) {
    if (track == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *track = nullptr;
    if (mode_ != 1) return getTrack(trackNumber, track);
    if (trackNumber == 0 || trackNumber > trackCount_) return MP4_ERR_NOT_AVAILABLE;
    std::unique_ptr<CTrackImpl> impl(new (std::nothrow) CTrackImpl(this, trackMode_));
    if (!impl) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = impl->bind(trackNumber);
    if (err != MP4_OK) return err;
    if (!evenWhileWriting) {
        uint32_t id = 0, writingId = 0;
        (void)impl->getTrackId(&id);
        for (CTrackImpl* writing : writingTracks_) {
            if (writing->getTrackId(&writingId) == MP4_OK && writingId == id) {
                return MP4_ERR_NOT_AVAILABLE;  // its last chunk may not be written yet
            }
        }
    }
    *track = impl.release();
    return MP4_OK;
}

}  // namespace quil
