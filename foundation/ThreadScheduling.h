// How a library thread presents itself to the kernel: its name, and what priority and policy numbers mean.
#pragma once

namespace Orvex::Infra::Detail {

/// Shows the name to the kernel, cut to the 15 bytes that it can keep: a longer one would be refused, not
/// cut. An empty name changes nothing.
void set_kernel_thread_name(const char* name) noexcept;

/// Applies the scheduling values of CThread to the calling thread. Refusals are logged at level 3, each kind
/// once in the life of the process, and survived.
void apply_scheduling(const char* name, int priority, int policy) noexcept;

}  // namespace Orvex::Infra::Detail
