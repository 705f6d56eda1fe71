// TFunction0 .. TFunction6: bound function objects of fixed size, copied by value and never allocating.
//
//     TFunction1<void, CThreadLite&> body(&CTimer::thread_proc, this);         // bound to an object
//     TFunction3<void, CMediaPacket*, int, int> send(&plain_function);         // a plain function
//
// The first template argument is the result type, the others are the call arguments. The object stays the
// caller's and must live as long as anybody calls. A function object carries no lock: copy it or call it from
// any thread, but do not assign to it meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <Infra/Export.h>

namespace Orvex::Infra {

/// What a function object holds. Numbers from FUNCTION_REUSE on are called like FUNCTION_MEMBER, after
/// Detail::setCurrentFunctionReuse was given the number.
enum FunctionKind : uint32_t {
    FUNCTION_EMPTY = 0,
    FUNCTION_MEMBER = 1,
    FUNCTION_PLAIN = 2,
    FUNCTION_REUSE = 16,
};

namespace Detail {

/// The kind of the last function object of kind 16 or more that the calling thread has called; 0 if there was
/// none.
INFRA_API void setCurrentFunctionReuse(uint32_t kind) noexcept;
INFRA_API uint32_t currentFunctionReuse() noexcept;

/// Complains on standard output about a kind that cannot be called, and flushes, since the call that follows
/// it may well end the process.
INFRA_API void complainOfFunctionKind(uint32_t kind, const char* type_name) noexcept;

/// A function object; products name it by TFunction0 to TFunction6.
template <typename Result, typename... Args>
class TFunction {
public:
    /// An empty one. Calling it is an error: it complains on standard output and then calls a null address.
    constexpr TFunction() noexcept = default;

    /// Bound to a member function of `object`.
    template <typename Class, typename Object>
    TFunction(Result (Class::*method)(Args...), Object* object) noexcept {
        bind<Class>(method, object);
    }
    /// The same for a const member function.
    template <typename Class, typename Object>
    TFunction(Result (Class::*method)(Args...) const, const Object* object) noexcept {
        bind<const Class>(method, object);
    }

    /// A plain function; a null one gives an empty function object.
    TFunction(Result (*function)(Args...)) noexcept {  // NOLINT: an implicit conversion by intent
        if (function == nullptr) {
            return;
        }
        m_code.call = &call_plain;
        std::memcpy(m_code.target, &function, sizeof(function));
        m_kind = FUNCTION_PLAIN;
    }

    /// Whether there is nothing to call.
    bool empty() const noexcept { return m_kind == FUNCTION_EMPTY; }
    /// What it holds, and from FUNCTION_REUSE on what setKind has set.
    uint32_t kind() const noexcept { return m_kind; }
    /// For the maker of a function object: what a call of it tells the callee.
    void setKind(uint32_t kind) noexcept { m_kind = kind; }
    /// The object that it is bound to; null for a plain function.
    void* object() const noexcept { return m_object; }
    /// The implementation's name of the object's class; null for a plain and for an empty function object.
    const char* typeName() const noexcept { return m_type_name; }

    /// Calls it. The object that it is bound to must be alive.
    Result operator()(Args... args) const {
        if (m_kind >= FUNCTION_REUSE) {
            setCurrentFunctionReuse(m_kind);
        } else if (m_kind != FUNCTION_MEMBER && m_kind != FUNCTION_PLAIN) {
            complainOfFunctionKind(m_kind, m_type_name);
        }
        return m_code.call(m_code.target, m_object, std::forward<Args>(args)...);
    }

private:
    // A pointer to member function takes two words with this ABI, and only the class's own type can call it,
    // so the code pointer is a small function that knows the type, with the bytes of the pointer beside it.
    static constexpr size_t TARGET_SIZE = 2 * sizeof(void*);
    struct Code {
        Result (*call)(const unsigned char* target, void* object, Args... args) = nullptr;
        alignas(void*) unsigned char target[TARGET_SIZE] = {};
    };

    template <typename Class, typename Method, typename Object>
    void bind(Method method, Object* object) noexcept {
        static_assert(sizeof(method) <= TARGET_SIZE,
                      "the ABI's pointers to member functions are larger than thought");
        Class* const target = object;
        m_code.call = &call_member<Class, Method>;
        std::memcpy(m_code.target, &method, sizeof(method));
        m_object = const_cast<void*>(static_cast<const void*>(target));
        m_kind = FUNCTION_MEMBER;
        m_type_name = typeid(Class).name();
    }

    template <typename Class, typename Method>
    static Result call_member(const unsigned char* target, void* object, Args... args) {
        Method method;
        std::memcpy(&method, target, sizeof(method));
        return (static_cast<Class*>(object)->*method)(std::forward<Args>(args)...);
    }

    static Result call_plain(const unsigned char* target, void*, Args... args) {
        Result (*function)(Args...);
        std::memcpy(&function, target, sizeof(function));
        return function(std::forward<Args>(args)...);
    }

    Code m_code;
    void* m_object = nullptr;
    uint32_t m_kind = FUNCTION_EMPTY;
    const char* m_type_name = nullptr;
};

}  // namespace Detail

/// By the number of call arguments.
template <typename Result>
using TFunction0 = Detail::TFunction<Result>;
template <typename Result, typename A1>
using TFunction1 = Detail::TFunction<Result, A1>;
template <typename Result, typename A1, typename A2>
using TFunction2 = Detail::TFunction<Result, A1, A2>;
template <typename Result, typename A1, typename A2, typename A3>
using TFunction3 = Detail::TFunction<Result, A1, A2, A3>;
template <typename Result, typename A1, typename A2, typename A3, typename A4>
using TFunction4 = Detail::TFunction<Result, A1, A2, A3, A4>;
template <typename Result, typename A1, typename A2, typename A3, typename A4, typename A5>
using TFunction5 = Detail::TFunction<Result, A1, A2, A3, A4, A5>;
template <typename Result, typename A1, typename A2, typename A3, typename A4, typename A5, typename A6>
using TFunction6 = Detail::TFunction<Result, A1, A2, A3, A4, A5, A6>;

}  // namespace Orvex::Infra
