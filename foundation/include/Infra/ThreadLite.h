// CThreadLite: a thread whose body is a function object, which is given the thread object itself.
#pragma once

#include <Infra/CThread.h>
#include <Infra/Export.h>
#include <Infra/Function.h>

namespace Orvex::Infra {

/// As CThread, with the body of its choice; the values of scheduling are those of CThread's constructor.
class INFRA_API CThreadLite : public CThread {
public:
    /// `proc` is copied, and called with this object; `name` as in CThread.
    explicit CThreadLite(TFunction1<void, CThreadLite&> proc, const char* name, int priority = 64,
                         int policy = 0, int stack = 0) noexcept;
    /// Waits for the body.
    ~CThreadLite() override;

protected:
    /// Calls what was given.
    void thread_proc() override;

private:
    const TFunction1<void, CThreadLite&> m_proc;
};

}  // namespace Orvex::Infra
