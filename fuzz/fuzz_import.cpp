// libFuzzer target for the raw stream importers: arbitrary bytes are taken
// as each kind of stream (the first byte picks H.264, HEVC or the audio
// formats recognised from the content), scanned, and every sample the scan
// found is assembled. Nothing is written to a file.
#include <cstddef>
#include <cstdint>
#include <string>

#include "import/StreamImporters.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace quil;
    if (size < 2) return 0;
    const uint8_t selector = data[0];
    ++data;
    --size;
    std::unique_ptr<CStreamImporter> importer;
    if (selector % 3 == 0) importer = makeVideoImporter(data, size, false, FrameRate());
    else if (selector % 3 == 1) importer = makeVideoImporter(data, size, true, FrameRate{30000, 1001});
    else importer = makeAudioImporter(data, size);
    if (!importer) return 0;
    std::string why;
    if (importer->scan(&why) != MP4_OK) return 0;
    (void)importer->sampleEntry();
    for (uint32_t i = 0; i < importer->sampleCount(); ++i) {
        ImportedSample sample;
        if (importer->sample(i, &sample) != MP4_OK) break;
        // Every byte handed out must be readable.
        volatile uint8_t sink = 0;
        for (uint32_t b = 0; b < sample.size; b += 64) sink = sink + sample.data[b];
        (void)sink;
    }
    return 0;
}
