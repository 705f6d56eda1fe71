// ReceiverGroup: which thread a receiver goes to.
#include "Tool/receive/ReceiverGroup.h"

#include <climits>
#include <new>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>

namespace Orvex::Reticor {

namespace {

void delete_threads(CReceiverThread** threads, unsigned int count) {
    for (unsigned int i = 0; threads != nullptr && i < count; ++i) {
        delete threads[i];
    }
    delete[] threads;
}

/// Null if there is no memory.
CReceiverThread** make_threads(int group, unsigned int count, int64_t period_us) {
    auto** const threads = new (std::nothrow) CReceiverThread* [count] {};
    for (unsigned int i = 0; threads != nullptr && i < count; ++i) {
        threads[i] = new (std::nothrow) CReceiverThread(i, group, count, period_us);
        if (threads[i] == nullptr) {
            delete_threads(threads, i);
            return nullptr;
        }
    }
    return threads;
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

Infra::CMutex ReceiverGroup::sm_mutex{Infra::LockClass::RECEIVER_GROUPS};
CReceiverThread** ReceiverGroup::sm_readers = nullptr;
CReceiverThread** ReceiverGroup::sm_writers = nullptr;
unsigned int ReceiverGroup::sm_count = 0;
ReceiverScheduling ReceiverGroup::sm_scheduling;
std::atomic<int32_t> ReceiverGroup::sm_period_us{20000};

int ReceiverGroup::Setup(unsigned int count, int priority, int policy, int stack) {
    Infra::CGuard guard(sm_mutex);
    sm_count = count;
    sm_scheduling = {priority, policy, stack};
    if (sm_readers == nullptr) {
        sm_readers = make_threads(CReceiverThread::FIRST_GROUP, count, PeriodUs());
    }
    if (sm_writers == nullptr) {
        sm_writers = make_threads(CReceiverThread::WRITE_GROUP, count, CReceiverThread::WRITE_PERIOD_US);
    }
    if (sm_readers != nullptr && sm_writers != nullptr) {
        return 0;
    }
    // None of them runs yet.
    delete_threads(std::exchange(sm_readers, nullptr), count);
    delete_threads(std::exchange(sm_writers, nullptr), count);
    return -1;
}

void ReceiverGroup::Teardown() {
    CReceiverThread** readers = nullptr;
    CReceiverThread** writers = nullptr;
    unsigned int count = 0;
    {
        Infra::CGuard guard(sm_mutex);
        readers = std::exchange(sm_readers, nullptr);
        writers = std::exchange(sm_writers, nullptr);
        count = sm_count;
    }
    // With no lock held: a callback that is waited for may be starting a receiver, which is now refused.
    delete_threads(readers, count);
    delete_threads(writers, count);
}

int ReceiverGroup::Add(CPacedReceiver_IF* receiver, bool writes) {
    Infra::CGuard guard(sm_mutex);
    CReceiverThread** const threads = writes ? sm_writers : sm_readers;
    return threads != nullptr ? least(threads, sm_count)->Add(receiver, sm_scheduling) : -1;
}

void ReceiverGroup::SetPeriod(int ms) {
    if (ms < 1 || ms > INT_MAX / 1000) {
        INFRA_LOG_STATIC(2, "%s : invalid period:%d ms\n", INFRA_FUNCTION, ms);
        return;
    }
    sm_period_us.store(ms * 1000, std::memory_order_relaxed);
}

int32_t ReceiverGroup::PeriodUs() {
    return sm_period_us.load(std::memory_order_relaxed);
}

}  // namespace Orvex::Reticor
