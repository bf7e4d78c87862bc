// Fragmented writing. The movie box goes out with the first fragment, when
// every track and sample entry is known; each fragment is written whole
// ("moof", then "mdat" with each track's samples in turn) and flushed, and
// close adds the last fragment, the indexes and the final durations.
#include "file/FragmentWriter.h"

#include <algorithm>
#include <memory>
#include <new>

#include "boxes/BoxFactory.h"
#include "boxes/FragmentBoxes.h"
#include "boxes/MovieBoxes.h"
#include "storage/DiscStorage.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
// Sample flags (ISO/IEC 14496-12 §8.8.3.1): a sync sample depends on no
// other; any other sample depends on others and is not a sync sample.
constexpr uint32_t kSyncSampleFlags = 0x02000000;
constexpr uint32_t kOtherSampleFlags = 0x01010000;
// "sidx" of version 1 before its references, and each reference.
constexpr uint64_t kSegmentIndexHeader = 40;
constexpr uint64_t kSegmentIndexEntry = 12;
constexpr uint64_t kFreeHeader = 8;
constexpr uint32_t kMaxIndexEntries = 1u << 24;
// Pending samples beyond this many bytes close the fragment even without
// a sync sample of the leading track, so that memory stays bounded.
constexpr uint64_t kMaxPendingBytes = 256ull << 20;
constexpr uint64_t kWriteStep = 1u << 30;  // writeBytes counts in int32

uint64_t rescale(uint64_t value, uint32_t to, uint32_t from) {
    if (from == 0) return 0;
    return static_cast<uint64_t>(static_cast<unsigned __int128>(value) * to / from);
}

// A new box of that class appended to the parent, which owns it; null
// when it cannot be made.
template <class T>
T* addNew(CBox* parent) {
    std::unique_ptr<T> box(new (std::nothrow) T());
    if (!box || parent->addChild(box.get()) != MP4_OK) return nullptr;
    return box.release();
}

// The bytes of a box as its class writes them, appended.
MP4Err appendBox(CBox* box, CBoxBytes* out) {
    MP4Err err = box->calculateSize();
    uint64_t size = 0;
    if (err == MP4_OK) err = box->getSize(&size);
    if (err != MP4_OK) return err;
    if (size > kMax32 / 2) return MP4_ERR_VALUE_TOO_LARGE;
    const size_t at = out->size();
    try {
        out->bytes().resize(at + size);
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    CMemoryStorage memory;
    memory.attach(out->bytes().data() + at, static_cast<uint32_t>(size), true);
    resetBoxNesting();
    err = memory.open(1);
    if (err == MP4_OK) err = box->write(&memory);
    (void)memory.close();
    memory.detach();
    return err;
}

template <class T>
T* childOf(CBox* parent, uint32_t type) {
    CBox* box = nullptr;
    if (!parent || parent->findChild(type, &box) != MP4_OK) return nullptr;
    return dynamic_cast<T*>(box);
}

}  // namespace

// ---- box bytes ------------------------------------------------------------

void CBoxBytes::u32(uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes_.push_back(static_cast<uint8_t>(value >> shift));
}

void CBoxBytes::u64(uint64_t value) {
    u32(static_cast<uint32_t>(value >> 32));
    u32(static_cast<uint32_t>(value));
}

size_t CBoxBytes::begin(uint32_t type) {
    const size_t start = bytes_.size();
    u32(0);
    u32(type);
    return start;
}

