// quil_bench index|table|read|tracks|seek|moov|bind FILE, quil_bench track N FILE
//
// Times quil over every sample of every track of FILE through the public
// interface only, and prints one result line (see BenchCommon.h):
//   index  open, bind each track, then offset, size, decode time,
//          composition time and sync flag of each sample;
//   table  the same answers, a block of samples per call (Mp4GetSampleTable);
//   read   open, bind each track, then the bytes of each sample in file
//          order, into one reused buffer;
//   and the others bench/README.md describes (one track, track after
//   track, seeks, and the floors: open only, open and bind).
// The clock runs from open to the release of the file object, so binding
// (where the sample tables are built) is part of the measured work.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <quil/quil.h>

#include "BenchCommon.h"

namespace {

using quil::CMp4File;
using quil::CMp4Track;
using quil::MP4Err;

const char* gProgram = "quil_bench";

// Reports a failed call and turns it into the program's failure.
bool failed(MP4Err err, const char* what, uint32_t track = 0, uint32_t sample = 0) {
    if (err == quil::MP4_OK) return false;
    std::fprintf(stderr, "%s: %s", gProgram, what);
    if (track != 0) std::fprintf(stderr, " (track %u", track);
    if (sample != 0) std::fprintf(stderr, ", sample %u", sample);
    if (track != 0) std::fprintf(stderr, ")");
    std::fprintf(stderr, " failed: %s\n", quil::toString(err));
    return true;
}

// Decodes a UTF-8 command-line path into the wide path the library takes.
bool widenPath(const char* utf8, std::wstring* wide) {
    const auto* p = reinterpret_cast<const unsigned char*>(utf8);
    while (*p != 0) {
        uint32_t c = *p++;
        int extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
        if (extra < 0) return false;
        if (extra > 0) c &= 0x3Fu >> extra;
        for (int i = 0; i < extra; ++i, ++p) {
            if ((*p & 0xC0) != 0x80) return false;
            c = (c << 6) | (*p & 0x3F);
        }
        static const uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
        if (c < kSmallest[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        wide->push_back(static_cast<wchar_t>(c));
    }
    return true;
}

// An open file with its bound tracks; everything is handed back to the
// library on destruction, on failure paths too.
class OpenFile {
public:
    // Clean-up after a failure already reported: further errors add nothing.
    ~OpenFile() {
        for (CMp4Track* track : tracks_) (void)file_->releaseTrack(track);
        if (file_ != nullptr) {
            uint32_t open = 0;
            if (file_->isOpen(&open) == quil::MP4_OK && open != 0) (void)file_->close();
            (void)CMp4File::destroyInstance(&file_);
        }
    }

    // bindTracks false: the box tree is read and parsed (the movie box's
    // tables included), no track is bound.
    bool open(const std::wstring& path, bool bindTracks = true) {
        if (failed(CMp4File::createInstance(&file_), "createInstance")) return false;
        if (failed(file_->open(path.c_str(), 0, quil::MP4_FILE_MPEG4), "open")) return false;
        if (!bindTracks) return true;
        uint32_t count = 0;
        if (failed(file_->getTrackCount(&count), "getTrackCount")) return false;
        for (uint32_t n = 1; n <= count; ++n) {
            CMp4Track* track = nullptr;
            if (failed(file_->getTrack(n, &track), "getTrack", n)) return false;
            tracks_.push_back(track);
        }
        return true;
    }

    // Closes explicitly so that a close error is reported, not swallowed.
    bool close() {
        // Releasing a read track has nothing to flush; its result carries no news.
        for (CMp4Track* track : tracks_) (void)file_->releaseTrack(track);
        tracks_.clear();
        if (failed(file_->close(), "close")) return false;
        return !failed(CMp4File::destroyInstance(&file_), "destroyInstance");
    }

    const std::vector<CMp4Track*>& tracks() const { return tracks_; }

private:
    CMp4File* file_ = nullptr;
    std::vector<CMp4Track*> tracks_;
};

bool indexTrack(CMp4Track* track, uint32_t number, bench::Checksums* sums) {
    uint32_t count = 0;
    if (failed(track->getSampleCount(&count), "getSampleCount", number)) return false;
    for (uint32_t s = 1; s <= count; ++s) {
        uint64_t offset = 0, decodeTime = 0, compositionTime = 0;
        uint32_t size = 0, sync = 0;
        if (failed(track->getSampleOffset(s, &offset, &size), "getSampleOffset", number, s) ||
            failed(track->getSampleDecodeTime(s, &decodeTime), "getSampleDecodeTime", number, s) ||
            failed(track->getSampleCompositionTime(s, &compositionTime),
                   "getSampleCompositionTime", number, s) ||
            failed(track->isSyncSample(s, &sync), "isSyncSample", number, s))
            return false;
        sums->addIndexEntry(number, offset, size, static_cast<int64_t>(decodeTime),
                            static_cast<int64_t>(compositionTime), sync != 0);
    }
    return true;
}

// The same answers as indexTrack, a block of samples per call
// (Mp4GetSampleTable): what reading a track's index costs without four
// calls per sample.
bool tableTrack(CMp4Track* track, uint32_t number, bench::Checksums* sums) {
    uint32_t count = 0;
    if (failed(track->getSampleCount(&count), "getSampleCount", number)) return false;
    constexpr uint32_t kBlock = 4096;  // entries of 32 bytes: stays in the cache
    static quil::MP4SampleTableEntry entries[kBlock];
    for (uint32_t first = 1; first <= count; first += kBlock) {
        const uint32_t n = count - first + 1 < kBlock ? count - first + 1 : kBlock;
        uint32_t filled = 0;
        if (failed(quil::Mp4GetSampleTable(track, first, n, entries, &filled), "Mp4GetSampleTable",
                   number, first + filled))
            return false;
        for (uint32_t i = 0; i < n; ++i) {
            const quil::MP4SampleTableEntry& e = entries[i];
            sums->addIndexEntry(number, e.offset, e.size, static_cast<int64_t>(e.decodeTime),
                                static_cast<int64_t>(e.compositionTime), e.sync != 0);
        }
    }
    return true;
}

bool runTable(const OpenFile& file, bench::Checksums* sums) {
    uint32_t number = 0;
    for (CMp4Track* track : file.tracks())
        if (!tableTrack(track, ++number, sums)) return false;
    return true;
}

bool runIndex(const OpenFile& file, bench::Checksums* sums) {
    uint32_t number = 0;
    for (CMp4Track* track : file.tracks())
        if (!indexTrack(track, ++number, sums)) return false;
    return true;
}

// Next unread sample of one track and where it lies in the file.
struct Cursor {
    CMp4Track* track = nullptr;
    uint32_t number = 0;  // 1-based track number
    uint32_t count = 0;
    uint32_t next = 1;
    uint64_t offset = 0;

    bool done() const { return next > count; }
    bool locate() {
        uint32_t size = 0;
        return done() ||
               !failed(track->getSampleOffset(next, &offset, &size), "getSampleOffset", number,
                       next);
    }
};

bool readOne(Cursor* cursor, std::vector<uint8_t>* buffer, bench::Checksums* sums) {
    uint32_t size = 0;
    MP4Err err = cursor->track->readSample(cursor->next, static_cast<uint32_t>(buffer->size()),
                                           &size, buffer->data());
    if (err == quil::MP4_ERR_BUFFER_TOO_SMALL && size > buffer->size()) {
        buffer->resize(size);  // grows rarely: the buffer keeps the largest size seen
        err = cursor->track->readSample(cursor->next, size, &size, buffer->data());
    }
    if (failed(err, "readSample", cursor->number, cursor->next)) return false;
    sums->addSampleBytes(buffer->data(), size);
    ++cursor->next;
    return cursor->locate();
}

// Reads samples in file order, as a player streaming the file would: each
// step takes the track whose next sample lies first in the file.
bool runRead(const OpenFile& file, bench::Checksums* sums) {
    std::vector<Cursor> cursors;
    for (CMp4Track* track : file.tracks()) {
        Cursor cursor;
        cursor.track = track;
        cursor.number = static_cast<uint32_t>(cursors.size() + 1);
        if (failed(track->getSampleCount(&cursor.count), "getSampleCount", cursor.number) ||
            !cursor.locate())
            return false;
        cursors.push_back(cursor);
    }
    std::vector<uint8_t> buffer(1u << 20);
    for (;;) {
        Cursor* first = nullptr;
        for (Cursor& cursor : cursors)
            if (!cursor.done() && (first == nullptr || cursor.offset < first->offset))
                first = &cursor;
        if (first == nullptr) return true;
        if (!readOne(first, &buffer, sums)) return false;
    }
}

// Reads every sample of one track in sample order, counting the bytes
// returned.
bool readTrack(CMp4Track* track, uint32_t number, std::vector<uint8_t>* buffer,
               bench::Checksums* sums, uint64_t* bytes) {
    Cursor cursor;
    cursor.track = track;
    cursor.number = number;
    if (failed(track->getSampleCount(&cursor.count), "getSampleCount", number)) return false;
    while (!cursor.done()) {
        uint64_t before = sums->samples;
        if (!readOne(&cursor, buffer, sums)) return false;
        if (sums->samples != before) {
            uint32_t size = 0;
            if (failed(track->getSampleSize(cursor.next - 1, &size), "getSampleSize", number,
                       cursor.next - 1))
                return false;
            *bytes += size;
        }
    }
    return true;
}

// Track after track, all of track 1 first ("tracks"), or one track only.
bool runTracks(const OpenFile& file, uint32_t onlyTrack, bench::Checksums* sums,
               uint64_t* bytes) {
    std::vector<uint8_t> buffer(1u << 20);
    uint32_t number = 0;
    for (CMp4Track* track : file.tracks()) {
        ++number;
        if (onlyTrack != 0 && number != onlyTrack) continue;
        if (!readTrack(track, number, &buffer, sums, bytes)) return false;
    }
    return true;
}

// Every byte of every sample, track by track, into one FNV-1a hash: a
// check that two ways of reaching a file (a path and its URL) give the same
// bytes, not a measurement.
bool runDigest(const OpenFile& file, bench::Checksums* sums) {
    uint64_t hash = 0xCBF29CE484222325ull;
    std::vector<uint8_t> buffer(1u << 20);
    uint32_t number = 0;
    for (CMp4Track* track : file.tracks()) {
        Cursor cursor;
        cursor.track = track;
        cursor.number = ++number;
        if (failed(track->getSampleCount(&cursor.count), "getSampleCount", number)) return false;
        while (!cursor.done()) {
            uint32_t size = 0;
            if (!readOne(&cursor, &buffer, sums) ||
                failed(track->getSampleSize(cursor.next - 1, &size), "getSampleSize", number))
                return false;
            for (uint32_t i = 0; i < size; ++i) hash = (hash ^ buffer[i]) * 0x100000001B3ull;
        }
    }
    sums->checksum = hash;
    return true;
}

// A million seeks on track 1: the sync sample at or before each time.
// The checksum sums the answers; only the searches are timed.
bool runSeek(const OpenFile& file, bench::Checksums* sums, double* seconds) {
    if (file.tracks().empty()) return true;
    CMp4Track* track = file.tracks().front();
    uint64_t span = 0;
    if (failed(track->getMediaDuration(&span), "getMediaDuration", 1)) return false;
    bench::Stopwatch clock;
    for (uint32_t i = 0; i < bench::kSeeks; ++i) {
        uint32_t sample = 0;
        MP4Err err = track->findSyncSampleBefore(bench::seekTime(i, span), &sample);
        if (err != quil::MP4_OK && err != quil::MP4_ERR_NOT_AVAILABLE) return !failed(err, "findSyncSampleBefore", 1);
        sums->checksum += sample;
        ++sums->samples;
    }
    *seconds = clock.seconds();
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return bench::usage(gProgram);
    const std::string workload = argv[1];
    uint32_t onlyTrack = 0;
    if (workload == "track") {
        if (argc != 4 || std::atoi(argv[2]) <= 0) return bench::usage(gProgram);
        onlyTrack = static_cast<uint32_t>(std::atoi(argv[2]));
    } else if (argc != 3 || (workload != "index" && workload != "table" && workload != "read" &&
                             workload != "tracks" &&
                             workload != "digest" && workload != "seek" &&
                             workload != "moov" && workload != "bind")) {
        return bench::usage(gProgram);
    }
    const char* utf8Path = argv[argc - 1];
    // The result line is the only output: no download progress for URLs.
    quil::Mp4NetSettings net{};
    if (quil::Mp4GetNetSettings(&net) == quil::MP4_OK) {
        net.progress = nullptr;
        (void)quil::Mp4SetNetSettings(&net);
    }
    std::wstring path;
    if (!widenPath(utf8Path, &path)) {
        std::fprintf(stderr, "%s: the path is not valid UTF-8: %s\n", gProgram, utf8Path);
        return 1;
    }

    bench::Checksums sums;
    uint64_t bytes = 0;
    const uint64_t rcharBefore = bench::readChars();
    bench::Stopwatch clock;
    unsigned trackCount = 0;
    double seekSeconds = -1;
    {
        OpenFile file;
        if (!file.open(path, workload != "moov")) return 1;
        trackCount = static_cast<unsigned>(file.tracks().size());
        if (onlyTrack > trackCount) {
            std::fprintf(stderr, "%s: no track %u\n", gProgram, onlyTrack);
            return 1;
        }
        bool ok = workload == "moov" || workload == "bind" ? true
                  : workload == "index"  ? runIndex(file, &sums)
                  : workload == "table"  ? runTable(file, &sums)
                  : workload == "read"   ? runRead(file, &sums)
                  : workload == "digest" ? runDigest(file, &sums)
                  : workload == "seek"   ? runSeek(file, &sums, &seekSeconds)
                                         : runTracks(file, onlyTrack, &sums, &bytes);
        if (!ok || !file.close()) return 1;
    }
    double seconds = seekSeconds >= 0 ? seekSeconds : clock.seconds();
    char extra[96] = "";
    if (workload == "track" || workload == "tracks") {
        std::snprintf(extra, sizeof extra, " bytes=%" PRIu64 " rchar=%" PRIu64, bytes,
                      bench::readChars() - rcharBefore);
    }
    bench::printResult("quil", workload.c_str(), sums, trackCount, seconds, utf8Path, extra);
    return 0;
}
