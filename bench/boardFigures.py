#!/usr/bin/python3
"""egwd on the board's builds beside the build machine's: start-up time and resident size on the
sample panel and on a generated panel of about 120,000 elements, and the latency of echo and
getInteger as a client on this machine sees it, every egwd in one run (docs/performance.md,
"On the board").

    boardFigures.py --latency <egw_remote_latency> --egw <native egw>
                    NAME=<egwd>[,<emulator word>...] ...

The first egwd named is the base of the latency ratios. Under qemu-user the resident size is the
emulator's process: the program's memory and the emulator's translated code together.
"""

import argparse
import os
import re
import statistics
import subprocess
import tempfile
import time

STARTS = 5


def vm_rss_kib(pid):
    with open("/proc/%d/status" % pid, encoding="ascii") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise KeyError("VmRSS")


class Egwd:
    """One egwd, started on a panel; the seconds until it says it serves."""

    def __init__(self, command, panel, folder):
        self.out = tempfile.TemporaryFile("w+", dir=folder, encoding="utf-8")
        arguments = ["--port", "0", "--database", ":memory:"]
        if panel:
            arguments += ["--panel", panel]
        begin = time.monotonic()
        self.process = subprocess.Popen(command + arguments, stdout=self.out,
                                        stderr=subprocess.STDOUT)
        while True:
            self.out.seek(0)
            match = re.search(r" on 127\.0\.0\.1:(\d+) ", self.out.read())
            if match:
                break
            if self.process.poll() is not None or time.monotonic() - begin > 300:
                raise RuntimeError("%s did not serve" % command)
            time.sleep(0.005)
        self.seconds = time.monotonic() - begin
        self.port = int(match.group(1))

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.out.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--latency", required=True)
    parser.add_argument("--egw", required=True)
    parser.add_argument("egwd", nargs="+")
    options = parser.parse_args()
    builds = []
    for word in options.egwd:
        name, command = word.split("=", 1)
        builds.append((name, command.split(",")[1:] + command.split(",")[:1]))
    with tempfile.TemporaryDirectory(prefix="egw-board-") as folder:
        big = os.path.join(folder, "panel120k.json")
        subprocess.run([options.egw, "generate", "--loops", "120", "--devices", "1000", "-o", big],
                       check=True, stdout=subprocess.DEVNULL)
        print("%-8s %-14s %16s %12s" % ("egwd", "panel", "start-up (s)", "VmRSS (MiB)"))
        for name, command in builds:
            for label, panel in (("sample", None), ("120k elements", big)):
                seconds, rss = [], []
                for _ in range(STARTS):
                    egwd = Egwd(command, panel, folder)
                    time.sleep(0.5)
                    seconds.append(egwd.seconds)
                    rss.append(vm_rss_kib(egwd.process.pid) / 1024.0)
                    egwd.stop()
                print("%-8s %-14s %16.2f %12.1f" % (name, label, statistics.median(seconds),
                                                    statistics.median(rss)))
        serving = [(name, Egwd(command, big, folder)) for name, command in builds]
        try:
            subprocess.run([options.latency] + ["%s=%d" % (name, egwd.port)
                                                for name, egwd in serving], check=True)
        finally:
            for _, egwd in serving:
                egwd.stop()


if __name__ == "__main__":
    main()
