// The first program of README.md: three ticks of a timer, on a worker thread, and a clean end.
#include <cstdio>

#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

using namespace Orvex;

Infra::CSemaphore g_gone{0};

class Ticker : public Reticor::CNetHandler {
public:
    void start() { SetTimer(200000); }  // microseconds

    int64_t handle_timeout(long) override {  // runs on a worker of the pool
        std::printf("tick %d\n", ++m_ticks);
        if (m_ticks == 3) {
            Close();
        }
        return m_ticks == 3 ? -1 : 0;  // below 0: no more; 0: again, after the same time
    }

    int handle_close(CNetHandler* self) override {  // the last reference is gone
        delete self;
        g_gone.post();
        return 0;
    }

private:
    int m_ticks = 0;
};

int main() {
    if (Reticor::CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    (new Ticker)->start();
    g_gone.pend();
    return Reticor::DestroyThreadPool();
}
