// chat: everybody who connects says a name, and then reads what the others type. Try it with two terminals
// and `nc 127.0.0.1 7008`; /who lists the names, /quit leaves.
//
// What it teaches:
//  - a line protocol on a byte stream: lines arrive in pieces, and many at once;
//  - messages between handlers: a message says that there is news, by the id of its receiver. The text stands
//    in a room that all share, so nothing is lost or leaked when a receiver has gone by the time its message
//    comes;
//  - messages to one handler can overlap, and overtake each other: the order stands in the room, not in them;
//  - one slow reader holds nobody up: it misses lines, and is told how many.
#include <cctype>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "support/Listener.h"

using namespace example;

namespace {

constexpr unsigned kNews = 101;        // message to a session: the room has lines that you have not seen
constexpr size_t kMaxLine = 512;       // bytes; whoever sends more without a line end is put out
constexpr size_t kMaxName = 20;        // bytes
constexpr size_t kLinesKept = 1000;    // of the room
constexpr size_t kMaxPending = 65536;  // bytes kept for a slow reader, before it begins to miss lines

/// Names and lines. Outlives the sessions.
class Room {
public:
    /// False if somebody has that name. `position` is set to the end: the newcomer reads what comes from now
    /// on.
    bool join(long id, const std::string& name, size_t& position) {
        CGuard guard(m_mutex);
        for (const auto& entry : m_names) {
            if (entry.second == name) {
                return false;
            }
        }
        m_names[id] = name;
        position = m_first + m_lines.size();
        return true;
    }

    void leave(long id) {
        CGuard guard(m_mutex);
        m_names.erase(id);
    }

    /// Adds a line and returns those that have to hear of it.
    std::vector<long> say(long from, const std::string& text) {
        CGuard guard(m_mutex);
        m_lines.push_back({from, text + "\n"});
        if (m_lines.size() > kLinesKept) {
            m_lines.pop_front();
            ++m_first;
        }
        std::vector<long> others;
        for (const auto& entry : m_names) {
            if (entry.first != from) {
                others.push_back(entry.first);
            }
        }
        return others;
    }

    /// What others have said since `position`, which moves to the end.
    std::string read(long reader, size_t& position) {
        CGuard guard(m_mutex);
        std::string text;
        if (position < m_first) {
            text = "* you missed " + std::to_string(m_first - position) + " lines\n";
            position = m_first;
        }
        for (; position < m_first + m_lines.size(); ++position) {
            const Line& line = m_lines[position - m_first];
            if (line.from != reader) {
                text += line.text;
            }
        }
        return text;
    }

    std::string who() {
        CGuard guard(m_mutex);
        std::string text = "* here:";
        for (const auto& entry : m_names) {
            text += " " + entry.second;
        }
        return text + "\n";
    }

private:
    struct Line {
        long from;
        std::string text;
    };

    Orvex::Infra::CMutex m_mutex;
    std::map<long, std::string> m_names INFRA_GUARDED_BY(m_mutex);  // by id of the session
    std::deque<Line> m_lines INFRA_GUARDED_BY(m_mutex);
    size_t m_first INFRA_GUARDED_BY(m_mutex) = 0;  // number of the oldest line kept
};

/// One person.
class Session : public Member {
public:
    static void Create(Roster& roster, Room& room, CSockStream& peer) {
        auto* self = new Session(roster, room);
        self->AddRef();
        self->start(peer);
        self->DecRef();
    }

    int handle_input(int) override {
        CGuard guard(m_mutex);
        if (!m_sock.IsValid()) {
            return -1;
        }
        char buffer[4096];
        const int got = m_sock.Recv(buffer, sizeof buffer);
        if (got < 0) {
            return hangUp();
        }
        m_input.append(buffer, static_cast<size_t>(got));
        size_t end;
        while (m_sock.IsValid() && (end = m_input.find('\n')) != std::string::npos) {
            const std::string line = printable(m_input.substr(0, end));
            m_input.erase(0, end + 1);
            onLine(line);
        }
        if (m_input.size() > kMaxLine) {
            return hangUp();
        }
        return flush();
    }

    int handle_output(int) override {
        CGuard guard(m_mutex);
        return flush();
    }

    int handle_message(long, unsigned int msg, long) override {
        CGuard guard(m_mutex);
        if (msg == kStop) {
            return end();
        }
        return msg == kNews ? flush() : 0;
    }

private:
    Session(Roster& roster, Room& room) : Member(roster), m_room(room) {}

