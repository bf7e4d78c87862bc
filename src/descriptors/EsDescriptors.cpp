#include "EsDescriptors.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "descriptors/DescriptorFields.h"
#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint32_t kBytesPerDumpLine = 16;

}  // namespace

// ---- CDecoderSpecificInfo ---------------------------------------------------

template <class IO>
MP4Err CDecoderSpecificInfo::fields(IO& io) {
    // The whole payload.
    if constexpr (IO::kReads) {
        const uint32_t length = io.left();
        if (io.owned(data, length).ok()) dataLength = length;
        return io.error();
    } else {
        return io.owned(data, dataLength).error();
    }
}

MP4Err CDecoderSpecificInfo::read(CStorage* storage) {
    return readDescriptorLayout(this, storage, nullptr, nesting_);
}

MP4Err CDecoderSpecificInfo::write(CStorage* storage) {
    if (dataLength > 0 && !data) return MP4_ERR_INVALID_DATA;
    return writeDescriptorLayout(this, storage, nullptr);
}

MP4Err CDecoderSpecificInfo::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "{\n");
    for (uint32_t i = 0; data && i < dataLength; ++i) {
        if (i % kBytesPerDumpLine == 0) {
            printf("\n");
            printIndent(depth + 1);
        }
        printf("%02x ", data[i]);
    }
    printf("\n");
    dumpLine(depth, "}\n");
    return MP4_OK;
}

MP4Err CDecoderSpecificInfo::calcSize() { return sizeDescriptorLayout(this, nullptr); }

MP4Err CDecoderSpecificInfo::setData(const uint8_t* bytes, uint32_t length) {
    std::unique_ptr<uint8_t[]> buffer;
    if (length > 0) {
        buffer.reset(new (std::nothrow) uint8_t[length]);
        if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
        if (bytes) {
            std::memcpy(buffer.get(), bytes, length);
        } else {
            std::memset(buffer.get(), 0, length);
        }
    }
    data = std::move(buffer);
    dataLength = length;
    return MP4_OK;
}

// ---- CDecoderConfigDescriptor -----------------------------------------------

template <class IO>
MP4Err CDecoderConfigDescriptor::fields(IO& io) {
    // The reserved bit after upStream is written as 1.
    uint8_t packed = static_cast<uint8_t>(((streamType & 0x3F) << 2) | ((upStream ? 1u : 0u) << 1) | 1u);
    io.u8(objectTypeIndication).u8(packed).u24(bufferSizeDB).u32(maxBitrate).u32(avgBitrate);
    if (IO::kReads && io.ok()) {
        streamType = packed >> 2;
        upStream = (packed >> 1) & 1;
    }
    return io.error();
}

template class CFieldDescriptor<CDecoderConfigDescriptor, true>;

MP4Err CDecoderConfigDescriptor::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Object indication: 0x%02x  Stream type: 0x%02x\n",
             static_cast<uint32_t>(objectTypeIndication), static_cast<uint32_t>(streamType));
    dumpLine(depth, "UpStream flag: %s\n", upStream ? "TRUE" : "FALSE");
    dumpLine(depth, "Buffer size DB: %d\n", static_cast<int32_t>(bufferSizeDB));
    dumpLine(depth, "Max. bitrate: %d Avg. bitrate: %d\n", static_cast<int32_t>(maxBitrate),
             static_cast<int32_t>(avgBitrate));
    if (children && children->count() > 0) return dumpDescriptorChildrenInBraces(children.get(), depth);
    return MP4_OK;
}

