// Movie and track structure boxes: file type, movie, track and media
// containers with their headers, handler, media-type headers, data
// references, user data and media data (ISO/IEC 14496-12 §4.3, §8.1-§8.7,
// plus the QuickTime "gmhd"/"tcmi" time-code headers).
#ifndef QUIL_BOXES_MOVIEBOXES_H
#define QUIL_BOXES_MOVIEBOXES_H

#include <cstdint>
#include <memory>
#include <string>

#include "Box.h"

namespace quil {

// ---- containers -------------------------------------------------------------

// "moov". Lookups are answered from the inner movie when the movie is
// stored compressed ("cmov" / "cmvd" / "moov").
class CMovieBox : public CContainerBox {
public:
    CMovieBox() { type = fourcc("moov"); }
    // The instance-th child of that type (0 and 1 mean the first). 5 without
    // a child list; 8 when a "cmov" child lacks its "cmvd" or inner "moov".
    MP4Err findChild(uint32_t type, CBox** box, uint32_t instance = 1) override;
};

class CTrackBox : public CContainerBox {
public:
    CTrackBox() { type = fourcc("trak"); }
};

// "mdia" and "dinf" grow their size by each added child's size.
class CMediaBox : public CContainerBox {
public:
    CMediaBox() { type = fourcc("mdia"); }

protected:
    bool growsOnAddChild() const override { return true; }
};

class CMediaInformationBox : public CContainerBox {
public:
    CMediaInformationBox() { type = fourcc("minf"); }
};

class CDataInformationBox : public CContainerBox {
public:
    CDataInformationBox() { type = fourcc("dinf"); }

protected:
    bool growsOnAddChild() const override { return true; }
};

// "udta". Unlike other containers, a user-data box without a child list
// still dumps as an empty pair of braces and succeeds.
class CUserDataBox : public CContainerBox {
public:
    CUserDataBox() { type = fourcc("udta"); }
    MP4Err dump(int32_t depth) override;
};

class CTrackReferenceBox : public CContainerBox {
public:
    CTrackReferenceBox() { type = fourcc("tref"); }
};

// QuickTime base media information header ("gmhd").
class CBaseMediaHeaderBox : public CContainerBox {
public:
    CBaseMediaHeaderBox() { type = fourcc("gmhd"); }
};

// The "tmcd" box inside "gmhd": holds the time-code media header "tcmi".
class CTimeCodeInformationListBox : public CContainerBox {
public:
    CTimeCodeInformationListBox() { type = fourcc("tmcd"); }
};

// ---- file type --------------------------------------------------------------

class CFileTypeBox : public CFieldBox<CFileTypeBox, CBox> {
public:
    CFileTypeBox() { type = fourcc("ftyp"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    // Replaces the compatible brands with a copy of count codes.
    MP4Err setCompatibleBrands(const uint32_t* brands, int32_t count);

    uint32_t majorBrand = 0;
    uint32_t minorVersion = 0;
    int32_t compatibleBrandCount = 0;
    std::unique_ptr<uint32_t[]> compatibleBrands;
};

// ---- movie, track and media headers ----------------------------------------

// "mvhd". Times are seconds since 1904-01-01; version 1 stores times and
// duration in 64 bits, every other version in 32 bits.
class CMovieHeaderBox : public CFieldBox<CMovieHeaderBox, CFullBox> {
public:
    CMovieHeaderBox() { type = fourcc("mvhd"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    // Calendar form of the creation time; 5 when it lies at or after 2200.
    MP4Err getCreationDate(uint32_t* year, uint32_t* month, uint32_t* day, uint32_t* hour,
                           uint32_t* minute, uint32_t* second);
    // Sets the creation time and raises the modification time to it when
    // it is earlier. 2 for a field out of range.
    MP4Err setCreationDate(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                           uint32_t minute, uint32_t second);

    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    uint32_t timeScale = 1000;
    uint64_t duration = 0;
    int32_t rate = 0x00010000;  // 16.16
    int16_t volume = 0x0100;    // 8.8
    uint16_t reserved1 = 0;
    uint32_t reserved2[2] = {0, 0};
    int32_t matrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
    uint32_t preDefined[6] = {0, 0, 0, 0, 0, 0};
    uint32_t nextTrackId = 1;
};

// "tkhd". The rotation angle is not stored in the file: it is derived from
// the matrix when the box is read.
class CTrackHeaderBox : public CFieldBox<CTrackHeaderBox, CFullBox> {
public:
    CTrackHeaderBox() { type = fourcc("tkhd"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;
    double getRotationAngle() override { return rotationAngle; }

    // Clockwise rotation in degrees described by a 16.16 transformation
    // matrix (90, 180, 270 for the usual quarter turns; NaN when the matrix
    // holds no rotation at all, e.g. a scale above 1).
    static double rotationFromMatrix(const int32_t matrix[9]);

    double rotationAngle = 0.0;
    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    uint32_t trackId = 0;
    uint32_t reserved1 = 0;
    uint64_t duration = 0;
    uint32_t reserved2[2] = {0, 0};
    int16_t layer = 0;
    int16_t alternateGroup = 0;
    int16_t volume = 0;  // 8.8
    uint16_t reserved3 = 0;
    int32_t matrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
    int32_t width = 0;   // 16.16
    int32_t height = 0;  // 16.16
};

// "hint", "mpod" and "tmcd" inside "tref": the referenced track IDs.
class CTrackReferenceTypeBox : public CFieldBox<CTrackReferenceTypeBox, CBox> {
public:
    explicit CTrackReferenceTypeBox(uint32_t referenceType = fourcc("hint")) {
        type = referenceType;
    }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // Appends one referenced track ID.
    MP4Err addTrackId(uint32_t trackId);

    uint32_t count = 0;
    std::unique_ptr<uint32_t[]> trackIds;

private:
    uint32_t capacity_ = 0;
};

// "mdhd". The language is three 5-bit codes, each a lower-case letter
// minus 0x60 (ISO 639-2/T).
class CMediaHeaderBox : public CFieldBox<CMediaHeaderBox, CFullBox> {
public:
    CMediaHeaderBox() { type = fourcc("mdhd"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    MP4Err getTimeScale(uint32_t* value);
    MP4Err getDuration(uint64_t* value);
    // 5 when the creation time lies at or after 2200.
    MP4Err getCreationDate(uint32_t* year, uint32_t* month, uint32_t* day, uint32_t* hour,
                           uint32_t* minute, uint32_t* second);
    // Three letters into text[0..2] (not terminated). 2 for a null buffer.
    MP4Err getLanguage(uint8_t* text);
    MP4Err setTimeScale(uint32_t value);
    MP4Err setDuration(uint64_t value);
    // Also raises the modification time to the creation time when it is
    // smaller. 2 for a field out of range.
    MP4Err setCreationDate(uint32_t year, uint32_t month, uint32_t day, uint32_t hour,
                           uint32_t minute, uint32_t second);
    // Three letters, each at least 'a'; 2 otherwise or for a null text.
    MP4Err setLanguage(const uint8_t* text);

    uint64_t creationTime = 0;
    uint64_t modificationTime = 0;
    uint32_t timeScale = 0;
    uint64_t duration = 0;
    uint8_t language[3] = {0, 0, 0};  // 5-bit codes
    uint16_t preDefined = 0;
};

// "hdlr". The name runs to the end of the box; QuickTime writers store it
// as a counted (Pascal) string, which is recognised and unwrapped.
class CHandlerReferenceBox : public CFieldBox<CHandlerReferenceBox, CFullBox> {
public:
    CHandlerReferenceBox() { type = fourcc("hdlr"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    // Copies at most 255 characters of the text; null removes the name.
    MP4Err setName(const char* text);
    // Bytes before the name's first zero (0 without a name).
    uint32_t nameLength() const;

    uint32_t preDefined = 0;
    uint32_t handlerType = 0;
    uint32_t reserved[3] = {0, 0, 0};
    std::unique_ptr<char[]> name;  // zero-terminated, or none

private:
    // The name's bytes as the file held them (counted or not, with or
    // without a terminator), written back as they were while the name is
    // still the one read from them.
    bool nameIsAsRead() const;
    std::string nameAsRead_;
    std::string nameReadAs_;
};

// Handler type and name given to a new track of a media kind
// (MP4TrackType: video, audio, hint, object descriptor, scene
// description, time code). File type 10 (XAVC) names video and sound handlers the
// way its players expect. 2 for any other kind.
MP4Err handlerForMediaKind(uint32_t mediaKind, uint32_t fileType, uint32_t* handlerType,
                           const char** name);
// The media header box of a new track of that kind: "vmhd" (flags 1),
// "smhd", "hmhd", "nmhd" or, for time code, "gmhd"{"tmcd"{"tcmi"}}. 2 for
// any other kind, 1 out of memory.
MP4Err createMediaHeaderBox(uint32_t mediaKind, CBox** box);

// ---- media-type headers -----------------------------------------------------

class CVideoMediaHeaderBox : public CFieldBox<CVideoMediaHeaderBox, CFullBox> {
public:
    CVideoMediaHeaderBox() {
        type = fourcc("vmhd");
        flags = 1;  // ISO/IEC 14496-12 §12.1.2 requires flags 1
    }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    int16_t graphicsMode = 0;
    int16_t opcolor[3] = {0, 0, 0};
};

class CSoundMediaHeaderBox : public CFieldBox<CSoundMediaHeaderBox, CFullBox> {
public:
    CSoundMediaHeaderBox() { type = fourcc("smhd"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;

    int16_t balance = 0;  // 8.8
    uint16_t reserved = 0;
};

class CHintMediaHeaderBox : public CFieldBox<CHintMediaHeaderBox, CFullBox> {
public:
    CHintMediaHeaderBox() { type = fourcc("hmhd"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint16_t maxPduSize = 0;
    uint16_t avgPduSize = 0;
    uint32_t maxBitrate = 0;
    uint32_t avgBitrate = 0;
    uint32_t reserved = 0;
};

class CNullMediaHeaderBox : public CFieldBox<CNullMediaHeaderBox, CFullBox> {
public:
    CNullMediaHeaderBox() { type = fourcc("nmhd"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// QuickTime time-code media information ("tcmi"): how a player draws the
// time code as text.
class CTimeCodeMediaHeaderBox : public CFieldBox<CTimeCodeMediaHeaderBox, CFullBox> {
public:
    CTimeCodeMediaHeaderBox() { type = fourcc("tcmi"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    int16_t textFont = 0;
    int16_t textFace = 0;
    int16_t textSize = 0;
    int16_t reserved = 0;
    int16_t textColor[3] = {0, 0, 0};
    int16_t backgroundColor[3] = {0, 0, 0};
    uint8_t fontNameLength = 0;
    std::unique_ptr<char[]> fontName;  // fontNameLength bytes plus a zero
};

// ---- data references --------------------------------------------------------

// "dref": an entry count followed by the entries as child boxes.
class CDataReferenceBox : public CFieldBox<CDataReferenceBox, CFullBox> {
public:
    CDataReferenceBox() { type = fourcc("dref"); }
    MP4Err read(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;
    MP4Err findChild(uint32_t type, CBox** box, uint32_t instance = 1) override;
    // Appends an entry and counts it.
    MP4Err addChild(CBox* box) override;
    CBoxList* childList() override { return children.get(); }

    uint32_t entryCount = 0;
    std::unique_ptr<CBoxList> children;
};

// "url ". Flags 1: the media data is in this file and there is no location.
class CDataEntryURLBox : public CFieldBox<CDataEntryURLBox, CFullBox> {
public:
    CDataEntryURLBox() { type = fourcc("url "); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err calculateSize() override;

    // Copies the text; null removes the location.
    MP4Err setLocation(const char* text);

    std::unique_ptr<char[]> location;  // zero-terminated, or none
};

// "urn ". The storage's string read leaves both strings empty, so a read
// box is written back as its 12-byte header.
class CDataEntryURNBox : public CFieldBox<CDataEntryURNBox, CFullBox> {
public:
    CDataEntryURNBox() { type = fourcc("urn "); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    std::unique_ptr<char[]> name;      // zero-terminated, or none
    std::unique_ptr<char[]> location;  // zero-terminated, or none
};

// ---- media data -------------------------------------------------------------

// "mdat". Only the header is handled here: the payload is skipped when
// reading and written by the file writer. The box is always sized with a
// 16-byte header so that its header can later take a 64-bit size.
class CMediaDataBox : public CBox {
public:
    CMediaDataBox() { type = fourcc("mdat"); }
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err calculateSize() override;
    bool writtenElsewhere() const override { return true; }

    uint64_t dataSize = 0;   // payload bytes
    uint64_t boxOffset = 0;  // file position of the first header byte
};

}  // namespace quil

#endif
