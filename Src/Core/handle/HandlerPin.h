// HandlerPin: a reference on a handler that ends with the scope.
#pragma once

#include <utility>

#include <Reticor/NetHandler.h>

#include "Core/handle/HandlerInternal.h"

namespace Orvex::Reticor {

/// Owns one reference on a handler, or is empty. Dropping it can be what ends the handler, and then calls
/// `handle_close`: let no lock be held where a pin goes out of scope.
class HandlerPin {
public:
    HandlerPin() = default;
    ~HandlerPin() {
        if (m_handler != nullptr) {
            HandlerInternal::Of(*m_handler).DecRef();
        }
    }

    /// Takes a reference of its own on `handler`, which the caller knows alive.
    static HandlerPin Take(CNetHandler* handler) {
        HandlerInternal::Of(*handler).AddRef();
        return HandlerPin(handler);
    }

    /// Takes over a reference that the caller holds.
    static HandlerPin Adopt(CNetHandler* handler) { return HandlerPin(handler); }

    HandlerPin(HandlerPin&& other) noexcept : m_handler(std::exchange(other.m_handler, nullptr)) {}
    HandlerPin& operator=(HandlerPin&& other) noexcept {
        std::swap(m_handler, other.m_handler);
        return *this;
    }

    /// Hands the reference to the caller.
    CNetHandler* Release() { return std::exchange(m_handler, nullptr); }

    explicit operator bool() const { return m_handler != nullptr; }
    CNetHandler* operator->() const { return m_handler; }
    CNetHandler* get() const { return m_handler; }

private:
    explicit HandlerPin(CNetHandler* handler) : m_handler(handler) {}

    CNetHandler* m_handler = nullptr;
};

}  // namespace Orvex::Reticor
