// Reading over HTTP: a small server on 127.0.0.1 inside the test serves
// bytes with or without faults; results must equal the local file's, and
// every fault must end in an error code within the configured timeouts.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quil/quil.h"
#include "storage/HttpReply.h"
#include "storage/NetStorage.h"

namespace quil {
namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

// Byte i of a synthetic resource: not periodic within a block.
uint8_t pattern(uint64_t i) { return static_cast<uint8_t>(i * 7 + (i >> 9) * 13 + (i >> 17)); }

Bytes patterned(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = pattern(i);
    return bytes;
}

enum class Fault {
    None,
    IgnoresRanges,  // 200 with the whole body
    DropsEarly,     // every reply closes halfway through its body
    DropsOnce,      // the first reply closes after 300 KB, later ones are whole
    Stalls,         // headers, then silence
    NotFound,
    ServerError,
    NotHttp,      // garbage instead of a status line
    WrongStart,   // 206 whose Content-Range starts elsewhere
    GrowsLater,   // later replies name a longer resource
    GarbageBody,  // a well-formed 206 carrying other bytes
    Huge,         // a 5 GiB resource of pattern bytes, made as they are sent
    ToTheEnd,     // 206 from the start asked for to the end, whatever end was asked
};

constexpr uint64_t kHugeSize = 5ull << 30;

// One listening socket on 127.0.0.1; each connection answers one GET and
// closes. Every loop is bounded by the stop flag or a deadline.
class LoopbackServer {
public:
    LoopbackServer(Bytes body, Fault fault)
        : body_(std::move(body)), garbage_(patterned(body_.size())), fault_(fault) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listener_ < 0 ||
            ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 16) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~LoopbackServer() {
        stop_ = true;
        if (acceptor_.joinable()) acceptor_.join();
        for (std::thread& t : connections_) t.join();
        if (listener_ >= 0) ::close(listener_);
    }
    std::wstring url(const char* name = "/file.mp4") const {
        const std::string text = "http://127.0.0.1:" + std::to_string(port_) + name;
        return std::wstring(text.begin(), text.end());
    }
    int requests() const { return requests_; }
    uint64_t bodyBytesSent() const { return sent_; }

private:
    void acceptLoop() {
        while (!stop_) {
            pollfd p{listener_, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            const int fd = ::accept(listener_, nullptr, nullptr);
            if (fd >= 0) connections_.emplace_back([this, fd] { serve(fd); });
        }
    }

    // Waits up to two seconds for a whole request head.
    static std::string readRequest(int fd) {
        std::string request;
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        char buffer[1024];
        while (request.find("\r\n\r\n") == std::string::npos && Clock::now() < deadline) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            request.append(buffer, static_cast<size_t>(n));
        }
        return request;
    }

