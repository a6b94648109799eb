#!/usr/bin/env python3
"""Selects among N gateways at known distances and says how long it took and how right it was.

Usage: distance.py BIN_DIRECTORY [N...]

Each N is one scene in the simulated WAN: gateways from 20 to 200 ms away, three plain probes each.
`ahs` and `curl --parallel` measure the same gateways, one after the other, in the same scene. Two
figures a row: the time to the result as a multiple of what physics allows, and the error of the
distance in milliseconds.
"""

import json
import os
import statistics
import subprocess
import sys
import tempfile

NEAREST_MS = 20
FARTHEST_MS = 200
PINGS = 3
# A plain probe is a connection and a request: two round trips.
ROUND_TRIPS_A_PROBE = 2


def gateways(count):
    """Address and round-trip time of each, in the order in which they are listed."""
    step = (FARTHEST_MS - NEAREST_MS) / max(count - 1, 1)
    return [(f"10.77.{1 + i // 200}.{1 + i % 200}", round(NEAREST_MS + i * step)) for i in range(count)]


def run_select(binaries, hosts):
    command = [os.path.join(binaries, "ahs"), "select", "--json", "--no-cache", *hosts]
    done = subprocess.run(command, stdout=subprocess.PIPE, check=True)
    result = json.loads(done.stdout)
    distances = {entry["headend"]: entry["metricMs"] for entry in result["results"]}
    return result["elapsedMs"], distances


def run_curl(hosts):
    """One request a host, all at once; the time to connect is its round trip."""
    command = ["curl", "--silent", "--no-progress-meter", "--parallel", "--parallel-immediate", "--parallel-max", "300",
               "--connect-timeout", "10", "--output", "/dev/null", "--write-out",
               "%{remote_ip} %{time_connect}\\n"]
    for host in hosts:
        command += [f"http://{host}:443/", "--output", "/dev/null"]
    done = subprocess.run(command, stdout=subprocess.PIPE, check=False)
    distances = {}
    for line in done.stdout.decode().splitlines():
        address, seconds = line.split()
        distances[address] = float(seconds) * 1000
    return distances


def errors(truth, measured):
    found = [abs(measured[host] - rtt) for host, rtt in truth if measured.get(host) is not None]
    return statistics.median(found), max(found), len(truth) - len(found)


def inside(binaries, count):
    """Runs in the clients' network of one scene."""
    truth = gateways(count)
    hosts = [host for host, _ in truth]
    # The test probe goes to the first name in byte order.
    first = dict(truth)[min(hosts)]
    limit = ROUND_TRIPS_A_PROBE * (first + PINGS * truth[-1][1])
    elapsed, measured = run_select(binaries, hosts)
    median, worst, missing = errors(truth, measured)
    curl_median, curl_worst, curl_missing = errors(truth, run_curl(hosts))
    print(f"| {count:,} | {elapsed:.0f} ms | {limit} ms | {elapsed / limit:.3f} "
          f"| {median:.2f} / {worst:.2f} ms, {missing} missing "
          f"| {curl_median:.2f} / {curl_worst:.2f} ms, {curl_missing} missing |", flush=True)


def main():
    binaries = os.path.abspath(sys.argv[1])
    if len(sys.argv) == 4 and sys.argv[2] == "--inside":
        inside(binaries, int(sys.argv[3]))
        return
    print("| gateways | time to result | limit | ratio | error of ahs, median / worst "
          "| error of curl --parallel |\n|---|---|---|---|---|---|", flush=True)
    for count in [int(word) for word in sys.argv[2:]] or [10, 100, 1000]:
        with tempfile.NamedTemporaryFile("w", suffix=".scene") as scene:
            for host, rtt in gateways(count):
                scene.write(f"path {host} rtt={rtt}\ngateway {host}:443\n")
            scene.flush()
            subprocess.run([os.path.join(binaries, "ahs-wan"), "--config", scene.name, "--servers",
                            f"{binaries}/ahs-gateways --config {scene.name}", "--",
                            sys.executable, os.path.abspath(__file__), binaries, "--inside", str(count)],
                           check=True)


if __name__ == "__main__":
    main()
