// Reading raw audio streams: ADTS frame headers (AAC), AMR storage-format
// frame headers, MPEG audio frame headers (MP3) with their Xing/LAME
// information, and the RIFF/WAVE header. Each parser looks at the bytes it
// is given and no further; MP4_ERR_INVALID_DATA means "not such a header
// here", MP4_ERR_UNSUPPORTED a valid form quil does not import.
#ifndef QUIL_IMPORT_AUDIOPARSERS_H
#define QUIL_IMPORT_AUDIOPARSERS_H

#include <cstddef>
#include <cstdint>

#include "quil/MP4Err.h"

namespace quil {

// ---- AAC in ADTS (ISO/IEC 13818-7 §6.2, 14496-3 §1.A.2) --------------------

struct AdtsHeader {
    uint32_t objectType = 0;       // audio object type (profile + 1)
    uint32_t frequencyIndex = 0;   // sampling_frequency_index
    uint32_t sampleRate = 0;
    uint32_t channelConfig = 0;
    uint32_t headerSize = 0;       // 7, or 9 with a CRC
    uint32_t frameSize = 0;        // header included
};

MP4Err parseAdtsHeader(const uint8_t* data, size_t size, AdtsHeader* header);
// The two-byte AudioSpecificConfig of such a stream.
void adtsAudioSpecificConfig(const AdtsHeader& header, uint8_t config[2]);

// ---- AMR and AMR-WB storage format (RFC 4867 §5) ----------------------------

// The magic number at the start of the file: 1 for "#!AMR\n" (narrow
// band), 2 for "#!AMR-WB\n", 0 for neither. *headerSize is its length.
int amrStorageKind(const uint8_t* data, size_t size, size_t* headerSize);
// Bytes of the frame whose header byte is given (header byte included);
// 0 for a frame type the band does not define.
uint32_t amrFrameSize(uint8_t header, bool wideBand);

// ---- MPEG audio (ISO/IEC 11172-3, 13818-3; MP3) -----------------------------

struct MpegAudioHeader {
    uint32_t version = 0;          // 1 (MPEG-1), 2 (MPEG-2) or 25 (MPEG-2.5)
    uint32_t layer = 0;            // 1..3
    uint32_t sampleRate = 0;
    uint32_t channels = 0;
    uint32_t bitrate = 0;          // kbit/s
    uint32_t frameSize = 0;        // bytes, header included
    uint32_t samplesPerFrame = 0;
};

// Free-format frames (bit rate index 0) are unsupported.
MP4Err parseMpegAudioHeader(const uint8_t* data, size_t size, MpegAudioHeader* header);
// Length of an ID3v2 tag at data (header, body and footer), 0 when none.
size_t id3v2TagSize(const uint8_t* data, size_t size);

// The encoder's information frame (Xing, Info or VBRI) that some encoders
// write as the first frame: silent, not part of the audio. The LAME
// extension tells the encoder delay and padding in samples.
struct MpegInfoFrame {
    bool present = false;
    bool hasDelays = false;
    uint32_t encoderDelay = 0;
    uint32_t padding = 0;
};
MpegInfoFrame parseMpegInfoFrame(const uint8_t* frame, size_t size, const MpegAudioHeader& header);

// ---- RIFF/WAVE --------------------------------------------------------------

struct WaveFormat {
    uint32_t channels = 0;
    uint32_t sampleRate = 0;
    uint32_t bitsPerSample = 0;
    uint32_t blockAlign = 0;       // bytes of one frame (all channels)
    bool isFloat = false;
    uint64_t dataOffset = 0;       // of the samples in the file
    uint64_t dataSize = 0;         // whole frames only
};

// The format and data chunks of a WAVE file. A data chunk declared longer
// than the file (a stream written without its final size) ends with the
// file.
MP4Err parseWave(const uint8_t* data, size_t size, WaveFormat* format);

}  // namespace quil

#endif
