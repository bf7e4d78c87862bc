#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <string>
#include <vector>

#include "storage/Base64.h"
#include "storage/BaseStorage.h"
#include "storage/DiscStorage.h"
#include "storage/MemoryStorage.h"
#include "storage/WidePath.h"

namespace quil {
namespace {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------
// Disc storage

class DiscStorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = ::testing::TempDir() + "quil_storage_" + std::to_string(getpid()) + "_" + info->name();
        std::error_code error;
        std::filesystem::create_directories(dir_, error);
        ASSERT_FALSE(error) << dir_;
    }
    void TearDown() override {
        std::error_code error;
        std::filesystem::remove_all(dir_, error);
    }

    std::string pathOf(const std::string& name) const { return dir_ + "/" + name; }

    static std::wstring wide(const std::string& utf8) {
        std::wstring out;
        EXPECT_EQ(MP4_OK, utf8ToWidePath(utf8.c_str(), &out));
        return out;
    }

    std::string makeFile(const std::string& name, const Bytes& bytes) {
        std::string path = pathOf(name);
        FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr) {
            ADD_FAILURE() << "cannot create " << path;
            return path;
        }
        EXPECT_EQ(bytes.size(), std::fwrite(bytes.data(), 1, bytes.size(), f));
        std::fclose(f);
        return path;
    }

    static Bytes fileBytes(const std::string& path) {
        Bytes out;
        FILE* f = std::fopen(path.c_str(), "rb");
        if (f == nullptr) return out;
        int c;
        while ((c = std::fgetc(f)) != EOF) out.push_back(static_cast<uint8_t>(c));
        std::fclose(f);
        return out;
    }

    // Opens `storage` on the file for reading (mode 0) or writing (mode 1).
    void openOn(CDiscStorage& storage, const std::string& path, uint32_t mode) {
        ASSERT_EQ(MP4_OK, storage.setPath(wide(path).c_str()));
        ASSERT_EQ(MP4_OK, storage.open(mode));
    }

    static uint64_t positionOf(CDiscStorage& storage) {
        uint64_t position = 0;
        EXPECT_EQ(MP4_OK, storage.getPosition(&position));
        return position;
    }

    static uint32_t eofOf(CDiscStorage& storage) {
        uint32_t eof = 7;
        EXPECT_EQ(MP4_OK, storage.isEof(&eof));
        return eof;
    }

    // Byte i of the patterned test file: not periodic within a window.
    static uint8_t pattern(uint64_t i) { return static_cast<uint8_t>((i * 7 + (i >> 8) * 13) & 0xFF); }
    static Bytes patternBytes(size_t n) {
        Bytes b(n);
        for (size_t i = 0; i < n; ++i) b[i] = pattern(i);
        return b;
    }
    static uint32_t patternU32(uint64_t at) {
        return static_cast<uint32_t>(pattern(at)) << 24 | static_cast<uint32_t>(pattern(at + 1)) << 16 |
               static_cast<uint32_t>(pattern(at + 2)) << 8 | pattern(at + 3);
    }

    std::string dir_;
};

