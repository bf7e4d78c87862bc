#include "import/VideoParsers.h"

#include <cstring>

#include "import/BitReader.h"

namespace quil {
namespace {

// A slice header's picture order fields lie within its first bytes; the
// rest of the slice need not be unescaped.
constexpr size_t kSliceHeaderBytes = 512;

// Index of the first byte of the next "00 00 01" at or after from; size
// when there is none.
size_t findStartCode(const uint8_t* data, size_t size, size_t from) {
    while (from + 3 <= size) {
        const void* zero = std::memchr(data + from, 0, size - from - 2);
        if (!zero) return size;
        const size_t i = static_cast<size_t>(static_cast<const uint8_t*>(zero) - data);
        if (data[i + 1] == 0 && data[i + 2] == 1) return i;
        from = i + 1;
    }
    return size;
}

void skipScalingList(CBitReader* bits, int size) {
    int32_t last = 8, next = 8;
    for (int j = 0; j < size && !bits->failed(); ++j) {
        if (next != 0) {
            const int32_t delta = bits->se();  // delta_scale: -128..127
            if (delta < -128 || delta > 127) {
                bits->fail();
                return;
            }
            next = (last + delta + 256) % 256;
        }
        last = next == 0 ? last : next;
    }
}

// VUI of either codec up to its timing information.
void readAspectAndSignal(CBitReader* bits) {
    if (bits->flag()) {                       // aspect_ratio_info_present_flag
        if (bits->bits(8) == 255) bits->skip(32);  // Extended_SAR: sar_width, sar_height
    }
    if (bits->flag()) bits->skip(1);          // overscan
    if (bits->flag()) {                       // video_signal_type_present_flag
        bits->skip(4);
        if (bits->flag()) bits->skip(24);     // colour description
    }
    if (bits->flag()) {                       // chroma_loc_info_present_flag
        bits->ue();
        bits->ue();
    }
}

MP4Err finish(const CBitReader& bits) {
    return bits.failed() ? MP4_ERR_INVALID_DATA : MP4_OK;
}

}  // namespace

bool nextNalUnit(const uint8_t* data, size_t size, size_t* cursor, NalUnit* nal) {
    for (;;) {
        const size_t code = findStartCode(data, size, *cursor);
        if (code >= size) {
            *cursor = size;
            return false;
        }
        const size_t start = code + 3;
        size_t end = findStartCode(data, size, start);
        *cursor = end;
        while (end > start && data[end - 1] == 0) --end;  // trailing_zero_8bits
        if (end == start) continue;                         // an empty unit
        nal->data = data + start;
        nal->size = end - start;
        nal->offset = start;
        return true;
    }
}

// ---- H.264 ----------------------------------------------------------------

MP4Err parseAvcSps(const uint8_t* nal, size_t size, AvcSps* sps) {
    if (size < 4) return MP4_ERR_INVALID_DATA;
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 1, size - 1);
    CBitReader bits(rbsp);
    AvcSps s;
    s.profile = static_cast<uint8_t>(bits.bits(8));
    s.constraints = static_cast<uint8_t>(bits.bits(8));
    s.level = static_cast<uint8_t>(bits.bits(8));
    s.id = bits.ue();
    if (s.id > 31) return MP4_ERR_INVALID_DATA;
    switch (s.profile) {
        case 100: case 110: case 122: case 244: case 44: case 83: case 86: case 118: case 128:
        case 138: case 139: case 134: case 135:
            s.chromaFormat = bits.ue();
            if (s.chromaFormat > 3) return MP4_ERR_INVALID_DATA;
            if (s.chromaFormat == 3) s.separateColourPlane = bits.flag();
            s.bitDepthLuma = bits.ue() + 8;
            s.bitDepthChroma = bits.ue() + 8;
            if (s.bitDepthLuma > 14 || s.bitDepthChroma > 14) return MP4_ERR_INVALID_DATA;
            bits.skip(1);  // qpprime_y_zero_transform_bypass_flag
            if (bits.flag()) {  // seq_scaling_matrix_present_flag
                const int lists = s.chromaFormat != 3 ? 8 : 12;
                for (int i = 0; i < lists; ++i) {
                    if (bits.flag()) skipScalingList(&bits, i < 6 ? 16 : 64);
                }
            }
            break;
        default:
            break;
    }
    s.log2MaxFrameNum = bits.ue() + 4;
    if (s.log2MaxFrameNum > 16) return MP4_ERR_INVALID_DATA;
    s.pocType = bits.ue();
    if (s.pocType == 0) {
        s.log2MaxPocLsb = bits.ue() + 4;
        if (s.log2MaxPocLsb > 16) return MP4_ERR_INVALID_DATA;
    } else if (s.pocType == 1) {
        s.deltaPicOrderAlwaysZero = bits.flag();
        s.offsetForNonRefPic = bits.se();
        s.offsetForTopToBottomField = bits.se();
        const uint32_t cycle = bits.ue();
        if (cycle > 255) return MP4_ERR_INVALID_DATA;
        for (uint32_t i = 0; i < cycle && !bits.failed(); ++i) s.refFrameOffsets.push_back(bits.se());
    } else if (s.pocType != 2) {
        return MP4_ERR_INVALID_DATA;
    }
    bits.ue();     // max_num_ref_frames
    bits.skip(1);  // gaps_in_frame_num_value_allowed_flag
    const uint64_t widthMbs = static_cast<uint64_t>(bits.ue()) + 1;
    const uint64_t heightMapUnits = static_cast<uint64_t>(bits.ue()) + 1;
    s.frameMbsOnly = bits.flag();
    if (!s.frameMbsOnly) bits.skip(1);  // mb_adaptive_frame_field_flag
    bits.skip(1);                       // direct_8x8_inference_flag
    uint64_t crop[4] = {0, 0, 0, 0};    // left, right, top, bottom
    if (bits.flag()) {
        for (uint64_t& value : crop) value = bits.ue();
    }
    const uint64_t frameHeightMbs = (s.frameMbsOnly ? 1 : 2) * heightMapUnits;
    const bool monochrome = s.chromaFormat == 0 || s.separateColourPlane;
    const uint64_t cropX = monochrome ? 1 : (s.chromaFormat == 3 ? 1 : 2);
    const uint64_t cropY = (monochrome ? 1 : (s.chromaFormat == 1 ? 2 : 1)) * (s.frameMbsOnly ? 1 : 2);
    const uint64_t width = widthMbs * 16, height = frameHeightMbs * 16;
    const uint64_t cutX = cropX * (crop[0] + crop[1]), cutY = cropY * (crop[2] + crop[3]);
    if (width > 0xFFFF || height > 0xFFFF || cutX >= width || cutY >= height) {
        return MP4_ERR_INVALID_DATA;
    }
    s.width = static_cast<uint32_t>(width - cutX);
    s.height = static_cast<uint32_t>(height - cutY);
    if (bits.flag()) {  // vui_parameters_present_flag
        readAspectAndSignal(&bits);
        if (bits.flag()) {  // timing_info_present_flag
            const uint32_t unitsInTick = bits.bits(32);
            const uint32_t timeScale = bits.bits(32);
            // A frame is two ticks (fields) long.
            if (unitsInTick != 0 && timeScale != 0 && unitsInTick <= 0x7FFFFFFFu) {
                s.timing.timeScale = timeScale;
                s.timing.frameDuration = unitsInTick * 2;
            }
        }
    }
    MP4Err err = finish(bits);
    if (err == MP4_OK) *sps = s;
    return err;
}

