// Properties of a read file for reports (quil/Mp4FileInfo.h), taken from
// the box tree and the parsed configuration records.
#include <algorithm>
#include <vector>

#include "boxes/MovieBoxes.h"
#include "descriptors/ConfigRecords.h"
#include "file/Mp4FileImpl.h"
#include "quil/Mp4FileInfo.h"
#include "quil/Mp4Track.h"
#include "quil/Mp4Path.h"
#include "storage/MemoryStorage.h"
#include "storage/WidePath.h"
#include "track/SampleTables.h"
#include "track/TrackImpl.h"

namespace quil {
namespace {

template <class T>
MP4Err findTopLevel(CMp4File* file, uint32_t type, T** box) {
    *box = nullptr;
    auto* impl = dynamic_cast<CMp4FileImpl*>(file);
    if (!impl) return MP4_ERR_INVALID_ARGUMENT;
    if (!impl->isOpenFlag()) return MP4_ERR_NOT_AVAILABLE;
    CBox* found = nullptr;
    MP4Err err = impl->findTopLevelBox(type, &found);
    if (err != MP4_OK) return err;
    *box = dynamic_cast<T*>(found);
    return *box ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

// The track's edit list, or null when it has none.
MP4Err findEditList(CMp4Track* track, CEditListBox** list) {
    *list = nullptr;
    auto* impl = dynamic_cast<CTrackImpl*>(track);
    if (!impl || !impl->trackBox()) return MP4_ERR_INVALID_ARGUMENT;
    CBox* edts = nullptr;
    CBox* elst = nullptr;
    if (impl->trackBox()->findChild(fourcc("edts"), &edts) != MP4_OK ||
        edts->findChild(fourcc("elst"), &elst) != MP4_OK) {
        return MP4_OK;
    }
    *list = dynamic_cast<CEditListBox*>(elst);
    return MP4_OK;
}

// Reads a record from its bytes as the file holds them.
MP4Err parseRecord(std::vector<uint8_t>* bytes, CDecoderConfigRecord* record) {
    CMemoryStorage storage;
    storage.attach(bytes->data(), static_cast<uint32_t>(bytes->size()), false);
    MP4Err err = storage.open(0);
    if (err == MP4_OK) err = record->read(&storage, static_cast<uint32_t>(bytes->size()));
    storage.close();
    storage.detach();
    return err == MP4_OK ? MP4_OK : MP4_ERR_INVALID_DATA;
}

void summariseAvc(const CAVCDecoderConfigRecord& r, MP4CodecConfigSummary* s) {
    s->record = fourcc("avcC");
    s->profile = r.AVCProfileIndication;
    s->compatibility = r.profile_compatibility;
    s->level = r.AVCLevelIndication;
    s->nalLengthSize = static_cast<uint8_t>(r.lengthSizeMinusOne + 1);
    s->sequenceParameterSets = r.numOfSequenceParameterSets;
    s->pictureParameterSets = r.numOfPictureParameterSets;
}

void summariseHevc(const CHEVCDecoderConfigRecord& r, MP4CodecConfigSummary* s) {
    s->record = fourcc("hvcC");
    s->profile = r.general_profile_idc;
    s->tier = r.general_tier_flag;
    s->level = r.general_level_idc;
    s->nalLengthSize = static_cast<uint8_t>(r.lengthSizeMinusOne + 1);
    for (const auto& array : r.arrays) {
        switch (array->NAL_unit_type) {
            case 32: s->videoParameterSets += array->numNalus; break;
            case 33: s->sequenceParameterSets += array->numNalus; break;
            case 34: s->pictureParameterSets += array->numNalus; break;
            default: break;  // SEI and others are not parameter sets
        }
    }
}

}  // namespace

MP4Err Mp4GetBrands(CMp4File* file, uint32_t* majorBrand, uint32_t* minorVersion,
                    uint32_t* compatibleBrands, uint32_t capacity, uint32_t* count) {
    if (!file || (compatibleBrands == nullptr && capacity != 0)) return MP4_ERR_INVALID_ARGUMENT;
    CFileTypeBox* ftyp = nullptr;
    MP4Err err = findTopLevel(file, fourcc("ftyp"), &ftyp);
    if (err != MP4_OK) return err == MP4_ERR_INVALID_ARGUMENT ? err : MP4_ERR_NOT_AVAILABLE;
    if (majorBrand) *majorBrand = ftyp->majorBrand;
    if (minorVersion) *minorVersion = ftyp->minorVersion;
    const uint32_t total = static_cast<uint32_t>(std::max(ftyp->compatibleBrandCount, 0));
    for (uint32_t i = 0; i < total && i < capacity; ++i) {
        compatibleBrands[i] = ftyp->compatibleBrands[i];
    }
    if (count) *count = total;
    return MP4_OK;
}

MP4Err Mp4GetMovieDuration(CMp4File* file, uint64_t* duration) {
    if (!file || !duration) return MP4_ERR_INVALID_ARGUMENT;
    *duration = 0;
    CBox* moov = nullptr;
    MP4Err err = findTopLevel(file, fourcc("moov"), &moov);
    CBox* header = nullptr;
    if (err == MP4_OK) err = moov->findChild(fourcc("mvhd"), &header, 1);
    if (err != MP4_OK) return err == MP4_ERR_INVALID_ARGUMENT ? err : MP4_ERR_NOT_AVAILABLE;
    const auto* mvhd = dynamic_cast<const CMovieHeaderBox*>(header);
    if (!mvhd) return MP4_ERR_NOT_AVAILABLE;
    *duration = mvhd->duration;
    return MP4_OK;
}

MP4Err Mp4GetEditCount(CMp4Track* track, uint32_t* count) {
    if (!count) return MP4_ERR_INVALID_ARGUMENT;
    *count = 0;
    CEditListBox* list = nullptr;
    MP4Err err = findEditList(track, &list);
    if (err == MP4_OK && list) *count = list->entryCount;
    return err;
}

MP4Err Mp4GetEdit(CMp4Track* track, uint32_t index, MP4Edit* edit) {
    if (!edit) return MP4_ERR_INVALID_ARGUMENT;
    *edit = MP4Edit{};
    CEditListBox* list = nullptr;
    MP4Err err = findEditList(track, &list);
    if (err != MP4_OK) return err;
    if (index == 0) return MP4_ERR_BAD_INDEX;
    if (!list || index > list->entryCount) return MP4_ERR_NOT_AVAILABLE;
    CEditListTableEntry* entry = nullptr;
    err = list->getEntry(index, &entry);
    if (err != MP4_OK) return err;
    *edit = MP4Edit{entry->segmentDuration, entry->mediaTime, entry->mediaRateInteger,
                    entry->mediaRateFraction};
    return MP4_OK;
}

MP4Err Mp4GetCodecConfigSummary(CMp4Track* track, MP4CodecConfigSummary* summary) {
    if (!track || !summary) return MP4_ERR_INVALID_ARGUMENT;
    *summary = MP4CodecConfigSummary{};
    uint32_t format = 0, length = 0;
    MP4Err err = track->getSampleEntryType(&format);
    const bool avc = format == fourcc("avc1") || format == fourcc("avc3");
    const bool hevc = format == fourcc("hvc1") || format == fourcc("hev1");
    if (err != MP4_OK || (!avc && !hevc)) return MP4_ERR_NOT_AVAILABLE;
    err = track->getCodecConfiguration(nullptr, 0, &length);
    if (err != MP4_OK || length == 0) return MP4_ERR_NOT_AVAILABLE;
    std::vector<uint8_t> bytes(length);
    err = track->getCodecConfiguration(bytes.data(), length, &length);
    if (err != MP4_OK) return err;
    if (avc) {
        CAVCDecoderConfigRecord record;
        err = parseRecord(&bytes, &record);
        if (err == MP4_OK) summariseAvc(record, summary);
    } else {
        CHEVCDecoderConfigRecord record;
        err = parseRecord(&bytes, &record);
        if (err == MP4_OK) summariseHevc(record, summary);
    }
    return err;
}

MP4Err Mp4WidePathFromUtf8(const char* utf8, std::wstring* path) {
    if (!utf8 || !path) return MP4_ERR_INVALID_ARGUMENT;
    return utf8ToWidePath(utf8, path);
}

}  // namespace quil
