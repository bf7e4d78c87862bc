#include "SampleEntries.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "boxes/FieldBox.h"
#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint64_t kSoundVersion1Size = 16;
constexpr uint64_t kSoundVersion2MinimumLeft = 20;  // deliberately weaker than the 48 read
constexpr uint32_t kSoundVersion2StructSize = 72;   // 8 + 8 + 8 + 48, no extensions
constexpr uint64_t kAudioFieldsSize = 20;
constexpr uint64_t kTimeCodeFieldsSize = 18;

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

}  // namespace

// ---- "stsd" ---------------------------------------------------------------

template <class IO>
MP4Err CSampleDescriptionBox::fields(IO& io) {
    return io.versionAndFlags(version, flags).named("entryCount").u32(entryCount).error();
}
template class CFieldBox<CSampleDescriptionBox, CFullBox>;
MP4Err CSampleDescriptionBox::listFields(FieldLister& io) { return fields(io); }

MP4Err CSampleDescriptionBox::calculateSize() {
    MP4Err err = CFieldBox::calculateSize();
    // Without a child list the size counts no entries.
    return children ? err : MP4_ERR_INVALID_DATA;
}

MP4Err CSampleDescriptionBox::read(CStorage* storage) {
    MP4Err err = readFields(this, storage, &remaining);
    if (err != MP4_OK) return err;
    if (MP4Err err = startChildList(&children, this)) return err;

    uint64_t position = 0;
    err = storage->getPosition(&position);
    if (err != MP4_OK) return err;
    uint64_t end = position + remaining;

    MP4Err result = readChildren(children.get(), storage, &remaining);
    // Damaged entries may leave the storage anywhere: always continue
    // after the box. The seek's own result is deliberately not looked at.
    storage->seek(end);
    remaining = 0;
    return result;
}

MP4Err CSampleDescriptionBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Entry count = %u\n", entryCount);
    return dumpChildrenInBraces(children.get(), depth);
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

template <class IO>
MP4Err CSampleEntry::childrenAfterFields(IO& io) {
    if constexpr (IO::kReads) {
        if (!io.ok() || remaining == 0) return io.error();
        return readEntryChildren(io.storage());
    } else {
        return io.error();
    }
}

void CSampleEntry::dumpDataReferenceIndex(int32_t depth) {
    dumpLine(depth, "m_ui16DataReferenceIndex: %d\n", static_cast<int32_t>(dataReferenceIndex));
}

MP4Err CSampleEntry::readEntryChildren(CStorage* storage) {
    if (MP4Err err = startChildList(&children, this)) return err;
    return readChildren(children.get(), storage, &remaining);
}

// ---- visual entries -------------------------------------------------------

CVisualSampleEntry::CVisualSampleEntry(uint32_t format) : CFieldBox(format) {}

template <class IO>
MP4Err CVisualSampleEntry::fields(IO& io) {
    startFields(io)
        .u16(preDefined1)
        .i16(reserved1)
        .array(preDefined2)
        .i16(width)
        .i16(height)
        .i32(horizResolution)
        .i32(vertResolution)
        .i32(reserved2)
        .i16(frameCount)
        .bytes(compressorName, sizeof(compressorName))
        .i16(depth)
        .i16(preDefined3);
    return childrenAfterFields(io);
}
template class CFieldBox<CVisualSampleEntry, CSampleEntry>;

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
    err = CFieldBox::read(storage);
    // The version-2 fields are read for the library's own use; a tree
    // written again (faststart, remux) writes the description as it was,
    // as it does one of a later version, which this class cannot write.
    if (version >= 2 && storage->seek(start) == MP4_OK) {
        remaining = payload;
        if (keepPayload(storage) == MP4_OK) writeAsRead();
    }
    return err;
}

MP4Err CSoundSampleEntry::write(CStorage* storage) {
    if (writesAsRead()) return CBox::write(storage);  // a version-2 description read
    return CFieldBox::write(storage);
}

MP4Err CSoundSampleEntry::calculateSize() {
    if (writesAsRead()) return CBox::calculateSize();
    return CFieldBox::calculateSize();
}

template <class IO>
MP4Err CSoundSampleEntry::fields(IO& io) {
    if (!startFields(io).u16(version).u16(revisionLevel).u32(vendor).ok()) return io.error();
    if constexpr (IO::kReads) {
        if (version == 2 && io.left() >= kSoundVersion2MinimumLeft) {
            MP4Err err = readVersion2Fields(io);
            return err != MP4_OK ? err : childrenAfterFields(io);
        }
        // Unknown versions and truncated version-2 descriptions: the
        // factory skips the rest.
        if (version > 1) return MP4_OK;
    }
    io.u16(channelCount)
        .u16(sampleSize)
        .i16(compressionId)
        .u16(packetSize)
        .u16(sampleRateInteger)
        .u16(sampleRateFraction);
    bool version1Fields = version == 1;
    if constexpr (IO::kReads) version1Fields = version1Fields && io.left() >= kSoundVersion1Size;
    if (version1Fields) {
        io.u32(samplesPerPacket).u32(bytesPerPacket).u32(bytesPerFrame).u32(bytesPerSample);
    } else if (!IO::kReads && version != 0) {
        // Version-2 descriptions are read but deliberately never written.
        io.fail(MP4_ERR_INVALID_DATA);
    }
    return childrenAfterFields(io);
}
template class CFieldBox<CSoundSampleEntry, CSampleEntry>;

