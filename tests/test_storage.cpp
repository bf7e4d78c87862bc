#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "storage/Base64.h"
#include "storage/BaseStorage.h"
#include "storage/BoundedStorage.h"
#include "storage/DiscStorage.h"
#include "storage/FileCopy.h"
#include "storage/MediaReader.h"
#include "storage/MemoryStorage.h"
#include "storage/WidePath.h"

namespace quil {
namespace {

using Bytes = std::vector<uint8_t>;

// Byte i of the patterned test files: not periodic within 64 KiB.
uint8_t pattern(uint64_t i) { return static_cast<uint8_t>(i * 7 + (i >> 8) * 13); }
uint32_t patternU32(uint64_t at) {
    return static_cast<uint32_t>(pattern(at)) << 24 | static_cast<uint32_t>(pattern(at + 1)) << 16 |
           static_cast<uint32_t>(pattern(at + 2)) << 8 | pattern(at + 3);
}

class DiscStorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = ::testing::TempDir() + "quil_storage_" + std::to_string(getpid()) + "_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::error_code error;
        std::filesystem::create_directories(dir_, error);
        ASSERT_FALSE(error) << dir_;
    }
    void TearDown() override {
        std::error_code error;
        std::filesystem::remove_all(dir_, error);
    }

    static std::wstring wide(const std::string& utf8) {
        std::wstring out;
        EXPECT_EQ(MP4_OK, utf8ToWidePath(utf8.c_str(), &out));
        return out;
    }
    std::string makeFile(const std::string& name, const Bytes& bytes) {
        std::string path = dir_ + "/" + name;
        FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr) {
            ADD_FAILURE() << "cannot create " << path;
            return path;
        }
        if (!bytes.empty()) {
            EXPECT_EQ(bytes.size(), std::fwrite(bytes.data(), 1, bytes.size(), f));
        }
        std::fclose(f);
        return path;
    }
    static Bytes patternBytes(size_t n) {
        Bytes b(n);
        for (size_t i = 0; i < n; ++i) b[i] = pattern(i);
        return b;
    }
    void openOn(const std::string& path, uint32_t mode) {
        ASSERT_EQ(MP4_OK, storage_.setPath(wide(path).c_str()));
        ASSERT_EQ(MP4_OK, storage_.open(mode));
    }
    uint64_t position() {
        uint64_t p = 0;
        EXPECT_EQ(MP4_OK, storage_.getPosition(&p));
        return p;
    }
    uint32_t eof() {
        uint32_t e = 7;
        EXPECT_EQ(MP4_OK, storage_.isEof(&e));
        return e;
    }

    std::string dir_;
    CDiscStorage storage_;
};

TEST_F(DiscStorageTest, StateCodes) {
    uint8_t byte = 5;
    EXPECT_EQ(MP4_ERR_IO, storage_.open(0)) << "no path yet";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage_.seek(0));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage_.flush());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage_.readUInt8(&byte));
    EXPECT_EQ(0u, byte) << "out-parameters are cleared first";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage_.writeBytes(&byte, 1));
    EXPECT_EQ(MP4_OK, storage_.skip(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage_.skip(1));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage_.setPath(nullptr));

    ASSERT_EQ(MP4_OK, storage_.setPath(wide(dir_ + "/missing").c_str()));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage_.open(2));
    EXPECT_EQ(MP4_ERR_IO, storage_.open(0)) << "a bad mode set no flag";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage_.open(0)) << "a failed open stays open";
    EXPECT_EQ(MP4_OK, storage_.close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage_.close());
    ASSERT_EQ(MP4_OK, storage_.setPath(wide(dir_).c_str()));
    EXPECT_EQ(MP4_ERR_IO, storage_.open(0)) << "a directory is no file";
    EXPECT_EQ(MP4_OK, storage_.close());

    std::wstring longPath(3000, L'x');
    ASSERT_EQ(MP4_OK, storage_.setPath(longPath.c_str()));
    EXPECT_EQ(2047u, std::wcslen(storage_.path()));
    const wchar_t bad[] = {L'/', L't', static_cast<wchar_t>(0xD800), 0};
    ASSERT_EQ(MP4_OK, storage_.setPath(bad));
    EXPECT_EQ(MP4_ERR_IO, storage_.open(1));
    EXPECT_EQ(MP4_OK, storage_.close());
}

