// quil: 3GPP asset metadata of a file or a track.
#ifndef QUIL_MP4METADATA_H
#define QUIL_MP4METADATA_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

// Each item exists once per language (three lower-case letters). Getters
// take an optional language array and a 1-based index (0 also means the
// first): an array whose first byte is not zero names the language wanted,
// otherwise the index-th item of that kind is taken; either way the array,
// when given, receives the language found. A null text buffer asks for the
// length only (text length + 1; texts starting with a UTF-16 byte order
// mark end with two zero bytes instead). Codes: 2 for a null length or an
// invalid language when setting (a letter below "a"), 3 when there is no
// such item, 5 when the object is bound to no user-data box.
//
// Setters replace the item of that language, or add it. The text is stored
// as given: pass its terminator in the length. The file's getMetaData makes
// this object in write mode; for a read file use Mp4GetEditableMetaData
// (Mp4Tags.h) to edit, then Mp4WriteCopy.
class QUIL_API CMp4MetaData {
public:
    virtual MP4Err getTitle(uint8_t* text, uint32_t* length, uint8_t language[3],
                            uint32_t index) = 0;
    virtual MP4Err getDescription(uint8_t* text, uint32_t* length, uint8_t language[3],
                                  uint32_t index) = 0;
    virtual MP4Err getCopyright(uint8_t* text, uint32_t* length, uint8_t language[3],
                                uint32_t index) = 0;
    virtual MP4Err getPerformer(uint8_t* text, uint32_t* length, uint8_t language[3],
                                uint32_t index) = 0;
    virtual MP4Err getAuthor(uint8_t* text, uint32_t* length, uint8_t language[3],
                             uint32_t index) = 0;
    virtual MP4Err getGenre(uint8_t* text, uint32_t* length, uint8_t language[3],
                            uint32_t index) = 0;
    virtual MP4Err getRating(uint8_t entity[4], uint8_t criteria[4], uint8_t* text,
                             uint32_t* length, uint8_t language[3], uint32_t index) = 0;
    virtual MP4Err getClassification(uint8_t entity[4], uint16_t* table, uint8_t* text,
                                     uint32_t* length, uint8_t language[3], uint32_t index) = 0;
    // Keywords come as count entries of {length byte, bytes}; *length is the
    // byte size of that list. A null buffer asks for count and length only.
    virtual MP4Err getKeywords(uint8_t* buffer, uint32_t* count, uint32_t* length,
                               uint8_t language[3], uint32_t index) = 0;
    virtual MP4Err setTitle(const uint8_t* text, uint32_t length, const uint8_t language[3]) = 0;
    virtual MP4Err setDescription(const uint8_t* text, uint32_t length,
                                  const uint8_t language[3]) = 0;
    virtual MP4Err setCopyright(const uint8_t* text, uint32_t length,
                                const uint8_t language[3]) = 0;
    virtual MP4Err setPerformer(const uint8_t* text, uint32_t length,
                                const uint8_t language[3]) = 0;
    virtual MP4Err setAuthor(const uint8_t* text, uint32_t length, const uint8_t language[3]) = 0;
    virtual MP4Err setGenre(const uint8_t* text, uint32_t length, const uint8_t language[3]) = 0;
    virtual MP4Err setRating(const char entity[4], const char criteria[4], const uint8_t* text,
                             uint32_t length, const uint8_t language[3]) = 0;
    virtual MP4Err setClassification(const char entity[4], uint16_t table, const uint8_t* text,
                                     uint32_t length, const uint8_t language[3]) = 0;
    virtual MP4Err setKeywords(const uint8_t* keywords, uint32_t count,
                               const uint8_t language[3]) = 0;
    virtual ~CMp4MetaData() = default;
};

}  // namespace quil

#endif
