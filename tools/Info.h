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
    void writeString(const std::string& s) {
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
