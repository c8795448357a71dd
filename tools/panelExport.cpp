// Writing the live element tree back as a panel file, so that a commissioned panel's configuration
// can be kept and loaded again. Everything is read through the gateway's exported operations.
#include <cstdio>
#include <map>
#include <ostream>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "tools/panelConfig.h"

namespace panelconfig
{
namespace
{

using Json = nlohmann::ordered_json;

std::string hexId(UINT32 value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

// What the type library says about one element type, read once per type.
struct TypeShape
{
    Json type;
    std::vector<std::pair<UINT32, Json>> properties; // id, and its name or id as written
    std::vector<std::pair<UINT32, Json>> groups;
    std::vector<UINT32> defaults; // each group's default state value
};

class Exporter
{
public:
    Exporter(std::ostream& out, const Vocabulary& vocabulary, const std::vector<UINT32>& relations,
             const std::unordered_map<UINT32, std::string>& keys, const Progress& progress)
        : out_(out), vocabulary_(vocabulary), relations_(relations), keys_(keys),
          progress_(progress)
    {
    }

    void run(UINT32 root, const std::string& name)
    {
        count(root);
        out_ << "{\"version\": 1, \"name\": " << Json(name).dump(-1, ' ', false, kReplace)
             << ", \"root\":\n";
        element(root);
        out_ << "\n}\n";
    }

private:
    static constexpr Json::error_handler_t kReplace = Json::error_handler_t::replace;

    // First walk: how many elements, and which of them relations point to (they need keys).
    void count(UINT32 root)
    {
        std::vector<UINT32> pending{root};
        while (!pending.empty())
        {
            const UINT32 uuid = pending.back();
            pending.pop_back();
            ++total_;
            for (UINT32 type : relations_)
            {
                std::vector<int> targets;
                EGW_ElementServerGetReferenceRelations(targets, uuid, type, 1, nullptr);
                targets_.insert(targets.begin(), targets.end());
            }
            std::vector<int> children;
            EGW_ELementServerGetChildrenUuidList(children, uuid, nullptr);
            pending.insert(pending.end(), children.begin(), children.end());
        }
        // Targets without a key get a made-up one: "#" and the uuid, longer while a key of the
        // file has that text.
        std::unordered_set<std::string> given;
        for (const auto& key : keys_)
        {
            given.insert(key.second);
        }
        for (int target : targets_)
        {
            if (keys_.count(static_cast<UINT32>(target)) == 0)
            {
                std::string key = "#" + std::to_string(target);
                while (given.count(key) != 0)
                {
                    key.insert(0, "#");
                }
                madeUp_.emplace(static_cast<UINT32>(target), key);
            }
        }
    }

    std::string keyOf(UINT32 uuid) const
    {
        const auto given = keys_.find(uuid);
        if (given != keys_.end())
        {
            return given->second;
        }
        const auto madeUp = madeUp_.find(uuid);
        return madeUp == madeUp_.end() ? std::string() : madeUp->second;
    }

    Json named(IdKind kind, UINT32 id) const
    {
        const std::string name = vocabulary_.nameOf(kind, id);
        return name.empty() ? Json(hexId(id)) : Json(name);
    }

    const TypeShape& shapeOf(UINT32 type)
    {
        const auto found = shapes_.find(type);
        if (found != shapes_.end())
        {
            return found->second;
        }
        TypeShape shape;
        shape.type = named(IdKind::ElementType, type);
        std::vector<EGW_PropertyDef_Thrift> properties;
        EGW_ELementServerGetPropertyInformationList(type, properties);
        for (const EGW_PropertyDef_Thrift& p : properties)
        {
            shape.properties.emplace_back(p.PropertyID, named(IdKind::Property, p.PropertyID));
        }
        std::vector<unsigned int> groups;
        EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, type);
        for (unsigned int group : groups)
        {
            shape.groups.emplace_back(group, named(IdKind::StateGroup, group));
            shape.defaults.push_back(EGW_GetDefaultStatusOfGroup(group));
        }
        return shapes_.emplace(type, std::move(shape)).first->second;
    }

    // One element and its subtree; the members before the children on one line.
    void element(UINT32 uuid)
    {
        const TypeShape& shape = shapeOf(EGW_ElementServerGetElementTypeByUuid(uuid, nullptr));
        Json j;
        const std::string key = keyOf(uuid);
        if (!key.empty())
        {
            j["key"] = key;
        }
        j["type"] = shape.type;
        for (const auto& property : shape.properties)
        {
            Json value = Json::parse(readPropertyValue(uuid, property.first));
            // An empty byte string cannot be written back: it is left out, as a panel file must.
            if (!value.is_null() && !(value.is_string() && value.get<std::string>().empty()))
            {
                j["properties"][property.second.get<std::string>()] = std::move(value);
            }
        }
        for (std::size_t g = 0; g < shape.groups.size(); ++g)
        {
            UINT32 value = 0;
            EGW_ELementServerGetStateValueByUuid(value, uuid, shape.groups[g].first, nullptr);
            // A new element starts at its groups' defaults; only the others are written.
            if (value != 0 && value != shape.defaults[g])
            {
                j["states"][shape.groups[g].second.get<std::string>()] =
                    named(IdKind::StateValue, value);
            }
        }
        for (UINT32 type : relations_)
        {
            std::vector<int> targets;
            EGW_ElementServerGetReferenceRelations(targets, uuid, type, 1, nullptr);
            for (int target : targets)
            {
                j["relations"].push_back(
                    {{"type", hexId(type)}, {"to", keyOf(static_cast<UINT32>(target))}});
            }
        }
        std::string text = j.dump(-1, ' ', false, kReplace);
        std::vector<int> children;
        EGW_ELementServerGetChildrenUuidList(children, uuid, nullptr);
        if (++written_ % 65536 == 0 && progress_)
        {
            progress_(static_cast<double>(written_) / static_cast<double>(total_));
        }
        if (children.empty())
        {
            out_ << text;
            return;
        }
        text.pop_back(); // the closing brace, which follows the children
        out_ << text << ", \"children\": [\n";
        for (std::size_t i = 0; i < children.size(); ++i)
        {
            out_ << (i == 0 ? "" : ",\n");
            element(static_cast<UINT32>(children[i]));
        }
        out_ << "\n]}";
    }

    std::ostream& out_;
    const Vocabulary& vocabulary_;
    const std::vector<UINT32>& relations_;
    const std::unordered_map<UINT32, std::string>& keys_;
    const Progress& progress_;
    std::unordered_set<int> targets_;
    std::unordered_map<UINT32, std::string> madeUp_;
    std::map<UINT32, TypeShape> shapes_;
    unsigned long long total_ = 0;
    unsigned long long written_ = 0;
};

} // namespace

void writePanel(std::ostream& out, UINT32 root, const Vocabulary& vocabulary,
                const std::vector<UINT32>& relationTypes,
                const std::unordered_map<UINT32, std::string>& keys, const std::string& name,
                const Progress& progress)
{
    Exporter(out, vocabulary, relationTypes, keys, progress).run(root, name);
}

} // namespace panelconfig
