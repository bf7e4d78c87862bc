#include "MovieBoxes.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "Dump.h"
#include "storage/BoundedStorage.h"
#include "storage/BaseStorage.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
constexpr uint32_t kMaxHandlerName = 255;

char codeChar(uint32_t code, int index) {
    return static_cast<char>((code >> (24 - 8 * index)) & 0xFF);
}

// Reads consecutive payload fields, lowering the box's remaining count by
// each field read and refusing (6) a field that the count cannot hold. After the first failure nothing more is read and that
// error is kept.
class PayloadReader {
public:
    PayloadReader(CStorage* storage, uint64_t* remaining)
        : storage_(storage), remaining_(remaining) {}

    PayloadReader& u8(uint8_t& v) { return get(&CStorage::readUInt8, v, 1); }
    PayloadReader& u16(uint16_t& v) { return get(&CStorage::readUInt16, v, 2); }
    PayloadReader& i16(int16_t& v) { return get(&CStorage::readInt16, v, 2); }
    PayloadReader& u32(uint32_t& v) { return get(&CStorage::readUInt32, v, 4); }
    PayloadReader& i32(int32_t& v) { return get(&CStorage::readInt32, v, 4); }
    PayloadReader& u64(uint64_t& v) { return get(&CStorage::readUInt64, v, 8); }
    // A 64-bit field when wide, else a 32-bit one.
    PayloadReader& u32or64(bool wide, uint64_t& v) {
        if (wide) return u64(v);
        uint32_t narrow = 0;
        u32(narrow);
        if (err_ == MP4_OK) v = narrow;
        return *this;
    }
    template <class T, size_t N>
    PayloadReader& each(PayloadReader& (PayloadReader::*one)(T&), T (&values)[N]) {
        for (T& v : values) (this->*one)(v);
        return *this;
    }
    MP4Err error() const { return err_; }

private:
    template <class T>
    PayloadReader& get(MP4Err (CStorage::*read)(T*), T& v, uint64_t width) {
        if (err_ != MP4_OK) return *this;
        // A box too short for its fields stops here; the count never wraps.
        if (*remaining_ < width) {
            err_ = MP4_ERR_BAD_BOX_SIZE;
            return *this;
        }
        err_ = (storage_->*read)(&v);
        if (err_ == MP4_OK) *remaining_ -= width;
        return *this;
    }

    CStorage* storage_;
    uint64_t* remaining_;
    MP4Err err_ = MP4_OK;
};

// Writes consecutive payload fields; after the first failure nothing more
// is written and that error is kept.
class PayloadWriter {
public:
    explicit PayloadWriter(CStorage* storage) : storage_(storage) {}

    PayloadWriter& u8(uint8_t v) { return put(&CStorage::writeUInt8, v); }
    PayloadWriter& u16(uint16_t v) { return put(&CStorage::writeUInt16, v); }
    PayloadWriter& i16(int16_t v) { return put(&CStorage::writeInt16, v); }
    PayloadWriter& u32(uint32_t v) { return put(&CStorage::writeUInt32, v); }
    PayloadWriter& i32(int32_t v) { return put(&CStorage::writeInt32, v); }
    PayloadWriter& u64(uint64_t v) { return put(&CStorage::writeUInt64, v); }
    PayloadWriter& u32or64(bool wide, uint64_t v) {
        return wide ? u64(v) : u32(static_cast<uint32_t>(v));
    }
    template <class T, size_t N>
    PayloadWriter& each(PayloadWriter& (PayloadWriter::*one)(T), const T (&values)[N]) {
        for (T v : values) (this->*one)(v);
        return *this;
    }
    PayloadWriter& block(const void* bytes, uint32_t count) {
        if (err_ == MP4_OK && count > 0) {
            err_ = storage_->writeBlock(bytes, static_cast<int32_t>(count));
        }
        return *this;
    }
    MP4Err error() const { return err_; }

private:
    template <class T>
    PayloadWriter& put(MP4Err (CStorage::*write)(T), T v) {
        if (err_ == MP4_OK) err_ = (storage_->*write)(v);
        return *this;
    }

    CStorage* storage_;
    MP4Err err_ = MP4_OK;
};

// Reads the rest of the payload as text into a buffer one byte longer, so
// that it is always zero-terminated (the hidden terminator is never
// written or counted). A remaining count larger than the box means the
// fixed fields already ran past its end: nothing more is read then.
MP4Err readTextTail(CStorage* storage, const CBox& box, std::unique_ptr<char[]>* text,
                    uint64_t* length) {
    uint64_t count = box.remaining;
    if (count > box.size || count > kMax32 || count > readableBytes(storage)) {
        return MP4_ERR_BAD_BOX_SIZE;
    }
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[count + 1]);
    if (!bytes) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = storage->readBytes(reinterpret_cast<uint8_t*>(bytes.get()), count);
    if (err != MP4_OK) return err;
    bytes[count] = '\0';
    *text = std::move(bytes);
    *length = count;
    return MP4_OK;
}

