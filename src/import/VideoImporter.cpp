// The importer of H.264 and HEVC Annex B streams: access units found from
// their NAL units, picture order from the slice headers, times from the
// stream's timing or the frame rate asked for.
#include <algorithm>
#include <new>

#include "import/StreamImporters.h"
#include "import/VideoParsers.h"

namespace quil {
namespace {

constexpr uint32_t kDefaultFramesPerSecond = 25;
// Time scales below this are multiplied up, so that edits (kept in
// milliseconds by the movie) stay close to the frames: 25 fps gets 12800.
constexpr uint64_t kMinimumTimeScale = 12800;

std::string at(uint64_t offset) { return " at byte " + std::to_string(offset); }

struct AccessUnit {
    uint64_t begin = 0;  // of its first start code
    uint64_t end = 0;
    int64_t pictureOrder = 0;
    uint32_t sequence = 0;  // coded video sequence: pictures ordered among themselves
    bool sync = false;
};

// Parameter sets by ID, in the order they first appeared, with their bytes
// as the stream carries them (the configuration record keeps them so).
template <class Parsed>
struct ParameterSets {
    std::map<uint32_t, Parsed> parsed;
    std::map<uint32_t, std::vector<uint8_t>> bytes;
    std::vector<uint32_t> order;

    // False when an ID comes back with other contents.
    bool add(uint32_t id, const Parsed& set, const NalUnit& nal) {
        auto known = bytes.find(id);
        if (known != bytes.end()) {
            return known->second.size() == nal.size &&
                   std::equal(nal.data, nal.data + nal.size, known->second.begin());
        }
        bytes[id].assign(nal.data, nal.data + nal.size);
        parsed[id] = set;
        order.push_back(id);
        return true;
    }
    std::vector<std::vector<uint8_t>> units() const {
        std::vector<std::vector<uint8_t>> out;
        for (uint32_t id : order) out.push_back(bytes.at(id));
        return out;
    }
};

// Parses a parameter set with parse(data, size, &set) and keeps it.
template <class Parsed, class Parse>
MP4Err keepParameterSet(const NalUnit& nal, const char* kind, Parse parse,
                        ParameterSets<Parsed>* sets, std::string* why) {
    Parsed set;
    MP4Err err = parse(nal.data, nal.size, &set);
    if (err == MP4_OK && !sets->add(set.id, set, nal)) err = MP4_ERR_UNSUPPORTED;
    if (err == MP4_OK) return MP4_OK;
    *why = std::string(kind) + at(nal.offset) +
           (err == MP4_ERR_UNSUPPORTED ? " reuses an ID with other contents; streams whose "
                                         "parameter sets change are not imported"
                                       : " is damaged");
    return err;
}

MP4Err sliceError(const NalUnit& nal, MP4Err err, std::string* why) {
    *why = "slice" + at(nal.offset) +
           (err == MP4_ERR_NOT_AVAILABLE ? " refers to a parameter set not given before it"
                                         : " has a damaged header");
    return MP4_ERR_INVALID_DATA;
}

class CVideoImporter final : public CStreamImporter {
public:
    CVideoImporter(const uint8_t* data, size_t size, bool hevc, FrameRate rate)
        : data_(data), size_(size), hevc_(hevc), rate_(rate) {}
    const char* formatName() const override { return hevc_ ? "HEVC" : "H.264"; }
    uint32_t trackKind() const override { return MP4_TRACK_VIDEO; }
    uint32_t timeScale() const override { return timeScale_; }
    uint32_t sampleCount() const override { return static_cast<uint32_t>(units_.size()); }
    uint32_t lastSampleDuration() const override { return frameDuration_; }
    ImportedEdit edit() const override { return edit_; }

