#include "Descriptor.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "io/FieldIO.h"
#include "storage/BoundedStorage.h"
#include "EsDescriptors.h"
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

}  // namespace quil
