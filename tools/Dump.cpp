// quil dump FILE [--json] [--entries N]
//
// Without options: the library's text dump of the box tree, then the hint
// samples. --entries N adds a list of every box as it lies in the file
// (containers the tree keeps whole, such as "meta", "moof" and "mvex",
// expanded) with the first N entries of each table; --json prints that
// list as one JSON document instead. The list comes from the library's box
// walk, each box's fields from the library's description of it
// (Mp4DescribeBox: the fields its layout names); README.md lists them.
#include "Dump.h"

#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "Hint.h"
#include "Info.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

// ---- model: one box with its typed fields ---------------------------------

struct Value {
    std::string key;
    bool isText = false;
    uint64_t number = 0;
    bool isSigned = false;
    std::string text;
};

using Values = std::vector<Value>;

struct BoxReport {
    MP4BoxVisit place{};
    std::string path;
    Values fields;
    bool hasEntries = false;
    std::vector<Values> entries;  // the first N
    std::string payloadHead;      // hex of the first bytes, for boxes without fields
};

void number(Values* values, const char* key, uint64_t value) {
    values->push_back(Value{key, false, value, false, ""});
}
void signedNumber(Values* values, const char* key, int64_t value) {
    values->push_back(Value{key, false, static_cast<uint64_t>(value), true, ""});
}
void text(Values* values, const char* key, const std::string& value) {
    values->push_back(Value{key, true, 0, false, value});
}

// ---- the box's fields, as the library describes them ----------------------

constexpr uint32_t kHeadBytes = 16;  // of a payload shown as hex

