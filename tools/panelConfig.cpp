// Loading a panel file: the whole file is read and checked into a plan first, so that a bad file is
// refused before the element tree is touched; only then is the plan built through the gateway.
#include "tools/panelConfig.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace panelconfig
{
namespace
{

using Json = nlohmann::ordered_json;
using Pointer = Json::json_pointer;

constexpr std::size_t kKinds = 5;
constexpr UINT32 kCategoryTag[kKinds] = {0x70000, 0x30000, 0x80000, 0x60000, 0x20000};
const char* const kKindText[kKinds] = {"element type", "property", "state group", "state value",
                                       "relation type"};

std::size_t indexOf(IdKind kind)
{
    return static_cast<std::size_t>(kind);
}

std::string hex(UINT32 value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

// Why the file is refused, and where.
struct Refusal
{
    std::string place;
    std::string problem;
};

[[noreturn]] void refuse(const Pointer& at, const std::string& problem)
{
    const std::string place = at.to_string();
    throw Refusal{place.empty() ? "/" : place, problem};
}

// A whole text of decimal digits, or of hexadecimal digits after "0x".
bool parseNumber(const std::string& text, unsigned long long& value)
{
    const bool isHex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = isHex ? text.substr(2) : text;
    const auto isDigit = [isHex](char c) {
        return isHex ? std::isxdigit(static_cast<unsigned char>(c)) != 0
                     : std::isdigit(static_cast<unsigned char>(c)) != 0;
    };
    if (digits.empty() || digits.size() > 16 || !std::all_of(digits.begin(), digits.end(), isDigit))
    {
        return false;
    }
    value = std::stoull(digits, nullptr, isHex ? 16 : 10);
    return true;
}

// An id with its category tag or without, and a number other than 0 in its lower 16 bits.
bool validId(IdKind kind, unsigned long long number, UINT32& id)
{
    const UINT32 tag = kCategoryTag[indexOf(kind)];
    if (number > 0xFFFFFFFFull || (number & 0xFFFFu) == 0 ||
        ((number >> 16) != 0 && (number & 0xFFFF0000u) != tag))
    {
        return false;
    }
    id = taggedId(kind, static_cast<UINT32>(number));
    return true;
}

// An id written as a number, a numeric text ("0x30004", "4") or a name of the type library.
UINT32 readId(const Json& j, const Pointer& at, IdKind kind, const Vocabulary& vocabulary)
{
    UINT32 id = 0;
    const bool valid = j.is_number_unsigned()
                           ? validId(kind, j.get<unsigned long long>(), id)
                           : j.is_string() && vocabulary.idFromText(kind, j.get<std::string>(), id);
    if (!valid)
    {
        const UINT32 tag = kCategoryTag[indexOf(kind)];
        refuse(at, j.dump() + " names no " + kKindText[indexOf(kind)] +
                       " (give its name, or its id: " + hex(tag | 0x1234u) + " or 0x1234)");
    }
    return id;
}

// ---- What the type library says about an element type, asked through the gateway ----------------

struct TypeFacts
{
    std::map<UINT32, UINT32> storageOfProperty;
    std::vector<unsigned int> stateGroups;
};

class TypeFactsCache
{
public:
    const TypeFacts& of(UINT32 type)
    {
        const auto found = facts_.find(type);
        if (found != facts_.end())
        {
            return found->second;
        }
        TypeFacts facts;
        std::vector<EGW_PropertyDef_Thrift> properties;
        EGW_ELementServerGetPropertyInformationList(type, properties);
        for (const EGW_PropertyDef_Thrift& property : properties)
        {
            facts.storageOfProperty[property.PropertyID] =
                EGW_ElementServerGetPropertyTypeById(property.PropertyID);
        }
        EGW_ElementServerGetStateGroupIdListByElementTypeId(facts.stateGroups, type);
        return facts_.emplace(type, std::move(facts)).first->second;
    }

    const std::vector<unsigned int>& valuesOf(UINT32 group)
    {
        auto found = values_.find(group);
        if (found == values_.end())
        {
            found = values_.emplace(group, std::vector<unsigned int>()).first;
            EGW_GetAllStatusInGroup(group, found->second);
        }
        return found->second;
    }

private:
    std::map<UINT32, TypeFacts> facts_;
    std::map<UINT32, std::vector<unsigned int>> values_;
};

// ---- The plan: the file, checked, in the order it will be built ---------------------------------

// How a property value reaches the gateway, by the property's storage type.
enum class Storage
{
    Truth,
    Integer,
    Bytes,
    DateTime
};

constexpr UINT32 kTruthStorage = 1;
constexpr UINT32 kDateTimeStorage = 2;

// Bytes held by the integer storage types (3, 4, 6, 19: 4; 5, 15: 2; 7, 16: 1), 0 for the others.
unsigned integerWidth(UINT32 storage)
{
    static constexpr unsigned char kWidth[20] = {0, 0, 0, 4, 4, 2, 4, 1, 0, 0,
                                                 0, 0, 0, 0, 0, 2, 1, 0, 0, 4};
    return storage < 20 ? kWidth[storage] : 0;
}

Storage storageKind(UINT32 storage)
{
    if (storage == kTruthStorage)
    {
        return Storage::Truth;
    }
    if (integerWidth(storage) != 0)
    {
        return Storage::Integer;
    }
    return storage == kDateTimeStorage ? Storage::DateTime : Storage::Bytes;
}

struct PlannedProperty
{
    Pointer at;
    UINT32 id;
    Storage storage;
    UINT32 number;
    std::string bytes;
    tagBSC_DATETIME dateTime;
};

struct PlannedState
{
    Pointer at;
    UINT32 group;
    UINT32 value;
};

struct PlannedRelation
{
    Pointer at;
    UINT32 type;
    std::string target;
    std::size_t targetIndex;
};

struct PlannedElement
{
    Pointer at;
    std::size_t parent; // index in the plan; the root has none
    UINT32 type;
    std::string key;
    std::vector<PlannedProperty> properties;
    std::vector<PlannedState> states;
    std::vector<PlannedRelation> relations;
};

constexpr std::size_t kNoParent = std::numeric_limits<std::size_t>::max();

void expectObject(const Json& j, const Pointer& at)
{
    if (!j.is_object())
    {
        refuse(at, "expected an object");
    }
}

void expectMembers(const Json& j, const Pointer& at, std::initializer_list<const char*> allowed)
{
    expectObject(j, at);
    for (const auto& item : j.items())
    {
        if (std::none_of(allowed.begin(), allowed.end(),
                         [&](const char* name) { return item.key() == name; }))
        {
            refuse(at / item.key(), "unknown member \"" + item.key() + "\"");
        }
    }
}

std::string optionalText(const Json& j, const Pointer& at, const char* member)
{
    if (!j.contains(member))
    {
        return std::string();
    }
    if (!j[member].is_string())
    {
        refuse(at / member, "expected a text");
    }
    return j[member].get<std::string>();
}

// A signed or unsigned whole number, also written as a numeric text.
long long wholeNumber(const Json& j, const Pointer& at)
{
    unsigned long long parsed = 0;
    if (j.is_number_integer())
    {
        return j.is_number_unsigned() && j.get<unsigned long long>() > 0xFFFFFFFFull
                   ? std::numeric_limits<long long>::max()
                   : j.get<long long>();
    }
    if (j.is_string() && parseNumber(j.get<std::string>(), parsed))
    {
        return parsed > 0xFFFFFFFFull ? std::numeric_limits<long long>::max()
                                      : static_cast<long long>(parsed);
    }
    refuse(at, "expected a whole number");
}

void planDateTime(const Json& j, const Pointer& at, tagBSC_DATETIME& dateTime)
{
    expectMembers(j, at, {"year", "month", "day", "weekDay", "secondOfDay", "microsecond"});
    const auto field = [&](const char* name, long long max) {
        const long long value = j.contains(name) ? wholeNumber(j[name], at / name) : 0;
        if (value < 0 || value > max)
        {
            refuse(at / name, "expected 0 to " + std::to_string(max));
        }
        return value;
    };
    dateTime.mYear = static_cast<unsigned short>(field("year", 0xFFFF));
    dateTime.mMonth = static_cast<unsigned char>(field("month", 12));
    dateTime.mDay = static_cast<unsigned char>(field("day", 31));
    dateTime.mWeekDay = static_cast<unsigned char>(field("weekDay", 7));
    dateTime.mSecondOfDay = static_cast<unsigned>(field("secondOfDay", 86399));
    dateTime.mMicrosecond = static_cast<unsigned>(field("microsecond", 999999));
}

PlannedProperty planProperty(UINT32 id, UINT32 storage, const Json& j, const Pointer& at)
{
    PlannedProperty property{at, id, storageKind(storage), 0, std::string(), tagBSC_DATETIME{}};
    switch (property.storage)
    {
    case Storage::Truth:
        if (!j.is_boolean())
        {
            refuse(at, "property " + hex(id) + " holds a truth value: expected true or false");
        }
        property.number = j.get<bool>() ? 1 : 0;
        break;
    case Storage::Integer:
    {
        const unsigned width = integerWidth(storage);
        const long long value = wholeNumber(j, at);
        const long long low = width == 1 ? 0 : -(1LL << (8 * width - 1));
        const long long high = (1LL << (8 * width)) - 1;
        if (value < low || value > high)
        {
            refuse(at, "property " + hex(id) + " holds " + std::to_string(width) +
                           " bytes: expected " + std::to_string(low) + " to " +
                           std::to_string(high));
        }
        property.number = static_cast<UINT32>(value);
        break;
    }
    case Storage::DateTime:
        planDateTime(j, at, property.dateTime);
        break;
    case Storage::Bytes:
        // The gateway writes byte strings of 1 to 65535 bytes; an empty value is left out instead.
        if (!j.is_string() || j.get<std::string>().empty() || j.get<std::string>().size() > 0xFFFF)
        {
            refuse(at, "property " + hex(id) + " holds a byte string: expected a text of 1 to " +
                           "65535 bytes");
        }
        property.bytes = j.get<std::string>();
        break;
    }
    return property;
}

class Planner
{
public:
    explicit Planner(const Vocabulary& vocabulary) : vocabulary_(vocabulary) {}

    std::vector<PlannedElement> plan(const Json& file, std::string& name)
    {
        const Pointer top;
        expectMembers(file, top, {"version", "name", "description", "root"});
        if (!file.contains("version") || file["version"] != 1)
        {
            refuse(top / "version", "expected the format version 1");
        }
        name = optionalText(file, top, "name");
        optionalText(file, top, "description");
        if (!file.contains("root"))
        {
            refuse(top / "root", "missing member");
        }
        element(file["root"], top / "root", kNoParent);
        resolveRelations();
        return std::move(plan_);
    }

private:
    void element(const Json& j, const Pointer& at, std::size_t parent)
    {
        expectMembers(j, at, {"key", "type", "properties", "states", "relations", "children"});
        if (!j.contains("type"))
        {
            refuse(at / "type", "missing member");
        }
        PlannedElement planned{at,
                               parent,
                               readId(j["type"], at / "type", IdKind::ElementType, vocabulary_),
                               optionalText(j, at, "key"),
                               {},
                               {},
                               {}};
        if (!vocabulary_.knows(IdKind::ElementType, planned.type))
        {
            refuse(at / "type",
                   "element type " + hex(planned.type) + " is not in the type library");
        }
        if (!planned.key.empty() && !keys_.emplace(planned.key, plan_.size()).second)
        {
            refuse(at / "key", "the key \"" + planned.key + "\" is given twice");
        }
        const TypeFacts& facts = facts_.of(planned.type);
        properties(j, at, facts, planned);
        states(j, at, facts, planned);
        relations(j, at, planned);
        const std::size_t index = plan_.size();
        plan_.push_back(std::move(planned));
        if (j.contains("children"))
        {
            const Json& children = j["children"];
            if (!children.is_array())
            {
                refuse(at / "children", "expected an array");
            }
            for (std::size_t i = 0; i < children.size(); ++i)
            {
                element(children[i], at / "children" / i, index);
            }
        }
    }

    // Calls visit(name, value, place) for each member of the object `member`, when there is one.
    template <typename Visit>
    static void forEachMember(const Json& j, const Pointer& at, const char* member, Visit visit)
    {
        if (!j.contains(member))
        {
            return;
        }
        const Pointer objectAt = at / member;
        expectObject(j[member], objectAt);
        for (const auto& item : j[member].items())
        {
            visit(item.key(), item.value(), objectAt / item.key());
        }
    }

    void properties(const Json& j, const Pointer& at, const TypeFacts& facts,
                    PlannedElement& planned)
    {
        forEachMember(
            j, at, "properties",
            [&](const std::string& name, const Json& value, const Pointer& itemAt) {
                const UINT32 id = readId(name, itemAt, IdKind::Property, vocabulary_);
                const auto storage = facts.storageOfProperty.find(id);
                if (storage == facts.storageOfProperty.end())
                {
                    refuse(itemAt,
                           "element type " + hex(planned.type) + " has no property " + hex(id));
                }
                planned.properties.push_back(planProperty(id, storage->second, value, itemAt));
            });
    }

    void states(const Json& j, const Pointer& at, const TypeFacts& facts, PlannedElement& planned)
    {
        forEachMember(
            j, at, "states",
            [&](const std::string& name, const Json& value, const Pointer& itemAt) {
                const UINT32 group = readId(name, itemAt, IdKind::StateGroup, vocabulary_);
                if (std::count(facts.stateGroups.begin(), facts.stateGroups.end(), group) == 0)
                {
                    refuse(itemAt, "element type " + hex(planned.type) + " has no state group " +
                                       hex(group));
                }
                const UINT32 stateValue = readId(value, itemAt, IdKind::StateValue, vocabulary_);
                const std::vector<unsigned int>& values = facts_.valuesOf(group);
                if (std::count(values.begin(), values.end(), stateValue) == 0)
                {
                    refuse(itemAt, "state group " + hex(group) + " cannot take the value " +
                                       hex(stateValue));
                }
                planned.states.push_back({itemAt, group, stateValue});
            });
    }

    void relations(const Json& j, const Pointer& at, PlannedElement& planned)
    {
        if (!j.contains("relations"))
        {
            return;
        }
        const Json& list = j["relations"];
        if (!list.is_array())
        {
            refuse(at / "relations", "expected an array");
        }
        for (std::size_t i = 0; i < list.size(); ++i)
        {
            const Pointer itemAt = at / "relations" / i;
            expectMembers(list[i], itemAt, {"type", "to"});
            if (!list[i].contains("type") || !list[i].contains("to"))
            {
                refuse(itemAt, "a relation needs a \"type\" and a \"to\"");
            }
            const UINT32 type =
                readId(list[i]["type"], itemAt / "type", IdKind::Relation, vocabulary_);
            const std::string target = optionalText(list[i], itemAt, "to");
            planned.relations.push_back({itemAt, type, target, 0});
        }
    }

    // Relations may point forward in the file, so their targets are found once every key is known.
    void resolveRelations()
    {
        for (std::size_t holder = 0; holder < plan_.size(); ++holder)
        {
            std::set<std::pair<UINT32, std::size_t>> seen;
            for (PlannedRelation& relation : plan_[holder].relations)
            {
                const auto found = keys_.find(relation.target);
                if (found == keys_.end())
                {
                    refuse(relation.at / "to",
                           "no element has the key \"" + relation.target + "\"");
                }
                relation.targetIndex = found->second;
                if (!seen.emplace(relation.type, relation.targetIndex).second)
                {
                    refuse(relation.at,
                           "the relation to \"" + relation.target + "\" is given twice");
                }
            }
        }
    }

    const Vocabulary& vocabulary_;
    TypeFactsCache facts_;
    std::map<std::string, std::size_t> keys_;
    std::vector<PlannedElement> plan_;
};

// ---- Building the plan through the gateway ------------------------------------------------------

bool applyProperty(UINT32 uuid, const PlannedProperty& p)
{
    switch (p.storage)
    {
    case Storage::Truth:
        return EGW_ElementServerSetPropertyBoolDataById(uuid, p.id, static_cast<int>(p.number),
                                                        nullptr) == TRUE;
    case Storage::Integer:
        return EGW_ElementServerSetPropertyIntDataById(uuid, p.id, p.number, nullptr) == TRUE;
    case Storage::DateTime:
        return EGW_ElementServerSetPropertyDatetimeDataById(uuid, p.id, p.dateTime, nullptr) ==
               TRUE;
    case Storage::Bytes:
        break;
    }
    return EGW_ElementServerSetStringProperty(p.bytes.data(), static_cast<UINT16>(p.bytes.size()),
                                              uuid, p.id, nullptr) == TRUE;
}

void build(const std::vector<PlannedElement>& plan, std::vector<UINT32>& uuids)
{
    for (const PlannedElement& element : plan)
    {
        const UINT32 parent = element.parent == kNoParent ? 0 : uuids[element.parent];
        const UINT32 uuid = EGW_ELementServerAddElementByType(parent, element.type, false, nullptr);
        if (uuid == 0)
        {
            refuse(element.at, "the element server refused to add the element");
        }
        uuids.push_back(uuid);
        for (const PlannedProperty& property : element.properties)
        {
            if (!applyProperty(uuid, property))
            {
                refuse(property.at, "the element server refused the value");
            }
        }
        for (const PlannedState& state : element.states)
        {
            if (EGW_ELementServerSetStateValueByUuid(state.value, uuid, state.group, nullptr) !=
                TRUE)
            {
                refuse(state.at, "the element server refused the state value");
            }
        }
    }
    for (std::size_t i = 0; i < plan.size(); ++i)
    {
        for (const PlannedRelation& relation : plan[i].relations)
        {
            if (EGW_ELementServerAddReferenceRelation(static_cast<int>(uuids[i]),
                                                      static_cast<int>(uuids[relation.targetIndex]),
                                                      relation.type, nullptr) != TRUE)
            {
                refuse(relation.at, "the element server refused the relation");
            }
        }
    }
    // Validation gives each element its GUID, in file order, once the whole panel stands.
    for (std::size_t i = 0; i < plan.size(); ++i)
    {
        const INT32 status = EGW_ELementServerValidateElementByUuid(uuids[i], nullptr);
        if (status != 0)
        {
            refuse(plan[i].at, "the element server refused to validate the element (status " +
                                   std::to_string(status) + ")");
        }
    }
}

// nlohmann reports "[json.exception.parse_error.101] parse error at line 3, column 7: <problem>";
// the place and the problem are kept.
std::string syntaxProblem(const Json::parse_error& e)
{
    const std::string what = e.what();
    const std::string marker = "parse error at ";
    const auto at = what.find(marker);
    return at == std::string::npos ? what : what.substr(at + marker.size());
}

} // namespace

// ---- Vocabulary ---------------------------------------------------------------------------------

UINT32 taggedId(IdKind kind, UINT32 id)
{
    return (id & 0xFFFF0000u) != 0 ? id : (kCategoryTag[indexOf(kind)] | id);
}

void Vocabulary::add(IdKind kind, UINT32 id, const std::string& name)
{
    const std::size_t k = indexOf(kind);
    names_[k].emplace(id, name);
    if (!name.empty())
    {
        ids_[k].emplace(name, id);
    }
}

bool Vocabulary::idOf(IdKind kind, const std::string& name, UINT32& id) const
{
    const auto found = ids_[indexOf(kind)].find(name);
    if (found == ids_[indexOf(kind)].end())
    {
        return false;
    }
    id = found->second;
    return true;
}

std::string Vocabulary::nameOf(IdKind kind, UINT32 id) const
{
    const auto found = names_[indexOf(kind)].find(taggedId(kind, id));
    return found == names_[indexOf(kind)].end() ? std::string() : found->second;
}

bool Vocabulary::idFromText(IdKind kind, const std::string& text, UINT32& id) const
{
    unsigned long long number = 0;
    UINT32 named = 0;
    if (idOf(kind, text, named))
    {
        number = named;
    }
    else if (!parseNumber(text, number))
    {
        return false;
    }
    return validId(kind, number, id);
}

bool Vocabulary::knows(IdKind kind, UINT32 id) const
{
    return names_[indexOf(kind)].count(taggedId(kind, id)) != 0;
}

bool Vocabulary::fromTypeLibraryText(const std::string& text, const std::string& sourceName,
                                     Vocabulary& vocabulary, std::string& error)
{
    // The type library itself is checked by whoever puts it in force; only the names are read
    // here, so that a panel file and a tool speak of the same ids by the same names.
    try
    {
        const Json library = Json::parse(text);
        const auto readOne = [&](const Json& entry, IdKind kind) {
            unsigned long long id = 0;
            const Json& given = entry.contains("id") ? entry["id"] : Json();
            if (given.is_number_unsigned())
            {
                id = given.get<unsigned long long>();
            }
            else if (!given.is_string() || !parseNumber(given.get<std::string>(), id))
            {
                return;
            }
            vocabulary.add(kind, static_cast<UINT32>(id), entry.value("name", ""));
        };
        const auto read = [&](const Json& list, IdKind kind) {
            for (const Json& entry : list)
            {
                readOne(entry, kind);
            }
        };
        read(library.value("stateValues", Json::array()), IdKind::StateValue);
        read(library.value("stateGroups", Json::array()), IdKind::StateGroup);
        for (const Json& type : library.value("types", Json::array()))
        {
            readOne(type, IdKind::ElementType);
            read(type.value("properties", Json::array()), IdKind::Property);
        }
        return true;
    }
    catch (const Json::exception& e)
    {
        error = sourceName + ": " + e.what();
        return false;
    }
}

UINT32 LoadedPanel::uuidOf(const std::string& key) const
{
    for (const LoadedElement& element : elements)
    {
        if (!key.empty() && element.key == key)
        {
            return element.uuid;
        }
    }
    return 0;
}

// ---- Single values ------------------------------------------------------------------------------

std::string readPropertyValue(UINT32 uuid, UINT32 propertyId)
{
    const UINT32 storage = EGW_ElementServerGetPropertyTypeById(propertyId);
    Json value;
    int truth = 0;
    UINT32 number = 0;
    tagBSC_DATETIME dateTime{};
    std::string bytes;
    switch (storageKind(storage))
    {
    case Storage::Truth:
        if (EGW_ElementServerGetPropertyBoolDataById(uuid, propertyId, truth, nullptr) == TRUE)
        {
            value = truth != 0;
        }
        break;
    case Storage::Integer:
        if (EGW_ElementServerGetPropertyIntDataById(uuid, propertyId, number, nullptr) == TRUE)
        {
            // 2-byte values arrive sign-extended.
            value = integerWidth(storage) == 2 ? Json(static_cast<INT32>(number)) : Json(number);
        }
        break;
    case Storage::DateTime:
        if (EGW_ElementServerGetPropertyDatetimeDataById(uuid, propertyId, dateTime, nullptr) ==
            TRUE)
        {
            value = {{"year", dateTime.mYear},
                     {"month", dateTime.mMonth},
                     {"day", dateTime.mDay},
                     {"weekDay", dateTime.mWeekDay},
                     // Copied out: a reference to a field of the packed record is misaligned.
                     {"secondOfDay", UINT32{dateTime.mSecondOfDay}},
                     {"microsecond", UINT32{dateTime.mMicrosecond}}};
        }
        break;
    case Storage::Bytes:
        if (EGW_ElementServerGetPropertyDataByPropertyID(uuid, propertyId, bytes, nullptr) == TRUE)
        {
            value = bytes;
        }
        break;
    }
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool writePropertyValue(UINT32 uuid, UINT32 propertyId, const std::string& valueText,
                        std::string& error)
{
    const UINT32 type = EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
    if (type == 0)
    {
        error = "no element has the uuid " + std::to_string(uuid);
        return false;
    }
    TypeFactsCache facts;
    const auto storage = facts.of(type).storageOfProperty.find(propertyId);
    if (storage == facts.of(type).storageOfProperty.end())
    {
        error = "element type " + hex(type) + " has no property " + hex(propertyId);
        return false;
    }
    // A byte string may be given bare; everything else is written as in a panel file.
    Json value = Json::parse(valueText, nullptr, false);
    if (value.is_discarded() ||
        (storageKind(storage->second) == Storage::Bytes && !value.is_string()))
    {
        value = valueText;
    }
    try
    {
        if (!applyProperty(uuid, planProperty(propertyId, storage->second, value, Pointer())))
        {
            error = "the element server refused the value";
            return false;
        }
    }
    catch (const Refusal& refusal)
    {
        error = refusal.problem;
        return false;
    }
    return true;
}

// ---- Loading ------------------------------------------------------------------------------------

bool loadPanelText(const std::string& text, const std::string& sourceName,
                   const Vocabulary& vocabulary, LoadedPanel& panel, std::string& error)
{
    std::vector<UINT32> uuids;
    try
    {
        const Json file = Json::parse(text);
        if (EGW_ELementServerGetTreeRoot(nullptr) != 0)
        {
            refuse(Pointer(), "the element tree already holds a panel");
        }
        LoadedPanel loaded;
        const std::vector<PlannedElement> plan = Planner(vocabulary).plan(file, loaded.name);
        try
        {
            build(plan, uuids);
        }
        catch (...)
        {
            if (!uuids.empty())
            {
                EGW_ELementServerDeleteElementByUuid(uuids.front(), nullptr);
            }
            throw;
        }
        for (std::size_t i = 0; i < plan.size(); ++i)
        {
            loaded.elements.push_back({uuids[i], plan[i].key, plan[i].at.to_string()});
        }
        panel = std::move(loaded);
        return true;
    }
    catch (const Json::parse_error& e)
    {
        error = sourceName + ": " + syntaxProblem(e);
    }
    catch (const Refusal& refusal)
    {
        error = sourceName + ": " + refusal.place + ": " + refusal.problem;
    }
    return false;
}

bool loadPanelFile(const std::string& path, const Vocabulary& vocabulary, LoadedPanel& panel,
                   std::string& error)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
    {
        error = path + ": cannot be read: " + std::strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    return loadPanelText(text.str(), path, vocabulary, panel, error);
}

} // namespace panelconfig
