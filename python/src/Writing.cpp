// Writing: quil.Writer and quil.WriterTrack over the library's write
// interface. Samples are copied into the file's chunks with the GIL released.
#include <pybind11/stl.h>

#include <optional>

#include "Binding.h"
#include "Info.h"
#include "Meta.h"

namespace quil {
namespace python {
namespace {

// The kind of a track from its name ("video") or its MP4TrackType number.
uint32_t parseKind(const py::object& kind) {
    if (py::isinstance<py::int_>(kind)) return kind.cast<uint32_t>();
    const std::string name = py::str(kind);
    for (uint32_t value = 0; value <= MP4_TRACK_TIMECODE; ++value) {
        if (name == tool::trackKindName(value)) return value;
    }
    fail(MP4_ERR_INVALID_ARGUMENT, "unknown track kind \"" + name + "\"");
}

class WriterTrack {
public:
    WriterTrack(std::shared_ptr<FileCore> core, size_t slot, uint32_t number)
        : core_(std::move(core)), slot_(slot), number_(number) {}

    uint32_t number() const { return number_; }
    uint32_t samples() const { return samples_; }

    void addSample(py::handle data, uint64_t decodeTime, std::optional<uint64_t> compositionTime,
                   bool sync) {
        ByteView view(data, false);
        if (view.size() > UINT32_MAX) fail(MP4_ERR_VALUE_TOO_LARGE, "a sample of 4 GiB or more");
        const MP4Err err = locked(*core_, [&] {
            return core_->track(slot_)->addSample(view.data(), static_cast<uint32_t>(view.size()),
                                                  decodeTime, compositionTime.value_or(decodeTime), sync);
        });
        if (err != MP4_OK) fail(err, "track " + std::to_string(number_) + ", sample " + std::to_string(samples_));
        ++samples_;
    }

    void setEditList(uint64_t initialDelay, int64_t firstMediaTime, uint64_t presentedDuration) {
        call("edit list", [&](CMp4Track* t) { return t->setEditList(initialDelay, firstMediaTime, presentedDuration); });
    }
    void setChunkLimits(uint64_t duration, uint32_t bytes) {
        call("chunk limits", [&](CMp4Track* t) { return t->setChunkLimits(duration, bytes); });
    }
    void setMeta(const std::string& key, const std::string& value, const std::string& language) {
        call("metadata", [&](CMp4Track* t) {
            CMp4MetaData* meta = nullptr;
            MP4Err err = t->getMetaData(&meta);
            return err == MP4_OK ? tool::setMetadataItem(meta, key, language, value) : err;
        });
    }

    template <class F>
    void call(const char* what, F&& f) {
        check(locked(*core_, [&] { return f(core_->track(slot_)); }),
              ("track " + std::to_string(number_) + ": " + what).c_str());
    }

private:
    std::shared_ptr<FileCore> core_;
    size_t slot_;
    uint32_t number_;
    uint32_t samples_ = 0;
};

struct EntryOptions {
    uint32_t timeScale = 0;
    uint16_t width = 0, height = 0;
    uint32_t sampleRate = 0;
    uint16_t channels = 0, sampleBits = 0;
    bool littleEndian = false;
    uint8_t objectType = 0;
    std::string language;
    uint32_t rotation = 0;
};

class Writer {
public:
    Writer(const std::string& path, uint32_t fileType) : core_(std::make_shared<FileCore>(path, true)) {
        locked(*core_, [&] { core_->open(fileType); });
    }

    std::shared_ptr<WriterTrack> addTrack(const py::object& kind, const std::string& format,
                                          const py::bytes& config, const EntryOptions& o) {
        const uint32_t type = parseKind(kind);
        MP4SampleEntryInfo info{};
        info.format = parseFourcc(format);
        info.width = o.width;
        info.height = o.height;
        info.sampleRate = o.sampleRate;
        info.channels = o.channels;
        info.sampleBits = o.sampleBits;
        info.littleEndian = o.littleEndian;
        info.objectTypeIndication = o.objectType;
        const std::string bytes = config;
        info.config = reinterpret_cast<const uint8_t*>(bytes.data());
        info.configLength = static_cast<uint32_t>(bytes.size());
        auto track = newTrack(type);
        track->call("properties", [&](CMp4Track* t) {
            MP4Err err = o.timeScale != 0 ? t->setTimeScale(o.timeScale) : MP4_OK;
            if (err == MP4_OK && !o.language.empty()) err = setLanguage(t, o.language);
            if (err == MP4_OK && o.rotation != 0) err = t->setDimensions(o.width, o.height, o.rotation);
            return err;
        });
        track->call("sample entry", [&](CMp4Track* t) { return t->addSampleEntry(&info); });
        return track;
    }

