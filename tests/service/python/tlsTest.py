"""egwd over TLS: certificates made with the openssl command for each run, clients that are served
(Python, egw --connect, the shipped example) and clients that are refused, and the command lines
that egwd refuses before it listens anywhere.

    /usr/bin/python3 tlsTest.py --egwd <egwd> --egw <egw> --example <egwClientExample.py>
"""

import os
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest

import egwdProcess
from egwdProcess import PASSWORDS, EgwdTestCase, ErrorCode
from thrift.protocol import TBinaryProtocol
from thrift.transport import TSocket, TSSLSocket, TTransport
from thrift.transport.TTransport import TTransportException

from egw_rpc import PanelService

RUN_SECONDS = 60
EGW = None


def openssl(folder, *arguments):
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True,
                   timeout=RUN_SECONDS)


def make_certificates(folder):
    """A CA, a server certificate for 127.0.0.1 and localhost, and client certificates: one of
    the CA, one of another CA, and an expired one of the CA."""
    key = ["-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
    for ca in ("ca", "other"):
        openssl(folder, "req", "-x509", *key, "-keyout", ca + ".key", "-out", ca + ".pem",
                "-days", "2", "-subj", "/CN=" + ca)
    with open(os.path.join(folder, "server.ext"), "w", encoding="ascii") as ext:
        ext.write("subjectAltName=IP:127.0.0.1,DNS:localhost\n")
    openssl(folder, "req", *key, "-keyout", "server.key", "-out", "server.csr",
            "-subj", "/CN=localhost")
    openssl(folder, "x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
            "-days", "2", "-extfile", "server.ext", "-out", "server.pem")
    openssl(folder, "req", *key, "-keyout", "client.key", "-out", "client.csr",
            "-subj", "/CN=operator")
    for name, ca, days in (("client", "ca", "2"), ("stranger", "other", "2"),
                           ("expired", "ca", "-1")):
        # -days -1: valid until a day before it was made.
        openssl(folder, "x509", "-req", "-in", "client.csr", "-CA", ca + ".pem",
                "-CAkey", ca + ".key", "-days", days, "-out", name + ".pem")


class Certificates:
    folder = None

    @classmethod
    def setUpClass(cls):
        cls._temp = tempfile.TemporaryDirectory(prefix="egwd-tls-")
        cls.folder = cls._temp.name
        make_certificates(cls.folder)

    @classmethod
    def tearDownClass(cls):
        cls._temp.cleanup()

    def file(self, name):
        return os.path.join(self.folder, name)

    def tls_client(self, host="127.0.0.1", certificate="client", ca="ca"):
        """A session over TLS; the handshake happens when it opens."""
        context = ssl.create_default_context(cafile=self.file(ca + ".pem"))
        if certificate is not None:
            context.load_cert_chain(self.file(certificate + ".pem"), self.file("client.key"))
        socket = TSSLSocket.TSSLSocket(host, self.egwd.port, ssl_context=context,
                                       validate_callback=lambda certificate, name: None)
        socket.setTimeout(20000)
        transport = TTransport.TFramedTransport(socket)
        transport.open()
        self.addCleanup(transport.close)
        return PanelService.Client(TBinaryProtocol.TBinaryProtocol(transport))

    def plain_client(self):
        socket = TSocket.TSocket("127.0.0.1", self.egwd.port)
        socket.setTimeout(20000)
        transport = TTransport.TFramedTransport(socket)
        transport.open()
        self.addCleanup(transport.close)
        return PanelService.Client(TBinaryProtocol.TBinaryProtocol(transport))

    def assertRefused(self, connect):
        """The connection, or its first request, fails; a refusal never answers a request."""
        with self.assertRaises((TTransportException, ssl.SSLError, OSError)):
            connect().echo(1)

    def run_tool(self, *arguments):
        return subprocess.run([*arguments], capture_output=True, text=True, timeout=RUN_SECONDS,
                              check=False)

    def egw(self, *arguments):
        return self.run_tool(*egwdProcess.settings.emulator, EGW, *arguments)


class MutualTlsTest(Certificates, EgwdTestCase):

    def setUp(self):
        self.egwd_arguments = ("--tls-cert", self.file("server.pem"),
                               "--tls-key", self.file("server.key"),
                               "--tls-ca", self.file("ca.pem"), "--login-guesses", "1")
        super().setUp()

    def test_clients_without_a_certificate_of_the_ca_are_refused_while_others_work(self):
        served = self.tls_client()
        self.assertEqual(served.echo(5), 5)
        # A certified peer's logins spend the certified peers' own budget.
        self.assertPanelError(ErrorCode.BAD_PASSWORD, served.login, 4, "4443")
        error = self.assertPanelError(ErrorCode.LIMIT, served.login, 4, PASSWORDS[4])
        self.assertIn("all peers with a client certificate", error.message)
        refused = {
            "plain TCP": self.plain_client,
            "no client certificate": lambda: self.tls_client(certificate=None),
            "a certificate of another CA": lambda: self.tls_client(certificate="stranger"),
            "an expired certificate": lambda: self.tls_client(certificate="expired"),
        }
        for name, connect in refused.items():
            with self.subTest(name):
                self.assertRefused(connect)
                self.assertEqual(served.echo(6), 6)
        with self.subTest("by host name"):
            self.assertEqual(self.tls_client(host="localhost").echo(7), 7)
        with self.subTest("a client that does not trust the server's CA"):
            self.assertRefused(lambda: self.tls_client(ca="other"))

    def test_egw_and_the_example_connect_with_tls(self):
        where = "127.0.0.1:%d" % self.egwd.port
        tls = ["--tls-ca", self.file("ca.pem"), "--tls-cert", self.file("client.pem"),
               "--tls-key", self.file("client.key")]
        run = self.egw("--connect", where, *tls, "show", "1")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("Panel #1", run.stdout)
        run = self.run_tool(sys.executable, egwdProcess.settings.example, *tls, where, "2222")
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        self.assertIn("reset group", run.stdout)

        stranger = ["--tls-ca", self.file("ca.pem"), "--tls-cert", self.file("stranger.pem"),
                    "--tls-key", self.file("client.key")]
        run = self.egw("--connect", where, *stranger, "show", "1")
        self.assertEqual(run.returncode, 1, run.stderr)
        # With TLS 1.3 the server refuses the client's certificate after the client's side of the
        # handshake: the client reads the alert, or finds the connection gone while it checks
        # the server's names, or (a slower client: egw under an emulator) while it writes its
        # first request.
        self.assertRegex(run.stderr, r"egw: 127\.0\.0\.1:\d+: .*(unknown ca|cannot authorize|"
                                     r"SSL_write: Broken pipe|Connection reset by peer)")
        run = self.run_tool(sys.executable, egwdProcess.settings.example, *stranger, where, "2222")
        self.assertEqual(run.returncode, 3, run.stdout + run.stderr)
        # The same race in Python's ssl module: the alert, or the connection found closed.
        self.assertRegex(run.stderr.lower(), r"unknown ca|eof occurred in violation of protocol")


def client_hello():
    """A real client hello, made in memory."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    try:
        ssl.create_default_context().wrap_bio(incoming, outgoing).do_handshake()
    except ssl.SSLWantReadError:
        pass
    return outgoing.read()


class ServerTlsTest(Certificates, EgwdTestCase):
    """TLS without client certificates: any client that trusts the server's CA."""

    RECEIVE_MS = 800

    def setUp(self):
        self.egwd_arguments = ("--tls-cert", self.file("server.pem"),
                               "--tls-key", self.file("server.key"),
                               "--receive-timeout", str(self.RECEIVE_MS))
        super().setUp()

    def test_a_handshake_sent_a_byte_at_a_time_ends_at_the_receive_timeout(self):
        # A real client hello sent one byte every 50 ms: each byte comes well within the receive
        # timeout, the whole hello (hundreds of bytes) far beyond it.
        hello = client_hello()
        self.assertGreater(len(hello), 100)
        served = self.tls_client(certificate=None)
        with socket.create_connection(("127.0.0.1", self.egwd.port), timeout=5) as peer:
            start = time.monotonic()
            closed_after = None
            for byte in hello:
                try:
                    peer.sendall(bytes([byte]))
                except OSError:
                    closed_after = time.monotonic() - start
                    break
                time.sleep(0.05)
                # The server's closing shows as the end of the stream or a reset.
                peer.setblocking(False)
                try:
                    if peer.recv(1) == b"":
                        closed_after = time.monotonic() - start
                        break
                except BlockingIOError:
                    pass
                except OSError:
                    closed_after = time.monotonic() - start
                    break
                finally:
                    peer.setblocking(True)
        self.assertIsNotNone(closed_after, "the trickled handshake was never cut off")
        self.assertLess(closed_after, 3 * self.RECEIVE_MS / 1000)
        self.assertGreater(closed_after, self.RECEIVE_MS / 1000 / 2)
        self.assertEqual(served.echo(9), 9)

    def test_half_handshakes_from_one_address_leave_another_served(self):
        hello = client_hello()
        held = [socket.create_connection(("127.0.0.1", self.egwd.port), timeout=5)
                for _ in range(64)]
        for peer in held:
            try:
                peer.sendall(hello[:len(hello) // 2])
            except OSError:
                pass  # closed by egwd: its address holds its share already
        time.sleep(0.3)
        start = time.monotonic()
        context = ssl.create_default_context(cafile=self.file("ca.pem"))
        with context.wrap_socket(socket.create_connection(
                ("127.0.0.1", self.egwd.port), timeout=5, source_address=("127.0.0.2", 0)),
                server_hostname="localhost") as other:
            transport = TSocket.TSocket()
            transport.handle = other
            client = PanelService.Client(TBinaryProtocol.TBinaryProtocol(
                TTransport.TFramedTransport(transport)))
            self.assertEqual(client.echo(4), 4)
        self.assertLess(time.monotonic() - start, 1.0)
        for peer in held:
            peer.close()

    def test_tls_clients_are_served_and_plain_ones_refused(self):
        self.assertEqual(self.tls_client(certificate=None).echo(8), 8)
        self.assertRefused(self.plain_client)
        run = self.egw("--connect", "localhost:%d" % self.egwd.port,
                       "--tls-ca", self.file("ca.pem"), "show", "1")
        self.assertEqual(run.returncode, 0, run.stderr)


class RefusedCommandLinesTest(Certificates, unittest.TestCase):
    """Settings egwd does not start with, refused before it listens."""

    def egwd(self, *arguments):
        return self.run_tool(*egwdProcess.settings.emulator, egwdProcess.settings.egwd,
                             "--port", "0", "--database", os.path.join(self.folder, "refused.db"),
                             *arguments)

    def test_refusals(self):
        cert, key = self.file("server.pem"), self.file("server.key")
        cases = [
            (["--tls-cert", cert], 2, "egwd: --tls-cert needs --tls-key"),
            (["--tls-key", key], 2, "egwd: --tls-key needs --tls-cert"),
            (["--tls-ca", self.file("ca.pem")], 2, "egwd: --tls-ca needs --tls-cert and --tls-key"),
            # Never binds: the refusal comes before the listening socket is made.
            (["--address", "0.0.0.0"], 2, "egwd: refusing plain TCP on 0.0.0.0: "),
            (["--address", "::"], 2, "egwd: refusing plain TCP on ::: "),
            (["--tls-cert", self.file("missing.pem"), "--tls-key", key], 1,
             "egwd: --tls-cert %s: " % self.file("missing.pem")),
            (["--tls-cert", cert, "--tls-key", self.file("other.key")], 1,
             "egwd: --tls-key %s: " % self.file("other.key")),
            (["--tls-cert", self.file("server.ext"), "--tls-key", key], 1,
             "egwd: --tls-cert %s: " % self.file("server.ext")),
        ]
        for arguments, status, message in cases:
            with self.subTest(" ".join(arguments)):
                run = self.egwd(*arguments)
                self.assertEqual(run.returncode, status, run.stdout + run.stderr)
                self.assertTrue(run.stderr.startswith(message), run.stderr)
                self.assertNotIn("serving", run.stdout)

    def test_loopback_names_need_no_tls(self):
        for address in ("localhost", "127.0.0.2"):
            with self.subTest(address):
                process = subprocess.Popen(
                    [*egwdProcess.settings.emulator, egwdProcess.settings.egwd, "--address",
                     address, "--port", "0", "--database", os.path.join(self.folder, "lo.db")],
                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                try:
                    first = process.stdout.readline()
                finally:
                    process.terminate()
                    _, errors = process.communicate(timeout=RUN_SECONDS)
                self.assertIn(" on %s:" % address, first, errors)


def main():
    global EGW
    if "--egw" in sys.argv:
        at = sys.argv.index("--egw")
        EGW = sys.argv[at + 1]
        del sys.argv[at:at + 2]
    egwdProcess.main()


if __name__ == "__main__":
    main()
