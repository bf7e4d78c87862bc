// The box model: the header every box shares, full boxes, child lists and
// containers. Every box class reads, writes, sizes and dumps itself.
#ifndef QUIL_BOXES_BOX_H
#define QUIL_BOXES_BOX_H

#include <cstdint>
#include <memory>

#include "quil/MP4Err.h"
#include "quil/MP4Types.h"
#include "quil/Storage.h"

namespace quil {

class CBoxList;
class FieldLister;

// Bytes of a file kept as they were, so that writing the tree again writes
// them unchanged: in memory up to kKeepInMemory bytes (or whatever a memory
// storage holds, whose buffer may not outlive the reading), beyond that as a
// reference to where they lie in the file's storage, copied from there at
// write time. Copies share the bytes; they never change once kept.
class CKeptBytes {
public:
    static constexpr uint64_t kKeepInMemory = 1u << 20;

    // Keeps the next count bytes of the storage and leaves it after them.
    // A count beyond what the storage can deliver is refused with 6.
    MP4Err keep(CStorage* storage, uint64_t count);
    void clear() { bytes_.reset(); }
    uint64_t length() const;
    // Copies count bytes from offset on: 18 outside, storage errors as they come.
    MP4Err read(uint64_t offset, uint8_t* buffer, uint64_t count) const;
    MP4Err write(CStorage* storage) const;

private:
    struct Bytes;
    std::shared_ptr<const Bytes> bytes_;
};

// Base of every box. After reading, `size` is the total size from the
// header; after calculateSize() it is the computed size, not yet counting a
// 64-bit largesize field (getSize() and write() add those 8 bytes).
class CBox {
public:
    CBox() = default;
    virtual ~CBox() = default;
    CBox(const CBox&) = delete;
    CBox& operator=(const CBox&) = delete;

    // CBox::read reads the header; derived classes read their payload (the
    // factory has already read the header for them) and lower `remaining`
    // by what they consume. What is left is skipped by the factory.
    virtual MP4Err read(CStorage* storage);
    // CBox::write writes the header; derived classes call it, then write
    // their payload.
    virtual MP4Err write(CStorage* storage);
    // CBox::dump prints "\n", the indentation and the "Box type" line (and
    // the user type of "uuid" boxes); derived classes then print their own
    // lines, each after the indentation.
    virtual MP4Err dump(int32_t depth);
    // Sets size to 8 (24 for "uuid") and clears sizeFromFile; derived
    // classes add their payload and their children's sizes.
    virtual MP4Err calculateSize();
    virtual MP4Err getSize(uint64_t* size);
    virtual double getRotationAngle() { return 0.0; }
    // Whether someone else writes the box (the media data, written by the
    // file writer): its write() then writes nothing of what it announces.
    virtual bool writtenElsewhere() const { return false; }
    // Walks the box's layout with a FieldLister, for a report of its named
    // fields; boxes a report does not describe answer MP4_ERR_NOT_AVAILABLE.
    virtual MP4Err listFields(FieldLister&) { return MP4_ERR_NOT_AVAILABLE; }

    // Child access for boxes that hold children (containers, "dref",
    // "stsd", sample entries, ...). instance is 1-based; 0 and 1 both mean
    // the first match. Plain boxes answer MP4_ERR_NOT_AVAILABLE.
    virtual MP4Err findChild(uint32_t type, CBox** box, uint32_t instance = 1);
    virtual MP4Err addChild(CBox* box);
    // The box's child list, or null when it has none.
    virtual CBoxList* childList() { return nullptr; }

    // Copies size, type, remaining, sizeFromFile and a fresh copy of the
    // user type from the plain box the factory read the header into.
    MP4Err copyHeaderFrom(const CBox& header);

    // Keeps the `remaining` payload bytes of a box the library does not
    // interpret (CBox::write writes them after the header, calculateSize
    // counts them) and leaves the storage after the box.
    MP4Err keepPayload(CStorage* storage);
    const CKeptBytes& keptPayload() const { return kept_; }
    // A known box whose payload did not read as its class expects keeps its
    // bytes as they were; writing the tree writes those, not the fields.
    void writeAsRead() { writeAsRead_ = true; }
    bool writesAsRead() const { return writeAsRead_; }

    // 8, or 24 for "uuid": the header of a box with a 32-bit size.
    uint64_t baseHeaderSize() const { return type == fourcc("uuid") ? 24 : 8; }

