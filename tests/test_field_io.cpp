// The field IO every layout is walked by: the reader stays inside its
// budget, reader, writer and counter agree on one layout, and every class
// the box factory can make writes exactly the size it announces.
#include <gtest/gtest.h>

#include <string>

#include "BoxBuilder.h"
#include "boxes/BoxFactory.h"
#include "io/FieldIO.h"
#include "io/FieldLister.h"

namespace quil {
namespace {

using test::Bytes;
using test::MemoryFile;

// A small layout with a version-dependent width, an array and bytes.
struct Sample {
    uint8_t version = 0;
    uint32_t flags = 0;
    uint64_t time = 0;
    int16_t pair[2] = {0, 0};
    uint8_t tail[3] = {0, 0, 0};

    template <class IO>
    MP4Err fields(IO& io) {
        if (!io.versionAndFlags(version, flags).ok()) return io.error();
        return io.u32or64(version == 1, time).array(pair).bytes(tail, sizeof(tail)).error();
    }
};

Bytes written(Sample* sample) {
    MemoryFile file(Bytes(64), true);
    EXPECT_EQ(writeFields(sample, file.storage()), MP4_OK);
    return Bytes(file.bytes().begin(), file.bytes().begin() + file.position());
}

TEST(FieldIO, ReaderWriterAndCounterAgreeOnOneLayout) {
    for (uint8_t version : {0, 1}) {
        Sample out;
        out.version = version;
        out.flags = 0xABCDEF;
        out.time = version == 1 ? 0x123456789ull : 0x12345678u;
        out.pair[0] = -2;
        out.pair[1] = 300;
        out.tail[2] = 9;
        Bytes bytes = written(&out);
        EXPECT_EQ(bytes.size(), countFields(&out));

        MemoryFile file(bytes);
        uint64_t budget = bytes.size();
        Sample in;
        ASSERT_EQ(readFields(&in, file.storage(), &budget), MP4_OK);
        EXPECT_EQ(budget, 0u);
        EXPECT_EQ(written(&in), bytes);
    }
}

// A budget shorter than the layout: the field that does not fit is refused
// with 6 before any of its bytes are read, the fields before it stay read,
// and nothing after it is read even though the storage holds it.
TEST(FieldIO, ReaderRefusesTheFieldTheBudgetCannotHold) {
    Sample out;
    out.time = 7;
    out.pair[0] = 5;
    Bytes bytes = written(&out);  // 4 + 4 + 4 + 3
    struct Case {
        uint64_t budget;
        uint64_t left;        // budget after the refusal
        uint32_t position;    // where the storage stands
    };
    for (const Case& c : {Case{3, 3, 0}, Case{7, 3, 4}, Case{9, 1, 8}, Case{14, 2, 12}}) {
        SCOPED_TRACE(c.budget);
        MemoryFile file(bytes);
        uint64_t budget = c.budget;
        Sample in;
        EXPECT_EQ(readFields(&in, file.storage(), &budget), MP4_ERR_BAD_BOX_SIZE);
        EXPECT_EQ(budget, c.left);
        EXPECT_EQ(file.position(), c.position);
        EXPECT_EQ(in.time, c.budget >= 8 ? 7u : 0u);
    }
}

TEST(FieldIO, ReaderKeepsTheStoragesOwnErrorAndTheBudget) {
    Bytes bytes = {1, 0, 0, 0, 0, 0};  // ends inside the time field
    MemoryFile file(bytes);
    uint64_t budget = 100;
    Sample in;
    MP4Err err = readFields(&in, file.storage(), &budget);
    EXPECT_NE(err, MP4_OK);
    EXPECT_NE(err, MP4_ERR_BAD_BOX_SIZE);
    EXPECT_EQ(budget, 96u);
}

TEST(FieldIO, DecoderReadsTheSameLayoutFromMemory) {
    Sample out;
    out.version = 1;
    out.time = 0xFFFFFFFF00000001ull;
    out.pair[1] = -1;
    Bytes bytes = written(&out);
    FieldDecoder decoder(bytes.data(), bytes.size());
    Sample in;
    ASSERT_EQ(in.fields(decoder), MP4_OK);
    EXPECT_EQ(decoder.left(), 0u);
    EXPECT_EQ(written(&in), bytes);
    FieldDecoder shorter(bytes.data(), bytes.size() - 1);
    EXPECT_EQ(in.fields(shorter), MP4_ERR_BAD_BOX_SIZE);
}

TEST(FieldIO, OwnedBytesAreAllocatedOnlyAsFarAsTheStorageHolds) {
    Bytes bytes(10, 0x5A);
    MemoryFile file(bytes);
    std::unique_ptr<uint8_t[]> data;
    uint64_t budget = 1u << 30;
    FieldReader<uint64_t> io(file.storage(), &budget);
    EXPECT_NE(io.owned(data, 1u << 30).error(), MP4_OK);
    EXPECT_EQ(data, nullptr);
}

// Every class of the factory table, as made (and so as a writer starts
// from), writes the bytes its size announces.
TEST(FieldIO, EveryRegisteredBoxWritesTheSizeItAnnounces) {
    uint32_t count = 0;
    const BoxFactoryRow* rows = boxFactoryTable(&count);
    uint32_t checked = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (!rows[i].create) continue;
        std::unique_ptr<CBox> box(rows[i].create());
        ASSERT_TRUE(box);
        if (box->writtenElsewhere()) continue;
        SCOPED_TRACE(std::string(1, static_cast<char>(rows[i].type >> 24)) +
                     static_cast<char>(rows[i].type >> 16) + static_cast<char>(rows[i].type >> 8) +
                     static_cast<char>(rows[i].type));
        if (sizeBox(box.get()) != MP4_OK) continue;  // needs children to be written
        uint64_t announced = 0;
        box->getSize(&announced);
        MemoryFile file(Bytes(announced + 64), true);
        if (writeBox(box.get(), file.storage()) != MP4_OK) continue;
        EXPECT_EQ(file.position(), announced);
        ++checked;
    }
    EXPECT_GT(checked, count * 3 / 4);  // most classes write without children
}

#ifndef NDEBUG
// The debug check of the tree writer names the path of a box whose bytes
// differ from its size: "url " deliberately announces one byte less when
// it carries a location.
TEST(FieldIO, DebugWriterNamesTheBoxThatWroteAnotherSize) {
    uint32_t count = 0;
    const BoxFactoryRow* rows = boxFactoryTable(&count);
    CBox* (*createDref)() = nullptr;
    CBox* (*createUrl)() = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        if (rows[i].type == fourcc("dref")) createDref = rows[i].create;
        if (rows[i].type == fourcc("url ")) createUrl = rows[i].create;
    }
    ASSERT_TRUE(createDref && createUrl);
    std::unique_ptr<CBox> dref(createDref());
    Bytes urlBytes = test::fullBox("url ", 0, 0, Bytes{'a', 'b', 0});
    std::unique_ptr<CBox> url = test::readTree(urlBytes);
    ASSERT_TRUE(url);
    ASSERT_EQ(dref->addChild(url.release()), MP4_OK);
    ASSERT_EQ(sizeBox(dref.get()), MP4_OK);
    MemoryFile file(Bytes(256), true);
    testing::internal::CaptureStderr();
    EXPECT_EQ(dref->write(file.storage()), MP4_OK);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("box dref/url  wrote 15 bytes but announced 14"),
              std::string::npos);
}
#endif

