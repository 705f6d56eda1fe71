// Feed: a process that answers, one that is slow, one that dies, and one that talks nonsense.
#include "top/Feed.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/TempFolder.h"
#include "top/Target.h"

namespace {

using Orvex::Testing::eventually;
using Orvex::Testing::TempFolder;
using top::Feed;
using top::Target;

/// The other end, of which the test says what it does and when: at a path, or at a port of this machine.
class OtherEnd {
public:
    explicit OtherEnd(const std::string& path)
        : m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(0, ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, ::listen(m_listener, 0));
    }
    OtherEnd() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(0, ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), size));
        EXPECT_EQ(0, ::listen(m_listener, 5));
        EXPECT_EQ(0, ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size));
        m_port = ntohs(address.sin_port);
    }
    ~OtherEnd() {
        hang_up();
        ::close(m_listener);
    }
    OtherEnd(const OtherEnd&) = delete;
    OtherEnd& operator=(const OtherEnd&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }

    void accept() {
        pollfd ready{m_listener, POLLIN, 0};
        EXPECT_EQ(1, ::poll(&ready, 1, Orvex::Testing::scaledMs(10000)));
        m_fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_LE(0, m_fd);
    }
    /// What was sent until then.
    std::string request() {
        char room[4096];
        const ssize_t got = ::recv(m_fd, room, sizeof room, 0);
        return std::string(room, got > 0 ? static_cast<size_t>(got) : 0);
    }
    void say(const std::string& bytes) {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    /// As much as the kernel takes.
    size_t say_some(const std::string& bytes) {
        const ssize_t sent = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return sent > 0 ? static_cast<size_t>(sent) : 0;
    }
    /// Orderly, or as a process does that dies with bytes unread.
    void hang_up() {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    void reset() {
        const linger none{1, 0};
        ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
        hang_up();
    }
    void stop_listening() { ::close(std::exchange(m_listener, -1)); }

private:
    int m_listener;
    int m_fd = -1;
    int m_port = 0;
};

class FeedCase : public testing::Test {
protected:
    void aim(const std::string& text) {
        std::string wrong;
        ASSERT_TRUE(target.resolve(text, wrong)) << wrong;
    }
    /// Until it is no longer asking. The clock stands still.
    Feed::State outcome() {
        Feed::State state = Feed::State::ASKING;
        EXPECT_TRUE(eventually([&] {
            state = feed.advance(now_us);
            return state != Feed::State::ASKING;
        }));
        return state;
    }
    void ask() {
        feed.ask("json", now_us);
        EXPECT_TRUE(feed.isAsking());
    }
    void expect_failure(const std::string& why) {
        EXPECT_EQ(Feed::State::FAILED, outcome());
        EXPECT_EQ(why, feed.error());
        EXPECT_FALSE(feed.isAsking());
        EXPECT_EQ(-1, feed.fd());
        EXPECT_EQ(Feed::State::IDLE, feed.advance(now_us)) << "it is told once";
    }

    Target target;
    Feed feed{target};
    uint64_t now_us = 1000000;
    TempFolder folder;
};

/// At a path.
class FeedOfPath : public FeedCase {
protected:
    void SetUp() override { aim(path); }
    /// Asked, and the request has arrived.
    void begin(OtherEnd& end) {
        ask();
        EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
        end.accept();
        EXPECT_EQ("json\n", end.request());
    }
    const std::string path = folder.file("stats");
};

TEST_F(FeedOfPath, IsIdleUntilItIsAsked) {
    EXPECT_FALSE(feed.isAsking());
    EXPECT_EQ(-1, feed.fd());
    EXPECT_EQ(Feed::State::IDLE, feed.advance(now_us));
}

TEST_F(FeedOfPath, AnswersEndWithTheirConnection) {
    OtherEnd end(path);
    begin(end);
    end.say("{\"ver");
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    end.say("sion\":1}\n");
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us)) << "more may come";
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("{\"version\":1}\n", feed.takeAnswer());
    EXPECT_EQ("json", feed.request());
    EXPECT_EQ(Feed::State::IDLE, feed.advance(now_us));
}

TEST_F(FeedOfPath, KnowsWhichProcessAnswers) {
    OtherEnd end(path);
    begin(end);
    EXPECT_EQ(::getpid(), feed.peer());
}

TEST_F(FeedOfPath, TellsWhatToWaitFor) {
    OtherEnd end(path);
    ask();
    EXPECT_LE(0, feed.fd());
    EXPECT_EQ(POLLOUT, feed.events());
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    EXPECT_EQ(POLLIN, feed.events());
    pollfd ready{feed.fd(), feed.events(), 0};
    EXPECT_EQ(0, ::poll(&ready, 1, 0)) << "nothing is there";
    end.accept();
    end.say("x");
    EXPECT_EQ(1, ::poll(&ready, 1, Orvex::Testing::scaledMs(10000)));
}

TEST_F(FeedOfPath, OneThatIsNotThereFailsAtOnce) {
    ask();
    expect_failure("No such file or directory");
}

