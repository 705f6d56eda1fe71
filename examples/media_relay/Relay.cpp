// Relay: start, end, and the status line.

#include "media_relay/Relay.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <utility>

#include <Infra/Log.h>
#include <Infra/Time.h>

#include "media_relay/http/Session.h"
#include "media_relay/input/TestSource.h"
#include "media_relay/rtsp/RtspSession.h"

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;
using Orvex::Infra::CTime;

namespace {

constexpr int64_t kTick_us = History::PERIOD_MS * 1000;
constexpr size_t kMembers = 4090;  // a pool watches 4095 sockets for reading
constexpr size_t kLeft = 64;       // clients that have gone, for the last verdicts on them
constexpr size_t kWorst = 5;       // clients that the terminal shows

/// Calls Relay::tick.
class Ticker : public Member {
public:
    static void Create(Relay& relay) {
        auto* self = new Ticker(relay);
        self->enter();
        self->SetTimer(kTick_us);
    }
    int64_t handle_timeout(long) override {
        m_relay.tick();
        return 0;
    }
    int handle_message(long, unsigned int msg, long) override {
        if (msg == kStop) {
            Close();
        }
        return 0;
    }

private:
    explicit Ticker(Relay& relay) : Member(relay.roster()), m_relay(relay) {}

    Relay& m_relay;
};

size_t terminalColumns() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : 80;
}

}  // namespace

void sortBySuffering(std::vector<std::shared_ptr<Client>>& clients) {
    std::map<int64_t, size_t> places;
    const auto place = [](void* context, const SenderVerdict& verdict) {
        auto& found = *static_cast<std::map<int64_t, size_t>*>(context);
        found.emplace(verdict.sender, found.size());
        return true;
    };
    CMediaVerdicts::List(place, &places);
    const auto placeOf = [&](const std::shared_ptr<Client>& client) {
        const auto found = places.find(client->sender()->GetID());
        return found != places.end() ? found->second : places.size();
    };
    std::stable_sort(clients.begin(), clients.end(),
                     [&](const auto& a, const auto& b) { return placeOf(a) < placeOf(b); });
}

int Relay::run(EndSignals& signals, std::vector<OpenInput>&& inputs) {
    if (!makeStreams()) {
        return 1;
    }
    if (m_options.pools != 0 && m_pools.Create(m_options.pools, m_options.threads) != 0) {
        return 1;
    }
    const CSockAddrStorage local(m_options.host.c_str(), m_options.port);
    const size_t most = m_options.pools != 0 ? size_t{m_options.pools} * CPoolSet::PLACES : kMembers;
    Listener* const listener = Listener::Open(m_roster, local, most, m_options.maxPerAddress,
                                              [this](CSockStream& peer) { admit(peer); });
    setListener(listener);
    std::string rtsp;
    const bool good = listener != nullptr && listenForRtsp(rtsp);
    if (listener != nullptr && !good) {
        setListener(nullptr);
        listener->stop();
    }
    if (good) {
        announce(listener->address(), rtsp);
        if (!m_options.verbose) {
            Orvex::Infra::setLogLevel(NOTICE);  // clients that hang up are not news
        }
        Ticker::Create(*this);
        for (size_t i = 0; i < inputs.size(); ++i) {
            startSource(m_options.streams[i], std::move(inputs[i]));
        }
        signals.wait();
        if (isatty(STDOUT_FILENO) != 0) {
            std::printf("\n\033[J");
        }
        m_streams.close();
        setListener(nullptr);
        listener->stop();
    }
    m_inputs.stop();
    m_roster.waitUntilEmpty();
    const auto streams = m_streams.list();
    const bool failed =
        std::any_of(streams.begin(), streams.end(), [](const auto& stream) { return stream->hasFailed(); });
    return good && !failed ? 0 : 1;
}

/// Streams are there before clients are.
bool Relay::makeStreams() {
    std::string wrong;
    for (const StreamOption& option : m_options.streams) {
        const auto kind = option.isTest() ? Stream::Kind::PICTURES : Stream::Kind::TRANSPORT;
        if (m_streams.make(option.name, kind, wrong) == nullptr) {
            std::fprintf(stderr, "media_relay: %s %s\n", option.name.c_str(), wrong.c_str());
            return false;
        }
    }
    return m_options.multicastIp.empty() || m_streams.first()->openMulticast(m_options);
}

/// Fills `address`. True also if nobody wants it.
bool Relay::listenForRtsp(std::string& address) {
    if (m_options.rtspPort < 0) {
        return true;
    }
    const CSockAddrStorage local(m_options.host.c_str(), static_cast<unsigned short>(m_options.rtspPort));
    Listener* const listener =
        m_streams.openDatagrams(m_roster)
            ? Listener::Open(m_roster, local, kMembers, m_options.maxPerAddress,
                             [this](CSockStream& peer) { RtspSession::Create(*this, peer); })
            : nullptr;
    if (listener != nullptr) {
        address = listener->address();
    }
    return listener != nullptr;
}

void Relay::prepare(CMediaStreamSender& sender, CSockStream& sock, long owner, unsigned skipped) const {
    sender.Attach(&sock);
    sender.WaitException(owner);
    sender.SetSendTimeout(m_options.stallTimeout_s);
    sender.SetResumePolicy(m_options.maxLag_ms,
                           m_options.strictLag ? MediaResume::STRICT : MediaResume::AHEAD,
                           m_options.hardLag_ms);
    sender.SetKernelLag(m_options.kernelLag_ms);
    sender.WaitSkip(owner, skipped);
    sender.WaitRoom(owner);
    sock.SetSockSendBuf(m_options.sendBuffer);
    sock.SetSockNoDelay(true);
}

