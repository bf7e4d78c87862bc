// The bodies of CFieldBox, for the sources that define box families.
#ifndef QUIL_BOXES_FIELDBOX_H
#define QUIL_BOXES_FIELDBOX_H

#include "boxes/Box.h"
#include "io/FieldIO.h"
#include "io/FieldLister.h"

namespace quil {

template <class Self, class Base>
MP4Err CFieldBox<Self, Base>::read(CStorage* storage) {
    return readFields(static_cast<Self*>(this), storage, &this->remaining);
}

template <class Self, class Base>
MP4Err CFieldBox<Self, Base>::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeFields(static_cast<Self*>(this), storage);
    return err != MP4_OK ? err : writeChildren(this->childList(), storage);
}

template <class Self, class Base>
MP4Err CFieldBox<Self, Base>::calculateSize() {
    MP4Err err = CBox::calculateSize();
    if (err != MP4_OK) return err;
    uint64_t total = this->size + countFields(static_cast<Self*>(this));
    err = addChildrenSizes(this->childList(), &total);
    this->size = total;
    return err;
}

}  // namespace quil

#endif
