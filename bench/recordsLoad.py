"""The records of egwd under load, read from its database file after it stopped.

    PYTHONPATH=<build>/service/gen-py /usr/bin/python3 bench/recordsLoad.py writers SECONDS EGWD [egwd options]
    PYTHONPATH=<build>/service/gen-py /usr/bin/python3 bench/recordsLoad.py refusals SECONDS EGWD [egwd options]

writers: eight level-3 sessions, each on an element of its own with a fire-alarm state group, set
the group's state back and forth for SECONDS; then the state changes acknowledged, the events
stored and the gap rows with the events they count, and the audit rows of the changes.
refusals: a level-3 change, then eight level-1 sessions ask setState for SECONDS (refused); then
the refusals given, the rows that record them and the refusals those rows count, and whether the
change's row is still there. (Give a panel with eight such elements, e.g. egw generate --loops 1
--devices 16 -o small.json and --panel small.json.)
"""

import os
import re
import sqlite3
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "service", "python"))
import egwdProcess  # noqa: E402
from egwdProcess import Egwd, PanelError  # noqa: E402

GROUP, ALARM, NORMAL = 0x80001, 0x60003, 0x60001
SESSIONS = 8


def in_sessions(seconds, body):
    """Runs body(session index, deadline) in eight threads; returns what each returned."""
    until = time.monotonic() + seconds
    results = [0] * SESSIONS

    def run(index):
        results[index] = body(index, until)
    threads = [threading.Thread(target=run, args=(i,)) for i in range(SESSIONS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return sum(results)


def alarm_elements(client):
    """The elements with a fire-alarm state group."""
    found = []
    for uuid in egwdProcess.collect_all(client, 0, 0):
        try:
            client.getState(uuid, GROUP)
            found.append(uuid)
        except PanelError:
            pass
    return found


def writers(egwd, seconds):
    elements = alarm_elements(egwd.connect_at(3))

    def change(index, until):
        client, done = egwd.connect_at(3), 0
        while time.monotonic() < until:
            client.setState(elements[index], GROUP, NORMAL if done % 2 else ALARM)
            done += 1
        return done
    return in_sessions(seconds, change)


def refusals(egwd, seconds):
    admin = egwd.connect_at(3)
    admin.setState(alarm_elements(admin)[0], GROUP, ALARM)

    def refuse(_, until):
        client, done = egwd.connect(), 0
        while time.monotonic() < until:
            try:
                client.setState(1, GROUP, ALARM)
            except PanelError:
                done += 1
        return done
    return in_sessions(seconds, refuse)


def main():
    mode, seconds, egwdProcess.settings.egwd = sys.argv[1], float(sys.argv[2]), sys.argv[3]
    database = os.path.join(tempfile.mkdtemp(prefix="records-load-"), "egwd.db")
    egwd = Egwd("--database", database, *sys.argv[4:])
    done = (writers if mode == "writers" else refusals)(egwd, seconds)
    status, text = egwd.stop()
    with sqlite3.connect(database) as db:
        if mode == "writers":
            # An egwd before gap rows had no column for them.
            lost = "lost" if any(c[1] == "lost" for c in db.execute("PRAGMA table_info(events)")) \
                else "0"
            stored, gaps, lost = db.execute(
                "SELECT count(*) FILTER (WHERE %s = 0 AND changeGroup = ?), "
                "count(*) FILTER (WHERE %s > 0), coalesce(sum(%s), 0) FROM events"
                % (lost, lost, lost), (GROUP,)).fetchone()
            rows = db.execute("SELECT count(*) FROM audit WHERE operation = 'setState' "
                              "AND result = 'ok'").fetchone()[0]
            print("%d state changes in %.0f s: %d events stored, %d gap rows counting %d, "
                  "%d audit rows" % (done, seconds, stored, gaps, lost, rows))
        else:
            results = [r[0] for r in db.execute(
                "SELECT result FROM audit WHERE level = 1 AND result LIKE 'denied%'")]
            counted = sum(int(m.group(1)) if m else 1
                          for m in (re.search(r"refused (\d+) times", r) for r in results))
            kept = db.execute("SELECT count(*) FROM audit WHERE level = 3 "
                              "AND operation = 'setState'").fetchone()[0]
            print("%d refusals in %.0f s: %d rows counting %d; the change's row %s" % (
                done, seconds, len(results), counted, "kept" if kept else "gone"))
    print("egwd's exit status %s; its lines on the event memory: %d" % (
        status, sum(1 for line in text.splitlines() if "event memory" in line)))


if __name__ == "__main__":
    main()
