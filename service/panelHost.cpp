// egwd on the panel's own host: the element tree is the host's, already loaded and with its
// event dispatcher open; the service only names it.
#include "service/hostPanel.h"

namespace egwservice
{

void preparePanel(const PanelFiles& files, ServiceSettings& settings)
{
    if (!files.typesFile.empty() || !files.panelFile.empty())
    {
        throw PanelRefused("--types and --panel load files into the simulator; on the panel the "
                           "service serves the panel's own tree");
    }
    settings.host = "panel";
    settings.panelDescription = "panel";
}

} // namespace egwservice
