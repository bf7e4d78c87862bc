// Track properties: identity, media header values, sample-entry fields,
// decoder configuration, codec identification and time codes.
#include <cstring>
#include <new>

#include "TrackImpl.h"
#include "boxes/CodecBoxes.h"
#include "boxes/ConfigBoxes.h"
#include "boxes/MovieBoxes.h"
#include "boxes/SampleEntries.h"
#include "descriptors/ConfigRecords.h"
#include "meta/MetaDataImpl.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

// Copies bytes to a caller's buffer: a null buffer asks for the length only,
// a buffer too small gives 7 with the length set.
MP4Err copyOut(const uint8_t* bytes, uint32_t length, uint8_t* buffer, uint32_t bufferSize,
               uint32_t* outLength) {
    *outLength = length;
    if (!buffer) return MP4_OK;
    if (bufferSize < length) return MP4_ERR_BUFFER_TOO_SMALL;
    if (length > 0) std::memcpy(buffer, bytes, length);
    return MP4_OK;
}

// Serialises a decoder configuration record into new bytes.
template <class Record>
MP4Err recordBytes(Record* record, std::unique_ptr<uint8_t[]>* bytes, uint32_t* length) {
    MP4Err err = record->calcSize();
    if (err != MP4_OK) return err;
    uint64_t size = 0;
    record->getSize(&size);
    if (size > 0xFFFFFFFFull) return MP4_ERR_VALUE_TOO_LARGE;
    bytes->reset(new (std::nothrow) uint8_t[size ? size : 1]);
    if (!*bytes) return MP4_ERR_OUT_OF_MEMORY;
    CMemoryStorage storage;
    storage.attach(bytes->get(), static_cast<uint32_t>(size), true);
    storage.open(1);
    err = record->write(&storage);
    storage.close();
    storage.detach();
    *length = static_cast<uint32_t>(size);
    return err;
}

}  // namespace

#define QUIL_REQUIRE_OUT(p)                            \
    do {                                               \
        if (!(p)) return MP4_ERR_INVALID_ARGUMENT;     \
    } while (0)

// ---- sample entries -------------------------------------------------------

