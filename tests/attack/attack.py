#!/usr/bin/env python3
"""Attacks on the command and on a small host of the library: each combines gateways, proxies, names, files,
limits, environments and signals, drawn by a seed, and all on loopback. Whatever they do, these hold:

- The program ends in time, with a status that docs/cli.md lists, or by the signal that it got.
- It prints nothing that a terminal would obey or that is invisible, and leaves no process.
- It writes nowhere but into its cache and the files that options name, whole.
- Gateways that are well are measured, or the program says what this machine lacked.
- Its cache says of no gateway that is well that it is not.

A failure prints the command that repeats it.
Usage: attack.py BUILD-DIRECTORY [--seed N] [--number N] [--count N] [--seconds S]
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unicodedata

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
import proxies  # noqa: E402

SOURCE = pathlib.Path(__file__).resolve().parents[2]
CORPUS = SOURCE / "tests/fuzz/corpus"
LIMIT_S = 40  # far above a selection's time limit, also on a busy machine
SLOW = ("drop", "drip", "silent", "keeps-then-silent", "stalls", "key-updates", "key-updates-with-reply",
        "hello-requests", "tickets", "many-tickets")
NOBODY = 65534
AT_ONCE = 12

PREFERENCES = """<?xml version="1.0" encoding="UTF-8"?>
<preferences version="1">
  <preference name="SelectionConnectTimeout" value="12000"/>
  <preference name="SelectionPingTimeout" value="5000"/>
  <preference name="SelectionTestPingTimeout" value="1"/>
  <preference name="RoundTripTime" value="{measure}"/>
</preferences>
"""
PROFILE = """<?xml version="1.0" encoding="UTF-8"?>
<profile version="1">
  <preferences><preference name="EnableAutomaticServerSelection" value="true"/></preferences>
  <hosts>{hosts}</hosts>
</profile>
"""
# What terminals, shells, printf, XML, URLs, resolvers and readers of names take amiss.
NAMES = ["", "-", "--", "-x", ".", "..", "a b", "a\nb", "a\tb", "\x1b]0;evil\x07", "\x7f", "\u009b31m", "\u202eevil",
         "\u2066x", "\u200bx", "\u00adx", "\ufeffx", "\ufffff", "\U000e0041x", "\u3164", "x\u0301" * 40, "a" * 300,
         "a." * 200, "%n%s%25", "$(touch evil)", "`id`", "';id;'", "a/../b", "[::1", "[fe80::1%25lo]:1", "[::1%lo]",
         "127\u30020\u30020\u30021:1", "0x7f.1:1", "2130706433:1", "localhost.:1", "\uff0e", "b\udcffd",
         "user:pass@127.0.0.1:1", "http://127.0.0.1:1/", "ldap://x", "127.0.0.1:0", "127.0.0.1:99999", "*", "<b>x</b>",
         "x" * 63 + ".invalid", "xn--", "xn--a\u00e4.invalid", "evil.invalid", "0.0.0.0:1", "255.255.255.255:1"]
ISOLATED = "AHS_ATTACK_ISOLATED"


def is_harmful(character):
    """What a reader cannot see, or a terminal or text layout obeys."""
    code = ord(character)
    return (unicodedata.category(character) in ("Cc", "Cf", "Cs", "Zl", "Zp") and character != "\n"
            or code & 0xFFFE == 0xFFFE or 0xFDD0 <= code <= 0xFDEF
            or code in (0x34F, 0x115F, 0x1160, 0x17B4, 0x17B5, 0x2065, 0x3164, 0xFFA0) or 0xFFF0 <= code <= 0xFFFB
            or 0x180B <= code <= 0x180F or 0xFE00 <= code <= 0xFE0F or 0xE0000 <= code <= 0xE0FFF)


def isolate():
    """Goes on in a network of its own, where root may: no name server is asked outside."""
    if ISOLATED not in os.environ and subprocess.run(["unshare", "-n", "true"], stderr=subprocess.DEVNULL,
                                                     check=False).returncode == 0:
        os.environ[ISOLATED] = "1"
        os.execvp("unshare", ["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "sh", sys.executable,
                              *sys.argv])


def content_of(path):
    try:
        return path.read_bytes() if path.is_file() else b""
    except PermissionError:
        return b""


def statuses_of_page():
    """The exit statuses of docs/cli.md, by command; 'any' is exec's."""
    page = (SOURCE / "docs/cli.md").read_text().split("<!-- exit statuses -->")[1]
    found = {}
    for status, commands in re.findall(r"^\| (\d+) \| ([^|]*) \|", page, re.MULTILINE):
        for command in commands.split(", "):
            found.setdefault(command, set()).add(int(status))
    return found


