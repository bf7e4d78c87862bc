#include "Box.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "BoxFactory.h"
#include "io/Dump.h"
#include "io/FourCC.h"
#include "storage/BoundedStorage.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
constexpr uint32_t kUuid = fourcc("uuid");

}  // namespace

// ---- CBox -----------------------------------------------------------------

MP4Err CBox::read(CStorage* storage) {
    uint32_t size32 = 0;
    MP4Err err = storage->readUInt32(&size32);
    if (err != MP4_OK) return err;
    err = storage->readUInt32(&type);
    if (err != MP4_OK) return err;

    uint64_t headerLength = 8;
    if (size32 == 1) {
        err = storage->readUInt64(&size);
        if (err != MP4_OK) return err;
        headerLength = 16;
    } else if (size32 == 0) {
        // The box runs to the end of the storage.
        uint64_t position = 0, length = 0;
        err = storage->getPosition(&position);
        if (err != MP4_OK) return err;
        err = storage->getLength(&length);
        if (err != MP4_OK) return err;
        size = length - position + 8;
    } else {
        size = size32;
    }

    if (type == kUuid) {
        usertype.reset(new (std::nothrow) uint8_t[16]);
        if (!usertype) return MP4_ERR_OUT_OF_MEMORY;
        err = storage->readBytes(usertype.get(), 16);
        if (err != MP4_OK) return err;
        headerLength += 16;
    }
    if (size < headerLength) return MP4_ERR_BAD_BOX_SIZE;
    sizeFromFile = true;
    remaining = size - headerLength;
    return MP4_OK;
}

MP4Err CBox::write(CStorage* storage) {
    bool large = size > kMax32;
    MP4Err err = storage->writeUInt32(large ? 1u : static_cast<uint32_t>(size));
    if (err != MP4_OK) return err;
    err = storage->writeUInt32(type);
    if (err != MP4_OK) return err;
    if (large) {
        // The written largesize counts its own 8 bytes, and so does the
        // stored size from now on.
        size += 8;
        err = storage->writeUInt64(size);
        if (err != MP4_OK) return err;
    }
    if (type == kUuid) {
        if (!usertype) return MP4_ERR_INVALID_DATA;
        err = storage->writeBlock(usertype.get(), 16);
        if (err != MP4_OK) return err;
    }
    return kept_.write(storage);
}

MP4Err CBox::dump(int32_t depth) {
    printf("\n");
    printIndent(depth);
    if (isPrintableCode(type)) {
        printf("Box type = %c%c%c%c  Size = %" PRIu64 "\n", codeChar(type, 0), codeChar(type, 1),
               codeChar(type, 2), codeChar(type, 3), size);
    } else {
        printf("Box type = 0x%08x  Size = %" PRIu64 "\n", type, size);
    }
    if (type == kUuid) {
        if (!usertype) return MP4_ERR_INVALID_DATA;
        printIndent(depth);
        printf("User type = ");
        for (int i = 0; i < 16; ++i) printf("%02x ", usertype[i]);
        printf(" (%c%c%c%c)\n", usertype[0], usertype[1], usertype[2], usertype[3]);
    }
    return MP4_OK;
}

MP4Err CBox::calculateSize() {
    size = baseHeaderSize() + kept_.length();
    sizeFromFile = false;
    return MP4_OK;
}

MP4Err CBox::getSize(uint64_t* out) {
    // A computed size above 32 bits will be written with a 64-bit
    // largesize field, which the size from a file already counts.
    *out = (size > kMax32 && !sizeFromFile) ? size + 8 : size;
    return MP4_OK;
}

MP4Err CBox::findChild(uint32_t, CBox** box, uint32_t) {
    if (box) *box = nullptr;
    return MP4_ERR_NOT_AVAILABLE;
}

MP4Err CBox::addChild(CBox*) { return MP4_ERR_INVALID_DATA; }

MP4Err CBox::copyHeaderFrom(const CBox& header) {
    size = header.size;
    type = header.type;
    remaining = header.remaining;
    sizeFromFile = header.sizeFromFile;
    usertype.reset();
    if (header.usertype) {
        usertype.reset(new (std::nothrow) uint8_t[16]);
        if (!usertype) return MP4_ERR_OUT_OF_MEMORY;
        std::memcpy(usertype.get(), header.usertype.get(), 16);
    }
    return MP4_OK;
}

// ---- kept bytes -----------------------------------------------------------

struct CKeptBytes::Bytes {
    std::unique_ptr<uint8_t[]> data;  // in memory, or
    CStorage* source = nullptr;       // where they lie in the file's storage
    uint64_t offset = 0;
    uint64_t length = 0;
};

