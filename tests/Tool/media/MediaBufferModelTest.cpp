// CMediaBuffer and CMediaStreamSender against a plain model: random packets, clients that come, go and come
// again, sockets that take a little, nothing, or fail. After every operation the bytes on every wire, every
// counter and the order of all releases must agree.
#include "Core/record/EventFreeList.h"
#include "support/HandClock.h"
#include "support/SeededRandom.h"
#include "support/media/KeeperModel.h"
#include "support/media/MediaFixture.h"
#include "support/media/MediaModel.h"
#include "support/media/PlainBatch.h"

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
    bool asks = true;  // It hears of each frame.

    void on_finished(CMediaPacket* packet, int arg, int len) {
        finished.emplace_back(packet == nullptr ? -1 : numbers->at(packet), arg, len);
    }
};

}  // namespace

class MediaBufferModel : public MediaFixture {
protected:
    ~MediaBufferModel() override { drop_pairs(); }

    // For senders that are not the plain model's.
    virtual void on_put(const std::string&, bool, int) {}
    virtual void on_tick() {}
    virtual bool in_order() const { return true; }

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
        batched += buffer ? PlainBatch::writesOf(*buffer) : 0;
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
        if (batches) {
            PlainBatch::set(*buffer, random.between<std::size_t>(1, 3));
        }
        for (int i = 0; i < clients_now; ++i) {
            pairs.push_back(std::make_unique<Pair>());
            Pair& pair = *pairs.back();
            pair.numbers = &numbers;
            pair.asks = !batches || random.oneIn(6);
            if (pair.asks) {
                pair.real.sender->AttachSendProc({&Pair::on_finished, &pair});
            }
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
        on_put(made.bytes(), mark == 1, channel);
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
                on_tick();
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
        if (pair.asks) {
            ASSERT_EQ(pair.finished, s.finished);
        }
    }

    void compare() {
        if (in_order()) {
            ASSERT_EQ(released, model.released);
        }
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
            if (s->keeper) {
                entry = entry->m_next;
                continue;
            }
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
            put_event(ev);
        }
        for (const auto& pair : pairs) {
            ASSERT_EQ(found[pair->real.sender->GetID()], pair->model.messages);
        }
    }

    void run_rounds() {
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

    bool batches = false;  // The writes of a step are made together, where they are certain.
    uint64_t batched = 0;
    SeededRandom random;
    LogCapture quiet{1};
    Mood mood{};
    MediaModel model;
    std::map<const CMediaPacket*, int> numbers;
    std::vector<std::unique_ptr<Pair>> pairs;
};

TEST_F(MediaBufferModel, AgreesWithThePlainOneInEveryByteAndCounter) {
    run_rounds();
    EXPECT_EQ(0U, batched);
}

TEST_F(MediaBufferModel, AgreesWithItWhenTheWritesOfAStepAreMadeTogether) {
    batches = true;
    run_rounds();
    EXPECT_GT(batched, 1000U);
}

// The same with senders beside them that step ahead. To the plain model, and so to all that the others get,
// they are senders that have always caught up; what they get themselves is told by a model of their own.
class MediaMixedModel : public MediaBufferModel {
protected:
    static constexpr unsigned KEEP_MS = 3000;

    struct Keeper {
        MediaClient real;
        KeeperSender model;
        ModelSender ghost;
    };

    ~MediaMixedModel() override { drop_keepers(); }

    void drop_keepers() {
        for (const auto& keeper : keepers) {
            if (buffer) {
                buffer->DelSender(keeper->real.sender);
            }
            keeper->real.sender->Close();
        }
        serveAll();
        keepers.clear();
    }

    bool in_order() const override { return false; }

