// The quil._quil extension module: errors, the shared file object, and the
// whole-file operations (remux, faststart).
#include <sys/stat.h>

#include <cstring>

#include "Binding.h"
#include "Rewrite.h"
#include "storage/WidePath.h"

namespace quil {
namespace python {
namespace {

PyObject* gErrorType = nullptr;  // quil.Error, kept for the life of the process

// "MP4_ERR_IO" of "MP4_ERR_IO: input/output error"; "unknown" otherwise.
std::string errorName(uint32_t code) {
    const char* text = toString(static_cast<MP4Err>(code));
    const char* colon = std::strchr(text, ':');
    return colon != nullptr ? std::string(text, colon) : std::string("unknown");
}

py::object makeError(uint32_t code, const std::string& context) {
    std::string message = toString(static_cast<MP4Err>(code));
    if (!context.empty()) message = context + ": " + message;
    py::object error = py::reinterpret_borrow<py::object>(gErrorType)(message);
    error.attr("code") = code;
    error.attr("name") = errorName(code);
    return error;
}

}  // namespace

void createErrorType(py::module_& m) {
    gErrorType = PyErr_NewExceptionWithDoc(
        "quil.Error",
        "A failed quil operation. `code` is the library's MP4Err value (4 for an\n"
        "input/output error, 5 for invalid data, ...), `name` its name (\"MP4_ERR_IO\").",
        PyExc_Exception, nullptr);
    if (gErrorType == nullptr) throw py::error_already_set();
    py::object type = py::reinterpret_borrow<py::object>(gErrorType);
    type.attr("code") = 0;
    type.attr("name") = "";
    m.attr("Error") = type;
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (const Failure& failure) {
            py::object error = makeError(failure.code, failure.context);
            PyErr_SetObject(gErrorType, error.ptr());
        }
    });
}

namespace {

void remux(const std::string& input, const std::string& output, int64_t fileType) {
    std::string what;
    const MP4Err err = [&] {
        py::gil_scoped_release nogil;
        return tool::remuxFile(input.c_str(), output, fileType < 0 ? 0 : static_cast<uint32_t>(fileType),
                               fileType >= 0, &what);
    }();
    if (err != MP4_OK) fail(err, input + ": " + what);
}

void faststart(const std::string& input, const std::string& output) {
    const std::wstring source = widePath(input), target = widePath(output);
    const MP4Err err = [&] {
        py::gil_scoped_release nogil;
        CMp4File* file = nullptr;
        MP4Err e = CMp4File::createInstance(&file);
        if (e == MP4_OK) e = file->optimizeFile(1, source.c_str(), target.c_str());
        CMp4File::destroyInstance(&file);
        return e;
    }();
    if (err != MP4_OK) fail(err, input);
}

}  // namespace

FileCore::~FileCore() {
    if (file_ == nullptr) return;
    // Closing on collection: a failure can no longer be reported. Tracks
    // whose finishing failed stay ours; they are deleted after the file
    // object, which detaches them first.
    std::vector<CMp4Track*> unreleased;
    for (CMp4Track* track : tracks_) {
        if (track != nullptr && file_->releaseTrack(track) != MP4_OK) unreleased.push_back(track);
    }
    (void)file_->close();
    CMp4File::destroyInstance(&file_);
    for (CMp4Track* track : unreleased) delete track;
}

void FileCore::open(uint32_t fileType) {
    const std::wstring wide = widePath(path_);
    check(CMp4File::createInstance(&file_), "cannot create a file object");
    const MP4Err err = file_->open(wide.c_str(), writing_ ? 1 : 0, fileType);
    if (err != MP4_OK) {
        CMp4File::destroyInstance(&file_);
        fail(err, path_);
    }
    struct stat info {};
    if (!writing_ && path_.compare(0, 4, "http") != 0 && ::stat(path_.c_str(), &info) == 0) {
        length_ = static_cast<uint64_t>(info.st_size);
    }
}

void FileCore::close() {
    if (file_ == nullptr) return;
    for (CMp4Track*& track : tracks_) {
        if (track == nullptr) continue;
        check(file_->releaseTrack(track), (path_ + ": finishing a track").c_str());
        track = nullptr;
    }
    check(file_->close(), path_.c_str());
    CMp4File::destroyInstance(&file_);
}

ByteView::ByteView(py::handle object, bool writable) {
    if (PyObject_GetBuffer(object.ptr(), &view_, writable ? PyBUF_WRITABLE : PyBUF_SIMPLE) != 0) {
        throw py::error_already_set();
    }
}

uint32_t parseFourcc(const std::string& text) {
    // Python hands str over as UTF-8: decode the Latin-1 range back to bytes.
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<uint8_t>(text[i]);
        if ((c == 0xC2 || c == 0xC3) && i + 1 < text.size()) {
            bytes.push_back(static_cast<uint8_t>(((c & 0x03) << 6) | (text[++i] & 0x3F)));
        } else {
            bytes.push_back(c);
        }
    }
    if (bytes.size() != 4) fail(MP4_ERR_INVALID_ARGUMENT, "a four-character code has 4 characters");
    return (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) | (uint32_t{bytes[2]} << 8) |
           bytes[3];
}

std::wstring widePath(const std::string& path) {
    std::wstring wide;
    check(utf8ToWidePath(path.c_str(), &wide), path.c_str());
    return wide;
}

}  // namespace python
}  // namespace quil

namespace py = pybind11;

PYBIND11_MODULE(_quil, m) {
    m.doc() = "The compiled part of the quil package; use the package `quil` instead.";
    quil::python::createErrorType(m);
    for (uint32_t code = 0; code < 32; ++code) {
        const std::string name = quil::python::errorName(code);
        if (name != "unknown") m.attr(name.c_str()) = code;
    }
    m.def("make_error", &quil::python::makeError, py::arg("code"), py::arg("context") = "",
          "A quil.Error for an MP4Err code.");
    m.def("remux", &quil::python::remux, py::arg("input"), py::arg("output"), py::arg("file_type") = -1,
          "Writes every copyable track of input into a new file output, as `quil remux`\n"
          "does (file type -1: the input's).");
    m.def("faststart", &quil::python::faststart, py::arg("input"), py::arg("output"),
          "Writes input to output with the movie box in front of the media data.");
    quil::python::bindReading(m);
    quil::python::bindWriting(m);
}

