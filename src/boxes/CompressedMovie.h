// The compressed movie: "cmov" holding "dcom" (the compression method) and
// "cmvd" (the uncompressed size and the zlib-compressed movie). Such movies
// are only read; the inflated boxes are read from memory.
#ifndef QUIL_BOXES_COMPRESSEDMOVIE_H
#define QUIL_BOXES_COMPRESSEDMOVIE_H

#include <cstdint>
#include <memory>

#include "Box.h"

namespace quil {

// "cmov". Its dump lists the children without braces.
class CCompressedMovieBox : public CContainerBox {
public:
    CCompressedMovieBox() { type = fourcc("cmov"); }
    MP4Err dump(int32_t depth) override;
};

// "dcom": the four-character code of the compression method ("zlib").
class CDataCompressionBox : public CFieldBox<CDataCompressionBox, CBox> {
public:
    CDataCompressionBox() { type = fourcc("dcom"); }
    MP4Err dump(int32_t depth) override;
    template <class IO>
    MP4Err fields(IO& io);

    uint32_t compressionMethod = 0;
};

// "cmvd": reading inflates the payload and reads the boxes inside it
// (normally one "moov") as this box's children. Writing emits only the
// uncompressed size: files are always written uncompressed.
class CCompressedMovieDataBox : public CBox {
public:
    CCompressedMovieDataBox() { type = fourcc("cmvd"); }
    MP4Err read(CStorage* storage) override;
    MP4Err write(CStorage* storage) override;
    MP4Err dump(int32_t depth) override;
    MP4Err calculateSize() override;
    MP4Err findChild(uint32_t type, CBox** box, uint32_t instance = 1) override;
    CBoxList* childList() override { return children.get(); }
    template <class IO>
    MP4Err fields(IO& io);

    // zlib's deflate cannot expand data by more than about 1032:1, so a
    // declared size beyond that is refused before anything is allocated.
    static constexpr uint64_t kMaxInflateRatio = 1032;

    uint32_t uncompressedSize = 0;
    std::unique_ptr<CBoxList> children;
};

}  // namespace quil

#endif