MP4Err CKeptBytes::keep(CStorage* storage, uint64_t count) {
    bytes_.reset();
    if (count == 0) return MP4_OK;
    // Never more than the storage can deliver: a damaged size asks for
    // nothing it does not hold.
    if (count > readableBytes(storage)) return MP4_ERR_BAD_BOX_SIZE;
    auto* window = dynamic_cast<CBoundedStorage*>(storage);
    CStorage* base = window ? window->inner() : storage;
    std::shared_ptr<Bytes> kept(new (std::nothrow) Bytes);
    if (!kept) return MP4_ERR_OUT_OF_MEMORY;
    kept->length = count;
    bool inMemory = count <= kKeepInMemory || dynamic_cast<CMemoryStorage*>(base) != nullptr;
    MP4Err err = MP4_OK;
    if (inMemory) {
        kept->data.reset(new (std::nothrow) uint8_t[count]);
        if (!kept->data) return MP4_ERR_OUT_OF_MEMORY;
        err = storage->readBytes(kept->data.get(), count);
    } else {
        kept->source = base;
        err = storage->getPosition(&kept->offset);
        if (err == MP4_OK) err = storage->skip(count);
    }
    if (err != MP4_OK) return err;
    bytes_ = std::move(kept);
    return MP4_OK;
}

uint64_t CKeptBytes::length() const { return bytes_ ? bytes_->length : 0; }

MP4Err CKeptBytes::read(uint64_t offset, uint8_t* buffer, uint64_t count) const {
    uint64_t total = length();
    if (offset > total || count > total - offset) return MP4_ERR_OUT_OF_RANGE;
    if (count == 0) return MP4_OK;
    if (bytes_->data) {
        std::memcpy(buffer, bytes_->data.get() + offset, count);
        return MP4_OK;
    }
    CStorage* source = bytes_->source;
    uint64_t saved = 0;
    MP4Err err = source->getPosition(&saved);
    if (err == MP4_OK) err = source->seek(bytes_->offset + offset);
    if (err == MP4_OK) err = source->readBytes(buffer, count);
    MP4Err back = source->seek(saved);
    return err != MP4_OK ? err : back;
}

MP4Err CKeptBytes::write(CStorage* storage) const {
    uint64_t total = length();
    if (total == 0) return MP4_OK;
    // writeBlock takes a signed 32-bit count; bytes kept by reference go
    // through a buffer of the in-memory bound.
    constexpr uint64_t kPiece = 1u << 30;
    if (bytes_->data) {
        for (uint64_t done = 0; done < total;) {
            uint64_t piece = total - done < kPiece ? total - done : kPiece;
            MP4Err err = storage->writeBlock(bytes_->data.get() + done, static_cast<int32_t>(piece));
            if (err != MP4_OK) return err;
            done += piece;
        }
        return MP4_OK;
    }
    std::unique_ptr<uint8_t[]> piece(new (std::nothrow) uint8_t[kKeepInMemory]);
    if (!piece) return MP4_ERR_OUT_OF_MEMORY;
    for (uint64_t done = 0; done < total;) {
        uint64_t count = total - done < kKeepInMemory ? total - done : kKeepInMemory;
        MP4Err err = read(done, piece.get(), count);
        if (err == MP4_OK) err = storage->writeBlock(piece.get(), static_cast<int32_t>(count));
        if (err != MP4_OK) return err;
        done += count;
    }
    return MP4_OK;
}

MP4Err CBox::keepPayload(CStorage* storage) {
    MP4Err err = kept_.keep(storage, remaining);
    if (err == MP4_OK) remaining = 0;
    return err;
}

MP4Err boxStartOffset(const CBox& box, CStorage* storage, uint64_t* offset) {
    uint64_t position = 0;
    MP4Err err = storage->getPosition(&position);
    if (err != MP4_OK) return err;
    const uint64_t headerLength = box.size - box.remaining;
    if (position < headerLength) return MP4_ERR_BAD_BOX_SIZE;
    *offset = position - headerLength;
    return MP4_OK;
}

MP4Err sizeBox(CBox* box) {
    return box->writesAsRead() ? box->CBox::calculateSize() : box->calculateSize();
}

MP4Err writeBox(CBox* box, CStorage* storage) {
    return box->writesAsRead() ? box->CBox::write(storage) : box->write(storage);
}

// ---- CFullBox -------------------------------------------------------------

MP4Err CFullBox::readVersionAndFlags(CStorage* storage) {
    if (remaining < 4) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = storage->readUInt8(&version);
    if (err != MP4_OK) return err;
    err = storage->readUInt24(&flags);
    if (err != MP4_OK) return err;
    remaining -= 4;
    return MP4_OK;
}

