#include "FragmentBoxes.h"

#include <cinttypes>
#include <cstdio>
#include <new>

#include "Dump.h"

namespace quil {

// ---- one field list, three walks -------------------------------------------

// Walks a box's fields to read them (lowering the box's remaining count and
// refusing, with 6, a field the count cannot hold), to write them, or to
// count their bytes. After the first failure nothing more is done and that
// error is kept.
class CFieldListBox::FieldIO {
public:
    enum class Mode { Read, Write, Size };
    FieldIO(Mode mode, CStorage* storage, uint64_t* remaining)
        : mode_(mode), storage_(storage), remaining_(remaining) {}

    bool reading() const { return mode_ == Mode::Read; }
    MP4Err error() const { return err_; }
    void fail(MP4Err err) {
        if (err_ == MP4_OK) err_ = err;
    }
    uint64_t bytes() const { return bytes_; }
    // Payload bytes not yet read (reading only; unbounded otherwise).
    uint64_t left() const { return reading() ? *remaining_ : UINT64_MAX; }

    FieldIO& u8(uint8_t& v) { return field(v, 1); }
    FieldIO& u16(uint16_t& v) { return field(v, 2); }
    FieldIO& u32(uint32_t& v) { return field(v, 4); }
    FieldIO& u64(uint64_t& v) { return field(v, 8); }
    FieldIO& i32(int32_t& v) {
        uint32_t bits = static_cast<uint32_t>(v);
        field(bits, 4);
        v = static_cast<int32_t>(bits);
        return *this;
    }
    // 64 bits when wide, else 32.
    FieldIO& u32or64(bool wide, uint64_t& v) {
        if (wide) return u64(v);
        uint32_t narrow = static_cast<uint32_t>(v);
        field(narrow, 4);
        if (reading()) v = narrow;
        return *this;
    }
    // An unsigned field of 1 to 4 bytes.
    FieldIO& sized(uint32_t width, uint32_t& v) {
        uint64_t wide = v;
        field(wide, width);
        v = static_cast<uint32_t>(wide);
        return *this;
    }
    // A zero-terminated string (the terminator counted, not kept).
    FieldIO& text(std::string& v);
    // Every byte left in the box.
    FieldIO& tail(std::string& v);
    // count 32-bit words, read or written as one block.
    FieldIO& words(uint32_t* values, uint64_t count);

private:
    template <class T>
    FieldIO& field(T& v, uint32_t width);
    MP4Err readWords(uint32_t* values, uint64_t count);
    MP4Err writeWords(const uint32_t* values, uint64_t count);

    Mode mode_;
    CStorage* storage_;
    uint64_t* remaining_;
    uint64_t bytes_ = 0;
    MP4Err err_ = MP4_OK;
};

template <class T>
CFieldListBox::FieldIO& CFieldListBox::FieldIO::field(T& v, uint32_t width) {
    if (err_ != MP4_OK) return *this;
    bytes_ += width;
    if (mode_ == Mode::Size) return *this;
    uint8_t raw[8] = {};
    if (mode_ == Mode::Write) {
        for (uint32_t i = 0; i < width; ++i) {
            raw[i] = static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * (width - 1 - i)));
        }
        err_ = storage_->writeBlock(raw, static_cast<int32_t>(width));
        return *this;
    }
    if (*remaining_ < width) {
        err_ = MP4_ERR_BAD_BOX_SIZE;
        return *this;
    }
    err_ = storage_->readBlock(raw, width);
    if (err_ != MP4_OK) return *this;
    *remaining_ -= width;
    uint64_t value = 0;
    for (uint32_t i = 0; i < width; ++i) value = value << 8 | raw[i];
    v = static_cast<T>(value);
    return *this;
}

CFieldListBox::FieldIO& CFieldListBox::FieldIO::text(std::string& v) {
    if (err_ != MP4_OK) return *this;
    if (!reading()) {
        bytes_ += v.size() + 1;
        if (mode_ == Mode::Write) {
            err_ = storage_->writeBlock(v.data(), static_cast<int32_t>(v.size() + 1));
        }
        return *this;
    }
    v.clear();
    for (;;) {
        uint8_t c = 0;
        if (u8(c).error() != MP4_OK) return *this;
        if (c == 0) return *this;
        v.push_back(static_cast<char>(c));
    }
}

