// SendProcedure: what the application wants to hear of each frame that is sent.
#pragma once

#include <Infra/Atomic.h>
#include <Infra/Function.h>
#include <Infra/Mutex.h>
#include <Reticor/MediaPacket.h>

namespace Orvex::Reticor {

/// Thread safety: any thread. The mutex is the owner's, and entered here; it is not held over the call.
class SendProcedure {
public:
    using Function = Infra::TFunction3<void, CMediaPacket*, int, int>;

    /// `function`, null while there is none, lies where its owner looks at it most often.
    SendProcedure(Infra::CMutex& mutex, Function*& function) : m_mutex(mutex), m_function(function) {}
    ~SendProcedure() { delete m_function; }
    SendProcedure(const SendProcedure&) = delete;
    SendProcedure& operator=(const SendProcedure&) = delete;

    /// Without the lock; one that is set just now is seen the next time.
    bool is_set() const { return Infra::relaxedLoad(m_function) != nullptr; }

    /// Takes a copy of `function` in place of the one before. False, and there is none, without memory.
    bool set(const Function& function);
    void drop();

    /// Calls it, if there is one. It may replace itself, and so may another thread meanwhile.
    void call(CMediaPacket* info, int arg, int length);

private:
    void change(Function* function);

    Infra::CMutex& m_mutex;
    Function*& m_function;  ///< Owned. Changed under the mutex.
};

}  // namespace Orvex::Reticor
