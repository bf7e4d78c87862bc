#include "HintBoxes.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "boxes/BoxFactory.h"
#include "io/Dump.h"
#include "io/FieldIO.h"

namespace quil {
namespace {

constexpr uint64_t kRtpEntryFieldsSize = 8;  // versions and max packet size

// Takes a box read under an "rtp " entry into the slot of its type.
template <class T>
MP4Err takeInto(std::unique_ptr<T>* slot, CBox* box) {
    T* typed = dynamic_cast<T*>(box);
    if (!typed) return MP4_ERR_INVALID_ARGUMENT;
    if (*slot) return MP4_ERR_WRONG_LAYOUT;
    slot->reset(typed);
    return MP4_OK;
}

}  // namespace

// ---- 32-bit payload boxes ---------------------------------------------------

MP4Err CInt32PayloadBox::read(CStorage* storage) {
    if (remaining < 4) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = storage->readUInt32(&value);
    if (err != MP4_OK) return err;
    remaining -= 4;
    return MP4_OK;
}

MP4Err CInt32PayloadBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    return storage->writeUInt32(value);
}

MP4Err CInt32PayloadBox::calculateSize() {
    CBox::calculateSize();
    size += 4;
    return MP4_OK;
}

MP4Err CRTPOffsetTLVBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Time offset = %d\n", static_cast<int32_t>(value));
    return MP4_OK;
}

MP4Err CTimeScaleEntryBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Time scale = %d\n", static_cast<int32_t>(value));
    return MP4_OK;
}

MP4Err CTimeStampOffsetBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Time stamp offset = %d\n", static_cast<int32_t>(value));
    return MP4_OK;
}

MP4Err CSequenceOffsetBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Sequence number offset = %d\n", static_cast<int32_t>(value));
    return MP4_OK;
}

// ---- "rtp " hint sample entry -----------------------------------------------

MP4Err CRtpHintSampleEntry::read(CStorage* storage) {
    MP4Err err = readSampleEntryStart(storage);
    if (err != MP4_OK) return err;
    if (remaining < kRtpEntryFieldsSize) return MP4_ERR_BAD_BOX_SIZE;
    err = storage->readUInt16(&hintTrackVersion);
    if (err == MP4_OK) err = storage->readUInt16(&highestCompatibleVersion);
    if (err == MP4_OK) err = storage->readUInt32(&maxPacketSize);
    if (err != MP4_OK) return err;
    remaining -= kRtpEntryFieldsSize;

    // Children one at a time: the three known ones are kept (a second one
    // of a kind is an error), anything else is read and dropped. A damaged
    // child ends the list, as in every container.
    while (remaining >= 8) {
        CBox* child = nullptr;
        uint32_t childType = 0;
        if (readBox(storage, type, &child, &childType, &remaining) != MP4_OK) break;
        std::unique_ptr<CBox> owned(child);
        const uint32_t kind = owned->type;
        if (kind != fourcc("tims") && kind != fourcc("tsro") && kind != fourcc("snro")) continue;
        err = addChild(owned.get());
        if (err == MP4_ERR_WRONG_LAYOUT) return err;
        if (err == MP4_OK) owned.release();
    }
    return tims ? MP4_OK : MP4_ERR_WRONG_LAYOUT;
}

MP4Err CRtpHintSampleEntry::write(CStorage* storage) {
    if (!tims) return MP4_ERR_WRONG_LAYOUT;
    MP4Err err = writeSampleEntryStart(storage);
    if (err == MP4_OK) err = storage->writeUInt16(hintTrackVersion);
    if (err == MP4_OK) err = storage->writeUInt16(highestCompatibleVersion);
    if (err == MP4_OK) err = storage->writeUInt32(maxPacketSize);
    if (err == MP4_OK) err = tims->write(storage);
    if (err == MP4_OK && tsro) err = tsro->write(storage);
    if (err == MP4_OK && snro) err = snro->write(storage);
    return err;
}

MP4Err CRtpHintSampleEntry::calculateSize() {
    calculateStartSize();
    size += kRtpEntryFieldsSize;
    CBox* kept[] = {tims.get(), tsro.get(), snro.get()};
    for (CBox* child : kept) {
        if (!child) continue;
        MP4Err err = child->calculateSize();
        uint64_t childSize = 0;
        if (err == MP4_OK) err = child->getSize(&childSize);
        if (err != MP4_OK) return err;
        size += childSize;
    }
    return MP4_OK;
}

