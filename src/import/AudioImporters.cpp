// Importers of raw audio: AAC in ADTS, AMR storage format, MP3, WAV.
#include <cstring>
#include <new>

#include "import/AudioParsers.h"
#include "import/StreamImporters.h"

namespace quil {
namespace {

std::string at(uint64_t offset) { return " at byte " + std::to_string(offset); }

// Streams of frames stored one after another: each frame is a sample of
// a fixed duration.
class CFramedAudioImporter : public CStreamImporter {
public:
    CFramedAudioImporter(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint32_t trackKind() const override { return MP4_TRACK_AUDIO; }
    uint32_t timeScale() const override { return timeScale_; }
    uint32_t sampleCount() const override { return static_cast<uint32_t>(frames_.size()); }
    uint32_t lastSampleDuration() const override { return frameDuration_; }
    MP4Err sample(uint32_t index, ImportedSample* sample) override {
        if (index >= frames_.size()) return MP4_ERR_INVALID_ARGUMENT;
        sample->data = data_ + frames_[index].offset;
        sample->size = frames_[index].size;
        sample->decodeTime = static_cast<uint64_t>(index) * frameDuration_;
        sample->compositionTime = sample->decodeTime;
        sample->sync = true;
        return MP4_OK;
    }

protected:
    struct Frame {
        uint64_t offset;
        uint32_t size;
    };
    MP4Err addFrame(uint64_t offset, uint32_t size, std::string* why) {
        if (frames_.size() >= 0xFFFFFFF0u) {
            *why = "more frames than a track can hold";
            return MP4_ERR_VALUE_TOO_LARGE;
        }
        frames_.push_back(Frame{offset, size});
        return MP4_OK;
    }
    MP4Err noFrames(std::string* why) const {
        *why = "no audio frame in the stream";
        return MP4_ERR_INVALID_DATA;
    }

    const uint8_t* data_;
    size_t size_;
    std::vector<Frame> frames_;
    uint32_t timeScale_ = 0;
    uint32_t frameDuration_ = 0;
};

// ---- AAC in ADTS ------------------------------------------------------------

class CAdtsImporter final : public CFramedAudioImporter {
public:
    using CFramedAudioImporter::CFramedAudioImporter;
    const char* formatName() const override { return "AAC (ADTS)"; }

    MP4Err scan(std::string* why) override {
        size_t position = id3v2TagSize(data_, size_);
        while (position < size_) {
            AdtsHeader header;
            MP4Err err = parseAdtsHeader(data_ + position, size_ - position, &header);
            if (err == MP4_ERR_UNSUPPORTED) {
                *why = "frame" + at(position) +
                       " carries several raw data blocks or its channel layout in-band, which is not imported";
                return err;
            }
            if (err != MP4_OK) {
                *why = size_ - position < 7 ? "stream ends inside a frame header" + at(position)
                                            : "no frame header" + at(position);
                return err;
            }
            if (frames_.empty()) {
                first_ = header;
            } else if (header.objectType != first_.objectType ||
                       header.frequencyIndex != first_.frequencyIndex ||
                       header.channelConfig != first_.channelConfig) {
                *why = "frame" + at(position) + " changes the profile, rate or channels";
                return MP4_ERR_UNSUPPORTED;
            }
            if (header.frameSize > size_ - position) {
                *why = "frame" + at(position) + " is cut short";
                return MP4_ERR_INVALID_DATA;
            }
            err = addFrame(position + header.headerSize, header.frameSize - header.headerSize, why);
            if (err != MP4_OK) return err;
            position += header.frameSize;
        }
        if (frames_.empty()) return noFrames(why);
        adtsAudioSpecificConfig(first_, config_);
        timeScale_ = first_.sampleRate;
        frameDuration_ = 1024;
        return MP4_OK;
    }

    MP4SampleEntryInfo sampleEntry() const override {
        MP4SampleEntryInfo info{};
        info.format = fourcc("mp4a");
        info.sampleRate = first_.sampleRate;
        info.channels = static_cast<uint16_t>(first_.channelConfig == 7 ? 8 : first_.channelConfig);
        info.config = config_;
        info.configLength = 2;
        return info;
    }

private:
    AdtsHeader first_;
    uint8_t config_[2] = {};
};

// ---- AMR --------------------------------------------------------------------

class CAmrImporter final : public CFramedAudioImporter {
public:
    CAmrImporter(const uint8_t* data, size_t size, bool wideBand)
        : CFramedAudioImporter(data, size), wideBand_(wideBand) {}
    const char* formatName() const override { return wideBand_ ? "AMR-WB" : "AMR"; }