// Bytes before the first zero; 0 for no text.
uint32_t textLength(const char* text) {
    return text ? static_cast<uint32_t>(std::strlen(text)) : 0;
}

// What printf prints for a missing string on both C runtimes we know.
const char* printable(const char* text) { return text ? text : "(null)"; }

// A copy of at most maxLength characters of text, zero-terminated.
MP4Err copyText(const char* text, uint32_t maxLength, std::unique_ptr<char[]>* out) {
    if (!text) {
        out->reset();
        return MP4_OK;
    }
    size_t length = strnlen(text, maxLength);
    std::unique_ptr<char[]> copy(new (std::nothrow) char[length + 1]);
    if (!copy) return MP4_ERR_OUT_OF_MEMORY;
    std::memcpy(copy.get(), text, length);
    copy[length] = '\0';
    *out = std::move(copy);
    return MP4_OK;
}

MP4Err writeText(PayloadWriter& writer, const char* text) {
    return writer.block(text, textLength(text)).u8(0).error();
}

// Appends a value to an array that grows by doubling, so that a table only
// ever takes memory for the entries actually added.
MP4Err appendValue(std::unique_ptr<uint32_t[]>* array, uint32_t* capacity, uint32_t count,
                   uint32_t value) {
    if (count == 0xFFFFFFFFu) return MP4_ERR_VALUE_TOO_LARGE;
    if (count >= *capacity) {
        uint32_t grown = *capacity < 4 ? 4 : (*capacity > 0x7FFFFFFFu ? 0xFFFFFFFFu : *capacity * 2);
        std::unique_ptr<uint32_t[]> bigger(new (std::nothrow) uint32_t[grown]);
        if (!bigger) return MP4_ERR_OUT_OF_MEMORY;
        if (count > 0) std::memcpy(bigger.get(), array->get(), count * sizeof(uint32_t));
        *array = std::move(bigger);
        *capacity = grown;
    }
    (*array)[count] = value;
    return MP4_OK;
}

MP4Err creationDate(uint64_t creationTime, uint32_t* year, uint32_t* month, uint32_t* day,
                    uint32_t* hour, uint32_t* minute, uint32_t* second) {
    if (!year || !month || !day || !hour || !minute || !second) return MP4_ERR_INVALID_ARGUMENT;
    if (!secondsToDate(creationTime, year, month, day, hour, minute, second)) {
        return MP4_ERR_INVALID_DATA;
    }
    return MP4_OK;
}

MP4Err setCreation(uint64_t* creationTime, uint64_t* modificationTime, uint32_t year,
                   uint32_t month, uint32_t day, uint32_t hour, uint32_t minute,
                   uint32_t second) {
    uint64_t seconds = 0;
    MP4Err err = dateToSeconds(year, month, day, hour, minute, second, &seconds);
    if (err != MP4_OK) return err;
    *creationTime = seconds;
    if (*modificationTime < seconds) *modificationTime = seconds;
    return MP4_OK;
}

}  // namespace

// ---- containers -------------------------------------------------------------

MP4Err CMovieBox::findChild(uint32_t wantedType, CBox** box, uint32_t instance) {
    if (!box) return MP4_ERR_INVALID_ARGUMENT;
    *box = nullptr;
    if (!children) return MP4_ERR_INVALID_DATA;
    CBox* compressed = nullptr;
    MP4Err err = children->findNth(fourcc("cmov"), &compressed, 1);
    if (err == MP4_ERR_NOT_AVAILABLE) return children->findNth(wantedType, box, instance);
    if (err != MP4_OK) return err;

    // A compressed movie: answer from the movie inflated inside "cmvd".
    CBox* data = nullptr;
    CBox* inner = nullptr;
    if (compressed->findChild(fourcc("cmvd"), &data) != MP4_OK) return MP4_ERR_WRONG_LAYOUT;
    if (data->findChild(fourcc("moov"), &inner) != MP4_OK) return MP4_ERR_WRONG_LAYOUT;
    // The inner list is searched directly, not through the inner movie's
    // own findChild: a "cmov" nested inside must not lead further down.
    CBoxList* innerChildren = inner->childList();
    if (!innerChildren) return MP4_ERR_NOT_AVAILABLE;
    return innerChildren->findNth(wantedType, box, instance);
}

MP4Err CUserDataBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    return dumpChildrenInBraces(children.get(), depth);
}

// ---- "ftyp" -----------------------------------------------------------------

