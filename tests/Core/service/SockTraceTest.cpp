// The trace of the socket event flow: every site, every line to the letter, under every combination of the
// flags.
#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "R3/print/DebugSocket.h"
#include "support/Eventually.h"
#include "support/core/SocketPair.h"
#include "support/core/StillPool.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using Lines = std::vector<std::string>;

std::string format(const char* text, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, text);
    std::vsnprintf(buffer, sizeof(buffer), text, arguments);
    va_end(arguments);
    return buffer;
}

// The time in the lines of a call is the only thing that a test cannot know.
std::string withoutTime(std::string line) {
    const std::size_t at = line.find(" at ");
    const std::size_t us = line.find(" us, ");
    if (at == std::string::npos || us == std::string::npos) {
        return line;
    }
    const std::string digits = line.substr(at + 4, us - at - 4);
    EXPECT_FALSE(digits.empty());
    EXPECT_EQ(std::string::npos, digits.find_first_not_of("0123456789")) << line;
    return line.replace(at + 4, digits.size(), "N");
}

enum class Filter { off, matching, other };

// One setting of all flags.
struct Flags {
    bool all = false;
    bool read = false;
    bool write = false;
    bool exception = false;
    Filter fd = Filter::off;
    Filter handler = Filter::off;
    bool off = true;  // the master switch, in spite of its name
    bool density = false;

    static constexpr int COMBINATIONS = 16 * 3 * 3 * 4;
    static Flags number(int n) {
        Flags flags;
        flags.all = n & 1;
        flags.read = n & 2;
        flags.write = n & 4;
        flags.exception = n & 8;
        flags.off = n & 16;
        flags.density = n & 32;
        flags.fd = static_cast<Filter>(n / 64 % 3);
        flags.handler = static_cast<Filter>(n / 64 / 3);
        return flags;
    }

    void set(int64_t socket, int64_t id) const {
        CDebugSocket::socket_all = all;
        CDebugSocket::socket_read = read;
        CDebugSocket::socket_write = write;
        CDebugSocket::socket_exception = exception;
        CDebugSocket::socket_fd = fd != Filter::off;
        CDebugSocket::socket_fd_num = fd == Filter::matching ? socket : -1;
        CDebugSocket::socket_nethandler = handler != Filter::off;
        CDebugSocket::socket_nethandler_num = handler == Filter::matching ? id : 0;
        CDebugSocket::socket_off = off;
        CDebugSocket::socket_dendity = density;
    }

    // The gate, told once more.
    bool prints(bool class_passes, bool dense) const {
        const bool filtered = fd != Filter::off || handler != Filter::off;
        const bool hit = !filtered || fd == Filter::matching || handler == Filter::matching;
        return class_passes && (!dense || density) && hit && off && (all || read || write || exception);
    }
    bool byType(unsigned int type) const {
        return ((type & 1) && read) || ((type & 2) && write) || all || exception;
    }
    bool byRevents(int revents) const {
        return ((revents & 0x101) && read) || ((revents & 0x204) && write) || ((revents & 8) && exception) ||
               all;
    }
};

std::string shown(const Flags& flags) {
    return format("all %d read %d write %d exception %d fd %d handler %d off %d density %d", flags.all,
                  flags.read, flags.write, flags.exception, static_cast<int>(flags.fd),
                  static_cast<int>(flags.handler), flags.off, flags.density);
}

class SockTrace : public ::testing::Test {
protected:
    void SetUp() override {
        handler->on_input = [this](int fd) {
            SocketPair::drain(fd);
            if (remove_inside) {
                handler->RemoveSock(pair->near);
            }
            return 0;
        };
    }
    void TearDown() override {
        Flags().set(0, 0);
        rig.close(handler);
    }

