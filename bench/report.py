#!/usr/bin/env python3
"""Makes the table of all measurements: reads results as JSON lines, writes JSON and Markdown.

A result is {"work", "who", "value", "unit"}, some with "low", "high" and "repetitions" or a "note".
The "who" of our own results is "metrix", or "metrix without journal" for a depot that writes
everything straight to its files; that of a bare loop is "floor ..."; all others are peers.
"""
import argparse
import dataclasses
import datetime
import json
import os
import platform
import re
import subprocess

OURS = "metrix"
WITHOUT_JOURNAL = "metrix without journal"
FLOOR = ("ingest-hot", "floor F1")


@dataclasses.dataclass(frozen=True)
class Row:
    """A row of the table for one work. The target is `limit`, or `limit` times the figure `of`."""

    work: str
    text: str
    limit: float | None = None
    of: tuple[str, str] | None = None
    at_least: bool = False
    below_peers: bool = False
    is_optional: bool = False


ROWS = (
    Row("ingest-hot", "ingest, hot, 10,000 stats with the catalogue's rollups, per sample, rollups included", 0.12, FLOOR),
    Row("ingest-fifth-later", "ingest, hot, rows of every fifth VM created later", 0.12, FLOOR),
    Row("ingest-vm-by-vm", "ingest, hot, rows created VM by VM", 0.12, FLOOR),
    Row("ingest-entities-shuffled", "ingest, hot, rows in random order of entities", 0.12, FLOOR),
    Row("ingest-shuffled", "ingest, hot, rows in random order", 0.2, FLOOR),
    Row("ingest-hot-calls", "ingest, hot: read and write calls per sample"),
    Row("ingest-hot-bytes", "ingest, hot: bytes read and written per sample"),
    Row("ingest-three-rollups", "ingest, hot, three rollups for every stat", 0.15, FLOOR),
    Row("ingest-cold", "ingest at a real cadence: files synced and CPU caches emptied before each stamp", 0.25, FLOOR,
        below_peers=True),
    Row("ingest-cold-synced", "ingest at a real cadence, with the CPU time of these syncs", 0.25, FLOOR),
    Row("ingest-1k", "ingest, hot, 1,000 stats"),
    Row("ingest-100k", "ingest, hot, 100,000 stats", 1.3, ("ingest-hot", OURS)),
    Row("run", "whole run on a simulated host of 200 VMs: collect, name, buffer, flush, per sample", 1.2, FLOOR),
    Row("run-samples", "whole run: samples"),
    Row("run-calls", "whole run: read and write calls, rollups included"),
    Row("run-bytes", "whole run: bytes read and written per sample, rollups included"),
    Row("agent-run", "whole process of an agent that runs every 20 s on this host, per sample", 0.45),
    Row("hold", "whole run that rolls nothing up: longest hold of the depot's lock", 1),
    Row("hold-any", "any whole run: longest hold of the depot's lock", 12),
    Row("hold-total", "whole run: all holds of the depot's lock"),
    Row("ingest-100k-hold", "100,000 stats, stamp that rolls nothing up: longest hold of the depot's lock", 10),
    Row("ingest-100k-hold-any", "100,000 stats, any stamp: longest hold of the depot's lock", 60),
    Row("device-day", "bytes to the disk in a day, 12,505 stats at 20 s", 18),
    Row("device-day-block", "the same, counted by a block device of its own", is_optional=True),
    Row("device-day-longest", "bytes to the disk in a day with the longest checkpoints", 8),
    Row("device-day-longest-block", "the same, counted by a block device of its own", is_optional=True),
    Row("agent-device-day", "bytes to the disk in a day, of the agent that runs every 20 s", is_optional=True),
    Row("query-1h", "query in process (the depot's GetSamples), one hour at 20 s, p50", 2.5),
    Row("query-1h-p99", "query in process (GetSamples), one hour at 20 s, p99", 10),
    Row("query-5min", "query in process (GetSamples), the newest five minutes at 20 s, p50", 1.2),
    Row("query-36h", "query in process (GetSamples), 36 hours at 300 s, p50", 3),
    Row("query-36h-p99", "query in process (GetSamples), 36 hours at 300 s, p99", 10),
    Row("query-api-1h", "QueryStats with its result objects, one series, one hour at 20 s, p50", 5),
    Row("query-api-36h", "QueryStats with its result objects, one series, 36 hours at 300 s, p50", 6),
    Row("query-api-1h-new", "QueryStats as above, one hour, no recent query had the same range, p50"),
    Row("query-entity", "QueryStats, one hour of all 50 stats of an entity, p50", 70),
    Row("query-entity-ratio", "QueryStats, all 50 stats of an entity against one series, p50", 40),
    Row("http-1", "query over HTTP, keep-alive, one client, one hour at 20 s, p50 at the client", 120),
    Row("http-1-p99", "query over HTTP, keep-alive, one client, one hour at 20 s, p99 at the client"),
    Row("http-8", "query over HTTP, keep-alive, 8 clients, queries of all together", 10000, at_least=True),
    Row("load", "load of a depot of 10,000 stats, 40,000 ids, in process"),
    Row("load-killed", "load of a depot of 12,505 stats after a kill, in process", 20),
    Row("start", "start of the agent on a depot of 10,000 stats, 40,000 ids, to its first answer", 40),
    Row("create", "create 10,000 stats", 80),
    Row("delete", "delete an entity of 10,000 stats", 80),
    Row("purge", "purge 1,000 stats of 10,000", 10),
    Row("resident-more-mib", "resident memory of the agent, 10,000 stats compared with none", 24),
    Row("resident-mib", "resident memory of the agent with 10,000 stats, without mapped file pages"),
    Row("agent-journal-mib", "resident memory of the agent with 12,505 stats, compared with one without a journal", 8),
    Row("idle-ms-per-s", "idle CPU of the agent between runs", 0.2),
    Row("agent-calls", "read and write calls of the agent per run on a simulated host, 10,000 samples", 2000),
    Row("host-read", "reading all host figures on Linux", 200),
    Row("guest-run-100", "a virtual machine's part of a run on Linux, of 100 that run", 60),
    Row("guest-run-500", "a virtual machine's part of a run on Linux, of 500 that run", 60),
    Row("guest-poll-500", "of that: parsing the hypervisor's answer and keeping its figures"),
    Row("guest-read-500", "of that: what the collection reads"),
    Row("guest-load-500", "of that: load averages, read every 6 s"),
    Row("guest-descriptors-500", "descriptors for a virtual machine on Linux"),
)

