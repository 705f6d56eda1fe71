// TestHandler: a handler that counts its calls, opens its protected operations to the test, and can be told
// what to do in each call. HandlerLife: what remains to be asked after it was deleted.
#pragma once

#include <poll.h>

#include <atomic>
#include <functional>
#include <memory>

#include <Reticor/NetHandler.h>
#include <Reticor/Sock.h>

namespace Orvex::Testing {

// Outlives the handler.
struct HandlerLife {
    std::atomic<int> inputs{0};
    std::atomic<int> outputs{0};
    std::atomic<int> exceptions{0};
    std::atomic<int> input_timeouts{0};
    std::atomic<int> output_timeouts{0};
    std::atomic<int> timeouts{0};
    std::atomic<int> messages{0};
    std::atomic<int> closes{0};
    std::atomic<int> deleted{0};

    // Every call into the handler but handle_close.
    int calls() const {
        return inputs + outputs + exceptions + input_timeouts + output_timeouts + timeouts + messages;
    }
};

// Created with new; deletes itself in handle_close unless keep_after_close was set. The functions are set
// before the handler is registered anywhere, and run on workers.
class TestHandler : public Reticor::CNetHandler {
public:
    explicit TestHandler(int pool = 0,
                         std::shared_ptr<HandlerLife> its_life = std::make_shared<HandlerLife>())
        : Reticor::CNetHandler(pool), life(std::move(its_life)) {}
    ~TestHandler() override { ++life->deleted; }

    const std::shared_ptr<HandlerLife> life;

    std::function<int(int)> on_input;
    std::function<int(int)> on_output;
    std::function<int(int)> on_exception;
    std::function<int(int)> on_input_timeout;
    std::function<int(int)> on_output_timeout;
    std::function<int64_t(long)> on_timeout;
    std::function<int(long, unsigned int, long)> on_message;
    std::function<void()> on_close;
    bool keep_after_close = false;

    using CNetHandler::DestroyTimer;
    using CNetHandler::Free;
    using CNetHandler::Malloc;
    using CNetHandler::Notify;
    using CNetHandler::NotifyIO;
    using CNetHandler::NotifySerial;
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;
    using CNetHandler::SetTimer;
    using CNetHandler::TsFree;
    using CNetHandler::TsMalloc;
    using CNetHandler::UnregisterSock;

    // A report that was taken from the kernel before the last call had read everything leads to one more
    // call, which finds nothing. Whether it comes is a matter of luck: it is not counted, and no test hears
    // of it.
    int handle_input(int fd) override {
        if (report_is_stale(fd)) {
            return 0;
        }
        return call(life->inputs, on_input, CNetHandler::handle_input(fd), fd);
    }
    int handle_output(int fd) override {
        return call(life->outputs, on_output, CNetHandler::handle_output(fd), fd);
    }
    int handle_exception(int fd) override {
        return call(life->exceptions, on_exception, CNetHandler::handle_exception(fd), fd);
    }
    int handle_input_timeout(int fd) override {
        return call(life->input_timeouts, on_input_timeout, CNetHandler::handle_input_timeout(fd), fd);
    }
    int handle_output_timeout(int fd) override {
        return call(life->output_timeouts, on_output_timeout, CNetHandler::handle_output_timeout(fd), fd);
    }
    int64_t handle_timeout(long id) override {
        return call(life->timeouts, on_timeout, CNetHandler::handle_timeout(id), id);
    }
    int handle_message(long sender, unsigned int msg, long attach) override {
        return call(life->messages, on_message, CNetHandler::handle_message(sender, msg, attach), sender, msg,
                    attach);
    }
    int handle_close(Reticor::CNetHandler* self) override {
        const std::shared_ptr<HandlerLife> kept = life;
        if (on_close) {
            on_close();
        }
        if (!keep_after_close) {
            delete self;
        }
        ++kept->closes;
        return 0;
    }

private:
    static bool report_is_stale(int fd) {
        pollfd look{fd, POLLIN | POLLPRI | POLLRDHUP, 0};
        return ::poll(&look, 1, 0) == 0;
    }

    // The count goes up when the call is over, so that a test that saw it may look at what the call did.
    template <typename Result, typename... Args>
    Result call(std::atomic<int>& count, const std::function<Result(Args...)>& function, Result otherwise,
                Args... args) {
        const std::shared_ptr<HandlerLife> kept = life;
        const Result result = function ? function(args...) : otherwise;
        ++count;
        return result;
    }
};

}  // namespace Orvex::Testing
