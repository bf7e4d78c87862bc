#include "Base64.h"

#include <memory>
#include <new>

namespace quil {
namespace base64 {
namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Alphabet value of a character, or 64 for anything outside the alphabet
// (padding included).
uint32_t valueOf(char c) {
    if (c >= 'A' && c <= 'Z') return static_cast<uint32_t>(c - 'A');
    if (c >= 'a' && c <= 'z') return static_cast<uint32_t>(c - 'a') + 26;
    if (c >= '0' && c <= '9') return static_cast<uint32_t>(c - '0') + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return 64;
}

}  // namespace

MP4Err encode(const uint8_t* data, uint32_t length, char** text, uint32_t* textLength) {
    if (text == nullptr || textLength == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    *text = nullptr;
    *textLength = 0;
    if (data == nullptr && length > 0) return MP4_ERR_INVALID_ARGUMENT;

    // The text must fit the 32-bit length it is reported with (inputs of
    // about 3 GiB and more do not).
    const uint64_t groups = (static_cast<uint64_t>(length) + 2) / 3;
    if (groups * 4 > UINT32_MAX) return MP4_ERR_INVALID_ARGUMENT;

    const uint64_t capacity = (static_cast<uint64_t>(length) * 4 + 8) / 3 + 1;
    char* out = new (std::nothrow) char[capacity];
    if (out == nullptr) return MP4_ERR_OUT_OF_MEMORY;

    uint64_t o = 0;
    uint32_t i = 0;
    for (; length - i >= 3; i += 3) {
        const uint32_t bits = static_cast<uint32_t>(data[i]) << 16 |
                              static_cast<uint32_t>(data[i + 1]) << 8 | data[i + 2];
        out[o++] = kAlphabet[(bits >> 18) & 0x3F];
        out[o++] = kAlphabet[(bits >> 12) & 0x3F];
        out[o++] = kAlphabet[(bits >> 6) & 0x3F];
        out[o++] = kAlphabet[bits & 0x3F];
    }
    const uint32_t left = length - i;
    if (left == 1) {
        out[o++] = kAlphabet[data[i] >> 2];
        out[o++] = kAlphabet[(data[i] & 0x03) << 4];
        out[o++] = '=';
        out[o++] = '=';
    } else if (left == 2) {
        out[o++] = kAlphabet[data[i] >> 2];
        out[o++] = kAlphabet[((data[i] & 0x03) << 4) | (data[i + 1] >> 4)];
        out[o++] = kAlphabet[(data[i + 1] & 0x0F) << 2];
        out[o++] = '=';
    }
    out[o] = '\0';
    *text = out;
    *textLength = static_cast<uint32_t>(o);
    return MP4_OK;
}

MP4Err decode(const char* text, int32_t length, uint8_t** data, uint32_t* dataLength) {
    if (text == nullptr || data == nullptr || dataLength == nullptr) {
        return MP4_ERR_INVALID_ARGUMENT;
    }
    *data = nullptr;
    *dataLength = 0;
    if (length < 0) return MP4_ERR_INVALID_ARGUMENT;

    // Every trailing "=" goes, however many there are.
    uint32_t n = static_cast<uint32_t>(length);
    while (n > 0 && text[n - 1] == '=') --n;

    // One byte more than the decoded data needs: the reported length counts
    // it (see below). Value-initialised, so the spare byte reads as 0.
    std::unique_ptr<uint8_t[]> out(new (std::nothrow) uint8_t[static_cast<uint64_t>(n) * 3 / 4 + 1]());
    if (!out) return MP4_ERR_OUT_OF_MEMORY;

    // Full groups. A character outside the alphabet is deliberately not
    // reported here: it enters the arithmetic as 64, as it always has.
    const uint32_t groups = n / 4;
    for (uint32_t g = 0; g < groups; ++g) {
        const char* in = text + g * 4;
        const uint32_t a = valueOf(in[0]), b = valueOf(in[1]);
        const uint32_t c = valueOf(in[2]), d = valueOf(in[3]);
        out[g * 3] = static_cast<uint8_t>(a << 2 | b >> 4);
        out[g * 3 + 1] = static_cast<uint8_t>(b << 4 | c >> 2);
        out[g * 3 + 2] = static_cast<uint8_t>(c << 6 | d);
    }

    // The 0 to 3 characters after the last full group, up to an "=".
    uint32_t tail[3] = {0, 0, 0};
    uint32_t tailCount = 0;
    for (uint32_t i = groups * 4; i < n && text[i] != '='; ++i) {
        const uint32_t v = valueOf(text[i]);
        if (v == 64) return MP4_ERR_UNSUPPORTED;
        tail[tailCount++] = v;
    }

    const uint32_t k = groups * 3;
    if (tailCount >= 1) out[k] = static_cast<uint8_t>(tail[0] << 2);
    if (tailCount >= 2) {
        out[k] = static_cast<uint8_t>(out[k] | tail[1] >> 4);
        out[k + 1] = static_cast<uint8_t>(tail[1] << 4);
    }
    if (tailCount == 3) {
        out[k + 1] = static_cast<uint8_t>(out[k + 1] | tail[2] >> 2);
        out[k + 2] = static_cast<uint8_t>(tail[2] << 6);
    }

    // Deliberately one byte longer than the standard decoded length: the
    // trailing partial byte (or, with no remainder, the spare byte) is
    // counted. Callers parse from the front and ignore the last byte.
    *dataLength = tailCount == 0 ? k + 1 : k + tailCount;
    *data = out.release();
    return MP4_OK;
}

}  // namespace base64
}  // namespace quil
