// Box: writing of the boxes that MP4 files are made of (ISO/IEC 14496-12, 4.2).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace relay {

/// Appends big-endian numbers and nested boxes to bytes.
class BoxWriter {
public:
    explicit BoxWriter(std::vector<uint8_t>& bytes) : m_bytes(bytes) {}

    size_t size() const { return m_bytes.size(); }

    BoxWriter& u8(unsigned value) { return number(value, 1); }
    BoxWriter& u16(unsigned value) { return number(value, 2); }
    BoxWriter& u32(uint64_t value) { return number(value, 4); }
    BoxWriter& u64(uint64_t value) { return number(value, 8); }
    BoxWriter& zeros(size_t count) {
        m_bytes.insert(m_bytes.end(), count, 0);
        return *this;
    }
    BoxWriter& raw(const std::vector<uint8_t>& bytes) {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    BoxWriter& text(const char* letters) {
        while (*letters != 0) {
            m_bytes.push_back(static_cast<uint8_t>(*letters++));
        }
        return *this;
    }

    /// Begins a box; `end` is given what this gives.
    size_t begin(const char* type) {
        const size_t at = m_bytes.size();
        u32(0).text(type);
        return at;
    }
    /// The same of a box with a version and flags.
    size_t begin(const char* type, unsigned version, unsigned flags) {
        const size_t at = begin(type);
        u32(version << 24 | flags);
        return at;
    }
    void end(size_t at) { patch(at, m_bytes.size() - at); }

    /// Writes 32 bits over what stands at a place.
    void patch(size_t at, uint64_t value) {
        for (size_t i = 0; i < 4; ++i) {
            m_bytes[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
        }
    }

private:
    BoxWriter& number(uint64_t value, unsigned bytes) {
        while (bytes-- > 0) {
            m_bytes.push_back(static_cast<uint8_t>(value >> (8 * bytes)));
        }
        return *this;
    }

    std::vector<uint8_t>& m_bytes;
};

}  // namespace relay
