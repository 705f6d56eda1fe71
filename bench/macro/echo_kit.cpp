// Echo server on the kit: a lambda for each connection.
#include <cstdio>

#include <Reticor/kit/Server.h>

#include "common/EchoServer.h"

namespace Kit = Orvex::Reticor::Kit;

int main(int argc, char** argv) {
    const Bench::EchoOptions options = Bench::parseEchoOptions(argc, argv, "echo server on the kit");
    Kit::ServerOptions server_options;
    server_options.threads = options.threads;
    Kit::Server server(
        [](Kit::Connection& client) {
            client.onInput([](Kit::Connection& c, std::string_view bytes) { c.write(bytes); });
        },
        server_options);
    if (!server.listen("127.0.0.1", options.port)) {
        return 1;
    }
    Bench::announcePort(server.port());
    return server.run();
}
