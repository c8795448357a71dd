// The panel service: the element tree of a fire-detection control panel, offered to remote callers
// (commissioning laptops, monitoring stations, building-management links) by egwd.
//
// Numbers: every uuid, id and 32-bit value of the panel travels as an i64 holding the unsigned
// 32-bit value (0 to 4294967295); 0 names no element. Ids carry their category tag in the upper
// half: element types 0x7xxxx, properties 0x3xxxx, relation types 0x2xxxx, commands 0x1xxxx, state
// values 0x6xxxx, state groups 0x8xxxx.
//
// Sessions: each connection is one session. It starts at access level 1; login() raises it with
// a level's password, logout() and the end of the connection drop it. getAccessLevels() lists the
// level each operation needs.
//
// Failures: every refusal is a PanelError with a code and a message that names the element,
// property or argument at fault.

namespace cpp egw.rpc
namespace py egw_rpc
namespace js egw_rpc

const string INTERFACE_VERSION = "2.0"

typedef i64 Uuid
typedef i64 Id

enum ErrorCode {
  BAD_ARGUMENT = 1,       // an argument out of its range: empty list, oversized buffer, bad mode
  NO_SUCH_ELEMENT = 2,    // the uuid names no element
  WRONG_CATEGORY = 3,     // an id of the wrong category (a property id where a type id belongs)
  NOT_DEFINED = 4,        // the element's type defines no such property, group, value or command
  VALUE_OUT_OF_RANGE = 5, // the value does not fit the property's storage width
  ACCESS_DENIED = 6,      // the session's access level is too low (requiredLevel says which)
  BAD_PASSWORD = 7,       // login refused
  REFUSED = 8,            // the element server refused or failed the operation
  LIMIT = 9               // a bound of the service was reached (sessions, subscriptions, size)
}

exception PanelError {
  1: ErrorCode code,
  2: string message,
  3: i32 requiredLevel   // with ACCESS_DENIED: the level the operation needs
}

struct ServiceInfo {
  1: string interfaceVersion,
  2: string serviceVersion,
  3: string panelDescription,  // the panel's name, or what the service was told to call it
  4: i64 elementCount,
  5: i32 moduleId,             // the service's module id in the panel's event system
  6: string host               // "simulator" or "panel"
}

struct SessionInfo {
  1: i64 sessionId,
  2: i32 accessLevel,
  3: string peer
}

struct SubtreeRoots {
  1: Uuid hardware,
  2: Uuid p2,
  3: Uuid detection,
  4: Uuid control
}

struct AddressRecord {
  1: i64 data,
  2: i64 dataType   // the storage type number of the property the value came from
}

struct AddressTexts {
  1: string physical,
  2: string logical
}

struct DateTime {
  1: i32 year,         // 0 to 65535
  2: i32 month,        // 0 to 255 (1 to 12 on the panel)
  3: i32 day,          // 0 to 255
  4: i32 weekDay,      // 0 to 255
  5: i64 secondOfDay,  // 0 to 4294967295
  6: i64 microsecond   // 0 to 4294967295
}

// One property value, by its storage type: truth for type 1, integer for the integer and
// enumeration types, dateTime for the date-time type (2), bytes for every other type. present is
// false when the element holds no value for the property.
struct PropertyValue {
  1: i64 storageType,
  2: bool present,
  3: optional bool truth,
  4: optional i64 integer,
  5: optional DateTime dateTime,
  6: optional binary bytes
}

struct PropertyRef {
  1: Uuid uuid,
  2: Id propertyId
}

// One answer of a batched read: the value, or why there is none.
struct PropertyResult {
  1: Uuid uuid,
  2: Id propertyId,
  3: optional PropertyValue value,
  4: optional PanelError error
}

struct PropertyDefinition {
  1: Id propertyId,
  2: i32 attr1,
  3: i64 attr2,
  4: i64 attr3,
  5: i32 attr4,
  6: i32 attr5,
  7: i32 attr6,
  8: i32 attr7,
  9: i64 storageType
}

