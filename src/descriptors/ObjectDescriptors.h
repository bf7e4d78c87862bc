// Object descriptors (ISO/IEC 14496-1 §7.2.6.3 and §7.2.6.4) and their
// MP4 file forms (ISO/IEC 14496-14 §3.1), which hold ES descriptors or
// ES ID references instead of carrying streams themselves.
#ifndef QUIL_DESCRIPTORS_OBJECTDESCRIPTORS_H
#define QUIL_DESCRIPTORS_OBJECTDESCRIPTORS_H

#include <cstdint>
#include <memory>

#include "EsDescriptors.h"

namespace quil {

class CInitialObjectDescriptor;

// ObjectDescriptor (tag 0x01) and MP4_OD (tag 0x11): a 10-bit ID, URL_Flag,
// five reserved bits (written as ones), an optional URL, then children
// (ES descriptors or ES_ID_Refs, then any other descriptors).
class CObjectDescriptor : public CBaseDescriptor {
public:
    explicit CObjectDescriptor(uint32_t descriptorTag = kObjectDescrTag)
        : CBaseDescriptor(descriptorTag) {}

    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calcSize() override;
    template <class IO>
    MP4Err fields(IO& io);

    // 2 for an ID that does not fit in 10 bits.
    MP4Err setObjectDescriptorID(uint16_t id);
    // Copies the URL and sets URL_Flag (2 for null bytes or above 255).
    MP4Err setURL(const uint8_t* bytes, uint32_t length);
    // Takes ownership of a child (2 for null, 1 when it cannot be listed).
    MP4Err addDescriptor(CBaseDescriptor* child);
    MP4Err addESDescriptor(CESDescriptor* descriptor) { return addDescriptor(descriptor); }
    // Appends a new ES_ID_Inc naming a track, or an ES_ID_Ref.
    MP4Err addESIDInc(uint32_t trackID);
    MP4Err addESIDRef(uint16_t refIndex);

    uint16_t ObjectDescriptorID = 0;  // 10 bits
    uint32_t URL_Flag = 0;
    uint8_t URLlength = 0;
    std::unique_ptr<uint8_t[]> URLstring;  // URLlength bytes and a zero
    std::unique_ptr<CDescriptorList> children;

protected:
    // The initial object descriptor itself (null for this class): its
    // layout adds a flag to the ID word and, without a URL, the
    // profile-level indications.
    virtual CInitialObjectDescriptor* initial() { return nullptr; }
    virtual void dumpFlags(int32_t depth);
    virtual void dumpProfileLevels(int32_t) {}
};

// InitialObjectDescriptor (tag 0x02) and MP4_IOD (tag 0x10): as above with
// includeInlineProfileLevelFlag, four reserved bits and, without a URL, the
// five profile-level indications.
class CInitialObjectDescriptor : public CObjectDescriptor {
public:
    explicit CInitialObjectDescriptor(uint32_t descriptorTag = kInitialObjectDescrTag)
        : CObjectDescriptor(descriptorTag) {}

    void setProfileLevels(uint8_t od, uint8_t scene, uint8_t audio, uint8_t visual,
                          uint8_t graphics);

    uint32_t includeInlineProfileLevelFlag = 0;
    // 0xFF: no capability required.
    uint8_t ODProfileLevelIndication = 0xFF;
    uint8_t sceneProfileLevelIndication = 0xFF;
    uint8_t audioProfileLevelIndication = 0xFF;
    uint8_t visualProfileLevelIndication = 0xFF;
    uint8_t graphicsProfileLevelIndication = 0xFF;

protected:
    CInitialObjectDescriptor* initial() override { return this; }
    void dumpFlags(int32_t depth) override;
    void dumpProfileLevels(int32_t depth) override;
};

}  // namespace quil

#endif
