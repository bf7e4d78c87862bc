// Creating a file: "ftyp" and the "mdat" header at open, tracks added
// while the media data grows, and at close the "mdat" header rewritten with
// its final size and "moov" appended.
#include <algorithm>
#include <new>

#include "boxes/BoxFactory.h"
#include "boxes/ConfigBoxes.h"
#include "boxes/MovieBoxes.h"
#include "boxes/PspBoxes.h"
#include "file/FragmentWriter.h"
#include "file/Mp4FileImpl.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr uint64_t kProvisionalMediaDataSize = 0x100000000ull;  // forces the 16-byte header
constexpr uint64_t kMediaDataHeaderSize = 16;
constexpr uint64_t kWriteStep = 1u << 30;  // writeBytes counts in int32
constexpr uint32_t kTrackInMovie = 2;       // tkhd flag

struct FileTypeBrands {
    uint32_t majorBrand;
    uint32_t minorVersion;
    uint32_t compatible[3];
    int32_t compatibleCount;
};

// The "ftyp" written for each file type (index = MP4FileType); type 9
// writes none.
constexpr FileTypeBrands kFileTypeBrands[] = {
    {fourcc("mp42"), 1, {fourcc("mp42"), fourcc("isom")}, 2},                        // 0
    {fourcc("3gp4"), 512, {fourcc("3gp4"), fourcc("3gp5"), fourcc("isom")}, 3},      // 1
    {fourcc("M4A "), 0, {fourcc("mp42"), fourcc("isom")}, 2},                        // 2
    {fourcc("avc1"), 0, {fourcc("mp42"), fourcc("isom")}, 2},                        // 3
    {fourcc("MSNV"), 0x01000021, {fourcc("MSNV"), fourcc("isom"), fourcc("mp42")}, 3},  // 4
    {fourcc("mp42"), 1, {fourcc("mp42"), fourcc("isom")}, 2},                        // 5
    {fourcc("3gp5"), 512, {fourcc("3gp4"), fourcc("3gp5"), fourcc("isom")}, 3},      // 6
    {fourcc("3g2a"), 65536, {fourcc("3gp4"), fourcc("3gp5"), fourcc("isom")}, 3},    // 7
    // Release 6 lists "3gr6" (the progressive-download profile), not "3gp6".
    {fourcc("3gp6"), 512, {fourcc("isom"), fourcc("3gr6")}, 2},                      // 8
    {0, 0, {0}, 0},                                                                  // 9
    {fourcc("XAVC"), 0x01001FFF, {fourcc("XAVC"), fourcc("mp42"), fourcc("isom")}, 3},  // 10
    {fourcc("iso4"), 0, {fourcc("iso4"), fourcc("hvc1")}, 2},                        // 11
    {fourcc("qt  "), 512, {fourcc("qt  ")}, 1},                                      // 12
};

template <class T>
T* newBox(uint32_t type) {
    T* box = new (std::nothrow) T();
    if (box) box->type = type;
    return box;
}

// Sizes the box, then writes it.
MP4Err sizeAndWrite(CBox* box, CStorage* storage) {
    MP4Err err = box->calculateSize();
    return err == MP4_OK ? box->write(storage) : err;
}

// A failed flush of a disc storage is a failed write; memory storages
// answer 3, having nothing to push out.
MP4Err flushWritten(CStorage* storage) {
    MP4Err err = storage->flush();
    return err == MP4_ERR_IO ? err : MP4_OK;
}

}  // namespace

// ---- open -----------------------------------------------------------------

MP4Err CMp4FileImpl::startWriting() {
    nextPayloadType_ = 96;
    interleaving_.reset();
    movieDurationRule_ = MP4_MOVIE_DURATION_FIRST_TRACK;
    movieWritten_ = false;
    writingTracks_.clear();
    topLevelBoxes_.reset(new (std::nothrow) CBoxList(nullptr));
    if (!topLevelBoxes_) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = MP4_OK;
    if (fileType_ != MP4_FILE_NO_FTYP && (err = writeFileTypeBox()) != MP4_OK) return err;
    if ((err = makeMovieAndMediaData()) != MP4_OK) return err;
    if (isPspFileType() && (err = writePspProfileBox()) != MP4_OK) return err;
    if ((err = writeMediaDataHeader()) != MP4_OK) return err;
    trackCount_ = 0;
    if (fileType_ != MP4_FILE_MPEG4) return MP4_OK;
    return fillInitialObjectDescriptor();
}

