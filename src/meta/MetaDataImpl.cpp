#include "MetaDataImpl.h"

#include <cstring>
#include <memory>
#include <new>

#include "boxes/Box.h"
#include "boxes/MetaDataBoxes.h"
#include "boxes/MovieBoxes.h"

namespace quil {
namespace {

const uint8_t kUndetermined[3] = {'u', 'n', 'd'};

bool validLanguage(const uint8_t* language) {
    return language && language[0] >= 'a' && language[1] >= 'a' && language[2] >= 'a';
}

uint32_t codeOf(const char chars[4]) {
    uint32_t code = 0;
    for (int i = 0; i < 4; ++i) code = (code << 8) | static_cast<uint8_t>(chars[i]);
    return code;
}

void charsOf(uint32_t code, uint8_t out[4]) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(code >> (24 - 8 * i));
}

// The three letters of an asset or keyword box; false for any other box.
bool languageOf(CBox* box, uint8_t letters[3]) {
    if (auto* asset = dynamic_cast<CAssetMetaDataBox*>(box)) {
        asset->languageLetters(reinterpret_cast<char*>(letters));
        return true;
    }
    if (auto* keywords = dynamic_cast<CKeywordBox*>(box)) {
        for (int i = 0; i < 3; ++i) letters[i] = static_cast<uint8_t>(keywords->language[i] + 0x60);
        return true;
    }
    return false;
}

CBox* makeMetaDataBox(uint32_t type) {
    switch (type) {
        case fourcc("titl"): return new (std::nothrow) CTitleBox();
        case fourcc("dscp"): return new (std::nothrow) CDescriptionBox();
        case fourcc("cprt"): return new (std::nothrow) CCopyrightBox();
        case fourcc("perf"): return new (std::nothrow) CPerformerBox();
        case fourcc("auth"): return new (std::nothrow) CAuthorBox();
        case fourcc("gnre"): return new (std::nothrow) CGenreBox();
        case fourcc("rtng"): return new (std::nothrow) CRatingBox();
        case fourcc("clsf"): return new (std::nothrow) CClassificationBox();
        case fourcc("kywd"): return new (std::nothrow) CKeywordBox();
        default: return nullptr;
    }
}

// A new box starts as header plus version and flags.
MP4Err addNewBox(CBox* udta, uint32_t type, CBox** box) {
    std::unique_ptr<CBox> made(makeMetaDataBox(type));
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    made->size = 12;
    MP4Err err = udta->addChild(made.get());
    if (err != MP4_OK) return err;
    *box = made.release();
    return MP4_OK;
}

}  // namespace

bool hasLanguage(const uint8_t* language) { return language != nullptr && language[0] != 0; }

// ---- finding boxes ----------------------------------------------------------

MP4Err CMp4MetaDataImpl::findByLanguage(uint32_t type, const uint8_t* language, CBox** box) {
    CBoxList* list = udta_->childList();
    if (!list) return MP4_ERR_NOT_AVAILABLE;
    // One walk over the children in order: the first box of the type with
    // that language wins, as a lookup instance by instance would find.
    for (CBoxList::Node* node = list->head(); node; node = node->next) {
        uint8_t letters[3];
        if (node->box->type != type || !languageOf(node->box, letters)) continue;
        if (std::memcmp(letters, language, 3) == 0) {
            *box = node->box;
            return MP4_OK;
        }
    }
    return MP4_ERR_NOT_AVAILABLE;
}

MP4Err CMp4MetaDataImpl::findBox(uint32_t type, const uint8_t* language, uint32_t index,
                                 CBox** box) {
    *box = nullptr;
    if (!udta_) return MP4_ERR_INVALID_DATA;
    if (hasLanguage(language)) return findByLanguage(type, language, box);
    MP4Err err = udta_->findChild(type, box, index);
    if (err != MP4_OK) return err;
    return *box ? MP4_OK : MP4_ERR_INVALID_DATA;
}

