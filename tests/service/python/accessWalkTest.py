"""The access levels of egwd as a remote client meets them.

Every operation of the interface is called at every access level with harmless arguments made from
the generated argument descriptions: the operation is refused as ACCESS_DENIED, naming the table's
level, exactly when the session is below that level. The access-level passwords of the panel
element are shown to level 4 only.
"""

import inspect
import json
import os
import re
import tempfile
import time

from thrift.Thrift import TType

import egwdProcess
from egw_rpc.ttypes import AuditQuery, EventQuery, PropertyRef, Subscription, SubscriptionKind
from egwdProcess import PASSWORDS, EgwdTestCase, ErrorCode, PanelError, PanelService

# The access-level passwords of the panel element type (0x70007): levels 2, 3, 3 (service), 4.
PANEL_TYPE = 0x70007
PASSWORD_PROPERTIES = (0x30010, 0x30011, 0x3000C, 0x301F0)
LEVEL_OF_PASSWORD = {0x30010: 2, 0x30011: 3, 0x301F0: 4}


def operations():
    """The operations of the interface, as the generated client's interface class names them."""
    return sorted(name for name, _ in inspect.getmembers(PanelService.Iface, inspect.isfunction)
                  if not name.startswith("_"))


def dummy(ttype, type_arguments):
    """A harmless value of a Thrift type: 0, false, empty, or a struct of such values."""
    if ttype in (TType.BYTE, TType.I16, TType.I32, TType.I64):
        return 0
    if ttype == TType.DOUBLE:
        return 0.0
    if ttype == TType.BOOL:
        return False
    if ttype == TType.STRING:
        return b"" if type_arguments == "BINARY" else ""
    if ttype == TType.STRUCT:
        struct = type_arguments[0]
        return struct(**{field[2]: dummy(field[1], field[3])
                         for field in struct.thrift_spec if field is not None})
    if ttype == TType.LIST:
        return []
    if ttype == TType.SET:
        return set()
    if ttype == TType.MAP:
        return {}
    raise AssertionError("no harmless value for Thrift type %d" % ttype)


def dummy_arguments(operation):
    """The operation's arguments, in the order of its parameters, each a harmless value."""
    fields = getattr(PanelService, operation + "_args").thrift_spec
    values = {field[2]: dummy(field[1], field[3]) for field in fields if field is not None}
    parameters = list(inspect.signature(getattr(PanelService.Iface, operation)).parameters)[1:]
    assert sorted(parameters) == sorted(values), operation
    return [values[name] for name in parameters]


