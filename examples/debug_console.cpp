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
#include <Infra/Mutex.h>
#include <Reticor/NetThread.h>
#include <Reticor/kit/Server.h>
#include <component/Component.h>
#include <component/Console.h>

using Orvex::Infra::CGuard;
using Orvex::Reticor::CNetThread;
namespace Kit = Orvex::Reticor::Kit;
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

/// Called by the library's threads, in the middle of their work: no more than a write.
void writeLine(void*, const Orvex::Infra::LogLine& line) {
    std::fputs(line.text, stdout);
}

const Orvex::Infra::LogSink STANDARD_OUTPUT = {&writeLine, nullptr};

}  // namespace

int main(int argc, char** argv) {
    unsigned short port = 7007;
    bool debug_server = false;
    CLI::App app{"A console on standard input, and an echo server to look into with it."};
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_flag("--debug-server", debug_server, "start the library's telnet port, if it was built in");
    CLI11_PARSE(app, argc, argv);

    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Orvex::Infra::setLogSink(&STANDARD_OUTPUT);
    Orvex::Infra::setLogLevel(4);

    const Component::ClassID local("Local");
    auto* console = new Console;
    const auto offered = Component::TComPtr<Manager::IConsole>::adopt(console);
    Component::CComponentHelper::offer(local, "Console", offered);
    Kit::Server server([](Kit::Connection& client) {
        client.onInput([](Kit::Connection& c, std::string_view bytes) { c.write(bytes); });
    });
    const bool enabled = debug_server && CNetThread::EnableR3() == 0;
    const bool listening = server.listen("127.0.0.1", port);
    if (listening) {
        std::printf("listening on %s\n", server.address().c_str());
        for (std::string line; std::getline(std::cin, line) && line != "quit";) {
            console->run(line);
        }
    }
    server.stop(std::chrono::seconds(1));
    if (enabled) {
        CNetThread::DisableR3();
    }
    Component::CComponentHelper::withdraw(local, "Console");
    return listening ? 0 : 1;
}
