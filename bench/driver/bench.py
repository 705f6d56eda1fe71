#!/usr/bin/env python3
"""Measures the rows and writes tables and plots; script/bench builds everything first and then calls this."""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import resource
import shlex
import subprocess
import sys
import time

import report
import rows as rows_module
from tools import Failed, Tools

ROOT = pathlib.Path(__file__).resolve().parents[2]


def parse_arguments():
    parser = argparse.ArgumentParser(prog="script/bench", description="Benchmarks of Reticor and its peers.")
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--rows", default="", metavar="NAME,...", help="rows, or families of rows such as echo")
    parser.add_argument("--runs", type=int, metavar="N", help="runs of each row; 5 unless --quick, which makes 1")
    parser.add_argument("--quick", action="store_true",
                        help="short measurements, to see that everything works; docs/bench stays as it is")
    parser.add_argument("--out", metavar="DIR", help="where results go; docs/bench, with --quick build/bench/quick")
    parser.add_argument("--list", action="store_true", help="names the rows")
    parser.add_argument("--render", action="store_true", help="writes table and plots anew from the stored results")
    options = parser.parse_args()
    options.runs = options.runs or (1 if options.quick else 5)
    options.out = pathlib.Path(options.out or (ROOT / ("build/bench/quick" if options.quick else "docs/bench")))
    return options


def select(rows, wanted):
    """The rows of the wanted names or families (echo, syscalls, micro, ...), all if none is wanted."""
    names = [name for name in wanted.split(",") if name]
    for name in names:
        if not any(belongs(row.name, name) for row in rows):
            sys.exit(f"script/bench: no row is called {name}; there are: {', '.join(row.name for row in rows)}")
    return [row for row in rows if not names or any(belongs(row.name, name) for name in names)]


def belongs(row, name):
    return row == name or row.startswith(name + "-")


def machine():
    """What the figures were taken on, in words."""
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    memory = re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text())
    system = re.search(r'PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text())
    virtual = "hypervisor" in pathlib.Path("/proc/cpuinfo").read_text()
    return {
        "processor": cpu.group(1) if cpu else platform.machine(),
        "processors": len(os.sched_getaffinity(0)),
        "virtual": virtual,
        "memory_gib": round(int(memory.group(1)) / 2**20) if memory else 0,
        "system": f"{system.group(1) if system else '?'}, Linux {platform.release()}",
    }


def commit():
    done = subprocess.run(["git", "-C", str(ROOT), "describe", "--always", "--dirty", "--exclude=*"],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return done.stdout.strip() or "unknown"


class Neighbours:
    """How many processors other programs kept busy since this was made."""

    def __init__(self):
        self.began, self.busy, self.own = time.monotonic(), self.all_busy(), self.own_use()

    @staticmethod
    def all_busy():
        """Seconds that the processors were busy: user, nice, system, interrupts, and what the host took."""
        fields = pathlib.Path("/proc/stat").read_text().splitlines()[0].split()[1:]
        return sum(int(fields[i]) for i in (0, 1, 2, 5, 6, 7)) / os.sysconf("SC_CLK_TCK")

    @staticmethod
    def own_use():
        """Seconds of this process and the ended ones that it started."""
        uses = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
        return sum(use.ru_utime + use.ru_stime for use in uses)

    def processors(self):
        others = self.all_busy() - self.busy - (self.own_use() - self.own)
        return max(0.0, others / (time.monotonic() - self.began))


class Measuring:
    """Takes the samples: run by run, in each run row by row, in each row one implementation after the other."""

    def __init__(self, tools, scale, runs):
        self.tools, self.scale, self.runs = tools, scale, runs
        self.samples = {}
        self.failures = []

    def all(self, rows):
        for run in range(self.runs):
            for row in rows:
                self.row(row, run)

    def row(self, row, run):
        # The order changes from run to run, so that no one is always the first or after the same neighbour.
        start = run % len(row.implementations)
        for implementation in row.implementations[start:] + row.implementations[:start]:
            if not self.tools.has(row.program(implementation)):
                continue
            began = time.monotonic()
            neighbours = Neighbours()
            try:
                figures = row.measure(self.tools, implementation, self.scale)
            except (Failed, subprocess.SubprocessError, ValueError, OSError) as error:
                self.failures.append(f"{row.name}, {implementation}: {error}")
                print(f"FAILED {self.failures[-1]}", file=sys.stderr, flush=True)
                continue
            metrics = self.samples.setdefault(row.name, {}).setdefault(implementation, {})
            figures["neighbours"] = neighbours.processors()
            for metric, value in figures.items():
                metrics.setdefault(metric, []).append(value)
            print(f"run {run + 1}/{self.runs}  {row.name:22} {implementation:20} "
                  f"{time.monotonic() - began:5.1f} s", flush=True)


def stored(path):
    return json.loads(path.read_text()) if path.is_file() else {"rows": {}}


def keep(results, measuring, rows, options):
    """Puts the new samples into the results; rows that were not measured now keep what they have."""
    for row in rows:
        if row.name in measuring.samples:
            results["rows"][row.name] = {
                "group": row.group, "title": row.title, "runs": measuring.runs, "quick": options.quick,
                "date": datetime.date.today().isoformat(), "commit": commit(), "machine": machine(),
                "command": "script/bench " + shlex.join(arguments_shown()),
                "counted_with": measuring.tools.counter.__name__.removeprefix("count_with_"),
                "samples": measuring.samples[row.name],
            }


def arguments_shown():
    """The command line without what script/bench adds."""
    return [word for i, word in enumerate(sys.argv[1:], 1) if word != "--bin" and sys.argv[i - 1] != "--bin"]


def main():
    options = parse_arguments()
    tools = Tools(options.bin)
    micro = sorted(path.name for path in tools.directory.glob("*Bench") if os.access(path, os.X_OK))
    rows = rows_module.all_rows(micro)
    if options.list:
        print("\n".join(f"{row.name:22} {row.title}" for row in rows))
        return
    options.out.mkdir(parents=True, exist_ok=True)
    path = options.out / "results.json"
    results = stored(path)
    failures = []
    chosen = []
    if not options.render:
        chosen = select(rows, options.rows)
        measuring = Measuring(tools, rows_module.QUICK if options.quick else rows_module.FULL, options.runs)
        measuring.all(chosen)
        keep(results, measuring, chosen, options)
        failures = measuring.failures
        path.write_text(json.dumps(results, indent=1, sort_keys=True) + "\n")
    report.write(results, [row.name for row in rows], options.out)
    print(report.measured(results, [row.name for row in chosen]))
    print(f"written: {options.out / 'README.md'}")
    if failures:
        sys.exit("script/bench: not everything could be measured:\n" + "\n".join(failures))


if __name__ == "__main__":
    main()