MP4Err CMp4FileImpl::writeFileTypeBox() {
    const FileTypeBrands& brands = kFileTypeBrands[fileType_];
    std::unique_ptr<CFileTypeBox> ftyp(newBox<CFileTypeBox>(fourcc("ftyp")));
    if (!ftyp) return MP4_ERR_OUT_OF_MEMORY;
    ftyp->majorBrand = brands.majorBrand;
    ftyp->minorVersion = brands.minorVersion;
    MP4Err err = ftyp->setCompatibleBrands(brands.compatible, brands.compatibleCount);
    if (err != MP4_OK) return err;
    CFileTypeBox* box = ftyp.get();
    if ((err = topLevelBoxes_->append(box)) != MP4_OK) return err;
    ftyp.release();
    if ((err = storage_->getPosition(&fileTypeOffset_)) != MP4_OK) return err;
    return sizeAndWrite(box, storage_);
}

// Nothing but "ftyp" (and a "free" box an earlier call left) precedes the
// "mdat" header yet, so both are written again: the header right after
// the new "ftyp", or, when that is shorter, after a "free" box over the
// old bytes (of at least 8 bytes: the header then moves on by 8).
MP4Err CMp4FileImpl::setBrands(uint32_t majorBrand, uint32_t minorVersion,
                               const uint32_t* compatibleBrands, uint32_t count) {
    if ((count > 0 && !compatibleBrands) || count > 0x10000) return MP4_ERR_INVALID_ARGUMENT;
    if (isOpen_ == 0 || mode_ != 1 || fragmentWriter_ || isPspFileType()) {
        return MP4_ERR_NOT_AVAILABLE;
    }
    CMediaDataBox* mdat = nullptr;
    CBox* box = nullptr;
    MP4Err err = findMediaData(&mdat);
    if (err != MP4_OK) return err;
    if (mdat->dataSize != 0 || mediaDataEnd_ != mdat->boxOffset + kMediaDataHeaderSize) {
        return MP4_ERR_NOT_AVAILABLE;
    }
    if ((err = findTopLevelBox(fourcc("ftyp"), &box)) != MP4_OK) return err;
    auto* ftyp = dynamic_cast<CFileTypeBox*>(box);
    if (!ftyp) return MP4_ERR_INVALID_DATA;
    if ((err = ftyp->setCompatibleBrands(compatibleBrands, static_cast<int32_t>(count))) != MP4_OK) {
        return err;
    }
    ftyp->majorBrand = majorBrand;
    ftyp->minorVersion = minorVersion;
    uint64_t size = 0;
    if ((err = ftyp->calculateSize()) != MP4_OK || (err = ftyp->getSize(&size)) != MP4_OK ||
        (err = storage_->seek(fileTypeOffset_)) != MP4_OK ||
        (err = ftyp->write(storage_)) != MP4_OK) {
        return err;
    }
    const uint64_t end = fileTypeOffset_ + size;
    if (end < mdat->boxOffset) {
        uint64_t gap = mdat->boxOffset - end;
        if (gap < 8) gap += 8;
        if ((err = storage_->writeUInt32(static_cast<uint32_t>(gap))) != MP4_OK ||
            (err = storage_->writeUInt32(fourcc("free"))) != MP4_OK) {
            return err;
        }
        for (uint64_t i = 8; i < gap && err == MP4_OK; ++i) err = storage_->writeUInt8(0);
        if (err != MP4_OK) return err;
    }
    return writeMediaDataHeader();
}

