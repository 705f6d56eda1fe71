// CoreSeat: the buffer whose list a sender is on, or was on last.
#pragma once

#include <memory>

#include <Infra/Mutex.h>

#include "Tool/step/MediaStep.h"

namespace Orvex::Reticor {

/// A sender moves between buffers, and whoever wants to work on it must hold the lock of the one where it is.
///
/// Thread safety: any thread. The mutex is the owner's; it comes after the mutex of a core, and guards the
/// seat.
class CoreSeat {
public:
    explicit CoreSeat(Infra::CMutex& mutex) : m_mutex(mutex) {}

    /// Null: it has been on none.
    std::shared_ptr<MediaCore> get();
    /// The core, with its mutex entered: the sender is still there. Null, and nothing is entered, without
    /// one.
    std::shared_ptr<MediaCore> enter();
    /// False, and nothing has changed, if it is not `before` any more. Under the mutex of that one, if it is
    /// one.
    bool change(const std::shared_ptr<MediaCore>& before, const std::shared_ptr<MediaCore>& after);

private:
    Infra::CMutex& m_mutex;
    std::shared_ptr<MediaCore> m_core INFRA_GUARDED_BY(m_mutex);
};

}  // namespace Orvex::Reticor
