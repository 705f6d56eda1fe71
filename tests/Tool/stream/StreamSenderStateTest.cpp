// StreamSenderState: the chain of blocks between bytes that are put and a socket that takes what it likes.
// No pool but where waiters are told.
#include "Tool/stream/StreamSenderState.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/media/StreamSenderFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr uint32_t BLOCK_BYTES = SEND_BUF_BYTES;

std::string numbered(std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    }
    return bytes;
}

class StreamSenderStateAlone : public ::testing::Test {
protected:
    StreamSenderStateAlone() {
        const Infra::CGuard guard(own.m_mutex);
        own.attach(nullptr, &sock);
    }
    ~StreamSenderStateAlone() override {
        const Infra::CGuard guard(own.m_mutex);
        own.free_all();
    }

    PutEnd put(const std::string& bytes) {
        const Infra::CGuard guard(own.m_mutex);
        return own.put(bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    // Everything that waits, as the list for one write names it.
    std::string gathered() {
        const Infra::CGuard guard(own.m_mutex);
        std::string bytes;
        const uint32_t count = own.gather();
        for (uint32_t i = 0; i < count; ++i) {
            bytes.append(static_cast<const char*>(own.m_iovec[i].iov_base), own.m_iovec[i].iov_len);
        }
        return bytes;
    }
    uint32_t blocks() {
        const Infra::CGuard guard(own.m_mutex);
        uint32_t count = 0;
        for (const SSendBuf* block = own.m_head; block != nullptr; block = block->m_next) {
            ++count;
        }
        return count;
    }
    uint32_t drop(uint32_t len) {
        const Infra::CGuard guard(own.m_mutex);
        return own.del_buffer_header(len);
    }
    uint32_t waiting() {
        const Infra::CGuard guard(own.m_mutex);
        return own.m_data_len;
    }
    bool grow(uint32_t to) {
        const Infra::CGuard guard(own.m_mutex);
        return own.grow(to);
    }
    void clear() {
        const Infra::CGuard guard(own.m_mutex);
        own.clear();
    }

    ShapedStream sock;
    StreamSenderState own;
};

TEST_F(StreamSenderStateAlone, WhatTheSocketTakesWholeIsNotKept) {
    EXPECT_EQ(PutEnd::TAKEN, put("bytes"));
    EXPECT_EQ("bytes", sock.wire());
    EXPECT_EQ(0U, waiting());
    EXPECT_EQ(0U, blocks()) << "nothing was allocated";
}

TEST_F(StreamSenderStateAlone, TheFirstBytesThatWaitAreToldApartFromLaterOnes) {
    sock.setRoom(2);
    EXPECT_EQ(PutEnd::BEGINS_WAIT, put("bytes"));
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(PutEnd::TAKEN, put("later"));
    EXPECT_EQ("by", sock.wire()) << "what came earlier goes first";
    EXPECT_EQ("teslater", gathered());
}

TEST_F(StreamSenderStateAlone, WhatDoesNotFitIsRefusedWhole) {
    sock.setRoom(0);
    EXPECT_EQ(PutEnd::BEGINS_WAIT, put(numbered(8 * BLOCK_BYTES - 3)));
    EXPECT_EQ(PutEnd::REFUSED, put("four"));
    EXPECT_EQ(PutEnd::TAKEN, put("one"));
    EXPECT_EQ(8 * BLOCK_BYTES, waiting());
    EXPECT_EQ(numbered(8 * BLOCK_BYTES - 3) + "one", gathered());
}

TEST_F(StreamSenderStateAlone, AFailedSocketIsToldAndNothingIsKept) {
    sock.setRoom(0);
    sock.fail(EPIPE);
    EXPECT_EQ(PutEnd::FAILED, put("bytes"));
    EXPECT_EQ(0U, waiting());
}

TEST_F(StreamSenderStateAlone, DroppingGoesOverBlocksAndUsesThemAgain) {
    sock.setRoom(0);
    const std::string bytes = numbered(3 * BLOCK_BYTES + 10);
    put(bytes);
    EXPECT_EQ(4U, blocks());
    EXPECT_EQ(BLOCK_BYTES + 7, drop(BLOCK_BYTES + 7));
    EXPECT_EQ(bytes.substr(BLOCK_BYTES + 7), gathered());
    EXPECT_EQ(BLOCK_BYTES - 7, drop(BLOCK_BYTES - 7)) << "to the end of a block";
    EXPECT_EQ(bytes.substr(2 * BLOCK_BYTES), gathered());
    EXPECT_EQ(PutEnd::TAKEN, put(numbered(2 * BLOCK_BYTES)));
    EXPECT_EQ(bytes.substr(2 * BLOCK_BYTES) + numbered(2 * BLOCK_BYTES), gathered());
    EXPECT_EQ(4U, blocks()) << "blocks that were drained hold it";
    EXPECT_EQ(3 * BLOCK_BYTES + 10, drop(3 * BLOCK_BYTES + 10));
    EXPECT_EQ(0U, waiting());
    EXPECT_EQ(4U, blocks());
}

TEST_F(StreamSenderStateAlone, ClearedItBeginsAtTheFirstByteOfABlock) {
    sock.setRoom(0);
    put(numbered(2 * BLOCK_BYTES));
    drop(5);
    clear();
    EXPECT_EQ(0U, waiting());
    EXPECT_EQ(PutEnd::BEGINS_WAIT, put(numbered(2 * BLOCK_BYTES)));
    EXPECT_EQ(numbered(2 * BLOCK_BYTES), gathered());
    EXPECT_EQ(2U, blocks());
}

TEST_F(StreamSenderStateAlone, GrownItTakesMoreAndWritesAllOfItAtOnce) {
    sock.setRoom(0);
    EXPECT_EQ(PutEnd::BEGINS_WAIT, put(numbered(8 * BLOCK_BYTES)));
    EXPECT_TRUE(grow(10));
    EXPECT_EQ(PutEnd::TAKEN, put(numbered(2 * BLOCK_BYTES)));
    drop(1);
    EXPECT_EQ(PutEnd::TAKEN, put("x")) << "a list that begins and ends inside a block has one more entry";
    EXPECT_EQ(10U * BLOCK_BYTES, gathered().size());
}

// Waiters are told by message.

using StreamSenderStateAndWaiters = StreamSenderFixture;

TEST_F(StreamSenderStateAndWaiters, ADrainTellsWhoseWishItFulfils) {
    StreamSenderState own;
    const Infra::CGuard guard(own.m_mutex);
    own.attach(nullptr, &sock);
    sock.setRoom(0);
    EXPECT_EQ(PutEnd::BEGINS_WAIT, own.put(text(CAPACITY).data(), CAPACITY));
    const long id = waiter->GetID();
    EXPECT_TRUE(own.wait_room(id, 100));
    EXPECT_TRUE(own.wait_end(id));
    EXPECT_TRUE(own.wait_end(id));
    EXPECT_TRUE(own.drain(*sender)) << "a socket without room has not failed";
    EXPECT_TRUE(messages().empty());
    sock.setRoom(100);
    EXPECT_TRUE(own.drain(*sender));
    EXPECT_EQ((std::vector<SentMessage>{{id, STREAM_SENDER_ROOM, 100}}), messages());
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_TRUE(own.drain(*sender));
    EXPECT_EQ((std::vector<SentMessage>{{id, STREAM_SENDER_DRAINED, 0}}), messages()) << "once, each of them";
    EXPECT_TRUE(own.drain(*sender));
    EXPECT_TRUE(messages().empty());
    own.free_all();
}

TEST_F(StreamSenderStateAndWaiters, AFailedDrainKeepsWhatWaitsAndTellsNobody) {
    StreamSenderState own;
    const Infra::CGuard guard(own.m_mutex);
    own.attach(nullptr, &sock);
    sock.setRoom(0);
    own.put("bytes", 5);
    EXPECT_TRUE(own.wait_end(waiter->GetID()));
    sock.fail(EPIPE);
    EXPECT_FALSE(own.drain(*sender));
    EXPECT_EQ(5U, own.m_data_len);
    EXPECT_TRUE(messages().empty());
    own.free_all();
}

}  // namespace
}  // namespace Orvex::Testing
