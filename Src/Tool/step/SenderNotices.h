// SenderNotices: whom a media sender tells of its failure and of what it has stepped over.
#pragma once

#include <cstdint>

#include <Infra/Atomic.h>
#include <Reticor/MediaStreamSender.h>

namespace Orvex::Reticor {

/// Thread safety: any thread, without a lock.
class SenderNotices {
public:
    explicit SenderNotices(CMediaStreamSender& sender) : m_sender(sender) {}

    /// 0 is nobody.
    void wait_failure(long id) { Infra::relaxedStore(m_failure_id, id); }
    /// Whom to tell of a failure, once: whoever wants to know more asks again.
    long take_failure_waiter() { return __atomic_exchange_n(&m_failure_id, 0, __ATOMIC_RELAXED); }
    /// MEDIA_MSG_SOCKET_FAILED.
    void tell_failure(long id) { tell(id, MEDIA_MSG_SOCKET_FAILED, 0); }

    void wait_skip(long id, unsigned msg) {
        Infra::relaxedStore(m_skip_msg, msg);
        Infra::relaxedStore(m_skip_id, id);
    }
    /// What MediaSkip reads.
    void tell_skip(uint64_t frames, uint64_t bytes, bool thinned);

private:
    void tell(long id, unsigned msg, long attach);

    CMediaStreamSender& m_sender;
    long m_failure_id = 0;
    long m_skip_id = 0;
    unsigned m_skip_msg = 0;
};

}  // namespace Orvex::Reticor