    MP4Err scan(std::string* why) override;
    MP4SampleEntryInfo sampleEntry() const override;
    MP4Err sample(uint32_t index, ImportedSample* sample) override;

private:
    // One NAL unit of the first pass: *picture is set for the first slice
    // of a picture, with its order and sync flag.
    MP4Err readAvcUnit(const NalUnit& nal, bool* vcl, bool* picture, AccessUnit* unit, std::string* why);
    MP4Err readHevcUnit(const NalUnit& nal, bool* vcl, bool* picture, AccessUnit* unit, std::string* why);
    bool startsAccessUnit(const NalUnit& nal) const;
    bool isParameterSetOrDelimiter(const NalUnit& nal) const;
    MP4Err chooseTiming(std::string* why);
    void computeTimes();

    const uint8_t* data_;
    size_t size_;
    bool hevc_;
    FrameRate rate_;
    std::vector<AccessUnit> units_;
    std::vector<uint32_t> outputIndex_;  // position of each unit in presentation order
    uint64_t delay_ = 0;                 // frames the presentation lags the decoding
    uint32_t droppedLeading_ = 0;
    ParameterSets<AvcSps> avcSps_;
    ParameterSets<AvcPps> avcPps_;
    ParameterSets<HevcVps> hevcVps_;
    ParameterSets<HevcSps> hevcSps_;
    ParameterSets<HevcPps> hevcPps_;
    CAvcPictureOrder avcOrder_;
    CHevcPictureOrder hevcOrder_;
    uint32_t sequence_ = 0;
    std::vector<uint8_t> config_;
    uint32_t width_ = 0, height_ = 0;
    uint32_t timeScale_ = 0;
    uint32_t frameDuration_ = 0;
    ImportedEdit edit_;
    std::vector<uint8_t> buffer_;
};

MP4Err CVideoImporter::readAvcUnit(const NalUnit& nal, bool* vcl, bool* picture, AccessUnit* unit,
                                   std::string* why) {
    const uint8_t type = nal.data[0] & 0x1F;
    *vcl = type == AVC_NAL_SLICE || type == AVC_NAL_IDR;
    *picture = false;
    MP4Err err = MP4_OK;
    if (type == AVC_NAL_SPS) {
        return keepParameterSet(nal, "sequence parameter set", parseAvcSps, &avcSps_, why);
    }
    if (type == AVC_NAL_PPS) {
        return keepParameterSet(nal, "picture parameter set", parseAvcPps, &avcPps_, why);
    }
    if (*vcl) {
        AvcSliceHeader slice;
        const AvcSps* sps = nullptr;
        err = parseAvcSliceHeader(nal.data, nal.size, avcSps_.parsed, avcPps_.parsed, &slice, &sps);
        if (err != MP4_OK) return sliceError(nal, err, why);
        if (slice.firstMb != 0) return MP4_OK;
        const bool idr = type == AVC_NAL_IDR;
        if (idr) ++sequence_;
        *picture = true;
        unit->sync = idr;
        unit->sequence = sequence_;
        unit->pictureOrder = avcOrder_.next(*sps, slice, idr, (nal.data[0] & 0x60) != 0);
    }
    return MP4_OK;
}

MP4Err CVideoImporter::readHevcUnit(const NalUnit& nal, bool* vcl, bool* picture, AccessUnit* unit,
                                    std::string* why) {
    *picture = false;
    if (nal.size < 2 || (nal.data[1] >> 3) != 0 || (nal.data[0] & 1) != 0) {
        // Units of other layers (nuh_layer_id > 0) ride along with the base.
        *vcl = false;
        return MP4_OK;
    }
    const uint8_t type = hevcNalType(nal.data);
    *vcl = type < 32;
    MP4Err err = MP4_OK;
    if (type == HEVC_NAL_VPS) {
        return keepParameterSet(nal, "video parameter set", parseHevcVps, &hevcVps_, why);
    }
    if (type == HEVC_NAL_SPS) {
        return keepParameterSet(nal, "sequence parameter set", parseHevcSps, &hevcSps_, why);
    }
    if (type == HEVC_NAL_PPS) {
        return keepParameterSet(nal, "picture parameter set", parseHevcPps, &hevcPps_, why);
    }
    if (*vcl) {
        HevcSliceHeader slice;
        const HevcSps* sps = nullptr;
        err = parseHevcSliceHeader(nal.data, nal.size, hevcSps_.parsed, hevcPps_.parsed, &slice, &sps);
        if (err != MP4_OK) return sliceError(nal, err, why);
        if (!slice.firstInPicture) return MP4_OK;
        const bool first = units_.empty() && sequence_ == 0;
        const int64_t order = hevcOrder_.next(*sps, slice, type, hevcTemporalId(nal.data), first);
        // A picture that restarts the count starts a new sequence.
        const bool restart = isHevcIrap(type) && (type < HEVC_NAL_CRA || first);
        if (restart) ++sequence_;
        *picture = true;
        unit->sync = isHevcIrap(type);
        unit->sequence = sequence_;
        unit->pictureOrder = order;
    }
    return MP4_OK;
}

// Units that, after a picture, begin the next access unit (ISO/IEC
// 14496-10 §7.4.1.2.3, 23008-2 §7.4.2.4.4).
bool CVideoImporter::startsAccessUnit(const NalUnit& nal) const {
    if (hevc_) {
        if (nal.size < 2 || (nal.data[1] >> 3) != 0) return false;
        const uint8_t type = hevcNalType(nal.data);
        return (type >= HEVC_NAL_VPS && type <= HEVC_NAL_AUD) || type == HEVC_NAL_PREFIX_SEI ||
               (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
    }
    const uint8_t type = nal.data[0] & 0x1F;
    return (type >= AVC_NAL_SEI && type <= AVC_NAL_AUD) || (type >= 14 && type <= 18);
}

bool CVideoImporter::isParameterSetOrDelimiter(const NalUnit& nal) const {
    if (hevc_) {
        const uint8_t type = hevcNalType(nal.data);
        return type >= HEVC_NAL_VPS && type <= HEVC_NAL_AUD;
    }
    const uint8_t type = nal.data[0] & 0x1F;
    return type == AVC_NAL_SPS || type == AVC_NAL_PPS || type == AVC_NAL_AUD;
}

MP4Err CVideoImporter::scan(std::string* why) {
    size_t cursor = 0;
    NalUnit nal;
    bool open = false, hasPicture = false, seenSync = false;
    AccessUnit unit;
    auto close = [&](uint64_t end) -> MP4Err {
        if (!open) return MP4_OK;
        open = false;
        unit.end = end;
        // Pictures before the first sync picture cannot be decoded.
        if (!hasPicture) return MP4_OK;
        if (!seenSync && !unit.sync) {
            ++droppedLeading_;
            return MP4_OK;
        }
        seenSync = true;
        if (units_.size() >= 0xFFFFFFF0u) {
            *why = "more pictures than a track can hold";
            return MP4_ERR_VALUE_TOO_LARGE;
        }
        units_.push_back(unit);
        return MP4_OK;
    };
    while (nextNalUnit(data_, size_, &cursor, &nal)) {
        if ((nal.data[0] & 0x80) != 0) {
            *why = "NAL unit" + at(nal.offset) + " has its forbidden bit set: not an Annex B stream, or damaged";
            return MP4_ERR_INVALID_DATA;
        }
        bool vcl = false, picture = false;
        AccessUnit next;
        MP4Err err = hevc_ ? readHevcUnit(nal, &vcl, &picture, &next, why)
                           : readAvcUnit(nal, &vcl, &picture, &next, why);
        if (err != MP4_OK) return err;
        if (hasPicture && (picture || startsAccessUnit(nal))) {
            if ((err = close(nal.offset - 3)) != MP4_OK) return err;
        }
        if (!open) {
            open = true;
            hasPicture = false;
            unit = AccessUnit();
            unit.begin = nal.offset - 3;
        }
        if (picture) {
            hasPicture = true;
            unit.sync = next.sync;
            unit.sequence = next.sequence;
            unit.pictureOrder = next.pictureOrder;
        }
    }
    MP4Err err = close(size_);
    if (err != MP4_OK) return err;
    if (units_.empty()) {
        *why = droppedLeading_ ? "no IDR/IRAP picture: nothing can be decoded"
                               : "no picture found (not an Annex B stream?)";
        return MP4_ERR_INVALID_DATA;
    }
    if ((err = chooseTiming(why)) != MP4_OK) return err;
    computeTimes();
    if (hevc_) {
        const HevcSps& sps = hevcSps_.parsed.at(hevcSps_.order.front());
        config_ = buildHevcConfig(hevcVps_.units(), hevcSps_.units(), hevcPps_.units(), sps);
        width_ = sps.width;
        height_ = sps.height;
    } else {
        const AvcSps& sps = avcSps_.parsed.at(avcSps_.order.front());
        config_ = buildAvcConfig(avcSps_.units(), avcPps_.units(), sps);
        width_ = sps.width;
        height_ = sps.height;
    }
    if (config_.size() > 0xFFFF) {
        *why = "parameter sets too large for a configuration record";
        return MP4_ERR_UNSUPPORTED;
    }
    return MP4_OK;
}

MP4Err CVideoImporter::chooseTiming(std::string* why) {
    VideoTiming timing;
    if (rate_.numerator != 0) {
        timing.timeScale = rate_.numerator;
        timing.frameDuration = rate_.denominator;
    } else if (hevc_) {
        timing = hevcSps_.parsed.at(hevcSps_.order.front()).timing;
        if (timing.timeScale == 0 && !hevcVps_.order.empty()) {
            timing = hevcVps_.parsed.at(hevcVps_.order.front()).timing;
        }
    } else {
        timing = avcSps_.parsed.at(avcSps_.order.front()).timing;
    }
    if (timing.timeScale == 0 || timing.frameDuration == 0) {
        timing.timeScale = kDefaultFramesPerSecond;
        timing.frameDuration = 1;
    }
    uint64_t scale = timing.timeScale, duration = timing.frameDuration;
    if (scale < kMinimumTimeScale) {
        const uint64_t factor = (kMinimumTimeScale + scale - 1) / scale;
        scale *= factor;
        duration *= factor;
    }
    if (scale > 0xFFFFFFFFull || duration > 0x7FFFFFFFull) {
        *why = "frame rate out of range";
        return MP4_ERR_INVALID_DATA;
    }
    timeScale_ = static_cast<uint32_t>(scale);
    frameDuration_ = static_cast<uint32_t>(duration);
    return MP4_OK;
}

// Within each coded video sequence the pictures are shown in picture
// order; the presentation then lags decoding by the largest gap, which an
// edit list takes off again.
void CVideoImporter::computeTimes() {
    const uint32_t count = static_cast<uint32_t>(units_.size());
    std::vector<uint32_t> order(count);
    for (uint32_t i = 0; i < count; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
        if (units_[a].sequence != units_[b].sequence) return units_[a].sequence < units_[b].sequence;
        return units_[a].pictureOrder < units_[b].pictureOrder;
    });
    outputIndex_.assign(count, 0);
    for (uint32_t rank = 0; rank < count; ++rank) outputIndex_[order[rank]] = rank;
    delay_ = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (i > outputIndex_[i] && i - outputIndex_[i] > delay_) delay_ = i - outputIndex_[i];
    }
    if (delay_ > 0) edit_.firstMediaTime = static_cast<int64_t>(delay_ * frameDuration_);
}

MP4SampleEntryInfo CVideoImporter::sampleEntry() const {
    MP4SampleEntryInfo info{};
    info.format = hevc_ ? fourcc("hvc1") : fourcc("avc1");
    info.width = static_cast<uint16_t>(width_);
    info.height = static_cast<uint16_t>(height_);
    info.config = config_.data();
    info.configLength = static_cast<uint32_t>(config_.size());
    return info;
}

MP4Err CVideoImporter::sample(uint32_t index, ImportedSample* sample) {
    if (index >= units_.size()) return MP4_ERR_INVALID_ARGUMENT;
    const AccessUnit& unit = units_[index];
    buffer_.clear();
    size_t cursor = unit.begin;
    NalUnit nal;
    while (nextNalUnit(data_, unit.end, &cursor, &nal)) {
        if (isParameterSetOrDelimiter(nal)) continue;
        if (nal.size > 0xFFFFFFFFu - 4 - buffer_.size()) return MP4_ERR_VALUE_TOO_LARGE;
        const uint32_t length = static_cast<uint32_t>(nal.size);
        const uint8_t prefix[4] = {static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16),
                                   static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
        buffer_.insert(buffer_.end(), prefix, prefix + 4);
        buffer_.insert(buffer_.end(), nal.data, nal.data + nal.size);
    }
    if (buffer_.empty()) return MP4_ERR_INVALID_DATA;
    sample->data = buffer_.data();
    sample->size = static_cast<uint32_t>(buffer_.size());
    sample->decodeTime = static_cast<uint64_t>(index) * frameDuration_;
    sample->compositionTime = (outputIndex_[index] + delay_) * frameDuration_;
    sample->sync = unit.sync;
    return MP4_OK;
}

// Tells the two codecs apart by the first NAL unit's header: an HEVC
// header's second byte holds the temporal ID + 1 (1..7) and its type field
// the parameter sets, delimiters and SEI a stream starts with.
bool looksLikeHevc(const uint8_t* data, size_t size) {
    size_t cursor = 0;
    NalUnit nal;
    if (!nextNalUnit(data, size, &cursor, &nal) || nal.size < 2) return false;
    const uint8_t type = hevcNalType(nal.data);
    const bool plausible = (nal.data[1] & 7) != 0 && (nal.data[0] & 0x81) == 0;
    return plausible && ((type >= 32 && type <= 35) || type == 39 || (type >= 16 && type <= 21));
}

bool endsWith(const std::string& name, const char* suffix) {
    const std::string tail(suffix);
    if (name.size() < tail.size()) return false;
    for (size_t i = 0; i < tail.size(); ++i) {
        const char c = name[name.size() - tail.size() + i];
        if ((c >= 'A' && c <= 'Z' ? c + 32 : c) != tail[i]) return false;
    }
    return true;
}

bool startsWithStartCode(const uint8_t* data, size_t size) {
    size_t zeros = 0;
    while (zeros < size && zeros < 64 && data[zeros] == 0) ++zeros;
    return zeros >= 2 && zeros < size && data[zeros] == 1;
}

}  // namespace

std::unique_ptr<CStreamImporter> makeVideoImporter(const uint8_t* data, size_t size, bool hevc,
                                                   FrameRate rate) {
    return std::unique_ptr<CStreamImporter>(new (std::nothrow) CVideoImporter(data, size, hevc, rate));
}

std::unique_ptr<CStreamImporter> makeStreamImporter(const uint8_t* data, size_t size,
                                                    const std::string& name, FrameRate rate,
                                                    std::string* why) {
    std::unique_ptr<CStreamImporter> importer;
    if (startsWithStartCode(data, size)) {
        bool hevc = looksLikeHevc(data, size);
        if (endsWith(name, ".265") || endsWith(name, ".h265") || endsWith(name, ".hevc")) hevc = true;
        if (endsWith(name, ".264") || endsWith(name, ".h264") || endsWith(name, ".avc")) hevc = false;
        importer = makeVideoImporter(data, size, hevc, rate);
    } else {
        importer = makeAudioImporter(data, size);
    }
    if (!importer) {
        *why = "not a stream quil imports (H.264 or HEVC Annex B, AAC in ADTS, AMR, MP3 or WAV)";
    }
    return importer;
}

}  // namespace quil
