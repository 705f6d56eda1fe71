// Waker: messages from a thread that is not a handler's.
#pragma once

#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>

namespace relay {

/// Only handlers send messages. `wake` is for any thread.
class Waker {
public:
    explicit Waker(unsigned message) : m_sender(new Sender(message, m_gone)) {}

    /// The pool must still be there. Nobody calls `wake` any more.
    ~Waker() {
        m_sender->Close();
        m_gone.pend();
    }
    Waker(const Waker&) = delete;
    Waker& operator=(const Waker&) = delete;

    /// One that has gone gets nothing.
    void wake(long handler) { m_sender->wake(handler); }

private:
    class Sender : public Orvex::Reticor::CNetHandler {
    public:
        Sender(unsigned message, Orvex::Infra::CSemaphore& gone) : m_message(message), m_gone(gone) {}
        void wake(long handler) { Notify(handler, m_message, 0); }
        int handle_close(CNetHandler* self) override {
            Orvex::Infra::CSemaphore& gone = m_gone;
            delete self;
            gone.post();
            return 0;
        }

    private:
        const unsigned m_message;
        Orvex::Infra::CSemaphore& m_gone;
    };

    Orvex::Infra::CSemaphore m_gone{0};
    Sender* const m_sender;
};

}  // namespace relay
