// Reading: quil.File and quil.Track. A file binds all its tracks when it
// opens; their sample tables, bytes and properties are read with the GIL
// released.
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <vector>

#include "Binding.h"
#include "Info.h"
#include "Meta.h"
#include "Report.h"

namespace quil {
namespace python {
namespace {

// The namedtuple types made at import (quil.SampleTable, quil.Sample).
py::object gSampleTableType;
py::object gSampleType;

// One bound track of a file opened for reading. Samples are numbered from
// 0 here (row i of the sample table is the library's sample i + 1).
class Track {
public:
    Track(std::shared_ptr<FileCore> core, size_t slot, uint32_t number, uint32_t count)
        : core_(std::move(core)), slot_(slot), number_(number), count_(count) {}

    uint32_t number() const { return number_; }
    uint32_t sampleCount() const { return count_; }
    FileCore& core() const { return *core_; }
    CMp4Track* raw() const { return core_->track(slot_); }

    // A property the track may not have: nullopt when the call fails.
    template <class T, class Getter>
    std::optional<T> optional(Getter getter) const {
        return locked(*core_, [&]() -> std::optional<T> {
            T value{};
            if ((raw()->*getter)(&value) != MP4_OK) return std::nullopt;
            return value;
        });
    }

    std::optional<uint32_t> visual(MP4Err (CMp4Track::*getter)(uint32_t*)) const {
        const std::optional<uint32_t> kind = optional<uint32_t>(&CMp4Track::getTrackType);
        if (kind != MP4_TRACK_VIDEO) return std::nullopt;
        return optional<uint32_t>(getter);
    }
    std::optional<uint32_t> sound(MP4Err (CMp4Track::*getter)(uint32_t*)) const {
        const std::optional<uint32_t> kind = optional<uint32_t>(&CMp4Track::getTrackType);
        if (kind != MP4_TRACK_AUDIO) return std::nullopt;
        return optional<uint32_t>(getter);
    }

    std::string kind() const {
        return tool::trackKindName(optional<uint32_t>(&CMp4Track::getTrackType).value_or(0));
    }
    std::optional<std::string> codec() const {
        const std::optional<uint32_t> codec = optional<uint32_t>(&CMp4Track::getCodecType);
        if (!codec) return std::nullopt;
        return std::string(tool::codecName(*codec));
    }
    std::optional<std::string> fourcc() const {
        const std::optional<uint32_t> code = optional<uint32_t>(&CMp4Track::getSampleEntryType);
        if (!code) return std::nullopt;
        return tool::fourccText(*code);
    }
    std::optional<std::string> language() const {
        return locked(*core_, [&]() -> std::optional<std::string> {
            uint8_t code[3] = {0, 0, 0};
            if (raw()->getLanguage(code) != MP4_OK) return std::nullopt;
            for (uint8_t c : code) {
                if (!std::islower(c)) return std::nullopt;  // a Macintosh language number
            }
            return std::string(reinterpret_cast<const char*>(code), 3);
        });
    }
    py::tuple editList() const {
        uint64_t delay = 0, presented = 0;
        int64_t firstMediaTime = 0;
        check(locked(*core_, [&] { return raw()->getInitialDelay(&delay, &firstMediaTime, &presented); }),
              "edit list");
        return py::make_tuple(delay, firstMediaTime, presented);
    }
    double rotation() const {
        return locked(*core_, [&] { return raw()->getRotateAngle(); });
    }
    // avcC/hvcC record, else the "esds" decoder-specific info; None without.
    std::optional<py::bytes> config() const {
        std::string bytes;
        const bool found = locked(*core_, [&] {
            using Getter = MP4Err (CMp4Track::*)(uint8_t*, uint32_t, uint32_t*);
            for (Getter getter : {&CMp4Track::getCodecConfiguration, &CMp4Track::getDecoderSpecificInfo}) {
                uint32_t length = 0;
                if ((raw()->*getter)(nullptr, 0, &length) != MP4_OK) continue;
                bytes.resize(length);
                if (length == 0 || (raw()->*getter)(reinterpret_cast<uint8_t*>(&bytes[0]), length,
                                                    &length) == MP4_OK) {
                    return true;
                }
            }
            return false;
        });
        if (!found) return std::nullopt;
        return py::bytes(bytes);
    }