    void new_mixed_round() {
        drop_keepers();
        new_round();
        mood.clears = false;  // One keeper stays all the time, so that the book is never closed.
        stream = KeeperStream();
        stream.keep_us = KEEP_MS * 1000;
        set_start_cache();
        stream.disposable_level = random.oneIn(3) ? 0 : random.between(2, 9);
        buffer->SetDisposableLevel(stream.disposable_level);
        buffer->SetKeepLimits(KEEP_MS, 1 << 30);
        filling.clear();
        std::fill(std::begin(ordinals), std::end(ordinals), 0);
        pace_us = random.oneIn(2) ? 20000 : 150000;
        const int count = random.between(1, 4);
        for (int i = 0; i < count; ++i) {
            add_keeper();
        }
    }

    // None here.
    virtual void set_start_cache() {}

    void add_keeper() {
        keepers.push_back(std::make_unique<Keeper>());
        Keeper& one = *keepers.back();
        const unsigned limit_ms = random.between(50u, 1500u);
        const unsigned hard_ms = random.oneIn(3) ? random.between(100u, 3500u) : 0;
        one.model.limit_us = limit_ms * 1000;
        one.model.hard_us = hard_ms * 1000;
        one.real.sender->SetResumePolicy(limit_ms, MediaResume::AHEAD, hard_ms);
        one.ghost.keeper = true;
        one.model.at_key = stream.start_bytes != 0 && random.oneIn(3);
        one.real.sender->SetStartMode(one.model.at_key ? MediaStart::NEXT_KEY : MediaStart::BURST);
        list(one);
    }

    void list(Keeper& one) {
        stream.now_us = clock.nowUs();
        one.model.add(stream);
        if (stream.start_bytes != 0) {
            trim();
        }
        model.add(one.ghost);
        buffer->AddSender(one.real.sender);
    }

    void on_put(const std::string& bytes, bool last, int channel) override {
        filling += bytes;
        if (!last) {
            return;
        }
        const int64_t ordinal = ++ordinals[channel];
        KeeperFramePtr f;
        if (!filling.empty()) {
            f = std::make_shared<KeeperFrame>();
            f->bytes.swap(filling);
            f->channel = channel;
            f->level = last_level();
            f->key = f->level == model.min_level[channel];
            f->ordinal = ordinal;
            stream.now_us = clock.nowUs();
            stream.keep(f);
            stream.offered = f;
            for (const auto& one : keepers) {
                if (one->model.listed) {
                    one->model.offer(f, f->key);
                }
            }
        }
        turns();
        stream.offered.reset();
    }

    // The model has opened the next frame after it.
    int last_level() const { return model.completed_level; }

    void on_tick() override {
        if (model.send_ready) {
            turns();
        }
    }

    void turns() {
        stream.now_us = clock.nowUs();
        for (const auto& one : keepers) {
            if (one->model.listed) {
                one->model.turn(stream);
            }
        }
        trim();
    }

    void trim() {
        stream.trim_starts();
        const KeeperFramePtr held = stream.first_held();
        std::vector<KeeperFramePtr> left;
        for (const KeeperFramePtr& f : stream.kept) {
            if (stream.now_us <= f->made_us + stream.keep_us || is_begun(f) ||
                (held && f->number >= held->number)) {
                left.push_back(f);
            }
        }
        stream.kept.swap(left);
        for (const auto& one : keepers) {
            one->model.trim(stream.kept);
        }
    }

    bool is_begun(const KeeperFramePtr& f) const {
        return std::any_of(keepers.begin(), keepers.end(), [&f](const auto& one) {
            return one->model.listed && one->model.begun() && one->model.queue.front() == f;
        });
    }

    void keeper_step() {
        clock.advanceUs(random.between<int64_t>(0, 2 * pace_us));
        Keeper& one = *keepers[random.between<std::size_t>(0, keepers.size() - 1)];
        const unsigned what = random.between(1u, 40u);
        if (what <= 20) {
            const std::size_t room =
                random.oneIn(6) ? ShapedStream::UNLIMITED : random.between<std::size_t>(0, 25);
            one.model.room = room;
            one.real.sock.setRoom(room);
        } else if (what == 21 && &one != keepers.front().get()) {
            pause_or_go_on(one);
        } else if (what == 22) {
            const int channel = random.between(-1, mood.channels - 1);
            unsigned& mask = one.model.mask;
            mask = channel < 0 ? 255 : (mask == 255 ? 0 : mask) | 1U << channel;
            one.real.sender->SetSendChannel(channel);
        } else if (what == 23) {
            one.model.other += "OO";
            one.real.sender->SendOtherData("OO", 2);
        }
    }

