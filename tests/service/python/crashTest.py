"""egwd killed with SIGKILL again and again while eight sessions change the panel as fast as they
can: after every kill the database passes SQLite's integrity check, and every change whose reply a
client received has its audit row with the value written.

Each client logs in at level 3 and, on an element of its own, writes in turn a label (a text of its
own each time), a device id (a number of its own each time), a disablement state and a command with
parameters of its own.
A killer kills egwd at a random moment 50 to 400 ms after it serves and starts it again on the same
database file. A change whose reply was lost with the kill may or may not have its row; rows
without a reply ("pending", or "ok" without a reply) are counted and allowed.

Run as: /usr/bin/python3 crashTest.py --egwd <egwd> [--kills N] (PYTHONPATH: the gen-py folder).
"""

import collections
import logging
import os
import random
import re
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from thrift.protocol import TBinaryProtocol
from thrift.transport import TSocket, TTransport

from egw_rpc import PanelService

import egwdProcess
from egwdProcess import PASSWORDS, PanelError

# Ids of the sample type library.
LABEL, DEVICE_ID = 0x30002, 0x30005
DISABLEMENT_STATE, ENABLED, DISABLED = 0x80003, 0x60008, 0x60007
TEST_COMMAND = 0x14007
# An element of the sample panel for each client: the service records the value an element holds
# after a change, so two clients changing one element at once could each see the other's value.
ELEMENTS = ("det-1-001", "det-1-002", "det-1-003", "mcp-1-004", "snd-1-005", "io-1-006",
            "door-1-007", "iso-1-008")

# Connecting while egwd is down is expected; Thrift's socket would log every attempt.
logging.getLogger("thrift.transport.TSocket").setLevel(logging.CRITICAL)

CLIENTS = 8
KILLS = 50
SERVE_MS = (50, 400)
LONGEST_SECONDS = 170
START_SECONDS = 30


