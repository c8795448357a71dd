// Every exported function under host faults: on a freshly built sample panel the k-th host call
// fails, for k = 1, 2, ... until the function completes without reaching it; once for that call
// only and once for every call from the k-th on, with a failure status and with a thrown fault.
// Each run must give the function's documented failure result (or, where it ignores the failing
// call, its normal result), let a thrown fault reach the caller, leave no host object alive and
// leave the tree as it was, as the undisturbed call leaves it, or fact by fact in between.
#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <vector>

#include "samplePanel.h"
#include "support/panelFixture.h"
#include "treeDump.h"

namespace
{

// The failure status of every injected Fail: unlike the simulator's own codes, so that a status
// passed through unchanged is recognised.
constexpr int kStatus = 0x7E57;
constexpr unsigned kMaxCalls = 20000;

// A panel as one row sees it: the sample panel's uuids and the names of its elements.
struct Panel : SamplePanel
{
    TreeDump names;

    std::string id(UINT32 uuid) const { return names.name(uuid); }
    template <typename List> std::string ids(const List& list) const
    {
        std::string text = "[ ";
        for (auto uuid : list)
            text += id(static_cast<UINT32>(uuid)) + " ";
        return text + "]";
    }
};

// The text of a row's result: its values separated by blanks, numbers in hexadecimal.
template <typename... Values> std::string show(const Values&... values)
{
    std::ostringstream text;
    text << std::hex;
    ((text << values << ' '), ...);
    return text.str();
}

std::string list(const std::vector<unsigned int>& values)
{
    std::ostringstream text;
    text << std::hex << "[ ";
    for (unsigned value : values)
        text << value << ' ';
    return text.str() + "]";
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> items;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, separator);)
        if (!item.empty() && item != "[" && item != "]") // the brackets of a list
            items.push_back(item);
    return items;
}

// What a run whose fault was reached may return, given what the undisturbed run returned.
using Check = std::function<bool(const std::string& faulted, const std::string& normal)>;

Check gives(const std::string& failure)
{
    return [failure](const std::string& faulted, const std::string&) { return faulted == failure; };
}

Check givesOrNormal(const std::string& failure)
{
    return [failure](const std::string& faulted, const std::string& normal) {
        return faulted == failure || faulted == normal;
    };
}

// Fewer items than the undisturbed run, each one of its own and in its order (a walk that lost
// a branch, an ID string that lost a number).
Check fewerItems(char separator = ' ')
{
    return [separator](const std::string& faulted, const std::string& normal) {
        const auto got = split(faulted, separator);
        const auto all = split(normal, separator);
        auto from = all.begin();
        for (const std::string& item : got)
        {
            from = std::find(from, all.end(), item);
            if (from == all.end())
                return false;
            ++from;
        }
        return true;
    };
}

// Some of the undisturbed run's items, each at most once, in any order (a walk over type
// definitions that lost one query finds the types below it later, by another path).
Check someItems()
{
    return [](const std::string& faulted, const std::string& normal) {
        auto got = split(faulted, ' ');
        const auto all = split(normal, ' ');
        std::sort(got.begin(), got.end());
        return std::adjacent_find(got.begin(), got.end()) == got.end() &&
               std::all_of(got.begin(), got.end(), [&all](const std::string& item) {
                   return std::find(all.begin(), all.end(), item) != all.end();
               });
    };
}

// Field by field: as the undisturbed run gave it, as the caller had it, or 0 (a parent or proxy
// that could not be read counts as none).
Check fieldsFrom(const std::string& untouched)
{
    return [untouched](const std::string& faulted, const std::string& normal) {
        const auto got = split(faulted, ' ');
        const auto done = split(normal, ' ');
        const auto before = split(untouched, ' ');
        if (got.size() != done.size() || got.size() != before.size())
            return false;
        for (std::size_t i = 0; i < got.size(); ++i)
            if (got[i] != done[i] && got[i] != before[i] && got[i] != "0")
                return false;
        return true;
    };
}

struct Row
{
    const char* function;
    std::function<std::string(Panel&)> call;
    Check check;
    bool mayReport = false;                    // a broken invariant may be reported under faults
    std::function<void(Panel&)> setup = {};    // before the fault is armed
};

// gtest names a row by its function.
void PrintTo(const Row& row, std::ostream* out)
{
    *out << row.function;
}

// Whether a failing host call (its trace text) can show at all: these calls have no failure to
// report, so a Fail injected into them must change nothing.
bool failsVisibly(const std::string& call)
{
    for (const char* silent : {"GetElementServer(", "::GetUUID(", "::SetData(", "::GetID(", "DebugPrint("})
        if (call.find(silent) != std::string::npos)
            return false;
    return true;
}

// The record of a row's undisturbed run.
struct Normal
{
    std::string result;
    TreeDump tree;
    unsigned long calls;
};

