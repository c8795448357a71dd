// Reading a type library from its JSON text (format: docs/type-library.md). Every check names the
// place by its JSON pointer, so a bad file is reported as "<source>: <place>: <problem>" and never
// half-loaded.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <nlohmann/json.hpp>

#include "panelsim/hostCall.h"
#include "panelsim/typeLibraryModel.h"

namespace panelsim::detail
{
namespace
{

using nlohmann::json;

struct LoadError
{
    std::string place;
    std::string problem;
};

const std::string kByteOrderMark = "\xEF\xBB\xBF";

std::string withoutByteOrderMark(const std::string& text)
{
    return text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0
               ? text.substr(kByteOrderMark.size())
               : text;
}

// A new element's value of a property: its default text converted by storage type. Integers are
// read as a 32-bit signed long reads them on the panel (leading blanks, sign, digits up to the
// first other character, clamped to the 32-bit range) and stored at their width.
std::string initialBytes(unsigned storage, const std::string& defaultText)
{
    const std::string text = withoutByteOrderMark(defaultText);
    const unsigned width = integerWidth(storage);
    if (width == 0 && storage != 1)
        return text;
    const long long read = std::strtoll(text.c_str(), nullptr, 10);
    const long long clamped = std::clamp<long long>(read, INT_MIN, INT_MAX);
    if (storage == 1)
        return std::string(1, clamped != 0 ? '\1' : '\0');
    const auto value = static_cast<unsigned>(static_cast<int>(clamped));
    char bytes[4];
    std::memcpy(bytes, &value, sizeof bytes);
    return std::string(bytes, width);
}

class Loader
{
public:
    std::shared_ptr<TypeLibrary> load(const json& root)
    {
        expectObject(root, "", {"description", "stateValues", "stateGroups", "types"});
        forEach(root, "", "stateValues",
                [this](const json& j, const std::string& at) { stateValue(j, at); });
        forEach(root, "", "stateGroups",
                [this](const json& j, const std::string& at) { stateGroup(j, at); });
        if (!root.contains("types"))
            fail("/types", "missing member");
        // Types may name each other in relations in any order: every id is collected first.
        forEach(root, "", "types",
                [this](const json& j, const std::string& at) { declareType(j, at); });
        forEach(root, "", "types",
                [this](const json& j, const std::string& at) { elementType(j, at); });
        return std::move(library_);
    }

private:
    [[noreturn]] static void fail(const std::string& place, const std::string& problem)
    {
        throw LoadError{place.empty() ? "/" : place, problem};
    }

    static void expectObject(const json& j, const std::string& at,
                             std::initializer_list<const char*> members)
    {
        if (!j.is_object())
            fail(at, "expected an object");
        for (const auto& item : j.items())
        {
            if (std::none_of(members.begin(), members.end(),
                             [&](const char* m) { return item.key() == m; }))
                fail(at + "/" + item.key(), "unknown member");
        }
    }

    template <typename Visit>
    static void forEach(const json& object, const std::string& at, const char* member, Visit visit)
    {
        if (!object.contains(member))
            return;
        const json& list = object[member];
        const std::string listAt = at + "/" + member;
        if (!list.is_array())
            fail(listAt, "expected an array");
        for (std::size_t i = 0; i < list.size(); ++i)
            visit(list[i], listAt + "/" + std::to_string(i));
    }

    static constexpr const char* kNumberExpected =
        "expected an unsigned number or a hexadecimal text such as \"0x1A\"";

    // An unsigned number, written as a JSON number or as a hexadecimal text "0x...".
    static unsigned long long unsignedValue(const json& j, const std::string& at,
                                            unsigned long long max)
    {
        unsigned long long value = 0;
        if (j.is_number_unsigned())
            value = j.get<unsigned long long>();
        else if (j.is_string())
        {
            const std::string text = j.get<std::string>();
            std::size_t used = 0;
            const bool isHex = text.size() > 2 && text[0] == '0' &&
                               (text[1] == 'x' || text[1] == 'X') &&
                               std::isxdigit(static_cast<unsigned char>(text[2]));
            try
            {
                value = isHex ? std::stoull(text.substr(2), &used, 16) : 0;
            }
            catch (const std::out_of_range&)
            {
                fail(at, "number out of range");
            }
            if (!isHex || used != text.size() - 2)
                fail(at, kNumberExpected);
        }
        else
            fail(at, kNumberExpected);
        if (value > max)
            fail(at,
                 "number out of range (largest allowed " + hex(static_cast<unsigned>(max)) + ")");
        return value;
    }

    static unsigned member(const json& object, const std::string& at, const char* name,
                           unsigned long long max, unsigned fallback)
    {
        if (!object.contains(name))
            return fallback;
        return static_cast<unsigned>(unsignedValue(object[name], at + "/" + name, max));
    }

