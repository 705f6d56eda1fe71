// Coroutines on the kit, where the compiler has those of C++20; nothing is declared where it has not.
#pragma once

#if defined(__cpp_impl_coroutine)

#include <chrono>
#include <coroutine>
#include <deque>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <Infra/CMutex.h>
#include <Infra/Log.h>
#include <Reticor/kit/Connection.h>
#include <Reticor/kit/Pool.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// A coroutine that runs by itself: it begins when it is called, and its frame goes when it ends.
///
///     Kit::Task session(Kit::Connection client) {
///         for (std::string_view bytes; !(bytes = co_await Kit::read(client)).empty();) {
///             co_await Kit::write(client, bytes);
///         }
///     }
///     Kit::Server server([](Kit::Connection& client) { session(client.share()); });
///
/// One whose first parameter is a Connection by value belongs to it: its input waits until the coroutine
/// reads (`Connection::readByAsking`), so that nothing is lost; when it returns the connection is closed; and
/// when it throws the connection ends with CloseReason::FAILED, with a line at level 2. One without a
/// connection throws into a line.
///
/// It is cancelled by closing what it waits for: everything that waits on a connection comes back when that
/// ends, and says so by its result. It goes on where it was resumed: on the pool of the connection or of
/// the timer that it waited for, inside a call of that connection. Nothing is allocated beyond its frame;
/// without memory for that it does not begin.
class Task {
public:
    /// What the compiler asks for.
    class promise_type {
    public:
        /// Of a coroutine without a connection.
        promise_type() noexcept = default;
        /// Of a function, and of a member function or a lambda, whose first parameter is a connection.
        template <typename... Others>
        explicit promise_type(Connection& connection, Others&...) : m_connection(&connection) {
            connection.readByAsking();
        }
        /// See above.
        template <typename Object, typename... Others>
        requires(!std::is_same_v<Object, Connection>)
            promise_type(Object&, Connection& connection, Others&...)
            : m_connection(&connection) {
            connection.readByAsking();
        }

        /// There is nothing to keep of it.
        Task get_return_object() noexcept { return {}; }
        /// Without memory for the frame.
        static Task get_return_object_on_allocation_failure() noexcept { return {}; }
        /// It begins at once.
        std::suspend_never initial_suspend() noexcept { return {}; }
        /// The frame goes at once.
        std::suspend_never final_suspend() noexcept { return {}; }
        /// Closes the connection that it belongs to.
        void return_void() {
            if (m_connection != nullptr) {
                m_connection->close();
            }
        }
        /// Hands the exception to the connection, which ends by it.
        void unhandled_exception() {
            const std::exception_ptr what = std::current_exception();
            if (m_connection == nullptr ||
                !m_connection->post([what](Connection&) { std::rethrow_exception(what); })) {
                INFRA_LOG_STATIC(2, "a coroutine has thrown, and nothing ends by that\n");
            }
        }

    private:
        Connection* m_connection = nullptr;  ///< In the frame.
    };
};

namespace Detail {

/// Resumes a coroutine once: when it is told to, or when it goes, since what it was to wait for has gone.
class Wake {
public:
    explicit Wake(std::coroutine_handle<> waiting) noexcept : m_waiting(waiting) {}
    Wake(Wake&& other) noexcept : m_waiting(std::exchange(other.m_waiting, nullptr)) {}
    Wake& operator=(Wake&&) = delete;
    ~Wake() { now(); }

    /// The last act of its caller: what the coroutine held may be gone when this returns.
    void now() {
        if (const std::coroutine_handle<> waiting = std::exchange(m_waiting, nullptr)) {
            waiting.resume();
        }
    }

private:
    std::coroutine_handle<> m_waiting;
};

/// What `read` gives.
class Read : Connection::Reader {
public:
    explicit Read(Connection& connection) noexcept : Reader{&resume}, m_connection(connection) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        m_waiting = waiting;
        m_connection.readOnce(*this);  // from here on the frame may be gone
    }
    std::string_view await_resume() const noexcept { return m_bytes; }

private:
    static void resume(Reader& self, std::string_view bytes) {
        Read& mine = static_cast<Read&>(self);
        mine.m_bytes = bytes;
        mine.m_waiting.resume();
    }

    Connection& m_connection;
    std::coroutine_handle<> m_waiting;
    std::string_view m_bytes;
};

/// What `write` gives.
class Write {
public:
    Write(Connection& connection, std::string_view bytes) noexcept
        : m_connection(connection), m_bytes(bytes) {}
    bool await_ready() {
        m_taken = m_connection.write(m_bytes);
        return m_taken || !m_connection.isOpen();
    }
    void await_suspend(std::coroutine_handle<> waiting) {
        m_kept = std::make_unique<std::string>(m_bytes);  // a view of what was read ends here
        m_connection.whenRoom([this, wake = Wake(waiting)](Connection& connection, bool open) mutable {
            m_taken = open && connection.write(*m_kept);
            wake.now();
        });
    }
    bool await_resume() const noexcept { return m_taken; }

private:
    Connection& m_connection;
    std::string_view m_bytes;
    std::unique_ptr<std::string> m_kept;
    bool m_taken = false;
};