TEST_F(DiscStorageTest, WritesAndReadsBigEndianValues) {
    std::string path = dir_ + "/caf\xC3\xA9.bin";  // reaches the file system as UTF-8
    openOn(path, 1);
    EXPECT_EQ(MP4_OK, storage_.writeUInt64(0x0102030405060708u));
    EXPECT_EQ(MP4_OK, storage_.writeUInt24(0x12345678u));
    EXPECT_EQ(MP4_OK, storage_.writeUInt16(0xBEEF));
    EXPECT_EQ(MP4_OK, storage_.writeInt32(-3));
    EXPECT_EQ(MP4_OK, storage_.writeInt8(-6));
    EXPECT_EQ(MP4_OK, storage_.writeBlock("\xA1\xA2", 2));
    EXPECT_EQ(MP4_OK, storage_.writeString("hi"));
    EXPECT_EQ(23u, position());
    uint64_t length = 0;
    EXPECT_EQ(MP4_OK, storage_.getLength(&length));
    EXPECT_EQ(23u, length) << "buffered bytes count";
    ASSERT_EQ(MP4_OK, storage_.seek(4));
    EXPECT_EQ(MP4_OK, storage_.writeUInt16(0xCAFE));
    EXPECT_EQ(MP4_OK, storage_.close());

    openOn(path, 0);
    Bytes file(23);
    ASSERT_EQ(MP4_OK, storage_.readBlock(file.data(), 23));
    EXPECT_EQ((Bytes{1, 2, 3, 4, 0xCA, 0xFE, 7, 8, 0x34, 0x56, 0x78, 0xBE, 0xEF, 0xFF, 0xFF,
                     0xFF, 0xFD, 0xFA, 0xA1, 0xA2, 'h', 'i', 0}),
              file);
    ASSERT_EQ(MP4_OK, storage_.seek(2));
    uint32_t u32 = 0;
    int16_t i16 = 0;
    uint64_t u64 = 0;
    EXPECT_EQ(MP4_OK, storage_.readUInt24(&u32));
    EXPECT_EQ(0x0304CAu, u32);
    ASSERT_EQ(MP4_OK, storage_.seek(15));
    EXPECT_EQ(MP4_OK, storage_.readInt16(&i16));
    EXPECT_EQ(-3, i16);
    ASSERT_EQ(MP4_OK, storage_.seek(0));
    EXPECT_EQ(MP4_OK, storage_.readUInt64(&u64));
    EXPECT_EQ(0x01020304CAFE0708u, u64);
    EXPECT_EQ(MP4_OK, storage_.close());
}

// Writing starts the file afresh, over an existing file with bytes or an
// empty one (a temporary file made for the output, opened without a
// truncation).
TEST_F(DiscStorageTest, WritingReplacesAnExistingFile) {
    for (const Bytes& before : {patternBytes(100), Bytes{}}) {
        const std::string path = makeFile("old.bin", before);
        openOn(path, 1);
        EXPECT_EQ(MP4_OK, storage_.writeUInt16(0xBEEF));
        EXPECT_EQ(MP4_OK, storage_.close());
        std::ifstream written(path, std::ios::binary);
        EXPECT_EQ((Bytes{0xBE, 0xEF}), Bytes(std::istreambuf_iterator<char>(written), {}));
    }
}