// ---- the lister of a report -------------------------------------------------

class MemoryPayload : public ListedBytes {
public:
    explicit MemoryPayload(Bytes bytes) : bytes_(std::move(bytes)) {}
    bool read(uint64_t offset, uint8_t* out, uint32_t count) override {
        if (offset + count > bytes_.size()) return false;
        std::copy(bytes_.begin() + static_cast<long>(offset), bytes_.begin() + static_cast<long>(offset + count), out);
        return true;
    }

private:
    Bytes bytes_;
};

// The listing as one line: "key=value", "#n" before each entry's fields.
std::string listing(const std::vector<ListedField>& listed) {
    std::string out;
    uint32_t entry = 0;
    for (const ListedField& f : listed) {
        if (f.entry != entry) out += " #" + std::to_string(entry = f.entry);
        out += std::string(" ") + f.key + "=";
        switch (f.form) {
            case ListedForm::kSigned: out += std::to_string(static_cast<int64_t>(f.number)); break;
            case ListedForm::kCode: out += std::string(1, static_cast<char>(f.number >> 24)) + "..."; break;
            case ListedForm::kCodes:
            case ListedForm::kText: out += f.bytes; break;
            case ListedForm::kTable: out += "table"; break;
            default: out += std::to_string(f.number); break;
        }
    }
    return out.empty() ? out : out.substr(1);
}

