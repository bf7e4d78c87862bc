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
// A fragment whose media data pass this many bytes closes even without a
// sync sample of the leading track: data offsets are 32-bit.
constexpr uint64_t kMaxPayload = 1ull << 30;
// Samples of a track are written once this many bytes are ready.
constexpr uint64_t kChunkBytes = 256 * 1024;
constexpr uint64_t kMediaDataHeader = 8;
// Room before the first fragment's media data for its "moof" (about a
// thousand samples), and the least room of later ones.
constexpr uint64_t kFirstRoom = 16 * 1024;
constexpr uint64_t kMinRoom = 1024;
// "styp" with major brand, minor version and two compatible brands.
constexpr uint64_t kSegmentTypeSize = 24;
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
      moov_(moov), nextRoom_(kFirstRoom) {
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

uint64_t CFragmentWriter::unwrittenBytes(const Track& track) {
    uint64_t bytes = 0;
    for (size_t i = track.written; i < track.ready.size(); ++i) bytes += track.ready[i].size;
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

// The most the "moof" can take with one more sample of `adding` (and a run
// more for every track): "trun" entries of 16 bytes, 24 per run.
uint64_t CFragmentWriter::movieFragmentBound(const Track* adding) const {
    uint64_t bound = 8 + 16;
    for (const Track& track : tracks_) {
        const uint64_t samples = track.ready.size() + (track.holding ? 1 : 0) +
                                 (&track == adding ? 1 : 0);
        if (samples > 0) bound += 8 + 20 + 24 + 24 * (track.runs.size() + 1) + 16 * samples;
    }
    return bound;
}

bool CFragmentWriter::fragmentFull(const Track* adding) const {
    const uint64_t room = fragmentReserved_ ? room_ - segmentTypeSize() : nextRoom_;
    return movieFragmentBound(adding) + kFreeHeader > room || payload_ > kMaxPayload;
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
    // A fragment too full for its room is cut early, wherever it stands.
    if (cutsBefore(*track, decodeTime, sync) || fragmentFull(track)) {
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
    // Bytes go out in pieces that stay in the processor's cache between
    // being gathered and being copied to the file: gathering a whole
    // fragment first made the copy run from main memory, three times
    // slower on the machines measured.
    if (track->bytes.size() - size >= kChunkBytes) return flushTrack(track);
    return MP4_OK;
}

// ---- fragments ------------------------------------------------------------

uint64_t CFragmentWriter::segmentTypeSize() const {
    return segmented() ? kSegmentTypeSize + (settings_.cmafBrands ? 4 : 0) : 0;
}

// Room for the fragment's "styp" and "moof" (with a "free" box for what is
// left of it) before its "mdat", whose payload is written as it comes.
// Each fragment's room is half as large again as the last "moof".
MP4Err CFragmentWriter::reserveFragment() {
    if (fragmentReserved_) return MP4_OK;
    MP4Err err = MP4_OK;
    if (!movieWritten_ && (err = writeMovie()) != MP4_OK) return err;
    if (segmented()) {
        const std::wstring path = segmentPrefix_ + std::to_wstring(sequence_ + 1) + L".m4s";
        std::unique_ptr<CDiscStorage> file(new (std::nothrow) CDiscStorage());
        if (!file) return MP4_ERR_OUT_OF_MEMORY;
        if (file->setPath(path.c_str()) != MP4_OK || file->open(1) != MP4_OK) return MP4_ERR_IO;
        segmentFile_ = std::move(file);
    }
    fragmentBase_ = segmented() ? 0 : end_;
    room_ = segmentTypeSize() + nextRoom_;
    payload_ = 0;
    fragmentReserved_ = true;
    return MP4_OK;
}

CStorage* CFragmentWriter::destination() const {
    return segmented() ? static_cast<CStorage*>(segmentFile_.get()) : storage_;
}

// The track's ready samples not yet written go out as one run.
MP4Err CFragmentWriter::flushTrack(Track* track) {
    const size_t count = track->ready.size() - track->written;
    if (count == 0) return MP4_OK;
    MP4Err err = reserveFragment();
    if (err != MP4_OK) return err;
    const uint64_t bytes = unwrittenBytes(*track);
    try {
        track->runs.push_back({static_cast<uint32_t>(track->written),
                               static_cast<uint32_t>(count), payload_});
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    err = writeAt(destination(), fragmentBase_ + room_ + kMediaDataHeader + payload_,
                  track->bytes.data(), bytes);
    if (err != MP4_OK) {
        track->runs.pop_back();
        return err;
    }
    payload_ += bytes;
    track->written = track->ready.size();
    track->bytes.erase(track->bytes.begin(), track->bytes.begin() + static_cast<ptrdiff_t>(bytes));
    return MP4_OK;
}

// "moof": "mfhd", then per track with samples a "traf" of "tfhd" (offsets
// from the "moof", default-base-is-moof), "tfdt" and a "trun" per run with
// every sample's duration, size, flags and, where any is not 0,
// composition offset (signed, version 1, when one is negative).
MP4Err CFragmentWriter::buildMovieFragment(CBoxBytes* out, uint64_t moofOffset) {
    CMovieFragmentBox moof;
    auto* mfhd = addNew<CMovieFragmentHeaderBox>(&moof);
    if (!mfhd) return MP4_ERR_OUT_OF_MEMORY;
    mfhd->sequenceNumber = sequence_ + 1;
    const uint64_t payloadStart = fragmentBase_ + room_ + kMediaDataHeader;
    std::vector<uint32_t> values;
    uint32_t trafNumber = 0;
    for (Track& track : tracks_) {
        if (track.ready.empty()) continue;
        auto* traf = addNew<CTrackFragmentBox>(&moof);
        auto* tfhd = traf ? addNew<CTrackFragmentHeaderBox>(traf) : nullptr;
        auto* tfdt = tfhd ? addNew<CTrackFragmentDecodeTimeBox>(traf) : nullptr;
        if (!tfdt) return MP4_ERR_OUT_OF_MEMORY;
        tfhd->flags = CTrackFragmentHeaderBox::kDefaultBaseIsMoof;
        tfhd->trackId = track.trackId;
        tfdt->version = 1;
        tfdt->baseMediaDecodeTime = track.ready.front().decodeTime;
        for (const Track::Run& run : track.runs) {
            CTrackRunBox* trun = nullptr;
            MP4Err err = addTrackRun(traf, track, run, &values, &trun);
            if (err != MP4_OK) return err;
            trun->dataOffset = static_cast<int32_t>(payloadStart + run.payloadOffset - moofOffset);
        }
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
    return appendBox(&moof, out);
}

MP4Err CFragmentWriter::addTrackRun(CBox* traf, const Track& track, const Track::Run& run,
                                    std::vector<uint32_t>* values, CTrackRunBox** added) {
    auto* trun = addNew<CTrackRunBox>(traf);
    if (!trun) return MP4_ERR_OUT_OF_MEMORY;
    *added = trun;
    bool anyOffset = false, negative = false;
    for (uint32_t i = run.first; i < run.first + run.count; ++i) {
        anyOffset = anyOffset || track.ready[i].compositionOffset != 0;
        negative = negative || track.ready[i].compositionOffset < 0;
    }
    trun->version = negative ? 1 : 0;
    trun->flags = CTrackRunBox::kDataOffset | CTrackRunBox::kDuration | CTrackRunBox::kSize |
                  CTrackRunBox::kFlags | (anyOffset ? CTrackRunBox::kCompositionOffset : 0);
    values->clear();
    try {
        for (uint32_t i = run.first; i < run.first + run.count; ++i) {
            const Sample& sample = track.ready[i];
            values->push_back(sample.duration);
            values->push_back(sample.size);
            values->push_back(sample.sync ? kSyncSampleFlags : kOtherSampleFlags);
            if (anyOffset) values->push_back(static_cast<uint32_t>(sample.compositionOffset));
        }
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return trun->setSamples(run.count, values->data());
}

// Ends the open fragment: the rest of its samples, the "mdat" header, a
// flush, then "styp"/"moof"/"free" in the room before the media data and
// another flush. Until that "moof" is written the room holds zeros (a box
// of size 0 running to the end of the file, which readers pass over), so
// a writer stopped at any moment leaves only whole fragments behind.
MP4Err CFragmentWriter::writeFragment() {
    bool any = false;
    for (const Track& track : tracks_) any = any || !track.ready.empty();
    if (!any) return MP4_OK;
    MP4Err err = MP4_OK;
    for (Track& track : tracks_) {
        if ((err = flushTrack(&track)) != MP4_OK) return err;
    }
    CBoxBytes header;
    if (segmented() && (err = appendSegmentType(&header)) != MP4_OK) return err;
    const uint64_t moofOffset = fragmentBase_ + header.size();
    std::vector<size_t> randomAccessCounts;
    for (const Track& track : tracks_) randomAccessCounts.push_back(track.randomAccess.size());
    if ((err = buildMovieFragment(&header, moofOffset)) == MP4_OK) {
        const uint64_t moofSize = header.size() - (moofOffset - fragmentBase_);
        // The room was sized by movieFragmentBound, which "moof" never passes.
        err = header.size() + kFreeHeader > room_ ? MP4_ERR_INVALID_DATA : MP4_OK;
        CStorage* out = destination();
        if (err == MP4_OK) {
            const size_t free = header.begin(fourcc("free"));
            header.bytes().resize(room_);
            header.end(free);
            header.u32(static_cast<uint32_t>(kMediaDataHeader + payload_));
            header.u32(fourcc("mdat"));
            err = writeAt(out, fragmentBase_ + room_, header.data() + room_, kMediaDataHeader);
        }
        if (err == MP4_OK) err = out->flush();
        if (err == MP4_OK) err = writeAt(out, fragmentBase_, header.data(), room_);
        if (err == MP4_OK) err = out->flush();
        if (err == MP4_OK) nextRoom_ = std::max<uint64_t>(kMinRoom, moofSize * 3 / 2 + 512);
    }
    if (err != MP4_OK) {
        // Written again with the next cut or at close: forget the entries.
        for (size_t i = 0; i < tracks_.size(); ++i) {
            tracks_[i].randomAccess.resize(randomAccessCounts[i]);
        }
        return err == MP4_ERR_NOT_AVAILABLE ? MP4_ERR_IO : err;
    }
    return closeFragment(moofOffset);
}

// Records the fragment written and starts the next one.
MP4Err CFragmentWriter::closeFragment(uint64_t moofOffset) {
    MP4FragmentInfo info;
    const Track& lead = tracks_[lead_];
    info.timeScale = lead.timeScale;
    info.startTime = lead.ready.empty() ? lead.endTime : lead.ready.front().decodeTime;
    for (const Sample& sample : lead.ready) info.duration += sample.duration;
    info.startsWithSync = !lead.ready.empty() && lead.ready.front().sync;
    info.offset = moofOffset;
    info.size = room_ + kMediaDataHeader + payload_ - (moofOffset - fragmentBase_);
    try {
        fragments_.push_back(info);
    } catch (...) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    for (Track& track : tracks_) {
        if (!track.ready.empty()) {
            track.endTime = track.ready.back().decodeTime + track.ready.back().duration;
        }
        track.ready.clear();
        track.runs.clear();
        track.written = 0;
    }
    MP4Err err = MP4_OK;
    if (segmented()) {
        info.size += moofOffset;  // the segment file, "styp" included
        fragments_.back().size = info.size;
        err = segmentFile_->close();
        segmentFile_.reset();
    } else {
        end_ = fragmentBase_ + room_ + kMediaDataHeader + payload_;
    }
    fragmentReserved_ = false;
    payload_ = 0;
    ++sequence_;
    fragmentOpen_ = false;
    return err;
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
    if (indexRoom_ == 0 || fragments_.empty() || fragments_.size() > settings_.segmentIndexEntries) {
        return MP4_OK;
    }
    const Track& lead = tracks_[lead_];
    CSegmentIndexBox sidx;
    sidx.version = 1;
    sidx.referenceId = lead.trackId;
    sidx.timeScale = lead.timeScale;
    sidx.earliestPresentationTime = fragments_.front().startTime;
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
