"""What is measured: a row is one kind of work, done by Reticor and by its peers."""

import dataclasses
import os
import tempfile

from tools import Server, calls_per_request

NAMES = {
    "epoll": "plain epoll", "libevent": "libevent", "libuv": "libuv", "asio": "asio", "tbb": "TBB",
    "gstreamer": "GStreamer", "stdio": "fwrite, fread", "posix": "pwrite, pread", "reticor": "Reticor",
    "reticor-single": "Reticor, a write per frame", "reticor-batch": "Reticor, a step's writes together", "reticor-ahead": "Reticor, reading ahead",
    "reticor-1": "one lane", "reticor-2": "two lanes", "reticor-3": "three lanes",
    "asio-coroutines": "asio, coroutines", "kit": "the kit", "kit-coroutines": "the kit, coroutines",
    "sendto": "plain sendto", "reticor-many": "Reticor, SendMany", "reticor-segments": "Reticor, SendSegments",
}
ECHO = ["epoll", "libevent", "libuv", "asio", "reticor"]
KIT = ["asio", "asio-coroutines", "reticor", "kit", "kit-coroutines"]
FANOUT = ["epoll", "libevent", "gstreamer", "reticor"]
DATAGRAMS = ["sendto", "libuv", "asio", "reticor", "reticor-many", "reticor-segments"]


@dataclasses.dataclass(frozen=True)
class Scale:
    """How much work one measurement is."""
    seconds: float
    warm_up: float
    messages: int
    bursts: int
    timers: int
    idle_seconds: float
    tick_seconds: float
    micro_seconds: float
    fanout_seconds: float
    file_bytes: int
    fanout_settle: float  # 1 lets every client begin at a key frame and slow ones fall behind as far as they will


FULL = Scale(seconds=2, warm_up=0.5, messages=2000000, bursts=20, timers=1000000, idle_seconds=3, tick_seconds=10,
             micro_seconds=0.2, fanout_seconds=2.5, file_bytes=1 << 30, fanout_settle=1)
QUICK = Scale(seconds=0.5, warm_up=0.2, messages=200000, bursts=5, timers=1000000, idle_seconds=1, tick_seconds=1,
              micro_seconds=0.02, fanout_seconds=0.8, file_bytes=128 << 20, fanout_settle=1)


