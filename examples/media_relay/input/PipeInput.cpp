// PipeInput: one read a call, since nobody may wait here.

#include "media_relay/input/PipeInput.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

namespace {

constexpr size_t kRead = 65536;  // bytes: what a pipe holds

}  // namespace

void PipeInput::Create(Roster& roster, const Setup& setup, int fd) {
    auto* const self = new PipeInput(roster, setup);
    self->m_pipe.SetBlockOpt(true);  // others may share it, and its mode with it
    self->m_pipe.Attach(fd);
    self->begin();
    self->RegisterSock(self->m_pipe, SOCK_READ, 0);
}

/// The pipe is ready, and so this read does not wait.
int PipeInput::handle_input(int fd) {
    CGuard guard(m_mutex);
    if (m_over) {
        return 0;
    }
    uint8_t bytes[kRead];
    const ssize_t got = ::read(fd, bytes, sizeof bytes);
    if (got > 0) {
        take(bytes, static_cast<size_t>(got));
        if (m_input.isHopeless()) {
            end("");
        }
    } else if (got == 0) {
        end("");
    } else if (errno != EAGAIN && errno != EINTR) {
        end("cannot read the input: " + std::string(std::strerror(errno)));
    }
    return 0;
}

void PipeInput::leave() {
    RemoveSock(m_pipe);
}

}  // namespace relay
