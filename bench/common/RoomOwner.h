// RoomOwner: the handler of a viewer whose sender waits for room.
#pragma once

#include <Reticor/MediaStreamSender.h>
#include <Reticor/NetHandler.h>

namespace Bench {

/// The viewer sends nothing, so nothing is read.
class RoomOwner : public Orvex::Reticor::CNetHandler {
public:
    /// Registers `sock` and has `sender`, which is attached to it, wait. Null if that cannot be.
    static RoomOwner* create(Orvex::Reticor::CMediaStreamSender& sender, Orvex::Reticor::CSock& sock) {
        auto* const owner = new RoomOwner(sender);
        if (owner->RegisterSock(sock, Orvex::Reticor::SOCK_READ, 0) != 0 ||
            sender.WaitRoom(owner->GetID()) != 0) {
            owner->Close();
            return nullptr;
        }
        return owner;
    }
    /// After the sender has left its list, and before the socket is closed.
    void end(Orvex::Reticor::CSock& sock) {
        RemoveSock(sock);
        Close();
    }

    int handle_input(int) override { return 0; }
    int handle_output(int handle) override { return m_sender.handle_output(handle); }
    int handle_close(CNetHandler* self) override {
        m_sender.DecRef();
        delete self;
        return 0;
    }

private:
    explicit RoomOwner(Orvex::Reticor::CMediaStreamSender& sender) : m_sender(sender) { m_sender.AddRef(); }

    Orvex::Reticor::CMediaStreamSender& m_sender;
};

}  // namespace Bench
