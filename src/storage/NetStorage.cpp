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

#include "HttpReply.h"
#include "WidePath.h"
#include "quil/NetSettings.h"

// How the cache works
// - Each download is one GET from a start offset to the end of the
//   resource ("Range: bytes=N-") or to a limit ("bytes=N-M", see below),
//   run by a detached thread that appends the body to a list of
//   0x20000-byte blocks. The byte at offset o lies in
//   block (o - start) >> 17 at (o - start) & 0x1FFFF. A block is appended
//   only once it is full, so the arithmetic holds however libcurl splits the
//   body; the last, partial block is zero-filled when the body is complete
//   (a bounded request's last block ends with the request).
// - A read waits until the block holding its end has arrived. The test is
//   deliberately ">=": a read ending exactly at the end of the cached bytes
//   waits for one more block (or fails once the download has ended), except
//   at the limit of a bounded download, where none follows.
// - A seek moves only the position when it goes backwards within the
//   current download or forwards by at most 2,000,000 bytes; anything else
//   abandons the download and starts a new one at the new offset.
//
// What the reader cannot see, and why it is done:
// - Opening a file asks for its first kFirstWindow bytes; reads that run
//   on past a bounded download's end (a longer movie box) ask for windows
//   twice as long, then to the end. An open-ended download pauses while it
//   is more than kAheadBlocks ahead of the reader, so it never transfers
//   the whole resource unasked. Blocks more than kBehindBlocks behind the reader are
//   freed, so memory stays bounded on long files. A read that needs freed
//   bytes, or bytes of a download that lost its connection after making
//   progress, quietly starts a new request at its own position.
// - A reply is used only when it is a 206 whose Content-Range starts at the
//   requested offset and names the same resource as the first reply (same
//   total length; If-Range with its validator), or, when the settings allow
//   it, a 200 with the whole body, whose bytes before the offset are then
//   dropped as they arrive. Anything else ends the download, so reads fail
//   with MP4_ERR_IO instead of returning other bytes (HttpReply.h decides).
// - Reads past the total length named by the server fail at once; a reply
//   that brings more than was asked for is cut at the limit.
//
// Sample reads (readAt) say where the caller may read next, the end of the
// sample's chunk. One track of an interleaved file is read in chunks
// separated by the other tracks' bytes: a read that jumps more than
// kBridge past the end of the previous one asks for just [read, chunk end)
// ("Range: bytes=N-M"), so the other tracks' bytes are not transferred.
// Reads that run on from the previous one (gaps of at most kBridge) keep
// an open-ended download, or start one after kStreak bounded requests in a
// row: reading every track in file order streams as before. The libcurl
// handle of a request that completed is kept for the next one, which then
// reuses its connection. A server that ignores ranges would send the whole
// body for every request: there sample reads seek and read as any other.

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
constexpr uint64_t kOpenEnded = UINT64_MAX;  // a download's limit when it runs to the end
constexpr uint64_t kBridge = 64u << 10;      // gaps read through rather than skipped
constexpr uint32_t kStreak = 2;              // bounded requests in a row before streaming
constexpr uint64_t kFirstWindow = 256u << 10;  // the request at open

using Clock = std::chrono::steady_clock;
using Block = std::shared_ptr<const uint8_t[]>;

// ---- settings -----------------------------------------------------------

std::mutex& settingsLock() {
    static std::mutex lock;
    return lock;
}

Mp4NetSettings& settingsValue() {
    static Mp4NetSettings settings{10000, 20000, stdout, 0, nullptr, 0};
    return settings;
}

// The settings' copy of the CA file name, which caFile points into.
std::string& caFileValue() {
    static std::string name;
    return name;
}

// Why the last refused or lost request failed, for Mp4GetLastNetError.
std::mutex& lastErrorLock() {
    static std::mutex lock;
    return lock;
}

std::string& lastErrorValue() {
    static std::string text;
    return text;
}