TEST_F(DiscStorageTest, RefusedOperationsLeaveTheEndFlagAlone) {
    openOn(makeFile("r.bin", {1, 2, 3, 4}), 0);
    EXPECT_EQ(MP4_ERR_IO, storage_.writeUInt32(1));
    EXPECT_EQ(MP4_ERR_IO, storage_.writeBytes("x", 1));
    EXPECT_EQ(0u, eof());
    EXPECT_EQ(MP4_OK, storage_.close());

    openOn(dir_ + "/w.bin", 1);
    uint8_t buffer[4];
    EXPECT_EQ(MP4_ERR_IO, storage_.readUInt8(buffer));
    EXPECT_EQ(MP4_ERR_IO, storage_.readBlock(buffer, 4));
    EXPECT_EQ(MP4_ERR_IO, storage_.writeBytes(buffer, 0)) << "deliberate: empty writes fail";
    EXPECT_EQ(MP4_ERR_IO, storage_.writeBlock(buffer, -1));
    EXPECT_EQ(0u, eof());
    EXPECT_EQ(0u, position());
    EXPECT_EQ(MP4_OK, storage_.close());
}

TEST_F(DiscStorageTest, EndOfFileAndSkips) {
    openOn(makeFile("short.bin", patternBytes(10)), 0);
    ASSERT_EQ(MP4_OK, storage_.seek(7));
    uint32_t u32 = 0;
    EXPECT_EQ(MP4_ERR_IO, storage_.readUInt32(&u32));
    EXPECT_EQ(patternU32(6) & 0xFFFFFF, u32) << "the partly built value is kept";
    EXPECT_EQ(10u, position()) << "consumed bytes count";
    EXPECT_EQ(1u, eof());
    uint8_t buffer[20];
    EXPECT_EQ(MP4_ERR_END_OF_FILE, storage_.readBlock(buffer, 0));
    EXPECT_EQ(MP4_ERR_IO, storage_.readBytes(buffer, 1)) << "only readBlock answers 11";
    EXPECT_EQ(MP4_OK, storage_.skip(0));
    EXPECT_EQ(1u, eof()) << "skip(0) touches nothing";

    ASSERT_EQ(MP4_OK, storage_.seek(10));
    EXPECT_EQ(0u, eof()) << "seek clears the flag";
    EXPECT_EQ(MP4_OK, storage_.readBlock(buffer, 0));
    ASSERT_EQ(MP4_OK, storage_.seek(4));
    EXPECT_EQ(MP4_ERR_IO, storage_.readBlock(buffer, 20)) << "short block read";
    EXPECT_EQ(pattern(9), buffer[5]);
    EXPECT_EQ(10u, position());
    EXPECT_EQ(MP4_ERR_END_OF_FILE, storage_.readBlock(buffer, 1));

    EXPECT_EQ(MP4_OK, storage_.skip(5)) << "past the end is allowed";
    EXPECT_EQ(0u, eof());
    EXPECT_EQ(15u, position());
    // A wrapped count, as an over-consuming box reader passes, lands back.
    EXPECT_EQ(MP4_OK, storage_.skip(UINT64_MAX - 12));
    EXPECT_EQ(2u, position());
    EXPECT_EQ(MP4_OK, storage_.readUInt32(&u32));
    EXPECT_EQ(patternU32(2), u32);
    EXPECT_EQ(MP4_ERR_IO, storage_.skip(UINT64_C(1) << 63));
    EXPECT_EQ(MP4_ERR_IO, storage_.seek(UINT64_C(1) << 63));
    EXPECT_EQ(6u, position());
    EXPECT_EQ(MP4_OK, storage_.close());
}