MP4Err CMp4MetaDataImpl::findOrAdd(uint32_t type, const uint8_t* language, CBox** box) {
    *box = nullptr;
    if (!udta_) return MP4_ERR_INVALID_DATA;
    // Checked before anything is added, so a refused call leaves no box.
    if (!validLanguage(language)) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = findByLanguage(type, language, box);
    if (err == MP4_ERR_NOT_AVAILABLE) return addNewBox(udta_, type, box);
    if (err != MP4_OK || !(*box)->writesAsRead()) return err;
    // A damaged box would be written back as it was read, dropping the new
    // value: a fresh box takes its place.
    std::unique_ptr<CBox> fresh(makeMetaDataBox(type));
    if (!fresh) return MP4_ERR_OUT_OF_MEMORY;
    fresh->size = 12;
    err = udta_->childList()->replace(*box, fresh.get());
    if (err != MP4_OK) return err;
    delete *box;
    *box = fresh.release();
    return MP4_OK;
}

// ---- text items -------------------------------------------------------------

MP4Err CMp4MetaDataImpl::getText(uint32_t type, uint8_t* text, uint32_t* length,
                                 uint8_t* language, uint32_t index, CAssetMetaDataBox** found) {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    CBox* box = nullptr;
    MP4Err err = findBox(type, language, index, &box);
    if (err != MP4_OK) return err;
    auto* asset = dynamic_cast<CAssetMetaDataBox*>(box);
    if (!asset) return MP4_ERR_INVALID_DATA;
    err = asset->getTextLength(length);
    if (err != MP4_OK) return err;
    // The caller's buffer is not checked against the length: it first asks
    // with a null buffer, then passes a buffer of that size.
    uint8_t letters[3];
    err = asset->getData(letters, text);
    if (err != MP4_OK) return err;
    if (language) std::memcpy(language, letters, 3);
    if (found) *found = asset;
    return MP4_OK;
}

MP4Err CMp4MetaDataImpl::setText(uint32_t type, const uint8_t* text, uint32_t length,
                                 const uint8_t* language, CAssetMetaDataBox** set) {
    CBox* box = nullptr;
    MP4Err err = findOrAdd(type, language, &box);
    if (err != MP4_OK) return err;
    auto* asset = dynamic_cast<CAssetMetaDataBox*>(box);
    if (!asset) return MP4_ERR_INVALID_DATA;
    err = asset->setData(language, text, length);
    if (err == MP4_OK && set) *set = asset;
    return err;
}

MP4Err CMp4MetaDataImpl::getTitle(uint8_t* text, uint32_t* length, uint8_t language[3],
                                  uint32_t index) {
    return getText(fourcc("titl"), text, length, language, index, nullptr);
}
MP4Err CMp4MetaDataImpl::getDescription(uint8_t* text, uint32_t* length, uint8_t language[3],
                                        uint32_t index) {
    return getText(fourcc("dscp"), text, length, language, index, nullptr);
}
MP4Err CMp4MetaDataImpl::getCopyright(uint8_t* text, uint32_t* length, uint8_t language[3],
                                      uint32_t index) {
    return getText(fourcc("cprt"), text, length, language, index, nullptr);
}
MP4Err CMp4MetaDataImpl::getPerformer(uint8_t* text, uint32_t* length, uint8_t language[3],
                                      uint32_t index) {
    return getText(fourcc("perf"), text, length, language, index, nullptr);
}
MP4Err CMp4MetaDataImpl::getAuthor(uint8_t* text, uint32_t* length, uint8_t language[3],
                                   uint32_t index) {
    return getText(fourcc("auth"), text, length, language, index, nullptr);
}
MP4Err CMp4MetaDataImpl::getGenre(uint8_t* text, uint32_t* length, uint8_t language[3],
                                  uint32_t index) {
    return getText(fourcc("gnre"), text, length, language, index, nullptr);
}