MP4Err CFullBox::writeVersionAndFlags(CStorage* storage) {
    MP4Err err = storage->writeUInt8(version);
    if (err != MP4_OK) return err;
    return storage->writeUInt24(flags);
}

void CFullBox::dumpVersionAndFlags(int32_t depth) {
    dumpLine(depth, "Version = %d, Flags = 0x%06x\n", static_cast<int32_t>(version), flags);
}

// ---- CBoxList -------------------------------------------------------------

CBoxList::~CBoxList() {
    Node* node = head_;
    while (node) {
        Node* next = node->next;
        delete node->box;
        delete node;
        node = next;
    }
}

MP4Err CBoxList::append(CBox* box) {
    if (!box) return MP4_ERR_INVALID_ARGUMENT;
    Node* node = new (std::nothrow) Node{count_ + 1, box, nullptr};
    if (!node) return MP4_ERR_OUT_OF_MEMORY;
    if (tail_) {
        tail_->next = node;
    } else {
        head_ = node;
    }
    tail_ = node;
    ++count_;
    return MP4_OK;
}

MP4Err CBoxList::findNth(uint32_t wantedType, CBox** box, uint32_t instance) {
    *box = nullptr;
    uint32_t wanted = instance == 0 ? 1 : instance;
    uint32_t matches = 0;
    for (uint32_t index = 1;; ++index) {
        if (index == 0) return MP4_ERR_BAD_INDEX;  // the counter wrapped around
        if (index > count_) return MP4_ERR_NOT_AVAILABLE;
        // Resume from the cursor unless it lies past the wanted index.
        Node* node = (cursor_ && cursor_->index <= index) ? cursor_ : head_;
        while (node && node->index != index) node = node->next;
        if (!node) return MP4_ERR_NOT_AVAILABLE;
        cursor_ = node;
        if (node->box->type == wantedType && ++matches == wanted) {
            *box = node->box;
            return MP4_OK;
        }
    }
}

MP4Err CBoxList::replace(CBox* oldBox, CBox* newBox) {
    if (!newBox) return MP4_ERR_INVALID_ARGUMENT;
    for (Node* node = head_; node; node = node->next) {
        if (node->box == oldBox) {
            node->box = newBox;
            return MP4_OK;
        }
    }
    return MP4_ERR_NOT_AVAILABLE;
}

// ---- child helpers --------------------------------------------------------

MP4Err writeChildren(CBoxList* list, CStorage* storage) {
    if (!list) return MP4_OK;
    for (CBoxList::Node* node = list->head(); node; node = node->next) {
        MP4Err err = writeBox(node->box, storage);
        if (err != MP4_OK) return err;
    }
    return list->trailing().write(storage);
}

MP4Err addChildrenSizes(CBoxList* list, uint64_t* total) {
    if (!list) return MP4_OK;
    for (CBoxList::Node* node = list->head(); node; node = node->next) {
        MP4Err err = sizeBox(node->box);
        if (err != MP4_OK) return err;
        uint64_t childSize = 0;
        err = node->box->getSize(&childSize);
        if (err != MP4_OK) return err;
        *total += childSize;
    }
    *total += list->trailing().length();
    return MP4_OK;
}

