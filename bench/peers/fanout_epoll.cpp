// Fan-out server on plain epoll and writev: a loop per thread, a shared ring of frames, a position per
// client. It is the yardstick of the fan-out rows, what the system calls alone cost.
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <vector>

#include "common/FrameRing.h"
#include "common/Usage.h"

namespace {

using Bench::Frame;
using Bench::FrameHeader;
using Bench::FrameRing;

struct Client {
    int fd = -1;
    std::size_t place = 0;   // in the loop's list
    std::uint64_t next = 0;  // the frame that it stands in or wants next
    std::size_t sent = 0;    // bytes of that frame
    Frame* held = nullptr;   // that frame, while sent is not 0
    bool blocked = false;    // until epoll reports room
};

// Interest is edge-triggered and told to the kernel once per client.
class Loop {
public:
    Loop(const Bench::FanoutOptions& options, const Bench::PayloadTable& table, Bench::HandOver& handOver)
        : m_options(options),
          m_handOver(handOver),
          m_epoll(epoll_create1(EPOLL_CLOEXEC)),
          m_pace(options.fps),
          m_ring(options, table) {
        epoll_event event{};
        event.events = EPOLLIN;  // data.ptr stays null, which tells new clients from known ones
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, handOver.readEnd(), &event);
    }
    ~Loop() {
        while (!m_clients.empty()) {
            end(*m_clients.back());
        }
        close(m_epoll);
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
                wait(room ? 0 : -1);
            } else if (m_pace.isDue(now)) {
                makeFrame(now);
            } else {
                wait(static_cast<std::int64_t>(m_pace.dueNs() - now));
            }
        }
    }

private:
    static constexpr std::size_t kMostFrames = 16;  // of one writev

    bool someoneWaits() const {
        for (const auto& client : m_clients) {
            if (client->next + Bench::kMostWaiting < m_ring.end()) {
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

    void wait(std::int64_t ns) {
        std::array<epoll_event, 512> events;
        const timespec time{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        const int count = epoll_pwait2(m_epoll, events.data(), static_cast<int>(events.size()),
                                       ns < 0 ? nullptr : &time, nullptr);
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            if (event.data.ptr == nullptr) {
                takeClients();
            } else {
                serve(*static_cast<Client*>(event.data.ptr), event.events);
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
            client->fd = fd;
            client->place = m_clients.size();
            client->next = m_ring.nextKey();
            epoll_event event{};
            event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
            event.data.ptr = client.get();
            epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
            m_clients.push_back(std::move(client));
        }
    }

    void serve(Client& client, std::uint32_t events) {
        if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0 && !Bench::discardInput(client.fd)) {
            end(client);
        } else if (client.blocked && (events & EPOLLOUT) != 0) {
            client.blocked = false;
            deliver(client);
        }
    }

    // Writes what there is, several frames in one call if the client is late, until there is no room.
    void deliver(Client& client) {
        for (;;) {
            if (client.sent == 0) {
                client.next = m_ring.resume(client.next);
                if (client.next >= m_ring.end()) {
                    return;
                }
            }
            std::array<iovec, 2 * kMostFrames> pieces;
            std::size_t bytes = 0;
            const int count = gather(client, &pieces, &bytes);
            const ssize_t written = writev(client.fd, pieces.data(), count);
            if (written < 0 && errno != EAGAIN && errno != EINTR) {
                end(client);
                return;
            }
            if (written > 0) {
                advance(client, static_cast<std::size_t>(written));
            }
            if (written < 0 || static_cast<std::size_t>(written) < bytes) {
                client.blocked = true;
                return;
            }
        }
    }

    int gather(const Client& client, std::array<iovec, 2 * kMostFrames>* pieces, std::size_t* bytes) {
        std::size_t used = 0;
        std::size_t skip = client.sent;
        for (std::uint64_t next = client.next; used < pieces->size(); ++next, skip = 0) {
            const bool held = next == client.next && client.held != nullptr;
            if (!held && !m_ring.contains(next)) {
                break;
            }
            Frame& frame = held ? *client.held : m_ring.at(next);
            const std::size_t header = std::min(skip, FrameHeader::kSize);
            if (header < FrameHeader::kSize) {
                (*pieces)[used++] = {frame.header + header, FrameHeader::kSize - header};
            }
            const std::size_t done = skip - header;
            (*pieces)[used++] = {const_cast<char*>(frame.payload) + done, m_options.frameBytes - done};
            *bytes += m_ring.frameSize() - skip;
            if (used + 2 > pieces->size()) {
                break;
            }
        }
        return static_cast<int>(used);
    }

    void advance(Client& client, std::size_t written) {
        client.sent += written;
        if (client.sent < m_ring.frameSize()) {
            if (client.held == nullptr) {
                client.held = &m_ring.at(client.next);
                m_ring.hold(*client.held);
            }
            return;
        }
        client.next += client.sent / m_ring.frameSize();
        client.sent %= m_ring.frameSize();
        if (client.held != nullptr) {
            m_ring.drop(*client.held);
            client.held = nullptr;
        }
        if (client.sent != 0) {
            client.held = &m_ring.at(client.next);
            m_ring.hold(*client.held);
        }
    }

    void end(Client& client) {
        if (client.held != nullptr) {
            m_ring.drop(*client.held);
        }
        close(client.fd);
        const std::size_t place = client.place;
        std::swap(m_clients[place], m_clients.back());
        m_clients[place]->place = place;
        m_clients.pop_back();
    }

    const Bench::FanoutOptions m_options;
    Bench::HandOver& m_handOver;
    int m_epoll;
    Bench::FramePace m_pace;
    FrameRing m_ring;
    std::vector<std::unique_ptr<Client>> m_clients;
    bool m_stop = false;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::FanoutOptions options =
        Bench::parseFanoutOptions(argc, argv, "fan-out server on plain epoll");
    std::signal(SIGPIPE, SIG_IGN);
    const Bench::PayloadTable table(options.frameBytes);
    Bench::runHandOverLoops(Bench::loopOptions(options),
                            [&](Bench::HandOver& handOver) { Loop(options, table, handOver).run(); });
    return 0;
}
