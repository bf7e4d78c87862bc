// quil meta FILE [--json]
// quil meta FILE --set KEY[:LANG]=VALUE ... -o OUT
//
// Lists every metadata item of a file: the 3GPP asset items of the movie
// and of each track (one per language), the 3GPP album and year, and the
// iTunes-style tags; or writes a copy with some 3GPP items set.
#include "Meta.h"

#include <cstdint>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Info.h"
#include "TagText.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

// One line of the listing: "[trackN.]key[:lang]=value".
struct Item {
    std::string scope;  // "movie", "track" or "itunes"
    uint32_t track = 0;
    std::string key;
    std::string language;
    std::string value;
};

// Text of an asset box: UTF-8 as it is; UTF-16 (with its byte order mark)
// converted to UTF-8.
std::string displayText(const uint8_t* bytes, uint32_t length) {
    while (length > 0 && bytes[length - 1] == 0) --length;
    bool bigEndian = length >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF;
    bool littleEndian = length >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE;
    if (!bigEndian && !littleEndian) {
        // A UTF-8 byte order mark is no part of the text.
        if (length >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
            bytes += 3;
            length -= 3;
        }
        return validUtf8(std::string(reinterpret_cast<const char*>(bytes), length));
    }
    std::string out;
    for (uint32_t i = 2; i + 1 < length; i += 2) {
        uint32_t unit = bigEndian ? (bytes[i] << 8 | bytes[i + 1]) : (bytes[i + 1] << 8 | bytes[i]);
        uint32_t c = unit;
        if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < length) {
            uint32_t low = bigEndian ? (bytes[i + 2] << 8 | bytes[i + 3]) : (bytes[i + 3] << 8 | bytes[i + 2]);
            if (low >= 0xDC00 && low < 0xE000) {
                c = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                i += 2;
            }
        }
        if (c == 0) break;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string codeText(const uint8_t code[4]) {
    return std::string(reinterpret_cast<const char*>(code), 4);
}

// The text items of the asset interface, by key.
using TextGetter = MP4Err (CMp4MetaData::*)(uint8_t*, uint32_t*, uint8_t*, uint32_t);
struct TextKey {
    const char* key;
    TextGetter get;
};
const TextKey kTextKeys[] = {
    {"title", &CMp4MetaData::getTitle},         {"description", &CMp4MetaData::getDescription},
    {"copyright", &CMp4MetaData::getCopyright}, {"performer", &CMp4MetaData::getPerformer},
    {"author", &CMp4MetaData::getAuthor},       {"genre", &CMp4MetaData::getGenre},
};

// Every language of one item: index 1, 2, ... until the lookup answers 3.
template <class Fetch>
MP4Err eachIndex(Fetch fetch) {
    for (uint32_t index = 1;; ++index) {
        MP4Err err = fetch(index);
        if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
        if (err != MP4_OK) return err;
    }
}

MP4Err collectAssets(CMp4MetaData* meta, const Item& base, std::vector<Item>* items) {
    for (const TextKey& text : kTextKeys) {
        MP4Err err = eachIndex([&](uint32_t index) {
            uint32_t length = 0;
            uint8_t language[3] = {0, 0, 0};
            MP4Err e = (meta->*text.get)(nullptr, &length, language, index);
            if (e != MP4_OK) return e;
            std::vector<uint8_t> buffer(length + 2, 0);
            e = (meta->*text.get)(buffer.data(), &length, language, index);
            if (e != MP4_OK) return e;
            Item item = base;
            item.key = text.key;
            item.language.assign(reinterpret_cast<char*>(language), 3);
            item.value = displayText(buffer.data(), length);
            items->push_back(item);
            return MP4_OK;
        });
        if (err != MP4_OK) return err;
    }
    MP4Err err = eachIndex([&](uint32_t index) {
        uint32_t length = 0;
        uint8_t language[3] = {0, 0, 0}, entity[4], criteria[4];
        MP4Err e = meta->getRating(entity, criteria, nullptr, &length, language, index);
        if (e != MP4_OK) return e;
        std::vector<uint8_t> buffer(length + 2, 0);
        e = meta->getRating(entity, criteria, buffer.data(), &length, language, index);
        if (e != MP4_OK) return e;
        Item item = base;
        item.key = "rating";
        item.language.assign(reinterpret_cast<char*>(language), 3);
        item.value = codeText(entity) + "/" + codeText(criteria) + " " +
                     displayText(buffer.data(), length);
        items->push_back(item);
        return MP4_OK;
    });
    if (err != MP4_OK) return err;
    err = eachIndex([&](uint32_t index) {
        uint32_t length = 0;
        uint16_t table = 0;
        uint8_t language[3] = {0, 0, 0}, entity[4];
        MP4Err e = meta->getClassification(entity, &table, nullptr, &length, language, index);
        if (e != MP4_OK) return e;
        std::vector<uint8_t> buffer(length + 2, 0);
        e = meta->getClassification(entity, &table, buffer.data(), &length, language, index);
        if (e != MP4_OK) return e;
        Item item = base;
        item.key = "classification";
        item.language.assign(reinterpret_cast<char*>(language), 3);
        item.value = codeText(entity) + "/" + std::to_string(table) + " " +
                     displayText(buffer.data(), length);
        items->push_back(item);
        return MP4_OK;
    });
    if (err != MP4_OK) return err;
    return eachIndex([&](uint32_t index) {
        uint32_t count = 0, length = 0;
        uint8_t language[3] = {0, 0, 0};
        MP4Err e = meta->getKeywords(nullptr, &count, &length, language, index);
        if (e != MP4_OK) return e;
        std::vector<uint8_t> buffer(length + 1, 0);
        e = meta->getKeywords(buffer.data(), &count, &length, language, index);
        if (e != MP4_OK) return e;
        Item item = base;
        item.key = "keywords";
        item.language.assign(reinterpret_cast<char*>(language), 3);
        for (uint32_t i = 0, at = 0; i < count && at < length; ++i) {
            uint32_t n = buffer[at];
            if (i > 0) item.value += ",";
            item.value += displayText(&buffer[at + 1], n);
            at += n + 1;
        }
        items->push_back(item);
        return MP4_OK;
    });
}

// Friendly names of the common iTunes items; others keep their code.
std::string tagKey(const MP4Tag& tag) {
    struct Name {
        uint32_t code;
        const char* key;
    };
    static const Name kNames[] = {
        {0xA96E616D, "title"},  {0xA9415254, "artist"}, {0xA9616C62, "album"},
        {0xA9646179, "date"},   {0xA967656E, "genre"},  {fourcc("gnre"), "genre"},
        {fourcc("trkn"), "track"}, {fourcc("disk"), "disc"}, {fourcc("covr"), "cover"},
        {0xA9746F6F, "encoder"}, {0xA9636D74, "comment"}, {fourcc("aART"), "album_artist"},
        {0xA9777274, "composer"}, {0xA978797A, "location"},
    };
    for (const Name& name : kNames) {
        if (name.code == tag.code) return name.key;
    }
    if (tag.code == fourcc("----")) return std::string("----:") + tag.name;
    // "©" is the byte 0xA9 in the item code: print it in UTF-8.
    std::string key;
    for (int shift = 24; shift >= 0; shift -= 8) {
        unsigned char c = static_cast<unsigned char>(tag.code >> shift);
        if (c == 0xA9) key += "\xC2\xA9";
        else if (c >= 0x20 && c < 0x7F) key += static_cast<char>(c);
        else key += '?';
    }
    return key;
}

uint64_t bigEndian(const std::vector<uint8_t>& bytes, size_t from, size_t count) {
    uint64_t value = 0;
    for (size_t i = from; i < from + count && i < bytes.size(); ++i) value = value << 8 | bytes[i];
    return value;
}

std::string tagValue(const MP4Tag& tag, const std::vector<uint8_t>& bytes) {
    const uint32_t code = tag.code;
    if ((code == fourcc("trkn") || code == fourcc("disk")) && bytes.size() >= 6) {
        return numberAndTotal(bytes);
    }
    if (code == fourcc("gnre") && bytes.size() >= 2) return genreName(bigEndian(bytes, 0, 2));
    switch (tag.dataType) {
        case MP4_TAG_UTF8: return displayText(bytes.data(), static_cast<uint32_t>(bytes.size()));
        case MP4_TAG_JPEG: return "image/jpeg, " + std::to_string(bytes.size()) + " bytes";
        case MP4_TAG_PNG: return "image/png, " + std::to_string(bytes.size()) + " bytes";
        case MP4_TAG_BMP: return "image/bmp, " + std::to_string(bytes.size()) + " bytes";
        case MP4_TAG_INTEGER:
        case MP4_TAG_UNSIGNED:
            if (bytes.size() >= 1 && bytes.size() <= 8) {
                uint64_t value = bigEndian(bytes, 0, bytes.size());
                if (tag.dataType == MP4_TAG_INTEGER && bytes.size() < 8 &&
                    (value >> (8 * bytes.size() - 1)) != 0) {
                    return std::to_string(static_cast<int64_t>(value) -
                                          (int64_t{1} << (8 * bytes.size())));
                }
                return tag.dataType == MP4_TAG_INTEGER ? std::to_string(static_cast<int64_t>(value))
                                                       : std::to_string(value);
            }
            break;
        case MP4_TAG_UTF16: {
            std::vector<uint8_t> marked = {0xFE, 0xFF};
            marked.insert(marked.end(), bytes.begin(), bytes.end());
            return displayText(marked.data(), static_cast<uint32_t>(marked.size()));
        }
        default: break;
    }
    return "data type " + std::to_string(tag.dataType) + ", " + std::to_string(bytes.size()) +
           " bytes";
}

MP4Err collectTags(CMp4File* file, std::vector<Item>* items) {
    uint32_t count = 0;
    MP4Err err = Mp4GetTagCount(file, &count);
    for (uint32_t index = 1; err == MP4_OK && index <= count; ++index) {
        MP4Tag tag;
        err = Mp4GetTag(file, index, &tag, nullptr, 0);
        if (err != MP4_OK) break;
        std::vector<uint8_t> bytes(tag.valueLength);
        err = Mp4GetTag(file, index, &tag, bytes.data(), tag.valueLength);
        if (err != MP4_OK) break;
        Item item;
        if (tag.code == fourcc("albm") || tag.code == fourcc("yrrc")) {
            item.scope = "movie";
            item.key = tag.code == fourcc("albm") ? "album" : "year";
            if (tag.code == fourcc("albm")) {
                item.language.assign(reinterpret_cast<char*>(tag.language), 3);
                item.value = displayText(bytes.data(), tag.valueLength);
                if (tag.albumTrack != 0) item.value += " (track " + std::to_string(tag.albumTrack) + ")";
            } else {
                item.value = std::to_string(bigEndian(bytes, 0, 2));
            }
        } else {
            // iTunes items, and QuickTime text items straight in "udta".
            item.scope = tag.parent == fourcc("ilst") ? "itunes" : "quicktime";
            item.key = tagKey(tag);
            item.value = tagValue(tag, bytes);
            if (tag.language[0] != 0) item.language.assign(reinterpret_cast<char*>(tag.language), 3);
        }
        items->push_back(item);
    }
    return err;
}

MP4Err collectAll(CMp4File* file, std::vector<Item>* items) {
    CMp4MetaData* meta = nullptr;
    MP4Err err = file->getMetaData(&meta);
    Item movie;
    movie.scope = "movie";
    if (err == MP4_OK) err = collectAssets(meta, movie, items);
    if (err != MP4_OK && err != MP4_ERR_NOT_AVAILABLE) return err;  // 3: no "udta"
    err = collectTags(file, items);
    if (err != MP4_OK) return err;
    uint32_t tracks = 0;
    (void)file->getTrackCount(&tracks);
    for (uint32_t number = 1; number <= tracks; ++number) {
        CMp4Track* raw = nullptr;
        if (file->getTrack(number, &raw) != MP4_OK) continue;  // not usable: no items
        TrackHandle track(file, raw);
        if (track->getMetaData(&meta) != MP4_OK) continue;     // no "udta"
        Item base;
        base.scope = "track";
        base.track = number;
        err = collectAssets(meta, base, items);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

std::string itemKey(const Item& item) {
    std::string key;
    if (item.scope == "track") key = "track" + std::to_string(item.track) + ".";
    if (item.scope == "itunes" || item.scope == "quicktime") key = item.scope + ".";
    key += item.key;
    if (!item.language.empty()) key += ":" + item.language;
    return key;
}

// One line per item: line breaks, tabs and backslashes in a value are
// written as \n, \r, \t and \\ so that the lines stay lines.
std::string oneLine(const std::string& value) {
    std::string out;
    for (char c : value) {
        switch (c) {
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            case '\\': out += "\\\\"; break;
            default: out += c;
        }
    }
    return out;
}

void printText(const std::vector<Item>& items) {
    for (const Item& item : items) {
        std::printf("%s=%s\n", itemKey(item).c_str(), oneLine(item.value).c_str());
    }
}

void printJson(const char* path, const std::vector<Item>& items) {
    JsonWriter json;
    json.beginObject();
    json.key("file");
    json.value(path);
    json.key("items");
    json.beginArray();
    for (const Item& item : items) {
        json.beginObject();
        json.key("scope");
        json.value(item.scope);
        if (item.scope == "track") {
            json.key("track");
            json.value(static_cast<uint64_t>(item.track));
        }
        json.key("key");
        json.value(item.key);
        if (!item.language.empty()) {
            json.key("language");
            json.value(item.language);
        }
        json.key("value");
        json.value(item.value);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    std::printf("%s\n", json.text().c_str());
}

// ---- --set and --remove ----------------------------------------------------

// The 3GPP asset items that --set writes.
using TextSetter = MP4Err (CMp4MetaData::*)(const uint8_t*, uint32_t, const uint8_t*);
struct AssetKey {
    const char* key;
    TextSetter set;
};
const AssetKey kAssetKeys[] = {
    {"title", &CMp4MetaData::setTitle},         {"description", &CMp4MetaData::setDescription},
    {"copyright", &CMp4MetaData::setCopyright}, {"performer", &CMp4MetaData::setPerformer},
    {"author", &CMp4MetaData::setAuthor},       {"genre", &CMp4MetaData::setGenre},
};

// The iTunes items that --set and --remove write, and how a value is laid
// out. "title" and "genre" also set the 3GPP item of that name.
enum class Layout { Text, Pair8, Pair6, Image };
struct TagKey {
    const char* key;
    uint32_t code;
    Layout layout;
};
const TagKey kTagKeys[] = {
    {"title", 0xA96E616D, Layout::Text},   {"artist", 0xA9415254, Layout::Text},
    {"album", 0xA9616C62, Layout::Text},   {"date", 0xA9646179, Layout::Text},
    {"genre", 0xA967656E, Layout::Text},   {"comment", 0xA9636D74, Layout::Text},
    {"composer", 0xA9777274, Layout::Text}, {"album_artist", fourcc("aART"), Layout::Text},
    {"encoder", 0xA9746F6F, Layout::Text}, {"track", fourcc("trkn"), Layout::Pair8},
    {"disc", fourcc("disk"), Layout::Pair6}, {"cover", fourcc("covr"), Layout::Image},
};

const TagKey* findTagKey(const std::string& key) {
    for (const TagKey& tag : kTagKeys) {
        if (key == tag.key) return &tag;
    }
    return nullptr;
}

const AssetKey* findAssetKey(const std::string& key) {
    for (const AssetKey& asset : kAssetKeys) {
        if (key == asset.key) return &asset;
    }
    return nullptr;
}

const char kKeyList[] =
    "title, artist, album, date, genre, comment, composer, album_artist, encoder, "
    "track=N[/M], disc=N[/M], cover=@IMAGE, description, copyright, performer, author, "
    "keywords";

// "[trackN.]KEY[:LANG]=VALUE"; the language defaults to "und".
struct Assignment {
    uint32_t track = 0;
    std::string key;
    std::string language = "und";
    std::string value;
};

bool parseTrackPrefix(std::string* key, uint32_t* track) {
    if (key->compare(0, 5, "track") != 0 || key->find('.') == std::string::npos) return true;
    const size_t dot = key->find('.');
    if (dot == 5) return false;
    for (size_t i = 5; i < dot; ++i) {
        if ((*key)[i] < '0' || (*key)[i] > '9') return false;
    }
    uint64_t number = 0;
    if (!parseNumber(key->substr(5, dot - 5).c_str(), 1, UINT32_MAX, &number)) return false;
    *track = static_cast<uint32_t>(number);
    *key = key->substr(dot + 1);
    return true;
}

bool parseAssignment(const std::string& text, Assignment* out) {
    size_t equals = text.find('=');
    if (equals == std::string::npos) return false;
    std::string key = text.substr(0, equals);
    out->value = text.substr(equals + 1);
    if (!parseTrackPrefix(&key, &out->track)) return false;
    size_t colon = key.find(':');
    if (colon != std::string::npos) {
        out->language = key.substr(colon + 1);
        key = key.substr(0, colon);
        if (out->language.size() != 3) return false;
        for (char c : out->language) {
            if (c < 'a' || c > 'z') return false;
        }
    }
    out->key = key;
    // iTunes items belong to the movie; tracks carry only 3GPP items.
    if (out->track != 0) return key == "keywords" || findAssetKey(key) != nullptr;
    return key == "keywords" || findAssetKey(key) != nullptr || findTagKey(key) != nullptr;
}

// Keywords are given comma separated; each is stored as a length byte and
// its bytes with a terminator, as 3GPP writers store them.
MP4Err setKeywords(CMp4MetaData* meta, const std::string& value, const uint8_t* language) {
    std::vector<uint8_t> list;
    uint32_t count = 0;
    size_t start = 0;
    while (start <= value.size()) {
        size_t comma = value.find(',', start);
        if (comma == std::string::npos) comma = value.size();
        std::string word = value.substr(start, comma - start);
        if (word.size() > 254 || count == 255) return MP4_ERR_VALUE_TOO_LARGE;
        list.push_back(static_cast<uint8_t>(word.size() + 1));
        list.insert(list.end(), word.begin(), word.end());
        list.push_back(0);
        ++count;
        start = comma + 1;
    }
    return meta->setKeywords(list.data(), count, language);
}

MP4Err applyAsset(CMp4File* file, const Assignment& a) {
    CMp4MetaData* meta = nullptr;
    CMp4Track* raw = nullptr;
    MP4Err err = MP4_OK;
    if (a.track != 0) {
        err = file->getTrack(a.track, &raw);
        if (err != MP4_OK) return err;
    }
    TrackHandle track(file, raw);
    err = Mp4GetEditableMetaData(file, raw, &meta);
    if (err != MP4_OK) return err;
    return setMetadataItem(meta, a.key, a.language, a.value);
}

}  // namespace

MP4Err setMetadataItem(CMp4MetaData* meta, const std::string& key, const std::string& language,
                       const std::string& value) {
    if (language.size() != 3) return MP4_ERR_INVALID_ARGUMENT;
    const auto* code = reinterpret_cast<const uint8_t*>(language.data());
    if (key == "keywords") return setKeywords(meta, value, code);
    const AssetKey* asset = findAssetKey(key);
    if (asset == nullptr) return MP4_ERR_INVALID_ARGUMENT;
    // The text is stored with its terminator.
    return (meta->*asset->set)(reinterpret_cast<const uint8_t*>(value.c_str()),
                               static_cast<uint32_t>(value.size() + 1), code);
}

MP4Err metadataItems(CMp4File* file, std::vector<std::pair<std::string, std::string>>* items) {
    std::vector<Item> found;
    MP4Err err = collectAll(file, &found);
    for (const Item& item : found) items->emplace_back(itemKey(item), item.value);
    return err;
}

namespace {

// "N" or "N/M", each up to 65535.
bool parsePair(const std::string& text, uint16_t* number, uint16_t* total) {
    const size_t slash = text.find('/');
    uint64_t n = 0, m = 0;
    if (!parseNumber(text.substr(0, slash).c_str(), 0, 65535, &n)) return false;
    if (slash != std::string::npos && !parseNumber(text.substr(slash + 1).c_str(), 0, 65535, &m)) {
        return false;
    }
    *number = static_cast<uint16_t>(n);
    *total = static_cast<uint16_t>(m);
    return true;
}

// An iTunes value as taggers lay it out; false with *why set when the
// text does not make one.
bool tagValue(const TagKey& tag, const std::string& text, uint32_t* dataType,
              std::vector<uint8_t>* value, std::string* why) {
    switch (tag.layout) {
        case Layout::Text:
            *dataType = MP4_TAG_UTF8;
            value->assign(text.begin(), text.end());
            return true;
        case Layout::Pair8:
        case Layout::Pair6: {
            uint16_t number = 0, total = 0;
            if (!parsePair(text, &number, &total)) {
                *why = std::string(tag.key) + " takes N or N/M";
                return false;
            }
            *dataType = MP4_TAG_BINARY;
            *value = {0, 0, static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number),
                      static_cast<uint8_t>(total >> 8), static_cast<uint8_t>(total)};
            if (tag.layout == Layout::Pair8) value->insert(value->end(), {0, 0});
            return true;
        }
        case Layout::Image: {
            if (text.empty() || text[0] != '@') {
                *why = "cover takes @FILE, a JPEG or PNG image";
                return false;
            }
            if (!readWholeFile(text.substr(1), value, why)) return false;
            static const uint8_t kPng[] = {0x89, 'P', 'N', 'G'};
            if (value->size() >= 4 && std::equal(kPng, kPng + 4, value->begin())) {
                *dataType = MP4_TAG_PNG;
            } else if (value->size() >= 2 && (*value)[0] == 0xFF && (*value)[1] == 0xD8) {
                *dataType = MP4_TAG_JPEG;
            } else {
                *why = text.substr(1) + ": not a JPEG or PNG image";
                return false;
            }
            return true;
        }
    }
    return false;
}

// 3GPP brands take the 3GPP items only; every other file also gets the
// iTunes item, which is what players and ffprobe show.
bool takesItunesItems(CMp4File* file) {
    uint32_t major = 0;
    if (Mp4GetBrands(file, &major, nullptr, nullptr, 0, nullptr) != MP4_OK) return true;
    return (major >> 16) != (('3' << 8) | 'g');
}

// One change: an assignment, or a removal (remove set, value unused).
struct Change {
    Assignment assignment;
    bool remove = false;
};

// Applies one change; false with *why set.
bool applyChange(CMp4File* file, const Change& change, std::string* why) {
    const Assignment& a = change.assignment;
    const TagKey* tag = a.track == 0 ? findTagKey(a.key) : nullptr;
    MP4Err err = MP4_OK;
    if (change.remove) {
        err = Mp4RemoveTag(file, tag->code);
        // "genre" may also stand as an ID3 number ("gnre").
        if (a.key == "genre") {
            MP4Err second = Mp4RemoveTag(file, fourcc("gnre"));
            if (err == MP4_ERR_NOT_AVAILABLE) err = second;
        }
        if (err == MP4_ERR_NOT_AVAILABLE) err = MP4_OK;  // nothing to remove is no failure
    } else {
        const bool asset = a.key == "keywords" || findAssetKey(a.key) != nullptr;
        if (asset) err = applyAsset(file, a);
        if (err == MP4_OK && tag != nullptr && (!asset || takesItunesItems(file))) {
            uint32_t dataType = 0;
            std::vector<uint8_t> value;
            if (!tagValue(*tag, a.value, &dataType, &value, why)) return false;
            err = Mp4SetTag(file, tag->code, dataType, value.data(),
                            static_cast<uint32_t>(value.size()));
            if (err == MP4_OK && a.key == "genre") (void)Mp4RemoveTag(file, fourcc("gnre"));
        }
    }
    if (err != MP4_OK) *why = toString(err);
    return err == MP4_OK;
}

// Writes the changed file to target through the rewrite path, under a
// temporary name renamed at the end.
int writeCopy(CMp4File* file, const std::string& target) {
    OutputFile output;
    std::string error;
    std::wstring wide;
    if (!output.create(target, &error)) {
        std::fprintf(stderr, "quil: meta: %s\n", error.c_str());
        return kExitFailure;
    }
    MP4Err err = Mp4WidePathFromUtf8(output.temporaryPath().c_str(), &wide);
    if (err == MP4_OK) err = Mp4WriteCopy(file, wide.c_str());
    if (err != MP4_OK) {
        reportError(target.c_str(), err);
        return kExitFailure;
    }
    if (!output.commit(&error)) {
        std::fprintf(stderr, "quil: meta: %s\n", error.c_str());
        return kExitFailure;
    }
    return kExitOk;
}

int writeWithChanges(const char* path, const std::vector<Change>& changes, const char* out) {
    OpenedFile file;
    if (int status = openOrReport(&file, path)) return status;
    bool trackChanges = false;
    for (const Change& change : changes) {
        std::string why;
        if (!applyChange(file.get(), change, &why)) {
            std::fprintf(stderr, "quil: meta: %s %s: %s\n", change.remove ? "removing" : "setting",
                         change.assignment.key.c_str(), why.c_str());
            return kExitFailure;
        }
        trackChanges = trackChanges || change.assignment.track != 0;
    }
    if (out != nullptr) return writeCopy(file.get(), out);
    // No OUT: the file itself changes, in place when the movie's user data
    // still fits where it was, else through a rewritten copy renamed over it.
    if (!trackChanges) {
        MP4Err err = Mp4WriteUserDataInPlace(file.get());
        if (err == MP4_OK) return kExitOk;
        if (err != MP4_ERR_VALUE_TOO_LARGE) {
            reportError(path, err);
            return kExitFailure;
        }
    }
    return writeCopy(file.get(), path);
}

// The changes of the command line: "--set A=1 B=2" (further words after
// a --set are assignments too) and "--remove KEY".
int collectChanges(const Arguments& arguments, std::vector<std::string> words,
                   std::vector<Change>* changes) {
    for (const std::string& word : words) {
        Change change;
        if (!parseAssignment(word, &change.assignment)) {
            return usageError(std::string("--set takes [trackN.]KEY[:LANG]=VALUE with KEY one of ") +
                              kKeyList + " (tracks take the 3GPP keys only)");
        }
        changes->push_back(change);
    }
    for (const std::string& key : arguments.values("--remove")) {
        Change change;
        change.remove = true;
        change.assignment.key = key;
        if (findTagKey(key) == nullptr) {
            return usageError("--remove takes an iTunes key: title, artist, album, date, genre, "
                              "comment, composer, album_artist, encoder, track, disc, cover");
        }
        changes->push_back(change);
    }
    return kExitOk;
}

int metaCommand(const Arguments& arguments) {
    const char* path = arguments.operand(0);
    const bool json = arguments.has("--json");
    // The output: "-o OUT" (a word the option parser leaves as operands) or
    // "--out OUT"; further operands are assignments after a "--set".
    const char* out = arguments.value("--out");
    std::vector<std::string> words = arguments.values("--set");
    const size_t firstSet = words.size();
    const std::vector<std::string>& operands = arguments.operands();
    for (size_t i = 1; i < operands.size(); ++i) {
        if (operands[i] == "-o") {
            if (i + 1 >= operands.size()) return usageError("-o needs a value");
            out = operands[++i].c_str();
        } else {
            words.push_back(operands[i]);
        }
    }
    if (words.size() > firstSet && firstSet == 0) {
        return usageError("meta takes one FILE; assignments follow --set");
    }
    std::vector<Change> changes;
    if (int status = collectChanges(arguments, words, &changes)) return status;
    if (!changes.empty() || out) {
        if (changes.empty()) return usageError("-o OUT goes with --set or --remove");
        if (json) return usageError("--json lists; it does not go with --set or --remove");
        return writeWithChanges(path, changes, out);
    }
    OpenedFile file;
    if (int status = openOrReport(&file, path)) return status;
    std::vector<Item> items;
    MP4Err err = collectAll(file.get(), &items);
    if (err != MP4_OK) {
        reportError(path, err);
        return kExitFailure;
    }
    if (json) printJson(path, items);
    else printText(items);
    return kExitOk;
}

}  // namespace

const Command kMetaCommand = {
    "meta", "meta FILE [--json] [--set KEY=VALUE ...] [--remove KEY] [-o OUT]",
    "  meta     print every metadata item, one KEY[:LANG]=VALUE line each (\\n,\n"
    "           \\t and \\\\ stand for line breaks, tabs and backslashes): the\n"
    "           3GPP items of the movie and of each track (trackN.KEY), album\n"
    "           and year, the iTunes tags (itunes.KEY) and QuickTime text items\n"
    "           (quicktime.KEY); --json prints them as one JSON document.\n"
    "           --set [trackN.]KEY[:LANG]=VALUE (one or more) and --remove KEY\n"
    "           change items: iTunes tags title, artist, album, date, genre,\n"
    "           comment, composer, album_artist, encoder, track=N/M, disc=N/M,\n"
    "           cover=@IMAGE (JPEG or PNG); 3GPP items title, description,\n"
    "           copyright, performer, author, genre, keywords (a comma list;\n"
    "           LANG defaults to und). title and genre set both kinds (3GPP\n"
    "           files: the 3GPP item only). With -o OUT the changed file is\n"
    "           written to OUT; without, FILE is changed in place when its\n"
    "           user data fits where it was, else rewritten\n",
    {{"--json", false}, {"--set", true}, {"--remove", true}, {"--out", true}}, 1, SIZE_MAX,
    metaCommand,
};

}  // namespace tool
}  // namespace quil