MP4Err CTrackImpl::firstEntry(CSampleEntry** entry) {
    *entry = nullptr;
    if (!open_) return MP4_ERR_INVALID_DATA;
    CBox* box = nullptr;
    MP4Err err = stsd_->getEntry(1, &box);
    if (err != MP4_OK) return err;
    *entry = dynamic_cast<CSampleEntry*>(box);
    return *entry ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

// The first sample entry of that class (a visual or a sound description).
template <class T>
MP4Err CTrackImpl::firstEntryOf(T** entry) {
    *entry = nullptr;
    if (!open_) return MP4_ERR_INVALID_DATA;
    for (uint32_t i = 1;; ++i) {
        CBox* box = nullptr;
        MP4Err err = stsd_->getEntry(i, &box);
        if (err != MP4_OK) return err;
        if ((*entry = dynamic_cast<T*>(box)) != nullptr) return MP4_OK;
    }
}

MP4Err CTrackImpl::esdsOfFirstEntry(CESDBox** esds) {
    *esds = nullptr;
    CSampleEntry* entry = nullptr;
    MP4Err err = firstEntry(&entry);
    if (err != MP4_OK) return err;
    auto* mp4 = dynamic_cast<CMP4SampleEntry*>(entry);
    if (!mp4) return MP4_ERR_NOT_AVAILABLE;
    CBox* box = nullptr;
    err = mp4->getESDBox(&box);
    if (err != MP4_OK) return err;
    *esds = dynamic_cast<CESDBox*>(box);
    return *esds ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CTrackImpl::getTrackType(uint32_t* type) {
    QUIL_REQUIRE_OUT(type);
    *type = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    *type = mediaType_;
    return MP4_OK;
}

MP4Err CTrackImpl::getTrackId(uint32_t* trackId) {
    QUIL_REQUIRE_OUT(trackId);
    *trackId = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    *trackId = trackId_;
    return MP4_OK;
}

MP4Err CTrackImpl::getSampleEntryType(uint32_t* format) {
    QUIL_REQUIRE_OUT(format);
    *format = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    CBox* box = nullptr;
    MP4Err err = stsd_->getEntry(1, &box);
    if (err != MP4_OK) return MP4_ERR_NOT_AVAILABLE;
    *format = box->type;
    return MP4_OK;
}

namespace {

// The first 4-byte value at `at` of a box known only by its bytes.
bool keptValue(CBox* parent, uint32_t type, uint64_t at, uint32_t* value) {
    CBox* box = nullptr;
    uint8_t b[4];
    if (parent->findChild(type, &box) != MP4_OK || box->keptPayload().read(at, b, 4) != MP4_OK) {
        return false;
    }
    *value = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
    return true;
}

}  // namespace

MP4Err CTrackImpl::getProtectionScheme(uint32_t* originalFormat, uint32_t* scheme,
                                       uint32_t* schemeVersion) {
    if (!originalFormat || !scheme || !schemeVersion) return MP4_ERR_INVALID_ARGUMENT;
    *originalFormat = *scheme = *schemeVersion = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    CBox* entry = nullptr;
    CBox* sinf = nullptr;
    if (stsd_->getEntry(1, &entry) != MP4_OK || entry->findChild(fourcc("sinf"), &sinf) != MP4_OK) {
        return MP4_ERR_NOT_AVAILABLE;
    }
    // "frma": the original format; "schm": version and flags, the scheme
    // and its version (ISO/IEC 14496-12 §8.12).
    if (!keptValue(sinf, fourcc("frma"), 0, originalFormat)) return MP4_ERR_NOT_AVAILABLE;
    if (keptValue(sinf, fourcc("schm"), 4, scheme)) keptValue(sinf, fourcc("schm"), 8, schemeVersion);
    return MP4_OK;
}

// ---- header values --------------------------------------------------------

MP4Err CTrackImpl::getDuration(uint64_t* duration) {
    QUIL_REQUIRE_OUT(duration);
    *duration = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    *duration = tkhd_->duration;
    return MP4_OK;
}

MP4Err CTrackImpl::getTimeScale(uint32_t* timeScale) {
    QUIL_REQUIRE_OUT(timeScale);
    *timeScale = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->getTimeScale(timeScale);
}

MP4Err CTrackImpl::getMediaDuration(uint64_t* duration) {
    QUIL_REQUIRE_OUT(duration);
    *duration = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->getDuration(duration);
}

MP4Err CTrackImpl::getLanguage(uint8_t language[3]) {
    QUIL_REQUIRE_OUT(language);
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->getLanguage(language);
}

MP4Err CTrackImpl::getVolume(int16_t* volume) {
    QUIL_REQUIRE_OUT(volume);
    *volume = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    *volume = tkhd_->volume;
    return MP4_OK;
}

MP4Err CTrackImpl::getCreationTime(uint32_t* year, uint32_t* month, uint32_t* day,
                                   uint32_t* hour, uint32_t* minute, uint32_t* second) {
    if (!year || !month || !day || !hour || !minute || !second) return MP4_ERR_INVALID_ARGUMENT;
    *year = *month = *day = *hour = *minute = *second = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->getCreationDate(year, month, day, hour, minute, second);
}

MP4Err CTrackImpl::setCreationTime(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                                   uint32_t minute, uint32_t second) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->setCreationDate(year, month, day, hour, minute, second);
}

MP4Err CTrackImpl::setLanguage(const uint8_t language[3]) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->setLanguage(language);
}

MP4Err CTrackImpl::setTimeScale(uint32_t timeScale) {
    if (!open_) return MP4_ERR_INVALID_DATA;
    return mdhd_->setTimeScale(timeScale);
}

// ---- sample-entry fields --------------------------------------------------

MP4Err CTrackImpl::getWidth(uint32_t* width) {
    QUIL_REQUIRE_OUT(width);
    *width = 0;
    CVisualSampleEntry* visual = nullptr;
    MP4Err err = firstEntryOf(&visual);
    if (err == MP4_OK) *width = visual->frameWidth();
    return err;
}

MP4Err CTrackImpl::getHeight(uint32_t* height) {
    QUIL_REQUIRE_OUT(height);
    *height = 0;
    CVisualSampleEntry* visual = nullptr;
    MP4Err err = firstEntryOf(&visual);
    if (err == MP4_OK) *height = visual->frameHeight();
    return err;
}

