// What the track keeps beside the sample table boxes (boxes/SampleTableBoxes.h,
// whose lookups are defined in SampleTables.cpp): the per-sample time table
// and the samples of a chunk being collected while writing.
#ifndef QUIL_TRACK_SAMPLETABLES_H
#define QUIL_TRACK_SAMPLETABLES_H

#include <cstdint>
#include <memory>

#include "boxes/SampleTableBoxes.h"

namespace quil {

// One sample of the track's time table.
struct CSampleTimeTableEntry {
    uint64_t decodeTime = 0;
    uint64_t compositionTime = 0;
};

// A sample waiting in the chunk being collected while writing.
struct CChunkSampleEntry {
    uint32_t size = 0;
    std::unique_ptr<uint8_t[]> data;  // the track's own copy of the bytes
};

}  // namespace quil

#endif
