// StreamSenderFixture: a sender, its owner and its socket in a pool in which nothing happens by itself, and a
// look at the sender's state.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include <Reticor/StreamSender.h>

#include "Core/record/EventFreeList.h"
#include "Tool/stream/StreamSenderState.h"
#include "support/core/StillPool.h"
#include "support/media/ShapedStream.h"

namespace Orvex::Reticor {

// An explicit instantiation may name a private member.
namespace ProbeDetail {

struct SenderState {
    using Type = StreamSenderState* CStreamSender::*;
    friend Type stateOf(SenderState);
};
template struct Named<SenderState, &CStreamSender::m_state>;

}  // namespace ProbeDetail

struct StreamSenderProbe {
    static StreamSenderState& state(CStreamSender& sender) {
        return *(sender.*stateOf(ProbeDetail::SenderState{}));
    }
};

}  // namespace Orvex::Reticor

namespace Orvex::Testing {

// Receiver, number, attachment.
using SentMessage = std::tuple<long, unsigned int, long>;

class StreamSenderFixture : public ::testing::Test {
protected:
    static constexpr uint32_t BLOCK = 32768;
    static constexpr uint32_t CAPACITY = 8 * BLOCK;

    ~StreamSenderFixture() override {
        owner->RemoveSock(sock);
        rig.close(owner);
        rig.close(waiter);
        sender->Close();
        serveAll();
    }

    void attach() { EXPECT_EQ(0, sender->Attach(owner, &sock)); }

    // Makes `bytes` wait: the socket takes nothing, and will take nothing after this.
    void backlog(std::size_t bytes) {
        sock.setRoom(0);
        EXPECT_EQ(0, sender->Put(text(bytes).data(), static_cast<unsigned>(bytes)));
        sock.clearCalls();
    }

    // What the sender has sent by message. Checks that it was the sender.
    std::vector<SentMessage> messages() {
        std::vector<SentMessage> found;
        for (Reticor::CEvent* ev : rig.takeQueue()) {
            if (ev->m_key == Reticor::EVENT_KEY_MESSAGE) {
                EXPECT_EQ(ev->m_obj_id, sender->GetID());
                found.emplace_back(static_cast<long>(ev->m_receiver), ev->m_msg,
                                   static_cast<long>(ev->m_attach));
            }
            Reticor::put_event(ev);
        }
        return found;
    }

    // The directions in which the socket is registered; -1 if it is not.
    int mask() {
        const Reticor::CEvent* const ev = rig.record(sock.GetHandle());
        return ev == nullptr ? -1 : static_cast<int>(ev->m_event_mask);
    }

    Reticor::StreamSenderState& state() { return Reticor::StreamSenderProbe::state(*sender); }

    // What each block of the chain holds, the spare ones included. Checks the links and the places.
    std::vector<uint32_t> blocks() {
        Reticor::StreamSenderState& s = state();
        const Infra::CGuard guard(s.m_mutex);
        std::vector<uint32_t> sizes;
        const Reticor::SSendBuf* before = nullptr;
        bool spare = s.m_tail == nullptr;
        for (const Reticor::SSendBuf* block = s.m_head; block != nullptr; block = block->m_next) {
            EXPECT_EQ(block->m_end, block->m_data + BLOCK);
            EXPECT_TRUE(spare || block->m_prev == before);
            EXPECT_TRUE(block->m_read >= block->m_data && block->m_read <= block->m_write);
            EXPECT_LE(block->m_write, block->m_end);
            EXPECT_TRUE(block == s.m_head || block->m_read == block->m_data)
                << "only the head is partly read";
            EXPECT_TRUE(spare || block == s.m_tail || block->m_write == block->m_end)
                << "inner blocks are full";
            EXPECT_TRUE(!spare || block->size() == 0) << "spare blocks are empty";
            sizes.push_back(block->size());
            spare = spare || block == s.m_tail;
            before = block;
        }
        return sizes;
    }
    uint32_t waiting() {
        const Infra::CGuard guard(state().m_mutex);
        return state().m_data_len;
    }

    static std::string text(std::size_t length) {
        std::string bytes(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
        }
        return bytes;
    }

    void serveAll() {
        for (Reticor::CEvent* ev : rig.takeQueue()) {
            rig.serve(ev);
        }
    }

    StillPool rig{0};
    ShapedStream sock;
    TestHandler* owner = new TestHandler(0);
    TestHandler* waiter = new TestHandler(0);
    Reticor::CStreamSender* sender = Reticor::CStreamSender::Create();
};

}  // namespace Orvex::Testing