TEST_F(FeedOfPath, OneThatNobodyListensAtFailsAtOnce) {
    { OtherEnd end(path); }
    ask();
    expect_failure("Connection refused");
}

TEST_F(FeedOfPath, AFileThatIsNotASocketFails) {
    aim(folder.path());
    ask();
    expect_failure("Connection refused");
}

TEST_F(FeedOfPath, OneThatAcceptsNobodyFailsWithoutAWait) {
    OtherEnd end(path);
    // More wait there than it listens to, at some number of them.
    std::vector<std::unique_ptr<Feed>> waiting;
    std::string why;
    for (int i = 0; i < 100 && why.empty(); ++i) {
        waiting.push_back(std::make_unique<Feed>(target));
        waiting.back()->ask("json", now_us);
        if (waiting.back()->advance(now_us) == Feed::State::FAILED) {
            why = waiting.back()->error();
        }
    }
    EXPECT_EQ("it accepts nobody", why);
}

TEST_F(FeedOfPath, OneThatSaysNothingIsGivenUp) {
    OtherEnd end(path);
    begin(end);
    now_us += Feed::PATIENCE_us - 1;
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    EXPECT_EQ(now_us + 1, feed.deadline_us());
    now_us += 1;
    expect_failure("it says nothing");
}

TEST_F(FeedOfPath, ASlowOneMayTakeItsTime) {
    OtherEnd end(path);
    begin(end);
    const std::string answer(50, 'a');
    for (const char letter : answer) {
        now_us += Feed::PATIENCE_us - 1;
        end.say({letter});
        ASSERT_EQ(Feed::State::ASKING, feed.advance(now_us)) << "each byte gives it time anew";
    }
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ(answer, feed.takeAnswer());
}

TEST_F(FeedOfPath, OneThatStopsInTheMiddleIsGivenUp) {
    OtherEnd end(path);
    begin(end);
    end.say("{\"version\"");
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    now_us += Feed::PATIENCE_us;
    expect_failure("it says nothing");
}

TEST_F(FeedOfPath, OneThatHangsUpWithoutAWordFails) {
    OtherEnd end(path);
    begin(end);
    end.hang_up();
    expect_failure("it closed without an answer");
}

TEST_F(FeedOfPath, OneThatDiesWithTheRequestUnreadFails) {
    OtherEnd end(path);
    ask();
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    end.accept();
    end.hang_up();
    expect_failure("Connection reset by peer");
}

TEST_F(FeedOfPath, OneThatDiesBeforeTheRequestIsSentFails) {
    OtherEnd end(path);
    ask();
    end.accept();
    end.hang_up();
    EXPECT_EQ(Feed::State::FAILED, outcome());
    EXPECT_EQ("Broken pipe", feed.error()) << "and no signal ends us";
}

TEST_F(FeedOfPath, AnEndlessAnswerIsGivenUp) {
    OtherEnd end(path);
    begin(end);
    const std::string piece(1 << 16, 'x');
    size_t said = 0;
    Feed::State state = Feed::State::ASKING;
    while (state == Feed::State::ASKING && said < 2 * Feed::MOST_BYTES) {
        said += end.say_some(piece);
        state = feed.advance(now_us);
    }
    EXPECT_EQ(Feed::State::FAILED, state);
    EXPECT_EQ("its answer is longer than 32 MB", feed.error());
}

TEST_F(FeedOfPath, AnAnswerOfManyMegabytesIsTaken) {
    OtherEnd end(path);
    begin(end);
    std::string answer;
    while (answer.size() < 8000000) {
        answer += "answer " + std::to_string(answer.size()) + "\n";
    }
    for (size_t said = 0; said < answer.size();) {
        said += end.say_some(answer.substr(said, 1 << 18));
        ASSERT_EQ(Feed::State::ASKING, feed.advance(now_us));
    }
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_TRUE(answer == feed.takeAnswer()) << "every byte of it";
}

TEST_F(FeedOfPath, AnswersMayHaveAnyBytes) {
    OtherEnd end(path);
    begin(end);
    const std::string odd("\0\xff\x1b[2J\r\n\r\n", 10);
    end.say(odd);
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ(odd, feed.takeAnswer());
}

TEST_F(FeedOfPath, AsksAgainAfterAFailure) {
    ask();
    expect_failure("No such file or directory");
    OtherEnd end(path);
    begin(end);
    end.say("here");
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("here", feed.takeAnswer());
}

TEST_F(FeedOfPath, ANewRequestGivesUpTheOneThatRuns) {
    OtherEnd end(path);
    begin(end);
    end.say("old");
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    feed.ask("handlers", now_us);
    EXPECT_EQ("", end.request()) << "that connection is closed";
    end.hang_up();
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    end.accept();
    EXPECT_EQ("handlers\n", end.request());
    end.say("new");
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("new", feed.takeAnswer());
    EXPECT_EQ("handlers", feed.request());
}

