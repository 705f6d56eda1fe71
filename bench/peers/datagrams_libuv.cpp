// The datagram rows on libuv: uv_udp_try_send, which makes no request.
#include <uv.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/Datagrams.h"

namespace {

void require(int result, const char* what) {
    if (result < 0) {
        std::fprintf(stderr, "%s: %s\n", what, uv_strerror(result));
        std::exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::DatagramOptions options = Bench::parseDatagramOptions(argc, argv, "datagrams by libuv");
    return Bench::runDatagrams(options, [](std::uint16_t port) {
        const std::shared_ptr<uv_udp_t> udp(new uv_udp_t, [](uv_udp_t* handle) {
            uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
            uv_run(uv_default_loop(), UV_RUN_DEFAULT);
            delete handle;
        });
        sockaddr_in to{};
        require(uv_udp_init(uv_default_loop(), udp.get()), "uv_udp_init");
        require(uv_ip4_addr("127.0.0.1", port, &to), "uv_ip4_addr");
        require(uv_udp_connect(udp.get(), reinterpret_cast<sockaddr*>(&to)), "uv_udp_connect");
        return [udp](Bench::DatagramTurn& turn) {
            std::size_t sent = 0;
            for (std::size_t i = 0; i < Bench::kDatagramsPerTurn; ++i) {
                const uv_buf_t bytes = uv_buf_init(turn.at(i), Bench::kDatagramBytes);
                const int result = uv_udp_try_send(udp.get(), &bytes, 1, nullptr);
                if (result != UV_EAGAIN) {
                    require(result, "uv_udp_try_send");
                    ++sent;
                }
            }
            return sent;
        };
    });
}
