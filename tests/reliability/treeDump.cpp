#include "treeDump.h"

#include <cstdio>
#include <list>
#include <set>

#include "host/elementServer.h"
#include "host/typeLibrary.h"
#include "panelsim/panelsim.h"

namespace
{

// Reference relation types looked at in each direction.
constexpr unsigned short kRelationTypes[] = {1, 2, 3, 4};

std::string hex(unsigned value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

std::string bytesOf(Property& property)
{
    if (property.IsEmpty())
        return "empty";
    unsigned short size = 0;
    const auto* data = static_cast<const unsigned char*>(property.GetData(&size));
    std::string text = "[";
    for (unsigned short i = 0; data != nullptr && i < size; ++i)
    {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", data[i]);
        text += byte;
    }
    return text + "]";
}

class Walker
{
public:
    explicit Walker(TreeDump& dump) : dump_(dump) {}

    // Names come first, so that facts naming elements later in the walk can be written. An
    // element named already (by an earlier dump) keeps its name.
    void name(Element& element, const std::string& path)
    {
        dump_.names.emplace(element.GetUUID(), path);
        order_.push_back({element.GetUUID(), path});
        int position = 0;
        for (Element& child : element.GetChildrenList())
            name(child, path + "." + std::to_string(position++));
    }

    void describeAll()
    {
        for (const auto& [uuid, path] : order_)
        {
            Element element(uuid);
            describe(element, dump_.name(uuid));
        }
    }

private:
    void describe(Element& element, const std::string& path)
    {
        const unsigned type = element.GetType();
        auto& facts = dump_.facts;
        facts[path + " type"] = hex(type);
        const unsigned typeId = 0x70000u | type;
        for (const PropertyDef& definition : GetPropertyList(typeId))
        {
            Property property = element.GetPropertyByPropertyID(definition.PropertyID & 0xFFFF);
            facts[path + " prop " + hex(definition.PropertyID)] = bytesOf(property);
        }
        for (unsigned group : GetStateList(typeId))
            facts[path + " state " + hex(group)] = hex(element.GetState(group & 0xFFFF));
        for (unsigned short relation : kRelationTypes)
        {
            for (bool forward : {true, false})
            {
                std::string targets;
                for (Element& target : element.GetReferenceRelations(relation, forward))
                    targets += dump_.name(target.GetUUID()) + " ";
                if (!targets.empty())
                    facts[path + " rel " + hex(relation) + (forward ? " fwd" : " back")] = targets;
            }
        }
    }

    TreeDump& dump_;
    std::list<std::pair<unsigned, std::string>> order_;
};

} // namespace

std::string TreeDump::name(unsigned int uuid) const
{
    if (uuid == 0)
        return "0";
    const auto found = names.find(uuid);
    return found != names.end() ? found->second : "new";
}

TreeDump dumpTree(const TreeDump* earlier)
{
    TreeDump dump;
    if (earlier != nullptr)
        dump.names = earlier->names;
    int error = 0;
    Element root = ElementServer::GetElementServer()->GetRoot(&error);
    if (error == 0)
    {
        Walker walker(dump);
        walker.name(root, "r");
        walker.describeAll();
    }
    // Keyed by what they are, not by position, so that one missing in the middle does not shift
    // the others; the value counts repeats.
    const auto count = [&dump](const std::string& key) {
        std::string& times = dump.facts[key];
        times = std::to_string(times.empty() ? 1 : std::stoi(times) + 1);
    };
    for (const panelsim::Subscription& s : panelsim::subscriptions())
        count("sub " + (s.byType ? "type " + hex(s.typeOrUuid) : "element " + dump.name(s.typeOrUuid)) +
              " event " + hex(s.eventId) + " pid " + std::to_string(s.pid));
    for (const panelsim::ExecutedCommand& c : panelsim::executedCommands())
        count("cmd " + dump.name(c.target) + " " + hex(c.command) + " from " + dump.name(c.source) +
              " [" + c.parameters + "]");
    return dump;
}

std::string outsidePartialState(const TreeDump& before, const TreeDump& actual,
                                const TreeDump& completed)
{
    std::set<std::string> keys;
    for (const TreeDump* dump : {&before, &actual, &completed})
        for (const auto& fact : dump->facts)
            keys.insert(fact.first);
    const auto value = [](const TreeDump& dump, const std::string& key) {
        const auto found = dump.facts.find(key);
        return found != dump.facts.end() ? found->second : std::string("(none)");
    };
    for (const std::string& key : keys)
    {
        const std::string now = value(actual, key);
        if (now != value(before, key) && now != value(completed, key))
            return key + ": " + now + " (before: " + value(before, key) + ", completed: " +
                   value(completed, key) + ")";
    }
    return {};
}
