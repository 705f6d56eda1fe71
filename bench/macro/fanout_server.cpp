// Fan-out server on Reticor: a media buffer per delivery thread, a sender per client, and frames whose
// payload is a window of one table that all of them share, so that no byte of it is ever copied.
#include <sched.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <Infra/Log.h>
#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaPacket.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

#include "common/Alive.h"
#include "common/Fanout.h"
#include "common/Usage.h"

namespace {

using namespace Orvex::Reticor;
namespace Infra = Orvex::Infra;

Bench::Alive alive;

class FrameStore;

// Header and payload of one frame, as two packets over memory that stays where it is.
class SharedFrame {
public:
    explicit SharedFrame(FrameStore& store) : m_headerPacket(*this), m_payloadPacket(*this), m_store(store) {}
    SharedFrame(const SharedFrame&) = delete;
    SharedFrame& operator=(const SharedFrame&) = delete;

    void fill(const Bench::FrameHeader& header, const char* payload) {
        header.write(m_header);
        m_headerPacket.point(reinterpret_cast<const char*>(m_header));
        m_payloadPacket.point(payload);
        m_packetsOut = 2;
    }

    CMediaPacket* header() { return &m_headerPacket; }
    CMediaPacket* payload() { return &m_payloadPacket; }

private:
    // The buffer only reads what it points to.
    class Packet : public CMediaPacket {
    public:
        explicit Packet(SharedFrame& frame) : m_frame(frame) {}
        Packet(const Packet&) = delete;
        Packet& operator=(const Packet&) = delete;
        void point(const char* bytes) { m_bytes = const_cast<char*>(bytes); }
        char* GetBuffer() override { return m_bytes; }
        int Release() override {
            m_frame.released();
            return 0;
        }

    private:
        SharedFrame& m_frame;
        char* m_bytes = nullptr;
    };

    void released();

    unsigned char m_header[Bench::FrameHeader::kSize] = {};
    Packet m_headerPacket;
    Packet m_payloadPacket;
    FrameStore& m_store;
    int m_packetsOut = 0;  // guarded by the media buffer's lock, under which packets come back
};

// Frames to be used again. They come back on whichever thread lets the last client pass.
class FrameStore {
public:
    SharedFrame* take() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_free.empty()) {
            m_frames.push_back(std::make_unique<SharedFrame>(*this));
            m_free.reserve(m_frames.size());
            return m_frames.back().get();
        }
        SharedFrame* frame = m_free.back();
        m_free.pop_back();
        return frame;
    }

    void giveBack(SharedFrame* frame) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_free.push_back(frame);
    }

private:
    std::mutex m_mutex;
    std::vector<SharedFrame*> m_free;
    std::vector<std::unique_ptr<SharedFrame>> m_frames;
};

void SharedFrame::released() {
    if (--m_packetsOut == 0) {
        m_store.giveBack(this);
    }
}

class Viewer;

// One producer with its media buffer. Clients come and go on workers of the pool.
class Delivery {
public:
    Delivery(const Bench::FanoutOptions& options, const Bench::PayloadTable& table)
        : m_options(options), m_table(table), m_pace(options.fps), m_room(epoll_create1(EPOLL_CLOEXEC)) {}
    ~Delivery() { close(m_room); }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    CMediaBuffer& buffer() { return m_buffer; }

    void start() {
        m_thread = std::thread([this] { produce(); });
    }

    void stop() {
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_stop = true;
        }
        m_thread.join();
    }

    // Edges alone are of interest: a client that is never full costs nothing, nor does one that stays full.
    void watchRoom(int fd) {
        epoll_event event{};
        event.events = EPOLLOUT | EPOLLET;
        epoll_ctl(m_room, EPOLL_CTL_ADD, fd, &event);
    }

    // False when the end has begun.
    bool enter(Viewer* viewer) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_stop) {
            return false;
        }
        m_viewers.insert(viewer);
        m_count = m_viewers.size();
        return true;
    }

    void leave(Viewer* viewer) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_viewers.erase(viewer);
        m_count = m_viewers.size();
    }

    void endViewers();

