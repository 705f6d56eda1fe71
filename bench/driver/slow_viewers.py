#!/usr/bin/env python3
"""What viewers of slow links get, with the resume policy off and in both modes: docs/bench/slow-viewers.md.

    bench/driver/slow_viewers.py [--seconds N] [--skip N] [--max-lag MS] [--percents 120,95,...] [--out FILE] [--render]

Builds bench/macro/slow_viewers.cpp and runs it twice, without auto-send and with it at 100 ms. Each run takes as long
as it says, since the frames come in real time: six minutes in all with the defaults. For a look, --seconds 30 --skip 6
--out /tmp/look.md. The figures are kept beside the page as JSON, from which --render writes it anew.
"""

import argparse
import datetime
import json
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
}
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
    subprocess.run(["cmake", "--build", BUILD, "--target", "slow_viewers"], check=True, stdout=subprocess.DEVNULL)


def measure(options, auto_send_ms):
    command = [BUILD / "bench/slow_viewers", "--seconds", options.seconds, "--skip", options.skip, "--max-lag",
               options.max_lag, "--percents", options.percents, "--auto-send", auto_send_ms]
    done = subprocess.run(list(map(str, command)), check=True, stdout=subprocess.PIPE, text=True)
    return json.loads(done.stdout)


def table(rows):
    yield "| Bandwidth | " + " | ".join(heading for heading, _ in COLUMNS) + " |"
    yield "|---:|" + "---:|" * len(COLUMNS)
    for row in rows:
        yield f"| {row['percent']} % | " + " | ".join(cell(row) for _, cell in COLUMNS) + " |"
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
    build()
    return {
        "machine": bench.machine(), "date": str(datetime.date.today()), "commit": bench.commit(),
        "seconds": options.seconds, "skip": options.skip, "max_lag_ms": options.max_lag,
        "runs": [{"auto_send_ms": auto_send_ms, "viewers": measure(options, auto_send_ms)} for auto_send_ms in (0, 100)],
    }


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
           "counted")
    for link, text in LINKS.items():
        yield ""
        yield f"## {'Paced link' if link == 'paced' else 'CSimulatorStream'}"
        yield ""
        yield text
        for mode, heading in MODES.items():
            for run in stored["runs"]:
                rows = [row for row in run["viewers"] if row["link"] == link and row["mode"] == mode]
                if not rows:
                    continue  # stored before there was this mode
                policy = heading.format(stored["max_lag_ms"])
                ticks = f"at {run['auto_send_ms']} ms" if run["auto_send_ms"] else "off"
                yield ""
                yield f"### {policy}, auto-send {ticks}"
                yield ""
                yield from table(rows)
                yield from patterns(rows)


def main():
    options = parse_arguments()
    figures = options.out.with_suffix(".json")
    if not options.render:
        figures.write_text(json.dumps(take(options), indent=1) + "\n")
    text = "\n".join(page(json.loads(figures.read_text()))).replace("\n\n\n", "\n\n").rstrip() + "\n"
    options.out.write_text(text)
    print(text)


main()
