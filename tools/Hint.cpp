// quil hint, quil sdp, quil rtp-send, and the hint samples of quil dump.
#include "Hint.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Info.h"
#include "storage/WidePath.h"

namespace quil {
namespace tool {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr uint32_t kMaxPacket = 65536;

// A hint track object deleted when it goes out of scope.
using HintTrackPtr = std::unique_ptr<CMp4RtpHintTrack>;

// Every RTP hint track of a file, with its track number.
std::vector<std::pair<uint32_t, HintTrackPtr>> hintTracksOf(CMp4File* file) {
    std::vector<std::pair<uint32_t, HintTrackPtr>> tracks;
    uint32_t count = 0;
    (void)file->getTrackCount(&count);
    for (uint32_t number = 1; number <= count; ++number) {
        CMp4RtpHintTrack* hint = nullptr;
        if (file->getHintTrack(number, &hint) == MP4_OK) tracks.emplace_back(number, HintTrackPtr(hint));
    }
    return tracks;
}

// "HOST:PORT" with an even port (RTP takes it, RTCP the next one).
bool parseDestination(const char* text, std::string* host, uint32_t* port) {
    if (text == nullptr) return false;
    const char* colon = std::strrchr(text, ':');
    if (colon == nullptr || colon == text) return false;
    char* end = nullptr;
    const unsigned long value = std::strtoul(colon + 1, &end, 10);
    if (*end != '\0' || value == 0 || value > 65534 || colon[1] == '\0') return false;
    host->assign(text, colon);
    *port = static_cast<uint32_t>(value);
    return true;
}

// The media section with its port set ("m=video 0 RTP/AVP 96" -> port).
std::string withPort(const std::string& section, uint32_t port) {
    if (section.compare(0, 2, "m=") != 0) return section;
    const size_t space = section.find(' ');
    if (space == std::string::npos) return section;
    const size_t next = section.find(' ', space + 1);
    if (next == std::string::npos) return section;
    return section.substr(0, space + 1) + std::to_string(port) + section.substr(next);
}

std::string sessionText(CMp4File* file) {
    std::vector<uint8_t> buffer(4096);
    for (;;) {
        MP4Err err = file->getSessionSdp(buffer.data(), static_cast<uint32_t>(buffer.size()));
        if (err == MP4_OK) return reinterpret_cast<const char*>(buffer.data());
        if (err != MP4_ERR_BUFFER_TOO_SMALL || buffer.size() > (1u << 24)) return "";
        buffer.resize(buffer.size() * 4);
    }
}

constexpr double kReportInterval = 1.0;  // seconds of media between sender reports
constexpr double kNtpUnixOffset = 2208988800.0;  // 1900-01-01 to 1970-01-01

// The wall clock as NTP seconds (RFC 3550 §4).
double ntpNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count() + kNtpUnixOffset;
}

void putU32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

// An RTCP sender report (RFC 3550 §6.4.1) on the stream's RTCP port: it
// ties the stream's RTP clock to the session's NTP time line, so that a
// receiver can put the streams in sync. The media time of the session is
// taken as the NTP time after the session start.
template <class Stream>
void sendSenderReport(int sock, sockaddr_in target, const Stream& stream, double mediaTime,
                      double sessionStart) {
    uint8_t report[28] = {0x80, 200, 0, 6};
    putU32(report + 4, stream.ssrc);
    const double ntp = sessionStart + mediaTime;
    const uint64_t whole = static_cast<uint64_t>(ntp);
    putU32(report + 8, static_cast<uint32_t>(whole));
    putU32(report + 12, static_cast<uint32_t>((ntp - static_cast<double>(whole)) * 4294967296.0));
    const uint64_t ticks = static_cast<uint64_t>(mediaTime * stream.clock + 0.5);
    putU32(report + 16, stream.timestampOffset + static_cast<uint32_t>(ticks));
    putU32(report + 20, stream.packets);
    putU32(report + 24, stream.octets);
    target.sin_port = htons(static_cast<uint16_t>(stream.port + 1));
    (void)sendto(sock, report, sizeof report, 0, reinterpret_cast<sockaddr*>(&target), sizeof target);
}

}  // namespace

