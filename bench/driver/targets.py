"""What we want to reach, each with the figure that was reached."""

import dataclasses

PEERS = ["epoll", "libevent", "libuv", "asio"]


@dataclasses.dataclass(frozen=True)
class Target:
    """`reached` is in `unit`; it holds if it is on the right side of `limit`."""
    work: str
    what: str
    reached: float
    limit: float
    at_least: bool = False
    unit: str = ""

    @property
    def holds(self):
        return self.reached >= self.limit if self.at_least else self.reached <= self.limit


class Medians:
    """medians(row, implementation, metric), or None where something was not measured."""

    def __init__(self, medians):
        self.medians = medians

    def get(self, row, implementation, metric):
        return self.medians.get(row, {}).get(implementation, {}).get(metric)

    def ratio(self, row, metric, implementation, base, base_row=None):
        top = self.get(row, implementation, metric)
        bottom = self.get(base_row or row, base, metric)
        return None if top is None or not bottom else top / bottom


def reached(medians, titles):
    """All targets of which the figures are there."""
    found = Medians(medians)
    targets = [*echo(found, titles), *kit(found, titles), *syscalls(found, titles), *fanout(found, titles), *messages(found), *datagrams(found),
               *timers(found), *ticks(found), *files(found), *micro(found)]
    return [target for target in targets if target.reached is not None]


# Against the peers, with several connections; and the rows with one, where only the processor time is a target.
ECHO_MANY = ["echo-64b-64", "echo-64b-1000", "echo-64b-4000-16", "echo-64b-10000-64", "echo-64b-16000-64", "echo-16k-64"]
ECHO_ONE = ["echo-64b-1", "echo-64b-1-one-cpu"]


def echo(found, titles):
    for row in ECHO_MANY:
        best = max((found.get(row, peer, "requests_per_s") or 0 for peer in PEERS), default=0)
        work = "Echo, " + titles.get(row, row)
        yield Target(work, "requests/s against asio", found.ratio(row, "requests_per_s", "reticor", "asio"), 1,
                     at_least=True)
        if best and found.get(row, "reticor", "requests_per_s"):
            yield Target(work, "requests/s against the best peer", found.get(row, "reticor", "requests_per_s") / best,
                         1, at_least=True)
    for row in ECHO_MANY + ECHO_ONE:
        yield Target("Echo, " + titles.get(row, row), "server CPU per request against plain epoll",
                     found.ratio(row, "server_cpu_us_per_request", "reticor", "epoll"),
                     1.15 if row in ECHO_ONE else 1.10)
    yield Target("Echo, 4000 open against 16 open, 16 active", "requests/s",
                 found.ratio("echo-64b-4000-16", "requests_per_s", "reticor", "reticor", "echo-64b-16-16"), 0.95,
                 at_least=True)


# With 1000 active connections the figures are only shown.
KIT_ROWS = ["kit-64b-1", "kit-64b-64", "kit-64b-4000-16"]


def kit(found, titles):
    for row in KIT_ROWS:
        work = "Kit, " + titles.get(row, row)
        for own, peer, what in (("kit", "asio", "the kit's lambdas against asio's call-backs"),
                                ("kit", "asio-coroutines", "the kit's lambdas against asio's coroutines"),
                                ("kit-coroutines", "asio-coroutines", "the kit's coroutines against asio's")):
            yield Target(work, "requests/s, " + what, found.ratio(row, "requests_per_s", own, peer), 1, at_least=True)
        yield Target(work, "requests/s, a handler class against the kit's lambdas",
                     found.ratio(row, "requests_per_s", "reticor", "kit"), 1.05)
        yield Target(work, "server CPU per request, the kit's lambdas against a handler class",
                     found.ratio(row, "server_cpu_us_per_request", "kit", "reticor"), 1.05)


def syscalls(found, titles):
    for row, limit in (("syscalls-1", 3.3), ("syscalls-64", 2.7)):
        work = "System calls per request, " + titles.get(row, "")
        yield Target(work, "all", found.get(row, "reticor", "all"), limit)
        yield Target(work, "futex", found.get(row, "reticor", "futex"), 0.1)