// moov{mvhd, iods for type 0} and an empty mdat, in that order in the list.
MP4Err CMp4FileImpl::makeMovieAndMediaData() {
    std::unique_ptr<CMovieBox> moov(newBox<CMovieBox>(fourcc("moov")));
    std::unique_ptr<CMovieHeaderBox> mvhd(newBox<CMovieHeaderBox>(fourcc("mvhd")));
    std::unique_ptr<CMediaDataBox> mdat(newBox<CMediaDataBox>(fourcc("mdat")));
    if (!moov || !mvhd || !mdat) return MP4_ERR_OUT_OF_MEMORY;
    mvhd->nextTrackId = 1;
    MP4Err err = moov->addChild(mvhd.get());
    if (err != MP4_OK) return err;
    mvhd.release();
    if (fileType_ == MP4_FILE_MPEG4) {
        std::unique_ptr<CObjectDescriptorBox> iods(newBox<CObjectDescriptorBox>(fourcc("iods")));
        if (!iods) return MP4_ERR_OUT_OF_MEMORY;
        if ((err = moov->addChild(iods.get())) != MP4_OK) return err;
        iods.release();
    }
    if ((err = topLevelBoxes_->append(moov.get())) != MP4_OK) return err;
    moov.release();
    if ((err = topLevelBoxes_->append(mdat.get())) != MP4_OK) return err;
    mdat.release();
    return MP4_OK;
}

// The "mdat" header in its 16-byte form with a provisional size; close
// writes the real one over it.
MP4Err CMp4FileImpl::writeMediaDataHeader() {
    CMediaDataBox* mdat = nullptr;
    MP4Err err = findMediaData(&mdat);
    if (err != MP4_OK) return err;
    if ((err = storage_->getPosition(&mdat->boxOffset)) != MP4_OK) return err;
    mdat->size = kProvisionalMediaDataSize;
    mdat->dataSize = 0;
    // CMediaDataBox::write leaves the header to the file: only the header
    // writer runs here.
    if ((err = mdat->CBox::write(storage_)) != MP4_OK) return err;
    mediaDataEnd_ = mdat->boxOffset + kMediaDataHeaderSize;
    return flushWritten(storage_);
}

// Object descriptor 1 with the profile levels of an MPEG-4 file that
// requires no particular scene, graphics or OD capability: audio 0x0F,
// visual 0x03.
MP4Err CMp4FileImpl::fillInitialObjectDescriptor() {
    CBox* moov = nullptr;
    MP4Err err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    CBox* box = nullptr;
    if ((err = moov->findChild(fourcc("iods"), &box)) != MP4_OK) return err;
    auto* iods = dynamic_cast<CObjectDescriptorBox*>(box);
    if (!iods) return MP4_ERR_NOT_AVAILABLE;
    CInitialObjectDescriptor* descriptor = nullptr;
    if (iods->getDescriptor(&descriptor) != MP4_OK &&
        iods->createDescriptor(&descriptor) != MP4_OK) {
        return MP4_ERR_WRONG_LAYOUT;
    }
    if ((err = descriptor->setObjectDescriptorID(1)) != MP4_OK) return err;
    descriptor->includeInlineProfileLevelFlag = 0;
    descriptor->setProfileLevels(0xFF, 0xFF, 0x0F, 0x03, 0xFF);
    trackCount_ = 0;
    return MP4_OK;
}

