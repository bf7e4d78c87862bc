#include "SampleEntries.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint64_t kSampleEntryStartSize = 8;
constexpr uint64_t kVisualFieldsSize = 70;
constexpr uint64_t kSoundCommonSize = 20;      // version .. sample rate fraction
constexpr uint64_t kSoundVersion1Size = 16;
constexpr uint64_t kSoundVersion2MinimumLeft = 20;  // deliberately weaker than the 48 read
constexpr uint32_t kSoundVersion2StructSize = 72;   // 8 + 8 + 8 + 48, no extensions
constexpr uint64_t kAudioFieldsSize = 20;
constexpr uint64_t kTimeCodeFieldsSize = 18;

// Lowers *remaining by count. A payload shorter than its fixed fields
// wraps the budget around; the factory's modular skip then still lands on
// the end of the box, but nothing may be read from such a budget.
void consume(uint64_t* remaining, uint64_t count, bool* overrun) {
    if (*remaining < count) *overrun = true;
    *remaining -= count;
}

// A double truncated to a 32-bit integer; NaN and values outside the
// int32 range give 0x80000000, as the x86 conversion instruction does.
uint32_t truncateToInt32Bits(double value) {
    if (!(value > -2147483649.0 && value < 2147483648.0)) return 0x80000000u;
    return static_cast<uint32_t>(static_cast<int32_t>(value));
}

double doubleFromBits(uint64_t bits) {
    double value = 0.0;
    static_assert(sizeof(value) == sizeof(bits), "64-bit IEEE double expected");
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

MP4Err discardInt16s(CStorage* storage, int count) {
    for (int i = 0; i < count; ++i) {
        int16_t ignored = 0;
        MP4Err err = storage->readInt16(&ignored);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

}  // namespace

// ---- "stsd" ---------------------------------------------------------------

MP4Err CSampleDescriptionBox::read(CStorage* storage) {
    bool overrun = remaining < 8;
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    err = storage->readUInt32(&entryCount);
    if (err != MP4_OK) return err;
    remaining -= 4;

    if (MP4Err err = startChildList(&children, this)) return err;

    uint64_t position = 0;
    err = storage->getPosition(&position);
    if (err != MP4_OK) return err;
    // The sum wraps like the budget when the box is shorter than its fields.
    uint64_t end = position + remaining;

    MP4Err result = MP4_OK;
    if (!overrun) result = readChildren(children.get(), storage, &remaining);
    // Damaged entries may leave the storage anywhere: always continue
    // after the box. The seek's own result is deliberately not looked at.
    storage->seek(end);
    remaining = 0;
    return result;
}

MP4Err CSampleDescriptionBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(entryCount);
    if (err != MP4_OK) return err;
    return writeChildren(children.get(), storage);
}

MP4Err CSampleDescriptionBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Entry count = %u\n", entryCount);
    return dumpChildrenInBraces(children.get(), depth);
}

MP4Err CSampleDescriptionBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + 4;
    if (!children) return MP4_ERR_INVALID_DATA;
    return addChildrenSizes(children.get(), &size);
}

MP4Err CSampleDescriptionBox::findChild(uint32_t childType, CBox** box, uint32_t instance) {
    return findInChildList(children.get(), childType, box, instance);
}

MP4Err CSampleDescriptionBox::addChild(CBox* box) {
    MP4Err err = appendToChildList(&children, this, box);
    if (err != MP4_OK) return err;
    ++entryCount;
    return MP4_OK;
}

MP4Err CSampleDescriptionBox::getEntry(uint32_t index, CBox** entry) {
    *entry = nullptr;
    if (index == 0) return MP4_ERR_BAD_INDEX;
    if (!children) return MP4_ERR_NOT_AVAILABLE;
    for (CBoxList::Node* node = children->head(); node; node = node->next) {
        if (node->index == index) {
            *entry = node->box;
            return MP4_OK;
        }
    }
    return MP4_ERR_NOT_AVAILABLE;
}

// ---- sample-entry start ---------------------------------------------------

MP4Err CSampleEntry::findChild(uint32_t childType, CBox** box, uint32_t instance) {
    return findInChildList(children.get(), childType, box, instance);
}

MP4Err CSampleEntry::addChild(CBox* box) {
    return appendToChildList(&children, this, box);
}

