#!/usr/bin/env python3
"""What late viewers get by each rule, in virtual time: docs/bench/late-viewers.md and its plots.

    bench/driver/viewer_scenes.py [--out FILE] [--figures FILE]

Builds bench/macro/viewer_scenes.cpp, has it check itself, and runs it: a minute or two. --figures takes what a run
printed before instead.
"""

import argparse
import json
import pathlib
import subprocess

import viewer_conditions

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/bench"
RULES = {
    "off": "without the policy",
    "strict": "`SetResumePolicy(1000, MediaResume::STRICT)`",
    "policy": "`SetResumePolicy(1000)`",
}
LADDER_RULES = ("policy", "ladder")
COLOURS = {"off": "#7f7f7f", "strict": "#d9a441", "policy": "#c03a2b", "ladder": "#2b6cc0", "low": "#a9c8ec"}
NAMES = {"off": "no policy", "strict": "strict", "policy": "step ahead", "ladder": "two qualities"}
COLUMNS = [
    ("Shown", lambda row: f"{100 * row['shown']:.1f} %"),
    ("Longest freeze", lambda row: f"{row['freeze_s']:.2f} s"),
    ("Lag p50 / p99", lambda row: f"{row['lag_p50_s']:.2f} / {row['lag_p99_s']:.2f} s"),
    ("Longest step", lambda row: f"{row['step_s']:.2f} s"),
    ("In time", lambda row: f"{100 * row['in_time']:.1f} %"),
    ("Held", lambda row: f"{row['held_bytes'] / 1e6:.1f} MB"),
    ("Waste", lambda row: f"{100 * row['waste']:.1f} %"),
]
KINDS = {
    "groups": "Key frames of 170 KB, others of 17 KB, 25 frames/s.",
    "outages": "The same; nothing gets through for 1.5 s, every 27 s.",
    "all key frames": "Every frame is a key frame of 40 KB.",
    "large key frames": "Key frames of 400 and 900 KB.",
    "frame rates": "50 and 60 frames/s.",
    "sound": "47 frames of sound a second beside the pictures, in a second channel.",
    "sound, outages": "Sound, and nothing gets through for 1.5 s, every 27 s.",
    "auto-send": "Ticks between the frames, each 20 or 100 ms.",
    "kernel buffers": "16, 64 and 512 KiB in the kernel in place of 128.",
    "limits": "Other limits than 1000 ms.",
    "changing link": "150 % of the rate, then 60 %, 90 %, and again, for 20 s each.",
    "two qualities": "Each picture is there a second time, with a fifth of the bytes, in a channel of its own, and the filter "
                     "of the sender is the ladder of `examples/media_relay`, with the policy beside it: down when the viewer "
                     "is later than half the limit or has missed pictures, up again after five key frames in a row at which "
                     "it was not even a quarter of that late (fifty, or 2 s, where each picture is a key frame of 40 KB). Links "
                     "in percent of the high quality's rate. High: of the pictures shown, those in high quality. Changes: "
                     "from one quality to the other, in 272 s.",
    "two qualities, changing link": "150 % of the high quality's rate for 30 s, then 60 %, 90 %, 150 %, and again, for 20 s "
                                    "each.",
    "two qualities, patience": "Up again after 2 or 15 prompt key frames in place of 5.",
    "layers": "Every second frame, of 10 KB, is disposable; the others have 24 KB.",
    "layers, outages": "Disposable frames, and nothing gets through for 1.5 s, every 27 s.",
    "layers, large key frames": "Disposable frames, and key frames of 900 KB.",
    "layers, sound": "Disposable frames, and sound.",
    "hard bound": "`SetResumePolicy(1000, MediaResume::AHEAD, 2000)` in place of the one without a hard bound.",
    "hard bound, layers, sound": "The same with disposable frames and sound.",
}


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "docs/bench/late-viewers.md")
    parser.add_argument("--figures", type=pathlib.Path, help="what a run printed")
    return parser.parse_args()


def take():
    subprocess.run(["cmake", "-S", ROOT, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                    "-DCMAKE_CXX_FLAGS_RELEASE=-O2", "-DRETICOR_BUILD_BENCH=ON", "-DRETICOR_BUILD_TESTS=OFF",
                    "-DRETICOR_BUILD_EXAMPLES=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", BUILD, "--target", "viewer_scenes"], check=True, stdout=subprocess.DEVNULL)
    program = BUILD / "bench/viewer_scenes"
    subprocess.run([program, "--check"], check=True)
    return json.loads(subprocess.run([program], check=True, stdout=subprocess.PIPE, text=True).stdout)


def group_of(row):
    return "irregular" if row["group_s"] < 0 else f"{row['group_s']:g} s" if row["group_s"] else "1 frame"


