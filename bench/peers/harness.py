"""Shared by the peers that are driven from Python: the work, servers, clocks, results."""

import argparse
import json
import os
import re
import signal
import socket
import statistics
import subprocess
import sys
import time

SERIES_COUNT = 10_000
STAMP_COUNT = 180
STEP_SEC = 20
STAMPS_PER_ROLLUP = 15
ROLLUP_COUNT = 432
VM_COUNT = 200
STATS_PER_VM = SERIES_COUNT // VM_COUNT

PROGRAMS = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../build/bench-peers/programs")
READY_SEC = 15
IDLE_SEC = 5


def options(variants=()):
    """Parses a peer's command line: [--quick] --scratch DIR [VARIANT]."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--scratch", required=True)
    if variants:
        parser.add_argument("variant", choices=variants)
    return parser.parse_args()


def report(work, who, value, unit, note=""):
    line = {"work": work, "who": who, "value": float(f"{value:.4g}"), "unit": unit, "note": note}
    print(json.dumps(line), flush=True)


def package_version(package):
    """The upstream version of an installed Debian package."""
    query = ["dpkg-query", "-W", "-f", "${Version}", package]
    return re.match(r"[0-9.]+", subprocess.check_output(query, text=True)).group()


def value(series, stamp):
    """A gauge or a rate like a host's: two decimals, a level of its own, a new value every time."""
    level = (series * 7919) % 9973
    return level + ((series * 31 + stamp * 7877) % 4001) / 100


def us_per_sample(cpu_ns, stamps):
    return cpu_ns / 1e3 / (stamps * SERIES_COUNT)


def span_median_us(cpu_at_ns, span):
    """Microseconds per sample: the median of spans, from the clock's readings, one per stamp."""
    ends = range(span, len(cpu_at_ns), span)
    return statistics.median(us_per_sample(cpu_at_ns[end] - cpu_at_ns[end - span], span) for end in ends)


class CacheFlusher:
    """Syncs files and empties the CPU caches, so that a stamp finds them as 20 s later."""

    def __init__(self, place):
        self._process = subprocess.Popen(
            [os.path.join(PROGRAMS, "flushCaches"), "--scratch", place],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)

    def flush(self):
        self._process.stdin.write(b"c")
        if self._process.stdout.read(1) != b"c":
            raise RuntimeError("the program that empties the caches has ended")

    def stop(self):
        self._process.stdin.close()
        self._process.wait()


class Server:
    """A peer's server on a free loopback port. It ends with `stop` or with this process."""

    def __init__(self, name, scratch, make_arguments):
        self.port = free_port()
        self._log = open(os.path.join(scratch, name + ".log"), "w+b")
        arguments = [name, *make_arguments(self.port)]
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *arguments],
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)
        self.name = name

    def wait_ready(self, path):
        deadline = time.monotonic() + READY_SEC
        while time.monotonic() < deadline and self._process.poll() is None:
            try:
                if Connection(self.port).get(path):
                    return
            except (OSError, RuntimeError):
                time.sleep(0.05)
        self._log.seek(0)
        sys.stderr.write(self._log.read()[-2000:].decode(errors="replace"))
        raise RuntimeError(f"{self.name} was not ready within {READY_SEC} s")

    def cpu_ns(self):
        # The kernel's number for another process's CPU clock: all threads, user + system.
        return time.clock_gettime_ns((~self._process.pid << 3) | 2)

    def resident_mib(self):
        with open(f"/proc/{self._process.pid}/statm", encoding="ascii") as statm:
            return int(statm.read().split()[1]) * os.sysconf("SC_PAGESIZE") / 2**20

    def idle_ms_per_sec(self):
        before = self.cpu_ns()
        time.sleep(IDLE_SEC)
        return (self.cpu_ns() - before) / 1e6 / IDLE_SEC

    def reload(self):
        self._process.send_signal(signal.SIGHUP)

    def stop(self):
        self._process.kill()
        self._process.wait()
        self._log.close()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Connection:
    """HTTP/1.1 with keep-alive on a bare socket, so that this client adds little to a latency."""

    def __init__(self, port):
        self._socket = socket.create_connection(("127.0.0.1", port), timeout=30)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def get(self, path):
        return self._exchange(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())

    def post(self, path, body):
        head = f"POST {path} HTTP/1.1\r\nHost: localhost\r\nContent-Length: {len(body)}\r\n\r\n"
        return self._exchange(head.encode() + body)

    def _exchange(self, request):
        """Returns the answer's body, with chunk heads; at least one byte, so that it is true."""
        self._socket.sendall(request)
        answer = b""
        while b"\r\n\r\n" not in answer:
            answer += self._receive()
        head, body = answer.split(b"\r\n\r\n", 1)
        if head[9:10] != b"2":
            raise RuntimeError(f"the server answered {answer[:300].decode(errors='replace')}")
        length = re.search(rb"(?i)\r\ncontent-length: *(\d+)", head)
        if length:
            while len(body) < int(length.group(1)):
                body += self._receive()
        elif b"chunked" in head:
            while not body.endswith(b"0\r\n\r\n"):
                body += self._receive()
        return body or b"\n"

    def _receive(self):
        got = self._socket.recv(1 << 18)
        if not got:
            raise RuntimeError("the server closed the connection")
        return got


def latency_p50_us(count, query):
    """The median wall time of `count` calls on random series, after a tenth as many not counted."""
    took = []
    for ix in range(-count // 10, count):
        series = (7919 * (ix + count)) % SERIES_COUNT
        before = time.perf_counter_ns()
        query(series)
        if ix >= 0:
            took.append((time.perf_counter_ns() - before) / 1e3)
    return statistics.median(took)
