#include "NetStorage.h"

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "WidePath.h"
#include "quil/NetSettings.h"

// How the cache works
// - Each download is one GET from a start offset to the end of the
//   resource ("Range: bytes=N-"), run by a detached thread that appends
//   the body to a list of 0x20000-byte blocks. The byte at offset o lies in
//   block (o - start) >> 17 at (o - start) & 0x1FFFF. A block is appended
//   only once it is full, so the arithmetic holds however libcurl splits the
//   body; the last, partial block is zero-filled when the body is complete.
// - A read waits until the block holding its end has arrived. The test is
//   deliberately ">=": a read ending exactly at the end of the cached bytes
//   waits for one more block (or fails once the download has ended).
// - A seek moves only the position when it goes backwards within the
//   current download or forwards by at most 2,000,000 bytes; anything else
//   abandons the download and starts a new one at the new offset.
//
// What the reader cannot see, and why it is done:
// - The download pauses while it is more than kAheadBlocks ahead of the
//   reader, so opening a file transfers the movie box and a few MiB, not the
//   whole resource. Blocks more than kBehindBlocks behind the reader are
//   freed, so memory stays bounded on long files. A read that needs freed
//   bytes, or bytes of a download that lost its connection after making
//   progress, quietly starts a new request at its own position.
// - A reply is used only when it is a 206 whose Content-Range starts at the
//   requested offset and names the same resource as the first reply (same
//   total length; If-Range with its validator). Anything else ends the
//   download, so reads fail with MP4_ERR_IO instead of returning other bytes.
// - Reads past the total length named by the server fail at once.

namespace quil {
namespace net {
namespace {

constexpr uint32_t kBlockShift = 17;
constexpr uint32_t kBlockSize = 1u << kBlockShift;  // 0x20000
constexpr uint64_t kReportedLength = 0xFFFFFFFFFD800000ull;
constexpr int32_t kNearSeek = 2000001;  // forward seeks below this keep the download
constexpr size_t kAheadBlocks = 16;     // 2 MiB read ahead of the reader
constexpr size_t kBehindBlocks = 64;    // 8 MiB kept behind it
constexpr size_t kUrlCapacity = 2048;   // wide characters kept by setPath
constexpr auto kReaderPoll = std::chrono::milliseconds(100);
constexpr auto kCloseWait = std::chrono::seconds(2);
constexpr long kMaxRedirects = 8;

using Clock = std::chrono::steady_clock;
using Block = std::shared_ptr<const uint8_t[]>;

// ---- settings -----------------------------------------------------------

std::mutex& settingsLock() {
    static std::mutex lock;
    return lock;
}

Mp4NetSettings& settingsValue() {
    static Mp4NetSettings settings{10000, 20000, stdout};
    return settings;
}

Mp4NetSettings currentSettings() {
    std::lock_guard<std::mutex> guard(settingsLock());
    return settingsValue();
}

void initCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

// What the first reply said about the resource; later requests must name
// the same one.
struct Resource {
    std::mutex lock;
    bool known = false;
    int64_t total = -1;     // from Content-Range; -1 when given as "*"
    std::string validator;  // strong ETag, else Last-Modified, else empty
};

enum class End { Running, Complete, Stopped, Dropped, Refused };

struct Download {
    Download(std::string url, uint64_t start, std::shared_ptr<Resource> resource,
             Mp4NetSettings settings)
        : url(std::move(url)),
          startOffset(start),
          resource(std::move(resource)),
          settings(settings) {}

    const std::string url;
    const uint64_t startOffset;  // 64-bit: files past 4 GiB read by range
    const std::shared_ptr<Resource> resource;
    const Mp4NetSettings settings;

    std::shared_mutex lock;               // guards blocks and evictedBelow
    std::condition_variable_any changed;  // a block arrived, the reader moved, or the end
    std::vector<Block> blocks;
    size_t evictedBelow = 0;

    std::atomic<bool> stop{false};        // set by the storage: abandon the transfer
    std::atomic<End> end{End::Running};   // set by the thread when it is done
    std::atomic<uint64_t> readerNeed{0};  // relative end of the read being waited for
    std::atomic<uint64_t> readerBlock{0};
    std::atomic<int64_t> total{-1};  // resource length, once the reply was accepted