void CBoxBytes::end(size_t start) {
    const uint32_t size = static_cast<uint32_t>(bytes_.size() - start);
    for (int i = 0; i < 4; ++i) bytes_[start + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
}

// ---- tracks and samples ---------------------------------------------------

CFragmentWriter::CFragmentWriter(const MP4FragmentSettings& settings, CStorage* storage,
                                 uint64_t movieOffset, CBox* moov)
    : settings_(settings), storage_(storage), movieOffset_(movieOffset), end_(movieOffset),
      moov_(moov) {
    if (settings.segmentPrefix) segmentPrefix_ = settings.segmentPrefix;
    settings_.segmentPrefix = nullptr;  // kept as our own copy
    if (settings_.segmentIndexEntries > kMaxIndexEntries) {
        settings_.segmentIndexEntries = kMaxIndexEntries;
    }
}

MP4Err CFragmentWriter::start() {
    if (started_) return MP4_OK;
    if (auto* mvhd = childOf<CMovieHeaderBox>(moov_, fourcc("mvhd"))) {
        movieTimeScale_ = mvhd->timeScale;
    }
    CBoxList* children = moov_ ? moov_->childList() : nullptr;
    try {
        for (auto* node = children ? children->head() : nullptr; node; node = node->next) {
            if (node->box->type != fourcc("trak")) continue;
            auto* tkhd = childOf<CTrackHeaderBox>(node->box, fourcc("tkhd"));
            CBox* mdia = nullptr;
            if (!tkhd || node->box->findChild(fourcc("mdia"), &mdia) != MP4_OK) {
                return MP4_ERR_INVALID_DATA;
            }
            auto* mdhd = childOf<CMediaHeaderBox>(mdia, fourcc("mdhd"));
            auto* hdlr = childOf<CHandlerReferenceBox>(mdia, fourcc("hdlr"));
            if (!mdhd || mdhd->timeScale == 0) return MP4_ERR_INVALID_DATA;
            tracks_.emplace_back();
            Track& track = tracks_.back();
            track.trackId = tkhd->trackId;
            track.timeScale = mdhd->timeScale;
            track.video = hdlr && hdlr->handlerType == fourcc("vide");
        }
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    MP4Err err = addMovieExtends();
    if (err != MP4_OK) return err;
    lead_ = 0;
    for (size_t i = 0; i < tracks_.size(); ++i) {
        if (tracks_[i].video) {
            lead_ = i;
            break;
        }
    }
    started_ = true;
    return MP4_OK;
}

uint64_t CFragmentWriter::readyBytes(const Track& track) {
    uint64_t bytes = 0;
    for (const Sample& sample : track.ready) bytes += sample.size;
    return bytes;
}

CFragmentWriter::Track* CFragmentWriter::findTrack(uint32_t trackId) {
    for (Track& track : tracks_) {
        if (track.trackId == trackId) return &track;
    }
    return nullptr;
}

// The held sample lasts until the next decode time of its track.
MP4Err CFragmentWriter::releaseHeld(Track* track, uint64_t nextDecodeTime) {
    if (!track->holding) return MP4_OK;
    if (nextDecodeTime < track->held.decodeTime) return MP4_ERR_BAD_TIME;
    const uint64_t duration = nextDecodeTime - track->held.decodeTime;
    if (duration > kMax32) return MP4_ERR_BAD_TIME;
    track->held.duration = static_cast<uint32_t>(duration);
    try {
        track->ready.push_back(track->held);
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    track->lastDuration = track->held.duration;
    track->holding = false;
    return MP4_OK;
}

// A fragment closes before a sync sample of the leading track that comes
// the fragment duration or more after its start.
bool CFragmentWriter::cutsBefore(const Track& track, uint64_t decodeTime, bool sync) const {
    if (&track != &tracks_[lead_] || !sync || !fragmentOpen_ || track.ready.empty()) return false;
    const uint64_t length = rescale(settings_.fragmentMilliseconds, track.timeScale, 1000);
    return decodeTime >= fragmentStart_ && decodeTime - fragmentStart_ >= length;
}

MP4Err CFragmentWriter::addSample(uint32_t trackId, const uint8_t* data, uint32_t size,
                                  uint64_t decodeTime, uint64_t compositionTime, bool sync) {
    if (finished_) return MP4_ERR_NOT_AVAILABLE;
    Track* track = findTrack(trackId);
    if (!track) return MP4_ERR_NOT_AVAILABLE;
    if (!data || size == 0) return MP4_ERR_INVALID_ARGUMENT;
    // Signed offset of the composition time, within 32 bits.
    const int64_t offset = static_cast<int64_t>(compositionTime - decodeTime);
    if (offset > 0x7FFFFFFF || offset < -0x7FFFFFFF) return MP4_ERR_BAD_TIME;
    if (track->holding && (decodeTime < track->held.decodeTime ||
                           decodeTime - track->held.decodeTime > kMax32)) {
        return MP4_ERR_BAD_TIME;
    }
    MP4Err err = releaseHeld(track, decodeTime);
    if (err != MP4_OK) return err;
    uint64_t pending = 0;
    for (const Track& each : tracks_) pending += each.bytes.size();
    if (cutsBefore(*track, decodeTime, sync) || pending > kMaxPendingBytes) {
        if ((err = writeFragment()) != MP4_OK) return err;
    }
    try {
        track->bytes.insert(track->bytes.end(), data, data + size);
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    track->held = Sample{decodeTime, offset, size, 0, sync};
    track->holding = true;
    if (!track->any) {
        track->any = true;
        track->endTime = decodeTime;
    }
    if (track == &tracks_[lead_] && !fragmentOpen_) {
        fragmentStart_ = decodeTime;
        fragmentOpen_ = true;
    }
    return MP4_OK;
}

// ---- fragments ------------------------------------------------------------

// "moof": "mfhd", then per track with samples a "traf" of "tfhd" (offsets
// from the "moof", default-base-is-moof), "tfdt" and one "trun" with every
// sample's duration, size, flags and, where any is not 0, composition
// offset (signed, version 1, when one is negative).
MP4Err CFragmentWriter::buildMovieFragment(CBoxBytes* out, uint64_t moofOffset,
                                           uint64_t mdatHeader) {
    CMovieFragmentBox moof;
    auto* mfhd = addNew<CMovieFragmentHeaderBox>(&moof);
    if (!mfhd) return MP4_ERR_OUT_OF_MEMORY;
    mfhd->sequenceNumber = sequence_ + 1;
    std::vector<std::pair<CTrackRunBox*, uint64_t>> runs;  // with their bytes
    std::vector<uint32_t> values;
    uint32_t trafNumber = 0;
    for (Track& track : tracks_) {
        if (track.ready.empty()) continue;
        bool anyOffset = false, negative = false;
        for (const Sample& sample : track.ready) {
            anyOffset = anyOffset || sample.compositionOffset != 0;
            negative = negative || sample.compositionOffset < 0;
        }
        auto* traf = addNew<CTrackFragmentBox>(&moof);
        auto* tfhd = traf ? addNew<CTrackFragmentHeaderBox>(traf) : nullptr;
        auto* tfdt = tfhd ? addNew<CTrackFragmentDecodeTimeBox>(traf) : nullptr;
        auto* trun = tfdt ? addNew<CTrackRunBox>(traf) : nullptr;
        if (!trun) return MP4_ERR_OUT_OF_MEMORY;
        tfhd->flags = CTrackFragmentHeaderBox::kDefaultBaseIsMoof;
        tfhd->trackId = track.trackId;
        tfdt->version = 1;
        tfdt->baseMediaDecodeTime = track.ready.front().decodeTime;
        trun->version = negative ? 1 : 0;
        trun->flags = CTrackRunBox::kDataOffset | CTrackRunBox::kDuration | CTrackRunBox::kSize |
                      CTrackRunBox::kFlags | (anyOffset ? CTrackRunBox::kCompositionOffset : 0);
        values.clear();
        try {
            for (const Sample& sample : track.ready) {
                values.push_back(sample.duration);
                values.push_back(sample.size);
                values.push_back(sample.sync ? kSyncSampleFlags : kOtherSampleFlags);
                if (anyOffset) values.push_back(static_cast<uint32_t>(sample.compositionOffset));
            }
            runs.emplace_back(trun, readyBytes(track));
        } catch (...) {
            return MP4_ERR_OUT_OF_MEMORY;
        }
        MP4Err err = trun->setSamples(static_cast<uint32_t>(track.ready.size()), values.data());
        if (err != MP4_OK) return err;
        ++trafNumber;
        if (track.ready.front().sync && !segmented()) {
            try {
                track.randomAccess.push_back(
                    {track.ready.front().decodeTime, moofOffset, trafNumber});
            } catch (...) {
                return MP4_ERR_OUT_OF_MEMORY;
            }
        }
    }
    // The data offsets do not change the size: sized once, then filled in.
    uint64_t moofSize = 0;
    MP4Err err = moof.calculateSize();
    if (err == MP4_OK) err = moof.getSize(&moofSize);
    if (err != MP4_OK) return err;
    uint64_t dataOffset = moofSize + mdatHeader;
    for (const auto& run : runs) {
        run.first->dataOffset = static_cast<int32_t>(dataOffset);
        dataOffset += run.second;
    }
    return appendBox(&moof, out);
}

MP4Err CFragmentWriter::writeFragment() {
    uint64_t mediaBytes = 0;
    bool any = false;
    for (const Track& track : tracks_) {
        mediaBytes += readyBytes(track);
        any = any || !track.ready.empty();
    }
    if (!any) return MP4_OK;
    MP4Err err = MP4_OK;
    if (!movieWritten_ && (err = writeMovie()) != MP4_OK) return err;

    CBoxBytes header;
    if (segmented() && (err = appendSegmentType(&header)) != MP4_OK) return err;
    const uint64_t moofStart = header.size();
    const uint64_t moofOffset = segmented() ? moofStart : end_;
    std::vector<size_t> randomAccessCounts;
    for (const Track& track : tracks_) randomAccessCounts.push_back(track.randomAccess.size());
    // Kept below 2 GiB by the pending limit: data offsets are 32-bit.
    const bool large = mediaBytes + 8 > kMax32;
    const uint64_t mdatHeader = large ? 16 : 8;
    err = buildMovieFragment(&header, moofOffset, mdatHeader);
    const uint64_t moofSize = header.size() - moofStart;
    if (large) {
        header.u32(1);
        header.u32(fourcc("mdat"));
        header.u64(mediaBytes + 16);
    } else {
        header.u32(static_cast<uint32_t>(mediaBytes + 8));
        header.u32(fourcc("mdat"));
    }
    if (err == MP4_OK) {
        err = segmented() ? writeSegmentFile(header) : writeFragmentBytes(header, moofSize, mediaBytes);
    }
    if (err != MP4_OK) {
        // Written again with the next cut or at close: forget the entries.
        for (size_t i = 0; i < tracks_.size(); ++i) {
            tracks_[i].randomAccess.resize(randomAccessCounts[i]);
        }
        return err;
    }

    MP4FragmentInfo info;
    const Track& lead = tracks_[lead_];
    info.timeScale = lead.timeScale;
    info.startTime = lead.ready.empty() ? lead.endTime : lead.ready.front().decodeTime;
    for (const Sample& sample : lead.ready) info.duration += sample.duration;
    info.startsWithSync = !lead.ready.empty() && lead.ready.front().sync;
    info.offset = moofOffset;
    info.size = header.size() + mediaBytes;
    try {
        fragments_.push_back(info);
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    for (Track& track : tracks_) {
        if (track.ready.empty()) continue;
        const uint64_t used = readyBytes(track);
        const Sample& last = track.ready.back();
        track.endTime = last.decodeTime + last.duration;
        track.bytes.erase(track.bytes.begin(), track.bytes.begin() + static_cast<ptrdiff_t>(used));
        track.ready.clear();
    }
    ++sequence_;
    fragmentOpen_ = false;
    return MP4_OK;
}

MP4Err CFragmentWriter::writeAt(CStorage* storage, uint64_t offset, const uint8_t* bytes,
                                uint64_t length) {
    MP4Err err = storage->seek(offset);
    for (uint64_t done = 0; err == MP4_OK && done < length;) {
        const uint64_t step = std::min(length - done, kWriteStep);
        err = storage->writeBytes(bytes + done, static_cast<int32_t>(step));
        done += step;
    }
    return err;
}

// Each track's ready samples, straight from where they were gathered.
MP4Err CFragmentWriter::writeMediaData(CStorage* storage, uint64_t position) {
    for (const Track& track : tracks_) {
        const uint64_t used = readyBytes(track);
        MP4Err err = used > 0 ? writeAt(storage, position, track.bytes.data(), used) : MP4_OK;
        if (err != MP4_OK) return err;
        position += used;
    }
    return MP4_OK;
}

// The media data first, flushed, then the "moof" in the room left before
// it, flushed: a writer stopped at any moment leaves either a whole
// fragment or, before its "moof" is on disc, a stretch of zeros (a box of
// size 0, which runs to the end of the file) that readers pass over, never
// a "moof" whose samples are missing.
MP4Err CFragmentWriter::writeFragmentBytes(const CBoxBytes& header, uint64_t moofSize,
                                           uint64_t mediaBytes) {
    const uint64_t mdat = end_ + moofSize;
    MP4Err err = writeAt(storage_, mdat, header.data() + moofSize, header.size() - moofSize);
    if (err == MP4_OK) err = writeMediaData(storage_, mdat + header.size() - moofSize);
    if (err == MP4_OK) err = storage_->flush();
    if (err == MP4_OK) err = writeAt(storage_, end_, header.data(), moofSize);
    if (err == MP4_OK) err = storage_->flush();
    if (err != MP4_OK) return err == MP4_ERR_NOT_AVAILABLE ? MP4_ERR_IO : err;
    end_ += header.size() + mediaBytes;
    return MP4_OK;
}

// A segment file: its name is the prefix and the fragment's number.
MP4Err CFragmentWriter::writeSegmentFile(const CBoxBytes& header) {
    const std::wstring path = segmentPrefix_ + std::to_wstring(sequence_ + 1) + L".m4s";
    CDiscStorage file;
    MP4Err err = file.setPath(path.c_str());
    if (err == MP4_OK) err = file.open(1);
    if (err != MP4_OK) return MP4_ERR_IO;
    err = writeAt(&file, 0, header.data(), header.size());
    if (err == MP4_OK) err = writeMediaData(&file, header.size());
    if (err == MP4_OK) err = file.flush();
    const MP4Err closed = file.close();
    return err != MP4_OK ? err : closed;
}

// ---- the movie box ----------------------------------------------------------

// "mvex" in the movie box: "mehd" (version 1, so that close fills in the
// duration without changing its size) and a "trex" per track whose
// defaults every "trun" overrides.
MP4Err CFragmentWriter::addMovieExtends() {
    auto* mvex = moov_ ? addNew<CMovieExtendsBox>(moov_) : nullptr;
    mehd_ = mvex ? addNew<CMovieExtendsHeaderBox>(mvex) : nullptr;
    if (!mehd_) return MP4_ERR_OUT_OF_MEMORY;
    mehd_->version = 1;
    for (const Track& track : tracks_) {
        auto* trex = addNew<CTrackExtendsBox>(mvex);
        if (!trex) return MP4_ERR_OUT_OF_MEMORY;
        trex->trackId = track.trackId;
        trex->defaultSampleDescriptionIndex = 1;
    }
    return MP4_OK;
}

// "styp" of a media segment.
MP4Err CFragmentWriter::appendSegmentType(CBoxBytes* out) const {
    CFileTypeBox styp;
    styp.type = fourcc("styp");
    styp.majorBrand = fourcc("msdh");
    const uint32_t brands[3] = {fourcc("msdh"), fourcc("msix"), fourcc("cmfs")};
    MP4Err err = styp.setCompatibleBrands(brands, settings_.cmafBrands ? 3 : 2);
    return err == MP4_OK ? appendBox(&styp, out) : err;
}

// The movie box as the tree writes it.
MP4Err CFragmentWriter::movieBytes(CBoxBytes* out) {
    return moov_ ? appendBox(moov_, out) : MP4_ERR_INVALID_DATA;
}

// The movie box at its place, then the room kept for "sidx" as "free".
MP4Err CFragmentWriter::writeMovie() {
    CBoxBytes movie;
    MP4Err err = movieBytes(&movie);
    if (err != MP4_OK) return err;
    movieSize_ = movie.size();
    if (settings_.segmentIndexEntries > 0 && !segmented()) {
        indexRoom_ = kSegmentIndexHeader + kSegmentIndexEntry * settings_.segmentIndexEntries +
                     kFreeHeader;
        const size_t free = movie.begin(fourcc("free"));
        movie.bytes().resize(movie.size() + indexRoom_ - kFreeHeader);
        movie.end(free);
    }
    err = writeAt(storage_, movieOffset_, movie.data(), movie.size());
    if (err == MP4_OK) err = storage_->flush();
    if (err != MP4_OK) return err == MP4_ERR_NOT_AVAILABLE ? MP4_ERR_IO : err;
    end_ = movieOffset_ + movie.size();
    movieWritten_ = true;
    return MP4_OK;
}

// ---- close ------------------------------------------------------------------

MP4Err CFragmentWriter::finish() {
    MP4Err err = start();
    if (err != MP4_OK) return err;
    // The last sample of each track repeats the duration before it.
    for (Track& track : tracks_) {
        if (!track.holding) continue;
        if ((err = releaseHeld(&track, track.held.decodeTime + track.lastDuration)) != MP4_OK) {
            return err;
        }
    }
    if ((err = writeFragment()) != MP4_OK) return err;
    if (!movieWritten_ && (err = writeMovie()) != MP4_OK) return err;
    finished_ = true;
    if (!segmented()) {
        if (settings_.randomAccessIndex && (err = writeRandomAccessIndex()) != MP4_OK) return err;
        if ((err = writeSegmentIndex()) != MP4_OK) return err;
    }
    if ((err = updateMovieDurations()) != MP4_OK) return err;
    return storage_->flush() == MP4_ERR_IO ? MP4_ERR_IO : MP4_OK;
}

uint64_t CFragmentWriter::movieDuration() const {
    uint64_t longest = 0;
    for (const Track& track : tracks_) {
        longest = std::max(longest, rescale(track.endTime, movieTimeScale_, track.timeScale));
    }
    return longest;
}

// "mfra": a "tfra" per track with the fragments that start with a sync
// sample of it, then "mfro" with the size of the whole.
MP4Err CFragmentWriter::writeRandomAccessIndex() {
    CMovieFragmentRandomAccessBox mfra;
    for (const Track& track : tracks_) {
        auto* tfra = addNew<CTrackFragmentRandomAccessBox>(&mfra);
        if (!tfra) return MP4_ERR_OUT_OF_MEMORY;
        tfra->version = 1;
        tfra->trackId = track.trackId;
        tfra->lengthSizes = 3u << 4;  // 4-byte traf numbers, 1-byte trun and sample numbers
        tfra->entryCount = static_cast<uint32_t>(track.randomAccess.size());
        if (tfra->entryCount > 0) {
            tfra->entries.reset(new (std::nothrow)
                                    CTrackFragmentRandomAccessBox::Entry[tfra->entryCount]);
            if (!tfra->entries) return MP4_ERR_OUT_OF_MEMORY;
        }
        for (uint32_t i = 0; i < tfra->entryCount; ++i) {
            const Track::Entry& from = track.randomAccess[i];
            tfra->entries[i] = {from.time, from.moofOffset, from.trafNumber, 1, 1};
        }
    }
    auto* mfro = addNew<CMovieFragmentRandomAccessOffsetBox>(&mfra);
    uint64_t size = 0;
    MP4Err err = mfro ? mfra.calculateSize() : MP4_ERR_OUT_OF_MEMORY;
    if (err == MP4_OK) err = mfra.getSize(&size);
    if (err != MP4_OK) return err;
    mfro->mfraSize = static_cast<uint32_t>(size);
    CBoxBytes index;
    if ((err = appendBox(&mfra, &index)) != MP4_OK) return err;
    if ((err = writeAt(storage_, end_, index.data(), index.size())) != MP4_OK) return err;
    end_ += index.size();
    return MP4_OK;
}

// "sidx" over the leading track, one reference per fragment, in the room
// after the movie box; the rest of the room stays "free".
MP4Err CFragmentWriter::writeSegmentIndex() {
    if (indexRoom_ == 0 || fragments_.size() > settings_.segmentIndexEntries) return MP4_OK;
    const Track& lead = tracks_[lead_];
    CSegmentIndexBox sidx;
    sidx.version = 1;
    sidx.referenceId = lead.trackId;
    sidx.timeScale = lead.timeScale;
    sidx.earliestPresentationTime = fragments_.empty() ? 0 : fragments_.front().startTime;
    sidx.referenceCount = static_cast<uint16_t>(fragments_.size());
    if (!fragments_.empty()) {
        sidx.references.reset(new (std::nothrow) CSegmentIndexBox::Reference[fragments_.size()]);
        if (!sidx.references) return MP4_ERR_OUT_OF_MEMORY;
    }
    for (size_t i = 0; i < fragments_.size(); ++i) {
        const MP4FragmentInfo& fragment = fragments_[i];
        CSegmentIndexBox::Reference& reference = sidx.references[i];
        reference.typeAndSize = static_cast<uint32_t>(fragment.size & 0x7FFFFFFF);
        reference.subsegmentDuration = static_cast<uint32_t>(std::min(fragment.duration, kMax32));
        reference.sapFields = fragment.startsWithSync ? 0x90000000u : 0;  // SAP type 1
    }
    uint64_t indexSize = 0;
    MP4Err err = sidx.calculateSize();
    if (err == MP4_OK) err = sidx.getSize(&indexSize);
    if (err != MP4_OK) return err;
    sidx.firstOffset = indexRoom_ - indexSize;  // the "free" box lies between
    CBoxBytes index;
    if ((err = appendBox(&sidx, &index)) != MP4_OK) return err;
    const size_t free = index.begin(fourcc("free"));
    index.bytes().resize(indexRoom_);
    index.end(free);
    return writeAt(storage_, movieOffset_ + movieSize_, index.data(), index.size());
}

// The longest track's duration into "mvhd" and "mehd", written over the
// movie box when its size stays the same (it does unless "mvhd" needs a
// 64-bit duration it did not have).
MP4Err CFragmentWriter::updateMovieDurations() {
    auto* mvhd = childOf<CMovieHeaderBox>(moov_, fourcc("mvhd"));
    if (!mvhd || !mehd_) return MP4_OK;
    mvhd->duration = movieDuration();
    mehd_->fragmentDuration = mvhd->duration;
    CBoxBytes movie;
    MP4Err err = movieBytes(&movie);
    if (err != MP4_OK || movie.size() != movieSize_) return err;
    return writeAt(storage_, movieOffset_, movie.data(), movie.size());
}

}  // namespace quil
