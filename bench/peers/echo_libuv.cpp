// Echo server on libuv: one loop per thread; answers go out by uv_try_write, which saves the request object
// and the pass through the loop that uv_write costs.
#include "common/EchoServer.h"

#include <unistd.h>
#include <uv.h>
#include <array>
#include <cstdlib>

namespace {

struct Loop {
    uv_loop_t uv;
    uv_poll_t given;
    Bench::HandOver* handOver;
    std::array<char, Bench::kReadRoom> room;
};

struct Pending {
    uv_write_t request;
    std::vector<char> bytes;
};

void allocate(uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
    auto* loop = static_cast<Loop*>(handle->loop->data);
    *buffer = uv_buf_init(loop->room.data(), static_cast<unsigned>(loop->room.size()));
}

void destroy(uv_handle_t* handle) {
    delete reinterpret_cast<uv_tcp_t*>(handle);
}

void onRead(uv_stream_t* stream, ssize_t got, const uv_buf_t* buffer);

void onWritten(uv_write_t* request, int) {
    uv_stream_t* stream = request->handle;
    delete reinterpret_cast<Pending*>(request);
    if (!uv_is_closing(reinterpret_cast<uv_handle_t*>(stream))) {
        uv_read_start(stream, allocate, onRead);
    }
}

// The kernel's buffer is full: the rest is queued, and nothing is read before it is gone.
void writeLater(uv_stream_t* stream, const char* bytes, std::size_t count) {
    uv_read_stop(stream);
    auto* pending = new Pending{{}, {bytes, bytes + count}};
    uv_buf_t rest = uv_buf_init(pending->bytes.data(), static_cast<unsigned>(count));
    uv_write(&pending->request, stream, &rest, 1, onWritten);
}

void onRead(uv_stream_t* stream, ssize_t got, const uv_buf_t* buffer) {
    if (got < 0) {
        uv_close(reinterpret_cast<uv_handle_t*>(stream), destroy);
    } else if (got > 0) {
        uv_buf_t answer = uv_buf_init(buffer->base, static_cast<unsigned>(got));
        int sent = uv_try_write(stream, &answer, 1);
        if (sent < 0 && sent != UV_EAGAIN) {
            uv_close(reinterpret_cast<uv_handle_t*>(stream), destroy);
        } else if (sent < got) {
            sent = sent < 0 ? 0 : sent;
            writeLater(stream, buffer->base + sent, static_cast<std::size_t>(got - sent));
        }
    }
}

void onHandOver(uv_poll_t* poll, int, int) {
    auto* loop = static_cast<Loop*>(poll->loop->data);
    for (int fd; loop->handOver->take(&fd);) {
        if (fd == Bench::HandOver::kStop) {
            uv_stop(&loop->uv);
            return;
        }
        auto* connection = new uv_tcp_t;
        uv_tcp_init(&loop->uv, connection);
        uv_tcp_open(connection, fd);
        uv_read_start(reinterpret_cast<uv_stream_t*>(connection), allocate, onRead);
    }
}

void runLoop(Bench::HandOver& handOver) {
    auto loop = std::make_unique<Loop>();
    loop->handOver = &handOver;
    uv_loop_init(&loop->uv);
    loop->uv.data = loop.get();
    uv_poll_init(&loop->uv, &loop->given, handOver.readEnd());
    uv_poll_start(&loop->given, UV_READABLE, onHandOver);
    uv_run(&loop->uv, UV_RUN_DEFAULT);
    uv_close(reinterpret_cast<uv_handle_t*>(&loop->given), nullptr);
    uv_run(&loop->uv, UV_RUN_NOWAIT);
    uv_loop_close(&loop->uv);
}

}  // namespace

int main(int argc, char** argv) {
    Bench::runHandOverLoops(Bench::parseEchoOptions(argc, argv, "echo server on libuv"), runLoop);
    return 0;
}
