// trace_reticor COUNT LEVEL [WORDS...]: that number of events of one socket, one after another, with the
// log at a level and, if there are words, one `ntf` command after them. For bench/trace_cost, which counts
// the instructions of an event. Log lines are formatted and dropped.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <Infra/Log.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockStream.h>
#include <component/Component.h>
#include <component/Console.h>

#include "common/Alive.h"

namespace {

using namespace Orvex;
using namespace Orvex::Reticor;

Bench::Alive alive;

/// Keeps the one command that the library enters.
class Console : public Component::TCounted<Manager::IConsole> {
public:
    bool registerCommand(const Manager::ConsoleCommand& command, const char*, const char*) override {
        ntf = command;
        return true;
    }
    Manager::ConsoleCommand ntf;
};

/// Sends each byte back.
class Answerer : public CNetHandler {
public:
    explicit Answerer(int fd) {
        alive.enter();
        m_sock.Attach(fd);
    }
    int start() { return RegisterSock(m_sock, SOCK_READ, 0); }
    void end() {
        RemoveSock(m_sock);
        Close();
    }
    int handle_input(int) override {
        char byte;
        return m_sock.Recv(&byte, 1) == 1 && m_sock.Send(&byte, 1) == 1 ? 0 : -1;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    CSockStream m_sock;
};

void drop(void*, const Infra::LogLine&) {}
const Infra::LogSink s_nowhere = {&drop, nullptr};

bool roundTrip(int fd) {
    char byte = 'x';
    return ::write(fd, &byte, 1) == 1 && ::read(fd, &byte, 1) == 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "trace_reticor COUNT LEVEL [WORDS...]\n");
        return 2;
    }
    Infra::setLogSink(&s_nowhere);
    Infra::setLogLevel(std::atoi(argv[2]));
    auto* console = new Console;
    const auto offered = Component::TComPtr<Manager::IConsole>::adopt(console);
    Component::CComponentHelper::offer(Component::ClassID("Local"), "Console", offered);
    int ends[2];
    if (CreateThreadPool(1, 0) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return 1;
    }
    if (argc > 3) {
        console->ntf(argc - 3, argv + 3);
    }
    auto* answerer = new Answerer(ends[0]);
    answerer->start();
    int result = 0;
    for (int i = std::atoi(argv[1]); i > 0 && result == 0; --i) {
        result = roundTrip(ends[1]) ? 0 : 1;
    }
    answerer->end();
    ::close(ends[1]);
    alive.waitForNone();
    DestroyThreadPool();
    return result;
}
