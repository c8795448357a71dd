#!/usr/bin/python3
"""A short walk through the panel service egwd with its Python client (the egw_rpc module).

It connects, shows the service and the top of the element tree, logs in at access level 2,
follows the state changes of a detector's type, raises a state on the detector (by default the
fire alarm), prints the event that reports it and puts the state back.

    egwClientExample.py 127.0.0.1:9090 2222
    egwClientExample.py --compact --detector 7 --group 0x80001 --value 0x60002 127.0.0.1:9090 2222
    egwClientExample.py --tls-ca ca.pem --tls-cert client.pem --tls-key client.key panel:9090 2222

With --tls-ca the connection is TLS: the service's certificate must be signed by that CA and name
the host as given; --tls-cert and --tls-key show a client certificate to a service that requires one
(egwd --tls-ca).

Without --detector, --group and --value they are found at run time: the first element of --type
(default 0x70048, the optical smoke detector of the sample type library), the first state group of
its type, and the last value of that group other than the detector's present one (in the sample
type library: FireAlarmState and FireAlarm).

Exit status: 0 done, 1 the service refused a request (PanelError, its code and message are
printed), 2 bad usage, 3 no connection, or no event arrived in time.
"""

import argparse
import ssl
import sys
import time

from thrift.protocol import TBinaryProtocol, TCompactProtocol
from thrift.transport import TSocket, TSSLSocket, TTransport
from thrift.transport.TTransport import TTransportException

from egw_rpc import PanelService
from egw_rpc.ttypes import ErrorCode, PanelError, Subscription, SubscriptionKind

OPTICAL_SMOKE_DETECTOR = 0x70048


class Failed(Exception):
    """Something other than a refusal of the service went wrong."""


def number(text):
    """A uuid or id, decimal or 0x hexadecimal."""
    return int(text, 0)


def address(text):
    host, _, port = text.rpartition(":")
    if not host or not port.isdigit() or not 0 < int(port) < 65536:
        raise argparse.ArgumentTypeError("%r is not HOST:PORT" % text)
    return host.strip("[]"), int(port)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("service", type=address, help="where egwd serves, HOST:PORT")
    parser.add_argument("password", help="the password of access level 2")
    parser.add_argument("--compact", action="store_true",
                        help="the compact protocol (egwd --protocol compact)")
    parser.add_argument("--type", type=number, default=OPTICAL_SMOKE_DETECTOR,
                        help="the detector's type when no --detector is given (default 0x70048)")
    parser.add_argument("--detector", type=number, help="the detector's uuid")
    parser.add_argument("--group", type=number, help="the state group to change")
    parser.add_argument("--value", type=number, help="the state value to raise")
    parser.add_argument("--timeout", type=float, default=10.0,
                        help="seconds to wait for the event (default 10)")
    parser.add_argument("--tls-ca", help="TLS: the CA file (PEM) that signed egwd's certificate")
    parser.add_argument("--tls-cert", help="TLS: the client certificate (PEM)")
    parser.add_argument("--tls-key", help="TLS: the private key of --tls-cert (PEM)")
    arguments = parser.parse_args()
    if (arguments.tls_cert is None) != (arguments.tls_key is None):
        parser.error("--tls-cert and --tls-key go together")
    if arguments.tls_cert is not None and arguments.tls_ca is None:
        parser.error("--tls-cert needs --tls-ca")
    return arguments


def connect(host, port, compact, tls_ca=None, tls_cert=None, tls_key=None):
    if tls_ca is None:
        socket = TSocket.TSocket(host, port)
    else:
        # The service's certificate is checked against the CA, and its names against the host,
        # by the context during the handshake.
        context = ssl.create_default_context(cafile=tls_ca)
        if tls_cert is not None:
            context.load_cert_chain(tls_cert, tls_key)
        socket = TSSLSocket.TSSLSocket(host, port, ssl_context=context,
                                       validate_callback=lambda certificate, name: None)
    socket.setTimeout(30000)
    transport = TTransport.TFramedTransport(socket)
    protocol = (TCompactProtocol.TCompactProtocol if compact
                else TBinaryProtocol.TBinaryProtocol)(transport)
    transport.open()
    return transport, PanelService.Client(protocol)


def show_service(client):
    info = client.getServiceInfo()
    print("service: %s, interface %s, egwd %s on the %s, %d elements"
          % (info.panelDescription, info.interfaceVersion, info.serviceVersion, info.host,
             info.elementCount))
    root = client.getRoot()
    print("root %d (type 0x%X): ID string %s" % (root, client.getElementType(root),
                                                 client.getIdString(root)))
    for child in client.getChildren(root):
        print("  child %d (type 0x%X): ID string %s" % (child, client.getElementType(child),
                                                        client.getIdString(child)))


