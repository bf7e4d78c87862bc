// Editing the iTunes items of the movie ("moov"/"udta"/"meta"/"ilst") and
// writing the changed user data back into the file when it fits there.
//
// The library keeps "meta" as its raw payload, so an edit rebuilds that
// payload as bytes: the other children of "meta" and the other items of
// "ilst" are copied as they are, and the new "meta" is read back through
// the box factory, so the tree holds it as if it had been read.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "boxes/Box.h"
#include "boxes/BoxFactory.h"
#include "file/Mp4FileImpl.h"
#include "file/Rewrite.h"
#include "quil/Mp4MetaData.h"
#include "quil/Mp4Tags.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMaxTagValue = 64u << 20;  // cover art of a few MiB fits easily

uint32_t readU32(const Bytes& bytes, size_t at) {
    return (uint32_t{bytes[at]} << 24) | (uint32_t{bytes[at + 1]} << 16) |
           (uint32_t{bytes[at + 2]} << 8) | bytes[at + 3];
}

void appendU32(Bytes* out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<uint8_t>(value >> shift));
}

// A box as bytes: 32-bit size, type, payload.
Bytes makeBox(uint32_t type, const Bytes& payload) {
    Bytes box;
    box.reserve(payload.size() + 8);
    appendU32(&box, static_cast<uint32_t>(payload.size() + 8));
    appendU32(&box, type);
    box.insert(box.end(), payload.begin(), payload.end());
    return box;
}

// One child of a payload: its type and its whole bytes, header included.
struct Piece {
    uint32_t type;
    Bytes bytes;
};

// The children of bytes[start, end). Only 32-bit sizes are taken apart; a
// child that does not parse ends the list and the rest is kept as one
// untyped piece, so no byte is lost.
std::vector<Piece> splitChildren(const Bytes& bytes, size_t start, size_t end) {
    std::vector<Piece> pieces;
    size_t at = start;
    while (end - at >= 8) {
        const uint32_t size = readU32(bytes, at);
        if (size < 8 || size > end - at) break;
        pieces.push_back({readU32(bytes, at + 4), Bytes(bytes.begin() + at, bytes.begin() + at + size)});
        at += size;
    }
    if (at < end) pieces.push_back({0, Bytes(bytes.begin() + at, bytes.begin() + end)});
    return pieces;
}

Bytes joinPieces(const std::vector<Piece>& pieces) {
    Bytes out;
    for (const Piece& piece : pieces) out.insert(out.end(), piece.bytes.begin(), piece.bytes.end());
    return out;
}

bool isPadding(uint32_t type) { return type == fourcc("free") || type == fourcc("skip"); }

// The "hdlr" iTunes readers look for: handler "mdir", manufacturer "appl".
Bytes metadataHandler() {
    Bytes payload(4, 0);                 // version, flags
    appendU32(&payload, 0);              // pre-defined
    appendU32(&payload, fourcc("mdir"));
    appendU32(&payload, fourcc("appl"));
    payload.resize(payload.size() + 8, 0);  // reserved
    payload.push_back(0);                // empty name
    return makeBox(fourcc("hdlr"), payload);
}

// An item with one "data" value: type indicator, locale 0, the value.
Bytes makeItem(uint32_t code, uint32_t dataType, const uint8_t* value, uint32_t length) {
    Bytes data;
    appendU32(&data, dataType & 0xFFFFFF);
    appendU32(&data, 0);
    data.insert(data.end(), value, value + length);
    return makeBox(code, makeBox(fourcc("data"), data));
}

// The payload of "meta" with one item set (item not empty) or removed
// (item empty). *found tells whether the item was there before.
struct MetaEdit {
    uint32_t code;
    Bytes item;
};

