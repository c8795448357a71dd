"""A session of a remote user of egwd on the sample panel, through Debian's python3-thrift client:
logging in, identities and addresses, typed reads and writes, refusals with their codes, batched
reads, snapshots and state-change events, over the binary and the compact protocol.
"""

import threading
import time

from thrift.Thrift import TApplicationException, TMessageType

from egw_rpc.ttypes import DateTime, PropertyRef, StateChange, Subscription, SubscriptionKind

import egwdProcess
from egwdProcess import PASSWORDS, EgwdTestCase, ErrorCode, PanelError

# Ids of the sample type library.
OPTICAL_SMOKE_DETECTOR = 0x70048
LABEL, ADDRESS, DEVICE_ID = 0x30002, 0x30004, 0x30005
BUZZER_ENABLED, SITE_NAME, LANGUAGE, COMMISSIONING_DATE = 0x30006, 0x3000A, 0x30009, 0x3000B
ALARM_THRESHOLD, LAST_SERVICE_DATE, GUID = 0x30031, 0x30038, 0x301A4
FIRE_ALARM_STATE, NORMAL, FIRE_ALARM = 0x80001, 0x60001, 0x60002
STATE_GROUP_CHANGE_EVENT = 0x03010000


class Panel:
    """The sample panel's elements by their keys in the panel file."""

    def __init__(self, client):
        self.uuid = {key: uuid for uuid, key in egwdProcess.element_keys(client).items()}


class SessionChecks:
    """Checks shared by the binary and the compact protocol."""

    def check_state_change_event(self):
        client = self.egwd.connect()
        client.login(2, PASSWORDS[2])
        detector = Panel(client).uuid["det-1-001"]
        idle = self.egwd.connect()  # a session that follows nothing
        client.subscribe(Subscription(kind=SubscriptionKind.ALL_STATE_CHANGES,
                                      target=OPTICAL_SMOKE_DETECTOR))
        self.assertEqual(client.getState(detector, FIRE_ALARM_STATE), NORMAL)
        client.setState(detector, FIRE_ALARM_STATE, FIRE_ALARM)
        self.assertEqual(client.getState(detector, FIRE_ALARM_STATE), FIRE_ALARM)
        events = client.nextEvents(10, 5000)
        self.assertEqual(len(events), 1, events)
        event = events[0]
        self.assertEqual(event.sequence, 1)
        self.assertEqual(event.lost, 0)
        self.assertEqual(event.eventId, STATE_GROUP_CHANGE_EVENT | (FIRE_ALARM_STATE & 0xFFFF))
        self.assertEqual(event.uuid, detector)
        self.assertEqual(event.idString, client.getIdString(detector))
        self.assertEqual(event.stateChange, StateChange(uuid=detector, groupId=FIRE_ALARM_STATE,
                                                        value=FIRE_ALARM, previous=NORMAL))
        self.assertEqual(event.detail, client.getEventDetail(detector))
        self.assertGreater(event.timeMs, 0)
        # The reset is the session's next event.
        client.setState(detector, FIRE_ALARM_STATE, NORMAL)
        events = client.nextEvents(10, 5000)
        self.assertEqual([(e.sequence, e.stateChange.value, e.stateChange.previous)
                          for e in events], [(2, NORMAL, FIRE_ALARM)])
        self.assertEqual(idle.nextEvents(10, 200), [])


