// quil: the boxes of a read file as they lie in it, for diagnostics: each
// box's place (path, offset, size) and its bytes, walked from the file's
// bytes rather than from the parsed tree, so boxes the library does not
// interpret ("meta" and its items, fragment boxes, unknown containers) are
// listed with their children too.
#ifndef QUIL_MP4BOXWALK_H
#define QUIL_MP4BOXWALK_H

#include <cstdint>

#include "Export.h"
#include "MP4Err.h"

namespace quil {

class CMp4File;

struct MP4BoxVisit {
    uint32_t type;           // four-character code
    uint64_t offset;         // of the box header in the file
    uint64_t size;           // of the whole box, header included
    uint32_t headerSize;     // 8, 16 with a 64-bit size, + 16 for "uuid"
    uint32_t depth;          // 0 for top-level boxes
    const char* path;        // "moov/trak[2]/mdia": types, [n] from the 2nd of a type
                             // on; valid during the visit only
    uint64_t payloadLength;  // bytes after the header that are not child boxes
                             // (fields before the children, or the whole payload)
    uint32_t childCount;     // boxes found inside (0 for a leaf)
    uint32_t handler;        // "hdlr" type of the enclosing track, 0 outside one
};

// Called once per box, parents before their children, in file order; a
// result other than 0 ends the walk with that result.
typedef MP4Err (*MP4BoxVisitor)(const MP4BoxVisit* box, void* user);

// Walks every box of a file open for reading. A box that does not fit its
// parent ends the walk of that parent (the bytes left are not boxes).
// Containers: the structure boxes ("moov", "trak", "mdia", "minf", "stbl",
// "dinf", "edts", "udta", "mvex", "moof", "traf", "mfra", "tref", "sinf",
// "schi", "wave", ...), "meta" (ISO and QuickTime forms), "ilst" and its
// items, "stsd", "dref", and the visual and sound sample entries. 2 for a
// null file or visitor; 3 when the file is not open for reading; 4 when its
// bytes cannot be read.
QUIL_API MP4Err Mp4VisitBoxes(CMp4File* file, MP4BoxVisitor visitor, void* user);

// Copies count bytes at offset of a file open for reading (a box's fields,
// for a report). 2 for null arguments; 3 when not open for reading; 4 when
// the bytes cannot be read.
QUIL_API MP4Err Mp4ReadFileBytes(CMp4File* file, uint64_t offset, uint8_t* buffer,
                                 uint32_t count);

// How a described field is given.
enum MP4FieldForm : uint8_t {
    MP4_FIELD_NUMBER,  // number
    MP4_FIELD_SIGNED,  // number, two's complement
    MP4_FIELD_CODE,    // number, a four-character code
    MP4_FIELD_CODES,   // bytes: four-character codes, four bytes each
    MP4_FIELD_TEXT,    // bytes: text as stored, without its terminator
    MP4_FIELD_TABLE,   // the box holds a table; its entries' fields follow
};

struct MP4BoxField {
    const char* key;       // camelCase name ("entries" for MP4_FIELD_TABLE)
    uint32_t entry;        // 0: a field of the box; n: of the n-th table entry
    uint8_t form;          // MP4FieldForm
    uint64_t number;
    const uint8_t* bytes;  // valid during the call only
    uint32_t length;       // of bytes
};

// Called once per field, in the order the box stores them; a result other
// than 0 ends the description with that result.
typedef MP4Err (*MP4FieldVisitor)(const MP4BoxField* field, void* user);

// Describes a box met by Mp4VisitBoxes: its named fields, read from the
// first bytes of its payload, and the fields of its first `entries` table
// entries. Damaged boxes are described as far as they go: a field past the
// box's bytes is given as 0, an entry cut short is left out. Boxes whose
// fields are not described ("mdat", unknown boxes, ...) give no call.
// Described: "ftyp", "styp", "mvhd", "mdhd", "tkhd", "hdlr", "stsd",
// "dref", "meta" (the ISO form), "vmhd", "smhd", "mfhd", "tfdt", "trex",
// "stts", "ctts", "stss", "stsc", "stsz", "stco", "co64", "elst".
// 2 for null arguments; 3 when the file is not open for reading.
QUIL_API MP4Err Mp4DescribeBox(CMp4File* file, const MP4BoxVisit* box, uint32_t entries,
                               MP4FieldVisitor visitor, void* user);

}  // namespace quil

#endif
