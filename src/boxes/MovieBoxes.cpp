#include "MovieBoxes.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "boxes/FieldBox.h"
#include "io/Dump.h"
#include "io/FourCC.h"
#include "storage/BoundedStorage.h"
#include "storage/BaseStorage.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;
constexpr uint32_t kMaxHandlerName = 255;

// Reads the rest of the payload as text into a buffer one byte longer, so
// that it is always zero-terminated (the hidden terminator is never
// written or counted). A budget larger than the box means the fixed fields
// already ran past its end: nothing more is read then.
MP4Err readTextTail(FieldReader<uint64_t>& io, uint64_t boxSize, std::unique_ptr<char[]>* text,
                    uint64_t* length) {
    uint64_t count = io.left();
    if (count > boxSize || count > kMax32 || count > readableBytes(io.storage())) {
        return MP4_ERR_BAD_BOX_SIZE;
    }
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[count + 1]);
    if (!bytes) return MP4_ERR_OUT_OF_MEMORY;
    MP4Err err = io.bytes(reinterpret_cast<uint8_t*>(bytes.get()), count).error();
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

// Version and flags, then the fields "mvhd" and "mdhd" start with: the
// creation and modification times, the time scale and the duration, the
// times and duration in 64 bits in version 1.
template <class IO, class Header>
IO& timedHeaderFields(IO& io, Header* box) {
    if (!io.versionAndFlags(box->version, box->flags).ok()) return io;
    const bool wide = box->version == 1;
    return io.named("creationTime")
        .u32or64(wide, box->creationTime)
        .named("modificationTime")
        .u32or64(wide, box->modificationTime)
        .named("timeScale")
        .u32(box->timeScale)
        .named("duration")
        .u32or64(wide, box->duration);
}

// A text and its terminating zero, written or counted.
template <class IO>
IO& zeroTerminated(IO& io, const char* text) {
    return io.bytes(reinterpret_cast<const uint8_t*>(text), textLength(text)).u8(0);
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

template <class IO>
MP4Err CFileTypeBox::fields(IO& io) {
    if (!io.named("majorBrand", FieldForm::kCode)
             .u32(majorBrand)
             .named("minorVersion")
             .u32(minorVersion)
             .ok()) {
        return io.error();
    }
    if constexpr (IO::kLists) {
        // The brands the listed bytes hold, as one field.
        return io.named("compatibleBrands").codes().error();
    } else if constexpr (IO::kReads) {
        // A budget above the box size means the box was too short for the
        // two fixed fields.
        if (remaining > size || remaining % 4 != 0 || remaining / 4 > 0x7FFFFFFF) {
            return MP4_ERR_BAD_BOX_SIZE;
        }
        uint32_t brandCount = static_cast<uint32_t>(remaining / 4);
        compatibleBrands.reset();
        compatibleBrandCount = 0;
        uint32_t capacity = 0;
        for (uint32_t i = 0; i < brandCount; ++i) {
            uint32_t brand = 0;
            if (!io.u32(brand).ok()) return io.error();
            MP4Err err = appendValue(&compatibleBrands, &capacity, i, brand);
            if (err != MP4_OK) return err;
            ++compatibleBrandCount;
        }
        return MP4_OK;
    }
    for (int32_t i = 0; i < compatibleBrandCount; ++i) io.u32(compatibleBrands[i]);
    return io.error();
}
template class CFieldBox<CFileTypeBox, CBox>;
MP4Err CFileTypeBox::listFields(FieldLister& io) { return fields(io); }

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

template <class IO>
MP4Err CMovieHeaderBox::fields(IO& io) {
    return timedHeaderFields(io, this)
        .i32(rate)
        .i16(volume)
        .u16(reserved1)
        .array(reserved2)
        .array(matrix)
        .array(preDefined)
        .u32(nextTrackId)
        .error();
}
template class CFieldBox<CMovieHeaderBox, CFullBox>;
MP4Err CMovieHeaderBox::listFields(FieldLister& io) { return fields(io); }

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

template <class IO>
MP4Err CTrackHeaderBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    const bool wide = version == 1;
    io.u32or64(wide, creationTime)
        .u32or64(wide, modificationTime)
        .named("trackId")
        .u32(trackId)
        .u32(reserved1)
        .named("duration")
        .u32or64(wide, duration)
        .array(reserved2)
        .i16(layer)
        .i16(alternateGroup)
        .i16(volume)
        .u16(reserved3)
        .array(matrix)
        .i32(width)
        .i32(height);
    if (IO::kReads && io.ok()) rotationAngle = rotationFromMatrix(matrix);
    return io.error();
}
template class CFieldBox<CTrackHeaderBox, CFullBox>;
MP4Err CTrackHeaderBox::listFields(FieldLister& io) { return fields(io); }

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

