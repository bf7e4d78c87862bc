// What a track needs from the file it belongs to, and nothing more: the
// movie box, media bytes in and out, the file type, the signal that keeps
// the chunks of an interleaved file's audio and video in step, and the
// sink of a file written in fragments. The file object implements it;
// tracks never see the file object itself.
#ifndef QUIL_TRACK_TRACKHOST_H
#define QUIL_TRACK_TRACKHOST_H

#include <cstdint>

#include "quil/MP4Err.h"

namespace quil {

class CBox;
class CBoxList;

// Interleaved writing (XAVC): a video track that closes a chunk asks every
// audio track to close its own before its next sample, so that audio and
// video chunks alternate in the media data.
class CChunkInterleaving {
public:
    void videoClosedChunk() { audioCutPending_ = true; }
    // Whether a cut is pending; taking it clears it (the first audio track
    // to ask answers it, as the single flag it replaces did).
    bool takeAudioCut() {
        const bool cut = audioCutPending_;
        audioCutPending_ = false;
        return cut;
    }
    void reset() { audioCutPending_ = false; }

private:
    bool audioCutPending_ = false;
};

// Fragmented writing: a file written in fragments takes each sample of
// its tracks as it comes (the file then keeps and checks their timing)
// instead of the track's own chunks and tables.
class CFragmentSampleSink {
public:
    virtual ~CFragmentSampleSink() = default;
    virtual MP4Err addFragmentSample(uint32_t trackId, const uint8_t* data, uint32_t size,
                                     uint64_t decodeTime, uint64_t compositionTime,
                                     bool sync) = 0;
};

// Copying by runs (remux): a chunk of a copied track is still in the file
// it is copied from; the file being written appends its bytes from there.
class CCopiedMediaSink {
public:
    virtual ~CCopiedMediaSink() = default;
    // Appends count bytes found at sourceOffset of the source file to the
    // media data and reports where they start in the file being written.
    virtual MP4Err appendCopiedBytes(uint64_t sourceOffset, uint64_t count, uint64_t* offset) = 0;
};

class CTrackHost {
public:
    virtual ~CTrackHost() = default;

    // The file's "moov": 3 when there is none (or nothing is open).
    virtual MP4Err findMovie(CBox** moov) = 0;
    // The file-level boxes in file order (the movie fragments among them);
    // null when nothing is open.
    virtual CBoxList* fileBoxes() = 0;
    // Length of the file's storage; false when unknown. Bounds the tables a
    // damaged count could otherwise make grow.
    virtual bool storageLength(uint64_t* length) = 0;
    // The mode the file is open in: 0 read, 1 write.
    virtual uint32_t mode() const = 0;
    virtual uint32_t fileType() const = 0;

    // Reading: size bytes of media data at offset. readAheadEnd is the end
    // of the chunk holding them (0 when unknown): nothing past it is
    // fetched ahead. 4 unless the file is open for reading.
    virtual MP4Err readMediaBytes(uint64_t offset, uint32_t size, uint8_t* buffer,
                                  uint64_t readAheadEnd = 0) = 0;
    // What readMediaBytes does when the bytes were fetched ahead already:
    // false, nothing done, when they were not (a read then tells how far
    // it may fetch, which costs the caller a little to work out).
    virtual bool readFetchedBytes(uint64_t offset, uint32_t size, uint8_t* buffer) = 0;

    // Writing: appends bytes at the end of the media data and reports
    // where they start. A failure leaves the media data as it was.
    virtual MP4Err appendMediaData(const uint8_t* bytes, uint64_t length, uint64_t* offset) = 0;
    // The interleaving signal of a file whose tracks interleave their
    // chunks; null when they do not.
    virtual CChunkInterleaving* chunkInterleaving() = 0;
    // Where the samples of a file written in fragments go; null when the
    // file is written with sample tables.
    virtual CFragmentSampleSink* fragmentSamples() = 0;
};

}  // namespace quil

#endif
