// Loading a panel file: the file is read as a stream of JSON events and checked into a compact
// plan, so that a bad file is refused before the element tree is touched and a panel of a million
// elements never stands in memory as a JSON document; only then is the plan built through the
// gateway.
#include "tools/panelConfig.h"
#include "tools/valueRules.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <limits>
#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

namespace panelconfig
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr std::size_t kKinds = 5;
constexpr UINT32 kCategoryTag[kKinds] = {0x70000, 0x30000, 0x80000, 0x60000, 0x20000};
const char* const kKindText[kKinds] = {"element type", "property", "state group", "state value",
                                       "relation type"};

// Validation numbers every element that has a GUID from the counter that the tree's root keeps.
constexpr UINT32 kGuidProperty = 0x301A4;
constexpr UINT32 kGuidCounterProperty = 0x301A6;
// The relation kind that says which element types may stand below a type.
constexpr signed char kChildTypeRelation = 0;

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

// Why the file is refused, and where (a JSON pointer; empty for the whole file).
struct Refusal
{
    std::string place;
    std::string problem;
};

// A JSON pointer token: "~" and "/" in a member name are escaped.
std::string token(std::string_view name)
{
    std::string text;
    for (const char c : name)
    {
        text += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return text;
}

// Where a value stands below the member being read: a chain of tokens, made into a JSON pointer
// only when something is refused.
struct Place
{
    const Place* up;
    std::string_view name; // a member name, or empty with an index
    std::size_t index;

    static constexpr std::size_t kMember = std::numeric_limits<std::size_t>::max();

    Place member(std::string_view child) const { return {this, child, kMember}; }
    Place item(std::size_t i) const { return {this, std::string_view(), i}; }
    std::string text() const
    {
        return (up ? up->text() : std::string()) + "/" +
               (index == kMember ? token(name) : std::to_string(index));
    }
};

[[noreturn]] void refuse(const Place& at, const std::string& problem)
{
    throw Refusal{at.text(), problem};
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
UINT32 readId(const Json& j, const Place& at, IdKind kind, const Vocabulary& vocabulary)
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

// "0x30031 AlarmThreshold", or the number alone when the id has no name.
std::string named(const Vocabulary& vocabulary, IdKind kind, UINT32 id)
{
    const std::string name = vocabulary.nameOf(kind, id);
    return name.empty() ? hex(id) : hex(id) + " " + name;
}

// ---- What the type library says about an element type, asked through the gateway ----------------

struct TypeFacts
{
    std::map<UINT32, UINT32> storageOfProperty;
    std::vector<unsigned int> stateGroups;
    std::vector<UINT32> childTypes; // sorted
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
        std::vector<EGW_RelationDef_Thrift> relations;
        EGW_ELementServerGetRelationList(type, relations);
        for (const EGW_RelationDef_Thrift& relation : relations)
        {
            if (relation.RelationKind == kChildTypeRelation)
            {
                facts.childTypes.push_back(relation.RelatedTypeID);
            }
        }
        std::sort(facts.childTypes.begin(), facts.childTypes.end());
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

// ---- Property values ----------------------------------------------------------------------------

// How a property value reaches the gateway, by the property's storage type.
enum class Storage : unsigned char
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

// One property value, checked against its storage type.
struct Value
{
    Storage storage;
    UINT32 number;
    std::string bytes; // a byte string, or the 13 bytes of a date-time record
};

void expectMembers(const Json& j, const Place& at, std::initializer_list<const char*> allowed)
{
    if (!j.is_object())
    {
        refuse(at, "expected an object");
    }
    for (const auto& item : j.items())
    {
        if (std::none_of(allowed.begin(), allowed.end(),
                         [&](const char* name) { return item.key() == name; }))
        {
            refuse(at.member(item.key()), "unknown member \"" + item.key() + "\"");
        }
    }
}

// A signed or unsigned whole number, also written as a numeric text; `what` names the property or
// member when it is none (made only then: a large panel has millions of values).
template <typename What>
long long wholeNumber(const Json& j, const Place& at, What what)
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
    refuse(at, what() + ": expected a whole number, got " + j.dump());
}

tagBSC_DATETIME planDateTime(const Json& j, const Place& at, UINT32 id)
{
    expectMembers(j, at, {"year", "month", "day", "weekDay", "secondOfDay", "microsecond"});
    const auto field = [&](const char* name, long long max) {
        const auto what = [&] { return "property " + hex(id) + " member " + name; };
        const long long value = j.contains(name) ? wholeNumber(j[name], at.member(name), what) : 0;
        if (value < 0 || value > max)
        {
            refuse(at.member(name), what() + ": expected 0 to " + std::to_string(max));
        }
        return value;
    };
    tagBSC_DATETIME dateTime{};
    dateTime.mYear = static_cast<unsigned short>(field("year", 0xFFFF));
    dateTime.mMonth = static_cast<unsigned char>(field("month", 12));
    dateTime.mDay = static_cast<unsigned char>(field("day", 31));
    dateTime.mWeekDay = static_cast<unsigned char>(field("weekDay", 7));
    dateTime.mSecondOfDay = static_cast<unsigned>(field("secondOfDay", 86399));
    dateTime.mMicrosecond = static_cast<unsigned>(field("microsecond", 999999));
    return dateTime;
}

Value planValue(UINT32 id, UINT32 storage, const Json& j, const Place& at)
{
    const auto property = [id] { return "property " + hex(id); };
    Value value{storageKind(storage), 0, std::string()};
    switch (value.storage)
    {
    case Storage::Truth:
        if (!j.is_boolean())
        {
            refuse(at, property() + " holds a truth value: expected true or false");
        }
        value.number = j.get<bool>() ? 1 : 0;
        break;
    case Storage::Integer:
    {
        const unsigned width = integerWidth(storage);
        const auto holds = [&] {
            return property() + " holds " + std::to_string(width) + " bytes";
        };
        const long long number = wholeNumber(j, at, holds);
        const long long low = width == 1 ? 0 : -(1LL << (8 * width - 1));
        const long long high = (1LL << (8 * width)) - 1;
        if (number < low || number > high)
        {
            refuse(at, egwvalues::outOfRange(id, low, high, number));
        }
        value.number = static_cast<UINT32>(number);
        break;
    }
    case Storage::DateTime:
    {
        const tagBSC_DATETIME dateTime = planDateTime(j, at, id);
        value.bytes.assign(reinterpret_cast<const char*>(&dateTime), sizeof dateTime);
        break;
    }
    case Storage::Bytes:
        // The gateway writes byte strings of 1 to 65535 bytes; an empty value is left out instead.
        if (!j.is_string() || j.get<std::string>().empty() || j.get<std::string>().size() > 0xFFFF)
        {
            refuse(at, property() + " holds a byte string: expected a text of 1 to 65535 bytes");
        }
        value.bytes = j.get<std::string>();
        break;
    }
    return value;
}

bool applyValue(UINT32 uuid, UINT32 id, Storage storage, UINT32 number, const char* bytes,
                std::size_t size)
{
    switch (storage)
    {
    case Storage::Truth:
        return EGW_ElementServerSetPropertyBoolDataById(uuid, id, static_cast<int>(number),
                                                        nullptr) == TRUE;
    case Storage::Integer:
        return EGW_ElementServerSetPropertyIntDataById(uuid, id, number, nullptr) == TRUE;
    case Storage::DateTime:
    {
        tagBSC_DATETIME dateTime{};
        std::memcpy(&dateTime, bytes, sizeof dateTime);
        return EGW_ElementServerSetPropertyDatetimeDataById(uuid, id, dateTime, nullptr) == TRUE;
    }
    case Storage::Bytes:
        break;
    }
    return EGW_ElementServerSetStringProperty(bytes, static_cast<UINT16>(size), uuid, id,
                                              nullptr) == TRUE;
}

// ---- The plan: the file, checked, in the order it will be built ---------------------------------

// A property, state or relation of a planned element. Kept small: a large panel has millions.
enum class ItemKind : unsigned char
{
    Property,
    State,
    Relation
};

struct Item
{
    UINT32 id;    // property id, state group or relation type
    UINT32 value; // the number; the state value; where the bytes start in the pool; the target
    UINT32 extra; // how many bytes; for a relation its index in the element's list
    UINT32 name;  // the member name as written (properties, states), in the string table
    ItemKind kind;
    Storage storage;
};

struct PlannedElement
{
    UINT32 type;
    UINT32 parent;  // index in the plan; the root has none
    UINT32 ordinal; // index among its parent's children
    UINT32 firstItem;
    UINT32 items;
};

constexpr UINT32 kNoParent = std::numeric_limits<UINT32>::max();

struct Plan
{
    std::string name;
    std::deque<PlannedElement> elements; // a deque: no copy of the whole while it grows
    std::deque<Item> items;
    std::string pool;                 // byte strings and date-time records
    std::vector<std::string> strings; // member names and relation targets, each once
    std::unordered_map<std::string, UINT32> stringIds;
    std::unordered_map<std::string, UINT32> elementOfKey;

    UINT32 intern(const std::string& text)
    {
        const auto found = stringIds.emplace(text, static_cast<UINT32>(strings.size()));
        if (found.second)
        {
            strings.push_back(text);
        }
        return found.first->second;
    }

    // The element's JSON pointer, made from its ancestors' places among their siblings.
    // A loop, not a recursion: a file may nest elements deeper than a stack goes.
    std::string pointerOf(UINT32 index) const
    {
        std::vector<UINT32> ordinals;
        for (UINT32 at = index; elements[at].parent != kNoParent; at = elements[at].parent)
        {
            ordinals.push_back(elements[at].ordinal);
        }
        std::string text = "/root";
        for (auto ordinal = ordinals.rbegin(); ordinal != ordinals.rend(); ++ordinal)
        {
            text += "/children/" + std::to_string(*ordinal);
        }
        return text;
    }
};

// The members of an element in the file, by their bit.
enum Member : unsigned
{
    KeyMember = 1,
    TypeMember = 2,
    PropertiesMember = 4,
    StatesMember = 8,
    RelationsMember = 16,
    ChildrenMember = 32,
    VersionMember = 64,
    NameMember = 128,
    DescriptionMember = 256,
    RootMember = 512
};

struct MemberName
{
    const char* name;
    Member bit;
};

constexpr MemberName kElementMembers[] = {
    {"key", KeyMember},       {"type", TypeMember},           {"properties", PropertiesMember},
    {"states", StatesMember}, {"relations", RelationsMember}, {"children", ChildrenMember}};
constexpr MemberName kFileMembers[] = {{"version", VersionMember},
                                       {"name", NameMember},
                                       {"description", DescriptionMember},
                                       {"root", RootMember}};

// Reads the file's JSON events (nlohmann's SAX interface) into the plan. The tree is streamed
// element by element; the small members of an element (key, type, properties, states, relations)
// are taken whole and checked as soon as the element's type is known.
class Reader
{
public:
    Reader(const Vocabulary& vocabulary, Plan& plan, std::function<void()> tick)
        : vocabulary_(vocabulary), plan_(plan), tick_(std::move(tick))
    {
    }

    // What the type library said about the types read, for the checks across the whole file.
    TypeFactsCache& facts() { return facts_; }

    // ---- nlohmann's SAX events ----
    bool null() { return scalar(Json()); }
    bool boolean(bool value) { return scalar(Json(value)); }
    bool number_integer(Json::number_integer_t value) { return scalar(Json(value)); }
    bool number_unsigned(Json::number_unsigned_t value) { return scalar(Json(value)); }
    bool number_float(Json::number_float_t value, const std::string&)
    {
        return scalar(Json(value));
    }
    bool string(std::string& value) { return scalar(Json(std::move(value))); }
    bool binary(Json::binary_t&) { return scalar(Json()); }

    bool start_object(std::size_t)
    {
        if (capturing_)
        {
            return open(Json::object());
        }
        if (depth_ == 0)
        {
            push(FrameKind::File, 0);
            return true;
        }
        Frame& top = frames_[depth_ - 1];
        if (top.kind == FrameKind::Children)
        {
            startElement(static_cast<UINT32>(top.element), top.children++);
            return true;
        }
        if (top.expecting != RootMember)
        {
            misplaced();
        }
        top.expecting = 0;
        startElement(kNoParent, 0);
        return true;
    }

    bool key(std::string& name)
    {
        if (capturing_)
        {
            const Json& object = *captureStack_.back();
            if (object.contains(name))
            {
                throw Refusal{captureText() + "/" + token(name), "\"" + name + "\" is given twice"};
            }
            captureKeys_.push_back(name);
            return true;
        }
        Frame& top = frames_[depth_ - 1];
        const bool isFile = top.kind == FrameKind::File;
        const MemberName* begin = isFile ? std::begin(kFileMembers) : std::begin(kElementMembers);
        const MemberName* end = isFile ? std::end(kFileMembers) : std::end(kElementMembers);
        const MemberName* found =
            std::find_if(begin, end, [&](const MemberName& m) { return name == m.name; });
        if (found == end)
        {
            throw Refusal{frameText(top) + "/" + token(name), "unknown member \"" + name + "\""};
        }
        if ((top.seen & found->bit) != 0)
        {
            throw Refusal{frameText(top) + "/" + name, "\"" + name + "\" is given twice"};
        }
        top.seen |= found->bit;
        if (found->bit == RootMember || found->bit == ChildrenMember)
        {
            top.expecting = found->bit;
        }
        else
        {
            capturing_ = true;
            captureMember_ = found->bit;
            captureName_ = found->name;
        }
        return true;
    }

    bool end_object()
    {
        if (capturing_)
        {
            return close();
        }
        if (frames_[depth_ - 1].kind == FrameKind::Element)
        {
            endElement();
        }
        else
        {
            endFile();
        }
        --depth_;
        return true;
    }

    bool start_array(std::size_t)
    {
        if (capturing_)
        {
            return open(Json::array());
        }
        if (depth_ == 0 || frames_[depth_ - 1].expecting != ChildrenMember)
        {
            misplaced();
        }
        Frame& top = frames_[depth_ - 1];
        top.expecting = 0;
        push(FrameKind::Children, top.element);
        return true;
    }

    bool end_array()
    {
        if (capturing_)
        {
            return close();
        }
        --depth_; // the children of an element
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const Json::exception& e)
    {
        // nlohmann reports "[json.exception.parse_error.101] parse error at line 3, column 7:
        // <problem>"; the place and the problem are kept.
        const std::string what = e.what();
        const std::string marker = "parse error at ";
        const auto at = what.find(marker);
        throw Refusal{"", at == std::string::npos ? what : what.substr(at + marker.size())};
    }

private:
    enum class FrameKind : unsigned char
    {
        File,
        Element,
        Children
    };

    // An open object or array of the tree: the file, an element, an element's children.
    struct Frame
    {
        FrameKind kind = FrameKind::File;
        std::size_t element = 0; // the element, or the parent of the children
        UINT32 children = 0;     // children opened so far
        unsigned seen = 0;       // members given so far
        unsigned expecting = 0;  // RootMember or ChildrenMember right after that member's name
        std::vector<Item> items;
        std::vector<std::pair<Member, Json>> waiting; // members that need the type, before it
    };

    void push(FrameKind kind, std::size_t element)
    {
        if (depth_ == frames_.size())
        {
            frames_.emplace_back();
        }
        Frame& frame = frames_[depth_++];
        frame.kind = kind;
        frame.element = element;
        frame.children = 0;
        frame.seen = 0;
        frame.expecting = 0;
        frame.items.clear();
        frame.waiting.clear();
    }

    // A value of the wrong kind where the tree goes on: the file, the root, an element's children.
    [[noreturn]] void misplaced() const
    {
        if (depth_ == 0)
        {
            throw Refusal{"", "expected an object"};
        }
        const Frame& top = frames_[depth_ - 1];
        if (top.kind == FrameKind::Children)
        {
            throw Refusal{plan_.pointerOf(static_cast<UINT32>(top.element)) + "/children/" +
                              std::to_string(top.children),
                          "expected an object"};
        }
        if (top.expecting == RootMember)
        {
            throw Refusal{"/root", "expected an object"};
        }
        throw Refusal{frameText(top) + "/children", "expected an array"};
    }

    std::string frameText(const Frame& frame) const
    {
        return frame.kind == FrameKind::File ? std::string()
                                             : plan_.pointerOf(static_cast<UINT32>(frame.element));
    }

    // ---- Small members, taken whole ----

    bool scalar(Json value)
    {
        if (!capturing_)
        {
            misplaced();
        }
        add(std::move(value));
        return true;
    }

    void add(Json value)
    {
        if (captureStack_.empty())
        {
            captured_ = std::move(value);
            finishCapture();
            return;
        }
        Json& top = *captureStack_.back();
        if (top.is_array())
        {
            top.push_back(std::move(value));
            return;
        }
        top[captureKeys_.back()] = std::move(value);
        captureKeys_.pop_back();
    }

    bool open(Json container)
    {
        if (captureStack_.empty())
        {
            captured_ = std::move(container);
            captureStack_.push_back(&captured_);
        }
        else
        {
            // The key stays until the container closes, so that places below it can be named.
            Json& top = *captureStack_.back();
            Json* slot = nullptr;
            if (top.is_array())
            {
                top.push_back(std::move(container));
                slot = &top.back();
            }
            else
            {
                slot = &top[captureKeys_.back()];
                *slot = std::move(container);
            }
            captureStack_.push_back(slot);
        }
        return true;
    }

    bool close()
    {
        captureStack_.pop_back();
        if (captureStack_.empty())
        {
            finishCapture();
        }
        else if (captureStack_.back()->is_object())
        {
            captureKeys_.pop_back();
        }
        return true;
    }

    // The place of the value being taken, for a member given twice inside it.
    std::string captureText() const
    {
        std::string text = frameText(frames_[depth_ - 1]) + "/" + captureName_;
        std::size_t key = 0;
        for (std::size_t i = 0; i + 1 < captureStack_.size(); ++i)
        {
            const Json& container = *captureStack_[i];
            text += "/" + (container.is_array() ? std::to_string(container.size() - 1)
                                                : token(captureKeys_[key++]));
        }
        return text;
    }

    void finishCapture()
    {
        capturing_ = false;
        Json value = std::move(captured_);
        Frame& top = frames_[depth_ - 1];
        if (top.kind == FrameKind::File)
        {
            fileMember(static_cast<Member>(captureMember_), value);
            return;
        }
        const UINT32 index = static_cast<UINT32>(top.element);
        try
        {
            elementMember(top, static_cast<Member>(captureMember_), std::move(value));
        }
        catch (Refusal& refusal)
        {
            refusal.place = plan_.pointerOf(index) + refusal.place;
            throw;
        }
    }

    void fileMember(Member member, const Json& value)
    {
        const Place at{nullptr, captureName_, Place::kMember};
        if (member == VersionMember && value != 1)
        {
            refuse(at, "expected the format version 1");
        }
        if ((member == NameMember || member == DescriptionMember) && !value.is_string())
        {
            refuse(at, "expected a text");
        }
        if (member == NameMember)
        {
            plan_.name = value.get<std::string>();
        }
    }

    // ---- Elements ----

    void startElement(UINT32 parent, UINT32 ordinal)
    {
        const std::size_t index = plan_.elements.size();
        if (index >= kNoParent)
        {
            throw Refusal{plan_.pointerOf(parent), "too many elements"};
        }
        plan_.elements.push_back({0, parent, ordinal, 0, 0});
        push(FrameKind::Element, index);
        if (index % 4096 == 0)
        {
            tick_();
        }
    }

    void elementMember(Frame& frame, Member member, Json value)
    {
        PlannedElement& element = plan_.elements[frame.element];
        const Place at{nullptr, captureName_, Place::kMember};
        if (member == KeyMember)
        {
            takeKey(frame.element, value, at);
        }
        else if (member == TypeMember)
        {
            element.type = value.is_string()
                               ? idOf(value.get_ref<const std::string&>(), at, IdKind::ElementType)
                               : readId(value, at, IdKind::ElementType, vocabulary_);
            if (!vocabulary_.knows(IdKind::ElementType, element.type))
            {
                refuse(at, "element type " + hex(element.type) + " is not in the type library");
            }
            for (auto& waiting : frame.waiting)
            {
                typedMember(frame, element.type, waiting.first, waiting.second);
            }
            frame.waiting.clear();
        }
        else if (element.type == 0)
        {
            frame.waiting.emplace_back(member, std::move(value));
        }
        else
        {
            typedMember(frame, element.type, member, value);
        }
    }

    void takeKey(std::size_t element, const Json& value, const Place& at)
    {
        if (!value.is_string())
        {
            refuse(at, "expected a text");
        }
        const std::string& key = value.get_ref<const std::string&>();
        unsigned long long number = 0;
        if (key.empty())
        {
            refuse(at, "an empty key names nothing (leave \"key\" out instead)");
        }
        if (parseNumber(key, number))
        {
            refuse(at, "the key \"" + key + "\" is a number, which names an element by its uuid " +
                           "(give a key with a letter in it)");
        }
        if (!plan_.elementOfKey.emplace(key, static_cast<UINT32>(element)).second)
        {
            refuse(at, "the key \"" + key + "\" is given twice");
        }
    }

    // Calls visit(name, value, place) for each member of the object.
    template <typename Visit>
    static void forEachMember(const Json& object, const Place& at, Visit visit)
    {
        if (!object.is_object())
        {
            refuse(at, "expected an object");
        }
        for (const auto& item : object.items())
        {
            visit(item.key(), item.value(), at.member(item.key()));
        }
    }

    // An id written as a text, remembered: a large panel names the same few ids millions of times.
    UINT32 idOf(const std::string& text, const Place& at, IdKind kind)
    {
        auto& known = ids_[indexOf(kind)];
        const auto found = known.find(text);
        if (found != known.end())
        {
            return found->second;
        }
        const UINT32 id = readId(Json(text), at, kind, vocabulary_);
        known.emplace(text, id);
        return id;
    }

    // True when an item of the frame from `first` on has the id.
    static bool givenBefore(const Frame& frame, std::size_t first, UINT32 id)
    {
        return std::any_of(frame.items.begin() + static_cast<std::ptrdiff_t>(first),
                           frame.items.end(), [id](const Item& item) { return item.id == id; });
    }

    void typedMember(Frame& frame, UINT32 type, Member member, const Json& value)
    {
        const Place at{nullptr,
                       member == PropertiesMember ? "properties"
                       : member == StatesMember   ? "states"
                                                  : "relations",
                       Place::kMember};
        const TypeFacts& facts = facts_.of(type);
        if (member == PropertiesMember)
        {
            properties(frame, type, facts, value, at);
        }
        else if (member == StatesMember)
        {
            states(frame, type, facts, value, at);
        }
        else
        {
            relations(frame, value, at);
        }
    }

    void properties(Frame& frame, UINT32 type, const TypeFacts& facts, const Json& object,
                    const Place& at)
    {
        const std::size_t first = frame.items.size();
        forEachMember(object, at, [&](const std::string& name, const Json& j, const Place& itemAt) {
            const UINT32 id = idOf(name, itemAt, IdKind::Property);
            const auto storage = facts.storageOfProperty.find(id);
            if (storage == facts.storageOfProperty.end())
            {
                refuse(itemAt, "element type " + hex(type) + " has no property " + hex(id));
            }
            if (givenBefore(frame, first, id))
            {
                refuse(itemAt, "property " + named(vocabulary_, IdKind::Property, id) +
                                   " is given twice (by its name and by its id)");
            }
            const Value value = planValue(id, storage->second, j, itemAt);
            const UINT32 offset = static_cast<UINT32>(plan_.pool.size());
            plan_.pool += value.bytes;
            frame.items.push_back({id, value.bytes.empty() ? value.number : offset,
                                   static_cast<UINT32>(value.bytes.size()), plan_.intern(name),
                                   ItemKind::Property, value.storage});
        });
    }

    void states(Frame& frame, UINT32 type, const TypeFacts& facts, const Json& object,
                const Place& at)
    {
        const std::size_t first = frame.items.size();
        forEachMember(object, at, [&](const std::string& name, const Json& j, const Place& itemAt) {
            const UINT32 group = idOf(name, itemAt, IdKind::StateGroup);
            if (std::count(facts.stateGroups.begin(), facts.stateGroups.end(), group) == 0)
            {
                refuse(itemAt, "element type " + hex(type) + " has no state group " + hex(group));
            }
            if (givenBefore(frame, first, group))
            {
                refuse(itemAt, "state group " + named(vocabulary_, IdKind::StateGroup, group) +
                                   " is given twice (by its name and by its id)");
            }
            const UINT32 stateValue =
                j.is_string() ? idOf(j.get_ref<const std::string&>(), itemAt, IdKind::StateValue)
                              : readId(j, itemAt, IdKind::StateValue, vocabulary_);
            const std::vector<unsigned int>& values = facts_.valuesOf(group);
            if (std::count(values.begin(), values.end(), stateValue) == 0)
            {
                refuse(itemAt,
                       "state group " + hex(group) + " cannot take the value " + hex(stateValue));
            }
            frame.items.push_back(
                {group, stateValue, 0, plan_.intern(name), ItemKind::State, Storage::Integer});
        });
    }

    void relations(Frame& frame, const Json& list, const Place& at)
    {
        if (!list.is_array())
        {
            refuse(at, "expected an array");
        }
        for (std::size_t i = 0; i < list.size(); ++i)
        {
            const Place itemAt = at.item(i);
            expectMembers(list[i], itemAt, {"type", "to"});
            if (!list[i].contains("type") || !list[i].contains("to"))
            {
                refuse(itemAt, "a relation needs a \"type\" and a \"to\"");
            }
            const Json& typeId = list[i]["type"];
            const UINT32 type = typeId.is_string() ? idOf(typeId.get_ref<const std::string&>(),
                                                          itemAt.member("type"), IdKind::Relation)
                                                   : readId(typeId, itemAt.member("type"),
                                                            IdKind::Relation, vocabulary_);
            if (!list[i]["to"].is_string())
            {
                refuse(itemAt.member("to"), "expected a text");
            }
            frame.items.push_back({type, plan_.intern(list[i]["to"].get<std::string>()),
                                   static_cast<UINT32>(i), 0, ItemKind::Relation,
                                   Storage::Integer});
        }
    }

    void endElement()
    {
        Frame& frame = frames_[depth_ - 1];
        PlannedElement& element = plan_.elements[frame.element];
        if (element.type == 0)
        {
            throw Refusal{plan_.pointerOf(static_cast<UINT32>(frame.element)) + "/type",
                          "missing member"};
        }
        element.firstItem = static_cast<UINT32>(plan_.items.size());
        element.items = static_cast<UINT32>(frame.items.size());
        plan_.items.insert(plan_.items.end(), frame.items.begin(), frame.items.end());
    }

    void endFile()
    {
        const unsigned seen = frames_[depth_ - 1].seen;
        if ((seen & VersionMember) == 0)
        {
            throw Refusal{"/version", "expected the format version 1"};
        }
        if ((seen & RootMember) == 0)
        {
            throw Refusal{"/root", "missing member"};
        }
    }

    const Vocabulary& vocabulary_;
    Plan& plan_;
    std::function<void()> tick_;
    TypeFactsCache facts_;
    std::vector<Frame> frames_; // frames_[0] to frames_[depth_ - 1] are open; the rest are kept
    std::size_t depth_ = 0;     // for their lists' memory, so that an element costs no allocation
    bool capturing_ = false;
    unsigned captureMember_ = 0;
    const char* captureName_ = "";
    Json captured_;
    std::vector<Json*> captureStack_;
    std::vector<std::string> captureKeys_;
    std::unordered_map<std::string, UINT32> ids_[kKinds];
};

// ---- Checks across the whole file ---------------------------------------------------------------

// Relations may point forward in the file, so their targets are found once every key is known.
void resolveRelations(Plan& plan, std::set<UINT32>& types)
{
    // Each target text is looked up once: a large panel points at a few zones millions of times.
    std::vector<UINT32> elementOf(plan.strings.size(), kNoParent);
    for (const auto& key : plan.elementOfKey)
    {
        const auto text = plan.stringIds.find(key.first);
        if (text != plan.stringIds.end())
        {
            elementOf[text->second] = key.second;
        }
    }
    for (UINT32 holder = 0; holder < plan.elements.size(); ++holder)
    {
        const PlannedElement& element = plan.elements[holder];
        for (UINT32 i = element.firstItem; i < element.firstItem + element.items; ++i)
        {
            Item& relation = plan.items[i];
            if (relation.kind != ItemKind::Relation)
            {
                continue;
            }
            const std::string& target = plan.strings[relation.value];
            const auto at = [&] {
                return plan.pointerOf(holder) + "/relations/" + std::to_string(relation.extra);
            };
            const UINT32 found = elementOf[relation.value];
            if (found == kNoParent)
            {
                throw Refusal{at() + "/to", "no element has the key \"" + target + "\""};
            }
            for (UINT32 earlier = element.firstItem; earlier < i; ++earlier)
            {
                const Item& other = plan.items[earlier];
                if (other.kind == ItemKind::Relation && other.id == relation.id &&
                    other.value == found)
                {
                    throw Refusal{at(), "the relation to \"" + target + "\" is given twice"};
                }
            }
            relation.value = found;
            types.insert(relation.id);
        }
    }
}

// Each element's type must be one of its parent type's child types, and the root must keep the
// GUID counter when any element of the panel is numbered.
void checkPlacement(const Plan& plan, const Vocabulary& vocabulary, TypeFactsCache& facts)
{
    bool numbered = false;
    for (UINT32 i = 0; i < plan.elements.size(); ++i)
    {
        const PlannedElement& element = plan.elements[i];
        numbered = numbered || facts.of(element.type).storageOfProperty.count(kGuidProperty) != 0;
        if (element.parent == kNoParent)
        {
            continue;
        }
        const UINT32 parentType = plan.elements[element.parent].type;
        const std::vector<UINT32>& allowed = facts.of(parentType).childTypes;
        if (!std::binary_search(allowed.begin(), allowed.end(), element.type))
        {
            throw Refusal{plan.pointerOf(i) + "/type",
                          "element type " + named(vocabulary, IdKind::ElementType, element.type) +
                              " may not stand below element type " +
                              named(vocabulary, IdKind::ElementType, parentType) +
                              " (the type library does not make it one of its child types)"};
        }
    }
    const UINT32 rootType = plan.elements.front().type;
    if (numbered && facts.of(rootType).storageOfProperty.count(kGuidCounterProperty) == 0)
    {
        throw Refusal{"/root/type",
                      "element type " + named(vocabulary, IdKind::ElementType, rootType) +
                          " cannot be the root: the root of a panel keeps the counter from which "
                          "its elements' GUIDs are numbered, property 0x301A6 (AvailableGuid), "
                          "and this type has no such property"};
    }
}

// ---- Building the plan through the gateway ------------------------------------------------------

void build(const Plan& plan, std::vector<LoadedElement>& uuids,
           const std::function<void(double)>& tick)
{
    const std::size_t count = plan.elements.size();
    for (std::size_t index = 0; index < count; ++index)
    {
        const PlannedElement& element = plan.elements[index];
        const UINT32 parent = element.parent == kNoParent ? 0 : uuids[element.parent].uuid;
        const UINT32 uuid = EGW_ELementServerAddElementByType(parent, element.type, false, nullptr);
        if (uuid == 0)
        {
            throw Refusal{plan.pointerOf(static_cast<UINT32>(index)),
                          "the element server refused to add the element"};
        }
        uuids.push_back({uuid});
        for (UINT32 i = element.firstItem; i < element.firstItem + element.items; ++i)
        {
            const Item& item = plan.items[i];
            const bool done = item.kind == ItemKind::Relation ||
                              (item.kind == ItemKind::State
                                   ? EGW_ELementServerSetStateValueByUuid(item.value, uuid, item.id,
                                                                          nullptr) == TRUE
                                   : applyValue(uuid, item.id, item.storage, item.value,
                                                plan.pool.data() + item.value, item.extra));
            if (!done)
            {
                throw Refusal{plan.pointerOf(static_cast<UINT32>(index)) +
                                  (item.kind == ItemKind::State ? "/states/" : "/properties/") +
                                  token(plan.strings[item.name]),
                              item.kind == ItemKind::State
                                  ? "the element server refused the state value"
                                  : "the element server refused the value"};
            }
        }
        if (index % 4096 == 0)
        {
            tick(0.6 * static_cast<double>(index) / static_cast<double>(count));
        }
    }
    for (std::size_t index = 0; index < count; ++index)
    {
        const PlannedElement& element = plan.elements[index];
        for (UINT32 i = element.firstItem; i < element.firstItem + element.items; ++i)
        {
            const Item& relation = plan.items[i];
            if (relation.kind == ItemKind::Relation &&
                EGW_ELementServerAddReferenceRelation(static_cast<int>(uuids[index].uuid),
                                                      static_cast<int>(uuids[relation.value].uuid),
                                                      relation.id, nullptr) != TRUE)
            {
                throw Refusal{plan.pointerOf(static_cast<UINT32>(index)) + "/relations/" +
                                  std::to_string(relation.extra),
                              "the element server refused the relation"};
            }
        }
        if (index % 4096 == 0)
        {
            tick(0.6 + 0.2 * static_cast<double>(index) / static_cast<double>(count));
        }
    }
    // Validation gives each element its GUID, in file order, once the whole panel stands.
    for (std::size_t index = 0; index < count; ++index)
    {
        const INT32 status = EGW_ELementServerValidateElementByUuid(uuids[index].uuid, nullptr);
        if (status != 0)
        {
            throw Refusal{plan.pointerOf(static_cast<UINT32>(index)),
                          "the element server refused to validate the element (status " +
                              std::to_string(status) + ")"};
        }
        if (index % 4096 == 0)
        {
            tick(0.8 + 0.2 * static_cast<double>(index) / static_cast<double>(count));
        }
    }
}

// Reads and checks the file through `parse` (which runs nlohmann's SAX parser over the input),
// then builds it. `readShare` tells how much of the input has been read, 0 to 1.
template <typename Parse>
bool load(Parse parse, const std::string& sourceName, const Vocabulary& vocabulary,
          LoadedPanel& panel, std::string& error, const Progress& progress,
          const std::function<double()>& readShare)
{
    // Reading is the first half of the work, building the second.
    const auto report = [&](double done) {
        if (progress)
        {
            progress(done);
        }
    };
    std::vector<LoadedElement> uuids;
    try
    {
        if (EGW_ELementServerGetTreeRoot(nullptr) != 0)
        {
            throw Refusal{"", "the element tree already holds a panel"};
        }
        Plan plan;
        Reader reader(vocabulary, plan, [&] { report(0.5 * readShare()); });
        parse(reader);
        std::set<UINT32> relationTypes;
        resolveRelations(plan, relationTypes);
        checkPlacement(plan, vocabulary, reader.facts());
        uuids.reserve(plan.elements.size());
        try
        {
            build(plan, uuids, [&](double done) { report(0.5 + 0.5 * done); });
        }
        catch (...)
        {
            if (!uuids.empty())
            {
                EGW_ELementServerDeleteElementByUuid(uuids.front().uuid, nullptr);
            }
            throw;
        }
        LoadedPanel loaded;
        loaded.name = std::move(plan.name);
        for (const auto& key : plan.elementOfKey)
        {
            loaded.uuidByKey.emplace(key.first, uuids[key.second].uuid);
            loaded.keyByUuid.emplace(uuids[key.second].uuid, key.first);
        }
        loaded.elements = std::move(uuids);
        loaded.relationTypes.assign(relationTypes.begin(), relationTypes.end());
        panel = std::move(loaded);
        report(1.0);
        return true;
    }
    catch (const Refusal& refusal)
    {
        // A syntax error names its line and column; every other refusal its JSON pointer.
        const bool syntax = refusal.place.empty() && refusal.problem.rfind("line ", 0) == 0;
        error = sourceName + ": " +
                (syntax ? "" : (refusal.place.empty() ? "/" : refusal.place) + std::string(": ")) +
                refusal.problem;
    }
    return false;
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

std::vector<UINT32> Vocabulary::ids(IdKind kind) const
{
    std::vector<UINT32> all;
    for (const auto& entry : names_[indexOf(kind)])
    {
        all.push_back(entry.first);
    }
    return all;
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
    const auto found = uuidByKey.find(key);
    return found == uuidByKey.end() ? 0 : found->second;
}

std::string LoadedPanel::keyOf(UINT32 uuid) const
{
    const auto found = keyByUuid.find(uuid);
    return found == keyByUuid.end() ? std::string() : found->second;
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
        const Value planned =
            planValue(propertyId, storage->second, value, Place{nullptr, "value", Place::kMember});
        if (!applyValue(uuid, propertyId, planned.storage, planned.number, planned.bytes.data(),
                        planned.bytes.size()))
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
    return load([&](Reader& reader) { Json::sax_parse(text, &reader); }, sourceName, vocabulary,
                panel, error, Progress(), [] { return 0.0; });
}

bool loadPanelStream(std::istream& in, const std::string& sourceName, const Vocabulary& vocabulary,
                     LoadedPanel& panel, std::string& error, const Progress& progress)
{
    // The share read, from the stream's position, when the stream can tell its size.
    const std::istream::pos_type start = in.tellg();
    in.seekg(0, std::ios::end);
    const std::istream::pos_type end = in.tellg();
    in.seekg(start);
    const bool sized =
        start != std::istream::pos_type(-1) && end != std::istream::pos_type(-1) && end > start;
    in.clear();
    const auto share = [&] {
        const std::istream::pos_type at = sized ? in.tellg() : std::istream::pos_type(-1);
        return at == std::istream::pos_type(-1)
                   ? 0.0
                   : static_cast<double>(at - start) / static_cast<double>(end - start);
    };
    return load([&](Reader& reader) { Json::sax_parse(in, &reader); }, sourceName, vocabulary,
                panel, error, progress, share);
}

bool loadPanelFile(const std::string& path, const Vocabulary& vocabulary, LoadedPanel& panel,
                   std::string& error, const Progress& progress)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
    {
        error = path + ": cannot be read: " + std::strerror(errno);
        return false;
    }
    return loadPanelStream(file, path, vocabulary, panel, error, progress);
}

} // namespace panelconfig
