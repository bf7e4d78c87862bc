// quil faststart IN OUT: the movie box moved in front of the media data,
// everything else kept as it is.
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "Command.h"
#include "Rewrite.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

// The rewrite is one library call; its progress is the growth of the
// output file, watched from a second thread.
class OutputWatcher {
public:
    OutputWatcher(const std::string& path, uint64_t expected)
        : progress_("faststart", expected) {
        if (progress_.enabled()) thread_ = std::thread([this, path] { watch(path); });
    }
    ~OutputWatcher() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

private:
    void watch(const std::string& path) {
        while (!stop_) {
            progress_.update(fileSize(path));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    Progress progress_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

const char* faststartFailure(MP4Err err) {
    switch (err) {
        case MP4_ERR_WRONG_LAYOUT:
            return "nothing to do: the movie box already comes first, or the file does not "
                   "have one media data box followed by a movie box";
        case MP4_ERR_NOT_AVAILABLE:
            return "no movie box, or a track without the tables its chunk offsets are in";
        default: return nullptr;
    }
}

}  // namespace

int moveMovieFirst(const char* input, const std::string& output, const char* label) {
    std::wstring source, target;
    MP4Err err = Mp4WidePathFromUtf8(input, &source);
    if (err == MP4_OK) err = Mp4WidePathFromUtf8(output.c_str(), &target);
    CMp4File* file = nullptr;
    if (err == MP4_OK) err = CMp4File::createInstance(&file);
    if (err == MP4_OK) {
        OutputWatcher watcher(output, fileSize(input));
        err = file->optimizeFile(1, source.c_str(), target.c_str());
    }
    CMp4File::destroyInstance(&file);
    if (err == MP4_OK) return kExitOk;
    const char* why = faststartFailure(err);
    std::fprintf(stderr, "quil: %s: %s: %s\n", label, input, why ? why : toString(err));
    return kExitFailure;
}

namespace {

// True when the file's movie box comes before its first media data box:
// only the top-level box headers are read.
bool movieAlreadyFirst(const char* path) {
    uint64_t length = 0;
    for (const TopLevelBox& box : topLevelBoxes(path, &length)) {
        if (box.type == fourcc("moov")) return true;
        if (box.type == fourcc("mdat")) return false;
    }
    return false;
}

// A plain byte copy in pieces; false with *error set.
bool copyFile(const char* from, const std::string& to, std::string* error) {
    std::FILE* in = std::fopen(from, "rb");
    if (in == nullptr) {
        *error = std::string(from) + ": " + std::strerror(errno);
        return false;
    }
    std::FILE* out = std::fopen(to.c_str(), "wb");
    bool ok = out != nullptr;
    std::vector<char> buffer(1 << 20);
    size_t count = 0;
    while (ok && (count = std::fread(buffer.data(), 1, buffer.size(), in)) > 0) {
        ok = std::fwrite(buffer.data(), 1, count, out) == count;
    }
    ok = ok && std::ferror(in) == 0;
    if (out != nullptr) ok = std::fclose(out) == 0 && ok;
    std::fclose(in);
    if (!ok) *error = to + ": " + std::strerror(errno != 0 ? errno : EIO);
    return ok;
}

int runFaststart(const Arguments& arguments) {
    const char* input = arguments.operand(0);
    OutputFile output;
    std::string error;
    if (!output.create(arguments.operand(1), &error)) {
        std::fprintf(stderr, "quil: faststart: %s\n", error.c_str());
        return kExitFailure;
    }
    if (movieAlreadyFirst(input)) {
        // Nothing to move: OUT is the same file, so a batch of mixed files
        // goes through.
        if (!copyFile(input, output.temporaryPath(), &error)) {
            std::fprintf(stderr, "quil: faststart: %s\n", error.c_str());
            return kExitFailure;
        }
        std::fprintf(stderr, "quil: faststart: %s: the movie box already comes first; copied\n",
                     input);
    } else if (int status = moveMovieFirst(input, output.temporaryPath(), "faststart")) {
        return status;
    }
    if (!output.commit(&error)) {
        std::fprintf(stderr, "quil: faststart: %s\n", error.c_str());
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

const Command kFaststartCommand = {
    "faststart",
    "faststart IN OUT",
    "  faststart  write IN to OUT with the movie box in front of the media data,\n"
    "           so that playback can start before the whole file has arrived;\n"
    "           every other box is kept, chunk offsets are moved\n",
    {},
    2,
    2,
    runFaststart,
};

}  // namespace tool
}  // namespace quil
