// Echo server on the kit: a coroutine for each connection.
#include <cstdio>

#include <Reticor/kit/Server.h>
#include <Reticor/kit/Task.h>

#include "common/EchoServer.h"

#if !defined(__cpp_impl_coroutine)
#error "this one needs coroutines"
#endif

namespace Kit = Orvex::Reticor::Kit;

namespace {

Kit::Task echo(Kit::Connection client) {
    for (std::string_view bytes; !(bytes = co_await Kit::read(client)).empty();) {
        co_await Kit::write(client, bytes);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::EchoOptions options =
        Bench::parseEchoOptions(argc, argv, "echo server on the kit's coroutines");
    Kit::ServerOptions server_options;
    server_options.threads = options.threads;
    Kit::Server server([](Kit::Connection& client) { echo(client.share()); }, server_options);
    if (!server.listen("127.0.0.1", options.port)) {
        return 1;
    }
    Bench::announcePort(server.port());
    return server.run();
}
