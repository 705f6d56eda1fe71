// CSenderHandler: the process's one timer that lets the senders of all registered buffers go on.
#pragma once

#include <cstdint>
#include <vector>

#include <Infra/Mutex.h>
#include <Reticor/NetHandler.h>

#include "Core/handle/HandlerDrops.h"

namespace Orvex::Reticor {

/// What the timer calls.
class SendTarget_IF {
public:
    virtual void do_send() = 0;

protected:
    ~SendTarget_IF() = default;
};

/// The handler exists while a target is registered, and at most one period longer. All of its targets share
/// one timer, whose interval is that of the target that started it.
///
/// Locks: the list's lock is held over a whole sweep, and taken before any lock of a target.
class CSenderHandler : public CNetHandler {
public:
    static constexpr uint64_t DEFAULT_INTERVAL_MS = 100;

    CSenderHandler();
    explicit CSenderHandler(uint64_t interval);

    /// Registers a target, and starts the timer if it does not run. `interval` is in milliseconds. 0 is the
    /// only type in use. A null target is ignored. False, with the target not registered, if there is no
    /// memory.
    static bool Add(int type, SendTarget_IF* target);
    static bool Add(int type, SendTarget_IF* target, uint64_t interval);
    /// Takes the first record of the target away, if there is one. When it returns, the timer does not touch
    /// the target any more.
    static void Remove(int type, SendTarget_IF* target);

    /// For the library's teardown, before the pools go: the timer ends, targets stay registered, and until
    /// Resume new ones are only listed. What may be the last reference on the handler goes to `drops`.
    static void Suspend(HandlerDrops& drops);
    /// For the library's set-up, when the public pool stands: starts the timer if there are targets. False if
    /// there is no memory for it.
    static bool Resume();

    int64_t handle_timeout(long id) override;
    int handle_close(CNetHandler* self) override;

private:
    struct Record {
        int32_t type;
        SendTarget_IF* target;
        bool enabled;
    };

    static bool start(uint64_t interval, CSenderHandler*& failed) INFRA_REQUIRES(m_list_mutex);
    static bool end(CSenderHandler* failed);
    ~CSenderHandler() override = default;

    /// Never destroyed: a timer may still run while static objects are.
    static std::vector<Record>& sender_list() INFRA_REQUIRES(m_list_mutex);

    static Infra::CMutex m_list_mutex;
    static bool m_started INFRA_GUARDED_BY(m_list_mutex);
    static bool m_suspended INFRA_GUARDED_BY(m_list_mutex);
    static CSenderHandler* m_handler INFRA_GUARDED_BY(m_list_mutex);  ///< The running one; null if none.
    static uint64_t m_last_interval INFRA_GUARDED_BY(m_list_mutex);   ///< Of the last start; milliseconds.

    long m_timer_id = 0;  ///< Guarded by the list's lock: the first tick may come before SetTimer returns.
    const uint64_t m_interval;  ///< Milliseconds.
};

}  // namespace Orvex::Reticor
