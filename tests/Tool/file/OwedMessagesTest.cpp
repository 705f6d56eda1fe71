// OwedMessages: what is owed is paid once, to the one who waits for it.
#include "Tool/file/OwedMessages.h"

#include "support/KernelThread.h"
#include "support/core/Probes.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

class OwedMessagesOfAFile : public Testing::StillFileFixture {
protected:
    void SetUp() override {
        StillFileFixture::SetUp();
        file = open(newDevice());
        owed = std::make_unique<OwedMessages>(*file, client->id);
    }
    void TearDown() override {
        closed(file);
        StillFileFixture::TearDown();
    }
    // All messages that were posted so far have come: each worker is done with what it had before.
    static void await() {
        const int workers = ThreadPoolProbe::workers(*PoolTable::Get(0));
        std::atomic<int> here{0};
        std::vector<Testing::TestHandler*> guests;
        for (int i = 0; i < workers; ++i) {
            guests.push_back(new Testing::TestHandler);
            guests.back()->on_message = [&](long, unsigned int, long) {
                ++here;
                EXPECT_EVENTUALLY(here == workers);
                return 0;
            };
        }
        for (Testing::TestHandler* const guest : guests) {
            guest->Notify(guest->GetID(), 1, 0);
        }
        EXPECT_EVENTUALLY(here == workers);
        for (Testing::TestHandler* const guest : guests) {
            closeAndWait(guest);
        }
    }

    CNFile* file = nullptr;
    std::unique_ptr<OwedMessages> owed;
};

TEST_F(OwedMessagesOfAFile, AMessageComesFromTheFileWithNothingAttached) {
    auto* const receiver = new Testing::TestHandler;
    const std::shared_ptr<Testing::HandlerLife> life = receiver->life;
    const long its_file = file->GetID();
    receiver->on_message = [its_file](long sender, unsigned int msg, long attach) {
        EXPECT_EQ(its_file, sender);
        EXPECT_EQ(static_cast<unsigned>(FILE_MSG_ERROR), msg);
        EXPECT_EQ(0, attach);
        return 0;
    };
    OwedMessages(*file, receiver->GetID()).tell(FILE_MSG_ERROR);
    EXPECT_EVENTUALLY(life->messages == 1);
    closeAndWait(receiver);
}

TEST_F(OwedMessagesOfAFile, NothingIsPaidThatIsNotOwed) {
    EXPECT_FALSE(owed->waiting_read_message());
    EXPECT_FALSE(owed->waiting_write_message());
    owed->notify_read_message();
    owed->notify_write_message();
    owed->notify_stalled_read();
    await();
    EXPECT_EQ(0, client->loads() + client->rooms());
}

TEST_F(OwedMessagesOfAFile, EachIsPaidOnce) {
    owed->need_read_message();
    owed->need_write_message();
    EXPECT_TRUE(owed->waiting_read_message());
    EXPECT_TRUE(owed->waiting_write_message());
    for (int i = 0; i < 2; ++i) {
        owed->notify_stalled_read();
        owed->notify_read_message();
        owed->notify_write_message();
    }
    EXPECT_FALSE(owed->waiting_read_message());
    EXPECT_FALSE(owed->waiting_write_message());
    EXPECT_EVENTUALLY(client->loads() == 1 && client->rooms() == 1);
    await();
    EXPECT_EQ(2, client->loads() + client->rooms());
}

TEST_F(OwedMessagesOfAFile, WhatIsOwedTwiceIsPaidOnce) {
    owed->need_read_message();
    owed->need_read_message();
    owed->need_write_message();
    owed->need_write_message();
    owed->notify_read_message();
    owed->notify_write_message();
    await();
    EXPECT_EQ(1, client->loads());
    EXPECT_EQ(1, client->rooms());
}

TEST_F(OwedMessagesOfAFile, TheOneIsPaidWithoutTheOther) {
    owed->need_read_message();
    owed->need_write_message();
    owed->notify_write_message();
    EXPECT_TRUE(owed->waiting_read_message());
    await();
    EXPECT_EQ(0, client->loads());
    owed->notify_read_message();
    await();
    EXPECT_EQ(1, client->loads());
}

TEST_F(OwedMessagesOfAFile, AReadThatWaitsForItsLoadIsNotPaidByAPassThatWrites) {
    owed->need_read_message();
    owed->notify_stalled_read();
    EXPECT_TRUE(owed->waiting_read_message());
    await();
    EXPECT_EQ(0, client->loads());
}

TEST_F(OwedMessagesOfAFile, AStalledReadIsPaidByAPassThatWrites) {
    owed->need_read_message_from_pass();
    EXPECT_TRUE(owed->waiting_read_message());
    owed->notify_stalled_read();
    EXPECT_FALSE(owed->waiting_read_message());
    owed->notify_read_message();
    await();
    EXPECT_EQ(1, client->loads());
}

TEST_F(OwedMessagesOfAFile, AStalledReadThatALoadHasPaidIsNotPaidAgain) {
    owed->need_read_message_from_pass();
    owed->notify_read_message();
    owed->need_read_message();
    owed->notify_stalled_read();
    EXPECT_TRUE(owed->waiting_read_message()) << "it is the load's to pay";
    await();
    EXPECT_EQ(1, client->loads());
}

// The caller's thread and a worker may both find that it is time.
TEST_F(OwedMessagesOfAFile, TwoThatPayAtTheSameTimePayOnce) {
    owed->need_write_message();
    std::vector<std::thread> payers;
    std::atomic<int> ids[2] = {};
    {
        // Nothing can be posted for a while: the first one stays on its way, and the second meets it there.
        Infra::CGuard guard(EventQueueProbe::mutex(PoolTable::Get(0)->m_event));
        for (std::atomic<int>& id : ids) {
            payers.emplace_back([this, &id] {
                id = Testing::kernelThreadId();
                owed->notify_write_message();
            });
            EXPECT_EVENTUALLY(id != 0 && Testing::sleepsInFutex(id));
        }
    }
    for (std::thread& payer : payers) {
        payer.join();
    }
    await();
    EXPECT_EQ(1, client->rooms());
}

TEST_F(OwedMessagesOfAFile, OnceSilentTheyAreNoLongerPosted) {
    owed->need_write_message();
    owed->tell(FILE_MSG_ERROR);
    await();
    owed->be_silent();
    owed->notify_write_message();
    EXPECT_FALSE(owed->waiting_write_message()) << "paid, though nobody hears of it";
    owed->tell(FILE_MSG_ERROR);
    OwedMessages(*file, client->id).tell(FILE_MSG_READ);
    EXPECT_EVENTUALLY(client->loads() == 1);
    EXPECT_EQ(0, client->rooms());
    EXPECT_EQ(1, client->errors());
}

}  // namespace
}  // namespace Orvex::Reticor
