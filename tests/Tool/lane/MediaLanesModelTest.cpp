// CMediaLanes beside plain media buffers: one buffer for each lane, with the same clients, is given the same
// packets and calls. Each client must have the same bytes after each call.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include <Reticor/MediaBuffer.h>

#include "support/SeededRandom.h"
#include "support/media/LaneStand.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

uint64_t below(SeededRandom& random, uint64_t limit) {
    return random.between<uint64_t>(0, limit - 1);
}

// A client of a lane, and its twin on the lane's buffer.
struct Twins {
    unsigned int lane = 0;
    MediaClient real;
    MediaClient plain;
    bool listed = false;

    void both(const std::function<void(MediaClient&)>& call) {
        call(real);
        call(plain);
    }
};

class LaneModel : public LaneStand, public ::testing::WithParamInterface<unsigned int> {
protected:
    void SetUp() override {
        LaneStand::SetUp();
        open(GetParam());
        for (unsigned int lane = 0; lane < GetParam(); ++lane) {
            buffers.push_back(std::make_unique<CMediaBuffer>());
        }
        for (unsigned int i = 0; i < 6; ++i) {
            twins.push_back(std::make_unique<Twins>());
            twins.back()->lane = i % GetParam();
        }
    }
    void TearDown() override {
        for (const auto& pair : twins) {
            remove(*pair);
            pair->both([](MediaClient& client) { client.sender->Close(); });
        }
        buffers.clear();
        LaneStand::TearDown();
        for (const SharedPacket& packet : copies) {
            EXPECT_EQ(1, packet.releases);
        }
    }

    void putBoth(size_t length, int mark, int channel, int level) {
        const std::string bytes = put(length, level, mark, channel);
        for (const auto& buffer : buffers) {
            copies.emplace_back(bytes);
            EXPECT_EQ(0,
                      buffer->Put(&copies.back(), copies.back().length(), mark, mediaLevel(channel, level)));
        }
        filling = mark != MEDIA_MARK_LAST;
    }
    void infoBoth(int arg) {
        putInfo(arg);
        for (const auto& buffer : buffers) {
            copies.emplace_back("i");
            EXPECT_EQ(0, buffer->PutFrameInfo(&copies.back(), arg));
        }
    }
    void tickBoth() {
        lanes.do_send();
        std::for_each(buffers.begin(), buffers.end(), [](const auto& buffer) { buffer->do_send(); });
    }
    void add(Twins& pair) {
        if (!pair.listed) {
            MediaLanesState::of(lanes).add_sender(*pair.real.sender, pair.lane);
            buffers[pair.lane]->AddSender(pair.plain.sender);
            pair.listed = true;
        }
    }
    void remove(Twins& pair) {
        EXPECT_EQ(0, lanes.DelSender(pair.real.sender));
        buffers[pair.lane]->DelSender(pair.plain.sender);
        pair.listed = false;
    }
    void clearBoth() {
        EXPECT_EQ(0, lanes.Clear());
        std::for_each(buffers.begin(), buffers.end(), [](const auto& buffer) { buffer->Clear(); });
        std::for_each(twins.begin(), twins.end(), [](const auto& pair) { pair->listed = false; });
        filling = false;
    }
    void setBoth(const std::function<void(CMediaBuffer&)>& plain) {
        std::for_each(buffers.begin(), buffers.end(), [&](const auto& buffer) { plain(*buffer); });
    }

