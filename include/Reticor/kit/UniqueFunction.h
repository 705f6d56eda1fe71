// UniqueFunction: a call that is owned once, with room for 48 bytes of what its lambda captures.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

template <typename Signature>
class UniqueFunction;

/// What the kit takes wherever it takes a lambda: any callable that can be moved, also one that cannot be
/// copied. Up to 48 bytes of captures lie in the object, and then nothing is allocated; more of them, or
/// captures whose move may throw, lie on the heap.
///
/// What it holds is destroyed exactly once: with the object, by an assignment to it, or where it was moved
/// to. An empty one holds nothing and must not be called; the kit's operations refuse it. Without memory
/// for large captures it is empty.
///
/// Thread safety: as an int.
template <typename R, typename... Args>
class UniqueFunction<R(Args...)> {
public:
    /// Bytes of captures that need no allocation.
    static constexpr size_t ROOM = 48;

    /// Empty.
    UniqueFunction() noexcept = default;
    /// Empty: `call = nullptr` destroys what it holds.
    UniqueFunction(std::nullptr_t) noexcept {}  // NOLINT: converts

    /// Holds `callable`.
    template <typename F, typename D = std::decay_t<F>,
              typename = std::enable_if_t<!std::is_same_v<D, UniqueFunction> &&
                                          std::is_invocable_r_v<R, D&, Args...>>>
    UniqueFunction(F&& callable) {  // NOLINT: lambdas are passed as they are
        if constexpr (FITS<D>) {
            ::new (static_cast<void*>(m_room)) D(std::forward<F>(callable));
            m_table = &Inside<D>::TABLE;
        } else {
            D* const there = new (std::nothrow) D(std::forward<F>(callable));
            if (there != nullptr) {
                ::new (static_cast<void*>(m_room)) D*(there);
                m_table = &Outside<D>::TABLE;
            }
        }
    }

    /// Takes over what `other` holds, which is empty then.
    UniqueFunction(UniqueFunction&& other) noexcept { take(other); }
    /// The same; what was held before is destroyed last.
    UniqueFunction& operator=(UniqueFunction&& other) noexcept {
        if (m_table == nullptr) {
            take(other);
        } else if (this != &other) {
            UniqueFunction before(std::move(*this));  // goes last: its end may look at this one
            take(other);
        }
        return *this;
    }
    /// There is no copy.
    UniqueFunction(const UniqueFunction&) = delete;
    /// There is no copy.
    UniqueFunction& operator=(const UniqueFunction&) = delete;
    /// Destroys what it holds.
    ~UniqueFunction() {
        if (m_table != nullptr) {
            m_table->destroy(m_room);
        }
    }

    /// Whether it holds something.
    explicit operator bool() const noexcept { return m_table != nullptr; }

    /// Calls what it holds.
    R operator()(Args... args) { return m_table->call(m_room, std::forward<Args>(args)...); }

private:
    struct Table {
        R (*call)(void* room, Args&&... args);
        void (*move)(void* from, void* to) noexcept;  // leaves nothing at `from`
        void (*destroy)(void* room) noexcept;
    };

    template <typename D>
    static constexpr bool FITS = sizeof(D) <= ROOM &&
                                 alignof(D) <= alignof(void*) && std::is_nothrow_move_constructible_v<D>;

    template <typename D>
    struct Inside {
        static D& at(void* room) noexcept { return *std::launder(reinterpret_cast<D*>(room)); }
        static R call(void* room, Args&&... args) {
            if constexpr (std::is_void_v<R>) {
                at(room)(std::forward<Args>(args)...);
            } else {
                return at(room)(std::forward<Args>(args)...);
            }
        }
        static void move(void* from, void* to) noexcept {
            ::new (to) D(std::move(at(from)));
            at(from).~D();
        }
        static void destroy(void* room) noexcept { at(room).~D(); }
        static constexpr Table TABLE{&call, &move, &destroy};
    };

    template <typename D>
    struct Outside {
        static D*& at(void* room) noexcept { return *std::launder(reinterpret_cast<D**>(room)); }
        static R call(void* room, Args&&... args) {
            if constexpr (std::is_void_v<R>) {
                (*at(room))(std::forward<Args>(args)...);
            } else {
                return (*at(room))(std::forward<Args>(args)...);
            }
        }
        static void move(void* from, void* to) noexcept { ::new (to) D*(at(from)); }
        static void destroy(void* room) noexcept { delete at(room); }
        static constexpr Table TABLE{&call, &move, &destroy};
    };

    void take(UniqueFunction& other) noexcept {
        m_table = std::exchange(other.m_table, nullptr);
        if (m_table != nullptr) {
            m_table->move(other.m_room, m_room);
        }
    }

    const Table* m_table = nullptr;
    alignas(void*) unsigned char m_room[ROOM];
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
