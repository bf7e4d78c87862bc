// optimizeFile: rewrites a finished file so that "moov" comes before
// "mdat", for players that start while the file is still arriving.
//
// The source is read afresh, every track's chunk offsets are moved by the
// distance its media data moves, then the target is written: every other
// top-level box in order, "moov", and the media data copied unchanged.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "Mp4FileImpl.h"
#include "boxes/BoxFactory.h"
#include "boxes/MovieBoxes.h"
#include "quil/Mp4Track.h"
#include "storage/DiscStorage.h"
#include "storage/WidePath.h"
#include "track/SampleTables.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;

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

bool isMediaOrMovie(const CBox* box, const CBox* moov) {
    return box->type == fourcc("mdat") || box == moov;
}

// Header of the rewritten "mdat": the source's 16-byte form is kept (it
// may have been reserved on purpose), else 8 bytes while the size fits.
uint64_t mdatHeaderLength(const CMediaDataBox& mdat) {
    const uint64_t sourceHeader = mdat.size - mdat.dataSize;
    if (sourceHeader == 16) return 16;
    return mdat.dataSize + 8 > kMax32 ? 16 : 8;
}

// Bytes in front of the media data in the target: every top-level box
// except the media data itself, after each has computed its size (a box
// written back may differ from its size as read), and the mdat header.
MP4Err targetDataOffset(CBoxList* boxes, const SourceLayout& layout, CBox* movie,
                        uint64_t* offset) {
    uint64_t total = 0;
    for (CBoxList::Node* node = boxes->head(); node; node = node->next) {
        if (node->box->type == fourcc("mdat")) continue;
        CBox* box = node->box == layout.moov ? movie : node->box;
        MP4Err err = box->calculateSize();
        if (err != MP4_OK) return err;
        uint64_t size = 0;
        err = box->getSize(&size);
        if (err != MP4_OK) return err;
        total += size;
    }
    *offset = total + mdatHeaderLength(*layout.mdat);
    return MP4_OK;
}

// ---- chunk offset tables ---------------------------------------------------

// Calls visit(stbl, table box) for the "stco" or "co64" of every track.
template <class Visit>
MP4Err forEachChunkOffsetTable(CBox* movie, Visit visit) {
    for (uint32_t n = 1;; ++n) {
        CBox *trak = nullptr, *mdia = nullptr, *minf = nullptr, *stbl = nullptr;
        MP4Err err = movie->findChild(fourcc("trak"), &trak, n);
        if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
        if (err != MP4_OK) return err;
        if (trak->findChild(fourcc("mdia"), &mdia) != MP4_OK ||
            mdia->findChild(fourcc("minf"), &minf) != MP4_OK ||
            minf->findChild(fourcc("stbl"), &stbl) != MP4_OK) {
            continue;  // no table: the track binding reports it
        }
        CBox* table = nullptr;
        if (stbl->findChild(fourcc("stco"), &table) != MP4_OK) continue;
        err = visit(stbl, table);
        if (err != MP4_OK) return err;
    }
}

bool offsetsOverflow(CChunkOffsetBox* stco, int64_t shift) {
    for (uint32_t i = 1; i <= stco->entries.count(); ++i) {
        CChunkOffsetTableEntry* entry = nullptr;
        if (stco->getEntry(i, &entry) != MP4_OK) return false;
        const int64_t moved = static_cast<int64_t>(entry->chunkOffset) + shift;
        if (moved < 0 || moved > static_cast<int64_t>(kMax32)) return true;
    }
    return false;
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

// Moving the media data past the movie can push 32-bit chunk offsets of a
// file near 4 GiB beyond their range, where they would wrap and point into
// the wrong bytes. Such tables become "co64" (ISO/IEC 14496-12 §8.7.5);
// *changed tells the caller to size the movie again.
MP4Err widenOverflowingTables(CBox* movie, int64_t shift, bool* changed) {
    *changed = false;
    return forEachChunkOffsetTable(movie, [&](CBox* stbl, CBox* table) {
        CChunkOffsetBox* stco = dynamic_cast<CChunkOffsetBox*>(table);
        if (!stco || !offsetsOverflow(stco, shift)) return MP4_OK;
        *changed = true;
        return replaceWithLargeOffsets(stbl, stco);
    });
}

// ---- copying the media data ------------------------------------------------

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now, so that a failing close (a delayed write error) is seen.
    bool closeChecked() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

private:
    int fd_;
};

