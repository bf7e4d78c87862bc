// quil remux IN OUT [--type N] [--faststart]: every track of IN copied into
// a new file through the library's write interface: sample entries
// unchanged, samples with their times, sync flags and composition offsets,
// edit lists, languages, creation times and user data.
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "Info.h"
#include "Rewrite.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

// Chunks of at most about a second keep the tracks interleaved in the
// output. Chunks of a quarter megabyte still read efficiently, and their
// buffer stays within a core's cache while it fills and is written: on
// the machines measured a 1 MB chunk made the copy into the page cache
// run from main memory and the whole remux take three times as long.
constexpr uint32_t kChunkByteLimit = 256 * 1024;

const char* trackKindName(uint32_t kind) {
    switch (kind) {
        case MP4_TRACK_VIDEO: return "video";
        case MP4_TRACK_AUDIO: return "audio";
        case MP4_TRACK_HINT: return "hint";
        case MP4_TRACK_OBJECT_DESCRIPTOR: return "object descriptor";
        case MP4_TRACK_SCENE_DESCRIPTION: return "scene description";
        case MP4_TRACK_TIMECODE: return "time code";
        default: return "other";
    }
}

// Kinds the write interface can make. Hint tracks describe packets of the
// other tracks' samples at their old places and are made anew by hinting;
// time-code and other tracks cannot be written.
bool isCopiedKind(uint32_t kind) {
    return kind == MP4_TRACK_VIDEO || kind == MP4_TRACK_AUDIO ||
           kind == MP4_TRACK_OBJECT_DESCRIPTOR || kind == MP4_TRACK_SCENE_DESCRIPTION;
}

// Uncompressed audio is read a chunk at a time (each chunk one sample of
// many audio samples) and written the same way, in chunk-as-sample mode.
bool isRawAudio(uint32_t format) {
    switch (format) {
        case fourcc("twos"): case fourcc("sowt"): case fourcc("raw "): case fourcc("NONE"):
        case fourcc("in24"): case fourcc("in32"): case fourcc("fl32"): case fourcc("fl64"):
        case fourcc("lpcm"): case fourcc("ulaw"): case fourcc("alaw"):
            return true;
        default:
            return false;
    }
}

struct TrackCopy {
    uint32_t number = 0;  // in the source
    CMp4Track* in = nullptr;
    CMp4Track* out = nullptr;
    uint32_t sampleCount = 0;
    uint32_t nextSample = 1;
    uint32_t timeScale = 1;
    uint64_t delay = 0;       // initial delay, taken off the read times
    // Added to composition times that would otherwise precede their decode
    // time (negative offsets), and to the edit's media time to make up.
    uint64_t compositionShift = 0;
    uint64_t nextDecode = 0;  // decode time of nextSample, as read
    bool rawAudio = false;    // written chunk-as-sample
};

// A failure to report: what was being done and the library's answer.
struct Failure {
    std::string what;
    MP4Err err = MP4_OK;
};

class Remuxer {
public:
    Remuxer(const char* input, const CopyOptions& options)
        : input_(input), fileType_(options.fileType), options_(options) {}
    ~Remuxer();
    Remuxer(const Remuxer&) = delete;
    Remuxer& operator=(const Remuxer&) = delete;

    // Writes the copy to output; false on failure, which failure() describes.
    bool run(const std::string& output);
    const Failure& failure() const { return failure_; }
    // Prints the one line that says why a run into output failed.
    void printFailure(const std::string& output) const;

private:
    bool fail(const std::string& what, MP4Err err) {
        failure_ = {what, err};
        return false;
    }
    bool openInput();
    bool openOutput(const std::string& output);
    bool copyMovieProperties();
    bool addTracks();
    bool addTrack(uint32_t number);
    bool copyTrackProperties(TrackCopy* copy);
    MP4Err findCompositionShift(TrackCopy* copy);
    bool copyLastSampleDuration(TrackCopy* copy);
    bool copySamples();
    bool copySample(TrackCopy* copy);
    TrackCopy* nextTrack();
    bool finish();
    bool fragmented() const { return options_.fragments != nullptr; }
    bool isCopied(uint32_t number) const;

