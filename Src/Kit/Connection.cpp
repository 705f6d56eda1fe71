// Connection: the face of ConnectionBody.
#include <Reticor/kit/Connection.h>

#include <utility>

#include <Infra/Log.h>

#include "Kit/ConnectionBody.h"
#include "Kit/PoolState.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

const char* toText(CloseReason reason) noexcept {
    switch (reason) {
        case CloseReason::CLOSED:
            return "CLOSED";
        case CloseReason::ABORTED:
            return "ABORTED";
        case CloseReason::PEER_CLOSED:
            return "PEER_CLOSED";
        case CloseReason::PEER_LOST:
            return "PEER_LOST";
        case CloseReason::IDLE:
            return "IDLE";
        case CloseReason::STALLED:
            return "STALLED";
        case CloseReason::OVERFLOW:
            return "OVERFLOW";
        case CloseReason::FAILED:
            return "FAILED";
    }
    return "?";
}

Connection& Connection::operator=(Connection&& other) noexcept {
    std::swap(m_body, other.m_body);
    Connection before(std::move(other));
    return *this;
}

Connection::~Connection() {
    if (m_body != nullptr) {
        m_body->DecRef();
    }
}

Connection Connection::adopt(Pool& pool, int descriptor, const ConnectionOptions& options, Event start) {
    PoolState* const state = PoolState::of(pool);
    ConnectionBody* body = nullptr;
    if (state != nullptr && start) {
        body = ConnectionBody::make(*state, descriptor, options, nullptr, false);
    } else {
        CSockStream closing;
        closing.Attach(descriptor);
    }
    if (body == nullptr) {
        INFRA_LOG_STATIC(
            2, "descriptor %d is closed: no call-back, no pool that takes connections, or no place\n",
            descriptor);
        return {};
    }
    Connection connection(body);
    body->start_there(std::move(start));
    return connection;
}

Connection Connection::share() const noexcept {
    if (m_body != nullptr) {
        m_body->AddRef();
    }
    return Connection(m_body);
}

bool Connection::isOpen() const noexcept {
    return m_body != nullptr && m_body->is_open();
}

void Connection::onInput(Input call) {
    if (m_body != nullptr) {
        m_body->set_input(std::move(call));
    }
}

void Connection::onEnd(Event call) {
    if (m_body != nullptr) {
        m_body->set_end(std::move(call));
    }
}

void Connection::onDrained(Event call) {
    if (m_body != nullptr) {
        m_body->set_drained(std::move(call));
    }
}

void Connection::onClose(Closed call) {
    if (m_body != nullptr) {
        m_body->set_closed(std::move(call));
    }
}

bool Connection::write(std::string_view bytes) {
    return m_body != nullptr && m_body->write(&bytes, 1);
}

bool Connection::write(std::initializer_list<std::string_view> pieces) {
    return m_body != nullptr && m_body->write(pieces.begin(), pieces.size());
}

bool Connection::write(const std::string_view* pieces, size_t count) {
    return m_body != nullptr && m_body->write(pieces, count);
}

size_t Connection::waiting() const noexcept {
    return m_body != nullptr ? m_body->waiting() : 0;
}

uint64_t Connection::dropped() const noexcept {
    return m_body != nullptr ? m_body->dropped() : 0;
}

void Connection::whenRoom(Room call) {
    if (m_body != nullptr && call) {
        m_body->when_room(std::move(call));
    } else if (call) {
        call(*this, false);
    }
}

bool Connection::finish() {
    return m_body != nullptr && m_body->finish();
}

void Connection::pause() {
    if (m_body != nullptr) {
        m_body->pause(true);
    }
}

void Connection::resume() {
    if (m_body != nullptr) {
        m_body->pause(false);
    }
}

void Connection::readOnce(Input call) {
    if (m_body != nullptr && call) {
        m_body->read_once(std::move(call));
    } else if (call) {
        call(*this, {});
    }
}

bool Connection::post(Event call) {
    return m_body != nullptr && m_body->post(call);
}

bool Connection::after(std::chrono::microseconds delay, Event call) {
    return m_body != nullptr && m_body->after(delay.count(), call);
}

bool Connection::isInside() const noexcept {
    return m_body != nullptr && m_body->is_inside();
}

void Connection::close() {
    if (m_body != nullptr) {
        m_body->close(CloseReason::CLOSED);
    }
}

void Connection::abort() {
    if (m_body != nullptr) {
        m_body->abort(CloseReason::ABORTED);
    }
}

size_t Connection::peer(char* text, size_t size) const noexcept {
    return m_body != nullptr ? m_body->peer(text, size) : 0;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