// Channels, bits per sample and rate of the first sound description: a
// QuickTime or MPEG-4 sound entry, or an ISO audio entry (AMR).
MP4Err CTrackImpl::firstSoundFields(SoundFields* fields) {
    CSoundSampleEntry* sound = nullptr;
    MP4Err err = firstEntryOf(&sound);
    if (err == MP4_OK) {
        // Version 2 keeps the rate as a double; the 16-bit field holds only
        // its low bits.
        bool exact = sound->version == 2 && sound->audioSampleRate >= 0.0 &&
                     sound->audioSampleRate < 4294967296.0;
        *fields = {sound->channelCount, sound->sampleSize,
                   exact ? static_cast<uint32_t>(sound->audioSampleRate)
                         : sound->sampleRateInteger};
        // ISO PCM states its sample size in "pcmC" (the entry's field is
        // a fixed 16).
        CPcmConfigBox* pcmC = nullptr;
        if (sound->findChildAs(fourcc("pcmC"), &pcmC) == MP4_OK) fields->bits = pcmC->sampleSize;
        return MP4_OK;
    }
    CAudioSampleEntry* audio = nullptr;
    if (firstEntryOf(&audio) != MP4_OK) return err;
    *fields = {audio->channelCount, audio->sampleSize, audio->sampleRateHz()};
    return MP4_OK;
}

MP4Err CTrackImpl::getChannelCount(uint32_t* channels) {
    QUIL_REQUIRE_OUT(channels);
    *channels = 0;
    SoundFields fields;
    MP4Err err = firstSoundFields(&fields);
    if (err == MP4_OK) *channels = fields.channels;
    return err;
}

MP4Err CTrackImpl::getSampleRate(uint32_t* sampleRate) {
    QUIL_REQUIRE_OUT(sampleRate);
    *sampleRate = 0;
    SoundFields fields;
    MP4Err err = firstSoundFields(&fields);
    if (err == MP4_OK) *sampleRate = fields.rate;
    return err;
}

MP4Err CTrackImpl::getSampleBits(uint32_t* bits) {
    QUIL_REQUIRE_OUT(bits);
    *bits = 0;
    SoundFields fields;
    MP4Err err = firstSoundFields(&fields);
    if (err == MP4_OK) *bits = fields.bits;
    return err;
}

MP4Err CTrackImpl::getPixelAspectRatio(uint32_t* hSpacing, uint32_t* vSpacing) {
    if (!hSpacing || !vSpacing) return MP4_ERR_INVALID_ARGUMENT;
    *hSpacing = *vSpacing = 0;
    CVisualSampleEntry* visual = nullptr;
    MP4Err err = firstEntryOf(&visual);
    if (err != MP4_OK) return err;
    CPixelAspectRatioBox* pasp = nullptr;
    err = visual->getPixelAspectRatioBox(&pasp);
    if (err != MP4_OK) return err;
    *hSpacing = pasp->hSpacing;
    *vSpacing = pasp->vSpacing;
    return MP4_OK;
}

// ---- decoder configuration ------------------------------------------------

MP4Err CTrackImpl::getDecoderSpecificInfo(uint8_t* buffer, uint32_t bufferSize,
                                          uint32_t* length) {
    QUIL_REQUIRE_OUT(length);
    *length = 0;
    CESDBox* esds = nullptr;
    MP4Err err = esdsOfFirstEntry(&esds);
    if (err != MP4_OK) return err;
    uint32_t needed = 0;
    err = esds->getDecoderSpecificInfoLength(&needed);
    if (err != MP4_OK) return err;
    *length = needed;
    if (!buffer) return MP4_OK;
    if (bufferSize < needed) return MP4_ERR_BUFFER_TOO_SMALL;
    return esds->getDecoderSpecificInfo(buffer, bufferSize, length);
}

MP4Err CTrackImpl::getObjectTypeIndication(uint8_t* objectType) {
    QUIL_REQUIRE_OUT(objectType);
    *objectType = 0;
    CESDBox* esds = nullptr;
    MP4Err err = esdsOfFirstEntry(&esds);
    if (err != MP4_OK) return err;
    return esds->getObjectTypeIndication(objectType);
}

