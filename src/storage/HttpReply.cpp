#include "HttpReply.h"

#include <strings.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quil {
namespace net {
namespace {

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

// A weak ETag may not be used with If-Range (RFC 9110 §13.1.5).
std::string validatorOf(const Reply& reply) {
    return !reply.etag.empty() && reply.etag.compare(0, 2, "W/") != 0 ? reply.etag
                                                                       : reply.lastModified;
}

}  // namespace

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

void parseHeaderLine(Reply* reply, const std::string& line) {
    if (startsWithNoCase(line, "HTTP/")) {
        *reply = Reply();
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

bool isIntermediate(const Reply& reply) {
    return (reply.status >= 100 && reply.status < 200) ||
           (reply.status >= 300 && reply.status < 400 && reply.hasLocation);
}

Verdict judgeReply(const Reply& reply, uint64_t start, bool allowWholeBody,
                   ResourceIdentity* identity, int64_t* total) {
    Verdict verdict = Verdict::Refused;
    int64_t length = -1;
    if (reply.status == 206 && reply.hasRange && reply.rangeFirst == start) {
        verdict = Verdict::Ranged;
        length = reply.rangeTotal;
    } else if (reply.status == 200 && allowWholeBody) {
        verdict = Verdict::WholeBody;
        length = reply.contentLength;
    }
    if (verdict == Verdict::Refused) return verdict;
    const std::string validator = validatorOf(reply);
    if (!identity->known) {
        identity->known = true;
        identity->total = length;
        identity->validator = validator;
    } else if (identity->total != length ||
               (!identity->validator.empty() && !validator.empty() &&
                identity->validator != validator)) {
        return Verdict::Refused;  // the file changed between requests
    }
    *total = length;
    return verdict;
}

std::string refusalText(const Reply& reply, uint64_t start) {
    char text[128];
    if (reply.status == 0) {
        std::snprintf(text, sizeof text, "no HTTP reply");
    } else if (reply.status == 206 && reply.hasRange && reply.rangeFirst == start) {
        std::snprintf(text, sizeof text, "the file changed on the server between requests");
    } else if (reply.status == 206) {
        std::snprintf(text, sizeof text,
                      "server did not send the requested range (from %" PRIu64 ")", start);
    } else if (reply.status == 200) {
        std::snprintf(text, sizeof text, "HTTP status 200: the server ignores ranges");
    } else {
        std::snprintf(text, sizeof text, "HTTP status %ld", reply.status);
    }
    return text;
}

}  // namespace net
}  // namespace quil
