// Movie fragment boxes (ISO/IEC 14496-12 §8.8, §8.16, DASH "emsg"): the
// movie extends box with its defaults, movie fragments with their track
// fragments and runs, segment type and index, the fragment random access
// index and the producer reference time. Boxes inside a track fragment
// that the library does not use (sample groups, sub-samples, encryption
// information) are kept as their bytes.
#ifndef QUIL_BOXES_FRAGMENTBOXES_H
#define QUIL_BOXES_FRAGMENTBOXES_H

#include <cstdint>
#include <memory>
#include <string>

#include "Box.h"

namespace quil {

// "mvex": its presence marks a file whose tracks continue in fragments.
class CMovieExtendsBox : public CContainerBox {
public:
    CMovieExtendsBox() { type = fourcc("mvex"); }
};

// "moof". Remembers where it starts in the file: sample data offsets of
// its runs are counted from there by default.
class CMovieFragmentBox : public CContainerBox {
public:
    CMovieFragmentBox() { type = fourcc("moof"); }
    MP4Err read(CStorage* storage) override;
    uint64_t boxOffset = 0;
};

class CTrackFragmentBox : public CContainerBox {
public:
    CTrackFragmentBox() { type = fourcc("traf"); }
};

// "mfra": the fragment random access index, closed by "mfro".
class CMovieFragmentRandomAccessBox : public CContainerBox {
public:
    CMovieFragmentRandomAccessBox() { type = fourcc("mfra"); }
};

// "mehd": the duration of the whole fragmented movie (movie time scale).
class CMovieExtendsHeaderBox : public CFieldBox<CMovieExtendsHeaderBox, CFullBox> {
public:
    CMovieExtendsHeaderBox() { type = fourcc("mehd"); }
    uint64_t fragmentDuration = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// "trex": a track's defaults for every fragment.
class CTrackExtendsBox : public CFieldBox<CTrackExtendsBox, CFullBox> {
public:
    CTrackExtendsBox() { type = fourcc("trex"); }
    uint32_t trackId = 0;
    uint32_t defaultSampleDescriptionIndex = 0;
    uint32_t defaultSampleDuration = 0;
    uint32_t defaultSampleSize = 0;
    uint32_t defaultSampleFlags = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;
};

class CMovieFragmentHeaderBox : public CFieldBox<CMovieFragmentHeaderBox, CFullBox> {
public:
    CMovieFragmentHeaderBox() { type = fourcc("mfhd"); }
    uint32_t sequenceNumber = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;
};

// "tfhd": which track a fragment belongs to and the defaults its runs
// use; each optional field is present when its flag is set.
class CTrackFragmentHeaderBox : public CFieldBox<CTrackFragmentHeaderBox, CFullBox> {
public:
    static constexpr uint32_t kBaseDataOffset = 0x000001;
    static constexpr uint32_t kDescriptionIndex = 0x000002;
    static constexpr uint32_t kDefaultDuration = 0x000008;
    static constexpr uint32_t kDefaultSize = 0x000010;
    static constexpr uint32_t kDefaultFlags = 0x000020;
    static constexpr uint32_t kDurationIsEmpty = 0x010000;
    static constexpr uint32_t kDefaultBaseIsMoof = 0x020000;

    CTrackFragmentHeaderBox() { type = fourcc("tfhd"); }
    uint32_t trackId = 0;
    uint64_t baseDataOffset = 0;
    uint32_t sampleDescriptionIndex = 0;
    uint32_t defaultSampleDuration = 0;
    uint32_t defaultSampleSize = 0;
    uint32_t defaultSampleFlags = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// "tfdt": decode time of the fragment's first sample (media time scale).
class CTrackFragmentDecodeTimeBox : public CFieldBox<CTrackFragmentDecodeTimeBox, CFullBox> {
public:
    CTrackFragmentDecodeTimeBox() { type = fourcc("tfdt"); }
    uint64_t baseMediaDecodeTime = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
    MP4Err listFields(FieldLister& io) override;
};

// "trun": a run of contiguous samples. Only the per-sample fields the
// flags announce are stored, back to back per sample (stride words each),
// so a run costs what the file spends on it.
class CTrackRunBox : public CFieldBox<CTrackRunBox, CFullBox> {
public:
    static constexpr uint32_t kDataOffset = 0x000001;
    static constexpr uint32_t kFirstSampleFlags = 0x000004;
    static constexpr uint32_t kDuration = 0x000100;
    static constexpr uint32_t kSize = 0x000200;
    static constexpr uint32_t kFlags = 0x000400;
    static constexpr uint32_t kCompositionOffset = 0x000800;

