// UserCall: the step into a lambda of the user's, and back out of it when it throws.
#pragma once

#include <cxxabi.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Marks the calling thread as inside a call of an object of the kit, while it lives.
class UserCall {
public:
    explicit UserCall(const void* owner) : m_before(t_owner) { t_owner = owner; }
    ~UserCall() { t_owner = m_before; }
    UserCall(const UserCall&) = delete;
    UserCall& operator=(const UserCall&) = delete;

    /// The object in whose call the thread is, null outside of all.
    static const void* owner() { return t_owner; }

    /// Runs `call` for `owner`. True, or false after a line if it has thrown. A thread that is ended inside
    /// it calls `ended`, and goes on ending.
    template <typename Mark = UserCall, typename Call, typename Ended>
    static bool run(const void* owner, const char* what, Call&& call, Ended&& ended) {
        try {
            const Mark mark(owner);
            call();
            return true;
        } catch (const abi::__forced_unwind&) {
            ended();
            abi::__cxa_rethrow();
        } catch (...) {
            tell(owner, what);
            return false;
        }
    }

    /// The same mark where a worker comes from outside of all calls: a little shorter.
    class FromWorker {
    public:
        explicit FromWorker(const void* owner) { t_owner = owner; }
        ~FromWorker() { t_owner = nullptr; }
        FromWorker(const FromWorker&) = delete;
        FromWorker& operator=(const FromWorker&) = delete;
    };

private:
    /// A line about the exception that is being handled.
    static void tell(const void* owner, const char* what);

    static inline thread_local const void* t_owner __attribute__((tls_model("initial-exec"))) = nullptr;

    const void* const m_before;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
