// Resolver: looks names up on threads of the kit's own.
#include "Kit/resolve/Resolver.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <list>
#include <new>
#include <utility>
#include <vector>

#include <Infra/Forever.h>
#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ThreadLite.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

using Infra::CGuard;

/// Never destroyed: a look-up may outlast everything.
struct Resolver::State {
    static constexpr size_t THREADS = 4;
    enum class Work { NONE, BETWEEN, LOOKING };

    static State& the() {
        static Infra::Forever<State> room;
        static State& state = room.make();
        return state;
    }

    void body(Infra::CThreadLite& thread);
    std::unique_ptr<Question> next(Infra::CThreadLite& thread);
    Infra::CThreadLite* thread_to_start() INFRA_REQUIRES(mutex);
    bool is_at_work() const INFRA_REQUIRES(mutex);
    bool give_up(const Question* asked, Infra::CThreadLite* not_started);

    Infra::CMutex mutex{Infra::LockClass::KIT_RESOLVER};
    std::list<std::unique_ptr<Question>> questions INFRA_GUARDED_BY(mutex);
    std::array<Infra::CThreadLite*, THREADS> threads INFRA_GUARDED_BY(mutex){};  ///< Made when one is needed.
    std::array<Work, THREADS> work INFRA_GUARDED_BY(mutex){};
};

namespace {

void look_up(Resolver::Question& question) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const std::string port = std::to_string(question.port);
    const int error = getaddrinfo(question.host.c_str(), port.c_str(), &hints, &list);
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(error == 0 ? list : nullptr,
                                                                   &freeaddrinfo);
    std::vector<sockaddr_storage> addresses;
    for (const addrinfo* each = owner.get(); each != nullptr; each = each->ai_next) {
        if (each->ai_addrlen <= sizeof(sockaddr_storage)) {
            std::memcpy(&addresses.emplace_back(), each->ai_addr, each->ai_addrlen);
        }
    }
    question.answered(addresses.data(), addresses.size(), error);
}

}  // namespace

std::unique_ptr<Resolver::Question> Resolver::State::next(Infra::CThreadLite& thread) {
    CGuard guard(mutex);
    size_t mine = 0;
    while (threads[mine] != &thread) {
        ++mine;
    }
    if (questions.empty()) {
        work[mine] = Work::NONE;  // from here on it ends, and may be started anew
        return nullptr;
    }
    work[mine] = Work::LOOKING;
    std::unique_ptr<Question> question = std::move(questions.front());
    questions.pop_front();
    return question;
}

void Resolver::State::body(Infra::CThreadLite& thread) {
    while (const std::unique_ptr<Question> question = next(thread)) {
        try {
            look_up(*question);
        } catch (const std::bad_alloc&) {
            question->answered(nullptr, 0, EAI_MEMORY);
        }
    }
}

// Null if all are at work, or if there is no memory for one.
Infra::CThreadLite* Resolver::State::thread_to_start() {
    for (size_t i = 0; i < THREADS; ++i) {
        if (work[i] != Work::NONE) {
            continue;
        }
        if (threads[i] == nullptr) {
            threads[i] = new (std::nothrow) Infra::CThreadLite({&State::body, this}, "Reticor::Kit");
        }
        if (threads[i] != nullptr) {
            work[i] = Work::BETWEEN;
            return threads[i];
        }
    }
    return nullptr;
}

bool Resolver::State::is_at_work() const {
    return std::any_of(work.begin(), work.end(), [](Work each) { return each != Work::NONE; });
}

// No thread has been started for the question. True if another one takes it; else nobody takes any, and
// whoever has asked beside us, and relied on this thread, is told.
bool Resolver::State::give_up(const Question* asked, Infra::CThreadLite* not_started) {
    std::list<std::unique_ptr<Question>> left;
    {
        CGuard guard(mutex);
        for (size_t i = 0; i < THREADS; ++i) {
            work[i] = not_started != nullptr && threads[i] == not_started ? Work::NONE : work[i];
        }
        if (is_at_work()) {
            return true;
        }
        left.swap(questions);
    }
    bool refused = false;
    for (const std::unique_ptr<Question>& question : left) {
        if (question.get() == asked) {
            refused = true;
        } else {
            question->answered(nullptr, 0, EAI_AGAIN);
        }
    }
    return !refused;
}

bool Resolver::ask(std::unique_ptr<Question> question) {
    const Question* const asked = question.get();
    try {
        State& state = State::the();
        Infra::CThreadLite* thread = nullptr;
        {
            CGuard guard(state.mutex);
            state.questions.push_back(std::move(question));
            thread = state.thread_to_start();
        }
        return (thread != nullptr && thread->createThread()) || state.give_up(asked, thread);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void Resolver::reap() {
    State& state = State::the();
    std::array<Infra::CThreadLite*, State::THREADS> ending{};
    {
        CGuard guard(state.mutex);
        for (size_t i = 0; i < State::THREADS; ++i) {
            const bool ends = state.questions.empty() && state.work[i] != State::Work::LOOKING;
            ending[i] = ends ? state.threads[i] : nullptr;
        }
    }
    for (Infra::CThreadLite* const thread : ending) {
        if (thread != nullptr) {
            thread->destroyThread();
        }
    }
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
