// The message rows on asio: thread_pool with post, and for serial messages with post through a strand.
#include "common/AllocationCounter.h"
#include "common/MessageBoard.h"

#include <asio.hpp>

int main(int argc, char** argv) {
    Bench::MessageOptions options = Bench::parseMessageOptions(argc, argv, "messages on asio's thread_pool");
    Bench::MessageBoard board(options.receivers);
    asio::thread_pool pool(options.threads);
    asio::strand<asio::thread_pool::executor_type> strand(pool.get_executor());

    Bench::MessagePost posts;
    posts.post = [&](std::size_t receiver, long value) {
        asio::post(pool, [&board, receiver, value] { board.deliver(receiver, value); });
    };
    posts.postSerial = [&](std::size_t receiver, long value) {
        asio::post(strand, [&board, receiver, value] { board.deliverInOrder(receiver, value); });
    };
    Bench::runMessages(options, board, posts, Bench::countAllocations);
    pool.join();
    return 0;
}