    const char* input_;
    uint32_t fileType_;
    CopyOptions options_;
    OpenedFile source_;
    CMp4File* target_ = nullptr;
    std::vector<TrackCopy> tracks_;
    std::vector<uint8_t> buffer_;
    uint32_t lastSampleSize_ = 0;
    Failure failure_;
};

Remuxer::~Remuxer() {
    // On a failure path: tracks whose finishing fails again stay ours; they
    // are deleted after the file object, which detaches them first.
    // Destroying an unclosed file closes it; the caller removes the
    // incomplete output.
    std::vector<CMp4Track*> unreleased;
    for (TrackCopy& copy : tracks_) {
        if (copy.in) (void)source_.get()->releaseTrack(copy.in);
        if (copy.out && target_->releaseTrack(copy.out) != MP4_OK) unreleased.push_back(copy.out);
    }
    CMp4File::destroyInstance(&target_);
    for (CMp4Track* track : unreleased) delete track;
}

bool Remuxer::run(const std::string& output) {
    return openInput() && openOutput(output) && copyMovieProperties() && addTracks() &&
           copySamples() && finish();
}

void Remuxer::printFailure(const std::string& output) const {
    // A failed write says what the system says about the output.
    std::string why = failure_.err == MP4_ERR_IO && target_ ? outputProblem(output) : "";
    if (!why.empty()) why = " (output " + output + ": " + why + ")";
    std::fprintf(stderr, "quil: %s: %s: %s: %s%s\n", options_.label, input_,
                 failure_.what.c_str(), toString(failure_.err), why.c_str());
}

bool Remuxer::openInput() {
    MP4Err err = source_.open(input_);
    if (err != MP4_OK) {
        const std::string why = openFailureReason(input_, err);
        return fail(why.empty() ? "cannot read the file" : why, err);
    }
    if (!options_.typeGiven) fileType_ = inputFileType(source_.get());
    // PSP and XAVC files have no fragmented form: plain MPEG-4 instead.
    if (fragmented() && (fileType_ == MP4_FILE_PSP || fileType_ == MP4_FILE_XAVC)) {
        fileType_ = MP4_FILE_MPEG4;
    }
    return true;
}

bool Remuxer::openOutput(const std::string& output) {
    std::wstring path;
    MP4Err err = Mp4WidePathFromUtf8(output.c_str(), &path);
    if (err == MP4_OK) err = CMp4File::createInstance(&target_);
    if (err == MP4_OK) err = target_->open(path.c_str(), 1, fileType_);
    // Players show the file as long as its longest track.
    if (err == MP4_OK) err = target_->setMovieDurationRule(MP4_MOVIE_DURATION_LONGEST_TRACK);
    if (err == MP4_OK && fragmented()) err = target_->setFragmentation(options_.fragments);
    return err == MP4_OK || fail("cannot create the output", err);
}

bool Remuxer::copyMovieProperties() {
    uint32_t y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    if (source_.get()->getCreationTime(&y, &mo, &d, &h, &mi, &s) == MP4_OK && y > 1904) {
        MP4Err err = target_->setCreationTime(y, mo, d, h, mi, s);
        if (err != MP4_OK) return fail("movie creation time", err);
    }
    return true;
}

bool Remuxer::addTracks() {
    uint32_t count = 0;
    (void)source_.get()->getTrackCount(&count);
    tracks_.reserve(count);
    for (uint32_t number = 1; number <= count; ++number) {
        if (isCopied(number) && !addTrack(number)) return false;
    }
    if (tracks_.empty()) return fail("no track that can be copied", MP4_ERR_NO_TRACKS);
    MP4Err err = target_->copyUserData(source_.get(), 0, 0);
    return err == MP4_OK || err == MP4_ERR_NOT_AVAILABLE || fail("movie user data", err);
}

