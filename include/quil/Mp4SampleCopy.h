// quil: every sample of copied tracks at once (the remux path).
#ifndef QUIL_MP4SAMPLECOPY_H
#define QUIL_MP4SAMPLECOPY_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

class CMp4File;
class CMp4Track;

// Called now and then with the sample bytes copied so far.
struct MP4SampleCopyProgress {
    void (*update)(void* context, uint64_t bytesCopied) = nullptr;
    void* context = nullptr;
};

// Where a copy that failed stopped: track is the 1-based position in the
// list (0: the media data as a whole), sample the source sample number.
struct MP4SampleCopyFailure {
    uint32_t track = 0;
    uint32_t sample = 0;
};

// Copies every sample of the tracks, new tracks of target made copies by
// copyTrackFrom with no sample copied yet, the way copySampleFrom for
// every sample in decode-time order does (across the tracks the earliest
// next sample first, at equal times the track listed first; decode times
// as the sources report them, compared across time scales), then writes
// each track's last chunk in the order listed, as releasing the tracks in
// that order does: the same file, byte for byte. The samples are not read
// one by one: their chunks are copied from file to file.
// 12 when a copy cannot be made this way, with nothing written (then
// copySampleFrom can still copy every sample): target not written to a
// file on disc or written in fragments, sources not of one file read from
// disc, a source track with fragments or read a chunk as a sample, tables
// that do not agree with each other, a sample without bytes or outside
// the file, sample auxiliary information. 2 for a null list or a track
// not being written to target. Any other error: the copy stopped where
// *failure says (when given) and target is incomplete.
QUIL_API MP4Err Mp4CopyTrackSamples(CMp4File* target, CMp4Track* const* tracks, uint32_t count,
                                    const MP4SampleCopyProgress* progress,
                                    MP4SampleCopyFailure* failure);

// As Mp4CopyTrackSamples, with the sources' chunks kept: each chunk of the
// copy holds the samples of one source chunk, and the chunks follow each
// other as they lie in the source file (at the same place, the first
// listed first), whatever the tracks' chunk limits. Copying every track of
// a file so keeps its layout: where the source's chunks lie back to back
// from where the copy's media data start, the media data are the same
// bytes at the same offsets, copied by the kernel in one piece. Refuses
// (12) and fails as Mp4CopyTrackSamples does.
QUIL_API MP4Err Mp4CopyTrackChunks(CMp4File* target, CMp4Track* const* tracks, uint32_t count,
                                   const MP4SampleCopyProgress* progress,
                                   MP4SampleCopyFailure* failure);

}  // namespace quil

#endif