    // Lines that are expected, as the steps go by.
    void expect(bool class_passes, bool dense, const std::string& line) {
        if (flags.prints(class_passes, dense)) {
            expected.push_back(line);
        }
    }
    void expectRegister(unsigned int type, int time_out) {
        expect(flags.byType(type), true,
               format("<Reticor Debug> Enter CNetSock::RegisterSock CNetHandler:%p, owner type:%s, "
                      "socket:%lld, type:%d, time_out:%d obj:%lld. \n",
                      owner(), CLASS, fd(), type, time_out, id()));
    }
    void expectResetTimer(int time_out) {
        expect(true, true,
               format("<Reticor Debug> Enter CNetSock::reset_timer timt_out:%d, socket:%d.\n", time_out,
                      static_cast<int>(fd())));
    }
    void expectRemove(const char* where) {
        expect(true, true,
               format("<Reticor Debug> %s CNetHandler:%p, owner type:%s, socket:%lld.\n", where, owner(),
                      CLASS, fd()));
    }
    void expectFreed() {
        expect(true, false, format("<Reticor Debug> Enter CNetSock::remove_sock  socket:%lld.\n", fd()));
    }
    void expectCall(const char* kind, const char* event, const char* moment, int revents) {
        expect(flags.byRevents(revents), true,
               format("<Reticor Debug> Enter CNetSock::handle_%s  object:%p, class:%s handle sock %s %s at N "
                      "us, fd:%lld,revents:%x.\n",
                      kind, owner(), CLASS, event, moment, fd(), revents));
    }
    void expectDelivered(int revents, int mask, int ret, int set_time) {
        expect(flags.byRevents(revents), false,
               format("<Reticor Debug> Enter CNetSock::handle_netevent event->m_obj_id:%lld socket:%lld, "
                      "m_revents:%d, m_event_mask:%d ret:%d, m_set_time:%d.\n",
                      id(), fd(), revents, mask, ret, set_time));
    }

    // One step each: what is done, and the lines of it.
    void registerNew(unsigned int type, int time_out) {
        expectRegister(type, time_out);
        expect(flags.byType(type), false,
               format("<Reticor Debug> Enter CNetSock::register_new_event CNetHandler:%p, owner type:%s, "
                      "socket:%lld.\n",
                      owner(), CLASS, fd()));
        EXPECT_EQ(0, handler->RegisterSock(pair->near, type, time_out));
    }
    void registerKnown(unsigned int type, int time_out, unsigned long long set_time) {
        expectRegister(type, time_out);
        expect(flags.byType(type), false,
               format("<Reticor Debug> Enter CNetSock::modify_exist_event CNetHandler:%p, owner type:%s, "
                      "socket:%lld, m_set_time:%llu, m_revents:%x.\n",
                      owner(), CLASS, fd(), set_time, 0));
        if (set_time != 0 || time_out >= 1000) {
            expectResetTimer(time_out / 1000);
        }
        EXPECT_EQ(0, handler->RegisterSock(pair->near, type, time_out));
    }
    void unregister(unsigned int type) {
        expect(flags.byType(type), true,
               format("<Reticor Debug> Enter CNetSock::UnregisterSock CNetHandler:%p, owner type:%s, "
                      "socket:%lld, type:%d.\n",
                      owner(), CLASS, fd(), type));
        EXPECT_EQ(0, handler->UnregisterSock(pair->near, type));
    }
    void removeIdle() {
        expectRemove("Enter CNetSock::RemoveSock");
        expectFreed();
        expectRemove("CNetSock::RemoveSock &1 ");
        EXPECT_EQ(0, handler->RemoveSock(pair->near));
    }
    void deliver(int revents, int mask, int ret, int set_time) {
        expectCall("net", "event", "begin", revents);
        expectCall("net", "event", "end", revents);
        expectDelivered(revents, mask, ret, set_time);
        expectResetTimer(ret == 0 ? set_time : ret);
        EXPECT_EQ(1u, rig.pollAndServe());
    }
    void timeOut(int revents, int mask) {
        expectCall("timeout", "timeout", "begin", revents);
        expectCall("timeout", "timeout", "end", revents);
        expectDelivered(revents, mask, -1, 0);
        expectResetTimer(-1);
        for (CEvent* ev : rig.tick(2)) {
            rig.serve(ev);
        }
    }
    void removeInsideInput() {
        expectCall("net", "event", "begin", 1);
        expectRemove("Enter CNetSock::RemoveSock");
        expectRemove("CNetSock::RemoveSock &2 ");
        expectCall("net", "event", "end", 1024);
        expectDelivered(1024, 32, 0, 0);
        expectFreed();
        remove_inside = true;
        pair->write();
        EXPECT_EQ(1u, rig.pollAndServe());
        remove_inside = false;
    }

    void* owner() { return static_cast<CNetHandler*>(handler); }
    long long fd() { return pair->fd(); }
    long long id() { return handler->GetID(); }

