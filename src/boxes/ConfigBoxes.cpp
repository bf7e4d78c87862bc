#include "ConfigBoxes.h"

#include <new>

#include "io/Dump.h"
#include "io/FieldIO.h"
#include "storage/BoundedStorage.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

// Records and descriptors count in 32 bits; a larger payload is offered to
// them as its first 4 GiB, and the box skips whatever they leave.
uint32_t allowanceOf(uint64_t remaining) {
    return remaining > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(remaining);
}

// Payloads up to this size are also kept as read; parameter sets are a few
// hundred bytes, so only a damaged box is larger.
constexpr uint64_t kMaxKeptPayload = 1u << 20;

// Shared by "avcC" and "hvcC": a fresh record reads the payload, which must
// hold it; the rest of the payload is skipped. A payload of usual size is
// read whole first and the record parsed from that copy, which is kept.
template <class Record>
MP4Err readRecordBox(CBox* box, std::unique_ptr<Record>* record, CStorage* storage,
                     std::unique_ptr<uint8_t[]>* fileBytes, uint32_t* fileByteCount) {
    record->reset(new (std::nothrow) Record());
    if (!*record) return MP4_ERR_OUT_OF_MEMORY;
    const uint64_t payload = box->remaining;
    CStorage* source = storage;
    CMemoryStorage copy;
    std::unique_ptr<uint8_t[]> bytes;
    if (payload > readableBytes(storage)) return MP4_ERR_BAD_BOX_SIZE;
    if (payload > 0 && payload <= kMaxKeptPayload) {
        bytes.reset(new (std::nothrow) uint8_t[payload]);
        if (!bytes) return MP4_ERR_OUT_OF_MEMORY;
        MP4Err err = storage->readBytes(bytes.get(), payload);
        if (err != MP4_OK) return err;
        copy.attach(bytes.get(), static_cast<uint32_t>(payload), false);
        copy.open(0);
        source = &copy;
    }
    MP4Err err = (*record)->read(source, allowanceOf(payload));
    uint64_t recordSize = 0;
    (*record)->getSize(&recordSize);
    if (source == &copy) {
        copy.close();
        copy.detach();
        box->remaining = 0;  // the whole payload is consumed already
        if (err != MP4_OK) return err;
        if (recordSize > payload) return MP4_ERR_BAD_BOX_SIZE;
        *fileBytes = std::move(bytes);
        *fileByteCount = static_cast<uint32_t>(payload);
        return MP4_OK;
    }
    if (err != MP4_OK) return err;
    if (recordSize > box->remaining) return MP4_ERR_BAD_BOX_SIZE;
    uint64_t rest = box->remaining - recordSize;
    box->remaining = 0;
    return rest > 0 ? storage->skip(rest) : MP4_OK;
}

template <class Record>
MP4Err writeRecordBox(CBox* box, Record* record, CStorage* storage) {
    if (!record) return MP4_ERR_WRONG_LAYOUT;
    MP4Err err = box->CBox::write(storage);
    if (err != MP4_OK) return err;
    return record->write(storage);
}

template <class Record>
MP4Err sizeRecordBox(CBox* box, Record* record) {
    MP4Err err = box->CBox::calculateSize();
    if (err != MP4_OK || !record) return err;
    record->calcSize();
    uint64_t recordSize = 0;
    record->getSize(&recordSize);
    box->size += recordSize;
    return MP4_OK;
}

template <class Record>
MP4Err dumpRecordBox(CBox* box, Record* record, int32_t depth) {
    MP4Err err = box->CBox::dump(depth);
    if (err != MP4_OK || !record) return err;
    return record->dump(depth + 1);
}

// The payload of "esds" and "iods": version and flags, then one descriptor
// with one of two tags that must fit in what is left of the box. It is
// written and sized by its own layout; sizing it first means a header read
// in a longer form than the one written is not counted.
template <class Descriptor>
struct DescriptorBoxLayout {
    CFullBox* box;
    std::unique_ptr<Descriptor>* descriptor;
    uint32_t wantedTag;
    uint32_t otherTag;

