// One importer per raw stream format: a first pass over the whole stream
// finds its samples, their times and the codec set-up; the samples are
// then handed out one by one, in decode order.
#ifndef QUIL_IMPORT_STREAMIMPORTERS_H
#define QUIL_IMPORT_STREAMIMPORTERS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quil/Mp4Track.h"

namespace quil {

struct ImportedSample {
    const uint8_t* data = nullptr;  // valid until the next call
    uint32_t size = 0;
    uint64_t decodeTime = 0;
    uint64_t compositionTime = 0;
    bool sync = true;
};

// The edit list a track needs (setEditList's arguments); none when
// firstMediaTime and presentedDuration are 0.
struct ImportedEdit {
    int64_t firstMediaTime = 0;
    uint64_t presentedDuration = 0;
};

class CStreamImporter {
public:
    virtual ~CStreamImporter() = default;
    // Reads the whole stream once. On failure *why says what and where
    // (without the format's name, which the caller adds).
    virtual MP4Err scan(std::string* why) = 0;
    virtual const char* formatName() const = 0;
    virtual uint32_t trackKind() const = 0;  // MP4TrackType
    virtual uint32_t timeScale() const = 0;
    // The sample entry's parameters; config points into the importer.
    virtual MP4SampleEntryInfo sampleEntry() const = 0;
    virtual uint32_t sampleCount() const = 0;
    // Sample index (0-based) in decode order.
    virtual MP4Err sample(uint32_t index, ImportedSample* sample) = 0;
    virtual uint32_t lastSampleDuration() const = 0;
    virtual ImportedEdit edit() const { return ImportedEdit(); }
    // Raw PCM: every sample is a run of audio frames, written chunk-as-sample.
    virtual bool chunkAsSample() const { return false; }
};

// Video frame rate a caller asks for (0/0: the stream's own).
struct FrameRate {
    uint32_t numerator = 0;
    uint32_t denominator = 0;
};

// The importer for the stream in data (which must outlive it), chosen from
// its first bytes and, for Annex B video, its name's extension. Null with
// *why set when the format is not recognised.
// The two families behind it: null when the bytes are not theirs (or
// memory ran out).
std::unique_ptr<CStreamImporter> makeAudioImporter(const uint8_t* data, size_t size);
std::unique_ptr<CStreamImporter> makeVideoImporter(const uint8_t* data, size_t size, bool hevc,
                                                   FrameRate rate);

std::unique_ptr<CStreamImporter> makeStreamImporter(const uint8_t* data, size_t size,
                                                    const std::string& name, FrameRate rate,
                                                    std::string* why);

}  // namespace quil

#endif