def link_of(row):
    return "changing" if row["changing"] else f"{row['percent']:g} %"


def name_of(row):
    """What tells a scene from the others of its kind."""
    words = [group_of(row), link_of(row)]
    if "large" in row["kind"]:
        words.append(f"{row['key_bytes'] // 1000} KB")
    if row["kind"] == "frame rates":
        words.append(f"{row['fps']}/s")
    if row["kind"] == "auto-send":
        words.append(f"{row['auto_send_ms']} ms")
    if row["kind"] == "kernel buffers":
        words.append(f"{row['kernel_bytes'] // 1024} KiB")
    if row["kind"] == "limits":
        words.append(f"{row['max_lag_ms']} ms")
    if "patience" in row["kind"]:
        words.append(f"{row['prompt_keys']} keys")
    return ", ".join(words)


def table(rows):
    columns, rules = list(COLUMNS), RULES
    if rows[0]["with_sound"]:
        columns.append(("Sound", lambda row: f"{100 * row['sound']:.1f} %"))
    if "ladder" in rows[0]["library"]:
        columns += [("High", lambda row: f"{100 * row['high']:.1f} %"), ("Changes", lambda row: f"{row['changes']:.0f}")]
        rules = LADDER_RULES
    yield "| Group, link | Rule | " + " | ".join(heading for heading, _ in columns) + " |"
    yield "|---|---|" + "---:|" * len(columns)
    for row in rows:
        for i, rule in enumerate(rules):
            name = name_of(row) if i == 0 else ""
            yield f"| {name} | {NAMES[rule]} | " + " | ".join(cell(row["library"][rule]) for _, cell in columns) + " |"
    yield ""


def step_of(most):
    """A round distance of lines, of which four or five are enough."""
    return next(step for step in (0.1, 0.2, 0.5, 1, 2, 2.5, 5, 10, 20, 25) if most / step <= 5)


def bars(path, title, rows, series, unit):
    """A plot of `series`, a list of name, colour and function of a row, beside each other for each of the rows. A function that
    gives two values has the first one drawn in the colour, and what is above it up to the second one in a pale one."""
    width, height, left, top, floor = 900, 335, 60, 50, 270
    found = [[value(row) for _, _, value in series] for row in rows]
    line = step_of(max(max(pair) for values in found for pair in values))
    lines = next(count for count in range(1, 7) if line * count >= max(max(pair) for values in found for pair in values))
    most = line * lines
    step = (width - left - 20) / len(rows)
    bar = step / (len(series) + 1)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" font-family="sans-serif" '
             f'font-size="12"><rect width="100%" height="100%" fill="#ffffff"/><text x="{left}" y="20">{title}</text>']
    for i in range(lines + 1):
        y = floor - (floor - top) * i / lines
        parts.append(f'<line x1="{left}" x2="{width - 20}" y1="{y:.0f}" y2="{y:.0f}" stroke="#dddddd"/>'
                     f'<text x="{left - 6}" y="{y + 4:.0f}" text-anchor="end">{line * i:.3g}{unit}</text>')
    for i, row in enumerate(rows):
        for j, (_, colour, _) in enumerate(series):
            x, under = left + i * step + (j + 0.5) * bar, 0
            for value, fill in zip(found[i][j], (colour, COLOURS["low"])):
                tall = (floor - top) * (value - under) / most
                y = floor - (floor - top) * value / most
                parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{bar:.1f}" height="{tall:.1f}" fill="{fill}"/>')
                under = value
        middle = left + (i + 0.5) * step
        parts.append(f'<text x="{middle:.0f}" y="{floor + 16}" text-anchor="middle">{group_of(row)}</text>'
                     f'<text x="{middle:.0f}" y="{floor + 31}" text-anchor="middle">{link_of(row)}</text>')
        if row["outage_s"]:
            parts.append(f'<text x="{middle:.0f}" y="{floor + 46}" text-anchor="middle">outages</text>')
    parts.append(f'<text x="{left - 6}" y="{floor + 16}" text-anchor="end">group</text>'
                 f'<text x="{left - 6}" y="{floor + 31}" text-anchor="end">link</text>')
    legend = [(name, colour) for name, colour, _ in series]
    if any(len(pair) > 1 for values in found for pair in values):
        legend[-1:] = [(legend[-1][0] + ": high", legend[-1][1]), ("low", COLOURS["low"])]
    x = width - 20
    for name, colour in reversed(legend):
        x -= 26 + 7 * len(name)
        parts.append(f'<rect x="{x}" y="11" width="10" height="10" fill="{colour}"/><text x="{x + 14}" y="20">{name}</text>')
    path.write_text("\n".join(parts) + "</svg>\n")