def fanout(found, titles):
    """`least` and `most` of the peers that link a library; plain epoll is the yardstick."""
    def peers(row, metric):
        return [value for value in (found.get(row, peer, metric) for peer in ("libevent", "gstreamer")) if value]

    def against(value, others, choose):
        return value / choose(others) if value is not None and others else None

    cpu, p99, rate = "server_cpu_us_per_frame", "fast.p99_us", "frames_per_s"
    for row, limit in (("fanout-100", 0.95), ("fanout-1000", 1)):
        work = "Fan-out, " + titles.get(row, row)
        yield Target(work, "server CPU per delivered frame against plain epoll",
                     found.ratio(row, cpu, "reticor", "epoll"), limit)
        yield Target(work, "server CPU per delivered frame against the better of libevent and GStreamer",
                     against(found.get(row, "reticor", cpu), peers(row, cpu), min), 1)
        yield Target(work, "p99 delay against plain epoll", found.ratio(row, p99, "reticor", "epoll"), 1)
        together = "server CPU per delivered frame, a step's writes together, against "
        yield Target(work, together + "plain epoll", found.ratio(row, cpu, "reticor-batch", "epoll"), limit)
    yield Target(work, together + "a call for each", found.ratio(row, cpu, "reticor-batch", "reticor"), 0.95)
    for row, limit in (("fanout-own-100", 0.95), ("fanout-own-1000", 1), ("fanout-own-full", 1.05)):
        yield Target("Fan-out, " + titles.get(row, row), "server CPU per delivered frame against plain epoll",
                     found.ratio(row, cpu, "reticor", "epoll"), limit)
    own = "fanout-own-full"
    yield Target("Fan-out, " + titles.get(own, own), "frames/s against plain epoll",
                 found.ratio(own, rate, "reticor", "epoll"), 0.98, at_least=True)
    slow, halves, full = "fanout-slow", "fanout-halves", "fanout-full"
    work = "Fan-out, " + titles.get(slow, slow)
    yield Target(work, "frames that fast clients missed", found.get(slow, "reticor", "fast.missing"), 0)
    yield Target(work, "p99 delay of fast clients against a run without the others",
                 found.ratio(slow, p99, "reticor", "reticor", "fanout-fast"), 1.1)
    yield Target(work, "median age of frames at slow clients", seconds(found.get(slow, "reticor", "slow.p50_us")), 3,
                 unit="s")
    yield Target(work, "resident memory above that with 100 fast clients",
                 mebibytes(found.get(slow, "reticor", "server_resident_kib"),
                           found.get("fanout-100", "reticor", "server_resident_kib")), 8, unit="MiB")
    yield Target(work, "writes that found no room at all", found.get("fanout-slow-counts", "reticor", "full_writes"), 0)
    yield Target("Fan-out, " + titles.get(halves, halves), "server CPU per delivered frame against all of them fast",
                 found.ratio(halves, cpu, "reticor", "reticor", "fanout-1000"), 1.05)
    work = "Fan-out, " + titles.get(full, full)
    yield Target(work, "frames/s against plain epoll", found.ratio(full, rate, "reticor", "epoll"), 0.98, at_least=True)
    yield Target(work, "frames/s against the better of libevent and GStreamer",
                 against(found.get(full, "reticor", rate), peers(full, rate), max), 1, at_least=True)
    yield Target(work, "server CPU per delivered frame against plain epoll",
                 found.ratio(full, cpu, "reticor", "epoll"), 1.05)
    yield Target(work, "writes that found no room at all", found.get("fanout-full-counts", "reticor", "full_writes"), 0)
    counts = "fanout-counts"
    work = "A delivered frame, " + titles.get(counts, counts)
    yield Target(work, "payload bytes copied in user space, per byte", found.get(counts, "reticor", "copied"), 0)
    # Allocations are those of the whole process: less than one a second is none per frame and client.
    yield Target(work, "heap allocations", found.get(counts, "reticor", "allocations"), 0.001)
    # To hundredths: perf does not begin and end to count at the very moment at which frames are.
    yield Target(work, "write calls", hundredths(found.get(counts, "reticor", "send")), 1)


def hundredths(value):
    return None if value is None else round(value, 2)


def seconds(us):
    return None if us is None else us / 1e6


def mebibytes(kib, base):
    return None if kib is None or base is None else (kib - base) / 1024


def messages(found):
    for kind, name in (("stream", "Messages to 1000 receivers"), ("serial", "Serial messages")):
        for metric, what in (("ns_per_message", "time"), ("cpu_ns_per_message", "CPU")):
            yield Target(name, what + " per message against asio",
                         found.ratio("messages", f"{kind}.{metric}", "reticor", "asio"), 1)
        yield Target(name, "heap allocations per message once warm",
                     found.get("messages", "reticor", f"{kind}.allocations_per_message"), 0.001)
    yield Target("Burst of 100,000 messages on an idle pool", "first one begins after",
                 found.get("messages", "reticor", "burst.first_us"), 100, unit="us")