Bytes editIlst(const Bytes& ilst, const MetaEdit& edit, bool* found) {
    std::vector<Piece> items = splitChildren(ilst, 8, ilst.size());
    std::vector<Piece> kept;
    for (Piece& item : items) {
        if (item.type != edit.code) {
            kept.push_back(std::move(item));
        } else if (!*found) {
            *found = true;
            if (!edit.item.empty()) kept.push_back({edit.code, edit.item});  // in its old place
        }
    }
    if (!*found && !edit.item.empty()) kept.push_back({edit.code, edit.item});
    return makeBox(fourcc("ilst"), joinPieces(kept));
}

// Rebuilds the "meta" payload. A "free" box right after "ilst" (the
// padding taggers leave) gives or takes what "ilst" grew or shrank, so the
// box keeps its size whenever the padding allows.
Bytes editMetaPayload(const Bytes& payload, const MetaEdit& edit, bool* found) {
    // ISO "meta" is a full box; QuickTime writes it without version and
    // flags, its first child ("hdlr") then starts at once.
    const bool quickTime = payload.size() >= 8 && readU32(payload, 4) == fourcc("hdlr");
    const size_t start = quickTime || payload.size() < 4 ? 0 : 4;
    std::vector<Piece> children = splitChildren(payload, start, payload.size());
    bool haveHandler = false, haveList = false;
    for (size_t i = 0; i < children.size(); ++i) {
        if (children[i].type == fourcc("hdlr")) haveHandler = true;
        if (children[i].type != fourcc("ilst") || haveList) continue;
        haveList = true;
        Bytes edited = editIlst(children[i].bytes, edit, found);
        const int64_t growth =
            static_cast<int64_t>(edited.size()) - static_cast<int64_t>(children[i].bytes.size());
        children[i].bytes = std::move(edited);
        if (i + 1 < children.size() && isPadding(children[i + 1].type)) {
            const int64_t padding = static_cast<int64_t>(children[i + 1].bytes.size()) - growth;
            if (padding == 0) children.erase(children.begin() + static_cast<long>(i) + 1);
            if (padding >= 8) {
                const uint32_t type = children[i + 1].type;
                children[i + 1].bytes = makeBox(type, Bytes(static_cast<size_t>(padding) - 8, 0));
            }
        }
    }
    if (!haveList) {
        Bytes empty = makeBox(fourcc("ilst"), Bytes());
        children.push_back({fourcc("ilst"), editIlst(empty, edit, found)});
    }
    if (!haveHandler) children.insert(children.begin(), {fourcc("hdlr"), metadataHandler()});
    Bytes out(payload.begin(), payload.begin() + static_cast<long>(start));
    if (payload.empty()) out.assign(4, 0);  // a new full box: version 0, flags 0
    Bytes rest = joinPieces(children);
    out.insert(out.end(), rest.begin(), rest.end());
    return out;
}

// Reads a whole box from bytes through the factory, as a file read makes it.
MP4Err boxFromBytes(Bytes* bytes, uint32_t parentType, CBox** box) {
    *box = nullptr;
    if (bytes->size() > UINT32_MAX) return MP4_ERR_VALUE_TOO_LARGE;
    CMemoryStorage storage;
    storage.attach(bytes->data(), static_cast<uint32_t>(bytes->size()), false);
    MP4Err err = storage.open(0);
    uint32_t type = 0;
    uint64_t remaining = bytes->size();
    resetBoxNesting();
    if (err == MP4_OK) err = readBox(&storage, parentType, box, &type, &remaining);
    storage.close();
    storage.detach();
    return err;
}

// The movie's "udta" (made when missing) and its first "meta", if any.
MP4Err findMovieMeta(CMp4FileImpl* impl, CBox** udta, CBox** meta) {
    *udta = *meta = nullptr;
    CMp4MetaData* assets = nullptr;
    MP4Err err = impl->metaDataFor(true, &assets);  // adds a missing "udta"
    if (err != MP4_OK) return err;
    CBox* moov = nullptr;
    err = impl->findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    if (holdsCompressedMovie(moov)) return MP4_ERR_UNSUPPORTED;
    err = moov->findChild(fourcc("udta"), udta, 1);
    if (err != MP4_OK) return err;
    err = (*udta)->findChild(fourcc("meta"), meta, 1);
    return err == MP4_ERR_NOT_AVAILABLE ? MP4_OK : err;
}

