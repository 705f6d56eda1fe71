// The message rows on Reticor: a handler per receiver; Notify, and NotifySerial for serial messages.
#include "common/AllocationCounter.h"

#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

#include "common/Alive.h"
#include "common/MessageBoard.h"

namespace {

using namespace Orvex::Reticor;

constexpr unsigned kMessage = 100;
constexpr unsigned kSerialMessage = 101;

Bench::Alive alive;

class Receiver : public CNetHandler {
public:
    Receiver(Bench::MessageBoard& board, std::size_t place) : m_board(board), m_place(place) {
        alive.enter();
    }

    int handle_message(long, unsigned int msg, long attach) override {
        if (msg == kSerialMessage) {
            m_board.deliverInOrder(m_place, attach);
        } else {
            m_board.deliver(m_place, attach);
        }
        return 0;
    }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    Bench::MessageBoard& m_board;
    const std::size_t m_place;
};

// Posting is for handlers, so the producer is one too; it posts from the main thread, which is not a worker.
class Producer : public CNetHandler {
public:
    Producer() { alive.enter(); }

    void post(long receiver, long value) { Notify(receiver, kMessage, value); }
    void postSerial(long receiver, long value) { NotifySerial(receiver, kSerialMessage, value, 0); }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }
};

}  // namespace

int main(int argc, char** argv) {
    Bench::MessageOptions options = Bench::parseMessageOptions(argc, argv, "messages on a Reticor pool");
    if (CNetThread::CreateThreadPool(options.threads, false) != 0) {
        return 1;
    }
    Bench::MessageBoard board(options.receivers);
    std::vector<Receiver*> receivers;
    std::vector<long> ids;
    for (std::size_t place = 0; place < options.receivers; ++place) {
        receivers.push_back(new Receiver(board, place));
        ids.push_back(receivers.back()->GetID());
    }
    auto* producer = new Producer;

    Bench::MessagePost posts;
    posts.post = [&](std::size_t receiver, long value) { producer->post(ids[receiver], value); };
    posts.postSerial = [&](std::size_t receiver, long value) { producer->postSerial(ids[receiver], value); };
    Bench::runMessages(options, board, posts, Bench::countAllocations);

    for (Receiver* receiver : receivers) {
        receiver->Close();
    }
    producer->Close();
    const bool allGone = alive.waitForNone();
    CNetThread::DestroyThreadPool();
    return allGone ? 0 : 1;
}
