// HLS and DASH manifest text for segment sets.
#include "Manifest.h"

#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "Format.h"

namespace quil {
namespace tool {
namespace {

double seconds(const MP4FragmentInfo& segment) {
    return segment.timeScale ? static_cast<double>(segment.duration) / segment.timeScale : 0;
}

double totalSeconds(const SegmentSet& set) {
    double total = 0;
    for (const MP4FragmentInfo& segment : set.segments) total += seconds(segment);
    return total;
}

// "PT1M2.500S" form, seconds only: ISO 8601 durations allow it.
std::string isoDuration(double value) { return format("PT%.3fS", value); }

// Runs of equal durations become one <S> with a repeat count.
std::string segmentTimeline(const SegmentSet& set) {
    std::string text = "          <SegmentTimeline>\n";
    const std::vector<MP4FragmentInfo>& segments = set.segments;
    for (size_t i = 0; i < segments.size();) {
        size_t run = 1;
        while (i + run < segments.size() && segments[i + run].duration == segments[i].duration) {
            ++run;
        }
        text += format("            <S t=\"%" PRIu64 "\" d=\"%" PRIu64 "\"", segments[i].startTime,
                       segments[i].duration);
        if (run > 1) text += format(" r=\"%zu\"", run - 1);
        text += "/>\n";
        i += run;
    }
    return text + "          </SegmentTimeline>\n";
}

std::string adaptationSet(const SegmentSet& set, size_t id) {
    const char* type = set.video ? "video" : set.audio ? "audio" : "application";
    std::string text = format("    <AdaptationSet id=\"%zu\" mimeType=\"%s/mp4\" "
                              "segmentAlignment=\"true\" startWithSAP=\"1\">\n",
                              id, type);
    text += format("      <Representation id=\"%zu\" codecs=\"%s\" bandwidth=\"%" PRIu64 "\"", id,
                   set.codecs.c_str(), set.bandwidth);
    if (set.video) text += format(" width=\"%u\" height=\"%u\"", set.width, set.height);
    if (set.audio && !set.video) text += format(" audioSamplingRate=\"%u\"", set.sampleRate);
    text += ">\n";
    const uint32_t timeScale = set.segments.empty() ? 1000 : set.segments.front().timeScale;
    text += format("        <SegmentTemplate timescale=\"%u\" initialization=\"%s\" "
                   "media=\"%s$Number$.m4s\" startNumber=\"1\">\n",
                   timeScale, set.initName.c_str(), set.segmentPrefix.c_str());
    text += segmentTimeline(set);
    text += "        </SegmentTemplate>\n      </Representation>\n    </AdaptationSet>\n";
    return text;
}

}  // namespace

std::string hlsMediaPlaylist(const SegmentSet& set) {
    double longest = 0;
    for (const MP4FragmentInfo& segment : set.segments) longest = std::fmax(longest, seconds(segment));
    std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n";
    text += format("#EXT-X-TARGETDURATION:%.0f\n", std::ceil(longest));
    text += "#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-INDEPENDENT-SEGMENTS\n";
    text += "#EXT-X-MAP:URI=\"" + set.initName + "\"\n";
    for (size_t i = 0; i < set.segments.size(); ++i) {
        text += format("#EXTINF:%.6f,\n%s%zu.m4s\n", seconds(set.segments[i]),
                       set.segmentPrefix.c_str(), i + 1);
    }
    return text + "#EXT-X-ENDLIST\n";
}

std::string hlsMultivariantPlaylist(const std::vector<SegmentSet>& sets) {
    std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n";
    bool anyVideo = false;
    uint64_t audioBandwidth = 0;
    std::string audioCodecs;
    for (const SegmentSet& set : sets) {
        anyVideo = anyVideo || set.video;
        if (!set.audio || set.video) continue;
        text += format("#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"%s\",DEFAULT=%s,"
                       "AUTOSELECT=YES,CHANNELS=\"%u\",URI=\"%s\"\n",
                       set.initName.c_str(), audioCodecs.empty() ? "YES" : "NO", set.channels,
                       set.playlistName.c_str());
        if (audioCodecs.empty()) {
            audioCodecs = set.codecs;
            audioBandwidth = set.bandwidth;
        }
    }
    for (const SegmentSet& set : sets) {
        // Without video every audio set is a variant of its own.
        if (anyVideo ? !set.video : !set.audio) continue;
        const bool withAudio = set.video && !audioCodecs.empty();
        const std::string codecs = withAudio ? set.codecs + "," + audioCodecs : set.codecs;
        text += format("#EXT-X-STREAM-INF:BANDWIDTH=%" PRIu64 ",CODECS=\"%s\"",
                       set.bandwidth + (withAudio ? audioBandwidth : 0), codecs.c_str());
        if (set.video) text += format(",RESOLUTION=%ux%u", set.width, set.height);
        if (withAudio) text += ",AUDIO=\"audio\"";
        text += "\n" + set.playlistName + "\n";
    }
    return text;
}

std::string dashManifest(const std::vector<SegmentSet>& sets) {
    double longest = 0;
    for (const SegmentSet& set : sets) longest = std::fmax(longest, totalSeconds(set));
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    text += "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
            "profiles=\"urn:mpeg:dash:profile:isoff-live:2011\" type=\"static\" ";
    text += "mediaPresentationDuration=\"" + isoDuration(longest) + "\" minBufferTime=\"PT2S\">\n";
    text += "  <Period id=\"0\" start=\"PT0S\">\n";
    for (size_t i = 0; i < sets.size(); ++i) text += adaptationSet(sets[i], i + 1);
    return text + "  </Period>\n</MPD>\n";
}

}  // namespace tool
}  // namespace quil
