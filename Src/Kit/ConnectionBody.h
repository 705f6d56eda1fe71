// ConnectionBody: what a Connection refers to: a socket, what waits to be sent, and the calls.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/SockStream.h>
#include <Reticor/kit/Connection.h>

#include "Kit/ConnectionOutput.h"
#include "Kit/PoolState.h"
#include "Kit/call/ConnectionMail.h"
#include "Kit/call/SerialWord.h"
#include "Kit/call/UserCall.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Who wants to hear that a connection is gone.
class ConnectionKeeper {
public:
    /// On a worker, once, when `onClose` has returned.
    virtual void gone(ConnectionBody& body) = 0;

protected:
    ~ConnectionKeeper() = default;
};

/// Two ways to keep things apart. The word is for calls: whoever holds it is the one that calls the user,
/// reads, and ends the connection. The mutex is short and guards the descriptor's number and the output; it
/// is never held in a call of the user's. The descriptor is closed under both.
class ConnectionBody final : public Member {
public:
    /// A connection on `descriptor`, which is closed if there is none to be had; the result has a reference
    /// for the caller. With `held` the caller holds the word, and calls `start_here`.
    static ConnectionBody* make(PoolState& pool, int descriptor, const ConnectionOptions& options,
                                ConnectionKeeper* keeper, bool held);

    ConnectionBody(PoolState& pool, const ConnectionOptions& options, ConnectionKeeper* keeper, bool held);
    ~ConnectionBody() override;

    /// Sets the call-backs by `start` and begins to listen: here, on a worker, or by a message.
    void start_here(Connection::Event& start);
    void start_there(Connection::Event start);

    /// The step between a reference and what it is of; the reference becomes the result's.
    static Connection refer(ConnectionBody* body) {
        Connection connection;
        connection.m_handler = body;
        return connection;
    }
    static ConnectionBody* of(const Connection& connection) {
        return static_cast<ConnectionBody*>(connection.m_handler);
    }

    // What Connection offers.
    void set_input(Connection::Input call);
    void set_end(Connection::Event call);
    void set_drained(Connection::Event call);
    void set_closed(Connection::Closed call);
    bool write(std::string_view bytes);
    bool write(const std::string_view* pieces, size_t count, size_t total);
    size_t waiting();
    uint64_t dropped() const { return m_dropped.load(std::memory_order_relaxed); }
    void when_room(Connection::Room call);
    bool finish();
    void pause(bool on);
    void read_by_asking();
    void read_once(Connection::Input& call);
    void read_once(Connection::Reader& reader);
    bool post(Connection::Event& call);
    bool after(int64_t delay_us, Connection::Event& call);
    bool is_inside() const;
    bool is_open() const { return m_open.load(std::memory_order_acquire); }
    void close(CloseReason reason);
    bool abort(CloseReason reason);
    /// getpeername(2) or getsockname(2).
    using AskAddress = int (*)(int descriptor, sockaddr* address, socklen_t* length);
    size_t address(AskAddress ask, char* text, size_t size);

    /// What the keeper keeps here.
    std::string& origin() { return m_origin; }

    const char* kind() const override { return "Connection"; }
    void drain() override { close(CloseReason::CLOSED); }
    bool cut() override { return abort(CloseReason::ABORTED); }

    int handle_input(int fd) override;
    int handle_output(int fd) override;
    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    // Bits of the word.
    static constexpr uint32_t START = SerialWord::FIRST_BIT;
    static constexpr uint32_t INPUT = START << 1;    ///< Input came while the word was held.
    static constexpr uint32_t MAIL = START << 2;     ///< Something was posted.
    static constexpr uint32_t DRAINED = START << 3;  ///< Nothing waits any more.
    static constexpr uint32_t END = START << 4;      ///< It is over.
    static constexpr uint32_t ROOM = START << 5;     ///< Whoever waits for room may have it.