MP4Err CTrackImpl::getBitrates(uint32_t* bufferSizeDB, uint32_t* maxBitrate,
                               uint32_t* avgBitrate) {
    if (!bufferSizeDB || !maxBitrate || !avgBitrate) return MP4_ERR_INVALID_ARGUMENT;
    *bufferSizeDB = *maxBitrate = *avgBitrate = 0;
    CESDBox* esds = nullptr;
    if (esdsOfFirstEntry(&esds) == MP4_OK &&
        esds->getBitRates(bufferSizeDB, maxBitrate, avgBitrate) == MP4_OK) {
        return MP4_OK;
    }
    CSampleEntry* entry = nullptr;
    MP4Err err = firstEntry(&entry);
    if (err != MP4_OK) return err;
    CMPEG4BitRateBox* btrt = nullptr;
    err = entry->findChildAs(fourcc("btrt"), &btrt);
    if (err != MP4_OK) return err;
    *bufferSizeDB = btrt->bufferSizeDB;
    *maxBitrate = btrt->maxBitrate;
    *avgBitrate = btrt->avgBitrate;
    return MP4_OK;
}

MP4Err CTrackImpl::getCodecConfiguration(uint8_t* buffer, uint32_t bufferSize,
                                         uint32_t* length) {
    QUIL_REQUIRE_OUT(length);
    *length = 0;
    CSampleEntry* entry = nullptr;
    MP4Err err = firstEntry(&entry);
    if (err != MP4_OK) return err;
    std::unique_ptr<uint8_t[]> bytes;
    uint32_t size = 0;
    CAVCConfigurationBox* avcC = nullptr;
    CHEVCConfigurationBox* hvcC = nullptr;
    entry->findChildAs(fourcc("avcC"), &avcC);
    entry->findChildAs(fourcc("hvcC"), &hvcC);
    // The bytes as the file holds them; a record made in memory is written
    // out in its own form.
    if (avcC && avcC->fileBytes) {
        return copyOut(avcC->fileBytes.get(), avcC->fileByteCount, buffer, bufferSize, length);
    }
    if (hvcC && hvcC->fileBytes) {
        return copyOut(hvcC->fileBytes.get(), hvcC->fileByteCount, buffer, bufferSize, length);
    }
    if (avcC) {
        CAVCDecoderConfigRecord* record = nullptr;
        if ((err = avcC->getRecord(&record)) != MP4_OK) return err;
        err = recordBytes(record, &bytes, &size);
    } else if (hvcC) {
        CHEVCDecoderConfigRecord* record = nullptr;
        if ((err = hvcC->getRecord(&record)) != MP4_OK) return err;
        err = recordBytes(record, &bytes, &size);
    } else {
        return MP4_ERR_NOT_AVAILABLE;
    }
    if (err != MP4_OK) return err;
    return copyOut(bytes.get(), size, buffer, bufferSize, length);
}

// ---- codec identification -------------------------------------------------

MP4Err CTrackImpl::codecOfFormat(uint32_t format, uint32_t* codec) {
    switch (format) {
        case fourcc("mp4s"): *codec = 3; return MP4_OK;
        case fourcc("h263"): case fourcc("s263"): *codec = 4; return MP4_OK;
        case fourcc("sawb"): *codec = 5; return MP4_OK;
        case fourcc("samr"): *codec = 6; return MP4_OK;
        case fourcc("avc1"): *codec = 7; return MP4_OK;
        case fourcc("mjpa"): case fourcc("mjpb"): case fourcc("jpeg"): *codec = 10; return MP4_OK;
        case fourcc("ulaw"): *codec = 11; return MP4_OK;
        case fourcc("alaw"): *codec = 12; return MP4_OK;
        case fourcc("sowt"): *codec = 14; return MP4_OK;
        case fourcc("twos"): *codec = 15; return MP4_OK;
        case fourcc("dvc "): case fourcc("dvcp"): case fourcc("dvpp"): case fourcc("dv25"):
        case fourcc("dc25"): *codec = 19; return MP4_OK;
        case fourcc("cvid"): *codec = 20; return MP4_OK;
        case fourcc("raw "): *codec = mediaType_ == MP4_TRACK_VIDEO ? 21 : 13; return MP4_OK;
        case fourcc("png "): *codec = 22; return MP4_OK;
        case 0x6D730002: *codec = 23; return MP4_OK;
        case 0x6D730011: *codec = 24; return MP4_OK;
        case fourcc("2vuy"): *codec = 25; return MP4_OK;
        case fourcc("mx5p"): case fourcc("xdvc"): *codec = 26; return MP4_OK;
        case 0x6D730055: *codec = 27; return MP4_OK;
        case fourcc("ac-3"): *codec = 28; return MP4_OK;
        case fourcc("dv5n"): case fourcc("dv5p"): case fourcc("dv50"): *codec = 29; return MP4_OK;
        case fourcc("dvh1"): case fourcc("dvh3"): case fourcc("dvh5"): case fourcc("dvh6"):
        case fourcc("dvhd"): case fourcc("dvhp"): case fourcc("dvhq"): *codec = 30; return MP4_OK;
        case fourcc("lpcm"): *codec = 32; return MP4_OK;
        case fourcc("hvc1"): case fourcc("hev1"): *codec = 33; return MP4_OK;
        case fourcc("in24"): *codec = 34; return MP4_OK;
        case fourcc("ipcm"): *codec = 35; return MP4_OK;
        case fourcc("fpcm"): *codec = 36; return MP4_OK;
        default: return MP4_ERR_NOT_AVAILABLE;
    }
}