    void start(CSockStream& peer) {
        enter(peer);
        CGuard guard(m_mutex);
        m_sock.Attach(peer.Detach());
        m_pending = "your name?\n";
        if (RegisterSock(m_sock, SOCK_READ, 0) < 0) {
            end();
        }
        flush();
    }

    /// Without what could steer the terminal of the person that reads it.
    static std::string printable(const std::string& text) {
        std::string result;
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            if (byte >= 32 && byte != 127) {
                result += c;
            }
        }
        return result;
    }

    static bool isName(const std::string& text) {
        for (const char c : text) {
            if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_') {
                return false;
            }
        }
        return !text.empty() && text.size() <= kMaxName;
    }

    void onLine(const std::string& line) INFRA_REQUIRES(m_mutex) {
        if (line.size() > kMaxLine) {
            hangUp();
        } else if (m_name.empty()) {
            if (!isName(line)) {
                m_pending += "* a name has 1 to 20 letters, digits, - or _\n";
            } else if (!m_room.join(GetID(), line, m_position)) {
                m_pending += "* that name is taken\n";
            } else {
                m_name = line;
                m_pending += "* welcome, " + m_name + "\n";
                say("* " + m_name + " joined");
            }
        } else if (line == "/quit") {
            flush();  // what was answered so far
            hangUp();
        } else if (line == "/who") {
            m_pending += m_room.who();
        } else if (!line.empty()) {
            say(m_name + ": " + line);
        }
    }

    void say(const std::string& text) {
        for (const long id : m_room.say(GetID(), text)) {
            Notify(id, kNews, 0);
        }
    }

    /// Sends what is pending and what is new in the room, until there is no more or the client takes no more.
    /// Reading goes on when all is sent: whoever does not listen is not listened to.
    int flush() INFRA_REQUIRES(m_mutex) {
        if (!m_sock.IsValid()) {
            return -1;
        }
        for (takeNews(); !m_pending.empty(); takeNews()) {
            const int sent = m_sock.Send(m_pending.data(), static_cast<unsigned>(m_pending.size()));
            if (sent < 0) {
                return hangUp();
            }
            if (sent == 0) {
                break;
            }
            m_pending.erase(0, static_cast<size_t>(sent));
        }
        if (m_writing != m_pending.empty()) {
            return 0;
        }
        m_writing = !m_pending.empty();
        RegisterSock(m_sock, m_writing ? SOCK_WRITE : SOCK_READ, 0);
        UnregisterSock(m_sock, m_writing ? SOCK_READ : SOCK_WRITE);
        return 0;
    }

    void takeNews() INFRA_REQUIRES(m_mutex) {
        if (!m_name.empty() && m_pending.size() < kMaxPending) {
            m_pending += m_room.read(GetID(), m_position);
        }
    }

    int hangUp() INFRA_REQUIRES(m_mutex) {
        if (!m_sock.IsValid()) {
            return -1;
        }
        m_room.leave(GetID());
        if (!m_name.empty()) {
            say("* " + m_name + " left");
        }
        return end();
    }

    int end() INFRA_REQUIRES(m_mutex) {
        if (!m_sock.IsValid()) {
            return -1;
        }
        m_room.leave(GetID());
        RemoveSock(m_sock);
        m_sock.Close();
        Close();
        return -1;
    }

    Room& m_room;
    Orvex::Infra::CMutex m_mutex;
    CSockStream m_sock INFRA_GUARDED_BY(m_mutex);
    std::string m_name INFRA_GUARDED_BY(m_mutex);      // empty until the first good line
    std::string m_input INFRA_GUARDED_BY(m_mutex);     // the beginning of a line
    std::string m_pending INFRA_GUARDED_BY(m_mutex);   // to be sent
    size_t m_position INFRA_GUARDED_BY(m_mutex) = 0;   // number of the next line to read in the room
    bool m_writing INFRA_GUARDED_BY(m_mutex) = false;  // registered for writing and not for reading
};

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 7008;
    size_t per_address = CLIENTS_PER_ADDRESS;
    CLI::App app{"A chat room for everybody who connects."};
    app.add_option("--host", host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--max-per-address", per_address,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    EndSignals signals;
    raiseDescriptorLimit();
    if (CreateThreadPool(1, 0) != 0) {
        return 1;
    }
    Roster roster;
    Room room;
    const int result = serve(roster, signals, CSockAddrStorage(host.c_str(), port), per_address,
                             [&](CSockStream& peer) { Session::Create(roster, room, peer); });
    DestroyThreadPool();
    return result;
}
