// Reading raw elementary streams: a bounded bit reader over the payload of
// an H.264/HEVC NAL unit with its emulation-prevention bytes removed.
#ifndef QUIL_IMPORT_BITREADER_H
#define QUIL_IMPORT_BITREADER_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quil {

// The NAL unit's payload as the syntax reads it (RBSP): every 0x03 that
// follows two zero bytes dropped. At most `limit` bytes of the result are
// kept (a slice header needs only its start).
std::vector<uint8_t> unescapeNalPayload(const uint8_t* data, size_t size,
                                        size_t limit = SIZE_MAX);

// Reads bits most significant first. Reading past the end yields zeros and
// sets failed(), so a parser checks once at the end of a structure instead
// of after every field.
class CBitReader {
public:
    CBitReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    explicit CBitReader(const std::vector<uint8_t>& bytes)
        : data_(bytes.data()), size_(bytes.size()) {}

    uint32_t bits(unsigned count);  // 0..32
    bool flag() { return bits(1) != 0; }
    void skip(uint64_t count);
    // Exp-Golomb codes (ue(v), se(v)); a code longer than 32 bits fails.
    uint32_t ue();
    int32_t se();
    bool failed() const { return failed_; }
    void fail() { failed_ = true; }
    uint64_t bitsLeft() const { return failed_ ? 0 : size_ * 8 - position_; }

private:
    const uint8_t* data_;
    size_t size_;
    uint64_t position_ = 0;  // in bits
    bool failed_ = false;
};

}  // namespace quil

#endif