    // Offset, size, decode and composition time and sync flag of every
    // sample, filled straight into NumPy arrays.
    py::object sampleTable() const {
        py::array_t<int64_t> offset(count_), decode(count_), composition(count_);
        py::array_t<uint32_t> size(count_);
        py::array_t<bool> sync(count_);
        int64_t* offsets = offset.mutable_data();
        int64_t* decodes = decode.mutable_data();
        int64_t* compositions = composition.mutable_data();
        uint32_t* sizes = size.mutable_data();
        bool* syncs = sync.mutable_data();
        uint32_t failedAt = 0;
        const MP4Err err = locked(*core_, [&] {
            CMp4Track* track = raw();
            // A block of entries at a time: one library call per block, and
            // the block stays in the cache while it is spread into the arrays.
            constexpr uint32_t kBlock = 4096;
            std::vector<MP4SampleTableEntry> block(std::min(kBlock, count_));
            for (uint32_t first = 0; first < count_; first += kBlock) {
                const uint32_t n = std::min(kBlock, count_ - first);
                uint32_t filled = 0;
                const MP4Err e = Mp4GetSampleTable(track, first + 1, n, block.data(), &filled);
                for (uint32_t j = 0; j < filled; ++j) {
                    const MP4SampleTableEntry& entry = block[j];
                    offsets[first + j] = static_cast<int64_t>(entry.offset);
                    sizes[first + j] = entry.size;
                    decodes[first + j] = static_cast<int64_t>(entry.decodeTime);
                    compositions[first + j] = static_cast<int64_t>(entry.compositionTime);
                    syncs[first + j] = entry.sync != 0;
                }
                if (e != MP4_OK) {
                    failedAt = first + filled;
                    return e;
                }
            }
            return MP4_OK;
        });
        if (err != MP4_OK) fail(err, "track " + std::to_string(number_) + ", sample " + std::to_string(failedAt));
        return gSampleTableType(offset, size, decode, composition, sync);
    }

    uint32_t sampleNumber(int64_t index) const {
        if (index < 0 || index >= count_) {
            throw py::index_error("sample " + std::to_string(index) + " of " + std::to_string(count_));
        }
        return static_cast<uint32_t>(index + 1);
    }

    py::bytes read(int64_t index) const {
        const uint32_t sample = sampleNumber(index);
        uint32_t size = 0;
        check(locked(*core_, [&] { return raw()->getSampleSize(sample, &size); }), "sample size");
        // A damaged size field must not make us allocate more than the file
        // holds; reading such a sample would fail with 4 anyway.
        if (core_->length() != 0 && size > core_->length()) {
            fail(MP4_ERR_IO, "track " + std::to_string(number_) + ", sample " + std::to_string(index) +
                                 ": larger than the file");
        }
        // Filled in place before anyone else can see it.
        py::bytes bytes = py::reinterpret_steal<py::bytes>(PyBytes_FromStringAndSize(nullptr, size));
        if (!bytes) throw py::error_already_set();
        auto* data = reinterpret_cast<uint8_t*>(PyBytes_AS_STRING(bytes.ptr()));
        uint32_t got = 0;
        readInto(sample, data, size, &got);
        return bytes;
    }

    uint32_t readIntoBuffer(int64_t index, py::handle buffer) const {
        const uint32_t sample = sampleNumber(index);
        ByteView view(buffer, true);
        const uint32_t capacity = view.size() > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(view.size());
        uint32_t size = 0;
        readInto(sample, view.data(), capacity, &size);
        return size;
    }

    py::object sample(int64_t index) const {
        const uint32_t number = sampleNumber(index);
        uint64_t dts = 0, cts = 0;
        uint32_t sync = 0;
        check(locked(*core_, [&] {
                  MP4Err e = raw()->getSampleDecodeTime(number, &dts);
                  if (e == MP4_OK) e = raw()->getSampleCompositionTime(number, &cts);
                  if (e == MP4_OK) e = raw()->isSyncSample(number, &sync);
                  return e;
              }),
              ("track " + std::to_string(number_) + ", sample " + std::to_string(index)).c_str());
        return gSampleType(index, dts, cts, sync != 0, read(index));
    }

