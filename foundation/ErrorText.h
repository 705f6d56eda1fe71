// ErrorText: the system's text for an errno value.
#pragma once

#include <cstddef>

namespace Orvex::Infra::Detail {

/// In a buffer of its own: strerror(3) may share its.
class ErrorText {
public:
    explicit ErrorText(int error) noexcept;
    const char* text() const noexcept { return m_text; }

private:
    static constexpr size_t BUFFER_SIZE = 128;
    char m_buffer[BUFFER_SIZE];
    const char* m_text;
};

}  // namespace Orvex::Infra::Detail
