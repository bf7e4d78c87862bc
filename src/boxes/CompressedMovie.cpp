#include "CompressedMovie.h"

#include <zlib.h>

#include <cstdio>
#include <new>

#include "boxes/FieldBox.h"
#include "io/Dump.h"
#include "io/FourCC.h"
#include "storage/BoundedStorage.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

constexpr uint64_t kMax32 = 0xFFFFFFFFull;

// Set while the boxes of an inflated movie are read. A "cmvd" met inside
// inflated data is refused: nested compression would let each level
// multiply the memory a small file can make us take.
thread_local bool tInflating = false;

class InflatingScope {
public:
    InflatingScope() { tInflating = true; }
    ~InflatingScope() { tInflating = false; }
    InflatingScope(const InflatingScope&) = delete;
    InflatingScope& operator=(const InflatingScope&) = delete;
};

// Reads the boxes of the inflated movie through a memory storage over it.
// The storage is opened for reading, so that readers that seek work here
// as they do in a file.
MP4Err readInflatedBoxes(CBoxList* children, uint8_t* data, uint32_t length) {
    if (!data || length == 0) return MP4_ERR_INVALID_ARGUMENT;
    CMemoryStorage memory;
    memory.attach(data, length, false);
    MP4Err err = memory.open(0);
    if (err != MP4_OK) {
        memory.detach();
        return err;
    }
    uint64_t innerRemaining = length;
    {
        InflatingScope scope;
        err = readChildren(children, &memory, &innerRemaining);
    }
    // A storage that is no longer open was closed underneath us.
    MP4Err closed = memory.close();
    memory.detach();
    if (err != MP4_OK) return err;
    return closed == MP4_OK ? MP4_OK : MP4_ERR_NOT_AVAILABLE;
}

}  // namespace

// ---- "cmov" -----------------------------------------------------------------

MP4Err CCompressedMovieBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    return dumpChildren(children.get(), depth);
}

// ---- "dcom" -----------------------------------------------------------------

template <class IO>
MP4Err CDataCompressionBox::fields(IO& io) {
    return io.u32(compressionMethod).error();
}
template class CFieldBox<CDataCompressionBox, CBox>;

MP4Err CDataCompressionBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    uint32_t m = compressionMethod;
    dumpLine(depth, "Compression method: %c%c%c%c (%02x %02x %02x %02x)\n", codeChar(m, 0),
             codeChar(m, 1), codeChar(m, 2), codeChar(m, 3), (m >> 24) & 0xFF, (m >> 16) & 0xFF,
             (m >> 8) & 0xFF, m & 0xFF);
    return MP4_OK;
}

namespace {

// The largest movie box we inflate: a real one is a small part of its file,
// so anything beyond the file's own length (or 4 MiB for tiny files) is a
// damaged or hostile size, refused before anything is allocated.
uint64_t inflateCeiling(CStorage* storage) {
    constexpr uint64_t kFloor = 4u << 20;
    uint64_t length = 0;
    if (storage->getLength(&length) != MP4_OK) return kFloor;
    return length > kFloor ? length : kFloor;
}

}  // namespace

// ---- "cmvd" -----------------------------------------------------------------

template <class IO>
MP4Err CCompressedMovieDataBox::fields(IO& io) {
    return io.u32(uncompressedSize).error();
}

MP4Err CCompressedMovieDataBox::read(CStorage* storage) {
    if (remaining > size) return MP4_ERR_BAD_BOX_SIZE;
    MP4Err err = readFields(this, storage, &remaining);
    if (err != MP4_OK) return err;

    uint64_t compressedLength = remaining;
    if (tInflating || compressedLength > kMax32 || compressedLength > readableBytes(storage) ||
        uncompressedSize > compressedLength * kMaxInflateRatio ||
        uncompressedSize > inflateCeiling(storage)) {
        // Not inflated: the compressed bytes are passed over and the box
        // is dropped like any damaged one.
        err = storage->skip(remaining);
        remaining = 0;
        return err != MP4_OK ? err : MP4_ERR_INVALID_DATA;
    }

    std::unique_ptr<uint8_t[]> compressed(new (std::nothrow) uint8_t[compressedLength + 1]);
    if (!compressed) return MP4_ERR_OUT_OF_MEMORY;
    err = storage->readBytes(compressed.get(), compressedLength);
    if (err != MP4_OK) return err;
    // The compressed bytes are consumed; what is read below comes from
    // memory, so nothing is left for the factory to skip in the file.
    remaining = 0;

    std::unique_ptr<uint8_t[]> inflated(new (std::nothrow) uint8_t[uncompressedSize + 1ull]);
    if (!inflated) return MP4_ERR_OUT_OF_MEMORY;
    uLongf inflatedLength = uncompressedSize;
    int result = uncompress(inflated.get(), &inflatedLength, compressed.get(),
                            static_cast<uLong>(compressedLength));
    if (result != Z_OK) {
        printf("Error in zLib\n");
        return MP4_ERR_INVALID_DATA;
    }
    compressed.reset();

    if (MP4Err err = startChildList(&children, this)) return err;
    return readInflatedBoxes(children.get(), inflated.get(), static_cast<uint32_t>(inflatedLength));
}

// The inflated boxes are not written back: the movie is written
// uncompressed elsewhere.
MP4Err CCompressedMovieDataBox::write(CStorage* storage) {
    MP4Err err = CBox::write(storage);
    return err != MP4_OK ? err : writeFields(this, storage);
}

MP4Err CCompressedMovieDataBox::dump(int32_t depth) {
    MP4Err err = CBox::dump(depth);
    if (err != MP4_OK) return err;
    dumpLine(depth, "Uncompressed size: %u\n", uncompressedSize);
    return dumpChildren(children.get(), depth);
}

MP4Err CCompressedMovieDataBox::calculateSize() {
    CBox::calculateSize();
    size += countFields(this);
    return MP4_OK;
}

MP4Err CCompressedMovieDataBox::findChild(uint32_t wantedType, CBox** box, uint32_t instance) {
    return findInChildList(children.get(), wantedType, box, instance);
}

}  // namespace quil
