// The box factory and its registration table. Adding a box is one row here
// plus its class.
#include "BoxFactory.h"

#include <algorithm>
#include <memory>
#include <new>

#include "CodecBoxes.h"
#include "CompressedMovie.h"
#include "ConfigBoxes.h"
#include "EncryptionBoxes.h"
#include "FragmentBoxes.h"
#include "MetaDataBoxes.h"
#include "MovieBoxes.h"
#include "PspBoxes.h"
#include "SampleEntries.h"
#include "boxes/HintBoxes.h"
#include "storage/BaseStorage.h"
#include "storage/BoundedStorage.h"
#include "boxes/SampleTableBoxes.h"
#include "io/FieldLister.h"

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
    {fourcc("ftyp"), kAny, 0, make<CFileTypeBox>},
    {fourcc("moov"), kAny, 0, make<CMovieBox>},
    {fourcc("mvhd"), kAny, 0, make<CMovieHeaderBox>},
    {fourcc("trak"), kAny, 0, make<CTrackBox>},
    {fourcc("tkhd"), kAny, 0, make<CTrackHeaderBox>},
    {fourcc("tref"), kAny, 0, make<CTrackReferenceBox>},
    {fourcc("hint"), kAny, 0, make<CTrackReferenceTypeBox>},
    {fourcc("mpod"), kAny, 0, make<CTrackReferenceTypeBox>},
    {fourcc("tmcd"), kOnly, fourcc("tref"), make<CTrackReferenceTypeBox>},
    {fourcc("tmcd"), kOnly, fourcc("gmhd"), make<CTimeCodeInformationListBox>},
    {fourcc("mdia"), kAny, 0, make<CMediaBox>},
    {fourcc("mdhd"), kAny, 0, make<CMediaHeaderBox>},
    {fourcc("hdlr"), kAnyBut, fourcc("meta"), make<CHandlerReferenceBox>},
    {fourcc("minf"), kAny, 0, make<CMediaInformationBox>},
    {fourcc("vmhd"), kAny, 0, make<CVideoMediaHeaderBox>},
    {fourcc("smhd"), kAny, 0, make<CSoundMediaHeaderBox>},
    {fourcc("hmhd"), kAny, 0, make<CHintMediaHeaderBox>},
    {fourcc("nmhd"), kAny, 0, make<CNullMediaHeaderBox>},
    {fourcc("gmhd"), kAny, 0, make<CBaseMediaHeaderBox>},
    {fourcc("tcmi"), kAny, 0, make<CTimeCodeMediaHeaderBox>},
    {fourcc("dinf"), kAny, 0, make<CDataInformationBox>},
    {fourcc("dref"), kAny, 0, make<CDataReferenceBox>},
    {fourcc("url "), kAny, 0, make<CDataEntryURLBox>},
    {fourcc("urn "), kAny, 0, make<CDataEntryURNBox>},
    {fourcc("udta"), kAny, 0, make<CUserDataBox>},
    {fourcc("mdat"), kAny, 0, make<CMediaDataBox>},

    // Sample tables (boxes/SampleTableBoxes.h)
    {fourcc("edts"), kAny, 0, make<CEditBox>},
    {fourcc("elst"), kAny, 0, make<CEditListBox>},
    {fourcc("stbl"), kAny, 0, make<CSampleTableBox>},
    {fourcc("stts"), kAny, 0, make<CTimeToSampleBox>},
    {fourcc("ctts"), kAny, 0, make<CCompositionOffsetBox>},
    {fourcc("stsc"), kAny, 0, make<CSampleToChunkBox>},
    {fourcc("stsz"), kAny, 0, make<CSampleSizeBox>},
    {fourcc("stco"), kAny, 0, make<CChunkOffsetBox>},
    {fourcc("co64"), kAny, 0, make<CChunkLargeOffsetBox>},
    {fourcc("stss"), kAny, 0, make<CSyncSampleBox>},

    // Movie fragments, segments and their indexes (FragmentBoxes.h)
    {fourcc("mvex"), kAny, 0, make<CMovieExtendsBox>},
    {fourcc("mehd"), kOnly, fourcc("mvex"), make<CMovieExtendsHeaderBox>},
    {fourcc("trex"), kOnly, fourcc("mvex"), make<CTrackExtendsBox>},
    {fourcc("moof"), kAny, 0, make<CMovieFragmentBox>},
    {fourcc("mfhd"), kOnly, fourcc("moof"), make<CMovieFragmentHeaderBox>},
    {fourcc("traf"), kOnly, fourcc("moof"), make<CTrackFragmentBox>},
    {fourcc("tfhd"), kOnly, fourcc("traf"), make<CTrackFragmentHeaderBox>},
    {fourcc("tfdt"), kOnly, fourcc("traf"), make<CTrackFragmentDecodeTimeBox>},
    {fourcc("trun"), kOnly, fourcc("traf"), make<CTrackRunBox>},
    {fourcc("sbgp"), kOnly, fourcc("traf"), make<Opaque>},
    {fourcc("sgpd"), kOnly, fourcc("traf"), make<Opaque>},
    {fourcc("subs"), kOnly, fourcc("traf"), make<Opaque>},
    {fourcc("senc"), kOnly, fourcc("traf"), make<Opaque>},
    {fourcc("saiz"), kOnly, fourcc("traf"), make<Opaque>},
    {fourcc("saio"), kOnly, fourcc("traf"), make<Opaque>},
    {fourcc("sidx"), kAny, 0, make<CSegmentIndexBox>},
    {fourcc("styp"), kAny, 0, make<CFileTypeBox>},
    {fourcc("mfra"), kAny, 0, make<CMovieFragmentRandomAccessBox>},
    {fourcc("tfra"), kOnly, fourcc("mfra"), make<CTrackFragmentRandomAccessBox>},
    {fourcc("mfro"), kOnly, fourcc("mfra"), make<CMovieFragmentRandomAccessOffsetBox>},
    {fourcc("emsg"), kAny, 0, make<CEventMessageBox>},
    {fourcc("prft"), kAny, 0, make<CProducerReferenceTimeBox>},

    // Sample description and sample entries (SampleEntries.h)
    {fourcc("stsd"), kAny, 0, make<CSampleDescriptionBox>},
    {fourcc("tmcd"), kOnly, fourcc("stsd"), make<CTimeCodeSampleEntry>},
    {fourcc("mp4v"), kAny, 0, make<CMP4VisualSampleEntry>},
    {fourcc("mp4a"), kAnyBut, fourcc("wave"), make<CMP4AudioSampleEntry>},
    {fourcc("mp4s"), kAny, 0, make<CMP4MpegSampleEntry>},
    {fourcc("avc1"), kAny, 0, make<CAVCSampleEntry>},
    {fourcc("hvc1"), kAny, 0, make<CHEVCSampleEntry>},
    {fourcc("hev1"), kAny, 0, make<CHEVCSampleEntry>},
    {fourcc("s263"), kAny, 0, make<CH263SampleEntry>},
    {fourcc("samr"), kAny, 0, make<CAMRNBSampleEntry>},
    {fourcc("sawb"), kAny, 0, make<CAMRWBSampleEntry>},
    {fourcc("jpeg"), kAny, 0, make<CMjpegSampleEntry>},
    {fourcc("2vuy"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("QUd1"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("QUdv"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("cvid"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dc25"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dv25"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dv50"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dv5n"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvc "), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvcp"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvh1"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvh3"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvh5"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvh6"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvh7"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvhd"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("dvpp"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("h263"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("mjpa"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("mjpb"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("mx5p"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("png "), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("raw "), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("xdvc"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("NONE"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("twos"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("sowt"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("in24"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("fl32"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("lpcm"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("alaw"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("ulaw"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("Qclp"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {0x6D730055, kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {0x6D730011, kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},  // IMA ADPCM
    {0x6D730002, kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},  // MS ADPCM
    // ISO/IEC 23003-5 PCM: an ISO audio entry, the sound description's
    // version 0 layout.
    {fourcc("ipcm"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("fpcm"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},

    // Codec-specific boxes (CodecBoxes.h)
    {fourcc("d263"), kAny, 0, make<CH263SpecificBox>},
    {fourcc("damr"), kAny, 0, make<CAMRSpecificBox>},
    {fourcc("btrt"), kAny, 0, make<CMPEG4BitRateBox>},
    {fourcc("pasp"), kAny, 0, make<CPixelAspectRatioBox>},
    {fourcc("wave"), kAny, 0, make<CWaveBox>},
    {fourcc("enda"), kAny, 0, make<CEndianFormatBox>},
    {fourcc("chan"), kAny, 0, make<CChannelCompositionBox>},
    {fourcc("pcmC"), kAny, 0, make<CPcmConfigBox>},

    // Common encryption (EncryptionBoxes.h): the protected entries keep
    // the layout of the entry they wrap; "sinf" and "schi" hold boxes.
    {fourcc("saio"), kAny, 0, make<CSampleAuxInfoOffsetsBox>},
    {fourcc("encv"), kAny, 0, make<CVisualSampleEntry>},
    {fourcc("enca"), kAnyBut, fourcc("wave"), make<CSoundSampleEntry>},
    {fourcc("sinf"), kAny, 0, make<Container>},
    {fourcc("schi"), kAny, 0, make<Container>},

    // Boxes wrapping decoder configuration records and descriptors (ConfigBoxes.h)
    {fourcc("avcC"), kAny, 0, make<CAVCConfigurationBox>},
    {fourcc("hvcC"), kAny, 0, make<CHEVCConfigurationBox>},
    {fourcc("esds"), kAny, 0, make<CESDBox>},
    {fourcc("iods"), kAny, 0, make<CObjectDescriptorBox>},

    // User data and metadata (MetaDataBoxes.h)
    {fourcc("titl"), kAny, 0, make<CTitleBox>},
    {fourcc("auth"), kAny, 0, make<CAuthorBox>},
    {fourcc("perf"), kAny, 0, make<CPerformerBox>},
    {fourcc("dscp"), kAny, 0, make<CDescriptionBox>},
    {fourcc("gnre"), kAnyBut, fourcc("ilst"), make<CGenreBox>},
    {fourcc("cprt"), kAnyBut, fourcc("ilst"), make<CCopyrightBox>},
    {fourcc("rtng"), kAnyBut, fourcc("ilst"), make<CRatingBox>},
    {fourcc("clsf"), kAny, 0, make<CClassificationBox>},
    {fourcc("kywd"), kAny, 0, make<CKeywordBox>},
    {fourcc("FPRF"), kAny, 0, make<CPspFprfBox>},
    {fourcc("APRF"), kAny, 0, make<CPspAprfBox>},
    {fourcc("VPRF"), kAny, 0, make<CPspVprfBox>},
    {fourcc("MTDT"), kAny, 0, make<CPspMtdtBox>},
    {fourcc("pdin"), kAny, 0, make<CProgressiveDownloadInfoBox>},
    {fourcc("tsel"), kAny, 0, make<CTrackSelectionBox>},
    {fourcc("pinf"), kAny, 0, make<CPurchaseInformationBox>},
    {fourcc("ilst"), kAny, 0, make<Container>},

    // Compressed movie
    {fourcc("cmov"), kAny, 0, make<CCompressedMovieBox>},
    {fourcc("dcom"), kAny, 0, make<CDataCompressionBox>},
    {fourcc("cmvd"), kAny, 0, make<CCompressedMovieDataBox>},

    // RTP hint tracks (boxes/HintBoxes.h)
    {fourcc("rtp "), kOnly, fourcc("stsd"), make<CRtpHintSampleEntry>},
    {fourcc("rtp "), kOnly, fourcc("hnti"), make<CRtpMovieHintInformationBox>},
    {fourcc("rtp "), kAny, 0, nullptr},  // anywhere else: 8, payload not skipped
    {fourcc("hnti"), kAny, 0, make<CMovieHintInformationBox>},
    {fourcc("sdp "), kAny, 0, make<CRtpTrackSdpHintInformationBox>},
    {fourcc("rtpo"), kAny, 0, make<CRTPOffsetTLVBox>},
    {fourcc("tims"), kAny, 0, make<CTimeScaleEntryBox>},
    {fourcc("tsro"), kAny, 0, make<CTimeStampOffsetBox>},
    {fourcc("snro"), kAny, 0, make<CSequenceOffsetBox>},
};

// "uuid" boxes are told apart by the first four bytes of their user type.
struct UuidRow {
    uint8_t prefix[4];
    CBox* (*create)();
};
const UuidRow kUuidRows[] = {
    {{0x50, 0x52, 0x4F, 0x46}, make<CPspProfBox>},  // PSP profile ("PROF")
    {{0x55, 0x53, 0x4D, 0x54}, make<CPspUsmtBox>},  // PSP user metadata ("USMT")
    {{0x6B, 0x68, 0x40, 0xF2}, make<CAppleAvcBox>},  // Apple AVC private data
};

}  // namespace

const BoxFactoryRow* boxFactoryTable(uint32_t* rowCount) {
    *rowCount = sizeof(kRows) / sizeof(kRows[0]);
    return kRows;
}

MP4Err listBoxFields(uint32_t type, FieldLister& io) {
    // "meta" is kept unparsed and has no class: its own fields are the
    // version and flags.
    if (type == fourcc("meta")) {
        uint8_t version = 0;
        uint32_t flags = 0;
        return io.versionAndFlags(version, flags).error();
    }
    for (const BoxFactoryRow& row : kRows) {
        if (row.type != type || !row.create) continue;
        std::unique_ptr<CBox> box(row.create());
        return box ? box->listFields(io) : MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_ERR_NOT_AVAILABLE;
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

// A box whose reader failed keeps what it read for the library's own use,
// and its bytes as they were for writing: a rewrite then reproduces what the
// file held instead of a half-read box. Where the bytes cannot be had again,
// the box is simply written from its fields.
void keepAsRead(CBox* box, CBoundedStorage* window, uint64_t start, uint64_t payload) {
    if (window->seek(start) != MP4_OK) return;
    box->remaining = payload;
    if (box->keepPayload(window) == MP4_OK) box->writeAsRead();
}

// Reads a known box's payload through its window and leaves the storage at
// the box's end. What the reader left unread is skipped; a box too short for
// its own fields ends where it ends and is kept with what it read, so the
// damage stays inside it and its parent reads on with the next sibling.
MP4Err readPayloadInWindow(CBox* box, CStorage* storage, uint64_t payload) {
    uint64_t start = 0;
    MP4Err err = storage->getPosition(&start);
    if (err != MP4_OK) return err;
    CReadWindow window(storage, start + payload);
    if (!window.ok()) return MP4_ERR_IO;
    err = box->read(window.storage());
    // The count left is taken from where the storage stands, not from the
    // reader's own arithmetic.
    const uint64_t unread = window.storage()->left();
    if (err != MP4_OK) keepAsRead(box, window.storage(), start, payload);
    box->remaining = window.storage()->left();
    MP4Err skipped = box->remaining != 0 ? window.storage()->skip(box->remaining) : MP4_OK;
    box->remaining = 0;
    // A reader that stopped early is accepted when the rest skips; one
    // that ran out of box ends where the box ends.
    if (unread != 0 || err == MP4_ERR_BAD_BOX_SIZE) return skipped;
    return err;
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
        err = readPayloadInWindow(result.get(), storage, payload);
    } else {
        *type = 0;
        result = std::move(header);
        err = result->keepPayload(storage);
    }
    if (err != MP4_OK) return err;

    *parentRemaining -= payload;
    *box = result.release();
    return MP4_OK;
}

}  // namespace quil
