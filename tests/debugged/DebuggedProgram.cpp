// A program for a debugger to look at: pools, handlers in every state, workers in calls, records that wait,
// senders. It prints what it knows of itself, a line for each, then "ready", and ends with its input.
//
//     debugged_program [nothing]        nothing: without a pool, a handler or a buffer
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <Infra/Semaphore.h>
#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockStream.h>
#include <Reticor/Stats.h>

using namespace Orvex::Reticor;

namespace Shop {

class Part : public CNetHandler {
public:
    using CNetHandler::CNetHandler;
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }
    void post(long receiver, long attach) { Notify(receiver, 1, attach); }
};

class Till : public Part {
public:
    using Part::Part;
    int handle_message(long, unsigned int, long) override {
        ++m_sold;
        return 0;
    }
    int watch(CSock& sock) { return RegisterSock(sock, SOCK_READ, 0); }
    std::atomic<int> m_sold{0};
};

// Is in its call until it is let go.
class Clerk : public Part {
public:
    Clerk(Orvex::Infra::CSemaphore& begun, Orvex::Infra::CSemaphore& go)
        : Part(0), m_begun(begun), m_go(go) {}
    int handle_message(long, unsigned int, long) override {
        m_begun.post();
        m_go.pend();
        return 0;
    }

private:
    Orvex::Infra::CSemaphore& m_begun;
    Orvex::Infra::CSemaphore& m_go;
};

template <class Article>
class Shelf : public Part {
public:
    using Part::Part;
};

// Lives on after its end.
class Box : public CNetHandler {
public:
    explicit Box(Orvex::Infra::CSemaphore& closed) : CNetHandler(0), m_closed(closed) {}
    int handle_close(CNetHandler*) override {
        m_closed.post();
        return 0;
    }

private:
    Orvex::Infra::CSemaphore& m_closed;
};

// Has its sender's socket watched.
class Gate : public Part {
public:
    using Part::Part;
    int handle_output(int) override { return 0; }
    int watch(CSock& sock) { return RegisterSock(sock, SOCK_READ, 0); }
};

class Parcel : public CMediaPacket {
public:
    explicit Parcel(size_t length) : m_bytes(length, 'x') {}
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.data(); }

private:
    std::string m_bytes;
};

}  // namespace Shop

namespace {

unsigned int workers_of_public_pool() {
    CStats now;
    PoolStats pool{};
    return now.Take() == 0 && now.GetPool(0, pool) == 0 ? pool.workers : 0;
}

struct Client {
    CSockStream sock;
    int peer = -1;
    CMediaStreamSender* sender = CMediaStreamSender::Create();

    explicit Client(CMediaBuffer& buffer) {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0) {
            sock.Attach(pair[0]);
            peer = pair[1];
        }
        sender->Attach(&sock);
        buffer.AddSender(sender);
    }
    void tell() const {
        const MediaSenderStats stats = sender->GetStats();
        std::printf("sender %ld behind %llu frames %llu bytes %llu\n", sender->GetID(),
                    static_cast<unsigned long long>(stats.backlog_bytes),
                    static_cast<unsigned long long>(stats.frames),
                    static_cast<unsigned long long>(stats.bytes));
    }
};

void wait_for_end() {
    std::puts("ready");
    std::fflush(stdout);
    char byte;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

void run() {
    CNetThread::CreateThreadPool(1, false);
    const int second = CNetThread::CreatePrivatePool(1, false);
    const unsigned int workers = workers_of_public_pool();
    auto* const till = new Shop::Till(0);
    auto* const elsewhere = new Shop::Till(second);
    auto* const shelf = new Shop::Shelf<int>(0);
    shelf->AddRef();
    shelf->Close();
    Orvex::Infra::CSemaphore closed(0);
    auto* const box = new Shop::Box(closed);
    const long box_id = box->GetID();
    box->Close();
    closed.pend();
    CSockStream sock;
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0) {
        sock.Attach(pair[0]);
        till->watch(sock);
    }
    Orvex::Infra::CSemaphore begun(0);
    Orvex::Infra::CSemaphore go(0);
    std::vector<Shop::Clerk*> clerks;
    for (unsigned int i = 0; i < workers; ++i) {
        clerks.push_back(new Shop::Clerk(begun, go));
        till->post(clerks.back()->GetID(), 0);
        begun.pend();
    }
    // All workers are in calls, so these stay, and so does the close message.
    for (int i = 0; i < 5; ++i) {
        till->post(till->GetID(), i);
    }
    auto* const leaving = new Shop::Shelf<Shop::Till>(0);
    leaving->Close();
    CMediaBuffer buffer;
    Client slow(buffer);
    Client quick(buffer);
    Client keeping(buffer);
    keeping.sender->SetResumePolicy(3000);
    Client waits(buffer);
    auto* const gate = new Shop::Gate(0);
    gate->watch(waits.sock);
    waits.sender->WaitRoom(gate->GetID());
    for (int i = 0; i < 50; ++i) {
        ::usleep(i == 40 ? 20000 : 0);  // for so long the slow ones have been blocked
        buffer.Put(new Shop::Parcel(20000), 20000, MEDIA_MARK_LAST, mediaLevel(0, 1));
        char room[65536];
        while (::recv(quick.peer, room, sizeof room, MSG_DONTWAIT) > 0) {
        }
    }
    buffer.do_send();
    CMediaBuffer empty;
    Client waiting(empty);
    std::printf(
        "workers %u\ntill %ld\nelsewhere %ld\nshelf %ld\nleaving %ld\nclerk %ld\nbox %ld\nobject %p\n",
        workers, till->GetID(), elsewhere->GetID(), shelf->GetID(), leaving->GetID(), clerks[0]->GetID(),
        box_id, static_cast<void*>(static_cast<CNetHandler*>(till)));
    for (const Client* client : {&slow, &quick, &keeping, &waits, &waiting}) {
        client->tell();
    }
    buffer.do_send();  // times are those of the last step that has tried
    wait_for_end();
    // It ends as it is: what a debugger has looked at needs no orderly end.
    std::fflush(stdout);
    ::_exit(0);
}

}  // namespace

int main(int count, char** arguments) {
    // The debugger is not its parent.
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    if (count > 1 && std::strcmp(arguments[1], "nothing") == 0) {
        CNetThread::GetSocksWithoutPlace(0);
        wait_for_end();
        return 0;
    }
    run();
}
