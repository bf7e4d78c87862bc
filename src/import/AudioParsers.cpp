#include "import/AudioParsers.h"

#include <cstring>

namespace quil {
namespace {

uint32_t be32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}
uint32_t le32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[3]) << 24) | (p[2] << 16) | (p[1] << 8) | p[0];
}
uint32_t le16(const uint8_t* p) { return static_cast<uint32_t>(p[0] | (p[1] << 8)); }

constexpr uint32_t kAacRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                    22050, 16000, 12000, 11025, 8000,  7350};

// Frame bytes by frame type (RFC 4867 §3.6, 3GPP TS 26.101 / 26.201),
// header byte included; 0 marks types the band does not define. Type 15
// (no data) is the header alone.
constexpr uint8_t kAmrNbSizes[16] = {13, 14, 16, 18, 20, 21, 27, 32, 6, 0, 0, 0, 0, 0, 0, 1};
constexpr uint8_t kAmrWbSizes[16] = {18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 0, 0, 0, 0, 1, 1};

// kbit/s by [MPEG-1 ? 0 : 1][layer - 1][index].
constexpr uint16_t kMpegBitrates[2][3][15] = {
    {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
     {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}},
    {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}}};
constexpr uint32_t kMpeg1Rates[3] = {44100, 48000, 32000};

}  // namespace

// ---- ADTS -----------------------------------------------------------------

MP4Err parseAdtsHeader(const uint8_t* data, size_t size, AdtsHeader* header) {
    if (size < 7) return MP4_ERR_INVALID_DATA;
    if (data[0] != 0xFF || (data[1] & 0xF6) != 0xF0) return MP4_ERR_INVALID_DATA;  // sync, layer 0
    AdtsHeader h;
    const bool crc = (data[1] & 1) == 0;
    h.objectType = (data[2] >> 6) + 1u;
    h.frequencyIndex = (data[2] >> 2) & 0x0F;
    h.channelConfig = ((data[2] & 1u) << 2) | (data[3] >> 6);
    h.frameSize = ((data[3] & 3u) << 11) | (static_cast<uint32_t>(data[4]) << 3) | (data[5] >> 5);
    h.headerSize = crc ? 9 : 7;
    const uint32_t rawBlocks = data[6] & 3u;
    if (h.frequencyIndex >= 13) return MP4_ERR_INVALID_DATA;
    if (h.frameSize <= h.headerSize) return MP4_ERR_INVALID_DATA;
    // Several raw blocks per frame, and channel layouts given in-band by a
    // program config element, would need the payload taken apart.
    if (rawBlocks != 0 || h.channelConfig == 0) return MP4_ERR_UNSUPPORTED;
    h.sampleRate = kAacRates[h.frequencyIndex];
    *header = h;
    return MP4_OK;
}

void adtsAudioSpecificConfig(const AdtsHeader& header, uint8_t config[2]) {
    config[0] = static_cast<uint8_t>((header.objectType << 3) | (header.frequencyIndex >> 1));
    config[1] = static_cast<uint8_t>(((header.frequencyIndex & 1) << 7) | (header.channelConfig << 3));
}

// ---- AMR ------------------------------------------------------------------

int amrStorageKind(const uint8_t* data, size_t size, size_t* headerSize) {
    *headerSize = 0;
    if (size >= 9 && std::memcmp(data, "#!AMR-WB\n", 9) == 0) {
        *headerSize = 9;
        return 2;
    }
    if (size >= 6 && std::memcmp(data, "#!AMR\n", 6) == 0) {
        *headerSize = 6;
        return 1;
    }
    return 0;
}

uint32_t amrFrameSize(uint8_t header, bool wideBand) {
    // The padding bits around the frame type and quality bit must be 0.
    if ((header & 0x83) != 0) return 0;
    const uint8_t type = (header >> 3) & 0x0F;
    return wideBand ? kAmrWbSizes[type] : kAmrNbSizes[type];
}

// ---- MPEG audio -------------------------------------------------------------

MP4Err parseMpegAudioHeader(const uint8_t* data, size_t size, MpegAudioHeader* header) {
    if (size < 4) return MP4_ERR_INVALID_DATA;
    if (data[0] != 0xFF || (data[1] & 0xE0) != 0xE0) return MP4_ERR_INVALID_DATA;
    const uint32_t versionBits = (data[1] >> 3) & 3;
    const uint32_t layerBits = (data[1] >> 1) & 3;
    const uint32_t bitrateIndex = data[2] >> 4;
    const uint32_t rateIndex = (data[2] >> 2) & 3;
    const uint32_t padding = (data[2] >> 1) & 1;
    if (versionBits == 1 || layerBits == 0 || bitrateIndex == 15 || rateIndex == 3) {
        return MP4_ERR_INVALID_DATA;
    }
    if (bitrateIndex == 0) return MP4_ERR_UNSUPPORTED;  // free format
    MpegAudioHeader h;
    h.version = versionBits == 3 ? 1 : versionBits == 2 ? 2 : 25;
    h.layer = 4 - layerBits;
    h.sampleRate = kMpeg1Rates[rateIndex] >> (h.version == 1 ? 0 : h.version == 2 ? 1 : 2);
    h.channels = (data[3] >> 6) == 3 ? 1 : 2;
    h.bitrate = kMpegBitrates[h.version == 1 ? 0 : 1][h.layer - 1][bitrateIndex];
    const uint32_t bitsPerSecond = h.bitrate * 1000;
    if (h.layer == 1) {
        h.samplesPerFrame = 384;
        h.frameSize = (12 * bitsPerSecond / h.sampleRate + padding) * 4;
    } else {
        h.samplesPerFrame = h.layer == 3 && h.version != 1 ? 576 : 1152;
        h.frameSize = h.samplesPerFrame / 8 * bitsPerSecond / h.sampleRate + padding;
    }
    *header = h;
    return MP4_OK;
}

