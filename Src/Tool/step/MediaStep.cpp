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
MediaStep::~MediaStep() INFRA_NO_THREAD_SAFETY_ANALYSIS {
    GoneSender* gone = m_outermost ? m_core->end_step() : nullptr;
    m_core->m_mutex.leave();
    TargetStepMark::leave();
    while (gone != nullptr) {
        const std::unique_ptr<GoneSender> first(std::exchange(gone, gone->next));
        first->sender->DecRef();
    }
}

}  // namespace Orvex::Reticor
