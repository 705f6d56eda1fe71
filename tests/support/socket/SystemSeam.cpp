// SystemSeam: the calls of the C library that this test program stands in front of.
#include "support/socket/SystemSeam.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <map>
#include <mutex>
#include <utility>

namespace Orvex::Testing {

namespace {

using Question = std::pair<std::string, int>;

struct Failure {
    int code;
    int times;
    int system_error;
};

struct Answer {
    std::string literal;
    int family;
};

struct ResolverState {
    std::vector<ResolverCall> calls;
    std::map<Question, Answer> answers;
    std::map<Question, Failure> failures;
};

std::mutex resolver_mutex;
ResolverState* resolver_state = nullptr;

std::mutex waits_mutex;
std::vector<long long>* recorded_waits = nullptr;

thread_local int planned_errors[static_cast<int>(SystemCall::count_of_calls)] = {};
thread_local int calls_before[static_cast<int>(SystemCall::count_of_calls)] = {};

}  // namespace

// 0 if the call goes through.
int takePlannedError(SystemCall call) {
    int& before = calls_before[static_cast<int>(call)];
    if (before > 0) {
        --before;
        return 0;
    }
    return std::exchange(planned_errors[static_cast<int>(call)], 0);
}

template <typename Function>
Function* realFunction(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int realGetaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result) {
    static auto* const real = realFunction<decltype(::getaddrinfo)>("getaddrinfo");
    return real(host, service, hints, result);
}

// Decides a question; true if `code` is the result, with `*result` set where it is 0.
bool decide(const char* host, const addrinfo* hints, addrinfo** result, int* code) {
    const std::lock_guard<std::mutex> guard(resolver_mutex);
    const bool numeric_only = (hints->ai_flags & AI_NUMERICHOST) != 0;
    if (resolver_state == nullptr) {
        return false;
    }
    resolver_state->calls.push_back({host, hints->ai_family, numeric_only});
    const Question question(host, hints->ai_family);
    const auto failure = resolver_state->failures.find(question);
    if (failure != resolver_state->failures.end() && failure->second.times > 0) {
        --failure->second.times;
        *code = failure->second.code;
        errno = failure->second.system_error;
        return true;
    }
    const auto answer = resolver_state->answers.find(question);
    if (answer != resolver_state->answers.end()) {
        addrinfo numeric = *hints;
        numeric.ai_family = answer->second.family;
        numeric.ai_flags = AI_NUMERICHOST;
        *code = realGetaddrinfo(answer->second.literal.c_str(), nullptr, &numeric, result);
        return true;
    }
    *code = EAI_NONAME;
    return !numeric_only && question.first != "localhost";
}

void recordWait(const timespec& limit) {
    const std::lock_guard<std::mutex> guard(waits_mutex);
    if (recorded_waits != nullptr) {
        recorded_waits->push_back(limit.tv_sec * 1000000000LL + limit.tv_nsec);
    }
}

WaitRecorder::WaitRecorder() {
    const std::lock_guard<std::mutex> guard(waits_mutex);
    recorded_waits = new std::vector<long long>;
}

WaitRecorder::~WaitRecorder() {
    const std::lock_guard<std::mutex> guard(waits_mutex);
    delete std::exchange(recorded_waits, nullptr);
}

std::vector<long long> WaitRecorder::limits() const {
    const std::lock_guard<std::mutex> guard(waits_mutex);
    return *recorded_waits;
}

FailNext::FailNext(SystemCall call, int error, int after) : m_call(call) {
    planned_errors[static_cast<int>(call)] = error;
    calls_before[static_cast<int>(call)] = after;
}

FailNext::~FailNext() {
    planned_errors[static_cast<int>(m_call)] = 0;
    calls_before[static_cast<int>(m_call)] = 0;
}

ResolverSeam::ResolverSeam() {
    const std::lock_guard<std::mutex> guard(resolver_mutex);
    resolver_state = new ResolverState;
}

ResolverSeam::~ResolverSeam() {
    const std::lock_guard<std::mutex> guard(resolver_mutex);
    delete std::exchange(resolver_state, nullptr);
}

void ResolverSeam::answer(const std::string& host, int family, const std::string& literal,
                          int literal_family) {
    const std::lock_guard<std::mutex> guard(resolver_mutex);
    resolver_state->answers[{host, family}] = {literal, literal_family};
}

void ResolverSeam::failFirst(const std::string& host, int family, int code, int times, int system_error) {
    const std::lock_guard<std::mutex> guard(resolver_mutex);
    resolver_state->failures[{host, family}] = {code, times, system_error};
}

std::vector<ResolverCall> ResolverSeam::calls() const {
    const std::lock_guard<std::mutex> guard(resolver_mutex);
    return resolver_state->calls;
}

std::size_t ResolverSeam::questions() const {
    std::size_t count = 0;
    for (const ResolverCall& call : calls()) {
        count += call.numeric_only ? 0 : 1;
    }
    return count;
}

}  // namespace Orvex::Testing

