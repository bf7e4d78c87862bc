#include "PspBoxes.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "io/Dump.h"
#include "io/FourCC.h"

namespace quil {
namespace {

// Bytes after the known fields of a profile entry that are kept to be
// written back; a longer tail is not an entry any player writes.
constexpr uint64_t kMaxTrailingBytes = 4096;
constexpr uint64_t kMtdtEntryHeader = 10;  // size, type, language, encoding
constexpr uint32_t kPspFileProfile = 0x014D0015;

// ISO 639-2/T letters packed five bits each (ISO/IEC 14496-12 §8.4.2.3).
bool packLanguage(const char letters[3], uint16_t* packed) {
    uint16_t value = 0;
    for (int i = 0; i < 3; ++i) {
        if (letters[i] < 'a' || letters[i] > 'z') return false;
        value = static_cast<uint16_t>((value << 5) | (letters[i] - 0x60));
    }
    *packed = value;
    return true;
}

void unpackLanguage(uint16_t packed, char letters[3]) {
    for (int i = 0; i < 3; ++i) {
        letters[i] = static_cast<char>(((packed >> (10 - 5 * i)) & 31) + 0x60);
    }
}

// UTF-8 to UTF-16 code units; false for an invalid sequence.
bool utf8ToUtf16(const char* text, std::vector<uint16_t>* units) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    while (*p) {
        uint32_t code = *p++;
        int more = code < 0x80 ? 0 : (code >> 5) == 6 ? 1 : (code >> 4) == 14 ? 2
                                  : (code >> 3) == 30 ? 3 : -1;
        if (more < 0) return false;
        if (more > 0) code &= 0x3F >> more;
        for (int i = 0; i < more; ++i, ++p) {
            if ((*p & 0xC0) != 0x80) return false;
            code = (code << 6) | (*p & 0x3F);
        }
        if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        if (code >= 0x10000) {
            code -= 0x10000;
            units->push_back(static_cast<uint16_t>(0xD800 | (code >> 10)));
            units->push_back(static_cast<uint16_t>(0xDC00 | (code & 0x3FF)));
        } else {
            units->push_back(static_cast<uint16_t>(code));
        }
    }
    return true;
}

// For the dump: UTF-16BE bytes up to the terminator, non-ASCII as '?'.
std::string utf16ForDump(const std::vector<uint8_t>& data) {
    std::string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        const uint16_t unit = static_cast<uint16_t>(data[i] << 8 | data[i + 1]);
        if (unit == 0) break;
        text += unit >= 0x20 && unit < 0x7F ? static_cast<char>(unit) : '?';
    }
    return text;
}

MP4Err makeUserType(std::unique_ptr<uint8_t[]>* usertype, const uint8_t value[16]) {
    usertype->reset(new (std::nothrow) uint8_t[16]);
    if (!*usertype) return MP4_ERR_OUT_OF_MEMORY;
    std::memcpy(usertype->get(), value, 16);
    return MP4_OK;
}

const char* const kFprfNames[] = {"Profile", "Reserved"};
const char* const kVprfNames[] = {
    "Track ID", "#Codec", "Codec info", "Attributes", "Average bit rate",
    "Maximum bit rate", "%Average frame rate", "%Maximum frame rate", "*Size",
    "*Pixel aspect ratio"};
const char* const kAprfNames[] = {
    "Track ID", "#Codec", "Codec info", "Attributes", "Average bit rate",
    "Maximum bit rate", "Sample rate", "Channels"};

}  // namespace

// ---- profile entries --------------------------------------------------------

CPspProfileEntryBox::CPspProfileEntryBox(uint32_t boxType, const char* const* names,
                                         size_t count)
    : names_(names), fieldCount_(count < kMaxFields ? count : kMaxFields) {
    type = boxType;
}

CPspFprfBox::CPspFprfBox() : CPspProfileEntryBox(fourcc("FPRF"), kFprfNames, kFieldCount) {}
CPspVprfBox::CPspVprfBox() : CPspProfileEntryBox(fourcc("VPRF"), kVprfNames, kFieldCount) {}
CPspAprfBox::CPspAprfBox() : CPspProfileEntryBox(fourcc("APRF"), kAprfNames, kFieldCount) {}

MP4Err CPspProfileEntryBox::read(CStorage* storage) {
    if (remaining < 4) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    for (size_t i = 0; i < fieldCount_; ++i) {
        // A short entry keeps zeros in the fields it lacks.
        if (remaining < 4) return MP4_OK;
        err = storage->readUInt32(&fields_[i]);
        if (err != MP4_OK) return err;
        remaining -= 4;
    }
    if (remaining == 0 || remaining > kMaxTrailingBytes) return MP4_OK;
    trailing_.resize(static_cast<size_t>(remaining));
    err = storage->readBytes(trailing_.data(), remaining);
    if (err != MP4_OK) return err;
    remaining = 0;
    return MP4_OK;
}