/// What `sleep` gives.
class Sleep {
public:
    Sleep(Connection& connection, std::chrono::microseconds time) noexcept
        : m_connection(connection), m_time(time) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        m_connection.after(m_time, [this, wake = Wake(waiting)](Connection&) mutable {
            m_over = true;
            wake.now();
        });
    }
    bool await_resume() const noexcept { return m_over; }

private:
    Connection& m_connection;
    const std::chrono::microseconds m_time;
    bool m_over = false;
};

/// What `resumeOn` gives.
class ResumeOn {
public:
    explicit ResumeOn(Pool& pool) noexcept : m_pool(pool) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        m_pool.post([this, wake = Wake(waiting)]() mutable {
            m_there = true;
            wake.now();
        });
    }
    bool await_resume() const noexcept { return m_there; }

private:
    Pool& m_pool;
    bool m_there = false;
};

}  // namespace Detail

/// `co_await read(connection)`: the next bytes, which are good until the coroutine waits for anything again;
/// an empty view when no more will come. One reader at a time.
inline Detail::Read read(Connection& connection) noexcept {
    return Detail::Read(connection);
}

/// `co_await write(connection, bytes)`: waits until they fit beside what waits to be sent. True once they are
/// taken; false if the connection has ended, or they never fit (`ConnectionOptions::max_output`).
inline Detail::Write write(Connection& connection, std::string_view bytes) noexcept {
    return Detail::Write(connection, bytes);
}

/// `co_await sleep(connection, time)`: true after that time, to within 5 ms; false if the connection has
/// ended.
inline Detail::Sleep sleep(Connection& connection, std::chrono::microseconds time) noexcept {
    return Detail::Sleep(connection, time);
}

/// `co_await resumeOn(pool)`: goes on as a posted call of that pool, outside of all connections' calls.
/// False, on whatever thread, if the pool is stopping. What is read or written after that comes back inside
/// a call of the connection again.
inline Detail::ResumeOn resumeOn(Pool& pool) noexcept {
    return Detail::ResumeOn(pool);
}

/// Connections for a coroutine that asks for them one by one:
///
///     Kit::Clients clients;
///     Kit::Server server(clients.start());
///     ...
///     while (Kit::Connection client = co_await clients.accept()) { session(std::move(client)); }
///
/// A connection that nobody has asked for yet is not read. When the server has gone, `accept` gives an
/// empty one; the coroutine goes on on the thread that destroys the server.
///
/// Thread safety: `start` once. One coroutine at a time asks.
class Clients {
    struct Line {
        Infra::CMutex mutex;
        std::deque<Connection> come INFRA_GUARDED_BY(mutex);
        std::coroutine_handle<> waiting INFRA_GUARDED_BY(mutex);
        bool over INFRA_GUARDED_BY(mutex) = false;
    };

    /// What the server keeps: its end is the line's.
    struct End {
        explicit End(std::shared_ptr<Line> of) : line(std::move(of)) {}
        End(End&& other) noexcept = default;
        End& operator=(End&&) = delete;
        ~End() {
            if (line == nullptr) {
                return;
            }
            std::coroutine_handle<> waiting;
            {
                const Infra::CGuard guard(line->mutex);
                line->over = true;
                waiting = std::exchange(line->waiting, nullptr);
            }
            Detail::Wake(waiting).now();
        }
        std::shared_ptr<Line> line;
    };

    /// What `accept` gives.
    class Accept {
    public:
        explicit Accept(std::shared_ptr<Line> line) noexcept : m_line(std::move(line)) {}
        bool await_ready() const noexcept { return false; }
        bool await_suspend(std::coroutine_handle<> waiting) {
            const std::shared_ptr<Line> line = m_line;  // this may be gone as soon as the mutex is left
            const Infra::CGuard guard(line->mutex);
            if (line->over || !line->come.empty()) {
                return false;
            }
            line->waiting = waiting;
            return true;
        }
        Connection await_resume() {
            const Infra::CGuard guard(m_line->mutex);
            if (m_line->come.empty()) {
                return {};
            }
            Connection first = std::move(m_line->come.front());
            m_line->come.pop_front();
            return first;
        }

    private:
        const std::shared_ptr<Line> m_line;
    };

public:
    /// No clients yet.
    Clients() : m_line(std::make_shared<Line>()) {}

    /// What the server calls for each connection.
    Connection::Event start() {
        return [end = End(m_line)](Connection& connection) {
            std::coroutine_handle<> waiting;
            connection.readByAsking();
            {
                const Infra::CGuard guard(end.line->mutex);
                end.line->come.push_back(connection.share());
                waiting = std::exchange(end.line->waiting, nullptr);
            }
            Detail::Wake(waiting).now();
        };
    }

    /// `co_await clients.accept()`: the next connection.
    Accept accept() { return Accept(m_line); }

private:
    const std::shared_ptr<Line> m_line;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit

#endif