private:
    // A step visits all clients, so room that several of them have at about the same time is used in one
    // step.
    static constexpr std::uint64_t kFullSpeedRestNs = 100000;
    static constexpr std::uint64_t kPacedRestNs = 500000;

    void produce() {
        while (!m_stop) {
            const std::uint64_t now = Bench::nowNs();
            const bool fullSpeed = m_options.fps == 0 && m_count != 0;
            if (fullSpeed ? !someoneWaits() : m_pace.isDue(now)) {
                makeFrame(now);
                if (fullSpeed) {
                    sched_yield();  // the buffer's lock is free for a moment: for clients that come or go
                }
            } else if (fullSpeed) {
                sleepUntil(now + kFullSpeedRestNs);
                goOn();
            } else if (waitForRoom(m_pace.dueNs() - now)) {
                goOn();
                sleepUntil(std::min(now + kPacedRestNs, m_pace.dueNs()));
            }
        }
    }

    // Waits until a blocked client has room again, if the buffer still has something for it; false when the
    // time is up.
    bool waitForRoom(std::uint64_t ns) {
        std::array<epoll_event, 256> events;
        const timespec time{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        return epoll_pwait2(m_room, events.data(), static_cast<int>(events.size()), &time, nullptr) > 0 &&
               m_buffer.GetBufferNum() > 0;
    }

    // Lets clients go on with what they have not got yet, without making the frames older.
    void goOn() { m_buffer.put(nullptr, 0, MEDIA_MARK_LAST, 0, false); }

    // Whether a client has more frames waiting than may be. The buffer also holds frames that nobody waits
    // for, while all clients wait for a key frame.
    bool someoneWaits();

    void makeFrame(std::uint64_t now) {
        m_pace.advance(now);
        const bool key = m_made % m_options.gop == 0;
        Bench::FrameHeader header;
        header.length = static_cast<std::uint32_t>(m_options.frameBytes);
        header.sequence = m_made;
        header.sentNs = Bench::nowNs();
        header.level = static_cast<std::uint8_t>(key ? Bench::kKeyLevel : Bench::kOtherLevel);
        SharedFrame* frame = m_store.take();
        frame->fill(header, m_table.window(m_made));
        ++m_made;
        const int level = mediaLevel(0, header.level);
        m_buffer.Put(frame->header(), static_cast<int>(Bench::FrameHeader::kSize), MEDIA_MARK_MORE, level);
        m_buffer.Put(frame->payload(), static_cast<int>(m_options.frameBytes), MEDIA_MARK_LAST, level);
    }

    static void sleepUntil(std::uint64_t ns) {
        const timespec time{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
    }

    const Bench::FanoutOptions m_options;
    const Bench::PayloadTable& m_table;
    Bench::FramePace m_pace;
    int m_room;          // epoll instance with all clients' sockets, which leave it when they are closed
    FrameStore m_store;  // outlives the buffer, which gives frames back when it ends
    CMediaBuffer m_buffer;
    std::uint64_t m_made = 0;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::set<Viewer*> m_viewers;
    std::atomic<std::size_t> m_count{0};
};

// A client: its socket, its sender, and the calls that tell of its end.
class Viewer : public CNetHandler {
public:
    static void serve(Delivery& delivery, int fd, const Bench::FanoutOptions& options) {
        auto* self = new Viewer(delivery);
        self->m_stream.Attach(fd);
        self->m_stream.SetSockNoDelay(true);
        Bench::limitKernelQueue(fd, options);
        self->m_sender = CMediaStreamSender::Create();
        self->m_sender->Attach(&self->m_stream);
        self->m_sender->WaitException(self->GetID());
        self->m_sender->SetResumePolicy(options.maxLagMs, MediaResume::STRICT);
        self->AddRef();  // it may end before this returns
        if (delivery.enter(self)) {
            delivery.buffer().AddSender(self->m_sender);
            delivery.watchRoom(fd);
            self->RegisterSock(self->m_stream, SOCK_READ, 0);
        } else {
            self->end();
        }
        self->DecRef();
    }

    // Whatever a client says is read and forgotten.
    int handle_input(int) override {
        char room[512];
        return m_stream.Recv(room, sizeof room) < 0 ? end() : 0;
    }

    int handle_message(long, unsigned int msg, long) override {
        return msg == MEDIA_MSG_SOCKET_FAILED ? end() : 0;
    }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

    std::uint64_t backlog() { return m_sender->GetStats().backlog_bytes; }

    // The socket is closed with the object, when no call can be running any more.
    int end() {
        if (!m_ended.exchange(true)) {
            m_delivery.leave(this);
            m_delivery.buffer().DelSender(m_sender);
            m_sender->Detach();
            m_sender->Close();
            RemoveSock(m_stream);
            Close();
        }
        return -1;
    }

private:
    explicit Viewer(Delivery& delivery) : m_delivery(delivery) { alive.enter(); }

    Delivery& m_delivery;
    CSockStream m_stream;
    CMediaStreamSender* m_sender = nullptr;
    std::atomic<bool> m_ended{false};
};

bool Delivery::someoneWaits() {
    if (static_cast<std::uint64_t>(m_buffer.GetBufferNum()) <= Bench::kMostWaiting) {
        return false;
    }
    const std::uint64_t most = Bench::kMostWaiting * (Bench::FrameHeader::kSize + m_options.frameBytes);
    const std::lock_guard<std::mutex> guard(m_mutex);
    return std::any_of(m_viewers.begin(), m_viewers.end(),
                       [most](Viewer* viewer) { return viewer->backlog() > most; });
}

void Delivery::endViewers() {
    for (;;) {
        Viewer* viewer = nullptr;
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            if (m_viewers.empty()) {
                return;
            }
            viewer = *m_viewers.begin();  // known alive: it leaves the set before it closes
            viewer->AddRef();
        }
        viewer->end();
        viewer->DecRef();
    }
}