MP4Err CDecoderConfigDescriptor::findDecoderSpecificInfo(CDecoderSpecificInfo** info) const {
    *info = nullptr;
    if (!children) return MP4_ERR_NOT_AVAILABLE;
    CBaseDescriptor* found = nullptr;
    if (children->findFirst(kDecSpecificInfoTag, &found) != MP4_OK) return MP4_ERR_NOT_AVAILABLE;
    *info = dynamic_cast<CDecoderSpecificInfo*>(found);
    return *info ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CDecoderConfigDescriptor::setDecoderSpecificInfo(const uint8_t* bytes, uint32_t length) {
    if (length == 0) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = ensureDescriptorList(&children);
    if (err != MP4_OK) return err;
    CDecoderSpecificInfo* info = nullptr;
    if (findDecoderSpecificInfo(&info) != MP4_OK) {
        std::unique_ptr<CDecoderSpecificInfo> fresh(new (std::nothrow) CDecoderSpecificInfo());
        if (!fresh) return MP4_ERR_OUT_OF_MEMORY;
        err = children->append(fresh.get());
        if (err != MP4_OK) return err;
        info = fresh.release();
    }
    return info->setData(bytes, length);
}

// ---- CSLConfigDescriptor ----------------------------------------------------

void CSLConfigDescriptor::applyPredefined() {
    if (predefined != 1 && predefined != 2) return;
    useAccessUnitStartFlag = 0;
    useAccessUnitEndFlag = 0;
    useRandomAccessPointFlag = 0;
    hasRandomAccessUnitsOnlyFlag = 0;
    usePaddingFlag = 0;
    useTimeStampsFlag = 0;
    degradationPriorityLength = 0;
    AU_seqNumLength = 0;
    packetSeqNumLength = 0;
    useIdleFlag = 0;
    AU_Length = 0;
    if (predefined == 2) {
        durationFlag = 0;
        timeStampLength = 0;
        OCRLength = 0;
        instantBitrateLength = 0;
    }
}

// The fields of predefined value 0, which are only read.
template <class IO>
void CSLConfigDescriptor::customFields(IO& io) {
    uint8_t flags = 0;
    uint16_t packed = 0;
    if (!io.require(15, MP4_ERR_VALUE_TOO_LARGE)
             .u8(flags)
             .u32(timeStampResolution)
             .u32(OCRResolution)
             .u8(timeStampLength)
             .u8(OCRLength)
             .u8(AU_Length)
             .u8(instantBitrateLength)
             .u16(packed)
             .ok()) {
        return;
    }
    useAccessUnitStartFlag = flags & 0x80;
    useAccessUnitEndFlag = flags & 0x40;
    useRandomAccessPointFlag = flags & 0x20;
    hasRandomAccessUnitsOnlyFlag = flags & 0x10;
    usePaddingFlag = flags & 0x08;
    useTimeStampsFlag = flags & 0x04;
    useIdleFlag = flags & 0x02;
    durationFlag = flags & 0x01;
    degradationPriorityLength = static_cast<uint8_t>(packed >> 12);
    AU_seqNumLength = static_cast<uint8_t>((packed >> 7) & 0x1F);
    // Deliberate: the 0x1E mask and raising the extension bits to 3 are
    // kept for compatibility with existing output.
    packetSeqNumLength = static_cast<uint8_t>(((packed & 0xFF) >> 2) & 0x1E);
    extension = static_cast<uint8_t>(packed & 0x03);
    if (extension < 3) extension = 3;
}

// The start time stamps take 2 * timeStampLength bits, rounded up to whole
// bytes. They are not supported: reading refuses them even when present,
// writing refuses them in checkWritable.
template <class IO>
MP4Err CSLConfigDescriptor::startTimeStamps(IO& io) {
    if (useTimeStampsFlag || timeStampLength == 0) return MP4_OK;
    const uint32_t bytes = (2u * timeStampLength + 7) / 8;
    if constexpr (IO::kCounts) return io.repeated(bytes, 1).error();
    if (timeStampLength > 64) return MP4_ERR_UNSUPPORTED;
    return io.require(bytes, MP4_ERR_VALUE_TOO_LARGE).ok() ? MP4_ERR_INVALID_DATA : io.error();
}

template <class IO>
MP4Err CSLConfigDescriptor::fields(IO& io) {
    if (!io.require(1, MP4_ERR_VALUE_TOO_LARGE).u8(predefined).ok()) return io.error();
    if constexpr (IO::kReads) {
        if (predefined == 1 || predefined == 2) {
            applyPredefined();
        } else if (predefined != 0) {
            return MP4_ERR_INVALID_DATA;
        }
    }
    if constexpr (IO::kReads) {
        if (predefined == 0) customFields(io);
    }
    if (durationFlag && io.ok()) {
        // Deliberate: reading puts both durations in accessUnitDuration.
        uint16_t& second = IO::kReads ? accessUnitDuration : compositionUnitDuration;
        io.require(8, MP4_ERR_VALUE_TOO_LARGE).u32(timeScale).u16(accessUnitDuration).u16(second);
    }
    return io.ok() ? startTimeStamps(io) : io.error();
}

MP4Err CSLConfigDescriptor::read(CStorage* storage) {
    MP4Err err = readDescriptorLayout(this, storage, nullptr, nesting_);
    if (err != MP4_OK || remaining == 0) return err;
    err = skipPayload(storage, remaining);
    if (err == MP4_OK) remaining = 0;
    return err;
}

MP4Err CSLConfigDescriptor::checkWritable() const {
    if (predefined == 0) return MP4_ERR_UNSUPPORTED;
    if (durationFlag || (!useTimeStampsFlag && timeStampLength != 0)) return MP4_ERR_INVALID_DATA;
    return MP4_OK;
}

MP4Err CSLConfigDescriptor::write(CStorage* storage) {
    MP4Err err = CBaseDescriptor::write(storage);
    if (err == MP4_OK) err = checkWritable();
    return err != MP4_OK ? err : writeFields(this, storage);
}

MP4Err CSLConfigDescriptor::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Predefined SL header: %d\n", static_cast<int32_t>(predefined));
    if (durationFlag) {
        dumpLine(depth, "Time Scale: %d\n", static_cast<int32_t>(timeScale));
        dumpLine(depth, "Access unit duration: %d\n", static_cast<int32_t>(accessUnitDuration));
        dumpLine(depth, "Composition unit duration: %d\n",
                 static_cast<int32_t>(compositionUnitDuration));
    }
    if (!useTimeStampsFlag && timeStampLength > 0) {
        dumpLine(depth, "Start decoding timec stamp: %" PRIu64 "\n", startDecodingTimeStamp);
        dumpLine(depth, "Start composition timec stamp: %" PRIu64 "\n", startCompositionTimeStamp);
    }
    return MP4_OK;
}

