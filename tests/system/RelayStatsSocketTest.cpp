// media_relay --stats: the statistics socket of the relay's process.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;

namespace {

/// The answer to a request at a Unix socket; empty if nobody listens there.
std::string askAt(const std::string& path, const std::string& request) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string answer;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
        char room[4096];
        for (ssize_t got; (got = ::recv(fd, room, sizeof(room), 0)) > 0;) {
            answer.append(room, static_cast<size_t>(got));
        }
    }
    ::close(fd);
    return answer;
}

bool isThere(const std::string& path) {
    struct stat there {};
    return ::lstat(path.c_str(), &there) == 0;
}

}  // namespace

TEST(RelayStatsSocket, TellsOfItsClientsAndItsHandlersAndGoesWithTheRelay) {
    const TempFolder folder;
    const std::string path = folder.file("stats");
    RelayProgram relay({"--stats", path, "--size", "160x120"});
    const Viewer viewer(relay, "/live.mjpg");
    const auto figures = [&] { return nlohmann::json::parse(askAt(path, "json\n"), nullptr, false); };
    EXPECT_EVENTUALLY(figures()["media_senders"].size() == 1);
    EXPECT_FALSE(figures()["pools"].empty());
    EXPECT_NE(std::string::npos, askAt(path, "handlers\n").find("relay::Session"));
    EXPECT_TRUE(relay.stats().contains("clients")) << "the page's own figures stay as they are";
    EXPECT_TRUE(isThere(path));
    EXPECT_EQ(0, relay.end());
    EXPECT_FALSE(isThere(path));
}

TEST(RelayStatsSocket, ThereIsNoneUntilItIsAskedFor) {
    const TempFolder folder;
    const RelayProgram relay({"--size", "160x120"});
    EXPECT_EQ("", askAt(folder.file("stats"), "json\n"));
}

TEST(RelayStatsSocket, APathThatIsTakenEndsTheRelayWithTheReason) {
    const TempFolder folder;
    const std::string path = folder.file("taken");
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
    ChildProcess relay(
        {"sh", "-c", "exec " RETICOR_EXAMPLES_DIR "/media_relay --port 0 --stats '" + path + "' 2>&1"});
    const std::string text = relay.exchange("");
    EXPECT_EQ(1, relay.wait());
    EXPECT_NE(std::string::npos, text.find("can't serve at " + path + ", ")) << text;
    EXPECT_EQ(0, ::rmdir(path.c_str())) << "what was there is left alone";
}

TEST(RelayStatsSocket, MetricsAreServedToo) {
    const RelayProgram relay({"--size", "160x120"});
    const Viewer viewer(relay, "/live.mjpg");
    EXPECT_EVENTUALLY(relay.stats()["clients"].size() == 1);
    EXPECT_EQ("HTTP/1.1 404 Not Found", statusOf(relay.get("/nothing")));
    const std::string answer = relay.get("/metrics");
    EXPECT_NE(std::string::npos, answer.find("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"))
        << answer;
    EXPECT_NE(std::string::npos, answer.find("\nreticor_build_info{"));
    EXPECT_NE(std::string::npos, answer.find("\nreticor_pool_workers{pool=\"0\"} "));
    EXPECT_NE(std::string::npos, answer.find("\n# TYPE media_relay_bad_requests_total counter\n"
                                             "media_relay_bad_requests_total 1\n"));
}
