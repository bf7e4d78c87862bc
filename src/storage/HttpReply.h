// The HTTP side of reading a resource by ranges, without the transfer:
// parsing a reply's header lines and deciding whether its body may be
// used for the bytes requested. Kept apart from libcurl so it can be
// tested on plain text.
#ifndef QUIL_STORAGE_HTTPREPLY_H
#define QUIL_STORAGE_HTTPREPLY_H

#include <cstdint>
#include <string>

namespace quil {
namespace net {

// What one reply's header lines said. A status line starts a new reply
// (redirects and interim replies come before the final one).
struct Reply {
    long status = 0;
    int64_t contentLength = -1;
    bool hasRange = false;
    uint64_t rangeFirst = 0;
    int64_t rangeTotal = -1;  // -1 for "*"
    std::string etag, lastModified;
    bool hasLocation = false;
};

// Takes one header line (with or without its CR LF).
void parseHeaderLine(Reply* reply, const std::string& line);

// "bytes FIRST-LAST/TOTAL" or "bytes FIRST-LAST/*" (RFC 9110 §14.4).
bool parseContentRange(const std::string& value, uint64_t* first, int64_t* total);

// True for a reply that only leads to the final one: 1xx, or a redirect
// with a Location.
bool isIntermediate(const Reply& reply);

// What the first accepted reply said about the resource; later replies
// must name the same one.
struct ResourceIdentity {
    bool known = false;
    int64_t total = -1;     // -1 when unknown
    std::string validator;  // strong ETag, else Last-Modified, else empty
};

enum class Verdict {
    Ranged,     // 206 from the requested offset: the body starts there
    WholeBody,  // 200 with the whole resource: skip to the offset first
    Refused,    // not usable (status, start, or another resource)
};

// Judges a final reply to "Range: bytes=start-"; a whole body is used only
// when allowed. On acceptance *total is the resource length (-1 unknown)
// and a first identity is recorded in *identity.
Verdict judgeReply(const Reply& reply, uint64_t start, bool allowWholeBody,
                   ResourceIdentity* identity, int64_t* total);

// One line on why a reply was refused ("HTTP status 404", ...).
std::string refusalText(const Reply& reply, uint64_t start);

}  // namespace net
}  // namespace quil

#endif
