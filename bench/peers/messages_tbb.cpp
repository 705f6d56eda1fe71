// The message rows on TBB: enqueue into an arena of as many workers as the others have. A task_group would
// make the producer a worker too as soon as it waits. There is no serial row: an arena has no order.
#include <tbb/global_control.h>
#include <tbb/task_arena.h>

// Behind the headers of the system, which declare what it defines.
#include "common/AllocationCounter.h"
#include "common/MessageBoard.h"

int main(int argc, char** argv) {
    Bench::MessageOptions options = Bench::parseMessageOptions(argc, argv, "messages on a TBB arena");
    Bench::MessageBoard board(options.receivers);
    // One more than the workers, since the limit counts the producer, which the arena keeps no place for.
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, options.threads + 1);
    tbb::task_arena arena(static_cast<int>(options.threads), 0);

    Bench::MessagePost posts;
    posts.post = [&](std::size_t receiver, long value) {
        arena.enqueue([&board, receiver, value] { board.deliver(receiver, value); });
    };
    Bench::runMessages(options, board, posts, Bench::countAllocations);
    return 0;
}
