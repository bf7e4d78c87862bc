// The metadata object behind CMp4MetaData: a view over one "udta" box of
// the movie or of a track, and the copyright-notice helpers the file and
// track objects share.
#ifndef QUIL_META_METADATAIMPL_H
#define QUIL_META_METADATAIMPL_H

#include <cstdint>

#include "quil/Mp4MetaData.h"

namespace quil {

class CBox;
class CAssetMetaDataBox;
class CKeywordBox;

class CMp4MetaDataImpl final : public CMp4MetaData {
public:
    // udta is not owned; null makes every operation answer 5.
    explicit CMp4MetaDataImpl(CBox* udta) : udta_(udta) {}

    MP4Err getTitle(uint8_t* text, uint32_t* length, uint8_t language[3],
                    uint32_t index) override;
    MP4Err getDescription(uint8_t* text, uint32_t* length, uint8_t language[3],
                          uint32_t index) override;
    MP4Err getCopyright(uint8_t* text, uint32_t* length, uint8_t language[3],
                        uint32_t index) override;
    MP4Err getPerformer(uint8_t* text, uint32_t* length, uint8_t language[3],
                        uint32_t index) override;
    MP4Err getAuthor(uint8_t* text, uint32_t* length, uint8_t language[3],
                     uint32_t index) override;
    MP4Err getGenre(uint8_t* text, uint32_t* length, uint8_t language[3],
                    uint32_t index) override;
    MP4Err getRating(uint8_t entity[4], uint8_t criteria[4], uint8_t* text, uint32_t* length,
                     uint8_t language[3], uint32_t index) override;
    MP4Err getClassification(uint8_t entity[4], uint16_t* table, uint8_t* text,
                             uint32_t* length, uint8_t language[3], uint32_t index) override;
    MP4Err getKeywords(uint8_t* buffer, uint32_t* count, uint32_t* length, uint8_t language[3],
                       uint32_t index) override;
    MP4Err setTitle(const uint8_t* text, uint32_t length, const uint8_t language[3]) override;
    MP4Err setDescription(const uint8_t* text, uint32_t length,
                          const uint8_t language[3]) override;
    MP4Err setCopyright(const uint8_t* text, uint32_t length, const uint8_t language[3]) override;
    MP4Err setPerformer(const uint8_t* text, uint32_t length, const uint8_t language[3]) override;
    MP4Err setAuthor(const uint8_t* text, uint32_t length, const uint8_t language[3]) override;
    MP4Err setGenre(const uint8_t* text, uint32_t length, const uint8_t language[3]) override;
    MP4Err setRating(const char entity[4], const char criteria[4], const uint8_t* text,
                     uint32_t length, const uint8_t language[3]) override;
    MP4Err setClassification(const char entity[4], uint16_t table, const uint8_t* text,
                             uint32_t length, const uint8_t language[3]) override;
    MP4Err setKeywords(const uint8_t* keywords, uint32_t count,
                       const uint8_t language[3]) override;

private:
    // The box of an item: by language when one is given (language[0] not
    // zero), else the index-th of its type (0 and 1 the first).
    MP4Err findBox(uint32_t type, const uint8_t* language, uint32_t index, CBox** box);
    MP4Err findByLanguage(uint32_t type, const uint8_t* language, CBox** box);
    // The box of that type and language, made and added when missing.
    MP4Err findOrAdd(uint32_t type, const uint8_t* language, CBox** box);
    MP4Err getText(uint32_t type, uint8_t* text, uint32_t* length, uint8_t* language,
                   uint32_t index, CAssetMetaDataBox** found);
    MP4Err setText(uint32_t type, const uint8_t* text, uint32_t length, const uint8_t* language,
                   CAssetMetaDataBox** box);

    CBox* udta_;
};

// True when a language is given: three letters, the first not zero.
bool hasLanguage(const uint8_t* language);

// The "udta" child of a movie or track box; with create, one is made and
// appended when missing (1 when it cannot be made). Otherwise 3 when absent.
MP4Err findUserData(CBox* parent, bool create, CBox** udta);

// The index-th (0 = first) "cprt" of a user-data box: its notice length
// (terminator included) into *length, and when bufferSize is not zero the
// notice into buffer (7, with the length stored, when it does not fit).
MP4Err getCopyrightNotice(CBox* udta, uint8_t* buffer, uint64_t bufferSize, uint32_t* length,
                          uint32_t index);
// Sets the notice of the index-th "cprt", adding a "cprt" (language "und")
// when there is none at that index. 2 for a negative index or a null text
// with a length; 10 for a notice of 4 GiB or more.
MP4Err setCopyrightNotice(CBox* udta, const uint8_t* text, uint64_t length, int32_t index);

}  // namespace quil

#endif