def of_rules(value, rules):
    return [(NAMES[rule], COLOURS[rule], lambda row, rule=rule: [value(row["library"][rule])]) for rule in rules]


def plots(rows, directory):
    chosen = [row for row in rows if row["kind"] == "groups" and row["group_s"] in (2, 10) and row["percent"] <= 95]
    chosen += [row for row in rows if row["kind"] == "outages" and row["group_s"] == 10 and row["percent"] == 150]
    for name, title, value, unit in (
            ("late-viewers-shown", "Pictures shown, of all", lambda figures: 100 * figures["shown"], " %"),
            ("late-viewers-freeze", "Longest freeze", lambda figures: figures["freeze_s"], " s"),
            ("late-viewers-lag", "Lag, 99th percentile", lambda figures: figures["lag_p99_s"], " s")):
        bars(directory / f"{name}.svg", title, chosen, of_rules(value, RULES), unit)
        yield f"![{title}]({name}.svg)"
        yield ""
    title = "Pictures shown, of all"
    two = [row for row in rows if row["kind"] in ("two qualities", "two qualities, changing link") and row["group_s"] in (2, 10)]
    two.sort(key=lambda row: (row["group_s"], row["changing"], row["percent"]))

    def split(row):
        figures = row["library"]["ladder"]
        return [100 * figures["shown"] * figures["high"], 100 * figures["shown"]]

    bars(directory / "late-viewers-qualities.svg", title, two,
         [*of_rules(lambda figures: 100 * figures["shown"], ["policy"]), (NAMES["ladder"], COLOURS["ladder"], split)], " %")
    yield f"![{title}, with one quality and with two](late-viewers-qualities.svg)"
    yield ""


def coming(rows):
    yield "## Coming"
    yield ""
    yield "What a viewer waits for that comes to the stream of *groups*, with `SetResumePolicy(1000)`: from `AddSender` to its first"
    yield "picture, and until it is live, that is until a picture arrives within two frame times. Mean / worst of ten places in a group,"
    yield "each between two frames. The start cache is `SetStartCache(15000, 64 MiB)`, and the viewer begins in a burst."
    yield ""
    yield "| Group, link | First picture | with start cache | Live | with start cache |"
    yield "|---|---:|---:|---:|---:|"

    def times(row, what):
        return f"{row[what + '_mean_s']:.2f} / {row[what + '_worst_s']:.2f} s" if what + "_mean_s" in row else "never"

    for without, cached in zip(rows[::2], rows[1::2]):
        yield (f"| {group_of(without)}, {without['percent']:g} % | {times(without, 'first')} | {times(cached, 'first')} | "
               f"{times(without, 'live')} | {times(cached, 'live')} |")
    yield ""


def page(rows, directory):
    comings = [row for row in rows if row["kind"] == "coming"]
    rows = [row for row in rows if row["kind"] != "coming"]
    yield "# Late viewers"
    yield ""
    yield "Written by `bench/driver/viewer_scenes.py`. Streams and links in virtual time: the library has its own senders and"
    yield "buffer, and the clock and the socket of the scene, of which the kernel's buffer of 128 KiB is a part. Each scene lasts"
    yield "300 s; the first 20 do not count. A plain model of stream, link and rules agrees with the library in all of them (one"
    yield "point, 0.15 s). What the rules are is in [media.md](../media.md); [slow-viewers.md](slow-viewers.md) has real sockets."
    yield ""
    yield "- **Shown**: pictures that arrive and can be decoded. **Longest freeze**: the longest time between two of them."
    yield "- **Lag**: from the making of a shown picture to its arrival. **Longest step**: in picture time, from one to the next."
    yield "- **In time**: shown within the limit and half a second, as for a player with a fixed delay."
    yield "- **Held**: the most that the buffer held for the viewer. **Waste**: bytes that arrived and could not be decoded."
    yield "- Links in percent of the stream's rate. Nothing here depends on the machine."
    yield ""
    yield "Rules: " + "; ".join(f"*{NAMES[rule]}*, {text}" for rule, text in RULES.items()) + "."
    yield ""
    yield from plots(rows, directory)
    yield from viewer_conditions.section(rows, name_of)
    for kind, text in KINDS.items():
        chosen = [row for row in rows if row["kind"] == kind]
        yield f"## {kind[0].upper()}{kind[1:]}"
        yield ""
        yield text
        yield ""
        yield from table(chosen)
    yield from coming(comings)


def main():
    options = parse_arguments()
    rows = json.loads(options.figures.read_text()) if options.figures else take()
    options.out.write_text("\n".join(page(rows, options.out.parent)).rstrip() + "\n")


main()