TEST_F(DiscStorageTest, StateErrorsWithoutAStream) {
    CDiscStorage storage;
    EXPECT_EQ(MP4_ERR_IO, storage.open(0)) << "no path yet";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.close());

    uint64_t u64 = 5;
    uint32_t u32 = 5;
    uint8_t u8 = 5;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.seek(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.isEof(&u32));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.flush());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.getLength(&u64));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.getPosition(&u64));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.readUInt8(&u8));
    EXPECT_EQ(0u, u8) << "out-parameters are cleared first";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.readBlock(&u8, 1));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.writeUInt32(1));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.writeBytes(&u8, 1));
    EXPECT_EQ(MP4_OK, storage.skip(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.skip(1));
    EXPECT_EQ(MP4_OK, storage.readBytes(&u8, 0));
    EXPECT_EQ(MP4_OK, storage.readString(nullptr));

    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.setPath(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.isEof(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.getPosition(nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.readUInt32(nullptr));
}

TEST_F(DiscStorageTest, OpenAndCloseStates) {
    std::string path = makeFile("a.bin", {1, 2, 3});
    CDiscStorage storage;
    ASSERT_EQ(MP4_OK, storage.setPath(wide(path).c_str()));

    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.open(2));
    ASSERT_EQ(MP4_OK, storage.open(0)) << "a bad mode sets no flag";
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.open(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.open(1));
    uint64_t length = 0;
    EXPECT_EQ(MP4_OK, storage.getLength(&length));
    EXPECT_EQ(3u, length);
    EXPECT_EQ(MP4_OK, storage.flush());
    EXPECT_EQ(MP4_OK, storage.close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.getLength(&length));

    // A failed open leaves the storage marked open until close.
    ASSERT_EQ(MP4_OK, storage.setPath(wide(pathOf("missing.bin")).c_str()));
    EXPECT_EQ(MP4_ERR_IO, storage.open(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.open(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.seek(0));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.flush());
    EXPECT_EQ(MP4_OK, storage.close());

    // A directory is not a file.
    ASSERT_EQ(MP4_OK, storage.setPath(wide(dir_).c_str()));
    EXPECT_EQ(MP4_ERR_IO, storage.open(0));
    EXPECT_EQ(MP4_OK, storage.close());

    // The newest path is used; the object can be reopened after close.
    ASSERT_EQ(MP4_OK, storage.setPath(wide(path).c_str()));
    ASSERT_EQ(MP4_OK, storage.open(0));
    uint32_t value = 0;
    EXPECT_EQ(MP4_OK, storage.readUInt24(&value));
    EXPECT_EQ(0x010203u, value);
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, PathsAreCutAndConvertedToUtf8) {
    CDiscStorage storage;
    EXPECT_EQ(nullptr, storage.path());
    std::wstring longPath(3000, L'x');
    ASSERT_EQ(MP4_OK, storage.setPath(longPath.c_str()));
    EXPECT_EQ(2047u, std::wcslen(storage.path()));

    // A non-ASCII name reaches the file system as UTF-8.
    std::string utf8Name = "caf\xC3\xA9_\xE2\x82\xAC.bin";
    std::string path = makeFile(utf8Name, {0xAB});
    ASSERT_EQ(MP4_OK, storage.setPath(wide(path).c_str()));
    ASSERT_EQ(MP4_OK, storage.open(0));
    uint8_t byte = 0;
    EXPECT_EQ(MP4_OK, storage.readUInt8(&byte));
    EXPECT_EQ(0xAB, byte);
    EXPECT_EQ(MP4_OK, storage.close());

    // A unit that is no Unicode scalar value cannot be converted.
    std::wstring bad = wide(dir_) + L"/\xD800.bin";
    ASSERT_EQ(MP4_OK, storage.setPath(bad.c_str()));
    EXPECT_EQ(MP4_ERR_IO, storage.open(1));
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, ReadsBigEndianValues) {
    std::string path = makeFile("be.bin", {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                           0x89, 0xAB, 0xCD, 0xEF, 0xFF, 0xFE, 0x01, 0x02,
                                           0x03, 0x80, 0x81});
    CDiscStorage storage;
    openOn(storage, path, 0);
    uint64_t u64 = 0;
    uint32_t u32 = 0;
    uint16_t u16 = 0;
    int16_t i16 = 0;
    int8_t i8 = 0;
    uint8_t u8 = 0;
    EXPECT_EQ(MP4_OK, storage.readUInt64(&u64));
    EXPECT_EQ(0x0102030405060708u, u64);
    EXPECT_EQ(MP4_OK, storage.readUInt32(&u32));
    EXPECT_EQ(0x89ABCDEFu, u32);
    EXPECT_EQ(MP4_OK, storage.readInt16(&i16));
    EXPECT_EQ(-2, i16);
    EXPECT_EQ(MP4_OK, storage.readUInt24(&u32));
    EXPECT_EQ(0x010203u, u32);
    EXPECT_EQ(MP4_OK, storage.readInt8(&i8));
    EXPECT_EQ(-128, i8);
    EXPECT_EQ(MP4_OK, storage.readUInt8(&u8));
    EXPECT_EQ(0x81, u8);
    EXPECT_EQ(19u, positionOf(storage));
    EXPECT_EQ(0u, eofOf(storage)) << "consuming the last byte is not hitting the end";

    ASSERT_EQ(MP4_OK, storage.seek(12));
    EXPECT_EQ(MP4_OK, storage.readUInt16(&u16));
    EXPECT_EQ(0xFFFEu, u16);
    int64_t i64 = 0;
    ASSERT_EQ(MP4_OK, storage.seek(8));
    EXPECT_EQ(MP4_OK, storage.readInt64(&i64));
    EXPECT_EQ(static_cast<int64_t>(0x89ABCDEFFFFE0102u), i64);

    char text[4] = {'k', 'e', 'p', 't'};
    EXPECT_EQ(MP4_OK, storage.readString(text));
    EXPECT_EQ(0, std::memcmp(text, "kept", 4));
    EXPECT_EQ(16u, positionOf(storage));
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, WritesBigEndianValues) {
    std::string path = pathOf("out.bin");
    CDiscStorage storage;
    openOn(storage, path, 1);
    EXPECT_EQ(MP4_OK, storage.writeUInt64(0x0102030405060708u));
    EXPECT_EQ(MP4_OK, storage.writeUInt32(0x090A0B0Cu));
    EXPECT_EQ(MP4_OK, storage.writeUInt24(0x12345678u));
    EXPECT_EQ(MP4_OK, storage.writeUInt16(0xBEEF));
    EXPECT_EQ(MP4_OK, storage.writeUInt8(0x7F));
    EXPECT_EQ(MP4_OK, storage.writeInt64(-2));
    EXPECT_EQ(MP4_OK, storage.writeInt32(-3));
    EXPECT_EQ(MP4_OK, storage.writeInt24(-4));
    EXPECT_EQ(MP4_OK, storage.writeInt16(-5));
    EXPECT_EQ(MP4_OK, storage.writeInt8(-6));
    const uint8_t block[3] = {0xA1, 0xA2, 0xA3};
    EXPECT_EQ(MP4_OK, storage.writeBlock(block, 3));
    EXPECT_EQ(MP4_OK, storage.writeString("hi"));
    EXPECT_EQ(MP4_OK, storage.writeString(""));
    EXPECT_EQ(43u, positionOf(storage));
    uint64_t length = 0;
    EXPECT_EQ(MP4_OK, storage.getLength(&length));
    EXPECT_EQ(43u, length) << "buffered bytes count towards the length";

    // Overwrite inside what was written: the seek must reach the file.
    ASSERT_EQ(MP4_OK, storage.seek(4));
    EXPECT_EQ(MP4_OK, storage.writeUInt16(0xCAFE));
    EXPECT_EQ(6u, positionOf(storage));
    EXPECT_EQ(MP4_OK, storage.flush());
    EXPECT_EQ(MP4_OK, storage.close());

    Bytes expected = {0x01, 0x02, 0x03, 0x04, 0xCA, 0xFE, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C,
                      0x34, 0x56, 0x78, 0xBE, 0xEF, 0x7F,
                      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE,
                      0xFF, 0xFF, 0xFF, 0xFD, 0xFF, 0xFF, 0xFC, 0xFF, 0xFB, 0xFA,
                      0xA1, 0xA2, 0xA3, 'h', 'i', 0x00, 0x00};
    EXPECT_EQ(expected, fileBytes(path));
}

TEST_F(DiscStorageTest, RefusedWritesAndReadsLeaveTheEndFlagAlone) {
    std::string path = makeFile("r.bin", {1, 2, 3, 4});
    CDiscStorage reader;
    openOn(reader, path, 0);
    EXPECT_EQ(MP4_ERR_IO, reader.writeUInt8(1));
    EXPECT_EQ(MP4_ERR_IO, reader.writeUInt32(1));
    EXPECT_EQ(MP4_ERR_IO, reader.writeBytes("x", 1));
    EXPECT_EQ(0u, eofOf(reader));
    EXPECT_EQ(0u, positionOf(reader));
    EXPECT_EQ(MP4_OK, reader.close());
    EXPECT_EQ((Bytes{1, 2, 3, 4}), fileBytes(path));

    CDiscStorage writer;
    openOn(writer, pathOf("w.bin"), 1);
    uint32_t value = 9;
    uint8_t buffer[4];
    EXPECT_EQ(MP4_ERR_IO, writer.readUInt32(&value));
    EXPECT_EQ(0u, value);
    EXPECT_EQ(MP4_ERR_IO, writer.readBlock(buffer, 4));
    EXPECT_EQ(MP4_OK, writer.readBlock(buffer, 0));
    EXPECT_EQ(0u, eofOf(writer));

    // Empty and negative block writes fail (the empty one deliberately).
    EXPECT_EQ(MP4_ERR_IO, writer.writeBytes(buffer, 0));
    EXPECT_EQ(MP4_ERR_IO, writer.writeBlock(buffer, 0));
    EXPECT_EQ(MP4_ERR_IO, writer.writeBytes(buffer, -1));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, writer.writeBytes(nullptr, 1));
    EXPECT_EQ(0u, eofOf(writer));
    EXPECT_EQ(0u, positionOf(writer));
    EXPECT_EQ(MP4_OK, writer.close());
}

TEST_F(DiscStorageTest, FailedMultiByteReadConsumesWhatExisted) {
    std::string path = makeFile("short.bin", {0x01, 0x02, 0x03});
    CDiscStorage storage;
    openOn(storage, path, 0);
    uint32_t value = 0;
    EXPECT_EQ(MP4_ERR_IO, storage.readUInt32(&value));
    EXPECT_EQ(0x010203u, value) << "the partly built value is kept";
    EXPECT_EQ(3u, positionOf(storage));
    EXPECT_EQ(1u, eofOf(storage));

    uint8_t byte = 0;
    EXPECT_EQ(MP4_ERR_END_OF_FILE, storage.readBlock(&byte, 1));
    EXPECT_EQ(MP4_ERR_END_OF_FILE, storage.readBlock(&byte, 0));
    EXPECT_EQ(MP4_ERR_IO, storage.readBytes(&byte, 1)) << "only readBlock looks at the flag";
    EXPECT_EQ(MP4_OK, storage.skip(0));
    EXPECT_EQ(1u, eofOf(storage)) << "skip(0) leaves the stream alone";

    // seek clears the flag, even to the same place.
    ASSERT_EQ(MP4_OK, storage.seek(3));
    EXPECT_EQ(0u, eofOf(storage));
    EXPECT_EQ(MP4_OK, storage.readBlock(&byte, 0));
    ASSERT_EQ(MP4_OK, storage.seek(1));
    uint16_t u16 = 0;
    EXPECT_EQ(MP4_OK, storage.readUInt16(&u16));
    EXPECT_EQ(0x0203u, u16);
    EXPECT_EQ(0u, eofOf(storage));
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, ShortBlockReadThenEndOfFile) {
    Bytes content = patternBytes(10);
    std::string path = makeFile("ten.bin", content);
    CDiscStorage storage;
    openOn(storage, path, 0);
    ASSERT_EQ(MP4_OK, storage.skip(4));
    Bytes buffer(20, 0xEE);
    EXPECT_EQ(MP4_ERR_IO, storage.readBlock(buffer.data(), 20));
    EXPECT_TRUE(std::equal(content.begin() + 4, content.end(), buffer.begin()));
    EXPECT_EQ(0xEE, buffer[6]);
    EXPECT_EQ(10u, positionOf(storage));
    EXPECT_EQ(1u, eofOf(storage));
    EXPECT_EQ(MP4_ERR_END_OF_FILE, storage.readBlock(buffer.data(), 1));

    // A non-zero skip clears the flag, and may go past the end.
    EXPECT_EQ(MP4_OK, storage.skip(5));
    EXPECT_EQ(0u, eofOf(storage));
    EXPECT_EQ(15u, positionOf(storage));
    uint8_t byte = 0;
    EXPECT_EQ(MP4_ERR_IO, storage.readUInt8(&byte));
    EXPECT_EQ(1u, eofOf(storage));
    EXPECT_EQ(15u, positionOf(storage));
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, SkipWrapsModulo64Bits) {
    std::string path = makeFile("skip.bin", patternBytes(200));
    CDiscStorage storage;
    openOn(storage, path, 0);
    ASSERT_EQ(MP4_OK, storage.seek(100));
    // A box reader that over-consumed passes a wrapped remaining count.
    EXPECT_EQ(MP4_OK, storage.skip(UINT64_MAX - 49));
    EXPECT_EQ(50u, positionOf(storage));
    uint32_t value = 0;
    EXPECT_EQ(MP4_OK, storage.readUInt32(&value));
    EXPECT_EQ(patternU32(50), value);

    // A target beyond what a file offset can hold fails and moves nothing.
    EXPECT_EQ(MP4_ERR_IO, storage.skip(UINT64_C(1) << 63));
    EXPECT_EQ(54u, positionOf(storage));
    EXPECT_EQ(MP4_ERR_IO, storage.seek(UINT64_C(1) << 63));
    EXPECT_EQ(54u, positionOf(storage));
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, SeeksInsideAndOutsideTheReadAhead) {
    const size_t size = 300 * 1024;
    std::string path = makeFile("big.bin", patternBytes(size));
    CDiscStorage storage;
    openOn(storage, path, 0);

    // Positions chosen around 64 KiB boundaries, backwards and forwards,
    // near and far, so both the cheap and the real seek are exercised.
    const uint64_t offsets[] = {0, 10, 4, 65532, 65534, 65530, 1000, 131070, 65536,
                                200000, 199990, 250001, 3, size - 4};
    for (uint64_t at : offsets) {
        ASSERT_EQ(MP4_OK, storage.seek(at));
        uint32_t value = 0;
        ASSERT_EQ(MP4_OK, storage.readUInt32(&value)) << at;
        EXPECT_EQ(patternU32(at), value) << at;
        EXPECT_EQ(at + 4, positionOf(storage)) << at;
    }
    EXPECT_EQ(0u, eofOf(storage));

    // Sequential fixed-width reads straddling every window boundary.
    ASSERT_EQ(MP4_OK, storage.seek(1));
    for (uint64_t at = 1; at + 8 <= size; at += 8) {
        uint64_t value = 0;
        ASSERT_EQ(MP4_OK, storage.readUInt64(&value)) << at;
        ASSERT_EQ((static_cast<uint64_t>(patternU32(at)) << 32) | patternU32(at + 4), value) << at;
    }
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, LongReadsCrossTheReadAhead) {
    const size_t size = 300 * 1024;
    Bytes content = patternBytes(size);
    std::string path = makeFile("long.bin", content);
    CDiscStorage storage;
    openOn(storage, path, 0);

    // A small read fills the read-ahead; the long read takes its rest and
    // then goes past it.
    uint16_t u16 = 0;
    ASSERT_EQ(MP4_OK, storage.seek(65000));
    ASSERT_EQ(MP4_OK, storage.readUInt16(&u16));
    Bytes buffer(100 * 1024);
    ASSERT_EQ(MP4_OK, storage.readBlock(buffer.data(), static_cast<uint32_t>(buffer.size())));
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), content.begin() + 65002));
    EXPECT_EQ(65002u + buffer.size(), positionOf(storage));

    // After the long read the next fixed read continues seamlessly, and a
    // backward seek into the earlier read-ahead still finds its bytes.
    uint32_t u32 = 0;
    ASSERT_EQ(MP4_OK, storage.readUInt32(&u32));
    EXPECT_EQ(patternU32(65002 + buffer.size()), u32);
    ASSERT_EQ(MP4_OK, storage.seek(65100));
    ASSERT_EQ(MP4_OK, storage.readUInt32(&u32));
    EXPECT_EQ(patternU32(65100), u32);

    // A read-ahead-sized block straight after a seek bypasses the
    // read-ahead; seeking back to where it began must still find byte 0.
    ASSERT_EQ(MP4_OK, storage.seek(0));
    Bytes direct(200 * 1024);
    ASSERT_EQ(MP4_OK, storage.readBytes(direct.data(), direct.size()));
    EXPECT_TRUE(std::equal(direct.begin(), direct.end(), content.begin()));
    EXPECT_EQ(direct.size(), positionOf(storage));
    ASSERT_EQ(MP4_OK, storage.seek(0));
    ASSERT_EQ(MP4_OK, storage.readUInt32(&u32));
    EXPECT_EQ(patternU32(0), u32);

    // Mid-size reads (smaller than the read-ahead) across its boundary.
    ASSERT_EQ(MP4_OK, storage.seek(0));
    Bytes all(size);
    for (size_t at = 0; at < size; at += 1000) {
        uint64_t n = std::min<size_t>(1000, size - at);
        ASSERT_EQ(MP4_OK, storage.readBytes(all.data() + at, n)) << at;
    }
    EXPECT_EQ(content, all);
    EXPECT_EQ(0u, eofOf(storage));

    // Reading the whole file at once from the middle of the read-ahead.
    ASSERT_EQ(MP4_OK, storage.seek(0));
    uint8_t first = 0;
    ASSERT_EQ(MP4_OK, storage.readUInt8(&first));
    Bytes rest(size);
    EXPECT_EQ(MP4_ERR_IO, storage.readBytes(rest.data(), size)) << "one byte short";
    EXPECT_TRUE(std::equal(content.begin() + 1, content.end(), rest.begin()));
    EXPECT_EQ(size, positionOf(storage));
    EXPECT_EQ(1u, eofOf(storage));
    EXPECT_EQ(MP4_OK, storage.close());
}