/// At a port.
class FeedOfUrl : public FeedCase {
protected:
    void begin() {
        aim(end.url());
        ask();
        end.accept();
        std::string request;
        EXPECT_TRUE(eventually([&] {
            EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
            return feed.events() == POLLIN;
        }));
        request = end.request();
        EXPECT_EQ(0u, request.find("GET /stats.json HTTP/1.1\r\nHost: 127.0.0.1:")) << request;
        EXPECT_NE(std::string::npos, request.find("\r\nConnection: close\r\n\r\n"));
    }
    void answer(const std::string& bytes) {
        begin();
        end.say(bytes);
        end.hang_up();
    }
    OtherEnd end;
};

TEST_F(FeedOfUrl, TheBodyIsTheAnswer) {
    answer("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}");
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("{}", feed.takeAnswer());
    EXPECT_EQ(0, feed.peer()) << "nobody tells that";
}

TEST_F(FeedOfUrl, WithoutALengthItEndsWithTheConnection) {
    answer("HTTP/1.0 200 Fine\r\n\r\n{\"a\":1}");
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("{\"a\":1}", feed.takeAnswer());
}

TEST_F(FeedOfUrl, WithALengthItIsWholeAlsoWhileTheConnectionStays) {
    begin();
    end.say("HTTP/1.1 200 OK\r\ncontent-LENGTH:   4\r\n\r\nab");
    EXPECT_EQ(Feed::State::ASKING, feed.advance(now_us));
    end.say("cd");
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("abcd", feed.takeAnswer());
    EXPECT_EQ(-1, feed.fd()) << "and was closed by us";
}

TEST_F(FeedOfUrl, TheHeadMayComeInPieces) {
    begin();
    for (const char letter : std::string("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n")) {
        end.say({letter});
        ASSERT_EQ(Feed::State::ASKING, feed.advance(now_us));
    }
    end.say("x");
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("x", feed.takeAnswer());
}

TEST_F(FeedOfUrl, AnotherStatusIsAFailureThatTellsIt) {
    answer("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    expect_failure("it answered: HTTP/1.1 404 Not Found");
}

TEST_F(FeedOfUrl, ALongStatusIsCut) {
    answer("HTTP/1.1 500 " + std::string(3000, 'x') + "\r\n\r\n");
    EXPECT_EQ(Feed::State::FAILED, outcome());
    EXPECT_GT(120u, feed.error().size());
}

TEST_F(FeedOfUrl, AnAnswerThatWasCutOffFails) {
    answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"vers");
    expect_failure("its answer was cut off");
}

TEST_F(FeedOfUrl, WhatIsNotHttpFails) {
    answer("SSH-2.0-something\r\n\r\n");
    expect_failure("it does not speak HTTP");
}

TEST_F(FeedOfUrl, AHeadWithoutAnEndFails) {
    answer("HTTP/1.1 200 OK\r\nX: ");
    expect_failure("it does not speak HTTP");
}

TEST_F(FeedOfUrl, AnEndlessHeadIsGivenUpEarly) {
    begin();
    end.say("HTTP/1.1 200 OK\r\nX: ");
    const std::string piece(1 << 14, 'x');
    size_t said = 0;
    Feed::State state = Feed::State::ASKING;
    while (state == Feed::State::ASKING && said < Feed::MOST_BYTES) {
        said += end.say_some(piece);
        state = feed.advance(now_us);
    }
    EXPECT_EQ(Feed::State::FAILED, state);
    EXPECT_EQ("it does not speak HTTP", feed.error());
}

TEST_F(FeedOfUrl, AnOddLengthIsNotBelieved) {
    answer("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n{}");
    expect_failure("its answer was cut off");
}

TEST_F(FeedOfUrl, AResetIsAFailure) {
    begin();
    end.say("HTTP/1.1 200 OK\r\n");
    end.reset();
    expect_failure("Connection reset by peer");
}

TEST_F(FeedOfUrl, APortThatNobodyListensAtIsRefused) {
    aim(end.url());
    end.stop_listening();
    ask();
    expect_failure("Connection refused");
}

TEST_F(FeedOfUrl, TriesTheAddressesOfANameInTurn) {
    // The name stands for the addresses of both families on many machines, and one of them listens.
    const std::string url = end.url();
    aim("http://localhost" + url.substr(url.rfind(':')));
    ask();
    EXPECT_TRUE(eventually([&] {
        feed.advance(now_us);
        return feed.events() == POLLIN;
    }));
    end.accept();
    end.request();
    end.say("HTTP/1.1 200 OK\r\n\r\n{}");
    end.hang_up();
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
}

TEST_F(FeedOfUrl, WhatIsLeftOfAFailureIsNotPartOfTheNextAnswer) {
    answer("HTTP/1.1 503 Full\r\n\r\nfull");
    expect_failure("it answered: HTTP/1.1 503 Full");
    answer("HTTP/1.1 200 OK\r\n\r\nwell");
    EXPECT_EQ(Feed::State::ANSWERED, outcome());
    EXPECT_EQ("well", feed.takeAnswer());
}

}  // namespace
