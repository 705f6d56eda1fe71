// TracedProgram: does a little of everything that can be traced, until its input ends.
#include <sys/socket.h>
#include <unistd.h>

#include <poll.h>

#include <cstdio>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockStream.h>

namespace Shop {

using namespace Orvex::Reticor;

class Till : public CNetHandler {
public:
    explicit Till(Till* colleague) : CNetHandler(0), m_colleague(colleague) {}
    void begin() { SetTimer(1000); }

    // Longer than the others: what is called slow in the tests.
    int64_t handle_timeout(long) override {
        Notify(m_colleague->GetID(), 100, 0);
        ::usleep(2000);
        return 10000;
    }
    int handle_message(long, unsigned int, long) override { return 0; }
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    Till* const m_colleague;
};

class Picture : public CMediaPacket {
public:
    static constexpr int LENGTH = 1000;

    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes; }

private:
    char m_bytes[LENGTH] = {};
};

}  // namespace Shop

int main() {
    using namespace Shop;
    if (CNetThread::CreateThreadPool(2, false) != 0) {
        return 1;
    }
    auto* const served = new Till(nullptr);
    auto* const serving = new Till(served);
    serving->begin();
    // Its client reads only now and then, and not channel 1.
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        return 1;
    }
    CSockStream sock;
    sock.Attach(ends[0]);
    CMediaBuffer buffer;
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    sender->Attach(&sock);
    sender->SetResumePolicy(100);
    sender->DisableSendChannel(1);
    buffer.AddSender(sender);
    std::puts("ready");
    std::fflush(stdout);
    pollfd input{STDIN_FILENO, POLLIN, 0};
    char room[1 << 16];
    for (unsigned int n = 0; ::poll(&input, 1, 2) == 0; ++n) {
        buffer.Put(new Picture, Picture::LENGTH, MEDIA_MARK_LAST,
                   mediaLevel(static_cast<int>(n % 2), n % 20 < 2 ? 1 : 5));
        if (n % 500 >= 400) {
            while (::recv(ends[1], room, sizeof room, MSG_DONTWAIT) > 0) {
            }
        }
    }
    buffer.DelSender(sender);
    sender->Detach();
    sender->Close();
    serving->Close();
    served->Close();
    CNetThread::DestroyThreadPool();
    sock.Close();
    ::close(ends[1]);
    return 0;
}
