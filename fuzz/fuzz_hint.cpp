// libFuzzer target for RTP hint samples and their constructors. The input
// is one hint sample: it is parsed, dumped, sized and written back, and it
// is also placed as the only sample of a hint track in a small file held in
// memory, next to a media track of three samples, so that every packet it
// describes is produced. Constructors pointing outside their sample, their
// track or the sample description must give an error, never a read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "../tests/HintFileBuilder.h"
#include "hint/HintSample.h"
#include "quil/quil.h"
#include "storage/MemoryStorage.h"

namespace {

using namespace quil;
using test::Bytes;
using test::fileWithHintSample;

constexpr size_t kMaxInput = 1 << 16;
constexpr uint32_t kMaxPacketsWalked = 4096;

void parseAlone(const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
    storage.open(0);
    CRtpHintSample sample;
    if (sample.read(&storage, static_cast<uint32_t>(bytes.size())) != MP4_OK) return;
    sample.dump(1);
    uint64_t expected = 0;
    if (sample.calculateSize(&expected) != MP4_OK || expected > kMaxInput * 4) return;
    std::vector<uint8_t> out(expected + 1);
    CMemoryStorage writer;
    writer.attach(out.data(), static_cast<uint32_t>(expected), true);
    writer.open(1);
    // What was read writes back in exactly the size announced.
    if (sample.write(&writer) == MP4_OK && writer.position() != expected) abort();
}

void producePackets(const uint8_t* data, size_t size) {
    Bytes file = fileWithHintSample(data, size);
    CMemoryStorage storage;
    storage.attach(file.data(), static_cast<uint32_t>(file.size()), false);
    CMp4File* mp4 = nullptr;
    if (CMp4File::createInstance(&mp4) != MP4_OK) return;
    if (mp4->setStorage(&storage) == MP4_OK && mp4->open(L"memory", 0, 0) == MP4_OK) {
        CMp4RtpHintTrack* hint = nullptr;
        if (mp4->getHintTrack(2, &hint) == MP4_OK) {
            std::unique_ptr<CMp4RtpHintTrack> owned(hint);
            uint32_t packets = 0;
            (void)hint->dumpHintSample(1);
            if (hint->getPacketCount(1, &packets) == MP4_OK) {
                std::vector<uint8_t> buffer(1 << 17);
                for (uint32_t p = 1; p <= packets && p <= kMaxPacketsWalked; ++p) {
                    uint32_t length = 0;
                    MP4Err err = hint->getPacket(1, p, buffer.data(), static_cast<uint32_t>(buffer.size()), &length);
                    if (err == MP4_OK && (length < 12 || length > buffer.size())) abort();
                    // One byte short must be refused without writing past it.
                    if (err == MP4_OK && length > 12) {
                        (void)hint->getPacket(1, p, buffer.data(), length - 1, &length);
                    }
                }
            }
        }
        (void)mp4->close();
    }
    CMp4File::destroyInstance(&mp4);
    storage.detach();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Dumps are exercised, not read.
    if (!freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    parseAlone(data, size);
    producePackets(data, size);
    return 0;
}
