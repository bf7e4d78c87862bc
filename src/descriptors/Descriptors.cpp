#include "Descriptors.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "io/FieldIO.h"
#include "storage/BoundedStorage.h"
#include "ObjectDescriptors.h"
#include "io/Dump.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

// The expandable size field holds at most four 7-bit groups on writing.
constexpr uint32_t kMaxWritableSize = 1u << 28;
// Five size bytes are accepted on reading: a tag byte plus five.
constexpr uint32_t kMaxHeaderLength = 6;
constexpr uint32_t kURLCharsPerLine = 60;
constexpr uint32_t kBytesPerDumpLine = 16;

uint32_t sizeFieldLength(uint32_t size) {
    if (size < (1u << 7)) return 1;
    if (size < (1u << 14)) return 2;
    if (size < (1u << 21)) return 3;
    return 4;
}

// A new object of the class the factory makes for a tag, or null for tags
// kept as bare headers. *known tells the two nulls apart.
CBaseDescriptor* createForTag(uint32_t tag, bool* known) {
    *known = true;
    switch (tag) {
        case kObjectDescrTag:
        case kMP4ODTag:
            return new (std::nothrow) CObjectDescriptor(tag);
        case kInitialObjectDescrTag:
        case kMP4IODTag:
            return new (std::nothrow) CInitialObjectDescriptor(tag);
        case kESDescrTag: return new (std::nothrow) CESDescriptor();
        case kDecoderConfigDescrTag: return new (std::nothrow) CDecoderConfigDescriptor();
        case kDecSpecificInfoTag: return new (std::nothrow) CDecoderSpecificInfo();
        case kSLConfigDescrTag: return new (std::nothrow) CSLConfigDescriptor();
        case kESIDIncTag: return new (std::nothrow) CESIDInc();
        case kESIDRefTag: return new (std::nothrow) CESIDRef();
        default:
            *known = false;
            return nullptr;
    }
}

// Lowers a container's count by a child's bytes, stopping at zero.
void lowerRemaining(uint32_t* remaining, uint64_t consumed) {
    *remaining = consumed >= *remaining ? 0 : *remaining - static_cast<uint32_t>(consumed);
}

}  // namespace

// ---- shared helpers -------------------------------------------------------

MP4Err readDescriptorURL(CStorage* storage, uint8_t length, std::unique_ptr<uint8_t[]>* url) {
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[length + 1u]);
    if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
    buffer[length] = 0;
    if (length > 0) {
        MP4Err err = storage->readBytes(buffer.get(), length);
        if (err != MP4_OK) return err;
    }
    *url = std::move(buffer);
    return MP4_OK;
}

MP4Err copyDescriptorURL(const uint8_t* bytes, uint32_t length, std::unique_ptr<uint8_t[]>* url) {
    if (!bytes || length > 255) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[length + 1]);
    if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
    if (length > 0) std::memcpy(buffer.get(), bytes, length);
    buffer[length] = 0;
    *url = std::move(buffer);
    return MP4_OK;
}

void dumpDescriptorURL(int32_t depth, uint8_t length, const uint8_t* url) {
    dumpLine(depth, "URL length %d URL string:", static_cast<int32_t>(length));
    for (uint32_t i = 0; url && i < length; ++i) {
        if (i > 0 && i % kURLCharsPerLine == 0) {
            printf("\n");
            printIndent(depth);
        }
        printf("%c", static_cast<char>(url[i]));
    }
    printf("\n");
}

MP4Err ensureDescriptorList(std::unique_ptr<CDescriptorList>* list) {
    if (*list) return MP4_OK;
    list->reset(new (std::nothrow) CDescriptorList());
    return *list ? MP4_OK : MP4_ERR_OUT_OF_MEMORY;
}

MP4Err dumpDescriptorChildrenInBraces(CDescriptorList* list, int32_t depth) {
    dumpLine(depth, "{\n");
    MP4Err err = dumpDescriptorList(list, depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "}\n");
    return MP4_OK;
}

