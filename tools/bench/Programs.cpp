// Programs: a table. CMake names each `main` for its source, and says which libraries there were.
#include "bench/Programs.h"

#define RETICOR_BENCH_PROGRAM(name) int reticor_bench_##name(int argc, char** argv);
#include "reticor_bench_programs.inc"
#undef RETICOR_BENCH_PROGRAM

namespace bench {

namespace {

struct Entry {
    const char* name;
    Main main;
};

#define RETICOR_BENCH_PROGRAM(name) {#name, &reticor_bench_##name},
constexpr Entry PROGRAMS[] = {
#include "reticor_bench_programs.inc"
};
#undef RETICOR_BENCH_PROGRAM

}  // namespace

Main findProgram(const std::string& name) {
    for (const Entry& entry : PROGRAMS) {
        if (name == entry.name) {
            return entry.main;
        }
    }
    return nullptr;
}

const std::vector<Contender>& echoContenders() {
    static const std::vector<Contender> all{
        {"Reticor", "echo_reticor", false},  {"Reticor's kit", "echo_kit", false},
        {"plain epoll", "echo_epoll", true}, {"asio", "echo_asio", true},
        {"libevent", "echo_libevent", true}, {"libuv", "echo_libuv", true},
    };
    return all;
}

const std::vector<Contender>& fanoutContenders() {
    static const std::vector<Contender> all{
        {"Reticor", "fanout_server", false},
        {"plain epoll", "fanout_epoll", true},
        {"libevent", "fanout_libevent", true},
    };
    return all;
}

const std::vector<Contender>& messageContenders() {
    static const std::vector<Contender> all{
        {"Reticor", "messages_reticor", false},
        {"asio", "messages_asio", true},
        {"TBB", "messages_tbb", true},
    };
    return all;
}

}  // namespace bench