    // An id of the given category: tag in the upper 16 bits, a number other than 0 in the lower.
    static unsigned id(const json& j, const std::string& at, unsigned tag)
    {
        const auto value = static_cast<unsigned>(unsignedValue(j, at, 0xFFFFFFFFu));
        if (value >> 16 != tag || low16(value) == 0)
            fail(at, "expected an id of the form " + hex(tag << 16 | 0xABCD) + " (tag " + hex(tag) +
                         ", number not 0), got " + hex(value));
        return value;
    }

    static unsigned requiredId(const json& object, const std::string& at, const char* name,
                               unsigned tag)
    {
        if (!object.contains(name))
            fail(at + "/" + name, "missing member");
        return id(object[name], at + "/" + name, tag);
    }

    static void name(const json& object, const std::string& at)
    {
        if (object.contains("name") && !object["name"].is_string())
            fail(at + "/name", "expected a text");
    }

    template <std::size_t N>
    static void attributes(const json& object, const std::string& at,
                           const unsigned long long (&max)[N], unsigned long long (&out)[N])
    {
        std::fill(std::begin(out), std::end(out), 0);
        if (!object.contains("attributes"))
            return;
        const json& list = object["attributes"];
        const std::string listAt = at + "/attributes";
        if (!list.is_array() || list.size() != N)
            fail(listAt, "expected an array of " + std::to_string(N) + " numbers");
        for (std::size_t i = 0; i < N; ++i)
            out[i] = unsignedValue(list[i], listAt + "/" + std::to_string(i), max[i]);
    }

    void stateValue(const json& j, const std::string& at)
    {
        expectObject(j, at, {"id", "name", "level1", "level2"});
        name(j, at);
        const unsigned value = requiredId(j, at, "id", kStateValueTag);
        StateValueDefinition definition;
        definition.level1 = member(j, at, "level1", 0xFFFFFFFFu, 0);
        definition.level2 = member(j, at, "level2", 0xFFFFFFFFu, 0);
        if (!library_->values.emplace(value, definition).second)
            fail(at + "/id", "state value " + hex(value) + " is defined twice");
    }

    void stateGroup(const json& j, const std::string& at)
    {
        expectObject(j, at, {"id", "name", "values", "default"});
        name(j, at);
        const unsigned group = requiredId(j, at, "id", kStateGroupTag);
        StateGroupDefinition definition;
        forEach(j, at, "values", [&](const json& v, const std::string& valueAt) {
            const unsigned value = id(v, valueAt, kStateValueTag);
            if (library_->values.count(value) == 0)
                fail(valueAt, "state value " + hex(value) + " is not defined in /stateValues");
            if (std::count(definition.values.begin(), definition.values.end(), value) != 0)
                fail(valueAt, "state value " + hex(value) + " is listed twice");
            definition.values.push_back(value);
        });
        if (definition.values.empty())
            fail(at + "/values", "a state group needs at least one value");
        if (j.contains("default"))
        {
            definition.defaultValue = id(j["default"], at + "/default", kStateValueTag);
            if (std::count(definition.values.begin(), definition.values.end(),
                           definition.defaultValue) == 0)
                fail(at + "/default", "the default " + hex(definition.defaultValue) +
                                          " is not one of the group's values");
        }
        if (!library_->groups.emplace(group, std::move(definition)).second)
            fail(at + "/id", "state group " + hex(group) + " is defined twice");
    }

    void declareType(const json& j, const std::string& at)
    {
        if (!j.is_object())
            fail(at, "expected an object");
        const unsigned type = requiredId(j, at, "id", kElementTypeTag);
        if (!library_->types.emplace(type, ElementTypeDefinition{}).second)
            fail(at + "/id", "element type " + hex(type) + " is defined twice");
    }

    void elementType(const json& j, const std::string& at)
    {
        expectObject(
            j, at,
            {"id", "name", "visibility", "properties", "relations", "commands", "stateGroups"});
        name(j, at);
        const unsigned typeId = requiredId(j, at, "id", kElementTypeTag);
        ElementTypeDefinition& type = library_->types[typeId];
        type.visibility = member(j, at, "visibility", 0xFFFFFFFFu, 0);
        forEach(j, at, "properties", [&](const json& p, const std::string& propertyAt) {
            property(type, p, propertyAt);
        });
        forEach(j, at, "relations", [&](const json& r, const std::string& relationAt) {
            relation(type, r, relationAt);
        });
        forEach(j, at, "commands", [&](const json& c, const std::string& commandAt) {
            const unsigned command = id(c, commandAt, kCommandTag);
            if (type.hasCommand(low16(command)))
                fail(commandAt, "command " + hex(command) + " is listed twice");
            type.commands.push_back(command);
        });
        forEach(j, at, "stateGroups", [&](const json& g, const std::string& groupAt) {
            const unsigned group = id(g, groupAt, kStateGroupTag);
            if (library_->groups.count(group) == 0)
                fail(groupAt, "state group " + hex(group) + " is not defined in /stateGroups");
            if (type.stateGroup(low16(group)) != 0)
                fail(groupAt,
                     "another state group of this type has the number " + hex(low16(group)));
            type.stateGroups.push_back(group);
        });
    }

