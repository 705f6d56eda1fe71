// Requests: what the clients send, different each time and nowhere written down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace LoadKit {

/// The bytes of all requests. A request is a slice of one block of mixed bits, at a place that follows from
/// connection and number.
class Requests {
public:
    explicit Requests(size_t size) : m_size(size), m_block(kPlaces + size) {
        uint64_t state = 0x9e3779b97f4a7c15;
        for (char& byte : m_block) {  // xorshift64
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            byte = static_cast<char>(state >> 32);
        }
    }
    size_t size() const { return m_size; }
    const char* bytes(size_t connection, uint64_t number) const {
        return m_block.data() + (connection * 40503 + number * 9973) % kPlaces;
    }

private:
    static constexpr size_t kPlaces =
        65521;  // a prime, so that the numbers of a connection visit every place
    size_t m_size;
    std::vector<char> m_block;
};

}  // namespace LoadKit
