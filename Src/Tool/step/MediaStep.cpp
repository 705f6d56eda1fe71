// MediaStep: beginning and end of an operation on a media buffer.
#include "Tool/step/MediaStep.h"

#include <memory>
#include <utility>

#include <Reticor/NetHandler.h>

#include "Tool/step/TargetStepMark.h"

namespace Orvex::Reticor {

// What the analysis cannot see in these: the mutex is entered in one and left in another.

bool MediaStep::begin(MediaCore& core) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    TargetStepMark::enter();
    return core.begin_step();
}

MediaStep::MediaStep(std::shared_ptr<MediaCore> core) INFRA_NO_THREAD_SAFETY_ANALYSIS
    : m_core(std::move(core)),
      m_outermost(m_core->m_mutex.enter() && begin(*m_core)) {}

MediaStep::MediaStep(std::shared_ptr<MediaCore> core, Entered) INFRA_NO_THREAD_SAFETY_ANALYSIS
    : m_core(std::move(core)),
      m_outermost(begin(*m_core)) {}

// Dropping a reference can end a sender, so it is done with the mutex left.
void MediaStep::end(MediaCore& core, bool outermost) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    GoneSender* gone = outermost ? core.end_step() : nullptr;
    RoomMark* const served = outermost ? std::exchange(core.m_served, nullptr) : nullptr;
    core.m_mutex.leave();
    TargetStepMark::leave();
    while (gone != nullptr) {
        const std::unique_ptr<GoneSender> first(std::exchange(gone, gone->next));
        first->sender->DecRef();
    }
    core.m_marks.finish(served);
}

// In rounds: a sender may be marked while another one is served.
void MediaStep::serve_marks(MediaCore& core) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    while (core.m_marks.any()) {
        const std::shared_ptr<MediaCore> alive = core.shared_from_this();
        if (!core.m_mutex.tryEnter()) {
            return;
        }
        end(core, begin(core));
    }
}

MediaStep::~MediaStep() INFRA_NO_THREAD_SAFETY_ANALYSIS {
    end(*m_core, m_outermost);
    if (m_outermost) {
        serve_marks(*m_core);
    }
}

CoreGuard::~CoreGuard() INFRA_NO_THREAD_SAFETY_ANALYSIS {
    m_core.m_mutex.leave();
    MediaStep::serve_marks(m_core);
}

}  // namespace Orvex::Reticor
