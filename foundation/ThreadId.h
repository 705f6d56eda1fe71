// thread_id: the kernel's number of the calling thread, for log lines and for what a thread asks of the
// kernel.
#pragma once

namespace Orvex::Infra::Detail {

/// gettid(2), asked once in a thread's life.
int thread_id() noexcept;

}  // namespace Orvex::Infra::Detail
