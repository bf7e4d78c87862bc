// Streaming manifests for segments written by quil fragment --segments: an
// HLS playlist (fMP4 segments) and a DASH manifest (MPEG-DASH, static).
#ifndef QUIL_TOOLS_MANIFEST_H
#define QUIL_TOOLS_MANIFEST_H

#include <cstdint>
#include <string>
#include <vector>

#include "quil/Mp4File.h"

namespace quil {
namespace tool {

// One set of segments: an initialisation segment and numbered media
// segments (prefix + number from 1 + ".m4s"), holding one track or several.
struct SegmentSet {
    std::string initName;       // "init.mp4"
    std::string segmentPrefix;  // "seg-"
    std::string playlistName;   // its HLS media playlist
    std::string codecs;         // RFC 6381 codecs, comma-separated
    bool video = false;         // holds a video track
    bool audio = false;         // holds an audio track
    uint32_t width = 0, height = 0;
    uint32_t sampleRate = 0, channels = 0;
    uint64_t bandwidth = 0;     // bits per second
    std::vector<MP4FragmentInfo> segments;
};

// The media playlist of one set (EXT-X-MAP for its initialisation segment).
std::string hlsMediaPlaylist(const SegmentSet& set);
// A multivariant playlist over sets written one track each: video sets as
// variants whose audio comes from the audio sets as renditions.
std::string hlsMultivariantPlaylist(const std::vector<SegmentSet>& sets);
// One adaptation set per segment set, segments by template and timeline.
std::string dashManifest(const std::vector<SegmentSet>& sets);

}  // namespace tool
}  // namespace quil

#endif
