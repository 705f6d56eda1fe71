#!/usr/bin/env python3
"""What viewers get over real sockets: on slow links in each mode, and when they come. docs/bench/slow-viewers.md.

    bench/driver/slow_viewers.py [--seconds N] [--skip N] [--max-lag MS] [--percents 120,95,...] [--out FILE] [--render]

Builds and runs bench/macro/viewer_starts.cpp, and then bench/macro/slow_viewers.cpp twice side by side, without
auto-send and with it at 100 ms. The frames come in real time, so all of it takes five minutes with the defaults. For a
look, --seconds 30 --skip 6 --out /tmp/look.md. The programs need little of the processors, but at once: where others
work as well, run it under `nice -n -10`. The figures are kept beside the page as JSON, from which --render writes it anew.
"""

import argparse
import datetime
import json
import os
import pathlib
import subprocess

import bench

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/bench"
LINKS = {
    "paced": "A TCP connection over loopback that is read at the viewer's bandwidth; about 128 KiB lie in the kernel.",
    "simulated": "A `CSimulatorStream` before a connection that is read at once. It lets a second's bytes through in one "
                 "go, so a viewer gets its frames in bursts, and the lag moves within each second. All frames are 5.2 "
                 "times as large here, for the simulator's bandwidth comes in steps of 128 KiB/s.",
}
MODES = {
    "off": "Without the policy",
    "strict": "`SetResumePolicy({}, MediaResume::STRICT)`",
    "ahead": "`SetResumePolicy({})`",
    "room": "`SetResumePolicy({})`, with `WaitRoom`",
}
QUALITIES = {"one": "one", "two": "two, ladder"}
COLUMNS = [
    ("Delivered", lambda row: f"{100 * row['delivered']:.1f} %"),
    ("Decodes", lambda row: f"{100 * row['decoded']:.1f} %"),
    ("Decodable run of 50", lambda row: f"{row['run']:.1f}"),
    ("First hole", lambda row: "never" if row["first_hole_s"] < 0 else f"{row['first_hole_s']:.1f} s"),
    ("Lag at start, mean / max", lambda row: f"{row['lag_mean_s']:.2f} / {row['lag_max_s']:.2f} s"),
    ("End to end, p50 / p99", lambda row: f"{row['delay_p50_s']:.2f} / {row['delay_p99_s']:.2f} s"),
    ("Longest stall", lambda row: f"{row['stall_max_s']:.2f} s"),
    ("Frames held, p50 / max", lambda row: f"{row['held_p50']:.0f} / {row['held_max']:.0f}"),
]
QUALITY_COLUMNS = [
    ("Qualities", lambda row: QUALITIES[row["mode"]]),
    ("Shown", lambda row: f"{100 * row['decoded']:.1f} %"),
    ("Longest stall", lambda row: f"{row['stall_max_s']:.2f} s"),
    ("End to end, p50 / p99", lambda row: f"{row['delay_p50_s']:.2f} / {row['delay_p99_s']:.2f} s"),
    ("In high quality", lambda row: f"{100 * row['high']:.1f} %"),
    ("Changes", lambda row: str(row["changes"])),
]
KERNEL_COLUMNS = [
    ("Receive buffer", lambda row: "16 KiB asked for" if row["receive_buffer"] else "the system's"),
    ("`SetKernelLag`", lambda row: f"{row['kernel_lag_ms']} ms" if row["kernel_lag_ms"] else "without"),
    ("Shown", lambda row: f"{100 * row['shown']:.1f} %"),
    ("End to end, p99", lambda row: f"{row['lag_p99_ms'] / 1000:.2f} s"),
]


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=int, default=180, help="length of each run")
    parser.add_argument("--skip", type=int, default=20, help="seconds at its beginning that do not count")
    parser.add_argument("--max-lag", type=int, default=1000, help="the policy's limit in ms")
    parser.add_argument("--percents", default="120,95,75,50,25,10", help="bandwidths in percent of the stream's")
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "docs/bench/slow-viewers.md")
    parser.add_argument("--render", action="store_true", help="writes the page from the stored figures")
    return parser.parse_args()