MP4Err CFileTypeBox::read(CStorage* storage) {
    PayloadReader reader(storage, &remaining);
    MP4Err err = reader.u32(majorBrand).u32(minorVersion).error();
    if (err != MP4_OK) return err;
    // A remaining count above the box size means the box was too short for
    // the two fixed fields.
    if (remaining > size || remaining % 4 != 0 || remaining / 4 > 0x7FFFFFFF) {
        return MP4_ERR_BAD_BOX_SIZE;
    }
    uint32_t brandCount = static_cast<uint32_t>(remaining / 4);
    compatibleBrands.reset();
    compatibleBrandCount = 0;
    uint32_t capacity = 0;
    for (uint32_t i = 0; i < brandCount; ++i) {
        uint32_t brand = 0;
        err = reader.u32(brand).error();
        if (err != MP4_OK) return err;
        err = appendValue(&compatibleBrands, &capacity, i, brand);
        if (err != MP4_OK) return err;
        ++compatibleBrandCount;
    }
    return MP4_OK;
}

MP4Err CFileTypeBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    PayloadWriter writer(storage);
    writer.u32(majorBrand).u32(minorVersion);
    for (int32_t i = 0; i < compatibleBrandCount; ++i) writer.u32(compatibleBrands[i]);
    return writer.error();
}

MP4Err CFileTypeBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Major Brand=%c%c%c%c Minor Version=%u, #Compatible Brands=%d:\n",
             codeChar(majorBrand, 0), codeChar(majorBrand, 1), codeChar(majorBrand, 2),
             codeChar(majorBrand, 3), minorVersion, compatibleBrandCount);
    for (int32_t i = 0; i < compatibleBrandCount; ++i) {
        uint32_t brand = compatibleBrands[i];
        dumpLine(depth, "Compatible Brand %d: %c%c%c%c\n", i, codeChar(brand, 0),
                 codeChar(brand, 1), codeChar(brand, 2), codeChar(brand, 3));
    }
    return MP4_OK;
}

MP4Err CFileTypeBox::calculateSize() {
    CBox::calculateSize();
    size += 8 + 4 * static_cast<uint64_t>(compatibleBrandCount > 0 ? compatibleBrandCount : 0);
    return MP4_OK;
}

MP4Err CFileTypeBox::setCompatibleBrands(const uint32_t* brands, int32_t count) {
    if (count < 0 || (count > 0 && !brands)) return MP4_ERR_INVALID_ARGUMENT;
    std::unique_ptr<uint32_t[]> copy;
    if (count > 0) {
        copy.reset(new (std::nothrow) uint32_t[count]);
        if (!copy) return MP4_ERR_OUT_OF_MEMORY;
        std::memcpy(copy.get(), brands, static_cast<size_t>(count) * sizeof(uint32_t));
    }
    compatibleBrands = std::move(copy);
    compatibleBrandCount = count;
    return MP4_OK;
}

// ---- "mvhd" -----------------------------------------------------------------

MP4Err CMovieHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    bool wide = version == 1;
    return PayloadReader(storage, &remaining)
        .u32or64(wide, creationTime)
        .u32or64(wide, modificationTime)
        .u32(timeScale)
        .u32or64(wide, duration)
        .i32(rate)
        .i16(volume)
        .u16(reserved1)
        .each(&PayloadReader::u32, reserved2)
        .each(&PayloadReader::i32, matrix)
        .each(&PayloadReader::u32, preDefined)
        .u32(nextTrackId)
        .error();
}

MP4Err CMovieHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    bool wide = version == 1;
    return PayloadWriter(storage)
        .u32or64(wide, creationTime)
        .u32or64(wide, modificationTime)
        .u32(timeScale)
        .u32or64(wide, duration)
        .i32(rate)
        .i16(volume)
        .u16(reserved1)
        .each(&PayloadWriter::u32, reserved2)
        .each(&PayloadWriter::i32, matrix)
        .each(&PayloadWriter::u32, preDefined)
        .u32(nextTrackId)
        .error();
}

MP4Err CMovieHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpTimeLine(depth, "Creation", creationTime);
    dumpTimeLine(depth, "Modification", modificationTime);
    dumpLine(depth, "TimeScale = %u Duration = %" PRIu64 "\n", timeScale, duration);
    dumpLine(depth, "Duration=%" PRIu64 ", Rate=%d, Volume=%d, NextTrackId=%d\n", duration, rate,
             static_cast<int32_t>(volume), static_cast<int32_t>(nextTrackId));
    return MP4_OK;
}

MP4Err CMovieHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += version == 1 ? 112 : 100;
    return MP4_OK;
}

MP4Err CMovieHeaderBox::getCreationDate(uint32_t* year, uint32_t* month, uint32_t* day,
                                        uint32_t* hour, uint32_t* minute, uint32_t* second) {
    return creationDate(creationTime, year, month, day, hour, minute, second);
}

MP4Err CMovieHeaderBox::setCreationDate(uint32_t year, uint32_t month, uint32_t day,
                                        uint32_t hour, uint32_t minute, uint32_t second) {
    return setCreation(&creationTime, &modificationTime, year, month, day, hour, minute, second);
}

// ---- "tkhd" -----------------------------------------------------------------

