// Largest single allocation the library makes while opening a file and
// reading every sample of every track, through the public interface only.
// Replaces the global operator new, so every allocation of the library is
// seen. Exits 1 when one allocation exceeds max(4 MiB, the file's size):
// no input, damaged or not, can justify more.
//
// Usage: quil_alloc_probe FILE...
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "quil/quil.h"

namespace {

std::atomic<size_t> gLargest{0};

void note(size_t size) {
    size_t seen = gLargest.load();
    while (size > seen && !gLargest.compare_exchange_weak(seen, size)) {
    }
}

void* allocate(size_t size) {
    note(size);
    return std::malloc(size ? size : 1);
}

}  // namespace

void* operator new(size_t size) {
    if (void* p = allocate(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    if (void* p = allocate(size)) return p;
    throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

// Reads every sample of every track into one reused buffer (malloc'd, so
// the probe's own buffer is not counted).
void readEverything(const char* path) {
    std::string narrow(path);
    std::wstring wide(narrow.begin(), narrow.end());
    quil::CMp4File* file = nullptr;
    if (quil::CMp4File::createInstance(&file) != quil::MP4_OK) return;
    if (file->open(wide.c_str(), 0, 0) == quil::MP4_OK) {
        uint32_t tracks = 0;
        file->getTrackCount(&tracks);
        for (uint32_t n = 1; n <= tracks; ++n) {
            quil::CMp4Track* track = nullptr;
            if (file->getTrack(n, &track) != quil::MP4_OK) continue;
            uint32_t count = 0;
            track->getSampleCount(&count);
            uint32_t capacity = 0;
            uint8_t* buffer = nullptr;
            for (uint32_t i = 1; i <= count; ++i) {
                uint32_t size = 0;
                if (track->getSampleSize(i, &size) != quil::MP4_OK || size > (64u << 20)) continue;
                if (size > capacity) {
                    std::free(buffer);
                    buffer = static_cast<uint8_t*>(std::malloc(size));
                    capacity = buffer ? size : 0;
                }
                if (buffer) track->readSample(i, capacity, &size, buffer);
            }
            std::free(buffer);
            file->releaseTrack(track);
        }
        file->close();
    }
    quil::CMp4File::destroyInstance(&file);
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat info {};
        if (stat(argv[i], &info) != 0) continue;
        gLargest = 0;
        readEverything(argv[i]);
        size_t allowed = static_cast<size_t>(info.st_size) > (4u << 20) ? static_cast<size_t>(info.st_size)
                                                                      : (4u << 20);
        bool ok = gLargest <= allowed;
        failures += ok ? 0 : 1;
        std::printf("%s %zu bytes largest allocation, file %lld bytes: %s\n", argv[i], gLargest.load(),
                    static_cast<long long>(info.st_size), ok ? "ok" : "TOO LARGE");
    }
    return failures == 0 ? 0 : 1;
}