def build():
    subprocess.run(["cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                    "-DCMAKE_CXX_FLAGS_RELEASE=-O2", "-DRETICOR_BUILD_BENCH=ON", "-DRETICOR_BUILD_TESTS=OFF",
                    "-DRETICOR_BUILD_EXAMPLES=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", BUILD, "--target", "slow_viewers", "viewer_starts"], check=True,
                   stdout=subprocess.DEVNULL)


def start(program, *arguments):
    return subprocess.Popen([str(BUILD / "bench" / program), *map(str, arguments)], stdout=subprocess.PIPE, text=True)


def figures_of(process):
    found = json.loads(process.communicate()[0])
    if process.returncode != 0:
        raise subprocess.CalledProcessError(process.returncode, process.args)
    return found


def measure(options):
    running = {auto_send_ms: start("slow_viewers", "--seconds", options.seconds, "--skip", options.skip, "--max-lag",
                                   options.max_lag, "--percents", options.percents, "--auto-send", auto_send_ms)
               for auto_send_ms in (0, 100)}
    return [{"auto_send_ms": auto_send_ms, "viewers": figures_of(process)}
            for auto_send_ms, process in running.items()]


def table(rows, columns=None):
    columns = columns or COLUMNS
    yield "| Bandwidth | " + " | ".join(heading for heading, _ in columns) + " |"
    yield "|---:|" + "---:|" * len(columns)
    for row in rows:
        percent = f"{row['percent']} %" if row["percent"] else "changing"
        yield f"| {percent} | " + " | ".join(cell(row) for _, cell in columns) + " |"
    yield ""


def patterns(rows):
    yield "One group of 50 frames from the middle of the run (K key frame, p delivered, . missing):"
    yield ""
    yield "```"
    yield from (f"{row['percent']:4} %  {row['pattern']}" for row in rows)
    yield "```"
    yield ""


def take(options):
    """All that the page is made of."""
    commit = bench.commit()
    build()
    neighbours = bench.Neighbours()
    starts = figures_of(start("viewer_starts", "--seconds", min(options.seconds, 120)))
    runs = measure(options)
    return {
        "machine": bench.machine(), "date": str(datetime.date.today()), "commit": commit,
        "neighbours": neighbours.processors(), "nice": os.nice(0),
        "seconds": options.seconds, "skip": options.skip, "max_lag_ms": options.max_lag,
        "runs": runs, "starts": starts,
    }


def qualities(stored):
    yield "## Two qualities"
    yield ""
    yield f"The stream as above, `SetResumePolicy({stored['max_lag_ms']})`, paced links. With two qualities each picture is there a"
    yield "second time, with a fifth of the bytes, and the filter of the sender is the ladder of `examples/media_relay`: down when"
    yield "the viewer is later than half the limit or has missed pictures, up again after five key frames in a row (10 s) at"
    yield "which it was not even a quarter of that late. Bandwidths are of the high quality's rate; the changing link has"
    yield "150 % of it for 30 s, then 60 %, 90 %, 150 %, and again, for 20 s each. A picture is shown if it decodes in either quality."
    yield "The viewers' receive buffers have 64 KiB here in place of 32, since small frames take more room there than they have bytes."
    for run in stored["runs"]:
        yield ""
        yield f"### Auto-send {ticks_of(run)}"
        yield ""
        yield from table([row for row in run["viewers"] if row["mode"] in QUALITIES], QUALITY_COLUMNS)


