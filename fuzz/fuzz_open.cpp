// libFuzzer target: opens arbitrary bytes as a media file held in memory and
// asks everything a reading application can ask of it: the box dump, the box
// walk with each box's described fields, the file's properties, and for every
// track its properties, every sample's position, times and bytes, the time
// searches and the time code.
//
// Walks are capped (tracks, samples, buffer sizes) so that one input costs
// bounded time in this harness; anything unbounded inside the library itself
// still shows up as a timeout or an out-of-memory report.

#include <cstdint>
#include <cstdio>
#include <vector>

#include "quil/quil.h"
#include "storage/MemoryStorage.h"

using namespace quil;

namespace {

constexpr uint32_t kMaxTracks = 64;
constexpr uint32_t kMaxSamplesWalked = 2048;
constexpr uint32_t kMaxIndexProbed = 4;
// Largest buffer handed to the library for one answer; a compressed movie
// box may inflate to more than the input, so the cap is not the input size.
constexpr uint32_t kMaxBuffer = 1u << 22;

// Asks for a length with no buffer, then fetches into a buffer of exactly
// that length, as a careful caller does.
template <typename Fetch>
void fetchSized(Fetch fetch) {
    uint32_t length = 0;
    (void)fetch(nullptr, 0, &length);
    if (length == 0 || length > kMaxBuffer) {
        return;
    }
    std::vector<uint8_t> buffer(length);
    (void)fetch(buffer.data(), length, &length);
    // One byte short must be refused, never overrun.
    (void)fetch(buffer.data(), length - 1, &length);
}

void walkMetaData(CMp4MetaData* meta) {
    if (meta == nullptr) {
        return;
    }
    using TextGetter = MP4Err (CMp4MetaData::*)(uint8_t*, uint32_t*, uint8_t*, uint32_t);
    const TextGetter getters[] = {&CMp4MetaData::getTitle,     &CMp4MetaData::getDescription,
                                  &CMp4MetaData::getCopyright, &CMp4MetaData::getPerformer,
                                  &CMp4MetaData::getAuthor,    &CMp4MetaData::getGenre};
    for (uint32_t index = 0; index <= kMaxIndexProbed; ++index) {
        for (TextGetter get : getters) {
            uint8_t language[3] = {0, 0, 0};
            uint32_t length = 0;
            if ((meta->*get)(nullptr, &length, language, index) != MP4_OK) {
                continue;
            }
            if (length > 0 && length <= kMaxBuffer) {
                std::vector<uint8_t> text(length);
                (void)(meta->*get)(text.data(), &length, language, index);
                // Ask again by the language that was found.
                (void)(meta->*get)(nullptr, &length, language, 0);
            }
        }
        uint8_t entity[4];
        uint8_t criteria[4];
        uint16_t table = 0;
        uint32_t length = 0;
        if (meta->getRating(entity, criteria, nullptr, &length, nullptr, index) == MP4_OK &&
            length > 0 && length <= kMaxBuffer) {
            std::vector<uint8_t> text(length);
            (void)meta->getRating(entity, criteria, text.data(), &length, nullptr, index);
        }
        if (meta->getClassification(entity, &table, nullptr, &length, nullptr, index) ==
                MP4_OK &&
            length > 0 && length <= kMaxBuffer) {
            std::vector<uint8_t> text(length);
            (void)meta->getClassification(entity, &table, text.data(), &length, nullptr, index);
        }
        uint32_t count = 0;
        if (meta->getKeywords(nullptr, &count, &length, nullptr, index) == MP4_OK &&
            length > 0 && length <= kMaxBuffer) {
            std::vector<uint8_t> list(length);
            (void)meta->getKeywords(list.data(), &count, &length, nullptr, index);
        }
    }
}

void queryTrackProperties(CMp4Track* track) {
    uint32_t u32 = 0;
    uint32_t a = 0;
    uint32_t b = 0;
    uint64_t u64 = 0;
    int16_t i16 = 0;
    uint8_t u8 = 0;
    uint8_t language[3];
    (void)track->getTrackType(&u32);
    (void)track->getSampleEntryType(&u32);
    (void)track->getCodecType(&u32);
    (void)track->getTrackId(&u32);
    (void)track->getDuration(&u64);
    (void)track->getTimeScale(&u32);
    (void)track->getMediaDuration(&u64);
    (void)track->getWidth(&u32);
    (void)track->getHeight(&u32);
    (void)track->getChannelCount(&u32);
    (void)track->getSampleRate(&u32);
    (void)track->getSampleBits(&u32);
    (void)track->getLanguage(language);
    (void)track->getVolume(&i16);
    (void)track->getCreationTime(&u32, &a, &b, &u32, &a, &b);
    (void)track->getObjectTypeIndication(&u8);
    (void)track->getBitrates(&u32, &a, &b);
    (void)track->getPixelAspectRatio(&a, &b);
    int64_t mediaTime = 0;
    (void)track->getInitialDelay(&u64, &mediaTime);
    for (uint32_t which = 0; which <= 4; ++which) {
        (void)track->getTimecodeFlag(which, &u8);
    }
    (void)track->getRotateAngle();

    fetchSized([track](uint8_t* buffer, uint32_t size, uint32_t* length) {
        return track->getDecoderSpecificInfo(buffer, size, length);
    });
    fetchSized([track](uint8_t* buffer, uint32_t size, uint32_t* length) {
        return track->getCodecConfiguration(buffer, size, length);
    });
    for (uint32_t index = 0; index <= kMaxIndexProbed; ++index) {
        fetchSized([track, index](uint8_t* buffer, uint32_t size, uint32_t* length) {
            return track->getCprtNotice(buffer, size, length, index);
        });
    }
    CMp4MetaData* meta = nullptr;
    if (track->getMetaData(&meta) == MP4_OK) {
        walkMetaData(meta);
    }
}

void querySample(CMp4Track* track, uint32_t sample, std::vector<uint8_t>& buffer) {
    uint64_t offset = 0;
    uint64_t time = 0;
    uint32_t size = 0;
    uint32_t value = 0;
    (void)track->getSampleOffset(sample, &offset, &size);
    (void)track->getSampleDecodeTime(sample, &time);
    (void)track->getSampleCompositionTime(sample, &time);
    (void)track->isSyncSample(sample, &value);
    if (track->getSampleSize(sample, &size) != MP4_OK) {
        return;
    }
    if (size <= kMaxBuffer && size > buffer.size()) {
        buffer.resize(size);
    }
    uint32_t read = 0;
    const uint32_t capacity = static_cast<uint32_t>(buffer.size());
    (void)track->readSample(sample, capacity, &read, buffer.data());
    if (size > 0 && size <= capacity) {
        // Too small by one byte: must be refused without writing past it.
        (void)track->readSample(sample, size - 1, &read, buffer.data());
    }
}

void walkSamples(CMp4Track* track, uint32_t count) {
    std::vector<uint8_t> buffer(4096);
    const uint32_t walked = count < kMaxSamplesWalked ? count : kMaxSamplesWalked;
    for (uint32_t sample = 1; sample <= walked; ++sample) {
        querySample(track, sample, buffer);
    }
    // The far end of a long table, then numbers out of range.
    for (uint32_t sample : {count - 1, count, count + 1, 0u, 0xFFFFFFFFu}) {
        if (sample > walked || sample == 0) {
            querySample(track, sample, buffer);
        }
    }
    // The same answers a block at a time, across the end of the table.
    MP4SampleTableEntry entries[16];
    uint32_t filled = 0;
    for (uint32_t first : {1u, walked > 8 ? walked - 8 : 1u, count > 8 ? count - 8 : 1u}) {
        (void)Mp4GetSampleTable(track, first, 16, entries, &filled);
    }
}

void probeTimes(CMp4Track* track, uint32_t count) {
    uint64_t mediaDuration = 0;
    uint64_t lastDecodeTime = 0;
    (void)track->getMediaDuration(&mediaDuration);
    (void)track->getSampleDecodeTime(count, &lastDecodeTime);
    const uint64_t times[] = {0,
                              1,
                              mediaDuration / 2,
                              mediaDuration,
                              lastDecodeTime,
                              lastDecodeTime + 1,
                              0x7FFFFFFFFFFFFFFFull,
                              0xFFFFFFFFFFFFFFFFull};
    for (uint64_t time : times) {
        uint32_t sample = 0;
        uint8_t hours = 0;
        uint8_t minutes = 0;
        uint8_t seconds = 0;
        uint8_t frames = 0;
        (void)track->findSampleByDecodeTime(time, &sample);
        (void)track->findSampleByCompositionTime(time, &sample);
        (void)track->findSyncSampleBefore(time, &sample);
        (void)track->getTimecode(time, &hours, &minutes, &seconds, &frames);
    }
}

void walkTrack(CMp4File* file, uint32_t number) {
    CMp4Track* track = nullptr;
    if (file->getTrack(number, &track) != MP4_OK || track == nullptr) {
        return;
    }
    queryTrackProperties(track);
    uint32_t count = 0;
    if (track->getSampleCount(&count) == MP4_OK) {
        walkSamples(track, count);
        probeTimes(track, count);
    }
    (void)file->releaseTrack(track);
}

void queryFileProperties(CMp4File* file) {
    uint32_t value = 0;
    uint32_t a = 0;
    uint32_t b = 0;
    (void)file->getTimeScale(&value);
    (void)file->getFileType(&value);
    (void)file->getFragmentCount(&value);
    (void)file->getCreationTime(&value, &a, &b, &value, &a, &b);
    for (uint32_t index = 0; index <= kMaxIndexProbed; ++index) {
        fetchSized([file, index](uint8_t* buffer, uint32_t size, uint32_t* length) {
            return file->getCopyright(buffer, size, length, index);
        });
    }
    CMp4MetaData* meta = nullptr;
    if (file->getMetaData(&meta) == MP4_OK) {
        walkMetaData(meta);
    }
}

MP4Err ignoreField(const MP4BoxField* /*field*/, void* /*user*/) { return MP4_OK; }

// Every box as it lies in the file, described as `quil dump --json` asks,
// with the first entries of its table and with as many as it claims.
MP4Err describeBox(const MP4BoxVisit* box, void* user) {
    auto* file = static_cast<CMp4File*>(user);
    (void)Mp4DescribeBox(file, box, 8, ignoreField, nullptr);
    return Mp4DescribeBox(file, box, 0xFFFFFFFFu, ignoreField, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Box dumps print to stdout; keep libFuzzer's own report readable.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 1;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0xFFFFFFFFu) {
        return 0;
    }
    // The memory storage takes a mutable buffer; give it a private copy.
    std::vector<uint8_t> bytes(data, data + size);
    CMemoryStorage storage;
    storage.attach(bytes.data(), static_cast<uint32_t>(size), false);

    CMp4File* file = nullptr;
    if (CMp4File::createInstance(&file) != MP4_OK || file == nullptr) {
        return 0;
    }
    if (file->setStorage(&storage) == MP4_OK && file->open(L"mem", 0, 0) == MP4_OK) {
        (void)file->dumpBoxes();
        (void)Mp4VisitBoxes(file, describeBox, file);
        queryFileProperties(file);
        uint32_t trackCount = 0;
        (void)file->getTrackCount(&trackCount);
        const uint32_t tracks = trackCount < kMaxTracks ? trackCount : kMaxTracks;
        for (uint32_t number = 0; number <= tracks + 1; ++number) {
            walkTrack(file, number);  // 0 and tracks + 1 must be refused
        }
        (void)file->close();
    }
    (void)CMp4File::destroyInstance(&file);
    storage.detach();
    return 0;
}
