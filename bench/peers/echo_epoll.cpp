// Echo server on plain epoll: one loop per thread, level-triggered, one read and one write per report.
// It is the yardstick of the echo rows, what the system calls alone cost.
#include "common/EchoServer.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <array>
#include <thread>

namespace {

struct Connection {
    int fd;
    Bench::Unsent unsent;
};

class Loop {
public:
    Loop() : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_stop(eventfd(0, EFD_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;  // data.ptr stays null, which tells the stop from a connection
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_stop, &event);
    }
    ~Loop() {
        close(m_stop);
        close(m_epoll);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // From any thread: epoll takes a new member while the loop waits.
    void add(int fd) { control(EPOLL_CTL_ADD, new Connection{fd, {}}, EPOLLIN); }

    void stop() { [[maybe_unused]] int result = eventfd_write(m_stop, 1); }

    void run() {
        std::array<epoll_event, 512> events;
        for (;;) {
            int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i) {
                const epoll_event& event = events[static_cast<std::size_t>(i)];
                if (event.data.ptr == nullptr) {
                    return;
                }
                serve(static_cast<Connection*>(event.data.ptr));
            }
        }
    }

private:
    void control(int operation, Connection* connection, std::uint32_t interest) {
        epoll_event event{};
        event.events = interest;
        event.data.ptr = connection;
        epoll_ctl(m_epoll, operation, connection->fd, &event);
    }

    // A connection that owes bytes waits for room and reads nothing before they are gone.
    void serve(Connection* connection) {
        bool owed = !connection->unsent.empty();
        bool alive = owed ? connection->unsent.flush(connection->fd)
                          : Bench::echoOnce(connection->fd, m_room.data(), &connection->unsent);
        if (!alive) {
            close(connection->fd);
            delete connection;
        } else if (owed != !connection->unsent.empty()) {
            control(EPOLL_CTL_MOD, connection, owed ? EPOLLIN : EPOLLOUT);
        }
    }

    int m_epoll;
    int m_stop;
    std::array<char, Bench::kReadRoom> m_room{};
};

}  // namespace

int main(int argc, char** argv) {
    Bench::EchoOptions options = Bench::parseEchoOptions(argc, argv, "echo server on plain epoll");
    Bench::blockTerminationSignals();
    int listener = Bench::listenOnLoopback(options.port);
    std::vector<Loop> loops(options.threads);
    std::vector<std::thread> threads;
    for (Loop& loop : loops) {
        threads.emplace_back(&Loop::run, &loop);
    }
    Bench::announcePort(listener);
    Bench::dealConnections(listener, options.threads, [&](unsigned loop, int fd) { loops[loop].add(fd); });
    for (Loop& loop : loops) {
        loop.stop();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    close(listener);
    return 0;
}
