// What egwd needs of the host it runs on, apart from the element server itself: the panel made
// ready to serve, and its event source (eventSource.h). The simulator's implementation loads a
// type library and a panel file; on the panel, the host's tree is already there.
#ifndef SERVICE_HOST_PANEL_H
#define SERVICE_HOST_PANEL_H

#include <map>
#include <stdexcept>
#include <string>

#include "service/panelHandler.h"

namespace egwservice
{

struct PanelFiles
{
    std::string typesFile; // empty: the host's own (the simulator: its sample type library)
    std::string panelFile; // empty: the host's own (the simulator: the sample panel)
};

// A panel that cannot be served, with the reason.
class PanelRefused : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Makes the panel ready and fills the settings' description, host and element keys.
void preparePanel(const PanelFiles& files, ServiceSettings& settings);

} // namespace egwservice

#endif