// ---- track reference types --------------------------------------------------

template <class IO>
MP4Err CTrackReferenceTypeBox::fields(IO& io) {
    if constexpr (IO::kReads) {
        // Whole IDs only: 1 to 3 trailing bytes are left to the factory's
        // skip instead of reading past the box.
        while (io.left() >= 4) {
            uint32_t trackId = 0;
            if (!io.u32(trackId).ok()) return io.error();
            MP4Err err = addTrackId(trackId);
            if (err != MP4_OK) return err;
        }
        return MP4_OK;
    }
    for (uint32_t i = 0; i < count; ++i) io.u32(trackIds[i]);
    return io.error();
}
template class CFieldBox<CTrackReferenceTypeBox, CBox>;

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

MP4Err CTrackReferenceTypeBox::addTrackId(uint32_t trackId) {
    MP4Err err = appendValue(&trackIds, &capacity_, count, trackId);
    if (err != MP4_OK) return err;
    ++count;
    return MP4_OK;
}

// ---- "mdhd" -----------------------------------------------------------------

template <class IO>
MP4Err CMediaHeaderBox::fields(IO& io) {
    return timedHeaderFields(io, this)
        .language(language)
        .u16(preDefined)
        .error();
}
template class CFieldBox<CMediaHeaderBox, CFullBox>;
MP4Err CMediaHeaderBox::listFields(FieldLister& io) { return fields(io); }

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

template <class IO>
MP4Err CHandlerReferenceBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags)
             .u32(preDefined)
             .named("handlerType", FieldForm::kCode)
             .u32(handlerType)
             .array(reserved)
             .ok()) {
        return io.error();
    }
    if constexpr (IO::kLists) {
        // As stored, up to its terminator: a counted name keeps its count.
        return io.named("name").text().error();
    } else if constexpr (IO::kReads) {
        if (io.left() > 0) {
            uint64_t length = 0;
            MP4Err err = readTextTail(io, size, &name, &length);
            if (err != MP4_OK) return err;
            nameAsRead_.assign(name.get(), length);
            // A counted (Pascal) string: its first byte is the length of
            // the rest. The count byte is dropped; the rest stays terminated.
            if (static_cast<uint8_t>(name[0]) == length - 1) {
                std::memmove(name.get(), name.get() + 1, length - 1);
                name[length - 1] = '\0';
            }
            nameReadAs_ = name.get();
        }
        remaining = 0;
        return MP4_OK;
    } else {
        if (nameIsAsRead()) {
            io.bytes(reinterpret_cast<const uint8_t*>(nameAsRead_.data()), nameAsRead_.size());
        } else if (name) {
            zeroTerminated(io, name.get());
        }
        return io.error();
    }
}
template class CFieldBox<CHandlerReferenceBox, CFullBox>;
MP4Err CHandlerReferenceBox::listFields(FieldLister& io) { return fields(io); }

bool CHandlerReferenceBox::nameIsAsRead() const {
    return name && !nameAsRead_.empty() && nameReadAs_ == name.get();
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

template <class IO>
MP4Err CVideoMediaHeaderBox::fields(IO& io) {
    return io.versionAndFlags(version, flags).i16(graphicsMode).array(opcolor).error();
}
template class CFieldBox<CVideoMediaHeaderBox, CFullBox>;
MP4Err CVideoMediaHeaderBox::listFields(FieldLister& io) { return fields(io); }

template <class IO>
MP4Err CSoundMediaHeaderBox::fields(IO& io) {
    return io.versionAndFlags(version, flags).i16(balance).u16(reserved).error();
}
template class CFieldBox<CSoundMediaHeaderBox, CFullBox>;
MP4Err CSoundMediaHeaderBox::listFields(FieldLister& io) { return fields(io); }

template <class IO>
MP4Err CHintMediaHeaderBox::fields(IO& io) {
    return io.versionAndFlags(version, flags)
        .u16(maxPduSize)
        .u16(avgPduSize)
        .u32(maxBitrate)
        .u32(avgBitrate)
        .u32(reserved)
        .error();
}
template class CFieldBox<CHintMediaHeaderBox, CFullBox>;

template <class IO>
MP4Err CNullMediaHeaderBox::fields(IO& io) {
    return io.versionAndFlags(version, flags).error();
}
template class CFieldBox<CNullMediaHeaderBox, CFullBox>;

MP4Err CVideoMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Graphics mode=%d, OP color=%d %d %d\n", static_cast<int32_t>(graphicsMode),
             static_cast<int32_t>(opcolor[0]), static_cast<int32_t>(opcolor[1]),
             static_cast<int32_t>(opcolor[2]));
    return MP4_OK;
}