MP4Err CSampleEntry::readSampleEntryStart(CStorage* storage) {
    if (remaining < kSampleEntryStartSize) return MP4_ERR_BAD_BOX_SIZE;
    uint8_t reserved[6];
    MP4Err err = storage->readBytes(reserved, sizeof(reserved));
    if (err != MP4_OK) return err;
    err = storage->readUInt16(&dataReferenceIndex);
    if (err != MP4_OK) return err;
    remaining -= kSampleEntryStartSize;
    return MP4_OK;
}

MP4Err CSampleEntry::writeSampleEntryStart(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    const uint8_t reserved[6] = {};
    err = storage->writeBlock(reserved, sizeof(reserved));
    if (err != MP4_OK) return err;
    return storage->writeUInt16(dataReferenceIndex);
}

void CSampleEntry::dumpDataReferenceIndex(int32_t depth) {
    dumpLine(depth, "m_ui16DataReferenceIndex: %d\n", static_cast<int32_t>(dataReferenceIndex));
}

MP4Err CSampleEntry::readEntryChildren(CStorage* storage) {
    if (MP4Err err = startChildList(&children, this)) return err;
    return readChildren(children.get(), storage, &remaining);
}

void CSampleEntry::calculateStartSize() {
    CBox::calculateSize();
    size += kSampleEntryStartSize;
}

// ---- visual entries -------------------------------------------------------

CVisualSampleEntry::CVisualSampleEntry(uint32_t format) : CSampleEntry(format) {}

MP4Err CVisualSampleEntry::read(CStorage* storage) {
    MP4Err err = readSampleEntryStart(storage);
    if (err == MP4_OK) err = storage->readUInt16(&preDefined1);
    if (err == MP4_OK) err = storage->readInt16(&reserved1);
    for (uint32_t& value : preDefined2) {
        if (err == MP4_OK) err = storage->readUInt32(&value);
    }
    if (err == MP4_OK) err = storage->readInt16(&width);
    if (err == MP4_OK) err = storage->readInt16(&height);
    if (err == MP4_OK) err = storage->readInt32(&horizResolution);
    if (err == MP4_OK) err = storage->readInt32(&vertResolution);
    if (err == MP4_OK) err = storage->readInt32(&reserved2);
    if (err == MP4_OK) err = storage->readInt16(&frameCount);
    if (err == MP4_OK) err = storage->readBytes(compressorName, sizeof(compressorName));
    if (err == MP4_OK) err = storage->readInt16(&depth);
    if (err == MP4_OK) err = storage->readInt16(&preDefined3);
    if (err != MP4_OK) return err;

    bool overrun = false;
    consume(&remaining, kVisualFieldsSize, &overrun);
    if (remaining == 0 || overrun) return MP4_OK;
    return readEntryChildren(storage);
}

MP4Err CVisualSampleEntry::write(CStorage* storage) {
    MP4Err err = writeSampleEntryStart(storage);
    if (err == MP4_OK) err = storage->writeUInt16(preDefined1);
    if (err == MP4_OK) err = storage->writeInt16(reserved1);
    for (uint32_t value : preDefined2) {
        if (err == MP4_OK) err = storage->writeUInt32(value);
    }
    if (err == MP4_OK) err = storage->writeInt16(width);
    if (err == MP4_OK) err = storage->writeInt16(height);
    if (err == MP4_OK) err = storage->writeInt32(horizResolution);
    if (err == MP4_OK) err = storage->writeInt32(vertResolution);
    if (err == MP4_OK) err = storage->writeInt32(reserved2);
    if (err == MP4_OK) err = storage->writeInt16(frameCount);
    if (err == MP4_OK) err = storage->writeBlock(compressorName, sizeof(compressorName));
    if (err == MP4_OK) err = storage->writeInt16(depth);
    if (err == MP4_OK) err = storage->writeInt16(preDefined3);
    if (err != MP4_OK) return err;
    return writeChildren(children.get(), storage);
}

MP4Err CVisualSampleEntry::dump(int32_t level) {
    MP4Err err = CBox::dump(level);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(level);
    dumpLine(level, "Width = %d, Height = %d\n", static_cast<int32_t>(width),
             static_cast<int32_t>(height));
    dumpLine(level, "Horizontal resolution = 0x%08x, Vertical resolution = 0x%08x\n",
             static_cast<uint32_t>(horizResolution), static_cast<uint32_t>(vertResolution));
    dumpLine(level, "Frame count = %d\n", static_cast<int32_t>(frameCount));
    // A counted string: the first byte is its length, at most 31.
    int nameLength = compressorName[0] < 31 ? compressorName[0] : 31;
    dumpLine(level, "Compressor name = %.*s\n", nameLength,
             reinterpret_cast<const char*>(compressorName + 1));
    dumpLine(level, "Depth = 0x%04x, Pre-defined = %d\n", static_cast<uint32_t>(depth) & 0xFFFF,
             static_cast<int32_t>(preDefined3));
    return dumpChildrenInBraces(children.get(), level);
}