    MP4Err scan(std::string* why) override {
        size_t position = 0;
        amrStorageKind(data_, size_, &position);
        while (position < size_) {
            const uint32_t frame = amrFrameSize(data_[position], wideBand_);
            if (frame == 0) {
                *why = "frame header" + at(position) + " has an undefined frame type or padding bits set";
                return MP4_ERR_INVALID_DATA;
            }
            if (frame > size_ - position) {
                *why = "frame" + at(position) + " is cut short";
                return MP4_ERR_INVALID_DATA;
            }
            // Samples keep the storage format's frames, header byte included.
            MP4Err err = addFrame(position, frame, why);
            if (err != MP4_OK) return err;
            position += frame;
        }
        if (frames_.empty()) return noFrames(why);
        timeScale_ = wideBand_ ? 16000 : 8000;
        frameDuration_ = wideBand_ ? 320 : 160;  // 20 ms
        return MP4_OK;
    }

    MP4SampleEntryInfo sampleEntry() const override {
        MP4SampleEntryInfo info{};
        info.format = wideBand_ ? fourcc("sawb") : fourcc("samr");
        info.sampleRate = timeScale_;
        info.channels = 1;
        return info;
    }

private:
    bool wideBand_;
};

// ---- MP3 ----------------------------------------------------------------------

// Tags that may follow the last frame.
bool isTrailingTag(const uint8_t* data, size_t size) {
    return (size >= 3 && std::memcmp(data, "TAG", 3) == 0) ||
           (size >= 8 && std::memcmp(data, "APETAGEX", 8) == 0) ||
           (size >= 6 && std::memcmp(data, "LYRICS", 6) == 0);
}

class CMpegAudioImporter final : public CFramedAudioImporter {
public:
    using CFramedAudioImporter::CFramedAudioImporter;
    const char* formatName() const override { return "MPEG audio"; }

    MP4Err scan(std::string* why) override {
        size_t position = id3v2TagSize(data_, size_);
        bool firstFrame = true;
        while (position < size_) {
            MpegAudioHeader header;
            MP4Err err = parseMpegAudioHeader(data_ + position, size_ - position, &header);
            if (err != MP4_OK) {
                if (!frames_.empty() && isTrailingTag(data_ + position, size_ - position)) break;
                *why = err == MP4_ERR_UNSUPPORTED ? "free-format frame" + at(position) + " is not imported"
                                                  : "no frame header" + at(position);
                return err;
            }
            if (header.frameSize > size_ - position) {
                *why = "frame" + at(position) + " is cut short";
                return MP4_ERR_INVALID_DATA;
            }
            if (firstFrame) {
                first_ = header;
                info_ = parseMpegInfoFrame(data_ + position, size_ - position, header);
                firstFrame = false;
                if (info_.present) {
                    position += header.frameSize;
                    continue;
                }
            } else if (header.sampleRate != first_.sampleRate || header.layer != first_.layer) {
                *why = "frame" + at(position) + " changes the sampling rate or layer";
                return MP4_ERR_UNSUPPORTED;
            }
            if ((err = addFrame(position, header.frameSize, why)) != MP4_OK) return err;
            position += header.frameSize;
        }
        if (frames_.empty()) return noFrames(why);
        timeScale_ = first_.sampleRate;
        frameDuration_ = first_.samplesPerFrame;
        return MP4_OK;
    }

    MP4SampleEntryInfo sampleEntry() const override {
        MP4SampleEntryInfo info{};
        info.format = fourcc("mp4a");
        info.sampleRate = first_.sampleRate;
        info.channels = static_cast<uint16_t>(first_.channels);
        // ISO/IEC 14496-1 object types: MPEG-1 audio 0x6B, MPEG-2 (and 2.5) 0x69.
        info.objectTypeIndication = first_.version == 1 ? 0x6B : 0x69;
        return info;
    }