    int64_t findSyncBefore(uint64_t time) const {
        uint32_t sample = 0;
        check(locked(*core_, [&] { return raw()->findSyncSampleBefore(time, &sample); }),
              "find_sync_before");
        return static_cast<int64_t>(sample) - 1;
    }

private:
    void readInto(uint32_t sample, uint8_t* data, uint32_t capacity, uint32_t* size) const {
        const MP4Err err = locked(*core_, [&] { return raw()->readSample(sample, capacity, size, data); });
        if (err == MP4_ERR_BUFFER_TOO_SMALL) {
            fail(err, "sample " + std::to_string(sample - 1) + " needs " + std::to_string(*size) + " bytes");
        }
        if (err != MP4_OK) {
            fail(err, "track " + std::to_string(number_) + ", sample " + std::to_string(sample - 1));
        }
    }

    std::shared_ptr<FileCore> core_;
    size_t slot_;
    uint32_t number_;
    uint32_t count_;
};

// Iterates a track's samples in decode order as quil.Sample tuples.
struct SampleIterator {
    std::shared_ptr<Track> track;
    uint32_t next = 0;
};

class File {
public:
    // Opens the file and binds every track (which builds its time table)
    // without the GIL.
    explicit File(const std::string& path) : core_(std::make_shared<FileCore>(path, false)) {
        std::vector<Binding> bindings;
        locked(*core_, [&] {
            core_->open(0);
            uint32_t count = 0;
            (void)core_->file()->getTrackCount(&count);
            for (uint32_t number = 1; number <= count; ++number) bindings.push_back(bind(number));
        });
        for (const Binding& b : bindings) {
            if (b.err == MP4_OK) {
                tracks_.push_back(std::make_shared<Track>(core_, b.slot, b.number, b.count));
            } else {
                trackErrors_[py::int_(b.number)] = py::int_(static_cast<uint32_t>(b.err));
            }
        }
    }

    const std::string& path() const { return core_->path(); }
    const std::vector<std::shared_ptr<Track>>& tracks() const { return tracks_; }
    const py::dict& trackErrors() const { return trackErrors_; }
    bool closed() const { return !core_->isOpen(); }

    uint32_t value(MP4Err (CMp4File::*getter)(uint32_t*)) const {
        uint32_t value = 0;
        check(locked(*core_, [&] { return (core_->file()->*getter)(&value); }), core_->path().c_str());
        return value;
    }

    std::optional<std::string> creationTime() const {
        return locked(*core_, [&]() -> std::optional<std::string> {
            uint32_t y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
            if (core_->file()->getCreationTime(&y, &mo, &d, &h, &mi, &s) != MP4_OK) return std::nullopt;
            char text[64];
            std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", y, mo, d, h, mi, s);
            return std::string(text);
        });
    }

    py::object info() const {
        const std::string text = locked(*core_, [&] { return tool::infoJson(core_->path().c_str(), core_->file()); });
        return py::module_::import("json").attr("loads")(text);
    }

    py::dict meta() const {
        std::vector<std::pair<std::string, std::string>> items;
        check(locked(*core_, [&] { return tool::metadataItems(core_->file(), &items); }),
              (core_->path() + ": metadata").c_str());
        py::dict result;
        for (const auto& item : items) {
            py::str key(item.first);
            py::str value(item.second);
            if (!result.contains(key)) {
                result[key] = value;
                continue;
            }
            py::object before = result[key];
            if (py::isinstance<py::list>(before)) {
                before.cast<py::list>().append(value);
            } else {
                py::list values;
                values.append(before);
                values.append(value);
                result[key] = values;
            }
        }
        return result;
    }

    void close() {
        locked(*core_, [&] { core_->close(); });
    }

private:
    struct Binding {
        uint32_t number = 0;
        MP4Err err = MP4_OK;
        size_t slot = 0;
        uint32_t count = 0;
    };

    Binding bind(uint32_t number) {
        Binding b;
        b.number = number;
        CMp4Track* track = nullptr;
        b.err = core_->file()->getTrack(number, &track);
        if (b.err != MP4_OK) return b;
        b.slot = core_->addSlot(track);
        b.err = track->getSampleCount(&b.count);
        return b;
    }

