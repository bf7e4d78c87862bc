// The quil tool's file handling, the "info" report and the small JSON
// writer it prints with.
#ifndef QUIL_TOOLS_INFO_H
#define QUIL_TOOLS_INFO_H

#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "quil/quil.h"

namespace quil {
namespace tool {

// A file object opened for reading from a UTF-8 path; closed and destroyed
// when it goes out of scope.
class OpenedFile {
public:
    OpenedFile() = default;
    ~OpenedFile();
    OpenedFile(const OpenedFile&) = delete;
    OpenedFile& operator=(const OpenedFile&) = delete;

    MP4Err open(const char* utf8Path);
    CMp4File* get() const { return file_; }

private:
    CMp4File* file_ = nullptr;
};

// A track handed back to its file when it goes out of scope.
class TrackHandle {
public:
    TrackHandle(CMp4File* file, CMp4Track* track) : file_(file), track_(track) {}
    ~TrackHandle() {
        if (track_ != nullptr) (void)file_->releaseTrack(track_);
    }
    TrackHandle(const TrackHandle&) = delete;
    TrackHandle& operator=(const TrackHandle&) = delete;
    CMp4Track* operator->() const { return track_; }
    CMp4Track* get() const { return track_; }

private:
    CMp4File* file_;
    CMp4Track* track_;
};

// Prints "quil: <what>: <error text>" on stderr.
void reportError(const char* what, MP4Err err);

// Opens an input file for reading; on failure prints one line saying why
// (the system's reason, the HTTP status or connection error, "truncated",
// "not an MP4 file") and returns kExitFailure, else 0.
int openOrReport(OpenedFile* file, const char* path);

// The reason openOrReport gives for a failed open, "" when none is known.
std::string openFailureReason(const char* path, MP4Err err);

// "avc1", or "0x6D730011" when a byte is not printable ASCII.
inline std::string fourccText(uint32_t code) {
    char text[16];
    bool printable = true;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned c = (code >> shift) & 0xFF;
        if (c < 0x20 || c > 0x7E) printable = false;
    }
    if (printable) {
        std::snprintf(text, sizeof text, "%c%c%c%c", static_cast<char>(code >> 24),
                      static_cast<char>(code >> 16), static_cast<char>(code >> 8),
                      static_cast<char>(code));
    } else {
        std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
    }
    return text;
}

// The file type of a read file as the tool names and writes it: the
// library's type, except that "qt  " files are QuickTime (type 12), which
// the library never detects.
uint32_t inputFileType(CMp4File* file);

// The "info" command: prints the report of an opened file as text or as one
// JSON document. Returns the process exit code.
int printInfo(const char* path, CMp4File* file, bool json);
// The JSON document "info --json" prints, without its final line break.
std::string infoJson(const char* path, CMp4File* file);
// The JSON document "info --json" prints, without its final line break.
std::string infoJson(const char* path, CMp4File* file);

// Names of a track kind (MP4TrackType) and of a codec number
// (CMp4Track::getCodecType): "video", "H.264/AVC"; "unknown" otherwise.
const char* trackKindName(uint32_t kind);
const char* codecName(uint32_t codec);

// Text from a file as valid UTF-8: valid UTF-8 stays as it is; anything
// else is taken as Mac Roman (the legacy encoding of QuickTime text), so
// that every byte maps to a character and no output carries a stray byte.
std::string validUtf8(const std::string& text);

namespace text {

// Length of the valid UTF-8 sequence at text[i], 0 when there is none.
inline size_t utf8SequenceAt(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char c = byte(i);
    if (c < 0x80) return 1;
    size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
    if (n == 0 || i + n > text.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
    }
    // Overlong forms, surrogates and values beyond U+10FFFF.
    if (n == 3 && ((c == 0xE0 && byte(i + 1) < 0xA0) || (c == 0xED && byte(i + 1) >= 0xA0))) return 0;
    if (n == 4 && ((c == 0xF0 && byte(i + 1) < 0x90) || (c == 0xF4 && byte(i + 1) >= 0x90))) return 0;
    return n;
}

inline void appendUtf8(uint32_t c, std::string* out) {
    if (c < 0x80) {
        *out += static_cast<char>(c);
    } else if (c < 0x800) {
        *out += static_cast<char>(0xC0 | (c >> 6));
        *out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        *out += static_cast<char>(0xE0 | (c >> 12));
        *out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Mac Roman 0x80..0xFF as Unicode.
constexpr uint16_t kMacRoman[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4,
    0x00E3, 0x00E5, 0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF,
    0x00F1, 0x00F3, 0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020,
    0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6, 0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4,
    0x00A8, 0x2260, 0x00C6, 0x00D8, 0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202,
    0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF, 0x00A1,
    0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB, 0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3,
    0x00D5, 0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA,
    0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02, 0x2021, 0x00B7, 0x201A,
    0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1, 0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC,
    0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC, 0x00AF,
    0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};

}  // namespace text

inline std::string validUtf8(const std::string& text) {
    size_t i = 0;
    while (i < text.size()) {
        const size_t n = text::utf8SequenceAt(text, i);
        if (n == 0) break;
        i += n;
    }
    if (i == text.size()) return text;
    std::string out;
    for (unsigned char c : text) {
        text::appendUtf8(c < 0x80 ? c : text::kMacRoman[c - 0x80], &out);
    }
    return out;
}

// Minimal JSON writer: objects, arrays, strings (escaped), integers, reals
// and booleans, indented by two spaces. The caller keeps the nesting right.
class JsonWriter {
public:
    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }

    void key(const std::string& name) {
        separate();
        writeString(name);
        text_ += ": ";
        afterKey_ = true;
    }
    void value(const std::string& text) {
        separate();
        writeString(text);
    }
    void value(const char* text) { value(std::string(text)); }
    void value(uint64_t number) {
        separate();
        char buffer[24];
        std::snprintf(buffer, sizeof buffer, "%" PRIu64, number);
        text_ += buffer;
    }
    void value(int64_t number) {
        separate();
        char buffer[24];
        std::snprintf(buffer, sizeof buffer, "%" PRId64, number);
        text_ += buffer;
    }
    void value(double number) {
        separate();
        // JSON has no NaN or infinity.
        if (!std::isfinite(number)) {
            text_ += "null";
            return;
        }
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%.15g", number);
        text_ += buffer;
    }
    void value(bool flag) {
        separate();
        text_ += flag ? "true" : "false";
    }

    const std::string& text() const { return text_; }

private:
    void open(char bracket) {
        separate();
        text_ += bracket;
        hasMembers_.push_back(false);
    }
    void close(char bracket) {
        const bool hadMembers = !hasMembers_.empty() && hasMembers_.back();
        if (!hasMembers_.empty()) hasMembers_.pop_back();
        if (hadMembers) newline();
        text_ += bracket;
    }
    // A comma between members, a line break and the indentation, except
    // right after a key.
    void separate() {
        if (afterKey_) {
            afterKey_ = false;
            return;
        }
        if (hasMembers_.empty()) return;
        if (hasMembers_.back()) text_ += ',';
        hasMembers_.back() = true;
        newline();
    }
    void newline() {
        text_ += '\n';
        text_.append(2 * hasMembers_.size(), ' ');
    }
    void writeString(const std::string& raw) {
        const std::string s = validUtf8(raw);
        text_ += '"';
        for (unsigned char c : s) {
            switch (c) {
                case '"': text_ += "\\\""; break;
                case '\\': text_ += "\\\\"; break;
                case '\b': text_ += "\\b"; break;
                case '\f': text_ += "\\f"; break;
                case '\n': text_ += "\\n"; break;
                case '\r': text_ += "\\r"; break;
                case '\t': text_ += "\\t"; break;
                default:
                    if (c < 0x20) {
                        char escape[8];
                        std::snprintf(escape, sizeof escape, "\\u%04x", c);
                        text_ += escape;
                    } else {
                        text_ += static_cast<char>(c);  // UTF-8 passes through
                    }
            }
        }
        text_ += '"';
    }

    std::string text_;
    std::vector<bool> hasMembers_;  // one per open object or array
    bool afterKey_ = false;
};

}  // namespace tool
}  // namespace quil

#endif
