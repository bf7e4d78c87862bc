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

}  // namespace quil

#endif