MP4Err CMp4MetaDataImpl::setTitle(const uint8_t* text, uint32_t length,
                                  const uint8_t language[3]) {
    return setText(fourcc("titl"), text, length, language, nullptr);
}
MP4Err CMp4MetaDataImpl::setDescription(const uint8_t* text, uint32_t length,
                                        const uint8_t language[3]) {
    return setText(fourcc("dscp"), text, length, language, nullptr);
}
MP4Err CMp4MetaDataImpl::setCopyright(const uint8_t* text, uint32_t length,
                                      const uint8_t language[3]) {
    return setText(fourcc("cprt"), text, length, language, nullptr);
}
MP4Err CMp4MetaDataImpl::setPerformer(const uint8_t* text, uint32_t length,
                                      const uint8_t language[3]) {
    return setText(fourcc("perf"), text, length, language, nullptr);
}
MP4Err CMp4MetaDataImpl::setAuthor(const uint8_t* text, uint32_t length,
                                   const uint8_t language[3]) {
    return setText(fourcc("auth"), text, length, language, nullptr);
}
MP4Err CMp4MetaDataImpl::setGenre(const uint8_t* text, uint32_t length,
                                  const uint8_t language[3]) {
    return setText(fourcc("gnre"), text, length, language, nullptr);
}

// ---- rating and classification ----------------------------------------------

MP4Err CMp4MetaDataImpl::getRating(uint8_t entity[4], uint8_t criteria[4], uint8_t* text,
                                   uint32_t* length, uint8_t language[3], uint32_t index) {
    CAssetMetaDataBox* found = nullptr;
    MP4Err err = getText(fourcc("rtng"), text, length, language, index, &found);
    if (err != MP4_OK) return err;
    auto* rating = dynamic_cast<CRatingBox*>(found);
    if (!rating) return MP4_ERR_INVALID_DATA;
    if (entity) charsOf(rating->ratingEntity, entity);
    if (criteria) charsOf(rating->ratingCriteria, criteria);
    return MP4_OK;
}

MP4Err CMp4MetaDataImpl::getClassification(uint8_t entity[4], uint16_t* table, uint8_t* text,
                                           uint32_t* length, uint8_t language[3],
                                           uint32_t index) {
    CAssetMetaDataBox* found = nullptr;
    MP4Err err = getText(fourcc("clsf"), text, length, language, index, &found);
    if (err != MP4_OK) return err;
    auto* classification = dynamic_cast<CClassificationBox*>(found);
    if (!classification) return MP4_ERR_INVALID_DATA;
    if (entity) charsOf(classification->classificationEntity, entity);
    if (table) *table = classification->classificationTable;
    return MP4_OK;
}

// A missing box is made, as the text setters do: a rating is as much an
// item of the language as a title.
MP4Err CMp4MetaDataImpl::setRating(const char entity[4], const char criteria[4],
                                   const uint8_t* text, uint32_t length,
                                   const uint8_t language[3]) {
    if (!entity || !criteria) return MP4_ERR_INVALID_ARGUMENT;
    CAssetMetaDataBox* box = nullptr;
    MP4Err err = setText(fourcc("rtng"), text, length, language, &box);
    if (err != MP4_OK) return err;
    auto* rating = static_cast<CRatingBox*>(box);
    rating->ratingEntity = codeOf(entity);
    rating->ratingCriteria = codeOf(criteria);
    return MP4_OK;
}

MP4Err CMp4MetaDataImpl::setClassification(const char entity[4], uint16_t table,
                                           const uint8_t* text, uint32_t length,
                                           const uint8_t language[3]) {
    if (!entity) return MP4_ERR_INVALID_ARGUMENT;
    CAssetMetaDataBox* box = nullptr;
    MP4Err err = setText(fourcc("clsf"), text, length, language, &box);
    if (err != MP4_OK) return err;
    auto* classification = static_cast<CClassificationBox*>(box);
    classification->classificationEntity = codeOf(entity);
    classification->classificationTable = table;
    return MP4_OK;
}

// ---- keywords ---------------------------------------------------------------

MP4Err CMp4MetaDataImpl::getKeywords(uint8_t* buffer, uint32_t* count, uint32_t* length,
                                     uint8_t language[3], uint32_t index) {
    if (!count || !length) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    *length = 0;
    CBox* box = nullptr;
    MP4Err err = findBox(fourcc("kywd"), language, index, &box);
    if (err != MP4_OK) return err;
    auto* keywords = dynamic_cast<CKeywordBox*>(box);
    if (!keywords) return MP4_ERR_INVALID_DATA;
    uint32_t bytes = 0;
    for (const CKeywordBox::Keyword& keyword : keywords->keywords) bytes += keyword.length + 1u;
    *count = static_cast<uint32_t>(keywords->keywords.size());
    *length = bytes;
    for (const CKeywordBox::Keyword& keyword : keywords->keywords) {
        if (!buffer) break;
        *buffer++ = keyword.length;
        std::memcpy(buffer, keyword.bytes.get(), keyword.length);
        buffer += keyword.length;
    }
    if (language) languageOf(keywords, language);
    return MP4_OK;
}