    void pause_or_go_on(Keeper& one) {
        if (!one.model.listed) {
            list(one);
            return;
        }
        one.model.del();
        model.del(one.ghost);
        buffer->DelSender(one.real.sender);
    }

    void compare_keepers() {
        for (const auto& one : keepers) {
            const SenderRecord& real = one->real.state();
            ASSERT_EQ(one->model.wire, one->real.sock.wire());
            ASSERT_EQ(one->model.joined, real.m_joined);
            ASSERT_EQ(one->model.queue.empty(), real.m_frame == nullptr);
            ASSERT_EQ(static_cast<uint64_t>(one->model.delivered), real.m_stats.frames);
            ASSERT_EQ(static_cast<uint64_t>(one->model.left_out),
                      one->real.sender->GetStats().thinned_frames);
        }
    }

    void run_round(int round) {
        new_mixed_round();
        for (int step = 0; step < STEPS && !HasFatalFailure(); ++step) {
            keeper_step();
            one_step();
            if (!HasFatalFailure()) {
                compare();
            }
            if (!HasFatalFailure()) {
                compare_keepers();
            }
            if (HasFatalFailure()) {
                FAIL() << "round " << round << ", step " << step;
            }
        }
        for (const auto& one : keepers) {
            skips += one->real.sender->GetStats().skips;
            left_out += one->real.sender->GetStats().thinned_frames;
        }
    }

    void run_mixed_rounds() {
        for (int round = 0; round < ROUNDS && !HasFatalFailure(); ++round) {
            run_round(round);
        }
        if (!HasFatalFailure()) {
            EXPECT_GT(skips, 100U) << "they did step ahead";
            EXPECT_GT(left_out, 100U);
            drop_keepers();
            new_round();
        }
    }

    HandClock clock;
    KeeperStream stream;
    std::vector<std::unique_ptr<Keeper>> keepers;
    std::string filling;
    int64_t ordinals[8] = {};
    int64_t pace_us = 0;
    uint64_t skips = 0;
    uint64_t left_out = 0;
};

TEST_F(MediaMixedModel, WhoeverStepsAheadChangesNothingForTheOthers) {
    run_mixed_rounds();
}

TEST_F(MediaMixedModel, NorDoesItWhenTheWritesOfAStepAreMadeTogether) {
    batches = true;
    run_mixed_rounds();
    EXPECT_GT(batched, 1000U);
}

// And with frames held for those that come and come again.
class MediaStartModel : public MediaMixedModel {
protected:
    void set_start_cache() override {
        const unsigned keep_ms = random.oneIn(2) ? 60000 : random.between(100u, 3000u);
        stream.start_us = keep_ms * 1000;
        stream.start_bytes = random.oneIn(2) ? 1 << 30 : random.between(10u, 200u);
        buffer->SetStartCache(keep_ms, stream.start_bytes);
        model.keepers_begin_with_cache = true;
    }

    void run_start_rounds() {
        uint64_t starts = 0;
        for (int round = 0; round < ROUNDS / 3 && !HasFatalFailure(); ++round) {
            run_round(round);
            MediaStartStats stats;
            buffer->GetStartStats(&stats);
            starts += stats.starts;
        }
        EXPECT_GT(starts, 100U);
    }
};

TEST_F(MediaStartModel, WhoeverBeginsWithTheCacheChangesNothingForTheOthers) {
    run_start_rounds();
}

TEST_F(MediaStartModel, NorDoesItWhenTheWritesOfAStepAreMadeTogether) {
    batches = true;
    run_start_rounds();
    EXPECT_GT(batched, 1000U);
}

}  // namespace Orvex::Testing
