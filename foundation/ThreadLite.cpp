// CThreadLite: its body is called, and waited for before the object's own members go.
#include <Infra/ThreadLite.h>

namespace Orvex::Infra {

CThreadLite::CThreadLite(TFunction1<void, CThreadLite&> proc, const char* name, int priority, int policy,
                         int stack) noexcept
    : CThread(name, priority, policy, stack), m_proc(proc) {}

CThreadLite::~CThreadLite() {
    destroyThread();
}

void CThreadLite::thread_proc() {
    m_proc(*this);
}

}  // namespace Orvex::Infra
