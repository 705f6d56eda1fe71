// echo_server: sends every byte back to whoever sent it.
//
// What it teaches:
//  - a server without a class to derive from: a lambda for each connection, and no lock, since calls for one
//    connection never overlap;
//  - what a client does not take waits, up to a bound; until then the client is not read, so a slow reader
//    costs one buffer and never the server's memory;
//  - idle connections are closed by a time-out;
//  - clients that find no place are closed at once, counted and told of once a second;
//  - an end in three steps: no new clients, what waits is sent, the rest is cut.
#include <sys/resource.h>
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include <Reticor/kit/Server.h>

namespace Kit = Orvex::Reticor::Kit;

namespace {

/// Lets this process open as many descriptors as the system allows it: one is needed per connection.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 7007;
    int idle_ms = 0;
    Kit::ServerOptions options;
    options.most_per_address = 1024;
    CLI::App app{"Sends every byte back to whoever sent it."};
    app.add_option("--host", host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--threads", options.threads, "workers, raised to a multiple of the processors")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    app.add_option("--idle-timeout", idle_ms, "ms of silence that end a connection; 0 is never")
        ->check(CLI::Range(0, 2000000000))
        ->capture_default_str();
    app.add_option("--max", options.most_connections, "connections at a time; more are closed at once")
        ->check(CLI::Range(1, 252000))
        ->capture_default_str();
    app.add_option("--max-per-address", options.most_per_address,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    Kit::EndSignals signals;
    raiseDescriptorLimit();
    options.connection.idle_timeout = std::chrono::milliseconds(idle_ms);
    Kit::Server server(
        [](Kit::Connection& client) {
            client.onInput([](Kit::Connection& c, std::string_view bytes) { c.write(bytes); });
        },
        options);
    if (!server.listen(host.c_str(), port)) {
        return 1;
    }
    std::printf("listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    return server.run(std::chrono::seconds(1));  // until SIGINT or SIGTERM
}
