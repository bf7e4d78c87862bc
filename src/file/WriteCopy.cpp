// Writing an open file's box tree to a new file, the media data copied
// unchanged: how metadata changed in memory reaches a file. A plan of the
// rewrite engine (Rewrite.h) that keeps the source's box order.
#include <unistd.h>

#include <new>
#include <string>

#include "file/Mp4FileImpl.h"
#include "file/Rewrite.h"
#include "quil/Mp4Tags.h"
#include "storage/DiscStorage.h"
#include "storage/FileCopy.h"
#include "storage/WidePath.h"
#include "track/TrackImpl.h"

namespace quil {

MP4Err Mp4GetEditableMetaData(CMp4File* file, CMp4Track* track, CMp4MetaData** metaData) {
    if (!metaData) return MP4_ERR_INVALID_ARGUMENT;
    *metaData = nullptr;
    if (track) {
        auto* impl = dynamic_cast<CTrackImpl*>(track);
        return impl ? impl->metaDataFor(true, metaData) : MP4_ERR_INVALID_ARGUMENT;
    }
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    return impl ? impl->metaDataFor(true, metaData) : MP4_ERR_INVALID_ARGUMENT;
}

MP4Err Mp4WriteCopy(CMp4File* file, const wchar_t* targetPath) {
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!impl || !targetPath) return MP4_ERR_INVALID_ARGUMENT;
    const char* source = impl->readPath();
    if (!source || impl->mode() != 0 || !impl->topLevelBoxes()) return MP4_ERR_NOT_AVAILABLE;
    std::string target;
    MP4Err err = widePathToUtf8(targetPath, &target);
    if (err != MP4_OK) return err;
    // Writing over the source would destroy the media data being copied.
    if (sameFileOnDisc(source, target)) return MP4_ERR_INVALID_ARGUMENT;
    CBox* moov = nullptr;
    err = impl->findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    if (holdsCompressedMovie(moov)) return MP4_ERR_UNSUPPORTED;

    // Every box in the source's order, each written as it was read when
    // its reader failed; each chunk offset follows its media data box.
    RewritePlan plan;
    try {
        for (CBoxList::Node* node = impl->topLevelBoxes()->head(); node; node = node->next) {
            plan.order.push_back(node->box);
        }
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    err = planRewrite(&plan);
    COffsetMover mover(plan.moves, COffsetMover::Tables::Every);
    mover.moveFragmentsIn(plan.order);
    if (err == MP4_OK) err = mover.move(moov, false);
    if (err != MP4_OK) return err;

    CDiscStorage storage;
    std::string written;  // the media data go where the storage writes
    err = storage.setPath(targetPath);
    if (err == MP4_OK) err = widePathToUtf8(storage.path(), &written);
    if (err == MP4_OK) err = storage.open(1);
    if (err == MP4_OK) {
        err = writeRewrite(plan, &storage, source, written);
        if (err != MP4_OK) ::unlink(target.c_str());
    }
    // The tree describes the source again: sample reads go on working.
    MP4Err restored = mover.move(moov, true);
    return err != MP4_OK ? err : restored;
}

}  // namespace quil
