// Text dump helpers shared by every box, descriptor and record, and the
// 1904-epoch date conversions.
#ifndef QUIL_IO_DUMP_H
#define QUIL_IO_DUMP_H

#include <cinttypes>
#include <cstdint>

#include "quil/MP4Err.h"

namespace quil {

// Prints "  " depth times (nothing for depth <= 0) to standard output.
void printIndent(int32_t depth);
// Prints the indentation, then the formatted text.
void dumpLine(int32_t depth, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Seconds since 1904-01-01 00:00:00 to calendar fields. Leap years follow
// the Gregorian rule. Returns false when the year reaches 2200 (invalid).
bool secondsToDate(uint64_t seconds, uint32_t* year, uint32_t* month, uint32_t* day,
                   uint32_t* hour, uint32_t* minute, uint32_t* second);
// Calendar fields to seconds since 1904. Every year divisible by 4 is a
// leap year here (no 100/400 rule, unlike secondsToDate). 2 when a field is
// out of range (year above 2200, month above 12, day above 31, hour above
// 23, minute or second above 59).
MP4Err dateToSeconds(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                     uint32_t minute, uint32_t second, uint64_t* seconds);
// "<label> Time = YYYY/MM/DD hh:mm:ss (raw)\n" or "<label> Time = raw
// (invalid data)\n", after the indentation. label is "Creation" or
// "Modification".
void dumpTimeLine(int32_t depth, const char* label, uint64_t seconds);

}  // namespace quil

#endif
