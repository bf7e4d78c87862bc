// The one field IO of the library. A box, descriptor, hint sample or
// record states its layout once, in a member template
//
//     template <class IO> MP4Err fields(IO& io);
//
// that names each field in order (`io.u32(timeScale).u16(language)...`).
// Three walkers run that list: FieldReader reads it from a storage within a
// budget, FieldWriter writes it, FieldCounter adds up its bytes, so what a
// box writes is what it announced by construction. Layouts that depend on a
// version, flags or a count keep that logic in the same template; the rare
// step that only one direction takes tests IO::kReads.
//
// Every walker stops at the first failure and keeps that error, so a run of
// fields is one statement with one error check.
#ifndef QUIL_IO_FIELDIO_H
#define QUIL_IO_FIELDIO_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

#include "quil/MP4Err.h"
#include "quil/Storage.h"

namespace quil {

// The 16-bit form of a three-code language and back.
inline uint16_t packLanguage(const uint8_t (&codes)[3]) {
    return static_cast<uint16_t>(((codes[0] * 32u + codes[1]) * 32u + codes[2]) & 0xFFFF);
}
inline void unpackLanguage(uint16_t packed, uint8_t (&codes)[3]) {
    codes[0] = static_cast<uint8_t>((packed >> 10) & 31);
    codes[1] = static_cast<uint8_t>((packed >> 5) & 31);
    codes[2] = static_cast<uint8_t>(packed & 31);
}

// How a report (FieldLister) shows a named field.
enum class FieldForm : uint8_t {
    kAsStored,          // a number, signed when the field's type is
    kUnsigned,          // a number, unsigned whatever the field's type
    kSignedInVersion1,  // a number, signed when the box's version is 1
    kCode,              // a four-character code
};

// The first error of a walk: every walker stops at it and keeps it.
template <class Self>
class FieldStatus {
public:
    static constexpr bool kLists = false;

    // The key under which a report lists the next field (see FieldLister);
    // the other walkers pass it by. Keys are camelCase and never change:
    // they are what `quil dump --json` prints.
    Self& named(const char*, FieldForm = FieldForm::kAsStored) { return static_cast<Self&>(*this); }

    // Stops the walk with an error of the layout's own (the first one stays).
    Self& fail(MP4Err err) {
        if (ok()) err_ = err;
        return static_cast<Self&>(*this);
    }
    bool ok() const { return err_ == MP4_OK; }
    MP4Err error() const { return err_; }

protected:
    MP4Err err_ = MP4_OK;
};

// What every reading walker builds on its primitive fields (Self defines
// u16, u32, u64, i32, i64 ... and ok()).
template <class Self>
class FieldReading {
public:
    // A 64-bit field when wide, else a 32-bit one (zero-extended).
    Self& u32or64(bool wide, uint64_t& v) {
        if (wide) return self().u64(v);
        uint32_t narrow = 0;
        if (self().u32(narrow).ok()) v = narrow;
        return self();
    }
    // The same for a signed field: a narrow one is sign-extended.
    Self& i32or64(bool wide, int64_t& v) {
        if (wide) return self().i64(v);
        int32_t narrow = 0;
        if (self().i32(narrow).ok()) v = narrow;
        return self();
    }
    // A packed ISO 639-2/T language: three 5-bit codes (letter - 0x60)
    // after a zero pad bit, in 16 bits.
    Self& language(uint8_t (&codes)[3]) {
        uint16_t packed = 0;
        if (self().u16(packed).ok()) unpackLanguage(packed, codes);
        return self();
    }
    template <class T, size_t N>
    Self& array(T (&values)[N]) {
        for (T& v : values) value(v);
        return self();
    }
    // Any field by its type.
    Self& value(uint8_t& v) { return self().u8(v); }
    Self& value(uint16_t& v) { return self().u16(v); }
    Self& value(int16_t& v) { return self().i16(v); }
    Self& value(uint32_t& v) { return self().u32(v); }
    Self& value(int32_t& v) { return self().i32(v); }
    Self& value(uint64_t& v) { return self().u64(v); }
    Self& value(int64_t& v) { return self().i64(v); }

private:
    Self& self() { return static_cast<Self&>(*this); }
};

// Reads fields from a storage and lowers *budget (a box's `remaining`, a
// descriptor's payload count) by each field read. A field the budget cannot
// hold is refused with 6 before anything of it is read, so the budget never
// wraps; a storage error is returned as it came and leaves the budget alone.
template <class Budget>
class FieldReader : public FieldReading<FieldReader<Budget>>, public FieldStatus<FieldReader<Budget>> {
public:
    using FieldStatus<FieldReader>::ok;
    using FieldStatus<FieldReader>::fail;

