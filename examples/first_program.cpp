// first_program: an echo server in fifteen lines, the first program of the README.
//
// What it teaches:
//  - a server takes a lambda that sets up each connection; the connection keeps what it is given;
//  - `run` waits for Ctrl-C and ends in order.
#include <cstdio>

#include <Reticor/kit/Server.h>

namespace Kit = Orvex::Reticor::Kit;

int main() {
    Kit::EndSignals signals;                          // Ctrl-C waits for `run`
    Kit::Server server([](Kit::Connection& client) {  // called for everybody who connects
        client.onInput([](Kit::Connection& c, std::string_view bytes) { c.write(bytes); });
    });
    if (!server.listen("127.0.0.1", 0)) {  // 0: any port that is free
        return 1;
    }
    std::printf("listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    return server.run();  // until Ctrl-C
}
