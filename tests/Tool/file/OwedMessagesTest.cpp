// OwedMessages: what is owed is paid once. PendingLoad and KnownInfo, which are as small.
#include "Tool/file/OwedMessages.h"

#include "Tool/file/KnownInfo.h"
#include "Tool/file/PendingLoad.h"
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
    // All messages that were posted so far have come.
    void await() {
        const int before = client->errors();
        owed->tell(FILE_MSG_ERROR);
        EXPECT_EVENTUALLY(client->errors() == before + 1);
    }

    CNFile* file = nullptr;
    std::unique_ptr<OwedMessages> owed;
};

TEST_F(OwedMessagesOfAFile, NothingIsPaidThatIsNotOwed) {
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

TEST_F(OwedMessagesOfAFile, AStalledReadIsPaidByAPassThatWrites) {
    owed->need_read_message_from_pass();
    owed->notify_stalled_read();
    EXPECT_FALSE(owed->waiting_read_message());
    owed->notify_read_message();
    await();
    EXPECT_EQ(1, client->loads());
}

TEST_F(OwedMessagesOfAFile, OnceSilentTheyAreNoLongerPosted) {
    owed->need_write_message();
    await();
    owed->be_silent();
    owed->notify_write_message();
    owed->tell(FILE_MSG_ERROR);
    OwedMessages(*file, client->id).tell(FILE_MSG_READ);
    EXPECT_EVENTUALLY(client->loads() == 1);
    EXPECT_EQ(0, client->rooms());
    EXPECT_EQ(1, client->errors());
}

TEST(PendingLoad, LastsFromTheQuestionToTheEnd) {
    PendingLoad load;
    EXPECT_FALSE(load.reading());
    EXPECT_TRUE(load.read_start());
    EXPECT_FALSE(load.read_start());
    EXPECT_TRUE(load.reading());
    load.read_end();
    EXPECT_FALSE(load.reading());
}

TEST(KnownInfo, SaysWhetherTheDeviceKnew) {
    KnownInfo known;
    NFile_Info info;
    EXPECT_FALSE(known.get(info));
    info.size = 5;
    known.set(info);
    info.size = 0;
    EXPECT_FALSE(known.get(info)) << "without a time of creation";
    EXPECT_EQ(5, info.size);
    info.time_create = 1;
    known.set(info);
    EXPECT_TRUE(known.get(info));
}

}  // namespace
}  // namespace Orvex::Reticor
