// The box factory and its registration table. Adding a box is one row here
// plus its class.
#include "BoxFactory.h"

#include <algorithm>
#include <memory>
#include <new>

#include "CodecBoxes.h"
#include "ConfigBoxes.h"
#include "MovieBoxes.h"
#include "SampleEntries.h"
#include "storage/BaseStorage.h"
#include "track/SampleTables.h"

namespace quil {
namespace {

template <class T>
CBox* make() {
    return new (std::nothrow) T();
}

// Boxes read but not interpreted yet: COpaqueBox keeps the header and lets
// the factory skip the payload; CContainerBox reads the children.
using Opaque = COpaqueBox;
using Container = CContainerBox;

constexpr ParentRule kAny = ParentRule::Any;
constexpr ParentRule kAnyBut = ParentRule::AnyBut;
constexpr ParentRule kOnly = ParentRule::Only;

const BoxFactoryRow kRows[] = {
    // Movie and track structure (MovieBoxes.h)
    {fourcc("ftyp"), kAny, 0, make<Opaque>},
    {fourcc("moov"), kAny, 0, make<Container>},
    {fourcc("mvhd"), kAny, 0, make<Opaque>},
    {fourcc("trak"), kAny, 0, make<Container>},
    {fourcc("tkhd"), kAny, 0, make<Opaque>},
    {fourcc("tref"), kAny, 0, make<Container>},
    {fourcc("hint"), kAny, 0, make<Opaque>},
    {fourcc("mpod"), kAny, 0, make<Opaque>},
    {fourcc("tmcd"), kOnly, fourcc("tref"), make<Opaque>},
    {fourcc("tmcd"), kOnly, fourcc("gmhd"), make<Container>},
    {fourcc("mdia"), kAny, 0, make<Container>},
    {fourcc("mdhd"), kAny, 0, make<Opaque>},
    {fourcc("hdlr"), kAnyBut, fourcc("meta"), make<Opaque>},
    {fourcc("minf"), kAny, 0, make<Container>},
    {fourcc("vmhd"), kAny, 0, make<Opaque>},
    {fourcc("smhd"), kAny, 0, make<Opaque>},
    {fourcc("hmhd"), kAny, 0, make<Opaque>},
    {fourcc("nmhd"), kAny, 0, make<Opaque>},
    {fourcc("gmhd"), kAny, 0, make<Container>},
    {fourcc("tcmi"), kAny, 0, make<Opaque>},
    {fourcc("dinf"), kAny, 0, make<Container>},
    {fourcc("dref"), kAny, 0, make<Opaque>},
    {fourcc("url "), kAny, 0, make<Opaque>},
    {fourcc("urn "), kAny, 0, make<Opaque>},
    {fourcc("udta"), kAny, 0, make<Container>},
    {fourcc("mdat"), kAny, 0, make<Opaque>},

    // Sample tables (track/SampleTables.h)
    {fourcc("edts"), kAny, 0, make<Container>},
    {fourcc("elst"), kAny, 0, make<Opaque>},
    {fourcc("stbl"), kAny, 0, make<Container>},
    {fourcc("stts"), kAny, 0, make<Opaque>},
    {fourcc("ctts"), kAny, 0, make<Opaque>},
    {fourcc("stsc"), kAny, 0, make<Opaque>},
    {fourcc("stsz"), kAny, 0, make<Opaque>},
    {fourcc("stco"), kAny, 0, make<Opaque>},
    {fourcc("co64"), kAny, 0, make<Opaque>},
    {fourcc("stss"), kAny, 0, make<Opaque>},

    // Sample description and sample entries (SampleEntries.h)
    {fourcc("stsd"), kAny, 0, make<Opaque>},
    {fourcc("tmcd"), kOnly, fourcc("stsd"), make<Opaque>},
    {fourcc("mp4v"), kAny, 0, make<Opaque>},
    {fourcc("mp4a"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("mp4s"), kAny, 0, make<Opaque>},
    {fourcc("avc1"), kAny, 0, make<Opaque>},
    {fourcc("hvc1"), kAny, 0, make<Opaque>},
    {fourcc("hev1"), kAny, 0, make<Opaque>},
    {fourcc("s263"), kAny, 0, make<Opaque>},
    {fourcc("samr"), kAny, 0, make<Opaque>},
    {fourcc("sawb"), kAny, 0, make<Opaque>},
    {fourcc("jpeg"), kAny, 0, make<Opaque>},
    {fourcc("2vuy"), kAny, 0, make<Opaque>},
    {fourcc("QUd1"), kAny, 0, make<Opaque>},
    {fourcc("QUdv"), kAny, 0, make<Opaque>},
    {fourcc("cvid"), kAny, 0, make<Opaque>},
    {fourcc("dc25"), kAny, 0, make<Opaque>},
    {fourcc("dv25"), kAny, 0, make<Opaque>},
    {fourcc("dv50"), kAny, 0, make<Opaque>},
    {fourcc("dv5n"), kAny, 0, make<Opaque>},
    {fourcc("dvc "), kAny, 0, make<Opaque>},
    {fourcc("dvcp"), kAny, 0, make<Opaque>},
    {fourcc("dvh1"), kAny, 0, make<Opaque>},
    {fourcc("dvh3"), kAny, 0, make<Opaque>},
    {fourcc("dvh5"), kAny, 0, make<Opaque>},
    {fourcc("dvh6"), kAny, 0, make<Opaque>},
    {fourcc("dvh7"), kAny, 0, make<Opaque>},
    {fourcc("dvhd"), kAny, 0, make<Opaque>},
    {fourcc("dvpp"), kAny, 0, make<Opaque>},
    {fourcc("h263"), kAny, 0, make<Opaque>},
    {fourcc("mjpa"), kAny, 0, make<Opaque>},
    {fourcc("mjpb"), kAny, 0, make<Opaque>},
    {fourcc("mx5p"), kAny, 0, make<Opaque>},
    {fourcc("png "), kAny, 0, make<Opaque>},
    {fourcc("raw "), kAny, 0, make<Opaque>},
    {fourcc("xdvc"), kAny, 0, make<Opaque>},
    {fourcc("NONE"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("twos"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("sowt"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("in24"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("fl32"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("lpcm"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("alaw"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("ulaw"), kAnyBut, fourcc("wave"), make<Opaque>},
    {fourcc("Qclp"), kAnyBut, fourcc("wave"), make<Opaque>},
    {0x6D730055, kAnyBut, fourcc("wave"), make<Opaque>},

    // Codec-specific boxes (CodecBoxes.h)
    {fourcc("d263"), kAny, 0, make<Opaque>},
    {fourcc("damr"), kAny, 0, make<Opaque>},
    {fourcc("btrt"), kAny, 0, make<Opaque>},
    {fourcc("pasp"), kAny, 0, make<Opaque>},
    {fourcc("wave"), kAny, 0, make<Container>},
    {fourcc("enda"), kAny, 0, make<Opaque>},
    {fourcc("chan"), kAny, 0, make<Opaque>},

    // Boxes wrapping decoder configuration records and descriptors (ConfigBoxes.h)
    {fourcc("avcC"), kAny, 0, make<CAVCConfigurationBox>},
    {fourcc("hvcC"), kAny, 0, make<CHEVCConfigurationBox>},
    {fourcc("esds"), kAny, 0, make<CESDBox>},
    {fourcc("iods"), kAny, 0, make<CObjectDescriptorBox>},

    // User data and metadata
    {fourcc("titl"), kAny, 0, make<Opaque>},
    {fourcc("auth"), kAny, 0, make<Opaque>},
    {fourcc("perf"), kAny, 0, make<Opaque>},
    {fourcc("dscp"), kAny, 0, make<Opaque>},
    {fourcc("gnre"), kAnyBut, fourcc("ilst"), make<Opaque>},
    {fourcc("cprt"), kAnyBut, fourcc("ilst"), make<Opaque>},
    {fourcc("rtng"), kAnyBut, fourcc("ilst"), make<Opaque>},
    {fourcc("clsf"), kAny, 0, make<Opaque>},
    {fourcc("kywd"), kAny, 0, make<Opaque>},
    {fourcc("FPRF"), kAny, 0, make<Opaque>},
    {fourcc("APRF"), kAny, 0, make<Opaque>},
    {fourcc("VPRF"), kAny, 0, make<Opaque>},
    {fourcc("MTDT"), kAny, 0, make<Opaque>},
    {fourcc("pdin"), kAny, 0, make<Opaque>},
    {fourcc("tsel"), kAny, 0, make<Opaque>},
    {fourcc("pinf"), kAny, 0, make<Opaque>},
    {fourcc("ilst"), kAny, 0, make<Container>},

    // Compressed movie
    {fourcc("cmov"), kAny, 0, make<Container>},
    {fourcc("dcom"), kAny, 0, make<Opaque>},
    {fourcc("cmvd"), kAny, 0, make<Opaque>},

    // Hint information
    {fourcc("rtp "), kOnly, fourcc("stsd"), make<Opaque>},
    {fourcc("rtp "), kOnly, fourcc("hnti"), make<Opaque>},
    {fourcc("rtp "), kAny, 0, nullptr},  // anywhere else: 8, payload not skipped
    {fourcc("hnti"), kAny, 0, make<Container>},
    {fourcc("sdp "), kAny, 0, make<Opaque>},
    {fourcc("rtpo"), kAny, 0, make<Opaque>},
    {fourcc("tims"), kAny, 0, make<Opaque>},
    {fourcc("tsro"), kAny, 0, make<Opaque>},
    {fourcc("snro"), kAny, 0, make<Opaque>},
};

// "uuid" boxes are told apart by the first four bytes of their user type.
struct UuidRow {
    uint8_t prefix[4];
    CBox* (*create)();
};
const UuidRow kUuidRows[] = {
    {{0x50, 0x52, 0x4F, 0x46}, make<Opaque>},  // PSP profile ("PROF")
    {{0x55, 0x53, 0x4D, 0x54}, make<Opaque>},  // PSP user metadata ("USMT")
    {{0x6B, 0x68, 0x40, 0xF2}, make<Opaque>},  // Apple AVC private data
};

}  // namespace

const BoxFactoryRow* boxFactoryTable(uint32_t* rowCount) {
    *rowCount = sizeof(kRows) / sizeof(kRows[0]);
    return kRows;
}

}  // namespace quil

namespace quil {
namespace {

uint32_t gBoxNesting = 0;

// Raises the nesting counter for the lifetime of one readBox call.
class NestingScope {
public:
    NestingScope() { ++gBoxNesting; }
    ~NestingScope() { --gBoxNesting; }
};

enum class Lookup { Known, Unknown, Forbidden };

// Finds the class for a type under a parent. Rows restricted to a parent
// are tried before the general row of the same type.
Lookup findRow(const CBox& header, uint32_t parentType, CBox* (**create)()) {
    if (header.type == fourcc("uuid")) {
        for (const UuidRow& row : kUuidRows) {
            if (header.usertype && std::equal(row.prefix, row.prefix + 4, header.usertype.get())) {
                *create = row.create;
                return Lookup::Known;
            }
        }
        return Lookup::Unknown;
    }
    for (const BoxFactoryRow& row : kRows) {
        if (row.type != header.type) continue;
        if (row.rule == ParentRule::Only && row.parent != parentType) continue;
        if (row.rule == ParentRule::AnyBut && row.parent == parentType) return Lookup::Unknown;
        if (!row.create) return Lookup::Forbidden;
        *create = row.create;
        return Lookup::Known;
    }
    return Lookup::Unknown;
}

}  // namespace

void resetBoxNesting() { gBoxNesting = 0; }
uint32_t boxNesting() { return gBoxNesting; }

MP4Err readBox(CStorage* storage, uint32_t parentType, CBox** box, uint32_t* type,
               uint64_t* parentRemaining) {
    *box = nullptr;
    NestingScope nesting;
    // Each level costs stack in read, dump and destruction: refuse boxes
    // nested deeper than any real file needs.
    if (boxNesting() > kMaxBoxNesting) return MP4_ERR_INVALID_DATA;

    std::unique_ptr<CBox> header(new (std::nothrow) CBox());
    if (!header) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = header->read(storage);
    if (err != MP4_OK) return err;

    *type = header->type;
    uint64_t payload = header->remaining;
    uint64_t total = 0;
    header->getSize(&total);
    if (total < payload) return MP4_ERR_BAD_BOX_SIZE;
    uint64_t headerLength = total - payload;
    if (headerLength > *parentRemaining) return MP4_ERR_BAD_BOX_SIZE;
    *parentRemaining -= headerLength;
    if (payload > *parentRemaining) return MP4_ERR_NOT_AVAILABLE;

    // A zero type ends the reading of a "wave" box.
    if (header->type == 0 && parentType == fourcc("wave")) return MP4_ERR_NOT_AVAILABLE;

    CBox* (*create)() = nullptr;
    Lookup lookup = findRow(*header, parentType, &create);
    if (lookup == Lookup::Forbidden) return MP4_ERR_WRONG_LAYOUT;

    std::unique_ptr<CBox> result;
    if (lookup == Lookup::Known) {
        result.reset(create());
        if (!result) return MP4_ERR_OUT_OF_MEMORY;
        err = result->copyHeaderFrom(*header);
        if (err != MP4_OK) return err;
        header.reset();
        err = result->read(storage);
        // Unread payload is skipped; a successful skip accepts a box whose
        // payload reader stopped early.
        if (result->remaining != 0) err = storage->skip(result->remaining);
    } else {
        *type = 0;
        result = std::move(header);
        err = storage->skip(result->remaining);
    }
    if (err != MP4_OK) return err;

    *parentRemaining -= payload;
    // Nothing after the media data is read from a network storage.
    if (result->type == fourcc("mdat") && isNetworkStorage(storage)) *parentRemaining = 0;
    *box = result.release();
    return MP4_OK;
}

}  // namespace quil