MP4Err dumpChildren(CBoxList* list, int32_t depth) {
    if (!list) return MP4_OK;
    for (CBoxList::Node* node = list->head(); node; node = node->next) {
        MP4Err err = node->box->dump(depth + 1);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err dumpChildrenInBraces(CBoxList* list, int32_t depth) {
    printIndent(depth);
    printf("{");
    MP4Err err = dumpChildren(list, depth);
    if (err != MP4_OK) return err;
    printIndent(depth);
    printf("}\n");
    return MP4_OK;
}

namespace {

// Keeps the bytes of a parent from `start` (where a child that did not fit
// or did not read began) to the parent's end, count bytes in all, so that
// writing the parent again reproduces them. Where they cannot be kept, or
// the storage cannot go back, the rest of the parent is skipped instead.
MP4Err keepRest(CBoxList* list, CStorage* storage, uint64_t start, uint64_t count) {
    uint64_t position = 0;
    MP4Err err = storage->getPosition(&position);
    if (err != MP4_OK) return err;
    if (position >= start && position - start <= count && storage->seek(start) == MP4_OK) {
        if (list->trailing().keep(storage, count) == MP4_OK) return MP4_OK;
        err = storage->seek(position);
        if (err != MP4_OK) return err;
    }
    return position - start <= count ? storage->skip(count - (position - start)) : MP4_OK;
}

}  // namespace

namespace {

// A file-level list whose movie has "mvex": fragments may follow any media data.
bool continuesInFragments(CBoxList* list) {
    if (list->ownerType() != 0) return false;
    CBox* moov = nullptr;
    CBox* mvex = nullptr;
    return list->findNth(fourcc("moov"), &moov, 1) == MP4_OK &&
           moov->findChild(fourcc("mvex"), &mvex) == MP4_OK;
}

}  // namespace

MP4Err readChildren(CBoxList* list, CStorage* storage, uint64_t* remaining) {
    uint32_t eof = 0;
    MP4Err err = storage->isEof(&eof);  // only a failing query matters
    if (err != MP4_OK) return err;
    uint32_t parentType = list->ownerType();
    while (*remaining >= 8) {
        CBox* child = nullptr;
        uint32_t childType = 0;
        uint64_t before = *remaining;
        uint64_t start = 0;
        err = storage->getPosition(&start);
        if (err != MP4_OK) return err;
        err = readBox(storage, parentType, &child, &childType, remaining);
        if (err == MP4_ERR_NOT_AVAILABLE) {
            // The child does not fit (or ends a "wave"): the rest of the
            // parent, from that child's header on, is kept as it is.
            err = keepRest(list, storage, start, before);
            if (err != MP4_OK) return err;
            *remaining = 0;
            return MP4_OK;
        }
        if (err != MP4_OK) {
            // A damaged child ends the parent quietly; the parent keeps
            // what was read so far, and the damaged bytes as they are.
            keepRest(list, storage, start, before);
            *remaining = 0;
            return MP4_OK;
        }
        err = list->append(child);
        if (err != MP4_OK) {
            delete child;
            return err;
        }
        // Nothing after the media data is read from a network storage,
        // unless the movie goes on in fragments: their headers follow.
        if (childType == fourcc("mdat") && isNetworkStorage(storage) && !continuesInFragments(list)) {
            *remaining = 0;
        }
    }
    if (*remaining > 0) {
        err = list->trailing().keep(storage, *remaining);
        if (err != MP4_OK) err = storage->skip(*remaining);
        *remaining = 0;
        return err;
    }
    return MP4_OK;
}

MP4Err findInChildList(CBoxList* list, uint32_t wantedType, CBox** box, uint32_t instance) {
    if (!box) return MP4_ERR_INVALID_ARGUMENT;
    *box = nullptr;
    if (!list) return MP4_ERR_NOT_AVAILABLE;
    return list->findNth(wantedType, box, instance);
}

MP4Err appendToChildList(std::unique_ptr<CBoxList>* list, CBox* owner, CBox* box) {
    if (!*list) {
        list->reset(new (std::nothrow) CBoxList(owner));
        if (!*list) return MP4_ERR_OUT_OF_MEMORY;
    }
    return (*list)->append(box);
}

MP4Err startChildList(std::unique_ptr<CBoxList>* list, CBox* owner) {
    if (*list) return MP4_ERR_INVALID_DATA;
    list->reset(new (std::nothrow) CBoxList(owner));
    return *list ? MP4_OK : MP4_ERR_OUT_OF_MEMORY;
}

// ---- CContainerBox --------------------------------------------------------

MP4Err CContainerBox::read(CStorage* storage) {
    MP4Err err = startChildList(&children, this);
    if (err != MP4_OK) return err;
    return readChildren(children.get(), storage, &remaining);
}

MP4Err CContainerBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    if (!children) return MP4_ERR_INVALID_DATA;
    return writeChildren(children.get(), storage);
}

MP4Err CContainerBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    if (!children) {
        printIndent(depth);
        printf("{");
        return MP4_ERR_INVALID_DATA;
    }
    return dumpChildrenInBraces(children.get(), depth);
}

MP4Err CContainerBox::calculateSize() {
    CBox::calculateSize();
    uint64_t total = size;
    MP4Err err = addChildrenSizes(children.get(), &total);
    size = total;
    return err;
}

MP4Err CContainerBox::findChild(uint32_t wantedType, CBox** box, uint32_t instance) {
    return findInChildList(children.get(), wantedType, box, instance);
}

MP4Err CContainerBox::addChild(CBox* box) {
    MP4Err err = appendToChildList(&children, this, box);
    if (err != MP4_OK) return err;
    if (growsOnAddChild()) {
        uint64_t childSize = 0;
        box->getSize(&childSize);
        size += childSize;
    }
    return MP4_OK;
}

}  // namespace quil
