// Decoder configuration records of H.264/AVC (ISO/IEC 14496-15 §5.3.3.1)
// and H.265/HEVC (ISO/IEC 14496-15 §8.3.3.1): the payloads of the "avcC"
// and "hvcC" boxes, also built from a caller's bytes by the sample entries.
#ifndef QUIL_DESCRIPTORS_CONFIGRECORDS_H
#define QUIL_DESCRIPTORS_CONFIGRECORDS_H

#include <cstdint>
#include <memory>
#include <vector>

#include "quil/MP4Err.h"
#include "quil/Storage.h"

namespace quil {

// The interface both records share.
class CDecoderConfigRecord {
public:
    CDecoderConfigRecord() = default;
    virtual ~CDecoderConfigRecord() = default;
    CDecoderConfigRecord(const CDecoderConfigRecord&) = delete;
    CDecoderConfigRecord& operator=(const CDecoderConfigRecord&) = delete;

    // Reads a payload of count bytes; `size` becomes count.
    virtual MP4Err read(CStorage* storage, uint32_t count) = 0;
    virtual MP4Err write(CStorage* storage) = 0;
    // Always 0.
    virtual MP4Err dump(int32_t depth) = 0;
    // Stores the payload size the fields give; always 0.
    virtual MP4Err calcSize() = 0;
    // The size stored by the last read() or calcSize().
    virtual MP4Err getSize(uint64_t* out) {
        if (out) *out = size;
        return MP4_OK;
    }

    uint64_t size = 0;
};

class CAVCDecoderConfigRecord : public CDecoderConfigRecord {
public:
    static constexpr uint32_t kMaxSequenceParameterSets = 32;  // 5-bit count
    static constexpr uint32_t kMaxPictureParameterSets = 256;  // 8-bit count

    MP4Err read(CStorage* storage, uint32_t count) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calcSize() override;
    // Reading skips an extension and notes that there was one.
    template <class IO>
    MP4Err fields(IO& io);

    uint8_t configurationVersion = 1;
    uint8_t AVCProfileIndication = 0;
    uint8_t profile_compatibility = 0;
    uint8_t AVCLevelIndication = 0;
    uint8_t lengthSizeMinusOne = 3;  // 0..3; four-byte NAL length prefixes
    uint8_t numOfSequenceParameterSets = 0;  // 0..31
    uint8_t numOfPictureParameterSets = 0;
    uint32_t spsLength[kMaxSequenceParameterSets] = {};
    std::unique_ptr<uint8_t[]> sps[kMaxSequenceParameterSets];
    uint32_t ppsLength[kMaxPictureParameterSets] = {};
    std::unique_ptr<uint8_t[]> pps[kMaxPictureParameterSets];
    // Set when bytes followed the parameter sets; such a record is written
    // with the fixed four-byte trailer FF FF FF 00.
    uint32_t hasExtension = 0;

private:
    void clearParameterSets();
    uint32_t sequenceParameterSetCount() const;
    MP4Err checkWritable() const;
};

// One array of NAL units of a single type in an HEVC record.
class CHEVCNalArray {
public:
    // Appends a copy of a NAL unit and counts it in numNalus (2 for null
    // bytes or a unit longer than 65535 bytes, 1 on allocation failure).
    MP4Err addNalUnit(const uint8_t* bytes, uint32_t length);

    uint8_t array_completeness = 0;  // 0 or 1
    uint8_t NAL_unit_type = 0;       // 6 bits
    uint16_t numNalus = 0;
    std::vector<uint16_t> nalLengths;
    std::vector<std::unique_ptr<uint8_t[]>> nalUnits;

    // Appends one unit already allocated (1 when the lists cannot grow).
    MP4Err appendUnit(uint16_t length, std::unique_ptr<uint8_t[]> unit);
    // Reading appends the units it meets.
    template <class IO>
    MP4Err fields(IO& io);
};

class CHEVCDecoderConfigRecord : public CDecoderConfigRecord {
public:
    MP4Err read(CStorage* storage, uint32_t count) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calcSize() override;
    template <class IO>
    MP4Err fields(IO& io);

    // Takes ownership of an array and counts it in numOfArrays.
    MP4Err addArray(std::unique_ptr<CHEVCNalArray> array);

    uint8_t configurationVersion = 1;
    uint8_t general_profile_space = 0;  // 2 bits
    uint8_t general_tier_flag = 0;      // 0 or 1
    uint8_t general_profile_idc = 0;    // 5 bits
    uint32_t general_profile_compatibility_flags = 0;
    uint64_t general_constraint_indicator_flags = 0;  // 48 bits
    uint8_t general_level_idc = 0;
    uint16_t min_spatial_segmentation_idc = 0;  // 12 bits
    uint8_t parallelismType = 0;       // 2 bits
    uint8_t chromaFormat = 0;          // 2 bits
    uint8_t bitDepthLumaMinus8 = 0;    // 3 bits
    uint8_t bitDepthChromaMinus8 = 0;  // 3 bits
    uint16_t avgFrameRate = 0;
    uint8_t constantFrameRate = 0;     // 2 bits
    uint8_t numTemporalLayers = 0;     // 3 bits
    uint8_t temporalIdNested = 0;      // 0 or 1
    uint8_t lengthSizeMinusOne = 3;    // 2 bits
    uint8_t numOfArrays = 0;
    std::vector<std::unique_ptr<CHEVCNalArray>> arrays;

private:
    template <class IO>
    void fixedFields(IO& io);
    MP4Err checkWritable() const;
};

}  // namespace quil

#endif
