// libFuzzer target for the descriptor factory and the AVC/HEVC decoder
// configuration records: arbitrary bytes are read through a memory storage,
// and whatever was read is dumped, sized and written back. A successful
// write must produce exactly the bytes the size calculation announced.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "descriptors/ConfigRecords.h"
#include "descriptors/EsDescriptors.h"
#include "storage/MemoryStorage.h"

namespace {

using namespace quil;

constexpr size_t kMaxInput = 1 << 20;

// Writes into a buffer of exactly the announced size, through the storage
// and through writeToBuffer; both must fill it completely and agree.
void checkDescriptorWrite(CBaseDescriptor* descriptor) {
    if (descriptor->calcSize() != MP4_OK) return;
    uint64_t total = 0;
    descriptorTotalSize(descriptor, &total);
    if (total > kMaxInput * 4) return;
    std::vector<uint8_t> viaStorage(total + 1), viaBuffer(total + 1);

    CMemoryStorage storage;
    storage.attach(viaStorage.data(), static_cast<uint32_t>(total), true);
    MP4Err written = descriptor->write(&storage);
    uint32_t storageBytes = storage.position();
    storage.detach();

    uint8_t* cursor = viaBuffer.data();
    uint32_t left = static_cast<uint32_t>(total);
    MP4Err buffered = descriptor->writeToBuffer(&cursor, &left);

    if (written == MP4_OK && storageBytes != total) abort();
    if ((written == MP4_OK) != (buffered == MP4_OK)) abort();
    if (written == MP4_OK && (left != 0 || viaStorage != viaBuffer)) abort();
}

void fuzzDescriptors(std::vector<uint8_t>& bytes) {
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
    while (storage.position() < bytes.size()) {
        uint32_t before = storage.position();
        CBaseDescriptor* read = nullptr;
        uint32_t tag = 0;
        uint32_t allowance = static_cast<uint32_t>(bytes.size()) - before;
        if (readDescriptor(&storage, allowance, &read, &tag) != MP4_OK) break;
        std::unique_ptr<CBaseDescriptor> descriptor(read);
        descriptor->dump(0);
        checkDescriptorWrite(descriptor.get());
        descriptor->dump(1);
        if (storage.position() <= before) break;
    }
    storage.detach();
}

template <class Record>
void fuzzRecord(std::vector<uint8_t>& bytes) {
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(bytes.size()), false);
    Record record;
    record.read(&storage, static_cast<uint32_t>(bytes.size()));
    storage.detach();
    record.dump(0);
    record.calcSize();
    uint64_t size = 0;
    record.getSize(&size);
    if (size > kMaxInput * 4) return;
    std::vector<uint8_t> out(size + 1);
    CMemoryStorage writer;
    writer.attach(out.data(), static_cast<uint32_t>(size), true);
    MP4Err err = record.write(&writer);
    if (err == MP4_OK && writer.position() != size) abort();
    writer.detach();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Dumps are exercised, not read.
    if (!freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    // The memory storage reads a caller's (mutable) buffer: work on copies.
    std::vector<uint8_t> descriptors(data, data + size);
    fuzzDescriptors(descriptors);
    std::vector<uint8_t> avc(data, data + size);
    fuzzRecord<CAVCDecoderConfigRecord>(avc);
    std::vector<uint8_t> hevc(data, data + size);
    fuzzRecord<CHEVCDecoderConfigRecord>(hevc);
    return 0;
}
