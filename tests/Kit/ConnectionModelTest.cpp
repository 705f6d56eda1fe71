// Connection: random operations on both ends, against a model of what must have come of them.
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/SeededRandom.h"
#include "support/kit/ConnectionFixture.h"

namespace Orvex::Testing {
namespace {

namespace Kit = Reticor::Kit;
using namespace std::chrono_literals;

/// Bytes of one direction: number i is a function of i, so that what is lost, doubled or mixed shows.
class Bytes {
public:
    explicit Bytes(char first) : m_first(first) {}
    std::string next(size_t count) const { return at(m_made, count); }
    void made(size_t count) { m_made += count; }
    size_t count() const { return m_made; }
    /// Whether these come next.
    bool come(std::string_view bytes) {
        const bool right = at(m_come, bytes.size()) == bytes;
        m_come += bytes.size();
        return right;
    }
    size_t come() const { return m_come; }

private:
    std::string at(size_t place, size_t count) const {
        std::string bytes(count, ' ');
        for (size_t i = 0; i < count; ++i) {
            bytes[i] = static_cast<char>(m_first + static_cast<char>((place + i) % 53));
        }
        return bytes;
    }

    const char m_first;
    size_t m_made = 0;
    size_t m_come = 0;
};

/// What the call-backs of a connection note. They never overlap, which is noted as well.
struct Noted {
    explicit Noted(char first) : input(first) {}

    Bytes input;
    bool is_right = true;
    std::vector<int> posted;
    std::atomic<size_t> read{0};
    std::atomic<int> delayed{0};
    std::atomic<int> peer_ends{0};
    std::atomic<int> ends{0};
    std::atomic<int> rooms{0};
    Kit::CloseReason reason = Kit::CloseReason::CLOSED;
    int inside = 0;
    bool overlap = false;
    bool late = false;

    template <typename Call>
    void in_call(Call call) {
        overlap = overlap || ++inside != 1;
        late = late || ends != 0;
        call();
        --inside;
    }
};

/// One connection with its peer, the model of both, and steps by chance.
class ModelledConnection {
public:
    ModelledConnection(Kit::Pool& pool, SeededRandom& random, Live& live)
        : m_random(random), m_live(live), m_noted(std::make_shared<Noted>('a')) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        m_peer = std::make_unique<Peer>(ends[1]);
        m_options.max_output = size_t{1} << random.between(12, 19);
        m_options.policy = random.oneIn(2) ? Kit::OutputPolicy::DROP : Kit::OutputPolicy::PAUSE_READING;
        m_connection = Kit::Connection::adopt(
            pool, ends[0], m_options,
            [noted = m_noted, token = live.token()](Kit::Connection& self) { set_call_backs(self, noted); });
        EXPECT_TRUE(m_connection);
    }

    void step() {
        switch (m_random.between(0, 13)) {
            case 0:
            case 1:
            case 2:
                write();
                break;
            case 3:
                write_pieces();
                break;
            case 4:
            case 5:
            case 6:
                read_at_peer(m_random.between<size_t>(1, 60000));
                break;
            case 7:
            case 8:
                send_from_peer();
                break;
            case 9:
                m_random.oneIn(2) ? m_connection.pause() : m_connection.resume();
                break;
            case 10:
                post();
                break;
            case 11:
                m_delayed += m_connection.after(std::chrono::microseconds(m_random.between(0, 4000)),
                                                [noted = m_noted, token = m_live.token()](Kit::Connection&) {
                                                    noted->in_call([&] { ++noted->delayed; });
                                                })
                                 ? 1
                                 : 0;
                break;
            case 12:
                ++m_rooms;
                m_connection.whenRoom([noted = m_noted, token = m_live.token()](Kit::Connection&, bool) {
                    noted->in_call([&] { ++noted->rooms; });
                });
                break;
            default:
                EXPECT_LE(m_connection.waiting(), m_options.max_output);
        }
    }

    /// Ends it by one of the ways, and compares.
    void end() {
        switch (m_random.between(0, 3)) {
            case 0:
                end_by_close();
                break;
            case 1:
                end_by_abort();
                break;
            case 2:
                end_by_both_directions();
                break;
            default:
                end_by_peer();
        }
        EXPECT_TRUE(m_noted->is_right) << "what came was not what was sent, in that order";
        EXPECT_FALSE(m_noted->overlap);
        EXPECT_FALSE(m_noted->late) << "a call came after the end";
        EXPECT_LE(m_noted->delayed, m_delayed);
        EXPECT_EQ(m_rooms, m_noted->rooms) << "whoever asks for room is told once";
        EXPECT_EQ(m_posted, m_noted->posted);
        EXPECT_FALSE(m_connection.write("late"));
        EXPECT_EQ(0U, m_connection.waiting());
    }

private:
    static void set_call_backs(Kit::Connection& self, const std::shared_ptr<Noted>& noted) {
        self.onInput([noted](Kit::Connection&, std::string_view bytes) {
            noted->in_call([&] {
                noted->is_right = noted->is_right && noted->input.come(bytes);
                noted->read += bytes.size();
            });
        });
        self.onEnd([noted](Kit::Connection&) { noted->in_call([&] { ++noted->peer_ends; }); });
        self.onClose([noted](Kit::Connection&, Kit::CloseReason reason) {
            noted->in_call([&] { noted->reason = reason; });
            ++noted->ends;
        });
    }

