// TextRoom: a text that is put together piece by piece, whatever the locale.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Orvex::Reticor {

/// Grows as needed; without memory std::bad_alloc comes out of it.
class TextRoom {
public:
    TextRoom& operator<<(std::string_view text) {
        m_text.append(text);
        return *this;
    }

    template <class Number, class = std::enable_if_t<std::is_arithmetic_v<Number>>>
    TextRoom& operator<<(Number number) {
        char digits[64];
        const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), number);
        m_text.append(digits, end.ptr);
        return *this;
    }

    /// A number for people: with all its digits, where `<<` would take an exponent.
    TextRoom& Plain(double number) {
        char digits[400];  // the longest has 309 before the point, or some 340 after it
        const std::to_chars_result end =
            std::to_chars(digits, digits + sizeof(digits), number, std::chars_format::fixed);
        m_text.append(digits, end.ptr);
        return *this;
    }

    /// As 0x1a2f.
    TextRoom& Hex(uint64_t number) {
        char digits[16];
        const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), number, 16);
        m_text.append("0x").append(digits, end.ptr);
        return *this;
    }

    /// In quotes. What JSON and the exposition format would take for something else is escaped as both do.
    TextRoom& Quote(std::string_view text) {
        m_text += '"';
        for (const char letter : text) {
            if (letter == '"' || letter == '\\') {
                m_text += '\\';
            }
            // No name of a class has control characters; a blank stands for one all the same.
            m_text += static_cast<unsigned char>(letter) < 0x20 ? ' ' : letter;
        }
        m_text += '"';
        return *this;
    }

    /// Blanks up to that column of the present line, one at least.
    TextRoom& Column(size_t column) {
        const size_t newline = m_text.rfind('\n');
        const size_t begin = newline == std::string::npos ? 0 : newline + 1;
        const size_t at = m_text.size() - begin;
        m_text.append(at < column ? column - at : 1, ' ');
        return *this;
    }

    const std::string& text() const { return m_text; }
    std::string& text() { return m_text; }

private:
    std::string m_text;
};

}  // namespace Orvex::Reticor
