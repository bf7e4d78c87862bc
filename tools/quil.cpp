// quil: command-line front end of the library.
//   quil dump FILE                 the box tree as text
//   quil info FILE [--json]        file and track properties
//   quil samples FILE [--track N]  one line per sample
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Hint.h"
#include "Info.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: quil dump FILE\n"
    "       quil info FILE [--json]\n"
    "       quil samples FILE [--track N]\n"
    "       quil hint IN OUT [--mtu N] [--latm]\n"
    "       quil sdp FILE [--to HOST:PORT]\n"
    "       quil rtp-send FILE --to HOST:PORT [--speed X]\n"
    "       quil --help\n"
    "\n"
    "  dump     print every box of the file with its fields\n"
    "  info     print the file type, the movie and each track's properties;\n"
    "           --json prints the same as one JSON document\n"
    "  samples  print one line per sample, tab separated: track number,\n"
    "           sample number, file offset, size, decode time, composition\n"
    "           time (media time scale), sync (1 or 0); --track N limits\n"
    "           the list to track N (1-based)\n"
    "  hint     copy the audio and video tracks of IN to OUT and add an RTP\n"
    "           hint track for each H.264, MPEG-4 video, H.263, AAC and AMR\n"
    "           track; --mtu N sets the largest RTP payload (default 1450),\n"
    "           --latm sends AAC as MP4A-LATM instead of mpeg4-generic\n"
    "  sdp      print the session and media SDP of a hinted file; with --to\n"
    "           HOST:PORT, a complete description for a receiver (track k on\n"
    "           PORT + 2k)\n"
    "  rtp-send send every hint track as RTP over UDP to HOST, track k to\n"
    "           PORT + 2k, paced by the RTP times (--speed X plays X times\n"
    "           as fast, 0 as fast as possible)\n";

int usageError(const char* message) {
    std::fprintf(stderr, "quil: %s (see quil --help)\n", message);
    return kExitUsage;
}

// What a failed open most likely means, for the message.
const char* openFailureHint(MP4Err err) {
    switch (err) {
        case MP4_ERR_NOT_AVAILABLE: return "not an MP4 file (no movie box found)";
        case MP4_ERR_IO: return "cannot open or read the file";
        case MP4_ERR_WRONG_LAYOUT: return "damaged compressed movie";
        default: return nullptr;
    }
}

int openOrReport(OpenedFile* file, const char* path) {
    MP4Err err = file->open(path);
    if (err == MP4_OK) return kExitOk;
    if (const char* hint = openFailureHint(err)) {
        std::fprintf(stderr, "quil: %s: %s: %s\n", path, hint, toString(err));
    } else {
        reportError(path, err);
    }
    return kExitFailure;
}

int runDump(const char* path) {
    OpenedFile file;
    if (int status = openOrReport(&file, path)) return status;
    MP4Err err = file.get()->dumpBoxes();
    std::fflush(stdout);
    if (err != MP4_OK) {
        reportError(path, err);
        return kExitFailure;
    }
    return dumpHintSamples(file.get());
}

int runInfo(const char* path, bool json) {
    OpenedFile file;
    if (int status = openOrReport(&file, path)) return status;
    return printInfo(path, file.get(), json);
}

// Prints the sample lines of one track; reports the first failure.
int printTrackSamples(CMp4File* file, uint32_t number) {
    CMp4Track* raw = nullptr;
    MP4Err err = file->getTrack(number, &raw);
    if (err != MP4_OK) {
        std::fprintf(stderr, "quil: track %u: %s\n", number, toString(err));
        return kExitFailure;
    }
    TrackHandle track(file, raw);
    uint32_t count = 0;
    err = track->getSampleCount(&count);
    for (uint32_t sample = 1; err == MP4_OK && sample <= count; ++sample) {
        uint64_t offset = 0, decodeTime = 0, compositionTime = 0;
        uint32_t size = 0, sync = 0;
        err = track->getSampleOffset(sample, &offset, &size);
        if (err == MP4_OK) err = track->getSampleDecodeTime(sample, &decodeTime);
        if (err == MP4_OK) err = track->getSampleCompositionTime(sample, &compositionTime);
        if (err == MP4_OK) err = track->isSyncSample(sample, &sync);
        if (err != MP4_OK) {
            std::fflush(stdout);
            std::fprintf(stderr, "quil: track %u, sample %u: %s\n", number, sample,
                         toString(err));
            return kExitFailure;
        }
        std::printf("%u\t%u\t%" PRIu64 "\t%u\t%" PRIu64 "\t%" PRIu64 "\t%u\n", number, sample,
                    offset, size, decodeTime, compositionTime, sync != 0 ? 1u : 0u);
    }
    if (err != MP4_OK) {
        std::fprintf(stderr, "quil: track %u: %s\n", number, toString(err));
        return kExitFailure;
    }
    return kExitOk;
}