    // Thread side only.
    std::shared_ptr<uint8_t[]> filling;
    uint32_t filled = 0;
    uint64_t received = 0;
    bool accepted = false;
    Clock::time_point lastData = Clock::now();
    struct Reply {
        long status = 0;
        int64_t contentLength = -1;
        bool hasRange = false;
        uint64_t rangeFirst = 0;
        int64_t rangeTotal = -1;
        std::string etag, lastModified;
        bool hasLocation = false;
    } reply;

    bool ended() const { return end.load() != End::Running; }

    void print(const char* text) const {
        if (settings.progress == nullptr) return;
        std::fputs(text, settings.progress);
        std::fflush(settings.progress);
    }

    void finish(End how) {
        {
            std::unique_lock<std::shared_mutex> guard(lock);
            end.store(how);
        }
        changed.notify_all();
    }
};

namespace {

// ---- reply headers --------------------------------------------------------

bool startsWithNoCase(const std::string& line, const char* prefix) {
    const size_t length = std::strlen(prefix);
    return line.size() >= length && strncasecmp(line.c_str(), prefix, length) == 0;
}

std::string headerValue(const std::string& line, size_t nameLength) {
    size_t first = nameLength;
    while (first < line.size() && (line[first] == ' ' || line[first] == '\t')) ++first;
    size_t last = line.size();
    while (last > first && (line[last - 1] == '\r' || line[last - 1] == '\n' ||
                            line[last - 1] == ' ' || line[last - 1] == '\t')) {
        --last;
    }
    return line.substr(first, last - first);
}

// "bytes FIRST-LAST/TOTAL" or "bytes FIRST-LAST/*" (RFC 9110 §14.4).
bool parseContentRange(const std::string& value, uint64_t* first, int64_t* total) {
    unsigned long long a = 0, b = 0, t = 0;
    char star = 0;
    if (std::sscanf(value.c_str(), "bytes %llu-%llu/%llu", &a, &b, &t) == 3) {
        if (b < a || t <= b || t > INT64_MAX) return false;
        *first = a;
        *total = static_cast<int64_t>(t);
        return true;
    }
    if (std::sscanf(value.c_str(), "bytes %llu-%llu/%c", &a, &b, &star) == 3 && star == '*') {
        if (b < a) return false;
        *first = a;
        *total = -1;
        return true;
    }
    return false;
}

void parseHeaderLine(Download::Reply* reply, const std::string& line) {
    if (startsWithNoCase(line, "HTTP/")) {
        *reply = Download::Reply();
        const size_t space = line.find(' ');
        if (space != std::string::npos)
            reply->status = std::strtol(line.c_str() + space, nullptr, 10);
    } else if (startsWithNoCase(line, "content-length:")) {
        const std::string value = headerValue(line, 15);
        char* end = nullptr;
        const long long length = std::strtoll(value.c_str(), &end, 10);
        if (!value.empty() && *end == '\0' && length >= 0) reply->contentLength = length;
    } else if (startsWithNoCase(line, "content-range:")) {
        reply->hasRange =
            parseContentRange(headerValue(line, 14), &reply->rangeFirst, &reply->rangeTotal);
    } else if (startsWithNoCase(line, "etag:")) {
        reply->etag = headerValue(line, 5);
    } else if (startsWithNoCase(line, "last-modified:")) {
        reply->lastModified = headerValue(line, 14);
    } else if (startsWithNoCase(line, "location:")) {
        reply->hasLocation = true;
    }
}

// The reply may be used: 206, the requested start, the same resource.
bool acceptReply(Download* d) {
    const Download::Reply& reply = d->reply;
    if (reply.status != 206 || !reply.hasRange || reply.rangeFirst != d->startOffset) return false;
    // A weak ETag may not be used with If-Range (RFC 9110 §13.1.5).
    const std::string validator = !reply.etag.empty() && reply.etag.compare(0, 2, "W/") != 0
                                      ? reply.etag
                                      : reply.lastModified;
    Resource& resource = *d->resource;
    std::lock_guard<std::mutex> guard(resource.lock);
    if (!resource.known) {
        resource.known = true;
        resource.total = reply.rangeTotal;
        resource.validator = validator;
    } else if (resource.total != reply.rangeTotal ||
               (!resource.validator.empty() && !validator.empty() &&
                resource.validator != validator)) {
        return false;  // the file changed between requests
    }
    d->total.store(reply.rangeTotal);
    return true;
}

// End of one reply's headers: redirects and interim replies are passed by;
// the final one prints its length and is accepted or refused.
bool onHeadersComplete(Download* d) {
    const long status = d->reply.status;
    if (status >= 100 && status < 200) return true;
    if (status >= 300 && status < 400 && d->reply.hasLocation) return true;
    char text[64];
    std::snprintf(text, sizeof text, "content length is %" PRId64 "\n", d->reply.contentLength);
    d->print(text);
    d->accepted = acceptReply(d);
    return d->accepted;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    Download* d = static_cast<Download*>(user);
    const size_t bytes = size * count;
    const std::string line(data, bytes);
    if (line == "\r\n" || line == "\n") return onHeadersComplete(d) ? bytes : 0;
    parseHeaderLine(&d->reply, line);
    return bytes;
}

// ---- body -----------------------------------------------------------------

// Appends the full block being filled; frees blocks far behind the reader.
void appendBlock(Download* d) {
    {
        std::unique_lock<std::shared_mutex> guard(d->lock);
        d->blocks.push_back(Block(std::move(d->filling)));
        const uint64_t readerBlock = d->readerBlock.load();
        while (d->evictedBelow + kBehindBlocks < readerBlock &&
               d->evictedBelow < d->blocks.size()) {
            d->blocks[d->evictedBelow++].reset();
        }
    }
    d->filled = 0;
    d->changed.notify_all();
    d->print("#");
}

// Holds the transfer while the cache is far enough ahead of the reader;
// the server then waits on a full socket. False when told to stop.
bool waitForReader(Download* d) {
    std::unique_lock<std::shared_mutex> guard(d->lock);
    for (;;) {
        if (d->stop.load()) return false;
        const uint64_t cached = static_cast<uint64_t>(d->blocks.size()) << kBlockShift;
        if (cached < d->readerNeed.load() + kAheadBlocks * kBlockSize) break;
        d->changed.wait_for(guard, kReaderPoll);
    }
    d->lastData = Clock::now();  // a pause of ours is no stall of the server
    return true;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
    Download* d = static_cast<Download*>(user);
    const size_t bytes = size * count;
    if (d->stop.load() || !d->accepted) return 0;
    d->lastData = Clock::now();
    size_t used = 0;
    while (used < bytes) {
        if (!d->filling) {
            d->filling.reset(new (std::nothrow) uint8_t[kBlockSize]);
            if (!d->filling) return 0;
        }
        const size_t piece = std::min<size_t>(bytes - used, kBlockSize - d->filled);
        std::memcpy(d->filling.get() + d->filled, data + used, piece);
        d->filled += static_cast<uint32_t>(piece);
        d->received += piece;
        used += piece;
        if (d->filled == kBlockSize) {
            appendBlock(d);
            if (!waitForReader(d)) return 0;
        }
    }
    return bytes;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Download* d = static_cast<Download*>(user);
    if (d->stop.load()) return 1;
    const auto stalled = std::chrono::milliseconds(d->settings.stallTimeoutMs);
    return Clock::now() - d->lastData > stalled ? 1 : 0;
}

// ---- the request ------------------------------------------------------------

// TLS exactly when the port is 443, whatever the scheme says: the URL is
// rewritten to "https" for port 443 and to "http" otherwise.
bool requestUrl(const std::string& url, std::string* out) {
    CURLU* parsed = curl_url();
    if (parsed == nullptr) return false;
    char* port = nullptr;
    char* full = nullptr;
    bool ok = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
              curl_url_get(parsed, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK;
    if (ok) {
        const char* scheme = std::strcmp(port, "443") == 0 ? "https" : "http";
        ok = curl_url_set(parsed, CURLUPART_SCHEME, scheme, 0) == CURLUE_OK &&
             curl_url_get(parsed, CURLUPART_URL, &full, 0) == CURLUE_OK;
    }
    if (ok) *out = full;
    curl_free(port);
    curl_free(full);
    curl_url_cleanup(parsed);
    return ok;
}

curl_slist* requestHeaders(const Download& d) {
    char range[48];
    // The offset goes out as a signed 32-bit number; from 2 GiB on it turns
    // into a suffix range, whose reply then fails the start check.
    std::snprintf(range, sizeof range, "Range: bytes=%" PRIu64 "-", d.startOffset);
    curl_slist* headers = curl_slist_append(nullptr, range);
    std::string validator;
    {
        std::lock_guard<std::mutex> guard(d.resource->lock);
        validator = d.resource->validator;
    }
    if (headers != nullptr && !validator.empty()) {
        curl_slist* more = curl_slist_append(headers, ("If-Range: " + validator).c_str());
        if (more == nullptr) {
            curl_slist_free_all(headers);
            return nullptr;
        }
        headers = more;
    }
    return headers;
}

void configure(CURL* curl, Download* d, const std::string& url, curl_slist* headers) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "url");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(d->settings.connectTimeoutMs));
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, static_cast<long>(kBlockSize));
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, d);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, d);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, d);
}

