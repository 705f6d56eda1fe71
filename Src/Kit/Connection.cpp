// Connection: the face of ConnectionBody.
#include <Reticor/kit/Connection.h>

#include <sys/socket.h>

#include <utility>

#include <Infra/Log.h>

#include "Kit/ConnectionBody.h"
#include "Kit/PoolState.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

namespace {

size_t total(const std::string_view* pieces, size_t count) {
    size_t sum = 0;
    for (size_t i = 0; i < count; ++i) {
        sum += pieces[i].size();
    }
    return sum;
}

}  // namespace

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
    Connection connection = ConnectionBody::refer(body);
    body->start_there(std::move(start));
    return connection;
}

Connection Connection::share() const noexcept {
    if (m_handler != nullptr) {
        m_handler->AddRef();
    }
    return ConnectionBody::refer(ConnectionBody::of(*this));
}

bool Connection::isOpen() const noexcept {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->is_open();
}

void Connection::onInput(Input call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->set_input(std::move(call));
    }
}

void Connection::onEnd(Event call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->set_end(std::move(call));
    }
}

void Connection::onDrained(Event call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->set_drained(std::move(call));
    }
}

void Connection::onClose(Closed call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->set_closed(std::move(call));
    }
}

bool Connection::write(std::string_view bytes) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->write(bytes);
}

bool Connection::write(std::initializer_list<std::string_view> pieces) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr &&
           body->write(pieces.begin(), pieces.size(), total(pieces.begin(), pieces.size()));
}

bool Connection::write(const std::string_view* pieces, size_t count) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->write(pieces, count, total(pieces, count));
}

size_t Connection::waiting() const noexcept {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr ? body->waiting() : 0;
}

uint64_t Connection::dropped() const noexcept {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr ? body->dropped() : 0;
}

void Connection::whenRoom(Room call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr && call) {
        body->when_room(std::move(call));
    } else if (call) {
        call(*this, false);
    }
}

bool Connection::finish() {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->finish();
}

void Connection::pause() {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->pause(true);
    }
}

void Connection::resume() {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->pause(false);
    }
}

void Connection::readByAsking() {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->read_by_asking();
    }
}

void Connection::readOnce(Input call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr && call) {
        body->read_once(call);
    } else if (call) {
        call(*this, {});
    }
}

void Connection::readOnce(Reader& reader) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->read_once(reader);
    } else {
        reader.answer(reader, {});
    }
}

bool Connection::post(Event call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->post(call);
}

bool Connection::after(std::chrono::microseconds delay, Event call) {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->after(delay.count(), call);
}

bool Connection::isInside() const noexcept {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr && body->is_inside();
}

void Connection::close() {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->close(CloseReason::CLOSED);
    }
}

void Connection::abort() {
    ConnectionBody* const body = ConnectionBody::of(*this);
    if (body != nullptr) {
        body->abort(CloseReason::ABORTED);
    }
}

size_t Connection::peer(char* text, size_t size) const noexcept {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr ? body->address(getpeername, text, size) : 0;
}

size_t Connection::local(char* text, size_t size) const noexcept {
    ConnectionBody* const body = ConnectionBody::of(*this);
    return body != nullptr ? body->address(getsockname, text, size) : 0;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