    static constexpr bool kReads = true;
    static constexpr bool kCounts = false;

    FieldReader(CStorage* storage, Budget* budget) : storage_(storage), budget_(budget) {}

    FieldReader& u8(uint8_t& v) { return get(&CStorage::readUInt8, v, 1); }
    FieldReader& i8(int8_t& v) { return get(&CStorage::readInt8, v, 1); }
    FieldReader& u16(uint16_t& v) { return get(&CStorage::readUInt16, v, 2); }
    FieldReader& i16(int16_t& v) { return get(&CStorage::readInt16, v, 2); }
    FieldReader& u24(uint32_t& v) { return get(&CStorage::readUInt24, v, 3); }
    FieldReader& u32(uint32_t& v) { return get(&CStorage::readUInt32, v, 4); }
    FieldReader& i32(int32_t& v) { return get(&CStorage::readInt32, v, 4); }
    FieldReader& u64(uint64_t& v) { return get(&CStorage::readUInt64, v, 8); }
    FieldReader& i64(int64_t& v) { return get(&CStorage::readInt64, v, 8); }

    // Version and flags of a full box: the four bytes are refused together
    // when the budget cannot hold them.
    FieldReader& versionAndFlags(uint8_t& version, uint32_t& flags) {
        if (!ok() || !fits(4)) return *this;
        this->err_ = storage_->readUInt8(&version);
        if (ok()) this->err_ = storage_->readUInt24(&flags);
        if (ok()) *budget_ -= 4;
        return *this;
    }
    // count bytes into a buffer the caller sized.
    FieldReader& bytes(uint8_t* buffer, uint64_t count) {
        if (ok() && count > 0 && fits(count)) {
            this->err_ = storage_->readBytes(buffer, count);
            if (ok()) *budget_ -= static_cast<Budget>(count);
        }
        return *this;
    }
    // Refuses (6) a run of fields as a whole when the budget cannot hold
    // its count bytes, before any of them is read.
    FieldReader& require(uint64_t count) {
        if (ok()) fits(count);
        return *this;
    }
    // The same with a layout's own error code for the shortfall.
    FieldReader& require(uint64_t count, MP4Err err) {
        return ok() && *budget_ < count ? this->fail(err) : *this;
    }
    // Passes over count bytes the layout does not keep.
    FieldReader& skip(uint64_t count) {
        if (ok() && count > 0 && fits(count)) {
            this->err_ = storage_->skip(count);
            if (ok()) *budget_ -= static_cast<Budget>(count);
        }
        return *this;
    }
    // count bytes into a new buffer (none for 0), allocated only as far as
    // the storage can fill it (see readOwnedBytes).
    FieldReader& owned(std::unique_ptr<uint8_t[]>& data, uint64_t count);

    // Bytes the budget still allows.
    Budget left() const { return *budget_; }
    CStorage* storage() const { return storage_; }
    // Stops the walk with an error of the layout's own (the first one stays).

private:
    bool fits(uint64_t width) {
        if (*budget_ >= width) return true;
        this->err_ = MP4_ERR_BAD_BOX_SIZE;
        return false;
    }
    template <class T>
    FieldReader& get(MP4Err (CStorage::*read)(T*), T& v, uint32_t width) {
        if (!ok() || !fits(width)) return *this;
        this->err_ = (storage_->*read)(&v);
        if (ok()) *budget_ -= width;
        return *this;
    }

    CStorage* storage_;
    Budget* budget_;
};

// Writes fields to a storage.
class FieldWriter : public FieldStatus<FieldWriter> {
public:
    static constexpr bool kReads = false;
    static constexpr bool kCounts = false;

    explicit FieldWriter(CStorage* storage) : storage_(storage) {}