void setLastError(const std::string& text) {
    std::lock_guard<std::mutex> guard(lastErrorLock());
    lastErrorValue() = text;
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
    ~Resource() {
        if (spare != nullptr) curl_easy_cleanup(spare);
    }

    // The handle of the last request that completed, with its connection;
    // null when there is none. Each request runs on one thread at a time.
    CURL* takeHandle() {
        CURL* handle = nullptr;
        {
            std::lock_guard<std::mutex> guard(lock);
            std::swap(handle, spare);
        }
        if (handle == nullptr) return curl_easy_init();
        curl_easy_reset(handle);  // the options go, the connection stays
        return handle;
    }
    // Null drops the kept handle.
    void keepHandle(CURL* handle) {
        if (handle != nullptr) curl_easy_reset(handle);  // keeps no pointer into a finished request
        {
            std::lock_guard<std::mutex> guard(lock);
            std::swap(handle, spare);
        }
        if (handle != nullptr) curl_easy_cleanup(handle);
    }

    std::mutex lock;  // guards identity, wholeBodyNoted and spare
    ResourceIdentity identity;
    bool wholeBodyNoted = false;  // "server ignores ranges" was printed
    std::atomic<bool> ignoresRanges{false};
    std::atomic<bool> answered{false};  // a reply was accepted
    CURL* spare = nullptr;
};

enum class End { Running, Complete, Stopped, Dropped, Refused };

struct Download {
    Download(std::string url, uint64_t start, uint64_t limit, std::shared_ptr<Resource> resource,
             Mp4NetSettings settings)
        : url(std::move(url)),
          startOffset(start),
          limit(limit),
          resource(std::move(resource)),
          settings(settings),
          caFile(settings.caFile ? settings.caFile : "") {}

