#!/usr/bin/env python3
"""Selections in a control group with ever more memory: the kernel kills those that have too little. What the
cache held before stays, and answers afterwards. Ends with 77, skipped, where no control group can be made.

Usage: memory_kill_test.py BUILD-DIRECTORY
"""

import json
import pathlib
import signal
import subprocess
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))
import attack  # noqa: E402

LIMITS_MIB = [1, 2, 3, 4, 6, 8, 10, 12, 14, 16, 20, 24, 32]
PLACES = [("/sys/fs/cgroup/memory", "memory.limit_in_bytes"), ("/sys/fs/cgroup", "memory.max")]


def make_group(name):
    """@return the directory of a new group and the file of its limit, or None."""
    for place, limit in PLACES:
        group = pathlib.Path(place, name)
        try:
            group.mkdir()
        except OSError:
            continue
        if (group / limit).exists():
            return group, group / limit
        group.rmdir()
    return None


def main():
    stage = attack.Stage(sys.argv[1])
    made = make_group(stage.directory.name)
    if made is None or stage.is_sanitized:
        stage.close()
        print("skipped: no control group for memory can be made here, or a sanitizer needs too much")
        return 77
    group, limit = made
    environment = {"HOME": str(stage.directory), "PATH": "/usr/bin:/bin"}
    enter = ["/bin/sh", "-c", f'echo $$ > {group}/cgroup.procs && exec "$@"', "sh"]

    def ahs(*words, before=()):
        program = subprocess.run([*before, stage.bin / "ahs", *words], env=environment, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, timeout=stage.limit, check=False)
        return program.returncode, program.stdout

    kept = ["select", "--json", *stage.well]
    others = ["select", "--json", *stage.well, *[f"127.0.78.{i}:1" for i in range(2, 202)]]
    killed = 0
    try:
        assert ahs(*kept)[0] == 0
        for mib in LIMITS_MIB:
            limit.write_text(str(mib << 20))
            status, _ = ahs(*others, before=enter)
            killed += status == -signal.SIGKILL
            assert status in (0, 1, 2, -signal.SIGKILL), f"status {status} at {mib} MiB"
            status, out = ahs(*kept)
            assert status == 0 and json.loads(out)["fromCache"], f"the selection is gone after {mib} MiB: {out}"
        status, out = ahs("cache", "show", "--json")
        assert status == 0 and json.loads(out)["problem"] is None, out
    finally:
        group.rmdir()
        stage.close()
    print(f"{killed} of {len(LIMITS_MIB)} were killed")
    return 0 if killed > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
