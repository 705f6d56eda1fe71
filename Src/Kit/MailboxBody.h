// MailboxBody: calls that were posted to a pool of the kit.
#pragma once

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/kit/UniqueFunction.h>

#include "Kit/PoolState.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// The calls lie here, and a message for each is the doorbell: a message that the pool drops loses no call,
/// since what is left is destroyed with the box.
class MailboxBody final : public Member {
public:
    enum Way : unsigned { PLAIN, SERIAL, IO, WAYS };

    explicit MailboxBody(PoolState& pool) : Member(pool) {}
    ~MailboxBody() override;

    /// False if the box is sealed or there is no memory; then `call` is left to the caller.
    bool post(Way way, UniqueFunction<void()>& call);

    const char* kind() const override { return "posted call"; }
    void drain() override;
    bool cut() override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    struct Letter {
        Letter* next = nullptr;
        UniqueFunction<void()> call;
    };
    struct Line {
        Letter* head = nullptr;
        Letter* tail = nullptr;
        void append(Letter* letter);
        Letter* take();
        bool remove(const Letter* letter);
    };

    static constexpr unsigned int END = WAYS;       ///< The message that asks whether all is done.
    static constexpr unsigned int AGAIN = END + 1;  ///< And the way: that doorbell is to be rung again.
    static constexpr size_t MOST_SPARE = 1024;      ///< Letters that are kept for the next ones.

    bool is_done() const INFRA_REQUIRES(m_mutex);
    bool ring(Way way);
    bool take_back(Way way, Letter* letter, UniqueFunction<void()>& call);
    void keep_spare(Letter* letter) INFRA_REQUIRES(m_mutex);
    void run_one(Way way);
    void end_if_done();

    Infra::CMutex m_mutex{Infra::LockClass::KIT_MAILBOX};
    Line m_lines[WAYS] INFRA_GUARDED_BY(m_mutex);
    Letter* m_spare INFRA_GUARDED_BY(m_mutex) = nullptr;
    size_t m_spare_count INFRA_GUARDED_BY(m_mutex) = 0;
    size_t m_running INFRA_GUARDED_BY(m_mutex) = 0;
    bool m_sealed INFRA_GUARDED_BY(m_mutex) = false;
    bool m_cut INFRA_GUARDED_BY(m_mutex) = false;
    bool m_over INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
