// RoomStand: clients that wait for room, and a handler that reads their sockets, in a pool in which nothing
// happens by itself.
#pragma once

#include <map>

#include "Core/service/RoomWatch.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

class RoomStand : public MediaFixture {
protected:
    RoomStand() {
        owner->on_output = [this](int fd) {
            const auto found = senders.find(fd);
            return found != senders.end() ? found->second->handle_output(fd) : 0;
        };
    }
    ~RoomStand() override {
        for (const auto& client : clients) {
            if (buffer) {
                buffer->DelSender(client->sender);
            }
            if (owner != nullptr) {
                owner->RemoveSock(client->sock);
            }
        }
        if (owner != nullptr) {
            rig.close(owner);
        }
    }

    // A client that has joined, is read by the owner, and waits for room from now on.
    MediaClient& waitingClient() {
        MediaClient& made = joinedClient();
        owner->RegisterSock(made.sock, Reticor::SOCK_READ, 0);
        senders[made.sock.GetHandle()] = made.sender;
        EXPECT_EQ(0, made.sender->WaitRoom(owner->GetID()));
        return made;
    }
    // One whose socket took `taken` bytes of a frame of ten, and is full.
    MediaClient& fullClient(std::size_t taken = 4) {
        MediaClient& made = waitingClient();
        made.sock.setRoom(taken);
        put(10, 1, 5);
        EXPECT_EQ(1U, made.sock.calls().size());
        return made;
    }

    bool isWatched(const MediaClient& client) {
        return isWatched(const_cast<MediaClient&>(client).sock.GetHandle());
    }
    bool isWatched(int fd) {
        const Reticor::CEvent* const record = rig.record(fd);
        return record != nullptr && (record->m_event_mask & Reticor::SOCK_WRITE) != 0;
    }
    // The kernel always calls the sockets ready: what is watched is served once.
    void haveRoom() {
        for (Reticor::CEvent* ev : rig.poll()) {
            rig.serve(ev);
        }
    }
    static Reticor::MediaRoomStats roomStats(const MediaClient& client) {
        Reticor::MediaRoomStats stats;
        EXPECT_EQ(0, client.sender->GetRoomStats(&stats, sizeof stats));
        return stats;
    }

    TestHandler* owner = new TestHandler(0);
    std::map<int, Reticor::CMediaStreamSender*> senders;
};

}  // namespace Orvex::Testing
