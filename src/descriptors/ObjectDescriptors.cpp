#include "ObjectDescriptors.h"

#include <new>

#include "descriptors/DescriptorFields.h"
#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint16_t kMaxObjectDescriptorID = 0x3FF;

}  // namespace

// ---- CObjectDescriptor ------------------------------------------------------

template <class IO>
MP4Err CObjectDescriptor::fields(IO& io) {
    CInitialObjectDescriptor* iod = initial();
    // Below the ID and URL_Flag: the initial descriptor's flag and four
    // reserved bits, or five reserved bits; reserved bits are written as ones.
    const uint32_t lowBits = iod ? ((iod->includeInlineProfileLevelFlag ? 1u : 0u) << 4) | 0x0Fu : 0x1Fu;
    uint16_t word = static_cast<uint16_t>((ObjectDescriptorID & kMaxObjectDescriptorID) << 6 |
                                          (URL_Flag ? 1u : 0u) << 5 | lowBits);
    // The fields are checked against the declared size: a damaged size must
    // not let the fixed part run into the next descriptor.
    if (!io.require(2, MP4_ERR_VALUE_TOO_LARGE).u16(word).ok()) return io.error();
    if constexpr (IO::kReads) {
        ObjectDescriptorID = word >> 6;
        URL_Flag = (word >> 5) & 1;
        if (iod) iod->includeInlineProfileLevelFlag = (word >> 4) & 1;
    }
    if (URL_Flag) return urlField(io, URLlength, URLstring, MP4_ERR_VALUE_TOO_LARGE);
    if (!iod) return MP4_OK;
    return io.require(5, MP4_ERR_VALUE_TOO_LARGE)
        .u8(iod->ODProfileLevelIndication)
        .u8(iod->sceneProfileLevelIndication)
        .u8(iod->audioProfileLevelIndication)
        .u8(iod->visualProfileLevelIndication)
        .u8(iod->graphicsProfileLevelIndication)
        .error();
}

MP4Err CObjectDescriptor::read(CStorage* storage) {
    return readDescriptorLayout(this, storage, &children, nesting_);
}

MP4Err CObjectDescriptor::write(CStorage* storage) {
    if (URL_Flag && URLlength > 0 && !URLstring) return MP4_ERR_INVALID_DATA;
    return writeDescriptorLayout(this, storage, children.get());
}

void CObjectDescriptor::dumpFlags(int32_t depth) {
    dumpLine(depth, "URL flag: %d\n", static_cast<int32_t>(URL_Flag));
}

MP4Err CObjectDescriptor::dump(int32_t depth) {
    MP4Err err = CBaseDescriptor::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Object descriptor ID: %d\n", static_cast<int32_t>(ObjectDescriptorID));
    dumpFlags(depth);
    if (URL_Flag) {
        dumpDescriptorURL(depth, URLlength, URLstring.get());
    } else {
        dumpProfileLevels(depth);
    }
    if (children && children->count() > 0) return dumpDescriptorChildrenInBraces(children.get(), depth);
    return MP4_OK;
}

MP4Err CObjectDescriptor::calcSize() { return sizeDescriptorLayout(this, children.get()); }

MP4Err CObjectDescriptor::setObjectDescriptorID(uint16_t id) {
    if (id > kMaxObjectDescriptorID) return MP4_ERR_INVALID_ARGUMENT;
    ObjectDescriptorID = id;
    return MP4_OK;
}

MP4Err CObjectDescriptor::setURL(const uint8_t* bytes, uint32_t length) {
    MP4Err err = copyDescriptorURL(bytes, length, &URLstring);
    if (err != MP4_OK) return err;
    URLlength = static_cast<uint8_t>(length);
    URL_Flag = 1;
    return MP4_OK;
}

MP4Err CObjectDescriptor::addDescriptor(CBaseDescriptor* child) {
    if (!child) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = ensureDescriptorList(&children);
    if (err != MP4_OK) return err;
    return children->append(child);
}

MP4Err CObjectDescriptor::addESIDInc(uint32_t trackID) {
    std::unique_ptr<CESIDInc> inc(new (std::nothrow) CESIDInc());
    if (!inc) return MP4_ERR_OUT_OF_MEMORY;
    inc->Track_ID = trackID;
    MP4Err err = addDescriptor(inc.get());
    if (err == MP4_OK) inc.release();
    return err;
}

MP4Err CObjectDescriptor::addESIDRef(uint16_t refIndex) {
    std::unique_ptr<CESIDRef> ref(new (std::nothrow) CESIDRef());
    if (!ref) return MP4_ERR_OUT_OF_MEMORY;
    ref->ref_index = refIndex;
    MP4Err err = addDescriptor(ref.get());
    if (err == MP4_OK) ref.release();
    return err;
}

// ---- CInitialObjectDescriptor -----------------------------------------------

void CInitialObjectDescriptor::setProfileLevels(uint8_t od, uint8_t scene, uint8_t audio,
                                                uint8_t visual, uint8_t graphics) {
    ODProfileLevelIndication = od;
    sceneProfileLevelIndication = scene;
    audioProfileLevelIndication = audio;
    visualProfileLevelIndication = visual;
    graphicsProfileLevelIndication = graphics;
}

void CInitialObjectDescriptor::dumpFlags(int32_t depth) {
    dumpLine(depth, "URL flag: %d Include inline profile level flag: %d\n",
             static_cast<int32_t>(URL_Flag), static_cast<int32_t>(includeInlineProfileLevelFlag));
}

void CInitialObjectDescriptor::dumpProfileLevels(int32_t depth) {
    dumpLine(depth, "OD profile level: 0x%02x  Scene profile level: 0x%02x\n",
             static_cast<uint32_t>(ODProfileLevelIndication),
             static_cast<uint32_t>(sceneProfileLevelIndication));
    dumpLine(depth, "Audio profile level: 0x%02x  Visual profile level: 0x%02x\n",
             static_cast<uint32_t>(audioProfileLevelIndication),
             static_cast<uint32_t>(visualProfileLevelIndication));
    dumpLine(depth, "Graphics profile level: 0x%02x\n",
             static_cast<uint32_t>(graphicsProfileLevelIndication));
}

}  // namespace quil
