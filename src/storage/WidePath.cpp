#include "WidePath.h"

#include <cstdint>
#include <utility>

namespace quil {
namespace {

// Unicode scalar values: U+0000..U+10FFFF without the surrogate range.
bool isScalarValue(uint32_t code) {
    return code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

void appendUtf8(uint32_t code, std::string* out) {
    if (code < 0x80) {
        out->push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (code >> 6)));
        out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (code >> 12)));
        out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (code >> 18)));
        out->push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

// Decodes one UTF-8 sequence starting at *p (which is not the terminator)
// and advances *p past it. Rejects overlong forms, surrogates, values above
// U+10FFFF, stray continuation bytes and sequences cut short.
bool decodeUtf8(const unsigned char** p, uint32_t* code) {
    const unsigned char* s = *p;
    unsigned char lead = s[0];
    int extra;
    uint32_t value;
    uint32_t minimum;
    if (lead < 0x80) {
        extra = 0; value = lead; minimum = 0;
    } else if ((lead & 0xE0) == 0xC0) {
        extra = 1; value = lead & 0x1F; minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2; value = lead & 0x0F; minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3; value = lead & 0x07; minimum = 0x10000;
    } else {
        return false;
    }
    for (int i = 1; i <= extra; ++i) {
        // A terminator here fails the continuation test, so we never read
        // past the end of the string.
        if ((s[i] & 0xC0) != 0x80) return false;
        value = (value << 6) | (s[i] & 0x3F);
    }
    if (value < minimum || !isScalarValue(value)) return false;
    *code = value;
    *p = s + 1 + extra;
    return true;
}

}  // namespace

MP4Err widePathToUtf8(const wchar_t* path, std::string* utf8) {
    if (path == nullptr || utf8 == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    utf8->clear();
    std::string converted;
    for (const wchar_t* p = path; *p != L'\0'; ++p) {
        // wchar_t is a signed 32-bit type here; negative units become huge
        // values and fail the scalar test.
        uint32_t code = static_cast<uint32_t>(*p);
        if (!isScalarValue(code)) return MP4_ERR_IO;
        appendUtf8(code, &converted);
    }
    *utf8 = std::move(converted);
    return MP4_OK;
}

MP4Err utf8ToWidePath(const char* utf8, std::wstring* path) {
    if (utf8 == nullptr || path == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    path->clear();
    std::wstring converted;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(utf8);
    while (*p != 0) {
        uint32_t code = 0;
        if (!decodeUtf8(&p, &code)) return MP4_ERR_INVALID_ARGUMENT;
        converted.push_back(static_cast<wchar_t>(code));
    }
    *path = std::move(converted);
    return MP4_OK;
}

}  // namespace quil