TEST_F(DiscStorageTest, WriteThenReadBackWithTheSameObject) {
    std::string path = pathOf("again.bin");
    CDiscStorage storage;
    openOn(storage, path, 1);
    Bytes content = patternBytes(70000);
    ASSERT_EQ(MP4_OK, storage.writeBytes(content.data(), static_cast<int32_t>(content.size())));
    EXPECT_EQ(MP4_OK, storage.close());

    ASSERT_EQ(MP4_OK, storage.open(0));
    uint64_t length = 0;
    EXPECT_EQ(MP4_OK, storage.getLength(&length));
    EXPECT_EQ(content.size(), length);
    ASSERT_EQ(MP4_OK, storage.skip(69996));
    uint32_t value = 0;
    EXPECT_EQ(MP4_OK, storage.readUInt32(&value));
    EXPECT_EQ(patternU32(69996), value);
    EXPECT_EQ(MP4_OK, storage.close());

    // Opening for writing truncates.
    ASSERT_EQ(MP4_OK, storage.open(1));
    EXPECT_EQ(MP4_OK, storage.getLength(&length));
    EXPECT_EQ(0u, length);
    EXPECT_EQ(MP4_OK, storage.close());
}

// ---------------------------------------------------------------------------
// Memory storage

TEST(MemoryStorageTest, OpenCloseAndFlushCodes) {
    CMemoryStorage storage;
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.close());
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, storage.open(2));
    EXPECT_EQ(MP4_OK, storage.open(1));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.open(0));
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.flush());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.seek(0)) << "open does not enable a buffer";
    EXPECT_EQ(MP4_OK, storage.close());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.close());
}

