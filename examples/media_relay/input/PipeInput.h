// PipeInput: a transport stream from a pipe, as it comes.
#pragma once

#include <Reticor/Sock.h>

#include "media_relay/input/LiveInput.h"

namespace relay {

/// It ends when the last writer has gone.
class PipeInput : public LiveInput {
public:
    /// Takes `fd` over.
    static void Create(Roster& roster, const Setup& setup, int fd);

    int handle_input(int fd) override;

private:
    PipeInput(Roster& roster, const Setup& setup) : LiveInput(roster, setup, "MPEG transport stream") {}

    void leave() override INFRA_REQUIRES(m_mutex);

    /// The library watches any descriptor that can be waited for.
    Orvex::Reticor::CSock m_pipe;
};

}  // namespace relay