    // The encoder delay (plus the decoder's own 529 samples) is skipped and
    // the padding cut, as decoders reading the information frame do.
    ImportedEdit edit() const override {
        ImportedEdit edit;
        if (!info_.hasDelays) return edit;
        const uint64_t total = static_cast<uint64_t>(frames_.size()) * frameDuration_;
        const uint64_t skip = info_.encoderDelay + 529ull;
        const uint64_t cut = info_.padding > 529 ? info_.padding - 529ull : 0;
        if (total <= skip + cut) return edit;
        edit.firstMediaTime = static_cast<int64_t>(skip);
        edit.presentedDuration = total - skip - cut;
        return edit;
    }

private:
    MpegAudioHeader first_;
    MpegInfoFrame info_;
};

// ---- WAV ----------------------------------------------------------------------

class CWaveImporter final : public CStreamImporter {
public:
    CWaveImporter(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    const char* formatName() const override { return "WAV"; }
    uint32_t trackKind() const override { return MP4_TRACK_AUDIO; }
    uint32_t timeScale() const override { return format_.sampleRate; }
    bool chunkAsSample() const override { return true; }
    uint32_t lastSampleDuration() const override { return 0; }

    MP4Err scan(std::string* why) override {
        MP4Err err = parseWave(data_, size_, &format_);
        if (err == MP4_ERR_UNSUPPORTED) {
            *why = "only PCM (8, 16, 24 bits) and 32-bit float WAV files are imported";
        } else if (err != MP4_OK) {
            *why = "no valid format and data chunks";
        }
        if (err != MP4_OK) return err;
        // Half a second per chunk keeps the chunks few and interleavable.
        framesPerRun_ = format_.sampleRate / 2 ? format_.sampleRate / 2 : 1;
        const uint64_t frames = format_.dataSize / format_.blockAlign;
        if (frames > 0xFFFFFFF0u) {
            *why = "more audio frames than a track can hold";
            return MP4_ERR_VALUE_TOO_LARGE;
        }
        frames_ = frames;
        return MP4_OK;
    }

    MP4SampleEntryInfo sampleEntry() const override {
        MP4SampleEntryInfo info{};
        switch (format_.bitsPerSample) {
            case 8: info.format = fourcc("raw "); break;  // unsigned, as in WAV
            case 16: info.format = fourcc("sowt"); break;
            case 24: info.format = fourcc("in24"); break;
            default: info.format = fourcc("fl32"); break;
        }
        info.sampleRate = format_.sampleRate;
        info.channels = static_cast<uint16_t>(format_.channels);
        info.sampleBits = static_cast<uint16_t>(format_.bitsPerSample);
        info.littleEndian = true;
        return info;
    }

    uint32_t sampleCount() const override {
        return static_cast<uint32_t>((frames_ + framesPerRun_ - 1) / framesPerRun_);
    }

    MP4Err sample(uint32_t index, ImportedSample* sample) override {
        const uint64_t first = static_cast<uint64_t>(index) * framesPerRun_;
        if (first >= frames_) return MP4_ERR_INVALID_ARGUMENT;
        const uint64_t count = frames_ - first < framesPerRun_ ? frames_ - first : framesPerRun_;
        sample->data = data_ + format_.dataOffset + first * format_.blockAlign;
        sample->size = static_cast<uint32_t>(count * format_.blockAlign);
        sample->decodeTime = first;
        sample->compositionTime = first;
        sample->sync = true;
        return MP4_OK;
    }

private:
    const uint8_t* data_;
    size_t size_;
    WaveFormat format_;
    uint64_t frames_ = 0;
    uint32_t framesPerRun_ = 1;
};

}  // namespace

std::unique_ptr<CStreamImporter> makeAudioImporter(const uint8_t* data, size_t size) {
    size_t header = 0;
    const int amr = amrStorageKind(data, size, &header);
    if (amr != 0) return std::unique_ptr<CStreamImporter>(new (std::nothrow) CAmrImporter(data, size, amr == 2));
    if (size >= 12 && std::memcmp(data + 8, "WAVE", 4) == 0) {
        return std::unique_ptr<CStreamImporter>(new (std::nothrow) CWaveImporter(data, size));
    }
    const size_t tag = id3v2TagSize(data, size);
    const uint8_t* frame = data + (tag < size ? tag : size);
    const size_t left = tag < size ? size - tag : 0;
    if (left >= 2 && frame[0] == 0xFF && (frame[1] & 0xF6) == 0xF0) {
        return std::unique_ptr<CStreamImporter>(new (std::nothrow) CAdtsImporter(data, size));
    }
    MpegAudioHeader mpeg;
    if (parseMpegAudioHeader(frame, left, &mpeg) != MP4_ERR_INVALID_DATA) {
        return std::unique_ptr<CStreamImporter>(new (std::nothrow) CMpegAudioImporter(data, size));
    }
    return nullptr;
}

}  // namespace quil
