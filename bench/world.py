"""The world that the benchmarks measure in, and what runs in it.

A world has gateways at known distances behind the simulated wide area network. `World.visit` runs a
function of one of these modules inside it, in a new process; the functions below run the measuring
tools. Every process has a time limit and is ended by its number; a network vanishes with its processes.
"""

import contextlib
import dataclasses
import importlib
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

# No scene takes longer; a process that does hangs.
VISIT_SECONDS = 300
TOOL_SECONDS = 60

# Status of ahs-wan if it may not make networks; ctest counts it as "skipped".
NOT_PERMITTED = 77

PORT = 443
# The most that curl 7.88 allows.
CURL_AT_ONCE = 300


class NotPermitted(Exception):
    """This machine does not allow making networks."""


@dataclasses.dataclass
class Gateway:
    """One gateway; all times are round trips in milliseconds."""

    address: str
    rtt: float
    jitter: float = 0
    loss: float = 0
    behaviour: str = "normal"
    # Of the answer, and of the SYN-ACK beyond the round trip.
    delay: float = 0
    opening: float = 0

    def lines(self):
        return (f"path {self.address} rtt={self.rtt} opening={self.opening} jitter={self.jitter} "
                f"loss={self.loss}\n"
                f"gateway {self.address}:{PORT} delay={self.delay} behaviour={self.behaviour}\n")


def address(index):
    return f"10.77.{1 + index // 200}.{1 + index % 200}"


def spread(count, nearest, farthest, **properties):
    """Gateways at evenly spaced distances in whole milliseconds."""
    step = (farthest - nearest) / max(count - 1, 1)
    return [Gateway(address(i), round(nearest + i * step), **properties) for i in range(count)]


@contextlib.contextmanager
def running(command, **streams):
    """A process for the length of a block; ends it by its number, however the block is left."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **streams)
    try:
        yield process
    finally:
        if process.poll() is None:
            process.terminate()
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


class World:
    """The directory of the programs, and one for temporary files."""

    def __init__(self, build, scratch):
        self.build = build
        self.scratch = scratch
        # For each scene: packets carried, mean and worst lateness in microseconds.
        self.lateness = []

    def program(self, name):
        return os.path.join(self.build, "bin", name)

    def path(self, name):
        return os.path.join(self.scratch, name)

    def visit(self, gateways, function, seed=1, **arguments):
        """Runs `function(world, gateways, **arguments)` inside. The result must fit into JSON."""
        with open(self.path("scene"), "w", encoding="utf-8") as scene:
            scene.writelines(gateway.lines() for gateway in gateways)
        job = {"module": function.__module__, "function": function.__name__, "build": self.build,
               "scratch": self.scratch, "gateways": [dataclasses.asdict(g) for g in gateways],
               "arguments": arguments}
        with open(self.path("job"), "w", encoding="utf-8") as file:
            json.dump(job, file)
        with contextlib.suppress(FileNotFoundError):
            os.remove(self.path("result"))
        servers = f"'{self.program('ahs-gateways')}' --config '{self.path('scene')}' " \
                  f"--write-ca '{self.path('ca.pem')}'"
        command = [self.program("ahs-wan"), "--config", self.path("scene"), "--seed", str(seed),
                   "--stats", "--servers", servers, "--",
                   sys.executable, "-B", os.path.abspath(__file__), self.path("job")]
        with tempfile.TemporaryFile("w+", dir=self.scratch) as errors:
            with running(command, stderr=errors) as wan:
                status = wan.wait(VISIT_SECONDS)
            errors.seek(0)
            said = errors.read()
        if status == NOT_PERMITTED:
            raise NotPermitted(said.strip())
        if status != 0:
            raise RuntimeError(f"{function.__name__} failed with status {status}:\n{said}")
        self._note_lateness(said)
        with open(self.path("result"), encoding="utf-8") as file:
            return json.load(file)

    def _note_lateness(self, said):
        found = re.search(r"(\d+) packets carried, .* mean ([\d.e+-]+) us late, worst ([\d.e+-]+) us", said)
        if found:
            self.lateness.append((int(found[1]), float(found[2]), float(found[3])))


def be_inside(job_file):
    """Runs inside the world, for `World.visit`."""
    with open(job_file, encoding="utf-8") as file:
        job = json.load(file)
    world = World(job["build"], job["scratch"])
    gateways = [Gateway(**fields) for fields in job["gateways"]]
    function = getattr(importlib.import_module(job["module"]), job["function"])
    result = function(world, gateways, **job["arguments"])
    with open(world.path("result"), "w", encoding="utf-8") as file:
        json.dump(result, file)


# --- Tools, to be run inside ----------------------------------------------------------------------


@dataclasses.dataclass
class Cost:
    """The cost of a command; times in milliseconds."""

    elapsed: float
    processor: float
    peak_mib: float
    threads: int


def environment(**changes):
    """The environment with `changes`, and without this machine's proxies."""
    clean = {name: value for name, value in os.environ.items()
             if not name.lower().endswith("_proxy")}
    return {**clean, "LC_ALL": "C.UTF-8", **changes}


