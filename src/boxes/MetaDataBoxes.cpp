#include "MetaDataBoxes.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "io/Dump.h"
#include "io/FourCC.h"

namespace quil {
namespace {

// The packed ISO 639-2/T code: a zero pad bit, then three 5-bit codes.
uint16_t packLanguage(const uint8_t codes[3]) {
    return static_cast<uint16_t>(((codes[0] * 32u + codes[1]) * 32u + codes[2]) & 0xFFFF);
}

void unpackLanguage(uint16_t packed, uint8_t codes[3]) {
    codes[0] = (packed >> 10) & 31;
    codes[1] = (packed >> 5) & 31;
    codes[2] = packed & 31;
}

bool isUtf16(const uint8_t* bytes, uint32_t count) {
    return count >= 2 && ((bytes[0] == 0xFE && bytes[1] == 0xFF) ||
                          (bytes[0] == 0xFF && bytes[1] == 0xFE));
}

// A copy of count bytes followed by two hidden zeros, so that both UTF-8
// and UTF-16 texts end within the buffer whatever the file holds.
MP4Err copyWithHiddenZeros(const uint8_t* bytes, uint32_t count,
                           std::unique_ptr<uint8_t[]>* out) {
    std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[uint64_t{count} + 2]);
    if (!copy) return MP4_ERR_OUT_OF_MEMORY;
    if (count > 0) std::memcpy(copy.get(), bytes, count);
    copy[count] = 0;
    copy[uint64_t{count} + 1] = 0;
    *out = std::move(copy);
    return MP4_OK;
}

// Reads the rest of a payload (at most 4 GiB, and never more than the box
// holds) into a buffer with hidden zeros.
MP4Err readPayloadTail(CStorage* storage, CBox* box, std::unique_ptr<uint8_t[]>* out,
                       uint32_t* count) {
    if (box->remaining > box->size || box->remaining > UINT32_MAX) return MP4_ERR_BAD_BOX_SIZE;
    const uint32_t length = static_cast<uint32_t>(box->remaining);
    std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[uint64_t{length} + 2]);
    if (!bytes) return MP4_ERR_OUT_OF_MEMORY;
    if (length > 0) {
        MP4Err err = storage->readBlock(bytes.get(), length);
        if (err != MP4_OK) return err;
    }
    bytes[length] = 0;
    bytes[uint64_t{length} + 1] = 0;
    box->remaining = 0;
    *out = std::move(bytes);
    *count = length;
    return MP4_OK;
}

// Appends to a vector, turning a failed allocation into code 1.
template <class T, class V>
MP4Err appendTo(std::vector<T>* list, V&& value) {
    try {
        list->push_back(std::forward<V>(value));
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

}  // namespace

// ---- asset boxes ------------------------------------------------------------

uint32_t CAssetMetaDataBox::textLength() const {
    if (!text) return 0;
    const uint8_t* bytes = text.get();
    if (isUtf16(bytes, textCapacity)) {
        uint32_t n = 2;
        while (n + 1 < textCapacity && (bytes[n] != 0 || bytes[n + 1] != 0)) n += 2;
        return n < textCapacity ? n : textCapacity;
    }
    uint32_t n = 0;
    while (n < textCapacity && bytes[n] != 0) ++n;
    return n;
}

uint32_t CAssetMetaDataBox::terminatorLength() const {
    return text && isUtf16(text.get(), textCapacity) ? 2 : 1;
}

void CAssetMetaDataBox::languageLetters(char letters[3]) const {
    for (int i = 0; i < 3; ++i) letters[i] = static_cast<char>(language[i] + 0x60);
}

MP4Err CAssetMetaDataBox::readLanguage(CStorage* storage) {
    uint16_t packed = 0;
    MP4Err err = storage->readUInt16(&packed);
    if (err != MP4_OK) return err;
    remaining -= 2;
    unpackLanguage(packed, language);
    return MP4_OK;
}

MP4Err CAssetMetaDataBox::writeLanguage(CStorage* storage) {
    return storage->writeUInt16(packLanguage(language));
}

void CAssetMetaDataBox::dumpLanguage(int32_t depth) {
    char letters[3];
    languageLetters(letters);
    dumpLine(depth, "Language Code: %c%c%c\n", letters[0], letters[1], letters[2]);
}

MP4Err CAssetMetaDataBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err == MP4_OK) err = readLeadingFields(storage);
    if (err == MP4_OK) err = readLanguage(storage);
    if (err != MP4_OK) return err;
    text.reset();
    textCapacity = 0;
    // The fixed fields already ran past a box too short for them.
    if (remaining > size) return MP4_ERR_BAD_BOX_SIZE;
    if (remaining == 0) return MP4_OK;
    return readPayloadTail(storage, this, &text, &textCapacity);
}

MP4Err CAssetMetaDataBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = writeLeadingFields(storage);
    if (err == MP4_OK) err = writeLanguage(storage);
    if (err != MP4_OK || !text) return err;
    // The text and its terminator; bytes after the terminator are dropped.
    // The hidden zeros supply a terminator the stored bytes lack.
    const uint32_t count = textLength() + terminatorLength();
    return storage->writeBytes(text.get(), static_cast<int32_t>(count));
}