double CTrackHeaderBox::rotationFromMatrix(const int32_t matrix[9]) {
    // Integer parts of a and c (16.16): an arithmetic shift, which floors.
    int32_t a = matrix[0] >> 16;
    int32_t c = matrix[3] >> 16;
    double x = std::acos(static_cast<double>(a));
    double angle = x * 180.0 / 3.141592653589793;
    // acos gives 0..180; a c equal to sin(x) marks the other half turn.
    if (std::fabs(std::sin(x) - c) < 1e-12 && angle != 0.0) angle = 360.0 - angle;
    return angle;
}

MP4Err CTrackHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    bool wide = version == 1;
    err = PayloadReader(storage, &remaining)
              .u32or64(wide, creationTime)
              .u32or64(wide, modificationTime)
              .u32(trackId)
              .u32(reserved1)
              .u32or64(wide, duration)
              .each(&PayloadReader::u32, reserved2)
              .i16(layer)
              .i16(alternateGroup)
              .i16(volume)
              .u16(reserved3)
              .each(&PayloadReader::i32, matrix)
              .i32(width)
              .i32(height)
              .error();
    if (err != MP4_OK) return err;
    rotationAngle = rotationFromMatrix(matrix);
    return MP4_OK;
}

MP4Err CTrackHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    bool wide = version == 1;
    return PayloadWriter(storage)
        .u32or64(wide, creationTime)
        .u32or64(wide, modificationTime)
        .u32(trackId)
        .u32(reserved1)
        .u32or64(wide, duration)
        .each(&PayloadWriter::u32, reserved2)
        .i16(layer)
        .i16(alternateGroup)
        .i16(volume)
        .u16(reserved3)
        .each(&PayloadWriter::i32, matrix)
        .i32(width)
        .i32(height)
        .error();
}

MP4Err CTrackHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpTimeLine(depth, "Creation", creationTime);
    dumpTimeLine(depth, "Modification", modificationTime);
    dumpLine(depth, "Track ID=%u, Duration=%" PRIu64 "\n", trackId, duration);
    // Under %x a negative 16-bit value prints sign-extended.
    dumpLine(depth, "Layer = %d, Volume = 0x%04x\n", static_cast<int32_t>(layer),
             static_cast<uint32_t>(static_cast<int32_t>(volume)));
    dumpLine(depth, "Matrix: { {%2d,%2d,%2d}, {%2d,%2d,%2d}, {%2d,%2d,%2d} }\n", matrix[0],
             matrix[1], matrix[2], matrix[3], matrix[4], matrix[5], matrix[6], matrix[7],
             matrix[8]);
    // 16.16 values: integer part, low byte of the fraction, integer part.
    dumpLine(depth, "Width = 0x%04x.0x%04x(%4d), Height = 0x%04x.0x%04x(%4d)\n",
             static_cast<uint32_t>(width >> 16), static_cast<uint32_t>(width & 0xFF), width >> 16,
             static_cast<uint32_t>(height >> 16), static_cast<uint32_t>(height & 0xFF),
             height >> 16);
    dumpLine(depth, "Alternate group = %d\n", static_cast<int32_t>(alternateGroup));
    return MP4_OK;
}

MP4Err CTrackHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += version == 1 ? 96 : 84;
    return MP4_OK;
}

// ---- track reference types --------------------------------------------------

MP4Err CTrackReferenceTypeBox::read(CStorage* storage) {
    PayloadReader reader(storage, &remaining);
    // Whole IDs only: 1 to 3 trailing bytes are left to the factory's skip
    // instead of reading past the box.
    while (remaining >= 4) {
        uint32_t trackId = 0;
        MP4Err err = reader.u32(trackId).error();
        if (err != MP4_OK) return err;
        err = addTrackId(trackId);
        if (err != MP4_OK) return err;
    }
    return MP4_OK;
}

MP4Err CTrackReferenceTypeBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    PayloadWriter writer(storage);
    for (uint32_t i = 0; i < count; ++i) writer.u32(trackIds[i]);
    return writer.error();
}

MP4Err CTrackReferenceTypeBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Number of referenced tracks=%d\n", static_cast<int32_t>(count));
    for (uint32_t i = 0; i < count; ++i) {
        dumpLine(depth, "Index: %2d Track Id: %d\n", static_cast<int32_t>(i),
                 static_cast<int32_t>(trackIds[i]));
    }
    return MP4_OK;
}

MP4Err CTrackReferenceTypeBox::calculateSize() {
    CBox::calculateSize();
    size += 4 * static_cast<uint64_t>(count);
    return MP4_OK;
}

MP4Err CTrackReferenceTypeBox::addTrackId(uint32_t trackId) {
    MP4Err err = appendValue(&trackIds, &capacity_, count, trackId);
    if (err != MP4_OK) return err;
    ++count;
    return MP4_OK;
}

// ---- "mdhd" -----------------------------------------------------------------

