// Fan-out server on Reticor: a media buffer per delivery thread, a sender per client, and frames whose
// payload is a window of one table that all of them share, so that no byte of it is ever copied.
#include <sched.h>
#include <time.h>
#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <Infra/Log.h>
#include <Infra/Semaphore.h>
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

// Stands for nothing but the number that goes with it.
class NumberPacket : public CMediaPacket {
public:
    char* GetBuffer() override { return nullptr; }
    int Release() override { return 0; }
};

class Viewer;

// One producer with its media buffer. Clients come and go on workers of the pool.
class Delivery {
public:
    Delivery(const Bench::FanoutOptions& options, const Bench::PayloadTable& table)
        : m_options(options), m_table(table), m_pace(options.fps) {
        if (options.batch != 0 && m_buffer.SetWriteBatch(options.batch) != 0) {
            std::perror("SetWriteBatch");
            std::exit(1);
        }
    }
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

    // A client has finished a frame, or has stepped over some.
    void onPassed(std::uint64_t next) {
        if (next + Bench::kMostWaiting == m_made.load(std::memory_order_relaxed) && --m_late == 0) {
            m_caughtUp.post();
        }
    }

private:
    static constexpr unsigned kLookMs = 5;  // a client may have gone, or have stepped over frames

    void produce() {
        while (!m_stop) {
            const std::uint64_t now = Bench::nowNs();
            if (m_options.fps == 0 && m_count != 0) {
                if (!someoneWaits()) {
                    makeFrames(now);
                } else {
                    m_caughtUp.pend(kLookMs);
                }
            } else if (m_pace.isDue(now)) {
                makeFrame(now);
            } else {
                sleepUntil(m_pace.dueNs());
            }
        }
    }

    // Whether a client has more frames waiting than may be. The last one of them to catch up says so.
    bool someoneWaits();

    void makeFrames(std::uint64_t now) {
        if (m_options.gathers) {
            m_buffer.Hold();
        }
        for (unsigned i = m_options.burst; i != 0; --i) {
            makeFrame(now);
        }
        m_buffer.Flush();
        sched_yield();  // the buffer's lock is free for a moment: for clients that come or go
    }

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
        m_buffer.PutFrameInfo(&m_number, static_cast<int>(m_made));
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
    FrameStore m_store;  // outlives the buffer, which gives frames back when it ends
    CMediaBuffer m_buffer;
    NumberPacket m_number;
    std::atomic<std::uint64_t> m_made{0};
    std::atomic<long> m_late{0};
    Infra::CSemaphore m_caughtUp{0};
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
        self->m_sender->AddRef();
        self->m_sender->Attach(&self->m_stream);
        self->m_sender->WaitRoom(self->GetID());
        self->m_sender->SetGather(options.gathers);
        if (options.fps == 0) {
            self->m_sender->AttachSendProc({&Viewer::onFrame, self});
        }
        self->m_sender->WaitException(self->GetID());
        self->m_sender->SetResumePolicy(options.maxLagMs, MediaResume::STRICT);
        self->AddRef();  // it may end before this returns
        if (!delivery.enter(self) || !self->begin()) {
            self->end();
        }
        self->DecRef();
    }

    // Whatever a client says is read and forgotten.
    int handle_input(int) override {
        char room[512];
        return m_stream.Recv(room, sizeof room) < 0 ? end() : 0;
    }

    int handle_output(int fd) override { return m_sender->handle_output(fd); }

    int handle_message(long, unsigned int msg, long) override {
        return msg == MEDIA_MSG_SOCKET_FAILED ? end() : 0;
    }

    int handle_close(CNetHandler* self) override {
        m_sender->DecRef();
        delete self;
        alive.leave();
        return 0;
    }

    // The number of the frame that it gets next; 0 before its first one.
    std::uint64_t next() const { return m_next.load(std::memory_order_relaxed); }

    // The socket is closed with the object, when no call can be running any more.
    int end() {
        const std::lock_guard<std::mutex> guard(m_mutex);
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

    // Registered first: a sender whose socket is not waits for no room, and where the next frame is made only
    // when this one is through, nothing else would have it go on.
    bool begin() {
        const std::lock_guard<std::mutex> guard(
            m_mutex);  // it may be read, and end, as soon as it is registered
        if (RegisterSock(m_stream, SOCK_READ, 0) != 0) {
            return false;
        }
        m_delivery.buffer().AddSender(m_sender);
        return true;
    }

    // Inside the buffer's lock.
    void onFrame(CMediaPacket*, int number, int) {
        m_next.store(static_cast<std::uint64_t>(number) + 1, std::memory_order_relaxed);
        m_delivery.onPassed(static_cast<std::uint64_t>(number) + 1);
    }

    Delivery& m_delivery;
    std::atomic<std::uint64_t> m_next{0};
    CSockStream m_stream;
    CMediaStreamSender* m_sender = nullptr;
    std::mutex m_mutex;  // of its beginning and its end; entered before the buffer's lock
    std::atomic<bool> m_ended{false};
};

// Whoever catches up while they are counted is told apart by the offset: then it is looked again too early
// at worst.
bool Delivery::someoneWaits() {
    constexpr long kOffset = 1 << 20;
    m_late = kOffset;
    long late = 0;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        for (const Viewer* viewer : m_viewers) {
            late += viewer->next() != 0 && viewer->next() + Bench::kMostWaiting < m_made ? 1 : 0;
        }
    }
    return late != 0 && m_late.fetch_sub(kOffset - late) > kOffset - late;
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