MP4Err CTrackImpl::getCodecType(uint32_t* codec) {
    QUIL_REQUIRE_OUT(codec);
    *codec = 0;
    uint32_t format = 0;
    MP4Err err = getSampleEntryType(&format);
    if (err != MP4_OK) return err;
    CESDBox* esds = nullptr;
    uint8_t objectType = 0;
    switch (format) {
        case fourcc("mp4v"):
            // MPEG-2 and MPEG-1 video object types (0x60, 0x61, 0x64) are
            // told apart from MPEG-4 visual; the other MPEG-2 profiles are
            // deliberately not.
            *codec = 1;
            if (esdsOfFirstEntry(&esds) == MP4_OK &&
                esds->getObjectTypeIndication(&objectType) == MP4_OK &&
                (objectType == 0x60 || objectType == 0x61 || objectType == 0x64)) {
                *codec = 26;
            }
            return MP4_OK;
        case fourcc("mp4a"):
            // An unlisted audio object type leaves the codec unset.
            if (esdsOfFirstEntry(&esds) == MP4_OK &&
                esds->getObjectTypeIndication(&objectType) == MP4_OK) {
                if (objectType == 64 || objectType == 103) *codec = 2;
                if (objectType == 107) *codec = 8;
                if (objectType == 105) *codec = 9;
            }
            return MP4_OK;
        case fourcc("fl32"): {
            // Little-endian floats get the lower number, as "sowt" does.
            *codec = 17;
            CSoundSampleEntry* sound = nullptr;
            CEndianFormatBox* enda = nullptr;
            if (firstEntryOf(&sound) == MP4_OK && sound->getEndianFormatBox(&enda) == MP4_OK &&
                enda->data != 0) {
                *codec = 16;
            }
            return MP4_OK;
        }
        default:
            return codecOfFormat(format, codec);
    }
}

// ---- time codes -----------------------------------------------------------

