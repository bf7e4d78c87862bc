#include "ObjectDescriptors.h"

#include <new>

#include "io/FieldIO.h"
#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint16_t kMaxObjectDescriptorID = 0x3FF;

}  // namespace

// ---- CObjectDescriptor ------------------------------------------------------

MP4Err CObjectDescriptor::read(CStorage* storage) {
    // The fields are checked against the declared size: a damaged size must
    // not let the fixed part run into the next descriptor.
    if (remaining < 2) return MP4_ERR_VALUE_TOO_LARGE;
    uint16_t word = 0;
    MP4Err err = FieldReader(storage, &remaining).u16(word).error();
    if (err != MP4_OK) return err;
    ObjectDescriptorID = word >> 6;
    URL_Flag = (word >> 5) & 1;
    takeLowFlagBits(word);
    if (URL_Flag) {
        if (remaining < 1) return MP4_ERR_VALUE_TOO_LARGE;
        err = FieldReader(storage, &remaining).u8(URLlength).error();
        if (err != MP4_OK) return err;
        if (remaining < URLlength) return MP4_ERR_VALUE_TOO_LARGE;
        err = readDescriptorURL(storage, URLlength, &URLstring);
        if (err != MP4_OK) return err;
        remaining -= URLlength;
    } else {
        if (remaining < profileLevelBytes()) return MP4_ERR_VALUE_TOO_LARGE;
        err = readProfileLevels(storage);
        if (err != MP4_OK) return err;
    }
    children.reset(new (std::nothrow) CDescriptorList());
    if (!children) return MP4_ERR_OUT_OF_MEMORY;
    return readDescriptorList(children.get(), storage, &remaining, nesting_ + 1);
}

MP4Err CObjectDescriptor::write(CStorage* storage) {
    if (URL_Flag && URLlength > 0 && !URLstring) return MP4_ERR_INVALID_DATA;
    MP4Err err = CBaseDescriptor::write(storage);
    if (err != MP4_OK) return err;
    uint32_t word = (static_cast<uint32_t>(ObjectDescriptorID & kMaxObjectDescriptorID) << 6) |
                    ((URL_Flag ? 1u : 0u) << 5) | lowFlagBits();
    FieldWriter writer(storage);
    writer.u16(word);
    if (URL_Flag) writer.u8(URLlength).bytes(URLstring.get(), URLstring ? URLlength : 0);
    err = writer.error();
    if (err != MP4_OK) return err;
    if (!URL_Flag) {
        err = writeProfileLevels(storage);
        if (err != MP4_OK) return err;
    }
    return writeDescriptorList(children.get(), storage);
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

MP4Err CObjectDescriptor::calcSize() {
    uint64_t total = 2 + (URL_Flag ? 1u + URLlength : profileLevelBytes());
    uint64_t childBytes = 0;
    MP4Err err = calcDescriptorListSize(children.get(), &childBytes);
    if (err != MP4_OK) return err;
    total += childBytes;
    if (total > 0xFFFFFFFFull) return MP4_ERR_VALUE_TOO_LARGE;
    size = static_cast<uint32_t>(total);
    headerLength = 0;
    return MP4_OK;
}

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

uint32_t CInitialObjectDescriptor::lowFlagBits() const {
    return ((includeInlineProfileLevelFlag ? 1u : 0u) << 4) | 0x0F;
}

void CInitialObjectDescriptor::takeLowFlagBits(uint16_t word) {
    includeInlineProfileLevelFlag = (word >> 4) & 1;
}

MP4Err CInitialObjectDescriptor::readProfileLevels(CStorage* storage) {
    return FieldReader(storage, &remaining)
        .u8(ODProfileLevelIndication)
        .u8(sceneProfileLevelIndication)
        .u8(audioProfileLevelIndication)
        .u8(visualProfileLevelIndication)
        .u8(graphicsProfileLevelIndication)
        .error();
}

MP4Err CInitialObjectDescriptor::writeProfileLevels(CStorage* storage) {
    return FieldWriter(storage)
        .u8(ODProfileLevelIndication)
        .u8(sceneProfileLevelIndication)
        .u8(audioProfileLevelIndication)
        .u8(visualProfileLevelIndication)
        .u8(graphicsProfileLevelIndication)
        .error();
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
