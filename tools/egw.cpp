// egw: the panel tool. Loads a panel into the simulator through the gateway and works on it.
#include <cstddef>
#include <fstream>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "panelsim/panelsim.h"
#include "tools/egwTool.h"

namespace egwtool
{

// The sample panel's text, compiled in from tools/panels/samplePanel.json.
extern const char kSamplePanel[];
extern const std::size_t kSamplePanelSize;

namespace
{

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
    {
        throw ToolError(path + ": cannot be read");
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool parseUnsigned(const std::string& text, UINT32& value)
{
    try
    {
        std::size_t used = 0;
        const unsigned long long number = std::stoull(text, &used, 0);
        if (used != text.size() || number > 0xFFFFFFFFull)
        {
            return false;
        }
        value = static_cast<UINT32>(number);
        return true;
    }
    catch (const std::logic_error&)
    {
        return false;
    }
}

} // namespace

Panel::Panel(const Options& options)
{
    std::string error;
    const std::string typesText =
        options.typesFile.empty() ? panelsim::sampleTypeLibraryText() : readFile(options.typesFile);
    const std::string typesSource =
        options.typesFile.empty() ? std::string("sampleTypes.json") : options.typesFile;
    if (options.typesFile.empty())
    {
        panelsim::loadSampleTypeLibrary();
    }
    else if (!panelsim::loadTypeLibraryText(typesText, typesSource, error))
    {
        throw ToolError(error);
    }
    if (!panelconfig::Vocabulary::fromTypeLibraryText(typesText, typesSource, names_, error))
    {
        throw ToolError(error);
    }
    panelsim::reset();
    const bool loaded =
        options.panelFile.empty()
            ? panelconfig::loadPanelText(std::string(kSamplePanel, kSamplePanelSize),
                                         "samplePanel.json", names_, loaded_, error)
            : panelconfig::loadPanelFile(options.panelFile, names_, loaded_, error);
    if (!loaded)
    {
        throw ToolError(error);
    }
}

UINT32 Panel::element(const std::string& uuidOrKey) const
{
    UINT32 uuid = loaded_.uuidOf(uuidOrKey);
    if (uuid == 0 && (!parseUnsigned(uuidOrKey, uuid) ||
                      EGW_ElementServerGetElementTypeByUuid(uuid, nullptr) == 0))
    {
        throw ToolError("no element has the uuid or key \"" + uuidOrKey + "\"");
    }
    return uuid;
}

UINT32 Panel::id(panelconfig::IdKind kind, const std::string& text) const
{
    static const char* const kKindNames[] = {"element type", "property", "state group",
                                             "state value", "relation type"};
    UINT32 id = 0;
    if (!names_.idFromText(kind, text, id))
    {
        throw ToolError(std::string("no ") + kKindNames[static_cast<int>(kind)] + " is named \"" +
                        text + "\"");
    }
    return id;
}

std::string Panel::keyOf(UINT32 uuid) const
{
    for (const panelconfig::LoadedElement& element : loaded_.elements)
    {
        if (element.uuid == uuid)
        {
            return element.key;
        }
    }
    return std::string();
}

std::string Panel::idText(panelconfig::IdKind kind, UINT32 id) const
{
    const std::string name = names_.nameOf(kind, id);
    return name.empty() ? hexText(id) : hexText(id) + " " + name;
}

} // namespace egwtool

using namespace egwtool;

namespace
{

// The command chosen on the command line, with its arguments.
struct Request
{
    std::string element;
    std::string property;
    std::string value;
    std::string group;
    std::string command;
    unsigned loops = 0;
    unsigned devices = 0;
    std::string output;
};

Json generate(const Request& request)
{
    const std::string text = panelconfig::generatePanelText(request.loops, request.devices);
    std::ofstream file(request.output, std::ios::binary);
    if (!(file << text) || !file.flush())
    {
        throw ToolError(request.output + ": cannot be written");
    }
    return {{"file", request.output},
            {"loops", request.loops},
            {"devicesPerLoop", request.devices},
            {"bytes", text.size()}};
}

int run(CLI::App& app, const Options& options, const Request& request)
{
    const auto chosen = [&](const char* name) { return app.got_subcommand(name); };
    Json answer;
    void (*print)(const Json&, std::ostream&) = printValue;
    if (chosen("generate"))
    {
        answer = generate(request);
    }
    else
    {
        const Panel panel(options);
        const auto property = [&] {
            return panel.id(panelconfig::IdKind::Property, request.property);
        };
        if (chosen("demo"))
        {
            answer = demoCommand(panel);
            print = printDemo;
        }
        else if (chosen("tree"))
        {
            answer = treeCommand(panel);
            print = printTree;
        }
        else if (chosen("show"))
        {
            answer = showCommand(panel, panel.element(request.element));
            print = printShow;
        }
        else if (chosen("get"))
        {
            answer = getCommand(panel, panel.element(request.element), property());
        }
        else if (chosen("set"))
        {
            answer = setCommand(panel, panel.element(request.element), property(), request.value);
        }
        else if (chosen("state"))
        {
            const UINT32 uuid = panel.element(request.element);
            const UINT32 group = panel.id(panelconfig::IdKind::StateGroup, request.group);
            answer = stateCommand(panel, uuid, group,
                                  app.get_subcommand("state")->count("value") ? &request.value
                                                                              : nullptr);
        }
        else if (chosen("command"))
        {
            UINT32 command = 0;
            if (!parseUnsigned(request.command, command))
            {
                throw ToolError("a command is a number, such as 0x14001; got \"" + request.command +
                                "\"");
            }
            answer = commandCommand(panel.element(request.element), command);
        }
        else
        {
            answer = eventsCommand(panel);
            print = printEvents;
        }
    }
    if (options.json)
    {
        std::cout << answer.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    }
    else
    {
        print(answer, std::cout);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"egw: loads a panel configuration into the panel simulator through the element "
                 "gateway, shows its elements, changes them and follows their events."};
    app.require_subcommand(1, 1);
    app.fallthrough();
    Options options;
    Request request;
    app.add_option("--types", options.typesFile, "type library file (default: the sample)")
        ->check(CLI::ExistingFile);
    app.add_option("--panel", options.panelFile, "panel configuration file (default: the sample)")
        ->check(CLI::ExistingFile);
    app.add_flag("--json", options.json, "machine-readable output");

    const auto element = [&](CLI::App* command) {
        command->add_option("element", request.element, "uuid, or key in the panel file")
            ->required();
    };
    app.add_subcommand("demo",
                       "load the panel, raise a fire alarm and show what the display shows");
    app.add_subcommand("tree", "print the element tree");
    element(app.add_subcommand("show", "everything about one element"));
    CLI::App* get = app.add_subcommand("get", "read one property");
    element(get);
    get->add_option("property", request.property, "property name or id")->required();
    CLI::App* set = app.add_subcommand("set", "write one property");
    element(set);
    set->add_option("property", request.property, "property name or id")->required();
    set->add_option("value", request.value, "value, written as in a panel file")->required();
    CLI::App* state = app.add_subcommand("state", "read or set one state group");
    element(state);
    state->add_option("group", request.group, "state group name or id")->required();
    state->add_option("value", request.value, "state value name or id to set");
    CLI::App* command = app.add_subcommand("command", "execute a command on an element");
    element(command);
    command->add_option("command", request.command, "command id")->required();
    app.add_subcommand("events", "follow the events of a scripted sequence of changes");
    CLI::App* generate = app.add_subcommand("generate", "write a large panel file");
    generate->add_option("--loops", request.loops, "loop cards")
        ->required()
        ->check(CLI::Range(1u, 65535u));
    generate->add_option("--devices", request.devices, "devices per loop")
        ->required()
        ->check(CLI::Range(1u, 65535u));
    generate->add_option("-o,--output", request.output, "file to write")->required();

    try
    {
        app.parse(argc, argv);
        return run(app, options, request);
    }
    catch (const CLI::ParseError& e)
    {
        return app.exit(e);
    }
    catch (const ToolError& e)
    {
        if (options.json)
        {
            std::cout << Json{{"error", e.what()}}.dump(2) << '\n';
        }
        std::cerr << "egw: " << e.what() << '\n';
        return 1;
    }
}
