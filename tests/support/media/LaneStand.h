// LaneStand: lanes with pools of their own, packets that count on any thread, and clients whose sockets take
// what the test lets them.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <Reticor/MediaLanes.h>
#include <Reticor/MediaStreamSender.h>

#include "Tool/lane/MediaLanesState.h"
#include "support/PoolFixture.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

class SharedPacket : public Reticor::CMediaPacket {
public:
    explicit SharedPacket(std::string bytes) : m_bytes(std::move(bytes)) {}
    int Release() override {
        ++releases;
        return 0;
    }
    char* GetBuffer() override {
        ++asked;
        return m_bytes.data();
    }
    const std::string& bytes() const { return m_bytes; }
    int length() const { return static_cast<int>(m_bytes.size()); }

    std::atomic<int> releases{0};
    std::atomic<int> asked{0};

private:
    std::string m_bytes;
};

class LaneStand : public PoolFixture {
protected:
    void TearDown() override {
        for (const auto& client : clients) {
            lanes.DelSender(client->sender);
            client->sender->Close();
        }
        lanes.Destroy();
        for (const SharedPacket& packet : packets) {
            EXPECT_EQ(packet.asked != 0 || isInfo(packet) ? 1 : 0, packet.releases) << packet.length();
            EXPECT_LE(packet.asked, 1);
        }
        PoolFixture::TearDown();
    }

    void open(unsigned int count) { ASSERT_EQ(0, lanes.Create(count, 1)); }
    // What waits is in the buffers after this, and no worker is on its way with a frame.
    void settle() {
        Reticor::MediaLanesState::of(lanes).for_each([](Reticor::Lane& lane) {
            while (lane.serve(64)) {
            }
        });
    }

    SharedPacket& packet(size_t length) {
        const size_t number = packets.size();
        std::string bytes(length, '\0');
        for (size_t i = 0; i < length; ++i) {
            bytes[i] = static_cast<char>('a' + (number * 7 + i) % 26);
        }
        packets.emplace_back(std::move(bytes));
        return packets.back();
    }
    // Puts a packet, and gives its bytes.
    std::string put(size_t length, int level = 1, int mark = Reticor::MEDIA_MARK_LAST, int channel = 0) {
        SharedPacket& made = packet(length);
        EXPECT_EQ(0, lanes.Put(&made, made.length(), mark, Reticor::mediaLevel(channel, level)));
        return made.bytes();
    }
    // The same, and all lanes have it.
    std::string send(size_t length, int level = 1) {
        std::string bytes = put(length, level);
        settle();
        return bytes;
    }
    SharedPacket& putInfo(int arg) {
        SharedPacket& made = packet(1);
        infos.push_back(&made);
        EXPECT_EQ(0, lanes.PutFrameInfo(&made, arg));
        return made;
    }
    bool isInfo(const SharedPacket& packet) const {
        return std::find(infos.begin(), infos.end(), &packet) != infos.end();
    }

    // A client on that lane.
    MediaClient& client(unsigned int lane) {
        clients.push_back(std::make_unique<MediaClient>());
        Reticor::MediaLanesState::of(lanes).add_sender(*clients.back()->sender, lane);
        return *clients.back();
    }
    // Packets that the lanes have ever made for themselves.
    uint64_t made() {
        Reticor::MediaLanesState& state = Reticor::MediaLanesState::of(lanes);
        const Reticor::CoreGuard guard(*state.m_core);
        return state.m_feed.made();
    }
    Reticor::MediaLanesStats stats(int lane = -1) {
        Reticor::MediaLanesStats found;
        EXPECT_EQ(0, lanes.GetStats(&found, sizeof found, lane));
        return found;
    }

    std::deque<SharedPacket> packets;
    std::vector<const SharedPacket*> infos;
    Reticor::CMediaLanes lanes;
    std::vector<std::unique_ptr<MediaClient>> clients;
};

}  // namespace Orvex::Testing
