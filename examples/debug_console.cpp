// debug_console: a console on standard input, and an echo server to look into with it.
//
// What it teaches:
//  - how a product offers its own console to the library, which then enters its command `ntf` there;
//  - where the library's log lines go: to a sink of the product's, up to the level that it wants. The replies
//    of `ntf` have level 4, the lines that it switches on level 3; by default only levels 1 and 2 are shown.
//
// Try, with a client on the other side (ncat 127.0.0.1 7007):
//   ntf -h           what there is
//   ntf -S -a        trace the deliveries and registrations of all sockets
//   ntf -S --more    every step of them, with times
//   ntf -S -fd 9     of one socket only
//   ntf -S -off      be quiet again
//   quit             or the end of the input
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <Infra/Log.h>
#include <component/Component.h>
#include <component/Console.h>

#include "support/Listener.h"

using namespace example;
namespace Component = Orvex::Component;
namespace Manager = Orvex::Manager;

namespace {

/// The commands of this process, by name. The library enters its own whenever a pool is created, on whatever
/// thread does that; the lines come from main.
class Console : public Component::TCounted<Manager::IConsole> {
public:
    bool registerCommand(const Manager::ConsoleCommand& command, const char* name,
                         const char* help) override {
        CGuard guard(m_mutex);
        return m_commands.emplace(name, Entry{command, help}).second;
    }

    /// Calls the command that the line begins with; the other words are handed to it.
    void run(const std::string& line) {
        std::vector<std::string> words = split(line);
        if (words.empty()) {
            return;
        }
        std::vector<char*> arguments;
        for (size_t i = 1; i < words.size(); ++i) {
            arguments.push_back(words[i].data());
        }
        CGuard guard(m_mutex);
        const auto found = m_commands.find(words[0]);
        if (found == m_commands.end()) {
            tellCommands();
            return;
        }
        found->second.command(static_cast<int>(arguments.size()), arguments.data());
    }

private:
    struct Entry {
        Manager::ConsoleCommand command;
        std::string help;
    };

    static std::vector<std::string> split(const std::string& line) {
        std::istringstream stream(line);
        std::vector<std::string> words;
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
        return words;
    }

    void tellCommands() INFRA_REQUIRES(m_mutex) {
        for (const auto& [name, entry] : m_commands) {
            std::printf("%s: %s\n", name.c_str(), entry.help.c_str());
        }
        std::printf("quit\n");
    }

    Orvex::Infra::CMutex m_mutex;
    std::map<std::string, Entry> m_commands INFRA_GUARDED_BY(m_mutex);
};

/// One client of the echo server, which gets its lines back. One that does not read them is hung up on:
/// echo_server.cpp shows how to wait for it.
class Connection : public Member {
public:
    static void Create(Roster& roster, CSockStream& peer) {
        auto* self = new Connection(roster);
        self->AddRef();  // the client may hang up, and the handler end, while start still runs
        self->start(peer);
        self->DecRef();
    }

    int handle_input(int) override {
        CGuard guard(m_mutex);
        char buffer[4096];
        const int got = m_sock.IsValid() ? m_sock.Recv(buffer, sizeof buffer) : -1;
        if (got < 0 || m_sock.Send(buffer, static_cast<unsigned>(got)) != got) {
            return end();
        }
        return 0;
    }

    int handle_message(long, unsigned int msg, long) override {
        CGuard guard(m_mutex);
        return msg == kStop ? end() : 0;
    }

private:
    explicit Connection(Roster& roster) : Member(roster) {}

    void start(CSockStream& peer) {
        enter(peer);
        CGuard guard(m_mutex);
        m_sock.Attach(peer.Detach());
        RegisterSock(m_sock, SOCK_READ, 0);
    }

    int end() INFRA_REQUIRES(m_mutex) {
        if (m_sock.IsValid()) {
            RemoveSock(m_sock);
            m_sock.Close();
            Close();
        }
        return -1;
    }

    Orvex::Infra::CMutex m_mutex;
    CSockStream m_sock INFRA_GUARDED_BY(m_mutex);
};

/// Called by the library's threads, in the middle of their work: no more than a write.
void writeLine(void*, const Orvex::Infra::LogLine& line) {
    std::fputs(line.text, stdout);
}

const Orvex::Infra::LogSink s_standard_output = {&writeLine, nullptr};

/// Serves until the input ends. The result is main's.
int run(Roster& roster, unsigned short port, Console& console) {
    Listener* listener = Listener::Open(roster, CSockAddrStorage("127.0.0.1", port), CLIENTS_PER_ADDRESS,
                                        [&](CSockStream& peer) { Connection::Create(roster, peer); });
    if (listener != nullptr) {
        std::printf("listening on %s\n", listener->address().c_str());
        for (std::string line; std::getline(std::cin, line) && line != "quit";) {
            console.run(line);
        }
        listener->stop();
    }
    roster.waitUntilEmpty();
    return listener != nullptr ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned short port = 7007;
    bool debug_server = false;
    CLI::App app{"A console on standard input, and an echo server to look into with it."};
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_flag("--debug-server", debug_server, "start the library's telnet port, if it was built in");
    CLI11_PARSE(app, argc, argv);

    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Orvex::Infra::setLogSink(&s_standard_output);
    Orvex::Infra::setLogLevel(4);

    const Component::ClassID local("Local");
    auto* console = new Console;
    const auto offered = Component::TComPtr<Manager::IConsole>::adopt(console);
    Component::CComponentHelper::offer(local, "Console", offered);
    if (CreateThreadPool(1, 0) != 0) {
        return 1;
    }
    const bool enabled = debug_server && CNetThread::EnableR3() == 0;
    Roster roster;  // outlives the workers, the last of which may still be leaving it when run returns
    const int result = run(roster, port, *console);
    if (enabled) {
        CNetThread::DisableR3();
    }
    DestroyThreadPool();
    Component::CComponentHelper::withdraw(local, "Console");
    return result;
}
