// Multipart: reads a live stream of numbered pictures and proves each of them by its checksum.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace LoadKit {

/// Takes the bytes of a multipart/x-mixed-replace answer as they come. Every part has Content-Length, X-Frame
/// (its number) and X-Sum (FNV-1a of its bytes, in hexadecimal).
class MultipartReader {
public:
    /// False at the first byte that is out of place, or a picture that differs from its checksum; nothing
    /// more is read then.
    bool put(const char* bytes, size_t size) {
        while (size > 0 && m_good) {
            if (m_left > 0) {
                takeBody(bytes, size);
            } else {
                takeLine(*bytes++);
                --size;
            }
        }
        return m_good;
    }

    uint64_t frames() const { return m_frames; }
    uint64_t missed() const { return m_missed; }
    uint64_t bytes() const { return m_bytes; }  // of pictures that were verified
    uint64_t last() const { return m_last; }    // number of the last picture
    bool isGood() const { return m_good; }

private:
    static constexpr size_t kMaxLine = 4096;
    static constexpr uint64_t kBasis = 0xCBF29CE484222325;

    void takeLine(char letter) {
        if (letter != '\n') {
            m_line += letter;
            m_good = m_line.size() < kMaxLine;
            return;
        }
        if (!m_line.empty() && m_line.back() == '\r') {
            m_line.pop_back();
        }
        if (m_answer) {
            m_good = m_line.rfind("HTTP/1.1 200", 0) == 0;
            m_answer = false;
        } else if (m_line.empty()) {
            beginBody();
        } else {
            takeHeader();
        }
        m_line.clear();
    }

    void takeHeader() {
        const size_t colon = m_line.find(": ");
        if (colon == std::string::npos) {
            return;  // a boundary
        }
        const std::string name = m_line.substr(0, colon);
        const char* const value = m_line.c_str() + colon + 2;
        if (name == "Content-Length") {
            m_length = std::strtoull(value, nullptr, 10);
        } else if (name == "X-Frame") {
            m_number = std::strtoull(value, nullptr, 10);
        } else if (name == "X-Sum") {
            m_expected = std::strtoull(value, nullptr, 16);
        }
    }

    void beginBody() {
        m_left = m_length;  // 0 after the head of the answer, and between parts
        m_sum = kBasis;
    }

    void takeBody(const char*& bytes, size_t& size) {
        const size_t part = size < m_left ? size : static_cast<size_t>(m_left);
        for (size_t i = 0; i < part; ++i) {
            m_sum = (m_sum ^ static_cast<unsigned char>(bytes[i])) * 0x100000001B3;
        }
        bytes += part;
        size -= part;
        m_left -= part;
        if (m_left == 0) {
            endBody();
        }
    }

    void endBody() {
        m_good = m_sum == m_expected && (m_frames == 0 || m_number > m_last);
        if (m_good) {
            m_missed += m_frames == 0 ? 0 : m_number - m_last - 1;
            m_last = m_number;
            m_bytes += m_length;
            ++m_frames;
        }
        m_length = 0;
    }

    bool m_good = true;
    bool m_answer = true;  // the first line is still to come
    std::string m_line;
    uint64_t m_length = 0;
    uint64_t m_left = 0;  // of a picture
    uint64_t m_number = 0;
    uint64_t m_expected = 0;
    uint64_t m_sum = kBasis;
    uint64_t m_frames = 0;
    uint64_t m_missed = 0;
    uint64_t m_last = 0;
    uint64_t m_bytes = 0;
};

}  // namespace LoadKit
