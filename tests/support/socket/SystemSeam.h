// SystemSeam: stands between the tested code and a few calls of the C library, which this program defines
// itself and passes on. It counts questions to the name service, answers names that exist nowhere, and fails
// calls that cannot be made to fail for real.
#pragma once

#include <string>
#include <vector>

namespace Orvex::Testing {

enum class SystemCall { inet_ntop, getnameinfo, ioctl, setsockopt, listen, sendto, sendmsg, count_of_calls };

// Makes the next call of this kind on the calling thread fail with `error`, which is an errno value, or for
// getnameinfo its result; with `after` the one that follows that number of others. Nothing is left behind
// if the call did not come.
class FailNext {
public:
    FailNext(SystemCall call, int error, int after = 0);
    ~FailNext();
    FailNext(const FailNext&) = delete;
    FailNext& operator=(const FailNext&) = delete;

private:
    const SystemCall m_call;
};

// Records the limits, in nanoseconds, of the calls of ppoll on all threads while it lives. One at a time.
class WaitRecorder {
public:
    WaitRecorder();
    ~WaitRecorder();
    WaitRecorder(const WaitRecorder&) = delete;
    WaitRecorder& operator=(const WaitRecorder&) = delete;

    std::vector<long long> limits() const;
};

struct ResolverCall {
    std::string host;
    int family;
    bool numeric_only;  // AI_NUMERICHOST: the name service is not asked
};

// Records the calls of getaddrinfo, and answers for names while it lives. Names without an answer are
// unknown, but for "localhost": no test depends on a name server. Numeric texts get the system's own answer.
// One at a time.
class ResolverSeam {
public:
    ResolverSeam();
    ~ResolverSeam();
    ResolverSeam(const ResolverSeam&) = delete;
    ResolverSeam& operator=(const ResolverSeam&) = delete;

    // Answers for `host` asked with `family` with this literal of `literal_family`, any number of times. The
    // families may differ, which gives a list without an entry of the family that was asked for.
    void answer(const std::string& host, int family, const std::string& literal, int literal_family);
    // The next `times` questions for `host` with `family` fail with `code` before an answer is looked for.
    void failFirst(const std::string& host, int family, int code, int times, int system_error = 0);

    std::vector<ResolverCall> calls() const;
    // Those of the calls that may reach the name service.
    std::size_t questions() const;
};

}  // namespace Orvex::Testing