// How the transfer ended, as the reader needs to know it.
End classify(Download* d, CURLcode result) {
    if (!d->accepted) return End::Refused;
    if (d->stop.load()) return End::Stopped;
    if (result != CURLE_OK) return End::Dropped;
    // A body that ends short of the named length lost its connection too;
    // its partial block is not handed out as if the rest were zeros.
    const int64_t total = d->total.load();
    if (total >= 0 && d->startOffset + d->received != static_cast<uint64_t>(total)) {
        return End::Dropped;
    }
    if (d->filled > 0) {
        std::memset(d->filling.get() + d->filled, 0, kBlockSize - d->filled);
        appendBlock(d);
    }
    return End::Complete;
}

void runDownload(std::shared_ptr<Download> download) {
    Download* d = download.get();
    End how = End::Refused;
    std::string url;
    CURL* curl = requestUrl(d->url, &url) ? curl_easy_init() : nullptr;
    curl_slist* headers = curl != nullptr ? requestHeaders(*d) : nullptr;
    if (headers != nullptr) {
        configure(curl, d, url, headers);
        how = classify(d, curl_easy_perform(curl));
        if (how == End::Complete || how == End::Stopped) d->print("cache reading complete\n");
    }
    curl_slist_free_all(headers);
    if (curl != nullptr) curl_easy_cleanup(curl);
    d->filling.reset();
    d->finish(how);
}

}  // namespace
}  // namespace net

