// Reading H.264 and HEVC Annex B streams: NAL units, the parameter-set
// fields an MP4 track needs (size, profile, timing, picture order), slice
// headers up to the picture order count, and the decoder configuration
// records ("avcC", "hvcC") made from the parameter sets.
//
// Every parser works on one NAL unit (header included, start code not) and
// answers MP4_ERR_INVALID_DATA when the unit ends early or a value is out
// of its range, MP4_ERR_UNSUPPORTED for a form it does not read.
#ifndef QUIL_IMPORT_VIDEOPARSERS_H
#define QUIL_IMPORT_VIDEOPARSERS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "quil/MP4Err.h"

namespace quil {

// One NAL unit of an Annex B stream: its bytes after the start code, with
// the zero bytes that pad it before the next start code left out, and the
// offset of its first byte in the stream.
struct NalUnit {
    const uint8_t* data = nullptr;
    size_t size = 0;
    uint64_t offset = 0;
};

// The next NAL unit at or after *cursor; false at the end of the data.
// *cursor moves past the unit.
bool nextNalUnit(const uint8_t* data, size_t size, size_t* cursor, NalUnit* nal);

// Frame timing from the stream (VUI or VPS timing information): each
// frame lasts frameDuration / timeScale seconds; 0, 0 when absent.
struct VideoTiming {
    uint32_t timeScale = 0;
    uint32_t frameDuration = 0;
};

// ---- H.264 ----------------------------------------------------------------

enum AvcNalType : uint8_t {
    AVC_NAL_SLICE = 1,
    AVC_NAL_IDR = 5,
    AVC_NAL_SEI = 6,
    AVC_NAL_SPS = 7,
    AVC_NAL_PPS = 8,
    AVC_NAL_AUD = 9,
    AVC_NAL_END_OF_SEQUENCE = 10,
    AVC_NAL_END_OF_STREAM = 11,
    AVC_NAL_FILLER = 12
};

struct AvcSps {
    uint32_t id = 0;
    uint8_t profile = 0;
    uint8_t constraints = 0;
    uint8_t level = 0;
    uint32_t chromaFormat = 1;
    bool separateColourPlane = false;
    uint32_t bitDepthLuma = 8;
    uint32_t bitDepthChroma = 8;
    uint32_t log2MaxFrameNum = 4;
    uint32_t pocType = 0;
    uint32_t log2MaxPocLsb = 4;
    bool deltaPicOrderAlwaysZero = false;
    int32_t offsetForNonRefPic = 0;
    int32_t offsetForTopToBottomField = 0;
    std::vector<int32_t> refFrameOffsets;  // offset_for_ref_frame[]
    bool frameMbsOnly = true;
    uint32_t width = 0;  // luma samples after cropping
    uint32_t height = 0;
    VideoTiming timing;
};

struct AvcPps {
    uint32_t id = 0;
    uint32_t spsId = 0;
    bool bottomFieldPicOrderPresent = false;
};

struct AvcSliceHeader {
    uint32_t firstMb = 0;
    uint32_t ppsId = 0;
    uint32_t frameNum = 0;
    bool fieldPic = false;
    bool bottomField = false;
    uint32_t pocLsb = 0;
    int32_t deltaPocBottom = 0;
    int32_t deltaPoc[2] = {0, 0};
};

MP4Err parseAvcSps(const uint8_t* nal, size_t size, AvcSps* sps);
MP4Err parseAvcPps(const uint8_t* nal, size_t size, AvcPps* pps);
// A slice's header up to its picture order fields; 3 when it refers to a
// parameter set the maps do not hold.
MP4Err parseAvcSliceHeader(const uint8_t* nal, size_t size, const std::map<uint32_t, AvcSps>& spss,
                           const std::map<uint32_t, AvcPps>& ppss, AvcSliceHeader* slice,
                           const AvcSps** sps);

// Picture order count of successive pictures (ISO/IEC 14496-10 §8.2.1),
// for frames; memory management resets are not followed.
class CAvcPictureOrder {
public:
    int64_t next(const AvcSps& sps, const AvcSliceHeader& slice, bool idr, bool reference);

private:
    int64_t prevMsb_ = 0;
    uint32_t prevLsb_ = 0;
    uint64_t prevFrameNumOffset_ = 0;
    uint32_t prevFrameNum_ = 0;
};

// The AVCDecoderConfigurationRecord (ISO/IEC 14496-15 §5.3.3) with 4-byte
// lengths, for the sequence and picture parameter sets given (whole NAL
// units); the profile fields come from the first SPS.
std::vector<uint8_t> buildAvcConfig(const std::vector<std::vector<uint8_t>>& spsUnits,
                                    const std::vector<std::vector<uint8_t>>& ppsUnits,
                                    const AvcSps& first);

// ---- HEVC -----------------------------------------------------------------

enum HevcNalType : uint8_t {
    HEVC_NAL_BLA_W_LP = 16,
    HEVC_NAL_IDR_W_RADL = 19,
    HEVC_NAL_IDR_N_LP = 20,
    HEVC_NAL_CRA = 21,
    HEVC_NAL_VPS = 32,
    HEVC_NAL_SPS = 33,
    HEVC_NAL_PPS = 34,
    HEVC_NAL_AUD = 35,
    HEVC_NAL_EOS = 36,
    HEVC_NAL_EOB = 37,
    HEVC_NAL_FILLER = 38,
    HEVC_NAL_PREFIX_SEI = 39,
    HEVC_NAL_SUFFIX_SEI = 40
};

struct HevcVps {
    uint32_t id = 0;
    VideoTiming timing;
};

struct HevcSps {
    uint32_t id = 0;
    uint32_t maxSubLayersMinus1 = 0;
    bool temporalIdNesting = false;
    // general_profile_space .. general_level_idc as coded (12 bytes).
    uint8_t profileTierLevel[12] = {};
    uint32_t chromaFormat = 1;
    bool separateColourPlane = false;
    uint32_t width = 0;  // luma samples after the conformance window
    uint32_t height = 0;
    uint32_t bitDepthLuma = 8;
    uint32_t bitDepthChroma = 8;
    uint32_t log2MaxPocLsb = 4;
    VideoTiming timing;
};

struct HevcPps {
    uint32_t id = 0;
    uint32_t spsId = 0;
    bool dependentSliceSegments = false;
    bool outputFlagPresent = false;
    uint32_t extraSliceHeaderBits = 0;
};

struct HevcSliceHeader {
    bool firstInPicture = false;
    uint32_t ppsId = 0;
    uint32_t pocLsb = 0;
};

MP4Err parseHevcVps(const uint8_t* nal, size_t size, HevcVps* vps);
MP4Err parseHevcSps(const uint8_t* nal, size_t size, HevcSps* sps);
MP4Err parseHevcPps(const uint8_t* nal, size_t size, HevcPps* pps);
// Only the first slice segment of a picture is read past its first flag.
MP4Err parseHevcSliceHeader(const uint8_t* nal, size_t size, const std::map<uint32_t, HevcSps>& spss,
                            const std::map<uint32_t, HevcPps>& ppss, HevcSliceHeader* slice,
                            const HevcSps** sps);

inline uint8_t hevcNalType(const uint8_t* nal) { return (nal[0] >> 1) & 0x3F; }
inline uint8_t hevcTemporalId(const uint8_t* nal) { return static_cast<uint8_t>((nal[1] & 7) - 1); }
inline bool isHevcIrap(uint8_t type) { return type >= 16 && type <= 23; }

// Picture order count of successive pictures (ISO/IEC 23008-2 §8.3.1).
class CHevcPictureOrder {
public:
    // firstPicture: the stream's first picture (a CRA there starts anew).
    int64_t next(const HevcSps& sps, const HevcSliceHeader& slice, uint8_t nalType,
                 uint8_t temporalId, bool firstPicture);

private:
    int64_t prevTid0Poc_ = 0;
};

// The HEVCDecoderConfigurationRecord (ISO/IEC 14496-15 §8.3.3) with 4-byte
// lengths and one complete array per parameter-set type.
std::vector<uint8_t> buildHevcConfig(const std::vector<std::vector<uint8_t>>& vpsUnits,
                                     const std::vector<std::vector<uint8_t>>& spsUnits,
                                     const std::vector<std::vector<uint8_t>>& ppsUnits,
                                     const HevcSps& first);

}  // namespace quil

#endif