TEST_F(DiscStorageTest, ReadAheadIsInvisible) {
    const size_t size = 300 * 1024;
    Bytes content = patternBytes(size);
    openOn(makeFile("big.bin", content), 0);

    // Around 64 KiB boundaries, backwards and forwards, near and far.
    for (uint64_t at : {0, 10, 4, 65532, 65534, 65530, 1000, 131070, 65536, 200000, 199990, 3}) {
        uint32_t u32 = 0;
        ASSERT_EQ(MP4_OK, storage_.seek(at));
        ASSERT_EQ(MP4_OK, storage_.readUInt32(&u32)) << at;
        EXPECT_EQ(patternU32(at), u32) << at;
        EXPECT_EQ(at + 4, position()) << at;
    }
    ASSERT_EQ(MP4_OK, storage_.seek(1));
    for (uint64_t at = 1; at + 8 <= size; at += 8) {
        uint64_t u64 = 0;
        ASSERT_EQ(MP4_OK, storage_.readUInt64(&u64));
        ASSERT_EQ((uint64_t{patternU32(at)} << 32) | patternU32(at + 4), u64) << at;
    }

    // Blocks that start inside the read-ahead and run past it, and one that
    // bypasses it; seeking back must find the right bytes afterwards.
    Bytes block(200 * 1024);
    uint32_t u32 = 0;
    for (uint64_t at : {65000, 0}) {
        ASSERT_EQ(MP4_OK, storage_.seek(at));
        if (at != 0) {
            ASSERT_EQ(MP4_OK, storage_.readUInt32(&u32));  // fills the read-ahead
        }
        const uint64_t from = at != 0 ? at + 4 : 0;
        ASSERT_EQ(MP4_OK, storage_.readBytes(block.data(), block.size())) << at;
        EXPECT_TRUE(std::equal(block.begin(), block.end(), content.begin() + from)) << at;
        EXPECT_EQ(from + block.size(), position());
    }
    ASSERT_EQ(MP4_OK, storage_.seek(0));
    ASSERT_EQ(MP4_OK, storage_.readUInt32(&u32));
    EXPECT_EQ(patternU32(0), u32);

    Bytes rest(size);
    EXPECT_EQ(MP4_ERR_IO, storage_.readBytes(rest.data(), size)) << "4 bytes short";
    EXPECT_TRUE(std::equal(content.begin() + 4, content.end(), rest.begin()));
    EXPECT_EQ(size, position());
    EXPECT_EQ(1u, eof());
    EXPECT_EQ(MP4_OK, storage_.close());
}

// The media reader's read-ahead ends with the chunk: bytes changed on disc
// after a read are seen again beyond readAheadEnd (never fetched ahead),
// while the rest of the chunk came with the first read.
TEST_F(DiscStorageTest, MediaReaderFetchesAheadOnlyToTheChunkEnd) {
    Bytes content = patternBytes(64 * 1024);
    const std::string path = makeFile("media.bin", content);
    CMediaReader reader;
    ASSERT_EQ(MP4_OK, reader.open(path));
    Bytes got(100);
    ASSERT_EQ(MP4_OK, reader.read(1000, 100, got.data(), 5000));
    EXPECT_TRUE(std::equal(got.begin(), got.end(), content.begin() + 1000));

    FILE* f = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(nullptr, f);
    const Bytes changed(8000, 0xAA);
    ASSERT_EQ(0, std::fseek(f, 1100, SEEK_SET));
    ASSERT_EQ(changed.size(), std::fwrite(changed.data(), 1, changed.size(), f));
    std::fclose(f);

    ASSERT_EQ(MP4_OK, reader.read(4900, 100, got.data(), 5000));  // the chunk's last bytes
    EXPECT_TRUE(std::equal(got.begin(), got.end(), content.begin() + 4900));
    ASSERT_EQ(MP4_OK, reader.read(5000, 100, got.data(), 9000));  // the next chunk
    EXPECT_EQ(Bytes(100, 0xAA), got);
    EXPECT_EQ(MP4_ERR_IO, reader.read(content.size() - 10, 100, got.data()));

    // Over a storage the reader seeks and reads there, errors passed on.
    CMemoryStorage memory;
    memory.attach(content.data(), content.size(), false);
    ASSERT_EQ(MP4_OK, memory.open(0));
    reader.useStorage(&memory);
    ASSERT_EQ(MP4_OK, reader.read(3, 100, got.data(), 5000));
    EXPECT_TRUE(std::equal(got.begin(), got.end(), content.begin() + 3));
    uint8_t byte = 0;
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, reader.read(content.size() + 1, 1, &byte));  // the seek's code
    memory.detach();
}

