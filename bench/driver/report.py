"""The results as a page of tables and as plots."""

import statistics

import plots
import targets
from rows import NAMES
from tools import KINDS

# Columns of the tables: figure, heading, format, whether the ratio to the base stands beside it.
ECHO_COLUMNS = [
    ("requests_per_s", "requests/s", "{:,.0f}", True), ("server_cpu_us_per_request", "server CPU us", "{:.2f}", True),
    ("p50_us", "p50 us", "{:,.0f}", False), ("p99_us", "p99 us", "{:,.0f}", False),
    ("server_cores", "server cores", "{:.2f}", False),
    ("server_bytes_per_connection", "memory per connection, bytes", "{:,.0f}", False),
]
FANOUT_COLUMNS = [
    ("server_cpu_us_per_frame", "server CPU us per frame and client", "{:.2f}", True),
    ("frames_per_s", "frames/s", "{:,.0f}", True),
    ("fast.p50_us", "delay p50 us", "{:,.0f}", False), ("fast.p99_us", "delay p99 us", "{:,.0f}", True),
    ("fast.missing", "missing", "{:,.0f}", False),
    ("slow.p50_us", "slow clients: age p50 us", "{:,.0f}", False), ("slow.p99_us", "age p99 us", "{:,.0f}", False),
    ("server_resident_kib", "resident KiB", "{:,.0f}", False), ("server_cores", "server cores", "{:.2f}", False),
    ("load_cores", "load cores", "{:.2f}", False),
]
SYSCALL_COLUMNS = [("all", "all", "{:.2f}", True)] + [(kind, kind, "{:.2f}", False) for kind in KINDS]
TABLES = {
    "echo": ("epoll", ECHO_COLUMNS),
    "kit": ("asio", ECHO_COLUMNS),
    "syscalls": ("epoll", SYSCALL_COLUMNS),
    "fanout": ("epoll", FANOUT_COLUMNS),
    "fanout-counts": ("epoll", SYSCALL_COLUMNS + [("allocations", "allocations", "{:.4f}", False),
                                                  ("copied", "bytes copied per byte", "{:.4f}", False),
                                                  ("writes", "writes", "{:.2f}", False),
                                                  ("full_writes", "of them without room, in all", "{:,.0f}", False)]),
    "lanes": ("reticor-1", [("frames_per_second", "frames/s", "{:,.0f}", True),
                            ("server_cpu_us_per_frame", "server CPU us per frame and client", "{:.2f}", True),
                            ("sink_cpu_us_per_frame", "sink's CPU us", "{:.2f}", False),
                            ("server_processors", "server cores", "{:.2f}", False),
                            ("lost_frames", "lost", "{:,.0f}", False)]),
    "datagrams": ("sendto", [("read.arrived_per_s", "arrived/s", "{:,.0f}", True),
                             ("read.sent_per_s", "sent/s", "{:,.0f}", False),
                             ("read.cpu_ns", "CPU ns each", "{:,.0f}", True),
                             ("unread.cpu_ns", "CPU ns each, unread", "{:,.0f}", True)]),
    "timers": ("libevent", [("arm_ns", "arm ns", "{:.0f}", False), ("cancel_ns", "cancel ns", "{:.0f}", False),
                            ("churn_pair_ns", "cancel and arm ns, 10,000 pending", "{:.0f}", False),
                            ("idle_wakeups", "wake-ups while idle", "{:.0f}", False)]),
}
TICK_COLUMNS = [
    ("cpu_ns_per_event", "CPU ns per event and tick", "{:.1f}", False),
    ("process_us_per_tick", "CPU us per tick, whole process", "{:.0f}", False), ("ticks", "ticks", "{:.0f}", False),
    ("p50_us", "late by us, p50", "{:.0f}", False), ("p99_us", "p99", "{:.0f}", False),
    ("max_us", "max", "{:.0f}", False), ("drift_us", "drift us", "{:.0f}", False),
    ("drift_steps", "drift in steps of 5 ms", "{:.0f}", False),
]
FILE_COLUMNS = [
    ("mib_per_s", "MiB/s", "{:,.0f}", True), ("p50_us", "one call p50 us", "{:.2f}", False),
    ("p99_us", "p99 us", "{:.2f}", False), ("max_us", "longest us", "{:,.0f}", False),
]
MESSAGE_COLUMNS = [
    ("ns_per_message", "ns/message", "{:.0f}", True), ("cpu_ns_per_message", "CPU ns/message", "{:.0f}", True),
    ("allocations_per_message", "allocations/message", "{:.4f}", False),
    ("first_us", "first begins after us", "{:.0f}", False), ("first_us_worst", "worst us", "{:.0f}", False),
]

