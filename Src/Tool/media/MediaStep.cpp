// MediaStep: beginning and end of an operation on a media buffer.
#include "Tool/media/MediaStep.h"

#include <utility>

#include <Reticor/NetHandler.h>

#include "Tool/media/TargetStepMark.h"

namespace Orvex::Reticor {

// What the analysis cannot see in these three: the mutex is entered in one and left in another.

bool MediaStep::begin(MediaCore& core) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    TargetStepMark::enter();
    if (core.m_stepping) {
        return false;
    }
    core.m_stepping = true;
    core.m_now_us = 0;
    return true;
}

MediaStep::MediaStep(std::shared_ptr<MediaCore> core) INFRA_NO_THREAD_SAFETY_ANALYSIS
    : m_core(std::move(core)),
      m_outermost(m_core->m_mutex.enter() && begin(*m_core)) {}

MediaStep::MediaStep(std::shared_ptr<MediaCore> core, Entered) INFRA_NO_THREAD_SAFETY_ANALYSIS
    : m_core(std::move(core)),
      m_outermost(begin(*m_core)) {}

// Dropping a reference can end a sender, so it is done with the mutex left.
MediaStep::~MediaStep() INFRA_NO_THREAD_SAFETY_ANALYSIS {
    std::vector<CNetHandler*> gone;
    if (m_outermost) {
        // Taking one off can run call-backs that take off others.
        while (std::exchange(m_core->m_some_leave, false) && m_core->m_end != nullptr) {
            m_core->m_end->drop_leaving();
        }
        gone.swap(m_core->m_gone);
        m_core->m_stepping = false;
    }
    m_core->m_mutex.leave();
    TargetStepMark::leave();
    for (CNetHandler* sender : gone) {
        sender->DecRef();
    }
}

}  // namespace Orvex::Reticor
