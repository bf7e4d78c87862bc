// Reading over HTTP: a small server on 127.0.0.1 inside the test serves
// bytes with or without faults; results must equal the local file's, and
// every fault must end in an error code within the configured timeouts.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quil/quil.h"
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
};

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

    bool sendAll(int fd, const void* data, size_t size) {
        const char* bytes = static_cast<const char*>(data);
        while (size > 0 && !stop_) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            const ssize_t n = ::send(fd, bytes, size, MSG_NOSIGNAL);
            if (n <= 0) return false;
            bytes += n;
            size -= static_cast<size_t>(n);
        }
        return size == 0;
    }

    void serve(int fd) {
        const std::string request = readRequest(fd);
        const int number = ++requests_;
        size_t start = 0;
        const size_t range = request.find("Range: bytes=");
        if (range != std::string::npos)
            start = std::strtoul(request.c_str() + range + 13, nullptr, 10);
        respond(fd, number, std::min(start, body_.size()));
        ::close(fd);
    }

    void respond(int fd, int number, size_t start) {
        size_t total = body_.size();
        if (fault_ == Fault::GrowsLater && number > 1) total += 1000;
        std::string head;
        size_t first = start, limit = body_.size();
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
                head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(total) + "\r\n";
                break;
            default: {
                const size_t shown = fault_ == Fault::WrongStart ? start + 1 : start;
                head = "HTTP/1.1 206 Partial Content\r\nContent-Length: " +
                       std::to_string(total - start) + "\r\nContent-Range: bytes " +
                       std::to_string(shown) + "-" + std::to_string(total - 1) + "/" +
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
        if (first < limit) sendAll(fd, data.data() + first, limit - first);
    }

    Bytes body_;
    Bytes garbage_;
    Fault fault_;
    int listener_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    std::thread acceptor_;
    std::vector<std::thread> connections_;  // only the acceptor adds; joined at the end
};

// Short timeouts and no progress text for the whole test program.
class NetTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Mp4GetNetSettings(&saved_), MP4_OK);
        Mp4NetSettings quick{1000, 1000, nullptr};
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

TEST_F(NetTest, NothingListeningFailsInBoundedTime) {
    int port = 0;
    {
        LoopbackServer closed(Bytes(), Fault::None);  // take a free port, then free it
        const std::wstring url = closed.url();
        port = std::stoi(std::string(url.begin() + 17, url.begin() + url.rfind(L'/')));
    }
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
    LoopbackServer server(patterned(300000), Fault::GrowsLater);
    CNetStorage storage;
    ASSERT_EQ(storage.setPath(server.url().c_str()), MP4_OK);
    ASSERT_EQ(storage.open(0), MP4_OK);
    expectPattern(&storage, 1000, 1000);
    uint8_t byte = 0;
    ASSERT_EQ(storage.seek(299999), MP4_OK);
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

}  // namespace
}  // namespace quil