MP4Err parseAvcPps(const uint8_t* nal, size_t size, AvcPps* pps) {
    if (size < 2) return MP4_ERR_INVALID_DATA;
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 1, size - 1, 64);
    CBitReader bits(rbsp);
    AvcPps p;
    p.id = bits.ue();
    p.spsId = bits.ue();
    bits.skip(1);  // entropy_coding_mode_flag
    p.bottomFieldPicOrderPresent = bits.flag();
    if (p.id > 255 || p.spsId > 31) return MP4_ERR_INVALID_DATA;
    MP4Err err = finish(bits);
    if (err == MP4_OK) *pps = p;
    return err;
}

MP4Err parseAvcSliceHeader(const uint8_t* nal, size_t size, const std::map<uint32_t, AvcSps>& spss,
                           const std::map<uint32_t, AvcPps>& ppss, AvcSliceHeader* slice,
                           const AvcSps** spsOut) {
    if (size < 2) return MP4_ERR_INVALID_DATA;
    const bool idr = (nal[0] & 0x1F) == AVC_NAL_IDR;
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 1, size - 1, kSliceHeaderBytes);
    CBitReader bits(rbsp);
    AvcSliceHeader h;
    h.firstMb = bits.ue();
    if (bits.ue() > 9) return MP4_ERR_INVALID_DATA;  // slice_type
    h.ppsId = bits.ue();
    if (bits.failed()) return MP4_ERR_INVALID_DATA;
    auto pps = ppss.find(h.ppsId);
    if (pps == ppss.end()) return MP4_ERR_NOT_AVAILABLE;
    auto found = spss.find(pps->second.spsId);
    if (found == spss.end()) return MP4_ERR_NOT_AVAILABLE;
    const AvcSps& sps = found->second;
    if (sps.separateColourPlane) bits.skip(2);  // colour_plane_id
    h.frameNum = bits.bits(sps.log2MaxFrameNum);
    if (!sps.frameMbsOnly) {
        h.fieldPic = bits.flag();
        if (h.fieldPic) h.bottomField = bits.flag();
    }
    if (idr) bits.ue();  // idr_pic_id
    const bool bottomPresent = pps->second.bottomFieldPicOrderPresent && !h.fieldPic;
    if (sps.pocType == 0) {
        h.pocLsb = bits.bits(sps.log2MaxPocLsb);
        if (bottomPresent) h.deltaPocBottom = bits.se();
    } else if (sps.pocType == 1 && !sps.deltaPicOrderAlwaysZero) {
        h.deltaPoc[0] = bits.se();
        if (bottomPresent) h.deltaPoc[1] = bits.se();
    }
    MP4Err err = finish(bits);
    if (err != MP4_OK) return err;
    *slice = h;
    *spsOut = &sps;
    return MP4_OK;
}

