// CStreamSender against a plain reference: random puts, blocks and failures; every result, message, counter,
// registration and byte is compared after every step.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <map>
#include <string>

#include <Reticor/SimulatorStream.h>

#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/media/StreamSenderFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint32_t BLOCK = 32768;

// A socket that takes `room` bytes, and then nothing, or fails.
struct ModelSocket {
    std::size_t room = 0;
    bool failing = false;
    std::string wire;

    // Bytes taken; 0; -1.
    long send(const char* data, std::size_t length) {
        const std::size_t part = std::min(length, room);
        wire.append(data, part);
        room -= part;
        if (part == 0 && failing) {
            return -1;
        }
        return static_cast<long>(part);
    }
};

struct Model {
    uint64_t capacity = 8 * BLOCK;
    std::string waiting;
    std::size_t offset = 0;       // of the first waiting byte in its block
    std::size_t block_count = 0;  // that were ever needed at once
    std::map<long, int> sizes;
    std::list<long> finish;
    long exception = 0;
    int mask = -1;  // as registered
    bool simulator = false;
    ModelSocket socket;
    std::vector<SentMessage> messages;

    void keep(const char* data, std::size_t length) {
        waiting.append(data, length);
        block_count = std::max(block_count, (offset + waiting.size() + BLOCK - 1) / BLOCK);
    }

    void fail() {
        if (exception != 0) {
            messages.emplace_back(exception, 2, 0);
        }
    }

    void tellWaiters() {
        const auto free = static_cast<long>(capacity - waiting.size());
        for (auto& [id, size] : sizes) {
            if (size > 0 && free >= size) {
                messages.emplace_back(id, 4, free);
                size = -1;
            }
        }
        if (waiting.empty()) {
            for (const long id : finish) {
                messages.emplace_back(id, 9, 0);
            }
            finish.clear();
        }
    }

    int put(const std::string& bytes) {
        if (!waiting.empty()) {
            if (capacity - waiting.size() < bytes.size()) {
                return -1;
            }
            keep(bytes.data(), bytes.size());
            return 0;
        }
        const long sent = socket.send(bytes.data(), bytes.size());
        if (sent < 0) {
            fail();
            return -1;
        }
        const auto done = static_cast<std::size_t>(sent);
        if (done < bytes.size()) {
            keep(bytes.data() + done, bytes.size() - done);
            mask = (mask < 0 ? 0 : mask) | static_cast<int>(SOCK_WRITE);
        }
        return 0;
    }

    // A simulator sends piece by piece, and an error hides what went before it.
    long gatherWrite() {
        if (!simulator) {
            return socket.send(waiting.data(), waiting.size());
        }
        long total = 0;
        for (std::size_t at = 0; at < waiting.size();) {
            const std::size_t piece =
                std::min<std::size_t>(waiting.size() - at, at == 0 ? BLOCK - offset : BLOCK);
            const long sent = socket.send(waiting.data() + at, piece);
            if (sent < 0) {
                return -1;
            }
            total += sent;
            if (static_cast<std::size_t>(sent) < piece) {
                break;
            }
            at += piece;
        }
        return total;
    }

    void output() {
        if (!waiting.empty()) {
            const long sent = gatherWrite();
            if (sent < 0) {
                mask = -1;
                fail();
            } else if (sent > 0) {
                waiting.erase(0, static_cast<std::size_t>(sent));
                offset = waiting.empty() ? 0 : (offset + static_cast<std::size_t>(sent)) % BLOCK;
                tellWaiters();
            }
        }
        if (waiting.empty() && mask >= 0) {
            mask &= ~static_cast<int>(SOCK_WRITE);
        }
    }

    void detach() {
        if (mask >= 0) {
            mask = (mask & static_cast<int>(SOCK_READ)) != 0 ? mask & ~static_cast<int>(SOCK_WRITE) : -1;
        }
    }
};

class StreamSenderModel : public StreamSenderFixture {
protected:
    void run(bool simulator_kind, int steps) {
        model.simulator = simulator_kind;
        simulator.SetRealSocket(&sock);
        simulator.SetBandWidth(4095);
        sender->Attach(owner, simulator_kind ? static_cast<CSock*>(&simulator) : &sock);
        setRoom(0);
        for (int i = 0; i < steps && !HasFailure(); ++i) {
            step();
            compare();
            if (HasFailure()) {
                ADD_FAILURE() << "in step " << i;
            }
        }
    }

private:
    void setRoom(std::size_t bytes) {
        sock.setRoom(bytes);
        model.socket.room = bytes;
    }

    void setFailing(bool failing) {
        failing ? sock.fail(EPIPE) : sock.recover();
        model.socket.failing = failing;
    }

