// quil_rewrite remux|faststart IN OUT
//
// The two rewriting workloads through quil's public interface, with the
// result line of BenchCommon.h:
//   remux      every track of IN copied into a new file OUT: the sample entry
//              unchanged, every sample with its times and sync flag, tracks
//              interleaved by decode time (what `quil remux` does);
//   faststart  optimizeFile from IN to OUT (what `quil faststart` does).
// The clock runs from opening IN to closing OUT. The checksum covers each
// copied sample's size and first and last eight bytes.
#include <cstdio>
#include <string>
#include <vector>

#include <quil/quil.h>

#include "BenchCommon.h"

namespace {

using quil::CMp4File;
using quil::CMp4Track;
using quil::MP4Err;

const char* gProgram = "quil_rewrite";

bool failed(MP4Err err, const char* what, uint32_t track = 0) {
    if (err == quil::MP4_OK) return false;
    if (track != 0) std::fprintf(stderr, "%s: %s (track %u) failed: %s\n", gProgram, what, track,
                                 quil::toString(err));
    else std::fprintf(stderr, "%s: %s failed: %s\n", gProgram, what, quil::toString(err));
    return true;
}

std::wstring widen(const char* path) {
    std::wstring wide;
    for (const char* p = path; *p; ++p) wide.push_back(static_cast<unsigned char>(*p));
    return wide;  // the benchmark's paths are ASCII
}

struct Copy {
    CMp4Track* in = nullptr;
    CMp4Track* out = nullptr;
    uint32_t count = 0, next = 1, timeScale = 1;
    uint64_t delay = 0, decode = 0;
};

class Remux {
public:
    ~Remux() {
        for (Copy& c : copies_) {
            if (c.in) (void)in_->releaseTrack(c.in);
            if (c.out) (void)out_->releaseTrack(c.out);
        }
        if (in_) { (void)in_->close(); CMp4File::destroyInstance(&in_); }
        if (out_) CMp4File::destroyInstance(&out_);
    }

    bool run(const char* input, const char* output, bench::Checksums* sums, unsigned* tracks) {
        uint32_t count = 0, fileType = 0;
        if (failed(CMp4File::createInstance(&in_), "createInstance") ||
            failed(in_->open(widen(input).c_str(), 0, 0), "open") ||
            failed(in_->getTrackCount(&count), "getTrackCount") ||
            failed(CMp4File::createInstance(&out_), "createInstance"))
            return false;
        (void)in_->getFileType(&fileType);
        if (failed(out_->open(widen(output).c_str(), 1, fileType), "open for writing")) return false;
        for (uint32_t n = 1; n <= count; ++n)
            if (!addTrack(n)) return false;
        *tracks = static_cast<unsigned>(copies_.size());
        std::vector<uint8_t> buffer(1u << 20);
        while (Copy* c = next()) {
            uint32_t size = 0, sync = 0;
            uint64_t composition = 0;
            MP4Err err = c->in->readSample(c->next, static_cast<uint32_t>(buffer.size()), &size,
                                           buffer.data());
            if (err == quil::MP4_ERR_BUFFER_TOO_SMALL && size > buffer.size()) {
                buffer.resize(size);
                err = c->in->readSample(c->next, size, &size, buffer.data());
            }
            if (err == quil::MP4_OK) err = c->in->getSampleCompositionTime(c->next, &composition);
            if (err == quil::MP4_OK) err = c->in->isSyncSample(c->next, &sync);
            if (err == quil::MP4_OK)
                err = c->out->addSample(buffer.data(), size, c->decode - c->delay,
                                        composition - c->delay, sync != 0);
            if (failed(err, "copying a sample")) return false;
            sums->addSampleBytes(buffer.data(), size);
            if (++c->next <= c->count &&
                failed(c->in->getSampleDecodeTime(c->next, &c->decode), "getSampleDecodeTime"))
                return false;
        }
        for (Copy& c : copies_) {
            if (failed(out_->releaseTrack(c.out), "releaseTrack")) return false;
            c.out = nullptr;
        }
        return !failed(out_->close(), "close");
    }

private:
    bool addTrack(uint32_t n) {
        Copy c;
        uint32_t kind = 0;
        int64_t firstMediaTime = 0;
        uint64_t presented = 0;
        if (failed(in_->getTrack(n, &c.in), "getTrack", n)) return false;
        copies_.push_back(c);
        Copy& k = copies_.back();
        return !failed(k.in->getTrackType(&kind), "getTrackType", n) &&
               !failed(out_->addTrack(&k.out), "addTrack", n) &&
               !failed(k.out->setTrackType(kind), "setTrackType", n) &&
               !failed(k.in->getTimeScale(&k.timeScale), "getTimeScale", n) &&
               !failed(k.out->setTimeScale(k.timeScale), "setTimeScale", n) &&
               !failed(k.out->addSampleEntryFrom(k.in, 1), "addSampleEntryFrom", n) &&
               !failed(k.in->getInitialDelay(&k.delay, &firstMediaTime, &presented),
                       "getInitialDelay", n) &&
               !failed(k.out->setEditList(k.delay, firstMediaTime, presented), "setEditList", n) &&
               // Chunks as `quil remux` makes them: a second or 256 KiB.
               !failed(k.out->setChunkLimits(k.timeScale, 256 * 1024), "setChunkLimits", n) &&
               !failed(k.in->getSampleCount(&k.count), "getSampleCount", n) &&
               (k.count == 0 || !failed(k.in->getSampleDecodeTime(1, &k.decode), "decode time", n));
    }

    Copy* next() {
        Copy* best = nullptr;
        for (Copy& c : copies_) {
            if (c.next > c.count) continue;
            if (!best || static_cast<unsigned __int128>(c.decode) * best->timeScale <
                             static_cast<unsigned __int128>(best->decode) * c.timeScale)
                best = &c;
        }
        return best;
    }

    CMp4File* in_ = nullptr;
    CMp4File* out_ = nullptr;
    std::vector<Copy> copies_;
};

bool faststart(const char* input, const char* output) {
    CMp4File* file = nullptr;
    if (failed(CMp4File::createInstance(&file), "createInstance")) return false;
    MP4Err err = file->optimizeFile(1, widen(input).c_str(), widen(output).c_str());
    CMp4File::destroyInstance(&file);
    return !failed(err, "optimizeFile");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string workload = argc == 4 ? argv[1] : "";
    if (workload != "remux" && workload != "faststart") {
        std::fprintf(stderr, "usage: %s remux|faststart IN OUT\n", gProgram);
        return 2;
    }
    bench::Checksums sums;
    unsigned tracks = 0;
    bench::Stopwatch clock;
    bool ok = false;
    if (workload == "remux") {
        Remux remux;
        ok = remux.run(argv[2], argv[3], &sums, &tracks);
    } else {
        ok = faststart(argv[2], argv[3]);
    }
    const double seconds = clock.seconds();
    if (!ok) return 1;
    bench::printResult("quil", workload.c_str(), sums, tracks, seconds, argv[2]);
    return 0;
}