MP4Err CMediaHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    bool wide = version == 1;
    uint16_t packedLanguage = 0;
    err = PayloadReader(storage, &remaining)
              .u32or64(wide, creationTime)
              .u32or64(wide, modificationTime)
              .u32(timeScale)
              .u32or64(wide, duration)
              .u16(packedLanguage)
              .u16(preDefined)
              .error();
    // The codes are taken even when pre-defined could not be read.
    language[0] = static_cast<uint8_t>((packedLanguage >> 10) & 31);
    language[1] = static_cast<uint8_t>((packedLanguage >> 5) & 31);
    language[2] = static_cast<uint8_t>(packedLanguage & 31);
    return err;
}

MP4Err CMediaHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    bool wide = version == 1;
    uint32_t packedLanguage = ((language[0] * 32u + language[1]) * 32u + language[2]) & 0xFFFF;
    return PayloadWriter(storage)
        .u32or64(wide, creationTime)
        .u32or64(wide, modificationTime)
        .u32(timeScale)
        .u32or64(wide, duration)
        .u16(static_cast<uint16_t>(packedLanguage))
        .u16(preDefined)
        .error();
}

MP4Err CMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpTimeLine(depth, "Creation", creationTime);
    dumpTimeLine(depth, "Modification", modificationTime);
    dumpLine(depth, "Time Scale = %u, Duration = %" PRIu64 "\n", timeScale, duration);
    if (language[0] == 0 && language[1] == 0 && language[2] == 0) {
        dumpLine(depth, "Language Code: ---\n");
    } else {
        dumpLine(depth, "Language Code: %c%c%c\n", static_cast<char>(language[0] + 0x60),
                 static_cast<char>(language[1] + 0x60), static_cast<char>(language[2] + 0x60));
    }
    return MP4_OK;
}

MP4Err CMediaHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += version == 1 ? 36 : 24;
    return MP4_OK;
}

MP4Err CMediaHeaderBox::getTimeScale(uint32_t* value) {
    if (!value) return MP4_ERR_INVALID_ARGUMENT;
    *value = timeScale;
    return MP4_OK;
}

MP4Err CMediaHeaderBox::getDuration(uint64_t* value) {
    if (!value) return MP4_ERR_INVALID_ARGUMENT;
    *value = duration;
    return MP4_OK;
}

MP4Err CMediaHeaderBox::getCreationDate(uint32_t* year, uint32_t* month, uint32_t* day,
                                        uint32_t* hour, uint32_t* minute, uint32_t* second) {
    return creationDate(creationTime, year, month, day, hour, minute, second);
}

MP4Err CMediaHeaderBox::getLanguage(uint8_t* text) {
    if (!text) return MP4_ERR_INVALID_ARGUMENT;
    for (int i = 0; i < 3; ++i) text[i] = static_cast<uint8_t>(language[i] + 0x60);
    return MP4_OK;
}

MP4Err CMediaHeaderBox::setTimeScale(uint32_t value) {
    timeScale = value;
    return MP4_OK;
}

MP4Err CMediaHeaderBox::setDuration(uint64_t value) {
    duration = value;
    return MP4_OK;
}

MP4Err CMediaHeaderBox::setCreationDate(uint32_t year, uint32_t month, uint32_t day,
                                        uint32_t hour, uint32_t minute, uint32_t second) {
    return setCreation(&creationTime, &modificationTime, year, month, day, hour, minute, second);
}

MP4Err CMediaHeaderBox::setLanguage(const uint8_t* text) {
    if (!text) return MP4_ERR_INVALID_ARGUMENT;
    for (int i = 0; i < 3; ++i) {
        if (text[i] < 'a') return MP4_ERR_INVALID_ARGUMENT;
    }
    for (int i = 0; i < 3; ++i) language[i] = static_cast<uint8_t>(text[i] - 0x60);
    return MP4_OK;
}

// ---- "hdlr" -----------------------------------------------------------------

MP4Err CHandlerReferenceBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    err = PayloadReader(storage, &remaining)
              .u32(preDefined)
              .u32(handlerType)
              .each(&PayloadReader::u32, reserved)
              .error();
    if (err != MP4_OK) return err;
    if (remaining > 0) {
        uint64_t length = 0;
        err = readTextTail(storage, *this, &name, &length);
        if (err != MP4_OK) return err;
        nameAsRead_.assign(name.get(), length);
        // A counted (Pascal) string: its first byte is the length of the
        // rest. The count byte is dropped; the rest stays terminated.
        if (static_cast<uint8_t>(name[0]) == length - 1) {
            std::memmove(name.get(), name.get() + 1, length - 1);
            name[length - 1] = '\0';
        }
        nameReadAs_ = name.get();
    }
    remaining = 0;
    return MP4_OK;
}

bool CHandlerReferenceBox::nameIsAsRead() const {
    return name && !nameAsRead_.empty() && nameReadAs_ == name.get();
}