// Reads at the window's edges: ending on its last byte, straddling its
// end, empty, and past the end of the file, in an order that moves the
// window back and forth. Each hands back exactly the file's bytes, or 4
// with nothing of them.
TEST_F(DiscStorageTest, MediaReaderWindowEdges) {
    const Bytes content = patternBytes(300 * 1024);
    const std::string path = makeFile("edges.bin", content);
    CMediaReader reader;
    ASSERT_EQ(MP4_OK, reader.open(path));
    struct Read {
        uint64_t offset;
        uint32_t size;
        uint64_t readAheadEnd;
        MP4Err expected;
    };
    const uint64_t end = content.size();
    const Read reads[] = {
        {100, 50, 4000, MP4_OK},      // fetches 100..4000
        {3990, 10, 4000, MP4_OK},     // ends on the window's last byte
        {3995, 10, 9000, MP4_OK},     // straddles its end
        {4005, 0, 0, MP4_OK},         // empty
        {50, 60, 0, MP4_OK},          // back before the window
        {end - 8, 8, end, MP4_OK},    // the file's last bytes
        {end - 4, 8, end + 100, MP4_ERR_IO},  // runs past the end
        {40000, 40000, 0, MP4_OK},    // large: straight into the buffer
        {70000, 100, 200000, MP4_OK}, // inside the last large read's range
    };
    for (const Read& r : reads) {
        Bytes got(r.size + 1, 0x5A);
        EXPECT_EQ(r.expected, reader.read(r.offset, r.size, got.data(), r.readAheadEnd)) << r.offset;
        if (r.expected == MP4_OK) {
            EXPECT_TRUE(std::equal(got.begin(), got.begin() + r.size, content.begin() + r.offset)) << r.offset;
        }
        EXPECT_EQ(0x5A, got[r.size]) << "nothing written past the size, at " << r.offset;
    }
}

TEST(MemoryStorageTest, StatesAndBounds) {
    uint8_t bytes[8] = {0xFF, 0xFE, 1, 2, 3, 4, 5, 6};
    CMemoryStorage storage;
    EXPECT_EQ(MP4_OK, storage.open(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.seek(0)) << "open enables no buffer";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.flush());
    storage.attach(bytes, 8, false);
    EXPECT_EQ(MP4_OK, storage.seek(8));
    uint32_t u32 = 7;
    EXPECT_EQ(MP4_OK, storage.isEof(&u32));
    EXPECT_EQ(1u, u32);
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.seek(9));
    ASSERT_EQ(MP4_OK, storage.seek(0));
    int16_t i16 = 0;
    int32_t i24 = 0;
    EXPECT_EQ(MP4_OK, storage.readInt16(&i16));
    EXPECT_EQ(-2, i16);
    EXPECT_EQ(MP4_OK, storage.readInt24(&i24));
    EXPECT_EQ(0x010203, i24);
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readUInt32(&u32));
    EXPECT_EQ(0u, u32);
    EXPECT_EQ(5u, storage.position()) << "a failed read consumes nothing";
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.skip(4));
    EXPECT_EQ(MP4_OK, storage.skip(3));

    storage.attach(bytes, 8, true);
    EXPECT_EQ(MP4_OK, storage.writeUInt24(0x12345678));
    EXPECT_EQ(MP4_OK, storage.writeString("abcd"));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeUInt8(9)) << "exactly full";
    ASSERT_EQ(MP4_OK, storage.seek(6));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBlock("xyz", 3));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBytes("xyz", -1));
    EXPECT_EQ(0, std::memcmp(bytes, "\x34\x56\x78" "abcd\0", 8));
    EXPECT_EQ(6u, storage.position());

    // A declared size far beyond the real buffer: sums that wrap in 32 bits
    // are refused (they would point outside), except skip's, which stays in.
    storage.attach(bytes, UINT32_MAX, false);
    ASSERT_EQ(MP4_OK, storage.seek(UINT32_MAX - 1));
    uint64_t u64 = 0;
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readUInt64(&u64));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readBlock(bytes, 4));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBytes(bytes, 4));
    EXPECT_EQ(MP4_OK, storage.skip(12));
    EXPECT_EQ(10u, storage.position());

    storage.detach();
    EXPECT_EQ(nullptr, storage.buffer());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.seek(0));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readUInt8(bytes));
}

