// A process is recorded, dumped and drawn: calls are nested, arrows lead from pushes to calls and from frames
// to clients. reticor-trace as a program.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/Recorder.h>
#include <Reticor/SockStream.h>

#include "Trace/TraceReader.h"
#include "support/PoolFixture.h"
#include "support/program/ChildProcess.h"
#include "support/program/TempFolder.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

class FilmPacket : public CMediaPacket {
public:
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes; }
    static constexpr int LENGTH = 400;

private:
    char m_bytes[LENGTH] = {};
};

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

struct Ended {
    int result;
    std::string said;
};

// The program with these arguments, its errors with its output.
Ended runTool(const std::string& arguments) {
    ChildProcess tool({"/bin/sh", "-c", RETICOR_BUILD_DIR "/tools/reticor-trace " + arguments + " 2>&1"});
    const std::string said = tool.exchange("");
    return {tool.wait(), said};
}

class TraceProgram : public PoolFixture {
protected:
    void TearDown() override {
        CRecorder::Stop();
        PoolFixture::TearDown();
    }
    std::string dumped() {
        const std::string path = folder.file("dump");
        EXPECT_EQ(0, CRecorder::Dump(path.c_str()));
        return path;
    }
    static TraceReader picture(const std::string& path) {
        std::string why;
        const auto dump = trace::read_dump(contentOf(path), why);
        EXPECT_TRUE(dump) << why;
        EXPECT_TRUE(dump->whole);
        TraceReader reader = drawn(*dump);
        reader.expectInOrder();
        return reader;
    }
    // Handlers that send one another messages until they have had so many.
    void playTennis(int strokes) {
        auto* const one = new TestHandler;
        auto* const other = new TestHandler;
        const auto answer = [](TestHandler* self, TestHandler* peer) {
            return [self, peer](long, unsigned int number, long) {
                if (number > 1) {
                    self->Notify(peer->GetID(), number - 1, 0);
                }
                return 0;
            };
        };
        one->on_message = answer(one, other);
        other->on_message = answer(other, one);
        one->Notify(other->GetID(), static_cast<unsigned int>(strokes), 0);
        EXPECT_EVENTUALLY(one->life->messages + other->life->messages == strokes);
        closeAndWait(one);
        closeAndWait(other);
    }

    TempFolder folder;
};

TEST_F(TraceProgram, MessagesBetweenHandlersAreNestedAndHaveArrows) {
    CRecorder::Start();
    playTennis(100);
    const TraceReader seen = picture(dumped());
    EXPECT_EQ(100u, seen.slices("TestHandler handle_message").size());
    EXPECT_EQ(2u, seen.slices("TestHandler handle_close").size());
    EXPECT_LE(100u, seen.arrowsNamed("queue"));
    EXPECT_LE(100u, seen.spansNamed("wait of message"));
    bool worker = false;
    for (const auto& [thread, name] : seen.threads) {
        worker = worker || name.find("pool 0: ") == 0;
    }
    EXPECT_TRUE(worker);
}

// Two clients: each gets each frame, and one is blocked for a while.
TEST_F(TraceProgram, FramesHaveArrowsToTheLastByteOfEachClient) {
    constexpr size_t CLIENTS = 2;
    constexpr int FRAMES = 20;
    CMediaBuffer buffer;
    CSockStream socks[CLIENTS];
    CMediaStreamSender* senders[CLIENTS];
    int far[CLIENTS];
    for (size_t i = 0; i < CLIENTS; ++i) {
        int ends[2];
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
        socks[i].Attach(ends[0]);
        far[i] = ends[1];
        senders[i] = CMediaStreamSender::Create();
        senders[i]->Attach(&socks[i]);
        buffer.AddSender(senders[i]);
    }
    CRecorder::Start();
    for (int n = 0; n < FRAMES; ++n) {
        ASSERT_EQ(0, buffer.Put(new FilmPacket, FilmPacket::LENGTH, MEDIA_MARK_LAST,
                                mediaLevel(0, n == 0 ? 1 : 5)));
    }
    const TraceReader seen = picture(dumped());
    EXPECT_EQ(static_cast<size_t>(FRAMES), seen.slices("frame put").size());
    EXPECT_EQ(1u, seen.slices("key frame put").size());
    EXPECT_EQ(CLIENTS * FRAMES, seen.slices("frame sent").size());
    EXPECT_EQ(CLIENTS * FRAMES, seen.arrowsNamed("frame"));
    for (size_t i = 0; i < CLIENTS; ++i) {
        buffer.DelSender(senders[i]);
        senders[i]->Detach();
        senders[i]->Close();
        socks[i].Close();
        ::close(far[i]);
    }
}