int dumpHintSamples(CMp4File* file) {
    for (auto& [number, hint] : hintTracksOf(file)) {
        uint32_t samples = 0, trackId = 0, clock = 0;
        (void)hint->getHintSampleCount(&samples);
        (void)hint->getTrackId(&trackId);
        (void)hint->getTimeScale(&clock);
        std::printf("\nHint track %u (track ID %u), %u hint samples, RTP clock %u\n", number,
                    trackId, samples, clock);
        for (uint32_t sample = 1; sample <= samples; ++sample) {
            uint64_t time = 0;
            (void)hint->getHintSampleTime(sample, &time);
            std::printf("Hint sample %u, time %" PRIu64 "\n", sample, time);
            MP4Err err = hint->dumpHintSample(sample);
            if (err != MP4_OK) {
                std::fflush(stdout);
                std::fprintf(stderr, "quil: track %u, hint sample %u: %s\n", number, sample,
                             toString(err));
                return kExitFailure;
            }
        }
    }
    return kExitOk;
}

int runSdp(const char* path, const char* destination) {
    std::string host;
    uint32_t port = 0;
    if (destination != nullptr && !parseDestination(destination, &host, &port)) {
        std::fprintf(stderr, "quil: --to needs HOST:PORT (see quil --help)\n");
        return kExitUsage;
    }
    OpenedFile file;
    MP4Err err = file.open(path);
    if (err != MP4_OK) {
        reportError(path, err);
        return kExitFailure;
    }
    auto tracks = hintTracksOf(file.get());
    if (tracks.empty()) {
        std::fprintf(stderr, "quil: %s: no RTP hint track (hint it with quil hint)\n", path);
        return kExitFailure;
    }
    std::string text;
    if (destination != nullptr) {
        // What a receiver needs around the stored text (RFC 4566 §5).
        text += "v=0\r\no=- 0 0 IN IP4 " + host + "\r\ns=quil\r\nc=IN IP4 " + host + "\r\nt=0 0\r\n";
    }
    text += sessionText(file.get());
    uint32_t index = 0;
    for (auto& [number, hint] : tracks) {
        char* section = nullptr;
        err = hint->getTrackSdp(&section);
        if (err != MP4_OK) {
            reportError(path, err);
            return kExitFailure;
        }
        std::string media = section;
        delete[] section;
        text += destination != nullptr ? withPort(media, port + 2 * index) : media;
        ++index;
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    return kExitOk;
}

int runRtpSend(const char* path, const char* destination, double speed) {
    std::string host;
    uint32_t port = 0;
    if (!parseDestination(destination, &host, &port)) {
        std::fprintf(stderr, "quil: rtp-send needs --to HOST:PORT (see quil --help)\n");
        return kExitUsage;
    }
    OpenedFile file;
    MP4Err err = file.open(path);
    if (err != MP4_OK) {
        reportError(path, err);
        return kExitFailure;
    }
    auto tracks = hintTracksOf(file.get());
    if (tracks.empty()) {
        std::fprintf(stderr, "quil: %s: no RTP hint track (hint it with quil hint)\n", path);
        return kExitFailure;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* address = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &address) != 0 || address == nullptr) {
        std::fprintf(stderr, "quil: cannot resolve %s\n", host.c_str());
        return kExitFailure;
    }
    sockaddr_in target = *reinterpret_cast<sockaddr_in*>(address->ai_addr);
    freeaddrinfo(address);
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        std::perror("quil: socket");
        return kExitFailure;
    }

    // One stream per hint track: port, RTP clock, random SSRC and offsets
    // (RFC 3550 §5.1), and where it stands.
    struct Stream {
        CMp4RtpHintTrack* hint;
        uint16_t port;
        uint32_t clock = 0;
        uint32_t samples = 0;
        uint32_t next = 1;
        uint32_t ssrc = 0;
        uint32_t timestampOffset = 0;
        uint32_t packets = 0;
        uint32_t octets = 0;
        double nextReport = 0;  // media time of the next sender report
    };
    std::vector<Stream> streams;
    std::mt19937 random(std::random_device{}());
    uint32_t index = 0;
    for (auto& [number, hint] : tracks) {
        Stream stream{hint.get(), static_cast<uint16_t>(port + 2 * index++)};
        (void)hint->getTimeScale(&stream.clock);
        (void)hint->getHintSampleCount(&stream.samples);
        stream.ssrc = random();
        stream.timestampOffset = random();
        (void)hint->setRtpSession(stream.ssrc, stream.timestampOffset, static_cast<uint16_t>(random()));
        if (stream.clock != 0) streams.push_back(stream);
    }

    std::vector<uint8_t> packet(kMaxPacket);
    const auto start = std::chrono::steady_clock::now();
    const double sessionStart = ntpNow();
    int status = kExitOk;
    for (;;) {
        // The stream whose next hint sample is due first.
        Stream* due = nullptr;
        double dueTime = 0;
        for (Stream& stream : streams) {
            if (stream.next > stream.samples) continue;
            uint64_t time = 0;
            if (stream.hint->getHintSampleTime(stream.next, &time) != MP4_OK) {
                stream.next = stream.samples + 1;
                continue;
            }
            const double seconds = static_cast<double>(time) / stream.clock;
            if (due == nullptr || seconds < dueTime) {
                due = &stream;
                dueTime = seconds;
            }
        }
        if (due == nullptr) break;
        if (speed > 0) {
            std::this_thread::sleep_until(start + std::chrono::duration<double>(dueTime / speed));
        }
        if (dueTime >= due->nextReport) {
            sendSenderReport(sock, target, *due, dueTime, sessionStart);
            due->nextReport = dueTime + kReportInterval;
        }
        uint32_t packets = 0;
        err = due->hint->getPacketCount(due->next, &packets);
        for (uint32_t p = 1; err == MP4_OK && p <= packets; ++p) {
            uint32_t length = 0;
            err = due->hint->getPacket(due->next, p, packet.data(), kMaxPacket, &length);
            if (err != MP4_OK) break;
            target.sin_port = htons(due->port);
            if (sendto(sock, packet.data(), length, 0, reinterpret_cast<sockaddr*>(&target),
                       sizeof target) < 0) {
                std::perror("quil: sendto");
                status = kExitFailure;
                break;
            }
            ++due->packets;
            due->octets += length - 12;
        }
        if (err != MP4_OK) {
            std::fprintf(stderr, "quil: %s: hint sample %u: %s\n", path, due->next, toString(err));
            status = kExitFailure;
        }
        if (status != kExitOk) break;
        ++due->next;
    }
    close(sock);
    return status;
}