int64_t CAvcPictureOrder::next(const AvcSps& sps, const AvcSliceHeader& slice, bool idr,
                               bool reference) {
    if (sps.pocType == 0) {
        if (idr) {
            prevMsb_ = 0;
            prevLsb_ = 0;
        }
        const int64_t maxLsb = int64_t{1} << sps.log2MaxPocLsb;
        const int64_t lsb = slice.pocLsb, prevLsb = prevLsb_;
        int64_t msb = prevMsb_;
        if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2) msb += maxLsb;
        else if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2) msb -= maxLsb;
        if (reference) {
            prevMsb_ = msb;
            prevLsb_ = slice.pocLsb;
        }
        // A field has one count; a frame the smaller of its two fields'.
        const int64_t top = msb + lsb;
        const int64_t bottom = top + slice.deltaPocBottom;
        return top < bottom ? top : bottom;
    }
    // Types 1 and 2 count from frame_num.
    const uint64_t maxFrameNum = uint64_t{1} << sps.log2MaxFrameNum;
    uint64_t frameNumOffset = 0;
    if (!idr) {
        frameNumOffset = prevFrameNumOffset_;
        if (prevFrameNum_ > slice.frameNum) frameNumOffset += maxFrameNum;
    }
    prevFrameNumOffset_ = frameNumOffset;
    prevFrameNum_ = slice.frameNum;
    if (sps.pocType == 2) {
        if (idr) return 0;
        const int64_t value = 2 * static_cast<int64_t>(frameNumOffset + slice.frameNum);
        return reference ? value : value - 1;
    }
    // Sums of stream values in 64-bit two's complement: a damaged stream
    // wraps instead of overflowing; the count only orders pictures.
    const uint64_t cycle = sps.refFrameOffsets.size();
    uint64_t absFrameNum = cycle != 0 ? frameNumOffset + slice.frameNum : 0;
    if (!reference && absFrameNum > 0) --absFrameNum;
    uint64_t expected = 0;
    if (absFrameNum > 0) {
        uint64_t perCycle = 0;
        for (int32_t offset : sps.refFrameOffsets) perCycle += static_cast<uint64_t>(int64_t{offset});
        const uint64_t inCycle = (absFrameNum - 1) % cycle;
        expected = (absFrameNum - 1) / cycle * perCycle;
        for (uint64_t i = 0; i <= inCycle; ++i) {
            expected += static_cast<uint64_t>(int64_t{sps.refFrameOffsets[static_cast<size_t>(i)]});
        }
    }
    if (!reference) expected += static_cast<uint64_t>(int64_t{sps.offsetForNonRefPic});
    const uint64_t top = expected + static_cast<uint64_t>(int64_t{slice.deltaPoc[0]});
    const uint64_t bottom = top + static_cast<uint64_t>(int64_t{sps.offsetForTopToBottomField}) +
                            static_cast<uint64_t>(int64_t{slice.deltaPoc[1]});
    const int64_t topCount = static_cast<int64_t>(top), bottomCount = static_cast<int64_t>(bottom);
    return topCount < bottomCount ? topCount : bottomCount;
}