class EchoRow:
    """Requests per second, latency and processor time per request of an echo server under closed-loop load."""
    group = "echo"

    def __init__(self, name, title, connections, active, size, one_cpu=False):
        self.name, self.title, self.implementations = name, title, ECHO
        self.load = ["--connections", connections, "--active", active, "--size", size]
        self.cpus = {min(os.sched_getaffinity(0))} if one_cpu else None
        self.pools = -(-connections // 4000) if connections > 4000 else 0  # what one pool has no places for

    def program(self, implementation):
        return "echo_" + implementation

    def measure(self, tools, implementation, scale):
        with Server(tools, self.program(implementation), "--threads", 2, "--pools", self.pools,
                    cpus=self.cpus) as server:
            return tools.json("echo_load", "--port", server.port, "--server-pid", server.pid, *self.load,
                              "--seconds", scale.seconds, "--warm-up", scale.warm_up, cpus=self.cpus)


class KitRow(EchoRow):
    """The same echo by lambdas and by coroutines of the kit, beside a handler class and beside asio's two ways."""
    group = "kit"

    def __init__(self, name, title, connections, active, size, one_cpu=False):
        super().__init__(name, title, connections, active, size, one_cpu)
        self.implementations = KIT

    def program(self, implementation):
        return {"kit-coroutines": "echo_coroutines", "asio-coroutines": "echo_asio_coroutines"}.get(
            implementation, "echo_" + implementation)


class SyscallRow:
    """System calls of an echo server per request. The load's own calls do not count."""
    group = "syscalls"

    def __init__(self, name, title, connections):
        self.name, self.title, self.implementations = name, title, ECHO
        self.connections = connections

    def program(self, implementation):
        return "echo_" + implementation

    def measure(self, tools, implementation, scale):
        with Server(tools, "echo_" + implementation, "--threads", 2) as server:
            load = ["--port", server.port, "--connections", self.connections, "--size", 64,
                    "--seconds", scale.seconds, "--warm-up", 0]
            result, calls = tools.counter(tools, server.pid, "echo_load", load)
        return calls_per_request(calls, result["requests_total"])


class FanoutRow:
    """One live stream to many clients: processor time per delivered frame, delay, memory. The server has a
    processor of its own, and so has the load."""
    group = "fanout"

    def __init__(self, name, title, stream, clients, settle=1.2, seconds=1.0, implementations=FANOUT):
        self.name, self.title, self.implementations = name, title, implementations
        self.stream, self.clients, self.settle, self.seconds = stream, clients, settle, seconds

    def program(self, implementation):
        return "fanout_server" if implementation.startswith("reticor") else "fanout_" + implementation

    def server(self, implementation):
        choice = {"reticor-single": ["--gather", "false"], "reticor-batch": ["--batch", 64]}
        return self.stream.server() + choice.get(implementation, [])

    def measure(self, tools, implementation, scale):
        server_cpus, load_cpus = processor_each()
        with Server(tools, self.program(implementation), *self.server(implementation), cpus=server_cpus) as server:
            return flat(tools.json("fanout_load", *self.load(server, scale), cpus=load_cpus))

    def load(self, server, scale):
        return ["--port", server.port, "--server-pid", server.pid, *self.stream.load(), *self.clients,
                "--warm-up", self.settle * scale.fanout_settle, "--seconds", self.seconds * scale.fanout_seconds]


class FanoutCountRow(FanoutRow):
    """What a delivered frame costs a server besides time: system calls, allocations, copies, writes that find no room.
    The calls are counted in one run, and what happens inside the process in another one."""
    group = "fanout-counts"

    def measure(self, tools, implementation, scale):
        server_cpus, load_cpus = processor_each()
        with Server(tools, self.program(implementation), *self.server(implementation), cpus=server_cpus) as server:
            load = self.load(server, scale)
            result, calls = tools.counter(tools, server.pid, "fanout_load", load, load_cpus, window=True)
        figures = calls_per_request(calls, result["counted"])
        with tempfile.NamedTemporaryFile() as counts:
            inside = {"LD_PRELOAD": tools.path("CountInside.so"), "COUNT_INSIDE": counts.name}
            with Server(tools, self.program(implementation), *self.server(implementation), cpus=server_cpus,
                        environment=inside) as server:
                load = [*self.load(server, scale), "--counts", counts.name]
                result = tools.json("fanout_load", *load, cpus=load_cpus)
        figures["allocations"] = result["allocations_per_frame"]
        figures["copied"] = result["copied_per_byte"]
        figures["writes"] = result["writes_per_frame"]
        figures["full_writes"] = result["full_writes"]
        return figures


def processor_each():
    """One processor for the server and another one, if there is one, for the load."""
    allowed = sorted(os.sched_getaffinity(0))
    return {allowed[0]}, {allowed[-1]}


@dataclasses.dataclass(frozen=True)
class Stream:
    """What a fan-out server sends."""
    fps: int
    frame_bytes: int
    gop: int = 25
    sndbuf: int = 131072  # 0: the system's own

    def load(self):
        return ["--frame-bytes", self.frame_bytes, "--gop", self.gop]

    def server(self):
        return ["--fps", self.fps, *self.load(), "--sndbuf", self.sndbuf]


class ProgramRow:
    """A program per implementation that does the whole row and prints its figures."""

    def __init__(self, name, title, implementations, arguments):
        self.group = self.name = name
        self.title, self.implementations, self.arguments = title, implementations, arguments

    def program(self, implementation):
        return f"{self.name}_{implementation}"

    def measure(self, tools, implementation, scale):
        return flat(tools.json(self.program(implementation), *self.arguments(scale)))


class DatagramRow(ProgramRow):
    """Datagrams of one thread. Reticor has three ways to send them."""

    def program(self, implementation):
        return {"sendto": "datagrams_posix"}.get(implementation, "datagrams_" + implementation.split("-")[0])

    def measure(self, tools, implementation, scale):
        way = {"reticor-many": ["--way", "many"], "reticor-segments": ["--way", "segments"]}.get(implementation, [])
        return flat(tools.json(self.program(implementation), *self.arguments(scale), *way))


class LaneRow(ProgramRow):
    """One stream over lanes, on all processors, with the side that reads on them too."""

    def __init__(self, name, title, lanes, stream, seconds=1.0):
        super().__init__(name, title, [f"reticor-{count}" for count in lanes], None)
        self.group, self.stream, self.seconds = "lanes", stream, seconds

    def program(self, implementation):
        return "lanes_reticor"

    def measure(self, tools, implementation, scale):
        return flat(tools.json("lanes_reticor", "--lanes", implementation.split("-")[1], *self.stream,
                               "--warm-up", scale.warm_up, "--seconds", self.seconds * scale.fanout_seconds))


class MicroRow:
    """A Google Benchmark program; it has ours and the peers in itself, told apart by the benchmarks' names."""
    group = "micro"

    def __init__(self, program):
        self.name = "micro-" + program.removesuffix("Bench").lower()
        self.title, self.implementations = program, [program]

    def program(self, implementation):
        return implementation

    def measure(self, tools, implementation, scale):
        result = tools.json(implementation, "--benchmark_format=json",
                            f"--benchmark_min_time={scale.micro_seconds}")
        return {entry["name"]: nanoseconds(entry) for entry in result["benchmarks"]
                if not entry.get("error_occurred")}


def nanoseconds(entry):
    """What one item, or one round where there are no items, costs one thread."""
    if "items_per_second" in entry:
        return 1e9 / entry["items_per_second"] * entry.get("threads", 1)
    unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
    if entry["name"].find("/real_time") >= 0:
        return entry["real_time"] * unit * entry.get("threads", 1)
    return entry["cpu_time"] * unit


def flat(nested):
    """{"a": {"b": 1}} as {"a.b": 1}."""
    result = {}
    for key, value in nested.items():
        if isinstance(value, dict):
            result.update({f"{key}.{inner}": number for inner, number in flat(value).items()})
        else:
            result[key] = value
    return result


def message_arguments(scale):
    return ["--messages", scale.messages, "--bursts", scale.bursts]


def datagram_arguments(scale):
    return ["--seconds", scale.seconds, "--warm-up", scale.warm_up]


def timer_arguments(scale):
    return ["--many", scale.timers, "--churn", scale.timers, "--idle-seconds", scale.idle_seconds]


def tick_arguments(scale):
    return ["--idle-seconds", scale.tick_seconds / 2, "--loaded-seconds", scale.tick_seconds]


class FileRow(ProgramRow):
    """A file on a disk, or a device that is slow at every call; one program for all rows."""

    def __init__(self, name, title, implementations, arguments):
        super().__init__(name, title, implementations, arguments)
        self.group = "files"

    def program(self, implementation):
        return f"files_{implementation.split('-')[0]}"

    def measure(self, tools, implementation, scale):
        ahead = ["--read-ahead"] if implementation == "reticor-ahead" else []
        return flat(tools.json(self.program(implementation), *self.arguments(scale), *ahead))


def file_arguments(scale):
    return ["--bytes", scale.file_bytes, "--directory", os.environ.get("BENCH_FILES", "/var/tmp")]


def slow_file_arguments(scale):
    return ["--bytes", 2 << 20, "--slow-ms", 50]


def all_rows(micro_programs):
    return [
        EchoRow("echo-64b-1", "64 B, 1 connection", 1, 1, 64),
        EchoRow("echo-64b-1-one-cpu", "64 B, 1 connection, server and load on one processor", 1, 1, 64, True),
        EchoRow("echo-64b-64", "64 B, 64 connections", 64, 64, 64),
        EchoRow("echo-64b-64-one-cpu", "64 B, 64 connections, server and load on one processor", 64, 64, 64, True),
        EchoRow("echo-64b-1000", "64 B, 1000 connections", 1000, 1000, 64),
        EchoRow("echo-64b-16-16", "64 B, 16 connections", 16, 16, 64),
        EchoRow("echo-64b-4000-16", "64 B, 4000 connections, 16 of them active", 4000, 16, 64),
        EchoRow("echo-64b-10000-64", "64 B, 10,000 connections, 64 of them active", 10000, 64, 64),
        EchoRow("echo-64b-16000-64", "64 B, 16,000 connections, 64 of them active", 16000, 64, 64),
        EchoRow("echo-16k-64", "16 KiB, 64 connections", 64, 64, 16384),
        KitRow("kit-64b-1", "64 B, 1 connection", 1, 1, 64),
        KitRow("kit-64b-1-one-cpu", "64 B, 1 connection, server and load on one processor", 1, 1, 64, True),
        KitRow("kit-64b-64", "64 B, 64 connections", 64, 64, 64),
        KitRow("kit-64b-1000", "64 B, 1000 connections", 1000, 1000, 64),
        KitRow("kit-64b-4000-16", "64 B, 4000 connections, 16 of them active", 4000, 16, 64),
        SyscallRow("syscalls-1", "1 connection", 1),
        SyscallRow("syscalls-64", "64 connections", 64),
        FanoutRow("fanout-100", "100 clients, 25 frames/s of 20 KB", Stream(25, 20000), ["--fast", 100],
                  implementations=[*FANOUT, "reticor-batch"]),
        FanoutRow("fanout-1000", "1000 clients, 25 frames/s of 4 KB", Stream(25, 4000), ["--fast", 1000],
                  implementations=[*FANOUT, "reticor-batch"]),
        FanoutRow("fanout-slow", "25 frames/s of 20 KB; 70 fast clients, 20 that read 100 KB/s, 10 that never read",
                  Stream(25, 20000), ["--fast", 70, "--slow", 20, "--stuck", 10], settle=5, seconds=1.6),
        FanoutRow("fanout-fast", "25 frames/s of 20 KB; the 70 fast clients alone", Stream(25, 20000), ["--fast", 70],
                  implementations=["epoll", "reticor"]),
        FanoutRow("fanout-halves", "1000 clients, 25 frames/s of 4 KB; 500 of them read half of it", Stream(25, 4000),
                  ["--fast", 500, "--slow", 500, "--slow-rate", 50400], settle=5),
        FanoutRow("fanout-full", "50 clients, frames of 64 KB as fast as they go", Stream(0, 65536), ["--fast", 50],
                  settle=0.4, seconds=0.8, implementations=[*FANOUT, "reticor-single"]),
        FanoutRow("fanout-own-100", "100 clients, 25 frames/s of 20 KB, the system's own send buffers",
                  Stream(25, 20000, sndbuf=0), ["--fast", 100], implementations=["epoll", "libevent", "reticor"]),
        FanoutRow("fanout-own-1000", "1000 clients, 25 frames/s of 4 KB, the system's own send buffers",
                  Stream(25, 4000, sndbuf=0), ["--fast", 1000], implementations=["epoll", "libevent", "reticor"]),
        FanoutRow("fanout-own-full", "50 clients, frames of 64 KB as fast as they go, the system's own send buffers",
                  Stream(0, 65536, sndbuf=0), ["--fast", 50], settle=0.4, seconds=0.8,
                  implementations=["epoll", "libevent", "reticor"]),
        FanoutCountRow("fanout-counts", "100 clients, 25 frames/s of 20 KB", Stream(25, 20000), ["--fast", 100],
                       settle=1.2, seconds=0.4),
        FanoutCountRow("fanout-slow-counts", "25 frames/s of 20 KB; 70 fast clients, 20 that read 100 KB/s, 10 that "
                       "never read", Stream(25, 20000), ["--fast", 70, "--slow", 20, "--stuck", 10], settle=5,
                       seconds=0.8),
        FanoutCountRow("fanout-full-counts", "50 clients, frames of 64 KB as fast as they go", Stream(0, 65536),
                       ["--fast", 50], settle=0.4, seconds=0.8, implementations=[*FANOUT, "reticor-single"]),
        LaneRow("lanes-full", "50 clients, frames of 64 KB as fast as they go", [1, 2],
                ["--clients", 50, "--frame-bytes", 65536]),
        *[LaneRow(f"lanes-{clients}", f"{clients} clients, 10 frames/s of 4 KB", [3],
                  ["--clients", clients, "--frame-bytes", 4096, "--fps", 10]) for clients in (100, 1000, 4000, 9900)],
        ProgramRow("messages", "Messages", ["asio", "tbb", "reticor"], message_arguments),
        DatagramRow("datagrams", "Datagrams of 1400 bytes", DATAGRAMS, datagram_arguments),
        ProgramRow("timers", "Timers", ["libuv", "libevent", "reticor"], timer_arguments),
        ProgramRow("ticks", "Ticks", ["reticor"], tick_arguments),
        FileRow("files", "1 GiB in pieces of 4 KiB, written and read back", ["stdio", "posix", "libuv", "reticor",
                                                                                  "reticor-ahead"], file_arguments),
        FileRow("files-slow", "2 MiB in pieces of 4 KiB to a device whose every call takes 50 ms", ["stdio", "reticor"],
                slow_file_arguments),
        *[MicroRow(program) for program in micro_programs],
    ]