TEST(MemoryStorageTest, AttachSeekAndDetach) {
    uint8_t bytes[4] = {1, 2, 3, 4};
    CMemoryStorage storage;
    storage.attach(bytes, 4, false);
    EXPECT_EQ(bytes, storage.buffer());
    EXPECT_EQ(MP4_OK, storage.seek(4));
    uint32_t eof = 0;
    EXPECT_EQ(MP4_OK, storage.isEof(&eof));
    EXPECT_EQ(1u, eof);
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.seek(5));
    EXPECT_EQ(4u, storage.position());
    EXPECT_EQ(MP4_OK, storage.seek(1));
    EXPECT_EQ(MP4_OK, storage.isEof(&eof));
    EXPECT_EQ(0u, eof);
    uint64_t value = 0;
    EXPECT_EQ(MP4_OK, storage.getLength(&value));
    EXPECT_EQ(4u, value);
    EXPECT_EQ(MP4_OK, storage.getPosition(&value));
    EXPECT_EQ(1u, value);

    storage.detach();
    EXPECT_EQ(nullptr, storage.buffer());
    EXPECT_EQ(MP4_ERR_NOT_AVAILABLE, storage.seek(0));
    EXPECT_EQ(MP4_OK, storage.getLength(&value));
    EXPECT_EQ(0u, value);
    uint8_t byte = 0;
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readUInt8(&byte));
}

