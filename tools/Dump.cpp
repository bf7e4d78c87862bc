// quil dump FILE [--json] [--entries N]
//
// Without options: the library's text dump of the box tree, then the hint
// samples. --entries N adds a list of every box as it lies in the file
// (containers the tree keeps whole, such as "meta", "moof" and "mvex",
// expanded) with the first N entries of each table; --json prints that
// list as one JSON document instead. The list comes from the library's box
// walk; the fields shown per box are described in README.md.
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
    uint64_t entryCount = 0;
    bool hasEntries = false;
    std::vector<Values> entries;  // the first N
    std::string payloadHead;      // hex of the first bytes, for boxes without fields
};

// Big-endian fields of a box's payload, read through the library; reads
// past what was fetched fail and stop the decoding.
class FieldReader {
public:
    FieldReader(CMp4File* file, const MP4BoxVisit& box, uint32_t fetch) {
        const uint64_t available = box.size - box.headerSize;
        bytes_.resize(static_cast<size_t>(available < fetch ? available : fetch));
        ok_ = Mp4ReadFileBytes(file, box.offset + box.headerSize, bytes_.data(),
                               static_cast<uint32_t>(bytes_.size())) == MP4_OK;
    }
    bool ok() const { return ok_; }
    uint64_t take(int width) {
        if (!ok_ || at_ + width > bytes_.size()) {
            ok_ = false;
            return 0;
        }
        uint64_t value = 0;
        for (int i = 0; i < width; ++i) value = value << 8 | bytes_[at_++];
        return value;
    }
    std::string code() { return fourccText(static_cast<uint32_t>(take(4))); }
    std::string rest() {  // text up to a terminator or the end of what was fetched
        std::string text;
        while (ok_ && at_ < bytes_.size() && bytes_[at_] != 0) text += static_cast<char>(bytes_[at_++]);
        return text;
    }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
    size_t at_ = 0;
    bool ok_ = false;
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

// Version and flags of a full box; the version.
uint8_t versionAndFlags(FieldReader* r, Values* fields) {
    const uint8_t version = static_cast<uint8_t>(r->take(1));
    number(fields, "version", version);
    number(fields, "flags", r->take(3));
    return version;
}

// ---- field decoders, one per box type -----------------------------------

struct Decoder {
    uint32_t type;
    void (*decode)(FieldReader* r, BoxReport* box, uint32_t entries);
    uint32_t fixedBytes;  // bytes before a table (fetched besides its entries)
    uint32_t entryBytes;  // bytes per table entry (0: no table)
};

void decodeFtyp(FieldReader* r, BoxReport* box, uint32_t) {
    text(&box->fields, "majorBrand", r->code());
    number(&box->fields, "minorVersion", r->take(4));
    std::string brands;
    while (r->ok() && box->place.size - box->place.headerSize >= 8 + 4 * (brands.size() / 5 + 1)) {
        const std::string brand = r->code();
        if (!r->ok()) break;
        brands += (brands.empty() ? "" : " ") + brand;
    }
    text(&box->fields, "compatibleBrands", brands);
}

// mvhd and mdhd: times, time scale and duration by version.
void decodeMediaHeader(FieldReader* r, BoxReport* box, uint32_t) {
    const int width = versionAndFlags(r, &box->fields) == 1 ? 8 : 4;
    number(&box->fields, "creationTime", r->take(width));
    number(&box->fields, "modificationTime", r->take(width));
    number(&box->fields, "timeScale", r->take(4));
    number(&box->fields, "duration", r->take(width));
}

void decodeTkhd(FieldReader* r, BoxReport* box, uint32_t) {
    const int width = versionAndFlags(r, &box->fields) == 1 ? 8 : 4;
    r->take(2 * width);
    number(&box->fields, "trackId", r->take(4));
    r->take(4);
    number(&box->fields, "duration", r->take(width));
}

void decodeHdlr(FieldReader* r, BoxReport* box, uint32_t) {
    versionAndFlags(r, &box->fields);
    r->take(4);
    text(&box->fields, "handlerType", r->code());
    r->take(12);
    text(&box->fields, "name", r->rest());
}

void decodeFullBoxOnly(FieldReader* r, BoxReport* box, uint32_t) {
    versionAndFlags(r, &box->fields);
}

void decodeEntryCount(FieldReader* r, BoxReport* box, uint32_t) {
    versionAndFlags(r, &box->fields);
    number(&box->fields, "entryCount", r->take(4));
}

void decodeMfhd(FieldReader* r, BoxReport* box, uint32_t) {
    versionAndFlags(r, &box->fields);
    number(&box->fields, "sequenceNumber", r->take(4));
}

void decodeTfdt(FieldReader* r, BoxReport* box, uint32_t) {
    const int width = versionAndFlags(r, &box->fields) == 1 ? 8 : 4;
    number(&box->fields, "baseMediaDecodeTime", r->take(width));
}

void decodeTrex(FieldReader* r, BoxReport* box, uint32_t) {
    versionAndFlags(r, &box->fields);
    number(&box->fields, "trackId", r->take(4));
    number(&box->fields, "defaultSampleDescriptionIndex", r->take(4));
    number(&box->fields, "defaultSampleDuration", r->take(4));
    number(&box->fields, "defaultSampleSize", r->take(4));
    number(&box->fields, "defaultSampleFlags", r->take(4));
}

// A table: version and flags, the count, then up to `entries` entries of
// the named 32-bit (or, for co64 and version-1 elst, 64-bit) columns.
void decodeTable(FieldReader* r, BoxReport* box, uint32_t entries,
                 std::initializer_list<const char*> columns, int width) {
    box->hasEntries = true;
    box->entryCount = r->take(4);
    number(&box->fields, "entryCount", box->entryCount);
    for (uint64_t n = 0; n < box->entryCount && n < entries && r->ok(); ++n) {
        Values entry;
        for (const char* column : columns) number(&entry, column, r->take(width));
        if (r->ok()) box->entries.push_back(entry);
    }
}

void decodeStts(FieldReader* r, BoxReport* box, uint32_t entries) {
    versionAndFlags(r, &box->fields);
    decodeTable(r, box, entries, {"sampleCount", "sampleDelta"}, 4);
}
void decodeCtts(FieldReader* r, BoxReport* box, uint32_t entries) {
    const uint8_t version = versionAndFlags(r, &box->fields);
    decodeTable(r, box, entries, {"sampleCount", "sampleOffset"}, 4);
    if (version == 1) {  // signed offsets
        for (Values& entry : box->entries) {
            entry[1].isSigned = true;
            entry[1].number = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(entry[1].number)));
        }
    }
}
void decodeStss(FieldReader* r, BoxReport* box, uint32_t entries) {
    versionAndFlags(r, &box->fields);
    decodeTable(r, box, entries, {"sampleNumber"}, 4);
}
void decodeStsc(FieldReader* r, BoxReport* box, uint32_t entries) {
    versionAndFlags(r, &box->fields);
    decodeTable(r, box, entries, {"firstChunk", "samplesPerChunk", "sampleDescriptionIndex"}, 4);
}
void decodeStsz(FieldReader* r, BoxReport* box, uint32_t entries) {
    versionAndFlags(r, &box->fields);
    const uint64_t sampleSize = r->take(4);
    number(&box->fields, "sampleSize", sampleSize);
    if (sampleSize != 0) {
        number(&box->fields, "sampleCount", r->take(4));
        return;
    }
    decodeTable(r, box, entries, {"entrySize"}, 4);
}
void decodeStco(FieldReader* r, BoxReport* box, uint32_t entries) {
    versionAndFlags(r, &box->fields);
    decodeTable(r, box, entries, {"chunkOffset"}, 4);
}
void decodeCo64(FieldReader* r, BoxReport* box, uint32_t entries) {
    versionAndFlags(r, &box->fields);
    decodeTable(r, box, entries, {"chunkOffset"}, 8);
}
void decodeElst(FieldReader* r, BoxReport* box, uint32_t entries) {
    const int width = versionAndFlags(r, &box->fields) == 1 ? 8 : 4;
    box->hasEntries = true;
    box->entryCount = r->take(4);
    number(&box->fields, "entryCount", box->entryCount);
    for (uint64_t n = 0; n < box->entryCount && n < entries && r->ok(); ++n) {
        Values entry;
        number(&entry, "segmentDuration", r->take(width));
        const uint64_t time = r->take(width);
        signedNumber(&entry, "mediaTime",
                     width == 8 ? static_cast<int64_t>(time)
                                : static_cast<int64_t>(static_cast<int32_t>(time)));
        signedNumber(&entry, "mediaRateInteger", static_cast<int16_t>(r->take(2)));
        number(&entry, "mediaRateFraction", r->take(2));
        if (r->ok()) box->entries.push_back(entry);
    }
}

