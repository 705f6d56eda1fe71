"""Plots of the medians, drawn by gnuplot."""

import shutil
import subprocess

from rows import ECHO, FANOUT, NAMES
from tools import KINDS

COLOURS = {
    "epoll": "#7f7f7f", "libevent": "#d9a441", "libuv": "#5b9a57", "asio": "#4c78a8", "tbb": "#9467bd",
    "gstreamer": "#5b9a57", "reticor": "#c03a2b", "glibc": "#7f7f7f", "jemalloc": "#d9a441", "mimalloc": "#4c78a8",
    "wait": "#7f7f7f", "receive": "#4c78a8", "send": "#5b9a57", "epoll_ctl": "#d9a441", "futex": "#c03a2b",
    "other": "#c7c7c7",
}


def draw(medians, titles, directory):
    """Writes the plots for which there are figures. Returns (file, caption) by group of rows."""
    if not shutil.which("gnuplot"):
        return {}
    found = {}
    for group, name, caption, unit, categories, series, style in wanted(medians, titles):
        if categories and series:
            bars(directory / f"{name}.svg", caption, unit, categories, series, style)
            found.setdefault(group, []).append((f"{name}.svg", caption))
    return found


def wanted(medians, titles):
    """(group, file, caption, unit, categories, {series: values}, style) of every plot."""
    echo = [row for row in titles if row.startswith("echo-") and "epoll" in medians[row]]
    labels = [short(row) for row in echo]
    for metric, name, caption in (("requests_per_s", "echo-requests", "Echo: requests/s, plain epoll is 1"),
                                  ("server_cpu_us_per_request", "echo-cpu",
                                   "Echo: server CPU per request, plain epoll is 1")):
        series = {implementation: [ratio(medians[row], implementation, metric) for row in echo]
                  for implementation in ECHO}
        yield "echo", name, caption, "ratio", labels, series, "clustered"
    yield syscall_plot(medians)
    yield from fanout_plots(medians)
    yield message_plot(medians)
    yield timer_plot(medians)
    yield memory_plot(medians)
    yield lanes_plot(medians)


def short(row):
    return row.removeprefix("echo-").replace("-one-cpu", "\\none cpu").replace("64b-4000-16", "64b-4000\\n16 active").replace(
        "000-64", "000\\n64 active")


def ratio(figures, implementation, metric):
    own, base = figures.get(implementation, {}).get(metric), figures["epoll"].get(metric)
    return own / base if own and base else None


def fanout_plots(medians):
    labels = {"fanout-100": "100 clients\\n20 KB", "fanout-1000": "1000 clients\\n4 KB",
              "fanout-slow": "70 fast, 30 slow\\n20 KB", "fanout-full": "50 clients\\n64 KB, full speed"}
    rows = [row for row in labels if "epoll" in medians.get(row, {})]
    for metric, name, caption in (
            ("server_cpu_us_per_frame", "fanout-cpu", "Fan-out: server CPU per delivered frame, plain epoll is 1"),
            ("fast.p99_us", "fanout-delay", "Fan-out: p99 delay, plain epoll is 1")):
        series = {implementation: [ratio(medians[row], implementation, metric) for row in rows]
                  for implementation in FANOUT}
        yield "fanout", name, caption, "ratio", [labels[row] for row in rows], series, "clustered"


def syscall_plot(medians):
    bars_of = [(row, name) for row in ("syscalls-1", "syscalls-64") for name in ECHO if name in medians.get(row, {})]
    labels = [f"{NAMES[name]}\\n{row.removeprefix('syscalls-')}" for row, name in bars_of]
    series = {kind: [medians[row][name].get(kind, 0) for row, name in bars_of] for kind in KINDS}
    return ("syscalls", "syscalls", "System calls per request, with 1 and with 64 connections", "calls", labels,
            series, "stacked")


def message_plot(medians):
    figures = medians.get("messages", {})
    metrics = {"stream.ns_per_message": "stream\\ntime", "stream.cpu_ns_per_message": "stream\\nCPU",
               "serial.ns_per_message": "serial\\ntime", "serial.cpu_ns_per_message": "serial\\nCPU"}
    series = {name: [figures[name].get(metric) for metric in metrics] for name in NAMES if name in figures}
    return "messages", "messages", "Messages: ns per message", "ns", list(metrics.values()), series, "clustered"


def timer_plot(medians):
    figures = medians.get("timers", {})
    metrics = {"arm_ns": "arm", "cancel_ns": "cancel", "churn_pair_ns": "cancel and arm\\n10,000 pending"}
    series = {name: [figures[name].get(metric) for metric in metrics] for name in NAMES if name in figures}
    return "timers", "timers", "Timers: ns per operation", "ns", list(metrics.values()), series, "clustered"


def memory_plot(medians):
    figures = next(iter(medians.get("micro-tsmemory", {}).values()), {})
    uses = [f"{order}/{size}" for order in ("Lifo", "Fifo") for size in (64, 1500, 4096, 65536)]
    allocators = ["glibc", "jemalloc", "mimalloc", "reticor"]
    series = {name: [figures.get(f"{use}/{name}") for use in uses] for name in allocators} if figures else {}
    return ("micro", "memory", "TsMalloc and TsFree: ns per block, logarithmic", "ns",
            [use.replace("/", "\\n") + " B" for use in uses], series, "logarithmic")


def lanes_plot(medians):
    rows = {row: f"{row.removeprefix('lanes-')} clients" for row in medians
            if row.startswith("lanes-") and row != "lanes-full"}
    series = {"reticor": [medians[row]["reticor-3"].get("server_cpu_us_per_frame") for row in rows]} if rows else {}
    return ("lanes", "lanes-growth", "Three lanes: server CPU per delivered frame of 4 KB", "us", list(rows.values()),
            series, "clustered")


def bars(path, caption, unit, categories, series, style):
    """Bars in clusters (perhaps on a logarithmic scale) or in stacks; None is a gap."""
    stacked = style == "stacked"
    lines = [
        "set terminal svg size 960,420 font 'sans,12' background '#ffffff'",
        f"set output '{path}'",
        f"set title '{caption}'",
        f"set ylabel '{unit}'",
        "set bmargin 3.5",
        "set logscale y; set yrange [1:*]" if style == "logarithmic" else "set yrange [0:*]",
        "set grid ytics lc rgb '#dddddd'",
        "set style data histograms",
        "set style histogram " + ("rowstacked" if stacked else "clustered gap 1.5"),
        "set style fill solid border rgb '#ffffff'",
        "set boxwidth " + ("0.7" if stacked else "1"),
        "set key outside right top",
        "set xtics nomirror scale 0",
        "$data << END",
    ]
    for i, category in enumerate(categories):
        values = " ".join("?" if values[i] is None else f"{values[i]:.6g}" for values in series.values())
        lines.append(f'"{category}" {values}')
    lines += ["END", "set datafile missing '?'"]
    columns = [f"$data using {i}{':xtic(1)' if i == 2 else ''} title '{NAMES.get(name, name)}' noenhanced "
               f"lc rgb '{COLOURS[name]}'" for i, name in enumerate(series, 2)]
    if unit == "ratio":
        columns.append("1 with lines lc rgb '#000000' dt 2 notitle")
    lines.append("plot " + ", ".join(columns))
    subprocess.run(["gnuplot"], input="\n".join(lines) + "\n", text=True, check=True)