// ---------------------------------------------------------------------------
// Settings

MP4Err Mp4GetNetSettings(Mp4NetSettings* settings) {
    if (settings == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *settings = net::currentSettings();
    return MP4_OK;
}

MP4Err Mp4SetNetSettings(const Mp4NetSettings* settings) {
    if (settings == nullptr || settings->connectTimeoutMs == 0 || settings->stallTimeoutMs == 0) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    std::lock_guard<std::mutex> guard(net::settingsLock());
    net::settingsValue() = *settings;
    return MP4_OK;
}

// ---------------------------------------------------------------------------
// Storage

using net::Download;
using net::End;

CNetStorage::CNetStorage() = default;

CNetStorage::~CNetStorage() { stopDownload(); }

MP4Err CNetStorage::setPath(const wchar_t* url) {
    if (url == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<wchar_t[]> copy(new (std::nothrow) wchar_t[net::kUrlCapacity]);
    if (!copy) return MP4_ERR_OUT_OF_MEMORY;
    std::wcsncpy(copy.get(), url, net::kUrlCapacity - 1);
    copy[net::kUrlCapacity - 1] = L'\0';
    url_ = std::move(copy);
    return MP4_OK;
}

MP4Err CNetStorage::open(uint32_t mode) {
    if (!url_ || url_[0] == L'\0') return MP4_ERR_IO;
    if (openForRead_ != 0 || openForWrite_ != 0) return MP4_ERR_NOT_AVAILABLE;
    if (mode > 1) return MP4_ERR_INVALID_ARGUMENT;
    openForRead_ = mode == 0 ? 1 : 0;
    openForWrite_ = mode == 1 ? 1 : 0;
    resource_ = std::make_shared<net::Resource>();
    position_ = 0;
    rangeStart_ = 0;
    startDownload(0);
    return MP4_OK;
}

MP4Err CNetStorage::close() {
    if (openForRead_ == 0 && openForWrite_ == 0) return MP4_ERR_NOT_AVAILABLE;
    openForRead_ = 0;
    openForWrite_ = 0;
    position_ = 0;
    std::shared_ptr<Download> last = download_;
    stopDownload();
    // Give the thread a moment to leave libcurl, so that a process that
    // exits right after closing does not tear TLS down under it.
    if (last) {
        std::shared_lock<std::shared_mutex> guard(last->lock);
        last->changed.wait_for(guard, net::kCloseWait, [&] { return last->ended(); });
    }
    return MP4_OK;
}

void CNetStorage::startDownload(uint64_t offset) {
    currentBlock_.reset();
    currentBase_ = currentEnd_ = 0;
    std::string url;
    if (widePathToUtf8(url_.get(), &url) != MP4_OK) url.clear();  // refused by the thread
    net::initCurlOnce();
    download_ = std::make_shared<Download>(url, offset, resource_,
                                           net::currentSettings());
    try {
        // A lambda keeps the thread's state type local to this file, so the
        // shared library exports nothing of it.
        std::shared_ptr<Download> download = download_;
        std::thread([download] { net::runDownload(download); }).detach();
    } catch (const std::system_error&) {
        download_->finish(End::Refused);
    }
}

void CNetStorage::stopDownload() {
    currentBlock_.reset();
    currentBase_ = currentEnd_ = 0;
    if (!download_) return;
    download_->stop.store(true);
    download_->changed.notify_all();
    download_.reset();
}

MP4Err CNetStorage::seek(uint64_t position) {
    if (!download_) return MP4_ERR_NOT_AVAILABLE;
    // The difference of the low words, as a signed 32-bit number.
    const int32_t distance =
        static_cast<int32_t>(static_cast<uint32_t>(position) - static_cast<uint32_t>(position_));
    if (distance < net::kNearSeek && position >= rangeStart_) {
        position_ = position;
        return MP4_OK;
    }
    stopDownload();
    const Mp4NetSettings settings = net::currentSettings();
    if (settings.progress != nullptr) {
        std::fprintf(settings.progress, "reseek %" PRIu64 " %" PRIu64 "\n", position, position_);
        std::fflush(settings.progress);
    }
    rangeStart_ = position;
    startDownload(position);
    position_ = position;
    return MP4_OK;
}

MP4Err CNetStorage::isEof(uint32_t* eof) {
    if (eof == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *eof = endOfFile_;
    return MP4_OK;
}

MP4Err CNetStorage::flush() { return MP4_OK; }

MP4Err CNetStorage::getLength(uint64_t* length) {
    if (length == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    // The server is never asked; the box reader stops after "mdat" instead.
    *length = net::kReportedLength;
    return MP4_OK;
}

MP4Err CNetStorage::getPosition(uint64_t* position) {
    if (position == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *position = position_;
    return MP4_OK;
}

bool CNetStorage::copyFromCurrentBlock(uint8_t* buffer, uint32_t count) {
    if (!currentBlock_ || position_ < currentBase_ || position_ > currentEnd_ ||
        currentEnd_ - position_ < count) {
        return false;
    }
    if (count != 0) std::memcpy(buffer, currentBlock_.get() + (position_ - currentBase_), count);
    position_ += count;
    return true;
}

namespace net {
namespace {

enum class Wait { Ready, Restart, Failed };

// Waits, under the shared lock the caller holds, until blocks first..last
// are cached. Restart when they were freed or the connection was lost after
// making progress; Failed when the download ended without them.
Wait waitForBlocks(Download& d, std::shared_lock<std::shared_mutex>& guard, size_t first,
                   size_t last) {
    for (;;) {
        if (d.blocks.size() > last) return first < d.evictedBelow ? Wait::Restart : Wait::Ready;
        if (d.ended()) {
            const bool resumable = d.end.load() == End::Dropped && !d.blocks.empty();
            return resumable ? Wait::Restart : Wait::Failed;
        }
        d.changed.wait_for(guard, kReaderPoll);
    }
}

uint64_t cachedBytes(Download& d) {
    std::shared_lock<std::shared_mutex> guard(d.lock);
    return static_cast<uint64_t>(d.blocks.size()) << kBlockShift;
}

bool pastTheEnd(const Download& d, uint64_t need) {
    const int64_t total = d.total.load();
    return total >= 0 && d.startOffset + need > static_cast<uint64_t>(total);
}

void copyBlocks(const Download& d, uint64_t rel, uint8_t* buffer, uint32_t count) {
    size_t index = static_cast<size_t>(rel >> kBlockShift);
    uint32_t offset = static_cast<uint32_t>(rel & (kBlockSize - 1));
    for (uint32_t copied = 0; copied < count; offset = 0, ++index) {
        const uint32_t piece = std::min(kBlockSize - offset, count - copied);
        std::memcpy(buffer + copied, d.blocks[index].get() + offset, piece);
        copied += piece;
    }
}

}  // namespace
}  // namespace net

MP4Err CNetStorage::waitAndCopy(uint8_t* buffer, uint32_t count) {
    transferFailed_ = false;
    for (;;) {
        if (!download_) return MP4_ERR_IO;
        // Bytes before the last explicit seek were never part of a download
        // (only a skip that wrapped around gets here).
        if (position_ < rangeStart_) return MP4_ERR_IO;
        Download& d = *download_;
        if (position_ < d.startOffset) {  // before a quiet restart: restart again
            startDownload(position_);
            continue;
        }
        const uint64_t rel = position_ - d.startOffset;
        // Far past what the download holds: a skip over media data between
        // fragment headers. The bytes in between are not fetched; the
        // download restarts at the read (classic files read nothing after
        // their media data, so they never get here).
        if (rel > net::cachedBytes(d) + static_cast<uint64_t>(net::kNearSeek)) {
            startDownload(position_);
            continue;
        }
        const uint64_t need = rel + count;
        // Blocks are addressed with 32-bit offsets from the download's start.
        if (need > UINT32_MAX || net::pastTheEnd(d, need)) return MP4_ERR_IO;

        d.readerBlock.store(rel >> net::kBlockShift);
        d.readerNeed.store(need);
        d.changed.notify_all();  // the download may be waiting for the reader
        const size_t last = static_cast<size_t>(need >> net::kBlockShift);
        std::shared_lock<std::shared_mutex> guard(d.lock);
        const size_t first = static_cast<size_t>(rel >> net::kBlockShift);
        const net::Wait wait = net::waitForBlocks(d, guard, first, last);
        if (wait == net::Wait::Restart) {
            guard.unlock();
            startDownload(position_);
            continue;
        }
        if (wait == net::Wait::Failed) {
            transferFailed_ = d.end.load() != End::Complete;
            return MP4_ERR_IO;
        }
        // The length is known once the first block is there, maybe only now.
        if (net::pastTheEnd(d, need)) return MP4_ERR_IO;
        net::copyBlocks(d, rel, buffer, count);
        position_ += count;
        rememberBlock(d, last);
        return MP4_OK;
    }
}

// Later small reads inside the block that holds the end of the last read
// skip the lock, up to one byte before its end (the block after it might
// not be there yet, and the ">=" rule would wait for it) and never past the
// length the server named.
void CNetStorage::rememberBlock(const Download& d, size_t index) {
    currentBlock_ = d.blocks[index];
    currentBase_ = d.startOffset + (static_cast<uint64_t>(index) << net::kBlockShift);
    currentEnd_ = currentBase_ + net::kBlockSize - 1;
    const int64_t total = d.total.load();
    if (total >= 0) currentEnd_ = std::min<uint64_t>(currentEnd_, static_cast<uint64_t>(total));
}

MP4Err CNetStorage::readUInt8(uint8_t* value) {
    if (value == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *value = 0;
    if (copyFromCurrentBlock(value, 1)) return MP4_OK;
    return waitAndCopy(value, 1);
}

// Multi-byte values inside the current block are copied at once; any
// other goes byte by byte, as the storage interface composes them (a
// failure then keeps the bytes and the position already consumed).
template <class T>
MP4Err CNetStorage::readWide(T* value, int width) {
    if (value == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    uint8_t bytes[8];
    if (!copyFromCurrentBlock(bytes, static_cast<uint32_t>(width))) {
        *value = 0;
        for (int i = 0; i < width; ++i) {
            uint8_t byte = 0;
            MP4Err err = readUInt8(&byte);
            if (err != MP4_OK) return err;
            *value = static_cast<T>((*value << 8) | byte);
        }
        return MP4_OK;
    }
    T result = 0;
    for (int i = 0; i < width; ++i) result = static_cast<T>((result << 8) | bytes[i]);
    *value = result;
    return MP4_OK;
}

MP4Err CNetStorage::readUInt64(uint64_t* value) { return readWide(value, 8); }
MP4Err CNetStorage::readUInt32(uint32_t* value) { return readWide(value, 4); }
MP4Err CNetStorage::readUInt24(uint32_t* value) { return readWide(value, 3); }
MP4Err CNetStorage::readUInt16(uint16_t* value) { return readWide(value, 2); }

// A count of 0 still waits for its position to be cached, like any read.
MP4Err CNetStorage::readBlock(void* buffer, uint32_t count) {
    if (buffer == nullptr && count != 0) return MP4_ERR_INVALID_ARGUMENT;
    uint8_t* bytes = static_cast<uint8_t*>(buffer);
    if (copyFromCurrentBlock(bytes, count)) return MP4_OK;
    return waitAndCopy(bytes, count);
}

MP4Err CNetStorage::skip(uint64_t count) {
    position_ += count;
    return MP4_OK;
}

MP4Err CNetStorage::writeUInt8(uint8_t) { return MP4_OK; }

}  // namespace quil