// The calls themselves. They are found before the C library's, since the program comes first in the search.
using Orvex::Testing::realFunction;
using Orvex::Testing::SystemCall;
using Orvex::Testing::takePlannedError;

extern "C" {

int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result) {
    int code = 0;
    if (Orvex::Testing::decide(host, hints, result, &code)) {
        return code;
    }
    return Orvex::Testing::realGetaddrinfo(host, service, hints, result);
}

int getnameinfo(const sockaddr* addr, socklen_t length, char* host, socklen_t host_length, char* service,
                socklen_t service_length, int flags) {
    if (const int error = takePlannedError(SystemCall::getnameinfo)) {
        return error;
    }
    static auto* const real = realFunction<decltype(::getnameinfo)>("getnameinfo");
    return real(addr, length, host, host_length, service, service_length, flags);
}

const char* inet_ntop(int family, const void* address, char* text, socklen_t length) noexcept {
    if (const int error = takePlannedError(SystemCall::inet_ntop)) {
        errno = error;
        return nullptr;
    }
    static auto* const real = realFunction<decltype(::inet_ntop)>("inet_ntop");
    return real(family, address, text, length);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    if (const int error = takePlannedError(SystemCall::ioctl)) {
        errno = error;
        return -1;
    }
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    static auto* const real = realFunction<int(int, unsigned long, void*)>("ioctl");
    return real(fd, request, argument);
}

int ppoll(pollfd* entries, nfds_t count, const timespec* limit, const sigset_t* mask) {
    if (limit != nullptr) {
        Orvex::Testing::recordWait(*limit);
    }
    static auto* const real = realFunction<decltype(::ppoll)>("ppoll");
    return real(entries, count, limit, mask);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    if (const int error = takePlannedError(SystemCall::setsockopt)) {
        errno = error;
        return -1;
    }
    static auto* const real = realFunction<decltype(::setsockopt)>("setsockopt");
    return real(fd, level, option, value, length);
}

int listen(int fd, int backlog) noexcept {
    if (const int error = takePlannedError(SystemCall::listen)) {
        errno = error;
        return -1;
    }
    static auto* const real = realFunction<decltype(::listen)>("listen");
    return real(fd, backlog);
}

ssize_t sendto(int fd, const void* data, size_t length, int flags, const sockaddr* to, socklen_t to_length) {
    if (const int error = takePlannedError(SystemCall::sendto)) {
        errno = error;
        return -1;
    }
    static auto* const real = realFunction<decltype(::sendto)>("sendto");
    return real(fd, data, length, flags, to, to_length);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    if (const int error = takePlannedError(SystemCall::sendmsg)) {
        errno = error;
        return -1;
    }
    static auto* const real = realFunction<decltype(::sendmsg)>("sendmsg");
    return real(fd, message, flags);
}

}  // extern "C"