MP4Err CRtpHintSampleEntry::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpDataReferenceIndex(depth);
    dumpLine(depth, "Hint track version = %d, Highest compatible version = %d Max packet size = %d\n",
             static_cast<int32_t>(hintTrackVersion), static_cast<int32_t>(highestCompatibleVersion),
             static_cast<int32_t>(maxPacketSize));
    CBox* kept[] = {tims.get(), tsro.get(), snro.get()};
    for (CBox* child : kept) {
        if (!child) continue;
        err = child->dump(depth + 1);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CRtpHintSampleEntry::findChild(uint32_t childType, CBox** box, uint32_t instance) {
    *box = nullptr;
    if (instance > 1) return MP4_ERR_NOT_AVAILABLE;  // at most one of each
    if (childType == fourcc("tims")) *box = tims.get();
    if (childType == fourcc("tsro")) *box = tsro.get();
    if (childType == fourcc("snro")) *box = snro.get();
    return *box ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CRtpHintSampleEntry::addChild(CBox* box) {
    if (!box) return MP4_ERR_INVALID_ARGUMENT;
    if (box->type == fourcc("tims")) return takeInto(&tims, box);
    if (box->type == fourcc("tsro")) return takeInto(&tsro, box);
    if (box->type == fourcc("snro")) return takeInto(&snro, box);
    return MP4_ERR_INVALID_ARGUMENT;
}

// ---- SDP text boxes ---------------------------------------------------------

MP4Err CSdpTextBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "SDP text:\n");
    // The text is printed as it stands, line breaks and all.
    std::fwrite(text(), 1, textLength_, stdout);
    return MP4_OK;
}

MP4Err CSdpTextBox::setText(const char* text) {
    text_.reset();
    textLength_ = 0;
    if (!text) return MP4_OK;
    const size_t length = std::strlen(text);
    if (length > UINT32_MAX - 1) return MP4_ERR_VALUE_TOO_LARGE;
    text_.reset(new (std::nothrow) char[length + 1]);
    if (!text_) return MP4_ERR_OUT_OF_MEMORY;
    std::memcpy(text_.get(), text, length + 1);
    textLength_ = static_cast<uint32_t>(length);
    return MP4_OK;
}

MP4Err CSdpTextBox::readText(CStorage* storage) {
    if (remaining > UINT32_MAX - 1) return MP4_ERR_BAD_BOX_SIZE;
    const uint32_t length = static_cast<uint32_t>(remaining);
    std::unique_ptr<uint8_t[]> bytes;
    // Grows with the bytes actually there, so a damaged size cannot make
    // us allocate more than the input holds.
    MP4Err err = readOwnedBytes(storage, length, &bytes);
    if (err != MP4_OK) return err;
    text_.reset(new (std::nothrow) char[static_cast<size_t>(length) + 1]);
    if (!text_) return MP4_ERR_OUT_OF_MEMORY;
    if (length > 0) std::memcpy(text_.get(), bytes.get(), length);
    text_[length] = '\0';
    // Up to the first zero, like any C text.
    textLength_ = static_cast<uint32_t>(std::strlen(text_.get()));
    remaining = 0;
    return MP4_OK;
}

MP4Err CSdpTextBox::writeText(CStorage* storage) {
    if (textLength_ == 0) return MP4_OK;
    return storage->writeBlock(text_.get(), static_cast<int32_t>(textLength_));
}

MP4Err CRtpMovieHintInformationBox::read(CStorage* storage) {
    if (remaining < 4) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = storage->readUInt32(&descriptionFormat);
    if (err != MP4_OK) return err;
    remaining -= 4;
    return readText(storage);
}

MP4Err CRtpMovieHintInformationBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = storage->writeUInt32(descriptionFormat);
    if (err == MP4_OK) err = writeText(storage);
    return err;
}

MP4Err CRtpMovieHintInformationBox::calculateSize() {
    CBox::calculateSize();
    size += 4 + static_cast<uint64_t>(textLength_);
    return MP4_OK;
}

MP4Err CRtpTrackSdpHintInformationBox::read(CStorage* storage) { return readText(storage); }

MP4Err CRtpTrackSdpHintInformationBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeText(storage);
    return err;
}

MP4Err CRtpTrackSdpHintInformationBox::calculateSize() {
    CBox::calculateSize();
    size += textLength_;
    return MP4_OK;
}

}  // namespace quil
