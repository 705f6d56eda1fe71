// CMediaBuffer and CMediaStreamSender against a plain model: random packets, clients that come, go and come
// again, sockets that take a little, nothing, or fail. After every operation the bytes on every wire, every
// counter and the order of all releases must agree.
#include "Core/record/EventFreeList.h"
#include "support/SeededRandom.h"
#include "support/media/MediaFixture.h"
#include "support/media/MediaModel.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr int ROUNDS = 150;
constexpr int STEPS = 400;

// How a round goes.
struct Mood {
    bool tails;      // sockets are handed over with GetTailPacket
    bool clears;     // the buffer is cleared
    bool returns;    // clients come again
    bool hollow;     // frames without a byte
    unsigned rooms;  // one in this number of operations gives a socket room
    int channels;
};

struct Pair {
    MediaClient real;
    ModelSender model;
    std::vector<std::tuple<int, int, int>> finished;
    std::map<const CMediaPacket*, int>* numbers = nullptr;
    bool used = false;

    void on_finished(CMediaPacket* packet, int arg, int len) {
        finished.emplace_back(packet == nullptr ? -1 : numbers->at(packet), arg, len);
    }
};

}  // namespace

class MediaBufferModel : public MediaFixture {
protected:
    ~MediaBufferModel() override { drop_pairs(); }

    void drop_pairs() {
        for (const auto& pair : pairs) {
            if (buffer) {
                buffer->DelSender(pair->real.sender);
            }
            pair->real.sender->Close();
        }
        serveAll();
        pairs.clear();
    }

    void new_round() {
        drop_pairs();
        buffer.reset();
        for (const TestPacket& made : packets) {
            ASSERT_EQ(1, made.releases);
        }
        packets.clear();
        released.clear();
        numbers.clear();
        info.clear();
        buffer = std::make_unique<CMediaBuffer>();
        model = MediaModel();
        mood = {random.oneIn(3), random.oneIn(4),         random.oneIn(2),
                random.oneIn(3), random.between(2u, 12u), random.oneIn(2) ? 1 : random.between(2, 8)};
        const int clients_now = random.between(1, 5);
        for (int i = 0; i < clients_now; ++i) {
            pairs.push_back(std::make_unique<Pair>());
            Pair& pair = *pairs.back();
            pair.numbers = &numbers;
            pair.real.sender->AttachSendProc({&Pair::on_finished, &pair});
            model.everybody.push_back(&pair.model);
        }
    }

    TestPacket& numbered(std::size_t length) {
        TestPacket& made = packet(length);
        numbers[&made] = static_cast<int>(packets.size()) - 1;
        return made;
    }

    void put_packet() {
        const bool last = !random.oneIn(3);
        const std::size_t length =
            mood.hollow && random.oneIn(8) ? 0 : random.between<std::size_t>(1, last ? 12 : 6);
        TestPacket& made = numbered(length);
        const int level = random.oneIn(4) ? random.between(-1, 12) : random.oneIn(5) ? 2 : 8;
        const int channel = random.between(0, mood.channels - 1);
        const int mark = last ? 1 : random.oneIn(20) ? 2 : 0;
        model.put(numbers[&made], made.bytes(), mark, channel, level);
        buffer->Put(&made, made.length(), mark, mediaLevel(channel, level));
    }

    void put_info() {
        TestPacket& made = numbered(1);
        info.insert(&made);
        const int arg = random.between(0, 9);
        model.put_info(numbers[&made], arg);
        buffer->PutFrameInfo(&made, arg);
    }

    void change_socket(Pair& pair) {
        const std::size_t room =
            random.oneIn(3) ? ShapedStream::UNLIMITED : random.between<std::size_t>(0, 30);
        pair.model.room = room;
        pair.real.sock.setRoom(room);
        const bool breaks = random.oneIn(40);
        if (breaks || pair.model.broken) {
            pair.model.broken = breaks;
            breaks ? pair.real.sock.fail(EPIPE) : pair.real.sock.recover();
        }
        if (breaks) {
            pair.model.room = 0;
            pair.real.sock.setRoom(0);
        }
    }

    void change_client(Pair& pair) {
        if (pair.model.listed) {
            model.del(pair.model);
            buffer->DelSender(pair.real.sender);
        } else if (!pair.used || mood.returns) {
            pair.used = true;
            if (!pair.model.wants_message) {
                pair.model.wants_message = true;
                pair.real.sender->WaitException(waiter->GetID());
            }
            model.add(pair.model);
            buffer->AddSender(pair.real.sender);
        }
    }

    void take_tail(Pair& pair) {
        char bytes[16];
        std::string copied;
        const int limit = random.between(1, 16);
        const int expected = model.tail(pair.model, limit, &copied);
        ASSERT_EQ(pair.real.sender->GetTailPacket(bytes, limit), expected);
        if (expected > 0) {
            ASSERT_EQ(std::string(bytes, static_cast<std::size_t>(expected)), copied);
        }
    }

    void change_channels(Pair& pair) {
        const int channel = random.between(-1, mood.channels - 1);
        unsigned& mask = pair.model.mask;
        if (channel >= 0 && random.oneIn(3)) {
            mask &= ~(1U << channel);
            pair.real.sender->DisableSendChannel(channel);
            return;
        }
        mask = channel < 0 ? 255 : (mask == 255 ? 0 : mask) | 1U << channel;
        pair.real.sender->SetSendChannel(channel);
    }

    void send_other(Pair& pair) {
        const std::string bytes(random.between<std::size_t>(1, 9), 'O');
        pair.model.other += bytes;
        pair.real.sender->SendOtherData(bytes.data(), static_cast<int>(bytes.size()));
    }