namespace {

void appendUnits(std::vector<uint8_t>* out, const std::vector<std::vector<uint8_t>>& units) {
    for (const std::vector<uint8_t>& unit : units) {
        out->push_back(static_cast<uint8_t>(unit.size() >> 8));
        out->push_back(static_cast<uint8_t>(unit.size()));
        out->insert(out->end(), unit.begin(), unit.end());
    }
}

}  // namespace

std::vector<uint8_t> buildAvcConfig(const std::vector<std::vector<uint8_t>>& spsUnits,
                                    const std::vector<std::vector<uint8_t>>& ppsUnits,
                                    const AvcSps& first) {
    std::vector<uint8_t> out = {1, first.profile, first.constraints, first.level,
                                0xFF,  // 6 reserved bits, lengthSizeMinusOne 3
                                static_cast<uint8_t>(0xE0 | spsUnits.size())};
    appendUnits(&out, spsUnits);
    out.push_back(static_cast<uint8_t>(ppsUnits.size()));
    appendUnits(&out, ppsUnits);
    // The High profiles carry chroma format and bit depths (§5.3.3.1.2).
    if (first.profile == 100 || first.profile == 110 || first.profile == 122 ||
        first.profile == 144) {
        out.push_back(static_cast<uint8_t>(0xFC | first.chromaFormat));
        out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthLuma - 8)));
        out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthChroma - 8)));
        out.push_back(0);  // no SPS extensions
    }
    return out;
}

// ---- HEVC -----------------------------------------------------------------

namespace {

// profile_tier_level(1, maxSubLayersMinus1); the general part is kept.
void readProfileTierLevel(CBitReader* bits, uint32_t maxSubLayersMinus1, uint8_t general[12]) {
    for (int i = 0; i < 12; ++i) general[i] = static_cast<uint8_t>(bits->bits(8));
    bool profilePresent[8] = {}, levelPresent[8] = {};
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent[i] = bits->flag();
        levelPresent[i] = bits->flag();
    }
    if (maxSubLayersMinus1 > 0) bits->skip(2 * (8 - maxSubLayersMinus1));
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        if (profilePresent[i]) bits->skip(88);
        if (levelPresent[i]) bits->skip(8);
    }
}

void skipHevcScalingLists(CBitReader* bits) {
    for (int sizeId = 0; sizeId < 4; ++sizeId) {
        for (int matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
            if (!bits->flag()) {
                bits->ue();  // scaling_list_pred_matrix_id_delta
                continue;
            }
            const int coefficients = sizeId == 0 ? 16 : 64;
            if (sizeId > 1) bits->se();  // scaling_list_dc_coef_minus8
            for (int i = 0; i < coefficients && !bits->failed(); ++i) bits->se();
        }
    }
}

