#include "ConfigRecords.h"

#include <cstring>
#include <new>
#include <utility>

#include "io/FieldIO.h"
#include "io/Dump.h"

namespace quil {
namespace {

constexpr uint32_t kMinRecordBytes = 6;
constexpr uint32_t kHEVCFixedPartBytes = 23;
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

// A u16 length and that many bytes, checked against what is left of the
// record before anything is allocated.
MP4Err readParameterSet(CStorage* storage, uint32_t* remaining, uint32_t* length,
                        std::unique_ptr<uint8_t[]>* bytes) {
    if (*remaining < 2) return MP4_ERR_BAD_BOX_SIZE;
    uint16_t declared = 0;
    MP4Err err = FieldReader(storage, remaining).u16(declared).error();
    if (err != MP4_OK) return err;
    if (*remaining < declared) return MP4_ERR_BAD_BOX_SIZE;
    std::unique_ptr<uint8_t[]> buffer;
    if (declared > 0) {
        buffer.reset(new (std::nothrow) uint8_t[declared]);
        if (!buffer) return MP4_ERR_OUT_OF_MEMORY;
        err = FieldReader(storage, remaining).bytes(buffer.get(), declared).error();
        if (err != MP4_OK) return err;
    }
    *bytes = std::move(buffer);
    *length = declared;
    return MP4_OK;
}

MP4Err checkParameterSet(uint32_t length, const std::unique_ptr<uint8_t[]>& bytes) {
    if (length > 0 && !bytes) return MP4_ERR_INVALID_DATA;
    if (length > kMaxNalUnitLength) return MP4_ERR_VALUE_TOO_LARGE;
    return MP4_OK;
}

void writeParameterSet(FieldWriter* writer, uint32_t length, const std::unique_ptr<uint8_t[]>& bytes) {
    writer->u16(length).bytes(bytes.get(), length);
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

MP4Err CAVCDecoderConfigRecord::read(CStorage* storage, uint32_t count) {
    size = count;
    if (count < kMinRecordBytes) return MP4_ERR_BAD_BOX_SIZE;
    clearParameterSets();
    uint32_t remaining = count;
    uint8_t lengthByte = 0, countByte = 0;
    MP4Err err = FieldReader(storage, &remaining)
                     .u8(configurationVersion)
                     .u8(AVCProfileIndication)
                     .u8(profile_compatibility)
                     .u8(AVCLevelIndication)
                     .u8(lengthByte)
                     .u8(countByte)
                     .error();
    if (err != MP4_OK) return err;
    lengthSizeMinusOne = lengthByte % 4;
    numOfSequenceParameterSets = countByte & 0x1F;

    for (uint32_t i = 0; i < numOfSequenceParameterSets; ++i) {
        err = readParameterSet(storage, &remaining, &spsLength[i], &sps[i]);
        if (err != MP4_OK) return err;
    }
    if (remaining == 0) return MP4_ERR_BAD_BOX_SIZE;  // the PPS count is mandatory
    err = FieldReader(storage, &remaining).u8(numOfPictureParameterSets).error();
    if (err != MP4_OK) return err;
    for (uint32_t i = 0; i < numOfPictureParameterSets; ++i) {
        err = readParameterSet(storage, &remaining, &ppsLength[i], &pps[i]);
        if (err != MP4_OK) return err;
    }
    // The high-profile extension (chroma format, bit depths, SPS extensions)
    // is not kept: only the fact that there was one.
    if (remaining > 0) {
        err = skipPayload(storage, remaining);
        if (err != MP4_OK) return err;
        hasExtension = 1;
    }
    return MP4_OK;
}

MP4Err CAVCDecoderConfigRecord::write(CStorage* storage) {
    if (numOfSequenceParameterSets >= kMaxSequenceParameterSets) return MP4_ERR_VALUE_TOO_LARGE;
    for (uint32_t i = 0; i < numOfSequenceParameterSets; ++i) {
        MP4Err err = checkParameterSet(spsLength[i], sps[i]);
        if (err != MP4_OK) return err;
    }
    for (uint32_t i = 0; i < numOfPictureParameterSets; ++i) {
        MP4Err err = checkParameterSet(ppsLength[i], pps[i]);
        if (err != MP4_OK) return err;
    }
    FieldWriter writer(storage);
    writer.u8(configurationVersion)
        .u8(AVCProfileIndication)
        .u8(profile_compatibility)
        .u8(AVCLevelIndication)
        .u8(lengthSizeMinusOne | 0xFC)
        .u8(numOfSequenceParameterSets | 0xE0);
    for (uint32_t i = 0; i < numOfSequenceParameterSets; ++i) {
        writeParameterSet(&writer, spsLength[i], sps[i]);
    }
    writer.u8(numOfPictureParameterSets);
    for (uint32_t i = 0; i < numOfPictureParameterSets; ++i) {
        writeParameterSet(&writer, ppsLength[i], pps[i]);
    }
    if (hasExtension) writer.bytes(kAVCExtensionTrailer, sizeof(kAVCExtensionTrailer));
    return writer.error();
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
    uint64_t total = 7;
    for (uint32_t i = 0; i < sequenceParameterSetCount(); ++i) total += 2 + uint64_t{spsLength[i]};
    for (uint32_t i = 0; i < numOfPictureParameterSets; ++i) total += 2 + uint64_t{ppsLength[i]};
    if (hasExtension) total += sizeof(kAVCExtensionTrailer);
    size = total;
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

// ---- CHEVCDecoderConfigRecord -----------------------------------------------

MP4Err CHEVCDecoderConfigRecord::readFixedPart(CStorage* storage, uint32_t* remaining) {
    uint8_t profileByte = 0, parallelismByte = 0, chromaByte = 0, lumaByte = 0,
            chromaDepthByte = 0, layersByte = 0;
    uint16_t constraintHigh = 0, segmentation = 0;
    uint32_t constraintLow = 0;
    MP4Err err = FieldReader(storage, remaining)
                     .u8(configurationVersion)
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
                     .u8(numOfArrays)
                     .error();
    if (err != MP4_OK) return err;
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
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::readArray(CStorage* storage, uint32_t* remaining,
                                           std::unique_ptr<CHEVCNalArray>* out) {
    uint8_t typeByte = 0;
    uint16_t count = 0;
    MP4Err err = FieldReader(storage, remaining).u8(typeByte).u16(count).error();
    if (err != MP4_OK) return err;
    std::unique_ptr<CHEVCNalArray> array(new (std::nothrow) CHEVCNalArray());
    if (!array) return MP4_ERR_OUT_OF_MEMORY;
    array->array_completeness = typeByte >> 7;
    array->NAL_unit_type = typeByte & 0x3F;
    array->numNalus = count;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        std::unique_ptr<uint8_t[]> unit;
        // Units are bounded by the record: a damaged length must not read
        // (or allocate) beyond it.
        err = readParameterSet(storage, remaining, &length, &unit);
        if (err != MP4_OK) return err;
        err = array->appendUnit(static_cast<uint16_t>(length), std::move(unit));
        if (err != MP4_OK) return err;
    }
    *out = std::move(array);
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::read(CStorage* storage, uint32_t count) {
    size = count;
    // Deliberate: only six bytes are required although the fixed part is 23.
    if (count < kMinRecordBytes) return MP4_ERR_BAD_BOX_SIZE;
    arrays.clear();
    uint32_t remaining = count;
    MP4Err err = readFixedPart(storage, &remaining);
    if (err != MP4_OK) return err;
    // A payload shorter than the fixed part leaves nothing for the arrays;
    // the wrapped count then takes the storage back to the record's end.
    bool overRead = count < kHEVCFixedPartBytes;
    uint32_t arraysRead = 0;
    while (!overRead && arraysRead < numOfArrays && remaining >= 3) {
        std::unique_ptr<CHEVCNalArray> array;
        err = readArray(storage, &remaining, &array);
        if (err != MP4_OK) return err;
        err = appendTo(&arrays, std::move(array));
        if (err != MP4_OK) return err;
        ++arraysRead;
    }
    if (arraysRead < numOfArrays) return MP4_ERR_BAD_BOX_SIZE;
    if (remaining > 0) return storage->skip(remaining);
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::writeFixedPart(CStorage* storage) {
    return FieldWriter(storage)
        .u8(configurationVersion)
        .u8((general_profile_space & 3u) << 6 | (general_tier_flag & 1u) << 5 |
            (general_profile_idc & 0x1Fu))
        .u32(general_profile_compatibility_flags)
        .u16(static_cast<uint32_t>(general_constraint_indicator_flags >> 32))
        .u32(static_cast<uint32_t>(general_constraint_indicator_flags))
        .u8(general_level_idc)
        .u16((min_spatial_segmentation_idc & 0x0FFFu) | 0xF000u)
        .u8((parallelismType & 3u) | 0xFCu)
        .u8((chromaFormat & 3u) | 0xFCu)
        .u8((bitDepthLumaMinus8 & 7u) | 0xF8u)
        .u8((bitDepthChromaMinus8 & 7u) | 0xF8u)
        .u16(avgFrameRate)
        .u8((constantFrameRate & 3u) << 6 | (numTemporalLayers & 7u) << 3 |
            (temporalIdNested & 1u) << 2 | (lengthSizeMinusOne & 3u))
        .u8(numOfArrays)
        .error();
}

MP4Err CHEVCDecoderConfigRecord::writeArray(CStorage* storage, const CHEVCNalArray& array) {
    // The reserved bit between completeness and type is written as 0.
    FieldWriter writer(storage);
    writer.u8((array.array_completeness & 1u) << 7 | (array.NAL_unit_type & 0x3Fu)).u16(array.numNalus);
    for (size_t i = 0; i < array.nalLengths.size(); ++i) {
        writer.u16(array.nalLengths[i]).bytes(array.nalUnits[i].get(), array.nalLengths[i]);
    }
    return writer.error();
}

MP4Err CHEVCDecoderConfigRecord::write(CStorage* storage) {
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
    MP4Err err = writeFixedPart(storage);
    for (size_t i = 0; err == MP4_OK && i < arrays.size(); ++i) err = writeArray(storage, *arrays[i]);
    return err;
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
    uint64_t total = kHEVCFixedPartBytes;
    for (const auto& array : arrays) {
        if (!array) continue;
        total += 3;
        for (uint16_t length : array->nalLengths) total += 2 + uint64_t{length};
    }
    size = total;
    return MP4_OK;
}

MP4Err CHEVCDecoderConfigRecord::addArray(std::unique_ptr<CHEVCNalArray> array) {
    if (!array || numOfArrays == 0xFF) return MP4_ERR_INVALID_ARGUMENT;
    MP4Err err = appendTo(&arrays, std::move(array));
    if (err == MP4_OK) ++numOfArrays;
    return err;
}

}  // namespace quil
