#include "SampleEntryBuilder.h"

#include <memory>
#include <new>

#include "boxes/BoxFactory.h"
#include "boxes/CodecBoxes.h"
#include "boxes/ConfigBoxes.h"
#include "boxes/SampleEntries.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

// A box whose payload is a byte string the builder supplies ("frma").
class CBytesBox : public CCodecSpecificDataBox {
public:
    explicit CBytesBox(uint32_t boxType) : CCodecSpecificDataBox(boxType) {}
};

// Sizes the box and writes it into a buffer of that size.
MP4Err writeToMemory(CBox* box, std::unique_ptr<uint8_t[]>* bytes, uint32_t* length) {
    MP4Err err = sizeBox(box);
    if (err != MP4_OK) return err;
    uint64_t total = 0;
    if ((err = box->getSize(&total)) != MP4_OK) return err;
    // Sample entries and their children are small; a memory storage counts
    // in 32 bits.
    if (total > 0xFFFFFFFFull || total < 8) return MP4_ERR_VALUE_TOO_LARGE;
    bytes->reset(new (std::nothrow) uint8_t[total]);
    if (!*bytes) return MP4_ERR_OUT_OF_MEMORY;
    CMemoryStorage memory;
    memory.attach(bytes->get(), static_cast<uint32_t>(total), true);
    err = memory.open(1);
    if (err == MP4_OK) err = writeBox(box, &memory);
    // A box that writes fewer bytes than it announced would leave garbage.
    if (err == MP4_OK && memory.position() != total) err = MP4_ERR_INVALID_DATA;
    memory.close();
    memory.detach();
    *length = static_cast<uint32_t>(total);
    return err;
}

// Reads one box of exactly length bytes through the factory.
MP4Err readFromMemory(uint8_t* bytes, uint32_t length, uint32_t parentType, CBox** box) {
    *box = nullptr;
    CMemoryStorage memory;
    memory.attach(bytes, length, false);
    MP4Err err = memory.open(0);
    if (err != MP4_OK) return err;
    uint64_t remaining = length;
    uint32_t type = 0;
    CBox* read = nullptr;
    // The factory's nesting guard counts from wherever a parse around us
    // stands and restores it afterwards.
    err = readBox(&memory, parentType, &read, &type, &remaining);
    memory.close();
    memory.detach();
    std::unique_ptr<CBox> owned(read);
    if (err != MP4_OK) return err;
    if (!owned || remaining != 0) return MP4_ERR_INVALID_DATA;
    *box = owned.release();
    return MP4_OK;
}

// A box of the given type whose payload is bytes, read back through the
// factory as a child of parentType: the class parses and checks them.
MP4Err boxFromPayload(uint32_t type, uint32_t parentType, const uint8_t* payload,
                      uint32_t payloadLength, CBox** box) {
    *box = nullptr;
    if (payloadLength > 0xFFFFFFFFu - 8) return MP4_ERR_VALUE_TOO_LARGE;
    const uint32_t total = payloadLength + 8;
    std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[total]);
    if (!bytes) return MP4_ERR_OUT_OF_MEMORY;
    const uint32_t header[2] = {total, type};
    for (int field = 0; field < 2; ++field) {
        for (int i = 0; i < 4; ++i) {
            bytes[field * 4 + i] = static_cast<uint8_t>(header[field] >> (24 - 8 * i));
        }
    }
    for (uint32_t i = 0; i < payloadLength; ++i) bytes[8 + i] = payload[i];
    return readFromMemory(bytes.get(), total, parentType, box);
}

MP4Err addOwnedChild(CSampleEntry* entry, CBox* child) {
    std::unique_ptr<CBox> owned(child);
    MP4Err err = entry->addChild(child);
    if (err == MP4_OK) owned.release();
    return err;
}

