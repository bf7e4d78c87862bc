// quil_rewrite remux|faststart IN OUT
//
// The two rewriting workloads through quil's public interface, with the
// result line of BenchCommon.h:
//   remux      every track of IN copied into a new file OUT as `quil remux`
//              copies it: each track's boxes as they are, its samples with
//              their timing, tracks interleaved by decode time;
//   faststart  optimizeFile from IN to OUT (what `quil faststart` does).
// The clock runs from opening IN to closing OUT. The checksum covers each
// copied sample's size and first and last eight bytes, read back from OUT
// after the clock stopped (the copy itself need not read the samples).
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

// The remux of `quil remux`: each track made a copy of its source
// (copyTrackFrom), then every sample in one call that keeps the source's
// chunks in the source's order (copied file to file), or sample by sample
// with copySampleFrom in decode-time order (chunks of a second or 256 KiB)
// where that call refuses (12).
class Remux {
public:
    ~Remux() {
        for (size_t i = 0; i < outs_.size(); ++i) {
            if (outs_[i]) (void)out_->releaseTrack(outs_[i]);
            if (ins_[i]) (void)in_->releaseTrack(ins_[i]);
        }
        if (out_) CMp4File::destroyInstance(&out_);
        if (in_) { (void)in_->close(); CMp4File::destroyInstance(&in_); }
    }

    bool run(const char* input, const char* output, unsigned* tracks) {
        uint32_t count = 0, fileType = 0;
        if (failed(CMp4File::createInstance(&in_), "createInstance") ||
            failed(in_->open(widen(input).c_str(), 0, 0), "open") ||
            failed(in_->getTrackCount(&count), "getTrackCount") ||
            failed(CMp4File::createInstance(&out_), "createInstance"))
            return false;
        (void)in_->getFileType(&fileType);
        if (failed(out_->open(widen(output).c_str(), 1, fileType), "open for writing") ||
            failed(out_->setMovieDurationRule(quil::MP4_MOVIE_DURATION_LONGEST_TRACK),
                   "setMovieDurationRule") ||
            !keepBrands())
            return false;
        for (uint32_t n = 1; n <= count; ++n) {
            CMp4Track *in = nullptr, *out = nullptr;
            uint32_t timeScale = 1;
            if (failed(in_->getTrack(n, &in), "getTrack", n)) return false;
            ins_.push_back(in);
            outs_.push_back(nullptr);
            if (failed(out_->addTrack(&out), "addTrack", n)) return false;
            outs_.back() = out;
            if (failed(out->copyTrackFrom(in), "copyTrackFrom", n)) return false;
            (void)in->getTimeScale(&timeScale);
            (void)out->setChunkLimits(timeScale, 256 * 1024);
        }
        *tracks = count;
        MP4Err err = quil::Mp4CopyTrackChunks(out_, outs_.data(), count, nullptr, nullptr);
        if (err == quil::MP4_ERR_UNSUPPORTED) err = copyEachSample();
        if (failed(err, "copying the samples")) return false;
        for (CMp4Track*& out : outs_) {
            if (failed(out_->releaseTrack(out), "releaseTrack")) return false;
            out = nullptr;
        }
        return !failed(out_->close(), "close");
    }

private:
    // The input's "ftyp" brands, as `quil remux` keeps them (so the media
    // data start where the input's do when its "ftyp" is followed by
    // "free" and a short "mdat" header, as ffmpeg writes them).
    bool keepBrands() {
        uint32_t major = 0, minor = 0, count = 0;
        if (quil::Mp4GetBrands(in_, &major, &minor, nullptr, 0, &count) != quil::MP4_OK) return true;
        std::vector<uint32_t> brands(count);
        return !failed(quil::Mp4GetBrands(in_, &major, &minor, brands.data(), count, &count),
                       "Mp4GetBrands") &&
               !failed(out_->setBrands(major, minor, brands.data(), count), "setBrands");
    }

    MP4Err copyEachSample() {
        struct Next {
            uint32_t sample = 1, count = 0, timeScale = 1;
            uint64_t decode = 0;
        };
        std::vector<Next> next(ins_.size());
        for (size_t i = 0; i < ins_.size(); ++i) {
            (void)ins_[i]->getTimeScale(&next[i].timeScale);
            (void)ins_[i]->getSampleCount(&next[i].count);
            (void)ins_[i]->getSampleDecodeTime(1, &next[i].decode);
        }
        for (;;) {
            size_t best = next.size();
            for (size_t i = 0; i < next.size(); ++i) {
                if (next[i].sample > next[i].count) continue;
                if (best == next.size() ||
                    static_cast<unsigned __int128>(next[i].decode) * next[best].timeScale <
                        static_cast<unsigned __int128>(next[best].decode) * next[i].timeScale)
                    best = i;
            }
            if (best == next.size()) return quil::MP4_OK;
            uint32_t size = 0;
            MP4Err err = outs_[best]->copySampleFrom(next[best].sample, &size);
            if (err != quil::MP4_OK) return err;
            if (++next[best].sample <= next[best].count)
                (void)ins_[best]->getSampleDecodeTime(next[best].sample, &next[best].decode);
        }
    }

    CMp4File* in_ = nullptr;
    CMp4File* out_ = nullptr;
    std::vector<CMp4Track*> ins_;
    std::vector<CMp4Track*> outs_;
};

// After the clock: each sample of the copy read back into the checksum,
// which must equal the peer's (the same samples with the same bytes).
bool checksumOutput(const char* output, bench::Checksums* sums) {
    CMp4File* file = nullptr;
    uint32_t count = 0;
    if (failed(CMp4File::createInstance(&file), "createInstance")) return false;
    bool ok = !failed(file->open(widen(output).c_str(), 0, 0), "open the copy") &&
              !failed(file->getTrackCount(&count), "getTrackCount");
    std::vector<uint8_t> buffer(1u << 20);
    for (uint32_t n = 1; ok && n <= count; ++n) {
        CMp4Track* track = nullptr;
        uint32_t samples = 0;
        ok = !failed(file->getTrack(n, &track), "getTrack", n);
        if (ok) (void)track->getSampleCount(&samples);
        for (uint32_t s = 1; ok && s <= samples; ++s) {
            uint32_t size = 0;
            MP4Err err = track->readSample(s, static_cast<uint32_t>(buffer.size()), &size,
                                           buffer.data());
            if (err == quil::MP4_ERR_BUFFER_TOO_SMALL && size > buffer.size()) {
                buffer.resize(size);
                err = track->readSample(s, size, &size, buffer.data());
            }
            ok = !failed(err, "reading the copy", n);
            if (ok) sums->addSampleBytes(buffer.data(), size);
        }
        if (track) (void)file->releaseTrack(track);
    }
    (void)file->close();
    CMp4File::destroyInstance(&file);
    return ok;
}

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
        ok = remux.run(argv[2], argv[3], &tracks);
    } else {
        ok = faststart(argv[2], argv[3]);
    }
    const double seconds = clock.seconds();
    // The peak memory of the copy itself: reading it back costs less.
    const long peakKb = bench::peakRssKb();
    if (ok && workload == "remux") ok = checksumOutput(argv[3], &sums);
    if (!ok) return 1;
    bench::printResult("quil", workload.c_str(), sums, tracks, seconds, argv[2], "", peakKb);
    return 0;
}