class Listener : public CNetHandler {
public:
    Listener(const Bench::FanoutOptions& options, std::vector<std::unique_ptr<Delivery>>& deliveries)
        : m_options(options), m_deliveries(deliveries) {
        alive.enter();
    }

    bool open() {
        return m_acceptor.Open(CSockAddrIPv4("127.0.0.1", m_options.port)) == 0 &&
               RegisterSock(m_acceptor, SOCK_READ, 0) == 0;
    }

    int handle() { return m_acceptor.GetHandle(); }

    int handle_input(int) override {
        CSockStream stream;
        while (m_acceptor.Accept(stream, nullptr) == 0) {
            Viewer::serve(*m_deliveries[m_next], stream.Detach(), m_options);
            m_next = (m_next + 1) % m_deliveries.size();
        }
        return 0;
    }

    // The acceptor's number is closed with the object, when no call can be running any more.
    void end() {
        RemoveSock(m_acceptor);
        Close();
    }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    const Bench::FanoutOptions m_options;
    std::vector<std::unique_ptr<Delivery>>& m_deliveries;
    CSockAcceptor m_acceptor;
    std::size_t m_next = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::FanoutOptions options = Bench::parseFanoutOptions(argc, argv, "fan-out server on Reticor");
    Bench::blockTerminationSignals();
    Infra::setLogLevel(1);  // clients go as they like, and a write that fails is not news
    const Bench::PayloadTable table(options.frameBytes);
    if (CNetThread::CreateThreadPool(1, false) != 0) {
        return 1;
    }
    bool allGone = true;
    {
        std::vector<std::unique_ptr<Delivery>> deliveries;
        for (unsigned i = 0; i < options.threads; ++i) {
            deliveries.push_back(std::make_unique<Delivery>(options, table));
            deliveries.back()->start();
        }
        auto* listener = new Listener(options, deliveries);
        if (!listener->open()) {
            return 1;
        }
        Bench::announcePort(listener->handle());
        Bench::waitForTermination();
        listener->end();
        for (const auto& delivery : deliveries) {
            delivery->stop();
            delivery->endViewers();
        }
        allGone = alive.waitForNone();
    }
    CNetThread::DestroyThreadPool();
    return allGone ? 0 : 1;
}
