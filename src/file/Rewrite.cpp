#include "Rewrite.h"

#include <new>

#include "boxes/Box.h"
#include "boxes/EncryptionBoxes.h"
#include "boxes/FragmentBoxes.h"
#include "boxes/MovieBoxes.h"
#include "storage/DiscStorage.h"
#include "storage/FileCopy.h"
#include "track/SampleTables.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;

MP4Err sizeForPlan(CBox* box, bool asRead, uint64_t* size) {
    MP4Err err = asRead ? sizeBox(box) : box->calculateSize();
    return err == MP4_OK ? box->getSize(size) : err;
}

MP4Err writeMediaDataHeader(CStorage* target, const MediaMove& move) {
    const uint64_t size = move.newHeader + move.box->dataSize;
    MP4Err err = target->writeUInt32(move.newHeader == 16 ? 1u : static_cast<uint32_t>(size));
    if (err == MP4_OK) err = target->writeUInt32(fourcc("mdat"));
    if (err == MP4_OK && move.newHeader == 16) err = target->writeUInt64(size);
    return err;
}

bool fits(const CChunkOffsetTableEntry&, uint64_t moved) { return moved <= kMax32; }
bool fits(const CChunkLargeOffsetTableEntry&, uint64_t) { return true; }

// Stores one moved offset when apply is set: 8 when it could not be placed,
// 10 when it does not fit a 32-bit field.
template <class T>
MP4Err storeMoved(T* field, bool placed, uint64_t moved, bool wide, bool apply) {
    if (!placed) return MP4_ERR_WRONG_LAYOUT;
    if (!wide && moved > kMax32) return MP4_ERR_VALUE_TOO_LARGE;
    if (apply) *field = static_cast<T>(moved);
    return MP4_OK;
}

// The instance-th child of that type, or null.
CBox* childOf(CBox* box, uint32_t type, uint32_t instance = 1) {
    CBox* child = nullptr;
    return box->findChild(type, &child, instance) == MP4_OK ? child : nullptr;
}

// One offset table: every entry mapped (8 when one lies in no media data
// box, 10 when it does not fit the table), stored only when apply is set.
template <class Entry>
MP4Err moveTable(const COffsetMover& mover, CCountedTableBox<Entry>* table, bool back,
                 bool apply) {
    for (uint32_t i = 1; i <= table->entries.count(); ++i) {
        Entry* entry = nullptr;
        if (table->getEntry(i, &entry) != MP4_OK) break;
        uint64_t moved = 0;
        if (!mover.map(entry->chunkOffset, back, &moved)) return MP4_ERR_WRONG_LAYOUT;
        if (!fits(*entry, moved)) return MP4_ERR_VALUE_TOO_LARGE;
        if (apply) entry->chunkOffset = static_cast<decltype(entry->chunkOffset)>(moved);
    }
    return MP4_OK;
}

MP4Err replaceWithLargeOffsets(CBox* stbl, CChunkOffsetBox* stco) {
    std::unique_ptr<CChunkLargeOffsetBox> co64(new (std::nothrow) CChunkLargeOffsetBox());
    if (!co64) return MP4_ERR_OUT_OF_MEMORY;
    co64->type = fourcc("co64");
    MP4Err err = co64->copyFromChunkOffsets(stco);
    if (err != MP4_OK) return err;
    CBoxList* children = stbl->childList();
    if (!children) return MP4_ERR_INVALID_DATA;
    err = children->replace(stco, co64.get());
    if (err != MP4_OK) return err;
    co64.release();
    delete stco;  // handed back by replace
    return MP4_OK;
}

}  // namespace

uint32_t mediaDataHeader(const CMediaDataBox& mdat) {
    const uint64_t sourceHeader = mdat.size - mdat.dataSize;
    return (sourceHeader >= 16 || mdat.dataSize + 8 > kMax32) ? 16 : 8;
}

bool holdsCompressedMovie(CBox* moov) {
    CBox* cmov = nullptr;
    return moov->childList() && moov->childList()->findNth(fourcc("cmov"), &cmov, 1) == MP4_OK;
}

MP4Err planRewrite(RewritePlan* plan) {
    plan->moves.clear();
    uint64_t position = 0;
    for (CBox* box : plan->order) {
        if (auto* mdat = dynamic_cast<CMediaDataBox*>(box)) {
            MediaMove move;
            move.box = mdat;
            move.oldStart = mdat->boxOffset + (mdat->size - mdat->dataSize);
            move.newHeader = mediaDataHeader(*mdat);
            move.newStart = position + move.newHeader;
            try {
                plan->moves.push_back(move);
            } catch (const std::bad_alloc&) {
                return MP4_ERR_OUT_OF_MEMORY;
            }
            position = move.newStart + mdat->dataSize;
            continue;
        }
        uint64_t size = 0;
        MP4Err err = sizeForPlan(box, plan->asRead, &size);
        if (err != MP4_OK) return err;
        position += size;
    }
    return MP4_OK;
}