MP4Err CVisualSampleEntry::calculateSize() {
    calculateStartSize();
    size += kVisualFieldsSize;
    return addChildrenSizes(children.get(), &size);
}

void CVisualSampleEntry::setCompressorName(const char* name) {
    std::memset(compressorName, 0, sizeof(compressorName));
    if (!name) return;
    size_t length = std::strlen(name);
    if (length > 31) length = 31;
    compressorName[0] = static_cast<uint8_t>(length);
    std::memcpy(compressorName + 1, name, length);
}

MP4Err CAVCSampleEntry::getAppleAvcBox(CAppleAvcBox** box) {
    *box = nullptr;
    // Other "uuid" children may come first: look at each in turn.
    for (uint32_t instance = 1; instance != 0; ++instance) {
        CBox* found = nullptr;
        MP4Err err = findChild(fourcc("uuid"), &found, instance);
        if (err != MP4_OK) return err;
        if (auto* apple = dynamic_cast<CAppleAvcBox*>(found)) {
            *box = apple;
            return MP4_OK;
        }
    }
    return MP4_ERR_NOT_AVAILABLE;
}

// ---- MPEG-4 companion -----------------------------------------------------

MP4Err CMP4SampleEntry::getESDBox(CBox** esds) {
    *esds = nullptr;
    CSampleEntry* entry = sampleEntry();
    MP4Err err = entry->findChild(fourcc("esds"), esds);
    if (err != MP4_ERR_NOT_AVAILABLE) return err;
    CBox* wave = nullptr;
    err = entry->findChild(fourcc("wave"), &wave);
    if (err != MP4_OK) return err;
    return wave->findChild(fourcc("esds"), esds);
}

// ---- QuickTime sound description ------------------------------------------

MP4Err CSoundSampleEntry::read(CStorage* storage) {
    uint64_t start = 0;
    const uint64_t payload = remaining;
    MP4Err err = storage->getPosition(&start);
    if (err != MP4_OK) return err;
    err = readFields(storage);
    // The version-2 fields are read for the library's own use; a tree
    // written again (faststart, remux) writes the description as it was,
    // as it does one of a later version, which this class cannot write.
    if (version >= 2 && storage->seek(start) == MP4_OK) {
        remaining = payload;
        if (keepPayload(storage) == MP4_OK) writeAsRead();
    }
    return err;
}

MP4Err CSoundSampleEntry::readFields(CStorage* storage) {
    MP4Err err = readSampleEntryStart(storage);
    if (err == MP4_OK) err = storage->readUInt16(&version);
    if (err == MP4_OK) err = storage->readUInt16(&revisionLevel);
    if (err == MP4_OK) err = storage->readUInt32(&vendor);
    if (err != MP4_OK) return err;
    bool overrun = false;
    consume(&remaining, 8, &overrun);

    if (version <= 1) {
        err = readVersion01Fields(storage);
        if (err != MP4_OK) return err;
        consume(&remaining, 12, &overrun);
        if (version == 1 && remaining >= kSoundVersion1Size) {
            uint32_t* fields[] = {&samplesPerPacket, &bytesPerPacket, &bytesPerFrame,
                                  &bytesPerSample};
            for (uint32_t* field : fields) {
                err = storage->readUInt32(field);
                if (err != MP4_OK) return err;
            }
            remaining -= kSoundVersion1Size;
        }
    } else if (version == 2 && remaining >= kSoundVersion2MinimumLeft) {
        err = readVersion2Fields(storage);
        if (err != MP4_OK) return err;
        consume(&remaining, 48, &overrun);
        if (sizeOfStruct > kSoundVersion2StructSize) {
            // Extensions of the description up to its declared length.
            uint64_t extension = sizeOfStruct - kSoundVersion2StructSize;
            if (extension > remaining) extension = remaining;
            err = storage->skip(extension);
            if (err != MP4_OK) return err;
            remaining -= extension;
        }
    } else {
        // Unknown versions and truncated version-2 descriptions: the factory
        // skips the rest.
        return MP4_OK;
    }

    if (remaining == 0 || overrun) return MP4_OK;
    return readEntryChildren(storage);
}

