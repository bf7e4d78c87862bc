// Tags the 3GPP asset interface does not cover: iTunes-style "meta"/"ilst"
// items and the 3GPP "albm"/"yrrc" boxes. The library keeps these boxes as
// raw payload; a small parser walks that payload here, checking every size
// against the bytes of its parent before using it.
#include <algorithm>
#include <cstring>
#include <vector>

#include "boxes/Box.h"
#include "file/Mp4FileImpl.h"
#include "quil/Mp4Tags.h"

namespace quil {
namespace {

struct TagPlace {
    MP4Tag tag;
    const CBox* box;      // the box whose kept payload holds the value
    uint64_t valueStart;  // offset of the value in that payload
};

// Reads big-endian fields of a kept payload; any read outside it fails.
class PayloadView {
public:
    explicit PayloadView(const CBox* box) : box_(box) {}
    uint64_t length() const { return box_->keptPayload().length(); }
    bool bytes(uint64_t offset, uint8_t* out, uint64_t count) const {
        return box_->keptPayload().read(offset, out, count) == MP4_OK;
    }
    bool u32(uint64_t offset, uint32_t* value) const {
        uint8_t b[4];
        if (!bytes(offset, b, 4)) return false;
        *value = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
        return true;
    }
    bool u64(uint64_t offset, uint64_t* value) const {
        uint32_t high = 0, low = 0;
        if (!u32(offset, &high) || !u32(offset + 4, &low)) return false;
        *value = (uint64_t{high} << 32) | low;
        return true;
    }
    const CBox* box() const { return box_; }

private:
    const CBox* box_;
};

// A child box inside [start, end) of a payload.
struct Child {
    uint32_t type = 0;
    uint64_t payloadStart = 0;
    uint64_t end = 0;
};

// The child at offset, or false when its header is damaged or it does not
// fit its parent (the walk of that parent then ends).
bool childAt(const PayloadView& view, uint64_t offset, uint64_t parentEnd, Child* child) {
    uint32_t size32 = 0;
    if (parentEnd - offset < 8 || !view.u32(offset, &size32) ||
        !view.u32(offset + 4, &child->type)) {
        return false;
    }
    uint64_t size = size32, header = 8;
    if (size32 == 1) {
        if (parentEnd - offset < 16 || !view.u64(offset + 8, &size)) return false;
        header = 16;
    } else if (size32 == 0) {
        size = parentEnd - offset;  // to the end of the parent
    }
    if (size < header || size > parentEnd - offset) return false;
    child->payloadStart = offset + header;
    child->end = offset + size;
    return true;
}

template <class Visit>
void forEachChild(const PayloadView& view, uint64_t start, uint64_t end, Visit visit) {
    Child child;
    // Every step advances by at least 8 bytes: the walk is bounded by the
    // payload's length.
    for (uint64_t offset = start; offset < end && childAt(view, offset, end, &child);
         offset = child.end) {
        visit(child);
    }
}

MP4Tag emptyTag(uint32_t code, uint32_t parent = fourcc("udta")) {
    MP4Tag tag;
    std::memset(&tag, 0, sizeof tag);
    tag.code = code;
    tag.parent = parent;
    return tag;
}

// The packed ISO 639-2/T code of 3GPP and QuickTime texts: a pad bit and
// three 5-bit letters.
void unpackLanguage(uint16_t packed, uint8_t letters[3]) {
    letters[0] = static_cast<uint8_t>(((packed >> 10) & 31) + 0x60);
    letters[1] = static_cast<uint8_t>(((packed >> 5) & 31) + 0x60);
    letters[2] = static_cast<uint8_t>((packed & 31) + 0x60);
}

// One "ilst" item: one tag per "data" child; a free-form item's "name".
void collectItem(const PayloadView& view, const Child& item, std::vector<TagPlace>* tags) {
    char name[sizeof(MP4Tag::name)] = "";
    forEachChild(view, item.payloadStart, item.end, [&](const Child& child) {
        if (child.type != fourcc("name") || child.end - child.payloadStart < 4) return;
        uint64_t count = std::min<uint64_t>(child.end - child.payloadStart - 4, sizeof name - 1);
        if (view.bytes(child.payloadStart + 4, reinterpret_cast<uint8_t*>(name), count)) {
            name[count] = '\0';
        }
    });
    forEachChild(view, item.payloadStart, item.end, [&](const Child& child) {
        // "data": type indicator (version byte, 24-bit type), locale, value.
        uint32_t indicator = 0;
        if (child.type != fourcc("data") || child.end - child.payloadStart < 8 ||
            !view.u32(child.payloadStart, &indicator) ||
            child.end - child.payloadStart - 8 > UINT32_MAX) {
            return;
        }
        TagPlace place{emptyTag(item.type, fourcc("ilst")), view.box(), child.payloadStart + 8};
        place.tag.dataType = indicator & 0xFFFFFF;
        place.tag.valueLength = static_cast<uint32_t>(child.end - child.payloadStart - 8);
        std::memcpy(place.tag.name, name, sizeof name);
        tags->push_back(place);
    });
}

void collectMeta(const CBox* meta, std::vector<TagPlace>* tags) {
    PayloadView view(meta);
    // ISO "meta" is a full box; QuickTime writes it without version and
    // flags, its first child ("hdlr") then starts at once.
    uint32_t second = 0;
    uint64_t start = view.u32(4, &second) && second == fourcc("hdlr") ? 0 : 4;
    forEachChild(view, start, view.length(), [&](const Child& child) {
        if (child.type != fourcc("ilst")) return;
        forEachChild(view, child.payloadStart, child.end,
                     [&](const Child& item) { collectItem(view, item, tags); });
    });
}

// "albm" (3GPP TS 26.244): version and flags, language, text with its
// terminator, then an optional track number byte.
void collectAlbum(const CBox* box, std::vector<TagPlace>* tags) {
    PayloadView view(box);
    uint8_t head[6];
    if (view.length() < 7 || view.length() - 6 > UINT32_MAX || !view.bytes(0, head, 6)) return;
    TagPlace place{emptyTag(box->type), box, 6};
    unpackLanguage(static_cast<uint16_t>((head[4] << 8) | head[5]), place.tag.language);
    place.tag.dataType = MP4_TAG_UTF8;
    uint32_t textLength = static_cast<uint32_t>(view.length() - 6);
    // The text ends at its terminator; a byte after it is the track number.
    std::vector<uint8_t> rest(textLength);
    if (!view.bytes(6, rest.data(), textLength)) return;
    auto zero = std::find(rest.begin(), rest.end(), 0);
    if (zero != rest.end()) {
        textLength = static_cast<uint32_t>(zero - rest.begin()) + 1;
        if (zero + 1 != rest.end()) place.tag.albumTrack = *(zero + 1);
    }
    place.tag.valueLength = textLength;
    tags->push_back(place);
}

// "yrrc": version and flags, then the year as u16.
void collectYear(const CBox* box, std::vector<TagPlace>* tags) {
    if (box->keptPayload().length() < 6) return;
    TagPlace place{emptyTag(box->type), box, 4};
    place.tag.dataType = MP4_TAG_UNSIGNED;
    place.tag.valueLength = 2;
    tags->push_back(place);
}

// A QuickTime user-data text item ("©" codes): strings of a u16 length, a
// u16 language (a packed ISO code from 0x400 on, else a Macintosh code)
// and the text; the first string is taken.
void collectQuickTimeText(const CBox* box, std::vector<TagPlace>* tags) {
    PayloadView view(box);
    uint8_t head[4];
    if (view.length() < 4 || !view.bytes(0, head, 4)) return;
    const uint32_t length = (uint32_t{head[0]} << 8) | head[1];
    if (length > view.length() - 4) return;
    TagPlace place{emptyTag(box->type), box, 4};
    const uint16_t language = static_cast<uint16_t>((head[2] << 8) | head[3]);
    if (language >= 0x400 && language != 0x7FFF) unpackLanguage(language, place.tag.language);
    place.tag.dataType = MP4_TAG_UTF8;
    place.tag.valueLength = length;
    tags->push_back(place);
}

void collectChildren(CBox* parent, bool userData, std::vector<TagPlace>* tags) {
    CBoxList* list = parent ? parent->childList() : nullptr;
    for (CBoxList::Node* node = list ? list->head() : nullptr; node; node = node->next) {
        const CBox* box = node->box;
        if (box->type == fourcc("meta")) collectMeta(box, tags);
        if (userData && box->type == fourcc("albm")) collectAlbum(box, tags);
        if (userData && box->type == fourcc("yrrc")) collectYear(box, tags);
        if (userData && (box->type >> 24) == 0xA9) collectQuickTimeText(box, tags);
    }
}

// Every tag of the file, in file order: those of "moov"/"udta" first, then
// a "meta" directly in "moov". Parsed afresh on each call: the lists are
// short, and nothing is kept that a later change of the tree could stale.
MP4Err collectTags(CMp4File* file, std::vector<TagPlace>* tags) {
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!impl) return MP4_ERR_INVALID_ARGUMENT;
    if (!impl->isOpenFlag()) return MP4_ERR_NOT_AVAILABLE;
    CBox* moov = nullptr;
    MP4Err err = impl->findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    CBox* udta = nullptr;
    err = moov->findChild(fourcc("udta"), &udta, 1);
    if (err != MP4_OK && err != MP4_ERR_NOT_AVAILABLE) return err;
    try {
        collectChildren(udta, true, tags);
        collectChildren(moov, false, tags);
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

}  // namespace

MP4Err Mp4GetTagCount(CMp4File* file, uint32_t* count) {
    if (!file || !count) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    std::vector<TagPlace> tags;
    MP4Err err = collectTags(file, &tags);
    if (err == MP4_OK) *count = static_cast<uint32_t>(tags.size());
    return err;
}

MP4Err Mp4GetTag(CMp4File* file, uint32_t index, MP4Tag* tag, uint8_t* value,
                 uint32_t bufferSize) {
    if (!file || !tag) return MP4_ERR_INVALID_ARGUMENT;
    *tag = emptyTag(0);
    if (index == 0) return MP4_ERR_BAD_INDEX;
    std::vector<TagPlace> tags;
    MP4Err err = collectTags(file, &tags);
    if (err != MP4_OK) return err;
    if (index > tags.size()) return MP4_ERR_NOT_AVAILABLE;
    const TagPlace& place = tags[index - 1];
    *tag = place.tag;
    if (!value) return MP4_OK;
    if (bufferSize < place.tag.valueLength) return MP4_ERR_BUFFER_TOO_SMALL;
    return place.box->keptPayload().read(place.valueStart, value, place.tag.valueLength);
}

}  // namespace quil