namespace {

// The packetizer kind for a track's codec (0: none). AAC goes to RFC 3640
// unless LATM is asked for.
int32_t hintKindOf(CMp4Track* track, bool latm) {
    uint32_t format = 0;
    if (track->getSampleEntryType(&format) != MP4_OK) return 0;
    if (format == fourcc("avc1") || format == fourcc("avc3")) return 6;
    if (format == fourcc("mp4v")) return 1;
    if (format == fourcc("s263") || format == fourcc("h263")) return 4;
    if (format == fourcc("samr") || format == fourcc("sawb")) return 5;
    if (format == fourcc("mp4a")) {
        uint8_t objectType = 0;
        if (track->getObjectTypeIndication(&objectType) != MP4_OK || objectType != 0x40) return 0;
        return latm ? 2 : 3;
    }
    return 0;
}

// A file object closed and destroyed when it goes out of scope.
class WrittenFile {
public:
    ~WrittenFile() {
        if (file_ == nullptr) return;
        uint32_t open = 0;
        if (file_->isOpen(&open) == MP4_OK && open) (void)file_->close();
        CMp4File::destroyInstance(&file_);
    }
    MP4Err open(const char* utf8Path) {
        std::wstring path;
        MP4Err err = utf8ToWidePath(utf8Path, &path);
        if (err == MP4_OK) err = CMp4File::createInstance(&file_);
        if (err == MP4_OK) err = file_->open(path.c_str(), 1, fileType);
        // Players show the file as long as its longest track.
        if (err == MP4_OK) err = file_->setMovieDurationRule(MP4_MOVIE_DURATION_LONGEST_TRACK);
        return err;
    }
    CMp4File* get() const { return file_; }
    uint32_t fileType = MP4_FILE_MPEG4;

private:
    CMp4File* file_ = nullptr;
};

// Copies one track through the write interface: its kind, time scale,
// language, sample entry, edit list and every sample.
MP4Err copyTrack(CMp4Track* source, CMp4File* output) {
    CMp4Track* target = nullptr;
    MP4Err err = output->addTrack(&target);
    if (err != MP4_OK) return err;
    TrackHandle handle(output, target);
    uint32_t kind = 0, timeScale = 0, count = 0;
    uint8_t language[3] = {};
    uint64_t delay = 0, presented = 0;
    int64_t firstMediaTime = 0;
    err = source->getTrackType(&kind);
    if (err == MP4_OK) err = source->getTimeScale(&timeScale);
    if (err == MP4_OK) err = source->getSampleCount(&count);
    if (err == MP4_OK) err = target->setTrackType(kind);
    if (err == MP4_OK) err = target->setTimeScale(timeScale);
    // A language the writer does not take (not three letters) is left out.
    if (err == MP4_OK && source->getLanguage(language) == MP4_OK) (void)target->setLanguage(language);
    if (err == MP4_OK) err = target->addSampleEntryFrom(source, 1);
    // Composition offsets read as negative (version 1 "ctts") are shifted
    // up to 0, and the edit list starts the presentation that much later in
    // the media, so the frames still show at the same times.
    uint64_t shift = 0;
    for (uint32_t sample = 1; err == MP4_OK && sample <= count; ++sample) {
        uint64_t decode = 0, composition = 0;
        if (source->getSampleDecodeTime(sample, &decode) != MP4_OK ||
            source->getSampleCompositionTime(sample, &composition) != MP4_OK) {
            break;
        }
        if (composition < decode && decode - composition > shift) shift = decode - composition;
    }
    if (err == MP4_OK && source->getInitialDelay(&delay, &firstMediaTime, &presented) == MP4_OK) {
        err = target->setEditList(delay, firstMediaTime + static_cast<int64_t>(shift), presented);
    }
    std::vector<uint8_t> bytes;
    for (uint32_t sample = 1; err == MP4_OK && sample <= count; ++sample) {
        uint32_t size = 0, sync = 0;
        uint64_t decode = 0, composition = 0;
        err = source->getSampleSize(sample, &size);
        if (err != MP4_OK) break;
        bytes.resize(size);
        err = source->readSample(sample, size, &size, bytes.data());
        if (err == MP4_OK) err = source->getSampleDecodeTime(sample, &decode);
        if (err == MP4_OK) err = source->getSampleCompositionTime(sample, &composition);
        if (err == MP4_OK) err = source->isSyncSample(sample, &sync);
        // Times read include the edit list's delay, which setEditList
        // writes again.
        if (err == MP4_OK) {
            err = target->addSample(bytes.data(), size, decode - delay,
                                    composition + shift - delay, sync != 0);
        }
    }
    return err;
}

}  // namespace