    template <class IO>
    MP4Err fields(IO& io) {
        if (!io.versionAndFlags(box->version, box->flags).ok()) return io.error();
        if constexpr (IO::kReads) {
            descriptor->reset();
            return read(io.storage());
        } else if constexpr (IO::kCounts) {
            if (!*descriptor) return MP4_OK;
            uint64_t total = 0;
            MP4Err err = (*descriptor)->calcSize();
            if (err == MP4_OK) descriptorTotalSize(descriptor->get(), &total);
            return io.fail(err).repeated(total, 1).error();
        } else {
            return io.fail((*descriptor)->write(io.storage())).error();
        }
    }

    MP4Err read(CStorage* storage) {
        CBaseDescriptor* made = nullptr;
        uint32_t tag = 0;
        MP4Err err = readDescriptor(storage, allowanceOf(box->remaining), &made, &tag);
        if (err != MP4_OK) return err;
        std::unique_ptr<CBaseDescriptor> owned(made);
        Descriptor* wanted = dynamic_cast<Descriptor*>(made);
        if ((tag != wantedTag && tag != otherTag) || !wanted) return MP4_ERR_WRONG_LAYOUT;
        uint64_t total = 0;
        descriptorTotalSize(made, &total);
        if (total > box->remaining) return MP4_ERR_VALUE_TOO_LARGE;
        box->remaining -= total;
        owned.release();
        descriptor->reset(wanted);
        return MP4_OK;
    }
};

template <class Descriptor>
MP4Err readDescriptorBox(DescriptorBoxLayout<Descriptor> layout, CStorage* storage) {
    return readFields(&layout, storage, &layout.box->remaining);
}

// A box without its descriptor is refused (9) before anything is written.
template <class Descriptor>
MP4Err writeDescriptorBox(DescriptorBoxLayout<Descriptor> layout, CStorage* storage) {
    if (!*layout.descriptor) return MP4_ERR_BAD_SIZE_FIELD;
    MP4Err err = layout.box->CBox::write(storage);
    return err != MP4_OK ? err : writeFields(&layout, storage);
}

template <class Descriptor>
MP4Err sizeDescriptorBox(DescriptorBoxLayout<Descriptor> layout) {
    MP4Err err = layout.box->CBox::calculateSize();
    if (err != MP4_OK) return err;
    FieldCounter io;
    err = layout.fields(io);
    layout.box->size += io.total();
    return err;
}

}  // namespace

// ---- "avcC" -----------------------------------------------------------------

MP4Err CAVCConfigurationBox::read(CStorage* storage) {
    return readRecordBox(this, &record, storage, &fileBytes, &fileByteCount);
}
MP4Err CAVCConfigurationBox::write(CStorage* storage) { return writeRecordBox(this, record.get(), storage); }
MP4Err CAVCConfigurationBox::dump(int32_t depth) { return dumpRecordBox(this, record.get(), depth); }
MP4Err CAVCConfigurationBox::calculateSize() { return sizeRecordBox(this, record.get()); }

MP4Err CAVCConfigurationBox::getRecord(CAVCDecoderConfigRecord** out) const {
    if (!out) return MP4_ERR_INVALID_ARGUMENT;
    *out = record.get();
    return record ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

// ---- "hvcC" -----------------------------------------------------------------

MP4Err CHEVCConfigurationBox::read(CStorage* storage) {
    return readRecordBox(this, &record, storage, &fileBytes, &fileByteCount);
}
MP4Err CHEVCConfigurationBox::write(CStorage* storage) { return writeRecordBox(this, record.get(), storage); }
MP4Err CHEVCConfigurationBox::dump(int32_t depth) { return dumpRecordBox(this, record.get(), depth); }
MP4Err CHEVCConfigurationBox::calculateSize() { return sizeRecordBox(this, record.get()); }

MP4Err CHEVCConfigurationBox::getRecord(CHEVCDecoderConfigRecord** out) const {
    if (!out) return MP4_ERR_INVALID_ARGUMENT;
    *out = record.get();
    return record ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

// ---- "esds" -----------------------------------------------------------------

namespace {
DescriptorBoxLayout<CESDescriptor> layoutOf(CESDBox* box) {
    return {box, &box->esDescriptor, kESDescrTag, kESDescrTag};
}
}  // namespace

MP4Err CESDBox::read(CStorage* storage) { return readDescriptorBox(layoutOf(this), storage); }
MP4Err CESDBox::write(CStorage* storage) { return writeDescriptorBox(layoutOf(this), storage); }
MP4Err CESDBox::calculateSize() { return sizeDescriptorBox(layoutOf(this)); }

MP4Err CESDBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "{\n");
    // A box whose descriptor could not be read still dumps its frame.
    if (esDescriptor) {
        err = esDescriptor->dump(depth + 1);
        if (err != MP4_OK) return err;
    }
    dumpLine(depth, "}\n");
    return MP4_OK;
}


