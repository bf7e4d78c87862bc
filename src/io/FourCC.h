// Four-character codes as text: the characters of a code for dump lines.
// (Turning text into a code is fourcc() of the public MP4Types.h.)
#ifndef QUIL_IO_FOURCC_H
#define QUIL_IO_FOURCC_H

#include <cstdint>

namespace quil {

// The index-th character (0 to 3, first is the most significant byte).
inline char codeChar(uint32_t code, int index) {
    return static_cast<char>((code >> (24 - 8 * index)) & 0xFF);
}

// The same, with a character that does not print shown as '.'.
inline char shownCodeChar(uint32_t code, int index) {
    const char c = codeChar(code, index);
    return c >= 0x20 && c < 0x7F ? c : '.';
}

// Whether every byte of the code prints (none below 0x20), so that the dump
// can show it as text rather than as a number.
inline bool isPrintableCode(uint32_t code) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        if (((code >> shift) & 0xFF) < 0x20) return false;
    }
    return true;
}

}  // namespace quil

#endif