int runHint(const char* input, const char* output, uint32_t mtu, bool latm) {
    OpenedFile source;
    MP4Err err = source.open(input);
    if (err != MP4_OK) {
        reportError(input, err);
        return kExitFailure;
    }
    // Written under a temporary name and renamed when complete, so that a
    // failure never leaves a half-written file under the output's name.
    const std::string temporary = std::string(output) + ".quil-tmp";
    struct Cleanup {
        const std::string& path;
        bool keep = false;
        ~Cleanup() {
            if (!keep) std::remove(path.c_str());
        }
    } cleanup{temporary};
    WrittenFile target;
    uint32_t fileType = MP4_FILE_MPEG4;
    (void)source.get()->getFileType(&fileType);
    target.fileType = fileType == MP4_FILE_NO_FTYP ? MP4_FILE_MPEG4 : fileType;
    err = target.open(temporary.c_str());
    if (err != MP4_OK) {
        reportError(output, err);
        return kExitFailure;
    }
    // Audio and video tracks are copied; each with a packetizer then gets
    // its hint track.
    std::vector<std::pair<uint32_t, int32_t>> toHint;  // output track number, kind
    uint32_t count = 0, written = 0;
    (void)source.get()->getTrackCount(&count);
    for (uint32_t number = 1; number <= count; ++number) {
        CMp4Track* raw = nullptr;
        if (source.get()->getTrack(number, &raw) != MP4_OK) continue;
        TrackHandle track(source.get(), raw);
        uint32_t kind = 0;
        if (track->getTrackType(&kind) != MP4_OK) continue;
        if (kind != MP4_TRACK_VIDEO && kind != MP4_TRACK_AUDIO) continue;
        err = copyTrack(track.get(), target.get());
        if (err != MP4_OK) {
            std::fprintf(stderr, "quil: %s: track %u: %s\n", input, number, toString(err));
            return kExitFailure;
        }
        ++written;
        if (int32_t hintKind = hintKindOf(track.get(), latm)) toHint.emplace_back(written, hintKind);
    }
    for (const auto& [number, kind] : toHint) {
        CMp4RtpHintTrack* raw = nullptr;
        err = target.get()->createHintTrack(&raw, kind);
        HintTrackPtr hint(raw);
        if (err == MP4_OK) err = hint->setMediaTrack(number);
        if (err == MP4_OK && mtu != 0) err = hint->setMaxPayloadSize(mtu);
        if (err == MP4_OK) err = target.get()->addHintTrack(hint.get());
        if (err != MP4_OK) {
            std::fprintf(stderr, "quil: %s: hinting track %u: %s\n", output, number, toString(err));
            return kExitFailure;
        }
    }
    err = target.get()->close();
    if (err != MP4_OK) {
        reportError(output, err);
        return kExitFailure;
    }
    if (std::rename(temporary.c_str(), output) != 0) {
        std::perror("quil: hint");
        return kExitFailure;
    }
    cleanup.keep = true;
    if (toHint.empty()) std::fprintf(stderr, "quil: %s: no track with an RTP payload format\n", input);
    return kExitOk;
}

}  // namespace tool
}  // namespace quil
