// StatsServer: the process's figures on a Unix socket, from a thread of its own.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <Infra/ThreadLite.h>

namespace Orvex::Reticor {

/// A client sends one line, which names what it wants, gets it, and its connection is closed. It needs no
/// worker: it answers while all of them hang.
///
/// Thread safety: Start and Stop on one thread at a time, the one that has it after that destroys it.
class StatsServer {
public:
    StatsServer() = default;
    ~StatsServer();
    StatsServer(const StatsServer&) = delete;
    StatsServer& operator=(const StatsServer&) = delete;

    /// Listens at `path`, readable and writable for the process's user alone. A socket there that nobody
    /// listens at is replaced. False, with the reason in errno, if the path is empty, taken or too long, or
    /// the system gives no socket or no thread; std::bad_alloc without memory.
    bool Start(const char* path);

    /// Ends the thread, closes what is open and removes the path.
    void Stop();

private:
    struct Client {
        int fd;
        std::string request;
        std::string answer;
        size_t sent = 0;
    };
    static constexpr size_t MOST_CLIENTS = 16;
    static constexpr size_t LONGEST_REQUEST = 256;

    bool listen_at(const char* path);
    void run(Infra::CThreadLite& thread);
    bool accept_one();
    bool serve(Client& client);
    bool receive(Client& client);
    static bool send(Client& client);
    void close_all();

    std::string m_path;
    int m_listener = -1;
    int m_wake = -1;
    std::vector<Client> m_clients;  ///< Of the thread.
    Infra::CThreadLite* m_thread = nullptr;
};

/// The answer to a request: "text", "json", "metrics", "handlers", "timing on", "timing off". std::bad_alloc
/// without memory.
std::string stats_answer(const std::string& request);

}  // namespace Orvex::Reticor