HEADINGS = {
    "echo": ("Echo", "Ratios in brackets are to plain epoll. Server CPU is user and kernel time of the server per "
             "request. One load process with one thread keeps one request under way per active connection, compares "
             "every byte, and shares the processors with the server; so absolute figures hold for this arrangement "
             "alone. With one connection the figure is a matter of where the scheduler places the two processes: on "
             "two processors each request waits for two of them to wake from idle, which takes longer than the work. "
             "The rows on one processor leave that out and compare the length of the path. Above 4000 connections "
             "Reticor spreads them over a CPoolSet. Memory per connection is what the server's own grew by until "
             "each was served once, without the kernel's."),
    "kit": ("The server kit", "The echo of above by a lambda for each connection and by a coroutine for each, beside a handler "
            "class (Reticor) and asio's call-backs and coroutines; ratios in brackets are to asio's call-backs. How to read "
            "them is in [kit.md](kit.md)."),
    "syscalls": ("System calls per request", "Counted by `{counter}` on the server's threads while the load runs, in "
                 "runs of their own, since counting slows what is counted."),
    "fanout": ("Fan-out", "One producer, one delivery thread, many clients on the loopback device; the server has one "
               "processor and the load the other one. Ratios in brackets are to plain epoll. A frame is counted for "
               "each client that got it whole; the load, one thread, compares every byte. Delay is from the making of "
               "a frame, which its header tells, until a client has its last byte. Clients at a fixed rate and those "
               "that never read have a receive buffer of 16 KiB. SO_SNDBUF is 128 KiB on every client. A server "
               "leaves out frames for a client that lags by more than a second: Reticor, plain epoll and libevent go "
               "on at the next fresh key frame, GStreamer (multifdsink) at the newest one that it has. What viewers of slow "
               "links get, with and without the policy for them, is in [slow-viewers.md](slow-viewers.md); what was tried "
               "and left out is in [tried.md](tried.md)."),
    "fanout-counts": ("What a delivered frame costs besides time", "Per frame and client. System calls are counted by "
                      "`{counter}` on the server's threads; allocations (malloc and its kin) and copies in user space "
                      "(memcpy and its kin, 512 bytes and more) by a library that is loaded into the server, in a run "
                      "of its own. GStreamer gets each frame in one piece, which is put together once: its sink would join two pieces for each client."),
    "lanes": ("Lanes", "One producer and CMediaLanes; each lane has a pool of its own. The other side of the "
              "connections is a process that throws away what comes, without a copy (MSG_TRUNC), on the same processors. "
              "As fast as they go: no client has more than 32 frames waiting. Ratios are to one lane. Where the sink takes "
              "a part of two processors, two lanes cannot have twice the frames of one."),
    "messages": ("Messages", "One producer that is not a worker posts to 1000 receivers on two workers as fast as it can; "
                 "serial messages run one after the other (asio: a strand). CPU is that of the whole process. Ratios "
                 "are to asio. Allocations are calls of malloc and its kin, in windows of 10,000 messages after one "
                 "window was pending as a whole; TBB brings an allocator of its own, which is not seen. Burst: 100,000 "
                 "messages onto a pool whose workers sleep, the median of the bursts."),
    "datagrams": ("Datagrams", "One thread sends as fast as it can over loopback, 46 datagrams in each turn, to a socket that "
                  "another thread reads with recvmmsg(2), and to one that nobody reads, whose datagrams the kernel "
                  "drops. CPU is that of the sending thread, and has the kernel's work for the other end in it. Counted is "
                  "what arrived as well as what was sent, since the socket takes more than the reader. Ratios are to plain "
                  "sendto(2) on a connected socket."),
    "timers": ("Timers", "A million timers are armed with random delays from one to 20 hours and cancelled in random "
               "order; before that, with 10,000 pending, a random one is cancelled and armed anew. The peers' timers are structures "
               "that the caller laid out beforehand and belong to one thread; ours are ids that any thread may arm and "
               "cancel, and each arm makes one. Times are processor time of the arming thread."),
    "ticks": ("Ticks", "One timer of 20 ms; its events count their calls and do nothing else. CPU per event is the "
              "worker's time from the first event of a tick to the last, divided by the events; CPU per tick is that of "
              "the whole process when it does nothing but tick, most of it for waking and for going to sleep again. "
              "With every worker busy 32 messages of 20 us each are always under way. Lateness is that of a tick's "
              "first call against `start + n * period`; below zero it came early, which timers may by 3 ms at most. "
              "Its median is a matter of where in the 5 ms grid of the timers the start happened to lie. Drift "
              "is the median of the last tenth of the ticks less that of the first."),
    "files": ("Files", "One caller writes a file in pieces of 4 KiB and reads it back, once after the page cache was told "
              "to let go of it and once warm; every piece is compared. The time is from opening to the end of closing. "
              "Reticor's caller is a handler on a pool with CPosixStorDev and its usual four buffers of 128 KiB, or, "
              "reading ahead, with 16; libuv's "
              "calls are made one after the other from its loop, and a call is the handing over of the request. "
              "Ratios are to fwrite and fread. The slow device sleeps 50 ms in every call (fwrite: in every write "
              "after its buffer of 8 KiB) and keeps nothing; what counts there is how long the caller is held."),
    "micro": ("Single operations", "Nanoseconds per item, or per round where a round has no items; with several "
              "threads that of one thread."),
}


