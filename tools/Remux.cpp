// quil remux IN OUT [--type N] [--faststart] [--rechunk]: every track of IN copied into
// a new file through the library's write interface: each track's boxes as
// they are, its samples with their timing as stored, the movie's creation
// time and user data; what cannot be read is left out and counted. Where
// the library can, the samples' chunks are copied file to file in one call
// (the same output); else each sample is copied in turn.
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

// Where the input's chunks are not kept (--rechunk, or tables that cannot
// be copied whole), chunks of at most about a second keep the tracks
// interleaved in the output. Chunks of a quarter megabyte still read efficiently, and their
// buffer stays within a core's cache while it fills and is written: on
// the machines measured a 1 MB chunk made the copy into the page cache
// run from main memory and the whole remux take three times as long.
constexpr uint32_t kChunkByteLimit = 256 * 1024;

struct TrackCopy {
    uint32_t number = 0;  // in the source
    CMp4Track* in = nullptr;
    CMp4Track* out = nullptr;
    uint32_t sampleCount = 0;
    uint32_t nextSample = 1;
    uint32_t timeScale = 1;
    uint64_t nextDecode = 0;  // decode time of nextSample, as read
    uint32_t missing = 0;     // samples that could not be read
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
    // run, then on success names on stderr what was left out and counts it
    // in the options' missing.
    bool runAndCount(const std::string& output);
    // Samples left out because they could not be read, over all tracks,
    // and tracks left out because they could not be read at all.
    uint64_t missingSamples() const;
    uint32_t missingTracks() const { return missingTracks_; }
    const Failure& failure() const { return failure_; }
    // Prints the one line that says why a run into output failed.
    void printFailure(const std::string& output) const;
    // Prints how many samples of each track were left out (stderr).
    void reportMissing() const;

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
    bool copySamples();
    MP4Err copyAllSamples(Progress* progress);
    bool copySample(TrackCopy* copy);
    bool advance(TrackCopy* copy);
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
    uint32_t lastSampleSize_ = 0;
    uint32_t missingTracks_ = 0;
    Failure failure_;
};

