// Member: a handler that the roster knows.
#pragma once

#include <Reticor/NetHandler.h>
#include <Reticor/SockStream.h>

#include "media_relay/Roster.h"
#include "media_relay/http/Door.h"

namespace relay {

constexpr unsigned kStop = 100;  // message to a Member: end

constexpr int NOTICE = 1;  // level of lines that are printed whatever the level of the log is

/// A handler that is in the roster from `enter` until it is gone.
class Member : public Orvex::Reticor::CNetHandler {
public:
    int handle_close(Orvex::Reticor::CNetHandler* self) override {
        Roster& roster = m_roster;
        const long id = GetID();
        delete self;
        roster.leave(id);
        return 0;
    }

protected:
    /// On the pool with that index; 0 is the public one.
    explicit Member(Roster& roster, int pool = 0) : CNetHandler(pool), m_roster(roster) {}
    void enter() { m_roster.enter(GetID()); }
    void enter(const Orvex::Reticor::CSockStream& peer) { m_roster.enter(GetID(), originOf(peer)); }

    Roster& m_roster;
};

}  // namespace relay