def coming(starts):
    yield "## Coming"
    yield ""
    yield "A viewer that comes to a buffer with a start cache (`bench/macro/viewer_starts.cpp`), with `SetResumePolicy(1000)`, from"
    yield "`AddSender` to the last byte at the other end. Live is the first frame that arrives within two frame times."
    yield ""
    yield "| | Rounds | Median | Worst |"
    yield "|---|---:|---:|---:|"
    for row in starts:
        if row["what"] == "first picture":
            text = f"First picture, group of {row['group_s']:g} s, {row['held_bytes'] / 1e6:.1f} MB held"
            text += ", while a frame is being filled" if row["filling"] else ", between two frames"
        elif row["what"] == "live":
            text = f"Live, group of {row['group_s']:g} s"
        else:
            continue
        yield f"| {text} | {row['rounds']} | {row['median_ms']:.1f} ms | {row['worst_ms']:.1f} ms |"
    yield ""
    yield "What it costs another viewer that 100 come within the same second to a group of 10 s, of which 4.4 MB are held: the"
    yield "slowest of its frames, from the making to the last byte at the other end. All are read on the same two processors, so the"
    yield "threads that read for the 100 have a low priority. The rounds of the three rows were taken in turns; what the first row"
    yield "has at its worst is the rest of the machine."
    yield ""
    yield "| Come at once | Rounds | Median | Worst | Rounds above 20 ms |"
    yield "|---|---:|---:|---:|---:|"
    for row in starts:
        if row["what"] == "another viewer's frames":
            text = f"{row['joiners'] or 'none'}{', that wait for room' if row['wait_room'] else ''}"
            yield (f"| {text} | {row['rounds']} | {row['median_ms']:.1f} ms | {row['worst_ms']:.1f} ms | "
                   f"{row['above_20_ms']} |")
    yield ""


def kernel(starts):
    yield "## What lies in the kernel"
    yield ""
    yield "Key frames every 4 s, `SetResumePolicy(1000)`, send buffers as the system gives them, a paced link."
    yield ""
    rows = [row for row in starts if row["what"] == "kernel lag"]
    rows.sort(key=lambda row: (row["percent"], -row["receive_buffer"], row["kernel_lag_ms"]))
    yield from table(rows, KERNEL_COLUMNS)


def ticks_of(run):
    return f"at {run['auto_send_ms']} ms" if run["auto_send_ms"] else "off"


def page(stored):
    machine = stored["machine"]
    yield "# Viewers of slow links"
    yield ""
    yield "Written by `bench/driver/slow_viewers.py`. A stream of 25 frames/s with a key frame of 170 KB (level 1) every 50"
    yield "and others of 17 KB (level 5), 4 Mbit/s, through one `CMediaBuffer` for each slow viewer and a fast one beside"
    yield "it, over real sockets. A frame decodes if it is a key frame or the one before it decodes. Held are the frames"
    yield "of the slow viewer's buffer. How the policy works, and how to choose levels, is in [media.md](../media.md); more"
    yield "streams and links, in virtual time, are in [late-viewers.md](late-viewers.md)."
    yield ""
    yield (f"- Machine: {'virtual machine with ' if machine['virtual'] else ''}{machine['processors']} processors "
           f"({machine['processor']}), {machine['system']}")
    yield (f"- {stored['date']}, commit {stored['commit']}; {stored['seconds']} s, the first {stored['skip']} s not "
           f"counted; other programs kept {stored['neighbours']:.1f} processors busy meanwhile"
           + (f", this one ran at nice {stored['nice']}" if stored["nice"] else ""))
    for link, text in LINKS.items():
        yield ""
        yield f"## {'Paced link' if link == 'paced' else 'CSimulatorStream'}"
        yield ""
        yield text
        for mode, heading in MODES.items():
            for run in stored["runs"]:
                rows = [row for row in run["viewers"] if row["link"] == link and row["mode"] == mode]
                if not rows:
                    continue  # the simulator always has room
                policy = heading.format(stored["max_lag_ms"])
                yield ""
                yield f"### {policy}, auto-send {ticks_of(run)}"
                yield ""
                yield from table(rows)
                yield from patterns(rows)
        if link == "paced":
            yield from qualities(stored)
    yield from coming(stored["starts"])
    yield from kernel(stored["starts"])


def main():
    options = parse_arguments()
    figures = options.out.with_suffix(".json")
    if not options.render:
        figures.write_text(json.dumps(take(options), indent=1) + "\n")
    text = "\n".join(page(json.loads(figures.read_text()))).replace("\n\n\n", "\n\n").rstrip() + "\n"
    options.out.write_text(text)
    print(text)


main()
