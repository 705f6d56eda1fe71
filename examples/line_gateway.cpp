// line_gateway: ten thousand clients share one connection to the server that answers them. A client's line
// goes there with the client's number before it; what comes back with a number goes to that client. Try it:
//     echo_server --port 7010 &
//     line_gateway --port 7011 --server 7010 &
//     nc 127.0.0.1 7011
//
// What it teaches:
//  - more clients than one pool watches: `most_connections`, and a descriptor for each;
//  - a connection to elsewhere (`Kit::connect`) that is made anew, after a while, whenever it ends;
//  - connections that write to each other, for `write` may be called from any thread;
//  - bounds: of a line; of what waits for the server, beyond which a client is told that it is busy; of what
//    waits for a client, beyond which that one is closed, so that it holds up nobody.
#include <sys/resource.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>

#include <CLI/CLI.hpp>

#include <Infra/Mutex.h>
#include <Reticor/kit/Kit.h>

namespace Kit = Orvex::Reticor::Kit;
using Kit::Connection;
using Orvex::Infra::CGuard;

namespace {

constexpr size_t MAX_CLIENTS = 10000;
constexpr size_t MAX_LINE = 4096;                // bytes
constexpr size_t MAX_FOR_SERVER = 16 << 20;      // bytes that wait
constexpr size_t MAX_FOR_CLIENT = 64 << 10;      // bytes that wait
constexpr std::chrono::milliseconds RETRY{200};  // before the server is tried again

/// Calls `line` with each line that `bytes` complete; what is left stays in `rest`. False if it is too long.
template <typename F>
bool takeLines(std::string& rest, std::string_view bytes, F line) {
    rest += bytes;
    size_t begin = 0;
    for (size_t end; (end = rest.find('\n', begin)) != std::string::npos; begin = end + 1) {
        line(rest.substr(begin, end - begin));
    }
    rest.erase(0, begin);
    return rest.size() <= MAX_LINE;
}

class Gateway {
public:
    explicit Gateway(unsigned short server_port) : m_server_port(server_port) {}

    /// Connects to the server, and again whenever that has failed or ended, until the pool ends.
    void call(Kit::Pool& pool) {
        Kit::ConnectOptions options;
        options.connection.max_output = MAX_FOR_SERVER;
        options.connection.policy = Kit::OutputPolicy::DROP;  // and go on reading
        const auto done = [this, &pool](Connection& server, Kit::ConnectResult result, int) {
            if (result == Kit::ConnectResult::CONNECTED) {
                serve(server, pool);
            } else if (result != Kit::ConnectResult::CANCELLED) {
                Kit::Timer(pool, RETRY, [this, &pool] { call(pool); }).detach();
            }
        };
        Kit::connect(pool, "127.0.0.1", m_server_port, options, done);
    }

    void enter(Connection& client) {
        CGuard guard(m_mutex);
        const uint64_t number = ++m_last;
        m_clients.emplace(number, client.share());
        client.onInput([this, number, rest = std::string()](Connection& c, std::string_view bytes) mutable {
            const bool good = takeLines(rest, bytes, [&](const std::string& l) { ask(c, number, l); });
            good ? void() : c.close();
        });
        client.onClose([this, number](Connection&, Kit::CloseReason) {
            CGuard leaving(m_mutex);
            m_clients.erase(number);
        });
    }

private:
    void serve(Connection& server, Kit::Pool& pool) {
        server.onInput([this, rest = std::string()](Connection&, std::string_view bytes) mutable {
            const bool good = takeLines(rest, bytes, [this](const std::string& line) { answer(line); });
            good ? void() : rest.clear();
        });
        server.onClose([this, &pool](Connection&, Kit::CloseReason reason) {
            if (reason != Kit::CloseReason::CLOSED && reason != Kit::CloseReason::ABORTED) {
                Kit::Timer(pool, RETRY, [this, &pool] { call(pool); }).detach();
            }
        });
        CGuard guard(m_mutex);
        m_server = server.share();  // drops the reference on the one before
    }

    void ask(Connection& client, uint64_t number, const std::string& line) {
        CGuard guard(m_mutex);
        if (!m_server.write({std::to_string(number), " ", line, "\n"})) {
            client.write(m_server.isOpen() ? "! busy\n" : "! nobody is there\n");
        }
    }

    /// "17 text" goes to the client with that number, if it is still here.
    void answer(const std::string& line) {
        char* text = nullptr;
        const uint64_t number = std::strtoull(line.c_str(), &text, 10);
        CGuard guard(m_mutex);
        const auto client = m_clients.find(number);
        if (client != m_clients.end() && *text == ' ') {
            client->second.write({text + 1, "\n"});
        }
    }

    const unsigned short m_server_port;
    Orvex::Infra::CMutex m_mutex;
    Connection m_server INFRA_GUARDED_BY(m_mutex);
    std::unordered_map<uint64_t, Connection> m_clients INFRA_GUARDED_BY(m_mutex);
    uint64_t m_last INFRA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace

int main(int argc, char** argv) {
    unsigned short port = 7011;
    unsigned short server_port = 7010;
    Kit::ServerOptions options;
    options.most_connections = MAX_CLIENTS;
    options.connection.max_output = MAX_FOR_CLIENT;
    options.connection.policy = Kit::OutputPolicy::CLOSE;
    CLI::App app{"Hands the lines of many clients to one server, and its answers back."};
    app.option_defaults()->always_capture_default();
    app.add_option("--port", port, "port to listen on; 0 is any that is free");
    app.add_option("--server", server_port, "port of the server, on this machine");
    CLI11_PARSE(app, argc, argv);

    Kit::EndSignals signals;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);  // a descriptor for each client
    Gateway gateway(server_port);      // outlives the server, whose connections call it
    Kit::Server server([&gateway](Connection& client) { gateway.enter(client); }, options);
    if (!server.listen("127.0.0.1", port)) {
        return 1;
    }
    std::printf("listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    gateway.call(server.pool());
    return server.run(std::chrono::seconds(1));
}
