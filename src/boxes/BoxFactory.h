// The box factory: reads one box header and makes the object of the right
// class for its four-character code (and, where it matters, the parent's).
#ifndef QUIL_BOXES_BOXFACTORY_H
#define QUIL_BOXES_BOXFACTORY_H

#include <cstdint>

#include "Box.h"

namespace quil {

// Reads one box from the storage. parentType is the enclosing box's type
// (0 at file level); *parentRemaining is what is left of the parent and is
// lowered by the whole box. *type receives the box type, or 0 for an unknown
// box, which is kept as a bare CBox with its payload skipped.
// Returns 3 (and no box) when the box does not fit in its parent.
MP4Err readBox(CStorage* storage, uint32_t parentType, CBox** box, uint32_t* type,
               uint64_t* parentRemaining);

// Process-wide nesting depth of the box reader. Reset when a file is
// opened and before "moov" is written. The reader refuses boxes nested
// deeper than kMaxBoxNesting, so a hostile file cannot exhaust the stack.
void resetBoxNesting();
uint32_t boxNesting();
constexpr uint32_t kMaxBoxNesting = 64;

// One row of the factory table, exposed for the table's own unit test.
enum class ParentRule : uint8_t {
    Any,          // the parent is not looked at
    AnyBut,       // unknown box under `parent`
    Only,         // this row applies only under `parent`
};
struct BoxFactoryRow {
    uint32_t type;
    ParentRule rule;
    uint32_t parent;
    CBox* (*create)();  // null: the factory fails with 8 without skipping
};
// The table and its length.
const BoxFactoryRow* boxFactoryTable(uint32_t* rowCount);

// Walks the layout of a box of this type with the lister (whatever its
// parent: a report lists a box by its type alone). MP4_ERR_NOT_AVAILABLE
// for a type whose fields a report does not list.
MP4Err listBoxFields(uint32_t type, FieldLister& io);

}  // namespace quil

#endif