MP4Err CPspProfileEntryBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    for (size_t i = 0; err == MP4_OK && i < fieldCount_; ++i) err = storage->writeUInt32(fields_[i]);
    if (err == MP4_OK && !trailing_.empty()) {
        err = storage->writeBytes(trailing_.data(), static_cast<int32_t>(trailing_.size()));
    }
    return err;
}

MP4Err CPspProfileEntryBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + 4 * fieldCount_ + trailing_.size();
    return MP4_OK;
}

MP4Err CPspProfileEntryBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    for (size_t i = 0; i < fieldCount_; ++i) {
        const char* name = names_[i];
        const uint32_t v = fields_[i];
        switch (name[0]) {
            case '#':
                dumpLine(depth, "%s = %c%c%c%c\n", name + 1, shownCodeChar(v, 0), shownCodeChar(v, 1),
                         shownCodeChar(v, 2), shownCodeChar(v, 3));
                break;
            case '%': dumpLine(depth, "%s = %u.%02u\n", name + 1, v >> 16, (v & 0xFFFF) * 100 / 65536); break;
            case '*': dumpLine(depth, "%s = %u x %u\n", name + 1, v >> 16, v & 0xFFFF); break;
            default: dumpLine(depth, "%s = %u (0x%08x)\n", name, v, v); break;
        }
    }
    return MP4_OK;
}

// ---- "uuid" PROF ----------------------------------------------------------------

const uint8_t CPspProfBox::kUserType[16] = {0x50, 0x52, 0x4F, 0x46, 0x21, 0xD2, 0x4F, 0xCE,
                                            0xBB, 0x88, 0x69, 0x5C, 0xFA, 0xC9, 0xC7, 0x40};

CPspProfBox::CPspProfBox() {
    type = fourcc("uuid");
    // Without the user type (out of memory) writing fails with 5.
    (void)makeUserType(&usertype, kUserType);
}

MP4Err CPspProfBox::read(CStorage* storage) {
    if (remaining < 8) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = readVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->readUInt32(&entryCount);
    if (err != MP4_OK) return err;
    remaining -= 4;
    err = startChildList(&entries, this);
    if (err != MP4_OK) return err;
    return readChildren(entries.get(), storage, &remaining);
}

MP4Err CPspProfBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(entryCount);
    if (err == MP4_OK && entries) err = writeChildren(entries.get(), storage);
    return err;
}

MP4Err CPspProfBox::calculateSize() {
    CBox::calculateSize();
    uint64_t total = size + 8;
    MP4Err err = entries ? addChildrenSizes(entries.get(), &total) : MP4_OK;
    size = total;
    return err;
}

MP4Err CPspProfBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Entry count = %u\n", entryCount);
    return entries ? dumpChildrenInBraces(entries.get(), depth) : MP4_OK;
}

MP4Err CPspProfBox::findChild(uint32_t wanted, CBox** box, uint32_t instance) {
    return findInChildList(entries.get(), wanted, box, instance);
}

MP4Err CPspProfBox::addChild(CBox* box) {
    MP4Err err = appendToChildList(&entries, this, box);
    if (err == MP4_OK) ++entryCount;
    return err;
}

namespace {

template <class Entry>
MP4Err addEntry(CPspProfBox* prof, Entry** added) {
    std::unique_ptr<Entry> entry(new (std::nothrow) Entry());
    if (!entry) return MP4_ERR_OUT_OF_MEMORY;
    *added = entry.get();
    MP4Err err = prof->addChild(entry.get());
    if (err == MP4_OK) entry.release();
    return err;
}

}  // namespace

MP4Err CPspProfBox::addFileProfile(uint32_t profile, bool) {
    CPspFprfBox* entry = nullptr;
    MP4Err err = addEntry(this, &entry);
    if (err == MP4_OK) entry->setField(CPspFprfBox::kProfile, profile);
    return err;
}

// Video and audio entries start with zeros: the stream properties are not
// known when the profile box is written, before the media data.
MP4Err CPspProfBox::addVideoProfile(bool) {
    CPspVprfBox* entry = nullptr;
    return addEntry(this, &entry);
}

MP4Err CPspProfBox::addAudioProfile(bool) {
    CPspAprfBox* entry = nullptr;
    return addEntry(this, &entry);
}

// ---- "uuid" USMT and MTDT --------------------------------------------------------

const uint8_t CPspUsmtBox::kUserType[16] = {0x55, 0x53, 0x4D, 0x54, 0x21, 0xD2, 0x4F, 0xCE,
                                            0xBB, 0x88, 0x69, 0x5C, 0xFA, 0xC9, 0xC7, 0x40};