struct PropertyDefault {
  1: PropertyDefinition definition,
  2: binary defaultText
}

struct RelationDefinition {
  1: Id relatedTypeId,
  2: i32 relationKind,   // 0: the related type is a child type
  3: i32 attr1,
  4: i64 attr2,
  5: i32 attr3
}

struct StateValue {
  1: Id groupId,
  2: Id value      // 0: none
}

struct StateCategory {
  1: i32 level1,
  2: i32 level2
}

struct StateChange {
  1: Uuid uuid,
  2: Id groupId,
  3: Id value,     // the new value
  4: Id previous   // the value it replaced
}

struct TypeInfo {
  1: Id typeId,
  2: list<PropertyDefinition> properties,
  3: list<RelationDefinition> relations,
  4: list<Id> commands,
  5: list<Id> stateGroups,
  6: i64 visibility
}

// The event detail record: the element's event category (0 to 14) and the identities and
// addresses of the element, its parent, its device and its proxy as the panel reports them.
struct EventDetail {
  1: i32 category,
  2: Uuid selfId,
  3: i64 selfAddress,
  4: Uuid parentId,
  5: i64 parentAddress,
  6: i64 deviceId,
  7: bool hasProxy,
  8: Uuid proxyId,
  9: i64 proxyAddress
}

// One element of a sub-tree snapshot.
struct ElementSnapshot {
  1: Uuid uuid,
  2: Uuid parent,
  3: Id typeId,
  4: string idString,
  5: list<PropertyResult> properties,
  6: list<StateValue> states
}

// The panel's present conditions as the service holds them: a fire alarm, a fault, a
// disablement, or an output that is activated or silenced.
enum ConditionKind {
  FIRE = 1,
  FAULT = 2,
  DISABLEMENT = 3,
  OUTPUT = 4
}

struct Condition {
  1: ConditionKind kind,
  2: Uuid uuid,
  3: Id groupId,
  4: Id value,
  5: i64 sinceMs,      // when the service saw it raised, UTC milliseconds; 0: before it looked
  6: Id typeId,
  7: string idString,
  8: string label,
  9: Uuid zone,        // the element's zone; 0: none
  10: string zoneLabel // the zone's label, and its zone text after a comma when it has one
}

// complete is false until the service has read the whole tree once (and again after events were
// lost): until then the counts and rows are what it knows so far, and the panel may not be called
// normal. Rows come fire first, then faults, disablements and outputs, each oldest first, at most
// rowsPerKind of each kind; the counts are always whole.
struct ConditionList {
  1: bool complete,
  2: i64 fires,
  3: i64 faults,
  4: i64 disablements,
  5: i64 outputs,
  6: list<Condition> conditions,
  7: i32 rowsPerKind,
  8: list<Id> stateTypes  // the element types that have state groups, for subscriptions
}

// Pages: a read of a whole sub-tree comes in pages, so that no reader holds the element server
// (and with it an alarm's setState and the event pump) for longer than one page takes. Each page
// is read under the element server's lock as one consistent view; between pages the panel may
// change: an element added or deleted between pages may be missed or seen. A page ends after at
// most `max` elements (1 to the service's page bound; 0: that bound) or earlier when its reply
// would pass the service's reply bound. `nextAfter` names the last element the page looked at;
// given back as `after`, the walk goes on in pre-order after it. An `after` that has been deleted
// in between is refused (REFUSED, "... is gone: start again"); nextAfter 0: the walk is complete.
struct SnapshotRequest {
  1: Uuid root,            // 0: the tree root
  2: list<Id> propertyIds, // read for each element whose type defines them; each id once, at most 256
  3: bool withStates,
  4: i32 depth,            // 0: the whole sub-tree; 1: the root and its children; n: n levels below the root
  5: Uuid after,           // 0: the first page; else the `nextAfter` of the previous page
  6: i32 max               // elements per page, 1 to the service's page bound; 0: that bound
}
struct SnapshotPage {
  1: list<ElementSnapshot> elements,  // in tree order (pre-order), the root first on the first page
  2: Uuid nextAfter                   // 0: the walk is complete
}
// A page of uuids. collectSubtree looks at up to `max` elements per page and returns those of the
// type, so a page may hold fewer than max (even none) while nextAfter is not 0.
struct UuidPage {
  1: list<Uuid> uuids,
  2: Uuid nextAfter
}
// A page of the panel file's keys, by increasing uuid; nextAfter: the last uuid of the page, or 0.
struct KeyPage {
  1: map<Uuid, string> keys,
  2: Uuid nextAfter
}

