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
    };
    std::vector<Stream> streams;
    std::mt19937 random(std::random_device{}());
    uint32_t index = 0;
    for (auto& [number, hint] : tracks) {
        Stream stream{hint.get(), static_cast<uint16_t>(port + 2 * index++)};
        (void)hint->getTimeScale(&stream.clock);
        (void)hint->getHintSampleCount(&stream.samples);
        (void)hint->setRtpSession(random(), random(), static_cast<uint16_t>(random()));
        if (stream.clock != 0) streams.push_back(stream);
    }

    std::vector<uint8_t> packet(kMaxPacket);
    const auto start = std::chrono::steady_clock::now();
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

int runHint(const char*, const char*, uint32_t, bool) {
    std::fprintf(stderr, "quil: hint: writing files is not available in this build\n");
    return kExitFailure;
}

}  // namespace tool
}  // namespace quil
