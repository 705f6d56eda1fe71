// DeviceSide: passes without a caller's side.
#include "Tool/file/DeviceSide.h"

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::MemoryDevice;

class DeviceSideAlone : public Testing::StillFileFixture {
protected:
    void SetUp() override {
        StillFileFixture::SetUp();
        file = open(newDevice());
        MemoryDevice* const its_device = newDevice();
        device = its_device;
        exchange = std::make_unique<FileExchange>(*file, client->id);
        side = std::make_unique<DeviceSide>(*exchange, its_device);
        EXPECT_EQ(0, side->open("", "r+"));
        EXPECT_TRUE(exchange->m_slots.Allocate(4));
    }
    void TearDown() override {
        side->close();
        file->Close();
        StillFileFixture::TearDown();
    }
    void submit(long long offset, const std::string& bytes) {
        FileSlot& slot = *exchange->m_slots.TakeUnused();
        exchange->m_slots.Occupy(slot, offset);
        slot.block();
        bool full = false;
        slot.Write(bytes.data(), static_cast<unsigned>(bytes.size()), full, offset);
        exchange->m_slots.Submit(slot, CNFileBuf::SUBMIT_WRITE_FREE);
    }

    CNFile* file = nullptr;
    MemoryDevice* device = nullptr;
    std::unique_ptr<FileExchange> exchange;
    std::unique_ptr<DeviceSide> side;
};

TEST_F(DeviceSideAlone, AWritePassWritesWhatIsSubmitted) {
    submit(0, "data");
    EXPECT_EQ(PassResult::done, side->write_pass(0));
    EXPECT_EQ("data", disk->content());
    EXPECT_EQ(PassResult::done, side->write_pass(0));
    EXPECT_EQ(1, disk->writes);
}

TEST_F(DeviceSideAlone, APassSaysThatItWasRefusedOrThatTheDeviceFailed) {
    submit(0, "data");
    device->on_write = [this](unsigned) {
        EXPECT_EQ(PassResult::refused, side->write_pass(1));
        return -1;
    };
    EXPECT_EQ(PassResult::failed, side->write_pass(1));
    EXPECT_EVENTUALLY(client->errors() == 1);
    device->on_write = [](unsigned) { return -1; };
    EXPECT_FALSE(side->write_out_at_end());
    device->on_write = nullptr;
    EXPECT_TRUE(side->write_out_at_end());
    EXPECT_EQ("data", disk->content());
}

TEST_F(DeviceSideAlone, APassIsCutShortForAChangeOfBuffers) {
    submit(0, "data");
    side->cut_passes_short();
    EXPECT_EQ(PassResult::cut, side->write_pass(1));
    EXPECT_EQ(0, disk->writes);
    {
        Infra::CGuard pass(side->m_pass_mutex);
        side->allow_passes();
    }
    EXPECT_EQ(PassResult::done, side->write_pass(1));
}

TEST_F(DeviceSideAlone, AReadPassLoadsAndPays) {
    disk->bytes = "0123456789";
    FileSlot& slot = *exchange->m_slots.TakeUnused();
    exchange->m_load.read_start();
    exchange->m_owed.need_read_message();
    exchange->m_slots.SubmitLoad(slot, 3);
    EXPECT_EQ(PassResult::done, side->read_pass());
    EXPECT_FALSE(exchange->m_load.reading());
    EXPECT_FALSE(exchange->m_owed.waiting_read_message());
    EXPECT_EQ(10, slot.end());
    EXPECT_TRUE(slot.m_eof);
}

TEST_F(DeviceSideAlone, CloseComesOnce) {
    EXPECT_FALSE(side->closed());
    side->close();
    side->close();
    EXPECT_TRUE(side->closed());
    EXPECT_EQ(1, disk->closes);
}

}  // namespace
}  // namespace Orvex::Reticor
