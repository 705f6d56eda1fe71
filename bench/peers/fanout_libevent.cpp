// Fan-out server on libevent: a base per thread; every client's evbuffer refers to frames that all of them
// share. Frames are written at once; an event waits for room only where the kernel took less than all.
#include <event2/buffer.h>
#include <event2/event.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <memory>
#include <vector>

#include "common/FrameRing.h"
#include "common/Usage.h"

namespace {

using Bench::Frame;
using Bench::FrameRing;

class Loop;

struct Client {
    Loop* loop = nullptr;
    int fd = -1;
    std::size_t place = 0;       // in the loop's list
    std::uint64_t next = 0;      // the frame that goes into `unsent` next
    evbuffer* unsent = nullptr;  // references alone
    event* readable = nullptr;
    event* writable = nullptr;
    bool blocked = false;  // `writable` is waiting
};

class Loop {
public:
    Loop(const Bench::FanoutOptions& options, const Bench::PayloadTable& table, Bench::HandOver& handOver)
        : m_options(options), m_handOver(handOver), m_pace(options.fps), m_ring(options, table) {
        event_config* config = event_config_new();
        event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);  // a base belongs to its thread alone
        event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
        m_base = event_base_new_with_config(config);
        event_config_free(config);
        m_given = event_new(m_base, handOver.readEnd(), EV_READ | EV_PERSIST, onHandOver, this);
        event_add(m_given, nullptr);
        m_timer = evtimer_new(m_base, onTimer, this);
    }
    ~Loop() {
        while (!m_clients.empty()) {
            end(*m_clients.back());
        }
        event_free(m_timer);
        event_free(m_given);
        event_base_free(m_base);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void run() {
        while (!m_stop) {
            const std::uint64_t now = Bench::nowNs();
            if (m_options.fps == 0 && !m_clients.empty()) {
                const bool room = !someoneWaits();
                if (room) {
                    makeFrame(now);
                }
                event_base_loop(m_base, room ? EVLOOP_NONBLOCK : EVLOOP_ONCE);
            } else if (m_pace.isDue(now)) {
                makeFrame(now);
            } else {
                const auto us = static_cast<long>((m_pace.dueNs() - now + 999) / 1000);
                const timeval left{us / 1000000, us % 1000000};
                event_add(m_timer, &left);
                event_base_loop(m_base, EVLOOP_ONCE);
            }
        }
    }

private:
    static constexpr std::uint64_t kMostFrames = 16;  // in an evbuffer

    static void onTimer(evutil_socket_t, short, void*) {}  // it ends the wait

    static void onHandOver(evutil_socket_t, short, void* context) {
        static_cast<Loop*>(context)->takeClients();
    }

    static void onReadable(evutil_socket_t fd, short, void* context) {
        auto* client = static_cast<Client*>(context);
        if (!Bench::discardInput(fd)) {
            client->loop->end(*client);
        }
    }

    static void onWritable(evutil_socket_t, short, void* context) {
        auto* client = static_cast<Client*>(context);
        client->blocked = false;
        client->loop->deliver(*client);
    }

    static void onReleased(const void*, std::size_t, void* context) {
        auto* frame = static_cast<Frame*>(context);
        frame->ring->drop(*frame);
    }

    bool someoneWaits() const {
        for (const auto& client : m_clients) {
            const std::uint64_t queued =
                (evbuffer_get_length(client->unsent) + m_ring.frameSize() - 1) / m_ring.frameSize();
            if (client->next + Bench::kMostWaiting < m_ring.end() + queued) {
                return true;
            }
        }
        return false;
    }

    void makeFrame(std::uint64_t now) {
        m_pace.advance(now);
        for (unsigned i = m_options.fps == 0 && !m_clients.empty() ? m_options.burst : 1; i != 0; --i) {
            m_ring.make();
        }
        for (std::size_t i = m_clients.size();
             i-- > 0;) {  // a client that ends gives its place to the last one
            if (!m_clients[i]->blocked) {
                deliver(*m_clients[i]);
            }
        }
    }

    void takeClients() {
        for (int fd; m_handOver.take(&fd);) {
            if (fd == Bench::HandOver::kStop) {
                m_stop = true;
                return;
            }
            Bench::limitKernelQueue(fd, m_options);
            auto client = std::make_unique<Client>();
            client->loop = this;
            client->fd = fd;
            client->place = m_clients.size();
            client->next = m_ring.nextKey();
            client->unsent = evbuffer_new();
            client->readable = event_new(m_base, fd, EV_READ | EV_PERSIST, onReadable, client.get());
            client->writable = event_new(m_base, fd, EV_WRITE, onWritable, client.get());
            event_add(client->readable, nullptr);
            m_clients.push_back(std::move(client));
        }
    }

    // Frames go into the evbuffer only when it is empty, so that a slow client can still pass over some.
    void deliver(Client& client) {
        for (;;) {
            if (evbuffer_get_length(client.unsent) == 0 && !refer(client)) {
                return;
            }
            const int written = evbuffer_write(client.unsent, client.fd);
            if (written < 0 && errno != EAGAIN && errno != EINTR) {
                end(client);
                return;
            }
            if (evbuffer_get_length(client.unsent) != 0) {
                client.blocked = true;
                event_add(client.writable, nullptr);
                return;
            }
        }
    }

    // False if there is no frame for the client.
    bool refer(Client& client) {
        client.next = m_ring.resume(client.next);
        for (std::uint64_t count = 0; count < kMostFrames && client.next < m_ring.end(); ++count) {
            Frame& frame = m_ring.at(client.next++);
            frame.holders += 2;  // a reference each to header and payload
            evbuffer_add_reference(client.unsent, frame.header, sizeof frame.header, onReleased, &frame);
            evbuffer_add_reference(client.unsent, frame.payload, m_options.frameBytes, onReleased, &frame);
        }
        return evbuffer_get_length(client.unsent) != 0;
    }

    void end(Client& client) {
        event_free(client.readable);
        event_free(client.writable);
        evbuffer_free(client.unsent);
        close(client.fd);
        const std::size_t place = client.place;
        std::swap(m_clients[place], m_clients.back());
        m_clients[place]->place = place;
        m_clients.pop_back();
    }

    const Bench::FanoutOptions m_options;
    Bench::HandOver& m_handOver;
    event_base* m_base = nullptr;
    event* m_given = nullptr;
    event* m_timer = nullptr;
    Bench::FramePace m_pace;
    FrameRing m_ring;
    std::vector<std::unique_ptr<Client>> m_clients;
    bool m_stop = false;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::FanoutOptions options = Bench::parseFanoutOptions(argc, argv, "fan-out server on libevent");
    std::signal(SIGPIPE, SIG_IGN);
    const Bench::PayloadTable table(options.frameBytes);
    Bench::runHandOverLoops(Bench::loopOptions(options),
                            [&](Bench::HandOver& handOver) { Loop(options, table, handOver).run(); });
    return 0;
}