def median(values):
    return statistics.median(values)


def medians_of(results):
    return {row: {implementation: {metric: median(values) for metric, values in metrics.items()}
                  for implementation, metrics in stored["samples"].items()}
            for row, stored in results["rows"].items()}


def write(results, order, directory):
    """README.md and the plots. `order` is that of the rows."""
    names = [name for name in order if name in results["rows"]]
    if not names:
        return
    rows = {name: results["rows"][name] for name in names}
    medians = medians_of(results)
    pictures = plots.draw(medians, {name: row["title"] for name, row in rows.items()}, directory)
    page = ["# Benchmarks", "", *preface(rows), "", *tables(rows, medians, pictures)]
    (directory / "README.md").write_text("\n".join(page) + "\n")


def measured(results, names):
    """What is to be shown of these rows alone, as text."""
    rows = {name: results["rows"][name] for name in names if name in results["rows"]}
    return "\n".join(tables(rows, medians_of({"rows": rows}), {}))


def tables(rows, medians, pictures):
    """The lines of the targets that these rows have, and of their tables, by group."""
    lines = target_table(medians, rows)
    for group in ("echo", "kit", "syscalls", "fanout", "fanout-counts", "lanes", "messages", "datagrams", "timers", "ticks",
                  "files", "micro"):
        members = {name: row for name, row in rows.items() if row["group"] == group}
        if members:
            lines += ["", *section(group, members, medians, pictures.get(group, []))]
    return lines


def distinct(values):
    return list(dict.fromkeys(values))


def preface(rows):
    """Machine, command, number of runs, and how quiet it was."""
    machines = distinct(describe(row["machine"]) for row in rows.values())
    commands = distinct(f"`{row['command'].strip()}` ({row['date']}, commit {row['commit']}, runs: {row['runs']})"
                        for row in rows.values())
    others = [value for row in rows.values() for metrics in row["samples"].values() for value in metrics["neighbours"]]
    lines = ["Written by `script/bench`, which builds everything and measures Reticor and its peers in turn: in each",
             "run every row, in each row every implementation, in an order that changes from run to run. The figures",
             "are medians of the runs; the ranges in the tables are the lowest and the highest run.", "",
             "- Machine: " + "; ".join(machines),
             "- Command: " + "; ".join(commands),
             f"- Other programs kept {median(others):.2f} processors busy at the median of all measurements, "
             f"{max(others):.2f} at the worst. Where it is more than a tenth, ratios near 1 mean little."]
    if any(row["quick"] for row in rows.values()):
        lines.append("- Some rows come from `--quick`, which only shows that everything works.")
    return lines + ["", "What it costs to be watched has [a page of its own](watching.md)."]


