// Collecting the "info" report through the public interface.
#include "Report.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "Command.h"
#include "Info.h"

namespace quil {
namespace tool {

namespace {

void setNote(Field& field, const char* noteKey, const std::string& note) {
    field.noteKey = noteKey;
    field.note = note;
}


std::string hexBytes(const std::vector<uint8_t>& bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    static const char kDigits[] = "0123456789abcdef";
    for (uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 15];
    }
    return text;
}

std::string secondsText(uint64_t units, uint32_t timeScale) {
    if (timeScale == 0) return std::string();
    return format("%.3f s", static_cast<double>(units) / timeScale);
}

// ---------------------------------------------------------------------------
// Names

const char* fileTypeName(uint32_t fileType) {
    static const char* const kNames[] = {
        "MPEG-4",           "3GPP release 4", "MPEG-4 audio", "AVC",
        "Sony PSP",         "MPEG-4",         "3GPP release 5", "3GPP2",
        "3GPP release 6",   "no file type box", "XAVC",       "HEVC",
        "QuickTime",
    };
    return fileType < sizeof kNames / sizeof kNames[0] ? kNames[fileType] : "unknown";
}

}  // namespace

const char* trackKindName(uint32_t kind) {
    static const char* const kNames[] = {
        "other", "video", "audio", "hint", "object descriptor", "scene description", "time code",
    };
    return kind < sizeof kNames / sizeof kNames[0] ? kNames[kind] : "unknown";
}

const char* codecName(uint32_t codec) {
    switch (codec) {
        case 1: return "MPEG-4 Visual";
        case 2: return "AAC";
        case 3: return "MPEG-4 Systems";
        case 4: return "H.263";
        case 5: return "AMR-WB";
        case 6: return "AMR-NB";
        case 7: return "H.264/AVC";
        case 8: return "MPEG-1 Audio";
        case 9: return "MPEG-2 Audio";
        case 10: return "Motion JPEG";
        case 11: return "G.711 mu-law";
        case 12: return "G.711 A-law";
        case 13: return "PCM 8-bit";
        case 14: return "PCM 16-bit little-endian";
        case 15: return "PCM 16-bit big-endian";
        case 16: return "PCM 32-bit float little-endian";
        case 17: return "PCM 32-bit float big-endian";
        case 19: return "DV";
        case 20: return "Cinepak";
        case 21: return "Uncompressed RGB";
        case 22: return "PNG";
        case 23: return "Microsoft ADPCM";
        case 24: return "IMA ADPCM";
        case 25: return "Uncompressed YUV 4:2:2";
        case 26: return "MPEG-2 Video";
        case 27: return "MP3";
        case 28: return "AC-3";
        case 29: return "DVCPRO50";
        case 30: return "DVCPRO HD";
        case 32: return "Linear PCM";
        case 33: return "H.265/HEVC";
        case 34: return "PCM 24-bit";
        case 35: return "PCM integer (ISO 23003-5)";
        case 36: return "PCM float (ISO 23003-5)";
        default: return "unknown";
    }
}

namespace {

const char* avcProfileName(uint8_t profile, uint8_t compatibility) {
    switch (profile) {
        // constraint_set1_flag marks the constrained subset of Baseline.
        case 66: return (compatibility & 0x40) ? "Constrained Baseline" : "Baseline";
        case 77: return "Main";
        case 88: return "Extended";
        case 100: return "High";
        case 110: return "High 10";
        case 122: return "High 4:2:2";
        case 244: return "High 4:4:4 Predictive";
        case 44: return "CAVLC 4:4:4 Intra";
        default: return "unknown";
    }
}

const char* hevcProfileName(uint8_t profile) {
    switch (profile) {
        case 1: return "Main";
        case 2: return "Main 10";
        case 3: return "Main Still Picture";
        case 4: return "Format Range Extensions";
        default: return "unknown";
    }
}

// ---------------------------------------------------------------------------
// Decoder configuration summary (AVC and HEVC), as the library parses it.

void addConfigurationFields(Section* section, CMp4Track* track) {
    MP4CodecConfigSummary summary;
    if (Mp4GetCodecConfigSummary(track, &summary) != MP4_OK) return;
    if (summary.record == fourcc("avcC")) {
        setNote(section->addUnsigned("avcProfile", "AVC profile", summary.profile),
                "avcProfileName", avcProfileName(summary.profile, summary.compatibility));
        setNote(section->addUnsigned("avcLevel", "AVC level", summary.level), "avcLevelName",
                format("%u.%u", summary.level / 10u, summary.level % 10u));
    } else {
        setNote(section->addUnsigned("hevcProfile", "HEVC profile", summary.profile),
                "hevcProfileName", hevcProfileName(summary.profile));
        section->addText("hevcTier", "HEVC tier", summary.tier ? "High" : "Main");
        // general_level_idc is 30 times the level number.
        setNote(section->addUnsigned("hevcLevel", "HEVC level", summary.level), "hevcLevelName",
                format("%u.%u", summary.level / 30u, (summary.level % 30u) / 3u));
        section->addUnsigned("vpsCount", "Video parameter sets", summary.videoParameterSets);
    }
    section->addUnsigned("spsCount", "Sequence parameter sets", summary.sequenceParameterSets);
    section->addUnsigned("ppsCount", "Picture parameter sets", summary.pictureParameterSets);
}

// Reads one of the "length first" byte properties of a track.
template <class Getter>
bool readTrackBytes(Getter getter, std::vector<uint8_t>* bytes) {
    uint32_t length = 0;
    if (getter(nullptr, 0, &length) != MP4_OK) return false;
    bytes->assign(length, 0);
    if (length == 0) return true;
    return getter(bytes->data(), length, &length) == MP4_OK && length == bytes->size();
}

// ---------------------------------------------------------------------------
// Collecting the report

void addFileFields(Section* section, const char* path, CMp4File* file) {
    section->addText("path", "File", path);
    uint32_t fileType = 0, majorBrand = 0;
    const bool haveBrand = Mp4GetBrands(file, &majorBrand, nullptr, nullptr, 0, nullptr) == MP4_OK;
    if (file->getFileType(&fileType) == MP4_OK) {
        fileType = inputFileType(file);
        setNote(section->addUnsigned("fileType", "File type", fileType), "fileTypeName",
                fileTypeName(fileType));
    }
    if (haveBrand) section->addText("majorBrand", "Major brand", fourccText(majorBrand));
    uint32_t timeScale = 0;
    const bool haveTimeScale = file->getTimeScale(&timeScale) == MP4_OK;
    if (haveTimeScale) section->addUnsigned("timeScale", "Movie time scale", timeScale);
    uint64_t duration = 0;
    if (Mp4GetMovieDuration(file, &duration) == MP4_OK) {
        Field& f = section->addUnsigned("duration", "Movie duration", duration);
        if (haveTimeScale && timeScale != 0) {
            setNote(f, "durationText", secondsText(duration, timeScale));
        }
    }
    uint32_t y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    if (file->getCreationTime(&y, &mo, &d, &h, &mi, &s) == MP4_OK) {
        section->addText("creationTime", "Creation time",
                         format("%04u-%02u-%02u %02u:%02u:%02u", y, mo, d, h, mi, s));
    }
    uint32_t count = 0;
    if (file->getTrackCount(&count) == MP4_OK) {
        section->addUnsigned("trackCount", "Track count", count);
    }
    // Shown for fragmented files only: the track sample counts include
    // every fragment's samples.
    uint32_t fragments = 0;
    if (file->getFragmentCount(&fragments) == MP4_OK && fragments > 0) {
        section->addUnsigned("fragmentCount", "Fragments", fragments);
    }
}

void addTimingFields(Section* section, CMp4Track* track, uint32_t kind) {
    uint32_t timeScale = 0;
    const bool haveTimeScale = track->getTimeScale(&timeScale) == MP4_OK;
    if (haveTimeScale) section->addUnsigned("timeScale", "Time scale", timeScale);
    uint64_t duration = 0;
    if (track->getDuration(&duration) == MP4_OK) {
        section->addUnsigned("duration", "Duration (movie units)", duration);
    }
    if (track->getMediaDuration(&duration) == MP4_OK) {
        Field& f = section->addUnsigned("mediaDuration", "Media duration", duration);
        if (haveTimeScale && timeScale != 0) {
            setNote(f, "mediaDurationText", secondsText(duration, timeScale));
        }
    }
    uint32_t samples = 0;
    if (track->getSampleCount(&samples) == MP4_OK) {
        section->addUnsigned("sampleCount", "Samples", samples);
        uint64_t sync = 0;
        bool complete = true;
        for (uint32_t n = 1; n <= samples && complete; ++n) {
            uint32_t flag = 0;
            complete = track->isSyncSample(n, &flag) == MP4_OK;
            sync += flag != 0 ? 1 : 0;
        }
        if (complete) section->addUnsigned("syncSampleCount", "Sync samples", sync);
    }
    uint64_t delay = 0;
    if (track->getInitialDelay(&delay) == MP4_OK) {
        section->addUnsigned("initialDelay", "Initial delay", delay);
    }
    if (kind == MP4_TRACK_TIMECODE && samples > 0) {
        uint64_t firstTime = 0;
        uint8_t hours = 0, minutes = 0, seconds = 0, frames = 0, dropFrame = 0;
        const bool haveFlag = track->getTimecodeFlag(0, &dropFrame) == MP4_OK;
        if (track->getSampleDecodeTime(1, &firstTime) == MP4_OK &&
            track->getTimecode(firstTime, &hours, &minutes, &seconds, &frames) == MP4_OK) {
            // Drop-frame codes separate the frames with ';' by convention.
            section->addText("timecode", "Time code of sample 1",
                             format("%02u:%02u:%02u%c%02u", hours, minutes, seconds,
                                    haveFlag && dropFrame ? ';' : ':', frames));
        }
        if (haveFlag) section->addFlag("dropFrame", "Drop frame", dropFrame != 0);
    }
}

// The edit list: one entry per edit, "duration@media-time xrate".
void addEditFields(Section* section, CMp4Track* track) {
    uint32_t count = 0;
    if (Mp4GetEditCount(track, &count) != MP4_OK || count == 0) return;
    for (uint32_t index = 1; index <= count; ++index) {
        MP4Edit edit;
        if (Mp4GetEdit(track, index, &edit) != MP4_OK) break;
        section->edits.push_back(
            {edit.segmentDuration, edit.mediaTime, edit.rateInteger + edit.rateFraction / 65536.0});
    }
}

void addVisualFields(Section* section, CMp4Track* track) {
    section->addReal("rotation", "Rotation", track->getRotateAngle());
    uint32_t width = 0, height = 0;
    if (track->getWidth(&width) == MP4_OK) section->addUnsigned("width", "Width", width);
    if (track->getHeight(&height) == MP4_OK) section->addUnsigned("height", "Height", height);
    uint32_t hSpacing = 0, vSpacing = 0;
    if (track->getPixelAspectRatio(&hSpacing, &vSpacing) == MP4_OK) {
        section->addText("pixelAspectRatio", "Pixel aspect ratio",
                         format("%u:%u", hSpacing, vSpacing));
    }
}

void addCodecFields(Section* section, CMp4Track* track) {
    uint32_t codec = 0;
    if (track->getCodecType(&codec) == MP4_OK) {
        setNote(section->addUnsigned("codec", "Codec", codec), "codecName", codecName(codec));
    }
    std::vector<uint8_t> bytes;
    addConfigurationFields(section, track);
    uint8_t objectType = 0;
    if (track->getObjectTypeIndication(&objectType) == MP4_OK) {
        section->addText("objectType", "Object type indication", format("0x%02X", objectType));
    }
    auto specificInfo = [track](uint8_t* b, uint32_t size, uint32_t* length) {
        return track->getDecoderSpecificInfo(b, size, length);
    };
    if (readTrackBytes(specificInfo, &bytes)) {
        section->addText("decoderSpecificInfo", "Decoder specific info", hexBytes(bytes));
    }
    uint32_t bufferSize = 0, maxBitrate = 0, avgBitrate = 0;
    if (track->getBitrates(&bufferSize, &maxBitrate, &avgBitrate) == MP4_OK) {
        section->addUnsigned("bufferSizeDB", "Decoding buffer size", bufferSize);
        section->addUnsigned("maxBitrate", "Maximum bit rate", maxBitrate);
        section->addUnsigned("avgBitrate", "Average bit rate", avgBitrate);
    }
}

// Channel configuration of an MPEG-4 AudioSpecificConfig (ISO/IEC
// 14496-3 §1.6.2.1); 0 when absent or defined elsewhere in the stream.
uint32_t aacChannels(const std::vector<uint8_t>& config) {
    uint64_t bits = 0;
    size_t n = config.size() < 8 ? config.size() : 8;
    for (size_t i = 0; i < n; ++i) bits |= static_cast<uint64_t>(config[i]) << (56 - 8 * i);
    int pos = 5;
    if ((bits >> 59) == 31) pos += 6;  // escaped object type
    uint32_t frequencyIndex = static_cast<uint32_t>((bits >> (60 - pos)) & 15);
    pos += 4;
    if (frequencyIndex == 15) pos += 24;  // explicit frequency
    if (static_cast<size_t>(pos + 4) > n * 8) return 0;
    static const uint32_t kChannels[16] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 0, 0, 0, 0, 0};
    return kChannels[(bits >> (60 - pos)) & 15];
}

// Channels of an MPEG audio (layer 1-3) stream from its first frame header.
uint32_t mpegAudioChannels(CMp4Track* track) {
    uint8_t header[4] = {0, 0, 0, 0};
    uint32_t size = 0;
    uint32_t sampleSize = 0;
    if (track->getSampleSize(1, &sampleSize) != MP4_OK || sampleSize < 4) return 0;
    std::vector<uint8_t> sample(sampleSize);
    if (track->readSample(1, sampleSize, &size, sample.data()) != MP4_OK) return 0;
    std::copy(sample.begin(), sample.begin() + 4, header);
    if (header[0] != 0xFF || (header[1] & 0xE0) != 0xE0) return 0;
    return (header[3] >> 6) == 3 ? 1 : 2;
}

// The channel count a player decodes, where the stream says it better than
// the sample entry: AMR is mono (3GPP entries carry a fixed 2), AAC and MPEG
// audio carry their own. 0 when the entry's count stands.
uint32_t streamChannels(CMp4Track* track, uint32_t sampleEntry) {
    if (sampleEntry == fourcc("samr") || sampleEntry == fourcc("sawb")) return 1;
    uint32_t codec = 0;
    track->getCodecType(&codec);
    std::vector<uint8_t> config;
    auto specificInfo = [track](uint8_t* b, uint32_t size, uint32_t* length) {
        return track->getDecoderSpecificInfo(b, size, length);
    };
    if (codec == 2 && readTrackBytes(specificInfo, &config)) return aacChannels(config);
    if (codec == 8 || codec == 9 || codec == 27) return mpegAudioChannels(track);
    return 0;
}

void addSoundFields(Section* section, CMp4Track* track, uint32_t sampleEntry) {
    uint32_t value = 0;
    // One count; where the stream's own configuration says otherwise than
    // the sample entry, both are shown, each named.
    if (track->getChannelCount(&value) == MP4_OK) {
        const uint32_t decoded = streamChannels(track, sampleEntry);
        section->addUnsigned("channels", "Channels", decoded != 0 ? decoded : value);
        if (decoded != 0 && decoded != value) {
            section->addUnsigned("entryChannels", "Channels (sample entry)", value);
            section->addUnsigned("configChannels", "Channels (decoder config)", decoded);
        }
    }
    if (track->getSampleBits(&value) == MP4_OK) {
        section->addUnsigned("sampleBits", "Sample size (bits)", value);
    }
    if (track->getSampleRate(&value) == MP4_OK) {
        section->addUnsigned("sampleRate", "Sample rate", value);
    }
}

// Samples the tables place (partly) beyond the end of the file, or
// nowhere: what a cut-off recording or download lacks.
uint32_t missingSamples(CMp4Track* track, uint32_t samples, uint64_t fileLength) {
    uint32_t missing = 0;
    for (uint32_t n = 1; n <= samples; ++n) {
        uint64_t offset = 0;
        uint32_t size = 0;
        if (track->getSampleOffset(n, &offset, &size) != MP4_OK || offset > fileLength ||
            size > fileLength - offset) {
            ++missing;
        }
    }
    return missing;
}

Section collectTrack(CMp4File* file, uint32_t number, uint64_t fileLength) {
    Section section(format("Track %u", number));
    section.addUnsigned("number", "Number", number);
    CMp4Track* raw = nullptr;
    MP4Err err = file->getTrack(number, &raw);
    if (err != MP4_OK) {
        section.addText("error", "Error", toString(err));
        return section;
    }
    TrackHandle track(file, raw);
    uint32_t value = 0;
    if (track->getTrackId(&value) == MP4_OK) section.addUnsigned("trackId", "Track ID", value);
    uint32_t kind = MP4_TRACK_OTHER;
    if (track->getTrackType(&kind) == MP4_OK) {
        setNote(section.addUnsigned("kind", "Kind", kind), "kindName", trackKindName(kind));
    }
    uint32_t sampleEntry = 0;
    if (track->getSampleEntryType(&sampleEntry) == MP4_OK) {
        section.addText("sampleEntry", "Sample entry", fourccText(sampleEntry));
    }
    uint8_t language[3] = {0, 0, 0};
    // QuickTime files may hold a Macintosh language number instead of
    // letters; only real letters are shown.
    if (track->getLanguage(language) == MP4_OK && std::islower(language[0]) &&
        std::islower(language[1]) && std::islower(language[2])) {
        section.addText("language", "Language",
                        std::string(reinterpret_cast<const char*>(language), 3));
    }
    uint32_t original = 0, scheme = 0, schemeVersion = 0;
    if (track->getProtectionScheme(&original, &scheme, &schemeVersion) == MP4_OK) {
        section.addText("originalFormat", "Original format", fourccText(original));
        if (scheme != 0) {
            section.addText("protectionScheme", "Protection scheme",
                            format("%s %u.%u", fourccText(scheme).c_str(), schemeVersion >> 16,
                                   schemeVersion & 0xFFFF));
        }
    }
    addTimingFields(&section, track.get(), kind);
    uint32_t samples = 0;
    if (fileLength > 0 && track->getSampleCount(&samples) == MP4_OK) {
        // Shown only when samples are missing, so intact files read as before.
        const uint32_t missing = missingSamples(track.get(), samples, fileLength);
        if (missing > 0) section.addUnsigned("missingSamples", "Missing samples", missing);
    }
    addVisualFields(&section, track.get());
    addEditFields(&section, track.get());
    addCodecFields(&section, track.get());
    addSoundFields(&section, track.get(), sampleEntry);
    return section;
}

}  // namespace

Report collectReport(const char* path, CMp4File* file) {
    Report report;
    addFileFields(&report.file, path, file);
    uint32_t count = 0;
    (void)file->getTrackCount(&count);
    const uint64_t fileLength = fileSize(path);
    for (uint32_t number = 1; number <= count; ++number) {
        report.tracks.push_back(collectTrack(file, number, fileLength));
    }
    return report;
}

}  // namespace tool
}  // namespace quil
