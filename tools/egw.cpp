// egw: the panel tool. Loads a panel into the simulator through the gateway and works on it.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
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
        throw ToolError(path + ": cannot be read: " + std::strerror(errno));
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

Panel::Panel(const Options& options, bool withPanel)
{
    std::string error;
    const std::string typesText =
        options.typesFile.empty() ? panelsim::sampleTypeLibraryText() : readFile(options.typesFile);
    typesSource_ = options.typesFile.empty() ? std::string("sampleTypes.json") : options.typesFile;
    const std::string& typesSource = typesSource_;
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
    if (!options.connection.hostPort.empty() && withPanel)
    {
        remote_ = true;
        gateway_ = remoteGateway(options.connection);
        return;
    }
    gateway_ = localGateway(loaded_);
    if (!withPanel)
    {
        return;
    }
    ProgressBar bar("loading panel");
    const bool loaded =
        options.panelFile.empty()
            ? panelconfig::loadPanelText(std::string(kSamplePanel, kSamplePanelSize),
                                         "samplePanel.json", names_, loaded_, error)
            : panelconfig::loadPanelFile(options.panelFile, names_, loaded_, error, bar.callback());
    if (!loaded)
    {
        throw ToolError(error);
    }
}

UINT32 Panel::element(const std::string& uuidOrKey) const
{
    UINT32 uuid = gateway_->uuidOf(uuidOrKey);
    if (uuid == 0 && (!parseUnsigned(uuidOrKey, uuid) || gateway_->type(uuid) == 0))
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
    std::string command;
    std::string element;
    std::string property;
    std::string value;
    std::string group;
    std::string commandId;
    unsigned loops = 0;
    unsigned devices = 0;
    std::string output;
    bool valueGiven = false;
    // history and audit
    std::string database;
    std::string from;
    std::string to;
    std::vector<int> categories;
    std::string operation;
    int limit = 50;
    std::int64_t before = 0;
};

// The largest panel `generate` writes: a panel loads at a few hundred bytes an element, so ten
// million fit in the memory of a build machine.
constexpr unsigned long long kMostGeneratedElements = 10000000;

// Standard output, or the named file; refused with the system's reason when it cannot be opened.
class Output
{
public:
    explicit Output(const std::string& path) : path_(path)
    {
        // The first failed write leaves its reason in errno.
        errno = 0;
        if (!toStandardOutput())
        {
            file_.open(path, std::ios::binary | std::ios::trunc);
            if (!file_)
            {
                throw ToolError(path + ": cannot be written: " + std::strerror(errno));
            }
        }
    }

    bool toStandardOutput() const { return path_ == "-"; }
    std::ostream& stream() { return toStandardOutput() ? std::cout : file_; }

    // Everything written must have arrived: a full disk shows only when the buffer goes out.
    void finish()
    {
        if (!stream().flush())
        {
            const int error = errno;
            if (error == EPIPE)
            {
                throw ReaderGone();
            }
            throw ToolError(
                (toStandardOutput() ? std::string("standard output") : path_) +
                ": cannot be written: " + (error != 0 ? std::strerror(error) : "write error"));
        }
    }

private:
    std::string path_;
    std::ofstream file_;
};

Json generate(const Request& request)
{
    const unsigned long long elements =
        panelconfig::generatedElementCount(request.loops, request.devices);
    if (elements > kMostGeneratedElements)
    {
        throw UsageError("generate: --loops " + std::to_string(request.loops) + " --devices " +
                         std::to_string(request.devices) + " make " + std::to_string(elements) +
                         " elements; egw generates at most " +
                         std::to_string(kMostGeneratedElements));
    }
    Output output(request.output);
    {
        ProgressBar bar("generating panel");
        panelconfig::generatePanel(output.stream(), request.loops, request.devices, bar.callback());
    }
    output.finish();
    return {{"file", request.output},
            {"loops", request.loops},
            {"devicesPerLoop", request.devices},
            {"elements", elements}};
}

Json exportPanel(const Panel& panel, const Request& request)
{
    if (panel.remote())
    {
        throw UsageError("export writes the panel loaded in this process; it does not work with "
                         "--connect");
    }
    // Every relation type that the tool shows, and any other that the loaded file used.
    std::vector<UINT32> relations = panel.loaded().relationTypes;
    for (UINT32 type : {0x20001u, 0x20002u})
    {
        if (std::find(relations.begin(), relations.end(), type) == relations.end())
        {
            relations.push_back(type);
        }
    }
    std::sort(relations.begin(), relations.end());
    Output output(request.output);
    {
        ProgressBar bar("exporting panel");
        panelconfig::writePanel(output.stream(), EGW_ELementServerGetTreeRoot(nullptr),
                                panel.names(), relations, panel.loaded().keyByUuid,
                                panel.loaded().name, bar.callback());
    }
    output.finish();
    return {{"file", request.output}, {"elements", panel.loaded().elements.size()}};
}

