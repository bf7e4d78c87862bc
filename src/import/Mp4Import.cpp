// Mp4ImportStreams: raw streams mapped into memory, scanned by their
// importers, and written as tracks through the write interface,
// interleaved by time.
#include "quil/Mp4Import.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>
#include <vector>

#include "import/StreamImporters.h"
#include "quil/Mp4File.h"
#include "quil/Mp4Track.h"
#include "storage/WidePath.h"

namespace quil {
namespace {

// As the remux: chunks of about a second, at most a quarter megabyte.
constexpr uint32_t kChunkByteLimit = 256 * 1024;

// A whole input file mapped read-only: the importers' parsers index it
// freely within its size, and pages are read only as they are touched.
class CMappedFile {
public:
    CMappedFile() = default;
    ~CMappedFile() {
        if (data_ != nullptr) ::munmap(const_cast<uint8_t*>(data_), size_);
    }
    CMappedFile(const CMappedFile&) = delete;
    CMappedFile& operator=(const CMappedFile&) = delete;

    MP4Err map(const std::string& path, std::string* why) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            *why = std::string("cannot open: ") + std::strerror(errno);
            return MP4_ERR_IO;
        }
        struct stat info {};
        MP4Err err = MP4_OK;
        if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            *why = "not a regular file";
            err = MP4_ERR_IO;
        } else if (info.st_size == 0) {
            *why = "the file is empty";
            err = MP4_ERR_INVALID_DATA;
        } else {
            size_ = static_cast<size_t>(info.st_size);
            void* mapped = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
            if (mapped == MAP_FAILED) {
                *why = std::string("cannot map: ") + std::strerror(errno);
                err = MP4_ERR_IO;
            } else {
                data_ = static_cast<const uint8_t*>(mapped);
                ::madvise(mapped, size_, MADV_SEQUENTIAL);
            }
        }
        ::close(fd);
        return err;
    }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

private:
    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

struct Input {
    CMappedFile file;
    std::unique_ptr<CStreamImporter> importer;
    CMp4Track* track = nullptr;
    uint32_t next = 0;  // index of the next sample to write
    ImportedSample pending;
};

class CImporter {
public:
    CImporter(CMp4File* file, MP4ImportReport* report) : file_(file), report_(report) {}
    ~CImporter() {
        for (Input& input : inputs_) {
            if (input.track != nullptr && file_->releaseTrack(input.track) != MP4_OK) delete input.track;
        }
    }
    CImporter(const CImporter&) = delete;
    CImporter& operator=(const CImporter&) = delete;

    MP4Err run(const MP4ImportStream* streams, uint32_t count);

private:
    MP4Err fail(uint32_t stream, MP4Err err, const std::string& why) {
        if (report_ != nullptr) {
            report_->stream = stream;
            std::snprintf(report_->message, sizeof report_->message, "%s", why.c_str());
        }
        return err;
    }
    MP4Err prepare(uint32_t number, const MP4ImportStream& stream, Input* input);
    MP4Err addTrack(uint32_t number, const MP4ImportStream& stream, Input* input);
    MP4Err writeSamples();
    Input* nextInput();

    CMp4File* file_;
    MP4ImportReport* report_;
    std::vector<Input> inputs_;
};

bool isLanguageCode(const char* code) {
    if (code == nullptr) return true;
    for (int i = 0; i < 3; ++i) {
        if (code[i] < 'a' || code[i] > 'z') return false;
    }
    return code[3] == '\0';
}

MP4Err CImporter::run(const MP4ImportStream* streams, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const MP4ImportStream& stream = streams[i];
        if (stream.path == nullptr) return fail(i + 1, MP4_ERR_INVALID_ARGUMENT, "no path given");
        if (!isLanguageCode(stream.language)) {
            return fail(i + 1, MP4_ERR_INVALID_ARGUMENT, "the language must be three lower-case letters (ISO 639-2)");
        }
        if ((stream.frameRateNumerator == 0) != (stream.frameRateDenominator == 0)) {
            return fail(i + 1, MP4_ERR_INVALID_ARGUMENT, "a frame rate needs a numerator and a denominator");
        }
    }
    // Every stream is read through before anything is written, so that a
    // damaged input leaves the file as it was.
    inputs_ = std::vector<Input>(count);
    for (uint32_t i = 0; i < count; ++i) {
        MP4Err err = prepare(i + 1, streams[i], &inputs_[i]);
        if (err != MP4_OK) return err;
    }
    for (uint32_t i = 0; i < count; ++i) {
        MP4Err err = addTrack(i + 1, streams[i], &inputs_[i]);
        if (err != MP4_OK) return err;
    }
    MP4Err err = writeSamples();
    if (err != MP4_OK) return err;
    for (uint32_t i = 0; i < count; ++i) {
        if ((err = file_->releaseTrack(inputs_[i].track)) != MP4_OK) {
            return fail(i + 1, err, "finishing the track failed");
        }
        inputs_[i].track = nullptr;
    }
    return MP4_OK;
}

MP4Err CImporter::prepare(uint32_t number, const MP4ImportStream& stream, Input* input) {
    std::string path, why;
    MP4Err err = widePathToUtf8(stream.path, &path);
    if (err != MP4_OK) return fail(number, err, "the path is not valid Unicode");
    if ((err = input->file.map(path, &why)) != MP4_OK) return fail(number, err, why);
    FrameRate rate{stream.frameRateNumerator, stream.frameRateDenominator};
    input->importer = makeStreamImporter(input->file.data(), input->file.size(), path, rate, &why);
    if (!input->importer) return fail(number, MP4_ERR_INVALID_DATA, why);
    if ((err = input->importer->scan(&why)) != MP4_OK) {
        return fail(number, err, std::string(input->importer->formatName()) + ": " + why);
    }
    return MP4_OK;
}

