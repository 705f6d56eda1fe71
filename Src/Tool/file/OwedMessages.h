// OwedMessages: the messages of one file, above all those that its caller waits for.
#pragma once

#include <atomic>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

class CNFile;

/// A call that has to wait owes its caller a message; whatever ends the wait pays it, once. The mutex is held
/// over posting, so that a message is never paid twice, nor a call refused after its message has gone.
///
/// Thread safety: every operation on any thread.
class OwedMessages {
public:
    /// `file` is the sender, the handler with the id `handler_id` the receiver.
    OwedMessages(CNFile& file, long handler_id) : m_file(file), m_handler_id(handler_id) {}
    OwedMessages(const OwedMessages&) = delete;
    OwedMessages& operator=(const OwedMessages&) = delete;

    /// Posts a message now.
    void tell(unsigned int msg);

    /// The receiver's pool has ended: from now on nothing is posted.
    void be_silent() { m_silent.store(true); }

    bool waiting_read_message() {
        Infra::CGuard guard(m_msg_mutex);
        return m_wait_read;
    }
    bool waiting_write_message() {
        Infra::CGuard guard(m_msg_mutex);
        return m_wait_write;
    }

    /// Message 7 is owed, message 6 is owed.
    void need_read_message();
    void need_write_message();
    /// Message 7 is owed, and is to be paid by a pass that writes.
    void need_read_message_from_pass();

    /// Pays the message if it is owed.
    void notify_read_message();
    void notify_write_message();
    void notify_stalled_read();

private:
    CNFile& m_file;
    const long m_handler_id;
    std::atomic<bool> m_silent{false};

    Infra::CMutex m_msg_mutex{Infra::LockClass::FILE_MESSAGES};
    bool m_wait_read INFRA_GUARDED_BY(m_msg_mutex) = false;     ///< The caller is owed message 7.
    bool m_wait_write INFRA_GUARDED_BY(m_msg_mutex) = false;    ///< The caller is owed message 6.
    bool m_read_stalled INFRA_GUARDED_BY(m_msg_mutex) = false;  ///< A pass that writes is to pay message 7.
};

}  // namespace Orvex::Reticor