TEST(MemoryStorageTest, ReadsAreBoundedAndBigEndian) {
    uint8_t bytes[7] = {0xFF, 0xFE, 0x01, 0x02, 0x03, 0x04, 0x05};
    CMemoryStorage storage;
    storage.attach(bytes, sizeof bytes, false);
    int16_t i16 = 0;
    int32_t i24 = 0;
    EXPECT_EQ(MP4_OK, storage.readInt16(&i16));
    EXPECT_EQ(-2, i16);
    EXPECT_EQ(MP4_OK, storage.readInt24(&i24));
    EXPECT_EQ(0x010203, i24) << "24-bit reads are not sign-extended";
    uint32_t u32 = 7;
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readUInt32(&u32));
    EXPECT_EQ(0u, u32);
    EXPECT_EQ(5u, storage.position()) << "a failed read consumes nothing";
    uint8_t two[2] = {0, 0};
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readBlock(two, 3));
    EXPECT_EQ(MP4_OK, storage.readBytes(two, 2));
    EXPECT_EQ(0x04, two[0]);
    EXPECT_EQ(0x05, two[1]);
    EXPECT_EQ(MP4_OK, storage.readBlock(two, 0));

    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.skip(1));
    EXPECT_EQ(MP4_OK, storage.seek(2));
    EXPECT_EQ(MP4_OK, storage.skip(5));
    EXPECT_EQ(7u, storage.position());
}

