// Test helper: assembles big-endian byte strings, boxes and full boxes,
// with correct or deliberately wrong sizes, and reads them back through a
// memory storage.
#ifndef QUIL_TESTS_BOXBUILDER_H
#define QUIL_TESTS_BOXBUILDER_H

#include <cstdint>
#include <string>
#include <vector>

#include <memory>

#include "boxes/BoxFactory.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace test {

using Bytes = std::vector<uint8_t>;

class ByteWriter {
public:
    ByteWriter& u8(uint32_t v) { bytes_.push_back(static_cast<uint8_t>(v)); return *this; }
    ByteWriter& u16(uint32_t v) { return u8(v >> 8).u8(v); }
    ByteWriter& u24(uint32_t v) { return u8(v >> 16).u8(v >> 8).u8(v); }
    ByteWriter& u32(uint32_t v) { return u16(v >> 16).u16(v); }
    ByteWriter& u64(uint64_t v) { return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v)); }
    ByteWriter& code(const char* fourChars) {
        for (int i = 0; i < 4; ++i) u8(static_cast<uint8_t>(fourChars[i]));
        return *this;
    }
    ByteWriter& str(const std::string& s, bool terminate = true) {
        bytes_.insert(bytes_.end(), s.begin(), s.end());
        if (terminate) u8(0);
        return *this;
    }
    ByteWriter& raw(const Bytes& b) { bytes_.insert(bytes_.end(), b.begin(), b.end()); return *this; }
    ByteWriter& zeros(size_t n) { bytes_.insert(bytes_.end(), n, 0); return *this; }
    const Bytes& bytes() const { return bytes_; }
    operator Bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

// A box with a 32-bit size computed from the payload (or forced).
inline Bytes box(const char* type, const Bytes& payload, int64_t forcedSize = -1) {
    uint64_t size = forcedSize >= 0 ? static_cast<uint64_t>(forcedSize) : payload.size() + 8;
    return ByteWriter().u32(static_cast<uint32_t>(size)).code(type).raw(payload);
}

// A box with size field 1 and a 64-bit largesize.
inline Bytes largeBox(const char* type, const Bytes& payload) {
    return ByteWriter().u32(1).code(type).u64(payload.size() + 16).raw(payload);
}

// A full box: version and flags, then the payload.
inline Bytes fullBox(const char* type, uint8_t version, uint32_t flags, const Bytes& payload) {
    return box(type, ByteWriter().u8(version).u24(flags).raw(payload));
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A memory storage over a copy of the bytes, attached and opened for
// reading (or writing into a zeroed buffer of that size).
class MemoryFile {
public:
    explicit MemoryFile(Bytes bytes, bool forWrite = false) : bytes_(std::move(bytes)) {
        storage_.attach(bytes_.data(), static_cast<uint32_t>(bytes_.size()), forWrite);
        storage_.open(forWrite ? 1 : 0);
    }
    ~MemoryFile() {
        storage_.close();
        storage_.detach();
    }
    CMemoryStorage* storage() { return &storage_; }
    const Bytes& bytes() const { return bytes_; }
    uint32_t position() const { return storage_.position(); }

private:
    Bytes bytes_;
    CMemoryStorage storage_;
};

// Reads one box through the factory at file level, as a parent would;
// *position receives where the storage stopped.
inline std::unique_ptr<CBox> readTree(const Bytes& bytes, MP4Err* err = nullptr,
                                      uint32_t* position = nullptr) {
    MemoryFile file(bytes);
    uint64_t parentRemaining = bytes.size();
    CBox* out = nullptr;
    uint32_t type = 0;
    MP4Err result = readBox(file.storage(), 0, &out, &type, &parentRemaining);
    if (err) *err = result;
    if (position) *position = file.position();
    return std::unique_ptr<CBox>(out);
}

template <class T>
T* as(const std::unique_ptr<CBox>& box) {
    return dynamic_cast<T*>(box.get());
}

// Sizes a box tree and writes it; returns the bytes written.
inline Bytes writeTree(CBox* box, MP4Err* err = nullptr) {
    MP4Err result = box->calculateSize();
    uint64_t size = 0;
    box->getSize(&size);
    MemoryFile file(Bytes(size + 64), true);
    if (result == MP4_OK) result = box->write(file.storage());
    if (err) *err = result;
    return Bytes(file.bytes().begin(), file.bytes().begin() + file.position());
}

}  // namespace test
}  // namespace quil

#endif
