// SenderHandlerProbe: the shared timer of all buffers with auto-send, and its ticks by the test's hand.
#pragma once

#include "Tool/step/SenderHandler.h"
#include "support/core/Probes.h"

namespace Orvex::Reticor::ProbeDetail {

struct RunningHandler {
    using Type = CSenderHandler**;
    friend Type stateOf(RunningHandler);
};
template struct Named<RunningHandler, &CSenderHandler::m_handler>;

struct HandlerListMutex {
    using Type = Infra::CMutex*;
    friend Type stateOf(HandlerListMutex);
};
template struct Named<HandlerListMutex, &CSenderHandler::m_list_mutex>;

struct HandlerInterval {
    using Type = const uint64_t CSenderHandler::*;
    friend Type stateOf(HandlerInterval);
};
template struct Named<HandlerInterval, &CSenderHandler::m_interval>;

struct HandlerTimer {
    using Type = long CSenderHandler::*;
    friend Type stateOf(HandlerTimer);
};
template struct Named<HandlerTimer, &CSenderHandler::m_timer_id>;

}  // namespace Orvex::Reticor::ProbeDetail

namespace Orvex::Testing {

struct SenderHandlerProbe {
    using Handler = Reticor::CSenderHandler;

    // Null if no timer runs.
    static Handler* running() {
        const Infra::CGuard guard(*stateOf(Reticor::ProbeDetail::HandlerListMutex{}));
        return *stateOf(Reticor::ProbeDetail::RunningHandler{});
    }
    static uint64_t interval(const Handler& handler) {
        return handler.*stateOf(Reticor::ProbeDetail::HandlerInterval{});
    }
    static long timer(const Handler& handler) {
        return handler.*stateOf(Reticor::ProbeDetail::HandlerTimer{});
    }
    // Plays a tick of the running timer. False if that was its last one, or if none runs.
    static bool tick() {
        Handler* const handler = running();
        return handler != nullptr && handler->handle_timeout(timer(*handler)) == 0;
    }
};

}  // namespace Orvex::Testing