def first_of_type(client, type_id):
    """The first element of the type in the tree: pages of collectSubtree until one holds it."""
    after = 0
    while True:
        page = client.collectSubtree(0, type_id, after, 0)
        if page.uuids:
            return page.uuids[0]
        if page.nextAfter == 0:
            return None
        after = page.nextAfter


def choose_state(client, arguments):
    """The detector, the group and the value to raise: as given, or found in the type library."""
    if arguments.detector is not None:
        detector = arguments.detector
        detector_type = client.getElementType(detector)
    else:
        detector_type = arguments.type
        detector = first_of_type(client, detector_type)
        if detector is None:
            raise Failed("the panel has no element of type 0x%X" % detector_type)
    group = arguments.group
    if group is None:
        groups = client.getTypeInfo(detector_type).stateGroups
        if not groups:
            raise Failed("type 0x%X has no state groups" % detector_type)
        group = groups[0]
    present = client.getState(detector, group)
    value = arguments.value
    if value is None:
        others = [v for v in client.getStateValues(group) if v != present]
        if not others:
            raise Failed("state group 0x%X has no value to change to" % group)
        value = others[-1]
    return detector, detector_type, group, value, present


def show_event(event):
    print("event %d: id 0x%X, element %d, ID string %s"
          % (event.sequence, event.eventId, event.uuid, event.idString))
    change = event.stateChange
    if change is not None:
        print("  state change: group 0x%X, 0x%X -> 0x%X"
              % (change.groupId, change.previous, change.value))
    detail = event.detail
    if detail is not None:
        print("  detail: category %d, self %d at %d, parent %d at %d, device 0x%X, proxy %s"
              % (detail.category, detail.selfId, detail.selfAddress, detail.parentId,
                 detail.parentAddress, detail.deviceId,
                 "%d at %d" % (detail.proxyId, detail.proxyAddress) if detail.hasProxy
                 else "none"))


def wait_for_change(client, detector, group, timeout):
    """Long-polls the session's events until the detector's change of the group arrives."""
    deadline = time.monotonic() + timeout
    while True:
        left_ms = int((deadline - time.monotonic()) * 1000)
        if left_ms <= 0:
            raise Failed("no state change of element %d arrived within %g s" % (detector, timeout))
        for event in client.nextEvents(10, min(left_ms, 5000)):
            if event.lost:
                print("(%d events lost)" % event.lost)
            elif (event.uuid == detector and event.stateChange is not None
                  and event.stateChange.groupId == group):
                return event


def run(client, arguments):
    show_service(client)
    session = client.login(2, arguments.password)
    print("logged in: session %d at access level %d" % (session.sessionId, session.accessLevel))
    detector, detector_type, group, value, present = choose_state(client, arguments)
    client.subscribe(Subscription(kind=SubscriptionKind.ALL_STATE_CHANGES, target=detector_type))
    print("raising group 0x%X of element %d (%s) from 0x%X to 0x%X"
          % (group, detector, client.getIdString(detector), present, value))
    client.setState(detector, group, value)
    try:
        show_event(wait_for_change(client, detector, group, arguments.timeout))
    finally:
        # The panel is put back as it was, whatever happened while waiting.
        client.setState(detector, group, present)
        print("reset group 0x%X of element %d to 0x%X" % (group, detector, present))
    client.logout()


def main():
    arguments = parse_arguments()
    host, port = arguments.service
    try:
        transport, client = connect(host, port, arguments.compact, arguments.tls_ca,
                                    arguments.tls_cert, arguments.tls_key)
    except (TTransportException, OSError) as error:
        reason = getattr(error, "inner", None) or error
        print("egwClientExample: cannot connect to %s:%d: %s" % (host, port, reason),
              file=sys.stderr)
        return 3
    try:
        run(client, arguments)
    except PanelError as error:
        print("egwClientExample: refused: %s (%d): %s"
              % (ErrorCode._VALUES_TO_NAMES.get(error.code, "?"), error.code, error.message),
              file=sys.stderr)
        return 1
    except (Failed, TTransportException) as error:
        # A refused TLS handshake shows as the transport's inner error (such as an unknown CA).
        print("egwClientExample: %s" % (getattr(error, "inner", None) or error), file=sys.stderr)
        return 3
    finally:
        transport.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
