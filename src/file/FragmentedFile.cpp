// The file's side of fragmented writing: switching a new file to it, the
// fragments written, and handing samples and close to the fragment writer.
#include <algorithm>
#include <memory>
#include <new>

#include "boxes/BoxFactory.h"
#include "boxes/MovieBoxes.h"
#include "file/FragmentWriter.h"
#include "file/Mp4FileImpl.h"
#include "track/TrackImpl.h"

namespace quil {

// The "ftyp" is written again with "iso6" (and "cmfc") added, over the one
// open wrote; the movie box later goes where the "mdat" header stood.
MP4Err CMp4FileImpl::setFragmentation(const MP4FragmentSettings* settings) {
    if (!settings || settings->fragmentMilliseconds == 0) return MP4_ERR_INVALID_ARGUMENT;
    if (isOpen_ == 0 || mode_ != 1 || fragmentWriter_ || isPspFileType() || hasHintTracks_) {
        return MP4_ERR_NOT_AVAILABLE;
    }
    CMediaDataBox* mdat = nullptr;
    MP4Err err = findMediaData(&mdat);
    if (err != MP4_OK) return err;
    if (mdat->dataSize != 0) return MP4_ERR_NOT_AVAILABLE;  // samples already written
    uint64_t movieOffset = mdat->boxOffset;
    CBox* box = nullptr;
    if (findTopLevelBox(fourcc("ftyp"), &box) == MP4_OK) {
        auto* ftyp = dynamic_cast<CFileTypeBox*>(box);
        if (!ftyp) return MP4_ERR_INVALID_DATA;
        uint64_t oldSize = 0;
        if ((err = ftyp->getSize(&oldSize)) != MP4_OK) return err;
        const uint64_t ftypOffset = mdat->boxOffset - oldSize;
        // Brands set before (setBrands) are kept whole, each once.
        const int32_t had = ftyp->compatibleBrandCount;
        std::unique_ptr<uint32_t[]> brands(new (std::nothrow) uint32_t[had + 2]);
        if (!brands) return MP4_ERR_OUT_OF_MEMORY;
        std::copy(ftyp->compatibleBrands.get(), ftyp->compatibleBrands.get() + had, brands.get());
        int32_t count = had;
        for (uint32_t added : {fourcc("iso6"), settings->cmafBrands ? fourcc("cmfc") : 0u}) {
            if (added && std::find(brands.get(), brands.get() + count, added) == brands.get() + count) {
                brands[count++] = added;
            }
        }
        if ((err = ftyp->setCompatibleBrands(brands.get(), count)) != MP4_OK) return err;
        if ((err = storage_->seek(ftypOffset)) != MP4_OK) return err;
        if ((err = ftyp->calculateSize()) != MP4_OK) return err;
        if ((err = ftyp->write(storage_)) != MP4_OK) return err;
        if ((err = storage_->getPosition(&movieOffset)) != MP4_OK) return err;
    }
    CBox* moov = nullptr;
    if ((err = findTopLevelBox(fourcc("moov"), &moov)) != MP4_OK) return err;
    fragmentWriter_.reset(new (std::nothrow)
                              CFragmentWriter(*settings, storage_, movieOffset, moov));
    return fragmentWriter_ ? MP4_OK : MP4_ERR_OUT_OF_MEMORY;
}

MP4Err CMp4FileImpl::getFragmentInfo(uint32_t index, MP4FragmentInfo* info) {
    if (!info) return MP4_ERR_INVALID_ARGUMENT;
    *info = MP4FragmentInfo();
    if (!fragmentWriter_) return MP4_ERR_NOT_AVAILABLE;
    if (index >= fragmentWriter_->fragments().size()) return MP4_ERR_INVALID_ARGUMENT;
    *info = fragmentWriter_->fragments()[index];
    return MP4_OK;
}

// The tracks as they stand when the first sample comes make the movie:
// their edit lists and dimensions are filled in now.
MP4Err CMp4FileImpl::startFragments() {
    if (fragmentWriter_->started()) return MP4_OK;
    for (CTrackImpl* track : writingTracks_) {
        MP4Err err = track->finalizeWriting();
        if (err != MP4_OK) return err;
    }
    return fragmentWriter_->start();
}

MP4Err CMp4FileImpl::addFragmentSample(uint32_t trackId, const uint8_t* data, uint32_t size,
                                       uint64_t decodeTime, uint64_t compositionTime, bool sync) {
    if (!fragmentWriter_) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = startFragments();
    if (err != MP4_OK) return err;
    return fragmentWriter_->addSample(trackId, data, size, decodeTime, compositionTime, sync);
}

MP4Err CMp4FileImpl::finishFragments() {
    MP4Err err = startFragments();
    if (err == MP4_OK) err = fragmentWriter_->finish();
    if (err == MP4_OK) movieWritten_ = true;
    return err;
}

}  // namespace quil
