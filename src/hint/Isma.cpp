// ISMA 1.0 streaming descriptors: the initial object descriptor carried in
// the session SDP ("a=mpeg4-iod"), its object-descriptor update and BIFS
// commands (ISO/IEC 14496-1 §7.2, §8.5), and a decoder for such
// descriptors as other tools write them.
#include "hint/Isma.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "descriptors/EsDescriptors.h"
#include "io/FieldIO.h"
#include "descriptors/ObjectDescriptors.h"
#include "storage/Base64.h"

namespace quil {
namespace {

constexpr uint8_t kObjectDescriptorUpdateTag = 0x01;  // OD command tag
constexpr uint16_t kVideoObjectDescriptorId = 20;
constexpr uint16_t kAudioObjectDescriptorId = 10;
constexpr uint8_t kVisualObjectType = 0x20;
constexpr uint8_t kAudioObjectType = 0x40;
constexpr uint8_t kVisualStream = 4;
constexpr uint8_t kAudioStream = 5;
constexpr uint8_t kObjectDescriptorStream = 1;
constexpr uint8_t kSceneDescriptionStream = 3;
constexpr uint8_t kSystemsObjectType = 0x01;   // ISO/IEC 14496-1 OD stream
constexpr uint8_t kBifsV2ObjectType = 0x02;
constexpr uint16_t kOdStreamEsId = 1;
constexpr uint16_t kBifsStreamEsId = 2;
// SL configuration 2: the one predefined for MP4 files.
constexpr uint8_t kSlPredefinedMp4 = 2;
// BIFSConfig (version 2): no node or route IDs, a command stream, no size.
const uint8_t kBifsConfig[3] = {0x00, 0x00, 0x40};

const char kOdUrlPrefix[] = "data:application/mpeg4-od-au;base64,";
const char kBifsUrlPrefix[] = "data:application/mpeg4-bifs-au;base64,";

// The scene of an ISMA presentation (ISO/IEC 14496-11 BIFS command frame):
// a scene replacement whose ordered group holds the audio source of object
// descriptor 10 and/or the video texture of object descriptor 20, then the
// end of the lists, no routes and no further command. The three frames
// share the 21 bits that open the group and the 4 that close it.
const uint8_t kBifsAudio[8] = {0xC0, 0x10, 0x12, 0x81, 0x30, 0x2A, 0x05, 0x7C};
const uint8_t kBifsVideo[11] = {0xC0, 0x10, 0x12, 0x60, 0x42, 0x82,
                                0x28, 0x29, 0xD0, 0x4F, 0x00};
const uint8_t kBifsAudioVideo[16] = {0xC0, 0x10, 0x12, 0x81, 0x30, 0x2A, 0x05, 0x72,
                                     0x60, 0x42, 0x82, 0x28, 0x29, 0xD0, 0x4F, 0x00};

// Serialises a descriptor whose sizes have been computed.
MP4Err descriptorBytes(CBaseDescriptor* descriptor, std::vector<uint8_t>* bytes) {
    MP4Err err = descriptor->calcSize();
    if (err != MP4_OK) return err;
    uint64_t total = 0;
    err = descriptorTotalSize(descriptor, &total);
    if (err != MP4_OK) return err;
    bytes->assign(total, 0);
    uint8_t* cursor = bytes->data();
    uint32_t left = static_cast<uint32_t>(total);
    return descriptor->writeToBuffer(&cursor, &left);
}

// The expandable size field of ISO/IEC 14496-1 §8.3.3, shortest form.
void appendExpandableSize(std::vector<uint8_t>* out, uint32_t size) {
    uint8_t groups[4];
    int count = 0;
    do {
        groups[count++] = size & 0x7F;
        size >>= 7;
    } while (size != 0 && count < 4);
    for (int i = count - 1; i >= 0; --i) {
        out->push_back(static_cast<uint8_t>(groups[i] | (i > 0 ? 0x80 : 0)));
    }
}

MP4Err makeMediaEsDescriptor(uint16_t esId, uint8_t objectType, uint8_t streamType,
                             const char* config, uint32_t configLength, const uint32_t* bitrate,
                             std::unique_ptr<CESDescriptor>* out) {
    std::unique_ptr<CESDescriptor> es(new (std::nothrow) CESDescriptor());
    if (!es) return MP4_ERR_OUT_OF_MEMORY;
    es->ES_ID = esId;
    MP4Err err = es->setDecoderConfig(objectType, streamType,
                                      reinterpret_cast<const uint8_t*>(config),
                                      config ? configLength : 0);
    if (err == MP4_OK) err = es->setSLConfig(kSlPredefinedMp4);
    if (err != MP4_OK) return err;
    if (bitrate) {
        es->decoderConfig->maxBitrate = *bitrate;
        es->decoderConfig->avgBitrate = *bitrate;
    }
    *out = std::move(es);
    return MP4_OK;
}

MP4Err makeObjectDescriptor(uint16_t odId, std::unique_ptr<CESDescriptor> es,
                            std::vector<uint8_t>* out) {
    CObjectDescriptor od(kObjectDescrTag);
    MP4Err err = od.setObjectDescriptorID(odId);
    if (err == MP4_OK) err = od.addESDescriptor(es.get());
    if (err != MP4_OK) return err;
    es.release();
    std::vector<uint8_t> bytes;
    err = descriptorBytes(&od, &bytes);
    if (err != MP4_OK) return err;
    out->insert(out->end(), bytes.begin(), bytes.end());
    return MP4_OK;
}

MP4Err makeSystemsEsDescriptor(uint16_t esId, uint8_t objectType, uint8_t streamType,
                               const char* urlPrefix, const std::vector<uint8_t>& access,
                               const uint8_t* config, uint32_t configLength,
                               CInitialObjectDescriptor* iod) {
    char* encoded = nullptr;
    uint32_t encodedLength = 0;
    MP4Err err = base64::encode(access.data(), static_cast<uint32_t>(access.size()), &encoded,
                                &encodedLength);
    if (err != MP4_OK) return err;
    std::string url = urlPrefix;
    url.append(encoded, encodedLength);
    delete[] encoded;
    // A URL longer than its 8-bit length field cannot be carried inline.
    if (url.size() > 255) return MP4_ERR_VALUE_TOO_LARGE;
    std::unique_ptr<CESDescriptor> es(new (std::nothrow) CESDescriptor());
    if (!es) return MP4_ERR_OUT_OF_MEMORY;
    es->ES_ID = esId;
    err = es->setURL(reinterpret_cast<const uint8_t*>(url.data()), static_cast<uint32_t>(url.size()));
    if (err == MP4_OK) err = es->setDecoderConfig(objectType, streamType, config, configLength);
    if (err == MP4_OK) err = es->setSLConfig(kSlPredefinedMp4);
    if (err == MP4_OK) err = iod->addESDescriptor(es.get());
    if (err == MP4_OK) es.release();
    return err;
}

// ---- decoding ---------------------------------------------------------------

// A bounded reader over a byte range: every read checks what is left.
// A descriptor header (tag and expandable size) at the decoder; *payload
// decodes the descriptor's payload and the decoder moves past it.
bool descriptorHeader(FieldDecoder& cursor, uint8_t* tag, FieldDecoder* payload) {
    if (!cursor.u8(*tag).ok()) return false;
    uint32_t size = 0;
    for (int i = 0; i < 4; ++i) {
        uint8_t byte = 0;
        if (!cursor.u8(byte).ok()) return false;
        size = (size << 7) | (byte & 0x7F);
        if (!(byte & 0x80)) break;
    }
    if (size > cursor.left()) return false;
    *payload = FieldDecoder(cursor.data(), size);
    return cursor.skip(size).ok();
}

struct DecodedStream {
    uint16_t esId = 0;
    uint8_t streamType = 0;
    std::string url;
    std::vector<uint8_t> config;
};

// Reads an ES descriptor payload (ISO/IEC 14496-1 §7.2.6.5), with the
// OCR_ES_Id when its flag is set (MP4Box sets it on the scene stream).
bool decodeEsDescriptor(FieldDecoder payload, DecodedStream* stream) {
    uint8_t flags = 0;
    if (!payload.u16(stream->esId).ok() || !payload.u8(flags).ok()) return false;
    uint16_t ignored = 0;
    if ((flags & 0x80) && !payload.u16(ignored).ok()) return false;
    if (flags & 0x40) {
        uint8_t length = 0;
        if (!payload.u8(length).ok() || payload.left() < length) return false;
        stream->url.assign(reinterpret_cast<const char*>(payload.data()), length);
        payload.skip(length);
    }
    if ((flags & 0x20) && !payload.u16(ignored).ok()) return false;
    while (payload.left() > 0) {
        uint8_t tag = 0;
        FieldDecoder child(nullptr, 0);
        if (!descriptorHeader(payload, &tag, &child)) return false;
        if (tag != kDecoderConfigDescrTag) continue;
        uint8_t objectType = 0, streamByte = 0;
        if (!child.u8(objectType).ok() || !child.u8(streamByte).ok() || !child.skip(11).ok()) return false;
        stream->streamType = streamByte >> 2;
        while (child.left() > 0) {
            uint8_t infoTag = 0;
            FieldDecoder info(nullptr, 0);
            if (!descriptorHeader(child, &infoTag, &info)) return false;
            if (infoTag == kDecSpecificInfoTag) stream->config.assign(info.data(), info.data() + info.left());
        }
    }
    return true;
}

// The ES descriptors of an object descriptor update command's ODs.
bool decodeOdUpdate(const std::vector<uint8_t>& command, std::vector<DecodedStream>* streams) {
    FieldDecoder cursor(command.data(), command.size());
    uint8_t tag = 0;
    FieldDecoder ods(nullptr, 0);
    if (!descriptorHeader(cursor, &tag, &ods) || tag != kObjectDescriptorUpdateTag) return false;
    while (ods.left() > 0) {
        FieldDecoder od(nullptr, 0);
        if (!descriptorHeader(ods, &tag, &od)) return false;
        if (tag != kObjectDescrTag && tag != kMP4ODTag) continue;
        uint16_t idAndFlags = 0;
        if (!od.u16(idAndFlags).ok()) return false;
        if (idAndFlags & 0x20) {  // URL_Flag: the object lives elsewhere
            continue;
        }
        while (od.left() > 0) {
            FieldDecoder es(nullptr, 0);
            if (!descriptorHeader(od, &tag, &es)) return false;
            if (tag != kESDescrTag) continue;
            DecodedStream stream;
            if (!decodeEsDescriptor(es, &stream)) return false;
            streams->push_back(std::move(stream));
        }
    }
    return true;
}

MP4TrackType trackTypeOfStream(uint8_t streamType) {
    if (streamType == kVisualStream) return MP4_TRACK_VIDEO;
    if (streamType == kAudioStream) return MP4_TRACK_AUDIO;
    if (streamType == kObjectDescriptorStream) return MP4_TRACK_OBJECT_DESCRIPTOR;
    if (streamType == kSceneDescriptionStream) return MP4_TRACK_SCENE_DESCRIPTION;
    return MP4_TRACK_OTHER;
}

}  // namespace

void ismaBifsScene(bool hasVideo, bool hasAudio, const uint8_t** bytes, uint32_t* length) {
    if (hasVideo && hasAudio) {
        *bytes = kBifsAudioVideo;
        *length = sizeof(kBifsAudioVideo);
    } else if (hasVideo) {
        *bytes = kBifsVideo;
        *length = sizeof(kBifsVideo);
    } else {
        *bytes = kBifsAudio;
        *length = sizeof(kBifsAudio);
    }
}

MP4Err buildIsmaOdUpdate(const IsmaStream* video, const IsmaStream* audio, bool fileForm,
                         std::vector<uint8_t>* command) {
    std::vector<uint8_t> ods;
    const IsmaStream* streams[2] = {video, audio};
    for (int i = 0; i < 2; ++i) {
        const IsmaStream* stream = streams[i];
        if (!stream) continue;
        const bool isVideo = i == 0;
        const uint16_t odId = isVideo ? kVideoObjectDescriptorId : kAudioObjectDescriptorId;
        if (fileForm) {
            // In an OD track the streams are named by the track's "mpod"
            // references (ISO/IEC 14496-14 §3.1.3).
            CObjectDescriptor od(kMP4ODTag);
            MP4Err err = od.setObjectDescriptorID(odId);
            if (err == MP4_OK) err = od.addESIDRef(stream->referenceIndex);
            std::vector<uint8_t> bytes;
            if (err == MP4_OK) err = descriptorBytes(&od, &bytes);
            if (err != MP4_OK) return err;
            ods.insert(ods.end(), bytes.begin(), bytes.end());
            continue;
        }
        std::unique_ptr<CESDescriptor> es;
        MP4Err err = makeMediaEsDescriptor(static_cast<uint16_t>(stream->esId),
                                           isVideo ? kVisualObjectType : kAudioObjectType,
                                           isVideo ? kVisualStream : kAudioStream, stream->config,
                                           stream->configLength, stream->bitrate, &es);
        if (err == MP4_OK) err = makeObjectDescriptor(odId, std::move(es), &ods);
        if (err != MP4_OK) return err;
    }
    command->clear();
    command->push_back(kObjectDescriptorUpdateTag);
    appendExpandableSize(command, static_cast<uint32_t>(ods.size()));
    command->insert(command->end(), ods.begin(), ods.end());
    return MP4_OK;
}

MP4Err buildIsmaIod(const IsmaStream* video, const IsmaStream* audio, std::vector<uint8_t>* iod) {
    if (!video && !audio) return MP4_ERR_NO_TRACKS;
    std::vector<uint8_t> odUpdate;
    MP4Err err = buildIsmaOdUpdate(video, audio, false, &odUpdate);
    if (err != MP4_OK) return err;
    char* bifs = nullptr;
    uint32_t bifsLength = 0;
    err = CMp4File::createIsmaBifsCommand(video ? 1 : 0, audio ? 1 : 0, &bifs, &bifsLength);
    if (err != MP4_OK) return err;
    std::vector<uint8_t> scene(bifs, bifs + bifsLength);
    delete[] bifs;

    CInitialObjectDescriptor descriptor(kInitialObjectDescrTag);
    err = descriptor.setObjectDescriptorID(1);
    if (err != MP4_OK) return err;
    // "No capability required" for the kinds the presentation lacks.
    descriptor.setProfileLevels(0xFF, 0xFF, audio ? 0x0F : 0xFF, video ? 0x03 : 0xFF, 0xFF);
    err = makeSystemsEsDescriptor(kOdStreamEsId, kSystemsObjectType, kObjectDescriptorStream,
                                  kOdUrlPrefix, odUpdate, nullptr, 0, &descriptor);
    if (err == MP4_OK) {
        err = makeSystemsEsDescriptor(kBifsStreamEsId, kBifsV2ObjectType, kSceneDescriptionStream,
                                      kBifsUrlPrefix, scene, kBifsConfig, sizeof(kBifsConfig),
                                      &descriptor);
    }
    if (err != MP4_OK) return err;
    return descriptorBytes(&descriptor, iod);
}

// ---- the static functions of CMp4File ---------------------------------------

MP4Err CMp4File::createIsmaIod(bool hasVideo, bool hasAudio, char* videoConfig,
                               uint32_t videoConfigLength, char* audioConfig,
                               uint32_t audioConfigLength, char* iod, uint32_t* iodLength) {
    if (!iod || !iodLength) return MP4_ERR_INVALID_ARGUMENT;
    const uint32_t capacity = *iodLength;
    *iodLength = 0;
    IsmaStream video{kDefaultIsmaVideoEsId, videoConfig, videoConfigLength, nullptr, 1};
    IsmaStream audio{kDefaultIsmaAudioEsId, audioConfig, audioConfigLength, nullptr,
                     static_cast<uint16_t>(hasVideo ? 2 : 1)};
    std::vector<uint8_t> bytes;
    MP4Err err = buildIsmaIod(hasVideo ? &video : nullptr, hasAudio ? &audio : nullptr, &bytes);
    if (err != MP4_OK) return err;
    *iodLength = static_cast<uint32_t>(bytes.size());
    if (bytes.size() > capacity) return MP4_ERR_BUFFER_TOO_SMALL;
    std::memcpy(iod, bytes.data(), bytes.size());
    return MP4_OK;
}

MP4Err CMp4File::createIsmaODUpdateCommand(int32_t videoTrackId, int32_t audioTrackId,
                                           int32_t odTrackId, char* videoConfig,
                                           uint32_t videoConfigLength, char* audioConfig,
                                           uint32_t audioConfigLength, uint32_t* videoBitrate,
                                           uint32_t* audioBitrate, char** command,
                                           uint32_t* commandLength) {
    if (!command || !commandLength) return MP4_ERR_INVALID_ARGUMENT;
    *command = nullptr;
    *commandLength = 0;
    if (videoTrackId > 0xFFFF || audioTrackId > 0xFFFF) return MP4_ERR_INVALID_ARGUMENT;
    if (videoTrackId <= 0 && audioTrackId <= 0) return MP4_ERR_NO_TRACKS;
    IsmaStream video{static_cast<uint32_t>(videoTrackId), videoConfig, videoConfigLength,
                     videoBitrate, 1};
    IsmaStream audio{static_cast<uint32_t>(audioTrackId), audioConfig, audioConfigLength,
                     audioBitrate, static_cast<uint16_t>(videoTrackId > 0 ? 2 : 1)};
    std::vector<uint8_t> bytes;
    MP4Err err = buildIsmaOdUpdate(videoTrackId > 0 ? &video : nullptr,
                                   audioTrackId > 0 ? &audio : nullptr, odTrackId > 0, &bytes);
    if (err != MP4_OK) return err;
    char* out = new (std::nothrow) char[bytes.size()];
    if (!out) return MP4_ERR_OUT_OF_MEMORY;
    std::memcpy(out, bytes.data(), bytes.size());
    *command = out;
    *commandLength = static_cast<uint32_t>(bytes.size());
    return MP4_OK;
}

MP4Err CMp4File::createIsmaBifsCommand(uint32_t hasVideo, uint32_t hasAudio, char** command,
                                       uint32_t* commandLength) {
    if (!command || !commandLength) return MP4_ERR_INVALID_ARGUMENT;
    *command = nullptr;
    *commandLength = 0;
    if (!hasVideo && !hasAudio) return MP4_ERR_NO_TRACKS;
    const uint8_t* scene = nullptr;
    uint32_t length = 0;
    ismaBifsScene(hasVideo != 0, hasAudio != 0, &scene, &length);
    char* out = new (std::nothrow) char[length];
    if (!out) return MP4_ERR_OUT_OF_MEMORY;
    std::memcpy(out, scene, length);
    *command = out;
    *commandLength = length;
    return MP4_OK;
}

MP4Err CMp4File::decodeIsmaIod(const char* iod, uint32_t iodLength, uint32_t* count,
                               MP4TrackType** trackTypes, uint32_t** values, char*** buffers) {
    if (!count || !trackTypes || !values || !buffers) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    *trackTypes = nullptr;
    *values = nullptr;
    *buffers = nullptr;
    if (!iod) return MP4_ERR_INVALID_ARGUMENT;

    FieldDecoder cursor(reinterpret_cast<const uint8_t*>(iod), iodLength);
    uint8_t tag = 0;
    FieldDecoder body(nullptr, 0);
    if (!descriptorHeader(cursor, &tag, &body)) return MP4_ERR_INVALID_DATA;
    if (tag != kInitialObjectDescrTag && tag != kMP4IODTag) return MP4_ERR_INVALID_DATA;
    uint16_t idAndFlags = 0;
    if (!body.u16(idAndFlags).ok()) return MP4_ERR_INVALID_DATA;
    if (idAndFlags & 0x20) return MP4_ERR_UNSUPPORTED;  // the descriptor itself is elsewhere
    if (!body.skip(5).ok()) return MP4_ERR_INVALID_DATA;   // profile-level indications

    // The media streams are those the OD stream's inline access unit
    // describes.
    std::vector<DecodedStream> media;
    while (body.left() > 0) {
        FieldDecoder payload(nullptr, 0);
        if (!descriptorHeader(body, &tag, &payload)) return MP4_ERR_INVALID_DATA;
        if (tag != kESDescrTag) continue;
        DecodedStream stream;
        if (!decodeEsDescriptor(payload, &stream)) return MP4_ERR_INVALID_DATA;
        const size_t prefix = sizeof(kOdUrlPrefix) - 1;
        if (stream.streamType != kObjectDescriptorStream || stream.url.compare(0, prefix, kOdUrlPrefix) != 0) {
            continue;
        }
        uint8_t* decoded = nullptr;
        uint32_t decodedLength = 0;
        MP4Err err = base64::decode(stream.url.c_str() + prefix,
                                    static_cast<int32_t>(stream.url.size() - prefix), &decoded,
                                    &decodedLength);
        if (err != MP4_OK) return err;
        std::vector<uint8_t> command(decoded, decoded + decodedLength);
        delete[] decoded;
        if (!decodeOdUpdate(command, &media)) return MP4_ERR_INVALID_DATA;
    }
    if (media.empty()) return MP4_ERR_NO_TRACKS;

    const size_t n = media.size();
    std::unique_ptr<MP4TrackType[]> types(new (std::nothrow) MP4TrackType[n]);
    std::unique_ptr<uint32_t[]> lengths(new (std::nothrow) uint32_t[n]);
    std::unique_ptr<char*[]> configs(new (std::nothrow) char*[n]());
    if (!types || !lengths || !configs) return MP4_ERR_OUT_OF_MEMORY;
    for (size_t i = 0; i < n; ++i) {
        types[i] = trackTypeOfStream(media[i].streamType);
        lengths[i] = static_cast<uint32_t>(media[i].config.size());
        if (media[i].config.empty()) continue;
        configs[i] = new (std::nothrow) char[media[i].config.size()];
        if (!configs[i]) {
            for (size_t j = 0; j < i; ++j) delete[] configs[j];
            return MP4_ERR_OUT_OF_MEMORY;
        }
        std::memcpy(configs[i], media[i].config.data(), media[i].config.size());
    }
    *count = static_cast<uint32_t>(n);
    *trackTypes = types.release();
    *values = lengths.release();
    *buffers = configs.release();
    return MP4_OK;
}

}  // namespace quil