// ---- chunk offsets ---------------------------------------------------------

bool COffsetMover::map(uint64_t offset, bool back, uint64_t* moved) const {
    for (const MediaMove& move : moves_) {
        const uint64_t from = back ? move.newStart : move.oldStart;
        const uint64_t to = back ? move.oldStart : move.newStart;
        if (offset >= from && offset - from <= move.box->dataSize) {
            *moved = offset - from + to;
            return true;
        }
    }
    if (!strays_ || moves_.size() != 1) return false;
    // Wraps like the 32- or 64-bit table arithmetic it stands for.
    const MediaMove& only = moves_.front();
    *moved = back ? offset - only.newStart + only.oldStart : offset - only.oldStart + only.newStart;
    return true;
}

bool COffsetMover::mapBoxStart(uint64_t offset, bool back, uint64_t* moved) const {
    const MediaMove* next = nullptr;
    uint64_t nextStart = 0;
    for (const MediaMove& move : moves_) {
        // Where the media data box itself starts on each side.
        const uint64_t oldBox = move.box->boxOffset;
        const uint64_t newBox = move.newStart - move.newHeader;
        const uint64_t from = back ? newBox : oldBox;
        if (from >= offset && (!next || from < nextStart)) {
            next = &move;
            nextStart = from;
        }
    }
    if (!next) return map(offset, back, moved);  // strays, as for any offset
    const uint64_t to = back ? next->box->boxOffset : next->newStart - next->newHeader;
    *moved = offset - nextStart + to;
    return true;
}

// Calls visit(stbl) for every track with a sample table box (tracks
// without one have nothing to move).
template <class Visit>
MP4Err COffsetMover::forEachSampleTable(CBox* movie, Visit visit) const {
    for (uint32_t n = 1;; ++n) {
        CBox* trak = nullptr;
        MP4Err err = movie->findChild(fourcc("trak"), &trak, n);
        if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
        if (err != MP4_OK) return err;
        CBox* stbl = trak;
        for (uint32_t type : {fourcc("mdia"), fourcc("minf"), fourcc("stbl")}) {
            if (stbl) stbl = childOf(stbl, type);
        }
        if (stbl && (err = visit(stbl)) != MP4_OK) return err;
    }
}

// Calls visit(stbl, table) for the chunk offset tables of every track.
template <class Visit>
MP4Err COffsetMover::forEachTable(CBox* movie, Visit visit) const {
    return forEachSampleTable(movie, [&](CBox* stbl) {
        MP4Err err = MP4_OK;
        CBox* stco = childOf(stbl, fourcc("stco"));
        if (stco && (err = visit(stbl, stco)) != MP4_OK) return err;
        if (stco && tables_ == Tables::TrackReads) return MP4_OK;
        CBox* co64 = childOf(stbl, fourcc("co64"));
        return co64 ? visit(stbl, co64) : MP4_OK;
    });
}

// A sample table's "saio" offsets are absolute file offsets. Beside a
// "senc" of the same table they point into it, and the table's writer
// places them where it writes that box.
MP4Err COffsetMover::moveAuxInfoOffsets(CBox* movie, bool back, bool apply) const {
    return forEachSampleTable(movie, [&](CBox* stbl) {
        if (childOf(stbl, fourcc("senc"))) return MP4_OK;
        for (uint32_t n = 1;; ++n) {
            auto* saio = dynamic_cast<CSampleAuxInfoOffsetsBox*>(childOf(stbl, fourcc("saio"), n));
            if (!saio) return MP4_OK;
            for (uint64_t& offset : saio->offsets) {
                uint64_t moved = 0;
                const bool placed = map(offset, back, &moved);
                MP4Err err = storeMoved(&offset, placed, moved, saio->version == 1, apply);
                if (err != MP4_OK) return err;
            }
        }
    });
}