    void write() {
        const std::string bytes = m_output.next(m_random.between<size_t>(0, m_options.max_output / 2));
        if (m_connection.write(bytes)) {
            m_output.made(bytes.size());
        } else {
            note_refusal(bytes.size());
        }
    }
    void write_pieces() {
        const std::string bytes = m_output.next(m_random.between<size_t>(0, 5000));
        std::vector<std::string_view> pieces;
        for (size_t at = 0; at < bytes.size();) {
            const size_t length = std::min(m_random.between<size_t>(0, 300), bytes.size() - at);
            pieces.push_back(std::string_view(bytes).substr(at, length));
            at += length;
        }
        if (m_connection.write(pieces.data(), pieces.size())) {
            m_output.made(bytes.size());
        } else {
            note_refusal(bytes.size());
        }
    }
    /// Only what does not fit is refused. What waits can only have become less since.
    void note_refusal(size_t size) {
        m_refused += m_options.policy == Kit::OutputPolicy::DROP ? 1 : 0;
        EXPECT_GT(size, 0U);
        EXPECT_EQ(m_refused, m_connection.dropped());
    }
    void read_at_peer(size_t most) {
        const std::string bytes = m_peer->take(most);
        EXPECT_TRUE(m_output.come(bytes)) << "after byte " << m_output.come();
    }
    void send_from_peer() { m_sent.made(m_peer->offer(m_sent.next(m_random.between<size_t>(1, 30000)))); }
    void post() {
        const int number = static_cast<int>(m_posted.size());
        EXPECT_TRUE(m_connection.post([noted = m_noted, number, token = m_live.token()](Kit::Connection&) {
            noted->in_call([&] { noted->posted.push_back(number); });
        }));
        m_posted.push_back(number);
    }

    void wait_for_end(Kit::CloseReason reason) {
        ASSERT_EVENTUALLY(m_noted->ends == 1);
        EXPECT_EQ(reason, m_noted->reason);
    }
    /// All that was taken arrives, and then the end.
    void read_to_the_end() {
        ASSERT_TRUE(eventually([this] {
            read_at_peer(100000);
            return m_output.come() == m_output.count();
        }));
        EXPECT_TRUE(m_peer->is_over());
    }
    void end_by_close() {
        m_connection.close();
        EXPECT_FALSE(m_connection.isOpen());
        read_to_the_end();
        wait_for_end(Kit::CloseReason::CLOSED);
        EXPECT_LE(m_noted->input.come(), m_sent.count());
    }
    void end_by_abort() {
        m_connection.abort();
        wait_for_end(Kit::CloseReason::ABORTED);
        read_at_peer(1 << 21);
        EXPECT_LE(m_output.come(), m_output.count());
    }
    /// Each side reads all that the other one has sent.
    void end_by_both_directions() {
        m_connection.resume();
        EXPECT_TRUE(m_connection.finish());
        EXPECT_FALSE(m_connection.finish());
        read_to_the_end();
        m_peer->finish();
        EXPECT_EVENTUALLY(m_noted->peer_ends == 1);
        EXPECT_EQ(m_sent.count(), m_noted->read);
        EXPECT_EQ(0, m_noted->ends);
        m_connection.close();
        wait_for_end(Kit::CloseReason::CLOSED);
    }
    /// The end of the peer comes after its last byte, and nothing ends by it alone.
    void end_by_peer() {
        m_connection.resume();
        m_peer->finish();
        ASSERT_TRUE(eventually([this] {
            read_at_peer(100000);  // what waits may be a reason not to read
            return m_noted->peer_ends == 1;
        }));
        EXPECT_EQ(m_sent.count(), m_noted->read);
        m_connection.close();
        read_to_the_end();
        wait_for_end(Kit::CloseReason::CLOSED);
    }

    SeededRandom& m_random;
    Live& m_live;
    const std::shared_ptr<Noted> m_noted;
    Kit::ConnectionOptions m_options;
    std::unique_ptr<Peer> m_peer;
    Kit::Connection m_connection;
    Bytes m_output{'A'};
    Bytes m_sent{'a'};
    std::vector<int> m_posted;
    int m_delayed = 0;
    int m_rooms = 0;
    uint64_t m_refused = 0;
};

TEST(KitConnectionModel, RandomOperationsDoWhatTheModelSays) {
    SeededRandom random;
    Live live;
    Kit::Pool pool(2);
    for (int round = 0; round < 60 && !testing::Test::HasFailure(); ++round) {
        std::vector<std::unique_ptr<ModelledConnection>> connections;
        for (int i = 0; i < 4; ++i) {
            connections.push_back(std::make_unique<ModelledConnection>(pool, random, live));
        }
        for (int step = 0; step < 300; ++step) {
            connections[random.between<size_t>(0, connections.size() - 1)]->step();
        }
        for (const auto& connection : connections) {
            connection->end();
        }
        EXPECT_EVENTUALLY(live.count() == 0);
    }
}

}  // namespace
}  // namespace Orvex::Testing
