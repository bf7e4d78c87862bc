// The file object: opening a file for reading, the top-level box tree,
// movie-level properties and the track objects handed to the caller.
#include "Mp4FileImpl.h"

#include <cstring>
#include <cwchar>
#include <new>

#include "boxes/BoxFactory.h"
#include "io/Dump.h"
#include "boxes/MovieBoxes.h"
#include "meta/MetaDataImpl.h"
#include "quil/Mp4MetaData.h"
#include "storage/DiscStorage.h"
#include "storage/NetStorage.h"
#include "storage/WidePath.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr uint32_t kMaxMode = 1;             // 0 read, 1 write
constexpr uint32_t kMaxFileType = MP4_FILE_QUICKTIME;
constexpr uint32_t kMaxTrackMode = 2;

// Major brands that select a file type when reading; any other brand is
// plain MPEG-4. Compatible brands are deliberately not consulted.
struct BrandFileType {
    uint32_t brand;
    MP4FileType fileType;
};
constexpr BrandFileType kBrandFileTypes[] = {
    {fourcc("3gp4"), MP4_FILE_3GPP4}, {fourcc("3gp5"), MP4_FILE_3GPP5},
    {fourcc("3gp6"), MP4_FILE_3GPP6}, {fourcc("avc1"), MP4_FILE_AVC},
    {fourcc("3g2a"), MP4_FILE_3GPP2}, {fourcc("MSNV"), MP4_FILE_PSP},
    {fourcc("M4A "), MP4_FILE_M4A},   {fourcc("XAVC"), MP4_FILE_XAVC},
};

MP4FileType fileTypeForBrand(uint32_t majorBrand) {
    for (const BrandFileType& entry : kBrandFileTypes) {
        if (entry.brand == majorBrand) return entry.fileType;
    }
    return MP4_FILE_MPEG4;
}

