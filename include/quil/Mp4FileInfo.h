// quil: properties of a read file that reports and tools show beside the
// track interface: the brands, the movie duration, a track's edit list and
// a summary of its AVC or HEVC decoder configuration.
#ifndef QUIL_MP4FILEINFO_H
#define QUIL_MP4FILEINFO_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

class CMp4File;
class CMp4Track;

// The "ftyp" brands of an open file. Any out pointer may be null; up to
// capacity compatible brands are copied, *count receives how many there
// are. 2 for a null file; 3 when the file is not open or has no "ftyp".
QUIL_API MP4Err Mp4GetBrands(CMp4File* file, uint32_t* majorBrand, uint32_t* minorVersion,
                             uint32_t* compatibleBrands, uint32_t capacity, uint32_t* count);

// The "mvhd" duration, in movie time units. 2 for null arguments; 3 when
// the file is not open or has no movie header.
QUIL_API MP4Err Mp4GetMovieDuration(CMp4File* file, uint64_t* duration);

// One entry of a track's edit list ("elst").
struct MP4Edit {
    uint64_t segmentDuration;  // movie time units
    int64_t mediaTime;         // media time units; -1 for an empty edit
    int16_t rateInteger;       // media rate, integer part
    int16_t rateFraction;      // and fraction (1/65536)
};

// Number of edits of a track (0 without an edit list). 2 for null
// arguments or a track not made by this library.
QUIL_API MP4Err Mp4GetEditCount(CMp4Track* track, uint32_t* count);
// Edit index (1-based). 17 for index 0, 3 beyond the last, else as above.
QUIL_API MP4Err Mp4GetEdit(CMp4Track* track, uint32_t index, MP4Edit* edit);

// What a report shows of an AVC ("avcC") or HEVC ("hvcC") configuration.
struct MP4CodecConfigSummary {
    uint32_t record;          // "avcC" or "hvcC" as a four-character code
    uint8_t profile;          // AVCProfileIndication / general_profile_idc
    uint8_t compatibility;    // AVC: profile_compatibility; HEVC: 0
    uint8_t tier;             // HEVC: general_tier_flag; AVC: 0
    uint8_t level;            // AVCLevelIndication / general_level_idc (30 x level)
    uint8_t nalLengthSize;    // bytes of each NAL unit's length prefix
    uint32_t videoParameterSets;     // HEVC only
    uint32_t sequenceParameterSets;
    uint32_t pictureParameterSets;
};

// The summary of a track's first sample entry. 2 for null arguments; 3
// when the entry has no AVC or HEVC configuration; 5 when it does not
// parse.
QUIL_API MP4Err Mp4GetCodecConfigSummary(CMp4Track* track, MP4CodecConfigSummary* summary);

}  // namespace quil

#endif