MP4Err CESDBox::getESDescriptor(CESDescriptor** out) const {
    if (!out) return MP4_ERR_INVALID_ARGUMENT;
    *out = esDescriptor.get();
    return esDescriptor ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CESDBox::getDecoderConfig(CDecoderConfigDescriptor** out) const {
    *out = esDescriptor ? esDescriptor->decoderConfig : nullptr;
    return *out ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CESDBox::getObjectTypeIndication(uint8_t* out) const {
    if (!out) return MP4_ERR_INVALID_ARGUMENT;
    *out = 0;
    CDecoderConfigDescriptor* config = nullptr;
    MP4Err err = getDecoderConfig(&config);
    if (err == MP4_OK) *out = config->objectTypeIndication;
    return err;
}

MP4Err CESDBox::getStreamType(uint8_t* out) const {
    if (!out) return MP4_ERR_INVALID_ARGUMENT;
    *out = 0;
    CDecoderConfigDescriptor* config = nullptr;
    MP4Err err = getDecoderConfig(&config);
    if (err == MP4_OK) *out = config->streamType;
    return err;
}

MP4Err CESDBox::getBitRates(uint32_t* bufferSizeDB, uint32_t* maxBitrate,
                            uint32_t* avgBitrate) const {
    if (bufferSizeDB) *bufferSizeDB = 0;
    if (maxBitrate) *maxBitrate = 0;
    if (avgBitrate) *avgBitrate = 0;
    CDecoderConfigDescriptor* config = nullptr;
    MP4Err err = getDecoderConfig(&config);
    if (err != MP4_OK) return err;
    if (bufferSizeDB) *bufferSizeDB = config->bufferSizeDB;
    if (maxBitrate) *maxBitrate = config->maxBitrate;
    if (avgBitrate) *avgBitrate = config->avgBitrate;
    return MP4_OK;
}

MP4Err CESDBox::getDecoderSpecificInfo(uint8_t* buffer, uint32_t capacity, uint32_t* length) const {
    if (!length) return MP4_ERR_INVALID_ARGUMENT;
    *length = 0;
    if (!esDescriptor) return MP4_ERR_NOT_AVAILABLE;
    return esDescriptor->getDecoderSpecificInfo(buffer, capacity, length);
}

MP4Err CESDBox::getDecoderSpecificInfoLength(uint32_t* length) const {
    return getDecoderSpecificInfo(nullptr, 0, length);
}

// ---- "iods" -----------------------------------------------------------------

namespace {
DescriptorBoxLayout<CInitialObjectDescriptor> layoutOf(CObjectDescriptorBox* box) {
    return {box, &box->descriptor, kMP4IODTag, kInitialObjectDescrTag};
}
}  // namespace

MP4Err CObjectDescriptorBox::read(CStorage* storage) { return readDescriptorBox(layoutOf(this), storage); }
MP4Err CObjectDescriptorBox::write(CStorage* storage) { return writeDescriptorBox(layoutOf(this), storage); }
MP4Err CObjectDescriptorBox::calculateSize() { return sizeDescriptorBox(layoutOf(this)); }

MP4Err CObjectDescriptorBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    if (!descriptor) return MP4_ERR_BAD_SIZE_FIELD;
    dumpLine(depth, "{\n");
    err = descriptor->dump(depth + 1);
    if (err != MP4_OK) return err;
    dumpLine(depth, "}\n");
    return MP4_OK;
}


MP4Err CObjectDescriptorBox::getDescriptor(CInitialObjectDescriptor** out) const {
    if (!out) return MP4_ERR_INVALID_ARGUMENT;
    *out = descriptor.get();
    return descriptor ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

MP4Err CObjectDescriptorBox::createDescriptor(CInitialObjectDescriptor** out) {
    if (!descriptor) {
        descriptor.reset(new (std::nothrow) CInitialObjectDescriptor(kMP4IODTag));
        if (!descriptor) return MP4_ERR_OUT_OF_MEMORY;
    }
    if (out) *out = descriptor.get();
    return MP4_OK;
}

}  // namespace quil