constexpr EGW_GROUP_STATE_STRUCT kDetectorRow = {0x70048, 0, 0, 0};
const std::vector<S_EGWStateCategoryStruct> kCategories = {{2, 1}, {3, 1}};
const std::vector<unsigned int> kStateValues = {0x60002};
const tagBSC_DATETIME kDatetime = {2024, 5, 17, 5, 3600, 250};
constexpr unsigned kSentinel = 0x55555555;
constexpr const char* kUntouchedField = "eeee eeee eeee eeee eeee 0 eeee eeee ";

constexpr UINT32 kMark = 0xEEEE;

ENENT_FIELD markedField()
{
    return {kMark, kMark, kMark, kMark, kMark, false, kMark, kMark};
}

// The event-format members share one shape: fill a record that holds the caller's marks, show it
// with its uuids named.
template <typename Fill> std::string withField(const Panel& p, Fill fill)
{
    ENENT_FIELD f = markedField();
    fill(f);
    const auto id = [&p](UINT32 uuid) { return uuid == kMark ? std::string("eeee") : p.id(uuid); };
    return show(id(f.SelfID), f.SelfAddress, id(f.ParentID), f.ParentAddress, f.DeviceID, f.HasProxy,
                id(f.ProxyID), f.ProxyAddress);
}

