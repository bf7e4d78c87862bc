// The box walk of quil/Mp4BoxWalk.h: box headers read from the file's
// bytes, containers entered by a table of what comes before their children.
#include <sys/stat.h>

#include <string>
#include <vector>

#include "boxes/BoxFactory.h"
#include "file/Mp4FileImpl.h"
#include "io/FieldLister.h"
#include "quil/Mp4BoxWalk.h"

namespace quil {
namespace {

// Containers whose children follow the header at once.
constexpr uint32_t kPlainContainers[] = {
    fourcc("moov"), fourcc("trak"), fourcc("mdia"), fourcc("minf"), fourcc("stbl"),
    fourcc("dinf"), fourcc("edts"), fourcc("udta"), fourcc("mvex"), fourcc("moof"),
    fourcc("traf"), fourcc("mfra"), fourcc("tref"), fourcc("sinf"), fourcc("schi"),
    fourcc("rinf"), fourcc("wave"), fourcc("gmhd"), fourcc("tapt"), fourcc("hnti"),
    fourcc("hinf"), fourcc("ilst"), fourcc("meco"), fourcc("strk"), fourcc("strd"),
};

class Walker {
public:
    Walker(CMp4FileImpl* file, uint64_t length, MP4BoxVisitor visitor, void* user)
        : file_(file), length_(length), visitor_(visitor), user_(user) {}

    MP4Err walk() { return walkChildren(0, length_, 0, "", 0); }

private:
    struct Header {
        uint32_t type = 0;
        uint64_t size = 0;
        uint32_t headerSize = 8;
    };

    bool read(uint64_t offset, uint8_t* bytes, uint32_t count) {
        return file_->readMediaBytes(offset, count, bytes) == MP4_OK;
    }

    bool u32(uint64_t offset, uint32_t* value) {
        uint8_t b[4];
        if (!read(offset, b, 4)) return false;
        *value = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
        return true;
    }

    // The header at offset within [offset, end); false when it is damaged
    // or the box does not fit.
    bool header(uint64_t offset, uint64_t end, Header* h) {
        uint32_t size32 = 0;
        if (end - offset < 8 || !u32(offset, &size32) || !u32(offset + 4, &h->type)) return false;
        h->size = size32;
        h->headerSize = 8;
        if (size32 == 1) {
            uint32_t high = 0, low = 0;
            if (end - offset < 16 || !u32(offset + 8, &high) || !u32(offset + 12, &low)) return false;
            h->size = (uint64_t{high} << 32) | low;
            h->headerSize = 16;
        } else if (size32 == 0) {
            h->size = end - offset;
        }
        if (h->type == fourcc("uuid")) h->headerSize += 16;
        return h->size >= h->headerSize && h->size <= end - offset;
    }

    // Bytes of fields before the children, or -1 for a leaf.
    int64_t childrenStart(const Header& h, uint64_t payload, uint32_t parentType,
                          uint32_t handler) {
        for (uint32_t type : kPlainContainers) {
            if (h.type == type) return 0;
        }
        if (parentType == fourcc("ilst")) return 0;  // an iTunes item holds "data" boxes
        if (h.type == fourcc("stsd") || h.type == fourcc("dref")) return 8;
        if (h.type == fourcc("meta")) {
            // QuickTime writes "meta" without version and flags.
            uint32_t second = 0;
            return u32(payload + 4, &second) && second == fourcc("hdlr") ? 0 : 4;
        }
        if (parentType != fourcc("stsd")) return -1;
        if (handler == fourcc("vide")) return 78;
        if (handler == fourcc("soun")) {
            // The version of the sound entry: QuickTime versions 1 and 2 add fields.
            uint8_t version[2] = {0, 0};
            if (!read(payload + 8, version, 2)) return -1;
            return version[1] == 1 ? 44 : version[1] == 2 ? 64 : 28;
        }
        return -1;
    }

    MP4Err walkChildren(uint64_t start, uint64_t end, uint32_t depth, const std::string& parentPath,
                        uint32_t parentType) {
        std::vector<std::pair<uint32_t, uint32_t>> seen;  // type, count: for [n] in paths
        Header h;
        for (uint64_t at = start; at < end && header(at, end, &h); at += h.size) {
            uint32_t nth = 1;
            for (auto& entry : seen) {
                if (entry.first == h.type) nth = ++entry.second;
            }
            if (nth == 1) seen.push_back({h.type, 1});
            std::string path = parentPath.empty() ? "" : parentPath + "/";
            path += typeText(h.type);
            if (nth > 1) path += "[" + std::to_string(nth) + "]";
            MP4Err err = visit(h, at, depth, path, parentType);
            if (err != MP4_OK) return err;
        }
        return MP4_OK;
    }