// st_ref_pic_set(index) of an SPS; counts[] holds NumDeltaPocs of the sets
// read before. False when a count is out of range.
bool skipShortTermRefPicSet(CBitReader* bits, uint32_t index, std::vector<uint32_t>* counts) {
    bool predicted = index != 0 && bits->flag();
    uint32_t count = 0;
    if (predicted) {
        bits->skip(1);  // delta_rps_sign
        bits->ue();     // abs_delta_rps_minus1
        const uint32_t reference = (*counts)[index - 1];
        for (uint32_t j = 0; j <= reference && !bits->failed(); ++j) {
            const bool used = bits->flag();
            const bool useDelta = used || bits->flag();
            if (useDelta) ++count;
        }
    } else {
        const uint32_t negative = bits->ue();
        const uint32_t positive = bits->ue();
        if (negative > 16 || positive > 16) return false;
        for (uint32_t i = 0; i < negative + positive && !bits->failed(); ++i) {
            bits->ue();     // delta_poc_sX_minus1
            bits->skip(1);  // used_by_curr_pic_sX_flag
        }
        count = negative + positive;
    }
    if (count > 32) return false;
    counts->push_back(count);
    return true;
}

void readHevcTiming(CBitReader* bits, VideoTiming* timing) {
    const uint32_t unitsInTick = bits->bits(32);
    const uint32_t timeScale = bits->bits(32);
    if (unitsInTick != 0 && timeScale != 0) {
        timing->timeScale = timeScale;
        timing->frameDuration = unitsInTick;
    }
}

}  // namespace

MP4Err parseHevcVps(const uint8_t* nal, size_t size, HevcVps* vps) {
    if (size < 3) return MP4_ERR_INVALID_DATA;
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 2, size - 2);
    CBitReader bits(rbsp);
    HevcVps v;
    v.id = bits.bits(4);
    bits.skip(2 + 6);  // base layer flags, vps_max_layers_minus1
    const uint32_t maxSubLayersMinus1 = bits.bits(3);
    if (maxSubLayersMinus1 > 6) return MP4_ERR_INVALID_DATA;
    bits.skip(1 + 16);  // temporal_id_nesting, reserved 0xffff
    uint8_t general[12];
    readProfileTierLevel(&bits, maxSubLayersMinus1, general);
    const bool orderingForAll = bits.flag();
    for (uint32_t i = orderingForAll ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1; ++i) {
        bits.ue();
        bits.ue();
        bits.ue();
    }
    const uint32_t maxLayerId = bits.bits(6);
    const uint32_t layerSets = bits.ue();
    if (layerSets > 1023) return MP4_ERR_INVALID_DATA;
    bits.skip(static_cast<uint64_t>(layerSets) * (maxLayerId + 1));
    if (bits.flag()) readHevcTiming(&bits, &v.timing);  // vps_timing_info_present_flag
    MP4Err err = finish(bits);
    if (err == MP4_OK) *vps = v;
    return err;
}