TEST(MemoryStorageTest, WritesAreBoundedAndBigEndian) {
    uint8_t bytes[12] = {};
    CMemoryStorage storage;
    storage.attach(bytes, sizeof bytes, true);
    EXPECT_EQ(MP4_OK, storage.writeUInt32(0x01020304));
    EXPECT_EQ(MP4_OK, storage.writeUInt24(0x12345678));
    EXPECT_EQ(MP4_OK, storage.writeInt16(-2));
    EXPECT_EQ(MP4_OK, storage.writeString("ab"));
    EXPECT_EQ(12u, storage.position()) << "exactly the buffer size";
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeUInt8(9));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBytes("x", 1));
    EXPECT_EQ(12u, storage.position());
    const uint8_t expected[12] = {1, 2, 3, 4, 0x34, 0x56, 0x78, 0xFF, 0xFE, 'a', 'b', 0};
    EXPECT_EQ(0, std::memcmp(expected, bytes, sizeof bytes));

    // A write that does not fit changes nothing.
    ASSERT_EQ(MP4_OK, storage.seek(10));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeUInt32(0xDEADBEEF));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBlock("xyz", 3));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBytes("xyz", -1));
    EXPECT_EQ(0, std::memcmp(expected, bytes, sizeof bytes));
    EXPECT_EQ(10u, storage.position());
    EXPECT_EQ(MP4_OK, storage.writeBytes("xyz", 0));
}