class Stage:
    """What all attacks share: the programs, the gateways, the proxies. Used by many threads."""

    def __init__(self, build):
        self.bin = pathlib.Path(build).resolve() / "bin"
        facts = json.loads(subprocess.check_output([self.bin / "ahs", "--version", "--json"], text=True))
        self.is_sanitized = facts["sanitizer"] is not None
        self.limit = LIMIT_S * (3 if self.is_sanitized else 1)
        self.statuses = statuses_of_page()
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="ahs-attack-"))
        usage = subprocess.check_output([self.bin / "ahs-gateways", "--help"], text=True)
        behaviours = re.findall(r"^  ([a-z0-9-]+): ", usage, re.MULTILINE)
        assert "normal" in behaviours and len(behaviours) > 30, behaviours
        command = ["setpriv", "--pdeathsig", "KILL", self.bin / "ahs-gateways", "--write-ca", self.directory / "ca.pem"]
        for behaviour in behaviours + ["normal", "normal"]:
            command += ["--gateway", f"127.0.78.1:0,behaviour={behaviour}"]
        self.program = subprocess.Popen(command, text=True, stdout=subprocess.PIPE)
        self.well, self.hostile = [], {}
        for line in self.program.stdout:
            if line == "ready\n":
                break
            _, where, behaviour = line.split()
            if behaviour == "normal":
                self.well.append(where)
            else:
                self.hostile[behaviour] = where
        self.proxies = proxies.Proxies()

    def close(self):
        self.program.terminate()
        self.program.wait()
        self.proxies.close()
        shutil.rmtree(self.directory)


