// The timer rows on Reticor: one handler owns all timers, armed and cancelled from the main thread. Each arm
// draws an id, takes a record from the free list and reads the clock; the peers' handles are laid out
// beforehand.
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "common/Alive.h"
#include "common/TimerRows.h"
#include "common/Usage.h"

namespace {

using namespace Orvex::Reticor;

Bench::Alive alive;

class Owner : public CNetHandler {
public:
    Owner() { alive.enter(); }

    long arm(std::uint64_t delayUs) { return SetTimer(static_cast<std::int64_t>(delayUs)); }
    void cancel(long id) { DestroyTimer(id); }

    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }
};

std::int64_t wakeUps(double seconds) {
    // The thread may still be on its way back to sleep from the arming before.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::int64_t before = Bench::voluntarySwitches(getpid(), "Timer_Thread");
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const std::int64_t after = Bench::voluntarySwitches(getpid(), "Timer_Thread");
    return before < 0 ? -1 : after - before;
}

}  // namespace

int main(int argc, char** argv) {
    Bench::TimerOptions options = Bench::parseTimerOptions(argc, argv, "timers on Reticor");
    if (CNetThread::CreateThreadPool(2, false) != 0) {
        return 1;
    }
    auto* owner = new Owner;
    std::vector<long> ids(options.many);
    Bench::TimerUse use;
    use.arm = [&](std::size_t place, std::uint64_t delayUs) { ids[place] = owner->arm(delayUs); };
    use.cancel = [&](std::size_t place) { owner->cancel(ids[place]); };
    use.wakeUps = wakeUps;
    Bench::runTimers(options, use);
    owner->Close();
    const bool allGone = alive.waitForNone();
    CNetThread::DestroyThreadPool();
    return allGone ? 0 : 1;
}