const char* descriptorName(uint32_t tag) {
    switch (tag) {
        case kObjectDescrTag: return "Object descriptor";
        case kInitialObjectDescrTag: return "Initial object descriptor";
        case kESDescrTag: return "ES descriptor";
        case kDecoderConfigDescrTag: return "Decoder config descriptor";
        case kDecSpecificInfoTag: return "Decoder specific info";
        case kSLConfigDescrTag: return "SL config descriptor";
        case kESIDIncTag: return "ES ID inc";
        case kESIDRefTag: return "ES ID ref";
        case kMP4IODTag: return "MP4 IOD";
        case kMP4ODTag: return "MP4 OD";
        case kIPLDescrPointerRefTag: return "IPL descriptor pointer ref";
        default: return "Unknown";
    }
}

// ---- CBaseDescriptor ------------------------------------------------------

MP4Err CBaseDescriptor::read(CStorage* storage) {
    uint8_t byte = 0;
    MP4Err err = storage->readUInt8(&byte);
    if (err != MP4_OK) return err;
    tag = byte;
    headerLength = 1;
    size = 0;
    for (;;) {
        err = storage->readUInt8(&byte);
        if (err != MP4_OK) return err;
        ++headerLength;
        size = (size << 7) | (byte & 0x7F);
        if (!(byte & 0x80)) break;
        if (headerLength >= kMaxHeaderLength) return MP4_ERR_BAD_SIZE_FIELD;
    }
    if (size != 0) {
        remaining = size;
    } else if (remaining > headerLength) {
        // Deliberate: a zero size means the descriptor runs to the end of its
        // container. It is then taken as unknown (tag 0) and skipped whole.
        tag = 0;
        size = remaining - headerLength;
        remaining = size;
    } else {
        remaining = 0;
    }
    return MP4_OK;
}

MP4Err CBaseDescriptor::write(CStorage* storage) {
    MP4Err err = storage->writeUInt8(static_cast<uint8_t>(tag));
    if (err != MP4_OK) return err;
    if (size >= kMaxWritableSize) return MP4_ERR_VALUE_TOO_LARGE;
    // The shortest expandable form: 7-bit groups, most significant first,
    // every group but the last with bit 7 set. Written in one block so that
    // a buffer without room for all of them is refused before any moves.
    uint8_t field[4];
    uint32_t count = sizeFieldLength(size);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t shift = 7 * (count - 1 - i);
        field[i] = static_cast<uint8_t>(((size >> shift) & 0x7F) | (i + 1 < count ? 0x80 : 0));
    }
    return storage->writeBlock(field, static_cast<int32_t>(count));
}

MP4Err CBaseDescriptor::writeToBuffer(uint8_t** cursor, uint32_t* bytesLeft) {
    if (!cursor || !*cursor || !bytesLeft) return MP4_ERR_INVALID_ARGUMENT;
    // The same bytes as write(), through a memory storage over the caller's
    // buffer: it checks the room for every field before anything is copied,
    // so running out gives its code 18, reported here as 7.
    CMemoryStorage memory;
    memory.attach(*cursor, *bytesLeft, true);
    MP4Err err = write(&memory);
    uint32_t used = memory.position();
    memory.detach();
    *cursor += used;
    *bytesLeft -= used;
    return err == MP4_ERR_OUT_OF_RANGE ? MP4_ERR_BUFFER_TOO_SMALL : err;
}

MP4Err CBaseDescriptor::getSize(uint32_t* payloadSize, uint32_t* headerBytes) {
    if (payloadSize) *payloadSize = size;
    if (headerBytes) *headerBytes = headerLength ? headerLength : 1 + sizeFieldLength(size);
    return MP4_OK;
}

MP4Err CBaseDescriptor::getTag(uint32_t* out) {
    if (out) *out = tag;
    return MP4_OK;
}

MP4Err CBaseDescriptor::getRemaining(uint32_t* out) {
    if (out) *out = remaining;
    return MP4_OK;
}