MP4Err applyEdit(CMp4File* file, const MetaEdit& edit, bool* found) {
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!impl) return MP4_ERR_INVALID_ARGUMENT;
    if (!impl->isOpenFlag() || impl->mode() != 0) return MP4_ERR_NOT_AVAILABLE;
    CBox* udta = nullptr;
    CBox* meta = nullptr;
    MP4Err err = findMovieMeta(impl, &udta, &meta);
    if (err != MP4_OK) return err;
    CBoxList* list = udta->childList();
    // A "meta" the library parsed into children is not one it can edit.
    if (meta && meta->childList()) return MP4_ERR_UNSUPPORTED;
    try {
        Bytes payload(meta ? meta->keptPayload().length() : 0);
        if (meta && !payload.empty()) err = meta->keptPayload().read(0, payload.data(), payload.size());
        if (err != MP4_OK) return err;
        Bytes box = makeBox(fourcc("meta"), editMetaPayload(payload, edit, found));
        CBox* made = nullptr;
        err = boxFromBytes(&box, fourcc("udta"), &made);
        if (err != MP4_OK) return err;
        std::unique_ptr<CBox> fresh(made);
        if (!meta) {
            if (!list) return udta->addChild(fresh.release());
            err = list->append(fresh.get());
            if (err == MP4_OK) fresh.release();
            return err;
        }
        err = list ? list->replace(meta, fresh.get()) : MP4_ERR_NOT_AVAILABLE;
        if (err != MP4_OK) return err;
        fresh.release();
        delete meta;
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

// ---- writing back in place ------------------------------------------------

// A box found by walking headers on disc.
struct DiscBox {
    uint32_t type = 0;
    uint64_t offset = 0;
    uint64_t size = 0;
    uint64_t header = 8;
};

// The box at offset, within [offset, end); false when its header is damaged.
bool discBoxAt(std::FILE* file, uint64_t offset, uint64_t end, DiscBox* box) {
    uint8_t head[16];
    if (end - offset < 8 || ::fseeko(file, static_cast<off_t>(offset), SEEK_SET) != 0 ||
        std::fread(head, 1, 8, file) != 8) {
        return false;
    }
    const Bytes first(head, head + 8);
    uint64_t size = readU32(first, 0);
    box->type = readU32(first, 4);
    box->header = 8;
    if (size == 1) {
        if (end - offset < 16 || std::fread(head + 8, 1, 8, file) != 8) return false;
        const Bytes large(head + 8, head + 16);
        size = (uint64_t{readU32(large, 0)} << 32) | readU32(large, 4);
        box->header = 16;
    } else if (size == 0) {
        size = end - offset;
    }
    if (size < box->header || size > end - offset) return false;
    box->offset = offset;
    box->size = size;
    return true;
}

// The first box of that type among the boxes of [start, end), and the box
// right after it (type 0 when none).
bool findOnDisc(std::FILE* file, uint64_t start, uint64_t end, uint32_t type, DiscBox* found,
                DiscBox* next) {
    DiscBox box;
    bool have = false;
    for (uint64_t at = start; at < end && discBoxAt(file, at, end, &box); at += box.size) {
        if (have) {
            *next = box;
            return true;
        }
        if (box.type == type) {
            *found = box;
            have = true;
        }
    }
    *next = DiscBox();
    return have;
}

// The place the new "udta" may take: the old one and padding right after
// it, or, without a "udta", the first padding box in "moov".
bool findRoom(std::FILE* file, DiscBox* place, uint64_t* room) {
    struct stat info {};
    if (::fstat(fileno(file), &info) != 0) return false;
    const uint64_t length = static_cast<uint64_t>(info.st_size);
    DiscBox moov, next;
    if (!findOnDisc(file, 0, length, fourcc("moov"), &moov, &next)) return false;
    const uint64_t start = moov.offset + moov.header, end = moov.offset + moov.size;
    if (findOnDisc(file, start, end, fourcc("udta"), place, &next)) {
        *room = place->size + (isPadding(next.type) ? next.size : 0);
        return true;
    }
    DiscBox box;
    for (uint64_t at = start; at < end && discBoxAt(file, at, end, &box); at += box.size) {
        if (isPadding(box.type)) {
            *place = box;
            *room = box.size;
            return true;
        }
    }
    return false;
}

// The "udta" as the tree now holds it, serialised.
MP4Err serialise(CBox* box, Bytes* out) {
    MP4Err err = sizeBox(box);
    uint64_t size = 0;
    if (err == MP4_OK) err = box->getSize(&size);
    if (err != MP4_OK) return err;
    if (size > UINT32_MAX) return MP4_ERR_VALUE_TOO_LARGE;
    out->assign(static_cast<size_t>(size), 0);
    CMemoryStorage storage;
    storage.attach(out->data(), static_cast<uint32_t>(size), true);
    err = storage.open(1);
    if (err == MP4_OK) err = writeBox(box, &storage);
    const uint32_t written = storage.position();
    storage.close();
    storage.detach();
    if (err == MP4_OK && written != size) err = MP4_ERR_WRONG_LAYOUT;
    return err;
}

}  // namespace