    std::shared_ptr<FileCore> core_;
    std::vector<std::shared_ptr<Track>> tracks_;
    py::dict trackErrors_;
};

template <class Getter>
std::optional<uint64_t> optional64(const Track& track, Getter getter) {
    return track.optional<uint64_t>(getter);
}

}  // namespace

CMp4Track* readTrackOf(const py::object& track, FileCore** core) {
    const Track& t = track.cast<const Track&>();
    *core = &t.core();
    return t.raw();
}

void bindReading(py::module_& m) {
    py::object namedtuple = py::module_::import("collections").attr("namedtuple");
    gSampleTableType = namedtuple("SampleTable", py::make_tuple("offset", "size", "decode_time",
                                                                "composition_time", "sync"));
    gSampleTableType.attr("__module__") = "quil";
    gSampleTableType.attr("__doc__") =
        "A track's samples as NumPy arrays, one row per sample in decode order:\n"
        "offset (int64, bytes from the start of the file), size (uint32),\n"
        "decode_time and composition_time (int64, track time scale, including\n"
        "the edit list's initial delay) and sync (bool).";
    gSampleType = namedtuple("Sample", py::make_tuple("index", "decode_time", "composition_time",
                                                      "sync", "data"));
    gSampleType.attr("__module__") = "quil";
    gSampleType.attr("__doc__") = "One sample: its index (from 0), times, sync flag and bytes.";
    m.attr("SampleTable") = gSampleTableType;
    m.attr("Sample") = gSampleType;
    // The types live as long as the module; drop our references at exit.
    py::module_::import("atexit").attr("register")(py::cpp_function([] {
        gSampleTableType = py::object();
        gSampleType = py::object();
    }));

    py::class_<SampleIterator>(m, "SampleIterator")
        .def("__iter__", [](SampleIterator& it) -> SampleIterator& { return it; })
        .def("__next__", [](SampleIterator& it) {
            if (it.next >= it.track->sampleCount()) throw py::stop_iteration();
            return it.track->sample(it.next++);
        });

    py::class_<Track, std::shared_ptr<Track>>(m, "Track", R"(A track of a file open for reading.

Samples are numbered from 0: sample i is row i of sample_table(), and the
library's (and `quil samples`') sample i + 1. Times are in the track's
time scale and include the edit list's initial delay. Properties a track
does not have are None.)")
        .def_property_readonly("number", &Track::number, "Position among the file's tracks, from 1.")
        .def_property_readonly("track_id", [](const Track& t) { return t.optional<uint32_t>(&CMp4Track::getTrackId); })
        .def_property_readonly("kind", &Track::kind,
                               "\"video\", \"audio\", \"hint\", \"object descriptor\", \"scene description\", "
                               "\"time code\" or \"other\".")
        .def_property_readonly("codec", &Track::codec, "Codec name, e.g. \"H.264/AVC\" or \"AAC\".")
        .def_property_readonly("codec_id", [](const Track& t) { return t.optional<uint32_t>(&CMp4Track::getCodecType); },
                               "The library's codec number.")
        .def_property_readonly("fourcc", &Track::fourcc, "Four-character code of the sample entry, e.g. \"avc1\".")
        .def_property_readonly("time_scale", [](const Track& t) { return t.optional<uint32_t>(&CMp4Track::getTimeScale); },
                               "Units per second of the track's times.")
        .def_property_readonly("duration", [](const Track& t) { return optional64(t, &CMp4Track::getMediaDuration); },
                               "Media duration in time-scale units.")
        .def_property_readonly("language", &Track::language, "Three lower-case letters (\"und\", \"eng\"), or None.")
        .def_property_readonly("width", [](const Track& t) { return t.visual(&CMp4Track::getWidth); })
        .def_property_readonly("height", [](const Track& t) { return t.visual(&CMp4Track::getHeight); })
        .def_property_readonly("sample_rate", [](const Track& t) { return t.sound(&CMp4Track::getSampleRate); })
        .def_property_readonly("channels", [](const Track& t) { return t.sound(&CMp4Track::getChannelCount); },
                               "Channel count of the sample entry.")
        .def_property_readonly("sample_bits", [](const Track& t) { return t.sound(&CMp4Track::getSampleBits); })
        .def_property_readonly("edit_list", &Track::editList,
                               "(initial_delay, first_media_time, presented_duration) in time-scale units.")
        .def_property_readonly("initial_delay", [](const Track& t) { return t.editList()[0].cast<uint64_t>(); },
                               "The edit list's initial delay (an empty first edit), in time-scale units.")
        .def_property_readonly("rotation", &Track::rotation, "Clockwise rotation in degrees (0, 90, 180, 270).")
        .def_property_readonly("config", &Track::config,
                               "Codec configuration bytes: the avcC/hvcC record, else the decoder-specific\n"
                               "info of \"esds\" (an AudioSpecificConfig for AAC); None without either.")
        .def_property_readonly("sample_count", &Track::sampleCount)
        .def("__len__", &Track::sampleCount)
        .def("sample_table", &Track::sampleTable,
             "The whole sample table as a quil.SampleTable of NumPy arrays, built in one call.")
        .def("read", &Track::read, py::arg("index"), "The bytes of sample `index` (from 0).")
        .def("read_into", &Track::readIntoBuffer, py::arg("index"), py::arg("buffer"),
             "Reads sample `index` into any writable contiguous buffer (bytearray, NumPy array,\n"
             "memoryview...) without a copy; returns its size. A buffer smaller than the\n"
             "sample raises quil.Error 7 (MP4_ERR_BUFFER_TOO_SMALL).")
        .def("sample", &Track::sample, py::arg("index"), "Sample `index` as a quil.Sample.")
        .def("find_sync_before", &Track::findSyncBefore, py::arg("time"),
             "Index of the last sync sample at or before `time` (time-scale units).")
        .def("__iter__", [](const std::shared_ptr<Track>& t) { return SampleIterator{t, 0}; },
             "Iterates the samples in decode order as quil.Sample tuples.")
        .def("__repr__", [](const Track& t) {
            return "<quil.Track " + std::to_string(t.number()) + " " + t.kind() + " " + t.fourcc().value_or("?") +
                   ", " + std::to_string(t.sampleCount()) + " samples>";
        });

