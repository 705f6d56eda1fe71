// OwedMessages: the messages of one file, above all those that its caller waits for.
#include "Tool/file/OwedMessages.h"

#include <Reticor/NFile.h>

#include "Core/service/Message.h"

namespace Orvex::Reticor {

void OwedMessages::tell(unsigned int msg) {
    if (!m_silent.load(std::memory_order_relaxed)) {
        CMessage::Tell(m_file.GetID(), m_handler_id, msg, 0);
    }
}

void OwedMessages::need_read_message() {
    Infra::CGuard guard(m_msg_mutex);
    m_wait_read = true;
}

void OwedMessages::need_write_message() {
    Infra::CGuard guard(m_msg_mutex);
    m_wait_write = true;
}

void OwedMessages::need_read_message_from_pass() {
    Infra::CGuard guard(m_msg_mutex);
    m_wait_read = true;
    m_read_stalled = true;
}

void OwedMessages::notify_read_message() {
    Infra::CGuard guard(m_msg_mutex);
    if (m_wait_read) {
        tell(FILE_MSG_READ);
    }
    m_wait_read = false;
    m_read_stalled = false;
}

void OwedMessages::notify_write_message() {
    Infra::CGuard guard(m_msg_mutex);
    if (m_wait_write) {
        tell(FILE_MSG_WRITE);
    }
    m_wait_write = false;
}

void OwedMessages::notify_stalled_read() {
    Infra::CGuard guard(m_msg_mutex);
    if (m_read_stalled) {
        m_read_stalled = false;
        m_wait_read = false;
        tell(FILE_MSG_READ);
    }
}

}  // namespace Orvex::Reticor