CPspUsmtBox::CPspUsmtBox() {
    type = fourcc("uuid");
    (void)makeUserType(&usertype, kUserType);
}

MP4Err CPspMtdtBox::read(CStorage* storage) {
    if (remaining < 2) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = storage->readUInt16(&entryCount);
    if (err != MP4_OK) return err;
    remaining -= 2;
    for (uint16_t n = 0; n < entryCount; ++n) {
        // Each entry is checked against the bytes left before its data is
        // allocated; one that does not fit ends the table.
        if (remaining < kMtdtEntryHeader) break;
        uint16_t entrySize = 0, language = 0;
        PspMetadataEntry entry;
        err = storage->readUInt16(&entrySize);
        if (err != MP4_OK) return err;
        remaining -= 2;
        if (entrySize < kMtdtEntryHeader || entrySize - 2u > remaining) {
            trailing.push_back(static_cast<uint8_t>(entrySize >> 8));
            trailing.push_back(static_cast<uint8_t>(entrySize));
            break;
        }
        err = storage->readUInt32(&entry.type);
        if (err == MP4_OK) err = storage->readUInt16(&language);
        if (err == MP4_OK) err = storage->readUInt16(&entry.encoding);
        if (err != MP4_OK) return err;
        unpackLanguage(language, entry.language);
        entry.data.resize(entrySize - kMtdtEntryHeader);
        if (!entry.data.empty()) {
            err = storage->readBytes(entry.data.data(), entry.data.size());
            if (err != MP4_OK) return err;
        }
        remaining -= entrySize - 2u;
        entries.push_back(std::move(entry));
    }
    return readTrailing(storage);
}

MP4Err CPspMtdtBox::readTrailing(CStorage* storage) {
    if (remaining == 0 || remaining > kMaxTrailingBytes) return MP4_OK;
    const size_t kept = trailing.size();
    trailing.resize(kept + static_cast<size_t>(remaining));
    MP4Err err = storage->readBytes(trailing.data() + kept, remaining);
    if (err == MP4_OK) remaining = 0;
    return err;
}

MP4Err CPspMtdtBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = storage->writeUInt16(entryCount);
    for (const PspMetadataEntry& entry : entries) {
        const uint64_t entrySize = kMtdtEntryHeader + entry.data.size();
        if (err == MP4_OK && entrySize > UINT16_MAX) err = MP4_ERR_VALUE_TOO_LARGE;
        uint16_t language = 0;
        if (err == MP4_OK && !packLanguage(entry.language, &language)) err = MP4_ERR_INVALID_DATA;
        if (err == MP4_OK) err = storage->writeUInt16(static_cast<uint16_t>(entrySize));
        if (err == MP4_OK) err = storage->writeUInt32(entry.type);
        if (err == MP4_OK) err = storage->writeUInt16(language);
        if (err == MP4_OK) err = storage->writeUInt16(entry.encoding);
        if (err == MP4_OK && !entry.data.empty()) {
            err = storage->writeBytes(entry.data.data(), static_cast<int32_t>(entry.data.size()));
        }
    }
    if (err == MP4_OK && !trailing.empty()) {
        err = storage->writeBytes(trailing.data(), static_cast<int32_t>(trailing.size()));
    }
    return err;
}

MP4Err CPspMtdtBox::calculateSize() {
    CBox::calculateSize();
    size += 2;
    for (const PspMetadataEntry& entry : entries) size += kMtdtEntryHeader + entry.data.size();
    size += trailing.size();
    return MP4_OK;
}

MP4Err CPspMtdtBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Entry count = %u\n", static_cast<uint32_t>(entryCount));
    for (const PspMetadataEntry& entry : entries) {
        dumpLine(depth, "Type = %u, Language = %c%c%c, Encoding = %u, Data size = %u\n",
                 entry.type, entry.language[0], entry.language[1], entry.language[2],
                 static_cast<uint32_t>(entry.encoding), static_cast<uint32_t>(entry.data.size()));
        if (entry.encoding == kUtf16) {
            dumpLine(depth, "  Text: %s\n", utf16ForDump(entry.data).c_str());
        } else {
            printIndent(depth);
            printf("  Data:");
            for (uint8_t byte : entry.data) printf(" %02x", byte);
            printf("\n");
        }
    }
    return MP4_OK;
}

MP4Err CPspMtdtBox::addText(uint32_t entryType, const char language[3], const char* text) {
    PspMetadataEntry entry;
    uint16_t packed = 0;
    if (!text || !packLanguage(language, &packed)) return MP4_ERR_INVALID_ARGUMENT;
    std::vector<uint16_t> units;
    if (!utf8ToUtf16(text, &units)) return MP4_ERR_INVALID_ARGUMENT;
    units.push_back(0);
    if (kMtdtEntryHeader + 2 * units.size() > UINT16_MAX || entryCount == UINT16_MAX) {
        return MP4_ERR_VALUE_TOO_LARGE;
    }
    entry.type = entryType;
    std::memcpy(entry.language, language, 3);
    entry.encoding = kUtf16;
    for (uint16_t unit : units) {
        entry.data.push_back(static_cast<uint8_t>(unit >> 8));
        entry.data.push_back(static_cast<uint8_t>(unit));
    }
    entries.push_back(std::move(entry));
    ++entryCount;
    return MP4_OK;
}