    FieldWriter& u8(const uint8_t& v) { return put(&CStorage::writeUInt8, v); }
    FieldWriter& i8(const int8_t& v) { return put(&CStorage::writeInt8, v); }
    FieldWriter& u16(const uint16_t& v) { return put(&CStorage::writeUInt16, v); }
    FieldWriter& i16(const int16_t& v) { return put(&CStorage::writeInt16, v); }
    FieldWriter& u24(const uint32_t& v) { return put(&CStorage::writeUInt24, v & 0xFFFFFFu); }
    FieldWriter& u32(const uint32_t& v) { return put(&CStorage::writeUInt32, v); }
    FieldWriter& i32(const int32_t& v) { return put(&CStorage::writeInt32, v); }
    FieldWriter& u64(const uint64_t& v) { return put(&CStorage::writeUInt64, v); }
    FieldWriter& i64(const int64_t& v) { return put(&CStorage::writeInt64, v); }
    FieldWriter& u32or64(bool wide, const uint64_t& v) {
        return wide ? u64(v) : u32(static_cast<uint32_t>(v));
    }
    FieldWriter& i32or64(bool wide, const int64_t& v) {
        return wide ? i64(v) : i32(static_cast<int32_t>(v));
    }
    FieldWriter& versionAndFlags(const uint8_t& version, const uint32_t& flags) {
        return u8(version).u24(flags);
    }
    FieldWriter& language(const uint8_t (&codes)[3]) { return u16(packLanguage(codes)); }
    template <class T, size_t N>
    FieldWriter& array(const T (&values)[N]) {
        for (const T& v : values) value(v);
        return *this;
    }
    FieldWriter& require(uint64_t, MP4Err = MP4_OK) { return *this; }
    FieldWriter& bytes(const uint8_t* buffer, uint64_t count);
    FieldWriter& owned(const std::unique_ptr<uint8_t[]>& data, uint64_t count) {
        return bytes(data.get(), count);
    }

    FieldWriter& value(const uint8_t& v) { return u8(v); }
    FieldWriter& value(const uint16_t& v) { return u16(v); }
    FieldWriter& value(const int16_t& v) { return i16(v); }
    FieldWriter& value(const uint32_t& v) { return u32(v); }
    FieldWriter& value(const int32_t& v) { return i32(v); }
    FieldWriter& value(const uint64_t& v) { return u64(v); }
    FieldWriter& value(const int64_t& v) { return i64(v); }

    CStorage* storage() const { return storage_; }

private:
    template <class T>
    FieldWriter& put(MP4Err (CStorage::*write)(T), T v) {
        if (ok()) err_ = (storage_->*write)(v);
        return *this;
    }

    CStorage* storage_;
};

// Adds up the bytes the same fields take when written.
class FieldCounter : public FieldStatus<FieldCounter> {
public:
    static constexpr bool kReads = false;
    static constexpr bool kCounts = true;

    FieldCounter& u8(const uint8_t&) { return add(1); }
    FieldCounter& i8(const int8_t&) { return add(1); }
    FieldCounter& u16(const uint16_t&) { return add(2); }
    FieldCounter& i16(const int16_t&) { return add(2); }
    FieldCounter& u24(const uint32_t&) { return add(3); }
    FieldCounter& u32(const uint32_t&) { return add(4); }
    FieldCounter& i32(const int32_t&) { return add(4); }
    FieldCounter& u64(const uint64_t&) { return add(8); }
    FieldCounter& i64(const int64_t&) { return add(8); }
    FieldCounter& u32or64(bool wide, const uint64_t&) { return add(wide ? 8 : 4); }
    FieldCounter& i32or64(bool wide, const int64_t&) { return add(wide ? 8 : 4); }
    FieldCounter& versionAndFlags(const uint8_t&, const uint32_t&) { return add(4); }
    FieldCounter& language(const uint8_t (&)[3]) { return add(2); }
    template <class T, size_t N>
    FieldCounter& array(const T (&)[N]) {
        return add(sizeof(T) * N);
    }
    FieldCounter& require(uint64_t, MP4Err = MP4_OK) { return *this; }
    FieldCounter& bytes(const uint8_t*, uint64_t count) { return add(count); }
    // count fields of width bytes each, without walking them.
    FieldCounter& repeated(uint64_t count, uint64_t width) { return add(count * width); }
    FieldCounter& owned(const std::unique_ptr<uint8_t[]>&, uint64_t count) { return add(count); }
    template <class T>
    FieldCounter& value(const T&) {
        static_assert(std::is_integral<T>::value, "fields are integers");
        return add(sizeof(T));
    }

