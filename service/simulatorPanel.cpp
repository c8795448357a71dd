// egwd on the panel simulator: the type library and the panel file loaded through the gateway,
// and the events of the service's module taken from the simulator's queues.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "panelsim/panelsim.h"
#include "service/eventSource.h"
#include "service/hostPanel.h"
#include "tools/panelConfig.h"

namespace egwservice
{

// The sample panel's text, compiled in from tools/panels/samplePanel.json.
extern const char kSamplePanel[];
extern const std::size_t kSamplePanelSize;

namespace
{

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf()))
    {
        throw PanelRefused(path + ": cannot be read");
    }
    return text.str();
}

class SimulatorEvents : public EventSource
{
public:
    void open(UINT32 module) override { panelsim::loginModule(module); }
    void close(UINT32 module) override { panelsim::logoutModule(module); }
    bool next(UINT32 module, RawEvent& event, std::chrono::milliseconds timeout) override
    {
        panelsim::Event delivered;
        if (!panelsim::waitEvent(module, delivered, timeout))
        {
            return false;
        }
        event.eventId = delivered.eventId;
        event.uuid = delivered.uuid;
        event.source = delivered.source;
        event.data = std::move(delivered.data);
        return true;
    }
    std::size_t dropped(UINT32 module) override { return panelsim::droppedEvents(module); }
};

} // namespace

std::unique_ptr<EventSource> makeEventSource()
{
    return std::make_unique<SimulatorEvents>();
}

void preparePanel(const PanelFiles& files, ServiceSettings& settings)
{
    std::string error;
    const bool sampleTypes = files.typesFile.empty();
    const std::string typesText =
        sampleTypes ? panelsim::sampleTypeLibraryText() : readFile(files.typesFile);
    const std::string typesSource = sampleTypes ? "sampleTypes.json" : files.typesFile;
    if (sampleTypes)
    {
        panelsim::loadSampleTypeLibrary();
    }
    else if (!panelsim::loadTypeLibraryText(typesText, typesSource, error))
    {
        throw PanelRefused(error);
    }
    panelconfig::Vocabulary names;
    if (!panelconfig::Vocabulary::fromTypeLibraryText(typesText, typesSource, names, error))
    {
        throw PanelRefused(error);
    }
    panelsim::reset();
    panelconfig::LoadedPanel panel;
    const bool loaded = files.panelFile.empty()
                            ? panelconfig::loadPanelText(std::string(kSamplePanel, kSamplePanelSize),
                                                         "samplePanel.json", names, panel, error)
                            : panelconfig::loadPanelFile(files.panelFile, names, panel, error);
    if (!loaded)
    {
        throw PanelRefused(error);
    }
    // The library's level-2 detail lines quote the default passwords it reads; the service keeps
    // them out of its log. Every other line goes to standard error as before.
    panelsim::setLogSink([](int level, const std::string& module, const std::string& text) {
        if (level != 2)
        {
            std::fprintf(stderr, "[%d] %s %s%s", level, module.c_str(), text.c_str(),
                         !text.empty() && text.back() == '\n' ? "" : "\n");
        }
    });
    // The events of the service's module are delivered only while the dispatcher is open.
    EGW_ELementServerOpenEventDispatcher(nullptr);
    settings.host = "simulator";
    settings.panelDescription = panel.name;
    for (const panelconfig::LoadedElement& element : panel.elements)
    {
        std::string key = panel.keyOf(element.uuid);
        if (!key.empty())
        {
            settings.elementKeys.emplace(element.uuid, std::move(key));
        }
    }
}

} // namespace egwservice
