// Resolver: looks names up on threads of the kit's own, since a look-up blocks and cannot be interrupted.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct sockaddr_storage;

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Up to four threads, which start when there is something to look up, and end when there is nothing.
///
/// Thread safety: every operation on any thread.
class Resolver {
public:
    /// A name, and who wants to know.
    class Question {
    public:
        virtual ~Question() = default;
        /// What it has found: addresses with the port, in the system's order, or none and an error of
        /// getaddrinfo(3). Once, on a thread of the resolver, or on one that asks if none can be started; the
        /// question is destroyed after that.
        virtual void answered(const sockaddr_storage* addresses, size_t count, int error) = 0;

        std::string host;
        unsigned short port = 0;
    };

    /// False, with the question destroyed, if there is no memory or no thread. Does not wait for an answer.
    static bool ask(std::unique_ptr<Question> question);

    /// Waits for the threads that have nothing to do and are ending; not for one that looks a name up.
    static void reap();

private:
    struct State;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
