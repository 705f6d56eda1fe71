// SendProcedure: a copy is called, since the original can be replaced at any time.
#include "Tool/step/SendProcedure.h"

#include <new>

#include <Infra/HeldLocks.h>

namespace Orvex::Reticor {

bool SendProcedure::set(const Function& function) {
    auto* const copy = new (std::nothrow) Function(function);
    change(copy);
    return copy != nullptr;
}

void SendProcedure::drop() {
    change(nullptr);
}

void SendProcedure::change(Function* function) {
    Infra::CGuard guard(m_mutex);
    delete m_function;
    Infra::relaxedStore(m_function, function);
}

void SendProcedure::call(CMediaPacket* info, int arg, int length) {
    Function copy;
    {
        Infra::CGuard guard(m_mutex);
        if (m_function == nullptr) {
            return;
        }
        copy = *m_function;
    }
    INFRA_PROMISE(SEND_PROCEDURE);
    copy(info, arg, length);
}

}  // namespace Orvex::Reticor
