// Writing an open file's box tree to a new file, the media data copied
// unchanged: how metadata changed in memory reaches a file.
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "boxes/MovieBoxes.h"
#include "file/Mp4FileImpl.h"
#include "quil/Mp4Tags.h"
#include "storage/DiscStorage.h"
#include "storage/WidePath.h"
#include "track/SampleTables.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
constexpr uint32_t kCopyPiece = 1u << 20;

// Where one "mdat"'s data lies in the source and in the copy.
struct DataMove {
    CMediaDataBox* box;
    uint64_t oldStart;  // first data byte in the source
    uint64_t newStart;  // first data byte in the copy
    uint32_t newHeader; // 8, or 16 with a 64-bit size
};

// The header the copy gives a media data box: the source's form, widened
// only when the size no longer fits 32 bits.
uint32_t mediaDataHeader(const CMediaDataBox& box) {
    uint64_t oldHeader = box.size - box.dataSize;
    return (oldHeader >= 16 || box.dataSize + 8 > kMax32) ? 16 : 8;
}

// Sizes every box for the copy and finds where each media data lands.
MP4Err planLayout(CBoxList* boxes, std::vector<DataMove>* moves) {
    uint64_t position = 0;
    for (CBoxList::Node* node = boxes->head(); node; node = node->next) {
        if (auto* mdat = dynamic_cast<CMediaDataBox*>(node->box)) {
            DataMove move{mdat, mdat->boxOffset + (mdat->size - mdat->dataSize), 0,
                          mediaDataHeader(*mdat)};
            move.newStart = position + move.newHeader;
            moves->push_back(move);
            position = move.newStart + mdat->dataSize;
            continue;
        }
        MP4Err err = sizeBox(node->box);
        uint64_t size = 0;
        if (err == MP4_OK) err = node->box->getSize(&size);
        if (err != MP4_OK) return err;
        position += size;
    }
    return MP4_OK;
}

// The offset a source offset moves to, following its media data box;
// false when it lies in none (the copy would not hold its bytes).
bool movedOffset(const std::vector<DataMove>& moves, uint64_t offset, bool back,
                 uint64_t* moved) {
    for (const DataMove& move : moves) {
        uint64_t from = back ? move.newStart : move.oldStart;
        uint64_t to = back ? move.oldStart : move.newStart;
        if (offset >= from && offset - from <= move.box->dataSize) {
            *moved = offset - from + to;
            return true;
        }
    }
    return false;
}

// Applies the move to every chunk offset of every track (back: undoes it).
// Checks first, so nothing is changed when a 32-bit table would overflow
// (10) or a chunk lies outside every media data box the copy writes (8: a
// damaged file whose media data the box reader could not take in).
MP4Err moveChunkOffsets(CBox* moov, const std::vector<DataMove>& moves, bool back) {
    for (uint32_t pass = 0; pass < 2; ++pass) {
        CBox* trak = nullptr;
        for (uint32_t n = 1; moov->findChild(fourcc("trak"), &trak, n) == MP4_OK; ++n) {
            CBox* box = trak;
            for (uint32_t type : {fourcc("mdia"), fourcc("minf"), fourcc("stbl")}) {
                if (box && box->findChild(type, &box, 1) != MP4_OK) box = nullptr;
            }
            if (!box) continue;
            CBox* table = nullptr;
            if (box->findChild(fourcc("stco"), &table, 1) == MP4_OK) {
                auto* stco = dynamic_cast<CChunkOffsetBox*>(table);
                for (uint32_t i = 1; stco && i <= stco->entries.count(); ++i) {
                    CChunkOffsetTableEntry* entry = nullptr;
                    if (stco->getEntry(i, &entry) != MP4_OK) break;
                    uint64_t moved = 0;
                    if (!movedOffset(moves, entry->chunkOffset, back, &moved)) {
                        return MP4_ERR_WRONG_LAYOUT;
                    }
                    if (moved > kMax32) return MP4_ERR_VALUE_TOO_LARGE;
                    if (pass == 1) entry->chunkOffset = static_cast<uint32_t>(moved);
                }
            }
            if (box->findChild(fourcc("co64"), &table, 1) == MP4_OK) {
                auto* co64 = dynamic_cast<CChunkLargeOffsetBox*>(table);
                for (uint32_t i = 1; co64 && i <= co64->entries.count(); ++i) {
                    CChunkLargeOffsetTableEntry* entry = nullptr;
                    if (co64->getEntry(i, &entry) != MP4_OK) break;
                    uint64_t moved = 0;
                    if (!movedOffset(moves, entry->chunkOffset, back, &moved)) {
                        return MP4_ERR_WRONG_LAYOUT;
                    }
                    if (pass == 1) entry->chunkOffset = moved;
                }
            }
        }
    }
    return MP4_OK;
}

