// Echo server on standalone asio: a coroutine for each connection, on one io_context that all threads run.
#include "common/EchoServer.h"

#include <asio.hpp>
#include <memory>
#include <thread>

#if !defined(ASIO_HAS_CO_AWAIT)
#error "this one needs coroutines"
#endif

namespace {

using asio::ip::tcp;

// Like the server of call-backs it tries to write at once, since most answers fit into the kernel's buffer,
// and only waits with the rest of one that does not.
asio::awaitable<void> echo(tcp::socket socket) {
    socket.set_option(tcp::no_delay(true));
    socket.non_blocking(true);
    const std::unique_ptr<char[]> room(new char[Bench::kReadRoom]);
    asio::error_code error;
    auto told = asio::redirect_error(asio::use_awaitable, error);
    for (;;) {
        const std::size_t got =
            co_await socket.async_read_some(asio::buffer(room.get(), Bench::kReadRoom), told);
        if (error) {
            co_return;
        }
        const std::size_t sent = socket.write_some(asio::buffer(room.get(), got), error);
        if (error && error != asio::error::would_block) {
            co_return;
        }
        if (sent != got) {
            co_await asio::async_write(socket, asio::buffer(room.get() + sent, got - sent), told);
            if (error) {
                co_return;
            }
        }
    }
}

asio::awaitable<void> accept_all(tcp::acceptor& acceptor) {
    for (;;) {
        tcp::socket socket = co_await acceptor.async_accept(asio::use_awaitable);
        asio::co_spawn(acceptor.get_executor(), echo(std::move(socket)), asio::detached);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::EchoOptions options =
        Bench::parseEchoOptions(argc, argv, "echo server on standalone asio's coroutines");
    Bench::blockTerminationSignals();
    asio::io_context context(static_cast<int>(options.threads));
    tcp::acceptor acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), options.port));
    asio::co_spawn(context, accept_all(acceptor), asio::detached);
    Bench::announcePort(acceptor.local_endpoint().port());
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options.threads; ++i) {
        threads.emplace_back([&context] { context.run(); });
    }
    Bench::waitForTermination();
    context.stop();
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}