// A storage that only knows single bytes shows the base defaults.
class ByteOnlyStorage : public CBaseStorage {
public:
    MP4Err open(uint32_t) override { return MP4_OK; }
    MP4Err close() override { return MP4_OK; }
    MP4Err seek(uint64_t) override { return MP4_OK; }
    MP4Err isEof(uint32_t*) override { return MP4_OK; }
    MP4Err flush() override { return MP4_OK; }
    MP4Err getLength(uint64_t*) override { return MP4_OK; }
    MP4Err getPosition(uint64_t*) override { return MP4_OK; }
    MP4Err readUInt8(uint8_t* v) override {
        if (input.empty()) return MP4_ERR_IO;
        *v = input.front();
        input.erase(input.begin());
        return MP4_OK;
    }
    MP4Err readBlock(void*, uint32_t count) override { blockCount = count; return MP4_OK; }
    MP4Err skip(uint64_t) override { return MP4_OK; }
    MP4Err writeUInt8(uint8_t v) override { output.push_back(v); return MP4_OK; }

    Bytes input{0x80, 0x01, 0x02}, output;
    uint32_t blockCount = 0;
};

// A read window refuses what crosses its end without moving, and a nested
// window narrows the outer one only for its own lifetime.
TEST(BoundedStorageTest, WindowsRefuseReadsPastTheirEnd) {
    uint8_t bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    CMemoryStorage memory;
    memory.attach(bytes, sizeof bytes, false);
    ASSERT_EQ(MP4_OK, memory.seek(2));
    CReadWindow outer(&memory, 12);
    ASSERT_TRUE(outer.ok());
    CStorage* view = outer.storage();
    uint32_t u32 = 0;
    ASSERT_EQ(MP4_OK, view->readUInt32(&u32));
    EXPECT_EQ(0x03040506u, u32);
    {
        CReadWindow inner(view, 8);
        EXPECT_EQ(inner.storage(), view);
        uint16_t u16 = 0;
        EXPECT_EQ(MP4_OK, inner.storage()->readUInt16(&u16));
        EXPECT_EQ(MP4_ERR_BAD_BOX_SIZE, inner.storage()->readUInt8(reinterpret_cast<uint8_t*>(&u16)));
        EXPECT_EQ(0u, readableBytes(inner.storage()));
    }
    uint64_t position = 0;
    ASSERT_EQ(MP4_OK, view->getPosition(&position));
    EXPECT_EQ(8u, position);
    EXPECT_EQ(4u, readableBytes(view));
    uint8_t block[8] = {};
    EXPECT_EQ(MP4_ERR_BAD_BOX_SIZE, view->readBytes(block, 5));
    EXPECT_EQ(MP4_ERR_BAD_BOX_SIZE, view->skip(5));
    ASSERT_EQ(MP4_OK, view->readBytes(block, 4));
    EXPECT_EQ(12, block[3]);
    EXPECT_EQ(MP4_ERR_BAD_BOX_SIZE, view->readUInt8(block));
    memory.detach();
}

TEST(BaseStorageTest, DefaultBodies) {
    ByteOnlyStorage storage;
    int16_t i16 = 0;
    uint32_t u32 = 0;
    EXPECT_EQ(MP4_OK, storage.readInt16(&i16));
    EXPECT_EQ(static_cast<int16_t>(0x8001), i16);
    EXPECT_EQ(MP4_ERR_IO, storage.readUInt32(&u32));
    EXPECT_EQ(0x02u, u32) << "stops at the first error, keeping the partial value";
    uint8_t buffer[1];
    EXPECT_EQ(MP4_OK, storage.readBytes(buffer, (UINT64_C(1) << 32) + 5));
    EXPECT_EQ(5u, storage.blockCount) << "the block count is 32 bits wide";
    EXPECT_EQ(MP4_OK, storage.writeBytes("ab", 0));
    EXPECT_EQ(MP4_OK, storage.writeBlock("ab", 2));
    EXPECT_EQ(MP4_OK, storage.writeString("c"));
    // Wide writes shift by bit counts: kept, only a discarding storage uses them.
    EXPECT_EQ(MP4_OK, storage.writeUInt16(0x0302));
    EXPECT_EQ((Bytes{'a', 'b', 'c', 0, 0x81, 0x02}), storage.output);
}

