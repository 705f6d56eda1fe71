// The file workers: their start, their end, and what they do with a task. Posting is in FileTask.h.
#pragma once

#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

/// Starts 2 * n file workers. They begin with the messages that were posted while there were none. Result: 0;
/// -1, with a line, if the system gives not a single thread, or there is no memory. Under the lock that
/// serialises set-up and teardown.
int StartFileThreads(unsigned n);

/// Ends the file workers, each after the device call that it is in, and drops the tasks and messages that are
/// left; what files hold in memory is NFileEnd's to write. Always 0. Under the same lock.
int StopFileThreads();

/// Takes one task and runs it, on a file worker.
void RunFileTask();

}  // namespace Orvex::Reticor
