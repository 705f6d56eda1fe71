// timers_and_messages: two handlers and no socket.
//
// What it teaches:
//  - what handle_timeout returns steers its timer: 0 again, above 0 again with that period, below 0 no more;
//  - DestroyTimer ends a timer that waits;
//  - Notify runs messages on any worker, also two at a time: a handler guards what they touch;
//  - NotifySerial runs them one after the other, in the order in which they were sent;
//  - a message to a handler that has gone disappears without a trace, and the sender need not care.
#include <atomic>
#include <cstdio>

#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

using namespace Orvex::Reticor;

namespace {

constexpr unsigned kPlain = 1, kSerial = 2;  // numbers of our messages
constexpr long kBurst = 1000;

Orvex::Infra::CSemaphore g_step{0};  // a step of the demonstration is over
Orvex::Infra::CSemaphore g_gone{0};  // a handler has gone

/// Both handlers end alike: `delete` in handle_close, and main is told.
class Handler : public CNetHandler {
public:
    int handle_close(CNetHandler* self) override {
        delete self;
        g_gone.post();
        return 0;
    }
};

/// Ticks three times every 20 ms and twice every 5 ms.
class Ticker : public Handler {
public:
    static Ticker* Create() { return new Ticker; }

    /// Timers are armed here and not in the constructor: one could expire before the object is complete.
    void start() {
        m_never = SetTimer(3600 * 1000000LL);
        SetTimer(20000);
    }

    int64_t handle_timeout(long id) override {
        if (id == m_never) {
            std::printf("this hour was short\n");
        }
        std::printf("timer: tick %d\n", ++m_ticks);
        if (m_ticks < 5) {
            return m_ticks == 3 ? 5000 : 0;
        }
        DestroyTimer(m_never);  // the one that waits; this one ends by its result
        g_step.post();
        return -1;
    }

private:
    int m_ticks = 0;  // one timer never overlaps itself, so this needs no lock
    long m_never = -1;
};

/// Counts what it is sent.
class Counter : public Handler {
public:
    static Counter* Create() { return new Counter; }

    int handle_message(long, unsigned int msg, long attach) override {
        if (msg == kPlain) {
            if (++m_plain == kBurst) {
                g_step.post();
            }
        } else if (msg == kSerial) {
            if (attach == m_serial) {
                ++m_serial;
            }
            if (attach == kBurst - 1) {
                g_step.post();
            }
        }
        return 0;
    }

    long plain() const { return m_plain; }
    long inOrder() const { return m_serial; }

private:
    std::atomic<long> m_plain{0};  // Notify: two can run at the same time
    long m_serial = 0;             // NotifySerial: never two at a time
};

/// Sends to a Counter, of which it knows nothing but the id.
class Sender : public Handler {
public:
    static Sender* Create(long receiver) {
        auto* self = new Sender;
        self->SetDefaultRcer(receiver);
        return self;
    }

    void burst(unsigned msg) {
        for (long i = 0; i < kBurst; ++i) {
            msg == kPlain ? Notify(msg, i) : NotifySerial(msg, i, 0);
        }
    }
};

void showTimers() {
    Ticker* ticker = Ticker::Create();
    ticker->start();
    g_step.pend();
    std::printf("timer: done after 5 ticks\n");
    ticker->Close();
    g_gone.pend();
}

void showMessages() {
    Counter* counter = Counter::Create();
    Sender* sender = Sender::Create(counter->GetID());
    sender->burst(kPlain);
    g_step.pend();
    std::printf("Notify: %ld of %ld arrived\n", counter->plain(), kBurst);
    sender->burst(kSerial);
    g_step.pend();
    std::printf("NotifySerial: %ld of %ld arrived in order\n", counter->inOrder(), kBurst);

    counter->Close();
    g_gone.pend();
    sender->burst(kPlain);
    std::printf("Notify to a handler that has gone: nothing happens\n");
    sender->Close();
    g_gone.pend();
}

}  // namespace

int main() {
    if (CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    showTimers();
    showMessages();
    return DestroyThreadPool();
}