def describe(machine):
    kind = "virtual machine" if machine["virtual"] else "machine"
    return (f"{kind} with {machine['processors']} processors ({machine['processor']}), {machine['memory_gib']} GiB, "
            f"{machine['system']}")


def target_table(medians, rows):
    found = targets.reached(medians, {name: row["title"] for name, row in rows.items()})
    if not found:
        return []
    missed = sum(not target.holds for target in found)
    lines = ["## Targets", "", f"{len(found) - missed} of {len(found)} are reached.", "",
             "| Work | Figure | Target | Reached | |", "|---|---|---:|---:|---|"]
    for target in found:
        sign = ">=" if target.at_least else "<="
        unit = " " + target.unit if target.unit else ""
        lines.append(f"| {target.work} | {target.what} | {sign} {target.limit:g}{unit} | {target.reached:.3g}{unit} | "
                     f"{'yes' if target.holds else '**no**'} |")
    return lines


def section(group, rows, medians, pictures):
    heading, text = HEADINGS[group]
    counter = next(iter(rows.values()))["counted_with"]
    lines = [f"## {heading}", "", text.format(counter=counter)]
    for picture, caption in pictures:
        lines += ["", f"![{caption}]({picture})"]
    for name, row in rows.items():
        if group == "micro":
            lines += ["", f"### {row['title']}", "", *micro_table(row)]
        elif group == "messages":
            for kind, title in (("stream", "2 million messages"), ("serial", "Serial messages"), ("burst", "Bursts")):
                lines += ["", f"### {title}", "", *table(row, medians[name], "asio", MESSAGE_COLUMNS, kind + ".")]
        elif group == "files":
            lines += ["", f"### {row['title']}"]
            for phase, title in (("write", "Writing"), ("cold", "Reading, cold"), ("warm", "Reading, warm")):
                if any(key.startswith(phase) for figures in medians[name].values() for key in figures):
                    lines += ["", f"{title}:", "", *table(row, medians[name], "stdio", FILE_COLUMNS, phase + ".")]
        elif group == "ticks":
            for phase, title in (("one", "One event"), ("many", "1000 events"),
                                 ("loaded", "1000 events, every worker busy")):
                lines += ["", f"### {title}", "", *table(row, medians[name], None, TICK_COLUMNS, phase + ".")]
        else:
            base, columns = TABLES[group]
            title = [] if len(rows) == 1 else ["", f"### {row['title']}"]
            lines += [*title, "", *table(row, medians[name], base, columns)]
    return lines


def table(row, medians, base, columns, prefix=""):
    """A line per implementation. Columns that nobody has are left out."""
    implementations = [name for name in NAMES if any(key.startswith(prefix) for key in medians.get(name, {}))]
    columns = [column for column in columns if any(prefix + column[0] in medians[name] for name in implementations)]
    lines = ["| |" + "".join(f" {heading} |" for _, heading, _, _ in columns), "|---|" + "---:|" * len(columns)]
    for name in implementations:
        cells = [cell(row["samples"][name], medians, name, base, prefix + metric, style, with_ratio)
                 for metric, _, style, with_ratio in columns]
        lines.append(f"| {NAMES[name]} | " + " | ".join(cells) + " |")
    return lines


def cell(samples, medians, name, base, metric, style, with_ratio):
    values = samples.get(metric)
    if not values:
        return ""
    text = style.format(median(values))
    if with_ratio and len(values) > 1:
        text += f" ({style.format(min(values))} to {style.format(max(values))})"
    bottom = medians.get(base, {}).get(metric)
    if with_ratio and bottom and name != base:
        text += f" [{median(values) / bottom:.2f}]"
    return text


def micro_table(row):
    (metrics,) = row["samples"].values()
    lines = ["| | ns | lowest to highest |", "|---|---:|---:|"]
    for name, values in metrics.items():
        if name == "neighbours":
            continue
        shown = name.replace("/real_time", "").replace("|", "\\|")
        lines.append(f"| `{shown}` | {median(values):.1f} | {min(values):.1f} to {max(values):.1f} |")
    return lines