MP4Err parseHevcSps(const uint8_t* nal, size_t size, HevcSps* sps) {
    if (size < 3) return MP4_ERR_INVALID_DATA;
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 2, size - 2);
    CBitReader bits(rbsp);
    HevcSps s;
    bits.skip(4);  // sps_video_parameter_set_id
    s.maxSubLayersMinus1 = bits.bits(3);
    if (s.maxSubLayersMinus1 > 6) return MP4_ERR_INVALID_DATA;
    s.temporalIdNesting = bits.flag();
    readProfileTierLevel(&bits, s.maxSubLayersMinus1, s.profileTierLevel);
    s.id = bits.ue();
    if (s.id > 15) return MP4_ERR_INVALID_DATA;
    s.chromaFormat = bits.ue();
    if (s.chromaFormat > 3) return MP4_ERR_INVALID_DATA;
    if (s.chromaFormat == 3) s.separateColourPlane = bits.flag();
    const uint64_t width = bits.ue(), height = bits.ue();
    uint64_t window[4] = {0, 0, 0, 0};  // left, right, top, bottom
    if (bits.flag()) {
        for (uint64_t& value : window) value = bits.ue();
    }
    const uint64_t subWidth = (s.chromaFormat == 1 || s.chromaFormat == 2) && !s.separateColourPlane ? 2 : 1;
    const uint64_t subHeight = s.chromaFormat == 1 && !s.separateColourPlane ? 2 : 1;
    const uint64_t cutX = subWidth * (window[0] + window[1]);
    const uint64_t cutY = subHeight * (window[2] + window[3]);
    if (width > 0xFFFF || height > 0xFFFF || cutX >= width || cutY >= height) {
        return MP4_ERR_INVALID_DATA;
    }
    s.width = static_cast<uint32_t>(width - cutX);
    s.height = static_cast<uint32_t>(height - cutY);
    s.bitDepthLuma = bits.ue() + 8;
    s.bitDepthChroma = bits.ue() + 8;
    s.log2MaxPocLsb = bits.ue() + 4;
    if (s.bitDepthLuma > 16 || s.bitDepthChroma > 16 || s.log2MaxPocLsb > 16) {
        return MP4_ERR_INVALID_DATA;
    }
    const bool orderingForAll = bits.flag();
    for (uint32_t i = orderingForAll ? 0 : s.maxSubLayersMinus1; i <= s.maxSubLayersMinus1; ++i) {
        bits.ue();
        bits.ue();
        bits.ue();
    }
    for (int i = 0; i < 6; ++i) bits.ue();  // coding and transform block sizes and depths
    if (bits.flag() && bits.flag()) skipHevcScalingLists(&bits);
    bits.skip(2);       // amp_enabled_flag, sample_adaptive_offset_enabled_flag
    if (bits.flag()) {  // pcm_enabled_flag
        bits.skip(8);
        bits.ue();
        bits.ue();
        bits.skip(1);
    }
    const uint32_t sets = bits.ue();
    if (sets > 64) return MP4_ERR_INVALID_DATA;
    std::vector<uint32_t> counts;
    for (uint32_t i = 0; i < sets && !bits.failed(); ++i) {
        if (!skipShortTermRefPicSet(&bits, i, &counts)) return MP4_ERR_INVALID_DATA;
    }
    if (bits.flag()) {  // long_term_ref_pics_present_flag
        const uint32_t longTerm = bits.ue();
        if (longTerm > 32) return MP4_ERR_INVALID_DATA;
        bits.skip(static_cast<uint64_t>(longTerm) * (s.log2MaxPocLsb + 1));
    }
    bits.skip(2);       // temporal MVP, strong intra smoothing
    if (bits.flag()) {  // vui_parameters_present_flag
        readAspectAndSignal(&bits);
        bits.skip(3);  // neutral_chroma_indication, field_seq, frame_field_info_present
        if (bits.flag()) {  // default_display_window_flag
            for (int i = 0; i < 4; ++i) bits.ue();
        }
        if (bits.flag()) readHevcTiming(&bits, &s.timing);
    }
    MP4Err err = finish(bits);
    if (err == MP4_OK) *sps = s;
    return err;
}

MP4Err parseHevcPps(const uint8_t* nal, size_t size, HevcPps* pps) {
    if (size < 3) return MP4_ERR_INVALID_DATA;
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 2, size - 2, 64);
    CBitReader bits(rbsp);
    HevcPps p;
    p.id = bits.ue();
    p.spsId = bits.ue();
    p.dependentSliceSegments = bits.flag();
    p.outputFlagPresent = bits.flag();
    p.extraSliceHeaderBits = bits.bits(3);
    if (p.id > 63 || p.spsId > 15) return MP4_ERR_INVALID_DATA;
    MP4Err err = finish(bits);
    if (err == MP4_OK) *pps = p;
    return err;
}

MP4Err parseHevcSliceHeader(const uint8_t* nal, size_t size, const std::map<uint32_t, HevcSps>& spss,
                            const std::map<uint32_t, HevcPps>& ppss, HevcSliceHeader* slice,
                            const HevcSps** spsOut) {
    if (size < 3) return MP4_ERR_INVALID_DATA;
    const uint8_t type = hevcNalType(nal);
    const std::vector<uint8_t> rbsp = unescapeNalPayload(nal + 2, size - 2, kSliceHeaderBytes);
    CBitReader bits(rbsp);
    HevcSliceHeader h;
    h.firstInPicture = bits.flag();
    if (!h.firstInPicture) {
        *slice = h;
        *spsOut = nullptr;
        return finish(bits);
    }
    if (isHevcIrap(type)) bits.skip(1);  // no_output_of_prior_pics_flag
    h.ppsId = bits.ue();
    if (bits.failed()) return MP4_ERR_INVALID_DATA;
    auto pps = ppss.find(h.ppsId);
    if (pps == ppss.end()) return MP4_ERR_NOT_AVAILABLE;
    auto found = spss.find(pps->second.spsId);
    if (found == spss.end()) return MP4_ERR_NOT_AVAILABLE;
    const HevcSps& sps = found->second;
    bits.skip(pps->second.extraSliceHeaderBits);
    if (bits.ue() > 2) return MP4_ERR_INVALID_DATA;  // slice_type
    if (pps->second.outputFlagPresent) bits.skip(1);
    if (sps.separateColourPlane) bits.skip(2);
    if (type != HEVC_NAL_IDR_W_RADL && type != HEVC_NAL_IDR_N_LP) {
        h.pocLsb = bits.bits(sps.log2MaxPocLsb);
    }
    MP4Err err = finish(bits);
    if (err != MP4_OK) return err;
    *slice = h;
    *spsOut = &sps;
    return MP4_OK;
}

