"""The records of egwd when its database fails, as a process of its own meets it.

A full disk (the file-size limit of the process, RLIMIT_FSIZE: a write beyond it fails with EFBIG)
and a read-only database: changes are refused with a message naming the audit trail, reads go on,
and once the disk is free again or the file writable, changes are made again without a restart.
A database that cannot be opened at all stops egwd at its start. Password values never reach the
records. Events the event memory's queue could not hold are a gap row with their number, which
queryEvents and `egw history` show.
"""

import json
import os
import pwd
import resource
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import egwdProcess
from egw_rpc.ttypes import AuditQuery, EventQuery, Subscription, SubscriptionKind
from egwdProcess import Egwd, EgwdTestCase, ErrorCode, PanelError

DETECTOR_TYPE = 0x70048
ALARM_THRESHOLD = 0x30031  # 8-bit
LEVEL2_PASSWORD = 0x30010
# Beyond the files egwd makes at its start (the database, its WAL and the WAL's 32 KiB index).
FILE_LIMIT = 256 * 1024
MOST_CHANGES = 300
FIRE_ALARM_GROUP, FIRE_ALARM, NORMAL = 0x80001, 0x60003, 0x60001
# The egw program, for the records as the panel tool shows them.
EGW = None


def rows(database, operation):
    """The audit rows of the operation, oldest first, read through a connection of our own."""
    with sqlite3.connect("file:%s?mode=ro" % database, uri=True) as db:
        return db.execute("SELECT before, after, result FROM audit WHERE operation = ? "
                          "ORDER BY id", (operation,)).fetchall()


def integrity(database):
    with sqlite3.connect(database) as db:
        return db.execute("PRAGMA integrity_check").fetchone()[0]


def limit_file_size():
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_LIMIT, resource.RLIM_INFINITY))


class RecordsTestCase(unittest.TestCase):

    def start(self, *arguments, preexec_fn=None):
        egwd = Egwd(*arguments, preexec_fn=preexec_fn)
        self.addCleanup(self.stop, egwd)
        return egwd

    def stop(self, egwd):
        if egwd.process.poll() is None:
            status, text = egwd.stop()
            self.assertEqual(status, 0, "egwd did not end cleanly:\n" + text)

    def refused_by_the_trail(self, call, *arguments):
        with self.assertRaises(PanelError) as raised:
            call(*arguments)
        self.assertEqual(raised.exception.code, ErrorCode.REFUSED, raised.exception.message)
        self.assertIn("audit trail", raised.exception.message)
        return raised.exception.message