MP4Err CImporter::addTrack(uint32_t number, const MP4ImportStream& stream, Input* input) {
    CStreamImporter& importer = *input->importer;
    const std::string format = importer.formatName();
    // Raw PCM tracks take each call's audio frames as one chunk.
    if (importer.chunkAsSample()) (void)file_->setTrackMode(MP4_TRACK_MODE_CHUNK_AS_SAMPLE);
    MP4Err err = file_->addTrack(&input->track);
    if (importer.chunkAsSample()) (void)file_->setTrackMode(MP4_TRACK_MODE_NORMAL);
    if (err != MP4_OK) return fail(number, err, "cannot add a track (is the file open for writing?)");
    CMp4Track* track = input->track;
    const MP4SampleEntryInfo entry = importer.sampleEntry();
    const ImportedEdit edit = importer.edit();
    if ((err = track->setTrackType(importer.trackKind())) != MP4_OK ||
        (err = track->setTimeScale(importer.timeScale())) != MP4_OK) {
        return fail(number, err, format + ": the track cannot be set up");
    }
    if (stream.language != nullptr &&
        (err = track->setLanguage(reinterpret_cast<const uint8_t*>(stream.language))) != MP4_OK) {
        return fail(number, err, "the language cannot be set");
    }
    if (stream.name != nullptr && (err = track->setHandlerName(stream.name)) != MP4_OK) {
        return fail(number, err, "the name cannot be set");
    }
    if ((err = track->addSampleEntry(&entry)) != MP4_OK) {
        return fail(number, err, format + ": the codec set-up is refused (damaged parameter sets?)");
    }
    if ((err = track->setChunkLimits(importer.timeScale(), kChunkByteLimit)) != MP4_OK ||
        (err = track->setLastSampleDuration(importer.lastSampleDuration())) != MP4_OK) {
        return fail(number, err, format + ": the track cannot be set up");
    }
    if ((edit.firstMediaTime != 0 || edit.presentedDuration != 0) &&
        (err = track->setEditList(0, edit.firstMediaTime, edit.presentedDuration)) != MP4_OK) {
        return fail(number, err, format + ": the edit list cannot be set");
    }
    if (importer.sampleCount() > 0 && (err = importer.sample(0, &input->pending)) != MP4_OK) {
        return fail(number, err, format + ": the first sample cannot be read");
    }
    return MP4_OK;
}

// The input whose next sample comes first in time; null when all are done.
Input* CImporter::nextInput() {
    Input* best = nullptr;
    for (Input& input : inputs_) {
        if (input.next >= input.importer->sampleCount()) continue;
        // a / sa < b / sb without division; 128 bits cannot overflow.
        if (!best || static_cast<unsigned __int128>(input.pending.decodeTime) * best->importer->timeScale() <
                         static_cast<unsigned __int128>(best->pending.decodeTime) * input.importer->timeScale()) {
            best = &input;
        }
    }
    return best;
}

MP4Err CImporter::writeSamples() {
    while (Input* input = nextInput()) {
        const uint32_t number = static_cast<uint32_t>(input - inputs_.data()) + 1;
        const ImportedSample& sample = input->pending;
        MP4Err err = input->track->addSample(sample.data, sample.size, sample.decodeTime,
                                             sample.compositionTime, sample.sync);
        if (err != MP4_OK) {
            return fail(number, err, std::string(input->importer->formatName()) + ": sample " +
                                         std::to_string(input->next + 1) + " cannot be written");
        }
        ++input->next;
        if (input->next < input->importer->sampleCount() &&
            (err = input->importer->sample(input->next, &input->pending)) != MP4_OK) {
            return fail(number, err, std::string(input->importer->formatName()) + ": sample " +
                                         std::to_string(input->next + 1) + " cannot be read");
        }
    }
    return MP4_OK;
}

}  // namespace

MP4Err Mp4ImportStreams(CMp4File* file, const MP4ImportStream* streams, uint32_t count,
                        MP4ImportReport* report) {
    if (report != nullptr) *report = MP4ImportReport();
    if (file == nullptr || streams == nullptr || count == 0) return MP4_ERR_INVALID_ARGUMENT;
    uint32_t open = 0;
    if (file->isOpen(&open) != MP4_OK || open == 0) {
        if (report != nullptr) std::snprintf(report->message, sizeof report->message, "the output is not open");
        return MP4_ERR_NOT_AVAILABLE;
    }
    try {
        CImporter importer(file, report);
        return importer.run(streams, count);
    } catch (const std::bad_alloc&) {
        if (report != nullptr) std::snprintf(report->message, sizeof report->message, "out of memory");
        return MP4_ERR_OUT_OF_MEMORY;
    }
}

uint32_t Mp4FileTypeForName(const wchar_t* path) {
    if (path == nullptr) return MP4_FILE_MPEG4;
    const size_t length = std::wcslen(path);
    auto endsWith = [&](const wchar_t* suffix) {
        const size_t n = std::wcslen(suffix);
        if (length < n) return false;
        for (size_t i = 0; i < n; ++i) {
            wchar_t c = path[length - n + i];
            if (c >= L'A' && c <= L'Z') c += 32;
            if (c != suffix[i]) return false;
        }
        return true;
    };
    if (endsWith(L".m4a")) return MP4_FILE_M4A;
    if (endsWith(L".3gp")) return MP4_FILE_3GPP4;
    if (endsWith(L".mov")) return MP4_FILE_QUICKTIME;
    return MP4_FILE_MPEG4;
}

}  // namespace quil