bool Remuxer::addTrack(uint32_t number) {
    CMp4Track* in = nullptr;
    MP4Err err = source_.get()->getTrack(number, &in);
    uint32_t kind = 0;
    if (err == MP4_OK) err = in->getTrackType(&kind);
    if (err != MP4_OK || !isCopiedKind(kind)) {
        if (in) (void)source_.get()->releaseTrack(in);
        // Left out with a note rather than failing the whole copy.
        std::fprintf(stderr, "quil: %s: %s: track %u (%s) is not copied%s%s\n", options_.label,
                     input_, number, err == MP4_OK ? trackKindName(kind) : "unreadable",
                     err == MP4_OK ? "" : ": ", err == MP4_OK ? "" : toString(err));
        return true;
    }
    tracks_.emplace_back();
    TrackCopy& copy = tracks_.back();
    copy.number = number;
    copy.in = in;
    uint32_t format = 0;
    const bool raw = kind == MP4_TRACK_AUDIO && in->getSampleEntryType(&format) == MP4_OK &&
                     isRawAudio(format);
    copy.rawAudio = raw;
    if (raw) (void)target_->setTrackMode(1);
    err = target_->addTrack(&copy.out);
    if (raw) (void)target_->setTrackMode(0);
    if (err != MP4_OK) return fail("adding track " + std::to_string(number), err);
    err = copy.out->setTrackType(kind);
    if (err != MP4_OK) return fail("track " + std::to_string(number) + " kind", err);
    return copyTrackProperties(&copy);
}

bool Remuxer::copyTrackProperties(TrackCopy* copy) {
    const std::string track = "track " + std::to_string(copy->number);
    CMp4Track* in = copy->in;
    CMp4Track* out = copy->out;
    MP4Err err = in->getTimeScale(&copy->timeScale);
    if (err == MP4_OK) err = out->setTimeScale(copy->timeScale);
    if (err != MP4_OK) return fail(track + " time scale", err);
    uint8_t language[3] = {};
    if (in->getLanguage(language) == MP4_OK) {
        // A code that is no language (letters outside a-z) stays "und".
        err = out->setLanguage(language);
        if (err != MP4_OK && err != MP4_ERR_INVALID_ARGUMENT) return fail(track + " language", err);
    }
    uint32_t y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    if (in->getCreationTime(&y, &mo, &d, &h, &mi, &s) == MP4_OK && y > 1904) {
        err = out->setCreationTime(y, mo, d, h, mi, s);
        if (err != MP4_OK) return fail(track + " creation time", err);
    }
    const double angle = in->getRotateAngle();
    uint32_t width = 0, height = 0;
    if ((angle == 90 || angle == 180 || angle == 270) && in->getWidth(&width) == MP4_OK &&
        in->getHeight(&height) == MP4_OK) {
        err = out->setDimensions(width, height, static_cast<uint32_t>(angle));
        if (err != MP4_OK) return fail(track + " rotation", err);
    }
    int16_t volume = 0;
    if (in->getVolume(&volume) == MP4_OK) {
        err = out->setVolume(volume);
        if (err != MP4_OK) return fail(track + " volume", err);
    }
    err = out->addSampleEntryFrom(in, 1);
    if (err != MP4_OK) return fail(track + " sample entry", err);
    err = in->getSampleCount(&copy->sampleCount);
    // Fragments keep negative composition offsets as they are.
    if (err == MP4_OK && !fragmented()) err = findCompositionShift(copy);
    if (err != MP4_OK) return fail(track + " samples", err);
    int64_t firstMediaTime = 0;
    uint64_t presented = 0;
    err = in->getInitialDelay(&copy->delay, &firstMediaTime, &presented);
    uint64_t mediaDuration = 0;
    // A fragmented file's edit cannot run "to the end of the media", which
    // is not known when its movie box is written: it gets its length.
    if (err == MP4_OK && fragmented() && presented == 0 && (copy->delay || firstMediaTime) &&
        in->getMediaDuration(&mediaDuration) == MP4_OK &&
        mediaDuration > static_cast<uint64_t>(firstMediaTime)) {
        presented = mediaDuration - static_cast<uint64_t>(firstMediaTime);
    }
    if (err == MP4_OK) {
        err = out->setEditList(copy->delay,
                               firstMediaTime + static_cast<int64_t>(copy->compositionShift),
                               presented);
    }
    if (err != MP4_OK) return fail(track + " edit list", err);
    err = out->setChunkLimits(copy->timeScale, kChunkByteLimit);
    if (err != MP4_OK) return fail(track + " chunk limits", err);
    err = target_->copyUserData(source_.get(), copy->number, static_cast<uint32_t>(tracks_.size()));
    if (err != MP4_OK && err != MP4_ERR_NOT_AVAILABLE) return fail(track + " user data", err);

    if (copy->sampleCount > 0) err = in->getSampleDecodeTime(1, &copy->nextDecode);
    if (err != MP4_OK) return fail(track + " samples", err);
    return copyLastSampleDuration(copy);
}

