"""Ten gateways of a company in a network of their own, as people would name them: for the pictures in the
README. One is silent, one refuses, one has a name that nobody knows."""

import os
import shlex
import subprocess
import sys

SKIPPED = 77
PATIENCE_S = 60
# Name, address, round trip in ms, last part of its address in the network; none: nobody knows the name.
GATEWAYS = [("Amsterdam", "ams.vpn.example", 60, 11), ("Brussels", "bru.vpn.example", 66, 12),
            ("Frankfurt", "fra.vpn.example", 85, 13), ("Madrid", "mad.vpn.example", 110, 14),
            ("New York", "nyc.vpn.example", 140, 15), ("Singapore", "sin.vpn.example", 200, 16),
            ("Sydney", "syd.vpn.example", 280, 17), ("Cairo", "cai.vpn.example", 50, 18),
            ("Oslo", "osl.vpn.example", 50, 19), ("Atlantis", "atl.vpn.example", None, None)]
SILENT, REFUSING, FURTHEST = "Cairo", "Oslo", "Sydney"


def skip(reason):
    """Ends a test that cannot be run here, with AHS_NO_SKIP in the environment as one that failed."""
    print("skipped:", reason)
    sys.exit(1 if os.environ.get("AHS_NO_SKIP") else SKIPPED)


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def write_inputs(scratch):
    """The profile, the preferences and the scene. What a group may write is not trusted."""
    os.umask(0o022)
    os.mkdir(os.path.join(scratch, "profiles"))
    hosts = "".join(f'<host name="{name}" address="{address}"/>\n' for name, address, _, _ in GATEWAYS)
    write(os.path.join(scratch, "profiles", "vpn.xml"),
          '<profile version="1"><preferences><preference name="EnableAutomaticServerSelection" value="true"/>'
          f"</preferences><hosts>\n{hosts}</hosts></profile>\n")
    write(os.path.join(scratch, "preferences.xml"),
          '<preferences version="1"><preference name="SelectionPingTimeout" value="1000"/></preferences>\n')
    scene = ""
    for name, address, rtt, host in GATEWAYS:
        if host is not None:
            scene += f"path 10.77.0.{host} rtt={rtt} jitter=1\nname {address} 10.77.0.{host}\n"
            if name != REFUSING:
                scene += f"gateway 10.77.0.{host}:443{' behaviour=silent' if name == SILENT else ''}\n"
    write(os.path.join(scratch, "scene"), scene)


def select_command(binaries, scratch):
    """The selection among them. In a network of its own the machine's root is nobody, whom nobody trusts."""
    return [os.path.join(binaries, "ahs"), "select", "--trust-profiles", "--no-cache", "--no-proxy",
            "--profiles", os.path.join(scratch, "profiles"),
            "--preferences", os.path.join(scratch, "preferences.xml")]


def environment():
    """Without this machine's proxies, and with a resolver that gives up soon."""
    kept = {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}
    kept.pop("NO_COLOR", None)
    return {**kept, "RES_OPTIONS": "timeout:1 attempts:1"}


def run(binaries, scratch, command):
    """Runs a command in the network. Returns its status, SKIPPED where there can be no such network."""
    write_inputs(scratch)
    scene = os.path.join(scratch, "scene")
    servers = shlex.join([os.path.join(binaries, "ahs-gateways"), "--config", scene])
    wan = [os.path.join(binaries, "ahs-wan"), "--config", scene, "--servers", servers, "--"]
    return subprocess.run(wan + command, stdout=subprocess.DEVNULL, timeout=PATIENCE_S, check=False,
                          env=environment()).returncode