// The absolute offsets of a fragmented file outside its movie: a track
// fragment's explicit base moves with the data its first run addresses
// (the base often names the "moof" itself), a "tfra" entry with the
// "moof" it names.
MP4Err COffsetMover::moveFragmentOffsets(bool back, bool apply) const {
    if (!topLevel_) return MP4_OK;
    for (CBox* box : *topLevel_) {
        const bool fragment = box->type == fourcc("moof");
        if (!fragment && box->type != fourcc("mfra")) continue;
        for (uint32_t n = 1;; ++n) {
            CBox* child = childOf(box, fourcc(fragment ? "traf" : "tfra"), n);
            if (!child) break;
            MP4Err err = MP4_OK;
            if (auto* tfra = dynamic_cast<CTrackFragmentRandomAccessBox*>(child)) {
                for (uint32_t i = 0; err == MP4_OK && tfra->entries && i < tfra->entryCount; ++i) {
                    uint64_t& offset = tfra->entries[i].moofOffset;
                    uint64_t moved = 0;
                    const bool placed = mapBoxStart(offset, back, &moved);
                    err = storeMoved(&offset, placed, moved, tfra->version == 1, apply);
                }
            } else if (auto* tfhd = dynamic_cast<CTrackFragmentHeaderBox*>(childOf(child, fourcc("tfhd")))) {
                if (!(tfhd->flags & CTrackFragmentHeaderBox::kBaseDataOffset)) continue;
                auto* trun = dynamic_cast<CTrackRunBox*>(childOf(child, fourcc("trun")));
                const int64_t first = trun && (trun->flags & CTrackRunBox::kDataOffset) ? trun->dataOffset : 0;
                // Wraps like the file's own arithmetic.
                const uint64_t data = tfhd->baseDataOffset + static_cast<uint64_t>(first);
                uint64_t moved = 0;
                bool placed = map(data, back, &moved);
                if (placed) {
                    moved = moved - data + tfhd->baseDataOffset;
                } else {
                    placed = mapBoxStart(tfhd->baseDataOffset, back, &moved);
                }
                err = storeMoved(&tfhd->baseDataOffset, placed, moved, true, apply);
            }
            if (err != MP4_OK) return err;
        }
    }
    return MP4_OK;
}

MP4Err COffsetMover::move(CBox* movie, bool back) const {
    for (const bool apply : {false, true}) {
        MP4Err err = forEachTable(movie, [&](CBox*, CBox* table) {
            if (auto* stco = dynamic_cast<CChunkOffsetBox*>(table)) {
                return moveTable(*this, stco, back, apply);
            }
            if (auto* co64 = dynamic_cast<CChunkLargeOffsetBox*>(table)) {
                return moveTable(*this, co64, back, apply);
            }
            return MP4_OK;
        });
        if (err == MP4_OK) err = moveAuxInfoOffsets(movie, back, apply);
        if (err == MP4_OK) err = moveFragmentOffsets(back, apply);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err COffsetMover::widenOverflowing(CBox* movie, bool* widened) const {
    *widened = false;
    return forEachTable(movie, [&](CBox* stbl, CBox* table) {
        auto* stco = dynamic_cast<CChunkOffsetBox*>(table);
        if (!stco) return MP4_OK;
        for (uint32_t i = 1; i <= stco->entries.count(); ++i) {
            CChunkOffsetTableEntry* entry = nullptr;
            if (stco->getEntry(i, &entry) != MP4_OK) return MP4_OK;
            uint64_t moved = 0;
            if (map(entry->chunkOffset, false, &moved) && moved <= kMax32) continue;
            *widened = true;
            return replaceWithLargeOffsets(stbl, stco);
        }
        return MP4_OK;
    });
}

// ---- writing -----------------------------------------------------------------

MP4Err writeRewrite(const RewritePlan& plan, CDiscStorage* target, const std::string& sourcePath,
                    const std::string& targetPath) {
    MP4Err err = MP4_OK;
    // The media data are left out here (the storage steps over them) and
    // copied afterwards by the kernel, file to file: the same bytes as
    // reading and writing them through the storages, without moving
    // gigabytes through user space.
    std::vector<uint64_t> dataStarts;
    size_t next = 0;
    for (CBox* box : plan.order) {
        if (next < plan.moves.size() && plan.moves[next].box == box) {
            const MediaMove& move = plan.moves[next++];
            uint64_t start = 0;
            err = writeMediaDataHeader(target, move);
            if (err == MP4_OK) err = target->getPosition(&start);
            // Steps over the data: what follows is written after it.
            if (err == MP4_OK) err = target->seek(start + move.box->dataSize);
            if (err == MP4_OK) {
                try {
                    dataStarts.push_back(start);
                } catch (const std::bad_alloc&) {
                    err = MP4_ERR_OUT_OF_MEMORY;
                }
            }
        } else {
            err = plan.asRead ? writeBox(box, target) : box->write(target);
        }
        if (err != MP4_OK) break;
    }
    const MP4Err closed = target->close();
    if (err == MP4_OK) err = closed;
    for (size_t i = 0; err == MP4_OK && i < dataStarts.size(); ++i) {
        const MediaMove& move = plan.moves[i];
        err = copyFileBytes(sourcePath, move.oldStart, targetPath, dataStarts[i],
                            move.box->dataSize);
    }
    return err;
}

}  // namespace quil
