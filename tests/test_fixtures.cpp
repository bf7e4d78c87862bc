// The generated media fixtures (tests/data) through the box reader: real
// files from ffmpeg must read to their end, every box of a movie must write
// exactly the size it computes and reread to the same bytes, and each
// damaged file must keep what precedes its fault and nothing after it.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "boxes/Box.h"
#include "boxes/BoxFactory.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"

namespace quil {
namespace {

using test::Bytes;
using test::MemoryFile;

Bytes loadFixture(const std::string& name) {
    std::ifstream in(std::string(QUIL_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string typeName(uint32_t type) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8) {
        name += static_cast<char>((type >> shift) & 0xFF);
    }
    return name;
}

std::vector<std::string> childTypes(CBoxList* list) {
    std::vector<std::string> types;
    for (CBoxList::Node* node = list ? list->head() : nullptr; node; node = node->next) {
        types.push_back(typeName(node->box->type));
    }
    return types;
}

// The top level of a file as the file object reads it: a list without an
// owner over the whole storage.
struct TopLevel {
    explicit TopLevel(Bytes bytes) : file(std::move(bytes)), boxes(nullptr) {
        uint64_t remaining = file.bytes().size();
        resetBoxNesting();
        err = readChildren(&boxes, file.storage(), &remaining);
    }
    CBox* find(uint32_t type) {
        CBox* box = nullptr;
        return boxes.findNth(type, &box, 1) == MP4_OK ? box : nullptr;
    }
    MemoryFile file;
    CBoxList boxes;
    MP4Err err;
};

CBox* child(CBox* parent, uint32_t type, uint32_t instance = 1) {
    CBox* box = nullptr;
    if (parent == nullptr || parent->findChild(type, &box, instance) != MP4_OK) {
        return nullptr;
    }
    return box;
}

// Sizes a box tree, writes it into a buffer of exactly that size, and
// returns the bytes; fails the test if the writer's count differs.
Bytes writeBox(CBox* box) {
    EXPECT_EQ(box->calculateSize(), MP4_OK);
    uint64_t size = 0;
    EXPECT_EQ(box->getSize(&size), MP4_OK);
    MemoryFile out(Bytes(size, 0), true);
    EXPECT_EQ(box->write(out.storage()), MP4_OK) << typeName(box->type);
    EXPECT_EQ(out.position(), size) << "bytes written differ from the size computed for "
                                    << typeName(box->type);
    return out.bytes();
}

struct IntactFixture {
    const char* name;
    std::vector<std::string> topLevel;
    uint32_t tracks;
};

const IntactFixture kIntact[] = {
    {"h264-aac.mp4", {"ftyp", "free", "mdat", "moov"}, 2},
    {"h264-aac-faststart.mp4", {"ftyp", "moov", "free", "mdat"}, 2},
    {"h264-bframes.mp4", {"ftyp", "free", "mdat", "moov"}, 1},
    {"hevc-hvc1.mp4", {"ftyp", "free", "mdat", "moov"}, 1},
    {"mpeg4-aac.mp4", {"ftyp", "free", "mdat", "moov"}, 2},
    {"h263-amrnb.3gp", {"ftyp", "free", "mdat", "moov"}, 2},
    {"pcm-sowt.mov", {"ftyp", "wide", "mdat", "moov"}, 1},
    {"pcm-twos.mov", {"ftyp", "wide", "mdat", "moov"}, 1},
    {"timecode.mov", {"ftyp", "wide", "mdat", "moov"}, 2},
    {"audio-delay.mp4", {"ftyp", "free", "mdat", "moov"}, 1},
    {"rotate-90.mp4", {"ftyp", "free", "mdat", "moov"}, 1},
};

TEST(Fixtures, IntactFilesReadToTheirEnd) {
    for (const IntactFixture& fixture : kIntact) {
        SCOPED_TRACE(fixture.name);
        Bytes bytes = loadFixture(fixture.name);
        ASSERT_GT(bytes.size(), 1000u) << "missing fixture; run scripts/make-fixtures.sh";
        TopLevel top(bytes);
        ASSERT_EQ(top.err, MP4_OK);
        EXPECT_EQ(childTypes(&top.boxes), fixture.topLevel);
        EXPECT_EQ(top.file.position(), bytes.size());

        uint64_t total = 0;
        for (CBoxList::Node* node = top.boxes.head(); node; node = node->next) {
            total += node->box->size;
        }
        EXPECT_EQ(total, bytes.size()) << "top-level sizes do not add up to the file";

        CBox* moov = top.find(fourcc("moov"));
        ASSERT_NE(moov, nullptr);
        ASSERT_NE(moov->childList(), nullptr);
        uint32_t traks = 0;
        for (const std::string& type : childTypes(moov->childList())) {
            traks += type == "trak";
        }
        EXPECT_EQ(traks, fixture.tracks);
        // Each track reaches its sample tables.
        for (uint32_t n = 1; n <= fixture.tracks; ++n) {
            CBox* minf = child(child(child(moov, fourcc("trak"), n), fourcc("mdia")), fourcc("minf"));
            EXPECT_NE(child(minf, fourcc("stbl")), nullptr) << "track " << n;
        }
    }
}

// Writing is the inverse of reading: a movie box written once (which may
// normalise forms, such as descriptor size fields) rereads and rewrites to
// the same bytes, and every box writes exactly the size it computed.
TEST(Fixtures, MovieBoxRewritesStably) {
    for (const IntactFixture& fixture : kIntact) {
        SCOPED_TRACE(fixture.name);
        TopLevel top(loadFixture(fixture.name));
        CBox* moov = top.find(fourcc("moov"));
        ASSERT_NE(moov, nullptr);
        Bytes first = writeBox(moov);

        MemoryFile reread(first);
        CBox* copy = nullptr;
        uint32_t type = 0;
        uint64_t remaining = first.size();
        resetBoxNesting();
        ASSERT_EQ(readBox(reread.storage(), 0, &copy, &type, &remaining), MP4_OK);
        std::unique_ptr<CBox> owned(copy);
        EXPECT_EQ(remaining, 0u);
        EXPECT_EQ(reread.position(), first.size());
        Bytes second = writeBox(copy);
        EXPECT_EQ(second, first);
    }
}

struct DamagedFixture {
    const char* name;
    std::vector<std::string> topLevel;  // what must be read before the fault
    std::vector<std::string> moov;      // moov's children, when it is read
    std::vector<std::string> firstTrak; // the first trak's children, when checked
};

const DamagedFixture kDamaged[] = {
    // moov runs past the end of the file: it does not fit and is skipped.
    {"bad-truncated-moov.mp4", {"ftyp", "free", "mdat"}, {}, {}},
    // mdat runs past the end: the intact moov before it is kept.
    {"bad-truncated-mdat-faststart.mp4",
     {"ftyp", "moov", "free"},
     {"mvhd", "trak", "trak", "udta"},
     {}},
    // A 4-byte box cannot hold its own header: reading stops there.
    {"bad-size4-toplevel.mp4", {"ftyp"}, {}, {}},
    {"bad-size4-in-moov.mp4",
     {"ftyp", "free", "mdat", "moov"},
     {"mvhd", "trak", "trak"},
     {}},
    // mdia claims more than its trak holds: the rest of that trak is
    // skipped, the second track is untouched.
    {"bad-child-larger-than-parent.mp4",
     {"ftyp", "free", "mdat", "moov"},
     {"mvhd", "trak", "trak", "udta"},
     {"tkhd", "edts"}},
    // Bytes after the last box are not a box; nothing of them is kept.
    {"bad-garbage-appended.mp4",
     {"ftyp", "free", "mdat", "moov"},
     {"mvhd", "trak", "trak", "udta"},
     {"tkhd", "edts", "mdia"}},
    // The sample-size table claims more entries than it holds.
    {"bad-stsz-count.mp4", {"ftyp", "free", "mdat", "moov"}, {}, {}},
};

TEST(Fixtures, DamagedFilesKeepWhatPrecedesTheFault) {
    for (const DamagedFixture& fixture : kDamaged) {
        SCOPED_TRACE(fixture.name);
        Bytes bytes = loadFixture(fixture.name);
        ASSERT_GT(bytes.size(), 0u) << "missing fixture; run scripts/make-fixtures.sh";
        TopLevel top(bytes);
        EXPECT_EQ(top.err, MP4_OK);  // damage ends the reading quietly
        EXPECT_EQ(childTypes(&top.boxes), fixture.topLevel);
        CBox* moov = top.find(fourcc("moov"));
        if (!fixture.moov.empty()) {
            ASSERT_NE(moov, nullptr);
            EXPECT_EQ(childTypes(moov->childList()), fixture.moov);
        }
        if (!fixture.firstTrak.empty()) {
            CBox* trak = child(moov, fourcc("trak"));
            ASSERT_NE(trak, nullptr);
            EXPECT_EQ(childTypes(trak->childList()), fixture.firstTrak);
        }
    }
}

// Whatever a damaged file leaves in memory must still dump, size and write
// without faults (the sanitizer build makes this strict).
TEST(Fixtures, DamagedTreesDumpAndRewrite) {
    for (const DamagedFixture& fixture : kDamaged) {
        SCOPED_TRACE(fixture.name);
        TopLevel top(loadFixture(fixture.name));
        testing::internal::CaptureStdout();
        for (CBoxList::Node* node = top.boxes.head(); node; node = node->next) {
            EXPECT_EQ(node->box->dump(0), MP4_OK) << typeName(node->box->type);
        }
        std::string dump = testing::internal::GetCapturedStdout();
        EXPECT_EQ(dump.rfind("\nBox type = ftyp  Size = ", 0), 0u) << dump.substr(0, 80);
        if (CBox* moov = top.find(fourcc("moov"))) {
            // A table whose count promises more entries than it holds
            // refuses to be written (3); anything written fits its size.
            ASSERT_EQ(moov->calculateSize(), MP4_OK);
            uint64_t size = 0;
            moov->getSize(&size);
            MemoryFile out(Bytes(size, 0), true);
            MP4Err err = moov->write(out.storage());
            EXPECT_TRUE(err == MP4_OK || err == MP4_ERR_NOT_AVAILABLE) << err;
            if (err == MP4_OK) {
                EXPECT_EQ(out.position(), size);
            }
        }
    }
}

// ---- damage sweep -----------------------------------------------------------

struct Span {
    uint64_t offset;
    uint64_t size;
    uint32_t track;  // 1-based trak the box lies in, 0 for movie-level boxes
};

uint32_t u32At(const Bytes& bytes, uint64_t offset) {
    return (uint32_t{bytes[offset]} << 24) | (uint32_t{bytes[offset + 1]} << 16) |
           (uint32_t{bytes[offset + 2]} << 8) | bytes[offset + 3];
}

// Every box with a 32-bit size between begin and end, descending into the
// containers of a movie box; the "trak" boxes themselves count as movie-level.
void collectBoxes(const Bytes& bytes, uint64_t begin, uint64_t end, uint32_t track,
                  std::vector<Span>* out) {
    static const uint32_t kContainers[] = {fourcc("trak"), fourcc("mdia"), fourcc("minf"), fourcc("stbl"),
                                           fourcc("dinf"), fourcc("edts"), fourcc("udta")};
    uint32_t traks = 0;
    for (uint64_t at = begin; at + 8 <= end;) {
        uint64_t size = u32At(bytes, at);
        if (size < 8 || at + size > end) return;
        uint32_t type = u32At(bytes, at + 4);
        uint32_t owner = track;
        if (type == fourcc("trak") && track == 0) owner = ++traks;
        out->push_back({at, size, type == fourcc("trak") ? 0 : owner});
        for (uint32_t container : kContainers) {
            if (type == container) collectBoxes(bytes, at + 8, at + size, owner, out);
        }
        at += size;
    }
}

// One line per sample of each track that binds: offset, size, times, sync.
std::vector<std::vector<std::string>> sampleListings(Bytes bytes) {
    std::vector<std::vector<std::string>> listings;
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
    CMp4File* file = nullptr;
    EXPECT_EQ(CMp4File::createInstance(&file), MP4_OK);
    uint32_t tracks = 0;
    if (file->setStorage(&storage) == MP4_OK && file->open(nullptr, 0, 0) == MP4_OK) {
        file->getTrackCount(&tracks);
    }
    for (uint32_t n = 1; n <= tracks; ++n) {
        std::vector<std::string> lines;
        CMp4Track* track = nullptr;
        uint32_t count = 0;
        if (file->getTrack(n, &track) == MP4_OK && track->getSampleCount(&count) == MP4_OK) {
            for (uint32_t i = 1; i <= count; ++i) {
                uint64_t offset = 0, dts = 0, cts = 0;
                uint32_t size = 0, sync = 0;
                track->getSampleOffset(i, &offset, &size);
                track->getSampleDecodeTime(i, &dts);
                track->getSampleCompositionTime(i, &cts);
                track->isSyncSample(i, &sync);
                lines.push_back(std::to_string(offset) + " " + std::to_string(size) + " " +
                                std::to_string(dts) + " " + std::to_string(cts) + " " +
                                std::to_string(sync));
            }
        }
        if (track) file->releaseTrack(track);
        listings.push_back(std::move(lines));
    }
    file->close();
    CMp4File::destroyInstance(&file);
    storage.detach();
    return listings;
}

// One damaged box at a time, declared 12 bytes long (its old payload is then
// read as whatever follows it): the tracks that do not hold it read exactly
// as before.
TEST(Fixtures, DamageStaysInsideItsTrack) {
    for (const char* name : {"h264-aac.mp4", "h263-amrnb.3gp", "timecode.mov"}) {
        SCOPED_TRACE(name);
        const Bytes original = loadFixture(name);
        const auto intact = sampleListings(original);
        ASSERT_GE(intact.size(), 2u);
        std::vector<Span> boxes;
        for (uint64_t at = 0; at + 8 <= original.size();) {
            uint64_t size = u32At(original, at);
            if (size < 8) break;
            if (u32At(original, at + 4) == fourcc("moov")) collectBoxes(original, at + 8, at + size, 0, &boxes);
            at += size;
        }
        ASSERT_GT(boxes.size(), 20u);
        for (const Span& box : boxes) {
            if (box.size <= 12 || box.track == 0) continue;
            Bytes damaged = original;
            damaged[box.offset] = damaged[box.offset + 1] = damaged[box.offset + 2] = 0;
            damaged[box.offset + 3] = 12;
            const auto listings = sampleListings(damaged);
            for (uint32_t n = 1; n <= intact.size(); ++n) {
                if (n == box.track) continue;
                ASSERT_GE(listings.size(), n) << "box at " << box.offset;
                EXPECT_EQ(listings[n - 1], intact[n - 1]) << "track " << n << ", box at " << box.offset;
            }
        }
    }
}

}  // namespace
}  // namespace quil
