// optimizeFile: rewrites a finished file so that "moov" comes before
// "mdat", for players that start while the file is still arriving.
//
// The source is read afresh and rewritten by the rewrite engine
// (Rewrite.h) with this box order: every other top-level box in order,
// "moov", then the media data, which move by the size of the movie.
#include <cstdint>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "Mp4FileImpl.h"
#include "boxes/MovieBoxes.h"
#include "file/Rewrite.h"
#include "quil/Mp4Track.h"
#include "storage/DiscStorage.h"
#include "storage/FileCopy.h"
#include "storage/WidePath.h"

namespace quil {
namespace {

// Where the boxes of the source lie, found by walking the top level once.
struct SourceLayout {
    CMediaDataBox* mdat = nullptr;
    CBox* moov = nullptr;
};

// The file must hold exactly one "mdat", followed (not necessarily at
// once) by "moov". A "moov" first means nothing is left to do.
MP4Err findLayout(CBoxList* boxes, SourceLayout* layout) {
    for (CBoxList::Node* node = boxes->head(); node; node = node->next) {
        const uint32_t type = node->box->type;
        if (type == fourcc("mdat")) {
            if (layout->mdat != nullptr) return MP4_ERR_WRONG_LAYOUT;  // a second "mdat"
            layout->mdat = dynamic_cast<CMediaDataBox*>(node->box);
            if (layout->mdat == nullptr) return MP4_ERR_WRONG_LAYOUT;
        } else if (type == fourcc("moov") && layout->moov == nullptr) {
            if (layout->mdat == nullptr) return MP4_ERR_WRONG_LAYOUT;  // already in order
            layout->moov = node->box;
        }
    }
    return layout->mdat != nullptr && layout->moov != nullptr ? MP4_OK : MP4_ERR_WRONG_LAYOUT;
}

// The movie box that is written. A compressed movie cannot be written
// back compressed, so its inflated inner "moov" takes its place; the track
// objects already work on that inner tree.
CBox* movieToWrite(CBox* moov) {
    CBoxList* children = moov->childList();
    CBox* compressed = nullptr;
    if (!children || children->findNth(fourcc("cmov"), &compressed, 1) != MP4_OK) return moov;
    CBox* data = nullptr;
    CBox* inner = nullptr;
    if (compressed->findChild(fourcc("cmvd"), &data) != MP4_OK) return moov;
    if (data->findChild(fourcc("moov"), &inner) != MP4_OK) return moov;
    return inner;
}

// Every top-level box but the media data and the movie, in order; then the
// movie; then the media data.
MP4Err faststartOrder(CBoxList* boxes, const SourceLayout& layout, CBox* movie,
                      std::vector<CBox*>* order) {
    try {
        for (CBoxList::Node* node = boxes->head(); node; node = node->next) {
            if (node->box->type != fourcc("mdat") && node->box != layout.moov) {
                order->push_back(node->box);
            }
        }
        order->push_back(movie);
        order->push_back(layout.mdat);
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

MP4Err makeDiscStorage(const wchar_t* path, std::unique_ptr<CDiscStorage>* storage) {
    storage->reset(new (std::nothrow) CDiscStorage());
    if (!*storage) return MP4_ERR_OUT_OF_MEMORY;
    return (*storage)->setPath(path);
}

}  // namespace

MP4Err CMp4FileImpl::optimizeFile(int32_t operation, const wchar_t* sourcePath,
                                  const wchar_t* targetPath) {
    if (operation != 1) return MP4_OK;  // only operation 1 is defined
    if (isOpen_ != 0) return MP4_ERR_NOT_AVAILABLE;
    if (sourcePath == nullptr || targetPath == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    // Rewriting in place would destroy the source while it is being read.
    if (std::wcscmp(sourcePath, targetPath) == 0) return MP4_ERR_INVALID_ARGUMENT;

    std::unique_ptr<CDiscStorage> source, target;
    MP4Err err = makeDiscStorage(sourcePath, &source);
    if (err == MP4_OK) err = makeDiscStorage(targetPath, &target);
    if (err != MP4_OK) return err;
    std::string sourceUtf8, targetUtf8;
    err = widePathToUtf8(source->path(), &sourceUtf8);
    if (err == MP4_OK) err = widePathToUtf8(target->path(), &targetUtf8);
    if (err != MP4_OK) return err;
    if (sameFileOnDisc(sourceUtf8, targetUtf8)) return MP4_ERR_INVALID_ARGUMENT;

    // The source is read through the file object, as open would, so that
    // the track objects can check its tracks.
    storage_ = source.get();
    storageSupplied_ = 0;
    err = storage_->open(0);
    if (err == MP4_OK) {
        err = rewriteOpenSource(target.get(), sourceUtf8, targetUtf8);
        const MP4Err closed = storage_->close();
        if (err == MP4_OK) err = closed;
    }
    storage_ = nullptr;
    topLevelBoxes_.reset();
    trackCount_ = 0;
    return err;
}

MP4Err CMp4FileImpl::rewriteOpenSource(CDiscStorage* target, const std::string& sourceUtf8,
                                       const std::string& targetUtf8) {
    MP4Err err = readBoxTree();
    if (err != MP4_OK) return err;
    if (topLevelBoxes_->count() == 0) return MP4_ERR_WRONG_LAYOUT;  // an empty file
    SourceLayout layout;
    err = findLayout(topLevelBoxes_.get(), &layout);
    if (err != MP4_OK) return err;
    err = countTracks();
    if (err != MP4_OK) return err;
    CBox* movie = movieToWrite(layout.moov);

    // Top-level boxes are written from their fields, as faststart always
    // has; every chunk offset moves by the distance the media data move.
    RewritePlan plan;
    plan.asRead = false;
    err = faststartOrder(topLevelBoxes_.get(), layout, movie, &plan.order);
    if (err != MP4_OK) return err;
    COffsetMover mover(plan.moves, COffsetMover::Tables::TrackReads);
    mover.moveStrayOffsetsWithOnlyData();
    mover.moveFragmentsIn(plan.order);
    // Widening an offset table grows the movie, and with it the distance;
    // each round widens at least one table, so this ends.
    for (bool widened = true; widened;) {
        if ((err = planRewrite(&plan)) != MP4_OK) return err;
        const MediaMove& data = plan.moves.front();
        const int64_t shift = static_cast<int64_t>(data.newStart - data.oldStart);
        if (shift > INT32_MAX || shift < INT32_MIN) return MP4_ERR_VALUE_TOO_LARGE;
        if ((err = mover.widenOverflowing(movie, &widened)) != MP4_OK) return err;
    }
    // Every track must bind: a track the library cannot read is not moved.
    for (uint32_t number = 1; number <= trackCount_; ++number) {
        CMp4Track* track = nullptr;
        err = getTrack(number, &track);
        if (err != MP4_OK) return err;
        if ((err = releaseTrack(track)) != MP4_OK) return err;
    }
    if ((err = mover.move(movie, false)) != MP4_OK) return err;

    if ((err = target->open(1)) != MP4_OK) return err;
    return writeRewrite(plan, target, sourceUtf8, targetUtf8);
}

}  // namespace quil