class Attack:
    """One combination: drawn, run, checked."""

    def __init__(self, stage, seed, number):
        self.stage = stage
        self.draw = random.Random(f"{seed}:{number}")
        self.root = stage.directory / str(number)
        self.home, self.outside, self.out = (self.root / name for name in ("home", "outside", "out"))
        self.config = self.home / ".config/ahs"
        self.cache = self.home / ".cache/ahs"
        for directory in (self.home, self.outside, self.out, self.config / "profiles", self.root / "tmp"):
            directory.mkdir(parents=True)
        (self.outside / "trap").write_text("as it was")
        (self.config / "preferences.xml").write_text(
            PREFERENCES.format(measure=self.draw.choice(["network", "response"])))
        self.environment = {"HOME": str(self.home), "PATH": "/usr/bin:/bin", "TMPDIR": str(self.root / "tmp"),
                            "TERM": "xterm"}
        # Elsewhere the machine's name server would be asked.
        self.names = NAMES if ISOLATED in os.environ else ["", "-x", "127.0.0.1:1", "[::1]:1", "a b", "a\nb", "\u202e"]
        self.limits = []   # lines for the shell that starts the program
        self.outputs = []  # files that options name
        self.must_succeed = True
        self.measures = True     # each gateway that is well must have a metric
        self.signal = None
        self.well = self.draw.sample(stage.well, self.draw.randint(1, 3))
        self.command, self.arguments, self.program = "", [], stage.bin / "ahs"
        for family in (self.draw_command, self.draw_files, self.draw_environment, self.draw_limits, self.draw_end):
            family()

    def chance(self, probability):
        return self.draw.random() < probability

    # ---- Families ----------------------------------------------------------------------------

    def draw_command(self):
        kinds = {"select": 11, "exec": 2, "watch": 1, "probe": 2, "profile check": 1, "profile list": 1,
                 "preferences show": 1, "cache show": 1, "cache clear": 1, "completion": 1, "host": 3}
        self.command = self.draw.choices(list(kinds), list(kinds.values()))[0]
        self.arguments = self.command.split()
        if self.command == "host":
            self.program, self.arguments = self.stage.bin / "c_client", self.draw_gateways()
        elif self.command == "completion":
            self.arguments.append(self.draw.choice(["bash", "zsh", "fish"]))
        elif self.command == "probe":
            self.arguments += [self.draw.choice(list(self.stage.hostile.values()) + self.names + self.well),
                               "--timeout", "2", "--count", "2"] + (["--secure"] if self.chance(0.5) else [])
        elif self.command in ("select", "exec", "watch"):
            self.draw_selection()
        if self.command == "watch":
            self.signal = self.draw.choice([signal.SIGTERM, signal.SIGINT, signal.SIGHUP]), 2
        if self.command not in ("watch", "exec", "completion", "host") and "--explain" not in self.arguments and \
                self.chance(0.7):
            self.arguments.append("--json")

    def draw_gateways(self):
        kinds = list(self.stage.hostile)
        if self.chance(0.7):
            kinds = [kind for kind in kinds if kind not in SLOW]
        hosts = self.well + [self.stage.hostile[kind] for kind in self.draw.sample(kinds, self.draw.randint(0, 6))]
        if self.chance(0.05):
            hosts += [f"127.0.78.{i}:{port}" for i in range(2, 60) for port in (1, 2)]
        self.draw.shuffle(hosts)
        return hosts

    def draw_selection(self):
        if self.chance(0.75):
            self.arguments += self.draw_gateways()
            if self.chance(0.2):
                self.arguments += self.draw.sample(self.names, self.draw.randint(1, 3))
                self.must_succeed = False  # an unusable address is a usage error
        else:
            self.draw_profiles()
        if self.chance(0.2):
            self.arguments += ["--reason", "reconnection", "--last", self.draw.choice(self.well + self.names)]
            self.must_succeed = False
        elif self.chance(0.25):
            self.arguments += ["--proxy", self.draw.choice(self.stage.proxies.where)]
            self.must_succeed = False
            if self.chance(0.5):
                password = self.home / "password"
                password.write_text("secret")
                password.chmod(self.draw.choice([0o600, 0o600, 0o400, 0o644]))
                self.arguments += ["--proxy-user", "anna", "--proxy-password-file", str(password)]
        if self.command == "exec":
            self.arguments += ["--start-time", "0"]
        if self.command == "select" and self.chance(0.3):
            self.arguments.append("--explain")
        if self.command == "watch" and self.chance(0.3):
            self.arguments += ["--exec", "true"]

    def draw_profiles(self):
        """Profiles of somebody who means harm beside a good one."""
        profiles = self.config / "profiles"
        hosts = "".join(f'<host name="well {i}" address="{where}"/>' for i, where in enumerate(self.well))
        (profiles / "good.xml").write_text(PROFILE.format(hosts=hosts))
        for i in range(self.draw.randint(0, 3)):
            self.must_succeed = self.measures = False
            name = self.draw.choice(["a", "z", "a\x1b[2J", "z\u202e", "-x"]) + f"{i}.xml"
            corpus = self.draw.choice(sorted((CORPUS / "profile").iterdir())).read_bytes()
            text = bytearray(self.draw.choice([corpus, PROFILE.format(hosts=self.draw_host()).encode(errors="replace")]))
            for _ in range(self.draw.choice([0, 0, 1, 5])):
                text[self.draw.randrange(len(text))] = self.draw.randrange(256)
            self.put_file(profiles / name, bytes(text))

    def draw_host(self):
        name, address = (self.draw.choice(self.names).replace("&", "&amp;").replace("<", "&lt;").replace('"', "&quot;")
                         for _ in range(2))
        return f'<host name="{name}" address="{address}"/>'

    def put_file(self, path, content):
        """A file that may be what a reader does not expect."""
        kind = self.draw.choice(["file"] * 4 + ["fifo", "directory", "link", "circle", "writable", "stranger", "huge"])
        if kind == "fifo":
            os.mkfifo(path)
        elif kind == "directory":
            path.mkdir()
        elif kind in ("link", "circle"):
            path.symlink_to(self.outside / "trap" if kind == "link" else path)
        else:
            path.write_bytes(content if kind != "huge" else content * (9_000_000 // max(1, len(content)) + 1))
            if kind == "writable":
                path.chmod(0o666)
            if kind == "stranger" and os.getuid() == 0:
                os.chown(path, NOBODY, NOBODY)

    def draw_target(self):
        """A path for the program to write to. @return it, and whether writing may fail."""
        kind = self.draw.choice(["new", "new", "old", "directory", "missing", "full", "null", "fifo", "stranger", "odd"])
        path = self.out / f"{kind}-{len(self.outputs)}"
        if kind == "old":
            path.write_text("old")
        elif kind == "directory":
            path.mkdir()
        elif kind == "missing":
            path = path / "deeper"
        elif kind == "fifo":
            os.mkfifo(path)
        elif kind == "stranger":
            path.symlink_to(self.outside / "trap")
            if os.getuid() == 0:
                os.chown(path, NOBODY, NOBODY, follow_symlinks=False)
            else:
                path.unlink()
        elif kind == "odd":
            path = self.out / self.draw.choice(["a\x1b[2Jb", "\u202ex", "-", "$(touch evil)", "x" * 200, "a\nb"])
        elif kind in ("full", "null"):
            path = pathlib.Path("/dev") / kind
        self.outputs.append(path)
        return str(path), kind not in ("new", "old")

    def draw_files(self):
        options = []
        if self.command == "select":
            options += ["--html", "--svg"]
        if self.command in ("select", "exec", "watch"):
            options += ["--log-file"]
        for option in options:
            if self.chance(0.15):
                target, may_fail = self.draw_target()
                self.arguments += [option, target]
                self.must_succeed = self.must_succeed and not may_fail
        if self.command in ("select", "exec", "cache show", "cache clear") and self.chance(0.3):
            self.cache.mkdir(parents=True)
            entry = self.draw.choice(sorted((CORPUS / "cache").iterdir()))
            self.put_file(self.cache / self.draw.choice(["selection-1.xml", "selection-x.xml", "selections.xml"]),
                          entry.read_bytes())
            if self.chance(0.3):
                self.cache.chmod(self.draw.choice([0o777, 0o500, 0o1777]))
        if self.command in ("select", "probe", "preferences show", "profile check") and self.chance(0.15):
            preferences = self.config / "hostile.xml"
            self.put_file(preferences, self.draw.choice(sorted((CORPUS / "preferences").iterdir())).read_bytes())
            self.arguments += (["--global-preferences"] if self.command != "profile check" else []) + [str(preferences)]
            self.must_succeed = self.measures = False
        if self.command == "exec":
            self.arguments += ["--", "true"]

    def draw_environment(self):
        port = self.draw.choice(self.stage.proxies.where)
        evil = str(self.outside)
        harmless = {
            "SSLKEYLOGFILE": evil + "/keys", "PX_MODULE_PATH": evil, "OPENSSL_CONF": evil + "/trap",
            "SSL_CERT_FILE": evil + "/trap", "SSL_CERT_DIR": evil, "RES_OPTIONS": "attempts:5 timeout:30 debug",
            "LOCALDOMAIN": "evil.invalid", "HOSTALIASES": evil + "/trap", "LC_ALL": self.draw.choice(["xx", "C", ""]),
            "TZ": self.draw.choice([":/etc/shadow", "A" * 4000, "../../x", ""]), "COLUMNS": "-1", "LINES": "99999999",
            "TERM": self.draw.choice(["dumb", "", "\x1b[2J"]), "NO_COLOR": "1", "XDG_RUNTIME_DIR": evil,
            "XDG_CACHE_HOME": self.draw.choice(["relative", "", "/dev/null"]), "IFS": "/", "http_proxy": port,
            "https_proxy": f"http://{port}", "ALL_PROXY": f"socks5://{port}", "no_proxy": "*" * 5000}
        for name in self.draw.sample(sorted(harmless), self.draw.choice([0, 0, 1, 3])):
            self.environment[name] = harmless[name]
            # A proxy may ask for a login, and a cache that cannot be kept is told.
            self.must_succeed = self.must_succeed and harmless[name] != "/dev/null" and "proxy" not in name.lower()
        if self.chance(0.06):
            self.environment["HOME"] = self.draw.choice(["", "/dev/null", str(self.home / "missing"), "relative"])
            self.must_succeed = self.measures = False
        if self.chance(0.03):
            self.environment = {}
            self.must_succeed = self.measures = False

    def draw_limits(self):
        if self.chance(0.7):
            return
        limits = [f"ulimit -n {self.draw.choice([8, 12, 16, 24, 32, 64, 256])}",
                  f"ulimit -s {self.draw.choice([256, 1024, 'unlimited'])}",
                  "umask 777", "umask 0", "exec <&-", "exec >&-", "exec 2>&-", "exec <&- >&- 2>&-", "exec >/dev/full",
                  "trap '' PIPE", "trap '' TERM INT HUP", "cd /", "ulimit -c 0"]
        if not self.stage.is_sanitized:  # a sanitizer takes terabytes of addresses, and may write a file as it starts
            limits.append(f"ulimit -f {self.draw.choice([0, 1, 4])}")
            limits.append(f"ulimit -v {self.draw.choice([100, 128, 200, 512]) * 1024}")
        if self.command == "watch":
            limits.remove("trap '' TERM INT HUP")
        self.limits = self.draw.sample(limits, self.draw.choice([1, 1, 2]))
        self.must_succeed = False

    def draw_end(self):
        if self.signal is None and self.chance(0.08):
            number = self.draw.choice([signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGKILL])
            self.signal = number, self.draw.uniform(0, 0.5)
            self.must_succeed = False

    # ---- The run -----------------------------------------------------------------------------

    def words(self):
        script = "; ".join(self.limits + ['exec "$@"'])
        return ["/bin/sh", "-c", script, "sh", str(self.program), *self.arguments]

    def run(self):
        before = self.snapshot()
        words = [word.encode("utf-8", "surrogateescape") for word in self.words()]
        program = subprocess.Popen(words, env=self.environment, cwd=self.root / "tmp", stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        killer = None
        if self.signal is not None:
            killer = threading.Timer(self.signal[1], program.send_signal, [self.signal[0]])
            killer.start()
        try:
            out, err = program.communicate(timeout=self.stage.limit)
        except subprocess.TimeoutExpired:
            os.killpg(program.pid, signal.SIGKILL)
            out, err = program.communicate()
            raise AssertionError(f"it did not end in {self.stage.limit} s; it wrote: {out!r} {err!r}") from None
        finally:
            if killer is not None:
                killer.cancel()
        self.check(program, out, err, before)

    def snapshot(self):
        """All files but those that the program may change."""
        found = {}
        mine = [self.cache, self.home / "missing"] + self.outputs
        mine += [path.with_name(f"{path.name}{end}") for path in self.outputs for end in (".1", ".2")]
        for place, directories, files in os.walk(self.root, followlinks=False):
            directories[:] = [name for name in directories if pathlib.Path(place, name) not in mine]
            for path in [pathlib.Path(place, name) for name in directories + files]:
                if path not in mine and path != self.cache.parent:
                    state = path.lstat()
                    content = content_of(path) if state.st_size < 65536 and not path.is_symlink() else b""
                    found[str(path.relative_to(self.root))] = state.st_mode, state.st_uid, state.st_size, content
        return found

    # ---- The checks --------------------------------------------------------------------------

    def check(self, program, out, err, before):
        status = program.returncode
        told = f"status {status}, it wrote: {out[-3000:]!r} {err[-3000:]!r}"
        self.check_status(status, told)
        texts = {"standard output": out, "standard error": err}
        texts |= {str(path): content_of(path) for path in self.outputs}
        for name, text in texts.items():
            try:
                harmful = sorted({hex(ord(c)) for c in text.decode() if is_harmful(c)
                                  and not (c == "\t" and self.command == "completion")})
            except UnicodeDecodeError as error:
                harmful = [str(error)]
            if harmful:
                raise AssertionError(f"{name} has {harmful}; {told}")
        after = self.snapshot()
        if after.get("outside/keys", (0, 0, 1))[2] == 0:
            del after["outside/keys"]  # libcurl opens the key log when it starts; nobody may write to it
        changed = sorted(name for name in before.keys() | after.keys() if before.get(name) != after.get(name))
        if changed:
            raise AssertionError(f"it changed {changed}; {told}")
        self.check_children(program.pid, told)
        if self.command == "select" and status == 0 and b"{" in out and "--json" in self.arguments:
            self.check_measured(json.loads(out), err, told)
        self.check_cache(told)

    def check_status(self, status, told):
        expected = self.stage.statuses.get(self.command, set()) | self.stage.statuses["all"]
        expected |= self.stage.statuses["all others"]
        if self.command == "host":
            expected = {0, 1, 2}
        if self.signal is not None:
            expected |= {-self.signal[0], 128 + self.signal[0]}
        if self.command == "exec" and any("ulimit" in limit for limit in self.limits):
            expected.add(127)  # the program's own loader
        if status not in expected:
            raise AssertionError(f"an undocumented {told}")
        if self.must_succeed and self.command in ("select", "exec", "host") and status != 0:
            raise AssertionError(f"nothing was selected: {told}")

    def check_children(self, group, told):
        until = time.monotonic() + 5
        while time.monotonic() < until:
            try:
                os.killpg(group, 0)
            except ProcessLookupError:
                return
            time.sleep(0.05)
        raise AssertionError(f"a process is left: {told}")

    def check_measured(self, result, err, told):
        for headend in result["results"]:
            if not self.measures or headend["headend"] not in self.well or headend["metricMs"] is not None:
                continue
            if not self.limits or "this machine ran out of" not in headend["outcome"]:
                raise AssertionError(f"a gateway that is well is said to be: {headend['outcome']}; {told}")
            if b"ran out of" not in err:
                raise AssertionError(f"standard error does not say what this machine lacked; {told}")

    def check_cache(self, told):
        if not self.cache.is_dir() or self.command in ("host", "cache clear") or not self.measures:
            return
        shown = subprocess.run([self.stage.bin / "ahs", "cache", "show", "--json", "--cache-dir", self.cache],
                               env={"HOME": str(self.home)}, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                               timeout=self.stage.limit, check=False)
        for selection in json.loads(shown.stdout)["selections"] if shown.returncode == 0 else []:
            known = {result["headend"] for result in selection["results"] if result["metricMs"] is not None}
            forgotten = set(self.well) & set(selection["candidates"]) - known
            if forgotten:
                raise AssertionError(f"the cache remembers that {sorted(forgotten)} cannot be reached; {told}")


def attempt(stage, seed, number):
    """@return None, or what failed and how to repeat it."""
    attack = Attack(stage, seed, number)
    try:
        attack.run()
    except Exception as error:  # pylint: disable=broad-except
        command = " ".join(shlex.quote(f"{name}={value}") for name, value in attack.environment.items())
        words = " ".join(shlex.quote(word) for word in attack.words())
        text = (f"FAILED: {type(error).__name__}: {error}\n  limits {attack.limits}, signal {attack.signal}\n"
                f"  env -i {command} {words}\n"
                f"  repeat it: {sys.argv[0]} {sys.argv[1]} --seed {seed} --number {number}\n")
        return text.encode("utf-8", "backslashreplace").decode()
    finally:
        subprocess.run(["chmod", "-R", "u+rwX", attack.root], check=False, stderr=subprocess.DEVNULL)
        shutil.rmtree(attack.root, ignore_errors=True)
    return None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--number", type=int, help="this one alone")
    parser.add_argument("--count", type=int, default=200)
    parser.add_argument("--seconds", type=float, default=float("inf"), help="begin no other afterwards")
    options = parser.parse_args()
    isolate()
    stage = Stage(options.build)
    numbers = range(options.count) if options.number is None else [options.number]
    until = time.monotonic() + options.seconds
    try:
        with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as threads:
            run = [threads.submit(lambda n=n: attempt(stage, options.seed, n) if time.monotonic() < until else "late")
                   for n in numbers]
            results = [one.result() for one in run]
    finally:
        stage.close()
    failures = [result for result in results if result not in (None, "late")]
    print("".join(failures), end="")
    print(f"{len(results) - results.count('late')} attacks with seed {options.seed}, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