TEST_F(TraceProgram, AClientThatDoesNotReadIsBlockedAndMissesFrames) {
    CMediaBuffer buffer;
    CSockStream sock;
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
    sock.Attach(ends[0]);
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    sender->Attach(&sock);
    sender->DisableSendChannel(1);
    buffer.AddSender(sender);
    CRecorder::Start();
    size_t blocked = 0;
    for (int n = 0; n < 5000 && blocked == 0; ++n) {
        ASSERT_EQ(0, buffer.Put(new FilmPacket, FilmPacket::LENGTH, MEDIA_MARK_LAST, mediaLevel(n % 2, 1)));
        blocked = sender->GetStats().blocked_us;
    }
    const TraceReader seen = picture(dumped());
    EXPECT_EQ(1u, seen.spansNamed("blocked"));
    size_t not_chosen = 0;
    for (const nlohmann::json& instant : seen.instants) {
        not_chosen += instant.at("name") == "frame dropped: channel not chosen" ? 1 : 0;
    }
    EXPECT_LT(0u, not_chosen);
    buffer.DelSender(sender);
    sender->Detach();
    sender->Close();
    sock.Close();
    ::close(ends[1]);
}

TEST_F(TraceProgram, ConvertsAFileAndSaysWhatIsInIt) {
    CRecorder::Start();
    playTennis(10);
    const std::string dump = dumped();
    const Ended ended = runTool(dump + " -o " + folder.file("trace.json"));
    EXPECT_EQ(0, ended.result) << ended.said;
    EXPECT_NE(std::string::npos, ended.said.find(" calls, ")) << ended.said;
    EXPECT_EQ(std::string::npos, ended.said.find("not whole")) << ended.said;
    const TraceReader seen(contentOf(folder.file("trace.json")));
    seen.expectInOrder();
    EXPECT_EQ(10u, seen.slices("TestHandler handle_message").size());
    EXPECT_EQ(0, runTool(dump + " >" + folder.file("piped.json")).result);
    EXPECT_EQ(contentOf(folder.file("trace.json")).size(),
              contentOf(folder.file("piped.json")).size() - ended.said.size());
}

TEST_F(TraceProgram, SaysThatADumpIsNotWhole) {
    CRecorder::Start();
    playTennis(10);
    const std::string dump = dumped();
    ASSERT_EQ(0, ::truncate(dump.c_str(), static_cast<off_t>(contentOf(dump).size()) - 4));
    const Ended ended = runTool(dump + " -o " + folder.file("trace.json"));
    EXPECT_EQ(0, ended.result);
    EXPECT_NE(std::string::npos, ended.said.find("the dump is not whole")) << ended.said;
}

TEST_F(TraceProgram, RefusesWhatItCannotReadOrWrite) {
    const Ended missing = runTool(folder.file("nothing"));
    EXPECT_EQ(1, missing.result);
    EXPECT_NE(std::string::npos, missing.said.find("No such file")) << missing.said;
    std::ofstream(folder.file("text")) << "some text";
    const Ended text = runTool(folder.file("text"));
    EXPECT_EQ(1, text.result);
    EXPECT_NE(std::string::npos, text.said.find("not a dump")) << text.said;
    const std::string dump = dumped();
    EXPECT_EQ(1, runTool(dump + " -o /dev/full").result);
    EXPECT_EQ(1, runTool(dump + " -o " + folder.file("no/such/folder")).result);
    EXPECT_NE(0, runTool("").result);
}

}  // namespace
}  // namespace Orvex::Testing
