"""Prometheus: scrapes all series at a compressed cadence, with or without recording rules."""

import json
import os
import re
import socket
import sys
import threading
import time
import urllib.parse

import harness

HOT_CADENCE_MS = 150
COLD_CADENCE_MS = 600
WARM_UP = 5
FUNCTIONS = {"average": "avg_over_time", "maximum": "max_over_time", "minimum": "min_over_time"}


def labels(series):
    return f'vm="vm-{series // harness.STATS_PER_VM:03}",stat="s{series % harness.STATS_PER_VM}"'


class Exposition:
    """Answers each scrape with the next stamp; reads the server's clock when the scrape arrives."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._heads = [f"host_stat{{{labels(series)}}} " for series in range(harness.SERIES_COUNT)]
        self._body = self._render(0)
        self._arrived = threading.Condition()
        self.server = None
        self.flusher = None
        self.cpu_at_ns = []
        threading.Thread(target=self._accept, daemon=True).start()

    def wait_for(self, scrapes, within_sec):
        with self._arrived:
            if not self._arrived.wait_for(lambda: len(self.cpu_at_ns) >= scrapes, within_sec):
                raise RuntimeError(f"{len(self.cpu_at_ns)} of {scrapes} scrapes within {within_sec:.0f} s")

    def _accept(self):
        while True:
            connection, _ = self._listener.accept()
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        try:
            self._answer_scrapes(connection)
        except OSError:
            pass  # the server has ended or given up the scrape; it counts the samples that it took

    def _answer_scrapes(self, connection):
        request = b""
        while got := connection.recv(65536):
            request += got
            if not request.endswith(b"\r\n\r\n"):
                continue
            request = b""
            if self.flusher:
                self.flusher.flush()
            head = ("HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                    f"Content-Length: {len(self._body)}\r\n\r\n")
            with self._arrived:
                self.cpu_at_ns.append(self.server.cpu_ns())
                self._arrived.notify()
            connection.sendall(head.encode() + self._body)
            self._body = self._render(len(self.cpu_at_ns))

    def _render(self, stamp):
        lines = [f"{head}{harness.value(series, stamp):.2f}" for series, head in enumerate(self._heads)]
        return ("# TYPE host_stat gauge\n" + "\n".join(lines) + "\n").encode()


class Prometheus:
    def __init__(self, scratch, exposition, with_rules):
        self._config = os.path.join(scratch, "prometheus.yml")
        self._rules = os.path.join(scratch, "rules.yml")
        self._exposition = exposition
        self._with_rules = with_rules
        self._configure(HOT_CADENCE_MS)
        self.server = harness.Server("prometheus", scratch, lambda port: [
            f"--config.file={self._config}", f"--storage.tsdb.path={scratch}/data",
            f"--web.listen-address=127.0.0.1:{port}", "--log.level=error"])
        exposition.server = self.server

    def _configure(self, cadence_ms):
        """Scrapes every `cadence_ms`, and rules every 15 scrapes; neither if it is 0."""
        config = ["global: {scrape_interval: 1m}"]
        if cadence_ms:
            config += ["scrape_configs:", "- job_name: host", f"  scrape_interval: {cadence_ms}ms",
                       f"  scrape_timeout: {cadence_ms}ms", "  static_configs:",
                       f"  - targets: ['127.0.0.1:{self._exposition.port}']"]
        if cadence_ms and self._with_rules:
            span = f"{cadence_ms * harness.STAMPS_PER_ROLLUP}ms"
            rules = ["groups:", "- name: rollup", f"  interval: {span}", "  rules:"]
            for rollup, function in FUNCTIONS.items():
                rules += [f"  - record: host_stat:{rollup}", f"    expr: {function}(host_stat[{span}])"]
            write(self._rules, rules)
            config.append(f"rule_files: ['{self._rules}']")
        write(self._config, config)

    def reload(self, cadence_ms):
        self._configure(cadence_ms)
        self.server.reload()
        time.sleep(2)

    def samples_appended(self):
        metrics = harness.Connection(self.server.port).get("/metrics")
        found = re.search(rb"\nprometheus_tsdb_head_samples_appended_total\S* (\S+)", metrics)
        return float(found.group(1)) if found else 0  # missing before the first sample

    def query(self, connection, text, at_sec):
        query = urllib.parse.urlencode({"query": text, "time": f"{at_sec:.3f}"})
        return connection.get("/api/v1/query?" + query)


def write(path, lines):
    with open(path, "w", encoding="ascii") as file:
        file.write("\n".join(lines) + "\n")


def run_scrapes(prometheus, exposition, stamps, cadence_ms):
    """Returns the server's clock at stamps + 1 consecutive scrapes."""
    first = len(exposition.cpu_at_ns) + WARM_UP
    before = prometheus.samples_appended()
    exposition.wait_for(first + stamps + 1, (WARM_UP + stamps + 1) * cadence_ms / 1000 * 1.5 + 5)
    # A scrape that timed out was answered, but cost the server nothing.
    appended = prometheus.samples_appended() - before
    if appended < (WARM_UP + stamps) * harness.SERIES_COUNT:
        raise RuntimeError(f"{stamps} scrapes stored only {appended:.0f} samples")
    return exposition.cpu_at_ns[first:first + stamps + 1]


