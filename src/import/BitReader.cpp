#include "import/BitReader.h"

namespace quil {

std::vector<uint8_t> unescapeNalPayload(const uint8_t* data, size_t size, size_t limit) {
    std::vector<uint8_t> out;
    out.reserve(size < limit ? size : limit);
    int zeros = 0;
    for (size_t i = 0; i < size && out.size() < limit; ++i) {
        const uint8_t byte = data[i];
        if (zeros >= 2 && byte == 0x03) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
    return out;
}

uint32_t CBitReader::bits(unsigned count) {
    uint32_t value = 0;
    for (unsigned i = 0; i < count; ++i) {
        if (position_ >= size_ * 8) {
            failed_ = true;
            return 0;
        }
        const uint8_t byte = data_[position_ >> 3];
        value = (value << 1) | ((byte >> (7 - (position_ & 7))) & 1u);
        ++position_;
    }
    return value;
}

void CBitReader::skip(uint64_t count) {
    if (count > size_ * 8 - position_) {
        position_ = size_ * 8;
        failed_ = true;
        return;
    }
    position_ += count;
}

uint32_t CBitReader::ue() {
    unsigned zeros = 0;
    while (!failed_ && bits(1) == 0) {
        if (++zeros > 31) {
            failed_ = true;
            return 0;
        }
    }
    if (failed_) return 0;
    const uint64_t value = (1ull << zeros) - 1 + bits(zeros);
    if (value > 0xFFFFFFFEull) {
        failed_ = true;
        return 0;
    }
    return static_cast<uint32_t>(value);
}

int32_t CBitReader::se() {
    const uint32_t code = ue();
    // 1, 2, 3, 4 ... map to 1, -1, 2, -2 ...
    const int64_t magnitude = (static_cast<int64_t>(code) + 1) / 2;
    return static_cast<int32_t>(code & 1 ? magnitude : -magnitude);
}

}  // namespace quil