MP4Err CHandlerReferenceBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    PayloadWriter writer(storage);
    writer.u32(preDefined).u32(handlerType).each(&PayloadWriter::u32, reserved);
    if (nameIsAsRead()) {
        writer.block(nameAsRead_.data(), static_cast<uint32_t>(nameAsRead_.size()));
    } else if (name) {
        writeText(writer, name.get());
    }
    return writer.error();
}

MP4Err CHandlerReferenceBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Handler type=%c%c%c%c\n", codeChar(handlerType, 0), codeChar(handlerType, 1),
             codeChar(handlerType, 2), codeChar(handlerType, 3));
    dumpLine(depth, "Name=%s\n", printable(name.get()));
    return MP4_OK;
}

MP4Err CHandlerReferenceBox::calculateSize() {
    CBox::calculateSize();
    size += 24;
    if (nameIsAsRead()) {
        size += nameAsRead_.size();
    } else if (name) {
        size += nameLength() + 1;
    }
    return MP4_OK;
}

MP4Err CHandlerReferenceBox::setName(const char* text) {
    nameAsRead_.clear();
    nameReadAs_.clear();
    return copyText(text, kMaxHandlerName, &name);
}

uint32_t CHandlerReferenceBox::nameLength() const { return textLength(name.get()); }

MP4Err handlerForMediaKind(uint32_t mediaKind, uint32_t fileType, uint32_t* handlerType,
                           const char** name) {
    if (!handlerType || !name) return MP4_ERR_INVALID_ARGUMENT;
    bool xavc = fileType == MP4_FILE_XAVC;
    switch (mediaKind) {
        case MP4_TRACK_VIDEO:
            *handlerType = fourcc("vide");
            *name = xavc ? "Video Media Handler" : "QUIL Video Handler";
            return MP4_OK;
        case MP4_TRACK_AUDIO:
            *handlerType = fourcc("soun");
            *name = xavc ? "Sound Media Handler" : "QUIL Audio Handler";
            return MP4_OK;
        case MP4_TRACK_HINT:
            *handlerType = fourcc("hint");
            *name = "QUIL Hint Handler";
            return MP4_OK;
        case MP4_TRACK_OBJECT_DESCRIPTOR:
            *handlerType = fourcc("odsm");
            *name = "QUIL Object Descriptor Handler";
            return MP4_OK;
        case MP4_TRACK_SCENE_DESCRIPTION:
            *handlerType = fourcc("sdsm");
            *name = "QUIL BIFS Handler";
            return MP4_OK;
        case MP4_TRACK_TIMECODE:
            *handlerType = fourcc("tmcd");
            *name = "QUIL Time Code Handler";
            return MP4_OK;
        default:
            return MP4_ERR_INVALID_ARGUMENT;
    }
}

namespace {

// QuickTime's header of a time-code track: gmhd{tmcd{tcmi}}.
MP4Err createTimeCodeMediaHeader(CBox** box) {
    std::unique_ptr<CBaseMediaHeaderBox> gmhd(new (std::nothrow) CBaseMediaHeaderBox());
    std::unique_ptr<CTimeCodeInformationListBox> tmcd(new (std::nothrow) CTimeCodeInformationListBox());
    std::unique_ptr<CTimeCodeMediaHeaderBox> tcmi(new (std::nothrow) CTimeCodeMediaHeaderBox());
    if (!gmhd || !tmcd || !tcmi) return MP4_ERR_OUT_OF_MEMORY;
    tcmi->textSize = 12;
    MP4Err err = tmcd->addChild(tcmi.get());
    if (err != MP4_OK) return err;
    tcmi.release();
    if ((err = gmhd->addChild(tmcd.get())) != MP4_OK) return err;
    tmcd.release();
    *box = gmhd.release();
    return MP4_OK;
}

}  // namespace

MP4Err createMediaHeaderBox(uint32_t mediaKind, CBox** box) {
    if (!box) return MP4_ERR_INVALID_ARGUMENT;
    *box = nullptr;
    switch (mediaKind) {
        case MP4_TRACK_VIDEO: *box = new (std::nothrow) CVideoMediaHeaderBox(); break;
        case MP4_TRACK_AUDIO: *box = new (std::nothrow) CSoundMediaHeaderBox(); break;
        case MP4_TRACK_HINT: *box = new (std::nothrow) CHintMediaHeaderBox(); break;
        case MP4_TRACK_OBJECT_DESCRIPTOR:
        case MP4_TRACK_SCENE_DESCRIPTION: *box = new (std::nothrow) CNullMediaHeaderBox(); break;
        case MP4_TRACK_TIMECODE: return createTimeCodeMediaHeader(box);
        default: return MP4_ERR_INVALID_ARGUMENT;
    }
    return *box ? MP4_OK : MP4_ERR_OUT_OF_MEMORY;
}

// ---- media-type headers -----------------------------------------------------