    // Counts what it sends when it is a reply body.
    bool sendAll(int fd, const void* data, size_t size, bool body = false) {
        const char* bytes = static_cast<const char*>(data);
        while (size > 0 && !stop_) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            const ssize_t n = ::send(fd, bytes, size, MSG_NOSIGNAL);
            if (n <= 0) return false;
            if (body) sent_ += static_cast<uint64_t>(n);
            bytes += n;
            size -= static_cast<size_t>(n);
        }
        return size == 0;
    }

    void serve(int fd) {
        const std::string request = readRequest(fd);
        const int number = ++requests_;
        uint64_t start = 0, end = UINT64_MAX;  // "bytes=start-" or "bytes=start-last"
        const size_t range = request.find("Range: bytes=");
        if (range != std::string::npos) {
            char* after = nullptr;
            start = std::strtoull(request.c_str() + range + 13, &after, 10);
            if (after[0] == '-' && after[1] >= '0' && after[1] <= '9')
                end = std::strtoull(after + 1, nullptr, 10) + 1;
        }
        if (fault_ == Fault::Huge) {
            respondHuge(fd, start);
        } else {
            if (fault_ == Fault::ToTheEnd) end = UINT64_MAX;
            respond(fd, number, static_cast<size_t>(std::min<uint64_t>(start, body_.size())),
                    static_cast<size_t>(std::min<uint64_t>(end, body_.size())));
        }
        ::close(fd);
    }

    // Pattern bytes from start to the end of a huge resource, until the
    // client goes away or the server stops.
    void respondHuge(int fd, uint64_t start) {
        const std::string head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " +
                                 std::to_string(start) + "-" + std::to_string(kHugeSize - 1) + "/" +
                                 std::to_string(kHugeSize) + "\r\nConnection: close\r\n\r\n";
        if (!sendAll(fd, head.data(), head.size())) return;
        Bytes piece(65536);
        for (uint64_t at = start; at < kHugeSize && !stop_; at += piece.size()) {
            for (size_t i = 0; i < piece.size(); ++i) piece[i] = pattern(at + i);
            if (!sendAll(fd, piece.data(), piece.size())) return;
        }
    }

    void respond(int fd, int number, size_t start, size_t end) {
        size_t total = body_.size();
        if (fault_ == Fault::GrowsLater && number > 1) total += 1000;
        std::string head;
        size_t first = start, limit = end;
        switch (fault_) {
            case Fault::NotFound:
                head = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n";
                break;
            case Fault::ServerError:
                head = "HTTP/1.1 500 Oops\r\nContent-Length: 0\r\n";
                break;
            case Fault::NotHttp:
                sendAll(fd, "\x01\x02garbage\r\n\r\n", 13);
                return;
            case Fault::IgnoresRanges:
                first = 0;
                limit = body_.size();
                head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(total) + "\r\n";
                break;
            default: {
                const size_t shown = fault_ == Fault::WrongStart ? start + 1 : start;
                const size_t last = end == body_.size() ? total : end;  // exclusive
                head = "HTTP/1.1 206 Partial Content\r\nContent-Length: " +
                       std::to_string(last - start) + "\r\nContent-Range: bytes " +
                       std::to_string(shown) + "-" + std::to_string(last - 1) + "/" +
                       std::to_string(total) + "\r\n";
            }
        }
        head += "Connection: close\r\n\r\n";
        if (!sendAll(fd, head.data(), head.size())) return;
        if (fault_ == Fault::NotFound || fault_ == Fault::ServerError) return;
        if (fault_ == Fault::Stalls) {
            for (int i = 0; i < 500 && !stop_; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            return;
        }
        if (fault_ == Fault::DropsEarly) limit = first + (limit - first) / 2;
        if (fault_ == Fault::DropsOnce && number == 1) limit = std::min(limit, first + 300000);
        const Bytes& data = fault_ == Fault::GarbageBody ? garbage_ : body_;
        if (first < limit) sendAll(fd, data.data() + first, limit - first, true);
    }

    Bytes body_;
    Bytes garbage_;
    Fault fault_;
    int listener_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    std::atomic<uint64_t> sent_{0};  // body bytes sent
    std::thread acceptor_;
    std::vector<std::thread> connections_;  // only the acceptor adds; joined at the end
};

// Short timeouts and no progress text for the whole test program.
class NetTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Mp4GetNetSettings(&saved_), MP4_OK);
        Mp4NetSettings quick{1000, 1000, nullptr, 0, nullptr, 0};
        ASSERT_EQ(Mp4SetNetSettings(&quick), MP4_OK);
    }
    void TearDown() override { Mp4SetNetSettings(&saved_); }
    Mp4NetSettings saved_{};
};