std::string encodeText(const Bytes& data) {
    char* text = nullptr;
    uint32_t length = 99;
    EXPECT_EQ(MP4_OK, base64::encode(data.data(), static_cast<uint32_t>(data.size()), &text, &length));
    std::string out(text, length);
    EXPECT_EQ('\0', text[length]);
    delete[] text;
    return out;
}

MP4Err decodeText(const std::string& text, Bytes* out) {
    uint8_t* data = nullptr;
    uint32_t length = 0;
    MP4Err err = base64::decode(text.data(), static_cast<int32_t>(text.size()), &data, &length);
    out->assign(data, data + (data ? length : 0));
    delete[] data;
    return err;
}

TEST(Base64Test, KnownTexts) {
    for (const auto& [text, data] : {std::pair<const char*, Bytes>{"", {}}, {"TWFu", {'M', 'a', 'n'}},
                                     {"TWE=", {'M', 'a'}}, {"TQ==", {'M'}}, {"+/8=", {0xFB, 0xFF}}}) {
        EXPECT_EQ(text, encodeText(data));
    }

    // Decoded lengths count one byte more than the data.
    Bytes out;
    ASSERT_EQ(MP4_OK, decodeText("TWFu", &out));
    EXPECT_EQ(4u, out.size());
    EXPECT_EQ('n', out[2]);
    ASSERT_EQ(MP4_OK, decodeText("TWE=", &out));
    EXPECT_EQ((Bytes{'M', 'a', 0}), out);
    ASSERT_EQ(MP4_OK, decodeText("===", &out));
    EXPECT_EQ(1u, out.size());
    ASSERT_EQ(MP4_OK, decodeText(std::string("TWFuTWFu", 4), &out));
    EXPECT_EQ(4u, out.size()) << "only length characters are read";

    // Bad characters count only after the last full group, up to an "=".
    EXPECT_EQ(MP4_OK, decodeText("TW!u", &out));
    EXPECT_EQ('M', out[0]);
    EXPECT_EQ(MP4_ERR_UNSUPPORTED, decodeText("TWFuT!", &out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(MP4_OK, decodeText("TWFuT=!", &out));

    uint8_t* data = nullptr;
    uint32_t length = 0;
    char* text = nullptr;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::decode(nullptr, 0, &data, &length));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::decode("TQ", -1, &data, &length));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::encode(nullptr, 0, &text, nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::encode(nullptr, 3, &text, &length));
}

TEST(Base64Test, RoundTripsEveryLength) {
    for (size_t n = 0; n < 260; ++n) {
        Bytes data(n), back;
        for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(255 - i * 37);
        std::string text = encodeText(data);
        ASSERT_EQ((n + 2) / 3 * 4, text.size());
        ASSERT_EQ(MP4_OK, decodeText(text, &back)) << n;
        ASSERT_EQ(n + 1, back.size()) << n;
        ASSERT_TRUE(std::equal(data.begin(), data.end(), back.begin())) << n;
    }
}

TEST(WidePathTest, ConvertsUnicodeAndRejectsTheRest) {
    const std::wstring path = L"a/\x00E9\x20AC\x1F600";
    const std::string utf8 = "a/\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    std::string narrow;
    std::wstring back;
    ASSERT_EQ(MP4_OK, widePathToUtf8(path.c_str(), &narrow));
    EXPECT_EQ(utf8, narrow);
    ASSERT_EQ(MP4_OK, utf8ToWidePath(utf8.c_str(), &back));
    EXPECT_EQ(path, back);

    for (uint32_t unit : {0xDC00u, 0x110000u, 0xFFFFFFFFu}) {
        const wchar_t bad[] = {L'a', static_cast<wchar_t>(unit), 0};
        EXPECT_EQ(MP4_ERR_IO, widePathToUtf8(bad, &narrow)) << unit;
    }
    // Overlong, stray continuation, cut short, surrogate, too large.
    for (const char* bad : {"\xC0\x80", "\xE0\x80\xAF", "\x80", "\xE2\x82", "\xED\xA0\x80",
                            "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80"}) {
        EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, utf8ToWidePath(bad, &back)) << bad;
    }
}

