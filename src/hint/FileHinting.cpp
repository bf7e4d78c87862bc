// The hint layer's side of the file object: hint tracks opened, made and
// built for a file, the session SDP written at close, and the ISMA
// object-descriptor tracks.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "boxes/ConfigBoxes.h"
#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "descriptors/Descriptors.h"
#include "descriptors/ObjectDescriptors.h"
#include "file/FileHinting.h"
#include "file/Mp4FileImpl.h"
#include "hint/BoxPaths.h"
#include "boxes/HintBoxes.h"
#include "hint/Isma.h"
#include "hint/Packetizers.h"
#include "quil/Mp4Track.h"
#include "storage/Base64.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr int32_t kFirstHintKind = kHintMpeg4Video;
constexpr int32_t kLastHintKind = kHintH264;

const char kSessionSdpIsma2[] = "a=control:*\r\na=isma-compliance:2,2.0,2.0\r\n";
const char kSessionSdpIsma1[] =
    "a=control:*\r\na=isma-compliance:1,1.0,1\r\n"
    "a=mpeg4-iod: \"data:application/mpeg4-iod;base64,%s\"\r\n";

// What the ISMA descriptors need of one media track.
struct IsmaTrack {
    bool present = false;
    uint32_t trackId = 0;
    uint32_t bitrate = 0;
    std::vector<uint8_t> config;
    IsmaStream stream() const {
        return IsmaStream{trackId, config.empty() ? nullptr : reinterpret_cast<const char*>(config.data()),
                          static_cast<uint32_t>(config.size()), &bitrate, 0};
    }
};

MP4Err readIsmaTrack(CMp4Track* track, IsmaTrack* out) {
    MP4Err err = track->getTrackId(&out->trackId);
    if (err != MP4_OK) return err;
    uint32_t bufferSize = 0, maxBitrate = 0;
    (void)track->getBitrates(&bufferSize, &maxBitrate, &out->bitrate);
    uint32_t length = 0;
    err = track->getDecoderSpecificInfo(nullptr, 0, &length);
    if ((err == MP4_OK || err == MP4_ERR_BUFFER_TOO_SMALL) && length > 0) {
        out->config.resize(length);
        err = track->getDecoderSpecificInfo(out->config.data(), length, &length);
        if (err != MP4_OK) return err;
    }
    out->present = true;
    return MP4_OK;
}

class CHintLayer final : public CFileHinting {
public:
    MP4Err openHintTrack(CMp4FileImpl* file, uint32_t trackNumber,
                         CMp4RtpHintTrack** hintTrack) override;
    MP4Err createHintTrack(CMp4FileImpl* file, int32_t kind,
                           CMp4RtpHintTrack** hintTrack) override;
    MP4Err buildHintTrack(CMp4FileImpl* file, CMp4RtpHintTrack* hintTrack, uint8_t payloadType,
                          CMp4HintTrackContext* context) override;
    MP4Err getSessionSdp(CMp4FileImpl* file, uint8_t* buffer, uint32_t bufferSize) override;
    MP4Err writeSessionSdp(CMp4FileImpl* file, CMp4HintTrackContext* context) override;
    MP4Err addIsmaObjectDescriptorTrack(CMp4FileImpl* file, uint32_t firstTrackNumber,
                                        uint32_t secondTrackNumber) override;
};

}  // namespace

CFileHinting& fileHinting() {
    static CHintLayer layer;
    return layer;
}

MP4Err CHintLayer::openHintTrack(CMp4FileImpl* file, uint32_t trackNumber,
                                 CMp4RtpHintTrack** hintTrack) {
    std::unique_ptr<CMp4RtpHintTrackImpl> impl(
        new (std::nothrow) CMp4RtpHintTrackImpl(file, file->trackMode()));
    if (!impl) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = impl->bind(trackNumber);
    if (err != MP4_OK) return err;
    *hintTrack = impl.release();
    return MP4_OK;
}

MP4Err CHintLayer::createHintTrack(CMp4FileImpl* file, int32_t kind,
                                   CMp4RtpHintTrack** hintTrack) {
    if (kind < kFirstHintKind || kind > kLastHintKind) return MP4_ERR_INVALID_ARGUMENT;
    CMp4RtpHintTrackImpl* impl = createPacketizer(kind, file, file->trackMode());
    if (impl == nullptr) return MP4_ERR_OUT_OF_MEMORY;
    *hintTrack = impl;
    return MP4_OK;
}