class AccessWalkTest(EgwdTestCase):

    # A level-1 session's refusals of one operation after the first are counted into one row a
    # period: a short one, so that the walk's counts are written within the test.
    egwd_arguments = ("--refusal-period", "1")

    def test_table_lists_every_operation_and_nothing_else(self):
        table = self.egwd.connect().getAccessLevels()
        self.assertEqual(sorted(table), operations())
        for operation, level in table.items():
            self.assertIn(level, (1, 2, 3, 4), operation)

    def walk(self, client, level, table):
        """Calls every operation once; logout last, since it drops the session's level."""
        for operation in sorted(table, key=lambda name: name == "logout"):
            required = table[operation]
            with self.subTest(level=level, operation=operation, required=required):
                try:
                    getattr(client, operation)(*dummy_arguments(operation))
                    error = None
                except PanelError as refused:
                    error = refused
                if level < required:
                    self.assertIsNotNone(error, "ran below its access level")
                    self.assertEqual(error.code, ErrorCode.ACCESS_DENIED, error.message)
                    self.assertEqual(error.requiredLevel, required, error.message)
                    self.assertIn(operation, error.message)
                elif error is not None:
                    self.assertNotEqual(error.code, ErrorCode.ACCESS_DENIED, error.message)
                if operation == "login":
                    self.assertIsNotNone(error, "login with level 0 and no password")
                    self.assertEqual(error.code, ErrorCode.BAD_ARGUMENT, error.message)
                if operation != "logout":
                    self.assertEqual(client.getSession().accessLevel, level,
                                     "the session's level changed")

    def test_every_operation_at_every_level(self):
        table = self.egwd.connect().getAccessLevels()
        for level in (1, 2, 3, 4):
            client = self.egwd.connect_at(level)
            self.assertEqual(client.getSession().accessLevel, level)
            self.walk(client, level, table)
            # The walk ended with logout: the session is back at level 1, and stays usable.
            self.assertEqual(client.getSession().accessLevel, 1)
            self.assertPanelError(ErrorCode.ACCESS_DENIED, client.setState, 0, 0, 0)
        self.assertEqual(self.egwd.connect().getSession().accessLevel, 1)
        # Every refusal of the walk is in the audit trail: an operation of level N was refused at
        # the levels below it, and setState once more after each walk (a level-1 session's
        # refusals counted in a row that says how many, once the period is over).
        admin = self.egwd.connect_at(4)
        expected = {operation: level - 1 for operation, level in table.items() if level > 1}
        expected["setState"] += 4
        for _ in range(50):
            denied = {}
            for row in admin.queryAudit(AuditQuery(max=1000)):
                if row.result.startswith("denied"):
                    self.assertTrue(row.result.startswith(
                        "denied: level %d needed" % table[row.operation]), row.result)
                    counted = re.search(r"; refused (\d+) times between", row.result)
                    denied[row.operation] = denied.get(row.operation, 0) + (
                        int(counted.group(1)) if counted else 1)
            if denied == expected:
                break
            time.sleep(0.1)
        self.assertEqual(denied, expected)

    def test_records_are_queried_within_their_bounds(self):
        admin = self.egwd.connect_at(4)
        for query, call in ((AuditQuery, admin.queryAudit), (EventQuery, admin.queryEvents)):
            for bad in (0, 1001):
                with self.subTest(query=query.__name__, max=bad):
                    self.assertPanelError(ErrorCode.BAD_ARGUMENT, call, query(max=bad))
            self.assertIsInstance(call(query(max=1000)), list)

    def test_login_and_logout(self):
        client = self.egwd.connect()
        for level in (2, 3, 4):
            self.assertEqual(client.login(level, PASSWORDS[level]).accessLevel, level)
            self.assertEqual(client.getSession().accessLevel, level)
        # A login may also lower the level; logout returns to level 1.
        self.assertEqual(client.login(2, PASSWORDS[2]).accessLevel, 2)
        self.assertEqual(client.logout().accessLevel, 1)
        self.assertEqual(client.getSession().accessLevel, 1)
        # Refused logins leave the level as it was.
        for bad_level in (-1, 0, 1, 5):
            self.assertPanelError(ErrorCode.BAD_ARGUMENT, client.login, bad_level, "2222")
        self.assertPanelError(ErrorCode.BAD_PASSWORD, client.login, 4, PASSWORDS[3])
        self.assertEqual(client.getSession().accessLevel, 1)
        # Level 3 has two passwords: the service password is the default without its byte-order
        # mark.
        self.assertEqual(client.login(3, "3131").accessLevel, 3)
        self.assertPanelError(ErrorCode.BAD_PASSWORD, client.login, 3, "\ufeff3131")
        self.assertEqual(client.getSession().accessLevel, 3)
        # Another connection is another session, at level 1 whatever the first one did.
        client.login(4, PASSWORDS[4])
        other = self.egwd.connect()
        self.assertEqual(other.getSession().accessLevel, 1)
        self.assertNotEqual(other.getSession().sessionId, client.getSession().sessionId)
        self.assertRegex(other.getSession().peer, r"^127\.0\.0\.1:\d+$")

    def test_password_defaults_shown_to_level_4_only(self):
        expected = {0x30010: b"2222", 0x30011: b"3333", 0x301F0: b"4444"}
        for level in (1, 2, 3, 4):
            client = self.egwd.connect_at(level)
            defaults = {d.definition.propertyId: d.defaultText
                        for d in client.getPropertyDefaults(PANEL_TYPE)}
            self.assertTrue(set(PASSWORD_PROPERTIES) <= set(defaults))
            for prop in PASSWORD_PROPERTIES:
                with self.subTest(level=level, property=hex(prop)):
                    if level < 4:
                        self.assertEqual(defaults[prop], b"")
                    elif prop in expected:
                        self.assertEqual(defaults[prop], expected[prop])
                    else:
                        self.assertTrue(defaults[prop].endswith(b"3131"))
            # The other defaults are shown at every level.
            self.assertEqual(defaults[0x3000A], b"Annex")

    def test_searching_or_listing_by_a_password_needs_level_4(self):
        for level in (1, 2, 3, 4):
            client = self.egwd.connect_at(level)
            calls = {
                "findElementByProperty": lambda p: client.findElementByProperty(0, p, b"2222",
                                                                                False),
                "snapshot": lambda p: egwdProcess.snapshot_all(client, 0, [p], False),
                "getDefaultInteger": lambda p: client.getDefaultInteger(PANEL_TYPE, p),
            }
            for prop in PASSWORD_PROPERTIES:
                for name, call in calls.items():
                    with self.subTest(level=level, property=hex(prop), operation=name):
                        try:
                            call(prop)
                            error = None
                        except PanelError as refused:
                            error = refused
                        if level < 4:
                            self.assertIsNotNone(error)
                            self.assertEqual(error.code, ErrorCode.ACCESS_DENIED, error.message)
                            self.assertEqual(error.requiredLevel, 4)
                        elif error is not None:
                            self.assertNotEqual(error.code, ErrorCode.ACCESS_DENIED, error.message)


