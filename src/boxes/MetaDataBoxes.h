// User-data metadata boxes: the 3GPP asset information boxes (3GPP TS
// 26.244 §8: title, author, performer, genre, description, copyright,
// rating, classification, keywords), Apple's purchase information box, and
// the progressive download information and track selection boxes
// (ISO/IEC 14496-12 §8.1.3, §8.10.3).
#ifndef QUIL_BOXES_METADATABOXES_H
#define QUIL_BOXES_METADATABOXES_H

#include <cstdint>
#include <memory>
#include <vector>

#include "Box.h"
#include "io/FieldIO.h"

namespace quil {

// Common base of the asset boxes: a packed ISO 639-2/T language code and a
// zero-terminated text (UTF-8, or UTF-16 starting with a byte order mark).
class CAssetMetaDataBox : public CFieldBox<CAssetMetaDataBox, CFullBox> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // language: three letters, each at least "a" (else 2). Replaces the
    // text with a copy of exactly length bytes (none when text is null or
    // length is 0); the caller includes the terminator in length.
    virtual MP4Err setData(const uint8_t language[3], const uint8_t* text, uint32_t length);
    // language (required, else 2) receives the three letters; text, when
    // given, receives the text with its terminator (an empty string when
    // there is none). The buffer must hold getTextLength bytes.
    virtual MP4Err getData(uint8_t language[3], uint8_t* text);
    // Text length including its terminator; 1 without a text.
    virtual MP4Err getTextLength(uint32_t* length);

    // Bytes of the text before its terminator (0 without a text).
    uint32_t textLength() const;
    // 1, or 2 for UTF-16 text, whose terminator is a 16-bit zero.
    uint32_t terminatorLength() const;
    // The three letters of the language code.
    void languageLetters(char letters[3]) const;

    uint8_t language[3] = {0, 0, 0};  // 5-bit codes: letter - 0x60
    // The text as stored, one hidden zero past textCapacity, never written.
    std::unique_ptr<uint8_t[]> text;
    uint32_t textCapacity = 0;

protected:
    explicit CAssetMetaDataBox(uint32_t boxType) { type = boxType; }
    // Fields that come between version/flags and the language ("rtng",
    // "clsf"), one override per walker, each running the box's one
    // template (see LeadingFields below). None by default.
    virtual MP4Err leadingFields(FieldReader<uint64_t>& io) { return io.error(); }
    virtual MP4Err leadingFields(FieldWriter& io) { return io.error(); }
    virtual MP4Err leadingFields(FieldCounter& io) { return io.error(); }
    virtual void dumpLeadingFields(int32_t) {}

    void dumpLanguage(int32_t depth);
};

class CTitleBox : public CAssetMetaDataBox {
public:
    CTitleBox() : CAssetMetaDataBox(fourcc("titl")) {}
};
class CAuthorBox : public CAssetMetaDataBox {
public:
    CAuthorBox() : CAssetMetaDataBox(fourcc("auth")) {}
};
class CPerformerBox : public CAssetMetaDataBox {
public:
    CPerformerBox() : CAssetMetaDataBox(fourcc("perf")) {}
};
class CGenreBox : public CAssetMetaDataBox {
public:
    CGenreBox() : CAssetMetaDataBox(fourcc("gnre")) {}
};
class CDescriptionBox : public CAssetMetaDataBox {
public:
    CDescriptionBox() : CAssetMetaDataBox(fourcc("dscp")) {}
};
class CCopyrightBox : public CAssetMetaDataBox {
public:
    CCopyrightBox() : CAssetMetaDataBox(fourcc("cprt")) {}
};

// An asset box with fields before its language: Self defines
//     template <class IO> MP4Err leading(IO& io);
// and every walker runs it.
template <class Self>
class CLeadingFieldsBox : public CAssetMetaDataBox {
protected:
    using CAssetMetaDataBox::CAssetMetaDataBox;
    MP4Err leadingFields(FieldReader<uint64_t>& io) override { return self()->leading(io); }
    MP4Err leadingFields(FieldWriter& io) override { return self()->leading(io); }
    MP4Err leadingFields(FieldCounter& io) override { return self()->leading(io); }

private:
    Self* self() { return static_cast<Self*>(this); }
};

// "rtng": rating entity and criteria (four-character codes) before the
// language.
class CRatingBox : public CLeadingFieldsBox<CRatingBox> {
public:
    CRatingBox() : CLeadingFieldsBox(fourcc("rtng")) {}
    template <class IO>
    MP4Err leading(IO& io) {
        return io.u32(ratingEntity).u32(ratingCriteria).error();
    }
    uint32_t ratingEntity = 0;
    uint32_t ratingCriteria = 0;

protected:
    void dumpLeadingFields(int32_t depth) override;
};

// "clsf": classification entity (four-character code) and table.
class CClassificationBox : public CLeadingFieldsBox<CClassificationBox> {
public:
    CClassificationBox() : CLeadingFieldsBox(fourcc("clsf")) {}
    template <class IO>
    MP4Err leading(IO& io) {
        return io.u32(classificationEntity).u16(classificationTable).error();
    }
    uint32_t classificationEntity = 0;
    uint16_t classificationTable = 0;

protected:
    void dumpLeadingFields(int32_t depth) override;
};

// "kywd": a language, a keyword count and the keywords, each a length byte
// and that many bytes.
class CKeywordBox : public CFieldBox<CKeywordBox, CFullBox> {
public:
    CKeywordBox() { type = fourcc("kywd"); }
    // 5 when fewer keywords are held than counted.
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;
    template <class IO>
    MP4Err fields(IO& io);

    // Appends a copy of a keyword (does not change keywordCount). 1 when it
    // cannot be allocated.
    MP4Err appendKeyword(const uint8_t* bytes, uint8_t length);

    struct Keyword {
        uint8_t length = 0;
        std::unique_ptr<uint8_t[]> bytes;  // length bytes plus a hidden zero
    };

    uint8_t language[3] = {0, 0, 0};  // 5-bit codes, as in the asset boxes
    uint8_t keywordCount = 0;
    std::vector<Keyword> keywords;
};

// "pinf": Apple's purchase information; its payload is not interpreted and
// not kept.
class CPurchaseInformationBox : public CBox {
public:
    CPurchaseInformationBox() { type = fourcc("pinf"); }
    MP4Err read(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
};

// "pdin", ISO/IEC 14496-12 §8.1.3: pairs of download rate (bytes per
// second) and the initial delay (milliseconds) playing at that rate needs.
class CProgressiveDownloadInfoBox : public CFieldBox<CProgressiveDownloadInfoBox, CFullBox> {
public:
    CProgressiveDownloadInfoBox() { type = fourcc("pdin"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    struct Entry {
        uint32_t rate;
        uint32_t initialDelay;
    };
    std::vector<Entry> entries;
};

// "tsel", ISO/IEC 14496-12 §8.10.3: the track's switch group and the
// attributes (four-character codes) it may be told apart by.
class CTrackSelectionBox : public CFieldBox<CTrackSelectionBox, CFullBox> {
public:
    CTrackSelectionBox() { type = fourcc("tsel"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    int32_t switchGroup = 0;
    std::vector<uint32_t> attributes;
};

}  // namespace quil

#endif
