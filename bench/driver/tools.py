"""Starting the benchmark programs and reading what they print."""

import collections
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

# What a system call is shown as; all others are "other".
CALLS = {
    "epoll_wait": "wait", "epoll_pwait": "wait", "epoll_pwait2": "wait", "poll": "wait",
    "epoll_ctl": "epoll_ctl", "futex": "futex",
    "read": "receive", "readv": "receive", "recvfrom": "receive", "recvmsg": "receive",
    "write": "send", "writev": "send", "sendto": "send", "sendmsg": "send",
}
KINDS = ["wait", "receive", "send", "epoll_ctl", "futex", "other"]


class Failed(Exception):
    """A program could not be measured; the text says which and why."""


class Tools:
    """The built programs, and how they are run."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.counter = count_with_perf if perf_counts() else count_with_strace

    def has(self, program):
        return (self.directory / program).is_file()

    def path(self, program):
        return str(self.directory / program)

    def json(self, program, *arguments, cpus=None, wrapper=()):
        """Runs a program to its end and returns the JSON that it prints."""
        command = [*wrapper, self.path(program), *map(str, arguments)]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              preexec_fn=bound_to(cpus), timeout=600)
        if done.returncode != 0:
            raise Failed(f"{' '.join(command)} ended with {done.returncode}: {done.stderr.strip()[-2000:]}")
        return json.loads(done.stdout)


class Server:
    """A server under measurement, from its "port N" line to its clean end."""

    def __init__(self, tools, program, *arguments, cpus=None, environment=None):
        command = [tools.path(program), "--port", "0", *map(str, arguments)]
        self.errors = tempfile.TemporaryFile(mode="w+")
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=self.errors, text=True,
                                        preexec_fn=bound_to(cpus), env={**os.environ, **(environment or {})})

    def __enter__(self):
        words = self.process.stdout.readline().split()
        if len(words) != 2 or words[0] != "port":
            self.process.kill()
            raise Failed(f"{self.process.args[0]} did not start: {self.said()}")
        self.port = words[1]
        self.pid = self.process.pid
        return self

    def __exit__(self, kind, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = "a hang"
        self.process.stdout.close()
        said = self.said()
        self.errors.close()
        if kind is None and (status != 0 or said):
            raise Failed(f"{self.process.args[0]} ended with {status}: {said}")

    def said(self):
        self.errors.seek(0)
        return self.errors.read().strip()[-2000:]


def bound_to(cpus):
    """For preexec_fn: keeps the program on these processors."""
    return (lambda: os.sched_setaffinity(0, cpus)) if cpus else None


def perf_counts():
    """Whether perf may count system calls here."""
    if not shutil.which("perf"):
        return False
    done = subprocess.run(["perf", "stat", "-x,", "-e", "raw_syscalls:sys_enter", "true"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    return done.returncode == 0 and re.match(r"[1-9]\d*,", done.stderr) is not None


def count_with_perf(tools, pid, program, load, cpus=None, window=False):
    """Runs the load and counts the server's calls meanwhile. Returns the load's JSON and calls by name. With
    `window` the load is told pipes by which it says from when to when."""
    events = ["raw_syscalls:sys_enter"] + ["syscalls:sys_enter_" + name for name in CALLS]
    with tempfile.NamedTemporaryFile(mode="r") as counts, tempfile.TemporaryDirectory() as directory:
        wrapper = ["perf", "stat", "-x,", "-o", counts.name, "-p", str(pid), "-e", ",".join(events)]
        if window:
            control, answer = (os.path.join(directory, name) for name in ("control", "answer"))
            os.mkfifo(control)
            os.mkfifo(answer)
            wrapper += ["-D", "-1", "--control", f"fifo:{control},{answer}"]
            load = [*load, "--control", control, "--answer", answer]
        result = tools.json(program, *load, wrapper=[*wrapper, "--"], cpus=cpus)
        result["counted"] = result.get("frames") if window else None
        calls = collections.Counter()
        for line in counts:
            fields = line.split(",")
            if len(fields) > 2 and fields[0].isdigit():
                calls[fields[2].partition("sys_enter_")[2] or "all"] = int(fields[0])
    return result, calls


def count_with_strace(tools, pid, program, load, cpus=None, window=False):
    """The same with strace, which slows a server until it batches: its counts come out too low. It has no
    window: connections and the end are counted too."""
    with tempfile.NamedTemporaryFile(mode="r") as counts:
        tracer = subprocess.Popen(["strace", "-f", "-c", "-p", str(pid), "-o", counts.name],
                                  stderr=subprocess.DEVNULL)
        try:
            time.sleep(0.5)  # until it has attached to every thread
            result = tools.json(program, *load, cpus=cpus)
            result["counted"] = result.get("frames_total") if window else None
        finally:
            tracer.send_signal(signal.SIGINT)
            tracer.wait()
        calls = collections.Counter()
        for line in counts:
            fields = line.split()
            if len(fields) >= 5 and fields[3].isdigit() and fields[-1] != "total":
                calls[fields[-1]] = int(fields[3])
    calls["all"] = sum(calls.values())
    return result, calls


def calls_per_request(calls, requests):
    """Calls by kind and in all, per request."""
    kinds = dict.fromkeys(KINDS, 0)
    for name, kind in CALLS.items():
        kinds[kind] += calls[name]
    kinds["other"] = calls["all"] - sum(kinds.values())
    kinds["all"] = calls["all"]
    return {kind: count / requests for kind, count in kinds.items()}