int runSamples(const char* path, uint32_t onlyTrack) {
    OpenedFile file;
    if (int status = openOrReport(&file, path)) return status;
    if (onlyTrack != 0) return printTrackSamples(file.get(), onlyTrack);
    uint32_t count = 0;
    (void)file.get()->getTrackCount(&count);
    for (uint32_t number = 1; number <= count; ++number) {
        if (int status = printTrackSamples(file.get(), number)) return status;
    }
    return kExitOk;
}

// A track number 1..2^32-1 written in decimal digits only.
bool parseTrackNumber(const char* text, uint32_t* number) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value == 0 || value > UINT32_MAX) return false;
    *number = static_cast<uint32_t>(value);
    return true;
}

int run(int argc, char** argv) {
    if (argc < 2) return usageError("no command given");
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (argc < 3) return usageError("no file given");
    const char* path = argv[2];

    if (command == "dump") {
        if (argc != 3) return usageError("dump takes only a file");
        return runDump(path);
    }
    if (command == "info") {
        bool json = false;
        for (int i = 3; i < argc; ++i) {
            if (std::strcmp(argv[i], "--json") != 0) return usageError("unknown option for info");
            json = true;
        }
        return runInfo(path, json);
    }
    if (command == "samples") {
        uint32_t track = 0;
        if (argc == 5 && std::strcmp(argv[3], "--track") == 0) {
            if (!parseTrackNumber(argv[4], &track)) {
                return usageError("--track needs a track number of 1 or more");
            }
        } else if (argc != 3) {
            return usageError("samples takes a file and an optional --track N");
        }
        return runSamples(path, track);
    }
    if (command == "hint") {
        if (argc < 4) return usageError("hint takes IN OUT [--mtu N] [--latm]");
        uint32_t mtu = 0;
        bool latm = false;
        for (int i = 4; i < argc; ++i) {
            if (std::strcmp(argv[i], "--latm") == 0) latm = true;
            else if (std::strcmp(argv[i], "--mtu") == 0 && i + 1 < argc) {
                uint32_t value = 0;
                if (!parseTrackNumber(argv[++i], &value) || value < 64 || value > 65000) {
                    return usageError("--mtu needs a payload size of 64 to 65000 bytes");
                }
                mtu = value;
            }
            else return usageError("unknown option for hint");
        }
        return runHint(path, argv[3], mtu, latm);
    }
    if (command == "sdp") {
        const char* to = nullptr;
        if (argc == 5 && std::strcmp(argv[3], "--to") == 0) to = argv[4];
        else if (argc != 3) return usageError("sdp takes a file and an optional --to HOST:PORT");
        return runSdp(path, to);
    }
    if (command == "rtp-send") {
        const char* to = nullptr;
        double speed = 1.0;
        for (int i = 3; i + 1 < argc; i += 2) {
            if (std::strcmp(argv[i], "--to") == 0) to = argv[i + 1];
            else if (std::strcmp(argv[i], "--speed") == 0) {
                char* end = nullptr;
                speed = std::strtod(argv[i + 1], &end);
                if (*end != '\0' || !(speed >= 0)) return usageError("--speed needs a number of 0 or more");
            }
            else return usageError("unknown option for rtp-send");
        }
        return runRtpSend(path, to, speed);
    }
    return usageError("unknown command");
}

}  // namespace
}  // namespace tool
}  // namespace quil

int main(int argc, char** argv) {
    // Standard output carries the reports; the library's download progress
    // (files opened by URL) goes to standard error instead.
    quil::Mp4NetSettings settings{};
    if (quil::Mp4GetNetSettings(&settings) == quil::MP4_OK) {
        settings.progress = stderr;
        (void)quil::Mp4SetNetSettings(&settings);
    }
    return quil::tool::run(argc, argv);
}