def datagrams(found):
    work = "Datagrams of 1400 bytes"
    yield Target(work, "arrived/s with SendSegments against plain sendto",
                 found.ratio("datagrams", "read.arrived_per_s", "reticor-segments", "sendto"), 3, at_least=True)
    for row, when in (("read", "read"), ("unread", "nobody reading")):
        for way, what, limit in (("reticor-segments", "SendSegments", 0.25), ("reticor-many", "SendMany", 1)):
            yield Target(work, f"CPU of one handed over with {what} against plain sendto, {when}",
                         found.ratio("datagrams", row + ".cpu_ns", way, "sendto"), limit)


def timers(found):
    for metric, what, limit in (("arm_ns", "arm, up to a million pending", 150),
                                ("cancel_ns", "cancel in random order, up to a million pending", 600),
                                ("churn_pair_ns", "cancel and arm, 10,000 pending", 150)):
        yield Target("Timers", what, found.get("timers", "reticor", metric), limit, unit="ns")
    for metric, what, limit in (("arm_ns", "arm", 1.10), ("churn_pair_ns", "cancel and arm, 10,000 pending", 1.15)):
        yield Target("Timers", what + " against libuv", found.ratio("timers", metric, "reticor", "libuv"), limit)
    yield Target("Timers", "wake-ups of the timer thread, 10,000 armed an hour ahead",
                 found.get("timers", "reticor", "idle_wakeups"), 0)


def ticks(found):
    work = "1000 events on one timer of 20 ms"
    for phase, what in (("many", "nothing else to do"), ("loaded", "every worker busy")):
        yield Target(work, f"CPU per event and tick, {what}",
                     found.get("ticks", "reticor", phase + ".cpu_ns_per_event"), 100, unit="ns")
    yield Target(work, "drift after 10 s in steps of 5 ms, every worker busy",
                 found.get("ticks", "reticor", "loaded.drift_steps"), 0)


def files(found):
    work = "1 GiB in pieces of 4 KiB"
    yield Target(work, "bytes/s written against fwrite", found.ratio("files", "write.mib_per_s", "reticor", "stdio"), 0.9,
                 at_least=True)
    yield Target(work, "bytes/s read from a cold cache against fread",
                 found.ratio("files", "cold.mib_per_s", "reticor", "stdio"), 0.7, at_least=True)
    for phase, what in (("write", "Write"), ("cold", "Read, cold cache"), ("warm", "Read, warm cache")):
        yield Target(work, f"p99 of one call, {what}", found.get("files", "reticor", phase + ".p99_us"), 5, unit="us")
    for phase in ("cold", "warm"):
        yield Target(work, f"p99 of one call, Read ahead, {phase} cache", found.get("files", "reticor-ahead", phase + ".p99_us"),
                     5, unit="us")
        yield Target(work, f"bytes/s read ahead against Read without, {phase} cache",
                     found.ratio("files", phase + ".mib_per_s", "reticor-ahead", "reticor"), 1, at_least=True)
    yield Target("A device whose every call takes 50 ms", "longest call of the caller",
                 found.get("files-slow", "reticor", "write.max_us"), 200, unit="us")


def micro(found):
    def own(row, metric):
        return next((figures.get(metric) for figures in found.medians.get(row, {}).values()), None)

    for walk, what in (("SplitHeaders", "names and values"), ("SplitReceived", "names and values, text just received"),
                       ("WalkLines", "lines"), ("FindHeader", "last header by its head")):
        by_hand, parser = (own("micro-strparser", f"BM_{walk}_{way}") for way in ("Memchr", "StrParser"))
        if by_hand and parser:
            yield Target("Header walk, 20 lines", f"{what}: time against a loop of memchr", parser / by_hand, 2)
    one = own("micro-handlerlookup", "Lookup/real_time/threads:1")
    two = own("micro-handlerlookup", "Lookup/real_time/threads:2")
    if one and two:
        yield Target("Finding handlers among 10,000", "two threads against one, per lookup", two / one, 2)
    for order in ("Pair", "Lifo", "Fifo"):
        for size in (64, 1500, 4096, 65536):
            times = {name: own("micro-tsmemory", f"{order}/{size}/{name}")
                     for name in ("reticor", "glibc", "jemalloc", "mimalloc")}
            peers = [value for name, value in times.items() if value and name != "reticor"]
            if times["reticor"] and peers:
                yield Target(f"TsMalloc and TsFree, {order.lower()}, {size} B", "time against the best peer",
                             times["reticor"] / min(peers), 1)
