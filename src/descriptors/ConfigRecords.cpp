#include "ConfigRecords.h"

#include <cstring>
#include <new>
#include <utility>

#include "io/FieldIO.h"
#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint32_t kMinRecordBytes = 6;
constexpr uint32_t kMaxNalUnitLength = 0xFFFF;  // 16-bit length fields
// Written after the PPS list of a record that had an extension: declares
// chroma_format_idc 3, both bit depths as 8 + 7 and no SPS extensions.
// Deliberate: kept whatever the extension said when the record was read.
constexpr uint8_t kAVCExtensionTrailer[4] = {0xFF, 0xFF, 0xFF, 0x00};

// The growable lists report allocation failure as code 1 instead of throwing.
template <class T>
MP4Err appendTo(std::vector<T>* list, T&& item) {
    try {
        list->push_back(std::move(item));
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

// A parameter set or NAL unit: a u16 length and that many bytes. Reading
// checks the length against what is left of the record before anything is
// allocated.
template <class IO, class Length>
void lengthPrefixed(IO& io, Length& length, std::unique_ptr<uint8_t[]>& bytes) {
    uint16_t declared = static_cast<uint16_t>(length);
    if (!io.u16(declared).ok()) return;
    if constexpr (IO::kReads) {
        if (!io.require(declared).ok()) return;
        std::unique_ptr<uint8_t[]> buffer;
        if (declared > 0) {
            buffer.reset(new (std::nothrow) uint8_t[declared]);
            if (!buffer) {
                io.fail(MP4_ERR_OUT_OF_MEMORY);
                return;
            }
        }
        if (!io.bytes(buffer.get(), declared).ok()) return;
        bytes = std::move(buffer);
        length = declared;
    } else {
        io.bytes(bytes.get(), length);
    }
}

MP4Err checkParameterSet(uint32_t length, const std::unique_ptr<uint8_t[]>& bytes) {
    if (length > 0 && !bytes) return MP4_ERR_INVALID_DATA;
    if (length > kMaxNalUnitLength) return MP4_ERR_VALUE_TOO_LARGE;
    return MP4_OK;
}

}  // namespace

// ---- CAVCDecoderConfigRecord ------------------------------------------------

void CAVCDecoderConfigRecord::clearParameterSets() {
    for (uint32_t i = 0; i < kMaxSequenceParameterSets; ++i) {
        sps[i].reset();
        spsLength[i] = 0;
    }
    for (uint32_t i = 0; i < kMaxPictureParameterSets; ++i) {
        pps[i].reset();
        ppsLength[i] = 0;
    }
}

uint32_t CAVCDecoderConfigRecord::sequenceParameterSetCount() const {
    // The count field has five bits; a larger value set by hand is refused
    // on writing, and never indexes past the table.
    return numOfSequenceParameterSets < kMaxSequenceParameterSets ? numOfSequenceParameterSets
                                                                   : kMaxSequenceParameterSets;
}

template <class IO>
MP4Err CAVCDecoderConfigRecord::fields(IO& io) {
    uint8_t lengthByte = static_cast<uint8_t>(lengthSizeMinusOne | 0xFC);
    uint8_t countByte = static_cast<uint8_t>(numOfSequenceParameterSets | 0xE0);
    io.u8(configurationVersion)
        .u8(AVCProfileIndication)
        .u8(profile_compatibility)
        .u8(AVCLevelIndication)
        .u8(lengthByte)
        .u8(countByte);
    if (!io.ok()) return io.error();
    if constexpr (IO::kReads) {
        lengthSizeMinusOne = lengthByte % 4;
        numOfSequenceParameterSets = countByte & 0x1F;
    }
    for (uint32_t i = 0; i < sequenceParameterSetCount() && io.ok(); ++i) {
        lengthPrefixed(io, spsLength[i], sps[i]);
    }
    if constexpr (IO::kReads) {
        // The PPS count is mandatory.
        if (io.ok() && io.left() == 0) return MP4_ERR_BAD_BOX_SIZE;
    }
    io.u8(numOfPictureParameterSets);
    for (uint32_t i = 0; i < numOfPictureParameterSets && io.ok(); ++i) {
        lengthPrefixed(io, ppsLength[i], pps[i]);
    }
    if (!io.ok()) return io.error();
    if constexpr (IO::kReads) {
        // The high-profile extension (chroma format, bit depths, SPS
        // extensions) is not kept: only the fact that there was one.
        if (io.left() == 0) return MP4_OK;
        MP4Err err = skipPayload(io.storage(), io.left());
        if (err == MP4_OK) hasExtension = 1;
        return err;
    } else {
        if (hasExtension) io.bytes(kAVCExtensionTrailer, sizeof(kAVCExtensionTrailer));
        return io.error();
    }
}

MP4Err CAVCDecoderConfigRecord::read(CStorage* storage, uint32_t count) {
    size = count;
    if (count < kMinRecordBytes) return MP4_ERR_BAD_BOX_SIZE;
    clearParameterSets();
    return readFields(this, storage, &count);
}

MP4Err CAVCDecoderConfigRecord::checkWritable() const {
    if (numOfSequenceParameterSets >= kMaxSequenceParameterSets) return MP4_ERR_VALUE_TOO_LARGE;
    for (uint32_t i = 0; i < numOfSequenceParameterSets; ++i) {
        MP4Err err = checkParameterSet(spsLength[i], sps[i]);
        if (err != MP4_OK) return err;
    }
    for (uint32_t i = 0; i < numOfPictureParameterSets; ++i) {
        MP4Err err = checkParameterSet(ppsLength[i], pps[i]);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CAVCDecoderConfigRecord::write(CStorage* storage) {
    MP4Err err = checkWritable();
    return err != MP4_OK ? err : writeFields(this, storage);
}

MP4Err CAVCDecoderConfigRecord::dump(int32_t depth) {
    dumpLine(depth, "Version = %u\n", static_cast<uint32_t>(configurationVersion));
    dumpLine(depth, "Profile indication = %u Profile compatibility = %u\n",
             static_cast<uint32_t>(AVCProfileIndication), static_cast<uint32_t>(profile_compatibility));
    dumpLine(depth, "Level indication = %u\n", static_cast<uint32_t>(AVCLevelIndication));
    dumpLine(depth, "Length Size = %u\n", lengthSizeMinusOne + 1u);
    dumpLine(depth, "SPS Count = %u\n", static_cast<uint32_t>(numOfSequenceParameterSets));
    for (uint32_t i = 0; i < sequenceParameterSetCount(); ++i) {
        dumpLine(depth, "Length SPS [%02i] = %u\n", static_cast<int>(i), spsLength[i]);
    }
    dumpLine(depth, "PPS Count = %u\n", static_cast<uint32_t>(numOfPictureParameterSets));
    for (uint32_t i = 0; i < numOfPictureParameterSets; ++i) {
        dumpLine(depth, "Length PPS [%02i] = %u\n", static_cast<int>(i), ppsLength[i]);
    }
    return MP4_OK;
}

MP4Err CAVCDecoderConfigRecord::calcSize() {
    size = countFields(this);
    return MP4_OK;
}

// ---- CHEVCNalArray ----------------------------------------------------------

MP4Err CHEVCNalArray::appendUnit(uint16_t length, std::unique_ptr<uint8_t[]> unit) {
    MP4Err err = appendTo(&nalLengths, std::move(length));
    if (err != MP4_OK) return err;
    err = appendTo(&nalUnits, std::move(unit));
    if (err != MP4_OK) nalLengths.pop_back();
    return err;
}

MP4Err CHEVCNalArray::addNalUnit(const uint8_t* bytes, uint32_t length) {
    if (!bytes || length > kMaxNalUnitLength || numNalus == 0xFFFF) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<uint8_t[]> unit;
    if (length > 0) {
        unit.reset(new (std::nothrow) uint8_t[length]);
        if (!unit) return MP4_ERR_OUT_OF_MEMORY;
        std::memcpy(unit.get(), bytes, length);
    }
    MP4Err err = appendUnit(static_cast<uint16_t>(length), std::move(unit));
    if (err == MP4_OK) ++numNalus;
    return err;
}

template <class IO>
MP4Err CHEVCNalArray::fields(IO& io) {
    // The reserved bit between completeness and type is written as 0.
    uint8_t typeByte = static_cast<uint8_t>((array_completeness & 1u) << 7 | (NAL_unit_type & 0x3Fu));
    if (!io.u8(typeByte).u16(numNalus).ok()) return io.error();
    if constexpr (IO::kReads) {
        array_completeness = typeByte >> 7;
        NAL_unit_type = typeByte & 0x3F;
        for (uint32_t i = 0; i < numNalus && io.ok(); ++i) {
            uint16_t length = 0;
            std::unique_ptr<uint8_t[]> unit;
            // Units are bounded by the record: a damaged length must not
            // read (or allocate) beyond it.
            lengthPrefixed(io, length, unit);
            if (io.ok()) io.fail(appendUnit(length, std::move(unit)));
        }
    } else {
        for (size_t i = 0; i < nalLengths.size(); ++i) lengthPrefixed(io, nalLengths[i], nalUnits[i]);
    }
    return io.error();
}

// ---- CHEVCDecoderConfigRecord -----------------------------------------------

template <class IO>
void CHEVCDecoderConfigRecord::fixedFields(IO& io) {
    // Reserved bits are written as ones.
    uint8_t profileByte = static_cast<uint8_t>((general_profile_space & 3u) << 6 |
                                               (general_tier_flag & 1u) << 5 |
                                               (general_profile_idc & 0x1Fu));
    uint16_t constraintHigh = static_cast<uint16_t>(general_constraint_indicator_flags >> 32);
    uint32_t constraintLow = static_cast<uint32_t>(general_constraint_indicator_flags);
    uint16_t segmentation = static_cast<uint16_t>((min_spatial_segmentation_idc & 0x0FFFu) | 0xF000u);
    uint8_t parallelismByte = static_cast<uint8_t>((parallelismType & 3u) | 0xFCu);
    uint8_t chromaByte = static_cast<uint8_t>((chromaFormat & 3u) | 0xFCu);
    uint8_t lumaByte = static_cast<uint8_t>((bitDepthLumaMinus8 & 7u) | 0xF8u);
    uint8_t chromaDepthByte = static_cast<uint8_t>((bitDepthChromaMinus8 & 7u) | 0xF8u);
    uint8_t layersByte = static_cast<uint8_t>((constantFrameRate & 3u) << 6 | (numTemporalLayers & 7u) << 3 |
                                              (temporalIdNested & 1u) << 2 | (lengthSizeMinusOne & 3u));
    io.u8(configurationVersion)
        .u8(profileByte)
        .u32(general_profile_compatibility_flags)
        .u16(constraintHigh)
        .u32(constraintLow)
        .u8(general_level_idc)
        .u16(segmentation)
        .u8(parallelismByte)
        .u8(chromaByte)
        .u8(lumaByte)
        .u8(chromaDepthByte)
        .u16(avgFrameRate)
        .u8(layersByte)
        .u8(numOfArrays);
    if constexpr (IO::kReads) {
        if (!io.ok()) return;
        general_profile_space = profileByte >> 6;
        general_tier_flag = (profileByte >> 5) & 1;
        general_profile_idc = profileByte & 0x1F;
        general_constraint_indicator_flags = (uint64_t{constraintHigh} << 32) | constraintLow;
        min_spatial_segmentation_idc = segmentation % 4096;
        parallelismType = parallelismByte % 4;
        chromaFormat = chromaByte % 4;
        bitDepthLumaMinus8 = lumaByte % 8;
        bitDepthChromaMinus8 = chromaDepthByte % 8;
        constantFrameRate = layersByte >> 6;
        numTemporalLayers = (layersByte >> 3) & 7;
        temporalIdNested = (layersByte >> 2) & 1;
        lengthSizeMinusOne = layersByte & 3;
    }
}

template <class IO>
MP4Err CHEVCDecoderConfigRecord::fields(IO& io) {
    fixedFields(io);
    if constexpr (IO::kReads) {
        // An array needs at least its three header bytes.
        while (io.ok() && arrays.size() < numOfArrays && io.left() >= 3) {
            std::unique_ptr<CHEVCNalArray> array(new (std::nothrow) CHEVCNalArray());
            if (!array) return MP4_ERR_OUT_OF_MEMORY;
            if (array->fields(io) == MP4_OK) io.fail(appendTo(&arrays, std::move(array)));
        }
        if (io.ok() && arrays.size() < numOfArrays) return MP4_ERR_BAD_BOX_SIZE;
    } else {
        for (const auto& array : arrays) {
            if (array) array->fields(io);
        }
    }
    return io.error();
}

MP4Err CHEVCDecoderConfigRecord::read(CStorage* storage, uint32_t count) {
    size = count;
    // Deliberate: only six bytes are required although the fixed part is 23.
    if (count < kMinRecordBytes) return MP4_ERR_BAD_BOX_SIZE;
    arrays.clear();
    MP4Err err = readFields(this, storage, &count);
    if (err == MP4_OK && count > 0) err = storage->skip(count);
    return err;
}

MP4Err CHEVCDecoderConfigRecord::checkWritable() const {
    // Counts that disagree with the lists would write a record nobody can
    // parse back.
    if (arrays.size() != numOfArrays) return MP4_ERR_INVALID_DATA;
    for (const auto& array : arrays) {
        if (!array || array->nalLengths.size() != array->numNalus ||
            array->nalUnits.size() != array->numNalus) {
            return MP4_ERR_INVALID_DATA;
        }
        for (size_t i = 0; i < array->nalLengths.size(); ++i) {
            if (array->nalLengths[i] > 0 && !array->nalUnits[i]) return MP4_ERR_INVALID_DATA;
        }
    }
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::write(CStorage* storage) {
    MP4Err err = checkWritable();
    return err != MP4_OK ? err : writeFields(this, storage);
}

MP4Err CHEVCDecoderConfigRecord::dump(int32_t depth) {
    dumpLine(depth, "Version = %u\n", static_cast<uint32_t>(configurationVersion));
    dumpLine(depth, "Profile indication = %u Profile compatibility = 0x%08x\n",
             static_cast<uint32_t>(general_profile_idc), general_profile_compatibility_flags);
    dumpLine(depth, "Tier flag = %u\n", static_cast<uint32_t>(general_tier_flag));
    dumpLine(depth, "Level indication = %u\n", static_cast<uint32_t>(general_level_idc));
    dumpLine(depth, "Length Size = %u\n", lengthSizeMinusOne + 1u);
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::calcSize() {
    size = countFields(this);
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::addArray(std::unique_ptr<CHEVCNalArray> array) {
    if (!array || numOfArrays == 0xFF) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = appendTo(&arrays, std::move(array));
    if (err == MP4_OK) ++numOfArrays;
    return err;
}

}  // namespace quil
