"""egwd as a subprocess for the Python tests of the panel service.

Each test starts its own egwd on a free loopback port (--port 0), reads the port from the first
line egwd prints, talks to it with Debian's python3-thrift client over the framed transport, and
stops it with SIGTERM. A stop counts only when egwd exits with status 0 and its standard error
holds no precondition report of the library.

Run a test file as:
    /usr/bin/python3 <test>.py --egwd <egwd> [--example <egwClientExample.py>]
                               [--emulator=<word>]... [unittest options]
with PYTHONPATH naming the generated gen-py folder (the egw_rpc module).
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from thrift.protocol import TBinaryProtocol, TCompactProtocol
from thrift.transport import TSocket, TTransport

from egw_rpc import PanelService
from egw_rpc.ttypes import ErrorCode, PanelError, SnapshotRequest  # noqa: F401 (test files)

# The sample type library's default passwords of the access levels.
PASSWORDS = {2: "2222", 3: "3333", 4: "4444"}

START_SECONDS = 30
STOP_SECONDS = 30
SOCKET_TIMEOUT_MS = 20000

# What the command line gave: the egwd program and, for the example's test, the example script.
settings = argparse.Namespace(egwd=None, example=None, emulator=[])


class Egwd:
    """One egwd process and the client connections opened to it."""

    def __init__(self, *arguments, preexec_fn=None):
        self.compact = "compact" in arguments
        self._folder = tempfile.TemporaryDirectory(prefix="egwd-test-")
        # The service's database goes to the test's own folder unless the test names one.
        if "--database" not in arguments:
            self.database = os.path.join(self._folder.name, "egwd.db")
            arguments = (*arguments, "--database", self.database)
        else:
            self.database = arguments[arguments.index("--database") + 1]
        self._stdout_path = os.path.join(self._folder.name, "stdout")
        self._stderr_path = os.path.join(self._folder.name, "stderr")
        # Files, not pipes: egwd must never block on a full pipe that nobody reads.
        with open(self._stdout_path, "wb") as out, open(self._stderr_path, "wb") as err:
            self.process = subprocess.Popen(
                [*settings.emulator, settings.egwd, "--address", "127.0.0.1", "--port", "0",
                 *arguments],
                stdout=out, stderr=err, stdin=subprocess.DEVNULL, preexec_fn=preexec_fn)
        self._transports = []
        self.port = self._wait_for_port()

    def _wait_for_port(self):
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            with open(self._stdout_path, encoding="utf-8", errors="replace") as out:
                first = out.readline()
            if first.endswith("\n"):
                found = re.search(r" on 127\.0\.0\.1:(\d+) \(", first)
                if found is None:
                    self._kill()
                    raise RuntimeError("egwd printed an unexpected first line: %r" % first)
                return int(found.group(1))
            if self.process.poll() is not None:
                raise RuntimeError("egwd ended with status %d before serving:\n%s"
                                   % (self.process.returncode, self.stderr()))
            time.sleep(0.02)
        self._kill()
        raise RuntimeError("egwd did not say within %d s where it serves" % START_SECONDS)

    def _kill(self):
        self.process.kill()
        self.process.wait()

    def stderr(self):
        with open(self._stderr_path, encoding="utf-8", errors="replace") as err:
            return err.read()

    def connect(self, compact=None):
        """A new session: a client over the framed transport with egwd's protocol."""
        compact = self.compact if compact is None else compact
        socket = TSocket.TSocket("127.0.0.1", self.port)
        socket.setTimeout(SOCKET_TIMEOUT_MS)
        transport = TTransport.TFramedTransport(socket)
        if compact:
            protocol = TCompactProtocol.TCompactProtocol(transport)
        else:
            protocol = TBinaryProtocol.TBinaryProtocol(transport)
        transport.open()
        self._transports.append(transport)
        return PanelService.Client(protocol)

    def connect_at(self, level):
        """A new session raised to the level with the sample's default password."""
        client = self.connect()
        if level > 1:
            client.login(level, PASSWORDS[level])
        return client

    def _close_clients(self):
        for transport in self._transports:
            transport.close()
        self._transports = []

    def stop(self, close_clients=True):
        """Stops egwd with SIGTERM; returns its exit status and its standard error."""
        if close_clients:
            self._close_clients()
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(timeout=STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self._kill()
            self._close_clients()
            return None, self.stderr() + "\n(egwd did not stop within %d s of SIGTERM)" % (
                STOP_SECONDS)
        self._close_clients()
        status, text = self.process.returncode, self.stderr()
        self._folder.cleanup()
        return status, text


def collect_all(client, root, type_id):
    """Every element of the type below the root, one page of collectSubtree after another."""
    found, after = [], 0
    while True:
        page = client.collectSubtree(root, type_id, after, 0)
        found += page.uuids
        after = page.nextAfter
        if after == 0:
            return found


def snapshot_all(client, root, property_ids, with_states):
    """The whole sub-tree's snapshot, one page after another."""
    request = SnapshotRequest(root=root, propertyIds=property_ids, withStates=with_states,
                              depth=0, after=0, max=0)
    elements = []
    while True:
        page = client.snapshot(request)
        elements += page.elements
        request.after = page.nextAfter
        if request.after == 0:
            return elements


def element_keys(client):
    """The panel file's keys by uuid, one page after another."""
    keys, after = {}, 0
    while True:
        page = client.getElementKeys(after, 0)
        keys.update(page.keys)
        after = page.nextAfter
        if after == 0:
            return keys


def precondition_reports(stderr_text):
    """The lines of egwd's standard error that report a broken precondition or invariant."""
    return [line for line in stderr_text.splitlines()
            if "precondition" in line or "Assertion" in line]


class EgwdTestCase(unittest.TestCase):
    """A test with its own egwd, stopped after the test and checked to have ended cleanly."""

    egwd_arguments = ()

    def setUp(self):
        self.egwd = Egwd(*self.egwd_arguments)
        # A cleanup, not tearDown: it also runs when the rest of a setUp fails.
        self.addCleanup(self._stop_egwd)

    def _stop_egwd(self):
        if self.egwd is not None:
            egwd, self.egwd = self.egwd, None
            self.check_clean_stop(egwd)

    def check_clean_stop(self, egwd, close_clients=True):
        status, text = egwd.stop(close_clients)
        self.assertEqual(status, 0, "egwd did not end cleanly on SIGTERM:\n" + text)
        self.assertEqual(precondition_reports(text), [],
                         "a remote request reached a library precondition report")

    def assertPanelError(self, code, call, *arguments):
        """Calls the operation and returns the PanelError it must raise with the code."""
        with self.assertRaises(PanelError) as raised:
            call(*arguments)
        error = raised.exception
        self.assertEqual(error.code, code, "%s: %s" % (ErrorCode._VALUES_TO_NAMES.get(
            error.code, error.code), error.message))
        self.assertTrue(error.message, "a refusal without a message")
        return error


def main():
    """Runs the calling test file's tests; --egwd (and --example) are taken off first."""
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--egwd", required=True)
    parser.add_argument("--example")
    parser.add_argument("--emulator", action="append", default=[],
                        help="a word of the command that runs egwd (a cross build's emulator)")
    known, rest = parser.parse_known_args()
    settings.egwd = known.egwd
    settings.example = known.example
    settings.emulator = known.emulator
    unittest.main(module="__main__", argv=[sys.argv[0], *rest])
