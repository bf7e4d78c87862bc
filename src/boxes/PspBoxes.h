// Boxes of the Sony PSP and XAVC file profiles: the "uuid" profile box
// ("PROF") at file level with its file, video and audio profile entries,
// and the "uuid" user-metadata box ("USMT") holding a metadata table
// ("MTDT") of typed, language-tagged entries.
//
// Layouts (all values big-endian):
//   PROF   version/flags, u32 entry count, entry boxes
//   FPRF   version/flags, u32 profile, u32 reserved
//   VPRF   version/flags, u32 track ID, codec, codec info, attributes,
//          average and maximum bit rate (kbit/s), average and maximum frame
//          rate (16.16), u16 width, u16 height, u16 x u16 pixel aspect
//   APRF   version/flags, u32 track ID, codec, codec info, attributes,
//          average and maximum bit rate (kbit/s), sample rate, channels
//   USMT   child boxes (an MTDT)
//   MTDT   u16 entry count, then per entry: u16 entry size (10 + data),
//          u32 type, u16 language (ISO 639-2/T, 5 bits a letter), u16
//          encoding (1 = UTF-16BE text with terminator, 0 = binary), data
#ifndef QUIL_BOXES_PSPBOXES_H
#define QUIL_BOXES_PSPBOXES_H

#include <cstdint>
#include <memory>
#include <vector>

#include "Box.h"
#include "io/FieldIO.h"

namespace quil {

// Entries of PROF: a full box whose payload is a fixed row of u32 fields.
// Bytes after the fields, if a file has any, are kept and written back.
class CPspProfileEntryBox : public CFieldBox<CPspProfileEntryBox, CFullBox> {
public:
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t field(size_t index) const { return index < fieldCount_ ? fields_[index] : 0; }
    void setField(size_t index, uint32_t value) {
        if (index < fieldCount_) fields_[index] = value;
    }

protected:
    // names: the dump label of each field; a label starting with '#' prints
    // the value as a four-character code, '%' as 16.16, '*' as two u16.
    CPspProfileEntryBox(uint32_t boxType, const char* const* names, size_t count);

private:
    static constexpr size_t kMaxFields = 10;
    const char* const* names_;
    size_t fieldCount_;
    uint32_t fields_[kMaxFields] = {};
    std::vector<uint8_t> trailing_;
};

class CPspFprfBox : public CPspProfileEntryBox {
public:
    enum Field { kProfile, kReserved, kFieldCount };
    CPspFprfBox();
};

class CPspVprfBox : public CPspProfileEntryBox {
public:
    enum Field {
        kTrackId, kCodec, kCodecInfo, kAttributes, kAverageBitRate, kMaximumBitRate,
        kAverageFrameRate, kMaximumFrameRate, kSize, kPixelAspectRatio, kFieldCount
    };
    CPspVprfBox();
};

class CPspAprfBox : public CPspProfileEntryBox {
public:
    enum Field {
        kTrackId, kCodec, kCodecInfo, kAttributes, kAverageBitRate, kMaximumBitRate,
        kSampleRate, kChannels, kFieldCount
    };
    CPspAprfBox();
};

// "uuid" PROF: the profile entries, in file order.
class CPspProfBox : public CFieldBox<CPspProfBox, CFullBox> {
public:
    static const uint8_t kUserType[16];

    CPspProfBox();  // carries its user type, so it can be written at once
    MP4Err read(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err findChild(uint32_t type, CBox** box, uint32_t instance = 1) override;
    MP4Err addChild(CBox* box) override;  // counts the entry
    CBoxList* childList() override { return entries.get(); }

    // The profile operations of the writer. xavc selects the XAVC variant
    // of the file type; both variants share this layout.
    MP4Err addFileProfile(uint32_t profile, bool xavc);
    MP4Err addVideoProfile(bool xavc);
    MP4Err addAudioProfile(bool xavc);

    uint32_t entryCount = 0;  // as read, or the entries added
    std::unique_ptr<CBoxList> entries;
};

// "uuid" USMT: user metadata, a container of an MTDT.
class CPspUsmtBox : public CContainerBox {
public:
    static const uint8_t kUserType[16];
    CPspUsmtBox();
};

struct PspMetadataEntry {
    uint32_t type = 0;
    char language[3] = {'u', 'n', 'd'};
    uint16_t encoding = 0;
    std::vector<uint8_t> data;
};

// "MTDT": the metadata table.
class CPspMtdtBox : public CFieldBox<CPspMtdtBox, CBox> {
public:
    enum EntryType : uint32_t { kTitle = 1, kCreationDate = 3, kEncoder = 4 };
    enum Encoding : uint16_t { kBinary = 0, kUtf16 = 1 };

    CPspMtdtBox() { type = fourcc("MTDT"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    // A text entry stored as UTF-16BE with its terminator; text is UTF-8.
    // 2 for a language letter outside a..z or an invalid text; 10 when the
    // entry outgrows its 16-bit size.
    MP4Err addText(uint32_t entryType, const char language[3], const char* text);

    // The count as read (files are known to announce more entries than
    // they hold), or the entries added; written back as it is.
    uint16_t entryCount = 0;
    std::vector<PspMetadataEntry> entries;
    // Bytes after the last whole entry, kept to be written back.
    std::vector<uint8_t> trailing;

private:
    // One entry after its size field (type, language, encoding, data).
    template <class IO>
    static MP4Err entryFields(IO& io, PspMetadataEntry& entry, uint16_t& language);
    MP4Err readTrailing(CStorage* storage);
};

// The writer's PSP steps (file types 4 and 10).
// The profile box written after "ftyp": a file entry with the profile
// 0x014D0015, then zero-valued video and audio entries.
MP4Err makePspProfileBox(bool xavc, std::unique_ptr<CBox>* box);
// Appends to "moov" the movie's user metadata: an empty title in Japanese
// and the creation date ("YYYY/MM/DD hh:mm:ss", undetermined language) of
// creationTime (seconds since 1904), or of the present time when it is 0.
MP4Err addPspMovieMetadata(CBox* moov, uint64_t creationTime);
// The finishing step at close: every track gets its user metadata box, as
// PSP players expect one per track. Both steps add nothing where user
// metadata is already present, so that a close can be retried.
MP4Err addPspTrackMetadata(CBox* moov);

}  // namespace quil

#endif
