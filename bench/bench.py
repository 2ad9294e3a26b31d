"""Measures what the plugin costs: runs each workload alternately with Qt Bluetooth alone and with the plugin, among
the same virtual lights, and prints a table. Run it by scripts/bench."""

import argparse
import datetime
import json
import os
import platform
import re
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import NamedTuple

WAYS = ("bare", "plugin", "logged")
BUILD = Path(__file__).resolve().parent.parent / "build/release"
WORKLOAD = BUILD / "bin/corvelkx-workload"
LIGHTS = BUILD / "bin/corvelkx-lights"
COLUMNS = "what | Qt Bluetooth alone | plugin, log off | plugin, log on | plugin ÷ alone | log on ÷ alone | goal"


class Row(NamedTuple):
    """One row of the table: one value of a workload's output."""

    what: str
    key: str
    unit: str = ""
    goal: str = "stated"
    compare: str = "ratio"  # or "difference", or ""
    exact: bool = False  # the plugin's values must equal those of Qt Bluetooth alone


class Workload(NamedTuple):
    name: str
    lights: int
    count: int
    rows: list
    ways: tuple = WAYS
    repeated: bool = True


def workloads(short):
    yield Workload("calls", 1, 0, [
        Row("D-Bus calls: bring-up, write, disconnect", "calls", goal="1.00", exact=True)])
    yield Workload("rate", 1, 5000 if short else 50000, [
        Row("notifications, one light", "perSecond", "/s", "≥ 0.95"),
        Row("CPU time of a notification", "processor", "µs", "≤ 1.25; log on ≤ 1.6")])
    yield Workload("delay", 1, 200 if short else 2000, [
        Row("bus message to host, one at a time, p50", "p50", "µs", compare="difference"),
        Row("the same, p99", "p99", "µs", "≤ +100 µs", "difference")])
    yield Workload("writes", 2, 300 if short else 3000, [
        Row("writes without response, answered", "withoutResponse", "/s", "≥ 0.95"),
        Row("writes with response, answered", "withResponse", "/s", "≥ 0.95")])
    yield Workload("ready", 1, 0, [
        Row("start() to sigDeviceConnected, one light", "milliseconds", "ms", "≤ 1.05")])
    for lights in (1, 10) if short else (1, 10, 50):
        yield Workload("crowd", lights, 0, [
            Row(f"bring-up of {lights} lights" if lights > 1 else "bring-up of one light", "milliseconds", "ms"),
            Row("longest stall of the host's event loop meanwhile", "gap", "ms", "that of no light", ""),
            Row("the same with no light at all", "idleGap", "ms", "", "")])
    seconds = 3 if short else 60
    yield Workload("flood", 12, seconds, [
        Row(f"2,000 notifications a second, 12 lights, {seconds} s: sent", "sent", goal="", compare=""),
        Row("lost", "lost", goal="0", compare="", exact=True),
        Row("out of order", "outOfOrder", goal="0", compare="", exact=True)], repeated=False)
    yield Workload("recognition", 0, 5000 if short else 100000, [
        Row("recognition, supported", "supported", "ns", compare=""),
        Row("recognition, foreign", "foreign", "ns", compare="")], WAYS[1:])
    yield Workload("knownBytes", 0, 1000, [
        Row("one more light known", "bytes", "bytes", compare="")], ("plugin",), False)
    yield Workload("connectedBytes", 12, 0, [
        Row("one more light connected, Qt's share included", "bytes", "bytes")], WAYS[:2], False)
    yield Workload("kept", 1, 200 if short else 2000, [
        Row("one reconnection keeps", "bytes", "bytes", compare=""),
        Row("service objects of it", "services", compare=""),
        Row("one service object", "serviceBytes", "bytes", compare="")], ("plugin",), False)
    yield Workload("load", 0, 0, [
        Row("plugin file: loading", "load", "ms", compare=""),
        Row("plugin: making the object", "instance", "ms", compare="")], ("plugin",))


def output_of(*words):
    done = subprocess.run([str(word) for word in words], stdout=subprocess.PIPE, check=False)
    if done.returncode:
        sys.exit(f"bench: {' '.join(map(str, words))} failed.")
    return done.stdout.decode()


def run(way, name, lights, count, prefix=()):
    """Runs the workload among that many lights; prefix is a program to run it under, such as valgrind."""
    words = [*prefix, WORKLOAD, way, name, count]
    return json.loads(output_of(*([LIGHTS, "--crowd", lights, "--"] if lights else []), *words))


def number(value):
    digits = 0 if value == round(value) or abs(value) >= 100 else 1 if abs(value) >= 10 else 2
    return f"{value:,.{digits}f}"


