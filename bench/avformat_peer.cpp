// avformat_peer index|read FILE
//
// The same two workloads as quil_bench, done by libavformat (called as a
// library, through its public C interface only), with the same result line:
//   index  avformat_open_input (which builds the demuxer's sample index),
//          then pos, size, timestamp and flags of every index entry of every
//          stream; no avformat_find_stream_info, which would decode frames;
//   read   avformat_open_input, then av_read_frame until the end of the file.
// The clock runs from avformat_open_input to avformat_close_input.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "BenchCommon.h"

namespace {

const char* gProgram = "avformat_peer";

bool failed(int err, const char* what) {
    if (err >= 0) return false;
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof text);
    std::fprintf(stderr, "%s: %s failed: %s\n", gProgram, what, text);
    return true;
}

void runIndex(AVFormatContext* context, bench::Checksums* sums) {
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        AVStream* stream = context->streams[i];
        int count = avformat_index_get_entries_count(stream);
        for (int n = 0; n < count; ++n) {
            const AVIndexEntry* entry = avformat_index_get_entry(stream, n);
            // The index keeps one timestamp: it stands for both times here.
            sums->addIndexEntry(i + 1, static_cast<uint64_t>(entry->pos),
                                static_cast<uint32_t>(entry->size), entry->timestamp,
                                entry->timestamp, (entry->flags & AVINDEX_KEYFRAME) != 0);
        }
    }
}

bool runRead(AVFormatContext* context, bench::Checksums* sums) {
    AVPacket* packet = av_packet_alloc();
    if (packet == nullptr) return !failed(AVERROR(ENOMEM), "av_packet_alloc");
    int err = 0;
    while ((err = av_read_frame(context, packet)) >= 0) {
        sums->addSampleBytes(packet->data, static_cast<uint32_t>(packet->size));
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return err == AVERROR_EOF || !failed(err, "av_read_frame");
}

// Packets of one stream only: the others are discarded, so the demuxer
// skips their samples instead of reading them.
bool runTrack(AVFormatContext* context, unsigned onlyTrack, bench::Checksums* sums,
              uint64_t* bytes) {
    for (unsigned i = 0; i < context->nb_streams; ++i)
        context->streams[i]->discard = i + 1 == onlyTrack ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    AVPacket* packet = av_packet_alloc();
    if (packet == nullptr) return !failed(AVERROR(ENOMEM), "av_packet_alloc");
    int err = 0;
    while ((err = av_read_frame(context, packet)) >= 0) {
        if (static_cast<unsigned>(packet->stream_index) + 1 == onlyTrack) {
            sums->addSampleBytes(packet->data, static_cast<uint32_t>(packet->size));
            *bytes += static_cast<uint64_t>(packet->size);
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return err == AVERROR_EOF || !failed(err, "av_read_frame");
}

// The same million times on the first stream, each answered by the
// demuxer's index search for the key frame at or before it.
double runSeek(AVFormatContext* context, bench::Checksums* sums) {
    if (context->nb_streams == 0) return 0;
    AVStream* stream = context->streams[0];
    const uint64_t span = stream->duration > 0 ? static_cast<uint64_t>(stream->duration) : 0;
    bench::Stopwatch clock;
    for (uint32_t i = 0; i < bench::kSeeks; ++i) {
        int index = av_index_search_timestamp(stream, static_cast<int64_t>(bench::seekTime(i, span)),
                                              AVSEEK_FLAG_BACKWARD);
        sums->checksum += static_cast<uint64_t>(index + 1);  // the entry is 0-based
        ++sums->samples;
    }
    return clock.seconds();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return bench::usage(gProgram);
    const std::string workload = argv[1];
    unsigned onlyTrack = 0;
    if (workload == "track") {
        if (argc != 4 || std::atoi(argv[2]) <= 0) return bench::usage(gProgram);
        onlyTrack = static_cast<unsigned>(std::atoi(argv[2]));
    } else if (argc != 3 || (workload != "index" && workload != "read" && workload != "seek")) {
        return bench::usage(gProgram);
    }
    const char* path = argv[argc - 1];
    av_log_set_level(AV_LOG_ERROR);

    bench::Checksums sums;
    uint64_t bytes = 0;
    const uint64_t rcharBefore = bench::readChars();
    bench::Stopwatch clock;
    AVFormatContext* context = nullptr;
    if (failed(avformat_open_input(&context, path, nullptr, nullptr), "avformat_open_input"))
        return 1;
    unsigned streams = context->nb_streams;
    if (onlyTrack > streams) {
        std::fprintf(stderr, "%s: no stream %u\n", gProgram, onlyTrack);
        avformat_close_input(&context);
        return 1;
    }
    bool ok = true;
    double seekSeconds = -1;
    if (workload == "seek")
        seekSeconds = runSeek(context, &sums);
    else if (workload == "index")
        runIndex(context, &sums);
    else if (workload == "read")
        ok = runRead(context, &sums);
    else
        ok = runTrack(context, onlyTrack, &sums, &bytes);
    avformat_close_input(&context);
    double seconds = seekSeconds >= 0 ? seekSeconds : clock.seconds();
    if (!ok) return 1;
    char extra[96] = "";
    if (workload == "track") {
        std::snprintf(extra, sizeof extra, " bytes=%" PRIu64 " rchar=%" PRIu64, bytes,
                      bench::readChars() - rcharBefore);
    }
    bench::printResult("peer", workload.c_str(), sums, streams, seconds, path, extra);
    return 0;
}