// Copies with read and write in large pieces; used where the kernel cannot
// copy between the two files itself.
MP4Err copyThroughBuffer(int in, uint64_t inOffset, int out, uint64_t outOffset,
                         uint64_t count) {
    constexpr size_t kPiece = 1 << 20;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kPiece]);
    if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
    while (count > 0) {
        const size_t wanted = count < kPiece ? static_cast<size_t>(count) : kPiece;
        const ssize_t got = ::pread(in, buffer.get(), wanted, static_cast<off_t>(inOffset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return MP4_ERR_IO;  // the source ended early
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::pwrite(out, buffer.get() + done, static_cast<size_t>(got - done),
                                         static_cast<off_t>(outOffset + done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) return MP4_ERR_IO;
            done += put;
        }
        inOffset += static_cast<uint64_t>(got);
        outOffset += static_cast<uint64_t>(got);
        count -= static_cast<uint64_t>(got);
    }
    return MP4_OK;
}

// The media data are copied byte for byte. The bytes written are exactly
// those of piecewise reads and writes through the storages; letting the
// kernel copy between the two files (copy_file_range) spares moving
// gigabytes through user space, and large pieces spare the system calls.
MP4Err copyMediaData(const std::string& source, uint64_t sourceOffset,
                     const std::string& target, uint64_t targetOffset, uint64_t count) {
    FileDescriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) return MP4_ERR_IO;
    FileDescriptor out(::open(target.c_str(), O_WRONLY | O_CLOEXEC));
    if (out.get() < 0) return MP4_ERR_IO;
    loff_t inOffset = static_cast<loff_t>(sourceOffset);
    loff_t outOffset = static_cast<loff_t>(targetOffset);
    MP4Err err = MP4_OK;
    while (count > 0) {
        const size_t piece = count < (1u << 30) ? static_cast<size_t>(count) : (1u << 30);
        const ssize_t copied = ::copy_file_range(in.get(), &inOffset, out.get(), &outOffset,
                                                 piece, 0);
        if (copied > 0) {
            count -= static_cast<uint64_t>(copied);
            continue;
        }
        if (copied < 0 && errno == EINTR) continue;
        if (copied == 0) {
            err = MP4_ERR_IO;  // the source ended before its media data
        } else if (errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                   errno == EOPNOTSUPP || errno == EBADF) {
            err = copyThroughBuffer(in.get(), static_cast<uint64_t>(inOffset), out.get(),
                                    static_cast<uint64_t>(outOffset), count);
        } else {
            err = MP4_ERR_IO;  // a full disc, a failing device
        }
        break;
    }
    if (!out.closeChecked() && err == MP4_OK) err = MP4_ERR_IO;
    return err;
}

// ---- paths -----------------------------------------------------------------

// Two names of one file (links, "./a" and "a") would have the target's
// truncation destroy the source while it is read.
bool sameFileOnDisc(const std::string& a, const std::string& b) {
    struct stat first {}, second {};
    if (::stat(a.c_str(), &first) != 0 || ::stat(b.c_str(), &second) != 0) return false;
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

MP4Err makeDiscStorage(const wchar_t* path, std::unique_ptr<CDiscStorage>* storage) {
    storage->reset(new (std::nothrow) CDiscStorage());
    if (!*storage) return MP4_ERR_OUT_OF_MEMORY;
    return (*storage)->setPath(path);
}

MP4Err writeMovedMediaDataHeader(CStorage* target, const CMediaDataBox& mdat) {
    const uint64_t header = mdatHeaderLength(mdat);
    const uint64_t size = header + mdat.dataSize;
    MP4Err err = target->writeUInt32(header == 16 ? 1u : static_cast<uint32_t>(size));
    if (err == MP4_OK) err = target->writeUInt32(fourcc("mdat"));
    if (err == MP4_OK && header == 16) err = target->writeUInt64(size);
    return err;
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
    // the track objects can move its chunk offsets.
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

MP4Err CMp4FileImpl::rewriteOpenSource(CStorage* target, const std::string& sourceUtf8,
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

    // The distance the media data move, with the sizes the boxes will be
    // written with. Widening an offset table grows the movie, and with it
    // the distance; each round widens at least one table, so this ends.
    const uint64_t sourceDataOffset = layout.mdat->boxOffset + layout.mdat->size -
                                      layout.mdat->dataSize;
    int64_t shift = 0;
    for (bool widened = true; widened;) {
        uint64_t targetOffset = 0;
        err = targetDataOffset(topLevelBoxes_.get(), layout, movie, &targetOffset);
        if (err != MP4_OK) return err;
        shift = static_cast<int64_t>(targetOffset - sourceDataOffset);
        if (shift > INT32_MAX || shift < INT32_MIN) return MP4_ERR_VALUE_TOO_LARGE;
        err = widenOverflowingTables(movie, shift, &widened);
        if (err != MP4_OK) return err;
    }
    for (uint32_t number = 1; number <= trackCount_; ++number) {
        CMp4Track* track = nullptr;
        err = getTrack(number, &track);
        if (err != MP4_OK) return err;
        err = track->shiftChunkOffsets(static_cast<int32_t>(shift));
        const MP4Err released = releaseTrack(track);
        if (err == MP4_OK) err = released;
        if (err != MP4_OK) return err;
    }

    err = target->open(1);
    if (err != MP4_OK) return err;
    err = writeLeadingBoxes(target, layout.moov, movie);
    if (err == MP4_OK) err = writeMovedMediaDataHeader(target, *layout.mdat);
    uint64_t targetDataStart = 0;
    if (err == MP4_OK) err = target->getPosition(&targetDataStart);
    const MP4Err closed = target->close();
    if (err == MP4_OK) err = closed;
    if (err != MP4_OK) return err;
    return copyMediaData(sourceUtf8, sourceDataOffset, targetUtf8, targetDataStart,
                         layout.mdat->dataSize);
}

MP4Err CMp4FileImpl::writeLeadingBoxes(CStorage* target, CBox* moov, CBox* movie) {
    for (CBoxList::Node* node = topLevelBoxes_->head(); node; node = node->next) {
        if (isMediaOrMovie(node->box, moov)) continue;
        MP4Err err = node->box->write(target);
        if (err != MP4_OK) return err;
    }
    resetBoxNesting();
    return movie->write(target);
}

}  // namespace quil
