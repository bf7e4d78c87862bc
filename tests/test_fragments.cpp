// Fragmented files: the fragment boxes write back what they read, a
// fragmented copy of a fixture answers every sample question as its
// unfragmented source does, and a file built here exercises the base
// offset rules, several track fragments and runs, an unknown track, signed
// composition offsets and a damaged run.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <unistd.h>
#include <typeinfo>
#include <string>
#include <vector>

#include "BoxBuilder.h"
#include "OpenedFile.h"
#include "boxes/EncryptionBoxes.h"
#include "boxes/FragmentBoxes.h"
#include "quil/quil.h"

namespace quil {
namespace {

using test::box;
using test::Bytes;
using test::ByteWriter;
using test::concat;
using test::fullBox;
using test::loadFixture;
using test::OpenedFile;

// The top-level boxes of a file as (type, bytes).
std::vector<std::pair<std::string, Bytes>> topLevel(const Bytes& file) {
    std::vector<std::pair<std::string, Bytes>> boxes;
    for (size_t at = 0; at + 8 <= file.size();) {
        uint32_t size = static_cast<uint32_t>(file[at] << 24 | file[at + 1] << 16 | file[at + 2] << 8 | file[at + 3]);
        if (size < 8 || at + size > file.size()) break;
        boxes.emplace_back(std::string(file.begin() + at + 4, file.begin() + at + 8),
                           Bytes(file.begin() + at, file.begin() + at + size));
        at += size;
    }
    return boxes;
}

// ---- boxes ------------------------------------------------------------------

// Reads a box and writes it again: the same bytes, and as many as it
// sizes. With a child type, that child must have been read by its class.
void expectRewritesAsRead(const Bytes& bytes, uint32_t childType = 0) {
    MP4Err err = MP4_OK;
    std::unique_ptr<CBox> read = test::readTree(bytes, &err);
    ASSERT_EQ(err, MP4_OK);
    ASSERT_TRUE(read);
    EXPECT_FALSE(read->writesAsRead());
    CBox* inner = read.get();
    // A track fragment is read only inside a movie fragment.
    CBox* traf = nullptr;
    if (childType != fourcc("mfhd") && inner->findChild(fourcc("traf"), &traf) == MP4_OK) inner = traf;
    if (childType) {
        ASSERT_EQ(inner->findChild(childType, &inner), MP4_OK);
    }
    EXPECT_NE(typeid(*inner), typeid(CBox)) << "read as an unknown box";
    EXPECT_EQ(test::writeTree(read.get(), &err), bytes);
    EXPECT_EQ(err, MP4_OK);
}

TEST(FragmentBoxes, FixtureFragmentsRewriteToTheirBytes) {
    for (const char* name : {"frag-h264-aac.mp4", "frag-bframes-moof.mp4"}) {
        SCOPED_TRACE(name);
        uint32_t checked = 0;
        for (const auto& top : topLevel(loadFixture(name))) {
            if (top.first != "moof" && top.first != "mfra") continue;
            expectRewritesAsRead(top.second);
            ++checked;
        }
        EXPECT_GE(checked, 6u) << "missing fixture; run scripts/make-fixtures.sh";
    }
}

struct BuiltBox {
    const char* name;
    const char* parent;  // the container it is read in, or null at file level
    Bytes bytes;
};

const BuiltBox kBuiltBoxes[] = {
    {"mehd v1", "mvex", fullBox("mehd", 1, 0, ByteWriter().u64(1ull << 40))},
    {"trex", "mvex", fullBox("trex", 0, 0, ByteWriter().u32(2).u32(1).u32(1024).u32(6).u32(0x10000))},
    {"tfhd all fields", "traf", fullBox("tfhd", 0, 0x2003B, ByteWriter().u32(1).u64(4096).u32(2).u32(100).u32(7).u32(0x10000))},
    {"tfdt v0", "traf", fullBox("tfdt", 0, 0, ByteWriter().u32(90000))},
    {"trun v1 every field", "traf", fullBox("trun", 1, 0xF05, ByteWriter().u32(2).u32(0xFFFFFFF0).u32(0x2000000)
                                                          .u32(10).u32(20).u32(0).u32(0xFFFFFFCE)
                                                          .u32(11).u32(21).u32(0x10000).u32(5))},
    {"mfhd", "moof", fullBox("mfhd", 0, 0, ByteWriter().u32(7))},
    {"sidx v1", nullptr, fullBox("sidx", 1, 0, ByteWriter().u32(1).u32(1000).u64(5).u64(0).u16(0).u16(2)
                                          .u32(0x80000010).u32(1000).u32(0x90000000)
                                          .u32(200).u32(2000).u32(0))},
    {"tfra v1, 1- to 4-byte numbers", "mfra", fullBox("tfra", 1, 0, ByteWriter().u32(1).u32(0x1B).u32(1).u64(7).u64(900)
                                                           .u8(1).u16(2).u32(3))},
    {"mfro", "mfra", fullBox("mfro", 0, 0, ByteWriter().u32(67))},
    {"emsg v0", nullptr, fullBox("emsg", 0, 0, ByteWriter().str("urn:scte:scte35:2013:bin").str("1").u32(90000)
                                          .u32(10).u32(20).u32(3).u8(0xFC).u8(0x30))},
    {"emsg v1", nullptr, fullBox("emsg", 1, 0, ByteWriter().u32(1000).u64(1ull << 33).u32(5).u32(9).str("s").str(""))},
    {"prft v1", nullptr, fullBox("prft", 1, 0, ByteWriter().u32(1).u64(0xE0000000ull << 32).u64(123456))},
    {"styp", nullptr, box("styp", ByteWriter().code("msdh").u32(0).code("msdh").code("msix"))},
    {"saio kept", "traf", fullBox("saio", 0, 0, ByteWriter().u32(1).u32(1234))},
};

class FragmentBoxTable : public ::testing::TestWithParam<BuiltBox> {};

TEST_P(FragmentBoxTable, RewritesAsRead) {
    const BuiltBox& b = GetParam();
    if (!b.parent) return expectRewritesAsRead(b.bytes);
    const uint32_t type = static_cast<uint32_t>(b.bytes[4] << 24 | b.bytes[5] << 16 | b.bytes[6] << 8 | b.bytes[7]);
    Bytes parent = box(b.parent, b.bytes);
    if (std::string(b.parent) == "traf") parent = box("moof", parent);
    expectRewritesAsRead(parent, type);
}

INSTANTIATE_TEST_SUITE_P(Built, FragmentBoxTable, ::testing::ValuesIn(kBuiltBoxes),
                         [](const ::testing::TestParamInfo<BuiltBox>& info) {
                             std::string name;
                             for (const char* c = info.param.name; *c; ++c) {
                                 name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                             }
                             return name;
                         });

// A run whose count claims more samples than the box holds allocates
// nothing for them and is kept as its bytes.
TEST(FragmentBoxes, RunCountBeyondItsBoxIsKeptAsBytes) {
    Bytes moof = box("moof", box("traf", fullBox("trun", 0, 0x200, ByteWriter().u32(0x40000000).u32(10).u32(20))));
    MP4Err err = MP4_OK;
    std::unique_ptr<CBox> read = test::readTree(moof, &err);
    ASSERT_TRUE(read);
    CBox* traf = nullptr;
    CBox* trun = nullptr;
    ASSERT_EQ(read->findChild(fourcc("traf"), &traf), MP4_OK);
    ASSERT_EQ(traf->findChild(fourcc("trun"), &trun), MP4_OK);
    EXPECT_TRUE(trun->writesAsRead());
    EXPECT_EQ(static_cast<CTrackRunBox*>(trun)->sampleSize(0, 99), 99u);
    EXPECT_EQ(test::writeTree(read.get(), &err), moof);
}

// ---- one track, all its samples -----------------------------------------------

struct Sample {
    uint32_t size = 0;
    uint64_t decode = 0;
    uint64_t composition = 0;
    uint32_t sync = 0;
    Bytes bytes;
};

std::vector<Sample> samplesOf(CMp4Track* track) {
    std::vector<Sample> samples;
    uint32_t count = 0;
    EXPECT_EQ(track->getSampleCount(&count), MP4_OK);
    for (uint32_t n = 1; n <= count; ++n) {
        Sample s;
        s.bytes.resize(1 << 20);
        EXPECT_EQ(track->readSample(n, static_cast<uint32_t>(s.bytes.size()), &s.size, s.bytes.data()), MP4_OK);
        s.bytes.resize(s.size);
        EXPECT_EQ(track->getSampleDecodeTime(n, &s.decode), MP4_OK);
        EXPECT_EQ(track->getSampleCompositionTime(n, &s.composition), MP4_OK);
        EXPECT_EQ(track->isSyncSample(n, &s.sync), MP4_OK);
        samples.push_back(std::move(s));
    }
    return samples;
}

struct FragmentedCopy {
    const char* fragmented;
    const char* source;
};

class FragmentedCopies : public ::testing::TestWithParam<FragmentedCopy> {};

// ffmpeg's fragmented copy holds the source's samples: same bytes, sizes,
// sync flags and times (up to where the track starts), and the searches
// find the same samples.
TEST_P(FragmentedCopies, AnswerLikeTheirSource) {
    OpenedFile fragmented(GetParam().fragmented);
    OpenedFile source(GetParam().source);
    uint32_t tracks = 0, sourceTracks = 0, fragments = 0;
    ASSERT_EQ(fragmented.file()->getTrackCount(&tracks), MP4_OK);
    ASSERT_EQ(source.file()->getTrackCount(&sourceTracks), MP4_OK);
    ASSERT_EQ(tracks, sourceTracks);
    EXPECT_EQ(fragmented.file()->getFragmentCount(&fragments), MP4_OK);
    EXPECT_GE(fragments, 3u);
    for (uint32_t t = 1; t <= tracks; ++t) {
        SCOPED_TRACE(t);
        CMp4Track* copy = fragmented.track(t);
        CMp4Track* original = source.track(t);
        ASSERT_TRUE(copy && original);
        std::vector<Sample> a = samplesOf(copy), b = samplesOf(original);
        ASSERT_EQ(a.size(), b.size());
        ASSERT_FALSE(a.empty());
        // ffmpeg lengthens the first video sample of an interleaved copy:
        // times agree from the second sample on, up to one shift.
        const uint64_t shift = a.size() > 1 ? a[1].decode - b[1].decode : 0;
        for (size_t i = 0; i < a.size(); ++i) {
            SCOPED_TRACE(i + 1);
            EXPECT_EQ(a[i].bytes, b[i].bytes);
            EXPECT_EQ(a[i].sync, b[i].sync);
            if (i == 0) continue;
            EXPECT_EQ(a[i].decode - shift, b[i].decode);
            EXPECT_EQ(a[i].composition - shift, b[i].composition);
        }
        for (size_t i = 1; i < a.size(); i += 3) {
            uint32_t x = 0, y = 0;
            MP4Err ex = copy->findSampleByDecodeTime(a[i].decode + 1, &x);
            EXPECT_EQ(ex, original->findSampleByDecodeTime(b[i].decode + 1, &y));
            EXPECT_EQ(x, y);
            ex = copy->findSyncSampleBefore(a[i].composition, &x);
            EXPECT_EQ(ex, original->findSyncSampleBefore(b[i].composition, &y));
            EXPECT_EQ(x, y);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, FragmentedCopies,
                         ::testing::Values(FragmentedCopy{"frag-h264-aac.mp4", "h264-aac.mp4"},
                                           FragmentedCopy{"frag-bframes-moof.mp4", "h264-bframes.mp4"}));

// ---- a fragment built here ---------------------------------------------------

constexpr uint32_t kNonSync = 0x10000;

// One movie fragment with four track fragments: track 1 from the moof
// (tfdt 5000, first-sample flags, signed offsets), an unknown track 99, a
// track 1 fragment whose data follows the unknown one's (two runs, the
// second without a data offset), and a track 1 fragment with a damaged run.
Bytes fragmentFor(uint32_t dataOffset) {
    Bytes traf1 = box("traf", concat({
        fullBox("tfhd", 0, 0x20038, ByteWriter().u32(1).u32(100).u32(10).u32(kNonSync)),
        fullBox("tfdt", 1, 0, ByteWriter().u64(5000)),
        fullBox("trun", 1, 0xA05, ByteWriter().u32(2).u32(dataOffset).u32(0)
                                      .u32(7).u32(static_cast<uint32_t>(-50)).u32(9).u32(200)),
    }));
    Bytes unknown = box("traf", concat({
        fullBox("tfhd", 0, 0x10, ByteWriter().u32(99).u32(5)),
        // Its base is where the previous track fragment's data ends.
        fullBox("trun", 0, 0x1, ByteWriter().u32(3).u32(0)),
    }));
    Bytes traf3 = box("traf", concat({
        fullBox("tfhd", 0, 0x28, ByteWriter().u32(1).u32(40).u32(0)),
        fullBox("trun", 0, 0x200, ByteWriter().u32(1).u32(4)),
        fullBox("trun", 0, 0x200, ByteWriter().u32(1).u32(6)),
    }));
    Bytes damaged = box("traf", concat({
        fullBox("tfhd", 0, 0x20000, ByteWriter().u32(1)),
        fullBox("trun", 0, 0x201, ByteWriter().u32(1000).u32(dataOffset).u32(1).u32(1)),
    }));
    return box("moof", concat({fullBox("mfhd", 0, 0, ByteWriter().u32(1)), traf1, unknown, traf3, damaged}));
}

class BuiltFragment : public ::testing::Test {
protected:
    void SetUp() override {
        Bytes head;
        for (const auto& top : topLevel(loadFixture("frag-h264-aac.mp4"))) {
            if (top.first == "moof") break;
            head = concat({head, top.second});
        }
        ASSERT_GT(head.size(), 500u) << "missing fixture; run scripts/make-fixtures.sh";
        moofAt_ = head.size();
        const uint32_t moofSize = static_cast<uint32_t>(fragmentFor(0).size());
        for (uint32_t i = 0; i < 41; ++i) payload_.push_back(static_cast<uint8_t>(i * 7 + 1));
        payloadAt_ = moofAt_ + moofSize + 8;
        file_.reset(new OpenedFile(concat({head, fragmentFor(moofSize + 8), box("mdat", payload_)})));
        track_ = file_->track(1);
        ASSERT_TRUE(track_);
    }
    std::unique_ptr<OpenedFile> file_;
    CMp4Track* track_ = nullptr;
    Bytes payload_;
    uint64_t moofAt_ = 0;
    uint64_t payloadAt_ = 0;
};

TEST_F(BuiltFragment, SamplesFollowTheOffsetRules) {
    uint32_t count = 0, fragments = 0;
    EXPECT_EQ(track_->getSampleCount(&count), MP4_OK);
    EXPECT_EQ(count, 4u) << "the damaged run adds nothing, the unknown track is ignored";
    EXPECT_EQ(file_->file()->getFragmentCount(&fragments), MP4_OK);
    EXPECT_EQ(fragments, 1u);
    struct Expected {
        uint64_t offset;  // in the payload
        uint32_t size;
        uint64_t decode, composition;
        uint32_t sync;
    };
    const Expected expected[] = {
        {0, 7, 5000, 4950, 1},   // first-sample flags; offset -50 (version 1)
        {7, 9, 5100, 5300, 0},   // default flags: not a sync sample
        {31, 4, 5200, 5200, 1},  // after the unknown track's 15 bytes; running time
        {35, 6, 5240, 5240, 1},  // run without data offset: after the previous run
    };
    for (uint32_t n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        const Expected& e = expected[n - 1];
        uint64_t offset = 0, decode = 0, composition = 0;
        uint32_t size = 0, sync = 0;
        EXPECT_EQ(track_->getSampleOffset(n, &offset, &size), MP4_OK);
        EXPECT_EQ(offset, payloadAt_ + e.offset);
        EXPECT_EQ(size, e.size);
        EXPECT_EQ(track_->getSampleDecodeTime(n, &decode), MP4_OK);
        EXPECT_EQ(decode, e.decode);
        EXPECT_EQ(track_->getSampleCompositionTime(n, &composition), MP4_OK);
        EXPECT_EQ(composition, e.composition);
        EXPECT_EQ(track_->isSyncSample(n, &sync), MP4_OK);
        EXPECT_EQ(sync, e.sync);
        Bytes bytes(16);
        EXPECT_EQ(track_->readSample(n, 16, &size, bytes.data()), MP4_OK);
        EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + size),
                  Bytes(payload_.begin() + e.offset, payload_.begin() + e.offset + e.size));
    }
    uint32_t size = 0;
    EXPECT_EQ(track_->getSampleSize(5, &size), MP4_ERR_NOT_AVAILABLE);
    EXPECT_EQ(track_->getSampleSize(0, &size), MP4_ERR_BAD_INDEX);
    uint32_t audioCount = 1;
    EXPECT_EQ(file_->track(2)->getSampleCount(&audioCount), MP4_OK);
    EXPECT_EQ(audioCount, 0u);
}

// A run without per-sample fields costs 20 bytes whatever its count: a
// count beyond the file's bytes is not listed (no index of 2^31 samples).
TEST(FragmentedSamples, RunCountBeyondTheFileIsNotListed) {
    Bytes head;
    for (const auto& top : topLevel(loadFixture("frag-h264-aac.mp4"))) {
        if (top.first == "moof") break;
        head = concat({head, top.second});
    }
    ASSERT_GT(head.size(), 500u) << "missing fixture; run scripts/make-fixtures.sh";
    Bytes moof = box("moof", concat({
        fullBox("mfhd", 0, 0, ByteWriter().u32(1)),
        box("traf", concat({fullBox("tfhd", 0, 0x20000, ByteWriter().u32(1)),
                            fullBox("trun", 0, 0, ByteWriter().u32(0x7FFFFFFF))})),
    }));
    OpenedFile file(concat({head, moof, box("mdat", Bytes(16))}));
    CMp4Track* track = file.track(1);
    ASSERT_TRUE(track);
    uint32_t count = 1;
    EXPECT_EQ(track->getSampleCount(&count), MP4_OK);
    EXPECT_EQ(count, 0u);
}

TEST_F(BuiltFragment, SearchesCoverTheFragments) {
    // In this order: the decode-time search's cursor carries over.
    struct Query {
        uint64_t time;
        MP4Err byDecodeErr;
        uint32_t byDecode;
        MP4Err syncErr;
        uint32_t syncBefore;
    };
    const Query queries[] = {
        {5100, MP4_OK, 2, MP4_OK, 1},
        {5250, MP4_ERR_NOT_AVAILABLE, 0, MP4_OK, 4},  // past the last decode time
        {4900, MP4_OK, 1, MP4_ERR_NOT_AVAILABLE, 0},
    };
    for (const Query& q : queries) {
        SCOPED_TRACE(q.time);
        uint32_t sample = 0;
        EXPECT_EQ(track_->findSampleByDecodeTime(q.time, &sample), q.byDecodeErr);
        EXPECT_EQ(sample, q.byDecode);
        EXPECT_EQ(track_->findSyncSampleBefore(q.time, &sample), q.syncErr);
        EXPECT_EQ(sample, q.syncBefore);
    }
    uint64_t delay = 0;
    EXPECT_EQ(track_->getInitialDelay(&delay, nullptr, nullptr), MP4_OK);
    EXPECT_EQ(delay, 5000u) << "a track joined mid-stream starts presenting at its first decode time";
}

// ---- auxiliary information carried into a copy with sample tables ----------

// Two movie fragments of track 1, two samples each. The first holds its
// auxiliary information in "senc" (sizes 8 and 14); the second in its
// "mdat" after the samples (size 8 each), its first sample in the same
// key group as the first fragment's (described again), its second in none.
Bytes encryptedFragment(uint32_t number, const Bytes& sizes, uint32_t group2, const Bytes& aux,
                        bool inSenc) {
    const Bytes seig = ByteWriter().u8(0).u8(0x19).u8(1).u8(0).raw(Bytes(16, 0xAB)).u8(0);
    auto traf = [&](uint32_t dataOffset, uint32_t auxOffset) {
        ByteWriter sizeTable;
        for (uint8_t size : sizes) sizeTable.u32(size);
        const uint32_t auxSize = inSenc ? 0 : aux.size() / 2;
        ByteWriter auxSizes = ByteWriter().u8(auxSize).u32(2);
        if (inSenc) auxSizes.u8(8).u8(aux.size() - 8);
        Bytes children = concat({
            fullBox("tfhd", 0, 0x20008, ByteWriter().u32(1).u32(100)),
            fullBox("trun", 0, 0x201, ByteWriter().u32(2).u32(dataOffset).raw(sizeTable)),
            fullBox("sbgp", 0, 0, ByteWriter().code("seig").u32(2).u32(1).u32(0x10001).u32(1).u32(group2)),
            fullBox("sgpd", 1, 0, ByteWriter().code("seig").u32(seig.size()).u32(1).raw(seig)),
            fullBox("saiz", 0, 0, auxSizes),
        });
        if (inSenc) children = concat({children, fullBox("senc", 0, 2, ByteWriter().u32(2).raw(aux))});
        return box("traf", concat({children, fullBox("saio", 0, 0, ByteWriter().u32(1).u32(auxOffset))}));
    };
    const Bytes mfhd = fullBox("mfhd", 0, 0, ByteWriter().u32(number));
    const uint32_t moofSize = static_cast<uint32_t>(box("moof", concat({mfhd, traf(0, 0)})).size());
    const uint32_t sampleBytes = sizes[0] + sizes[1];
    // In "senc": after its header and sample count, at the end of the moof.
    const uint32_t auxOffset = inSenc ? moofSize - 20 - static_cast<uint32_t>(aux.size()) - 8
                                      : moofSize + 8 + sampleBytes;
    Bytes data(sampleBytes, static_cast<uint8_t>(number));
    if (!inSenc) data = concat({data, aux});
    return concat({box("moof", concat({mfhd, traf(moofSize + 8, auxOffset)})), box("mdat", data)});
}

uint32_t codeOf(const char* type) {
    return static_cast<uint32_t>(type[0]) << 24 | static_cast<uint32_t>(type[1]) << 16 |
           static_cast<uint32_t>(type[2]) << 8 | static_cast<uint32_t>(type[3]);
}

// The payload of the copy's sample-table box of that type.
Bytes tableBox(CBox* stbl, const char* type) {
    CBox* found = nullptr;
    if (stbl->findChild(codeOf(type), &found) != MP4_OK) return {};
    Bytes bytes(found->keptPayload().length());
    EXPECT_EQ(MP4_OK, found->keptPayload().read(0, bytes.data(), bytes.size()));
    return bytes;
}

struct AuxCopy {
    const char* name;
    uint32_t skipped;  // a sample the copy leaves out, or 0
    Bytes sbgpRuns;    // of the copy: count, index
    Bytes saizTable;   // default size 0, count, sizes
    std::vector<uint32_t> auxOf;  // samples whose information the copy holds
};

class FragmentAuxCopy : public ::testing::TestWithParam<AuxCopy> {};

TEST_P(FragmentAuxCopy, SampleTablesCarryEachCopiedSamplesInformation) {
    const AuxCopy& c = GetParam();
    Bytes head;
    for (const auto& top : topLevel(loadFixture("frag-h264-aac.mp4"))) {
        if (top.first == "moof") break;
        head = concat({head, top.second});
    }
    ASSERT_GT(head.size(), 500u) << "missing fixture; run scripts/make-fixtures.sh";
    std::vector<Bytes> aux = {Bytes(8, 0x11), Bytes(14, 0x22), Bytes(8, 0x33), Bytes(8, 0x44)};
    OpenedFile source(concat({head, encryptedFragment(1, {5, 6}, 0x10001, concat({aux[0], aux[1]}), true),
                              encryptedFragment(2, {4, 3}, 0, concat({aux[2], aux[3]}), false)}));
    const std::string path = ::testing::TempDir() + "quil_aux_" + std::to_string(getpid()) + ".mp4";
    CMp4File* target = nullptr;
    ASSERT_EQ(MP4_OK, CMp4File::createInstance(&target));
    const std::wstring wide(path.begin(), path.end());
    ASSERT_EQ(MP4_OK, target->open(wide.c_str(), 1, 0));
    CMp4Track* out = nullptr;
    ASSERT_EQ(MP4_OK, target->addTrack(&out));
    ASSERT_EQ(MP4_OK, out->copyTrackFrom(source.track(1)));
    uint32_t size = 0;
    for (uint32_t s = 1; s <= 4; ++s) {
        if (s != c.skipped) {
            ASSERT_EQ(MP4_OK, out->copySampleFrom(s, &size)) << s;
        }
    }
    ASSERT_EQ(MP4_OK, target->releaseTrack(out));
    ASSERT_EQ(MP4_OK, target->close());
    CMp4File::destroyInstance(&target);
    std::ifstream written(path, std::ios::binary);
    const Bytes file{std::istreambuf_iterator<char>(written), std::istreambuf_iterator<char>()};
    std::remove(path.c_str());
    Bytes moovBytes;
    for (const auto& top : topLevel(file)) {
        if (top.first == "moov") moovBytes = top.second;
    }
    std::unique_ptr<CBox> moov = test::readTree(moovBytes);
    ASSERT_TRUE(moov);
    CBox* stbl = moov.get();
    for (const char* type : {"trak", "mdia", "minf", "stbl"}) ASSERT_EQ(MP4_OK, stbl->findChild(codeOf(type), &stbl));
    const uint32_t copied = c.skipped ? 3 : 4;
    EXPECT_EQ(tableBox(stbl, "sbgp"), concat({ByteWriter().u32(0).code("seig").raw(c.sbgpRuns)}));
    const Bytes sgpd = tableBox(stbl, "sgpd");
    ASSERT_EQ(sgpd.size(), 16u + 21u) << "one description for both fragments";
    EXPECT_EQ(tableBox(stbl, "saiz"), concat({ByteWriter().u32(0).raw(c.saizTable)}));
    Bytes information;
    for (uint32_t s : c.auxOf) information = concat({information, aux[s - 1]});
    EXPECT_EQ(tableBox(stbl, "senc"), concat({ByteWriter().u32(2).u32(copied).raw(information)}));
    CBox* saioBox = nullptr;
    ASSERT_EQ(MP4_OK, stbl->findChild(fourcc("saio"), &saioBox));
    auto* saio = dynamic_cast<CSampleAuxInfoOffsetsBox*>(saioBox);
    ASSERT_TRUE(saio && saio->offsets.size() == 1);
    ASSERT_LE(saio->offsets[0] + information.size(), file.size());
    EXPECT_EQ(Bytes(file.begin() + saio->offsets[0], file.begin() + saio->offsets[0] + information.size()),
              information) << "saio points at the information as written";
}

INSTANTIATE_TEST_SUITE_P(
    Copies, FragmentAuxCopy,
    ::testing::Values(
        AuxCopy{"every sample", 0, ByteWriter().u32(2).u32(3).u32(1).u32(1).u32(0),
                ByteWriter().u8(0).u32(4).u8(8).u8(14).u8(8).u8(8), {1, 2, 3, 4}},
        AuxCopy{"second left out", 2, ByteWriter().u32(2).u32(2).u32(1).u32(1).u32(0),
                ByteWriter().u8(8).u32(3), {1, 3, 4}}),
    [](const ::testing::TestParamInfo<AuxCopy>& info) {
        std::string name = info.param.name;
        for (char& ch : name) if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name;
    });

}  // namespace
}  // namespace quil
