// LiveStream: the frames of one input on their way to all clients.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockStream.h>

#include "media_relay/Client.h"
#include "media_relay/Packets.h"

namespace relay {

/// A frame in the making: its packets are written one after the other.
struct Frame {
    std::vector<std::unique_ptr<DataPacket>> packets;  // one at least, none of them empty
    unsigned channel = 0;
    unsigned level = 1;       // 1 is the most important, and the last that the buffer drops
    bool entry = false;       // a new client can begin here
    bool disposable = false;  // no other frame needs it
};

/// What two buffers hold together.
inline void add(Orvex::Reticor::MediaBufferStats& sum, const Orvex::Reticor::MediaBufferStats& more) {
    sum.frames += more.frames;
    sum.bytes += more.bytes;
    sum.expired_frames += more.expired_frames;
    sum.debt_bytes += more.debt_bytes;
    sum.pinned_frames += more.pinned_frames;
}

/// The media buffer, and the list of those who wait for a frame to begin with.
///
/// The buffer lets a new client in at a key frame of any channel. Here one may begin with a picture alone,
/// not with the piece of sound before it; so clients wait in a list of our own, and the producer hands them
/// to the buffer within the frame that they are to begin with. With a start cache the buffer itself knows
/// where one may begin, and they go to it at once.
///
/// Threads: `put`, `setPrologue` and `clear` are the producer's alone, all else is for any thread. The
/// mutex comes before the buffer's own.
class LiveStream {
public:
    struct Totals {
        uint64_t frames = 0;  // that were put, in whatever quality
        uint64_t keyFrames = 0;
        uint64_t bytes = 0;
        uint64_t clients = 0;  // that ever came
    };

    LiveStream();

    /// Before any thread. `burst`: the frames since the last one to begin with are held, and a client
    /// begins with them at once. `disposableFirst`: frames that no other one needs go first.
    void setUp(bool burst, bool disposableFirst);

    void put(Frame&& frame);

    /// What each client gets in front of its first frame, 4096 bytes at most; from now on, whoever has not
    /// begun gets this one. A stream whose clients need it lets nobody in before it is there.
    void setPrologue(const std::string& prologue);
    void needPrologue() { m_needsPrologue = true; }

    /// Forgets all frames and the prologue. False if clients are there: then nothing happens.
    bool clear();

    bool hasClients();

    /// Takes a client in, which gets nothing yet.
    void join(const std::shared_ptr<Client>& client);

    /// From the next frame to begin with on, or from the last one on, it gets all.
    void begin(const std::shared_ptr<Client>& client);

    /// Sends bytes to a client between two frames: with the next frame, 4096 bytes at most; to `socket`,
    /// its own, as long as it waits for its first one. False if that one did not take them all. Without a
    /// socket it gets nothing before it has begun.
    bool sendBetween(const std::shared_ptr<Client>& client, const std::string& bytes,
                     Orvex::Reticor::CSockStream* socket);

    /// After it returns nothing is sent to the client's socket.
    void leave(const std::shared_ptr<Client>& client);

    Totals totals();
    Orvex::Reticor::MediaBufferStats bufferStats() { return m_buffer.GetStats(); }
    std::vector<std::shared_ptr<Client>> clients();

    /// Whether every client has all there is.
    bool isDrained();

private:
    enum class Stage { Joined, Waiting, Sending };

    struct Place {
        std::shared_ptr<Client> client;
        Stage stage;
    };

    std::vector<Place>::iterator find(const std::shared_ptr<Client>& client) INFRA_REQUIRES(m_mutex);
    void admit() INFRA_REQUIRES(m_mutex);
    void send(Place& place) INFRA_REQUIRES(m_mutex);

    Orvex::Reticor::CMediaBuffer m_buffer;
    bool m_burst = false;  // set up before any thread
    bool m_disposableFirst = false;
    bool m_needsPrologue = false;
    Orvex::Infra::CMutex m_mutex;
    std::vector<Place> m_places INFRA_GUARDED_BY(m_mutex);
    std::string m_prologue INFRA_GUARDED_BY(m_mutex);
    Totals m_totals INFRA_GUARDED_BY(m_mutex);
};

}  // namespace relay