def run_measured(world, command, env=None, statuses=(0,)):
    """Output and cost of a command."""
    report = world.path("cost")
    with tempfile.TemporaryFile("w+", dir=world.scratch) as output:
        with running([world.program("bench-measure"), report, *command], stdout=output,
                     env=env or environment()) as process:
            status = process.wait(TOOL_SECONDS)
        if status not in statuses:
            raise RuntimeError(f"{command[0]} ended with status {status}")
        output.seek(0)
        text = output.read()
    with open(report, encoding="utf-8") as file:
        cost = json.load(file)
    return text, Cost(cost["elapsedMs"], cost["userMs"] + cost["systemMs"], cost["peakKib"] / 1024,
                      cost["threads"])


@dataclasses.dataclass
class Selection:
    """What `ahs select` measured; times in milliseconds, by address."""

    elapsed: float
    first: str
    metrics: dict
    probes: dict
    cost: Cost

    def smallest(self, member):
        """The smallest time of each gateway's probes; leaves out gateways without one."""
        found = {}
        for host, probes in self.probes.items():
            times = [probe[member] for probe in probes if probe[member] is not None]
            if times:
                found[host] = min(times)
        return found


def select(world, gateways, options=(), env=None):
    """One selection with three probes per gateway."""
    command = [world.program("ahs"), "select", "--json", "--no-cache", *options,
               *(gateway.address for gateway in gateways)]
    output, cost = run_measured(world, command, env)
    said = json.loads(output)
    return Selection(
        elapsed=said["elapsedMs"],
        first=said["headends"][0],
        metrics={r["headend"]: r["metricMs"] for r in said["results"] if r["metricMs"] is not None},
        probes={r["headend"]: r["probes"] for r in said["results"]},
        cost=cost)


def run_curl(world, gateways, requests=3):
    """`curl --parallel`: the smallest time to connect of each gateway, and the cost. The options make
    it comparable: plain HTTP/1.1 without a proxy, as many transfers at once as possible."""
    config = world.path("curl")
    with open(config, "w", encoding="utf-8") as file:
        for _ in range(requests):
            file.writelines(f'url = "http://{gateway.address}:{PORT}/"\noutput = "/dev/null"\n'
                            for gateway in gateways)
    command = ["curl", "--disable", "--silent", "--no-progress-meter", "--http1.1", "--noproxy", "*",
               "--parallel", "--parallel-immediate", "--parallel-max", str(CURL_AT_ONCE),
               "--max-time", "10", "--write-out", "%{remote_ip} %{time_connect}\\n",
               "--config", config]
    # The exit status is that of any failed transfer; a missing line tells more.
    output, cost = run_measured(world, command, statuses=range(126))
    times = {}
    for line in output.splitlines():
        # A failed transfer has no address.
        found = re.fullmatch(r"([\d.]+) ([\d.]+)", line)
        if found and float(found[2]) > 0:
            time = float(found[2]) * 1000
            times[found[1]] = min(time, times.get(found[1], time))
    return times, cost