// The last sample lasts what the media duration leaves after its decode
// time. Raw audio is read a chunk per sample but written an audio sample
// per time unit, whose last one lasts one unit anyway.
bool Remuxer::copyLastSampleDuration(TrackCopy* copy) {
    if (copy->rawAudio || copy->sampleCount == 0) return true;
    uint64_t media = 0, last = 0;
    if (copy->in->getMediaDuration(&media) != MP4_OK ||
        copy->in->getSampleDecodeTime(copy->sampleCount, &last) != MP4_OK) {
        return true;  // the writer's rule then applies
    }
    const uint64_t span = last - copy->nextDecode;
    if (last < copy->nextDecode || media <= span || media - span > 0x7FFFFFFFu) return true;
    MP4Err err = copy->out->setLastSampleDuration(static_cast<uint32_t>(media - span));
    return err == MP4_OK || fail("track " + std::to_string(copy->number) + " last sample", err);
}

// A track written with negative composition offsets (composition before
// decode) is written with offsets raised by the largest such gap, which
// the written format needs; its edit list starts that much later.
MP4Err Remuxer::findCompositionShift(TrackCopy* copy) {
    for (uint32_t sample = 1; sample <= copy->sampleCount; ++sample) {
        uint64_t decode = 0, composition = 0;
        MP4Err err = copy->in->getSampleDecodeTime(sample, &decode);
        if (err == MP4_OK) err = copy->in->getSampleCompositionTime(sample, &composition);
        if (err != MP4_OK) return err;
        if (composition < decode && decode - composition > copy->compositionShift) {
            copy->compositionShift = decode - composition;
        }
    }
    return MP4_OK;
}

// The track whose next sample comes first in time, so that the output
// interleaves the tracks as they play; null when all are copied.
TrackCopy* Remuxer::nextTrack() {
    TrackCopy* best = nullptr;
    for (TrackCopy& copy : tracks_) {
        if (copy.nextSample > copy.sampleCount) continue;
        // a / sa < b / sb without division; 128 bits cannot overflow.
        if (!best || static_cast<unsigned __int128>(copy.nextDecode) * best->timeScale <
                         static_cast<unsigned __int128>(best->nextDecode) * copy.timeScale) {
            best = &copy;
        }
    }
    return best;
}

bool Remuxer::copySamples() {
    // Counted in sample bytes against the input's size: close enough for
    // a progress line, and large files are those with many bytes.
    Progress progress(options_.label, fileSize(input_), options_.progress);
    uint64_t copiedBytes = 0, copied = 0;
    while (TrackCopy* copy = nextTrack()) {
        if (!copySample(copy)) return false;
        copiedBytes += lastSampleSize_;
        if ((++copied & 255) == 0) progress.update(copiedBytes);
    }
    progress.update(fileSize(input_));
    return true;
}

bool Remuxer::copySample(TrackCopy* copy) {
    const uint32_t sample = copy->nextSample;
    CMp4Track* in = copy->in;
    uint32_t size = 0, sync = 0;
    uint64_t composition = 0;
    if (buffer_.empty()) buffer_.resize(1u << 20);
    MP4Err err = in->readSample(sample, static_cast<uint32_t>(buffer_.size()), &size,
                                buffer_.data());
    if (err == MP4_ERR_BUFFER_TOO_SMALL && size > buffer_.size()) {
        buffer_.resize(size);  // grows rarely: the buffer keeps the largest size seen
        err = in->readSample(sample, size, &size, buffer_.data());
    }
    if (err == MP4_OK) err = in->getSampleCompositionTime(sample, &composition);
    if (err == MP4_OK) err = in->isSyncSample(sample, &sync);
    if (err != MP4_OK) {
        return fail("track " + std::to_string(copy->number) + ", sample " +
                        std::to_string(sample) + " cannot be read",
                    err);
    }
    // Read times include the initial delay; the edit list written for the
    // track puts it back.
    const uint64_t decode = copy->nextDecode;
    err = copy->out->addSample(buffer_.data(), size, decode - copy->delay,
                               composition + copy->compositionShift - copy->delay, sync != 0);
    if (err != MP4_OK) {
        return fail("track " + std::to_string(copy->number) + ", sample " +
                        std::to_string(sample) + " cannot be written",
                    err);
    }
    lastSampleSize_ = size;
    copy->nextSample = sample + 1;
    if (copy->nextSample <= copy->sampleCount) {
        err = in->getSampleDecodeTime(copy->nextSample, &copy->nextDecode);
        if (err != MP4_OK) {
            return fail("track " + std::to_string(copy->number) + ", sample " +
                            std::to_string(copy->nextSample) + " time",
                        err);
        }
    }
    return true;
}

