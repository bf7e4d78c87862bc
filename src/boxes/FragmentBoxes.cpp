#include "FragmentBoxes.h"

#include <cinttypes>
#include <cstdio>
#include <new>

#include "boxes/FieldBox.h"
#include "io/Dump.h"

namespace quil {

namespace {

// Version, flags and the box's own lines.
template <class Lines>
MP4Err dumpFullBox(CFullBox* box, int32_t depth, Lines lines) {
    MP4Err err = box->CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Version = %d, Flags = 0x%06x\n", static_cast<int32_t>(box->version), box->flags);
    lines();
    return MP4_OK;
}

// A zero-terminated text (the terminator counted, not kept); reading stops
// at the box's end.
template <class IO>
IO& text(IO& io, std::string& v) {
    if constexpr (IO::kReads) {
        v.clear();
        for (uint8_t c = 1; io.ok() && c != 0;) {
            if (io.u8(c).ok() && c != 0) v.push_back(static_cast<char>(c));
        }
        return io;
    } else {
        return io.bytes(reinterpret_cast<const uint8_t*>(v.data()), v.size()).u8(0);
    }
}

// Every byte left in the box (bounded by the box, which the reader's
// window holds).
template <class IO>
IO& restOfBox(IO& io, std::string& v) {
    if constexpr (IO::kReads) {
        v.assign(static_cast<size_t>(io.left()), '\0');
        return io.bytes(reinterpret_cast<uint8_t*>(&v[0]), v.size());
    } else {
        return io.bytes(reinterpret_cast<const uint8_t*>(v.data()), v.size());
    }
}

// An unsigned field of 1 to 4 bytes.
template <class IO>
IO& sized(IO& io, uint32_t width, uint32_t& v) {
    switch (width) {
        case 1: {
            uint8_t narrow = static_cast<uint8_t>(v);
            io.u8(narrow);
            v = narrow;
            return io;
        }
        case 2: {
            uint16_t narrow = static_cast<uint16_t>(v);
            io.u16(narrow);
            v = narrow;
            return io;
        }
        case 3: return io.u24(v);
        default: return io.u32(v);
    }
}

// count big-endian 32-bit words. Read as one block and converted in
// place: the same bytes as a storage call per value, a fraction of the
// calls on files with many samples.
template <class IO>
IO& words(IO& io, uint32_t* values, uint64_t count) {
    if constexpr (IO::kReads) {
        uint8_t* raw = reinterpret_cast<uint8_t*>(values);
        if (!io.bytes(raw, count * 4).ok()) return io;
        for (uint64_t i = 0; i < count; ++i) {
            const uint8_t* p = raw + 4 * i;
            values[i] = static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
                        static_cast<uint32_t>(p[2]) << 8 | p[3];
        }
        return io;
    } else if constexpr (IO::kCounts) {
        return io.bytes(nullptr, count * 4);
    } else {
        for (uint64_t i = 0; i < count && io.ok(); ++i) io.u32(values[i]);
        return io;
    }
}

// Makes an array of count entries for reading, once the bytes for them are
// known to be in the box (entryBytes each): a damaged count allocates nothing.
template <class IO, class T>
MP4Err makeEntries(IO& io, std::unique_ptr<T[]>* entries, uint64_t count, uint64_t entryBytes) {
    if constexpr (IO::kReads) {
        entries->reset();
        if (count > io.left() / entryBytes) return MP4_ERR_BAD_BOX_SIZE;
        if (count == 0) return MP4_OK;
        entries->reset(new (std::nothrow) T[count]);
        return *entries ? MP4_OK : MP4_ERR_OUT_OF_MEMORY;
    } else {
        return count > 0 && !*entries ? MP4_ERR_INVALID_DATA : MP4_OK;
    }
}

}  // namespace

// ---- "moof" -----------------------------------------------------------------

MP4Err CMovieFragmentBox::read(CStorage* storage) {
    MP4Err err = boxStartOffset(*this, storage, &boxOffset);
    return err != MP4_OK ? err : CContainerBox::read(storage);
}

// ---- "mehd", "trex", "mfhd" ----------------------------------------------------

template <class IO>
MP4Err CMovieExtendsHeaderBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    return io.u32or64(version == 1, fragmentDuration).error();
}

MP4Err CMovieExtendsHeaderBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Fragment duration = %" PRIu64 "\n", fragmentDuration);
    });
}

template <class IO>
MP4Err CTrackExtendsBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    return io.named("trackId")
        .u32(trackId)
        .named("defaultSampleDescriptionIndex")
        .u32(defaultSampleDescriptionIndex)
        .named("defaultSampleDuration")
        .u32(defaultSampleDuration)
        .named("defaultSampleSize")
        .u32(defaultSampleSize)
        .named("defaultSampleFlags")
        .u32(defaultSampleFlags)
        .error();
}

MP4Err CTrackExtendsBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Track ID=%u, Default sample description index = %u\n", trackId,
                 defaultSampleDescriptionIndex);
        dumpLine(depth, "Default sample duration = %u, size = %u, flags = 0x%08x\n",
                 defaultSampleDuration, defaultSampleSize, defaultSampleFlags);
    });
}

template <class IO>
MP4Err CMovieFragmentHeaderBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    return io.named("sequenceNumber").u32(sequenceNumber).error();
}

MP4Err CMovieFragmentHeaderBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Sequence number = %u\n", sequenceNumber);
    });
}

// ---- "tfhd", "tfdt" ----------------------------------------------------------

template <class IO>
MP4Err CTrackFragmentHeaderBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    io.u32(trackId);
    if (flags & kBaseDataOffset) io.u64(baseDataOffset);
    if (flags & kDescriptionIndex) io.u32(sampleDescriptionIndex);
    if (flags & kDefaultDuration) io.u32(defaultSampleDuration);
    if (flags & kDefaultSize) io.u32(defaultSampleSize);
    if (flags & kDefaultFlags) io.u32(defaultSampleFlags);
    return io.error();
}

MP4Err CTrackFragmentHeaderBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Track ID=%u\n", trackId);
        if (flags & kBaseDataOffset) dumpLine(depth, "Base data offset = %" PRIu64 "\n", baseDataOffset);
        if (flags & kDescriptionIndex) {
            dumpLine(depth, "Sample description index = %u\n", sampleDescriptionIndex);
        }
        if (flags & kDefaultDuration) dumpLine(depth, "Default sample duration = %u\n", defaultSampleDuration);
        if (flags & kDefaultSize) dumpLine(depth, "Default sample size = %u\n", defaultSampleSize);
        if (flags & kDefaultFlags) dumpLine(depth, "Default sample flags = 0x%08x\n", defaultSampleFlags);
    });
}

template <class IO>
MP4Err CTrackFragmentDecodeTimeBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    return io.named("baseMediaDecodeTime").u32or64(version == 1, baseMediaDecodeTime).error();
}

MP4Err CTrackFragmentDecodeTimeBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Base media decode time = %" PRIu64 "\n", baseMediaDecodeTime);
    });
}

// ---- "trun" -----------------------------------------------------------------

uint32_t CTrackRunBox::stride() const {
    uint32_t words = 0;
    for (uint32_t flag : {kDuration, kSize, kFlags, kCompositionOffset}) words += (flags & flag) ? 1 : 0;
    return words;
}

void CTrackRunBox::layOut() {
    stride_ = 0;
    for (uint32_t flag : {kDuration, kSize, kFlags, kCompositionOffset}) {
        slots_[flagIndex(flag)] = (flags & flag) ? static_cast<uint8_t>(stride_++) : kAbsent;
    }
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
    layOut();
    return MP4_OK;
}

template <class IO>
MP4Err CTrackRunBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    io.u32(sampleCount);
    if (flags & kDataOffset) io.i32(dataOffset);
    if (flags & kFirstSampleFlags) io.u32(firstSampleFlags);
    if (io.error() != MP4_OK) return io.error();
    if constexpr (IO::kReads) layOut();
    // The count is trusted only as far as the box holds its samples.
    const uint64_t count = static_cast<uint64_t>(sampleCount) * stride();
    MP4Err err = makeEntries(io, &values_, count, 4);
    return err != MP4_OK ? err : words(io, values_.get(), count).error();
}