MP4Err CSoundSampleEntry::readVersion01Fields(CStorage* storage) {
    MP4Err err = storage->readUInt16(&channelCount);
    if (err == MP4_OK) err = storage->readUInt16(&sampleSize);
    if (err == MP4_OK) err = storage->readInt16(&compressionId);
    if (err == MP4_OK) err = storage->readUInt16(&packetSize);
    if (err == MP4_OK) err = storage->readUInt16(&sampleRateInteger);
    if (err == MP4_OK) err = storage->readUInt16(&sampleRateFraction);
    return err;
}

MP4Err CSoundSampleEntry::readVersion2Fields(CStorage* storage) {
    // The fixed placeholders of the version-2 layout (always 3, 16, -2, 0
    // and 65536) are not kept.
    MP4Err err = discardInt16s(storage, 4);
    uint32_t placeholder = 0;
    if (err == MP4_OK) err = storage->readUInt32(&placeholder);
    if (err == MP4_OK) err = storage->readUInt32(&sizeOfStruct);
    uint64_t rateBits = 0;
    if (err == MP4_OK) err = storage->readUInt64(&rateBits);
    uint32_t channels = 0;
    if (err == MP4_OK) err = storage->readUInt32(&channels);
    int32_t alwaysMarker = 0;  // 0x7F000000
    if (err == MP4_OK) err = storage->readInt32(&alwaysMarker);
    if (err == MP4_OK) err = storage->readUInt32(&constBitsPerChannel);
    if (err == MP4_OK) err = storage->readUInt32(&formatSpecificFlags);
    if (err == MP4_OK) err = storage->readUInt32(&constBytesPerAudioPacket);
    if (err == MP4_OK) err = storage->readUInt32(&constLPCMFramesPerAudioPacket);
    if (err != MP4_OK) return err;

    audioSampleRate = doubleFromBits(rateBits);
    // Only the low 16 bits of each conversion survive (44100.0 gives a
    // fraction field of 0).
    sampleRateInteger = static_cast<uint16_t>(truncateToInt32Bits(audioSampleRate));
    sampleRateFraction = static_cast<uint16_t>(truncateToInt32Bits(audioSampleRate * 65536.0));
    channelCount = static_cast<uint16_t>(channels);
    return MP4_OK;
}

MP4Err CSoundSampleEntry::write(CStorage* storage) {
    if (writesAsRead()) return CBox::write(storage);  // a version-2 description read
    MP4Err err = writeSampleEntryStart(storage);
    if (err == MP4_OK) err = storage->writeUInt16(version);
    if (err == MP4_OK) err = storage->writeUInt16(revisionLevel);
    if (err == MP4_OK) err = storage->writeUInt32(vendor);
    if (err == MP4_OK) err = storage->writeUInt16(channelCount);
    if (err == MP4_OK) err = storage->writeUInt16(sampleSize);
    if (err == MP4_OK) err = storage->writeInt16(compressionId);
    if (err == MP4_OK) err = storage->writeUInt16(packetSize);
    if (err == MP4_OK) err = storage->writeUInt16(sampleRateInteger);
    if (err == MP4_OK) err = storage->writeUInt16(sampleRateFraction);
    if (err != MP4_OK) return err;
    if (version == 1) {
        const uint32_t fields[] = {samplesPerPacket, bytesPerPacket, bytesPerFrame,
                                   bytesPerSample};
        for (uint32_t field : fields) {
            err = storage->writeUInt32(field);
            if (err != MP4_OK) return err;
        }
    } else if (version != 0) {
        // Version-2 descriptions are read but deliberately never written.
        return MP4_ERR_INVALID_DATA;
    }
    return writeChildren(children.get(), storage);
}

MP4Err CSoundSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    dumpLine(depth, "Version = %u\n", static_cast<uint32_t>(version));
    dumpLine(depth, "Revision level = %u, Vendor = %u\n", static_cast<uint32_t>(revisionLevel),
             vendor);
    dumpVersionFields(depth);
    return dumpChildrenInBraces(children.get(), depth);
}

