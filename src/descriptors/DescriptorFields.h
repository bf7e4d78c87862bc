// The walks of a descriptor whose payload is one `fields` layout
// (io/FieldIO.h) followed by its child descriptors, for the sources that
// define descriptor families.
#ifndef QUIL_DESCRIPTORS_DESCRIPTORFIELDS_H
#define QUIL_DESCRIPTORS_DESCRIPTORFIELDS_H

#include <memory>
#include <new>

#include "descriptors/Descriptor.h"
#include "io/FieldIO.h"

namespace quil {

// Reads the fields within the descriptor's payload, then, when it has a
// child list, every child in what is left (nesting: the descriptor's own).
template <class D>
MP4Err readDescriptorLayout(D* descriptor, CStorage* storage,
                            std::unique_ptr<CDescriptorList>* children, uint32_t nesting) {
    MP4Err err = readFields(descriptor, storage, &descriptor->remaining);
    if (err != MP4_OK || !children) return err;
    children->reset(new (std::nothrow) CDescriptorList());
    if (!*children) return MP4_ERR_OUT_OF_MEMORY;
    return readDescriptorList(children->get(), storage, &descriptor->remaining, nesting + 1);
}

// The header (the size in its shortest form), the fields, the children.
template <class D>
MP4Err writeDescriptorLayout(D* descriptor, CStorage* storage, CDescriptorList* children) {
    MP4Err err = descriptor->CBaseDescriptor::write(storage);
    if (err == MP4_OK) err = writeFields(descriptor, storage);
    return err != MP4_OK ? err : writeDescriptorList(children, storage);
}

// Sets the payload size to what the fields and the (resized) children
// take and clears the header length. A size beyond the 32-bit field is
// refused with 10 instead of wrapping (writing would refuse it anyway).
template <class D>
MP4Err sizeDescriptorLayout(D* descriptor, CDescriptorList* children) {
    uint64_t childBytes = 0;
    MP4Err err = calcDescriptorListSize(children, &childBytes);
    if (err != MP4_OK) return err;
    const uint64_t total = countFields(descriptor) + childBytes;
    if (total > 0xFFFFFFFFull) return MP4_ERR_VALUE_TOO_LARGE;
    descriptor->size = static_cast<uint32_t>(total);
    descriptor->headerLength = 0;
    return MP4_OK;
}

template <class Self, bool kChildren>
MP4Err CFieldDescriptor<Self, kChildren>::read(CStorage* storage) {
    Self* self = static_cast<Self*>(this);
    if constexpr (kChildren) return readDescriptorLayout(self, storage, &self->children, nesting_);
    return readDescriptorLayout(self, storage, nullptr, nesting_);
}

template <class Self, bool kChildren>
MP4Err CFieldDescriptor<Self, kChildren>::write(CStorage* storage) {
    Self* self = static_cast<Self*>(this);
    if constexpr (kChildren) return writeDescriptorLayout(self, storage, self->children.get());
    return writeDescriptorLayout(self, storage, nullptr);
}

template <class Self, bool kChildren>
MP4Err CFieldDescriptor<Self, kChildren>::calcSize() {
    Self* self = static_cast<Self*>(this);
    if constexpr (kChildren) return sizeDescriptorLayout(self, self->children.get());
    return sizeDescriptorLayout(self, nullptr);
}

// A URL: its length byte, then that many characters, kept zero-terminated
// (the terminator is not part of the field). A field the payload cannot
// hold is refused with `shortfall`.
template <class IO>
MP4Err urlField(IO& io, uint8_t& length, std::unique_ptr<uint8_t[]>& url, MP4Err shortfall) {
    if (!io.require(1, shortfall).u8(length).ok()) return io.error();
    if constexpr (IO::kReads) {
        if (!io.require(length, shortfall).ok()) return io.error();
        std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[length + 1u]);
        if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
        buffer[length] = 0;
        if (io.bytes(buffer.get(), length).ok()) url = std::move(buffer);
        return io.error();
    } else {
        // Sized by its length even without the bytes (writing refuses that).
        return io.bytes(url.get(), IO::kCounts || url ? length : 0).error();
    }
}

}  // namespace quil

#endif
