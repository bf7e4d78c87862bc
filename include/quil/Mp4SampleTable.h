// quil: the places and times of many samples in one call.
#ifndef QUIL_MP4SAMPLETABLE_H
#define QUIL_MP4SAMPLETABLE_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

class CMp4Track;

// One sample as the track's sample queries give it.
struct MP4SampleTableEntry {
    uint64_t offset = 0;           // of its bytes in the file
    uint64_t decodeTime = 0;       // in the media time scale
    uint64_t compositionTime = 0;  // in the media time scale
    uint32_t size = 0;             // in bytes
    uint32_t sync = 0;             // 1 for a sync sample
};

// Fills entries[0 .. count) with samples firstSample .. firstSample +
// count - 1 of a track: for each, what getSampleOffset,
// getSampleDecodeTime, getSampleCompositionTime and isSyncSample give, in
// that order, with the same effect on the track as those calls. Reading a
// track's index so takes one call for many samples instead of four per
// sample, at about half their cost. *filled (when given) receives the
// entries filled: count, or as many as precede the first sample one of the
// four calls refuses, whose error is returned (3 past the last sample, 17
// for sample 0). 2 for a null track, or null entries with count > 0.
QUIL_API MP4Err Mp4GetSampleTable(CMp4Track* track, uint32_t firstSample, uint32_t count,
                                  MP4SampleTableEntry* entries, uint32_t* filled);

}  // namespace quil

#endif