MP4Err CTrackImpl::getTimecode(uint64_t time, uint8_t* hours, uint8_t* minutes,
                               uint8_t* seconds, uint8_t* frames) {
    if (!hours || !minutes || !seconds || !frames) return MP4_ERR_INVALID_ARGUMENT;
    *hours = *minutes = *seconds = *frames = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (mediaType_ != MP4_TRACK_TIMECODE) return MP4_ERR_NOT_AVAILABLE;

    uint32_t sample = 0;
    MP4Err err = findSampleByDecodeTime(time, &sample);
    // Past the last sample (usually the only one), that sample still holds.
    if (err == MP4_ERR_NOT_AVAILABLE) sample = timeTable_->sampleCount;
    else if (err != MP4_OK) return err;

    uint32_t size = 0;
    if ((err = getSampleSize(sample, &size)) != MP4_OK) return err;
    if (size != 4) return MP4_ERR_UNSUPPORTED;
    uint64_t decode = 0;
    if ((err = getSampleDecodeTime(sample, &decode)) != MP4_OK) return err;
    uint8_t bytes[4];
    uint32_t read = 0;
    if ((err = readSample(sample, sizeof bytes, &read, bytes)) != MP4_OK) return err;
    uint64_t counter = (static_cast<uint32_t>(bytes[0]) << 24) | (bytes[1] << 16) |
                       (bytes[2] << 8) | bytes[3];

    CTimeCodeSampleEntry* entry = nullptr;
    if ((err = firstEntryOf(&entry)) != MP4_OK) return MP4_ERR_NOT_AVAILABLE;
    uint32_t mediaScale = mdhd_->timeScale;
    uint64_t perFrame = static_cast<uint64_t>(static_cast<uint32_t>(entry->frameDuration)) * mediaScale;
    if (mediaScale == 0 || perFrame == 0 || entry->numberOfFrames == 0) {
        return MP4_ERR_INVALID_DATA;
    }
    const uint64_t framesPerSecond = entry->numberOfFrames;

    CBox* edtsBox = nullptr;
    auto* edts = trak_->findChild(fourcc("edts"), &edtsBox) == MP4_OK
                     ? dynamic_cast<CEditBox*>(edtsBox) : nullptr;
    if (edts) {
        uint64_t firstMediaTime = 0;
        // An empty first edit (media time -1) shifts nothing.
        if (edts->getFirstMediaTime(&firstMediaTime) == MP4_OK &&
            static_cast<int64_t>(firstMediaTime) >= 0) {
            counter += framesPerSecond * firstMediaTime / mediaScale;
        }
    }
    uint64_t elapsed = time > decode ? time - decode : 0;
    uint64_t total = counter + elapsed * entry->timeScale / perFrame;
    if (entry->isDropFrame()) {
        uint64_t secondsSoFar = total / framesPerSecond;
        total += secondsSoFar / 30 - secondsSoFar / 300;
    }
    *frames = static_cast<uint8_t>(total % framesPerSecond);
    uint64_t wholeSeconds = total / framesPerSecond;
    *seconds = static_cast<uint8_t>(wholeSeconds % 60);
    *minutes = static_cast<uint8_t>((wholeSeconds / 60) % 60);
    *hours = static_cast<uint8_t>(wholeSeconds / 3600);
    return MP4_OK;
}

MP4Err CTrackImpl::getTimecodeFlag(uint32_t which, uint8_t* flag) {
    QUIL_REQUIRE_OUT(flag);
    *flag = 0;
    if (!open_) return MP4_ERR_INVALID_DATA;
    if (mediaType_ != MP4_TRACK_TIMECODE || which > 3) return MP4_ERR_NOT_AVAILABLE;
    CTimeCodeSampleEntry* entry = nullptr;
    if (firstEntryOf(&entry) != MP4_OK) return MP4_ERR_NOT_AVAILABLE;
    *flag = static_cast<uint8_t>((entry->flags >> which) & 1);
    return MP4_OK;
}

// ---- user data ---------------------------------------------------------------

// The "udta" of the track's "trak"; a track being written gains one.
MP4Err CTrackImpl::findTrackUserData(bool create, CBox** udta) {
    *udta = nullptr;
    if (!open_) return MP4_ERR_INVALID_DATA;
    return findUserData(trak_, create, udta);
}

MP4Err CTrackImpl::getCprtNotice(uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                                 uint32_t index) {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    if (!buffer && bufferSize != 0) return MP4_ERR_INVALID_ARGUMENT;
    CBox* udta = nullptr;
    MP4Err err = findTrackUserData(false, &udta);
    if (err != MP4_OK) return err;
    return getCopyrightNotice(udta, buffer, bufferSize, length, index);
}

MP4Err CTrackImpl::setCprtNotice(const uint8_t* text, uint64_t length, int32_t index) {
    if (index < 0 || (!text && length != 0)) return MP4_ERR_INVALID_ARGUMENT;
    CBox* udta = nullptr;
    MP4Err err = findTrackUserData(true, &udta);
    if (err != MP4_OK) return err;
    return setCopyrightNotice(udta, text, length, index);
}

MP4Err CTrackImpl::getMetaData(CMp4MetaData** metaData) {
    return metaDataFor(host_->mode() == 1, metaData);
}

MP4Err CTrackImpl::metaDataFor(bool create, CMp4MetaData** metaData) {
    if (!metaData) return MP4_ERR_INVALID_ARGUMENT;
    *metaData = nullptr;
    if (!metaData_) {
        CBox* udta = nullptr;
        MP4Err err = findTrackUserData(create, &udta);
        if (err != MP4_OK) return err;
        metaData_.reset(new (std::nothrow) CMp4MetaDataImpl(udta));
        if (!metaData_) return MP4_ERR_OUT_OF_MEMORY;
    }
    *metaData = metaData_.get();
    return MP4_OK;
}

}  // namespace quil