    uint64_t size = 0;
    uint32_t type = 0;
    std::unique_ptr<uint8_t[]> usertype;  // 16 bytes, "uuid" only
    uint64_t remaining = 0;
    bool sizeFromFile = false;

private:
    CKeptBytes kept_;
    bool writeAsRead_ = false;
};

// Sizes and writes a box as a tree writer must: a box kept as read goes out
// as its header and the bytes it was read from, any other through its class.
// Debug builds (NDEBUG unset) also check that the box wrote the bytes its
// size announced and name its path on standard error when it did not.
MP4Err sizeBox(CBox* box);
// Where a box being read starts in its storage: the position of its
// payload's unread part less what was read of it. 6 when that lies before
// the storage's start.
MP4Err boxStartOffset(const CBox& box, CStorage* storage, uint64_t* offset);
MP4Err writeBox(CBox* box, CStorage* storage);

// A box that starts its payload with an 8-bit version and 24-bit flags.
class CFullBox : public CBox {
public:
    uint8_t version = 0;
    uint32_t flags = 0;

protected:
    // Reads version and flags (4 bytes) and lowers remaining by 4.
    MP4Err readVersionAndFlags(CStorage* storage);
    // Writes version and flags (the header must already be written).
    MP4Err writeVersionAndFlags(CStorage* storage);
    // Prints "Version = %d, Flags = 0x%06x\n" after the indentation.
    void dumpVersionAndFlags(int32_t depth);
};

// A box whose payload is one field layout: its class defines
//     template <class IO> MP4Err fields(IO& io);
// (io/FieldIO.h) and dump(); read, write and calculateSize walk that one
// list. The family's source includes boxes/FieldBox.h and instantiates
// `template class CFieldBox<CSomeBox, Base>;` once.
template <class Self, class Base = CBox>
class CFieldBox : public Base {
public:
    using Base::Base;
    MP4Err read(CStorage* storage) override;
    // The header, the fields, then the children when the box has a list.
    MP4Err write(CStorage* storage) override;
    // The header's size, what the fields count and the children's sizes.
    MP4Err calculateSize() override;
};

// Ordered list of owned child boxes with a cursor, so that walking children
// in order costs one step each. Indices are 1-based.
class CBoxList {
public:
    struct Node {
        uint32_t index;
        CBox* box;  // owned
        Node* next;
    };

    explicit CBoxList(CBox* owner) : owner_(owner) {}
    ~CBoxList();  // deletes every child, iteratively
    CBoxList(const CBoxList&) = delete;
    CBoxList& operator=(const CBoxList&) = delete;

    // Takes ownership. 2 for a null box, 1 when a node cannot be made (the
    // box is then not owned by the list).
    MP4Err append(CBox* box);
    // The instance-th child of that type (0 and 1 mean the first):
    // 3 when there is none, 17 when the index wraps around.
    MP4Err findNth(uint32_t type, CBox** box, uint32_t instance);
    // Replaces a child in place (same index); the old box is returned to
    // the caller, who then owns it. 3 when old is not in the list.
    MP4Err replace(CBox* oldBox, CBox* newBox);

    Node* head() const { return head_; }
    uint32_t count() const { return count_; }
    // Bytes after the last child that are not a box (a terminator, a
    // child that did not fit, a few stray bytes), written back after the
    // children.
    CKeptBytes& trailing() { return trailing_; }
    CBox* owner() const { return owner_; }
    // Type of the owner, the parent type handed to the factory (0 without).
    uint32_t ownerType() const { return owner_ ? owner_->type : 0; }

private:
    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    Node* cursor_ = nullptr;
    uint32_t count_ = 0;
    CBox* owner_;
    CKeptBytes trailing_;
};

// Helpers for any box that holds a child list.
// Writes each child in order, then the trailing bytes, stopping at the
// first error.
MP4Err writeChildren(CBoxList* list, CStorage* storage);
// Runs calculateSize on each child and adds its getSize, and the trailing
// bytes, to *total.
MP4Err addChildrenSizes(CBoxList* list, uint64_t* total);
// Dumps each child at depth + 1, stopping at the first error.
MP4Err dumpChildren(CBoxList* list, int32_t depth);
// The indentation and "{", the children at depth + 1, the indentation and "}\n".
MP4Err dumpChildrenInBraces(CBoxList* list, int32_t depth);

// For boxes that own a child list (containers, "dref", "stsd", sample
// entries...). The instance-th child of that type: 3 without a list.
MP4Err findInChildList(CBoxList* list, uint32_t type, CBox** box, uint32_t instance);
// Appends a child, making the list first: 1 when it cannot be made.
MP4Err appendToChildList(std::unique_ptr<CBoxList>* list, CBox* owner, CBox* box);
// Makes the list a box reads its children into: 5 when the box already has
// one (read twice), 1 when it cannot be made.
MP4Err startChildList(std::unique_ptr<CBoxList>* list, CBox* owner);

// The container reading loop: reads children from the storage while at
// least 8 of *remaining bytes are left, with the list owner's type as the
// parent type. Lenient: a child too large for the parent ends the reading
// and the rest is kept as trailing bytes, as are 1 to 7 bytes at the end;
// a damaged child ends the reading silently.
MP4Err readChildren(CBoxList* list, CStorage* storage, uint64_t* remaining);

// A box whose payload is only child boxes.
class CContainerBox : public CBox {
public:
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;
    MP4Err findChild(uint32_t type, CBox** box, uint32_t instance = 1) override;
    MP4Err addChild(CBox* box) override;
    CBoxList* childList() override { return children.get(); }

    std::unique_ptr<CBoxList> children;

protected:
    // "dinf", "mdia" and "edts" grow their size by each added child's size;
    // the other containers are sized only by calculateSize.
    virtual bool growsOnAddChild() const { return false; }
};

// A recognised box whose payload the library does not parse: it is kept as
// it is and written back unchanged.
class COpaqueBox : public CBox {
public:
    MP4Err read(CStorage* storage) override { return keepPayload(storage); }
};

}  // namespace quil

#endif
