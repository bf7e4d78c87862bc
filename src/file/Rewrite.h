// The rewrite engine: writes the box tree of a file that was read to a new
// file in a planned box order, with every chunk offset moved by where its
// media data land and the media data copied byte for byte. faststart
// (optimizeFile) and the copy after metadata edits (Mp4WriteCopy) are two
// plans over it; a new rewrite is a new plan.
//
// Steps: planRewrite (box order, sizes, where each "mdat" lands), then
// COffsetMover over the movie, then writeRewrite (boxes through a disc
// storage, media data by the media copier of storage/FileCopy.h).
#ifndef QUIL_FILE_REWRITE_H
#define QUIL_FILE_REWRITE_H

#include <cstdint>
#include <string>
#include <vector>

#include "quil/MP4Err.h"

namespace quil {

class CBox;
class CDiscStorage;
class CMediaDataBox;

// Where one media data box's bytes lie in the source and in the target.
struct MediaMove {
    CMediaDataBox* box = nullptr;
    uint64_t oldStart = 0;   // first data byte in the source
    uint64_t newStart = 0;   // first data byte in the target
    uint32_t newHeader = 8;  // 8, or 16 with a 64-bit size
};

struct RewritePlan {
    // The top-level boxes in the order they are written, media data boxes
    // among them.
    std::vector<CBox*> order;
    // One per media data box, in the order written.
    std::vector<MediaMove> moves;
    // How a box whose reader failed is written: as read (its kept bytes),
    // or from its fields, as faststart has always written top-level boxes.
    bool asRead = true;
};

// The header a rewrite gives a media data box: the source's 16-byte form
// is kept (it may have been reserved on purpose), else 8 bytes while the
// size fits 32 bits.
uint32_t mediaDataHeader(const CMediaDataBox& mdat);

// True when the movie box holds a compressed movie ("cmov"): edits that
// rewrite the movie box refuse it (12), since it would have to be
// compressed again.
bool holdsCompressedMovie(CBox* moov);

// Sizes every box of plan->order and fills plan->moves. 1 when the moves
// cannot be stored.
MP4Err planRewrite(RewritePlan* plan);

// Moves the file offsets a rewrite invalidates from the source's layout to
// the plan's: through the movie's tracks the chunk offsets ("stco",
// "co64") and the absolute sample auxiliary information offsets of a
// sample table ("saio" beside media data; one beside a "senc" in the same
// table is placed by the table's writer); given the top-level boxes, also
// the explicit base data offsets of track fragments ("tfhd") and the
// fragment positions of "tfra" in "mfra". Offsets relative to a fragment
// ("trun" data offsets, a "saio" in a track fragment, bases taken from the
// "moof") move with their fragment and need nothing.
class COffsetMover {
public:
    // Which tables of a sample table box are moved.
    enum class Tables {
        Every,     // each "stco" and "co64" found
        TrackReads // the one a track reads: "stco", else "co64"
    };
    COffsetMover(const std::vector<MediaMove>& moves, Tables tables)
        : moves_(moves), tables_(tables) {}

    // An offset outside every media data box moves with the only one the
    // file has (faststart), instead of being refused.
    void moveStrayOffsetsWithOnlyData() { strays_ = true; }

    // Also moves the offsets of the fragment boxes ("moof", "mfra") among
    // these top-level boxes, which must outlive the mover.
    void moveFragmentsIn(const std::vector<CBox*>& topLevel) { topLevel_ = &topLevel; }

    // Where a source offset lands (back: where a target offset came from);
    // false when it lies in no media data box and strays are refused.
    bool map(uint64_t offset, bool back, uint64_t* moved) const;
    // The same for the start of a box outside the media data (a "moof"):
    // it moves with the first media data box after it, as a rewrite keeps
    // the boxes between a fragment and its media data as they are.
    bool mapBoxStart(uint64_t offset, bool back, uint64_t* moved) const;

    // Replaces each 32-bit table one of whose offsets would leave the
    // 32-bit range by a "co64" (ISO/IEC 14496-12 §8.7.5); *widened tells
    // the caller to size the movie again.
    MP4Err widenOverflowing(CBox* movie, bool* widened) const;

    // Moves every offset (back: undoes the move). Checks first, so nothing
    // is changed when an offset lies outside every media data box the
    // target holds (8) or a 32-bit table would overflow (10).
    MP4Err move(CBox* movie, bool back) const;

private:
    template <class Visit>
    MP4Err forEachSampleTable(CBox* movie, Visit visit) const;
    template <class Visit>
    MP4Err forEachTable(CBox* movie, Visit visit) const;
    MP4Err moveAuxInfoOffsets(CBox* movie, bool back, bool apply) const;
    MP4Err moveFragmentOffsets(bool back, bool apply) const;

    const std::vector<MediaMove>& moves_;
    Tables tables_;
    bool strays_ = false;
    const std::vector<CBox*>* topLevel_ = nullptr;
};

// Writes the plan through target (a disc storage open for writing; closed
// here), then copies each media data box's bytes from the
// file at sourcePath into the written file at targetPath (UTF-8). Nothing
// is removed on failure.
MP4Err writeRewrite(const RewritePlan& plan, CDiscStorage* target, const std::string& sourcePath,
                    const std::string& targetPath);

}  // namespace quil

#endif