class DiskFullTest(RecordsTestCase):

    def test_changes_refused_while_full_and_made_again_once_free(self):
        egwd = self.start(preexec_fn=limit_file_size)
        admin = egwd.connect_at(4)
        guest = egwd.connect()
        detector = egwdProcess.collect_all(admin, 0, DETECTOR_TYPE)[0]
        accepted = None
        message = None
        for change in range(MOST_CHANGES):
            value = change % 200
            try:
                admin.setInteger(detector, ALARM_THRESHOLD, value)
                accepted = value
            except PanelError as error:
                message = error.message
                break
        self.assertIsNotNone(message, "%d changes were recorded within %d bytes"
                             % (MOST_CHANGES, FILE_LIMIT))
        self.assertIsNotNone(accepted, "no change was recorded at all")
        self.assertIn("audit trail", message)
        self.assertIn("nothing was changed", message)
        # Nothing changed, reads and refusals go on, and so does the service.
        self.assertEqual(admin.getInteger(detector, ALARM_THRESHOLD), accepted)
        self.refused_by_the_trail(admin.setInteger, detector, ALARM_THRESHOLD, 201)
        self.assertEqual(admin.getInteger(detector, ALARM_THRESHOLD), accepted)
        self.assertTrue(guest.getIdString(detector))
        with self.assertRaises(PanelError) as denied:
            guest.setInteger(detector, ALARM_THRESHOLD, 1)
        self.assertEqual(denied.exception.code, ErrorCode.ACCESS_DENIED)
        self.assertEqual(admin.queryAudit(AuditQuery(operation="setInteger", max=1))[0].after,
                         str(accepted))

        # The disk is free again: the next change is made and recorded, without a restart.
        resource.prlimit(egwd.process.pid, resource.RLIMIT_FSIZE,
                         (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        admin.setInteger(detector, ALARM_THRESHOLD, 202)
        self.assertEqual(admin.getInteger(detector, ALARM_THRESHOLD), 202)
        self.assertEqual(rows(egwd.database, "setInteger")[-1], (str(accepted), "202", "ok"))
        self.assertEqual(integrity(egwd.database), "ok")
        status, text = egwd.stop()
        self.assertEqual(status, 0, text)


class ReadOnlyDatabaseTest(RecordsTestCase):

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="egwd-readonly-")
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.database = os.path.join(self.folder, "egwd.db")

    def test_changes_refused_until_the_database_is_writable_again(self):
        first = self.start("--database", self.database)
        client = first.connect_at(3)
        detector = egwdProcess.collect_all(client, 0, DETECTOR_TYPE)[0]
        # Each start serves the sample panel as loaded.
        loaded = client.getInteger(detector, ALARM_THRESHOLD)
        client.setInteger(detector, ALARM_THRESHOLD, 11)
        status, text = first.stop()
        self.assertEqual(status, 0, text)

        # Readable, not writable, in a folder where nothing can be made. Root passes every file
        # mode, so as root egwd runs as nobody.
        if os.geteuid() == 0:
            nobody = pwd.getpwnam("nobody")
            os.chmod(self.folder, 0o755)
            os.chmod(self.database, 0o644)

            def as_nobody():
                os.setgroups([])
                os.setgid(nobody.pw_gid)
                os.setuid(nobody.pw_uid)
            preexec_fn = as_nobody
        else:
            os.chmod(self.database, 0o444)
            os.chmod(self.folder, 0o555)
            preexec_fn = None
        egwd = self.start("--database", self.database, preexec_fn=preexec_fn)
        client = egwd.connect()
        # A login is a change of the session that must have its row: refused, with the reason.
        message = self.refused_by_the_trail(client.login, 3, egwdProcess.PASSWORDS[3])
        self.assertIn("readonly", message)
        with self.assertRaises(PanelError) as denied:
            client.setInteger(detector, ALARM_THRESHOLD, 12)
        self.assertEqual(denied.exception.code, ErrorCode.ACCESS_DENIED)
        # Reads go on: the panel's and the records'.
        self.assertEqual(client.getInteger(detector, ALARM_THRESHOLD), loaded)
        self.assertEqual(client.queryEvents(EventQuery(max=10)), [])

        # Writable again: the login and the change go through, without a restart.
        if os.geteuid() == 0:
            os.chown(self.folder, nobody.pw_uid, nobody.pw_gid)
            os.chown(self.database, nobody.pw_uid, nobody.pw_gid)
        os.chmod(self.folder, 0o755)
        os.chmod(self.database, 0o644)
        client.login(3, egwdProcess.PASSWORDS[3])
        client.setInteger(detector, ALARM_THRESHOLD, 13)
        self.assertEqual(client.getInteger(detector, ALARM_THRESHOLD), 13)
        status, text = egwd.stop()
        self.assertEqual(status, 0, text)
        stored = rows(self.database, "setInteger")
        self.assertEqual([row[1:] for row in stored if row[2] == "ok"], [("11", "ok"), ("13", "ok")])
        # The level-1 refusal, kept while the file could not be written, is written once it can.
        self.assertIn((None, None, "denied: level 3 needed"), stored)
        self.assertEqual(integrity(self.database), "ok")

    def test_a_database_that_cannot_be_opened_stops_egwd(self):
        garbage = os.path.join(self.folder, "garbage.db")
        with open(garbage, "wb") as out:
            out.write(b"this is no database" * 100)
        for database in (os.path.join(self.folder, "missing", "egwd.db"), garbage):
            with self.subTest(database=database):
                done = subprocess.run(
                    [*egwdProcess.settings.emulator, egwdProcess.settings.egwd, "--address",
                     "127.0.0.1", "--port", "0", "--database", database],
                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60, text=True,
                    check=False)
                self.assertEqual(done.returncode, 1, done.stderr)
                self.assertIn("the database cannot be used", done.stderr)
                self.assertIn(database, done.stderr)


class PasswordRecordsTest(EgwdTestCase):
    """A panel whose panel element holds its own level-2 password."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix="egwd-panel-")
        panel = {"version": 1, "name": "Annex panel",
                 "root": {"key": "panel", "type": "CompactPanel",
                          "properties": {"Label": "Annex panel", "PasswordLevel2": "2468"}}}
        path = os.path.join(self.folder.name, "annexPanel.json")
        with open(path, "w", encoding="utf-8") as out:
            json.dump(panel, out)
        self.egwd_arguments = ("--panel", path)
        self.addCleanup(self.folder.cleanup)
        super().setUp()

    def test_password_values_stay_out_of_the_records_below_level_4(self):
        admin = self.egwd.connect_at(4)
        root = admin.getRoot()
        admin.subscribe(Subscription(kind=SubscriptionKind.ALL_PROPERTY_CHANGES,
                                     target=admin.getElementType(root)))
        admin.setBytes(root, LEVEL2_PASSWORD, b"1357")
        self.assertEqual(len(admin.nextEvents(10, 5000)), 1)
        row = admin.queryAudit(AuditQuery(operation="setBytes", max=1))[0]
        self.assertEqual((row.before, row.after, row.result),
                         ("(password, not recorded)", "(password, not recorded)", "ok"))
        for level, shown in ((1, False), (3, False), (4, True)):
            with self.subTest(level=level):
                reader = self.egwd.connect_at(level)
                # The memory's writer stores the event a moment after the sessions have it.
                for _ in range(100):
                    stored = reader.queryEvents(EventQuery(max=10))
                    if stored:
                        break
                    time.sleep(0.05)
                self.assertEqual(len(stored), 1)
                self.assertEqual(stored[0].uuid, root)
                self.assertEqual(bool(stored[0].data), shown)


class GapTest(RecordsTestCase):

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="egwd-gap-")
        self.addCleanup(shutil.rmtree, self.folder, True)

    def test_events_beyond_the_queue_are_a_gap_in_queries_and_the_history(self):
        # A queue of one event: while eight sessions' audit rows go first, the events that find
        # the queue full are counted into a gap.
        database = os.path.join(self.folder, "egwd.db")
        egwd = self.start("--event-queue", "1", "--database", database)
        probe = egwd.connect_at(3)
        elements = []
        for uuid in egwdProcess.collect_all(probe, 0, 0):
            try:
                probe.getState(uuid, FIRE_ALARM_GROUP)
                elements.append(uuid)
            except PanelError:
                pass
        changes = [0] * 8
        gap_seen = threading.Event()
        until = time.monotonic() + 10

        def change(writer):
            client = egwd.connect_at(3)
            while not gap_seen.is_set() and time.monotonic() < until:
                client.setState(elements[writer], FIRE_ALARM_GROUP,
                                NORMAL if changes[writer] % 2 else FIRE_ALARM)
                changes[writer] += 1
        writers = [threading.Thread(target=change, args=(w,)) for w in range(8)]
        for writer in writers:
            writer.start()
        while not gap_seen.is_set() and time.monotonic() < until:
            time.sleep(0.1)
            if any(e.lost for e in probe.queryEvents(EventQuery(max=100))):
                gap_seen.set()
        for writer in writers:
            writer.join()
        time.sleep(1)  # the writer stores what is queued
        gaps = [e for e in probe.queryEvents(EventQuery(max=1000)) if e.lost]
        self.assertTrue(gaps, "no gap in %d changes" % sum(changes))
        self.assertEqual({(e.eventId, e.uuid) for e in gaps}, {(0, 0)})
        status, text = egwd.stop()
        self.assertEqual(status, 0, text)
        # Every change is an event stored or counted in a gap.
        with sqlite3.connect(database) as db:
            stored, lost = db.execute("SELECT count(*) FILTER (WHERE lost = 0), sum(lost) "
                                      "FROM events").fetchone()
        self.assertEqual(stored + lost, sum(changes))

        def egw(*arguments):
            command = [*egwdProcess.settings.emulator, EGW, *arguments]
            return subprocess.run(command + ["--database", database, "--limit", "1000"],
                                  capture_output=True, text=True, timeout=60, check=True).stdout
        shown = egw("history")
        for gap in gaps:
            self.assertIn("#%d  " % gap.sequence, shown)
            self.assertIn("gap: %d events lost before they could be stored" % gap.lost, shown)
        rows = json.loads(egw("--json", "history"))["rows"]
        self.assertEqual([(r["id"], r["lost"]) for r in rows if "lost" in r][:len(gaps)],
                         [(e.sequence, e.lost) for e in gaps])


if __name__ == "__main__":
    if "--egw" in sys.argv:
        at = sys.argv.index("--egw")
        EGW = sys.argv[at + 1]
        del sys.argv[at:at + 2]
    egwdProcess.main()