    std::string bytes() {
        const uint64_t limit = random.oneIn(4) ? model.capacity : random.oneIn(2) ? 3 * BLOCK : 2000;
        const auto length = random.between<std::size_t>(model.waiting.empty() ? 0 : 1, limit);
        // Any place of a long text that does not repeat itself, so that loss and doubling show.
        return m_source.substr(random.between<std::size_t>(0, m_source.size() - length), length);
    }

    long someId() { return random.oneIn(2) ? waiter->GetID() : owner->GetID(); }

    void step() {
        switch (random.between(0, 19)) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
            case 5: {
                const std::string text = bytes();
                EXPECT_EQ(sender->Put(text.data(), static_cast<unsigned>(text.size())), model.put(text));
                break;
            }
            case 6:
            case 7:
            case 8:
            case 9:
            case 10:
                EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
                model.output();
                break;
            case 11:
            case 12:
            case 13:
                setRoom(random.oneIn(4)   ? 0
                        : random.oneIn(3) ? BLOCK * random.between(1u, 5u)
                                          : random.between(1u, 5 * BLOCK));
                break;
            case 14:
                setFailing(random.oneIn(3));
                break;
            case 15:
                waitSize(someId());
                break;
            case 16:
                waitFinish(someId());
                break;
            default:
                rareStep();
        }
    }

    void waitSize(long id) {
        const unsigned size = random.oneIn(8)
                                  ? 0xFFFFFF00u
                                  : static_cast<unsigned>(random.between<uint64_t>(0, model.capacity));
        sender->WaitBufferSize(id, size);
        model.sizes[id] = static_cast<int>(size);
        model.tellWaiters();
    }

    void waitFinish(long id) {
        sender->WaitSendFinish(id);
        if (std::find(model.finish.begin(), model.finish.end(), id) == model.finish.end()) {
            model.finish.push_back(id);
        }
        model.tellWaiters();
    }

    void rareStep() {
        switch (random.between(0, 9)) {
            case 0:
                sender->Clear();
                model.waiting.clear();
                model.offset = 0;
                break;
            case 1:
                model.exception = random.oneIn(2) ? waiter->GetID() : 0;
                sender->WaitException(model.exception);
                break;
            case 2:
                if (model.capacity < 12 * BLOCK) {
                    const auto blocks =
                        static_cast<unsigned>(model.capacity / BLOCK) + random.between(0u, 1u);
                    sender->SetBufferSize(blocks);
                    model.capacity = uint64_t{blocks} * BLOCK;
                }
                break;
            case 3: {
                CSock* const stream = sender->Detach();
                model.detach();
                sender->Attach(owner, stream);
                break;
            }
            case 4:
                owner->RegisterSock(sock, SOCK_READ, 0);
                model.mask = (model.mask < 0 ? 0 : model.mask) | static_cast<int>(SOCK_READ);
                break;
            case 5:
                owner->RemoveSock(sock);
                model.mask = -1;
                break;
            default:
                break;
        }
    }

    void compare() {
        ASSERT_EQ(messages(), model.messages);
        model.messages.clear();
        ASSERT_EQ(sock.wire().size(), model.socket.wire.size());
        ASSERT_TRUE(sock.wire() == model.socket.wire);
        sock.clearWire();
        model.socket.wire.clear();
        ASSERT_EQ(mask(), model.mask);
        ASSERT_EQ(HandlerProbe::sockets(*owner), model.mask < 0 ? 0 : 1);
        ASSERT_EQ(1, HandlerProbe::references(*owner));
        ASSERT_EQ(sender->GetBufferSize(), model.capacity / BLOCK);
        ASSERT_EQ(blocks().size(), model.block_count);
        const Infra::CGuard guard(state().m_mutex);
        ASSERT_EQ(state().m_data_len, model.waiting.size());
        ASSERT_EQ(state().m_wait_size, model.sizes);
        ASSERT_EQ(state().m_wait_finish, model.finish);
        if (!model.waiting.empty()) {
            ASSERT_EQ(state().m_head->m_read - state().m_head->m_data, static_cast<long>(model.offset));
        }
    }

    LogCapture quiet;
    SeededRandom random;
    Model model;
    CSimulatorStream simulator;
    const std::string m_source = text(2000000);
};

TEST_F(StreamSenderModel, StreamAgreesWithTheReference) {
    run(false, 12000);
}

// Within one window of its bandwidth, which is far above what the steps send.
TEST_F(StreamSenderModel, SimulatorAgreesWithTheReference) {
    run(true, 6000);
}

}  // namespace
}  // namespace Orvex::Testing