Bytes fixture(const char* name) {
    std::ifstream in(std::string(QUIL_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Everything a reader sees of a file: per track, per sample, the table
// values and the bytes.
std::string describe(const wchar_t* path, MP4Err* openResult) {
    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    *openResult = file->open(path, 0, 0);
    std::string out;
    uint32_t tracks = 0;
    if (*openResult == MP4_OK) file->getTrackCount(&tracks);
    for (uint32_t t = 1; t <= tracks; ++t) {
        CMp4Track* track = nullptr;
        if (file->getTrack(t, &track) != MP4_OK) continue;
        uint32_t count = 0;
        track->getSampleCount(&count);
        out += "track " + std::to_string(t) + " samples " + std::to_string(count) + "\n";
        for (uint32_t s = 1; s <= count; ++s) {
            uint64_t offset = 0, time = 0;
            uint32_t size = 0, got = 0;
            track->getSampleOffset(s, &offset, &size);
            track->getSampleDecodeTime(s, &time);
            Bytes data(size);
            const MP4Err err = track->readSample(s, size, &got, data.data());
            out += std::to_string(offset) + " " + std::to_string(size) + " " +
                   std::to_string(time) + " " + std::to_string(err) + " " +
                   std::string(data.begin(), data.end()) + "\n";
        }
        file->releaseTrack(track);
    }
    if (*openResult == MP4_OK) file->close();
    CMp4File::destroyInstance(&file);
    return out;
}

// Samples that lie past the end of a truncated file must fail over HTTP as
// they do on disc, not come back as zeros.
class NetFixtureTest : public NetTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(NetFixtureTest, FileByUrlReadsLikeTheLocalFile) {
    const std::string local = std::string(QUIL_TEST_DATA_DIR) + "/" + GetParam();
    LoopbackServer server(fixture(GetParam()), Fault::None);
    MP4Err localResult = MP4_OK, urlResult = MP4_OK;
    const std::string expected =
        describe(std::wstring(local.begin(), local.end()).c_str(), &localResult);
    const std::string actual = describe(server.url().c_str(), &urlResult);
    ASSERT_EQ(localResult, MP4_OK);
    EXPECT_EQ(urlResult, MP4_OK);
    EXPECT_NE(expected.find("track 2"), std::string::npos);
    EXPECT_TRUE(actual == expected);
}

INSTANTIATE_TEST_SUITE_P(Served, NetFixtureTest,
                         ::testing::Values("h264-aac-faststart.mp4",
                                           "bad-truncated-mdat-faststart.mp4",
                                           // fragment headers follow each media data
                                           "frag-h264-aac.mp4"));

// ---- one track of an interleaved file ------------------------------------

constexpr uint32_t kPairs = 48;
constexpr uint32_t kVideoSize = 150000;  // far apart: the audio chunks are not bridged
constexpr uint32_t kAudioSize = 700;

std::wstring widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

// Video and audio chunks of one sample each, alternating, the movie box in
// front (written, then rewritten by optimizeFile); the file's path.
std::string writeInterleaved() {
    const std::string stem = testing::TempDir() + "quil-net-" + std::to_string(getpid());
    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    EXPECT_EQ(file->open(widen(stem + "-raw.mp4").c_str(), 1, MP4_FILE_MPEG4), MP4_OK);
    CMp4Track* tracks[2] = {};
    const uint32_t formats[2] = {fourcc("jpeg"), fourcc("samr")};
    for (int t = 0; t < 2; ++t) {
        MP4SampleEntryInfo info{};
        info.format = formats[t];
        info.sampleRate = 1000;
        info.channels = 1;
        EXPECT_EQ(file->addTrack(&tracks[t]), MP4_OK);
        tracks[t]->setTrackType(t == 0 ? MP4_TRACK_VIDEO : MP4_TRACK_AUDIO);
        tracks[t]->setTimeScale(1000);
        tracks[t]->addSampleEntry(&info);
        tracks[t]->setChunkLimits(0, 1);  // every sample closes its chunk
    }
    for (uint32_t n = 0; n < kPairs; ++n) {
        for (int t = 0; t < 2; ++t) {
            Bytes sample(t == 0 ? kVideoSize : kAudioSize);
            for (size_t i = 0; i < sample.size(); ++i) sample[i] = pattern(i + n * 31 + t);
            EXPECT_EQ(tracks[t]->addSample(sample.data(), static_cast<uint32_t>(sample.size()),
                                           n * 40, n * 40, true),
                      MP4_OK);
        }
    }
    for (CMp4Track* track : tracks) file->releaseTrack(track);
    EXPECT_EQ(file->close(), MP4_OK);
    CMp4File::destroyInstance(&file);
    const std::string path = stem + ".mp4";
    CMp4File::createInstance(&file);
    EXPECT_EQ(file->optimizeFile(1, widen(stem + "-raw.mp4").c_str(), widen(path).c_str()), MP4_OK);
    CMp4File::destroyInstance(&file);
    std::remove((stem + "-raw.mp4").c_str());
    return path;
}

// Every sample of one track, concatenated; empty when a read fails.
Bytes readTrack(const std::wstring& path, uint32_t number) {
    CMp4File* file = nullptr;
    CMp4File::createInstance(&file);
    Bytes out;
    CMp4Track* track = nullptr;
    if (file->open(path.c_str(), 0, 0) == MP4_OK && file->getTrack(number, &track) == MP4_OK) {
        uint32_t count = 0;
        track->getSampleCount(&count);
        for (uint32_t s = 1; s <= count; ++s) {
            uint32_t size = 0;
            track->getSampleSize(s, &size);
            Bytes sample(size);
            if (track->readSample(s, size, &size, sample.data()) != MP4_OK) return Bytes();
            out.insert(out.end(), sample.begin(), sample.end());
        }
        file->releaseTrack(track);
        file->close();
    }
    CMp4File::destroyInstance(&file);
    return out;
}

// Reading the audio alone transfers about its bytes and the first request
// (the movie box), not the video between its chunks; reading the video
// alone streams (the audio between its chunks is read through); every
// sample of both equals a disc read.
TEST_F(NetTest, OneTrackCostsAboutItsOwnBytes) {
    const std::string path = writeInterleaved();
    std::ifstream in(path, std::ios::binary);
    const Bytes file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    ASSERT_GT(file.size(), kPairs * kVideoSize);
    const uint64_t firstRequest = 256u << 10;
    const struct {
        uint32_t track;
        Fault fault;
        uint64_t mostSent;
    } cases[] = {{2, Fault::None, firstRequest + kPairs * kAudioSize * 11 / 10},
                 // the chunk across the end of the first request comes twice
                 {1, Fault::None, file.size() + kVideoSize},
                 // what comes after the bytes asked for is not taken
                 {2, Fault::ToTheEnd, UINT64_MAX}};
    for (const auto& c : cases) {
        LoopbackServer server(file, c.fault);
        const Bytes samples = readTrack(server.url(), c.track);
        EXPECT_EQ(samples.size(), kPairs * (c.track == 1 ? kVideoSize : kAudioSize));
        EXPECT_TRUE(samples == readTrack(widen(path), c.track)) << "track " << c.track;
        EXPECT_LE(server.bodyBytesSent(), c.mostSent) << "track " << c.track;
    }
    LoopbackServer server(file, Fault::None);
    MP4Err localResult = MP4_OK, urlResult = MP4_OK;
    const std::string expected = describe(widen(path).c_str(), &localResult);
    EXPECT_TRUE(describe(server.url().c_str(), &urlResult) == expected);
    EXPECT_EQ(urlResult, MP4_OK);
    std::remove(path.c_str());
}

TEST_F(NetTest, MovieAfterMediaDataIsNotReadOverHttp) {
    // Nothing after "mdat" is read from a network storage.
    LoopbackServer server(fixture("h264-aac.mp4"), Fault::None);
    MP4Err result = MP4_OK;
    describe(server.url().c_str(), &result);
    EXPECT_EQ(result, MP4_ERR_NOT_AVAILABLE);
}

// Each fault ends the open with an error, well within the timeouts.
class NetFaultTest : public NetTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(NetFaultTest, OpenFailsInBoundedTime) {
    LoopbackServer server(fixture("h264-aac-faststart.mp4"), GetParam());
    const auto started = Clock::now();
    MP4Err result = MP4_OK;
    describe(server.url().c_str(), &result);
    EXPECT_NE(result, MP4_OK);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(5));
}

INSTANTIATE_TEST_SUITE_P(Faults, NetFaultTest,
                         ::testing::Values(Fault::IgnoresRanges, Fault::DropsEarly, Fault::Stalls,
                                           Fault::NotFound, Fault::ServerError, Fault::NotHttp,
                                           Fault::WrongStart, Fault::GarbageBody));

// A port nothing listens on: taken by a server, then freed.
int freePort() {
    LoopbackServer closed(Bytes(), Fault::None);
    const std::wstring url = closed.url();
    return std::stoi(std::string(url.begin() + 17, url.begin() + url.rfind(L'/')));
}

TEST_F(NetTest, NothingListeningFailsInBoundedTime) {
    const int port = freePort();
    const std::string text = "http://127.0.0.1:" + std::to_string(port) + "/x.mp4";
    const auto started = Clock::now();
    MP4Err result = MP4_OK;
    describe(std::wstring(text.begin(), text.end()).c_str(), &result);
    EXPECT_EQ(result, MP4_ERR_IO);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(5));
}

// Storage level: reads across blocks, seeks, and the quiet restarts.
class NetStorageTest : public NetTest {
protected:
    // Reads `size` bytes at `at` and compares them with the pattern.
    void expectPattern(CNetStorage* storage, uint64_t at, uint32_t size) {
        Bytes got(size);
        ASSERT_EQ(storage->seek(at), MP4_OK);
        ASSERT_EQ(storage->readBlock(got.data(), size), MP4_OK) << "at " << at;
        for (uint32_t i = 0; i < size; ++i) ASSERT_EQ(got[i], pattern(at + i)) << "at " << at + i;
    }
};

TEST_F(NetStorageTest, ReadsAcrossBlocksAfterEvictionAndDroppedConnection) {
    const size_t size = 48u << 20;  // more than the blocks kept behind the reader
    for (Fault fault : {Fault::None, Fault::DropsOnce}) {
        LoopbackServer server(patterned(size), fault);
        CNetStorage storage;
        ASSERT_EQ(storage.setPath(server.url().c_str()), MP4_OK);
        ASSERT_EQ(storage.open(0), MP4_OK);
        uint32_t word = 0;
        ASSERT_EQ(storage.readUInt32(&word), MP4_OK);
        EXPECT_EQ(word, uint32_t(pattern(0)) << 24 | uint32_t(pattern(1)) << 16 |
                            uint32_t(pattern(2)) << 8 | pattern(3));
        for (uint64_t at = 0x1FFF0; at + 1000000 < size; at += 1000000)
            expectPattern(&storage, at, 70000);
        expectPattern(&storage, 5, 300000);  // freed long ago: fetched again
        EXPECT_EQ(storage.close(), MP4_OK);
        EXPECT_GE(server.requests(), 2);
    }
}

TEST_F(NetStorageTest, ReadsPastTheEndOrOfAChangedFileFail) {
    // All of it within the first request (256 KiB).
    LoopbackServer server(patterned(200000), Fault::GrowsLater);
    CNetStorage storage;
    ASSERT_EQ(storage.setPath(server.url().c_str()), MP4_OK);
    ASSERT_EQ(storage.open(0), MP4_OK);
    expectPattern(&storage, 1000, 1000);
    uint8_t byte = 0;
    ASSERT_EQ(storage.seek(199999), MP4_OK);
    EXPECT_EQ(storage.readUInt8(&byte), MP4_OK);
    EXPECT_EQ(storage.readUInt8(&byte), MP4_ERR_IO);  // past the end
    // New requests (a far seek, then one before that download's start)
    // find the resource longer than before.
    ASSERT_EQ(storage.seek(2500000), MP4_OK);
    ASSERT_EQ(storage.seek(10), MP4_OK);
    EXPECT_EQ(storage.readUInt8(&byte), MP4_ERR_IO);
    EXPECT_GE(server.requests(), 2);
    EXPECT_EQ(storage.close(), MP4_OK);
}

TEST_F(NetStorageTest, OffsetsPast4GiBAreRequestedAsThemselves) {
    LoopbackServer server(Bytes(), Fault::Huge);
    CNetStorage storage;
    ASSERT_EQ(storage.setPath(server.url().c_str()), MP4_OK);
    ASSERT_EQ(storage.open(0), MP4_OK);
    expectPattern(&storage, kHugeSize - 300000, 200000);  // a far seek: a request from there
    expectPattern(&storage, (4ull << 30) + 12345, 1000);
    EXPECT_EQ(storage.close(), MP4_OK);
}

TEST_F(NetStorageTest, InterfaceValues) {
    CNetStorage storage;
    EXPECT_EQ(storage.open(0), MP4_ERR_IO);  // no URL
    ASSERT_EQ(storage.setPath(L""), MP4_OK);
    EXPECT_EQ(storage.open(0), MP4_ERR_IO);
    LoopbackServer server(patterned(1000), Fault::None);
    ASSERT_EQ(storage.setPath(server.url().c_str()), MP4_OK);
    EXPECT_EQ(storage.open(2), MP4_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(storage.open(0), MP4_OK);
    EXPECT_EQ(storage.open(0), MP4_ERR_NOT_AVAILABLE);
    uint64_t length = 0;
    EXPECT_EQ(storage.getLength(&length), MP4_OK);
    EXPECT_EQ(length, 0xFFFFFFFFFD800000ull);
    EXPECT_EQ(storage.writeUInt32(0x12345678), MP4_OK);
    EXPECT_EQ(storage.close(), MP4_OK);
    EXPECT_EQ(storage.close(), MP4_ERR_NOT_AVAILABLE);
}

// ---- reply judgement, without a transfer ------------------------------------

struct ReplyCase {
    const char* name;
    const char* head;  // header lines, each ending in CR LF
    uint64_t start;
    bool allowWholeBody;
    net::Verdict verdict;
    int64_t total;
};

class ReplyJudgement : public ::testing::TestWithParam<ReplyCase> {};

TEST_P(ReplyJudgement, OnlyTheRequestedBytesOfOneResourceAreUsed) {
    const ReplyCase& c = GetParam();
    net::Reply reply;
    std::string head = c.head;
    for (size_t end = head.find("\r\n"); end != std::string::npos; end = head.find("\r\n")) {
        net::parseHeaderLine(&reply, head.substr(0, end + 2));
        head.erase(0, end + 2);
    }
    EXPECT_FALSE(net::isIntermediate(reply));
    net::ResourceIdentity identity;
    int64_t total = -2;
    EXPECT_EQ(net::judgeReply(reply, c.start, c.allowWholeBody, &identity, &total), c.verdict);
    if (c.verdict == net::Verdict::Refused) {
        EXPECT_FALSE(net::refusalText(reply, c.start).empty());
        return;
    }
    EXPECT_EQ(total, c.total);
    // The same resource again is accepted; a longer one is not.
    EXPECT_EQ(net::judgeReply(reply, c.start, c.allowWholeBody, &identity, &total), c.verdict);
    identity.total += 1;
    EXPECT_EQ(net::judgeReply(reply, c.start, c.allowWholeBody, &identity, &total),
              net::Verdict::Refused);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ReplyJudgement,
    ::testing::Values(
        ReplyCase{"ranged", "HTTP/1.1 206 Partial\r\ncontent-range: bytes 5-9/10\r\n", 5, false,
                  net::Verdict::Ranged, 10},
        ReplyCase{"past_4GiB", "HTTP/1.1 206 P\r\nContent-Range: bytes 5000000000-5000000009/5000000010\r\n",
                  5000000000ull, false, net::Verdict::Ranged, 5000000010ll},
        ReplyCase{"unknown_total", "HTTP/1.1 206 P\r\nContent-Range: bytes 0-9/*\r\n", 0, false,
                  net::Verdict::Ranged, -1},
        ReplyCase{"other_start", "HTTP/1.1 206 P\r\nContent-Range: bytes 6-9/10\r\n", 5, false,
                  net::Verdict::Refused, 0},
        ReplyCase{"range_last_before_first", "HTTP/1.1 206 P\r\nContent-Range: bytes 9-5/10\r\n", 9,
                  false, net::Verdict::Refused, 0},
        ReplyCase{"whole_body_refused", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n", 5, false,
                  net::Verdict::Refused, 0},
        ReplyCase{"whole_body_allowed", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n", 5, true,
                  net::Verdict::WholeBody, 10},
        ReplyCase{"not_found", "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n", 0, true,
                  net::Verdict::Refused, 0},
        // A redirect's headers are forgotten at the next status line.
        ReplyCase{"after_redirect", "HTTP/1.1 302 Found\r\nLocation: /b\r\nHTTP/1.1 206 P\r\n"
                  "Content-Range: bytes 0-1/2\r\n", 0, false, net::Verdict::Ranged, 2}),
    [](const ::testing::TestParamInfo<ReplyCase>& info) { return std::string(info.param.name); });

// ---- whole bodies, TLS ---------------------------------------------------

// Settings that read whole bodies; progress text goes to a temporary file.
class WholeBodyTest : public NetTest {
protected:
    void SetUp() override {
        NetTest::SetUp();
        progress_ = std::tmpfile();
        Mp4NetSettings settings{2000, 2000, progress_, 1, nullptr, 1};
        ASSERT_EQ(Mp4SetNetSettings(&settings), MP4_OK);
    }
    void TearDown() override {
        NetTest::TearDown();
        if (progress_) std::fclose(progress_);
    }
    std::string progressText() {
        std::string text;
        std::rewind(progress_);
        for (int c = std::fgetc(progress_); c != EOF; c = std::fgetc(progress_)) {
            text += static_cast<char>(c);
        }
        return text;
    }
    std::FILE* progress_ = nullptr;
};

size_t occurrences(const std::string& text, const std::string& word) {
    size_t count = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++count;
    return count;
}

std::string localDescription(const char* name) {
    const std::string local = std::string(QUIL_TEST_DATA_DIR) + "/" + name;
    MP4Err result = MP4_OK;
    return describe(std::wstring(local.begin(), local.end()).c_str(), &result);
}

TEST_F(WholeBodyTest, AServerThatIgnoresRangesIsReadFromTheStart) {
    LoopbackServer server(fixture("h264-aac-faststart.mp4"), Fault::IgnoresRanges);
    MP4Err result = MP4_OK;
    const std::string actual = describe(server.url().c_str(), &result);
    EXPECT_EQ(result, MP4_OK);
    EXPECT_TRUE(actual == localDescription("h264-aac-faststart.mp4"));
    EXPECT_EQ(occurrences(progressText(), "server ignores ranges"), 1u);
}

TEST_F(WholeBodyTest, RefusalsSayWhy) {
    LoopbackServer server(fixture("h264-aac-faststart.mp4"), Fault::NotFound);
    MP4Err result = MP4_OK;
    describe(server.url().c_str(), &result);
    char reason[64] = "";
    EXPECT_EQ(result, MP4_ERR_IO);
    ASSERT_EQ(Mp4GetLastNetError(reason, sizeof reason), MP4_OK);
    EXPECT_STREQ(reason, "HTTP status 404");
    EXPECT_EQ(Mp4GetLastNetError(reason, 0), MP4_ERR_INVALID_ARGUMENT);
}

// A TLS server on 127.0.0.1 (openssl s_server, which answers 200 with the
// whole file) with a certificate made for the test.
class TlsServer {
public:
    explicit TlsServer(const std::string& directory) : directory_(directory) {
        const std::string make = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "
                                 "/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                 directory + "/key.pem -out " + directory + "/cert.pem 2>/dev/null";
        if (std::system(make.c_str()) != 0) return;
        port_ = freePort();
        pid_ = ::fork();
        if (pid_ == 0) {
            if (::chdir(directory.c_str()) != 0) ::_exit(127);
            const std::string accept = "127.0.0.1:" + std::to_string(port_);
            ::execlp("timeout", "timeout", "60", "openssl", "s_server", "-quiet", "-WWW",
                     "-accept", accept.c_str(), "-cert", "cert.pem", "-key", "key.pem",
                     static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ready_ = pid_ > 0 && waitForListener();
    }
    ~TlsServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool ready() const { return ready_; }
    std::string caFile() const { return directory_ + "/cert.pem"; }
    std::wstring url(const char* name) const {
        const std::string text = "https://127.0.0.1:" + std::to_string(port_) + "/" + name;
        return std::wstring(text.begin(), text.end());
    }

private:
    bool waitForListener() {
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (Clock::now() < deadline) {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            address.sin_port = htons(static_cast<uint16_t>(port_));
            const bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            ::close(fd);
            if (up) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    std::string directory_;
    int port_ = 0;
    pid_t pid_ = -1;
    bool ready_ = false;
};

TEST_F(WholeBodyTest, HttpsOnAnyPortVerifiesAgainstTheNamedAuthority) {
    const std::string directory = testing::TempDir() + "quil-tls-" + std::to_string(getpid());
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    {
        std::ofstream out(directory + "/file.mp4", std::ios::binary);
        const Bytes bytes = fixture("h264-aac-faststart.mp4");
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
    }
    TlsServer server(directory);
    if (!server.ready()) GTEST_SKIP() << "openssl cannot serve TLS here";
    MP4Err result = MP4_OK;
    // The self-made certificate is in no system store.
    describe(server.url("file.mp4").c_str(), &result);
    EXPECT_EQ(result, MP4_ERR_IO);
    Mp4NetSettings settings{};
    ASSERT_EQ(Mp4GetNetSettings(&settings), MP4_OK);
    const std::string caFile = server.caFile();
    settings.caFile = caFile.c_str();
    ASSERT_EQ(Mp4SetNetSettings(&settings), MP4_OK);
    const std::string actual = describe(server.url("file.mp4").c_str(), &result);
    EXPECT_EQ(result, MP4_OK);
    EXPECT_TRUE(actual == localDescription("h264-aac-faststart.mp4"));
    std::system(("rm -rf " + directory).c_str());
}

}  // namespace
}  // namespace quil