    // Reasons not to read; nothing is registered for reading while there is one.
    static constexpr uint8_t HOLD_START = 1;
    static constexpr uint8_t HOLD_USER = 2;
    static constexpr uint8_t HOLD_BUSY = 4;     ///< The word was held when input came.
    static constexpr uint8_t HOLD_OUTPUT = 8;   ///< Too much waits to be sent.
    static constexpr uint8_t HOLD_DEMAND = 16;  ///< Nobody asks.
    static constexpr uint8_t HOLD_END = 32;     ///< No more will be read.
    static constexpr uint8_t REASONS = 63;
    // In the same word, so that the way of most connections asks once.
    static constexpr uint8_t MODE_PULL = 64;   ///< Input is asked for.
    static constexpr uint8_t MODE_IDLE = 128;  ///< There is an idle time-out.

    /// Asks for a lambda.
    struct FunctionReader : Connection::Reader {
        explicit FunctionReader(ConnectionBody& of);
        ConnectionBody& body;
    };

    // By the holder of the word.
    void run();
    void serve(uint32_t bits);
    __attribute__((noinline)) void serve_all(uint32_t bits);
    void begin();
    __attribute__((noinline)) int come_later();
    __attribute__((noinline)) void input_by_mode();
    __attribute__((noinline)) void nothing_read(int error);
    void input_ended();
    void run_mail();
    void tell_room();
    void finalize();
    void leave_at_last(std::vector<ConnectionMail::Delayed>& delayed);
    void answer_reader(std::string_view bytes);
    bool may_ask() const;
    template <typename Mark = UserCall, typename Call>
    void call(Call&& call);
    __attribute__((noinline)) void find_self();
    template <typename Call>
    void set(Call ConnectionBody::*place, Call& call);

    // Under the mutex.
    void hold(uint8_t why) INFRA_REQUIRES(m_mutex);
    void release(uint8_t why) INFRA_REQUIRES(m_mutex);
    bool follow(ConnectionOutput::Written written) INFRA_REQUIRES(m_mutex);
    uint32_t drained() INFRA_REQUIRES(m_mutex);
    void end(CloseReason reason) INFRA_REQUIRES(m_mutex);
    int64_t watch_idle() INFRA_REQUIRES(m_mutex);
    int64_t watch_age() INFRA_REQUIRES(m_mutex);

    void ring(uint32_t bits);
    void touch();

    PoolState& m_pool;  ///< Until it leaves.
    const ConnectionOptions m_options;
    ConnectionKeeper* const m_keeper;
    std::string m_origin;

    SerialWord m_word;
    std::atomic<uint8_t> m_hold{HOLD_START};  ///< Written under the mutex.
    std::atomic<bool> m_open{true};           ///< Written under the mutex: false once it closes.
    std::atomic<uint64_t> m_activity_us{0};   ///< Of the input, if there is an idle time-out.
    std::atomic<uint64_t> m_dropped{0};

    // The holder's.
    bool m_over = false;   ///< The word is never left any more.
    bool m_ended = false;  ///< The peer has ended its direction.
    Connection m_self;     ///< What call-backs are given.
    Connection::Input m_input;
    Connection::Input m_question;            ///< What a lambda is asked for by,
    Connection::Reader* m_reader = nullptr;  ///< and by an object; both answers to one.
    FunctionReader m_by_lambda{*this};
    Connection::Event m_end;
    Connection::Event m_on_drained;
    Connection::Closed m_closed;
    Connection::Event m_start;

    Infra::CMutex m_mutex{Infra::LockClass::KIT_CONNECTION};
    CSockStream m_sock INFRA_GUARDED_BY(m_mutex);  ///< Its number the holder may use as well.
    ConnectionOutput m_output INFRA_GUARDED_BY(m_mutex){m_options};
    bool m_cut INFRA_GUARDED_BY(m_mutex) = false;     ///< END is on its way.
    bool m_sealed INFRA_GUARDED_BY(m_mutex) = false;  ///< No more mail.
    CloseReason m_reason INFRA_GUARDED_BY(m_mutex) = CloseReason::CLOSED;
    long m_idle_timer INFRA_GUARDED_BY(m_mutex) = -1;
    long m_age_timer INFRA_GUARDED_BY(m_mutex) = -1;
    Connection::Room m_room INFRA_GUARDED_BY(m_mutex);
    ConnectionMail m_mail INFRA_GUARDED_BY(m_mutex);
    std::vector<Connection::Event> m_mail_served;  ///< The holder's; takes turns with the other.
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