std::vector<Row> rows()
{
    const auto data = std::make_shared<std::vector<int>>(std::vector<int>{4, 5, 6});
    static const unsigned char kDevice[4] = {0xC3, 0xB2, 0xA1, 0x00};
    ENEventFormat format;
    return {
        // ---- client handles, lock, dispatcher, type, validation ---------------------------------
        {"NewThriftClientInstance", [](Panel&) { auto* c = NewThriftClientInstance(); ThriftClient_Close(c); return show(c != nullptr); }, gives("")},
        {"GetThriftClientInstance", [](Panel&) { return show(GetThriftClientInstance() != nullptr); }, gives("")},
        {"ThriftClient_Close", [](Panel&) { ThriftClient_Close(nullptr); ThriftClient_Close(GetThriftClientInstance()); return show(GetThriftClientInstance() != nullptr); }, gives("")},
        {"EGW_SetAssertHandler", [](Panel&) { EGW_SetAssertHandler(EGW_SetAssertHandler(nullptr)); return show(); }, gives("")},
        {"EGW_ElementServerLock", [](Panel&) { return show(EGW_ElementServerLock(2, nullptr)); }, gives(show(kStatus))},
        {"EGW_ElementServerUnlock", [](Panel&) { return show(EGW_ElementServerUnlock(nullptr)); }, gives(show(kStatus)), false, [](Panel&) { EGW_ElementServerLock(1, nullptr); }},
        {"EGW_ELementServerOpenEventDispatcher", [](Panel&) { return show(EGW_ELementServerOpenEventDispatcher(nullptr)); }, gives(show(kStatus))},
        {"EGW_ELementServerCloseEventDispatcher", [](Panel&) { return show(EGW_ELementServerCloseEventDispatcher(nullptr)); }, gives(show(kStatus)), false, [](Panel&) { EGW_ELementServerOpenEventDispatcher(nullptr); }},
        {"EGW_ElementServerGetElementTypeByUuid", [](Panel& p) { return show(EGW_ElementServerGetElementTypeByUuid(p.point, nullptr)); }, gives(show(0))},
        {"EGW_ElementServerValidElementInner", [](Panel& p) { return show(EGW_ElementServerValidElementInner(p.point, nullptr)); }, gives(show(kStatus))},
        // ---- typed properties ------------------------------------------------------------------
        {"EGW_ElementServerGetPropertyBoolDataById", [](Panel& p) { int v = 0x55; const BOOL r = EGW_ElementServerGetPropertyBoolDataById(p.root, 0x30006, v, nullptr); return show(r, v); }, gives(show(0, 0x55))},
        {"EGW_ElementServerSetPropertyBoolDataById", [](Panel& p) { return show(EGW_ElementServerSetPropertyBoolDataById(p.root, 0x30006, 1, nullptr)); }, gives(show(0))},
        {"EGW_ElementServerGetPropertyIntDataById", [](Panel& p) { UINT32 v = kSentinel; const BOOL r = EGW_ElementServerGetPropertyIntDataById(p.section, 0x30004, v, nullptr); return show(r, v); }, gives(show(0, kSentinel))},
        {"EGW_ElementServerSetPropertyIntDataById", [](Panel& p) { return show(EGW_ElementServerSetPropertyIntDataById(p.section, 0x30004, 9, nullptr)); }, gives(show(0))},
        {"EGW_ElementServerGetPropertyDatetimeDataById", [](Panel& p) { tagBSC_DATETIME v{}; const BOOL r = EGW_ElementServerGetPropertyDatetimeDataById(p.root, 0x3000B, v, nullptr); return show(r, v.mYear, UINT32{v.mSecondOfDay}); }, gives(show(0, 0, 0)), false, [](Panel& p) { EGW_ElementServerSetPropertyDatetimeDataById(p.root, 0x3000B, kDatetime, nullptr); }},
        {"EGW_ElementServerSetPropertyDatetimeDataById", [](Panel& p) { return show(EGW_ElementServerSetPropertyDatetimeDataById(p.root, 0x3000B, kDatetime, nullptr)); }, gives(show(0))},
        // A failed GetData reports no bytes, which the string readers take for a value of 0 bytes.
        {"EGW_ElementServerGetStringProperty", [](Panel& p) { std::string s = "ab"; const BOOL r = EGW_ElementServerGetStringProperty(s, p.point, 0x30002, nullptr); return show(r, s); }, [](const std::string& f, const std::string& n) { return f == n || f == show(0, "ab") || f == show(1, "ab"); }},
        {"EGW_ElementServerSetStringProperty", [](Panel& p) { return show(EGW_ElementServerSetStringProperty("zone 7", 6, p.point, 0x30002, nullptr)); }, gives(show(0))},
        {"EGW_ElementServerGetPropertyDataByPropertyID", [](Panel& p) { std::string s = "ab"; const BOOL r = EGW_ElementServerGetPropertyDataByPropertyID(p.point, 0x30002, s, nullptr); return show(r, s); }, [](const std::string& f, const std::string& n) { return f == n || f == show(0, "") || f == show(1, ""); }},
        // ---- lifecycle -------------------------------------------------------------------------
        {"EGW_ELementServerAddElementByType", [](Panel& p) { return p.id(EGW_ELementServerAddElementByType(p.section, 0x70172, false, nullptr)); }, gives("0")},
        {"EGW_ELementServerDeleteElementByUuid", [](Panel& p) { return show(EGW_ELementServerDeleteElementByUuid(p.spare, nullptr)); }, gives(show(kStatus))},
        {"EGW_ELementServerDeleteElementWaitNotifyInner", [](Panel& p) { return show(EGW_ELementServerDeleteElementWaitNotifyInner(p.spare)); }, gives(show(kStatus))},
        // ---- navigation and relations ----------------------------------------------------------
        {"EGW_ELementServerGetTreeRoot", [](Panel& p) { return p.id(EGW_ELementServerGetTreeRoot(nullptr)); }, gives("0")},
        {"EGW_ELementServerGetParentUuid", [](Panel& p) { return p.id(EGW_ELementServerGetParentUuid(p.point, nullptr)); }, gives("0")},
        {"EGW_ELementServerGetChildrenUuidList", [](Panel& p) { std::vector<int> v{0}; EGW_ELementServerGetChildrenUuidList(v, p.root, nullptr); return p.ids(v); }, fewerItems()},
        {"EGW_ELementServerGetElementByProperty", [](Panel& p) { return p.id(EGW_ELementServerGetElementByProperty(p.root, 0x30005, kDevice, 4, false, nullptr)); }, gives("0")},
        {"EGW_ELementServerGetElementByElementTypeId", [](Panel& p) { return p.id(EGW_ELementServerGetElementByElementTypeId(0, 0x70172, false, nullptr)); }, givesOrNormal("0")},
        {"EGW_ELementServerGetHardwareTreeRoot", [](Panel& p) { return p.id(EGW_ELementServerGetHardwareTreeRoot(nullptr)); }, givesOrNormal("0")},
        {"EGW_ELementServerGetP2TreeRoot", [](Panel& p) { return p.id(EGW_ELementServerGetP2TreeRoot(nullptr)); }, givesOrNormal("0")},
        {"EGW_ELementServerGetDetectionTreeRoot", [](Panel& p) { return p.id(EGW_ELementServerGetDetectionTreeRoot(nullptr)); }, givesOrNormal("0")},
        {"EGW_ELementServerGetControlTreeRoot", [](Panel& p) { return p.id(EGW_ELementServerGetControlTreeRoot(nullptr)); }, givesOrNormal("0")},
        {"EGW_ELementServerAddReferenceRelation", [](Panel& p) { return show(EGW_ELementServerAddReferenceRelation(p.point, p.zone, kProxyRelation, nullptr)); }, gives(show(0))},
        {"EGW_ELementServerDelReferenceRelation", [](Panel& p) { return show(EGW_ELementServerDelReferenceRelation(p.detector, p.zone, kProxyRelation, nullptr)); }, gives(show(0))},
        {"EGW_ElementServerGetReferenceRelations", [](Panel& p) { std::vector<int> v; EGW_ElementServerGetReferenceRelations(v, p.detector, kProxyRelation, 1, nullptr); return p.ids(v); }, gives("[ ]")},
        // ---- subscriptions, states, commands, ID string ----------------------------------------
        {"EGW_ElementServerSubscribeByType", [](Panel&) { return show(EGW_ElementServerSubscribeByType(kSamplePid, 0x70048, 0x03010001, nullptr)); }, gives(show(kStatus))},
        {"EGW_ElementServerUnSubscribeByType", [](Panel&) { return show(EGW_ElementServerUnSubscribeByType(kSamplePid, 0x70048, 0x03010002, nullptr)); }, gives(show(kStatus))},
        {"EGW_ElementServerSubscribeByElement", [](Panel& p) { return show(EGW_ElementServerSubscribeByElement(kSamplePid, p.detector, 0x03010001, nullptr)); }, gives(show(kStatus))},
        {"EGW_ElementServerUnSubscribeByElement", [](Panel& p) { return show(EGW_ElementServerUnSubscribeByElement(kSamplePid, p.detector, 0x03010001, nullptr)); }, gives(show(kStatus)), false, [](Panel& p) { EGW_ElementServerSubscribeByElement(kSamplePid, p.detector, 0x03010001, nullptr); }},
        {"EGW_ELementServerGetStateValueByUuid", [](Panel& p) { UINT32 v = kSentinel; const BOOL r = EGW_ELementServerGetStateValueByUuid(v, p.detector, 0x80001, nullptr); return show(r, v); }, gives(show(0, 0))},
        {"EGW_ELementServerSetStateValueByUuid", [](Panel& p) { return show(EGW_ELementServerSetStateValueByUuid(0x60002, p.detector, 0x80001, nullptr)); }, gives(show(0))},
        {"EGW_ElementServerExecuteCommand", [](Panel& p) { return show(EGW_ElementServerExecuteCommand(p.detector, 0x14001, p.zone, "on", 2, nullptr)); }, gives(show(kStatus))},
        {"EGW_ElementServerGetIDStringOfElement", [](Panel& p) { std::string s = "old"; EGW_ElementServerGetIDStringOfElement(s, p.subUnit, nullptr); return s; }, fewerItems('.')},
        // ---- container marshalling (no host call) ----------------------------------------------
        {"EGW_BASIC_GetVectorSize", [data](Panel&) { return show(EGW_BASIC_GetVectorSize(*data)); }, gives("")},
        {"EGW_BASIC_ReadVectorContain", [data](Panel&) { INT32 b[3]; UINT32 n = 0; const BOOL r = EGW_BASIC_ReadVectorContain(*data, b, 3, n); return show(r, n, b[2]); }, gives("")},
        {"EGW_BASIC_WriteVectorContain", [](Panel&) { std::vector<int> v{1}; const INT32 b[2] = {8, 9}; const BOOL r = EGW_BASIC_WriteVectorContain(v, b, 2); return show(r, v.size()); }, gives("")},
        {"EGW_BASIC_GetStringSize", [](Panel&) { return show(EGW_BASIC_GetStringSize("abc")); }, gives("")},
        {"EGW_BASIC_GetStringdata", [](Panel&) { const std::string s = "abc"; UINT32 n = 0; const bool r = EGW_BASIC_GetStringdata(s, n) == s.data(); return show(r, n); }, gives("")},
        {"EGW_BASIC_ReadStringContain", [](Panel&) { char b[4]; UINT16 n = 0; const BOOL r = EGW_BASIC_ReadStringContain("abc", b, 4, n); return show(r, n); }, gives("")},
        {"EGW_BASIC_WriteStringContain", [](Panel&) { std::string s = "ab"; const BOOL r = EGW_BASIC_WriteStringContain(s, "cd", 2, FALSE); return show(r, s); }, gives("")},
        {"CheckIsHavedInList", [](Panel&) { return show(CheckIsHavedInList({3, 7, 7}, 7)); }, gives("")},
        // ---- address records -------------------------------------------------------------------
        {"EGW_GetThriftAddressStructByUuid", [](Panel& p) { EGW_THRIFT_ADDRESS_STRUCT r{kSentinel, kSentinel}; const BOOL ok = EGW_GetThriftAddressStructByUuid(r, p.section, nullptr); return show(ok, r.mData, r.mDataType); }, [](const std::string& f, const std::string&) { return f.compare(0, 2, "0 ") == 0; }},
        {"EGW_BASIC_THRIFT_GetPhysicalAddress", [](Panel& p) { std::string s; EGW_BASIC_THRIFT_GetPhysicalAddress(p.subUnit, s, nullptr); return s; }, fewerItems('.')},
        {"EGW_BASIC_THRIFT_GetLogicAddress", [](Panel& p) { std::string s; EGW_BASIC_THRIFT_GetLogicAddress(p.subUnit, s, GetThriftClientInstance()); return s; }, fewerItems('.')},
        {"EGW_BASIC_THRIFT_WriteDataInAddressString", [](Panel&) { std::string s; EGW_BASIC_THRIFT_WriteDataInAddressString({0x2A, 7}, s, TRUE); return s; }, gives("")},
        {"EGW_BASIC_FormatAddressStructDataList", [](Panel&) { std::string s; EGW_BASIC_FormatAddressStructDataList(s, {{0x2A, 7}, {3, 16}}); return s; }, gives("")},
        // ---- state-change records --------------------------------------------------------------
        {"EGW_BASIC_PackStateChangeInforData", [](Panel& p) { EGW_CONTROLPARA r{}; const BOOL ok = EGW_BASIC_PackStateChangeInforData(r, p.detector, 0x80001, 0x60002, 0x60001); return show(ok, r.mGroupId); }, gives(show(0, 0))},
        {"EGW_BASIC_UnpackStateChangeInforData", [](Panel& p) { EGW_CONTROLPARA r{p.detector, 0x80001, 0x60001, 0x60002}, out{}; const BOOL ok = EGW_BASIC_UnpackStateChangeInforData(out, &r, sizeof r); return show(ok, out.mGroupId); }, gives(show(0, 0x80001))},
        {"EGW_BASIC_CompareTableData", [](Panel& p) { EGW_CONTROLPARA r{p.detector, 0x80001, 0x60001, 0x60002}; return show(EGW_BASIC_CompareTableData(&r, sizeof r, &kDetectorRow, 1)); }, gives(show(0))},
        {"EGW_BASIC_CheckInductStateIDInGroup", [](Panel&) { return show(EGW_BASIC_CheckInductStateIDInGroup(0x80001, {0x60002})); }, gives(show(0))},
        {"EGW_BASIC_CheckInductStateCategoryInGroup", [](Panel&) { return show(EGW_BASIC_CheckInductStateCategoryInGroup(0x80001, kCategories)); }, givesOrNormal(show(0))},
        // ---- bulk subscriptions: single subscriptions that fail are ignored ---------------------
        {"EGW_SubscribeDeletedElementForWaitingNotifyByType", [](Panel&) { return show(EGW_SubscribeDeletedElementForWaitingNotifyByType(kSamplePid, 0x70048, true, nullptr)); }, gives(show(kStatus))},
        {"EGW_SubscribeDeletedElementForWaitingNotifyByElement", [](Panel& p) { return show(EGW_SubscribeDeletedElementForWaitingNotifyByElement(kSamplePid, p.detector, true, nullptr)); }, gives(show(kStatus))},
        {"EGW_BASIC_THRIFT_SubscribeAllCommands", [](Panel&) { return show(EGW_BASIC_THRIFT_SubscribeAllCommands(kSamplePid, 0x70048, nullptr)); }, givesOrNormal(show(0))},
        {"EGW_BASIC_THRIFT_SubscribeAllStateChange", [](Panel&) { return show(EGW_BASIC_THRIFT_SubscribeAllStateChange(kSamplePid, 0x70048, nullptr)); }, givesOrNormal(show(0))},
        {"EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList", [](Panel&) { return show(EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(kSamplePid, 0x70048, kStateValues)); }, givesOrNormal(show(0))},
        {"EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList", [](Panel&) { return show(EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(kSamplePid, 0x70048, kCategories)); }, givesOrNormal(show(0))},
        {"EGW_BASIC_THRIFT_SubscribeAllPropertyChange", [](Panel&) { return show(EGW_BASIC_THRIFT_SubscribeAllPropertyChange(kSamplePid, 0x70048, nullptr)); }, givesOrNormal(show(1))},
        // ---- GUIDs: a broken counter is reported -----------------------------------------------
        {"EGW_ELementServerManagerElementGUID", [](Panel& p) { EGW_ELementServerManagerElementGUID(p.point, GetThriftClientInstance()); return show(); }, gives(""), true},
        {"EGW_ELementServerValidateElementByUuid", [](Panel& p) { return show(EGW_ELementServerValidateElementByUuid(p.point, GetThriftClientInstance())); }, givesOrNormal(show(kStatus)), true},
        // ---- defaults: a type library without the password record is reported -------------------
        {"EGW_BASIC_GetDefaultIntegerTypeProperty", [](Panel&) { UINT32 v = kSentinel; const BOOL r = EGW_BASIC_GetDefaultIntegerTypeProperty(0x70169, 0x30004, v); return show(r, v); }, gives(show(0, 0))},
        {"EGW_BASIC_GetDefaultPassowrdByLevelProperty", [](Panel&) { return EGW_BASIC_GetDefaultPassowrdByLevelProperty(0x30010, ENUM_PRODUCT_ZT480EN); }, gives(""), true},
        {"EGW_BASIC_GetDefaultPassowrdL2", [](Panel&) { return EGW_BASIC_GetDefaultPassowrdL2(ENUM_PRODUCT_ZT480EN); }, gives(""), true},
        {"EGW_BASIC_GetDefaultPassowrdL3", [](Panel&) { return EGW_BASIC_GetDefaultPassowrdL3(ENUM_PRODUCT_ZT480EN); }, gives(""), true},
        {"EGW_BASIC_GetDefaultPassowrdL3_1", [](Panel&) { return EGW_BASIC_GetDefaultPassowrdL3_1(ENUM_PRODUCT_ZT480EN); }, gives(""), true},
        {"EGW_BASIC_GetDefaultPassowrdL4", [](Panel&) { return EGW_BASIC_GetDefaultPassowrdL4(ENUM_PRODUCT_ZT480EN); }, gives(""), true},
        {"EGW_BASIC_GetDefaultStatus", [](Panel&) { std::vector<S_EGW_GET_DEFAULT_STATUS> v; const BOOL ok = EGW_BASIC_GetDefaultStatus(0x70048, v); return show(ok, v.size()); }, [](const std::string& f, const std::string&) { return f.compare(0, 2, "0 ") == 0; }},
        {"EGW_SetOneElementToDefaultStates", [](Panel& p) { EGW_SetOneElementToDefaultStates(p.detector); return show(); }, gives(""), false, [](Panel& p) { EGW_ELementServerSetStateValueByUuid(0x60002, p.detector, 0x80001, nullptr); }},
        // ---- relationship and population queries -----------------------------------------------
        {"EGW_BroadcastCommandToRelationship", [](Panel& p) { return show(EGW_BroadcastCommandToRelationship(p.detector, 0x14001, p.zone, kProxyRelation, TRUE, TRUE, nullptr)); }, givesOrNormal(show(0)), true},
        {"EGW_BASIC_THRIFT_GetVisibleRelationElementList", [](Panel& p) { std::vector<int> v{0}; EGW_BASIC_THRIFT_GetVisibleRelationElementList(p.detector, kProxyRelation, 1, v, nullptr); return p.ids(v); }, fewerItems()},
        {"EGW_BASIC_THRIFT_GetAllElementUuidByElementType", [](Panel& p) { std::vector<unsigned> v{0}; const UINT32 n = EGW_BASIC_THRIFT_GetAllElementUuidByElementType(p.root, 0, v, nullptr); return n == v.size() ? p.ids(v) : "count differs"; }, fewerItems()},
        {"EBT_SUB_GetAllElementUuidByElementType", [](Panel& p) { std::vector<unsigned> v; EBT_SUB_GetAllElementUuidByElementType(p.root, 0x70172, v, nullptr); return p.ids(v); }, fewerItems()},
        {"EGW_ELementServerDeleteElementWaitNotifyByUuid", [](Panel& p) { std::vector<S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST> c; return show(EGW_ELementServerDeleteElementWaitNotifyByUuid(p.spare, c, 2)); }, givesOrNormal(show(kStatus))},
        {"EGW_BASIC_THRIFT_GetAllChildrenElementType", [](Panel&) { std::vector<unsigned> v{1}; EGW_BASIC_THRIFT_GetAllChildrenElementType(v, 0x70169); return list(v); }, someItems()},
        {"EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner", [](Panel&) { std::vector<unsigned> v; EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(v, 0x70292); return list(v); }, someItems()},
        // ---- type-library queries --------------------------------------------------------------
        {"EGW_ElementServerGetPropertyTypeById", [](Panel&) { return show(EGW_ElementServerGetPropertyTypeById(0x30004)); }, gives(show(0))},
        {"ISValidTypeByPropertyID", [](Panel&) { return show(ISValidTypeByPropertyID(0x30004)); }, gives(show(0))},
        {"IsNumberTypeByPropertyID", [](Panel&) { UINT32 t = 99; const BOOL r = IsNumberTypeByPropertyID(0x30004, &t); return show(r, t); }, gives(show(0, 99))},
        {"IsStringTypeByPropertyID", [](Panel&) { UINT32 t = 99; const BOOL r = IsStringTypeByPropertyID(0x30002, &t); return show(r, t); }, gives(show(0, 99))},
        {"IsBoolTypeByByPropertyID", [](Panel&) { UINT32 t = 99; const BOOL r = IsBoolTypeByByPropertyID(0x30006, &t); return show(r, t); }, gives(show(0, 99))},
        {"IsEnumTypeByByPropertyID", [](Panel&) { UINT32 t = 99; const BOOL r = IsEnumTypeByByPropertyID(0x30009, &t); return show(r, t); }, gives(show(0, 99))},
        {"EGW_BASIC_GetVisibleByElementType", [](Panel&) { return show(EGW_BASIC_GetVisibleByElementType(0x70048)); }, gives(show(0))},
        {"EGW_GetDefaultStatusOfGroup", [](Panel&) { return show(EGW_GetDefaultStatusOfGroup(0x80001)); }, gives(show(0))},
        {"EGW_GetAllStatusInGroup", [](Panel&) { std::vector<unsigned> v{1}; const UINT32 n = EGW_GetAllStatusInGroup(0x80001, v); return show(n, list(v)); }, gives(show(0, "[ ]"))},
        {"EGW_ELementServerGetCommandListByElementTypeId", [](Panel&) { std::vector<unsigned> v{1}; const UINT32 n = EGW_ELementServerGetCommandListByElementTypeId(v, 0x70048); return show(n, list(v)); }, gives(show(0, "[ ]"))},
        {"EGW_ElementServerGetStateGroupIdListByElementTypeId", [](Panel&) { std::vector<unsigned> v{1}; const BOOL r = EGW_ElementServerGetStateGroupIdListByElementTypeId(v, 0x70048); return show(r, list(v)); }, gives(show(0, "[ ]"))},
        {"EGW_ELementServerGetPropertyInformationList", [](Panel&) { std::vector<EGW_PropertyDef_Thrift> v(3); const UINT32 n = EGW_ELementServerGetPropertyInformationList(0x70048, v); return show(n, v.size()); }, gives(show(0, 3))},
        {"EGW_ELementServerGetRelationList", [](Panel&) { std::vector<EGW_RelationDef_Thrift> v(3); const UINT32 n = EGW_ELementServerGetRelationList(0x70169, v); return show(n, v.size()); }, gives(show(0, 0))},
        {"EGW_ELementServerGetPropertyDefaultDataList", [](Panel&) { std::vector<PropertyDefaultDef> v(3); const UINT32 n = EGW_ELementServerGetPropertyDefaultDataList(0x70048, v); return show(n, v.size()); }, gives(show(0, 0))},
        // ---- identity --------------------------------------------------------------------------
        {"GetUniqueElement", [](Panel& p) { int e = 0; const Element found = GetUniqueElement(0x0170, &e); const std::string id = p.id(found.GetUUID()); return show(e != 0, id); }, gives(show(true, "0"))},
        {"checkTable", [](Panel&) { const unsigned short t[] = {1, 2}; return show(checkTable(t, 2, 2)); }, gives("")},
        {"IsPoints", [](Panel&) { return show(IsPoints(0x6239)); }, gives("")},
        {"whoami", [](Panel& p) { Element e(p.section); unsigned n[5] = {}; whoami(e, n[0], n[1], n[2], n[3], n[4]); return show(n[0], n[1], n[2], n[3], n[4]); }, gives(show(0, 0, 0, 0, 0))},
        {"GetIDString", [](Panel& p) { Element e(p.subUnit); return GetIDString(e); }, fewerItems('.')},
        // ---- event detail ----------------------------------------------------------------------
        {"ENEventFormat::ENEventFormat", [](Panel&) { ENEventFormat f; (void)f; return show(); }, gives("")},
        {"ENEventFormat::IsInputZone", [format](Panel& p) mutable { return show(format.IsInputZone(p.indicator)); }, gives(show(false))},
        {"ENEventFormat::IsChildOfBoradOr4MCard", [format](Panel& p) mutable { return show(format.IsChildOfBoradOr4MCard(p.boardInput)); }, gives(show(false))},
        {"ENEventFormat::IsIO_Module_FD_FRD", [format](Panel&) mutable { return show(format.IsIO_Module_FD_FRD(0x70061)); }, gives("")},
        {"ENEventFormat::IsChannelOfIOModule", [format](Panel&) mutable { return show(format.IsChannelOfIOModule(0x70105)); }, gives("")},
        {"ENEventFormat::IsDetector", [format](Panel&) mutable { return show(format.IsDetector(0x70048)); }, gives("")},
        {"ENEventFormat::IsAddresSounder", [format](Panel&) mutable { return show(format.IsAddresSounder(0x70081)); }, gives("")},
        {"ENEventFormat::CheckCategoryByType", [format](Panel& p) mutable { return show(format.CheckCategoryByType(p.detector)); }, givesOrNormal(show(0))},
        {"ENEventFormat::GetSelfIDAndAddress", [format](Panel& p) mutable { return withField(p, [&](ENENT_FIELD& f) { format.GetSelfIDAndAddress(p.detector, f, false, true); }); }, fieldsFrom(kUntouchedField)},
        {"ENEventFormat::GetParentIDAndAdress", [format](Panel& p) mutable { return withField(p, [&](ENENT_FIELD& f) { format.GetParentIDAndAdress(p.detector, f, false, true); }); }, fieldsFrom(kUntouchedField)},
        {"ENEventFormat::GetDeviceID", [format](Panel& p) mutable { return withField(p, [&](ENENT_FIELD& f) { format.GetDeviceID(p.subUnit, f, true); }); }, fieldsFrom(kUntouchedField)},
        {"ENEventFormat::GetProxyElementID", [format](Panel& p) mutable { return p.id(format.GetProxyElementID(p.detector, true)); }, givesOrNormal("0")},
        {"ENEventFormat::GetProxyEvacZoneID", [format](Panel& p) mutable { return p.id(format.GetProxyEvacZoneID(p.sounder, true)); }, givesOrNormal("0")},
        {"ENEventFormat::GetProxyIDAndAddress", [format](Panel& p) mutable { return withField(p, [&](ENENT_FIELD& f) { format.GetProxyIDAndAddress(p.detector, f, true, true, false); }); }, fieldsFrom(kUntouchedField)},
        {"ENEventFormat::GetEventDetails", [format](Panel& p) mutable { int c = 0; std::string f = withField(p, [&](ENENT_FIELD& r) { c = format.GetEventDetails(p.detector, r); }); return show(c) + f; }, fieldsFrom(std::string("ee ") + kUntouchedField)},
    };
}