MP4Err CBaseDescriptor::dump(int32_t depth) {
    dumpLine(depth, "--- Start descriptor\n");
    dumpLine(depth, "%s\n", descriptorName(tag));
    dumpLine(depth, "Tag: 0x%02x  Size: %d\n", tag, static_cast<int32_t>(size));
    return MP4_OK;
}

MP4Err CBaseDescriptor::calcSize() {
    size = 0;
    headerLength = 0;
    return MP4_OK;
}

void CBaseDescriptor::copyHeaderFrom(const CBaseDescriptor& header, uint32_t nesting) {
    tag = header.tag;
    size = header.size;
    headerLength = header.headerLength;
    remaining = header.remaining;
    nesting_ = nesting;
}

MP4Err descriptorTotalSize(CBaseDescriptor* descriptor, uint64_t* total) {
    uint32_t payload = 0, header = 0;
    MP4Err err = descriptor->getSize(&payload, &header);
    *total = static_cast<uint64_t>(payload) + header;
    return err;
}

// ---- child lists ----------------------------------------------------------

CDescriptorList::~CDescriptorList() {
    Node* node = head_;
    while (node) {
        Node* next = node->next;
        delete node->descriptor;
        delete node;
        node = next;
    }
}

MP4Err CDescriptorList::append(CBaseDescriptor* descriptor) {
    if (!descriptor) return MP4_ERR_INVALID_ARGUMENT;
    Node* node = new (std::nothrow) Node{descriptor, nullptr};
    if (!node) return MP4_ERR_OUT_OF_MEMORY;
    if (tail_) {
        tail_->next = node;
    } else {
        head_ = node;
        cursor_ = node;
    }
    tail_ = node;
    ++count_;
    return MP4_OK;
}

MP4Err CDescriptorList::next(CBaseDescriptor** descriptor) {
    if (descriptor) *descriptor = nullptr;
    if (!cursor_) return MP4_ERR_NOT_AVAILABLE;
    if (descriptor) *descriptor = cursor_->descriptor;
    cursor_ = cursor_->next;
    return MP4_OK;
}

MP4Err CDescriptorList::findFirst(uint32_t childTag, CBaseDescriptor** descriptor) const {
    if (descriptor) *descriptor = nullptr;
    for (Node* node = head_; node; node = node->next) {
        if (node->descriptor->tag == childTag) {
            if (descriptor) *descriptor = node->descriptor;
            return MP4_OK;
        }
    }
    return MP4_ERR_NOT_AVAILABLE;
}

MP4Err readDescriptor(CStorage* storage, uint32_t allowance, CBaseDescriptor** descriptor,
                      uint32_t* tag, uint32_t nesting) {
    if (descriptor) *descriptor = nullptr;
    if (tag) *tag = 0;
    if (!storage || !descriptor) return MP4_ERR_INVALID_ARGUMENT;
    if (nesting >= kMaxDescriptorNesting) return MP4_ERR_INVALID_DATA;

    std::unique_ptr<CBaseDescriptor> header(new (std::nothrow) CBaseDescriptor());
    if (!header) return MP4_ERR_OUT_OF_MEMORY;
    header->remaining = allowance;
    MP4Err err = header->read(storage);
    if (err != MP4_OK) return err;

    // The payload is read through a window that ends with the descriptor,
    // so a damaged size inside it cannot reach the next descriptor's bytes.
    uint64_t start = 0;
    err = storage->getPosition(&start);
    if (err != MP4_OK) return err;
    CReadWindow window(storage, start + header->remaining);
    if (!window.ok()) return MP4_ERR_IO;
    CStorage* payload = window.storage();

    bool known = false;
    std::unique_ptr<CBaseDescriptor> made(createForTag(header->tag, &known));
    if (!known) {
        // Kept in its parent as a bare header; the payload is not kept.
        if (header->remaining > 0) {
            err = skipPayload(payload, header->remaining);
            if (err != MP4_OK) return err;
            header->remaining = 0;
        }
        *descriptor = header.release();
        return MP4_OK;
    }
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    made->copyHeaderFrom(*header, nesting);
    err = made->read(payload);
    if (err != MP4_OK) return err;  // the partly read descriptor is freed here
    if (tag) *tag = made->tag;
    *descriptor = made.release();
    return MP4_OK;
}