def check_rollups(prometheus, at_sec):
    connection = harness.Connection(prometheus.server.port)
    for rollup in FUNCTIONS:
        answer = prometheus.query(connection, f"count(host_stat:{rollup})", at_sec).decode()
        if f'"{harness.SERIES_COUNT}"' not in answer:
            raise RuntimeError(f"host_stat:{rollup} lacks series: {answer[:300]}")


def report_queries(prometheus, who, stamps, end_sec):
    connection = harness.Connection(prometheus.server.port)
    span_ms = stamps * HOT_CADENCE_MS

    def query(series):
        return prometheus.query(connection, f"host_stat{{{labels(series)}}}[{span_ms}ms]", end_sec)

    text = re.search(rb"\{.*\}", query(1234)).group()
    found = len(json.loads(text)["data"]["result"][0]["values"])
    if found < stamps * 0.9:
        raise RuntimeError(f"a query returned {found} of {stamps} samples")
    harness.report("query-1h", who, harness.latency_p50_us(2000, query), "us",
                   f"{found} samples by HTTP, kept alive, a Python client on a bare socket")


def measure():
    options = harness.options(("scrape", "rules"))
    with_rules = options.variant == "rules"
    stamps = 30 if options.quick else harness.STAMP_COUNT
    who = f"Prometheus {harness.package_version('prometheus')}, scrape"
    who += ", recording rules" if with_rules else ", no roll-ups"
    note = (f"CPU of the server; a text exposition of gauges every {{}} ms instead of 20 s, so the "
            "idle share of 20 s is not included; " + ("three rules every 15 scrapes" if with_rules else "no rules"))
    exposition = Exposition()
    prometheus = Prometheus(options.scratch, exposition, with_rules)
    server = prometheus.server
    try:
        server.wait_ready("/-/ready")
        cpu_at_ns = run_scrapes(prometheus, exposition, stamps, HOT_CADENCE_MS)
        end_sec = time.time()
        span = stamps // (1 if options.quick else 3)
        harness.report("ingest-hot", who, harness.span_median_us(cpu_at_ns, span), "us",
                       note.format(HOT_CADENCE_MS) + f"; repetitions of {span} scrapes")
        harness.report("resident-mib", who, server.resident_mib(), "MiB", "the server after an hour's samples")
        if with_rules:
            check_rollups(prometheus, end_sec)
        prometheus.reload(0)
        report_queries(prometheus, who, stamps, end_sec)
        harness.report("idle-ms-per-s", who, server.idle_ms_per_sec(), "ms/s", "no target, no rules")

        exposition.flusher = harness.CacheFlusher(options.scratch)
        prometheus.reload(COLD_CADENCE_MS)
        cpu_at_ns = run_scrapes(prometheus, exposition, 15 if options.quick else 30, COLD_CADENCE_MS)
        harness.report("ingest-cold", who, harness.span_median_us(cpu_at_ns, len(cpu_at_ns) - 1), "us",
                       note.format(COLD_CADENCE_MS) + "; syncfs and CPU caches emptied before each answer")
    finally:
        server.stop()


if __name__ == "__main__":
    try:
        measure()
    except (OSError, RuntimeError) as error:
        sys.exit(f"prometheus: {error}")
