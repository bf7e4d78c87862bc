// avformat_rewrite_peer remux|faststart IN OUT
//
// The rewriting workloads of quil_rewrite done by libavformat as a stream
// copy, through its public C interface only, with the same result line:
//   remux      demux IN and mux every packet into a new MP4 file OUT
//              (what `ffmpeg -i IN -map 0 -c copy OUT` does);
//   faststart  the same with the movflags option "+faststart", which moves
//              the movie box in front of the media data at the end.
// The clock runs from avformat_open_input to closing OUT. The checksum
// covers each packet's size and first and last eight bytes.
#include <cstdio>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "BenchCommon.h"

namespace {

const char* gProgram = "avformat_rewrite_peer";

bool failed(int err, const char* what) {
    if (err >= 0) return false;
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof text);
    std::fprintf(stderr, "%s: %s failed: %s\n", gProgram, what, text);
    return true;
}

struct Contexts {
    AVFormatContext* in = nullptr;
    AVFormatContext* out = nullptr;
    AVPacket* packet = nullptr;
    ~Contexts() {
        av_packet_free(&packet);
        if (out) {
            if (out->pb) avio_closep(&out->pb);
            avformat_free_context(out);
        }
        avformat_close_input(&in);
    }
};

bool copyStreams(Contexts* c) {
    for (unsigned i = 0; i < c->in->nb_streams; ++i) {
        AVStream* source = c->in->streams[i];
        AVStream* stream = avformat_new_stream(c->out, nullptr);
        if (!stream) return !failed(AVERROR(ENOMEM), "avformat_new_stream");
        if (failed(avcodec_parameters_copy(stream->codecpar, source->codecpar),
                   "avcodec_parameters_copy"))
            return false;
        stream->codecpar->codec_tag = 0;
        stream->time_base = source->time_base;
    }
    return true;
}

bool remux(const char* input, const char* output, bool faststart, bench::Checksums* sums,
           unsigned* streams) {
    Contexts c;
    if (failed(avformat_open_input(&c.in, input, nullptr, nullptr), "avformat_open_input") ||
        failed(avformat_alloc_output_context2(&c.out, nullptr, "mp4", output),
               "avformat_alloc_output_context2") ||
        !copyStreams(&c) || failed(avio_open(&c.out->pb, output, AVIO_FLAG_WRITE), "avio_open"))
        return false;
    *streams = c.in->nb_streams;
    AVDictionary* options = nullptr;
    if (faststart) av_dict_set(&options, "movflags", "+faststart", 0);
    const int header = avformat_write_header(c.out, &options);
    av_dict_free(&options);
    if (failed(header, "avformat_write_header")) return false;
    c.packet = av_packet_alloc();
    if (!c.packet) return !failed(AVERROR(ENOMEM), "av_packet_alloc");
    int err = 0;
    while ((err = av_read_frame(c.in, c.packet)) >= 0) {
        sums->addSampleBytes(c.packet->data, static_cast<uint32_t>(c.packet->size));
        const int index = c.packet->stream_index;
        av_packet_rescale_ts(c.packet, c.in->streams[index]->time_base,
                             c.out->streams[index]->time_base);
        c.packet->pos = -1;
        if (failed(av_interleaved_write_frame(c.out, c.packet), "av_interleaved_write_frame"))
            return false;
    }
    if (err != AVERROR_EOF && failed(err, "av_read_frame")) return false;
    return !failed(av_write_trailer(c.out), "av_write_trailer");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string workload = argc == 4 ? argv[1] : "";
    if (workload != "remux" && workload != "faststart") {
        std::fprintf(stderr, "usage: %s remux|faststart IN OUT\n", gProgram);
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    bench::Checksums sums;
    unsigned streams = 0;
    bench::Stopwatch clock;
    const bool ok = remux(argv[2], argv[3], workload == "faststart", &sums, &streams);
    const double seconds = clock.seconds();
    if (!ok) return 1;
    bench::printResult("peer", workload.c_str(), sums, streams, seconds, argv[2]);
    return 0;
}