// The configuration record box ("avcC", "hvcC"): the record must parse and
// fill the bytes exactly.
MP4Err addRecordBox(CSampleEntry* entry, uint32_t boxType, const MP4SampleEntryInfo& info) {
    if (!info.config || info.configLength == 0) return MP4_ERR_INVALID_ARGUMENT;
    CBox* box = nullptr;
    MP4Err err = boxFromPayload(boxType, entry->type, info.config, info.configLength, &box);
    if (err == MP4_ERR_OUT_OF_MEMORY) return err;
    // A record the reader could not take in is kept as read: still not one.
    if (err != MP4_OK || !box || box->type != boxType || box->writesAsRead()) {
        delete box;
        return MP4_ERR_INVALID_ARGUMENT;  // not a record of that kind
    }
    return addOwnedChild(entry, box);
}

// "esds" with an ES descriptor: the object type and stream type, the
// decoder-specific bytes when given, SL configuration 2 (MP4 files).
// Bit rates are filled in when the track is finalised.
MP4Err addEsdsBox(CSampleEntry* entry, uint8_t objectType, uint8_t streamType, uint16_t esId,
                  const MP4SampleEntryInfo& info) {
    if (info.configLength > 0 && !info.config) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<CESDBox> esds(new (std::nothrow) CESDBox());
    if (!esds) return MP4_ERR_OUT_OF_MEMORY;
    esds->esDescriptor.reset(new (std::nothrow) CESDescriptor());
    if (!esds->esDescriptor) return MP4_ERR_OUT_OF_MEMORY;
    CESDescriptor* es = esds->esDescriptor.get();
    es->ES_ID = esId;
    MP4Err err = es->setDecoderConfig(objectType, streamType, info.config, info.configLength);
    if (err == MP4_OK) err = es->setSLConfig(2);
    if (err != MP4_OK) return err;
    return addOwnedChild(entry, esds.release());
}

// "d263"/"damr": the caller's bytes, or the usual defaults.
MP4Err addCodecDataBox(CSampleEntry* entry, CCodecSpecificDataBox* box,
                       const MP4SampleEntryInfo& info, const uint8_t* defaults,
                       uint32_t defaultLength) {
    std::unique_ptr<CCodecSpecificDataBox> owned(box);
    if (!box) return MP4_ERR_OUT_OF_MEMORY;
    if (info.configLength > 0 && !info.config) return MP4_ERR_INVALID_ARGUMENT;
    const bool given = info.configLength > 0;
    MP4Err err = box->setData(given ? info.config : defaults, given ? info.configLength : defaultLength);
    if (err != MP4_OK) return err;
    return addOwnedChild(entry, owned.release());
}

// Vendor "quil", decoder version 0, H.263 level 10, profile 0.
constexpr uint8_t kDefaultD263[] = {'q', 'u', 'i', 'l', 0, 10, 0};
// Vendor "quil", decoder version 0, every mode allowed, mode change period
// 0, one frame per sample.
constexpr uint8_t kDefaultDamr[] = {'q', 'u', 'i', 'l', 0, 0x81, 0xFF, 0, 1};

bool isVideoFormat(uint32_t format) {
    switch (format) {
        case fourcc("avc1"): case fourcc("avc3"): case fourcc("hvc1"): case fourcc("hev1"):
        case fourcc("mp4v"): case fourcc("s263"): case fourcc("jpeg"):
            return true;
        default:
            return false;
    }
}

MP4Err buildVisualEntry(const MP4SampleEntryInfo& info, uint16_t esId, CSampleEntry** out) {
    std::unique_ptr<CVisualSampleEntry> entry;
    switch (info.format) {
        case fourcc("avc1"): case fourcc("avc3"): entry.reset(new (std::nothrow) CAVCSampleEntry()); break;
        case fourcc("hvc1"): case fourcc("hev1"):
            entry.reset(new (std::nothrow) CHEVCSampleEntry(info.format));
            break;
        case fourcc("mp4v"): entry.reset(new (std::nothrow) CMP4VisualSampleEntry()); break;
        case fourcc("s263"): entry.reset(new (std::nothrow) CH263SampleEntry()); break;
        default: entry.reset(new (std::nothrow) CMjpegSampleEntry()); break;
    }
    if (!entry) return MP4_ERR_OUT_OF_MEMORY;
    entry->type = info.format;
    entry->width = static_cast<int16_t>(info.width);
    entry->height = static_cast<int16_t>(info.height);
    MP4Err err = MP4_OK;
    switch (info.format) {
        case fourcc("avc1"): case fourcc("avc3"):
            err = addRecordBox(entry.get(), fourcc("avcC"), info);
            break;
        case fourcc("hvc1"): case fourcc("hev1"):
            err = addRecordBox(entry.get(), fourcc("hvcC"), info);
            break;
        case fourcc("mp4v"): {
            const uint8_t objectType = info.objectTypeIndication ? info.objectTypeIndication : 0x20;
            err = addEsdsBox(entry.get(), objectType, 4, esId, info);
            break;
        }
        case fourcc("s263"):
            err = addCodecDataBox(entry.get(), new (std::nothrow) CH263SpecificBox(), info,
                                  kDefaultD263, sizeof(kDefaultD263));
            break;
        default:
            break;
    }
    if (err != MP4_OK) return err;
    *out = entry.release();
    return MP4_OK;
}

