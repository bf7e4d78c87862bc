// Fragmented writing: samples gathered per track and cut into fragments at
// sync samples of the leading track; each fragment goes out as "moof" +
// "mdat" (in a segment file of its own when asked) and is flushed before
// the next one starts, so that what is on disc always plays.
#ifndef QUIL_FILE_FRAGMENTWRITER_H
#define QUIL_FILE_FRAGMENTWRITER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "boxes/Box.h"
#include "storage/DiscStorage.h"
#include "quil/Mp4File.h"

namespace quil {

class CMovieExtendsHeaderBox;
class CTrackRunBox;

// Big-endian bytes of what is written around the boxes ("mdat" headers,
// "free" room) and the boxes themselves, with box headers whose sizes are
// filled in when the box ends.
class CBoxBytes {
public:
    void u32(uint32_t value);
    void u64(uint64_t value);
    // Starts a box and returns its start.
    size_t begin(uint32_t type);
    void end(size_t start);  // writes the box's 32-bit size
    std::vector<uint8_t>& bytes() { return bytes_; }
    const uint8_t* data() const { return bytes_.data(); }
    size_t size() const { return bytes_.size(); }

private:
    std::vector<uint8_t> bytes_;
};

class CFragmentWriter {
public:
    // storage: the opened file, the movie box going at movieOffset; moov:
    // the file's movie box, whose tracks are taken when the first sample
    // comes (or at close).
    CFragmentWriter(const MP4FragmentSettings& settings, CStorage* storage, uint64_t movieOffset,
                    CBox* moov);

    // Takes the movie's tracks; further tracks are refused from then on.
    MP4Err start();
    bool started() const { return started_; }
    MP4Err addSample(uint32_t trackId, const uint8_t* data, uint32_t size, uint64_t decodeTime,
                     uint64_t compositionTime, bool sync);
    // Writes what is left, the indexes and the final durations. Retried
    // after a failure, it carries on from the failed step.
    MP4Err finish();
    const std::vector<MP4FragmentInfo>& fragments() const { return fragments_; }

private:
    struct Sample {
        uint64_t decodeTime;
        int64_t compositionOffset;
        uint32_t size;
        uint32_t duration;
        bool sync;
    };
    struct Track {
        uint32_t trackId = 0;
        uint32_t timeScale = 0;
        bool video = false;
        // The open fragment's samples whose duration is known; the first
        // `written` of them are in the file, as `runs`. `bytes` holds the
        // bytes of the others and of the held sample, which waits for its
        // successor to know its duration.
        std::vector<Sample> ready;
        size_t written = 0;
        struct Run {
            uint32_t first;
            uint32_t count;
            uint64_t payloadOffset;  // from the start of the "mdat" payload
        };
        std::vector<Run> runs;
        bool holding = false;
        Sample held{};
        std::vector<uint8_t> bytes;
        uint32_t lastDuration = 0;
        uint64_t endTime = 0;  // decode time after the last sample written
        bool any = false;
        // Where each fragment of the track starts, for "tfra".
        struct Entry {
            uint64_t time;
            uint64_t moofOffset;
            uint32_t trafNumber;
        };
        std::vector<Entry> randomAccess;
    };

    Track* findTrack(uint32_t trackId);
    static uint64_t unwrittenBytes(const Track& track);
    MP4Err releaseHeld(Track* track, uint64_t nextDecodeTime);
    bool cutsBefore(const Track& track, uint64_t decodeTime, bool sync) const;
    uint64_t movieFragmentBound(const Track* adding) const;
    bool fragmentFull(const Track* adding) const;
    uint64_t segmentTypeSize() const;
    MP4Err reserveFragment();
    CStorage* destination() const;
    MP4Err flushTrack(Track* track);
    MP4Err writeFragment();
    MP4Err closeFragment(uint64_t moofOffset);
    MP4Err buildMovieFragment(CBoxBytes* out, uint64_t moofOffset);
    MP4Err addTrackRun(CBox* traf, const Track& track, const Track::Run& run,
                       std::vector<uint32_t>* values, CTrackRunBox** added);
    MP4Err addMovieExtends();
    MP4Err appendSegmentType(CBoxBytes* out) const;
    MP4Err writeMovie();
    MP4Err movieBytes(CBoxBytes* out);
    MP4Err writeAt(CStorage* storage, uint64_t offset, const uint8_t* bytes, uint64_t length);
    MP4Err writeRandomAccessIndex();
    MP4Err writeSegmentIndex();
    MP4Err updateMovieDurations();
    uint64_t movieDuration() const;
    bool segmented() const { return !segmentPrefix_.empty(); }

    MP4FragmentSettings settings_;
    std::wstring segmentPrefix_;
    CStorage* storage_;
    uint64_t movieOffset_;
    uint64_t end_ = 0;  // end of what is written in storage_
    uint64_t movieSize_ = 0;
    uint64_t indexRoom_ = 0;  // bytes kept free for "sidx" after the movie
    CBox* moov_;
    CMovieExtendsHeaderBox* mehd_ = nullptr;  // in moov_
    uint32_t movieTimeScale_ = 1000;
    std::vector<Track> tracks_;
    size_t lead_ = 0;  // index of the track that decides the cuts
    uint64_t fragmentStart_ = 0;  // lead track's decode time of the open fragment
    bool fragmentOpen_ = false;
    bool started_ = false;
    bool movieWritten_ = false;
    bool finished_ = false;
    uint32_t sequence_ = 0;
    // The open fragment: where its "styp"/"moof" room starts in its
    // destination (the file, or a segment file of its own), the room's
    // size, and the media data written after it so far.
    bool fragmentReserved_ = false;
    uint64_t fragmentBase_ = 0;
    uint64_t room_ = 0;
    uint64_t payload_ = 0;
    uint64_t nextRoom_;
    std::unique_ptr<CDiscStorage> segmentFile_;
    std::vector<MP4FragmentInfo> fragments_;
};

}  // namespace quil

#endif