TEST(MemoryStorageTest, SumsThatWrapIn32BitsStayInsideTheBuffer) {
    // A declared size far beyond the real buffer: nothing here may touch
    // memory, because every access is refused or lands inside bytes[].
    uint8_t bytes[16] = {};
    CMemoryStorage storage;
    storage.attach(bytes, UINT32_MAX, false);
    ASSERT_EQ(MP4_OK, storage.seek(UINT32_MAX - 1));
    uint64_t u64 = 0;
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readUInt64(&u64));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.readBlock(bytes, 4));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeUInt32(1));
    EXPECT_EQ(MP4_ERR_OUT_OF_RANGE, storage.writeBytes(bytes, 4));
    EXPECT_EQ(UINT32_MAX - 1, storage.position());

    // skip keeps the modular sum: it lands back inside.
    EXPECT_EQ(MP4_OK, storage.skip(12));
    EXPECT_EQ(10u, storage.position());
    storage.detach();
}

// ---------------------------------------------------------------------------
// Defaults of the base storage, seen through a storage that only knows
// single bytes.

class ByteOnlyStorage : public CBaseStorage {
public:
    explicit ByteOnlyStorage(Bytes input) : input_(std::move(input)) {}
    MP4Err open(uint32_t) override { return MP4_OK; }
    MP4Err close() override { return MP4_OK; }
    MP4Err seek(uint64_t p) override { at_ = p; return MP4_OK; }
    MP4Err isEof(uint32_t* eof) override { *eof = at_ >= input_.size(); return MP4_OK; }
    MP4Err flush() override { return MP4_OK; }
    MP4Err getLength(uint64_t* n) override { *n = input_.size(); return MP4_OK; }
    MP4Err getPosition(uint64_t* p) override { *p = at_; return MP4_OK; }
    MP4Err readUInt8(uint8_t* v) override {
        if (at_ >= input_.size()) return MP4_ERR_IO;
        *v = input_[at_++];
        return MP4_OK;
    }
    MP4Err readBlock(void*, uint32_t count) override { lastBlockCount = count; return MP4_OK; }
    MP4Err skip(uint64_t n) override { at_ += n; return MP4_OK; }
    MP4Err writeUInt8(uint8_t v) override { output.push_back(v); return MP4_OK; }

    Bytes output;
    uint32_t lastBlockCount = 0;

private:
    Bytes input_;
    uint64_t at_ = 0;
};

TEST(BaseStorageTest, DefaultBodies) {
    ByteOnlyStorage storage({0x80, 0x01, 0x02});
    int16_t i16 = 0;
    EXPECT_EQ(MP4_OK, storage.readInt16(&i16));
    EXPECT_EQ(static_cast<int16_t>(0x8001), i16);
    uint32_t u32 = 0;
    EXPECT_EQ(MP4_ERR_IO, storage.readUInt32(&u32)) << "the first error ends the read";
    EXPECT_EQ(0x02u, u32);

    uint8_t buffer[1];
    EXPECT_EQ(MP4_OK, storage.readBytes(buffer, (UINT64_C(1) << 32) + 5));
    EXPECT_EQ(5u, storage.lastBlockCount) << "the block count is 32 bits wide";

    EXPECT_EQ(MP4_OK, storage.writeBytes("ab", 0));
    EXPECT_EQ(MP4_OK, storage.writeBytes("ab", -3));
    EXPECT_TRUE(storage.output.empty());
    EXPECT_EQ(MP4_OK, storage.writeBlock("ab", 2));
    EXPECT_EQ(MP4_OK, storage.writeString("c"));
    EXPECT_EQ((Bytes{'a', 'b', 'c', 0}), storage.output);

    // The wide writes shift by bit counts; kept because only a storage that
    // discards its output uses them.
    storage.output.clear();
    EXPECT_EQ(MP4_OK, storage.writeUInt16(0x0302));
    EXPECT_EQ((Bytes{0x81, 0x02}), storage.output);
    EXPECT_FALSE(isNetworkStorage(&storage));
}

// ---------------------------------------------------------------------------
// Base64

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
    MP4Err err = base64::decode(text.c_str(), static_cast<int32_t>(text.size()), &data, &length);
    out->assign(data, data + (data ? length : 0));
    delete[] data;
    return err;
}

TEST(Base64Test, EncodesWithPadding) {
    EXPECT_EQ("", encodeText({}));
    EXPECT_EQ("TWFu", encodeText({'M', 'a', 'n'}));
    EXPECT_EQ("TWE=", encodeText({'M', 'a'}));
    EXPECT_EQ("TQ==", encodeText({'M'}));
    EXPECT_EQ("+/8=", encodeText({0xFB, 0xFF}));

    char* text = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::encode(nullptr, 0, nullptr, &length));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::encode(nullptr, 0, &text, nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::encode(nullptr, 3, &text, &length));
}