void CSoundSampleEntry::dumpVersionFields(int32_t depth) {
    if (version <= 1) {
        dumpLine(depth, "Channel count = %u\n", static_cast<uint32_t>(channelCount));
        dumpLine(depth, "Sample size = %u\n", static_cast<uint32_t>(sampleSize));
        dumpLine(depth, "Compression id = %d, Packet size = %u\n",
                 static_cast<int32_t>(compressionId), static_cast<uint32_t>(packetSize));
        dumpLine(depth, "Sample rate %u:%uHz\n", static_cast<uint32_t>(sampleRateInteger),
                 static_cast<uint32_t>(sampleRateFraction));
        if (version == 1) {
            dumpLine(depth, "Samples per packet = %u, Bytes per packet = %u\n", samplesPerPacket,
                     bytesPerPacket);
            dumpLine(depth, "Bytes per frame = %u, Bytes per sample = %u\n", bytesPerFrame,
                     bytesPerSample);
        }
    } else if (version == 2) {
        dumpLine(depth, "Size of struct (SoundSampleDesc v2) = %u\n", sizeOfStruct);
        dumpLine(depth, "Audio sample rate = %.3fHz\n", audioSampleRate);
        dumpLine(depth, "Channel count = %u\n", static_cast<uint32_t>(channelCount));
        dumpLine(depth, "Const. bits per sample = %u\n", constBitsPerChannel);
        dumpLine(depth, "Format specific flags = 0x%08x\n", formatSpecificFlags);
        dumpLine(depth, "Const. bytes per audio packet = %u\n", constBytesPerAudioPacket);
        dumpLine(depth, "Const. LPCM frames per audio packet = %u\n",
                 constLPCMFramesPerAudioPacket);
    }
}

MP4Err CSoundSampleEntry::calculateSize() {
    if (writesAsRead()) return CBox::calculateSize();
    // A version-2 entry made here is sized like version 0 although it
    // cannot be written.
    calculateStartSize();
    size += kSoundCommonSize;
    if (version == 1) size += kSoundVersion1Size;
    return addChildrenSizes(children.get(), &size);
}

uint32_t CSoundSampleEntry::perSampleByteCount() const {
    if (version == 1) return bytesPerSample;
    if (version == 2) return constBytesPerAudioPacket;
    return 0;
}

uint32_t CSoundSampleEntry::perChunkByteCount(uint32_t samplesInChunk) const {
    if (version != 1) return 0;
    if (samplesPerPacket == 0) return bytesPerFrame;
    // Whole packets: the last one of a chunk is padded to full size.
    const uint64_t packets = (static_cast<uint64_t>(samplesInChunk) + samplesPerPacket - 1) / samplesPerPacket;
    const uint64_t bytes = packets * bytesPerFrame;
    return bytes > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(bytes);
}

MP4Err CSoundSampleEntry::findInWave(uint32_t childType, CBox** box) {
    *box = nullptr;
    CBox* wave = nullptr;
    MP4Err err = findChild(fourcc("wave"), &wave);
    if (err != MP4_OK) return err;
    return wave->findChild(childType, box);
}

MP4Err CSoundSampleEntry::getEndianFormatBox(CEndianFormatBox** box) {
    *box = nullptr;
    CBox* found = nullptr;
    MP4Err err = findInWave(fourcc("enda"), &found);
    if (err != MP4_OK) return err;
    *box = dynamic_cast<CEndianFormatBox*>(found);
    return *box ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

// ---- ISO audio entry ------------------------------------------------------

MP4Err CAudioSampleEntry::read(CStorage* storage) {
    MP4Err err = readSampleEntryStart(storage);
    if (err != MP4_OK) return err;
    if (remaining < kAudioFieldsSize) return MP4_ERR_BAD_BOX_SIZE;
    uint8_t reserved[8];
    err = storage->readBytes(reserved, sizeof(reserved));
    if (err == MP4_OK) err = storage->readUInt16(&channelCount);
    if (err == MP4_OK) err = storage->readUInt16(&sampleSize);
    uint16_t preDefined = 0, reserved16 = 0;
    if (err == MP4_OK) err = storage->readUInt16(&preDefined);
    if (err == MP4_OK) err = storage->readUInt16(&reserved16);
    if (err == MP4_OK) err = storage->readUInt32(&sampleRate);
    if (err != MP4_OK) return err;
    remaining -= kAudioFieldsSize;
    if (remaining == 0) return MP4_OK;
    return readEntryChildren(storage);
}

MP4Err CAudioSampleEntry::write(CStorage* storage) {
    MP4Err err = writeSampleEntryStart(storage);
    const uint8_t reserved[8] = {};
    if (err == MP4_OK) err = storage->writeBlock(reserved, sizeof(reserved));
    if (err == MP4_OK) err = storage->writeUInt16(channelCount);
    if (err == MP4_OK) err = storage->writeUInt16(sampleSize);
    if (err == MP4_OK) err = storage->writeUInt16(0);  // pre-defined
    if (err == MP4_OK) err = storage->writeUInt16(0);  // reserved
    if (err == MP4_OK) err = storage->writeUInt32(sampleRate);
    if (err != MP4_OK) return err;
    return writeChildren(children.get(), storage);
}

MP4Err CAudioSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    dumpLine(depth, "Channel count = %u\n", static_cast<uint32_t>(channelCount));
    dumpLine(depth, "Sample size = %u\n", static_cast<uint32_t>(sampleSize));
    dumpLine(depth, "Sample rate %u:%uHz\n", sampleRate >> 16, sampleRate & 0xFFFF);
    return dumpChildrenInBraces(children.get(), depth);
}

