// The "info" report of a file: ordered, typed fields per section (the
// file, then each track), collected through the public interface. The
// printers (text and JSON) live in Info.cpp.
#ifndef QUIL_TOOLS_REPORT_H
#define QUIL_TOOLS_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "quil/quil.h"
#include "Format.h"

namespace quil {
namespace tool {

// Report model: ordered fields per section, rendered by either printer.

struct Field {
    enum class Kind { Unsigned, Signed, Real, Text, Flag };
    std::string key;    // JSON member name
    std::string label;  // text label
    Kind kind = Kind::Unsigned;
    uint64_t unsignedValue = 0;
    int64_t signedValue = 0;
    double realValue = 0.0;
    std::string textValue;
    bool flagValue = false;
    // Optional explanation: text shows "value (note)", JSON adds noteKey.
    std::string noteKey;
    std::string note;
};

class Section {
public:
    explicit Section(std::string title) : title(std::move(title)) {}

    Field& addUnsigned(const char* key, const char* label, uint64_t value) {
        Field& f = add(key, label, Field::Kind::Unsigned);
        f.unsignedValue = value;
        return f;
    }
    Field& addSigned(const char* key, const char* label, int64_t value) {
        Field& f = add(key, label, Field::Kind::Signed);
        f.signedValue = value;
        return f;
    }
    Field& addReal(const char* key, const char* label, double value) {
        Field& f = add(key, label, Field::Kind::Real);
        f.realValue = value;
        return f;
    }
    Field& addText(const char* key, const char* label, const std::string& value) {
        Field& f = add(key, label, Field::Kind::Text);
        f.textValue = value;
        return f;
    }
    Field& addFlag(const char* key, const char* label, bool value) {
        Field& f = add(key, label, Field::Kind::Flag);
        f.flagValue = value;
        return f;
    }

    // One edit of the track's edit list.
    struct Edit {
        uint64_t segmentDuration;  // movie time units
        int64_t mediaTime;         // media time units, -1 for an empty edit
        double rate;
    };

    std::string title;
    std::vector<Field> fields;
    std::vector<Edit> edits;

private:
    Field& add(const char* key, const char* label, Field::Kind kind) {
        fields.emplace_back();
        Field& f = fields.back();
        f.key = key;
        f.label = label;
        f.kind = kind;
        return f;
    }
};

struct Report {
    Section file{"File"};
    std::vector<Section> tracks;
};

// Everything the file and its tracks answer; what they cannot answer is
// left out.
Report collectReport(const char* path, CMp4File* file);

// Names of a track kind (MP4TrackType) and of a codec number
// (CMp4Track::getCodecType): "video", "H.264/AVC"; "unknown" otherwise.
const char* trackKindName(uint32_t kind);
const char* codecName(uint32_t codec);


}  // namespace tool
}  // namespace quil

#endif