    uint64_t total() const { return total_; }

private:
    FieldCounter& add(uint64_t count) {
        total_ += count;
        return *this;
    }

    uint64_t total_ = 0;
};

// Reads fields from bytes already in memory (a batch of table entries read
// with one storage call): the same layouts, decoded without a storage call
// per field. A field past the end of the bytes is refused with 6.
class FieldDecoder : public FieldReading<FieldDecoder>, public FieldStatus<FieldDecoder> {
public:
    static constexpr bool kReads = true;
    static constexpr bool kCounts = false;

    FieldDecoder(const uint8_t* bytes, uint64_t length) : p_(bytes), left_(length) {}

    FieldDecoder& u8(uint8_t& v) { return get(v, 1); }
    FieldDecoder& i8(int8_t& v) { return get(v, 1); }
    FieldDecoder& u16(uint16_t& v) { return get(v, 2); }
    FieldDecoder& i16(int16_t& v) { return get(v, 2); }
    FieldDecoder& u24(uint32_t& v) { return get(v, 3); }
    FieldDecoder& u32(uint32_t& v) { return get(v, 4); }
    FieldDecoder& i32(int32_t& v) { return get(v, 4); }
    FieldDecoder& u64(uint64_t& v) { return get(v, 8); }
    FieldDecoder& i64(int64_t& v) { return get(v, 8); }
    FieldDecoder& versionAndFlags(uint8_t& version, uint32_t& flags) {
        if (left_ < 4) return fail(MP4_ERR_BAD_BOX_SIZE);
        return u8(version).u24(flags);
    }
    FieldDecoder& require(uint64_t count, MP4Err err = MP4_ERR_BAD_BOX_SIZE) {
        return ok() && left_ < count ? fail(err) : *this;
    }
    FieldDecoder& bytes(uint8_t* buffer, uint64_t count);
    // Passes over count bytes.
    FieldDecoder& skip(uint64_t count) {
        if (!ok()) return *this;
        if (left_ < count) return fail(MP4_ERR_BAD_BOX_SIZE);
        p_ += count;
        left_ -= count;
        return *this;
    }
    // The bytes not yet decoded.
    const uint8_t* data() const { return p_; }
    uint64_t left() const { return left_; }

private:
    // Big-endian, sign carried by the conversion to T.
    template <class T>
    FieldDecoder& get(T& v, uint32_t width) {
        if (!ok()) return *this;
        if (left_ < width) return fail(MP4_ERR_BAD_BOX_SIZE);
        uint64_t value = 0;
        for (uint32_t i = 0; i < width; ++i) value = value << 8 | p_[i];
        v = static_cast<T>(value);
        p_ += width;
        left_ -= width;
        return *this;
    }

    const uint8_t* p_;
    uint64_t left_;
};

// Reads count bytes into a new buffer. The buffer is allocated at once only
// when the storage reports that many bytes left; otherwise it grows with the
// bytes actually delivered, so a damaged length cannot make us allocate more
// than the input can fill. The storage's own error is returned unchanged.
MP4Err readOwnedBytes(CStorage* storage, uint64_t count, std::unique_ptr<uint8_t[]>* out);

// Skips count bytes of payload. A count beyond the end of the storage is
// refused with 18 before the storage moves: a memory storage's position
// wraps in 32 bits, and a wrapped skip would move backwards and let a few
// bytes be parsed again and again.
MP4Err skipPayload(CStorage* storage, uint64_t count);

template <class Budget>
FieldReader<Budget>& FieldReader<Budget>::owned(std::unique_ptr<uint8_t[]>& data, uint64_t count) {
    if (ok() && fits(count)) {
        this->err_ = readOwnedBytes(storage_, count, &data);
        if (ok()) *budget_ -= static_cast<Budget>(count);
    }
    return *this;
}

// The common walks of one `fields` layout.
template <class Layout, class Budget>
MP4Err readFields(Layout* layout, CStorage* storage, Budget* budget) {
    FieldReader<Budget> io(storage, budget);
    return layout->fields(io);
}

template <class Layout>
MP4Err writeFields(Layout* layout, CStorage* storage) {
    FieldWriter io(storage);
    return layout->fields(io);
}

template <class Layout>
uint64_t countFields(Layout* layout) {
    FieldCounter io;
    layout->fields(io);
    return io.total();
}

}  // namespace quil

#endif