struct ListCase {
    const char* name;
    uint32_t type;
    Bytes payload;
    uint32_t entries;
    const char* expected;
};

class FieldListing : public ::testing::TestWithParam<ListCase> {};

TEST_P(FieldListing, ListsTheNamedFieldsTheBytesHold) {
    const ListCase& c = GetParam();
    MemoryPayload bytes(c.payload);
    FieldLister lister(&bytes, c.payload.size(), c.entries);
    const MP4Err err = listBoxFields(c.type, lister);
    EXPECT_EQ(err, *c.expected ? MP4_OK : MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(listing(lister.listed()), c.expected);
}

test::ByteWriter w() { return test::ByteWriter(); }

INSTANTIATE_TEST_SUITE_P(
    Boxes, FieldListing,
    ::testing::Values(
        // An entry cut short by the end of the box is left out; the count
        // stays as stored.
        ListCase{"CutEntry", fourcc("stts"), w().u32(0).u32(1000).u32(5).u32(100).u32(6), 9,
                 "version=0 flags=0 entryCount=1000 entries=table #1 sampleCount=5 sampleDelta=100"},
        ListCase{"FirstEntriesOnly", fourcc("stsc"), w().u32(0).u32(3).zeros(36), 1,
                 "version=0 flags=0 entryCount=3 entries=table #1 firstChunk=0 samplesPerChunk=0 "
                 "sampleDescriptionIndex=0"},
        // A huge count over a few bytes walks no more than the bytes hold.
        ListCase{"HugeCount", fourcc("stco"), w().u32(0).u32(0xFFFFFFFF), 0xFFFFFFFF,
                 "version=0 flags=0 entryCount=4294967295 entries=table"},
        ListCase{"SignedInVersion1", fourcc("ctts"), w().u32(0x01000000).u32(1).u32(2).u32(0xFFFFFFFE), 4,
                 "version=1 flags=0 entryCount=1 entries=table #1 sampleCount=2 sampleOffset=-2"},
        ListCase{"UnsignedInVersion0", fourcc("ctts"), w().u32(0).u32(1).u32(2).u32(0xFFFFFFFE), 4,
                 "version=0 flags=0 entryCount=1 entries=table #1 sampleCount=2 sampleOffset=4294967294"},
        ListCase{"EditList", fourcc("elst"), w().u32(0).u32(1).u32(7).u32(0xFFFFFFFF).u16(0xFFFF).u16(0xFFFF), 4,
                 "version=0 flags=0 entryCount=1 entries=table #1 segmentDuration=7 mediaTime=-1 "
                 "mediaRateInteger=-1 mediaRateFraction=65535"},
        ListCase{"ConstantSizes", fourcc("stsz"), w().u32(0).u32(9).u32(4), 4,
                 "version=0 flags=0 sampleSize=9 sampleCount=4"},
        // Fields past the bytes read as 0 and the walk goes on.
        ListCase{"ShortHeader", fourcc("mvhd"), w().u32(0x01000000).u32(0).u32(3), 0,
                 "version=1 flags=0 creationTime=3 modificationTime=0 timeScale=0 duration=0"},
        ListCase{"Brands", fourcc("ftyp"), w().code("isom").u32(1).code("isom").code("avc1").u16(0), 0,
                 "majorBrand=i... minorVersion=1 compatibleBrands=isomavc1"},
        ListCase{"HandlerName", fourcc("hdlr"), w().u32(0).u32(0).code("vide").zeros(12).str("Video").u8(9), 0,
                 "version=0 flags=0 handlerType=v... name=Video"},
        ListCase{"TrackHeader", fourcc("tkhd"), w().u32(0x00000003).u32(1).u32(2).u32(7).u32(0).u32(99).zeros(60), 0,
                 "version=0 flags=3 trackId=7 duration=99"},
        ListCase{"NotListed", fourcc("trun"), w().u32(0).u32(1), 4, ""}),
    [](const ::testing::TestParamInfo<ListCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quil
