// TComPtr: holds a reference on a component. TCounted: the count, for whoever writes one.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

#include <Infra/Assert.h>
#include <Infra/ComponentRegistry.h>

namespace Orvex::Component {

/// The root of all components' interfaces: `addRef` and `release`, from any thread.
using IUnknown = Infra::IComponent;

/// A pointer that holds a reference on what it points to, or is empty.
///
/// Thread safety: as of a plain pointer. Several threads may read one; copies on different threads are
/// independent, and the component itself says what its operations allow.
template <typename Interface>
class TComPtr {
public:
    constexpr TComPtr() noexcept = default;

    /// Takes a reference of its own.
    explicit TComPtr(Interface* component) noexcept : m_component(component) { add(); }

    /// Takes over the reference that the caller holds.
    static TComPtr adopt(Interface* component) noexcept {
        TComPtr pointer;
        pointer.m_component = component;
        return pointer;
    }

    /// Takes a reference of its own.
    TComPtr(const TComPtr& other) noexcept : m_component(other.m_component) { add(); }
    /// Takes over the reference; `other` is empty afterwards.
    TComPtr(TComPtr&& other) noexcept : m_component(std::exchange(other.m_component, nullptr)) {}

    /// From a pointer to another interface. Empty if the component does not have this one.
    template <typename Other, typename = std::enable_if_t<!std::is_same_v<Other, Interface>>>
    explicit TComPtr(const TComPtr<Other>& other) noexcept
        : m_component(dynamic_cast<Interface*>(other.get())) {
        add();
    }

    ~TComPtr() { reset(); }

    /// Drops the reference held before.
    TComPtr& operator=(const TComPtr& other) noexcept {
        TComPtr copy(other);
        swap(copy);
        return *this;
    }
    /// Drops the reference held before; `other` is empty afterwards.
    TComPtr& operator=(TComPtr&& other) noexcept {
        TComPtr taken(std::move(other));
        swap(taken);
        return *this;
    }

    /// Drops the reference; the pointer is empty afterwards.
    void reset() noexcept {
        if (Interface* const component = std::exchange(m_component, nullptr)) {
            component->release();
        }
    }
    /// No reference is taken or dropped.
    void swap(TComPtr& other) noexcept { std::swap(m_component, other.m_component); }

    /// Null if the pointer is empty. The reference stays this pointer's.
    Interface* get() const noexcept { return m_component; }
    /// Whether it holds nothing.
    bool empty() const noexcept { return m_component == nullptr; }
    /// Whether it holds something.
    explicit operator bool() const noexcept { return m_component != nullptr; }

    /// Ends the process with a report if the pointer is empty.
    Interface* operator->() const noexcept { return checked(__LINE__); }
    /// As the arrow.
    Interface& operator*() const noexcept { return *checked(__LINE__); }

    /// The same object, or both empty.
    friend bool operator==(const TComPtr& left, const TComPtr& right) noexcept {
        return left.m_component == right.m_component;
    }
    /// Different objects, or one of them empty.
    friend bool operator!=(const TComPtr& left, const TComPtr& right) noexcept { return !(left == right); }

private:
    void add() const noexcept {
        if (m_component != nullptr) {
            m_component->addRef();
        }
    }
    Interface* checked(long line) const noexcept {
        if (m_component == nullptr) {
            Infra::Detail::assertionFailed("m_component != nullptr", __PRETTY_FUNCTION__, __FILE__, line);
        }
        return m_component;
    }

    Interface* m_component = nullptr;
};

/// The reference count for a class that implements `Interface`. It is made with `new` and one reference,
/// which `TComPtr<...>::adopt` takes over, and deletes itself with the last.
template <typename Interface>
class TCounted : public Interface {
public:
    /// From any thread.
    void addRef() noexcept override { m_references.fetch_add(1, std::memory_order_relaxed); }
    /// From any thread; the last one deletes the object there.
    void release() noexcept override {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

protected:
    TCounted() noexcept = default;
    ~TCounted() override = default;

private:
    std::atomic<int32_t> m_references{1};
};

}  // namespace Orvex::Component