MP4Err CAudioSampleEntry::calculateSize() {
    calculateStartSize();
    size += kAudioFieldsSize;
    return addChildrenSizes(children.get(), &size);
}

// ---- time-code entry ------------------------------------------------------

MP4Err CTimeCodeSampleEntry::read(CStorage* storage) {
    MP4Err err = readSampleEntryStart(storage);
    if (err != MP4_OK) return err;
    if (remaining < kTimeCodeFieldsSize) return MP4_ERR_BAD_BOX_SIZE;
    uint32_t reserved32 = 0;
    uint8_t reserved8 = 0;
    err = storage->readUInt32(&reserved32);
    if (err == MP4_OK) err = storage->readUInt32(&flags);
    if (err == MP4_OK) err = storage->readUInt32(&timeScale);
    if (err == MP4_OK) err = storage->readInt32(&frameDuration);
    if (err == MP4_OK) err = storage->readUInt8(&numberOfFrames);
    if (err == MP4_OK) err = storage->readUInt8(&reserved8);
    if (err != MP4_OK) return err;
    remaining -= kTimeCodeFieldsSize;
    if (remaining == 0) return MP4_OK;
    return readEntryChildren(storage);
}

MP4Err CTimeCodeSampleEntry::write(CStorage* storage) {
    MP4Err err = writeSampleEntryStart(storage);
    if (err == MP4_OK) err = storage->writeUInt32(0);  // reserved
    if (err == MP4_OK) err = storage->writeUInt32(flags);
    if (err == MP4_OK) err = storage->writeUInt32(timeScale);
    if (err == MP4_OK) err = storage->writeInt32(frameDuration);
    if (err == MP4_OK) err = storage->writeUInt8(numberOfFrames);
    if (err == MP4_OK) err = storage->writeUInt8(0);  // reserved
    if (err != MP4_OK) return err;
    return writeChildren(children.get(), storage);
}

MP4Err CTimeCodeSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    dumpLine(depth, "Flags = 0x%08x\n", flags);
    dumpLine(depth, "Time scale = %u, Frame duration = %d\n", timeScale, frameDuration);
    dumpLine(depth, "Number of frames = %u\n", static_cast<uint32_t>(numberOfFrames));
    return dumpChildrenInBraces(children.get(), depth);
}

MP4Err CTimeCodeSampleEntry::calculateSize() {
    calculateStartSize();
    size += kTimeCodeFieldsSize;
    return addChildrenSizes(children.get(), &size);
}

// ---- MPEG-4 systems entry -------------------------------------------------

MP4Err CMP4MpegSampleEntry::read(CStorage* storage) {
    MP4Err err = readSampleEntryStart(storage);
    if (err != MP4_OK) return err;
    if (remaining == 0) return MP4_OK;
    return readEntryChildren(storage);
}

MP4Err CMP4MpegSampleEntry::write(CStorage* storage) {
    MP4Err err = writeSampleEntryStart(storage);
    if (err != MP4_OK) return err;
    return writeChildren(children.get(), storage);
}

MP4Err CMP4MpegSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    return dumpChildrenInBraces(children.get(), depth);
}

MP4Err CMP4MpegSampleEntry::calculateSize() {
    calculateStartSize();
    return addChildrenSizes(children.get(), &size);
}

}  // namespace quil
