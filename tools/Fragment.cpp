// quil fragment IN OUT [--duration SECONDS] [--sidx] [--progress]
// quil fragment IN --segments DIR [--duration SECONDS] [--split-tracks] [--progress]
// A fragmented copy of IN (every track copied as remux copies it), or
// streaming segments with an HLS playlist and a DASH manifest.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Command.h"
#include "Info.h"
#include "Manifest.h"
#include "Rewrite.h"
#include "quil/quil.h"
#include "quil/Mp4Path.h"

namespace quil {
namespace tool {
namespace {

constexpr uint32_t kDefaultMilliseconds = 2000;

// What the manifests say about a track of the input.
struct TrackDescription {
    uint32_t number = 0;
    uint32_t kind = 0;
    std::string codecs;
    uint32_t width = 0, height = 0, sampleRate = 0, channels = 0;
    uint64_t bandwidth = 0;
    double seconds = 0;
};

// RFC 6381 codec names: profile and level of AVC, the audio object type of
// MPEG-4 audio; other formats by their sample entry's code.
std::string codecName(CMp4Track* track) {
    uint32_t format = 0;
    (void)track->getSampleEntryType(&format);
    // Only the first bytes are needed; a larger record answers 7 with them.
    uint8_t config[16] = {};
    uint32_t length = 0;
    char text[32];
    MP4Err err = track->getCodecConfiguration(config, sizeof config, &length);
    if ((format == fourcc("avc1") || format == fourcc("avc3")) &&
        (err == MP4_OK || err == MP4_ERR_BUFFER_TOO_SMALL) && length >= 4) {
        if (err == MP4_ERR_BUFFER_TOO_SMALL) {
            std::vector<uint8_t> whole(length);
            if (track->getCodecConfiguration(whole.data(), length, &length) != MP4_OK) {
                return fourccText(format);
            }
            std::copy(whole.begin(), whole.begin() + 4, config);
        }
        std::snprintf(text, sizeof text, "%s.%02x%02x%02x", fourccText(format).c_str(), config[1],
                      config[2], config[3]);
        return text;
    }
    uint8_t objectType = 0;
    if (format == fourcc("mp4a") && track->getObjectTypeIndication(&objectType) == MP4_OK) {
        // The audio object type is in the first 5 bits of the decoder
        // specific info (AudioSpecificConfig), which is short.
        uint8_t info[64] = {};
        if (objectType == 0x40 &&
            track->getDecoderSpecificInfo(info, sizeof info, &length) == MP4_OK && length > 0) {
            std::snprintf(text, sizeof text, "mp4a.40.%u", info[0] >> 3);
        } else {
            std::snprintf(text, sizeof text, "mp4a.%02X", objectType);
        }
        return text;
    }
    return fourccText(format);
}

bool describeTrack(CMp4File* file, uint32_t number, TrackDescription* description) {
    CMp4Track* raw = nullptr;
    if (file->getTrack(number, &raw) != MP4_OK) return false;
    TrackHandle track(file, raw);
    description->number = number;
    (void)track->getTrackType(&description->kind);
    description->codecs = codecName(track.get());
    (void)track->getWidth(&description->width);
    (void)track->getHeight(&description->height);
    (void)track->getSampleRate(&description->sampleRate);
    (void)track->getChannelCount(&description->channels);
    uint32_t count = 0, timeScale = 0;
    uint64_t duration = 0, bytes = 0;
    (void)track->getSampleCount(&count);
    (void)track->getTimeScale(&timeScale);
    (void)track->getMediaDuration(&duration);
    for (uint32_t sample = 1; sample <= count; ++sample) {
        uint32_t size = 0;
        if (track->getSampleSize(sample, &size) == MP4_OK) bytes += size;
    }
    description->seconds = timeScale ? static_cast<double>(duration) / timeScale : 0;
    if (description->seconds > 0) {
        description->bandwidth = static_cast<uint64_t>(bytes * 8 / description->seconds);
    }
    return true;
}

bool isMedia(uint32_t kind) { return kind == MP4_TRACK_VIDEO || kind == MP4_TRACK_AUDIO; }

bool describeTracks(const char* input, std::vector<TrackDescription>* tracks) {
    OpenedFile file;
    MP4Err err = file.open(input);
    uint32_t count = 0;
    if (err == MP4_OK) err = file.get()->getTrackCount(&count);
    if (err != MP4_OK) {
        std::fprintf(stderr, "quil: fragment: %s: cannot read the file: %s\n", input, toString(err));
        return false;
    }
    for (uint32_t number = 1; number <= count; ++number) {
        TrackDescription description;
        if (describeTrack(file.get(), number, &description)) tracks->push_back(description);
    }
    return true;
}

// Room for the segment index: fragments of the leading track last at least
// the fragment duration each, the last one excepted, and a fragment holding
// more than 256 MiB is cut early.
uint32_t fragmentBound(const std::vector<TrackDescription>& tracks, uint32_t milliseconds,
                       uint64_t inputSize) {
    const TrackDescription* lead = nullptr;
    for (const TrackDescription& track : tracks) {
        if (!lead && isMedia(track.kind)) lead = &track;
        if (track.kind == MP4_TRACK_VIDEO) {
            lead = &track;
            break;
        }
    }
    const double seconds = lead ? lead->seconds : 0;
    const double bound = seconds * 1000 / milliseconds + 2 + static_cast<double>(inputSize >> 28);
    return bound > 1e7 ? 10000000u : static_cast<uint32_t>(bound);
}

bool writeText(const std::string& path, const std::string& text) {
    FILE* file = std::fopen(path.c_str(), "wb");
    bool written = file && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (file && std::fclose(file) != 0) written = false;
    if (!written) std::fprintf(stderr, "quil: fragment: cannot write %s\n", path.c_str());
    return written;
}

// Fills a set's description from the tracks it holds.
void describeSet(const std::vector<TrackDescription>& tracks, uint32_t onlyTrack,
                 SegmentSet* set) {
    for (const TrackDescription& track : tracks) {
        if (!isMedia(track.kind) || (onlyTrack != 0 && track.number != onlyTrack)) continue;
        set->codecs += (set->codecs.empty() ? "" : ",") + track.codecs;
        set->bandwidth += track.bandwidth;
        if (track.kind == MP4_TRACK_VIDEO && !set->video) {
            set->video = true;
            set->width = track.width;
            set->height = track.height;
        }
        if (track.kind == MP4_TRACK_AUDIO && !set->audio) {
            set->audio = true;
            set->sampleRate = track.sampleRate;
            set->channels = track.channels;
        }
    }
}

SegmentSet namedSet(const std::string& init, const std::string& prefix,
                    const std::string& playlist) {
    SegmentSet set;
    set.initName = init;
    set.segmentPrefix = prefix;
    set.playlistName = playlist;
    return set;
}

// One set: its initialisation segment and media segments in directory.
bool writeSegmentSet(const char* input, const std::string& directory, MP4FragmentSettings settings,
                     CopyOptions options, SegmentSet* set) {
    std::wstring prefix;
    if (Mp4WidePathFromUtf8((directory + "/" + set->segmentPrefix).c_str(), &prefix) != MP4_OK) {
        std::fprintf(stderr, "quil: fragment: %s: not a usable path\n", directory.c_str());
        return false;
    }
    settings.segmentPrefix = prefix.c_str();
    settings.cmafBrands = true;
    settings.randomAccessIndex = false;
    options.fragments = &settings;
    options.fragmentsWritten = &set->segments;
    // Each set counts what it left out; the run adds them up.
    uint64_t missing = 0;
    uint64_t* total = options.missing;
    options.missing = &missing;
    const bool written = copyTracksOrReport(input, directory + "/" + set->initName, options);
    if (total) *total += missing;
    return written;
}

// One set per media track: init-T.mp4, seg-T-N.m4s and track-T.m3u8.
bool writeTrackSets(const char* input, const std::string& directory,
                    const MP4FragmentSettings& settings, const CopyOptions& options,
                    const std::vector<TrackDescription>& tracks, std::vector<SegmentSet>* sets) {
    for (const TrackDescription& track : tracks) {
        if (!isMedia(track.kind)) continue;
        const std::string n = std::to_string(track.number);
        sets->push_back(namedSet("init-" + n + ".mp4", "seg-" + n + "-", "track-" + n + ".m3u8"));
        SegmentSet& set = sets->back();
        describeSet(tracks, track.number, &set);
        CopyOptions one = options;
        one.onlyTrack = track.number;
        if (!writeSegmentSet(input, directory, settings, one, &set) ||
            !writeText(directory + "/" + set.playlistName, hlsMediaPlaylist(set))) {
            return false;
        }
    }
    return true;
}

// The HLS playlist plays the muxed segments (or the per-track sets through
// a multivariant playlist); the DASH manifest always lists one track per
// adaptation set, as DASH readers expect, so a muxed input with several
// tracks gets per-track sets for it as well.
int writeSegments(const char* input, const std::string& directory,
                  const MP4FragmentSettings& settings, const CopyOptions& options, bool split) {
    if (::mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "quil: fragment: cannot make %s: %s\n", directory.c_str(),
                     std::strerror(errno));
        return kExitFailure;
    }
    std::vector<TrackDescription> tracks;
    if (!describeTracks(input, &tracks)) return kExitFailure;
    size_t mediaTracks = 0;
    for (const TrackDescription& track : tracks) mediaTracks += isMedia(track.kind) ? 1 : 0;
    std::vector<SegmentSet> trackSets;
    if (split || mediaTracks > 1) {
        if (!writeTrackSets(input, directory, settings, options, tracks, &trackSets)) {
            return kExitFailure;
        }
    }
    if (split) {
        if (!writeText(directory + "/playlist.m3u8", hlsMultivariantPlaylist(trackSets))) {
            return kExitFailure;
        }
    } else {
        std::vector<SegmentSet> muxed{namedSet("init.mp4", "seg-", "playlist.m3u8")};
        describeSet(tracks, 0, &muxed.back());
        if (!writeSegmentSet(input, directory, settings, options, &muxed.back()) ||
            !writeText(directory + "/playlist.m3u8", hlsMediaPlaylist(muxed.back()))) {
            return kExitFailure;
        }
        if (trackSets.empty()) trackSets = muxed;
    }
    if (!writeText(directory + "/manifest.mpd", dashManifest(trackSets))) return kExitFailure;
    return *options.missing > 0 ? kExitSamplesMissing : kExitOk;
}

// SECONDS as a decimal number (e.g. 2 or 0.5), in milliseconds.
bool parseSeconds(const char* text, uint32_t* milliseconds) {
    if (!text || !*text) return false;
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (*end != '\0' || !(value >= 0.001 && value <= 86400)) return false;
    *milliseconds = static_cast<uint32_t>(std::lround(value * 1000));
    return true;
}

int runFragment(const Arguments& arguments) {
    MP4FragmentSettings settings{};
    settings.fragmentMilliseconds = kDefaultMilliseconds;
    if (arguments.has("--duration") &&
        !parseSeconds(arguments.value("--duration"), &settings.fragmentMilliseconds)) {
        return usageError("fragment: --duration needs seconds from 0.001 to 86400");
    }
    const char* input = arguments.operand(0);
    CopyOptions options;
    options.label = "fragment";
    options.progress = arguments.has("--progress");
    // Salvaged as by remux: what cannot be read is left out, named and
    // counted, and the exit status says so.
    uint64_t missing = 0;
    options.missing = &missing;
    const char* directory = arguments.value("--segments");
    if (directory) {
        if (arguments.operands().size() != 1 || arguments.has("--sidx")) {
            return usageError("fragment: --segments DIR takes no OUT and no --sidx");
        }
        return writeSegments(input, directory, settings, options, arguments.has("--split-tracks"));
    }
    if (arguments.operands().size() != 2) return usageError("fragment: needs IN and OUT");
    if (arguments.has("--split-tracks")) return usageError("fragment: --split-tracks needs --segments");
    if (arguments.has("--sidx")) {
        std::vector<TrackDescription> tracks;
        if (!describeTracks(input, &tracks)) return kExitFailure;
        settings.segmentIndexEntries =
            fragmentBound(tracks, settings.fragmentMilliseconds, fileSize(input));
    }
    options.fragments = &settings;
    OutputFile output;
    std::string error;
    if (!output.create(arguments.operand(1), &error)) {
        std::fprintf(stderr, "quil: fragment: %s\n", error.c_str());
        return kExitFailure;
    }
    if (!copyTracksOrReport(input, output.temporaryPath(), options)) return kExitFailure;
    if (!output.commit(&error)) {
        std::fprintf(stderr, "quil: fragment: %s\n", error.c_str());
        return kExitFailure;
    }
    return missing > 0 ? kExitSamplesMissing : kExitOk;
}

}  // namespace

const Command kFragmentCommand = {
    "fragment",
    "fragment IN OUT [--duration SECONDS] [--sidx] | IN --segments DIR [--split-tracks]",
    "  fragment copy IN as remux does into a fragmented file OUT (\"moof\" +\n"
    "           \"mdat\" pairs, a fragment at the first video sync sample after\n"
    "           --duration seconds, default 2; \"mfra\" at the end, --sidx adds\n"
    "           a segment index); --segments DIR writes DIR/init.mp4 and\n"
    "           DIR/seg-N.m4s with DIR/playlist.m3u8 (HLS) and DIR/manifest.mpd\n"
    "           (DASH), --split-tracks one segment set per track; --progress\n"
    "           shows progress even when stderr is not a terminal. Samples or\n"
    "           tracks that cannot be read are left out and counted on stderr\n"
    "           as by remux; exit status 3\n",
    {{"--duration", true}, {"--sidx", false}, {"--segments", true}, {"--split-tracks", false},
     {"--progress", false}},
    1,
    2,
    runFragment,
};

}  // namespace tool
}  // namespace quil