MP4Err CVideoMediaHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    return PayloadReader(storage, &remaining)
        .i16(graphicsMode)
        .each(&PayloadReader::i16, opcolor)
        .error();
}

MP4Err CVideoMediaHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    return PayloadWriter(storage).i16(graphicsMode).each(&PayloadWriter::i16, opcolor).error();
}

MP4Err CVideoMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Graphics mode=%d, OP color=%d %d %d\n", static_cast<int32_t>(graphicsMode),
             static_cast<int32_t>(opcolor[0]), static_cast<int32_t>(opcolor[1]),
             static_cast<int32_t>(opcolor[2]));
    return MP4_OK;
}

MP4Err CVideoMediaHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += 12;
    return MP4_OK;
}

MP4Err CSoundMediaHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    return PayloadReader(storage, &remaining).i16(balance).u16(reserved).error();
}

MP4Err CSoundMediaHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    return PayloadWriter(storage).i16(balance).u16(reserved).error();
}

MP4Err CSoundMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Balance=%d\n", static_cast<int32_t>(balance));
    return MP4_OK;
}

MP4Err CSoundMediaHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += 8;
    return MP4_OK;
}

MP4Err CHintMediaHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    return PayloadReader(storage, &remaining)
        .u16(maxPduSize)
        .u16(avgPduSize)
        .u32(maxBitrate)
        .u32(avgBitrate)
        .u32(reserved)
        .error();
}

MP4Err CHintMediaHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    return PayloadWriter(storage)
        .u16(maxPduSize)
        .u16(avgPduSize)
        .u32(maxBitrate)
        .u32(avgBitrate)
        .u32(reserved)
        .error();
}

MP4Err CHintMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Max PDUs=%u, Avg. PDUs=%u, Max. Bitrate=%u, Avg. Bitrate=%u\n",
             static_cast<uint32_t>(maxPduSize), static_cast<uint32_t>(avgPduSize), maxBitrate,
             avgBitrate);
    return MP4_OK;
}

MP4Err CHintMediaHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += 20;
    return MP4_OK;
}

MP4Err CNullMediaHeaderBox::read(CStorage* storage) { return readVersionAndFlags(storage); }

MP4Err CNullMediaHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err != MP4_OK) return err;
    return writeVersionAndFlags(storage);
}

MP4Err CNullMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    return MP4_OK;
}

MP4Err CNullMediaHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += 4;
    return MP4_OK;
}

// ---- "tcmi" -----------------------------------------------------------------

MP4Err CTimeCodeMediaHeaderBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    // Ten 16-bit fields and the font name's length byte.
    if (remaining < 21 || remaining > size) return MP4_ERR_BAD_BOX_SIZE;
    PayloadReader reader(storage, &remaining);
    err = reader.i16(textFont)
              .i16(textFace)
              .i16(textSize)
              .i16(reserved)
              .each(&PayloadReader::i16, textColor)
              .each(&PayloadReader::i16, backgroundColor)
              .u8(fontNameLength)
              .error();
    if (err != MP4_OK) return err;
    if (fontNameLength > remaining) return MP4_ERR_BAD_BOX_SIZE;
    std::unique_ptr<char[]> text(new (std::nothrow) char[fontNameLength + 1u]);
    if (!text) return MP4_ERR_OUT_OF_MEMORY;
    err = storage->readBytes(reinterpret_cast<uint8_t*>(text.get()), fontNameLength);
    if (err != MP4_OK) return err;
    remaining -= fontNameLength;
    text[fontNameLength] = '\0';
    fontName = std::move(text);
    return MP4_OK;
}

MP4Err CTimeCodeMediaHeaderBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    uint8_t length = fontName ? fontNameLength : 0;
    return PayloadWriter(storage)
        .i16(textFont)
        .i16(textFace)
        .i16(textSize)
        .i16(reserved)
        .each(&PayloadWriter::i16, textColor)
        .each(&PayloadWriter::i16, backgroundColor)
        .u8(length)
        .block(fontName.get(), length)
        .error();
}

MP4Err CTimeCodeMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Text font=%hd, face = %hd, size = %hd\n", textFont, textFace, textSize);
    dumpLine(depth, "Text color (RGB) (0x%04hx,0x%04hx,0x%04hx)\n",
             static_cast<uint16_t>(textColor[0]), static_cast<uint16_t>(textColor[1]),
             static_cast<uint16_t>(textColor[2]));
    dumpLine(depth, "Background color(RGB) (0x%04hx,0x%04hx,0x%04hx)\n",
             static_cast<uint16_t>(backgroundColor[0]), static_cast<uint16_t>(backgroundColor[1]),
             static_cast<uint16_t>(backgroundColor[2]));
    dumpLine(depth, "Font name=%s\n", printable(fontName.get()));
    return MP4_OK;
}

