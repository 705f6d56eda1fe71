// PlainBatch: a batch of writes by calls of their own, which shaped sockets answer.
#pragma once

#include <cerrno>
#include <memory>
#include <utility>

#include "Tool/batch/BatchWriter.h"
#include "Tool/media/MediaBufferState.h"

namespace Orvex::Testing {

class PlainBatch : public Reticor::BatchWriter_IF {
public:
    void write(Reticor::BatchedWrite* writes, std::size_t count) override {
        for (std::size_t i = 0; i < count; ++i) {
            const ssize_t sent = ::sendmsg(writes[i].fd, &writes[i].message, MSG_NOSIGNAL | MSG_DONTWAIT);
            writes[i].result = sent < 0 ? -errno : static_cast<int>(sent);
        }
    }

    // As SetWriteBatch, but with this writer, or another one.
    static void set(Reticor::CMediaBuffer& buffer, std::size_t least,
                    std::unique_ptr<Reticor::BatchWriter_IF> writer = std::make_unique<PlainBatch>()) {
        Reticor::MediaBufferState& state = Reticor::MediaBufferState::of(buffer);
        auto room = std::make_unique<Reticor::StepBatch::Room>(std::move(writer));
        const Reticor::CoreGuard guard(*state.m_core);
        state.m_batch.set(room, least);
    }
    static uint64_t writesOf(Reticor::CMediaBuffer& buffer) {
        Reticor::MediaBufferState& state = Reticor::MediaBufferState::of(buffer);
        const Reticor::CoreGuard guard(*state.m_core);
        return state.m_batch.writes();
    }
};

}  // namespace Orvex::Testing