MP4Err CSoundMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    dumpLine(depth, "Balance=%d\n", static_cast<int32_t>(balance));
    return MP4_OK;
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

MP4Err CNullMediaHeaderBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    return MP4_OK;
}

// ---- "tcmi" -----------------------------------------------------------------

template <class IO>
MP4Err CTimeCodeMediaHeaderBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    // Ten 16-bit fields and the font name's length byte.
    if (IO::kReads && (remaining < 21 || remaining > size)) return MP4_ERR_BAD_BOX_SIZE;
    uint8_t length = fontName ? fontNameLength : 0;
    io.i16(textFont)
        .i16(textFace)
        .i16(textSize)
        .i16(reserved)
        .array(textColor)
        .array(backgroundColor)
        .u8(length);
    if (!io.ok()) return io.error();
    if constexpr (IO::kReads) {
        fontNameLength = length;
        if (fontNameLength > remaining) return MP4_ERR_BAD_BOX_SIZE;
        std::unique_ptr<char[]> text(new (std::nothrow) char[fontNameLength + 1u]);
        if (!text) return MP4_ERR_OUT_OF_MEMORY;
        if (!io.bytes(reinterpret_cast<uint8_t*>(text.get()), fontNameLength).ok()) return io.error();
        text[fontNameLength] = '\0';
        fontName = std::move(text);
        return MP4_OK;
    } else {
        return io.bytes(reinterpret_cast<const uint8_t*>(fontName.get()), length).error();
    }
}
template class CFieldBox<CTimeCodeMediaHeaderBox, CFullBox>;

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

// ---- "dref", "url ", "urn " -------------------------------------------------

template <class IO>
MP4Err CDataReferenceBox::fields(IO& io) {
    return io.versionAndFlags(version, flags).named("entryCount").u32(entryCount).error();
}
template class CFieldBox<CDataReferenceBox, CFullBox>;
MP4Err CDataReferenceBox::listFields(FieldLister& io) { return fields(io); }

MP4Err CDataReferenceBox::read(CStorage* storage) {
    MP4Err err = readFields(this, storage, &remaining);
    if (err != MP4_OK) return err;
    if (MP4Err err = startChildList(&children, this)) return err;
    return readChildren(children.get(), storage, &remaining);
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

MP4Err CDataReferenceBox::findChild(uint32_t wantedType, CBox** box, uint32_t instance) {
    return findInChildList(children.get(), wantedType, box, instance);
}

MP4Err CDataReferenceBox::addChild(CBox* box) {
    MP4Err err = appendToChildList(&children, this, box);
    if (err != MP4_OK) return err;
    ++entryCount;
    return MP4_OK;
}

template <class IO>
MP4Err CDataEntryURLBox::fields(IO& io) {
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    if constexpr (IO::kReads) {
        MP4Err err = MP4_OK;
        // Flags 1: the data is in this file and no location follows.
        if (flags == 0) {
            uint64_t length = 0;
            err = readTextTail(io, size, &location, &length);
        }
        remaining = 0;
        return err;
    } else {
        if (textLength(location.get()) == 0) return io.error();
        return zeroTerminated(io, location.get()).error();
    }
}
template class CFieldBox<CDataEntryURLBox, CFullBox>;

MP4Err CDataEntryURLBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    return MP4_OK;
}

MP4Err CDataEntryURLBox::calculateSize() {
    MP4Err err = CFieldBox::calculateSize();
    // Deliberately without the terminator that write() emits after a
    // location: kept for compatibility with files this library wrote.
    if (textLength(location.get()) > 0) size -= 1;
    return err;
}

MP4Err CDataEntryURLBox::setLocation(const char* text) {
    return copyText(text, 0xFFFFFFFFu, &location);
}

template <class IO>
MP4Err CDataEntryURNBox::fields(IO& io) {
    // The strings would come from the storage's string read, which reads
    // nothing: they stay empty when read and the factory skips the payload.
    if (!io.versionAndFlags(version, flags).ok()) return io.error();
    if constexpr (!IO::kReads) {
        uint32_t locationBytes = textLength(location.get());
        if (textLength(name.get()) == 0 && locationBytes == 0) return MP4_OK;
        // ISO/IEC 14496-12 §8.7.2: the name is required, the location optional.
        zeroTerminated(io, name.get());
        if (locationBytes > 0) zeroTerminated(io, location.get());
    }
    return io.error();
}
template class CFieldBox<CDataEntryURNBox, CFullBox>;

MP4Err CDataEntryURNBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpVersionAndFlags(depth);
    return MP4_OK;
}

// ---- "mdat" -----------------------------------------------------------------

MP4Err CMediaDataBox::read(CStorage* storage) {
    MP4Err err = boxStartOffset(*this, storage, &boxOffset);
    if (err != MP4_OK) return err;
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