    py::class_<File>(m, "File", R"(A file open for reading; made by quil.open(path_or_url).

Use it as a context manager or call close(). Every track the file holds is
in `tracks`; tracks that cannot be read are left out and their error codes
are in `track_errors` (track number -> MP4Err).)")
        .def(py::init<const std::string&>(), py::arg("path"))
        .def_property_readonly("path", &File::path)
        .def_property_readonly("tracks", &File::tracks)
        .def_property_readonly("track_errors", &File::trackErrors)
        .def_property_readonly("closed", &File::closed)
        .def_property_readonly("file_type", [](const File& f) { return f.value(&CMp4File::getFileType); },
                               "The file type (MP4FileType) detected from the major brand.")
        .def_property_readonly("time_scale", [](const File& f) { return f.value(&CMp4File::getTimeScale); },
                               "The movie time scale.")
        .def_property_readonly("track_count", [](const File& f) { return f.value(&CMp4File::getTrackCount); })
        .def_property_readonly("creation_time", &File::creationTime, "\"YYYY-MM-DD hh:mm:ss\" or None.")
        .def_property_readonly("meta", &File::meta,
                               "Every metadata item as `quil meta` lists it: keys KEY[:LANG] (3GPP items of the\n"
                               "movie), trackN.KEY[:LANG], itunes.KEY, quicktime.KEY; values are text (a key\n"
                               "that occurs more than once maps to a list).")
        .def("info", &File::info, "The report `quil info --json` prints, as a dict.")
        .def("find_sync_before", [](const File&, const Track& track, uint64_t time) { return track.findSyncBefore(time); },
             py::arg("track"), py::arg("time"),
             "Index of the last sync sample of `track` at or before `time` (its time-scale units).")
        .def("close", &File::close, "Releases the tracks and the file; later calls on them raise quil.Error.")
        .def("__enter__", [](File& f) -> File& { return f; })
        .def("__exit__", [](File& f, py::args) { f.close(); })
        .def("__repr__", [](const File& f) {
            return "<quil.File " + f.path() + (f.closed() ? " (closed)>" : ">");
        });
}

}  // namespace python
}  // namespace quil
