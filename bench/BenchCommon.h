// Shared pieces of the two benchmark programs: timing, peak memory, the
// checksums and the one result line both print, so that their outputs can
// be compared field by field.
#ifndef QUIL_BENCH_COMMON_H
#define QUIL_BENCH_COMMON_H

#include <sys/resource.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace bench {

// 64-bit finaliser of splitmix64: spreads every input bit over the result,
// so a sum of mixed values changes whenever any single field changes.
inline uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Sums are order-independent: the peer hands samples out in its own order,
// yet the same set of samples must give the same value in both programs.
struct Checksums {
    uint64_t samples = 0;
    uint64_t checksum = 0;  // everything the workload looked at
    uint64_t layout = 0;    // offset, size and sync flag only (index workload)

    // Each field is spread by a multiply with its own odd constant (one to
    // one), then each sum gets one mix: a change in any field still changes
    // the value, at a cost small next to the lookups timed (a mix per field
    // cost about as much as the lookups themselves).
    void addIndexEntry(uint32_t track, uint64_t offset, uint32_t size, int64_t decodeTime,
                       int64_t compositionTime, bool sync) {
        const uint64_t place =
            mix(offset * 0xD6E8FEB86659FD93ull ^ (size + (static_cast<uint64_t>(sync) << 32)));
        layout += place;
        checksum += mix(place ^ (track * 0xA0761D6478BD642Full) ^
                        (static_cast<uint64_t>(decodeTime) * 0xE7037ED1A0B428DBull) ^
                        ((static_cast<uint64_t>(compositionTime) * 0x8EBC6AF09C88C6E3ull) >> 1));
        ++samples;
    }

    // Looks at the size and the first and last eight bytes: enough to prove
    // the bytes arrived without adding a per-byte cost to the measurement.
    void addSampleBytes(const uint8_t* data, uint32_t size) {
        uint64_t head = 0, tail = 0;
        uint32_t n = size < 8 ? size : 8;
        if (n != 0) {
            std::memcpy(&head, data, n);
            std::memcpy(&tail, data + size - n, n);
        }
        // Spread and mixed once, as in addIndexEntry.
        checksum += mix(size * 0xD6E8FEB86659FD93ull ^ head * 0xA0761D6478BD642Full ^
                        ((tail * 0xE7037ED1A0B428DBull) >> 1));
        ++samples;
    }
};

// The i-th of the seek workload's times, spread over [0, span): the same
// sequence in both programs.
constexpr uint32_t kSeeks = 1000000;
inline uint64_t seekTime(uint32_t i, uint64_t span) { return span == 0 ? 0 : mix(i) % span; }

class Stopwatch {
public:
    Stopwatch() : start_(std::chrono::steady_clock::now()) {}
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    std::chrono::steady_clock::time_point start_;
};

// Peak resident set size of this process in KiB (Linux reports ru_maxrss
// in kilobytes).
inline long peakRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Processor time (user and system) this process has used so far, start-up
// included: on a shared machine a steadier measure than the wall clock,
// which also counts the time other programs held the processor.
inline double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Bytes this process has read through read-like system calls so far
// ("rchar" of /proc/self/io); 0 when the file cannot be read.
inline uint64_t readChars() {
    FILE* io = std::fopen("/proc/self/io", "r");
    if (io == nullptr) return 0;
    char line[128];
    uint64_t value = 0;
    while (std::fgets(line, sizeof line, io) != nullptr) {
        if (std::sscanf(line, "rchar: %" SCNu64, &value) == 1) break;
    }
    std::fclose(io);
    return value;
}

// The one machine-readable result line; the file name comes last because
// it may contain spaces. extra holds further " key=value" fields; peakKb
// the peak memory to report (-1: this process's peak so far).
inline void printResult(const char* impl, const char* workload, const Checksums& sums,
                        unsigned tracks, double seconds, const char* path,
                        const char* extra = "", long peakKb = -1) {
    std::printf("impl=%s workload=%s tracks=%u samples=%" PRIu64 " checksum=%016" PRIx64
                " layout=%016" PRIx64 " seconds=%.6f maxrss_kb=%ld cpu=%.6f%s file=%s\n",
                impl, workload, tracks, sums.samples, sums.checksum, sums.layout, seconds,
                peakKb < 0 ? peakRssKb() : peakKb, cpuSeconds(), extra, path);
}

inline int usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s index|table|read|tracks|digest|seek|moov|bind FILE\n"
                 "       %s track N FILE\n"
                 "  index   offset, size, decode time, composition time and sync flag of\n"
                 "          every sample of every track\n"
                 "  table   the same, a block of samples per call (quil only)\n"
                 "  read    the bytes of every sample, in file order\n"
                 "  tracks  the bytes of every sample, track after track (quil only)\n"
                 "  track   the bytes of every sample of track N only\n"
                 "  seek    a million searches for the sync sample at or before random\n"
                 "          times of track 1 (seconds: the searches only)\n"
                 "  moov    only open the file: its boxes read and parsed, no track bound\n"
                 "          (quil only; the floor for index)\n"
                 "  bind    open the file and bind every track, no sample asked (quil\n"
                 "          only; index less its per-sample queries)\n"
                 "  digest  every sample byte hashed into checksum, track after track\n"
                 "          (quil only; a check, not a measurement)\n"
                 "prints: impl= workload= tracks= samples= checksum= layout= seconds=\n"
                 "        maxrss_kb= cpu= [bytes= rchar=] file=\n"
                 "  bytes: the sample bytes returned; rchar: bytes the process read\n"
                 "  from files meanwhile (track and tracks workloads)\n",
                 program, program);
    return 2;
}

}  // namespace bench

#endif
