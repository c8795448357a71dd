#!/usr/bin/python3
"""Writes the seed corpus of fuzz_serviceProcessor (fuzz/corpus/serviceProcessor/).

Each seed is a sequence of calls as the generated Python client writes them (binary protocol, no
framing), on the elements of the sample panel. The uuids are asked of an egwd of the same build,
which loads the sample panel as the harness does when its process starts.

    /usr/bin/python3 fuzz/serviceProcessorSeeds.py <build folder with egwd>
"""
import os
import subprocess
import sys

build = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(build, "service", "gen-py"))

from egw_rpc import PanelService  # noqa: E402
from egw_rpc.ttypes import (AddressRecord, DateTime, PropertyRef, StateCategory,  # noqa: E402
                            StateChange, Subscription, SubscriptionKind)
from thrift.protocol import TBinaryProtocol  # noqa: E402
from thrift.transport import TSocket, TTransport  # noqa: E402

CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "serviceProcessor")


def panel_uuids():
    """The sample panel's uuids by element key, as a freshly started egwd serves them."""
    egwd = subprocess.Popen([os.path.join(build, "service", "egwd"), "--port", "0"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        line = egwd.stdout.readline()  # egwd: serving "<panel>" on 127.0.0.1:<port> (...)
        port = int(line.rsplit(":", 1)[1].split()[0])
        transport = TTransport.TFramedTransport(TSocket.TSocket("127.0.0.1", port))
        client = PanelService.Client(TBinaryProtocol.TBinaryProtocol(transport))
        transport.open()
        keys = client.getElementKeys()
        transport.close()
        return {key: uuid for uuid, key in keys.items()}
    finally:
        egwd.terminate()
        egwd.wait(timeout=10)


def calls_to_bytes(calls):
    memory = TTransport.TMemoryBuffer()
    client = PanelService.Client(TBinaryProtocol.TBinaryProtocol(memory))
    for name, *args in calls:
        getattr(client, "send_" + name)(*args)
    return memory.getvalue()


def seeds(u):
    panel, det, loop = u["panel"], u["det-1-001"], u["loop-1"]
    zone, sounder_base = u["zone-ground"], u["base-sounder-1-001"]
    follow = Subscription(kind=SubscriptionKind.BY_ELEMENT, target=det, eventId=0x03010001)
    return {
        "01-session": [("getServiceInfo",), ("echo", 42), ("getAccessLevels",), ("getSession",),
                       ("login", 2, "2222"), ("logout",)],
        "02-navigation": [("getRoot",), ("getChildren", panel), ("getParent", det),
                          ("getElementType", det), ("findElementByType", 0, 0x70048, False),
                          ("findElementByProperty", 0, 0x30002, b"Reception, ceiling", False),
                          ("collectSubtree", 0, 0x70048), ("getUniqueElement", 0x170),
                          ("getSubtreeRoots",)],
        "03-identity": [("getIdString", det), ("getAddressRecord", det), ("getAddressTexts", det),
                        ("formatAddressList", [AddressRecord(1, 6), AddressRecord(3, 6)]),
                        ("getEventDetail", det)],
        "04-read-properties": [("readProperty", det, 0x30002), ("getBool", panel, 0x30006),
                               ("getInteger", det, 0x30031), ("getDateTime", det, 0x30038),
                               ("getBytes", det, 0x30002),
                               ("readProperties", [PropertyRef(det, 0x30004),
                                                   PropertyRef(loop, 0x30035)])],
        "05-write-properties": [("login", 3, "3333"), ("setBool", panel, 0x30006, False),
                                ("setInteger", det, 0x30031, 55),
                                ("setDateTime", det, 0x30038, DateTime(2025, 6, 1, 0, 3600, 0)),
                                ("setBytes", det, 0x30002, b"Lobby")],
        "06-type-library": [("getTypeInfo", 0x70048), ("getPropertyDefaults", 0x70048),
                            ("getDefaultInteger", 0x70048, 0x30031),
                            ("getPropertyStorageType", 0x30004), ("getStateValues", 0x80001),
                            ("getDefaultStateOfGroup", 0x80001), ("getDefaultStates", 0x70048),
                            ("getDescendantTypes", 0x70046)],
        "07-states-commands": [("login", 2, "2222"), ("getState", det, 0x80001),
                               ("getStates", det), ("setState", det, 0x80001, 0x60002),
                               ("executeCommand", det, 0x14286, 0, b""),
                               ("broadcastCommand", zone, 0x14286, 0, 0x20001, False, True),
                               ("login", 3, "3333"), ("resetToDefaultStates", det)],
        "08-relations": [("getRelations", det, 0x20001, True),
                         ("getVisibleRelations", zone, 0x20001, False), ("login", 3, "3333"),
                         ("deleteRelation", det, zone, 0x20001), ("addRelation", det, zone, 0x20001)],
        "09-events": [("subscribe", follow),
                      ("subscribe", Subscription(kind=SubscriptionKind.ALL_STATE_CHANGES,
                                                 target=0x70048)),
                      ("subscribe", Subscription(kind=SubscriptionKind.STATE_CHANGES_BY_VALUE,
                                                 target=0x70069, values=[0x6000a])),
                      ("subscribe", Subscription(kind=SubscriptionKind.STATE_CHANGES_BY_CATEGORY,
                                                 target=0x70048,
                                                 categories=[StateCategory(2, 1)])),
                      ("subscribe", Subscription(kind=SubscriptionKind.ALL_COMMANDS, target=0x70046)),
                      ("subscribe", Subscription(kind=SubscriptionKind.ALL_PROPERTY_CHANGES,
                                                 target=0x70048)),
                      ("subscribe", Subscription(kind=SubscriptionKind.DELETED_BY_TYPE,
                                                 target=0x70048, secondNotification=True)),
                      ("nextEvents", 10, 0), ("unsubscribe", follow), ("getElementKeys",)],
        "10-snapshot": [("snapshot", 0, [0x30002, 0x30004], True), ("snapshot", loop, [], False)],
        "11-refusals": [("getParent", 999999), ("readProperty", det, 0x70048),
                        ("setInteger", det, 0x30031, 7), ("login", 4, "wrong"),
                        ("nextEvents", 0, 0), ("formatAddressList", []),
                        ("getUniqueElement", -1)],
        "12-add-element": [("login", 3, "3333"), ("addElement", loop, 0x70048, False),
                           ("validateElement", det), ("assignGuid", det)],
        # The harness keeps the panel's own elements: these deletions are refused by it, the
        # others by the service's checks.
        "13-delete-elements": [("login", 3, "3333"),
                               ("deleteElementWaited", sounder_base,
                                [StateChange(det, 0x80001, 0x60001, 0)], 1),
                               ("deleteElement", det), ("deleteElementWaited", det, [], 3),
                               ("deleteElementWaited", 999999, [], 0), ("deleteElement", 0)],
    }


def main():
    os.makedirs(CORPUS, exist_ok=True)
    for name, calls in seeds(panel_uuids()).items():
        with open(os.path.join(CORPUS, name), "wb") as seed:
            seed.write(calls_to_bytes(calls))
        print(name, len(calls), "calls")


main()