// ---- the writer's steps ------------------------------------------------------

MP4Err makePspProfileBox(bool xavc, std::unique_ptr<CBox>* box) {
    std::unique_ptr<CPspProfBox> prof(new (std::nothrow) CPspProfBox());
    if (!prof || !prof->usertype) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = prof->addFileProfile(kPspFileProfile, xavc);
    if (err == MP4_OK) err = prof->addVideoProfile(xavc);
    if (err == MP4_OK) err = prof->addAudioProfile(xavc);
    if (err != MP4_OK) return err;
    *box = std::move(prof);
    return MP4_OK;
}

namespace {

// A USMT holding an MTDT that the caller fills.
MP4Err makeUserMetadata(std::unique_ptr<CPspUsmtBox>* usmt, CPspMtdtBox** table) {
    usmt->reset(new (std::nothrow) CPspUsmtBox());
    if (!*usmt || !(*usmt)->usertype) return MP4_ERR_OUT_OF_MEMORY;
    std::unique_ptr<CPspMtdtBox> mtdt(new (std::nothrow) CPspMtdtBox());
    if (!mtdt) return MP4_ERR_OUT_OF_MEMORY;
    *table = mtdt.get();
    MP4Err err = (*usmt)->addChild(mtdt.get());
    if (err == MP4_OK) mtdt.release();
    return err;
}

// Whether the box already holds user metadata: a close that failed runs
// its steps again and must not add a second one.
bool hasUserMetadata(CBox* owner) {
    for (uint32_t n = 1;; ++n) {
        CBox* box = nullptr;
        if (owner->findChild(fourcc("uuid"), &box, n) != MP4_OK) return false;
        if (dynamic_cast<CPspUsmtBox*>(box)) return true;
    }
}

MP4Err appendTo(CBox* parent, std::unique_ptr<CPspUsmtBox> usmt) {
    MP4Err err = parent->addChild(usmt.get());
    if (err == MP4_OK) usmt.release();
    return err;
}

// Seconds since 1904 of the present time, for a movie without a creation time.
uint64_t now1904() {
    constexpr uint64_t kSeconds1904To1970 = 2082844800ull;
    const std::time_t t = std::time(nullptr);
    return t > 0 ? kSeconds1904To1970 + static_cast<uint64_t>(t) : kSeconds1904To1970;
}

}  // namespace

MP4Err addPspMovieMetadata(CBox* moov, uint64_t creationTime) {
    if (!moov) return MP4_ERR_INVALID_ARGUMENT;
    if (hasUserMetadata(moov)) return MP4_OK;
    uint32_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!secondsToDate(creationTime != 0 ? creationTime : now1904(), &year, &month, &day, &hour,
                       &minute, &second)) {
        return MP4_ERR_INVALID_DATA;
    }
    char date[64];
    std::snprintf(date, sizeof date, "%04u/%02u/%02u %02u:%02u:%02u", year, month, day, hour,
                  minute, second);
    std::unique_ptr<CPspUsmtBox> usmt;
    CPspMtdtBox* table = nullptr;
    MP4Err err = makeUserMetadata(&usmt, &table);
    if (err == MP4_OK) err = table->addText(CPspMtdtBox::kTitle, "jpn", "");
    if (err == MP4_OK) err = table->addText(CPspMtdtBox::kCreationDate, "und", date);
    if (err != MP4_OK) return err;
    return appendTo(moov, std::move(usmt));
}

MP4Err addPspTrackMetadata(CBox* moov) {
    if (!moov) return MP4_ERR_INVALID_ARGUMENT;
    for (uint32_t n = 1;; ++n) {
        CBox* trak = nullptr;
        MP4Err err = moov->findChild(fourcc("trak"), &trak, n);
        if (err == MP4_ERR_NOT_AVAILABLE) return MP4_OK;
        if (err != MP4_OK) return err;
        if (hasUserMetadata(trak)) continue;
        std::unique_ptr<CPspUsmtBox> usmt;
        CPspMtdtBox* table = nullptr;
        err = makeUserMetadata(&usmt, &table);
        if (err == MP4_OK) err = table->addText(CPspMtdtBox::kTitle, "jpn", "");
        if (err == MP4_OK) err = appendTo(trak, std::move(usmt));
        if (err != MP4_OK) return err;
    }
}

}  // namespace quil