HOW_TO_READ = """\
# Performance

`scripts/bench` wrote this page. It only measures: a missed target is shown in the table, and nothing fails.

- **Time** is CPU time, user and system, of the process that does the work. Where waiting matters, it is wall time: how long a query or a start takes. How long a lock is held is CPU time of the thread that holds it.
- **metrix** is a depot as the agent opens it: the newest samples stay in memory and in a journal, synced after each run, for 300 s (those of the coarse interval for an hour). **metrix without journal** writes everything straight to the store files. Both are measured in a steady state: with as much in memory as after hours, and all rows written. *Ingest* and *whole run* include the journal's syncs.
- **Figures** are medians of {repetitions} repetitions, with the lowest and the highest beside them; bytes to the disk and the agent's processes are measured once. Repetitions of all measurements are interleaved, so that other load on the machine affects ours and the floor alike.
- **Floors** are bare loops on a file of as many rows of the same size (1,452 bytes). They store one number in each row, without lookups, checks or rollups: *F1* row by row with `pread` and `pwrite`, *blocks* 64 neighbouring rows at a time, *mapping* in a mapped file. Our figures include all of that.
- **x floor** is the figure divided by F1, hot. A peer's is divided by the F1 that was measured with the peers.
- **A real cadence** means that each stamp finds the machine as 20 seconds after the last one: clean pages and cold caches.
- **Noise**: ratios within one measurement are good to about 20 %, absolute times depend on the machine's other load. Compare ratios.
- **Rows** lie in the order in which the stats were created; samples come in the order of collection. On a real host these differ, because virtual machines come one after the other: hence *ingest* in five orders of creation.
- **Bytes to the disk** in a day are counted by `write_bytes` of `/proc/PID/io`: pages count when they become dirty, once until they are written back. The benchmark records stamp after stamp and writes back after every second one, as a kernel with default settings does if they come every 20 s: it looks every 5 s for pages that have been dirty for 30 s. The agent's own figure is from five minutes with the kernel's real write-back. With `--device`, the files are on a block device of their own, which also counts what the file system itself writes.
- **A virtual machine's part of a run on Linux** is the agent's work at an interval of 20 s, with the host's own figures shared out among the virtual machines: the parsing of the hypervisor's bulk answer, all readings of a collection and the load averages in between. Each machine has two virtual CPUs, a NIC and two disks, every fourth a quota for its virtual CPUs. The kernel's files are a generated tree of ordinary ones, and the answer exists already: what the kernel does to write its files' text, what libvirt does and what the depot does with the samples is not in it.
- Read and write calls are the kernel's count (`/proc/PID/io`). It does not include work on mapped files.
"""


