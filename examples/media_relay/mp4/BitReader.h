// BitReader: the bits of a parameter set (ISO/IEC 14496-10, 7.2 and 9.1).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace relay {

/// The bytes of a unit without those that only keep start codes out of it.
inline std::vector<uint8_t> withoutEmulation(const uint8_t* bytes, size_t size) {
    std::vector<uint8_t> plain;
    plain.reserve(size);
    unsigned zeros = 0;
    for (size_t i = 0; i < size; ++i) {
        if (zeros >= 2 && bytes[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = bytes[i] == 0 ? zeros + 1 : 0;
        plain.push_back(bytes[i]);
    }
    return plain;
}

/// A view. After the last bit it gives zeros, and is no longer good.
class BitReader {
public:
    explicit BitReader(const std::vector<uint8_t>& bytes) : m_bytes(bytes) {}

    /// Up to 32 bits.
    uint32_t bits(unsigned count) {
        uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i) {
            const size_t at = m_at / 8;
            m_good = m_good && at < m_bytes.size();
            const unsigned bit = at < m_bytes.size() ? m_bytes[at] >> (7 - m_at % 8) & 1U : 0U;
            value = value << 1 | bit;
            ++m_at;
        }
        return value;
    }
    bool flag() { return bits(1) != 0; }
    void skip(unsigned count) {
        for (unsigned i = 0; i < count; ++i) {
            bits(1);
        }
    }

    /// An Exp-Golomb number. One with a sign has as many bits.
    uint32_t number() {
        unsigned zeros = 0;
        while (m_good && zeros < 32 && !flag()) {
            ++zeros;
        }
        if (zeros == 32) {
            m_good = false;
        }
        return m_good && zeros > 0 ? (1U << zeros) - 1 + bits(zeros) : 0U;
    }
    bool isGood() const { return m_good; }

private:
    const std::vector<uint8_t>& m_bytes;
    size_t m_at = 0;
    bool m_good = true;
};

}  // namespace relay
