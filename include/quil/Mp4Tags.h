// quil: tags that the 3GPP asset interface (CMp4MetaData) does not cover,
// and writing a changed file out.
//
// Tags are the iTunes-style items of the movie ("moov"/"udta"/"meta"/"ilst"
// or "moov"/"meta"/"ilst": title "©nam", artist "©ART", album "©alb", date
// "©day", genre "©gen" or "gnre", track number "trkn", cover art "covr"
// and any other item), plus, from the movie's "udta" itself, the 3GPP album
// ("albm") and recording year ("yrrc") boxes and the QuickTime text items
// ("©xyz" location, "©nam", ...: their first string). The iTunes items of
// "moov"/"udta"/"meta"/"ilst" can also be set and removed (Mp4SetTag,
// Mp4RemoveTag) and the result written to a new file (Mp4WriteCopy) or back
// into the file itself (Mp4WriteUserDataInPlace).
#ifndef QUIL_MP4TAGS_H
#define QUIL_MP4TAGS_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

class CMp4File;

// Value types of a tag (the iTunes well-known types of its "data" box).
enum MP4TagDataType : uint32_t {
    MP4_TAG_BINARY = 0,   // "trkn", "disk", "gnre" and other implicit items
    MP4_TAG_UTF8 = 1,
    MP4_TAG_UTF16 = 2,    // big-endian
    MP4_TAG_JPEG = 13,
    MP4_TAG_PNG = 14,
    MP4_TAG_BMP = 27,
    MP4_TAG_INTEGER = 21,   // big-endian signed, 1 to 8 bytes
    MP4_TAG_UNSIGNED = 22,  // big-endian unsigned, 1 to 8 bytes
};

struct MP4Tag {
    // Item type, first character most significant; the copyright sign of
    // "©nam" is the byte 0xA9 (so "©nam" is 0xA96E616D). "----" for a
    // free-form item, "albm"/"yrrc" for the 3GPP boxes.
    uint32_t code;
    uint32_t parent;       // "ilst" for iTunes items, "udta" for the others
    uint32_t dataType;     // MP4TagDataType or another well-known type
    uint8_t language[3];   // "albm", QuickTime text: three letters; else zeros
    uint8_t albumTrack;    // "albm": the track number it carries, or 0
    uint32_t valueLength;  // bytes of the value
    char name[128];        // free-form items: their "name" (truncated), else ""
};

// Number of tags of an open file; 2 for null arguments, 3 when the file is
// not open. An item with several values ("covr" with two images) counts once
// per value.
QUIL_API MP4Err Mp4GetTagCount(CMp4File* file, uint32_t* count);

// Tag index (1-based, in file order): its description into *tag and, when
// value is not null, its value bytes (a "trkn" value is 8 bytes: 2 zero,
// track number u16, total u16, 2 zero; a "yrrc" value is the year u16;
// "albm" the text with its terminator). 7 when bufferSize is smaller than
// tag->valueLength (the description is filled in); 3 beyond the last tag;
// 17 for index 0.
QUIL_API MP4Err Mp4GetTag(CMp4File* file, uint32_t index, MP4Tag* tag, uint8_t* value,
                          uint32_t bufferSize);

// The metadata object of the movie (track null) or of a track of an open
// file, as CMp4File::getMetaData / CMp4Track::getMetaData give it, except
// that a missing "udta" is added first: for editing the metadata of a read
// file that is then written with Mp4WriteCopy. 2 for a null file or out
// pointer; otherwise the codes of getMetaData.
class CMp4MetaData;
class CMp4Track;
QUIL_API MP4Err Mp4GetEditableMetaData(CMp4File* file, CMp4Track* track,
                                       CMp4MetaData** metaData);

// Writes the file as the object now holds it (metadata changed through
// CMp4MetaData, setCopyright or setCprtNotice included) to a new file: every
// box is written from the box tree, the media data is copied unchanged, and
// chunk offsets move by what the boxes before the media data grew or shrank
// (so do a fragmented file's absolute offsets: "tfhd" base data offsets,
// "tfra" fragment offsets, a sample table's "saio" offsets).
// The file stays open. 3 unless it is open for reading by path; 2 for a null
// path or the file's own path; 10 when an offset no longer fits its table;
// 8 when a chunk (or such an offset) lies outside the media data boxes read
// (a damaged file);
// 4 for a write failure (the target is then incomplete).
QUIL_API MP4Err Mp4WriteCopy(CMp4File* file, const wchar_t* targetPath);

// Sets an iTunes item of the movie to one value, replacing every value it
// had: "moov"/"udta"/"meta"/"ilst" (each made when missing, "meta" with the
// "hdlr" of handler "mdir" that players look for) holds the item with one
// "data" box (type indicator dataType, locale 0, the value). The item keeps
// its place when it existed, else it is appended; every other item and box
// stays as read. Values are laid out as taggers write them: texts UTF-8
// without terminator (type 1), "trkn" 8 bytes (2 zero, number u16, total
// u16, 2 zero) and "disk" 6 bytes (2 zero, number u16, total u16), both of
// type 0; "covr" the image file's bytes, type 13 (JPEG) or 14 (PNG). A
// "free" box right after "ilst" absorbs what the list grows or shrinks.
// The file must be open for reading by path or storage; the change exists
// in the object until written with Mp4WriteCopy or Mp4WriteUserDataInPlace.
// 2 for a null file, code 0 or "----", a null value with a length, a value
// above 64 MiB or a type above 24 bits; 3 when not open for reading; 12
// for a compressed movie or when "meta" is not kept as raw bytes.
QUIL_API MP4Err Mp4SetTag(CMp4File* file, uint32_t code, uint32_t dataType, const uint8_t* value,
                          uint32_t length);

// Removes every value of the iTunes item code; 3 when there is none,
// otherwise the codes of Mp4SetTag.
QUIL_API MP4Err Mp4RemoveTag(CMp4File* file, uint32_t code);

// Writes the movie's "udta", as the object now holds it, back into the file
// it was read from by path, where the old "udta" and a "free" or "skip" box
// right after it lay (or, without a "udta", into the first "free" box of
// "moov"); what is left over becomes a "free" box, so no other byte of the
// file moves. Only the movie's user data is written: track-level changes
// need Mp4WriteCopy. 10 when the new "udta" does not fit (then write a copy
// instead; nothing was written); 3 when not open for reading by path or
// there is no "udta"; 4 when the file cannot be opened for writing or a
// write fails.
QUIL_API MP4Err Mp4WriteUserDataInPlace(CMp4File* file);

}  // namespace quil

#endif