MP4Err writeMediaData(CMp4FileImpl* file, const DataMove& move, CStorage* target,
                      uint8_t* piece) {
    const uint64_t size = move.box->dataSize + move.newHeader;
    MP4Err err = target->writeUInt32(move.newHeader == 16 ? 1u : static_cast<uint32_t>(size));
    if (err == MP4_OK) err = target->writeUInt32(fourcc("mdat"));
    if (err == MP4_OK && move.newHeader == 16) err = target->writeUInt64(size);
    for (uint64_t done = 0; err == MP4_OK && done < move.box->dataSize;) {
        uint64_t left = move.box->dataSize - done;
        uint32_t count = left < kCopyPiece ? static_cast<uint32_t>(left) : kCopyPiece;
        err = file->readMediaBytes(move.oldStart + done, count, piece);
        if (err == MP4_OK) err = target->writeBlock(piece, static_cast<int32_t>(count));
        done += count;
    }
    return err;
}

MP4Err writeBoxes(CMp4FileImpl* file, CBoxList* boxes, const std::vector<DataMove>& moves,
                  CStorage* target) {
    std::unique_ptr<uint8_t[]> piece(new (std::nothrow) uint8_t[kCopyPiece]);
    if (!piece) return MP4_ERR_OUT_OF_MEMORY;
    size_t nextMove = 0;
    for (CBoxList::Node* node = boxes->head(); node; node = node->next) {
        MP4Err err = nextMove < moves.size() && moves[nextMove].box == node->box
                         ? writeMediaData(file, moves[nextMove++], target, piece.get())
                         : writeBox(node->box, target);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

// Whether two paths name the same existing file.
bool sameFile(const std::string& a, const std::string& b) {
    struct stat first {}, second {};
    return a == b || (::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
                      first.st_dev == second.st_dev && first.st_ino == second.st_ino);
}

}  // namespace

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
    if (sameFile(source, target)) return MP4_ERR_INVALID_ARGUMENT;
    CBox* moov = nullptr;
    err = impl->findTopLevelBox(fourcc("moov"), &moov);
    if (err != MP4_OK) return err;
    // A compressed movie would have to be compressed again: not done.
    CBox* cmov = nullptr;
    if (moov->childList() && moov->childList()->findNth(fourcc("cmov"), &cmov, 1) == MP4_OK) {
        return MP4_ERR_UNSUPPORTED;
    }

    std::vector<DataMove> moves;
    try {
        err = planLayout(impl->topLevelBoxes(), &moves);
    } catch (const std::bad_alloc&) {
        err = MP4_ERR_OUT_OF_MEMORY;
    }
    if (err == MP4_OK) err = moveChunkOffsets(moov, moves, false);
    if (err != MP4_OK) return err;

    CDiscStorage storage;
    err = storage.setPath(targetPath);
    if (err == MP4_OK) err = storage.open(1);
    if (err == MP4_OK) {
        err = writeBoxes(impl, impl->topLevelBoxes(), moves, &storage);
        MP4Err closed = storage.close();
        if (err == MP4_OK) err = closed;
        if (err != MP4_OK) ::unlink(target.c_str());
    }
    // The tree describes the source again: sample reads go on working.
    MP4Err restored = moveChunkOffsets(moov, moves, true);
    return err != MP4_OK ? err : restored;
}

}  // namespace quil