CFieldListBox::FieldIO& CFieldListBox::FieldIO::tail(std::string& v) {
    if (err_ != MP4_OK) return *this;
    if (reading()) {
        // Bounded by the box, which the reader's window holds.
        v.assign(static_cast<size_t>(*remaining_), '\0');
        if (!v.empty()) err_ = storage_->readBytes(reinterpret_cast<uint8_t*>(&v[0]), v.size());
        if (err_ == MP4_OK) *remaining_ = 0;
        return *this;
    }
    bytes_ += v.size();
    if (mode_ == Mode::Write && !v.empty()) {
        err_ = storage_->writeBlock(v.data(), static_cast<int32_t>(v.size()));
    }
    return *this;
}

CFieldListBox::FieldIO& CFieldListBox::FieldIO::words(uint32_t* values, uint64_t count) {
    if (err_ != MP4_OK) return *this;
    bytes_ += count * 4;
    if (mode_ == Mode::Read) {
        if (*remaining_ / 4 < count) {
            err_ = MP4_ERR_BAD_BOX_SIZE;
            return *this;
        }
        err_ = readWords(values, count);
        if (err_ == MP4_OK) *remaining_ -= count * 4;
    } else if (mode_ == Mode::Write) {
        err_ = writeWords(values, count);
    }
    return *this;
}

namespace {
constexpr uint64_t kBlockWords = 1u << 14;  // one block per 64 KiB

uint32_t fromBigEndian(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}
}  // namespace

// A run's table is read in blocks rather than a storage call per value:
// the same bytes, a fraction of the calls on files with many samples.
MP4Err CFieldListBox::FieldIO::readWords(uint32_t* values, uint64_t count) {
    for (uint64_t done = 0; done < count;) {
        uint64_t n = count - done < kBlockWords ? count - done : kBlockWords;
        uint8_t* raw = reinterpret_cast<uint8_t*>(values + done);
        MP4Err err = storage_->readBlock(raw, static_cast<uint32_t>(n * 4));
        if (err != MP4_OK) return err;
        for (uint64_t i = 0; i < n; ++i) values[done + i] = fromBigEndian(raw + 4 * i);
        done += n;
    }
    return MP4_OK;
}

MP4Err CFieldListBox::FieldIO::writeWords(const uint32_t* values, uint64_t count) {
    std::unique_ptr<uint8_t[]> raw(new (std::nothrow) uint8_t[kBlockWords * 4]);
    if (!raw) return MP4_ERR_OUT_OF_MEMORY;
    for (uint64_t done = 0; done < count;) {
        uint64_t n = count - done < kBlockWords ? count - done : kBlockWords;
        for (uint64_t i = 0; i < n; ++i) {
            uint32_t v = values[done + i];
            uint8_t* p = raw.get() + 4 * i;
            p[0] = static_cast<uint8_t>(v >> 24);
            p[1] = static_cast<uint8_t>(v >> 16);
            p[2] = static_cast<uint8_t>(v >> 8);
            p[3] = static_cast<uint8_t>(v);
        }
        MP4Err err = storage_->writeBlock(raw.get(), static_cast<int32_t>(n * 4));
        if (err != MP4_OK) return err;
        done += n;
    }
    return MP4_OK;
}

// ---- the field-list box skeleton --------------------------------------------

MP4Err CFieldListBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    FieldIO io(FieldIO::Mode::Read, storage, &remaining);
    err = walkFields(io);
    return err != MP4_OK ? err : io.error();
}

MP4Err CFieldListBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    FieldIO io(FieldIO::Mode::Write, storage, nullptr);
    err = walkFields(io);
    return err != MP4_OK ? err : io.error();
}