size_t id3v2TagSize(const uint8_t* data, size_t size) {
    if (size < 10 || std::memcmp(data, "ID3", 3) != 0) return 0;
    if ((data[6] | data[7] | data[8] | data[9]) & 0x80) return 0;  // not a sync-safe size
    const size_t body = (static_cast<size_t>(data[6]) << 21) | (data[7] << 14) | (data[8] << 7) | data[9];
    const bool footer = (data[5] & 0x10) != 0;
    return 10 + body + (footer ? 10 : 0);
}

MpegInfoFrame parseMpegInfoFrame(const uint8_t* frame, size_t size, const MpegAudioHeader& header) {
    MpegInfoFrame info;
    if (size > header.frameSize) size = header.frameSize;
    const bool mono = header.channels == 1;
    const size_t sideInfo = header.version == 1 ? (mono ? 17 : 32) : (mono ? 9 : 17);
    const size_t crc = (frame[1] & 1) == 0 ? 2 : 0;
    const size_t xing = 4 + crc + sideInfo;
    if (size >= 4 + 32 + 4 && std::memcmp(frame + 36, "VBRI", 4) == 0) {
        info.present = true;
        return info;
    }
    if (size < xing + 8) return info;
    if (std::memcmp(frame + xing, "Xing", 4) != 0 && std::memcmp(frame + xing, "Info", 4) != 0) {
        return info;
    }
    info.present = true;
    const uint32_t flags = be32(frame + xing + 4);
    size_t lame = xing + 8;
    if (flags & 1) lame += 4;    // frames
    if (flags & 2) lame += 4;    // bytes
    if (flags & 4) lame += 100;  // table of contents
    if (flags & 8) lame += 4;    // quality
    if (size < lame + 24) return info;
    const uint8_t* tag = frame + lame;
    if (std::memcmp(tag, "LAME", 4) == 0 || std::memcmp(tag, "Lavf", 4) == 0 ||
        std::memcmp(tag, "Lavc", 4) == 0) {
        const uint32_t delays = (static_cast<uint32_t>(tag[21]) << 16) | (tag[22] << 8) | tag[23];
        info.hasDelays = true;
        info.encoderDelay = delays >> 12;
        info.padding = delays & 0xFFF;
    }
    return info;
}

// ---- WAVE -------------------------------------------------------------------

MP4Err parseWave(const uint8_t* data, size_t size, WaveFormat* format) {
    if (size < 12 || std::memcmp(data + 8, "WAVE", 4) != 0) return MP4_ERR_INVALID_DATA;
    if (std::memcmp(data, "RF64", 4) == 0) return MP4_ERR_UNSUPPORTED;
    if (std::memcmp(data, "RIFF", 4) != 0) return MP4_ERR_INVALID_DATA;
    WaveFormat f;
    bool haveFormat = false;
    uint32_t tag = 0;
    size_t at = 12;
    while (at + 8 <= size) {
        const uint8_t* chunk = data + at;
        const uint64_t length = le32(chunk + 4);
        const size_t body = at + 8;
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            if (length < 16 || length > size - body) return MP4_ERR_INVALID_DATA;
            tag = le16(chunk + 8);
            f.channels = le16(chunk + 10);
            f.sampleRate = le32(chunk + 12);
            f.blockAlign = le16(chunk + 20);
            f.bitsPerSample = le16(chunk + 22);
            // WAVE_FORMAT_EXTENSIBLE: the sub-format GUID starts with the tag.
            if (tag == 0xFFFE && length >= 40) tag = le16(chunk + 32);
            haveFormat = true;
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!haveFormat) return MP4_ERR_INVALID_DATA;
            f.dataOffset = body;
            f.dataSize = length < size - body ? length : size - body;
            break;
        }
        at = body + static_cast<size_t>(length < size ? length : size) + (length & 1);
        if (at < body) return MP4_ERR_INVALID_DATA;
    }
    if (!haveFormat || f.dataOffset == 0) return MP4_ERR_INVALID_DATA;
    if (f.channels == 0 || f.sampleRate == 0 || f.bitsPerSample == 0) return MP4_ERR_INVALID_DATA;
    if (tag != 1 && tag != 3) return MP4_ERR_UNSUPPORTED;  // only PCM and IEEE float
    f.isFloat = tag == 3;
    const uint32_t bytes = f.bitsPerSample / 8;
    const bool known = f.isFloat ? f.bitsPerSample == 32
                                 : (f.bitsPerSample == 8 || f.bitsPerSample == 16 || f.bitsPerSample == 24);
    if (!known || f.bitsPerSample % 8 != 0) return MP4_ERR_UNSUPPORTED;
    if (f.blockAlign != bytes * f.channels) return MP4_ERR_INVALID_DATA;
    f.dataSize -= f.dataSize % f.blockAlign;
    if (f.dataSize == 0) return MP4_ERR_INVALID_DATA;
    *format = f;
    return MP4_OK;
}

}  // namespace quil
