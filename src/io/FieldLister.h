// The fourth walker of a `fields(IO&)` layout: it lists the named fields of
// a box for a report (`quil dump --json`, `--entries N`) from the first
// bytes of the box's payload, without keeping the box.
//
// A report shows what a box holds, damaged or not, so the lister never
// stops a layout: a field past the bytes it can reach reads as 0 and the
// walk goes on (ok() stays true); from the first such field on every field
// reads as 0. A table's entries are walked through table(), at most the
// number the report asks for and never more than the bytes hold; an entry
// cut short by the end of the bytes is left out. Nothing is allocated from
// a count found in the box.
#ifndef QUIL_IO_FIELDLISTER_H
#define QUIL_IO_FIELDLISTER_H

#include <cstdint>
#include <string>
#include <vector>

#include "io/FieldIO.h"

namespace quil {

// Where the lister's bytes come from: the payload of one box.
class ListedBytes {
public:
    virtual ~ListedBytes() = default;
    // Copies count bytes at offset of the payload; false when they cannot
    // be had.
    virtual bool read(uint64_t offset, uint8_t* out, uint32_t count) = 0;
};

enum class ListedForm : uint8_t { kNumber, kSigned, kCode, kCodes, kText, kTable };

// One named field as listed. `entry` is 0 for a field of the box, n for a
// field of the n-th table entry; kTable marks that the box holds a table
// (its entries follow). kCodes and kText keep their bytes in `bytes`.
struct ListedField {
    const char* key = nullptr;
    uint32_t entry = 0;
    ListedForm form = ListedForm::kNumber;
    uint64_t number = 0;  // two's complement for kSigned
    std::string bytes;
};

class FieldLister : public FieldReading<FieldLister>, public FieldStatus<FieldLister> {
public:
    static constexpr bool kReads = false;
    static constexpr bool kCounts = false;
    static constexpr bool kLists = true;

    // How far into the payload the fields before a table are read, and a
    // table's entries: a report shows the head of a box, not all of it.
    static constexpr uint64_t kFieldReach = 256;
    static constexpr uint64_t kTableReach = uint64_t{1} << 24;

    FieldLister(ListedBytes* source, uint64_t payload, uint32_t maxEntries)
        : source_(source), payload_(payload), maxEntries_(maxEntries) {
        reachTo(kFieldReach);
    }

    FieldLister& named(const char* key, FieldForm form = FieldForm::kAsStored) {
        key_ = key;
        form_ = form;
        return *this;
    }

    FieldLister& u8(uint8_t& v) { return get(v, 1); }
    FieldLister& i8(int8_t& v) { return get(v, 1); }
    FieldLister& u16(uint16_t& v) { return get(v, 2); }
    FieldLister& i16(int16_t& v) { return get(v, 2); }
    FieldLister& u24(uint32_t& v) { return get(v, 3); }
    FieldLister& u32(uint32_t& v) { return get(v, 4); }
    FieldLister& i32(int32_t& v) { return get(v, 4); }
    FieldLister& u64(uint64_t& v) { return get(v, 8); }
    FieldLister& i64(int64_t& v) { return get(v, 8); }
    // Listed as "version" and "flags" in every box that has them.
    FieldLister& versionAndFlags(uint8_t& version, uint32_t& flags) {
        named("version").u8(version).named("flags").u24(flags);
        version_ = version;
        return *this;
    }

    // Four-character codes up to the end of the bytes in reach, listed as
    // one field under the pending key.
    FieldLister& codes();
    // Text up to a zero byte or the end of the bytes in reach.
    FieldLister& text();
    // Walks up to `count` entries of a table (no more than the report asks
    // for), `walkEntry(io)` stating one entry's fields.
    template <class Walk>
    FieldLister& table(uint64_t count, Walk walkEntry);

    // Bytes in reach not yet walked.
    uint64_t left() const { return reach_ > at_ ? reach_ - at_ : 0; }
    const std::vector<ListedField>& listed() const { return listed_; }

private:
    template <class T>
    FieldLister& get(T& v, uint32_t width) {
        uint64_t raw = 0;
        take(width, &raw);
        v = static_cast<T>(raw);
        if (key_) record(raw, width, std::is_signed<T>::value);
        return *this;
    }
    // The next width bytes; false (and 0) past the bytes in reach.
    bool take(uint32_t width, uint64_t* raw);
    // Whether the payload's bytes up to end are fetched (fetching them).
    bool have(uint64_t end);
    void reachTo(uint64_t limit) { reach_ = payload_ < limit ? payload_ : limit; }
    void record(uint64_t raw, uint32_t width, bool isSigned);
    ListedField& add(ListedForm form);

    ListedBytes* source_;
    uint64_t payload_;
    uint32_t maxEntries_;
    uint64_t reach_ = 0;
    uint64_t at_ = 0;
    bool short_ = false;  // a field ran past the bytes in reach
    std::vector<uint8_t> fetched_;
    const char* key_ = nullptr;
    FieldForm form_ = FieldForm::kAsStored;
    uint8_t version_ = 0;
    uint32_t entry_ = 0;
    std::vector<ListedField> listed_;
};

template <class Walk>
FieldLister& FieldLister::table(uint64_t count, Walk walkEntry) {
    named("entries").add(ListedForm::kTable);
    reachTo(kTableReach);
    for (uint64_t n = 0; n < count && n < maxEntries_ && !short_; ++n) {
        const size_t before = listed_.size();
        entry_ = static_cast<uint32_t>(n + 1);
        walkEntry(*this);
        if (short_) listed_.resize(before);
    }
    entry_ = 0;
    return *this;
}

}  // namespace quil

#endif