    // A track with the kind, time scale, language, rotation, volume and
    // sample entry (unchanged, with every child box) of a read track.
    std::shared_ptr<WriterTrack> addTrackFrom(const py::object& source) {
        FileCore* sourceCore = nullptr;
        CMp4Track* in = readTrackOf(source, &sourceCore);
        uint32_t kind = 0;
        {
            py::gil_scoped_release nogil;
            std::lock_guard<std::mutex> lock(sourceCore->mutex());
            check(in->getTrackType(&kind), "source track kind");
        }
        auto track = newTrack(kind);
        track->call("copying the source's properties", [&](CMp4Track* out) {
            std::lock_guard<std::mutex> lock(sourceCore->mutex());
            return copyProperties(in, out);
        });
        return track;
    }

    void setMeta(const std::string& key, const std::string& value, const std::string& language) {
        check(locked(*core_, [&] {
                  CMp4MetaData* meta = nullptr;
                  MP4Err err = core_->file()->getMetaData(&meta);
                  return err == MP4_OK ? tool::setMetadataItem(meta, key, language, value) : err;
              }),
              "metadata");
    }

    void close() {
        locked(*core_, [&] { core_->close(); });
    }
    const std::string& path() const { return core_->path(); }

private:
    static MP4Err setLanguage(CMp4Track* track, const std::string& language) {
        if (language.size() != 3) return MP4_ERR_INVALID_ARGUMENT;
        return track->setLanguage(reinterpret_cast<const uint8_t*>(language.data()));
    }

    static MP4Err copyProperties(CMp4Track* in, CMp4Track* out) {
        uint32_t timeScale = 0;
        MP4Err err = in->getTimeScale(&timeScale);
        if (err == MP4_OK) err = out->setTimeScale(timeScale);
        uint8_t language[3] = {0, 0, 0};
        // A code that is no language (letters outside a-z) stays "und".
        if (err == MP4_OK && in->getLanguage(language) == MP4_OK &&
            out->setLanguage(language) == MP4_ERR_INVALID_ARGUMENT) {
            err = MP4_OK;
        }
        const double angle = in->getRotateAngle();
        uint32_t width = 0, height = 0;
        if (err == MP4_OK && (angle == 90 || angle == 180 || angle == 270) &&
            in->getWidth(&width) == MP4_OK && in->getHeight(&height) == MP4_OK) {
            err = out->setDimensions(width, height, static_cast<uint32_t>(angle));
        }
        int16_t volume = 0;
        if (err == MP4_OK && in->getVolume(&volume) == MP4_OK) err = out->setVolume(volume);
        if (err == MP4_OK) err = out->addSampleEntryFrom(in, 1);
        return err;
    }

    std::shared_ptr<WriterTrack> newTrack(uint32_t kind) {
        size_t slot = 0;
        uint32_t number = 0;
        check(locked(*core_, [&] {
                  CMp4Track* track = nullptr;
                  MP4Err err = core_->file()->addTrack(&track);
                  if (err != MP4_OK) return err;
                  slot = core_->addSlot(track);
                  number = static_cast<uint32_t>(slot + 1);
                  return track->setTrackType(kind);
              }),
              "adding a track");
        return std::make_shared<WriterTrack>(core_, slot, number);
    }

