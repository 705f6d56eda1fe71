// LiveStream: one producer, one buffer, many senders.

#include "media_relay/LiveStream.h"

#include <algorithm>

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

namespace {

constexpr int kLevelDisposable = 8;
constexpr unsigned kHeld_ms = 15000;  // longer than any group: after ten seconds each picture counts as a key
constexpr unsigned long long kHeldBytes = 64 << 20;
constexpr unsigned kRetry_ms = 40;  // a client that took no more is tried again so soon, frame or no frame

}  // namespace

LiveStream::LiveStream() {
    m_buffer.EnableAutoSend(kRetry_ms);
}

void LiveStream::setUp(bool burst, bool disposableFirst) {
    m_burst = burst;
    m_disposableFirst = disposableFirst;
    if (burst) {
        m_buffer.SetStartCache(kHeld_ms, kHeldBytes);
    }
    if (disposableFirst) {
        m_buffer.SetDisposableLevel(kLevelDisposable);
    }
}

void LiveStream::put(Frame&& frame) {
    CGuard guard(m_mutex);
    m_totals.frames += frame.channel == Ladder::kLowChannel ? 0 : 1;
    if (frame.entry) {
        ++m_totals.keyFrames;
        admit();
    }
    const int importance =
        frame.disposable && m_disposableFirst ? kLevelDisposable : static_cast<int>(frame.level);
    const int level = mediaLevel(static_cast<int>(frame.channel), importance);
    for (auto& packet : frame.packets) {
        const int size = packet->size();
        const bool last = &packet == &frame.packets.back();
        m_totals.bytes += static_cast<uint64_t>(size);
        m_buffer.Put(packet.release(), size, last ? MEDIA_MARK_LAST : MEDIA_MARK_MORE, level);
    }
}

/// The frame that is about to be put is the first of those who wait.
void LiveStream::admit() {
    for (Place& place : m_places) {
        if (place.stage == Stage::Waiting) {
            send(place);
        }
    }
}

void LiveStream::send(Place& place) {
    CMediaStreamSender* const sender = place.client->sender();
    if (!m_prologue.empty()) {
        sender->SendOtherData(m_prologue.data(), static_cast<int>(m_prologue.size()));
    }
    place.stage = Stage::Sending;
    m_buffer.AddSender(sender);
}

void LiveStream::setPrologue(const std::string& prologue) {
    CGuard guard(m_mutex);
    m_prologue = prologue;
}

bool LiveStream::clear() {
    CGuard guard(m_mutex);
    if (!m_places.empty()) {
        return false;
    }
    m_prologue.clear();
    m_buffer.Clear();
    return true;
}

bool LiveStream::hasClients() {
    CGuard guard(m_mutex);
    return !m_places.empty();
}

void LiveStream::join(const std::shared_ptr<Client>& client) {
    CGuard guard(m_mutex);
    ++m_totals.clients;
    m_places.push_back({client, Stage::Joined});
}

std::vector<LiveStream::Place>::iterator LiveStream::find(const std::shared_ptr<Client>& client) {
    return std::find_if(m_places.begin(), m_places.end(),
                        [&](const Place& place) { return place.client == client; });
}

void LiveStream::begin(const std::shared_ptr<Client>& client) {
    CGuard guard(m_mutex);
    const auto place = find(client);
    if (m_burst && !(m_needsPrologue && m_prologue.empty())) {
        send(*place);
    } else {
        place->stage = Stage::Waiting;
    }
}

bool LiveStream::sendBetween(const std::shared_ptr<Client>& client, const std::string& bytes,
                             CSockStream* socket) {
    CGuard guard(m_mutex);
    const auto place = find(client);
    if (place == m_places.end()) {
        return true;
    }
    const auto size = static_cast<unsigned>(bytes.size());
    if (place->stage == Stage::Sending) {
        client->sender()->SendOtherData(bytes.data(), static_cast<int>(size));
        return true;
    }
    return socket == nullptr || socket->Send(bytes.data(), size) == static_cast<int>(size);
}

void LiveStream::leave(const std::shared_ptr<Client>& client) {
    CGuard guard(m_mutex);
    const auto place = find(client);
    if (place->stage == Stage::Sending) {
        m_buffer.DelSender(client->sender());
    }
    m_places.erase(place);
}

LiveStream::Totals LiveStream::totals() {
    CGuard guard(m_mutex);
    return m_totals;
}

std::vector<std::shared_ptr<Client>> LiveStream::clients() {
    CGuard guard(m_mutex);
    std::vector<std::shared_ptr<Client>> clients;
    for (const Place& place : m_places) {
        clients.push_back(place.client);
    }
    return clients;
}

bool LiveStream::isDrained() {
    const std::vector<std::shared_ptr<Client>> all = clients();
    return std::all_of(all.begin(), all.end(), [](const std::shared_ptr<Client>& client) {
        const MediaSenderStats stats = client->sender()->GetStats();
        return !stats.joined || stats.lag_us == 0;  // it stands on no frame
    });
}

}  // namespace relay
