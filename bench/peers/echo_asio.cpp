// Echo server on standalone asio: one io_context that all threads run, so any of them serves any connection.
#include "common/EchoServer.h"

#include <asio.hpp>
#include <memory>
#include <thread>

namespace {

using asio::ip::tcp;

class Connection : public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(tcp::socket socket)
        : m_socket(std::move(socket)), m_room(new char[Bench::kReadRoom]) {
        m_socket.set_option(tcp::no_delay(true));
        m_socket.non_blocking(true);
    }

    void read() {
        m_socket.async_read_some(asio::buffer(m_room.get(), Bench::kReadRoom),
                                 [self = shared_from_this()](const asio::error_code& error, std::size_t got) {
                                     if (!error) {
                                         self->answer(got);
                                     }
                                 });
    }

private:
    // Most answers fit into the kernel's buffer at once; the rest of one that does not is written
    // asynchronously.
    void answer(std::size_t got) {
        asio::error_code error;
        std::size_t sent = m_socket.write_some(asio::buffer(m_room.get(), got), error);
        if (error && error != asio::error::would_block) {
            return;
        }
        if (sent == got) {
            read();
            return;
        }
        asio::async_write(m_socket, asio::buffer(m_room.get() + sent, got - sent),
                          [self = shared_from_this()](const asio::error_code& failed, std::size_t) {
                              if (!failed) {
                                  self->read();
                              }
                          });
    }

    tcp::socket m_socket;
    std::unique_ptr<char[]> m_room;
};

void acceptNext(tcp::acceptor& acceptor) {
    acceptor.async_accept([&acceptor](const asio::error_code& error, tcp::socket socket) {
        if (!error) {
            std::make_shared<Connection>(std::move(socket))->read();
            acceptNext(acceptor);
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    Bench::EchoOptions options = Bench::parseEchoOptions(argc, argv, "echo server on standalone asio");
    Bench::blockTerminationSignals();
    asio::io_context context(static_cast<int>(options.threads));
    tcp::acceptor acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), options.port));
    acceptNext(acceptor);
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