def cell(values, unit):
    if not values:
        return ""
    text = number(statistics.median(values))
    if min(values) != max(values):
        text += f" ({number(min(values))}–{number(max(values))})"
    return f"{text} {unit}".strip()


def compared(alone, other, row):
    if not alone or not other or not row.compare:
        return ""
    alone, other = statistics.median(alone), statistics.median(other)
    if row.compare == "ratio":
        return f"{other / alone:.2f}"
    return f"{'−' if other < alone else '+'}{number(abs(other - alone))} {row.unit}"


class Bench:
    def __init__(self, rounds, short):
        self.rounds, self.short = rounds, short
        self.measures = []
        self.wrong = []

    def table(self):
        print(f"{datetime.date.today()}, Qt {run('plugin', 'version', 0, 0)['qt']}, {platform.freedesktop_os_release()['PRETTY_NAME']}, "
              f"{platform.machine()}, {os.cpu_count()} cores, {self.rounds} round{'s' * (self.rounds > 1)}\n")
        print(f"| {COLUMNS} |\n|{' --- |' * 7}", flush=True)
        everything = list(workloads(self.short))
        for step, workload in enumerate(everything, 1):
            self.measure(workload, f"{step} of {len(everything)}")
        if not self.short:
            self.instructions()
        self.library()

    def measure(self, workload, step):
        results = {row.key: {way: [] for way in WAYS} for row in workload.rows}
        for turn in range(self.rounds if workload.repeated else 1):
            # Each round begins with another way, because the first run may find an idle CPU.
            first = turn % len(workload.ways)
            for way in workload.ways[first:] + workload.ways[:first]:
                self.progress(f"{step}: {workload.name}, {workload.lights} lights, {way}, round {turn + 1} of {self.rounds}")
                result = run(way, workload.name, workload.lights, workload.count)
                for row in workload.rows:
                    results[row.key][way].append(result[row.key])
        for row in workload.rows:
            self.print(row, results[row.key])

    def instructions(self):
        """Counts instructions of one notification: the difference of two runs, over the difference of their lengths."""
        few, many = 2000, 10000
        values = {}
        with tempfile.NamedTemporaryFile() as profile:
            valgrind = ("valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={profile.name}")
            for way in WAYS:
                totals = []
                for count in (few, many):
                    self.progress(f"instructions, {way}")
                    run(way, "rate", 1, count, valgrind)
                    totals.append(int(re.search(r"^totals: (\d+)", Path(profile.name).read_text(), re.M)[1]))
                values[way] = [round((totals[1] - totals[0]) / (many - few))]
        self.print(Row("instructions of a notification", "", goal="≤ 1.25; log on ≤ 1.6"), values)

    def library(self):
        plugin = next((BUILD / "lib").rglob("libCorvelKXBleDLL.so"))
        symbols = output_of("nm", "-D", "--defined-only", plugin).count("\n")
        relocations = output_of("readelf", "-rW", plugin).count("R_")
        for row, value in ((Row("plugin file: size, not stripped", "", "bytes"), plugin.stat().st_size),
                           (Row("plugin file: exported symbols", ""), symbols),
                           (Row("plugin file: relocations", ""), relocations)):
            self.print(row, {"plugin": [value]})

    def progress(self, what):
        if sys.stderr.isatty():
            print(f"\r\033[K{what}", end="", file=sys.stderr, flush=True)

    def print(self, row, values):
        values = {way: values.get(way, []) for way in WAYS}
        self.progress("")
        print("|", " | ".join([row.what, *(cell(values[way], row.unit) for way in WAYS),
                               *(compared(values["bare"], values[way], row) for way in WAYS[1:]), row.goal]), "|", flush=True)
        self.measures.append({"what": row.what, "unit": row.unit, **values})
        # No notification may be lost, and no D-Bus call added.
        if row.exact and not values["bare"] == values["plugin"] == values["logged"]:
            self.wrong.append(row.what)


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Compares the plugin with Qt Bluetooth alone.")
    parser.add_argument("--rounds", type=int, default=7, help="how often each workload is measured (7)")
    parser.add_argument("--short", action="store_true", help="one short round, whose counts are valid but not its times")
    parser.add_argument("--json", type=argparse.FileType("w"), help="also write every value to this file")
    arguments = parser.parse_args()
    if arguments.rounds < 1:
        parser.error("--rounds takes a number above 0")
    bench = Bench(1 if arguments.short else arguments.rounds, arguments.short)
    bench.table()
    if arguments.json:
        json.dump({"date": datetime.datetime.now().isoformat(timespec="seconds"), "rounds": bench.rounds,
                   "measures": bench.measures}, arguments.json, indent=1)
    if bench.wrong:
        sys.exit(f"bench: these counts differ from the expected ones: {', '.join(bench.wrong)}.")


main()
