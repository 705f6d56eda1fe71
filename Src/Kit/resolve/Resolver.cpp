// Resolver: looks names up on threads of the kit's own.
#include "Kit/resolve/Resolver.h"

#include <netdb.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <deque>
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

    State() {
        for (size_t i = 0; i < THREADS; ++i) {
            threads[i] = new (std::nothrow) Infra::CThreadLite({&State::body, this}, "Reticor::Kit");
        }
    }

    void body(Infra::CThreadLite& thread);
    std::unique_ptr<Question> next(Infra::CThreadLite& thread);
    void start_one();

    Infra::CMutex mutex{Infra::LockClass::KIT_RESOLVER};
    std::deque<std::unique_ptr<Question>> questions INFRA_GUARDED_BY(mutex);
    std::array<Infra::CThreadLite*, THREADS> threads{};
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
    std::vector<sockaddr_storage> addresses;
    for (const addrinfo* each = error == 0 ? list : nullptr; each != nullptr; each = each->ai_next) {
        if (each->ai_addrlen <= sizeof(sockaddr_storage)) {
            std::memcpy(&addresses.emplace_back(), each->ai_addr, each->ai_addrlen);
        }
    }
    if (error == 0) {
        freeaddrinfo(list);
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

bool Resolver::ask(std::unique_ptr<Question> question) {
    State& state = State::the();
    size_t idle = State::THREADS;
    size_t busy = 0;
    try {
        CGuard guard(state.mutex);
        state.questions.push_back(std::move(question));
        for (size_t i = 0; i < State::THREADS; ++i) {
            const bool rests = state.work[i] == State::Work::NONE && state.threads[i] != nullptr;
            idle = rests ? i : idle;
            busy += rests ? 0 : 1;
        }
        if (idle != State::THREADS) {
            state.work[idle] = State::Work::BETWEEN;
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (idle == State::THREADS || state.threads[idle]->createThread()) {
        return true;
    }
    CGuard guard(state.mutex);
    state.work[idle] = State::Work::NONE;
    if (busy != 0) {
        return true;  // one of the others takes it
    }
    state.questions.clear();
    return false;
}

void Resolver::reap() {
    State& state = State::the();
    std::array<bool, State::THREADS> ending{};
    {
        CGuard guard(state.mutex);
        for (size_t i = 0; i < State::THREADS; ++i) {
            ending[i] = state.questions.empty() && state.work[i] != State::Work::LOOKING &&
                        state.threads[i] != nullptr;
        }
    }
    for (size_t i = 0; i < State::THREADS; ++i) {
        if (ending[i]) {
            state.threads[i]->destroyThread();
        }
    }
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
