// SDP media sections (RFC 4566) of the RTP payload formats.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "Packetizers.h"
#include "boxes/CodecBoxes.h"
#include "boxes/SampleEntries.h"
#include "file/Mp4FileImpl.h"
#include "hint/BoxPaths.h"
#include "storage/Base64.h"

namespace quil {
namespace {

constexpr size_t kSdpBufferSize = 1024;
constexpr uint32_t kAmrFrameMs = 20;
// Used when the H.263 entry has no "d263" box: the baseline profile at
// level 10 (ITU-T H.263 Annex X), what every decoder takes.
constexpr uint32_t kDefaultH263Profile = 0;
constexpr uint32_t kDefaultH263Level = 10;
// Simple Profile level 1, when the configuration has no visual object
// sequence header to take it from.
constexpr uint32_t kDefaultMpeg4VisualProfile = 1;

std::string upperHex(const std::vector<uint8_t>& bytes) {
    std::string text;
    char digits[3];
    for (uint8_t byte : bytes) {
        std::snprintf(digits, sizeof(digits), "%02X", static_cast<uint32_t>(byte));
        text += digits;
    }
    return text;
}

MP4Err base64Of(const uint8_t* bytes, uint32_t length, std::string* text) {
    char* encoded = nullptr;
    uint32_t encodedLength = 0;
    MP4Err err = base64::encode(bytes, length, &encoded, &encodedLength);
    if (err != MP4_OK) return err;
    text->assign(encoded, encodedLength);
    delete[] encoded;
    return MP4_OK;
}

// profile-level-id and sprop-parameter-sets from an "avcC" payload. The
// walk keeps what files of this library have always announced: lengths
// from the low byte of each 16-bit length field, the PPS count masked with
// 0x1F, and two bytes of advance per PPS (only the first PPS is found
// where it lies). A parameter set past the end of the record gives 5.
MP4Err avcSdpParameters(const std::vector<uint8_t>& avcC, std::string* profileLevel,
                        std::string* sprop) {
    if (avcC.size() < 6) return MP4_ERR_INVALID_DATA;
    char id[8];
    std::snprintf(id, sizeof(id), "%02x%02x%02x", static_cast<uint32_t>(avcC[1]),
                  static_cast<uint32_t>(avcC[2]), static_cast<uint32_t>(avcC[3]));
    *profileLevel = id;
    sprop->clear();
    size_t pos = 6;
    const uint32_t spsCount = avcC[5] & 0x1F;
    for (uint32_t i = 0; i < spsCount; ++i) {
        if (pos + 2 > avcC.size()) return MP4_ERR_INVALID_DATA;
        const uint32_t length = avcC[pos + 1];
        if (pos + 2 + length > avcC.size()) return MP4_ERR_INVALID_DATA;
        std::string encoded;
        MP4Err err = base64Of(avcC.data() + pos + 2, length, &encoded);
        if (err != MP4_OK) return err;
        if (i > 0) *sprop += ",";
        *sprop += encoded;
        pos += 2 + length;
    }
    if (pos >= avcC.size()) return MP4_ERR_INVALID_DATA;
    const uint32_t ppsCount = avcC[pos] & 0x1F;
    ++pos;
    for (uint32_t i = 0; i < ppsCount; ++i) {
        if (pos + 2 > avcC.size()) return MP4_ERR_INVALID_DATA;
        const uint32_t length = avcC[pos + 1];
        if (pos + 2 + length > avcC.size()) return MP4_ERR_INVALID_DATA;
        std::string encoded;
        MP4Err err = base64Of(avcC.data() + pos + 2, length, &encoded);
        if (err != MP4_OK) return err;
        *sprop += ",";
        *sprop += encoded;
        pos += 2;
    }
    return sprop->size() < kSdpBufferSize ? MP4_OK : MP4_ERR_BUFFER_TOO_SMALL;
}

uint32_t mpeg4VisualProfile(const std::string& configHex) {
    size_t at = configHex.find("000001B0");
    if (at == std::string::npos) at = configHex.find("000001b0");
    if (at == std::string::npos || at + 10 > configHex.size()) return kDefaultMpeg4VisualProfile;
    char number[8];
    std::snprintf(number, sizeof(number), "0x%c%c", configHex[at + 8], configHex[at + 9]);
    return static_cast<uint32_t>(std::strtoul(number, nullptr, 16));
}

// The first sample entry of a track, through the file's box tree.
CBox* firstSampleEntry(CMp4FileImpl* file, uint32_t trackNumber) {
    CBox* trak = nullptr;
    CBox* box = nullptr;
    if (findTrackBox(file, trackNumber, &trak) != MP4_OK) return nullptr;
    if (findChildPath(trak, {fourcc("mdia"), fourcc("minf"), fourcc("stbl"), fourcc("stsd")}, &box) != MP4_OK) {
        return nullptr;
    }
    CSampleDescriptionBox* stsd = dynamic_cast<CSampleDescriptionBox*>(box);
    CBox* entry = nullptr;
    if (!stsd || stsd->getEntry(1, &entry) != MP4_OK) return nullptr;
    return entry;
}

}  // namespace

MP4Err CMp4RtpHintTrackImpl::formatSdp(char** text, size_t extra, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed < 0) {
        va_end(args);
        return MP4_ERR_INVALID_DATA;
    }
    size_t size = kSdpBufferSize + extra;
    if (static_cast<size_t>(needed) + 1 > size) size = static_cast<size_t>(needed) + 1;
    char* buffer = new (std::nothrow) char[size];
    if (!buffer) {
        va_end(args);
        return MP4_ERR_OUT_OF_MEMORY;
    }
    std::vsnprintf(buffer, size, format, args);
    va_end(args);
    *text = buffer;
    return MP4_OK;
}