MP4Err CTrackRunBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Sample count = %u\n", sampleCount);
        if (flags & kDataOffset) dumpLine(depth, "Data offset = %d\n", dataOffset);
        if (flags & kFirstSampleFlags) dumpLine(depth, "First sample flags = 0x%08x\n", firstSampleFlags);
    });
}

// ---- "sidx" -----------------------------------------------------------------

template <class IO>
MP4Err CSegmentIndexBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
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

MP4Err CSegmentIndexBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
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
    });
}

// ---- "tfra", "mfro" ------------------------------------------------------------

template <class IO>
MP4Err CTrackFragmentRandomAccessBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
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
        sized(io, trafBytes, e.trafNumber);
        sized(io, trunBytes, e.trunNumber);
        sized(io, sampleBytes, e.sampleNumber);
    }
    return io.error();
}

MP4Err CTrackFragmentRandomAccessBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Track ID=%u, Entry count = %u\n", trackId, entryCount);
        for (uint32_t i = 0; i < entryCount && entries; ++i) {
            const Entry& e = entries[i];
            dumpLine(depth, "  Time = %" PRIu64 ", Moof offset = %" PRIu64 ", Traf = %u, Trun = %u, Sample = %u\n",
                     e.time, e.moofOffset, e.trafNumber, e.trunNumber, e.sampleNumber);
        }
    });
}

template <class IO>
MP4Err CMovieFragmentRandomAccessOffsetBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    return io.u32(mfraSize).error();
}

MP4Err CMovieFragmentRandomAccessOffsetBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Mfra size = %u\n", mfraSize);
    });
}

// ---- "emsg", "prft" ------------------------------------------------------------

template <class IO>
MP4Err CEventMessageBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    if (version == 0) {
        text(text(io, schemeIdUri), value).u32(timeScale).u32or64(false, presentationTime);
        io.u32(eventDuration).u32(id);
    } else {
        io.u32(timeScale).u64(presentationTime).u32(eventDuration).u32(id);
        text(text(io, schemeIdUri), value);
    }
    return restOfBox(io, messageData).error();
}

MP4Err CEventMessageBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Scheme = %s, Value = %s\n", schemeIdUri.c_str(), value.c_str());
        dumpLine(depth, "Timescale = %u, %s = %" PRIu64 ", Duration = %u, ID = %u\n", timeScale,
                 version == 0 ? "Presentation time delta" : "Presentation time", presentationTime,
                 eventDuration, id);
        dumpLine(depth, "Message size = %u\n", static_cast<uint32_t>(messageData.size()));
    });
}

template <class IO>
MP4Err CProducerReferenceTimeBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    return io.u32(referenceTrackId).u64(ntpTimestamp).u32or64(version != 0, mediaTime).error();
}

MP4Err CProducerReferenceTimeBox::dump(int32_t depth) {
    return dumpFullBox(this, depth, [&] {
        dumpLine(depth, "Reference track ID = %u, NTP time = %" PRIu64 ", Media time = %" PRIu64 "\n",
                 referenceTrackId, ntpTimestamp, mediaTime);
    });
}

// One instantiation per box of the family (boxes/FieldBox.h).
template class CFieldBox<CMovieExtendsHeaderBox, CFullBox>;
template class CFieldBox<CTrackExtendsBox, CFullBox>;
template class CFieldBox<CMovieFragmentHeaderBox, CFullBox>;
template class CFieldBox<CTrackFragmentHeaderBox, CFullBox>;
template class CFieldBox<CTrackFragmentDecodeTimeBox, CFullBox>;
template class CFieldBox<CTrackRunBox, CFullBox>;
template class CFieldBox<CSegmentIndexBox, CFullBox>;
template class CFieldBox<CTrackFragmentRandomAccessBox, CFullBox>;
template class CFieldBox<CMovieFragmentRandomAccessOffsetBox, CFullBox>;
template class CFieldBox<CEventMessageBox, CFullBox>;
template class CFieldBox<CProducerReferenceTimeBox, CFullBox>;

// The boxes a report lists by their named fields.
MP4Err CTrackExtendsBox::listFields(FieldLister& io) { return fields(io); }
MP4Err CMovieFragmentHeaderBox::listFields(FieldLister& io) { return fields(io); }
MP4Err CTrackFragmentDecodeTimeBox::listFields(FieldLister& io) { return fields(io); }

}  // namespace quil
