// ConnectionBody: the calls for a connection, one at a time, from its start to its end.
#include "Kit/ConnectionBody.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <Infra/Log.h>
#include <Infra/Time.h>

#include "Kit/SocketText.h"
#include "Kit/call/DelayedCall.h"
#include "Kit/call/UserCall.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

using Infra::CGuard;

namespace {

constexpr size_t INPUT_ROOM = 16384;
constexpr size_t MOST_SPARE_MAIL = 64;  ///< Room that an idle connection keeps for mail.

uint64_t now_us() {
    return Infra::CTime::getCurrentMicroSecond();
}

}  // namespace

// ---- begin ---------------------------------------------------------------------------------------------

ConnectionBody* ConnectionBody::make(PoolState& pool, int descriptor, const ConnectionOptions& options,
                                     ConnectionKeeper* keeper, bool held) {
    CSockStream sock;
    sock.Attach(descriptor);  // closes it if there is no body
    if (!pool.take_place()) {
        return nullptr;
    }
    ConnectionBody* const body = pool.make<ConnectionBody>(options, keeper, held);
    if (body == nullptr) {
        pool.give_place();
        return nullptr;
    }
    if (options.no_delay) {
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    CGuard guard(body->m_mutex);
    body->m_sock.Attach(sock.Detach());
    body->m_output.open(descriptor);
    return body;
}

ConnectionBody::ConnectionBody(PoolState& pool, const ConnectionOptions& options, ConnectionKeeper* keeper,
                               bool held)
    : Member(pool), m_pool(pool), m_options(options), m_keeper(keeper), m_word(held) {
    if (options.idle_timeout.count() > 0) {
        m_hold.fetch_or(MODE_IDLE, std::memory_order_relaxed);
    }
}

ConnectionBody::~ConnectionBody() = default;

void ConnectionBody::start_here(Connection::Event& start) {
    call([&](Connection& self) { start(self); });
    begin();
    run();
}

void ConnectionBody::start_there(Connection::Event start) {
    m_start = std::move(start);
    ring(START);
}

void ConnectionBody::begin() {
    CGuard guard(m_mutex);
    if (m_options.idle_timeout.count() > 0 && !m_cut) {
        touch();
        m_idle_timer = SetTimer(clamp_delay(m_options.idle_timeout.count()));
        if (m_idle_timer == -1) {
            end(CloseReason::ABORTED);
        }
    }
    release(HOLD_START);
}

// ---- the word ------------------------------------------------------------------------------------------

void ConnectionBody::ring(uint32_t bits) {
    if (m_word.signal(bits)) {
        tell_self(1);
    }
}

void ConnectionBody::run() {
    while (!m_over) {
        const uint32_t bits = m_word.leave();
        if (bits == 0) {
            return;
        }
        serve(bits);
    }
}

void ConnectionBody::serve_all(uint32_t bits) {
    serve(bits);
    run();
}

void ConnectionBody::serve(uint32_t bits) {
    if ((bits & START) != 0) {
        Connection::Event start = std::move(m_start);
        call([&](Connection& self) { start(self); });
        begin();
    }
    if ((bits & MAIL) != 0) {
        run_mail();
    }
    if ((bits & ROOM) != 0) {
        tell_room();
    }
    if ((bits & DRAINED) != 0 && m_on_drained) {
        call([this](Connection& self) { m_on_drained(self); });
    }
    if ((bits & END) != 0) {
        finalize();
    } else if ((bits & INPUT) != 0) {
        CGuard guard(m_mutex);
        release(HOLD_BUSY);  // the input is still there, and the pool calls again
    }
}

template <typename Mark, typename Call>
inline void ConnectionBody::call(Call&& call) {
    if (__builtin_expect(!m_self, 0)) {
        find_self();
    }
    const auto thread_ends = [this] {
        abort(CloseReason::FAILED);
        m_word.abandon();
        ring(END);
    };
    if (!UserCall::run(
            this, kind(), [&] { call(m_self); }, thread_ends)) {
        abort(CloseReason::FAILED);
    }
}

// At the start, and when somebody has moved it away.
void ConnectionBody::find_self() {
    AddRef();
    m_self = refer(this);
}

bool ConnectionBody::is_inside() const {
    return UserCall::owner() == this;
}

int ConnectionBody::handle_message(long, unsigned int, long) {
    if (m_word.enter(0)) {
        run();
    }
    return 0;
}

// ---- call-backs ----------------------------------------------------------------------------------------

// Before the start nothing can be in a call. After it the change is posted: a lambda must not go while it
// runs.
template <typename Call>
void ConnectionBody::set(Call ConnectionBody::*place, Call& call) {
    if (is_inside() && (m_hold.load(std::memory_order_relaxed) & HOLD_START) != 0) {
        this->*place = std::move(call);
        return;
    }
    Connection::Event change = [this, place, call = std::move(call)](Connection&) mutable {
        this->*place = std::move(call);
    };
    if (!post(change)) {
        abort(CloseReason::ABORTED);  // without memory; if it has ended already that does nothing
    }
}

void ConnectionBody::set_input(Connection::Input call) {
    set(&ConnectionBody::m_input, call);
}

void ConnectionBody::set_end(Connection::Event call) {
    set(&ConnectionBody::m_end, call);
}

void ConnectionBody::set_drained(Connection::Event call) {
    set(&ConnectionBody::m_on_drained, call);
}

void ConnectionBody::set_closed(Connection::Closed call) {
    set(&ConnectionBody::m_closed, call);
}

// ---- input ---------------------------------------------------------------------------------------------

// The way of every request: as little as can be stands here, and all else in functions of its own.
int ConnectionBody::handle_input(int) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    if (!m_word.enter_free()) {
        return come_later();
    }
    const uint8_t mode = m_hold.load(std::memory_order_relaxed);
    if (mode == 0 || (mode == MODE_PULL && m_reader != nullptr)) {
        char buffer[INPUT_ROOM];
        // Only the holder of the word closes the descriptor.
        const ssize_t got = ::recv(m_sock.GetHandle(), buffer, sizeof buffer, MSG_DONTWAIT);
        const std::string_view bytes(buffer, static_cast<size_t>(got));
        if (got <= 0) {
            nothing_read(got == 0 ? 0 : errno);
        } else if (Connection::Reader* const reader = m_reader) {
            m_reader = nullptr;
            call<UserCall::FromWorker>([&](Connection&) { reader->answer(*reader, bytes); });
        } else if (m_input) {
            call<UserCall::FromWorker>([&](Connection& self) { m_input(self, bytes); });
        }
    } else {
        input_by_mode();
    }
    const uint32_t bits = m_word.leave();
    if (bits != 0) {
        serve_all(bits);
    }
    return 0;
}

