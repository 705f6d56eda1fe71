// How a library thread presents itself to the kernel: its name, and what priority and policy numbers mean.
#pragma once

#include <cstddef>

namespace Orvex::Infra::Detail {

// Shows the name to the kernel, cut to the 15 bytes that it can keep: a longer one would be refused, not cut.
// An empty name changes nothing.
void setKernelThreadName(const char* name) noexcept;

// Applies the scheduling values of CThread to the calling thread. Refusals are logged at level 3, each kind
// once in the life of the process, and survived.
void applyScheduling(const char* name, int priority, int policy) noexcept;

// The system's text for an errno value, in a buffer of its own: strerror(3) may share its.
class ErrorText {
public:
    explicit ErrorText(int error) noexcept;
    const char* text() const noexcept { return m_text; }

private:
    static constexpr std::size_t BUFFER_SIZE = 128;
    char m_buffer[BUFFER_SIZE];
    const char* m_text;
};

}  // namespace Orvex::Infra::Detail
