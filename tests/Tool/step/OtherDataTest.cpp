// OtherData: bytes are kept whole or not at all, and go out in order.
#include "Tool/step/OtherData.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/media/ShapedStream.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class OtherDataOfASender : public ::testing::Test {
protected:
    void add(const std::string& bytes) { data.add(bytes.data(), static_cast<int>(bytes.size())); }

    Infra::CMutex mutex;
    int32_t length = 0;
    OtherData data{mutex, length};
    ShapedStream sock;
};

TEST_F(OtherDataOfASender, KeepsUpToItsSizeAndDropsWhatDoesNotFitWhole) {
    EXPECT_FALSE(data.waits());
    data.add(nullptr, 3);
    add("");
    data.add("x", -1);
    EXPECT_FALSE(data.waits());
    add(std::string(OtherData::SIZE - 1, 'a'));
    add("bc");
    EXPECT_EQ(OtherData::SIZE - 1, length);
    add("d");
    EXPECT_EQ(OtherData::SIZE, length);
    EXPECT_TRUE(data.waits());
    const OtherData::Sent sent = data.send(SocketWriter(sock));
    EXPECT_EQ(OtherData::SIZE, sent.written);
    EXPECT_EQ(0, sent.left);
    EXPECT_EQ(std::string(OtherData::SIZE - 1, 'a') + "d", sock.wire());
}

TEST_F(OtherDataOfASender, WhatTheSocketLeavesGoesOutNextTime) {
    add("first");
    sock.setRoom(2);
    OtherData::Sent sent = data.send(SocketWriter(sock));
    EXPECT_EQ(2, sent.written);
    EXPECT_EQ(3, sent.left);
    sent = data.send(SocketWriter(sock));
    EXPECT_EQ(0, sent.written);
    EXPECT_EQ(3, sent.left);
    add("+");
    sock.setRoom(ShapedStream::UNLIMITED);
    sent = data.send(SocketWriter(sock));
    EXPECT_EQ(4, sent.written);
    EXPECT_FALSE(data.waits());
    EXPECT_EQ("first+", sock.wire());
}

TEST_F(OtherDataOfASender, AFailureLeavesTheBytes) {
    add("bytes");
    sock.setRoom(0);
    sock.fail(EPIPE);
    const OtherData::Sent sent = data.send(SocketWriter(sock));
    EXPECT_LT(sent.written, 0);
    EXPECT_EQ(5, sent.left);
}

}  // namespace
}  // namespace Orvex::Testing