bool isHttpPath(const wchar_t* path) {
    // Case-sensitive and only at the very start: "HTTP://..." or
    // "/tmp/http" name files on disc.
    return path != nullptr && std::wcsncmp(path, L"http", 4) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Creation and destruction

MP4Err CMp4File::createInstance(CMp4File** file) {
    if (file == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *file = nullptr;
    CMp4FileImpl* impl = new (std::nothrow) CMp4FileImpl();
    if (impl == nullptr) return MP4_ERR_OUT_OF_MEMORY;
    *file = impl;
    return MP4_OK;
}

MP4Err CMp4File::destroyInstance(CMp4File** file) {
    if (file == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    // A file being written and never closed would stay without its movie
    // box, unplayable: it is finished here, and a failure is reported.
    MP4Err err = MP4_OK;
    auto* impl = dynamic_cast<CMp4FileImpl*>(*file);
    if (impl != nullptr && impl->isOpenForWriting()) err = impl->close();
    delete *file;
    *file = nullptr;
    return err;
}

CMp4FileImpl::CMp4FileImpl() = default;

CMp4FileImpl::~CMp4FileImpl() {
    delete metaData_;
    // Tracks the caller still holds must not reach into freed boxes.
    forgetWritingTracks();
    // A client should close first. If it did not, release what open made
    // rather than leak a stream; a supplied storage stays the caller's.
    if (isOpen_ != 0 && storageSupplied_ == 0 && storage_ != nullptr) {
        (void)storage_->close();
        delete storage_;
    }
}

// ---------------------------------------------------------------------------
// open and close

MP4Err CMp4FileImpl::open(const wchar_t* path, uint32_t mode, uint32_t fileType) {
    if (isOpen_ != 0) return MP4_ERR_NOT_AVAILABLE;
    path_.reset();
    readPathUtf8_.clear();
    mediaReader_.close();
    hasHintTracks_ = 0;  // belongs to the file being opened, not the object
    storageSupplied_ = storage_ != nullptr ? 1 : 0;

    if (storageSupplied_ == 0) {
        MP4Err err = makeStorageForPath(path);
        if (err != MP4_OK) return storage_ != nullptr ? failOpen(err) : err;
    }
    // Checked only now, after the storage exists: the failure exit then
    // releases it like any other failure.
    if (mode > kMaxMode) return failOpen(MP4_ERR_INVALID_ARGUMENT);
    mode_ = mode;
    if (fileType > kMaxFileType) return failOpen(MP4_ERR_INVALID_ARGUMENT);
    fileType_ = fileType;

    MP4Err err = storage_->open(mode_);
    if (err != MP4_OK) return failOpen(err);
    err = mode_ == 0 ? readTopLevel() : startWriting();
    // The top level ends quietly at a failed read, which then looks like a
    // file without a movie; over HTTP a failed transfer is the real cause.
    auto* net = dynamic_cast<CNetStorage*>(storage_);
    if (err == MP4_ERR_NOT_AVAILABLE && net != nullptr && net->transferFailed()) err = MP4_ERR_IO;
    if (err != MP4_OK) return failOpen(err);
    isOpen_ = 1;
    return MP4_OK;
}

MP4Err CMp4FileImpl::makeStorageForPath(const wchar_t* path) {
    CDiscStorage* disc = nullptr;
    CNetStorage* net = nullptr;
    if (isHttpPath(path)) {
        net = new (std::nothrow) CNetStorage();
        storage_ = net;
    } else {
        disc = new (std::nothrow) CDiscStorage();
        storage_ = disc;
    }
    if (storage_ == nullptr) return MP4_ERR_OUT_OF_MEMORY;
    if (path == nullptr) return MP4_ERR_INVALID_ARGUMENT;

    const size_t length = std::wcslen(path);
    path_.reset(new (std::nothrow) wchar_t[length + 1]);
    if (!path_) return MP4_ERR_OUT_OF_MEMORY;
    std::wmemcpy(path_.get(), path, length + 1);
    return net != nullptr ? net->setPath(path_.get()) : disc->setPath(path_.get());
}

MP4Err CMp4FileImpl::failOpen(MP4Err err) {
    if (storage_ != nullptr) {
        (void)storage_->close();
        if (storageSupplied_ == 0) deleteOwnedStorage();
    }
    // The partly read tree is of no use to anyone: free it at once.
    topLevelBoxes_.reset();
    readPathUtf8_.clear();
    mediaReader_.close();
    return err;
}

void CMp4FileImpl::deleteOwnedStorage() {
    delete storage_;
    storage_ = nullptr;
}

MP4Err CMp4FileImpl::readTopLevel() {
    MP4Err err = readBoxTree();
    if (err != MP4_OK) return err;
    detectFileType();
    err = countTracks();
    if (err != MP4_OK) return err;
    if (storageSupplied_ == 0 && !isNetworkStorage(storage_)) {
        // A disc storage made from the path: samples are read through a
        // handle of their own. A URL has no path to reopen.
        const wchar_t* kept = static_cast<CDiscStorage*>(storage_)->path();
        err = widePathToUtf8(kept, &readPathUtf8_);
    }
    return err;
}

MP4Err CMp4FileImpl::readBoxTree() {
    // The file level is the one box list without an owner: the factory
    // sees parent type 0 and the container loop's leniency applies.
    topLevelBoxes_.reset(new (std::nothrow) CBoxList(nullptr));
    if (!topLevelBoxes_) return MP4_ERR_OUT_OF_MEMORY;
    uint64_t length = 0;
    MP4Err err = storage_->getLength(&length);
    if (err != MP4_OK) return err;
    uint64_t position = 0;
    err = storage_->getPosition(&position);
    if (err != MP4_OK) return err;
    uint64_t remaining = length > position ? length - position : 0;
    resetBoxNesting();
    return readChildren(topLevelBoxes_.get(), storage_, &remaining);
}

void CMp4FileImpl::detectFileType() {
    CBox* box = nullptr;
    if (findTopLevelBox(fourcc("ftyp"), &box) != MP4_OK) {
        fileType_ = MP4_FILE_NO_FTYP;
        return;
    }
    const CFileTypeBox* ftyp = dynamic_cast<const CFileTypeBox*>(box);
    fileType_ = fileTypeForBrand(ftyp != nullptr ? ftyp->majorBrand : 0);
}

MP4Err CMp4FileImpl::countTracks() {
    CBox* moov = nullptr;
    MP4Err err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;  // no movie: 3
    uint32_t count = 0;
    for (;;) {
        CBox* trak = nullptr;
        err = moov->findChild(fourcc("trak"), &trak, count + 1);
        if (err == MP4_ERR_NOT_AVAILABLE) break;
        if (err != MP4_OK) return err;
        ++count;
    }
    trackCount_ = count;
    return MP4_OK;
}

MP4Err CMp4FileImpl::close() {
    if (isOpen_ == 0) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = MP4_OK;
    if (mode_ == 1 && (err = finishWriting()) != MP4_OK) return err;  // still open
    err = storage_->close();
    // A stream whose close failed after the movie was written is closed all
    // the same (fclose releases it whatever it reports): a retried close
    // then finds it closed and finishes.
    if (err == MP4_ERR_NOT_AVAILABLE && mode_ == 1 && movieWritten_) err = MP4_OK;
    if (err != MP4_OK) return err;  // the object stays open
    releaseAfterClose();
    return MP4_OK;
}

void CMp4FileImpl::releaseAfterClose() {
    forgetWritingTracks();
    isOpen_ = 0;
    delete metaData_;
    metaData_ = nullptr;
    if (storageSupplied_ == 0) deleteOwnedStorage();
    topLevelBoxes_.reset();
    path_.reset();
    readPathUtf8_.clear();
    mediaReader_.close();
}

// ---------------------------------------------------------------------------
// State and movie-level properties

MP4Err CMp4FileImpl::isOpen(uint32_t* open) {
    if (open == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *open = isOpen_;
    return MP4_OK;
}

MP4Err CMp4FileImpl::setStorage(CStorage* storage) {
    // Swapping the storage under an open file would orphan the one in use
    // (and leak it when it was made by open).
    if (isOpen_ != 0) return MP4_ERR_NOT_AVAILABLE;
    // Null is accepted: it returns the object to making its own storage.
    storage_ = storage;
    return MP4_OK;
}

MP4Err CMp4FileImpl::getTrackCount(uint32_t* count) {
    if (count == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *count = trackCount_;
    return MP4_OK;
}

MP4Err CMp4FileImpl::getFragmentCount(uint32_t* count) {
    if (count == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    if (!isOpen_ || !topLevelBoxes_) return MP4_ERR_IO;
    for (CBoxList::Node* n = topLevelBoxes_->head(); n; n = n->next) {
        if (n->box->type == fourcc("moof")) ++*count;
    }
    return MP4_OK;
}

MP4Err CMp4FileImpl::getFileType(uint32_t* fileType) {
    if (fileType == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *fileType = fileType_;
    return isOpen_ != 0 ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4FileImpl::findTopLevelBox(uint32_t type, CBox** box) {
    if (box == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *box = nullptr;
    if (!topLevelBoxes_) return MP4_ERR_NOT_AVAILABLE;
    return topLevelBoxes_->findNth(type, box, 1);
}

MP4Err CMp4FileImpl::findMovieHeader(CMovieHeaderBox** header) {
    *header = nullptr;
    CBox* moov = nullptr;
    MP4Err err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    CBox* box = nullptr;
    err = moov->findChild(fourcc("mvhd"), &box, 1);
    if (err != MP4_OK) return err;
    *header = dynamic_cast<CMovieHeaderBox*>(box);
    return *header != nullptr ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4FileImpl::getTimeScale(uint32_t* timeScale) {
    if (timeScale == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *timeScale = 0;
    CMovieHeaderBox* mvhd = nullptr;
    MP4Err err = findMovieHeader(&mvhd);
    if (err != MP4_OK) return err;
    *timeScale = mvhd->timeScale;
    return MP4_OK;
}

MP4Err CMp4FileImpl::getCreationTime(uint32_t* year, uint32_t* month, uint32_t* day,
                                     uint32_t* hour, uint32_t* minute, uint32_t* second) {
    if (!year || !month || !day || !hour || !minute || !second) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    *year = *month = *day = *hour = *minute = *second = 0;
    CMovieHeaderBox* mvhd = nullptr;
    MP4Err err = findMovieHeader(&mvhd);
    if (err != MP4_OK) return err;
    if (!secondsToDate(mvhd->creationTime, year, month, day, hour, minute, second)) {
        // Year 2200 or later: the value is not a date this format can carry.
        *year = *month = *day = *hour = *minute = *second = 0;
        return MP4_ERR_INVALID_DATA;
    }
    return MP4_OK;
}

MP4Err CMp4FileImpl::setCreationTime(uint32_t year, uint32_t month, uint32_t day,
                                     uint32_t hour, uint32_t minute, uint32_t second) {
    uint64_t seconds = 0;
    MP4Err err = dateToSeconds(year, month, day, hour, minute, second, &seconds);
    if (err != MP4_OK) return err;
    CMovieHeaderBox* mvhd = nullptr;
    err = findMovieHeader(&mvhd);
    if (err != MP4_OK) return err;
    mvhd->creationTime = seconds;
    if (mvhd->modificationTime < seconds) mvhd->modificationTime = seconds;
    // Version 0 stores the times in 32 bits (dates up to 2040-02-06);
    // later dates need the 64-bit layout or they would be cut on writing.
    if (seconds > UINT32_MAX) mvhd->version = 1;
    return MP4_OK;
}

MP4Err CMp4FileImpl::setTrackMode(uint32_t trackMode) {
    if (trackMode > kMaxTrackMode) return MP4_ERR_INVALID_ARGUMENT;
    trackMode_ = trackMode;
    return MP4_OK;
}

MP4Err CMp4FileImpl::setHintTrackContext(CMp4HintTrackContext* context) {
    hintTrackContext_ = context;
    return MP4_OK;
}

const char* CMp4FileImpl::readPath() const {
    if (isOpen_ == 0 || readPathUtf8_.empty()) return nullptr;
    return readPathUtf8_.c_str();
}

// ---------------------------------------------------------------------------
// Tracks

MP4Err CMp4FileImpl::getTrack(uint32_t trackNumber, CMp4Track** track) {
    if (track == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *track = nullptr;
    if (trackNumber == 0 || trackNumber > trackCount_) return MP4_ERR_NOT_AVAILABLE;
    // Tracks being written are the ones addTrack handed out; binding a
    // reader to their tables while they grow would disturb them.
    if (mode_ == 1) return MP4_ERR_NOT_AVAILABLE;
    CTrackImpl* impl = new (std::nothrow) CTrackImpl(this, trackMode_);
    if (impl == nullptr) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = impl->bind(trackNumber);
    if (err != MP4_OK) {
        delete impl;
        return err;
    }
    *track = impl;
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// Dump

MP4Err CMp4FileImpl::dumpBoxes() {
    if (!topLevelBoxes_) return MP4_ERR_NOT_AVAILABLE;
    if (isOpen_ != 0 && mode_ == 1) {
        // Boxes made for writing carry no size until they compute it.
        for (CBoxList::Node* node = topLevelBoxes_->head(); node; node = node->next) {
            MP4Err err = node->box->calculateSize();
            if (err != MP4_OK) return err;
            uint64_t size = 0;
            err = node->box->getSize(&size);
            if (err != MP4_OK) return err;
        }
    }
    for (CBoxList::Node* node = topLevelBoxes_->head(); node; node = node->next) {
        MP4Err err = node->box->dump(0);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// Operations that arrive with writing, metadata and RTP hinting. They check
// their arguments so that callers get the same answers for misuse now.

// The "udta" of the movie; with create, one is added when missing.
MP4Err CMp4FileImpl::findMovieUserData(bool create, CBox** udta) {
    *udta = nullptr;
    if (isOpen_ == 0) return MP4_ERR_NOT_AVAILABLE;
    CBox* moov = nullptr;
    MP4Err err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    return findUserData(moov, create, udta);
}

MP4Err CMp4FileImpl::getCopyright(uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                                  uint32_t index) {
    if (length == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    if (buffer == nullptr && bufferSize != 0) return MP4_ERR_INVALID_ARGUMENT;
    CBox* udta = nullptr;
    MP4Err err = findMovieUserData(false, &udta);
    if (err != MP4_OK) return err;
    return getCopyrightNotice(udta, buffer, bufferSize, length, index);
}

MP4Err CMp4FileImpl::setCopyright(const uint8_t* text, uint64_t length, int32_t index) {
    if (index < 0 || (text == nullptr && length != 0)) return MP4_ERR_INVALID_ARGUMENT;
    CBox* udta = nullptr;
    MP4Err err = findMovieUserData(true, &udta);
    if (err != MP4_OK) return err;
    return setCopyrightNotice(udta, text, length, index);
}

MP4Err CMp4FileImpl::getMetaData(CMp4MetaData** metaData) {
    // A file being written gains the "udta" its metadata goes into.
    return metaDataFor(mode_ == 1, metaData);
}

MP4Err CMp4FileImpl::metaDataFor(bool create, CMp4MetaData** metaData) {
    if (metaData == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *metaData = nullptr;
    if (metaData_ == nullptr) {
        CBox* udta = nullptr;
        MP4Err err = findMovieUserData(create, &udta);
        if (err != MP4_OK) return err;
        metaData_ = new (std::nothrow) CMp4MetaDataImpl(udta);
        if (metaData_ == nullptr) return MP4_ERR_OUT_OF_MEMORY;
    }
    *metaData = metaData_;
    return MP4_OK;
}

// optimizeFile: Optimize.cpp. Hint tracks, the session SDP and the ISMA
// functions: HintSlots.cpp, with the work in the hint layer.

// ---------------------------------------------------------------------------

uint32_t Mp4VideoCodecId(const wchar_t* path) {
    CMp4File* file = nullptr;
    if (CMp4File::createInstance(&file) != MP4_OK) return 0;
    if (file->open(path, 0, 0) != MP4_OK) {
        CMp4File::destroyInstance(&file);
        return 0;
    }
    uint32_t count = 0;
    (void)file->getTrackCount(&count);
    uint32_t codec = 0;
    for (uint32_t number = 1; number <= count; ++number) {
        CMp4Track* track = nullptr;
        if (file->getTrack(number, &track) != MP4_OK) continue;  // not usable: skip it
        uint32_t kind = 0;
        const bool video = track->getTrackType(&kind) == MP4_OK && kind == MP4_TRACK_VIDEO;
        if (video && track->getSampleEntryType(&codec) != MP4_OK) codec = 0;
        (void)file->releaseTrack(track);
        if (video) break;
    }
    (void)file->close();
    CMp4File::destroyInstance(&file);
    return codec;
}

}  // namespace quil

namespace quil {

bool CMp4FileImpl::storageLength(uint64_t* length) {
    return storage_ != nullptr && storage_->getLength(length) == MP4_OK;
}

MP4Err CMp4FileImpl::readMediaBytes(uint64_t offset, uint32_t size, uint8_t* buffer,
                                    uint64_t readAheadEnd) {
    if (isOpen_ == 0 || mode_ != 0 || !storage_) return MP4_ERR_IO;
    if (!mediaReader_.ready()) {
        if (readPathUtf8_.empty()) {
            mediaReader_.useStorage(storage_);
        } else if (mediaReader_.open(readPathUtf8_) != MP4_OK) {
            return MP4_ERR_IO;
        }
    }
    return mediaReader_.read(offset, size, buffer, readAheadEnd);
}

MP4Err CMp4FileImpl::pathForReadingBack(std::string* path) {
    path->clear();
    if (isOpen_ == 0 || storage_ == nullptr) return MP4_ERR_NOT_AVAILABLE;
    if (storageSupplied_ != 0) return MP4_ERR_UNSUPPORTED;
    // Whatever the storage still buffers must reach the file first.
    MP4Err err = storage_->flush();
    if (err != MP4_OK) return err;
    return widePathToUtf8(static_cast<CDiscStorage*>(storage_)->path(), path);
}

MP4Err CMp4FileImpl::readBackMediaBytes(uint64_t offset, uint32_t size, uint8_t* buffer) {
    if (!mediaReader_.ready()) {
        std::string path;
        MP4Err err = pathForReadingBack(&path);
        if (err == MP4_OK) err = mediaReader_.open(path);
        if (err != MP4_OK) return err;
    }
    return mediaReader_.read(offset, size, buffer);
}

}  // namespace quil