MP4Err CMp4MetaDataImpl::setKeywords(const uint8_t* list, uint32_t count,
                                     const uint8_t language[3]) {
    // The count is stored in one byte.
    if ((!list && count != 0) || count > 255) return MP4_ERR_INVALID_ARGUMENT;
    if (!udta_) return MP4_ERR_INVALID_DATA;
    if (!validLanguage(language)) return MP4_ERR_INVALID_ARGUMENT;
    // The new list is built apart, so a failure leaves the old one.
    CKeywordBox fresh;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t length = *list++;
        MP4Err err = fresh.appendKeyword(list, length);
        if (err != MP4_OK) return err;
        list += length;
    }
    CBox* box = nullptr;
    MP4Err err = findOrAdd(fourcc("kywd"), language, &box);
    if (err != MP4_OK) return err;
    auto* keywords = dynamic_cast<CKeywordBox*>(box);
    if (!keywords) return MP4_ERR_INVALID_DATA;
    for (int i = 0; i < 3; ++i) keywords->language[i] = static_cast<uint8_t>((language[i] - 0x60) & 31);
    keywords->keywords = std::move(fresh.keywords);
    keywords->keywordCount = static_cast<uint8_t>(count);
    return MP4_OK;
}

// ---- shared by the file and track objects -----------------------------------

MP4Err findUserData(CBox* parent, bool create, CBox** udta) {
    *udta = nullptr;
    if (!parent) return MP4_ERR_NOT_AVAILABLE;
    MP4Err err = parent->findChild(fourcc("udta"), udta, 1);
    if (err != MP4_ERR_NOT_AVAILABLE || !create) return err;
    std::unique_ptr<CUserDataBox> made(new (std::nothrow) CUserDataBox());
    if (!made) return MP4_ERR_OUT_OF_MEMORY;
    err = parent->addChild(made.get());
    if (err != MP4_OK) return err;
    *udta = made.release();
    return MP4_OK;
}

MP4Err getCopyrightNotice(CBox* udta, uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                          uint32_t index) {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    if (!buffer && bufferSize != 0) return MP4_ERR_INVALID_ARGUMENT;
    CBox* box = nullptr;
    MP4Err err = udta->findChild(fourcc("cprt"), &box, index);
    if (err != MP4_OK) return err;
    auto* notice = dynamic_cast<CAssetMetaDataBox*>(box);
    if (!notice) return MP4_ERR_INVALID_DATA;
    err = notice->getTextLength(length);
    if (err != MP4_OK || bufferSize == 0) return err;
    if (bufferSize < *length) return MP4_ERR_BUFFER_TOO_SMALL;
    uint8_t letters[3];
    return notice->getData(letters, buffer);
}

MP4Err setCopyrightNotice(CBox* udta, const uint8_t* text, uint64_t length, int32_t index) {
    if (index < 0 || (!text && length != 0)) return MP4_ERR_INVALID_ARGUMENT;
    if (length > UINT32_MAX) return MP4_ERR_VALUE_TOO_LARGE;
    CBox* box = nullptr;
    MP4Err err = udta->findChild(fourcc("cprt"), &box, static_cast<uint32_t>(index));
    if (err == MP4_ERR_NOT_AVAILABLE) err = addNewBox(udta, fourcc("cprt"), &box);
    if (err != MP4_OK) return err;
    auto* notice = dynamic_cast<CAssetMetaDataBox*>(box);
    if (!notice) return MP4_ERR_INVALID_DATA;
    // A new notice has no language yet: "und", ISO 639-2 for undetermined.
    uint8_t letters[3];
    notice->languageLetters(reinterpret_cast<char*>(letters));
    if (!validLanguage(letters)) std::memcpy(letters, kUndetermined, 3);
    return notice->setData(letters, text, static_cast<uint32_t>(length));
}

}  // namespace quil