MP4Err CFieldListBox::calculateSize() {
    MP4Err err = CBox::calculateSize();
    if (err != MP4_OK) return err;
    FieldIO io(FieldIO::Mode::Size, nullptr, nullptr);
    err = walkFields(io);
    if (err == MP4_OK) err = io.error();
    size += 4 + io.bytes();
    return err;
}

MP4Err CFieldListBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpFields(depth);
    return MP4_OK;
}

// ---- "moof" -----------------------------------------------------------------

MP4Err CMovieFragmentBox::read(CStorage* storage) {
    uint64_t position = 0;
    MP4Err err = storage->getPosition(&position);
    if (err != MP4_OK) return err;
    uint64_t headerLength = size - remaining;
    if (position < headerLength) return MP4_ERR_BAD_BOX_SIZE;
    boxOffset = position - headerLength;
    return CContainerBox::read(storage);
}

// ---- "mehd", "trex", "mfhd" ----------------------------------------------------

MP4Err CMovieExtendsHeaderBox::walkFields(FieldIO& io) {
    return io.u32or64(version == 1, fragmentDuration).error();
}

void CMovieExtendsHeaderBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Fragment duration = %" PRIu64 "\n", fragmentDuration);
}

MP4Err CTrackExtendsBox::walkFields(FieldIO& io) {
    return io.u32(trackId)
        .u32(defaultSampleDescriptionIndex)
        .u32(defaultSampleDuration)
        .u32(defaultSampleSize)
        .u32(defaultSampleFlags)
        .error();
}

void CTrackExtendsBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Track ID=%u, Default sample description index = %u\n", trackId,
             defaultSampleDescriptionIndex);
    dumpLine(depth, "Default sample duration = %u, size = %u, flags = 0x%08x\n",
             defaultSampleDuration, defaultSampleSize, defaultSampleFlags);
}

MP4Err CMovieFragmentHeaderBox::walkFields(FieldIO& io) { return io.u32(sequenceNumber).error(); }

void CMovieFragmentHeaderBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Sequence number = %u\n", sequenceNumber);
}

// ---- "tfhd", "tfdt" ----------------------------------------------------------

MP4Err CTrackFragmentHeaderBox::walkFields(FieldIO& io) {
    io.u32(trackId);
    if (flags & kBaseDataOffset) io.u64(baseDataOffset);
    if (flags & kDescriptionIndex) io.u32(sampleDescriptionIndex);
    if (flags & kDefaultDuration) io.u32(defaultSampleDuration);
    if (flags & kDefaultSize) io.u32(defaultSampleSize);
    if (flags & kDefaultFlags) io.u32(defaultSampleFlags);
    return io.error();
}

void CTrackFragmentHeaderBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Track ID=%u\n", trackId);
    if (flags & kBaseDataOffset) dumpLine(depth, "Base data offset = %" PRIu64 "\n", baseDataOffset);
    if (flags & kDescriptionIndex) {
        dumpLine(depth, "Sample description index = %u\n", sampleDescriptionIndex);
    }
    if (flags & kDefaultDuration) dumpLine(depth, "Default sample duration = %u\n", defaultSampleDuration);
    if (flags & kDefaultSize) dumpLine(depth, "Default sample size = %u\n", defaultSampleSize);
    if (flags & kDefaultFlags) dumpLine(depth, "Default sample flags = 0x%08x\n", defaultSampleFlags);
}

MP4Err CTrackFragmentDecodeTimeBox::walkFields(FieldIO& io) {
    return io.u32or64(version == 1, baseMediaDecodeTime).error();
}

void CTrackFragmentDecodeTimeBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Base media decode time = %" PRIu64 "\n", baseMediaDecodeTime);
}

// ---- "trun" -----------------------------------------------------------------

uint32_t CTrackRunBox::stride() const {
    uint32_t words = 0;
    for (uint32_t flag : {kDuration, kSize, kFlags, kCompositionOffset}) words += (flags & flag) ? 1 : 0;
    return words;
}