bool Remuxer::finish() {
    for (TrackCopy& copy : tracks_) {
        MP4Err err = target_->releaseTrack(copy.out);
        if (err != MP4_OK) return fail("finishing track " + std::to_string(copy.number), err);
        copy.out = nullptr;
    }
    MP4Err err = target_->close();
    if (err != MP4_OK) return fail("writing the movie box", err);
    uint32_t count = 0;
    if (options_.fragmentsWritten && target_->getFragmentCount(&count) == MP4_OK) {
        options_.fragmentsWritten->resize(count);
        for (uint32_t i = 0; i < count; ++i) {
            (void)target_->getFragmentInfo(i, &(*options_.fragmentsWritten)[i]);
        }
    }
    return true;
}

bool Remuxer::isCopied(uint32_t number) const {
    return options_.onlyTrack == 0 || options_.onlyTrack == number;
}

}  // namespace

MP4Err copyTracks(const char* input, const std::string& output, const CopyOptions& options,
                  std::string* what) {
    Remuxer remuxer(input, options);
    if (remuxer.run(output)) return MP4_OK;
    if (what != nullptr) *what = remuxer.failure().what;
    return remuxer.failure().err;
}

bool copyTracksOrReport(const char* input, const std::string& output,
                        const CopyOptions& options) {
    Remuxer remuxer(input, options);
    if (remuxer.run(output)) return true;
    remuxer.printFailure(output);
    return false;
}

MP4Err remuxFile(const char* input, const std::string& output, uint32_t fileType, bool typeGiven,
                 std::string* what) {
    CopyOptions options;
    options.fileType = fileType;
    options.typeGiven = typeGiven;
    return copyTracks(input, output, options, what);
}

namespace {

int runRemux(const Arguments& arguments) {
    uint64_t fileType = 0;
    const char* typeText = arguments.value("--type");
    if (typeText && !parseNumber(typeText, 0, MP4_FILE_QUICKTIME, &fileType)) {
        return usageError("remux: --type needs a file type from 0 to 12");
    }
    const char* input = arguments.operand(0);
    CopyOptions options;
    options.fileType = static_cast<uint32_t>(fileType);
    options.typeGiven = typeText != nullptr;
    OutputFile output;
    std::string error;
    if (!output.create(arguments.operand(1), &error)) {
        std::fprintf(stderr, "quil: remux: %s\n", error.c_str());
        return kExitFailure;
    }
    if (arguments.has("--faststart")) {
        // Written once in the usual order, then rewritten movie first.
        OutputFile intermediate;
        if (!intermediate.create(arguments.operand(1), &error)) {
            std::fprintf(stderr, "quil: remux: %s\n", error.c_str());
            return kExitFailure;
        }
        if (!copyTracksOrReport(input, intermediate.temporaryPath(), options)) return kExitFailure;
        if (moveMovieFirst(intermediate.temporaryPath().c_str(), output.temporaryPath(), "remux")) {
            return kExitFailure;
        }
    } else {
        if (!copyTracksOrReport(input, output.temporaryPath(), options)) return kExitFailure;
    }
    if (!output.commit(&error)) {
        std::fprintf(stderr, "quil: remux: %s\n", error.c_str());
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

const Command kRemuxCommand = {
    "remux",
    "remux IN OUT [--type N] [--faststart]",
    "  remux    copy every video, audio and systems track of IN into a new file\n"
    "           OUT: sample entries unchanged, samples with their times and\n"
    "           sync flags, edit lists, languages and user data; --type N\n"
    "           writes file type N (0 to 12; default: the type of IN),\n"
    "           --faststart puts the movie box in front of the media data\n",
    {{"--type", true}, {"--faststart", false}},
    2,
    2,
    runRemux,
};

}  // namespace tool
}  // namespace quil
