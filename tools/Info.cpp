// The "info" command: a report of the file and of each track, built from
// the public track interface, printed as text or as one JSON document.
// Whatever a track cannot answer is left out of the report.
#include "Info.h"

#include "Command.h"
#include "Report.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>


namespace quil {
namespace tool {

// ---------------------------------------------------------------------------
// Shared helpers

OpenedFile::~OpenedFile() {
    if (file_ == nullptr) return;
    uint32_t open = 0;
    if (file_->isOpen(&open) == MP4_OK && open != 0) (void)file_->close();
    CMp4File::destroyInstance(&file_);
}

MP4Err OpenedFile::open(const char* utf8Path) {
    std::wstring widePath;
    MP4Err err = Mp4WidePathFromUtf8(utf8Path, &widePath);
    if (err != MP4_OK) return err;
    if (file_ == nullptr) {
        err = CMp4File::createInstance(&file_);
        if (err != MP4_OK) return err;
    }
    return file_->open(widePath.c_str(), 0, 0);
}

void reportError(const char* what, MP4Err err) {
    std::fprintf(stderr, "quil: %s: %s\n", what, toString(err));
}

uint32_t inputFileType(CMp4File* file) {
    uint32_t fileType = 0, majorBrand = 0;
    (void)file->getFileType(&fileType);
    if (Mp4GetBrands(file, &majorBrand, nullptr, nullptr, 0, nullptr) == MP4_OK &&
        majorBrand == fourcc("qt  ")) {
        fileType = MP4_FILE_QUICKTIME;
    }
    return fileType;
}

namespace {

bool isUrl(const char* path) { return std::strncmp(path, "http", 4) == 0; }

bool isTopLevelType(uint32_t type) {
    static const uint32_t kTypes[] = {
        fourcc("ftyp"), fourcc("moov"), fourcc("mdat"), fourcc("free"), fourcc("skip"),
        fourcc("wide"), fourcc("uuid"), fourcc("moof"), fourcc("styp"), fourcc("sidx"),
        fourcc("pdin"), fourcc("meta"), fourcc("mfra"), fourcc("pnot"), fourcc("emsg"),
    };
    for (uint32_t known : kTypes) {
        if (type == known) return true;
    }
    return false;
}

// "truncated: ..." when a top-level box of the file runs past its end:
// only the box headers are read.
std::string truncation(const char* path) {
    uint64_t length = 0;
    for (const TopLevelBox& box : topLevelBoxes(path, &length)) {
        if (!isTopLevelType(box.type)) break;  // not a box file: not "truncated"
        if (box.size > length - box.offset) {
            return "truncated: the " + fourccText(box.type) + " box at offset " +
                   std::to_string(box.offset) + " needs " + std::to_string(box.size) +
                   " bytes, the file ends after " + std::to_string(length - box.offset);
        }
    }
    return std::string();
}

// What a failed open most likely means, for the message.
const char* openFailureHint(MP4Err err) {
    switch (err) {
        case MP4_ERR_NOT_AVAILABLE: return "not an MP4 file (no movie box found)";
        case MP4_ERR_IO: return "cannot open or read the file";
        case MP4_ERR_WRONG_LAYOUT: return "damaged compressed movie";
        default: return nullptr;
    }
}

}  // namespace

std::string openFailureReason(const char* path, MP4Err err) {
    std::string why;
    if (isUrl(path)) {
        char reason[256] = "";
        if (Mp4GetLastNetError(reason, sizeof reason) == MP4_OK) why = reason;
    } else {
        why = inputProblem(path);
        if (why.empty()) why = truncation(path);
    }
    const char* hint = openFailureHint(err);
    if (why.empty() && hint) why = hint;
    return why;
}

int openOrReport(OpenedFile* file, const char* path) {
    const MP4Err err = file->open(path);
    if (err == MP4_OK) return 0;
    const std::string why = openFailureReason(path, err);
    if (why.empty()) {
        reportError(path, err);
    } else {
        std::fprintf(stderr, "quil: %s: %s: %s\n", path, why.c_str(), toString(err));
    }
    return 1;
}

namespace {

// ---------------------------------------------------------------------------
// Printing

std::string fieldValueText(const Field& f) {
    switch (f.kind) {
        case Field::Kind::Unsigned: return format("%" PRIu64, f.unsignedValue);
        case Field::Kind::Signed: return format("%" PRId64, f.signedValue);
        case Field::Kind::Real: return format("%g", f.realValue);
        case Field::Kind::Flag: return f.flagValue ? "yes" : "no";
        case Field::Kind::Text: return f.textValue;
    }
    return std::string();
}

void printSectionText(const Section& section, const char* indent) {
    for (const Field& f : section.fields) {
        std::string value = fieldValueText(f);
        if (!f.note.empty()) value += " (" + f.note + ")";
        // Values line up in one column whatever the section's indentation.
        const int width = 28 - static_cast<int>(std::strlen(indent));
        std::printf("%s%-*s %s\n", indent, width, (f.label + ":").c_str(), value.c_str());
    }
    for (size_t i = 0; i < section.edits.size(); ++i) {
        const Section::Edit& edit = section.edits[i];
        const std::string label = format("Edit %zu:", i + 1);
        std::printf("%s%-*s duration %" PRIu64 ", media time %" PRId64 ", rate %g\n", indent,
                    28 - static_cast<int>(std::strlen(indent)), label.c_str(),
                    edit.segmentDuration, edit.mediaTime, edit.rate);
    }
}

// The members only: the caller opens and closes the object.
void writeFieldsJson(JsonWriter* json, const Section& section) {
    for (const Field& f : section.fields) {
        json->key(f.key);
        switch (f.kind) {
            case Field::Kind::Unsigned: json->value(f.unsignedValue); break;
            case Field::Kind::Signed: json->value(f.signedValue); break;
            case Field::Kind::Real: json->value(f.realValue); break;
            case Field::Kind::Flag: json->value(f.flagValue); break;
            case Field::Kind::Text: json->value(f.textValue); break;
        }
        if (!f.noteKey.empty()) {
            json->key(f.noteKey);
            json->value(f.note);
        }
    }
    if (section.edits.empty()) return;
    json->key("edits");
    json->beginArray();
    for (const Section::Edit& edit : section.edits) {
        json->beginObject();
        json->key("segmentDuration");
        json->value(edit.segmentDuration);
        json->key("mediaTime");
        json->value(edit.mediaTime);
        json->key("rate");
        json->value(edit.rate);
        json->endObject();
    }
    json->endArray();
}

}  // namespace

int printInfo(const char* path, CMp4File* file, bool json) {
    if (json) {
        std::printf("%s\n", infoJson(path, file).c_str());
        return 0;
    }
    const Report report = collectReport(path, file);
    printSectionText(report.file, "");
    for (const Section& track : report.tracks) {
        std::printf("\n%s\n", track.title.c_str());
        printSectionText(track, "  ");
    }
    return 0;
}

std::string infoJson(const char* path, CMp4File* file) {
    const Report report = collectReport(path, file);
    JsonWriter writer;
    writer.beginObject();
    writeFieldsJson(&writer, report.file);
    writer.key("tracks");
    writer.beginArray();
    for (const Section& track : report.tracks) {
        writer.beginObject();
        writeFieldsJson(&writer, track);
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
    return writer.text();
}

}  // namespace tool
}  // namespace quil