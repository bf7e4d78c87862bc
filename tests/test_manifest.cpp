// Streaming manifests of quil fragment --segments: the HLS playlists and
// the DASH manifest for given segment sets, as text.
#include <gtest/gtest.h>

#include "Manifest.h"

namespace quil {
namespace tool {
namespace {

MP4FragmentInfo segment(uint64_t start, uint64_t duration, uint32_t timeScale) {
    MP4FragmentInfo info;
    info.startTime = start;
    info.duration = duration;
    info.timeScale = timeScale;
    info.startsWithSync = true;
    return info;
}

SegmentSet videoSet() {
    SegmentSet set;
    set.initName = "init-1.mp4";
    set.segmentPrefix = "seg-1-";
    set.playlistName = "track-1.m3u8";
    set.codecs = "avc1.64001f";
    set.video = true;
    set.width = 1280;
    set.height = 720;
    set.bandwidth = 2000000;
    // Two equal segments, then a shorter last one (a run in the timeline).
    set.segments = {segment(0, 25600, 12800), segment(25600, 25600, 12800),
                    segment(51200, 6400, 12800)};
    return set;
}

SegmentSet audioSet() {
    SegmentSet set;
    set.initName = "init-2.mp4";
    set.segmentPrefix = "seg-2-";
    set.playlistName = "track-2.m3u8";
    set.codecs = "mp4a.40.2";
    set.audio = true;
    set.sampleRate = 48000;
    set.channels = 2;
    set.bandwidth = 128000;
    set.segments = {segment(0, 96000, 48000), segment(96000, 48000, 48000)};
    return set;
}

TEST(Manifest, MediaPlaylistListsEverySegmentAfterItsMap) {
    EXPECT_EQ("#EXTM3U\n"
              "#EXT-X-VERSION:7\n"
              "#EXT-X-TARGETDURATION:2\n"
              "#EXT-X-MEDIA-SEQUENCE:1\n"
              "#EXT-X-PLAYLIST-TYPE:VOD\n"
              "#EXT-X-INDEPENDENT-SEGMENTS\n"
              "#EXT-X-MAP:URI=\"init-1.mp4\"\n"
              "#EXTINF:2.000000,\nseg-1-1.m4s\n"
              "#EXTINF:2.000000,\nseg-1-2.m4s\n"
              "#EXTINF:0.500000,\nseg-1-3.m4s\n"
              "#EXT-X-ENDLIST\n",
              hlsMediaPlaylist(videoSet()));
}

TEST(Manifest, MultivariantPlaylistGroupsAudioUnderTheVideoVariant) {
    EXPECT_EQ("#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n"
              "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"init-2.mp4\",DEFAULT=YES,"
              "AUTOSELECT=YES,CHANNELS=\"2\",URI=\"track-2.m3u8\"\n"
              "#EXT-X-STREAM-INF:BANDWIDTH=2128000,CODECS=\"avc1.64001f,mp4a.40.2\","
              "RESOLUTION=1280x720,AUDIO=\"audio\"\n"
              "track-1.m3u8\n",
              hlsMultivariantPlaylist({videoSet(), audioSet()}));
    // Without video, the audio set is a variant of its own.
    EXPECT_EQ("#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n"
              "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"init-2.mp4\",DEFAULT=YES,"
              "AUTOSELECT=YES,CHANNELS=\"2\",URI=\"track-2.m3u8\"\n"
              "#EXT-X-STREAM-INF:BANDWIDTH=128000,CODECS=\"mp4a.40.2\"\ntrack-2.m3u8\n",
              hlsMultivariantPlaylist({audioSet()}));
}

TEST(Manifest, DashManifestHasAnAdaptationSetPerSetWithItsTimeline) {
    const std::string text = dashManifest({videoSet(), audioSet()});
    EXPECT_NE(std::string::npos, text.find("type=\"static\" mediaPresentationDuration=\"PT4.500S\""));
    EXPECT_NE(std::string::npos,
              text.find("<Representation id=\"1\" codecs=\"avc1.64001f\" bandwidth=\"2000000\" "
                        "width=\"1280\" height=\"720\">\n"
                        "        <SegmentTemplate timescale=\"12800\" initialization=\"init-1.mp4\" "
                        "media=\"seg-1-$Number$.m4s\" startNumber=\"1\">\n"
                        "          <SegmentTimeline>\n"
                        "            <S t=\"0\" d=\"25600\" r=\"1\"/>\n"
                        "            <S t=\"51200\" d=\"6400\"/>\n"
                        "          </SegmentTimeline>\n"));
    EXPECT_NE(std::string::npos,
              text.find("<AdaptationSet id=\"2\" mimeType=\"audio/mp4\" segmentAlignment=\"true\" "
                        "startWithSAP=\"1\">\n"
                        "      <Representation id=\"2\" codecs=\"mp4a.40.2\" bandwidth=\"128000\" "
                        "audioSamplingRate=\"48000\">"));
    EXPECT_EQ("  </Period>\n</MPD>\n", text.substr(text.size() - 19));
}

}  // namespace
}  // namespace tool
}  // namespace quil