const Decoder kDecoders[] = {
    {fourcc("ftyp"), decodeFtyp, 256, 0},     {fourcc("styp"), decodeFtyp, 256, 0},
    {fourcc("mvhd"), decodeMediaHeader, 32, 0}, {fourcc("mdhd"), decodeMediaHeader, 32, 0},
    {fourcc("tkhd"), decodeTkhd, 40, 0},      {fourcc("hdlr"), decodeHdlr, 256, 0},
    {fourcc("stsd"), decodeEntryCount, 8, 0}, {fourcc("dref"), decodeEntryCount, 8, 0},
    {fourcc("meta"), decodeFullBoxOnly, 4, 0}, {fourcc("vmhd"), decodeFullBoxOnly, 4, 0},
    {fourcc("smhd"), decodeFullBoxOnly, 4, 0}, {fourcc("mfhd"), decodeMfhd, 8, 0},
    {fourcc("tfdt"), decodeTfdt, 12, 0},      {fourcc("trex"), decodeTrex, 24, 0},
    {fourcc("stts"), decodeStts, 8, 8},       {fourcc("ctts"), decodeCtts, 8, 8},
    {fourcc("stss"), decodeStss, 8, 4},       {fourcc("stsc"), decodeStsc, 8, 12},
    {fourcc("stsz"), decodeStsz, 12, 4},      {fourcc("stco"), decodeStco, 8, 4},
    {fourcc("co64"), decodeCo64, 8, 8},       {fourcc("elst"), decodeElst, 8, 20},
};

constexpr uint32_t kHeadBytes = 16;  // of a payload shown as hex

std::string hex(const std::vector<uint8_t>& bytes, size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < count && i < bytes.size(); ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

BoxReport describeBox(CMp4File* file, const MP4BoxVisit& place, uint32_t entries) {
    BoxReport box;
    box.place = place;
    box.path = place.path;
    // QuickTime "meta" has no version and flags.
    const bool quickTimeMeta = place.type == fourcc("meta") && place.payloadLength == 0;
    for (const Decoder& decoder : kDecoders) {
        if (decoder.type != place.type || quickTimeMeta) continue;
        const uint64_t wanted = decoder.fixedBytes + uint64_t{decoder.entryBytes} * entries;
        FieldReader reader(file, place, static_cast<uint32_t>(wanted < (1u << 24) ? wanted : 1u << 24));
        decoder.decode(&reader, &box, entries);
        return box;
    }
    if (place.payloadLength > 0) {
        FieldReader reader(file, place, kHeadBytes);
        box.payloadHead = hex(reader.bytes(), kHeadBytes);
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
