// chat: everybody who connects says a name, and then reads what the others type. Try it with two terminals
// and `nc 127.0.0.1 7008`; /who lists the names, /quit leaves.
//
// What it teaches:
//  - a line protocol on a byte stream: lines arrive in pieces, and many at once;
//  - connections that talk to each other by posted calls: what belongs to one guest is touched by the calls
//    of its connection alone, and needs no lock; the room, which all share, has one;
//  - one slow reader holds nobody up: it misses lines, and is told how many.
#include <cctype>
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include <Reticor/kit/Server.h>

#include "chat/Room.h"

namespace Kit = Orvex::Reticor::Kit;
using chat::Room;
using Kit::Connection;

namespace {

constexpr size_t MAX_LINE = 512;       // bytes; whoever sends more without a line end is put out
constexpr size_t MAX_NAME = 20;        // bytes
constexpr size_t MAX_PENDING = 65536;  // bytes that wait for a slow reader, before it begins to miss lines

/// One person. All of it belongs to the calls of its connection.
class Guest : public std::enable_shared_from_this<Guest> {
public:
    Guest(Room& room, Connection connection) : m_room(room), m_connection(std::move(connection)) {}

    void begin() {
        m_connection.onInput([self = shared_from_this()](Connection&, std::string_view b) { self->take(b); });
        m_connection.onDrained([self = shared_from_this()](Connection&) { self->tellNews(); });
        m_connection.onClose([self = shared_from_this()](Connection&, Kit::CloseReason) { self->leave(); });
        m_connection.write("your name?\n");
    }

private:
    void take(std::string_view bytes) {
        m_input += bytes;
        for (size_t end; m_connection.isOpen() && (end = m_input.find('\n')) != std::string::npos;) {
            std::string line;
            for (const char c : m_input.substr(0, end)) {  // without what could steer the reader's terminal
                const auto byte = static_cast<unsigned char>(c);
                line += byte >= 32 && byte != 127 ? std::string(1, c) : "";
            }
            m_input.erase(0, end + 1);
            line.size() > MAX_LINE ? m_connection.close() : onLine(line);
        }
        if (m_input.size() > MAX_LINE) {
            m_connection.close();
        }
    }

    void onLine(const std::string& line) {
        if (m_name.empty()) {
            enter(line);
        } else if (line == "/quit") {
            m_connection.close();  // when what was answered so far is sent
        } else if (line == "/who") {
            m_connection.write(m_room.who());
        } else if (!line.empty()) {
            m_room.say(m_name, m_name + ": " + line + "\n");
        }
    }

    void enter(const std::string& name) {
        bool good = !name.empty() && name.size() <= MAX_NAME;
        for (const char c : name) {
            good = good && (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_');
        }
        const auto news = [self = shared_from_this()] {  // is called on any thread
            self->m_connection.post([self](Connection&) { self->tellNews(); });
        };
        if (!good) {
            m_connection.write("* a name has 1 to 20 letters, digits, - or _\n");
        } else if (!m_room.join(name, news, m_position)) {
            m_connection.write("* that name is taken\n");
        } else {
            m_name = name;
            m_room.say(m_name,
                       "* " + m_name + " joined\n");  // before the guest knows: who comes next is later
            m_connection.write({"* welcome, ", m_name, "\n"});
        }
    }

    void tellNews() {
        if (!m_name.empty() && m_connection.waiting() < MAX_PENDING) {
            m_connection.write(m_room.read(m_name, m_position));
        }
    }

    void leave() {
        if (!m_name.empty()) {
            m_room.leave(m_name);
            m_room.say(m_name, "* " + m_name + " left\n");
        }
    }

    Room& m_room;
    Connection m_connection;
    std::string m_name;     // empty until the first good line
    std::string m_input;    // the beginning of a line
    size_t m_position = 0;  // number of the next line to read in the room
};

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 7008;
    Kit::ServerOptions options;
    options.most_per_address = 1024;
    CLI::App app{"A chat room for everybody who connects."};
    app.add_option("--host", host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--max-per-address", options.most_per_address,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    Kit::EndSignals signals;
    Room room;
    Kit::Server server(
        [&room](Connection& client) { std::make_shared<Guest>(room, client.share())->begin(); }, options);
    if (!server.listen(host.c_str(), port)) {
        return 1;
    }
    std::printf("listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    return server.run(std::chrono::seconds(1));
}