    void property(ElementTypeDefinition& type, const json& j, const std::string& at)
    {
        expectObject(j, at, {"id", "name", "storage", "default", "attributes"});
        name(j, at);
        PropertyDefaultDef definition{};
        definition.PropertyID = requiredId(j, at, "id", kPropertyTag);
        if (!j.contains("storage"))
            fail(at + "/storage", "missing member");
        const auto storage =
            static_cast<unsigned>(unsignedValue(j["storage"], at + "/storage", 255));
        if (storage == 0)
            fail(at + "/storage", "storage type 0 means an unknown property");
        const auto known = library_->propertyStorage.emplace(definition.PropertyID, storage);
        if (known.first->second != storage)
            fail(at + "/storage", "property " + hex(definition.PropertyID) + " has storage type " +
                                      std::to_string(known.first->second) +
                                      " in an earlier definition, " + std::to_string(storage) +
                                      " here");
        static const unsigned long long kMax[7] = {0xFF, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFF,
                                                   0xFF, 0xFF,        0xFF};
        unsigned long long attribute[7];
        attributes(j, at, kMax, attribute);
        definition.Attr1 = static_cast<unsigned char>(attribute[0]);
        definition.Attr2 = static_cast<unsigned>(attribute[1]);
        definition.Attr3 = static_cast<unsigned>(attribute[2]);
        definition.Attr4 = static_cast<unsigned char>(attribute[3]);
        definition.Attr5 = static_cast<unsigned char>(attribute[4]);
        definition.Attr6 = static_cast<unsigned char>(attribute[5]);
        definition.Attr7 = static_cast<unsigned char>(attribute[6]);
        std::optional<std::string> initial;
        if (j.contains("default"))
        {
            if (!j["default"].is_string())
                fail(at + "/default", "expected a text");
            definition.DefaultValue = j["default"].get<std::string>();
            initial = initialBytes(storage, definition.DefaultValue);
        }
        type.properties.push_back(std::move(definition));
        type.storage.push_back(storage);
        type.initial.push_back(std::move(initial));
    }

    void relation(ElementTypeDefinition& type, const json& j, const std::string& at)
    {
        expectObject(j, at, {"type", "kind", "attributes"});
        RelationDef definition{};
        // Related type 0 names no type; the panel's own type definitions can hold such a relation.
        const bool none = j.contains("type") && j["type"] == 0;
        definition.RelatedTypeID = none ? 0 : requiredId(j, at, "type", kElementTypeTag);
        if (!none && library_->types.count(definition.RelatedTypeID) == 0)
            fail(at + "/type", "element type " + hex(definition.RelatedTypeID) + " is not defined");
        if (!j.contains("kind"))
            fail(at + "/kind", "missing member");
        const json& kind = j["kind"];
        if (!kind.is_number_integer() || kind.get<long long>() < SCHAR_MIN ||
            kind.get<long long>() > SCHAR_MAX)
            fail(at + "/kind", "expected a whole number from -128 to 127");
        definition.RelationKind = static_cast<signed char>(kind.get<int>());
        static const unsigned long long kMax[3] = {0xFFFF, 0xFFFF, 0xFF};
        unsigned long long attribute[3];
        attributes(j, at, kMax, attribute);
        definition.Attr1 = static_cast<unsigned short>(attribute[0]);
        definition.Attr2 = static_cast<unsigned short>(attribute[1]);
        definition.Attr3 = static_cast<unsigned char>(attribute[2]);
        type.relations.push_back(definition);
    }

    std::shared_ptr<TypeLibrary> library_ = std::make_shared<TypeLibrary>();
};

// nlohmann reports "[json.exception.parse_error.101] parse error at line 3, column 7: <problem>";
// the place and problem are kept, the library's prefix is not.
std::string syntaxProblem(const json::parse_error& e)
{
    const std::string what = e.what();
    const std::string marker = "parse error at ";
    const auto at = what.find(marker);
    return at == std::string::npos ? what : what.substr(at + marker.size());
}

} // namespace

unsigned integerWidth(unsigned storage)
{
    switch (storage)
    {
    case 3:
    case 4:
    case 6:
    case 19:
        return 4;
    case 5:
    case 15:
        return 2;
    case 7:
    case 16:
        return 1;
    default:
        return 0;
    }
}

std::shared_ptr<const TypeLibrary> parseTypeLibrary(const std::string& text,
                                                    const std::string& source, std::string& error)
{
    try
    {
        return Loader().load(json::parse(text));
    }
    catch (const json::parse_error& e)
    {
        error = source + ": " + syntaxProblem(e);
    }
    catch (const LoadError& e)
    {
        error = source + ": " + e.place + ": " + e.problem;
    }
    return nullptr;
}

} // namespace panelsim::detail
