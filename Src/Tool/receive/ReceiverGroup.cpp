// ReceiverGroup: which thread a receiver goes to.
#include "Tool/receive/ReceiverGroup.h"

#include <atomic>
#include <climits>
#include <utility>

#include <Infra/Log.h>
#include <Infra/Mutex.h>

#include "Tool/receive/ReceiverThread.h"

namespace Orvex::Reticor {

namespace {

/// Guards the choice of a thread, and is held until that one runs.
Infra::CMutex g_mutex;

/// An array of g_count threads each; null while the library is down.
CReceiverThread** g_readers INFRA_GUARDED_BY(g_mutex) = nullptr;
CReceiverThread** g_writers INFRA_GUARDED_BY(g_mutex) = nullptr;
unsigned int g_count INFRA_GUARDED_BY(g_mutex) = 0;
ReceiverScheduling g_scheduling INFRA_GUARDED_BY(g_mutex);

std::atomic<int32_t> g_period_us{20000};

CReceiverThread** makeThreads(int group, unsigned int count, int64_t period_us) {
    auto** const threads = new CReceiverThread*[count];
    for (unsigned int i = 0; i < count; ++i) {
        threads[i] = new CReceiverThread(i, group, count, period_us);
    }
    return threads;
}

void deleteThreads(CReceiverThread** threads, unsigned int count) {
    for (unsigned int i = 0; threads != nullptr && i < count; ++i) {
        delete threads[i];
    }
    delete[] threads;
}

// The lowest index on a tie.
CReceiverThread* least(CReceiverThread** threads, unsigned int count) {
    CReceiverThread* found = threads[0];
    int fewest = found->Number();
    for (unsigned int i = 1; i < count; ++i) {
        if (const int number = threads[i]->Number(); number < fewest) {
            found = threads[i];
            fewest = number;
        }
    }
    return found;
}

}  // namespace

void ReceiverGroup::Setup(unsigned int count, int priority, int policy, int stack) {
    Infra::CGuard guard(g_mutex);
    g_count = count;
    g_scheduling = {priority, policy, stack};
    if (g_readers == nullptr) {
        g_readers = makeThreads(CReceiverThread::FIRST_GROUP, count, PeriodUs());
    }
    if (g_writers == nullptr) {
        g_writers = makeThreads(CReceiverThread::WRITE_GROUP, count, CReceiverThread::WRITE_PERIOD_US);
    }
}

void ReceiverGroup::Teardown() {
    CReceiverThread** readers = nullptr;
    CReceiverThread** writers = nullptr;
    unsigned int count = 0;
    {
        Infra::CGuard guard(g_mutex);
        readers = std::exchange(g_readers, nullptr);
        writers = std::exchange(g_writers, nullptr);
        count = g_count;
    }
    // With no lock held: a callback that is waited for may be starting a receiver, which is now refused.
    deleteThreads(readers, count);
    deleteThreads(writers, count);
}

int ReceiverGroup::Add(CMediaStreamReceiver* receiver, bool writes) {
    Infra::CGuard guard(g_mutex);
    CReceiverThread** const threads = writes ? g_writers : g_readers;
    return threads != nullptr ? least(threads, g_count)->Add(receiver, g_scheduling) : -1;
}

void ReceiverGroup::SetPeriod(int ms) {
    if (ms < 1 || ms > INT_MAX / 1000) {
        INFRA_LOG_STATIC(2, "%s : invalid period:%d ms\n", INFRA_FUNCTION, ms);
        return;
    }
    g_period_us.store(ms * 1000, std::memory_order_relaxed);
}

int32_t ReceiverGroup::PeriodUs() {
    return g_period_us.load(std::memory_order_relaxed);
}

}  // namespace Orvex::Reticor