MP4Err CMp4RtpHintTrackImpl::startSdpSection(char** text, uint32_t mediaTrackNumber,
                                             uint32_t requiredKind, SdpValues* values,
                                             bool* matches) {
    if (!text) return MP4_ERR_INVALID_ARGUMENT;
    *text = nullptr;
    return collectSdpValues(mediaTrackNumber, requiredKind, values, matches);
}

MP4Err CMp4RtpHintTrackImpl::collectSdpValues(uint32_t mediaTrackNumber, uint32_t requiredKind,
                                              SdpValues* values, bool* kindMatches) {
    *kindMatches = false;
    CMp4Track* media = nullptr;
    MP4Err err = file_->getFinishedTrack(mediaTrackNumber, &media, true);
    if (err != MP4_OK) return err;
    uint32_t kind = 0;
    err = media->getTrackType(&kind);
    if (err == MP4_OK && kind == requiredKind) {
        *kindMatches = true;
        uint64_t duration = 0;
        uint32_t movieScale = 0;
        if (media->getDuration(&duration) == MP4_OK && file_->getTimeScale(&movieScale) == MP4_OK &&
            movieScale != 0) {
            values->range = static_cast<double>(duration) / movieScale;
        }
        uint32_t width = 0, height = 0, channels = 0;
        if (media->getWidth(&width) == MP4_OK && media->getHeight(&height) == MP4_OK) {
            values->width = static_cast<int32_t>(width);
            values->height = static_cast<int32_t>(height);
        }
        if (media->getChannelCount(&channels) == MP4_OK) {
            values->channels = static_cast<uint16_t>(channels);
        }
        uint32_t length = 0;
        err = media->getDecoderSpecificInfo(nullptr, 0, &length);
        if (err == MP4_ERR_NOT_AVAILABLE) {
            err = MP4_OK;
        } else if ((err == MP4_OK || err == MP4_ERR_BUFFER_TOO_SMALL) && length > 0) {
            values->decoderSpecific.resize(length);
            err = media->getDecoderSpecificInfo(values->decoderSpecific.data(), length, &length);
        }
        values->configHex = upperHex(values->decoderSpecific);
        if (err == MP4_OK && requiredKind == MP4_TRACK_VIDEO) {
            MP4Err config = media->getCodecConfiguration(nullptr, 0, &length);
            if ((config == MP4_OK || config == MP4_ERR_BUFFER_TOO_SMALL) && length > 0) {
                values->codecConfig.resize(length);
                err = media->getCodecConfiguration(values->codecConfig.data(), length, &length);
            }
        }
    }
    MP4Err released = file_->releaseTrack(media);
    (void)released;  // the track is gone either way; a flush result says nothing here
    return err;
}

