// copyUserData: the user data of a file being read, copied into a file
// being written (the remux path), box for box.
#include <memory>
#include <new>

#include "Mp4FileImpl.h"
#include "boxes/BoxFactory.h"
#include "boxes/MovieBoxes.h"
#include "storage/MemoryStorage.h"
#include "track/SampleEntryBuilder.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

// User data larger than this is not metadata any player reads; refusing it
// bounds the copy's memory.
constexpr uint64_t kMaxUserDataBytes = 64ull << 20;

// The movie (track 0) or the track-th "trak" of a file's movie.
MP4Err findOwner(CMp4FileImpl* file, uint32_t track, CBox** owner) {
    CBox* moov = nullptr;
    MP4Err err = file->findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK || track == 0) {
        *owner = moov;
        return err;
    }
    return moov->findChild(fourcc("trak"), owner, track);
}

// RTP session data ("hnti") belongs to the source's hint tracks: it goes
// along only into a file that holds hint tracks (copies of them).
bool isCopied(const CBox* box, bool keepSession) {
    return keepSession || box->type != fourcc("hnti");
}

// The copy goes through the boxes' own writers and readers: whatever a
// box keeps when written and read back is kept in the copy.
MP4Err serializeChildren(CBoxList* children, bool keepSession, std::unique_ptr<uint8_t[]>* bytes,
                         uint32_t* length) {
    uint64_t total = 0;
    for (CBoxList::Node* node = children->head(); node; node = node->next) {
        if (!isCopied(node->box, keepSession)) continue;
        // A box kept as read (damaged, or known only as bytes) goes as read.
        MP4Err err = sizeBox(node->box);
        uint64_t size = 0;
        if (err == MP4_OK) err = node->box->getSize(&size);
        if (err != MP4_OK) return err;
        total += size;
        if (total > kMaxUserDataBytes) return MP4_ERR_VALUE_TOO_LARGE;
    }
    *length = static_cast<uint32_t>(total);
    bytes->reset(new (std::nothrow) uint8_t[total > 0 ? total : 1]);
    if (!*bytes) return MP4_ERR_OUT_OF_MEMORY;
    CMemoryStorage storage;
    storage.attach(bytes->get(), *length, true);
    MP4Err err = storage.open(1);
    for (CBoxList::Node* node = children->head(); err == MP4_OK && node; node = node->next) {
        if (isCopied(node->box, keepSession)) err = writeBox(node->box, &storage);
    }
    storage.detach();
    return err;
}

MP4Err targetUserData(CBox* owner, CBox** udta) {
    MP4Err err = owner->findChild(fourcc("udta"), udta);
    if (err != MP4_ERR_NOT_AVAILABLE) return err;
    std::unique_ptr<CUserDataBox> made(new (std::nothrow) CUserDataBox());
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    err = owner->addChild(made.get());
    if (err != MP4_OK) return err;
    *udta = made.release();
    return MP4_OK;
}

}  // namespace

MP4Err CMp4FileImpl::copyUserData(CMp4File* source, uint32_t sourceTrack, uint32_t targetTrack) {
    if (source == nullptr || (sourceTrack == 0) != (targetTrack == 0)) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    CMp4FileImpl* from = dynamic_cast<CMp4FileImpl*>(source);
    if (from == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    if (isOpen_ == 0 || mode_ != 1 || !from->isOpenFlag()) return MP4_ERR_NOT_AVAILABLE;

    CBox *sourceOwner = nullptr, *targetOwner = nullptr, *sourceUdta = nullptr;
    MP4Err err = findOwner(from, sourceTrack, &sourceOwner);
    if (err == MP4_OK) err = findOwner(this, targetTrack, &targetOwner);
    if (err == MP4_OK) err = sourceOwner->findChild(fourcc("udta"), &sourceUdta);
    if (err != MP4_OK) return err;
    CBoxList* children = sourceUdta->childList();
    if (children == nullptr || children->count() == 0) return MP4_ERR_NOT_AVAILABLE;

    std::unique_ptr<uint8_t[]> bytes;
    uint32_t length = 0;
    bool keepSession = false;
    for (CTrackImpl* track : writingTracks_) {
        uint32_t kind = 0;
        if (track->getTrackType(&kind) == MP4_OK && kind == MP4_TRACK_HINT) keepSession = true;
    }
    err = serializeChildren(children, keepSession, &bytes, &length);
    if (err != MP4_OK) return err;

    CBox* udta = nullptr;
    err = targetUserData(targetOwner, &udta);
    if (err != MP4_OK) return err;
    std::unique_ptr<CBoxList>* list = nullptr;
    CContainerBox* container = dynamic_cast<CContainerBox*>(udta);
    if (container == nullptr) return MP4_ERR_INVALID_DATA;
    list = &container->children;
    if (!*list) {
        err = startChildList(list, container);
        if (err != MP4_OK) return err;
    }
    CMemoryStorage storage;
    storage.attach(bytes.get(), length, false);
    err = storage.open(0);
    uint64_t remaining = length;
    if (err == MP4_OK) err = readChildren(list->get(), &storage, &remaining);
    storage.detach();
    return err;
}

// The movie's boxes this file does not make itself: protection system
// data ("pssh"), movie-level metadata, boxes the library does not know.
MP4Err CMp4FileImpl::copyMovieBoxes(CMp4File* source) {
    CMp4FileImpl* from = dynamic_cast<CMp4FileImpl*>(source);
    if (from == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    if (isOpen_ == 0 || mode_ != 1 || !from->isOpenFlag()) return MP4_ERR_NOT_AVAILABLE;
    CBox *sourceMoov = nullptr, *moov = nullptr;
    MP4Err err = findOwner(from, 0, &sourceMoov);
    if (err == MP4_OK) err = findOwner(this, 0, &moov);
    if (err != MP4_OK) return err;
    CBoxList* children = sourceMoov->childList();
    // A compressed movie's boxes are those of the movie inside it.
    CBox *compressed = nullptr, *data = nullptr, *inner = nullptr;
    if (children && children->findNth(fourcc("cmov"), &compressed, 1) == MP4_OK) {
        const bool found = compressed->findChild(fourcc("cmvd"), &data) == MP4_OK &&
                           data->findChild(fourcc("moov"), &inner) == MP4_OK;
        children = found ? inner->childList() : nullptr;
    }
    for (CBoxList::Node* node = children ? children->head() : nullptr; node; node = node->next) {
        switch (node->box->type) {
            // Made by the writer, the tracks or copyUserData; fragments
            // are not written; media data read as a child of a movie box
            // that runs to the end of the file is the writer's to write.
            case fourcc("mvhd"): case fourcc("trak"): case fourcc("udta"): case fourcc("iods"):
            case fourcc("mvex"): case fourcc("mdat"):
                continue;
            default: break;
        }
        CBox* copy = nullptr;
        if ((err = copyBox(node->box, fourcc("moov"), &copy)) != MP4_OK) return err;
        std::unique_ptr<CBox> owned(copy);
        if ((err = moov->addChild(copy)) != MP4_OK) return err;
        owned.release();
    }
    return MP4_OK;
}

}  // namespace quil
