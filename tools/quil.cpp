// quil: command-line front end of the library. Each command is a row of
// the table at the end of this file; options may stand anywhere on the line.
//   quil dump FILE                 the box tree as text
//   quil info FILE [--json]        file and track properties
//   quil samples FILE [--track N]  one line per sample
//   quil remux IN OUT [--type N] [--faststart]
//   quil faststart IN OUT
//   quil import OUT IN...          raw streams muxed into a new file
//   quil meta FILE [--json]        every metadata item (--set ... -o OUT: a changed copy)
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Command.h"
#include "Hint.h"
#include "Import.h"
#include "Info.h"
#include "Meta.h"
#include "Rewrite.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

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
    std::printf("track\tsample\toffset\tsize\tdecode_time\tcomposition_time\tsync\n");
    if (onlyTrack != 0) return printTrackSamples(file.get(), onlyTrack);
    uint32_t count = 0;
    (void)file.get()->getTrackCount(&count);
    for (uint32_t number = 1; number <= count; ++number) {
        if (int status = printTrackSamples(file.get(), number)) return status;
    }
    return kExitOk;
}

int dumpCommand(const Arguments& arguments) { return runDump(arguments.operand(0)); }

int infoCommand(const Arguments& arguments) {
    return runInfo(arguments.operand(0), arguments.has("--json"));
}

int samplesCommand(const Arguments& arguments) {
    uint64_t track = 0;
    if (const char* text = arguments.value("--track")) {
        if (!parseNumber(text, 1, UINT32_MAX, &track)) {
            return usageError("--track needs a track number of 1 or more");
        }
    }
    return runSamples(arguments.operand(0), static_cast<uint32_t>(track));
}

const Command kDumpCommand = {
    "dump", "dump FILE",
    "  dump     print every box of the file with its fields\n",
    {}, 1, 1, dumpCommand,
};

const Command kInfoCommand = {
    "info", "info FILE [--json]",
    "  info     print the file type, the movie and each track's properties;\n"
    "           --json prints the same as one JSON document\n",
    {{"--json", false}}, 1, 1, infoCommand,
};

const Command kSamplesCommand = {
    "samples", "samples FILE [--track N]",
    "  samples  print a header row, then one line per sample, tab separated:\n"
    "           track number, sample number, file offset, size, decode time,\n"
    "           composition time (media time scale), sync (1 or 0); --track N\n"
    "           limits the list to track N (1-based)\n",
    {{"--track", true}}, 1, 1, samplesCommand,
};

int hintCommand(const Arguments& arguments) {
    uint64_t mtu = 0;
    if (const char* text = arguments.value("--mtu")) {
        if (!parseNumber(text, 64, 65000, &mtu)) {
            return usageError("--mtu needs a payload size of 64 to 65000 bytes");
        }
    }
    return runHint(arguments.operand(0), arguments.operand(1), static_cast<uint32_t>(mtu),
                   arguments.has("--latm"));
}

int sdpCommand(const Arguments& arguments) {
    return runSdp(arguments.operand(0), arguments.value("--to"));
}

int rtpSendCommand(const Arguments& arguments) {
    const char* to = arguments.value("--to");
    if (to == nullptr) return usageError("rtp-send needs --to HOST:PORT");
    double speed = 1.0;
    if (const char* text = arguments.value("--speed")) {
        char* end = nullptr;
        speed = std::strtod(text, &end);
        if (*end != '\0' || !(speed >= 0)) return usageError("--speed needs a number of 0 or more");
    }
    return runRtpSend(arguments.operand(0), to, speed);
}

const Command kHintCommand = {
    "hint", "hint IN OUT [--mtu N] [--latm]",
    "  hint     copy the audio and video tracks of IN to OUT and add an RTP\n"
    "           hint track for each H.264, MPEG-4 video, H.263, AAC and AMR\n"
    "           track; --mtu N sets the largest RTP payload (default 1450),\n"
    "           --latm sends AAC as MP4A-LATM instead of mpeg4-generic\n",
    {{"--mtu", true}, {"--latm", false}}, 2, 2, hintCommand,
};

const Command kSdpCommand = {
    "sdp", "sdp FILE [--to HOST:PORT]",
    "  sdp      print the session and media SDP of a hinted file; with --to\n"
    "           HOST:PORT, a complete description for a receiver (track k on\n"
    "           PORT + 2k)\n",
    {{"--to", true}}, 1, 1, sdpCommand,
};

const Command kRtpSendCommand = {
    "rtp-send", "rtp-send FILE --to HOST:PORT [--speed X]",
    "  rtp-send send every hint track as RTP over UDP to HOST, track k to\n"
    "           PORT + 2k, paced by the RTP times (--speed X plays X times\n"
    "           as fast, 0 as fast as possible)\n",
    {{"--to", true}, {"--speed", true}}, 1, 1, rtpSendCommand,
};

// The commands, in the order --help lists them.
const Command* const kCommands[] = {
    &kDumpCommand, &kInfoCommand, &kSamplesCommand, &kMetaCommand, &kRemuxCommand,
    &kFaststartCommand, &kImportCommand, &kHintCommand, &kSdpCommand, &kRtpSendCommand,
};

void printUsage() {
    const char* prefix = "usage: quil ";
    for (const Command* command : kCommands) {
        std::printf("%s%s\n", prefix, command->synopsis);
        prefix = "       quil ";
    }
    std::printf("%s--help\n\n", prefix);
    for (const Command* command : kCommands) std::fputs(command->help, stdout);
}

int run(int argc, char** argv) {
    if (argc < 2) return usageError("no command given");
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage();
        return kExitOk;
    }
    for (const Command* command : kCommands) {
        if (name != command->name) continue;
        Arguments arguments;
        std::string error;
        if (!arguments.parse(argc, argv, 2, command->options, &error)) {
            return usageError(name + ": " + error);
        }
        const size_t count = arguments.operands().size();
        if (count < command->minOperands || count > command->maxOperands) {
            return usageError(std::string("usage: quil ") + command->synopsis);
        }
        return command->run(arguments);
    }
    return usageError("unknown command " + name);
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