MP4Err CRfc3984H264HintTrackImpl::getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) {
    SdpValues v;
    bool matches = false;
    MP4Err err = startSdpSection(text, mediaTrackNumber, MP4_TRACK_VIDEO, &v, &matches);
    if (err != MP4_OK || !matches) return err;
    std::string profileLevel, sprop;
    err = avcSdpParameters(v.codecConfig, &profileLevel, &sprop);
    if (err != MP4_OK) return err;
    const uint32_t pt = state_.payloadType;
    return formatSdp(text, profileLevel.size() + sprop.size(),
                     "m=video 0 RTP/AVP %u\r\nb=AS:%u\r\na=rtpmap:%u H264/%u\r\n"
                     "a=range:npt=0-%.4f\r\na=cliprect:0, 0, %d, %d\r\na=framesize:%u %u-%u\r\n"
                     "a=control:trackID=%u\r\n"
                     "a=fmtp:%u packetization-mode=1;profile-level-id=%s;sprop-parameter-sets=%s\r\n",
                     pt, bandwidth(), pt, timeScale_, v.range, v.height, v.width, pt,
                     static_cast<uint32_t>(v.width), static_cast<uint32_t>(v.height), trackId_, pt,
                     profileLevel.c_str(), sprop.c_str());
}

MP4Err CRfc3640AudioHintTrackImpl::getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) {
    SdpValues v;
    bool matches = false;
    MP4Err err = startSdpSection(text, mediaTrackNumber, MP4_TRACK_AUDIO, &v, &matches);
    if (err != MP4_OK) return err;
    if (!matches) return MP4_ERR_INVALID_DATA;
    const uint32_t pt = state_.payloadType;
    return formatSdp(text, v.configHex.size(),
                     "m=audio 0 RTP/AVP %u\r\nb=AS:%u\r\na=rtpmap:%u mpeg4-generic/%u/%hu\r\n"
                     "a=control:trackID=%u\r\na=mpeg4-esid:%u\r\n"
                     "a=fmtp:%u profile-level-id=15;mode=AAC-hbr;sizelength=13;indexlength=3;"
                     "indexdeltalength=3;config=%s\r\n",
                     pt, bandwidth(), pt, timeScale_, v.channels, trackId_, mediaTrackNumber, pt,
                     v.configHex.c_str());
}

MP4Err CRfc3016LatmHintTrackImpl::getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) {
    SdpValues v;
    bool matches = false;
    MP4Err err = startSdpSection(text, mediaTrackNumber, MP4_TRACK_AUDIO, &v, &matches);
    if (err != MP4_OK) return err;
    if (!matches) return MP4_ERR_INVALID_DATA;
    std::vector<uint8_t> muxConfig;
    err = streamMuxConfig(v.decoderSpecific.data(), static_cast<uint32_t>(v.decoderSpecific.size()),
                          &muxConfig);
    if (err != MP4_OK) return err;
    const std::string config = upperHex(muxConfig);
    const uint32_t pt = state_.payloadType;
    return formatSdp(text, config.size(),
                     "m=audio 0 RTP/AVP %u\r\nb=AS:%u\r\na=rtpmap:%u MP4A-LATM/%u/%hu\r\n"
                     "a=range:npt=0-%.4f\r\na=control:trackID=%u\r\na=mpeg4-esid:%u\r\n"
                     "a=fmtp:%u profile-level-id=15;object=2;cpresent=0;config=%s\r\n",
                     pt, bandwidth(), pt, timeScale_, v.channels, v.range, trackId_,
                     mediaTrackNumber, pt, config.c_str());
}