Remuxer::~Remuxer() {
    // On a failure path: tracks whose finishing fails again stay ours; they
    // are deleted after the file object, which detaches them first.
    // Destroying an unclosed file closes it; the caller removes the
    // incomplete output.
    std::vector<CMp4Track*> unreleased;
    for (TrackCopy& copy : tracks_) {
        if (copy.out && target_->releaseTrack(copy.out) != MP4_OK) unreleased.push_back(copy.out);
        if (copy.in) (void)source_.get()->releaseTrack(copy.in);
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

bool Remuxer::runAndCount(const std::string& output) {
    if (!run(output)) return false;
    reportMissing();
    if (options_.missing) *options_.missing = missingSamples() + missingTracks_;
    return true;
}

uint64_t Remuxer::missingSamples() const {
    uint64_t missing = 0;
    for (const TrackCopy& copy : tracks_) missing += copy.missing;
    return missing;
}

void Remuxer::reportMissing() const {
    for (const TrackCopy& copy : tracks_) {
        if (copy.missing == 0) continue;
        std::fprintf(stderr,
                     "quil: %s: %s: track %u: %u of %u samples could not be read and are "
                     "left out\n",
                     options_.label, input_, copy.number, copy.missing, copy.sampleCount);
    }
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
    if (err == MP4_OK && !options_.typeGiven) err = keepInputBrands(source_.get(), target_, fragmented());
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
    if (err != MP4_OK && err != MP4_ERR_NOT_AVAILABLE) return fail("movie user data", err);
    err = target_->copyMovieBoxes(source_.get());
    return err == MP4_OK || fail("movie boxes", err);
}

// Every track is copied whole, whatever its kind: its box tree as it is,
// its samples with the timing they have.
bool Remuxer::addTrack(uint32_t number) {
    const std::string track = "track " + std::to_string(number);
    CMp4Track* in = nullptr;
    MP4Err err = source_.get()->getTrack(number, &in);
    if (err != MP4_OK) {
        // Left out with a note rather than failing the whole copy.
        std::fprintf(stderr, "quil: %s: %s: track %u cannot be read and is left out: %s\n",
                     options_.label, input_, number, toString(err));
        ++missingTracks_;
        return true;
    }
    tracks_.emplace_back();
    TrackCopy& copy = tracks_.back();
    copy.number = number;
    copy.in = in;
    err = target_->addTrack(&copy.out);
    if (err != MP4_OK) return fail("adding " + track, err);
    err = copy.out->copyTrackFrom(in);
    if (err != MP4_OK) return fail(track + " boxes", err);
    (void)in->getTimeScale(&copy.timeScale);
    (void)copy.out->setChunkLimits(copy.timeScale, kChunkByteLimit);
    err = in->getSampleCount(&copy.sampleCount);
    if (err == MP4_OK && copy.sampleCount > 0) err = in->getSampleDecodeTime(1, &copy.nextDecode);
    return err == MP4_OK || fail(track + " samples", err);
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

std::string sampleLabel(const TrackCopy* copy, uint32_t sample) {
    return "track " + std::to_string(copy->number) + ", sample " + std::to_string(sample);
}

// Every sample in one call where the library copies the chunks file to
// file: the input's own chunks in the input's order (its layout kept, its
// media data copied by the kernel where they lie back to back), or with
// --rechunk the same output as the loop of copySamples, much faster. 12
// (with nothing written) leaves the copy to that loop; other errors are
// failures.
MP4Err Remuxer::copyAllSamples(Progress* progress) {
    std::vector<CMp4Track*> outputs;
    for (const TrackCopy& copy : tracks_) outputs.push_back(copy.out);
    MP4SampleCopyProgress report;
    report.update = [](void* context, uint64_t bytes) {
        static_cast<Progress*>(context)->update(bytes);
    };
    report.context = progress;
    MP4SampleCopyFailure failure;
    const auto copy = options_.keepChunks ? Mp4CopyTrackChunks : Mp4CopyTrackSamples;
    const MP4Err err =
        copy(target_, outputs.data(), static_cast<uint32_t>(outputs.size()), &report, &failure);
    if (err == MP4_OK || err == MP4_ERR_UNSUPPORTED) return err;
    if (failure.track == 0) fail("media data cannot be written", err);
    else fail(sampleLabel(&tracks_[failure.track - 1], failure.sample) + " cannot be written", err);
    return err;
}

bool Remuxer::copySamples() {
    // Counted in sample bytes against the input's size: close enough for
    // a progress line, and large files are those with many bytes.
    Progress progress(options_.label, fileSize(input_), options_.progress);
    const MP4Err err = copyAllSamples(&progress);
    if (err == MP4_OK) {
        progress.update(fileSize(input_));
        return true;
    }
    if (err != MP4_ERR_UNSUPPORTED) return false;
    uint64_t copiedBytes = 0, copied = 0;
    while (TrackCopy* copy = nextTrack()) {
        if (!copySample(copy)) return false;
        copiedBytes += lastSampleSize_;
        if ((++copied & 255) == 0) progress.update(copiedBytes);
    }
    progress.update(fileSize(input_));
    return true;
}

// A sample that cannot be read (cut off, damaged) is left out and counted:
// the copy then has no sample more than before. A sample taken whose chunk
// cannot be written ends the copy.
bool Remuxer::copySample(TrackCopy* copy) {
    const uint32_t sample = copy->nextSample;
    uint32_t size = 0, before = 0, after = 0;
    (void)copy->out->getSampleCount(&before);
    MP4Err err = copy->out->copySampleFrom(sample, &size);
    (void)copy->out->getSampleCount(&after);
    lastSampleSize_ = size;
    if (err != MP4_OK) {
        if (after != before) return fail(sampleLabel(copy, sample) + " cannot be written", err);
        ++copy->missing;
    }
    return advance(copy);
}

bool Remuxer::advance(TrackCopy* copy) {
    copy->nextSample += 1;
    if (copy->nextSample > copy->sampleCount) return true;
    MP4Err err = copy->in->getSampleDecodeTime(copy->nextSample, &copy->nextDecode);
    return err == MP4_OK || fail(sampleLabel(copy, copy->nextSample) + " time", err);
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
    if (remuxer.runAndCount(output)) return MP4_OK;
    if (what != nullptr) *what = remuxer.failure().what;
    return remuxer.failure().err;
}

bool copyTracksOrReport(const char* input, const std::string& output,
                        const CopyOptions& options) {
    Remuxer remuxer(input, options);
    if (remuxer.runAndCount(output)) return true;
    remuxer.printFailure(output);
    return false;
}

MP4Err remuxFile(const char* input, const std::string& output, uint32_t fileType, bool typeGiven,
                 std::string* what, uint64_t* missing) {
    CopyOptions options;
    options.fileType = fileType;
    options.typeGiven = typeGiven;
    options.missing = missing;
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
    options.keepChunks = !arguments.has("--rechunk");
    uint64_t missing = 0;
    options.missing = &missing;
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
    return missing > 0 ? kExitSamplesMissing : kExitOk;
}

}  // namespace

const Command kRemuxCommand = {
    "remux",
    "remux IN OUT [--type N] [--faststart] [--rechunk]",
    "  remux    copy every track of IN into a new file OUT: each track's boxes\n"
    "           as they are (sample entries, references, edit list, matrix,\n"
    "           user data), samples with the timing they have; --type N\n"
    "           writes file type N (0 to 12; default: IN's type and brands),\n"
    "           --faststart puts the movie box in front of the media data.\n"
    "           The input's chunks are kept in the input's order, so the\n"
    "           media data keep their layout; --rechunk cuts chunks of about\n"
    "           a second instead, the tracks interleaved by time.\n"
    "           Samples or tracks that cannot be read (a cut-off or damaged\n"
    "           file) are left out and counted on stderr; exit status 3\n",
    {{"--type", true}, {"--faststart", false}, {"--rechunk", false}},
    2,
    2,
    runRemux,
};

}  // namespace tool
}  // namespace quil