uint32_t CTrackRunBox::field(uint32_t i, uint32_t flag, uint32_t byDefault) const {
    if (!(flags & flag) || !values_) return byDefault;
    uint32_t slot = 0;
    for (uint32_t f = kDuration; f < flag; f <<= 1) slot += (flags & f) ? 1 : 0;
    return values_[static_cast<uint64_t>(i) * stride() + slot];
}

int64_t CTrackRunBox::compositionOffset(uint32_t i) const {
    uint32_t raw = field(i, kCompositionOffset, 0);
    return version == 0 ? static_cast<int64_t>(raw) : static_cast<int64_t>(static_cast<int32_t>(raw));
}

MP4Err CTrackRunBox::setSamples(uint32_t count, const uint32_t* values) {
    uint64_t words = static_cast<uint64_t>(count) * stride();
    std::unique_ptr<uint32_t[]> copy;
    if (words > 0) {
        if (!values) return MP4_ERR_INVALID_ARGUMENT;
        copy.reset(new (std::nothrow) uint32_t[words]);
        if (!copy) return MP4_ERR_OUT_OF_MEMORY;
        for (uint64_t i = 0; i < words; ++i) copy[i] = values[i];
    }
    values_ = std::move(copy);
    sampleCount = count;
    return MP4_OK;
}

MP4Err CTrackRunBox::walkFields(FieldIO& io) {
    io.u32(sampleCount);
    if (flags & kDataOffset) io.i32(dataOffset);
    if (flags & kFirstSampleFlags) io.u32(firstSampleFlags);
    if (io.error() != MP4_OK) return io.error();
    const uint64_t words = static_cast<uint64_t>(sampleCount) * stride();
    if (io.reading()) {
        values_.reset();
        // The count is trusted only as far as the box holds its samples.
        if (words > io.left() / 4) return MP4_ERR_BAD_BOX_SIZE;
        if (words > 0) {
            values_.reset(new (std::nothrow) uint32_t[words]);
            if (!values_) return MP4_ERR_OUT_OF_MEMORY;
        }
    } else if (words > 0 && !values_) {
        return MP4_ERR_INVALID_DATA;
    }
    return io.words(values_.get(), words).error();
}

void CTrackRunBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Sample count = %u\n", sampleCount);
    if (flags & kDataOffset) dumpLine(depth, "Data offset = %d\n", dataOffset);
    if (flags & kFirstSampleFlags) dumpLine(depth, "First sample flags = 0x%08x\n", firstSampleFlags);
}

// ---- "sidx" -----------------------------------------------------------------

// Makes an array of count entries for reading, once the bytes for them are
// known to be in the box (entryBytes each): a damaged count allocates nothing.
template <class T>
static MP4Err makeEntries(CFieldListBox::FieldIO& io, std::unique_ptr<T[]>* entries, uint64_t count,
                          uint64_t entryBytes) {
    if (!io.reading()) return count > 0 && !*entries ? MP4_ERR_INVALID_DATA : MP4_OK;
    entries->reset();
    if (count > io.left() / entryBytes) return MP4_ERR_BAD_BOX_SIZE;
    if (count == 0) return MP4_OK;
    entries->reset(new (std::nothrow) T[count]);
    return *entries ? MP4_OK : MP4_ERR_OUT_OF_MEMORY;
}

MP4Err CSegmentIndexBox::walkFields(FieldIO& io) {
    const bool wide = version != 0;
    io.u32(referenceId).u32(timeScale).u32or64(wide, earliestPresentationTime).u32or64(wide, firstOffset);
    io.u16(reserved).u16(referenceCount);
    if (io.error() != MP4_OK) return io.error();
    MP4Err err = makeEntries(io, &references, referenceCount, 12);
    if (err != MP4_OK) return err;
    for (uint32_t i = 0; i < referenceCount; ++i) {
        Reference& r = references[i];
        io.u32(r.typeAndSize).u32(r.subsegmentDuration).u32(r.sapFields);
    }
    return io.error();
}

void CSegmentIndexBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Reference ID = %u, Timescale = %u\n", referenceId, timeScale);
    dumpLine(depth, "Earliest presentation time = %" PRIu64 ", First offset = %" PRIu64 "\n",
             earliestPresentationTime, firstOffset);
    dumpLine(depth, "Reference count = %u\n", static_cast<uint32_t>(referenceCount));
    for (uint32_t i = 0; i < referenceCount && references; ++i) {
        const Reference& r = references[i];
        dumpLine(depth, "  Type = %u, Size = %u, Duration = %u, SAP = 0x%08x\n",
                 r.typeAndSize >> 31, r.typeAndSize & 0x7FFFFFFF, r.subsegmentDuration,
                 r.sapFields);
    }
}

// ---- "tfra", "mfro" ------------------------------------------------------------

MP4Err CTrackFragmentRandomAccessBox::walkFields(FieldIO& io) {
    io.u32(trackId).u32(lengthSizes).u32(entryCount);
    if (io.error() != MP4_OK) return io.error();
    const bool wide = version == 1;
    const uint32_t trafBytes = ((lengthSizes >> 4) & 3) + 1;
    const uint32_t trunBytes = ((lengthSizes >> 2) & 3) + 1;
    const uint32_t sampleBytes = (lengthSizes & 3) + 1;
    const uint64_t entryBytes = (wide ? 16 : 8) + trafBytes + trunBytes + sampleBytes;
    MP4Err err = makeEntries(io, &entries, entryCount, entryBytes);
    if (err != MP4_OK) return err;
    for (uint32_t i = 0; i < entryCount && io.error() == MP4_OK; ++i) {
        Entry& e = entries[i];
        io.u32or64(wide, e.time).u32or64(wide, e.moofOffset);
        io.sized(trafBytes, e.trafNumber).sized(trunBytes, e.trunNumber).sized(sampleBytes, e.sampleNumber);
    }
    return io.error();
}

void CTrackFragmentRandomAccessBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Track ID=%u, Entry count = %u\n", trackId, entryCount);
    for (uint32_t i = 0; i < entryCount && entries; ++i) {
        const Entry& e = entries[i];
        dumpLine(depth, "  Time = %" PRIu64 ", Moof offset = %" PRIu64 ", Traf = %u, Trun = %u, Sample = %u\n",
                 e.time, e.moofOffset, e.trafNumber, e.trunNumber, e.sampleNumber);
    }
}

MP4Err CMovieFragmentRandomAccessOffsetBox::walkFields(FieldIO& io) { return io.u32(mfraSize).error(); }

void CMovieFragmentRandomAccessOffsetBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Mfra size = %u\n", mfraSize);
}

// ---- "emsg", "prft" ------------------------------------------------------------

MP4Err CEventMessageBox::walkFields(FieldIO& io) {
    if (version == 0) {
        io.text(schemeIdUri).text(value).u32(timeScale).u32or64(false, presentationTime);
        io.u32(eventDuration).u32(id);
    } else {
        io.u32(timeScale).u64(presentationTime).u32(eventDuration).u32(id);
        io.text(schemeIdUri).text(value);
    }
    return io.tail(messageData).error();
}

void CEventMessageBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Scheme = %s, Value = %s\n", schemeIdUri.c_str(), value.c_str());
    dumpLine(depth, "Timescale = %u, %s = %" PRIu64 ", Duration = %u, ID = %u\n", timeScale,
             version == 0 ? "Presentation time delta" : "Presentation time", presentationTime,
             eventDuration, id);
    dumpLine(depth, "Message size = %u\n", static_cast<uint32_t>(messageData.size()));
}

MP4Err CProducerReferenceTimeBox::walkFields(FieldIO& io) {
    return io.u32(referenceTrackId).u64(ntpTimestamp).u32or64(version != 0, mediaTime).error();
}

void CProducerReferenceTimeBox::dumpFields(int32_t depth) {
    dumpLine(depth, "Reference track ID = %u, NTP time = %" PRIu64 ", Media time = %" PRIu64 "\n",
             referenceTrackId, ntpTimestamp, mediaTime);
}

}  // namespace quil