    void one_step() {
        Pair& pair = *pairs[random.between<std::size_t>(0, pairs.size() - 1)];
        if (random.oneIn(mood.rooms)) {
            change_socket(pair);
        }
        const unsigned what = random.between(1u, 100u);
        if (what <= 55) {
            put_packet();
        } else if (what <= 75) {
            const int ticks = random.oneIn(4) ? random.between(1, 30) : 1;
            for (int i = 0; i < ticks; ++i) {
                model.do_send();
                buffer->do_send();
            }
        } else if (what <= 85) {
            change_client(pair);
        } else if (what <= 89) {
            send_other(pair);
        } else if (what <= 93) {
            change_channels(pair);
        } else if (what <= 96) {
            put_info();
        } else if (what <= 99 && mood.tails) {
            take_tail(pair);
        } else if (what == 100 && mood.clears) {
            model.clear();
            buffer->Clear();
        }
    }

    void compare_frames() {
        ASSERT_EQ(frames(), model.frames.size());
        const CFrame* real = head();
        for (const ModelFramePtr& f : model.frames) {
            ASSERT_EQ(real->m_frame_len, f->len);
            ASSERT_EQ(real->m_sent_len, f->sent);
            ASSERT_EQ(real->m_packet_num, f->packets.size());
            ASSERT_EQ(real->m_mark, f->mark);
            ASSERT_EQ(real->level(), f->level);
            ASSERT_EQ(real->channel(), f->channel);
            ASSERT_EQ(real->m_valid, f->valid);
            ASSERT_EQ(real->m_age, f->age);
            ASSERT_EQ(real->m_key_mask, f->key_mask);
            ASSERT_EQ(real->m_sender_count, f->count);
            for (std::size_t i = 0; i < f->bytes.size(); ++i) {
                ASSERT_EQ(
                    std::string(static_cast<char*>(real->m_iovec[i].iov_base), real->m_iovec[i].iov_len),
                    f->bytes[i]);
            }
            real = real->m_next;
        }
    }

    void compare_client(const Pair& pair) {
        const SenderRecord& real = pair.real.state();
        const ModelSender& s = pair.model;
        ASSERT_EQ(pair.real.sock.wire(), s.wire);
        ASSERT_EQ(pair.real.sock.calls().size(), static_cast<std::size_t>(s.writes));
        ASSERT_EQ(real.m_send_total, s.total);
        ASSERT_EQ(real.m_frame != nullptr, s.frame != nullptr);
        ASSERT_EQ(real.m_iovec_offset, static_cast<int>(s.offset));
        ASSERT_EQ(real.m_frame_left, s.frame ? s.left : real.m_frame_left);
        if (s.frame && !s.frame->gone) {
            ASSERT_EQ(real.m_iovec_index, static_cast<int>(s.index));
        }
        ASSERT_EQ(real.m_other_len, static_cast<int>(s.other.size()));
        ASSERT_EQ(real.m_block_count, s.blocks);
        ASSERT_EQ(real.m_channel_mask, s.mask);
        ASSERT_EQ(real.m_lost_mask, s.lost);
        ASSERT_EQ(real.m_list != nullptr, s.listed);
        ASSERT_EQ(pair.finished, s.finished);
    }

    void compare() {
        ASSERT_EQ(released, model.released);
        ASSERT_EQ(byteTotal(), model.byte_total);
        ASSERT_EQ(byteDiscard(), model.byte_discard);
        ASSERT_EQ(sendReady(), model.send_ready);
        ASSERT_EQ(hasSender(), model.has_sender);
        ASSERT_EQ(buffer->GetBufferNum(), model.valid_num);
        for (int channel = 0; channel < 8; ++channel) {
            ASSERT_EQ(minLevel(channel), model.min_level[channel]);
        }
        const SenderRecord* entry = firstSender();
        for (const ModelSender* s : model.listed) {
            const auto pair = std::find_if(pairs.begin(), pairs.end(),
                                           [s](const auto& candidate) { return &candidate->model == s; });
            ASSERT_EQ(entry, &(*pair)->real.state());
            entry = (*pair)->real.state().m_next;
        }
        ASSERT_EQ(nullptr, entry);
        compare_frames();
        for (const auto& pair : pairs) {
            compare_client(*pair);
        }
    }

    void compare_messages() {
        std::map<long, int> found;
        for (CEvent* ev : rig.takeQueue()) {
            if (ev->m_key == EVENT_KEY_MESSAGE && ev->m_receiver == waiter->GetID()) {
                ++found[static_cast<long>(ev->m_obj_id)];
            }
            putEvent(ev);
        }
        for (const auto& pair : pairs) {
            ASSERT_EQ(found[pair->real.sender->GetID()], pair->model.messages);
        }
    }

    SeededRandom random;
    LogCapture quiet{1};
    Mood mood{};
    MediaModel model;
    std::map<const CMediaPacket*, int> numbers;
    std::vector<std::unique_ptr<Pair>> pairs;
};

TEST_F(MediaBufferModel, AgreesWithThePlainOneInEveryByteAndCounter) {
    for (int round = 0; round < ROUNDS && !HasFatalFailure(); ++round) {
        new_round();
        for (int step = 0; step < STEPS && !HasFatalFailure(); ++step) {
            one_step();
            if (!HasFatalFailure()) {
                compare();
            }
            if (HasFatalFailure()) {
                FAIL() << "round " << round << ", step " << step;
            }
        }
        compare_messages();
    }
    if (!HasFatalFailure()) {
        new_round();
    }
}

}  // namespace Orvex::Testing