enum SubscriptionKind {
  BY_TYPE = 1,                 // one event id of every element of a type
  BY_ELEMENT = 2,              // one event id of one element
  ALL_STATE_CHANGES = 3,       // every state group of a type
  STATE_CHANGES_BY_VALUE = 4,  // the groups of a type that can take one of the given values
  STATE_CHANGES_BY_CATEGORY = 5, // the groups of a type with a value of one of the categories
  ALL_COMMANDS = 6,            // every command of a type
  ALL_PROPERTY_CHANGES = 7,    // every property of a type
  DELETED_BY_TYPE = 8,         // the waited delete's notifications, by type
  DELETED_BY_ELEMENT = 9       // the waited delete's notifications, by element
}

// kind is one of SubscriptionKind, carried as a plain number so that a value the service does not
// know is refused as such.
struct Subscription {
  1: i32 kind,
  2: Id target,                      // the type id, or the uuid for BY_ELEMENT and DELETED_BY_ELEMENT
  3: i64 eventId,                    // BY_TYPE and BY_ELEMENT
  4: list<Id> values,                // STATE_CHANGES_BY_VALUE
  5: list<StateCategory> categories, // STATE_CHANGES_BY_CATEGORY
  6: bool secondNotification         // DELETED_*: also the notification after the deletion
}

// One event of the session, in sequence. A gap marker (lost > 0) stands where events were lost
// because the session's queue was full; it takes a sequence number of its own.
struct Event {
  1: i64 sequence,
  2: i64 lost,
  3: i64 eventId,
  4: Uuid uuid,
  5: string idString,
  6: optional StateChange stateChange,
  7: optional EventDetail detail,
  8: Uuid source,       // command events: the source element, else 0
  9: binary data,       // the event's data as the element server delivered it
  10: i64 timeMs        // when the service received it, UTC milliseconds
}