TEST(Base64Test, DecodedLengthCountsOneSpareByte) {
    Bytes out;
    ASSERT_EQ(MP4_OK, decodeText("TWFu", &out));
    ASSERT_EQ(4u, out.size());
    EXPECT_EQ((Bytes{'M', 'a', 'n'}), Bytes(out.begin(), out.begin() + 3));

    ASSERT_EQ(MP4_OK, decodeText("TWE=", &out));
    EXPECT_EQ((Bytes{'M', 'a', 0x00}), out);
    ASSERT_EQ(MP4_OK, decodeText("TQ==", &out));
    EXPECT_EQ((Bytes{'M', 0x00}), out);
    ASSERT_EQ(MP4_OK, decodeText("TQ", &out)) << "padding is optional";
    EXPECT_EQ((Bytes{'M', 0x00}), out);
    ASSERT_EQ(MP4_OK, decodeText("===", &out));
    EXPECT_EQ(1u, out.size());
    ASSERT_EQ(MP4_OK, decodeText("", &out));
    EXPECT_EQ(1u, out.size());

    // Only `length` characters are looked at.
    uint8_t* data = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(MP4_OK, base64::decode("TWFuTWFu", 4, &data, &length));
    EXPECT_EQ(4u, length);
    delete[] data;
}

TEST(Base64Test, BadCharactersOnlyCountAfterTheLastFullGroup) {
    Bytes out;
    EXPECT_EQ(MP4_OK, decodeText("TW!u", &out)) << "inside a full group: unchecked";
    EXPECT_EQ(4u, out.size());
    EXPECT_EQ('M', out[0]);
    EXPECT_EQ(MP4_ERR_UNSUPPORTED, decodeText("TWFuT!", &out));
    EXPECT_TRUE(out.empty());
    // The tail stops at "=", so what follows it is not looked at.
    EXPECT_EQ(MP4_OK, decodeText("TWFuT=!", &out));
    EXPECT_EQ(4u, out.size());

    uint8_t* data = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::decode(nullptr, 0, &data, &length));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::decode("TQ", 2, nullptr, &length));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::decode("TQ", 2, &data, nullptr));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, base64::decode("TQ", -1, &data, &length));
    EXPECT_EQ(nullptr, data);
}

TEST(Base64Test, RoundTripsEveryLengthAndByteValue) {
    for (size_t n = 0; n < 260; ++n) {
        Bytes data(n);
        for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(255 - i * 37);
        std::string text = encodeText(data);
        ASSERT_EQ((n + 2) / 3 * 4, text.size());
        Bytes back;
        ASSERT_EQ(MP4_OK, decodeText(text, &back)) << n;
        ASSERT_EQ(n + 1, back.size()) << n;
        ASSERT_TRUE(std::equal(data.begin(), data.end(), back.begin())) << n;
    }
}

// ---------------------------------------------------------------------------
// Wide paths

TEST(WidePathTest, EncodesEveryUtf8Length) {
    std::string utf8;
    ASSERT_EQ(MP4_OK, widePathToUtf8(L"a/\x00E9\x20AC\x1F600", &utf8));
    EXPECT_EQ("a/\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", utf8);
    ASSERT_EQ(MP4_OK, widePathToUtf8(L"", &utf8));
    EXPECT_EQ("", utf8);

    std::wstring back;
    ASSERT_EQ(MP4_OK, utf8ToWidePath("a/\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", &back));
    EXPECT_EQ(std::wstring(L"a/\x00E9\x20AC\x1F600"), back);
}

TEST(WidePathTest, RejectsWhatIsNotUnicode) {
    std::string utf8 = "kept";
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xDC00), 0};
    const wchar_t tooLarge[] = {static_cast<wchar_t>(0x110000), 0};
    const wchar_t negative[] = {static_cast<wchar_t>(-1), 0};
    EXPECT_EQ(MP4_ERR_IO, widePathToUtf8(surrogate, &utf8));
    EXPECT_EQ(MP4_ERR_IO, widePathToUtf8(tooLarge, &utf8));
    EXPECT_EQ(MP4_ERR_IO, widePathToUtf8(negative, &utf8));
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, widePathToUtf8(nullptr, &utf8));

    std::wstring wide;
    const char* invalid[] = {
        "\xC0\x80",          // overlong NUL
        "\xE0\x80\xAF",      // overlong '/'
        "\x80",              // stray continuation
        "\xE2\x82",          // cut short
        "\xED\xA0\x80",      // surrogate
        "\xF4\x90\x80\x80",  // above U+10FFFF
        "\xF8\x88\x80\x80\x80",
    };
    for (const char* text : invalid) {
        EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, utf8ToWidePath(text, &wide)) << text;
    }
    EXPECT_EQ(MP4_ERR_INVALID_ARGUMENT, utf8ToWidePath(nullptr, &wide));
}

}  // namespace
}  // namespace quil