MP4Err CSLConfigDescriptor::calcSize() { return sizeDescriptorLayout(this, nullptr); }

// ---- CESIDInc / CESIDRef ----------------------------------------------------

template <class IO>
MP4Err CESIDInc::fields(IO& io) {
    return io.u32(Track_ID).error();
}

template class CFieldDescriptor<CESIDInc>;

MP4Err CESIDInc::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "TrackID: %d\n", static_cast<int32_t>(Track_ID));
    return MP4_OK;
}


template <class IO>
MP4Err CESIDRef::fields(IO& io) {
    return io.u16(ref_index).error();
}

template class CFieldDescriptor<CESIDRef>;

MP4Err CESIDRef::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Track ref: %d\n", static_cast<int32_t>(ref_index));
    return MP4_OK;
}


// ---- CESDescriptor ----------------------------------------------------------

void CESDescriptor::findMandatoryChildren() {
    decoderConfig = nullptr;
    slConfig = nullptr;
    if (!children) return;
    for (CDescriptorList::Node* node = children->head(); node; node = node->next) {
        CBaseDescriptor* child = node->descriptor;
        if (!decoderConfig && child->tag == kDecoderConfigDescrTag) {
            decoderConfig = dynamic_cast<CDecoderConfigDescriptor*>(child);
        } else if (!slConfig && child->tag == kSLConfigDescrTag) {
            slConfig = dynamic_cast<CSLConfigDescriptor*>(child);
        }
    }
}

template <class IO>
MP4Err CESDescriptor::fields(IO& io) {
    // The OCR flag is not written on its own: it is set only when the
    // priority carries that bit.
    uint8_t flags = static_cast<uint8_t>(((streamDependenceFlag ? 1u : 0u) << 7) |
                                         ((URL_Flag ? 1u : 0u) << 6) | streamPriority);
    if (!io.u16(ES_ID).u8(flags).ok()) return io.error();
    if constexpr (IO::kReads) {
        streamDependenceFlag = (flags >> 7) & 1;
        URL_Flag = (flags >> 6) & 1;
        OCRstreamFlag = (flags >> 5) & 1;
        // Deliberate: the priority keeps only bits 0 and 2 (mask 0x05), and
        // no OCR_ES_Id is read even when OCRstreamFlag is set.
        streamPriority = flags & 0x05;
    }
    if (streamDependenceFlag) io.u16(dependsOn_ES_ID);
    if (!URL_Flag || !io.ok()) return io.error();
    return urlField(io, URLlength, URLstring, MP4_ERR_BAD_BOX_SIZE);
}

