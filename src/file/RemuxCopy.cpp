// Every sample of copied tracks at once (remux): the tracks take their
// sources' samples from the sources' tables, in decode-time order as the
// sample-by-sample copy does, or chunk by chunk in the order the source's
// chunks lie in its file; each chunk's bytes go from the source file to
// this one through one range copier, never through a sample buffer.
#include <algorithm>
#include <new>
#include <vector>

#include "boxes/MovieBoxes.h"
#include "file/Mp4FileImpl.h"
#include "quil/Mp4SampleCopy.h"
#include "storage/FileCopy.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr uint32_t kProgressEvery = 4096;  // samples

// The track whose next sample comes first in decode time (the first listed
// at equal times), as the sample-by-sample copy picks; -1 when every
// sample is taken.
int nextTrack(const std::vector<CTrackImpl*>& tracks) {
    int best = -1;
    unsigned __int128 bestDecode = 0, bestScale = 1;
    for (size_t i = 0; i < tracks.size(); ++i) {
        const CTrackImpl* track = tracks[i];
        if (track->runCopyDone()) continue;
        const unsigned __int128 decode = track->runCopyNextDecode();
        const unsigned __int128 scale = track->runCopyTimeScale();
        // a / sa < b / sb without division; 128 bits cannot overflow.
        if (best < 0 || decode * bestScale < bestDecode * scale) {
            best = static_cast<int>(i);
            bestDecode = decode;
            bestScale = scale;
        }
    }
    return best;
}

// The track whose next sample lies first in the source file (the first
// listed at the same place); -1 when every sample is taken. Taking samples
// so, the source's chunks come out in the order they lie in.
int nextInFile(const std::vector<CTrackImpl*>& tracks) {
    int best = -1;
    uint64_t bestOffset = 0;
    for (size_t i = 0; i < tracks.size(); ++i) {
        const CTrackImpl* track = tracks[i];
        if (track->runCopyDone()) continue;
        if (best < 0 || track->runCopyNextOffset() < bestOffset) {
            best = static_cast<int>(i);
            bestOffset = track->runCopyNextOffset();
        }
    }
    return best;
}

// Every sample of every track in turn; the last chunks after them.
MP4Err copyRuns(const std::vector<CTrackImpl*>& tracks, bool sourceChunks,
                const MP4SampleCopyProgress* progress, MP4SampleCopyFailure* failure) {
    uint64_t bytes = 0;
    uint32_t taken = 0;
    auto next = [&tracks, sourceChunks] {
        return sourceChunks ? nextInFile(tracks) : nextTrack(tracks);
    };
    for (int i = next(); i >= 0; i = next()) {
        CTrackImpl* track = tracks[static_cast<size_t>(i)];
        const uint32_t sample = track->runCopyNextSample();
        uint32_t size = 0;
        MP4Err err = track->copyNextRunSample(&size);
        if (err != MP4_OK) {
            *failure = {static_cast<uint32_t>(i) + 1, sample};
            return err;
        }
        bytes += size;
        if (progress && progress->update && ++taken % kProgressEvery == 0) {
            progress->update(progress->context, bytes);
        }
    }
    for (size_t i = 0; i < tracks.size(); ++i) {
        MP4Err err = tracks[i]->endRunCopy();
        if (err != MP4_OK) {
            *failure = {static_cast<uint32_t>(i) + 1, tracks[i]->runCopyNextSample() - 1};
            return err;
        }
    }
    if (progress && progress->update) progress->update(progress->context, bytes);
    return MP4_OK;
}

}  // namespace

MP4Err CMp4FileImpl::copyTrackSamples(CMp4Track* const* tracks, uint32_t count,
                                      bool sourceChunks, const MP4SampleCopyProgress* progress,
                                      MP4SampleCopyFailure* failure) {
    MP4SampleCopyFailure ignored;
    if (!failure) failure = &ignored;
    *failure = MP4SampleCopyFailure();
    if (!tracks && count > 0) return MP4_ERR_INVALID_ARGUMENT;
    std::vector<CTrackImpl*> copies;
    try {
        copies.reserve(count);
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    CTrackHost* sourceHost = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        auto* track = dynamic_cast<CTrackImpl*>(tracks[i]);
        if (!track || std::find(writingTracks_.begin(), writingTracks_.end(), track) ==
                          writingTracks_.end()) {
            return MP4_ERR_INVALID_ARGUMENT;
        }
        CTrackHost* host = track->copySourceHost();
        if (!host || (sourceHost && host != sourceHost)) return MP4_ERR_UNSUPPORTED;
        sourceHost = host;
        copies.push_back(track);
    }
    // The source's bytes are taken from its file, so it must be one on disc.
    auto* source = dynamic_cast<CMp4FileImpl*>(sourceHost);
    std::string targetPath;
    if (!isOpenForWriting() || fragmentWriter_ || !source || !source->readPath() ||
        pathForReadingBack(&targetPath) != MP4_OK) {
        return MP4_ERR_UNSUPPORTED;
    }
    CMediaDataBox* mdat = nullptr;
    MP4Err err = findMediaData(&mdat);
    if (err != MP4_OK) return err;
    for (size_t i = 0; i < copies.size() && err == MP4_OK; ++i) {
        err = copies[i]->startRunCopy(this, sourceChunks);
    }
    CRangeCopier copier;
    if (err == MP4_OK && copier.open(source->readPath(), targetPath, mediaDataEnd_) != MP4_OK) {
        err = MP4_ERR_UNSUPPORTED;
    }
    if (err != MP4_OK) {
        for (CTrackImpl* track : copies) track->abandonRunCopy();
        return err;  // nothing written
    }
    rangeCopier_ = &copier;
    err = copyRuns(copies, sourceChunks, progress, failure);
    rangeCopier_ = nullptr;
    for (CTrackImpl* track : copies) track->abandonRunCopy();  // after a failure
    const MP4Err finished = copier.finish();
    if (err == MP4_OK && finished != MP4_OK) {
        *failure = MP4SampleCopyFailure();
        err = finished;
    }
    return err;
}

// The bytes are written by the copier, perhaps later; the media data are
// counted here as appendMediaData counts them.
MP4Err CMp4FileImpl::appendCopiedBytes(uint64_t sourceOffset, uint64_t count, uint64_t* offset) {
    *offset = 0;
    CMediaDataBox* mdat = nullptr;
    if (!rangeCopier_ || findMediaData(&mdat) != MP4_OK) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = rangeCopier_->append(sourceOffset, count);
    if (err != MP4_OK) return err;
    *offset = mediaDataEnd_;
    mediaDataEnd_ += count;
    mdat->dataSize += count;
    return MP4_OK;
}

MP4Err Mp4CopyTrackSamples(CMp4File* target, CMp4Track* const* tracks, uint32_t count,
                           const MP4SampleCopyProgress* progress, MP4SampleCopyFailure* failure) {
    auto* file = dynamic_cast<CMp4FileImpl*>(target);
    if (!file) return MP4_ERR_INVALID_ARGUMENT;
    return file->copyTrackSamples(tracks, count, false, progress, failure);
}

MP4Err Mp4CopyTrackChunks(CMp4File* target, CMp4Track* const* tracks, uint32_t count,
                          const MP4SampleCopyProgress* progress, MP4SampleCopyFailure* failure) {
    auto* file = dynamic_cast<CMp4FileImpl*>(target);
    if (!file) return MP4_ERR_INVALID_ARGUMENT;
    return file->copyTrackSamples(tracks, count, true, progress, failure);
}

}  // namespace quil
