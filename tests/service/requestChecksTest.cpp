// Remote requests that the library must never see: each is refused by the service with its error
// code and a message naming what is at fault, and no request reaches a precondition report.
#include <functional>
#include <string>
#include <vector>

#include "panelsim/panelsim.h"
#include "tests/service/serviceFixture.h"

namespace servicetest
{
namespace
{

using rpc::ErrorCode;

constexpr std::int64_t kDetectorType = 0x70048;
constexpr std::int64_t kAddress = 0x30004;         // 32-bit
constexpr std::int64_t kLabel = 0x30002;           // byte string
constexpr std::int64_t kAlarmThreshold = 0x30031;  // 8-bit
constexpr std::int64_t kLastServiceDate = 0x30038; // date-time
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr std::int64_t kUnknownUuid = 999999;

struct Refusal
{
    const char* name;
    ErrorCode::type code;
    const char* named; // the message names this
    std::function<void(rpc::PanelServiceClient&, std::int64_t detector)> call;
};

class RequestChecks : public ServiceFixture
{
};

TEST_F(RequestChecks, BadRequestsAreRefusedBeforeTheLibrary)
{
    auto admin = connectAt(4);
    const std::vector<rpc::Uuid> detectors = collectAll(*admin, 0, kDetectorType);
    ASSERT_FALSE(detectors.empty());
    std::string text;
    std::vector<rpc::Uuid> list;
    rpc::UuidPage page;
    rpc::SnapshotPage snapshotPage;
    rpc::KeyPage keys;
    std::vector<rpc::PropertyResult> results;
    const auto snapshot = [&](auto& c, const std::function<void(rpc::SnapshotRequest&)>& set) {
        rpc::SnapshotRequest asked;
        asked.propertyIds = {kLabel, kAddress};
        set(asked);
        c.snapshot(snapshotPage, asked);
    };
    rpc::PropertyValue value;
    rpc::DateTime date;
    const std::string tooLong(65536, 'x');

    const std::vector<Refusal> refusals = {
        {"unknown uuid", ErrorCode::NO_SUCH_ELEMENT, "uuid 999999",
         [&](auto& c, auto) { c.getParent(kUnknownUuid); }},
        {"uuid 0", ErrorCode::NO_SUCH_ELEMENT, "uuid 0", [&](auto& c, auto) { c.getIdString(text, 0); }},
        {"negative uuid", ErrorCode::BAD_ARGUMENT, "uuid -5",
         [&](auto& c, auto) { c.getChildren(list, -5); }},
        {"uuid above 32 bits", ErrorCode::BAD_ARGUMENT, "uuid 4294967296",
         [&](auto& c, auto) { c.getElementType(4294967296ll); }},
        {"type id as property id", ErrorCode::WRONG_CATEGORY, "propertyId 0x70048",
         [&](auto& c, auto d) { c.readProperty(value, d, kDetectorType); }},
        {"property id as type id", ErrorCode::WRONG_CATEGORY, "typeId 0x30004",
         [&](auto& c, auto) { c.collectSubtree(page, 0, kAddress, 0, 0); }},
        {"property of another type", ErrorCode::NOT_DEFINED, "property 0x30006",
         [&](auto& c, auto d) { c.getBool(d, 0x30006); }},
        {"property id 0x30000", ErrorCode::BAD_ARGUMENT, "names no property",
         [&](auto& c, auto d) { c.getInteger(d, 0x30000); }},
        {"8-bit value 256", ErrorCode::VALUE_OUT_OF_RANGE, "0x30031",
         [&](auto& c, auto d) { c.setInteger(d, kAlarmThreshold, 256); }},
        {"8-bit value -1", ErrorCode::VALUE_OUT_OF_RANGE, "0x30031",
         [&](auto& c, auto d) { c.setInteger(d, kAlarmThreshold, -1); }},
        {"32-bit value 2^32", ErrorCode::VALUE_OUT_OF_RANGE, "0x30004",
         [&](auto& c, auto d) { c.setInteger(d, kAddress, 4294967296ll); }},
        {"integer into a string", ErrorCode::BAD_ARGUMENT, "storage type 12",
         [&](auto& c, auto d) { c.setInteger(d, kLabel, 1); }},
        {"truth into an integer", ErrorCode::BAD_ARGUMENT, "storage type 6",
         [&](auto& c, auto d) { c.setBool(d, kAddress, true); }},
        {"empty byte string", ErrorCode::BAD_ARGUMENT, "value holds 0 bytes",
         [&](auto& c, auto d) { c.setBytes(d, kLabel, ""); }},
        {"oversized byte string", ErrorCode::BAD_ARGUMENT, "value holds 65536 bytes",
         [&](auto& c, auto d) { c.setBytes(d, kLabel, tooLong); }},
        {"date-time month 256", ErrorCode::VALUE_OUT_OF_RANGE, "value.month",
         [&](auto& c, auto d) {
             rpc::DateTime bad;
             bad.month = 256;
             c.setDateTime(d, kLastServiceDate, bad);
         }},
        {"date-time of a string", ErrorCode::BAD_ARGUMENT, "date-time",
         [&](auto& c, auto d) { c.getDateTime(date, d, kLabel); }},
        {"bytes of an integer", ErrorCode::BAD_ARGUMENT, "storage type 6, not a byte string",
         [&](auto& c, auto d) { c.getBytes(text, d, kAddress); }},
        {"date-time an element does not hold", ErrorCode::NOT_DEFINED, "holds no value of property",
         [&](auto& c, auto) { c.getDateTime(date, detectors.back(), kLastServiceDate); }},
        {"empty search value", ErrorCode::BAD_ARGUMENT, "value holds 0 bytes",
         [&](auto& c, auto) { c.findElementByProperty(0, kLabel, "", false); }},
        {"search type 0", ErrorCode::WRONG_CATEGORY, "typeId 0x0",
         [&](auto& c, auto) { c.findElementByType(0, 0, false); }},
        {"empty batch", ErrorCode::BAD_ARGUMENT, "refs is empty",
         [&](auto& c, auto) {
             std::vector<rpc::PropertyResult> out;
             c.readProperties(out, {});
         }},
        {"empty address list", ErrorCode::BAD_ARGUMENT, "records is empty",
         [&](auto& c, auto) { c.formatAddressList(text, {}); }},
        {"address data type 12", ErrorCode::BAD_ARGUMENT, "dataType 12",
         [&](auto& c, auto) {
             rpc::AddressRecord record;
             record.data = 1;
             record.dataType = 12;
             c.formatAddressList(text, {record});
         }},
        {"state group of another type", ErrorCode::NOT_DEFINED, "state group 0x80007",
         [&](auto& c, auto d) { c.getState(d, 0x80007); }},
        {"state value outside the group", ErrorCode::NOT_DEFINED, "0x60008",
         [&](auto& c, auto d) { c.setState(d, kFireAlarmGroup, 0x60008); }},
        {"group id as state value", ErrorCode::WRONG_CATEGORY, "value 0x80001",
         [&](auto& c, auto d) { c.setState(d, kFireAlarmGroup, kFireAlarmGroup); }},
        {"command of another type", ErrorCode::NOT_DEFINED, "command 0x14004",
         [&](auto& c, auto d) { c.executeCommand(d, 0x14004, 0, ""); }},
        {"unknown command source", ErrorCode::NO_SUCH_ELEMENT, "source 999999",
         [&](auto& c, auto d) { c.executeCommand(d, 0x14001, kUnknownUuid, ""); }},
        {"oversized command parameters", ErrorCode::BAD_ARGUMENT, "parameters holds 65536",
         [&](auto& c, auto d) { c.executeCommand(d, 0x14001, 0, tooLong); }},
        {"broadcast over relation 0", ErrorCode::WRONG_CATEGORY, "relationType 0x0",
         [&](auto& c, auto d) { c.broadcastCommand(d, 0x14001, 0, 0, true, false); }},
        {"relation to an unknown element", ErrorCode::NO_SUCH_ELEMENT, "target 999999",
         [&](auto& c, auto d) { c.addRelation(d, kUnknownUuid, 0x20001); }},
        {"second root", ErrorCode::BAD_ARGUMENT, "parent 0",
         [&](auto& c, auto) { c.addElement(0, kDetectorType, false); }},
        {"type not allowed below the parent", ErrorCode::NOT_DEFINED, "may not be placed",
         [&](auto& c, auto d) { c.addElement(d, kDetectorType, false); }},
        {"unknown element type", ErrorCode::NOT_DEFINED, "typeId 0x7FFFF",
         [&](auto& c, auto) {
             rpc::TypeInfo info;
             c.getTypeInfo(info, 0x7FFFF);
         }},
        {"waited delete mode 3", ErrorCode::BAD_ARGUMENT, "mode 3",
         [&](auto& c, auto d) { c.deleteElementWaited(d, {}, 3); }},
        {"unique element of type 0", ErrorCode::BAD_ARGUMENT, "typeNumber 0",
         [&](auto& c, auto) { c.getUniqueElement(0); }},
        {"unique element without a chain", ErrorCode::NOT_DEFINED, "0x48",
         [&](auto& c, auto) { c.getUniqueElement(0x48); }},
        {"state values of a property id", ErrorCode::WRONG_CATEGORY, "groupId 0x30004",
         [&](auto& c, auto) {
             std::vector<rpc::Id> values;
             c.getStateValues(values, kAddress);
         }},
        {"subscription without values", ErrorCode::BAD_ARGUMENT, "values is empty",
         [&](auto& c, auto) {
             rpc::Subscription s;
             s.kind = rpc::SubscriptionKind::STATE_CHANGES_BY_VALUE;
             s.target = kDetectorType;
             c.subscribe(s);
         }},
        {"subscription to event 0", ErrorCode::BAD_ARGUMENT, "eventId 0",
         [&](auto& c, auto d) {
             rpc::Subscription s;
             s.kind = rpc::SubscriptionKind::BY_ELEMENT;
             s.target = d;
             c.subscribe(s);
         }},
        {"unknown subscription kind", ErrorCode::BAD_ARGUMENT, "kind 42",
         [&](auto& c, auto) {
             rpc::Subscription s;
             s.kind = 42;
             c.subscribe(s);
         }},
        {"poll for 0 events", ErrorCode::BAD_ARGUMENT, "max 0",
         [&](auto& c, auto) {
             std::vector<rpc::Event> events;
             c.nextEvents(events, 0, 0);
         }},
        {"poll for an hour", ErrorCode::BAD_ARGUMENT, "timeoutMs 3600000",
         [&](auto& c, auto) {
             std::vector<rpc::Event> events;
             c.nextEvents(events, 1, 3600000);
         }},
        {"login at level 5", ErrorCode::BAD_ARGUMENT, "level 5",
         [&](auto& c, auto) {
             rpc::SessionInfo session;
             c.login(session, 5, "4444");
         }},
        {"page above the bound", ErrorCode::LIMIT, "at most 1000",
         [&](auto& c, auto) { snapshot(c, [](auto& r) { r.max = 1001; }); }},
        {"negative page size", ErrorCode::BAD_ARGUMENT, "max -1",
         [&](auto& c, auto) { c.collectSubtree(page, 0, 0, 0, -1); }},
        {"keys above the bound", ErrorCode::LIMIT, "at most 1000",
         [&](auto& c, auto) { c.getElementKeys(keys, 0, 1001); }},
        {"negative depth", ErrorCode::BAD_ARGUMENT, "depth -2",
         [&](auto& c, auto) { snapshot(c, [](auto& r) { r.depth = -2; }); }},
        {"repeated property", ErrorCode::BAD_ARGUMENT, "0x30002 is given more than once",
         [&](auto& c, auto) { snapshot(c, [](auto& r) { r.propertyIds.push_back(kLabel); }); }},
        {"property the type library lacks", ErrorCode::NOT_DEFINED, "no property 0x3FFFF",
         [&](auto& c, auto) { snapshot(c, [](auto& r) { r.propertyIds = {0x3FFFF}; }); }},
        {"too many properties", ErrorCode::LIMIT, "at most 256",
         [&](auto& c, auto) { snapshot(c, [](auto& r) { r.propertyIds.assign(257, kLabel); }); }},
        {"after outside the root", ErrorCode::BAD_ARGUMENT, "not below the root",
         [&](auto& c, auto d) {
             snapshot(c, [&](auto& r) {
                 r.root = d;
                 r.after = detectors.at(1);
             });
         }},
        {"batch above the bound", ErrorCode::LIMIT, "at most 10000",
         [&](auto& c, auto) { c.readProperties(results, std::vector<rpc::PropertyRef>(10001)); }},
        {"repeated pair", ErrorCode::BAD_ARGUMENT, "given more than once",
         [&](auto& c, auto) { c.readProperties(results, std::vector<rpc::PropertyRef>(2)); }},
        // A page's continuation is found again by its element: once deleted, the walk starts over.
        {"after deleted between pages", ErrorCode::REFUSED, "is gone: start again",
         [&](auto& c, auto) {
             const auto after = [&](auto& r) { r.after = detectors.at(1); };
             snapshot(c, after); // goes on after it while it stands
             c.deleteElement(detectors.at(1));
             snapshot(c, after);
         }},
    };

    for (const Refusal& refusal : refusals)
    {
        SCOPED_TRACE(refusal.name);
        try
        {
            refusal.call(*admin->operator->(), detectors.front());
            ADD_FAILURE() << "accepted";
        }
        catch (const rpc::PanelError& error)
        {
            EXPECT_EQ(error.code, refusal.code) << error.message;
            EXPECT_NE(error.message.find(refusal.named), std::string::npos) << error.message;
        }
    }
    EXPECT_EQ(reports(), 0) << "a request reached a precondition report of the library";
    // The connection survived every refusal.
    EXPECT_EQ((*admin)->echo(7), 7);
}

} // namespace
} // namespace servicetest