// One row of the audit trail: an action that changed (or tried to change) the panel, a login,
// failed login, refused login, logout or session expiry, or a request refused for its access
// level. Values before and after are in the panel tool's words; absent where there is none.
struct AuditEntry {
  1: i64 id,             // increasing; the newest row has the greatest id
  2: i64 timeMs,         // UTC milliseconds
  3: i64 sessionId,
  4: string peer,
  5: i32 accessLevel,    // the session's level when it asked
  6: string operation,   // the operation's name as in getAccessLevels(), or login, loginFailed,
                         // loginBlocked, logout, sessionExpired
  7: Uuid uuid,          // 0: no element
  8: string idString,
  9: optional string before,
  10: optional string after,
  11: string result      // "ok", or why not
}
// Rows newest first. 0 in a bound means none; beforeId pages backwards (the last id of the
// previous page).
struct AuditQuery {
  1: i64 fromMs,
  2: i64 toMs,
  3: Uuid uuid,          // one element's rows
  4: string operation,   // one operation's rows
  5: i64 beforeId,
  6: i32 max             // 1 to 1000
}
// Stored events, newest first: each Event's sequence is its id in the event memory.
struct EventQuery {
  1: i64 fromMs,
  2: i64 toMs,
  3: list<i32> categories, // event categories of the detail record (0 to 14); empty: every one
  4: Uuid subtree,         // the element and every element below it; 0: the whole panel
  5: i64 beforeId,
  6: i32 max               // 1 to 1000
}
service PanelService {
  // ---- Service and session ----
  ServiceInfo getServiceInfo() throws (1: PanelError error),
  i64 echo(1: i64 value) throws (1: PanelError error),
  map<string, i32> getAccessLevels() throws (1: PanelError error),
  SessionInfo getSession() throws (1: PanelError error),
  SessionInfo login(1: i32 level, 2: string password) throws (1: PanelError error),
  SessionInfo logout() throws (1: PanelError error),

  // ---- Tree navigation ----
  Uuid getRoot() throws (1: PanelError error),
  Uuid getParent(1: Uuid uuid) throws (1: PanelError error),
  list<Uuid> getChildren(1: Uuid uuid) throws (1: PanelError error),
  Id getElementType(1: Uuid uuid) throws (1: PanelError error),
  // The start (0: the root) when it has the type, else the first element of the type below it.
  Uuid findElementByType(1: Uuid start, 2: Id typeId, 3: bool childrenOnly) throws (1: PanelError error),
  // The first element below the start whose property holds exactly these bytes.
  Uuid findElementByProperty(1: Uuid start, 2: Id propertyId, 3: binary value, 4: bool childrenOnly) throws (1: PanelError error),
  // Every element of the type (0: any) in the sub-tree, in pre-order, in pages (see SnapshotRequest).
  UuidPage collectSubtree(1: Uuid root, 2: Id typeId, 3: Uuid after, 4: i32 max) throws (1: PanelError error),
  // The single element of a type found through its fixed type chain (bare type number).
  Uuid getUniqueElement(1: i32 typeNumber) throws (1: PanelError error),
  SubtreeRoots getSubtreeRoots() throws (1: PanelError error),

  // ---- Identity and addresses ----
  string getIdString(1: Uuid uuid) throws (1: PanelError error),
  AddressRecord getAddressRecord(1: Uuid uuid) throws (1: PanelError error),
  AddressTexts getAddressTexts(1: Uuid uuid) throws (1: PanelError error),
  // The records' values last to first, dotted (without the closing zero byte).
  string formatAddressList(1: list<AddressRecord> records) throws (1: PanelError error),

  // ---- Properties ----
  PropertyValue readProperty(1: Uuid uuid, 2: Id propertyId) throws (1: PanelError error),
  bool getBool(1: Uuid uuid, 2: Id propertyId) throws (1: PanelError error),
  i64 getInteger(1: Uuid uuid, 2: Id propertyId) throws (1: PanelError error),
  DateTime getDateTime(1: Uuid uuid, 2: Id propertyId) throws (1: PanelError error),
  binary getBytes(1: Uuid uuid, 2: Id propertyId) throws (1: PanelError error),
  void setBool(1: Uuid uuid, 2: Id propertyId, 3: bool value) throws (1: PanelError error),
  // 8-bit storage: 0 to 255; 16-bit: -32768 to 32767; 32-bit: -2147483648 to 4294967295.
  void setInteger(1: Uuid uuid, 2: Id propertyId, 3: i64 value) throws (1: PanelError error),
  void setDateTime(1: Uuid uuid, 2: Id propertyId, 3: DateTime value) throws (1: PanelError error),
  // 1 to 65535 bytes.
  void setBytes(1: Uuid uuid, 2: Id propertyId, 3: binary value) throws (1: PanelError error),
  // Many (element, property) pairs in one request (at most the service's batch bound, 10000 by
  // default); a refused pair has its error, the rest go on. A pair whose value would take the
  // reply past the service's reply bound has a LIMIT error: read it in another request.
  list<PropertyResult> readProperties(1: list<PropertyRef> refs) throws (1: PanelError error),

  // ---- Type library ----
  TypeInfo getTypeInfo(1: Id typeId) throws (1: PanelError error),
  list<PropertyDefault> getPropertyDefaults(1: Id typeId) throws (1: PanelError error),
  i64 getDefaultInteger(1: Id typeId, 2: Id propertyId) throws (1: PanelError error),
  i64 getPropertyStorageType(1: Id propertyId) throws (1: PanelError error),
  list<Id> getStateValues(1: Id groupId) throws (1: PanelError error),
  Id getDefaultStateOfGroup(1: Id groupId) throws (1: PanelError error),
  list<StateValue> getDefaultStates(1: Id typeId) throws (1: PanelError error),
  // Every type that can occur below the type, each once.
  list<Id> getDescendantTypes(1: Id typeId) throws (1: PanelError error),

  // ---- States ----
  Id getState(1: Uuid uuid, 2: Id groupId) throws (1: PanelError error),
  list<StateValue> getStates(1: Uuid uuid) throws (1: PanelError error),
  void setState(1: Uuid uuid, 2: Id groupId, 3: Id value) throws (1: PanelError error),
  void resetToDefaultStates(1: Uuid uuid) throws (1: PanelError error),

  // ---- Reference relations ----
  list<Uuid> getRelations(1: Uuid uuid, 2: Id relationType, 3: bool forward) throws (1: PanelError error),
  list<Uuid> getVisibleRelations(1: Uuid uuid, 2: Id relationType, 3: bool forward) throws (1: PanelError error),
  void addRelation(1: Uuid holder, 2: Uuid target, 3: Id relationType) throws (1: PanelError error),
  void deleteRelation(1: Uuid holder, 2: Uuid target, 3: Id relationType) throws (1: PanelError error),

  // ---- Commands ----
  void executeCommand(1: Uuid uuid, 2: Id commandId, 3: Uuid source, 4: binary parameters) throws (1: PanelError error),
  void broadcastCommand(1: Uuid uuid, 2: Id commandId, 3: Uuid source, 4: Id relationType, 5: bool forward, 6: bool includeSelf) throws (1: PanelError error),

  // ---- Element lifecycle ----
  Uuid addElement(1: Uuid parent, 2: Id typeId, 3: bool validate) throws (1: PanelError error),
  void deleteElement(1: Uuid uuid) throws (1: PanelError error),
  // mode 1: reset the root's states first; 2: every element's of the sub-tree; 0: apply changes.
  i64 deleteElementWaited(1: Uuid root, 2: list<StateChange> changes, 3: i32 mode) throws (1: PanelError error),
  // Gives the element the next GUID of the panel's counter.
  i64 assignGuid(1: Uuid uuid) throws (1: PanelError error),
  i64 validateElement(1: Uuid uuid) throws (1: PanelError error),

  // ---- Event detail, snapshot ----
  EventDetail getEventDetail(1: Uuid uuid) throws (1: PanelError error),
  // The sub-tree in pre-order, in pages (see SnapshotRequest), each element with type, ID string,
  // the chosen properties it defines and, with withStates, its states.
  SnapshotPage snapshot(1: SnapshotRequest request) throws (1: PanelError error),

  // ---- Events ----
  void subscribe(1: Subscription subscription) throws (1: PanelError error),
  void unsubscribe(1: Subscription subscription) throws (1: PanelError error),
  // Up to max events of the session, fewer when their reply would pass the service's reply bound
  // (the rest wait for the next call); waits up to timeoutMs for the first one.
  list<Event> nextEvents(1: i32 max, 2: i32 timeoutMs) throws (1: PanelError error),
  // The panel's present conditions, kept by the service from the panel's events.
  ConditionList getConditions() throws (1: PanelError error),

  // ---- Panel file keys (simulator only) ----
  // The keys of the panel file the service loaded, by uuid, in pages of up to max (1 to the page
  // bound; 0: that bound) after the uuid `after`; none on the panel's own tree.
  KeyPage getElementKeys(1: Uuid after, 2: i32 max) throws (1: PanelError error),
  // ---- Records ----
  list<AuditEntry> queryAudit(1: AuditQuery query) throws (1: PanelError error),
  list<Event> queryEvents(1: EventQuery query) throws (1: PanelError error)
}
