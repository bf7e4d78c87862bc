// The box header forms, the factory's rules and the container reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <tuple>

#include "BoxBuilder.h"
#include "boxes/Box.h"
#include "boxes/BoxFactory.h"
#include "storage/DiscStorage.h"

namespace quil {
namespace {

using test::box;
using test::ByteWriter;
using test::Bytes;
using test::concat;
using test::MemoryFile;

struct ReadResult {
    MP4Err err;
    std::unique_ptr<CBox> box;
    uint32_t type;
    uint64_t parentRemaining;
    uint32_t position;
};

ReadResult readOne(const Bytes& bytes, uint32_t parentType = 0, int64_t parentRemaining = -1) {
    MemoryFile file(bytes);
    ReadResult r{};
    r.parentRemaining = parentRemaining < 0 ? bytes.size() : static_cast<uint64_t>(parentRemaining);
    CBox* out = nullptr;
    r.err = readBox(file.storage(), parentType, &out, &r.type, &r.parentRemaining);
    r.box.reset(out);
    r.position = file.position();
    return r;
}

Bytes uuidBox(const uint8_t (&user)[16], const Bytes& payload) {
    ByteWriter w;
    w.u32(static_cast<uint32_t>(24 + payload.size())).code("uuid");
    for (uint8_t b : user) w.u8(b);
    return w.raw(payload);
}

TEST(BoxHeader, ReadsTheFourHeaderForms) {
    auto plain = readOne(box("free", Bytes(10, 0xAA)));
    ASSERT_EQ(plain.err, MP4_OK);
    EXPECT_EQ(plain.box->size, 18u);
    EXPECT_TRUE(plain.box->sizeFromFile);

    auto large = readOne(test::largeBox("free", Bytes(5, 1)));
    ASSERT_EQ(large.err, MP4_OK);
    EXPECT_EQ(large.box->size, 21u);
    EXPECT_EQ(large.position, 21u);

    // Size 0: the box runs to the end of the storage.
    Bytes toEnd = ByteWriter().u32(0).code("free").zeros(100);
    auto open = readOne(toEnd);
    ASSERT_EQ(open.err, MP4_OK);
    EXPECT_EQ(open.box->size, 108u);
    EXPECT_EQ(open.position, 108u);

    const uint8_t user[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    auto withUser = readOne(uuidBox(user, Bytes(4, 0)));
    ASSERT_EQ(withUser.err, MP4_OK);
    EXPECT_EQ(withUser.box->size, 28u);
    ASSERT_TRUE(withUser.box->usertype);
    EXPECT_EQ(withUser.box->usertype[15], 16);
}

TEST(BoxHeader, SizeSmallerThanHeaderIsRefused) {
    EXPECT_EQ(readOne(box("free", {}, 4)).err, MP4_ERR_BAD_BOX_SIZE);
    // A largesize below its own 16-byte header.
    EXPECT_EQ(readOne(ByteWriter().u32(1).code("free").u64(12).zeros(8)).err,
              MP4_ERR_BAD_BOX_SIZE);
}

TEST(BoxHeader, WritesLargeSizeOnlyWhenNeeded) {
    CBox small;
    small.type = fourcc("free");
    small.calculateSize();
    MemoryFile out(Bytes(8), true);
    ASSERT_EQ(small.write(out.storage()), MP4_OK);
    EXPECT_EQ(out.bytes(), Bytes(ByteWriter().u32(8).code("free")));

    CBox big;
    big.type = fourcc("mdat");
    big.size = 0x100000000ull;  // a computed size above 32 bits
    uint64_t reported = 0;
    big.getSize(&reported);
    EXPECT_EQ(reported, 0x100000008ull);
    MemoryFile out2(Bytes(16), true);
    ASSERT_EQ(big.write(out2.storage()), MP4_OK);
    EXPECT_EQ(out2.bytes(), Bytes(ByteWriter().u32(1).code("mdat").u64(0x100000008ull)));
    EXPECT_EQ(big.size, 0x100000008ull);
}

// Boxes the library does not interpret keep their payload and are written
// back unchanged, so a rewrite loses nothing.
TEST(BoxFactory, UnknownBoxKeepsItsPayload) {
    const Bytes zzzz = box("zzzz", Bytes(20, 7));
    auto r = readOne(concat({zzzz, box("free", {})}));
    ASSERT_EQ(r.err, MP4_OK);
    EXPECT_EQ(r.type, 0u);
    EXPECT_EQ(r.position, 28u);
    EXPECT_EQ(r.parentRemaining, 8u);
    r.box->calculateSize();
    MemoryFile out(Bytes(28), true);
    ASSERT_EQ(r.box->write(out.storage()), MP4_OK);
    EXPECT_EQ(out.bytes(), zzzz);
}

TEST(BoxFactory, BoxLargerThanParentAnswersNotAvailable) {
    Bytes bytes = box("free", Bytes(40, 0));
    auto r = readOne(bytes, 0, 30);
    EXPECT_EQ(r.err, MP4_ERR_NOT_AVAILABLE);
    EXPECT_FALSE(r.box);
    // Header larger than what is left of the parent.
    EXPECT_EQ(readOne(bytes, 0, 4).err, MP4_ERR_BAD_BOX_SIZE);
}

TEST(BoxFactory, ParentDecidesTheClass) {
    // "mp4a" directly inside "wave" is not a sample entry.
    Bytes entry = box("mp4a", Bytes(28, 0));
    EXPECT_EQ(readOne(entry, fourcc("wave")).type, 0u);
    EXPECT_EQ(readOne(entry, fourcc("stsd")).type, fourcc("mp4a"));
    // "tmcd" is known only under "tref", "gmhd" and "stsd".
    Bytes tmcd = box("tmcd", {});
    EXPECT_EQ(readOne(tmcd, fourcc("tref")).type, fourcc("tmcd"));
    EXPECT_EQ(readOne(tmcd, fourcc("moov")).type, 0u);
    // Type 0 inside "wave" ends the "wave".
    EXPECT_EQ(readOne(box("\0\0\0\0", {}), fourcc("wave")).err, MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(readOne(box("\0\0\0\0", {}), fourcc("moov")).err, MP4_OK);
}

TEST(BoxFactory, RtpOutsideItsParentsIsAWrongLayout) {
    auto r = readOne(box("rtp ", Bytes(12, 0)), fourcc("moov"));
    EXPECT_EQ(r.err, MP4_ERR_WRONG_LAYOUT);
    EXPECT_EQ(r.position, 8u);  // payload not skipped
}

TEST(BoxFactory, UuidIsToldApartByFirstFourBytes) {
    const uint8_t prof[16] = {0x50, 0x52, 0x4F, 0x46, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(readOne(uuidBox(prof, Bytes(8, 0))).type, fourcc("uuid"));
    const uint8_t other[16] = {0x50, 0x52, 0x4F, 0x47};
    EXPECT_EQ(readOne(uuidBox(other, Bytes(8, 0))).type, 0u);
}

TEST(BoxFactory, TableHasNoDuplicateRows) {
    uint32_t count = 0;
    const BoxFactoryRow* rows = boxFactoryTable(&count);
    std::set<std::tuple<uint32_t, int, uint32_t>> seen;
    for (uint32_t i = 0; i < count; ++i) {
        auto key = std::make_tuple(rows[i].type, static_cast<int>(rows[i].rule), rows[i].parent);
        EXPECT_TRUE(seen.insert(key).second) << "duplicate row " << i;
    }
}

// What a reader does not interpret is kept: writing the tree again gives
// back the bytes that were read, and the storage ends after the box.
TEST(ContainerReading, WhatIsNotInterpretedIsWrittenBackUnchanged) {
    const Bytes waveEnd = ByteWriter().u32(8).u32(0);
    const struct {
        const char* what;
        Bytes bytes;
        uint32_t children;
    } cases[] = {
        {"child larger than its parent",
         box("moov", concat({box("free", Bytes(4, 0)), box("skip", Bytes(4, 0), 200), Bytes(12, 0)})), 1},
        {"stray bytes after the children", box("moov", concat({box("free", {}), Bytes(5, 0xEE)})), 1},
        {"terminator of a wave", box("wave", concat({box("enda", Bytes(2, 1)), waveEnd, Bytes(4, 0)})), 1},
        {"damaged child", box("trak", concat({box("free", {}), box("skip", {}, 4), box("free", {})})), 1},
        {"table shorter than its count",
         box("stbl", test::fullBox("stsz", 0, 0, ByteWriter().u32(0).u32(75).u32(1))), 1},
        {"box too short for its fields", box("moov", concat({test::fullBox("dref", 0, 0, {}), box("free", {})})),
         2},
        {"unknown box inside a known one", box("moov", box("zzzz", Bytes(300, 9))), 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto r = readOne(concat({c.bytes, box("free", {})}));
        ASSERT_EQ(r.err, MP4_OK);
        ASSERT_NE(r.box->childList(), nullptr);
        EXPECT_EQ(r.box->childList()->count(), c.children);
        EXPECT_EQ(r.position, c.bytes.size());
        EXPECT_EQ(test::writeTree(r.box.get()), c.bytes);
    }
}

// A payload beyond the in-memory bound stays in the file and is copied
// from there when written.
TEST(ContainerReading, LargeUnknownPayloadIsCopiedFromTheFile) {
    Bytes payload(CKeptBytes::kKeepInMemory + 100);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
    const Bytes file = concat({box("zzzz", payload), box("free", {})});
    std::string path = testing::TempDir() + "quil-large-unknown-" + std::to_string(getpid()) + ".bin";
    FILE* out = fopen(path.c_str(), "wb");
    ASSERT_NE(out, nullptr);
    fwrite(file.data(), 1, file.size(), out);
    fclose(out);

    CDiscStorage disc;
    std::wstring wide(path.begin(), path.end());
    ASSERT_EQ(disc.setPath(wide.c_str()), MP4_OK);
    ASSERT_EQ(disc.open(0), MP4_OK);
    uint64_t remaining = file.size();
    CBox* read = nullptr;
    uint32_t type = 0;
    ASSERT_EQ(readBox(&disc, 0, &read, &type, &remaining), MP4_OK);
    std::unique_ptr<CBox> owned(read);
    EXPECT_EQ(test::writeTree(read), box("zzzz", payload));
    disc.close();
    std::remove(path.c_str());
}

TEST(ContainerReading, DeepNestingIsBoundedAndDoesNotCrash) {
    Bytes inner = box("free", {});
    for (int i = 0; i < 500; ++i) inner = box("trak", inner);
    auto r = readOne(inner);
    EXPECT_EQ(r.err, MP4_OK);
    EXPECT_EQ(boxNesting(), 0u);
}

TEST(BoxList, FindsInstancesAndWalksWithCursor) {
    CContainerBox parent;
    parent.type = fourcc("moov");
    for (const char* code : {"trak", "free", "trak", "trak"}) {
        auto* child = new CBox();
        child->type = fourcc(*reinterpret_cast<const char(*)[5]>(code));
        ASSERT_EQ(parent.addChild(child), MP4_OK);
    }
    CBox* found = nullptr;
    EXPECT_EQ(parent.findChild(fourcc("trak"), &found, 0), MP4_OK);
    CBox* first = found;
    EXPECT_EQ(parent.findChild(fourcc("trak"), &found, 1), MP4_OK);
    EXPECT_EQ(found, first);
    EXPECT_EQ(parent.findChild(fourcc("trak"), &found, 3), MP4_OK);
    EXPECT_EQ(found, parent.childList()->head()->next->next->next->box);
    EXPECT_EQ(parent.findChild(fourcc("trak"), &found, 4), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(parent.findChild(fourcc("mdia"), &found), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(parent.childList()->append(nullptr), MP4_ERR_INVALID_ARGUMENT);
}

TEST(BoxDump, PrintsHeaderBracesAndHexTypes) {
    auto r = readOne(box("moov", box("free", {})));
    ASSERT_EQ(r.err, MP4_OK);
    testing::internal::CaptureStdout();
    ASSERT_EQ(r.box->dump(1), MP4_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\n  Box type = moov  Size = 16\n  {\n    Box type = free  Size = 8\n  }\n");

    CBox odd;
    odd.type = 0x01020304;
    odd.size = 8;
    testing::internal::CaptureStdout();
    odd.dump(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nBox type = 0x01020304  Size = 8\n");

    CBox noUser;
    noUser.type = fourcc("uuid");
    testing::internal::CaptureStdout();
    EXPECT_EQ(noUser.dump(0), MP4_ERR_INVALID_DATA);
    testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace quil