// The QuickTime "wave" extension that tells the byte order of "in24" and
// "fl32": frma (the format), enda, and the 8-byte terminator.
MP4Err addWaveWithEndianness(CSoundSampleEntry* entry, bool littleEndian) {
    std::unique_ptr<CWaveBox> wave(new (std::nothrow) CWaveBox());
    std::unique_ptr<CBytesBox> frma(new (std::nothrow) CBytesBox(fourcc("frma")));
    std::unique_ptr<CEndianFormatBox> enda(new (std::nothrow) CEndianFormatBox());
    std::unique_ptr<CBox> terminator(new (std::nothrow) CBox());
    if (!wave || !frma || !enda || !terminator) return MP4_ERR_OUT_OF_MEMORY;
    const uint8_t format[4] = {static_cast<uint8_t>(entry->type >> 24),
                               static_cast<uint8_t>(entry->type >> 16),
                               static_cast<uint8_t>(entry->type >> 8),
                               static_cast<uint8_t>(entry->type)};
    MP4Err err = frma->setData(format, 4);
    if (err != MP4_OK) return err;
    enda->data = littleEndian ? 1 : 0;
    CBox* children[] = {frma.release(), enda.release(), terminator.release()};
    for (CBox* child : children) {
        std::unique_ptr<CBox> owned(child);
        if ((err = wave->addChild(child)) != MP4_OK) return err;
        owned.release();
    }
    return addOwnedChild(entry, wave.release());
}

MP4Err buildSoundDescription(const MP4SampleEntryInfo& info, uint16_t esId, CSampleEntry** out) {
    if (info.sampleRate == 0 || info.channels == 0) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<CSoundSampleEntry> entry;
    if (info.format == fourcc("mp4a")) {
        entry.reset(new (std::nothrow) CMP4AudioSampleEntry());
    } else {
        entry.reset(new (std::nothrow) CSoundSampleEntry(info.format));
    }
    if (!entry) return MP4_ERR_OUT_OF_MEMORY;
    const uint16_t bits = info.sampleBits ? info.sampleBits : 16;
    entry->channelCount = info.channels;
    entry->sampleSize = bits;
    // The 16.16 rate field cannot hold rates above 65535 Hz; players then
    // take the media time scale.
    entry->sampleRateInteger = info.sampleRate <= 0xFFFF ? static_cast<uint16_t>(info.sampleRate) : 0;
    MP4Err err = MP4_OK;
    switch (info.format) {
        case fourcc("mp4a"): {
            entry->sampleSize = 16;
            const uint8_t objectType = info.objectTypeIndication ? info.objectTypeIndication : 0x40;
            err = addEsdsBox(entry.get(), objectType, 5, esId, info);
            break;
        }
        case fourcc("in24"):
        case fourcc("fl32"): {
            // QuickTime's version-1 description with the packet layout of
            // uncompressed audio: one frame per packet.
            const uint32_t bytes = info.format == fourcc("in24") ? 3 : 4;
            entry->version = 1;
            entry->sampleSize = 16;
            entry->samplesPerPacket = 1;
            entry->bytesPerPacket = bytes;
            entry->bytesPerFrame = bytes * info.channels;
            entry->bytesPerSample = 2;
            err = addWaveWithEndianness(entry.get(), info.littleEndian);
            break;
        }
        default:
            break;
    }
    if (err != MP4_OK) return err;
    *out = entry.release();
    return MP4_OK;
}