class Service:
    """egwd on the database file, started again after every kill."""

    def __init__(self, folder):
        self.folder = folder
        self.database = os.path.join(folder, "egwd.db")
        self.process = None
        self.port = None
        self.starts = 0

    def start(self):
        out_path = os.path.join(self.folder, "stdout.%d" % self.starts)
        err_path = os.path.join(self.folder, "stderr.%d" % self.starts)
        self.starts += 1
        with open(out_path, "wb") as out, open(err_path, "wb") as err:
            self.process = subprocess.Popen(
                [*egwdProcess.settings.emulator, egwdProcess.settings.egwd, "--address",
                 "127.0.0.1", "--port", "0", "--database", self.database],
                stdout=out, stderr=err, stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            with open(out_path, encoding="utf-8", errors="replace") as out:
                first = out.readline()
            found = re.search(r" on 127\.0\.0\.1:(\d+) \(", first)
            if found:
                self.port = int(found.group(1))
                return
            if self.process.poll() is not None:
                with open(err_path, encoding="utf-8", errors="replace") as err:
                    raise RuntimeError("egwd ended with status %d before serving:\n%s"
                                       % (self.process.returncode, err.read()))
            time.sleep(0.01)
        self.kill()
        raise RuntimeError("egwd did not serve within %d s" % START_SECONDS)

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None
            self.port = None


class Writer(threading.Thread):
    """One client: logs in at level 3 and changes the panel until told to stop; keeps every change
    whose reply it received."""

    def __init__(self, number, service, stop):
        super().__init__(name="writer-%d" % number, daemon=True)
        self.number = number
        self.service = service
        self.stop = stop
        self.acknowledged = []  # (operation, uuid, the value written as text)
        self.refused = collections.Counter()
        self.count = 0
        self.failure = None  # anything but a refusal or a lost connection
        self.lock = threading.Lock()

    def acknowledged_now(self):
        with self.lock:
            return list(self.acknowledged)

    def _session(self):
        port = self.service.port
        if port is None:
            return None, None
        sock = TSocket.TSocket("127.0.0.1", port)
        sock.setTimeout(10000)
        transport = TTransport.TFramedTransport(sock)
        client = PanelService.Client(TBinaryProtocol.TBinaryProtocol(transport))
        transport.open()
        client.login(3, PASSWORDS[3])
        keys = {key: uuid for uuid, key in egwdProcess.element_keys(client).items()}
        return transport, (client, keys[ELEMENTS[self.number]])

    def _change(self, client, uuid):
        self.count += 1
        n = self.count
        step = n % 4
        if step == 0:
            text = "w%d-%d" % (self.number, n)
            client.setBytes(uuid, LABEL, text.encode())
            return ("setBytes", uuid, text)
        if step == 1:
            value = 10000000 + self.number * 1000000 + n
            client.setInteger(uuid, DEVICE_ID, value)
            return ("setInteger", uuid, str(value))
        if step == 2:
            value = DISABLED if n % 8 == 2 else ENABLED
            client.setState(uuid, DISABLEMENT_STATE, value)
            return ("setState", uuid, "%x" % value)
        parameters = "p%d-%d" % (self.number, n)
        client.executeCommand(uuid, TEST_COMMAND, 0, parameters.encode())
        return ("executeCommand", uuid, parameters)

    def run(self):
        try:
            self._write()
        except Exception as error:  # noqa: BLE001 (reported by the test)
            self.failure = repr(error)
            raise

    def _write(self):
        transport = None
        session = None
        while not self.stop.is_set():
            try:
                if session is None:
                    transport, session = self._session()
                    if session is None:
                        time.sleep(0.01)
                        continue
                change = self._change(*session)
                with self.lock:
                    self.acknowledged.append(change)
            except PanelError as error:
                self.refused[error.message[:80]] += 1
            except (TTransport.TTransportException, socket.error, EOFError, ConnectionError):
                if transport is not None:
                    try:
                        transport.close()
                    except (TTransport.TTransportException, OSError):
                        pass
                transport, session = None, None
                time.sleep(0.01)
        if transport is not None:
            transport.close()


def audit_rows(database):
    """Every audit row of a change, and the integrity check's answer; egwd must be down."""
    connection = sqlite3.connect(database, timeout=30)
    try:
        integrity = connection.execute("PRAGMA integrity_check").fetchone()[0]
        rows = connection.execute(
            "SELECT operation, uuid, after, result FROM audit WHERE operation IN "
            "('setBytes', 'setInteger', 'setState', 'executeCommand')").fetchall()
    finally:
        connection.close()
    return integrity, rows


def missing_changes(acknowledged, rows):
    """The acknowledged changes that no "ok" row with their value accounts for. A label, device
    id and command parameters are unique, so those are matched one to one; states repeat, so
    those are matched by count per element and value."""
    ok = collections.Counter()
    for operation, uuid, after, result in rows:
        if result != "ok" or after is None:
            continue
        if operation == "setState":
            for value in (ENABLED, DISABLED):
                if ("%x" % value) in after.lower():
                    ok[(operation, uuid, "%x" % value)] += 1
        else:
            for word in re.findall(r"[\w-]+", after):
                ok[(operation, uuid, word)] += 1
    wanted = collections.Counter(acknowledged)
    return [(change, count - ok[change]) for change, count in wanted.items()
            if ok[change] < count]


def rows_naming(missing, rows):
    """The rows whose value names one of the missing changes, whatever their result."""
    return [row for row in rows for (operation, uuid, text), _ in missing
            if row[0] == operation and row[1] == uuid and text in (row[2] or "")]


class CrashTest(unittest.TestCase):
    def test_killed_service_keeps_every_acknowledged_change(self):
        kills = int(os.environ.get("EGW_CRASH_KILLS", KILLS))
        started = time.monotonic()
        folder = tempfile.TemporaryDirectory(prefix="egwd-crash-")
        self.addCleanup(folder.cleanup)
        service = Service(folder.name)
        self.addCleanup(service.kill)
        stop = threading.Event()
        writers = [Writer(number, service, stop) for number in range(CLIENTS)]
        randomness = random.Random(int(os.environ.get("EGW_CRASH_SEED", "0")) or None)
        checks = []
        killed = 0
        service.start()
        for writer in writers:
            writer.start()
        try:
            while killed < kills and time.monotonic() - started < LONGEST_SECONDS:
                time.sleep(randomness.uniform(*SERVE_MS) / 1000.0)
                service.kill()
                killed += 1
                acknowledged = [c for w in writers for c in w.acknowledged_now()]
                integrity, rows = audit_rows(service.database)
                missing = missing_changes(acknowledged, rows)
                checks.append(integrity)
                self.assertEqual(integrity, "ok", "after kill %d" % killed)
                self.assertEqual(missing, [], "after kill %d: acknowledged changes without "
                                 "their row; rows that name them: %s"
                                 % (killed, rows_naming(missing, rows)))
                service.start()
        finally:
            stop.set()
            for writer in writers:
                writer.join(timeout=30)
            service.kill()
        acknowledged = [c for w in writers for c in w.acknowledged_now()]
        integrity, rows = audit_rows(service.database)
        checks.append(integrity)
        missing = missing_changes(acknowledged, rows)
        pending = sum(1 for row in rows if row[3] == "pending")
        ok_rows = sum(1 for row in rows if row[3] == "ok")
        refused = sum((w.refused for w in writers), collections.Counter())
        duration = time.monotonic() - started
        print("crash test: %d kills, %d acknowledged changes, %d audit rows of changes "
              "(%d ok, %d pending), %d ok rows without a reply, integrity checks %d/%d ok, "
              "%d refused replies %s, %.1f s"
              % (killed, len(acknowledged), len(rows), ok_rows, pending,
                 ok_rows - len(acknowledged), checks.count("ok"), len(checks),
                 sum(refused.values()), dict(refused.most_common(3)), duration),
              file=sys.stderr)
        self.assertEqual(integrity, "ok")
        self.assertEqual(missing, [])
        self.assertEqual([w.failure for w in writers if w.failure], [])
        self.assertEqual(killed, kills, "the kills did not fit in %d s" % LONGEST_SECONDS)
        self.assertGreater(len(acknowledged), killed, "the clients hardly got a change through")


if __name__ == "__main__":
    egwdProcess.main()