MP4Err CSoundSampleEntry::readVersion2Fields(FieldReader<uint64_t>& io) {
    // The fixed placeholders of the version-2 layout (always 3, 16, -2, 0
    // and 65536) and the marker 0x7F000000 are not kept.
    int16_t placeholders[4] = {};
    uint32_t placeholder = 0, channels = 0;
    uint64_t rateBits = 0;
    int32_t alwaysMarker = 0;
    io.array(placeholders)
        .u32(placeholder)
        .u32(sizeOfStruct)
        .u64(rateBits)
        .u32(channels)
        .i32(alwaysMarker)
        .u32(constBitsPerChannel)
        .u32(formatSpecificFlags)
        .u32(constBytesPerAudioPacket)
        .u32(constLPCMFramesPerAudioPacket);
    if (!io.ok()) return io.error();

    audioSampleRate = doubleFromBits(rateBits);
    // Only the low 16 bits of each conversion survive (44100.0 gives a
    // fraction field of 0).
    sampleRateInteger = static_cast<uint16_t>(truncateToInt32Bits(audioSampleRate));
    sampleRateFraction = static_cast<uint16_t>(truncateToInt32Bits(audioSampleRate * 65536.0));
    channelCount = static_cast<uint16_t>(channels);
    if (sizeOfStruct > kSoundVersion2StructSize) {
        // Extensions of the description up to its declared length.
        uint64_t extension = sizeOfStruct - kSoundVersion2StructSize;
        if (extension > io.left()) extension = io.left();
        io.skip(extension);
    }
    return io.error();
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

template <class IO>
MP4Err CAudioSampleEntry::fields(IO& io) {
    if (!startFields(io).ok()) return io.error();
    if (IO::kReads && remaining < kAudioFieldsSize) return MP4_ERR_BAD_BOX_SIZE;
    // Reserved and pre-defined fields: read and dropped, written as zero.
    uint8_t reserved[8] = {};
    uint16_t preDefined = 0, reserved16 = 0;
    io.bytes(reserved, sizeof(reserved))
        .u16(channelCount)
        .u16(sampleSize)
        .u16(preDefined)
        .u16(reserved16)
        .u32(sampleRate);
    return childrenAfterFields(io);
}
template class CFieldBox<CAudioSampleEntry, CSampleEntry>;

MP4Err CAudioSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    dumpLine(depth, "Channel count = %u\n", static_cast<uint32_t>(channelCount));
    dumpLine(depth, "Sample size = %u\n", static_cast<uint32_t>(sampleSize));
    dumpLine(depth, "Sample rate %u:%uHz\n", sampleRate >> 16, sampleRate & 0xFFFF);
    return dumpChildrenInBraces(children.get(), depth);
}

// ---- time-code entry ------------------------------------------------------

template <class IO>
MP4Err CTimeCodeSampleEntry::fields(IO& io) {
    if (!startFields(io).ok()) return io.error();
    if (IO::kReads && remaining < kTimeCodeFieldsSize) return MP4_ERR_BAD_BOX_SIZE;
    uint32_t reserved32 = 0;  // read and dropped, written as zero
    uint8_t reserved8 = 0;
    io.u32(reserved32)
        .u32(flags)
        .u32(timeScale)
        .i32(frameDuration)
        .u8(numberOfFrames)
        .u8(reserved8);
    return childrenAfterFields(io);
}
template class CFieldBox<CTimeCodeSampleEntry, CSampleEntry>;

MP4Err CTimeCodeSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    dumpLine(depth, "Flags = 0x%08x\n", flags);
    dumpLine(depth, "Time scale = %u, Frame duration = %d\n", timeScale, frameDuration);
    dumpLine(depth, "Number of frames = %u\n", static_cast<uint32_t>(numberOfFrames));
    return dumpChildrenInBraces(children.get(), depth);
}

// ---- MPEG-4 systems entry -------------------------------------------------

template <class IO>
MP4Err CMP4MpegSampleEntry::fields(IO& io) {
    startFields(io);
    return childrenAfterFields(io);
}
template class CFieldBox<CMP4MpegSampleEntry, CSampleEntry>;

MP4Err CMP4MpegSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    return dumpChildrenInBraces(children.get(), depth);
}

}  // namespace quil
