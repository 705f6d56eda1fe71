// OwnerDoor: sockets that a helper registers on its owner.
#include "Core/handle/OwnerDoor.h"

#include <gtest/gtest.h>

#include "Core/handle/HandlerPin.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class OwnerDoorCases : public SockPoolFixture {
protected:
    Registered registered() { return lookAt(*PoolTable::Get(0), pair.fd()); }
};

TEST_F(OwnerDoorCases, RegistersOnTheOwnerAsItWouldItself) {
    EXPECT_EQ(0, OwnerDoor::Register(*handler, pair.near, SOCK_READ, 3000000));
    EXPECT_TRUE(registered().exists);
    EXPECT_EQ(uint32_t{SOCK_READ}, registered().mask);
    EXPECT_EQ(handler->GetID(), registered().owner);
    EXPECT_EQ(3000, registered().set_time) << "the limit is in microseconds";
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs > 0);
    EXPECT_EQ(0, OwnerDoor::Remove(*handler, pair.near));
}

TEST_F(OwnerDoorCases, TakesOneDirectionBackAndThenTheSocket) {
    EXPECT_EQ(0, OwnerDoor::Register(*handler, pair.near, SOCK_READ | SOCK_EXCEPT, 0));
    EXPECT_EQ(0, OwnerDoor::Unregister(*handler, pair.near, SOCK_EXCEPT));
    EXPECT_EQ(uint32_t{SOCK_READ}, registered().mask);
    EXPECT_EQ(0, OwnerDoor::Remove(*handler, pair.near));
    EXPECT_FALSE(registered().exists);
    EXPECT_EVENTUALLY(HandlerInternal::Of(*handler).m_sock.load() == 0);
}

TEST_F(OwnerDoorCases, NothingIsRegisteredOnAClosedOwner) {
    auto* const owner = new TestHandler;
    HandlerPin pin = HandlerPin::Take(owner);
    owner->Close();
    EXPECT_EQ(-1, OwnerDoor::Register(*owner, pair.near, SOCK_READ, 0));
    EXPECT_FALSE(registered().exists);
    EXPECT_EQ(0, HandlerInternal::Of(*owner).m_sock.load());
}

TEST_F(OwnerDoorCases, WhatWasRegisteredAheadOfTheCloseCanStillBeTakenBack) {
    auto* const owner = new TestHandler;
    owner->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 0;
    };
    HandlerPin pin = HandlerPin::Take(owner);
    EXPECT_EQ(0, OwnerDoor::Register(*owner, pair.near, SOCK_READ, 0));
    owner->Close();
    EXPECT_EQ(0, OwnerDoor::Remove(*owner, pair.near));
    EXPECT_FALSE(registered().exists);
}

TEST_F(OwnerDoorCases, ASocketWithoutADescriptorIsRefusedAndTakingBackIsHarmless) {
    CSockStream none;
    EXPECT_EQ(-1, OwnerDoor::Register(*handler, none, SOCK_READ, 0));
    EXPECT_EQ(0, OwnerDoor::Unregister(*handler, none, SOCK_READ));
    EXPECT_EQ(0, OwnerDoor::Remove(*handler, none));
    EXPECT_EQ(0, OwnerDoor::Remove(*handler, pair.near));
    EXPECT_EQ(0, HandlerInternal::Of(*handler).m_sock.load());
}

}  // namespace
}  // namespace Orvex::Testing