MP4Err Mp4SetTag(CMp4File* file, uint32_t code, uint32_t dataType, const uint8_t* value,
                 uint32_t length) {
    if (!file || code == 0 || code == fourcc("----") || (!value && length != 0) ||
        length > kMaxTagValue || dataType > 0xFFFFFF) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    try {
        MetaEdit edit{code, makeItem(code, dataType, value, length)};
        bool found = false;
        return applyEdit(file, edit, &found);
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
}

MP4Err Mp4RemoveTag(CMp4File* file, uint32_t code) {
    if (!file || code == 0) return MP4_ERR_INVALID_ARGUMENT;
    bool found = false;
    MP4Err err = applyEdit(file, MetaEdit{code, Bytes()}, &found);
    return err == MP4_OK && !found ? MP4_ERR_NOT_AVAILABLE : err;
}

MP4Err Mp4WriteUserDataInPlace(CMp4File* file) {
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!impl) return MP4_ERR_INVALID_ARGUMENT;
    const char* path = impl->readPath();
    if (!path || !impl->isOpenFlag() || impl->mode() != 0) return MP4_ERR_NOT_AVAILABLE;
    CBox* moov = nullptr;
    CBox* udta = nullptr;
    MP4Err err = impl->findTopLevelBox(fourcc("moov"), &moov);
    if (err == MP4_OK) err = moov->findChild(fourcc("udta"), &udta, 1);
    if (err != MP4_OK) return err;
    Bytes bytes;
    try {
        err = serialise(udta, &bytes);
    } catch (const std::bad_alloc&) {
        err = MP4_ERR_OUT_OF_MEMORY;
    }
    if (err != MP4_OK) return err;
    std::FILE* disc = std::fopen(path, "r+b");
    if (!disc) return MP4_ERR_IO;
    DiscBox place;
    uint64_t room = 0;
    if (!findRoom(disc, &place, &room) || (bytes.size() != room && bytes.size() + 8 > room)) {
        std::fclose(disc);
        return MP4_ERR_VALUE_TOO_LARGE;
    }
    // What is left over becomes a "free" box, so "moov" keeps its size.
    if (bytes.size() < room) {
        const Bytes padding = makeBox(fourcc("free"), Bytes(room - bytes.size() - 8, 0));
        bytes.insert(bytes.end(), padding.begin(), padding.end());
    }
    bool ok = ::fseeko(disc, static_cast<off_t>(place.offset), SEEK_SET) == 0 &&
              std::fwrite(bytes.data(), 1, bytes.size(), disc) == bytes.size();
    ok = std::fclose(disc) == 0 && ok;
    return ok ? MP4_OK : MP4_ERR_IO;
}

}  // namespace quil
