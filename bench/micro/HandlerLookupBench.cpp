// HandlerLookupBench: finding an open handler by its id, which every message, timer and socket event begins
// with.
//
// A lookup is what a worker does: the handler is found among 10,000 open ones and pinned, and the pin is
// dropped. The time is that of one thread for one lookup. Two threads must not slow each other to less than
// half.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <random>
#include <vector>

#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

#include "Core/handle/HandlerPin.h"
#include "Core/pool/PoolTable.h"
#include "common/Alive.h"

namespace {

using namespace Orvex::Reticor;

constexpr std::size_t kOpen = 10000;
constexpr std::size_t kLookups = 1 << 16;

Bench::Alive alive;

class Target : public CNetHandler {
public:
    Target() { alive.enter(); }
    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }
};

// 10,000 open handlers on a pool whose workers sleep, for as long as the program lives.
class Handlers {
public:
    Handlers() {
        CNetThread::CreateThreadPool(2, false);
        for (std::size_t i = 0; i < kOpen; ++i) {
            m_targets.push_back(new Target);
        }
    }
    ~Handlers() {
        for (Target* target : m_targets) {
            target->Close();
        }
        alive.waitForNone();
        CNetThread::DestroyThreadPool();
    }
    Handlers(const Handlers&) = delete;
    Handlers& operator=(const Handlers&) = delete;

    // Ids in random order, another one for each thread, so that the threads seldom pin the same handler.
    std::vector<long> randomIds(unsigned seed) const {
        std::mt19937 random(seed);
        std::uniform_int_distribution<std::size_t> any(0, m_targets.size() - 1);
        std::vector<long> ids(kLookups);
        for (long& id : ids) {
            id = m_targets[any(random)]->GetID();
        }
        return ids;
    }

private:
    std::vector<Target*> m_targets;
};

void Lookup(benchmark::State& state) {
    static const Handlers handlers;
    const std::vector<long> ids = handlers.randomIds(static_cast<unsigned>(state.thread_index()) + 1);
    std::size_t next = 0;
    for (auto step : state) {
        HandlerPin pin = PoolTable::FindHandler(ids[next]);
        if (!pin) {
            state.SkipWithError("an open handler was not found");
            break;
        }
        next = (next + 1) % kLookups;
    }
}

BENCHMARK(Lookup)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
