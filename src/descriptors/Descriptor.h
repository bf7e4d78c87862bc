// The MPEG-4 systems descriptor framework (ISO/IEC 14496-1 §7.2): the
// common header with its expandable size field, the factory that makes a
// class from a tag, the owned child lists and the helpers the descriptor
// families share. The families: EsDescriptors.h, ObjectDescriptors.h.
#ifndef QUIL_DESCRIPTORS_DESCRIPTOR_H
#define QUIL_DESCRIPTORS_DESCRIPTOR_H

#include <cstdint>
#include <memory>

#include "quil/MP4Err.h"
#include "quil/Storage.h"

namespace quil {

// Descriptor tags (ISO/IEC 14496-1 §7.2.2.1, ISO/IEC 14496-14 §3.1).
enum DescriptorTag : uint32_t {
    kObjectDescrTag = 0x01,
    kInitialObjectDescrTag = 0x02,
    kESDescrTag = 0x03,
    kDecoderConfigDescrTag = 0x04,
    kDecSpecificInfoTag = 0x05,
    kSLConfigDescrTag = 0x06,
    kESIDIncTag = 0x0E,
    kESIDRefTag = 0x0F,
    kMP4IODTag = 0x10,
    kMP4ODTag = 0x11,
    kIPLDescrPointerRefTag = 0x12
};

// Deepest descriptor nesting the factory accepts. Real streams nest four
// levels (IOD, ES, decoder config, decoder-specific info); the limit keeps
// a hostile stream of nested headers from exhausting the stack.
constexpr uint32_t kMaxDescriptorNesting = 32;

// The dump name of a tag ("ES descriptor", ..., "Unknown").
const char* descriptorName(uint32_t tag);

// Base of every descriptor. Read through the factory, a bare
// CBaseDescriptor is what an unknown tag leaves behind: a header whose
// payload was skipped, re-written as its tag and a zero size once sizes are
// recalculated.
class CBaseDescriptor {
public:
    CBaseDescriptor() = default;
    explicit CBaseDescriptor(uint32_t descriptorTag) : tag(descriptorTag) {}
    virtual ~CBaseDescriptor() = default;
    CBaseDescriptor(const CBaseDescriptor&) = delete;
    CBaseDescriptor& operator=(const CBaseDescriptor&) = delete;

    // CBaseDescriptor::read reads the header (the tag and the expandable
    // size); derived classes read their payload, lowering `remaining`.
    virtual MP4Err read(CStorage* storage);
    // Header (size in its shortest form), then the payload.
    virtual MP4Err write(CStorage* storage);
    // The bytes write() produces, into memory at *cursor; advances the
    // cursor and lowers *bytesLeft. 7 when the buffer is too small.
    virtual MP4Err writeToBuffer(uint8_t** cursor, uint32_t* bytesLeft);
    // Payload size and header length (the length read from the stream, or
    // the shortest form when the size was recalculated).
    virtual MP4Err getSize(uint32_t* payloadSize, uint32_t* headerBytes);
    virtual MP4Err getTag(uint32_t* out);
    virtual MP4Err getRemaining(uint32_t* out);
    // "--- Start descriptor", the name and the tag/size line.
    virtual MP4Err dump(int32_t depth);
    // Recomputes `size` from the fields and children (recursively) and
    // clears `headerLength`. A bare header has size 0.
    virtual MP4Err calcSize();

    // Copies tag, size, header length and remaining from the header the
    // factory read; nesting tells how deep the descriptor sits.
    void copyHeaderFrom(const CBaseDescriptor& header, uint32_t nesting);

    uint32_t tag = 0;
    uint32_t size = 0;
    uint32_t headerLength = 0;  // 0: compute the shortest form
    uint32_t remaining = 0;     // preset by the factory to the container's allowance

protected:
    // Nesting depth below the outermost descriptor read by the factory.
    uint32_t nesting_ = 0;
};

// A descriptor whose payload is one field layout, followed by child
// descriptors when kChildren is set (Self then has a `children` list): its
// class defines  template <class IO> MP4Err fields(IO& io);  (io/FieldIO.h)
// and dump(); read, write and calcSize walk that one list. The family's
// source includes descriptors/DescriptorFields.h and instantiates
// `template class CFieldDescriptor<CSomeDescriptor, ...>;` once.
template <class Self, bool kChildren = false>
class CFieldDescriptor : public CBaseDescriptor {
public:
    using CBaseDescriptor::CBaseDescriptor;
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err calcSize() override;
};

// Size of the whole descriptor (header included) as its parent counts it.
MP4Err descriptorTotalSize(CBaseDescriptor* descriptor, uint64_t* total);

// Ordered list of owned child descriptors: appended at the end, walked from
// first to last with a cursor.
class CDescriptorList {
public:
    struct Node {
        CBaseDescriptor* descriptor;  // owned
        Node* next;
    };

    CDescriptorList() = default;
    ~CDescriptorList();  // deletes every child, iteratively
    CDescriptorList(const CDescriptorList&) = delete;
    CDescriptorList& operator=(const CDescriptorList&) = delete;

    // Takes ownership on success. 2 for a null descriptor, 1 when no node
    // can be made (the caller then still owns the descriptor).
    MP4Err append(CBaseDescriptor* descriptor);
    // Cursor walk: rewind(), then next() until it answers 3.
    void rewind() { cursor_ = head_; }
    MP4Err next(CBaseDescriptor** descriptor);
    // The first child with that tag, or 3.
    MP4Err findFirst(uint32_t childTag, CBaseDescriptor** descriptor) const;

    Node* head() const { return head_; }
    uint32_t count() const { return count_; }

private:
    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    Node* cursor_ = nullptr;
    uint32_t count_ = 0;
};

// The descriptor factory: reads one descriptor whose container still allows
// `allowance` bytes. *tag receives the tag of the class made, or 0 for an
// unknown tag (then the bare header is handed out and its payload skipped).
// On failure nothing is handed out. nesting is the depth of the container.
MP4Err readDescriptor(CStorage* storage, uint32_t allowance, CBaseDescriptor** descriptor,
                      uint32_t* tag, uint32_t nesting = 0);

// The child loop shared by every descriptor with children: while
// *remaining is above zero, read a child with that allowance, append it and
// lower *remaining by its size and header (clamped at zero).
MP4Err readDescriptorList(CDescriptorList* list, CStorage* storage, uint32_t* remaining,
                          uint32_t nesting);
// calcSize on every child, then the sum of their sizes with headers.
MP4Err calcDescriptorListSize(CDescriptorList* list, uint64_t* total);
MP4Err writeDescriptorList(CDescriptorList* list, CStorage* storage);
// Each child's dump at depth + 1.
MP4Err dumpDescriptorList(CDescriptorList* list, int32_t depth);

// Helpers shared by the descriptor families.
// Copies a caller's URL into a zero-terminated buffer (2 for null bytes or
// a length above 255).
MP4Err copyDescriptorURL(const uint8_t* bytes, uint32_t length, std::unique_ptr<uint8_t[]>* url);
// "URL length %d URL string:" and the characters, 60 to a line.
void dumpDescriptorURL(int32_t depth, uint8_t length, const uint8_t* url);
// "{", the children at depth + 1, "}".
MP4Err dumpDescriptorChildrenInBraces(CDescriptorList* list, int32_t depth);
// Creates the list when it is missing (1 on failure).
MP4Err ensureDescriptorList(std::unique_ptr<CDescriptorList>* list);

}  // namespace quil

#endif
