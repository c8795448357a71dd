"""Wrong level-4 passwords from rotating loopback addresses against an egwd of its own: how many
egwd checks and how many it refuses unchecked, then whether the right passwords still open.

    PYTHONPATH=<build>/service/gen-py /usr/bin/python3 bench/loginGuesses.py \
        --egwd <build>/service/egwd [--seconds 60]
"""

import argparse
import collections
import os
import re
import socket
import subprocess
import tempfile
import time

from thrift.protocol import TBinaryProtocol
from thrift.transport import TSocket, TTransport

from egw_rpc import PanelService
from egw_rpc.ttypes import ErrorCode, PanelError


def client_from(x, port):
    """A session whose connection comes from 127.0.0.x."""
    peer = socket.socket()
    peer.bind(("127.0.0.%d" % x, 0))
    peer.connect(("127.0.0.1", port))
    handle = TSocket.TSocket()
    handle.handle = peer
    transport = TTransport.TFramedTransport(handle)
    return PanelService.Client(TBinaryProtocol.TBinaryProtocol(transport)), transport


def answer(client, level, password):
    try:
        client.login(level, password)
        return "granted"
    except PanelError as error:
        return ErrorCode._VALUES_TO_NAMES[error.code] + ": " + error.message


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--egwd", required=True)
    parser.add_argument("--seconds", type=float, default=60)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        with open(os.path.join(folder, "stdout"), "w+") as out:
            egwd = subprocess.Popen([options.egwd, "--port", "0", "--database",
                                     os.path.join(folder, "egwd.db")],
                                    stdout=out, stderr=subprocess.DEVNULL)
            port = None
            while port is None:
                time.sleep(0.05)
                out.seek(0)
                found = re.search(r":(\d+) \(", out.read())
                port = found and int(found.group(1))
        try:
            answers = collections.Counter()
            start = time.monotonic()
            while time.monotonic() - start < options.seconds:
                client, transport = client_from(2 + sum(answers.values()) % 250, port)
                answers[answer(client, 4, "guess").split(":")[0]] += 1
                transport.close()
            elapsed = time.monotonic() - start
            print("%.1f s, %d logins: %s" % (elapsed, sum(answers.values()), dict(answers)))
            print("checked a minute: %.1f" % (answers["BAD_PASSWORD"] * 60 / elapsed))
            client, transport = client_from(1, port)
            print("right level-4 password:", answer(client, 4, "4444"))
            print("right level-2 password:", answer(client, 2, "2222"))
            transport.close()
        finally:
            egwd.terminate()
            egwd.wait()


if __name__ == "__main__":
    main()