MP4Err CMp4FileImpl::findMediaData(CMediaDataBox** mdat) {
    *mdat = nullptr;
    CBox* box = nullptr;
    MP4Err err = findTopLevelBox(fourcc("mdat"), &box);
    if (err != MP4_OK) return err;
    *mdat = dynamic_cast<CMediaDataBox*>(box);
    return *mdat ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

// ---- tracks ---------------------------------------------------------------

MP4Err CMp4FileImpl::addTrack(CMp4Track** track) {
    if (track == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *track = nullptr;
    if (isOpen_ == 0 || mode_ != 1) return MP4_ERR_NOT_AVAILABLE;
    if (fragmentWriter_ && fragmentWriter_->started()) return MP4_ERR_NOT_AVAILABLE;
    if (trackCount_ >= 0xFFFFFFFEu) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<CTrackImpl> impl(new (std::nothrow) CTrackImpl(this, trackMode_));
    if (!impl) return MP4_ERR_OUT_OF_MEMORY;
    try {
        writingTracks_.reserve(writingTracks_.size() + 1);
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    ++trackCount_;
    MP4Err err = impl->initWriting(trackCount_);
    if (err != MP4_OK) return err;
    CMovieHeaderBox* mvhd = nullptr;
    if ((err = findMovieHeader(&mvhd)) != MP4_OK) return err;
    // Copied tracks keep their IDs and may have raised it further.
    if (mvhd->nextTrackId < trackCount_ + 1) mvhd->nextTrackId = trackCount_ + 1;
    writingTracks_.push_back(impl.get());
    *track = impl.release();
    return MP4_OK;
}

MP4Err CMp4FileImpl::releaseTrack(CMp4Track* track) {
    if (track == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    auto writing = std::find(writingTracks_.begin(), writingTracks_.end(), track);
    if (writing != writingTracks_.end()) {
        // A failure leaves the track with the caller, nothing lost.
        MP4Err err = (*writing)->finalizeWriting();
        if (err != MP4_OK) return err;
        writingTracks_.erase(writing);
    }
    delete track;
    if (storage_ == nullptr) return MP4_ERR_NOT_AVAILABLE;
    // The flush result is reported although the track is gone already.
    return storage_->flush();
}

void CMp4FileImpl::forgetWritingTracks() {
    for (CTrackImpl* track : writingTracks_) track->detachFromFile();
    writingTracks_.clear();
}

MP4Err CMp4FileImpl::appendMediaData(const uint8_t* bytes, uint64_t length, uint64_t* offset) {
    *offset = 0;
    if (isOpen_ == 0 || mode_ != 1 || !storage_) return MP4_ERR_NOT_AVAILABLE;
    CMediaDataBox* mdat = nullptr;
    MP4Err err = findMediaData(&mdat);
    if (err != MP4_OK) return err;
    uint64_t position = 0;
    if ((err = storage_->getPosition(&position)) != MP4_OK) return err;
    // After a failed write the stream may stand anywhere in the chunk.
    if (position != mediaDataEnd_ && (err = storage_->seek(mediaDataEnd_)) != MP4_OK) return err;
    for (uint64_t done = 0; done < length;) {
        const uint64_t step = std::min(length - done, kWriteStep);
        err = storage_->writeBytes(bytes + done, static_cast<int32_t>(step));
        if (err != MP4_OK) return err;
        done += step;
    }
    if ((err = flushWritten(storage_)) != MP4_OK) return err;
    *offset = mediaDataEnd_;
    mediaDataEnd_ += length;
    mdat->dataSize += length;
    return MP4_OK;
}

// ---- close ----------------------------------------------------------------

// Every step can be run again: a close that failed (a full disc, say) is
// retried from the start and ends with the same file.
MP4Err CMp4FileImpl::finishWriting() {
    if (fragmentWriter_) return finishFragments();
    if (trackCount_ == 0) return MP4_OK;  // no movie without tracks
    if (movieWritten_) return MP4_OK;
    MP4Err err = finalizeOpenTracks();
    if (err == MP4_OK) err = setMovieDuration();
    if (err == MP4_OK) err = addPspUserData();
    if (err == MP4_OK) err = writeSessionSdp();
    if (err == MP4_OK) err = finishPspUserData();
    if (err == MP4_OK) err = rewriteMediaDataHeader();
    if (err == MP4_OK) err = appendMovie();
    if (err == MP4_OK) movieWritten_ = true;
    return err;
}

// Tracks still held by the caller are finished as releaseTrack would.
MP4Err CMp4FileImpl::finalizeOpenTracks() {
    for (CTrackImpl* track : writingTracks_) {
        MP4Err err = track->finalizeWriting();
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CMp4FileImpl::setMovieDurationRule(uint32_t rule) {
    if (rule > MP4_MOVIE_DURATION_LONGEST_TRACK) return MP4_ERR_INVALID_ARGUMENT;
    if (isOpen_ == 0 || mode_ != 1) return MP4_ERR_NOT_AVAILABLE;
    movieDurationRule_ = rule;
    return MP4_OK;
}

// The movie lasts as long as its first track by default, by design; asked
// for, as long as its longest. Read from the tracks' headers directly:
// binding track objects would build time tables for nothing.
MP4Err CMp4FileImpl::setMovieDuration() {
    CMovieHeaderBox* mvhd = nullptr;
    MP4Err err = findMovieHeader(&mvhd);
    if (err != MP4_OK) return err;
    CBox* moov = nullptr;
    if ((err = findTopLevelBox(fourcc("moov"), &moov)) != MP4_OK) return err;
    const uint32_t last = movieDurationRule_ == MP4_MOVIE_DURATION_LONGEST_TRACK ? trackCount_ : 1;
    // The longest of the tracks players present (track_in_movie: hint
    // tracks are not), or of all when none is.
    uint64_t longestPresented = 0, longest = 0;
    bool anyPresented = false;
    for (uint32_t number = 1; number <= last; ++number) {
        CBox* trak = nullptr;
        CBox* box = nullptr;
        if ((err = moov->findChild(fourcc("trak"), &trak, number)) != MP4_OK) {
            if (number > 1) break;  // fewer boxes than tracks counted: the first one decides
            return err;
        }
        if ((err = trak->findChild(fourcc("tkhd"), &box)) != MP4_OK) return err;
        auto* tkhd = dynamic_cast<CTrackHeaderBox*>(box);
        if (!tkhd) return MP4_ERR_INVALID_DATA;
        if (tkhd->duration > longest) longest = tkhd->duration;
        if ((tkhd->flags & kTrackInMovie) != 0) {
            anyPresented = true;
            if (tkhd->duration > longestPresented) longestPresented = tkhd->duration;
        }
    }
    // The first track alone (the default rule) gives its own duration.
    const uint64_t duration = anyPresented && last > 1 ? longestPresented : longest;
    mvhd->duration = duration;
    if (mvhd->duration > 0xFFFFFFFFull) mvhd->version = 1;
    return MP4_OK;
}

MP4Err CMp4FileImpl::rewriteMediaDataHeader() {
    CMediaDataBox* mdat = nullptr;
    MP4Err err = findMediaData(&mdat);
    if (err != MP4_OK) return err;
    if ((err = storage_->seek(mdat->boxOffset)) != MP4_OK) return err;
    // Within 4 GiB the header takes its 8-byte form; the 8 bytes after it,
    // written at open, stay as the first bytes of the payload (chunk
    // offsets point past them).
    if ((err = mdat->calculateSize()) != MP4_OK) return err;
    if ((err = mdat->CBox::write(storage_)) != MP4_OK) return err;
    return storage_->seek(mediaDataEnd_);
}

MP4Err CMp4FileImpl::appendMovie() {
    CBox* moov = nullptr;
    MP4Err err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    if ((err = moov->calculateSize()) != MP4_OK) return err;
    resetBoxNesting();
    if ((err = storage_->seek(mediaDataEnd_)) != MP4_OK) return err;
    if ((err = moov->write(storage_)) != MP4_OK) return err;
    return flushWritten(storage_);
}

// ---- hook points of close -------------------------------------------------

// PSP and XAVC files (types 4 and 10) carry user data with the date and
// their languages; made before the session description.
MP4Err CMp4FileImpl::addPspUserData() {
    if (!isPspFileType()) return MP4_OK;
    CMovieHeaderBox* mvhd = nullptr;
    MP4Err err = findMovieHeader(&mvhd);
    CBox* moov = nullptr;
    if (err == MP4_OK) err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    return addPspMovieMetadata(moov, mvhd->creationTime);
}

// Hinted files: the session-level SDP stored under moov/udta/hnti is
// written by writeSessionSdp (HintSlots.cpp).

// PSP and XAVC files: the finishing step of their user data.
MP4Err CMp4FileImpl::finishPspUserData() {
    if (!isPspFileType()) return MP4_OK;
    CBox* moov = nullptr;
    MP4Err err = findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    return addPspTrackMetadata(moov);
}

bool CMp4FileImpl::isPspFileType() const {
    return fileType_ == MP4_FILE_PSP || fileType_ == MP4_FILE_XAVC;
}

// The profile box follows "ftyp" on disc; in the box list it comes after
// "mdat" (the list's order is ftyp, moov, mdat, profile).
MP4Err CMp4FileImpl::writePspProfileBox() {
    std::unique_ptr<CBox> prof;
    MP4Err err = makePspProfileBox(fileType_ == MP4_FILE_XAVC, &prof);
    if (err != MP4_OK) return err;
    CBox* box = prof.get();
    if ((err = topLevelBoxes_->append(box)) != MP4_OK) return err;
    prof.release();
    return sizeAndWrite(box, storage_);
}

}  // namespace quil
