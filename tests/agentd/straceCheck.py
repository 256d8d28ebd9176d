#!/usr/bin/env python3
"""Judges the writes of an agent by their trace: straceCheck.py TRACE STORE SAMPLES

TRACE is of `strace -f -y -ttt -e trace=fdatasync,pwrite64,pwritev,write`, STORE the file of the
finest store, SAMPLES its number of columns. Fails unless every run appends to the journal and syncs
it, rows are written after that sync only, and no run writes more than a fifteenth of STORE's rows,
those that the run before had postponed aside.
"""

import os
import re
import sys

CALL = re.compile(r"^(\d+) ([\d.]+) (.*)$")
BEGIN = re.compile(r"(fdatasync|pwrite64|pwritev|write)\(\d+<([^>]*)>(?:, .*)?")
RESULT = re.compile(r"= (-?\d+)[^=]*$")
OFFSET = re.compile(r", (\d+)\)\s*= -?\d+[^=]*$")


def read_calls(path):
    """Finished calls in order of their ends: time, call, file, bytes or result, offset."""
    begun = {}
    with open(path, encoding="utf-8", errors="replace") as trace:
        for line in trace:
            match = CALL.match(line)
            if not match:
                continue
            thread, time, text = match.groups()
            if "unfinished ...>" in text:
                begun[thread] = text.split("<unfinished")[0]
                continue
            resumed = re.match(r"<\.\.\. \w+ resumed>(.*)", text)
            if resumed:
                text = begun.pop(thread, "") + resumed.group(1)
            call, result = BEGIN.match(text), RESULT.search(text)
            if call and result:
                offset = OFFSET.search(text)
                yield (float(time), call.group(1), call.group(2), int(result.group(1)),
                       int(offset.group(1)) if offset else None)


def split_runs(calls):
    """Calls between pauses of a second or more."""
    runs = []
    last = None
    for call in calls:
        if last is None or call[0] - last >= 1:
            runs.append([])
        last = call[0]
        runs[-1].append(call)
    return runs


def judge(run, rows):
    """Faults of a run, its bytes in the journal, its rows in the finest store, postponed ones."""
    faults = []
    is_synced = True
    journal_bytes = syncs = 0
    written = set()
    for _, call, path, result, offset in run:
        if result < 0:
            faults.append(f"{call} of {path} fails")
        if ".journal." in path:
            if call == "fdatasync":
                is_synced, syncs = True, syncs + 1
            else:
                is_synced, journal_bytes = False, journal_bytes + result
        elif path.endswith(".stats") and call != "fdatasync":
            if not is_synced:
                faults.append(f"{path} is written at {offset} before the journal is synced")
            if path == rows.path and offset is not None and offset >= rows.header:
                written.update(rows.touched(offset, result))
    if journal_bytes == 0 or syncs == 0:
        faults.append("no record is written to the journal and synced")
    share = written - rows.turn
    if len(share) > -(-rows.count // 15):
        faults.append(f"{len(share)} of {rows.count} rows are written")
    postponed = len(written) - len(share)
    rows.turn = set(range(min(share), max(share) + 1)) if share else set()
    return faults, journal_bytes, len(share), postponed


class Finest:
    """The finest store's file and shape."""

    def __init__(self, path, samples):
        self.path = os.path.realpath(path)
        self.header = 8 + 8 * samples
        self.turn = set()  # the span of the rows of the run before
        self.row_size = 12 + 8 * samples
        self.count = (os.path.getsize(path) - self.header) // self.row_size

    def touched(self, offset, size):
        """The rows of a write."""
        first = (offset - self.header) // self.row_size
        return range(first, (offset + size - 1 - self.header) // self.row_size + 1)


def main():
    trace, store, samples = sys.argv[1], sys.argv[2], int(sys.argv[3])
    rows = Finest(store, samples)
    runs = split_runs(c for c in read_calls(trace) if "/stats/" in c[2])
    failed = not runs
    for number, run in enumerate(runs):
        faults, journal_bytes, share, postponed = judge(run, rows)
        print(f"run {number + 1}: {journal_bytes} bytes in the journal, {share} of {rows.count} "
              f"rows, {postponed} postponed ones, {len(run)} calls")
        for fault in faults[:5]:
            print("   " + fault)
        failed = failed or bool(faults)
    print(f"{len(runs)} runs, {'FAILED' if failed else 'as they should be'}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
