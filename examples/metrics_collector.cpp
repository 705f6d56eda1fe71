// metrics_collector: programs send it figures in datagrams, "name number" in each line; whoever connects gets
// the table of them, a line for each name, and then the end of the connection. Try it:
//     metrics_collector --port 7012 --udp-port 7013 &
//     printf 'requests 1\nlatency_ms 12.5\n' > /dev/udp/127.0.0.1/7013      (in bash)
//     nc 127.0.0.1 7012
//
// What it teaches:
//  - a UDP socket in a handler of your own (`CNetHandler`, `CSockDgram`) beside a server of the kit;
//  - a pool of its own, `CNetHandler(pool.index())`, so that a flood of datagrams does not make readers wait;
//  - reading until nothing is there, but not for ever; the system keeps 4 MiB while we are busy;
//  - foreign bytes are bounded: so many names; a line that cannot be taken is counted and passed over;
//  - the end: the socket is taken out of the watch and closed, then the handler, and then the pool goes.
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include <Infra/Mutex.h>
#include <Reticor/NetHandler.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>
#include <Reticor/kit/Server.h>

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

namespace {

/// What has come. Written by the handler, read by connections, and outlives both.
class Table {
public:
    explicit Table(size_t most_names) : m_most_names(most_names) {}

    void take(const std::string& datagram) {
        CGuard guard(m_mutex);
        std::istringstream lines(datagram);
        for (std::string line; std::getline(lines, line);) {
            m_refused += line.empty() || take_line(line.c_str()) ? 0 : 1;
        }
    }

    std::string text() {
        CGuard guard(m_mutex);
        std::string all = "# name count sum\n";
        for (const auto& [name, row] : m_rows) {
            char figures[64];
            std::snprintf(figures, sizeof figures, " %ld %.15g\n", row.first, row.second);
            all += name + figures;
        }
        return all + "# lines refused: " + std::to_string(m_refused) + "\n";
    }

private:
    bool take_line(const char* line) INFRA_REQUIRES(m_mutex) {
        char name[65];
        double number = 0;
        int end = 0;
        if (std::sscanf(line, "%64[^ ]%*1[ ]%lf%n", name, &number, &end) != 2 || line[end] != '\0' ||
            !std::isfinite(number) || (m_rows.size() == m_most_names && m_rows.count(name) == 0)) {
            return false;
        }
        auto& [count, sum] = m_rows[name];
        ++count;
        sum += number;
        return true;
    }

    const size_t m_most_names;
    Orvex::Infra::CMutex m_mutex;
    std::map<std::string, std::pair<long, double>> m_rows INFRA_GUARDED_BY(m_mutex);  // count and sum
    long m_refused INFRA_GUARDED_BY(m_mutex) = 0;
};

class Collector : public CNetHandler {
public:
    Collector(const Kit::Pool& pool, Table& table) : CNetHandler(pool.index()), m_table(table) {}

    /// The port; -1 if that failed, and the library has said why.
    int open(unsigned short port) {
        CGuard guard(m_mutex);
        CSockAddrStorage local("127.0.0.1", port);
        const bool good = m_sock.Open(&local) == 0 && m_sock.SetSockRecvBuf(4 << 20) == 0 &&
                          RegisterSock(m_sock, SOCK_READ, 0) == 0 && m_sock.GetLocalAddr(&local) == 0;
        return good ? local.GetPort() : -1;
    }

    int handle_input(int) override {
        CGuard guard(m_mutex);
        char room[65536];
        for (int left = 256, got = 1; left > 0 && got > 0 && m_sock.IsValid(); --left) {
            got = m_sock.Recv(room, sizeof room, nullptr);
            m_table.take(std::string(room, static_cast<size_t>(std::max(got, 0))));
        }
        return 0;
    }

    void stop() {
        {
            CGuard guard(m_mutex);
            RemoveSock(m_sock);
            m_sock.Close();
        }
        Close();  // from here on this object may be gone
    }

    int handle_close(CNetHandler* self) override {
        delete self;
        return 0;
    }

private:
    Table& m_table;
    Orvex::Infra::CMutex m_mutex;  // `stop` comes beside a call
    CSockDgram m_sock INFRA_GUARDED_BY(m_mutex);
};

}  // namespace

int main(int argc, char** argv) {
    unsigned short port = 7012;
    unsigned short udp_port = 7013;
    size_t most_names = 8000;  // of 64 bytes: the table fits in what may wait for a reader, 1 MiB
    CLI::App app{"Adds up figures that come in datagrams."};
    app.option_defaults()->always_capture_default();
    app.add_option("--port", port, "port to hand out the table on; 0 is any that is free");
    app.add_option("--udp-port", udp_port, "port for the figures; 0 is any that is free");
    app.add_option("--names", most_names, "names at most; others are refused")->check(CLI::Range(1, 8000));
    CLI11_PARSE(app, argc, argv);

    Kit::EndSignals signals;
    Table table(most_names);
    Kit::Pool pool(1);
    Kit::Server server([&table](Kit::Connection& reader) {
        reader.write(table.text());
        reader.close();
    });
    auto* collector = new Collector(pool, table);
    const int collects_on = collector->open(udp_port);
    int result = 1;
    if (collects_on > 0 && server.listen("127.0.0.1", port)) {
        std::printf("listening on %s\nfigures to 127.0.0.1:%d\n", server.address().c_str(), collects_on);
        std::fflush(stdout);
        result = server.run(std::chrono::seconds(1));
    }
    collects_on > 0 ? collector->stop() : collector->Close();
    return result;
}
