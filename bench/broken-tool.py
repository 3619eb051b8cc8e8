#!/usr/bin/env python3
# What a load tool that exits at once costs: starts a daemon whose probepath is a script that
# prints an error and exits, then measures the daemon's CPU time, the growth of its log and
# of its standard error over S seconds (default 10), after start-up.
# Usage: bench/broken-tool.py [--seconds S]
#   HOSTGAUGE_BUILD: build directory with hostgauge and hostgauge-vmstat (default build)
import argparse
import os
import time

import hgrun


def size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=10)
    args = parser.parse_args()
    import tempfile
    tool = os.path.join(tempfile.mkdtemp(prefix="hg-tool-"), "tool")
    with open(tool, "w") as f:
        f.write("#!/bin/sh\necho 'vmstat: -S requires an argument' >&2\nexit 1\n")
    os.chmod(tool, 0o755)
    daemon = hgrun.Daemon(extra={"probepath": f"{tool} -S"})
    try:
        out = os.path.join(daemon.work, "daemon.out")
        ticks0, log0, err0 = sum(daemon.proc.ticks()), size(daemon.log), size(out)
        time.sleep(args.seconds)
        ticks1, log1, err1 = sum(daemon.proc.ticks()), size(daemon.log), size(out)
        cpu = (ticks1 - ticks0) / hgrun.HZ
        print(f"{args.seconds:.0f} s with a tool that exits at once: daemon CPU {cpu:.2f} s "
              f"({100 * cpu / args.seconds:.2f} % of a core), log +{log1 - log0} bytes, "
              f"standard error +{err1 - err0} bytes")
    finally:
        daemon.stop()


if __name__ == "__main__":
    main()