class PanelElementPasswordsTest(EgwdTestCase):
    """A panel whose panel element (type 0x70007) holds its own level-2 password."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix="egwd-panel-")
        panel = {
            "version": 1,
            "name": "Annex panel",
            "root": {"key": "panel", "type": "CompactPanel",
                     "properties": {"Label": "Annex panel", "PasswordLevel2": "2468"}},
        }
        path = os.path.join(self.folder.name, "annexPanel.json")
        with open(path, "w", encoding="utf-8") as out:
            json.dump(panel, out)
        self.egwd_arguments = ("--panel", path)
        self.addCleanup(self.folder.cleanup)  # runs after egwd's stop
        super().setUp()

    def test_password_properties_need_level_4(self):
        panel = egwdProcess.collect_all(self.egwd.connect(), 0, PANEL_TYPE)
        self.assertEqual(len(panel), 1)
        panel = panel[0]
        held = {0x30010: b"2468", 0x30011: b"3333", 0x3000C: b"3131", 0x301F0: b"4444"}
        for level in (1, 2, 3, 4):
            client = self.egwd.connect()
            if level > 1:
                client.login(level, "2468" if level == 2 else PASSWORDS[level])
            for prop in PASSWORD_PROPERTIES:
                with self.subTest(level=level, property=hex(prop)):
                    batched = client.readProperties([PropertyRef(panel, prop)])[0]
                    if level < 4:
                        for read in (client.readProperty, client.getBytes):
                            error = self.assertPanelError(ErrorCode.ACCESS_DENIED, read, panel,
                                                          prop)
                            self.assertEqual(error.requiredLevel, 4)
                        self.assertIsNone(batched.value)
                        self.assertEqual((batched.error.code, batched.error.requiredLevel),
                                         (ErrorCode.ACCESS_DENIED, 4))
                        # Writing needs level 3 for the operation, 4 for the property.
                        error = self.assertPanelError(ErrorCode.ACCESS_DENIED, client.setBytes,
                                                      panel, prop, b"9999")
                        self.assertEqual(error.requiredLevel, 3 if level < 3 else 4)
                    else:
                        value = client.readProperty(panel, prop)
                        self.assertEqual(value.bytes.rstrip(b"\0"), held[prop])
                        self.assertEqual(client.getBytes(panel, prop).rstrip(b"\0"), held[prop])
                        self.assertIsNone(batched.error)
                        self.assertEqual(batched.value, value)
        # Level 4 may change a password; the new one opens the level at once.
        admin = self.egwd.connect_at(4)
        admin.setBytes(panel, 0x30010, b"1357")
        client = self.egwd.connect()
        self.assertPanelError(ErrorCode.BAD_PASSWORD, client.login, 2, "2468")
        self.assertEqual(client.login(2, "1357").accessLevel, 2)

    def test_password_changes_shown_to_level_4_only(self):
        # Sessions at every level follow the panel element's property changes; a level-4 session
        # changes the level-2 password and the label.
        sessions = {}
        for level in (1, 2, 3, 4):
            client = self.egwd.connect()
            if level > 1:
                client.login(level, "2468" if level == 2 else PASSWORDS[level])
            client.subscribe(Subscription(kind=SubscriptionKind.ALL_PROPERTY_CHANGES,
                                          target=PANEL_TYPE))
            sessions[level] = client
        panel = egwdProcess.collect_all(sessions[1], 0, PANEL_TYPE)[0]
        sessions[4].setBytes(panel, 0x30010, b"1357")
        sessions[4].setBytes(panel, 0x30002, b"Annex, east wing")
        for level, client in sessions.items():
            with self.subTest(level=level):
                events = {}
                deadline = time.monotonic() + 10
                while len(events) < 2 and time.monotonic() < deadline:
                    events.update((e.eventId & 0xFFFF, e) for e in client.nextEvents(10, 1000))
                self.assertEqual(sorted(events), [0x0002, 0x0010])
                self.assertEqual(events[0x0002].data.rstrip(b"\0"), b"Annex, east wing")
                password = events[0x0010].data.rstrip(b"\0")
                self.assertEqual(password, b"1357" if level == 4 else b"")


if __name__ == "__main__":
    egwdProcess.main()