MP4Err CAssetMetaDataBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLeadingFields(depth);
    dumpLanguage(depth);
    dumpLine(depth, "Text: %s\n", text ? reinterpret_cast<const char*>(text.get()) : "");
    return MP4_OK;
}

MP4Err CAssetMetaDataBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + leadingFieldsSize() + 2;
    if (text) size += textLength() + terminatorLength();
    return MP4_OK;
}

MP4Err CAssetMetaDataBox::setData(const uint8_t letters[3], const uint8_t* newText,
                                  uint32_t length) {
    if (!letters) return MP4_ERR_INVALID_ARGUMENT;
    for (int i = 0; i < 3; ++i) {
        if (letters[i] < 'a') return MP4_ERR_INVALID_ARGUMENT;
    }
    std::unique_ptr<uint8_t[]> copy;
    if (newText && length != 0) {
        MP4Err err = copyWithHiddenZeros(newText, length, &copy);
        if (err != MP4_OK) return err;
    }
    // Letters above "z" still give a 5-bit code: keep only those bits.
    for (int i = 0; i < 3; ++i) language[i] = static_cast<uint8_t>((letters[i] - 0x60) & 31);
    text = std::move(copy);
    textCapacity = text ? length : 0;
    return MP4_OK;
}

MP4Err CAssetMetaDataBox::getData(uint8_t letters[3], uint8_t* out) {
    if (!letters) return MP4_ERR_INVALID_ARGUMENT;
    languageLetters(reinterpret_cast<char*>(letters));
    if (!out) return MP4_OK;
    if (!text) {
        out[0] = 0;
        return MP4_OK;
    }
    const uint32_t count = textLength();
    std::memcpy(out, text.get(), count);
    std::memset(out + count, 0, terminatorLength());
    return MP4_OK;
}

MP4Err CAssetMetaDataBox::getTextLength(uint32_t* length) {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = text ? textLength() + terminatorLength() : 1;
    return MP4_OK;
}

// ---- "rtng" and "clsf" ------------------------------------------------------

MP4Err CRatingBox::readLeadingFields(CStorage* storage) {
    MP4Err err = storage->readUInt32(&ratingEntity);
    if (err == MP4_OK) err = storage->readUInt32(&ratingCriteria);
    if (err == MP4_OK) remaining -= 8;
    return err;
}

MP4Err CRatingBox::writeLeadingFields(CStorage* storage) {
    MP4Err err = storage->writeUInt32(ratingEntity);
    return err == MP4_OK ? storage->writeUInt32(ratingCriteria) : err;
}

void CRatingBox::dumpLeadingFields(int32_t depth) {
    dumpLine(depth, "Rating Entity: %c%c%c%c\n", codeChar(ratingEntity, 0),
             codeChar(ratingEntity, 1), codeChar(ratingEntity, 2), codeChar(ratingEntity, 3));
    dumpLine(depth, "Rating Criteria: %c%c%c%c\n", codeChar(ratingCriteria, 0),
             codeChar(ratingCriteria, 1), codeChar(ratingCriteria, 2),
             codeChar(ratingCriteria, 3));
}

MP4Err CClassificationBox::readLeadingFields(CStorage* storage) {
    MP4Err err = storage->readUInt32(&classificationEntity);
    if (err == MP4_OK) err = storage->readUInt16(&classificationTable);
    if (err == MP4_OK) remaining -= 6;
    return err;
}

MP4Err CClassificationBox::writeLeadingFields(CStorage* storage) {
    MP4Err err = storage->writeUInt32(classificationEntity);
    return err == MP4_OK ? storage->writeUInt16(classificationTable) : err;
}

void CClassificationBox::dumpLeadingFields(int32_t depth) {
    dumpLine(depth, "Classification Entity: %c%c%c%c\n", codeChar(classificationEntity, 0),
             codeChar(classificationEntity, 1), codeChar(classificationEntity, 2),
             codeChar(classificationEntity, 3));
    dumpLine(depth, "Classification Table: %d\n", static_cast<int32_t>(classificationTable));
}

// ---- "kywd" -----------------------------------------------------------------

MP4Err CKeywordBox::appendKeyword(const uint8_t* bytes, uint8_t length) {
    Keyword keyword;
    keyword.length = length;
    MP4Err err = copyWithHiddenZeros(bytes, length, &keyword.bytes);
    if (err != MP4_OK) return err;
    return appendTo(&keywords, std::move(keyword));
}

