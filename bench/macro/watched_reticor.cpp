// watched_reticor WORK COUNT MODE: that number of socket events, messages or references, one after another,
// while somebody watches: for bench/watch_prices, which counts the instructions of one.
//
//   WORK   event: a byte that comes and goes back; message: to a handler, which posts the next one to itself;
//          reference: AddRef and DecRef
//   MODE   counting: as a process is at its start; timing, recorder, watch (over calls that hang), holders
//          (notes of references): that as well
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/Recorder.h>
#include <Reticor/SockStream.h>
#include <Reticor/Stats.h>

#include "common/Alive.h"

namespace {

using namespace Orvex::Reticor;

Bench::Alive alive;

class Worked : public CNetHandler {
public:
    explicit Worked(int fd) {
        alive.enter();
        m_sock.Attach(fd);
    }

    void listen() { RegisterSock(m_sock, SOCK_READ, 0); }
    void post(long left) { Notify(GetID(), 100, left); }
    void awaitLast() { m_last.pend(); }
    void end() {
        RemoveSock(m_sock);
        Close();
    }

    int handle_input(int) override {
        char byte;
        return m_sock.Recv(&byte, 1) == 1 && m_sock.Send(&byte, 1) == 1 ? 0 : -1;
    }
    int handle_message(long, unsigned int, long left) override {
        if (left > 0) {
            post(left - 1);
        } else {
            m_last.post();
        }
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    CSockStream m_sock;
    Orvex::Infra::CSemaphore m_last{0};
};

bool switchOn(const std::string& mode) {
    if (mode == "timing") {
        CStats::SetTiming(true);
    } else if (mode == "recorder") {
        CRecorder::Start();
    } else if (mode == "watch") {
        return CNetThread::SetStuckLimit(60000) == 0;
    } else if (mode == "holders") {
        CNetThread::SetHolderNotes(true);
    }
    return true;
}

bool work(const std::string& what, long count, Worked& worked, int fd) {
    if (what == "message") {
        worked.post(count);
        worked.awaitLast();
        return true;
    }
    for (long i = 0; i < count; ++i) {
        char byte = 'x';
        if (what == "reference") {
            worked.AddRef();
            worked.DecRef();
        } else if (::write(fd, &byte, 1) != 1 || ::read(fd, &byte, 1) != 1) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 4 ? argv[3] : "";
    int ends[2];
    if (argc != 4 || CNetThread::CreateThreadPool(1, false) != 0 || !switchOn(mode) ||
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        std::fprintf(stderr, "watched_reticor event|message|reference COUNT MODE\n");
        return 2;
    }
    auto* worked = new Worked(ends[0]);
    worked->listen();
    const bool done = work(argv[1], std::atol(argv[2]), *worked, ends[1]);
    worked->end();
    ::close(ends[1]);
    alive.waitForNone();
    if (mode == "watch") {
        CNetThread::SetStuckLimit(0);  // nothing that an older library may lack is called for the other modes
    }
    CNetThread::DestroyThreadPool();
    return done ? 0 : 1;
}
