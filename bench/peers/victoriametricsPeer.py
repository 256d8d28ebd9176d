"""VictoriaMetrics: imports by the client, in bursts or steadily, with or without roll-ups."""

import json
import re
import sys
import time
import urllib.parse

import harness

STEADY_CADENCE_SEC = 0.15
COLD_CADENCE_SEC = 0.6
WARM_UP = harness.STAMPS_PER_ROLLUP
SETTLE_SEC = 5
MERGE = {"average": lambda values: sum(values) / len(values), "maximum": max, "minimum": min}


class Client:
    """Sends lines of 50 fields, one per VM: the shortest of the import formats."""

    def __init__(self, port, with_rollups):
        self._connection = harness.Connection(port)
        self._with_rollups = with_rollups
        self._epoch_sec = int(time.time()) - 4 * 3600
        self._ready = []
        self.next_stamp = 0

    def time_of(self, stamp):
        return self._epoch_sec + stamp * harness.STEP_SEC

    def prepare(self, stamps):
        """Formats the next stamps ahead, so that a burst has no pauses."""
        for stamp in range(self.next_stamp + len(self._ready), self.next_stamp + stamps):
            body = self._lines("host", stamp, lambda series, at=stamp: harness.value(series, at))
            if self._with_rollups and (stamp + 1) % harness.STAMPS_PER_ROLLUP == 0:
                body += self._rollup_lines(stamp)
            self._ready.append(body.encode())

    def send(self):
        self.prepare(1)
        self._connection.post("/write", self._ready.pop(0))
        self.next_stamp += 1

    def query(self, series, end_stamp):
        vm, stat = divmod(series, harness.STATS_PER_VM)
        text = f'host_s{stat}{{vm="vm-{vm:03}"}}[1h]'
        query = urllib.parse.urlencode({"query": text, "time": self.time_of(end_stamp)})
        return self._connection.get("/api/v1/query?" + query)

    def _lines(self, name, stamp, value_of):
        lines = []
        for vm in range(harness.VM_COUNT):
            first = vm * harness.STATS_PER_VM
            fields = ",".join(f"s{ix}={value_of(first + ix):.2f}" for ix in range(harness.STATS_PER_VM))
            lines.append(f"{name},vm=vm-{vm:03} {fields} {self.time_of(stamp) * 10**9}\n")
        return "".join(lines)

    def _rollup_lines(self, stamp):
        span = range(stamp - harness.STAMPS_PER_ROLLUP + 1, stamp + 1)
        values = [[harness.value(series, at) for at in span] for series in range(harness.SERIES_COUNT)]
        return "".join(self._lines(f"host_{rollup}", stamp, lambda series, merge=merge: merge(values[series]))
                       for rollup, merge in MERGE.items())


def burst_costs_us(server, client, repetitions, stamps):
    """Each burst with the seconds after it, in which the server writes and merges the samples."""
    costs = []
    for _ in range(repetitions):
        client.prepare(stamps)
        before = server.cpu_ns()
        for _ in range(stamps):
            client.send()
        time.sleep(SETTLE_SEC)
        costs.append(harness.us_per_sample(server.cpu_ns() - before, stamps))
    return costs


def run_steady(server, client, stamps, cadence_sec, flusher=None):
    """Returns the server's clock before each of stamps + 1 posts."""
    cpu_at_ns = []
    for _ in range(stamps + 1):
        due = time.monotonic() + cadence_sec
        client.prepare(1)
        if flusher:
            flusher.flush()
        cpu_at_ns.append(server.cpu_ns())
        client.send()
        time.sleep(max(0, due - time.monotonic()))
    return cpu_at_ns


def report_queries(client, who):
    end_stamp = client.next_stamp - 1
    text = re.search(rb"\{.*\}", client.query(1234, end_stamp)).group()
    found = len(json.loads(text)["data"]["result"][0]["values"])
    due = min(harness.STAMP_COUNT, client.next_stamp)
    if found < due - 1:
        raise RuntimeError(f"a query returned {found} of {due} samples")
    harness.report("query-1h", who, harness.latency_p50_us(2000, lambda series: client.query(series, end_stamp)),
                   "us", f"{found} samples by HTTP, kept alive, a Python client on a bare socket")


def report_hot(server, client, who, note, quick, in_bursts):
    stamps = 30 if quick else harness.STAMP_COUNT
    if in_bursts:
        costs = burst_costs_us(server, client, 1 if quick else 3, stamps)
        harness.report("ingest-hot", who, sorted(costs)[len(costs) // 2], "us",
                       f"{note}; {stamps} stamps back to back and {SETTLE_SEC} s after them")
        return
    cpu_at_ns = run_steady(server, client, stamps, STEADY_CADENCE_SEC)
    span = stamps // (1 if quick else 3)
    harness.report("ingest-hot", who, harness.span_median_us(cpu_at_ns, span), "us",
                   f"{note}; a stamp every 150 ms, repetitions of {span}; the idle share of 20 s is not included")


def measure_server(options, server):
    with_rollups = options.variant == "rollups"
    kind = {"bursts": "in bursts, no roll-ups", "steady": "steady, no roll-ups",
            "rollups": "steady, roll-ups made by the client"}[options.variant]
    who = f"VictoriaMetrics {harness.package_version('victoria-metrics')}, {kind}"
    note = "CPU of the server; rates and gauges by /write, 50 fields a line, kept alive; the client not counted"
    client = Client(server.port, with_rollups)
    for _ in range(WARM_UP):
        client.send()
    time.sleep(3)

    report_hot(server, client, who, note, options.quick, options.variant == "bursts")
    harness.report("resident-mib", who, server.resident_mib(), "MiB", "the server after the samples")
    time.sleep(SETTLE_SEC)
    report_queries(client, who)
    harness.report("idle-ms-per-s", who, server.idle_ms_per_sec(), "ms/s")
    if options.variant == "bursts":
        return
    flusher = harness.CacheFlusher(options.scratch)
    stamps = 15 if options.quick else 30
    cpu_at_ns = run_steady(server, client, stamps, COLD_CADENCE_SEC, flusher)
    flusher.stop()
    harness.report("ingest-cold", who, harness.span_median_us(cpu_at_ns, stamps), "us",
                   note + "; a stamp every 600 ms, syncfs and CPU caches emptied before each")


def measure():
    options = harness.options(("bursts", "steady", "rollups"))
    server = harness.Server("victoria-metrics", options.scratch, lambda port: [
        f"-storageDataPath={options.scratch}/data", f"-httpListenAddr=127.0.0.1:{port}",
        "-retentionPeriod=1", "-search.latencyOffset=0s", "-loggerLevel=ERROR"])
    try:
        server.wait_ready("/health")
        measure_server(options, server)
    finally:
        server.stop()


if __name__ == "__main__":
    try:
        measure()
    except (OSError, RuntimeError) as error:
        sys.exit(f"victoriametrics: {error}")