    MP4Err visit(const Header& h, uint64_t at, uint32_t depth, const std::string& path,
                 uint32_t parentType) {
        if (h.type == fourcc("trak")) handler_ = 0;
        const uint64_t payload = at + h.headerSize;
        const uint64_t end = at + h.size;
        if (h.type == fourcc("hdlr") && parentType == fourcc("mdia")) {
            (void)u32(payload + 8, &handler_);
        }
        const int64_t fields = depth < kMaxDepth ? childrenStart(h, payload, parentType, handler_) : -1;
        MP4BoxVisit box{h.type, at, h.size, h.headerSize, depth, path.c_str(),
                        h.size - h.headerSize, 0, handler_};
        // The children are counted first, so the visit can say how many.
        uint64_t childEnd = payload + static_cast<uint64_t>(fields < 0 ? 0 : fields);
        if (fields >= 0 && childEnd <= end) {
            Header child;
            for (uint64_t c = childEnd; c < end && header(c, end, &child); c += child.size) {
                ++box.childCount;
                childEnd = c + child.size;
            }
            box.payloadLength = static_cast<uint64_t>(fields) + (end - childEnd);
        }
        MP4Err err = visitor_(&box, user_);
        if (err != MP4_OK || box.childCount == 0) return err;
        return walkChildren(payload + static_cast<uint64_t>(fields), end, depth + 1, path, h.type);
    }

    static std::string typeText(uint32_t type) {
        std::string text;
        for (int shift = 24; shift >= 0; shift -= 8) {
            // The copyright sign of iTunes and QuickTime item codes in UTF-8.
            const unsigned char c = static_cast<unsigned char>(type >> shift);
            if (c == 0xA9) text += "\xC2\xA9";
            else text += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
        }
        return text;
    }

    static constexpr uint32_t kMaxDepth = 64;  // as deep as the box reader goes

    CMp4FileImpl* file_;
    uint64_t length_;
    MP4BoxVisitor visitor_;
    void* user_;
    uint32_t handler_ = 0;
};

MP4Err openForReading(CMp4File* file, CMp4FileImpl** impl) {
    *impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!*impl) return MP4_ERR_INVALID_ARGUMENT;
    return (*impl)->isOpenFlag() && (*impl)->mode() == 0 ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

}  // namespace

MP4Err Mp4VisitBoxes(CMp4File* file, MP4BoxVisitor visitor, void* user) {
    if (!file || !visitor) return MP4_ERR_INVALID_ARGUMENT;
    CMp4FileImpl* impl = nullptr;
    MP4Err err = openForReading(file, &impl);
    if (err != MP4_OK) return err;
    uint64_t length = 0;
    struct stat info {};
    if (impl->readPath() && ::stat(impl->readPath(), &info) == 0) {
        length = static_cast<uint64_t>(info.st_size);
    } else if (impl->storage()->getLength(&length) != MP4_OK) {
        return MP4_ERR_IO;
    }
    return Walker(impl, length, visitor, user).walk();
}

namespace {

// A box's payload, read from the file as the lister reaches it.
class PayloadBytes : public ListedBytes {
public:
    PayloadBytes(CMp4FileImpl* file, uint64_t start) : file_(file), start_(start) {}
    bool read(uint64_t offset, uint8_t* out, uint32_t count) override {
        return file_->readMediaBytes(start_ + offset, count, out) == MP4_OK;
    }

private:
    CMp4FileImpl* file_;
    uint64_t start_;
};

}  // namespace

MP4Err Mp4DescribeBox(CMp4File* file, const MP4BoxVisit* box, uint32_t entries,
                      MP4FieldVisitor visitor, void* user) {
    if (!file || !box || !visitor) return MP4_ERR_INVALID_ARGUMENT;
    CMp4FileImpl* impl = nullptr;
    MP4Err err = openForReading(file, &impl);
    if (err != MP4_OK) return err;
    // A QuickTime "meta" (no version and flags) holds children only.
    if (box->type == fourcc("meta") && box->payloadLength == 0) return MP4_OK;
    PayloadBytes bytes(impl, box->offset + box->headerSize);
    const uint64_t payload = box->size > box->headerSize ? box->size - box->headerSize : 0;
    FieldLister lister(&bytes, payload, entries);
    if (listBoxFields(box->type, lister) == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
    static_assert(static_cast<int>(ListedForm::kTable) == MP4_FIELD_TABLE &&
                      static_cast<int>(ListedForm::kCodes) == MP4_FIELD_CODES,
                  "listed forms are published as they are");
    for (const ListedField& listed : lister.listed()) {
        const MP4BoxField field{listed.key, listed.entry, static_cast<uint8_t>(listed.form), listed.number,
                                reinterpret_cast<const uint8_t*>(listed.bytes.data()),
                                static_cast<uint32_t>(listed.bytes.size())};
        err = visitor(&field, user);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err Mp4ReadFileBytes(CMp4File* file, uint64_t offset, uint8_t* buffer, uint32_t count) {
    if (!file || (!buffer && count != 0)) return MP4_ERR_INVALID_ARGUMENT;
    CMp4FileImpl* impl = nullptr;
    MP4Err err = openForReading(file, &impl);
    if (err != MP4_OK) return err;
    return count == 0 ? MP4_OK : impl->readMediaBytes(offset, count, buffer);
}

}  // namespace quil