class RemoteSessionTest(EgwdTestCase, SessionChecks):

    def setUp(self):
        super().setUp()
        self.client = self.egwd.connect()
        self.panel = Panel(self.client)

    def test_wrong_password_leaves_the_level(self):
        client = self.client
        error = self.assertPanelError(ErrorCode.BAD_PASSWORD, client.login, 2, "2223")
        self.assertIn("level 2", error.message)
        self.assertEqual(client.getSession().accessLevel, 1)
        client.login(2, PASSWORDS[2])
        for wrong in ("", "33333", "333", PASSWORDS[2]):
            self.assertPanelError(ErrorCode.BAD_PASSWORD, client.login, 3, wrong)
            self.assertEqual(client.getSession().accessLevel, 2)

    def test_id_strings_and_address_texts(self):
        expected = {
            "panel": "01",
            "det-1-001": "01.001",
            "power": "01.003",
            "battery": "01.003.02",
            "repeater-1": "01.002.00A1B2C3",
            "radio-det-1": "01.002.00B40001.01",
        }
        for key, id_string in expected.items():
            with self.subTest(element=key):
                uuid = self.panel.uuid[key]
                self.assertEqual(self.client.getIdString(uuid), id_string)
                texts = self.client.getAddressTexts(uuid)
                self.assertEqual(texts.physical, id_string)
                self.assertEqual(texts.logical, id_string)
        self.assertEqual(self.client.getRoot(), self.panel.uuid["panel"])

    def test_typed_reads(self):
        c, panel, detector = self.client, self.panel.uuid["panel"], self.panel.uuid["det-1-001"]
        buzzer = c.getBool(panel, BUZZER_ENABLED)
        self.assertIs(buzzer, True)
        for uuid, prop, value in ((detector, ADDRESS, 1), (detector, ALARM_THRESHOLD, 50),
                                  (detector, DEVICE_ID, 0x00100001), (panel, LANGUAGE, 1)):
            with self.subTest(property=hex(prop)):
                read = c.getInteger(uuid, prop)
                self.assertIs(type(read), int)
                self.assertEqual(read, value)
        label = c.getBytes(panel, LABEL)
        self.assertIs(type(label), bytes)
        self.assertEqual(label.rstrip(b"\0"), b"Main fire panel, ground floor lobby")
        self.assertEqual(c.getDateTime(panel, COMMISSIONING_DATE),
                         DateTime(year=2023, month=9, day=14, weekDay=4, secondOfDay=36000,
                                  microsecond=0))
        # readProperty tells the storage type and fills the one matching member.
        value = c.readProperty(detector, LAST_SERVICE_DATE)
        self.assertEqual((value.storageType, value.present), (2, True))
        self.assertEqual((value.dateTime.year, value.dateTime.month, value.dateTime.day),
                         (2024, 3, 5))
        self.assertEqual((value.truth, value.integer, value.bytes), (None, None, None))
        value = c.readProperty(panel, BUZZER_ENABLED)
        self.assertEqual((value.storageType, value.truth, value.integer), (1, True, None))
        # Refusals of typed reads are the request checks' table (requestChecksTest.cpp).

    def test_write_at_level_3_and_read_back(self):
        detector = self.panel.uuid["det-1-001"]
        operator = self.egwd.connect_at(2)
        error = self.assertPanelError(ErrorCode.ACCESS_DENIED, operator.setInteger, detector,
                                      ALARM_THRESHOLD, 60)
        self.assertEqual(error.requiredLevel, 3)
        engineer = self.egwd.connect_at(3)
        date = DateTime(year=2025, month=1, day=31, weekDay=5, secondOfDay=3600, microsecond=500)
        engineer.setInteger(detector, ALARM_THRESHOLD, 255)
        engineer.setBytes(detector, LABEL, b"Reception, north wall")
        engineer.setDateTime(detector, LAST_SERVICE_DATE, date)
        engineer.setBool(self.panel.uuid["panel"], BUZZER_ENABLED, False)
        # Every session sees the one tree.
        for reader in (engineer, self.client):
            self.assertEqual(reader.getInteger(detector, ALARM_THRESHOLD), 255)
            self.assertEqual(reader.getBytes(detector, LABEL).rstrip(b"\0"),
                             b"Reception, north wall")
            self.assertEqual(reader.getDateTime(detector, LAST_SERVICE_DATE), date)
            self.assertIs(reader.getBool(self.panel.uuid["panel"], BUZZER_ENABLED), False)

    def test_an_unknown_method_is_named_back_cut_short(self):
        client = self.egwd.connect()
        out, into = client._oprot, client._iprot
        out.writeMessageBegin("x" * 500000, TMessageType.CALL, 1)
        out.writeStructBegin("arguments")
        out.writeFieldStop()
        out.writeStructEnd()
        out.writeMessageEnd()
        out.trans.flush()
        name, kind, _ = into.readMessageBegin()
        error = TApplicationException()
        error.read(into)
        self.assertEqual((kind, error.type), (TMessageType.EXCEPTION,
                                              TApplicationException.UNKNOWN_METHOD))
        self.assertEqual(name, "x" * 64 + "...")
        self.assertLess(len(error.message), 200)
        self.assertEqual(client.echo(5), 5)  # the connection is kept

    def test_unknown_uuid_and_wrong_category(self):
        c, detector = self.client, self.panel.uuid["det-1-001"]
        unknown = max(egwdProcess.collect_all(c, 0, 0)) + 1000
        for call in (c.getIdString, c.getAddressTexts, c.getEventDetail, c.getStates):
            with self.subTest(operation=call.__name__):
                error = self.assertPanelError(ErrorCode.NO_SUCH_ELEMENT, call, unknown)
                self.assertIn(str(unknown), error.message)
        self.assertPanelError(ErrorCode.NO_SUCH_ELEMENT, c.readProperty, unknown, LABEL)
        self.assertPanelError(ErrorCode.BAD_ARGUMENT, c.getIdString, 1 << 32)
        # A type id where a property id belongs, and the other way round.
        error = self.assertPanelError(ErrorCode.WRONG_CATEGORY, c.readProperty, detector,
                                      OPTICAL_SMOKE_DETECTOR)
        self.assertIn("0x70048", error.message)
        self.assertPanelError(ErrorCode.WRONG_CATEGORY, c.getTypeInfo, LABEL)
        operator = self.egwd.connect_at(2)
        self.assertPanelError(ErrorCode.WRONG_CATEGORY, operator.setState, detector, FIRE_ALARM,
                              FIRE_ALARM_STATE)

    def test_batched_read_equals_single_reads(self):
        c = self.client
        properties = (LABEL, ADDRESS, DEVICE_ID, BUZZER_ENABLED, SITE_NAME, LANGUAGE,
                      COMMISSIONING_DATE, ALARM_THRESHOLD, LAST_SERVICE_DATE, GUID,
                      0x30010, OPTICAL_SMOKE_DETECTOR)
        elements = egwdProcess.collect_all(c, 0, 0)
        elements.append(max(elements) + 1)
        refs = [PropertyRef(uuid=u, propertyId=p) for u in elements for p in properties]
        self.assertGreaterEqual(len(refs), 1000)
        results = c.readProperties(refs)
        self.assertEqual(len(results), len(refs))
        values = errors = 0
        for ref, result in zip(refs, results):
            self.assertEqual((result.uuid, result.propertyId), (ref.uuid, ref.propertyId))
            try:
                single = c.readProperty(ref.uuid, ref.propertyId)
            except PanelError as error:
                self.assertIsNone(result.value)
                self.assertEqual(result.error, error)
                errors += 1
            else:
                self.assertIsNone(result.error)
                self.assertEqual(result.value, single)
                values += 1
        # Both kinds of answer were compared.
        self.assertGreater(values, 100)
        self.assertGreater(errors, 100)
        self.assertPanelError(ErrorCode.BAD_ARGUMENT, c.readProperties, [])

    def test_snapshot_of_the_whole_tree(self):
        c = self.client
        snapshot = egwdProcess.snapshot_all(c, 0, [LABEL, ALARM_THRESHOLD], True)
        self.assertEqual(len(snapshot), c.getServiceInfo().elementCount)
        self.assertEqual([s.uuid for s in snapshot], egwdProcess.collect_all(c, 0, 0))
        for element in snapshot:
            with self.subTest(uuid=element.uuid):
                self.assertEqual(element.typeId, c.getElementType(element.uuid))
                self.assertEqual(element.parent, c.getParent(element.uuid))
                self.assertEqual(element.idString, c.getIdString(element.uuid))
                self.assertEqual(element.states, c.getStates(element.uuid))
                for result in element.properties:
                    self.assertEqual(result.value, c.readProperty(element.uuid,
                                                                  result.propertyId))
        by_uuid = {s.uuid: s for s in snapshot}
        detector = by_uuid[self.panel.uuid["det-1-001"]]
        self.assertEqual(sorted(r.propertyId for r in detector.properties),
                         [LABEL, ALARM_THRESHOLD])
        self.assertEqual([r.propertyId for r in by_uuid[self.panel.uuid["panel"]].properties],
                         [LABEL])

    def test_state_change_event(self):
        self.check_state_change_event()

    def test_stop_while_a_session_waits_for_events(self):
        waiting = self.egwd.connect()
        waiting.subscribe(Subscription(kind=SubscriptionKind.ALL_STATE_CHANGES,
                                       target=OPTICAL_SMOKE_DETECTOR))
        outcome = []

        def wait():
            try:
                outcome.append(waiting.nextEvents(1, 60000))
            except Exception as error:  # the connection ends with the service
                outcome.append(error)

        waiter = threading.Thread(target=wait)
        waiter.start()
        time.sleep(0.3)
        started = time.monotonic()
        egwd, self.egwd = self.egwd, None
        self.check_clean_stop(egwd, close_clients=False)
        self.assertLess(time.monotonic() - started, 10)
        waiter.join(30)
        self.assertFalse(waiter.is_alive())
        self.assertEqual(len(outcome), 1)


class CompactProtocolTest(EgwdTestCase, SessionChecks):
    egwd_arguments = ("--protocol", "compact")

    def test_reads_writes_and_events(self):
        client = self.egwd.connect()
        info = client.getServiceInfo()
        self.assertEqual(info.interfaceVersion, "2.0")
        self.assertGreater(info.elementCount, 0)
        detector = Panel(client).uuid["det-1-001"]
        self.assertEqual(client.getIdString(detector), "01.001")
        engineer = self.egwd.connect_at(3)
        engineer.setInteger(detector, ALARM_THRESHOLD, 77)
        self.assertEqual(client.getInteger(detector, ALARM_THRESHOLD), 77)
        self.assertPanelError(ErrorCode.VALUE_OUT_OF_RANGE, engineer.setInteger, detector,
                              ALARM_THRESHOLD, 256)
        self.check_state_change_event()


if __name__ == "__main__":
    egwdProcess.main()