/// A session reads, and is waited on for room: it needs a place for each. Whom no pool has places for is
/// closed.
void Relay::admit(CSockStream& peer) {
    CPoolSet::Place place;
    if (m_options.pools == 0 || m_pools.Next(SOCK_READ + SOCK_WRITE, place) == 0) {
        Session::Create(*this, peer, std::move(place));
    } else {
        count(&Counters::refused);
    }
}

void Relay::setListener(Listener* listener) {
    CGuard guard(m_mutex);
    m_listener = listener;
}

void Relay::announce(const std::string& address, const std::string& rtsp) {
    std::printf("listening on %s\n", address.c_str());
    std::printf("page: http://%s/\n", address.c_str());
    const char* title = "live";
    for (const auto& stream : m_streams.list()) {
        std::printf("%s: http://%s%s\n", title, address.c_str(), stream->livePath().c_str());
        if (!rtsp.empty() && !stream->isTest()) {
            std::printf("rtsp: rtsp://%s/%s\n", rtsp.c_str(), stream->name().c_str());
        }
        title = "stream";
    }
    if (!m_options.publishToken.empty()) {
        std::printf("publish: http://%s/publish/NAME\n", address.c_str());
    }
    std::fflush(stdout);
}

void Relay::startSource(const StreamOption& option, OpenInput&& input) {
    const auto stream = m_streams.find(option.name);
    if (!stream->isTest()) {
        m_inputs.start(std::move(input),
                       {stream->outputs(), *stream, m_options.program, m_options.loop, m_options.speed});
        return;
    }
    Options picture = m_options;
    picture.width = option.width;
    picture.height = option.height;
    TestSource::Create(m_roster, stream->live(), *stream, picture)->start(m_options.speed);
}

void Relay::count(uint64_t Counters::*counter) {
    CGuard guard(m_mutex);
    ++(m_counters.*counter);
}

bool Relay::takePlace() {
    CGuard guard(m_mutex);
    if (m_watching >= m_options.maxClients) {
        return false;
    }
    ++m_watching;
    return true;
}

void Relay::givePlace() {
    CGuard guard(m_mutex);
    --m_watching;
}

/// Of all streams.
std::vector<std::shared_ptr<Client>> Relay::clients() {
    std::vector<std::shared_ptr<Client>> clients;
    for (const auto& stream : m_streams.list()) {
        const std::vector<std::shared_ptr<Client>> more = stream->clients();
        clients.insert(clients.end(), more.begin(), more.end());
    }
    return clients;
}

unsigned Relay::takeNumber() {
    CGuard guard(m_mutex);
    return ++m_lastNumber;
}

void Relay::noteLeft(const Client& client) {
    CGuard guard(m_mutex);
    m_left.push_front({client.sender()->GetID(), client.number(), client.address()});
    if (m_left.size() > kLeft) {
        m_left.pop_back();
    }
}

/// A stream that has ended waits for the others, and for those that may yet be published.
bool Relay::isOver() {
    if (!m_options.publishToken.empty()) {
        return false;
    }
    const auto streams = m_streams.list();
    return std::all_of(streams.begin(), streams.end(), [](const auto& stream) { return stream->isOver(); });
}

void Relay::tick() {
    m_publications.tick();
    for (const auto& client : clients()) {
        client->sample();
    }
    for (const auto& stream : m_streams.list()) {
        auto clients = stream->clients();
        sortBySuffering(clients);
        stream->history().take(stream->bufferStats(), clients);
    }
    if (!m_signalled && isOver()) {
        m_signalled = true;
        kill(getpid(), SIGTERM);  // main waits for a signal, whoever sends it
    }
    if (++m_ticks % 2 != 0) {
        return;
    }
    m_work.take();
    if (isatty(STDOUT_FILENO) != 0) {
        printStatus();
    }
}

void Relay::printStatus() {
    MediaBufferStats buffer;
    uint64_t frames = 0;
    for (const auto& stream : m_streams.list()) {
        add(buffer, stream->bufferStats());
        frames += stream->live().totals().frames;
    }
    const double seconds = m_streams.first()->view().seconds;
    double rate = 0;
    uint64_t lost = 0;
    std::vector<std::shared_ptr<Client>> clients = this->clients();
    sortBySuffering(clients);
    for (const auto& client : clients) {
        const Client::View view = client->view();
        rate += view.rate;
        lost += view.sender.hole_frames + view.sender.skipped_frames;
    }
    const std::string worst = describeWorst(clients);
    CGuard guard(m_mutex);
    std::printf(
        "\r\033[J%7.1f s  %ju frames/s  %zu clients  %.2f MB/s out  buffer %u frames, %.2f MB  "
        "dropped %ju frames, %ju clients%s",
        seconds, static_cast<uintmax_t>(frames - m_lastFrames), clients.size(), rate / 1e6, buffer.frames,
        static_cast<double>(buffer.bytes) / 1e6, static_cast<uintmax_t>(lost),
        static_cast<uintmax_t>(m_counters.stalled), worst.c_str());
    std::fflush(stdout);
    m_lastFrames = frames;
}

/// Below the status line, to which the cursor comes back.
std::string Relay::describeWorst(const std::vector<std::shared_ptr<Client>>& clients) {
    const size_t shown = std::min(clients.size(), kWorst);
    std::string text;
    const size_t columns = terminalColumns();
    for (size_t i = 0; i < shown; ++i) {
        char line[256];
        const Client::View view = clients[i]->view();
        std::snprintf(line, sizeof line, "  %-22s %s", view.address.c_str(), view.verdict.sentence);
        text += "\n" + std::string(line).substr(0, columns - 1);  // a line that is broken would be two
    }
    return shown != 0 ? text + "\033[" + std::to_string(shown) + "A" : text;
}

}  // namespace relay
