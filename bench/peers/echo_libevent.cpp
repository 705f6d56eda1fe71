// Echo server on libevent: one base per thread with plain read events, which are faster than its buffered
// layer.
#include "common/EchoServer.h"

#include <event2/event.h>
#include <unistd.h>
#include <array>

namespace {

struct Loop {
    event_base* base;
    Bench::HandOver* handOver;
    std::array<char, Bench::kReadRoom> room;
};

struct Connection {
    Loop* loop;
    event* readable;
    event* writable;
    Bench::Unsent unsent;
};

void end(Connection* connection, int fd) {
    event_free(connection->readable);
    event_free(connection->writable);
    close(fd);
    delete connection;
}

// A connection that owes bytes waits for room and reads nothing before they are gone.
void onReadable(evutil_socket_t fd, short, void* context) {
    auto* connection = static_cast<Connection*>(context);
    if (!Bench::echoOnce(fd, connection->loop->room.data(), &connection->unsent)) {
        end(connection, fd);
    } else if (!connection->unsent.empty()) {
        event_del(connection->readable);
        event_add(connection->writable, nullptr);
    }
}

void onWritable(evutil_socket_t fd, short, void* context) {
    auto* connection = static_cast<Connection*>(context);
    if (!connection->unsent.flush(fd)) {
        end(connection, fd);
    } else if (connection->unsent.empty()) {
        event_del(connection->writable);
        event_add(connection->readable, nullptr);
    }
}

void onHandOver(evutil_socket_t, short, void* context) {
    auto* loop = static_cast<Loop*>(context);
    for (int fd; loop->handOver->take(&fd);) {
        if (fd == Bench::HandOver::kStop) {
            event_base_loopbreak(loop->base);
            return;
        }
        auto* connection = new Connection{loop, nullptr, nullptr, {}};
        connection->readable = event_new(loop->base, fd, EV_READ | EV_PERSIST, onReadable, connection);
        connection->writable = event_new(loop->base, fd, EV_WRITE | EV_PERSIST, onWritable, connection);
        event_add(connection->readable, nullptr);
    }
}

void runLoop(Bench::HandOver& handOver) {
    event_config* config = event_config_new();
    event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);  // a base belongs to its thread alone
    Loop loop{event_base_new_with_config(config), &handOver, {}};
    event_config_free(config);
    event* given = event_new(loop.base, handOver.readEnd(), EV_READ | EV_PERSIST, onHandOver, &loop);
    event_add(given, nullptr);
    event_base_dispatch(loop.base);
    event_free(given);
    event_base_free(loop.base);
}

}  // namespace

int main(int argc, char** argv) {
    Bench::runHandOverLoops(Bench::parseEchoOptions(argc, argv, "echo server on libevent"), runLoop);
    return 0;
}
