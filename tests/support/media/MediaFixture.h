// MediaFixture: a buffer, packets that keep book of their release, and clients whose sockets take what the
// test lets them, in a pool in which nothing happens by itself.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>

#include "Core/record/EventFreeList.h"
#include "Tool/media/MediaBufferState.h"
#include "support/core/StillPool.h"
#include "support/media/ShapedStream.h"

namespace Orvex::Testing {

// Lives on after its release, so that a second one shows.
class TestPacket : public Reticor::CMediaPacket {
public:
    TestPacket(int number, std::string bytes, std::vector<int>* released)
        : m_number(number), m_bytes(std::move(bytes)), m_released(released) {}

    int Release() override {
        ++releases;
        m_released->push_back(m_number);
        if (on_release) {
            on_release();
        }
        return 0;
    }
    char* GetBuffer() override {
        ++asked;
        return m_bytes.data();
    }
    const std::string& bytes() const { return m_bytes; }
    int length() const { return static_cast<int>(m_bytes.size()); }

    int releases = 0;
    int asked = 0;
    std::function<void()> on_release;

private:
    const int m_number;
    std::string m_bytes;
    std::vector<int>* m_released;
};

struct MediaClient {
    ShapedStream sock;
    Reticor::CMediaStreamSender* sender = Reticor::CMediaStreamSender::Create();

    MediaClient() { sender->Attach(&sock); }
    Reticor::SenderRecord& state() const { return Reticor::SenderRecord::of(*sender); }
};

// Receiver, number, attachment.
using SentMessage = std::tuple<long, unsigned int, long>;

class MediaFixture : public ::testing::Test {
protected:
    ~MediaFixture() override {
        for (const auto& client : clients) {
            if (buffer) {
                buffer->DelSender(client->sender);
            }
            client->sender->Close();
        }
        buffer.reset();
        serveAll();
        rig.close(waiter);
        for (TestPacket& packet : packets) {
            if (packet.asked != 0 || info.count(&packet) != 0) {
                EXPECT_EQ(1, packet.releases) << "a packet of " << packet.length() << " bytes";
            }
        }
    }

    Reticor::MediaBufferState& state() { return Reticor::MediaBufferState::of(*buffer); }
    Reticor::FrameLine& line() { return state().m_frames; }
    // Looks into a buffer that is at rest need no lock.
    const Reticor::CFrame* head() INFRA_NO_THREAD_SAFETY_ANALYSIS { return line().head(); }
    const Reticor::CFrame* current() INFRA_NO_THREAD_SAFETY_ANALYSIS { return line().current(); }
    uint64_t byteTotal() INFRA_NO_THREAD_SAFETY_ANALYSIS { return state().m_core->m_byte_total; }
    uint64_t byteDiscard() INFRA_NO_THREAD_SAFETY_ANALYSIS { return line().byte_discard(); }
    uint32_t frameNum() INFRA_NO_THREAD_SAFETY_ANALYSIS { return line().frame_num(); }
    int minLevel(int channel) INFRA_NO_THREAD_SAFETY_ANALYSIS { return line().min_level(channel); }
    bool sendReady() INFRA_NO_THREAD_SAFETY_ANALYSIS { return state().m_send_ready; }
    bool hasSender() INFRA_NO_THREAD_SAFETY_ANALYSIS { return state().m_senders.has_sender(); }
    const Reticor::SenderRecord* firstSender() INFRA_NO_THREAD_SAFETY_ANALYSIS {
        return state().m_senders.first();
    }

    TestPacket& packet(std::size_t length) {
        const int number = static_cast<int>(packets.size());
        std::string bytes(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            bytes[i] = static_cast<char>('a' + (static_cast<std::size_t>(number) * 7 + i) % 26);
        }
        packets.emplace_back(number, std::move(bytes), &released);
        return packets.back();
    }

    // Puts a packet and gives its bytes.
    std::string put(std::size_t length, int mark = 1, int level = 1, int channel = 0) {
        TestPacket& made = packet(length);
        EXPECT_EQ(0, buffer->Put(&made, made.length(), mark, Reticor::mediaLevel(channel, level)));
        return made.bytes();
    }
    // A frame of packets with these lengths.
    std::string putFrame(const std::vector<std::size_t>& lengths, int level = 1, int channel = 0) {
        std::string bytes;
        for (std::size_t i = 0; i < lengths.size(); ++i) {
            bytes += put(lengths[i], i + 1 == lengths.size() ? 1 : 0, level, channel);
        }
        return bytes;
    }
    TestPacket& putInfo(int arg) {
        TestPacket& made = packet(1);
        info.insert(&made);
        EXPECT_EQ(0, buffer->PutFrameInfo(&made, arg));
        return made;
    }

    MediaClient& client() {
        clients.push_back(std::make_unique<MediaClient>());
        return *clients.back();
    }
    // A client on the list that has joined: a key frame of 10 bytes went through.
    MediaClient& joinedClient() {
        MediaClient& made = client();
        buffer->AddSender(made.sender);
        put(10);
        EXPECT_EQ(10U, made.sock.wire().size());
        made.sock.clearWire();
        made.sock.clearCalls();
        return made;
    }

    void tick(int times = 1) {
        for (int i = 0; i < times; ++i) {
            buffer->do_send();
        }
    }

    std::vector<SentMessage> messages() {
        std::vector<SentMessage> found;
        for (Reticor::CEvent* ev : rig.takeQueue()) {
            if (ev->m_key == Reticor::EVENT_KEY_MESSAGE) {
                found.emplace_back(static_cast<long>(ev->m_receiver), ev->m_msg,
                                   static_cast<long>(ev->m_attach));
            }
            Reticor::put_event(ev);
        }
        return found;
    }
    void serveAll() {
        for (Reticor::CEvent* ev : rig.takeQueue()) {
            rig.serve(ev);
        }
    }

    // Frames of the list, the one that is being filled included.
    unsigned frames() {
        unsigned count = 0;
        for (const Reticor::CFrame* frame = head(); frame != nullptr; frame = frame->m_next) {
            ++count;
        }
        EXPECT_EQ(count, frameNum());
        return count;
    }

    StillPool rig{0};
    std::deque<TestPacket> packets;
    std::set<const TestPacket*> info;
    std::vector<int> released;  // numbers of packets, in the order of their release
    std::vector<std::unique_ptr<MediaClient>> clients;
    TestHandler* waiter = new TestHandler(0);
    std::unique_ptr<Reticor::CMediaBuffer> buffer = std::make_unique<Reticor::CMediaBuffer>();
};

}  // namespace Orvex::Testing