MP4Err CTimeCodeMediaHeaderBox::calculateSize() {
    CBox::calculateSize();
    size += 25 + (fontName ? fontNameLength : 0);
    return MP4_OK;
}

// ---- "dref", "url ", "urn " -------------------------------------------------

MP4Err CDataReferenceBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    err = PayloadReader(storage, &remaining).u32(entryCount).error();
    if (err != MP4_OK) return err;
    if (MP4Err err = startChildList(&children, this)) return err;
    return readChildren(children.get(), storage, &remaining);
}

MP4Err CDataReferenceBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err == MP4_OK) err = storage->writeUInt32(entryCount);
    if (err != MP4_OK) return err;
    return writeChildren(children.get(), storage);
}

MP4Err CDataReferenceBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    if (!children) {
        printIndent(depth);
        printf("{");
        return MP4_ERR_INVALID_DATA;
    }
    return dumpChildrenInBraces(children.get(), depth);
}

MP4Err CDataReferenceBox::calculateSize() {
    CBox::calculateSize();
    uint64_t total = size + 8;
    MP4Err err = addChildrenSizes(children.get(), &total);
    size = total;
    return err;
}

MP4Err CDataReferenceBox::findChild(uint32_t wantedType, CBox** box, uint32_t instance) {
    return findInChildList(children.get(), wantedType, box, instance);
}

MP4Err CDataReferenceBox::addChild(CBox* box) {
    MP4Err err = appendToChildList(&children, this, box);
    if (err != MP4_OK) return err;
    ++entryCount;
    return MP4_OK;
}

MP4Err CDataEntryURLBox::read(CStorage* storage) {
    MP4Err err = readVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    // Flags 1: the data is in this file and no location follows.
    if (flags == 0) {
        uint64_t length = 0;
        err = readTextTail(storage, *this, &location, &length);
    }
    remaining = 0;
    return err;
}

MP4Err CDataEntryURLBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    if (textLength(location.get()) == 0) return MP4_OK;
    PayloadWriter writer(storage);
    return writeText(writer, location.get());
}

MP4Err CDataEntryURLBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    return MP4_OK;
}

MP4Err CDataEntryURLBox::calculateSize() {
    CBox::calculateSize();
    // Deliberately without the terminator that write() emits after a
    // location: kept for compatibility with files this library wrote.
    size += 4 + textLength(location.get());
    return MP4_OK;
}

MP4Err CDataEntryURLBox::setLocation(const char* text) {
    return copyText(text, 0xFFFFFFFFu, &location);
}

MP4Err CDataEntryURNBox::read(CStorage* storage) {
    // The strings would come from the storage's string read, which reads
    // nothing: they stay empty and the factory skips the payload.
    return readVersionAndFlags(storage);
}

MP4Err CDataEntryURNBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    if (err == MP4_OK) err = writeVersionAndFlags(storage);
    if (err != MP4_OK) return err;
    uint32_t nameBytes = textLength(name.get());
    uint32_t locationBytes = textLength(location.get());
    if (nameBytes == 0 && locationBytes == 0) return MP4_OK;
    // ISO/IEC 14496-12 §8.7.2: the name is required, the location optional.
    PayloadWriter writer(storage);
    writeText(writer, name.get());
    if (locationBytes > 0) writeText(writer, location.get());
    return writer.error();
}

MP4Err CDataEntryURNBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    return MP4_OK;
}

MP4Err CDataEntryURNBox::calculateSize() {
    CBox::calculateSize();
    size += 4;
    uint32_t nameBytes = textLength(name.get());
    uint32_t locationBytes = textLength(location.get());
    if (nameBytes > 0 || locationBytes > 0) size += nameBytes + 1;
    if (locationBytes > 0) size += locationBytes + 1;
    return MP4_OK;
}

// ---- "mdat" -----------------------------------------------------------------

MP4Err CMediaDataBox::read(CStorage* storage) {
    uint64_t position = 0;
    MP4Err err = storage->getPosition(&position);
    if (err != MP4_OK) return err;
    uint64_t headerLength = size - remaining;
    if (position < headerLength) return MP4_ERR_BAD_BOX_SIZE;
    boxOffset = position - headerLength;
    // Over the network the media data is not downloaded just to pass it:
    // the position stays at the start of the data.
    if (!isNetworkStorage(storage)) {
        err = storage->skip(remaining);
        if (err != MP4_OK) return err;
    }
    dataSize = remaining;
    remaining = 0;
    return MP4_OK;
}

MP4Err CMediaDataBox::write(CStorage*) {
    // The header and the media data are written by the file writer.
    return MP4_OK;
}

MP4Err CMediaDataBox::calculateSize() {
    CBox::calculateSize();
    size += dataSize;
    // Always sized with a 16-byte header, so that the header can later
    // take a 64-bit size in place; above 32 bits getSize adds the 8.
    if (size <= kMax32) size += 8;
    return MP4_OK;
}

}  // namespace quil
