// CallerSide: a file's position and buffers, with a device's side that no worker serves.
#include "Tool/file/CallerSide.h"

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;

class CallerSideAlone : public Testing::StillFileFixture {
protected:
    void SetUp() override {
        StillFileFixture::SetUp();
        file = open(newDevice());
        CNStorDev_IF* const its_device = newDevice();
        exchange = std::make_unique<FileExchange>(*file, client->id);
        device = std::make_unique<DeviceSide>(*exchange, its_device);
        EXPECT_EQ(0, device->open("", "r+"));
        side = std::make_unique<CallerSide>(*exchange, *device);
        side->replace_buffers(4);
    }
    void TearDown() override {
        device->close();
        file->Close();
        StillFileFixture::TearDown();
    }
    int write(const std::string& bytes) {
        return side->Write(bytes.data(), static_cast<unsigned>(bytes.size()));
    }

    CNFile* file = nullptr;
    std::unique_ptr<FileExchange> exchange;
    std::unique_ptr<DeviceSide> device;
    std::unique_ptr<CallerSide> side;
};

TEST_F(CallerSideAlone, BytesStayUntilAPassIsMadeAndComeBackByALoad) {
    EXPECT_EQ(4, write("data"));
    EXPECT_EQ(0, side->Seek(-3, 1));
    EXPECT_EQ("", disk->content());
    EXPECT_EQ(PassResult::done, device->write_pass(1));
    EXPECT_EQ("data", disk->content());
    char got[8] = {};
    bool eof = false;
    EXPECT_EQ(0, side->Read(got, 8, eof));
    EXPECT_EQ(PassResult::done, device->read_pass());
    EXPECT_EQ(3, side->Read(got, 8, eof));
    EXPECT_STREQ("ata", got);
    EXPECT_TRUE(eof);
}

TEST_F(CallerSideAlone, WithoutRoomMessage6IsOwedAndPaidByThePass) {
    EXPECT_EQ(static_cast<int>(4 * BLOCK), write(std::string(5 * BLOCK, 'x')));
    EXPECT_TRUE(exchange->m_owed.waiting_write_message());
    EXPECT_EQ(PassResult::done, device->write_pass(1));
    EXPECT_FALSE(exchange->m_owed.waiting_write_message());
}

TEST_F(CallerSideAlone, CloseSaysWhatIsLeftToDo) {
    EXPECT_EQ(CallerSide::Closing::by_task, side->close());
    EXPECT_EQ(CallerSide::Closing::nothing, side->close());
    EXPECT_EQ(0, write("x"));
    EXPECT_EQ(-1, side->Seek(0, 0));
}

TEST_F(CallerSideAlone, WithoutBuffersCloseClosesTheDevice) {
    side->replace_buffers(0);
    EXPECT_EQ(0u, side->buffers());
    EXPECT_EQ(CallerSide::Closing::handler, side->close());
    EXPECT_EQ(1, disk->closes);
}

TEST_F(CallerSideAlone, AFileThatWasDetachedIsWrittenOutByItsEndAndItsOwnersCloseDropsAReference) {
    EXPECT_EQ(4, write("data"));
    EXPECT_TRUE(side->detach());
    EXPECT_EQ(0, write("x"));
    EXPECT_TRUE(side->end());
    EXPECT_EQ("data", disk->content());
    EXPECT_EQ(1, disk->closes);
    EXPECT_EQ(CallerSide::Closing::reference, side->close());
}

TEST_F(CallerSideAlone, AFileThatWasClosedBeforeItsEndKeepsNoReference) {
    side->close();
    EXPECT_FALSE(side->detach());
    EXPECT_TRUE(side->end());
}

}  // namespace
}  // namespace Orvex::Reticor