    CTrackRunBox() { type = fourcc("trun"); }
    uint32_t sampleCount = 0;
    int32_t dataOffset = 0;
    uint32_t firstSampleFlags = 0;

    // Per-sample values (i is 0-based, below sampleCount): the stored
    // value, or the default when the run does not carry that field.
    uint32_t duration(uint32_t i, uint32_t byDefault) const { return field(i, kDuration, byDefault); }
    uint32_t sampleSize(uint32_t i, uint32_t byDefault) const { return field(i, kSize, byDefault); }
    bool hasSampleFlags() const { return (flags & kFlags) != 0; }
    uint32_t sampleFlags(uint32_t i, uint32_t byDefault) const { return field(i, kFlags, byDefault); }
    // Signed in version 1; version 0 offsets are unsigned.
    int64_t compositionOffset(uint32_t i) const;
    // Replaces the samples (writers): values hold count x stride() words in
    // the order duration, size, flags, composition offset.
    MP4Err setSamples(uint32_t count, const uint32_t* values);
    uint32_t stride() const;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

private:
    // Looked up for every sample: the slots come from the flags once, when
    // the run is read or its samples are set.
    uint32_t field(uint32_t i, uint32_t flag, uint32_t byDefault) const {
        const uint8_t slot = slots_[flagIndex(flag)];
        if (slot == kAbsent || !values_) return byDefault;
        return values_[static_cast<uint64_t>(i) * stride_ + slot];
    }
    static constexpr uint32_t flagIndex(uint32_t flag) {
        return flag == kDuration ? 0 : flag == kSize ? 1 : flag == kFlags ? 2 : 3;
    }
    void layOut();
    static constexpr uint8_t kAbsent = 0xFF;
    uint8_t slots_[4] = {kAbsent, kAbsent, kAbsent, kAbsent};
    uint32_t stride_ = 0;
    std::unique_ptr<uint32_t[]> values_;
};

// "sidx": one segment's subsegments, for finding them without a scan.
class CSegmentIndexBox : public CFieldBox<CSegmentIndexBox, CFullBox> {
public:
    struct Reference {
        uint32_t typeAndSize = 0;  // reference type (top bit) and size
        uint32_t subsegmentDuration = 0;
        uint32_t sapFields = 0;  // starts-with-SAP, SAP type, SAP delta time
    };
    CSegmentIndexBox() { type = fourcc("sidx"); }
    uint32_t referenceId = 0;
    uint32_t timeScale = 0;
    uint64_t earliestPresentationTime = 0;
    uint64_t firstOffset = 0;
    uint16_t reserved = 0;
    uint16_t referenceCount = 0;
    std::unique_ptr<Reference[]> references;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// "tfra": random access points of one track.
class CTrackFragmentRandomAccessBox : public CFieldBox<CTrackFragmentRandomAccessBox, CFullBox> {
public:
    struct Entry {
        uint64_t time = 0;
        uint64_t moofOffset = 0;
        uint32_t trafNumber = 0;
        uint32_t trunNumber = 0;
        uint32_t sampleNumber = 0;
    };
    CTrackFragmentRandomAccessBox() { type = fourcc("tfra"); }
    uint32_t trackId = 0;
    uint32_t lengthSizes = 0;  // reserved bits and the three 2-bit lengths
    uint32_t entryCount = 0;
    std::unique_ptr<Entry[]> entries;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// "mfro": size of the enclosing "mfra", read from the end of a file.
class CMovieFragmentRandomAccessOffsetBox : public CFieldBox<CMovieFragmentRandomAccessOffsetBox, CFullBox> {
public:
    CMovieFragmentRandomAccessOffsetBox() { type = fourcc("mfro"); }
    uint32_t mfraSize = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// "emsg": an event message (versions 0 and 1 order the fields differently).
class CEventMessageBox : public CFieldBox<CEventMessageBox, CFullBox> {
public:
    CEventMessageBox() { type = fourcc("emsg"); }
    std::string schemeIdUri;
    std::string value;
    uint32_t timeScale = 0;
    uint64_t presentationTime = 0;  // version 1; version 0: the delta
    uint32_t eventDuration = 0;
    uint32_t id = 0;
    std::string messageData;  // bytes

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

// "prft": wall-clock time (NTP) of a media time.
class CProducerReferenceTimeBox : public CFieldBox<CProducerReferenceTimeBox, CFullBox> {
public:
    CProducerReferenceTimeBox() { type = fourcc("prft"); }
    uint32_t referenceTrackId = 0;
    uint64_t ntpTimestamp = 0;
    uint64_t mediaTime = 0;

    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);
};

}  // namespace quil

#endif