int64_t CHevcPictureOrder::next(const HevcSps& sps, const HevcSliceHeader& slice, uint8_t nalType,
                                uint8_t temporalId, bool firstPicture) {
    const int64_t maxLsb = int64_t{1} << sps.log2MaxPocLsb;
    const int64_t lsb = slice.pocLsb;
    // IDR and BLA pictures, and a CRA that starts the stream, start the
    // count anew (NoRaslOutputFlag).
    const bool restart = isHevcIrap(nalType) && (nalType < HEVC_NAL_CRA ? true : firstPicture);
    int64_t msb = 0;
    if (!restart) {
        const int64_t prevLsb = prevTid0Poc_ & (maxLsb - 1);
        const int64_t prevMsb = prevTid0Poc_ - prevLsb;
        msb = prevMsb;
        if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2) msb += maxLsb;
        else if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2) msb -= maxLsb;
    }
    const int64_t poc = msb + lsb;
    // Pictures that later ones count from: temporal layer 0, not RASL,
    // RADL or a sub-layer non-reference picture.
    const bool radlOrRasl = nalType >= 6 && nalType <= 9;
    const bool subLayerNonReference = nalType <= 14 && nalType % 2 == 0;
    if (temporalId == 0 && !radlOrRasl && !subLayerNonReference) prevTid0Poc_ = poc;
    return poc;
}

std::vector<uint8_t> buildHevcConfig(const std::vector<std::vector<uint8_t>>& vpsUnits,
                                     const std::vector<std::vector<uint8_t>>& spsUnits,
                                     const std::vector<std::vector<uint8_t>>& ppsUnits,
                                     const HevcSps& first) {
    std::vector<uint8_t> out;
    out.reserve(64);
    out.push_back(1);  // configurationVersion
    for (uint8_t byte : first.profileTierLevel) out.push_back(byte);
    out.push_back(0xF0);  // reserved, min_spatial_segmentation_idc 0
    out.push_back(0x00);
    out.push_back(0xFC);  // reserved, parallelismType 0 (unknown)
    out.push_back(static_cast<uint8_t>(0xFC | first.chromaFormat));
    out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthLuma - 8)));
    out.push_back(static_cast<uint8_t>(0xF8 | (first.bitDepthChroma - 8)));
    out.push_back(0);  // avgFrameRate unknown
    out.push_back(0);
    // constantFrameRate 0, numTemporalLayers, temporalIdNested, 4-byte lengths
    out.push_back(static_cast<uint8_t>(((first.maxSubLayersMinus1 + 1) << 3) |
                                       (first.temporalIdNesting ? 4 : 0) | 3));
    const std::vector<std::vector<uint8_t>>* arrays[3] = {&vpsUnits, &spsUnits, &ppsUnits};
    const uint8_t types[3] = {HEVC_NAL_VPS, HEVC_NAL_SPS, HEVC_NAL_PPS};
    out.push_back(3);
    for (int i = 0; i < 3; ++i) {
        out.push_back(static_cast<uint8_t>(0x80 | types[i]));  // array_completeness 1
        out.push_back(static_cast<uint8_t>(arrays[i]->size() >> 8));
        out.push_back(static_cast<uint8_t>(arrays[i]->size()));
        appendUnits(&out, *arrays[i]);
    }
    return out;
}

}  // namespace quil