std::string hex(const uint8_t* bytes, size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

// The compatible brands as one text. A brand is added while the payload
// holds one more brand than the text has five-character slots, the rule
// this list has always followed (a brand shown as a 10-character number
// takes two).
std::string brandsText(const MP4BoxField& field, uint64_t payload) {
    std::string brands;
    for (uint32_t at = 0; at + 4 <= field.length; at += 4) {
        if (payload < 8 + 4 * (brands.size() / 5 + 1)) break;
        const uint8_t* b = field.bytes + at;
        const uint32_t code = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
        brands += (brands.empty() ? "" : " ") + fourccText(code);
    }
    return brands;
}

MP4Err addField(const MP4BoxField* field, void* user) {
    auto* box = static_cast<BoxReport*>(user);
    if (field->form == MP4_FIELD_TABLE) {
        box->hasEntries = true;
        return MP4_OK;
    }
    if (field->entry > box->entries.size()) box->entries.resize(field->entry);
    Values* values = field->entry == 0 ? &box->fields : &box->entries[field->entry - 1];
    switch (field->form) {
        case MP4_FIELD_SIGNED: signedNumber(values, field->key, static_cast<int64_t>(field->number)); break;
        case MP4_FIELD_CODE: text(values, field->key, fourccText(static_cast<uint32_t>(field->number))); break;
        case MP4_FIELD_CODES:
            text(values, field->key, brandsText(*field, box->place.size - box->place.headerSize));
            break;
        case MP4_FIELD_TEXT:
            text(values, field->key, std::string(reinterpret_cast<const char*>(field->bytes), field->length));
            break;
        default: number(values, field->key, field->number); break;
    }
    return MP4_OK;
}

// The box's fields as the library describes them; a box without described
// fields shows the head of its payload.
BoxReport describeBox(CMp4File* file, const MP4BoxVisit& place, uint32_t entries) {
    BoxReport box;
    box.place = place;
    box.path = place.path;
    if (Mp4DescribeBox(file, &place, entries, addField, &box) != MP4_OK) box.fields.clear();
    if (box.fields.empty() && place.payloadLength > 0) {
        uint8_t head[kHeadBytes] = {};
        const uint64_t available = place.size - place.headerSize;
        const uint32_t count = static_cast<uint32_t>(available < kHeadBytes ? available : kHeadBytes);
        // As read: a failed read leaves what it read (the zeros of head).
        (void)Mp4ReadFileBytes(file, place.offset + place.headerSize, head, count);
        box.payloadHead = hex(head, count);
    }
    return box;
}

struct Collector {
    CMp4File* file;
    uint32_t entries;
    std::vector<BoxReport> boxes;
};

MP4Err collectBox(const MP4BoxVisit* box, void* user) {
    auto* collector = static_cast<Collector*>(user);
    collector->boxes.push_back(describeBox(collector->file, *box, collector->entries));
    return MP4_OK;
}

// ---- printers ---------------------------------------------------------------

std::string valueText(const Value& v) {
    if (v.isText) return v.text;
    return v.isSigned ? std::to_string(static_cast<int64_t>(v.number)) : std::to_string(v.number);
}

void writeValues(JsonWriter* json, const Values& values) {
    for (const Value& v : values) {
        json->key(v.key);
        if (v.isText) json->value(v.text);
        else if (v.isSigned) json->value(static_cast<int64_t>(v.number));
        else json->value(v.number);
    }
}

void writeBoxMembers(JsonWriter* json, const BoxReport& box) {
    json->key("path");
    json->value(box.path);
    json->key("type");
    json->value(box.path.substr(box.path.rfind('/') + 1, box.path.find('[', box.path.rfind('/')) -
                                                             box.path.rfind('/') - 1));
    json->key("offset");
    json->value(box.place.offset);
    json->key("size");
    json->value(box.place.size);
    json->key("headerSize");
    json->value(uint64_t{box.place.headerSize});
    if (!box.fields.empty()) {
        json->key("fields");
        json->beginObject();
        writeValues(json, box.fields);
        json->endObject();
    }
    if (box.hasEntries) {
        json->key("entries");
        json->beginArray();
        for (const Values& entry : box.entries) {
            json->beginObject();
            writeValues(json, entry);
            json->endObject();
        }
        json->endArray();
    }
    if (box.fields.empty() && box.place.payloadLength > 0) {
        json->key("payload");
        json->beginObject();
        json->key("length");
        json->value(box.place.payloadLength);
        json->key("head");
        json->value(box.payloadHead);
        json->endObject();
    }
}

// Nested objects: a box stays open while its children are written.
void printJson(const char* path, const std::vector<BoxReport>& boxes) {
    JsonWriter json;
    json.beginObject();
    json.key("file");
    json.value(path);
    json.key("boxes");
    json.beginArray();
    std::vector<bool> open;  // per open box: its "children" array was begun
    for (const BoxReport& box : boxes) {
        while (open.size() > box.place.depth) {
            if (open.back()) json.endArray();
            json.endObject();
            open.pop_back();
        }
        if (!open.empty() && !open.back()) {
            json.key("children");
            json.beginArray();
            open.back() = true;
        }
        json.beginObject();
        writeBoxMembers(&json, box);
        open.push_back(false);
    }
    while (!open.empty()) {
        if (open.back()) json.endArray();
        json.endObject();
        open.pop_back();
    }
    json.endArray();
    json.endObject();
    std::printf("%s\n", json.text().c_str());
}

std::string valuesText(const Values& values) {
    std::string out;
    for (const Value& v : values) out += (out.empty() ? "" : " ") + v.key + "=" + valueText(v);
    return out;
}

void printList(const std::vector<BoxReport>& boxes, uint32_t entries) {
    std::printf("\nBoxes in the file (path, offset, size; up to %u table entries):\n", entries);
    for (const BoxReport& box : boxes) {
        const std::string indent(2 * box.place.depth, ' ');
        std::printf("%s%s offset=%" PRIu64 " size=%" PRIu64, indent.c_str(), box.path.c_str(),
                    box.place.offset, box.place.size);
        if (!box.fields.empty()) std::printf(" %s", valuesText(box.fields).c_str());
        if (box.fields.empty() && box.place.payloadLength > 0) {
            std::printf(" payload=%" PRIu64 " head=%s", box.place.payloadLength,
                        box.payloadHead.c_str());
        }
        std::printf("\n");
        for (size_t n = 0; n < box.entries.size(); ++n) {
            std::printf("%s  %zu: %s\n", indent.c_str(), n + 1, valuesText(box.entries[n]).c_str());
        }
    }
}

int runDump(const Arguments& arguments) {
    const char* path = arguments.operand(0);
    uint64_t entries = 0;
    const char* entriesText = arguments.value("--entries");
    if (entriesText && !parseNumber(entriesText, 0, UINT32_MAX, &entries)) {
        return usageError("--entries needs a number of entries");
    }
    const bool json = arguments.has("--json");
    OpenedFile file;
    if (int status = openOrReport(&file, path)) return status;
    if (!json) {
        MP4Err err = file.get()->dumpBoxes();
        std::fflush(stdout);
        if (err != MP4_OK) {
            reportError(path, err);
            return kExitFailure;
        }
        if (int status = dumpHintSamples(file.get())) return status;
        if (!entriesText) return kExitOk;
    }
    Collector collector{file.get(), static_cast<uint32_t>(entries), {}};
    MP4Err err = Mp4VisitBoxes(file.get(), collectBox, &collector);
    if (err != MP4_OK) {
        reportError(path, err);
        return kExitFailure;
    }
    if (json) printJson(path, collector.boxes);
    else printList(collector.boxes, static_cast<uint32_t>(entries));
    return kExitOk;
}

}  // namespace

const Command kDumpCommand = {
    "dump", "dump FILE [--json] [--entries N]",
    "  dump     print every box of the file with its fields; --entries N adds a\n"
    "           list of every box as it lies in the file (all containers\n"
    "           expanded, the first N entries of each table); --json prints\n"
    "           that list as one JSON document (fields: README.md)\n",
    {{"--json", false}, {"--entries", true}}, 1, 1, runDump,
};

}  // namespace tool
}  // namespace quil
