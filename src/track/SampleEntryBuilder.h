// Sample entries for tracks being written: built from codec parameters, or
// copied from a track being read.
#ifndef QUIL_TRACK_SAMPLEENTRYBUILDER_H
#define QUIL_TRACK_SAMPLEENTRYBUILDER_H

#include <cstdint>

#include "boxes/Box.h"
#include "quil/Mp4Track.h"

namespace quil {

class CSampleEntry;

// A new sample entry for the format and parameters in info. The track kind
// (MP4TrackType) must suit the format. esId is written into the ES
// descriptor of "mp4v"/"mp4a" entries. 2 for an unknown format, a kind
// that does not suit it, missing or malformed configuration bytes; 12 for
// "lpcm" (its version-2 description is never written); 1 out of memory.
MP4Err buildSampleEntry(const MP4SampleEntryInfo& info, uint32_t trackKind, uint16_t esId,
                        CSampleEntry** entry);

// A deep copy of a box: written to memory and read back through the box
// factory as a child of parentType, so that every class copies exactly
// what it writes. Errors of writing and reading pass through.
MP4Err copyBox(CBox* source, uint32_t parentType, CBox** copy);

// Bytes of one audio sample of a raw (uncompressed) audio entry, the unit
// of chunk-as-sample writing: channels x bytes per channel sample, as the
// reader counts them.
uint32_t rawAudioSampleBytes(CSampleEntry* entry);

// Whether the entry describes uncompressed (or fixed-ratio packed) audio
// whose samples are stored one time unit each: the formats a writing track
// collects chunk-as-sample.
bool isRawAudioEntry(CBox* entry);

}  // namespace quil

#endif