// The counts of the whole loop, printed once at the end of the program.
struct Totals
{
    unsigned long runs = 0;
    unsigned long functions = 0;
};

Totals& totals()
{
    static Totals t;
    return t;
}

// Releases every element-server lock that this thread holds: rows lock, and a faulted unlock
// leaves the lock held.
void releaseLocks()
{
    while (EGW_ElementServerUnlock(nullptr) == 0)
    {
    }
}

class FaultLoop : public PanelTest, public ::testing::WithParamInterface<Row>
{
protected:
    void TearDown() override
    {
        releaseLocks();
        PanelTest::TearDown();
    }

    Panel prepare(const Row& row)
    {
        releaseLocks();
        panelsim::reset(); // also drops the fixture's log sink
        panelsim::setLogSink([](int, const std::string&, const std::string&) {});
        panelsim::loginModule(kSamplePid);
        Panel panel;
        static_cast<SamplePanel&>(panel) = buildSamplePanel();
        if (row.setup)
            row.setup(panel);
        panel.names = dumpTree();
        assertReports().clear();
        return panel;
    }

    Normal undisturbed(const Row& row)
    {
        Panel panel = prepare(row);
        const unsigned long start = panelsim::hostCallCount();
        Normal normal{row.call(panel), {}, 0};
        normal.calls = panelsim::hostCallCount() - start;
        normal.tree = dumpTree(&panel.names);
        EXPECT_TRUE(assertReports().empty()) << row.function << " reports without a fault";
        return normal;
    }

