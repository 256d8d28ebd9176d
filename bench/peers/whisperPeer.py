"""Whisper: the round-robin files of Graphite, one update call per file and sample."""

import os
import statistics
import sys
import time

import whisper

import harness

EPOCH_SEC = 1_700_002_800
ARCHIVES = [(harness.STEP_SEC, harness.STAMP_COUNT), (300, harness.ROLLUP_COUNT)]
NOTE = ("the library in process; one file each for average, maximum and minimum; no locks, no flush, "
        "heads cached")


class Files:
    def __init__(self, scratch):
        self._series = []
        for series in range(harness.SERIES_COUNT):
            directory = os.path.join(scratch, str(series // 100))
            os.makedirs(directory, exist_ok=True)
            self._series.append([os.path.join(directory, f"{series}.{kind}") for kind in ("average", "max", "min")])
            for path, kind in zip(self._series[-1], ("average", "max", "min")):
                whisper.create(path, ARCHIVES, xFilesFactor=0.5, aggregationMethod=kind)

    def write(self, stamp):
        """Returns the CPU nanoseconds of the library's calls; the values are computed before."""
        now = EPOCH_SEC + (stamp + 1) * harness.STEP_SEC
        values = [harness.value(series, stamp) for series in range(harness.SERIES_COUNT)]
        before = time.process_time_ns()
        for paths, value in zip(self._series, values):
            for path in paths:
                whisper.update(path, value, now, now)
        return time.process_time_ns() - before

    def fetch(self, series, stamp, span_sec):
        now = EPOCH_SEC + (stamp + 1) * harness.STEP_SEC
        _, values = whisper.fetch(self._series[series][0], now - span_sec, now, now)
        return values


def measure():
    options = harness.options()
    whisper.LOCK = False
    whisper.AUTOFLUSH = False
    whisper.CACHE_HEADERS = True
    who = f"whisper {harness.package_version('python3-whisper')}, three files a series"
    span = harness.STAMPS_PER_ROLLUP
    repetitions = 1 if options.quick else 3

    files = Files(options.scratch)
    costs = []
    for first in range(0, repetitions * span, span):
        cpu_ns = sum(files.write(stamp) for stamp in range(first, first + span))
        costs.append(harness.us_per_sample(cpu_ns, span))
    harness.report("ingest-hot", who, statistics.median(costs), "us", NOTE + "; repetitions of 15 stamps")
    stamp = repetitions * span
    written = [value for value in files.fetch(0, stamp - 1, 3600) if value is not None]
    if len(written) < stamp - 1:
        raise RuntimeError(f"only {len(written)} of {stamp} samples were found")

    note = "whisper.fetch in process, warm; a file is read whole, however full it is"
    harness.report("query-1h", who, harness.latency_p50_us(
        2000, lambda series: files.fetch(series, stamp - 1, 3600)), "us", note)
    harness.report("query-36h", who, harness.latency_p50_us(
        2000, lambda series: files.fetch(series, stamp - 1, harness.ROLLUP_COUNT * 300)), "us", note)
    with open("/proc/self/statm", encoding="ascii") as statm:
        pages = int(statm.read().split()[1])
    harness.report("resident-mib", who, pages * os.sysconf("SC_PAGESIZE") / 2**20, "MiB",
                   "the interpreter with the library")

    flusher = harness.CacheFlusher(options.scratch)
    cpu_ns = 0
    for cold in range(stamp, stamp + span):
        flusher.flush()
        cpu_ns += files.write(cold)
    flusher.stop()
    harness.report("ingest-cold", who, harness.us_per_sample(cpu_ns, span), "us",
                   NOTE + "; syncfs and CPU caches emptied before each stamp")


if __name__ == "__main__":
    try:
        measure()
    except (OSError, RuntimeError, whisper.WhisperException) as error:
        sys.exit(f"whisper: {error}")