// The gateway reports a broken precondition through its assertion handler and goes on; the tool
// keeps the first report and refuses the run, so that a user sees one clear line and not the
// report's source place.
std::string& gatewayReport()
{
    static std::string report;
    return report;
}

void keepGatewayReport(const char*, const char* function, const char*, int)
{
    if (gatewayReport().empty())
    {
        // "void EGW_Name(UINT32, void*)": the operation's name only.
        std::string name = function != nullptr ? function : "";
        name = name.substr(0, name.find('('));
        name = name.substr(name.rfind(' ') + 1);
        gatewayReport() = name.empty() ? std::string("an operation") : name;
    }
}

void checkGateway()
{
    if (!gatewayReport().empty())
    {
        throw ToolError("the element gateway refused " + gatewayReport() +
                        " on this panel (a precondition of the operation does not hold); the "
                        "answer would be wrong, so none is given");
    }
}

void printJson(const Json& answer)
{
    std::cout << answer.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

// egw history and egw audit: from the service's database file, or asked of egwd.
void showRecords(const Options& options, const Request& request)
{
    const bool remote = !options.connection.hostPort.empty();
    if (remote == !request.database.empty())
    {
        throw UsageError(request.command + ": give either --database FILE (the service's database) "
                                           "or --connect HOST:PORT");
    }
    const Panel panel(options);
    checkGateway();
    std::unique_ptr<RecordSource> file;
    RecordSource* source = panel.gateway().records();
    if (!remote)
    {
        file = databaseRecords(request.database);
        source = file.get();
    }
    RecordQuery query;
    query.fromMs = request.from.empty() ? 0 : parseTime(request.from, "--from");
    query.toMs = request.to.empty() ? 0 : parseTime(request.to, "--to");
    if (!request.element.empty())
    {
        // A uuid as it is (its element may be gone since), else a key of the panel.
        if (!parseUnsigned(request.element, query.uuid) || query.uuid == 0)
        {
            query.uuid = panel.element(request.element);
        }
    }
    query.operation = request.operation;
    query.categories = request.categories;
    query.beforeId = request.before;
    query.max = request.limit;
    const bool audit = request.command == "audit";
    const Json answer =
        audit ? auditCommand(*source, query) : historyCommand(panel, *source, query);
    options.json ? printJson(answer) : (audit ? printAudit : printHistory)(answer, std::cout);
}

// Runs the chosen command; its answer goes to standard output.
void run(const Options& options, const Request& request)
{
    const std::string& chosen = request.command;
    if (chosen == "generate")
    {
        const Json answer = generate(request);
        if (request.output != "-")
        {
            options.json ? printJson(answer) : printValue(answer, std::cout);
        }
        return;
    }
    if (chosen == "history" || chosen == "audit")
    {
        Output out("-");
        showRecords(options, request);
        out.finish();
        return;
    }
    const Panel panel(options, chosen != "types");
    checkGateway();
    Output out("-");
    if (chosen == "tree")
    {
        ProgressBar bar("printing tree");
        // A remote panel's size is not known ahead: no bar then.
        const double total = static_cast<double>(panel.loaded().elements.size());
        std::size_t done = 0;
        const TreeVisitor print = options.json ? treeJson(std::cout) : treeText(std::cout);
        treeCommand(panel, [&](const Json* summary, std::size_t depth, bool hasChildren) {
            print(summary, depth, hasChildren);
            if (!std::cout)
            {
                out.finish(); // the reader is gone or the disk full: no use walking on
            }
            if (summary != nullptr && ++done % 4096 == 0 && total > 0)
            {
                bar.step(static_cast<double>(done) / total);
            }
        });
        if (options.json)
        {
            std::cout << '\n';
        }
        checkGateway();
        out.finish();
        return;
    }
    if (chosen == "export")
    {
        const Json answer = exportPanel(panel, request);
        checkGateway();
        if (request.output != "-")
        {
            options.json ? printJson(answer) : printValue(answer, std::cout);
        }
        out.finish();
        return;
    }
    const auto property = [&] { return panel.id(panelconfig::IdKind::Property, request.property); };
    Json answer;
    void (*print)(const Json&, std::ostream&) = printValue;
    if (chosen == "demo")
    {
        answer = demoCommand(panel);
        print = printDemo;
    }
    else if (chosen == "types")
    {
        answer = typesCommand(panel);
        print = printTypes;
    }
    else if (chosen == "show")
    {
        answer = showCommand(panel, panel.element(request.element));
        print = printShow;
    }
    else if (chosen == "get")
    {
        answer = getCommand(panel, panel.element(request.element), property());
    }
    else if (chosen == "set")
    {
        answer = setCommand(panel, panel.element(request.element), property(), request.value);
    }
    else if (chosen == "state")
    {
        const UINT32 uuid = panel.element(request.element);
        const UINT32 group = panel.id(panelconfig::IdKind::StateGroup, request.group);
        answer = stateCommand(panel, uuid, group, request.valueGiven ? &request.value : nullptr);
    }
    else if (chosen == "command")
    {
        UINT32 command = 0;
        if (!parseUnsigned(request.commandId, command))
        {
            throw ToolError("a command is a number, such as 0x14001; got \"" + request.commandId +
                            "\"");
        }
        answer = commandCommand(panel, panel.element(request.element), command);
    }
    else
    {
        answer = eventsCommand(panel);
        print = printEvents;
    }
    checkGateway();
    options.json ? printJson(answer) : print(answer, std::cout);
    out.finish();
}

// The options of a connection that depend on one another: a level above 1 needs its password,
// a password needs its level, and a panel file means nothing to a panel that egwd serves.
void checkConnectionWords(const Options& options, const CLI::Option& level,
                          const CLI::Option& password)
{
    if (level.count() != 0 && options.connection.level > 1 && options.connection.password.empty())
    {
        throw UsageError("--level " + std::to_string(options.connection.level) +
                         " needs --password (or EGW_PASSWORD)");
    }
    if (password.count() != 0 && level.count() == 0)
    {
        throw UsageError("--password needs --level (the access level it opens)");
    }
    if (!options.panelFile.empty() && !options.connection.hostPort.empty())
    {
        throw UsageError("--panel loads a panel in this process; with --connect the panel is the "
                         "one egwd serves");
    }
}

// One message for a refused run: on standard error after the tool's name, and with --json also as
// a JSON document on standard output.
int refuse(bool json, const std::string& message, int status)
{
    if (json)
    {
        printJson(Json{{"error", message}});
    }
    std::cerr << "egw: " << message << '\n';
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    EGW_SetAssertHandler(keepGatewayReport);
    CLI::App app{"egw: loads a panel configuration into the panel simulator through the element "
                 "gateway, shows its elements, changes them and follows their events."};
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("egw ") + EGW_VERSION);
    Options options;
    Request request;
    app.add_option("--types", options.typesFile, "type library file (default: the sample)")
        ->check(CLI::ExistingFile);
    app.add_option("--panel", options.panelFile, "panel configuration file (default: the sample)")
        ->check(CLI::ExistingFile);
    app.add_flag("--json", options.json, "machine-readable output");
    CLI::Option* connect =
        app.add_option("--connect", options.connection.hostPort,
                       "work on the panel that egwd serves at HOST:PORT instead of a loaded one")
            ->check(CLI::Validator(
                [](std::string& text) {
                    std::string host;
                    int port = 0;
                    return splitHostPort(text, host, port) ? std::string() : hostPortRule(text);
                },
                "HOST:PORT"));
    // The options of a connection mean nothing without one; given alone they are refused rather
    // than ignored.
    app.add_flag("--compact", options.connection.compact,
                 "with --connect: the compact protocol (as egwd --protocol compact)")
        ->needs(connect);
    CLI::Option* level =
        app.add_option("--level", options.connection.level,
                       "with --connect: the access level to log in at (2 to 4; 1: none)")
            ->check(CLI::Range(1, 4))
            ->needs(connect);
    CLI::Option* password = app.add_option("--password", options.connection.password,
                                           "with --connect --level: the password of that level")
                                ->envname("EGW_PASSWORD");
    CLI::Option* tlsCa =
        app.add_option("--tls-ca", options.connection.tlsCa,
                       "with --connect: TLS, the service's certificate checked against this CA file")
            ->check(CLI::ExistingFile)
            ->needs(connect);
    app.add_option("--tls-cert", options.connection.tlsCert,
                   "with --connect --tls-ca: the client certificate (PEM) to show the service")
        ->check(CLI::ExistingFile)
        ->needs(tlsCa);
    app.add_option("--tls-key", options.connection.tlsKey,
                   "with --connect --tls-ca: the private key of --tls-cert")
        ->check(CLI::ExistingFile)
        ->needs(tlsCa);

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
    CLI::Option* stateValue =
        state->add_option("value", request.value, "state value name or id to set");
    CLI::App* command = app.add_subcommand("command", "execute a command on an element");
    element(command);
    command->add_option("command", request.commandId, "command id")->required();
    app.add_subcommand("events", "follow the events of a scripted sequence of changes");
    app.add_subcommand("types", "the element types of the type library, as a Markdown page");
    CLI::App* exportCommand =
        app.add_subcommand("export", "write the element tree as a panel configuration file");
    exportCommand->add_option("-o,--output", request.output, "file to write; - for standard output")
        ->default_val("-");
    const auto recordOptions = [&](CLI::App* sub) {
        sub->add_option("--database", request.database,
                        "the service's database file (egwd --database), opened read-only")
            ->check(CLI::ExistingFile);
        sub->add_option("--from", request.from,
                        "from this UTC time on, such as 2026-11-23T14:00:00Z");
        sub->add_option("--to", request.to, "up to this UTC time");
        sub->add_option("--element", request.element,
                        "uuid, or key in the panel file, of one element");
        sub->add_option("--limit", request.limit, "records a page")
            ->capture_default_str()
            ->check(CLI::Range(1, 1000));
        sub->add_option("--before", request.before,
                        "the next page: records before this id (the previous page names it)")
            ->check(CLI::PositiveNumber);
    };
    CLI::App* history =
        app.add_subcommand("history", "the events the panel service stored, newest first");
    recordOptions(history);
    history
        ->add_option("--category", request.categories,
                     "event category of the detail record (0 to 14); may be repeated")
        ->check(CLI::Range(0, 14));
    CLI::App* audit = app.add_subcommand("audit", "the panel service's audit trail, newest first");
    recordOptions(audit);
    audit->add_option("--operation", request.operation,
                      "one operation's rows, such as setBytes, login or loginFailed");
    CLI::App* generate = app.add_subcommand("generate", "write a large panel file");
    generate->add_option("--loops", request.loops, "loop cards")
        ->required()
        ->check(CLI::Range(1u, 65535u));
    generate->add_option("--devices", request.devices, "devices per loop")
        ->required()
        ->check(CLI::Range(1u, 65535u));
    generate->add_option("-o,--output", request.output, "file to write; - for standard output")
        ->required();

    // Words that name no command or option are kept, so that the refusal can name them; each
    // command refuses its own.
    app.allow_extras();
    // A refused command line is not parsed to the end, so --json is looked for among the words.
    const bool json = std::any_of(
        argv + 1, argv + argc, [](const char* word) { return std::strcmp(word, "--json") == 0; });
    try
    {
        app.parse(argc, argv);
        const std::vector<std::string> unknown = app.remaining();
        const auto refused = [&](const std::string& word) {
            return (word.rfind('-', 0) == 0 ? "unknown option \"" : "unexpected word \"") + word +
                   "\"";
        };
        if (app.get_subcommands().empty())
        {
            std::string commands;
            for (const CLI::App* sub : app.get_subcommands({}))
            {
                commands += (commands.empty() ? "" : ", ") + sub->get_name();
            }
            throw UsageError(unknown.empty() ? "a command is required (one of: " + commands + ")"
                             : unknown.front().rfind('-', 0) == 0
                                 ? refused(unknown.front())
                                 : "unknown command \"" + unknown.front() +
                                       "\" (commands: " + commands + ")");
        }
        request.command = app.get_subcommands().front()->get_name();
        if (!unknown.empty())
        {
            throw UsageError(request.command + ": " + refused(unknown.front()));
        }
        request.valueGiven = stateValue->count() != 0;
        checkConnectionWords(options, *level, *password);
        run(options, request);
        return 0;
    }
    catch (const CLI::ParseError& e)
    {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
        {
            return app.exit(e); // --help, --version
        }
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        return refuse(json,
                      (chosen.empty() ? std::string() : chosen.front()->get_name() + ": ") +
                          e.what() + " (egw --help shows the usage)",
                      2);
    }
    catch (const UsageError& e)
    {
        return refuse(json, e.what(), 2);
    }
    catch (const ReaderGone&)
    {
        // The reader of the output went away (egw tree | head): nothing more is wanted, and
        // nobody is there to read a message. The status is the one a pipe's end would give.
        return 128 + SIGPIPE;
    }
    catch (const ToolError& e)
    {
        return refuse(json, e.what(), 1);
    }
    catch (const GatewayError& e)
    {
        return refuse(json, e.what(), 1);
    }
}
