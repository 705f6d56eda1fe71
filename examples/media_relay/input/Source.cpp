// Source: its place in the roster, and its clock.

#include "media_relay/input/Source.h"

#include "media_relay/Member.h"

namespace relay {

using namespace Orvex::Reticor;

Source::Source(Roster& roster, SourceListener& listener) : m_roster(roster), m_listener(listener) {
    SetReceiveMode(receiver_passive);
    m_roster.enter(GetID());
}

int Source::handle_close(CNetHandler* self) {
    Roster& roster = m_roster;
    const long id = GetID();
    delete self;
    roster.leave(id);
    return 0;
}

int Source::handle_message(long, unsigned int msg, long) {
    if (msg == kStop) {
        Close();
    }
    return 0;
}

void Source::start(double speed) {
    m_speed = static_cast<float>(speed);
    play();
}

void Source::restartClock() {
    StopReceive();
    play();
}

void Source::play() {
    if (StartReceive(0, m_speed) != 0) {
        end("the input cannot be played, its receiver was not started");
    }
}

void Source::end(const std::string& error) {
    if (!m_ended) {
        m_ended = true;
        m_listener.onSourceEnd(error);
    }
}

}  // namespace relay
