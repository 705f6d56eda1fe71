// StatsServer: the process's figures on a Unix socket, from a thread of its own.
#include "Core/stats/StatsServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include <Reticor/Recorder.h>

#include "Core/count/Timing.h"
#include "Core/handle/HolderNotes.h"
#include "Core/stats/HandlerListing.h"
#include "Core/stats/StatsTexts.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

/// How long nobody is let in once the system had no room for one: the listener stays ready all the time.
constexpr int REST_MS = 100;

bool address_of(const char* path, sockaddr_un& address) {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    if (*path == '\0') {
        errno = ENOENT;  // the system would take it for a name without a file, which everybody may open
        return false;
    }
    if (std::strlen(path) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::strcpy(address.sun_path, path);
    return true;
}

void close_fd(int& fd) {
    if (fd != -1) {
        close_counted(std::exchange(fd, -1));
    }
}

/// Whether a socket at that path has been left behind by a process that is gone.
bool is_stale(const sockaddr_un& address) {
    struct stat there;
    if (::lstat(address.sun_path, &there) != 0 || !S_ISSOCK(there.st_mode)) {
        return false;
    }
    int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const bool stale = probe != -1 &&
                       ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
                       errno == ECONNREFUSED;
    close_fd(probe);
    return stale;
}

bool bind_to(int fd, const sockaddr_un& address) {
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// Switches the recorder, or dumps it into the working directory.
std::string recorder_answer(const std::string& request) {
    if (request == "recorder dump") {
        const std::string path = "reticor-" + std::to_string(::getpid()) + ".dump";
        return CRecorder::Dump(path.c_str()) == 0 ? "written to " + path + "\n"
                                                  : path + ": " + GetSockErrorText(errno) + "\n";
    }
    request == "recorder on" ? CRecorder::Start() : CRecorder::Stop();
    return request + "\n";
}

}  // namespace

std::string stats_answer(const std::string& request) {
    TextRoom out;
    if (request == "timing on" || request == "timing off") {
        Timing::Switch(request == "timing on");
        return request + "\n";
    }
    if (request == "recorder on" || request == "recorder off" || request == "recorder dump") {
        return recorder_answer(request);
    }
    if (request == "holders on" || request == "holders off") {
        HolderNotes::Switch(request == "holders on");
        return request + "\n";
    }
    if (request == "handlers") {
        HandlerListing listing;
        if (!listing.Gather()) {
            return "no memory\n";
        }
        write_handlers(listing.handlers(), out);
        return std::move(out.text());
    }
    Snapshot snapshot;
    if (!snapshot.Gather()) {
        return "no memory\n";
    }
    if (request == "json") {
        write_json(snapshot, out);
    } else if (request == "metrics") {
        write_metrics(snapshot, out);
    } else if (request == "text" || request.empty()) {
        write_text(snapshot, out);
    } else {
        out << "unknown request; there are: text json metrics handlers timing on timing off "
               "recorder on recorder off recorder dump holders on holders off\n";
    }
    return std::move(out.text());
}

StatsServer::~StatsServer() {
    Stop();
}

bool StatsServer::listen_at(const char* path) {
    sockaddr_un address;
    if (!address_of(path, address)) {
        return false;
    }
    m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    m_wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    // The mode of the socket becomes that of the path, so there is no moment at which others may enter.
    if (m_listener == -1 || m_wake == -1 || ::fchmod(m_listener, 0600) != 0) {
        return false;
    }
    if (!bind_to(m_listener, address)) {
        const int error = errno;
        if (error != EADDRINUSE || !is_stale(address)) {
            errno = error;
            return false;
        }
        ::unlink(path);
        if (!bind_to(m_listener, address)) {
            return false;
        }
    }
    m_path = path;
    return ::listen(m_listener, static_cast<int>(MOST_CLIENTS)) == 0;
}

bool StatsServer::Start(const char* path) {
    m_clients.reserve(MOST_CLIENTS + 1);
    m_path.reserve(std::strlen(path));
    if (listen_at(path)) {
        m_thread = new (std::nothrow) Infra::CThreadLite(
            Infra::TFunction1<void, Infra::CThreadLite&>(&StatsServer::run, this), "Reticor stats", 64, 0, 0);
        if (m_thread != nullptr && m_thread->createThread()) {
            return true;
        }
        errno = EAGAIN;
    }
    const int error = errno;
    Stop();
    errno = error;
    return false;
}

void StatsServer::Stop() {
    if (m_thread != nullptr) {
        m_thread->cancelThread();
        const uint64_t one = 1;
        while (::write(m_wake, &one, sizeof(one)) == -1 && errno == EINTR) {
        }
        delete std::exchange(m_thread, nullptr);
    }
    close_all();
    close_fd(m_listener);
    close_fd(m_wake);
    if (!m_path.empty()) {
        ::unlink(m_path.c_str());
        m_path.clear();
    }
}

void StatsServer::close_all() {
    for (Client& client : m_clients) {
        close_fd(client.fd);
    }
    m_clients.clear();
}

void StatsServer::run(Infra::CThreadLite& thread) {
    pollfd watched[MOST_CLIENTS + 2];
    bool has_room = true;
    while (thread.looping()) {
        watched[0] = {m_wake, POLLIN, 0};
        watched[1] = {has_room ? m_listener : -1, POLLIN, 0};
        for (size_t i = 0; i < m_clients.size(); ++i) {
            const bool writes = !m_clients[i].answer.empty();
            watched[i + 2] = {m_clients[i].fd, static_cast<short>(writes ? POLLOUT : POLLIN), 0};
        }
        const int ready = ::poll(watched, m_clients.size() + 2, has_room ? -1 : REST_MS);
        has_room = has_room || ready == 0;
        if (ready <= 0) {
            continue;
        }
        for (size_t i = m_clients.size(); i-- > 0;) {
            if (watched[i + 2].revents != 0 && !serve(m_clients[i])) {
                close_fd(m_clients[i].fd);
                m_clients.erase(m_clients.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (watched[1].revents != 0) {
            has_room = accept_one();
        }
    }
}

/// Whoever has been here longest gives way when there are too many: it may never ask for anything. False if
/// the system has no room for one more.
bool StatsServer::accept_one() {
    const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd == -1) {
        return errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    }
    if (m_clients.size() == MOST_CLIENTS) {
        close_fd(m_clients.front().fd);
        m_clients.erase(m_clients.begin());
    }
    m_clients.push_back({fd, {}, {}, 0});  // within what was reserved
    return true;
}

/// False if the connection is over.
bool StatsServer::serve(Client& client) {
    return client.answer.empty() ? receive(client) : send(client);
}

bool StatsServer::receive(Client& client) {
    char room[LONGEST_REQUEST];
    const ssize_t got = ::recv(client.fd, room, sizeof(room), 0);
    if (got <= 0) {
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
    try {
        client.request.append(room, static_cast<size_t>(got));
        const size_t end = client.request.find('\n');
        if (end == std::string::npos) {
            return client.request.size() < LONGEST_REQUEST;
        }
        client.request.resize(end);
        if (!client.request.empty() && client.request.back() == '\r') {
            client.request.pop_back();
        }
        client.answer = stats_answer(client.request);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return send(client);
}

bool StatsServer::send(Client& client) {
    const ssize_t sent = ::send(client.fd, client.answer.data() + client.sent,
                                client.answer.size() - client.sent, MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    client.sent += static_cast<size_t>(sent);
    return client.sent < client.answer.size();
}

}  // namespace Orvex::Reticor
