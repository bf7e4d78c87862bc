// The Python binding's shared pieces: errors on their way to quil.Error,
// the file object shared by a file and its tracks, and the locking rule.
#ifndef QUIL_PYTHON_BINDING_H
#define QUIL_PYTHON_BINDING_H

#include <pybind11/pybind11.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "quil/quil.h"

namespace quil {
namespace python {

namespace py = pybind11;

// A failed library call; the exception translator turns it into quil.Error.
struct Failure {
    MP4Err code;
    std::string context;
};

[[noreturn]] inline void fail(MP4Err code, const std::string& context) {
    throw Failure{code, context};
}

inline void check(MP4Err err, const char* context) {
    if (err != MP4_OK) fail(err, context);
}

// A file object and the tracks handed out for it. Library objects are used
// by one thread at a time: every call into them holds `mutex`, taken after
// the GIL is released (never the other way round), so Python threads may
// share a file while other threads run Python code.
class FileCore {
public:
    FileCore(std::string path, bool writing) : path_(std::move(path)), writing_(writing) {}
    ~FileCore();
    FileCore(const FileCore&) = delete;
    FileCore& operator=(const FileCore&) = delete;

    // Creates the file object and opens path (mode 0 read, 1 write).
    void open(uint32_t fileType);
    // Releases every track (finishing written ones), then closes. On a
    // failure the file stays open and the call may be repeated.
    void close();

    std::mutex& mutex() { return mutex_; }
    const std::string& path() const { return path_; }
    bool writing() const { return writing_; }
    bool isOpen() const { return file_ != nullptr; }
    // Bytes of a file on disc as opened; 0 for a URL.
    uint64_t length() const { return length_; }
    CMp4File* file() const {
        if (file_ == nullptr) fail(MP4_ERR_NOT_AVAILABLE, path_ + ": the file is closed");
        return file_;
    }

    // Tracks are held in slots; a closed file's slots are null.
    size_t addSlot(CMp4Track* track) {
        tracks_.push_back(track);
        return tracks_.size() - 1;
    }
    CMp4Track* track(size_t slot) const {
        if (slot >= tracks_.size() || tracks_[slot] == nullptr) {
            fail(MP4_ERR_NOT_AVAILABLE, path_ + ": the file is closed");
        }
        return tracks_[slot];
    }

private:
    std::mutex mutex_;
    std::string path_;
    bool writing_;
    CMp4File* file_ = nullptr;
    uint64_t length_ = 0;
    std::vector<CMp4Track*> tracks_;
};

// Runs f with the GIL released and the file's mutex held.
template <class F>
auto locked(FileCore& core, F&& f) -> decltype(f()) {
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(core.mutex());
    return f();
}

// A contiguous byte view of any object with the buffer protocol (bytes,
// bytearray, memoryview, NumPy arrays...), released with the object.
class ByteView {
public:
    ByteView(py::handle object, bool writable);
    ~ByteView() { PyBuffer_Release(&view_); }
    ByteView(const ByteView&) = delete;
    ByteView& operator=(const ByteView&) = delete;
    uint8_t* data() const { return static_cast<uint8_t*>(view_.buf); }
    uint64_t size() const { return static_cast<uint64_t>(view_.len); }

private:
    Py_buffer view_{};
};

// "avc1" -> fourcc; the text is taken as Latin-1, so "\xa9nam" works.
uint32_t parseFourcc(const std::string& text);
// Converts a UTF-8 path for the library; 4 when it is not valid UTF-8.
std::wstring widePath(const std::string& path);

// The library track behind a quil.Track, and the file it belongs to.
CMp4Track* readTrackOf(const py::object& track, FileCore** core);

void bindReading(py::module_& m);
void bindWriting(py::module_& m);

}  // namespace python
}  // namespace quil

#endif