// The word is held. Reading is unregistered, or the pool would call again at once; the holder registers it
// anew.
int ConnectionBody::come_later() {
    {
        CGuard guard(m_mutex);
        hold(HOLD_BUSY);
    }
    if (m_word.enter(INPUT)) {
        run();
    }
    return 0;
}

void ConnectionBody::input_by_mode() INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const uint8_t mode = m_hold.load(std::memory_order_relaxed);
    if ((mode & REASONS) != 0) {
        return;  // since the pool was told
    }
    if ((mode & MODE_PULL) != 0 && m_reader == nullptr) {
        CGuard guard(m_mutex);
        hold(HOLD_DEMAND);
        return;
    }
    char buffer[INPUT_ROOM];
    const ssize_t got = ::recv(m_sock.GetHandle(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (got <= 0) {
        nothing_read(got == 0 ? 0 : errno);
        return;
    }
    if ((mode & MODE_IDLE) != 0) {
        touch();
    }
    const std::string_view bytes(buffer, static_cast<size_t>(got));
    if ((mode & MODE_PULL) != 0) {
        Connection::Reader* const reader = std::exchange(m_reader, nullptr);
        call<UserCall::FromWorker>([&](Connection&) { reader->answer(*reader, bytes); });
    } else if (m_input) {
        call<UserCall::FromWorker>([&](Connection& self) { m_input(self, bytes); });
    }
}

void ConnectionBody::nothing_read(int error) {
    if (error == 0) {
        input_ended();
    } else if (error != EAGAIN && error != EINTR) {
        CGuard guard(m_mutex);
        end(CloseReason::PEER_LOST);
    }
}

void ConnectionBody::input_ended() {
    m_ended = true;
    {
        CGuard guard(m_mutex);
        hold(HOLD_END);
    }
    if ((m_hold.load(std::memory_order_relaxed) & MODE_PULL) != 0) {
        answer_reader({});
    } else if (m_end) {
        call([this](Connection& self) { m_end(self); });
    } else {
        close(CloseReason::PEER_CLOSED);
    }
}

void ConnectionBody::answer_reader(std::string_view bytes) {
    if (Connection::Reader* const reader = std::exchange(m_reader, nullptr)) {
        call([&](Connection&) { reader->answer(*reader, bytes); });
    }
}

void ConnectionBody::read_by_asking() {
    if ((m_hold.load(std::memory_order_relaxed) & MODE_PULL) == 0) {
        CGuard guard(m_mutex);
        m_hold.fetch_or(MODE_PULL, std::memory_order_relaxed);
    }
}

void ConnectionBody::read_once(Connection::Reader& reader) {
    if (!is_inside()) {
        Connection::Event ask = [this, &reader](Connection&) { read_once(reader); };
        read_by_asking();
        if (!post(ask)) {
            reader.answer(reader, {});  // it is over
        }
        return;
    }
    if (!may_ask()) {
        call([&](Connection&) { reader.answer(reader, {}); });
        return;
    }
    m_reader = &reader;
    const uint8_t mode = m_hold.load(std::memory_order_relaxed);
    if (mode != MODE_PULL) {
        read_by_asking();
        CGuard guard(m_mutex);
        release(HOLD_DEMAND);
    }
}

bool ConnectionBody::may_ask() const {
    if (m_reader != nullptr) {
        INFRA_LOG(2, "one question for input at a time: the second gets nothing\n");
    }
    return m_reader == nullptr && !m_ended;
}

ConnectionBody::FunctionReader::FunctionReader(ConnectionBody& of) : Connection::Reader{nullptr}, body(of) {
    answer = [](Connection::Reader& self, std::string_view bytes) {
        ConnectionBody& asked = static_cast<FunctionReader&>(self).body;
        Connection::Input question = std::move(asked.m_question);
        question(asked.m_self, bytes);
    };
}

void ConnectionBody::read_once(Connection::Input& question) {
    read_by_asking();
    const bool inside = is_inside();
    if (inside && may_ask()) {
        m_question = std::move(question);
        read_once(m_by_lambda);
        return;
    }
    auto later = [this, inside, question = std::move(question)](Connection& self) mutable {
        !inside&& is_inside() && may_ask() ? read_once(question) : question(self, {});
    };
    Connection::Event ask = std::move(later);  // without memory it is left where it was
    if (!ask || !post(ask)) {
        Connection nobody;  // it is over
        ask ? ask(nobody) : later(nobody);
    }
}

void ConnectionBody::pause(bool on) {
    CGuard guard(m_mutex);
    on ? hold(HOLD_USER) : release(HOLD_USER);
}

void ConnectionBody::hold(uint8_t why) {
    const uint8_t before = m_hold.load(std::memory_order_relaxed);
    m_hold.store(static_cast<uint8_t>(before | why), std::memory_order_relaxed);
    if ((before & REASONS) == 0 && m_sock.IsValid()) {
        UnregisterSock(m_sock, SOCK_READ);
    }
}

void ConnectionBody::release(uint8_t why) {
    const uint8_t before = m_hold.load(std::memory_order_relaxed);
    const uint8_t after = static_cast<uint8_t>(before & ~why);
    m_hold.store(after, std::memory_order_relaxed);
    if ((before & REASONS) != 0 && (after & REASONS) == 0 && m_sock.IsValid() &&
        RegisterSock(m_sock, SOCK_READ, 0) != 0) {
        end(CloseReason::ABORTED);
    }
}

// ---- output --------------------------------------------------------------------------------------------

bool ConnectionBody::write(std::string_view bytes) {
    CGuard guard(m_mutex);
    const ConnectionOutput::Written written = m_output.write(bytes);
    return written == ConnectionOutput::Written::SENT || follow(written);
}

bool ConnectionBody::write(const std::string_view* pieces, size_t count, size_t total) {
    CGuard guard(m_mutex);
    return follow(m_output.write(pieces, count, total));
}

// What a write entails. The result is what the writer is told.
bool ConnectionBody::follow(ConnectionOutput::Written written) {
    using Written = ConnectionOutput::Written;
    switch (written) {
        case Written::SENT:
            return true;
        case Written::BEGINS:
            if (RegisterSock(m_sock, SOCK_WRITE, 0) != 0) {
                end(CloseReason::ABORTED);
                return false;
            }
            if (m_age_timer == -1 && m_options.max_output_age.count() > 0) {
                m_age_timer = SetTimer(clamp_delay(m_options.max_output_age.count()));
                if (m_age_timer == -1) {
                    end(CloseReason::ABORTED);
                    return false;
                }
            }
            [[fallthrough]];
        case Written::WAITS:
            if (m_output.is_crowded()) {
                hold(HOLD_OUTPUT);
            }
            return true;
        case Written::DROPPED:
            m_dropped.fetch_add(1, std::memory_order_relaxed);
            return false;
        case Written::OVERFLOWED:
            end(CloseReason::OVERFLOW);
            return false;
        case Written::LOST:
            end(CloseReason::PEER_LOST);
            return false;
        case Written::NO_MEMORY:
            end(CloseReason::ABORTED);
            return false;
        case Written::REFUSED:
            break;
    }
    return false;
}

int ConnectionBody::handle_output(int) {
    uint32_t bits = 0;
    {
        CGuard guard(m_mutex);
        if (!m_sock.IsValid() || m_cut) {
            return 0;
        }
        switch (m_output.flush()) {
            case ConnectionOutput::Flushed::LOST:
                end(CloseReason::PEER_LOST);
                break;
            case ConnectionOutput::Flushed::ALL:
                bits = drained();
                break;
            case ConnectionOutput::Flushed::EASED:
                release(HOLD_OUTPUT);
                break;
            case ConnectionOutput::Flushed::WAITS:
                break;
        }
    }
    // A loss that was found here is served here too.
    if (m_word.enter(bits)) {
        run();
    }
    return 0;
}

// Nothing waits any more: what has waited for that? The bits are for the word.
uint32_t ConnectionBody::drained() {
    UnregisterSock(m_sock, SOCK_WRITE);
    if (!m_open.load(std::memory_order_relaxed)) {
        end(m_reason);
        return 0;
    }
    m_output.go_on();
    release(HOLD_OUTPUT);
    return m_room ? DRAINED | ROOM : DRAINED;
}

size_t ConnectionBody::waiting() {
    CGuard guard(m_mutex);
    return m_output.waiting();
}

void ConnectionBody::when_room(Connection::Room call) {
    {
        CGuard guard(m_mutex);
        if (!m_sealed) {
            std::swap(m_room, call);
            if (m_output.waiting() == 0) {
                ring(ROOM);
            }
        }
    }
    if (!call) {
        return;
    }
    // One that waited before, or nobody waits for anything any more.
    auto tell = [this, call = std::move(call)](Connection& self) mutable {
        call(self, is_open() && waiting() == 0);
    };
    Connection::Event letter = std::move(tell);  // without memory it is left where it was
    if (!letter || !post(letter)) {
        abort(CloseReason::ABORTED);
        Connection nobody;
        letter ? letter(nobody) : tell(nobody);
    }
}

void ConnectionBody::tell_room() {
    Connection::Room room;
    {
        CGuard guard(m_mutex);
        if (!m_cut && m_output.waiting() == 0) {
            room = std::move(m_room);
        }
    }
    if (room) {
        call([&](Connection& self) { room(self, true); });
    }
}

bool ConnectionBody::finish() {
    CGuard guard(m_mutex);
    return m_output.finish();
}

int64_t ConnectionBody::watch_age() {
    const int64_t left = m_output.age_left(now_us());
    if (left > 0) {
        return clamp_delay(left);
    }
    if (left == 0) {
        end(CloseReason::STALLED);
    }
    return -1;
}

// ---- mail and timers -----------------------------------------------------------------------------------

bool ConnectionBody::post(Connection::Event& call) {
    {
        CGuard guard(m_mutex);
        if (m_sealed || !call || !m_mail.put(call)) {
            return false;
        }
    }
    ring(MAIL);
    return true;
}

void ConnectionBody::run_mail() {
    {
        CGuard guard(m_mutex);
        m_mail.take(m_mail_served);
    }
    for (Connection::Event& letter : m_mail_served) {
        call([&](Connection& self) { letter(self); });
        letter = nullptr;
    }
    m_mail_served.clear();
    if (m_mail_served.capacity() > MOST_SPARE_MAIL) {
        std::vector<Connection::Event>().swap(m_mail_served);
    }
}

bool ConnectionBody::after(int64_t delay_us, Connection::Event& call) {
    CGuard guard(m_mutex);
    if (m_sealed || !call || !m_mail.reserve_delayed()) {
        return false;
    }
    const uint64_t due_us = now_us() + static_cast<uint64_t>(std::max<int64_t>(delay_us, 0));
    const long timer = SetTimer(clamp_delay(delay_us));
    if (timer == -1) {
        return false;
    }
    m_mail.put_delayed(timer, due_us, call);
    return true;
}

int64_t ConnectionBody::handle_timeout(long id) {
    int64_t again = -1;
    bool mail = false;
    {
        CGuard guard(m_mutex);
        if (id == m_idle_timer) {
            again = m_cut ? -1 : watch_idle();
            m_idle_timer = again == -1 ? -1 : id;
        } else if (id == m_age_timer) {
            again = m_cut ? -1 : watch_age();
            m_age_timer = again == -1 ? -1 : id;
        } else {
            const ConnectionMail::RanOut ran_out = m_mail.run_out(id, now_us());
            again = ran_out.again;
            mail = ran_out.has_mail;
        }
    }
    if (m_word.enter(mail ? MAIL : 0)) {
        run();
    }
    return again;
}

int64_t ConnectionBody::watch_idle() {
    const uint64_t last = std::max(m_activity_us.load(std::memory_order_relaxed), m_output.moved_us());
    const uint64_t due = last + static_cast<uint64_t>(m_options.idle_timeout.count());
    const uint64_t now = now_us();
    if (now < due) {
        return clamp_delay(static_cast<int64_t>(due - now));
    }
    end(CloseReason::IDLE);
    return -1;
}

void ConnectionBody::touch() {
    m_activity_us.store(now_us(), std::memory_order_relaxed);
}

// ---- end -----------------------------------------------------------------------------------------------

void ConnectionBody::close(CloseReason reason) {
    CGuard guard(m_mutex);
    if (!m_open.load(std::memory_order_relaxed)) {
        return;
    }
    m_open.store(false, std::memory_order_release);
    m_output.seal();
    m_reason = reason;
    hold(HOLD_END);
    if (m_output.waiting() == 0) {
        end(reason);
    }
}

bool ConnectionBody::abort(CloseReason reason) {
    CGuard guard(m_mutex);
    const bool lost = !m_cut && m_output.waiting() != 0;
    end(reason);
    return lost;
}

void ConnectionBody::end(CloseReason reason) {
    if (m_cut) {
        return;
    }
    m_cut = true;
    m_reason = reason;
    m_open.store(false, std::memory_order_release);
    m_output.seal();
    hold(HOLD_END);
    ring(END);
}

// The last act of the last holder. From here on the word is held for good.
void ConnectionBody::finalize() {
    CloseReason reason;
    Connection::Room room;
    std::vector<ConnectionMail::Delayed> delayed;
    std::array<long, 2> own_timers{};
    {
        CGuard guard(m_mutex);
        m_sealed = true;
        reason = m_reason;
        RemoveSock(m_sock);
        m_sock.Close();
        m_output.clear();
        room = std::move(m_room);
        delayed = m_mail.take_delayed();
        own_timers = {m_idle_timer, m_age_timer};
    }
    for (const long timer : own_timers) {
        if (timer != -1) {
            DestroyTimer(timer);
        }
    }
    for (const ConnectionMail::Delayed& waits : delayed) {
        DestroyTimer(waits.timer);
    }
    struct Leaving {  // also when the thread ends inside one of the last calls
        ~Leaving() { body.leave_at_last(delayed); }
        ConnectionBody& body;
        std::vector<ConnectionMail::Delayed>& delayed;
    };
    const Leaving leaving{*this, delayed};
    m_over = true;
    run_mail();
    m_ended = true;
    answer_reader({});
    if (room) {
        call([&](Connection& self) { room(self, false); });
    }
    if (m_closed) {
        call([&](Connection& self) { m_closed(self, reason); });
    }
}

void ConnectionBody::leave_at_last(std::vector<ConnectionMail::Delayed>& delayed) {
    UserCall::run(
        this, kind(),
        [&] {
            m_input = nullptr;
            m_end = nullptr;
            m_on_drained = nullptr;
            m_closed = nullptr;
            delayed.clear();
        },
        [] {});
    if (m_keeper != nullptr) {
        m_keeper->gone(*this);
    }
    m_pool.give_place();
    leave();
    m_self = Connection();
    Close();
}

size_t ConnectionBody::address(AskAddress ask, char* text, size_t size) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    CGuard guard(m_mutex);
    if (!m_sock.IsValid() || ask(m_sock.GetHandle(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return write_address(nullptr, text, size);
    }
    return write_address(&address, text, size);
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