MP4Err buildAmrEntry(const MP4SampleEntryInfo& info, CSampleEntry** out) {
    std::unique_ptr<CAMRSampleEntry> entry;
    if (info.format == fourcc("samr")) {
        entry.reset(new (std::nothrow) CAMRNBSampleEntry());
    } else {
        entry.reset(new (std::nothrow) CAMRWBSampleEntry());
    }
    if (!entry) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = addCodecDataBox(entry.get(), new (std::nothrow) CAMRSpecificBox(), info,
                                 kDefaultDamr, sizeof(kDefaultDamr));
    if (err != MP4_OK) return err;
    *out = entry.release();
    return MP4_OK;
}

}  // namespace

MP4Err buildSampleEntry(const MP4SampleEntryInfo& info, uint32_t trackKind, uint16_t esId,
                        CSampleEntry** entry) {
    *entry = nullptr;
    if (isVideoFormat(info.format)) {
        if (trackKind != MP4_TRACK_VIDEO) return MP4_ERR_INVALID_ARGUMENT;
        return buildVisualEntry(info, esId, entry);
    }
    switch (info.format) {
        case fourcc("mp4a"): case fourcc("twos"): case fourcc("sowt"): case fourcc("raw "):
        case fourcc("ulaw"): case fourcc("alaw"): case fourcc("in24"): case fourcc("fl32"):
            if (trackKind != MP4_TRACK_AUDIO) return MP4_ERR_INVALID_ARGUMENT;
            return buildSoundDescription(info, esId, entry);
        case fourcc("samr"): case fourcc("sawb"):
            if (trackKind != MP4_TRACK_AUDIO) return MP4_ERR_INVALID_ARGUMENT;
            return buildAmrEntry(info, entry);
        case fourcc("lpcm"):
            return MP4_ERR_UNSUPPORTED;
        default:
            return MP4_ERR_INVALID_ARGUMENT;
    }
}

MP4Err copyBox(CBox* source, uint32_t parentType, CBox** copy) {
    *copy = nullptr;
    std::unique_ptr<uint8_t[]> bytes;
    uint32_t length = 0;
    MP4Err err = writeToMemory(source, &bytes, &length);
    if (err != MP4_OK) return err;
    return readFromMemory(bytes.get(), length, parentType, copy);
}

uint32_t rawAudioSampleBytes(CSampleEntry* entry) {
    auto* sound = dynamic_cast<CSoundSampleEntry*>(entry);
    if (!sound) return 1;
    const uint32_t format = sound->type;
    const uint32_t field = sound->perSampleByteCount();
    const uint32_t channels = sound->channelCount ? sound->channelCount : 1;
    if (format == 0x6D730011 || format == 0x6D730002) {
        return sound->bytesPerFrame ? sound->bytesPerFrame : 1;
    }
    if (format == fourcc("lpcm")) return field ? field : 1;
    if (format == fourcc("in24")) return (field > 3 ? field : 3) * channels;
    if (format == fourcc("fl32")) return channels * 4;
    const bool pcm16 = format == fourcc("twos") || format == fourcc("sowt");
    return (field ? field : (pcm16 ? 2u : 1u)) * channels;
}

bool isRawAudioEntry(CBox* entry) {
    // "raw " is read as a visual entry, also in sound tracks; its samples
    // are bytes either way.
    if (entry->type == fourcc("raw ")) return true;
    if (!dynamic_cast<CSoundSampleEntry*>(entry)) return false;
    switch (entry->type) {
        case fourcc("twos"): case fourcc("sowt"): case fourcc("raw "): case fourcc("NONE"):
        case fourcc("ulaw"): case fourcc("alaw"): case fourcc("in24"): case fourcc("in32"):
        case fourcc("fl32"): case fourcc("fl64"): case fourcc("lpcm"):
        case 0x6D730011: case 0x6D730002:
            return true;
        default:
            return false;
    }
}

}  // namespace quil