    // Every site at least once.
    void runAllSites() {
        registerNew(1, 5000999);
        registerKnown(1, 0, 5000);
        pair->write();
        deliver(1, 1, 0, 0);
        registerKnown(2, 1000, 0);
        deliver(4, 3, -1, 1);  // the base class returns -1
        pair->fill();
        registerKnown(1, 1000, 0);
        timeOut(256, 3);
        unregister(1);
        registerKnown(2, 1000, 0);
        timeOut(512, 2);
        unregister(6);
        removeIdle();
        registerNew(4, 0);
        removeIdle();
        registerNew(1, 0);
        removeInsideInput();
    }

    static constexpr const char* CLASS = "Orvex::Testing::TestHandler";

    StillPool rig;
    std::unique_ptr<SocketPair> pair = std::make_unique<SocketPair>();
    TestHandler* handler = new TestHandler(StillPool::INDEX);
    bool remove_inside = false;
    Flags flags;
    Lines expected;
};

Lines traced(const LogCapture& log) {
    Lines lines;
    for (const CapturedLine& line : log.lines()) {
        EXPECT_EQ(3, line.level) << line.full;
        EXPECT_EQ("", line.start) << line.full;
        lines.push_back(withoutTime(line.text));
    }
    return lines;
}

TEST_F(SockTrace, EverySiteUnderEveryCombinationOfTheFlags) {
    LogCapture log(3);
    for (int number = 0; number < Flags::COMBINATIONS; ++number) {
        flags = Flags::number(number);
        pair = std::make_unique<SocketPair>();
        log.clear();
        expected.clear();
        flags.set(fd(), id());
        runAllSites();
        ASSERT_EQ(expected, traced(log)) << shown(flags);
    }
}

TEST_F(SockTrace, NothingIsTracedWhileTheLogIsBelowLevel3) {
    LogCapture log(2);
    flags.all = flags.density = true;
    flags.set(fd(), id());
    expected.clear();
    runAllSites();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(SockTrace, FlagsAreAtFirstAsTheyAreDocumented) {
    // Before any test of this process has set one.
    EXPECT_FALSE(CDebugSocket::socket_all);
    EXPECT_FALSE(CDebugSocket::socket_read);
    EXPECT_FALSE(CDebugSocket::socket_write);
    EXPECT_FALSE(CDebugSocket::socket_exception);
    EXPECT_FALSE(CDebugSocket::socket_fd);
    EXPECT_FALSE(CDebugSocket::socket_nethandler);
    EXPECT_TRUE(CDebugSocket::socket_off);
    EXPECT_FALSE(CDebugSocket::socket_dendity);
}

TEST_F(SockTrace, ExceptionIsTracedByItsOwnClass) {
    pair = SocketPair::overTcp();
    ASSERT_EQ(0, handler->RegisterSock(pair->near, SOCK_EXCEPT, 0));
    ASSERT_EQ(1, ::send(pair->far.GetHandle(), "!", 1, MSG_OOB));
    ASSERT_TRUE(eventually([&] {
        char byte;
        return ::recv(pair->fd(), &byte, 1, MSG_OOB | MSG_PEEK) == 1;
    }));
    for (const bool wanted : {false, true}) {
        LogCapture log(3);
        flags = Flags();
        flags.density = true;
        flags.read = !wanted;
        flags.exception = wanted;
        flags.set(fd(), id());
        expected.clear();
        deliver(8, 4, -1, 0);
        EXPECT_EQ(expected, traced(log));
        EXPECT_EQ(wanted ? 4u : 1u, expected.size());
    }
    flags = Flags();
    flags.set(0, 0);
    handler->RemoveSock(pair->near);
}

TEST_F(SockTrace, HandlerThatIsNotFoundMakesNoLineOfACall) {
    TestHandler* const gone = new TestHandler(StillPool::INDEX);
    ASSERT_EQ(0, gone->RegisterSock(pair->near, SOCK_READ, 0));
    gone->DecSock();
    const long long gone_id = gone->GetID();
    rig.close(gone);
    pair->write();
    LogCapture log(3);
    flags.all = flags.density = true;
    flags.set(fd(), id());
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(0u, log.countMatching(3, "[^]*CNetSock::handle_net  [^]*"));
    EXPECT_EQ(1u, log.count(3, format("<Reticor Debug> Enter CNetSock::handle_netevent event->m_obj_id:%lld "
                                      "socket:%lld, m_revents:1, m_event_mask:1 ret:-1, m_set_time:0.\n",
                                      gone_id, fd())))
        << log.dump();
    flags = Flags();
    flags.set(0, 0);
    handler->AddSock();
    handler->RemoveSock(pair->near);
}

}  // namespace
}  // namespace Orvex::Testing
