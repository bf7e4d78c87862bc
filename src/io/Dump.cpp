#include "Dump.h"

#include <cstdarg>
#include <cstdio>

namespace quil {
namespace {

constexpr uint64_t kLeapYearSeconds = 31622400;
constexpr uint64_t kYearSeconds = 31536000;
constexpr uint64_t kDaySeconds = 86400;
constexpr uint32_t kFirstInvalidYear = 2200;

bool isGregorianLeap(uint32_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

uint32_t daysInMonth(uint32_t month, bool leap) {
    switch (month) {
        case 4: case 6: case 9: case 11: return 30;
        case 2: return leap ? 29 : 28;
        default: return 31;
    }
}

}  // namespace

void printIndent(int32_t depth) {
    for (int32_t i = 0; i < depth; ++i) fputs("  ", stdout);
}

void dumpLine(int32_t depth, const char* format, ...) {
    printIndent(depth);
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}

bool secondsToDate(uint64_t seconds, uint32_t* year, uint32_t* month, uint32_t* day,
                   uint32_t* hour, uint32_t* minute, uint32_t* second) {
    uint32_t y = 1904;
    for (;; ++y) {
        if (y >= kFirstInvalidYear) return false;
        uint64_t length = isGregorianLeap(y) ? kLeapYearSeconds : kYearSeconds;
        if (seconds < length) break;
        seconds -= length;
    }
    uint32_t m = 1;
    for (; m < 12; ++m) {
        uint64_t length = daysInMonth(m, isGregorianLeap(y)) * kDaySeconds;
        if (seconds < length) break;
        seconds -= length;
    }
    *year = y;
    *month = m;
    *day = static_cast<uint32_t>(seconds / kDaySeconds) + 1;
    uint32_t rest = static_cast<uint32_t>(seconds % kDaySeconds);
    *hour = rest / 3600;
    *minute = rest % 3600 / 60;
    *second = rest % 60;
    return true;
}

MP4Err dateToSeconds(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                     uint32_t minute, uint32_t second, uint64_t* seconds) {
    // Years before the epoch and a zeroth month or day have no value in
    // seconds since 1904 either: refused like the other out-of-range fields.
    if (year > kFirstInvalidYear || year < 1904 || month > 12 || month == 0 || day > 31 ||
        day == 0 || hour > 23 || minute > 59 || second > 59) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    // Deliberately the simple rule here: every fourth year is a leap year.
    bool leap = year % 4 == 0;
    uint64_t total = 0;
    for (uint32_t y = 1904; y < year; ++y) total += (y % 4 == 0) ? kLeapYearSeconds : kYearSeconds;
    for (uint32_t m = 1; m < month; ++m) total += daysInMonth(m, leap) * kDaySeconds;
    total += static_cast<uint64_t>(day - 1) * kDaySeconds + hour * 3600u + minute * 60u + second;
    *seconds = total;
    return MP4_OK;
}

void dumpTimeLine(int32_t depth, const char* label, uint64_t seconds) {
    uint32_t y, mo, d, h, mi, s;
    if (secondsToDate(seconds, &y, &mo, &d, &h, &mi, &s)) {
        dumpLine(depth, "%s Time = %04d/%02d/%02d %02d:%02d:%02d (%" PRIu64 ")\n", label,
                 static_cast<int32_t>(y), static_cast<int32_t>(mo), static_cast<int32_t>(d),
                 static_cast<int32_t>(h), static_cast<int32_t>(mi), static_cast<int32_t>(s),
                 seconds);
    } else {
        dumpLine(depth, "%s Time = %" PRIu64 " (invalid data)\n", label, seconds);
    }
}

}  // namespace quil