    std::shared_ptr<FileCore> core_;
};

}  // namespace

void bindWriting(py::module_& m) {
    py::class_<WriterTrack, std::shared_ptr<WriterTrack>>(m, "WriterTrack",
                                                          "A track of a file being written (quil.Writer).")
        .def_property_readonly("number", &WriterTrack::number)
        .def_property_readonly("sample_count", &WriterTrack::samples)
        .def("add_sample", &WriterTrack::addSample, py::arg("data"), py::arg("decode_time"),
             py::arg("composition_time") = py::none(), py::arg("sync") = false,
             "Appends a sample: its bytes (any buffer: bytes, bytearray, NumPy array...,\n"
             "copied), decode time (strictly increasing, track time scale), composition\n"
             "time (default: the decode time; never before it) and sync flag.")
        .def("set_edit_list", &WriterTrack::setEditList, py::arg("initial_delay"),
             py::arg("first_media_time"), py::arg("presented_duration") = 0,
             "The edit list written when the track is finished: an empty edit of\n"
             "initial_delay, then the media from first_media_time (time-scale units).\n"
             "Without it, a first decode time D > 0 becomes an initial delay of D.")
        .def("set_chunk_limits", &WriterTrack::setChunkLimits, py::arg("duration"), py::arg("bytes"),
             "A chunk closes at `duration` time-scale units or `bytes` bytes (0: no limit).")
        .def("set_meta", &WriterTrack::setMeta, py::arg("key"), py::arg("value"),
             py::arg("language") = "und", "Sets a 3GPP item of the track (see Writer.set_meta).");

    py::class_<Writer>(m, "Writer", R"(A file being written; made by quil.create(path, file_type).

Add tracks, then their samples in decode order, then close() (or leave
the with-block), which finishes every track and writes the movie box.)")
        .def(py::init<const std::string&, uint32_t>(), py::arg("path"), py::arg("file_type") = 0)
        .def_property_readonly("path", &Writer::path)
        .def(
            "add_track",
            [](Writer& w, const py::object& kind, const std::string& format, uint32_t timeScale, uint16_t width,
               uint16_t height, uint32_t sampleRate, uint16_t channels, uint16_t sampleBits, bool littleEndian,
               uint8_t objectType, const py::bytes& config, const std::string& language, uint32_t rotation) {
                EntryOptions o;
                o.timeScale = timeScale;
                o.width = width;
                o.height = height;
                o.sampleRate = sampleRate;
                o.channels = channels;
                o.sampleBits = sampleBits;
                o.littleEndian = littleEndian;
                o.objectType = objectType;
                o.language = language;
                o.rotation = rotation;
                return w.addTrack(kind, format, config, o);
            },
            py::arg("kind"), py::arg("fourcc"), py::kw_only(), py::arg("time_scale") = 0, py::arg("width") = 0,
            py::arg("height") = 0, py::arg("sample_rate") = 0, py::arg("channels") = 0, py::arg("sample_bits") = 0,
            py::arg("little_endian") = false, py::arg("object_type") = 0, py::arg("config") = py::bytes(),
            py::arg("language") = "", py::arg("rotation") = 0,
            R"(A new track from codec parameters.

kind: "video", "audio", ... (or an MP4TrackType number); fourcc: the sample
entry ("avc1", "hvc1", "mp4v", "mp4a", "s263", "samr", "sawb", "twos",
"sowt", ...); config: the codec configuration bytes (the avcC/hvcC record,
an AudioSpecificConfig, ...); time_scale 0 keeps 1000. Video takes width
and height (and rotation 0/90/180/270), audio sample_rate and channels.)")
        .def("add_track_from", &Writer::addTrackFrom, py::arg("track"),
             R"(A new track copying a read track's kind, time scale, language, rotation,
volume and sample entry (unchanged, codec configuration included). Add its
samples with add_sample; the edit list is not copied (see set_edit_list).)")
        .def("set_meta", &Writer::setMeta, py::arg("key"), py::arg("value"), py::arg("language") = "und",
             "Sets a 3GPP item of the movie: title, description, copyright, performer,\n"
             "author, genre, or keywords (a comma list), in one language.")
        .def("close", &Writer::close,
             "Finishes every track and writes the movie box; on failure (a full disc)\n"
             "raises quil.Error and may be called again.")
        .def("__enter__", [](Writer& w) -> Writer& { return w; })
        .def("__exit__", [](Writer& w, const py::object& type, const py::object&, const py::object&) {
            if (type.is_none()) return w.close();
            // The exception leaving the block is the one to see; a failure
            // to finish the file after it adds nothing.
            try {
                w.close();
            } catch (const Failure&) {
            }
        });
}

}  // namespace python
}  // namespace quil