MP4Err CRfc3016VideoHintTrackImpl::getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) {
    SdpValues v;
    bool matches = false;
    MP4Err err = startSdpSection(text, mediaTrackNumber, MP4_TRACK_VIDEO, &v, &matches);
    if (err != MP4_OK || !matches) return err;
    const uint32_t pt = state_.payloadType;
    return formatSdp(text, v.configHex.size(),
                     "m=video 0 RTP/AVP %u\r\nb=AS:%u\r\na=rtpmap:%u MP4V-ES/%u\r\n"
                     "a=range:npt=0-%.4f\r\na=control:trackID=%u\r\na=cliprect:0,0,%d,%d\r\n"
                     "a=fmtp:%u profile-level-id=%u;config=%s\r\na=mpeg4-esid:%u\r\n",
                     pt, bandwidth(), pt, timeScale_, v.range, trackId_, v.height, v.width, pt,
                     mpeg4VisualProfile(v.configHex), v.configHex.c_str(), mediaTrackNumber);
}

MP4Err CRfc2429H263HintTrackImpl::getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) {
    SdpValues v;
    bool matches = false;
    MP4Err err = startSdpSection(text, mediaTrackNumber, MP4_TRACK_VIDEO, &v, &matches);
    if (err != MP4_OK) return err;
    if (!matches) return MP4_ERR_INVALID_DATA;
    uint32_t profile = kDefaultH263Profile, level = kDefaultH263Level;
    if (CSampleEntry* entry = dynamic_cast<CSampleEntry*>(firstSampleEntry(file_, mediaTrackNumber))) {
        CH263SpecificBox* d263 = nullptr;
        uint8_t value = 0;
        if (entry->findChildAs(fourcc("d263"), &d263) == MP4_OK) {
            if (d263->getProfile(&value) == MP4_OK) profile = value;
            if (d263->getLevel(&value) == MP4_OK) level = value;
        }
    }
    const uint32_t pt = state_.payloadType;
    return formatSdp(text, 0,
                     "m=video 0 RTP/AVP %u\r\nb=AS:%u\r\na=rtpmap:%u H263-2000/%u\r\n"
                     "a=range:npt=0-%.4f\r\na=cliprect:0, 0, %d, %d\r\na=framesize:%u %d-%d\r\n"
                     "a=control:trackID=%u\r\na=fmtp:%u profile=%u;level=%u;\r\n",
                     pt, bandwidth(), pt, timeScale_, v.range, v.height, v.width, pt, v.width,
                     v.height, trackId_, pt, profile, level);
}

MP4Err CRfc3267AmrHintTrackImpl::getSdpMediaDescription(char** text, uint32_t mediaTrackNumber) {
    SdpValues v;
    bool matches = false;
    MP4Err err = startSdpSection(text, mediaTrackNumber, MP4_TRACK_AUDIO, &v, &matches);
    if (err != MP4_OK) return err;
    if (!matches) return MP4_ERR_INVALID_DATA;
    // RFC 4867 names the wide-band codec "AMR-WB"; a receiver told "AMR"
    // would decode it as narrow-band.
    CBox* entry = firstSampleEntry(file_, mediaTrackNumber);
    const char* name = entry && entry->type == fourcc("sawb") ? "AMR-WB" : "AMR";
    const uint32_t pt = state_.payloadType;
    return formatSdp(text, 0,
                     "m=audio 0 RTP/AVP %u\r\nb=AS:%u\r\na=rtpmap:%u %s/%u/1\r\n"
                     "a=range:npt=0-%.4f\r\na=control:trackID=%u\r\na=maxptime:%u\r\n"
                     "a=fmtp:%u channels=1;octet-align=1\r\n",
                     pt, bandwidth(), pt, name, timeScale_, v.range, trackId_,
                     framesPerPacket() * kAmrFrameMs, pt);
}

}  // namespace quil