MP4Err CESDescriptor::read(CStorage* storage) {
    decoderConfig = nullptr;
    slConfig = nullptr;
    MP4Err err = readDescriptorLayout(this, storage, &children, nesting_);
    if (err != MP4_OK) return err;
    findMandatoryChildren();
    return decoderConfig && slConfig ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CESDescriptor::write(CStorage* storage) {
    if (URL_Flag && URLlength > 0 && !URLstring) return MP4_ERR_INVALID_DATA;
    MP4Err err = CBaseDescriptor::write(storage);
    if (err == MP4_OK) err = writeFields(this, storage);
    if (err != MP4_OK) return err;
    if (!children) return MP4_ERR_INVALID_DATA;
    if (!decoderConfig || !slConfig) return MP4_ERR_BAD_SIZE_FIELD;
    return writeDescriptorList(children.get(), storage);
}

MP4Err CESDescriptor::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "ES_ID: %d\n", static_cast<int32_t>(ES_ID));
    dumpLine(depth, "Stream dependence flag: %d URL flag %d OCR stream flag %d\n",
             static_cast<int32_t>(streamDependenceFlag), static_cast<int32_t>(URL_Flag),
             static_cast<int32_t>(OCRstreamFlag));
    dumpLine(depth, "Stream priority: %d\n", static_cast<int32_t>(streamPriority));
    if (streamDependenceFlag) {
        dumpLine(depth, "Depends on ES-Id: %d\n", static_cast<int32_t>(dependsOn_ES_ID));
    }
    if (URL_Flag) dumpDescriptorURL(depth, URLlength, URLstring.get());
    if (!children) return MP4_ERR_INVALID_DATA;
    return dumpDescriptorChildrenInBraces(children.get(), depth);
}

MP4Err CESDescriptor::calcSize() {
    if (!children || !decoderConfig || !slConfig) return MP4_ERR_BAD_SIZE_FIELD;
    return sizeDescriptorLayout(this, children.get());
}

MP4Err CESDescriptor::ensureChildren() { return ensureDescriptorList(&children); }

MP4Err CESDescriptor::addDescriptor(CBaseDescriptor* child) {
    if (!child) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = ensureChildren();
    if (err != MP4_OK) return err;
    err = children->append(child);
    if (err != MP4_OK) return err;
    findMandatoryChildren();
    return MP4_OK;
}

MP4Err CESDescriptor::setDecoderConfig(uint8_t objectType, uint8_t stream, const uint8_t* bytes,
                                       uint32_t length) {
    if (decoderConfig) return MP4_ERR_INVALID_DATA;
    MP4Err err = ensureChildren();
    if (err != MP4_OK) return err;
    std::unique_ptr<CDecoderConfigDescriptor> config(new (std::nothrow) CDecoderConfigDescriptor());
    if (!config) return MP4_ERR_OUT_OF_MEMORY;
    config->objectTypeIndication = objectType;
    config->streamType = stream;
    if (length > 0) {
        err = config->setDecoderSpecificInfo(bytes, length);
        if (err != MP4_OK) return err;
    }
    err = children->append(config.get());
    if (err != MP4_OK) return err;
    config.release();
    findMandatoryChildren();
    return MP4_OK;
}

MP4Err CESDescriptor::setSLConfig(uint8_t predefinedValue) {
    MP4Err err = ensureChildren();
    if (err != MP4_OK) return err;
    if (!slConfig) {
        std::unique_ptr<CSLConfigDescriptor> config(new (std::nothrow) CSLConfigDescriptor());
        if (!config) return MP4_ERR_OUT_OF_MEMORY;
        err = children->append(config.get());
        if (err != MP4_OK) return err;
        config.release();
        findMandatoryChildren();
    }
    slConfig->predefined = predefinedValue;
    if (predefinedValue > 2) return MP4_ERR_INVALID_DATA;
    slConfig->applyPredefined();
    return MP4_OK;
}

MP4Err CESDescriptor::setURL(const uint8_t* bytes, uint32_t length) {
    MP4Err err = copyDescriptorURL(bytes, length, &URLstring);
    if (err != MP4_OK) return err;
    URLlength = static_cast<uint8_t>(length);
    URL_Flag = 1;
    return MP4_OK;
}

MP4Err CESDescriptor::getDecoderSpecificInfo(uint8_t* buffer, uint32_t capacity,
                                             uint32_t* length) const {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    CDecoderSpecificInfo* info = nullptr;
    if (!decoderConfig || decoderConfig->findDecoderSpecificInfo(&info) != MP4_OK) {
        return MP4_ERR_NOT_AVAILABLE;
    }
    *length = info->dataLength;
    if (buffer && info->data && info->dataLength > 0 && info->dataLength <= capacity) {
        std::memcpy(buffer, info->data.get(), info->dataLength);
    }
    return MP4_OK;
}

MP4Err CESDescriptor::getDecoderSpecificInfoLength(uint32_t* length) const {
    return getDecoderSpecificInfo(nullptr, 0, length);
}

}  // namespace quil