MP4Err CHintLayer::buildHintTrack(CMp4FileImpl*, CMp4RtpHintTrack* hintTrack,
                                  uint8_t payloadType, CMp4HintTrackContext* context) {
    // Only the library's own hint tracks know how to build themselves.
    CMp4RtpHintTrackImpl* impl = dynamic_cast<CMp4RtpHintTrackImpl*>(hintTrack);
    if (impl == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    return impl->build(payloadType, context);
}

MP4Err CHintLayer::getSessionSdp(CMp4FileImpl* file, uint8_t* buffer, uint32_t bufferSize) {
    CBox* box = nullptr;
    MP4Err err = file->findTopLevelBox(fourcc("moov"), &box);
    const uint32_t path[] = {fourcc("udta"), fourcc("hnti"), fourcc("rtp ")};
    for (uint32_t childType : path) {
        if (err != MP4_OK) return err;
        CBox* child = nullptr;
        err = box->findChild(childType, &child, 1);
        box = child;
    }
    if (err != MP4_OK) return err;
    CRtpMovieHintInformationBox* rtp = dynamic_cast<CRtpMovieHintInformationBox*>(box);
    if (rtp == nullptr) return MP4_ERR_NOT_AVAILABLE;
    // The text and its terminating zero.
    if (static_cast<uint64_t>(rtp->textLength()) + 1 > bufferSize) return MP4_ERR_BUFFER_TOO_SMALL;
    std::memcpy(buffer, rtp->text(), rtp->textLength() + 1);
    return MP4_OK;
}

MP4Err CHintLayer::writeSessionSdp(CMp4FileImpl* file, CMp4HintTrackContext* context) {
    std::string text = kSessionSdpIsma2;
    if (file->fileType() == MP4_FILE_MPEG4) {
        // The ISMA descriptor of the first video and first audio track; a
        // file without either keeps the plain text.
        IsmaTrack video, audio;
        uint32_t trackCount = 0;
        (void)file->getTrackCount(&trackCount);
        for (uint32_t number = 1; number <= trackCount; ++number) {
            CMp4Track* track = nullptr;
            if (file->getFinishedTrack(number, &track, true) != MP4_OK) continue;
            uint32_t kind = 0;
            (void)track->getTrackType(&kind);
            MP4Err err = MP4_OK;
            if (kind == MP4_TRACK_VIDEO && !video.present) err = readIsmaTrack(track, &video);
            if (kind == MP4_TRACK_AUDIO && !audio.present) err = readIsmaTrack(track, &audio);
            (void)file->releaseTrack(track);
            if (err != MP4_OK) return err;
        }
        IsmaStream videoStream = video.stream(), audioStream = audio.stream();
        std::vector<uint8_t> iod;
        if (buildIsmaIod(video.present ? &videoStream : nullptr,
                         audio.present ? &audioStream : nullptr, &iod) == MP4_OK) {
            char* encoded = nullptr;
            uint32_t encodedLength = 0;
            MP4Err err = base64::encode(iod.data(), static_cast<uint32_t>(iod.size()), &encoded,
                                        &encodedLength);
            if (err != MP4_OK) return err;
            std::unique_ptr<char[]> owned(encoded);
            std::vector<char> formatted(encodedLength + 256);
            std::snprintf(formatted.data(), formatted.size(), kSessionSdpIsma1, encoded);
            text = formatted.data();
        }
    }
    if (context != nullptr) {
        const char* replacement = context->replaceSessionSdp(text.c_str());
        if (replacement != nullptr) text = replacement;  // copied at once
    }

    CBox* moov = nullptr;
    MP4Err err = file->findMovie(&moov);
    CUserDataBox* udta = nullptr;
    CMovieHintInformationBox* hnti = nullptr;
    CRtpMovieHintInformationBox* rtp = nullptr;
    if (err == MP4_OK) err = findOrAddChild(moov, fourcc("udta"), &udta);
    if (err == MP4_OK) err = findOrAddChild(udta, fourcc("hnti"), &hnti);
    if (err == MP4_OK) err = findOrAddChild(hnti, fourcc("rtp "), &rtp);
    if (err == MP4_OK) err = rtp->setText(text.c_str());
    return err;
}

namespace {

constexpr uint8_t kSystemsObjectType = 0x01;
constexpr uint8_t kBifsV2ObjectType = 0x02;
constexpr uint8_t kObjectDescriptorStream = 1;
constexpr uint8_t kSceneDescriptionStream = 3;
const uint8_t kBifsConfig[3] = {0x00, 0x00, 0x40};

// A systems track (object descriptors or scene description) with one
// sync sample at time 0 holding its access unit.
MP4Err addSystemsTrack(CMp4File* file, uint32_t kind, uint8_t objectType, uint8_t streamType,
                       const uint8_t* config, uint32_t configLength,
                       const std::vector<uint8_t>& accessUnit, const std::vector<uint32_t>& mpod,
                       CMp4FileImpl* impl, uint32_t* trackId) {
    CMp4Track* track = nullptr;
    MP4Err err = file->addTrack(&track);
    if (err != MP4_OK) return err;
    err = track->setTrackType(kind);
    if (err == MP4_OK) err = track->setTimeScale(1000);
    if (err == MP4_OK) err = track->getTrackId(trackId);
    if (err == MP4_OK) {
        std::unique_ptr<CMP4MpegSampleEntry> entry(new (std::nothrow) CMP4MpegSampleEntry());
        std::unique_ptr<CESDBox> esds(new (std::nothrow) CESDBox());
        std::unique_ptr<CESDescriptor> es(new (std::nothrow) CESDescriptor());
        if (!entry || !esds || !es) err = MP4_ERR_OUT_OF_MEMORY;
        if (err == MP4_OK) {
            es->ES_ID = static_cast<uint16_t>(*trackId);
            err = es->setDecoderConfig(objectType, streamType, config, configLength);
        }
        if (err == MP4_OK) err = es->setSLConfig(2);
        if (err == MP4_OK) {
            esds->esDescriptor = std::move(es);
            err = entry->addChild(esds.get());
        }
        if (err == MP4_OK) {
            esds.release();
            err = static_cast<CTrackImpl*>(track)->addSampleEntryBox(entry.release());
        }
    }
    if (err == MP4_OK && !mpod.empty()) {
        // The object descriptors name their streams through these references.
        CBox* moov = nullptr;
        CBox* trak = nullptr;
        uint32_t number = 0;
        err = impl->findTopLevelBox(fourcc("moov"), &moov);
        if (err == MP4_OK) err = file->getTrackCount(&number);
        if (err == MP4_OK) err = moov->findChild(fourcc("trak"), &trak, number);
        CTrackReferenceBox* tref = nullptr;
        CTrackReferenceTypeBox* reference = nullptr;
        if (err == MP4_OK) err = findOrAddChild(trak, fourcc("tref"), &tref);
        if (err == MP4_OK) {
            reference = new (std::nothrow) CTrackReferenceTypeBox(fourcc("mpod"));
            err = reference ? tref->addChild(reference) : MP4_ERR_OUT_OF_MEMORY;
            if (err != MP4_OK) delete reference;
        }
        for (uint32_t id : mpod) {
            if (err == MP4_OK) err = reference->addTrackId(id);
        }
    }
    if (err == MP4_OK) {
        err = track->addSample(accessUnit.data(), static_cast<uint32_t>(accessUnit.size()), 0, 0, true);
    }
    MP4Err released = file->releaseTrack(track);
    return err != MP4_OK ? err : released;
}

}  // namespace

MP4Err CHintLayer::addIsmaObjectDescriptorTrack(CMp4FileImpl* file, uint32_t firstTrackNumber,
                                                uint32_t secondTrackNumber) {
    // The first video and the first audio track among the two named (0
    // names none).
    IsmaTrack video, audio;
    for (uint32_t number : {firstTrackNumber, secondTrackNumber}) {
        if (number == 0) continue;
        CMp4Track* track = nullptr;
        MP4Err err = file->getFinishedTrack(number, &track, true);
        if (err != MP4_OK) return err;
        uint32_t kind = 0;
        (void)track->getTrackType(&kind);
        if (kind == MP4_TRACK_VIDEO && !video.present) err = readIsmaTrack(track, &video);
        if (kind == MP4_TRACK_AUDIO && !audio.present) err = readIsmaTrack(track, &audio);
        (void)file->releaseTrack(track);
        if (err != MP4_OK) return err;
    }
    if (!video.present && !audio.present) return MP4_ERR_NO_TRACKS;

    std::vector<uint32_t> references;
    IsmaStream videoStream = video.stream(), audioStream = audio.stream();
    if (video.present) {
        references.push_back(video.trackId);
        videoStream.referenceIndex = static_cast<uint16_t>(references.size());
    }
    if (audio.present) {
        references.push_back(audio.trackId);
        audioStream.referenceIndex = static_cast<uint16_t>(references.size());
    }
    std::vector<uint8_t> odUpdate;
    MP4Err err = buildIsmaOdUpdate(video.present ? &videoStream : nullptr,
                                   audio.present ? &audioStream : nullptr, true, &odUpdate);
    if (err != MP4_OK) return err;
    const uint8_t* scene = nullptr;
    uint32_t sceneLength = 0;
    ismaBifsScene(video.present, audio.present, &scene, &sceneLength);

    uint32_t sceneTrackId = 0, odTrackId = 0;
    err = addSystemsTrack(file, MP4_TRACK_SCENE_DESCRIPTION, kBifsV2ObjectType,
                          kSceneDescriptionStream, kBifsConfig, sizeof(kBifsConfig),
                          std::vector<uint8_t>(scene, scene + sceneLength), {}, file, &sceneTrackId);
    if (err == MP4_OK) {
        err = addSystemsTrack(file, MP4_TRACK_OBJECT_DESCRIPTOR, kSystemsObjectType,
                              kObjectDescriptorStream, nullptr, 0, odUpdate, references, file,
                              &odTrackId);
    }
    if (err != MP4_OK) return err;

    // The movie's initial object descriptor includes the two systems
    // streams (ISO/IEC 14496-14 §3.1.2); files without one are left so.
    CBox* moov = nullptr;
    CBox* box = nullptr;
    err = file->findMovie(&moov);
    if (err != MP4_OK) return err;
    if (moov->findChild(fourcc("iods"), &box, 1) != MP4_OK) return MP4_OK;
    CObjectDescriptorBox* iods = dynamic_cast<CObjectDescriptorBox*>(box);
    CInitialObjectDescriptor* iod = nullptr;
    if (!iods || iods->getDescriptor(&iod) != MP4_OK) return MP4_OK;
    err = iod->addESIDInc(sceneTrackId);
    if (err == MP4_OK) err = iod->addESIDInc(odTrackId);
    return err;
}

}  // namespace quil