MP4Err CKeywordBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    uint16_t packed = 0;
    if (err == MP4_OK) err = storage->readUInt16(&packed);
    if (err == MP4_OK) err = storage->readUInt8(&keywordCount);
    if (err != MP4_OK) return err;
    remaining -= 3;
    unpackLanguage(packed, language);
    keywords.clear();
    // Each keyword is checked against the bytes left before it is
    // allocated, so a damaged count cannot make us allocate anything.
    uint8_t scratch[255];
    for (uint32_t i = 0; i < keywordCount; ++i) {
        if (remaining == 0 || remaining > size) return MP4_ERR_BAD_BOX_SIZE;
        uint8_t length = 0;
        err = storage->readUInt8(&length);
        if (err != MP4_OK) return err;
        remaining -= 1;
        if (length > remaining) return MP4_ERR_BAD_BOX_SIZE;
        if (length > 0) {
            err = storage->readBlock(scratch, length);
            if (err != MP4_OK) return err;
            remaining -= length;
        }
        err = appendKeyword(scratch, length);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CKeywordBox::write(CStorage* storage) {
    if (keywords.size() < keywordCount) return MP4_ERR_INVALID_DATA;
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt16(packLanguage(language));
    if (err == MP4_OK) err = storage->writeUInt8(keywordCount);
    for (uint32_t i = 0; err == MP4_OK && i < keywordCount; ++i) {
        const Keyword& keyword = keywords[i];
        err = storage->writeUInt8(keyword.length);
        if (err == MP4_OK && keyword.length > 0) {
            err = storage->writeBytes(keyword.bytes.get(), keyword.length);
        }
    }
    return err;
}

MP4Err CKeywordBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Language Code: %c%c%c\n", language[0] + 0x60, language[1] + 0x60,
             language[2] + 0x60);
    dumpLine(depth, "Keyword Count: %d\n", static_cast<int32_t>(keywordCount));
    dumpLine(depth, "Keywords:");
    for (size_t i = 0; i < keywords.size(); ++i) {
        const bool last = i + 1 == keywords.size();
        std::printf(last ? "%s (%d char)\n" : "%s (%d char), ",
                    reinterpret_cast<const char*>(keywords[i].bytes.get()),
                    static_cast<int32_t>(keywords[i].length));
    }
    return MP4_OK;
}

MP4Err CKeywordBox::calculateSize() {
    if (keywords.size() < keywordCount) return MP4_ERR_INVALID_DATA;
    CBox::calculateSize();
    size += 4 + 2 + 1;
    for (uint32_t i = 0; i < keywordCount; ++i) size += keywords[i].length + 1u;
    return MP4_OK;
}

// ---- "pinf" -----------------------------------------------------------------

MP4Err CPurchaseInformationBox::read(CStorage* storage) {
    MP4Err err = storage->skip(remaining);
    if (err == MP4_OK) remaining = 0;
    return err;
}

MP4Err CPurchaseInformationBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth,
             "PurchaseInformation Box is only used by M4A files from Apple's iTunes store.\n");
    return MP4_OK;
}

// ---- "pdin" -----------------------------------------------------------------

MP4Err CProgressiveDownloadInfoBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    entries.clear();
    // Entries are appended one read at a time; a partial entry at the end
    // is left for the factory to skip.
    while (remaining >= 8 && remaining <= size) {
        Entry entry{};
        err = storage->readUInt32(&entry.rate);
        if (err == MP4_OK) err = storage->readUInt32(&entry.initialDelay);
        if (err != MP4_OK) return err;
        remaining -= 8;
        err = appendTo(&entries, entry);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CProgressiveDownloadInfoBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    for (const Entry& entry : entries) {
        if (err == MP4_OK) err = storage->writeUInt32(entry.rate);
        if (err == MP4_OK) err = storage->writeUInt32(entry.initialDelay);
    }
    return err;
}

MP4Err CProgressiveDownloadInfoBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Entry Count: %u\n", static_cast<uint32_t>(entries.size()));
    for (const Entry& entry : entries) {
        dumpLine(depth, "Rate: %u bytes/s, Initial Delay: %u ms\n", entry.rate,
                 entry.initialDelay);
    }
    return MP4_OK;
}

MP4Err CProgressiveDownloadInfoBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + 8 * static_cast<uint64_t>(entries.size());
    return MP4_OK;
}

// ---- "tsel" -----------------------------------------------------------------

MP4Err CTrackSelectionBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->readInt32(&switchGroup);
    if (err != MP4_OK) return err;
    remaining -= 4;
    attributes.clear();
    while (remaining >= 4 && remaining <= size) {
        uint32_t attribute = 0;
        err = storage->readUInt32(&attribute);
        if (err != MP4_OK) return err;
        remaining -= 4;
        err = appendTo(&attributes, attribute);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CTrackSelectionBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeInt32(switchGroup);
    for (uint32_t attribute : attributes) {
        if (err == MP4_OK) err = storage->writeUInt32(attribute);
    }
    return err;
}

MP4Err CTrackSelectionBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Switch Group: %d\n", switchGroup);
    dumpLine(depth, "Attributes:");
    for (uint32_t attribute : attributes) {
        std::printf(" %c%c%c%c", codeChar(attribute, 0), codeChar(attribute, 1),
                    codeChar(attribute, 2), codeChar(attribute, 3));
    }
    std::printf("\n");
    return MP4_OK;
}

MP4Err CTrackSelectionBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + 4 + 4 * static_cast<uint64_t>(attributes.size());
    return MP4_OK;
}

}  // namespace quil