    void changeClient(SeededRandom& random) {
        Twins& pair = *twins[below(random, twins.size())];
        const auto room = static_cast<size_t>(below(random, 400));
        const int channel = static_cast<int>(below(random, 2));
        switch (below(random, 9)) {
            case 0:
            case 1:
                add(pair);
                break;
            case 2:
                remove(pair);
                break;
            case 3:
            case 4:
                pair.both([room](MediaClient& client) { client.sock.setRoom(room); });
                break;
            case 5:
            case 6:
                pair.both([](MediaClient& client) { client.sock.setRoom(ShapedStream::UNLIMITED); });
                break;
            case 7:
                pair.both([channel](MediaClient& client) { client.sender->SetSendChannel(channel); });
                break;
            default:
                pair.both([](MediaClient& client) { client.sender->SetSendChannel(-1); });
                break;
        }
    }
    void changeStream(SeededRandom& random) {
        switch (below(random, 30)) {
            case 0:
                clearBoth();
                break;
            case 1:
                lanes.SetDisposableLevel(8);
                setBoth([](CMediaBuffer& buffer) { buffer.SetDisposableLevel(8); });
                break;
            case 2:
                lanes.SetStartCache(1000000, 1 << 20);
                setBoth([](CMediaBuffer& buffer) { buffer.SetStartCache(1000000, 1 << 20); });
                break;
            case 3:
                lanes.SetStartCache(0, 0);
                setBoth([](CMediaBuffer& buffer) { buffer.SetStartCache(0, 0); });
                break;
            default:
                tickBoth();
                break;
        }
    }
    void step(SeededRandom& random) {
        const uint64_t what = below(random, 20);
        if (what < 12) {
            const bool key = below(random, 10) == 0;
            const int channel = static_cast<int>(below(random, 2));
            putBoth(below(random, 100), below(random, 3) == 0 ? MEDIA_MARK_MORE : MEDIA_MARK_LAST, channel,
                    key ? 1 : 5 + static_cast<int>(below(random, 5)));
        } else if (what == 12) {
            infoBoth(static_cast<int>(below(random, 100)));
        } else if (what < 16) {
            changeStream(random);
        } else {
            changeClient(random);
        }
    }
    void compare() {
        settle();
        for (size_t i = 0; i < twins.size(); ++i) {
            ASSERT_EQ(twins[i]->plain.sock.wire(), twins[i]->real.sock.wire()) << "client " << i;
            const MediaSenderStats plain = twins[i]->plain.sender->GetStats();
            const MediaSenderStats real = twins[i]->real.sender->GetStats();
            ASSERT_EQ(plain.frames, real.frames);
            ASSERT_EQ(plain.holes, real.holes);
            ASSERT_EQ(plain.hole_frames, real.hole_frames);
            ASSERT_EQ(plain.skipped_frames, real.skipped_frames);
            ASSERT_EQ(plain.listed, real.listed);
        }
    }
    void run(uint32_t seed, int steps) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        SeededRandom random(seed);
        for (int i = 0; i < steps; ++i) {
            step(random);
            compare();
            if (HasFatalFailure()) {
                return;
            }
        }
    }

    std::vector<std::unique_ptr<CMediaBuffer>> buffers;
    std::vector<std::unique_ptr<Twins>> twins;
    std::deque<SharedPacket> copies;
    bool filling = false;
};

}  // namespace

TEST_P(LaneModel, ClientsGetWhatOneBufferSends) {
    run(11, 700);
}

TEST_P(LaneModel, ClientsWithAPolicyGetWhatOneBufferSends) {
    for (size_t i = 0; i < twins.size(); ++i) {
        const MediaResume mode = i % 2 == 0 ? MediaResume::AHEAD : MediaResume::STRICT;
        twins[i]->both([&](MediaClient& client) { client.sender->SetResumePolicy(1000000, mode); });
    }
    run(12, 700);
}

TEST_P(LaneModel, ClientsOfBothKindsGetWhatOneBufferSends) {
    for (size_t i = 0; i < twins.size(); i += 2) {
        twins[i]->both([&](MediaClient& client) { client.sender->SetResumePolicy(1000000); });
    }
    run(13, 700);
}

INSTANTIATE_TEST_SUITE_P(Lanes, LaneModel, ::testing::Values(1U, 2U, 5U));

}  // namespace Orvex::Testing