    const std::string url;
    const uint64_t startOffset;  // 64-bit: files past 4 GiB read by range
    // End of the bytes asked for (exclusive); kOpenEnded for "bytes=N-".
    // A whole body in reply is cut to the same bytes.
    const uint64_t limit;
    const std::shared_ptr<Resource> resource;
    const Mp4NetSettings settings;
    const std::string caFile;  // settings.caFile may change under a running download

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
    uint32_t fillingSize = kBlockSize;  // less for the last block of a bounded request
    uint32_t filled = 0;
    uint64_t received = 0;
    bool accepted = false;
    uint64_t toSkip = 0;                   // body bytes before the start offset (a whole body)
    bool gotAll = false;                   // a bounded request's bytes are all here
    char curlError[CURL_ERROR_SIZE] = "";  // libcurl's line on a failed transfer
    Clock::time_point lastData = Clock::now();
    Reply reply;

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

// The reply may be used (HttpReply.h); the resource's identity is shared
// by every request of one storage.
bool acceptReply(Download* d) {
    Resource& resource = *d->resource;
    std::lock_guard<std::mutex> guard(resource.lock);
    int64_t total = -1;
    const Verdict verdict = judgeReply(d->reply, d->startOffset, d->settings.acceptWholeBody != 0,
                                       &resource.identity, &total);
    if (verdict == Verdict::Refused) {
        setLastError(refusalText(d->reply, d->startOffset));
        return false;
    }
    if (verdict == Verdict::WholeBody) {
        d->toSkip = d->startOffset;
        resource.ignoresRanges.store(true);
        if (!resource.wholeBodyNoted) {
            resource.wholeBodyNoted = true;
            d->print("server ignores ranges: reading from the start\n");
        }
    }
    d->total.store(total);
    resource.answered.store(true);
    return true;
}

// End of one reply's headers: redirects and interim replies are passed by;
// the final one prints its length and is accepted or refused.
bool onHeadersComplete(Download* d) {
    if (isIntermediate(d->reply)) return true;
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
    // A whole body: what lies before the requested offset is dropped.
    size_t used = static_cast<size_t>(std::min<uint64_t>(d->toSkip, bytes));
    d->toSkip -= used;
    // A server that sends more than was asked for: the rest is not taken.
    const uint64_t wanted = d->limit - d->startOffset - d->received;
    const size_t end = used + static_cast<size_t>(std::min<uint64_t>(bytes - used, wanted));
    while (used < end) {
        if (!d->filling) {
            // No read goes past a bounded request's end: its last block
            // holds only what lies before it.
            const uint64_t rest = d->limit - d->startOffset - d->received;
            d->fillingSize = static_cast<uint32_t>(std::min<uint64_t>(kBlockSize, rest));
            d->filling.reset(new (std::nothrow) uint8_t[d->fillingSize]);
            if (!d->filling) return 0;
        }
        const size_t piece = std::min<size_t>(end - used, d->fillingSize - d->filled);
        std::memcpy(d->filling.get() + d->filled, data + used, piece);
        d->filled += static_cast<uint32_t>(piece);
        d->received += piece;
        used += piece;
        if (d->filled == d->fillingSize) {
            appendBlock(d);
            if (!waitForReader(d)) return 0;
        }
    }
    if (end == bytes) return bytes;
    d->gotAll = true;
    return 0;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Download* d = static_cast<Download*>(user);
    if (d->stop.load()) return 1;
    const auto stalled = std::chrono::milliseconds(d->settings.stallTimeoutMs);
    return Clock::now() - d->lastData > stalled ? 1 : 0;
}

// ---- the request ------------------------------------------------------------

// TLS exactly when the port is 443, whatever the scheme says: the URL is
// rewritten to "https" for port 443 and to "http" otherwise; or, when the
// settings say so, as the scheme says.
bool requestUrl(const std::string& url, bool byScheme, std::string* out) {
    if (byScheme) {
        *out = url;
        return true;
    }
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
    char range[64];
    const uint64_t limit = d.limit;
    if (limit == kOpenEnded) {
        std::snprintf(range, sizeof range, "Range: bytes=%" PRIu64 "-", d.startOffset);
    } else {
        std::snprintf(range, sizeof range, "Range: bytes=%" PRIu64 "-%" PRIu64, d.startOffset,
                      limit - 1);
    }
    curl_slist* headers = curl_slist_append(nullptr, range);
    std::string validator;
    {
        std::lock_guard<std::mutex> guard(d.resource->lock);
        validator = d.resource->identity.validator;
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
    if (!d->caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, d->caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, d->curlError);
}

// How the transfer ended, as the reader needs to know it.
End classify(Download* d, CURLcode result) {
    if (!d->accepted) return End::Refused;
    if (d->stop.load()) return End::Stopped;
    if (result != CURLE_OK && !d->gotAll) return End::Dropped;
    // A body that ends short of the named length (or of the bytes asked
    // for) lost its connection too; its partial block is not handed out as
    // if the rest were zeros.
    const int64_t total = d->total.load();
    const uint64_t expectedEnd =
        total >= 0 ? std::min(d->limit, static_cast<uint64_t>(total)) : kOpenEnded;
    if (expectedEnd != kOpenEnded && d->startOffset + d->received != expectedEnd) {
        return End::Dropped;
    }
    if (d->filled > 0) {
        std::memset(d->filling.get() + d->filled, 0, d->fillingSize - d->filled);
        appendBlock(d);
    }
    return End::Complete;
}

void runDownload(std::shared_ptr<Download> download) {
    Download* d = download.get();
    End how = End::Refused;
    std::string url;
    CURL* curl = requestUrl(d->url, d->settings.tlsByScheme != 0, &url) ? d->resource->takeHandle()
                                                                       : nullptr;
    curl_slist* headers = curl != nullptr ? requestHeaders(*d) : nullptr;
    if (headers != nullptr) {
        configure(curl, d, url, headers);
        const CURLcode result = curl_easy_perform(curl);
        how = classify(d, result);
        if (result != CURLE_OK && !d->stop.load() && (how == End::Dropped || !d->accepted) &&
            d->reply.status == 0) {
            // libcurl's own line names the host and the cause; its short
            // text stands in when it wrote none.
            setLastError(d->curlError[0] ? d->curlError : curl_easy_strerror(result));
        }
        if (how == End::Complete || how == End::Stopped) d->print("cache reading complete\n");
    }
    curl_slist_free_all(headers);
    if (curl != nullptr && how == End::Complete) {
        d->resource->keepHandle(curl);
    } else if (curl != nullptr) {
        curl_easy_cleanup(curl);
    }
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
    if (settings == nullptr || settings->connectTimeoutMs == 0 || settings->stallTimeoutMs == 0 ||
        settings->tlsByScheme > 1 || settings->acceptWholeBody > 1) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    std::lock_guard<std::mutex> guard(net::settingsLock());
    try {
        net::caFileValue() = settings->caFile ? settings->caFile : "";
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    net::settingsValue() = *settings;
    net::settingsValue().caFile = settings->caFile ? net::caFileValue().c_str() : nullptr;
    return MP4_OK;
}

MP4Err Mp4GetLastNetError(char* buffer, uint32_t size) {
    if (buffer == nullptr || size == 0) return MP4_ERR_INVALID_ARGUMENT;
    std::lock_guard<std::mutex> guard(net::lastErrorLock());
    const std::string& text = net::lastErrorValue();
    const size_t count = std::min<size_t>(text.size(), size - 1);
    std::memcpy(buffer, text.data(), count);
    buffer[count] = '\0';
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
    previousEnd_ = kUnknownEnd;
    streak_ = 0;
    startDownload(0, net::kFirstWindow);
    return MP4_OK;
}

MP4Err CNetStorage::close() {
    if (openForRead_ == 0 && openForWrite_ == 0) return MP4_ERR_NOT_AVAILABLE;
    openForRead_ = 0;
    openForWrite_ = 0;
    position_ = 0;
    std::shared_ptr<Download> last = download_;
    stopDownload();
    if (resource_) resource_->keepHandle(nullptr);  // its idle connection closes now
    // Give the thread a moment to leave libcurl, so that a process that
    // exits right after closing does not tear TLS down under it.
    if (last) {
        std::shared_lock<std::shared_mutex> guard(last->lock);
        last->changed.wait_for(guard, net::kCloseWait, [&] { return last->ended(); });
    }
    return MP4_OK;
}

void CNetStorage::startDownload(uint64_t offset, uint64_t limit) {
    stopDownload();
    std::string url;
    if (widePathToUtf8(url_.get(), &url) != MP4_OK) url.clear();  // refused by the thread
    net::initCurlOnce();
    download_ = std::make_shared<Download>(url, offset, limit, resource_, net::currentSettings());
    // A small bounded request is all the reader waits for: it runs here,
    // saving the start of a thread and two wake-ups per chunk. It never
    // pauses (less than the read-ahead), so it cannot wait for itself. The
    // first request of a file runs on a thread, so open does not wait.
    if (limit != net::kOpenEnded && limit - offset < net::kAheadBlocks * net::kBlockSize &&
        resource_->answered.load()) {
        net::runDownload(download_);
        return;
    }
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
    restartAt(position, net::kOpenEnded);
    return MP4_OK;
}

void CNetStorage::restartAt(uint64_t position, uint64_t limit) {
    const Mp4NetSettings settings = net::currentSettings();
    if (settings.progress != nullptr) {
        std::fprintf(settings.progress, "reseek %" PRIu64 " %" PRIu64 "\n", position, position_);
        std::fflush(settings.progress);
    }
    rangeStart_ = position;
    startDownload(position, limit);
    position_ = position;
}

// The box reader runs on past the end of a bounded request (the first
// one, at open, ends inside a long movie box): windows twice as long,
// then, from the read-ahead size on, open-ended. Anything else is
// open-ended, as after a seek.
uint64_t CNetStorage::nextLimit(const Download& d, uint32_t count) const {
    if (d.limit == net::kOpenEnded || position_ < d.startOffset ||
        position_ - d.startOffset > d.limit - d.startOffset + net::kBridge ||
        resource_->ignoresRanges.load()) {
        return net::kOpenEnded;
    }
    const uint64_t span = 2 * (d.limit - d.startOffset);
    if (span >= net::kAheadBlocks * net::kBlockSize || span < count) return net::kOpenEnded;
    return position_ + span;
}

// Whether the download brings [offset, offset + count) at no extra cost:
// a bounded one anywhere in its range, an open-ended one when the read runs
// on from the previous one.
bool CNetStorage::reaches(uint64_t offset, uint32_t count, bool runsOn) const {
    const Download& d = *download_;
    const uint64_t limit = d.limit;
    if (offset < d.startOffset || offset > limit || limit - offset < count) return false;
    return limit != net::kOpenEnded || runsOn;
}

MP4Err CNetStorage::readAt(uint64_t offset, uint8_t* buffer, uint32_t count,
                           uint64_t readAheadEnd) {
    const bool hinted = count != 0 && readAheadEnd >= offset && readAheadEnd - offset >= count;
    if (!hinted || !download_ || resource_->ignoresRanges.load()) {
        return CBaseStorage::readAt(offset, buffer, count, readAheadEnd);
    }
    const bool runsOn = previousEnd_ == kUnknownEnd ||
                        (offset >= previousEnd_ && offset - previousEnd_ <= net::kBridge);
    previousEnd_ = offset + count;
    if (!reaches(offset, count, runsOn)) {
        streak_ = runsOn ? streak_ + 1 : 0;
        restartAt(offset, streak_ >= net::kStreak ? net::kOpenEnded : readAheadEnd);
    }
    position_ = offset;
    return readBlock(buffer, count);
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

// The block a read ending at relative offset need waits for: by the ">="
// rule the one after its last byte, except at the end of a bounded request
// (relative end span), where no block follows.
size_t lastBlockNeeded(uint64_t need, uint64_t span) {
    if (need >= span && span != 0) return static_cast<size_t>((span - 1) >> kBlockShift);
    return static_cast<size_t>(need >> kBlockShift);
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
        const uint64_t limit = d.limit;
        // Before a quiet restart, or past the end of a bounded request
        // (reads without a read-ahead end): a new download from here.
        if (position_ < d.startOffset || position_ > limit || limit - position_ < count) {
            startDownload(position_, nextLimit(d, count));
            continue;
        }
        const uint64_t rel = position_ - d.startOffset;
        // Far past what the download holds: a skip over media data between
        // fragment headers. The bytes in between are not fetched; the
        // download restarts at the read (classic files read nothing after
        // their media data, so they never get here). A bounded request
        // brings all it was asked for.
        if (limit == net::kOpenEnded &&
            rel > net::cachedBytes(d) + static_cast<uint64_t>(net::kNearSeek)) {
            startDownload(position_, net::kOpenEnded);
            continue;
        }
        const uint64_t need = rel + count;
        if (net::pastTheEnd(d, need)) return MP4_ERR_IO;

        d.readerBlock.store(rel >> net::kBlockShift);
        d.readerNeed.store(need);
        d.changed.notify_all();  // the download may be waiting for the reader
        const size_t last = net::lastBlockNeeded(need, limit - d.startOffset);
        std::shared_lock<std::shared_mutex> guard(d.lock);
        const size_t first = static_cast<size_t>(rel >> net::kBlockShift);
        const net::Wait wait = net::waitForBlocks(d, guard, first, last);
        if (wait == net::Wait::Restart) {
            guard.unlock();
            startDownload(position_, limit);  // the rest of the same range
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
    currentEnd_ = std::min(currentEnd_, d.limit);  // zeros follow a bounded request's end
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