def run_bare(world, gateways, requests=3):
    """The time that the same packets take without a selection, in milliseconds, and its cost."""
    command = [world.program("bench-bare"), str(PORT), str(requests),
               *sorted(gateway.address for gateway in gateways)]
    output, cost = run_measured(world, command)
    return float(output), cost


def run_httping(gateways, requests=3):
    """One httping per gateway, all at once: the smallest time to connect of each."""
    times = {}
    with contextlib.ExitStack() as stack:
        started = []
        for gateway in gateways:
            output = stack.enter_context(tempfile.TemporaryFile("w+"))
            command = ["httping", "-M", "-c", str(requests), "-i", "0", "-t", "10",
                       "-g", f"http://{gateway.address}:{PORT}/"]
            process = stack.enter_context(
                running(command, stdout=output, stderr=subprocess.DEVNULL, env=environment()))
            started.append((gateway.address, process, output))
        for host, process, output in started:
            process.wait(TOOL_SECONDS)
            output.seek(0)
            found = [float(time) for time in re.findall(r'"connect_ms" : "([\d.e+-]+)"', output.read())]
            if found:
                times[host] = min(found)
    return times


def run_fping(gateways, requests=3):
    """The smallest echo time of each gateway. If permitted, fping runs at high priority, to measure the
    network's accuracy and not the machine's load."""
    precedence = ["chrt", "--fifo", "1"]
    if subprocess.run([*precedence, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        precedence = []
    command = [*precedence, "fping", "-C", str(requests), "-q", "-p", "400", "-i", "2", "-t", "1000",
               *(gateway.address for gateway in gateways)]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                          timeout=TOOL_SECONDS)
    times = {}
    for line in done.stderr.splitlines():
        host, _, said = line.partition(" : ")
        found = [float(time) for time in said.split() if time != "-"]
        if found:
            times[host.strip()] = min(found)
    return times


@contextlib.contextmanager
def busy_loops(count):
    """Busy processes for the length of a block."""
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            stack.enter_context(running(["sh", "-c", "while :; do :; done"]))
        yield


def trust_gateways(world):
    """Makes the gateways' authority the only trusted one inside: mounts a directory with its
    certificate over the system's, visible only in this network's file systems."""
    directory = world.path("certificates")
    shutil.rmtree(directory, ignore_errors=True)
    os.mkdir(directory)
    shutil.copy(world.path("ca.pem"), os.path.join(directory, "ca.pem"))
    for command in (["openssl", "rehash", directory],
                    ["mount", "--bind", directory, "/etc/ssl/certs"]):
        subprocess.run(command, check=True, stdin=subprocess.DEVNULL, timeout=TOOL_SECONDS)


# --- Statistics -----------------------------------------------------------------------------------


def distances(gateways):
    return {gateway.address: gateway.rtt for gateway in gateways}


def errors(gateways, measured):
    """The error of each measured distance, in milliseconds."""
    truth = distances(gateways)
    return [abs(time - truth[host]) for host, time in measured.items() if host in truth]


@dataclasses.dataclass
class Error:
    """A measurement's errors: median and worst in milliseconds, and the number without a result."""

    median: float
    worst: float
    missing: int

    def __str__(self):
        missing = f", {self.missing:,} missing" if self.missing else ""
        return f"{self.median:.2f} / {self.worst:.2f} ms{missing}"


def error_of(gateways, rounds):
    """Over all gateways and rounds."""
    found = [error for measured in rounds for error in errors(gateways, measured)]
    missing = len(gateways) * len(rounds) - len(found)
    return Error(statistics.median(found), max(found), missing) if found else Error(9999, 9999, missing)


if __name__ == "__main__":
    try:
        be_inside(sys.argv[1])
    except KeyboardInterrupt:
        sys.exit(130)
