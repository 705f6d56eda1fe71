// media_relay: one live picture for any number of clients, whatever their speed. Try it with
// `media_relay` and a browser, or with `media_relay --input FILE.ts --loop` and a player.
//
// What it teaches:
//  - CMediaBuffer and CMediaStreamSender: one producer, clients of different speed, no byte copied for any of
//    them, and what becomes of those who are too slow (LiveStream, Session::watch);
//  - two buffers of one input, the second one filled while somebody watches it (Mp4Output);
//  - CMediaStreamReceiver: a callback at the pace of a media clock (Source and what is derived from it);
//  - CStreamSender: an answer of any length on a socket that takes what it takes (Session::answer);
//  - CStrParser: a request is foreign text (HttpRequest, Options);
//  - the order in which a connection ends, whatever it was doing (Session::end).
#include <sys/resource.h>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <Reticor/NetThread.h>

#include "media_relay/Relay.h"
#include "media_relay/input/Inputs.h"

using namespace relay;
using Orvex::Reticor::CNetThread;

namespace {

/// Lets this process open as many descriptors as the system allows it: one is needed per connection.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int result = readOptions(argc, argv, options);
    if (result >= 0) {
        return result;
    }
    std::vector<OpenInput> inputs;
    for (const StreamOption& stream : options.streams) {
        inputs.emplace_back();
        const std::string wrong = inputs.back().open(stream.input);
        if (!wrong.empty()) {
            std::fprintf(stderr, "media_relay: %s: %s\n", stream.input.c_str(), wrong.c_str());
            return 1;
        }
    }
    EndSignals signals;
    raiseDescriptorLimit();
    if (!options.statsPath.empty() && CNetThread::ServeStats(options.statsPath.c_str()) != 0) {
        return 1;
    }
    if (Orvex::Reticor::CreateThreadPool(options.threads, 0) != 0) {
        return 1;
    }
    int ended = 0;
    {
        Relay relay(options);
        ended = relay.run(signals, std::move(inputs));
    }
    Orvex::Reticor::DestroyThreadPool();
    CNetThread::StopServingStats();
    return ended;
}
