// ProcessorPin: affinity by bit masks that are long enough for any machine.
#include "Tool/receive/ProcessorPin.h"

#include <sched.h>

#include <cerrno>
#include <cstring>

#include <Infra/Log.h>

#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

/// As many processors as any Linux kernel can be built for.
constexpr unsigned int PROCESSOR_LIMIT = 8192;

struct Mask {
    cpu_set_t sets[PROCESSOR_LIMIT / CPU_SETSIZE];
};

bool apply(const Mask& mask) {
    return ::sched_setaffinity(0, sizeof mask, mask.sets) == 0;
}

}  // namespace

std::atomic<bool> ProcessorPin::sm_refusal_logged{false};

ProcessorPin::ProcessorPin(unsigned int processor) {
    Mask mask;
    std::memset(&mask, 0, sizeof mask);
    CPU_SET_S(processor, sizeof mask, mask.sets);
    if (!apply(mask)) {
        const int error = errno;
        if (!sm_refusal_logged.exchange(true, std::memory_order_relaxed)) {
            INFRA_LOG(3, "%s : processor %u is refused, %s\n", INFRA_FUNCTION, processor,
                      GetSockErrorText(error).c_str());
        }
    }
}

ProcessorPin::~ProcessorPin() {
    Mask mask;
    std::memset(&mask, 0xFF, sizeof mask);
    apply(mask);
}

}  // namespace Orvex::Reticor