// ---------------------------------------------------------------------------
// The range copier: ranges of a source appended in order after a target's
// first bytes, whatever their sizes (kernel copies, gathered ones, read
// windows) and order.

struct RangeCase {
    const char* what;
    std::vector<std::pair<uint64_t, uint64_t>> ranges;  // offset, size
    MP4Err expected;
};

class RangeCopierTest : public ::testing::TestWithParam<RangeCase> {};

TEST_P(RangeCopierTest, AppendsTheRangesInOrder) {
    const std::string base = ::testing::TempDir() + "quil_ranges_" + std::to_string(getpid());
    Bytes source(400000), target(10, 0xEE);
    for (size_t i = 0; i < source.size(); ++i) source[i] = static_cast<uint8_t>(i * 131 + (i >> 9));
    for (const auto& [name, bytes] : {std::make_pair(base + ".in", source), std::make_pair(base + ".out", target)}) {
        FILE* file = std::fopen(name.c_str(), "wb");
        ASSERT_TRUE(file);
        ASSERT_EQ(bytes.size(), std::fwrite(bytes.data(), 1, bytes.size(), file));
        std::fclose(file);
    }
    CRangeCopier copier;
    ASSERT_EQ(MP4_OK, copier.open(base + ".in", base + ".out", target.size()));
    MP4Err err = MP4_OK;
    for (const auto& [offset, size] : GetParam().ranges) {
        if (err == MP4_OK) err = copier.append(offset, size);
        target.insert(target.end(), source.begin() + std::min<uint64_t>(offset, source.size()),
                      source.begin() + std::min<uint64_t>(offset + size, source.size()));
    }
    const MP4Err finished = copier.finish();
    EXPECT_EQ(GetParam().expected, err == MP4_OK ? finished : err);
    if (GetParam().expected == MP4_OK) {
        std::ifstream written(base + ".out", std::ios::binary);
        EXPECT_TRUE(target == Bytes(std::istreambuf_iterator<char>(written), std::istreambuf_iterator<char>()));
    }
    std::remove((base + ".in").c_str());
    std::remove((base + ".out").c_str());
}

std::vector<std::pair<uint64_t, uint64_t>> tinyRangesBackAndForth() {
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
    for (uint64_t i = 0; i < 600; ++i) ranges.push_back({(i % 2 ? 300000 : 1000) + i * 97, 50 + i % 7});
    return ranges;
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, RangeCopierTest,
    ::testing::Values(
        RangeCase{"neighbours merge into one kernel copy",
                  {{100, 30000}, {30100, 30000}, {60100, 40000}}, MP4_OK},
        RangeCase{"small and large mixed, out of order",
                  {{390000, 10}, {5, 200000}, {3, 9000}, {200010, 70000}, {7, 1}}, MP4_OK},
        RangeCase{"tiny ranges of two places in turn", tinyRangesBackAndForth(), MP4_OK},
        // The target starts at 10: these land where they lie within a page.
        RangeCase{"a long range at its place in a page", {{10, 300000}}, MP4_OK},
        RangeCase{"gathered bytes, a long range at its place, more",
                  {{5, 100}, {4206, 280000}, {7, 50}}, MP4_OK},
        RangeCase{"a range past the source's end", {{10, 100}, {399990, 20}}, MP4_ERR_IO},
        RangeCase{"a large range past the source's end", {{300000, 200000}}, MP4_ERR_IO}),
    [](const ::testing::TestParamInfo<RangeCase>& info) { return "case" + std::to_string(info.index); });

}  // namespace
}  // namespace quil