    // One run with the k-th call failing; false once the call completed without reaching it.
    bool faultedRun(const Row& row, const Normal& normal, unsigned k, panelsim::FaultKind kind,
                    bool persistent)
    {
        Panel panel = prepare(row);
        const TreeDump& before = panel.names;
        panelsim::startTrace();
        panelsim::injectFaultAtCall(k, kind, persistent, kStatus);
        std::string result;
        bool threw = false;
        try
        {
            result = row.call(panel);
        }
        catch (const panelsim::InjectedFault&)
        {
            threw = true;
        }
        const std::vector<std::string> trace = panelsim::stopTrace();
        panelsim::clearFaults();
        ++totals().runs;
        const bool reached = trace.size() >= k;
        const auto failed = trace.begin() + std::min<std::size_t>(k - 1, trace.size());
        const bool visible = std::any_of(failed, persistent || failed == trace.end() ? trace.end() : failed + 1,
                                         failsVisibly);

        const std::string where = std::string(row.function) + " k=" + std::to_string(k) +
                                  (kind == panelsim::FaultKind::Throw ? " throw" : " fail") +
                                  (persistent ? " persistent" : " transient");
        EXPECT_EQ(panelsim::liveElements(), 0) << where;
        EXPECT_EQ(panelsim::liveProperties(), 0) << where;
        EXPECT_EQ(panelsim::propertiesOutlivingElements(), 0) << where;
        const TreeDump after = dumpTree(&before);
        if (!reached)
        {
            EXPECT_FALSE(threw) << where;
            EXPECT_EQ(result, normal.result) << where;
            EXPECT_EQ(outsidePartialState(normal.tree, after, normal.tree), "") << where;
            return false;
        }
        EXPECT_EQ(threw, kind == panelsim::FaultKind::Throw) << where << " result " << result;
        if (!threw && !visible)
        {
            EXPECT_EQ(result, normal.result) << where << ": a failure without effect changed the result";
            EXPECT_EQ(outsidePartialState(normal.tree, after, normal.tree), "") << where;
        }
        else if (!threw)
        {
            EXPECT_TRUE(row.check(result, normal.result))
                << where << ": gave \"" << result << "\", undisturbed \"" << normal.result << "\"";
        }
        EXPECT_EQ(outsidePartialState(before, after, normal.tree), "") << where;
        if (!row.mayReport)
        {
            EXPECT_TRUE(assertReports().empty())
                << where << " reported " << assertReports().front().expression;
        }
        return !HasFailure();
    }
};

TEST_P(FaultLoop, EveryHostCallFailsInTurn)
{
    const Row& row = GetParam();
    const Normal normal = undisturbed(row);
    ++totals().functions;
    for (const auto kind : {panelsim::FaultKind::Fail, panelsim::FaultKind::Throw})
    {
        for (const bool persistent : {false, true})
        {
            unsigned k = 1;
            while (k <= kMaxCalls && faultedRun(row, normal, k, kind, persistent))
                ++k;
            if (HasFailure())
                return;
            EXPECT_EQ(k, normal.calls + 1) << row.function << ": the loop ended early";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Exported, FaultLoop, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row>& row) {
                             std::string name = row.param.function;
                             std::replace(name.begin(), name.end(), ':', '_');
                             return name;
                         });

// Prints the totals when the program ends, for the evidence report.
class TotalsPrinter : public ::testing::Environment
{
public:
    void TearDown() override
    {
        std::printf("fault loop: %lu functions, %lu (function, k, kind, mode) runs\n",
                    totals().functions, totals().runs);
    }
};

const auto* const kTotalsPrinter = ::testing::AddGlobalTestEnvironment(new TotalsPrinter);

} // namespace
