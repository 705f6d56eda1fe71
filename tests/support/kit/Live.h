// Live: counts what lambdas capture, so that a test sees whether each of them has gone.
#pragma once

#include <atomic>
#include <utility>

namespace Orvex::Testing {

/// How many of its tokens there are, and how many of them have been used.
class Live {
public:
    /// One that can be moved and not copied; what it was moved from does not count.
    class Token {
    public:
        explicit Token(Live& live) : m_live(&live) { ++live.m_count; }
        Token(Token&& other) noexcept : m_live(std::exchange(other.m_live, nullptr)) {}
        Token& operator=(Token&&) = delete;
        ~Token() {
            if (m_live != nullptr) {
                --m_live->m_count;
            }
        }
        void use() { ++m_live->m_used; }

    private:
        Live* m_live;
    };

    Token token() { return Token(*this); }
    int count() const { return m_count; }
    int used() const { return m_used; }

private:
    std::atomic<int> m_count{0};
    std::atomic<int> m_used{0};
};

}  // namespace Orvex::Testing