def read_results(name):
    if not name or not os.path.exists(name):
        return []
    with open(name, encoding="utf-8") as file:
        return [json.loads(line) for line in file if line.strip()]


def find(results, work, who):
    """Ignores the text after a comma in a result's "who", which only explains it."""
    return next((r for r in results if r["work"] == work and r["who"].split(",")[0] == who), None)


def is_floor(result):
    return result["who"].startswith("floor")


def number(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def with_unit(value, unit):
    return f"{number(value)} {unit}" if unit else "-"


def spread(result):
    if result.get("repetitions", 1) < 2:
        return ""
    return f"{number(result['low'])} to {number(result['high'])}"


def ratio(result, floor):
    """The figure as a multiple of the floor; None unless it is a time per sample."""
    if floor is None or result["unit"] != "us" or not result["work"].startswith(("ingest", "run", "agent-run")):
        return None
    return result["value"] / floor["value"]


def target_of(row, ours):
    """The limit in the figure's unit, None without one, and its text."""
    if row.limit is None:
        return None, ""
    kind = "at least" if row.at_least else "at most"
    if row.of is None:
        result = find(ours, row.work, OURS)
        return row.limit, f"{kind} {number(row.limit)} {result['unit'] if result else ''}".strip()
    base = find(ours, *row.of)
    name = "floor" if row.of == FLOOR else f"`{row.of[0]}`"
    if base is None:
        return None, f"{kind} {row.limit} x {name}"
    limit = row.limit * base["value"]
    return limit, f"{kind} {row.limit} x {name}: {with_unit(limit, base['unit'])}"


def rivals_of(row, peers):
    """The peers' figures for the work, the best one first."""
    return sorted((p for p in peers if p["work"] == row.work and not is_floor(p)), key=lambda p: p["value"])


def beats_peers(row, result, ours, peers):
    own_floor = find(ours, *FLOOR)
    peer_floor = find(peers, *FLOOR) or own_floor
    return all(ratio(result, own_floor) < ratio(p, peer_floor) for p in rivals_of(row, peers))


def judge(row, ours, peers):
    """"yes" or "no", "" without a target, "not measured" without a figure."""
    result = find(ours, row.work, OURS)
    limit, _ = target_of(row, ours)
    if result is None:
        return "not measured"
    if limit is None:
        return "" if row.limit is None else "not measured"
    is_met = result["value"] >= limit if row.at_least else result["value"] <= limit
    if row.below_peers:
        is_met = is_met and beats_peers(row, result, ours, peers)
    return "yes" if is_met else "no"


def line_of(result, text, floor, target="", met=""):
    times = ratio(result, floor)
    return {
        "work": text,
        "who": result["who"],
        "figure": with_unit(result["value"], result["unit"]),
        "from - to": spread(result),
        "x floor": "" if times is None else number(times),
        "target": target,
        "met": met,
    }


def lines_of_row(row, ours, peers):
    """Ours, without a journal, then the floors, then the peers with the best one first."""
    target = target_of(row, ours)[1]
    if row.below_peers:
        target += ", below every peer" if rivals_of(row, peers) else ", below every peer (none measured)"
    met = judge(row, ours, peers)
    result = find(ours, row.work, OURS)
    own_floor = find(ours, *FLOOR)
    if result is None:
        result = {"work": row.work, "who": OURS, "value": float("nan"), "unit": ""}
    lines = [line_of(result, row.text, own_floor, target, met)]
    if straight := find(ours, row.work, WITHOUT_JOURNAL):
        lines.append(line_of(straight, "", own_floor))
    floors = sorted((f for f in ours if f["work"] == row.work and is_floor(f)), key=lambda f: f["who"])
    lines += [line_of(floor, "", own_floor) for floor in floors]
    peer_floor = find(peers, *FLOOR) or own_floor
    of_work = [p for p in peers if p["work"] == row.work]
    for place, peer in enumerate(rivals_of(row, peers)):
        lines.append(line_of(peer, "best peer" if place == 0 else "", peer_floor))
    for floor in (p for p in of_work if is_floor(p)):
        lines.append(line_of({**floor, "who": floor["who"] + ", measured with the peers"}, "", peer_floor))
    return lines


def format_markdown(lines):
    head = list(lines[0])
    text = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    text += ["| " + " | ".join(line[name] for name in head) + " |" for line in lines]
    return "\n".join(text) + "\n"


def format_plain(lines):
    head = list(lines[0])
    rows = [head] + [[line[name] for name in head] for line in lines]
    widths = [max(len(row[i]) for row in rows) for i in range(len(head))]
    return "\n".join("  ".join(cell.ljust(w) for cell, w in zip(row, widths)).rstrip() for row in rows)


def cpu_model():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        found = re.search(r"^model name\s*:\s*(.*)$", file.read(), re.MULTILINE)
    return found.group(1) if found else platform.processor()


def file_system_of(path):
    command = ["findmnt", "-n", "-o", "FSTYPE", "-T", path]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()


def compiler_version():
    command = ["c++", "--version"]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.split("\n")[0]


def describe_machine(arguments):
    return {
        "CPU": cpu_model(),
        "cores": str(os.cpu_count()),
        "kernel": platform.system() + " " + platform.release(),
        "file system": file_system_of(arguments.data),
        "compiler": compiler_version(),
        "measured": datetime.date.today().isoformat(),
        "commit": arguments.commit,
        "load of the machine at the start": arguments.load,
        "other stores measured": "briefly (--quick-peers)" if arguments.quick_peers else "in full",
    }


def write_markdown(name, machine, lines, peers, repetitions):
    notes = dict.fromkeys(f"- {p['who']}: {p['note']}" for p in peers if p.get("note"))
    with open(name, "w", encoding="utf-8") as file:
        file.write(HOW_TO_READ.format(repetitions=repetitions))
        file.write("\n## This measurement\n\n")
        file.writelines(f"- {key}: {value}\n" for key, value in machine.items())
        if float(machine["load of the machine at the start"]) > 0.5:
            file.write("\nThe machine had other work: times are longer than on an idle one.\n")
        if not peers:
            file.write("\nThe peers were not measured.\n")
        file.write("\n" + format_markdown(lines))
        if notes:
            file.write("\n## About the peers\n\n" + "\n".join(notes) + "\n")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", required=True)
    parser.add_argument("--peers")
    parser.add_argument("--data", required=True, help="a directory on the file system of the measured files")
    parser.add_argument("--load", required=True)
    parser.add_argument("--quick-peers", action="store_true")
    parser.add_argument("--commit", default="")
    parser.add_argument("--json", required=True)
    parser.add_argument("--markdown")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    ours = read_results(arguments.results)
    peers = read_results(arguments.peers)
    machine = describe_machine(arguments)
    rows = [row for row in ROWS if not row.is_optional or find(ours, row.work, OURS)]
    lines = [line for row in rows for line in lines_of_row(row, ours, peers)]
    judged = [{"work": row.work, "target": target_of(row, ours)[0], "met": judge(row, ours, peers)} for row in rows]
    with open(arguments.json, "w", encoding="utf-8") as file:
        json.dump({"machine": machine, "results": ours, "peers": peers, "targets": judged}, file, indent=2)
        file.write("\n")
    if arguments.markdown:
        repetitions = max((r.get("repetitions", 1) for r in ours), default=1)
        write_markdown(arguments.markdown, machine, lines, peers, repetitions)
    print(format_plain(lines))


main()