MP4Err readDescriptorList(CDescriptorList* list, CStorage* storage, uint32_t* remaining,
                          uint32_t nesting) {
    while (*remaining > 0) {
        CBaseDescriptor* child = nullptr;
        MP4Err err = readDescriptor(storage, *remaining, &child, nullptr, nesting);
        if (err != MP4_OK) return err;
        err = list->append(child);
        if (err != MP4_OK) {
            delete child;
            return err;
        }
        uint64_t total = 0;
        descriptorTotalSize(child, &total);
        lowerRemaining(remaining, total);
    }
    return MP4_OK;
}

MP4Err calcDescriptorListSize(CDescriptorList* list, uint64_t* total) {
    *total = 0;
    if (!list) return MP4_OK;
    for (CDescriptorList::Node* node = list->head(); node; node = node->next) {
        MP4Err err = node->descriptor->calcSize();
        if (err != MP4_OK) return err;
        uint64_t child = 0;
        descriptorTotalSize(node->descriptor, &child);
        *total += child;
    }
    return MP4_OK;
}

MP4Err writeDescriptorList(CDescriptorList* list, CStorage* storage) {
    if (!list) return MP4_OK;
    for (CDescriptorList::Node* node = list->head(); node; node = node->next) {
        MP4Err err = node->descriptor->write(storage);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err dumpDescriptorList(CDescriptorList* list, int32_t depth) {
    if (!list) return MP4_OK;
    for (CDescriptorList::Node* node = list->head(); node; node = node->next) {
        MP4Err err = node->descriptor->dump(depth + 1);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

namespace {

// A computed payload size that fits the 32-bit size field; larger ones are
// refused here instead of wrapping (writing would refuse them anyway).
MP4Err storeSize(uint64_t total, uint32_t* size, uint32_t* headerLength) {
    if (total > 0xFFFFFFFFull) return MP4_ERR_VALUE_TOO_LARGE;
    *size = static_cast<uint32_t>(total);
    *headerLength = 0;
    return MP4_OK;
}

}  // namespace

// ---- CDecoderSpecificInfo ---------------------------------------------------

MP4Err CDecoderSpecificInfo::read(CStorage* storage) {
    std::unique_ptr<uint8_t[]> bytes;
    MP4Err err = readOwnedBytes(storage, remaining, &bytes);
    if (err != MP4_OK) return err;
    data = std::move(bytes);
    dataLength = remaining;
    remaining = 0;
    return MP4_OK;
}

MP4Err CDecoderSpecificInfo::write(CStorage* storage) {
    if (dataLength > 0 && !data) return MP4_ERR_INVALID_DATA;
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    return FieldWriter(storage).bytes(data.get(), dataLength).error();
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

MP4Err CDecoderSpecificInfo::calcSize() {
    return storeSize(dataLength, &size, &headerLength);
}

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

MP4Err CDecoderConfigDescriptor::read(CStorage* storage) {
    uint8_t packed = 0;
    MP4Err err = FieldReader(storage, &remaining)
                     .u8(objectTypeIndication)
                     .u8(packed)
                     .u24(bufferSizeDB)
                     .u32(maxBitrate)
                     .u32(avgBitrate)
                     .error();
    if (err != MP4_OK) return err;
    streamType = packed >> 2;
    upStream = (packed >> 1) & 1;
    children.reset(new (std::nothrow) CDescriptorList());
    if (!children) return MP4_ERR_OUT_OF_MEMORY;
    return readDescriptorList(children.get(), storage, &remaining, nesting_ + 1);
}

MP4Err CDecoderConfigDescriptor::write(CStorage* storage) {
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    // The reserved bit after upStream is written as 1.
    uint32_t packed = (static_cast<uint32_t>(streamType & 0x3F) << 2) | ((upStream ? 1u : 0u) << 1) | 1u;
    err = FieldWriter(storage)
              .u8(objectTypeIndication)
              .u8(packed)
              .u24(bufferSizeDB)
              .u32(maxBitrate)
              .u32(avgBitrate)
              .error();
    if (err != MP4_OK) return err;
    return writeDescriptorList(children.get(), storage);
}

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

MP4Err CDecoderConfigDescriptor::calcSize() {
    uint64_t childBytes = 0;
    MP4Err err = calcDescriptorListSize(children.get(), &childBytes);
    if (err != MP4_OK) return err;
    return storeSize(13 + childBytes, &size, &headerLength);
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

MP4Err CSLConfigDescriptor::readCustomFields(CStorage* storage) {
    if (remaining < 15) return MP4_ERR_VALUE_TOO_LARGE;
    uint8_t flags = 0;
    uint16_t packed = 0;
    MP4Err err = FieldReader(storage, &remaining)
                     .u8(flags)
                     .u32(timeStampResolution)
                     .u32(OCRResolution)
                     .u8(timeStampLength)
                     .u8(OCRLength)
                     .u8(AU_Length)
                     .u8(instantBitrateLength)
                     .u16(packed)
                     .error();
    if (err != MP4_OK) return err;
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
    // Deliberate: the 0x1E mask and raising the extension bits to 3 are kept
    // for compatibility with existing output.
    packetSeqNumLength = static_cast<uint8_t>(((packed & 0xFF) >> 2) & 0x1E);
    extension = static_cast<uint8_t>(packed & 0x03);
    if (extension < 3) extension = 3;
    return MP4_OK;
}

MP4Err CSLConfigDescriptor::readDuration(CStorage* storage) {
    if (remaining < 8) return MP4_ERR_VALUE_TOO_LARGE;
    // Deliberate: both durations land in accessUnitDuration.
    return FieldReader(storage, &remaining)
        .u32(timeScale)
        .u16(accessUnitDuration)
        .u16(accessUnitDuration)
        .error();
}

MP4Err CSLConfigDescriptor::checkStartTimeStamps() {
    if (useTimeStampsFlag || timeStampLength == 0) return MP4_OK;
    if (timeStampLength > 64) return MP4_ERR_UNSUPPORTED;
    uint32_t needed = (2u * timeStampLength + 7) / 8;
    // Start time stamps are not supported even when they are present.
    return remaining < needed ? MP4_ERR_VALUE_TOO_LARGE : MP4_ERR_INVALID_DATA;
}

MP4Err CSLConfigDescriptor::read(CStorage* storage) {
    if (remaining == 0) return MP4_ERR_VALUE_TOO_LARGE;
    MP4Err err = FieldReader(storage, &remaining).u8(predefined).error();
    if (err != MP4_OK) return err;
    if (predefined == 1 || predefined == 2) {
        applyPredefined();
    } else if (predefined != 0) {
        return MP4_ERR_INVALID_DATA;
    } else {
        err = readCustomFields(storage);
        if (err != MP4_OK) return err;
    }
    if (durationFlag) {
        err = readDuration(storage);
        if (err != MP4_OK) return err;
    }
    err = checkStartTimeStamps();
    if (err != MP4_OK) return err;
    if (remaining > 0) {
        err = skipPayload(storage, remaining);
        if (err != MP4_OK) return err;
        remaining = 0;
    }
    return MP4_OK;
}

MP4Err CSLConfigDescriptor::checkWritable() const {
    if (predefined == 0) return MP4_ERR_UNSUPPORTED;
    if (durationFlag || (!useTimeStampsFlag && timeStampLength != 0)) return MP4_ERR_INVALID_DATA;
    return MP4_OK;
}

MP4Err CSLConfigDescriptor::write(CStorage* storage) {
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    err = checkWritable();
    if (err != MP4_OK) return err;
    return storage->writeUInt8(predefined);
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

MP4Err CSLConfigDescriptor::calcSize() {
    uint32_t total = durationFlag ? 9 : 1;
    if (!useTimeStampsFlag) total += (2u * timeStampLength + 7) / 8;
    size = total;
    headerLength = 0;
    return MP4_OK;
}

// ---- CESIDInc / CESIDRef ----------------------------------------------------

MP4Err CESIDInc::read(CStorage* storage) {
    return FieldReader(storage, &remaining).u32(Track_ID).error();
}

MP4Err CESIDInc::write(CStorage* storage) {
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    return storage->writeUInt32(Track_ID);
}

MP4Err CESIDInc::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "TrackID: %d\n", static_cast<int32_t>(Track_ID));
    return MP4_OK;
}

MP4Err CESIDInc::calcSize() {
    size = 4;
    headerLength = 0;
    return MP4_OK;
}

MP4Err CESIDRef::read(CStorage* storage) {
    return FieldReader(storage, &remaining).u16(ref_index).error();
}

MP4Err CESIDRef::write(CStorage* storage) {
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    return storage->writeUInt16(ref_index);
}

MP4Err CESIDRef::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Track ref: %d\n", static_cast<int32_t>(ref_index));
    return MP4_OK;
}

MP4Err CESIDRef::calcSize() {
    size = 2;
    headerLength = 0;
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

MP4Err CESDescriptor::read(CStorage* storage) {
    uint8_t flags = 0;
    FieldReader reader(storage, &remaining);
    MP4Err err = reader.u16(ES_ID).u8(flags).error();
    if (err != MP4_OK) return err;
    streamDependenceFlag = (flags >> 7) & 1;
    URL_Flag = (flags >> 6) & 1;
    OCRstreamFlag = (flags >> 5) & 1;
    // Deliberate: the priority keeps only bits 0 and 2 (mask 0x05), and no
    // OCR_ES_Id is read even when OCRstreamFlag is set.
    streamPriority = flags & 0x05;
    if (streamDependenceFlag) reader.u16(dependsOn_ES_ID);
    if (URL_Flag) reader.u8(URLlength);
    err = reader.error();
    if (err != MP4_OK) return err;
    if (URL_Flag) {
        err = readDescriptorURL(storage, URLlength, &URLstring);
        if (err != MP4_OK) return err;
        remaining -= URLlength;
    }
    decoderConfig = nullptr;
    slConfig = nullptr;
    children.reset(new (std::nothrow) CDescriptorList());
    if (!children) return MP4_ERR_OUT_OF_MEMORY;
    err = readDescriptorList(children.get(), storage, &remaining, nesting_ + 1);
    if (err != MP4_OK) return err;
    findMandatoryChildren();
    return decoderConfig && slConfig ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CESDescriptor::writeFixedFields(CStorage* storage) {
    // The OCR flag is not written on its own: it is set only when the
    // priority carries that bit.
    uint32_t flags = ((streamDependenceFlag ? 1u : 0u) << 7) | ((URL_Flag ? 1u : 0u) << 6) |
                     streamPriority;
    FieldWriter writer(storage);
    writer.u16(ES_ID).u8(flags);
    if (streamDependenceFlag) writer.u16(dependsOn_ES_ID);
    if (URL_Flag) writer.u8(URLlength).bytes(URLstring.get(), URLstring ? URLlength : 0);
    return writer.error();
}

MP4Err CESDescriptor::write(CStorage* storage) {
    if (URL_Flag && URLlength > 0 && !URLstring) return MP4_ERR_INVALID_DATA;
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    err = writeFixedFields(storage);
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
    uint64_t total = 3;
    if (streamDependenceFlag) total += 2;
    if (URL_Flag) total += 1u + URLlength;
    uint64_t childBytes = 0;
    MP4Err err = calcDescriptorListSize(children.get(), &childBytes);
    if (err != MP4_OK) return err;
    return storeSize(total + childBytes, &size, &headerLength);
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
